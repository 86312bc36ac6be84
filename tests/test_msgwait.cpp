// Waits, driven by packets in the receive list and by channels over pairs of sockets, whose other
// ends are spoken byte by byte. Message types of the tests are letters.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <map>

#include "core/context.h"
#include "core/list.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/process.h"
#include "core/timer.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/link.h"
#include "support/objects.h"

using Text = std::string;
using Action = std::function<MsgWaitResultE(MsgMessageO)>;

namespace {

constexpr MsgTypeT T(char letter) { return 900000 + letter; }

std::map<char, Action> g_actions;  // of handlers, by name
std::map<char, ObjIntegerO> g_cookies;
Text g_calls;  // names of the handlers called

MsgWaitResultE Handler(MsgMessageO oMessage, void* oCookie) {
    const auto name = static_cast<char>(static_cast<ObjIntegerO>(oCookie)->lValue);
    g_calls += name;
    const Action action = g_actions[name];
    return action ? action(oMessage) : eMsgWaitResultNotHandled;
}
void* Cookie(char name) {
    if (g_cookies[name] == nullptr) ObjIntegerCreate(&g_cookies[name], name);
    return g_cookies[name];
}
void Add(char name, MsgTypeT tType, Action action = nullptr) {
    g_actions[name] = std::move(action);
    EXPECT_EQ(MsgWaitAddHandler(tType, Handler, Cookie(name)), TRUE);
}
void Remove(char name, char type) {
    EXPECT_EQ(MsgWaitRemoveHandler(T(type), Handler, Cookie(name)), TRUE);
}
int32 Handlers() { return gtTlContext.sMsgWait.oHandlers->lItemCount; }
ListO Received() { return gtTlContext.sMsg.oReceiveList; }

void Push(MsgTypeT tType, MsgAddressO oFrom = MsgLocalAddress(), void* oBody = nullptr) {
    ObjHolder<MsgPacketS> packet;
    EXPECT_EQ(MsgCreatePacket(packet.Address(), MsgLocalAddress(), oFrom, tType, oBody), TRUE);
    EXPECT_EQ(MsgReceivePushPacket(packet.Get()), TRUE);
}
void Push(const Text& letters) {
    for (const char c : letters) Push(T(c));
}

// What lies in the receive list: letters, and "?" for anything else.
Text Waiting() {
    Text text;
    for (ListNodeO oNode = Received()->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        const MsgTypeT tType = MsgPacketMsgType(static_cast<MsgPacketO>(oNode->oData)) - T('\0');
        text += tType > 0 && tType < 128 ? static_cast<char>(tType) : '?';
    }
    return text;
}
// The handlers called, and what is left; begins anew.
Text Seen() {
    const Text text = std::exchange(g_calls, {}) + " " + Waiting();
    ListReleaseAll(Received());
    return text;
}

constexpr int Long = 20000;  // enough for all that should come

BooleanT WaitFor(char letter, MsgAddressO oFrom = nullptr, int milliseconds = Long) {
    return MsgWaitMessageWithTimeout(nullptr, oFrom, T(letter), TimeoutIn(milliseconds).Get());
}

struct Peer : Link {
    explicit Peer(const char* process)
        : Link(eMsgChannelNonBlocking, eMsgChannelDoNotWaitForOk, false, process) {}
    ~Peer() {
        close(std::exchange(raw, -1));
        while (!Down()) MsgWaitPollWithTimeout(TimeoutIn(20).Get());
    }
    MsgAddressO operator()() const { return address; }
    void Send(MsgTypeT tType, const Text& body = Text(1, '\0')) const { Say(Frame(tType, body)); }
    void Close() const {
        MsgAddressO oHeld = address;
        ObjIncRefCount(oHeld);
        MsgChannelClose(&oHeld);
    }
};

class MsgWaits : public testing::Test {
 protected:
    void SetUp() override {
        gtTlContext.sMsg.bInitialized = TRUE;
        mkdir((TestHome() + "/etc").c_str(), 0700);
        WriteFile(TestHome() + "/etc/machines.dat", "[beta]\nId=7\n");
    }
    void TearDown() override {
        for (auto& [name, oCookie] : g_cookies) {
            MsgWaitRemoveHandlerByCookie(oCookie);
            ObjRelease(&oCookie);
        }
        EXPECT_EQ(Handlers() + MsgWaitDepth(), 0);
        g_cookies.clear();
        Seen();
        gtTlContext.sMsgWait.bDisableDefaultHandlers = FALSE;
        gtTlContext.sMsgWait.bKeepUnhandledMessages = FALSE;
        EXPECT_EQ(m_before.Text(), "");
    }
    // That a process has died, its machine is down, or the channel is, or that the end is near.
    void Notice(MsgTypeT tType, MsgAddressO oAbout) const {
        ObjIncRefCount(oAbout);
        const New<PmgrProcessDiedS> died(PmgrProcessDiedMagic, "o;", {oAbout});
        const New<CmgrMachineDownS> down(CmgrMachineDownMagic, "s;",
                                         {StrDuplicate(MsgGetMachineName(oAbout))});
        const bool isDown = tType == CMGR_MACHINE_DOWN_MSG;
        Push(tType, MsgIsAChannel(oAbout) == TRUE ? oAbout : other,
             isDown ? static_cast<void*>(down.Get()) : died.Get());
    }
    const Address m_beta{At("beta:9")}, m_peer{At(".:9")}, m_other{At(".:8")};
    const MsgAddressO beta = m_beta.Get(), peer = m_peer.Get(), other = m_other.Get();
    const Leftovers m_before;
};

}  // namespace

