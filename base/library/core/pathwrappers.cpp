// Paths on top of the object containers. The mount table is the platform's: it is opened like any
// file and read entry by entry; the classes are given by a table of special types and a few rules,
// and a last pass over all pairs finds what is mounted below an entry of another class.
#include "core/pathwrappers.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "core/errnokeeper.h"
#include "core/filesys.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "machines/solaris.h"
#include "tracetext.h"

TRACE_MODULE("PATH")
MEM_DEFAULT_POOL_CACHE

namespace {

char* PathDuplicate(std::string_view tText) {
    auto* pstrCopy =
        static_cast<char*>(MemAllocateFromPool(static_cast<int32>(tText.size()) + 1, MemPool()));
    if (pstrCopy != nullptr) tText.copy(pstrCopy, tText.size());
    return pstrCopy;
}

// --- components ---

BooleanT PathAppendComponent(ListO oList, std::string_view tComponent) {
    PoolPtr<char> pstrComponent(PathDuplicate(tComponent));
    ObjHolder<ObjStringS> oComponent(ObjStringNew(pstrComponent.Get()));
    return ListPushLastItem(oList, oComponent.Address());
}

BooleanT PathSplitComponents(ListO oList, const char* pstrPath) {
    std::string_view tRest(pstrPath);
    if (tRest.starts_with('/')) {
        if (PathAppendComponent(oList, "/") != TRUE) return FALSE;
        tRest.remove_prefix(1);
    }
    while (!tRest.empty()) {
        const std::size_t lEnd = std::min(tRest.find('/'), tRest.size());
        if (lEnd == 0) {
            TraceMessageInline(71, 0, -1, "Bad path '%s' - zero length component", pstrPath);
            return FALSE;
        }
        if (PathAppendComponent(oList, tRest.substr(0, lEnd)) != TRUE) return FALSE;
        tRest.remove_prefix(std::min(lEnd + 1, tRest.size()));
    }
    return TRUE;
}

// --- applications ---

// Only this many fields are told apart; the last holds whatever follows.
constexpr std::size_t PathMaximumFields = 99;

// The fields of an application path, by the offsets of the ":" behind each; the last one's is the
// end of the text.
struct PathFieldsT {
    std::string_view tInput;
    std::array<std::size_t, PathMaximumFields> alEnds;
    std::size_t lCount;

