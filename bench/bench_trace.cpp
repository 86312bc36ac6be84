// One trace call with three arguments, recorded in the ring buffer, above the threshold, and into a
// trace file with one write per line, beside the same line through spdlog.
#include "core/context.h"
#include "core/trace.h"
#include "report.h"
#include "spdlog.h"

TRACE_MODULE("BENCH")

namespace {

// Not inlined, as little as spdlog's side is.
[[gnu::noinline]] void TesselLine(const char* result, const void* first, int second) {
    TraceMessageInline(1, 0, 4, "%s = ListGetNthNode(%p, %d)", result, first, second);
}

void Tessel(benchmark::State& state, TraceLevelE level) {
    TraceSetLevel(level);
    int line = 0;
    for (auto _ : state) TesselLine("TRUE", &state, ++line);
    TraceSetLevel(eTraceLevelNormal);
}

void Spdlog(benchmark::State& state, bool on) {
    SpdlogStart(on);
    int line = 0;
    for (auto _ : state) SpdlogLine("TRUE", &state, ++line);
}

void TesselToFile(benchmark::State& state) {
    if (TraceToFileNoConfig("bench.log") != TRUE) state.SkipWithError("no trace file");
    Tessel(state, eTraceLevelLibVerbose);
    TraceToFileNoConfig(nullptr);
}

void SpdlogToFile(benchmark::State& state) {
    char* directory = nullptr;
    TraceGetHomeDir(&directory);
    SpdlogStartFile((std::string(directory) + "/spdlog.log").c_str());
    MemFree(&directory);
    int line = 0;
    for (auto _ : state) SpdlogLine("TRUE", &state, ++line);
    SpdlogStart(false);
}

}  // namespace

int main(int argc, char** argv) {
    if (ContextInitialize() != TRUE) return 1;
    Register("above the threshold", "tessel", Tessel, eTraceLevelNormal);
    Register("above the threshold", "spdlog", Spdlog, false);
    Register("recorded", "tessel", Tessel, eTraceLevelLibVerbose);
    Register("recorded", "spdlog", Spdlog, true);
    Register("into a file", "tessel", TesselToFile);
    Register("into a file", "spdlog", SpdlogToFile);
    return RunPairs(argc, argv, "A trace line");
}
