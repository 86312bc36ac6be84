// Deadlines and spans. All arithmetic is done in 64 bits of milliseconds or seconds and limited to
// what a deadline can hold, so that neither a huge span nor a far deadline turns into the past.
#include "core/time.h"

#include <algorithm>
#include <limits>

#include "core/timeconv.h"
#include "core/trace.h"

TRACE_MODULE("TIME")

namespace {

constexpr char TimeTimeoutDescriptor[] = "i;i;";
constexpr char TimeOffsetDescriptor[] = "i;i;";
constexpr TimeTimeoutS Never = {-1, -1};
constexpr int32 MostSecondsLeft = 2147482;  // whose milliseconds are still a result

TimeTimeoutS Now() {
    const int64 llNow = TimeNowAsInt64();
    return {static_cast<int32>(llNow / 1000), static_cast<int32>(llNow % 1000)};
}

bool IsNever(const TimeTimeoutS& tTimeout) {
    return tTimeout.lSeconds == -1 && tTimeout.lMilliSeconds == -1;
}

bool IsNever(TimeTimeoutO oTimeout) { return oTimeout == nullptr || IsNever(*oTimeout); }

int64 MilliSeconds(const TimeTimeoutS& tTimeout) {
    return int64{tTimeout.lSeconds} * 1000 + tTimeout.lMilliSeconds;
}

// A deadline at a number of milliseconds, which a negative span may have made negative.
TimeTimeoutS Deadline(int64 llMilliSeconds) {
    constexpr int64 llFirst = std::numeric_limits<int32>::min() * int64{1000};
    constexpr int64 llLast = std::numeric_limits<int32>::max() * int64{1000} + 999;
    const int64 llLimited = std::clamp(llMilliSeconds, llFirst, llLast);
    const int64 llRest = (llLimited % 1000 + 1000) % 1000;
    return {static_cast<int32>((llLimited - llRest) / 1000), static_cast<int32>(llRest)};
}

TimeTimeoutS Later(const TimeTimeoutS& tStart, int32 lSeconds, int32 lMilliSeconds) {
    return Deadline(MilliSeconds(tStart) + int64{lSeconds} * 1000 + lMilliSeconds);
}

BooleanT Set(TimeTimeoutO oTimeout, const TimeTimeoutS& tValue) {
    if (oTimeout == nullptr) return FALSE;
    *oTimeout = tValue;
    return TRUE;
}

BooleanT Create(TimeTimeoutO* poTimeout, const TimeTimeoutS& tValue) {
    if (poTimeout == nullptr) return FALSE;
    *poTimeout = ObjNew<TimeTimeoutS>(TimeTimeoutMagic, TimeTimeoutDescriptor);
    return Set(*poTimeout, tValue);
}

bool IsPast(const TimeTimeoutS& tTimeout, const TimeTimeoutS& tWhen) {
    return MilliSeconds(tTimeout) <= MilliSeconds(tWhen);
}

// -1 when the result cannot say it.
int32 Left(const TimeTimeoutS& tTimeout, const TimeTimeoutS& tWhen) {
    if (IsNever(tTimeout) || IsNever(tWhen)) return -1;
    if (int64{tTimeout.lSeconds} - tWhen.lSeconds > MostSecondsLeft) return -1;
    return static_cast<int32>(std::clamp<int64>(MilliSeconds(tTimeout) - MilliSeconds(tWhen), 0,
                                                std::numeric_limits<int32>::max()));
}

}  // namespace

BooleanT TimeInitialize() {
    ObjTemplateT tTemplate = nullptr;
    return BooleanFrom(ObjTemplateCreateInternal(&tTemplate, sizeof(TimeTimeoutS), TimeTimeoutMagic,
                                                 TimeTimeoutDescriptor, nullptr) == TRUE &&
                       ObjTemplateCreateInternal(&tTemplate, sizeof(TimeOffsetS), TimeOffsetMagic,
                                                 TimeOffsetDescriptor, nullptr) == TRUE);
}

BooleanT TimeInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void TimeReleaseThread(TesselContextT* /*ptTlContext*/) {}

// --- deadlines ---

BooleanT TimeCreateTimeout(TimeTimeoutO* poTimeout) { return Create(poTimeout, Never); }

BooleanT TimeCreateAndSetTimeout(TimeTimeoutO* poTimeout, int32 lSeconds, int32 lMilliSeconds) {
    return Create(poTimeout, Later(Now(), lSeconds, lMilliSeconds));
}

BooleanT TimeTimeoutCopy(TimeTimeoutO oTarget, TimeTimeoutO oSource) {
    return oSource == nullptr ? FALSE : Set(oTarget, *oSource);
}

BooleanT TimeTimeoutClone(TimeTimeoutO* poNew, TimeTimeoutO oSource) {
    return oSource == nullptr ? FALSE : Create(poNew, *oSource);
}

