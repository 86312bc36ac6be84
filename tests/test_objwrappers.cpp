#include <map>

#include "core/list.h"
#include "core/objwalk.h"
#include "core/tree.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

using WrapperTest = ObjectTest;

// --- wrappers ---

TEST_F(WrapperTest, StringOwnsItsText) {
    ObjHolder<ObjStringS> oString(ObjStringNew("archive")), oEmpty(ObjStringNew(nullptr));
    EXPECT_EQ(ObjGetString(oEmpty.Get()), nullptr);
    EXPECT_EQ(ObjSetString(oString.Get(), ObjGetString(oString.Get()) + 2), TRUE);
    EXPECT_STREQ(ObjGetString(oString.Get()), "chive");
    char* pstrTaken = StrDuplicate("taken");
    for (int times = 0; times < 2; times++)
        EXPECT_EQ(ObjSetStringNoCopy(oString.Get(), pstrTaken), TRUE);
    EXPECT_EQ(ObjGetString(oString.Get()), pstrTaken);
    // Characters, not bytes: 0x83 leads a character of two bytes.
    for (const auto& [text, count, expected] : {std::tuple{"abc", 9, "abc"},
                                                {"abc", 0, ""},
                                                {"\x83\x41\x83\x42z", 2, "\x83\x41\x83\x42"}}) {
        ObjHolder<ObjStringS> oPart(ObjStringNewRanged(text, count));
        EXPECT_STREQ(ObjGetString(oPart.Get()), expected);
    }
}

TEST_F(WrapperTest, DataFieldCopiesOrTakesItsBlock) {
    char strBytes[] = "bytes";
    ObjHolder<ObjDataFieldS> oCopy(ObjDataFieldNew(strBytes, 5)), oTaken, oNothing;
    strBytes[0] = 'x';
    EXPECT_EQ(std::memcmp(ObjGetDataFieldData(oCopy.Get()), "bytes", 5), 0);
    char* pstrBlock = StrDuplicate("block");
    ASSERT_EQ(ObjDataFieldCreateNoCopy(oTaken.Address(), pstrBlock, 6), TRUE);
    EXPECT_EQ(ObjGetDataField(oTaken.Get())->pData, pstrBlock);
    ASSERT_EQ(ObjDataFieldCreate(oNothing.Address(), nullptr, 12), TRUE);
    EXPECT_EQ(ObjGetDataFieldSize(oNothing.Get()), 0);
}

TEST_F(WrapperTest, NumbersAreOfTheirClass) {
    ObjHolder<ObjBooleanS> oBoolean;
    ObjHolder<ObjIntegerS> oInteger;
    ObjHolder<ObjInt64S> oInt64;
    ASSERT_EQ(ObjBooleanCreate(oBoolean.Address(), TRUE), TRUE);
    ASSERT_EQ(ObjIntegerCreate(oInteger.Address(), -3), TRUE);
    ASSERT_EQ(ObjInt64Create(oInt64.Address(), INT64_MIN), TRUE);
    using Values = std::tuple<BooleanT, int32, int64>;
    const struct {
        void* object;
        Values values, set;  // read as each class, before and after it was set as each class
        int result;
    } cases[] = {{oBoolean.Get(), {TRUE, 0, 0}, {FALSE, 0, 0}, 1},
                 {oInteger.Get(), {FALSE, -3, 0}, {FALSE, INT32_MAX, 0}, 10},
                 {oInt64.Get(), {FALSE, 0, INT64_MIN}, {FALSE, 0, INT64_MAX}, 100},
                 {nullptr, {FALSE, 0, 0}, {FALSE, 0, 0}, 0}};
    for (const auto& test : cases) {
        auto* oB = static_cast<ObjBooleanO>(test.object);
        auto* oI = static_cast<ObjIntegerO>(test.object);
        auto* oL = static_cast<ObjInt64O>(test.object);
        const auto read = [&] {
            return Values(ObjGetBoolean(oB), ObjGetInteger(oI), ObjGetInt64(oL));
        };
        EXPECT_EQ(read(), test.values);
        EXPECT_EQ(ObjSetBoolean(oB, FALSE) + 10 * ObjSetInteger(oI, INT32_MAX) +
                      100 * ObjSetInt64(oL, INT64_MAX),
                  test.result);
        EXPECT_EQ(read(), test.set);
    }
}

