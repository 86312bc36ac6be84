// Trace files: a sink that writes each record as a line, counts the lines and goes on to the next
// numbered file when one is full. A closed file is handed to the archive tool, which runs beside
// this process and deletes the file once it is packed. Deleting the files of older generations
// leaves alone what the tool is still reading.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "core/cfg.h"
#include "core/cfgtools.h"
#include "core/context.h"
#include "core/errnokeeper.h"
#include "core/filebase.h"
#include "core/machineinfo.h"
#include "core/net.h"
#include "core/path.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/timeconv.h"
#include "core/trace.h"
#include "tracerecords.h"
#include "tracetext.h"

TRACE_MODULE("TRACE")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr char acConfiguration[] = "configure.cfg";
constexpr char acSection[] = "Trace";
constexpr char acNumber[] = "%03lu";  // stands for the file's number in the pattern
constexpr int32 TraceMinimumLines = 1000;
constexpr int32 TraceNumberRoom = 11;         // more than the digits of any number
constexpr int32 TraceToolPathLimit = 1023;    // longest path that the tool is given
constexpr std::size_t TraceSuffixLength = 3;  // characters that the archive's suffix replaces

// A closed file that the tool is packing.
struct TracePackingT {
    ProcActualHandleT tTool;
    std::string tPath;
};
std::vector<TracePackingT> gatPacking;

// TRUE while the tool is at work on the file. Collects the tools that have ended.
bool TraceIsPacking(const char* pstrPath) {
    std::erase_if(gatPacking, [](const TracePackingT& tPacking) {
        return SysRepeat([&] { return waitpid(tPacking.tTool, nullptr, WNOHANG); }) != 0;
    });
    return std::any_of(gatPacking.begin(), gatPacking.end(),
                       [&](const TracePackingT& tPacking) { return tPacking.tPath == pstrPath; });
}

// A new file of the same name would be packed half and deleted.
void TraceAwaitTool(const std::string& tPath) {
    std::erase_if(gatPacking, [&](const TracePackingT& tPacking) {
        if (tPacking.tPath != tPath) return false;
        SysRepeat([&] { return waitpid(tPacking.tTool, nullptr, 0); });
        return true;
    });
}

// The pattern with a number in its place; of files without rotation the pattern is the path.
std::string TraceFilePath(int32 lIndex) {
    const TesselContextTraceS& tTrace = gtTlContext.sTrace;
    std::string tPath(tTrace.pstrFormat == nullptr ? "" : tTrace.pstrFormat);
    const std::size_t iNumber = tTrace.lLines == 0 ? std::string::npos : tPath.rfind(acNumber);
    if (iNumber == std::string::npos) return tPath;
    char acDigits[TraceNumberRoom + 1];
    std::snprintf(acDigits, sizeof(acDigits), "%03u", static_cast<uint32>(lIndex));
    return tPath.replace(iNumber, sizeof(acNumber) - 1, acDigits);
}

// The name with the place of the number in front of its last ".".
std::string TraceNumberedName(const char* pstrFile) {
    std::string tName(pstrFile);
    const std::size_t iDot = tName.rfind('.');
    return tName.insert(iDot == std::string::npos ? tName.size() : iDot,
                        std::string("-") + acNumber);
}

void TracePack(const char* pstrPath) {
    std::string tArchive(pstrPath);
    PoolPtr<char> pstrLeaf;
    if (PathLeaf(pstrLeaf.Address(), pstrPath) != TRUE) return;
    // The archive must not get a name outside the file's own, nor may a path be cut.
    if (std::strlen(pstrLeaf.Get()) < TraceSuffixLength || tArchive.size() > TraceToolPathLimit)
        return;
    tArchive.replace(tArchive.size() - TraceSuffixLength, TraceSuffixLength, "bin");
    const PoolPtr<char> pstrTool(PathHomeBuild("bin", "zlibcompress", nullptr));
    ProcActualHandleT tTool = 0;
    if (pstrTool.Get() != nullptr &&
        ProcStartProcessWithArgs(&tTool, pstrTool.Get(), "-c", pstrPath, tArchive.c_str(),
                                 pstrLeaf.Get(), "-d", nullptr) == TRUE) {
        gatPacking.push_back({tTool, pstrPath});
    }
}

