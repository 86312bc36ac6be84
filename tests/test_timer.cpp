// Alarms with a stand-in for the sending of messages (test_timer.options).
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <numeric>
#include <random>
#include <vector>

#include "core/msgbase.h"
#include "core/objwrappers.h"
#include "core/timer.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

std::vector<int32> gSent;  // cookies of the messages
int gRefused = 0;          // messages that cannot be sent, from the next one on
const int32 kNow = static_cast<int32>(std::time(nullptr));

void Callback(void* pCookie) { gSent.push_back(*static_cast<int32*>(pCookie)); }
void Other(void* /*pCookie*/) {}

class Timer : public ObjectTest {
 protected:
    void SetUp() override { gSent.clear(); }
    static BooleanT Set(int32* plCookie, int32 lSeconds, int32 lMilliSeconds = 0,
                        TimerCallbackFnT fnCallback = Callback) {
        ObjHolder<TimeTimeoutS> oTimeout;
        TimeCreateTimeout(oTimeout.Address());
        oTimeout.Get()->lSeconds = lSeconds;
        oTimeout.Get()->lMilliSeconds = lMilliSeconds;
        return TimrSetAlarm(fnCallback, plCookie, oTimeout.Get());
    }
    static constexpr int32 Never = -1;
};

}  // namespace

BooleanT WrapSend(MsgTypeT tMsgType, void* oObject) __asm__("__wrap__Z19MsgSendObjectToSelfiPv");
BooleanT WrapSend(MsgTypeT tMsgType, void* oObject) {
    if (gRefused > 0) {
        gRefused--;
        return FALSE;
    }
    EXPECT_EQ(tMsgType, 41001);
    EXPECT_EQ(ObjCheckTypeInternal(oObject, TimerCallbackMagic), TRUE);
    auto* oCallback = static_cast<TimerCallbackO>(oObject);
    oCallback->pfnCallback(oCallback->pCookie);
    return TRUE;
}

TEST_F(Timer, ThousandFireInTheirOrder) {
    constexpr int32 Count = 1000;
    constexpr int32 Due = 700;  // the rest lies in the future
    std::vector<int32> cookies(Count), order;
    std::iota(cookies.begin(), cookies.end(), 0);
    order = cookies;
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    for (const int32 l : order) {
        // Four of each second, told apart by milliseconds.
        const int32 lSeconds = l < Due ? kNow - 1000 + l / 4 : kNow + 1000 + l / 4;
        ASSERT_EQ(Set(&cookies[static_cast<std::size_t>(l)], lSeconds, l % 4 * 250), TRUE);
    }
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow - 1000);
    EXPECT_EQ(TimrClearTimers(), TRUE);
    EXPECT_EQ(gSent, std::vector<int32>(cookies.begin(), cookies.begin() + Due));
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow + 1000 + Due / 4);
    EXPECT_EQ(TimrClearTimers(), TRUE);
    EXPECT_EQ(gSent.size(), static_cast<std::size_t>(Due));
    for (int32 l = Due; l < Count; l++)
        EXPECT_EQ(TimrResetAlarm(Callback, &cookies[static_cast<std::size_t>(l)]), TRUE);
    EXPECT_EQ(TimeTimeoutIsNever(TimrNextEvent()), TRUE);
}

TEST_F(Timer, EqualTimesAtOnceAndNever) {
    int32 alCookies[] = {0, 1, 2, 3, 4, 5, 6};
    Set(&alCookies[0], Never, Never);
    EXPECT_EQ(TimeTimeoutIsNever(TimrNextEvent()), TRUE);
    Set(&alCookies[1], kNow - 5);
    Set(&alCookies[2], kNow - 5);
    Set(&alCookies[3], Never, Never);
    Set(&alCookies[4], 0);  // at once
    Set(&alCookies[5], kNow - 5);
    Set(&alCookies[6], kNow + 1000);
    EXPECT_EQ(TimrClearTimers(), TRUE);
    ASSERT_EQ(gSent.size(), 4U);
    std::sort(gSent.begin() + 1, gSent.end());
    EXPECT_EQ(gSent, (std::vector<int32>{4, 1, 2, 5}));
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow + 1000);
    TraceCapture trace;
    EXPECT_EQ(TimrResetAlarm(Callback, &alCookies[6]), TRUE);
    EXPECT_EQ(TimrResetAlarm(Callback, &alCookies[0]), TRUE);
    EXPECT_EQ(TimrResetAlarm(Callback, &alCookies[3]), TRUE);
    EXPECT_EQ(TimrResetAlarm(Callback, &alCookies[3]), FALSE);
    EXPECT_EQ(trace.Count("TIMER", 2), 4);
}

TEST_F(Timer, ResetTakesOneOfSeveral) {
    int32 lCookie = 7;
    Set(&lCookie, kNow + 2000);
    Set(&lCookie, kNow + 1000);
    Set(&lCookie, kNow + 1500, 0, Other);
    EXPECT_EQ(TimrResetAlarm(Other, nullptr), FALSE);
    EXPECT_EQ(TimrResetAlarm(Callback, &lCookie), TRUE);
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow + 1000);
    EXPECT_EQ(TimrResetAlarm(Callback, &lCookie), TRUE);
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow + 1500);
    EXPECT_EQ(TimrResetAlarm(Callback, &lCookie), FALSE);
    EXPECT_EQ(TimrResetAlarm(Other, &lCookie), TRUE);
}

TEST_F(Timer, WhatCannotBeSentStays) {
    int32 alCookies[] = {1, 2, 3};
    for (int32& lCookie : alCookies) Set(&lCookie, kNow - 10 + lCookie);
    gRefused = 1;
    EXPECT_EQ(TimrClearTimers(), FALSE);
    EXPECT_TRUE(gSent.empty());
    EXPECT_EQ(TimrClearTimers(), TRUE);
    EXPECT_EQ(gSent, (std::vector<int32>{1, 2, 3}));
}

TEST_F(Timer, RelativeAndWrongArguments) {
    int32 lCookie = 1;
    ObjHolder<TimeOffsetS> oOffset;
    ASSERT_EQ(TimeCreateOffset(oOffset.Address(), 60, 5), TRUE);
    EXPECT_EQ(TimrSetAlarmRelative(Callback, &lCookie, oOffset.Get()), TRUE);
    const int32 lLeft = TimeTimeoutLeft(TimrNextEvent());
    EXPECT_GT(lLeft, 50000);
    EXPECT_LE(lLeft, 60005);
    EXPECT_EQ(TimrSetAlarmRelative(Callback, &lCookie, nullptr), FALSE);
    EXPECT_EQ(TimrSetAlarm(Callback, &lCookie, reinterpret_cast<TimeTimeoutO>(oOffset.Get())),
              FALSE);
    EXPECT_EQ(TimrResetAlarm(Callback, &lCookie), TRUE);
    EXPECT_EQ(TimrResetAlarm(Callback, &lCookie), FALSE);
}
