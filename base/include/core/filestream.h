// File streams: an input stream and, while something is being written, an output stream on one
// path, optionally under a lock of the file named like the path with ".lck" behind it. A rewrite
// goes to the file named like the path with ".new" behind it, which takes the path's place in one
// step when it is complete: a reader sees all of the old file or all of the new one.
//
// The access in the open mode decides: read (1) has input only; write (2) and append (3) write to
// the file itself; read-write (4, 5) reads and may append or rewrite. Modes carry FileModeBinary or
// FileModeText as for FileSysFOpen. Operations on a null stream give FALSE.
#pragma once

#include <cstdio>

#include "core/filesys.h"
#include "core/object.h"
#include "core/types.h"

constexpr int32 FileStreamMagic = ObjMagic(0xC922FE33);

// Descriptor "s;p;p;i;p;s;".
struct FileStreamS {
    char* pstrPath;      // owned
    FILE* pfInput;       // null when the stream is only written
    FILE* pfOutput;      // null when nothing is being written
    int32 lOpenMode;     // FileModeT of the open
    FileHandleT fdLock;  // of the lock file, -1 without a lock
    char* pstrNewPath;   // file of the rewrite under way, owned; null when there is none
};
using FileStreamO = FileStreamS*;

constexpr int32 FileStreamOpenArgsMagic = ObjMagic(0xC85311C4);

// Arguments of FileStreamOpenTags, descriptor "s;i;b;"; the tags are the fields' indices.
struct FileStreamOpenArgsS {
    char* pstrPathName;
    int32 lOpenMode;
    BooleanT bLocking;
};
using FileStreamOpenArgsO = FileStreamOpenArgsS*;
constexpr OBJ_TAG FileStreamTagPathName = 0;
constexpr OBJ_TAG FileStreamTagOpenMode = 1;
constexpr OBJ_TAG FileStreamTagLocking = 2;

// Opens without a lock. *poHandle, which FileStreamClose releases, changes on success only. A
// directory cannot be opened.
BooleanT FileStreamOpen(FileStreamO* poHandle, const char* pstrPathName, FileModeT tOpenMode);

// The same with the arguments as a record. With bLocking TRUE it waits for the lock, exclusive for
// read-write modes and shared for the others, which is held until the stream is closed; in the
// modes that write to the file itself that file is locked too, exclusively. The lock file is made
// when missing and stays. As a process holds its locks as one, a path must not be opened with a
// lock a second time while it is open: the first close would end both locks.
FileStreamOpenArgsO FileStreamOpenArgsNew();
BooleanT FileStreamOpenInternal(FileStreamO* poHandle, FileStreamOpenArgsO oArgs);

// The same with the arguments as tags: OBJ_TAG_BEGIN, pairs of tag and value, OBJ_TAG_END.
template <class... A>
BooleanT FileStreamOpenTags(FileStreamO* poHandle, OBJ_TAG tFirstTag, A... tTags) {
    ObjHolder<FileStreamOpenArgsS> oArgs(FileStreamOpenArgsNew());
    ObjSetFromTags(oArgs.Get(), tFirstTag, tTags...);
    return FileStreamOpenInternal(poHandle, oArgs.Get());
}

// Completes a rewrite under way, closes everything and clears the handle. FALSE when not all that
// was written reached the file; an incomplete rewrite then leaves the old file. A stream that is
// only released, without this, drops its rewrite.
BooleanT FileStreamClose(FileStreamO* poHandle);

BooleanT FileStreamGetPath(const char** ppstrPath, FileStreamO oHandle);  // stays the stream's

// --- writing in read-write modes; FALSE, with nothing done, in any other mode ---

// Both finish what is being written first.
BooleanT FileStreamStartAppend(FileStreamO oHandle);   // output goes to the end of the file
BooleanT FileStreamStartRewrite(FileStreamO oHandle);  // output goes to a new, empty file
// Finishes the append or rewrite; the input stands at the start of the file as it then is. A new
// file is on the device before it takes the place of the old one, whose permission bits it gets.
// FALSE without an output and when not all could be written or put in place; after a rewrite the
// file is then as it was.
BooleanT FileStreamCloseOutput(FileStreamO oHandle);
// Leaves the file as it was; the input stands at its start. FALSE without a rewrite.
BooleanT FileStreamCancelRewrite(FileStreamO oHandle);

// FALSE, traced, without an output, for a negative count, and when the bytes could not be written
// (they are buffered, so that may show only when the output is finished, which then fails).
BooleanT FileStreamWriteByte(FileStreamO oHandle, ByteT value);
BooleanT FileStreamWrite(FileStreamO oHandle, const ByteT* ptBytes, int32 lCount);
BooleanT FileStreamPrintF(FileStreamO oHandle, const char* pstrFormat, ...)
    __attribute__((format(printf, 2, 3)));

// --- reading ---

// The next byte, EOF at the end and on error; an interrupted read is repeated. For loops over the
// bytes of pfInput.
inline int FileStreamGetByte(FILE* pFile) {
    while (true) {
        const int iByte = getc_unlocked(pFile);
        if (iByte != EOF || ferror_unlocked(pFile) == 0 || errno != EINTR) return iByte;
        clearerr_unlocked(pFile);
    }
}

BooleanT FileStreamReadByte(FileStreamO oHandle, ByteT* pValue);  // FALSE, and 0, at the end
// Up to lReadLength bytes; at the end TRUE with a count of 0. FALSE on a read error.
BooleanT FileStreamRead(FileStreamO oHandle, void* pBuffer, int32 lReadLength,
                        std::size_t* plBytesRead);

// --- the input's position ---

BooleanT FileStreamSeek(FileStreamO handle, fpos_t offset);
BooleanT FileStreamSeekFromLong(FileStreamO oHandle, int32 lOffset);
BooleanT FileStreamSeekRelative(FileStreamO oHandle, int32 lOffset);
BooleanT FileStreamSeekStart(FileStreamO oHandle);
BooleanT FileStreamSeekEnd(FileStreamO oHandle);
BooleanT FileStreamGetOffset(fpos_t* ptOffset, FileStreamO oHandle);
// FALSE for a position that the result cannot hold.
BooleanT FileStreamGetOffsetLong(int32* plOffset, FileStreamO oHandle);