void TraceInitialMessage() {
    const TraceLevelE ePrevious = TraceSetLevel(eTraceLevelNormal);

    char acHost[1024] = "";
    NetGetLocalHostName(acHost, sizeof(acHost));
    const TimeT tNow = TimeNow();
    char acTime[16] = "";
    char acDate[64] = "";
    TimeToTimeOfDayStringInternal(acTime, sizeof(acTime), tNow, FALSE);
    TimeToLongDateStringInternal(acDate, sizeof(acDate), tNow, FALSE, FALSE);
    TraceMessageInline(3, 0, -1, "** Running on host '%s', Time now '%s' on '%s' **", acHost,
                       acTime, acDate);

    PoolPtr<char> pstrSystem;
    PoolPtr<char> pstrVersion;
    PoolPtr<char> pstrHardware;
    CfgGetSystemVersionInfo(pstrSystem.Address(), pstrVersion.Address(), pstrHardware.Address());
    TraceMessageInline(4, 0, -1, "** Host OS '%s' version '%s' on '%s' hardware **",
                       TraceText(pstrSystem.Get()), TraceText(pstrVersion.Get()),
                       TraceText(pstrHardware.Get()));

    PoolPtr<char> pstrServer;
    PoolPtr<char> pstrDescription;
    int32 lVersion = 0;
    int32 lBuild = 0;
    const char* pstrMachine = SysLocalMachineName();
    CfgGetString(pstrServer.Address(), acConfiguration, "Details", "Server", "Unknown");
    if (MachInfoGetTLVersion(&lVersion, pstrMachine) != TRUE) lVersion = 0;
    if (MachInfoGetTLPatchLevel(&lBuild, pstrMachine) != TRUE) lBuild = 0;
    CfgGetString(pstrDescription.Address(), acConfiguration, "Details", "Description",
                 "<no description>");
    TraceMessageInline(5, 0, -1, "** Server '%s' KRVersion %d KRBuildLevel %d Description '%s' **",
                       TraceText(pstrServer.Get()), lVersion, lBuild,
                       TraceText(pstrDescription.Get()));
    TraceMessageInline(6, 0, -1, "** KR Process Id '%d' KR System Name '%s'", ProcGetId(),
                       TraceText(pstrMachine));
    TraceMessageInline(7, 0, -1, "** sizeof(long) = '%d' **", static_cast<int32>(sizeof(long)));
    TraceMessageInline(9, 0, -1, "**");

    TraceSetLevel(ePrevious);
}

BooleanT TraceToTraceFD(const char* pBuffer, int32 lSize, void* pDummy);

// Opens the file of the next number and makes it the sink.
BooleanT TraceOpenFile() {
    TesselContextTraceS& tTrace = gtTlContext.sTrace;
    if (tTrace.lKeep != 0 && tTrace.lKeep <= tTrace.lIndex) {
        const std::string tOld = TraceFilePath(tTrace.lIndex - tTrace.lKeep);
        if (!TraceIsPacking(tOld.c_str())) SysRepeat([&] { return unlink(tOld.c_str()); });
    }
    const std::string tPath = TraceFilePath(tTrace.lIndex);
    if (tTrace.pstrPath == nullptr) return FALSE;
    TraceAwaitTool(tPath);
    std::memcpy(tTrace.pstrPath, tPath.c_str(), tPath.size() + 1);
    tTrace.lIndex++;
    umask(0);
    // Anybody may write to the directory: what stands there instead of a file is not followed, nor
    // waited for.
    const int iFile = SysRepeat([&] {
        return open(tTrace.pstrPath,
                    O_WRONLY | O_APPEND | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                    0644);
    });
    if (iFile < 0) return FALSE;
    tTrace.tFd = iFile;
    tTrace.lCount = 0;
    tTrace.pfnTraceCallback = TraceToTraceFD;
    return TRUE;
}

// The sink.
BooleanT TraceToTraceFD(const char* pBuffer, int32 lSize, void* /*pDummy*/) {
    TesselContextTraceS& tTrace = gtTlContext.sTrace;
    if (tTrace.tFd < 0 || TraceToFD(pBuffer, lSize, tTrace.tFd) != TRUE) return FALSE;
    tTrace.lCount++;
    if (tTrace.lLines != 0 && tTrace.lCount >= tTrace.lLines) {
        TraceCloseFile();
        if (TraceOpenFile() != TRUE) return FALSE;
        TraceInitialMessage();
    }
    return TRUE;
}

// Writes what a shared buffer holds to the trace file, oldest first.
void TraceDumpToTraceFile() {
    const TesselContextTraceS& tTrace = gtTlContext.sTrace;
    if (tTrace.ptBufHeader == tTrace.ptInternalTraceBuffer) return;
    const TraceDisabler tDisabled;
    const auto atRecords = TraceCopyRecords(tTrace.ptBufHeader, nullptr).atRecords;
    for (auto tRecord = atRecords.rbegin(); tRecord != atRecords.rend(); ++tRecord)
        TraceToFD(tRecord->data(), static_cast<int32>(tRecord->size()), tTrace.tFd);
}

}  // namespace

BooleanT TraceEnabled() {
    BooleanT bEnabled = FALSE;
    CfgGetBoolean(&bEnabled, acConfiguration, acSection, "Trace To File", FALSE);
    return bEnabled;
}

