// Peers, managers, addresses and lines that fail: killed, stopped, silent, cut, not there. Every
// case is a process of its own that says what it sees, in bounded time, and goes on working. Cases
// of two machines are skipped where networks cannot be made.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <functional>
#include <map>
#include <set>

#include "core/context.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "support/leftovers.h"
#include "support/peer.h"
#include "support/world.h"

namespace {

using Message = ObjHolder<MsgMessageS>;
using Address = ObjHolder<MsgAddressS>;
using Arguments = std::vector<std::string>;
using std::to_string;

constexpr ProcIdT ClientId = 60, EchoId = 70, NobodyId = 99;
constexpr MsgTypeT AskType = 7000, AnswerType = 7001, EndType = 7002, LevelType = 7003,
                   SinkType = 7004;

std::string g_wrong;
void Check(bool good, const std::string& what) {
    if (!good) g_wrong += " [" + what + "]";
}

// The next message of a type; others wait. From an address it ends with that process.
bool Await(MsgTypeT type, MsgMessageO* result = nullptr, int seconds = 30,
           MsgAddressO from = nullptr) {
    const ObjHolder<TimeTimeoutS> timeout(In(seconds));
    Message message;
    if (MsgReceiveMsgTypeFromAddress(message.Address(), type, from, timeout.Get()) != TRUE)
        return false;
    if (result != nullptr) *result = message.Take();
    return true;
}

// What the closing of channels leaves behind.
void Linger() {
    while (gtTlContext.sMsg.oLingerList->lItemCount > 0 && g_wrong.empty()) {
        const ObjHolder<TimeTimeoutS> soon(In(1));
        Message message;
        MsgReceive(message.Address(), soon.Get());
    }
    for (MsgPacketO packet = nullptr; MsgReceivePopPacket(&packet) == TRUE;) ObjRelease(&packet);
}

// Sends every question back, over the way it came, and completes data channels, until it is told to
// end and they are closed.
class Echo {
 public:
    explicit Echo(bool waits) : m_waits(waits) {}
    int Run() {
        if (!Connect(EchoId)) return 10;
        const Leftovers before;
        Say("up");
        while (!m_ends || m_channels > 0) {
            Message message;
            if (MsgReceive(message.Address(), nullptr) == TRUE) Take(message.Get());
        }
        Linger();
        const std::string left = before.Text();
        if (!left.empty()) Say("left over: " + left);
        ContextReleaseThread();
        return left.empty() ? 0 : 11;
    }

 private:
    void Take(MsgMessageO message) {
        Address source;
        MsgGetSource(source.Address(), message);
        switch (MsgType(message)) {
            case AskType:
                MsgSendReply(message, AnswerType, message->oObject);
                break;
            case LevelType: {
                const ObjHolder<ObjIntegerS> level(
                    ObjIntegerNew(TraceSetLevel(eTraceLevelUnchanged)));
                MsgSendReply(message, AnswerType, level.Get());
                break;
            }
            case MSG_CONNECT_MSG:
                Answer(message);
                break;
            case MSG_CONNECTED_MSG:
                m_channels++;
                break;
            case MSG_CHANNEL_DOWN_MSG:
                m_channels--;
                MsgChannelClose(source.Address());
                Say("channel down");
                break;
            case CMGR_MACHINE_DOWN_MSG:
                Say("machine down");
                break;
            case EndType:
                MsgIpcConnect(eMsgProcTypeProcess);  // should the link have been lost
                m_ends = true;
                break;
            default:
                break;
        }
    }
    void Answer(MsgMessageO message) {
        const auto start = Clock::now();
        const BooleanT done = MsgChannelCompleteInternal(
            nullptr, message, eMsgChannelNonBlocking,
            m_waits ? eMsgChannelWaitForConnect : eMsgChannelDoNotWaitForConnect,
            eMsgChannelSendOk);
        if (m_waits) {
            m_channels++;
            Say("answered " + to_string(SecondsSince(start)));
        }
        ObjHolder<MsgConnectS> body;
        MsgGetObject(body.Address(), message, MsgConnectMagic);
        if (done != TRUE) Say("refused " + to_string(body.Get()->lErrorCode));
    }

