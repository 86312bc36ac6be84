// The runtime context: the one record in which every subsystem keeps its state, and the start-up
// that brings all subsystems up in a fixed order. Headers of other modules do not include this one;
// their sources do.
//
// Threaded mode exists as a flag that cannot be switched on: there is one context per process, no
// lock guards it, and all library code runs on one thread.
#pragma once

#include "core/locale.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/msgwait.h"
#include "core/net.h"
#include "core/object.h"
#include "core/process.h"
#include "core/shm.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/timeconv.h"
#include "core/timer.h"
#include "core/trace.h"
#include "core/types.h"
#include "core/unique.h"

struct PlgContextT;

struct TesselContextPluginS {
    PlgContextT* ptData;  // the plug-in context; set by the first ContextInitialize
};

struct TesselContextT {
    TesselContextDataChannelS sDataChannel;
    TesselContextLocaleS sLocale;
    TesselContextLogS sLog;
    TesselContextMemoryS sMemory;
    TesselContextNetS sNet;
    TesselContextTimeObjectS sObject;
    TesselContextTimeStringS sString;
    TesselContextTimeSysS sSys;
    TesselContextTimeConvS sTimeConv;
    TesselContextTimerS sTimer;
    TesselContextTraceS sTrace;
    TesselContextUniqueS sUnique;
    TesselContextProcessS sProcess;
    TesselContextMsgS sMsg;
    TesselContextShmS sShm;
    TesselContextPluginS sPlugin;
    TesselContextMsgWaitS sMsgWait;
    void* pThreadData;
};

extern TesselContextT gtTlContext;

// Initialises every subsystem, then the context. At the first subsystem that fails its code is
// printed as a line on standard output and the result is FALSE; each code belongs to one subsystem
// (397 to 522 in steps of 5). A repeated call returns TRUE and does nothing. Sets the process's
// file-creation mask to 0.
BooleanT ContextInitialize();

// Fills the context's sub-records; at the first failure all are released again.
BooleanT ContextInitializeThread();

// Empties them in reverse order, also those never filled.
void ContextReleaseThread();

BooleanT ContextIsInitialized();
BooleanT ContextIsThreaded();
BooleanT ContextIsMultiThreaded();
BooleanT ContextThreadIsInitialized();
TesselContextT* ContextGet();
void ContextSet(void* pContext);  // does nothing: there is one context per process
BooleanT ContextAllowThreading();
BooleanT ContextValid();  // always TRUE

// A pointer kept for the caller. FALSE or null before the context is initialised.
BooleanT ContextSetThreadData(void* pValue);
void* ContextGetThreadData();

// Objects attached to the context, one of each class, held by it. Get hands out a new holder.
BooleanT ContextSetContextObject(void* oObject);
BooleanT ContextGetContextObject(void** poObject, int32 lMagic);
