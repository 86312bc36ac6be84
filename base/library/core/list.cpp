// Lists. A header object holds the first node, every node its successor and its item; the way back
// (last node, previous node, header) is not held, so that a list is a chain without cycles and goes
// with its last holder. All changes pass through Insert and Remove, which keep the links, the ends
// and the count; everything else decides what is inserted or removed and who holds the item.
//
// An item is always held for its new place before the old place lets it go, and released only when
// the list is whole again: a destructor may look at the list.
#include "core/list.h"

#include <cinttypes>

#include "core/process.h"
#include "core/trace.h"
#include "objfields.h"

TRACE_MODULE("LIST")
MEM_DEFAULT_POOL_CACHE

ObjTemplateT gtObjTemplateList = nullptr;
ObjTemplateT gtObjTemplateListNode = nullptr;

namespace {

// Either direction through a list.
struct DirectionT {
    ListNodeO ListS::*tStart;
    ListNodeO ListNodeS::*tStep;
};
constexpr DirectionT tForwards = {&ListS::oFirst, &ListNodeS::oNext};
constexpr DirectionT tBackwards = {&ListS::oLast, &ListNodeS::oPrevious};

// The result of an operation that was given wrong arguments.
BooleanT Refuse() {
    ProcCrash(FALSE);
    return FALSE;
}

bool IsList(void* oObject) { return ListIsList(oObject) == TRUE; }

// A node that stands in a list.
bool IsNode(ListNodeO oNode) {
    return ObjCheckTypeInternal(oNode, ListNodeMagic) == TRUE && IsList(oNode->oHeader);
}

bool Fits(ListO oList, void* oItem) {
    return TRUE == (oList->lItemMagic == 0 ? ObjHasValidGlobalMagic(oItem)
                                           : ObjCheckTypeInternal(oItem, oList->lItemMagic));
}

// The checks of the insertions at an end, with their messages.
bool CheckList(void* oTarget) {
    if (IsList(oTarget)) return true;
    TraceMessageInline(1, 0, -1, "Not a list");
    return Refuse() == TRUE;
}

bool CheckVariable(void** poItem) {
    if (poItem != nullptr) return true;
    TraceMessageInline(2, 0, -1, "Not an object pointer");
    return Refuse() == TRUE;
}

bool CheckItem(ListO oTarget, void* oItem) {
    if (Fits(oTarget, oItem)) return true;
    TraceMessageInline(3, 0, -1, "Invalid Object %s", ObjNameFromObject(oItem));
    return Refuse() == TRUE;
}

// Puts an item between two neighbours, null beyond an end. The list takes over one of the item's
// holders.
bool Insert(ListO oList, MemPoolIdT tPool, ListNodeO oPrevious, ListNodeO oNext, void* oItem) {
    auto* oNode =
        static_cast<ListNodeO>(ObjTemplateNewInstanceFromPool(gtObjTemplateListNode, tPool));
    if (oNode == nullptr) {
        TraceMessageInline(4, 1, 3, "failed to create list node");
        return false;
    }
    *oNode = {.oNext = oNext, .oPrevious = oPrevious, .oData = oItem, .oHeader = oList};
    (oPrevious == nullptr ? oList->oFirst : oPrevious->oNext) = oNode;
    (oNext == nullptr ? oList->oLast : oNext->oPrevious) = oNode;
    ++oList->lItemCount;
    return true;
}

bool InsertFirst(ListO oList, void* oItem) {
    return Insert(oList, ObjGetPool(oList), nullptr, oList->oFirst, oItem);
}

bool InsertLast(ListO oList, void* oItem) {
    return Insert(oList, ObjGetPool(oList), oList->oLast, nullptr, oItem);
}

void Remove(ListNodeO oNode) {
    ListO oList = oNode->oHeader;
    (oNode->oNext == nullptr ? oList->oLast : oNode->oNext->oPrevious) = oNode->oPrevious;
    (oNode->oPrevious == nullptr ? oList->oFirst : oNode->oPrevious->oNext) = oNode->oNext;
    --oList->lItemCount;
    oNode->oHeader = nullptr;
    oNode->oNext = nullptr;
    oNode->oPrevious = nullptr;
    ObjRelease(&oNode);
}

// Removes a node and hands the list's holder of its item to the caller.
void* Pop(ListNodeO oNode) {
    void* oItem = oNode->oData;
    oNode->oData = nullptr;
    Remove(oNode);
    return oItem;
}

// Appends the first lCount items of a list, which may be the target itself, to another; returns how
// many were appended.
int32 AppendItems(ListO oTarget, ListO oSource, int32 lCount) {
    int32 lDone = 0;
    for (ListNodeO oNode = oSource->oFirst; oNode != nullptr && lDone < lCount;
         oNode = oNode->oNext) {
        if (ListAddLastItem(oTarget, oNode->oData) != TRUE) break;
        ++lDone;
    }
    return lDone;
}

BooleanT DuplicateRange(ListO* poNewList, ListO oList, int32 lCount) {
    if (ListCreateFromPool(poNewList, oList->lItemMagic, MemPool()) != TRUE) return FALSE;
    if (AppendItems(*poNewList, oList, lCount) == lCount) return TRUE;
    ObjRelease(poNewList);
    return FALSE;
}

BooleanT Walk(ListO oList, DirectionT tDirection, ListCallbackFnT pfnProcess, void* pCookie) {
    BooleanT bResult = TRUE;
    ListNodeO oNode = oList->*tDirection.tStart;
    while (oNode != nullptr && bResult == TRUE) {
        ListNodeO oFollowing = oNode->*tDirection.tStep;  // the callback may remove the node
        bResult = pfnProcess(pCookie, oNode);
        oNode = oFollowing;
    }
    return bResult;
}

BooleanT Search(ListO oList, DirectionT tDirection, ListSearchFnT compareFunc, void* pCookie,
                ListNodeO* pMatchedNode) {
    ListNodeO oNode = oList->*tDirection.tStart;
    while (oNode != nullptr && compareFunc(pCookie, oNode->oData) == 0) {
        oNode = oNode->*tDirection.tStep;
    }
    if (oNode == nullptr) return FALSE;
    if (pMatchedNode != nullptr) *pMatchedNode = oNode;
    return TRUE;
}

// Null unless the position, counted from 1, is in the list.
ListNodeO NthNode(ListO oList, int32 lWhich) {
    if (lWhich < 1 || lWhich > oList->lItemCount) return nullptr;
    const bool bFromEnd = lWhich > oList->lItemCount / 2;
    const DirectionT tDirection = bFromEnd ? tBackwards : tForwards;
    ListNodeO oNode = oList->*tDirection.tStart;
    for (int32 lSteps = bFromEnd ? oList->lItemCount - lWhich : lWhich - 1; lSteps > 0; --lSteps) {
        oNode = oNode->*tDirection.tStep;
    }
    return oNode;
}

// The first node whose item is of a class; -1 stands for a null item.
ListNodeO FirstOfClass(ListO oList, int32 lMagic) {
    ListNodeO oNode = oList->oFirst;
    while (oNode != nullptr &&
           !(lMagic == -1 ? oNode->oData == nullptr
                          : ObjCheckTypeInternal(oNode->oData, lMagic) == TRUE)) {
        oNode = oNode->oNext;
    }
    return oNode;
}

void RemoveClassOf(ListO oList, void* oObject) {
    const int32 lMagic = ObjGetTemplateFromObject(oObject)->lMagic;
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr;) {
        ListNodeO oFollowing = oNode->oNext;
        if (ObjCheckTypeInternal(oNode->oData, lMagic) == TRUE) Remove(oNode);
        oNode = oFollowing;
    }
}

