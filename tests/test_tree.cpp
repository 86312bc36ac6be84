#include <list>
#include <map>

#include "core/tree.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

using Nodes = std::vector<TreeNodeO>;
using TreeTest = ObjectTest;

// --- a model: lists inside each other ---

struct Branch {
    bool Shows(bool respect) const { return !below.empty() && (open || !respect); }
    void* item;
    bool open = false;
    TreeNodeO node = nullptr;  // null in a copy until it is first compared
    std::list<Branch> below = {};
};
using Branches = std::list<Branch>;

struct Place {
    Branches* siblings = nullptr;  // null for nowhere
    Branches::iterator at = {};
    int32 depth = 0;
};
using Places = std::vector<Place>;

// Every node in pre-order.
void Gather(Places& places, Branches& siblings, int32 depth) {
    for (auto at = siblings.begin(); at != siblings.end(); ++at) {
        places.push_back({&siblings, at, depth});
        Gather(places, at->below, depth + 1);
    }
}
Places PlacesOf(Branches& model) {
    Places places;
    Gather(places, model, 0);
    return places;
}

// The end of the branch that begins at a node.
std::size_t End(const Places& places, std::size_t at) {
    const int32 depth = places[at].depth;
    do {
        ++at;
    } while (at < places.size() && places[at].depth > depth);
    return at;
}

Branches Copies(Branches siblings) {
    for (Branch& branch : siblings) branch = {branch.item, branch.open, {}, Copies(branch.below)};
    return siblings;
}

bool Holds(const Branch& branch, TreeNodeO oNode) {
    const auto below = [&](const Branch& part) { return Holds(part, oNode); };
    return branch.node == oNode || std::ranges::any_of(branch.below, below);
}

Place Find(const Place& node, TreePositionE tPosition) {
    Branches &siblings = *node.siblings, &below = node.at->below;
    const Place places[] = {{&below, below.begin()},     {&below, below.end()},
                            {&siblings, node.at},        {&siblings, std::next(node.at)},
                            {&siblings, siblings.end()}, {&siblings, siblings.begin()}};
    return tPosition < TREE_PARENT ? places[tPosition] : Place{};
}

// Compares siblings and what is below them, and all links.
void ExpectSiblings(TreeO oTree, TreeNodeO oParent, TreeNodeO oFirst, TreeNodeO oLast,
                    Branches& siblings) {
    TreeNodeO oPrevious = nullptr, oNode = oFirst;
    for (Branch& branch : siblings) {
        ASSERT_NE(oNode, nullptr);
        if (branch.node == nullptr) branch.node = oNode;
        ASSERT_EQ(std::tuple(oNode, oNode->oData, oNode->bOpen, Holders(oNode)),
                  std::tuple(branch.node, branch.item, BooleanFrom(branch.open), 1));
        ASSERT_EQ(std::tuple(oNode->oTree, TreeFromNode(oNode), oNode->oParent, oNode->oPrevious),
                  std::tuple(oTree, oTree, oParent, oPrevious));
        ASSERT_NO_FATAL_FAILURE(
            ExpectSiblings(oTree, oNode, oNode->oChild, oNode->oLastChild, branch.below));
        oPrevious = oNode;
        oNode = oNode->oNext;
    }
    ASSERT_EQ(std::pair(oNode, oLast), std::pair(TreeNodeO{}, oPrevious));
}

void ExpectTree(TreeO oTree, Branches& model) {
    ExpectSiblings(oTree, nullptr, oTree->oFirstNode, oTree->oLastNode, model);
}

// What a walk saw, and what it was told for certain items (TreeWalkContinue for all others).
struct WalkLog {
    TreeCallbackResultE Answer(void* item) const {
        const auto answer = answers.find(item);
        return answer == answers.end() ? TreeWalkContinue : answer->second;
    }
    Nodes nodes;
    std::vector<int32> depths;
    std::map<void*, TreeCallbackResultE> answers;
};

TreeCallbackResultE Record(void* pCookie, TreeNodeO oNode) {
    auto* log = static_cast<WalkLog*>(pCookie);
    log->nodes.push_back(oNode);
    return log->Answer(oNode->oData);
}

