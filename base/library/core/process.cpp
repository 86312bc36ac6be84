// The fatal stop and the process's identity. The state lives in the runtime context; a process that
// joins the managed processes fills it in.
#include "core/process.h"

#include <unistd.h>

#include <csignal>

#include "core/context.h"
#include "core/list.h"
#include "core/msg.h"
#include "core/trace.h"

TRACE_MODULE("PROCESS")

BooleanT gbDoCrash = FALSE;

BooleanT ProcessInitialize() { return TRUE; }

BooleanT ProcessInitializeThread(TesselContextT* ptTlContext) {
    return ListCreate(&ptTlContext->sProcess.oCleanupList, ProcCleanupMagic);
}

void ProcessReleaseThread(TesselContextT* ptTlContext) {
    TraceMessageInline(213, 0, 4, "ProcessReleaseThread()");
    ObjRelease(&ptTlContext->sProcess.oCleanupList);
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