TEST_F(MsgWaits, HandlersChangeWhileTheyRun) {
    for (const char name : {'a', 'b', 'c'}) Add(name, T('M'));
    g_actions['c'] = [](MsgMessageO) {
        Remove('c', 'M');
        Remove('a', 'M');
        EXPECT_EQ(MsgWaitRemoveHandler(T('M'), Handler, Cookie('a')), FALSE);  // only once
        Add('d', T('M'));
        EXPECT_EQ(Handlers() * 10 + MsgWaitDepth(), 41);
        return eMsgWaitResultNotHandled;
    };
    Push("MX");
    EXPECT_EQ(WaitFor('X'), TRUE);
    EXPECT_EQ(Seen() + std::to_string(Handlers()), "cb 2");
    EXPECT_EQ(Holders(Cookie('c')), 1);
    // Only two results let the wait go on.
    for (int32 lResult = -1; lResult <= 10; lResult++) {
        if (lResult == eMsgWaitResultExit) continue;  // ends the process
        const bool goesOn = lResult == 0 || lResult == 1;
        g_actions['d'] = [&](MsgMessageO) { return static_cast<MsgWaitResultE>(lResult); };
        Push("MX");
        EXPECT_EQ(WaitFor('X') == TRUE, goesOn) << lResult;
        EXPECT_EQ(Seen(), lResult == 0 ? "d " : goesOn ? "db " : "d X");
    }
    // What a poll leaves marked, the next wait takes off.
    g_actions['d'] = [](MsgMessageO) {
        MsgWaitAddHandler(T('N'), nullptr, Cookie('d'));
        EXPECT_EQ(MsgWaitRemoveHandlerByCookie(Cookie('d')), TRUE);
        return eMsgWaitResultHandled;
    };
    Push("MM");
    EXPECT_EQ(MsgWaitPoll(), TRUE);
    EXPECT_EQ(Seen() + std::to_string(Handlers()), "db 3");
    Push("MX");
    EXPECT_EQ(WaitFor('X'), TRUE);
    EXPECT_EQ(Handlers(), 1);
    int32 alJunk[32] = {};
    EXPECT_EQ(MsgWaitAddHandler(T('M'), Handler, &alJunk[16]), FALSE);
    EXPECT_EQ(MsgWaitRemoveHandlerByCookie(&alJunk[16]), FALSE);
    EXPECT_STREQ(MsgWaitResultString(eMsgWaitResultDecodeError), "eMsgWaitResultDecodeError");
}

