// Object walker: visits every object that can be reached from a reference through owned links, list
// items and tree nodes, each shared object once, and lets a callback skip, prune or replace what it
// visits. Lists and trees are followed without recursion; a graph that is nested deeper than
// ObjMaximumDepth through links and items aborts the walk.
#pragma once

#include "core/map.h"
#include "core/object.h"
#include "core/types.h"

enum ObjWalkResultE : int32 {
    eObjWalkResultAbort = 0,     // stop; the walk fails
    eObjWalkResultContinue = 1,  // go on with what the object holds
    eObjWalkResultSkip = 2,      // go on without what the object holds
    eObjWalkResultPrune = 3,     // release the reference; a list or tree node goes with its item
};

// Gets the address of the reference being visited. The callback may put another object there (with
// the holder that goes with the reference), but not in place of a list node or a tree node.
using ObjWalkFnT = ObjWalkResultE (*)(void* pCookie, void** poObject);

// A set of objects, by identity; it holds none of them.
using ObjWalkMapT = MapO;

// FALSE when the walk was aborted: by the callback, by an object without a sound magic, by an
// object with a backward link, or for its depth. FALSE also, without a walk, when a caller passes a
// map.
BooleanT ObjWalk(void** poSource, ObjWalkFnT fnCallback, void* pCookie, ObjWalkMapT tUsageMap);

ObjWalkMapT ObjWalkMapNew();  // null on failure
void ObjWalkMapRelease(ObjWalkMapT* ptMap);
BooleanT ObjWalkMapAddObject(ObjWalkMapT tMap, void* oObject);  // FALSE when already in the set
BooleanT ObjWalkMapRemoveObject(ObjWalkMapT tMap, void* oObject);

// Adds what an object consists of to a count table (see ObjGetZeroedObjectCounts): 1 to the class
// of every object visited. FALSE without a table.
BooleanT ObjMonitorObject(void* oSource, ObjCountEntryT* ptUsage, ObjWalkMapT tObjRefMap);