TreeCallbackResultE RecordDepth(void* pCookie, TreeNodeO oNode, int32 lDepth) {
    static_cast<WalkLog*>(pCookie)->depths.push_back(lDepth);
    return Record(pCookie, oNode);
}

BooleanT IsCookie(void* pCookie, void* oItem) { return BooleanFrom(pCookie == oItem); }

// --- random operations on two trees ---

class Trees {
 public:
    explicit Trees(unsigned seed) : m_random(seed) {}
    ~Trees() {
        for (TreeO& oTree : m_trees) ObjRelease(&oTree);
        for (void*& oItem : m_items) {
            EXPECT_EQ(Holders(oItem), 1);
            ObjReleaseInternal(&oItem);
        }
    }

    void Step() {
        const std::size_t which = Below(2);
        Branches& model = m_models[which];
        Places places = PlacesOf(model);
        const std::size_t operation = places.empty() ? 0 : Below(16);
        const auto tPosition = static_cast<TreePositionE>(Below(8));
        SCOPED_TRACE(testing::Message() << "operation " << operation << " at " << tPosition);
        if (places.size() > 40) {
            ASSERT_EQ(TreePruneBranch(model.front().node), TRUE);
            model.pop_front();
        } else if (operation <= 4) {
            const Place node = operation == 0 ? Place{} : places[Below(places.size())];
            const Place place =
                operation == 0 ? Place{&model, model.begin()} : Find(node, tPosition);
            void* oItem = AnyItem();
            ObjIncRefCount(oItem);
            ObjHolder<void> oPushed(oItem);
            TreeNodeO oNode = operation == 0
                                  ? TreePushRootItem(oPushed.Address(), m_trees[which])
                                  : TreePushItem(oPushed.Address(), node.at->node, tPosition);
            ASSERT_EQ(oNode != nullptr, place.siblings != nullptr);
            ASSERT_EQ(oPushed.Get(), oNode == nullptr ? oItem : nullptr);
            if (oNode != nullptr) place.siblings->insert(place.at, {oItem, false, oNode});
        } else {
            const std::size_t source = m_models[1 - which].empty() ? which : Below(2);
            const Places others = PlacesOf(m_models[source]);
            Change(operation, which, places[Below(places.size())], source,
                   others[Below(others.size())], tPosition);
        }
        std::map<void*, int> uses;
        for (std::size_t i = 0; i < 2; ++i) {
            ASSERT_NO_FATAL_FAILURE(ExpectTree(m_trees[i], m_models[i]));
            for (const Place& place : PlacesOf(m_models[i])) ++uses[place.at->item];
        }
        for (void* oItem : m_items) ASSERT_EQ(Holders(oItem), uses[oItem] + 1);
        if (model.empty()) return;
        places = PlacesOf(model);
        ASSERT_NO_FATAL_FAILURE(CheckSteps(places, Below(places.size())));
        if (Below(4) == 0) CheckWalks(which);
    }

 private:
    std::size_t Below(std::size_t end) { return m_random() % end; }
    void* AnyItem() { return m_items[Below(std::size(m_items))]; }

