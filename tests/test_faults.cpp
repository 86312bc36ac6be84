// Packing and unpacking with one call after the other failing. Each attempt runs in a child process
// and is summed up by one letter; a sweep puts the fault at the first call of a kind, at the second
// and so on until the operation needs no further one, so that its letters tell what every single
// call means for the result.
#include <zlib.h>

#include <map>

#include "core/filebase.h"
#include "core/filesys.h"
#include "support/archives.h"
#include "support/faults.h"

namespace {

// The letters: where packing failed, whether unpacking succeeded.
constexpr char NotInitialised = 'I', NotCompressed = 'C', NotFinished = 'F', Packed = 'P';
constexpr char AllRestored = 'R', NotRestored = 'N', Stopped = 'S', NotReached = '.';

struct File {
    std::string name, content;
};
using Files = std::vector<File>;

// Chunk i, counted from 1, begins with the byte i.
std::string Numbered(std::size_t size) {
    std::string content = bytes::RandomBytes(size, 1);
    for (std::size_t at = 0; at < size; at += 65536)
        content[at] = static_cast<char>(at / 65536 + 1);
    return content;
}

const Files Large = {{"large", Numbered(200000)}};
const Files LargeAndSmall = {Large[0], {"small", "0123456789"}};
const Files Small = {{"small", "0123456789"}};

const std::string& ArchiveOf(const Files& files) {
    static std::map<std::string, std::string> made;  // by the names
    std::string names;
    std::vector<bytes::File> chunked;
    for (const File& file : files) names += file.name + "/";
    std::string& archive = made[names];
    if (!archive.empty()) return archive;
    for (const File& file : files) chunked.push_back(bytes::Chunked(file.name, file.content));
    return archive = bytes::Archive(chunked);
}

char Pack(PakZlibContextO* poContext, const std::string& archive, const std::string& source) {
    if (PakZlibInitialize(poContext, archive.c_str()) != TRUE) return NotInitialised;
    if (PakZlibCompressFile(*poContext, source.c_str(), nullptr) != TRUE) return NotCompressed;
    return PakZlibFinalize(poContext) == TRUE ? Packed : NotFinished;
}

// One attempt; what the child finds wrong it prints.
struct Attempt {
    const Files& files;
    std::function<void()> arm;
    const Dir dir;
    const std::string& expected = ArchiveOf(files);
};

void Check(bool good, const char* what) {
    if (!good) std::printf("wrong: %s\n", what);
}

char PackAttempt(const Attempt& attempt) {
    const std::string archive = attempt.dir("archive");
    PakZlibContextO oContext = nullptr;
    attempt.arm();
    const char letter = Pack(&oContext, archive, attempt.dir(attempt.files[0].name));
    const bool hit = FaultDisarm() > 0;
    switch (letter) {
        case NotInitialised:
            Check(oContext == nullptr && ReadFile(archive).empty(), "state before compressing");
            break;
        case NotCompressed:
            Check(Exists(archive) && ReadFile(archive).empty(), "archive is there and empty");
            Check(ListDir(TmpDir).size() == 1, "temporary file is there");
            Check(PakZlibCleanupContext(&oContext) == TRUE, "cleaning up");
            Check(ListDir(TmpDir).empty(), "temporary file is gone");
            break;
        case NotFinished:
            Check(oContext == nullptr && ListDir(TmpDir).empty(), "state after finalising");
            break;
        default:
            Check(oContext == nullptr && ReadFile(archive) == attempt.expected, "archive");
    }
    return hit ? letter : NotReached;
}

char UnpackAttempt(const Attempt& attempt) {
    const Name target = attempt.dir("target");
    attempt.arm();
    const bool restored = PakZlibUncompress(attempt.dir("archive"), target) == TRUE;
    const bool hit = FaultDisarm() > 0;
    // Each file is whole before the next one is begun; the last one may be cut.
    const std::size_t there = ListDir(target).size();
    const std::size_t all = attempt.files.size();
    Check(restored ? there == all : there <= all, "number of files");
    for (std::size_t i = 0; i < there; i++) {
        const File& file = attempt.files.at(i);
        const std::string content = ReadFile(target + "/" + file.name);
        const bool whole = restored || i + 1 < there;
        Check(content == (whole ? file.content : file.content.substr(0, content.size())),
              "restored content");
    }
    if (!hit) return NotReached;
    return restored ? AllRestored : NotRestored;
}

char Try(bool pack, const Files& files, const std::function<void()>& arm) {
    const Attempt attempt = {.files = files, .arm = arm, .dir = {}};
    for (const File& file : files) WriteFile(attempt.dir(file.name), file.content);
    if (!pack) WriteFile(attempt.dir("archive"), attempt.expected);
    const RunResult result = InChild([&] {
        std::signal(SIGSEGV, SIG_DFL);
        const NothingLeft nothing;
        return pack ? PackAttempt(attempt) : UnpackAttempt(attempt);
    });
    for (const auto& entry : std::filesystem::directory_iterator(TmpDir))
        std::filesystem::remove(entry.path());
    EXPECT_EQ(result.output, "");
    if (result.signal == SIGSEGV) return Stopped;
    EXPECT_EQ(result.signal, 0);
    return static_cast<char>(result.exitCode);
}

std::string Sweep(bool pack, const Files& files, Fault fault) {
    std::string letters;
    for (fault.nth = 1; fault.nth < 2000; fault.nth++) {
        const char letter = Try(pack, files, [fault] { FaultArm(fault); });
        if (letter == NotReached) break;
        letters += letter;
    }
    return letters;
}

using Faults = ArchiveTestWithWorkers;
WITH_WORKERS(Faults);

TEST_P(Faults, EveryFailingCallIsReported) {
    // A file of four chunks has four threads at the most; it goes on without any that is not made.
    const auto workers = static_cast<std::size_t>(std::min(GetParam(), 4));
    const std::string threads(workers, Packed), restoring(workers, AllRestored);
    struct Row {
        Call call;
        std::vector<int> errors;
        int times;
        std::string pack, unpack;
        bool copyRefused = false;
    };
    const Row rows[] = {
        // Opening for writing is tried twice, the second time without truncation; not so for the
        // temporary file, which must be new.
        {Call::Open, {EIO}, 2, "IICF", "NNN"},
        {Call::Open, {ENOSPC}, 1, "PICF", "NRR"},
        {Call::Read, {EIO, EAGAIN}, 1, "CCCCF", "NNNNNNN"},
        {Call::Read, {EIO}, 1, "CCCCFFF", "NNNNNNN", true},
        {Call::Write, {EAGAIN, ENOSPC}, 1, "CCCCF", "NNNNN"},
        {Call::Write, {EIO}, 1, "CCCCFFF", "NNNNN", true},
        // Closing what was only read loses nothing.
        {Call::Close, {EIO}, 1, "PFPF", "NNR"},
        // The archive is complete all the same.
        {Call::Unlink, {EIO}, 1, "P", ""},
        {Call::Mkdir, {EIO}, 1, "", "N"},
        // Of the archive and of the source, which is no directory, exists and has a size; of the
        // archive and of the target.
        {Call::Stat, {EIO}, 1, "PPCC", "NR"},
        // Of the temporary file; of the archive for its headers, then for a file: for sizes that
        // are set aside.
        {Call::Fstat, {EIO}, 1, "P", "NR"},
        {Call::Compress, {Z_MEM_ERROR}, 1, "CCCC", ""},
        {Call::Uncompress, {Z_MEM_ERROR}, 1, "", "NNNNN"},
        // Short transfers, of 3 bytes. Where the writer copies it goes on after them.
        {Call::Read, {0}, 1, "CCCCP", "NNNNNNN"},
        {Call::Read, {0}, 1, "CCCCPPP", "NNNNNNN", true},
        {Call::Write, {0}, 1, "CCCCF", "NNNNN"},
        {Call::Write, {0}, 1, "CCCCFFF", "NNNNN", true},
        // What the system would do for us and does not is done without it.
        {Call::Copy, {EXDEV, EIO, ENOSPC, 0}, 1, "PP", ""},
        {Call::Allocate, {ENOSPC, EOPNOTSUPP}, 1, "P", "R"},
        {Call::Thread, {EAGAIN}, 1, threads, restoring},
        {Call::Thread, {EAGAIN}, FaultForEver, threads, restoring},
    };
    for (const Row& row : rows) {
        for (const int error : row.errors) {
            SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(row.call) << " error "
                                            << error << " times " << row.times);
            const Fault fault = {.call = row.call,
                                 .error = error,
                                 .times = row.times,
                                 .atMost = 3,
                                 .copyRefused = row.copyRefused};
            EXPECT_EQ(Sweep(true, Large, fault), row.pack);
            EXPECT_EQ(Sweep(false, LargeAndSmall, fault), row.unpack);
        }
    }
}

