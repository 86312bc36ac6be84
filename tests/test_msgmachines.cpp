// Messages between machines that have networks of their own: asking and answering through network
// managers and over data channels, ports of a firewall, addresses that do not answer, and lines
// that are cut. Where such networks cannot be made the tests are skipped.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <deque>
#include <memory>
#include <set>

#include "core/context.h"
#include "core/list.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/process.h"
#include "core/strdynam.h"
#include "support/leftovers.h"
#include "support/messages.h"
#include "support/peer.h"
#include "support/world.h"

namespace {

#if defined(TEST_IS_EMULATED)
constexpr int32 Largest = 256 * 1024;
constexpr int Rounds = 1;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int32 Largest = 4 << 20;
constexpr int Rounds = 2;
#else
constexpr int32 Largest = 4 << 20;
constexpr int Rounds = 3;
#endif
constexpr int32 Sizes[] = {0, 1, 300, 65536, Largest, 7, 5000};
constexpr ProcIdT EchoId = 200, SecondId = 201, AskerId = 100;
constexpr MsgTypeT AskType = 5000, AnswerType = 5001, WhoType = 5002, SinkType = 5003,
                   StopType = 5004;

// --- what the processes share ---

// The bytes follow from the number.
std::string BytesOf(int32 size, int32 number) {
    std::string bytes(static_cast<std::size_t>(size), '\0');
    auto word = static_cast<uint32>(number);
    for (char& byte : bytes) byte = static_cast<char>((word += 2654435761U) >> 13);
    return bytes;
}

ObjDataFieldO BodyOf(int32 size, int32 number) {
    ObjDataFieldO body = nullptr;
    if (size > 0) ObjDataFieldCreate(&body, BytesOf(size, number).data(), size);
    return body;
}

bool IsBody(MsgMessageO message, int32 size, int32 number) {
    ObjHolder<ObjDataFieldS> body;
    MsgGetObject(body.Address(), message, ObjDataFieldMagic);
    if (body.Get() == nullptr) return size == 0 && message->oObject == nullptr;
    const auto [length, data] = body.Get()->tValue;
    return std::string_view(static_cast<char*>(data), static_cast<std::size_t>(length)) ==
           BytesOf(size, number);
}

// The ends of a channel's socket: family and port of the one here, then of the other one.
std::string EndsOf(MsgAddressO channel) {
    ObjHolder<MsgChannelS> found;
    NetAddressT here, there;
    if (MsgGetChannel(found.Address(), channel) != TRUE ||
        NetGetLocalAddress(&here, MsgChannelSocket(found.Get())) != TRUE ||
        NetGetRemoteAddress(&there, MsgChannelSocket(found.Get())) != TRUE)
        return "no channel";
    const auto text = [](NetAddressT* end) {
        return std::string(NetGetFamily(end) == AF_INET6 ? "6 " : "4 ") +
               std::to_string(NetGetIpPort(end));
    };
    return text(&here) + " " + text(&there);
}

// --- the process that answers ---

class Echo {
 public:
    explicit Echo(bool waits) : m_waits(waits) {}

    int Run(ProcIdT id) {
        if (!Connect(id)) return 10;
        const Leftovers before;
        Say("up");
        while (!m_stop) {
            Message message;
            if (MsgReceive(message.Address(), nullptr) == TRUE) Take(message.Get());
        }
        while (gtTlContext.sMsg.oLingerList->lItemCount > 0) {
            Message late;
            MsgReceive(late.Address(), nullptr);
        }
        const std::string left = before.Text();
        Say("stopped " + left);
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
            case WhoType: {
                const std::string text =
                    MsgIsFromAChannel(message) == TRUE
                        ? EndsOf(source.Get())
                        : "level " + std::to_string(TraceSetLevel(eTraceLevelUnchanged));
                const ObjHolder<ObjStringS> who(ObjStringNew(text.c_str()));
                MsgSendReply(message, AnswerType, who.Get());
                break;
            }
            case SinkType:
                if (!IsBody(message, Largest, 1)) Say("changed on the way");
                break;
            case MSG_CONNECT_MSG:
                Answer(message);
                break;
            case MSG_CHANNEL_DOWN_MSG:
                MsgChannelClose(source.Address());
                Say("channel down");
                break;
            case CMGR_MACHINE_DOWN_MSG:
                Say("machine down");
                break;
            case MSG_LOST_RECEIVE_QUEUE_MSG:
            case StopType:
                m_stop = true;
                break;
            default:
                break;
        }
    }

