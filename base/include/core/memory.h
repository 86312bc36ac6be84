// Memory pools: every block that the library hands out comes from a pool and goes back through
// MemFree. A block is zero-filled, carries a hidden header in front of the caller's data and a
// guard word behind it; a write past the end and a second free are detected when the block is
// freed, and stop the process. A block costs one header (two pointers) and one guard word (4 bytes)
// above its size, which is rounded up to a multiple of 4.
#pragma once

#include <utility>

#include "core/types.h"

struct MemPoolS;
using MemPoolIdT = MemPoolS*;  // null stands for the system allocator

// Hidden header, immediately in front of the caller's data.
struct MemAllocHeader {
    int32* pGuard;       // the guard word behind the data
    MemPoolIdT tPoolId;  // pool that supplied the block; null for the system allocator
};
static_assert(sizeof(MemAllocHeader) == 2 * sizeof(void*));

constexpr int32 MemGuardLive = 0x01020304;  // guard word of a live block; 0 once it is freed
constexpr int32 MemPoolMagic = 0x5AA80C31;  // MemPoolS::lMagic of a live pool

// Bytes that a pool must supply for a block of lSize bytes, lSize being a multiple of 4.
constexpr int32 MemBlockOverhead = sizeof(MemAllocHeader) + sizeof(int32);

using MemPoolCreateFnT = MemPoolIdT (*)(int32 lSize, int32 lSecond);
using MemPoolAllocateFnT = void* (*)(MemPoolIdT tPool, int32 lSize);  // null on failure
using MemPoolFreeFnT = BooleanT (*)(MemAllocHeader* ptBlock);
using MemPoolReleaseFnT = BooleanT (*)(MemPoolIdT tPool);

struct MemPoolInterfaceS {
    MemPoolCreateFnT pfnCreate;
    MemPoolAllocateFnT pfnAllocate;
    MemPoolFreeFnT pfnFree;
    MemPoolReleaseFnT pfnRelease;
};
using MemPoolInterfaceT = MemPoolInterfaceS;

// Head of every pool record; an implementation may make its record longer.
struct MemPoolS {
    int32 lMagic;
    MemPoolInterfaceT* psInterface;
};

// Memory counters of the runtime context.
struct TesselContextMemoryS {
    int32 lMemCount;        // blocks allocated now
    int32 lMemMax;          // highest lMemCount
    int32 lMemAllocations;  // blocks ever allocated
    int32 lEntryCount;      // reserved for an allocation log
    void* ptEntries;        // reserved for an allocation log
};

BooleanT MemoryInitialize();
BooleanT MemoryInitializeThread(TesselContextT* ptTlContext);
void MemoryReleaseThread(TesselContextT* ptTlContext);

// The pool over the system allocator; never null.
MemPoolIdT MemGetDefaultPoolId();

// Makes a pool with psInterface's pfnCreate. Without one, *pPoolId becomes null (the system
// allocator) and the result is TRUE. FALSE, with *pPoolId untouched, for lSize <= 0 or when
// pfnCreate yields nothing.
BooleanT MemCreatePool(MemPoolIdT* pPoolId, MemPoolInterfaceT* psInterface, int32 lSize);

// Releases a pool through its pfnRelease; *ptPool is left as it is. FALSE for a null, all-ones or
// foreign identifier and for a pool without pfnRelease, such as the default pool.
BooleanT MemReleasePool(MemPoolIdT* ptPool);

// A zero-filled block of at least lSize bytes, which the caller frees with MemFree. When the pool
// has no memory the system allocator serves; when that has none either, or lSize is negative, the
// process is stopped (null is returned only where the stop does not end it).
void* MemAllocateFromPoolNotLogged(int32 lSize, MemPoolIdT tPool);
void* MemAllocateFromPool(int32 lSize, MemPoolIdT tPool);

// Hook of an allocation log, which is not kept: does nothing.
void MemRemoveFromLog(const void* pDataArea);

// Frees *ppDataArea and sets it to null. FALSE when there is nothing to free. A damaged guard stops
// the process; where the stop does not end it nothing is released and *ppDataArea stays.
BooleanT MemFreeInternal(void** ppDataArea);

// Verifies header and guard of a live block; reports a damaged one with ProcCrash(FALSE).
void MemCheck(void* pDataArea);

// memmove; always TRUE.
BooleanT MemCopy(void* pDestination, const void* pSource, int32 lSize);

// Does nothing for a null address or a length of 0 or less.
void MemZero(void* pData, int32 lLength);

// A new block from the default pool with both buffers one behind the other. Frees ptBuffer1 (the
// caller's variable is stale afterwards); ptBuffer2 stays with the caller. Either may be null.
ByteT* MemCat(ByteT* ptBuffer1, int32 lBuffer1Size, ByteT* ptBuffer2, int32 lBuffer2Size);

int32 MemUsedCount();
int32 MemMax();
int32 MemAllocations();

// --- public forms ---

// Frees the block in the caller's typed variable and clears the variable.
template <class T>
BooleanT MemFree(T** ppBlock) {
    if (ppBlock == nullptr) return FALSE;
    void* pBlock = const_cast<void*>(static_cast<const void*>(*ppBlock));
    const BooleanT bFreed = MemFreeInternal(&pBlock);
    if (pBlock == nullptr) *ppBlock = nullptr;
    return bFreed;
}

// A zero-filled record of type T from the default pool.
template <class T>
T* MemNew() {
    return static_cast<T*>(MemAllocateFromPool(sizeof(T), MemGetDefaultPoolId()));
}

// Owner of one block inside a function: frees it on every path.
template <class T>
class PoolPtr {
 public:
    explicit PoolPtr(T* pBlock = nullptr) : m_pBlock(pBlock) {}
    ~PoolPtr() {
        if (m_pBlock != nullptr) MemFree(&m_pBlock);
    }
    PoolPtr(PoolPtr&& tOther) noexcept : m_pBlock(tOther.Take()) {}
    PoolPtr& operator=(PoolPtr&& tOther) noexcept {
        std::swap(m_pBlock, tOther.m_pBlock);
        return *this;
    }
    PoolPtr(const PoolPtr&) = delete;
    PoolPtr& operator=(const PoolPtr&) = delete;
    T* Get() const { return m_pBlock; }
    // For functions that store a block; the owner must be empty then.
    T** Address() { return &m_pBlock; }
    T* Take() {
        T* pBlock = m_pBlock;
        m_pBlock = nullptr;
        return pBlock;
    }

 private:
    T* m_pBlock;
};

// Each source unit keeps the default pool's identifier, so that it is asked for once.
#define MEM_DEFAULT_POOL_CACHE                                                               \
    namespace {                                                                              \
    MemPoolIdT MemDefaultPoolIdCache = nullptr;                                              \
    [[maybe_unused]] inline MemPoolIdT MemPool() {                                           \
        if (MemDefaultPoolIdCache == nullptr) MemDefaultPoolIdCache = MemGetDefaultPoolId(); \
        return MemDefaultPoolIdCache;                                                        \
    }                                                                                        \
    }
