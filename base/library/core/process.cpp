// The fatal stop and the process's identity. The state lives in the runtime context; a process that
// joins the managed processes fills it in.
#include "core/process.h"

#include <unistd.h>

#include <csignal>

#include "core/context.h"
#include "core/trace.h"

TRACE_MODULE("PROCESS")

BooleanT gbDoCrash = FALSE;

BooleanT ProcessInitialize() { return TRUE; }

BooleanT ProcessInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ProcessReleaseThread(TesselContextT* /*ptTlContext*/) {}

void ProcCrash(BooleanT bForce) {
    if (bForce == FALSE && gbDoCrash == FALSE) return;
    TraceMessageInline(209, 0, -1, "Crash program");
    kill(getpid(), SIGSEGV);
}

ProcIdT ProcGetId() { return gtTlContext.sProcess.tId; }

ProcRealIdT ProcGetRealId() { return getpid(); }

void* ProcGetKilnTimeArea() { return gtTlContext.sProcess.ptKilnTime; }
