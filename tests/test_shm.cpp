// Keys and real segments. Each test runs in a process of its own: the path of the keys is asked for
// once and their ids are used up. Waiting between attempts is replaced (test_shm.options).
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/context.h"
#include "core/ipc.h"
#include "core/shm.h"
#include "support/files.h"
#include "support/support.h"

namespace {

int gSleeps = 0;
int gRootAgainAfter = 0;  // sleeps after which the process gets its permissions back

const std::string& KeyFile() {
    static const std::string path = TestHome() + "/bin/keys";
    return path;
}
key_t Key(int id) { return ftok(KeyFile().c_str(), id); }
bool Lives(int shmId) {
    shmid_ds status = {};
    return shmctl(shmId, IPC_STAT, &status) == 0;
}

// A test in a child. Whatever happens in it, no segment with a key of the installation stays.
class Shm : public testing::Test {
 protected:
    static void SetUpTestSuite() {
        mkdir((TestHome() + "/bin").c_str(), 0700);
        mkdir((TestHome() + "/config").c_str(), 0700);
        WriteFile(KeyFile(), "");
        WriteFile(TestHome() + "/config/programs.cfg", "[Process Manager]\nunix=bin/keys,other\n");
    }
    void TearDown() override {
        for (int id = 0; id < 256; id++) shmctl(shmget(Key(id), 0, 0), IPC_RMID, nullptr);
    }
    template <class F>
    static void Child(F function) {
        const RunResult result = InChild([&] {
            function();
            return static_cast<int>(HasFailure());
        });
        EXPECT_EQ(result.exitCode, 0) << result.output << " signal " << result.signal;
    }
    // A segment left behind by another process manager.
    static int Foreign(int id) { return shmget(Key(id), 100, IPC_CREAT | IPC_EXCL | 0600); }
};

}  // namespace

void WrapSleep(int32 lSeconds) __asm__("__wrap__Z8SysSleepi");
void WrapSleep(int32 lSeconds) {
    EXPECT_EQ(lSeconds, 1);
    if (++gSleeps == gRootAgainAfter) {
        EXPECT_EQ(seteuid(0), 0);
    }
}

TEST_F(Shm, KeysComeFromTheInstallation) {
    Child([] {
        const std::string config = TestHome() + "/config/programs.cfg";
        rename(config.c_str(), (config + ".away").c_str());
        IpcKeyT tKey = 5;
        TraceCapture trace;
        EXPECT_EQ(IpcGetKey(&tKey, 1), FALSE);
        EXPECT_EQ(trace.Text("IPC", 2), "Invalid programs file?");
        EXPECT_EQ(trace.Text("IPC", 3), "Failed to get IPC key (5,1)");
        rename((config + ".away").c_str(), config.c_str());
        for (const int id : {0, 1, 127, 128, 255}) {
            EXPECT_EQ(IpcGetKey(&tKey, id), TRUE);
            EXPECT_EQ(tKey, Key(id)) << id;
        }
        for (const int id : {256, -1}) EXPECT_EQ(IpcGetKey(&tKey, id), FALSE);
        EXPECT_EQ(trace.Count("IPC", 1), 2);  // not asked for again
        EXPECT_EQ(IpcGetKey(nullptr, 1), FALSE);
        unlink(KeyFile().c_str());
        EXPECT_EQ(IpcGetKey(&tKey, 1), FALSE);
        WriteFile(KeyFile(), "");
    });
}

