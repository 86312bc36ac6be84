#include "core/list.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

using Items = std::vector<void*>;

// The list holds exactly these items, and all its links are right.
void ExpectList(ListO oList, const Items& items) {
    ASSERT_EQ(oList->lItemCount, static_cast<int32>(items.size()));
    ListNodeO oPrevious = nullptr;
    ListNodeO oNode = oList->oFirst;
    for (void* item : items) {
        ASSERT_NE(oNode, nullptr);
        ASSERT_EQ(std::tuple(oNode->oData, oNode->oHeader, oNode->oPrevious, Holders(oNode)),
                  std::tuple(item, oList, oPrevious, 1));
        oPrevious = oNode;
        oNode = oNode->oNext;
    }
    ASSERT_EQ(oNode, nullptr);
    ASSERT_EQ(oList->oLast, oPrevious);
}

BooleanT SameValue(void* oA, void* oB) { return BooleanFrom(Value(oA) == Value(oB)); }

// Appends new numbers, which only the list holds.
Items PushNumbers(ListO oList, std::initializer_list<int32> values) {
    Items items;
    for (int32 lValue : values) {
        ObjIntegerO oItem = ObjIntegerNew(lValue);
        items.push_back(oItem);
        ListPushLastItem(oList, &oItem);
    }
    return items;
}

using ListTest = ObjectTest;

// --- random operations against vectors of the same items ---

class Lists {
 public:
    explicit Lists(unsigned seed) : m_random(seed) {
        for (int32 lValue = 0; lValue < 12; ++lValue)
            m_objects.push_back(ObjIntegerNew(lValue / 2));  // every value twice
    }
    ~Lists() {
        for (ListO& oList : m_lists) ObjRelease(&oList);
        for (void*& oObject : m_objects) {
            EXPECT_EQ(Holders(oObject), 1);
            ObjReleaseInternal(&oObject);
        }
    }