TEST_F(MsgWaits, InnerWaitsGiveBackWhatNobodyHandles) {
    Add('n', T('N'), [&](MsgMessageO) {
        EXPECT_EQ(WaitFor('Z'), TRUE);
        EXPECT_EQ(Waiting(), "ABCX");
        EXPECT_EQ(WaitFor('Q', nullptr, 30), FALSE);
        EXPECT_EQ(Waiting(), "ABCX");
        int rounds = 0;
        const auto callback = [](MsgWaitResultE* peResult, void* pRounds) {
            *peResult = eMsgWaitResultPeerDied;
            return BooleanFrom(++*static_cast<int*>(pRounds) == 4);
        };
        EXPECT_EQ(MsgWaitOnCallbackWithTimeout(callback, &rounds, nullptr), eMsgWaitResultPeerDied);
        EXPECT_EQ(Waiting(), "ABCX");
        // A wait within a wait within a wait, ended by a handler.
        Add('b', T('B'), [](MsgMessageO) {
            EXPECT_EQ(MsgWaitDepth(), 2);
            EXPECT_EQ(WaitFor('C'), TRUE);
            Remove('b', 'B');
            Remove('n', 'N');
            return eMsgWaitResultError;
        });
        EXPECT_EQ(WaitFor('Q'), FALSE);
        EXPECT_EQ(Waiting() + std::to_string(Handlers()), "AX2");
        return eMsgWaitResultHandled;
    });
    Push("NABZCX");
    EXPECT_EQ(WaitFor('X'), TRUE);
    EXPECT_EQ(Seen() + std::to_string(Handlers()), "nb 0");
}

TEST_F(MsgWaits, KeptPacketsComeBackAsTheyCame) {
    MsgWaitKeepUnhandledMessages();
    MsgWaitDisableDefaultHandlers();
    const auto call = [](void* pCalled) { *static_cast<bool*>(pCalled) = true; };
    bool called = false;
    TimrSetAlarmRelative(call, &called, New<TimeOffsetS>(TimeOffsetMagic, "i;i;").Get());
    MsgWait(TimeoutIn(1000).Get());  // the alarm's packet, which holds pointers
    Push("A");
    auto* oNameless =
        static_cast<MsgPacketO>(Received()->oLast->oData);  // from a machine that has no name here
    MsgPacketHeader(oNameless)->tSource.tMachineId = 99;
    Push("BXC");
    EXPECT_EQ(WaitFor('X'), TRUE);
    EXPECT_EQ(Waiting(), "?ABC");
    EXPECT_EQ(Received()->oFirst->oNext->oData, oNameless);
    EXPECT_FALSE(called);
    gtTlContext.sMsgWait.bDisableDefaultHandlers = FALSE;
    MsgWaitPoll();
    EXPECT_TRUE(called);
    // In a child: blocks that could not be had are counted.
    const RunResult result = InChild([&] {
        const IgnoreCrash noStop;
        int failures = 0;
        for (int n = 0; n < 32; n++) {
            Push("ABC");
            const TimeoutIn timeout(10);
            const int32 objects = ObjCount();
            FaultArm({.call = Call::Malloc, .nth = n / 2 + 1, .times = n % 2 ? 1 : FaultForEver});
            const int eResult = MsgWaitExclusiveWithTimeout(nullptr, peer, T('X'), timeout.Get());
            FaultDisarm();
            failures += eResult == eMsgWaitResultError;
            if (ObjCount() != objects || Seen() != " ABC") return -1;
        }
        return failures;
    });
    EXPECT_GE(result.exitCode, 8);
    EXPECT_LE(result.exitCode, 32);
}

