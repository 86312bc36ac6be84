// Conversion between clock values, calendar fields and text, and calendar arithmetic. Local time is
// the system's time zone; conversions to local fields take a negative clock value as now. Text goes
// into the caller's buffer of lBufferSize bytes, terminated; FALSE, with nothing written, for a
// buffer below the size that the function names. Null arguments give FALSE.
#pragma once

#include <ctime>

#include "core/types.h"

struct TimeOfDayT {
    int32 lHour;    // 0-23
    int32 lMinute;  // 0-59
    int32 lSecond;  // 0-59
};

struct TimeDateT {
    int32 lYear;       // all four digits
    int32 lMonth;      // 1-12
    int32 lDay;        // 1-31
    int32 lDayOfWeek;  // TimeDayOfWeekE
};

struct TimeBreakdownT {  // local
    TimeOfDayT tTime;
    TimeDateT tDate;
};

struct TimeUTCBreakdownT {
    TimeOfDayT tTime;
    TimeDateT tDate;  // without the day of the week
};

enum TimeDayOfWeekE : int32 {
    Sunday = 0,
    Monday = 1,
    Tuesday = 2,
    Wednesday = 3,
    Thursday = 4,
    Friday = 5,
    Saturday = 6,
};

struct TesselContextTimeConvS {
    struct tm tm;  // broken-down time converted last
};

// Whether "language.cfg" asks for dates in reversed order, and whether that has been looked up.
extern BooleanT gbReverseDateDisplayOrder;
extern BooleanT gbDoneDateDisplayOrderCheck;

BooleanT TimeConvInitialize();
BooleanT TimeConvInitializeThread(TesselContextT* ptTlContext);
void TimeConvReleaseThread(TesselContextT* ptTlContext);

// --- clock ---

TimeT TimeNow();         // the low 32 bits: negative from January 2038 on
int64 TimeNowAsInt64();  // milliseconds

// --- clock values and calendar fields ---

// The context's broken-down time record, valid until the next conversion; null when the system has
// none for this clock value. A negative value means now locally, a time before 1970 in UTC.
struct tm* TimeLocalTime(TimeT tClock);
struct tm* TimeTToUTCtmTime(TimeT tClock);
// mktime, which also normalises the fields; -1 for a result that is no TimeT. Both are the same.
TimeT TimeLocaltmTimeToTimeT(struct tm* ptTime);
TimeT TimeMakeTime(struct tm* ptTime);

BooleanT TimeToTimeOfDayStruct(TimeOfDayT* ptTimeOfDay, TimeT tSource);  // local fields
BooleanT TimeToDateStruct(TimeDateT* ptDate, TimeT tSource);
BooleanT TimeToBreakdownStruct(TimeBreakdownT* ptBreakdown, TimeT tSource);
// FALSE for a negative clock value. The day of the week is left as it is.
BooleanT TimeToUTCBreakdownStruct(TimeUTCBreakdownT* ptBreakdown, TimeT tClock);
// The inverse; -1 where TimeFromBreakdown fails.
TimeT TimeFromUTCBreakdown(const TimeUTCBreakdownT* ptBreakdown);
// Local fields to a clock value. FALSE for a month or year that TimeDaysInMonth refuses; the other
// fields are not validated, and what is no TimeT is cut to its low 32 bits. A time of day that the
// clock skips is taken by the old offset less an hour, one that it shows twice as the second.
BooleanT TimeFromBreakdown(TimeT* ptResult, const TimeBreakdownT* ptSource);
BooleanT TimeFromDate(TimeT* ptResult, const TimeDateT* ptSource);      // at 00:00:00
BooleanT TimeFromTimeOfDay(TimeT* pResult, const TimeOfDayT* pSource);  // seconds since midnight

BooleanT TimeValidDate(const TimeDateT* pSource);  // from 1971 on
BooleanT TimeValidTimeOfDay(const TimeOfDayT* pSource);
BooleanT TimeValidBreakdown(const TimeBreakdownT* pSource);
BooleanT TimeLeapYear(int32 lYear);
int32 TimeDaysInMonth(int32 lMonth, int32 lYear);  // -1 for a month or year that is none
// Year from 2 on; -1 for fields out of range. Sunday is 0.
int32 TimeCalculateDayOfWeek(int32 lYear, int32 lMonth, int32 lDay);
// Seconds of A minus seconds of B. Null is a programming error: ProcCrash(FALSE) is called, and the
// result is 0.
int32 TimeOfDayCompare(const TimeOfDayT* ptTimeOfDayA, const TimeOfDayT* ptTimeOfDayB);

// --- text: the smallest buffer is named at each ---

