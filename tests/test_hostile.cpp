// Archives that nobody's writer made. Whatever the bytes are: nothing appears outside the target
// directory, nothing is allocated for a length that the file does not hold, nothing is left over,
// and the process ends only where it stops itself on purpose.
#include <sys/resource.h>

#include "support/archives.h"

using bytes::Byte;
using bytes::Long;

namespace fs = std::filesystem;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr int Flips = 3000;
constexpr long MemoryLimit = 512L << 10;  // freed memory is kept for a while
#else
constexpr int Flips = sizeof(void*) == 4 ? 1500 : 20000;
constexpr long MemoryLimit = 48L << 10;  // KiB that no small archive may make the process take
#endif
constexpr int Deep = 100000;

const std::vector<bytes::File> TwoFiles = {{"first", {"the first file's text"}},
                                           {"second", {"another", " text"}}};

// The magic of a class that the library does not know.
constexpr std::uint32_t ForeignMagic = 0xcb123456;

bytes::FileHeader Header() { return bytes::HeaderOf({"name", {"text"}}); }

std::string ArchiveOf(const std::string& headerList) {
    return bytes::Archive(headerList, bytes::Compress("text"));
}

// An archive of one file that can be restored as far as the reader bears what the header carries.
std::string WithExt(const std::string& ext) {
    bytes::FileHeader header = Header();
    header.ext = ext;
    return ArchiveOf(bytes::List({header.Encode()}));
}

std::string WithName(const std::string& encodedName) {
    bytes::FileHeader header = Header();
    header.name = encodedName;
    return ArchiveOf(bytes::List({header.Encode()}));
}

std::string Repeat(int count, const std::string& piece) {
    std::string out;
    for (int i = 0; i < count; i++) out += piece;
    return out;
}

// A list around a list around a list.
std::string NestedLists(int depth) {
    const std::string innermost = bytes::List({});
    const std::string outer = bytes::List({innermost});
    const std::size_t head = outer.find(innermost, 1);
    return Repeat(depth, outer.substr(0, head)) + innermost +
           Repeat(depth, outer.substr(outer.size() - 4));
}

// Objects of one link, each holding the next.
std::string Chain(int depth) {
    return Repeat(depth, bytes::Object(ForeignMagic, "o;", "")) + Byte(0);
}

// A tree of one branch: of each node that it is there, that it is closed, and its data; then the
// ends of all rows.
std::string DeepTree(int depth) {
    return Byte(1) + Long(0xc8a2f9a1) + Byte(0) +
           Repeat(depth, Byte(1) + Byte(0) + bytes::Integer(1)) +
           std::string(static_cast<std::size_t>(depth) + 1, '\0') + Long(0xc8a2f9a1);
}

