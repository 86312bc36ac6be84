// Many processes that send to each other, through the managers and over data channels opened in
// every way, all at once: of one machine, and of machines with networks of their own. Every message
// arrives once, in order for each sender and route, intact, and nothing is left over.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <map>
#include <random>
#include <utility>

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

#if defined(TEST_IS_EMULATED)
constexpr int Processes = 6, MessagesEach = 60, MessagesBetween = 20;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int Processes = 12, MessagesEach = 250, MessagesBetween = 100;
#else
constexpr int Processes = 20, MessagesEach = 5000, MessagesBetween = 400;
#endif
constexpr int Neighbours = 4;  // data channels that each process opens
constexpr ProcIdT FirstId = 100;
constexpr MsgTypeT EndType = 5001, DataType = 6000, DataTypes = 1000;

// One way from a sender to this process, or from it to a receiver.
struct Route {
    int next = 0;        // number of the next message
    int announced = -1;  // how many there are, once the sender has said so
};
using RouteKey = std::pair<ProcIdT, bool>;  // peer, over a data channel

// Size and bytes of a message follow from who sends it to whom and from its number.
std::string BytesOf(ProcIdT from, ProcIdT to, bool channel, int number) {
    std::mt19937_64 random(
        static_cast<std::uint64_t>(from) << 48 ^ static_cast<std::uint64_t>(to) << 33 ^
        static_cast<std::uint64_t>(channel) << 32 ^ static_cast<std::uint64_t>(number));
    const std::uint64_t limits[] = {200, 200, 200, 4096, 4096, 65536};
    const auto kind = random() % 1200;
    std::string bytes(random() % (kind < 200 ? 1 : kind < 206 ? 4 << 20 : limits[kind % 6]), ' ');
    for (std::size_t at = 0; at < bytes.size(); at += 8) {
        const std::uint64_t word = random();
        std::memcpy(&bytes[at], &word, std::min<std::size_t>(8, bytes.size() - at));
    }
    return bytes;
}

// Of the processes in turn each is on the next machine; "" is this one.
class Exchanger {
 public:
    Exchanger(int number, int processes, int messages, int family, Arguments machines)
        : m_id(FirstId + number),
          m_processes(processes),
          m_messages(messages),
          m_family(family),
          m_machines(std::move(machines)),
          m_random(static_cast<std::uint64_t>(m_id)) {}

    int Run() {
        if (!Connect(m_id)) return 10;
        AtOnce();
        const Leftovers before;
        Say("up");
        std::getchar();
        for (int n = 1; n <= Neighbours; n++) Open(IdAfter(n));
        for (int n = 0; n < m_messages && m_wrong.empty(); n++) {
            SendOne();
            while (Receive(AtOnce())) {
            }
        }
        Announce();
        while (m_wrong.empty() && !Complete()) Receive(nullptr);
        Goodbye();
        const std::string left = before.Text();
        if (!left.empty()) m_wrong += " left over: " + left;
        Say(to_string(m_received) + " " + m_wrong);
        ContextReleaseThread();
        return m_wrong.empty() ? 0 : 11;
    }

 private:
    static TimeTimeoutO AtOnce() {
        static TimeTimeoutO immediate = In(0);
        return immediate;
    }

    ProcIdT IdAfter(int n) const { return FirstId + (m_id - FirstId + n) % m_processes; }
    MsgAddressO Of(ProcIdT id) const {
        const auto number = static_cast<std::size_t>(id - FirstId);
        const std::string& machine = m_machines[number % m_machines.size()];
        return machine.empty() ? AddressOf(id) : AddressOf(machine, id);
    }

