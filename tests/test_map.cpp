// The maps of plain entries and of objects: what they have in common, against one model, and what
// each has of its own.
#include <map>

#include "core/list.h"
#include "core/map.h"
#include "core/objmap.h"
#include "core/path.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/objects.h"

namespace {

using Pair = std::pair<int32, int32>;  // key and value
using Pairs = std::vector<Pair>;

struct Plain {
    using Handle = MapO;
    static Pair Of(void* entry) { return *static_cast<Pair*>(entry); }
    static BooleanT With(BooleanT (*operation)(MapO, void*), MapO map, Pair pair) {
        return operation(map, &pair);
    }
    static void ExpectFound(MapO map, int32 key, const Pair* expected) {
        void* found = nullptr;
        Pair copy;
        const BooleanT present = BooleanFrom(expected != nullptr);
        ASSERT_EQ(MapFindEntry(&found, map, &key), present);
        ASSERT_EQ(MapFindEntry(nullptr, map, &key), present);
        ASSERT_EQ(MapFindAndCopyEntry(&copy, map, &key), present);
        ASSERT_EQ(found != nullptr, expected != nullptr);
        ASSERT_EQ(copy, expected == nullptr ? Pair() : *expected);
    }
    static constexpr auto Create = [](MapO* map, auto... rest) {
        return MapCreate(map, sizeof(Pair), rest...);
    };
    static constexpr auto Insert = MapInsertEntry, Update = MapUpdateEntry, Remove = MapRemoveEntry,
                          Delete = MapDeleteEntry;
    static constexpr auto Size = MapSize;
    static constexpr auto Walk = MapWalk;
    static constexpr auto Search = MapSearch;
    static constexpr auto ReleaseAll = MapReleaseEntries;
    static constexpr char Module[] = "MAP", Duplicate[] = "Entry is already in map";
};

struct Objects {
    using Handle = ObjMapO;
    // The key is in the upper half of an integer object.
    static Pair Of(void* entry) { return {Value(entry) >> 16, Value(entry) & 0xffff}; }
    static BooleanT With(BooleanT (*operation)(ObjMapO, void*), ObjMapO map, Pair pair) {
        const ObjHolder<ObjIntegerS> entry(ObjIntegerNew(pair.first * 0x10000 + pair.second));
        return operation(map, entry.Get());
    }
    static void ExpectFound(ObjMapO map, int32 key, const Pair* expected) {
        ObjHolder<void> found;
        ASSERT_EQ(ObjMapFind(nullptr, map, &key), BooleanFrom(expected != nullptr));
        ASSERT_EQ(ObjMapFind(found.Address(), map, &key), BooleanFrom(expected != nullptr));
        ASSERT_TRUE(expected == nullptr || Of(found.Get()) == *expected);
    }
    static constexpr auto Create = [](ObjMapO* map, auto... rest) {
        return ObjMapCreateInternal(map, ObjIntegerMagic, rest...);
    };
    static constexpr auto Insert = ObjMapInsert, Update = ObjMapUpdate, Remove = ObjMapRemove,
                          Delete = ObjMapDelete;
    static constexpr auto Size = ObjMapSize;
    static constexpr auto Walk = ObjMapWalk;
    static constexpr auto ReleaseAll = ObjMapReleaseEntries;
    static BooleanT Search(void** result, ObjMapO map, ObjMapCallbackFnT callback, void* argument) {
        ObjHolder<void> found;
        const BooleanT done = ObjMapSearch(found.Address(), map, callback, argument);
        *result = found.Get();
        return done;
    }
    static constexpr char Module[] = "OBJMAP", Duplicate[] = "Object is already in map";
};

template <class Kind>
class Maps : public ObjectTest {
 protected:
    using Handle = typename Kind::Handle;
    static int32 Locate(void* a, void* b) { return Kind::Of(a).first - Kind::Of(b).first; }
    static int32 FindKey(void* key, void* entry) {
        return *static_cast<int32*>(key) - Kind::Of(entry).first;
    }
    static BooleanT Collect(void* entry, void* pairs) {
        static_cast<Pairs*>(pairs)->push_back(Kind::Of(entry));
        return TRUE;
    }
    static void Release(void* entry) { Collect(entry, &s_released); }

