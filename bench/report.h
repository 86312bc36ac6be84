// A table of pairs instead of Google Benchmark's own listing. A benchmark is registered under the
// name "operation/side"; all sides of an operation stand in one row, the library's ("tessel")
// first.
//
// Every benchmark runs seven times in random order; the best counts. The cost is CPU time per
// item, or megabytes (10^6 bytes) per second where bytes were reported.
#pragma once

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

// The operations in the order in which they were registered.
inline std::vector<std::string>& Operations() {
    static std::vector<std::string> operations;
    return operations;
}

template <class... A>
void Register(const std::string& operation, const std::string& side, A&&... function) {
    if (side == "tessel") Operations().push_back(operation);
    benchmark::RegisterBenchmark((operation + "/" + side).c_str(), std::forward<A>(function)...);
}

class PairReporter : public benchmark::BenchmarkReporter {
 public:
    // Longest time that the library may take, in times of the other's; 0 for no goal.
    PairReporter(std::string title, double goal) : m_title(std::move(title)), m_goal(goal) {}

    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) m_failed = true;
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            const std::string name = run.run_name.function_name;
            const std::size_t cut = name.rfind('/');
            const std::string operation = name.substr(0, cut), side = name.substr(cut + 1);
            const auto bytes = run.counters.find("bytes_per_second");
            const auto items = run.counters.find("items_per_second");
            m_inBytes[operation] = bytes != run.counters.end();
            m_rates[operation][side].push_back(bytes != run.counters.end() ? bytes->second.value
                                               : items != run.counters.end()
                                                   ? items->second.value
                                                   : static_cast<double>(run.iterations) /
                                                         run.cpu_accumulated_time);
        }
    }

    void Finalize() override {
        std::printf(
            "\n%s\n\n| operation | tessel | other | | time, tessel : other "
            "|%s\n|---|---|---|---|---|%s\n",
            m_title.c_str(), m_goal > 0 ? " goal |" : "", m_goal > 0 ? "---|" : "");
        for (const std::string& operation : Operations()) {
            auto& sides = m_rates[operation];
            const double own = Best(sides["tessel"]);
            for (auto& [side, rates] : sides) {
                if (side == "tessel") continue;
                const double ratio = Best(rates) / own;
                std::printf("| %s | %s | %s | %s | %.2f |", operation.c_str(),
                            Text(operation, own).c_str(), side.c_str(),
                            Text(operation, Best(rates)).c_str(), ratio);
                if (m_goal > 0) {
                    std::printf(" at most %.2f: %s |", m_goal, ratio <= m_goal ? "met" : "missed");
                }
                std::printf("\n");
            }
        }
    }

    bool Failed() const { return m_failed; }

 private:
    static double Best(const std::vector<double>& rates) {
        return rates.empty() ? 0 : *std::max_element(rates.begin(), rates.end());
    }

    std::string Text(const std::string& operation, double rate) {
        char text[64];
        std::snprintf(text, sizeof text, m_inBytes[operation] ? "%.0f MB/s" : "%.1f ns",
                      m_inBytes[operation] ? rate / 1e6 : 1e9 / rate);
        return text;
    }

    std::string m_title;
    double m_goal;
    bool m_failed = false;
    std::map<std::string, bool> m_inBytes;
    std::map<std::string, std::map<std::string, std::vector<double>>> m_rates;
};

// Runs what is registered and prints the table; the result is the program's exit status.
inline int RunPairs(int argc, char** argv, const std::string& title, double goal = 0) {
    // The C library keeps what is freed: otherwise all sides measure the kernel handing out pages.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    std::vector<std::string> texts = {argv[0], "--benchmark_repetitions=7",
                                      "--benchmark_enable_random_interleaving=true",
                                      "--benchmark_min_time=0.1"};
    texts.insert(texts.end(), argv + 1, argv + argc);
    std::vector<char*> arguments;
    for (std::string& text : texts) arguments.push_back(text.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
    PairReporter reporter(title, goal);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.Failed() ? 1 : 0;
}
