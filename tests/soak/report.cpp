#include "report.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "core/context.h"
#include "core/procinit.h"
#include "support/support.h"

namespace {

using Text = std::string;

ProcDetailsT* DetailsOf(ProcIdT id) {
    const ProcProcessTableT* table = gtTlContext.sProcess.ptProcessTable;
    if (table == nullptr) return nullptr;
    const ProcHandleT* slots = ProcTableSlots(table);
    const auto* end = slots + table->lSlotCount;
    const auto* slot = std::find_if(slots, end, [id](auto& s) { return s.tProcessId == id; });
    return slot == end ? nullptr : ProcDetailsAt(slot->lDetailsOffset);
}

Text Proc(pid_t pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

struct Figure {
    const char* name;
    int Sample::*value;
    double allowed;
};
const Figure figures[] = {{"RSS kB", &Sample::rss, 512},
                          {"descriptors", &Sample::descriptors, 4},
                          {"blocks", &Sample::blocks, 100},
                          {"objects", &Sample::objects, 100}};

// A sanitizer keeps what has been freed for a long time.
#ifdef __SANITIZE_ADDRESS__
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif

double Mean(const std::vector<Sample>& samples, int Sample::*value, std::size_t third) {
    const std::size_t from = samples.size() * third / 3, to = samples.size() * (third + 1) / 3;
    double sum = 0;
    for (std::size_t n = from; n < to; n++) sum += samples[n].*value;
    return to > from ? sum / static_cast<double>(to - from) : 0;
}

}  // namespace

void TakeSample(Subject& subject) {
    Sample sample;
    std::ifstream statm(Proc(subject.pid, "statm"));
    std::int64_t pages = 0;  // first of the address space, which a sanitizer makes very large
    statm >> pages >> pages;
    sample.rss = static_cast<int>(pages * (sysconf(_SC_PAGESIZE) / 1024));
    DIR* directory = opendir(Proc(subject.pid, "fd").c_str());
    for (; directory != nullptr && readdir(directory) != nullptr;) sample.descriptors++;
    sample.descriptors -= 2;
    if (directory != nullptr) closedir(directory);
    if (const ProcDetailsT* details = DetailsOf(subject.id); details != nullptr) {
        sample.blocks = details->lMemCount;
        sample.objects = details->lObjCount;
    }
    subject.samples.push_back(sample);
}

Text SamplesText(const std::vector<Subject>& subjects, int seconds, std::vector<Text>& faults) {
    Text text = "| After s |";
    for (const Subject& subject : subjects) text += " " + subject.name + " |";
    text += "\n|---|";
    for (std::size_t n = 0; n < subjects.size(); n++) text += "---|";
    const std::size_t count = subjects.front().samples.size();
    for (std::size_t n = 0; n < count; n++) {
        text += "\n| " + std::to_string(seconds * static_cast<int>(n + 1)) + " |";
        for (const Subject& subject : subjects) {
            const Sample& s = subject.samples[n];
            text += " " + std::to_string(s.rss) + " / " + std::to_string(s.descriptors);
            if (s.blocks != -1)
                text += " / " + std::to_string(s.blocks) + " / " + std::to_string(s.objects);
            text += " |";
        }
    }
    text +=
        "\n\n| Process | Figure | Mean of second third | Mean of last third | Flat |\n"
        "|---|---|---|---|---|\n";
    for (const Subject& subject : subjects) {
        for (const auto& [name, value, allowed] : figures) {
            if (subject.samples.back().*value == -1 || (Sanitized && value == &Sample::rss))
                continue;
            const double before = Mean(subject.samples, value, 1);
            const double after = Mean(subject.samples, value, 2);
            const bool flat = after <= before * 1.05 + allowed;
            char line[200];
            std::snprintf(line, sizeof(line), "| %s | %s | %.0f | %.0f | %s |\n",
                          subject.name.c_str(), name, before, after, flat ? "yes" : "**no**");
            text += line;
            if (!flat) faults.push_back(subject.name + ": " + name + " grow");
        }
    }
    return text;
}

Text WhatItDoes(ProcIdT id, pid_t pid) {
    Text text =
        "  kernel: " + ReadFile(Proc(pid, "wchan")) + ", call " + ReadFile(Proc(pid, "syscall"));
    const Text status = ReadFile(Proc(pid, "status"));
    if (const auto at = status.find("State:"); at != Text::npos)
        text += "  " + status.substr(at, status.find('\n', at) - at) + "\n";
    ProcDetailsT* details = DetailsOf(id);
    const auto* newest = details == nullptr ? nullptr : TraceCurrentMessage(&details->tTraceBuffer);
    if (newest != nullptr)
        text += "  last trace: " + Text(reinterpret_cast<const char*>(newest + 1)) + "\n";
    return text;
}
