// Stanza files: the text form of stanzas. A line "[title]" or "[category:title]" begins a stanza, a
// line "keyword=value,value" is a key, every other line is passed over. "!" escapes: "!n" is a line
// feed, "!" before any other character keeps that character. docs/formats.md has the whole form.
//
// Names and values are read by characters (strbase.h); names stand as they are, values escaped.
// Carriage returns are passed over in reading and so is what follows a zero byte in its line. A
// stanza that would not be read back as it is, is not written: one with a line of more than 4095
// bytes, a carriage return, a name with a line feed, blanks around it or a delimiter in it, or a
// text that ends in the first half of a character. An empty value is read back as null.
//
// A stanza file handle is a cursor: the finds make a stanza or a key "current", and a find that
// fails leaves everything as it was. The file is locked through the file named like it with ".lck"
// behind it from open to close: shared for reading and appending, exclusive for updating. Changes
// in update mode rewrite the whole file and put it in place in one step; they keep no comments and
// no empty lines of their own. Strings, keys, stanzas and lists that come back are the caller's.
#pragma once

#include "core/filestream.h"
#include "core/object.h"
#include "core/types.h"

constexpr int32 StnzFileModeRead = FileModeRead | FileModeBinary;    // 257
constexpr int32 StnzFileModeAppend = FileModeAppend | FileModeText;  // 515, made when missing
constexpr int32 StnzFileModeUpdate = 4 | FileModeText;               // 516, made when missing

constexpr int32 StnzFileLineSize = 4096;  // longest line with its terminator; the rest is dropped

constexpr int32 StnzFileMagic = ObjMagic(0xc9230ba6);

// Descriptor "o;i;s;s;s;s;i;".
struct StnzFileS {
    FileStreamO FD;
    int32 iOpenMode;
    char* pstrCatagory;  // of the current stanza, may be null
    char* pstrTitle;     // of the current stanza; null when none is current
    char* pstrKeyword;   // of the current key; null when none is current
    char* pstrArgument;  // of the current key, as it stands in the file
    int32 offsetStanza;  // byte offset of the line behind the current stanza's title line
};
using StnzFileO = StnzFileS*;

constexpr int32 StnzDynamicListMagic = ObjMagic(0xc976f067);

// A stanza list with the file that it was read from, descriptor "o;s;".
struct StnzDynamicListS {
    ListO oStnzList;
    char* pstrPath;
};
using StnzDynamicListO = StnzDynamicListS*;

// What one line says: a title line fills the first two, a key line the last two. The texts lie in
// the buffer that the line was read into.
struct StnzLineInfo {
    char* pstrCatagory;
    char* pstrTitle;
    char* pstrKeyword;
    char* pstrArgument;
};

BooleanT StnzFileInitialize();
BooleanT StnzFileInitializeThread(TesselContextT* ptTlContext);
void StnzFileReleaseThread(TesselContextT* ptTlContext);

// --- lines ---

BooleanT StnzLineIsTitle(const char* pstrLine);  // quick tests, which do not look at the names
BooleanT StnzLineIsKey(const char* pstrLine);
BooleanT StnzLineToTitle(char** ppstrCatagory, char** ppstrTitle, const char* pstrLine);
BooleanT StnzLineToKeywordAndArgument(char** ppstrKeyword, char** ppstrArgument,
                                      const char* pstrLine);
// A key with the values of an argument.
BooleanT StnzAddValues(StnzKeyT** ppKey, const char* pstrKeyword, const char* pstrArgument);
BooleanT StnzLineToKey(StnzKeyT** ppKey, const char* pstrLine);

// --- handles ---
//
// FALSE for a null or closed handle, for a stanza that begins behind the first 2 GiB of the file,
// and when reading the file fails: then neither a part of a list is loaded nor a part of a file
// kept by a rewrite.

BooleanT StnzOpenFile(StnzFileO* poStnzFile, const char* pstrPath, const int32 iOpenMode);
// Completes a rewrite under way; FALSE when the file could not be completed.
BooleanT StnzCloseFile(StnzFileO* poStnzFile);
int32 StnzFileOpenMode(StnzFileO oStnzFile);  // -1 for a null or closed handle
BooleanT StnzRewindFile(StnzFileO oStnzFile);