TEST_F(WrapperTest, StanzaIsTakenAndViewInfoIsCopied) {
    StnzT *pFirst = NewStanza(nullptr, "first"), *pSecond = NewStanza(nullptr, "second");
    ObjHolder<ObjStanzaS> oStanza;
    ASSERT_EQ(ObjStanzaCreate(oStanza.Address(), pFirst), TRUE);
    EXPECT_EQ(ObjGetStanza(oStanza.Get()), pFirst);
    EXPECT_EQ(ObjSetStanza(oStanza.Get(), nullptr), FALSE);
    EXPECT_EQ(ObjSetStanza(oStanza.Get(), pSecond), TRUE);  // the first is the caller's again
    EXPECT_EQ(*ObjGetStanzaPointer(oStanza.Get()), pSecond);

    ObjHolder<ObjViewableS> oView;
    ASSERT_EQ(ObjViewableCreate(oView.Address(), 4, "name", pFirst), TRUE);
    StnzRelease(&pFirst);
    ObjViewInfoT tView = {};
    ASSERT_EQ(ObjGetViewInfo(&tView, oView.Get()), TRUE);
    EXPECT_EQ(std::tuple(tView.lType, std::string(tView.pstrName), tView.pStanza->pstrTitle),
              std::tuple(4, "name", std::string("first")));
}

TEST_F(WrapperTest, ValuesAreCopiedByTheirWidth) {
    StnzT* pStanza = NewStanza(nullptr, "title");
    auto* oUnique = ObjNew<ObjUniqueS>(ObjUniqueMagic, "u;");
    std::memset(&oUnique->tValue, 0x5a, sizeof(UniqueT));
    ObjStringO oString = ObjStringNew("text");
    const auto bytes = [](const auto& value) {
        return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
    };
    // Without a value none is handed out.
    for (auto [oObject, value] : std::initializer_list<std::pair<void*, std::string>>{
             {ObjBooleanNew(TRUE), bytes(int32{1})},
             {ObjIntegerNew(77), bytes(int32{77})},
             {ObjInt64New(-2), bytes(int64{-2})},
             {oString, bytes(ObjGetString(oString))},
             {ObjStanzaNew(pStanza), bytes(pStanza)},
             {oUnique, std::string(32, 0x5a)},
             {ListNew(), ""}}) {
        std::string result(40, 'x');
        EXPECT_EQ(ObjGetValue(result.data(), oObject), BooleanFrom(!value.empty()));
        EXPECT_EQ(result, value + std::string(40 - value.size(), 'x'));
        ObjReleaseInternal(&oObject);
    }
}

// --- walker ---

// Records what a walk is given; the answer decides.
struct WalkLog {
    std::function<ObjWalkResultE(void**)> answer = [](void**) { return eObjWalkResultContinue; };
    std::vector<void*> objects = {};

    BooleanT Walk(void** poSource) {
        const auto record = [](void* pCookie, void** poObject) {
            auto* log = static_cast<WalkLog*>(pCookie);
            log->objects.push_back(*poObject);
            return log->answer(poObject);
        };
        return ObjWalk(poSource, record, this, nullptr);
    }
    std::string Classes() const {
        std::string names;
        for (void* oObject : objects) names += std::string(ObjNameFromObject(oObject)) + " ";
        return names;
    }
};

constexpr int32 PairMagic = ObjMagic(0xcf000001);
struct PairS {
    void* oFirst;
    void* oSecond;
};
void* NewPair(void* oFirst, void* oSecond) {
    auto* oPair = ObjNew<PairS>(PairMagic, "o;o;");
    *oPair = {oFirst, oSecond};
    return oPair;
}

// Answers for objects of one class; all others are walked through.
auto AtClass(int32 lMagic, ObjWalkResultE eAnswer) {
    return [=](void** poObject) {
        const bool bClass = ObjCheckTypeInternal(*poObject, lMagic) == TRUE;
        return bClass ? eAnswer : eObjWalkResultContinue;
    };
}

constexpr int32 BackwardMagic = ObjMagic(0xcf000002);

class WalkTest : public ObjectTest {
 protected:
    // Templates stay for good: they are made before blocks are counted.
    static void SetUpTestSuite() {
        ObjTemplateNewInternal(sizeof(PairS), PairMagic, "o;o;", nullptr);
        ObjTemplateNewInternal(sizeof(void*), BackwardMagic, "l;", nullptr);
    }
};

template <class T>
T* Pushed(ListO oList, T* oItem) {
    T* oVariable = oItem;
    ListPushLastItem(oList, &oVariable);
    return oItem;
}

