// Peers and managers that fail: killed, stopped, silent, not there. Every case is a process of its
// own that says what it sees; each sees it in bounded time and goes on working.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <map>

#include "core/context.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "support/leftovers.h"
#include "support/machine.h"
#include "support/peer.h"

namespace {

using Message = ObjHolder<MsgMessageS>;
using Address = ObjHolder<MsgAddressS>;

constexpr ProcIdT ClientId = 60, EchoId = 70, NobodyId = 99;
constexpr MsgTypeT AskType = 7000, AnswerType = 7001, EndType = 7002;

std::string g_wrong;
void Check(bool good, const std::string& what) {
    if (!good) g_wrong += " [" + what + "]";
}

// The next message of a type, answering for the process meanwhile; others are dropped.
bool Await(MsgTypeT type, MsgMessageO* result = nullptr, int seconds = 30) {
    const ObjHolder<TimeTimeoutS> timeout(In(seconds));
    while (TimeTimeoutHasExpired(timeout.Get()) != TRUE) {
        Message message;
        if (MsgReceive(message.Address(), timeout.Get()) != TRUE) continue;
        if (MsgType(message.Get()) != type) continue;
        if (result != nullptr) *result = message.Take();
        return true;
    }
    return false;
}

// Sends every question back, over the way it came, and completes data channels.
int Echo(const std::vector<std::string>&) {
    if (!Connect(EchoId)) return 10;
    Say("up");
    for (;;) {
        Message message;
        if (MsgReceive(message.Address(), nullptr) != TRUE) continue;
        MsgMessageO got = message.Get();
        if (MsgType(got) == MSG_CONNECT_MSG)
            MsgChannelCompleteInternal(nullptr, got, eMsgChannelNonBlocking,
                                       eMsgChannelDoNotWaitForConnect, eMsgChannelSendOk);
        if (MsgType(got) == AskType) MsgSendReply(got, AnswerType, got->oObject);
        if (MsgType(got) == EndType) break;
    }
    MsgQuickExit(TRUE);
    ContextReleaseThread();
    return 0;
}

MsgAddressO OpenToEcho(MsgChannelBlockingE blocking) {
    const Address echo(AddressOf(EchoId));
    MsgAddressO channel = nullptr;
    Check(MsgChannelOpenInternal(&channel, echo.Get(), nullptr, nullptr, blocking,
                                 eMsgChannelWaitForAccept, eMsgChannelWaitForOk) == TRUE,
          "no channel");
    return channel;
}

bool Asks(MsgAddressO address) {
    const ObjHolder<ObjIntegerS> question(ObjIntegerNew(42));
    Message answer;
    return MsgSendObject(address, AskType, question.Get()) == TRUE &&
           Await(AnswerType, answer.Address());
}

ObjDataFieldO Large(int megabytes) {
    return ObjDataFieldNew(std::string(std::size_t(megabytes) << 20, 'x').data(), megabytes << 20);
}

// --- what a client does and sees, case by case ---

void ManagerKilled() {
    MsgAddressO channel = OpenToEcho(eMsgChannelNonBlocking);
    const Address echo(AddressOf(EchoId));
    Say("ready");
    Check(Await(MSG_LOST_RECEIVE_QUEUE_MSG), "the loss is not told");
    Check(MsgSendObject(echo.Get(), AskType, nullptr) == FALSE, "sent without a link");
    Check(Await(MSG_LOST_SEND_QUEUE_MSG), "the failed send is not told");
    Check(Asks(channel), "the data channel is gone too");
    Say("again");
    std::getchar();  // the manager has been started anew
    Check(MsgIpcConnect(eMsgProcTypeProcess) == TRUE, "no new link");
    const Address self(AddressOf(ClientId));
    Check(MsgSendObject(self.Get(), AskType, nullptr) == TRUE && Await(AskType),
          "the new link does not work");
    MsgSendObject(channel, EndType, nullptr);
    MsgChannelClose(&channel);
}

void PeerKilled() {
    MsgAddressO channel = OpenToEcho(eMsgChannelNonBlocking);
    const ObjHolder<PmgrNotifyOnDeathS> watch(
        ObjNew<PmgrNotifyOnDeathS>(PmgrNotifyOnDeathMagic, "o;"));
    watch.Get()->oAddress = AddressOf(EchoId);
    MsgSendObject(MsgProcMgrAddress(), PMGR_NOTIFY_ON_DEATH_MSG, watch.Get());
    Say("ready");  // the peer is stopped now, and killed after the next line
    const ObjHolder<ObjDataFieldS> large(Large(32));
    std::getchar();
    Check(MsgSendObject(channel, AskType, large.Get()) == TRUE, "not queued");
    const auto start = Clock::now();
    Check(!Await(AnswerType, nullptr, 1), "a stopped process answers");
    Check(SecondsSince(start) < 5, "the wait has no end");
    Say("queued");
    Message down, died;
    Check(Await(MSG_CHANNEL_DOWN_MSG, down.Address()), "channel not down");
    Check(down.Get() != nullptr && MsgAddressEqual(down.Get()->oSource, channel) != FALSE &&
              down.Get()->oSource->tProcessId == channel->tProcessId,
          "another channel");
    Check(Await(PMGR_PROCESS_DIED_MSG, died.Address()), "death not told");
    Check(MsgSendObject(channel, AskType, nullptr) == FALSE, "sent on a channel that is down");
    MsgChannelClose(&channel);
}

void PeerStopped() {
    MsgAddressO channel = OpenToEcho(eMsgChannelNonBlocking);
    Say("ready");
    std::getchar();
    const ObjHolder<ObjDataFieldS> large(Large(16));
    for (int n = 0; n < 3; n++)
        Check(MsgSendObject(channel, AskType, large.Get()) == TRUE, "not queued");
    Check(!Await(AnswerType, nullptr, 1), "a stopped process answers");
    Say("queued");
    for (int n = 0; n < 3; n++) Check(Await(AnswerType), "an answer is missing");
    MsgSendObject(channel, EndType, nullptr);
    MsgChannelClose(&channel);
}

void BlockedOnStopped() {
    MsgAddressO channel = OpenToEcho(eMsgChannelBlocking);
    Say("ready");
    std::getchar();
    const ObjHolder<ObjDataFieldS> large(Large(32));
    const auto start = Clock::now();
    Check(MsgSendObject(channel, AskType, large.Get()) == FALSE, "handed over to nobody");
    Check(SecondsSince(start) < 20, "blocked for too long");
    Check(Await(MSG_CHANNEL_DOWN_MSG), "channel not down");
    Say("queued");
    const Address echo(AddressOf(EchoId));
    MsgSendObject(echo.Get(), EndType, nullptr);
    MsgChannelClose(&channel);
}

void NobodyThere() {
    const Address nobody(AddressOf(NobodyId));
    MsgAddressO channel = nullptr;
    Message notice;
    const auto start = Clock::now();
    Check(MsgChannelOpenInternal(&channel, nobody.Get(), nullptr, nullptr, eMsgChannelNonBlocking,
                                 eMsgChannelWaitForAccept, eMsgChannelWaitForOk) == FALSE,
          "a channel to nobody");
    Check(Await(CMGR_PROCESS_UNREACHABLE_MSG, notice.Address()), "not told");
    Check(SecondsSince(start) < 10, "told late");
    ObjHolder<CmgrProcessUnreachableS> body;
    Check(MsgGetObject(body.Address(), notice.Get(), CmgrProcessUnreachableMagic) == TRUE &&
              MsgAddressEqual(body.Get()->oAddress, nobody.Get()) == TRUE,
          "another process");
}

// Attempts that are left to the select loop.
void PendingAttempts() {
    const Address self(AddressOf(ClientId)), nobody(AddressOf(NobodyId));
    const ObjHolder<ObjIntegerS> cookie(ObjIntegerNew(7));
    const ObjHolder<ListS> addresses(ListNew(NetAddressMagic));
    const auto outcome = [&](int32 error) {
        Message message;
        ObjHolder<MsgConnectedS> body;
        return Await(MSG_CONNECTED_MSG, message.Address()) &&
               MsgGetObject(body.Address(), message.Get(), MsgConnectedMagic) == TRUE &&
               body.Get()->lErrorCode == error && body.Get()->bSuccess == BooleanFrom(error == 0) &&
               (body.Get()->oAddress != nullptr) == (error == 0) &&
               ObjGetInteger(static_cast<ObjIntegerO>(body.Get()->oCookie)) == 7;
    };
    // Nobody connects back: the time is over. It is set back, as it is minutes.
    Check(MsgChannelOpenInternal(nullptr, self.Get(), nullptr, cookie.Get(), eMsgChannelNonBlocking,
                                 eMsgChannelDoNotWaitForAccept, eMsgChannelWaitForOk) == TRUE,
          "not pending");
    auto* entry = static_cast<MsgConnectingO>(gtTlContext.sMsg.oConnectingList->oFirst->oData);
    TimeSetTimeoutImmediate(entry->oTimeout);
    Check(outcome(MSG_CHANNEL_ERROR_TIMEOUT), "no end of the time");
    Check(gtTlContext.sMsg.oConnectingList->lItemCount == 0, "still pending");
    // A port at which nobody listens any more, and one that takes the connection and closes it.
    NetAddressT at;
    NetSocketT listening = ListenOnLoopback(&at), accepted = -1;
    auto* address = ObjNew<NetAddressS>(NetAddressMagic, "n32;");
    address->tAddress = at;
    ListPushLastItem(addresses.Get(), &address);
    const auto complete = [&] {
        return MsgCompleteTcpConnectionTyped(nullptr, nobody.Get(), cookie.Get(), addresses.Get(),
                                             NetGetIpPort(&at), eMsgChannelNonBlocking,
                                             eMsgChannelDoNotWaitForConnect, eMsgChannelNotifyDown,
                                             eMsgChannelDoNotSendOk, eMsgChannelConnectTypeNormal);
    };
    Check(complete() == TRUE && outcome(MSG_CHANNEL_ERROR_NONE), "not connected");
    NetAccept(&accepted, listening, nullptr);
    NetClose(&accepted);
    Message down;
    Check(Await(MSG_CHANNEL_DOWN_MSG, down.Address()), "the end of the peer is not told");
    MsgAddressO channel = down.Get()->oSource;
    ObjIncRefCount(channel);
    MsgChannelClose(&channel);
    NetClose(&listening);
    Check(complete() == FALSE || outcome(MSG_CHANNEL_ERROR_EXCEPTION), "connected to nobody");
}

const std::map<std::string, std::function<void()>> cases = {
    {"manager killed", ManagerKilled}, {"peer killed", PeerKilled},
    {"peer stopped", PeerStopped},     {"blocked on stopped", BlockedOnStopped},
    {"nobody there", NobodyThere},     {"pending attempts", PendingAttempts},
};

int Client(const std::vector<std::string>& arguments) {
    if (!Connect(ClientId)) return 10;
    const Leftovers before;
    cases.at(arguments.at(0))();
    while (gtTlContext.sMsg.oLingerList->lItemCount > 0 && g_wrong.empty()) {
        const ObjHolder<TimeTimeoutS> soon(In(1));
        Message message;
        MsgReceive(message.Address(), soon.Get());
    }
    for (MsgPacketO packet = nullptr; MsgReceivePopPacket(&packet) == TRUE;) ObjRelease(&packet);
    Check(before.Text().empty(), before.Text());
    Say("end" + g_wrong);
    MsgQuickExit(TRUE);
    ContextReleaseThread();
    return g_wrong.empty() ? 0 : 1;
}

const Role echo("echo", Echo);
const Role client("client", Client);

class MsgFaults : public testing::Test {
 protected:
    void Start(const std::string& name, const std::string& network = "") {
        m_machine.Configure("tlnmgr.cfg", network);
        ASSERT_TRUE(m_machine.Start());
        m_echo = m_machine.InRole("echo", {});
        ASSERT_EQ(m_echo.Line(), "up");
        m_client = m_machine.InRole("client", {name});
    }
    void End() {
        EXPECT_EQ(m_client.Line(), "end");
        EXPECT_EQ(m_client.Wait(), 0) << m_client.Rest();
    }
    Machine m_machine;
    Process m_echo, m_client;
};

}  // namespace