    // One change to a node of a tree, with a node of the same or the other tree as source.
    void Change(std::size_t operation, std::size_t which, const Place& node, std::size_t source,
                const Place& from, TreePositionE tPosition) {
        TreeO oTree = m_trees[which];
        Branches& model = m_models[which];
        TreeNodeO oNode = node.at->node, oFrom = from.at->node;
        const bool same = source == which, first = Below(2) == 0;
        Branches copy = Copies({*from.at});
        switch (operation) {
            case 5:
            case 6:
            case 7: {  // the source is what moves
                const Place place = Find(node, tPosition);
                const bool moves = place.siblings != nullptr && !Holds(*from.at, oNode);
                ASSERT_EQ(TreeMoveBranch(oFrom, oNode, tPosition), BooleanFrom(moves));
                if (moves) place.siblings->splice(place.at, *from.siblings, from.at);
                break;
            }
            case 8: {
                TreeO oMoved = m_trees[source];
                if (!same) ObjIncRefCount(oMoved);
                ASSERT_EQ(TreeMove(oNode, &oMoved), BooleanFrom(!same));
                ASSERT_EQ(oMoved != nullptr, same);
                if (!same) node.at->below.splice(node.at->below.end(), m_models[source]);
                break;
            }
            case 9:
                ASSERT_EQ((first ? TreePruneBranch : TreePruneAllChildren)(oNode), TRUE);
                node.at->below.clear();
                if (first) node.siblings->erase(node.at);
                break;
            case 10:
                ASSERT_EQ(TreeUpdateNode(oNode, oFrom), TRUE);
                node.at->item = from.at->item;
                node.at->open = from.at->open;
                break;
            case 11:
                node.at->item = AnyItem();
                node.at->open = !node.at->open;
                ASSERT_EQ(TreeReplaceObject(oNode, node.at->item), TRUE);
                ASSERT_EQ(TreeNodeToggleOpen(oNode), TRUE);
                break;
            case 12:  // the source may be above or below what it replaces
                ASSERT_EQ(TreeReplaceBranch(oNode, oFrom), TRUE);
                if (oNode == oFrom) break;  // then the nodes stay, too
                copy.front().node = oNode;
                *node.at = copy.front();
                break;
            case 13:
                ASSERT_EQ(TreeReplaceTreeWithTree(oTree, m_trees[source]), TRUE);
                if (!same) model = Copies(m_models[source]);
                break;
            default:  // the source alone, or with the siblings behind it
                ASSERT_EQ((first ? TreeAddOnlyBranchToRoot : TreeAddBranchToRoot)(oTree, oFrom),
                          TRUE);
                if (!first) copy = Copies({from.at, from.siblings->end()});
                model.splice(std::next(model.begin()), copy);
                break;
        }
    }

    // The neighbours of one node.
    static void CheckSteps(const Places& places, std::size_t at) {
        const auto& [siblings, self, depth] = places[at];
        TreeNodeO oNode = self->node;
        const auto step = [&](auto fnStep, TreeNodeO oExpected, auto... more) {
            TreeNodeO oResult = oNode;
            EXPECT_EQ(fnStep(&oResult, oNode, more...), BooleanFrom(oExpected != nullptr));
            EXPECT_EQ(oResult, oExpected);
        };
        const Branch* before = self == siblings->begin() ? nullptr : &*std::prev(self);
        const auto after = std::next(self);
        step(TreePrevSibling, before == nullptr ? nullptr : before->node);
        step(TreeNextSibling, after == siblings->end() ? nullptr : after->node);
        for (const bool respect : {false, true}) {
            const std::size_t next = self->Shows(respect) ? at + 1 : End(places, at);
            step(TreeNextNode, next < places.size() ? places[next].at->node : nullptr,
                 BooleanFrom(respect));
            const Branch* previous = before;
            while (previous != nullptr && previous->Shows(respect))
                previous = &previous->below.back();
            step(TreePrevNode, previous == nullptr ? nullptr : previous->node,
                 BooleanFrom(respect));
        }
        const auto count = static_cast<int32>(self->below.size());
        step(TreeNodeNthChild, count == 0 ? nullptr : self->below.back().node, count);
        ASSERT_EQ(std::tuple(TreeNodeHasParent(oNode), TreeDepthOfNode(oNode),
                             TreeNodeChildCount(oNode), TreeRelativeNode(oNode, TREE_SIBLING_LAST)),
                  std::tuple(BooleanFrom(depth > 0), depth + 1, count, siblings->back().node));
    }

