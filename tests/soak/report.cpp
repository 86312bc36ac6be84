#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "core/context.h"
#include "core/procinit.h"
#include "soak.h"
#include "support/support.h"

namespace {

using Text = std::string;
using std::to_string;

ProcDetailsT* DetailsOf(ProcIdT id) {
    const ProcProcessTableT* table = gtTlContext.sProcess.ptProcessTable;
    for (int32 n = 0; table != nullptr && n < table->lSlotCount; n++)
        if (const ProcHandleT& slot = ProcTableSlots(table)[n]; slot.tProcessId == id)
            return ProcDetailsAt(slot.lDetailsOffset);
    return nullptr;
}

Text Proc(pid_t pid, const char* file) { return "/proc/" + to_string(pid) + "/" + file; }

constexpr std::size_t Rss = 0, Descriptors = 1, Blocks = 2, Objects = 3;
constexpr std::pair<const char*, double> Figures[] = {
    {"RSS kB", 512}, {"descriptors", 4}, {"blocks", 100}, {"objects", 100}};  // and what is allowed

// A sanitizer keeps what has been freed for a long time.
#ifdef __SANITIZE_ADDRESS__
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif

double Mean(const std::vector<Sample>& samples, std::size_t figure, std::size_t third) {
    const std::size_t from = samples.size() * third / 3, to = samples.size() * (third + 1) / 3;
    double sum = 0;
    for (std::size_t n = from; n < to; n++) sum += samples[n][figure];
    return to > from ? sum / static_cast<double>(to - from) : 0;
}

}  // namespace

void TakeSample(Subject& subject) {
    std::istringstream statm(ReadFile(Proc(subject.pid, "statm")));
    std::int64_t pages = 0;  // first of the address space, which a sanitizer makes very large
    statm >> pages >> pages;
    const ProcDetailsT* details = DetailsOf(subject.id);
    subject.samples.push_back({static_cast<int>(pages * (sysconf(_SC_PAGESIZE) / 1024)),
                               static_cast<int>(ListDir(Proc(subject.pid, "fd")).size()),
                               details == nullptr ? -1 : details->lMemCount,
                               details == nullptr ? -1 : details->lObjCount});
}

Text SamplesText(const std::vector<Subject>& subjects, int seconds, std::vector<Text>& faults) {
    Text text = "| After s |", line = "\n|---|";
    for (const Subject& subject : subjects) {
        text += " " + subject.name + " |";
        line += "---|";
    }
    text += line;
    for (std::size_t n = 0; n < subjects.front().samples.size(); n++) {
        text += "\n| " + to_string(seconds * static_cast<int>(n + 1)) + " |";
        for (const Subject& subject : subjects) {
            const Sample& s = subject.samples[n];
            text += " " + to_string(s[Rss]) + " / " + to_string(s[Descriptors]);
            if (s[Blocks] != -1)
                text += " / " + to_string(s[Blocks]) + " / " + to_string(s[Objects]);
            text += " |";
        }
    }
    text +=
        "\n\n| Process | Figure | Mean of second third | Mean of last third | Flat |\n"
        "|---|---|---|---|---|\n";
    for (const Subject& subject : subjects) {
        for (std::size_t n = Sanitized ? Descriptors : Rss; n <= Objects; n++) {
            if (subject.samples.back()[n] == -1) continue;
            const double before = Mean(subject.samples, n, 1), after = Mean(subject.samples, n, 2);
            const bool flat = after <= before * 1.05 + Figures[n].second;
            char row[200];
            std::snprintf(row, sizeof(row), "| %s | %s | %.0f | %.0f | %s |\n",
                          subject.name.c_str(), Figures[n].first, before, after,
                          flat ? "yes" : "**no**");
            text += row;
            if (!flat) faults.push_back(subject.name + ": " + Figures[n].first + " grow");
        }
    }
    return text;
}

Text WhatItDoes(ProcIdT id, pid_t pid) {
    Text text =
        "  kernel: " + ReadFile(Proc(pid, "wchan")) + ", call " + ReadFile(Proc(pid, "syscall"));
    for (const Text& line : Split(ReadFile(Proc(pid, "status"))))
        if (line.starts_with("State:")) text += "  " + line + "\n";
    ProcDetailsT* details = DetailsOf(id);
    const auto* newest = details == nullptr ? nullptr : TraceCurrentMessage(&details->tTraceBuffer);
    if (newest == nullptr) return text;
    return text + "  last trace: " + reinterpret_cast<const char*>(newest + 1) + "\n";
}
