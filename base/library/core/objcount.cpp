// Count tables and the periodic object report. A count table is a snapshot of the registry: a
// header entry with the number of entries, then one entry per class in ascending order of magic, so
// that two tables taken at different times merge in one pass.
#include <ctime>

#include "core/context.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/trace.h"
#include "objfields.h"

TRACE_MODULE("OBJECT")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr int32 ObjMonitorLogId = 158;

ObjCountEntryT* ObjNewCountTable(int32 lEntries) {
    auto* ptTable = static_cast<ObjCountEntryT*>(MemAllocateFromPool(
        (lEntries + 1) * static_cast<int32>(sizeof(ObjCountEntryT)), MemPool()));
    if (ptTable != nullptr) ptTable[0].lCount = lEntries;
    return ptTable;
}

int32 ObjTableSize(const ObjCountEntryT* ptTable) {
    return ptTable == nullptr ? 0 : ptTable->lCount;
}

void ObjTraceCount(int32 lLevel, int32 lCount, const ObjTemplateS* ptTemplate) {
    TraceMessageInline(78, 0, lLevel, "%6d %s", lCount, ptTemplate->pstrName);
}

// Calls fnPair for every class of either table with its entry in each, or null.
template <class F>
void ObjMergeTables(ObjCountEntryT* ptNew, ObjCountEntryT* ptOld, F fnPair) {
    int32 lNew = 1;
    int32 lOld = 1;
    while (lNew <= ObjTableSize(ptNew) || lOld <= ObjTableSize(ptOld)) {
        ObjCountEntryT* ptNewEntry = lNew <= ObjTableSize(ptNew) ? &ptNew[lNew] : nullptr;
        ObjCountEntryT* ptOldEntry = lOld <= ObjTableSize(ptOld) ? &ptOld[lOld] : nullptr;
        if (ptNewEntry != nullptr && ptOldEntry != nullptr) {
            const int32 lNewMagic = ptNewEntry->tTemplate->lMagic;
            const int32 lOldMagic = ptOldEntry->tTemplate->lMagic;
            if (lNewMagic < lOldMagic) ptOldEntry = nullptr;
            if (lOldMagic < lNewMagic) ptNewEntry = nullptr;
        }
        fnPair(ptNewEntry, ptOldEntry);
        if (ptNewEntry != nullptr) lNew++;
        if (ptOldEntry != nullptr) lOld++;
    }
}

}  // namespace

void ObjGetObjectCounts(ObjCountEntryT** pptCounts) {
    if (pptCounts == nullptr) return;
    *pptCounts = ObjNewCountTable(gsObjTemplateMap.lEntryCount);
    if (*pptCounts == nullptr) return;
    for (int32 lEntry = 0; lEntry < gsObjTemplateMap.lEntryCount; lEntry++) {
        ObjTemplateT tTemplate = gsObjTemplateMap.ptEntries[lEntry];
        (*pptCounts)[lEntry + 1] = {tTemplate, tTemplate->lCount};
    }
}

BooleanT ObjGetZeroedObjectCounts(ObjCountEntryT** pptUsage) {
    if (pptUsage == nullptr) return FALSE;
    ObjGetObjectCounts(pptUsage);
    for (int32 lEntry = 1; lEntry <= ObjTableSize(*pptUsage); lEntry++) {
        (*pptUsage)[lEntry].lCount = 0;
    }
    return BooleanFrom(*pptUsage != nullptr);
}

void ObjCopyObjectCounts(ObjCountEntryT** pptNewCounts, ObjCountEntryT* ptOldCounts) {
    if (pptNewCounts == nullptr) return;
    *pptNewCounts = ptOldCounts == nullptr ? nullptr : ObjNewCountTable(ptOldCounts->lCount);
    if (*pptNewCounts == nullptr) return;
    MemCopy(*pptNewCounts, ptOldCounts,
            (ptOldCounts->lCount + 1) * static_cast<int32>(sizeof(ObjCountEntryT)));
}

void ObjSubtractObjectCounts(ObjCountEntryT* ptNewCounts, ObjCountEntryT* ptOldCounts) {
    ObjMergeTables(ptNewCounts, ptOldCounts, [](ObjCountEntryT* ptNew, ObjCountEntryT* ptOld) {
        if (ptNew != nullptr && ptOld != nullptr) ptNew->lCount -= ptOld->lCount;
    });
}

void ObjTraceCounts(int32 lLevel, ObjCountEntryT* ptNewCounts, ObjCountEntryT* ptOldCounts) {
    int32 lTotal = 0;
    ObjMergeTables(ptNewCounts, ptOldCounts, [&](ObjCountEntryT* ptNew, ObjCountEntryT* ptOld) {
        if (ptNew == nullptr) {
            if (ptOld->lCount != 0) ObjTraceCount(lLevel, -ptOld->lCount, ptOld->tTemplate);
            return;
        }
        if (ptOld == nullptr) {
            ObjTraceCount(lLevel, ptNew->lCount, ptNew->tTemplate);
            lTotal += ptNew->lCount;
            return;
        }
        const int32 lIncrease = ptNew->lCount - ptOld->lCount;
        if (lIncrease <= 0) return;
        ObjTraceCount(lLevel, lIncrease, ptNew->tTemplate);
        lTotal += lIncrease;
    });
    if (lTotal >= 1) TraceMessageInline(157, 0, lLevel, "%6d Total Objects listed", lTotal);
}

void ObjSetMonitor(int32 lLevel, int32 tInterval) {
    if (tInterval <= 0) return;
    TesselContextTimeObjectS& tState = gtTlContext.sObject;
    tState.bDoMonitor = TRUE;
    tState.tNextStats = static_cast<TimeT>(std::time(nullptr));
    tState.tStatsInterval = tInterval * 60;
    MemFree(&tState.ptBase);
    ObjGetObjectCounts(&tState.ptBase);
    tState.lMonitorLevel = lLevel;
}

void ObjClearMonitor() {
    gtTlContext.sObject.bDoMonitor = FALSE;
    MemFree(&gtTlContext.sObject.ptBase);
}

void ObjMonitor() {
    TesselContextTimeObjectS& tState = gtTlContext.sObject;
    const auto tNow = static_cast<TimeT>(std::time(nullptr));
    if (tState.bDoMonitor != TRUE || tNow < tState.tNextStats) return;
    ObjMonitorLog(tState.lMonitorLevel, tState.ptBase);
    tState.tNextStats = tNow + tState.tStatsInterval;
}

void ObjMonitorLog(int32 lLevel, ObjCountEntryT* ptBase) {
    const TracePositionT tStart =
        TraceMessageInline(91, 0, lLevel, "Objects: Count %d Max %d Allocations %d", ObjCount(),
                           ObjMax(), ObjAllocations());
    TraceMessageInline(92, 0, lLevel, "Memory: Count %d Max %d Allocations %d", MemUsedCount(),
                       MemMax(), MemAllocations());
    ObjCountEntryT* ptNow = nullptr;
    ObjGetObjectCounts(&ptNow);
    ObjTraceCounts(lLevel, ptNow, ptBase);
    MemFree(&ptNow);
    // The lines above, where the level lets them be traced.
    ObjHolder<ObjStringS> oLines;
    if (tStart.pTraceBuffer != nullptr) TraceDumpToString(oLines.Address(), &tStart);
    LogMessageWithContext(ObjMonitorLogId, eLogLevelInformation, nullptr, oLines.Get(),
                          "%s: %d objects, %d blocks of memory", gtTlContext.sProcess.pstrTitle,
                          ObjCount(), MemUsedCount());
}
