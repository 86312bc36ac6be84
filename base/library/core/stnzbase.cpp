// Stanzas and keys as single growing blocks. A stanza grows by one slot when it is full, a key by
// four; the block is copied into a larger one, so whoever holds its address has it renewed.
#include "core/stnzbase.h"

#include <limits>

#include "core/memory.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("STANZA")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr int32 StnzKeyGrowth = 1;
constexpr int32 StnzValueGrowth = 4;

// A zero-filled block of a record whose last member is the first of lSlots slots; null when there
// can be no such block.
template <class Record, class Slot>
Record* StnzNewBlock(int32 lSlots) {
    const int64 llSize =
        static_cast<int64>(sizeof(Record)) + (static_cast<int64>(lSlots) - 1) * sizeof(Slot);
    if (llSize > std::numeric_limits<int32>::max()) return nullptr;
    return static_cast<Record*>(MemAllocateFromPool(static_cast<int32>(llSize), MemPool()));
}

// Closes the gap at lIndex in the first lCount slots and lowers the count.
template <class Slot>
void StnzCloseGap(Slot* aSlots, int32& lCount, int32 lIndex) {
    lCount--;
    for (int32 l = lIndex; l < lCount; l++) aSlots[l] = aSlots[l + 1];
    aSlots[lCount] = nullptr;
}

bool StnzSameKeyword(const StnzKeyT* ptKey, const char* pstrKeyword) {
    return StrCompareNoCase(ptKey->pstrKeyword, pstrKeyword) == 0;
}

}  // namespace

BooleanT StnzCreate(StnzT** ppStanza, const char* pstrCatagory, const char* pstrTitle,
                    int32 lKeyCount) {
    if (ppStanza == nullptr || lKeyCount < 0) return FALSE;
    if (lKeyCount == 0) lKeyCount = 1;
    auto* ptStanza = StnzNewBlock<StnzT, StnzKeyT*>(lKeyCount);
    if (ptStanza == nullptr) return FALSE;
    ptStanza->pstrCatagory = StrDuplicateIntoPool(pstrCatagory, MemPool());
    ptStanza->pstrTitle = StrDuplicateIntoPool(pstrTitle, MemPool());
    ptStanza->lMaxKeyCount = lKeyCount;
    *ppStanza = ptStanza;
    return TRUE;
}

BooleanT StnzCreateKey(StnzKeyT** ppKey, const char* pstrKeyword, int32 lValueCount) {
    if (ppKey == nullptr || pstrKeyword == nullptr || lValueCount < 0) return FALSE;
    if (lValueCount == 0) lValueCount = 1;
    auto* ptKey = StnzNewBlock<StnzKeyT, char*>(lValueCount);
    if (ptKey == nullptr) return FALSE;
    ptKey->pstrKeyword = StrDuplicateIntoPool(pstrKeyword, MemPool());
    ptKey->lMaxValueCount = lValueCount;
    *ppKey = ptKey;
    return TRUE;
}

BooleanT StnzRelease(StnzT** ppStanza) {
    if (ppStanza == nullptr || *ppStanza == nullptr) return TRUE;
    StnzT* ptStanza = *ppStanza;
    MemFree(&ptStanza->pstrCatagory);
    MemFree(&ptStanza->pstrTitle);
    for (int32 l = ptStanza->lKeyCount - 1; l >= 0; l--) StnzReleaseKey(&ptStanza->apKeys[l]);
    return MemFree(ppStanza);
}

BooleanT StnzReleaseKey(StnzKeyT** ppKey) {
    if (ppKey == nullptr || *ppKey == nullptr) return TRUE;
    StnzKeyT* ptKey = *ppKey;
    MemFree(&ptKey->pstrKeyword);
    for (int32 l = ptKey->lValueCount - 1; l >= 0; l--) MemFree(&ptKey->apstrValues[l]);
    return MemFree(ppKey);
}

