// The tool as a process, beside others that do the same work: gzip -6, pigz with one thread, and a
// bare loop of zlib's compress and uncompress over chunks of the same size (this program again).
//
//   bench_tool DIRECTORY [ROUNDS]    DIRECTORY holds the input files text, binary and
//   incompressible
//
// Inputs are in the page cache, outputs and the tool's home lie in memory (/dev/shm). What is
// measured is the processor time of the process, user and system, the least of all rounds: nothing
// here waits, so on an idle machine that is the time on the clock, which stands beside it.
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr std::size_t ChunkSize = 65536;
constexpr double ThroughputGoal = 0.95;  // of the bare loop
constexpr double StartGoal = 3;          // milliseconds

const char* const Usage = "usage: bench_tool DIRECTORY [ROUNDS]";

[[noreturn]] void Fail(const std::string& text) {
    std::fprintf(stderr, "bench_tool: %s\n", text.c_str());
    std::exit(1);
}

// --- the bare loop; each chunk is preceded by its length ---

struct Files {
    int in;
    int out;
    Files(const char* from, const char* to)
        : in(open(from, O_RDONLY)), out(open(to, O_WRONLY | O_CREAT | O_TRUNC, 0644)) {
        if (in < 0 || out < 0) Fail("cannot open the files of the bare loop");
    }
    std::size_t Read(void* bytes, std::size_t size) const {
        const ssize_t got = read(in, bytes, size);
        return got < 0 ? 0 : static_cast<std::size_t>(got);
    }
    void Write(const void* bytes, std::size_t size) const {
        if (write(out, bytes, size) != static_cast<ssize_t>(size))
            Fail("the bare loop cannot write");
    }
};

int BarePack(const char* from, const char* to) {
    const Files files(from, to);
    std::vector<Bytef> plain(ChunkSize), packed(sizeof(uLong) + 2 * ChunkSize + 12);
    for (std::size_t got; (got = files.Read(plain.data(), ChunkSize)) > 0;) {
        uLongf length = 2 * ChunkSize + 12;
        if (compress(packed.data() + sizeof length, &length, plain.data(), got) != Z_OK) return 1;
        std::memcpy(packed.data(), &length, sizeof length);
        files.Write(packed.data(), sizeof length + length);
    }
    return 0;
}

int BareUnpack(const char* from, const char* to) {
    const Files files(from, to);
    std::vector<Bytef> plain(ChunkSize), packed(2 * ChunkSize + 12);
    for (uLong length; files.Read(&length, sizeof length) == sizeof length;) {
        uLongf size = ChunkSize;
        if (length > packed.size() || files.Read(packed.data(), length) != length) return 1;
        if (uncompress(plain.data(), &size, packed.data(), length) != Z_OK) return 1;
        files.Write(plain.data(), size);
    }
    return 0;
}

// --- processes ---

struct Cost {
    double cpu = 1e9;  // seconds
    double wall = 1e9;

    void Least(const Cost& other) {
        cpu = std::min(cpu, other.cpu);
        wall = std::min(wall, other.wall);
    }
};

// Runs a program with its standard output going to a file.
Cost RunProcess(const std::vector<std::string>& arguments, const std::string& output) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        Fail("cannot start " + arguments[0]);
    }
    int status = 0;
    rusage usage = {};
    if (wait4(child, &status, 0, &usage) != child || status != 0) Fail(arguments[0] + " failed");
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    posix_spawn_file_actions_destroy(&actions);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), wall.count()};
}

bool SameFiles(const std::string& first, const std::string& second) {
    std::ifstream a(first, std::ios::binary), b(second, std::ios::binary);
    std::vector<char> left(1 << 20), right(1 << 20);
    while (a && b) {
        a.read(left.data(), static_cast<std::streamsize>(left.size()));
        b.read(right.data(), static_cast<std::streamsize>(right.size()));
        if (a.gcount() != b.gcount() || left != right) return false;
    }
    return !a && !b;
}

struct Side {
    std::string name;
    std::vector<std::string> pack, unpack;  // "IN", "OUT" and "DIR" stand for the files
    bool toOutput;                          // writes to standard output
    Cost packCost = {}, unpackCost = {};
    std::uintmax_t packedSize = 0;
};

std::vector<std::string> Fill(std::vector<std::string> arguments, const std::string& in,
                              const std::string& out, const std::string& directory) {
    for (std::string& argument : arguments) {
        if (argument == "IN") argument = in;
        if (argument == "OUT") argument = out;
        if (argument == "DIR") argument = directory;
    }
    return arguments;
}

