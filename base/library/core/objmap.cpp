// Object maps keep the references of their entries in one block, side by side and in ascending
// order, so that a lookup is a binary search and a walk a loop. The block grows by a fixed number
// of entries and never shrinks. The object core knows the block as bytes only: the map itself takes
// and releases the holders of its entries, in its destructor as well.
#include "core/objmap.h"

#include <algorithm>

#include "core/memory.h"
#include "core/trace.h"
#include "sortedblock.h"

TRACE_MODULE("OBJMAP")
MEM_DEFAULT_POOL_CACHE

ObjTemplateT gtTemplateObjMap = nullptr;

namespace {

constexpr int32 ObjMapDefaultGrowSize = 64;

bool ObjMapIsMap(ObjMapO oObjMap) { return ObjCheckTypeInternal(oObjMap, ObjMapMagic) == TRUE; }

// A map, and an object of the class that it takes.
bool ObjMapTakes(ObjMapO oObjMap, void* oObject) {
    return ObjMapIsMap(oObjMap) && ObjCheckTypeInternal(oObject, oObjMap->lMagic) == TRUE;
}

void** ObjMapEntries(ObjMapO oObjMap) { return static_cast<void**>(oObjMap->tMapInfo.pData); }

int32 ObjMapBlockSize(int64 llEntries) { return SortedBlockSize(sizeof(void*), llEntries); }

SortedPlaceT ObjMapFindMatch(ObjMapO oObjMap, const void* pKey) {
    return SortedFind(oObjMap->lEntryCount, [&](int32 lIndex) {
        return oObjMap->fnFind(const_cast<void*>(pKey), ObjMapEntries(oObjMap)[lIndex]);
    });
}

SortedPlaceT ObjMapLocateMatch(ObjMapO oObjMap, void* oObject) {
    return SortedFind(oObjMap->lEntryCount, [&](int32 lIndex) {
        return oObjMap->fnLocate(oObject, ObjMapEntries(oObjMap)[lIndex]);
    });
}

void ObjMapReleaseEntry(ObjMapO oObjMap, void* oEntry) {
    if (oObjMap->fnRelease != nullptr) oObjMap->fnRelease(oEntry);
    ObjReleaseInternal(&oEntry);
}

// Runs before the object core frees the block.
void ObjMapDestructor(void* oObject) { ObjMapReleaseEntries(static_cast<ObjMapO>(oObject)); }

BooleanT ObjMapGrow(ObjMapO oObjMap) {
    const int64 llRoom = int64{oObjMap->lMaximumEntries} + oObjMap->lGrowSize;
    const int32 lSize = ObjMapBlockSize(llRoom);
    void* pBlock = MemAllocateFromPool(lSize, MemPool());
    if (pBlock == nullptr) {
        TraceMessageInline(6, 0, -1, "ObjMapIsert: failed MemAllocate of %d", lSize);
        return FALSE;
    }
    std::copy_n(ObjMapEntries(oObjMap), oObjMap->lEntryCount, static_cast<void**>(pBlock));
    MemFree(&oObjMap->tMapInfo.pData);
    oObjMap->tMapInfo = {lSize, pBlock};
    oObjMap->lMaximumEntries = static_cast<int32>(llRoom);
    return TRUE;
}

BooleanT ObjMapInsertAt(ObjMapO oObjMap, int32 lIndex, void* oObject) {
    if (oObjMap->lEntryCount == oObjMap->lMaximumEntries && ObjMapGrow(oObjMap) != TRUE) {
        return FALSE;
    }
    void** poPlace = ObjMapEntries(oObjMap) + lIndex;
    void** poEnd = ObjMapEntries(oObjMap) + oObjMap->lEntryCount;
    std::move_backward(poPlace, poEnd, poEnd + 1);
    *poPlace = oObject;
    oObjMap->lEntryCount++;
    return ObjIncRefCount(oObject);
}

BooleanT ObjMapRemoveAt(ObjMapO oObjMap, SortedPlaceT tPlace) {
    if (!tPlace.bFound) return FALSE;
    void** poPlace = ObjMapEntries(oObjMap) + tPlace.lIndex;
    void* oEntry = *poPlace;
    std::move(poPlace + 1, ObjMapEntries(oObjMap) + oObjMap->lEntryCount, poPlace);
    oObjMap->lEntryCount--;
    ObjMapReleaseEntry(oObjMap, oEntry);
    return TRUE;
}

// Hands an entry out with a holder of its own, where one is asked for.
BooleanT ObjMapHandOut(void** poObject, void* oEntry) {
    if (poObject == nullptr) return TRUE;
    *poObject = oEntry;
    return ObjIncRefCount(oEntry);
}

BooleanT ObjMapCreateChecked(ObjMapO* poObjMap, int32 lMagic, int32 lGrowSize,
                             ObjMapLocateFnT fnLocate, ObjMapFindFnT fnFind,
                             ObjMapReleaseFnT fnRelease) {
    if (poObjMap == nullptr || !ObjIsMagic(lMagic) || lGrowSize < 0 || fnLocate == nullptr) {
        return FALSE;
    }
    const int32 lRoom = lGrowSize == 0 ? ObjMapDefaultGrowSize : lGrowSize;
    const int32 lSize = ObjMapBlockSize(lRoom);
    if (lSize < 0) return FALSE;

    ObjHolder<ObjMapS> oNew(
        static_cast<ObjMapO>(ObjTemplateNewInstanceFromPool(gtTemplateObjMap, MemPool())));
    if (oNew.Get() == nullptr) {
        TraceMessageInline(2, 1, 4, "Failed to create OBJ_MAP object");
        return FALSE;
    }
    oNew.Get()->lMagic = lMagic;
    oNew.Get()->lMaximumEntries = lRoom;
    oNew.Get()->lGrowSize = lRoom;
    oNew.Get()->fnLocate = fnLocate;
    oNew.Get()->fnFind = fnFind != nullptr ? fnFind : fnLocate;
    oNew.Get()->fnRelease = fnRelease;
    oNew.Get()->tMapInfo = {lSize, MemAllocateFromPool(lSize, MemPool())};
    if (oNew.Get()->tMapInfo.pData == nullptr) return FALSE;
    *poObjMap = oNew.Take();
    return TRUE;
}

}  // namespace