TEST_P(Faults, InterruptedCallsAreRepeated) {
    // Numbers of calls when packing and unpacking.
    const std::tuple<Call, std::size_t, std::size_t> rows[] = {
        {Call::Open, 4, 3},   {Call::Read, 5, 7},    {Call::Write, 5, 5}, {Call::Close, 4, 3},
        {Call::Unlink, 1, 0}, {Call::Mkdir, 0, 1},   {Call::Stat, 4, 2},  {Call::Fstat, 1, 2},
        {Call::Copy, 2, 0},   {Call::Allocate, 1, 1}};
    for (const auto& [call, pack, unpack] : rows) {
        SCOPED_TRACE(static_cast<int>(call));
        // A call is never closed again, as its descriptor may be another's by then.
        const Fault fault = {.call = call, .error = EINTR, .times = call == Call::Close ? 1 : 3};
        EXPECT_EQ(Sweep(true, Large, fault), std::string(pack, Packed));
        EXPECT_EQ(Sweep(false, LargeAndSmall, fault), std::string(unpack, AllRestored));
    }
}

TEST_P(Faults, MemoryIsAskedForTwiceThenTheProcessStops) {
    for (const bool pack : {true, false}) {
        const std::string once = Sweep(pack, Small, {.call = Call::Malloc, .error = ENOMEM});
        EXPECT_GT(once.size(), 10U);
        EXPECT_EQ(once, std::string(once.size(), pack ? Packed : AllRestored));
        const std::string always =
            Sweep(pack, Small, {.call = Call::Malloc, .error = ENOMEM, .times = FaultForEver});
        EXPECT_EQ(always, std::string(once.size(), Stopped));
    }
}

