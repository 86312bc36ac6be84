// The tool as a process, beside others that do the same work and beside a bare loop: as many
// threads as there are processors, each of which reads a chunk, compresses or expands it and writes
// it to a place of its own, without order, header or anything to wait for (this program again).
//
//   bench_archive SAMPLES DIRECTORY [ROUNDS]     the programs of all kinds of files
//   bench_archive --scaling SAMPLES DIRECTORY    the tool from 1 MB to 4 GB, with one and all cores
//   bench_archive --start                        from process start to the usage text
//
// SAMPLES holds the input files (scripts/sample.sh), which are read once before they are used.
// Outputs and the tool's home lie below DIRECTORY. Figures are the least of all rounds, in which
// the programs take turns.
#include <fcntl.h>
#include <libdeflate.h>
#include <malloc.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t ChunkSize = 65536;
constexpr std::size_t Slot = sizeof(uLong) + 2 * ChunkSize + 12;
constexpr double StartGoal = 3;  // milliseconds

const char* const Usage =
    "usage: bench_archive [--scaling] SAMPLES DIRECTORY [ROUNDS] | bench_archive --start";

[[noreturn]] void Fail(const std::string& text) {
    std::fprintf(stderr, "bench_archive: %s\n", text.c_str());
    std::exit(1);
}

int Processors() {
    cpu_set_t set;
    return sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
}

// --- the bare loop; each chunk lies in a slot of its own, behind its length ---

template <class F>
int InAllThreads(F work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < Processors(); ++i) threads.emplace_back(work);
    for (std::thread& thread : threads) thread.join();
    return 0;
}

struct Files {
    int in;
    int out;
    off_t size;
    std::atomic<off_t> next = 0;
    Files(const char* from, const char* to)
        : in(open(from, O_RDONLY)), out(open(to, O_WRONLY | O_CREAT | O_TRUNC, 0644)) {
        if (in < 0 || out < 0) Fail("cannot open the files of the bare loop");
        size = lseek(in, 0, SEEK_END);
    }
    std::size_t Read(void* bytes, std::size_t length, off_t at) const {
        const ssize_t got = pread(in, bytes, length, at);
        return got < 0 ? 0 : static_cast<std::size_t>(got);
    }
    void Write(const void* bytes, std::size_t length, off_t at) const {
        if (pwrite(out, bytes, length, at) != static_cast<ssize_t>(length))
            Fail("the bare loop cannot write");
    }
};

int BarePack(const char* from, const char* to) {
    Files files(from, to);
    return InAllThreads([&] {
        std::vector<Bytef> plain(ChunkSize), packed(Slot);
        for (off_t chunk; (chunk = files.next++) * off_t{ChunkSize} < files.size;) {
            const std::size_t got = files.Read(plain.data(), ChunkSize, chunk * off_t{ChunkSize});
            uLongf length = Slot - sizeof length;
            if (compress(packed.data() + sizeof length, &length, plain.data(), got) != Z_OK)
                Fail("the bare loop cannot compress");
            std::memcpy(packed.data(), &length, sizeof length);
            files.Write(packed.data(), sizeof length + length, chunk * off_t{Slot});
        }
    });
}

int BareUnpack(const char* from, const char* to) {
    Files files(from, to);
    return InAllThreads([&] {
        std::vector<Bytef> plain(ChunkSize), packed(Slot);
        libdeflate_decompressor* state = libdeflate_alloc_decompressor();
        for (off_t chunk; (chunk = files.next++) * off_t{Slot} < files.size;) {
            uLong length = 0;
            files.Read(&length, sizeof length, chunk * off_t{Slot});
            files.Read(packed.data(), length, chunk * off_t{Slot} + off_t{sizeof length});
            std::size_t size = 0;
            if (libdeflate_zlib_decompress(state, packed.data(), length, plain.data(), ChunkSize,
                                           &size) != LIBDEFLATE_SUCCESS)
                Fail("the bare loop cannot expand");
            files.Write(plain.data(), size, chunk * off_t{ChunkSize});
        }
        libdeflate_free_decompressor(state);
    });
}

// --- processes ---

struct Cost {
    double cpu = 1e9;  // seconds
    double wall = 1e9;
    long memory = 0;  // KiB at the peak, the most of all rounds

    void Least(const Cost& other) {
        cpu = std::min(cpu, other.cpu);
        wall = std::min(wall, other.wall);
        memory = std::max(memory, other.memory);
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
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), wall.count(), usage.ru_maxrss};
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
    bool toOutput = false;                  // writes to standard output
    std::string packedBy = {};              // unpacks what this other side has packed
    Cost packCost = {}, unpackCost = {};
    std::vector<double> packTimes = {}, unpackTimes = {};  // on the clock, of each round
    std::uintmax_t packedSize = 0;
};

