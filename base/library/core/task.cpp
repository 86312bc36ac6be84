// Task contexts: objects that travel with a task are the extension items of its context.
#include "core/task.h"

#include "core/context.h"
#include "core/list.h"
#include "core/machineinfo.h"
#include "core/process.h"
#include "core/trace.h"

TRACE_MODULE("TASK")

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

BooleanT TaskGetContextObject(void** poObject, TaskContextO oContext, int32 lMagic) {
    if (poObject == nullptr || ObjCheckTypeInternal(oContext, TaskContextMagic) != TRUE) {
        TraceMessageInline(1, 0, -1, "TaskGetContextObjectld(%p, %p, ) - bad args",
                           static_cast<void*>(poObject), static_cast<void*>(oContext));
        ProcCrash(FALSE);
        return FALSE;
    }
    return ListGetExtensionItem(poObject, oContext->oExtraObjects, lMagic);
}
