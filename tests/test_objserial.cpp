// Object streams, against bytes written down here.
#include "core/list.h"
#include "core/objserial.h"
#include "core/tree.h"
#include "support/archivebytes.h"
#include "support/files.h"
#include "support/objects.h"

using bytes::Integer, bytes::List, bytes::Long, bytes::Object, bytes::String;
using bytes::SharedAgain, bytes::SharedFirst;
using namespace std::string_literals;

namespace {

const std::string kZero(1, '\0');
const std::string kList = Long(0xc8a2f9b9);
const std::string kTree = Long(0xc8a2f9a1);
const std::string kSelf = SharedFirst(1, Object(0xc9c00002, "o;i;", SharedAgain(1) + Long(3)));

std::string Write(void* o) {
    std::string bytes(static_cast<std::size_t>(ObjSerializedSize(o)), '?');
    int32 written = -1;
    EXPECT_EQ(ObjSerializeToMemory(o, bytes.data(), &written), TRUE);
    EXPECT_EQ(static_cast<std::size_t>(written), bytes.size());
    return bytes;
}

template <class T>
BooleanT Read(T** po, const std::string& bytes) {
    // In a block of exactly this size, so that a read past the end shows.
    std::vector<char> block;
    block.reserve(1);
    block.assign(bytes.begin(), bytes.end());
    return ObjReconstructFromMemorySized(reinterpret_cast<void**>(po), block.data(),
                                         static_cast<int32>(block.size()));
}

BooleanT ReadWithoutCircles(void** po, const std::string& bytes) {
    return ObjReconstructWithoutCircles(po, bytes.data(), static_cast<int32>(bytes.size()));
}

const std::string kStanza = "\1" + String("cat:title") + Long(1) + Long(3) + String("k") + Long(2) +
                            Long(2) + String("v") + Long(0);

TEST(Stream, EveryElementHasItsBytes) {
    EXPECT_EQ(Write(nullptr), kZero);
    ObjHolder<ObjIntegerS> five(ObjIntegerNew(5));
    EXPECT_EQ(Write(five.Get()), "\1\x2A\xF2\x6C\xC9\3\0\0\0i;\0\5\0\0\0"s);
    ObjHolder<ListS> empty(ListNew());
    EXPECT_EQ(Write(empty.Get()), "\1\xB9\xF9\xA2\xC8\0\0\0\0\0\0\0\0\0\xB9\xF9\xA2\xC8"s);

    ObjHolder<AllS> o(NewAll());
    o.Get()->pPointer = reinterpret_cast<void*>(std::uintptr_t{0x89abcdef});
    const auto expected = [](const std::string& hidden, const std::string& pointer,
                             const std::string& name = String("view")) {
        return Object(AllMagic, AllDescriptor,
                      "\1" + Long(-7) + String("text") + Integer(1) + hidden + kStanza + Long(3) +
                          "xyz" + Long(5) + "inlin" + Long(4) + name + kStanza + Long(0x05060708) +
                          Long(0x01020304) + std::string(32, '\xab') + pointer + Long(3) + "abc");
    };
    EXPECT_EQ(Write(o.Get()), expected(kZero, Long(0x89abcdef)));
    MemFree(&o.Get()->tView.pstrName);
    std::string local(static_cast<std::size_t>(ObjSerializedSizeLocal(o.Get())), '?');
    ASSERT_EQ(ObjSerializeLocal(o.Get(), local.data(), nullptr), TRUE);
    const std::string pointer(reinterpret_cast<const char*>(&o.Get()->pPointer), sizeof(void*));
    EXPECT_EQ(local, expected(Integer(2), pointer, Long(0)));

    ObjHolder<AllS> again;
    ASSERT_EQ(Read(again.Address(), expected(kZero, Long(0x89abcdef))), TRUE);
    EXPECT_STREQ(again.Get()->ptStanza->pstrCatagory, "cat");
    EXPECT_STREQ(again.Get()->tView.pStanza->pstrTitle, "title");
    EXPECT_EQ(Write(again.Get()), expected(kZero, Long(0x89abcdef)));
}

TEST(Stream, SharedObjectsAreWrittenOnceAndTreesRowByRow) {
    const auto add = [](int32 value, TreeNodeO at, TreePositionE position) {
        ObjIntegerO item = ObjIntegerNew(value);
        return TreePushItem(&item, at, position);
    };
    ObjHolder<ListS> list(ListNew());
    ObjIntegerO shared = ObjIntegerNew(7), root = ObjIntegerNew(1);
    ListAddLastItem(list.Get(), shared);
    ListPushLastItem(list.Get(), &shared);
    ObjHolder<TreeS> tree(TreeNew()), empty(TreeNew());
    TreeNodeO one = TreePushRootItem(&root, tree.Get());
    TreeNodeOpen(one);
    add(3, add(2, one, TREE_LAST_CHILD), TREE_LAST_CHILD);
    add(4, one, TREE_LAST_CHILD);
    add(5, one, TREE_SIBLING_AFTER);
    tree.Get()->oCookie = ObjIntegerNew(9);
    const std::string closed = "\1" + kZero;
    const std::pair<void*, std::string> streams[] = {
        {list.Get(), List({SharedFirst(1, Integer(7)), SharedAgain(1)})},
        {empty.Get(), "\1" + kTree + kZero + kZero + kTree},
        {tree.Get(), "\1" + kTree + Integer(9) + "\1\1" + Integer(1) + closed + Integer(2) +
                         closed + Integer(3) + kZero + kZero + closed + Integer(4) + kZero + kZero +
                         closed + Integer(5) + kZero + kZero + kTree}};
    for (const auto& [o, bytes] : streams) {
        EXPECT_EQ(Write(o), bytes);
        ObjHolder<void> read;
        ASSERT_EQ(Read(read.Address(), bytes), TRUE);
        EXPECT_EQ(Write(read.Get()), bytes);
    }
    // Held elsewhere, too: as it may come again.
    ObjHolder<ObjIntegerS> held(ObjIntegerNew(7));
    ObjIncRefCount(held.Get());
    ObjHolder<ObjIntegerS> again(held.Get());
    EXPECT_EQ(Write(held.Get()), SharedFirst(1, Integer(7)));
}

TEST(Stream, BadStreamsAreRefusedAndLeaveNothing) {
    const auto stanza = [](const std::string& title, int32 keys, int32 room) {
        return Object(0xc96ceed4, "z;", "\1" + String(title) + Long(keys) + Long(room));
    };
    const std::string list = List({Integer(1)});
    const std::string again = SharedAgain(1), holder = Object(0xc9c00005, "o;", again);
    const struct {
        const char* name;
        std::string bytes;
        int32 message;
    } streams[] = {
        {"nothing", "", 53},
        {"lead byte", "\4", 51},
        {"not in map", SharedAgain(1), 49},
        {"no descriptor", "\1" + Long(0xc96cf22a) + Long(0), 121},
        {"open descriptor", "\1" + Long(0xc96cf22a) + Long(2) + "i;", 121},
        {"descriptor length", "\1" + Long(0xc96cf22a) + Long(0x7fffffff) + "i;", 121},
        {"negative length", "\1" + Long(0xc96cf22a) + Long(-1), 121},
        {"no such magic", Object(5, "i;", Long(1)), 122},
        {"announced inline", Object(0xc9c00003, "n2147483647;", ""), 122},
        {"many inlines", Object(0xc9c00003, "n2147483647;n2147483647;n2147483647;", ""), 122},
        {"inline size", Object(0xc9c00004, "n4;", Long(5) + "abcde"), 123},
        {"open string", Object(0xc96cec6f, "s;", Long(2) + "ab"), 123},
        {"data size", Object(0xc999120d, "d;", Long(0x7fffffff) + "ab"), 123},
        {"negative data", Object(0xc999120d, "d;", Long(-5) + "ab"), 123},
        {"backward link", Object(0xc8a2f9bb, "L;l;L;l;", Integer(1) + kZero), 44},
        {"foreign functions",
         Object(0xc938e027, "i;i;i;i;p;p;p;d;",
                Long(8) + Long(1) + Long(1) + Long(1) + Long(1) + Long(1) + Long(1) + Long(0)),
         184},
        {"item count", "\1" + kList + Long(0) + Long(0x7fffffff) + kZero, 139},
        {"negative count", "\1" + kList + Long(0) + Long(-1) + kZero, 139},
        {"wrong class", List({Integer(1)}, 0xc96cec6f), 127},
        {"null item", List({kZero}), 127},
        {"end of list", list.substr(0, 30) + Long(1), 129},
        {"cut list", list.substr(0, 32), 129},
        {"cut item", list.substr(0, 20), 128},
        {"same id twice", List({SharedFirst(1, Integer(7)), SharedFirst(1, Integer(8))}), 182},
        {"circle, then cut", kSelf.substr(0, kSelf.size() - 1), 123},
        {"circle in a broken list", List({kSelf, "\5"}), 51},
        {"stanza counts", stanza("t", 5, 5), 123},
        {"stanza room", stanza("t", 1, 0), 123},
        {"stanza title", stanza(std::string(1024, 't'), 0, 1), 123},
        {"null in tree", "\1" + kTree + kZero + "\1\1" + kZero + kZero + kZero + kTree, 54},
        {"end of tree", "\1" + kTree + kZero + kZero + Long(0), 45},
        {"circle", kSelf, 189},
        {"circle in a list", List({kSelf}), 189},
        {"circle by a list", SharedFirst(1, List({Integer(5), holder})), 189},
        {"circle by a tree",
         SharedFirst(1, "\1" + kTree + kZero + "\1\1" + holder + kZero + kZero + kTree), 189},
    };
    for (const auto& bad : streams) {
        const auto read = bad.message == 189 ? ReadWithoutCircles : Read<void>;
        void* o = nullptr;
        read(&o, bad.bytes);  // the first time makes templates
        const Leftovers before;
        TraceCapture trace(0);
        EXPECT_EQ(read(&o, bad.bytes), FALSE) << bad.name;
        EXPECT_EQ(o, nullptr) << bad.name;
        EXPECT_TRUE(trace.Has("OBJECT", bad.message)) << bad.name;
        EXPECT_EQ(trace.Count("OBJECT", 54), 1) << bad.name;
        EXPECT_EQ(before.Text(), "") << bad.name;
    }
    // No circles, but objects that come again.
    for (const std::string& bytes :
         {List({SharedFirst(1, Integer(5)), again, again}),
          List({SharedFirst(1, List({SharedFirst(2, Integer(5)), SharedAgain(2)})), again})}) {
        ObjHolder<void> o;
        EXPECT_EQ(ReadWithoutCircles(o.Address(), bytes), TRUE);
    }
}

TEST(Stream, NestingIsBounded) {
    for (const int depth : {999, 1000}) {
        std::string bytes;
        for (int i = 0; i < depth; i++) bytes += Object(0xc9c00005, "o;", "");
        // The innermost null is a reference of its own.
        ObjHolder<void> o;
        EXPECT_EQ(Read(o.Address(), bytes + kZero), BooleanFrom(depth < ObjMaximumDepth)) << depth;
    }
    std::string tree = "\1" + kTree + kZero;
    for (int i = 0; i < 100000; i++) tree += "\1\1" + Integer(i);
    tree += std::string(100001, '\0') + kTree;
    ObjHolder<void> o;
    ASSERT_EQ(Read(o.Address(), tree), TRUE);
    EXPECT_TRUE(Write(o.Get()) == tree);
}

// A random graph in which every object made so far may be held again.
class GraphMaker {
 public:
    explicit GraphMaker(unsigned seed) : m_random(seed) {}
    ~GraphMaker() {
        for (void* o : m_made) ObjReleaseInternal(&o);
    }
    void* Make(int depth) {
        if (!m_made.empty() && Draw(4) == 0) {
            void* o = m_made[Draw(m_made.size())];
            ObjIncRefCount(o);
            return o;
        }
        void* o = MakeNew(depth);
        if (Draw(3) == 0) {
            ObjIncRefCount(o);
            m_made.push_back(o);
        }
        return o;
    }

