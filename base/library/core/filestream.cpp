// File streams. The streams are the C library's; what this module adds is the way in which output
// becomes the file. A rewrite is written to a file of its own, which is flushed and forced onto the
// device before it is renamed over the old one: whatever ends the process or the power, one of the
// two is there as a whole. Since the C library buffers, a failed write may show as late as that
// flush, and one that failed earlier is remembered by the stream: both make the rewrite fail, and
// then only the new file goes.
//
// The lock is held through a descriptor that nothing else opens or closes: closing any other
// descriptor of the lock file would end it.
#include "core/filestream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdarg>
#include <limits>

#include "core/errnokeeper.h"
#include "core/filebase.h"
#include "core/filelock.h"
#include "core/memory.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("FILE")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr mode_t FilePermissionBits = 0777;

bool IsReadWrite(FileModeT tMode) {
    const FileModeT tAccess = tMode & FileModeAccessMask;
    return tAccess == 4 || tAccess == 5;
}

// An access with the content, text or binary, of the stream's mode.
FileModeT ModeLike(FileStreamO oStream, FileModeT tAccess) {
    return tAccess | ((oStream->lOpenMode & FileModeText) != 0 ? FileModeText : FileModeBinary);
}

const char* Shown(const char* pstrText) { return pstrText == nullptr ? "" : pstrText; }

// What the last holder leaves open when the stream was not closed: nothing of it is put in place.
void Destroy(void* oObject) {
    const ErrnoKeeper tErrno;
    auto* oStream = static_cast<FileStreamO>(oObject);
    if (oStream->pfOutput != nullptr) FileSysFClose(&oStream->pfOutput);
    if (oStream->pfInput != nullptr) FileSysFClose(&oStream->pfInput);
    if (oStream->pstrNewPath != nullptr) FileDestroy(oStream->pstrNewPath);
    if (oStream->fdLock != FileHandleClosed) FileSysClose(&oStream->fdLock);
}

// --- opening ---

bool SetLock(FileHandleT tHandle, FileLockT tLock) {
    if (FileLockSet(tHandle, tLock) == TRUE) return true;
    const ErrnoKeeper tErrno;
    TraceMessageInline(527, tErrno.Code(), -1, "FileStreamOpenTags - Failed to set lock");
    return false;
}

bool OpenLock(FileStreamO oStream) {
    PoolPtr<char> pstrLock(StrCat(oStream->pstrPath, ".lck", nullptr));
    if (FileSysOpen(&oStream->fdLock, pstrLock.Get(), FileModeReadWrite) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(528, tErrno.Code(), -1, "FileStreamOpenTags - Failed to open lock file");
        return false;
    }
    return SetLock(oStream->fdLock,
                   IsReadWrite(oStream->lOpenMode) ? FileLockExclusive : FileLockShared);
}

// A directory can be opened for reading, but every read of it fails.
bool IsDirectory(FILE* pFile) {
    struct stat tStat;
    if (fstat(fileno(pFile), &tStat) != 0 || !S_ISDIR(tStat.st_mode)) return false;
    errno = EISDIR;
    return true;
}

bool OpenStreams(FileStreamO oStream, bool bLocking) {
    const FileModeT tAccess = oStream->lOpenMode & FileModeAccessMask;
    if (tAccess != FileModeWrite && tAccess != FileModeAppend) {
        return FileSysFOpen(&oStream->pfInput, oStream->pstrPath, oStream->lOpenMode) == TRUE &&
               !IsDirectory(oStream->pfInput);
    }
    if (FileSysFOpen(&oStream->pfOutput, oStream->pstrPath, oStream->lOpenMode) != TRUE) {
        return false;
    }
    return !bLocking || SetLock(fileno(oStream->pfOutput), FileLockExclusive);
}

// --- output ---

// Closes the output. False when not all that was written reached the file or, with bSync, the
// device.
bool FinishOutput(FileStreamO oStream, bool bSync) {
    FILE* pFile = oStream->pfOutput;
    bool bGood = ferror(pFile) == 0;
    bGood = fflush(pFile) == 0 && bGood;
    if (bGood && bSync) bGood = SysRepeat([&] { return fsync(fileno(pFile)); }) == 0;
    if (bGood) return FileSysFClose(&oStream->pfOutput) == TRUE;
    const ErrnoKeeper tErrno;
    FileSysFClose(&oStream->pfOutput);
    return false;
}