TEST_F(WalkTest, VisitsSharedObjectsOnceAndInOrder) {
    ListO oList = ListNew();
    ObjHolder<ObjIntegerS> oShared(ObjIntegerNew(1));
    ListSetCookie(oList, oShared.Get());
    ListAddLastItem(oList, oShared.Get());
    TreeO oTree = TreeNew();
    ObjStringO oText = ObjStringNew("x");
    TreeAddItem(oShared.Get(), TreePushRootItem(&oText, oTree), TREE_FIRST_CHILD);
    Pushed(oList, NewPair(oTree, ObjBooleanNew(TRUE)));
    void* oSource = oList;
    WalkLog log;
    EXPECT_EQ(log.Walk(&oSource), TRUE);
    EXPECT_EQ(log.Classes(),
              "LIST OBJ_INTEGER LISTNODE LISTNODE Unknown object magic 0xcf000001 TREE TREENODE "
              "OBJ_STRING TREENODE OBJ_BOOLEAN ");

    ObjWalkMapT tMap = ObjWalkMapNew();
    for (const auto fnChange : {ObjWalkMapAddObject, ObjWalkMapRemoveObject})
        for (const BooleanT result : {TRUE, FALSE}) EXPECT_EQ(fnChange(tMap, oList), result);
    ObjWalkMapRelease(&tMap);

    ObjCountEntryT* ptUsage = nullptr;
    ASSERT_EQ(ObjGetZeroedObjectCounts(&ptUsage), TRUE);
    EXPECT_EQ(ObjMonitorObject(oList, ptUsage, nullptr), TRUE);
    std::map<std::string, int32> counts, visited;
    for (int32 lEntry = 1; lEntry <= ptUsage->lCount; ++lEntry)
        if (const int32 lCount = ptUsage[lEntry].lCount; lCount != 0)
            counts[ObjNameFromMagic(ptUsage[lEntry].tTemplate->lMagic)] = lCount;
    for (void* oVisited : log.objects) ++visited[ObjNameFromObject(oVisited)];
    EXPECT_EQ(counts, visited);
    MemFree(&ptUsage);
    ObjReleaseInternal(&oSource);
}

TEST_F(WalkTest, PrunesItemsWithTheirPlaces) {
    ListO oList = ListNew();
    ObjHolder<ObjStringS> oText(ObjStringNew("x"));
    ListAddLastItem(oList, oText.Get());
    auto* oKept = Pushed(oList, ObjIntegerNew(1));
    ListAddLastItem(oList, oText.Get());
    TreeO oTree = Pushed(oList, TreeNew());
    TreeNodeO oNode = TreeAddRootItem(oKept, oTree);
    TreeNodeO oPruned = TreeAddItem(oText.Get(), oNode, TREE_FIRST_CHILD);
    TreeAddItem(oKept, oPruned, TREE_FIRST_CHILD);
    TreeAddItem(oKept, oNode, TREE_LAST_CHILD);
    auto* oPair = static_cast<PairS*>(Pushed(oList, NewPair(ObjStringNew("y"), ObjIntegerNew(2))));
    ListAddLastItem(oList, oText.Get());
    ObjReleaseInternal(&oList->oLast->oData);
    ListSetCookie(oList, oText.Get());
    void* oSource = oList;
    WalkLog log = {AtClass(ObjStringMagic, eObjWalkResultPrune)};
    EXPECT_EQ(log.Walk(&oSource), TRUE);
    EXPECT_EQ(Holders(oText.Get()), 1);
    EXPECT_EQ(oList->oCookie, nullptr);
    EXPECT_EQ(oList->lItemCount, 4);  // the node that held nothing stays
    EXPECT_EQ(TreeNodeChildCount(oNode), 1);
    EXPECT_EQ(Holders(oKept), 3);
    EXPECT_EQ(oPair->oFirst, nullptr);
    EXPECT_NE(oPair->oSecond, nullptr);

    log.answer = [](void**) { return eObjWalkResultPrune; };
    EXPECT_EQ(log.Walk(&oSource), TRUE);
    EXPECT_EQ(oSource, nullptr);
}

TEST_F(WalkTest, NodesAreSkippedAndPrunedByAnswer) {
    for (const ObjWalkResultE answer : {eObjWalkResultSkip, eObjWalkResultPrune}) {
        ObjHolder<ListS> oList(ListNew());
        Pushed(oList.Get(), ObjIntegerNew(1));
        Pushed(oList.Get(), ObjIntegerNew(1));
        ObjHolder<TreeS> oTree(TreeNew());
        TreeNodeO oNode = TreeAddRootItem(oList.Get()->oFirst->oData, oTree.Get());
        TreeAddItem(oNode->oData, oNode, TREE_FIRST_CHILD);
        TreeAddItem(oNode->oData, oNode, TREE_SIBLING_AFTER);
        for (void* oSource : {static_cast<void*>(oList.Get()), static_cast<void*>(oTree.Get())}) {
            WalkLog log = {[&](void** poObject) {
                return *poObject == oSource ? eObjWalkResultContinue : answer;
            }};
            EXPECT_EQ(log.Walk(&oSource), TRUE);
            EXPECT_EQ(log.objects.size(), 3U);
        }
        const bool bSkipped = answer == eObjWalkResultSkip;
        EXPECT_EQ(oList.Get()->lItemCount, bSkipped ? 2 : 0);
        EXPECT_EQ(TreeFirstNode(oTree.Get()) != nullptr, bSkipped);
    }
}

