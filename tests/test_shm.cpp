// Keys and real segments. Each test runs in a process of its own: the path of the keys is asked for
// once and their ids are used up. Waiting and refusals are replaced (test_shm.options).
#include <sys/mman.h>
#include <sys/shm.h>

#include "core/context.h"
#include "core/ipc.h"
#include "support/files.h"

namespace {

int gSleeps = 0;
int gRefusals = 0;  // removals still to be refused, with gError
int gError = 0;
int gSignals = 0;

key_t Key(int id) { return ftok((TestHome() + "/keys").c_str(), id); }
bool Lives(int shmId) {
    shmid_ds status = {};
    return shmctl(shmId, IPC_STAT, &status) == 0;
}

// A segment that another process manager made.
int Foreign(int id) { return shmget(Key(id), 100, IPC_CREAT | IPC_EXCL | 0600); }

// Whatever happens in a test, no segment with a key of the installation stays.
class Shm : public testing::Test {
 protected:
    void SetUp() override {
        WriteInHome("keys", "");
        WriteInHome("config/programs.cfg", "[Process Manager]\nunix=keys,other\n");
    }
    void TearDown() override {
        for (int id = 0; id < 256; id++) shmctl(shmget(Key(id), 0, 0), IPC_RMID, nullptr);
    }
};

void Child(const std::function<void()>& function) {
    const RunResult result = InChild([&] {
        function();
        return static_cast<int>(testing::Test::HasFailure());
    });
    EXPECT_EQ(result.exitCode, 0) << result.output << " signal " << result.signal;
}

char* Map(std::size_t size, int protection, int fd) {
    return static_cast<char*>(
        mmap(nullptr, size, protection, MAP_PRIVATE | (fd < 0 ? MAP_ANONYMOUS : 0), fd, 0));
}

}  // namespace

void WrapSleep(int32 lSeconds) __asm__("__wrap__Z8SysSleepi");
void WrapSleep(int32 lSeconds) {
    EXPECT_EQ(lSeconds, 1);
    gSleeps++;
}
int RealShmctl(int shmId, int command, shmid_ds* status) __asm__("__real_shmctl");
int WrapShmctl(int shmId, int command, shmid_ds* status) __asm__("__wrap_shmctl");
int WrapShmctl(int shmId, int command, shmid_ds* status) {
    if (command != IPC_RMID || gRefusals == 0) return RealShmctl(shmId, command, status);
    gRefusals--;
    errno = gError;
    return -1;
}

TEST_F(Shm, KeysComeFromTheInstallation) {
    Child([] {
        const std::string config = TestHome() + "/config/programs.cfg", text = ReadFile(config);
        unlink(config.c_str());
        IpcKeyT tKey = 5;
        TraceCapture trace;
        EXPECT_EQ(IpcGetKey(&tKey, 1), FALSE);
        EXPECT_EQ(trace.Text("IPC", 2), "Invalid programs file?");
        WriteFile(config, text);
        for (const int id : {0, 1, 127, 128, 255}) {
            EXPECT_EQ(IpcGetKey(&tKey, id), TRUE);
            EXPECT_EQ(tKey, Key(id)) << id;
        }
        EXPECT_EQ(IpcGetKey(&tKey, 256) + IpcGetKey(&tKey, -1), FALSE);
        unlink((TestHome() + "/keys").c_str());
        EXPECT_EQ(IpcGetKey(&tKey, 1), FALSE);
        EXPECT_EQ(trace.Count("IPC", 1), 2);  // the second path was kept
    });
}

TEST_F(Shm, SegmentsAreSharedAndRemoved) {
    Child([] {
        ShmIdT tId = ShmIdNone, tSecond = ShmIdNone;
        EXPECT_EQ(ShmAllocate(&tId, 0), FALSE);
        ASSERT_EQ(ShmAllocate(&tId, 5000), TRUE);
        EXPECT_EQ(shmget(Key(0), 5000, 0), tId);
        EXPECT_EQ(shmget(Key(0), 8192, 0), -1);
        void* pMine = nullptr;
        ASSERT_EQ(ShmAttach(&pMine, tId), TRUE);
        std::strcpy(static_cast<char*>(pMine), "question");
        const RunResult other = InChild([&] {
            if (seteuid(65534) != 0 && geteuid() == 0) return 1;
            void* pTheirs = nullptr;
            char text[9];
            if (ShmAttachReadOnly(&pTheirs, tId) != TRUE || pTheirs == pMine) return 2;
            if (ShmCopy(text, pTheirs, 9) != TRUE || ShmCopy(pTheirs, text, 1) != FALSE) return 3;
            if (std::strcmp(text, "question") != 0 || ShmDetach(&pTheirs) != TRUE) return 4;
            if (pTheirs != ShmDetached() || ShmAttach(&pTheirs, tId) != TRUE) return 5;
            std::strcpy(static_cast<char*>(pTheirs), "answer");
            return 0;
        });
        EXPECT_EQ(other.exitCode, 0);
        EXPECT_STREQ(static_cast<char*>(pMine), "answer");

        ASSERT_EQ(ShmAllocate(&tSecond, 1), TRUE);
        EXPECT_EQ(shmget(Key(1), 1, 0), tSecond);
        const int foreign = Foreign(2);
        TraceCapture trace;
        ShmIdT tNone = 77;
        EXPECT_EQ(ShmAllocate(&tNone, 10), FALSE);
        EXPECT_EQ(trace.Text("SHM", 7), "failed to get 10 byes of shared memory: (17) File exists");
        const ShmIdT tGone = tId;
        EXPECT_EQ(ShmFree(&tId), FALSE);
        EXPECT_EQ(tId, ShmIdNone);
        EXPECT_EQ(ShmDetach(&pMine), TRUE);
        EXPECT_FALSE(Lives(tGone));
        EXPECT_EQ(ShmAttach(&pMine, tGone), FALSE);

        // A child has the list, but the segments are its parent's.
        Child(ContextReleaseThread);
        EXPECT_TRUE(Lives(tSecond));
        ContextReleaseThread();
        EXPECT_FALSE(Lives(tSecond));
        EXPECT_TRUE(Lives(foreign));
    });
}

