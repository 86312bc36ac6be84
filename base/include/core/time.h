// Deadlines and spans of time. A deadline is a clock value with milliseconds; two values stand
// apart: never (-1, -1) and at once (0, 0), which is a time long past. Setters return FALSE for a
// null object and leave the others as they are. What passes the range of a clock value is limited
// to it, so that a huge span gives the latest deadline.
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
// From oWhen; never for never.
BooleanT TimeSetTimeoutRelative(TimeTimeoutO oTimeout, TimeOffsetO oOffset, TimeTimeoutO oWhen);
BooleanT TimeSetTimeoutNever(TimeTimeoutO oTimeout);
BooleanT TimeSetTimeoutImmediate(TimeTimeoutO oTimeout);
BooleanT TimeSetTimeoutNow(TimeTimeoutO oTimeout);
// The earlier of the two; never is later than everything.
BooleanT TimeSetTimeoutIfLower(TimeTimeoutO oTimeoutValue, TimeTimeoutO oTimeoutTest);

BooleanT TimeTimeoutIsNever(TimeTimeoutO oTimeout);  // TRUE for null
// TRUE when not after now (oWhen); FALSE when either is never or null.
BooleanT TimeTimeoutHasExpired(TimeTimeoutO oTimeout);
BooleanT TimeTimeoutHasExpiredRelative(TimeTimeoutO oTimeout, TimeTimeoutO oWhen);

// Milliseconds left, 0 when past; -1 when either is null or never, and for a deadline more than
// 2147482 seconds away.
int32 TimeTimeoutLeft(TimeTimeoutO oTimeout);
int32 TimeTimeoutLeftRelative(TimeTimeoutO oTimeout, TimeTimeoutO oWhen);
// The time left in seconds and microseconds, zero when past. FALSE, and zero as well, when either
// deadline is never or null: ask TimeTimeoutIsNever first and wait without a limit then.
BooleanT TimeSetTimeval(struct timeval* ptTimeval, TimeTimeoutO oTimeout);
BooleanT TimeSetTimevalRelative(struct timeval* ptTimeval, TimeTimeoutO oTimeout,
                                TimeTimeoutO oWhen);

// --- spans ---

BooleanT TimeCreateOffset(TimeOffsetO* poOffset, int32 lSeconds, int32 lMilliSeconds);
BooleanT TimeSetOffset(TimeOffsetO oOffset, int32 lSeconds, int32 lMilliSeconds);
