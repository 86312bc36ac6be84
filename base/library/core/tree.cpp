// Trees. A header holds the first top-level node; every node holds its item, its first child and
// its next sibling; all other links are not held. Link and Unlink are the only places that change
// links: they keep both ends of each sibling chain, and move the one holder of a node with the
// links.
//
// Whatever visits more than one level steps through the tree by its links (Step), so that depth
// costs no stack. Copies are gathered under a node outside every tree before anything old is
// removed; therefore a source may be part of what it replaces or of where it is copied to. An item
// is held for its new place before the old place lets it go.
#include "core/tree.h"

#include "core/trace.h"
#include "objfields.h"

TRACE_MODULE("TREE")
MEM_DEFAULT_POOL_CACHE

ObjTemplateT gtObjTemplateTree = nullptr;
ObjTemplateT gtObjTemplateTreeNode = nullptr;

namespace {

// A gap between two siblings; a neighbour is null beyond an end.
struct PlaceT {
    TreeO oTree;
    TreeNodeO oParent;  // null at the top level
    TreeNodeO oPrevious;
    TreeNodeO oNext;
};

bool IsTree(void* oObject) {
    return oObject != nullptr && ObjCheckTypeInternal(oObject, TreeMagic) == TRUE;
}
bool IsNode(void* oObject) {
    return oObject != nullptr && ObjCheckTypeInternal(oObject, TreeNodeMagic) == TRUE;
}
bool IsObject(void* oObject) { return ObjHasValidGlobalMagic(oObject) == TRUE; }

// FALSE for a node that was removed from its tree while somebody else held it: it has no siblings
// and nothing of a tree's to give up.
bool IsAttached(TreeNodeO oNode) { return oNode->oParent != nullptr || oNode->oTree != nullptr; }

// The ends of a sibling chain.
TreeNodeO& FirstOf(TreeO oTree, TreeNodeO oParent) {
    return oParent == nullptr ? oTree->oFirstNode : oParent->oChild;
}
TreeNodeO& LastOf(TreeO oTree, TreeNodeO oParent) {
    return oParent == nullptr ? oTree->oLastNode : oParent->oLastChild;
}

// FALSE when there is no such place to insert at.
bool FindPlace(PlaceT* ptPlace, TreeNodeO oNode, TreePositionE tRelativePosition) {
    const bool bBelow =
        tRelativePosition == TREE_FIRST_CHILD || tRelativePosition == TREE_LAST_CHILD;
    if (!bBelow && !IsAttached(oNode)) return false;
    TreeO oTree = oNode->oTree;
    TreeNodeO oParent = bBelow ? oNode : oNode->oParent;
    switch (tRelativePosition) {
        case TREE_FIRST_CHILD:
        case TREE_SIBLING_FIRST:
            *ptPlace = {oTree, oParent, nullptr, FirstOf(oTree, oParent)};
            return true;
        case TREE_LAST_CHILD:
        case TREE_SIBLING_LAST:
            *ptPlace = {oTree, oParent, LastOf(oTree, oParent), nullptr};
            return true;
        case TREE_SIBLING_BEFORE:
            *ptPlace = {oTree, oParent, oNode->oPrevious, oNode};
            return true;
        case TREE_SIBLING_AFTER:
            *ptPlace = {oTree, oParent, oNode, oNode->oNext};
            return true;
        default:
            return false;
    }
}

// Hands a holder of the node to the tree.
void Link(TreeNodeO oNode, const PlaceT& tPlace) {
    oNode->oTree = tPlace.oTree;
    oNode->oParent = tPlace.oParent;
    oNode->oPrevious = tPlace.oPrevious;
    oNode->oNext = tPlace.oNext;
    (tPlace.oPrevious == nullptr ? FirstOf(tPlace.oTree, tPlace.oParent)
                                 : tPlace.oPrevious->oNext) = oNode;
    (tPlace.oNext == nullptr ? LastOf(tPlace.oTree, tPlace.oParent) : tPlace.oNext->oPrevious) =
        oNode;
}

// Hands the tree's holder of the node to the caller.
void Unlink(TreeNodeO oNode) {
    (oNode->oPrevious == nullptr ? FirstOf(oNode->oTree, oNode->oParent)
                                 : oNode->oPrevious->oNext) = oNode->oNext;
    (oNode->oNext == nullptr ? LastOf(oNode->oTree, oNode->oParent) : oNode->oNext->oPrevious) =
        oNode->oPrevious;
    oNode->oTree = nullptr;
    oNode->oParent = nullptr;
    oNode->oPrevious = nullptr;
    oNode->oNext = nullptr;
}

bool Prune(TreeNodeO oNode) {
    if (!IsAttached(oNode)) return false;
    Unlink(oNode);
    return ObjRelease(&oNode) == TRUE;
}

void PruneChildren(TreeNodeO oNode) {
    while (oNode->oChild != nullptr) Prune(oNode->oChild);
}

// The next node in pre-order: the first child, when it may descend, else the next sibling of the
// node or of its nearest ancestor that has one, climbing no higher than oTop (null: to the top
// level).
TreeNodeO Step(TreeNodeO oNode, TreeNodeO oTop, bool bDescend, int32* plDepth) {
    if (bDescend && oNode->oChild != nullptr) {
        ++*plDepth;
        return oNode->oChild;
    }
    while (oNode != oTop && oNode->oNext == nullptr) {
        oNode = oNode->oParent;
        if (oNode == nullptr) return nullptr;
        --*plDepth;
    }
    return oNode == oTop ? nullptr : oNode->oNext;
}

TreeNodeO Step(TreeNodeO oNode, TreeNodeO oTop, bool bDescend) {
    int32 lDepth = 0;
    return Step(oNode, oTop, bDescend, &lDepth);
}

// Moves a node with its branch.
void Relocate(TreeNodeO oNode, const PlaceT& tPlace) {
    const bool bNewTree = oNode->oTree != tPlace.oTree;
    Unlink(oNode);
    Link(oNode, tPlace);
    if (!bNewTree) return;
    for (TreeNodeO oMoved = oNode; oMoved != nullptr; oMoved = Step(oMoved, oNode, true)) {
        oMoved->oTree = tPlace.oTree;
    }
}

// Moves a sibling chain, given by the link to its first node, into a place.
void RelocateAll(TreeNodeO* poFirst, PlaceT tPlace) {
    while (*poFirst != nullptr) {
        TreeNodeO oNode = *poFirst;
        Relocate(oNode, tPlace);
        tPlace.oPrevious = oNode;
    }
}

TreeNodeO NewNode(MemPoolIdT tPool) {
    return static_cast<TreeNodeO>(ObjTemplateNewInstanceFromPool(gtObjTemplateTreeNode, tPool));
}

// A new node with one of the item's holders.
TreeNodeO Insert(const PlaceT& tPlace, MemPoolIdT tPool, void* oItem) {
    TreeNodeO oNode = NewNode(tPool);
    if (oNode == nullptr) return nullptr;
    oNode->oData = oItem;
    Link(oNode, tPlace);
    return oNode;
}

TreeNodeO InsertRoot(TreeO oTree, void* oItem) {
    return Insert({oTree, nullptr, nullptr, oTree->oFirstNode}, ObjGetPool(oTree), oItem);
}

TreeNodeO InsertAt(TreeNodeO oOldNode, TreePositionE tRelativePosition, void* oItem) {
    PlaceT tPlace;
    if (!FindPlace(&tPlace, oOldNode, tRelativePosition)) return nullptr;
    return Insert(tPlace, ObjGetPool(oOldNode), oItem);
}

// A copy of the node alone as the last child of another.
TreeNodeO AppendCopy(TreeNodeO oParent, TreeNodeO oSource) {
    TreeNodeO oCopy = InsertAt(oParent, TREE_LAST_CHILD, oSource->oData);
    if (oCopy == nullptr) return nullptr;
    if (oCopy->oData != nullptr) ObjIncRefCount(oCopy->oData);
    oCopy->bOpen = oSource->bOpen;
    return oCopy;
}

bool CopyDescendants(TreeNodeO oTarget, TreeNodeO oSource) {
    TreeNodeO oCopy = oTarget;
    int32 lCopyDepth = 0;
    int32 lDepth = 0;
    TreeNodeO oNode = oSource;
    while ((oNode = Step(oNode, oSource, true, &lDepth)) != nullptr) {
        for (; lCopyDepth >= lDepth; --lCopyDepth) oCopy = oCopy->oParent;
        oCopy = AppendCopy(oCopy, oNode);
        if (oCopy == nullptr) return false;
        lCopyDepth = lDepth;
    }
    return true;
}

// Copies a branch, or also those of the following siblings, as last children of a node.
bool CopyBranches(TreeNodeO oTarget, TreeNodeO oSource, bool bFollowing) {
    for (; oSource != nullptr; oSource = bFollowing ? oSource->oNext : nullptr) {
        TreeNodeO oCopy = AppendCopy(oTarget, oSource);
        if (oCopy == nullptr || !CopyDescendants(oCopy, oSource)) return false;
    }
    return true;
}

// A node under which copies for a tree are gathered: outside the tree, but its children count as
// the tree's.
TreeNodeO NewGatheringNode(MemPoolIdT tPool, TreeO oTree) {
    TreeNodeO oNode = NewNode(tPool);
    if (oNode != nullptr) oNode->oTree = oTree;
    return oNode;
}

BooleanT AddBranchesToRoot(TreeO oTree, TreeNodeO oSource, bool bFollowing) {
    ObjHolder<TreeNodeS> oGathered(NewGatheringNode(ObjGetPool(oTree), oTree));
    if (oGathered.Get() == nullptr || !CopyBranches(oGathered.Get(), oSource, bFollowing)) {
        return FALSE;
    }
    TreeNodeO oFirst = oTree->oFirstNode;
    RelocateAll(&oGathered.Get()->oChild,
                {oTree, nullptr, oFirst, oFirst == nullptr ? nullptr : oFirst->oNext});
    return TRUE;
}

BooleanT Deliver(TreeNodeO* poResult, TreeNodeO oNode) {
    if (poResult != nullptr) *poResult = oNode;
    return BooleanFrom(poResult != nullptr && oNode != nullptr);
}

// fnVisit gets node and depth.
template <class VisitT>
BooleanT Walk(TreeNodeO oNode, bool bRespectOpen, int32 lDepth, VisitT fnVisit) {
    while (oNode != nullptr) {
        const TreeCallbackResultE eResult = fnVisit(oNode, lDepth);
        TreeNodeO oVisited = oNode;
        switch (eResult) {
            case TreeWalkContinue:
                oNode =
                    Step(oNode, nullptr, TreeNodeHasChildren(oNode, bRespectOpen) == TRUE, &lDepth);
                break;
            case TreeWalkPrune:
                oNode = Step(oNode, nullptr, false, &lDepth);
                break;
            case TreeWalkPruneBranch:
                oNode = Step(oNode, nullptr, false, &lDepth);
                Prune(oVisited);
                break;
            default:
                return FALSE;
        }
    }
    return TRUE;
}

// Searches up to the end of the branch of oTop; null stands for the whole tree.
BooleanT Search(TreeNodeO* poMatchedNode, TreeNodeO oStart, TreeNodeO oTop,
                TreeSearchFnT pfnCallback, void* pCookie, BooleanT bRespectOpenAttribute) {
    TreeNodeO oNode = oStart;
    while (oNode != nullptr && pfnCallback(pCookie, oNode->oData) != TRUE) {
        oNode = Step(oNode, oTop, TreeNodeHasChildren(oNode, bRespectOpenAttribute) == TRUE);
    }
    if (oNode == nullptr) return FALSE;
    if (poMatchedNode != nullptr) *poMatchedNode = oNode;
    return TRUE;
}

BooleanT Find(TreeNodeO* poTreeNode, TreeNodeO oStart, TreeNodeO oTop, void* oObject) {
    if (!IsObject(oObject)) return FALSE;
    const auto fnSame = [](void* pCookie, void* oItem) { return BooleanFrom(pCookie == oItem); };
    return Search(poTreeNode, oStart, oTop, fnSame, oObject, FALSE);
}

TreeNodeO DeepestFirst(TreeNodeO oNode) {
    while (oNode->oChild != nullptr) oNode = oNode->oChild;
    return oNode;
}

}  // namespace

