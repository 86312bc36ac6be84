#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "core/map.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "support/support.h"

namespace {

struct Entry {
    int32 key;
    int32 value;
};
using Entries = std::vector<std::pair<int32, int32>>;

Entries gReleased;  // entries that the release callback was given

int32 FindKey(void* key, void* entry) {
    return *static_cast<int32*>(key) - static_cast<Entry*>(entry)->key;
}
int32 LocateEntry(void* a, void* b) {
    return static_cast<Entry*>(a)->key - static_cast<Entry*>(b)->key;
}
void ReleaseEntry(void* entry) {
    const auto* e = static_cast<Entry*>(entry);
    gReleased.emplace_back(e->key, e->value);
}
BooleanT Collect(void* entry, void* entries) {
    const auto* e = static_cast<Entry*>(entry);
    static_cast<Entries*>(entries)->emplace_back(e->key, e->value);
    return TRUE;
}

Entries Contents(MapO map) {
    Entries entries;
    EXPECT_EQ(MapWalk(map, Collect, &entries), TRUE);
    return entries;
}

class Map : public testing::Test {
 protected:
    void SetUp() override { gReleased.clear(); }
    MapO Make(int32 growSize, MapReleaseFnT release = ReleaseEntry) {
        EXPECT_EQ(
            MapCreate(m_map.Address(), sizeof(Entry), growSize, LocateEntry, FindKey, release),
            TRUE);
        return m_map.Get();
    }
    BooleanT Insert(int32 key, int32 value) {
        Entry entry = {key, value};
        return MapInsertEntry(m_map.Get(), &entry);
    }
    ObjHolder<MapS> m_map;
};

}  // namespace

TEST_F(Map, CreateChecksItsArguments) {
    MapO map = nullptr;
    EXPECT_EQ(MapCreate(nullptr, 8, 4, LocateEntry, FindKey, nullptr), FALSE);
    EXPECT_EQ(MapCreate(&map, 0, 4, LocateEntry, FindKey, nullptr), FALSE);
    EXPECT_EQ(MapCreate(&map, 8, -1, LocateEntry, FindKey, nullptr), FALSE);
    EXPECT_EQ(MapCreate(&map, 8, 4, nullptr, FindKey, nullptr), FALSE);
    EXPECT_EQ(MapCreate(&map, 1 << 20, 1 << 20, LocateEntry, FindKey, nullptr), FALSE);
    EXPECT_EQ(map, nullptr);

    TraceCapture trace;
    Make(3);
    EXPECT_NE(trace.Text("MAP", 3).find(", 8, 3, "), std::string::npos);
}

TEST_F(Map, RoomGrowsByTheGrowSize) {
    MapO map = Make(2);
    std::vector<int32> room;
    for (int32 key = 5; key > 0; --key) {
        EXPECT_EQ(Insert(key, -key), TRUE);
        room.push_back(map->lMaximumEntries);
    }
    EXPECT_EQ(room, (std::vector<int32>{2, 2, 4, 4, 6}));

    ObjHolder<MapS> standard;
    ASSERT_EQ(MapCreate(standard.Address(), sizeof(Entry), 0, LocateEntry, nullptr, nullptr), TRUE);
    for (int32 key = 0; key < 65; ++key) {
        EXPECT_EQ(standard.Get()->lMaximumEntries, 64);
        Entry entry = {key, 0};
        EXPECT_EQ(MapInsertEntry(standard.Get(), &entry), TRUE);
    }
    EXPECT_EQ(standard.Get()->lMaximumEntries, 128);
    Entry entry = {64, 0};
    EXPECT_EQ(MapFindEntry(nullptr, standard.Get(), &entry),
              TRUE);  // found with the other function
}

TEST_F(Map, DuplicatesAndUpdates) {
    MapO map = Make(4);
    Insert(1, 10);
    TraceCapture trace;
    EXPECT_EQ(Insert(1, 11), FALSE);
    EXPECT_EQ(trace.Text("MAP", 5), "Entry is already in map");
    Entry entry = {1, 12};
    EXPECT_EQ(MapUpdateEntry(map, &entry), TRUE);
    EXPECT_EQ(trace.Count("MAP", 4), 1);  // updating is silent
}

TEST_F(Map, WalkAndSearchStop) {
    MapO map = Make(4);
    void* found = nullptr;
    const auto reject = [](void*, void* calls) {
        ++*static_cast<int*>(calls);
        return FALSE;
    };
    int calls = 0;
    EXPECT_EQ(MapWalk(map, reject, &calls), TRUE);
    EXPECT_EQ(MapSearch(&found, map, reject, &calls), FALSE);
    EXPECT_EQ(calls, 0);

    for (int32 key : {3, 1, 2}) Insert(key, key * 10);
    EXPECT_EQ(MapWalk(map, reject, &calls), FALSE);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(MapSearch(&found, map, reject, &calls), FALSE);
    EXPECT_EQ(calls, 4);
    const auto wanted = [](void* entry, void* key) {
        return BooleanFrom(static_cast<Entry*>(entry)->key >= *static_cast<int32*>(key));
    };
    int32 key = 2;
    EXPECT_EQ(MapSearch(&found, map, wanted, &key), TRUE);
    EXPECT_EQ(static_cast<Entry*>(found)->value, 20);
    const auto two = [](void*, void*) -> BooleanT { return 2; };
    EXPECT_EQ(MapWalk(map, two, nullptr), 2);
}

