// Waits, driven by packets in the receive list and by channels over pairs of sockets, whose other
// ends are spoken byte by byte. Message types of the tests are letters.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <map>

#include "core/context.h"
#include "core/list.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/process.h"
#include "core/sys.h"
#include "core/timer.h"
#include "support/archivebytes.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/objects.h"

using Text = std::string;
using Address = ObjHolder<MsgAddressS>;
using Message = ObjHolder<MsgMessageS>;
using Object = ObjHolder<void>;
using Action = std::function<MsgWaitResultE(MsgMessageO)>;

namespace {

constexpr MsgTypeT T(char letter) { return 900000 + letter; }

std::map<char, Action> g_actions;  // of handlers, by name
std::map<char, ObjIntegerO> g_cookies;
Text g_calls;  // names of the handlers called

MsgWaitResultE Handler(MsgMessageO oMessage, void* oCookie) {
    const char name = static_cast<char>(ObjGetInteger(static_cast<ObjIntegerO>(oCookie)));
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

MsgAddressO At(const char* machine, ProcIdT tId) {
    MsgAddressO oAddress = nullptr;
    EXPECT_EQ(MsgMakeAddress(&oAddress, machine, tId), TRUE);
    return oAddress;
}

ListO& Received() { return gtTlContext.sMsg.oReceiveList; }
MsgPacketO Newest() { return static_cast<MsgPacketO>(Received()->oLast->oData); }

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

struct Within : ObjHolder<TimeTimeoutS> {
    explicit Within(int milliseconds) {
        TimeCreateAndSetTimeout(Address(), milliseconds / 1000, milliseconds % 1000);
    }
};
constexpr int Long = 20000;  // enough for all that should come

BooleanT WaitFor(char letter, MsgAddressO oFrom = nullptr, int milliseconds = Long) {
    return MsgWaitMessageWithTimeout(nullptr, oFrom, T(letter), Within(milliseconds).Get());
}

template <class T>
struct New : ObjHolder<T> {
    New(int32 lMagic, const char* descriptor) : ObjHolder<T>(ObjNew<T>(lMagic, descriptor)) {}
    T* operator->() const { return this->Get(); }
};

void* Number(int32 lValue) {
    ObjIntegerO oNumber = nullptr;
    ObjIntegerCreate(&oNumber, lValue);
    return oNumber;
}

// A channel of this process on one end of a pair of sockets; the other is spoken byte by byte.
struct Peer {
    explicit Peer(MsgAddressO oRemote) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        fd = fds[1];
        MsgChannelCreateInternal(m_channel.Address(), fds[0], oRemote, eMsgChannelNonBlocking,
                                 eMsgChannelNotifyDown, {}, {}, {});
    }
    ~Peer() {
        close(fd);
        while (MsgChannelIsDown(m_channel.Get()) != TRUE) MsgWaitPollWithTimeout(Within(20).Get());
        Close();
    }
    void Close() const {
        MsgAddressO oAddress = At(nullptr, MsgChannelId(m_channel.Get()));
        MsgChannelClose(&oAddress);
    }
    MsgAddressO operator()() const { return MsgChannelAddress(m_channel.Get()); }
    void Send(const Text& text) const { EXPECT_GT(send(fd, text.data(), text.size(), 0), 0); }
    void Send(MsgTypeT tType, const Text& body = Text(1, '\0')) const {
        const auto size = static_cast<int64>(body.size());
        Send(bytes::Long(8 + size) + bytes::Long(tType) + body);
    }
    Text Receive() const {
        char buffer[4096];
        const ssize_t count = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        return {buffer, count < 0 ? 0 : static_cast<std::size_t>(count)};
    }
    int fd;

 private:
    ObjHolder<MsgChannelS> m_channel;
};

const std::map<char, MsgTypeT> gtNotices = {
    {'j', PMGR_PROCESS_DIED_MSG},      {'0', 0},
    {'3', MSG_LOST_RECEIVE_QUEUE_MSG}, {'f', MSG_FATAL_SELECT_ERROR_MSG},
    {'k', PMGR_KILL_YOURSELF_MSG},     {'Z', T('Z')}};

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
    // A notice, by a letter, that a process has died, a machine or a channel is down, or the end.
    void Notice(char letter, MsgAddressO oFirst, MsgAddressO oSecond) const {
        const New<PmgrProcessDiedS> died(PmgrProcessDiedMagic, "o;");
        const New<CmgrMachineDownS> down(CmgrMachineDownMagic, "s;");
        ObjIncRefCount(died->oAddress = letter == 'b' ? beta : letter == 'p' ? peer : other);
        if (letter != 'n') down->pstrMachineName = StrDuplicate(letter == 'm' ? "BETA" : "gamma");
        if (Text("bpo").find(letter) != Text::npos)
            Push(PMGR_PROCESS_DIED_MSG, other, died.Get());
        else if (Text("mgn").find(letter) != Text::npos)
            Push(CMGR_MACHINE_DOWN_MSG, other, down.Get());
        else if (letter == 'c' || letter == 's')
            Push(MSG_CHANNEL_DOWN_MSG, letter == 'c' ? oFirst : oSecond);
        else
            Push(gtNotices.at(letter), other, down.Get());
    }
    const Text m_local = SysLocalMachineName();
    const Address m_beta{At("beta", 9)}, m_peer{At(m_local.c_str(), 9)};
    const Address m_other{At(m_local.c_str(), 8)};
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
    EXPECT_STREQ(MsgWaitResultString(static_cast<MsgWaitResultE>(42)), "UNKNOWN");
    EXPECT_STREQ(MsgWaitResultString(eMsgWaitResultDecodeError), "eMsgWaitResultDecodeError");
}

