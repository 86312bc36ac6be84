// The process: the library-wide fatal stop and this process's place among the managed processes.
#pragma once

#include "core/types.h"

struct ProcDetailsT;       // procinternal.h
struct ProcProcessTableT;  // procinternal.h
struct ObjCountEntryT;     // object.h

// Process state of the runtime context.
struct TesselContextProcessS {
    ProcIdT tId;  // 0 until the process has an identifier
    void* ptProgressBuffer;
    BooleanT bIsAdopted;
    ListO oCleanupList;
    char* pstrTitle;
    char* pstrName;
    ProcProcessTableT* ptProcessTable;
    ObjCountEntryT* ptObjCountBase;
    ProcDetailsT* ptDetails;  // this process's record in shared memory, null when there is none
    BooleanT bInCleanup;
    void* ptSharedMemoryBase;
    void (*fnOnTerminate)();
    int32 lInCleanup;
    void* ptKilnTime;
    BooleanT bNewStyleTasks;
    BooleanT bIAmAProxy;
    void* oTaskContext;
    ListO oExtendibleContext;  // context objects, at most one of each class
    char* pstrTraceName;
};

// TRUE when a ProcCrash that is not forced stops the process too. FALSE at start.
extern BooleanT gbDoCrash;

BooleanT ProcessInitialize();
BooleanT ProcessInitializeThread(TesselContextT* ptTlContext);
void ProcessReleaseThread(TesselContextT* ptTlContext);

// The fatal stop, called after an inconsistency was traced. Unless bForce or gbDoCrash is TRUE it
// returns at once. Otherwise it sends SIGSEGV to the own process; it returns only where that signal
// is ignored, blocked or handled, so every caller leaves its data sound and reports failure.
void ProcCrash(BooleanT bForce);

// The identifier of this process; 0 when it has none.
ProcIdT ProcGetId();

using ProcRealIdT = int32;  // identifier that the operating system gives a process
ProcRealIdT ProcGetRealId();

// The published reference time (kilntime.h); null in a process without shared memory.
void* ProcGetKilnTimeArea();

// --- starting programs ---

using ProcActualHandleT = ProcRealIdT;

// Starts a program, looked up on the command search path when its path has no directory, with its
// base name and the given texts (at most 18; the list ends with nullptr) as arguments and standard
// output and error on /dev/null. Does not wait: *ptProcessId is the caller's to wait for. With a
// null ptProcessId nobody waits: the library collects the child some time after its end. FALSE when
// the program may not be executed or no process can be made; a program that turns out not to run
// ends with status 127.
BooleanT ProcStartProcessWithArgs(ProcActualHandleT* ptProcessId, const char* pstrProgramPath, ...)
    __attribute__((sentinel));