BooleanT TreeInitialize() {
    return BooleanFrom(ObjTemplateCreateInternal(&gtObjTemplateTree, sizeof(TreeS), TreeMagic,
                                                 "o;o;l;", nullptr) == TRUE &&
                       ObjTemplateCreateInternal(&gtObjTemplateTreeNode, sizeof(TreeNodeS),
                                                 TreeNodeMagic, "o;l;l;o;l;o;b;l;",
                                                 nullptr) == TRUE);
}

BooleanT TreeInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void TreeReleaseThread(TesselContextT* /*ptTlContext*/) {}

void TreeCleanup() {}

BooleanT TreeCreateFromPool(TreeO* poNewTree, MemPoolIdT tPool) {
    if (poNewTree == nullptr) {
        TraceMessageInline(1, 0, -1, "NULL pointer passed to TreeCreate");
        return FALSE;
    }
    *poNewTree = static_cast<TreeO>(ObjTemplateNewInstanceFromPool(gtObjTemplateTree, tPool));
    return BooleanFrom(*poNewTree != nullptr);
}

TreeO TreeNewFromPool(MemPoolIdT tPoolId) {
    TreeO oTree = nullptr;
    TreeCreateFromPool(&oTree, tPoolId);
    return oTree;
}

TreeNodeO TreeAddRootItem(void* oNewObject, TreeO oExistingTree) {
    if (!IsTree(oExistingTree) || !IsObject(oNewObject)) return nullptr;
    TreeNodeO oNode = InsertRoot(oExistingTree, oNewObject);
    if (oNode != nullptr) ObjIncRefCount(oNewObject);
    return oNode;
}