// Sorts by way of an array of the items; fnSort gets the array and its last index.
template <class SortT>
BooleanT Sort(ListO oTarget, SortT fnSort) {
    const int32 lCount = oTarget->lItemCount;
    if (lCount < 2) return TRUE;
    TraceMessageInline(5, 0, 4, "Create an array of %d entries", lCount);
    auto* aoItems = static_cast<void**>(
        MemAllocateFromPool(lCount * static_cast<int32>(sizeof(void*)), MemPool()));
    if (aoItems == nullptr) return FALSE;
    for (int32 lIndex = 0; lIndex < lCount; ++lIndex) aoItems[lIndex] = Pop(oTarget->oFirst);
    fnSort(aoItems, lCount - 1);
    for (int32 lIndex = 0; lIndex < lCount; ++lIndex) InsertLast(oTarget, aoItems[lIndex]);
    MemFree(&aoItems);
    if (oTarget->lItemCount == lCount) return TRUE;
    TraceMessageInline(6, 0, -1, "ListSort - munged your list, sorry");
    return Refuse();
}

// Whether a list and a comparison function are there to sort with.
bool CanSort(ListO oTarget, bool bHasCompare) {
    if (!IsList(oTarget) || !bHasCompare) {
        TraceMessageInline(7, 0, -1, "ListSort - Invalid arguments");
    } else if (oTarget->lItemCount < 0) {
        TraceMessageInline(8, 0, -1, "ListSort - List has negative itemcount(!)");
    } else {
        return true;
    }
    return Refuse() == TRUE;
}

}  // namespace