TEST_F(WalkTest, FollowsAReplacementInsteadOfTheOldObject) {
    ObjHolder<void> oShared(NewPair(ObjStringNew("old"), nullptr));
    ObjHolder<ListS> oList(ListNew());
    ListAddLastItem(oList.Get(), oShared.Get());
    ListAddLastItem(oList.Get(), oShared.Get());
    ObjHolder<void> oNew(NewPair(ObjIntegerNew(1), nullptr));
    WalkLog log = {[&](void** poObject) {
        if (*poObject != oShared.Get()) return eObjWalkResultContinue;
        ObjReleaseInternal(poObject);
        ObjIncRefCount(oNew.Get());
        *poObject = oNew.Get();
        return eObjWalkResultContinue;
    }};
    void* oSource = oList.Get();
    EXPECT_EQ(log.Walk(&oSource), TRUE);
    for (const ListNodeO oNode : {oList.Get()->oFirst, oList.Get()->oLast})
        EXPECT_EQ(oNode->oData, oNew.Get());
    // The second replacement is the first one's object, which was visited.
    const std::string pair = "Unknown object magic 0xcf000001 ";
    EXPECT_EQ(log.Classes(), "LIST LISTNODE " + pair + "OBJ_INTEGER LISTNODE " + pair);
}

TEST_F(WalkTest, AbortsWithAReason) {
    ObjHolder<ListS> oList(ListNew());
    Pushed(oList.Get(), ObjNew<void*>(BackwardMagic, "l;"));
    ObjHolder<TreeS> oTree(TreeNew());
    ObjIntegerO oItem = ObjIntegerNew(1);
    TreePushRootItem(&oItem, oTree.Get());
    // The node that gets another object in its place; else the walk is told to abort.
    const std::tuple<void*, int32, int32> cases[] = {
        {oList.Get(), 0, 120},  // a descriptor that points back
        {oList.Get(), ListNodeMagic, 124},
        {oTree.Get(), TreeNodeMagic, 123},
        {oTree.Get(), TreeMagic, 127},
        {oTree.Get(), 0, 0},  // nothing is traced
    };
    const IgnoreCrash ignore;
    for (const auto& [oStart, lReplaced, lNumber] : cases) {
        TraceCapture trace(0);
        WalkLog log = {AtClass(ObjIntegerMagic, eObjWalkResultAbort)};
        if (lReplaced != 0) {
            log.answer = [magic = lReplaced](void** poObject) {
                if (ObjCheckTypeInternal(*poObject, magic) == TRUE) *poObject = nullptr;
                return eObjWalkResultContinue;
            };
        }
        void* oSource = oStart;
        EXPECT_EQ(log.Walk(&oSource), FALSE);
        EXPECT_EQ(trace.Count("OBJWALK", lNumber), lNumber == 0 ? 0 : 1) << lNumber;
    }
    EXPECT_EQ(oList.Get()->lItemCount, 1);
    EXPECT_EQ(TreeFirstNode(oTree.Get())->oTree, oTree.Get());
}

TEST_F(WalkTest, DepthIsBoundedForLinksButNotForTrees) {
    for (const int32 lExtra : {0, 1}) {
        void* oSource = nullptr;
        for (int32 lDepth = 0; lDepth < ObjMaximumDepth + lExtra; ++lDepth)
            oSource = NewPair(nullptr, oSource);
        WalkLog log;
        TraceCapture trace(-1);
        EXPECT_EQ(log.Walk(&oSource), BooleanFrom(lExtra == 0));
        EXPECT_EQ(trace.Records().size(), static_cast<std::size_t>(lExtra));
        ObjReleaseInternal(&oSource);
    }
    ObjHolder<TreeS> oTree(TreeNew());
    ObjHolder<ObjIntegerS> oItem(ObjIntegerNew(1));
    TreeNodeO oNode = TreeAddRootItem(oItem.Get(), oTree.Get());
    for (int i = 1; i < 100000; ++i) oNode = TreeAddItem(oItem.Get(), oNode, TREE_LAST_CHILD);
    WalkLog log;
    void* oSource = oTree.Get();
    EXPECT_EQ(log.Walk(&oSource), TRUE);
    EXPECT_EQ(log.objects.size(), 100002U);
}

}  // namespace
