#include <cerrno>

#include "core/list.h"
#include "core/map.h"
#include "core/objmap.h"
#include "core/path.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/mapmodel.h"
#include "support/objects.h"

namespace {

// Keys are in the upper half of the numbers.
constexpr int32 Keys = 1 << 16;
int32 KeyOf(void* oEntry) { return Value(oEntry) >> 16; }
int32 Locate(void* oObject, void* oEntry) { return KeyOf(oObject) - KeyOf(oEntry); }
int32 FindKey(void* pKey, void* oEntry) { return *static_cast<int32*>(pKey) - KeyOf(oEntry); }

BooleanT Collect(void* oEntry, void* pEntries) {
    EXPECT_EQ(ObjCheckTypeInternal(oEntry, ObjIntegerMagic), TRUE);
    static_cast<Entries*>(pEntries)->emplace_back(KeyOf(oEntry), Value(oEntry) & (Keys - 1));
    return TRUE;
}
Entries gReleased;  // what the release callback was given
void Release(void* oEntry) { Collect(oEntry, &gReleased); }
// Goes on while the argument, counted down, is above 0; the last result tells the rest.
BooleanT Countdown(void* /*oEntry*/, void* pCount) { return (*static_cast<int32*>(pCount))--; }

class ObjMap : public ObjectTest {
 public:
    ObjMapO Make(int32 lGrowSize, ObjMapFindFnT fnFind = FindKey) {
        ObjMapCreateInternal(&m_oMap, ObjIntegerMagic, lGrowSize, Locate, fnFind, Release);
        return m_oMap;
    }
    BooleanT Insert(int32 lKey, int32 lValue = 0) { return With(ObjMapInsert, lKey, lValue); }
    BooleanT Update(int32 lKey, int32 lValue) { return With(ObjMapUpdate, lKey, lValue); }
    BooleanT Remove(int32 lKey) { return With(ObjMapRemove, lKey, 0); }
    BooleanT Delete(int32 lKey) { return ObjMapDelete(m_oMap, &lKey); }
    void Find(int32 lKey, const int32* plValue) {
        ObjHolder<void> oFound;
        ASSERT_EQ(ObjMapFind(nullptr, m_oMap, &lKey), BooleanFrom(plValue != nullptr));
        ASSERT_EQ(ObjMapFind(oFound.Address(), m_oMap, &lKey), BooleanFrom(plValue != nullptr));
        ASSERT_TRUE(plValue == nullptr || Value(oFound.Get()) == lKey * Keys + *plValue);
    }
    BooleanT ReleaseAll() { return ObjMapReleaseEntries(m_oMap); }
    void ReleaseMap() { EXPECT_EQ(ObjRelease(&m_oMap), TRUE); }
    Entries Contents() {
        Entries all, backwards;
        EXPECT_EQ(ObjMapWalk(m_oMap, Collect, &all), TRUE);
        EXPECT_EQ(ObjMapWalkBackwards(m_oMap, Collect, &backwards), TRUE);
        EXPECT_EQ(Entries(backwards.rbegin(), backwards.rend()), all);
        EXPECT_EQ(ObjMapSize(m_oMap), static_cast<int32>(all.size()));
        return all;
    }
    static Entries Released() { return std::exchange(gReleased, {}); }

 protected:
    void TearDown() override {
        if (m_oMap != nullptr) ReleaseMap();
        Released();
        ObjectTest::TearDown();
    }
    ObjMapO m_oMap = nullptr;

