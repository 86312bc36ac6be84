// Localised texts: message numbers looked up in the catalogue of the language in use, with the
// built-in English text where there is none. A catalogue is "locale.ctl" in "locale/<language>"
// below the home directory; plug-in numbers (100,100,000 and above) add "locale<n>.ctl" of the same
// directory on demand, n being the number divided by 100,000. docs/formats.md has the file's form.
#pragma once

#include "core/types.h"

struct TesselContextLocaleS {
    char* pstrLocale;  // language in use, owned
    MapO oCatalog;     // LocaleEntryT by number; null for the built-in texts
};

struct LocaleEntryT {
    int32 lId;
    char* pstrText;  // owned
};

BooleanT LocaleInitialize();
// Loads the catalogue that the configuration names; a missing one is no failure.
BooleanT LocaleInitializeThread(TesselContextT* ptTlContext);
void LocaleReleaseThread(TesselContextT* ptTlContext);

char* LocaleGetConfiguration();  // "Catalog" of "Locale" in "configure.cfg", the caller's; or null
// Null and "English" go back to the built-in texts. FALSE, with the texts as they were, when the
// language has no catalogue.
BooleanT LocaleSetLocale(const char* pstrLocale);
BooleanT LocaleGetLocale(char** ppstrLocale);  // a copy; FALSE when no language was set

// The text of message lId, else pstrString ("" for null): a copy, or borrowed until the language
// changes.
char* LocaleGetString(const char* pstrString, int32 lId);
const char* LocaleGetStaticString(const char* pstrString, int32 lId);
// The same for a text that is used as a format: a catalogue is a file, so its text serves only if
// it converts the same arguments in the same order as pstrFormat does; otherwise pstrFormat serves.
const char* LocaleGetFormat(const char* pstrFormat, int32 lId) __attribute__((format_arg(1)));

BooleanT LocaleReadPluginLocale(int32 lPlgId);  // FALSE when the file does not exist
// Parses a catalogue line; the entry's text is the caller's.
BooleanT LocaleLineIsEntry(LocaleEntryT* ptEntry, const char* pstrLine);

// Catalogues kept in a map of LocaleEntryT: order, search by number, release; and whether a
// language may be the name of a directory.
int32 LocaleLocateCachedEntry(void* pEntry1, void* pEntry2);
int32 LocaleFindCachedEntry(void* plId, void* pEntry);
void LocaleReleaseCachedEntry(void* pEntry);
bool LocaleIsDirectoryName(const char* pstrLocale);

// A default text with a message number attached, and back: the localised text, the caller's.
char* LocaleCreateStringWithId(const char* pstrString, int32 lId);
char* LocaleResolveStringWithId(const char* pstrRequest);
