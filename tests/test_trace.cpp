#include <unistd.h>

#include "core/context.h"
#include "core/trace.h"
#include "support/support.h"

TRACE_MODULE("UNITTEST")

namespace {

using Text = std::string;

// A trace buffer in use while it lives: a block of exactly its size and a red zone that the library
// does not know of.
struct OwnBuffer {
    explicit OwnBuffer(int size, std::size_t redZone = 0)
        : m_block(static_cast<char*>(std::malloc(16U + static_cast<unsigned>(size) + redZone))) {
        const int32 head[4] = {size, 0, 0, 0};
        std::memcpy(m_block, head, sizeof(head));
        std::memset(Area(), 0xA5, static_cast<unsigned>(size) + redZone);
        TraceSetBuffer(Header());
    }
    ~OwnBuffer() {
        TraceSetLevel(eTraceLevelNormal);
        TraceSetBuffer(TraceInternalBuffer());
        std::free(m_block);
    }
    TraceBufHeaderT* Header() { return reinterpret_cast<TraceBufHeaderT*>(m_block); }
    char* Area() { return m_block + 16; }
    char* const m_block;
};

TracePositionT Message(const char* module, int32 id, int32 status, int level, const char* format,
                       ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const TracePositionT position =
        TraceMessageVa(module, id, status, static_cast<TraceLevelE>(level), format, arguments);
    va_end(arguments);
    return position;
}

TracePositionT Message(const Text& text) {
    return Message("UNITTEST", 1, 0, 0, "%s", text.c_str());
}

// Sequence number and text of each record that a walk visits; nothing where there is no walk.
using Walk = std::vector<std::pair<int32, Text>>;
Walk WalkOf(TraceBufHeaderT* header) {
    Walk walk;
    const auto visit = [](const char* record, int32 size, void* argument) {
        int32 head[3];
        std::memcpy(head, record, sizeof(head));
        EXPECT_EQ(head[2], size);
        static_cast<Walk*>(argument)->emplace_back(head[0], record + 40);
        return TRUE;
    };
    const BooleanT walked = TraceWalkBuffer(header, visit, &walk);
    EXPECT_EQ(walked, BooleanFrom(!walk.empty()));
    return walk;
}

// A record as documented; bytes that are not written are those of a fresh buffer.
Text RecordBytes(int32 number, int32 previous, const char* module, int32 id, int32 status,
                 int32 time, int32 level, const Text& text) {
    const int32 head[] = {number, previous, static_cast<int32>((40 + text.size() + 1 + 7) / 8 * 8)};
    const int32 tail[] = {id, status, time, level};
    Text bytes = Text(reinterpret_cast<const char*>(head), 12) + Text(module, 8) +
                 Text(reinterpret_cast<const char*>(tail), 16) + "\xA5\xA5\xA5\xA5" + text + '\0';
    bytes.resize(static_cast<std::size_t>(head[2]), '\0');
    return bytes;
}

TEST(Trace, Records) {
    const char* const modules[] = {"SERVERCO", "INODE   ", "CHANGLOG", "APPFRM  ", "VMPLGIN ",
                                   "KROPTION", "MULTIFOL", "SQLPLGIN", "SQLPLGIN", "SERVERCO"};
    OwnBuffer buffer(4096);
    int32 offset = 0;
    int32 previous = -1;
    for (int32 number = 1; number <= 11; number++) {
        const int32 subSystem = number - 2;
        const Text text(static_cast<std::size_t>(number * 5), 'x');
        const auto before = static_cast<int32>(std::time(nullptr));
        const TracePositionT position =
            Message("SERVERCONF        ", subSystem * 65536 + 0xFFF0 + number, -number,
                    number % 2 - 1, "x%s", text.c_str() + 1);
        EXPECT_EQ(position.lPosition, offset);
        EXPECT_EQ(position.lSequenceNumber, number);
        EXPECT_EQ(position.pTraceBuffer, buffer.Header());
        EXPECT_EQ(buffer.Header()->currentBufPosition, offset);
        int32 time = 0;
        std::memcpy(&time, buffer.Area() + offset + 28, 4);
        EXPECT_TRUE(before <= time && time <= std::time(nullptr));
        const Text expected = RecordBytes(number, previous, modules[std::max(subSystem, 0)],
                                          0xFFF0 + number, -number, time, number % 2 - 1, text);
        EXPECT_EQ(Text(buffer.Area() + offset, expected.size()), expected);
        previous = offset;
        offset += static_cast<int32>(expected.size());
    }
}

TEST(Trace, LevelsAndSwitches) {
    OwnBuffer buffer(4096);
    for (int threshold = -1; threshold <= 4; threshold++) {
        TraceSetLevel(static_cast<TraceLevelE>(threshold));
        EXPECT_EQ(TraceSetLevel(eTraceLevelUnchanged), threshold);
        for (int level = -1; level <= 4; level++) {
            const bool recorded = level <= threshold;
            int evaluated = 0;
            EXPECT_EQ(TraceMessageInline(1, 0, level, "%d", ++evaluated).lPosition >= 0, recorded);
            EXPECT_EQ(evaluated, recorded ? 1 : 0);
            EXPECT_EQ(Message("UNITTEST", 1, 0, level, "x").lPosition >= 0, recorded);
        }
    }
    EXPECT_EQ(Message("UNITTEST", 1, 0, -1, nullptr).lPosition, -1);
    TracePositionT position = TraceNoPosition;
    for (const bool disabled : {true, false}) {  // then without a buffer
        gtTlContext.sTrace.bDisabled = BooleanFrom(disabled);
        if (!disabled) TraceSetBuffer(nullptr);
        EXPECT_EQ(TraceWouldTrace(eTraceLevelAlways), FALSE);
        EXPECT_EQ(Message("x").lPosition, -1);
        EXPECT_EQ(TraceGetPosition(&position), BooleanFrom(disabled));
    }
    EXPECT_EQ(gtTlContext.sTrace.lSequenceNumber, -1);
    EXPECT_EQ(TraceSetLevel(eTraceLevelVerbose), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(TraceCurrentSequenceNumber(nullptr), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Arrrggh!\n");

    // A threshold is carried over to the next buffer, or its own kept where none is in use.
    buffer.Header()->eTraceLevel = 3;
    TraceSetBuffer(buffer.Header());
    const OwnBuffer next(400);
    EXPECT_EQ(TraceSetLevel(eTraceLevelUnchanged), 3);
    Message("a");
    TraceSetBuffer(TraceInternalBuffer());
    EXPECT_EQ(TraceGetBuffer(), gtTlContext.sTrace.ptInternalTraceBuffer);
    EXPECT_EQ(TraceGetBuffer()->bufferSize, 32752);
    TraceSetBuffer(buffer.Header());  // its records are lost
    EXPECT_EQ(WalkOf(buffer.Header()), Walk{});
    Message("b");
    EXPECT_EQ(WalkOf(buffer.Header()), (Walk{{1, "b"}}));
}

TEST(Trace, TextsAreCutToTheBuffer) {
    const Text endless(9000, 'x');
    const std::pair<int, int> longest[] = {{32752, 8150}, {8200, 8150}, {8192, 8150}, {8184, 8142},
                                           {200, 158},    {48, 6},      {47, -1},     {0, -1}};
    for (const auto& [size, length] : longest) {
        OwnBuffer buffer(size, 64);
        EXPECT_EQ(Message(endless).lPosition, length < 0 ? -1 : 0);
        EXPECT_EQ(Text(buffer.Area() + size, 64), Text(64, '\xA5')) << size;
        EXPECT_EQ(WalkOf(buffer.Header()),
                  length < 0 ? Walk{} : (Walk{{1, endless.substr(0, length)}}))
            << size;
    }
}

// The ring as documented: a record goes behind the newest or, where it would end beyond the area,
// to the start; what it covers is lost.
TEST(Trace, RingAgainstModel) {
    struct Record {
        int offset, end;
        int32 number;
        Text text;
    };
    std::mt19937 random(11);
    std::vector<int> sizes = {500, 1000, 1003, 4000};
    for (int size = 48; size < 300; size++) sizes.push_back(size);
    for (const int size : sizes) {
        OwnBuffer buffer(size, 64);
        std::vector<Record> intact;  // newest first
        // No text may pass for the number that it covers: there are less than 'z' numbers.
        for (int32 number = 1; number < 100; number++) {
            Text text(random() % static_cast<unsigned>(size / (random() % 4 == 0 ? 1 : 4)), 'z');
            const TracePositionT position = Message(text);
            if (static_cast<int>(text.size()) > size - 50)  // may have been cut
                text.resize(WalkOf(buffer.Header()).at(0).second.size());
            const int length = 40 + (static_cast<int>(text.size()) + 8) / 8 * 8;
            const int behind = intact.empty() ? 0 : intact[0].end;
            const int offset = behind + length > size ? 0 : behind;
            ASSERT_EQ(position.lPosition, offset) << size;
            const auto lost = std::find_if(intact.begin(), intact.end(), [&](const Record& old) {
                return old.offset < offset + length && offset < old.end;
            });
            intact.erase(lost, intact.end());
            intact.insert(intact.begin(), {offset, offset + length, number, text});
            Walk expected;
            for (const Record& record : intact) expected.emplace_back(record.number, record.text);
            ASSERT_EQ(WalkOf(buffer.Header()), expected) << size;
            ASSERT_EQ(TraceOldestMessage(buffer.Header()), intact.back().offset);
            ASSERT_EQ(Text(buffer.Area() + size, 64), Text(64, '\xA5')) << size;
            if (intact.size() == 1) continue;
            const Record& older = intact[1 + random() % (intact.size() - 1)];
            ASSERT_EQ(TraceFindSequence(buffer.Header(), older.number), older.offset);
        }
    }
}

TEST(Trace, SequenceNumbersStartOverAndWalksEnd) {
    OwnBuffer buffer(480);
    Message("x");  // its number does not precede the next
    gtTlContext.sTrace.lSequenceNumber = 0x3FFFFFFF;
    const Walk expected = {{1, "x"}, {0, "x"}, {0x40000000, "x"}, {0x3FFFFFFF, "x"}};
    for (int i = 3; i >= 0; i--) {
        EXPECT_EQ(Message("x").lSequenceNumber, expected[i].first);
        TracePositionT position = TraceNoPosition;
        EXPECT_EQ(TraceGetPosition(&position), TRUE);
        EXPECT_EQ(position.lSequenceNumber, expected[i].first);
        EXPECT_EQ(position.lPosition, 48 * (4 - i));
        EXPECT_EQ(TraceCurrentSequenceNumber(buffer.Header()), expected[i].first);
    }
    EXPECT_EQ(WalkOf(buffer.Header()), expected);

    const auto countDown = [](const char*, int32, void* argument) {
        return BooleanFrom(--*static_cast<int*>(argument) > 0);
    };
    int left = 3;  // the callback stops the walk
    EXPECT_EQ(TraceWalkBuffer(buffer.Header(), countDown, &left), FALSE);
    EXPECT_EQ(left, 0);
    left = 100;
    EXPECT_EQ(TraceWalkSection(buffer.Header(), 48 * 2, 48 * 3, countDown, &left), TRUE);
    EXPECT_EQ(left, 98);
    const int32 newest = 48 * 4;  // a circle
    std::memcpy(buffer.Area() + 4, &newest, sizeof(newest));
    EXPECT_EQ(TraceWalkSection(buffer.Header(), -1, newest, countDown, &left), FALSE);
    EXPECT_GT(left, 0);
    const int32 beyond = 0x40000001;  // no number that 0 could follow
    std::memcpy(buffer.Area() + 48 * 2, &beyond, sizeof(beyond));
    EXPECT_EQ(WalkOf(buffer.Header()), (Walk{{1, "x"}, {0, "x"}}));
    buffer.Area()[48 * 3 + 8] = 40;  // a record that ends before the next begins
    EXPECT_EQ(WalkOf(buffer.Header()), (Walk{{1, "x"}}));
}

// A stray writer changes the buffer, also during a walk: walks end and stay inside.
TEST(Trace, DamagedBuffer) {
    struct Reader {
        OwnBuffer buffer{1200};
        std::mt19937 random{5};
        int visits = 0;
        unsigned sum = 0;
        void Damage() {  // the current position or the records
            const auto at = random() % (1200 + 4);
            char* byte = at < 4 ? buffer.Area() - 12 + at : buffer.Area() + at - 4;
            *byte = static_cast<char>(random() % 3 == 0 ? random() : *byte ^ 8U);
        }
    } reader;
    const auto visit = [](const char* record, int32 size, void* argument) {
        auto* self = static_cast<Reader*>(argument);
        const auto at = record - self->buffer.Area();
        EXPECT_TRUE(at >= 0 && size >= 40 && at + size <= 1200);
        for (int i = 0; i < size; i++) self->sum += static_cast<unsigned char>(record[i]);
        if (self->visits % 3 == 2) self->Damage();
        return BooleanFrom(++self->visits < 1000);
    };
    TraceBufHeaderT* header = reader.buffer.Header();
    for (int round = 0; round < 20000; round++) {
        if (round % 40 == 0) {
            TraceSetBuffer(header);
            for (int i = 0; i < 30; i++) Message(Text(reader.random() % 60, 'y'));
        }
        reader.Damage();
        if (round % 7 == 0) Message("after damage");
        reader.visits = 0;
        TraceWalkBuffer(header, visit, &reader);
        ASSERT_LT(reader.visits, 100);
        TraceCurrentMessage(header);
        TraceFindSequence(header, static_cast<int32>(reader.random()));
    }
}

TEST(Trace, SinkLines) {
    char pid[20];
    std::snprintf(pid, sizeof(pid), ":%04d", getpid());
    const std::tuple<Text, Text, Text> cases[] = {
        {RecordBytes(1, -1, "MEM     ", 11, 0, 47109, 4, "MemReleaseThread 3 pieces left"),
         "5 MEM     ", "   11   0 130509 MemReleaseThread 3 pieces left\n"},
        {RecordBytes(1, -1, "SERVERCO", 65535, -12, 86400 * 19000, -1, ""), "0 SERVERCO",
         " 65535 -12 000000 \n"},
        {RecordBytes(1, -1, "PAKZLIB ", 1, 1234, 86399, 0, "two\nlines %s"), "1 PAKZLIB ",
         "    1 1234 235959 two\nlines %s\n"},
        {RecordBytes(1, -1, "NET     ", 7, 4, INT_MAX, 3, Text(500, 'q')), "4 NET     ",
         "    7   4 031407 " + Text(400, 'q') + "\n"},
    };
    const TempDir dir;
    Text expected;
    for (const BooleanT writes : {TRUE, FALSE}) {
        FILE* stream = std::fopen(writes == TRUE ? (dir / "lines").c_str() : "/dev/full", "w");
        setvbuf(stream, nullptr, _IONBF, 0);
        for (const auto& [record, start, end] : cases) {
            const auto size = static_cast<int32>(record.size());
            EXPECT_EQ(TraceToFP(record.data(), size, stream), writes);
            EXPECT_EQ(TraceToFD(record.data(), size, fileno(stream)), writes);
            if (writes == TRUE) expected += start + pid + end + start + pid + end;
        }
        std::fclose(stream);
    }
    EXPECT_EQ(ReadFile(dir / "lines"), expected);
}

TEST(Trace, SinkGetsEveryRecord) {
    OwnBuffer buffer(400);
    static Text texts;
    TraceSetCallback([](const char* record, int32 size, void* argument) {
        EXPECT_TRUE(argument == nullptr && size == 48);
        texts += record + 40;
        errno = EIO;
        return FALSE;
    });
    errno = ENOENT;
    for (const char* text : {"a", "b", "c"}) TraceMessageInline(1, 0, 0, "%s", text);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(texts, "abc");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    TraceSetCallback(TraceToStdOut);
    Message("out");
    TraceSetCallback(TraceToStdErr);
    Message("err");
    TraceSetCallback(nullptr);
    Message("d");
    EXPECT_NE(testing::internal::GetCapturedStdout().find(" out\n"), Text::npos);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(" err\n"), Text::npos);
}

}  // namespace