    void Answer(MsgMessageO message) {
        Address channel;
        const auto start = Clock::now();
        const bool waits = m_waits || m_answered++ % 2 == 0;
        const BooleanT done = MsgChannelCompleteInternal(
            channel.Address(), message,
            m_answered % 4 < 2 ? eMsgChannelBlocking : eMsgChannelNonBlocking,
            waits ? eMsgChannelWaitForConnect : eMsgChannelDoNotWaitForConnect, eMsgChannelSendOk);
        if (m_waits) Say("answered " + std::to_string(SecondsSince(start)));
        ObjHolder<MsgConnectS> body;
        MsgGetObject(body.Address(), message, MsgConnectMagic);
        if (done != TRUE) Say("refused " + std::to_string(body.Get()->lErrorCode));
    }

    bool m_waits;
    bool m_stop = false;
    int m_answered = 0;
};

const Role echoRole("echo", [](const std::vector<std::string>& arguments) {
    return Echo(arguments.size() > 1).Run(std::stoi(arguments.at(0)));
});

const Role stopRole("stop", [](const std::vector<std::string>& arguments) {
    const std::string& machine = arguments.at(0);
    for (std::size_t n = 1; n < arguments.size(); n++) {
        if (n == 1 && !Connect(AskerId - 1)) return 10;
        const Address echoes(AddressOf(machine, std::stoi(arguments[n])));
        if (MsgSendObject(echoes.Get(), StopType, nullptr) != TRUE) return 11;
    }
    ContextReleaseThread();
    return 0;
});

// --- the processes that ask ---

class Asker {
 public:
    explicit Asker(ProcIdT id) {
        if (!Connect(id)) m_wrong = " cannot connect";
        m_before = std::make_unique<Leftovers>();
    }

    void Wrong(const std::string& what) { m_wrong += " " + what; }
    bool Right() const { return m_wrong.empty(); }

