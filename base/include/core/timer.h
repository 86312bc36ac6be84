// Timers that fall due inside the select loop.
#pragma once

#include "core/types.h"

struct TesselContextTimerS {
    ListO oEventList;  // from the latest to the earliest due
    void* oNow;        // timeout object reused for "now" and for the next event's time
};

BooleanT TimerInitialize();
BooleanT TimerInitializeThread(TesselContextT* ptTlContext);
void TimerReleaseThread(TesselContextT* ptTlContext);