    bool m_waits;
    bool m_ends = false;
    int m_channels = 0;
};
const Role echoRole("echo", [](const Arguments& words) { return Echo(!words.empty()).Run(); });

// --- what a client does and sees, case by case ---

std::string g_machine;  // of the echo

MsgAddressO EchoAddress() { return AddressOf(g_machine, EchoId); }

MsgAddressO Open(MsgAddressO to, MsgChannelBlockingE blocking = eMsgChannelNonBlocking) {
    MsgAddressO channel = nullptr;
    return MsgChannelOpenInternal(&channel, to, nullptr, nullptr, blocking,
                                  eMsgChannelWaitForAccept, eMsgChannelWaitForOk) == TRUE
               ? channel
               : nullptr;
}
MsgAddressO OpenToEcho(MsgChannelBlockingE blocking = eMsgChannelNonBlocking) {
    const Address to(EchoAddress());
    MsgAddressO channel = Open(to.Get(), blocking);
    Check(channel != nullptr, "no channel");
    return channel;
}

bool Asks(MsgAddressO address) {
    const ObjHolder<ObjIntegerS> question(ObjIntegerNew(42));
    Message answer;
    return MsgSendObject(address, AskType, question.Get()) == TRUE &&
           Await(AnswerType, answer.Address(), 60, address);
}

ObjDataFieldO Large(int megabytes) {
    return ObjDataFieldNew(std::string(std::size_t(megabytes) << 20, 'x').data(), megabytes << 20);
}

void ManagerKilled() {
    MsgAddressO channel = OpenToEcho();
    const Address echo(EchoAddress());
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

void PeerStoppedAndKilled() {
    MsgAddressO channel = OpenToEcho();
    const ObjHolder<PmgrNotifyOnDeathS> watch(
        ObjNew<PmgrNotifyOnDeathS>(PmgrNotifyOnDeathMagic, "o;"));
    watch.Get()->oAddress = EchoAddress();
    MsgSendObject(MsgProcMgrAddress(), PMGR_NOTIFY_ON_DEATH_MSG, watch.Get());
    const ObjHolder<ObjDataFieldS> large(Large(16));
    for (const bool killed : {false, true}) {
        Say("ready");  // the peer is stopped now, and goes on or is killed after the next line
        std::getchar();
        for (int n = 0; n < 3; n++)
            Check(MsgSendObject(channel, AskType, large.Get()) == TRUE, "not queued");
        const auto start = Clock::now();
        Check(!Await(AnswerType, nullptr, 1), "a stopped process answers");
        Check(SecondsSince(start) < 5, "the wait has no end");
        Say("queued");
        for (int n = 0; n < 3 && !killed; n++) Check(Await(AnswerType), "an answer is missing");
    }
    Message down;
    Check(Await(MSG_CHANNEL_DOWN_MSG, down.Address()), "channel not down");
    Check(down.Get() != nullptr && MsgAddressEqual(down.Get()->oSource, channel) == TRUE,
          "another channel");
    Check(Await(PMGR_PROCESS_DIED_MSG), "death not told");
    Check(MsgSendObject(channel, AskType, nullptr) == FALSE, "sent on a channel that is down");
    MsgChannelClose(&channel);
}

// Nothing tells of a peer that is stopped but the time that it leaves data unacknowledged.
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
    MsgChannelClose(&channel);
}

// Attempts are left to the select loop for minutes.
bool OpenLater(MsgAddressO to, void* cookie) {
    return MsgChannelOpenInternal(nullptr, to, nullptr, cookie, eMsgChannelNonBlocking,
                                  eMsgChannelDoNotWaitForAccept, eMsgChannelWaitForOk) == TRUE;
}
void ExpirePending() {
    auto* entry = static_cast<MsgConnectingO>(gtTlContext.sMsg.oConnectingList->oFirst->oData);
    TimeSetTimeoutImmediate(entry->oTimeout);
}

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
    Check(OpenLater(self.Get(), cookie.Get()), "not pending");
    ExpirePending();
    Check(outcome(MSG_CHANNEL_ERROR_TIMEOUT), "no end of the time");
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

// Data channels between machines keep to the ports of the firewall file.
void Ports() {
    const Address to(EchoAddress());
    std::vector<MsgAddressO> channels;
    for (MsgAddressO channel; (channel = Open(to.Get())) != nullptr;) {
        ObjHolder<MsgChannelS> found;
        NetAddressT here = {}, there = {};
        MsgGetChannel(found.Address(), channel);
        NetGetLocalAddress(&here, MsgChannelSocket(found.Get()));
        NetGetRemoteAddress(&there, MsgChannelSocket(found.Get()));
        Say(to_string(NetGetIpPort(&here)) + " " + to_string(NetGetIpPort(&there)));
        channels.push_back(channel);
    }
    Say("no more");
    MsgChannelClose(&channels.front());
    Linger();
    channels.front() = OpenToEcho();  // on the port that has become free
    for (MsgAddressO& channel : channels) MsgChannelClose(&channel);
    Linger();
    Say("closed");
    std::getchar();  // there is one port to go out now: the second answer fails
    MsgAddressO channel = OpenToEcho();
    Check(OpenLater(to.Get(), nullptr), "not pending");
    std::getchar();
    ExpirePending();
    Check(Await(MSG_CONNECTED_MSG), "no end of the time");
    MsgChannelClose(&channel);
}

void SilentAddresses() {
    const Address to(EchoAddress());
    const ObjHolder<ObjIntegerS> level(ObjIntegerNew(2));
    Message answer;
    Check(Asks(to.Get()), "no answer");
    MsgSendObject(to.Get(), MSG_SET_TRACE_LEVEL_MSG, level.Get());
    MsgSendObject(to.Get(), LevelType, nullptr);
    Check(Await(AnswerType, answer.Address()) &&
              ObjCompare(answer.Get()->oObject, level.Get()) == TRUE,
          "a message for another machine was taken on the way");
    MsgAddressO channel = OpenToEcho();
    Check(Asks(channel), "no answer over the channel");
    MsgChannelClose(&channel);
}

bool IsUnreachable(const std::string& machine, MsgTypeT type, int32 magic) {
    Message notice;
    ObjHolder<NmgrMachineUnreachableS> body;
    return Await(NMGR_MACHINE_UNREACHABLE_MSG, notice.Address(), 1) &&
           MsgGetObject(body.Address(), notice.Get(), NmgrMachineUnreachableMagic) == TRUE &&
           machine == body.Get()->pstrMachineName && body.Get()->tMsgType == type &&
           ObjCheckTypeInternal(body.Get()->oUndelivered, magic) == TRUE;
}

// Of what is sent when the line is cut only a part has left.
void LineCut() {
    MsgAddressO channel = OpenToEcho(), blocking = OpenToEcho(eMsgChannelBlocking);
    const ObjHolder<ObjDataFieldS> large(Large(16));
    Message down;
    Say("ready");
    MsgSendObject(channel, SinkType, large.Get());
    auto start = Clock::now();
    while (MsgSendObject(blocking, SinkType, large.Get()) == TRUE) {
        Check(SecondsSince(start) < 30, "sent for too long");
        if (!g_wrong.empty()) return;
    }
    for (MsgAddressO* end : {&channel, &blocking}) {
        Check(Await(MSG_CHANNEL_DOWN_MSG, nullptr, 20, *end), "channel not down");
        MsgChannelClose(end);
    }
    Check(Await(CMGR_MACHINE_DOWN_MSG, down.Address(), 10) &&
              g_machine == static_cast<CmgrMachineDownO>(down.Get()->oObject)->pstrMachineName,
          "another machine is down");
    for (const std::string& machine : {g_machine, std::string("lost")}) {
        const Address there(AddressOf(machine, EchoId));
        start = Clock::now();
        Check(!Asks(there.Get()) && IsUnreachable(machine, AskType, ObjIntegerMagic), "asked");
        Check(Open(there.Get()) == nullptr &&
                  IsUnreachable(machine, MSG_CONNECT_MSG, MsgConnectMagic),
              "opened");
        Check(SecondsSince(start) < 20, "waited for " + machine);
    }
    Say("cut");
    std::getchar();  // the line is mended
    const Address to(EchoAddress());
    Check(Asks(to.Get()), "no answer again");
}

const std::map<std::string, std::function<void()>> cases = {
    {"manager killed", ManagerKilled},
    {"peers",
     [] {
         PeerStoppedAndKilled();
         PendingAttempts();
     }},
    {"blocked", BlockedOnStopped},
    {"ports", Ports},
    {"silent addresses", SilentAddresses},
    {"line cut", LineCut},
};

const Role clientRole("client", [](const Arguments& words) {
    g_machine = words.size() > 1 ? words[1] : SysLocalMachineName();
    if (!Connect(ClientId)) return 10;
    const Leftovers before;
    cases.at(words.at(0))();
    Linger();
    {
        const Address to(EchoAddress());
        MsgSendObject(to.Get(), EndType, nullptr);
    }
    Check(before.Text().empty(), before.Text());
    Say("end" + g_wrong);
    OpenLater(MsgLocalAddress(), nullptr);  // what is pending goes with the process
    MsgQuickExit(TRUE);
    ContextReleaseThread();
    return g_wrong.empty() ? 0 : 1;
});

const Role adoptedRole("adopted", [](const Arguments&) {
    const auto start = Clock::now();
    if (MsgIpcConnect(eMsgProcTypeProcess) != FALSE) return 1;
    return SecondsSince(start) < 10 ? 0 : 2;
});

class MsgFaults : public testing::Test {
 protected:
    // The echo may be on another machine.
    void Start(const std::string& name, Machine& from, Machine& to, const Arguments& waits = {}) {
        m_echo = to.InRole("echo", waits);
        ASSERT_EQ(m_echo.Line(), "up");
        Arguments words = {name};
        if (&from != &to) words.push_back(to.Name());
        m_client = from.InRole("client", words);
    }
    void End(int echoEnds = 0) {
        EXPECT_EQ(m_client.Line(), "end");
        EXPECT_EQ(m_client.Wait(), 0) << m_client.Rest();
        EXPECT_EQ(m_echo.Wait(), echoEnds) << m_echo.Rest();
    }
    std::multiset<std::string> EchoLines(int count) {
        std::multiset<std::string> lines;
        for (int n = 0; n < count; n++) lines.insert(m_echo.Line(20));
        return lines;
    }
    Process m_echo, m_client;
};

}  // namespace