TreeNodeO TreePushRootItem(void** poNewObject, TreeO oExistingTree) {
    if (poNewObject == nullptr || !IsTree(oExistingTree) || !IsObject(*poNewObject)) return nullptr;
    TreeNodeO oNode = InsertRoot(oExistingTree, *poNewObject);
    if (oNode != nullptr) *poNewObject = nullptr;
    return oNode;
}

TreeNodeO TreeAddItem(void* oNewObject, TreeNodeO oOldNode, TreePositionE tRelativePosition) {
    if (!IsNode(oOldNode) || !IsObject(oNewObject)) return nullptr;
    TreeNodeO oNode = InsertAt(oOldNode, tRelativePosition, oNewObject);
    if (oNode != nullptr) ObjIncRefCount(oNewObject);
    return oNode;
}

TreeNodeO TreePushItem(void** poNewObject, TreeNodeO oOldNode, TreePositionE tRelativePosition) {
    if (poNewObject == nullptr || !IsNode(oOldNode) || !IsObject(*poNewObject)) return nullptr;
    TreeNodeO oNode = InsertAt(oOldNode, tRelativePosition, *poNewObject);
    if (oNode != nullptr) *poNewObject = nullptr;
    return oNode;
}

BooleanT TreeMoveBranch(TreeNodeO oSource, TreeNodeO oDestination,
                        TreePositionE tRelativePosition) {
    if (!IsNode(oSource) || !IsNode(oDestination) || !IsAttached(oSource)) return FALSE;
    for (TreeNodeO oNode = oDestination; oNode != nullptr; oNode = oNode->oParent) {
        if (oNode == oSource) return FALSE;
    }
    PlaceT tPlace;
    if (!FindPlace(&tPlace, oDestination, tRelativePosition)) return FALSE;
    if (tPlace.oPrevious != oSource && tPlace.oNext != oSource) Relocate(oSource, tPlace);
    return TRUE;
}

