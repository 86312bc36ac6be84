// Trace files as they lie in the trace directory, dumps taken apart by their layout, and both with
// one call after the other failing.
#include <fcntl.h>
#include <regex.h>
#include <sys/mman.h>

#include <chrono>
#include <numeric>

#include "core/context.h"
#include "core/kilntime.h"
#include "core/objwrappers.h"
#include "core/sys.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/objects.h"

TRACE_MODULE("UNITTEST")

namespace {

using Text = std::string;
using Lines = std::vector<Text>;

const Text TraceDir = TestHome() + "/trace";
const Text DumpDir = TestHome() + "/dump";
const Text Tool = TestHome() + "/bin/zlibcompress";

Text Repeated(int count, char c) { return Text(static_cast<std::size_t>(count), c); }

bool Matches(const Text& line, const char* pattern) {
    regex_t compiled;
    if (regcomp(&compiled, pattern, REG_EXTENDED | REG_NOSUB) != 0) return false;
    const bool matches = regexec(&compiled, line.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return matches;
}

// Waits for another process to have done something.
bool Eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition() && std::chrono::steady_clock::now() < end) usleep(2000);
    return condition();
}

class TraceFile : public ObjectTest {
 protected:
    TraceFile() { mkdir(DumpDir.c_str(), 0700); }
    ~TraceFile() override {
        TraceToFileNoConfig(nullptr);
        gtTlContext.sTrace.bUseKilnTime = FALSE;
        for (const Text& dir : {TraceDir, DumpDir, TestHome() + "/bin", TestHome() + "/config"})
            for (const Text& name : ListDir(dir)) unlink((dir + "/" + name).c_str());
    }
    void TearDown() override {
        TraceToFileNoConfig(nullptr);
        TraceFileRelease();
        ObjectTest::TearDown();
    }
    // Kept for the life of the process.
    static void SetUpTestSuite() { SysLocalMachineName(); }
    static void Configure(const Text& trace, const Text& rest = "") {
        WriteInHome("config/configure.cfg", "[Trace]\n" + trace + rest);
    }
    static void InstallTool(const Text& script) {
        WriteInHome("bin/zlibcompress", "#!/bin/sh\n" + script);
        chmod(Tool.c_str(), 0755);
    }
    static void TraceLines(int count) {
        for (int line = 0; line < count; line++) TraceMessageInline(1, 0, 0, "line %d", line);
    }
    static void RemoveTraceFiles() {
        for (const Text& name : ListDir(TraceDir)) unlink((TraceDir + "/" + name).c_str());
    }
};

// The numbers of this test's own lines in all files of a directory.
std::vector<int> Numbers(const Text& directory = TraceDir) {
    std::vector<int> numbers;
    for (const Text& name : ListDir(directory)) {
        for (const Text& line : Split(ReadFile(directory + "/" + name))) {
            const std::size_t at = line.find(" line ");
            if (at != Text::npos) numbers.push_back(std::stoi(line.substr(at + 6)));
        }
    }
    return numbers;
}