TEST_F(MsgWaits, TypesSourcesAndTheirEnds) {
    const Peer first("beta:9"), second(".:9");
    const Address loud(At("BETA:1"));
    const MsgAddressO aoSources[] = {beta, first(), second(), peer, nullptr};
    const struct {
        MsgTypeT tNotice;
        MsgAddressO oAbout;
        const char*
            ends;  // for each source, whether a wait is ended; of an exclusive one the result
        const char* exclusive;
    } rows[] = {{PMGR_PROCESS_DIED_MSG, beta, "11000", "88aa8"},
                {PMGR_PROCESS_DIED_MSG, peer, "00110", "88558"},
                {PMGR_PROCESS_DIED_MSG, other, "00000", "88aa8"},
                {CMGR_MACHINE_DOWN_MSG, loud.Get(), "11000", "88aa8"},
                {CMGR_MACHINE_DOWN_MSG, other, "00110", "88aa8"},
                {MSG_CHANNEL_DOWN_MSG, first(), "11000", "88aa8"},
                {MSG_CHANNEL_DOWN_MSG, second(), "00110", "88778"},
                {PMGR_KILL_YOURSELF_MSG, other, "", "88448"},
                {MSG_LOST_RECEIVE_QUEUE_MSG, other, "", "88668"},
                {MSG_FATAL_SELECT_ERROR_MSG, other, "", "88668"}};
    Add('y', T('Y'));
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < std::size(aoSources); i++) {
            SCOPED_TRACE(std::to_string(row.tNotice) + " " + std::to_string(i));
            const MsgAddressO oSource = aoSources[i], oFrom = i == 4 ? beta : oSource;
            const auto push = [&] {
                Push(T('Y'), other);  // from another source an ordinary message
                Notice(row.tNotice, row.oAbout);
                for (const char c : {'X', 'Y'}) Push(T(c), oFrom);
            };
            Message message, exclusive;
            const TimeoutIn timeout(Long);
            if (*row.ends != '\0') {
                const MsgTypeT atTypes[] = {T('Y'), T('X'), -1};
                const bool ends = row.ends[i] == '1';
                push();
                MsgWaitMultipleMessagesWithTimeout(message.Address(), oSource, atTypes,
                                                   timeout.Get());
                EXPECT_EQ(MsgType(message.Get()), ends ? 0 : i == 4 ? T('Y') : T('X'));
                EXPECT_EQ(Seen(), ends ? "y XY" : i == 4 ? " ?XY" : "y Y");
            }
            const int result = std::stoi(Text(1, row.exclusive[i]), nullptr, 16);
            push();
            EXPECT_EQ(
                MsgWaitExclusiveWithTimeout(exclusive.Address(), oSource, T('X'), timeout.Get()),
                result);
            EXPECT_EQ(MsgType(exclusive.Get()), result == eMsgWaitResultSuccess ? T('X') : 0);
            EXPECT_EQ(Seen(), result == 10 ? " Y?Y" : result == 8 ? " Y?XY" : " YXY");
        }
    }
    Push(T('X'), peer);
    MsgPacketHeader(static_cast<MsgPacketO>(Received()->oLast->oData))->lLength++;
    Message message;
    EXPECT_EQ(MsgWaitExclusiveWithTimeout(message.Address(), peer, T('X'), nullptr),
              eMsgWaitResultDecodeError);
    // What the peer sent before it closed is received, then the wait ends at once.
    Add('c', MSG_CHANNEL_DOWN_MSG, [&](MsgMessageO oMessage) {
        (MsgIsFrom(oMessage, beta) == TRUE ? first : second).Close();
        return eMsgWaitResultHandled;
    });
    const TimeoutIn never(60000);
    for (const MsgAddressO oSource : {beta, second()}) {
        const Peer& closing = oSource == beta ? first : second;
        closing.Send(T('A'));
        shutdown(closing.raw, SHUT_RDWR);
        EXPECT_EQ(MsgWaitMessageWithTimeout(nullptr, oSource, T('A'), never.Get()), TRUE);
        EXPECT_EQ(MsgWaitMessageWithTimeout(nullptr, oSource, T('B'), never.Get()), FALSE);
    }
    EXPECT_GT(TimeTimeoutLeft(never.Get()), 30000);
}

