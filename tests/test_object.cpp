// Templates, instances, holders, copies, comparison, order, tag lists and counters.
#include "core/context.h"
#include "core/list.h"
#include "core/objserial.h"
#include "core/procinternal.h"
#include "core/tree.h"
#include "support/objects.h"
#include "support/support.h"

namespace {

struct LinkS {
    void* oNext;
};
constexpr int32 LinkMagic = ObjMagic(0xc9a00002);

// A chain of depth links, each held by the one before.
LinkS* NewChain(int depth) {
    LinkS* o = nullptr;
    for (int i = 0; i < depth; i++) {
        auto* outer = ObjNew<LinkS>(LinkMagic, "o;");
        outer->oNext = o;
        o = outer;
    }
    return o;
}

ObjTemplateT Template(const char* descriptor, int32 size = ObjSizeUnknown) {
    static uint32 magic = 0xc9b00000;
    return ObjTemplateNewInternal(size, ObjMagic(magic++), descriptor, nullptr);
}

TEST(Templates, SizesOfDescriptors) {
    const struct {
        const char* descriptor;
        int32 fields;
        int32 size32;  // data size with 4-byte pointers
        int32 fixed;
        BooleanT invalid;
        const char* message = "";
    } shapes[] = {
        {"o;i;n65536;o;", 4, 65548, 44, FALSE},
        {"s;s;i;i;i;o;o;o;", 8, 32, 68, FALSE},
        {"o;s;p;s;p;o;o;", 7, 28, 56, TRUE},
        {"i;i;L;l;o;", 5, 20, 40, TRUE},
        {"o;l;l;o;l;o;b;l;", 8, 32, 44, TRUE},
        {"n5;i;", 2, 12, 28, FALSE},
        {"i;q;i;", 1, 4, 20, FALSE, "Invalid component q"},
        {"ix;", 1, 4, 20, FALSE, "Unknown component modifier 'x'"},
        {"i", 1, 4, 20, FALSE},
        {"", 0, 0, 16, FALSE},
        {"n;", 1, 0, 24, FALSE},
        {"v;d;I;", 3, 28, 32, FALSE},
        {"u;", 1, 32, 48, FALSE},
        {"n3;n3;b;", 3, 12, 36, FALSE},
        {"i;;i;", 1, 4, 20, FALSE, "Invalid component ;"},
    };
    for (const auto& shape : shapes) {
        SCOPED_TRACE(shape.descriptor);
        TraceCapture trace;
        ObjTemplateT built = Template(shape.descriptor);
        ASSERT_NE(built, nullptr);
        EXPECT_EQ(trace.Text("OBJECT", 30) + trace.Text("OBJECT", 29), shape.message);
        const ObjDbDataT& data = built->tDbData;
        EXPECT_EQ(std::tuple(data.lFieldCount, data.lDbFixedSize, data.bInvalidDbObject),
                  std::tuple(shape.fields, shape.fixed, shape.invalid));
        if (sizeof(void*) == 4) {
            EXPECT_EQ(data.lObjSize, shape.size32 + 20);
        }
    }
    EXPECT_EQ(Template("b;i;l;n3;I;u;p;")->bSimpleFormat, TRUE);
    EXPECT_EQ(Template(AllDescriptor, sizeof(AllS))->bSimpleFormat, FALSE);
    const ObjDbFieldT* pending = Template("o;i;n65536;o;")->tDbData.atFields;
    EXPECT_EQ(pending[2].lObjOffset, static_cast<int32>(sizeof(void*)) + 4);
    EXPECT_EQ(std::tuple(pending[1].lDbOffset, pending[2].lDbOffset, pending[3].lDbOffset),
              std::tuple(24, 28, 36));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(std::vector({sizeof(ListS), sizeof(ListNodeS), sizeof(TreeS), sizeof(TreeNodeS),
                               sizeof(ObjHeaderT)}),
                  (std::vector<std::size_t>{20, 16, 12, 32, 16}));
    }
}

