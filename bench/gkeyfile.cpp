#include "gkeyfile.h"

#include <glib.h>
#include <sqlite3.h>

#include <string>

void* GKeyFileLoad(const char* path) {
    GKeyFile* file = g_key_file_new();
    if (g_key_file_load_from_file(file, path, G_KEY_FILE_NONE, nullptr)) return file;
    g_key_file_free(file);
    return nullptr;
}

void GKeyFileFree(void* file) { g_key_file_free(static_cast<GKeyFile*>(file)); }

int GKeyFileInteger(void* file, const char* group, const char* key) {
    return g_key_file_get_integer(static_cast<GKeyFile*>(file), group, key, nullptr);
}

bool GKeyFileSet(const char* path, const char* group, const char* key, int value) {
    void* file = GKeyFileLoad(path);
    if (file == nullptr) return false;
    g_key_file_set_integer(static_cast<GKeyFile*>(file), group, key, value);
    const bool saved = g_key_file_save_to_file(static_cast<GKeyFile*>(file), path, nullptr);
    GKeyFileFree(file);
    return saved;
}

namespace {

bool Run(void* database, const std::string& statement) {
    return sqlite3_exec(static_cast<sqlite3*>(database), statement.c_str(), nullptr, nullptr,
                        nullptr) == SQLITE_OK;
}

}  // namespace

void* SqliteOpen(const char* path) {
    sqlite3* database = nullptr;
    if (sqlite3_open(path, &database) != SQLITE_OK) return nullptr;
    return database;
}

void SqliteClose(void* database) { sqlite3_close(static_cast<sqlite3*>(database)); }

bool SqliteFill(void* database, int stanzas, int keys) {
    bool good = Run(database,
                    "PRAGMA synchronous=NORMAL; PRAGMA journal_mode=DELETE; BEGIN;"
                    "CREATE TABLE items (title TEXT, keyword TEXT, value INTEGER,"
                    " PRIMARY KEY (title, keyword));");
    for (int stanza = 0; stanza < stanzas; stanza++) {
        for (int key = 0; key < keys; key++) {
            good = good &&
                   Run(database, "INSERT INTO items VALUES ('Stanza " + std::to_string(stanza) +
                                     "', 'Keyword " + std::to_string(key) + "', 1)");
        }
    }
    return good && Run(database, "COMMIT");
}

bool SqliteSet(void* database, const char* title, const char* keyword, int value) {
    return Run(database, "UPDATE items SET value = " + std::to_string(value) + " WHERE title = '" +
                             title + "' AND keyword = '" + keyword + "'");
}