BooleanT ListInitialize() {
    return BooleanFrom(ObjTemplateCreateInternal(&gtObjTemplateList, sizeof(ListS), ListMagic,
                                                 "i;i;L;l;o;", nullptr) == TRUE &&
                       ObjTemplateCreateInternal(&gtObjTemplateListNode, sizeof(ListNodeS),
                                                 ListNodeMagic, "L;l;L;l;", nullptr) == TRUE);
}

BooleanT ListInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ListReleaseThread(TesselContextT* /*ptTlContext*/) {}

void ListCleanup() { TraceMessageInline(9, 0, 4, "ListCleanup"); }

BooleanT ListCreateFromPool(ListO* poNewList, int32 lItemMagic, MemPoolIdT tMemPool) {
    BooleanT bResult = FALSE;
    if (poNewList != nullptr) {
        auto* oList =
            static_cast<ListO>(ObjTemplateNewInstanceFromPool(gtObjTemplateList, tMemPool));
        if (oList != nullptr) oList->lItemMagic = lItemMagic;
        *poNewList = oList;
        bResult = BooleanFrom(oList != nullptr);
    }
    TraceMessageInline(10, 0, 4, "%s = ListCreateFromPool(%p, %d, %p)", BooleanText(bResult),
                       poNewList, lItemMagic, tMemPool);
    return bResult;
}

ListO ListNewFromPool(int32 lItemMagic, MemPoolIdT tPoolId) {
    ListO oList = nullptr;
    ListCreateFromPool(&oList, lItemMagic, tPoolId);
    return oList;
}

BooleanT ListAddFirstItem(ListO oTarget, void* oNewItem) {
    TraceMessageInline(11, 0, 4, "ListAddFirstItem(%p, %p)", oTarget, oNewItem);
    if (!CheckList(oTarget) || !CheckItem(oTarget, oNewItem) || !InsertFirst(oTarget, oNewItem)) {
        return FALSE;
    }
    return ObjIncRefCount(oNewItem);
}

BooleanT ListAddLastItem(ListO oTarget, void* oNewItem) {
    TraceMessageInline(12, 0, 4, "ListAddLastItem(%p, %p)", oTarget, oNewItem);
    if (!CheckList(oTarget) || !CheckItem(oTarget, oNewItem) || !InsertLast(oTarget, oNewItem)) {
        return FALSE;
    }
    return ObjIncRefCount(oNewItem);
}

BooleanT ListPushFirstItemInternal(ListO oTarget, void** poNewItem) {
    TraceMessageInline(13, 0, 4, "ListPushFirstItem(%p, %p) %p", oTarget, poNewItem,
                       poNewItem == nullptr ? nullptr : *poNewItem);
    if (!CheckList(oTarget) || !CheckVariable(poNewItem)) return FALSE;
    if (!Fits(oTarget, *poNewItem)) {
        TraceMessageInline(14, 0, -1, "Invalid Object '%s' not '%s'", ObjNameFromObject(*poNewItem),
                           ObjNameFromMagic(oTarget->lItemMagic));
        return Refuse();
    }
    if (!InsertFirst(oTarget, *poNewItem)) return FALSE;
    *poNewItem = nullptr;
    return TRUE;
}

BooleanT ListPushLastItemInternal(ListO oTarget, void** poNewItem) {
    TraceMessageInline(15, 0, 4, "ListPushLastItem(%p, %p) %p", oTarget, poNewItem,
                       poNewItem == nullptr ? nullptr : *poNewItem);
    if (!CheckList(oTarget) || !CheckVariable(poNewItem)) return FALSE;
    if (!CheckItem(oTarget, *poNewItem) || !InsertLast(oTarget, *poNewItem)) return FALSE;
    *poNewItem = nullptr;
    return TRUE;
}