    void Send(MsgAddressO to, MsgTypeT type, int32 size, int32 number) {
        const ObjHolder<ObjDataFieldS> body(BodyOf(size, number));
        if (MsgSendObject(to, type, body.Get()) != TRUE) Wrong("cannot send");
    }
    void AskAll(MsgAddressO to, int rounds) {
        for (int32 number = 0; number < rounds; number++) {
            for (const int32 size : Sizes) Send(to, AskType, size, number);
        }
    }
    void TakeAll(MsgAddressO from, int rounds) {
        for (int32 number = 0; number < rounds && Right(); number++) {
            for (const int32 size : Sizes) TakeAnswer(from, size, number);
        }
    }
    void TakeAnswer(MsgAddressO from, int32 size, int32 number) {
        Message answer;
        Await(answer, AnswerType, from);
        if (answer.Get() != nullptr && !IsBody(answer.Get(), size, number))
            Wrong("another answer than to " + std::to_string(size) + " bytes");
    }
    void AskOnce(MsgAddressO to) {
        Send(to, AskType, 300, 77);
        TakeAnswer(to, 300, 77);
    }
    void Await(Message& message, MsgTypeT type, MsgAddressO from, int32 seconds = 60) {
        const ObjHolder<TimeTimeoutS> timeout(In(seconds));
        if (MsgReceiveMsgTypeFromAddress(message.Address(), type, from, timeout.Get()) != TRUE)
            Wrong(std::string("no ") + MsgName(type));
    }
    // The body of the next message of a type; null, and wrong, when there is none of its class.
    template <class T>
    T* Take(MsgTypeT type, int32 magic, MsgAddressO from, int32 seconds = 60) {
        Message message;
        T* body = nullptr;
        Await(message, type, from, seconds);
        MsgGetObject(&body, message.Get(), magic);
        if (body == nullptr) Wrong(std::string("another body in ") + MsgName(type));
        return body;
    }
    // A data channel in one of the eight ways; null when it cannot be opened.
    MsgAddressO Open(MsgAddressO to, int way) {
        const ObjHolder<ObjIntegerS> cookie(ObjIntegerNew(way));
        MsgAddressO channel = nullptr;
        const bool waits = (way & 2) != 0;
        if (MsgChannelOpenInternal(
                &channel, to, nullptr, cookie.Get(),
                (way & 1) != 0 ? eMsgChannelBlocking : eMsgChannelNonBlocking,
                waits ? eMsgChannelWaitForAccept : eMsgChannelDoNotWaitForAccept,
                (way & 4) != 0 ? eMsgChannelWaitForOk : eMsgChannelDoNotWaitForOk) != TRUE)
            return nullptr;
        if (waits) return channel;
        const ObjHolder<MsgConnectedS> body(
            Take<MsgConnectedS>(MSG_CONNECTED_MSG, MsgConnectedMagic, to));
        if (body.Get() == nullptr || body.Get()->bSuccess != TRUE) return nullptr;
        if (ObjGetInteger(static_cast<ObjIntegerO>(body.Get()->oCookie)) != way)
            Wrong("another cookie");
        ObjIncRefCount(body.Get()->oAddress);
        return body.Get()->oAddress;
    }
    // What the process says of the channel, or without one of its trace level.
    std::string Who(MsgAddressO of) {
        MsgSendObject(of, WhoType, nullptr);
        const ObjHolder<ObjStringS> said(Take<ObjStringS>(AnswerType, ObjStringMagic, of));
        return said.Get() == nullptr ? "" : said.Get()->pstrValue;
    }
    // What both processes see of the socket.
    std::string Ends(MsgAddressO channel) {
        const std::string mine = EndsOf(channel);
        const std::string theirs = Who(channel);
        const auto half = theirs.find(' ', 2);
        if (half == std::string::npos ||
            theirs.substr(half + 1) + " " + theirs.substr(0, half) != mine)
            Wrong("ends " + mine + " and " + theirs);
        return mine;
    }
    // Until the channels that have been closed are gone.
    void Linger() {
        const auto start = Clock::now();
        while (Right() && gtTlContext.sMsg.oLingerList->lItemCount > 0) {
            Drain(In(1));
            if (SecondsSince(start) > 30) Wrong("a channel does not close");
        }
    }
    // Nothing may be there any more but what channels leave, nor anything be left over.
    int End() {
        Linger();
        Drain(In(0));
        if (Right() && !m_before->Text().empty()) Wrong("left over: " + m_before->Text());
        Say("end" + m_wrong);
        ContextReleaseThread();
        return m_wrong.empty() ? 0 : 11;
    }

 private:
    void Drain(TimeTimeoutO until) {
        const ObjHolder<TimeTimeoutS> timeout(until);
        for (;;) {
            Message message;
            if (MsgReceive(message.Address(), timeout.Get()) != TRUE) return;
            const MsgTypeT type = MsgType(message.Get());
            if (type != MSG_CONNECTED_OK_MSG && type != MSG_CHANNEL_DOWN_MSG)
                Wrong(std::string("got a ") + MsgName(type));
            if (gtTlContext.sMsg.oLingerList->lItemCount == 0 && MsgReceiveCount() == 0) return;
        }
    }

