// The runtime context and the start-up of all subsystems, both driven by tables: one in the order
// in which the process-wide initialisers run, one in the order in which the context's sub-records
// are filled (release runs it backwards).
#include "core/context.h"

#include <sys/stat.h>

#include <cstdio>

#include "core/list.h"
#include "core/map.h"
#include "core/objmap.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/procapi.h"
#include "core/security.h"
#include "core/stnzfile.h"
#include "core/syssignal.h"
#include "core/time.h"
#include "core/tree.h"

TRACE_MODULE("CONTEXT")

TesselContextT gtTlContext;

// Sub-records that belong to plug-in modules; only the record's address is the context's business.
struct PlgContextT {
    void* sMtf;
    void* sBackupStreams;
    void* sCookies;
    void* sMsgLoop;
    void* sRestoreStream;
    void* sWinNTRestore;
    void* sJobMgrIf;
    void* sSysExec;
    void* sAudit;
    void* sReportsLib;
};

namespace {

constexpr int32 ContextSubsystemCount = 26;

struct ContextSubsystemT {
    BooleanT (*fnInitialize)();
    int32 lFailureCode;  // printed when it fails
};

constexpr ContextSubsystemT atSubsystems[ContextSubsystemCount] = {
    {TraceInitialize, 397},   {MemoryInitialize, 402},      {SysInitialize, 407},
    {PathInitialize, 412},    {SigInitialize, 417},         {MapInitialize, 422},
    {ObjInitialize, 427},     {ListInitialize, 432},        {TreeInitialize, 437},
    {ObjMapInitialize, 442},  {ObjWrappersInitialize, 447}, {ProcApiInitialize, 452},
    {StrBaseInitialize, 457}, {StnzFileInitialize, 462},    {NetInitialize, 467},
    {UniqueInitialize, 472},  {TimeConvInitialize, 477},    {TimeInitialize, 482},
    {LocaleInitialize, 487},  {ShmInitialize, 492},         {SecurityInitialize, 497},
    {ProcessInitialize, 502}, {MsgInitialize, 507},         {MsgWaitInitialize, 512},
    {TimerInitialize, 517},   {LogInitialize, 522},
};

struct ContextThreadStepT {
    BooleanT (*fnInitializeThread)(TesselContextT* ptTlContext);
    void (*fnReleaseThread)(TesselContextT* ptTlContext);
};

// Signals come before paths here.
constexpr ContextThreadStepT atThreadSteps[ContextSubsystemCount] = {
    {TraceInitializeThread, TraceReleaseThread},
    {MemoryInitializeThread, MemoryReleaseThread},
    {SysInitializeThread, SysReleaseThread},
    {SigInitializeThread, SigReleaseThread},
    {PathInitializeThread, PathReleaseThread},
    {MapInitializeThread, MapReleaseThread},
    {ObjInitializeThread, ObjReleaseThread},
    {ListInitializeThread, ListReleaseThread},
    {TreeInitializeThread, TreeReleaseThread},
    {ObjMapInitializeThread, ObjMapReleaseThread},
    {ObjWrappersInitializeThread, ObjWrappersReleaseThread},
    {ProcApiInitializeThread, ProcApiReleaseThread},
    {StrBaseInitializeThread, StrBaseReleaseThread},
    {StnzFileInitializeThread, StnzFileReleaseThread},
    {NetInitializeThread, NetReleaseThread},
    {UniqueInitializeThread, UniqueReleaseThread},
    {TimeConvInitializeThread, TimeConvReleaseThread},
    {TimeInitializeThread, TimeReleaseThread},
    {LocaleInitializeThread, LocaleReleaseThread},
    {ShmInitializeThread, ShmReleaseThread},
    {SecurityInitializeThread, SecurityReleaseThread},
    {ProcessInitializeThread, ProcessReleaseThread},
    {MsgInitializeThread, MsgReleaseThread},
    {MsgWaitInitializeThread, MsgWaitReleaseThread},
    {TimerInitializeThread, TimerReleaseThread},
    {LogInitializeThread, LogReleaseThread},
};

PlgContextT gtPlgContext;

BooleanT gbInitialized = FALSE;    // the process-wide initialisers have all succeeded
BooleanT gbThreaded = FALSE;       // set only by ContextAllowThreading
BooleanT gbCanThread = FALSE;      // nothing sets it
BooleanT gbMultiThreaded = FALSE;  // nothing sets it

// TRUE when every process-wide initialiser succeeded; prints the code of the first that did not.
BooleanT ContextInitializeSubsystems() {
    for (const ContextSubsystemT& tSubsystem : atSubsystems) {
        if (tSubsystem.fnInitialize() == TRUE) continue;
        std::printf("%d\n", tSubsystem.lFailureCode);
        return FALSE;
    }
    return TRUE;
}

}  // namespace

