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

// A new context, the caller's: of this machine when that is a server, else empty.
BooleanT TaskCreateContext(TaskContextO* poContext);

// The process's task from now on, held; null for none.
BooleanT TaskSetTaskContext(TaskContextO oContext);

// Of the current task; null and 0 without one. The name is the context's own text, null in the task
// of a machine that is no server.
const char* TaskGetServerName();
int32 TaskGetServerVersion();
int32 TaskGetServerPatchLevel();

// The object travels with the task from now on, held, in the place of one of the same class. Bad
// arguments are a programming error: ProcCrash(FALSE) is called.
BooleanT TaskSetContextObject(TaskContextO oContext, void* oObject);
// The object of that class that travels with the task: a new holder, the caller's; FALSE when there
// is none. Bad arguments are a programming error: ProcCrash(FALSE) is called.
BooleanT TaskGetContextObject(void** poObject, TaskContextO oContext, int32 lMagic);
