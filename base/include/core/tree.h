// Trees: ordered forests of nodes, each holding one object, with an "open" flag per node that every
// traversal can be told to respect (a closed node hides its children). Header and nodes are
// objects, so that a tree is held, copied, serialised and released like any other object.
//
// "Add" operations take a new holder on the item; "Push" operations take over the caller's
// reference and clear the caller's variable. Nodes and items that are handed out stay the tree's:
// the caller gets no holder. A wrong node, tree or object gives FALSE, null or -1 with everything
// unchanged. No operation needs more stack for a deeper or longer tree.
#pragma once

#include "core/object.h"
#include "core/types.h"

constexpr int32 TreeMagic = ObjMagic(0xc8a2f9a1);
constexpr int32 TreeNodeMagic = ObjMagic(0xc8a2f9b6);

// Descriptor "o;o;l;".
struct TreeS {
    TreeNodeO oFirstNode;  // first top-level node, held
    void* oCookie;         // any object attached by the tree's owner, held
    TreeNodeO oLastNode;   // last top-level node, not held
};

// Descriptor "o;l;l;o;l;o;b;l;". A node is held by its tree, its parent or its previous sibling.
struct TreeNodeS {
    void* oData;           // the item, held
    TreeO oTree;           // not held
    TreeNodeO oParent;     // null at the top level, not held
    TreeNodeO oNext;       // held
    TreeNodeO oPrevious;   // not held
    TreeNodeO oChild;      // first child, held
    BooleanT bOpen;        // FALSE in a new node
    TreeNodeO oLastChild;  // not held
};

extern ObjTemplateT gtObjTemplateTree;
extern ObjTemplateT gtObjTemplateTreeNode;

// A place relative to a node. TREE_PARENT names a neighbour only: nothing is inserted there.
enum TreePositionE : int32 {
    TREE_FIRST_CHILD = 0,
    TREE_LAST_CHILD = 1,
    TREE_SIBLING_BEFORE = 2,
    TREE_SIBLING_AFTER = 3,
    TREE_SIBLING_LAST = 4,
    TREE_SIBLING_FIRST = 5,
    TREE_PARENT = 6,
};

enum TreeCallbackResultE : int32 {
    TreeWalkAbort = 0,        // stop; the walk fails
    TreeWalkContinue = 1,     // go on with the node's children
    TreeWalkPrune = 2,        // go on without the node's children
    TreeWalkPruneBranch = 3,  // go on without the children and remove the node with its branch
};

using TreeCallbackFnT = TreeCallbackResultE (*)(void* pCookie, TreeNodeO oNode);
using TreeCallbackWithDepthFnT = TreeCallbackResultE (*)(void* pCookie, TreeNodeO oNode,
                                                         int32 lDepth);
using TreeSearchFnT = BooleanT (*)(void* pCookie, void* oItem);  // TRUE matches

BooleanT TreeInitialize();
BooleanT TreeInitializeThread(TesselContextT* ptTlContext);
void TreeReleaseThread(TesselContextT* ptTlContext);
void TreeCleanup();

// --- creation ---

BooleanT TreeCreateFromPool(TreeO* poNewTree, MemPoolIdT tPool);
TreeO TreeNewFromPool(MemPoolIdT tPoolId);  // null on failure

// --- insertion: the new node, null on failure (a pushed variable then stays) ---

// In front of the other top-level nodes.
TreeNodeO TreeAddRootItem(void* oNewObject, TreeO oExistingTree);
TreeNodeO TreePushRootItem(void** poNewObject, TreeO oExistingTree);
TreeNodeO TreeAddItem(void* oNewObject, TreeNodeO oOldNode, TreePositionE tRelativePosition);
TreeNodeO TreePushItem(void** poNewObject, TreeNodeO oOldNode, TreePositionE tRelativePosition);

// --- moves: nodes keep their identity ---

