// System services. The machine's name is looked up once and kept for the process; everything else
// is a single question to the operating system.
#include "core/sys.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/cfg.h"
#include "core/errnokeeper.h"
#include "core/locale.h"
#include "core/memory.h"
#include "core/net.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("SYSTEM")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr int32 SysMachineNameCharacters = 63;
constexpr int32 SysLongestWait = 1000000;  // seconds that one select is asked for

char* pstrLocalMachineName = nullptr;

// --- sizes ---

struct SysUnitT {
    int64 llBelow;  // for values below this
    int64 llSize;
    const char* pstrName;
};
constexpr SysUnitT atUnits[] = {
    {10240, 1, "bytes"},
    {10485760, 1024, "Kbytes"},
    {INT64_MAX, 1048576, "Mbytes"},
};
constexpr int32 SysUnitMessage64 = 532;
constexpr int32 SysUnitMessage32 = 535;

BooleanT SysToUnitString(char** ppstrString, int64 tValue, int32 lFirstMessage) {
    if (ppstrString == nullptr) return FALSE;
    int32 lUnit = 0;
    while (lUnit < 2 && tValue >= atUnits[lUnit].llBelow) lUnit++;
    const SysUnitT& tUnit = atUnits[lUnit];
    PoolPtr<char> pstrNumber;
    StrFromInt64(pstrNumber.Address(), tValue / tUnit.llSize + (tValue % tUnit.llSize > 0 ? 1 : 0));
    *ppstrString = StrCat(pstrNumber.Get(), " ",
                          LocaleGetStaticString(tUnit.pstrName, lFirstMessage + lUnit), nullptr);
    return TRUE;
}

// --- limits ---

bool SysUnlimitFileSize() {
    constexpr rlimit tNoLimit = {RLIM_INFINITY, RLIM_INFINITY};
    umask(0);
    return setrlimit(RLIMIT_FSIZE, &tNoLimit) == 0;
}

// --- status ---

template <class F>
BooleanT SysStoreStat(SysStatO* poStat, F fnStat) {
    if (poStat == nullptr) return fnStat(nullptr);
    ObjHolder<SysStatS> oStat(ObjNew<SysStatS>(SysStatMagic, "I;I;i;i;i;i;i;i;i;i;i;i;i;i;"));
    if (oStat.Get() == nullptr || fnStat(&oStat.Get()->tStat) != TRUE) return FALSE;
    *poStat = oStat.Take();
    return TRUE;
}

}  // namespace

BooleanT SysInitialize() { return TRUE; }

BooleanT SysInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void SysReleaseThread(TesselContextT* ptTlContext) {
    TraceMessageInline(24, 0, 4, "SysReleaseThread(%p)", static_cast<void*>(ptTlContext));
    TraceMessageInline(25, 0, 4, "exiting SysReleaseThread(%p)", static_cast<void*>(ptTlContext));
}

const char* SysLocalMachineName() {
    if (pstrLocalMachineName != nullptr) return pstrLocalMachineName;
    TraceMessageInline(1, 0, 4, "Get machine name");
    utsname tSystem = {};
    uname(&tSystem);
    const PoolPtr<char> pstrNode(StrDuplicateRange(tSystem.nodename, SysMachineNameCharacters));
    PoolPtr<char> pstrName;
    CfgGetString(pstrName.Address(), "configure.cfg", "Machine", "Name", pstrNode.Get());
    // A key without a value names no machine.
    SysSetLocalMachineName(pstrName.Get() != nullptr ? pstrName.Get() : pstrNode.Get());
    return pstrLocalMachineName;
}

BooleanT SysSetLocalMachineName(const char* pstrMachineName) {
    if (pstrMachineName == nullptr) return FALSE;
    const PoolPtr<char> pstrPrevious(pstrLocalMachineName);
    pstrLocalMachineName = StrDuplicate(pstrMachineName);
    return TRUE;
}

void SysSleep(int32 lSeconds) {
    NetErrorE eResult = NET_ERROR_TIMEOUT;
    while (lSeconds > 0 && eResult == NET_ERROR_TIMEOUT) {
        const int32 lWait = std::min(lSeconds, SysLongestWait);
        lSeconds -= lWait;
        NetSelectMaskT tMask = nullptr;
        if (NetInitializeSelectMask(&tMask) != TRUE) return;
        int32 lSelected = 0;
        eResult = NetSelectRelative(&lSelected, tMask, lWait * 1000);
        NetReleaseSelectMask(&tMask);
    }
}