TEST(Templates, WhatCannotBeBuiltIsAForcedStop) {
    const IgnoreCrash pass;
    TraceCapture trace;
    const char* impossible[] = {"i;", "n2147483647;n2147483647;", "n99999999999;", "n2147483647;"};
    for (const char* descriptor : impossible) {
        trace.Clear();
        EXPECT_EQ(Template(descriptor, 5), nullptr) << descriptor;
        EXPECT_TRUE(trace.Has("OBJECT", 3) && trace.Has("PROCESS", 209)) << descriptor;
        EXPECT_EQ(trace.Text("OBJECT", 67), "Failed to get a template, die horribly");
    }
    // Another shape without a translator; the same shape is the same template.
    const int32 magic = ObjMagic(0xc9a00010);
    ObjTemplateT first = ObjTemplateNewInternal(4, magic, "i;", nullptr);
    EXPECT_EQ(ObjTemplateNewInternal(4, magic, "i;", nullptr), first);
    trace.Clear();
    EXPECT_EQ(ObjNewInternal(4, magic, "b;", nullptr, nullptr), nullptr);
    EXPECT_EQ(trace.Text("OBJECT", 155),
              "Object 'Unknown object magic 0xc9a00010' c9a00010 has changed shape from 'b;' to "
              "'i;'");
    EXPECT_TRUE(trace.Has("OBJECT", 81) && trace.Has("PROCESS", 209));
    // No magic, no descriptor: refused without a forced stop.
    trace.Clear();
    EXPECT_EQ(ObjTemplateNewInternal(4, 1, "i;", nullptr), nullptr);
    EXPECT_EQ(ObjTemplateCreateInternal(&first, 4, magic, nullptr, nullptr), FALSE);
    EXPECT_TRUE(trace.Has("OBJECT", 84) && trace.Has("OBJECT", 34));
    EXPECT_FALSE(trace.Has("PROCESS", 209));
}

TEST(Names, OfMagicsAndObjects) {
    const int32 magic = ObjMagic(0xc9a00020), early = ObjMagic(0xc9a00021);
    EXPECT_EQ(ObjGetInstanceCount(magic), -1);
    auto* o = ObjNew<LinkS>(magic, "o;");
    EXPECT_STREQ(ObjNameFromObject(o), "Unknown object magic 0xc9a00020");
    for (const auto& [named, name, result] : {std::tuple{magic, "", FALSE},
                                              {ListMagic, "OTHER", FALSE},
                                              {7, "OTHER", FALSE},
                                              {magic, "NAMED", TRUE},
                                              {magic, "AGAIN", FALSE},
                                              {early, "BEFORE", TRUE}})
        EXPECT_EQ(ObjSetObjName(named, name), result) << name;
    ObjHolder<LinkS> later(ObjNew<LinkS>(early, "o;"));
    for (const auto& [named, name] : {std::pair{0, "No Magic"},
                                      {1, "Invalid Magic"},
                                      {ObjMagic(0xc9a0ffff), "Unknown Object"},
                                      {ListMagic, "LIST"},
                                      {magic, "NAMED"},
                                      {early, "BEFORE"}})
        EXPECT_STREQ(ObjNameFromMagic(named), name);
    EXPECT_STREQ(ObjNameFromObject(nullptr), "NULL Object");
    EXPECT_STREQ(ObjNameFromObject(o), "NAMED");
    EXPECT_EQ(ObjGetInstanceCount(magic), 1);
    ObjRelease(&o);
    EXPECT_EQ(ObjGetInstanceCount(magic), 0);
}

int32 g_destroyed = 0;
void CountDestroyed(void* oDying) {
    g_destroyed++;
    // The object is whole, and holders taken and given back here are harmless.
    EXPECT_NE(static_cast<LinkS*>(oDying)->oNext, nullptr);
    ObjIncRefCount(oDying);
    ObjReleaseInternal(&oDying);
}

