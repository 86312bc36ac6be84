// Many processes of one machine that send to each other, through the communications manager and
// over data channels opened in every way, all at once: every message arrives once, in order for
// each sender and route, intact, and nothing is left over.
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
#include "support/machine.h"
#include "support/peer.h"

namespace {

using Message = ObjHolder<MsgMessageS>;

#if defined(TEST_IS_EMULATED)
constexpr int Processes = 6, MessagesEach = 60;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int Processes = 12, MessagesEach = 250;
#else
constexpr int Processes = 20, MessagesEach = 5000;
#endif
constexpr int Neighbours = 4;  // data channels that each process opens
static_assert(Neighbours < Processes);
constexpr ProcIdT FirstId = 100;
constexpr MsgTypeT StartType = 5000, EndType = 5001, DataType = 6000, DataTypes = 1000;

// One way from a sender to this process, or from it to a receiver.
struct Route {
    int next = 0;        // number of the next message
    int announced = -1;  // how many there are, once the sender has said so
};
using RouteKey = std::pair<ProcIdT, bool>;  // peer, over a data channel

std::uint64_t SeedOf(ProcIdT from, ProcIdT to, bool channel, int number) {
    return (static_cast<std::uint64_t>(from) << 48) ^ (static_cast<std::uint64_t>(to) << 33) ^
           (static_cast<std::uint64_t>(channel) << 32) ^ static_cast<std::uint64_t>(number);
}

// Size and bytes of a message follow from who sends it to whom and from its number.
int32 SizeOf(std::mt19937_64& random) {
    const int32 limits[] = {200, 200, 200, 4096, 4096, 65536};
    const auto kind = random() % 1200;
    if (kind < 200) return 0;
    if (kind < 206) return static_cast<int32>(random() % (4 << 20));
    return static_cast<int32>(random() % static_cast<std::uint64_t>(limits[kind % 6]));
}

void Fill(ByteT* bytes, int32 size, std::mt19937_64& random) {
    for (int32 at = 0; at < size; at += 8) {
        const std::uint64_t word = random();
        std::memcpy(bytes + at, &word, static_cast<std::size_t>(std::min(8, size - at)));
    }
}

ObjDataFieldO BodyOf(ProcIdT from, ProcIdT to, bool channel, int number) {
    std::mt19937_64 random(SeedOf(from, to, channel, number));
    const int32 size = SizeOf(random);
    if (size == 0) return nullptr;
    std::vector<ByteT> bytes(static_cast<std::size_t>(size));
    Fill(bytes.data(), size, random);
    ObjDataFieldO body = nullptr;
    ObjDataFieldCreate(&body, bytes.data(), size);
    return body;
}

bool Same(ObjDataFieldO a, ObjDataFieldO b) {
    if (a == nullptr || b == nullptr) return a == b;
    return a->tValue.lSize == b->tValue.lSize &&
           std::memcmp(a->tValue.pData, b->tValue.pData,
                       static_cast<std::size_t>(a->tValue.lSize)) == 0;
}

class Exchanger {
 public:
    explicit Exchanger(ProcIdT id) : m_id(id), m_random(static_cast<std::uint64_t>(id)) {}

    int Run() {
        if (!Connect(m_id)) return 10;
        AtOnce();
        const Leftovers before;
        Say("up");
        while (!m_started) Receive(nullptr);
        for (int n = 1; n <= Neighbours; n++) Open(n);
        for (int n = 0; n < MessagesEach && m_wrong.empty(); n++) {
            SendOne();
            while (Receive(AtOnce())) {
            }
        }
        Announce();
        while (m_wrong.empty() && !Complete()) Receive(nullptr);
        Goodbye();
        const std::string left = before.Text();
        if (!left.empty()) m_wrong += " left over: " + left;
        Say(std::to_string(m_received) + " " + m_wrong);
        ContextReleaseThread();
        return m_wrong.empty() ? 0 : 11;
    }