BooleanT ListAddUniqueItem(ListO oTarget, ListEqualFnT pfnEqual, void* oNewItem) {
    TraceMessageInline(16, 0, 4, "ListAddUniqueItem(%p, %p, %p)", oTarget,
                       reinterpret_cast<const void*>(pfnEqual), oNewItem);
    if (!CheckList(oTarget)) return FALSE;
    if (pfnEqual == nullptr) {
        TraceMessageInline(17, 0, -1, "No compare function");
        return Refuse();
    }
    if (!CheckItem(oTarget, oNewItem)) return FALSE;
    for (ListNodeO oNode = oTarget->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (pfnEqual(oNewItem, oNode->oData) != 0) return TRUE;
    }
    if (!InsertLast(oTarget, oNewItem)) return FALSE;
    TraceMessageInline(18, 0, 4, "Item added");
    return ObjIncRefCount(oNewItem);
}

BooleanT ListInsertBefore(ListNodeO oSuccessorNode, void* oNewItem) {
    if (!IsNode(oSuccessorNode)) {
        TraceMessageInline(19, 0, -1, "ListInsertBefore - not a list");
        return Refuse();
    }
    if (!Fits(oSuccessorNode->oHeader, oNewItem)) {
        TraceMessageInline(20, 0, -1, "ListInsertBefore - invalid item type");
        return Refuse();
    }
    if (!Insert(oSuccessorNode->oHeader, ObjGetPool(oSuccessorNode), oSuccessorNode->oPrevious,
                oSuccessorNode, oNewItem)) {
        return FALSE;
    }
    return ObjIncRefCount(oNewItem);
}

BooleanT ListInsertAfter(ListNodeO oLocation, void* oNewItem) {
    if (!IsNode(oLocation)) {
        TraceMessageInline(21, 0, -1, "ListInsertAfter - not a list");
        return Refuse();
    }
    if (!Fits(oLocation->oHeader, oNewItem)) {
        TraceMessageInline(22, 0, -1, "ListInsertAfter - invalid item type");
        return Refuse();
    }
    if (!Insert(oLocation->oHeader, ObjGetPool(oLocation), oLocation, oLocation->oNext, oNewItem)) {
        return FALSE;
    }
    return ObjIncRefCount(oNewItem);
}

BooleanT ListPopFirstItemInternal(ListO oList, void** poFirstItem) {
    if (!IsList(oList) || poFirstItem == nullptr) {
        TraceMessageInline(23, 0, -1, "ListPopFirstItem - Invalid arguments");
        return Refuse();
    }
    if (oList->oFirst == nullptr) return FALSE;
    *poFirstItem = Pop(oList->oFirst);
    return TRUE;
}

BooleanT ListPopLastItemInternal(ListO oList, void** poLastItem) {
    if (!IsList(oList) || poLastItem == nullptr) {
        TraceMessageInline(24, 0, -1, "ListPopLastItem - Invalid arguments");
        return Refuse();
    }
    if (oList->oLast == nullptr) return FALSE;
    *poLastItem = Pop(oList->oLast);
    return TRUE;
}

BooleanT ListRemoveFirstItem(ListO oTarget) {
    if (!IsList(oTarget) || oTarget->oFirst == nullptr) return FALSE;
    Remove(oTarget->oFirst);
    return TRUE;
}

BooleanT ListRemoveLastItem(ListO oTarget) {
    if (!IsList(oTarget) || oTarget->oLast == nullptr) return FALSE;
    Remove(oTarget->oLast);
    return TRUE;
}

BooleanT ListRemoveItem(ListNodeO oTarget) {
    if (!IsNode(oTarget)) {
        TraceMessageInline(25, 0, -1, "ListRemoveItem - not a listnode");
        return Refuse();
    }
    Remove(oTarget);
    return TRUE;
}

BooleanT ListReleaseAll(ListO oList) {
    if (!IsList(oList)) {
        TraceMessageInline(26, 0, -1, "ListReleaseAll - Invalid arguments");
        return Refuse();
    }
    while (oList->oFirst != nullptr) Remove(oList->oFirst);
    return TRUE;
}

