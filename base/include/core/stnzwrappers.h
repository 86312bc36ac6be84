// Typed values in stanzas. A getter reads value 1 of the first key of a keyword; it fails only for
// a missing result pointer and gives the default for a missing key. A found key without values
// reads as null, as the default of a number and as FALSE.
//
// A value list is a list of string objects, one per value, in order. Strings, lists and keys that
// come back are the caller's.
#pragma once

#include "core/object.h"
#include "core/types.h"

BooleanT StnzGetString(StnzT* pStanza, const char* pstrKeyword, const char* pstrDefault,
                       char** ppstrValue);
// The default also for a value that is no number.
BooleanT StnzGetInteger(StnzT* pStanza, const char* pstrKeyword, int32 lDefault, int32* plValue);
BooleanT StnzGetInt64(StnzT* pStanza, const char* pstrKeyword, int64 tDefault, int64* ptValue);
// TRUE exactly for "true" in any case.
BooleanT StnzGetBoolean(StnzT* pStanza, const char* pstrKeyword, BooleanT bDefault,
                        BooleanT* pValue);
BooleanT StnzGetValueList(StnzT* pStanza, const char* pstrKeyword,
                          ListO* poValueList);  // FALSE when the key is missing

// The same from the key itself; null stands for a missing one.
BooleanT StnzKeyGetString(StnzKeyT* ptKey, const char* pstrDefault, char** ppstrValue);
BooleanT StnzKeyGetInteger(StnzKeyT* ptKey, int32 lDefault, int32* plValue);
BooleanT StnzKeyGetInt64(StnzKeyT* ptKey, int64 tDefault, int64* ptValue);
BooleanT StnzKeyGetBoolean(StnzKeyT* ptKey, BooleanT bDefault, BooleanT* pValue);
BooleanT StnzKeyGetValueList(StnzKeyT* ptKey, ListO* poValueList);

// New keys. FALSE for a null result and a null or empty keyword.
BooleanT StnzCreateKeyFromString(StnzKeyT** ppKey, const char* pstrKeyword, const char* pstrValue);
BooleanT StnzCreateKeyFromInteger(StnzKeyT** ppKey, const char* pstrKeyword, int32 lValue);
BooleanT StnzCreateKeyFromInt64(StnzKeyT** ppKey, const char* pstrKeyword, int64 llValue);
BooleanT StnzCreateKeyFromBoolean(StnzKeyT** ppKey, const char* pstrKeyword, BooleanT bValue);
BooleanT StnzCreateKeyFromValueList(StnzKeyT** ppKey, const char* pstrKeyword, ListO oValueList);

// Add a key, or with bReplace put it in the place of every key of its keyword. The stanza may move.
BooleanT StnzSetKeywordFromString(StnzT** pptStanza, const char* pstrKeyword, const char* pstrValue,
                                  BooleanT bReplace);
BooleanT StnzSetKeywordFromInteger(StnzT** pptStanza, const char* pstrKeyword, int32 lValue,
                                   BooleanT bReplace);
BooleanT StnzSetKeywordFromBoolean(StnzT** pptStanza, const char* pstrKeyword, BooleanT bValue,
                                   BooleanT bReplace);
BooleanT StnzSetKeywordFromValueList(StnzT** pptStanza, const char* pstrKeyword, ListO oValueList,
                                     BooleanT bReplace);

constexpr int32 StnzScanForStnzListsContextMagic = ObjMagic(0xc9312281);

// State of a directory scan, descriptor "o;s;b;".
struct StnzScanForStnzListsContextS {
    ListO oAddToList;
    char* pstrFileExtension;  // owned; null or empty takes every file
    BooleanT bContinueOnBadFile;
};
using StnzScanForStnzListsContextO = StnzScanForStnzListsContextS*;

// Every file of the directory and its subdirectories (links to directories are not followed) whose
// name ends in the extension (null or empty: every file), except lock files (".lck"), as a list of
// stanza lists. A file that cannot be read is passed over with bContinueOnBadFile, else it ends the
// scan and fails it, as does a directory that cannot be read. What is neither file nor directory
// (pipes, sockets, devices) is not looked at.
BooleanT StnzScanDirForStnzLists(ListO* poStnzLists, const char* pstrDir,
                                 const char* pstrFileExtension, BooleanT bContinueOnBadFile);