    std::size_t Start(std::size_t lField) const { return lField == 0 ? 0 : alEnds[lField - 1] + 1; }
    std::string_view From(std::size_t lField) const { return tInput.substr(Start(lField)); }
    // From the start of one field to the end of another.
    std::string_view Range(std::size_t lFirst, std::size_t lLast) const {
        return tInput.substr(Start(lFirst), alEnds[lLast] - Start(lFirst));
    }
};

PathFieldsT PathSplitFields(const char* pstrInput) {
    PathFieldsT tFields = {pstrInput, {}, 0};
    std::size_t lColon = tFields.tInput.find(':');
    while (lColon != std::string_view::npos && tFields.lCount < PathMaximumFields - 1) {
        tFields.alEnds[tFields.lCount++] = lColon;
        lColon = tFields.tInput.find(':', lColon + 1);
    }
    tFields.alEnds[tFields.lCount++] = tFields.tInput.size();
    return tFields;
}

// The third and later fields.
void PathTakeInstance(const PathFieldsT& tFields, BooleanT bIsBackup,
                      char** ppstrApplicationInstance, char** ppstrRestorePath) {
    const std::size_t lLast = tFields.lCount - 1;
    if (lLast < 2) return;
    if (bIsBackup == TRUE || !tFields.From(lLast).starts_with('/')) {
        *ppstrApplicationInstance = PathDuplicate(tFields.From(2));
        return;
    }
    *ppstrRestorePath = PathDuplicate(tFields.From(lLast));
    if (lLast == 2) return;
    const std::string_view tInstance = tFields.Range(2, lLast - 1);
    if (!tInstance.empty()) *ppstrApplicationInstance = PathDuplicate(tInstance);
}

BooleanT PathParseApplication(const char* pstrInput, BooleanT bIsBackup,
                              char** ppstrApplicationName, char** ppstrApplicationInstance,
                              char** ppstrRestorePath) {
    const PathFieldsT tFields = PathSplitFields(pstrInput);
    PoolPtr<char> pstrWord(PathDuplicate(tFields.Range(0, 0)));
    if (tFields.lCount < 2 || StrCompareNoCase(pstrWord.Get(), "App") != 0) {
        TraceMessageInline(1542, 0, -1, "The application path does not start with App:");
        return FALSE;
    }
    if (tFields.Range(1, 1).empty()) {
        TraceMessageInline(1543, 0, -1, "Unable to get the application name");
        return FALSE;
    }
    *ppstrApplicationName = PathDuplicate(tFields.Range(1, 1));
    TraceMessageInline(1544, 0, 0, "Application name is %s", TraceText(*ppstrApplicationName));
    PathTakeInstance(tFields, bIsBackup, ppstrApplicationInstance, ppstrRestorePath);
    return TRUE;
}

// A file named after the application, in the application's directory.
BooleanT PathApplicationFile(const char* pstrApplicationName, const char* pstrPrefix,
                             const char* pstrSuffix, char** ppstrResult) {
    if (pstrApplicationName == nullptr || *pstrApplicationName == 0 || ppstrResult == nullptr)
        return FALSE;
    PoolPtr<char> pstrFile(StrCat(pstrPrefix, pstrApplicationName, pstrSuffix, nullptr));
    *ppstrResult = PathHomeBuild("apps", pstrApplicationName, pstrFile.Get(), nullptr);
    return BooleanFrom(*ppstrResult != nullptr);
}

// --- mounted file systems ---

constexpr std::string_view atSpecialTypes[] = {"proc", "stats", "fd",   "mntfs", "tmpfs",
                                               "swap", "devfs", "ctfs", "objfs", "autofs"};

bool PathIsInList(ListO oList, const char* pstrText) {
    if (ListIsList(oList) != TRUE) return false;
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (ObjCheckTypeInternal(oNode->oData, ObjStringMagic) != TRUE) continue;
        const char* pstrValue = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        if (pstrValue != nullptr && StrCompare(pstrValue, pstrText) == 0) return true;
    }
    return false;
}

void PathClassifyMount(PathKrMountPointO oMount, const char* pstrFsType, ListO oExcludeFS) {
    const std::string_view tFsType(pstrFsType);
    if (std::find(std::begin(atSpecialTypes), std::end(atSpecialTypes), tFsType) !=
        std::end(atSpecialTypes)) {
        oMount->lType = ePathMountSpecial;
    } else if (std::string_view(oMount->pstrName) == "/") {
        oMount->lType = ePathMountLocal;
    } else if (tFsType == "nfs") {
        oMount->lType = ePathMountNetwork;
    } else if (PathIsInList(oExcludeFS, pstrFsType)) {
        oMount->lType = ePathMountExcluded;
    } else {
        oMount->lType = ePathMountLocal;
        PathUnixMountVfsInfo(oMount);
    }
}

BooleanT PathAppendMount(ListO oMountList, const MachineMountEntryT& tEntry, ListO oExcludeFS) {
    TraceMessageInline(67, 0, 4, "%s special %s fstype %s opts %s time %s", tEntry.pstrMountPoint,
                       tEntry.pstrSpecial, tEntry.pstrFsType, tEntry.pstrOptions, tEntry.pstrTime);
    ObjHolder<PathKrMountPointS> oMount(
        ObjNew<PathKrMountPointS>(PathKrMountPointMagic, "I;I;I;I;I;s;s;s;i;"));
    if (oMount.Get() == nullptr) return FALSE;
    oMount.Get()->pstrName = StrDuplicate(tEntry.pstrMountPoint);
    oMount.Get()->pstrSpecial = StrDuplicate(tEntry.pstrSpecial);
    PathClassifyMount(oMount.Get(), tEntry.pstrFsType, oExcludeFS);
    return ListPushLastItem(oMountList, oMount.Address());
}