BooleanT TraceToFile(const char* pstrFile) {
    return TraceEnabled() == TRUE ? TraceToFileNoConfig(pstrFile) : TRUE;
}

BooleanT TraceToFileNoConfig(const char* pstrFile) {
    TesselContextTraceS& tTrace = gtTlContext.sTrace;
    int32 lLines = 0;
    CfgGetInteger(&lLines, acConfiguration, acSection, "Lines per File", 0);
    if (pstrFile == nullptr || *pstrFile == '\0') {
        TraceCloseFile();
        tTrace.pfnTraceCallback = nullptr;
        return FALSE;
    }
    // The pattern is kept with a conversion for the number in it; a name has none of its own.
    if (std::strchr(pstrFile, '%') != nullptr) {
        TraceMessageInline(10, 0, -1, "Trace file name '%s' contains '%%'", pstrFile);
        return FALSE;
    }
    const std::string tName = lLines == 0 ? pstrFile : TraceNumberedName(pstrFile);
    PoolPtr<char> pstrDirectory;
    TraceGetHomeDir(pstrDirectory.Address());
    if (PathIsADirectory(pstrDirectory.Get()) != TRUE) PathCreateDirectory(pstrDirectory.Get());
    FileChangeMode(pstrDirectory.Get(), 0777);

    BooleanT bUseKilnTime = TRUE;
    int32 lKeep = 0;
    CfgGetBoolean(&bUseKilnTime, acConfiguration, acSection, "Use Kiln Time", TRUE);
    CfgGetInteger(&lKeep, acConfiguration, acSection, "Files to Keep", 0);
    tTrace.bUseKilnTime = bUseKilnTime;

    TraceCloseFile();
    MemFree(&tTrace.pstrFormat);
    MemFree(&tTrace.pstrPath);
    tTrace.pstrFormat = PathBuild(pstrDirectory.Get(), tName.c_str(), nullptr);
    tTrace.pstrPath = static_cast<char*>(
        MemAllocateFromPool(StrSize(tTrace.pstrFormat) + TraceNumberRoom, MemPool()));
    tTrace.lIndex = 0;
    tTrace.lCount = 0;
    tTrace.lLines = lLines == 0 ? 0 : std::max(lLines, TraceMinimumLines);
    tTrace.lKeep = std::max(lKeep, 0);
    const BooleanT bOpened = TraceOpenFile();
    if (bOpened == TRUE) {
        TraceDumpToTraceFile();
        TraceInitialMessage();
    }
    return bOpened;
}

BooleanT TraceGetHomeDir(char** ppstrTraceDirectory) {
    if (ppstrTraceDirectory == nullptr) return TRUE;
    PoolPtr<char> pstrConfigured;
    CfgGetString(pstrConfigured.Address(), acConfiguration, "Directories", "Trace", nullptr);
    const bool bConfigured = pstrConfigured.Get() != nullptr && *pstrConfigured.Get() != '\0';
    *ppstrTraceDirectory = bConfigured ? pstrConfigured.Take() : PathHomeBuild("trace", nullptr);
    return TRUE;
}

BooleanT TraceSynchronous() {
    const TesselContextTraceS& tTrace = gtTlContext.sTrace;
    if (tTrace.tFd < 0) return FALSE;
    const int iFlags = SysRepeat([&] { return fcntl(tTrace.tFd, F_GETFL); });
    if (iFlags < 0 || SysRepeat([&] { return fcntl(tTrace.tFd, F_SETFL, iFlags | O_SYNC); }) < 0)
        return FALSE;
    if ((fcntl(tTrace.tFd, F_GETFL) & O_SYNC) == O_SYNC) return TRUE;
    // Some systems take the flag only when a file is opened: open this one again in its place.
    const int iFile = SysRepeat([&] {
        return open(tTrace.pstrPath, O_WRONLY | O_APPEND | O_SYNC | O_CLOEXEC | O_NOFOLLOW);
    });
    if (iFile < 0) return FALSE;
    const bool bReplaced = SysRepeat([&] { return dup3(iFile, tTrace.tFd, O_CLOEXEC); }) >= 0;
    close(iFile);
    return BooleanFrom(bReplaced);
}

void TraceCloseFile() {
    TesselContextTraceS& tTrace = gtTlContext.sTrace;
    const TraceDisabler tDisabled;
    if (tTrace.tFd < 0) return;
    close(tTrace.tFd);  // also when a signal interrupts it: the system has let go of it
    tTrace.tFd = -1;
    if (tTrace.pstrPath != nullptr && *tTrace.pstrPath != '\0') TracePack(tTrace.pstrPath);
}

void TraceFileRelease() {
    TraceCloseFile();
    MemFree(&gtTlContext.sTrace.pstrFormat);
    MemFree(&gtTlContext.sTrace.pstrPath);
}
