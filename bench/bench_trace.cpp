// One trace call with three arguments, recorded in the ring buffer and above the threshold, beside
// the same line through spdlog into its ring.
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

}  // namespace

int main(int argc, char** argv) {
    if (ContextInitialize() != TRUE) return 1;
    Register("above the threshold", "tessel", Tessel, eTraceLevelNormal);
    Register("above the threshold", "spdlog", Spdlog, false);
    Register("recorded", "tessel", Tessel, eTraceLevelLibVerbose);
    Register("recorded", "spdlog", Spdlog, true);
    return RunPairs(argc, argv, "A trace line");
}
