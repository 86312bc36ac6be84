// Maps: fixed-size entries, copied in by value, in one block sorted by the caller's comparison and
// found by binary search. A map is an object; releasing it releases its entries.
#pragma once

#include "core/object.h"
#include "core/types.h"

constexpr int32 MapMagic = ObjMagic(0xc938e027);

// Negative when the first sorts before the second, 0 when they match, positive when after.
using MapFindFnT = int32 (*)(void* pUserData, void* pEntry);
using MapLocateFnT = int32 (*)(void* pEntry1, void* pEntry2);
using MapReleaseFnT = void (*)(void* pEntry);
using MapCallbackFnT = BooleanT (*)(void* pEntry, void* pArgument);

// Descriptor "i;i;i;i;p;p;p;d;".
struct MapS {
    int32 lEntrySize;         // bytes per entry
    int32 lEntryCount;        // entries in use
    int32 lMaximumEntries;    // entries that the block has room for
    int32 lGrowSize;          // entries added when the room runs out
    MapFindFnT fnFind;        // search key against entry
    MapLocateFnT fnLocate;    // entry against entry
    MapReleaseFnT fnRelease;  // called before an entry is overwritten or removed; may be null
    ObjDataFieldT tMapInfo;   // the entries, in ascending order
};

extern ObjTemplateT gtTemplateMap;

BooleanT MapInitialize();
BooleanT MapInitializeThread(TesselContextT* ptTlContext);
void MapReleaseThread(TesselContextT* ptTlContext);

// A new empty map, held by the caller. lGrowSize 0 means 64; fnFind null means fnLocate; fnRelease
// may be null. FALSE for lEntrySize < 1, lGrowSize < 0 or no fnLocate.
BooleanT MapCreate(MapO* poMap, int32 lEntrySize, int32 lGrowSize, MapLocateFnT fnLocate,
                   MapFindFnT fnFind, MapReleaseFnT fnRelease);

// Every operation below does nothing and returns FALSE (MapSize: -1) for what is no map. Addresses
// of entries point into the map and hold until the next insertion or removal.

int32 MapSize(MapO oMap);
BooleanT MapInsertEntry(MapO oMap, void* pEntry);  // FALSE when an equal entry exists
BooleanT MapUpdateEntry(MapO oMap, void* pEntry);  // replaces the equal entry, or inserts
BooleanT MapRemoveEntry(MapO oMap, void* pEntry);  // the entry equal to pEntry
BooleanT MapDeleteEntry(MapO oMap, void* pData);   // the entry matching a key
BooleanT MapFindEntry(void** ppResult, MapO oMap, void* pUserData);  // ppResult may be null
BooleanT MapFindAndCopyEntry(void* pResult, MapO oMap, void* pUserData);
// In order while the callback returns TRUE; the result is the last callback's, TRUE for an empty
// map. The callback must not insert or remove entries.
BooleanT MapWalk(MapO oMap, MapCallbackFnT fnCallback, void* pArgument);
// The first entry, in order, that the callback accepts with TRUE.
BooleanT MapSearch(void** ppResult, MapO oMap, MapCallbackFnT fnCallback, void* pArgument);
BooleanT MapReleaseEntries(MapO oMap);
