// Blocks with a hidden header in front and a guard word behind, taken from a pool's functions. The
// header names the guard's address and the pool, so a free needs nothing but the data address. The
// guard is cleared when the block is freed: a second free finds it wrong, as an overrun does.
#include "core/memory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "core/context.h"
#include "core/process.h"
#include "core/procinternal.h"
#include "core/trace.h"
#include "memoryraw.h"

TRACE_MODULE("MEM")

namespace {

void* MemSystemAllocate(MemPoolIdT /*tDummy*/, int32 lSize) {
    void* pBlock = std::malloc(static_cast<std::size_t>(lSize));
    if (pBlock == nullptr) {
        const int iError = errno;
        TraceMessageInline(17, iError, -1, "Failed to allocate %d byte: %s", lSize,
                           std::strerror(iError));
    }
    return pBlock;
}

BooleanT MemSystemFree(MemAllocHeader* ptDataArea) {
    std::free(ptDataArea);
    return TRUE;
}

MemPoolInterfaceT MemSystemInterface = {nullptr, MemSystemAllocate, MemSystemFree, nullptr};
MemPoolS MemDefaultPoolRecord = {MemPoolMagic, &MemSystemInterface};

MemAllocHeader* MemHeader(void* pDataArea) { return static_cast<MemAllocHeader*>(pDataArea) - 1; }

// The header of a freed or foreign block holds anything, often the system allocator's own notes. So
// the address it gives is followed only where this block's guard can be.
bool MemGuardIntact(const MemAllocHeader* ptHeader) {
    const std::uintptr_t uDistance = reinterpret_cast<std::uintptr_t>(ptHeader->pGuard) -
                                     reinterpret_cast<std::uintptr_t>(ptHeader + 1);
    return ptHeader->pGuard != nullptr && uDistance <= std::numeric_limits<int32>::max() &&
           uDistance % sizeof(int32) == 0 && *ptHeader->pGuard == MemGuardLive;
}

void MemMirrorCount(const TesselContextMemoryS& tMemory) {
    if (ProcDetailsT* ptDetails = gtTlContext.sProcess.ptDetails; ptDetails != nullptr) {
        ptDetails->lMemCount = tMemory.lMemCount;
    }
}

void MemCountAllocation() {
    TesselContextMemoryS& tMemory = gtTlContext.sMemory;
    tMemory.lMemCount++;
    if (tMemory.lMemCount > tMemory.lMemMax) tMemory.lMemMax = tMemory.lMemCount;
    // The number of allocations ever made wraps in a process that lives long enough.
    tMemory.lMemAllocations = static_cast<int32>(static_cast<uint32>(tMemory.lMemAllocations) + 1U);
    if (ProcDetailsT* ptDetails = gtTlContext.sProcess.ptDetails; ptDetails != nullptr) {
        ptDetails->lMemCount = tMemory.lMemCount;
        ptDetails->lMemMax = tMemory.lMemMax;
        ptDetails->lMemAllocations = tMemory.lMemAllocations;
    }
}

// A block with its header and guard, not cleared. A part of each form below, for they are the
// busiest functions of the library.
[[gnu::always_inline]] inline void* MemTakeBlock(int32 lSize, MemPoolIdT tPool) {
    MemCountAllocation();
    // In 64 bits: a size near the largest number must not wrap into a small block.
    const int64 llRounded = (static_cast<int64>(lSize) + 3) & ~int64{3};
    const int64 llTotal = llRounded + MemBlockOverhead;
    void* pRaw = nullptr;
    if (lSize >= 0 && llTotal <= std::numeric_limits<int32>::max()) {
        const auto lTotal = static_cast<int32>(llTotal);
        if (tPool != nullptr) {
            // The default pool's function by name, which spares the call through the table.
            pRaw = tPool == &MemDefaultPoolRecord ? MemSystemAllocate(tPool, lTotal)
                                                  : tPool->psInterface->pfnAllocate(tPool, lTotal);
            if (pRaw == nullptr) {
                tPool = MemGetDefaultPoolId();
                pRaw = MemSystemAllocate(tPool, lTotal);
            }
        } else {
            pRaw = MemSystemAllocate(tPool, lTotal);
        }
    }
    if (pRaw == nullptr) {
        TraceMessageInline(4, 1, -1, "Unable to allocate %d bytes of memory",
                           static_cast<int32>(llRounded));
        ProcCrash(TRUE);
        return nullptr;
    }
    auto* ptHeader = static_cast<MemAllocHeader*>(pRaw);
    auto* pData = reinterpret_cast<ByteT*>(ptHeader + 1);
    ptHeader->tPoolId = tPool;
    ptHeader->pGuard = reinterpret_cast<int32*>(pData + llRounded);
    *ptHeader->pGuard = MemGuardLive;
    return pData;
}

}  // namespace

BooleanT MemoryInitialize() { return TRUE; }

BooleanT MemoryInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void MemoryReleaseThread(TesselContextT* ptTlContext) {
    TraceMessageInline(11, 0, 4, "MemReleaseThread %d pieces left", ptTlContext->sMemory.lMemCount);
}

MemPoolIdT MemGetDefaultPoolId() { return &MemDefaultPoolRecord; }

