// Messages between two processes on loopback: over data channels and through the communications
// manager, beside nng, ZeroMQ, and bare sockets that carry the same bytes, which are the limit.
//
//   build/bench/bin/bench_msg [request|oneway|calls|many]      one table or all
//   build/bench/bin/bench_msg once SIDE PATTERN COUNT [SIZE]   one run, to be profiled: side and
//   size
//       by their place in the tables, pattern 0 request and reply, 1 one way
#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include "core/context.h"
#include "core/list.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "link.h"
#include "nng.h"
#include "support/roles.h"
#include "zeromq.h"

void Fail(const std::string& what) {
    std::fprintf(stderr, "bench_msg: %s\n", what.c_str());
    std::exit(1);
}

namespace {

using Clock = std::chrono::steady_clock;

struct Side {
    const char* name;
    LinkMaker make;
    bool tessel = false;
    bool manager = false;
};

const Side Sides[] = {
    {"sockets", [](Pattern, const std::string& to) { return SocketLink(false, to); }},
    {"sockets, select", [](Pattern, const std::string& to) { return SocketLink(true, to); }},
    {"data channel", [](Pattern, const std::string& to) { return TesselLink(Route::Channel, to); },
     true},
    {"blocking channel",
     [](Pattern, const std::string& to) { return TesselLink(Route::BlockingChannel, to); }, true},
    {"through the manager",
     [](Pattern, const std::string& to) { return TesselLink(Route::Manager, to); }, true, true},
    {"nng", NngLink},
    {"ZeroMQ", ZeromqLink},
};

struct Size {
    const char* name;
    std::size_t bytes;
    int counts[2];  // messages of a run, by pattern
};
constexpr Size Sizes[] = {
    {"64 B", 64, {3000, 30000}}, {"4 KB", 4096, {2500, 12000}}, {"1 MB", 1 << 20, {60, 100}}};
constexpr int Repetitions = 5;

std::string home;
pid_t manager = -1;

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU seconds of a process and all its threads so far.
double CpuOf(pid_t process) {
    clockid_t clock;
    timespec time = {};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double At(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values.empty()
               ? 0
               : values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

// --- two processes ---

// The other process: answers everything, or counts it and says when it has all of a round. It is
// ended by who has started it.
const Role peer("peer", [](const std::vector<std::string>& arguments) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Side& side = Sides[std::stoi(arguments.at(0))];
    const auto pattern = static_cast<Pattern>(std::stoi(arguments.at(1)));
    if (side.tessel && !TesselStart(std::stoi(arguments.at(2)))) return 10;
    const std::unique_ptr<Link> link = side.make(pattern, "");
    std::printf("%s\n", link->Address().c_str());
    std::fflush(stdout);
    if (pattern == Pattern::Request) {
        for (;;) {
            link->Receive();
            link->SendBack();
        }
    }
    for (std::size_t round = 3;; round++) {
        for (int left = std::stoi(arguments.at(round)); left > 0; left--) link->Receive();
        std::puts("all");
        std::fflush(stdout);
    }
    return 0;
});

struct Result {
    double rate = 0;
    double p50 = 0, p99 = 0;  // seconds of a round trip
    double cpu = 0;           // seconds for each message, of all processes
    double clock = 0;         // with many channels: the same by the clock
};

// Sends count messages; what each took is added to times.
void Round(Link& link, Process& other, Pattern pattern, const std::string& body, int count,
           std::vector<double>* times) {
    for (int left = count; left > 0; left--) {
        const auto start = Clock::now();
        link.Send(body);
        if (pattern == Pattern::OneWay) continue;
        if (link.Receive() != body.size()) Fail("another answer");
        times->push_back(Since(start));
    }
    link.Flush();
    if (pattern == Pattern::OneWay && other.Line() != "all") Fail("messages were lost");
}

Result Run(std::size_t side, Pattern pattern, std::size_t size, int count) {
    static int id = 100;
    const int warm = count / 10 + 1;
    static Process other;  // ended also when this program fails
    other = Process::InRole(
        "peer",
        {std::to_string(side), std::to_string(static_cast<int>(pattern)), std::to_string(++id),
         std::to_string(warm), std::to_string(count), "2000000000"},
        home);
    const std::string address = other.Line();
    if (address.empty()) Fail(std::string(Sides[side].name) + " does not start");
    const std::unique_ptr<Link> link = Sides[side].make(pattern, address);
    const std::string body(size, 'x');
    const auto cpu = [&] {
        return CpuOf(getpid()) + CpuOf(other.Id()) + (Sides[side].manager ? CpuOf(manager) : 0);
    };
    std::vector<double> times;
    Round(*link, other, pattern, body, warm, &times);
    times.clear();
    const double before = cpu();
    const auto start = Clock::now();
    Round(*link, other, pattern, body, count, &times);
    Result result;
    result.rate = count / Since(start);
    result.p50 = At(times, 0.5);
    result.p99 = At(times, 0.99);
    result.cpu = (cpu() - before) / count;
    other = Process();
    return result;
}

double Median(const std::vector<Result>& results, double Result::*field) {
    std::vector<double> values;
    for (const Result& result : results) values.push_back(result.*field);
    return At(values, 0.5);
}

void Exchange(Pattern pattern) {
    const bool request = pattern == Pattern::Request;
    std::map<std::pair<std::size_t, std::size_t>, std::vector<Result>> results;
    for (int repetition = 0; repetition < Repetitions; repetition++)
        for (std::size_t size = 0; size < std::size(Sizes); size++)
            for (std::size_t side = 0; side < std::size(Sides); side++)
                results[{size, side}].push_back(Run(side, pattern, Sizes[size].bytes,
                                                    Sizes[size].counts[static_cast<int>(pattern)]));
    std::printf(
        "\n%s\n\n| body | | %s | CPU s for a million | CPU : sockets |\n"
        "|---|---|---|---|---|---|---|\n",
        request ? "Request and reply" : "One way",
        request ? "round trips/s | 50th, 99th percentile, us | 50th : sockets"
                : "messages/s | MB/s | rate : sockets");
    for (std::size_t size = 0; size < std::size(Sizes); size++) {
        const std::vector<Result>& limit = results[{size, 0}];
        for (std::size_t side = 0; side < std::size(Sides); side++) {
            const std::vector<Result>& own = results[{size, side}];
            const double rate = Median(own, &Result::rate), cpu = Median(own, &Result::cpu);
            std::printf("| %s | %s | %.0f | ", Sizes[size].name, Sides[side].name, rate);
            if (request)
                std::printf("%.0f, %.0f | %.2f", Median(own, &Result::p50) * 1e6,
                            Median(own, &Result::p99) * 1e6,
                            Median(own, &Result::p50) / Median(limit, &Result::p50));
            else
                std::printf("%.0f | %.2f", rate * static_cast<double>(Sizes[size].bytes) / 1e6,
                            rate / Median(limit, &Result::rate));
            std::printf(" | %.1f | %.2f |\n", cpu * 1e6, cpu / Median(limit, &Result::cpu));
        }
    }
    std::fflush(stdout);
}

// --- system calls ---

// Of a whole program that sends so many messages; -1 without strace.
double Calls(std::size_t side, int pattern, int count) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string file = home + "/tmp/strace";
    const std::string command = "strace -f -c -o " + file + " " + self + " once " +
                                std::to_string(side) + " " + std::to_string(pattern) + " " +
                                std::to_string(count) + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return -1;
    std::ifstream lines(file);
    std::string line;
    double percent = 0, seconds = 0, each = 0, calls = -1;
    while (std::getline(lines, line))
        if (line.ends_with(" total"))
            std::sscanf(line.c_str(), "%lf %lf %lf %lf", &percent, &seconds, &each, &calls);
    return calls;
}

// The difference of two runs leaves out what starting and ending costs.
void SystemCalls() {
    if (std::system("command -v strace >/dev/null") != 0) {
        std::puts("\nSystem calls were not counted: strace is not installed.");
        return;
    }
    constexpr int Few = 1000, Many = 4000;
    std::printf(
        "\nSystem calls of all processes for a message of 64 bytes\n\n"
        "| | request and reply | one way |\n|---|---|---|\n");
    for (std::size_t side = 0; side < std::size(Sides); side++) {
        std::printf("| %s |", Sides[side].name);
        for (int pattern = 0; pattern < 2; pattern++) {
            const double few = Calls(side, pattern, Few), many = Calls(side, pattern, Many);
            // A tenth as many come first to warm up.
            if (few < 0 || many < 0)
                std::printf(" not counted |");
            else
                std::printf(" %.1f |", (many - few) / (Many - Few) / 1.1);
        }
        std::printf("\n");
    }
    std::fflush(stdout);
}

// --- many channels of one process ---

// The other ends: sends back every byte that comes.
const Role echo("echo", [](const std::vector<std::string>& arguments) {
    const int poll = epoll_create1(0);
    for (int left = std::stoi(arguments.at(1)); left > 0; left--) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = SocketConnect(std::stoi(arguments.at(0)));
        epoll_ctl(poll, EPOLL_CTL_ADD, event.data.fd, &event);
    }
    for (;;) {
        epoll_event events[64];
        const int ready = epoll_wait(poll, events, std::size(events), -1);
        for (int n = 0; n < ready; n++) {
            char bytes[4096];
            const ssize_t got = recv(events[n].data.fd, bytes, sizeof(bytes), 0);
            if (got <= 0) return 0;
            SocketSend(events[n].data.fd, bytes, static_cast<std::size_t>(got));
        }
    }
    return 0;
});