BooleanT ListAppend(ListO oTarget, ListO oAddition) {
    BooleanT bResult = FALSE;
    if (IsList(oTarget) && IsList(oAddition) &&
        (oTarget->lItemMagic == 0 || oTarget->lItemMagic == oAddition->lItemMagic)) {
        const int32 lCount = oAddition->lItemCount;
        bResult = BooleanFrom(AppendItems(oTarget, oAddition, lCount) == lCount);
    } else {
        TraceMessageInline(27, 0, 4, "Invalid or mismatched lists");
        ProcCrash(FALSE);
    }
    TraceMessageInline(28, 0, 4, "ListAppend - returning %s", BooleanText(bResult));
    return bResult;
}

void ListJoin(ListO oJoinTo, ListO oJoinFrom) {
    if (!IsList(oJoinTo) || !IsList(oJoinFrom) || oJoinTo == oJoinFrom) return;
    if (oJoinFrom->oFirst == nullptr) {
        TraceMessageInline(29, 0, 4, "ListJoin - Doing nothing as 'JoinFrom' list  has no entries");
        return;
    }
    if (oJoinTo->oFirst != nullptr) {
        TraceMessageInline(30, 0, 4, "Transferred %d items from 'join from' list to 'join to' list",
                           oJoinFrom->lItemCount);
    } else {
        TraceMessageInline(31, 0, 4,
                           "Transferred %d items from 'join from' list to empty 'join to' list",
                           oJoinFrom->lItemCount);
    }
    for (ListNodeO oNode = oJoinFrom->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        oNode->oHeader = oJoinTo;
    }
    (oJoinTo->oLast == nullptr ? oJoinTo->oFirst : oJoinTo->oLast->oNext) = oJoinFrom->oFirst;
    oJoinFrom->oFirst->oPrevious = oJoinTo->oLast;
    oJoinTo->oLast = oJoinFrom->oLast;
    oJoinTo->lItemCount += oJoinFrom->lItemCount;
    oJoinFrom->oFirst = nullptr;
    oJoinFrom->oLast = nullptr;
    oJoinFrom->lItemCount = 0;
}

BooleanT ListClone(ListO* poNewList, ListO oList) {
    if (poNewList == nullptr || !IsList(oList)) {
        TraceMessageInline(32, 1, -1, "ListClone(%p,%p) - invalid arguments", poNewList, oList);
        return Refuse();
    }
    if (ListCreateFromPool(poNewList, 0, MemPool()) != TRUE) return FALSE;
    AppendItems(*poNewList, oList, oList->lItemCount);
    return TRUE;
}

BooleanT ListDuplicate(ListO* poNewList, ListO oList) {
    if (poNewList == nullptr || !IsList(oList)) {
        TraceMessageInline(33, 0, -1, "ListDuplicate - Invalid arguments");
        return Refuse();
    }
    return DuplicateRange(poNewList, oList, oList->lItemCount);
}

BooleanT ListDuplicateRange(ListO* poNewList, ListO oList, int32 lCount) {
    if (poNewList == nullptr || !IsList(oList)) {
        TraceMessageInline(34, 0, -1, "ListDuplicateRange - Invalid arguments");
        return Refuse();
    }
    return DuplicateRange(poNewList, oList, lCount);
}

