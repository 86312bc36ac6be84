// One block of memory holds the input and the output of every chunk that can be under way; a chunk
// and what came of reading it are found by its number. What was read is handed over whether it is
// whole or not: the caller looks at the outcome first when the chunk's turn comes.
#include "chunkline.h"

#include <algorithm>

#include "pakzlib.h"
#include "processors.h"

MEM_DEFAULT_POOL_CACHE

namespace {

// One at work, some read and some done: so many that the calling thread, which is woken when half
// of the line is done, hands new ones over before the others are used up.
constexpr int32 ChunksPerWorker = 8;

int32 glWorkers = PakZlibAllProcessors;

int32 WorkersFor(int64 llChunks, int32 lWorthWorker) {
    const bool bAsGranted = glWorkers == PakZlibAllProcessors;
    const int64 llUseful = bAsGranted ? llChunks / lWorthWorker : llChunks;
    if (llChunks < 2 || llUseful < 1) return 0;
    const int32 lGranted = bAsGranted ? ProcessorCount() : glWorkers;
    return static_cast<int32>(std::min<int64>({llUseful, lGranted, int64{ChunkPool::MostWorkers}}));
}

}  // namespace

void PakZlibUseWorkers(int32 lWorkers) {
    glWorkers = lWorkers < 0 ? PakZlibAllProcessors : lWorkers;
}

PakZlibBlock PakZlibNewBlock(int32 lSize) {
    return PakZlibBlock(static_cast<ByteT*>(MemAllocateFromPool(lSize, MemPool())));
}

BooleanT PakZlibWriteAll(FileHandleT tHandle, const void* pBytes, int32 lSize) {
    int32 lWritten = 0;
    return BooleanFrom(FileSysWrite(&lWritten, tHandle, pBytes, lSize) == TRUE &&
                       lWritten == lSize);
}

template <class T>
PoolPtr<T> NewArray(int32 lItems) {
    return PoolPtr<T>(
        static_cast<T*>(MemAllocateFromPool(lItems * static_cast<int32>(sizeof(T)), MemPool())));
}

ChunkLine::ChunkLine(const ChunkShapeT& tShape, int64 llChunks, bool bAhead)
    : m_tShape(tShape),
      m_lWorkers(bAhead ? WorkersFor(llChunks, tShape.lWorthWorker) : 0),
      m_lSlots(static_cast<int32>(
          std::clamp<int64>(llChunks, 1, std::max(tShape.lLeast, m_lWorkers * ChunksPerWorker)))),
      m_tMemory(PakZlibNewBlock(m_lSlots * (tShape.lInputRoom + tShape.lOutputRoom))),
      m_tJobs(NewArray<ChunkJobT>(m_lSlots)),
      m_tReads(NewArray<FileReadT>(m_lSlots)),
      m_tPool(tShape.fnStep, m_tJobs.Get(), m_lSlots, m_lWorkers) {}

ByteT* ChunkLine::NextInput() const {
    return m_tMemory.Get() +
           (m_tPool.Next() % m_lSlots) * (m_tShape.lInputRoom + m_tShape.lOutputRoom);
}

FileReadT ChunkLine::Read(FileHandleT tHandle, int32 lLength) {
    return HandOver(FileSysReadQuietly(tHandle, NextInput(), lLength));
}

FileReadT ChunkLine::HandOver(const FileReadT& tRead) {
    m_tReads.Get()[m_tPool.Next() % m_lSlots] = tRead;
    m_tPool.Job(m_tPool.Next()) = {.pInput = NextInput(),
                                   .lInputLength = tRead.lBytes,
                                   .pOutput = NextInput() + m_tShape.lInputRoom,
                                   .lOutputRoom = m_tShape.lOutputRoom};
    m_tPool.Submit();
    return tRead;
}

const FileReadT& ChunkLine::Outcome(int32 lAfter) const {
    return m_tReads.Get()[(m_tPool.Oldest() + lAfter) % m_lSlots];
}

void ChunkLine::GiveBack(FileHandleT tHandle) const {
    int64 llBytes = 0;
    for (int64 llNumber = m_tPool.Oldest() + 1; llNumber < m_tPool.Next(); llNumber++)
        llBytes += m_tReads.Get()[llNumber % m_lSlots].lBytes;
    if (llBytes > 0) FileSysSkip(tHandle, -llBytes);
}
