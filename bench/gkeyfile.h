// The GKeyFile and SQLite sides of bench_stanza, in a unit of its own: glib defines TRUE and FALSE
// as macros.
#pragma once

// A key file in memory; null when it cannot be read.
void* GKeyFileLoad(const char* path);
void GKeyFileFree(void* file);
int GKeyFileInteger(void* file, const char* group, const char* key);
// Loads the file, sets one key and replaces the file.
bool GKeyFileSet(const char* path, const char* group, const char* key, int value);

// A table of titles, keywords and values, indexed by both names, whose changes are on the device
// when a statement returns.
void* SqliteOpen(const char* path);
void SqliteClose(void* database);
bool SqliteFill(void* database, int stanzas, int keys);
bool SqliteSet(void* database, const char* title, const char* keyword, int value);