BooleanT ListWalk(ListO oTarget, ListCallbackFnT pfnProcess, void* pCookie) {
    BooleanT bResult = FALSE;
    if (IsList(oTarget) && pfnProcess != nullptr) {
        bResult = Walk(oTarget, tForwards, pfnProcess, pCookie);
    } else {
        TraceMessageInline(35, 1, 3, "ListWalk - bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(36, 0, 4, "%s = ListWalk(%p, %p, %p)", BooleanText(bResult), oTarget,
                       reinterpret_cast<const void*>(pfnProcess), pCookie);
    return bResult;
}

BooleanT ListWalkBackwards(ListO oTarget, ListCallbackFnT pfnProcess, void* pCookie) {
    BooleanT bResult = FALSE;
    if (IsList(oTarget) && pfnProcess != nullptr) {
        bResult = Walk(oTarget, tBackwards, pfnProcess, pCookie);
    } else {
        TraceMessageInline(37, 1, 3, "Bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(38, 0, 4, "ListWalkBackwards - returning %s", BooleanText(bResult));
    return bResult;
}

BooleanT ListSearch(ListO oTarget, ListSearchFnT compareFunc, void* pCookie,
                    ListNodeO* pMatchedNode) {
    BooleanT bResult = FALSE;
    if (IsList(oTarget) && compareFunc != nullptr) {
        bResult = Search(oTarget, tForwards, compareFunc, pCookie, pMatchedNode);
    } else {
        TraceMessageInline(39, 1, -1, "ListSearch - bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(40, 0, 4, "ListSearch - returning %s", BooleanText(bResult));
    return bResult;
}

BooleanT ListSearchBackwards(ListO oTarget, ListSearchFnT compareFunc, void* pCookie,
                             ListNodeO* pMatchedNode) {
    BooleanT bResult = FALSE;
    if (IsList(oTarget) && compareFunc != nullptr) {
        bResult = Search(oTarget, tBackwards, compareFunc, pCookie, pMatchedNode);
    } else {
        TraceMessageInline(41, 1, -1, "ListSearchBackwards - bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(42, 0, 4, "ListSearchBackwards - returning %s", BooleanText(bResult));
    return bResult;
}

BooleanT ListFindNode(ListNodeO* poListNode, ListO oList, void* oObject) {
    if (oList == nullptr) {
        TraceMessageInline(43, 0, 4, "ListFindNode - invalid arguments");
        return Refuse();
    }
    if (!IsList(oList)) {
        TraceMessageInline(44, 0, -1, "ListFindNode - not a list");
        return Refuse();
    }
    if (!Fits(oList, oObject)) {
        TraceMessageInline(45, 0, -1, "ListFindNode - wrong item type for this list");
        return Refuse();
    }
    const auto fnSame = [](void* pCookie, void* oItem) { return BooleanFrom(pCookie == oItem); };
    return Search(oList, tForwards, fnSame, oObject, poListNode);
}

BooleanT ListGetNthItem(void** poResult, ListO oListToSearch, int32 lWhichItem) {
    if (poResult == nullptr || !IsList(oListToSearch)) {
        TraceMessageInline(46, 0, -1, "ListGetNthItem - Invalid arguments");
        return Refuse();
    }
    ListNodeO oNode = NthNode(oListToSearch, lWhichItem);
    if (oNode == nullptr) return FALSE;
    *poResult = oNode->oData;
    ObjIncRefCount(*poResult);
    return TRUE;
}

BooleanT ListGetNthNode(ListNodeO* poResult, ListO oListToSearch, int32 lWhichItem) {
    if (poResult == nullptr || !IsList(oListToSearch)) {
        TraceMessageInline(47, 0, -1, "ListGetNthNode - Invalid arguments");
        return Refuse();
    }
    ListNodeO oNode = NthNode(oListToSearch, lWhichItem);
    if (oNode == nullptr) {
        TraceMessageInline(48, 0, -1, "ListGetNthNode - Index out of range");
        return Refuse();
    }
    *poResult = oNode;
    return TRUE;
}

BooleanT ListSetNthItem(void* oObject, ListO oList, int32 lWhichItem) {
    TraceMessageInline(49, 0, 4, "ListSetNthItem(%p, %p, %d)", oObject, oList, lWhichItem);
    if (!IsList(oList) || !Fits(oList, oObject)) {
        TraceMessageInline(50, 0, -1, "ListSetNthItem(%p, %p, %d) - bad params", oObject, oList,
                           lWhichItem);
        return Refuse();
    }
    ListNodeO oNode = NthNode(oList, lWhichItem);
    if (oNode == nullptr) {
        TraceMessageInline(51, 0, -1,
                           "ListSetNthItem - Index out of range (Index %d, list has %d items)",
                           lWhichItem, oList->lItemCount);
        return Refuse();
    }
    ObjReplaceHeld(&oNode->oData, oObject);
    return TRUE;
}

int32 ListGetItemIndex(ListNodeO oNode) {
    if (ObjCheckTypeInternal(oNode, ListNodeMagic) != TRUE) return -1;
    int32 lIndex = 0;
    while ((oNode = oNode->oPrevious) != nullptr) ++lIndex;
    return lIndex;
}

BooleanT ListSort(ListO oTarget, ObjCompareFunctionT pfnCompare) {
    if (!CanSort(oTarget, pfnCompare != nullptr)) return FALSE;
    return Sort(oTarget, [&](void** aoItems, int32 lLast) {
        return ObjQuickSort(aoItems, lLast, pfnCompare);
    });
}

BooleanT ListSortWithCookie(ListO oTarget, ObjCompareFunctionWithCookieT pfnCompare,
                            void* pvCookie) {
    if (!CanSort(oTarget, pfnCompare != nullptr)) return FALSE;
    return Sort(oTarget, [&](void** aoItems, int32 lLast) {
        return ObjQuickSortWithCookie(aoItems, lLast, pfnCompare, pvCookie);
    });
}

BooleanT ListVerify(ListO Target) {
    TraceMessageInline(52, 0, 4, "ListVerify(%#" PRIxPTR ")",
                       reinterpret_cast<std::uintptr_t>(Target));
    if (!IsList(Target)) {
        TraceMessageInline(53, 1, 3, "Invalid list header");
        return Refuse();
    }
    for (ListNodeO oNode = Target->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (ObjCheckTypeInternal(oNode, ListNodeMagic) != TRUE) {
            TraceMessageInline(54, 1, 3, "Corrupt node in list");
            return FALSE;
        }
        if (!Fits(Target, oNode->oData)) {
            TraceMessageInline(55, 1, 3, "Corrupt item in list");
            return FALSE;
        }
    }
    return TRUE;
}

BooleanT ListGetItemCount(ListO Target, int32* Count) {
    if (!IsList(Target)) {
        TraceMessageInline(56, 0, -1, "ListGetItemCount - not a list");
        ProcCrash(FALSE);
    } else if (Count != nullptr) {
        *Count = Target->lItemCount;
    }
    return -1;
}

BooleanT ListSetCookie(ListO oList, void* oCookie) {
    if (!IsList(oList)) return FALSE;
    if (oCookie != nullptr && ObjHasValidGlobalMagic(oCookie) != TRUE) return FALSE;
    ObjReplaceHeld(&oList->oCookie, oCookie);
    return TRUE;
}

BooleanT ListFindObjectInternal(void** poObject, ListO oList, int32 lItemMagic) {
    BooleanT bResult = FALSE;
    if (IsList(oList)) {
        ListNodeO oNode = FirstOfClass(oList, lItemMagic);
        bResult = BooleanFrom(oNode != nullptr);
        if (oNode != nullptr && poObject != nullptr) {
            *poObject = oNode->oData;
            ObjIncRefCount(*poObject);
        }
    } else {
        TraceMessageInline(57, 1, 3, "ListFindObject - bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(58, 0, 4, "%s = ListFindObject(%p, %p, %x)", BooleanText(bResult), poObject,
                       oList, static_cast<uint32>(lItemMagic));
    return bResult;
}

BooleanT ListRemoveObjectInternal(ListO oList, int32 lItemMagic) {
    BooleanT bResult = FALSE;
    if (IsList(oList)) {
        ListNodeO oNode = FirstOfClass(oList, lItemMagic);
        bResult = BooleanFrom(oNode != nullptr);
        if (oNode != nullptr) Remove(oNode);
    } else {
        TraceMessageInline(59, 1, 3, "ListRemoveObject - bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(60, 0, 4, "%s = ListRemoveObject(%p, %x)", BooleanText(bResult), oList,
                       static_cast<uint32>(lItemMagic));
    return bResult;
}

BooleanT ListPopObjectInternal(void** poObject, ListO oList, int32 lItemMagic) {
    BooleanT bResult = FALSE;
    if (poObject != nullptr && IsList(oList)) {
        ListNodeO oNode = FirstOfClass(oList, lItemMagic);
        bResult = BooleanFrom(oNode != nullptr);
        if (oNode != nullptr) *poObject = Pop(oNode);
    } else {
        TraceMessageInline(61, 1, 3, "ListPopObject - bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(62, 0, 4, "%s = ListPopObject(%p, %p, %x)", BooleanText(bResult), poObject,
                       oList, static_cast<uint32>(lItemMagic));
    return bResult;
}

BooleanT ListAddObject(ListO oList, void* oObject) {
    BooleanT bResult = FALSE;
    if (IsList(oList) && oList->lItemMagic == 0 && ObjHasValidGlobalMagic(oObject) == TRUE) {
        // Held first: the list may have the only holder of the object and is about to drop it.
        ObjHolder<void> oNewItem;
        if (ObjIncRefCount(oObject) == TRUE) *oNewItem.Address() = oObject;
        RemoveClassOf(oList, oObject);
        bResult = ListPushLastItemInternal(oList, oNewItem.Address());
    } else {
        TraceMessageInline(63, 1, 3, "ListAddObject - bad argument(s)");
        ProcCrash(FALSE);
    }
    TraceMessageInline(64, 0, 4, "%s = ListAddObject(%p, %p)", BooleanText(bResult), oList,
                       oObject);
    return bResult;
}

BooleanT ListPushObjectInternal(ListO oList, void** poObject) {
    BooleanT bResult = FALSE;
    if (!IsList(oList) || oList->lItemMagic != 0 || poObject == nullptr) {
        TraceMessageInline(65, 1, 3, "ListPushObject - bad argument(s)");
        ProcCrash(FALSE);
    } else if (ObjHasValidGlobalMagic(*poObject) != TRUE) {
        TraceMessageInline(66, 0, -1, "ListPushAddObject - invailid object");
        ProcCrash(FALSE);
    } else {
        RemoveClassOf(oList, *poObject);
        bResult = ListPushLastItemInternal(oList, poObject);
    }
    TraceMessageInline(67, 0, 4, "%s = ListPushObject(%p, %p)", BooleanText(bResult), oList,
                       poObject);
    return bResult;
}

BooleanT ListSetExtensionItem(void** poExtension, void* oObject) {
    TraceMessageInline(68, 0, 3, "ListSetExtensionItem(%p,%p)", poExtension, oObject);
    if (poExtension == nullptr || ObjHasValidGlobalMagic(oObject) != TRUE) {
        TraceMessageInline(69, 0, -1, "Invalid Object %s", ObjNameFromObject(oObject));
        return Refuse();
    }
    if (*poExtension == nullptr) {
        *poExtension = ListNewFromPool(0, MemPool());
        if (*poExtension == nullptr) return FALSE;
        TraceMessageInline(70, 0, 3, "Created new extension list");
    }
    if (!IsList(*poExtension)) {
        TraceMessageInline(71, 0, -1, "Extension object is not a list!");
        return Refuse();
    }
    auto* oList = static_cast<ListO>(*poExtension);
    ObjHolder<void> oNewItem;
    if (ObjIncRefCount(oObject) == TRUE) *oNewItem.Address() = oObject;
    ListNodeO oNode = FirstOfClass(oList, ObjGetTemplateFromObject(oObject)->lMagic);
    if (oNode != nullptr) {
        TraceMessageInline(72, 0, 3, "Extension item already present, removing");
        Remove(oNode);
    }
    return ListPushLastItemInternal(oList, oNewItem.Address());
}

BooleanT ListGetExtensionItem(void** poResult, ListO oExtensionList, int32 lMagic) {
    if (!IsList(oExtensionList)) return FALSE;
    ListNodeO oNode = FirstOfClass(oExtensionList, lMagic);
    if (oNode == nullptr) return FALSE;
    TraceMessageInline(73, 0, 3, "Found specified extension item");
    if (poResult != nullptr) {
        *poResult = oNode->oData;
        ObjIncRefCount(*poResult);
    }
    return TRUE;
}

BooleanT ListRemoveExtensionItem(ListO oExtensionList, int32 lMagic) {
    if (!IsList(oExtensionList)) return FALSE;
    ListNodeO oNode = FirstOfClass(oExtensionList, lMagic);
    if (oNode == nullptr) return FALSE;
    TraceMessageInline(74, 0, 3, "Found specified extension item");
    Remove(oNode);
    return TRUE;
}

BooleanT ListNodeReplaceObject(ListNodeO oNode, void* oObj) {
    if (!IsNode(oNode) || !Fits(oNode->oHeader, oObj)) {
        TraceMessageInline(75, 0, -1, "Invalid Object %s", ObjNameFromObject(oObj));
        return Refuse();
    }
    ObjReplaceHeld(&oNode->oData, oObj);
    return TRUE;
}