// Finishes the rewrite and puts the new file in the place of the old one, or deletes it. With
// ppfileInput an input on the new file comes back; it is opened before anything is final.
bool CommitRewrite(FileStreamO oStream, FILE** ppfileInput) {
    PoolPtr<char> pstrNew(oStream->pstrNewPath);
    oStream->pstrNewPath = nullptr;
    const bool bGood =
        FinishOutput(oStream, true) &&
        (ppfileInput == nullptr ||
         FileSysFOpen(ppfileInput, pstrNew.Get(), ModeLike(oStream, FileModeRead)) == TRUE) &&
        SysRepeat([&] { return rename(pstrNew.Get(), oStream->pstrPath); }) == 0;
    if (bGood) return true;
    const ErrnoKeeper tErrno;
    TraceMessageInline(20, tErrno.Code(), -1, "Failed to rewrite '%s': %s", oStream->pstrPath,
                       tErrno.Text());
    if (ppfileInput != nullptr && *ppfileInput != nullptr) FileSysFClose(ppfileInput);
    FileDestroy(pstrNew.Get());
    return false;
}

// An empty file for the rewrite, with the permission bits of the old one, open for appending.
bool OpenNewFile(FileStreamO oStream, const char* pstrNew) {
    struct stat tOld;
    struct stat tNew;
    if (fstat(fileno(oStream->pfInput), &tOld) != 0) return false;
    FileCloser tEmpty;
    if (FileSysOpen(tEmpty.Address(), pstrNew, FileModeWrite) != TRUE) return false;
    const int iEmpty = static_cast<int>(tEmpty.Get());
    const mode_t tBits = tOld.st_mode & FilePermissionBits;
    // A file left behind by another user may be rewritten, but its bits cannot be changed.
    return fstat(iEmpty, &tNew) == 0 &&
           ((tNew.st_mode & FilePermissionBits) == tBits || fchmod(iEmpty, tBits) == 0) &&
           FileSysFOpen(&oStream->pfOutput, pstrNew, ModeLike(oStream, FileModeAppend)) == TRUE;
}

bool MayChange(FileStreamO oHandle) {
    return oHandle != nullptr && oHandle->pfInput != nullptr && IsReadWrite(oHandle->lOpenMode);
}

// Finishes what is being written, if anything is.
bool ReadyToStart(FileStreamO oHandle) {
    return MayChange(oHandle) &&
           (oHandle->pfOutput == nullptr || FileStreamCloseOutput(oHandle) == TRUE);
}

bool HasOutput(FileStreamO oHandle) { return oHandle != nullptr && oHandle->pfOutput != nullptr; }

BooleanT SeekTo(FileStreamO oHandle, int64 llOffset, int iWhence) {
    if (oHandle == nullptr || oHandle->pfInput == nullptr) return FALSE;
    return BooleanFrom(fseeko(oHandle->pfInput, llOffset, iWhence) == 0);
}

}  // namespace

FileStreamOpenArgsO FileStreamOpenArgsNew() {
    return ObjNew<FileStreamOpenArgsS>(FileStreamOpenArgsMagic, "s;i;b;");
}

BooleanT FileStreamOpenInternal(FileStreamO* poHandle, FileStreamOpenArgsO oArgs) {
    const char* pstrPath = oArgs == nullptr ? nullptr : oArgs->pstrPathName;
    if (poHandle == nullptr || pstrPath == nullptr || *pstrPath == 0) {
        TraceMessageInline(529, 0, -1, "FileStreamOpenTags - bad args (%p, '%s')",
                           static_cast<void*>(poHandle), Shown(pstrPath));
        return FALSE;
    }
    ObjHolder<FileStreamS> oStream(ObjNew<FileStreamS>(FileStreamMagic, "s;p;p;i;p;s;", Destroy));
    if (oStream.Get() == nullptr) return FALSE;
    oStream.Get()->fdLock = FileHandleClosed;
    oStream.Get()->lOpenMode = oArgs->lOpenMode;
    oStream.Get()->pstrPath = StrDuplicateIntoPool(pstrPath, MemPool());
    const bool bLocking = oArgs->bLocking == TRUE;
    if ((bLocking && !OpenLock(oStream.Get())) || !OpenStreams(oStream.Get(), bLocking)) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(16, tErrno.Code(), 3, "Failed to open file stream '%s'", pstrPath);
        return FALSE;
    }
    *poHandle = oStream.Take();
    return TRUE;
}