    void Step() {
        const std::size_t which = Below(3);
        const std::size_t other = Below(3);
        ListO oList = m_lists[which];
        Items& model = m_models[which];
        void* oItem = m_objects[Below(m_objects.size())];
        const std::size_t at = model.empty() ? 0 : Below(model.size());
        const auto place = model.begin() + static_cast<std::ptrdiff_t>(at);
        const bool first = Below(2) == 0;
        const auto end = first ? model.begin() : model.end();
        ListNodeO oNode = nullptr;
        if (!model.empty()) {
            const int32 lPosition = static_cast<int32>(at) + 1;
            ASSERT_EQ(ListGetNthNode(&oNode, oList, lPosition), TRUE);
            ASSERT_EQ(ListGetItemIndex(oNode), lPosition - 1);
            ObjHolder<void> oNth;
            ASSERT_EQ(ListGetNthItem(oNth.Address(), oList, lPosition), TRUE);
            ASSERT_EQ(oNth.Get(), *place);
        }
        switch (model.empty() ? Below(9) : model.size() > 30 ? 12 : Below(12)) {
            case 0:
                ASSERT_EQ((first ? ListAddFirstItem : ListAddLastItem)(oList, oItem), TRUE);
                model.insert(end, oItem);
                break;
            case 1: {
                ObjIncRefCount(oItem);
                void* oHeld = oItem;
                const auto fnPush = first ? ListPushFirstItemInternal : ListPushLastItemInternal;
                ASSERT_EQ(fnPush(oList, &oHeld), TRUE);
                ASSERT_EQ(oHeld, nullptr);
                model.insert(end, oItem);
                break;
            }
            case 2: {
                ObjHolder<void> oHeld;
                const auto fnPop = first ? ListPopFirstItemInternal : ListPopLastItemInternal;
                ASSERT_EQ(fnPop(oList, oHeld.Address()), BooleanFrom(!model.empty()));
                if (model.empty()) break;
                ASSERT_EQ(oHeld.Get(), first ? model.front() : model.back());
                model.erase(first ? end : end - 1);
                break;
            }
            case 3:
                ASSERT_EQ((first ? ListRemoveFirstItem : ListRemoveLastItem)(oList),
                          BooleanFrom(!model.empty()));
                if (!model.empty()) model.erase(first ? end : end - 1);
                break;
            case 4:    // also to itself
            case 5: {  // also with itself
                const bool joins = first, fits = joins || which == 0 || other != 0;
                const Items addition = m_models[other];
                if (joins) {
                    ListJoin(oList, m_lists[other]);
                } else {
                    ASSERT_EQ(ListAppend(oList, m_lists[other]), BooleanFrom(fits));
                }
                if (!fits || (joins && which == other)) break;
                model.insert(model.end(), addition.begin(), addition.end());
                if (joins) m_models[other].clear();
                break;
            }
            case 6: {
                const int32 lCount = static_cast<int32>(Below(model.size() + 2));
                const bool enough = lCount <= static_cast<int32>(model.size());
                ObjHolder<ListS> oCopy, oClone;
                ASSERT_EQ(ListClone(oClone.Address(), oList), TRUE);
                ASSERT_NO_FATAL_FAILURE(ExpectList(oClone.Get(), model));
                ASSERT_EQ(oClone.Get()->lItemMagic, 0);
                ASSERT_EQ(ListDuplicateRange(oCopy.Address(), oList, lCount), BooleanFrom(enough));
                ASSERT_EQ(oCopy.Get() != nullptr, enough);
                if (!enough) break;
                ExpectList(oCopy.Get(), {model.begin(), model.begin() + lCount});
                ASSERT_EQ(oCopy.Get()->lItemMagic, oList->lItemMagic);
                break;
            }
            case 7: {
                ASSERT_EQ(ListSort(oList, CompareValues), TRUE);
                // Equal items may come in any order.
                Items sorted;
                for (oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext)
                    sorted.push_back(oNode->oData);
                ASSERT_TRUE(std::ranges::is_permutation(sorted, model));
                ASSERT_TRUE(std::ranges::is_sorted(sorted, {}, Value));
                model = sorted;
                break;
            }
            case 8:
                ASSERT_EQ(ListAddUniqueItem(oList, SameValue, oItem), TRUE);
                if (std::ranges::count(model, Value(oItem), Value) == 0) model.push_back(oItem);
                break;
            case 9:
                ASSERT_EQ((first ? ListInsertBefore : ListInsertAfter)(oNode, oItem), TRUE);
                model.insert(first ? place : place + 1, oItem);
                break;
            case 10:
                ASSERT_EQ(ListRemoveItem(oNode), TRUE);
                model.erase(place);
                break;
            case 11:
                ASSERT_EQ(first ? ListSetNthItem(oItem, oList, static_cast<int32>(at) + 1)
                                : ListNodeReplaceObject(oNode, oItem),
                          TRUE);
                *place = oItem;
                break;
            default:
                ASSERT_EQ(which == 0 ? ListAddObject(oList, oItem) : ListReleaseAll(oList), TRUE);
                model = which == 0 ? Items{oItem} : Items{};  // all items are of one class
                break;
        }
        for (std::size_t i = 0; i < 3; ++i) {
            ASSERT_NO_FATAL_FAILURE(ExpectList(m_lists[i], m_models[i]));
            ASSERT_EQ(ListVerify(m_lists[i]), TRUE);
        }
        for (void* oObject : m_objects) {
            std::ptrdiff_t uses = 1;
            for (const Items& all : m_models) uses += std::ranges::count(all, oObject);
            ASSERT_EQ(Holders(oObject), uses);
        }
    }

 private:
    std::size_t Below(std::size_t end) { return m_random() % end; }

    std::mt19937 m_random;
    Items m_objects;
    ListO m_lists[3] = {ListNew(), ListNew(ObjIntegerMagic), ListNew(ObjIntegerMagic)};
    Items m_models[3];
};

TEST_F(ListTest, RandomOperationsAgreeWithAModel) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(seed);
        Lists lists(seed);
        for (int step = 0; step < 2000; ++step) {
            SCOPED_TRACE(step);
            ASSERT_NO_FATAL_FAILURE(lists.Step());
        }
    }
}

// --- walking, searching ---

struct Visits {
    std::size_t stopAfter = 1000;
    bool remove = false;
    Items items = {};
};

BooleanT Visit(void* pCookie, ListNodeO oNode) {
    auto* visits = static_cast<Visits*>(pCookie);
    visits->items.push_back(oNode->oData);
    if (visits->remove) ListRemoveItem(oNode);
    return visits->items.size() < visits->stopAfter ? TRUE : 7;
}

BooleanT IsOdd(void* /*pCookie*/, void* oItem) { return Value(oItem) % 2 == 0 ? 0 : 5; }

