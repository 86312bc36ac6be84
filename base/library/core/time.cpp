// Times, deadlines and the clock.
#include "core/time.h"

BooleanT TimeInitialize() { return TRUE; }

BooleanT TimeInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void TimeReleaseThread(TesselContextT* /*ptTlContext*/) {}