    std::string m_wrong;
    std::unique_ptr<Leftovers> m_before;
};

// family, then machines: all of them are asked at once, then over channels of every kind.
const Role askRole("ask", [](const std::vector<std::string>& arguments) {
    std::deque<Address> peers;
    for (std::size_t n = 1; n < arguments.size(); n++)
        peers.emplace_back(AddressOf(arguments[n], EchoId));
    Asker asker(AskerId);
    for (const auto& peer : peers) asker.AskAll(peer.Get(), Rounds);
    Say("asked");
    for (const auto& peer : peers) asker.TakeAll(peer.Get(), Rounds);
    for (const auto& peer : peers) {
        for (int way = 0; way < 8 && asker.Right(); way++) {
            MsgAddressO channel = asker.Open(peer.Get(), way);
            if (channel == nullptr) {
                asker.Wrong("cannot open, way " + std::to_string(way));
                break;
            }
            asker.AskAll(channel, 1);
            asker.TakeAll(channel, 1);
            const std::string ends = asker.Ends(channel);
            if (ends.find(arguments[0] + " ") != 0 ||
                ends.find(" " + arguments[0] + " ") == std::string::npos)
                asker.Wrong("family: " + ends);
            MsgChannelClose(&channel);
        }
    }
    return asker.End();
});

// Opens channels until none can be opened any more, tells their ends, and opens once more after it
// has closed one.
const Role portsRole("ports", [](const std::vector<std::string>& arguments) {
    const Address peer(AddressOf(arguments.at(0), EchoId));
    Asker asker(AskerId);
    asker.AskOnce(peer.Get());
    std::vector<MsgAddressO> channels;
    for (MsgAddressO channel; (channel = asker.Open(peer.Get(), 6)) != nullptr;) {
        Say(asker.Ends(channel));
        channels.push_back(channel);
    }
    Say("no more");
    MsgChannelClose(&channels.front());
    asker.Linger();
    channels.front() = asker.Open(peer.Get(), 6);
    if (channels.front() == nullptr) asker.Wrong("cannot open again");
    for (MsgAddressO& channel : channels) MsgChannelClose(&channel);
    return asker.End();
});

// Asks for channels without waiting for them, as many as told.
const Role callRole("call", [](const std::vector<std::string>& arguments) {
    if (!Connect(AskerId)) return 10;
    const Address peer(AddressOf(arguments.at(0), EchoId));
    for (int n = std::stoi(arguments.at(1)); n > 0; n--) {
        if (MsgChannelOpenInternal(nullptr, peer.Get(), nullptr, nullptr, eMsgChannelNonBlocking,
                                   eMsgChannelDoNotWaitForAccept, eMsgChannelWaitForOk) != TRUE)
            return 11;
    }
    for (;;) {
        Message message;
        if (MsgReceive(message.Address(), nullptr) == TRUE && MsgType(message.Get()) == StopType)
            break;
    }
    MsgQuickExit(TRUE);
    ContextReleaseThread();
    return 0;
});

// Asks once, sets the trace level over there, and asks over a channel.
const Role onceRole("once", [](const std::vector<std::string>& arguments) {
    const Address peer(AddressOf(arguments.at(0), EchoId));
    Asker asker(AskerId);
    asker.AskOnce(peer.Get());
    {
        const ObjHolder<ObjIntegerS> level(ObjIntegerNew(2));
        MsgSendObject(peer.Get(), MSG_SET_TRACE_LEVEL_MSG, level.Get());
    }
    if (const std::string said = asker.Who(peer.Get()); said != "level 2")
        asker.Wrong("a message for another machine was taken on the way: " + said);
    MsgAddressO channel = asker.Open(peer.Get(), 6);
    asker.AskAll(channel, 1);
    asker.TakeAll(channel, 1);
    MsgChannelClose(&channel);
    return asker.End();
});

