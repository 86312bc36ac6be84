// The pool of workers by itself, and the number of processors that it is made for.
#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include "chunkpool.h"
#include "processors.h"
#include "support/files.h"

namespace {

std::atomic<int> g_running = 0;
std::atomic<bool> g_open = true;

// Turns every byte, but waits while the gate is shut.
void Turn(ChunkJobT& tJob) {
    ++g_running;
    while (!g_open) std::this_thread::yield();
    for (int32 i = 0; i < tJob.lInputLength; i++)
        tJob.pOutput[i] = static_cast<ByteT>(~tJob.pInput[i]);
    tJob.lOutputLength = tJob.lInputLength;
    --g_running;
}

struct Ring {
    explicit Ring(int32 count) : jobs(static_cast<std::size_t>(count)), bytes(4096 * jobs.size()) {
        for (std::size_t i = 0; i < jobs.size(); i++) {
            ByteT* input = &bytes[4096 * i];
            jobs[i] = {input, 0, input + 2048, 2048, 0, 0, false};
        }
    }
    std::vector<ChunkJobT> jobs;
    std::vector<ByteT> bytes;
};

void HandOver(ChunkPool& pool) {
    ChunkJobT& tJob = pool.Job(pool.Next());
    tJob.lInputLength = static_cast<int32>(pool.Next() % 2048);
    std::memset(const_cast<ByteT*>(tJob.pInput), static_cast<int>(pool.Next() % 251),
                static_cast<std::size_t>(tJob.lInputLength));
    pool.Submit();
}

void ExpectTurned(ChunkPool& pool) {
    const auto number = static_cast<int>(pool.Oldest());
    const ChunkJobT& tJob = pool.Finish();
    ASSERT_EQ(tJob.lOutputLength, number % 2048);
    for (int32 i = 0; i < tJob.lOutputLength; i++)
        ASSERT_EQ(tJob.pOutput[i], static_cast<ByteT>(~(number % 251))) << number;
    pool.Release();
}

TEST(ChunkPool, EveryJobComesBackDoneInOrder) {
    for (const int32 workers : {0, 1, 2, 7}) {
        for (const int32 jobs : {1, 2, 8}) {
            Ring ring(jobs);
            ChunkPool pool(Turn, ring.jobs.data(), jobs, workers);
            for (int taken = 0; taken < 3000; taken++) {
                while (pool.HasRoom()) HandOver(pool);
                ExpectTurned(pool);
            }
        }
    }
}

TEST(ChunkPool, WorkersWorkAtOnceAndTakeNoSignals) {
    Ring ring(8);
    g_open = false;
    static pthread_t signalled;
    std::signal(SIGUSR1, [](int) { signalled = pthread_self(); });
    {
        ChunkPool pool(Turn, ring.jobs.data(), 8, 3);
        while (pool.HasRoom()) HandOver(pool);
        while (g_running < 3) std::this_thread::yield();
        EXPECT_EQ(g_running, 3);
        // To the process: a worker would take it, if it could, as this thread does not.
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        kill(getpid(), SIGUSR1);
        g_open = true;
        for (int i = 0; i < 4; i++) ExpectTurned(pool);
        EXPECT_EQ(signalled, pthread_t{});
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        EXPECT_EQ(signalled, pthread_self());
        // It ends with jobs that nobody wants any more.
    }
    std::signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(g_running, 0);
}

// A tree of control groups of either generation.
struct Groups : Dir {
    void Put(const std::string& name, const std::string& text) const {
        const std::filesystem::path path = Path() + "/" + name;
        std::filesystem::create_directories(path.parent_path());
        WriteFile(path, text + "\n");
    }
    int32 Quota(const std::string& groups, const std::string& mounts) const {
        Put("groups", groups);
        std::string placed;
        for (const char c : mounts) placed += c == '@' ? Path() : std::string(1, c);
        Put("mounts", placed);
        return ProcessorQuota((*this)("groups"), (*this)("mounts"));
    }
};

TEST(Processors, QuotaIsTheLeastOfAllGroupsAbove) {
    const Groups groups;
    groups.Put("v2/a/cpu.max", "250000 100000");
    groups.Put("v2/a/b/cpu.max", "max 100000");
    groups.Put("v2/a/c:d/cpu.max", "100000 100000");
    groups.Put("v2/empty/cpu.max", "");
    groups.Put("v1/x/cpu.cfs_quota_us", "400000");
    groups.Put("v1/x/cpu.cfs_period_us", "100000");
    groups.Put("v1/x/y/cpu.cfs_quota_us", "-1");
    groups.Put("v1/x/y/cpu.cfs_period_us", "100000");
    groups.Put("v1/z/cpu.cfs_quota_us", "100001");
    groups.Put("v1/z/cpu.cfs_period_us", "100000");
    const std::string v2 = "30 24 0:26 / @/v2 rw,nosuid shared:9 - cgroup2 cgroup2 rw";
    const std::string v1 = "31 24 0:27 / @/v1 rw - cgroup cgroup rw,cpu,cpuacct";
    const std::string sets = "32 24 0:28 / @/v1 rw - cgroup cgroup rw,cpuset";
    const std::string part = "33 24 0:29 /x @/v1/x rw - cgroup cgroup rw,cpu";
    const std::tuple<std::string, std::string, int32> cases[] = {
        {"0::/a", v2, 3},
        {"0::/a/b", v2, 3},
        {"0::/a/c:d", v2, 1},
        {"0::/empty", v2, 0},
        {"0::/", v2, 0},
        {"0::/not/there", v2, 0},
        {"4:cpu,cpuacct:/x/y", v1, 4},
        {"4:cpu,cpuacct:/z", v1, 2},
        {"5:cpuset:/x", sets, 0},
        {"4:cpu:/x/y\n0::/a", v1 + "\n" + v2, 3},
        // A container sees its own group as the root of the mount.
        {"4:cpu:/x/y", part, 4},
        {"4:cpu:/other", part, 4},
        {"", v2, 0},
        {"0::/a", "", 0},
        {"garbage\n::\n0:", "garbage - \n - - -\n", 0},
    };
    for (const auto& [own, mounts, quota] : cases)
        EXPECT_EQ(groups.Quota(own, mounts), quota) << own << " " << mounts;
    EXPECT_EQ(ProcessorQuota(groups("missing"), groups("missing")), 0);
}

TEST(Processors, AffinityCounts) {
    const RunResult result = InChild([] {
        const int32 before = ProcessorCount();
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
        if (sched_setaffinity(0, sizeof one, &one) != 0 || ProcessorCount() != 1) return 1;
        return before >= 1 && before <= static_cast<int32>(std::thread::hardware_concurrency()) ? 0
                                                                                                : 2;
    });
    EXPECT_EQ(result.exitCode, 0);
}

}  // namespace