BooleanT TreeMove(TreeNodeO oParentToBe, TreeO* poTreeToMove) {
    if (!IsNode(oParentToBe) || poTreeToMove == nullptr || !IsTree(*poTreeToMove) ||
        oParentToBe->oTree == *poTreeToMove) {
        return FALSE;
    }
    RelocateAll(&(*poTreeToMove)->oFirstNode,
                {oParentToBe->oTree, oParentToBe, oParentToBe->oLastChild, nullptr});
    return ObjRelease(poTreeToMove);
}

BooleanT TreePruneBranch(TreeNodeO oTarget) {
    return BooleanFrom(IsNode(oTarget) && Prune(oTarget));
}

BooleanT TreePruneAllChildren(TreeNodeO oTarget) {
    if (!IsNode(oTarget)) return FALSE;
    PruneChildren(oTarget);
    return TRUE;
}

BooleanT TreeDeleteContents(TreeO oTree) {
    if (!IsTree(oTree)) return FALSE;
    while (oTree->oFirstNode != nullptr) Prune(oTree->oFirstNode);
    return TRUE;
}

BooleanT TreeUpdateNode(TreeNodeO oNodeToUpdate, TreeNodeO oSource) {
    if (!IsNode(oNodeToUpdate) || !IsNode(oSource)) return FALSE;
    oNodeToUpdate->bOpen = oSource->bOpen;
    ObjReplaceHeld(&oNodeToUpdate->oData, oSource->oData);
    return TRUE;
}