 private:
    std::size_t Draw(std::size_t below) { return m_random() % below; }
    void* MakeNew(int depth) {
        switch (Draw(depth > 0 ? 6 : 3)) {
            case 0:
                return ObjStringNew(Draw(2) == 0 ? nullptr : std::string(Draw(50), 's').c_str());
            case 1:
                return ObjStanzaNew(NewStanza(Draw(2) == 0 ? nullptr : "c", "t"));
            case 2:
                return ObjDataFieldNew(std::string(40, 'd').data(), static_cast<int32>(Draw(40)));
            case 3: {
                AllS* o = NewAll();
                ObjReleaseInternal(&o->oLink);
                o->oLink = Make(depth - 1);
                return o;
            }
            case 4: {
                ListO list = ListNew();
                for (std::size_t i = Draw(6); i > 0; i--) {
                    void* item = Make(depth - 1);
                    ListPushLastItemInternal(list, &item);
                }
                list->oCookie = Draw(3) == 0 ? Make(depth - 1) : nullptr;
                return list;
            }
            default: {
                TreeO tree = TreeNew();
                TreeNodeO node = nullptr;
                for (std::size_t i = Draw(6); i > 0; i--) {
                    void* item = Make(depth - 1);
                    node = node == nullptr
                               ? TreePushRootItem(&item, tree)
                               : TreePushItem(&item, node, static_cast<TreePositionE>(Draw(6)));
                    node->bOpen = static_cast<BooleanT>(Draw(2));
                }
                return tree;
            }
        }
    }