TEST_F(MsgWaits, InnerWaitsGiveBackWhatNobodyHandles) {
    Add('n', T('N'), [&](MsgMessageO) {
        EXPECT_EQ(WaitFor('Z'), TRUE);
        EXPECT_EQ(Waiting(), "ABCX");
        EXPECT_EQ(WaitFor('Q', nullptr, 30), FALSE);
        EXPECT_EQ(Waiting(), "ABCX");
        EXPECT_EQ(MsgWaitExclusiveWithTimeout(nullptr, peer, T('X'), Within(30).Get()),
                  eMsgWaitResultTimeout);
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
    MsgWait(Within(1000).Get());  // the alarm's packet, which holds pointers
    Push("A");
    const MsgPacketO oNameless = Newest();  // from a machine that has no name here
    MsgPacketHeader(oNameless)->tSource.tMachineId = 99;
    Push("BXC");
    EXPECT_EQ(WaitFor('X'), TRUE);
    EXPECT_EQ(Waiting(), "?ABC");
    EXPECT_EQ(Received()->oFirst->oNext->oData, oNameless);
    gtTlContext.sMsgWait.bDisableDefaultHandlers = FALSE;
    EXPECT_FALSE(called);
    EXPECT_EQ(MsgWaitPoll(), TRUE);
    EXPECT_TRUE(called);
    EXPECT_EQ(Waiting(), "");
    // In a child: blocks that could not be had are counted.
    const RunResult result = InChild([&] {
        const IgnoreCrash noStop;
        int failures = 0;
        for (int n = 0; n < 32; n++) {
            Push("ABC");
            const Within timeout(10);
            const int32 objects = ObjCount();
            FaultArm({.call = Call::Malloc, .nth = n / 2 + 1, .times = n % 2 ? 1 : FaultForEver});
            failures += MsgWaitExclusiveWithTimeout(nullptr, peer, T('X'), timeout.Get()) ==
                        eMsgWaitResultError;
            FaultDisarm();
            if (ObjCount() != objects || Seen() != " ABC") return -1;
        }
        return failures;
    });
    EXPECT_GE(result.exitCode, 8);
    EXPECT_LE(result.exitCode, 32);
}

TEST_F(MsgWaits, TypesSourcesAndTheirEnds) {
    const Peer first(beta), second(peer);
    const struct {
        MsgAddressO oSource;
        const char *ending, *others;
        const char* exclusive;  // notices, each with the result as a hexadecimal digit
    } rows[] = {{beta, "bmc", "ojgns", "Z8"},
                {first(), "bmc", "ojgns", "Z8"},
                {second(), "ps", "bojmgnc", "k4s7p5ca"},
                {peer, "ps", "bojmgnc", "Zak40636f6p5oaja"},
                {nullptr, "", "bojmgncs", "Z8"}};
    Add('y', T('Y'));
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const bool any = row.oSource == nullptr;
        const MsgAddressO oFrom = any ? beta : row.oSource;
        for (const char notice : Text(row.ending) + row.others) {
            const bool ends = Text(row.ending).find(notice) != Text::npos;
            // The same type from another source is an ordinary message.
            Push(T('Y'), other);
            Notice(notice, first(), second());
            Push(T('X'), oFrom);
            Push(T('Y'), oFrom);
            const MsgTypeT atTypes[] = {T('Y'), T('X'), -1};
            Message message;
            EXPECT_EQ(MsgWaitMultipleMessagesWithTimeout(message.Address(), row.oSource, atTypes,
                                                         Within(Long).Get()),
                      BooleanFrom(!ends));
            EXPECT_EQ(MsgType(message.Get()), ends ? 0 : any ? T('Y') : T('X'));
            EXPECT_EQ(Seen(), ends ? "y XY" : any ? " ?XY" : "y Y") << notice;
        }
        for (const char* p = row.exclusive; *p != '\0'; p += 2) {
            const int result = p[1] == 'a' ? eMsgWaitResultSuccess : p[1] - '0';
            Push("Y");
            Push(T('X'), other);
            Notice(p[0], first(), second());
            Push(T('X'), oFrom);
            Message message;
            EXPECT_EQ(MsgWaitExclusiveWithTimeout(message.Address(), row.oSource, T('X'),
                                                  Within(Long).Get()),
                      result);
            EXPECT_EQ(message.Get() != nullptr, p[1] == 'a');
            const Text kept = p[0] == 'Z' ? "Z" : "?";
            EXPECT_EQ(Seen(), " YX" + (p[1] == 'a' ? kept : p[1] == '8' ? kept + "X" : "X")) << *p;
        }
    }
    Push(T('X'), peer);
    MsgPacketHeader(Newest())->lLength++;
    Message message;
    EXPECT_EQ(MsgWaitExclusiveWithTimeout(message.Address(), peer, T('X'), nullptr),
              eMsgWaitResultDecodeError);
    // What the peer sent before it closed is received, then the wait ends at once.
    Add('c', MSG_CHANNEL_DOWN_MSG, [&](MsgMessageO oMessage) {
        (MsgIsFrom(oMessage, beta) == TRUE ? first : second).Close();
        return eMsgWaitResultHandled;
    });
    const Within never(60000);
    for (const MsgAddressO oSource : {beta, second()}) {
        const Peer& closing = oSource == beta ? first : second;
        closing.Send(T('A'));
        shutdown(closing.fd, SHUT_RDWR);
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
    const New<TimeOffsetS> soon(TimeOffsetMagic, "i;i;");
    soon->lMilliSeconds = 30;
    const auto send = [](void*) {
        g_calls += 't';
        Push("A");
    };
    const auto began = std::chrono::steady_clock::now();
    TimrSetAlarmRelative(send, nullptr, soon.Get());
    EXPECT_EQ(WaitFor('X', nullptr, 200), FALSE);
    TimrSetAlarmRelative(send, nullptr, soon.Get());
    EXPECT_EQ(MsgWaitOnCallbackWithTimeout(never, nullptr, Within(200).Get()),
              eMsgWaitResultTimeout);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(Seen(), "tt ");
    EXPECT_TRUE(took.count() > 0.38 && took.count() < 15) << took.count();
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
        g_calls += static_cast<char>(MsgType(oMessage) - T('\0'));
        EXPECT_EQ(oCookie, Cookie('h'));
        if (MsgType(oMessage) == T('E')) return eMsgWaitResultExit;
        return MsgType(oMessage) == T('F') ? eMsgWaitResultHandled : eMsgWaitResultNotHandled;
    };
    EXPECT_EQ(MsgWaitPollWithTimeoutAndFilter(nullptr, filter, Cookie('h')), FALSE);
    EXPECT_EQ(Seen(), "HhFHhE H");
}

TEST_F(MsgWaits, DefaultHandlersByTheirMessages) {
    // Bodies that are not what they should be; and a task for another interface.
    const Object number(Number(1));
    const New<PmgrTaskS> task(PmgrTaskMagic, "o;i;o;i;");
    for (const MsgTypeT tType : std::initializer_list<MsgTypeT>{
             CMGR_MACHINE_DOWN_MSG, MSG_UNKNOWN_MSG, MSG_PING_MSG, TIMER_CALLBACK_MSG,
             MSG_CONNECT_MSG, TRACE_TO_FILE_MSG, PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, PMGR_TASK_MSG,
             T('A')}) {
        Message message;
        MsgCreateMessage(message.Address(), MsgLocalAddress(), tType,
                         tType == T('A') ? task.Get() : number.Get());
        if (tType == T('A')) message.Get()->tMsgType = PMGR_TASK_MSG;
        const bool handled = tType != T('A') && tType != PMGR_TASK_MSG &&
                             tType != PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG;
        EXPECT_EQ(MsgWaitDefaultHandlers(message.Get()), handled ? 0 : 1) << tType;
    }
    EXPECT_EQ(MsgWaitDefaultHandlers(nullptr), eMsgWaitResultInvalidArgument);
    const RunResult traced = InChild([&] {
        ObjHolder<ObjStringS> name;
        ObjStringCreate(name.Address(), "waits");
        Push(TRACE_TO_FILE_MSG, MsgLocalAddress(), name.Get());
        MsgWaitPoll();
        const bool began = Exists(TestHome() + "/trace/waits");
        Push(TRACE_TO_FILE_MSG);
        MsgWaitPoll();
        return began && TraceTracingToFile() == FALSE ? 5 : 6;
    });
    EXPECT_EQ(traced.exitCode, 5);
    // A ping over a real channel, then the same with the default handlers disabled.
    const Peer pinging(peer);
    for (const Text& answer : {bytes::Long(MSG_PONG_MSG), Text()}) {
        pinging.Send(MSG_PING_MSG,
                     bytes::Object(0xc9fed45e, "i;i;", bytes::Long(12345) + bytes::Long(0)));
        pinging.Send(T('X'));
        EXPECT_EQ(WaitFor('X'), TRUE);
        const Text pong = pinging.Receive();
        EXPECT_EQ(pong.size() > 8 ? pong.substr(4, 4) : Text(), answer);
        EXPECT_EQ(pong.find(bytes::Long(12345)) != Text::npos, !answer.empty());
        MsgWaitDisableDefaultHandlers();
    }
}

// The peer sends back the request for a data channel, so that this process is at both its ends.
TEST_F(MsgWaits, TaskAndConnectOpenADataChannel) {
    static std::vector<Text> cookies;
    static std::vector<MsgAddressO> channels;
    const Peer echo(peer);
    const New<PmgrTaskExtS> task(PmgrTaskExtMagic, "o;i;o;i;o;o;");
    ObjIncRefCount(task->oSource = echo());
    task->lInterfaceType = 1;
    task->oUserArguments = Number(55);
    Add('c', MSG_CONNECTED_MSG, [](MsgMessageO oMessage) {
        auto* oConnected = static_cast<MsgConnectedO>(oMessage->oObject);
        auto* oCookie = static_cast<ObjIntegerO>(oConnected->oCookie);
        cookies.push_back(oCookie == nullptr ? "" : std::to_string(ObjGetInteger(oCookie)));
        ObjIncRefCount(oConnected->oAddress);
        channels.push_back(oConnected->oAddress);
        return eMsgWaitResultNotHandled;
    });
    Push(PMGR_TASK_MSG, MsgProcMgrAddress(), task.Get());
    const auto callback = [](MsgWaitResultE*, void* pPeer) {
        const auto& self = *static_cast<const Peer*>(pPeer);
        if (const Text request = self.Receive(); !request.empty()) self.Send(request);
        return BooleanFrom(channels.size() == 2);
    };
    TraceCapture trace;
    EXPECT_EQ(MsgWaitOnCallbackWithTimeout(callback, const_cast<Peer*>(&echo), Within(Long).Get()),
              eMsgWaitResultSuccess);
    EXPECT_EQ(trace.CountText("Connecting to GUI"), 1);
    EXPECT_EQ(trace.CountText("Point-to-point connection was completed"), 2);
    ASSERT_EQ(channels.size(), 2U);
    EXPECT_EQ(cookies[0] + cookies[1], "55");
    EXPECT_EQ(MsgSendObject(channels[0], T('X'), nullptr), TRUE);
    EXPECT_EQ(WaitFor('X', channels[1]), TRUE);
    MsgChannelClose(&channels[0]);
    EXPECT_EQ(WaitFor('Y', channels[1]), FALSE);  // ended by the closing
    MsgChannelClose(&channels[1]);
    while (gtTlContext.sMsg.oLingerList->lItemCount > 0) MsgWaitPollWithTimeout(Within(20).Get());
}

TEST_F(MsgWaits, RequestAndReply) {
    const Peer answers(peer);
    const Text five = bytes::Integer(5), none(1, '\0'), silence;
    const struct {
        Text reply;
        int32 lMagic;
        BooleanT bResult;
        int32 lReply;
    } rows[] = {{five, ObjIntegerMagic, TRUE, 5},
                {five, 0, TRUE, 5},
                {none, 0, TRUE, 0},
                {five, ObjStringMagic, FALSE, 0},
                {silence, 0, FALSE, 0},
                {none, ObjIntegerMagic, FALSE, 0}};
    const Object number(Number(7)), wrong(Number(8));
    for (const auto& row : rows) {
        Push(T('R'), beta, wrong.Get());  // not from whom it is expected
        if (row.reply != silence) answers.Send(T('R'), row.reply);
        ObjHolder<ObjIntegerS> reply;
        EXPECT_EQ(MsgWaitInterchangeTimeout(reply.Address(), answers(), T('Q'), number.Get(),
                                            T('R'), row.lMagic, row.reply == silence ? 1 : 60),
                  row.bResult);
        EXPECT_EQ(reply.Get() == nullptr ? 0 : ObjGetInteger(reply.Get()), row.lReply);
        EXPECT_EQ(answers.Receive().substr(4), bytes::Long(T('Q')) + bytes::Integer(7));
    }
    EXPECT_EQ(MsgWaitInterchangeInternal(nullptr, nullptr, T('Q'), nullptr, T('R'), 0), FALSE);
    shutdown(answers.fd, SHUT_WR);  // takes the request, never answers
    EXPECT_EQ(MsgWaitInterchangeInternal(nullptr, answers(), T('Q'), nullptr, T('R'), 0), FALSE);
}

TEST_F(MsgWaits, WhatEndsTheProcess) {
    for (const MsgTypeT tType : std::initializer_list<MsgTypeT>{
             0, 1, 2, MSG_LOST_RECEIVE_QUEUE_MSG, MSG_FATAL_SELECT_ERROR_MSG,
             PMGR_KILL_YOURSELF_MSG, T('E'), T('X')}) {
        const RunResult result = InChild([&] {
            // The files of this run are the parent's.
            std::atexit([] { std::fflush(stdout), _exit(42); });
            ProcAddCleanupRoutine([](void*, int32 lExitCode) { std::printf("%d", lExitCode); },
                                  nullptr);
            Add('e', T('E'), [](MsgMessageO) { return eMsgWaitResultExit; });
            Push("A");
            Push(tType);
            WaitFor('X');
            return 77;
        });
        EXPECT_EQ(result.exitCode, tType == T('X') ? 77 : 42);
        EXPECT_EQ(result.output, tType == T('X') ? "" : "0") << tType;
    }
}
