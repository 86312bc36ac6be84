// The network over real sockets on loopback, in both families where the machine has them: transfers
// that are interrupted, late or cut off, connections, ports of a firewall, select masks, names of
// hosts and the hand-over of a socket to a child. What a kernel does not do on request (protocol
// errors, interrupted closes, name services with or without an answer) is put in at the system
// calls.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "../base/library/core/netinternal.h"
#include "../base/library/machines/netdir.h"
#include "core/cfg.h"
#include "core/cfgtools.h"
#include "core/list.h"
#include "core/objserial.h"
#include "core/objwrappers.h"
#include "core/strwrappers.h"
#include "core/syssignal.h"
#include "core/timeconv.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/lists.h"

using Text = std::string;
using Family = std::int16_t;

// --- system calls that answer as the test wants (test_net.options) ---

static int g_connectError, g_connects, g_acceptError;
static const char* g_known;  // the one host of the name service; null: the real service
static bool g_selectRecorded;
static timeval g_selectTime;

// Declares a system call and what stands in its place, whose body follows.
#define WRAPPED(result, name, symbol, ...)                 \
    result Real##name(__VA_ARGS__) asm("__real_" #symbol); \
    result Wrap##name(__VA_ARGS__) asm("__wrap_" #symbol); \
    result Wrap##name(__VA_ARGS__)

WRAPPED(int, Connect, connect, int socket, const sockaddr* address, socklen_t length) {
    g_connects++;
    if (g_connectError == 0) return RealConnect(socket, address, length);
    errno = g_connectError;
    return -1;
}
WRAPPED(int, Select, select, int count, fd_set* read, fd_set* write, fd_set* except,
        timeval* time) {
    if (!g_selectRecorded) return RealSelect(count, read, write, except, time);
    g_selectTime = *time;
    return 0;
}
WRAPPED(int, GetAddrInfo, getaddrinfo, const char* name, const char* service, const addrinfo* hints,
        addrinfo** result) {
    if (g_known == nullptr) return RealGetAddrInfo(name, service, hints, result);
    if (name != Text(g_known)) return EAI_AGAIN;
    // Each in several answers, the first in both families.
    for (const char* address : {"127.0.0.5", "::ffff:127.0.0.5", "::1"}) {
        if (const int error = RealGetAddrInfo(address, service, hints, result)) return error;
        while (*result != nullptr) result = &(*result)->ai_next;
    }
    return 0;
}
WRAPPED(hostent*, GetHostByName, gethostbyname, const char* name) {
    static char official[] = "official", beta[] = "beta", gamma[] = "gamma";
    static char* aliases[] = {beta, gamma, nullptr};
    static hostent host = {official, aliases, AF_INET, 4, nullptr};
    return g_known != nullptr && name == Text(g_known) ? &host : nullptr;
}
WRAPPED(int, Accept, accept4, int socket, sockaddr* address, socklen_t* length, int flags) {
    if (g_acceptError == 0) return RealAccept(socket, address, length, flags);
    errno = g_acceptError;
    if (g_acceptError == EINTR) g_acceptError = 0;
    return -1;
}

