// Descriptors and streams.
//
// Each operation is one system call, repeated while it is interrupted, with its message on failure.
// An ErrnoKeeper stands between the call and the messages, so that the caller finds errno as the
// call left it. Two tables translate open modes: one by the access bits for descriptors, one by the
// whole value for streams.
#include "core/filesys.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bitset>

#include "core/errnokeeper.h"
#include "core/filebase.h"
#include "core/filelock.h"
#include "core/memory.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("FILESYS")

namespace {

constexpr mode_t FilePermissions = 0644;

// Open flags by access; -1 for an unknown one.
constexpr std::array<int, FileModeAccessMask + 1> aiOpenFlags = [] {
    std::array<int, FileModeAccessMask + 1> aiFlags{};
    aiFlags.fill(-1);
    aiFlags[FileModeRead] = O_RDONLY;
    aiFlags[FileModeWrite] = O_WRONLY | O_CREAT | O_TRUNC;
    aiFlags[FileModeAppend] = O_WRONLY | O_APPEND | O_CREAT;
    for (const FileModeT tMode : {4, 5, 6}) aiFlags[tMode] = O_RDWR | O_CREAT;
    return aiFlags;
}();

struct FileStreamModeT {
    FileModeT tMode;
    const char* pstrMode;
};
constexpr FileStreamModeT atStreamModes[] = {
    {513, "r"},  {257, "rb"}, {514, "w"},  {258, "wb"},  {515, "a"},
    {259, "ab"}, {516, "r+"}, {517, "r+"}, {260, "rb+"}, {261, "rb+"},
};

// Descriptors whose writes are completed with fsync, because the system let O_SYNC pass without
// effect. A number is struck off when it is given to another file.
std::bitset<65536> gtSynchronous;

bool FileSysIsSynchronous(FileHandleT tHandle) {
    return tHandle >= 0 && tHandle < static_cast<FileHandleT>(gtSynchronous.size()) &&
           gtSynchronous[static_cast<std::size_t>(tHandle)];
}

FileHandleT FileSysOpenDescriptor(const char* pstrPath, int iFlags) {
    umask(0);
    const int iHandle =
        SysRepeat([&] { return open(pstrPath, iFlags | O_CLOEXEC, FilePermissions); });
    if (FileSysIsSynchronous(iHandle)) gtSynchronous[static_cast<std::size_t>(iHandle)] = false;
    return iHandle;
}

int FileSysFlagsFromMode(FileModeT tMode) {
    const int iFlags = aiOpenFlags[tMode & FileModeAccessMask];
    if (iFlags != -1) return iFlags;
    TraceMessageInline(1, 0, 3, "Unknown File mode %d in FileSysOpen", tMode);
    return O_RDONLY;
}

FileHandleT FileSysOpenLockedForRead(const char* pstrPath) {
    FileCloser tFile(FileSysOpenDescriptor(pstrPath, O_RDONLY));
    if (tFile.Get() == FileHandleClosed) return FileHandleClosed;
    if (FileLockSet(tFile.Get(), FileLockShared) != TRUE) return FileHandleClosed;
    return tFile.Take();
}

// Another writer may have opened the same new file, put it in place and closed it before this one
// got the lock; then the name stands for nothing, or for a third writer's file.
bool FileSysIsStillNamed(FileHandleT tHandle, const char* pstrPath) {
    struct stat tOpen;
    struct stat tNamed;
    if (fstat(static_cast<int>(tHandle), &tOpen) != 0 || stat(pstrPath, &tNamed) != 0) return false;
    if (tOpen.st_dev == tNamed.st_dev && tOpen.st_ino == tNamed.st_ino) return true;
    errno = EAGAIN;
    return false;
}

FileHandleT FileSysOpenLockedForWrite(const char* pstrPath) {
    PoolPtr<char> pstrNew(StrCat(pstrPath, ".new", nullptr));
    if (pstrNew.Get() == nullptr) return FileHandleClosed;
    FileCloser tFile(FileSysOpenDescriptor(pstrNew.Get(), O_WRONLY | O_CREAT | O_TRUNC));
    if (tFile.Get() == FileHandleClosed) return FileHandleClosed;
    if (FileLockSetNoWait(tFile.Get(), FileLockExclusive) != TRUE) return FileHandleClosed;
    if (!FileSysIsStillNamed(tFile.Get(), pstrNew.Get())) return FileHandleClosed;
    if (SysRepeat([&] { return rename(pstrNew.Get(), pstrPath); }) != 0) return FileHandleClosed;
    return tFile.Take();
}

// Completes a write on a synchronous descriptor. Pipes and devices that know no synchronous writing
// have nothing to wait for.
bool FileSysComplete(int iHandle) {
    if (!FileSysIsSynchronous(iHandle)) return true;
    return SysRepeat([&] { return fsync(iHandle); }) == 0 || errno == EINVAL || errno == EROFS;
}

bool FileSysSeekTo(FileHandleT tHandle, int64 tOffset, int iWhence) {
    return lseek(static_cast<int>(tHandle), tOffset, iWhence) != -1;
}

}  // namespace

