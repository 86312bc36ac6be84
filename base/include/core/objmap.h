// Object maps: sorted arrays of held objects of one class, found by binary search with an object or
// with a key. A map is an object; its last release releases its entries. It cannot be copied,
// neither in memory nor by way of an object stream, because its functions belong to its process.
#pragma once

#include "core/object.h"
#include "core/types.h"

constexpr int32 ObjMapMagic = ObjMagic(0xcad3102f);

// Negative when the first sorts before the entry, 0 when they match, positive when after.
using ObjMapLocateFnT = int32 (*)(void* oObject, void* oEntry);
using ObjMapFindFnT = int32 (*)(void* pKey, void* oEntry);
using ObjMapReleaseFnT = void (*)(void* oEntry);
using ObjMapCallbackFnT = BooleanT (*)(void* oEntry, void* pArgument);

// Descriptor "i;i;i;i;p;p;p;d;".
struct ObjMapS {
    int32 lMagic;                // class of every entry
    int32 lEntryCount;           // entries in use
    int32 lMaximumEntries;       // entries that the array has room for
    int32 lGrowSize;             // entries added when the room runs out
    ObjMapLocateFnT fnLocate;    // object against entry; gives the order
    ObjMapFindFnT fnFind;        // search key against entry
    ObjMapReleaseFnT fnRelease;  // called before the map lets go of an entry; may be null
    ObjDataFieldT tMapInfo;      // references of the entries, in ascending order
};
using ObjMapO = ObjMapS*;

extern ObjTemplateT gtTemplateObjMap;

BooleanT ObjMapInitialize();
BooleanT ObjMapInitializeThread(TesselContextT* ptTlContext);
void ObjMapReleaseThread(TesselContextT* ptTlContext);

// A new empty map of objects of class lMagic, held by the caller. lGrowSize 0 means 64; fnFind null
// means fnLocate, so that objects are the keys; fnRelease may be null. FALSE for a magic that no
// class can have, lGrowSize < 0 or no fnLocate.
BooleanT ObjMapCreateInternal(ObjMapO* poObjMap, int32 lMagic, int32 lGrowSize,
                              ObjMapLocateFnT fnLocate, ObjMapFindFnT fnFind,
                              ObjMapReleaseFnT fnRelease);

// Every operation below does nothing and returns FALSE (ObjMapSize: -1) for what is no object map.
// Objects that are stored get a new holder; the caller keeps its own. A key is the caller's, null
// as well: only fnFind looks at it. Callbacks must not change the map.

int32 ObjMapSize(ObjMapO oObjMap);
// FALSE for an object of another class, when an equal entry exists and when there is no memory.
BooleanT ObjMapInsert(ObjMapO oObjMap, void* oObject);
// The same, but the object takes the place of an equal entry.
BooleanT ObjMapUpdate(ObjMapO oObjMap, void* oObject);
BooleanT ObjMapRemove(ObjMapO oObjMap, void* oObject);  // the entry equal to oObject
BooleanT ObjMapDelete(ObjMapO oObjMap, void* pData);    // the entry matching a key
// The entry matching a key, as a new holder of the caller's; poObject may be null to ask only.
BooleanT ObjMapFind(void** poObject, ObjMapO oObjMap, const void* pData);
// In ascending or descending order while the callback returns non-zero; the result is the last
// callback's, TRUE for an empty map.
BooleanT ObjMapWalk(ObjMapO oObjMap, ObjMapCallbackFnT fnCallback, void* pArgument);
BooleanT ObjMapWalkBackwards(ObjMapO oObjMap, ObjMapCallbackFnT fnCallback, void* pArgument);
// The first entry, in order, that the callback accepts with non-zero; as ObjMapFind hands it out.
BooleanT ObjMapSearch(void** poObject, ObjMapO oObjMap, ObjMapCallbackFnT fnCallback,
                      void* pArgument);
// Empties the map; its room stays.
BooleanT ObjMapReleaseEntries(ObjMapO oObjMap);