namespace {

const char* Loopback(Family family) { return family == AF_INET ? "127.0.0.1" : "::1"; }
Family FamilyOf(const char* text) { return NetAddressIsInet6(text) == TRUE ? AF_INET6 : AF_INET; }

NetAddressT Address(const char* text, int32 port = 0) {
    NetAddressT address;
    EXPECT_EQ(NetInitializeIpAddress(&address, text, port, FamilyOf(text)), TRUE);
    return address;
}

bool Same(NetAddressT first, NetAddressT second) {
    return NetAddressEqual(&first, &second, NetAddressCompareTypeAll) == TRUE;
}

// A socket that is closed at the end of the scope.
struct Socket {
    NetSocketT socket = NetNoSocket;
    Socket() = default;
    Socket(NetOpenTypeE type, Family family) { EXPECT_EQ(NetOpen(&socket, type, family), TRUE); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { NetClose(&socket); }
    operator NetSocketT() const { return socket; }
    NetSocketT Take() { return std::exchange(socket, NetNoSocket); }
    NetAddressT Local() const {
        NetAddressT address = {};
        EXPECT_EQ(NetGetLocalAddress(&address, socket), TRUE);
        return address;
    }
};

struct Listener : Socket {
    explicit Listener(Family family) : Socket(NET_TYPE_TCP, family) {
        NetAddressT address = Address(Loopback(family));
        EXPECT_EQ(NetBind(socket, &address) + NetListen(socket, 5), 2 * TRUE);
    }
};

// Two connected streams with buffers as small as they go.
struct Pair {
    Listener listener;
    Socket client, server;
    explicit Pair(Family family = AF_INET) : listener(family), client(NET_TYPE_TCP, family) {
        NetAddressT address = listener.Local(), peer = {};
        EXPECT_EQ(NetSetReceiveBufferSize(listener, 1) + NetSetSendBufferSize(client, 1), 2 * TRUE);
        EXPECT_EQ(NetConnect(client, &address), NET_ERROR_NONE);
        EXPECT_EQ(NetAccept(&server.socket, listener, &peer), NET_ERROR_NONE);
        EXPECT_TRUE(Same(peer, client.Local()));
        EXPECT_EQ(NetGetRemoteAddress(&peer, client) + NetSetNonBlocking(client), 2 * TRUE);
        EXPECT_TRUE(Same(peer, address));
    }
};

// A blocking transfer of a whole text and what it reports.
struct Transfer {
    int32 moved = 77, elapsed = 5;
    BooleanT blocked = 2;
    NetErrorE Send(NetSocketT socket, Text& data, TimeTimeoutO until = nullptr) {
        return NetTcpSendBlocking(&moved, socket, data.data(), static_cast<int32>(data.size()),
                                  until, &elapsed, &blocked);
    }
    NetErrorE Receive(NetSocketT socket, Text& data, TimeTimeoutO until = nullptr) {
        return NetTcpReceiveBlocking(&moved, socket, data.data(), static_cast<int32>(data.size()),
                                     until, &elapsed, &blocked);
    }
};

struct Deadline : ObjHolder<TimeTimeoutS> {
    explicit Deadline(int32 milliseconds) {
        TimeCreateAndSetTimeout(Address(), milliseconds / 1000, milliseconds % 1000);
    }
};

// A SIGALRM every few milliseconds while it lives.
struct Alarms {
    Alarms() {
        SigSet(SIGALRM, [](int) { count = count + 1; });
        Every(3000);
    }
    ~Alarms() {
        Every(0);
        SigSet(SIGALRM, SIG_DFL);
    }
    static void Every(suseconds_t microseconds) {
        const itimerval timer = {{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    static inline volatile int count = 0;
};

using List = ObjHolder<ListS>;
Text Joined(const List& list) {
    char* text = nullptr;
    return StrFromAddressList(&text, list.Get()) == TRUE ? Owned(text) : "";
}

// The families whose loopback address can be bound.
std::vector<Family> Families() {
    std::vector<Family> families = {AF_INET};
    const int probe = socket(AF_INET6, SOCK_DGRAM, 0);
    sockaddr_in6 loopback = {};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    if (bind(probe, reinterpret_cast<sockaddr*>(&loopback), sizeof(loopback)) == 0)
        families.push_back(AF_INET6);
    close(probe);
    return families;
}

// Before anything is counted the library has what it keeps of a class from its first object on.
class NetInet : public testing::Test {
 protected:
    static void SetUpTestSuite() {
        const List list(ListNew(NetAddressMagic));
        EXPECT_EQ(NetGetHostAddress(list.Get(), "127.0.0.1", AF_INET), TRUE);
        EXPECT_NE(Joined(list), "");
        const ObjHolder<ObjStringS> string(ObjStringNew("x"));
        const ObjHolder<NetInheritContextS> context(
            ObjNew<NetInheritContextS>(NetInheritContextMagic, NetInheritDescriptor));
    }
};

// Sockets in both families, where the machine has both.
class Net : public NetInet, public testing::WithParamInterface<Family> {};
INSTANTIATE_TEST_SUITE_P(Families, Net, testing::ValuesIn(Families()),
                         [](const auto& test) { return test.param == AF_INET ? "Inet" : "Inet6"; });

}  // namespace

TEST_F(NetInet, TextsAndComparison) {
    struct {
        const char* first;
        const char* second;
        bool equal;
    } const cases[] = {
        {"10.1.2.3", "10.1.2.3", true},        {"10.1.2.3", "10.1.2.4", false},
        {"::ffff:10.1.2.3", "10.1.2.3", true}, {"::ffff:10.1.2.4", "10.1.2.3", false},
        {"::10.1.2.3", "10.1.2.3", false},     {"1::ffff:a01:203", "10.1.2.3", false},
        {"fe80::1", "fe80::1", true},          {"fe80::1", "fe80::1:0:1", false}};
    for (const auto& c : cases) {
        NetAddressT first = Address(c.first, 80);
        for (const int32 port : {80, 81, 80 * 256}) {
            NetAddressT second = Address(c.second, port);
            for (const bool all : {true, false}) {
                const auto type = all ? NetAddressCompareTypeAll : NetAddressCompareTypeNoPort;
                const BooleanT expected = BooleanFrom(c.equal && (port == 80 || !all));
                EXPECT_EQ(NetAddressEqual(&first, &second, type), expected) << c.first << port;
                EXPECT_EQ(NetAddressEqual(&second, &first, type), expected) << c.first << port;
            }
        }
        char text[64];
        const Text shown = FamilyOf(c.first) == AF_INET ? c.first : "[" + Text(c.first) + "]";
        const auto length = static_cast<int32>(shown.size());
        EXPECT_STREQ(NetGetIpAddress(&first, text, length + 1), shown.c_str());
        EXPECT_EQ(NetGetIpAddress(&first, text, length), nullptr);
        EXPECT_EQ(NetGetIpPort(&first), 80);
    }
    NetAddressT local = {}, inet = Address("1.2.3.4", 0x1234);
    local.sFamily = AF_UNIX;
    EXPECT_EQ(NetAddressEqual(&local, &local, NetAddressCompareTypeAll), FALSE);
    EXPECT_EQ(NetAddressEqual(nullptr, nullptr, NetAddressCompareTypeAll), TRUE);
    EXPECT_EQ(NetAddressEqual(nullptr, &inet, NetAddressCompareTypeAll), FALSE);
    EXPECT_EQ(NetAddressIsEqual(nullptr, nullptr), FALSE);
    EXPECT_EQ(Text(reinterpret_cast<char*>(inet.aAddress), 6), "\x12\x34\1\2\3\4");
    const std::pair<const char*, Family> refused[] = {
        {nullptr, AF_INET}, {"", AF_INET},       {"1.2.3", AF_INET},     {"1.2.3.4", AF_INET6},
        {"::1", AF_INET},   {"[::1]", AF_INET6}, {"1.2.3.4", AF_UNSPEC}, {"::1%lo", AF_INET6}};
    for (const auto& [text, family] : refused) {
        NetAddressT address = inet;
        EXPECT_EQ(NetInitializeIpAddress(&address, text, 1, family), FALSE);
        EXPECT_EQ(memcmp(&address, &(local = {}), sizeof(address)), 0);
    }
    for (const char* text : {"1.2.3.4", "999.1.1.1"}) EXPECT_EQ(NetAddressIsInet(text), TRUE);
    for (const char* text : {"1.2.3.4x", "1.2.3", "a.b.c.d", "::1"})
        EXPECT_EQ(NetAddressIsInet(text), FALSE) << text;
}

// The number of the socket is one that fits into no mask, where the user may have such numbers.
TEST_P(Net, TransfersUnderSignalsAndThroughSmallBuffers) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t number = std::min<rlim_t>(FD_SETSIZE, limit.rlim_max - 1);
    const rlimit raised = {std::max(limit.rlim_cur, number + 1), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    const Leftovers before;
    {
        Pair pair(GetParam());
        const NetSocketT low = pair.client.Take();
        pair.client.socket = fcntl(low, F_DUPFD_CLOEXEC, static_cast<int>(number));
        ASSERT_GE(pair.client.socket, static_cast<int>(number));
        close(low);
        Text sent(3000000, ' '), received(sent.size(), '-');
        for (std::size_t i = 0; i < sent.size(); i++) sent[i] = static_cast<char>(i * i >> 7);
        // The peer is a process that sends all, receives all in small pieces, and compares.
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const auto pass = [&](auto move, char* data) {
                for (std::size_t at = 0, all = sent.size(); at < all;)
                    at += move(pair.server, data + at, std::min(all - at, std::size_t{7001}), 0);
            };
            pass(send, sent.data());
            pass(recv, received.data());
            send(pair.server, received == sent ? "y" : "n", 1, 0);
            pause();
        }
        NetClose(&pair.server.socket);
        Transfer transfer;
        {
            const Alarms alarms;
            EXPECT_EQ(transfer.Receive(pair.client, received), NET_ERROR_NONE);
            EXPECT_EQ(transfer.moved, 3000000);
            EXPECT_TRUE(received == sent);
            transfer = {};
            EXPECT_EQ(transfer.Send(pair.client, sent), NET_ERROR_NONE);
            EXPECT_EQ(transfer.moved, 3000000);
            EXPECT_EQ(transfer.blocked, TRUE);
            EXPECT_GT(transfer.elapsed, 5);
            EXPECT_EQ(NetTcpReceiveBlocking(nullptr, pair.client, received.data(), 1, nullptr,
                                            nullptr, nullptr),
                      NET_ERROR_NONE);
            EXPECT_EQ(received[0], 'y');
            EXPECT_GT(Alarms::count, 0);
        }
        // Nobody reads: what fits goes out, then the time is up, also on a socket that blocks.
        for (const bool blocking : {false, true}) {
            if (blocking) NetSetBlocking(pair.client);
            transfer = {.elapsed = 0};
            const Deadline deadline(250);
            const int64 start = TimeNowAsInt64();
            EXPECT_EQ(transfer.Send(pair.client, sent, deadline.Get()), NET_ERROR_TIMEOUT);
            EXPECT_EQ(transfer.blocked, TRUE);
            EXPECT_GE(TimeNowAsInt64() - start, 249);
            EXPECT_GE(transfer.elapsed, 50);
            EXPECT_LE(transfer.elapsed, TimeNowAsInt64() - start);
            EXPECT_LT(transfer.moved, 3000000);
            const Deadline soon(100);
            transfer = {.elapsed = 0};
            EXPECT_EQ(transfer.Receive(pair.client, received, soon.Get()), NET_ERROR_TIMEOUT);
            EXPECT_EQ(transfer.blocked, TRUE);
            EXPECT_GE(transfer.elapsed, 50);
        }
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    EXPECT_EQ(before.Text(), "");
    setrlimit(RLIMIT_NOFILE, &limit);
}

// What is set is what the system has, and what is read is what it has.
TEST_P(Net, OptionsOfASocket) {
    const Socket socket(NET_TYPE_TCP, GetParam());
    const auto has = [&](int level, int option) {
        int value = -1;
        socklen_t length = sizeof(value);
        EXPECT_EQ(getsockopt(socket, level, option, &value, &length), 0);
        return value;
    };
    int32 sending = 0, receiving = 0, most = 42;
    BooleanT reuse = 7;
    EXPECT_EQ(NetSetSendBufferSize(socket, 20000) + NetSetReceiveBufferSize(socket, 30000), 2);
    EXPECT_EQ(NetGetSendBufferSize(&sending, socket) + NetGetReceiveBufferSize(&receiving, socket),
              2 * TRUE);
    EXPECT_NE(sending, receiving);
    EXPECT_EQ(sending, has(SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(receiving, has(SOL_SOCKET, SO_RCVBUF));
    for (const BooleanT on : {FALSE, TRUE}) {
        EXPECT_EQ(NetGetReuseAddress(&reuse, socket), TRUE);
        EXPECT_EQ(reuse, on);
        EXPECT_EQ(NetSetReuseAddress(socket), TRUE);
    }
    // Not provided.
    EXPECT_EQ(NetGetMaximumMessageSize(&most, socket) + NetTcpSetNoDelay(socket) + most, 42);
    EXPECT_EQ(has(IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST_P(Net, PeersThatEnd) {
    Text data = "1234567!", none;
    Transfer transfer;
    int32 moved = 77;
    {
        // Half of the stream is closed: what was sent before arrives, and the other half lives.
        Pair pair(GetParam());
        EXPECT_EQ(NetTcpReceive(&moved, pair.client, data.data(), 8), NET_ERROR_WOULD_BLOCK);
        EXPECT_EQ(moved, 77);
        EXPECT_EQ(NetTcpSend(&moved, pair.server, data.data(), 5), NET_ERROR_NONE);
        EXPECT_EQ(moved, 5);
        shutdown(pair.server, SHUT_WR);
        TraceCapture trace;
        EXPECT_EQ(transfer.Receive(pair.client, data), NET_ERROR_CLOSED);
        EXPECT_EQ(transfer.moved, 5);
        EXPECT_EQ(trace.CountText("Socket closed unexpectedly"), 1);
        EXPECT_EQ(NetTcpReceive(&moved, pair.client, data.data(), 8), NET_ERROR_CLOSED);
        EXPECT_EQ(NetIsConnected(pair.client), TRUE);
        EXPECT_EQ(NetTcpSend(&moved, pair.client, data.data(), 8), NET_ERROR_NONE);
        // The peer discards everything: a reset, and no signal for who sends on.
        NetSetNoLinger(pair.server);
        NetClose(&pair.server.socket);
        pollfd reset = {pair.client, POLLIN, 0};
        while ((reset.revents & POLLERR) == 0 && poll(&reset, 1, 5000) == 1) {
        }
        EXPECT_EQ(NetIsConnected(pair.client), FALSE);
        EXPECT_EQ(NetSocketError(pair.client), FALSE);  // taken off
        EXPECT_EQ(NetTcpSend(&moved, pair.client, data.data(), 8), NET_ERROR_CONNECTION_DOWN);
        EXPECT_EQ(transfer.Send(pair.client, data), NET_ERROR_CONNECTION_DOWN);
        EXPECT_EQ(transfer.moved, 0);
    }
    const Socket lone(NET_TYPE_TCP, GetParam());
    EXPECT_EQ(NetTcpReceive(&moved, lone, data.data(), 8), NET_ERROR_FATAL);  // not connected
    transfer.moved = 3;
    EXPECT_EQ(transfer.Receive(NetNoSocket, data), NET_ERROR_INVALID_SOCKET);
    EXPECT_EQ(transfer.moved, 3);
    EXPECT_EQ(transfer.Send(lone, none), NET_ERROR_INVALID_LENGTH);
    EXPECT_EQ(transfer.moved, 0);
    EXPECT_EQ(NetTcpSend(&moved, -1, data.data(), 0), NET_ERROR_INVALID_SOCKET);
    EXPECT_EQ(NetUdpReceive(&moved, lone, data.data(), -1, nullptr), NET_ERROR_INVALID_LENGTH);
}

TEST_P(Net, Datagrams) {
    WriteInHome("config/tlnmgr.cfg", "[Network]\nTTL=9\n");
    Socket first(NET_TYPE_UDP, GetParam()), second(NET_TYPE_UDP, GetParam());
    int hops = 0;
    socklen_t length = sizeof(hops);
    const bool inet = GetParam() == AF_INET;
    getsockopt(first, inet ? IPPROTO_IP : IPPROTO_IPV6, inet ? IP_TTL : IPV6_UNICAST_HOPS, &hops,
               &length);
    EXPECT_EQ(hops, 9);
    EXPECT_EQ(fcntl(first, F_GETFD), FD_CLOEXEC);
    NetAddressT address = Address(Loopback(GetParam())), source = {};
    ASSERT_EQ(NetBind(first, &address) + NetBind(second, &address), 2 * TRUE);
    NetAddressT to = second.Local();
    Text packet(70000, 'p');
    char data[4];
    int32 moved = 0;
    EXPECT_EQ(NetUdpSend(first, packet.data(), 60000, &to), NET_ERROR_NONE);
    EXPECT_EQ(NetUdpReceive(&moved, second, data, 4, &source), NET_ERROR_NONE);
    EXPECT_EQ(moved, 4);  // the rest is lost
    EXPECT_TRUE(Same(source, first.Local()));
    EXPECT_EQ(NetUdpSend(first, packet.data(), 1, &to), NET_ERROR_NONE);
    EXPECT_EQ(NetUdpReceive(&moved, second, data, 4, nullptr), NET_ERROR_NONE);
    EXPECT_EQ(moved, 1);
    ASSERT_EQ(NetSetNonBlocking(second), TRUE);
    EXPECT_EQ(NetUdpReceive(&moved, second, data, 4, &source), NET_ERROR_WOULD_BLOCK);
    EXPECT_EQ(NetUdpSend(first, packet.data(), 70000, &to), NET_ERROR_FATAL);  // too long
    EXPECT_EQ(NetUdpSend(first, packet.data(), 1, nullptr), NET_ERROR_FATAL);
    EXPECT_EQ(NetPrepareStream(first, 1), FALSE);
    // A hop limit that the system refuses: no socket, and none left open.
    WriteInHome("config/tlnmgr.cfg", "[Network]\nTTL=999\n");
    const Leftovers before;
    NetSocketT none = 42;
    EXPECT_EQ(NetOpen(&none, NET_TYPE_UDP, GetParam()), FALSE);
    EXPECT_EQ(none, 42);
    EXPECT_EQ(before.Text(), "");
    unlink((TestHome() + "/config/tlnmgr.cfg").c_str());
}

TEST_P(Net, Connecting) {
    Listener listener(GetParam());
    NetAddressT address = listener.Local();
    NetSocketT accepted = 42;
    ASSERT_EQ(NetSetNonBlocking(listener), TRUE);
    for (const auto& [error, result] : {std::pair{0, NET_ERROR_WOULD_BLOCK},
                                        {EINTR, NET_ERROR_WOULD_BLOCK},
                                        {ECONNABORTED, NET_ERROR_ACCEPT},
                                        {ENOBUFS, NET_ERROR_ACCEPT},
                                        {EMFILE, NET_ERROR_FATAL}}) {
        g_acceptError = error;
        EXPECT_EQ(NetAccept(&accepted, listener, nullptr), result) << error;
    }
    g_acceptError = 0;
    EXPECT_EQ(accepted, 42);
    {
        Socket client(NET_TYPE_TCP, GetParam()), server;
        NetSetNonBlocking(client);
        EXPECT_EQ(NetConnect(client, &address), NET_ERROR_WOULD_BLOCK);
        NetSelectMaskS mask = {};
        NetAddWriteSelect(&mask, client);
        EXPECT_EQ(NetSelectRelative(nullptr, &mask, 5000), NET_ERROR_NONE);
        EXPECT_EQ(NetIsWriteSelectSet(&mask, client), TRUE);
        EXPECT_EQ(NetSocketError(client), FALSE);
        EXPECT_EQ(NetAccept(&server.socket, listener, nullptr), NET_ERROR_NONE);
        EXPECT_EQ(fcntl(server, F_GETFD), FD_CLOEXEC);
    }
    NetClose(&listener.socket);
    const Socket late(NET_TYPE_TCP, GetParam());
    EXPECT_EQ(NetConnect(late, nullptr), NET_ERROR_FATAL);
    EXPECT_EQ(NetConnect(-1, &address), NET_ERROR_INVALID_SOCKET);
    struct {
        int error;
        NetErrorE result;
        int calls;
    } const outcomes[] = {
        {0, NET_ERROR_CONNECT_REFUSED, 1}, {EPROTO, NET_ERROR_PROTOCOL, 11},
        {EINTR, NET_ERROR_INTERRUPTED, 1}, {ENETUNREACH, NET_ERROR_NET_UNREACHABLE, 1},
        {ETIMEDOUT, NET_ERROR_TIMEOUT, 1}, {EAGAIN, NET_ERROR_WOULD_BLOCK, 1},
        {EACCES, NET_ERROR_FATAL, 1}};
    for (const auto& o : outcomes) {
        g_connectError = o.error;
        g_connects = 0;
        EXPECT_EQ(NetConnect(late, &address), o.result) << o.error;
        EXPECT_EQ(g_connects, o.calls) << o.error;
    }
    g_connectError = 0;
}

TEST_P(Net, FirewallPorts) {
    const char* const host = Loopback(GetParam());
    // A busy port with a free one above it.
    Socket busy;
    int32 port = 0;
    for (int tries = 0; tries < 100 && port == 0; tries++) {
        NetClose(&busy.socket);
        ASSERT_EQ(NetOpen(&busy.socket, NET_TYPE_TCP, GetParam()), TRUE);
        NetAddressT low = Address(host), high = low;
        ASSERT_EQ(NetBind(busy, &low), TRUE);
        low = busy.Local();
        port = NetGetIpPort(&low);
        const Socket above(NET_TYPE_TCP, GetParam());
        if (NetSetIpPort(&high, port + 1) != TRUE || NetBind(above, &high) != TRUE) port = 0;
    }
    ASSERT_NE(port, 0);
    const Text taken = std::to_string(port), open = std::to_string(port + 1);
    const std::pair<Text, int32> cases[] = {
        // 0: the system chooses, -1: none
        {taken + "," + open, port + 1},
        {"abc," + open, port + 1},
        {open + " - " + taken, port + 1},
        {taken + "-" + open, port + 1},
        {taken + "!," + open, port + 1},  // one value that is a list
        {taken, -1},
        {taken + "," + taken + " - " + taken + ",x", -1},
        {"abc," + open + "x,-1,70000,1 - 99999999999999999999", 0},
        {"", 0}};
    for (const auto& [ports, expected] : cases) {
        for (const BooleanT in : {TRUE, FALSE}) {
            SCOPED_TRACE(ports);
            WriteInHome("config/firewall.cfg",
                        "[Test]\n" + Text(in ? "" : "Out ") + "Ports=" + ports + "\n");
            const Leftovers before;
            {
                const Socket socket(NET_TYPE_TCP, GetParam());
                EXPECT_EQ(NetBindThroughFirewallTyped(socket, host, "Test", in, GetParam()),
                          BooleanFrom(expected != -1));
                NetAddressT bound = socket.Local();
                const int32 chosen = NetGetIpPort(&bound);
                EXPECT_EQ(expected > 0 ? chosen : chosen == 0 ? -1 : 0, expected);
            }
            EXPECT_EQ(before.Text(), "");
        }
    }
    unlink((TestHome() + "/config/firewall.cfg").c_str());
}

TEST_F(NetInet, Masks) {
    const Leftovers before;
    NetSelectMaskT mask = nullptr, copy = nullptr;
    ASSERT_EQ(NetInitializeSelectMask(&mask), TRUE);
    EXPECT_EQ(NetAddReadSelect(mask, 5), TRUE);
    EXPECT_EQ(NetAddExceptionSelect(mask, 3), TRUE);
    EXPECT_EQ(NetDuplicateSelectMask(&copy, mask), TRUE);
    EXPECT_EQ(NetRemoveReadSelect(mask, 5), TRUE);
    EXPECT_EQ(mask->tSelectBits, 6);
    EXPECT_EQ(NetIsReadSelectSet(mask, 5) + NetIsWriteSelectSet(copy, 5), 0);
    EXPECT_EQ(NetIsReadSelectSet(copy, 5) + NetIsExceptionSelectSet(copy, 3), 2);
    // Sockets that no set has room for: nothing changes, wherever the bit would lie.
    const auto bytes = [&] {
        return Text(reinterpret_cast<char*>(mask), offsetof(NetSelectMaskS, tSelectBits) + 4);
    };
    const Text whole = bytes();
    for (const NetSocketT socket :
         {-1, -64, FD_SETSIZE, FD_SETSIZE + 1, 3 * FD_SETSIZE, INT32_MAX}) {
        for (const auto function :
             {NetAddReadSelect, NetAddWriteSelect, NetAddExceptionSelect, NetRemoveReadSelect,
              NetRemoveWriteSelect, NetRemoveExceptionSelect, NetIsReadSelectSet,
              NetIsWriteSelectSet, NetIsExceptionSelectSet}) {
            EXPECT_EQ(function(mask, socket) + function(nullptr, 1), FALSE) << socket;
            EXPECT_TRUE(bytes() == whole) << socket;
        }
    }
    EXPECT_EQ(NetAddWriteSelect(mask, FD_SETSIZE - 1), TRUE);
    EXPECT_EQ(NetCopySelectMask(copy, mask), TRUE);
    EXPECT_EQ(NetIsWriteSelectSet(copy, FD_SETSIZE - 1), TRUE);
    EXPECT_EQ(NetReleaseSelectMask(&copy) + NetReleaseSelectMask(&mask), 2 * TRUE);
    EXPECT_EQ(before.Text(), "");
}

TEST_F(NetInet, Waits) {
    NetSelectMaskS mask = {};
    // What the system is asked to wait.
    struct {
        int32 milliseconds;  // of NetSelectRelative, or until the deadline
        bool relative;
        timeval least, most;
    } const waits[] = {{1500, true, {1, 500000}, {1, 500000}},
                       {0, true, {0, 0}, {0, 0}},
                       {172800000, false, {86400, 0}, {86400, 0}},
                       {86399999, false, {86390, 0}, {86399, 999000}},
                       {-5000, false, {0, 0}, {0, 0}}};
    g_selectRecorded = true;
    for (const auto& w : waits) {
        const Deadline deadline(w.milliseconds);
        EXPECT_EQ(w.relative ? NetSelectRelative(nullptr, &mask, w.milliseconds)
                             : NetSelect(nullptr, &mask, deadline.Get()),
                  NET_ERROR_TIMEOUT);
        EXPECT_FALSE(timercmp(&g_selectTime, &w.least, <)) << w.milliseconds;
        EXPECT_FALSE(timercmp(&g_selectTime, &w.most, >)) << w.milliseconds;
    }
    g_selectRecorded = false;

    // How it waits.
    Pair pair;
    int32 count = 7;
    TraceCapture trace;
    const auto select = [&](int32 milliseconds) {
        NetAddReadSelect(&mask, pair.client);
        return NetSelectRelative(&count, &mask, milliseconds);
    };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(select(1050), NET_ERROR_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1050));
    EXPECT_EQ(count + NetIsReadSelectSet(&mask, pair.client), 0);
    NetTcpSend(&count, pair.server, &count, 1);
    for (const int32 milliseconds : {0, -1}) {
        EXPECT_EQ(select(milliseconds), NET_ERROR_NONE);
        EXPECT_EQ(count, 1);
    }
    NetAddReadSelect(&mask, pair.server);
    NetAddWriteSelect(&mask, pair.server);
    NetAddExceptionSelect(&mask, pair.server);
    EXPECT_EQ(NetCheckSelect(&mask), TRUE);
    EXPECT_EQ(NetSelect(&count, &mask, nullptr), NET_ERROR_NONE);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(NetIsReadSelectSet(&mask, pair.client) + NetIsWriteSelectSet(&mask, pair.server), 2);
    EXPECT_EQ(NetIsReadSelectSet(&mask, pair.server), FALSE);
    const Text client = "Socket " + std::to_string(pair.client),
               server = "Socket " + std::to_string(pair.server);
    NetClose(&pair.client.socket);
    EXPECT_EQ(select(0), NET_ERROR_FATAL);
    for (const auto& [text, times] : {std::pair{client + " has read select set", 1},
                                      {server + " has read select not set", 1},
                                      {server + " has write select set", 1},
                                      {server + " has exception select not set", 1},
                                      {"Wait 1050 milliseconds for data", 1},
                                      {"poll for data", 2},
                                      {"Wait for data (no timeout)", 2},
                                      {"Fatal network select error: Bad file descriptor", 1}})
        EXPECT_EQ(trace.CountText(text), times) << text;
    mask = {};
    const Alarms alarms;
    EXPECT_EQ(NetSelect(&count, &mask, nullptr), NET_ERROR_INTERRUPTED);
    EXPECT_EQ(NetSelectRelative(&count, &mask, -1), NET_ERROR_INTERRUPTED);
}

TEST_F(NetInet, Names) {
    char name[257], system[257];
    EXPECT_EQ(NetGetLocalHostName(name, 256) + NetGetLocalHostName(nullptr, 257), FALSE);
    EXPECT_EQ(NetGetLocalHostName(name, 257), TRUE);
    ASSERT_EQ(gethostname(system, sizeof(system)), 0);
    EXPECT_STREQ(name, system);
    char domain[] = "domain", tcp[] = "tcp";
    int32 port = 0;
    if (getservbyname(domain, tcp) != nullptr) {
        EXPECT_EQ(NetGetServicePort(&port, domain, tcp), TRUE);
        EXPECT_EQ(port, 53);
    }
    List list(ListNew(NetAddressMagic));
    EXPECT_EQ(NetGetHostAddress(list.Get(), "127.0.0.9", AF_INET), TRUE);
    EXPECT_EQ(Joined(list).substr(0, 9), "127.0.0.9");
    auto* own = ObjNew<HostDetailsS>(HostDetailsMagic, "o;o;");
    ObjRelease(&own);  // its class stays
    const Leftovers before;
    for (const bool known : {true, false}) {
        g_known = known ? "alpha" : "omega";
        List aliases, addresses;
        EXPECT_EQ(NetGetHostDetails("alpha", aliases.Address(), addresses.Address()),
                  BooleanFrom(known));
        Text names;
        for (ListNodeO oNode = aliases.Get()->oFirst; oNode != nullptr; oNode = oNode->oNext)
            names += ObjGetString(static_cast<ObjStringO>(oNode->oData)) + Text(" ");
        EXPECT_EQ(names, known ? "official beta gamma " : "");
        EXPECT_EQ(Joined(addresses), known ? "127.0.0.5,\n[::1]" : "");
        EXPECT_EQ(NetClearCaches(), TRUE);  // what is known of a host, or not, is asked anew
        if (!known) continue;
        g_known = name;
        ASSERT_EQ(CfgGetHostDetails(&own), TRUE);
        EXPECT_EQ(TextsOf(own->oHostNames), TextsOf(aliases.Get()));
        EXPECT_EQ(ObjCompare(own->oIpAddrs, addresses.Get()), TRUE);
        ObjRelease(&own);
    }
    g_known = nullptr;
    EXPECT_EQ(before.Text(), "");
}

TEST_F(NetInet, TheNetworkDirectory) {
    const Dir dir;
    const Name table = dir("hosts");
    Text hosts =
        "# 10.9.9.9 alpha\n10.0.0.1\talpha  beta#gamma\r\n\n 10.0.0.2 x Alpha y\n"
        "::ffff:10.0.0.3 alpha\nfe80::12:0:1 alpha\n10.0.0.300 alpha\nalpha 10.0.0.4\n"
        "10.0.0.5\n10.0.0.6 alphabet\n" +
        Text(5000, '1') + " alpha\n" + Text("\0 q\n", 4);
    for (int i = 0; i < 100; i++) hosts += "10.0.1." + std::to_string(i) + " many\n";
    // What is read of a table ends within a name.
    const Text last = "\n10.0.0.7 late";
    hosts.resize((1 << 20) - last.size(), '#');
    WriteFile(table, hosts + last + "comer\n10.0.0.8 beta\n");
    MachineNetSetHostTable(table);
    g_known = "";
    const auto found = [](const char* name, Family family) {
        const List list(ListNew(NetAddressMagic));
        const bool known = NetGetHostAddress(list.Get(), name, family) == TRUE;
        EXPECT_EQ(known, list.Get()->lItemCount > 0) << name;
        return Joined(list);
    };
    const Leftovers before;
    const Text inet = "10.0.0.1,\n10.0.0.2", inet6 = "[::ffff:10.0.0.3],\n[fe80::12:0:1]";
    EXPECT_EQ(found("ALPHA", AF_UNSPEC), inet + ",\n" + inet6);
    EXPECT_EQ(found("alpha", AF_INET), inet);
    EXPECT_EQ(found("alpha", AF_INET6), inet6);
    EXPECT_EQ(found("beta", AF_UNSPEC), "10.0.0.1");
    for (const char* name : {"gamma", "late", "q", "10.0.0.5", ""})
        EXPECT_EQ(found(name, AF_UNSPEC), "") << name;
    EXPECT_EQ(found("10.0.0.1", AF_INET6) + found("fe80::1", AF_INET) + found("alpha", AF_UNIX),
              "");
    {
        List aliases, list(ListNew(NetAddressMagic));
        EXPECT_EQ(NetGetHostAddress(list.Get(), "many", 0), TRUE);
        EXPECT_EQ(list.Get()->lItemCount, 64);
        ListReleaseAll(list.Get());
        // The machine finds itself by its interfaces, whoever does not know its name.
        EXPECT_EQ(NetGetLocalHostAddress(list.Get(), AF_INET), TRUE);
        ifaddrs* interfaces = nullptr;
        ASSERT_EQ(getifaddrs(&interfaces), 0);
        bool own = false;
        const auto* first = static_cast<NetAddressO>(list.Get()->oFirst->oData);
        for (const ifaddrs* at = interfaces; at != nullptr; at = at->ifa_next)
            if (at->ifa_addr != nullptr && at->ifa_addr->sa_family == AF_INET)
                own |= memcmp(first, at->ifa_addr, sizeof(sockaddr_in)) == 0;
        freeifaddrs(interfaces);
        EXPECT_TRUE(own);
        ObjRelease(list.Address());
        EXPECT_EQ(NetGetHostDetails("alpha", aliases.Address(), list.Address()), TRUE);
        EXPECT_EQ(list.Get()->lItemCount, 4);
    }
    EXPECT_EQ(before.Text(), "");
    MachineNetSetHostTable(nullptr);
    g_known = nullptr;
}

TEST_F(NetInet, ClosingInterruptedAndRefused) {
    Pair pair;
    TraceCapture trace;
    const Text bad = "Failed to close socket: Bad file descriptor";
    NetSocketT socket = pair.client.Take();
    FaultArm({Call::Close, 1, EINTR});
    EXPECT_EQ(NetClose(&socket), TRUE);
    EXPECT_EQ(FaultDisarm(), 1);
    EXPECT_EQ(socket, NetNoSocket);
    EXPECT_EQ(NetClose(&socket) + NetClose(nullptr), FALSE);
    EXPECT_EQ(trace.CountText(bad), 0);
    socket = FD_SETSIZE * 100;
    EXPECT_EQ(NetClose(&socket) + NetSetNoLinger(socket), FALSE);
    EXPECT_EQ(socket, FD_SETSIZE * 100);
    for (const Text& line : {bad, Text("Failed to set no linger : Bad file descriptor"),
                             "FALSE = NetSetNoLinger(" + std::to_string(socket) + ")"})
        EXPECT_EQ(trace.CountText(line), 1) << line;
}

// Whose descriptor the number in a context is; test_msgexchange hands one to a real child.
TEST_F(NetInet, HandOver) {
    const Leftovers before;
    {
        Socket socket(NET_TYPE_TCP, AF_INET), lone(NET_TYPE_TCP, AF_INET);
        NetInheritContextO context = nullptr;
        void* copy = nullptr;
        NetSocketT taken = NetNoSocket;
        const NetSocketT number = socket.Take();
        ASSERT_EQ(NetInheritPhase1(&context, number), TRUE);
        EXPECT_EQ(fcntl(number, F_GETFD), 0);  // a child inherits it
        EXPECT_EQ(NetInheritPhase2(context, getpid() + 1), TRUE);
        EXPECT_EQ(fcntl(number, F_GETFD), -1);

        // The number is another descriptor of the parent by now: it stays open.
        ASSERT_EQ(dup2(STDERR_FILENO, number), number);
        EXPECT_EQ(NetInheritPhase2(context, getpid() + 1), FALSE);
        ASSERT_EQ(ObjDuplicateInternal(&copy, context, TRUE), TRUE);
        auto* other = static_cast<NetInheritContextO>(copy);
        EXPECT_EQ(NetInheritMatch(context, other), TRUE);
        // In the child the same number is the socket.
        EXPECT_EQ(NetInheritTake(&taken, other), TRUE);
        EXPECT_EQ(taken, number);
        EXPECT_EQ(fcntl(number, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(other->bSuccess, TRUE);
        EXPECT_EQ(NetInheritTake(&taken, other), FALSE);
        other->tSocket = static_cast<std::intptr_t>(0xffffffffU);  // -1 as a stream brings it
        EXPECT_EQ(NetInheritTake(&taken, other), FALSE);
        EXPECT_EQ(NetInheritDone(&other) + NetInheritDone(&context), 2 * TRUE);
        EXPECT_NE(fcntl(number, F_GETFD), -1);
        close(number);

        // Without a child the socket is still the parent's and goes with the context.
        ASSERT_EQ(NetInheritPhase1(&context, lone.Take()), TRUE);
        EXPECT_EQ(NetInheritMatch(context, nullptr), FALSE);
        EXPECT_EQ(NetInheritDone(&context), TRUE);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(NetInheritPhase1(&context, FD_SETSIZE * 100), FALSE);
    }
    EXPECT_EQ(before.Text(), "");
}
