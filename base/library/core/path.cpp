// Paths: the home directory, composing and splitting, directories and their locks.
//
// A composed path is put together twice by the same code: a first run only measures, a second one
// writes into a block of exactly that size (PathCompose). Splitting works on bytes, as the file
// system does. Directory trees are deleted without recursion: a list holds the directories that are
// still to be emptied, the innermost last.
#include "core/path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "core/dirscan.h"
#include "core/errnokeeper.h"
#include "core/filebase.h"
#include "core/filesys.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/stnzbase.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("PATH")
MEM_DEFAULT_POOL_CACHE

char* gpstrHome = nullptr;

namespace {

constexpr char PathRegistration[] = "/etc/.brisk";
constexpr char PathIgnoreKrhome[] = "/etc/.nokrhome";
constexpr char PathDefaultHome[] = "/usr/brisk";
constexpr int32 PathRegistrationMax = 1024;      // bytes of the first line, with the terminator
constexpr int32 PathCurrentDirectoryMax = 2048;  // bytes, with the terminator

// --- home directory ---

BooleanT PathHomeFromEnvironment(char** ppstrHome) {
    if (FileExists(PathIgnoreKrhome) == TRUE) return FALSE;
    return SysGetEnvString(ppstrHome, "KRHOME");
}

BooleanT PathHomeFromRegistration(char** ppstrHome) {
    // Most systems have no such file, which is nothing to report.
    if (FileExists(PathRegistration) != TRUE) return FALSE;
    FILE* pFile = nullptr;
    if (FileSysFOpen(&pFile, PathRegistration, FileModeReadBinary) != TRUE) return FALSE;
    char acLine[PathRegistrationMax];
    const BooleanT bRead = FileSysFGetString(pFile, acLine, PathRegistrationMax);
    FileSysFClose(&pFile);
    if (bRead != TRUE) return FALSE;
    acLine[std::strcspn(acLine, "\n")] = 0;
    *ppstrHome = StrDuplicateNullIfEmpty(acLine);
    return BooleanFrom(*ppstrHome != nullptr);
}

// --- composing ---

// Takes the pieces of a text: counts their bytes and, given a block, stores them in it.
class PathWriter {
 public:
    explicit PathWriter(char* pBlock) : m_pBlock(pBlock) {}
    void Add(std::string_view tPiece) {
        if (m_pBlock != nullptr) tPiece.copy(m_pBlock + m_lLength, tPiece.size());
        m_lLength += tPiece.size();
        if (!tPiece.empty()) m_cLast = tPiece.back();
    }
    char Last() const { return m_cLast; }
    std::size_t Length() const { return m_lLength; }

 private:
    char* m_pBlock;
    std::size_t m_lLength = 0;
    char m_cLast = 0;
};

// A new text of what fnAddPieces gives to the writer, in a block with lSpare bytes behind it. Null
// for a text that no block can hold.
template <class F>
char* PathCompose(F fnAddPieces, std::size_t lSpare = 0) {
    PathWriter tMeasure(nullptr);
    fnAddPieces(tMeasure);
    const std::size_t lSize = tMeasure.Length() + 1 + lSpare;
    if (lSize > static_cast<std::size_t>(std::numeric_limits<int32>::max())) return nullptr;
    auto* pstrResult =
        static_cast<char*>(MemAllocateFromPool(static_cast<int32>(lSize), MemPool()));
    if (pstrResult == nullptr) return nullptr;
    PathWriter tWriter(pstrResult);
    fnAddPieces(tWriter);
    return pstrResult;
}

// Calls fnComponent for each component of an argument list that nullptr ends.
template <class F>
void PathEachComponent(const char* pstrFirstComponent, std::va_list tVAList, F fnComponent) {
    std::va_list tList;
    va_copy(tList, tVAList);
    for (const char* pstrComponent = pstrFirstComponent; pstrComponent != nullptr;
         pstrComponent = va_arg(tList, const char*))
        fnComponent(std::string_view(pstrComponent));
    va_end(tList);
}

// Gives the writer the strings of a list with a "/" between every two.
void PathAddStrings(PathWriter& tWriter, ListO oList, bool bSeparatorFirst) {
    bool bSeparator = bSeparatorFirst;
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (ObjCheckTypeInternal(oNode->oData, ObjStringMagic) != TRUE) continue;
        const char* pstrValue = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        if (pstrValue == nullptr) continue;
        if (bSeparator) tWriter.Add("/");
        tWriter.Add(pstrValue);
        bSeparator = true;
    }
}

