// Tasks: what a process knows of the request that it works on.
#pragma once

#include "core/object.h"
#include "core/types.h"

constexpr int32 TaskContextMagic = ObjMagic(0xcc52f34e);

// On whose behalf a task runs, descriptor "s;i;i;o;o;".
struct TaskContextS {
    char* pstrServerName;  // server that gave the task; may be null
    int32 lServerVersion;  // major * 1000 + minor
    int32 lServerPatchLevel;
    ListO oExtraObjects;  // objects that travel with the task, at most one of each class
    ListO oExtension;     // reserved
};
using TaskContextO = TaskContextS*;

// The process's task from now on, held; null for none.
BooleanT TaskSetTaskContext(TaskContextO oContext);

// The object of that class that travels with the task: a new holder, the caller's; FALSE when there
// is none. Bad arguments are a programming error: ProcCrash(FALSE) is called.
BooleanT TaskGetContextObject(void** poObject, TaskContextO oContext, int32 lMagic);
