// A program that sets itself up from its home directory and tells in trace files what it does.
//
// The home directory is $KRHOME. In its "config" the program reads
//   programs.cfg   [tracing]  Lines, Trace Level, Trace File
//   configure.cfg  [Trace]    Trace To File, Lines per File, Files to Keep (read by the library)
// It traces Lines lines, spread over all levels, and prints how many of them the level that is set
// lets through; these are numbered from 0. The exit status is 1 when there is no trace file.
#include <array>
#include <cstdio>

#include "core/cfg.h"
#include "core/context.h"
#include "core/sys.h"

TRACE_MODULE("EXAMPLE")

namespace {

constexpr char acProgramFile[] = "programs.cfg";
constexpr char acProgram[] = "tracing";

struct SettingsT {
    int32 lLines = 0;
    int32 lLevel = eTraceLevelNormal;
    PoolPtr<char> pstrTraceFile;
};

void ReadSettings(SettingsT* ptSettings) {
    CfgGetInteger(&ptSettings->lLines, acProgramFile, acProgram, "Lines", 100000);
    CfgGetInteger(&ptSettings->lLevel, acProgramFile, acProgram, "Trace Level", eTraceLevelNormal);
    CfgGetString(ptSettings->pstrTraceFile.Address(), acProgramFile, acProgram, "Trace File",
                 "tracing.log");
}

constexpr std::array<TraceLevelE, 6> aeLevels = {
    eTraceLevelAlways,    eTraceLevelNormal,    eTraceLevelVerbose,
    eTraceLevelHiVerbose, eTraceLevelLibNormal, eTraceLevelLibVerbose,
};

int32 TraceLines(int32 lLines) {
    int32 lRecorded = 0;
    for (int32 lLine = 0; lLine < lLines; lLine++) {
        const TraceLevelE eLevel = aeLevels[static_cast<std::size_t>(lLine) % aeLevels.size()];
        const TracePositionT tPosition =
            TraceMessageInline(1, 0, eLevel, "line %06d at level %d", lRecorded, eLevel);
        if (tPosition.pTraceBuffer != nullptr) lRecorded++;
    }
    return lRecorded;
}

}  // namespace

int main() {
    if (ContextInitialize() != TRUE) return 2;
    SettingsT tSettings;
    ReadSettings(&tSettings);
    std::printf("machine %s: %d lines to %s\n", SysLocalMachineName(), tSettings.lLines,
                tSettings.pstrTraceFile.Get());

    const bool bTracing = TraceToFile(tSettings.pstrTraceFile.Get()) == TRUE;
    TraceSetLevel(static_cast<TraceLevelE>(tSettings.lLevel));
    const int32 lRecorded = TraceLines(tSettings.lLines);
    std::printf("%d lines recorded, trace file %s\n", lRecorded,
                TraceTracingToFile() == TRUE ? "open" : "not open");
    TraceToFileNoConfig(nullptr);
    ContextReleaseThread();
    return bTracing ? 0 : 1;
}