TEST_F(Shm, IdsOfOthersSegments) {
    const int made = Foreign(7);
    ShmIdT tId = ShmIdNone;
    EXPECT_EQ(ShmFree(nullptr) + ShmFree(&tId) + ShmSetId(nullptr, made), FALSE);
    EXPECT_EQ(ShmSetId(&tId, made), TRUE);
    EXPECT_EQ(tId, made);
    EXPECT_EQ(ShmFree(&tId), FALSE);
    EXPECT_TRUE(tId == ShmIdNone && !Lives(made));
}

TEST_F(Shm, StartOfTheProcessManagerCleansUp) {
    Child([] {
        const int first = Foreign(0), used = Foreign(9), last = Foreign(255);
        const auto living = [&] { return Lives(first) * 100 + Lives(used) * 10 + Lives(last); };
        const void* address = shmat(used, nullptr, 0);
        gtTlContext.sProcess.tId = 7;
        EXPECT_EQ(ShmInitialize(), TRUE);
        EXPECT_EQ(living(), 111);
        gtTlContext.sProcess.tId = 1;
        TraceCapture trace;
        EXPECT_EQ(ShmInitialize(), FALSE);
        EXPECT_TRUE(trace.Has("SHM", 2));
        EXPECT_EQ(living(), 11);
        shmdt(address);
        EXPECT_EQ(ShmInitialize(), TRUE);
        EXPECT_EQ(living(), 0);
    });
}

TEST_F(Shm, RefusedRemovalIsRepeatedForAWhile) {
    const struct {
        int refusals, error, sleeps;
    } cases[] = {{10, EPERM, 10}, {11, EPERM, 10}, {1, EINVAL, 0}};
    for (const auto& test : cases) {
        Child([&] {
            ShmIdT tId = ShmIdNone;
            TraceCapture trace;
            ASSERT_EQ(ShmAllocate(&tId, 10), TRUE);
            const ShmIdT tSame = tId;
            gRefusals = test.refusals;
            gError = test.error;
            EXPECT_EQ(ShmFree(&tId), FALSE);
            EXPECT_EQ(gSleeps, test.sleeps);
            EXPECT_EQ(trace.Has("SHM", 11), test.refusals == 11);
            EXPECT_EQ(Lives(tSame), test.refusals != 10);
        });
        TearDown();
    }
}

TEST_F(Shm, CopyMeetsBadAddresses) {
    Child([] {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        char* hole = Map(3 * page, PROT_READ | PROT_WRITE, -1) + page;
        mprotect(hole, page, PROT_NONE);
        std::memset(hole - page, 'x', page);
        char* readOnly = Map(page, PROT_READ, -1);
        FILE* file = std::tmpfile();  // empty: reading its page is a SIGBUS
        alignas(8) char buffer[256];
        const struct {
            const char* name;
            void *to, *from;
            int32 count, copied;  // bytes asked for, and that arrive in the buffer
            BooleanT result;
        } cases[] = {
            {"whole", buffer, hole - 200, 200, 200, TRUE},
            {"unaligned", buffer + 1, hole - 200, 199, 199, TRUE},
            {"up to a hole", buffer, hole - 100, 101, 100, FALSE},
            {"from a hole", buffer, hole + 8, 1, 0, FALSE},
            {"read-only", readOnly, buffer, 8, 0, FALSE},
            {"behind a file", buffer, Map(page, PROT_READ, fileno(file)), 8, 0, FALSE},
            {"from null", buffer, nullptr, 1, 0, FALSE},
            {"nothing", nullptr, nullptr, 0, 0, TRUE},
            {"less than nothing", buffer, hole - 8, -1, 0, FALSE},
        };
        const auto countSignal = [](int /*iSignal*/) { gSignals++; };
        std::signal(SIGSEGV, countSignal);
        std::signal(SIGBUS, SIG_IGN);
        sigset_t blocked, after;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGSEGV);
        for (const int how : {SIG_UNBLOCK, SIG_BLOCK}) {
            sigprocmask(how, &blocked, nullptr);
            for (const auto& test : cases) {
                std::memset(buffer, '-', sizeof(buffer));
                EXPECT_EQ(ShmCopy(test.to, test.from, test.count), test.result) << test.name;
                EXPECT_EQ(std::count(buffer, buffer + 256, 'x'), test.copied) << test.name;
                struct sigaction segv = {}, bus = {};
                sigaction(SIGSEGV, nullptr, &segv);
                sigaction(SIGBUS, nullptr, &bus);
                sigprocmask(SIG_SETMASK, nullptr, &after);
                EXPECT_TRUE(segv.sa_handler == countSignal && bus.sa_handler == SIG_IGN &&
                            sigismember(&after, SIGSEGV) == (how == SIG_BLOCK))
                    << test.name;
            }
        }
        EXPECT_EQ(gSignals, 0);
        // Blocked so far, the signal arrives inside the copy, which goes on after its handler.
        raise(SIGSEGV);
        EXPECT_EQ(ShmCopy(buffer, hole - 100, 100), TRUE);
        EXPECT_EQ(gSignals, 1);
    });
}