BooleanT StnzFindStanza(StnzFileO oStnzFile, const char* pstrCatagory, const char* pstrTitle);
BooleanT StnzFindNextStanza(StnzFileO oStnzFile);
BooleanT StnzFindKeywordInStanza(StnzFileO oStnzFile, const char* pstrKeyword);
BooleanT StnzFindNextKeyword(StnzFileO oStnzFile);  // within the current stanza
// Reads on through the rest of the file, across stanzas.
BooleanT StnzFindKeyword(StnzFileO oStnzFile, const char* pstrKeyword);

// Copies; FALSE when there is no current stanza or key. ppstrCatagory may be null.
BooleanT StnzCurrentTitle(char** ppstrCatagory, char** ppstrTitle, StnzFileO oStnzFile);
BooleanT StnzCurrentKeyword(char** ppstrKeyword, StnzFileO oStnzFile);
BooleanT StnzCurrentArgument(char** ppstrArgument, StnzFileO oStnzFile);
BooleanT StnzLoadCurrentKey(StnzKeyT** ppKey, StnzFileO oStnzFile);
BooleanT StnzLoadCurrentStanza(StnzT** ppStanza, StnzFileO oStnzFile);  // keeps the position

// Every stanza from the current position to the end; one that cannot be loaded fails it all.
BooleanT StnzFileLoadStanzaList(ListO* poList, StnzFileO oStnzFile);

// Write a stanza whole, with an empty line behind it, to the output (modes 515 and 516; only 515).
BooleanT StnzFileWriteStanza(StnzFileO oStnzFile, const StnzT* pStanza);
BooleanT StnzFileAppendStanza(StnzFileO oStnzFile, const StnzT* pStanza);

// Rewrites, in mode 516 only. A failure leaves the file as it was. After a success nothing is
// current, as the stanzas stand elsewhere. An empty category is written like none.
BooleanT StnzFileRemoveStanza(StnzFileO oStnzFile, const char* pstrCatagory,
                              const char* pstrTitle);  // all of that name
// In the place of the first stanza of that name, the others going; or at the end.
BooleanT StnzFileReplaceStanza(StnzFileO oStnzFile, const StnzT* pStanza);
BooleanT StnzFileSaveStanzaList(ListO oList, StnzFileO ptStnzFile);

// --- whole files: open, work, close ---

BooleanT StnzLoadStanzaFromFile(StnzT** ppStanza, const char* pstrPath, const char* pstrCatagory,
                                const char* pstrTitle);
BooleanT StnzLoadKeyFromFile(StnzKeyT** ppKey, const char* pstrPath, const char* pstrCatagory,
                             const char* pstrTitle, const char* pstrKeyword);
BooleanT StnzLoadStanzaListFromFile(ListO* poList, const char* pstrPath);
BooleanT StnzLoadDynamicStanzaListFromFile(StnzDynamicListO* poList, const char* pstrPath);
BooleanT StnzSaveStanzaListToFile(ListO oList, const char* pstrPath);
BooleanT StnzSaveDynamicStanzaListToFile(StnzDynamicListO oDynamicList);
// Appends, also when the file has a stanza of that name. What could not be written whole is cut off
// again.
BooleanT StnzAddStanzaToFile(StnzT* ptStanza, const char* pstrPathName);
BooleanT StnzReplaceStanzaInFile(StnzT* ptStanza, const char* pstrPathName);
BooleanT StnzRemoveStanzaFromFile(const char* pstrCatagory, const char* pstrTitle,
                                  const char* pstrPathName);
// Takes the key over once the file could be read; a missing stanza is made. One lock from reading
// to rewriting.
BooleanT StnzAddKeyToFile(const char* pstrPathName, const char* pstrCatagory, const char* pstrTitle,
                          StnzKeyT** pptKey, BooleanT bReplace);
