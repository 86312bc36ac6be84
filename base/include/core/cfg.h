// Configuration: typed values by file name, stanza title and keyword. A file is named without a
// directory ("configure.cfg") and lies in "config" below the home directory. Nothing is cached:
// every call opens, locks, reads or rewrites and closes the file.
//
// An item stands in its file in one of two layouts. Plain: a key of the keyword in the stanza
// "[title]". Displayable: the key "value" of the stanza "[title:keyword]". Reading looks for the
// displayable one first; writing keeps the layout that the item has, plain for a new one.
//
// Within a task that serves another machine, files that have a map file are read from and written
// to that machine's configuration server (cfgutil.h). Strings, keys, stanzas and lists that come
// back are the caller's.
#pragma once

#include "core/types.h"

// --- stanzas and files ---

BooleanT CfgGetStanza(StnzT** ppStanza, const char* pstrStanzaFile, const char* pstrStanzaTitle);
BooleanT CfgGetStanzaList(ListO* poList, const char* pstrStanzaFile);
BooleanT CfgReplaceStanzaList(const char* pstrStanzaFile, ListO oList);
BooleanT CfgAddStanza(StnzT* pStanza, const char* pstrStanzaFile);  // at the end of the file
BooleanT CfgReplaceStanza(StnzT* pStanza, const char* pstrStanzaFile);
BooleanT CfgRemoveStanza(const char* pstrCatagory, const char* pstrTitle,
                         const char* pstrStanzaFile);

// --- reading items: a missing one gives the default and FALSE ---

BooleanT CfgGetKey(const char* pstrStanzaFile, const char* pstrStanzaTitle, const char* pstrKeyword,
                   StnzKeyT** ppKey);
BooleanT CfgGetString(char** ppstrValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrKeyword, const char* pstrDefault);
// A value that is no such number gives FALSE and leaves the variable as it is.
BooleanT CfgGetInteger(int32* plValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, int32 lDefault);
BooleanT CfgGetInt64(int64* pllValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                     const char* pstrKeyword, int64 llDefault);
// "TRUE" or "FALSE" in any case; any other value gives FALSE and leaves the variable as it is.
BooleanT CfgGetBoolean(BooleanT* pbValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, BooleanT bDefault);
BooleanT CfgGetValueList(ListO* poValueList, const char* pstrStanzaFile,
                         const char* pstrStanzaTitle, const char* pstrKeyword);

// --- writing items: file and stanza are made when missing ---

BooleanT CfgSetString(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrKeyword, const char* pstrValue);
BooleanT CfgSetInteger(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, int32 lValue);
BooleanT CfgSetInt64(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                     const char* pstrKeyword, int64 llValue);
BooleanT CfgSetBoolean(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, BooleanT bValue);
BooleanT CfgSetValueList(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                         const char* pstrKeyword, ListO oValueList);

// Values of a key of a plain stanza. The stanza must exist; a missing key is made by Add. Reading
// and rewriting are two steps under two locks.
BooleanT CfgAddValueToKey(const char* pstrFileName, const char* pstrStanzaName,
                          const char* pstrKeyName, const char* pstrNewValue);
BooleanT CfgRemoveValueFromKey(const char* pstrFileName, const char* pstrStanzaName,
                               const char* pstrKeyName, const char* pstrValueToRemove);
BooleanT CfgRemoveKey(const char* pstrFileName, const char* pstrStanzaName,
                      const char* pstrKeyName);

// Entries of a displayable value list, under one lock from reading to rewriting. bUnique refuses an
// entry that is there already. The changed list comes back through poValueList, which may be null.
BooleanT CfgAddEntryToValueList(ListO* poValueList, const char* pstrStanzaFile,
                                const char* pstrStanzaTitle, const char* pstrKeyword,
                                const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase);
BooleanT CfgRemoveEntryFromValueList(ListO* poValueList, const char* pstrStanzaFile,
                                     const char* pstrStanzaTitle, const char* pstrKeyword,
                                     const char* pstrEntry, BooleanT bNoCase);

char* CfgBuildPath(const char* pstrFileName);

// --- items of a stanza list in memory, as CfgGetStanzaList returns it; keys stay the list's ---

BooleanT CfgGetKeyFromList(ListO oStanzaList, const char* pstrStanzaTitle, const char* pstrKeyword,
                           StnzKeyT** ppKey);
BooleanT CfgGetBooleanFromList(ListO oStanzaList, const char* pstrStanzaTitle,
                               const char* pstrKeyword, BooleanT* pbValue, BooleanT bDefault);
BooleanT CfgGetIntegerFromList(ListO oStanzaList, const char* pstrStanzaTitle,
                               const char* pstrKeyword, int32* plValue, int32 lDefault);
BooleanT CfgGetInt64FromList(ListO oStanzaList, const char* pstrStanzaTitle,
                             const char* pstrKeyword, int64* pllValue, int64 llDefault);
BooleanT CfgGetValueListFromList(ListO oStanzaList, const char* pstrStanzaTitle,
                                 const char* pstrKeyword, ListO* poValueList);

// Splits the text of a value list's first string at the commas that no "!" stands before.
BooleanT CfgParseValueList(ListO* poReturnList, ListO oValueList);
