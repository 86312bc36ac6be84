// Temporary files: one directory, unique names in it and streams on its files.
//
// A unique name is 20 decimal digits: the owner's process identifier (5 digits), this process's
// identifier (5 digits) and an instance number (10 digits). Names are told apart by these numbers
// only, and the file is not created with the name: processes without an identifier of their own can
// be given the same name at the same time.
#pragma once

#include <cstdio>

#include "core/types.h"

struct FileTmpDescriptorS {
    FILE* pfileHandle;
    char* pstrFileName;  // within the temporary directory, owned
};
using FileTmpDescriptorT = FileTmpDescriptorS*;

// "tmp" of "directories" in "configure.cfg", else "tmp" in the home directory; a new copy.
char* FileGetTmpDir();

// The name joined to the temporary directory as it was when the process first asked. Null for null.
char* FileTmpBuildPath(const char* pstrFileName);

// --- names: blocks of the default pool ---

// The next name that nothing in the temporary directory has.
BooleanT FileTmpCreateUniqueName(char** ppstrFileName, ProcIdT tOwner);
BooleanT FileTmpCreateUniquePath(char** ppstrPath, ProcIdT tOwner);  // the full path

// A new, empty file of a unique name, open for writing. Processes without an identifier draw the
// same names; of those that try one at the same time only one gets the file, the others go on to
// the next. When no file can be made, FALSE with *ptHandle untouched and the path that was tried.
BooleanT FileTmpCreateUniqueFile(FileHandleT* ptHandle, char** ppstrPath, ProcIdT tOwner);

// --- streams ---

// Open the file of that name in the temporary directory as a binary stream, output created or
// truncated. The name is made of ASCII letters, digits and "." and is neither "." nor "..".
// *pHandle, which FileTmpClose frees, changes on success only.
BooleanT FileTmpOpenOutput(FileTmpDescriptorT* pHandle, const char* pstrFileName);
BooleanT FileTmpOpenInput(FileTmpDescriptorT* pHandle, const char* pstrFileName);

// Not provided: always FALSE.
BooleanT FileTmpOpenUnique(FileTmpDescriptorT* pHandle);

// Frees *pHandle and sets it to null. FALSE when the last bytes could not be written.
BooleanT FileTmpClose(FileTmpDescriptorT* pHandle);

BooleanT FileTmpWriteString(FileTmpDescriptorT handle, const char* pstrSource);

// Reads to the end of the file. The first *plSize - 1 bytes go to the buffer, with a terminator
// behind them; *plSize becomes the number of bytes stored, terminator included. FALSE, with the
// buffer terminated after what was read, on a read error.
BooleanT FileTmpReadString(FileTmpDescriptorT handle, char* pstrBuffer, int32* plSize);

// --- deleting: FALSE when a file could not be deleted; the others are deleted nevertheless ---

BooleanT FileTmpDelete(const char* pstrFileName);  // a name, not a path: without "/"
BooleanT FileTmpDeleteAll();
BooleanT FileTmpDeleteOwnedFiles(ProcIdT tOwner);