TEST_P(Faults, FullDisk) {
    const std::size_t archive = ArchiveOf(Large).size();
    const std::size_t headers = 4 + 18 + 67 + 5 + 4 * 16;
    const std::size_t data = archive - headers;
    const std::tuple<bool, char, std::vector<std::size_t>> cases[] = {
        {true, NotCompressed, {0, 1, 100000, data - 1}},
        {true,
         NotFinished,
         {data, data + 3, data + headers, data + headers + 131071, data + headers + 131072,
          data + archive - 1}},
        {true, NotReached, {data + archive}},
        {false, NotRestored, {0, 65536, 199999, 200000, 200009}},
        {false, NotReached, {200010}}};
    for (const auto& [pack, letter, rooms] : cases) {
        for (const std::size_t room : rooms) {
            for (const bool copyRefused : {false, true}) {
                const auto arm = [&] { FaultArmFullDisk(room, copyRefused); };
                EXPECT_EQ(Try(pack, pack ? Large : LargeAndSmall, arm), letter)
                    << pack << " " << room << " " << copyRefused;
            }
        }
    }
}

TEST_P(Faults, FailuresAreNamed) {
    // Packing or unpacking, and the numbers of the messages.
    const std::tuple<bool, Fault, std::vector<int32>> rows[] = {
        {true, Fault{.call = Call::Stat, .nth = 4, .error = EIO}, {24}},
        {true, Fault{.call = Call::Compress, .error = Z_MEM_ERROR, .marked = 1}, {20, 26, 29}},
        {true, Fault{.call = Call::Write, .nth = 1, .error = ENOSPC}, {26, 29}},
        {true, Fault{.call = Call::Write, .nth = 4, .error = ENOSPC}, {26, 30}},
        {true, Fault{.call = Call::Write, .nth = 5, .error = ENOSPC}, {11}},
        {true, Fault{.call = Call::Close, .nth = 2, .error = EIO}, {12}},
        {true, Fault{.call = Call::Open, .nth = 4, .error = EIO}, {13}},
        {true, Fault{.call = Call::Read, .nth = 5, .error = EIO}, {14}},
        {true, Fault{.call = Call::Close, .nth = 4, .error = EIO}, {15}},
        {false, Fault{.call = Call::Mkdir, .error = EIO}, {47, 48}},
        {false, Fault{.call = Call::Open, .nth = 1, .error = EIO}, {49}},
        {false, Fault{.call = Call::Read, .nth = 1, .error = EIO}, {55}},
        {false, Fault{.call = Call::Fstat, .nth = 1, .error = EIO}, {53}},
        {false, Fault{.call = Call::Read, .nth = 2, .error = EIO}, {53}},
        {false, Fault{.call = Call::Open, .nth = 2, .error = EIO, .times = 2}, {43, 51}},
        {false, Fault{.call = Call::Read, .nth = 3, .error = EIO}, {39, 40, 51}},
        {false, Fault{.call = Call::Uncompress, .error = Z_MEM_ERROR, .marked = 1}, {37, 40, 51}},
        {false, Fault{.call = Call::Write, .nth = 1, .error = ENOSPC}, {38, 40, 51}},
        {false, Fault{.call = Call::Close, .nth = 1, .error = EIO}, {38, 51}},
    };
    for (const auto& [pack, fault, numbers] : rows) {
        const Dir dir;
        WriteFile(dir("large"), Large[0].content);
        WriteFile(dir("restorable"), ArchiveOf(Large));
        PakZlibContextO oContext = nullptr;
        const TraceCapture trace;
        FaultArm(fault);
        if (pack) {
            EXPECT_NE(Pack(&oContext, dir("archive"), dir("large")), Packed);
        } else {
            EXPECT_EQ(PakZlibUncompress(dir("restorable"), dir("target")), FALSE);
        }
        FaultDisarm();
        for (const int32 number : numbers) EXPECT_TRUE(trace.Has("PAKZLIB", number)) << number;
        if (oContext != nullptr) PakZlibCleanupContext(&oContext);
    }
    EXPECT_EQ(ListDir(TmpDir), std::vector<std::string>());
}

