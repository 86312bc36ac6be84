// Timers: alarms of a thread. An alarm that is due becomes a TIMER_CALLBACK_MSG to the thread
// itself, so that its routine runs when the thread handles its messages, never in between.
#pragma once

#include "core/object.h"
#include "core/time.h"
#include "core/types.h"

using TimerCallbackFnT = void (*)(void* pCookie);

constexpr int32 TimrEventMagic = ObjMagic(0xc920fcdf);
constexpr int32 TimerCallbackMagic = ObjMagic(0xca18f97a);

// Body of TIMER_CALLBACK_MSG, descriptor "p;p;".
struct TimerCallbackS {
    TimerCallbackFnT pfnCallback;  // may be null
    void* pCookie;
};
using TimerCallbackO = TimerCallbackS*;

// A pending alarm, descriptor "o;o;".
struct TimrEventS {
    TimerCallbackO oCallback;
    TimeTimeoutO oTimeout;
};
using TimrEventO = TimrEventS*;

struct TesselContextTimerS {
    ListO oEventList;   // of TimrEventO, from the latest to the earliest due
    TimeTimeoutO oNow;  // reused for "now" and for the next event's time
};

BooleanT TimerInitialize();
BooleanT TimerInitializeThread(TesselContextT* ptTlContext);
void TimerReleaseThread(TesselContextT* ptTlContext);

// Calls pfnCallback with pCookie once, at the timeout or some time after it. The alarm holds the
// timeout, whose time must not be changed while it is pending. FALSE for what is no timeout.
BooleanT TimrSetAlarm(TimerCallbackFnT pfnCallback, void* pCookie, TimeTimeoutO oTimeout);
// The same at now plus an offset.
BooleanT TimrSetAlarmRelative(TimerCallbackFnT pfnCallback, void* pCookie, TimeOffsetO oOffset);
// Takes back one alarm with this routine and cookie, of several the latest due; FALSE when there is
// none.
BooleanT TimrResetAlarm(TimerCallbackFnT pfnCallback, void* pCookie);

// When the next alarm is due, never without one. The object stays the library's and is overwritten
// by the next call of this and of TimrClearTimers.
TimeTimeoutO TimrNextEvent();

// Sends the messages of all alarms that are due, in the order of their times. FALSE when a message
// could not be sent: its alarm, and those after it, stay pending.
BooleanT TimrClearTimers();