 private:
    static TimeTimeoutO AtOnce() {
        static TimeTimeoutO immediate = In(0);
        return immediate;
    }

    ProcIdT IdAfter(int n) const { return FirstId + (m_id - FirstId + n) % Processes; }

    // Every kind of opening; waiting for the accept only in a direction without circles, as the
    // other side must come to answering.
    void Open(int n) {
        const ProcIdT to = IdAfter(n);
        const ObjHolder<MsgAddressS> target(AddressOf(to));
        const auto blocking = n % 2 == 0 ? eMsgChannelBlocking : eMsgChannelNonBlocking;
        const auto ok = n % 4 < 2 ? eMsgChannelWaitForOk : eMsgChannelDoNotWaitForOk;
        const bool waits = to > m_id && n != 3;
        const ObjHolder<ObjIntegerS> mine(ObjIntegerNew(to));
        const ObjHolder<ObjIntegerS> theirs(ObjIntegerNew(m_id));
        MsgAddressO channel = nullptr;
        if (MsgChannelOpenInternal(&channel, target.Get(), theirs.Get(), mine.Get(), blocking,
                                   waits ? eMsgChannelWaitForAccept : eMsgChannelDoNotWaitForAccept,
                                   ok) != TRUE)
            m_wrong += " cannot open to " + std::to_string(to);
        m_opened++;
        if (waits && channel != nullptr) m_channels[to] = channel;
    }

    void Answer(MsgMessageO message) {
        MsgAddressO channel = nullptr;
        const bool waits = m_random() % 2 == 0;
        if (MsgChannelCompleteInternal(
                &channel, message,
                m_random() % 2 == 0 ? eMsgChannelBlocking : eMsgChannelNonBlocking,
                waits ? eMsgChannelWaitForConnect : eMsgChannelDoNotWaitForConnect,
                eMsgChannelSendOk) != TRUE)
            m_wrong += " cannot answer";
        if (channel != nullptr) m_answered.push_back(channel);
    }

    void TakeConnected(MsgMessageO message) {
        ObjHolder<MsgConnectedS> body;
        ObjHolder<MsgAddressS> sender;
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
        const int n = (id - m_id + Processes) % Processes;
        return n >= 1 && n <= Neighbours;
    }

    void SendNumbered(ProcIdT to, bool channel) {
        Route& route = m_out[{to, channel}];
        const ObjHolder<ObjDataFieldS> body(BodyOf(m_id, to, channel, route.next));
        const ObjHolder<MsgAddressS> process(AddressOf(to));
        if (MsgSendObject(channel ? m_channels[to] : process.Get(),
                          DataType + route.next % DataTypes, body.Get()) != TRUE)
            m_wrong += " cannot send";
        route.next++;
    }

    void SendOne() {
        const ProcIdT to = IdAfter(1 + static_cast<int>(m_random() % (Processes - 1)));
        if (m_channels.empty() || m_random() % 2 == 0) return SendNumbered(to, false);
        auto channel = m_channels.begin();
        std::advance(channel, m_random() % m_channels.size());
        SendNumbered(channel->first, true);
    }

    void Announce() {
        while (m_channels.size() < static_cast<std::size_t>(m_opened) && m_wrong.empty())
            Receive(nullptr);
        for (int n = 1; n < Processes; n++) {
            const ProcIdT to = IdAfter(n);
            const ObjHolder<MsgAddressS> process(AddressOf(to));
            const ObjHolder<ObjIntegerS> count(ObjIntegerNew(m_out[{to, false}].next));
            MsgSendObject(process.Get(), EndType, count.Get());
        }
        for (const auto& [to, channel] : m_channels) {
            const ObjHolder<ObjIntegerS> count(ObjIntegerNew(m_out[{to, true}].next));
            MsgSendObject(channel, EndType, count.Get());
        }
    }