TEST_F(MsgFaults, ManagerKilled) {
    Start("manager killed");
    ASSERT_EQ(m_client.Line(), "ready");
    m_machine.Comms().Signal(SIGKILL);
    ASSERT_EQ(m_client.Line(), "again");
    m_machine.Comms().Wait();
    ASSERT_TRUE(m_machine.Start());
    m_client.Write("\n");
    End();
}

// What happens to the process that answers once the client has a channel to it, and once the client
// has queued what it does not take.
struct Fault {
    const char* name;
    const char* network;
    int first, then;
};

class PeerFaults : public MsgFaults, public testing::WithParamInterface<Fault> {};

TEST_P(PeerFaults, AreToldInTime) {
    const Fault& fault = GetParam();
    Start(fault.name, fault.network);
    if (fault.first != 0) {
        ASSERT_EQ(m_client.Line(), "ready");
        m_echo.Signal(fault.first);
        m_client.Write("\n");
        ASSERT_EQ(m_client.Line(), "queued");
        m_echo.Signal(fault.then);
    }
    End();
    if (fault.then == SIGCONT) {
        EXPECT_EQ(m_echo.Wait(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Msg, PeerFaults,
    testing::Values(Fault{"peer killed", "", SIGSTOP, SIGKILL},
                    Fault{"peer stopped", "", SIGSTOP, SIGCONT},
                    Fault{"blocked on stopped", "[Network]\nPeer Timeout=2\n", SIGSTOP, SIGCONT},
                    Fault{"nobody there", "", 0, 0}, Fault{"pending attempts", "", 0, 0}));

TEST(MsgNoManager, AnAdoptedProcessGivesUpEarly) {
    const Machine machine;
    // A port that was free a moment ago.
    NetAddressT at;
    NetSocketT free = ListenOnLoopback(&at);
    NetClose(&free);
    WriteFile(machine.Home() + "/config/configure.cfg",
              "[Machine]\nComms TcpPort=" + std::to_string(NetGetIpPort(&at)) +
                  "\n[Timeouts]\nAdopted Processes Connection=1\n");
    Process process = machine.InRole("adopted", {});
    EXPECT_EQ(process.Wait(30), 0);
}

namespace {
const Role adopted("adopted", [](const std::vector<std::string>&) {
    const auto start = Clock::now();
    if (MsgIpcConnect(eMsgProcTypeProcess) != FALSE) return 1;
    return SecondsSince(start) < 10 ? 0 : 2;
});
}  // namespace