BooleanT ContextInitialize() {
    bool bError = false;
    bool bInitializeThreadContext = true;
    if (gbThreaded == FALSE) {
        gbCanThread = FALSE;
        if (gtTlContext.sPlugin.ptData != nullptr) {
            bInitializeThreadContext = false;
        } else {
            gtTlContext.sPlugin.ptData = &gtPlgContext;
        }
    }
    if (gbInitialized == FALSE) {
        // Files and directories get exactly the permissions that their creator asks for.
        umask(0);
        bError = ContextInitializeSubsystems() != TRUE;
        gbInitialized = BooleanFrom(!bError);
    }
    TraceMessageInline(2, 0, 3, "bError = %s bInitializeThreadContext = %s",
                       BooleanText(BooleanFrom(bError)),
                       BooleanText(BooleanFrom(bInitializeThreadContext)));
    if (bError) return FALSE;
    return bInitializeThreadContext ? ContextInitializeThread() : TRUE;
}

BooleanT ContextInitializeThread() {
    TraceMessageInline(1, 0, 3, "ContextInitializeThread");
    for (const ContextThreadStepT& tStep : atThreadSteps) {
        if (tStep.fnInitializeThread(&gtTlContext) == TRUE) continue;
        ContextReleaseThread();
        return FALSE;
    }
    return TRUE;
}

void ContextReleaseThread() {
    gtTlContext.sProcess.ptDetails = nullptr;
    for (int32 lStep = ContextSubsystemCount - 1; lStep >= 0; lStep--) {
        atThreadSteps[lStep].fnReleaseThread(&gtTlContext);
    }
}

BooleanT ContextIsInitialized() { return gbInitialized; }

BooleanT ContextIsThreaded() { return gbThreaded; }

BooleanT ContextIsMultiThreaded() { return gbMultiThreaded; }

BooleanT ContextThreadIsInitialized() {
    return BooleanFrom(gbInitialized == TRUE && gbThreaded == FALSE);
}

TesselContextT* ContextGet() { return &gtTlContext; }

void ContextSet(void* /*pContext*/) {}

BooleanT ContextAllowThreading() {
    if (gbCanThread == TRUE) gbThreaded = TRUE;
    return gbThreaded;
}

BooleanT ContextValid() { return TRUE; }

BooleanT ContextSetThreadData(void* pValue) {
    if (ContextThreadIsInitialized() != TRUE) return FALSE;
    gtTlContext.pThreadData = pValue;
    return TRUE;
}

void* ContextGetThreadData() {
    return ContextThreadIsInitialized() == TRUE ? gtTlContext.pThreadData : nullptr;
}

BooleanT ContextSetContextObject(void* oObject) {
    if (ObjHasValidGlobalMagic(oObject) != TRUE) {
        TraceMessageInline(3, 0, -1, "ContextSetContextObject(%p) - not passed an object", oObject);
        ProcCrash(FALSE);
        return FALSE;
    }
    void* oList = gtTlContext.sProcess.oExtendibleContext;
    const BooleanT bResult = ListSetExtensionItem(&oList, oObject);
    gtTlContext.sProcess.oExtendibleContext = static_cast<ListO>(oList);
    return bResult;
}

BooleanT ContextGetContextObject(void** poObject, int32 lMagic) {
    if (poObject == nullptr) {
        TraceMessageInline(4, 0, -1, "ContextGetContextObject(%p, %d) - bad params",
                           static_cast<void*>(poObject), lMagic);
        return FALSE;
    }
    return ListGetExtensionItem(poObject, gtTlContext.sProcess.oExtendibleContext, lMagic);
}