bool PathIsMountedBelow(PathKrMountPointO oMount, PathKrMountPointO oOther) {
    if (oMount->lType != ePathMountLocal || oOther->lType == ePathMountLocal) return false;
    std::string_view tName(oMount->pstrName);
    const std::string_view tOther(oOther->pstrName);
    if (!tName.starts_with(tOther)) return false;
    tName.remove_prefix(tOther.size());
    return tName.starts_with('/');
}

void PathReclassifyPair(PathKrMountPointO oFirst, PathKrMountPointO oSecond) {
    if (PathIsMountedBelow(oFirst, oSecond)) {
        TraceMessageInline(86, 0, -1, "'%s' mounted under unsupported mount point '%s'",
                           oFirst->pstrName, oSecond->pstrName);
        oFirst->lType = ePathMountBelow;
    } else if (PathIsMountedBelow(oSecond, oFirst)) {
        TraceMessageInline(87, 0, -1, "'%s' mounted under unsupported mount point '%s'",
                           oSecond->pstrName, oFirst->pstrName);
        oSecond->lType = ePathMountBelow;
    }
}

void PathReclassifyMounts(ListO oMountList) {
    for (ListNodeO oFirst = oMountList->oFirst; oFirst != nullptr; oFirst = oFirst->oNext) {
        for (ListNodeO oSecond = oFirst->oNext; oSecond != nullptr; oSecond = oSecond->oNext)
            PathReclassifyPair(static_cast<PathKrMountPointO>(oFirst->oData),
                               static_cast<PathKrMountPointO>(oSecond->oData));
    }
}

}  // namespace

BooleanT PathToComponentList(ListO* poList, const char* pstrPath) {
    TraceMessageInline(70, 0, 4, "PathToComponentList(%p,%s)", static_cast<void*>(poList),
                       TraceText(pstrPath));
    if (poList == nullptr || pstrPath == nullptr) {
        TraceMessageInline(72, 0, -1, "PathToComponentList(%p,%s) - bad args",
                           static_cast<void*>(poList), TraceText(pstrPath));
        ProcCrash(FALSE);
        return FALSE;
    }
    ObjHolder<ListS> oList(ListNew(ObjStringMagic));
    const BooleanT bResult = PathSplitComponents(oList.Get(), pstrPath);
    *poList = bResult == TRUE ? oList.Take() : nullptr;
    TraceMessageInline(73, 0, 4, "%s = PathToComponentList(%p,%s)", BooleanText(bResult),
                       static_cast<void*>(poList), pstrPath);
    return bResult;
}

BooleanT PathFromComponentList(char** ppstrPath, ListO oPath) {
    TraceMessageInline(74, 0, 4, "PathFromComponentList(%p,%p)", static_cast<void*>(ppstrPath),
                       static_cast<void*>(oPath));
    if (ppstrPath == nullptr || ListIsList(oPath) != TRUE) {
        TraceMessageInline(75, 0, -1, "PathFromComponentList(%p,%p) - bad args",
                           static_cast<void*>(ppstrPath), static_cast<void*>(oPath));
        ProcCrash(FALSE);
        return FALSE;
    }
    *ppstrPath = PathRelativeFromValueList(oPath);
    const BooleanT bResult = BooleanFrom(*ppstrPath != nullptr);
    TraceMessageInline(76, 0, 4, "%s = PathFromComponentList(%p,%p)", BooleanText(bResult),
                       static_cast<void*>(ppstrPath), static_cast<void*>(oPath));
    return bResult;
}