// The machine's speed drifts, so times are compared within a round: the median of the ratios.
double Ratio(const std::vector<double>& times, const std::vector<double>& own) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < times.size(); ++i) ratios.push_back(times[i] / own[i]);
    std::sort(ratios.begin(), ratios.end());
    return (ratios[(ratios.size() - 1) / 2] + ratios[ratios.size() / 2]) / 2;
}

std::vector<std::string> Fill(std::vector<std::string> arguments, const std::string& in,
                              const std::string& out, const std::string& directory) {
    for (std::string& argument : arguments) {
        if (argument == "IN") argument = in;
        if (argument == "OUT") argument = out;
        if (argument == "DIR") argument = directory;
    }
    return arguments;
}

const std::vector<std::string> PackWithTool = {BENCH_TOOL, "-c", "IN", "OUT", "file"};
const std::vector<std::string> UnpackWithTool = {BENCH_TOOL, "-d", "IN", "DIR"};

void ReadOnce(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) Fail(path + " is missing");
    std::vector<char> block(1 << 20);
    while (in.read(block.data(), static_cast<std::streamsize>(block.size()))) {
    }
}

// What the place takes at the most: pieces of a chunk's size from memory into a new file, by one
// thread; in bytes a second.
double WriteSpeed(const std::string& path, std::uintmax_t size) {
    const std::vector<char> piece(ChunkSize, 'x');
    double least = 1e9;
    for (int round = 0; round < 5; ++round) {
        std::filesystem::remove(path);
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const auto start = std::chrono::steady_clock::now();
        for (std::uintmax_t at = 0; at < size; at += ChunkSize)
            if (write(file, piece.data(), ChunkSize) < 0) Fail("cannot write to " + path);
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
        close(file);
        least = std::min(least, wall.count());
    }
    std::filesystem::remove(path);
    return static_cast<double>(size) / least;
}

void RunRound(std::vector<Side>& sides, const std::string& in, const std::string& scratch) {
    for (Side& side : sides) {
        const std::string restored = scratch + "/file", said = scratch + "/said";
        const std::string packed =
            scratch + "/" + (side.packedBy.empty() ? side.name : side.packedBy);
        std::filesystem::remove(restored);
        if (side.packedBy.empty()) {
            std::filesystem::remove(packed);
            const Cost cost =
                RunProcess(Fill(side.pack, in, packed, scratch), side.toOutput ? packed : said);
            side.packCost.Least(cost);
            side.packTimes.push_back(cost.wall);
        }
        side.packedSize = std::filesystem::file_size(packed);
        const Cost cost = RunProcess(Fill(side.unpack, packed, restored, scratch),
                                     side.toOutput ? restored : said);
        side.unpackCost.Least(cost);
        side.unpackTimes.push_back(cost.wall);
        if (!SameFiles(in, restored)) Fail(side.name + " did not restore " + in);
    }
}

// One process each, as many threads as there are processors where the program can.
void Compare(const std::string& self, const std::string& samples, const std::string& scratch,
             int rounds) {
    const std::string threads = std::to_string(Processors());
    std::printf(
        "\nOn %d processors, output below %s, least of %d rounds: MB/s on the clock (and of "
        "CPU)\n\n"
        "| file | program | packed to | packing | time, it : tessel | unpacking | "
        "time, it : tessel |\n|---|---|---|---|---|---|---|\n",
        Processors(), scratch.c_str(), rounds);
    for (const char* name : {"text", "binary", "source", "incompressible"}) {
        const std::string in = samples + "/" + name;
        ReadOnce(in);
        const auto bytes = static_cast<double>(std::filesystem::file_size(in));
        std::vector<Side> sides = {
            {.name = "tessel", .pack = PackWithTool, .unpack = UnpackWithTool},
            {.name = "bare loop",
             .pack = {self, "--pack", "IN", "OUT"},
             .unpack = {self, "--unpack", "IN", "OUT"}},
            {.name = "gzip -6",
             .pack = {"gzip", "-6", "-c", "IN"},
             .unpack = {"gzip", "-dc", "IN"},
             .toOutput = true},
            {.name = "pigz -6 -p " + threads,
             .pack = {"pigz", "-p", threads, "-6", "-c", "IN"},
             .unpack = {"pigz", "-p", threads, "-dc", "IN"},
             .toOutput = true},
            {.name = "libdeflate-gunzip",
             .pack = {},
             .unpack = {"libdeflate-gunzip", "-c", "IN"},
             .toOutput = true,
             .packedBy = "gzip -6"},
        };
        for (int round = 0; round < rounds; ++round) RunRound(sides, in, scratch);
        const auto rate = [bytes](double seconds) { return bytes / seconds / 1e6; };
        for (const Side& side : sides) {
            std::printf("| %s | %s | ", name, side.name.c_str());
            if (side.packedBy.empty()) {
                // The bare loop's slots are sparse.
                std::printf("%.1f%% | %.0f (%.0f) | %.2f | ",
                            100 *
                                static_cast<double>(side.name == "bare loop" ? sides[0].packedSize
                                                                             : side.packedSize) /
                                bytes,
                            rate(side.packCost.wall), rate(side.packCost.cpu),
                            Ratio(side.packTimes, sides[0].packTimes));
            } else {
                std::printf("| | | ");
            }
            std::printf("%.0f (%.0f) | %.2f |\n", rate(side.unpackCost.wall),
                        rate(side.unpackCost.cpu), Ratio(side.unpackTimes, sides[0].unpackTimes));
        }
        std::printf("| %s | writing alone | | | | %.0f | |\n", name,
                    WriteSpeed(scratch + "/written", std::filesystem::file_size(in)) / 1e6);
        for (const Side& side : sides) std::filesystem::remove(scratch + "/" + side.name);
    }
}