// Sends large messages one after the other over a channel until it is down.
void SendUntilDown(Asker* asker, MsgAddressO* channel) {
    const ObjHolder<ObjDataFieldS> large(BodyOf(Largest, 1));
    ObjHolder<MsgChannelS> link;
    MsgGetChannel(link.Address(), *channel);
    Message down;
    const auto start = Clock::now();
    while (down.Get() == nullptr && SecondsSince(start) < 30) {
        const ObjHolder<TimeTimeoutS> soon(In(link.Get()->bBlocking == TRUE ? 0 : 1));
        // There is always a message of which only a part has left.
        while (MsgChannelOutputCount(link.Get()) < 2 &&
               MsgSendObject(*channel, SinkType, large.Get()) == TRUE &&
               link.Get()->bBlocking != TRUE) {
        }
        MsgReceiveMsgTypeFromAddress(down.Address(), MSG_CHANNEL_DOWN_MSG, *channel, soon.Get());
    }
    if (down.Get() == nullptr) asker->Wrong("channel is not down");
    MsgChannelClose(channel);
}

// Sends over a channel that blocks, and sees its line go.
const Role blockRole("block", [](const std::vector<std::string>& arguments) {
    Asker asker(AskerId + 1);
    MsgAddressO channel = nullptr;
    {
        const Address second(AddressOf(arguments.at(0), SecondId));
        channel = asker.Open(second.Get(), 7);
    }
    Say("sending");
    SendUntilDown(&asker, &channel);
    {
        Message message;
        asker.Await(message, CMGR_MACHINE_DOWN_MSG, nullptr);
    }
    return asker.End();
});

// What the end of a line brings, and what can be done while it is cut and afterwards.
class Watcher {
 public:
    explicit Watcher(const std::string& machine)
        : m_machine(machine),
          m_echo(AddressOf(machine, EchoId)),
          m_second(AddressOf(machine, SecondId)) {}

    void UntilCut() {
        m_asker.AskOnce(m_second.Get());
        Watch();
        GiveTask();
        MsgAddressO channel = m_asker.Open(m_second.Get(), 6);
        m_asker.AskOnce(channel);
        Say("sending");
        SendUntilDown(&m_asker, &channel);
        TakeMachineDown();
        TakeDied();
        TakeTask(9);
        Say("cut");
    }

    void WhileCut(const std::vector<std::string>& unreachable) {
        GiveTask();
        TakeTask(17);
        for (const std::string& machine : unreachable) {
            const Address there(AddressOf(machine, SecondId));
            NoAnswer(there.Get());
            TakeUnreachable(machine, AskType, ObjDataFieldMagic);
            NoChannel(there.Get());
            TakeUnreachable(machine, MSG_CONNECT_MSG, MsgConnectMagic);
        }
        Say("unreachable");
        Message go;
        m_asker.Await(go, StopType, nullptr);
    }

    int Afterwards() {
        Watch();
        m_asker.AskOnce(m_echo.Get());
        Say("watching");
        TakeDied();
        for (const bool asks : {true, false}) {
            asks ? NoAnswer(m_echo.Get()) : NoChannel(m_echo.Get());
            Message notice;
            m_asker.Await(notice, CMGR_PROCESS_UNREACHABLE_MSG, nullptr, 1);
        }
        m_asker.AskOnce(m_second.Get());
        ObjRelease(m_echo.Address());
        ObjRelease(m_second.Address());
        return m_asker.End();
    }