long PeakMemory() {
    struct rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// No test changes anything outside the target directory or leaves objects.
class Hostile : public ArchiveTestWithWorkers {
 protected:
    Hostile() : ArchiveTestWithWorkers("root/target") {
        for (const char* directory : {"root/a/b", "root/target/b"})
            fs::create_directories(m_dir / directory);
        for (const char* file : {"root/x", "root/name", "root/a/name", "name"})
            WriteFile(m_dir / file, "sentinel");
        m_around = Around();
    }
    void TearDown() override {
        EXPECT_EQ(Around(), m_around);
        EXPECT_EQ(ObjCount(), m_objects);
    }
    // Everything outside the target directory, with contents.
    std::string Around() {
        std::string out;
        std::vector<std::string> paths;
        for (auto it = fs::recursive_directory_iterator(m_dir.Path());
             it != fs::recursive_directory_iterator(); ++it) {
            if (it->path() == m_target) it.disable_recursion_pending();
            if (it->path() != m_archive) paths.push_back(it->path().string());
        }
        std::sort(paths.begin(), paths.end());
        for (const std::string& path : paths)
            out += path + (fs::is_regular_file(path) ? "=" + ReadFile(path) : "/") + "\n";
        return out;
    }
    // In a child process, so that a stop of the process would be seen.
    void RestoreInChild(const char* what, const std::string& archive, BooleanT expected) {
        const RunResult result = InChild([&]() -> int {
            std::signal(SIGSEGV, SIG_DFL);
            const long before = PeakMemory();
            const BooleanT bResult = Restore(archive);
            const long more = PeakMemory() - before;
            if (more > MemoryLimit) std::printf("%ld KiB more", more);
            if (ObjCount() != m_objects) std::printf("%d objects left", ObjCount() - m_objects);
            return bResult;
        });
        EXPECT_EQ(result.signal, 0) << what;
        EXPECT_EQ(result.exitCode, expected) << what;
        EXPECT_EQ(result.output, "") << what;
    }

    std::string m_around;
    const int32 m_objects = ObjCount();
};

WITH_WORKERS(Hostile);

TEST_P(Hostile, CutAnywhere) {
    const std::string archive = bytes::Archive(TwoFiles);
    ASSERT_EQ(Restore(archive), TRUE);
    const NothingLeft nothing;
    for (std::size_t size = 0; size < archive.size(); size++)
        EXPECT_EQ(Restore(archive.substr(0, size)), FALSE) << size;
}

TEST_P(Hostile, EveryNumberLies) {
    // Over every byte of the header list, so over every length, count, magic and reference.
    const std::string archive = bytes::Archive(TwoFiles);
    const std::size_t headers = 4 + 18 + (67 + 5 + 16) + (67 + 6 + 2 * 16);
    const long before = PeakMemory();
    int restored = 0;
    for (std::size_t at = 0; at + 4 <= headers; at++) {
        for (const std::int64_t lie :
             {0LL, 1LL, -1LL, 65536LL, 1000000LL, 0x7fffffffLL, 0x7ffffff0LL, 0x80000000LL}) {
            std::string lying = archive;
            lying.replace(at, 4, Long(lie));
            if (Restore(lying) == TRUE) restored++;
        }
    }
    EXPECT_LT(PeakMemory() - before, MemoryLimit);
    // The sums and chunk counts are not consulted; names can be others.
    EXPECT_GT(restored, 100);
}

TEST_P(Hostile, RandomDamage) {
    const std::string archive = bytes::Archive(TwoFiles);
    const long before = PeakMemory();
    std::mt19937 random(20240229);
    for (int flip = 0; flip < Flips; flip++) {
        std::string damaged = archive;
        for (unsigned count = 1 + random() % 6; count > 0; count--) {
            char& byte = damaged[random() % damaged.size()];
            byte = static_cast<char>(random() % 3 == 0 ? random() : byte ^ 1 << random() % 8);
        }
        if (Restore(damaged) != TRUE) continue;
        // Contents are protected by checksums, whatever became of the names. What earlier attempts
        // left is whole as far as it goes.
        const std::vector<std::string> whole = {"", "the first file's text", "another",
                                                "another text"};
        for (const std::string& name : ListDir(m_target)) {
            EXPECT_TRUE(name == "b" || std::count(whole.begin(), whole.end(), Restored(name)) == 1)
                << flip << " " << name << " " << Restored(name);
        }
        fs::remove_all(m_target);
    }
    EXPECT_LT(PeakMemory() - before, MemoryLimit);
}

TEST_P(Hostile, NamesStayInTheTarget) {
    const std::string nul(1, '\0');
    const std::vector<std::string> refused = {"../x",
                                              "../a/name",
                                              "../../name",
                                              "../new",
                                              m_dir / "root/name",
                                              m_dir / "root/new",
                                              "/",
                                              "a/b",
                                              "b/c",
                                              "name/",
                                              "./name",
                                              ".",
                                              "..",
                                              "",
                                              ".." + nul + "a",
                                              "../x" + nul + "a"};
    for (const std::string& name : refused)
        EXPECT_EQ(Restore(WithName(bytes::String(name))), FALSE) << name;
    EXPECT_EQ(Restore(WithName(Long(0))), FALSE);  // null
    EXPECT_EQ(Restore(WithName(Long(4) + "name")), FALSE) << "no terminator";
    EXPECT_EQ(ListDir(m_target), std::vector<std::string>{"b"});
    EXPECT_EQ(Around(), m_around);
    // Names that only look dangerous.
    for (const char* name : {"...", "..x", "\\..\\x", " ", "-d", "\xff\n"}) {
        EXPECT_EQ(Restore(WithName(bytes::String(name))), TRUE) << name;
        EXPECT_EQ(Restored(name), "text");
    }
}

TEST_P(Hostile, GraphsOfEveryShape) {
    const std::string self =
        bytes::SharedFirst(7, bytes::Object(ForeignMagic, "o;", bytes::SharedAgain(7)));
    const std::string selfList = bytes::SharedFirst(1, bytes::List({bytes::SharedAgain(1)}));
    const std::string inItself = bytes::SharedFirst(
        1, bytes::List({bytes::List({bytes::SharedAgain(1)}), bytes::SharedAgain(1)}));
    const std::string selfTree = bytes::SharedFirst(1, Byte(1) + Long(0xc8a2f9a1) + Byte(0)) +
                                 Byte(1) + Byte(0) + bytes::SharedAgain(1) + Byte(0) + Byte(0) +
                                 Long(0xc8a2f9a1);
    const std::string one = bytes::Integer(1);
    bytes::FileHeader ownHeader = Header();
    ownHeader.ext = bytes::SharedAgain(1);
    bytes::FileHeader ownList = Header();
    ownList.ext = bytes::SharedAgain(9);
    const std::tuple<const char*, std::string, BooleanT> cases[] = {
        {"an object that holds itself", WithExt(self), TRUE},
        {"a list that holds itself", WithExt(selfList), TRUE},
        {"the same twice over", WithExt(inItself), TRUE},
        {"a tree that holds itself", WithExt(selfTree), TRUE},
        {"a header that holds itself",
         ArchiveOf(bytes::List({bytes::SharedFirst(1, ownHeader.Encode())})), TRUE},
        {"a header that holds the header list",
         ArchiveOf(bytes::SharedFirst(9, bytes::List({ownList.Encode()}))), TRUE},
        {"a cookie that holds the list that is not there yet",
         WithExt(bytes::SharedFirst(1, bytes::List({}, 0, bytes::SharedAgain(1)))), FALSE},
        {"a header list that holds itself",
         ArchiveOf(bytes::SharedFirst(1, bytes::List({Header().Encode(), bytes::SharedAgain(1)}))),
         FALSE},
        {"an unknown reference", WithExt(bytes::SharedAgain(5)), FALSE},
        {"the same number twice",
         WithExt(bytes::List({bytes::SharedFirst(1, one), bytes::SharedFirst(1, one)})), FALSE},
        {"numbers in no order",
         WithExt(bytes::List({bytes::SharedFirst(9, one), bytes::SharedFirst(-4, one),
                              bytes::SharedAgain(9), bytes::SharedAgain(-4)})),
         TRUE},
        {"a circle, then a failure", WithExt(bytes::List({self, selfList, bytes::SharedAgain(5)})),
         FALSE},
        {"an impossible lead byte", WithExt(Byte(4)), FALSE},
        {"what is no magic", WithExt(bytes::Object(0x12345678, "i;", Long(1))), FALSE},
        {"deep lists", WithExt(NestedLists(Deep)), FALSE},
        {"deep objects", WithExt(Chain(Deep)), FALSE},
        {"a deep tree", WithExt(DeepTree(Deep)), TRUE},
        {"lists of bearable depth", WithExt(NestedLists(900)), TRUE},
        {"objects of bearable depth", WithExt(Chain(900)), TRUE},
        {"cookies within cookies",
         WithExt(Repeat(Deep, Byte(1) + Long(0xc8a2f9b9) + Long(0) + Long(0))), FALSE},
        {"a long list of nothing", WithExt(bytes::List(std::vector<std::string>(Deep, Byte(0)))),
         FALSE},
        {"a wide list", WithExt(bytes::List(std::vector<std::string>(Deep, bytes::Integer(3)))),
         TRUE},
    };
    for (const auto& [what, archive, restored] : cases) {
        EXPECT_EQ(Restore(archive), restored) << what;
        EXPECT_EQ(ObjCount(), m_objects) << what;
    }
}

// Lengths, counts and shapes that announce more than there is.
TEST_P(Hostile, NothingIsAllocatedForALie) {
    const auto object = [](const std::string& descriptor, const std::string& fields) {
        return WithExt(bytes::Object(ForeignMagic + 1, descriptor, fields));
    };
    const std::string huge = Long(0x7ffffff0);
    const std::pair<const char*, std::string> cases[] = {
        {"header list", huge + bytes::Archive(TwoFiles).substr(4)},
        {"string", object("s;", huge + "text")},
        {"data", object("d;", huge + "text")},
        {"inline data", object("n2147483000;", huge + "text")},
        {"inline data of overflowing sizes", object(Repeat(300, "n2147483000;"), huge)},
        {"inline data of no size", object("n99999999999999999999;", huge)},
        {"many fields", object(Repeat(1000, "n1000000;"), huge)},
        {"descriptor", WithExt(Byte(1) + Long(ForeignMagic) + huge + "i;")},
        {"list", WithExt(Byte(1) + Long(0xc8a2f9b9) + Long(0) + huge + Byte(0))},
        {"stanza with keys", object("z;", Byte(1) + bytes::String("title") + huge + huge)},
        {"stanza with room",
         object("z;", Byte(1) + bytes::String("t") + Long(1) + huge + bytes::String("k"))},
        {"key with values", object("z;", Byte(1) + bytes::String("title") + Long(1) + Long(1) +
                                             bytes::String("key") + huge + huge)},
        {"key with fewer slots than values",
         object("z;", Byte(1) + bytes::String("title") + Long(1) + Long(1) + bytes::String("key") +
                          Long(2) + Long(1) + bytes::String("1") + bytes::String("2"))},
        {"stanza with a long title",
         object("z;", Byte(1) + bytes::String(std::string(5000, 't')) + Long(0) + Long(0))},
        {"view", object("v;", Long(1) + huge + "name")},
    };
    for (const auto& [what, archive] : cases) RestoreInChild(what, archive, FALSE);
    // What a stanza only reserves is cut to what it may need.
    RestoreInChild("room", object("z;", Byte(1) + bytes::String("t") + Long(0) + huge), TRUE);
}

// Objects of the library's own classes: those that hold pointers are refused, and all in another
// shape.
TEST_P(Hostile, ClassesOfTheLibrary) {
    const std::string pointers = Long(0x41414141) + Long(0x41414141) + Long(0x41414141);
    const std::tuple<const char*, std::uint32_t, const char*, std::string, BooleanT> cases[] = {
        {"map", 0xc938e027, "i;i;i;i;p;p;p;d;",
         Long(8) + Long(2) + Long(2) + Long(2) + pointers + Long(4) + "data", FALSE},
        {"list node", 0xc8a2f9bb, "L;l;L;l;", std::string(4, '\0'), FALSE},
        {"tree node", 0xc8a2f9b6, "o;l;l;o;l;o;b;l;", std::string(8, '\0'), FALSE},
        {"growing string", 0xc898f3ce, "d;i;o;", Long(2) + "ab" + Long(100) + Byte(0), TRUE},
        {"archive context", 0xca06d793, "o;s;p;s;p;o;o;",
         Byte(0) + Long(0) + Long(1) + Long(0) + Long(2) + Byte(0) + Byte(0), TRUE},
        {"file header of another shape", 0xca06d747, "s;", Long(0), FALSE},
        {"integer of another shape", 0xc96cf22a, "s;", Long(0), FALSE},
        {"string of another shape", 0xc96cec6f, "i;", Long(0), FALSE},
        {"map of another shape", 0xc938e027, "i;", Long(0), FALSE},
        {"list node of another shape", 0xc8a2f9bb, "o;", Byte(0), FALSE},
    };
    for (const auto& [what, magic, descriptor, fields, restored] : cases)
        RestoreInChild(what, WithExt(bytes::Object(magic, descriptor, fields)), restored);
}

}  // namespace