constexpr std::size_t SmallBody = 64;

void PollSockets(const std::vector<int>& sockets, int active, int count) {
    std::vector<pollfd> polls;
    for (const int socket : sockets) polls.push_back({socket, POLLIN, 0});
    const std::string frame(SmallBody + TesselOverhead(), 'x');
    for (int n = 0; n < active; n++)
        SocketSend(sockets[static_cast<std::size_t>(n)], frame.data(), frame.size());
    while (count > 0) {
        poll(polls.data(), polls.size(), -1);
        for (const pollfd& ready : polls) {
            if (ready.revents == 0) continue;
            char bytes[4096];
            const ssize_t got = recv(ready.fd, bytes, sizeof(bytes), 0);
            if (got <= 0) Fail("the other end is gone");
            if (count-- > active) SocketSend(ready.fd, bytes, static_cast<std::size_t>(got));
        }
    }
}

void ServeChannels(const std::vector<MsgAddressO>& channels, int active, int count) {
    std::string bytes(SmallBody, 'x');
    const ObjHolder<ObjDataFieldS> body(ObjDataFieldNew(bytes.data(), SmallBody));
    for (int n = 0; n < active; n++)
        MsgSendObject(channels[static_cast<std::size_t>(n)], 6000, body.Get());
    while (count > 0) {
        ObjHolder<MsgMessageS> message;
        ObjHolder<ObjDataFieldS> answer;
        if (MsgReceive(message.Address(), nullptr) != TRUE || MsgType(message.Get()) != 6000)
            continue;
        MsgGetObject(answer.Address(), message.Get(), ObjDataFieldMagic);
        if (count-- > active) MsgSendReply(message.Get(), 6000, answer.Get());
    }
}