TEST_F(ListTest, WalksAndSearchesInBothDirections) {
    ObjHolder<ListS> oList(ListNew());
    const Items items = PushNumbers(oList.Get(), {0, 1, 2, 3, 4, 5});
    ListNodeO oNode = nullptr;
    EXPECT_EQ(ListFindNode(&oNode, oList.Get(), items[3]), TRUE);
    EXPECT_EQ(oNode->oData, items[3]);
    for (const bool backwards : {false, true}) {
        const auto fnWalk = backwards ? ListWalkBackwards : ListWalk;
        const auto fnSearch = backwards ? ListSearchBackwards : ListSearch;
        Items expected = items;
        if (backwards) std::ranges::reverse(expected);
        ObjHolder<ListS> oCopy;
        ASSERT_EQ(ListDuplicate(oCopy.Address(), oList.Get()), TRUE);
        Visits all = {.remove = true}, part = {.stopAfter = 2};
        EXPECT_EQ(fnWalk(oCopy.Get(), Visit, &part), 7);
        EXPECT_EQ(part.items, Items(expected.begin(), expected.begin() + 2));
        for (int times = 0; times < 2; times++)  // then empty
            EXPECT_EQ(fnWalk(oCopy.Get(), Visit, &all), TRUE);
        EXPECT_EQ(all.items, expected);
        ExpectList(oCopy.Get(), {});
        EXPECT_EQ(fnSearch(oList.Get(), IsOdd, nullptr, &oNode), TRUE);
        EXPECT_EQ(oNode->oData, backwards ? items[5] : items[1]);
    }
}

int32 Undecided(void* /*oA*/, void* /*oB*/) { return 2; }

int32 Descending(void* oA, void* oB, void* pvCookie) {
    ++*static_cast<int*>(pvCookie);
    return CompareValues(oB, oA);
}

TEST_F(ListTest, SortPassesTheCookieAndKeepsAllItemsWhenTheComparisonFails) {
    ObjHolder<ListS> oList(ListNew(ObjIntegerMagic));
    const Items items = PushNumbers(oList.Get(), {3, 1, 2});
    int calls = 0;
    EXPECT_EQ(ListSortWithCookie(oList.Get(), Descending, &calls), TRUE);
    EXPECT_GT(calls, 0);
    ExpectList(oList.Get(), {items[0], items[2], items[1]});
    EXPECT_EQ(ListSort(oList.Get(), Undecided), TRUE);
    EXPECT_EQ(oList.Get()->lItemCount, 3);
    for (void* oItem : items) EXPECT_EQ(ListFindNode(nullptr, oList.Get(), oItem), TRUE);
}

// --- sets by class, extension lists, cookie ---

TEST_F(ListTest, HoldsOneObjectPerClass) {
    ObjHolder<ListS> oList(ListNew());
    ObjStringO oString = ObjStringNew("a");
    void* oText = oString;
    ListPushLastItem(oList.Get(), &oString);
    // The list has the only holder of the object that is put in its own place.
    ASSERT_EQ(ListAddObject(oList.Get(), oText), TRUE);
    ASSERT_EQ(ListSetNthItem(oText, oList.Get(), 1), TRUE);
    ExpectList(oList.Get(), {oText});
    EXPECT_EQ(Holders(oText), 1);

    ObjHolder<ObjBooleanS> oBoolean(ObjBooleanNew(TRUE));
    ASSERT_EQ(ListAddObject(oList.Get(), oBoolean.Get()), TRUE);
    void* oPushed = oText = ObjStringNew("b");
    ASSERT_EQ(ListPushObjectInternal(oList.Get(), &oPushed), TRUE);
    ExpectList(oList.Get(), {oBoolean.Get(), oText});

    ObjHolder<void> oFound, oPopped;
    EXPECT_EQ(ListFindObjectInternal(oFound.Address(), oList.Get(), ObjStringMagic), TRUE);
    EXPECT_EQ(ListFindObjectInternal(nullptr, oList.Get(), -1), FALSE);
    EXPECT_EQ(ListPopObjectInternal(oPopped.Address(), oList.Get(), ObjStringMagic), TRUE);
    EXPECT_EQ(std::pair(oFound.Get(), oPopped.Get()), std::pair(oText, oText));
    EXPECT_EQ(ListRemoveObjectInternal(oList.Get(), ObjBooleanMagic), TRUE);
    ExpectList(oList.Get(), {});
}

TEST_F(ListTest, ExtensionListKeepsTheLastObjectOfAClass) {
    ObjHolder<void> oExtension, oFound;
    ObjHolder<ObjIntegerS> oFirst(ObjIntegerNew(1)), oSecond(ObjIntegerNew(2));
    for (const auto* oItem : {&oFirst, &oSecond})
        ASSERT_EQ(ListSetExtensionItem(oExtension.Address(), oItem->Get()), TRUE);
    auto* oList = static_cast<ListO>(oExtension.Get());
    ExpectList(oList, {oSecond.Get()});
    EXPECT_EQ(ListGetExtensionItem(oFound.Address(), oList, ObjIntegerMagic), TRUE);
    EXPECT_EQ(oFound.Get(), oSecond.Get());
    EXPECT_EQ(ListGetExtensionItem(nullptr, oList, ObjStringMagic), FALSE);
    EXPECT_EQ(ListRemoveExtensionItem(oList, ObjIntegerMagic), TRUE);
    ExpectList(oList, {});
    void* oNoList = oFirst.Get();
    EXPECT_EQ(ListSetExtensionItem(&oNoList, oSecond.Get()), FALSE);
}

