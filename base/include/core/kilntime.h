// Reference time: the clock that a managing process publishes in shared memory, so that every
// process of a machine stamps its records alike.
//
// All three give FALSE when this process has no reference-time record or it is not valid. The
// result pointer may be null to ask only that.
#pragma once

#include "core/types.h"

// The published record. The layout is fixed: processes of both word sizes share it.
struct KilnTimeOffsetT {
    int64 llUTCOffset;        // milliseconds that the system clock is ahead
    int32 bHaveOffset;        // 1 when valid
    char acSourceSystem[32];  // name of the system that supplies the time
    int32 lReserved;          // to the next multiple of eight
};
static_assert(sizeof(KilnTimeOffsetT) == 48 && offsetof(KilnTimeOffsetT, acSourceSystem) == 12);

BooleanT KilnTime(TimeT* ptResult);
BooleanT KilnTimeAsInt64(int64* pllResult);      // milliseconds
BooleanT KilnTimeGetSource(char** ppstrResult);  // a copy, the caller's