TEST_F(Map, RefusesWhatIsNoMap) {
    ObjHolder<ObjIntegerS> integer(ObjIntegerNew(5));
    Entry entry = {1, 1};
    Entry copy = {7, 7};
    void* found = nullptr;
    for (MapO wrong : {MapO{nullptr}, reinterpret_cast<MapO>(integer.Get())}) {
        for (const auto function : {MapInsertEntry, MapUpdateEntry, MapRemoveEntry, MapDeleteEntry})
            EXPECT_EQ(function(wrong, &entry), FALSE);
        EXPECT_EQ(MapFindEntry(&found, wrong, &entry), FALSE);
        EXPECT_EQ(MapFindAndCopyEntry(&copy, wrong, &entry), FALSE);
        EXPECT_EQ(MapWalk(wrong, Collect, nullptr), FALSE);
        EXPECT_EQ(MapSearch(&found, wrong, Collect, nullptr), FALSE);
        EXPECT_EQ(MapReleaseEntries(wrong), FALSE);
        EXPECT_EQ(MapSize(wrong), -1);
    }
}

// Releasing the object releases the entries while they are still there, and frees all memory.
TEST_F(Map, ReleaseGivesEveryEntryToTheCallback) {
    const int32 blocks = MemUsedCount();
    MapO map = Make(2);
    for (int32 key : {2, 3, 1}) Insert(key, key + 100);
    const Entries all = {{1, 101}, {2, 102}, {3, 103}};
    EXPECT_EQ(MapReleaseEntries(map), TRUE);
    EXPECT_EQ(std::exchange(gReleased, {}), all);
    EXPECT_EQ(MapSize(map), 0);
    EXPECT_EQ(map->lMaximumEntries, 4);

    for (int32 key : {3, 1, 2}) Insert(key, key + 100);
    EXPECT_EQ(ObjRelease(m_map.Address()), TRUE);
    EXPECT_EQ(gReleased, all);
    EXPECT_EQ(MemUsedCount(), blocks);
}

// Random operations beside a model; small room and few keys, so that every case comes up.
TEST_F(Map, AgreesWithModel) {
    std::mt19937 engine(7);
    MapO map = Make(3);
    std::map<int32, int32> model;
    Entries released;
    const auto erase = [&](int32 key) {
        const auto found = model.find(key);
        if (found == model.end()) return FALSE;
        released.push_back(*found);
        model.erase(found);
        return TRUE;
    };
    for (int step = 0; step < 20000; ++step) {
        int32 key = static_cast<int32>(engine() % 40) - 20;
        Entry entry = {key, step};
        switch (engine() % 6) {
            case 0:
                ASSERT_EQ(MapInsertEntry(map, &entry),
                          BooleanFrom(model.emplace(key, step).second));
                break;
            case 1:
                if (const auto found = model.find(key); found != model.end())
                    released.push_back(*found);
                model[key] = step;
                ASSERT_EQ(MapUpdateEntry(map, &entry), TRUE);
                break;
            case 2:
                ASSERT_EQ(MapRemoveEntry(map, &entry), erase(key));
                break;
            case 3:
                ASSERT_EQ(MapDeleteEntry(map, &key), erase(key));
                break;
            case 4: {
                void* found = nullptr;
                Entry copy = {0, -1};
                const auto expected = model.find(key);
                const BooleanT present = BooleanFrom(expected != model.end());
                ASSERT_EQ(MapFindEntry(&found, map, &key), present);
                ASSERT_EQ(MapFindEntry(nullptr, map, &key), present);
                ASSERT_EQ(MapFindAndCopyEntry(&copy, map, &key), present);
                ASSERT_EQ(copy.value, present == TRUE ? expected->second : -1);
                ASSERT_EQ(found != nullptr, present == TRUE);
                break;
            }
            default:
                if (engine() % 200 == 0) {
                    released.insert(released.end(), model.begin(), model.end());
                    model.clear();
                    ASSERT_EQ(MapReleaseEntries(map), TRUE);
                }
        }
        ASSERT_EQ(MapSize(map), static_cast<int32>(model.size()));
        ASSERT_EQ(Contents(map), Entries(model.begin(), model.end()));
        ASSERT_EQ(std::exchange(gReleased, {}), std::exchange(released, {}));
    }
}