BooleanT TreeReplaceObject(TreeNodeO oNodeToUpdate, void* oNewObject) {
    if (!IsNode(oNodeToUpdate) || !IsObject(oNewObject)) return FALSE;
    ObjReplaceHeld(&oNodeToUpdate->oData, oNewObject);
    return TRUE;
}

BooleanT TreeReplaceBranch(TreeNodeO oOldBranch, TreeNodeO oSource) {
    if (!IsNode(oOldBranch)) return FALSE;
    if (!IsNode(oSource)) {
        Prune(oOldBranch);
        return FALSE;
    }
    if (oOldBranch == oSource) return TRUE;
    TreeO oTree = oOldBranch->oTree;
    ObjHolder<TreeNodeS> oGathered(NewGatheringNode(ObjGetPool(oOldBranch), oTree));
    if (oGathered.Get() == nullptr || !CopyDescendants(oGathered.Get(), oSource)) return FALSE;
    TreeUpdateNode(oOldBranch, oSource);
    PruneChildren(oOldBranch);
    RelocateAll(&oGathered.Get()->oChild, {oTree, oOldBranch, nullptr, nullptr});
    return TRUE;
}

BooleanT TreeReplaceBranchWithTree(TreeNodeO oOldBranch, TreeO oNewBranch) {
    return TreeReplaceBranch(oOldBranch, TreeFirstNode(oNewBranch));
}

BooleanT TreeReplaceTreeWithTree(TreeO oOldTree, TreeO oReplacementTree) {
    if (!IsTree(oOldTree)) return FALSE;
    if (oReplacementTree != nullptr && !IsTree(oReplacementTree)) return FALSE;
    if (oOldTree == oReplacementTree) return TRUE;
    ObjHolder<TreeNodeS> oGathered(NewGatheringNode(ObjGetPool(oOldTree), oOldTree));
    if (oGathered.Get() == nullptr ||
        !CopyBranches(oGathered.Get(), TreeFirstNode(oReplacementTree), true)) {
        return FALSE;
    }
    TreeDeleteContents(oOldTree);
    RelocateAll(&oGathered.Get()->oChild, {oOldTree, nullptr, nullptr, nullptr});
    return TRUE;
}

BooleanT TreeAddBranchToRoot(TreeO oTree, TreeNodeO oSubTree) {
    if (!IsTree(oTree) || !IsNode(oSubTree)) {
        TraceMessageInline(78, 0, -1, "TreeAddBranchToRoot(%p,%p) - bad args", oTree, oSubTree);
        return FALSE;
    }
    return AddBranchesToRoot(oTree, oSubTree, true);
}

BooleanT TreeAddOnlyBranchToRoot(TreeO oTree, TreeNodeO oSubTree) {
    if (!IsTree(oTree) || !IsNode(oSubTree)) {
        TraceMessageInline(79, 0, -1, "TreeAddOnlyBranchToRoot(%p,%p) - bad args", oTree, oSubTree);
        return FALSE;
    }
    return AddBranchesToRoot(oTree, oSubTree, false);
}

BooleanT TreeFromSubTree(TreeO* poNewTree, TreeNodeO oSubTree) {
    if (poNewTree == nullptr) return FALSE;
    if (TreeCreateFromPool(poNewTree, MemPool()) == TRUE && IsNode(oSubTree)) {
        TreeAddBranchToRoot(*poNewTree, oSubTree);
    }
    return TRUE;
}

BooleanT TreeNodeOpen(TreeNodeO oNode) {
    if (!IsNode(oNode)) return FALSE;
    oNode->bOpen = TRUE;
    return TRUE;
}

BooleanT TreeNodeClose(TreeNodeO oNode) {
    if (!IsNode(oNode)) return FALSE;
    oNode->bOpen = FALSE;
    return TRUE;
}

BooleanT TreeNodeToggleOpen(TreeNodeO oNode) {
    if (!IsNode(oNode)) return FALSE;
    oNode->bOpen = BooleanFrom(oNode->bOpen == FALSE);
    return TRUE;
}

BooleanT TreeNodeHasChildren(TreeNodeO oTestNode, BooleanT bRespectOpenAttribute) {
    if (!IsNode(oTestNode)) return FALSE;
    const bool bVisible = bRespectOpenAttribute == FALSE || oTestNode->bOpen != FALSE;
    return BooleanFrom(oTestNode->oChild != nullptr && bVisible);
}

BooleanT TreeNodeHasParent(TreeNodeO oNode) {
    return BooleanFrom(IsNode(oNode) && oNode->oParent != nullptr);
}