// --- memory, size, wrong arguments ---

TEST_F(ListTest, NodesAndCookieComeAndGoWithTheList) {
    CountingPool pool;
    ListO oList = ListNewFromPool(0, &pool);
    ObjHolder<ObjIntegerS> oItem(ObjIntegerNew(1));
    ListAddFirstItem(oList, oItem.Get());
    ListInsertAfter(oList->oFirst, oItem.Get());
    EXPECT_EQ(pool.live, 3);
    for (int times = 0; times < 2; times++) EXPECT_EQ(ListSetCookie(oList, oItem.Get()), TRUE);
    EXPECT_EQ(Holders(oItem.Get()), 4);
    ObjRelease(&oList);
    EXPECT_EQ(Holders(oItem.Get()), 1);
    EXPECT_EQ(pool.live, 0);
}

TEST_F(ListTest, LongListNeedsNoStack) {
    constexpr int32 lLength = 1000000;
    ObjHolder<ListS> oList(ListNew(ObjIntegerMagic));
    ObjHolder<ObjIntegerS> oItem(ObjIntegerNew(1));
    for (int32 lDone = 0; lDone < lLength; ++lDone) ListAddLastItem(oList.Get(), oItem.Get());
    ObjHolder<void> oCopy;
    ASSERT_EQ(ObjDuplicateInternal(oCopy.Address(), oList.Get(), TRUE), TRUE);
    EXPECT_EQ(static_cast<ListO>(oCopy.Get())->lItemCount, lLength);
    EXPECT_EQ(static_cast<ListO>(oCopy.Get())->lItemMagic, ObjIntegerMagic);
    EXPECT_EQ(Holders(oItem.Get()), lLength + 1);
    ObjRelease(oList.Address());
    EXPECT_EQ(Holders(oItem.Get()), 1);
}

TEST_F(ListTest, RefusesWrongArguments) {
    ObjHolder<ListS> oTyped(ListNew(ObjIntegerMagic)), oUntyped(ListNew());
    ObjHolder<ObjIntegerS> oNumber(ObjIntegerNew(1));
    ObjHolder<ObjStringS> oText(ObjStringNew("x"));
    ListAddLastItem(oTyped.Get(), oNumber.Get());
    ListO oList = oTyped.Get();
    void* oWrong = oText.Get();
    auto* oNoList = static_cast<ListO>(oWrong);
    int32 lCount = 0;
    const std::pair<std::function<BooleanT()>, const char*> cases[] = {
        {[&] { return ListAddFirstItem(oNoList, oWrong); }, "Not a list"},
        {[&] { return ListAddLastItem(oList, oWrong); }, "Invalid Object OBJ_STRING"},
        {[&] { return ListPushFirstItemInternal(oList, &oWrong); },
         "Invalid Object 'OBJ_STRING' not 'OBJ_INTEGER'"},
        {[&] { return ListGetItemCount(oNoList, &lCount) + 1; }, "ListGetItemCount - not a list"},
        {[] { return ListCleanup(), FALSE; }, "ListCleanup"},  // and no more
    };
    for (const auto& [call, text] : cases) {
        TraceCapture trace;
        EXPECT_EQ(call(), FALSE) << text;
        EXPECT_EQ(trace.CountText(text), 1) << text;
    }
    EXPECT_EQ(oWrong, oText.Get());
    for (const BooleanT bResult :
         {ListInsertAfter(oList->oFirst, oWrong), ListNodeReplaceObject(oList->oFirst, oWrong),
          ListRemoveItem(static_cast<ListNodeO>(oWrong)), ListAddLastItem(oUntyped.Get(), nullptr),
          ListAddObject(oList, oNumber.Get())})
        EXPECT_EQ(bResult, FALSE);
    TraceCapture quiet(-1);
    for (const int32 lPosition : {0, 2})
        EXPECT_EQ(ListGetNthItem(&oWrong, oList, lPosition), FALSE);
    EXPECT_TRUE(quiet.Records().empty());
    ExpectList(oTyped.Get(), {oNumber.Get()});
    ExpectList(oUntyped.Get(), {});
}

}  // namespace