 private:
    void Watch() {
        const Address manager(AddressOf(m_machine, MsgProcessManagerId));
        const New<PmgrNotifyOnDeathS> body(PmgrNotifyOnDeathMagic, "o;",
                                           {AddressOf(m_machine, EchoId)});
        MsgSendObject(manager.Get(), PMGR_NOTIFY_ON_DEATH_MSG, body.Get());
    }
    // Of a service behind a process that never says what has become of it.
    void GiveTask() {
        New<ProcAddressS> service(ProcAddressMagic, "s;s;i;",
                                  {StrDuplicate(m_machine.c_str()), StrDuplicate("service"), 7});
        const New<PmgrGiveServiceATaskS> task(PmgrGiveServiceATaskMagic, "o;s;i;s;b;o;i;");
        task->oProcAddress = service.Take();
        task->lCookie = ++m_cookie;
        MsgSendObject(m_second.Get(), PMGR_GIVE_SERVICE_A_TASK_MSG, task.Get());
    }
    void TakeTask(int32 error) {
        const ObjHolder<PmgrGiveServiceATaskReturnS> body(m_asker.Take<PmgrGiveServiceATaskReturnS>(
            PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, PmgrGiveServiceATaskReturnMagic, nullptr, 10));
        if (body.Get() == nullptr || body.Get()->bSuccess != FALSE ||
            body.Get()->lErrorCode != error || body.Get()->lCookie != m_cookie)
            m_asker.Wrong("another reply to the task");
    }
    void TakeMachineDown() {
        const ObjHolder<CmgrMachineDownS> body(m_asker.Take<CmgrMachineDownS>(
            CMGR_MACHINE_DOWN_MSG, CmgrMachineDownMagic, nullptr, 10));
        if (body.Get() == nullptr || m_machine != body.Get()->pstrMachineName)
            m_asker.Wrong("another machine is down");
    }
    void TakeDied() {
        const ObjHolder<PmgrProcessDiedS> body(m_asker.Take<PmgrProcessDiedS>(
            PMGR_PROCESS_DIED_MSG, PmgrProcessDiedMagic, nullptr, 10));
        if (body.Get() == nullptr || MsgAddressEqual(body.Get()->oAddress, m_echo.Get()) != TRUE)
            m_asker.Wrong("another process died");
    }
    void TakeUnreachable(const std::string& machine, MsgTypeT type, int32 magic) {
        const ObjHolder<NmgrMachineUnreachableS> body(m_asker.Take<NmgrMachineUnreachableS>(
            NMGR_MACHINE_UNREACHABLE_MSG, NmgrMachineUnreachableMagic, nullptr, 1));
        if (body.Get() == nullptr || machine != body.Get()->pstrMachineName ||
            body.Get()->tMsgType != type ||
            ObjCheckTypeInternal(body.Get()->oUndelivered, magic) != TRUE)
            m_asker.Wrong("another notice of " + machine);
    }
    // The wait for a channel ends long before its time.
    void NoChannel(MsgAddressO to) {
        const auto start = Clock::now();
        if (m_asker.Open(to, 6) != nullptr || SecondsSince(start) > 20)
            m_asker.Wrong(std::string("waited for a channel to ") + MsgGetMachineName(to));
    }
    // So does the wait for an answer.
    void NoAnswer(MsgAddressO from) {
        Message message;
        const ObjHolder<TimeTimeoutS> timeout(In(60));
        const auto start = Clock::now();
        m_asker.Send(from, AskType, 300, 1);
        if (MsgReceiveMsgTypeFromAddress(message.Address(), AnswerType, from, timeout.Get()) ==
                TRUE ||
            SecondsSince(start) > 20)
            m_asker.Wrong(std::string("waited for ") + MsgGetMachineName(from));
    }

    Asker m_asker{AskerId};
    std::string m_machine;
    Address m_echo, m_second;
    int32 m_cookie = 0;
};

const Role watchRole("watch", [](const std::vector<std::string>& arguments) {
    Watcher watcher(arguments.at(0));
    watcher.UntilCut();
    watcher.WhileCut(arguments);
    return watcher.Afterwards();
});

// --- the machines ---

int Stop(World& world, int n, const std::vector<std::string>& ids) {
    std::vector<std::string> arguments = {world.At(n).Name()};
    arguments.insert(arguments.end(), ids.begin(), ids.end());
    return world.At(n).InRole("stop", arguments).Wait();
}