    // What a walk over some nodes sees, and the branches that it is told to remove.
    static void WalkPlaces(const Places& places, std::size_t at, std::size_t end, bool post,
                           bool respect, WalkLog& log, Places& doomed) {
        for (; at < end; at = End(places, at)) {
            const Branch& branch = *places[at].at;
            const TreeCallbackResultE answer = log.Answer(branch.item);
            const auto below = [&] {
                WalkPlaces(places, at + 1, End(places, at), post, respect, log, doomed);
            };
            if (post) below();
            log.nodes.push_back(branch.node);
            log.depths.push_back(places[at].depth);
            if (answer == TreeWalkPruneBranch) doomed.push_back(places[at]);
            if (answer == TreeWalkContinue && branch.Shows(respect) && !post) below();
        }
    }

    // Stepping with removal sees the same as a walk.
    static BooleanT BinAll(TreeO oTree, WalkLog& log, BooleanT bRespect) {
        TreeNodeO oNode = TreeFirstNode(oTree);
        do {
            log.nodes.push_back(oNode);
        } while (TreeNextNodeAndBin(&oNode, oNode, bRespect) == TRUE);
        return BooleanFrom(TreeFirstNode(oTree) == nullptr);
    }

    // Each kind of walk over a copy of the tree, with random answers.
    void CheckWalks(std::size_t which) {
        for (int kind = 0; kind < 6; ++kind) {
            SCOPED_TRACE(testing::Message() << "walk " << kind);
            ObjHolder<TreeS> oCopy(TreeNew());
            TreeO oTree = oCopy.Get();
            ASSERT_EQ(TreeReplaceTreeWithTree(oTree, m_trees[which]), TRUE);
            Branches model = Copies(m_models[which]);
            ASSERT_NO_FATAL_FAILURE(ExpectTree(oTree, model));
            const Places places = PlacesOf(model);
            const std::size_t start = kind < 3 ? 0 : Below(places.size());
            const std::size_t end = kind > 3 ? End(places, start) : places.size();
            TreeNodeO oStart = places[start].at->node;
            const auto bRespect = static_cast<BooleanT>(Below(2));
            WalkLog seen;
            if (kind != 0) {
                seen.answers[AnyItem()] = TreeWalkPrune;
                seen.answers[AnyItem()] = TreeWalkPruneBranch;
            }
            WalkLog expected = seen;
            Places doomed;
            WalkPlaces(places, start, end, kind == 1 || kind == 5, bRespect == TRUE, expected,
                       doomed);
            const std::function<BooleanT()> walks[] = {
                [&] { return BinAll(oTree, seen, bRespect); },
                [&] { return TreeWalkPostOrder(oTree, Record, &seen); },
                [&] { return TreeWalkWithDepth(oTree, RecordDepth, &seen, bRespect); },
                [&] { return TreeWalkFromNode(oStart, Record, &seen, bRespect); },
                [&] { return TreeWalkBranch(oStart, Record, &seen, bRespect); },
                [&] { return TreeWalkBranchPostOrder(oStart, Record, &seen); },
            };
            ASSERT_EQ(walks[kind](), TRUE);
            ASSERT_EQ(seen.nodes, expected.nodes);
            ASSERT_TRUE(kind != 2 || seen.depths == expected.depths);
            for (const Place& place : doomed) place.siblings->erase(place.at);
            if (kind == 0) model.clear();
            ASSERT_NO_FATAL_FAILURE(ExpectTree(oTree, model));
        }
    }

    std::mt19937 m_random;
    void* m_items[5] = {ObjIntegerNew(0), ObjIntegerNew(1), ObjIntegerNew(2), ObjIntegerNew(3),
                        ObjIntegerNew(4)};
    TreeO m_trees[2] = {TreeNew(), TreeNew()};
    Branches m_models[2];
};

TEST_F(TreeTest, RandomOperationsAgreeWithAModel) {
    for (unsigned seed = 1; seed <= 10; ++seed) {
        SCOPED_TRACE(seed);
        Trees trees(seed);
        for (int step = 0; step < 600; ++step) {
            SCOPED_TRACE(step);
            ASSERT_NO_FATAL_FAILURE(trees.Step());
        }
    }
}

// --- a small tree with a name for every node ---

