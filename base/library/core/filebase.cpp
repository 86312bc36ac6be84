// Whole files. Status comes from one place (FileStat and FileStatHandle over FileFillStat),
// deleting and changing are single system calls, and everything that copies goes through one
// engine.
#include "core/filebase.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <array>

#include "core/errnokeeper.h"
#include "core/filesys.h"
#include "core/process.h"
#include "core/trace.h"

TRACE_MODULE("FILE")

namespace {

constexpr int32 FileCopyChunk = 32768;
constexpr int32 FileStatBlockSize = 512;

void FileFillStat(FileStatT* ptStat, const struct stat& tSystem) {
    *ptStat = {
        .llFileSize = tSystem.st_size,
        .llBlockCount = tSystem.st_blocks,
        .lMode = static_cast<int32>(tSystem.st_mode),
        .lINode = static_cast<int32>(tSystem.st_ino),
        .lDeviceId = static_cast<int32>(tSystem.st_dev),
        .lRDev = static_cast<int32>(tSystem.st_rdev),
        .lLinkCount = static_cast<int32>(tSystem.st_nlink),
        .lUID = static_cast<int32>(tSystem.st_uid),
        .lGID = static_cast<int32>(tSystem.st_gid),
        .lBlockSize = FileStatBlockSize,
        .tAccessed = static_cast<TimeT>(tSystem.st_atime),
        .tModified = static_cast<TimeT>(tSystem.st_mtime),
        .tChangedStatus = static_cast<TimeT>(tSystem.st_ctime),
        .lAttributes = 0,
    };
}

// The result of a call that changes a file, with the message about a failure.
BooleanT FileChangeResult(int iResult, const char* pstrWhat, const char* pstrPath) {
    if (iResult == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(530, tErrno.Code(), 3, "Failed to change %s of '%s': %s", pstrWhat, pstrPath,
                       tErrno.Text());
    return FALSE;
}

// What must not be copied: a directory, which could be opened but not read, and a file onto itself,
// which truncation would empty and appending would never finish.
bool FileMayCopy(FileHandleT tSource, const char* pstrSource, const char* pstrDest) {
    struct stat tFrom;
    struct stat tTo;
    if (fstat(static_cast<int>(tSource), &tFrom) != 0) return false;
    if (S_ISDIR(tFrom.st_mode)) {
        errno = EISDIR;
    } else if (stat(pstrDest, &tTo) != 0 || tFrom.st_dev != tTo.st_dev ||
               tFrom.st_ino != tTo.st_ino) {
        return true;
    } else {
        errno = EINVAL;
    }
    const ErrnoKeeper tErrno;
    TraceMessageInline(531, tErrno.Code(), -1, "Cannot copy '%s' to '%s': %s", pstrSource, pstrDest,
                       tErrno.Code() == EISDIR ? tErrno.Text() : "they are the same file");
    return false;
}

bool FileCopyContents(FileHandleT tDest, FileHandleT tSource) {
    std::array<ByteT, FileCopyChunk> atChunk;
    int32 lRead = 0;
    int32 lWritten = 0;
    do {
        if (FileSysRead(&lRead, tSource, atChunk.data(), FileCopyChunk) != TRUE) return false;
        if (FileSysWrite(&lWritten, tDest, atChunk.data(), lRead) != TRUE) return false;
        if (lWritten != lRead) return false;
    } while (lRead == FileCopyChunk);
    return true;
}

}  // namespace

BooleanT FileStat(FileStatT* ptStat, const char* pstrPath, BooleanT bThruLinks) {
    if (pstrPath == nullptr) {
        TraceMessageInline(509, 0, -1, "FileStat passed NULL file name");
        ProcCrash(FALSE);
        return FALSE;
    }
    struct stat tSystem;
    const int iResult = SysRepeat(
        [&] { return bThruLinks == TRUE ? stat(pstrPath, &tSystem) : lstat(pstrPath, &tSystem); });
    if (iResult != 0) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(30, tErrno.Code(), 4, "Failed to stat '%s': %s", pstrPath,
                           tErrno.Text());
        return FALSE;
    }
    if (ptStat != nullptr) FileFillStat(ptStat, tSystem);
    return TRUE;
}