// --- splitting ---

// The part behind the last "/"; null when there is none.
const char* PathBehindLastSlash(const char* pstrPath) {
    const char* pstrSlash = std::strrchr(pstrPath, '/');
    return pstrSlash == nullptr ? nullptr : pstrSlash + 1;
}

// --- deleting directory trees ---

struct PathDeletionT {
    bool bReport;  // PathRemoveDirectory reports what PathDestroyDirectory does not
    ListO oToDo;   // paths of the directories not deleted yet, each behind the one that holds it
};

// A directory itself, not a link to one.
bool PathIsRealDirectory(const char* pstrPath) {
    FileStatT tStat;
    return FileStat(&tStat, pstrPath, FALSE) == TRUE && S_ISDIR(tStat.lMode);
}

BooleanT PathDeleteEntry(const char* pstrDirectory, const char* pstrName, void* pCookie) {
    auto* ptDeletion = static_cast<PathDeletionT*>(pCookie);
    PoolPtr<char> pstrPath(PathBuild(pstrDirectory, pstrName, nullptr));
    if (PathIsRealDirectory(pstrPath.Get())) {
        ObjHolder<ObjStringS> oPath(ObjStringNew(pstrPath.Get()));
        return ListPushLastItem(ptDeletion->oToDo, oPath.Address());
    }
    if (ptDeletion->bReport) {
        TraceMessageInline(11, 0, 3, "DELETING FILE '%s'", pstrPath.Get());
        return FileDelete(pstrPath.Get());
    }
    TraceMessageInline(1546, 0, 3, "Deleting file '%s'", pstrPath.Get());
    return FileDestroy(pstrPath.Get());
}

BooleanT PathDeleteEmptyDirectory(const PathDeletionT& tDeletion, const char* pstrPath) {
    if (tDeletion.bReport) {
        TraceMessageInline(12, 0, 3, "DELETING DIR: '%s'", pstrPath);
        return FileDirDelete(pstrPath);
    }
    TraceMessageInline(17, 0, 3, "Deleting dir: '%s'", pstrPath);
    return FileDirDestroy(pstrPath);
}

// Empties the directory listed last. When that brings to light directories inside it they stand
// behind it now and come first; when not, it is empty and goes itself.
BooleanT PathDeleteTree(const char* pstrPath, bool bReport) {
    ObjHolder<ListS> oToDo(ListNew(ObjStringMagic));
    ObjHolder<ObjStringS> oRoot(ObjStringNew(pstrPath));
    ListPushLastItem(oToDo.Get(), oRoot.Address());
    PathDeletionT tDeletion = {bReport, oToDo.Get()};
    while (oToDo.Get()->oLast != nullptr) {
        ListNodeO oNode = oToDo.Get()->oLast;
        const char* pstrDirectory = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        if (DirScan(pstrDirectory, PathDeleteEntry, &tDeletion) != TRUE) return FALSE;
        if (oToDo.Get()->oLast != oNode) continue;
        if (PathDeleteEmptyDirectory(tDeletion, pstrDirectory) != TRUE) return FALSE;
        ListRemoveLastItem(oToDo.Get());
    }
    return TRUE;
}

// --- locks ---

void PathLockDestructor(void* oObject) {
    FileSysClose(&static_cast<PathLockO>(oObject)->tLockFileHandle);
}

}  // namespace