TreeNodeO TreeRelativeNode(TreeNodeO oStartNode, TreePositionE tRelativePosition) {
    if (!IsNode(oStartNode)) return nullptr;
    switch (tRelativePosition) {
        case TREE_FIRST_CHILD:
            return oStartNode->oChild;
        case TREE_LAST_CHILD:
            return oStartNode->oLastChild;
        case TREE_SIBLING_BEFORE:
            return oStartNode->oPrevious;
        case TREE_SIBLING_AFTER:
            return oStartNode->oNext;
        case TREE_SIBLING_LAST:
            if (!IsAttached(oStartNode)) return oStartNode;
            return LastOf(oStartNode->oTree, oStartNode->oParent);
        case TREE_SIBLING_FIRST:
            if (!IsAttached(oStartNode)) return oStartNode;
            return FirstOf(oStartNode->oTree, oStartNode->oParent);
        case TREE_PARENT:
            return oStartNode->oParent;
        default:
            return nullptr;
    }
}

BooleanT TreeNextSibling(TreeNodeO* poResult, TreeNodeO oCurrentPosition) {
    return Deliver(poResult, TreeRelativeNode(oCurrentPosition, TREE_SIBLING_AFTER));
}

BooleanT TreePrevSibling(TreeNodeO* poResult, TreeNodeO oCurrentPosition) {
    return Deliver(poResult, TreeRelativeNode(oCurrentPosition, TREE_SIBLING_BEFORE));
}

TreeNodeO TreeFirstNode(TreeO oTree) { return IsTree(oTree) ? oTree->oFirstNode : nullptr; }

TreeO TreeFromNode(TreeNodeO oNode) { return IsNode(oNode) ? oNode->oTree : nullptr; }

void* TreeFirstObject(TreeO oTree) {
    TreeNodeO oNode = TreeFirstNode(oTree);
    return oNode == nullptr ? nullptr : oNode->oData;
}

int32 TreeNodeChildCount(TreeNodeO oNode) {
    if (!IsNode(oNode)) return -1;
    int32 lCount = 0;
    for (TreeNodeO oChild = oNode->oChild; oChild != nullptr; oChild = oChild->oNext) ++lCount;
    return lCount;
}

int32 TreeDepthOfNode(TreeNodeO oNode) {
    if (!IsNode(oNode)) return 0;
    int32 lDepth = 1;
    while ((oNode = oNode->oParent) != nullptr) ++lDepth;
    return lDepth;
}

BooleanT TreeNodeNthChild(TreeNodeO* poResult, TreeNodeO oParent, int32 lNthChild) {
    TreeNodeO oChild = IsNode(oParent) && lNthChild >= 1 ? oParent->oChild : nullptr;
    for (; oChild != nullptr && lNthChild > 1; --lNthChild) oChild = oChild->oNext;
    return Deliver(poResult, oChild);
}

BooleanT TreeNextNode(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                      BooleanT bRespectOpenAttribute) {
    int32 lDepth = 0;
    return TreeNextNodeWithDepth(poResult, oCurrentPosition, bRespectOpenAttribute, &lDepth);
}

BooleanT TreeNextNodeWithDepth(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                               BooleanT bRespectOpenAttribute, int32* plDepth) {
    if (!IsNode(oCurrentPosition) || plDepth == nullptr) return Deliver(poResult, nullptr);
    const bool bDescend = TreeNodeHasChildren(oCurrentPosition, bRespectOpenAttribute) == TRUE;
    return Deliver(poResult, Step(oCurrentPosition, nullptr, bDescend, plDepth));
}

BooleanT TreeNextNodeAndBin(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                            BooleanT bRespectOpenAttribute) {
    if (!IsNode(oCurrentPosition) || poResult == nullptr) return Deliver(poResult, nullptr);
    if (TreeNodeHasChildren(oCurrentPosition, bRespectOpenAttribute) == TRUE) {
        return Deliver(poResult, oCurrentPosition->oChild);
    }
    TreeNodeO oHighestLeft = oCurrentPosition;
    while (oHighestLeft->oNext == nullptr && oHighestLeft->oParent != nullptr) {
        oHighestLeft = oHighestLeft->oParent;
    }
    TreeNodeO oFollowing = oHighestLeft->oNext;
    Prune(oHighestLeft);
    return Deliver(poResult, oFollowing);
}