BooleanT ObjMapInitialize() {
    return ObjTemplateCreateInternal(&gtTemplateObjMap, sizeof(ObjMapS), ObjMapMagic,
                                     "i;i;i;i;p;p;p;d;", ObjMapDestructor);
}

BooleanT ObjMapInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ObjMapReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT ObjMapCreateInternal(ObjMapO* poObjMap, int32 lMagic, int32 lGrowSize,
                              ObjMapLocateFnT fnLocate, ObjMapFindFnT fnFind,
                              ObjMapReleaseFnT fnRelease) {
    TraceMessageInline(1, 0, 4, "ObjMapCreate(%p, %x, %d, %p, %p, %p)",
                       static_cast<void*>(poObjMap), static_cast<uint32>(lMagic), lGrowSize,
                       reinterpret_cast<void*>(fnLocate), reinterpret_cast<void*>(fnFind),
                       reinterpret_cast<void*>(fnRelease));
    const BooleanT bResult =
        ObjMapCreateChecked(poObjMap, lMagic, lGrowSize, fnLocate, fnFind, fnRelease);
    TraceMessageInline(3, 0, 4, "%s = MapCreate(%p, %x, %d, %p, %p, %p)", BooleanText(bResult),
                       static_cast<void*>(poObjMap), static_cast<uint32>(lMagic), lGrowSize,
                       reinterpret_cast<void*>(fnLocate), reinterpret_cast<void*>(fnFind),
                       reinterpret_cast<void*>(fnRelease));
    return bResult;
}

int32 ObjMapSize(ObjMapO oObjMap) { return ObjMapIsMap(oObjMap) ? oObjMap->lEntryCount : -1; }

BooleanT ObjMapInsert(ObjMapO oObjMap, void* oObject) {
    TraceMessageInline(4, 0, 4, "ObjMapInsert(%p, %p)", static_cast<void*>(oObjMap), oObject);
    BooleanT bResult = FALSE;
    if (ObjMapTakes(oObjMap, oObject)) {
        const SortedPlaceT tPlace = ObjMapLocateMatch(oObjMap, oObject);
        if (tPlace.bFound)
            TraceMessageInline(5, 0, -1, "Object is already in map");
        else
            bResult = ObjMapInsertAt(oObjMap, tPlace.lIndex, oObject);
    }
    TraceMessageInline(7, 0, 4, "%s = ObjMapInsert(%p, %p)", BooleanText(bResult),
                       static_cast<void*>(oObjMap), oObject);
    return bResult;
}