//  A       B
//  a1 a2   b1
//     x
struct SmallTree {
    static TreeNodeO Put(TreeNodeO oAnchor, TreePositionE tPosition) {
        ObjIntegerO oItem = ObjIntegerNew(0);
        return TreePushItem(&oItem, oAnchor, tPosition);
    }
    ObjHolder<TreeS> oTree{TreeNew()};
    ObjHolder<ObjIntegerS> oRoot{ObjIntegerNew(0)};
    TreeNodeO B = TreeAddRootItem(oRoot.Get(), oTree.Get());
    TreeNodeO A = Put(B, TREE_SIBLING_BEFORE), a2 = Put(A, TREE_LAST_CHILD),
              a1 = Put(A, TREE_FIRST_CHILD);
    TreeNodeO x = Put(a2, TREE_FIRST_CHILD), b1 = Put(B, TREE_LAST_CHILD);
};

TEST_F(TreeTest, WalksStopWhenTold) {
    SmallTree t;
    TreeO oTree = t.oTree.Get();
    WalkLog log;
    EXPECT_EQ(TreeWalkUpFromNode(t.x, Record, &log), TRUE);
    log.answers[t.a2->oData] = TreeWalkPrune;
    EXPECT_EQ(TreeWalkUpFromNode(t.x, Record, &log), FALSE);
    EXPECT_EQ(log.nodes, (Nodes{t.x, t.a2, t.A, t.x, t.a2}));
    log = {};
    log.answers[t.x->oData] = TreeWalkAbort;
    const TraceCapture trace;
    EXPECT_EQ(TreeWalk(oTree, Record, &log, FALSE), FALSE);
    EXPECT_EQ(TreeWalkPostOrder(oTree, Record, &log), FALSE);
    EXPECT_EQ(log.nodes, (Nodes{t.A, t.a1, t.a2, t.x, t.a1, t.x}));
    EXPECT_EQ(trace.Text("TREE", 6).substr(0, 17), "FALSE = TreeWalk(");
    for (const auto& [oNode, levels] : {std::pair{t.x, 0}, {t.A, 2}}) {  // above x
        EXPECT_EQ(TreeWalkBranch(oNode, Record, &log, FALSE), FALSE);
        EXPECT_EQ(trace.Count("TREE", 2), levels);
    }
    EXPECT_EQ(trace.Text("TREE", 7), "Been told to abort");
    log = {};
    EXPECT_EQ(TreeWalkFromNodeWithDepth(t.x, RecordDepth, &log, FALSE, 2), TRUE);
    EXPECT_EQ(log.depths, (std::vector<int32>{2, 0, 1}));
    int32 lDepth = 7;
    EXPECT_EQ(TreeNextNodeWithDepth(&t.x, t.x, FALSE, &lDepth), TRUE);
    EXPECT_EQ(lDepth, 5);
}

TEST_F(TreeTest, SearchesWhereItIsTold) {
    SmallTree t;
    TreeO oTree = t.oTree.Get();
    void *oX = t.x->oData, *oB1 = t.b1->oData;
    TreeNodeO oFound = nullptr;
    TreeNodeOpen(t.A);
    for (const bool open : {true, false}) {  // a2, which holds x; twice is the same as once
        for (int times = 0; times < 2; ++times)
            EXPECT_EQ((open ? TreeNodeOpen : TreeNodeClose)(t.a2), TRUE);
        EXPECT_EQ(TreeSearch(&oFound, oTree, IsCookie, oX, TRUE), BooleanFrom(open));
        EXPECT_EQ(TreeSearchBranch(nullptr, t.A, IsCookie, oX, TRUE), BooleanFrom(open));
        EXPECT_EQ(oFound, t.x);
    }
    EXPECT_EQ(TreeSearchBranch(&oFound, t.A, IsCookie, oB1, FALSE), FALSE);
    EXPECT_EQ(TreeFindNodeInBranch(&oFound, t.A, oB1), FALSE);
    EXPECT_EQ(TreeSearchFromNode(&oFound, t.B, IsCookie, oX, FALSE), FALSE);
    EXPECT_EQ(TreeFindNode(&oFound, oTree, nullptr), FALSE);
    EXPECT_EQ(oFound, t.x);
    EXPECT_EQ(TreeFindNodeFromNode(&oFound, t.x, oB1), TRUE);
    EXPECT_EQ(oFound, t.b1);
}