TEST(Holders, TheLastReleaseFreesWhatTheObjectOwns) {
    ObjHolder<AllS> warm(NewAll());
    const int32 magic = ObjMagic(0xc9a00030);
    ObjTemplateNewInternal(sizeof(LinkS), magic, "o;", CountDestroyed);
    const Leftovers before;
    auto* o = ObjNew<LinkS>(magic, "o;", CountDestroyed);
    o->oNext = NewAll();
    EXPECT_EQ(ObjIncRefCount(o), TRUE);
    LinkS* second = o;
    EXPECT_EQ(ObjRelease(&second), TRUE);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(g_destroyed, 0);
    EXPECT_EQ(ObjRelease(&o), TRUE);
    EXPECT_EQ(g_destroyed, 1);
    EXPECT_EQ(ObjRelease(&o), FALSE);
    EXPECT_EQ(before.Text(), "");
    EXPECT_EQ(ObjReleaseInternal(nullptr), FALSE);
    EXPECT_EQ(ObjIncRefCount(nullptr), FALSE);
}

TEST(Holders, DamageIsSeen) {
    auto* o = ObjNew<LinkS>(LinkMagic, "o;");
    ObjHeaderT* header = reinterpret_cast<ObjHeaderT*>(o) - 1;
    const std::pair<int32*, std::vector<int32>> cases[] = {
        {&header->pFooter->lMagic, {28, 146, 71}}, {&header->lMagic, {27, 147, 72}}};
    for (const auto& [damaged, messages] : cases) {
        TraceCapture trace;
        int32 magic = 5;
        *damaged = 0x12345678;
        EXPECT_EQ(ObjHasValidGlobalMagic(o), FALSE);
        EXPECT_EQ(ObjGetMagic(o, &magic), FALSE);
        EXPECT_EQ(magic, 0);
        ObjCheck(o);
        LinkS* kept = o;
        EXPECT_EQ(ObjRelease(&kept), FALSE);
        EXPECT_EQ(kept, o);
        for (int32 number : messages) EXPECT_EQ(trace.Count("OBJECT", number), 1) << number;
        if (damaged == &header->lMagic) {
            EXPECT_EQ(ObjIncRefCount(o), FALSE);
            EXPECT_STREQ(ObjNameFromObject(o), "Invalid Object");
        }
        *damaged = LinkMagic;
    }
    EXPECT_EQ(ObjRelease(&o), TRUE);
}

TEST(Holders, LongChainsAndCirclesGo) {
    const int32 objects = ObjCount();
    LinkS* chain = NewChain(1000000);  // in constant stack
    EXPECT_EQ(ObjRelease(&chain), TRUE);
    EXPECT_EQ(ObjCount(), objects);
    LinkS* first = NewChain(2);
    static_cast<LinkS*>(first->oNext)->oNext = first;
    ObjIncRefCount(first);
    ObjReleaseContents(first);
    EXPECT_EQ(first->oNext, nullptr);
    EXPECT_EQ(ObjCount(), objects + 1);
    ObjRelease(&first);
    EXPECT_EQ(ObjCount(), objects);
}

TEST(Copies, AreIndependent) {
    ObjHolder<AllS> o(NewAll());
    ObjHolder<void> oCopy, oPublic, oNone;
    ASSERT_EQ(ObjDuplicateInternal(oCopy.Address(), o.Get(), TRUE), TRUE);
    static_cast<AllS*>(oCopy.Get())->pstrValue[0] = 'T';
    EXPECT_EQ(ObjCompare(oCopy.Get(), o.Get()), FALSE);
    EXPECT_STREQ(o.Get()->pstrValue, "text");
    // Without local data the private link stays behind.
    ASSERT_EQ(ObjDuplicateInternal(oPublic.Address(), o.Get(), FALSE), TRUE);
    const auto* ptPublic = static_cast<AllS*>(oPublic.Get());
    EXPECT_EQ(ptPublic->oPrivate, nullptr);
    EXPECT_EQ(Value(ptPublic->oLink), 1);
    EXPECT_EQ(ObjCompare(o.Get(), nullptr), FALSE);
    EXPECT_EQ(ObjDuplicateInternal(oNone.Address(), nullptr, TRUE), FALSE);
}