// FALSE for a destination that is the source or inside its branch. A branch that is already in its
// place stays there.
BooleanT TreeMoveBranch(TreeNodeO oSource, TreeNodeO oDestination, TreePositionE tRelativePosition);
// Makes all top-level nodes the last children of a node of another tree, then releases the caller's
// tree.
BooleanT TreeMove(TreeNodeO oParentToBe, TreeO* poTreeToMove);

// --- removal ---

BooleanT TreePruneBranch(TreeNodeO oTarget);  // the node and all below it
BooleanT TreePruneAllChildren(TreeNodeO oTarget);
BooleanT TreeDeleteContents(TreeO oTree);

// --- replacement and copies: items are shared, nodes are new; a source may overlap its target ---

BooleanT TreeUpdateNode(TreeNodeO oNodeToUpdate, TreeNodeO oSource);  // item and open flag
BooleanT TreeReplaceObject(TreeNodeO oNodeToUpdate, void* oNewObject);
// Item, open flag and descendants. Without a source the old branch is removed and the result FALSE.
BooleanT TreeReplaceBranch(TreeNodeO oOldBranch, TreeNodeO oSource);
// The source is the first top-level node of oNewBranch.
BooleanT TreeReplaceBranchWithTree(TreeNodeO oOldBranch, TreeO oNewBranch);
// oReplacementTree may be null: nothing.
BooleanT TreeReplaceTreeWithTree(TreeO oOldTree, TreeO oReplacementTree);

// Copies the node's branch and those of its following siblings behind the first top-level node.
BooleanT TreeAddBranchToRoot(TreeO oTree, TreeNodeO oSubTree);
BooleanT TreeAddOnlyBranchToRoot(TreeO oTree, TreeNodeO oSubTree);  // without the siblings
// A new tree of such copies, empty without a node. TRUE whenever poNewTree is given.
BooleanT TreeFromSubTree(TreeO* poNewTree, TreeNodeO oSubTree);

// --- open flag, shape, navigation ---

BooleanT TreeNodeOpen(TreeNodeO oNode);
BooleanT TreeNodeClose(TreeNodeO oNode);
BooleanT TreeNodeToggleOpen(TreeNodeO oNode);
BooleanT TreeNodeHasChildren(TreeNodeO oTestNode, BooleanT bRespectOpenAttribute);
BooleanT TreeNodeHasParent(TreeNodeO oNode);

// The neighbour; null when there is none. With TREE_SIBLING_FIRST and TREE_SIBLING_LAST that can be
// the node itself.
TreeNodeO TreeRelativeNode(TreeNodeO oStartNode, TreePositionE tRelativePosition);
BooleanT TreeNextSibling(TreeNodeO* poResult, TreeNodeO oCurrentPosition);
BooleanT TreePrevSibling(TreeNodeO* poResult, TreeNodeO oCurrentPosition);
TreeNodeO TreeFirstNode(TreeO oTree);
TreeO TreeFromNode(TreeNodeO oNode);
void* TreeFirstObject(TreeO oTree);
int32 TreeNodeChildCount(TreeNodeO oNode);  // -1 for a non-node
int32 TreeDepthOfNode(TreeNodeO oNode);     // 1 at the top level, 0 for a non-node
BooleanT TreeNodeNthChild(TreeNodeO* poResult, TreeNodeO oParent, int32 lNthChild);  // from 1

// --- stepping: *poResult is null, and the result FALSE, at the end ---

// Pre-order.
BooleanT TreeNextNode(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                      BooleanT bRespectOpenAttribute);
// *plDepth is the depth of the current node and becomes that of the next.
BooleanT TreeNextNodeWithDepth(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                               BooleanT bRespectOpenAttribute, int32* plDepth);
// Removes the node unless it descends from it, and every ancestor that it climbs out of.
BooleanT TreeNextNodeAndBin(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                            BooleanT bRespectOpenAttribute);
// The last visible node of the previous sibling's branch; a first child has none.
BooleanT TreePrevNode(TreeNodeO* poResult, TreeNodeO oCurrentPosition,
                      BooleanT bRespectOpenAttribute);

// --- walks: FALSE for an abort or missing arguments ---