    std::mt19937 m_random;
    std::vector<void*> m_made;
};

TEST(Stream, RandomGraphsComeBackAsTheyWere) {
    const int32 objects = ObjCount();
    for (unsigned seed = 0; seed < 400; seed++) {
        SCOPED_TRACE(seed);
        ObjHolder<void> graph(GraphMaker(seed).Make(6)), again;
        const std::string bytes = Write(graph.Get());
        ASSERT_EQ(Read(again.Address(), bytes), TRUE);
        EXPECT_TRUE(Write(again.Get()) == bytes);
        ObjHolder<void> direct, streamed;
        ASSERT_EQ(ObjDuplicateInternal(direct.Address(), graph.Get(), TRUE), TRUE);
        ASSERT_EQ(ObjDuplicate(streamed.Address(), graph.Get()), TRUE);
        EXPECT_EQ(ObjCompare(direct.Get(), graph.Get()), TRUE);
        EXPECT_EQ(ObjCompare(streamed.Get(), graph.Get()), TRUE);
        // Cut anywhere, it is refused and leaves nothing.
        const int32 before = ObjCount();
        for (std::size_t cut = 0; cut < bytes.size() && seed < 40; cut += 1 + bytes.size() / 50) {
            void* part = nullptr;
            EXPECT_EQ(Read(&part, bytes.substr(0, cut)), FALSE);
            EXPECT_EQ(ObjCount(), before);
        }
    }
    EXPECT_EQ(ObjCount(), objects);
}

// --- translators ---

struct NewShapeS {
    int32 lFirst;
    void* oSelf;
    int32 lAdded;
};
constexpr uint32 TranslatedMagic = 0xc9c00010;
constexpr int32 NewMagic = ObjMagic(TranslatedMagic);
BooleanT g_translation = eObjTranslateResultModified;

// The old shape had no lAdded.
BooleanT Translate(void** poObject) {
    if (std::string(ObjGetDescriptor(*poObject)) == "i;o;i;") return eObjTranslateResultUnchanged;
    if (g_translation != eObjTranslateResultModified) return g_translation;
    auto* fresh = ObjNew<NewShapeS>(NewMagic, "i;o;i;");
    std::memcpy(fresh, *poObject, offsetof(NewShapeS, lAdded));
    fresh->lAdded = 77;
    ObjIncRefCount(fresh->oSelf);
    ObjReleaseInternal(poObject);
    *poObject = fresh;
    return eObjTranslateResultModified;
}

TEST(Translators, ReplaceAnOlderShapeEverywhere) {
    ASSERT_EQ(ObjSetTranslator<NewShapeS>(NewMagic, "i;o;i;", nullptr, Translate), TRUE);
    const std::string old =
        SharedFirst(1, Object(TranslatedMagic, "i;o;", Long(5) + SharedAgain(1)));
    const Leftovers before;
    ListO list = nullptr;
    ASSERT_EQ(Read(&list, List({old, SharedAgain(1)})), TRUE);
    auto* item = static_cast<NewShapeS*>(list->oFirst->oData);
    EXPECT_EQ(std::pair(item->lFirst, item->lAdded), std::pair(5, 77));
    EXPECT_EQ(item->oSelf, item);
    EXPECT_EQ(list->oLast->oData, item);
    ObjReleaseContents(item);
    ObjRelease(&list);
    TraceCapture trace;
    for (const auto& [result, message] :
         {std::pair{eObjTranslateResultInvalid, 168}, {eObjTranslateResultError, 169}}) {
        g_translation = result;
        EXPECT_EQ(Read(&list, old), FALSE);
        EXPECT_TRUE(trace.Has("OBJECT", message));
    }
    EXPECT_EQ(before.Text(), "");
    // Too late for a translator once there was an object.
    const IgnoreCrash pass;
    ObjHolder<ObjIntegerS> made(ObjIntegerNew(1));
    EXPECT_EQ(ObjSetTranslator<ObjIntegerS>(ObjIntegerMagic, "i;", nullptr, Translate), FALSE);
    EXPECT_TRUE(trace.Has("OBJECT", 163));
}

TEST(Stream, ClassesInAnotherShape) {
    // The program's own: refused, and nothing stops.
    void* o = nullptr;
    EXPECT_EQ(Read(&o, Object(0xc96cf22a, "b;", bytes::Byte(1))), FALSE);
    EXPECT_EQ(Read(&o, Object(0xc8a2f9b6, "s;", Long(1) + bytes::Byte(0))), FALSE);
    // Named by a stream first: the program's shape takes its place, but not under a living object.
    const int32 magic = ObjMagic(0xc9a0f001);
    ASSERT_EQ(Read(&o, Object(0xc9a0f001, "b;", bytes::Byte(1))), TRUE);
    EXPECT_EXIT(ObjNew<ObjIntegerS>(magic, "i;"), testing::KilledBySignal(SIGSEGV), "");
    ObjReleaseInternal(&o);
    const ObjHolder<ObjIntegerS> own(ObjNew<ObjIntegerS>(magic, "i;"));
    ASSERT_NE(own.Get(), nullptr);
    EXPECT_EQ(Read(&o, Object(0xc9a0f001, "b;", bytes::Byte(1))), FALSE);
    // No end of unknown classes.
    EXPECT_EQ(InChild([] {
                  void* oRead = nullptr;
                  int32 lTaken = 0;
                  for (uint32 lMagic = 0xcb000000; lMagic < 0xcb000000 + 5000; lMagic++) {
                      if (Read(&oRead, Object(lMagic, "i;", Long(1))) != TRUE) continue;
                      ObjReleaseInternal(&oRead);
                      lTaken++;
                  }
                  return lTaken > 4000 && lTaken <= 4096 ? 0 : 1;
              }).exitCode,
              0);
}

// --- buffers and files ---

TEST(Buffers, FramesCountThemselves) {
    char own[64] = "head";
    ObjBufferDescriptorT* buffer = nullptr;
    ASSERT_EQ(ObjBufferDescriptorCreate(&buffer, own, sizeof(own), 4), TRUE);
    ObjHolder<ObjDataFieldS> item(ObjDataFieldNew(const_cast<char*>("abcd"), 4));
    const std::string stream = Object(0xc999120d, "d;", Long(4) + "abcd");
    ASSERT_EQ(ObjSerializeToBuffer(item.Get(), 4701, buffer), TRUE);
    EXPECT_EQ(std::string(own + 4, 28), Long(28) + Long(4701) + stream);
    int32 size = 0, type = 0, used = 0;
    ObjBufferAnalyze(own + 4, &size, &type);
    EXPECT_EQ(std::pair(size, type), std::pair(20, 4701));
    EXPECT_EQ(ObjBufferSerializedObjectSize(own + 4), 20);
    EXPECT_EQ(ObjBufferMsgType(own + 4), 4701);
    // Only the class that is asked for is read.
    for (const int32 magic : {ObjStringMagic, ObjDataFieldMagic}) {
        ObjHolder<void> read;
        EXPECT_EQ(ObjReconstructObjectFromMemory(read.Address(), stream.data(), 0, magic),
                  BooleanFrom(magic == ObjDataFieldMagic));
        EXPECT_EQ(ObjCompare(read.Get(), item.Get()), BooleanFrom(magic == ObjDataFieldMagic));
    }
    // More than fits: the caller's buffer is left behind.
    char header[] = "xyz";
    ASSERT_EQ(ObjSerializeToBufferCustomHead(item.Get(), buffer, 3, header, TRUE), TRUE);
    ASSERT_EQ(ObjSerializeToBufferCustomHead(item.Get(), buffer, 0, nullptr, FALSE), TRUE);
    ASSERT_EQ(ObjBufferInsertBytes(2, header, buffer), TRUE);
    ASSERT_EQ(ObjSerializeToBufferNoHead(&size, item.Get(), buffer), TRUE);
    EXPECT_EQ(size, 20);
    void* bytes = nullptr;
    ASSERT_EQ(ObjBufferDescriptorGetBuffer(&bytes, &used, buffer), TRUE);
    EXPECT_NE(bytes, own);
    EXPECT_EQ(buffer->lSize, 4 + 2 * 64 + 4 + 1024);  // grown for the second length field
    EXPECT_EQ(std::string(static_cast<char*>(bytes), static_cast<std::size_t>(used)),
              "head" + Long(28) + Long(4701) + stream + Long(27) + "xyz" + stream + stream + "xy" +
                  stream);
    ObjBufferDescriptorReset(buffer);
    EXPECT_EQ(buffer->lUsed, 4);
    EXPECT_EQ(ObjSerializeToBufferCustomHead(item.Get(), buffer, 1, nullptr, TRUE), FALSE);
    EXPECT_EQ(ObjSerializeToBufferCustomHead(item.Get(), buffer, 0, header, TRUE), FALSE);
    EXPECT_EQ(ObjBufferDescriptorFree(&buffer), TRUE);
    EXPECT_EQ(buffer, nullptr);
}

TEST(Files, HoldTheStreamAndNothingElse) {
    const TempDir dir;
    const std::string file = dir / "o", text(200000, 'x');
    ObjHolder<ObjStringS> item(ObjStringNew(text.c_str()));
    const std::string bytes = Object(0xc96cec6f, "s;", String(text));
    PoolPtr<char> path;
    ASSERT_EQ(ObjSerializeToFile(item.Get(), file.c_str()), TRUE);
    ASSERT_EQ(ObjSerializeToTempFile(path.Address(), 42, item.Get()), TRUE);
    EXPECT_TRUE(ReadFile(file) == bytes && ReadFile(path.Get()) == bytes);
    ObjHolder<void> o, none;
    ASSERT_EQ(ObjReconstructFromFile(o.Address(), file.c_str()), TRUE);
    EXPECT_EQ(ObjCompare(o.Get(), item.Get()), TRUE);
    for (const BooleanT good : {TRUE, FALSE}) {
        ObjHolder<void> again;
        EXPECT_EQ(ObjReconstructFromTempFile(again.Address(), path.Get()), good);
        EXPECT_FALSE(Exists(path.Get()));
        if (good == TRUE) WriteFile(path.Get(), "\5");
    }
    for (const std::string& unwritable : {dir / "no/o", std::string("/dev/full")})
        EXPECT_EQ(ObjSerializeToFile(item.Get(), unwritable.c_str()), FALSE);
    EXPECT_EQ(ObjReconstructFromFile(none.Address(), (dir / "no").c_str()), FALSE);
    // From a pipe the size is not known in advance: a lying length ends with the bytes.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string lying = Object(0xc96cec6f, "s;", Long(0x7fffffff) + "abc");
    ASSERT_EQ(write(ends[1], lying.data(), lying.size()), static_cast<ssize_t>(lying.size()));
    close(ends[1]);
    FILE* reader = fdopen(ends[0], "rb");
    EXPECT_EQ(ObjReconstructFromFP(none.Address(), reader), FALSE);
    fclose(reader);
}

}  // namespace