BooleanT ObjMapUpdate(ObjMapO oObjMap, void* oObject) {
    if (!ObjMapTakes(oObjMap, oObject)) return FALSE;
    const SortedPlaceT tPlace = ObjMapLocateMatch(oObjMap, oObject);
    if (!tPlace.bFound) return ObjMapInsertAt(oObjMap, tPlace.lIndex, oObject);
    // Held first: it may be the entry itself.
    ObjIncRefCount(oObject);
    void* oOld = ObjMapEntries(oObjMap)[tPlace.lIndex];
    ObjMapEntries(oObjMap)[tPlace.lIndex] = oObject;
    ObjMapReleaseEntry(oObjMap, oOld);
    return TRUE;
}

BooleanT ObjMapRemove(ObjMapO oObjMap, void* oObject) {
    if (!ObjMapTakes(oObjMap, oObject)) return FALSE;
    return ObjMapRemoveAt(oObjMap, ObjMapLocateMatch(oObjMap, oObject));
}

BooleanT ObjMapDelete(ObjMapO oObjMap, void* pData) {
    if (!ObjMapIsMap(oObjMap)) return FALSE;
    return ObjMapRemoveAt(oObjMap, ObjMapFindMatch(oObjMap, pData));
}

BooleanT ObjMapFind(void** poObject, ObjMapO oObjMap, const void* pData) {
    BooleanT bResult = FALSE;
    if (ObjMapIsMap(oObjMap)) {
        const SortedPlaceT tPlace = ObjMapFindMatch(oObjMap, pData);
        if (tPlace.bFound) bResult = ObjMapHandOut(poObject, ObjMapEntries(oObjMap)[tPlace.lIndex]);
    }
    TraceMessageInline(8, 0, 4, "%s = ObjMapFind(%p, %p, %p) %p", BooleanText(bResult),
                       static_cast<void*>(poObject), static_cast<void*>(oObjMap), pData,
                       bResult == TRUE && poObject != nullptr ? *poObject : nullptr);
    return bResult;
}

BooleanT ObjMapWalk(ObjMapO oObjMap, ObjMapCallbackFnT fnCallback, void* pArgument) {
    if (!ObjMapIsMap(oObjMap) || fnCallback == nullptr) return FALSE;
    BooleanT bResult = TRUE;
    for (int32 lIndex = 0; lIndex < oObjMap->lEntryCount && bResult != FALSE; lIndex++)
        bResult = fnCallback(ObjMapEntries(oObjMap)[lIndex], pArgument);
    return bResult;
}

BooleanT ObjMapWalkBackwards(ObjMapO oObjMap, ObjMapCallbackFnT fnCallback, void* pArgument) {
    if (!ObjMapIsMap(oObjMap) || fnCallback == nullptr) return FALSE;
    BooleanT bResult = TRUE;
    for (int32 lIndex = oObjMap->lEntryCount - 1; lIndex >= 0 && bResult != FALSE; lIndex--)
        bResult = fnCallback(ObjMapEntries(oObjMap)[lIndex], pArgument);
    return bResult;
}

BooleanT ObjMapSearch(void** poObject, ObjMapO oObjMap, ObjMapCallbackFnT fnCallback,
                      void* pArgument) {
    if (!ObjMapIsMap(oObjMap) || fnCallback == nullptr) return FALSE;
    for (int32 lIndex = 0; lIndex < oObjMap->lEntryCount; lIndex++) {
        void* oEntry = ObjMapEntries(oObjMap)[lIndex];
        if (fnCallback(oEntry, pArgument) != FALSE) return ObjMapHandOut(poObject, oEntry);
    }
    return FALSE;
}

BooleanT ObjMapReleaseEntries(ObjMapO oObjMap) {
    if (!ObjMapIsMap(oObjMap)) return FALSE;
    for (int32 lIndex = 0; lIndex < oObjMap->lEntryCount; lIndex++)
        ObjMapReleaseEntry(oObjMap, ObjMapEntries(oObjMap)[lIndex]);
    oObjMap->lEntryCount = 0;
    return TRUE;
}