BooleanT TreePrevNode(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                      BooleanT bRespectOpenAttribute) {
    TreeNodeO oNode = TreeRelativeNode(oCurrentPosition, TREE_SIBLING_BEFORE);
    while (TreeNodeHasChildren(oNode, bRespectOpenAttribute) == TRUE) oNode = oNode->oLastChild;
    return Deliver(poResult, oNode);
}

BooleanT TreeWalk(TreeO oTree, TreeCallbackFnT pfnCallback, void* pCookie,
                  BooleanT bRespectOpenAttribute) {
    const BooleanT bResult = IsTree(oTree) ? TreeWalkFromNode(oTree->oFirstNode, pfnCallback,
                                                              pCookie, bRespectOpenAttribute)
                                           : FALSE;
    TraceMessageInline(6, 0, 4, "%s = TreeWalk(%p, %p, %p, %s)", BooleanText(bResult), oTree,
                       reinterpret_cast<const void*>(pfnCallback), pCookie,
                       BooleanText(bRespectOpenAttribute));
    return bResult;
}

BooleanT TreeWalkFromNode(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback, void* pCookie,
                          BooleanT bRespectOpenAttribute) {
    if (pfnCallback == nullptr) return FALSE;
    if (oStartPosition != nullptr && !IsNode(oStartPosition)) return FALSE;
    return Walk(oStartPosition, bRespectOpenAttribute != FALSE, 0,
                [&](TreeNodeO oNode, int32 /*lDepth*/) { return pfnCallback(pCookie, oNode); });
}

BooleanT TreeWalkWithDepth(TreeO oTree, TreeCallbackWithDepthFnT pfnCallback, void* pCookie,
                           BooleanT bRespectOpenAttribute) {
    const BooleanT bResult = IsTree(oTree)
                                 ? TreeWalkFromNodeWithDepth(oTree->oFirstNode, pfnCallback,
                                                             pCookie, bRespectOpenAttribute, 0)
                                 : FALSE;
    TraceMessageInline(10, 0, 4, "%s = TreeWalkWithDepth(%p, %p, %p, %s)", BooleanText(bResult),
                       oTree, reinterpret_cast<const void*>(pfnCallback), pCookie,
                       BooleanText(bRespectOpenAttribute));
    return bResult;
}

BooleanT TreeWalkFromNodeWithDepth(TreeNodeO oStartPosition, TreeCallbackWithDepthFnT pfnCallback,
                                   void* pCookie, BooleanT bRespectOpenAttribute, int32 lDepth) {
    if (pfnCallback == nullptr) return FALSE;
    if (oStartPosition != nullptr && !IsNode(oStartPosition)) return FALSE;
    return Walk(
        oStartPosition, bRespectOpenAttribute != FALSE, lDepth,
        [&](TreeNodeO oNode, int32 lNodeDepth) { return pfnCallback(pCookie, oNode, lNodeDepth); });
}

BooleanT TreeWalkBranch(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback, void* pCookie,
                        BooleanT bRespectOpenAttribute) {
    if (!IsNode(oStartPosition) || pfnCallback == nullptr) return FALSE;
    TreeNodeO oNode = oStartPosition;
    while (true) {
        // Taken now: after the callback a node that is not descended into may be gone.
        const bool bStart = oNode == oStartPosition;
        TreeNodeO oParent = oNode->oParent;
        TreeNodeO oFollowing = oNode->oNext;
        switch (pfnCallback(pCookie, oNode)) {
            case TreeWalkContinue:
                if (TreeNodeHasChildren(oNode, bRespectOpenAttribute) == TRUE) {
                    oNode = oNode->oChild;
                    continue;
                }
                break;
            case TreeWalkPrune:
                TraceMessageInline(8, 0, 4, "Been told to prune");
                break;
            case TreeWalkPruneBranch:
                TraceMessageInline(9, 0, 4, "Been told to prune branch");
                Prune(oNode);
                break;
            default:
                TraceMessageInline(7, 0, 4, "Been told to abort");
                // Each level above hears that the branch below it failed.
                for (bool bTop = bStart; !bTop; oParent = oParent->oParent) {
                    TraceMessageInline(2, 1, 3, "Failed to walk child branch");
                    bTop = oParent == oStartPosition;
                }
                return FALSE;
        }
        if (bStart) return TRUE;
        while (oFollowing == nullptr) {
            if (oParent == oStartPosition) return TRUE;
            oFollowing = oParent->oNext;
            oParent = oParent->oParent;
        }
        oNode = oFollowing;
    }
}