// CPU and clock of this process for a message, with so many channels or sockets.
Result RunMany(bool tessel, int channels, int active) {
    const int count = 4000 + active;
    const int listening = SocketListen(channels);
    static Process other;
    other = Process::InRole(
        "echo", {std::to_string(SocketPort(listening)), std::to_string(channels)}, home);
    std::vector<int> sockets;
    std::vector<MsgAddressO> addresses;
    for (int n = 0; n < channels; n++) {
        sockets.push_back(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
        ObjHolder<MsgChannelS> channel;
        if (!tessel) continue;
        if (MsgChannelCreate(channel.Address(), sockets.back()) != TRUE) Fail("no channel");
        addresses.push_back(MsgChannelAddress(channel.Get()));
        ObjIncRefCount(addresses.back());
    }
    close(listening);
    const double before = CpuOf(getpid());
    const auto start = Clock::now();
    tessel ? ServeChannels(addresses, active, count) : PollSockets(sockets, active, count);
    Result result;
    result.clock = Since(start) / count;
    result.cpu = (CpuOf(getpid()) - before) / count;
    other = Process();
    for (MsgAddressO address : addresses) MsgChannelClose(&address);
    // Their sockets make room for the next ones.
    while (gtTlContext.sMsg.oLingerList->lItemCount > 0 || MsgReceiveCount() > 0) {
        ObjHolder<MsgMessageS> notice;
        MsgReceive(notice.Address(), nullptr);
    }
    for (const int socket : sockets)
        if (!tessel) close(socket);
    return result;
}

void ManyChannels() {
    std::printf(
        "\nMany channels of one process\n\n| channels | with messages | data channels: CPU "
        "us, clock us | poll: CPU us, clock us | CPU, tessel : poll |\n"
        "|---|---|---|---|---|\n");
    for (const int channels : {10, 100, 1000}) {
        for (const int active : {1, channels}) {
            std::vector<Result> results[2];
            for (int run = 0; run < 6; run++)
                results[run % 2].push_back(RunMany(run % 2 == 0, channels, active));
            std::printf("| %d | %d |", channels, active);
            for (const auto& of : results)
                std::printf(" %.1f, %.1f |", Median(of, &Result::cpu) * 1e6,
                            Median(of, &Result::clock) * 1e6);
            std::printf(" %.2f |\n",
                        Median(results[0], &Result::cpu) / Median(results[1], &Result::cpu));
        }
    }
}

// A home directory of its own, and a communications manager on a port that the system has given.
struct Machine {
    Machine() {
        char path[] = "/tmp/bench_msg.XXXXXX";
        if (mkdtemp(path) == nullptr) Fail("no home directory");
        home = path;
        for (const char* directory : {"config", "etc", "tmp", "trace"})
            std::filesystem::create_directories(home + "/" + directory);
        std::ofstream(home + "/config/configure.cfg") << "[Machine]\nComms TcpPort=0\n";
        setenv("KRHOME", home.c_str(), 1);
        serving = Process({BENCH_MANAGER}, home);
        if (!serving.Line().starts_with("ready ")) Fail("the manager does not start");
        manager = serving.Id();
        if (ContextInitialize() != TRUE || !TesselStart(100)) Fail("the library does not start");
    }
    ~Machine() { std::filesystem::remove_all(home); }
    Process serving;
};

}  // namespace

int main(int argc, char** argv) {
    // The C library keeps what is freed: otherwise large messages measure the kernel handing out
    // pages.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    RunRole(argc, argv);
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::min<rlim_t>(files.rlim_max, 4096);
    setrlimit(RLIMIT_NOFILE, &files);
    static const Machine machine;
    if (argc > 4) {
        const Size& size = Sizes[argc > 5 ? std::stoi(argv[5]) : 0];
        Run(std::stoul(argv[2]), static_cast<Pattern>(std::stoi(argv[3])), size.bytes,
            std::stoi(argv[4]));
    } else {
        const std::string table = argc > 1 ? argv[1] : "";
        if (table.empty() || table == "request") Exchange(Pattern::Request);
        if (table.empty() || table == "oneway") Exchange(Pattern::OneWay);
        if (table.empty() || table == "calls") SystemCalls();
        if (table.empty() || table == "many") ManyChannels();
    }
    MsgQuickExit(TRUE);
    ContextReleaseThread();
    return 0;
}
