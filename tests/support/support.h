// What the test programs share, with the headers that most of them need. The main function
// (testmain.cpp) makes a home directory with a "tmp" in it, initialises the library and runs the
// tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/trace.h"
#include "core/types.h"

// The home directory of this test run: a new one, unless the environment names one that is there.
const std::string& TestHome();
constexpr char TestHomeVariable[] = "TESSEL_TEST_HOME";

// A fresh directory, removed with all it holds at the end of its life.
class TempDir {
 public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
    std::string m_path;
};

std::string ReadFile(const std::string& path);  // empty when it cannot be read
void WriteFile(const std::string& path, const std::string& bytes);
bool Exists(const std::string& path);
std::vector<std::string> ListDir(const std::string& path);  // sorted names without "." and ".."

// The parts of a text that an end character closes; the last one may do without.
std::vector<std::string> Split(const std::string& text, char end = '\n');

// Collects every trace record up to a level while it lives. Its sink spoils errno.
class TraceCapture {
 public:
    struct Record {
        std::string module;
        int32 number;
        int32 status;
        int32 level;
        std::string text;
    };
    explicit TraceCapture(int32 level = 4);
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;
    const std::vector<Record>& Records() const;
    int Count(const std::string& module, int32 number) const;
    bool Has(const std::string& module, int32 number) const { return Count(module, number) > 0; }
    // Text and level of the first such record; empty and -99 when there is none.
    std::string Text(const std::string& module, int32 number) const {
        return First(module, number).text;
    }
    int32 Level(const std::string& module, int32 number) const {
        return First(module, number).level;
    }
    // Number of records whose text is exactly this.
    int CountText(const std::string& text) const;
    void Clear();

 private:
    Record First(const std::string& module, int32 number) const;

    TraceLevelE m_previous;
};

// What a command printed on standard output, and how it ended.
struct RunResult {
    std::string output;
    int exitCode = -1;  // -1 when a signal ended it
    int signal = 0;
};
// Runs a program (under the emulator where the tests are built for another processor), with extra
// environment entries "NAME=value".
RunResult Run(const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment = {});

// Ends a child process as _exit does; in a coverage build its counts are written first.
[[noreturn]] void EndChild(int code);

// Runs a function in a child process and reports how the child ended; exit code is the function's
// result. What the child prints is collected.
RunResult RunForked(int (*function)(void*), void* argument);

// Lets the stop of ProcCrash pass (the signal is ignored) while it lives.
class IgnoreCrash {
 public:
    IgnoreCrash() : m_previous(std::signal(SIGSEGV, SIG_IGN)) {}
    ~IgnoreCrash() { std::signal(SIGSEGV, m_previous); }
    IgnoreCrash(const IgnoreCrash&) = delete;
    IgnoreCrash& operator=(const IgnoreCrash&) = delete;

 private:
    void (*m_previous)(int);
};
