// Descriptors and streams: a thin, uniform layer over the system's file calls.
//
// Calls that a signal interrupts are repeated. Failures are traced, give FALSE and leave errno as
// the failing call set it. A null pointer, and a handle of -1, gives FALSE. Files are created with
// permissions 0644 under a file-creation mask of 0; every descriptor is closed on exec.
#pragma once

#include <cstdio>

#include "core/errnokeeper.h"
#include "core/types.h"

// How a file is opened: one access in the low four bits and, for streams, a content.
using FileModeT = int32;
constexpr FileModeT FileModeAccessMask = 0xf;
constexpr FileModeT FileModeRead = 1;
constexpr FileModeT FileModeWrite = 2;      // created or truncated
constexpr FileModeT FileModeAppend = 3;     // created when missing
constexpr FileModeT FileModeReadWrite = 6;  // created when missing, never truncated; so are 4 and 5
constexpr FileModeT FileModeBinary = 0x100;
constexpr FileModeT FileModeText = 0x200;
// For descriptors: create the file, or fail where there is one already.
constexpr FileModeT FileModeNew = 0x400;
constexpr FileModeT FileModeReadBinary = FileModeRead | FileModeBinary;      // 257
constexpr FileModeT FileModeWriteBinary = FileModeWrite | FileModeBinary;    // 258
constexpr FileModeT FileModeAppendBinary = FileModeAppend | FileModeBinary;  // 259

// --- descriptors ---

// Only the access counts; an unknown one opens for reading. A file that may not be truncated is
// opened for writing as it is. *ptFileHandle changes on success only.
BooleanT FileSysOpen(FileHandleT* ptFileHandle, const char* pstrPath, FileModeT tMode);

// Opens under a lock of the whole file that ends with the descriptor. Access 1 reads under a shared
// lock, waiting for it. Access 2 makes a new, empty file under an exclusive lock, which must be
// free, and puts it in the place of the old one at once: readers see all of the old file, or wait
// for the new one; a file named like the path with ".new" behind it is used meanwhile and stays
// behind when the replacement fails. Any other access fails.
//
// Here as everywhere, a process holds its locks as one: they all end when it closes any descriptor
// of the locked file.
BooleanT FileSysOpenLocked(FileHandleT* ptFileHandle, const char* pstrPath, FileModeT tMode);

// *ptHandle becomes -1 also when the system reports an error, as it has let go of the descriptor.
BooleanT FileSysClose(FileHandleT* ptHandle);

// One read or write. The count is 0 at the end of the file, and on failure; a write may be short.
BooleanT FileSysRead(int32* plBytesRead, FileHandleT tHandle, void* pBuffer, int32 lRequestLength);
BooleanT FileSysWrite(int32* plBytesWritten, FileHandleT tHandle, const void* pBuffer,
                      int32 lRequestLength);

// FileSysRead in two steps, for a caller that reads ahead: the first reads and says nothing, the
// second traces and returns what came of it, when its turn has come.
struct FileReadT {
    int32 lBytes;  // 0 at the end of the file, and on failure
    int iError;    // errno of the failure, 0 without one, -1 for invalid arguments
};
FileReadT FileSysReadQuietly(FileHandleT tHandle, void* pBuffer, int32 lRequestLength);
BooleanT FileSysReadOutcome(int32* plBytesRead, const FileReadT& tRead);

// Lets the system copy from the one file's offset to the other's, as far as it can (to the end, not
// at all between some file systems), and moves both offsets on. Says nothing: who copies the rest
// with FileSysRead and FileSysWrite meets what stopped it.
void FileSysCopyInside(FileHandleT tFrom, FileHandleT tTo);

// Asks the file system for the blocks of a file that will grow to llSize bytes, so that they can
// lie together; size and contents stay as they are. Only a favour: nothing is said where there is
// no room or no such service, and the caller's writes will show. FileSysUnreserve gives back what
// lies behind the end of the file.
void FileSysReserve(FileHandleT tHandle, int64 llSize);
void FileSysUnreserve(FileHandleT tHandle);

// Cuts the file at the current offset.
BooleanT FileSysTruncate(FileHandleT tFileHandle);

// From now on FileSysWrite returns only when the bytes are on the device. Where the system does not
// change O_SYNC of an open descriptor, FileSysWrite waits for them itself; writes made around it
// are then not synchronous.
BooleanT FileSysSynchronous(FileHandleT tHandle);

BooleanT FileSysSeekStart(FileHandleT tHandle);
BooleanT FileSysSeekEnd(FileHandleT tHandle);
BooleanT FileSysSeek(FileHandleT tHandle, int64 tOffset);
BooleanT FileSysSeekRelative(FileHandleT tHandle, int64 tOffset);
BooleanT FileSysSkip(FileHandleT tHandle, int64 lSkipLength);  // the same, without a message
BooleanT FileSysGetOffset(int64* ptOffset, FileHandleT tHandle);
BooleanT FileSysSize(int64* ptFileSize, FileHandleT tHandle);

// --- streams ---

// A stream over FileSysOpen with the same mode, which must be an access with exactly one of
// FileModeBinary and FileModeText (4 and 5 for reading and writing, not 6).
BooleanT FileSysFOpen(FILE** pptFile, const char* pstrPath, FileModeT tFileMode);

// A line with its line end, cut at lMaxChars - 1 bytes. FALSE at the end of the file and on error.
BooleanT FileSysFGetString(FILE* pFile, char* pstrString, int32 lMaxChars);
BooleanT FileSysFPutString(FILE* pFile, const char* pstrString);
BooleanT FileSysFWrite(FILE* pFile, const void* pData, std::size_t lSize);  // all bytes, or FALSE

// FALSE when the last bytes could not be written; *ppFile becomes null all the same, as the stream
// is gone.
BooleanT FileSysFClose(FILE** ppFile);

FileHandleT FileHandleFromFILE(FILE* pFILE);  // stays the stream's; -1 for null

// --- owners ---

// Owner of one descriptor inside a function; closing it on the way out leaves errno alone.
class FileCloser {
 public:
    explicit FileCloser(FileHandleT tHandle = FileHandleClosed) : m_tHandle(tHandle) {}
    ~FileCloser() {
        const ErrnoKeeper tErrno;
        FileSysClose(&m_tHandle);
    }
    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;
    FileHandleT Get() const { return m_tHandle; }
    FileHandleT* Address() { return &m_tHandle; }
    FileHandleT Take() {
        const FileHandleT tHandle = m_tHandle;
        m_tHandle = FileHandleClosed;
        return tHandle;
    }

 private:
    FileHandleT m_tHandle;
};
