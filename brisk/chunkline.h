// The chunks of one file on their way through: read ahead in order, worked on by the pool, taken in
// order. All but the step happens in the caller's thread.
#pragma once

#include "chunkpool.h"
#include "core/filesys.h"
#include "core/memory.h"
#include "core/types.h"

using PakZlibBlock = PoolPtr<ByteT>;  // plain memory from the default pool
PakZlibBlock PakZlibNewBlock(int32 lSize);

// All bytes, or FALSE.
BooleanT PakZlibWriteAll(FileHandleT tHandle, const void* pBytes, int32 lSize);

struct ChunkShapeT {
    ChunkStepF fnStep;
    int32 lInputRoom;    // bytes of a chunk as it is read
    int32 lOutputRoom;   // bytes of it at the most afterwards
    int32 lLeast;        // chunks that the caller holds at once
    int32 lWorthWorker;  // chunks that are done while a thread is made
};

class ChunkLine {
 public:
    // For a file of llChunks chunks; with bAhead as many workers as PakZlibUseWorkers grants and a
    // few chunks for each, else none.
    ChunkLine(const ChunkShapeT& tShape, int64 llChunks, bool bAhead);
    // FALSE when there was no memory.
    bool IsWhole() const {
        return m_tMemory.Get() != nullptr && m_tJobs.Get() != nullptr && m_tReads.Get() != nullptr;
    }

    bool HasRoom() const { return m_tPool.HasRoom(); }
    // Reads lLength bytes, as many as a chunk has room for at the most, and hands them over.
    // Nothing is said of what came of it; that can be looked at here, and is told by Outcome().
    FileReadT Read(FileHandleT tHandle, int32 lLength);
    FileReadT ReadNothing() { return HandOver({}); }  // for a chunk that cannot be read

    // The chunk lAfter chunks behind the oldest one, which has been read.
    const FileReadT& Outcome(int32 lAfter) const;
    const ChunkJobT& Finish() { return m_tPool.Finish(); }  // the oldest chunk, done
    void Release() { m_tPool.Release(); }                   // makes room
    // Puts the file back to the end of the oldest chunk.
    void GiveBack(FileHandleT tHandle) const;

 private:
    ByteT* NextInput() const;
    FileReadT HandOver(const FileReadT& tRead);

    const ChunkShapeT m_tShape;
    const int32 m_lWorkers;
    const int32 m_lSlots;
    const PakZlibBlock m_tMemory;  // of all chunks
    const PoolPtr<ChunkJobT> m_tJobs;
    const PoolPtr<FileReadT> m_tReads;
    ChunkPool m_tPool;
};
