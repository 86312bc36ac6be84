#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "core/objwrappers.h"
#include "core/tree.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

using Nodes = std::vector<TreeNodeO>;
using TreeTest = ObjectTest;

// --- a plain table that says what a tree must look like ---

// A node of the tree. The rows of a tree stand in pre-order, so that a branch is a run of rows.
struct Row {
    int32 depth;
    void* item;
    bool open;
    TreeNodeO node;  // null in a copy until it is first compared
};

// Where something is inserted; depth -1 for nowhere.
struct Place {
    std::size_t at;
    int32 depth;
};

class Rows : public std::vector<Row> {
 public:
    using std::vector<Row>::vector;
    std::size_t End(std::size_t at) const { return EndOfDepth(at, (*this)[at].depth); }
    bool Has(std::size_t at, bool respect) const {
        return End(at) > at + 1 && (!respect || (*this)[at].open);
    }
    // The rows among [begin, end) that are of a depth.
    std::vector<std::size_t> Level(std::size_t begin, std::size_t end, int32 depth) const {
        std::vector<std::size_t> found;
        for (std::size_t i = begin; i < end; ++i)
            if ((*this)[i].depth == depth) found.push_back(i);
        return found;
    }
    std::vector<std::size_t> Children(std::size_t at) const {
        return Level(at + 1, End(at), (*this)[at].depth + 1);
    }
    std::vector<std::size_t> Siblings(std::size_t at) const {
        std::size_t begin = at;
        while (begin > 0 && (*this)[begin - 1].depth >= (*this)[at].depth) --begin;
        return Level(begin, EndOfDepth(at, (*this)[at].depth - 1), (*this)[at].depth);
    }
    Place Find(std::size_t at, TreePositionE tPosition) const {
        const std::vector<std::size_t> siblings = Siblings(at);
        const int32 depth = (*this)[at].depth;
        const Place places[] = {
            {at + 1, depth + 1}, {End(at), depth + 1},          {at, depth},
            {End(at), depth},    {End(siblings.back()), depth}, {siblings.front(), depth}};
        return tPosition < TREE_PARENT ? places[tPosition] : Place{0, -1};
    }
    void Insert(Place place, Rows rows) {
        const int32 down = rows.empty() ? 0 : place.depth - rows.front().depth;
        for (Row& row : rows) row.depth += down;
        insert(At(place.at), rows.begin(), rows.end());
    }
    Rows Cut(std::size_t first, std::size_t last) {
        Rows rows(At(first), At(last));
        erase(At(first), At(last));
        return rows;
    }
    Rows Copy(std::size_t first, std::size_t last) const {
        Rows rows(*this);
        for (Row& row : rows) row.node = nullptr;
        return rows.Cut(first, last);
    }

 private:
    iterator At(std::size_t at) { return begin() + static_cast<std::ptrdiff_t>(at); }
    std::size_t EndOfDepth(std::size_t at, int32 depth) const {
        do {
            ++at;
        } while (at < size() && (*this)[at].depth > depth);
        return at;
    }
};

// Compares a sibling chain and what is below it, from a row on, and all links.
void ExpectSiblings(TreeO oTree, TreeNodeO oParent, TreeNodeO oNode, TreeNodeO oLast, int32 depth,
                    Rows& rows, std::size_t& at) {
    TreeNodeO oPrevious = nullptr;
    for (; oNode != nullptr; oNode = oNode->oNext) {
        ASSERT_LT(at, rows.size());
        Row& row = rows[at++];
        if (row.node == nullptr) row.node = oNode;
        ASSERT_EQ(std::tuple(oNode, depth, oNode->oData, oNode->bOpen, Holders(oNode)),
                  std::tuple(row.node, row.depth, row.item, BooleanFrom(row.open), 1));
        ASSERT_EQ(std::tuple(oNode->oTree, TreeFromNode(oNode), oNode->oParent, oNode->oPrevious),
                  std::tuple(oTree, oTree, oParent, oPrevious));
        ASSERT_NO_FATAL_FAILURE(
            ExpectSiblings(oTree, oNode, oNode->oChild, oNode->oLastChild, depth + 1, rows, at));
        oPrevious = oNode;
    }
    ASSERT_EQ(oLast, oPrevious);
}

