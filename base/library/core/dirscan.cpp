// Directory scans. DirScanDirect reads a directory; the others are callbacks on top of it: a
// snapshot is two such scans, one to measure and one to copy the names, and a walk of a whole tree
// is one scan per directory, driven by a tree that holds the directories still to come and is
// thrown away behind the walk.
#include "core/dirscan.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "core/errnokeeper.h"
#include "core/filebase.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/trace.h"
#include "core/tree.h"

TRACE_MODULE("DIRSCAN")
MEM_DEFAULT_POOL_CACHE

namespace {

// --- reading one directory ---

class DirCloser {
 public:
    explicit DirCloser(DIR* pDirectory) : m_pDirectory(pDirectory) {}
    ~DirCloser() {
        const ErrnoKeeper tErrno;
        closedir(m_pDirectory);
    }
    DirCloser(const DirCloser&) = delete;
    DirCloser& operator=(const DirCloser&) = delete;

 private:
    DIR* m_pDirectory;
};

DIR* DirScanOpen(const char* pstrDirectory) {
    while (true) {
        DIR* pDirectory = opendir(pstrDirectory);
        if (pDirectory != nullptr || errno != EINTR) return pDirectory;
    }
}

// The next entry; null at the end and on error, told apart by *pbError.
const dirent* DirScanReadEntry(DIR* pDirectory, bool* pbError) {
    *pbError = false;
    while (true) {
        errno = 0;
        const dirent* ptEntry = readdir(pDirectory);
        if (ptEntry != nullptr) return ptEntry;
        switch (errno) {
            case EINTR:
                break;
            case EAGAIN:
            case ENOLCK:
                sleep(1);
                break;
            case ENOENT:
            case EBADF:
            case EINVAL:
            case EOVERFLOW: {
                const ErrnoKeeper tErrno;
                TraceMessageInline(7, tErrno.Code(), -1, "Error reading directory: %s",
                                   tErrno.Text());
                *pbError = true;
                return nullptr;
            }
            default:
                return nullptr;
        }
    }
}

bool DirScanIsDots(const char* pstrName) {
    return std::strcmp(pstrName, ".") == 0 || std::strcmp(pstrName, "..") == 0;
}

// --- snapshots ---

// Slack for names that appear between the two scans; two bytes of it stay unused.
constexpr int32 DirScanSlack = 2048;
constexpr int32 DirScanSlackUsable = 2046;

struct DirScanNamesT {
    char* pBlock;
    int64 llUsed;
    int64 llRoom;
};

BooleanT DirScanAddNameSize(const char* /*pstrDirectory*/, const char* pstrName, void* pCookie) {
    *static_cast<int64*>(pCookie) += static_cast<int64>(std::strlen(pstrName)) + 1;
    return TRUE;
}

BooleanT DirScanCopyName(const char* /*pstrDirectory*/, const char* pstrName, void* pCookie) {
    auto* ptNames = static_cast<DirScanNamesT*>(pCookie);
    const auto llSize = static_cast<int64>(std::strlen(pstrName)) + 1;
    if (ptNames->llUsed + llSize > ptNames->llRoom) return TRUE;
    std::memcpy(ptNames->pBlock + ptNames->llUsed, pstrName, static_cast<std::size_t>(llSize));
    ptNames->llUsed += llSize;
    return TRUE;
}

// --- walks of a whole tree ---

struct DirWalkT {
    DirScanRecursiveFnT pfnCallback;
    void* pvCookie;
    TreeNodeO oDirectory;       // the directory being scanned
    char* pstrPath;             // its path, ending in "/", in DirScanMaximumPath bytes
    std::size_t lPathLength;    // of pstrPath
    std::size_t lRootLength;    // of the part of it that names the root, "/" included
    std::size_t lReportOffset;  // in pstrPath of what the callback is given
    DirScanReturnE eResult;
};

const char* DirWalkName(TreeNodeO oNode) {
    return ObjGetString(static_cast<ObjStringO>(oNode->oData));
}

// Puts the names on the way down to the directory into the buffer, from the last one backwards.
// FALSE when they do not fit.
bool DirWalkBuildPath(DirWalkT* ptWalk) {
    const auto lSizeWithSlash = [](const char* pstrName) {
        const std::size_t lSize = std::strlen(pstrName);
        return pstrName[lSize - 1] == '/' ? lSize : lSize + 1;
    };
    std::size_t lLength = 0;
    for (TreeNodeO oNode = ptWalk->oDirectory; oNode != nullptr; oNode = oNode->oParent)
        lLength += lSizeWithSlash(DirWalkName(oNode));
    if (lLength >= DirScanMaximumPath) {
        errno = ENAMETOOLONG;
        return false;
    }
    ptWalk->lPathLength = lLength;
    ptWalk->pstrPath[lLength] = 0;
    for (TreeNodeO oNode = ptWalk->oDirectory; oNode != nullptr; oNode = oNode->oParent) {
        const char* pstrName = DirWalkName(oNode);
        const std::size_t lSize = lSizeWithSlash(pstrName);
        lLength -= lSize;
        std::memcpy(ptWalk->pstrPath + lLength, pstrName, lSize - 1);
        ptWalk->pstrPath[lLength + lSize - 1] = '/';
        ptWalk->lRootLength = lSize;
    }
    return true;
}

// TRUE when the entry whose path stands in the buffer is a link to one of the directories on the
// way down to it, so that walking into it would never end.
bool DirWalkLeadsBack(DirWalkT* ptWalk) {
    struct stat tTarget;
    struct stat tAncestor;
    if (lstat(ptWalk->pstrPath, &tTarget) != 0 || !S_ISLNK(tTarget.st_mode)) return false;
    if (stat(ptWalk->pstrPath, &tTarget) != 0) return false;
    for (std::size_t lEnd = ptWalk->lRootLength; lEnd <= ptWalk->lPathLength; ++lEnd) {
        if (ptWalk->pstrPath[lEnd - 1] != '/') continue;
        const char cBehind = ptWalk->pstrPath[lEnd];
        ptWalk->pstrPath[lEnd] = 0;
        const bool bSame = stat(ptWalk->pstrPath, &tAncestor) == 0 &&
                           tAncestor.st_dev == tTarget.st_dev && tAncestor.st_ino == tTarget.st_ino;
        ptWalk->pstrPath[lEnd] = cBehind;
        if (bSame) return true;
    }
    return false;
}

// FALSE when the entry's path is too long to tell what it is.
bool DirWalkNoteDirectory(DirWalkT* ptWalk, const char* pstrName) {
    const std::size_t lSize = std::strlen(pstrName) + 1;
    if (ptWalk->lPathLength + lSize > DirScanMaximumPath) {
        errno = ENAMETOOLONG;
        return false;
    }
    char* pstrEnd = ptWalk->pstrPath + ptWalk->lPathLength;
    std::memcpy(pstrEnd, pstrName, lSize);
    FileStatT tStat;
    const bool bStat = FileStat(&tStat, ptWalk->pstrPath, TRUE) == TRUE;
    const bool bTooLong = !bStat && errno == ENAMETOOLONG;
    const bool bEnter = bStat && S_ISDIR(tStat.lMode) && !DirWalkLeadsBack(ptWalk);
    *pstrEnd = 0;
    if (bEnter) {
        ObjHolder<ObjStringS> oName(ObjStringNew(pstrName));
        TreeAddItem(oName.Get(), ptWalk->oDirectory, TREE_LAST_CHILD);
    }
    return !bTooLong;
}

BooleanT DirWalkEntry(const char* /*pstrDirectory*/, const char* pstrName, void* pCookie) {
    auto* ptWalk = static_cast<DirWalkT*>(pCookie);
    if (!DirWalkNoteDirectory(ptWalk, pstrName)) return FALSE;
    if (ptWalk->pfnCallback(ptWalk->pstrPath + ptWalk->lReportOffset, pstrName, ptWalk->pvCookie) ==
        TRUE)
        return TRUE;
    TraceMessageInline(12, 0, 3,
                       "Stopping recursive directory sacn as user callback returned FALSE.");
    ptWalk->eResult = eDSRCallbackHalt;
    return FALSE;
}

BooleanT DirScanAddFileSize(const char* pstrDirectory, const char* pstrName, void* pCookie) {
    PoolPtr<char> pstrPath(PathBuild(pstrDirectory, pstrName, nullptr));
    FileStatT tStat;
    if (FileStat(&tStat, pstrPath.Get(), TRUE) == TRUE && !S_ISDIR(tStat.lMode))
        *static_cast<int64*>(pCookie) += tStat.llFileSize;
    return TRUE;
}

}  // namespace