BooleanT StnzCopy(StnzT** ppNewStanza, StnzT* pStanza) {
    if (ppNewStanza == nullptr || pStanza == nullptr) return FALSE;
    StnzT* ptNew = nullptr;
    if (StnzCreate(&ptNew, pStanza->pstrCatagory, pStanza->pstrTitle, pStanza->lMaxKeyCount) !=
        TRUE) {
        return FALSE;
    }
    for (int32 l = 0; l < pStanza->lKeyCount; l++) {
        if (StnzKeyCopy(&ptNew->apKeys[l], pStanza->apKeys[l]) != TRUE) {
            StnzRelease(&ptNew);
            return FALSE;
        }
        ptNew->lKeyCount++;
    }
    *ppNewStanza = ptNew;
    return TRUE;
}

BooleanT StnzKeyCopy(StnzKeyT** pptNewKey, StnzKeyT* ptKey) {
    if (pptNewKey == nullptr || ptKey == nullptr) return FALSE;
    StnzKeyT* ptNew = nullptr;
    if (StnzCreateKey(&ptNew, ptKey->pstrKeyword, ptKey->lMaxValueCount) != TRUE) return FALSE;
    for (int32 l = 0; l < ptKey->lValueCount; l++) {
        ptNew->apstrValues[l] = StrDuplicateIntoPool(ptKey->apstrValues[l], MemPool());
        ptNew->lValueCount++;
    }
    *pptNewKey = ptNew;
    return TRUE;
}

char* StnzKeyValue(StnzKeyT* pKey, int32 lIndex) {
    if (pKey == nullptr || lIndex < 1 || lIndex > pKey->lValueCount) return nullptr;
    return pKey->apstrValues[lIndex - 1];
}

int32 StnzKeyValueCount(StnzKeyT* pKey) { return pKey == nullptr ? -1 : pKey->lValueCount; }

BooleanT StnzGetKey(StnzKeyT** ppKey, StnzT* pStanza, const char* pstrKeyword) {
    if (pStanza == nullptr || pstrKeyword == nullptr) return FALSE;
    for (int32 l = 0; l < pStanza->lKeyCount; l++) {
        if (!StnzSameKeyword(pStanza->apKeys[l], pstrKeyword)) continue;
        if (ppKey != nullptr) *ppKey = pStanza->apKeys[l];
        return TRUE;
    }
    return FALSE;
}

BooleanT StnzWalk(StnzT* pStanza, StnzCallbackFnT pfnCallback, void* pCookie) {
    BooleanT bResult = FALSE;
    if (pStanza != nullptr && pfnCallback != nullptr) {
        bResult = TRUE;
        for (int32 l = 0; l < pStanza->lKeyCount && bResult == TRUE; l++) {
            bResult = pfnCallback(pCookie, &pStanza->apKeys[l]);
        }
    }
    TraceMessageInline(1, 0, 4, "%s = StnzWalk(%p, %p, %p)", BooleanText(bResult),
                       static_cast<void*>(pStanza), reinterpret_cast<void*>(pfnCallback), pCookie);
    return bResult;
}

BooleanT StnzAddKeyToStanza(StnzT** ppStanza, StnzKeyT** ppKey) {
    if (ppStanza == nullptr || *ppStanza == nullptr || ppKey == nullptr || *ppKey == nullptr) {
        return FALSE;
    }
    StnzT* ptStanza = *ppStanza;
    if (ptStanza->lKeyCount == ptStanza->lMaxKeyCount) {
        const int32 lRoom = ptStanza->lMaxKeyCount + StnzKeyGrowth;
        auto* ptLarger = StnzNewBlock<StnzT, StnzKeyT*>(lRoom);
        if (ptLarger == nullptr) return FALSE;
        ptLarger->pstrCatagory = ptStanza->pstrCatagory;
        ptLarger->pstrTitle = ptStanza->pstrTitle;
        ptLarger->lKeyCount = ptStanza->lKeyCount;
        ptLarger->lMaxKeyCount = lRoom;
        MemCopy(ptLarger->apKeys, ptStanza->apKeys,
                ptStanza->lKeyCount * static_cast<int32>(sizeof(StnzKeyT*)));
        MemFree(ppStanza);
        *ppStanza = ptStanza = ptLarger;
    }
    ptStanza->apKeys[ptStanza->lKeyCount++] = *ppKey;
    *ppKey = nullptr;
    return TRUE;
}

