// What one CfgGetInteger costs: the time of a call for an item in either layout and for a missing
// one, from a file like a real one. Run under "strace -c -f" it shows the system calls of COUNT
// calls:
//
//   build/bench/bin/bench_config [COUNT]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "core/cfg.h"
#include "core/context.h"

namespace {

struct Item {
    const char* what;
    const char* keyword;
};
constexpr Item Items[] = {
    {"plain", "Lines per File"}, {"displayable", "Files to Keep"}, {"missing", "Nothing"}};

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (count < 1 || ContextInitialize() != TRUE) return 1;
    char* path = CfgBuildPath("bench.cfg");
    std::ofstream(path) << "[Machine]\nName=alpha\n\n[Details]\nServer=TRUE\n\n[Trace]\n"
                           "Trace To File=TRUE\nLines per File=5000\n\n"
                           "[Trace:Files to Keep]\nlabel=Generations\nvalue=3\n";
    MemFree(&path);
    std::printf("\nOne CfgGetInteger\n\n| item | microseconds |\n|---|---|\n");
    for (const Item& item : Items) {
        const auto start = std::chrono::steady_clock::now();
        for (int call = 0; call < count; call++) {
            int32 value = 0;
            CfgGetInteger(&value, "bench.cfg", "Trace", item.keyword, 0);
        }
        const std::chrono::duration<double, std::micro> took =
            std::chrono::steady_clock::now() - start;
        std::printf("| %s | %.1f |\n", item.what, took.count() / count);
    }
    return 0;
}