TEST_F(MsgWaits, CallbacksFiltersTimersAndTheTimeout) {
    const auto never = [](MsgWaitResultE*, void*) { return FALSE; };
    EXPECT_EQ(MsgWaitOnCallbackWithTimeout(nullptr, nullptr, nullptr),
              eMsgWaitResultInvalidArgument);
    Add('m', T('M'), [](MsgMessageO) { return eMsgWaitResultChannelError; });
    Push("AMB");
    EXPECT_EQ(MsgWaitOnCallbackWithTimeout(never, nullptr, nullptr), eMsgWaitResultChannelError);
    EXPECT_EQ(Seen(), "m B");
    // Alarms that bring messages do not lengthen a wait.
    const New<TimeOffsetS> soon(TimeOffsetMagic, "i;i;", {0, 30});
    const TimeoutIn limit(60000);
    TimrSetAlarmRelative([](void*) { Push("A"); }, nullptr, soon.Get());
    EXPECT_EQ(WaitFor('X', nullptr, 200), FALSE);
    EXPECT_EQ(MsgWaitOnCallbackWithTimeout(never, nullptr, TimeoutIn(200).Get()),
              eMsgWaitResultTimeout);
    EXPECT_LT(TimeTimeoutLeft(limit.Get()), 59620);
    EXPECT_GT(TimeTimeoutLeft(limit.Get()), 45000);
    // A routine that waits itself leaves the message that the outer wait is for.
    const auto waits = [](void*) {
        Push("AXZ");
        EXPECT_EQ(WaitFor('Z'), TRUE);
        EXPECT_EQ(Waiting(), "AX");
    };
    TimrSetAlarmRelative(waits, nullptr, soon.Get());
    EXPECT_EQ(WaitFor('X'), TRUE);
    // The filter comes first; its exit ends only the poll.
    Add('h', T('H'));
    Push("HFHEH");
    const auto filter = [](MsgMessageO oMessage, void* oCookie) {
        EXPECT_EQ(oCookie, Cookie('h'));
        g_calls += static_cast<char>(MsgType(oMessage) - T('\0'));
        if (g_calls.back() == 'E') return eMsgWaitResultExit;
        return g_calls.back() == 'F' ? eMsgWaitResultHandled : eMsgWaitResultNotHandled;
    };
    EXPECT_EQ(MsgWaitPollWithTimeoutAndFilter(nullptr, filter, Cookie('h')), FALSE);
    EXPECT_EQ(Seen(), "HhFHhE H");
}

// Over a real channel, then the same with the default handlers disabled.
TEST_F(MsgWaits, PingsAreAnswered) {
    EXPECT_EQ(MsgWaitDefaultHandlers(nullptr), eMsgWaitResultInvalidArgument);
    const Peer pinging(".:9");
    for (const Text& answer : {bytes::Long(MSG_PONG_MSG), Text()}) {
        pinging.Send(MSG_PING_MSG, bytes::Object(0xc9fed45e, "i;i;", Text(8, '5')));
        pinging.Send(T('X'));
        EXPECT_EQ(WaitFor('X'), TRUE);
        const Text pong = pinging.Hear(0);
        EXPECT_EQ(pong.size() > 8 ? pong.substr(4, 4) : Text(), answer);
        MsgWaitDisableDefaultHandlers();
    }
}