TEST(Copies, KeepCircles) {
    auto* loop = ObjNew<LinkS>(LinkMagic, "o;");
    loop->oNext = loop;
    ObjIncRefCount(loop);
    ObjHolder<void> copy;
    ASSERT_EQ(ObjDuplicateInternal(copy.Address(), loop, TRUE), TRUE);
    EXPECT_NE(copy.Get(), loop);
    EXPECT_EQ(static_cast<LinkS*>(copy.Get())->oNext, copy.Get());
    for (void* o : {copy.Get(), static_cast<void*>(loop)}) ObjReleaseContents(o);
    ObjRelease(&loop);
}

TEST(Copies, DeepGraphsAreRefused) {
    const Leftovers before;
    {
        ObjHolder<LinkS> fits(NewChain(ObjMaximumDepth)), deep(NewChain(ObjMaximumDepth + 1));
        ObjHolder<void> copy, none;
        EXPECT_EQ(ObjDuplicateInternal(copy.Address(), fits.Get(), TRUE), TRUE);
        EXPECT_EQ(ObjCompare(copy.Get(), fits.Get()), TRUE);
        EXPECT_EQ(ObjDuplicateInternal(none.Address(), deep.Get(), TRUE), FALSE);
        EXPECT_EQ(none.Get(), nullptr);
        EXPECT_EQ(ObjSerializedSize(deep.Get()), -1);
    }
    EXPECT_EQ(before.Text(), "");
}

int32 Limited(void* oA, void* oB, void* pvLeft) {
    return --*static_cast<int*>(pvLeft) < 0 ? 2 : CompareValues(oA, oB);
}

TEST(Sorting, MatchesTheStandardSort) {
    std::mt19937 random(7);
    const std::function<int(int)> kinds[] = {[&](int) { return static_cast<int>(random() % 1000); },
                                             [](int i) { return i; }, std::negate<int>(),
                                             [](int) { return 5; }};
    for (int count : {0, 1, 2, 3, 10, 1000, 100000}) {
        for (const auto& kind : kinds) {
            std::vector<int32> values;
            std::vector<void*> objects;
            for (int i = 0; i < count; i++) {
                values.push_back(kind(i));
                objects.push_back(ObjIntegerNew(values.back()));
            }
            objects.push_back(nullptr);
            EXPECT_EQ(ObjQuickSort(objects.data(), count - 1, CompareValues), TRUE);
            objects.pop_back();
            std::sort(values.begin(), values.end());
            EXPECT_TRUE(std::ranges::equal(objects, values, {}, Value));
            for (void* o : objects) ObjReleaseInternal(&o);
        }
    }
}

TEST(Sorting, StopsAtABadComparisonAndLosesNothing) {
    std::vector<void*> objects;
    for (int i = 0; i < 50; i++) objects.push_back(ObjIntegerNew((i * 37) % 50));
    for (int good = 0; good < 400; good++) {
        std::vector<void*> order = objects;
        int left = good;
        const BooleanT sorted = ObjQuickSortWithCookie(order.data(), 49, Limited, &left);
        EXPECT_EQ(sorted, BooleanFrom(left >= 0)) << good;
        EXPECT_TRUE(std::ranges::is_permutation(order, objects)) << good;
    }
    for (void* o : objects) ObjReleaseInternal(&o);
}

// Applies a list that the caller got as its own arguments.
void SetFromList(void* o, ...) {
    std::va_list list;
    va_start(list, o);
    ObjSetFromTagsVAListInternal(o, list);
    va_end(list);
}