const std::string EchoName = std::to_string(EchoId);

// Every machine asks every other one, all at the same moment.
void AskEachOther(World& world, const std::string& family) {
    std::vector<Process> echoes, askers;
    for (int n = 0; n < world.Count(); n++) {
        echoes.push_back(world.At(n).InRole("echo", {EchoName}));
        ASSERT_EQ(echoes.back().Line(), "up");
    }
    for (int n = 0; n < world.Count(); n++) world.At(n).Network().Signal(SIGSTOP);
    for (int n = 0; n < world.Count(); n++) {
        std::vector<std::string> arguments = {family};
        for (int other = 0; other < world.Count(); other++) {
            if (other != n) arguments.push_back(world.At(other).Name());
        }
        askers.push_back(world.At(n).InRole("ask", arguments));
        ASSERT_EQ(askers.back().Line(), "asked");
    }
    for (int n = 0; n < world.Count(); n++) world.At(n).Network().Signal(SIGCONT);
    for (Process& asker : askers) EXPECT_EQ(asker.Wait(120), 0) << asker.Rest();
    for (int n = 0; n < world.Count(); n++) {
        EXPECT_EQ(Stop(world, n, {EchoName}), 0);
        Process& stopped = echoes[static_cast<std::size_t>(n)];
        EXPECT_EQ(stopped.Wait(), 0) << stopped.Rest();
    }
}

}  // namespace

TEST(Machines, AskAndAnswerEachOther) {
    for (const bool inet6 : {false, true}) {  // three over the one family, two over the other alone
        World world(inet6 ? 2 : 3);
        NEED_NETWORKS(world);
        world.Introduce(inet6);
        for (int n = 0; inet6 && n < world.Count(); n++)
            world.At(n).Configure("configure.cfg", "[Network]\nPrefer IPV6 for Messaging=TRUE\n");
        ASSERT_TRUE(world.Start());
        AskEachOther(world, inet6 ? "6" : "4");
    }
}

TEST(Machines, DataChannelsKeepToThePortsOfTheFirewall) {
    World world(2);
    NEED_NETWORKS(world);
    world.Introduce(false);
    const std::string firewall = "/config/firewall.cfg", section = "[MsgChannel]\n";
    WriteFile(world.At(0).Home() + firewall, section + "Ports=21001 - 21002\n");
    WriteFile(world.At(1).Home() + firewall, section + "Out Ports=22001,22003 - 22005\n");
    ASSERT_TRUE(world.Start());
    Process echoes = world.At(1).InRole("echo", {EchoName});
    ASSERT_EQ(echoes.Line(), "up");

    Process ports = world.At(0).InRole("ports", {world.At(1).Name()});
    EXPECT_EQ(ports.Line(), "4 21001 4 22001");
    EXPECT_EQ(ports.Line(), "4 21002 4 22003");
    EXPECT_EQ(ports.Line(), "no more");
    EXPECT_EQ(ports.Wait(), 0) << ports.Rest();
    std::multiset<std::string> said;
    for (int n = 0; n < 4; n++) said.insert(echoes.Line());
    EXPECT_EQ(said.count("refused 2"), 1U);  // the opener could not listen
    EXPECT_EQ(said.count("channel down"), 3U);

    // One port to go out: the second answer fails, whatever the opener could do.
    WriteFile(world.At(1).Home() + firewall, section + "Out Ports=22001\n");
    Process call = world.At(0).InRole("call", {world.At(1).Name(), "2"});
    EXPECT_EQ(echoes.Line(), "refused 0");
    EXPECT_EQ(Stop(world, 0, {std::to_string(AskerId)}), 0);
    EXPECT_EQ(call.Wait(), 0);
    EXPECT_EQ(echoes.Line(), "channel down");
    EXPECT_EQ(Stop(world, 1, {EchoName}), 0);
    EXPECT_EQ(echoes.Wait(), 0) << echoes.Rest();
}