// What the others do: the result, and a line that they trace.
TEST_F(MsgWaits, TheOtherDefaultHandlers) {
    const New<ObjIntegerS> number(ObjIntegerMagic, "i;", {1});
    const New<CmgrMachineDownS> down(CmgrMachineDownMagic, "s;", {StrDuplicate("beta")});
    const New<MsgUnknownS> unknown(MsgUnknownMagic, "s;i;o;", {StrDuplicate("why"), 77, nullptr});
    const char* reply = "b;i;o;i;b;i;o;";
    const New<PmgrGiveServiceATaskReturnS> good(PmgrGiveServiceATaskReturnMagic, reply),
        bad(PmgrGiveServiceATaskReturnMagic, reply);
    good->bSuccess = TRUE;
    bad->lErrorCode = 9;
    const New<PmgrTaskS> task(PmgrTaskMagic, "o;i;o;i;", {nullptr, 2, nullptr, 0});
    const MsgWaitResultE yes = eMsgWaitResultHandled, no = eMsgWaitResultNotHandled;
    const struct {
        MsgTypeT type;
        void* body;
        MsgWaitResultE result;
        const char* line;
    } cases[] = {
        {CMGR_MACHINE_DOWN_MSG, down.Get(), yes, "Machine down: beta"},
        {MSG_UNKNOWN_MSG, unknown.Get(), yes, "Message of type 77 was unexpected by client"},
        {MSG_UNKNOWN_MSG, unknown.Get(), yes, "Reason given: why"},
        {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, good.Get(), yes, "Started process OK"},
        {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, bad.Get(), no, "Process failed to start (error 9)"},
        {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, number.Get(), no, "Invalid task reply message"},
        {PMGR_TASK_MSG, number.Get(), no, "No valid task object"},
        {PMGR_TASK_MSG, task.Get(), no, "Message 'PMGR_TASK_MSG' not handled a depth 0"},
        {MSG_CONNECTED_MSG, nullptr, yes, "Point-to-point connection was completed"},
        {TIMER_CALLBACK_MSG, number.Get(), yes, "Invalid timer message!"},
        {12345, nullptr, no, "Message 'Unknown message type 12345' not handled a depth 0"},
    };
    TraceCapture trace;
    for (const auto& c : cases) {
        trace.Clear();
        ObjHolder<MsgMessageS> message;
        ASSERT_EQ(MsgCreateMessage(message.Address(), MsgLocalAddress(), c.type, c.body), TRUE);
        EXPECT_EQ(MsgWaitDefaultHandlers(message.Get()), c.result) << c.line;
        EXPECT_EQ(trace.CountText(c.line), 1) << c.line;
    }
}

TEST_F(MsgWaits, TraceToAFile) {
    EXPECT_EQ(InChild([] {
                  const ObjHolder<ObjStringS> name(ObjStringNew("asked.log"));
                  Push(TRACE_TO_FILE_MSG, MsgLocalAddress(), name.Get());
                  if (MsgWaitPoll() != TRUE || TraceTracingToFile() != TRUE) return 1;
                  Push(TRACE_TO_FILE_MSG);
                  if (MsgWaitPoll() != TRUE || TraceTracingToFile() != FALSE) return 2;
                  return Exists(TestHome() + "/trace/asked.log") ? 0 : 3;
              }).exitCode,
              0);
}

