// The end of a process: the cleanup routines, and the exit.
#include <cstdlib>

#include "core/cfg.h"
#include "core/context.h"
#include "core/list.h"
#include "core/process.h"
#include "core/procinit.h"
#include "core/trace.h"
#include "msginternal.h"

TRACE_MODULE("PROCESS")

namespace {

constexpr int32 ProcExitRestart = -1;
constexpr int32 ProcExitQuick = -2;

// The list of cleanup routines is made and changed without a word in the trace.
class ProcTraceSilence {
 public:
    ProcTraceSilence() : m_eLevel(TraceSetLevel(static_cast<TraceLevelE>(0))) {}
    ~ProcTraceSilence() { TraceSetLevel(m_eLevel); }
    ProcTraceSilence(const ProcTraceSilence&) = delete;
    ProcTraceSilence& operator=(const ProcTraceSilence&) = delete;

 private:
    TraceLevelE m_eLevel;
};

void ProcReportEnd(int32 lExitCode) {
    const ProcIdT tId = ProcGetId();
    if (tId == MsgProcessManagerId || tId == MsgCommunicationsManagerId) return;
    if (gtTlContext.sMsg.oIpcChannel == nullptr) return;  // there is nobody to be told
    ProcSendStatus(lExitCode == ProcExitRestart ? eProcStatusRestartService
                                                : eProcStatusAboutToDie);
}

// A routine may add and remove routines: each is taken off before it is called.
void ProcCallCleanupRoutines(int32 lExitCode) {
    ProcCleanupO oRoutine = nullptr;
    ListO oList = gtTlContext.sProcess.oCleanupList;
    while (oList != nullptr && oList->lItemCount > 0 &&
           ListPopFirstItem(oList, &oRoutine) == TRUE) {
        const ObjHolder<ProcCleanupS> oHolder(oRoutine);
        if (oRoutine->fnRoutine != nullptr) oRoutine->fnRoutine(oRoutine->pArgument, lExitCode);
    }
}

void ProcLogMemoryOnExit() {
    BooleanT bLog = FALSE;
    const char* pstrName = gtTlContext.sProcess.pstrName;
    if (pstrName == nullptr) return;
    CfgGetBoolean(&bLog, "monitor.cfg", "Log Memory on Exit", pstrName, FALSE);
    if (bLog == TRUE) ProcMemoryUsage();
}

}  // namespace

BooleanT ProcAddCleanupRoutine(ProcCleanupFnT fnRoutine, void* pArgument) {
    const ProcTraceSilence tSilence;
    ObjHolder<ProcCleanupS> oRoutine(ObjNew<ProcCleanupS>(ProcCleanupMagic, ProcCleanupDescriptor));
    if (oRoutine.Get() == nullptr) return FALSE;
    oRoutine.Get()->fnRoutine = fnRoutine;
    oRoutine.Get()->pArgument = pArgument;
    return ListPushFirstItem(gtTlContext.sProcess.oCleanupList, oRoutine.Address());
}

BooleanT ProcRemoveCleanupRoutine(ProcCleanupFnT fnRoutine, void* pArgument) {
    ListO oList = gtTlContext.sProcess.oCleanupList;
    for (ListNodeO oNode = oList == nullptr ? nullptr : oList->oFirst; oNode != nullptr;
         oNode = oNode->oNext) {
        const auto* oRoutine = static_cast<ProcCleanupO>(oNode->oData);
        if (fnRoutine == nullptr ||
            (oRoutine->fnRoutine == fnRoutine && oRoutine->pArgument == pArgument))
            return ListRemoveItem(oNode);
    }
    return FALSE;
}

void ProcRelease(int32 lExitCode) {
    TraceMessageInline(218, 0, 4, "ProcRelease(%d)", lExitCode);
    gtTlContext.sProcess.ptKilnTime = nullptr;
    ProcReportEnd(lExitCode);
    ProcCallCleanupRoutines(lExitCode);
    TraceSetBuffer(TraceInternalBuffer());
    ProcDetachSharedMemory();
    ContextReleaseThread();
}

void ProcCleanup(int32 lExitCode) {
    TraceMessageInline(219, 0, 4, "ProcCleanup(%d)", lExitCode);
    if (gtTlContext.sProcess.lInCleanup++ != 0) return;
    gtTlContext.sProcess.bInCleanup = TRUE;
    ProcLogMemoryOnExit();
    if (lExitCode == ProcExitQuick) {
        MsgQuickExit(TRUE);
        lExitCode = 0;
    }
    ProcRelease(lExitCode);
    if (ContextIsThreaded() != TRUE) std::exit(lExitCode == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}

void ProcMemoryUsage() { ObjMonitorLog(0, gtTlContext.sProcess.ptObjCountBase); }