BooleanT PathInitialize() {
    PoolPtr<char> pstrHome;
    if (PathGetRegisteredHomeDir(pstrHome.Address()) != TRUE) return FALSE;
    if (gpstrHome != nullptr) MemFree(&gpstrHome);
    gpstrHome = StrDuplicate(pstrHome.Get());
    return BooleanFrom(gpstrHome != nullptr);
}

BooleanT PathInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void PathReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT PathGetRegisteredHomeDir(char** ppstrHome) {
    if (ppstrHome == nullptr) return FALSE;
    if (PathHomeFromEnvironment(ppstrHome) == TRUE) return TRUE;
    if (PathHomeFromRegistration(ppstrHome) == TRUE) return TRUE;
    *ppstrHome = StrDuplicate(PathDefaultHome);
    return TRUE;
}

BooleanT PathGetHomeDir(char** ppstrPath) {
    if (ppstrPath == nullptr) return FALSE;
    *ppstrPath = StrDuplicate(gpstrHome);
    return TRUE;
}

char* PathHomeBuild(const char* pstrFirstComponent, ...) {
    if (gpstrHome == nullptr) return nullptr;
    std::va_list tVAList;
    va_start(tVAList, pstrFirstComponent);
    char* pstrResult = PathCompose([&](PathWriter& tWriter) {
        tWriter.Add(gpstrHome);
        PathEachComponent(pstrFirstComponent, tVAList, [&](std::string_view tComponent) {
            if (!tComponent.starts_with('/')) tWriter.Add("/");
            tWriter.Add(tComponent);
        });
    });
    va_end(tVAList);
    TraceMessageInline(10, 0, 3, "PathHomeBuild returning \"%s\"", TraceText(pstrResult));
    return pstrResult;
}

char* PathHomeBuildFromValueList(ListO oValueList) {
    if (gpstrHome == nullptr || ListIsList(oValueList) != TRUE) return nullptr;
    char* pstrResult = PathCompose([&](PathWriter& tWriter) {
        tWriter.Add(gpstrHome);
        PathAddStrings(tWriter, oValueList, true);
    });
    TraceMessageInline(9, 0, 3, "PathHomeBuildFromValueList returning \"%s\"",
                       TraceText(pstrResult));
    return pstrResult;
}

char* PathBuild(const char* pstrFirstComponent, ...) {
    std::va_list tVAList;
    va_start(tVAList, pstrFirstComponent);
    char* pstrResult = PathBuildVAList(pstrFirstComponent, tVAList);
    va_end(tVAList);
    return pstrResult;
}

char* PathBuildVAList(const char* pstrFirstComponent, std::va_list tVAList) {
    // The block has room for every component with a separator behind it, needed or not.
    std::size_t lRoom = 0;
    std::size_t lLength = 0;
    const auto fnAddPieces = [&](PathWriter& tWriter) {
        bool bFirst = true;
        lRoom = 0;
        PathEachComponent(pstrFirstComponent, tVAList, [&](std::string_view tComponent) {
            if (!bFirst && tWriter.Last() != '/') tWriter.Add("/");
            tWriter.Add(tComponent);
            lRoom += tComponent.size() + 1;
            bFirst = false;
        });
        lLength = tWriter.Length();
    };
    PathWriter tMeasure(nullptr);
    fnAddPieces(tMeasure);
    return PathCompose(fnAddPieces, lRoom - lLength);
}

char* PathRelativeFromKey(StnzKeyT* ptKey) {
    if (ptKey == nullptr) return nullptr;
    char* pstrResult = PathCompose([&](PathWriter& tWriter) {
        bool bSeparator = false;
        for (const char* pstrValue :
             std::span<char*>(ptKey->apstrValues, static_cast<std::size_t>(ptKey->lValueCount))) {
            if (pstrValue == nullptr) continue;
            if (bSeparator) tWriter.Add("/");
            tWriter.Add(pstrValue);
            bSeparator = true;
        }
    });
    TraceMessageInline(7, 0, 3, "PathRelativeFromKey returning \"%s\"", TraceText(pstrResult));
    return pstrResult;
}