// A replacement that is owned by what it replaces.
TEST_F(TreeTest, ReplacesByATreeThatTheOldContentHolds) {
    for (const bool whole : {false, true}) {
        ObjHolder<TreeS> oOuter(TreeNew());
        TreeO oInner = TreeNew();
        ObjIntegerO oNumber = ObjIntegerNew(5);
        TreeNodeOpen(TreePushRootItem(&oNumber, oInner));
        TreeO oHeld = oInner;
        TreeNodeO oNode = TreePushRootItem(&oHeld, oOuter.Get());
        ASSERT_EQ(whole ? TreeReplaceTreeWithTree(oOuter.Get(), oInner)
                        : TreeReplaceBranchWithTree(oNode, oInner),
                  TRUE);
        oNode = TreeFirstNode(oOuter.Get());
        void* oResult = TreeFirstObject(oOuter.Get());
        EXPECT_EQ(std::pair(Value(oResult), oNode->bOpen), std::pair(5, TRUE));
        EXPECT_EQ(TreeReplaceObject(oNode, oResult), TRUE);
        EXPECT_EQ(Holders(oResult), 1);
    }
}

TEST_F(TreeTest, RefusesWrongArguments) {
    SmallTree t;
    TreeO oTree = t.oTree.Get();
    void *oItem = t.x->oData, *oNothing = nullptr;
    auto* oNoNode = static_cast<TreeNodeO>(oItem);
    WalkLog log;
    EXPECT_EQ(TreePushItem(&oNothing, t.A, TREE_FIRST_CHILD), nullptr);
    EXPECT_EQ(TreeAddItem(oItem, oNoNode, TREE_FIRST_CHILD), nullptr);
    EXPECT_EQ(TreeFromNode(oNoNode), nullptr);
    for (const BooleanT bResult :
         {TreeReplaceBranch(t.b1, nullptr),  // but the old branch goes
          TreeReplaceTreeWithTree(oTree, static_cast<TreeO>(oItem)),
          TreeWalk(oTree, nullptr, &log, FALSE), TreeAddBranchToRoot(oTree, nullptr),
          TreeNodeClose(oNoNode), TreeNodeHasParent(oNoNode)})
        EXPECT_EQ(bResult, FALSE);
    EXPECT_EQ(TreeWalkFromNode(nullptr, Record, &log, FALSE), TRUE);
    TreeCleanup();  // leaves every tree
    EXPECT_EQ(TreeWalk(oTree, Record, &log, FALSE), TRUE);
    EXPECT_EQ(log.nodes, (Nodes{t.A, t.a1, t.a2, t.x, t.B}));
}

// A node that outlives its place keeps nothing of the tree.
TEST_F(TreeTest, NodeHeldElsewhereLeavesTheTreeWhole) {
    SmallTree t;
    ObjIncRefCount(t.a2);
    ObjHolder<TreeNodeS> oHeld(t.a2);
    ASSERT_EQ(TreePruneBranch(t.a2), TRUE);
    EXPECT_EQ(std::pair(t.A->oLastChild, t.a2->oChild), std::pair(t.a1, t.x));
    EXPECT_EQ(TreePruneBranch(t.a2), FALSE);
    EXPECT_EQ(TreeMoveBranch(t.a2, t.B, TREE_FIRST_CHILD), FALSE);
    EXPECT_EQ(TreeAddItem(t.A->oData, t.a2, TREE_SIBLING_AFTER), nullptr);
    EXPECT_NE(TreeAddItem(t.A->oData, t.a2, TREE_FIRST_CHILD), nullptr);
    EXPECT_EQ(TreeNextNode(&t.A, t.a2, TRUE), FALSE);
}