bool CompareThroughput(const std::string& self, const std::string& inputs,
                       const std::string& scratch, int rounds) {
    bool met = true;
    std::printf(
        "\nPacking and unpacking, least of %d rounds\n\n"
        "| file | program | packed to | packing, MB/s of CPU (clock) | speed, tessel : it | "
        "unpacking, "
        "MB/s of CPU (clock) | speed, tessel : it |\n|---|---|---|---|---|---|---|\n",
        rounds);
    for (const char* name : {"text", "binary", "incompressible"}) {
        const std::string in = inputs + "/" + name;
        if (!std::filesystem::exists(in)) Fail(in + " is missing");
        const double bytes = static_cast<double>(std::filesystem::file_size(in));
        std::vector<Side> sides = {
            {"tessel",
             {BENCH_TOOL, "-c", "IN", "OUT", "file"},
             {BENCH_TOOL, "-d", "IN", "DIR"},
             false},
            {"bare zlib loop",
             {self, "--pack", "IN", "OUT"},
             {self, "--unpack", "IN", "OUT"},
             false},
            {"gzip -6", {"gzip", "-6", "-c", "IN"}, {"gzip", "-dc", "IN"}, true},
            {"pigz -p1", {"pigz", "-p1", "-6", "-c", "IN"}, {"pigz", "-p1", "-dc", "IN"}, true},
        };
        for (int round = 0; round < rounds; ++round) {
            for (Side& side : sides) {
                const std::string packed = scratch + "/packed", restored = scratch + "/file";
                const std::string said = scratch + "/said";
                std::filesystem::remove(packed);
                std::filesystem::remove(restored);
                side.packCost.Least(RunProcess(Fill(side.pack, in, packed, scratch),
                                               side.toOutput ? packed : said));
                side.packedSize = std::filesystem::file_size(packed);
                side.unpackCost.Least(RunProcess(Fill(side.unpack, packed, restored, scratch),
                                                 side.toOutput ? restored : said));
                if (!SameFiles(in, restored)) Fail(side.name + " did not restore " + in);
            }
        }
        const Side& own = sides[0];
        for (const Side& side : sides) {
            const auto rate = [bytes](double seconds) { return bytes / seconds / 1e6; };
            std::printf("| %s | %s | %.1f%% | %.0f (%.0f) | %.2f | %.0f (%.0f) | %.2f |\n", name,
                        side.name.c_str(), 100 * static_cast<double>(side.packedSize) / bytes,
                        rate(side.packCost.cpu), rate(side.packCost.wall),
                        side.packCost.cpu / own.packCost.cpu, rate(side.unpackCost.cpu),
                        rate(side.unpackCost.wall), side.unpackCost.cpu / own.unpackCost.cpu);
        }
        const Side& bare = sides[1];
        met = met && bare.packCost.cpu / own.packCost.cpu >= ThroughputGoal &&
              bare.unpackCost.cpu / own.unpackCost.cpu >= ThroughputGoal;
    }
    std::printf("\nGoal: at least %.2f of the bare loop: %s\n", ThroughputGoal,
                met ? "met" : "missed");
    return met;
}

void CompareStart(const std::string& self) {
    constexpr int Runs = 301;
    std::printf(
        "\nFrom process start to the usage text, median of %d runs\n\n"
        "| program | CPU | clock |\n|---|---|---|\n",
        Runs);
    double own = 0;
    const std::vector<std::pair<const char*, std::vector<std::string>>> programs = {
        {"tessel", {BENCH_TOOL}},
        {"gzip --help", {"gzip", "--help"}},
        {"a program that only prints", {self, "--usage"}}};
    for (const auto& [name, arguments] : programs) {
        std::vector<double> cpu, wall;
        for (int i = 0; i < Runs; ++i) {
            const Cost cost = RunProcess(arguments, "/dev/null");
            cpu.push_back(1e3 * cost.cpu);
            wall.push_back(1e3 * cost.wall);
        }
        std::nth_element(cpu.begin(), cpu.begin() + Runs / 2, cpu.end());
        std::nth_element(wall.begin(), wall.begin() + Runs / 2, wall.end());
        if (own == 0) own = cpu[Runs / 2];
        std::printf("| %s | %.2f ms | %.2f ms |\n", name, cpu[Runs / 2], wall[Runs / 2]);
    }
    std::printf("\nGoal: less than %.0f ms of CPU: %s\n", StartGoal,
                own < StartGoal ? "met" : "missed");
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "--usage") return std::puts(Usage) < 0;
    // The bare loop at its best: the C library does not give back and fetch anew what each call of
    // compress frees.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    if (argc == 4 && command == "--pack") return BarePack(argv[2], argv[3]);
    if (argc == 4 && command == "--unpack") return BareUnpack(argv[2], argv[3]);
    if (argc < 2) Fail(Usage);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    std::string scratch = "/dev/shm/tessel-bench-XXXXXX";
    if (mkdtemp(scratch.data()) == nullptr) Fail("/dev/shm is needed");
    mkdir((scratch + "/tmp").c_str(), 0700);
    setenv("KRHOME", scratch.c_str(), 1);
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    CompareThroughput(self, argv[1], scratch, argc > 2 ? std::max(1, std::atoi(argv[2])) : 3);
    CompareStart(self);
    std::filesystem::remove_all(scratch);
    return 0;
}