BooleanT TimeSetTimeout(TimeTimeoutO oTimeout, int32 lTime) {
    if (oTimeout == nullptr) TraceMessageInline(1, 0, -1, "NULL timeout passed to TimeSetTimeout");
    return Set(oTimeout, {lTime, 0});
}

BooleanT TimeSetTimeoutFromOffset(TimeTimeoutO oTimeout, TimeOffsetO oOffset) {
    if (oOffset == nullptr) return FALSE;
    return Set(oTimeout, Later(Now(), oOffset->lSeconds, oOffset->lMilliSeconds));
}

BooleanT TimeSetTimeoutRelative(TimeTimeoutO oTimeout, TimeOffsetO oOffset, TimeTimeoutO oWhen) {
    if (oOffset == nullptr || oWhen == nullptr) return FALSE;
    if (IsNever(*oWhen)) return Set(oTimeout, Never);
    return Set(oTimeout, Later(*oWhen, oOffset->lSeconds, oOffset->lMilliSeconds));
}

BooleanT TimeSetTimeoutNever(TimeTimeoutO oTimeout) { return Set(oTimeout, Never); }

BooleanT TimeSetTimeoutImmediate(TimeTimeoutO oTimeout) { return Set(oTimeout, {0, 0}); }

BooleanT TimeSetTimeoutNow(TimeTimeoutO oTimeout) { return Set(oTimeout, Now()); }

BooleanT TimeSetTimeoutIfLower(TimeTimeoutO oTimeoutValue, TimeTimeoutO oTimeoutTest) {
    if (oTimeoutValue == nullptr || oTimeoutTest == nullptr) return FALSE;
    if (IsNever(*oTimeoutTest)) return TRUE;
    if (IsNever(*oTimeoutValue) || MilliSeconds(*oTimeoutTest) < MilliSeconds(*oTimeoutValue))
        *oTimeoutValue = *oTimeoutTest;
    return TRUE;
}

BooleanT TimeTimeoutIsNever(TimeTimeoutO oTimeout) { return BooleanFrom(IsNever(oTimeout)); }

BooleanT TimeTimeoutHasExpired(TimeTimeoutO oTimeout) {
    return BooleanFrom(!IsNever(oTimeout) && IsPast(*oTimeout, Now()));
}

BooleanT TimeTimeoutHasExpiredRelative(TimeTimeoutO oTimeout, TimeTimeoutO oWhen) {
    return BooleanFrom(!IsNever(oTimeout) && !IsNever(oWhen) && IsPast(*oTimeout, *oWhen));
}

int32 TimeTimeoutLeft(TimeTimeoutO oTimeout) {
    return oTimeout == nullptr ? -1 : Left(*oTimeout, Now());
}

int32 TimeTimeoutLeftRelative(TimeTimeoutO oTimeout, TimeTimeoutO oWhen) {
    if (oTimeout == nullptr || oWhen == nullptr) {
        TraceMessageInline(2, 0, 3, "Timeout -1 - invalid timeout pointer");
        return -1;
    }
    const int32 lLeft = Left(*oTimeout, *oWhen);
    if (lLeft < 0)
        TraceMessageInline(3, 0, 3, "Timeout -1 - timeout difference: %d - %d", oTimeout->lSeconds,
                           oWhen->lSeconds);
    return lLeft;
}

BooleanT TimeSetTimeval(struct timeval* ptTimeval, TimeTimeoutO oTimeout) {
    TimeTimeoutS tNow = Now();
    return TimeSetTimevalRelative(ptTimeval, oTimeout, &tNow);
}

BooleanT TimeSetTimevalRelative(struct timeval* ptTimeval, TimeTimeoutO oTimeout,
                                TimeTimeoutO oWhen) {
    if (ptTimeval == nullptr) return FALSE;
    *ptTimeval = {};
    if (IsNever(oTimeout) || IsNever(oWhen)) return FALSE;
    if (IsPast(*oTimeout, *oWhen)) return TRUE;
    const TimeTimeoutS tLeft = Deadline(MilliSeconds(*oTimeout) - MilliSeconds(*oWhen));
    ptTimeval->tv_sec = tLeft.lSeconds;
    ptTimeval->tv_usec = tLeft.lMilliSeconds * 1000;
    return TRUE;
}

// --- spans ---

BooleanT TimeCreateOffset(TimeOffsetO* poOffset, int32 lSeconds, int32 lMilliSeconds) {
    if (poOffset == nullptr) return FALSE;
    *poOffset = ObjNew<TimeOffsetS>(TimeOffsetMagic, TimeOffsetDescriptor);
    return *poOffset == nullptr ? FALSE : TimeSetOffset(*poOffset, lSeconds, lMilliSeconds);
}

BooleanT TimeSetOffset(TimeOffsetO oOffset, int32 lSeconds, int32 lMilliSeconds) {
    if (oOffset == nullptr) {
        TraceMessageInline(4, 0, 3, "Cannot set offset of NULL TimeOffsetO");
        return FALSE;
    }
    *oOffset = {lSeconds, lMilliSeconds};
    return TRUE;
}