// Everything that can be seen of packing or unpacking a file of nine chunks under a fault: the
// result, every message in order, and what lies on the disk afterwards.
struct Seen {
    char letter;
    std::vector<std::string> messages;
    std::string archive, temporary, restored;
    bool operator==(const Seen&) const = default;
};

Seen Watch(bool pack, const Dir& dir, const Fault& fault, int32 workers) {
    Seen seen = {};
    PakZlibContextO oContext = nullptr;
    PakZlibUseWorkers(workers);
    {
        const TraceCapture trace;
        FaultArm(fault);
        if (pack) {
            seen.letter = Pack(&oContext, dir("archive"), dir("nine"));
        } else {
            const BooleanT bResult = PakZlibUncompress(dir("restorable"), dir("target"));
            seen.letter = bResult == TRUE ? AllRestored : NotRestored;
        }
        FaultDisarm();
        for (const TraceCapture::Record& record : trace.Records())
            seen.messages.push_back(record.module + " " + std::to_string(record.number) + " " +
                                    std::to_string(record.status));
    }
    seen.archive = ReadFile(dir("archive"));
    for (const std::string& name : ListDir(TmpDir)) seen.temporary += ReadFile(TmpDir + "/" + name);
    seen.restored = ReadFile(dir("target/nine"));
    if (oContext != nullptr) PakZlibCleanupContext(&oContext);
    PakZlibUseWorkers(PakZlibAllProcessors);
    std::remove(dir("archive"));
    std::remove(dir("target/nine"));
    return seen;
}