BooleanT FileSysOpen(FileHandleT* ptFileHandle, const char* pstrPath, FileModeT tMode) {
    if (ptFileHandle == nullptr || pstrPath == nullptr) return FALSE;
    const bool bNew = (tMode & FileModeNew) != 0;
    const int iFlags = FileSysFlagsFromMode(tMode) | (bNew ? O_EXCL : 0);
    FileHandleT tHandle = FileSysOpenDescriptor(pstrPath, iFlags);
    if (tHandle == FileHandleClosed && (iFlags & O_TRUNC) != 0 && !bNew)
        tHandle = FileSysOpenDescriptor(pstrPath, iFlags & ~O_TRUNC);

    const ErrnoKeeper tErrno;
    const BooleanT bOpen = BooleanFrom(tHandle != FileHandleClosed);
    if (bOpen == TRUE) {
        *ptFileHandle = tHandle;
    } else {
        TraceMessageInline(19, tErrno.Code(), -1, "Failed to open %s error %s", pstrPath,
                           tErrno.Text());
    }
    TraceMessageInline(32, 0, 4, "%s = FileSysOpen(%p, %s, %x)", BooleanText(bOpen),
                       static_cast<void*>(ptFileHandle), pstrPath, tMode);
    return bOpen;
}

BooleanT FileSysOpenLocked(FileHandleT* ptFileHandle, const char* pstrPath, FileModeT tMode) {
    if (ptFileHandle == nullptr || pstrPath == nullptr) return FALSE;
    FileHandleT tHandle = FileHandleClosed;
    switch (tMode & FileModeAccessMask) {
        case FileModeRead:
            tHandle = FileSysOpenLockedForRead(pstrPath);
            break;
        case FileModeWrite:
            tHandle = FileSysOpenLockedForWrite(pstrPath);
            break;
        default:
            TraceMessageInline(17, 0, -1, "Unknown File mode %d in FileSysOpenLock", tMode);
            errno = EINVAL;
    }

    const ErrnoKeeper tErrno;
    const BooleanT bOpen = BooleanFrom(tHandle != FileHandleClosed);
    if (bOpen == TRUE) {
        *ptFileHandle = tHandle;
    } else {
        TraceMessageInline(35, tErrno.Code(), -1, "Failed to open lock file '%s': %s", pstrPath,
                           tErrno.Text());
    }
    TraceMessageInline(37, 0, 4, "%s = FileSysOpenLocked(%p, %s, %x)", BooleanText(bOpen),
                       static_cast<void*>(ptFileHandle), pstrPath, tMode);
    return bOpen;
}

BooleanT FileSysClose(FileHandleT* ptHandle) {
    if (ptHandle == nullptr || *ptHandle == FileHandleClosed) return FALSE;
    const int iHandle = static_cast<int>(*ptHandle);
    *ptHandle = FileHandleClosed;
    // The descriptor is gone when the call was interrupted, and may already be another file's: a
    // repeated close would hit that one.
    if (close(iHandle) == 0 || errno == EINTR) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(38, tErrno.Code(), -1, "Failed to close file: %s", tErrno.Text());
    return FALSE;
}

