// Timers that fall due inside the select loop.
#include "core/timer.h"

BooleanT TimerInitialize() { return TRUE; }

BooleanT TimerInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void TimerReleaseThread(TesselContextT* /*ptTlContext*/) {}