// The tool alone. Files are cut from, or put together of, the text sample.
void Scale(const std::string& samples, const std::string& scratch) {
    const std::string text = samples + "/text", in = scratch + "/in", packed = scratch + "/packed";
    ReadOnce(text);
    std::printf(
        "\n| size | processors | packing, s | MB/s | peak, MB | unpacking, s | MB/s | peak, MB |\n"
        "|---|---|---|---|---|---|---|---|\n");
    for (const std::uintmax_t size :
         {std::uintmax_t{60000}, std::uintmax_t{1} << 20, std::uintmax_t{1} << 24,
          std::uintmax_t{1} << 28, std::uintmax_t{1} << 32}) {
        std::filesystem::remove(in);
        std::ofstream(in).close();
        while (std::filesystem::file_size(in) < size) {
            std::ofstream out(in, std::ios::binary | std::ios::app);
            out << std::ifstream(text, std::ios::binary).rdbuf();
        }
        std::filesystem::resize_file(in, size);
        for (const int processors : {1, Processors()}) {
            std::vector<std::string> pack = {"taskset", "-c",
                                             "0-" + std::to_string(processors - 1)};
            std::vector<std::string> unpack = pack;
            pack.insert(pack.end(), PackWithTool.begin(), PackWithTool.end());
            unpack.insert(unpack.end(), UnpackWithTool.begin(), UnpackWithTool.end());
            Cost packCost, unpackCost;
            const int rounds = size < (1U << 25) ? 51 : size < (1U << 30) ? 5 : 1;
            for (int round = 0; round < rounds; ++round) {
                std::filesystem::remove(packed);
                std::filesystem::remove(scratch + "/file");
                packCost.Least(RunProcess(Fill(pack, in, packed, scratch), "/dev/null"));
                unpackCost.Least(RunProcess(Fill(unpack, packed, "", scratch), "/dev/null"));
            }
            if (!SameFiles(in, scratch + "/file")) Fail("the tool did not restore its input");
            const auto show = [size](const Cost& cost) {
                std::printf(" %.4f | %.0f | %.1f |", cost.wall,
                            static_cast<double>(size) / cost.wall / 1e6,
                            static_cast<double>(cost.memory) / 1024);
            };
            std::printf("| %ju | %d |", size, processors);
            show(packCost);
            show(unpackCost);
            std::printf("\n");
        }
    }
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
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string command = arguments.empty() ? "" : arguments[0];
    if (command == "--usage") return std::puts(Usage) < 0;
    // The bare loop at its best: the C library does not give back and fetch anew what each call of
    // compress frees.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    if (argc == 4 && command == "--pack") return BarePack(argv[2], argv[3]);
    if (argc == 4 && command == "--unpack") return BareUnpack(argv[2], argv[3]);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    if (command == "--start") {
        CompareStart(self);
        return 0;
    }
    const bool scaling = command == "--scaling";
    if (scaling) arguments.erase(arguments.begin());
    if (arguments.size() < 2) Fail(Usage);
    std::string scratch = arguments[1] + "/tessel-bench-XXXXXX";
    if (mkdtemp(scratch.data()) == nullptr) Fail("cannot make a directory in " + arguments[1]);
    mkdir((scratch + "/tmp").c_str(), 0700);
    setenv("KRHOME", scratch.c_str(), 1);
    if (scaling) {
        Scale(arguments[0], scratch);
    } else {
        const int rounds = arguments.size() > 2 ? std::max(1, std::atoi(arguments[2].c_str())) : 5;
        Compare(self, arguments[0], scratch, rounds);
    }
    std::filesystem::remove_all(scratch);
    return 0;
}
