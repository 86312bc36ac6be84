// Conversions are compared with the C library's, calendar moves with the C++ library's days.
// Zones are given as rules, so that no zone files are needed.
#include <chrono>

#include "core/locale.h"
#include "core/timeconv.h"
#include "support/files.h"

namespace {

using Text = std::string;

const char* const Zones[] = {
    "UTC0",     "CET-1CEST,M3.5.0,M10.5.0/3", "NST3:30NDT,M3.2.0,M11.1.0",
    "IST-5:30", "EST5EDT,M3.2.0,M11.1.0",     "AEST-10AEDT,M10.1.0,M4.1.0/3"};
constexpr int Day = 86400;

void SetZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

struct tm Local(std::time_t clock) {
    struct tm fields = {};
    localtime_r(&clock, &fields);
    return fields;
}

Text Strftime(const struct tm& fields, const char* format) {
    char text[64];
    return Text(text, std::strftime(text, sizeof(text), format, &fields));
}

Text Show(const TimeBreakdownT& b) {
    Text text;
    for (const int32 number : {b.tDate.lYear, b.tDate.lMonth, b.tDate.lDay, b.tDate.lDayOfWeek,
                               b.tTime.lHour, b.tTime.lMinute, b.tTime.lSecond})
        text += std::to_string(number) + " ";
    return text;
}

// The records are numbers without gaps.
template <class T>
bool Same(const T& a, const T& b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

TimeBreakdownT Breakdown(const struct tm& f) {
    return {{f.tm_hour, f.tm_min, f.tm_sec},
            {f.tm_year + 1900, f.tm_mon + 1, f.tm_mday, f.tm_wday}};
}

template <BooleanT... Without>
BooleanT OfDay(char* text, int32 size, TimeT clock) {
    return TimeToTimeOfDayStringInternal(text, size, clock, Without...);
}
template <BooleanT... Without>
BooleanT Long(char* text, int32 size, TimeT clock) {
    return TimeToLongDateStringInternal(text, size, clock, Without...);
}
const struct Form {
    const char* strftime;
    int32 minimum;
    BooleanT (*write)(char*, int32, TimeT);
} Forms[] = {
    {"%Y%m%d", 9, TimeToNumericDateString},
    {"%y%m%d%H%M", 11, TimeToDateAndTimeNumericString},
    {"%H%M%S", 7, TimeToShortTimeOfDayString},
    {"%H:%M %d %b %Y", 30, TimeToNiceDateString},
    {"%H:%M:%S", 9, OfDay<FALSE>},
    {"%H:%M", 9, OfDay<TRUE>},
    {"%a %d %b %Y", 24, Long<FALSE, FALSE>},
    {"%a %d %b", 24, Long<FALSE, TRUE>},
    {"%d %b %Y", 24, Long<TRUE, FALSE>},
    {"%d %b", 24, Long<TRUE, TRUE>},
};

TEST(TimeConv, LocalFieldsAndBack) {
    for (const char* zone : Zones) {
        SetZone(zone);
        for (int32 day = 0; day < 68 * 365 + 17; day++) {
            for (const int32 second : {0, 1800, 14400, 20000, 57599, 72000, Day - 1}) {
                const TimeT clock = day * Day + second;
                struct tm fields = Local(clock);
                TimeBreakdownT got = {};
                ASSERT_EQ(TimeToBreakdownStruct(&got, clock), TRUE);
                ASSERT_TRUE(Same(got, Breakdown(fields))) << zone << clock << " " << Show(got);
                // Of an hour that the clock shows twice the second one comes back.
                const bool twice = Same(Breakdown(Local(clock + 3600)), got);
                TimeT back = -1;
                ASSERT_EQ(TimeFromBreakdown(&back, &got), TRUE);
                ASSERT_EQ(back, twice ? clock + 3600 : clock) << zone << " " << Show(got);
                ASSERT_EQ(TimeMakeTime(&fields), clock);
                if (second != 0) continue;
                fields.tm_hour = fields.tm_min = fields.tm_sec = 0;
                fields.tm_isdst = -1;
                ASSERT_EQ(TimeFromDate(&back, &got.tDate), TRUE);
                ASSERT_EQ(back, std::mktime(&fields)) << zone << " " << Show(got);
            }
            if (day % 7 != 3) continue;  // texts, at a time that moves through the day
            const TimeT clock = day * Day + day * 37 % Day;
            for (const Form& form : Forms) {
                char text[64];
                ASSERT_EQ(form.write(text, sizeof(text), clock), TRUE);
                ASSERT_EQ(text, Strftime(Local(clock), form.strftime)) << zone << " " << clock;
            }
        }
    }
    SetZone(Zones[1]);
    const std::pair<TimeBreakdownT, TimeT> cases[] = {
        {{{2, 30, 0}, {2005, 3, 27, 0}}, 1111883400},  // skipped: 00:30 UTC, shown as 01:30
        {{{0, 0, 0}, {1970, 1, 1, 0}}, -3600},
        {{{INT_MAX, INT_MAX, INT_MAX}, {10000, 12, INT_MAX, 0}}, -2114305373},  // low 32 bits
        {{{0, 0, 0}, {2005, 13, 1, 0}}, 7},                                     // refused
        {{{0, 0, 0}, {INT_MAX, 1, 1, 0}}, 7},
    };
    for (const auto& [local, expected] : cases) {
        TimeT clock = 7;
        EXPECT_EQ(TimeFromBreakdown(&clock, &local), BooleanFrom(expected != 7)) << Show(local);
        EXPECT_EQ(clock, expected) << Show(local);
        EXPECT_EQ(TimeFromDate(&clock, &local.tDate), BooleanFrom(expected != 7)) << Show(local);
    }
}

TEST(TimeConv, UtcFieldsAndBack) {
    SetZone(Zones[4]);
    std::mt19937 random(1);
    for (int i = 0; i < 300000; i++) {
        const TimeT clock = i == 0 ? 0 : i == 1 ? INT_MAX : static_cast<TimeT>(random() >> 1);
        const std::time_t wide = clock;
        struct tm fields = {};
        gmtime_r(&wide, &fields);
        TimeUTCBreakdownT got = {{}, {0, 0, 0, fields.tm_wday}};
        ASSERT_EQ(TimeToUTCBreakdownStruct(&got, clock), TRUE);
        ASSERT_TRUE(Same(TimeBreakdownT{got.tTime, got.tDate}, Breakdown(fields))) << clock;
        ASSERT_EQ(TimeFromUTCBreakdown(&got), clock);
    }
    EXPECT_EQ(TimeTToUTCtmTime(-1)->tm_year, 69);
    // The clock: now, and now for a negative value.
    const auto before = static_cast<TimeT>(std::time(nullptr));
    const TimeT local = TimeMakeTime(TimeLocalTime(-1));
    for (const int64 now : {int64{TimeNow()}, TimeNowAsInt64() / 1000, int64{local}})
        EXPECT_TRUE(now >= before && now <= before + 60) << now;
}

TEST(TimeConv, Buffers) {
    SetZone(Zones[1]);
    const Text blank(64, '#');
    for (const Form& form : Forms) {
        Text text = blank;
        EXPECT_EQ(form.write(text.data(), form.minimum - 1, 1112361480), FALSE);
        EXPECT_EQ(text, blank) << form.strftime;
        EXPECT_EQ(form.write(nullptr, 64, 1112361480), FALSE);
        EXPECT_EQ(form.write(text.data(), form.minimum, 1112361480), TRUE);
        const Text whole = Strftime(Local(1112361480), form.strftime);
        EXPECT_EQ(text.c_str(), whole.substr(0, static_cast<std::size_t>(form.minimum) - 1));
        EXPECT_EQ(text[static_cast<std::size_t>(form.minimum)], '#') << form.strftime;
    }
    char date[24];
    const TimeDateT none = {INT_MIN, INT_MIN, INT_MIN, 7};
    EXPECT_EQ(TimeDateToDateString(date, sizeof(date), &none, FALSE, FALSE), TRUE);
    EXPECT_STREQ(date, "??? -2147483648 ??? -21");
    const std::tuple<int64, int32, Text> spans[] = {{90061999, 20, "25:01:01"},
                                                    {90061000, 8, "25:01:0"},
                                                    {90061000, 1, ""},
                                                    {-3723000, 20, "-01:-02:-03"},
                                                    {360000000000, 20, "100000:00:00"},
                                                    {INT64_MAX, 30, "2147483647:12:55"}};
    for (const auto& [span, size, expected] : spans) {
        Text text = blank;
        TimeElapsedSince(span, text.data(), size);
        EXPECT_EQ(text.c_str(), expected);
        EXPECT_EQ(text[static_cast<std::size_t>(size)], '#') << expected;
    }
}

// In a child, because order and breakdown format are kept for good. A catalogue is data: long
// names, double-byte ones, formats that would read other arguments (559).
TEST(TimeConv, LocalisedTextsAndReversedOrder) {
    Text wide;
    for (int i = 0; i < 12; i++) wide += "\x81\x41";
    WriteInHome("locale/Test/locale.ctl",
                "540 \"Dienstag\"\n549 \"Mai\"\n557 \"%02ld. %s\"\n558 \"%ld. %s %ld\"\n"
                "559 \"%s %s %s %s\"\n560 \"%s, der %02ld. %s %4ld\"\n561 \"%d-%d-%d %d.%d.%d\"\n"
                "562 \"%ldh%ldm%lds\"\n548 \"" +
                    wide + "\"\n");
    const Text part = wide.substr(0, 14);
    const std::pair<const char*, Text> languages[] = {
        {"Test", "Dienstag, der 03. Mai 2005|Dienstag 03 Mai|3. Mai 2005|05. " +
                     wide.substr(0, 18) + "|05. " + wide.substr(0, 20) +
                     "|20 Mai 03. der Dienstag,|Mai 03 Dienstag|2005 Mai 3.|" + part + " 05.|" +
                     part + " 05.|00:10 2005 Mai 3.|25h1m1s|2005-5-3 0.10.10|2005-5-3 0.||"},
        {nullptr,
         "Tue 03 May 2005|Tue 03 May|03 May 2005|05 Apr|05 Apr|Tue 03 May 2005|Tue 03 May|"
         "03 May 2005|05 Apr|05 Apr|00:10 03 May 2005|25:01:01|2005/05/03 00:10:10|2005/05/03 ||"}};
    WriteInHome("config/language.cfg", "[Display]\nReverse Date Display Order=true\n");
    for (const auto& [name, expected] : languages) {
        const RunResult result = InChild([language = name] {
            SetZone("UTC0");
            const TimeT may = 1115079010;  // Tuesday 2005-05-03 00:10:10
            char text[64];
            const auto put = [&](BooleanT good) {
                std::printf("%s|", good == TRUE ? text : "failed");
            };
            LocaleSetLocale(language);
            for (const BooleanT done : {TRUE, FALSE}) {  // not looked up before the second round
                gbDoneDateDisplayOrderCheck = done;
                put(Long<FALSE, FALSE>(text, 64, may));
                put(Long<FALSE, TRUE>(text, 64, may));
                put(Long<TRUE, FALSE>(text, 64, may));
                for (const int32 size : {24, 25}) put(Long<TRUE, TRUE>(text, size, may - 28 * Day));
                if (done == FALSE) unlink((TestHome() + "/config/language.cfg").c_str());
            }
            put(TimeToNiceDateString(text, 30, may));
            TimeElapsedSince(90061000, text, sizeof(text));
            put(TRUE);
            for (const int32 size : {64, 12, 1}) {
                put(TimeToBreakdownString(text, size, may));
                LocaleSetLocale(nullptr);
            }
            return TimeToBreakdownString(text, 0, may);
        });
        EXPECT_EQ(result.exitCode, FALSE);
        EXPECT_EQ(result.output, expected);
    }
}

TEST(TimeConv, Parsing) {
    // Dates with the message; empty: 2005-04-01.
    const std::pair<const char*, Text> dates[] = {
        {"20050401", ""},
        {"2005 401", ""},  // numbers may have a blank in front of them
        {"2005041", "Wrong numeric date string size. Is 7, should be 8"},
        {"200504011", "Wrong numeric date string size. Is 9, should be 8"},
        {"2005-4-1", "Invalid date from date string-1.2/-4.2/2005.4"},
        {"20x50401", "Bad year: '20x5'"},
        {"2005x401", "Bad month: 'x4'"},
        {"200504\x81\x41z", "Bad day: '\x81\x41z'"},
        {"20050230", "Invalid date from date string30.2/2.2/2005.4"},
        {"19700601", "Invalid date from date string1.2/6.2/1970.4"},
    };
    const TraceCapture trace(-1);
    for (const auto& [text, message] : dates) {
        const bool good = message.empty();
        TimeDateT date = {1, 2, 3, 4};
        EXPECT_EQ(TimeDateFromNumericDateString(&date, text), BooleanFrom(good)) << text;
        EXPECT_TRUE(Same(date, good ? TimeDateT{2005, 4, 1, 4} : TimeDateT{1, 2, 3, 4})) << text;
        EXPECT_TRUE(good || trace.CountText(message) == 1) << text;
    }
    TimeOfDayT time = {};
    for (const char* text : {"151812", "15:18:12", "15:1812", "1518:12tail", "999999"}) {
        EXPECT_EQ(TimeOfDayFromString(&time, text), TRUE) << text;
        EXPECT_TRUE(Same(time, *text == '9' ? TimeOfDayT{99, 99, 99} : TimeOfDayT{15, 18, 12}));
    }
    const Text refused = "TimeOfDayFromString() - cannot convert string '";
    for (const Text text : {"", "1", "15::18:12", "15181", " 51812", "15:18:1x"}) {
        EXPECT_EQ(TimeOfDayFromString(&time, text.c_str()), FALSE) << text;
        EXPECT_EQ(trace.CountText(refused + text + "'"), 1);
    }
    EXPECT_EQ(time.lHour, 99);
    EXPECT_EQ(TimeOfDayFromString(&time, nullptr), FALSE);
    EXPECT_EQ(TimeDateFromNumericDateString(nullptr, "20050401"), FALSE);
}

// --- the calendar, against day numbers ---

using B = const TimeBreakdownT&;

// Days since 1970-01-01 of a date, also of one with a day behind its month's end.
int64 Days(const TimeDateT& d) {
    const std::chrono::sys_days first = std::chrono::year(d.lYear) / d.lMonth / 1;
    return first.time_since_epoch().count() + d.lDay - 1;
}
int64 WeekDay(const TimeDateT& d) { return Days(d) + 4; }  // 1970-01-01 was a Thursday
int64 Months(const TimeDateT& d) { return int64{d.lYear} * 12 + d.lMonth - 1; }
TimeDateT InMonth(int64 month, int32 day, int64 weekDay = 0) {
    return {static_cast<int32>(month / 12), static_cast<int32>(month % 12) + 1, day,
            static_cast<int32>((weekDay % 7 + 7) % 7)};
}
int32 Length(int64 month) {
    return static_cast<int32>(Days(InMonth(month + 1, 1)) - Days(InMonth(month, 1)));
}
TimeDateT Civil(int64 days, int64 weekDay) {
    const std::chrono::year_month_day d{std::chrono::sys_days{std::chrono::days{days}}};
    const int64 month = int64{int{d.year()}} * 12 + unsigned{d.month()} - 1;
    return InMonth(month, static_cast<int32>(unsigned{d.day()}), weekDay);
}
TimeBreakdownT Weekly(B b, int64 n) {  // the day of the week stays
    return {b.tTime, Civil(Days(b.tDate) + n, b.tDate.lDayOfWeek)};
}
TimeBreakdownT Daily(B b, int64 n) {
    return {b.tTime, Civil(Days(b.tDate) + n, b.tDate.lDayOfWeek + n)};
}
// The day of the week follows the day that hours carry or borrow, not whole days.
TimeBreakdownT Seconds(B b, int64 n) {
    const TimeOfDayT& t = b.tTime;
    const int64 clock = Days(b.tDate) * Day + t.lHour * 3600 + t.lMinute * 60 + t.lSecond + n;
    const auto rest = static_cast<int32>((clock % Day + Day) % Day);
    const int64 days = (clock - rest) / Day;
    return {{rest / 3600, rest / 60 % 60, rest % 60},
            Civil(days, b.tDate.lDayOfWeek + days - Days(b.tDate) - n / Day)};
}
TimeBreakdownT OnDate(B b, int64 month, int32 day) {  // with its own day of the week
    return {b.tTime, InMonth(month, day, WeekDay(InMonth(month, day)))};
}
TimeBreakdownT ForwardMonths(B b, int64 n) { return OnDate(b, Months(b.tDate) + n, b.tDate.lDay); }
TimeBreakdownT ForwardYears(B b, int64 n) {
    const int64 month = Months(b.tDate) + n;
    return OnDate(b, month, std::min(b.tDate.lDay, Length(month)));
}
TimeBreakdownT BackYears(B b, int64 n) {
    TimeBreakdownT back = ForwardYears(b, n);
    back.tDate.lDayOfWeek = (b.tDate.lDayOfWeek + 7 - (b.tDate.lDay - back.tDate.lDay)) % 7;
    return back;
}
// The last month on the way that is shorter than the first day gives the day.
TimeBreakdownT BackMonths(B b, int64 n) {
    int64 month = Months(b.tDate) + n;
    while (month < Months(b.tDate) && Length(month) >= b.tDate.lDay) month++;
    const int32 day = std::min(b.tDate.lDay, Length(month));
    const TimeDateT date = InMonth(Months(b.tDate) + n, day);
    return {b.tTime, InMonth(Months(date), day, b.tDate.lDayOfWeek - (Days(b.tDate) - Days(date)))};
}
TimeBreakdownT NextInstance(B b, int64 desired) {
    for (int64 n = b.tDate.lDay >= desired ? 1 : 0;; n++) {
        const TimeDateT date = Daily(b, n).tDate;
        const bool last = date.lDay < desired && date.lDay == Length(Months(date));
        if (date.lDay == desired || last) return {b.tTime, date};
    }
}

template <BooleanT (*Function)(TimeBreakdownT*)>
BooleanT Once(TimeBreakdownT* b, int32) {
    return Function(b);
}
const struct Move {
    const char* name;
    BooleanT (*move)(TimeBreakdownT*, int32);
    int32 least, most;  // counts
    TimeBreakdownT (*model)(B, int64);
    int64 unit;
} Moves[] = {
    {"NextHour", Once<TimeBreakdownToNextHour>, 1, 1, Seconds, 3600},
    {"NextDay", Once<TimeBreakdownToNextDay>, 1, 1, Daily, 1},
    {"PrevDay", Once<TimeBreakdownToPrevDay>, 1, 1, Daily, -1},
    {"NextWeek", Once<TimeBreakdownToNextWeek>, 1, 1, Weekly, 7},
    {"ForwardSeconds", TimeBreakdownMoveForwardSeconds, 0, 9999999, Seconds, 1},
    {"ForwardMinutes", TimeBreakdownMoveForwardMinutes, 0, 999999, Seconds, 60},
    {"ForwardHours", TimeBreakdownMoveForwardHours, 0, 99999, Seconds, 3600},
    {"ForwardDays", TimeBreakdownMoveForwardDays, 0, 3000, Weekly, 1},
    {"ForwardWeeks", TimeBreakdownMoveForwardWeeks, 0, 300, Weekly, 7},
    {"ForwardMonths", TimeBreakdownMoveForwardMonths, 0, 300, ForwardMonths, 1},
    {"ForwardYears", TimeBreakdownMoveForwardYears, 0, 300, ForwardYears, 12},
    {"BackSeconds", TimeBreakdownMoveBackSeconds, 0, 9999999, Seconds, -1},
    {"BackMinutes", TimeBreakdownMoveBackMinutes, 0, 999999, Seconds, -60},
    {"BackHours", TimeBreakdownMoveBackHours, 0, 99999, Seconds, -3600},
    {"BackDays", TimeBreakdownMoveBackDays, 0, 3000, Weekly, -1},
    {"BackWeeks", TimeBreakdownMoveBackWeeks, 0, 300, Weekly, -7},
    {"BackMonths", TimeBreakdownMoveBackMonths, 0, 60, BackMonths, -1},
    {"BackYears", TimeBreakdownMoveBackYears, 0, 300, BackYears, -12},
    {"NextDateInstance", TimeBreakdownToNextDateInstance, 1, 40, NextInstance, 1},
};

TEST(TimeCalendar, MovesAgreeWithDayNumbers) {
    std::mt19937 random(2);
    const auto below = [&](int32 n) { return static_cast<int32>(random() % unsigned(n)); };
    for (int round = 0; round < 50000; round++) {
        TimeBreakdownT start = {{below(24), below(60), below(60)},
                                Civil(Days({1971, 1, 1, 0}) + below(365 * 500), below(7))};
        if (round % 4 == 0) start.tDate.lDay = Length(Months(start.tDate));  // where they roll
        if (round % 8 == 0) start.tDate = InMonth(2000 * 12 + 1 + below(20) * 48, 28, below(7));
        if (round % 16 == 0) start.tDate.lDay = Length(Months(start.tDate));
        if (round % 5 == 0) start.tTime = {23, 59, 59};
        for (const Move& m : Moves) {
            const int32 most = round % 3 == 0 ? std::min(m.most, 70) : m.most;
            const int32 count = m.least + below(most - m.least + 1);
            const TimeBreakdownT expected = m.model(start, count * m.unit);
            TimeBreakdownT got = start;
            ASSERT_EQ(m.move(&got, count), TRUE) << m.name << " " << Show(start);
            ASSERT_EQ(Show(got), Show(expected)) << m.name << " " << count << " " << Show(start);
        }
        const TimeDateT& d = start.tDate;
        ASSERT_EQ(TimeCalculateDayOfWeek(d.lYear, d.lMonth, d.lDay), (WeekDay(d) % 7 + 7) % 7);
    }
}

// Any count ends soon; what cannot be done leaves the record as it was.
TEST(TimeCalendar, Limits) {
    for (const Move& m : Moves) {
        EXPECT_EQ(m.move(nullptr, 1), FALSE) << m.name;
        for (const int32 month : {0, 13}) {
            TimeBreakdownT none = {{}, {2005, month, 1, 0}};
            EXPECT_EQ(m.move(&none, 1), FALSE) << m.name;
        }
        TimeBreakdownT got = {{0, 0, 0}, {2005, 4, 1, INT_MAX}};  // a parsed date may have any
        const std::string before = Show(got);
        EXPECT_TRUE(m.most == 1 || m.move(&got, -1) == FALSE) << m.name;
        EXPECT_TRUE(m.move(&got, INT_MAX) == TRUE || Show(got) == before) << m.name;
    }
    const std::pair<TimeDateT, BooleanT> dates[] = {
        {{1970, 6, 1, 0}, FALSE}, {{1971, 1, 1, 0}, TRUE},    {{1900, 2, 29, 0}, FALSE},
        {{2000, 2, 29, 0}, TRUE}, {{2100, 2, 29, 0}, FALSE},  {{2005, 4, 31, 0}, FALSE},
        {{2005, 4, 0, 0}, FALSE}, {{10000, 12, 31, 0}, TRUE}, {{10001, 1, 1, 0}, FALSE}};
    for (const auto& [date, valid] : dates) {
        EXPECT_EQ(TimeValidDate(&date), valid) << date.lYear;
        const TimeBreakdownT lastSecond = {{23, 59, 59}, date}, tooLate = {{24, 0, 0}, date};
        EXPECT_EQ(TimeValidBreakdown(&lastSecond), valid) << date.lYear;
        EXPECT_EQ(TimeValidBreakdown(&tooLate), FALSE) << date.lYear;
    }
    EXPECT_EQ(TimeValidBreakdown(nullptr), FALSE);
    TraceCapture trace;
    EXPECT_EQ(TimeDaysInMonth(2, 999), -1);
    EXPECT_EQ(trace.CountText("Invalid arguments"), 1);
    const TimeOfDayT early = {0, 59, 59}, late = {1, 0, 1};
    TimeT seconds = 0;
    for (const TimeOfDayT& t : {TimeOfDayT{24, 0, 0}, {0, 60, 0}, {0, 0, 60}, {-1, 0, 0}, late})
        EXPECT_EQ(TimeFromTimeOfDay(&seconds, &t), BooleanFrom(Same(t, late)));
    EXPECT_EQ(seconds, 3601);
    EXPECT_EQ(TimeOfDayCompare(&early, &late), -2);
    EXPECT_EQ(TimeOfDayCompare(&early, nullptr), 0);
}

}  // namespace