TEST_F(MsgFaults, ManagerKilled) {
    Machine machine;
    ASSERT_TRUE(machine.Start());
    Start("manager killed", machine, machine);
    ASSERT_EQ(m_client.Line(), "ready");
    machine.Comms().Signal(SIGKILL);
    ASSERT_EQ(m_client.Line(), "again");
    machine.Comms().Wait();
    ASSERT_TRUE(machine.Start());
    m_client.Write("\n");
    End();
}

TEST_F(MsgFaults, PeersThatFailAreToldInTime) {
    for (const bool blocked : {false, true}) {
        Machine machine;
        if (blocked) machine.Configure("tlnmgr.cfg", "[Network]\nPeer Timeout=2\n");
        ASSERT_TRUE(machine.Start());
        Start(blocked ? "blocked" : "peers", machine, machine);
        for (const int then : {SIGCONT, SIGKILL}) {
            if (blocked && then == SIGKILL) break;
            ASSERT_EQ(m_client.Line(), "ready");
            m_echo.Signal(SIGSTOP);
            m_client.Write("\n");
            ASSERT_EQ(m_client.Line(), "queued");
            m_echo.Signal(then);
        }
        End(blocked ? 0 : -1);
    }
}

TEST_F(MsgFaults, AnAdoptedProcessGivesUpEarly) {
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

TEST_F(MsgFaults, DataChannelsKeepToThePortsOfTheFirewall) {
    World world(2);
    NEED_NETWORKS(world);
    world.Introduce(false);
    const std::string firewall = "/config/firewall.cfg", section = "[MsgChannel]\n";
    WriteFile(world.At(0).Home() + firewall, section + "Ports=21001 - 21002\n");
    WriteFile(world.At(1).Home() + firewall, section + "Out Ports=22001,22003 - 22005\n");
    ASSERT_TRUE(world.Start());
    Start("ports", world.At(0), world.At(1));
    for (const char* line : {"21001 22001", "21002 22003", "no more", "closed"})
        EXPECT_EQ(m_client.Line(), line);
    const auto said = EchoLines(4);
    EXPECT_EQ(said.count("refused 2"), 1U);  // the opener could not listen
    EXPECT_EQ(said.count("channel down"), 3U);
    WriteFile(world.At(1).Home() + firewall, section + "Out Ports=22001\n");
    m_client.Write("\n");
    EXPECT_EQ(m_echo.Line(), "refused 0");
    m_client.Write("\n");
    End();
}

TEST_F(MsgFaults, AddressesThatDoNotAnswerArePassedOver) {
    World world(2);
    NEED_NETWORKS(world);
    Networks& lines = world.Lines();
    world.At(0).KnowMachines(
        world.Stanza(1, 0, "Networks=" + lines.Silent(1, 0, 0) + "," + lines.Inet(1, 0) + "\n"));
    world.At(1).KnowMachines(world.Stanza(0, 1, "Contact Address=many\n"));
    world.At(1).KnowHosts("127.0.0.1 localhost\n" + lines.Silent(0, 1, 0) + " many\n" +
                          lines.Silent(0, 1, 1) + " many\n" + lines.Inet(0, 1) + " many\n");
    ASSERT_TRUE(world.Start());
    Start("silent addresses", world.At(0), world.At(1), {"waits"});
    const std::string answered = m_echo.Line();
    ASSERT_TRUE(answered.starts_with("answered ")) << answered;
    const int seconds = std::stoi(answered.substr(9));
    EXPECT_TRUE(seconds >= 2 && seconds < 6) << seconds;  // one for each silent address
    End();
}

TEST_F(MsgFaults, ALineThatIsCutEndsWhatDependsOnIt) {
    World world(2);
    NEED_NETWORKS(world);
    world.Introduce(false);
    world.At(0).KnowMachines(ReadFile(world.At(0).Home() + "/etc/machines.dat") +
                             "[lost]\nId=90\nManager Port=" + to_string(ManagerPort) +
                             "\nContact Address=203.0.113.9\n");
    ASSERT_TRUE(world.Start());
    Start("line cut", world.At(0), world.At(1));
    ASSERT_EQ(m_client.Line(), "ready");
    ASSERT_TRUE(world.Lines().Cut(1, 0));
    EXPECT_EQ(m_client.Line(20), "cut");
    const auto said = EchoLines(3);
    EXPECT_EQ(said.count("channel down"), 2U);
    EXPECT_EQ(said.count("machine down"), 1U);
    ASSERT_TRUE(world.Lines().Mend(1, 0));
    m_client.Write("\n");
    End();
}
