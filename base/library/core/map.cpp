// Maps keep their entries in one block, side by side and in ascending order, so that a lookup is a
// binary search and a walk a loop. Inserting and removing move the tail of the block; the block
// grows by a fixed number of entries and never shrinks.
#include "core/map.h"

#include <cstring>

#include "core/memory.h"
#include "core/trace.h"
#include "sortedblock.h"

TRACE_MODULE("MAP")
MEM_DEFAULT_POOL_CACHE

ObjTemplateT gtTemplateMap = nullptr;

namespace {

constexpr int32 MapDefaultGrowSize = 64;

// Only the magic in front is looked at: this check stands before every operation, and the object
// core keeps its own tables in maps.
bool MapIsMap(MapO oMap) {
    return oMap != nullptr && (reinterpret_cast<const ObjHeaderT*>(oMap) - 1)->lMagic == MapMagic;
}

char* MapEntry(MapO oMap, int32 lIndex) {
    return static_cast<char*>(oMap->tMapInfo.pData) +
           static_cast<std::size_t>(lIndex) * static_cast<std::size_t>(oMap->lEntrySize);
}

std::size_t MapBytes(MapO oMap, int32 lEntries) {
    return static_cast<std::size_t>(lEntries) * static_cast<std::size_t>(oMap->lEntrySize);
}

SortedPlaceT MapFindMatch(MapO oMap, void* pKey) {
    return SortedFind(oMap->lEntryCount,
                      [&](int32 lIndex) { return oMap->fnFind(pKey, MapEntry(oMap, lIndex)); });
}

SortedPlaceT MapLocateMatch(MapO oMap, void* pEntry) {
    return SortedFind(oMap->lEntryCount,
                      [&](int32 lIndex) { return oMap->fnLocate(pEntry, MapEntry(oMap, lIndex)); });
}

void MapReleaseEntry(MapO oMap, int32 lIndex) {
    if (oMap->fnRelease != nullptr) oMap->fnRelease(MapEntry(oMap, lIndex));
}

// Runs before the object core frees the block.
void MapDestructor(void* oObject) { MapReleaseEntries(static_cast<MapO>(oObject)); }

BooleanT MapGrow(MapO oMap) {
    const int64 llRoom = int64{oMap->lMaximumEntries} + oMap->lGrowSize;
    const int32 lSize = SortedBlockSize(oMap->lEntrySize, llRoom);
    void* pBlock = MemAllocateFromPool(lSize, MemPool());
    if (pBlock == nullptr) return FALSE;
    std::memcpy(pBlock, oMap->tMapInfo.pData, MapBytes(oMap, oMap->lEntryCount));
    MemFree(&oMap->tMapInfo.pData);
    oMap->tMapInfo = {lSize, pBlock};
    oMap->lMaximumEntries = static_cast<int32>(llRoom);
    return TRUE;
}

BooleanT MapInsertAt(MapO oMap, int32 lIndex, const void* pEntry) {
    if (oMap->lEntryCount == oMap->lMaximumEntries && MapGrow(oMap) != TRUE) return FALSE;
    char* pPlace = MapEntry(oMap, lIndex);
    std::memmove(pPlace + oMap->lEntrySize, pPlace, MapBytes(oMap, oMap->lEntryCount - lIndex));
    std::memcpy(pPlace, pEntry, MapBytes(oMap, 1));
    oMap->lEntryCount += 1;
    return TRUE;
}

BooleanT MapRemoveAt(MapO oMap, SortedPlaceT tPlace) {
    if (!tPlace.bFound) return FALSE;
    MapReleaseEntry(oMap, tPlace.lIndex);
    oMap->lEntryCount -= 1;
    char* pPlace = MapEntry(oMap, tPlace.lIndex);
    std::memmove(pPlace, pPlace + oMap->lEntrySize,
                 MapBytes(oMap, oMap->lEntryCount - tPlace.lIndex));
    return TRUE;
}

BooleanT MapCreateChecked(MapO* poMap, int32 lEntrySize, int32 lGrowSize, MapLocateFnT fnLocate,
                          MapFindFnT fnFind, MapReleaseFnT fnRelease) {
    if (poMap == nullptr || lEntrySize <= 0 || lGrowSize < 0 || fnLocate == nullptr) return FALSE;
    const int32 lRoom = lGrowSize == 0 ? MapDefaultGrowSize : lGrowSize;
    const int32 lSize = SortedBlockSize(lEntrySize, lRoom);
    if (lSize < 0) return FALSE;

    ObjHolder<MapS> oMap(
        static_cast<MapO>(ObjTemplateNewInstanceFromPool(gtTemplateMap, MemPool())));
    if (oMap.Get() == nullptr) {
        TraceMessageInline(2, 1, 4, "Failed to create MAP object");
        return FALSE;
    }
    oMap.Get()->lEntrySize = lEntrySize;
    oMap.Get()->lMaximumEntries = lRoom;
    oMap.Get()->lGrowSize = lRoom;
    oMap.Get()->fnFind = fnFind != nullptr ? fnFind : fnLocate;
    oMap.Get()->fnLocate = fnLocate;
    oMap.Get()->fnRelease = fnRelease;
    oMap.Get()->tMapInfo = {lSize, MemAllocateFromPool(lSize, MemPool())};
    if (oMap.Get()->tMapInfo.pData == nullptr) return FALSE;
    *poMap = oMap.Take();
    return TRUE;
}

}  // namespace