    // Any kind of opening; waiting for the accept only in a direction without circles, as the other
    // side must come to answering.
    void Open(ProcIdT to) {
        const Address target(Of(to));
        const auto kind = m_random() % 8;
        const bool waits = to > m_id && (kind & 1) != 0;
        const ObjHolder<ObjIntegerS> mine(ObjIntegerNew(to));
        const ObjHolder<ObjIntegerS> theirs(ObjIntegerNew(m_id));
        MsgAddressO channel = nullptr;
        if (MsgChannelOpenInternal(
                &channel, target.Get(), theirs.Get(), mine.Get(),
                (kind & 2) != 0 ? eMsgChannelBlocking : eMsgChannelNonBlocking,
                waits ? eMsgChannelWaitForAccept : eMsgChannelDoNotWaitForAccept,
                (kind & 4) != 0 ? eMsgChannelWaitForOk : eMsgChannelDoNotWaitForOk) != TRUE)
            m_wrong += " cannot open to " + to_string(to);
        if (waits && channel != nullptr) m_channels[to] = channel;
    }

    void Answer(MsgMessageO message) {
        MsgAddressO channel = nullptr;
        const auto kind = m_random() % 4;
        if (MsgChannelCompleteInternal(
                &channel, message, (kind & 1) != 0 ? eMsgChannelBlocking : eMsgChannelNonBlocking,
                (kind & 2) != 0 ? eMsgChannelWaitForConnect : eMsgChannelDoNotWaitForConnect,
                eMsgChannelSendOk) != TRUE)
            m_wrong += " cannot answer";
        if (channel != nullptr) m_answered.push_back(channel);
    }

    void TakeConnected(MsgMessageO message) {
        ObjHolder<MsgConnectedS> body;
        Address sender;
        MsgGetObject(body.Address(), message, MsgConnectedMagic);
        if (body.Get() == nullptr || body.Get()->bSuccess != TRUE) {
            m_wrong += " connection failed";
            return;
        }
        // The cookie of a channel that this process has opened is the target's id.
        const int32 id = static_cast<ObjIntegerO>(body.Get()->oCookie)->lValue;
        ObjIncRefCount(body.Get()->oAddress);
        if (MsgGetSender(sender.Address(), message) == TRUE && sender.Get()->tProcessId == id &&
            !m_channels.contains(id) && Opens(id))
            m_channels[id] = body.Get()->oAddress;
        else
            m_answered.push_back(body.Get()->oAddress);
    }

    // Whether this process opens a channel to that one; it may be the other way round as well.
    bool Opens(ProcIdT id) const {
        const int n = (id - m_id + m_processes) % m_processes;
        return n >= 1 && n <= Neighbours;
    }

    void SendNumbered(ProcIdT to, bool channel) {
        Route& route = m_out[{to, channel}];
        std::string bytes = BytesOf(m_id, to, channel, route.next);
        const ObjHolder<ObjDataFieldS> body(
            bytes.empty() ? nullptr
                          : ObjDataFieldNew(bytes.data(), static_cast<int32>(bytes.size())));
        const Address process(Of(to));
        if (MsgSendObject(channel ? m_channels[to] : process.Get(),
                          DataType + route.next % DataTypes, body.Get()) != TRUE)
            m_wrong += " cannot send";
        route.next++;
    }

    void SendOne() {
        const auto others = static_cast<std::uint64_t>(m_processes - 1);
        const ProcIdT to = IdAfter(1 + static_cast<int>(m_random() % others));
        if (m_channels.empty() || m_random() % 2 == 0) return SendNumbered(to, false);
        auto channel = m_channels.begin();
        std::advance(channel, m_random() % m_channels.size());
        SendNumbered(channel->first, true);
    }

    void Announce() {
        while (m_channels.size() < Neighbours && m_wrong.empty()) Receive(nullptr);
        for (int n = 1; n < m_processes; n++) {
            const Address process(Of(IdAfter(n)));
            SendCount(process.Get(), {IdAfter(n), false});
        }
        for (const auto& [to, channel] : m_channels) {
            ObjHolder<MsgChannelS> found;
            NetAddressT there = {};
            SendCount(channel, {to, true});
            MsgGetChannel(found.Address(), channel);
            NetGetRemoteAddress(&there, MsgChannelSocket(found.Get()));
            if (NetGetFamily(&there) != m_family) m_wrong += " another family";
        }
    }
    void SendCount(MsgAddressO to, RouteKey key) {
        const ObjHolder<ObjIntegerS> count(ObjIntegerNew(m_out[key].next));
        MsgSendObject(to, EndType, count.Get());
    }