TEST(Machines, AddressesThatDoNotAnswerArePassedOver) {
    World world(2);
    NEED_NETWORKS(world);
    Networks& lines = world.Lines();
    world.At(0).KnowMachines(
        world.Stanza(1, 0, "Networks=" + lines.Silent(1, 0, 0) + "," + lines.Inet(1, 0) + "\n"));
    world.At(1).KnowMachines(world.Stanza(0, 1, "Contact Address=many\n"));
    world.At(1).KnowHosts("127.0.0.1 localhost\n" + lines.Silent(0, 1, 0) + " many\n" +
                          lines.Silent(0, 1, 1) + " many\n" + lines.Inet(0, 1) + " many\n");
    ASSERT_TRUE(world.Start());
    Process echoes = world.At(1).InRole("echo", {EchoName, "waits"});
    ASSERT_EQ(echoes.Line(), "up");
    Process once = world.At(0).InRole("once", {world.At(1).Name()});
    EXPECT_EQ(once.Wait(60), 0) << once.Rest();
    const std::string answered = echoes.Line();
    ASSERT_TRUE(answered.starts_with("answered "));
    const int seconds = std::stoi(answered.substr(9));
    EXPECT_TRUE(seconds >= 2 && seconds < 6) << seconds;  // one for each silent address
    EXPECT_EQ(Stop(world, 1, {EchoName}), 0);
    EXPECT_EQ(echoes.Wait(), 0) << echoes.Rest();
}

TEST(Machines, ALineThatIsCutEndsWhatDependsOnIt) {
    World world(2);
    NEED_NETWORKS(world);
    world.Introduce(false);
    const std::string there = world.At(1).Name();
    const std::string port = "Manager Port=" + std::to_string(ManagerPort) + "\n";
    world.At(0).KnowMachines(ReadFile(world.At(0).Home() + "/etc/machines.dat") +
                             "[lost]\nId=90\n" + port + "Contact Address=203.0.113.9\n" +
                             "[silent]\nId=91\n" + port +
                             "Contact Address=" + world.Lines().Silent(1, 0, 0) + "\n");
    ASSERT_TRUE(world.Start());
    Process echoes = world.At(1).InRole("echo", {EchoName});
    Process second = world.At(1).InRole("echo", {std::to_string(SecondId)});
    for (Process* process : {&echoes, &second}) ASSERT_EQ(process->Line(), "up");
    Process block = world.At(0).InRole("block", {there});
    ASSERT_EQ(block.Line(), "sending") << block.Rest();
    Process watch = world.At(0).InRole("watch", {there, "lost", "silent"});
    ASSERT_EQ(watch.Line(), "sending") << watch.Rest();

    ASSERT_TRUE(world.Lines().Cut(1, 0));
    EXPECT_EQ(watch.Line(20), "cut");
    EXPECT_EQ(block.Wait(20), 0) << block.Rest();
    EXPECT_EQ(echoes.Line(20), "machine down");
    std::multiset<std::string> said;
    for (int n = 0; n < 3; n++) said.insert(second.Line(20));
    EXPECT_EQ(said.count("channel down"), 2U);
    EXPECT_EQ(said.count("machine down"), 1U);
    EXPECT_EQ(watch.Line(), "unreachable");

    ASSERT_TRUE(world.Lines().Mend(1, 0));
    EXPECT_EQ(Stop(world, 0, {std::to_string(AskerId)}), 0);
    ASSERT_EQ(watch.Line(), "watching") << watch.Rest();
    echoes.Signal(SIGKILL);
    EXPECT_EQ(watch.Wait(), 0) << watch.Rest();
    EXPECT_EQ(Stop(world, 1, {std::to_string(SecondId)}), 0);
    EXPECT_EQ(second.Wait(), 0) << second.Rest();
}