BooleanT MapInitialize() {
    return ObjTemplateCreateInternal(&gtTemplateMap, sizeof(MapS), MapMagic, "i;i;i;i;p;p;p;d;",
                                     MapDestructor);
}

BooleanT MapInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void MapReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT MapCreate(MapO* poMap, int32 lEntrySize, int32 lGrowSize, MapLocateFnT fnLocate,
                   MapFindFnT fnFind, MapReleaseFnT fnRelease) {
    TraceMessageInline(1, 0, 4, "MapCreate(%p, %d, %d, %p, %p, %p)", static_cast<void*>(poMap),
                       lEntrySize, lGrowSize, reinterpret_cast<void*>(fnLocate),
                       reinterpret_cast<void*>(fnFind), reinterpret_cast<void*>(fnRelease));
    const BooleanT bResult =
        MapCreateChecked(poMap, lEntrySize, lGrowSize, fnLocate, fnFind, fnRelease);
    TraceMessageInline(3, 0, 4, "%s = MapCreate(%p, %d, %d, %p, %p, %p)", BooleanText(bResult),
                       static_cast<void*>(poMap), lEntrySize, lGrowSize,
                       reinterpret_cast<void*>(fnLocate), reinterpret_cast<void*>(fnFind),
                       reinterpret_cast<void*>(fnRelease));
    return bResult;
}

int32 MapSize(MapO oMap) { return MapIsMap(oMap) ? oMap->lEntryCount : -1; }

BooleanT MapInsertEntry(MapO oMap, void* pEntry) {
    if (!MapIsMap(oMap) || pEntry == nullptr) return FALSE;
    TraceMessageInline(4, 0, 4, "MapInsertEntry(%p, %p)", static_cast<void*>(oMap), pEntry);
    const SortedPlaceT tPlace = MapLocateMatch(oMap, pEntry);
    BooleanT bResult = FALSE;
    if (tPlace.bFound)
        TraceMessageInline(5, 0, 4, "Entry is already in map");
    else
        bResult = MapInsertAt(oMap, tPlace.lIndex, pEntry);
    TraceMessageInline(6, 0, 4, "%s = MapInsertEntry(0x%p, 0x%p)", BooleanText(bResult),
                       static_cast<void*>(oMap), pEntry);
    return bResult;
}

BooleanT MapUpdateEntry(MapO oMap, void* pEntry) {
    if (!MapIsMap(oMap) || pEntry == nullptr) return FALSE;
    const SortedPlaceT tPlace = MapLocateMatch(oMap, pEntry);
    if (!tPlace.bFound) return MapInsertAt(oMap, tPlace.lIndex, pEntry);
    MapReleaseEntry(oMap, tPlace.lIndex);
    std::memmove(MapEntry(oMap, tPlace.lIndex), pEntry, MapBytes(oMap, 1));
    return TRUE;
}

BooleanT MapRemoveEntry(MapO oMap, void* pEntry) {
    if (!MapIsMap(oMap) || pEntry == nullptr) return FALSE;
    return MapRemoveAt(oMap, MapLocateMatch(oMap, pEntry));
}

BooleanT MapDeleteEntry(MapO oMap, void* pData) {
    if (!MapIsMap(oMap) || pData == nullptr) return FALSE;
    return MapRemoveAt(oMap, MapFindMatch(oMap, pData));
}

BooleanT MapFindEntry(void** ppResult, MapO oMap, void* pUserData) {
    if (!MapIsMap(oMap) || pUserData == nullptr) return FALSE;
    const SortedPlaceT tPlace = MapFindMatch(oMap, pUserData);
    if (tPlace.bFound && ppResult != nullptr) *ppResult = MapEntry(oMap, tPlace.lIndex);
    return BooleanFrom(tPlace.bFound);
}

BooleanT MapFindAndCopyEntry(void* pResult, MapO oMap, void* pUserData) {
    void* pEntry = nullptr;
    if (pResult == nullptr || MapFindEntry(&pEntry, oMap, pUserData) != TRUE) return FALSE;
    std::memmove(pResult, pEntry, MapBytes(oMap, 1));
    return TRUE;
}

BooleanT MapWalk(MapO oMap, MapCallbackFnT fnCallback, void* pArgument) {
    if (!MapIsMap(oMap) || fnCallback == nullptr) return FALSE;
    BooleanT bResult = TRUE;
    for (int32 lIndex = 0; lIndex < oMap->lEntryCount && bResult == TRUE; ++lIndex)
        bResult = fnCallback(MapEntry(oMap, lIndex), pArgument);
    return bResult;
}

BooleanT MapSearch(void** ppResult, MapO oMap, MapCallbackFnT fnCallback, void* pArgument) {
    if (!MapIsMap(oMap) || ppResult == nullptr || fnCallback == nullptr) return FALSE;
    for (int32 lIndex = 0; lIndex < oMap->lEntryCount; ++lIndex) {
        void* pEntry = MapEntry(oMap, lIndex);
        if (fnCallback(pEntry, pArgument) != TRUE) continue;
        *ppResult = pEntry;
        return TRUE;
    }
    return FALSE;
}

BooleanT MapReleaseEntries(MapO oMap) {
    if (!MapIsMap(oMap)) return FALSE;
    for (int32 lIndex = 0; lIndex < oMap->lEntryCount; ++lIndex) MapReleaseEntry(oMap, lIndex);
    oMap->lEntryCount = 0;
    return TRUE;
}
