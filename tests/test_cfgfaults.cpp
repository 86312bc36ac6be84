// Setting an item, rotating a trace file and dumping a ring with one system call after the other
// failing, with a disk that is full, and without memory.
#include <sys/resource.h>

#include "core/cfg.h"
#include "core/context.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/leftovers.h"

TRACE_MODULE("UNITTEST")

namespace {

using Text = std::string;

const Text ConfigDir = TestHome() + "/config";
const Text ItemFile = ConfigDir + "/item.cfg";
const Text TraceDir = TestHome() + "/trace";

class Faults : public testing::Test {
 protected:
    Faults() {
        for (const Text& dir : {ConfigDir, TraceDir}) mkdir(dir.c_str(), 0700);
        RemoveTraceFiles();
    }
    ~Faults() override { unlink((ConfigDir + "/configure.cfg").c_str()); }
    static void RemoveTraceFiles() {
        for (const Text& name : ListDir(TraceDir)) unlink((TraceDir + "/" + name).c_str());
    }
    // Runs attempt(fault) with each call of each kind failing once; it says whether one was hit.
    template <class F>
    static void Sweep(F attempt) {
        for (const Call call : {Call::Open, Call::Read, Call::Write, Call::Close, Call::Rename,
                                Call::Unlink, Call::Mkdir, Call::Fsync, Call::Stat, Call::Fstat})
            Sweep(call, 1, attempt);
    }
    template <class F>
    static void Sweep(Call call, int stride, F attempt) {
        for (int nth = 1;; nth += stride) {
            SCOPED_TRACE(std::to_string(static_cast<int>(call)) + " " + std::to_string(nth));
            ASSERT_LT(nth, 200 * stride);
            if (!attempt(Fault{.call = call, .nth = nth, .error = EIO})) break;
        }
    }
};

const Text Old = "[A]\nx=1\n\n[B]\nkept=" + Text(3000, 'k') + "\n";
const Text New = "[A]\nx=2\n\n[B]\nkept=" + Text(3000, 'k') + "\n";

void ExpectOldOrNew(BooleanT result) {
    EXPECT_EQ(ReadFile(ItemFile), result == TRUE ? New : Old);
    EXPECT_FALSE(Exists(ItemFile + ".new"));
    // The next one goes on.
    EXPECT_EQ(CfgSetInteger("item.cfg", "A", "x", 2), TRUE);
    EXPECT_EQ(ReadFile(ItemFile), New);
}

TEST_F(Faults, SettingAnItem) {
    WriteFile(ItemFile, Old);
    ASSERT_EQ(CfgSetInteger("item.cfg", "A", "x", 2), TRUE);
    Sweep([](const Fault& fault) {
        WriteFile(ItemFile, Old);
        const NothingLeft nothing;
        FaultArm(fault);
        const BooleanT result = CfgSetInteger("item.cfg", "A", "x", 2);
        const bool hit = FaultDisarm() > 0;
        ExpectOldOrNew(result);
        return hit;
    });
}

TEST_F(Faults, SettingAnItemOnAFullDisk) {
    // The room ends at every size of the new file.
    for (rlim_t room = 0; room < New.size(); room += 97) {
        WriteFile(ItemFile, Old);
        const RunResult result = InChild([&] {
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit = {room, RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &limit);
            return static_cast<int>(CfgSetInteger("item.cfg", "A", "x", 2));
        });
        EXPECT_EQ(result.exitCode, FALSE) << room;
        ExpectOldOrNew(FALSE);
    }
}

TEST_F(Faults, SettingAnItemWithoutMemory) {
    int stopped = 0;
    for (int nth = 1;; nth++) {
        ASSERT_LT(nth, 1000);
        WriteFile(ItemFile, Old);
        const RunResult result = InChild([&] {
            // From the n-th on: a block that the pool cannot give is asked of the system, too.
            FaultArm({.call = Call::Malloc, .nth = nth, .error = ENOMEM, .times = FaultForEver});
            const BooleanT set = CfgSetInteger("item.cfg", "A", "x", 2);
            return FaultDisarm() == 0 ? 2 + set : set;
        });
        if (result.signal != 0) {
            EXPECT_EQ(result.signal, SIGSEGV);
            stopped++;
        }
        const Text content = ReadFile(ItemFile);
        EXPECT_TRUE(content == Old || content == New);
        unlink((ItemFile + ".new").c_str());
        if (result.exitCode >= 2) break;  // no call was hit
    }
    EXPECT_GT(stopped, 0);
}

// The numbers of this test's lines in all trace files, which must ascend.
std::vector<int> TracedLines() {
    std::vector<int> numbers;
    for (const Text& name : ListDir(TraceDir)) {
        for (const Text& line : Split(ReadFile(TraceDir + "/" + name))) {
            const std::size_t at = line.find(" line ");
            if (at != Text::npos) numbers.push_back(std::stoi(line.substr(at + 6)));
        }
    }
    const auto wrong = std::adjacent_find(numbers.begin(), numbers.end(), std::greater_equal<>());
    EXPECT_EQ(wrong, numbers.end());
    return numbers;
}

TEST_F(Faults, RotatingTraceFiles) {
    WriteFile(ConfigDir + "/configure.cfg", "[Trace]\nLines per File=1000\nFiles to Keep=9\n");
    constexpr int Lines = 2050;
    const auto trace = [] {
        const BooleanT opened = TraceToFileNoConfig("fault.log");
        for (int line = 0; line < Lines; line++) TraceMessageInline(1, 0, 0, "line %d", line);
        return opened;
    };
    trace();
    TraceToFileNoConfig(nullptr);
    TraceFileRelease();
    for (const Call call :
         {Call::Open, Call::Close, Call::Unlink, Call::Write, Call::Mkdir, Call::Stat}) {
        Sweep(call, call == Call::Write ? 131 : 1, [&](const Fault& fault) {
            RemoveTraceFiles();
            const NothingLeft nothing;
            FaultArm(fault);
            const BooleanT opened = trace();
            const bool hit = FaultDisarm() > 0;
            // Whatever became of the files, the ring has the last line, and no line is there twice.
            const auto* newest = TraceCurrentMessage(TraceGetBuffer());
            EXPECT_STREQ(reinterpret_cast<const char*>(newest + 1),
                         ("line " + std::to_string(Lines - 1)).c_str());
            const auto lines = static_cast<int>(TracedLines().size());
            if (call == Call::Write || call == Call::Close) {
                EXPECT_GE(lines, Lines - 1);
            } else if (opened != TRUE) {
                EXPECT_EQ(lines, 0);
            }
            TraceToFileNoConfig(nullptr);
            TraceFileRelease();
            return hit;
        });
    }
}

TEST_F(Faults, Dumping) {
    TraceMessageInline(1, 0, 0, "something to dump");
    Sweep([](const Fault& fault) {
        const NothingLeft nothing;
        FaultArm(fault);
        const Text path = Owned(TraceDump(nullptr, nullptr, "title"));
        const bool hit = FaultDisarm() > 0;
        EXPECT_EQ(path.substr(path.size() - 4), ".dmp");
        EXPECT_EQ(gtTlContext.sTrace.pfileOutput, nullptr);
        unlink(path.c_str());
        return hit;
    });
    EXPECT_EQ(TraceWouldTrace(eTraceLevelNormal), TRUE);
}

}  // namespace