BooleanT FileStreamOpen(FileStreamO* poHandle, const char* pstrPathName, FileModeT tOpenMode) {
    TraceMessageInline(15, 0, 4, "FileStreamOpen(%p, %s, 0x%x)", static_cast<void*>(poHandle),
                       Shown(pstrPathName), tOpenMode);
    return FileStreamOpenTags(poHandle, OBJ_TAG_BEGIN, FileStreamTagPathName, pstrPathName,
                              FileStreamTagOpenMode, tOpenMode, OBJ_TAG_END);
}

BooleanT FileStreamClose(FileStreamO* poHandle) {
    if (poHandle == nullptr || ObjCheckTypeInternal(*poHandle, FileStreamMagic) != TRUE) {
        return FALSE;
    }
    FileStreamO oStream = *poHandle;
    bool bResult = true;
    if (oStream->pfOutput != nullptr) {
        bResult = oStream->pstrNewPath != nullptr ? CommitRewrite(oStream, nullptr)
                                                  : FinishOutput(oStream, false);
    }
    const ErrnoKeeper tErrno;
    if (oStream->pfInput != nullptr) bResult = FileSysFClose(&oStream->pfInput) == TRUE && bResult;
    MemFree(&oStream->pstrPath);
    // Last, so that nobody gets the lock before the new file is in place.
    if (oStream->fdLock != FileHandleClosed) FileSysClose(&oStream->fdLock);
    TraceMessageInline(14, 0, 4, "%s = FileStreamClose(%#" PRIxPTR ")",
                       BooleanText(BooleanFrom(bResult)),
                       reinterpret_cast<std::uintptr_t>(oStream));
    ObjRelease(poHandle);
    return BooleanFrom(bResult);
}

BooleanT FileStreamGetPath(const char** ppstrPath, FileStreamO oHandle) {
    if (ppstrPath == nullptr || oHandle == nullptr) return FALSE;
    *ppstrPath = oHandle->pstrPath;
    return TRUE;
}

BooleanT FileStreamStartAppend(FileStreamO oHandle) {
    if (!ReadyToStart(oHandle)) return FALSE;
    return FileSysFOpen(&oHandle->pfOutput, oHandle->pstrPath, ModeLike(oHandle, FileModeAppend));
}

BooleanT FileStreamStartRewrite(FileStreamO oHandle) {
    BooleanT bResult = FALSE;
    if (ReadyToStart(oHandle)) {
        PoolPtr<char> pstrNew(StrCat(oHandle->pstrPath, ".new", nullptr));
        bResult = BooleanFrom(OpenNewFile(oHandle, pstrNew.Get()));
        if (bResult == TRUE) {
            oHandle->pstrNewPath = pstrNew.Take();
        } else {
            const ErrnoKeeper tErrno;
            FileDestroy(pstrNew.Get());
        }
    }
    const ErrnoKeeper tErrno;
    TraceMessageInline(17, 0, 4, "%s = FileStreamStartRewrite(%p)", BooleanText(bResult),
                       static_cast<void*>(oHandle));
    return bResult;
}

BooleanT FileStreamCloseOutput(FileStreamO oHandle) {
    if (!MayChange(oHandle) || oHandle->pfOutput == nullptr) return FALSE;
    if (oHandle->pstrNewPath == nullptr) {
        const bool bGood = FinishOutput(oHandle, false);
        return BooleanFrom(FileStreamSeekStart(oHandle) == TRUE && bGood);
    }
    FILE* pfileInput = nullptr;
    if (!CommitRewrite(oHandle, &pfileInput)) {
        FileStreamSeekStart(oHandle);
        return FALSE;
    }
    FileSysFClose(&oHandle->pfInput);
    oHandle->pfInput = pfileInput;
    return TRUE;
}

BooleanT FileStreamCancelRewrite(FileStreamO oHandle) {
    if (!MayChange(oHandle) || oHandle->pstrNewPath == nullptr) return FALSE;
    // Whether the last bytes could be written does not matter any more.
    if (oHandle->pfOutput != nullptr) fclose(oHandle->pfOutput);
    oHandle->pfOutput = nullptr;
    PoolPtr<char> pstrNew(oHandle->pstrNewPath);
    oHandle->pstrNewPath = nullptr;
    const BooleanT bDeleted = FileDestroy(pstrNew.Get());
    return BooleanFrom(FileStreamSeekStart(oHandle) == TRUE && bDeleted == TRUE);
}