void ExpectTree(TreeO oTree, Rows& rows) {
    std::size_t at = 0;
    ASSERT_NO_FATAL_FAILURE(
        ExpectSiblings(oTree, nullptr, oTree->oFirstNode, oTree->oLastNode, 0, rows, at));
    ASSERT_EQ(at, rows.size());
}

// What a walk saw, and what it was told for certain items (TreeWalkContinue for all others).
struct WalkLog {
    Nodes nodes;
    std::vector<int32> depths;
    std::map<void*, TreeCallbackResultE> answers;

    TreeCallbackResultE Answer(void* item) const {
        const auto answer = answers.find(item);
        return answer == answers.end() ? TreeWalkContinue : answer->second;
    }
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
        TreeO oTree = m_trees[which];
        Rows& rows = m_rows[which];
        const int operation = rows.empty() ? 0 : static_cast<int>(Below(16));
        const auto tPosition = static_cast<TreePositionE>(Below(8));
        SCOPED_TRACE(testing::Message() << "operation " << operation << " at " << tPosition);
        const std::size_t at = operation == 0 ? 0 : Below(rows.size());
        if (rows.size() > 40) {
            ASSERT_EQ(TreePruneBranch(rows[0].node), TRUE);
            rows.Cut(0, rows.End(0));
        } else if (operation <= 4) {
            const Place place = operation == 0 ? Place{0, 0} : rows.Find(at, tPosition);
            void* oItem = AnyItem();
            ObjIncRefCount(oItem);
            ObjHolder<void> oPushed(oItem);
            TreeNodeO oNode = operation == 0
                                  ? TreePushRootItem(oPushed.Address(), oTree)
                                  : TreePushItem(oPushed.Address(), rows[at].node, tPosition);
            ASSERT_EQ(oNode != nullptr, place.depth >= 0);
            ASSERT_EQ(oPushed.Get(), oNode == nullptr ? oItem : nullptr);
            if (oNode != nullptr) rows.Insert(place, {{0, oItem, false, oNode}});
        } else {
            const std::size_t source = m_rows[1 - which].empty() ? which : Below(2);
            Change(operation, which, at, source, Below(m_rows[source].size()), tPosition);
        }
        for (std::size_t i = 0; i < 2; ++i)
            ASSERT_NO_FATAL_FAILURE(ExpectTree(m_trees[i], m_rows[i]));
        for (void* oItem : m_items) {
            std::ptrdiff_t uses = 1;
            for (const Rows& all : m_rows) uses += std::ranges::count(all, oItem, &Row::item);
            ASSERT_EQ(Holders(oItem), uses);
        }
        if (rows.empty()) return;
        ASSERT_NO_FATAL_FAILURE(CheckSteps(rows, Below(rows.size())));
        if (Below(4) == 0) CheckWalks(which);
    }

 private:
    std::size_t Below(std::size_t end) { return m_random() % end; }
    void* AnyItem() { return m_items[Below(std::size(m_items))]; }

    // One change to row "at" of a tree, with a row of the same or the other tree as source.
    void Change(int operation, std::size_t which, std::size_t at, std::size_t sourceTree,
                std::size_t from, TreePositionE tPosition) {
        TreeO oTree = m_trees[which];
        Rows& rows = m_rows[which];
        Rows& source = m_rows[sourceTree];
        TreeNodeO oNode = rows[at].node;
        TreeNodeO oFrom = source[from].node;
        const bool same = sourceTree == which;
        const std::size_t end = source.End(from);
        const Rows copy = source.Copy(from, end);
        switch (operation) {
            case 5:
            case 6:
            case 7: {  // the source is what moves
                Place place = rows.Find(at, tPosition);
                const bool moves = place.depth >= 0 && !(same && at >= from && at < end);
                ASSERT_EQ(TreeMoveBranch(oFrom, oNode, tPosition), BooleanFrom(moves));
                if (!moves) break;
                if (same && place.at > from) place.at -= end - from;
                rows.Insert(place, source.Cut(from, end));
                break;
            }
            case 8: {
                TreeO oMoved = m_trees[sourceTree];
                if (!same) ObjIncRefCount(oMoved);
                ASSERT_EQ(TreeMove(oNode, &oMoved), BooleanFrom(!same));
                ASSERT_EQ(oMoved != nullptr, same);
                if (!same)
                    rows.Insert(rows.Find(at, TREE_LAST_CHILD), source.Cut(0, source.size()));
                break;
            }
            case 9: {
                const bool all = Below(2) == 0;
                ASSERT_EQ(all ? TreePruneBranch(oNode) : TreePruneAllChildren(oNode), TRUE);
                rows.Cut(all ? at : at + 1, rows.End(at));
                break;
            }
            case 10:
                ASSERT_EQ(TreeUpdateNode(oNode, oFrom), TRUE);
                rows[at].item = copy[0].item;
                rows[at].open = copy[0].open;
                break;
            case 11:
                rows[at].item = AnyItem();
                rows[at].open = !rows[at].open;
                ASSERT_EQ(TreeReplaceObject(oNode, rows[at].item), TRUE);
                ASSERT_EQ(TreeNodeToggleOpen(oNode), TRUE);
                break;
            case 12:  // the source may be above or below what it replaces
                ASSERT_EQ(TreeReplaceBranch(oNode, oFrom), TRUE);
                if (oNode == oFrom) break;  // then the nodes stay, too
                rows.Insert({at, rows[at].depth}, copy);
                rows[at].node = oNode;
                rows.Cut(at + copy.size(), rows.End(at + copy.size()));
                break;
            case 13:
                ASSERT_EQ(TreeReplaceTreeWithTree(oTree, m_trees[sourceTree]), TRUE);
                if (!same) rows = source.Copy(0, source.size());
                break;
            case 14:
                ASSERT_EQ(TreeAddOnlyBranchToRoot(oTree, oFrom), TRUE);
                rows.Insert({rows.End(0), 0}, copy);
                break;
            default: {
                const Rows copies = source.Copy(from, source.End(source.Siblings(from).back()));
                ASSERT_EQ(TreeAddBranchToRoot(oTree, oFrom), TRUE);
                rows.Insert({rows.End(0), 0}, copies);
                break;
            }
        }
    }

    // The neighbours of one row.
    static void CheckSteps(const Rows& rows, std::size_t at) {
        TreeNodeO oNode = rows[at].node;
        const std::vector<std::size_t> siblings = rows.Siblings(at);
        const auto nodeAt = [&](std::size_t row) {
            return row < rows.size() ? rows[row].node : nullptr;
        };
        for (const bool respect : {false, true}) {
            const BooleanT bRespect = BooleanFrom(respect);
            TreeNodeO oNext = oNode, oPrevious = oNode;
            const std::size_t next = rows.Has(at, respect) ? at + 1 : rows.End(at);
            ASSERT_EQ(TreeNextNode(&oNext, oNode, bRespect), BooleanFrom(next < rows.size()));
            ASSERT_EQ(oNext, nodeAt(next));

            std::size_t previous = rows.size();
            if (siblings.front() != at) {
                previous = *(std::find(siblings.begin(), siblings.end(), at) - 1);
                ASSERT_EQ(TreeRelativeNode(oNode, TREE_SIBLING_BEFORE), rows[previous].node);
                while (rows.Has(previous, respect)) previous = rows.Children(previous).back();
            }
            ASSERT_EQ(TreePrevNode(&oPrevious, oNode, bRespect),
                      BooleanFrom(previous < rows.size()));
            ASSERT_EQ(oPrevious, nodeAt(previous));
        }
        TreeNodeO oBefore = nullptr, oAfter = nullptr;
        const bool first = siblings.front() == at, last = siblings.back() == at;
        ASSERT_EQ(TreePrevSibling(&oBefore, oNode), BooleanFrom(!first));
        ASSERT_EQ(TreeNextSibling(&oAfter, oNode), BooleanFrom(!last));
        const auto self = std::find(siblings.begin(), siblings.end(), at);
        ASSERT_EQ(oBefore, first ? nullptr : rows[*(self - 1)].node);
        ASSERT_EQ(oAfter, last ? nullptr : rows[*(self + 1)].node);
        ASSERT_EQ(TreeNodeHasParent(oNode), BooleanFrom(rows[at].depth > 0));
        const auto count = static_cast<int32>(rows.Children(at).size());
        TreeNodeO oChild = oNode;
        ASSERT_EQ(TreeRelativeNode(oNode, TREE_SIBLING_LAST), rows[siblings.back()].node);
        ASSERT_EQ(TreeDepthOfNode(oNode), rows[at].depth + 1);
        ASSERT_EQ(TreeNodeChildCount(oNode), count);
        ASSERT_EQ(TreeNodeNthChild(&oChild, oNode, count), BooleanFrom(count > 0));
        ASSERT_EQ(oChild, oNode->oLastChild);
    }

    // What a walk over some rows sees, and the rows that it is told to remove.
    static void WalkRows(const Rows& rows, std::size_t at, std::size_t end, bool post, bool respect,
                         WalkLog& log, std::vector<std::size_t>& doomed) {
        for (; at < end; at = rows.End(at)) {
            const TreeCallbackResultE answer = log.Answer(rows[at].item);
            const bool below = answer == TreeWalkContinue && rows.Has(at, respect);
            if (post) WalkRows(rows, at + 1, rows.End(at), post, respect, log, doomed);
            log.nodes.push_back(rows[at].node);
            log.depths.push_back(rows[at].depth);
            if (answer == TreeWalkPruneBranch) doomed.push_back(at);
            if (below && !post) WalkRows(rows, at + 1, rows.End(at), post, respect, log, doomed);
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
            Rows rows = m_rows[which].Copy(0, m_rows[which].size());
            ASSERT_NO_FATAL_FAILURE(ExpectTree(oTree, rows));
            const std::size_t start = kind < 3 ? 0 : Below(rows.size());
            const std::size_t end = kind > 3 ? rows.End(start) : rows.size();
            TreeNodeO oStart = rows[start].node;
            const auto bRespect = static_cast<BooleanT>(Below(2));
            WalkLog seen;
            if (kind != 0) {
                seen.answers[AnyItem()] = TreeWalkPrune;
                seen.answers[AnyItem()] = TreeWalkPruneBranch;
            }
            WalkLog expected = seen;
            std::vector<std::size_t> doomed;
            WalkRows(rows, start, end, kind == 1 || kind == 5, bRespect == TRUE, expected, doomed);
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
            if (kind == 0) rows.clear();
            std::sort(doomed.begin(), doomed.end());
            for (; !doomed.empty(); doomed.pop_back())
                rows.Cut(doomed.back(), rows.End(doomed.back()));
            ASSERT_NO_FATAL_FAILURE(ExpectTree(oTree, rows));
        }
    }

    std::mt19937 m_random;
    void* m_items[5] = {ObjIntegerNew(0), ObjIntegerNew(1), ObjIntegerNew(2), ObjIntegerNew(3),
                        ObjIntegerNew(4)};
    TreeO m_trees[2] = {TreeNew(), TreeNew()};
    Rows m_rows[2];
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
    EXPECT_EQ(log.nodes, (Nodes{t.x, t.a2, t.A}));
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
    EXPECT_EQ(TreeWalkBranch(t.x, Record, &log, FALSE), FALSE);
    EXPECT_EQ(trace.Text("TREE", 7), "Been told to abort");
    EXPECT_EQ(trace.Count("TREE", 2), 0);
    EXPECT_EQ(TreeWalkBranch(t.A, Record, &log, FALSE), FALSE);
    EXPECT_EQ(trace.Count("TREE", 2), 2);  // a2 and A
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
    TreeNodeOpen(t.A);  // a2 is closed
    EXPECT_EQ(TreeSearch(&oFound, oTree, IsCookie, oX, TRUE), FALSE);
    EXPECT_EQ(TreeSearchBranch(&oFound, t.A, IsCookie, oX, TRUE), FALSE);
    EXPECT_EQ(TreeSearchBranch(&oFound, t.A, IsCookie, oB1, FALSE), FALSE);
    EXPECT_EQ(TreeFindNodeInBranch(&oFound, t.A, oB1), FALSE);
    EXPECT_EQ(TreeSearchFromNode(&oFound, t.B, IsCookie, oX, FALSE), FALSE);
    EXPECT_EQ(TreeFindNode(&oFound, oTree, nullptr), FALSE);
    EXPECT_EQ(oFound, nullptr);
    TreeNodeOpen(t.a2);
    EXPECT_EQ(TreeSearchBranch(&oFound, t.A, IsCookie, oX, TRUE), TRUE);
    EXPECT_EQ(oFound, t.x);
    for (int times = 0; times < 2; ++times) EXPECT_EQ(TreeNodeClose(t.a2), TRUE);
    EXPECT_EQ(TreeSearchBranch(&oFound, t.A, IsCookie, oX, TRUE), FALSE);
    EXPECT_EQ(TreeFindNodeFromNode(&oFound, t.x, oB1), TRUE);
    EXPECT_EQ(oFound, t.b1);
}

