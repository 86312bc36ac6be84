// Deadlines around a fixed point, and the reference time.
#include "core/context.h"
#include "core/kilntime.h"
#include "core/time.h"
#include "core/timeconv.h"
#include "support/files.h"

namespace {

using Pair = std::pair<int32, int32>;
Pair Value(const TimeTimeoutS& t) { return {t.lSeconds, t.lMilliSeconds}; }

constexpr int32 Base = 1000000000;

TEST(Time, Left) {
    struct {
        TimeTimeoutS deadline, when;
        BooleanT expired;
        int32 left;
        int64 seconds, microseconds;  // -1: no time value
    } cases[] = {
        {{Base, 500}, {Base, 500}, TRUE, 0, 0, 0},
        {{Base, 501}, {Base, 500}, FALSE, 1, 0, 1000},
        {{Base + 1, 100}, {Base, 900}, FALSE, 200, 0, 200000},
        {{Base + 2, 100}, {Base, 900}, FALSE, 1200, 1, 200000},
        {{Base, 900}, {Base + 1, 100}, TRUE, 0, 0, 0},
        {{Base + 2147482, 999}, {Base, 0}, FALSE, 2147482999, 2147482, 999000},
        {{Base + 2147483, 0}, {Base, 0}, FALSE, -1, 2147483, 0},
        {{INT_MAX, 999}, {INT_MIN, 0}, FALSE, -1, INT_MAX, 999000},
        {{INT_MIN, 0}, {INT_MAX, 999}, TRUE, 0, 0, 0},
        {{0, 0}, {Base, 0}, TRUE, 0, 0, 0},
        {{-1, -1}, {Base, 0}, FALSE, -1, -1, 0},
        {{Base, 0}, {-1, -1}, FALSE, -1, -1, 0},
        {{-1, -1}, {-1, -1}, FALSE, -1, -1, 0},
        {{1, INT_MAX}, {0, INT_MIN}, FALSE, INT_MAX, 4294968, 295000},  // no milliseconds
    };
    for (auto& [deadline, when, expired, left, seconds, microseconds] : cases) {
        const std::string difference =
            std::to_string(deadline.lSeconds) + " - " + std::to_string(when.lSeconds);
        SCOPED_TRACE(difference);
        TraceCapture trace(3);
        EXPECT_EQ(TimeTimeoutHasExpiredRelative(&deadline, &when), expired);
        EXPECT_EQ(TimeTimeoutLeftRelative(&deadline, &when), left);
        EXPECT_EQ(trace.CountText("Timeout -1 - timeout difference: " + difference), left < 0);
        struct timeval value = {7, 7};
        EXPECT_EQ(TimeSetTimevalRelative(&value, &deadline, &when), BooleanFrom(seconds >= 0));
        EXPECT_EQ(value.tv_sec, std::max<int64>(seconds, 0));
        EXPECT_EQ(value.tv_usec, microseconds);
    }
    // Against now.
    TimeTimeoutS never = {-1, -1}, now = {}, soon = {};
    TimeSetTimeoutNow(&now);
    soon.lSeconds = now.lSeconds + 1000;
    const std::pair<TimeTimeoutO, int64> left[] = {
        {&now, 0}, {&never, -1}, {nullptr, -1}, {&soon, 970000}};
    for (const auto& [deadline, milliseconds] : left) {
        struct timeval value = {7, 7};
        EXPECT_EQ(TimeTimeoutHasExpired(deadline), BooleanFrom(milliseconds == 0));
        EXPECT_EQ(TimeTimeoutIsNever(deadline), BooleanFrom(milliseconds < 0));
        EXPECT_EQ(TimeSetTimeval(&value, deadline), BooleanFrom(milliseconds >= 0));
        EXPECT_NEAR(double(value.tv_sec), std::max(double(milliseconds) / 1000, 0.0), 30);
        EXPECT_NEAR(TimeTimeoutLeft(deadline), double(milliseconds), milliseconds > 0 ? 30000 : 0);
    }
    EXPECT_EQ(TimeTimeoutLeftRelative(&now, nullptr), -1);
}

TEST(Time, Setting) {
    TimeTimeoutS values[] = {{0, 0}, {Base, 1}, {Base, 2}, {Base + 1, 0}, {-1, -1}};
    for (std::size_t a = 0; a < std::size(values); a++) {
        for (std::size_t b = 0; b < std::size(values); b++) {
            TimeTimeoutS value = values[a];
            EXPECT_EQ(TimeSetTimeoutIfLower(&value, &values[b]), TRUE);
            EXPECT_EQ(Value(value), Value(values[std::min(a, b)])) << a << b;
        }
        EXPECT_EQ(TimeSetTimeoutIfLower(&values[a], nullptr), FALSE);
        EXPECT_EQ(TimeSetTimeoutIfLower(nullptr, &values[a]), FALSE);
    }
    std::tuple<TimeTimeoutS, TimeOffsetS, Pair> sums[] = {
        {{Base, 600}, {1, 400}, {Base + 2, 0}},
        {{Base, 600}, {0, 2399}, {Base + 2, 999}},
        {{Base, 600}, {-1, -601}, {Base - 2, 999}},
        {{INT_MAX, 999}, {INT_MAX, INT_MAX}, {INT_MAX, 999}},
        {{INT_MIN, 0}, {INT_MIN, INT_MIN}, {INT_MIN, 0}},
        {{-1, -1}, {5, 0}, {-1, -1}}};
    for (auto& [when, span, expected] : sums) {
        TimeTimeoutS sum = {};
        EXPECT_EQ(TimeSetTimeoutRelative(&sum, &span, &when), TRUE);
        EXPECT_EQ(Value(sum), expected);
    }
    TraceCapture trace(3);
    EXPECT_EQ(TimeSetTimeout(nullptr, 1), FALSE);
    EXPECT_EQ(trace.CountText("NULL timeout passed to TimeSetTimeout"), 1);
    EXPECT_EQ(TimeSetOffset(nullptr, 1, 1), FALSE);
    EXPECT_EQ(trace.CountText("Cannot set offset of NULL TimeOffsetO"), 1);
}

TEST(Time, Objects) {
    ObjHolder<TimeTimeoutS> set, copy, clone;
    ObjHolder<TimeOffsetS> span;
    EXPECT_EQ(TimeCreateTimeout(copy.Address()), TRUE);
    ASSERT_EQ(TimeCreateAndSetTimeout(set.Address(), 100, 500), TRUE);
    EXPECT_NEAR(TimeTimeoutLeft(set.Get()), 70500, 30000);
    EXPECT_EQ(TimeTimeoutCopy(set.Get(), copy.Get()), TRUE);
    EXPECT_EQ(TimeTimeoutIsNever(set.Get()), TRUE);
    ASSERT_EQ(TimeCreateOffset(span.Address(), INT_MAX, 0), TRUE);
    EXPECT_EQ(TimeSetTimeoutFromOffset(set.Get(), span.Get()), TRUE);
    EXPECT_EQ(Value(*set.Get()), Pair(INT_MAX, 999));
    ASSERT_EQ(TimeTimeoutClone(clone.Address(), set.Get()), TRUE);
    EXPECT_EQ(ObjCompare(clone.Get(), set.Get()), TRUE);
}

TEST(KilnTime, Record) {
    KilnTimeOffsetT record = {};
    char* source = nullptr;
    TimeT clock = 0;
    int64 precise = 0;
    for (const int32 valid : {-1, 0, 2}) {  // -1: no record at all
        gtTlContext.sProcess.ptKilnTime = valid < 0 ? nullptr : &record;
        record.bHaveOffset = valid;
        EXPECT_EQ(KilnTime(&clock) + KilnTimeAsInt64(&precise) + KilnTimeGetSource(&source), FALSE);
    }
    record = {3600000, 1, {}, -1};
    std::memset(record.acSourceSystem, 'n', sizeof(record.acSourceSystem));
    const int64 before = std::time(nullptr) - 3600;
    EXPECT_EQ(KilnTime(&clock) + KilnTimeAsInt64(&precise) + KilnTimeGetSource(&source), 3);
    for (const int64 seconds : {int64{clock}, precise / 1000})
        EXPECT_TRUE(seconds >= before && seconds <= before + 60) << seconds;
    EXPECT_EQ(Owned(source), std::string(32, 'n'));
    EXPECT_EQ(KilnTime(nullptr) + KilnTimeAsInt64(nullptr) + KilnTimeGetSource(nullptr), 3);
    record.llUTCOffset = INT64_MIN;  // wraps
    EXPECT_EQ(KilnTimeAsInt64(&precise), TRUE);
    EXPECT_LT(precise, 0);
    gtTlContext.sProcess.ptKilnTime = nullptr;
}

}  // namespace