TEST_F(ArchiveTest, WorkersAreNotSeen) {
    const Dir dir;
    const Files nine = {{"nine", Numbered(9 * 65536 - 100)}};
    WriteFile(dir("nine"), nine[0].content);
    WriteFile(dir("restorable"), ArchiveOf(nine));
    std::filesystem::create_directory(std::string(dir("target")));
    // No fault, then one at every chunk.
    std::vector<std::pair<bool, Fault>> faults = {{true, {.call = Call::Rename}},
                                                  {false, {.call = Call::Rename}}};
    for (const bool pack : {true, false}) {
        for (int chunk = 1; chunk <= 9; chunk++) {
            const Call step = pack ? Call::Compress : Call::Uncompress;
            faults.push_back({pack, {.call = step, .error = Z_MEM_ERROR, .marked = chunk}});
            const int read = chunk + (pack ? 0 : 2);
            faults.push_back({pack, {.call = Call::Read, .nth = read, .error = EIO}});
            faults.push_back({pack, {.call = Call::Read, .nth = read, .atMost = 100}});
            faults.push_back({pack, {.call = Call::Write, .nth = chunk, .error = ENOSPC}});
            faults.push_back({pack, {.call = Call::Write, .nth = chunk, .atMost = 100}});
        }
    }
    const NothingLeft nothing;
    for (const auto& [pack, fault] : faults) {
        const Seen alone = Watch(pack, dir, fault, 0);
        for (const int32 workers : {1, 2, 7}) {
            Fault same = fault;
            same.together = workers > 1 && fault.marked >= 1 && fault.marked < 9;
            EXPECT_TRUE(Watch(pack, dir, same, workers) == alone)
                << (pack ? "packing, call " : "unpacking, call ") << static_cast<int>(fault.call)
                << " number " << fault.nth << " chunk " << fault.marked << " workers " << workers;
        }
    }
}

// A file that could not be packed leaves no trace in the archive that is finished nevertheless.
TEST_P(Faults, ArchiveGoesOnAfterAFailedFile) {
    const Fault faults[] = {
        {.call = Call::Write, .nth = 1, .error = ENOSPC},
        {.call = Call::Write, .nth = 3, .atMost = 7},
        {.call = Call::Write, .nth = 4, .error = ENOSPC},
        {.call = Call::Write, .nth = 4, .atMost = 7},
        {.call = Call::Compress, .nth = 2, .error = Z_MEM_ERROR},
        {.call = Call::Read, .nth = 3},
    };
    const NothingLeft nothing;
    for (const Fault& fault : faults) {
        const Dir dir;
        WriteFile(dir("large"), Large[0].content);
        WriteFile(dir("small"), Small[0].content);
        PakZlibContextO oContext = nullptr;
        ASSERT_EQ(PakZlibInitialize(&oContext, dir("archive")), TRUE);
        FaultArm(fault);
        EXPECT_EQ(PakZlibCompressFile(oContext, dir("large"), nullptr), FALSE);
        EXPECT_EQ(FaultDisarm(), 1);
        EXPECT_EQ(PakZlibCompressFile(oContext, dir("small"), nullptr), TRUE);
        EXPECT_EQ(PakZlibCompressFile(oContext, dir("large"), nullptr), TRUE);
        EXPECT_EQ(PakZlibFinalize(&oContext), TRUE);
        EXPECT_TRUE(ReadFile(dir("archive")) == ArchiveOf({Small[0], Large[0]}));
    }
}