BooleanT FileStatHandle(FileStatT* ptStat, FileHandleT tHandle) {
    if (tHandle == FileHandleClosed) return FALSE;
    struct stat tSystem;
    if (SysRepeat([&] { return fstat(static_cast<int>(tHandle), &tSystem); }) != 0) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(34, tErrno.Code(), 4, "Failed to fstat handle: %s", tErrno.Text());
        return FALSE;
    }
    if (ptStat != nullptr) FileFillStat(ptStat, tSystem);
    return TRUE;
}

BooleanT FileExists(const char* pstrPath) {
    FileStatT tStat;
    return BooleanFrom(pstrPath != nullptr && FileStat(&tStat, pstrPath, TRUE) == TRUE &&
                       !S_ISDIR(tStat.lMode));
}

BooleanT FileIsDir(const char* pstrPath) {
    FileStatT tStat;
    return BooleanFrom(pstrPath != nullptr && FileStat(&tStat, pstrPath, TRUE) == TRUE &&
                       S_ISDIR(tStat.lMode));
}

BooleanT FileIsReadOnly(const char* pstrPath) {
    FileStatT tStat;
    return BooleanFrom(pstrPath != nullptr && FileStat(&tStat, pstrPath, TRUE) == TRUE &&
                       (tStat.lMode & S_IWUSR) == 0);
}

BooleanT FileHandleIsReadOnly(FileHandleT tHandle) {
    FileStatT tStat;
    return BooleanFrom(FileStatHandle(&tStat, tHandle) == TRUE && (tStat.lMode & S_IWUSR) == 0);
}

BooleanT FileSize(int32* plResult, const char* pstrPath) {
    if (plResult == nullptr || pstrPath == nullptr || *pstrPath == 0) return FALSE;
    FileStatT tStat = {};
    const BooleanT bResult = FileStat(&tStat, pstrPath, TRUE);
    const ErrnoKeeper tErrno;
    const int32 lSize = static_cast<int32>(tStat.llFileSize);
    if (bResult == TRUE) {
        *plResult = lSize;
    } else {
        TraceMessageInline(27, tErrno.Code(), -1, "Stat failed: %s", tErrno.Text());
    }
    TraceMessageInline(5, 0, 4, " %s = FileSize(%p, %s) size %d", BooleanText(bResult),
                       static_cast<void*>(plResult), pstrPath, lSize);
    return bResult;
}

BooleanT FileHaveAccess(const char* pstrPath, FileAccessE eAccess) {
    if (pstrPath == nullptr) return FALSE;
    int iMode = F_OK;
    switch (eAccess) {
        case eFileAccessRead:
            iMode = R_OK;
            break;
        case eFileAccessWrite:
            iMode = W_OK;
            break;
        case eFileAccessExecute:
            iMode = X_OK;
            break;
    }
    return BooleanFrom(SysRepeat([&] { return access(pstrPath, iMode); }) == 0);
}

BooleanT FileChangeMode(const char* pstrPath, int32 lMode) {
    if (pstrPath == nullptr) return FALSE;
    return FileChangeResult(SysRepeat([&] { return chmod(pstrPath, static_cast<mode_t>(lMode)); }),
                            "mode", pstrPath);
}

BooleanT FileChangeOwner(const char* pstrPath, int32 lOwner, int32 lGroup) {
    if (pstrPath == nullptr) return FALSE;
    return FileChangeResult(SysRepeat([&] {
                                return chown(pstrPath, static_cast<uid_t>(lOwner),
                                             static_cast<gid_t>(lGroup));
                            }),
                            "owner", pstrPath);
}

BooleanT FileChangeTimes(const char* pstrPath, TimeT tAccessed, TimeT tModified) {
    if (pstrPath == nullptr) return FALSE;
    const struct utimbuf tTimes = {.actime = tAccessed, .modtime = tModified};
    return FileChangeResult(SysRepeat([&] { return utime(pstrPath, &tTimes); }), "times", pstrPath);
}