FileReadT FileSysReadQuietly(FileHandleT tHandle, void* pBuffer, int32 lRequestLength) {
    if (tHandle == FileHandleClosed || pBuffer == nullptr || lRequestLength < 0) return {0, -1};
    const ssize_t lRead = SysRepeat([&] {
        return read(static_cast<int>(tHandle), pBuffer, static_cast<std::size_t>(lRequestLength));
    });
    return lRead < 0 ? FileReadT{0, errno} : FileReadT{static_cast<int32>(lRead), 0};
}

BooleanT FileSysReadOutcome(int32* plBytesRead, const FileReadT& tRead) {
    if (plBytesRead == nullptr) return FALSE;
    *plBytesRead = tRead.lBytes;
    if (tRead.iError > 0) {
        errno = tRead.iError;
        const ErrnoKeeper tErrno;
        TraceMessageInline(5, tErrno.Code(), -1, "Failed to read: %s", tErrno.Text());
    }
    return BooleanFrom(tRead.iError == 0);
}

BooleanT FileSysRead(int32* plBytesRead, FileHandleT tHandle, void* pBuffer, int32 lRequestLength) {
    if (plBytesRead == nullptr) return FALSE;
    return FileSysReadOutcome(plBytesRead, FileSysReadQuietly(tHandle, pBuffer, lRequestLength));
}

BooleanT FileSysWrite(int32* plBytesWritten, FileHandleT tHandle, const void* pBuffer,
                      int32 lRequestLength) {
    if (plBytesWritten == nullptr) return FALSE;
    *plBytesWritten = 0;
    if (tHandle == FileHandleClosed || pBuffer == nullptr || lRequestLength < 0) return FALSE;
    const int iHandle = static_cast<int>(tHandle);
    const ssize_t lWritten = SysRepeat(
        [&] { return write(iHandle, pBuffer, static_cast<std::size_t>(lRequestLength)); });
    if (lWritten < 0 || !FileSysComplete(iHandle)) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(7, tErrno.Code(), -1, "Failed to write: %s", tErrno.Text());
        return FALSE;
    }
    *plBytesWritten = static_cast<int32>(lWritten);
    return TRUE;
}

void FileSysCopyInside(FileHandleT tFrom, FileHandleT tTo) {
    constexpr std::size_t AtOnce = std::size_t{1} << 30;
    const ErrnoKeeper tErrno;
    // A file that is written synchronously takes its bytes from FileSysWrite.
    if (tFrom == FileHandleClosed || tTo == FileHandleClosed || FileSysIsSynchronous(tTo)) return;
    while (SysRepeat([&] {
               return copy_file_range(static_cast<int>(tFrom), nullptr, static_cast<int>(tTo),
                                      nullptr, AtOnce, 0);
           }) > 0) {
    }
}

void FileSysReserve(FileHandleT tHandle, int64 llSize) {
    const ErrnoKeeper tErrno;
    // Some file systems raise SIGXFSZ for the asking already.
    rlimit tLimit = {};
    if (llSize < 1 || getrlimit(RLIMIT_FSIZE, &tLimit) != 0 ||
        static_cast<uint64>(llSize) > tLimit.rlim_cur) {
        return;
    }
    const int iHandle = static_cast<int>(tHandle);
    if (SysRepeat([&] { return fallocate(iHandle, FALLOC_FL_KEEP_SIZE, 0, llSize); }) != 0 &&
        errno != EOPNOTSUPP) {
        FileSysUnreserve(tHandle);  // what it got before there was no more
    }
}

void FileSysUnreserve(FileHandleT tHandle) {
    const ErrnoKeeper tErrno;
    const int iHandle = static_cast<int>(tHandle);
    struct stat tStat = {};
    if (fstat(iHandle, &tStat) == 0 && S_ISREG(tStat.st_mode))
        SysRepeat([&] { return ftruncate(iHandle, tStat.st_size); });
}

