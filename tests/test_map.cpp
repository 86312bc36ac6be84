#include <string>

#include "core/map.h"
#include "support/mapmodel.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

struct Entry {
    int32 key;
    int32 value;
};
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

class Map : public ObjectTest {
 public:
    MapO Make(int32 growSize) {
        EXPECT_EQ(
            MapCreate(m_map.Address(), sizeof(Entry), growSize, LocateEntry, FindKey, ReleaseEntry),
            TRUE);
        return m_map.Get();
    }
    BooleanT Insert(int32 key, int32 value) { return With(MapInsertEntry, key, value); }
    BooleanT Update(int32 key, int32 value) { return With(MapUpdateEntry, key, value); }
    BooleanT Remove(int32 key) { return With(MapRemoveEntry, key, 0); }
    BooleanT Delete(int32 key) { return MapDeleteEntry(m_map.Get(), &key); }
    void Find(int32 key, const int32* value) {
        void* found = nullptr;
        Entry copy = {0, -1};
        const BooleanT present = BooleanFrom(value != nullptr);
        ASSERT_EQ(MapFindEntry(&found, m_map.Get(), &key), present);
        ASSERT_EQ(MapFindEntry(nullptr, m_map.Get(), &key), present);
        ASSERT_EQ(MapFindAndCopyEntry(&copy, m_map.Get(), &key), present);
        ASSERT_EQ(copy.value, value != nullptr ? *value : -1);
        ASSERT_EQ(found != nullptr, value != nullptr);
    }
    BooleanT ReleaseAll() { return MapReleaseEntries(m_map.Get()); }
    void ReleaseMap() { EXPECT_EQ(ObjRelease(m_map.Address()), TRUE); }
    Entries Contents() {
        Entries entries;
        EXPECT_EQ(MapWalk(m_map.Get(), Collect, &entries), TRUE);
        EXPECT_EQ(MapSize(m_map.Get()), static_cast<int32>(entries.size()));
        return entries;
    }
    static Entries Released() { return std::exchange(gReleased, {}); }

 protected:
    void TearDown() override {
        if (m_map.Get() != nullptr) ReleaseMap();
        Released();
        ObjectTest::TearDown();
    }
    ObjHolder<MapS> m_map;

 private:
    BooleanT With(BooleanT (*function)(MapO, void*), int32 key, int32 value) {
        Entry entry = {key, value};
        return function(m_map.Get(), &entry);
    }
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
    EXPECT_EQ(ReleaseAll(), TRUE);
    EXPECT_EQ(map->lMaximumEntries, 6);

    ObjHolder<MapS> standard;  // the function that gives the order also finds
    ASSERT_EQ(MapCreate(standard.Address(), sizeof(Entry), 0, LocateEntry, nullptr, nullptr), TRUE);
    for (Entry entry = {0, 0}; entry.key < 65; ++entry.key) {
        EXPECT_EQ(standard.Get()->lMaximumEntries, 64);
        EXPECT_EQ(MapInsertEntry(standard.Get(), &entry), TRUE);
        EXPECT_EQ(MapFindEntry(nullptr, standard.Get(), &entry), TRUE);
    }
    EXPECT_EQ(standard.Get()->lMaximumEntries, 128);
}

TEST_F(Map, DuplicatesAndUpdates) {
    Make(4);
    Insert(1, 10);
    TraceCapture trace;
    EXPECT_EQ(Insert(1, 11), FALSE);
    EXPECT_EQ(trace.Text("MAP", 5), "Entry is already in map");
    EXPECT_EQ(Update(1, 12), TRUE);
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

TEST_F(Map, AgreesWithModel) {
    Make(3);
    ExpectLikeModel(*this, 7);
}
