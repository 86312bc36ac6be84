// The ring of jobs and the threads.
//
// Three numbers that only grow say where everything stands: jobs below the oldest one are released,
// those below m_llBegun are done or being worked on, those below m_llNext are handed over. Who
// works holds the lock while it takes the next number and while it marks a job as done, never in
// between. The owner alone changes the first and the last number, so it reads them without the
// lock.
#include "chunkpool.h"

#include <csignal>

namespace {

// zlib and libdeflate keep their state on the heap.
constexpr std::size_t WorkerStackSize = 256 * 1024;

// Threads that the calling one makes while this lives take no signals.
class SignalsHeld {
 public:
    SignalsHeld() {
        sigset_t tAll;
        sigfillset(&tAll);
        pthread_sigmask(SIG_SETMASK, &tAll, &m_tBefore);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &m_tBefore, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
    sigset_t m_tBefore;
};

}  // namespace

ChunkPool::ChunkPool(ChunkStepF fnStep, ChunkJobT* ptJobs, int32 lJobs, int32 lWorkers)
    : m_fnStep(fnStep),
      m_ptJobs(ptJobs),
      m_lJobs(lJobs),
      m_lMoreWorkers(lWorkers < MostWorkers ? lWorkers : MostWorkers) {}

ChunkPool::~ChunkPool() {
    {
        const std::lock_guard<std::mutex> tGuard(m_tLock);
        m_bEnding = true;
    }
    m_tWorkIsThere.notify_all();
    while (m_lWorkers > 0) pthread_join(m_atWorkers[--m_lWorkers], nullptr);
}

void ChunkPool::Submit() {
    if (m_lMoreWorkers > 0) StartWorker();
    {
        const std::lock_guard<std::mutex> tGuard(m_tLock);
        Job(m_llNext).bDone = false;
        m_llNext++;
    }
    m_tWorkIsThere.notify_one();
}

const ChunkJobT& ChunkPool::Finish() {
    const ChunkJobT& tOldest = Job(m_llOldest);
    std::unique_lock<std::mutex> tGuard(m_tLock);
    if (m_llBegun == m_llOldest) DoNext(tGuard);
    if (tOldest.bDone) return tOldest;
    m_bOwnerWaits = true;
    m_tJobsAreDone.wait(tGuard, [&] { return IsWorthWaking(); });
    m_bOwnerWaits = false;
    return tOldest;
}

// Waking the owner costs as much as a small job, and it takes a processor from a worker. So it
// sleeps until half of the ring is done, or the workers have nothing left to begin.
bool ChunkPool::IsWorthWaking() {
    if (!Job(m_llOldest).bDone) return false;
    const int64 llBatch = m_llOldest + m_lJobs / 2;
    return m_llBegun == m_llNext || llBatch >= m_llNext || Job(llBatch).bDone;
}

void ChunkPool::DoNext(std::unique_lock<std::mutex>& tGuard) {
    const int64 llNumber = m_llBegun++;
    tGuard.unlock();
    m_fnStep(Job(llNumber));
    tGuard.lock();
    Job(llNumber).bDone = true;
    if (m_bOwnerWaits && IsWorthWaking()) m_tJobsAreDone.notify_one();
}

void ChunkPool::StartWorker() {
    m_lMoreWorkers--;
    pthread_attr_t tAttributes;
    if (pthread_attr_init(&tAttributes) != 0) return;
    pthread_attr_setstacksize(&tAttributes, WorkerStackSize);
    const SignalsHeld tHeld;
    if (pthread_create(&m_atWorkers[m_lWorkers], &tAttributes, Run, this) == 0) {
        m_lWorkers++;
    } else {
        m_lMoreWorkers = 0;
    }
    pthread_attr_destroy(&tAttributes);
}

void* ChunkPool::Run(void* pPool) {
    static_cast<ChunkPool*>(pPool)->Work();
    return nullptr;
}

void ChunkPool::Work() {
    std::unique_lock<std::mutex> tGuard(m_tLock);
    while (true) {
        m_tWorkIsThere.wait(tGuard, [&] { return m_bEnding || m_llBegun < m_llNext; });
        if (m_bEnding) return;
        DoNext(tGuard);
    }
}