BooleanT FileSysTruncate(FileHandleT tFileHandle) {
    if (tFileHandle == FileHandleClosed) return FALSE;
    const int iHandle = static_cast<int>(tFileHandle);
    const off_t tOffset = lseek(iHandle, 0, SEEK_CUR);
    if (tOffset != -1 && SysRepeat([&] { return ftruncate(iHandle, tOffset); }) == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(33, tErrno.Code(), -1, "Failed to truncate file: %s", tErrno.Text());
    return FALSE;
}

BooleanT FileSysSynchronous(FileHandleT tHandle) {
    if (tHandle == FileHandleClosed) return FALSE;
    const int iHandle = static_cast<int>(tHandle);
    const int iFlags = SysRepeat([&] { return fcntl(iHandle, F_GETFL); });
    if (iFlags == -1) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(30, tErrno.Code(), 3, "Failed to file status flags: %s", tErrno.Text());
        return FALSE;
    }
    bool bSet = SysRepeat([&] { return fcntl(iHandle, F_SETFL, iFlags | O_SYNC); }) != -1;
    // Linux accepts the request and leaves O_SYNC as it was.
    if (bSet && (fcntl(iHandle, F_GETFL) & O_SYNC) != O_SYNC) {
        bSet = tHandle < static_cast<FileHandleT>(gtSynchronous.size());
        if (bSet) {
            gtSynchronous[static_cast<std::size_t>(tHandle)] = true;
        } else {
            errno = EOPNOTSUPP;
        }
    }
    if (bSet) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(29, tErrno.Code(), 3, "Failed to set synchronous I/O: %s", tErrno.Text());
    return FALSE;
}

BooleanT FileSysSeekStart(FileHandleT tHandle) {
    if (tHandle == FileHandleClosed) return FALSE;
    const BooleanT bResult = BooleanFrom(FileSysSeekTo(tHandle, 0, SEEK_SET));
    const ErrnoKeeper tErrno;
    if (bResult != TRUE)
        TraceMessageInline(42, tErrno.Code(), -1, "Failed to seek to start of file: %s",
                           tErrno.Text());
    TraceMessageInline(10, 0, 4, "%s = FileSysSeekStart(%d)", BooleanText(bResult),
                       static_cast<int32>(tHandle));
    return bResult;
}

BooleanT FileSysSeekEnd(FileHandleT tHandle) {
    if (tHandle == FileHandleClosed) return FALSE;
    const BooleanT bResult = BooleanFrom(FileSysSeekTo(tHandle, 0, SEEK_END));
    const ErrnoKeeper tErrno;
    if (bResult != TRUE)
        TraceMessageInline(49, tErrno.Code(), -1, "Failed to seek to end of file: %s",
                           tErrno.Text());
    TraceMessageInline(50, 0, 4, "%s = FileSysSeekEnd(%d)", BooleanText(bResult),
                       static_cast<int32>(tHandle));
    return bResult;
}

BooleanT FileSysSeek(FileHandleT tHandle, int64 tOffset) {
    if (tHandle == FileHandleClosed) return FALSE;
    if (FileSysSeekTo(tHandle, tOffset, SEEK_SET)) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(46, tErrno.Code(), -1, "Failed to seek file absolute: %s", tErrno.Text());
    return FALSE;
}

BooleanT FileSysSeekRelative(FileHandleT tHandle, int64 tOffset) {
    if (tHandle == FileHandleClosed) return FALSE;
    if (FileSysSeekTo(tHandle, tOffset, SEEK_CUR)) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(48, tErrno.Code(), -1, "Failed to seek file relative: %s", tErrno.Text());
    return FALSE;
}

BooleanT FileSysSkip(FileHandleT tHandle, int64 lSkipLength) {
    return BooleanFrom(tHandle != FileHandleClosed &&
                       FileSysSeekTo(tHandle, lSkipLength, SEEK_CUR));
}