    Handle Make(int32 growSize, int32 (*find)(void*, void*) = FindKey) {
        EXPECT_EQ(Kind::Create(&m_map, growSize, Locate, find, Release), TRUE);
        return m_map;
    }
    BooleanT Insert(int32 key, int32 value = 0) {
        return Kind::With(Kind::Insert, m_map, {key, value});
    }
    void TearDown() override {
        s_released.clear();
        if (m_map != nullptr) ObjRelease(&m_map);
        ObjectTest::TearDown();
    }
    Handle m_map = nullptr;
    inline static Pairs s_released;  // what the release callback was given
};
using Kinds = testing::Types<Plain, Objects>;
TYPED_TEST_SUITE(Maps, Kinds);
using MapTest = Maps<Plain>;
using ObjMapTest = Maps<Objects>;

// Random operations: small room and few keys, so that every case comes up.
TYPED_TEST(Maps, AgreesWithModel) {
    using Kind = TypeParam;
    std::mt19937 engine(7);
    std::map<int32, int32> model;
    auto map = this->Make(3);
    for (int32 step = 0; step < 20000; step++) {
        SCOPED_TRACE(step);
        int32 key = static_cast<int32>(engine() % 40) - 20;
        const auto found = model.find(key);
        const Pair pair = found == model.end() ? Pair() : Pair(*found);
        const BooleanT present = BooleanFrom(found != model.end());
        Pairs released;
        const auto erase = [&] {
            if (present == TRUE) released.push_back(pair);
            model.erase(key);
            return present;
        };
        switch (engine() % 6) {
            case 0:
                ASSERT_EQ(this->Insert(key, step), BooleanFrom(present != TRUE));
                model.emplace(key, step);
                break;
            case 1:
                erase();
                model[key] = step;
                ASSERT_EQ(Kind::With(Kind::Update, map, {key, step}), TRUE);
                break;
            case 2:
                ASSERT_EQ(Kind::With(Kind::Remove, map, {key, 0}), erase());
                break;
            case 3:
                ASSERT_EQ(Kind::Delete(map, &key), erase());
                break;
            case 4:
                ASSERT_NO_FATAL_FAILURE(
                    Kind::ExpectFound(map, key, present == TRUE ? &pair : nullptr));
                break;
            default:
                if (engine() % 200 != 0 || step > 19000) break;
                released.assign(model.begin(), model.end());
                model.clear();
                ASSERT_EQ(Kind::ReleaseAll(map), TRUE);
        }
        Pairs contents;
        ASSERT_EQ(Kind::Walk(map, this->Collect, &contents), TRUE);
        ASSERT_EQ(contents, Pairs(model.begin(), model.end()));
        ASSERT_EQ(Kind::Size(map), static_cast<int32>(model.size()));
        ASSERT_EQ(std::exchange(this->s_released, {}), released);
    }
    // What is left goes with the map, each entry through the callback while it is whole.
    ASSERT_FALSE(model.empty());
    ObjRelease(&this->m_map);
    EXPECT_EQ(this->s_released, Pairs(model.begin(), model.end()));
}

TYPED_TEST(Maps, RoomGrowsByTheGrowSize) {
    // From 0 a standard size.
    for (const auto& [growSize, rooms] :
         {std::pair{2, std::vector<int32>{2, 2, 4, 4, 6}}, {0, std::vector<int32>(64, 64)}}) {
        auto map = this->Make(growSize);
        for (const int32 room : rooms) {
            EXPECT_EQ(this->Insert(-map->lEntryCount), TRUE);
            EXPECT_EQ(map->lMaximumEntries, room);
        }
        EXPECT_EQ(TypeParam::ReleaseAll(map), TRUE);
        EXPECT_EQ(map->lMaximumEntries, rooms.back());
        for (int32 key = 0; key <= rooms.back(); key++) this->Insert(key);
        EXPECT_EQ(map->lMaximumEntries, growSize == 0 ? 128 : 8);
        TraceCapture trace;
        EXPECT_EQ(this->Insert(1, 11), FALSE);
        EXPECT_EQ(trace.Text(TypeParam::Module, 5), TypeParam::Duplicate);
        EXPECT_EQ(TypeParam::With(TypeParam::Update, map, {1, 12}), TRUE);
        EXPECT_EQ(trace.Count(TypeParam::Module, 5), 1);  // updating is silent
        ObjRelease(&this->m_map);
    }
}

BooleanT Reject(void* /*entry*/, void* count) {
    --*static_cast<int32*>(count);
    return FALSE;
}

TYPED_TEST(Maps, WalkAndSearchStop) {
    using Kind = TypeParam;
    auto map = this->Make(4, nullptr);  // entries are the keys
    void* found = nullptr;
    int32 count = 10;
    EXPECT_EQ(Kind::Walk(map, Reject, &count), TRUE);
    EXPECT_EQ(Kind::Search(&found, map, Reject, &count), FALSE);
    EXPECT_EQ(count, 10);
    for (int32 key : {3, 1, 2}) this->Insert(key, key * 10);
    EXPECT_EQ(Kind::Walk(map, Reject, &count), FALSE);
    EXPECT_EQ(count, 9);
    EXPECT_EQ(Kind::Search(&found, map, Reject, &count), FALSE);
    EXPECT_EQ(count, 6);
    const auto wanted = [](void* entry, void*) { return BooleanT{Kind::Of(entry).first >= 2}; };
    EXPECT_EQ(Kind::Search(&found, map, wanted, nullptr), TRUE);
    EXPECT_EQ(Kind::Of(found), Pair(2, 20));
    EXPECT_EQ(Kind::With(Kind::Delete, map, {2, 0}), TRUE);
    EXPECT_EQ(Kind::Search(&found, map, wanted, nullptr), TRUE);
    EXPECT_EQ(Kind::Of(found), Pair(3, 30));
}

TEST_F(MapTest, RefusesWrongArguments) {
    EXPECT_EQ(MapCreate(nullptr, 8, 4, Locate, FindKey, nullptr), FALSE);
    for (const auto& [size, grow, locate] : {std::tuple{0, 4, &Locate},
                                             {8, -1, &Locate},
                                             {8, 4, nullptr},
                                             {1 << 20, 1 << 20, &Locate}})
        EXPECT_EQ(MapCreate(&m_map, size, grow, locate, FindKey, nullptr), FALSE);
    EXPECT_EQ(m_map, nullptr);
    TraceCapture trace;
    Make(3);
    EXPECT_NE(trace.Text("MAP", 3).find(", 8, 3, "), std::string::npos);

    Insert(1);
    EXPECT_EQ(MapWalk(
                  m_map, [](void*, void*) -> BooleanT { return 2; }, nullptr),
              2);
    ObjHolder<ObjIntegerS> integer(ObjIntegerNew(5));
    Pair entry;
    void* found = nullptr;
    for (MapO wrong : {MapO{nullptr}, reinterpret_cast<MapO>(integer.Get())}) {
        for (const BooleanT result :
             {MapInsertEntry(wrong, &entry), MapUpdateEntry(wrong, &entry),
              MapRemoveEntry(wrong, &entry), MapDeleteEntry(wrong, &entry),
              MapFindEntry(&found, wrong, &entry), MapFindAndCopyEntry(&entry, wrong, &entry),
              MapWalk(wrong, Collect, nullptr), MapSearch(&found, wrong, Collect, nullptr),
              MapReleaseEntries(wrong), MapSize(wrong) + 1})
            EXPECT_EQ(result, FALSE);
    }
}

TEST_F(ObjMapTest, SurvivesAFailedGrowth) {
    ObjMapO map = Make(1);
    Insert(1);
    // In a process of its own: blocks that the system refused are counted all the same.
    const RunResult refused = InChild([&] {
        const ObjHolder<ObjIntegerS> entry(ObjIntegerNew(5));
        const IgnoreCrash ignore;
        TraceCapture trace;
        FaultArm({.call = Call::Malloc, .error = ENOMEM, .times = FaultForEver});
        const BooleanT inserted = ObjMapInsert(map, entry.Get());
        FaultDisarm();
        EXPECT_EQ(std::tuple(inserted, Holders(entry.Get()), map->lMaximumEntries),
                  std::tuple(FALSE, 1, 1));
        EXPECT_TRUE(trace.Text("OBJMAP", 6).starts_with("ObjMapIsert: failed MemAllocate of "));
        EXPECT_EQ(trace.Level("OBJMAP", 6), -1);
        EXPECT_EQ(ObjMapInsert(map, entry.Get()), TRUE);
        return static_cast<int>(testing::Test::HasFailure());
    });
    EXPECT_EQ(refused.exitCode, 0) << refused.output;
}

TEST_F(ObjMapTest, HandsOutHoldersAndTakesEntriesOfItsClass) {
    ObjMapO map = Make(2, nullptr);  // objects are the keys
    for (int32 key : {3, 1, 2}) Insert(key);
    Pairs backwards;
    EXPECT_EQ(ObjMapWalkBackwards(map, Collect, &backwards), TRUE);
    EXPECT_EQ(backwards, (Pairs{{3, 0}, {2, 0}, {1, 0}}));
    // What is not 0 goes on; the last result tells the rest.
    const auto countdown = [](void*, void* count) { return --*static_cast<BooleanT*>(count); };
    BooleanT count = 10;
    EXPECT_EQ(ObjMapWalk(map, countdown, &count), 7);
    EXPECT_EQ(ObjMapWalkBackwards(map, countdown, &(count = 2)), FALSE);
    EXPECT_EQ(count, 0);
    const auto wanted = [](void* entry, void*) {
        return BooleanT{Objects::Of(entry).first >= 2 ? 2 : 0};
    };
    ObjHolder<void> found, same;
    EXPECT_EQ(ObjMapSearch(found.Address(), map, wanted, nullptr), TRUE);
    EXPECT_EQ(ObjMapFind(same.Address(), map, found.Get()), TRUE);
    EXPECT_EQ(Holders(same.Get()), 3);
    // The map is of another class than its entries.
    for (const auto operation : {ObjMapInsert, ObjMapUpdate, ObjMapRemove}) {
        EXPECT_EQ(operation(map, map), FALSE);
        EXPECT_EQ(operation(static_cast<ObjMapO>(found.Get()), same.Get()), FALSE);
    }
    // Put in its own place, an entry that only the map holds is not lost on the way.
    void* only = found.Get();
    for (ObjHolder<void>* holder : {&found, &same}) ObjRelease(holder->Address());
    EXPECT_EQ(ObjMapUpdate(map, only), TRUE);
    EXPECT_EQ(Holders(only), 1);
    EXPECT_EQ(ObjMapCreateInternal(&map, ObjIntegerMagic, 1 << 30, Locate, nullptr, nullptr),
              FALSE);
}

// A copy would hold the same pointers and release them a second time.
TEST(MapCopies, WhatOwnsByPointerHasNone) {
    ObjHolder<ObjMapS> objects;
    ObjMapCreateInternal(objects.Address(), ObjIntegerMagic, 1, CompareValues, nullptr, nullptr);
    ASSERT_EQ(Objects::With(ObjMapInsert, objects.Get(), {1, 0}), TRUE);
    ObjHolder<MapS> map;
    ASSERT_EQ(MapCreate(map.Address(), 4, 1, CompareValues, nullptr, nullptr), TRUE);
    Dir directory;
    ObjHolder<PathLockS> lock;
    ASSERT_EQ(PathLock(lock.Address(), directory.Path().c_str(), FileLockShared), ePROK);
    const ObjHolder<ListS> list(ListNew());
    ListAddLastItem(list.Get(), objects.Get());
    for (void* source :
         std::initializer_list<void*>{objects.Get(), map.Get(), lock.Get(), list.Get()}) {
        const NothingLeft nothing;
        void* copy = nullptr;
        TraceCapture trace;
        EXPECT_EQ(ObjDuplicateInternal(&copy, source, TRUE), FALSE);
        EXPECT_EQ(ObjDuplicate(&copy, source), FALSE);
        EXPECT_EQ(trace.Count("OBJECT", 185) + trace.Count("OBJECT", 184), 2);
        EXPECT_EQ(copy, nullptr);
    }
    PathUnLock(lock.Address());
}

}  // namespace