TEST_F(Shm, SegmentsAreSharedAndRemoved) {
    Child([] {
        ShmIdT tId = ShmIdNone, tSecond = ShmIdNone;
        for (const int32 lSize : {0, -1}) EXPECT_EQ(ShmAllocate(&tId, lSize), FALSE);
        ASSERT_EQ(ShmAllocate(&tId, 5000), TRUE);
        EXPECT_EQ(shmget(Key(0), 5000, 0), tId);
        EXPECT_EQ(shmget(Key(0), 8192, 0), -1);
        shmid_ds status = {};
        ASSERT_EQ(shmctl(tId, IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_perm.mode & 0777, 0666);
        void* pMine = nullptr;
        ASSERT_EQ(ShmAttach(&pMine, tId), TRUE);
        std::strcpy(static_cast<char*>(pMine), "question");

        const RunResult other = InChild([&] {
            void* pTheirs = nullptr;
            if (ShmAttachReadOnly(&pTheirs, tId) != TRUE || pTheirs == pMine) return 1;
            char text[9];
            if (ShmCopy(text, pTheirs, 9) != TRUE || ShmCopy(pTheirs, text, 1) != FALSE) return 2;
            if (std::strcmp(text, "question") != 0 || ShmDetach(&pTheirs) != TRUE) return 3;
            if (pTheirs != ShmDetached() || ShmAttach(&pTheirs, tId) != TRUE) return 4;
            std::strcpy(static_cast<char*>(pTheirs), "answer");
            return 0;
        });
        EXPECT_EQ(other.exitCode, 0);
        EXPECT_STREQ(static_cast<char*>(pMine), "answer");
        EXPECT_EQ(ShmDetach(&pMine), TRUE);
        EXPECT_EQ(ShmDetach(&pMine), FALSE);

        ASSERT_EQ(ShmAllocate(&tSecond, 1), TRUE);
        EXPECT_EQ(shmget(Key(1), 1, 0), tSecond);
        const int foreign = Foreign(2);
        TraceCapture trace;
        ShmIdT tNone = 77;
        EXPECT_EQ(ShmAllocate(&tNone, 10), FALSE);
        EXPECT_EQ(trace.Text("SHM", 7),
                  "failed to get 10 byes of shared memory: (17) " + std::string(strerror(EEXIST)));
        EXPECT_EQ(tNone, 77);
        EXPECT_TRUE(Lives(foreign));

        const ShmIdT tGone = tId;
        EXPECT_EQ(ShmFree(&tId), FALSE);
        EXPECT_EQ(tId, ShmIdNone);
        EXPECT_FALSE(Lives(tGone));
        EXPECT_EQ(ShmAttach(&pMine, tGone), FALSE);
        EXPECT_EQ(ShmAttach(&pMine, ShmIdNone), FALSE);

        // A child has the list, but the segments are its parent's.
        EXPECT_EQ(InChild([] {
                      ContextReleaseThread();
                      return 0;
                  }).exitCode,
                  0);
        EXPECT_TRUE(Lives(tSecond));
        ContextReleaseThread();
        EXPECT_FALSE(Lives(tSecond));
        EXPECT_TRUE(Lives(foreign));
    });
}

TEST_F(Shm, StartOfTheProcessManagerCleansUp) {
    Child([] {
        const int first = Foreign(0), last = Foreign(255);
        gtTlContext.sProcess.tId = 7;
        EXPECT_EQ(ShmInitialize(), TRUE);
        EXPECT_TRUE(Lives(first));
        gtTlContext.sProcess.tId = 1;
        const int used = Foreign(9);
        const void* address = shmat(used, nullptr, 0);
        char key[16];
        {
            TraceCapture trace;
            EXPECT_EQ(ShmInitialize(), FALSE);
            std::snprintf(key, sizeof(key), "0x%x", static_cast<unsigned>(Key(9)));
            EXPECT_EQ(trace.Text("SHM", 2),
                      "ShmInitialize: Tessel shared memory key " + std::string(key) + " is in use");
            EXPECT_EQ(trace.Count("SHM", 3), 1);
        }
        EXPECT_FALSE(Lives(first));
        EXPECT_TRUE(Lives(used));
        EXPECT_TRUE(Lives(last));
        shmdt(address);
        EXPECT_EQ(ShmInitialize(), TRUE);
        EXPECT_FALSE(Lives(used));
        EXPECT_FALSE(Lives(last));
    });
}

TEST_F(Shm, RefusedRemovalIsRepeatedForAWhile) {
    if (geteuid() != 0) GTEST_SKIP() << "needs a second user";
    const struct {
        int rootAgainAfter;
        int sleeps;
        bool lives;
    } cases[] = {{3, 3, false}, {0, 10, true}};
    for (const auto& test : cases) {
        Child([&] {
            ShmIdT tId = ShmIdNone;
            ASSERT_EQ(ShmAllocate(&tId, 10), TRUE);
            const ShmIdT tSame = tId;
            gSleeps = 0;
            gRootAgainAfter = test.rootAgainAfter;
            TraceCapture trace;
            ASSERT_EQ(seteuid(65534), 0);
            EXPECT_EQ(ShmFree(&tId), FALSE);
            EXPECT_EQ(gSleeps, test.sleeps);
            EXPECT_EQ(trace.Count("SHM", 11), test.lives ? 1 : 0);
            EXPECT_EQ(seteuid(0), 0);
            EXPECT_EQ(Lives(tSame), test.lives);
        });
        TearDown();
    }
}

// --- the guarded copy ---

namespace {

int gSignals = 0;
void CountSignal(int /*iSignal*/) { gSignals++; }

// Three pages of memory, of which the one in the middle has the given protection.
struct Pages {
    explicit Pages(int protection)
        : start(static_cast<char*>(mmap(nullptr, 3 * size, PROT_READ | PROT_WRITE,
                                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        mprotect(start + size, size, protection);
    }
    ~Pages() { munmap(start, 3 * size); }
    const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    char* start;
};

}  // namespace

TEST_F(Shm, CopyMeetsBadAddresses) {
    Child([] {
        const Pages none(PROT_NONE), readOnly(PROT_READ);
        const std::size_t page = none.size;
        FILE* file = std::tmpfile();
        auto* beyond = static_cast<char*>(
            mmap(nullptr, page, PROT_READ, MAP_SHARED, fileno(file), 0));  // an empty file: SIGBUS
        alignas(8) char buffer[256];
        char* hole = none.start + page;
        const struct {
            const char* name;
            void* to;
            void* from;
            int32 count;
            BooleanT result;
        } cases[] = {
            {"whole", buffer, hole - 200, 200, TRUE},
            {"unaligned", buffer + 1, hole - 200, 199, TRUE},
            {"from a hole", buffer, hole, 1, FALSE},
            {"into a hole", hole, buffer, 64, FALSE},
            {"up to a hole", buffer, hole - 100, 101, FALSE},
            {"to the end of a hole", buffer, hole + page - 4, 20, FALSE},
            {"into a page that is read-only", readOnly.start + page, buffer, 8, FALSE},
            {"from a page that is read-only", buffer, readOnly.start + page, 8, TRUE},
            {"behind the end of a file", buffer, beyond, 8, FALSE},
            {"from null", buffer, nullptr, 1, FALSE},
            {"into null", nullptr, buffer, 1, FALSE},
            {"from the end of memory", buffer, ShmDetached(), 1, FALSE},
            {"nothing", nullptr, nullptr, 0, TRUE},
            {"less than nothing", buffer, buffer + 8, -1, FALSE},
        };
        std::signal(SIGSEGV, CountSignal);
        std::signal(SIGBUS, SIG_IGN);
        sigset_t blocked, after;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGSEGV);
        for (const int how : {SIG_UNBLOCK, SIG_BLOCK}) {
            sigprocmask(how, &blocked, nullptr);
            for (const auto& test : cases) {
                std::memset(none.start, 'x', page);
                std::memset(buffer, '-', sizeof(buffer));
                EXPECT_EQ(ShmCopy(test.to, test.from, test.count), test.result) << test.name;
                if (test.from == hole - 100) {
                    EXPECT_EQ(std::string(buffer, 101), std::string(100, 'x') + "-");
                } else if (test.from == hole - 200) {
                    const std::string text(buffer, sizeof(buffer));
                    EXPECT_EQ(std::count(text.begin(), text.end(), 'x'), test.count);
                    EXPECT_EQ(text.find('x'), test.to == buffer ? 0U : 1U);
                }
                struct sigaction segv = {}, bus = {};
                sigaction(SIGSEGV, nullptr, &segv);
                sigaction(SIGBUS, nullptr, &bus);
                EXPECT_EQ(segv.sa_handler, CountSignal) << test.name;
                EXPECT_EQ(bus.sa_handler, SIG_IGN) << test.name;
                sigprocmask(SIG_SETMASK, nullptr, &after);
                EXPECT_EQ(sigismember(&after, SIGSEGV), how == SIG_BLOCK) << test.name;
            }
        }
        EXPECT_EQ(gSignals, 0);
        // Blocked so far, the signal arrives inside the copy, which goes on after its handler.
        raise(SIGSEGV);
        EXPECT_EQ(ShmCopy(buffer, hole - 100, 100), TRUE);
        EXPECT_EQ(gSignals, 1);
        std::fclose(file);
    });
}