BooleanT StnzReplaceKeyInStanza(StnzT** ppStanza, StnzKeyT** ppKey) {
    if (ppStanza == nullptr || *ppStanza == nullptr || ppKey == nullptr || *ppKey == nullptr) {
        return FALSE;
    }
    StnzDeleteKeywordFromStanza(*ppStanza, (*ppKey)->pstrKeyword, TRUE);
    return StnzAddKeyToStanza(ppStanza, ppKey);
}

BooleanT StnzDeleteKeywordFromStanza(StnzT* pStanza, const char* pstrKeyword, BooleanT bAll) {
    BooleanT bDeleted = FALSE;
    int32 lIndex = 0;
    while (pstrKeyword != nullptr && lIndex < pStanza->lKeyCount) {
        if (!StnzSameKeyword(pStanza->apKeys[lIndex], pstrKeyword)) {
            lIndex++;
            continue;
        }
        StnzReleaseKey(&pStanza->apKeys[lIndex]);
        StnzCloseGap(pStanza->apKeys, pStanza->lKeyCount, lIndex);
        bDeleted = TRUE;
        if (bAll != TRUE) break;
    }
    return bDeleted;
}

BooleanT StnzRemoveKeyFromStanza(StnzT* pStanza, StnzKeyT* pKey) {
    for (int32 l = 0; l < pStanza->lKeyCount; l++) {
        if (pStanza->apKeys[l] != pKey) continue;
        StnzCloseGap(pStanza->apKeys, pStanza->lKeyCount, l);
        return TRUE;
    }
    return FALSE;
}

BooleanT StnzAddValueToKey(StnzKeyT** ppKey, const char* pstrValue) {
    if (ppKey == nullptr || *ppKey == nullptr) return FALSE;
    StnzKeyT* ptKey = *ppKey;
    char* pstrCopy = StrDuplicateIntoPool(pstrValue, MemPool());
    if (ptKey->lValueCount == ptKey->lMaxValueCount) {
        const int32 lRoom = ptKey->lMaxValueCount + StnzValueGrowth;
        auto* ptLarger = StnzNewBlock<StnzKeyT, char*>(lRoom);
        if (ptLarger == nullptr) {
            MemFree(&pstrCopy);
            return FALSE;
        }
        ptLarger->pstrKeyword = ptKey->pstrKeyword;
        ptLarger->lValueCount = ptKey->lValueCount;
        ptLarger->lMaxValueCount = lRoom;
        MemCopy(ptLarger->apstrValues, ptKey->apstrValues,
                ptKey->lValueCount * static_cast<int32>(sizeof(char*)));
        MemFree(ppKey);
        *ppKey = ptKey = ptLarger;
    }
    ptKey->apstrValues[ptKey->lValueCount++] = pstrCopy;
    return TRUE;
}

BooleanT StnzDeleteValueFromKey(StnzKeyT* pKey, const char* pstrValue, BooleanT bAll) {
    BooleanT bDeleted = FALSE;
    int32 lIndex = 0;
    while (pKey != nullptr && pstrValue != nullptr && lIndex < pKey->lValueCount) {
        const char* pstrHere = pKey->apstrValues[lIndex];
        if (pstrHere == nullptr || StrCompare(pstrHere, pstrValue) != 0) {
            lIndex++;
            continue;
        }
        MemFree(&pKey->apstrValues[lIndex]);
        StnzCloseGap(pKey->apstrValues, pKey->lValueCount, lIndex);
        bDeleted = TRUE;
        if (bAll != TRUE) break;
    }
    return bDeleted;
}

BooleanT StnzRemoveValueFromKey(StnzKeyT* pKey, int32 lIndex) {
    if (pKey == nullptr || lIndex < 1 || lIndex > pKey->lValueCount) return FALSE;
    StnzCloseGap(pKey->apstrValues, pKey->lValueCount, lIndex - 1);
    return TRUE;
}
