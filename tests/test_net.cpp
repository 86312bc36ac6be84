// The network over real sockets on loopback, in both families where the machine has them: transfers
// that are interrupted, late or cut off, connections, ports of a firewall, select masks, names of
// hosts and the hand-over of a socket to a child. What a kernel does not do on request (protocol
// errors, interrupted closes, name services without an answer) is put in at the system calls.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "../base/library/core/netinternal.h"
#include "../base/library/machines/netdir.h"
#include "core/cfg.h"
#include "core/list.h"
#include "core/objserial.h"
#include "core/objwrappers.h"
#include "core/strwrappers.h"
#include "core/timeconv.h"
#include "support/files.h"
#include "support/leftovers.h"

using Text = std::string;

// --- system calls that fail on request (test_net.options) ---

static int g_connectError, g_connects, g_closeInterrupts, g_acceptError;
static bool g_noNames, g_selectRecorded;
static timeval g_selectTime;

int RealConnect(int, const sockaddr*, socklen_t) asm("__real_connect");
int WrapConnect(int, const sockaddr*, socklen_t) asm("__wrap_connect");
int RealSelect(int, fd_set*, fd_set*, fd_set*, timeval*) asm("__real_select");
int WrapSelect(int, fd_set*, fd_set*, fd_set*, timeval*) asm("__wrap_select");
int RealGetAddrInfo(const char*, const char*, const addrinfo*,
                    addrinfo**) asm("__real_getaddrinfo");
int WrapGetAddrInfo(const char*, const char*, const addrinfo*,
                    addrinfo**) asm("__wrap_getaddrinfo");
hostent* WrapGetHostByName(const char*) asm("__wrap_gethostbyname");
int RealClose(int) asm("__real_close");
int WrapClose(int) asm("__wrap_close");
int RealAccept(int, sockaddr*, socklen_t*, int) asm("__real_accept4");
int WrapAccept(int, sockaddr*, socklen_t*, int) asm("__wrap_accept4");

int WrapConnect(int socket, const sockaddr* address, socklen_t length) {
    g_connects++;
    if (g_connectError == 0) return RealConnect(socket, address, length);
    errno = g_connectError;
    return -1;
}
int WrapSelect(int count, fd_set* read, fd_set* write, fd_set* exception, timeval* time) {
    if (!g_selectRecorded) return RealSelect(count, read, write, exception, time);
    g_selectTime = *time;
    return 0;
}
int WrapGetAddrInfo(const char* name, const char* service, const addrinfo* hints,
                    addrinfo** result) {
    return g_noNames ? EAI_AGAIN : RealGetAddrInfo(name, service, hints, result);
}
hostent* WrapGetHostByName(const char*) { return nullptr; }
int WrapClose(int file) {
    if (g_closeInterrupts == 0) return RealClose(file);
    g_closeInterrupts--;
    RealClose(file);  // closed all the same
    errno = EINTR;
    return -1;
}
int WrapAccept(int socket, sockaddr* address, socklen_t* length, int flags) {
    if (g_acceptError == 0) return RealAccept(socket, address, length, flags);
    errno = g_acceptError;
    if (g_acceptError == EINTR) g_acceptError = 0;
    return -1;
}