// A replacement that is owned by what it replaces.
TEST_F(TreeTest, ReplacesByATreeThatTheOldContentHolds) {
    for (const bool whole : {false, true}) {
        ObjHolder<TreeS> oOuter(TreeNew());
        TreeO oInner = TreeNew();
        ObjStringO oText = ObjStringNew("inner");
        TreeNodeO oInnerNode = TreePushRootItem(&oText, oInner);
        TreeNodeOpen(oInnerNode);
        TreeO oHeld = oInner;
        TreeNodeO oNode = TreePushRootItem(&oHeld, oOuter.Get());
        ASSERT_EQ(whole ? TreeReplaceTreeWithTree(oOuter.Get(), oInner)
                        : TreeReplaceBranchWithTree(oNode, oInner),
                  TRUE);
        auto* oResult = static_cast<ObjStringO>(TreeFirstObject(oOuter.Get()));
        EXPECT_STREQ(ObjGetString(oResult), "inner");
        EXPECT_EQ(TreeFirstNode(oOuter.Get())->bOpen, TRUE);
        EXPECT_EQ(TreeReplaceObject(TreeFirstNode(oOuter.Get()), oResult), TRUE);
        EXPECT_EQ(Holders(oResult), 1);
    }
}

TEST_F(TreeTest, RefusesWrongArguments) {
    SmallTree t;
    TreeO oTree = t.oTree.Get();
    void *oItem = t.x->oData, *oNothing = nullptr;
    WalkLog log;
    EXPECT_EQ(TreePushItem(&oNothing, t.A, TREE_FIRST_CHILD), nullptr);
    EXPECT_EQ(TreeAddItem(oItem, static_cast<TreeNodeO>(oItem), TREE_FIRST_CHILD), nullptr);
    EXPECT_EQ(TreeReplaceBranch(t.b1, nullptr), FALSE);  // but the old branch goes
    EXPECT_EQ(TreeReplaceTreeWithTree(oTree, static_cast<TreeO>(oItem)), FALSE);
    EXPECT_EQ(TreeWalk(oTree, nullptr, &log, FALSE), FALSE);
    EXPECT_EQ(TreeWalkFromNode(nullptr, Record, &log, FALSE), TRUE);
    EXPECT_EQ(TreeAddBranchToRoot(oTree, nullptr), FALSE);
    auto* oNoNode = static_cast<TreeNodeO>(oItem);
    EXPECT_EQ(TreeFromNode(oNoNode), nullptr);
    EXPECT_EQ(TreeNodeClose(oNoNode) + TreeNodeHasParent(oNoNode), FALSE);
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
    EXPECT_EQ(t.A->oLastChild, t.a1);
    EXPECT_EQ(oHeld.Get()->oChild, t.x);
    EXPECT_EQ(TreePruneBranch(oHeld.Get()), FALSE);
    EXPECT_EQ(TreeMoveBranch(oHeld.Get(), t.B, TREE_FIRST_CHILD), FALSE);
    EXPECT_EQ(TreeAddItem(t.A->oData, oHeld.Get(), TREE_SIBLING_AFTER), nullptr);
    EXPECT_NE(TreeAddItem(t.A->oData, oHeld.Get(), TREE_FIRST_CHILD), nullptr);
    TreeNodeO oNode = t.A;
    EXPECT_EQ(TreeNextNode(&oNode, oHeld.Get(), TRUE), FALSE);
}