char* PathRelativeFromValueList(ListO oValueList) {
    if (ListIsList(oValueList) != TRUE) return nullptr;
    char* pstrResult =
        PathCompose([&](PathWriter& tWriter) { PathAddStrings(tWriter, oValueList, false); });
    TraceMessageInline(8, 0, 3, "PathRelativeFromValueList returning \"%s\"",
                       TraceText(pstrResult));
    return pstrResult;
}

BooleanT PathAddDir(char** ppstrResult, const char* pstrBase, const char* pstrDir) {
    if (ppstrResult == nullptr || pstrBase == nullptr || pstrDir == nullptr) return FALSE;
    *ppstrResult = StrCat(pstrBase, "/", pstrDir, nullptr);
    return BooleanFrom(*ppstrResult != nullptr);
}

BooleanT PathAddFilename(char** ppstrResult, const char* pstrBase, const char* pstrFilename) {
    return PathAddDir(ppstrResult, pstrBase, pstrFilename);
}

char* PathSplit(const char* pstrPath) {
    if (pstrPath == nullptr) return nullptr;
    const char* pstrLeaf = PathBehindLastSlash(pstrPath);
    return PathCompose([&](PathWriter& tWriter) {
        if (pstrLeaf != nullptr) tWriter.Add(std::string_view(pstrPath, pstrLeaf - 1));
    });
}

BooleanT PathLastComponent(char** ppstrLastComponent, const char* pstrPath) {
    if (ppstrLastComponent == nullptr || pstrPath == nullptr) return FALSE;
    const char* pstrLeaf = PathBehindLastSlash(pstrPath);
    if (pstrLeaf == nullptr) return FALSE;
    *ppstrLastComponent = StrDuplicate(pstrLeaf);
    return TRUE;
}

BooleanT PathLeaf(char** ppstrLastComponent, const char* pstrPath) {
    if (ppstrLastComponent == nullptr || pstrPath == nullptr) return FALSE;
    const char* pstrLeaf = PathBehindLastSlash(pstrPath);
    *ppstrLastComponent = StrDuplicate(pstrLeaf == nullptr ? pstrPath : pstrLeaf);
    return TRUE;
}

BooleanT PathIsDescending(const char* pstrPath) {
    if (pstrPath == nullptr) return FALSE;
    const std::string_view tPath(pstrPath);
    for (std::size_t lStart = 0; lStart <= tPath.size();) {
        const std::size_t lEnd = std::min(tPath.find('/', lStart), tPath.size());
        if (tPath.substr(lStart, lEnd - lStart) == "..") {
            TraceMessageInline(34, 0, 0, "Detected relative path '%s'", pstrPath);
            return FALSE;
        }
        lStart = lEnd + 1;
    }
    return TRUE;
}

