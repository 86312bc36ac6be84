// The process: the library-wide fatal stop and this process's place among the managed processes.
#pragma once

#include "core/object.h"
#include "core/types.h"

struct ProcDetailsT;        // procinternal.h
struct ProgressBufHeaderT;  // procinternal.h
struct ProcProcessTableT;   // procinternal.h

// Process state of the runtime context.
struct TesselContextProcessS {
    ProcIdT tId;  // 0 until the process has an identifier
    void* ptProgressBuffer;
    BooleanT bIsAdopted;
    ListO oCleanupList;
    char* pstrTitle;  // in ptDetails; null when there is none
    char* pstrName;   // owned
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
BooleanT ProcSetId(ProcIdT tId);  // the local message address follows

using ProcRealIdT = int32;  // identifier that the operating system gives a process
ProcRealIdT ProcGetRealId();
int32 ProcGetThreadId();  // no thread ids are used: -1

// --- appearance ---

// The title that others see in shared memory, cut to 79 bytes; FALSE in a process without it.
BooleanT ProcSetTitle(const char* pstrTitle);
const char* ProcTitle();  // the record's own text; null without shared memory
// The name stands for the process in configuration files. Null takes it away.
BooleanT ProcSetName(const char* pstrName);
const char* ProcName();
// The record in shared memory from now on, and with it the title; null for none.
void ProcSetDetails(ProcDetailsT* ptDetails);
// In shared memory; null when there is none, or no progress is kept.
ProgressBufHeaderT* ProcGetProgressBuffer();
void* ProcShmAddress(int32 lOffset);  // null also for an offset that is not inside it

// "tlid" and the eight hexadecimal digits of the id: a new text, the caller's.
char* ProcIdFileName(ProcRealIdT tId);

// --- settings: read anew with each call ---

// "Trace Level" of the section of this process's name in "programs.cfg": "ALWAYS", "NORMAL",
// "VERBOSE", "HIVERBOSE", "LIBNORMAL" or "LIBVERBOSE". Any other leaves the level as it is.
void ProcSetDefaultTraceLevel();
// The file that "Trace to File" of the same section names, else, when trace files are configured,
// the one of the trace name; the process id and ".log" are put behind the name, for ids up to 99
// the time in seconds. Neither: nothing is changed. Nothing is done for id -1.
void ProcSetTraceFile();
void ProcSetCrash();  // gbDoCrash from "Do Crash" of "Trace" in "configure.cfg"

// --- what the process tells the process manager of its machine ---

// What a process reports to the process manager of its machine.
enum ProcStatusE : int32 {
    eProcStatusAlive = 0,
    eProcStatusAdoptMe = 1,
    eProcStatusTaskRequired = 2,
    eProcStatusActive = 3,
    eProcStatusAboutToDie = 4,
    eProcStatusAbortAdopt = 5,
    eProcStatusRestartService = 6,
    eProcStatusAdoptThread = 7,
    eProcStatusAliveThread = 8,
};

constexpr int32 PmgrProcessStatusMagic = ObjMagic(0xc9c6be28);
struct PmgrProcessStatusS {  // PMGR_PROCESS_STATUS_MSG, descriptor "i;i;i;b;b;i;"
    int32 eStatus;
    int32 tRealProcessId;
    int32 tThreadId;
    BooleanT bProgress;
    BooleanT bViewer;
    int32 tThreadHandle;
};
using PmgrProcessStatusO = PmgrProcessStatusS*;

BooleanT ProcSendStatus(ProcStatusE eStatus);

enum PmgrStartOfDayReadyE : int32 {
    ePSODRError = 0,
    ePSODROK = 1,
    ePSODROKButWantToDie = 2,
};

constexpr int32 PmgrStartOfDayReadyMagic = ObjMagic(0xc896f103);
struct PmgrStartOfDayReadyS {  // PMGR_START_OF_DAY_READY_MSG, descriptor "i;o;"
    int32 lStatus;             // a PmgrStartOfDayReadyE
    void* oExtension;
};
using PmgrStartOfDayReadyO = PmgrStartOfDayReadyS*;

// The answer of a start-of-day program that is waited for (procsod.h).
BooleanT ProcSendSODReady(PmgrStartOfDayReadyE eStatus);
BooleanT ProcChangeFromReady();

// --- end of the process ---

using ProcCleanupFnT = void (*)(void* pArgument, int32 lExitCode);

constexpr int32 ProcCleanupMagic = ObjMagic(0xc8e8ee95);
struct ProcCleanupS {  // descriptor "p;p;"
    ProcCleanupFnT fnRoutine;
    void* pArgument;
};
using ProcCleanupO = ProcCleanupS*;

// Cleanup routines are called by ProcRelease, the newest first. Remove takes off the first with
// both equal, or with a null routine the newest.
BooleanT ProcAddCleanupRoutine(ProcCleanupFnT fnRoutine, void* pArgument);
BooleanT ProcRemoveCleanupRoutine(ProcCleanupFnT fnRoutine, void* pArgument);

// Reports the end to the process manager, calls the cleanup routines and releases the thread's
// context; the shared memory is detached before. Exit code -1 asks for the service to be started
// again.
void ProcRelease(int32 lExitCode);
// ProcRelease, then the end of the process with status 0 or, for a code other than 0, 1; -2 does
// not wait for channels and counts as 0. Only the first call acts, also when a signal makes another
// while it runs.
void ProcCleanup(int32 lExitCode);

void ProcMemoryUsage();  // traces how many objects of each class there are

// The published reference time (kilntime.h); null in a process without shared memory.
void* ProcGetKilnTimeArea();

// --- processes of the operating system ---

using ProcActualHandleT = ProcRealIdT;

struct ProcProcessInfoT {
    ProcRealIdT tRealProcessId;
};

// Starts a program as a managed process: looked up on the command search path when its path has no
// directory, with its base name and the id in decimal as arguments. Does not wait: the id in
// *ptProcInfo is the caller's to wait for. With a null ptProcInfo nobody waits: the library
// collects the child some time after its end. FALSE when the program may not be executed or no
// process can be made; a program that turns out not to run ends with status 127.
BooleanT ProcStartProcess(ProcProcessInfoT* ptProcInfo, const char* pstrProgramPath,
                          ProcIdT tProcessId);

// The same with the given texts (at most 18; the list ends with nullptr) as arguments behind the
// base name, and standard output and error on /dev/null.
BooleanT ProcStartProcessWithArgs(ProcActualHandleT* ptProcessId, const char* pstrProgramPath, ...)
    __attribute__((sentinel));

// Send SIGKILL and SIGTERM. FALSE, with nothing sent, for ids below 2, which are not one process.
BooleanT ProcKill(ProcRealIdT tRealId);
BooleanT ProcTerminate(ProcRealIdT tRealId);
// FALSE, with *ptRealId -1, when there is no such process; a child that nobody has waited for is
// one. FALSE, with the id as it is, for ids below 2. The handle is not looked at.
BooleanT ProcAlive(ProcRealIdT* ptRealId, void** ptHandle);

// Whether another process manager runs: it holds the lock of "etc/krpmgr.pid" in the home
// directory. When there is none, bLock makes this process the holder until its end and puts its id
// there. FALSE, too, when the file cannot be opened.
BooleanT ProcPmgrIsRunning(BooleanT bLock);
