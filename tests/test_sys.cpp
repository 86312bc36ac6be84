// System services, signals and the start of programs. What touches the whole process is done in
// child processes.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/utsname.h>

#include <sstream>

#include "core/filesys.h"
#include "core/process.h"
#include "core/sys.h"
#include "core/syssignal.h"
#include "support/files.h"
#include "support/leftovers.h"

using Text = std::string;
namespace fs = std::filesystem;

namespace {

Text g_signals;  // handlers that ran, a letter each
void NoteAlarm(int) { g_signals += 'A'; }
void NoteUser(int) { g_signals += 'U'; }

// One SIGALRM, soon.
void AlarmSoon() {
    SigSet(SIGALRM, NoteAlarm);
    const itimerval timer = {{0, 0}, {0, 30000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

bool Held(int signal) {
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

int ExitStatus(ProcActualHandleT tChild) {
    int status = 0;
    return waitpid(tChild, &status, 0) == tChild && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Waits until a child has ended, and leaves it to be collected.
void AwaitEnd(ProcActualHandleT tChild) {
    siginfo_t ended;
    waitid(P_PID, static_cast<id_t>(tChild), &ended, WEXITED | WNOWAIT);
}

}  // namespace

// The name is asked for while the library starts, so each case is a new process that the system
// tells another node name (test_sys.options) and that runs the test behind this one.
int RealUname(utsname* system) asm("__real_uname");
int WrapUname(utsname* system) asm("__wrap_uname");
int WrapUname(utsname* system) {
    const char* node = std::getenv("NODE_NAME");
    if (node == nullptr) return RealUname(system);
    *system = {};
    Text(node).copy(system->nodename, sizeof(system->nodename) - 1);
    return 0;
}

TEST(Sys, MachineName) {
    const TempDir home;
    const Text self = fs::read_symlink("/proc/self/exe"), longest(64, 'n');
    for (const char* directory : {"config", "tmp"}) fs::create_directories(home / directory);
    const Text cases[][3] = {{longest, "", Text(63, 'n')},
                             {"short", "Other=x\n", "short"},
                             {longest, "Name=theta\n", "theta"}};
    for (const auto& [node, config, name] : cases) {
        WriteFile(home / "config/configure.cfg", "[Machine]\n" + config);
        const RunResult result = ::Run({self, "--gtest_filter=Sys.NameOfNewProcess"},
                                       {Text(TestHomeVariable) + "=" + home.Path(),
                                        "NODE_NAME=" + node, "EXPECTED_NAME=" + name});
        EXPECT_EQ(result.exitCode, 0) << result.output;
    }
}

TEST(Sys, NameOfNewProcess) {
    const char* expected = std::getenv("EXPECTED_NAME");
    if (expected == nullptr) return;
    EXPECT_STREQ(SysLocalMachineName(), expected);
    WriteFile(TestHome() + "/config/configure.cfg", "[Machine]\nName=changed\n");
    const NothingLeft nothing;
    EXPECT_STREQ(SysLocalMachineName(), expected);  // asked for once
    EXPECT_EQ(SysSetLocalMachineName("own"), TRUE);
    EXPECT_EQ(SysSetLocalMachineName(nullptr), FALSE);
    EXPECT_STREQ(SysLocalMachineName(), "own");
}

TEST(Sys, Environment) {
    const std::pair<Text, int32> values[] = {
        {"12", 12}, {"", 0}, {"a=b", 0}, {"12x", 0}, {"-2147483648", INT32_MIN}, {"2147483648", 0}};
    for (const auto& [value, lNumber] : values) {
        char* pstrValue = nullptr;
        int32 lValue = 7;
        EXPECT_EQ(SysSetEnvString("TEST_SYS", value.c_str()), TRUE);
        EXPECT_EQ(SysGetEnvString(&pstrValue, "TEST_SYS"), TRUE);
        EXPECT_EQ(SysGetEnvInteger(&lValue, "TEST_SYS"), TRUE);
        EXPECT_EQ(Owned(pstrValue) + std::getenv("TEST_SYS"), value + value);
        EXPECT_EQ(lValue, lNumber);
    }
    EXPECT_EQ(SysSetEnvInteger("TEST_SYS", INT32_MIN), TRUE);
    EXPECT_STREQ(std::getenv("TEST_SYS"), "-2147483648");
    for (const char* bad : {"TEST=SYS", "", static_cast<const char*>(nullptr)}) {
        int32 lValue = 7;
        EXPECT_EQ(SysSetEnvString(bad, "12") + SysGetEnvInteger(&lValue, bad), FALSE);
        EXPECT_EQ(lValue, 7);
    }
}

TEST(Sys, Sizes) {
    // clang-format off
    const std::pair<int64, Text> sizes[] = {
        {0, "0 bytes"}, {-1, "-1 bytes"}, {INT64_MIN, "-9223372036854775808 bytes"},
        {10239, "10239 bytes"}, {10240, "10 Kbytes"}, {10241, "11 Kbytes"},
        {10485759, "10240 Kbytes"}, {10485760, "10 Mbytes"}, {10485761, "11 Mbytes"},
        {INT32_MAX, "2048 Mbytes"}, {int64{1} << 32, "4096 Mbytes"},
        {INT64_MAX, "8796093022208 Mbytes"}};
    // clang-format on
    for (const auto& [llSize, text] : sizes) {
        char* pstrText = nullptr;
        EXPECT_EQ(SysInt64ToUnitString(&pstrText, llSize), TRUE);
        EXPECT_EQ(Owned(pstrText), text);
        if (llSize < INT32_MIN || llSize > INT32_MAX) continue;
        EXPECT_EQ(SysIntegerToUnitString(&pstrText, static_cast<int32>(llSize)), TRUE);
        EXPECT_EQ(Owned(pstrText), text);
    }
    EXPECT_EQ(SysSetLocale("C"), FALSE);  // there is no other
    EXPECT_EQ(SysIsDefaultLocale(), TRUE);
    EXPECT_EQ(SysConvertToMegs(-1048575) + SysConvertToMegs(int64{3} << 40), 3 << 20);
    EXPECT_EQ(SysUnpackInt64(nullptr) + SysUnpackInt64(&"\0\1\0\0\0\0\0\0"[1]), 1);
}

TEST(Sys, LimitsAndDisks) {
    const RunResult result = InChild([] {
        const rlim_t hard[] = {RLIM_INFINITY, RLIM_INFINITY, 1 << 20};
        for (int round = 0; round < 3; round++) {
            rlimit limit = {1 << 20, hard[round]};
            if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
            umask(077);
            const BooleanT bResult = round == 0 ? (SysSetLimits(), TRUE) : SysMaxFileLimit();
            if (umask(0) != 0 || getrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
            const bool lifted = limit.rlim_cur == RLIM_INFINITY && limit.rlim_max == RLIM_INFINITY;
            // Only who may raise a hard limit gets past one.
            if (lifted != (bResult == TRUE) || (round < 2 && !lifted)) return 3;
        }
        return 0;
    });
    EXPECT_EQ(result.exitCode, 0);

    const Dir dir;
    SysDiskSpaceT tSpace = {1, 1, 1, 1, 1};
    EXPECT_EQ(SysGetDiskSpace(&tSpace, dir.Path().c_str()), TRUE);
    FILE* system = popen(("stat -f -c '%b %S' " + dir.Path()).c_str(), "r");
    long long llBlocks = 0, llUnit = 0;
    ASSERT_EQ(std::fscanf(system, "%lld %lld", &llBlocks, &llUnit), 2);
    pclose(system);
    EXPECT_EQ(tSpace.llTotalSpace, llBlocks * llUnit);
    EXPECT_LE(tSpace.llAvailableSpace, tSpace.llFreeSpace);
    EXPECT_LT(tSpace.llFreeSpace, tSpace.llTotalSpace);
    EXPECT_EQ(tSpace.lPercent, tSpace.llFreeSpace / llUnit / (llBlocks / 100));
    tSpace.llTotalSpace = 5;
    EXPECT_EQ(SysGetDiskSpace(&tSpace, "/proc"), TRUE);  // has no blocks
    EXPECT_EQ(tSpace.lPercent + tSpace.llFreeSpace + tSpace.llTotalSpace, 5);
    const TraceCapture trace;
    EXPECT_EQ(SysGetDiskSpace(&tSpace, dir("none")), FALSE);
    EXPECT_EQ(trace.Text("SYSTEM", 22), "Failed to statvfs '" + dir("none") + "'");
    EXPECT_EQ(SysGetDiskSpace(&tSpace, "") + SysGetDiskSpace(nullptr, "/"), FALSE);

    WriteFile(dir("file"), "12345");
    ASSERT_EQ(symlink(dir("file"), dir("link")), 0);
    ObjHolder<SysStatS> through;  // with which the class is made known
    EXPECT_EQ(SysStat(dir("link"), through.Address(), TRUE), TRUE);
    EXPECT_EQ(through.Get()->tStat.llFileSize, 5);
    const NothingLeft nothing;
    ObjHolder<SysStatS> itself, handle, none;
    FileCloser file;
    ASSERT_EQ(FileSysOpen(file.Address(), dir("file"), FileModeRead), TRUE);
    EXPECT_EQ(SysStatHandle(handle.Address(), file.Get()), TRUE);
    EXPECT_EQ(ObjCompare(handle.Get(), through.Get()), TRUE);
    EXPECT_EQ(SysStat(dir("link"), itself.Address(), FALSE), TRUE);
    EXPECT_TRUE(S_ISLNK(itself.Get()->tStat.lMode));
    EXPECT_EQ(SysStat(dir("none"), none.Address(), TRUE), FALSE);
    EXPECT_EQ(none.Get(), nullptr);
    EXPECT_EQ(SysStat(dir("file"), nullptr, TRUE), TRUE);
}

TEST(Signals, SectionsHoldTheAlarm) {
    const RunResult result = InChild([] {
        SigSet(SIGALRM, NoteAlarm);
        Text seen;
        const auto ring = [&] { raise(SIGALRM), seen += g_signals + "."; };
        SigNotifyStart();  // one too many
        SigNotifyStop();
        ring();
        SigNotifyStop();
        SigNotifyStart();
        ring();
        SigNotifyStart();
        ring();
        SigEnteringHandler();
        SigNotifyStop();  // within a handler nothing is held
        ring();
        SigNotifyStart();
        SigLeavingHandler();
        return seen == "..AA.AAA." && glCallDepth == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode, 0);
}

TEST(Signals, HandlersAndMasks) {
    const RunResult result = InChild([] {
        if (SigSet(SIGUSR1, NoteUser) != SIG_DFL || SigGet(SIGUSR1) != NoteUser) return 1;
        struct sigaction installed;
        sigaction(SIGUSR1, nullptr, &installed);
        if ((installed.sa_flags & (SA_RESTART | SA_NODEFER | SA_RESETHAND)) != 0 ||
            sigismember(&installed.sa_mask, SIGALRM) != 1)
            return 2;
        if (SigSet(SIGKILL, SIG_IGN) != SIG_ERR || SigErrorCode() != EINVAL) return 3;
        // The pause ends with the alarm; what is held meanwhile comes after it.
        SigHold(SIGUSR1);
        raise(SIGUSR1);
        AlarmSoon();
        if (SigPause(SIGUSR1) != -1 || errno != EINTR || g_signals != "AU") return 4;
        SigHoldAll();
        raise(SIGUSR1);
        raise(SIGALRM);
        SigRelease(SIGUSR1);
        if (g_signals != "AUU") return 5;
        SigIgnoreAll();
        if (!Held(SIGALRM) || Held(SIGUSR1)) return 6;
        for (int signal = 1; signal < 32; signal++)
            if (signal != SIGKILL && signal != SIGSTOP && SigGet(signal) != SIG_IGN) return 7;
        return 0;
    });
    EXPECT_EQ(result.exitCode, 0);
}

TEST(Signals, EndASleep) {
    AlarmSoon();
    SysSleep(INT32_MAX);
    SysSleep(INT32_MIN);
    EXPECT_EQ(g_signals, "A");
    const TraceCapture trace;
    SigCleanup();  // says that it was called, and leaves the handlers
    EXPECT_EQ(trace.CountText("SigCleanup"), 1);
    EXPECT_EQ(SigSet(SIGALRM, SIG_DFL), NoteAlarm);
}

TEST(Process, WhatAProgramIsStartedWith) {
    const Dir dir;
    WriteFile(dir("program"), "#!/bin/sh\nexec 3>" + dir("out") +
                                  "\n[ -e /proc/$$/fd/0 ] && echo in >&3 || echo >&3\n"
                                  "for f in 1 2; do echo \"$(readlink /proc/$$/fd/$f)\" >&3; done\n"
                                  "grep flags /proc/$$/fdinfo/2 >&3\n"
                                  "for a; do echo \"$a\" >&3; done\nexit 3\n");
    fs::permissions(dir("program").c_str(), fs::perms::owner_all);
    for (const bool closed : {false, true}) {
        const RunResult result = InChild([&] {
            for (int standard = 0; closed && standard < 3; standard++) close(standard);
            ProcActualHandleT tChild = 0;
            ProcStartProcessWithArgs(&tChild, dir("program"), "1", "2 3", "", "4", "5", "6", "7",
                                     "8", "9", "10", "11", "12", "13", "14", "15", "16", "17",
                                     "last", "19", "20", nullptr);
            return ExitStatus(tChild);
        });
        EXPECT_EQ(result.exitCode, 3);
        const std::vector<Text> lines = Split(ReadFile(dir("out")));
        ASSERT_EQ(lines.size(), 4U + 18U);
        EXPECT_EQ(lines[0], closed ? "" : "in");
        EXPECT_EQ(lines[1] + lines[2], "/dev/null/dev/null");
        EXPECT_EQ(std::stoi(lines[3].substr(7), nullptr, 8) & (O_ACCMODE | O_APPEND),
                  O_WRONLY | O_APPEND);
        EXPECT_EQ(lines[4] + "|" + lines[5] + "|" + lines[6] + "|" + lines[21], "1|2 3||last");
    }
    // Signals: what the program itself holds and ignores is handed on, not what the library holds.
    const RunResult result = InChild([&] {
        SigIgnore(SIGUSR2);
        SigHold(SIGUSR1);
        SigNotifyStop();
        ProcActualHandleT tChild = 0;
        ProcStartProcessWithArgs(&tChild, "/bin/cp", "/proc/self/status", "/proc/self/cmdline",
                                 dir.Path().c_str(), nullptr);
        return Held(SIGALRM) && Held(SIGUSR1) && !Held(SIGTERM) ? ExitStatus(tChild) : 2;
    });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_STREQ(ReadFile(dir("cmdline")).c_str(), "cp");
    const Text status = ReadFile(dir("status"));
    EXPECT_NE(status.find("SigBlk:\t0000000000000200\n"), Text::npos) << status;
    EXPECT_NE(std::stoull(status.substr(status.find("SigIgn:") + 8), nullptr, 16) & 0x800, 0U);
}

TEST(Process, ProgramsThatDoNotRun) {
    const Dir dir;
    WriteFile(dir("plain"), "#!/bin/sh\n");
    WriteFile(dir("broken"), "#!/nonexistent/interpreter\n");
    fs::permissions(dir("broken").c_str(), fs::perms::owner_all);
    const std::pair<Text, int> cases[] = {// -1 for what is not started
                                          {"true", 0},
                                          {"false", 1},
                                          {"no-such-program-here", 127},
                                          {dir("broken"), 127},
                                          {dir("plain"), -1},
                                          {dir("none"), -1},
                                          {"", -1}};
    for (const auto& [program, status] : cases) {
        TraceCapture trace;
        ProcActualHandleT tChild = 7;
        const BooleanT bStarted = ProcStartProcessWithArgs(&tChild, program.c_str(), nullptr);
        EXPECT_EQ(bStarted, BooleanFrom(status >= 0)) << program;
        EXPECT_EQ(bStarted == TRUE ? ExitStatus(tChild) : tChild, status >= 0 ? status : 7);
        EXPECT_EQ(trace.CountText("No execute access to '" + program + "'"),
                  status < 0 && !program.empty() ? 1 : 0);
    }
    const RunResult full = InChild([] {
        TraceCapture trace;
        const rlimit none = {0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0) return 1;
        if (geteuid() == 0 && setuid(65534) != 0) return 2;  // the limit does not bind root
        if (ProcStartProcessWithArgs(nullptr, "/bin/true", nullptr) != FALSE) return 3;
        return trace.Count("PROCESS", 212) == 1 && !Held(SIGTERM) ? 0 : 4;
    });
    EXPECT_EQ(full.exitCode, 0);
}

TEST(Process, ChildrenNobodyWaitsForAreCollected) {
    const RunResult result = InChild([] {
        ProcActualHandleT tOwn = 0;
        if (ProcStartProcessWithArgs(&tOwn, "false", nullptr) != TRUE) return 1;
        AwaitEnd(tOwn);
        const Text children = "/proc/self/task/" + std::to_string(getpid()) + "/children";
        for (int round = 0; round < 3; round++) {
            if (ProcStartProcessWithArgs(nullptr, "true", nullptr) != TRUE) return 2;
            std::istringstream list(ReadFile(children));
            ProcActualHandleT tFirst = 0, tLast = 0, tMore = 0;
            list >> tFirst >> tLast;
            // The own child and the last one: those before it are gone.
            if (tFirst != tOwn || tLast == 0 || list >> tMore) return 3;
            AwaitEnd(tLast);
        }
        return ExitStatus(tOwn) == 1 ? 0 : 4;
    });
    EXPECT_EQ(result.exitCode, 0);
}