BooleanT MemCreatePool(MemPoolIdT* pPoolId, MemPoolInterfaceT* psInterface, int32 lSize) {
    // What the second number means is the pool's business; it has always been this one.
    constexpr int32 lPoolSecondValue = 64;
    BooleanT bResult = FALSE;
    if (lSize > 0 && pPoolId != nullptr) {
        if (psInterface == nullptr || psInterface->pfnCreate == nullptr) {
            *pPoolId = nullptr;
            bResult = TRUE;
        } else if (MemPoolIdT tPool = psInterface->pfnCreate(lSize, lPoolSecondValue);
                   tPool != nullptr) {
            tPool->lMagic = MemPoolMagic;
            tPool->psInterface = psInterface;
            *pPoolId = tPool;
            bResult = TRUE;
        }
    }
    TraceMessageInline(1, 0, 3, "MemCreatePool - returning %s", BooleanText(bResult));
    return bResult;
}

BooleanT MemReleasePool(MemPoolIdT* ptPool) {
    BooleanT bResult = FALSE;
    if (ptPool != nullptr && *ptPool != nullptr &&
        reinterpret_cast<std::uintptr_t>(*ptPool) != ~std::uintptr_t{0} &&
        (*ptPool)->lMagic == MemPoolMagic && (*ptPool)->psInterface != nullptr &&
        (*ptPool)->psInterface->pfnRelease != nullptr) {
        bResult = (*ptPool)->psInterface->pfnRelease(*ptPool);
    }
    TraceMessageInline(2, 0, 3, "MemReleasePool - returning %s", BooleanText(bResult));
    return bResult;
}

void* MemAllocateRaw(int32 lSize, MemPoolIdT tPool) { return MemTakeBlock(lSize, tPool); }

void* MemAllocateFromPoolNotLogged(int32 lSize, MemPoolIdT tPool) {
    void* pData = MemTakeBlock(lSize, tPool);
    if (pData != nullptr)
        std::memset(pData, 0, (static_cast<std::size_t>(lSize) + 3) & ~std::size_t{3});
    return pData;
}

void* MemAllocateFromPool(int32 lSize, MemPoolIdT tPool) {
    return MemAllocateFromPoolNotLogged(lSize, tPool);
}

void MemRemoveFromLog(const void* /*pDataArea*/) {}

BooleanT MemFreeInternal(void** ppDataArea) {
    if (ppDataArea == nullptr || *ppDataArea == nullptr) return FALSE;
    TesselContextMemoryS& tMemory = gtTlContext.sMemory;
    const int32 lCountBefore = tMemory.lMemCount;
    tMemory.lMemCount--;
    MemMirrorCount(tMemory);

    MemAllocHeader* ptHeader = MemHeader(*ppDataArea);
    if (!MemGuardIntact(ptHeader)) {
        TraceMessageInline(6, 1, -1, "Guard band corrupted at '%p' '%p' (%d)", *ppDataArea,
                           static_cast<void*>(ptHeader->pGuard), lCountBefore);
        ProcCrash(TRUE);
        return FALSE;
    }
    *ptHeader->pGuard = 0;
    const bool bSystem = ptHeader->tPoolId == nullptr || ptHeader->tPoolId == &MemDefaultPoolRecord;
    const BooleanT bResult =
        bSystem ? MemSystemFree(ptHeader) : ptHeader->tPoolId->psInterface->pfnFree(ptHeader);
    *ppDataArea = nullptr;
    return bResult;
}

void MemCheck(void* pDataArea) {
    if (pDataArea == nullptr) return;
    if (reinterpret_cast<std::uintptr_t>(pDataArea) == sizeof(MemAllocHeader)) {
        TraceMessageInline(14, 1, -1, "Invalid Header pointer '%p'", pDataArea);
    } else if (const MemAllocHeader* ptHeader = MemHeader(pDataArea); ptHeader->pGuard == nullptr) {
        TraceMessageInline(15, 1, -1, "Header corrupted at '%p'", pDataArea);
    } else if (!MemGuardIntact(ptHeader)) {
        TraceMessageInline(16, 1, -1, "Guard band corrupted at '%p'", pDataArea);
    } else {
        return;
    }
    ProcCrash(FALSE);
}

BooleanT MemCopy(void* pDestination, const void* pSource, int32 lSize) {
    if (pDestination != nullptr && pSource != nullptr && lSize > 0) {
        std::memmove(pDestination, pSource, static_cast<std::size_t>(lSize));
    }
    return TRUE;
}

void MemZero(void* pData, int32 lLength) {
    if (pData != nullptr && lLength > 0) {
        std::memset(pData, 0, static_cast<std::size_t>(lLength));
    }
}

ByteT* MemCat(ByteT* ptBuffer1, int32 lBuffer1Size, ByteT* ptBuffer2, int32 lBuffer2Size) {
    const int64 llTotal = static_cast<int64>(lBuffer1Size) + lBuffer2Size;
    const bool bSound =
        lBuffer1Size >= 0 && lBuffer2Size >= 0 && llTotal <= std::numeric_limits<int32>::max();
    // Sizes that no block can have end like any request that cannot be met.
    auto* pResult = static_cast<ByteT*>(
        MemAllocateFromPool(bSound ? static_cast<int32>(llTotal) : -1, MemGetDefaultPoolId()));
    if (pResult == nullptr) return nullptr;
    MemCopy(pResult, ptBuffer1, lBuffer1Size);
    MemCopy(pResult + lBuffer1Size, ptBuffer2, lBuffer2Size);
    MemFree(&ptBuffer1);
    return pResult;
}

int32 MemUsedCount() { return gtTlContext.sMemory.lMemCount; }

int32 MemMax() { return gtTlContext.sMemory.lMemMax; }

int32 MemAllocations() { return gtTlContext.sMemory.lMemAllocations; }