// Blocks are asked for ahead only for a size that the archive bears out.
TEST_F(ArchiveTest, NoBlocksForALie) {
    const bytes::File empty = {"name", std::vector<std::string>(100)};
    const bytes::File large = bytes::Chunked("name", Large[0].content);
    const auto archive = [](const bytes::File& file, int64 size) {
        bytes::FileHeader header = bytes::HeaderOf(file);
        header.uncompressed = size;
        std::string chunks;
        for (const std::string& piece : file.pieces) chunks += bytes::Compress(piece);
        return bytes::Archive(bytes::List({header.Encode()}), chunks);
    };
    const std::string cut = archive(large, 200000);
    const std::pair<std::string, int> cases[] = {
        {archive(large, 200000), 1},        {archive(large, 300000), 0},
        {cut.substr(0, cut.size() - 1), 0}, {archive({"name", {"one"}}, 3), 0},
        {archive(empty, 99 * 65536), 0},
    };
    for (const auto& [bytes, asked] : cases) {
        FaultArm({.call = Call::Allocate, .error = ENOSPC, .times = FaultForEver});
        Restore(bytes);
        EXPECT_EQ(FaultDisarm(), asked) << bytes.size();
    }
}

// Processes without an identifier of their own draw the same temporary names.
TEST_P(Faults, TemporaryFileOfAnotherIsLeftAlone) {
    const Dir dir;
    WriteFile(dir("large"), Large[0].content);
    PakZlibContextO oContext = nullptr;
    FaultArm({.call = Call::Open, .nth = 2, .times = 3});
    EXPECT_EQ(PakZlibInitialize(&oContext, dir("archive")), TRUE);
    EXPECT_EQ(FaultDisarm(), 3);
    EXPECT_EQ(PakZlibCompressFile(oContext, dir("large"), nullptr), TRUE);
    EXPECT_EQ(PakZlibFinalize(&oContext), TRUE);
    EXPECT_TRUE(ReadFile(dir("archive")) == ArchiveOf(Large));
    EXPECT_EQ(ListDir(TmpDir).size(), 3U);
    for (const auto& entry : std::filesystem::directory_iterator(TmpDir)) {
        EXPECT_EQ(ReadFile(entry.path()), "another's");
        std::filesystem::remove(entry.path());
    }
}

TEST_P(Faults, RenamingThatFails) {
    const Dir dir;
    const Name to = dir("to");
    const NothingLeft nothing;
    // Between file systems a file stays where it is when there is no room for a copy.
    WriteFile(to, Large[0].content);
    FaultArm({.call = Call::Rename, .error = EXDEV});
    FaultArmFullDisk(100000);
    EXPECT_EQ(FileRenameAndMove(to, dir("from")), FALSE);
    FaultDisarm();
    EXPECT_TRUE(ReadFile(to) == Large[0].content);

    FileHandleT tHandle = FileHandleClosed;
    FaultArm({.call = Call::Rename, .error = EIO});
    EXPECT_EQ(FileSysOpenLocked(&tHandle, to, FileModeWriteBinary), FALSE);
    EXPECT_EQ(FaultDisarm(), 1);
    EXPECT_EQ(tHandle, FileHandleClosed);
    EXPECT_TRUE(ReadFile(to) == Large[0].content);
    FaultArm({.call = Call::Rename, .error = EINTR, .times = 3});
    EXPECT_EQ(FileSysOpenLocked(&tHandle, to, FileModeWriteBinary), TRUE);
    EXPECT_EQ(FaultDisarm(), 3);
    EXPECT_EQ(FileSysClose(&tHandle), TRUE);
    EXPECT_EQ(ReadFile(to), "");
}

}  // namespace