namespace {

const char* Loopback(int family) { return family == AF_INET ? "127.0.0.1" : "::1"; }

NetAddressT Address(int family, int32 port = 0, const char* text = nullptr) {
    NetAddressT address;
    EXPECT_EQ(NetInitializeIpAddress(&address, text == nullptr ? Loopback(family) : text, port,
                                     static_cast<std::int16_t>(family)),
              TRUE);
    return address;
}

// A socket that is closed at the end of the scope.
struct Socket {
    NetSocketT socket = NetNoSocket;
    Socket() = default;
    Socket(NetOpenTypeE type, int family) {
        EXPECT_EQ(NetOpen(&socket, type, static_cast<std::int16_t>(family)), TRUE);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { NetClose(&socket); }
    operator NetSocketT() const { return socket; }
    NetAddressT Local() const {
        NetAddressT address = {};
        EXPECT_EQ(NetGetLocalAddress(&address, socket), TRUE);
        return address;
    }
};

// Whether a loopback address can be bound.
bool HasFamily(int family) {
    Socket socket(NET_TYPE_TCP, family);
    NetAddressT address = Address(family);
    return NetBind(socket, &address) == TRUE;
}

struct Listener : Socket {
    explicit Listener(int family) : Socket(NET_TYPE_TCP, family) {
        NetAddressT address = Address(family);
        EXPECT_EQ(NetBind(socket, &address), TRUE);
        EXPECT_EQ(NetListen(socket, 5), TRUE);
    }
};

// Two connected streams with buffers as small as they go.
struct Pair {
    Listener listener;
    Socket client;
    Socket server;
    explicit Pair(int family = AF_INET) : listener(family), client(NET_TYPE_TCP, family) {
        NetAddressT address = listener.Local(), peer = {}, mine;
        EXPECT_EQ(NetSetReceiveBufferSize(listener, 1), TRUE);
        EXPECT_EQ(NetSetSendBufferSize(client, 1), TRUE);
        EXPECT_EQ(NetConnect(client, &address), NET_ERROR_NONE);
        EXPECT_EQ(NetAccept(&server.socket, listener, &peer), NET_ERROR_NONE);
        mine = client.Local();
        EXPECT_EQ(NetAddressEqual(&peer, &mine, NetAddressCompareTypeAll), TRUE);
        EXPECT_EQ(NetGetRemoteAddress(&mine, client), TRUE);
        EXPECT_EQ(NetAddressEqual(&mine, &address, NetAddressCompareTypeAll), TRUE);
        EXPECT_EQ(NetSetNonBlocking(client), TRUE);
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
        Set([](int) { count = count + 1; }, 3000);
    }
    ~Alarms() { Set(SIG_DFL, 0); }
    static inline volatile int count = 0;

 private:
    static void Set(void (*handler)(int), suseconds_t microseconds) {
        const itimerval timer = {{0, microseconds}, {0, microseconds}};
        struct sigaction action = {};
        action.sa_handler = handler;
        if (microseconds == 0) setitimer(ITIMER_REAL, &timer, nullptr);
        sigaction(SIGALRM, &action, nullptr);
        if (microseconds != 0) setitimer(ITIMER_REAL, &timer, nullptr);
    }
};

Text Joined(ListO oList) {
    char* text = nullptr;
    return StrFromAddressList(&text, oList) == TRUE ? Owned(text) : "";
}

// The directory of configuration files, and what the library keeps of a class from its first object
// on.
const bool g_prepared = [] {
    class Preparation : public testing::Environment {
        void SetUp() override {
            mkdir((TestHome() + "/config").c_str(), 0700);
            const ObjHolder<ListS> list(ListNew(NetAddressMagic));
            NetGetHostAddress(list.Get(), "127.0.0.1", AF_INET);
            EXPECT_NE(Joined(list.Get()), "");
            const ObjHolder<ObjStringS> string(ObjStringNew("x"));
            const ObjHolder<NetInheritContextS> context(
                ObjNew<NetInheritContextS>(NetInheritContextMagic, NetInheritDescriptor));
        }
    };
    return testing::AddGlobalTestEnvironment(new Preparation) != nullptr;
}();

// Sockets in both families.
class Net : public testing::TestWithParam<int> {
 protected:
    void SetUp() override {
        if (!HasFamily(GetParam())) GTEST_SKIP() << "this machine has no IPv6 loopback";
    }
};
INSTANTIATE_TEST_SUITE_P(Families, Net, testing::Values(AF_INET, AF_INET6),
                         [](const auto& test) { return test.param == AF_INET ? "Inet" : "Inet6"; });

}  // namespace

TEST(NetAddress, TextsAndComparison) {
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
        const auto family = [](const char* text) {
            return NetAddressIsInet6(text) == TRUE ? AF_INET6 : AF_INET;
        };
        NetAddressT first = Address(family(c.first), 80, c.first);
        for (const int32 port : {80, 81, 80 * 256}) {
            NetAddressT second = Address(family(c.second), port, c.second);
            for (const bool all : {true, false}) {
                const auto type = all ? NetAddressCompareTypeAll : NetAddressCompareTypeNoPort;
                const BooleanT expected = BooleanFrom(c.equal && (port == 80 || !all));
                EXPECT_EQ(NetAddressEqual(&first, &second, type), expected) << c.first << port;
                EXPECT_EQ(NetAddressEqual(&second, &first, type), expected) << c.first << port;
            }
        }
        char text[64];
        const Text shown = family(c.first) == AF_INET ? c.first : "[" + Text(c.first) + "]";
        EXPECT_STREQ(NetGetIpAddress(&first, text, static_cast<int32>(shown.size()) + 1),
                     shown.c_str());
        EXPECT_EQ(NetGetIpAddress(&first, text, static_cast<int32>(shown.size())), nullptr);
        EXPECT_EQ(NetGetIpPort(&first), 80);
    }
    NetAddressT local = {}, inet = Address(AF_INET, 0x1234, "1.2.3.4");
    local.sFamily = AF_UNIX;
    EXPECT_EQ(NetAddressEqual(&local, &local, NetAddressCompareTypeAll), FALSE);
    EXPECT_EQ(NetAddressEqual(nullptr, nullptr, NetAddressCompareTypeAll), TRUE);
    EXPECT_EQ(NetAddressEqual(nullptr, &inet, NetAddressCompareTypeAll), FALSE);
    EXPECT_EQ(NetAddressIsEqual(nullptr, nullptr), FALSE);
    EXPECT_EQ(Text(reinterpret_cast<char*>(inet.aAddress), 6), "\x12\x34\1\2\3\4");
    struct {
        const char* text;
        int family;
    } const refused[] = {{nullptr, AF_INET},     {"", AF_INET},       {"1.2.3", AF_INET},
                         {"1.2.3.4", AF_INET6},  {"::1", AF_INET},    {"[::1]", AF_INET6},
                         {"1.2.3.4", AF_UNSPEC}, {"::1%lo", AF_INET6}};
    for (const auto& r : refused) {
        NetAddressT address = inet;
        EXPECT_EQ(NetInitializeIpAddress(&address, r.text, 1, static_cast<std::int16_t>(r.family)),
                  FALSE);
        EXPECT_EQ(memcmp(&address, &(local = {}), sizeof(address)), 0);
    }
    for (const auto& [text, is] : {std::pair{"1.2.3.4", 1},
                                   {"1.2.3.4x", 0},
                                   {"1.2.3", 0},
                                   {"a.b.c.d", 0},
                                   {"::1", 0},
                                   {"999.1.1.1", 1}})
        EXPECT_EQ(NetAddressIsInet(text), is) << text;
}

