// Lists: doubly linked lists of objects whose header and nodes are objects themselves, so that a
// list is held, shared, copied, serialised and released like any other object. A typed list takes
// objects of one class, an untyped one any sound object.
//
// "Add" operations take a new holder on the item; "Push" operations take over the caller's
// reference and clear the caller's variable; "Pop" operations hand the list's reference to the
// caller. What comes back through an out-parameter named po... is a new holder of the caller,
// except nodes, which stay the list's. Wrong arguments are traced and give FALSE with the list
// unchanged.
#pragma once

#include "core/object.h"
#include "core/types.h"

constexpr int32 ListMagic = ObjMagic(0xc8a2f9b9);
constexpr int32 ListNodeMagic = ObjMagic(0xc8a2f9bb);

// Descriptor "i;i;L;l;o;".
struct ListS {
    int32 lItemMagic;  // class of every item, 0 for an untyped list
    int32 lItemCount;
    ListNodeO oFirst;  // held
    ListNodeO oLast;   // not held
    void* oCookie;     // any object attached by the list's owner, held
};

// Descriptor "L;l;L;l;".
struct ListNodeS {
    ListNodeO oNext;      // held
    ListNodeO oPrevious;  // not held
    void* oData;          // the item, held
    ListO oHeader;        // not held
};

extern ObjTemplateT gtObjTemplateList;
extern ObjTemplateT gtObjTemplateListNode;

using ListCallbackFnT = BooleanT (*)(void* pCookie, ListNodeO oNode);  // TRUE goes on
using ListSearchFnT = BooleanT (*)(void* pCookie, void* oItem);        // non-zero matches
using ListEqualFnT = BooleanT (*)(void* oItemA, void* oItemB);         // non-zero when equal

BooleanT ListInitialize();
BooleanT ListInitializeThread(TesselContextT* ptTlContext);
void ListReleaseThread(TesselContextT* ptTlContext);
void ListCleanup();

// --- creation ---

BooleanT ListCreateFromPool(ListO* poNewList, int32 lItemMagic, MemPoolIdT tMemPool);
ListO ListNewFromPool(int32 lItemMagic, MemPoolIdT tPoolId);  // null on failure

// --- insertion ---

BooleanT ListAddFirstItem(ListO oTarget, void* oNewItem);
BooleanT ListAddLastItem(ListO oTarget, void* oNewItem);
BooleanT ListPushFirstItemInternal(ListO oTarget, void** poNewItem);
BooleanT ListPushLastItemInternal(ListO oTarget, void** poNewItem);
// Appends unless an equal item is present; TRUE either way.
BooleanT ListAddUniqueItem(ListO oTarget, ListEqualFnT pfnEqual, void* oNewItem);
BooleanT ListInsertBefore(ListNodeO oSuccessorNode, void* oNewItem);
BooleanT ListInsertAfter(ListNodeO oLocation, void* oNewItem);

// --- removal ---

BooleanT ListPopFirstItemInternal(ListO oList, void** poFirstItem);
BooleanT ListPopLastItemInternal(ListO oList, void** poLastItem);
BooleanT ListRemoveFirstItem(ListO oTarget);
BooleanT ListRemoveLastItem(ListO oTarget);
BooleanT ListRemoveItem(ListNodeO oTarget);
BooleanT ListReleaseAll(ListO oList);

// --- whole lists ---

BooleanT ListAppend(ListO oTarget, ListO oAddition);    // items are shared
void ListJoin(ListO oJoinTo, ListO oJoinFrom);          // nodes are moved
BooleanT ListClone(ListO* poNewList, ListO oList);      // untyped copy sharing the items
BooleanT ListDuplicate(ListO* poNewList, ListO oList);  // typed copy sharing the items
// The first lCount items; FALSE and no list when there are fewer.
BooleanT ListDuplicateRange(ListO* poNewList, ListO oList, int32 lCount);

// --- walking and searching ---

// The callback may remove the node that it is given. The result is the last callback's.
BooleanT ListWalk(ListO oTarget, ListCallbackFnT pfnProcess, void* pCookie);
BooleanT ListWalkBackwards(ListO oTarget, ListCallbackFnT pfnProcess, void* pCookie);
BooleanT ListSearch(ListO oTarget, ListSearchFnT compareFunc, void* pCookie,
                    ListNodeO* pMatchedNode);