// A callback removes the node that it is given by its result, not by itself; it may change what is
// below that node.

// Pre-order over a whole tree, or from a node to the end of its tree (a null node is no failure).
BooleanT TreeWalk(TreeO oTree, TreeCallbackFnT pfnCallback, void* pCookie,
                  BooleanT bRespectOpenAttribute);
BooleanT TreeWalkFromNode(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback, void* pCookie,
                          BooleanT bRespectOpenAttribute);
// The top level has depth 0, the start node lDepth.
BooleanT TreeWalkWithDepth(TreeO oTree, TreeCallbackWithDepthFnT pfnCallback, void* pCookie,
                           BooleanT bRespectOpenAttribute);
BooleanT TreeWalkFromNodeWithDepth(TreeNodeO oStartPosition, TreeCallbackWithDepthFnT pfnCallback,
                                   void* pCookie, BooleanT bRespectOpenAttribute, int32 lDepth);
// Pre-order over the node and what is below it.
BooleanT TreeWalkBranch(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback, void* pCookie,
                        BooleanT bRespectOpenAttribute);
// Children before their parent; TreeWalkPrune is no different from TreeWalkContinue.
BooleanT TreeWalkPostOrder(TreeO oTree, TreeCallbackFnT pfnCallback, void* pCookie);
BooleanT TreeWalkBranchPostOrder(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback,
                                 void* pCookie);
// The node and its ancestors; any result but TreeWalkContinue stops the walk with FALSE.
BooleanT TreeWalkUpFromNode(TreeNodeO oStartPosition, TreeCallbackFnT pfnCallback, void* pCookie);

// --- searches in pre-order: poMatchedNode is stored when found and may be null ---

BooleanT TreeSearch(TreeNodeO* poMatchedNode, TreeO oTree, TreeSearchFnT pfnCallback, void* pCookie,
                    BooleanT bRespectOpenAttribute);
BooleanT TreeSearchFromNode(TreeNodeO* poMatchedNode, TreeNodeO oStartPosition,
                            TreeSearchFnT pfnCallback, void* pCookie,
                            BooleanT bRespectOpenAttribute);
BooleanT TreeSearchBranch(TreeNodeO* poMatchedNode, TreeNodeO oStartPosition,
                          TreeSearchFnT pfnCallback, void* pCookie, BooleanT bRespectOpenAttribute);
// The node of an item, by identity; closed nodes are searched too.
BooleanT TreeFindNode(TreeNodeO* poTreeNode, TreeO oTree, void* oObject);
BooleanT TreeFindNodeFromNode(TreeNodeO* poTreeNode, TreeNodeO oStartPosition, void* oObject);
BooleanT TreeFindNodeInBranch(TreeNodeO* poTreeNode, TreeNodeO oStartPosition, void* oObject);

BooleanT TreeSetCookie(TreeO oTree, void* oCookie);  // null takes the cookie away

// --- public forms ---

inline BooleanT TreeCreate(TreeO* poNewTree) {
    return TreeCreateFromPool(poNewTree, MemGetDefaultPoolId());
}

inline TreeO TreeNew() { return TreeNewFromPool(MemGetDefaultPoolId()); }

// A typed variable pushed into a tree.
template <class T>
TreeNodeO TreePushRootItem(T** poNewObject, TreeO oExistingTree) {
    if (poNewObject == nullptr) return nullptr;
    void* oObject = *poNewObject;
    TreeNodeO oNode = TreePushRootItem(&oObject, oExistingTree);
    *poNewObject = static_cast<T*>(oObject);
    return oNode;
}

template <class T>
TreeNodeO TreePushItem(T** poNewObject, TreeNodeO oOldNode, TreePositionE tRelativePosition) {
    if (poNewObject == nullptr) return nullptr;
    void* oObject = *poNewObject;
    TreeNodeO oNode = TreePushItem(&oObject, oOldNode, tRelativePosition);
    *poNewObject = static_cast<T*>(oObject);
    return oNode;
}