TEST_P(Net, TransfersUnderSignalsAndThroughSmallBuffers) {
    const Leftovers before;
    {
        Pair pair(GetParam());
        Text sent(3000000, ' '), received(sent.size(), '-');
        for (std::size_t i = 0; i < sent.size(); i++) sent[i] = static_cast<char>(i * i >> 7);
        // The peer is a process that sends all, receives all in small pieces, and compares.
        const pid_t child = fork();
        if (child == 0) {
            for (std::size_t at = 0; at < sent.size();)
                at += send(pair.server, sent.data() + at,
                           std::min(sent.size() - at, std::size_t{7001}), 0);
            for (std::size_t at = 0; at < sent.size();)
                at += recv(pair.server, received.data() + at,
                           std::min(sent.size() - at, std::size_t{7001}), 0);
            send(pair.server, received == sent ? "y" : "n", 1, 0);
            pause();
        }
        NetClose(&pair.server.socket);
        int32 total = 0, elapsed = 5;
        BooleanT blocked = 2;
        {
            const Alarms alarms;
            EXPECT_EQ(NetTcpReceiveBlocking(&total, pair.client, received.data(), 3000000, nullptr,
                                            &elapsed, &blocked),
                      NET_ERROR_NONE);
            EXPECT_EQ(total, 3000000);
            EXPECT_TRUE(received == sent);
            elapsed = 5;
            blocked = 2;
            EXPECT_EQ(NetTcpSendBlocking(&total, pair.client, sent.data(), 3000000, nullptr,
                                         &elapsed, &blocked),
                      NET_ERROR_NONE);
            EXPECT_EQ(total, 3000000);
            EXPECT_EQ(blocked, TRUE);
            EXPECT_GT(elapsed, 5);
            EXPECT_EQ(NetTcpReceiveBlocking(&total, pair.client, received.data(), 1, nullptr,
                                            nullptr, nullptr),
                      NET_ERROR_NONE);
            EXPECT_EQ(received[0], 'y');
            EXPECT_GT(Alarms::count, 0);
        }
        // Nobody reads: what fits goes out, then the time is up, also on a socket that blocks.
        for (const bool blocking : {false, true}) {
            if (blocking) NetSetBlocking(pair.client);
            elapsed = 0;
            const Deadline deadline(250);
            const int64 start = TimeNowAsInt64();
            EXPECT_EQ(NetTcpSendBlocking(&total, pair.client, sent.data(), 3000000, deadline.Get(),
                                         &elapsed, &blocked),
                      NET_ERROR_TIMEOUT);
            EXPECT_GE(TimeNowAsInt64() - start, 249);
            EXPECT_GE(elapsed, 50);
            EXPECT_LE(elapsed, TimeNowAsInt64() - start);
            EXPECT_LT(total, 3000000);
        }
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    EXPECT_EQ(before.Text(), "");
}

TEST_P(Net, PeersThatEnd) {
    char data[8] = "1234567";
    int32 moved = 77;
    {
        // Half of the stream is closed: what was sent before arrives, and the other half lives.
        Pair pair(GetParam());
        EXPECT_EQ(NetTcpReceive(&moved, pair.client, data, 8), NET_ERROR_WOULD_BLOCK);
        EXPECT_EQ(moved, 77);
        EXPECT_EQ(NetTcpSend(&moved, pair.server, data, 5), NET_ERROR_NONE);
        EXPECT_EQ(moved, 5);
        shutdown(pair.server, SHUT_WR);
        TraceCapture trace;
        BooleanT blocked = 2;
        EXPECT_EQ(NetTcpReceiveBlocking(&moved, pair.client, data, 8, nullptr, nullptr, &blocked),
                  NET_ERROR_CLOSED);
        EXPECT_EQ(moved, 5);
        EXPECT_EQ(trace.CountText("Socket closed unexpectedly"), 1);
        EXPECT_EQ(NetTcpReceive(&moved, pair.client, data, 8), NET_ERROR_CLOSED);
        EXPECT_EQ(NetIsConnected(pair.client), TRUE);
        EXPECT_EQ(NetTcpSend(&moved, pair.client, data, 8), NET_ERROR_NONE);
        // The peer discards everything: a reset, and no signal for who sends on.
        NetSetNoLinger(pair.server);
        NetClose(&pair.server.socket);
        pollfd reset = {pair.client, POLLIN, 0};
        while ((reset.revents & POLLERR) == 0 && poll(&reset, 1, 5000) == 1) {
        }
        EXPECT_EQ(NetIsConnected(pair.client), FALSE);
        EXPECT_EQ(NetSocketError(pair.client), FALSE);  // taken off
        EXPECT_EQ(NetTcpSend(&moved, pair.client, data, 8), NET_ERROR_CONNECTION_DOWN);
        EXPECT_EQ(NetTcpSendBlocking(&moved, pair.client, data, 8, nullptr, nullptr, nullptr),
                  NET_ERROR_CONNECTION_DOWN);
        EXPECT_EQ(moved, 0);
    }
    const Socket lone(NET_TYPE_TCP, GetParam());
    EXPECT_EQ(NetTcpReceive(&moved, lone, data, 8), NET_ERROR_FATAL);  // not connected
    moved = 3;
    EXPECT_EQ(NetTcpReceiveBlocking(&moved, -1, data, 8, nullptr, nullptr, nullptr),
              NET_ERROR_INVALID_SOCKET);
    EXPECT_EQ(moved, 3);
    EXPECT_EQ(NetTcpSendBlocking(&moved, lone, data, 0, nullptr, nullptr, nullptr),
              NET_ERROR_INVALID_LENGTH);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(NetTcpSend(&moved, -1, data, 0), NET_ERROR_INVALID_SOCKET);
    EXPECT_EQ(NetUdpReceive(&moved, lone, data, -1, nullptr), NET_ERROR_INVALID_LENGTH);
}

TEST_P(Net, Datagrams) {
    WriteFile(TestHome() + "/config/tlnmgr.cfg", "[Network]\nTTL=9\n");
    Socket first(NET_TYPE_UDP, GetParam()), second(NET_TYPE_UDP, GetParam());
    int option = 0;
    socklen_t length = sizeof(option);
    const bool inet = GetParam() == AF_INET;
    getsockopt(first, inet ? IPPROTO_IP : IPPROTO_IPV6, inet ? IP_TTL : IPV6_UNICAST_HOPS, &option,
               &length);
    EXPECT_EQ(option, 9);
    EXPECT_EQ(fcntl(first, F_GETFD), FD_CLOEXEC);
    NetAddressT address = Address(GetParam()), source = {};
    ASSERT_EQ(NetBind(first, &address), TRUE);
    ASSERT_EQ(NetBind(second, &address), TRUE);
    NetAddressT to = second.Local(), from = first.Local();
    Text packet(60000, 'p');
    char data[4];
    int32 moved = 0;
    EXPECT_EQ(NetUdpSend(first, packet.data(), 60000, &to), NET_ERROR_NONE);
    EXPECT_EQ(NetUdpReceive(&moved, second, data, 4, &source), NET_ERROR_NONE);
    EXPECT_EQ(moved, 4);  // the rest is lost
    EXPECT_EQ(NetAddressEqual(&source, &from, NetAddressCompareTypeAll), TRUE);
    EXPECT_EQ(NetUdpSend(first, packet.data(), 1, &to), NET_ERROR_NONE);
    EXPECT_EQ(NetUdpReceive(&moved, second, data, 4, nullptr), NET_ERROR_NONE);
    EXPECT_EQ(moved, 1);
    ASSERT_EQ(NetSetNonBlocking(second), TRUE);
    EXPECT_EQ(NetUdpReceive(&moved, second, data, 4, &source), NET_ERROR_WOULD_BLOCK);
    packet.resize(70000);
    EXPECT_EQ(NetUdpSend(first, packet.data(), 70000, &to), NET_ERROR_FATAL);  // too long
    EXPECT_EQ(NetUdpSend(first, packet.data(), 1, nullptr), NET_ERROR_FATAL);
    // A hop limit that the system refuses: no socket, and none left open.
    WriteFile(TestHome() + "/config/tlnmgr.cfg", "[Network]\nTTL=999\n");
    const Leftovers before;
    NetSocketT none = 42;
    EXPECT_EQ(NetOpen(&none, NET_TYPE_UDP, static_cast<std::int16_t>(GetParam())), FALSE);
    EXPECT_EQ(none, 42);
    EXPECT_EQ(before.Text(), "");
    unlink((TestHome() + "/config/tlnmgr.cfg").c_str());
}

TEST_P(Net, Connecting) {
    Listener listener(GetParam());
    NetAddressT address = listener.Local();
    NetSocketT accepted = 42;
    ASSERT_EQ(NetSetNonBlocking(listener), TRUE);
    EXPECT_EQ(NetAccept(&accepted, listener, nullptr), NET_ERROR_WOULD_BLOCK);
    for (const auto& [error, result] : {std::pair{EINTR, NET_ERROR_WOULD_BLOCK},
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
        NetSelectMaskT mask = nullptr;
        NetInitializeSelectMask(&mask);
        NetAddWriteSelect(mask, client);
        EXPECT_EQ(NetSelectRelative(nullptr, mask, 5000), NET_ERROR_NONE);
        EXPECT_EQ(NetIsWriteSelectSet(mask, client), TRUE);
        NetReleaseSelectMask(&mask);
        EXPECT_EQ(NetSocketError(client), FALSE);
        EXPECT_EQ(NetAccept(&server.socket, listener, nullptr), NET_ERROR_NONE);
        EXPECT_EQ(fcntl(server, F_GETFD), FD_CLOEXEC);
    }
    NetClose(&listener.socket);
    const Socket late(NET_TYPE_TCP, GetParam());
    EXPECT_EQ(NetConnect(late, &address), NET_ERROR_CONNECT_REFUSED);
    EXPECT_EQ(NetConnect(late, nullptr), NET_ERROR_FATAL);
    EXPECT_EQ(NetConnect(-1, &address), NET_ERROR_INVALID_SOCKET);
    struct {
        int error;
        NetErrorE result;
        int calls;
    } const outcomes[] = {{EPROTO, NET_ERROR_PROTOCOL, 11},
                          {EINTR, NET_ERROR_INTERRUPTED, 1},
                          {ENETUNREACH, NET_ERROR_NET_UNREACHABLE, 1},
                          {ETIMEDOUT, NET_ERROR_TIMEOUT, 1},
                          {EAGAIN, NET_ERROR_WOULD_BLOCK, 1},
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
    // A free port with a free one above it; both are taken by the system's choice below.
    Socket busy(NET_TYPE_TCP, GetParam());
    int32 port = 0;
    for (int tries = 0; tries < 100 && port == 0; tries++) {
        Socket low(NET_TYPE_TCP, GetParam()), high(NET_TYPE_TCP, GetParam());
        NetAddressT any = Address(GetParam());
        ASSERT_EQ(NetBind(low, &any), TRUE);
        any = low.Local();
        const int32 found = NetGetIpPort(&any);
        NetAddressT next = Address(GetParam(), std::min(found + 1, 65535));
        if (found == 65535 || NetBind(high, &next) != TRUE) continue;
        NetClose(&low.socket);
        if (NetBind(busy, &any) == TRUE) port = found;
    }
    ASSERT_NE(port, 0);
    const Text taken = std::to_string(port), open = std::to_string(port + 1);
    struct {
        Text ports;
        int32 expected;  // 0: the system chooses, -1: none
    } const cases[] = {{taken + "," + open, port + 1},
                       {"abc," + open, port + 1},
                       {open + " - " + taken, port + 1},
                       {taken + "-" + open, port + 1},
                       {taken + "!," + open, port + 1},  // one value that is a list
                       {taken, -1},
                       {taken + "," + taken + " - " + taken + ",x", -1},
                       {"abc," + open + "x,-1,70000,1 - 99999999999999999999", 0},
                       {"", 0}};
    for (const auto& c : cases) {
        for (const bool in : {true, false}) {
            WriteFile(TestHome() + "/config/firewall.cfg",
                      "[Test]\n" + Text(in ? "Ports=" : "Out Ports=") + c.ports + "\n");
            const Leftovers before;
            {
                const Socket socket(NET_TYPE_TCP, GetParam());
                EXPECT_EQ(NetBindThroughFirewallTyped(socket, Loopback(GetParam()), "Test",
                                                      BooleanFrom(in),
                                                      static_cast<std::int16_t>(GetParam())),
                          BooleanFrom(c.expected != -1))
                    << c.ports;
                NetAddressT bound = socket.Local();
                if (c.expected > 0)
                    EXPECT_EQ(NetGetIpPort(&bound), c.expected) << c.ports;
                else
                    EXPECT_EQ(NetGetIpPort(&bound) != 0, c.expected == 0) << c.ports;
            }
            EXPECT_EQ(before.Text(), "");
        }
    }
    unlink((TestHome() + "/config/firewall.cfg").c_str());
}

TEST(NetSelecting, Masks) {
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
    NetReleaseSelectMask(&copy);

    // What the system is asked to wait.
    *mask = {};
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
        EXPECT_EQ(w.relative ? NetSelectRelative(nullptr, mask, w.milliseconds)
                             : NetSelect(nullptr, mask, deadline.Get()),
                  NET_ERROR_TIMEOUT);
        EXPECT_FALSE(timercmp(&g_selectTime, &w.least, <)) << w.milliseconds;
        EXPECT_FALSE(timercmp(&g_selectTime, &w.most, >)) << w.milliseconds;
    }
    g_selectRecorded = false;

    Pair pair;
    char data = 'x';
    int32 count = 0;
    NetTcpSend(&count, pair.server, &data, 1);
    NetAddReadSelect(mask, pair.client);
    NetAddReadSelect(mask, pair.server);
    NetAddWriteSelect(mask, pair.server);
    NetAddExceptionSelect(mask, pair.server);
    TraceCapture trace;
    EXPECT_EQ(NetCheckSelect(mask), TRUE);
    const Text client = "Socket " + std::to_string(pair.client),
               server = "Socket " + std::to_string(pair.server);
    for (const Text& line :
         {client + " has read select set", server + " has read select not set",
          server + " has write select set", server + " has exception select not set"})
        EXPECT_EQ(trace.CountText(line), 1) << line;
    EXPECT_EQ(NetSelect(&count, mask, nullptr), NET_ERROR_NONE);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(NetIsReadSelectSet(mask, pair.client) + NetIsWriteSelectSet(mask, pair.server), 2);
    EXPECT_EQ(NetIsReadSelectSet(mask, pair.server), FALSE);
    *mask = {};
    const Alarms alarms;
    EXPECT_EQ(NetSelect(&count, mask, nullptr), NET_ERROR_INTERRUPTED);
    NetReleaseSelectMask(&mask);
}

TEST(NetTransfer, WaitsForSocketsBeyondAnyMask) {
    Pair pair;
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit raised = {std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 10), limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0)
        GTEST_SKIP() << "this user may not open so many files";
    Socket high;
    high.socket = fcntl(pair.client, F_DUPFD_CLOEXEC, FD_SETSIZE);
    ASSERT_GE(high.socket, FD_SETSIZE);
    char data[4];
    int32 moved = 0, elapsed = 0;
    BooleanT blocked = 2;
    const Deadline deadline(250);
    EXPECT_EQ(NetTcpReceiveBlocking(&moved, high, data, 4, deadline.Get(), &elapsed, &blocked),
              NET_ERROR_TIMEOUT);
    EXPECT_EQ(blocked, TRUE);
    EXPECT_GE(elapsed, 50);
    NetTcpSend(&moved, pair.server, data, 4);
    EXPECT_EQ(NetTcpReceiveBlocking(&moved, high, data, 4, nullptr, nullptr, nullptr),
              NET_ERROR_NONE);
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(NetHosts, FiltersAndTheNetworkDirectory) {
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
    g_noNames = true;
    struct {
        const char* name;
        int family;
        Text expected;
    } const cases[] = {
        {"ALPHA", AF_UNSPEC, "10.0.0.1,\n10.0.0.2,\n[::ffff:10.0.0.3],\n[fe80::12:0:1]"},
        {"alpha", AF_INET, "10.0.0.1,\n10.0.0.2"},
        {"alpha", AF_INET6, "[::ffff:10.0.0.3],\n[fe80::12:0:1]"},
        {"beta", AF_UNSPEC, "10.0.0.1"},
        {"gamma", AF_UNSPEC, ""},
        {"late", AF_UNSPEC, ""},
        {"q", AF_UNSPEC, ""},
        {"10.0.0.5", AF_UNSPEC, ""},
        {"10.0.0.1", AF_INET6, ""},
        {"fe80::1", AF_INET, ""},
        {"alpha", AF_UNIX, ""},
        {"", AF_UNSPEC, ""}};
    const Leftovers before;
    for (const auto& c : cases) {
        ObjHolder<ListS> list(ListNew(NetAddressMagic));
        EXPECT_EQ(NetGetHostAddress(list.Get(), c.name, static_cast<std::int16_t>(c.family)),
                  BooleanFrom(!c.expected.empty()))
            << c.name;
        EXPECT_EQ(Joined(list.Get()), c.expected) << c.name;
    }
    {
        ObjHolder<ListS> aliases, list(ListNew(NetAddressMagic));
        EXPECT_EQ(NetGetHostAddress(list.Get(), "many", 0), TRUE);
        EXPECT_EQ(list.Get()->lItemCount, 64);
        ListReleaseAll(list.Get());
        // The machine finds itself by its interfaces, whoever does not know its name.
        EXPECT_EQ(NetGetLocalHostAddress(list.Get(), AF_INET), TRUE);
        ifaddrs* interfaces = nullptr;
        ASSERT_EQ(getifaddrs(&interfaces), 0);
        int found = 0;
        for (ifaddrs* at = interfaces; at != nullptr; at = at->ifa_next) {
            NetAddressT own = {};
            if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET) continue;
            memcpy(&own, at->ifa_addr, 16);
            found += NetAddressEqual(&static_cast<NetAddressO>(list.Get()->oFirst->oData)->tAddress,
                                     &own, NetAddressCompareTypeNoPort);
        }
        freeifaddrs(interfaces);
        EXPECT_GE(found, 1);
        ObjRelease(list.Address());
        EXPECT_EQ(NetGetHostDetails("alpha", aliases.Address(), list.Address()), TRUE);
        EXPECT_EQ(list.Get()->lItemCount, 4);
    }
    EXPECT_EQ(before.Text(), "");
    MachineNetSetHostTable(nullptr);
    g_noNames = false;
    ObjHolder<ListS> list(ListNew(NetAddressMagic));
    EXPECT_EQ(NetGetHostAddress(list.Get(), "127.0.0.9", AF_INET), TRUE);
    EXPECT_EQ(Joined(list.Get()).substr(0, 9), "127.0.0.9");
    char smtp[] = "domain", tcp[] = "tcp";
    int32 port = 0;
    if (getservbyname(smtp, tcp) != nullptr) {
        EXPECT_EQ(NetGetServicePort(&port, smtp, tcp), TRUE);
        EXPECT_EQ(port, 53);
    }
}

TEST(NetClosing, InterruptedAndRefused) {
    Pair pair;
    TraceCapture trace;
    NetSocketT socket = pair.client;
    pair.client.socket = NetNoSocket;
    g_closeInterrupts = 1;
    EXPECT_EQ(NetClose(&socket), TRUE);
    EXPECT_EQ(socket, NetNoSocket);
    EXPECT_EQ(NetClose(&socket) + NetClose(nullptr), FALSE);
    EXPECT_EQ(trace.CountText("Failed to close socket: Bad file descriptor"), 0);
    socket = FD_SETSIZE * 100;
    EXPECT_EQ(NetClose(&socket), FALSE);
    EXPECT_EQ(socket, FD_SETSIZE * 100);
    EXPECT_EQ(trace.CountText("Failed to close socket: Bad file descriptor"), 1);
    EXPECT_EQ(NetSetNoLinger(socket), FALSE);
    EXPECT_EQ(trace.CountText("Failed to set no linger : Bad file descriptor"), 1);
    EXPECT_EQ(trace.CountText("FALSE = NetSetNoLinger(" + std::to_string(socket) + ")"), 1);
}

// A real program inherits the socket and answers on it; the context goes to it and back as bytes.
TEST(NetInherit, HandOverToAChild) {
    const Leftovers before;
    {
        Pair pair;
        NetInheritContextO context = nullptr, other = nullptr;
        NetSocketT taken = NetNoSocket;
        const NetSocketT number = pair.server;
        ASSERT_EQ(NetInheritPhase1(&context, number), TRUE);
        pair.server.socket = NetNoSocket;
        int hold[2];
        ASSERT_EQ(pipe2(hold, O_CLOEXEC), 0);
        const Text descriptor =
            "exec cat <&" + std::to_string(number) + " >&" + std::to_string(number);
        const pid_t child = fork();
        if (child == 0) {
            execl("/bin/sh", "sh", "-c", descriptor.c_str(), nullptr);
            _exit(127);
        }
        EXPECT_EQ(NetInheritPhase2(context, child), TRUE);
        EXPECT_EQ(fcntl(number, F_GETFD), -1);
        EXPECT_EQ(NetInheritPhase2(context, child), FALSE);
        Text echo(6, '-');
        int32 moved = 0;
        NetTcpSend(&moved, pair.client, const_cast<char*>("hello"), 6);
        EXPECT_EQ(
            NetTcpReceiveBlocking(&moved, pair.client, echo.data(), 6, nullptr, nullptr, nullptr),
            NET_ERROR_NONE);
        EXPECT_STREQ(echo.c_str(), "hello");

        // The number is another descriptor of the parent by now: it stays open.
        ASSERT_EQ(dup2(hold[0], number), number);
        void* copy = nullptr;
        ASSERT_EQ(ObjDuplicateInternal(&copy, context, TRUE), TRUE);
        other = static_cast<NetInheritContextO>(copy);
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
        for (const int file : {number, hold[0], hold[1]}) close(file);
        NetClose(&pair.client.socket);  // ends the child
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);

        // Without a child the socket is still the parent's and goes with the context.
        Socket lone(NET_TYPE_TCP, AF_INET);
        ASSERT_EQ(NetInheritPhase1(&context, lone), TRUE);
        lone.socket = NetNoSocket;
        EXPECT_EQ(NetInheritMatch(context, nullptr), FALSE);
        EXPECT_EQ(NetInheritDone(&context), TRUE);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(NetInheritPhase1(&context, FD_SETSIZE * 100), FALSE);
    }
    EXPECT_EQ(before.Text(), "");
}