BooleanT ListSearchBackwards(ListO oTarget, ListSearchFnT compareFunc, void* pCookie,
                             ListNodeO* pMatchedNode);
BooleanT ListFindNode(ListNodeO* poListNode, ListO oList, void* oObject);  // by identity

// --- positions, counted from 1 (ListGetItemIndex: nodes before the node, -1 for no node) ---

BooleanT ListGetNthItem(void** poResult, ListO oListToSearch, int32 lWhichItem);
BooleanT ListGetNthNode(ListNodeO* poResult, ListO oListToSearch, int32 lWhichItem);
BooleanT ListSetNthItem(void* oObject, ListO oList, int32 lWhichItem);
int32 ListGetItemIndex(ListNodeO oNode);

// --- order, checks, cookie ---

BooleanT ListSort(ListO oTarget, ObjCompareFunctionT pfnCompare);
BooleanT ListSortWithCookie(ListO oTarget, ObjCompareFunctionWithCookieT pfnCompare,
                            void* pvCookie);
BooleanT ListVerify(ListO Target);
// Stores the count for a list; the result is -1 in every case.
BooleanT ListGetItemCount(ListO Target, int32* Count);
BooleanT ListSetCookie(ListO oList, void* oCookie);

// --- untyped lists as sets holding one object per class ---

BooleanT ListFindObjectInternal(void** poObject, ListO oList, int32 lItemMagic);
BooleanT ListRemoveObjectInternal(ListO oList, int32 lItemMagic);
BooleanT ListPopObjectInternal(void** poObject, ListO oList, int32 lItemMagic);
BooleanT ListAddObject(ListO oList, void* oObject);
BooleanT ListPushObjectInternal(ListO oList, void** poObject);

// --- extension lists: a list variable made on first use, at most one item of each class ---

// poExtension is the address of the list variable.
BooleanT ListSetExtensionItem(void** poExtension, void* oObject);
BooleanT ListGetExtensionItem(void** poResult, ListO oExtensionList, int32 lMagic);
BooleanT ListRemoveExtensionItem(ListO oExtensionList, int32 lMagic);

BooleanT ListNodeReplaceObject(ListNodeO oNode, void* oObj);

// --- public forms ---

inline BooleanT ListCreate(ListO* poNewList, int32 lItemMagic = 0) {
    return ListCreateFromPool(poNewList, lItemMagic, MemGetDefaultPoolId());
}

inline ListO ListNew(int32 lItemMagic = 0) {
    return ListNewFromPool(lItemMagic, MemGetDefaultPoolId());
}

// A typed variable pushed onto or popped off a list.
template <class T>
BooleanT ListPushFirstItem(ListO oTarget, T** poNewItem) {
    if (poNewItem == nullptr) return ListPushFirstItemInternal(oTarget, nullptr);
    void* oItem = *poNewItem;
    const BooleanT bResult = ListPushFirstItemInternal(oTarget, &oItem);
    *poNewItem = static_cast<T*>(oItem);
    return bResult;
}

template <class T>
BooleanT ListPushLastItem(ListO oTarget, T** poNewItem) {
    if (poNewItem == nullptr) return ListPushLastItemInternal(oTarget, nullptr);
    void* oItem = *poNewItem;
    const BooleanT bResult = ListPushLastItemInternal(oTarget, &oItem);
    *poNewItem = static_cast<T*>(oItem);
    return bResult;
}

template <class T>
BooleanT ListPopFirstItem(ListO oList, T** poFirstItem) {
    if (poFirstItem == nullptr) return ListPopFirstItemInternal(oList, nullptr);
    void* oItem = nullptr;
    const BooleanT bResult = ListPopFirstItemInternal(oList, &oItem);
    if (bResult == TRUE) *poFirstItem = static_cast<T*>(oItem);
    return bResult;
}

template <class T>
BooleanT ListPopLastItem(ListO oList, T** poLastItem) {
    if (poLastItem == nullptr) return ListPopLastItemInternal(oList, nullptr);
    void* oItem = nullptr;
    const BooleanT bResult = ListPopLastItemInternal(oList, &oItem);
    if (bResult == TRUE) *poLastItem = static_cast<T*>(oItem);
    return bResult;
}

// TRUE for a sound list object.
inline BooleanT ListIsList(void* oObject) { return ObjCheckTypeInternal(oObject, ListMagic); }