 private:
    BooleanT With(BooleanT (*fnOperation)(ObjMapO, void*), int32 lKey, int32 lValue) {
        const ObjHolder<ObjIntegerS> oNew(ObjIntegerNew(lKey * Keys + lValue));
        return fnOperation(m_oMap, oNew.Get());
    }
};

TEST_F(ObjMap, AgreesWithModel) {
    Make(3);
    ExpectLikeModel(*this, 11);
}

TEST_F(ObjMap, GrowsAt65AndSurvivesAFailedGrowth) {
    ObjMapO oMap = Make(0);
    for (int32 l = 1; l <= 64; l++) ASSERT_EQ(Insert(l), TRUE);
    // In a process of its own: blocks that the system refused are counted all the same.
    const RunResult refused = InChild([&] {
        const ObjHolder<ObjIntegerS> oNew(ObjIntegerNew(5));
        const IgnoreCrash ignore;
        TraceCapture trace;
        FaultArm({.call = Call::Malloc, .error = ENOMEM, .times = FaultForEver});
        const BooleanT bInserted = ObjMapInsert(oMap, oNew.Get());
        FaultDisarm();
        return bInserted == FALSE && Holders(oNew.Get()) == 1 && oMap->lMaximumEntries == 64 &&
                       trace.Text("OBJMAP", 6).starts_with("ObjMapIsert: failed MemAllocate of ") &&
                       trace.Level("OBJMAP", 6) == -1 && ObjMapInsert(oMap, oNew.Get()) == TRUE
                   ? 0
                   : 1;
    });
    EXPECT_EQ(refused.exitCode, 0);
    EXPECT_EQ(oMap->lMaximumEntries, 64);
    EXPECT_EQ(Insert(65), TRUE);
    EXPECT_EQ(oMap->lMaximumEntries, 128);
    TraceCapture trace;
    EXPECT_EQ(Insert(65, 1), FALSE);
    EXPECT_EQ(trace.Text("OBJMAP", 5), "Object is already in map");
}

TEST_F(ObjMap, HandsOutHoldersAndStopsWhereTheCallbackSays) {
    ObjMapO oMap = Make(2, nullptr);  // objects are the keys
    for (int32 lKey : {3, 1, 2}) Insert(lKey);
    int32 lCount = 0;
    EXPECT_EQ(ObjMapWalk(oMap, Countdown, &(lCount = 5)), 3);
    EXPECT_EQ(ObjMapWalkBackwards(oMap, Countdown, &(lCount = 1)), FALSE);
    EXPECT_EQ(lCount, -1);
    const auto fnWanted = [](void* oEntry, void*) { return BooleanT{KeyOf(oEntry) >= 2 ? 2 : 0}; };
    ObjHolder<void> oFound, oSame;
    EXPECT_EQ(ObjMapSearch(oFound.Address(), oMap, fnWanted, nullptr), TRUE);
    EXPECT_EQ(KeyOf(oFound.Get()), 2);
    EXPECT_EQ(ObjMapFind(oSame.Address(), oMap, oFound.Get()), TRUE);
    EXPECT_EQ(Holders(oSame.Get()), 3);
    // The map is of another class than its entries.
    for (const auto fnOperation : {ObjMapInsert, ObjMapUpdate, ObjMapRemove}) {
        EXPECT_EQ(fnOperation(oMap, oMap), FALSE);
        EXPECT_EQ(fnOperation(static_cast<ObjMapO>(oFound.Get()), oSame.Get()), FALSE);
    }
    // Put in its own place, an entry that only the map holds is not lost on the way.
    void* oOnly = oFound.Get();
    for (ObjHolder<void>* oHolder : {&oFound, &oSame}) ObjRelease(oHolder->Address());
    EXPECT_EQ(ObjMapUpdate(oMap, oOnly), TRUE);
    EXPECT_EQ(Holders(oOnly), 1);
    EXPECT_EQ(ObjMapCreateInternal(&oMap, ObjIntegerMagic, 1 << 30, Locate, nullptr, nullptr),
              FALSE);
}

// A copy would hold the same pointers and release them a second time.
TEST(ObjMapCopy, WhatOwnsByPointerHasNone) {
    ObjHolder<ObjMapS> oObjMap;
    ObjMapCreateInternal(oObjMap.Address(), ObjIntegerMagic, 1, Locate, nullptr, nullptr);
    const ObjHolder<ObjIntegerS> oInteger(ObjIntegerNew(1000));
    ASSERT_EQ(ObjMapInsert(oObjMap.Get(), oInteger.Get()), TRUE);
    ObjHolder<MapS> oMap;
    ASSERT_EQ(MapCreate(oMap.Address(), 4, 1, Locate, nullptr, nullptr), TRUE);
    Dir directory;
    ObjHolder<PathLockS> oLock;
    ASSERT_EQ(PathLock(oLock.Address(), directory.Path().c_str(), FileLockShared), ePROK);
    const ObjHolder<ListS> oList(ListNew());
    ListAddLastItem(oList.Get(), oObjMap.Get());
    for (void* oSource : {static_cast<void*>(oObjMap.Get()), static_cast<void*>(oMap.Get()),
                          static_cast<void*>(oLock.Get()), static_cast<void*>(oList.Get())}) {
        const Leftovers before;
        void* oCopy = nullptr;
        TraceCapture trace;
        EXPECT_EQ(ObjDuplicateInternal(&oCopy, oSource, TRUE), FALSE);
        EXPECT_EQ(ObjDuplicate(&oCopy, oSource), FALSE);
        EXPECT_EQ(trace.Count("OBJECT", 185) + trace.Count("OBJECT", 184), 2);
        EXPECT_EQ(oCopy, nullptr);
        EXPECT_EQ(before.Text(), "");
    }
    PathUnLock(oLock.Address());
}

}  // namespace