BooleanT FileStreamWriteByte(FileStreamO oHandle, ByteT value) {
    if (HasOutput(oHandle) && putc_unlocked(value, oHandle->pfOutput) != EOF) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(18, tErrno.Code(), 3, "%s = FileStreamWriteByte(%p, 0x%x)", "FALSE",
                       static_cast<void*>(oHandle), value);
    return FALSE;
}

BooleanT FileStreamWrite(FileStreamO oHandle, const ByteT* ptBytes, int32 lCount) {
    if (HasOutput(oHandle) && lCount >= 0 &&
        (lCount == 0 ||
         FileSysFWrite(oHandle->pfOutput, ptBytes, static_cast<std::size_t>(lCount)) == TRUE)) {
        return TRUE;
    }
    const ErrnoKeeper tErrno;
    TraceMessageInline(19, tErrno.Code(), 3, "%s = FileStreamWrite(%p, %p, %d)", "FALSE",
                       static_cast<void*>(oHandle), static_cast<const void*>(ptBytes), lCount);
    return FALSE;
}

BooleanT FileStreamPrintF(FileStreamO oHandle, const char* pstrFormat, ...) {
    if (HasOutput(oHandle) && pstrFormat != nullptr) {
        std::va_list tArgs;
        va_start(tArgs, pstrFormat);
        const int iWritten = vfprintf(oHandle->pfOutput, pstrFormat, tArgs);
        va_end(tArgs);
        if (iWritten >= 0) return TRUE;
    }
    const ErrnoKeeper tErrno;
    TraceMessageInline(23, tErrno.Code(), 3, "%s = FileStreamPrintF(%p, '%s')", "FALSE",
                       static_cast<void*>(oHandle), Shown(pstrFormat));
    return FALSE;
}

BooleanT FileStreamReadByte(FileStreamO oHandle, ByteT* pValue) {
    if (pValue == nullptr) return FALSE;
    *pValue = 0;
    if (oHandle == nullptr || oHandle->pfInput == nullptr) return FALSE;
    const int iByte = FileStreamGetByte(oHandle->pfInput);
    if (iByte == EOF) return FALSE;
    *pValue = static_cast<ByteT>(iByte);
    return TRUE;
}

BooleanT FileStreamRead(FileStreamO oHandle, void* pBuffer, int32 lReadLength,
                        std::size_t* plBytesRead) {
    if (plBytesRead == nullptr) return FALSE;
    *plBytesRead = 0;
    if (oHandle == nullptr || oHandle->pfInput == nullptr || pBuffer == nullptr ||
        lReadLength < 0) {
        return FALSE;
    }
    *plBytesRead = fread(pBuffer, 1, static_cast<std::size_t>(lReadLength), oHandle->pfInput);
    return BooleanFrom(*plBytesRead == static_cast<std::size_t>(lReadLength) ||
                       ferror(oHandle->pfInput) == 0);
}

BooleanT FileStreamSeek(FileStreamO handle, fpos_t offset) {
    if (handle == nullptr || handle->pfInput == nullptr) return FALSE;
    return BooleanFrom(fsetpos(handle->pfInput, &offset) == 0);
}

BooleanT FileStreamSeekFromLong(FileStreamO oHandle, int32 lOffset) {
    return SeekTo(oHandle, lOffset, SEEK_SET);
}

BooleanT FileStreamSeekRelative(FileStreamO oHandle, int32 lOffset) {
    return SeekTo(oHandle, lOffset, SEEK_CUR);
}

BooleanT FileStreamSeekStart(FileStreamO oHandle) {
    if (SeekTo(oHandle, 0, SEEK_SET) != TRUE) return FALSE;
    clearerr(oHandle->pfInput);  // reading is begun anew
    return TRUE;
}

BooleanT FileStreamSeekEnd(FileStreamO oHandle) { return SeekTo(oHandle, 0, SEEK_END); }

BooleanT FileStreamGetOffset(fpos_t* ptOffset, FileStreamO oHandle) {
    if (ptOffset == nullptr || oHandle == nullptr || oHandle->pfInput == nullptr) return FALSE;
    return BooleanFrom(fgetpos(oHandle->pfInput, ptOffset) == 0);
}

BooleanT FileStreamGetOffsetLong(int32* plOffset, FileStreamO oHandle) {
    if (plOffset == nullptr || oHandle == nullptr || oHandle->pfInput == nullptr) return FALSE;
    const off_t tOffset = ftello(oHandle->pfInput);
    if (tOffset < 0 || tOffset > std::numeric_limits<int32>::max()) return FALSE;
    *plOffset = static_cast<int32>(tOffset);
    return TRUE;
}