BooleanT PathGetAppParams(const char* pstrInput, BooleanT bIsBackup, char** ppstrApplicationName,
                          char** ppstrApplicationInstance, char** ppstrRestorePath) {
    TraceMessageInline(
        1540, 0, 4, "PathGetAppParams called for %s and backup %s pointers %p %p %p",
        TraceText(pstrInput), BooleanText(bIsBackup), static_cast<void*>(ppstrApplicationName),
        static_cast<void*>(ppstrApplicationInstance), static_cast<void*>(ppstrRestorePath));
    if (pstrInput == nullptr || ppstrApplicationName == nullptr ||
        ppstrApplicationInstance == nullptr || (bIsBackup != TRUE && ppstrRestorePath == nullptr)) {
        TraceMessageInline(1541, 0, 3, "Invalid parameters passed to PathGetAppParams");
        return FALSE;
    }
    *ppstrApplicationName = nullptr;
    *ppstrApplicationInstance = nullptr;
    if (ppstrRestorePath != nullptr) *ppstrRestorePath = nullptr;
    // Nothing is stored before the path is known to be good, so failure leaves nothing to free.
    const BooleanT bResult = PathParseApplication(pstrInput, bIsBackup, ppstrApplicationName,
                                                  ppstrApplicationInstance, ppstrRestorePath);
    TraceMessageInline(1545, 0, 1, "PathGetAppParams returns %s App:%s Instance:%s RestPath:%s",
                       BooleanText(bResult), TraceText(*ppstrApplicationName),
                       TraceText(*ppstrApplicationInstance),
                       ppstrRestorePath == nullptr ? "NULL" : TraceText(*ppstrRestorePath));
    return bResult;
}

BooleanT PathGetAppLibrary(const char* pstrApplicationName,
                           char** ppstrApplicationLibraryFullPath) {
    return PathApplicationFile(pstrApplicationName, "libhalo_", ".so",
                               ppstrApplicationLibraryFullPath);
}

BooleanT PathGetAppConfig(const char* pstrApplicationName, char** ppstrApplicationConfigFullPath) {
    return PathApplicationFile(pstrApplicationName, "halo_", ".cfg",
                               ppstrApplicationConfigFullPath);
}

BooleanT PathUnixMountPoints(ListO* poMountList, ListO poExcludeFS) {
    if (poMountList == nullptr) return FALSE;
    *poMountList = ListNew(PathKrMountPointMagic);
    const char* pstrTable = MachineMountTablePath();
    FILE* pfileTable = nullptr;
    if (FileSysFOpen(&pfileTable, pstrTable, FileModeReadBinary) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(69, tErrno.Code(), -1, "Failed to open '%s' again", pstrTable);
        return FALSE;
    }
    TraceMessageInline(66, 0, 4, "unixFSDetermineMountType: Examining mount entries..");
    BooleanT bResult = TRUE;
    MachineMountEntryT tEntry;
    while (bResult == TRUE && MachineMountTableNext(pfileTable, &tEntry) == TRUE)
        bResult = PathAppendMount(*poMountList, tEntry, poExcludeFS);
    FileSysFClose(&pfileTable);
    PathReclassifyMounts(*poMountList);
    return bResult;
}

BooleanT PathUnixMountVfsInfo(PathKrMountPointO oMount) {
    MachineStatVfsT tStatistics;
    if (ObjCheckTypeInternal(oMount, PathKrMountPointMagic) != TRUE ||
        oMount->pstrName == nullptr || MachineStatVfs(&tStatistics, oMount->pstrName) != TRUE)
        return FALSE;
    constexpr uint64 ullDefaultUnit = 512;
    const uint64 ullUnit =
        tStatistics.ullFragmentSize == 0 ? ullDefaultUnit : tStatistics.ullFragmentSize;
    oMount->llTotalSize = static_cast<int64>(ullUnit * tStatistics.ullBlocks);
    oMount->llUsedSize =
        static_cast<int64>(ullUnit * (tStatistics.ullBlocks - tStatistics.ullBlocksFree));
    oMount->llAvailSize = static_cast<int64>(ullUnit * tStatistics.ullBlocksAvail);
    oMount->llTotalInodes = static_cast<int64>(tStatistics.ullFiles);
    oMount->llUsedInodes = static_cast<int64>(tStatistics.ullFiles - tStatistics.ullFilesFree);
    if (oMount->pstrFsType != nullptr) MemFree(&oMount->pstrFsType);
    oMount->pstrFsType = StrDuplicate(tStatistics.acBaseType);
    return TRUE;
}