    bool Complete() {
        int ended = 0;
        for (const auto& [key, route] : m_in) {
            if (route.announced >= 0 && route.announced != route.next) m_wrong += " lost some";
            if (route.announced >= 0) ended++;
        }
        return ended == Processes - 1 + m_opened;  // as many come in as go out
    }

    // True when there was a message.
    bool Receive(TimeTimeoutO timeout) {
        ObjHolder<MsgMessageS> message;
        if (MsgReceive(message.Address(), timeout) != TRUE) return false;
        const MsgTypeT type = MsgType(message.Get());
        if (type == StartType) {
            m_started = true;
        } else if (type == MSG_CONNECT_MSG) {
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
        ObjHolder<MsgAddressS> sender;
        if (MsgGetSender(sender.Address(), message) != TRUE) {
            m_wrong += " unknown sender";
            return;
        }
        const ProcIdT from = sender.Get()->tProcessId;
        const bool channel = MsgIsFromAChannel(message) == TRUE;
        Route& route = m_in[{from, channel}];
        if (MsgType(message) == EndType) {
            ObjHolder<ObjIntegerS> count;
            MsgGetObject(count.Address(), message, ObjIntegerMagic);
            route.announced = count.Get()->lValue;
            return;
        }
        if (MsgType(message) != DataType + route.next % DataTypes || route.announced >= 0)
            m_wrong += " out of order from " + std::to_string(from);
        const ObjHolder<ObjDataFieldS> expected(BodyOf(from, m_id, channel, route.next));
        ObjHolder<ObjDataFieldS> body;
        MsgGetObject(body.Address(), message, ObjDataFieldMagic);
        if (!Same(body.Get(), expected.Get()))
            m_wrong += " changed on the way from " + std::to_string(from);
        route.next++;
        m_received++;
    }

    // Closes what it has opened, and waits until all channels are gone on both sides.
    void Goodbye() {
        for (auto& [to, channel] : m_channels) MsgChannelClose(&channel);
        for (MsgAddressO& channel : m_answered) MsgChannelClose(&channel);
        m_channels.clear();
        m_answered.clear();
        const TesselContextMsgS& state = gtTlContext.sMsg;
        while (m_wrong.empty() && state.oLingerList->lItemCount > 0) Receive(nullptr);
        while (Receive(AtOnce())) {
        }
    }

    ProcIdT m_id;
    std::mt19937_64 m_random;
    bool m_started = false;
    int m_opened = 0;
    int m_received = 0;
    std::string m_wrong;
    std::map<ProcIdT, MsgAddressO> m_channels;  // opened by this process
    std::vector<MsgAddressO> m_answered;        // opened by others
    std::map<RouteKey, Route> m_out, m_in;
};

const Role exchange("exchange", [](const std::vector<std::string>& arguments) {
    return Exchanger(std::stoi(arguments.at(0))).Run();
});

const Role start("start", [](const std::vector<std::string>&) {
    if (!Connect(FirstId - 1)) return 10;
    for (int n = 0; n < Processes; n++) {
        const ObjHolder<MsgAddressS> process(AddressOf(FirstId + n));
        if (MsgSendObject(process.Get(), StartType, nullptr) != TRUE) return 11;
    }
    ContextReleaseThread();
    return 0;
});

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

const Role child("child", [](const std::vector<std::string>&) {
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

const Role parent("parent", [](const std::vector<std::string>&) {
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
    std::vector<Process> processes;
    for (int n = 0; n < Processes; n++)
        processes.push_back(machine.InRole("exchange", {std::to_string(FirstId + n)}));
    for (Process& process : processes) ASSERT_EQ(process.Line(), "up");
    ASSERT_EQ(machine.InRole("start", {}).Wait(), 0);
    int received = 0;
    for (Process& process : processes) {
        EXPECT_EQ(process.Wait(300), 0) << process.Rest();
        received += std::atoi(process.Rest().c_str());
    }
    EXPECT_EQ(received, Processes * MessagesEach);
}
