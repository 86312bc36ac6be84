// Task contexts: objects that travel with a task are the extension items of its context.
#include "core/task.h"

#include "core/context.h"
#include "core/list.h"
#include "core/machineinfo.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/trace.h"

TRACE_MODULE("TASK")
MEM_DEFAULT_POOL_CACHE

namespace {

TaskContextO TaskCurrent() { return static_cast<TaskContextO>(gtTlContext.sProcess.oTaskContext); }

}  // namespace

BooleanT TaskCreateContext(TaskContextO* poContext) {
    if (ObjCreate(poContext, TaskContextMagic, "s;i;i;o;o;") != TRUE) return FALSE;
    const char* pstrMachine = SysLocalMachineName();
    BooleanT bServer = FALSE;
    if (MachInfoIsTLServer(&bServer, pstrMachine) != TRUE || bServer != TRUE) return TRUE;
    (*poContext)->pstrServerName = StrDuplicateIntoPool(pstrMachine, MemPool());
    MachInfoGetTLVersion(&(*poContext)->lServerVersion, pstrMachine);
    MachInfoGetTLPatchLevel(&(*poContext)->lServerPatchLevel, pstrMachine);
    return TRUE;
}

BooleanT TaskSetTaskContext(TaskContextO oContext) {
    TesselContextProcessS& tProcess = gtTlContext.sProcess;
    if (oContext != nullptr && ObjCheckTypeInternal(oContext, TaskContextMagic) != TRUE)
        return FALSE;
    if (oContext != nullptr) ObjIncRefCount(oContext);
    ObjHolder<void> oOld(tProcess.oTaskContext);
    tProcess.oTaskContext = oContext;
    TraceMessageInline(2, 0, 4, "Task context changed to %p", static_cast<void*>(oContext));
    if (oContext != nullptr)
        TraceMessageInline(3, 0, 4, "New task context for server '%s', version %s, patch level %d",
                           oContext->pstrServerName == nullptr ? "" : oContext->pstrServerName,
                           MachInfoTLVersionStringFromTLVersion(oContext->lServerVersion),
                           oContext->lServerPatchLevel);
    return TRUE;
}

const char* TaskGetServerName() {
    return TaskCurrent() == nullptr ? nullptr : TaskCurrent()->pstrServerName;
}

int32 TaskGetServerVersion() {
    return TaskCurrent() == nullptr ? 0 : TaskCurrent()->lServerVersion;
}

int32 TaskGetServerPatchLevel() {
    return TaskCurrent() == nullptr ? 0 : TaskCurrent()->lServerPatchLevel;
}

BooleanT TaskSetContextObject(TaskContextO oContext, void* oObject) {
    if (ObjCheckTypeInternal(oContext, TaskContextMagic) != TRUE ||
        ObjHasValidGlobalMagic(oObject) != TRUE) {
        TraceMessageInline(4, 0, -1, "TaskSetContextObject(%p, %p) - bad args",
                           static_cast<void*>(oContext), oObject);
        ProcCrash(FALSE);
        return FALSE;
    }
    void* oList = oContext->oExtraObjects;
    const BooleanT bResult = ListSetExtensionItem(&oList, oObject);
    oContext->oExtraObjects = static_cast<ListO>(oList);
    return bResult;
}

BooleanT TaskGetContextObject(void** poObject, TaskContextO oContext, int32 lMagic) {
    if (poObject == nullptr || ObjCheckTypeInternal(oContext, TaskContextMagic) != TRUE) {
        TraceMessageInline(1, 0, -1, "TaskGetContextObjectld(%p, %p, ) - bad args",
                           static_cast<void*>(poObject), static_cast<void*>(oContext));
        ProcCrash(FALSE);
        return FALSE;
    }
    return ListGetExtensionItem(poObject, oContext->oExtraObjects, lMagic);
}