BooleanT DirScanDirect(const char* pstrRootDir, DirScanFnT pfnCallback, void* pCookie) {
    if (pstrRootDir == nullptr || pfnCallback == nullptr) return FALSE;
    TraceMessageInline(6, 0, 4, "DirScanDirect(%s, %p, %p)", pstrRootDir,
                       reinterpret_cast<void*>(pfnCallback), pCookie);
    DIR* pDirectory = DirScanOpen(pstrRootDir);
    if (pDirectory == nullptr) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(8, tErrno.Code(), -1, "Failed to open directory '%s': %s", pstrRootDir,
                           tErrno.Text());
        return FALSE;
    }
    const DirCloser tCloser(pDirectory);
    bool bError = false;
    while (const dirent* ptEntry = DirScanReadEntry(pDirectory, &bError)) {
        if (DirScanIsDots(ptEntry->d_name)) continue;
        if (pfnCallback(pstrRootDir, ptEntry->d_name, pCookie) != TRUE) return FALSE;
    }
    return BooleanFrom(!bError);
}

BooleanT DirScan(const char* pstrRootDir, DirScanFnT pfnCallback, void* pCookie) {
    if (pstrRootDir == nullptr || pfnCallback == nullptr) return FALSE;
    TraceMessageInline(1, 0, 4, "DirScan(%s)", pstrRootDir);
    int64 llTotal = 0;
    if (DirScanDirect(pstrRootDir, DirScanAddNameSize, &llTotal) != TRUE) return FALSE;
    if (llTotal > std::numeric_limits<int32>::max() - DirScanSlack) return FALSE;
    PoolPtr<char> pBlock(static_cast<char*>(
        MemAllocateFromPool(static_cast<int32>(llTotal) + DirScanSlack, MemPool())));
    if (pBlock.Get() == nullptr) return FALSE;
    DirScanNamesT tNames = {pBlock.Get(), 0, llTotal + DirScanSlackUsable};
    if (DirScanDirect(pstrRootDir, DirScanCopyName, &tNames) != TRUE) return FALSE;

    const char* pstrEnd = tNames.pBlock + tNames.llUsed;
    for (const char* pstrName = tNames.pBlock; pstrName < pstrEnd;
         pstrName += std::strlen(pstrName) + 1) {
        TraceMessageInline(5, 0, 4, "Process '%s'", pstrName);
        if (pfnCallback(pstrRootDir, pstrName, pCookie) != TRUE) return FALSE;
    }
    return TRUE;
}

