// Task contexts: objects that travel with a task are the extension items of its context.
#include "core/task.h"

#include "core/list.h"
#include "core/process.h"
#include "core/trace.h"

TRACE_MODULE("TASK")

BooleanT TaskGetContextObject(void** poObject, TaskContextO oContext, int32 lMagic) {
    if (poObject == nullptr || ObjCheckTypeInternal(oContext, TaskContextMagic) != TRUE) {
        TraceMessageInline(1, 0, -1, "TaskGetContextObjectld(%p, %p, ) - bad args",
                           static_cast<void*>(poObject), static_cast<void*>(oContext));
        ProcCrash(FALSE);
        return FALSE;
    }
    return ListGetExtensionItem(poObject, oContext->oExtraObjects, lMagic);
}
