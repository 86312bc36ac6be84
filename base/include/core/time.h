// Deadlines and spans of time. A deadline is a clock value with milliseconds; two values stand
// apart: never (-1, -1) and at once (0, 0). Setters return FALSE for a null object.
#pragma once

#include <sys/time.h>

#include "core/object.h"
#include "core/types.h"

constexpr int32 TimeTimeoutMagic = ObjMagic(0xca1cea91);  // "i;i;"
constexpr int32 TimeOffsetMagic = ObjMagic(0xca1ceab8);   // "i;i;"

struct TimeTimeoutS {
    int32 lSeconds;
    int32 lMilliSeconds;  // 0-999
};
using TimeTimeoutO = TimeTimeoutS*;

struct TimeOffsetS {
    int32 lSeconds;
    int32 lMilliSeconds;
};
using TimeOffsetO = TimeOffsetS*;

BooleanT TimeInitialize();
BooleanT TimeInitializeThread(TesselContextT* ptTlContext);
void TimeReleaseThread(TesselContextT* ptTlContext);

// --- deadlines; new ones are the caller's ---

BooleanT TimeCreateTimeout(TimeTimeoutO* poTimeout);  // never
BooleanT TimeCreateAndSetTimeout(TimeTimeoutO* poTimeout, int32 lSeconds,
                                 int32 lMilliSeconds);  // that long from now
BooleanT TimeTimeoutCopy(TimeTimeoutO oTarget, TimeTimeoutO oSource);
BooleanT TimeTimeoutClone(TimeTimeoutO* poNew, TimeTimeoutO oSource);

BooleanT TimeSetTimeout(TimeTimeoutO oTimeout, int32 lTime);  // exactly that clock value
BooleanT TimeSetTimeoutFromOffset(TimeTimeoutO oTimeout, TimeOffsetO oOffset);  // from now
BooleanT TimeSetTimeoutRelative(TimeTimeoutO oTimeout, TimeOffsetO oOffset, TimeTimeoutO oWhen);
BooleanT TimeSetTimeoutNever(TimeTimeoutO oTimeout);
BooleanT TimeSetTimeoutImmediate(TimeTimeoutO oTimeout);
BooleanT TimeSetTimeoutNow(TimeTimeoutO oTimeout);
// The earlier of the two; never is later than everything.
BooleanT TimeSetTimeoutIfLower(TimeTimeoutO oTimeoutValue, TimeTimeoutO oTimeoutTest);

BooleanT TimeTimeoutIsNever(TimeTimeoutO oTimeout);  // TRUE for null
BooleanT TimeTimeoutHasExpired(TimeTimeoutO oTimeout);
BooleanT TimeTimeoutHasExpiredRelative(TimeTimeoutO oTimeout, TimeTimeoutO oWhen);

// Milliseconds left, 0 when past; -1 for a null deadline, for never, and for one too far away for
// the result.
int32 TimeTimeoutLeft(TimeTimeoutO oTimeout);
int32 TimeTimeoutLeftRelative(TimeTimeoutO oTimeout, TimeTimeoutO oWhen);
// The time left in seconds and microseconds, zero when past.
BooleanT TimeSetTimeval(struct timeval* ptTimeval, TimeTimeoutO oTimeout);
BooleanT TimeSetTimevalRelative(struct timeval* ptTimeval, TimeTimeoutO oTimeout,
                                TimeTimeoutO oWhen);

// --- spans ---

BooleanT TimeCreateOffset(TimeOffsetO* poOffset, int32 lSeconds, int32 lMilliSeconds);
BooleanT TimeSetOffset(TimeOffsetO oOffset, int32 lSeconds, int32 lMilliSeconds);