DirScanReturnE DirScanDirectRecursive(const char* pstrRootDir, DirScanRecursiveFnT pfnCallback,
                                      void* pvCookie, BooleanT bRelativePath) {
    if (pstrRootDir == nullptr || *pstrRootDir == 0 || pfnCallback == nullptr) return eDSRFailed;
    TraceMessageInline(10, 0, 4, "DirScanDirectRecursive(%s %p %p %s)", pstrRootDir,
                       reinterpret_cast<void*>(pfnCallback), pvCookie, BooleanText(bRelativePath));
    PoolPtr<char> pstrPath(static_cast<char*>(MemAllocateFromPool(DirScanMaximumPath, MemPool())));
    ObjHolder<TreeS> oToDo(TreeNewFromPool(MemPool()));
    ObjHolder<ObjStringS> oRoot(ObjStringNew(pstrRootDir));
    DirWalkT tWalk = {};
    tWalk.pfnCallback = pfnCallback;
    tWalk.pvCookie = pvCookie;
    tWalk.pstrPath = pstrPath.Get();
    tWalk.oDirectory = TreeAddRootItem(oRoot.Get(), oToDo.Get());
    while (tWalk.oDirectory != nullptr) {
        const bool bFits = DirWalkBuildPath(&tWalk);
        tWalk.lReportOffset = bRelativePath == TRUE ? tWalk.lRootLength : 0;
        if (!bFits || DirScanDirect(tWalk.pstrPath, DirWalkEntry, &tWalk) != TRUE) {
            if (tWalk.eResult == eDSRCallbackHalt) return eDSRCallbackHalt;
            const ErrnoKeeper tErrno;
            TraceMessageInline(11, tErrno.Code(), -1, "Error when scanning directory '%s'",
                               bFits ? tWalk.pstrPath : DirWalkName(tWalk.oDirectory));
            return eDSRFailed;
        }
        TreeNodeO oNext = nullptr;
        TreeNextNodeAndBin(&oNext, tWalk.oDirectory, FALSE);
        tWalk.oDirectory = oNext;
    }
    return eDSROK;
}

BooleanT DirGetContentsSize(int64* pllTotalSize, const char* pstrRoot) {
    if (pllTotalSize == nullptr) return FALSE;
    return DirScanDirect(pstrRoot, DirScanAddFileSize, pllTotalSize);
}