    bool Complete() {
        int ended = 0;
        for (const auto& [key, route] : m_in) {
            if (route.announced >= 0 && route.announced != route.next) m_wrong += " lost some";
            if (route.announced >= 0) ended++;
        }
        return ended == m_processes - 1 + Neighbours;  // as many come in as go out
    }

    // True when there was a message.
    bool Receive(TimeTimeoutO timeout) {
        Message message;
        if (MsgReceive(message.Address(), timeout) != TRUE) return false;
        const MsgTypeT type = MsgType(message.Get());
        if (type == MSG_CONNECT_MSG) {
            Answer(message.Get());
        } else if (type == MSG_CONNECTED_MSG) {
            TakeConnected(message.Get());
        } else if (type == EndType || (type >= DataType && type < DataType + DataTypes)) {
            TakeNumbered(message.Get());
        } else if (type != MSG_CONNECTED_OK_MSG && type != MSG_CHANNEL_DOWN_MSG) {
            m_wrong += std::string(" got a ") + MsgName(type);
        }
        return true;
    }

    void TakeNumbered(MsgMessageO message) {
        Address sender;
        MsgGetSender(sender.Address(), message);
        const ProcIdT from = sender.Get() == nullptr ? FirstId : sender.Get()->tProcessId;
        const Address expected(Of(from));
        if (MsgAddressEqual(sender.Get(), expected.Get()) != TRUE) {
            m_wrong += " unknown sender";
            return;
        }
        const bool channel = MsgIsFromAChannel(message) == TRUE;
        Route& route = m_in[{from, channel}];
        if (MsgType(message) == EndType) {
            ObjHolder<ObjIntegerS> count;
            MsgGetObject(count.Address(), message, ObjIntegerMagic);
            route.announced = count.Get()->lValue;
            return;
        }
        if (MsgType(message) != DataType + route.next % DataTypes || route.announced >= 0)
            m_wrong += " out of order from " + to_string(from);
        ObjHolder<ObjDataFieldS> body;
        MsgGetObject(body.Address(), message, ObjDataFieldMagic);
        const auto [size, data] = body.Get() == nullptr ? ObjDataFieldT() : body.Get()->tValue;
        if (std::string_view(static_cast<char*>(data), static_cast<std::size_t>(size)) !=
            BytesOf(from, m_id, channel, route.next))
            m_wrong += " changed on the way from " + to_string(from);
        route.next++;
        m_received++;
    }

    // Closes what it has opened, and waits until all channels are gone on both sides.
    void Goodbye() {
        for (auto& [to, channel] : m_channels) MsgChannelClose(&channel);
        for (MsgAddressO& channel : m_answered) MsgChannelClose(&channel);
        const TesselContextMsgS& state = gtTlContext.sMsg;
        while (m_wrong.empty() && state.oLingerList->lItemCount > 0) Receive(nullptr);
        while (Receive(AtOnce())) {
        }
    }

    ProcIdT m_id;
    int m_processes, m_messages, m_family;
    Arguments m_machines;
    std::mt19937_64 m_random;
    int m_received = 0;
    std::string m_wrong;
    std::map<ProcIdT, MsgAddressO> m_channels;  // opened by this process
    std::vector<MsgAddressO> m_answered;        // opened by others
    std::map<RouteKey, Route> m_out, m_in;
};

const Role exchange("exchange", [](const Arguments& words) {
    return Exchanger(std::stoi(words[0]), std::stoi(words[1]), std::stoi(words[2]),
                     std::stoi(words[3]), {words.begin() + 4, words.end()})
        .Run();
});