TEST_F(TreeTest, CookieAndNodesComeAndGoWithTheTree) {
    CountingPool pool;
    TreeO oTree = TreeNewFromPool(&pool);
    ObjHolder<ObjIntegerS> oItem(ObjIntegerNew(1));
    TreeNodeO oNode = TreeAddRootItem(oItem.Get(), oTree);
    TreeAddItem(oItem.Get(), oNode, TREE_LAST_CHILD);
    TreeAddBranchToRoot(oTree, oNode);
    EXPECT_EQ(pool.live, 5);
    EXPECT_EQ(TreeSetCookie(oTree, oItem.Get()), TRUE);
    EXPECT_EQ(TreeSetCookie(oTree, oItem.Get()), TRUE);
    EXPECT_EQ(Holders(oItem.Get()), 6);
    ObjRelease(&oTree);
    EXPECT_EQ(Holders(oItem.Get()), 1);
    EXPECT_EQ(pool.live, 0);
}

// --- size: recursion, per level or per sibling, would run out of stack ---

template <TreeCallbackResultE tAnswer = TreeWalkContinue>
TreeCallbackResultE Count(void* pCookie, TreeNodeO /*oNode*/) {
    ++*static_cast<int32*>(pCookie);
    return tAnswer;
}

void ExpectEveryOperationToFit(TreeO oTree, TreeNodeO oFar, int32 lNodes) {
    int32 lCount = 0;
    EXPECT_EQ(TreeWalk(oTree, Count<>, &lCount, FALSE), TRUE);
    EXPECT_EQ(TreeWalkPostOrder(oTree, Count<>, &lCount), TRUE);
    EXPECT_EQ(TreeWalkUpFromNode(oFar, Count<>, &lCount), TRUE);
    EXPECT_EQ(lCount, 2 * lNodes + TreeDepthOfNode(oFar));
    lCount = 0;
    EXPECT_EQ(TreeWalkBranch(oTree->oFirstNode, Count<>, &lCount, FALSE), TRUE);
    TreeNodeO oFound = nullptr;
    EXPECT_EQ(TreeFindNode(&oFound, oTree, oFar->oData), TRUE);
    EXPECT_EQ(oFound, oFar);

    ObjHolder<TreeS> oCopy;
    ObjHolder<void> oDuplicate;
    ASSERT_EQ(TreeFromSubTree(oCopy.Address(), oTree->oFirstNode), TRUE);
    ASSERT_EQ(ObjDuplicateInternal(oDuplicate.Address(), oTree, TRUE), TRUE);
    EXPECT_EQ(Holders(oFar->oData), 2);  // the copy of the nodes shares, the duplicate does not
    EXPECT_EQ(TreeReplaceBranch(oCopy.Get()->oFirstNode, oTree->oFirstNode), TRUE);
    EXPECT_EQ(TreeReplaceTreeWithTree(oCopy.Get(), static_cast<TreeO>(oDuplicate.Get())), TRUE);
    EXPECT_EQ(TreeMove(oFar, oCopy.Address()), TRUE);
    lCount = 0;
    EXPECT_EQ(TreeWalkPostOrder(oTree, Count<TreeWalkPruneBranch>, &lCount), TRUE);
    EXPECT_EQ(lCount, 2 * lNodes);
    EXPECT_EQ(oTree->oFirstNode, nullptr);
    TreeNodeO oNode = TreeFirstNode(static_cast<TreeO>(oDuplicate.Get()));
    for (lCount = 1; TreeNextNodeAndBin(&oNode, oNode, FALSE) == TRUE;) ++lCount;
    EXPECT_EQ(lCount, lNodes);
}

TEST_F(TreeTest, DeepAndLongTreesNeedNoStack) {
    for (const auto& [position, count] :
         {std::pair{TREE_FIRST_CHILD, 100000}, std::pair{TREE_SIBLING_AFTER, 1000000}}) {
        ObjHolder<TreeS> oTree(TreeNew());
        ObjHolder<ObjIntegerS> oItem(ObjIntegerNew(1));
        TreeNodeO oNode = TreeAddRootItem(oItem.Get(), oTree.Get());
        for (int32 lDone = 2; lDone < count; ++lDone)
            oNode = TreeAddItem(oItem.Get(), oNode, position);
        ObjIntegerO oLast = ObjIntegerNew(2);
        oNode = TreePushItem(&oLast, oNode, position);
        ObjHolder<void> oKept;
        ASSERT_EQ(ObjDuplicateInternal(oKept.Address(), oTree.Get(), TRUE), TRUE);
        ExpectEveryOperationToFit(oTree.Get(), oNode, count);
        ObjReleaseInternal(oKept.Address());  // all at once
    }
}

}  // namespace
