// A small pool of threads that compress or expand chunks.
//
// One thread, the owner, fills jobs, hands them over and takes them back in the order in which it
// handed them over. In between a worker runs the pool's step on them. A worker touches the memory
// of its job and nothing else: whatever belongs to the library (pools, objects, files, traces) is
// the owner's. Workers take no signals.
//
// A job that no worker has begun when the owner wants it back is done by the owner. So the pool
// works, one job after the other, without workers and when the system makes no thread.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <mutex>

#include "core/types.h"

// What a worker is given, input and room for the output, and what it gives back.
struct ChunkJobT {
    const ByteT* pInput;
    int32 lInputLength;
    ByteT* pOutput;
    int32 lOutputRoom;
    int32 lOutputLength = 0;
    int iResult = 0;     // zlib's
    bool bDone = false;  // the pool's
};
using ChunkStepF = void (*)(ChunkJobT& tJob);

class ChunkPool {
 public:
    static constexpr int32 MostWorkers = 256;

    // The jobs form a ring. They, and what they point to, stay the caller's and outlive the pool. A
    // thread is made for each of the first lWorkers jobs handed over.
    ChunkPool(ChunkStepF fnStep, ChunkJobT* ptJobs, int32 lJobs, int32 lWorkers);
    // Waits for what is being worked on; what nobody has begun stays undone.
    ~ChunkPool();
    ChunkPool(const ChunkPool&) = delete;
    ChunkPool& operator=(const ChunkPool&) = delete;

    // Jobs have numbers, from 0 in the order of handing over.
    ChunkJobT& Job(int64 llNumber) { return m_ptJobs[llNumber % m_lJobs]; }
    int64 Oldest() const { return m_llOldest; }  // not released yet; Next() when there is none
    int64 Next() const { return m_llNext; }      // to be filled and handed over
    bool HasRoom() const { return m_llNext - m_llOldest < m_lJobs; }
    void Submit();                    // hands over Job(Next()), which needs room
    const ChunkJobT& Finish();        // Job(Oldest()), done; needs one that is handed over
    void Release() { m_llOldest++; }  // Job(Oldest()), which is done, may be filled anew

 private:
    static void* Run(void* pPool);
    void Work();
    void DoNext(std::unique_lock<std::mutex>& tGuard);  // under the lock, given up meanwhile
    bool IsWorthWaking();                               // under the lock
    void StartWorker();

    const ChunkStepF m_fnStep;
    ChunkJobT* const m_ptJobs;
    const int32 m_lJobs;

    // The owner's.
    pthread_t m_atWorkers[MostWorkers];
    int32 m_lWorkers = 0;
    int32 m_lMoreWorkers;  // that may still be made
    int64 m_llOldest = 0;

    // Everybody's, under the lock.
    std::mutex m_tLock;
    std::condition_variable m_tWorkIsThere;
    std::condition_variable m_tJobsAreDone;
    int64 m_llNext = 0;   // changed by the owner only
    int64 m_llBegun = 0;  // jobs below this number are done or being worked on
    bool m_bOwnerWaits = false;
    bool m_bEnding = false;
};
