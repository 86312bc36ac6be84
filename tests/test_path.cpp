// Paths: what belongs to /etc is tried in a child process whose root is a temporary directory.
#include <sched.h>
#include <sys/statvfs.h>

#include <optional>

#include "core/path.h"
#include "core/pathwrappers.h"
#include "core/stnzbase.h"
#include "core/stnzfile.h"
#include "machines/solaris.h"
#include "support/files.h"
#include "support/lists.h"

namespace {

using Texts = std::vector<std::string>;

// In a child process that sees the directory as the root of the file system.
RunResult InRoot(const Dir& root, const std::function<int()>& function) {
    return InChild([&] {
        const char* const path = root.Path().c_str();
        if (chroot(path) != 0 && (unshare(CLONE_NEWUSER) != 0 || chroot(path) != 0)) return 99;
        return chdir("/") == 0 ? function() : 98;
    });
}

TEST(PathHome, ComesFromTheFirstSourceThatHasOne) {
    using Optional = std::optional<std::string>;
    // KRHOME, whether it is ignored, the registered home, what comes of it.
    const std::tuple<Optional, bool, Optional, std::string> cases[] = {
        {"/opt/x", false, "/opt/file\n", "/opt/x"},
        {"/opt/x", true, "/opt/file\nsecond\n", "/opt/file"},
        {"/opt/x", true, {}, "/usr/brisk"},
        {{}, false, "", "/usr/brisk"},
        {{}, false, "\n/opt/file\n", "/usr/brisk"},
        {{}, false, std::string(2000, 'x'), std::string(1023, 'x')},
        {{}, false, {}, "/usr/brisk"}};
    for (const auto& [krhome, ignored, registration, expected] : cases) {
        Dir root;
        ASSERT_EQ(mkdir(root("etc"), 0755), 0);
        if (ignored) WriteFile(root("etc/.nokrhome"), "");
        if (registration) WriteFile(root("etc/.brisk"), *registration);
        const RunResult result = InRoot(root, [&variable = krhome] {
            variable ? setenv("KRHOME", variable->c_str(), 1) : unsetenv("KRHOME");
            char* home = nullptr;
            if (PathInitialize() != TRUE || PathGetHomeDir(&home) != TRUE) return 1;
            std::puts(Owned(home).c_str());
            return 0;
        });
        EXPECT_EQ(result.output, expected + "\n");
    }
}

TEST(PathBuilding, Components) {
    const std::string home = TestHome();
    const std::pair<char*, std::string> cases[] = {
        {PathBuild("a", "b", nullptr), "a/b"},
        {PathBuild("a/", "b", nullptr), "a/b"},
        {PathBuild("a", "/b", nullptr), "a//b"},
        {PathBuild("/", "b", "", "c", nullptr), "/b/c"},
        {PathBuild("", "b", nullptr), "/b"},
        {PathBuild(nullptr, nullptr), ""},
        {PathHomeBuild("bin", "zlibcompress", nullptr), home + "/bin/zlibcompress"},
        {PathHomeBuild("/x", "y/", "z", nullptr), home + "/x/y//z"},
        {PathHomeBuild(nullptr, nullptr), home}};
    for (const auto& [built, expected] : cases) EXPECT_EQ(Owned(built), expected);
    // Always with a "/" between the two.
    for (const auto add : {PathAddDir, PathAddFilename}) {
        char* built = nullptr;
        EXPECT_EQ(add(&built, "a/", "b"), TRUE);
        EXPECT_EQ(Owned(built), "a//b");
        EXPECT_EQ(add(&built, "", "b"), TRUE);
        EXPECT_EQ(Owned(built), "/b");
        EXPECT_EQ(add(&built, "a", nullptr) + add(&built, nullptr, "b"), FALSE);
    }
    StnzKeyT* key = nullptr;
    EXPECT_EQ(StnzLineToKey(&key, "k=x/,,y,z"), TRUE);
    EXPECT_EQ(Owned(PathRelativeFromKey(key)), "x//y/z");
    StnzReleaseKey(&key);
    // Items that hold no text leave no trace, not even a separator.
    ObjHolder<ListS> mixed(ListNew());
    void* items[] = {ObjIntegerNew(1), ObjStringNew("x"), ObjStringNew(nullptr), ObjStringNew("y")};
    for (void*& item : items) ListPushLastItem(mixed.Get(), &item);
    EXPECT_EQ(Owned(PathRelativeFromValueList(mixed.Get())), "x/y");
    EXPECT_EQ(Owned(PathHomeBuildFromValueList(mixed.Get())), home + "/x/y");
}

TEST(PathSplitting, Table) {
    const char* const none = "<null>";
    // Path, directory, last component, leaf, whether it stays below where it starts.
    const std::tuple<const char*, const char*, const char*, const char*, bool> cases[] = {
        {"/a/b/c", "/a/b", "c", "c", true},
        {"c", "", none, "c", true},
        {"/c", "", "c", "c", true},
        {"a/b/", "a/b", "", "", true},
        {"", "", none, "", true},
        {"a/../b", "a/..", "b", "b", false},
        {"..", "", none, "..", false},
        {"../x", "..", "x", "x", false},
        {"x/..", "x", "..", "..", false},
        {"a/..b", "a", "..b", "..b", true},
        {"a../b..c/...", "a../b..c", "...", "...", true},
        // To the file system a byte that may begin a two-byte character is an ordinary one.
        {"a\x93/../b\x93/c", "a\x93/../b\x93", "c", "c", false}};
    for (const auto& [path, directory, last, leaf, descending] : cases) {
        char *lastFound = nullptr, *leafFound = nullptr;
        EXPECT_EQ(Owned(PathSplit(path)), directory) << path;
        EXPECT_EQ(PathLastComponent(&lastFound, path), BooleanFrom(last != none)) << path;
        EXPECT_EQ(Owned(lastFound), last) << path;
        EXPECT_EQ(PathLeaf(&leafFound, path), TRUE) << path;
        EXPECT_EQ(Owned(leafFound), leaf) << path;
        EXPECT_EQ(PathIsDescending(path), BooleanFrom(descending)) << path;
    }
}

TEST(PathComponents, ToListAndBack) {
    const std::tuple<const char*, Texts, const char*> cases[] = {
        {"/a/b/", {"/", "a", "b"}, "//a/b"},
        {"a/b", {"a", "b"}, "a/b"},
        {"/", {"/"}, "/"},
        {"", {}, ""}};
    for (const auto& [path, components, back] : cases) {
        ObjHolder<ListS> list;
        ASSERT_EQ(PathToComponentList(list.Address(), path), TRUE) << path;
        EXPECT_EQ(TextsOf(list.Get()), components) << path;
        char* joined = nullptr;
        EXPECT_EQ(PathFromComponentList(&joined, list.Get()), TRUE);
        EXPECT_EQ(Owned(joined), back);
    }
    ListO list = nullptr;
    for (const char* bad : {"a//b", "//a", "a//"}) {
        EXPECT_EQ(PathToComponentList(&list, bad), FALSE) << bad;
        EXPECT_EQ(list, nullptr);
    }
}

TEST(PathApplications, Parameters) {
    std::string many = "1";
    for (int field = 2; field < 150; ++field) many.append(":").append(std::to_string(field));
    const std::string none = "<null>";
    // Path, for a backup, name (none when it is refused), instance, restore path.
    const std::tuple<std::string, BooleanT, std::string, std::string, std::string> cases[] = {
        {"app:Db:inst1:/restore/dir", FALSE, "Db", "inst1", "/restore/dir"},
        {"app:Db:inst1:/restore/dir", TRUE, "Db", "inst1:/restore/dir", none},
        {"APP:Db", FALSE, "Db", none, none},
        {"App:Db:/dir", FALSE, "Db", none, "/dir"},
        {"App:Db::/dir", FALSE, "Db", none, "/dir"},
        {"App:Db:a:b:/dir", FALSE, "Db", "a:b", "/dir"},
        {"App:Db:a:/dir:b", FALSE, "Db", "a:/dir:b", none},
        {"App:Db:", FALSE, "Db", "", none},
        // Fields from the hundredth on belong to the last one that is told apart.
        {"App:Db:" + many + ":/dir", FALSE, "Db", many + ":/dir", none},
        {"App", FALSE, none, none, none},
        {"Apps:Db", FALSE, none, none, none},
        {"App::inst", FALSE, none, none, none}};
    char *name = nullptr, *instance = nullptr, *restore = nullptr;
    for (const auto& [path, backup, nameWanted, instanceWanted, restoreWanted] : cases) {
        SCOPED_TRACE(path);
        EXPECT_EQ(PathGetAppParams(path.c_str(), backup, &name, &instance, &restore),
                  BooleanFrom(nameWanted != none));
        EXPECT_EQ(Owned(name), nameWanted);
        EXPECT_EQ(Owned(instance), instanceWanted);
        EXPECT_EQ(Owned(restore), restoreWanted);
    }
    char* file = nullptr;
    EXPECT_EQ(PathGetAppLibrary("Db", &file), TRUE);
    EXPECT_EQ(Owned(file), TestHome() + "/apps/Db/libhalo_Db.so");
    EXPECT_EQ(PathGetAppConfig("Db", &file), TRUE);
    EXPECT_EQ(Owned(file), TestHome() + "/apps/Db/halo_Db.cfg");
    EXPECT_EQ(PathGetAppLibrary("", &file) + PathGetAppConfig("", &file), FALSE);
}

TEST(PathDirectories, TheCurrentOne) {
    const Dir dir;
    // The longest path that is told, and one byte more.
    for (const std::size_t length : {std::size_t{2047}, std::size_t{2048}}) {
        const RunResult result = InChild([&] {
            bool good = PathSetDirectory(dir.Path().c_str()) == TRUE;
            for (std::size_t left = length - dir.Path().size(), step = 0; left > 0; left -= step) {
                step = left > 201 ? 200 : left;
                const Name name(std::string(step - 1, 'd'));
                mkdir(name, 0700);
                good = good && PathSetDirectory(name) == TRUE;
            }
            if (!good || PathSetDirectory("missing") == TRUE || errno != ENOENT) return 1;
            const std::string expected = std::filesystem::current_path();
            char* current = nullptr;
            const bool told = PathGetCurrentDirectory(&current) == TRUE;
            if (expected.size() != length || told != (length < 2048)) return 2;
            return Owned(current) == (told ? expected : "<null>") ? 0 : 3;
        });
        EXPECT_EQ(result.exitCode, 0);
    }
}

TEST(PathDirectories, TreesAreDeletedWithoutLeavingThem) {
    for (const auto remove : {PathRemoveDirectory, PathDestroyDirectory}) {
        Dir dir;
        const Name tree = dir("tree");
        umask(077);
        EXPECT_EQ(PathCreateDirectory(dir("outside")), TRUE);  // the owner's
        EXPECT_EQ(umask(0), 0U);
        EXPECT_EQ(ModeOf(dir("outside")), S_IFDIR | 0700U);
        WriteFile(dir("outside/kept"), "kept");
        std::string deep = tree;
        for (int level = 0; level < 200; ++level, deep += "/d") {
            ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
            WriteFile(deep + "/file", "x");
        }
        ASSERT_EQ(mkdir(dir("tree/empty"), 0700), 0);
        ASSERT_EQ(mkfifo(dir("tree/fifo"), 0600), 0);
        ASSERT_EQ(symlink(dir("outside"), dir("tree/link")), 0);
        ASSERT_EQ(symlink(dir("outside/kept"), dir("tree/d/filelink")), 0);
        ASSERT_EQ(symlink("nowhere", dir("tree/dangling")), 0);
        ASSERT_EQ(symlink(tree, dir("treelink")), 0);

        for (const char* bad : {"treelink", "outside/kept", "missing"})
            EXPECT_EQ(remove(dir(bad)), FALSE) << bad;
        EXPECT_TRUE(Exists(dir("tree/d/d/file")));
        EXPECT_EQ(remove(tree), TRUE);
        EXPECT_EQ(ListDir(dir.Path()), (Texts{"outside", "treelink"}));
        EXPECT_EQ(ReadFile(dir("outside/kept")), "kept");

        // What has a path longer than the system takes stays.
        ASSERT_EQ(mkdir(tree, 0700), 0);
        ASSERT_TRUE(MakeTooDeep(tree));
        EXPECT_EQ(remove(tree), FALSE);
        EXPECT_TRUE(Exists(tree));
    }
}

TEST(PathLocks, ExcludeOtherProcesses) {
    Dir dir;
    const Name target = dir("target");
    ASSERT_EQ(mkdir(target, 0700), 0);
    const auto granted = [&](FileLockT wanted) { return LockIsFree(dir("target.lck"), wanted); };
    PathLockO lock = nullptr;
    ASSERT_EQ(PathLock(&lock, target, FileLockShared), ePROK);
    EXPECT_TRUE(granted(FileLockShared));
    EXPECT_FALSE(granted(FileLockExclusive));
    ASSERT_EQ(PathUnLock(&lock), ePROK);
    EXPECT_EQ(lock, nullptr);
    EXPECT_TRUE(granted(FileLockExclusive));
    EXPECT_EQ(ListDir(dir.Path()), (Texts{"target", "target.lck"}));
    // A lock ends also with the object that stands for it.
    ASSERT_EQ(PathLock(&lock, target, FileLockExclusive), ePROK);
    EXPECT_FALSE(granted(FileLockShared));
    ObjRelease(&lock);
    EXPECT_TRUE(granted(FileLockShared));
    for (const char* bad : {"target.lck", "missing"})
        EXPECT_EQ(PathLock(&lock, dir(bad), FileLockShared), ePRNoSuchDirectory) << bad;
    EXPECT_EQ(lock, nullptr);
}

TEST(PathMounts, Classes) {
    Dir root;
    for (const char* name : {"etc", "data", "data/in", "data/inside", "with blank"})
        ASSERT_EQ(mkdir(root(name), 0755), 0);
    // Lines of the table, and what comes of them.
    const std::pair<std::string, std::string> lines[] = {
        {"# a comment", ""},
        {"/dev/r\t/\tufs\trw,dev=1\t1000", "/|/dev/r||1|\n"},
        {"proc\t/proc\tproc\trw\t1000", "/proc|proc||3|\n"},
        {"/dev/z\t/proc/local\tufs\trw\t1000", "/proc/local|/dev/z||5|\n"},
        {"/dev/a\t/data\tufs\trw\t1001", "/data|/dev/a|ufs|1|sized\n"},
        {"/dev/b\t/data/in\tzfs\t" + std::string(40000, 'o') + "\t1001 no new line",
         "/data/in|/dev/b|zfs|1|sized\n"},
        {"short line\n", ""},
        {"/dev/c\t/gone\tufs\trw\t1002", "/gone|/dev/c||1|\n"},
        {"/dev/d\t/net/below\tufs\trw\t1003", "/net/below|/dev/d||5|\n"},
        {"srv:/x\t/net\tnfs\trw\t1004", "/net|srv:/x||2|\n"},
        {"srv:/y\t/net/remote\tnfs\trw\t1004", "/net/remote|srv:/y||2|\n"},
        {"/dev/e\t/network\tufs\trw\t1004", "/network|/dev/e||1|\n"},
        {"/dev/f\t/floppy\tpcfs\trw\t1005", "/floppy|/dev/f||4|\n"},
        {"/dev/g\t/floppy/sub\tPCFS\trw\t1005", "/floppy/sub|/dev/g||5|\n"},
        {"swap\t/tmp\ttmpfs\trw\t1006", "/tmp|swap||3|\n"},
        {"/dev/h\t/with\\040blank\tufs\trw\t1007", "/with blank|/dev/h|ufs|1|sized\n"}};
    std::string table, expected;
    for (const auto& [line, mount] : lines) {
        table += (table.empty() ? "" : "\n") + line;
        expected += mount;
    }
    WriteFile(root("etc/mnttab"), table);
    const RunResult result = InRoot(root, [] {
        ObjHolder<ListS> exclude(ListOf({"hsfs", "pcfs"}));
        ListO mounts = nullptr;
        if (PathUnixMountPoints(&mounts, exclude.Get()) != TRUE) return 1;
        for (const auto* mount : ItemsOf<PathKrMountPointO>(mounts)) {
            const bool sized = mount->llUsedSize > 0 && mount->llUsedSize < mount->llTotalSize;
            std::printf("%s|%s|%s|%d|%s\n", mount->pstrName, mount->pstrSpecial,
                        mount->pstrFsType == nullptr ? "" : mount->pstrFsType, mount->lType,
                        sized ? "sized" : "");
        }
        MachineStatVfsT statistics;
        if (MachineStatVfs(&statistics, "/data/inside") != TRUE) return 2;
        std::puts(statistics.acBaseType);
        return 0;
    });
    EXPECT_EQ(result.output, expected + "ufs\n");
}

TEST(PathMounts, ThisHost) {
    ObjHolder<ListS> mounts;
    ASSERT_EQ(PathUnixMountPoints(mounts.Address(), nullptr), TRUE);
    Texts found, expected;
    for (const auto* mount : ItemsOf<PathKrMountPointO>(mounts.Get())) {
        const std::string entry = std::string(mount->pstrSpecial) + " " + mount->pstrName;
        if (std::count(entry.begin(), entry.end(), ' ') == 1) found.push_back(entry);
        struct statvfs system = {};
        if (mount->pstrFsType == nullptr || statvfs(mount->pstrName, &system) != 0) continue;
        EXPECT_EQ(mount->llTotalSize,
                  static_cast<int64>(uint64{system.f_frsize} * system.f_blocks));
        EXPECT_EQ(mount->llTotalInodes, static_cast<int64>(system.f_files)) << entry;
        EXPECT_TRUE(mount->llUsedSize >= 0 && mount->llUsedSize <= mount->llTotalSize) << entry;
    }
    // The other account of the same table: six fields, options up to a lone "-", type and device.
    for (const std::string& line : Split(ReadFile("/proc/self/mountinfo"))) {
        const Texts fields = Split(line, ' ');
        const auto end = std::find(fields.begin() + 6, fields.end(), "-");
        const std::string entry = end[2] + " " + fields[4];
        if (entry.find('\\') == std::string::npos) expected.push_back(entry);
    }
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(found, expected);
}

}  // namespace
