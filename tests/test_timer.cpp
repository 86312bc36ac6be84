// Alarms with a stand-in for the sending of messages (test_timer.options).
#include <ctime>
#include <numeric>

#include "core/msgbase.h"
#include "core/timer.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

std::vector<int32> gSent;  // cookies of the messages
bool gRefused = false;     // the next message cannot be sent
const int32 kNow = static_cast<int32>(std::time(nullptr));
int32 gCookies[1000];

void Callback(void* pCookie) { gSent.push_back(*static_cast<int32*>(pCookie)); }
void Other(void* /*pCookie*/) {}

void Set(int32 lCookie, int32 lSeconds, int32 lMilliSeconds = 0,
         TimerCallbackFnT fnCallback = Callback) {
    const ObjHolder<TimeTimeoutS> oTimeout(ObjNew<TimeTimeoutS>(TimeTimeoutMagic, "i;i;"));
    oTimeout.Get()->lSeconds = lSeconds;
    oTimeout.Get()->lMilliSeconds = lMilliSeconds;
    EXPECT_EQ(TimrSetAlarm(fnCallback, &gCookies[lCookie], oTimeout.Get()), TRUE);
}
BooleanT Reset(int32 lCookie, TimerCallbackFnT fnCallback = Callback) {
    return TimrResetAlarm(fnCallback, &gCookies[lCookie]);
}

class Timer : public ObjectTest {
 protected:
    void SetUp() override {
        gSent.clear();
        std::iota(std::begin(gCookies), std::end(gCookies), 0);
    }
};

}  // namespace

BooleanT WrapSend(MsgTypeT tMsgType, void* oObject) __asm__("__wrap__Z19MsgSendObjectToSelfiPv");
BooleanT WrapSend(MsgTypeT tMsgType, void* oObject) {
    EXPECT_EQ(tMsgType, 41001);
    EXPECT_EQ(ObjCheckTypeInternal(oObject, TimerCallbackMagic), TRUE);
    if (std::exchange(gRefused, false)) return FALSE;
    auto* oCallback = static_cast<TimerCallbackO>(oObject);
    oCallback->pfnCallback(oCallback->pCookie);
    return TRUE;
}

TEST_F(Timer, ThousandFireInTheirOrder) {
    constexpr int32 Due = 700;  // the rest lies in the future
    std::vector<int32> order(gCookies, gCookies + 1000);
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    // Four in each second, told apart by milliseconds.
    for (const int32 l : order) Set(l, kNow + (l < Due ? -1000 : 1000) + l / 4, l % 4 * 250);
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow - 1000);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(TimrClearTimers(), TRUE);
        EXPECT_EQ(gSent, std::vector<int32>(gCookies, gCookies + Due));
        EXPECT_EQ(TimrNextEvent()->lSeconds, kNow + 1000 + Due / 4);
    }
    for (int32 l = Due; l < 1000; l++) EXPECT_EQ(Reset(l), TRUE);
    EXPECT_EQ(TimeTimeoutIsNever(TimrNextEvent()), TRUE);
}

TEST_F(Timer, EqualTimesAtOnceAndNever) {
    for (const int32 l : {0, 3}) Set(l, -1, -1);  // never
    EXPECT_EQ(TimeTimeoutIsNever(TimrNextEvent()), TRUE);
    for (const int32 l : {1, 2, 5}) Set(l, kNow - 5);
    Set(4, 0);  // at once
    Set(6, kNow + 1000);
    EXPECT_EQ(TimrClearTimers(), TRUE);
    ASSERT_EQ(gSent.size(), 4U);
    std::sort(gSent.begin() + 1, gSent.end());
    EXPECT_EQ(gSent, (std::vector<int32>{4, 1, 2, 5}));
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow + 1000);
    for (const int32 l : {6, 0, 3}) EXPECT_EQ(Reset(l), TRUE);
    // Of several that are alike the next one is reset.
    for (const int32 l : {2000, 1000}) Set(7, kNow + l);
    Set(7, kNow + 1500, 0, Other);
    EXPECT_EQ(Reset(7), TRUE);
    EXPECT_EQ(TimrNextEvent()->lSeconds, kNow + 1000);
    EXPECT_EQ(Reset(7), TRUE);
    EXPECT_EQ(Reset(7), FALSE);
    EXPECT_EQ(Reset(7, Other), TRUE);
}

TEST_F(Timer, RefusedMessagesAndWrongArguments) {
    for (const int32 l : {1, 2, 3}) Set(l, kNow - 10 + l);
    gRefused = true;
    EXPECT_EQ(TimrClearTimers(), FALSE);
    EXPECT_TRUE(gSent.empty());
    EXPECT_EQ(TimrClearTimers(), TRUE);
    EXPECT_EQ(gSent, (std::vector<int32>{1, 2, 3}));
    ObjHolder<TimeOffsetS> oOffset;
    ASSERT_EQ(TimeCreateOffset(oOffset.Address(), 60, 5), TRUE);
    EXPECT_EQ(TimrSetAlarmRelative(Callback, gCookies, oOffset.Get()), TRUE);
    EXPECT_NEAR(TimeTimeoutLeft(TimrNextEvent()), 55000, 5005);
    EXPECT_EQ(Reset(0), TRUE);
    EXPECT_EQ(TimrSetAlarmRelative(Callback, gCookies, nullptr), FALSE);
    EXPECT_EQ(TimrSetAlarm(Callback, gCookies, reinterpret_cast<TimeTimeoutO>(oOffset.Get())),
              FALSE);
}