BooleanT TimeToNumericDateString(char* pstrBuffer, int32 lBufferSize, TimeT tSource);  // 9 YYYYMMDD
BooleanT TimeToDateAndTimeNumericString(char* pstrBuffer, int32 lBufferSize,
                                        TimeT tSource);  // 11 YYMMDDhhmm
BooleanT TimeToTimeOfDayStringInternal(char* pstrBuffer, int32 lBufferSize, TimeT tSource,
                                       BooleanT bExcludeSeconds);  // 9 hh:mm:ss or hh:mm
BooleanT TimeToShortTimeOfDayString(char* pstrBuffer, int32 lBufferSize,
                                    TimeT tSource);  // 7 hhmmss
// 24: "Tue 05 Apr 2005", without the day name or the year as asked; localised, and cut to the
// buffer behind a whole character. "???" stands for a day of the week or month that is none.
BooleanT TimeDateToDateString(char* pstrBuffer, int32 lBufferSize, const TimeDateT* ptSourceDate,
                              BooleanT bExcludeDayName, BooleanT bExcludeYear);
// 24: the same, in the reversed order ("2005 Apr 05 Tue" has each part cut to 15 bytes) when
// "language.cfg" asks for it ("Reverse Date Display Order" of "Display"); looked up once.
BooleanT TimeToLongDateStringInternal(char* pBuffer, int32 lBufferSize, TimeT tSource,
                                      BooleanT bExcludeDayName, BooleanT bExcludeYear);
BooleanT TimeToNiceDateString(char* pstrBuffer, int32 lBufferSize,
                              TimeT tSource);  // 30 "hh:mm date"
// The format is the one of the language in use at the first call.
BooleanT TimeToBreakdownString(char* pstrBuffer, int32 lBufferSize,
                               TimeT tSource);  // 1, cut to fit
// A span of milliseconds as hours (not limited to 24), minutes and seconds, cut to the buffer.
void TimeElapsedSince(int64 tTime, char* pstrBuffer, int32 lSize);

// --- parsing: FALSE, traced, with the result left as it is ---

// Exactly eight digits, a valid date. The day of the week is left as it is.
BooleanT TimeDateFromNumericDateString(TimeDateT* ptDate, const char* pstrString);
// hh[:]mm[:]ss; the values are not limited.
BooleanT TimeOfDayFromString(TimeOfDayT* ptResult, const char* pstrSource);

// --- calendar arithmetic, in place ---
//
// FALSE, with the record as it was, for a negative count, a month outside 1 to 12, a day outside 1
// to 31, a time of day that is none (where the move concerns it), and for a move that needs the
// length of a month outside the years 1000 to 10000 or leaves the range of a year.
//
// The day of the week follows single days (also those that hours carry or borrow), months, and
// years forward. Moves by several days, by weeks and by years back leave it as it is.

BooleanT TimeBreakdownToNextHour(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownToNextDay(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownToPrevDay(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownToNextWeek(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownMoveForwardSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds);
BooleanT TimeBreakdownMoveForwardMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes);
BooleanT TimeBreakdownMoveForwardHours(TimeBreakdownT* ptBreakdown, int32 lHours);
BooleanT TimeBreakdownMoveForwardDays(TimeBreakdownT* ptBreakdown, int32 lDays);
BooleanT TimeBreakdownMoveForwardWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks);
// Leaves the day, which may lie behind the end of the new month.
BooleanT TimeBreakdownMoveForwardMonths(TimeBreakdownT* ptBreakdown, int32 lMonths);
// 29 February becomes 28 February in a year without it, here and in the move back (which lowers the
// day of the week by one then).
BooleanT TimeBreakdownMoveForwardYears(TimeBreakdownT* ptBreakdown, int32 lYears);
BooleanT TimeBreakdownMoveBackSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds);
BooleanT TimeBreakdownMoveBackMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes);
BooleanT TimeBreakdownMoveBackHours(TimeBreakdownT* ptBreakdown, int32 lHours);
BooleanT TimeBreakdownMoveBackDays(TimeBreakdownT* ptBreakdown, int32 lDays);
BooleanT TimeBreakdownMoveBackWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks);
// A month on the way that is shorter than the first day sets the day to its last.
BooleanT TimeBreakdownMoveBackMonths(TimeBreakdownT* ptBreakdown, int32 lMonths);
BooleanT TimeBreakdownMoveBackYears(TimeBreakdownT* ptBreakdown, int32 lYears);
// The next date with that day of the month (from 1 on): later in this month when the day lies
// ahead, else in the next; the month's last day when it is shorter. So on the last day of a short
// month a later desired day changes nothing.
BooleanT TimeBreakdownToNextDateInstance(TimeBreakdownT* ptBreakdown, int32 lDesiredDay);