BooleanT TreeWalkPostOrder(TreeO oTree, TreeCallbackFnT pfnCallback, void* pCookie) {
    if (!IsTree(oTree) || pfnCallback == nullptr) return FALSE;
    BooleanT bResult = TRUE;
    TreeNodeO oNode = oTree->oFirstNode;
    while (oNode != nullptr && bResult == TRUE) {
        TreeNodeO oFollowing = oNode->oNext;
        bResult = TreeWalkBranchPostOrder(oNode, pfnCallback, pCookie);
        oNode = oFollowing;
    }
    return bResult;
}

BooleanT TreeWalkBranchPostOrder(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback,
                                 void* pCookie) {
    if (!IsNode(oStartPosition) || pfnCallback == nullptr) return FALSE;
    TreeNodeO oNode = DeepestFirst(oStartPosition);
    while (true) {
        const bool bStart = oNode == oStartPosition;
        TreeNodeO oParent = oNode->oParent;
        TreeNodeO oFollowing = oNode->oNext;
        const TreeCallbackResultE eResult = pfnCallback(pCookie, oNode);
        if (eResult == TreeWalkAbort) return FALSE;
        if (eResult == TreeWalkPruneBranch) Prune(oNode);
        if (bStart) return TRUE;
        oNode = oFollowing == nullptr ? oParent : DeepestFirst(oFollowing);
    }
}

BooleanT TreeWalkUpFromNode(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback, void* pCookie) {
    if (!IsNode(oStartPosition) || pfnCallback == nullptr) return FALSE;
    for (TreeNodeO oNode = oStartPosition; oNode != nullptr;) {
        TreeNodeO oParent = oNode->oParent;
        if (pfnCallback(pCookie, oNode) != TreeWalkContinue) return FALSE;
        oNode = oParent;
    }
    return TRUE;
}

BooleanT TreeSearch(TreeNodeO* poMatchedNode, TreeO oTree, TreeSearchFnT pfnCallback, void* pCookie,
                    BooleanT bRespectOpenAttribute) {
    return TreeSearchFromNode(poMatchedNode, TreeFirstNode(oTree), pfnCallback, pCookie,
                              bRespectOpenAttribute);
}

BooleanT TreeSearchFromNode(TreeNodeO* poMatchedNode, TreeNodeO oStartPosition,
                            TreeSearchFnT pfnCallback, void* pCookie,
                            BooleanT bRespectOpenAttribute) {
    if (!IsNode(oStartPosition) || pfnCallback == nullptr) return FALSE;
    return Search(poMatchedNode, oStartPosition, nullptr, pfnCallback, pCookie,
                  bRespectOpenAttribute);
}

BooleanT TreeSearchBranch(TreeNodeO* poMatchedNode, TreeNodeO oStartPosition,
                          TreeSearchFnT pfnCallback, void* pCookie,
                          BooleanT bRespectOpenAttribute) {
    TraceMessageInline(3, 0, 4, "TreeSearchBranch(%p, %p, %p, %p, %s", poMatchedNode,
                       oStartPosition, reinterpret_cast<const void*>(pfnCallback), pCookie,
                       BooleanText(bRespectOpenAttribute));
    if (!IsNode(oStartPosition) || pfnCallback == nullptr) return FALSE;
    return Search(poMatchedNode, oStartPosition, oStartPosition, pfnCallback, pCookie,
                  bRespectOpenAttribute);
}

BooleanT TreeFindNode(TreeNodeO* poTreeNode, TreeO oTree, void* oObject) {
    return Find(poTreeNode, TreeFirstNode(oTree), nullptr, oObject);
}

BooleanT TreeFindNodeFromNode(TreeNodeO* poTreeNode, TreeNodeO oStartPosition, void* oObject) {
    if (!IsNode(oStartPosition)) return FALSE;
    return Find(poTreeNode, oStartPosition, nullptr, oObject);
}

BooleanT TreeFindNodeInBranch(TreeNodeO* poTreeNode, TreeNodeO oStartPosition, void* oObject) {
    if (!IsNode(oStartPosition)) return FALSE;
    return Find(poTreeNode, oStartPosition, oStartPosition, oObject);
}

BooleanT TreeSetCookie(TreeO oTree, void* oCookie) {
    if (!IsTree(oTree) || (oCookie != nullptr && !IsObject(oCookie))) return FALSE;
    ObjReplaceHeld(&oTree->oCookie, oCookie);
    return TRUE;
}
