// How a program becomes a managed process: it connects to the communications manager, reports to
// the process manager, and waits until that has given it its place in the shared memory. An adopted
// process, one that the process manager has not started, learns its id with that.
// docs/processes.md tells the whole story.
#pragma once

#include "core/msgbase.h"
#include "core/object.h"
#include "core/process.h"
#include "core/procinternal.h"
#include "core/trace.h"
#include "core/types.h"

constexpr int32 ProcInitializeArgsMagic = ObjMagic(0xca950881);
struct ProcInitializeArgsS {  // descriptor "i;b;b;b;b;b;s;s;i;s;s;b;b;"; a field's number is its
                              // tag
    int32 lTraceLevel;        // a TraceLevelE
    BooleanT bIsAdopted;      // asks for an id; set without an id text and for a negative one
    BooleanT bNewStyleTasks;  // takes tasks with their context
    BooleanT bWaitForTask;    // reports that it waits for a task, else that it is active
    BooleanT bWithProgress;   // wants a progress buffer
    BooleanT bViewer;         // wants to read the table of processes
    char* pstrTraceFile;
    char* pstrProcId;  // the id in decimal; "-5" asks for one and tells process 5 when it is there
    int32 lProcId;     // set from the text
    char* pstrTitle;
    char* pstrName;
    BooleanT bUseTraceName;  // pstrTraceFile is a name to which ".log" is added
    BooleanT bIAmAProxy;     // channels of this process are others'
};
using ProcInitializeArgsO = ProcInitializeArgsS*;

// --- bodies of the messages with the process manager ---

constexpr int32 PmgrProcessInitialStatusMagic = ObjMagic(0xca68f424);
constexpr int32 PmgrStatusNewStyleTasks = 1;  // of lStatusFlags
struct PmgrProcessInitialStatusS {  // PMGR_PROCESS_INITIAL_STATUS_MSG, descriptor "o;i;o;"
    void* oLegacyStatus;            // a PmgrProcessStatusO
    int32 lStatusFlags;
    void* oExtension;
};
using PmgrProcessInitialStatusO = PmgrProcessInitialStatusS*;

constexpr int32 PmgrAttachToUnixShmMagic = ObjMagic(0xc9c6be54);
struct PmgrAttachToUnixShmS {  // PMGR_ATTACH_TO_SHM_MSG, descriptor "i;i;i;i;i;"
    int32 tDetailsId;          // segment with the records, progress buffers and reference time
    int32 tTableId;            // segment with the table of processes
    int32 lDetailsOffset;      // a ProcDetailsT with its trace buffer
    int32 lProgressOffset;     // a ProgressBufHeaderT with its text; 0 for none
    int32 lKilnTimeOffset;     // a KilnTimeOffsetT
};
using PmgrAttachToUnixShmO = PmgrAttachToUnixShmS*;

constexpr int32 PmgrSetLocaleMagic = ObjMagic(0xc84ce84c);
struct PmgrSetLocaleS {  // PMGR_SET_LOCALE_MSG, descriptor "s;o;"
    char* pstrLocale;
    void* oExtension;
};
using PmgrSetLocaleO = PmgrSetLocaleS*;

constexpr int32 MsgChildInitializedMagic = ObjMagic(0xca13380c);
struct MsgChildInitializedS {  // MSG_CHILD_INITIALIZED_MSG, descriptor "i;i;"
    ProcIdT tId;
    ProcRealIdT tRealId;
};
using MsgChildInitializedO = MsgChildInitializedS*;

// --- initialising ---

// These initialise the library and wait, as long as it takes, for the process manager to answer.
// Messages that arrive meanwhile are received afterwards, in their order. On failure, which is
// traced, all is released: the library cannot be used in this process any more. The first argument
// of a program that the process manager starts is its id text; one started in any other way has
// none (null). Unless the process is adopted, SIGTERM runs ProcCleanup from then on, wherever it
// interrupts the program.
BooleanT ProcInitialize(const char* pstrMyId, BooleanT bWaitForTask);
BooleanT ProcInitializeWithTrace(const char* pstrMyId, BooleanT bWaitForTask,
                                 const char* pstrTraceFile, TraceLevelE eLevel);
BooleanT ProcInitializeWithProgress(const char* pstrMyId, BooleanT bWaitForTask,
                                    const char* pstrTraceFile, TraceLevelE eLevel);
// For further threads of a process: FALSE, with nothing done, unless threads are allowed.
BooleanT ProcInitializeThread(const char* pstrTraceFile, TraceLevelE eLevel);
BooleanT ProcInitializeThreadWithProgress(const char* pstrTraceFile, TraceLevelE eLevel);
// An adopted process that watches the others. Table and shared memory are there until ProcRelease;
// the table may only be read. What its slots say changes at any time: ProcDetailsAt checks it.
BooleanT ProcInitializeViewer(ProcProcessTableT** pptTable, ByteT** pptDetails,
                              const char* pstrTraceFile, TraceLevelE eLevel);

// Initialises the library; all fields are 0, FALSE and null. Null on failure.
ProcInitializeArgsO ProcNewInitializeArgs();
// Takes the arguments over.
BooleanT ProcInitializeArgs(ProcInitializeArgsO* poArguments);

// ProcInitializeTags(OBJ_TAG_BEGIN, 7, pstrMyId, 3, TRUE, OBJ_TAG_END)
template <class... A>
BooleanT ProcInitializeTags(OBJ_TAG tFirstTag, A... tTags) {
    ProcInitializeArgsO oArguments = ProcNewInitializeArgs();
    if (oArguments == nullptr) return FALSE;
    ObjSetFromTagsVA(oArguments, tFirstTag, tTags...);
    return ProcInitializeArgs(&oArguments);
}

// --- the shared memory ---

// Takes PMGR_ATTACH_TO_SHM_MSG: title, trace buffer, progress buffer and reference time of this
// process lie in the shared memory from now on, for a viewer also the table of processes. Nothing
// is believed: FALSE, with all as it was, when any of it does not lie inside its segment.
BooleanT ProcAttachSharedMemory(MsgPacketO oPacket, BooleanT bViewer);
// Back to a process without shared memory, whose trace buffer is its own.
void ProcDetachSharedMemory();
// The record of a process; null unless it lies, with its trace buffer, inside the shared memory and
// its title ends.
ProcDetailsT* ProcDetailsAt(int32 lOffset);
