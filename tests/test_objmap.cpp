#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "core/list.h"
#include "core/map.h"
#include "core/objmap.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/objects.h"

namespace {

using Values = std::vector<int32>;

// Entries are equal when their thousands are.
int32 KeyOf(void* oEntry) { return static_cast<ObjIntegerO>(oEntry)->lValue / 1000; }
int32 Locate(void* oObject, void* oEntry) { return KeyOf(oObject) - KeyOf(oEntry); }
int32 FindKey(void* pKey, void* oEntry) { return *static_cast<int32*>(pKey) - KeyOf(oEntry); }

BooleanT Collect(void* oEntry, void* pValues) {
    EXPECT_EQ(ObjCheckTypeInternal(oEntry, ObjIntegerMagic), TRUE);
    static_cast<Values*>(pValues)->push_back(static_cast<ObjIntegerO>(oEntry)->lValue);
    return TRUE;
}
Values gReleased;  // what the release callback was given
void Release(void* oEntry) { Collect(oEntry, &gReleased); }
// Goes on while the argument, counted down, is above 0; the last result tells the rest.
BooleanT Countdown(void* /*oEntry*/, void* pCount) { return (*static_cast<int32*>(pCount))--; }

class ObjMap : public ObjectTest {
 protected:
    ObjMapO Make(int32 lGrowSize, ObjMapFindFnT fnFind = FindKey) {
        gReleased.clear();
        ObjMapCreateInternal(&m_oMap, ObjIntegerMagic, lGrowSize, Locate, fnFind, Release);
        return m_oMap;
    }
    void TearDown() override {
        if (m_oMap != nullptr) ObjRelease(&m_oMap);
        ObjectTest::TearDown();
    }
    BooleanT Insert(int32 lValue) {
        const ObjHolder<ObjIntegerS> oNew(ObjIntegerNew(lValue));
        return ObjMapInsert(m_oMap, oNew.Get());
    }
    ObjMapO m_oMap = nullptr;
};

// Random operations beside a model; small room and few keys, so that every case comes up.
TEST_F(ObjMap, AgreesWithModel) {
    std::mt19937 engine(11);
    ObjMapO oMap = Make(3);
    std::map<int32, int32> model;
    Values released;
    const auto erase = [&](int32 lKey) {
        if (model.count(lKey) == 0) return FALSE;
        released.push_back(model[lKey]);
        model.erase(lKey);
        return TRUE;
    };
    for (int32 lStep = 0; lStep < 20000; lStep++) {
        int32 lKey = static_cast<int32>(engine() % 40) + 1;
        const int32 lValue = lKey * 1000 + lStep % 1000;
        const ObjHolder<ObjIntegerS> oObject(ObjIntegerNew(lValue));
        const BooleanT bPresent = BooleanFrom(model.count(lKey) != 0);
        switch (engine() % 5) {
            case 0:
                ASSERT_EQ(ObjMapInsert(oMap, oObject.Get()), BooleanFrom(bPresent != TRUE));
                model.emplace(lKey, lValue);
                break;
            case 1:
                erase(lKey);
                model[lKey] = lValue;
                ASSERT_EQ(ObjMapUpdate(oMap, oObject.Get()), TRUE);
                break;
            case 2:
                ASSERT_EQ(ObjMapRemove(oMap, oObject.Get()), erase(lKey));
                break;
            case 3:
                ASSERT_EQ(ObjMapDelete(oMap, &lKey), erase(lKey));
                break;
            default:
                if (engine() % 200 != 0) break;
                for (lKey = 1; lKey <= 40; lKey++) erase(lKey);
                ASSERT_EQ(ObjMapReleaseEntries(oMap), TRUE);
        }
        Values all, backwards, expected;
        for (const auto& entry : model) expected.push_back(entry.second);
        ASSERT_EQ(ObjMapWalk(oMap, Collect, &all), TRUE);
        ASSERT_EQ(ObjMapWalkBackwards(oMap, Collect, &backwards), TRUE);
        ASSERT_EQ(all, expected);
        ASSERT_EQ(Values(backwards.rbegin(), backwards.rend()), expected);
        ASSERT_EQ(ObjMapSize(oMap), static_cast<int32>(expected.size()));
        ASSERT_EQ(ObjMapFind(nullptr, oMap, &lKey), BooleanFrom(model.count(lKey) != 0));
        ASSERT_EQ(std::exchange(gReleased, {}), std::exchange(released, {}));
        if (lStep < 19999) continue;
        ASSERT_FALSE(expected.empty());
        // What is left goes with the map, each entry through the callback while it is whole.
        EXPECT_EQ(ObjRelease(&m_oMap), TRUE);
        EXPECT_EQ(gReleased, expected);
    }
}

TEST_F(ObjMap, GrowsAt65AndSurvivesAFailedGrowth) {
    ObjMapO oMap = Make(0);
    for (int32 l = 1; l <= 64; l++) ASSERT_EQ(Insert(l * 1000), TRUE);
    // In a process of its own: blocks that the system refused are counted all the same.
    const RunResult refused = InChild([&] {
        const ObjHolder<ObjIntegerS> oNew(ObjIntegerNew(500));
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
    EXPECT_EQ(Insert(65000), TRUE);
    EXPECT_EQ(oMap->lMaximumEntries, 128);
    TraceCapture trace;
    EXPECT_EQ(Insert(65001), FALSE);
    EXPECT_EQ(trace.Text("OBJMAP", 5), "Object is already in map");
}

TEST_F(ObjMap, HandsOutHoldersAndStopsWhereTheCallbackSays) {
    ObjMapO oMap = Make(2, nullptr);  // objects are the keys
    for (int32 lValue : {3000, 1000, 2000}) Insert(lValue);
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
    // Put in its own place, an entry is not lost on the way.
    EXPECT_EQ(ObjMapUpdate(oMap, oSame.Get()), TRUE);
    EXPECT_EQ(Holders(oSame.Get()), 3);
    // The map is of another class than its entries.
    for (const auto fnOperation : {ObjMapInsert, ObjMapUpdate, ObjMapRemove}) {
        EXPECT_EQ(fnOperation(oMap, oMap), FALSE);
        EXPECT_EQ(fnOperation(static_cast<ObjMapO>(oFound.Get()), oSame.Get()), FALSE);
    }
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