BooleanT FileDelete(const char* pstrPath) {
    if (pstrPath == nullptr) return FALSE;
    TraceMessageInline(2, 0, 4, "FileDelete(\"%s\")", pstrPath);
    if (SysRepeat([&] { return unlink(pstrPath); }) == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(526, tErrno.Code(), -1, "FileDelete failed to delete file '%s'", pstrPath);
    return FALSE;
}

BooleanT FileDestroy(const char* pstrPath) {
    if (pstrPath == nullptr) {
        TraceMessageInline(505, 0, -1, "NULL string passed to FileDestroy");
        return FALSE;
    }
    TraceMessageInline(504, 0, 4, "FileDestroy(\"%s\")", pstrPath);
    return BooleanFrom(SysRepeat([&] { return unlink(pstrPath); }) == 0);
}

BooleanT FileDirDelete(const char* pstrPath) {
    if (pstrPath == nullptr) return FALSE;
    TraceMessageInline(21, 0, 4, "FileDirDelete(\"%s\")", pstrPath);
    if (SysRepeat([&] { return rmdir(pstrPath); }) == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(532, tErrno.Code(), 3, "FileDirDelete failed to delete directory '%s': %s",
                       pstrPath, tErrno.Text());
    return FALSE;
}

BooleanT FileDirDestroy(const char* pstrPath) {
    if (pstrPath == nullptr) {
        TraceMessageInline(507, 0, -1, "NULL string passed to FileDirDestroy");
        return FALSE;
    }
    TraceMessageInline(506, 0, 4, "FileDirDestroy(\"%s\")", pstrPath);
    return BooleanFrom(SysRepeat([&] { return rmdir(pstrPath); }) == 0);
}

BooleanT FileCopy(const char* pstrOldPath, const char* pstrNewPath) {
    return FileCopyMoveAppendInternal(pstrNewPath, pstrOldPath, FALSE, FALSE);
}

BooleanT FileCopyMoveAppendInternal(const char* pstrDest, const char* pstrSource, BooleanT bAppend,
                                    BooleanT bDeleteSource) {
    if (pstrDest == nullptr) return FALSE;
    FileCloser tSource;
    if (FileSysOpen(tSource.Address(), pstrSource, FileModeRead) != TRUE) return FALSE;
    if (!FileMayCopy(tSource.Get(), pstrSource, pstrDest)) return FALSE;
    FileCloser tDest;
    if (FileSysOpen(tDest.Address(), pstrDest, bAppend == TRUE ? FileModeAppend : FileModeWrite) !=
        TRUE)
        return FALSE;
    if (!FileCopyContents(tDest.Get(), tSource.Get())) return FALSE;
    // Some file systems report a failed write only here.
    if (FileSysClose(tDest.Address()) != TRUE) return FALSE;
    return bDeleteSource == TRUE ? FileDelete(pstrSource) : TRUE;
}

BooleanT FileRenameAndMove(const char* pstrOldPath, const char* pstrNewPath) {
    if (pstrOldPath == nullptr || pstrNewPath == nullptr) return FALSE;
    BooleanT bResult =
        BooleanFrom(SysRepeat([&] { return rename(pstrOldPath, pstrNewPath); }) == 0);
    if (bResult != TRUE) {
        TraceMessageInline(3, 0, 4, "Try copy+delete instead of simple move");
        bResult = FileCopy(pstrOldPath, pstrNewPath);
        if (bResult == TRUE && FileDelete(pstrOldPath) != TRUE) {
            const ErrnoKeeper tErrno;
            TraceMessageInline(4, 0, 3, "Delete of original file failed");
            FileDelete(pstrNewPath);
            bResult = FALSE;
        }
    }
    const ErrnoKeeper tErrno;
    TraceMessageInline(22, 0, 4, "%s = FileRenameAndMove(%s, %s)", BooleanText(bResult),
                       pstrOldPath, pstrNewPath);
    return bResult;
}
