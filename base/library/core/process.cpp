// The fatal stop, the process's identity and appearance, and what it reads of its settings. The
// state lives in the runtime context; a process that joins the managed processes fills it in.
#include "core/process.h"

#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "core/cfg.h"
#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/procinternal.h"
#include "core/strbase.h"
#include "core/timeconv.h"
#include "core/trace.h"

TRACE_MODULE("PROCESS")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr char acPrograms[] = "programs.cfg";
constexpr ProcIdT ProcLastFixedId = 99;  // up to here an id is used again and again

struct ProcTraceLevelT {
    const char* pstrName;
    TraceLevelE eLevel;
};
constexpr ProcTraceLevelT atTraceLevels[] = {
    {"ALWAYS", eTraceLevelAlways},       {"NORMAL", eTraceLevelNormal},
    {"VERBOSE", eTraceLevelVerbose},     {"HIVERBOSE", eTraceLevelHiVerbose},
    {"LIBNORMAL", eTraceLevelLibNormal}, {"LIBVERBOSE", eTraceLevelLibVerbose},
};

// A text of the process's section in "programs.cfg", the caller's; null when there is none.
char* ProcReadSetting(const char* pstrKeyword) {
    char* pstrValue = nullptr;
    if (ProcName() != nullptr)
        CfgGetString(&pstrValue, acPrograms, ProcName(), pstrKeyword, nullptr);
    return pstrValue;
}

bool ProcHasText(const char* pstrText) { return pstrText != nullptr && *pstrText != '\0'; }

}  // namespace

BooleanT gbDoCrash = FALSE;

BooleanT ProcessInitialize() { return TRUE; }

BooleanT ProcessInitializeThread(TesselContextT* ptTlContext) {
    return ListCreate(&ptTlContext->sProcess.oCleanupList, ProcCleanupMagic);
}

void ProcessReleaseThread(TesselContextT* ptTlContext) {
    TraceMessageInline(213, 0, 4, "ProcessReleaseThread()");
    TesselContextProcessS& tProcess = ptTlContext->sProcess;
    ObjRelease(&tProcess.oCleanupList);
    ObjRelease(&tProcess.oTaskContext);
    ObjRelease(&tProcess.oExtendibleContext);
    MemFree(&tProcess.pstrName);
    MemFree(&tProcess.pstrTraceName);
    MemFree(&tProcess.ptObjCountBase);
    TraceMessageInline(214, 0, 4, "exiting ProcessReleaseThread()");
}

void ProcCrash(BooleanT bForce) {
    if (bForce == FALSE && gbDoCrash == FALSE) return;
    TraceMessageInline(209, 0, -1, "Crash program");
    kill(getpid(), SIGSEGV);
}

ProcIdT ProcGetId() { return gtTlContext.sProcess.tId; }

BooleanT ProcSetId(ProcIdT tId) {
    TraceMessageInline(215, 0, 4, "ProcSetId(0x%x)", static_cast<uint32>(tId));
    gtTlContext.sProcess.tId = tId;
    return MsgMakeLocalAddress();
}

int32 ProcGetThreadId() { return -1; }

ProcRealIdT ProcGetRealId() { return getpid(); }

void* ProcGetKilnTimeArea() { return gtTlContext.sProcess.ptKilnTime; }

// --- appearance ---

BooleanT ProcSetTitle(const char* pstrTitle) {
    char* pstrPlace = gtTlContext.sProcess.pstrTitle;
    if (pstrTitle == nullptr || pstrPlace == nullptr) return FALSE;
    constexpr std::size_t uLast = sizeof(ProcDetailsT::strTitle) - 1;
    const std::size_t uLength = strnlen(pstrTitle, uLast);
    std::memmove(pstrPlace, pstrTitle, uLength);  // it may be the title itself
    pstrPlace[uLength] = '\0';
    return TRUE;
}

const char* ProcTitle() { return gtTlContext.sProcess.pstrTitle; }

BooleanT ProcSetName(const char* pstrName) {
    PoolPtr<char> pstrNew(StrDuplicateIntoPool(pstrName, MemPool()));
    if (pstrName != nullptr && pstrNew.Get() == nullptr) return FALSE;
    MemFree(&gtTlContext.sProcess.pstrName);
    gtTlContext.sProcess.pstrName = pstrNew.Take();
    return TRUE;
}

const char* ProcName() { return gtTlContext.sProcess.pstrName; }

void ProcSetDetails(ProcDetailsT* ptDetails) {
    gtTlContext.sProcess.ptDetails = ptDetails;
    gtTlContext.sProcess.pstrTitle = ptDetails == nullptr ? nullptr : ptDetails->strTitle;
}

ProgressBufHeaderT* ProcGetProgressBuffer() {
    auto* ptBuffer = static_cast<ProgressBufHeaderT*>(gtTlContext.sProcess.ptProgressBuffer);
    if (ptBuffer != nullptr)
        TraceMessageInline(220, 0, 4, "Progress Buffer at %p, offset %d, size %d",
                           static_cast<void*>(ptBuffer), ptBuffer->lCurrentBufPosition,
                           ptBuffer->lBufferSize);
    return ptBuffer;
}

char* ProcIdFileName(ProcRealIdT tId) {
    char acName[16];
    std::snprintf(acName, sizeof(acName), "tlid%08x", static_cast<uint32>(tId));
    return StrDuplicateIntoPool(acName, MemPool());
}

// --- settings ---

void ProcSetDefaultTraceLevel() {
    const PoolPtr<char> pstrLevel(ProcReadSetting("Trace Level"));
    TraceLevelE eLevel = eTraceLevelUnchanged;
    for (const ProcTraceLevelT& tLevel : atTraceLevels) {
        if (pstrLevel.Get() != nullptr && StrCompareNoCase(pstrLevel.Get(), tLevel.pstrName) == 0)
            eLevel = tLevel.eLevel;
    }
    TraceMessageInline(221, 0, 4, "Set trace level to '%s'",
                       pstrLevel.Get() == nullptr ? "" : pstrLevel.Get());
    TraceSetLevel(eLevel);
}

void ProcSetTraceFile() {
    const ProcIdT tId = ProcGetId();
    if (tId == -1) return;
    const PoolPtr<char> pstrConfigured(ProcReadSetting("Trace to File"));
    const bool bConfigured = ProcHasText(pstrConfigured.Get());
    const char* pstrName = bConfigured ? pstrConfigured.Get() : gtTlContext.sProcess.pstrTraceName;
    if (!ProcHasText(pstrName)) return;
    const std::string tFile =
        pstrName + std::to_string(static_cast<uint32>(tId > ProcLastFixedId ? tId : TimeNow())) +
        ".log";
    if (bConfigured)
        TraceToFileNoConfig(tFile.c_str());
    else
        TraceToFile(tFile.c_str());
}

void ProcSetCrash() {
    if (ContextIsThreaded() == TRUE) return;
    BooleanT bDoCrash = FALSE;
    CfgGetBoolean(&bDoCrash, "configure.cfg", "Trace", "Do Crash", FALSE);
    gbDoCrash = bDoCrash;
}
