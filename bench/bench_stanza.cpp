// Stanza files of 1 KB, 100 KB and 10 MB: loading, getting a value from the loaded list and from
// the file, setting one key, beside GKeyFile; setting beside SQLite, too, with a disk write per
// change on both sides. The files lie in the home directory's "config".
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "core/cfg.h"
#include "core/context.h"
#include "core/list.h"
#include "core/stnzfile.h"
#include "gkeyfile.h"
#include "report.h"

namespace {

constexpr int KeysPerStanza = 8;

struct Size {
    const char* text;
    int stanzas;
    std::string name;      // within "config"
    std::string path;      // of the file
    std::string title;     // a stanza in the middle
    std::string database;  // path of the table with the same content
    double bytes;
};

Size MakeSize(const char* text, int stanzas) {
    Size size = {text, stanzas, "bench" + std::to_string(stanzas) + ".cfg", "", "", "", 0};
    char* path = CfgBuildPath(size.name.c_str());
    size.path = path;
    MemFree(&path);
    size.title = "Stanza " + std::to_string(stanzas / 2);
    size.database = size.path + ".sqlite";
    std::ofstream file(size.path, std::ios::trunc);
    for (int stanza = 0; stanza < stanzas; stanza++) {
        file << "[Stanza " << stanza << "]\n";
        for (int key = 0; key < KeysPerStanza; key++)
            file << "Keyword " << key << "=" << key * 1000 << "\n";
        file << "\n";
    }
    size.bytes = static_cast<double>(file.tellp());
    return size;
}

void Fail(benchmark::State& state, bool good) {
    if (!good) state.SkipWithError("failed");
}

void Load(benchmark::State& state, const Size& size) {
    for (auto _ : state) {
        ListO oList = nullptr;
        Fail(state, StnzLoadStanzaListFromFile(&oList, size.path.c_str()) == TRUE);
        if (oList != nullptr) ObjRelease(&oList);
    }
    state.SetBytesProcessed(static_cast<int64>(size.bytes) * state.iterations());
}

void LoadGKeyFile(benchmark::State& state, const Size& size) {
    for (auto _ : state) GKeyFileFree(GKeyFileLoad(size.path.c_str()));
    state.SetBytesProcessed(static_cast<int64>(size.bytes) * state.iterations());
}

void GetFromList(benchmark::State& state, const Size& size) {
    ListO oList = nullptr;
    Fail(state, CfgGetStanzaList(&oList, size.name.c_str()) == TRUE);
    for (auto _ : state) {
        int32 value = 0;
        Fail(state,
             CfgGetIntegerFromList(oList, size.title.c_str(), "Keyword 5", &value, 0) == TRUE);
    }
    if (oList != nullptr) ObjRelease(&oList);
}

void GetFromGKeyFile(benchmark::State& state, const Size& size) {
    void* file = GKeyFileLoad(size.path.c_str());
    for (auto _ : state) Fail(state, GKeyFileInteger(file, size.title.c_str(), "Keyword 5") > 0);
    GKeyFileFree(file);
}

void GetFromFile(benchmark::State& state, const Size& size) {
    for (auto _ : state) {
        int32 value = 0;
        Fail(state,
             CfgGetInteger(&value, size.name.c_str(), size.title.c_str(), "Keyword 5", 0) == TRUE);
    }
}

void LoadAndGetGKeyFile(benchmark::State& state, const Size& size) {
    for (auto _ : state) {
        void* file = GKeyFileLoad(size.path.c_str());
        Fail(state, GKeyFileInteger(file, size.title.c_str(), "Keyword 5") > 0);
        GKeyFileFree(file);
    }
}

// Of changes the real time counts, which is the disk's.
void Set(benchmark::State& state, const Size& size) {
    int32 value = 0;
    for (auto _ : state) {
        Fail(state,
             CfgSetInteger(size.name.c_str(), size.title.c_str(), "Keyword 5", ++value) == TRUE);
    }
    state.SetItemsProcessed(state.iterations());
}

void SetGKeyFile(benchmark::State& state, const Size& size) {
    int value = 0;
    for (auto _ : state)
        Fail(state, GKeyFileSet(size.path.c_str(), size.title.c_str(), "Keyword 5", ++value));
    state.SetItemsProcessed(state.iterations());
}

void SetSqlite(benchmark::State& state, const Size& size) {
    unlink(size.database.c_str());
    void* database = SqliteOpen(size.database.c_str());
    Fail(state, SqliteFill(database, size.stanzas, KeysPerStanza));
    int value = 0;
    for (auto _ : state) Fail(state, SqliteSet(database, size.title.c_str(), "Keyword 5", ++value));
    SqliteClose(database);
    unlink(size.database.c_str());
    state.SetItemsProcessed(state.iterations());
}

template <class F>
void RegisterReal(const std::string& operation, const std::string& side, F function,
                  const Size& size) {
    if (side == "tessel") Operations().push_back(operation);
    benchmark::RegisterBenchmark((operation + "/" + side).c_str(), function, size)->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
    if (ContextInitialize() != TRUE) return 1;
    const Size sizes[] = {MakeSize("1 KB", 8), MakeSize("100 KB", 700), MakeSize("10 MB", 70000)};
    for (const Size& size : sizes) {
        const std::string of = std::string(size.text) + ": ";
        Register(of + "load", "tessel", Load, size);
        Register(of + "load", "GKeyFile", LoadGKeyFile, size);
        Register(of + "get from memory", "tessel", GetFromList, size);
        Register(of + "get from memory", "GKeyFile", GetFromGKeyFile, size);
        Register(of + "get from the file", "tessel", GetFromFile, size);
        Register(of + "get from the file", "GKeyFile", LoadAndGetGKeyFile, size);
        RegisterReal(of + "set in the file", "tessel", Set, size);
        RegisterReal(of + "set in the file", "GKeyFile", SetGKeyFile, size);
        RegisterReal(of + "set in the file", "SQLite", SetSqlite, size);
    }
    return RunPairs(argc, argv, "Stanza files");
}