TEST(Tags, SetFieldsByTheirIndex) {
    ObjHolder<AllS> o(NewAll());
    const auto fields = [&] {
        return std::tuple(o.Get()->bValue, o.Get()->lValue, std::string(o.Get()->pstrValue));
    };
    ObjSetFromTags(o.Get(), OBJ_TAG_BEGIN, 0, FALSE, 1, 42, 2, "new", OBJ_TAG_END);
    EXPECT_EQ(fields(), std::tuple(FALSE, 42, "new"));
    TraceCapture trace;
    ObjSetFromTagsVA(o.Get(), OBJ_TAG_NONE);
    EXPECT_TRUE(trace.Records().empty());
    ObjSetFromTagsVA(o.Get(), OBJ_TAG_BEGIN, 1, 43, 3, nullptr, OBJ_TAG_END);
    EXPECT_EQ(fields(), std::tuple(FALSE, 43, "new"));
    SetFromList(o.Get(), OBJ_TAG_BEGIN, 2, "listed", 0, TRUE, 1, 44, OBJ_TAG_END);
    EXPECT_EQ(fields(), std::tuple(TRUE, 44, "listed"));
    ObjSetFromTagsVA(o.Get(), OBJ_TAG_BEGIN, 99, 1, OBJ_TAG_END);
    EXPECT_EQ(trace.Count("OBJECT", 160), 2);
    ObjSetFromTagsVA(o.Get(), 5, 6, OBJ_TAG_END);
    SetFromList(o.Get(), 5, 6, OBJ_TAG_END);
    ObjSetFromTags(o.Get(), 5, 6, OBJ_TAG_END);
    EXPECT_EQ(trace.Count("OBJECT", 161), 2);
    EXPECT_EQ(trace.Count("OBJECT", 159), 1);
}

TEST(Counts, FollowTheObjectsAndAreMirrored) {
    ProcDetailsT details = {};
    gtTlContext.sProcess.ptDetails = &details;
    ObjIntegerO o = ObjIntegerNew(1);
    EXPECT_EQ(std::tuple(details.lObjCount, details.lObjMax, details.lObjAllocations),
              std::tuple(ObjCount(), ObjMax(), ObjAllocations()));
    ObjRelease(&o);
    EXPECT_EQ(details.lObjCount, ObjCount());
    gtTlContext.sProcess.ptDetails = nullptr;
}

TEST(Counts, TablesAreMergedByClass) {
    ObjCountEntryT *before = nullptr, *after = nullptr, *copy = nullptr, *zero = nullptr;
    ObjHolder<ObjStringS> gone(ObjStringNew("x"));
    ObjGetObjectCounts(&before);
    ObjHolder<ObjInt64S> one(ObjInt64New(1));
    ObjHolder<LinkS> fresh(ObjNew<LinkS>(ObjMagic(0xc9a00040), "o;"));
    ObjGetObjectCounts(&after);
    ObjCopyObjectCounts(&copy, after);
    ObjSubtractObjectCounts(copy, before);
    EXPECT_EQ(ObjGetZeroedObjectCounts(&zero), TRUE);
    // The difference, taken by the tracing or before.
    for (const auto& [counts, base] : {std::pair{after, before}, {copy, zero}}) {
        TraceCapture trace;
        ObjTraceCounts(0, counts, base);
        EXPECT_EQ(trace.CountText("     1 OBJ_INT64"), 1);
        EXPECT_EQ(trace.CountText("     1 Unknown object magic 0xc9a00040"), 1);
        EXPECT_EQ(trace.Count("OBJECT", 78), 2);
        EXPECT_EQ(trace.Text("OBJECT", 157), "     2 Total Objects listed");
    }
    TraceCapture trace;
    ObjTraceCounts(0, nullptr, before);
    EXPECT_EQ(trace.CountText("    -1 OBJ_STRING"), 1);
    EXPECT_FALSE(trace.Has("OBJECT", 157));
    for (ObjCountEntryT** table : {&before, &after, &copy, &zero}) MemFree(table);
}

TEST(Counts, TheMonitorReportsWhenItIsDue) {
    ObjSetMonitor(0, 0);
    EXPECT_EQ(gtTlContext.sObject.bDoMonitor, FALSE);
    ObjSetMonitor(0, 5);
    ObjHolder<ObjInt64S> one(ObjInt64New(1));
    TraceCapture trace;
    ObjMonitor();
    EXPECT_EQ(trace.CountText("     1 OBJ_INT64"), 1);
    EXPECT_TRUE(trace.Has("OBJECT", 91) && trace.Has("OBJECT", 92));
    trace.Clear();
    ObjMonitor();
    EXPECT_TRUE(trace.Records().empty());
    ObjClearMonitor();
    EXPECT_EQ(gtTlContext.sObject.ptBase, nullptr);
}

}  // namespace
