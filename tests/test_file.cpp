// Files: descriptors and streams, whole files, locks, temporary files, directory scans. A few
// faults that no file system produces on demand are put between the library and the system here.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <set>

#include "core/dirscan.h"
#include "core/filebase.h"
#include "core/filelock.h"
#include "core/filesys.h"
#include "core/filetmp.h"
#include "core/path.h"
#include "support/files.h"

static std::function<void()> g_atEnd;  // called when a directory was read to its end

extern "C" struct dirent64* readdir64(DIR* directory) {
    static auto* const real =
        reinterpret_cast<struct dirent64* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir64"));
    struct dirent64* const entry = real(directory);
    if (entry == nullptr && g_atEnd) std::exchange(g_atEnd, nullptr)();
    return entry;
}

static int g_fsyncs;

extern "C" int fsync(int handle) {
    static auto* const real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
    g_fsyncs++;
    return real(handle);
}

namespace {

namespace fs = std::filesystem;

// A file that is open while this lives.
struct Handle {
    Handle(const Name& path, FileModeT mode) { FileSysOpen(&handle, path, mode); }
    ~Handle() { FileSysClose(&handle); }
    int fd() const { return static_cast<int>(handle); }
    FileHandleT handle = FileHandleClosed;
};

struct Pipe {
    Pipe() { EXPECT_EQ(pipe(ends), 0); }
    ~Pipe() {
        CloseWriting();
        close(ends[0]);
    }
    void CloseWriting() {
        if (ends[1] != -1) close(ends[1]);
        ends[1] = -1;
    }
    void Put(const char* text) const {
        if (write(ends[1], text, std::strlen(text)) < 0) _exit(9);
    }
    // The next byte; 0 when all that write have closed their end.
    char Take() {
        char byte = 0;
        return read(ends[0], &byte, 1) == 1 ? byte : 0;
    }
    int ends[2];
};

// A file whose name cannot be deleted or renamed, whoever asks: a descriptor's entry in /proc.
Name ProcPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

std::string Pattern(std::size_t size) {
    std::string bytes(size, 0);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
    return bytes;
}

// Interrupts the process, without repeating its calls, every few milliseconds and calls a function
// with the number of the interruption.
struct Interrupter {
    explicit Interrupter(std::function<void(int)> function) {
        s_function = std::move(function);
        s_count = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) {
            const int saved = errno;
            s_count = s_count + 1;
            s_function(s_count);
            errno = saved;
        };
        sigaction(SIGALRM, &action, nullptr);
        Set(3000);
    }
    ~Interrupter() { Set(0); }
    static void Set(int microseconds) {
        const itimerval timer = {{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    static inline std::function<void(int)> s_function;
    static inline volatile int s_count = 0;
};

TEST(FileSys, OpenModes) {
    // Modes, flags, whether a file is created and truncated.
    const std::tuple<std::vector<FileModeT>, int, bool, bool> cases[] = {
        {{0, 1, 7, 257, 0x208}, O_RDONLY, false, false},
        {{2, 258}, O_WRONLY, true, true},
        {{3}, O_WRONLY | O_APPEND, true, false},
        {{4, 5, 6}, O_RDWR, true, false}};
    for (const auto& [modes, flags, creates, truncates] : cases) {
        for (const FileModeT mode : modes) {
            Dir dir;
            WriteFile(dir("old"), "content");
            Handle old(dir("old"), mode);
            EXPECT_EQ(fcntl(old.fd(), F_GETFL) & (O_ACCMODE | O_APPEND), flags) << mode;
            EXPECT_EQ(fcntl(old.fd(), F_GETFD), FD_CLOEXEC) << mode;
            EXPECT_EQ(ReadFile(dir("old")), truncates ? "" : "content") << mode;
            umask(077);
            Handle created(dir("new"), mode);
            EXPECT_EQ(ModeOf(dir("new")), creates ? S_IFREG | 0644U : 0U) << mode;
        }
    }
}

TEST(FileSys, RefusedTruncationOpensAsItIs) {
    const int sealed = memfd_create("sealed", MFD_ALLOW_SEALING);
    ASSERT_EQ(write(sealed, "content", 7), 7);
    ASSERT_EQ(fcntl(sealed, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    Handle file(ProcPath(sealed), 2);
    ASSERT_NE(file.handle, FileHandleClosed);
    int32 written = 0;
    EXPECT_EQ(FileSysWrite(&written, file.handle, "CON", 3), TRUE);
    EXPECT_EQ(ReadFile(ProcPath(sealed)), "CONtent");
    close(sealed);
}

TEST(FileSys, FailuresAreReportedAndLeaveErrno) {
    Dir dir;
    const Name missing = dir("missing");
    const Name full = dir("full");
    WriteFile(dir("file"), "content");
    fs::create_directories(full + "/entry");
    Handle reader(dir("file"), 1);
    Handle device("/dev/full", 4);
    const Pipe data;
    FileHandleT handle = 4711;
    int32 count = 0;
    // Message, level, status and errno, call.
    const std::tuple<int32, int32, int32, std::function<BooleanT()>> cases[] = {
        {19, -1, ENOENT, [&] { return FileSysOpen(&handle, missing, 1); }},
        {19, -1, EISDIR, [&] { return FileSysOpen(&handle, full, 2); }},
        {35, -1, ENOENT, [&] { return FileSysOpenLocked(&handle, missing, 1); }},
        {7, -1, ENOSPC, [&] { return FileSysWrite(&count, device.handle, "x", 1); }},
        {33, -1, EINVAL, [&] { return FileSysTruncate(reader.handle); }},
        {30, 3, EBADF, [&] { return FileSysSynchronous(1 << 20); }},
        {42, -1, ESPIPE, [&] { return FileSysSeekStart(data.ends[0]); }},
        {49, -1, ESPIPE, [&] { return FileSysSeekEnd(data.ends[0]); }},
        {46, -1, EINVAL, [&] { return FileSysSeek(reader.handle, -1); }},
        {526, -1, EISDIR, [&] { return FileDelete(full); }},
        {532, 3, ENOTEMPTY, [&] { return FileDirDelete(full); }},
        {531, -1, EISDIR, [&] { return FileCopy(full, dir("x")); }},
        {5, 3, EEXIST, [&] { return PathCreateDirectory(full); }}};
    for (const auto& [message, level, error, call] : cases) {
        const TraceCapture trace;
        errno = 0;
        EXPECT_EQ(call(), FALSE) << message;
        EXPECT_EQ(errno, error) << message;
        std::set<std::tuple<int32, int32, int32>> messages;
        for (const auto& m : trace.Records()) messages.insert({m.number, m.level, m.status});
        EXPECT_EQ(messages.count({message, level, error}), 1U) << message;
    }
    EXPECT_EQ(handle, 4711);
    EXPECT_EQ(ReadFile(dir("file")), "content");
    EXPECT_FALSE(Exists(dir("x")));
}

TEST(FileSys, PositionsBeyondFourGigabytes) {
    Dir dir;
    const int64 far = int64{5} << 30;
    Handle file(dir("sparse"), 6);
    int32 count = 0;
    int64 size = 0;
    char bytes[32] = {};
    ASSERT_EQ(FileSysSeek(file.handle, far), TRUE);
    ASSERT_EQ(FileSysWrite(&count, file.handle, "0123456789", 10), TRUE);
    EXPECT_EQ(FileSysSeekRelative(file.handle, -7), TRUE);
    EXPECT_EQ(FileSysRead(&count, file.handle, bytes, sizeof(bytes)), TRUE);
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(count)), "3456789");
    for (const auto& [seek, expected] :
         {std::pair{&FileSysSeekStart, int64{0}}, {&FileSysSeekEnd, far + 10}}) {
        int64 offset = -1;
        EXPECT_TRUE(seek(file.handle) && FileSysGetOffset(&offset, file.handle));
        EXPECT_EQ(FileSysGetOffset(&offset, FileHandleClosed), FALSE);
        EXPECT_EQ(offset, expected);
    }
    EXPECT_TRUE(FileSysSkip(file.handle, -8) && FileSysTruncate(file.handle));
    EXPECT_EQ(FileSysSize(&size, file.handle), TRUE);
    EXPECT_EQ(size, far + 2);
    // Three gigabytes do not fit in 32 bits.
    ASSERT_EQ(truncate(dir("sparse"), off_t{3} << 30), 0);
    EXPECT_EQ(FileSize(&count, dir("sparse")), TRUE);
    EXPECT_EQ(count, -(1 << 30));
    WriteFile(dir("small"), "1234");
    ASSERT_EQ(symlink("nowhere", dir("dangling")), 0);
    EXPECT_EQ(DirGetContentsSize(&size, dir.Path().c_str()), TRUE);
    EXPECT_EQ(size, far + 2 + (int64{3} << 30) + 4);
}

TEST(FileSys, SynchronousWritesWaitForTheDevice) {
    const Dir dir;
    const Pipe data;  // has no device to wait for
    int32 count = 0;
    int numbers[2] = {};
    for (int& number : numbers) {
        Handle file(dir("f"), 6);
        number = file.fd();
        for (const int waits : {0, 1}) {
            // A number that was another file's begins without waiting.
            EXPECT_TRUE(waits == 0 || FileSysSynchronous(number) == TRUE);
            if ((fcntl(number, F_GETFL) & O_SYNC) == O_SYNC) continue;  // the system waits
            g_fsyncs = 0;
            EXPECT_EQ(FileSysWrite(&count, number, "x", 1), TRUE);
            EXPECT_EQ(g_fsyncs, waits);
        }
    }
    EXPECT_EQ(numbers[0], numbers[1]);
    EXPECT_EQ(FileSysSynchronous(data.ends[1]), TRUE);
    EXPECT_EQ(FileSysWrite(&count, data.ends[1], "x", 1), TRUE);
}

TEST(FileSys, InterruptedReadsAreRepeated) {
    // The first part of the line is in the stream's buffer when the interruption comes.
    Pipe data;
    FILE* stream = fdopen(dup(data.ends[0]), "r");
    Interrupter interrupter([&](int count) {
        if (count == 1) data.Put("first ");
        if (count == 4) data.Put("second\n");
    });
    char line[64];
    EXPECT_EQ(FileSysFGetString(stream, line, 11), TRUE);
    EXPECT_STREQ(line, "first seco");
    EXPECT_EQ(FileSysFGetString(stream, line, sizeof(line)), TRUE);
    EXPECT_STREQ(line, "nd\n");
    FileSysFClose(&stream);
}

TEST(FileStreams, BufferedWriteFailsWhenItIsClosed) {
    FILE* stream = nullptr;
    ASSERT_EQ(FileSysFOpen(&stream, "/dev/full", 260), TRUE);
    const FileHandleT handle = FileHandleFromFILE(stream);
    EXPECT_EQ(fs::read_symlink(ProcPath(static_cast<int>(handle))), "/dev/full");
    EXPECT_EQ(FileSysFPutString(stream, "little"), TRUE);
    EXPECT_EQ(FileSysFClose(&stream), FALSE);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(FileHandleFromFILE(nullptr), FileHandleClosed);
}

TEST(FileBase, Kinds) {
    Dir dir;
    WriteFile(dir("file"), "12345");
    ASSERT_EQ(mkdir(dir("dir"), 0500), 0);
    ASSERT_EQ(mkfifo(dir("fifo"), 0444), 0);
    ASSERT_EQ(symlink("file", dir("tofile")), 0);
    ASSERT_EQ(symlink("dir", dir("todir")), 0);
    ASSERT_EQ(symlink("nowhere", dir("dangling")), 0);
    EXPECT_EQ(FileChangeMode(dir("file"), 0640), TRUE);
    EXPECT_EQ(FileChangeTimes(dir("file"), 1000000001, 1000000002), TRUE);
    FileStatT status;
    ASSERT_EQ(FileStat(&status, dir("tofile"), TRUE), TRUE);
    EXPECT_EQ(status.llFileSize, 5);
    EXPECT_EQ(status.lMode, S_IFREG | 0640);
    EXPECT_EQ(status.tAccessed, 1000000001);
    EXPECT_EQ(status.tModified, 1000000002);
    // For each: F a file, D a directory, R read-only, H the same of its descriptor, S with a
    // status, L with one of its own.
    const std::pair<const char*, const char*> cases[] = {
        {"file", "FSL"},    {"dir", "DRHSL"},  {"fifo", "FRHSL"}, {"tofile", "FSL"},
        {"todir", "DRHSL"}, {"dangling", "L"}, {"missing", ""}};
    for (const auto& [name, kinds] : cases) {
        const Name path = dir(name);
        std::string found;
        if (FileExists(path) == TRUE) found += 'F';
        if (FileIsDir(path) == TRUE) found += 'D';
        if (FileIsReadOnly(path) == TRUE) found += 'R';
        const FileCloser opened(open(path, O_RDONLY | O_NONBLOCK));
        if (FileHandleIsReadOnly(opened.Get()) == TRUE) found += 'H';
        if (FileStat(nullptr, path, TRUE) == TRUE) found += 'S';
        if (FileStat(nullptr, path, FALSE) == TRUE) found += 'L';
        EXPECT_EQ(found, kinds) << name;
    }
}

TEST(FileBase, Owners) {
    const Dir dir;
    WriteFile(dir("file"), "");
    const bool allowed = chown(dir("file"), 4710, 4710) == 0;
    const int32 cases[][4] = {{4711, -1, 4711, 4710}, {-1, 4712, 4711, 4712}, {5, 6, 5, 6}};
    for (const auto& [owner, group, newOwner, newGroup] : cases) {
        struct stat status = {};
        errno = 0;
        EXPECT_EQ(FileChangeOwner(dir("file"), owner, group), BooleanFrom(allowed));
        EXPECT_EQ(errno, allowed ? 0 : EPERM);
        ASSERT_EQ(stat(dir("file"), &status), 0);
        EXPECT_EQ(status.st_uid, allowed ? static_cast<uid_t>(newOwner) : getuid());
        EXPECT_EQ(status.st_gid, allowed ? static_cast<gid_t>(newGroup) : getgid());
    }
    EXPECT_EQ(FileChangeOwner(dir("missing"), 1, 1), FALSE);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileBase, CopiesAndMoves) {
    Dir dir;
    const Name source = dir("source"), target = dir("target");
    for (const std::size_t size : {0, 1, 32767, 32768, 32769, 65536, 100000}) {
        const std::string bytes = Pattern(size);
        WriteFile(source, bytes);
        WriteFile(target, Pattern(70000));
        EXPECT_EQ(FileCopy(source, target), TRUE) << size;
        EXPECT_EQ(ReadFile(target), bytes) << size;
        EXPECT_EQ(FileCopyMoveAppendInternal(target, source, TRUE, BooleanFrom(size == 1)), TRUE);
        EXPECT_EQ(ReadFile(target), bytes + bytes) << size;
        EXPECT_EQ(Exists(source), size != 1);
    }
    // A file is not copied onto itself under any name.
    ASSERT_EQ(link(source, dir("hard")) + symlink("source", dir("soft")), 0);
    for (const char* name : {"source", "hard", "soft"}) {
        EXPECT_EQ(FileCopy(source, dir(name)), FALSE) << name;
        EXPECT_EQ(FileCopyMoveAppendInternal(dir(name), source, TRUE, TRUE), FALSE);
    }
    EXPECT_EQ(ReadFile(source), Pattern(100000));
    EXPECT_EQ(FileCopy(dir("missing"), target) + FileCopy(source, "/dev/full"), FALSE);
    EXPECT_EQ(ReadFile(target).size(), 200000U);

    EXPECT_EQ(FileRenameAndMove(source, dir("b")), TRUE);
    EXPECT_FALSE(Exists(source));
    // Nothing can be renamed into or out of /proc, but an open file can be written and read there.
    Handle open(dir("open"), 6);
    const Name openPath = ProcPath(open.fd());
    EXPECT_EQ(FileRenameAndMove(dir("b"), openPath), TRUE);
    EXPECT_EQ(FileRenameAndMove(openPath, dir("c")), FALSE);
    EXPECT_FALSE(Exists(dir("b")) || Exists(dir("c")));
    EXPECT_EQ(ReadFile(dir("open")), Pattern(100000));
}

TEST(FileLocks, LockedReplacement) {
    Dir dir;
    const Name path = dir("file");
    WriteFile(path, "old");
    WriteFile(path + ".new", "left behind by a writer that died");
    FileHandleT writer = FileHandleClosed;
    ASSERT_EQ(FileSysOpenLocked(&writer, path, FileModeWriteBinary), TRUE);
    EXPECT_EQ(ListDir(dir.Path()), std::vector<std::string>{"file"});

    // A reader in another process gets the lock, and the file, when the writer is done; no
    // interruption ends its waiting.
    Pipe waiting;
    int32 count = 0;
    const pid_t reader = fork();
    if (reader == 0) {
        FileHandleT handle = FileHandleClosed;
        Interrupter interrupter([&](int ticks) {
            if (ticks == 2) waiting.Put("x");
        });
        char seen[8] = {};
        if (FileSysOpenLocked(&handle, path, FileModeRead) != TRUE) _exit(2);
        if (FileSysRead(&count, handle, seen, sizeof(seen)) != TRUE) _exit(3);
        EndChild(std::strcmp(seen, "new") == 0 && Interrupter::s_count >= 2 ? 0 : 4);
    }
    waiting.CloseWriting();
    EXPECT_EQ(waiting.Take(), 'x');
    EXPECT_TRUE(FileSysWrite(&count, writer, "new", 3) && FileSysClose(&writer));
    int status = 0;
    ASSERT_EQ(waitpid(reader, &status, 0), reader);
    EXPECT_EQ(status, 0);

    // While another writer is at work one fails at once and changes nothing.
    Handle other(path + ".new", 6);
    ASSERT_EQ(FileLockSetNoWait(other.handle, FileLockExclusive), TRUE);
    EXPECT_EQ(InChild([&] { return FileSysOpenLocked(&writer, path, FileModeWrite); }).exitCode, 0);
    EXPECT_EQ(ReadFile(path), "new");
}

TEST(FileTmp, NamesAreUniqueAndUnused) {
    char* text = nullptr;
    ASSERT_EQ(FileTmpCreateUniqueName(&text, 42), TRUE);
    const std::string first = Owned(text), tmp = TestHome() + "/tmp/";
    const auto name = [&](long later) {
        const std::string digits = std::to_string(std::stol(first.substr(10)) + later);
        return "0004200000" + std::string(10 - digits.size(), '0') + digits;
    };
    EXPECT_EQ(first, name(0));
    // Whatever has the name is passed over, a link that leads nowhere too.
    WriteFile(tmp + name(1), "");
    ASSERT_EQ(symlink("nowhere", Name(tmp + name(2))), 0);
    ASSERT_EQ(mkdir(Name(tmp + name(3)), 0700), 0);
    ASSERT_EQ(FileTmpCreateUniquePath(&text, 42), TRUE);
    EXPECT_EQ(Owned(text), tmp + name(4));
    // The directory cannot be deleted as a file; all else goes.
    EXPECT_EQ(FileTmpDeleteAll(), FALSE);
    EXPECT_EQ(ListDir(tmp), std::vector<std::string>{name(3)});
    EXPECT_EQ(rmdir(Name(tmp + name(3))), 0);
    EXPECT_EQ(FileTmpDeleteAll(), TRUE);
    // Of one owner.
    const std::vector<std::string> kept = {
        "0004200000",           "000420000000000000010", "00042000000000000001x",
        "00043000000000000001", "00420000000000000001",  "notes"};
    for (const char* owned : {"00042000000000000001", "00042999994294967295", "00042000001"})
        WriteFile(tmp + owned, "");
    for (const std::string& other : kept) WriteFile(tmp + other, "");
    EXPECT_EQ(FileTmpDeleteOwnedFiles(42), TRUE);
    EXPECT_EQ(ListDir(tmp), kept);
    EXPECT_EQ(FileTmpDeleteAll(), TRUE);
    EXPECT_EQ(ListDir(tmp).size(), 0U);
}

TEST(FileTmp, Streams) {
    FileTmpDescriptorT descriptor = nullptr;
    for (const char* bad : {"", "a/b", "a-b", "a b", ".", "..", "../x", "\xc3\xa4"}) {
        EXPECT_EQ(FileTmpOpenOutput(&descriptor, bad), FALSE) << bad;
        EXPECT_EQ(FileTmpOpenInput(&descriptor, bad), FALSE) << bad;
    }
    const char* const name = "Test.0";
    ASSERT_EQ(FileTmpOpenOutput(&descriptor, name), TRUE);
    EXPECT_EQ(FileTmpWriteString(descriptor, "one\ntwo"), TRUE);
    EXPECT_EQ(FileTmpClose(&descriptor), TRUE);
    const std::pair<int32, std::string> reads[] = {{8, "one\ntwo"}, {7, "one\ntw"}, {1, ""}};
    for (const auto& [room, expected] : reads) {
        ASSERT_EQ(FileTmpOpenInput(&descriptor, name), TRUE);
        std::string buffer(64, '#');
        int32 size = room;
        EXPECT_EQ(FileTmpReadString(descriptor, buffer.data(), &size), TRUE);
        EXPECT_EQ(size, static_cast<int32>(expected.size()) + 1);
        EXPECT_EQ(buffer.substr(0, expected.size() + 2), expected + '\0' + '#');
        EXPECT_EQ(FileTmpClose(&descriptor), TRUE);
    }
    EXPECT_EQ(FileTmpDelete(name), TRUE);
    EXPECT_EQ(FileTmpOpenUnique(&descriptor), FALSE);
    EXPECT_EQ(descriptor, nullptr);
}

struct Visits {
    std::multiset<std::string> names;
    std::function<BooleanT(const std::string& directory, const std::string& name)> also;
};

// Notes the path of what a walk comes to, the name alone in a scan of one directory.
BooleanT Visit(const char* directory, const char* name, void* cookie) {
    auto* visits = static_cast<Visits*>(cookie);
    const std::string where = directory;
    visits->names.insert(where.ends_with("/") ? where + name : name);
    return visits->also ? visits->also(where, name) : TRUE;
}

TEST(DirScans, SnapshotSeesEveryEntryOnce) {
    Dir dir;
    std::multiset<std::string> names;
    const auto longName = [](int i) { return std::string(i % 200U, 'n') + std::to_string(i); };
    for (int i = 0; i < 3000; ++i) names.insert(longName(i));
    names.insert({"...", ".hidden"});
    for (const std::string& name : names) WriteFile(dir(name), "");
    Visits visits;
    EXPECT_EQ(DirScanDirect(dir.Path().c_str(), Visit, &visits), TRUE);
    EXPECT_EQ(visits.names, names);
    visits.names.clear();
    visits.also = [](auto& directory, auto& name) {
        WriteFile(directory + "/new" + name, "");
        return BooleanFrom(unlink((directory + "/" + name).c_str()) == 0);
    };
    EXPECT_EQ(DirScan(dir.Path().c_str(), Visit, &visits), TRUE);
    EXPECT_EQ(visits.names, names);

    // Between measuring and copying more names appear than there is room for.
    Dir growing;
    visits = {};
    g_atEnd = [&] {
        for (int i = 0; i < 50; ++i) WriteFile(growing(TooDeepName + std::to_string(i)), "");
    };
    EXPECT_EQ(DirScan(growing.Path().c_str(), Visit, &visits), TRUE);
    EXPECT_EQ(visits.names.size(), 2046U / 203U);

    int calls = 0;
    visits.also = [&](auto&, auto&) { return BooleanFrom(++calls < 5); };
    EXPECT_EQ(DirScan(dir.Path().c_str(), Visit, &visits), FALSE);
    EXPECT_EQ(calls, 5);
}

TEST(DirScans, Trees) {
    Dir dir;
    const Name root = dir("root");
    std::multiset<std::string> expected;
    for (const char* name : {"a/b/c", "a/b2", "d/e/f/g/h", "empty", "z"})
        fs::create_directories(root + "/" + name);
    for (const char* name : {"file", "a/file", "a/b/c/file", "d/e/f/g/h/file", "z/file"})
        WriteFile(root + "/" + name, "");
    for (const auto& entry : fs::recursive_directory_iterator(root.c_str()))
        expected.insert(entry.path().string().substr(root.size() + 1));
    // Links to directories are walked as well, unless they lead back.
    fs::create_directory_symlink("../z", root + "/a/toz");
    fs::create_directory_symlink(".", root + "/d/self");
    fs::create_directory_symlink(root.c_str(), root + "/d/e/top");
    expected.insert({"a/toz", "a/toz/file", "d/self", "d/e/top"});
    for (const BooleanT relative : {TRUE, FALSE}) {
        Visits visits;
        EXPECT_EQ(DirScanDirectRecursive(root, Visit, &visits, relative), eDSROK);
        std::multiset<std::string> paths;
        for (const std::string& name : expected)
            paths.insert(relative == TRUE ? name : root + "/" + name);
        EXPECT_EQ(visits.names, paths);
    }
    // Walks that end early.
    const Name other = dir("other");
    fs::create_directories(other + "/gone/below");
    Visits visits;
    visits.also = [](auto&, auto& name) { return BooleanFrom(name != "below"); };
    EXPECT_EQ(DirScanDirectRecursive(other, Visit, &visits, TRUE), eDSRCallbackHalt);
    EXPECT_EQ(visits.names, (std::multiset<std::string>{"gone", "gone/below"}));
    visits.also = [](auto& directory, auto& name) {
        return BooleanFrom(fs::remove_all(directory + name) > 0);
    };
    EXPECT_EQ(DirScanDirectRecursive(other, Visit, &visits, FALSE), eDSRFailed);
    // Directories deeper than the system can name are no reason to end as if all were seen.
    ASSERT_TRUE(MakeTooDeep(other));
    visits = {};
    EXPECT_EQ(DirScanDirectRecursive(other, Visit, &visits, TRUE), eDSRFailed);
    EXPECT_GT(visits.names.size(), 15U);
}

}  // namespace