TEST_F(TreeTest, CookieAndNodesComeAndGoWithTheTree) {
    CountingPool pool;
    TreeO oTree = TreeNewFromPool(&pool);
    ObjHolder<ObjIntegerS> oItem(ObjIntegerNew(1));
    TreeNodeO oNode = TreeAddRootItem(oItem.Get(), oTree);
    TreeAddItem(oItem.Get(), oNode, TREE_LAST_CHILD);
    TreeAddBranchToRoot(oTree, oNode);
    EXPECT_EQ(pool.live, 5);
    for (int times = 0; times < 2; times++) EXPECT_EQ(TreeSetCookie(oTree, oItem.Get()), TRUE);
    EXPECT_EQ(Holders(oItem.Get()), 6);
    ObjRelease(&oTree);
    EXPECT_EQ(Holders(oItem.Get()), 1);
    EXPECT_EQ(pool.live, 0);
}

// Recursion, per level or per sibling, would run out of stack.
template <TreeCallbackResultE tAnswer = TreeWalkContinue>
TreeCallbackResultE Count(void* pCookie, TreeNodeO /*oNode*/) {
    ++*static_cast<int32*>(pCookie);
    return tAnswer;
}

TEST_F(TreeTest, DeepAndLongTreesNeedNoStack) {
    for (const auto& [position, count] :
         {std::pair{TREE_FIRST_CHILD, 100000}, std::pair{TREE_SIBLING_AFTER, 1000000}}) {
        ObjHolder<TreeS> oHolder(TreeNew()), oCopy;
        TreeO oTree = oHolder.Get();
        ObjHolder<ObjIntegerS> oItem(ObjIntegerNew(1)), oLast(ObjIntegerNew(2));
        TreeNodeO oFar = TreeAddRootItem(oItem.Get(), oTree);
        for (int32 lDone = 2; lDone < count; ++lDone)
            oFar = TreeAddItem(oItem.Get(), oFar, position);
        oFar = TreeAddItem(oLast.Get(), oFar, position);
        ObjHolder<void> oKept, oDuplicate;  // the first is released all at once
        for (ObjHolder<void>* oHeld : {&oKept, &oDuplicate})
            ASSERT_EQ(ObjDuplicateInternal(oHeld->Address(), oTree, TRUE), TRUE);

        int32 lCount = 0;
        EXPECT_EQ(TreeWalk(oTree, Count<>, &lCount, FALSE), TRUE);
        EXPECT_EQ(TreeWalkPostOrder(oTree, Count<>, &lCount), TRUE);
        EXPECT_EQ(TreeWalkUpFromNode(oFar, Count<>, &lCount), TRUE);
        EXPECT_EQ(lCount, 2 * count + TreeDepthOfNode(oFar));
        EXPECT_EQ(TreeWalkBranch(oTree->oFirstNode, Count<>, &lCount, FALSE), TRUE);
        TreeNodeO oFound = nullptr;
        EXPECT_EQ(TreeFindNode(&oFound, oTree, oFar->oData), TRUE);
        EXPECT_EQ(oFound, oFar);

        ASSERT_EQ(TreeFromSubTree(oCopy.Address(), oTree->oFirstNode), TRUE);
        EXPECT_EQ(Holders(oLast.Get()), 3);  // the copied nodes share, the duplicates do not
        EXPECT_EQ(TreeReplaceBranch(oCopy.Get()->oFirstNode, oTree->oFirstNode), TRUE);
        EXPECT_EQ(TreeReplaceTreeWithTree(oCopy.Get(), static_cast<TreeO>(oDuplicate.Get())), TRUE);
        EXPECT_EQ(TreeMove(oFar, oCopy.Address()), TRUE);
        lCount = 0;
        EXPECT_EQ(TreeWalkPostOrder(oTree, Count<TreeWalkPruneBranch>, &lCount), TRUE);
        EXPECT_EQ(lCount, 2 * count);
        EXPECT_EQ(oTree->oFirstNode, nullptr);
        TreeNodeO oNode = TreeFirstNode(static_cast<TreeO>(oDuplicate.Get()));
        for (lCount = 1; TreeNextNodeAndBin(&oNode, oNode, FALSE) == TRUE;) ++lCount;
        EXPECT_EQ(lCount, count);
    }
}

}  // namespace