BooleanT PathCreateDirectory(const char* pstrPath) {
    if (pstrPath == nullptr) {
        TraceMessageInline(6, 1, -1, "Error: asked to create (null) directory");
        return FALSE;
    }
    umask(0);
    if (SysRepeat([&] { return mkdir(pstrPath, 0700); }) == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(5, tErrno.Code(), 3, "Failed to created directory '%s': %s", pstrPath,
                       tErrno.Text());
    return FALSE;
}

BooleanT PathIsADirectory(const char* pstrPath) { return FileIsDir(pstrPath); }

BooleanT PathSetDirectory(const char* pstrPath) {
    if (pstrPath == nullptr) {
        TraceMessageInline(4, 1, -1, "Error: asked to change to (null) directory");
        return FALSE;
    }
    if (SysRepeat([&] { return chdir(pstrPath); }) == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(14, tErrno.Code(), -1, "PathBuild: chdir gave error: %s", tErrno.Text());
    return FALSE;
}

BooleanT PathGetCurrentDirectory(char** ppstrCurrentDir) {
    if (ppstrCurrentDir == nullptr) return FALSE;
    char acDirectory[PathCurrentDirectoryMax];
    if (getcwd(acDirectory, sizeof(acDirectory)) == nullptr) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(1547, tErrno.Code(), -1, "Failed to get current directory: %s",
                           tErrno.Text());
        return FALSE;
    }
    *ppstrCurrentDir = StrDuplicate(acDirectory);
    return TRUE;
}

BooleanT PathRemoveDirectory(const char* pstrPath) {
    if (pstrPath == nullptr || !PathIsRealDirectory(pstrPath)) {
        TraceMessageInline(13, 0, -1, "Bad args to PathRemoveDirectory");
        return FALSE;
    }
    return PathDeleteTree(pstrPath, true);
}

BooleanT PathDestroyDirectory(const char* pstrPath) {
    if (pstrPath == nullptr || !PathIsRealDirectory(pstrPath)) {
        TraceMessageInline(18, 0, -1, "Bad args to PathDestroyDirectory");
        return FALSE;
    }
    return PathDeleteTree(pstrPath, false);
}

PathReturnE PathLock(PathLockO* poLock, const char* pstrDirectory, FileLockT lLockMode) {
    TraceMessageInline(23, 0, 4, "PathLock(%p, %s, %d)", static_cast<void*>(poLock),
                       TraceText(pstrDirectory), lLockMode);
    if (poLock == nullptr || pstrDirectory == nullptr ||
        (lLockMode != FileLockShared && lLockMode != FileLockExclusive)) {
        TraceMessageInline(29, 0, -1, "PathLockSharedRaed(%p, %s) - bad params",
                           static_cast<void*>(poLock), TraceText(pstrDirectory));
        return ePRFailed;
    }
    if (FileIsDir(pstrDirectory) != TRUE) {
        TraceMessageInline(28, 0, -1, "Cannot lock - '%s' is not a directory", pstrDirectory);
        return ePRNoSuchDirectory;
    }
    PoolPtr<char> pstrLockFile(StrCat(pstrDirectory, ".lck", nullptr));
    FileCloser tLockFile;
    if (FileSysOpen(tLockFile.Address(), pstrLockFile.Get(), FileModeReadWrite) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(27, tErrno.Code(), -1, "Failed to open lock file '%s'",
                           TraceText(pstrLockFile.Get()));
        return ePRFailed;
    }
    if (FileLockSet(tLockFile.Get(), lLockMode) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(26, tErrno.Code(), -1, "Failed to set lock on directory lock file");
        return ePRFailed;
    }
    auto* oLock = ObjNew<PathLockS>(PathLockMagic, "p;s;", PathLockDestructor);
    if (oLock == nullptr) return ePRFailed;
    oLock->tLockFileHandle = tLockFile.Take();
    oLock->pstrLockFile = pstrLockFile.Take();
    *poLock = oLock;
    TraceMessageInline(25, 0, 3, "Locked directory '%s'", pstrDirectory);
    return ePROK;
}

PathReturnE PathUnLock(PathLockO* poLock) {
    TraceMessageInline(30, 0, 4, "PathUnLock(%p)", static_cast<void*>(poLock));
    if (poLock == nullptr || ObjCheckTypeInternal(*poLock, PathLockMagic) != TRUE) {
        TraceMessageInline(33, 0, -1, "PathUnLock() - munged lock object");
        return ePRFailed;
    }
    FileSysClose(&(*poLock)->tLockFileHandle);
    TraceMessageInline(32, 0, 4, "Released directory lock '%s'",
                       TraceText((*poLock)->pstrLockFile));
    ObjRelease(poLock);
    return ePROK;
}
