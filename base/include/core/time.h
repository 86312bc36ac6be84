// Times, deadlines and the clock.
#pragma once

#include "core/types.h"

BooleanT TimeInitialize();
BooleanT TimeInitializeThread(TesselContextT* ptTlContext);
void TimeReleaseThread(TesselContextT* ptTlContext);