void Exchange(const std::vector<Machine*>& machines, int count, int messages, int family) {
    std::vector<Process> processes;
    for (int n = 0; n < count; n++) {
        Arguments words = {to_string(n), to_string(count), to_string(messages), to_string(family)};
        for (const Machine* machine : machines) words.push_back(machine->Name());
        const auto of = static_cast<std::size_t>(n) % machines.size();
        processes.push_back(machines[of]->InRole("exchange", words));
    }
    for (Process& process : processes) ASSERT_EQ(process.Line(), "up");
    for (Process& process : processes) process.Write("start\n");
    int received = 0;
    for (Process& process : processes) {
        EXPECT_EQ(process.Wait(300), 0) << process.Rest();
        received += std::atoi(process.Rest().c_str());
    }
    EXPECT_EQ(received, count * messages);
}

// --- a socket that a parent hands over to its child ---

constexpr ProcIdT ParentId = 60, ChildId = 61;

NetInheritContextO AwaitContext(MsgTypeT type) {
    Message message;
    ObjHolder<NetInheritContextS> context;
    if (MsgReceiveMsgTypeFromAddress(message.Address(), type, nullptr, nullptr) != TRUE ||
        MsgGetObject(context.Address(), message.Get(), NetInheritContextMagic) != TRUE)
        return nullptr;
    return context.Take();
}

const Role child("child", [](const Arguments&) {
    if (!Connect(ChildId)) return 10;
    Say("up");
    ObjHolder<NetInheritContextS> context(AwaitContext(MSG_INHERIT_SOCKET_MSG));
    NetSocketT socket = -1;
    int32 sent = 0;
    char word[] = "handed";
    if (NetInheritPhase4(&socket, context.Get()) != TRUE) return 11;
    if (NetTcpSend(&sent, socket, word, 6) != NET_ERROR_NONE) return 12;
    NetClose(&socket);
    NetInheritDone(context.Address());
    ContextReleaseThread();
    return 0;
});

const Role parent("parent", [](const Arguments&) {
    if (!Connect(ParentId)) return 10;
    int ends[2];
    char word[7] = "";
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 11;
    ObjHolder<NetInheritContextS> context;
    if (NetInheritPhase1(context.Address(), ends[1]) != TRUE) return 12;
    Process process = Process::InRole("child", {}, std::getenv("KRHOME"));
    if (NetInheritPhase2(context.Get(), process.Id()) != TRUE || process.Line() != "up") return 13;
    if (NetInheritPhase3(context.Get(), ChildId) != TRUE) return 14;
    ObjHolder<NetInheritContextS> answer(AwaitContext(MSG_INHERITED_SOCKET_MSG));
    if (NetInheritMatch(context.Get(), answer.Get()) != TRUE || answer.Get()->bSuccess != TRUE)
        return 15;
    if (recv(ends[0], word, 6, MSG_WAITALL) != 6 || std::string(word) != "handed") return 16;
    if (recv(ends[0], word, 1, 0) != 0) return 17;  // the child's was the only one left
    NetInheritDone(context.Address());
    const int code = process.Wait();
    ContextReleaseThread();
    return code;
});

}  // namespace

TEST(Inherit, AParentHandsASocketToItsChild) {
    Machine machine;
    ASSERT_TRUE(machine.Start());
    EXPECT_EQ(machine.InRole("parent", {}).Wait(), 0);
}

TEST(Exchange, EveryMessageArrivesOnceInOrderIntact) {
    Machine machine;
    ASSERT_TRUE(machine.Start());
    Exchange({&machine}, Processes, MessagesEach, AF_INET);
}

TEST(Exchange, BetweenMachines) {
    for (const bool inet6 : {false, true}) {  // three over the one family, two over the other alone
        World world(inet6 ? 2 : 3);
        NEED_NETWORKS(world);
        world.Introduce(inet6);
        std::vector<Machine*> machines;
        for (int n = 0; n < world.Count(); n++) {
            machines.push_back(&world.At(n));
            if (!inet6) continue;
            world.At(n).KnowHosts("::1 localhost\n");
            world.At(n).Configure("configure.cfg", "[Network]\nPrefer IPV6 for Messaging=TRUE\n");
        }
        ASSERT_TRUE(world.Start());
        Exchange(machines, 6, MessagesBetween, inet6 ? AF_INET6 : AF_INET);
    }
}
