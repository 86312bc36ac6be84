// Conversion between clock values and calendar fields.
#pragma once

#include <ctime>

#include "core/types.h"

struct TesselContextTimeConvS {
    struct tm tm;  // broken-down time converted last
};

BooleanT TimeConvInitialize();
BooleanT TimeConvInitializeThread(TesselContextT* ptTlContext);
void TimeConvReleaseThread(TesselContextT* ptTlContext);