BooleanT SysGetEnvString(char** ppstrResult, const char* pstrVariable) {
    if (ppstrResult == nullptr || pstrVariable == nullptr) return FALSE;
    const char* pstrValue = std::getenv(pstrVariable);
    if (pstrValue == nullptr) return FALSE;
    *ppstrResult = StrDuplicateIntoPool(pstrValue, MemPool());
    return TRUE;
}

BooleanT SysGetEnvInteger(int32* plResult, const char* pstrVariable) {
    PoolPtr<char> pstrValue;
    if (plResult == nullptr || SysGetEnvString(pstrValue.Address(), pstrVariable) != TRUE)
        return FALSE;
    if (StrToInteger(pstrValue.Get(), plResult) != TRUE) *plResult = 0;
    return TRUE;
}

BooleanT SysSetEnvString(const char* pstrVariable, const char* pstrValue) {
    if (pstrVariable == nullptr || pstrValue == nullptr) return FALSE;
    return BooleanFrom(setenv(pstrVariable, pstrValue, 1) == 0);
}

BooleanT SysSetEnvInteger(const char* pstrVariable, int32 lValue) {
    PoolPtr<char> pstrValue;
    StrFromInteger(pstrValue.Address(), lValue);
    return SysSetEnvString(pstrVariable, pstrValue.Get());
}

BooleanT SysInt64ToUnitString(char** ppstrString, int64 tValue) {
    return SysToUnitString(ppstrString, tValue, SysUnitMessage64);
}

BooleanT SysIntegerToUnitString(char** ppstrString, int32 lValue) {
    return SysToUnitString(ppstrString, lValue, SysUnitMessage32);
}

int32 SysConvertToMegs(int64 tValue) { return static_cast<int32>(tValue / 1048576); }

int64 SysUnpackInt64(const void* pBuffer) {
    int64 llValue = 0;
    if (pBuffer != nullptr) std::memcpy(&llValue, pBuffer, sizeof(llValue));
    return llValue;
}

BooleanT SysMaxFileLimit() {
    TraceMessageInline(14, 0, 0, "Unlimiting file size limit");
    return BooleanFrom(SysUnlimitFileSize());
}

void SysSetLimits() { SysUnlimitFileSize(); }

BooleanT SysStat(const char* pstrName, SysStatO* poStat, BooleanT bThruLinks) {
    return SysStoreStat(poStat,
                        [&](FileStatT* ptStat) { return FileStat(ptStat, pstrName, bThruLinks); });
}

BooleanT SysStatHandle(SysStatO* poStat, FileHandleT tHandle) {
    return SysStoreStat(poStat, [&](FileStatT* ptStat) { return FileStatHandle(ptStat, tHandle); });
}

BooleanT SysGetDiskSpace(SysDiskSpaceT* ptDiskSpace, const char* pstrPath) {
    if (ptDiskSpace == nullptr || pstrPath == nullptr || *pstrPath == '\0') {
        TraceMessageInline(23, 0, -1, "Null parameters supplied, %p = ptDiskSpace, %p = pstrPath",
                           static_cast<void*>(ptDiskSpace), static_cast<const void*>(pstrPath));
        return FALSE;
    }
    struct statvfs tSystem = {};
    if (SysRepeat([&] { return statvfs(pstrPath, &tSystem); }) != 0) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(22, tErrno.Code(), -1, "Failed to statvfs '%s'", pstrPath);
        return FALSE;
    }
    ptDiskSpace->lFsId = static_cast<int32>(tSystem.f_fsid);
    const uint64 llPercent = tSystem.f_blocks / 100;  // blocks
    if (llPercent == 0) {
        ptDiskSpace->lPercent = 0;
        ptDiskSpace->llFreeSpace = 0;
        return TRUE;
    }
    const uint64 llUnit = tSystem.f_frsize != 0 ? tSystem.f_frsize : tSystem.f_bsize;
    ptDiskSpace->lPercent = static_cast<int32>(tSystem.f_bfree / llPercent);
    ptDiskSpace->llTotalSpace = static_cast<int64>(tSystem.f_blocks * llUnit);
    ptDiskSpace->llFreeSpace = static_cast<int64>(tSystem.f_bfree * llUnit);
    ptDiskSpace->llAvailableSpace = static_cast<int64>(tSystem.f_bavail * llUnit);
    return TRUE;
}

BooleanT SysSetLocale(const char* /*pstrLocale*/) { return FALSE; }

BooleanT SysIsDefaultLocale() { return TRUE; }