// The peer sends back the request for a data channel, so that this process is at both its ends.
TEST_F(MsgWaits, TaskAndConnectOpenADataChannel) {
    static std::vector<MsgAddressO> channels;
    const Peer echo(".:9");
    ObjIncRefCount(echo());
    const New<PmgrTaskExtS> task(PmgrTaskExtMagic, "o;i;o;i;o;o;",
                                 {echo(), 1, ObjIntegerNew(55), 0, nullptr, nullptr});
    Add('c', MSG_CONNECTED_MSG, [](MsgMessageO oMessage) {
        auto* oConnected = static_cast<MsgConnectedO>(oMessage->oObject);
        if (auto* oCookie = static_cast<ObjIntegerO>(oConnected->oCookie))
            g_calls += std::to_string(oCookie->lValue);
        ObjIncRefCount(channels.emplace_back(oConnected->oAddress));
        return eMsgWaitResultNotHandled;
    });
    Push(PMGR_TASK_MSG, MsgProcMgrAddress(), task.Get());
    const auto callback = [](MsgWaitResultE*, void* pPeer) {
        const auto& self = *static_cast<const Peer*>(pPeer);
        if (const Text request = self.Hear(0); !request.empty()) self.Say(request);
        return BooleanFrom(channels.size() == 2);
    };
    EXPECT_EQ(
        MsgWaitOnCallbackWithTimeout(callback, const_cast<Peer*>(&echo), TimeoutIn(Long).Get()),
        eMsgWaitResultSuccess);
    ASSERT_EQ(channels.size(), 2U);
    EXPECT_NE(Seen().find("55"), Text::npos);  // the task's arguments
    EXPECT_EQ(MsgSendObject(channels[0], T('X'), nullptr), TRUE);
    EXPECT_EQ(WaitFor('X', channels[1]), TRUE);
    MsgChannelClose(&channels[0]);
    EXPECT_EQ(WaitFor('Y', channels[1]), FALSE);  // ended by the closing
    MsgChannelClose(&channels[1]);
    while (gtTlContext.sMsg.oLingerList->lItemCount > 0)
        MsgWaitPollWithTimeout(TimeoutIn(20).Get());
}

TEST_F(MsgWaits, RequestAndReply) {
    const Peer answers(".:9");
    const Text five = bytes::Integer(5), none(1, '\0'), silence;
    const std::tuple<Text, int32, BooleanT, int32> rows[] = {
        {five, ObjIntegerMagic, TRUE, 5},  {five, 0, TRUE, 5}, {five, ObjStringMagic, FALSE, 0},
        {none, ObjIntegerMagic, FALSE, 0}, {none, 0, TRUE, 0}, {silence, 0, FALSE, 0}};
    const New<ObjIntegerS> number(ObjIntegerMagic, "i;", {7}), wrong(ObjIntegerMagic, "i;", {8});
    for (const auto& [sent, lMagic, bResult, lReply] : rows) {
        Push(T('R'), beta, wrong.Get());  // not from whom it is expected
        if (sent != silence) answers.Send(T('R'), sent);
        ObjHolder<ObjIntegerS> reply;
        EXPECT_EQ(MsgWaitInterchangeTimeout(reply.Address(), answers(), T('Q'), number.Get(),
                                            T('R'), lMagic, sent == silence ? 1 : 60),
                  bResult);
        EXPECT_EQ(reply.Get() == nullptr ? 0 : reply.Get()->lValue, lReply);
        EXPECT_EQ(answers.Hear(1).substr(4), bytes::Long(T('Q')) + bytes::Integer(7));
    }
    EXPECT_EQ(MsgWaitInterchangeInternal(nullptr, nullptr, T('Q'), nullptr, T('R'), 0), FALSE);
    shutdown(answers.raw, SHUT_WR);  // takes the request, never answers
    EXPECT_EQ(MsgWaitInterchangeInternal(nullptr, answers(), T('Q'), nullptr, T('R'), 0), FALSE);
}

TEST_F(MsgWaits, WhatEndsTheProcess) {
    const MsgTypeT atTypes[] = {0,      3,     MSG_FATAL_SELECT_ERROR_MSG, PMGR_KILL_YOURSELF_MSG,
                                T('E'), T('X')};
    for (const MsgTypeT tType : atTypes) {
        const RunResult result = InChild([&] {
            // It must not end as the parent does, whose files are still needed.
            std::atexit([] { std::fflush(stdout), _exit(42); });
            ProcAddCleanupRoutine([](void*, int32 l) { std::printf("%d", l); }, nullptr);
            Add('e', T('E'), [](MsgMessageO) { return eMsgWaitResultExit; });
            Push("A");
            Push(tType);
            WaitFor('X');
            return 77;
        });
        EXPECT_EQ(result.output + std::to_string(result.exitCode), tType == T('X') ? "77" : "042");
    }
}