std::vector<int> Ascending(int first, int count) {
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

// Every file holds exactly as many messages as are configured, block included.
TEST_F(TraceFile, RotatesByNumberOfMessages) {
    Configure("Lines per File=10\nTrace To File=true\n");
    ASSERT_EQ(TraceToFile("job.log"), TRUE);
    TraceLines(2500);
    TraceToFileNoConfig("");
    EXPECT_EQ(ListDir(TraceDir), (Lines{"job-000.log", "job-001.log", "job-002.log"}));
    // Number and text of each message of the block.
    const std::pair<Text, Text> block[] = {
        {"3", R"( Running on host '.+', Time now '[0-9]{2}:[0-9]{2}:[0-9]{2}' )"
              R"(on '[A-Z][a-z]{2} [0-9]{2} [A-Z][a-z]{2} [0-9]{4}' \*\*)"},
        {"4", R"( Host OS 'Linux' version '.+' on '.+' hardware \*\*)"},
        {"5", R"( Server 'Unknown' KRVersion 6003 KRBuildLevel 0 )"
              R"(Description '<no description>' \*\*)"},
        {"6", R"( KR Process Id '0' KR System Name '.+')"},
        {"7", R"( sizeof\(long\) = '[48]' \*\*)"},
        {"9", ""}};
    for (const Text& name : ListDir(TraceDir)) {
        const Lines lines = Split(ReadFile(TraceDir + "/" + name));
        EXPECT_EQ(lines.size() == 1000, name != "job-002.log") << name << lines.size();
        std::size_t next = 0;
        for (const auto& [number, text] : block) {
            const Text pattern =
                "^0 TRACE   :[0-9]{4,}    " + number + "   0 [0-9]{6} \\*\\*" + text + "$";
            while (next < lines.size() && !Matches(lines[next], pattern.c_str())) next++;
            EXPECT_LT(next, number == "3" ? 1 : lines.size()) << name << pattern;
        }
    }
    EXPECT_EQ(Numbers(), Ascending(0, 2500));
}

TEST_F(TraceFile, NamesAndRefusals) {
    // Lines per file, name, files: none when it is refused.
    const std::tuple<Text, const char*, Lines> cases[] = {{"0", "plain.log", {"plain.log"}},
                                                          {"0", "noend", {"noend"}},
                                                          {"-5", "a.b.log", {"a.b-000.log"}},
                                                          {"1", "job", {"job-000"}},
                                                          {"0", "50%.log", {}},
                                                          {"1", "%03lu%n.log", {}}};
    for (const auto& [lines, wanted, files] : cases) {
        Configure("Lines per File=" + lines + "\n");
        EXPECT_EQ(TraceToFileNoConfig(wanted), BooleanFrom(!files.empty())) << wanted;
        EXPECT_EQ(ListDir(TraceDir), files);
        TraceToFileNoConfig(nullptr);
        RemoveTraceFiles();
    }
    Configure("Trace To File=FALSE\n");
    EXPECT_EQ(TraceToFile("job.log"), TRUE);
    EXPECT_EQ(TraceTracingToFile(), FALSE);
    // A directory that cannot be made, one that is a file, and a link where the file should be.
    for (const Text& directory : {TestHome() + "/no/such", TestHome() + "/config/configure.cfg"}) {
        Configure("Trace To File=TRUE\n", "[Directories]\nTrace=" + directory + "\n");
        EXPECT_EQ(TraceToFile("job.log"), FALSE);
        EXPECT_EQ(TraceSynchronous(), FALSE);
    }
    Configure("");
    WriteFile(TestHome() + "/precious", "kept");
    ASSERT_EQ(symlink((TestHome() + "/precious").c_str(), (TraceDir + "/job.log").c_str()), 0);
    EXPECT_EQ(TraceToFileNoConfig("job.log"), FALSE);
    EXPECT_EQ(ReadFile(TestHome() + "/precious"), "kept");
}

TEST_F(TraceFile, HandsClosedFilesToTheTool) {
    Configure("Lines per File=1000\n");
    InstallTool("echo \"$*\" >> \"$KRHOME/calls\"\n");
    ASSERT_EQ(TraceToFileNoConfig("job.log"), TRUE);
    TraceLines(1000);
    ASSERT_EQ(TraceToFileNoConfig("other"), TRUE);  // closes job-001.log
    TraceToFileNoConfig(nullptr);
    const Text calls = TestHome() + "/calls";
    EXPECT_TRUE(Eventually([&] { return Split(ReadFile(calls)).size() == 3; }));
    Lines lines = Split(ReadFile(calls));
    std::sort(lines.begin(), lines.end());
    const auto call = [](const Text& file, const Text& archive) {
        return "-c " + TraceDir + "/" + file + " " + TraceDir + "/" + archive + " " + file + " -d";
    };
    EXPECT_EQ(lines, (Lines{call("job-000.log", "job-000.bin"), call("job-001.log", "job-001.bin"),
                            call("other-000", "other-bin")}));
    unlink(calls.c_str());
}

// A file that the tool has not finished with is not deleted as an old one.
TEST_F(TraceFile, LeavesTheToolItsFile) {
    Configure("Lines per File=1000\nFiles to Keep=1\n");
    const Text go = TestHome() + "/go";
    InstallTool("while [ ! -e \"$KRHOME/go\" ]; do sleep 0.01; done; rm \"$2\"\n");
    ASSERT_EQ(TraceToFileNoConfig("job.log"), TRUE);
    TraceLines(3000);
    EXPECT_EQ(ListDir(TraceDir).size(), 4U);
    TraceToFileNoConfig(nullptr);
    WriteFile(go, "");
    EXPECT_TRUE(Eventually([] { return ListDir(TraceDir).empty(); }));
    unlink(go.c_str());
}

// Nor is a new file of the same name opened before that.
TEST_F(TraceFile, OpensAFileAgainAfterTheTool) {
    Configure("Lines per File=1000\n");
    const Text done = TestHome() + "/done";
    InstallTool("sleep 0.1; rm \"$2\"; touch \"$KRHOME/done\"\n");
    ASSERT_EQ(TraceToFileNoConfig("job.log"), TRUE);
    ASSERT_EQ(TraceToFileNoConfig("job.log"), TRUE);
    unlink(Tool.c_str());
    TraceLines(1);
    EXPECT_EQ(unlink(done.c_str()), 0);
    EXPECT_EQ(Numbers(), Ascending(0, 1));
}

TEST_F(TraceFile, SynchronousAndReferenceTime) {
    Configure("");
    KilnTimeOffsetT reference = {};
    reference.bHaveOffset = 1;
    reference.llUTCOffset = 7200 * 1000;
    ASSERT_EQ(TraceToFileNoConfig("job.log"), TRUE);
    ASSERT_EQ(TraceSynchronous(), TRUE);
    EXPECT_EQ(fcntl(gtTlContext.sTrace.tFd, F_GETFL) & O_SYNC, O_SYNC);
    EXPECT_EQ(fcntl(gtTlContext.sTrace.tFd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    TraceLines(3);
    EXPECT_EQ(Numbers(), Ascending(0, 3));
    for (const BooleanT use : {TRUE, FALSE}) {
        gtTlContext.sProcess.ptKilnTime = &reference;
        gtTlContext.sTrace.bUseKilnTime = use;
        TraceMessageInline(1, 0, 0, "stamp");
        gtTlContext.sProcess.ptKilnTime = nullptr;
        const auto now = static_cast<int32>(time(nullptr));
        const int32 stamp = TraceCurrentMessage(TraceGetBuffer())->lTime;
        EXPECT_NEAR(stamp, use == TRUE ? now - 7200 : now, 2);
    }
}

// --- dumps ---

struct DumpRecord {
    TraceMessageHeaderT head;
    Text text;
};

// The records of a buffer's dump, taken apart by its layout, the newest first.
std::vector<DumpRecord> ReadDump(const Text& path, TraceBufHeaderT* header, const char* title) {
    std::vector<DumpRecord> records;
    const Text bytes = ReadFile(path);
    char head[200];
    std::snprintf(head, sizeof(head),
                  "-*- Tessel Trace Dump -*-\nTitle: %s\nUsing buffer at %p\n(size %d, position ",
                  title, static_cast<void*>(header), header->bufferSize);
    EXPECT_TRUE(bytes.starts_with(head)) << bytes.substr(0, 200);
    std::size_t at = bytes.find_first_not_of("0123456789", std::strlen(head));
    EXPECT_EQ(bytes.substr(at, 2), ")\n");
    at += 2;
    while (at + 40 < bytes.size()) {
        DumpRecord record;
        std::memcpy(&record.head, bytes.data() + at, 40);
        const auto size = static_cast<std::size_t>(record.head.lSize);
        if (record.head.lSize < 41 || size % 8 != 0 || at + size > bytes.size()) break;
        record.text = bytes.substr(at + 40, size - 40).c_str();
        const int32 next =
            records.empty() ? record.head.lSequenceNumber + 1 : records.back().head.lSequenceNumber;
        EXPECT_EQ(record.head.lSequenceNumber + 1, next);
        records.push_back(record);
        at += size;
    }
    EXPECT_EQ(at, bytes.size());
    return records;
}

// A buffer in shared memory, in use while it lives.
struct SharedBuffer {
    explicit SharedBuffer(int size)
        : m_size(sizeof(TraceBufHeaderT) + static_cast<unsigned>(size)),
          m_header(static_cast<TraceBufHeaderT*>(
              mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        m_header->bufferSize = size;
        TraceSetBuffer(m_header);
    }
    ~SharedBuffer() {
        TraceSetBuffer(TraceInternalBuffer());
        munmap(m_header, m_size);
    }
    TraceBufHeaderT* Header() { return m_header; }
    const std::size_t m_size;
    TraceBufHeaderT* const m_header;
};

TEST_F(TraceFile, DumpsOfAWrappedRing) {
    SharedBuffer buffer(4000);
    for (int line = 1; line <= 500; line++) {
        TraceMessageInline(line % 7 == 0 ? 3 << 16 | line : line, line * 2, -1, "line %d %s", line,
                           Repeated(line % 40, 'x').c_str());
    }
    const Text path = Owned(TraceDump(nullptr, nullptr, "My title"));
    EXPECT_EQ(path, DumpDir + "/000000000000001.dmp");
    const std::vector<DumpRecord> records = ReadDump(path, buffer.Header(), "My title");
    ASSERT_GT(records.size(), 30U);
    int line = 500;
    for (const DumpRecord& record : records) {
        EXPECT_EQ(record.head.lSequenceNumber, line);
        EXPECT_EQ(record.head.lTraceId, line);
        EXPECT_EQ(record.head.lStatusCode, line * 2);
        EXPECT_EQ(Text(record.head.strModuleId, 8), line % 7 == 0 ? "APPFRM  " : "UNITTEST");
        EXPECT_EQ(record.text, "line " + std::to_string(line) + " " + Repeated(line % 40, 'x'));
        line--;
    }
    // From a position on; another buffer's position and an empty buffer give nothing.
    TracePositionT position = {};
    ASSERT_EQ(TraceGetPosition(&position), TRUE);
    TraceMessageInline(1, 0, 0, "after");
    const Text part = Owned(TraceDump(&position, (DumpDir + "/part").c_str(), "t"));
    EXPECT_EQ(ReadDump(part, buffer.Header(), "t").size(), 2U);
    position.pTraceBuffer = TraceInternalBuffer();
    EXPECT_EQ(TraceDump(&position, nullptr, "t"), nullptr);
    ObjStringO oString = nullptr;
    EXPECT_EQ(TraceDumpToString(&oString, &position), FALSE);
    buffer.Header()->currentBufPosition = -1;
    EXPECT_EQ(TraceDump(nullptr, nullptr, "t"), nullptr);
    EXPECT_EQ(TraceDumpBuffer(nullptr, nullptr, "t", 1), nullptr);
    EXPECT_EQ(TraceDumpToString(&oString, nullptr), FALSE);
    EXPECT_EQ(oString, nullptr);
    EXPECT_EQ(TraceWouldTrace(eTraceLevelNormal), TRUE);
    // Names that are taken are passed over; where no file can be made the name still comes back.
    TraceMessageInline(1, 0, 0, "again");
    WriteFile(DumpDir + "/000420000000002.dmp", "taken");
    EXPECT_EQ(Owned(TraceDumpBuffer(buffer.Header(), nullptr, "t", 42)),
              DumpDir + "/000420000000003.dmp");
    const Text nowhere = TestHome() + "/no/such/file";
    EXPECT_EQ(Owned(TraceDump(nullptr, nowhere.c_str(), "t")), nowhere);
}

TEST_F(TraceFile, DumpsOfABufferThatIsBeingWritten) {
    SharedBuffer buffer(32752);
    const auto text = [](int line) {
        return std::to_string(line) + Repeated(line * 37 % 190, '.');
    };
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        for (int line = 1;; line++)
            TraceMessageInline(line & 0x7fff, 0, 0, "%s", text(line).c_str());
    }
    EXPECT_TRUE(Eventually([&] {
        const auto* newest = TraceCurrentMessage(buffer.Header());
        return newest != nullptr && newest->lSequenceNumber >= 100;
    }));
    const Text path = DumpDir + "/running";
    std::size_t records = 0;
    for (int round = 0; round < 500 && !HasFailure(); round++) {
        Owned(TraceDumpBuffer(buffer.Header(), path.c_str(), "t", 7));
        for (const DumpRecord& record : ReadDump(path, buffer.Header(), "t")) {
            records++;
            EXPECT_EQ(record.text, text(record.head.lSequenceNumber));
        }
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_GT(records, 500U);
}

TEST_F(TraceFile, StringDumpAndHistoryOfASharedBuffer) {
    SharedBuffer buffer(20000);
    TraceMessageInline(12, -3, 0, "first");
    TraceMessageInline(13, 1234567, 1, "not recorded");
    TraceMessageInline(14, 5, -1, "%s", Text(500, 'y').c_str());
    const TraceMessageHeaderT* newest = TraceCurrentMessage(buffer.Header());
    char stamp[8];
    std::snprintf(stamp, sizeof(stamp), "%6d", TraceTime(newest->lTime));
    ObjStringO oString = nullptr;
    ASSERT_EQ(TraceDumpToString(&oString, nullptr), TRUE);
    const Lines lines = Split(ObjGetString(oString));
    ObjRelease(&oString);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "Module     Id    Code Time Message");
    EXPECT_EQ(lines[1].substr(0, 21), "UNITTEST   12      -3");
    EXPECT_EQ(lines[1].substr(29), "first");
    EXPECT_EQ(lines[2], Text("UNITTEST   14       5 ") + stamp + " " + Text(400, 'y'));
    // A trace file begins with what the shared buffer holds, which does not count as lines.
    Configure("Lines per File=1000\n");
    ASSERT_EQ(TraceToFileNoConfig("job.log"), TRUE);
    const Lines file = Split(ReadFile(TraceDir + "/job-000.log"));
    ASSERT_GT(file.size(), 2U);
    EXPECT_NE(file[0].find("first"), Text::npos);
    EXPECT_EQ(static_cast<std::size_t>(gtTlContext.sTrace.lCount), file.size() - 2);
    TraceToFileNoConfig(nullptr);
}

// --- one call after the other failing ---

TEST_F(TraceFile, FailingWhileFilesRotate) {
    Configure("Lines per File=1000\nFiles to Keep=9\n");
    constexpr int Count = 2050;
    for (const Call call :
         {Call::Open, Call::Close, Call::Unlink, Call::Write, Call::Mkdir, Call::Stat}) {
        const auto attempt = [&](const Fault& fault) {
            RemoveTraceFiles();
            const NothingLeft nothing;
            FaultArm(fault);
            const BooleanT opened = TraceToFileNoConfig("fault.log");
            TraceLines(Count);
            const bool hit = FaultDisarm() > 0;
            // Whatever became of the files, the ring has the last line, and no line is there twice.
            const auto* newest = TraceCurrentMessage(TraceGetBuffer());
            EXPECT_EQ(reinterpret_cast<const char*>(newest + 1),
                      "line " + std::to_string(Count - 1));
            const std::vector<int> numbers = Numbers();
            EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end(), std::greater_equal<>()),
                      numbers.end());
            if (call == Call::Write || call == Call::Close) {
                EXPECT_GE(numbers.size(), Count - 1U);
            } else if (opened != TRUE) {
                EXPECT_TRUE(numbers.empty());
            }
            TraceToFileNoConfig(nullptr);
            TraceFileRelease();
            return hit;
        };
        FaultSweep(call, attempt, call == Call::Write ? 131 : 1);
    }
}

TEST_F(TraceFile, FailingDumps) {
    TraceMessageInline(1, 0, 0, "something to dump");
    for (const Call call : FileCalls) {
        FaultSweep(call, [](const Fault& fault) {
            const NothingLeft nothing;
            FaultArm(fault);
            const Text path = Owned(TraceDump(nullptr, nullptr, "title"));
            const bool hit = FaultDisarm() > 0;
            EXPECT_TRUE(path.ends_with(".dmp"));
            EXPECT_EQ(gtTlContext.sTrace.pfileOutput, nullptr);
            unlink(path.c_str());
            return hit;
        });
    }
    EXPECT_EQ(TraceWouldTrace(eTraceLevelNormal), TRUE);
}

// --- the example program ---

TEST_F(TraceFile, ExampleWithoutTheTool) {
    const TempDir home;
    for (const char* name : {"config", "trace", "tmp"}) mkdir((home / name).c_str(), 0755);
    WriteFile(home / "config/configure.cfg",
              "[Trace]\nTrace To File=TRUE\nLines per File=1000\nFiles to Keep=3\n"
              "[Machine]\nName=m\n");
    WriteFile(home / "config/programs.cfg", "[tracing]\nLines=12000\nTrace Level=1\n");
    const RunResult result = ::Run({TEST_EXAMPLES "/tracing"}, {"KRHOME=" + home.Path()});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output,
              "machine m: 12000 lines to tracing.log\n6000 lines recorded, trace file open\n");
    const Lines names = ListDir(home / "trace");
    ASSERT_EQ(names.size(), 3U);
    EXPECT_EQ(names[2], "tracing-006.log");
    // The last files hold the last lines.
    const std::vector<int> numbers = Numbers(home / "trace");
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers, Ascending(numbers[0], 6000 - numbers[0]));
}

}  // namespace