BooleanT FileSysGetOffset(int64* ptOffset, FileHandleT tHandle) {
    if (ptOffset == nullptr || tHandle == FileHandleClosed) return FALSE;
    const off_t tOffset = lseek(static_cast<int>(tHandle), 0, SEEK_CUR);
    if (tOffset == -1) return FALSE;
    *ptOffset = tOffset;
    return TRUE;
}

BooleanT FileSysSize(int64* ptFileSize, FileHandleT tHandle) {
    FileStatT tStat;
    if (ptFileSize == nullptr || FileStatHandle(&tStat, tHandle) != TRUE) return FALSE;
    *ptFileSize = tStat.llFileSize;
    return TRUE;
}

BooleanT FileSysFOpen(FILE** pptFile, const char* pstrPath, FileModeT tFileMode) {
    if (pptFile == nullptr || pstrPath == nullptr) return FALSE;
    const auto* ptMode =
        std::find_if(std::begin(atStreamModes), std::end(atStreamModes),
                     [&](const FileStreamModeT& tMode) { return tMode.tMode == tFileMode; });
    if (ptMode == std::end(atStreamModes)) {
        TraceMessageInline(2, 0, -1, "Unknown file mode in FileSysFOpen %d", tFileMode);
        return FALSE;
    }
    FileCloser tFile;
    if (FileSysOpen(tFile.Address(), pstrPath, tFileMode) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(4, 1, 3, "Failed to open file \"%s\"", pstrPath);
        return FALSE;
    }
    FILE* pfileNew = fdopen(static_cast<int>(tFile.Get()), ptMode->pstrMode);
    if (pfileNew == nullptr) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(40, tErrno.Code(), -1, "Failed to build stream on file '%s': %s",
                           pstrPath, tErrno.Text());
        return FALSE;
    }
    tFile.Take();
    *pptFile = pfileNew;
    return TRUE;
}

// Reads byte by byte from the stream's buffer: fgets would lose the beginning of a line whose
// reading is interrupted.
BooleanT FileSysFGetString(FILE* pFile, char* pstrString, int32 lMaxChars) {
    if (pFile == nullptr || pstrString == nullptr || lMaxChars < 1) return FALSE;
    int32 lStored = 0;
    while (lStored < lMaxChars - 1) {
        const int iChar = getc(pFile);
        if (iChar == EOF) {
            if (ferror(pFile) == 0) break;
            if (errno != EINTR) return FALSE;
            clearerr(pFile);
            continue;
        }
        pstrString[lStored++] = static_cast<char>(iChar);
        if (iChar == '\n') break;
    }
    pstrString[lStored] = 0;
    return BooleanFrom(lStored > 0 || lMaxChars == 1);
}

BooleanT FileSysFPutString(FILE* pFile, const char* pstrString) {
    if (pFile == nullptr || pstrString == nullptr) return FALSE;
    return BooleanFrom(fputs(pstrString, pFile) != EOF);
}

BooleanT FileSysFWrite(FILE* pFile, const void* pData, std::size_t lSize) {
    if (pFile == nullptr || pData == nullptr) return FALSE;
    const auto* pRest = static_cast<const ByteT*>(pData);
    while (lSize > 0) {
        const std::size_t lWritten = fwrite(pRest, 1, lSize, pFile);
        if (lWritten == 0) return FALSE;
        pRest += lWritten;
        lSize -= lWritten;
    }
    return TRUE;
}

BooleanT FileSysFClose(FILE** ppFile) {
    if (ppFile == nullptr || *ppFile == nullptr) return FALSE;
    FILE* pFile = *ppFile;
    *ppFile = nullptr;
    if (fclose(pFile) == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(51, tErrno.Code(), -1, "Failed to close stream: %s", tErrno.Text());
    return FALSE;
}

FileHandleT FileHandleFromFILE(FILE* pFILE) {
    return pFILE == nullptr ? FileHandleClosed : fileno(pFILE);
}
