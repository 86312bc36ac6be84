// Conversion between clock values, calendar fields and text, and calendar arithmetic. Local time is
// the system's time zone. Text goes into the caller's buffer of lBufferSize bytes, terminated;
// FALSE, with nothing written, for a buffer below the size that the function names.
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

BooleanT TimeConvInitialize();
BooleanT TimeConvInitializeThread(TesselContextT* ptTlContext);
void TimeConvReleaseThread(TesselContextT* ptTlContext);

// --- clock ---

TimeT TimeNow();
int64 TimeNowAsInt64();  // milliseconds

// --- clock values and calendar fields ---

// The context's broken-down time record, valid until the next conversion; null when the system has
// none for this clock value. A negative value means now for TimeLocalTime.
struct tm* TimeLocalTime(TimeT tClock);
struct tm* TimeTToUTCtmTime(TimeT tClock);
TimeT TimeLocaltmTimeToTimeT(struct tm* ptTime);  // mktime
TimeT TimeMakeTime(struct tm* ptTime);            // mktime

BooleanT TimeToTimeOfDayStruct(TimeOfDayT* ptTimeOfDay, TimeT tSource);  // local fields
BooleanT TimeToDateStruct(TimeDateT* ptDate, TimeT tSource);
BooleanT TimeToBreakdownStruct(TimeBreakdownT* ptBreakdown, TimeT tSource);
BooleanT TimeToUTCBreakdownStruct(TimeUTCBreakdownT* ptBreakdown, TimeT tClock);
TimeT TimeFromUTCBreakdown(const TimeUTCBreakdownT* ptBreakdown);
// Local fields to a clock value; the fields are not validated.
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
// Seconds of A minus seconds of B. Null is a programming error: ProcCrash(FALSE) is called.
int32 TimeOfDayCompare(const TimeOfDayT* ptTimeOfDayA, const TimeOfDayT* ptTimeOfDayB);

// --- text: the smallest buffer is named at each ---

BooleanT TimeToNumericDateString(char* pstrBuffer, int32 lBufferSize, TimeT tSource);  // 9 YYYYMMDD
BooleanT TimeToDateAndTimeNumericString(char* pstrBuffer, int32 lBufferSize,
                                        TimeT tSource);  // 11 YYMMDDhhmm
BooleanT TimeToTimeOfDayStringInternal(char* pstrBuffer, int32 lBufferSize, TimeT tSource,
                                       BooleanT bExcludeSeconds);  // 9 hh:mm:ss or hh:mm
BooleanT TimeToShortTimeOfDayString(char* pstrBuffer, int32 lBufferSize,
                                    TimeT tSource);  // 7 hhmmss
// 24: "Tue 05 Apr 2005", without the day name or the year as asked; localised.
BooleanT TimeDateToDateString(char* pstrBuffer, int32 lBufferSize, const TimeDateT* ptSourceDate,
                              BooleanT bExcludeDayName, BooleanT bExcludeYear);
// 24: the same, in the reversed order when "language.cfg" asks for it.
BooleanT TimeToLongDateStringInternal(char* pBuffer, int32 lBufferSize, TimeT tSource,
                                      BooleanT bExcludeDayName, BooleanT bExcludeYear);
BooleanT TimeToNiceDateString(char* pstrBuffer, int32 lBufferSize,
                              TimeT tSource);  // 30 "hh:mm date"
BooleanT TimeToBreakdownString(char* pstrBuffer, int32 lBufferSize,
                               TimeT tSource);  // 1, cut to fit
// A span of milliseconds as hours (not limited to 24), minutes and seconds, cut to the buffer.
void TimeElapsedSince(int64 tTime, char* pstrBuffer, int32 lSize);

// --- parsing: FALSE, traced, with the result left as it is ---

// Exactly eight digits, a valid date. The day of the week is left as it is.
BooleanT TimeDateFromNumericDateString(TimeDateT* ptDate, const char* pstrString);
// hh[:]mm[:]ss; the values are not limited.
BooleanT TimeOfDayFromString(TimeOfDayT* ptResult, const char* pstrSource);

// --- calendar arithmetic, in place; counts are 0 or more. The day of the week moves with single
// days, months and years; moves by several days or weeks leave it as it is ---

BooleanT TimeBreakdownToNextHour(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownToNextDay(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownToPrevDay(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownToNextWeek(TimeBreakdownT* ptBreakdown);
BooleanT TimeBreakdownMoveForwardSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds);
BooleanT TimeBreakdownMoveForwardMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes);
BooleanT TimeBreakdownMoveForwardHours(TimeBreakdownT* ptBreakdown, int32 lHours);
BooleanT TimeBreakdownMoveForwardDays(TimeBreakdownT* ptBreakdown, int32 lDays);
BooleanT TimeBreakdownMoveForwardWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks);
BooleanT TimeBreakdownMoveForwardMonths(TimeBreakdownT* ptBreakdown, int32 lMonths);
BooleanT TimeBreakdownMoveForwardYears(TimeBreakdownT* ptBreakdown, int32 lYears);
BooleanT TimeBreakdownMoveBackSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds);
BooleanT TimeBreakdownMoveBackMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes);
BooleanT TimeBreakdownMoveBackHours(TimeBreakdownT* ptBreakdown, int32 lHours);
BooleanT TimeBreakdownMoveBackDays(TimeBreakdownT* ptBreakdown, int32 lDays);
BooleanT TimeBreakdownMoveBackWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks);
BooleanT TimeBreakdownMoveBackMonths(TimeBreakdownT* ptBreakdown, int32 lMonths);
BooleanT TimeBreakdownMoveBackYears(TimeBreakdownT* ptBreakdown, int32 lYears);
// The next date after this one with that day of the month, or the month's last.
BooleanT TimeBreakdownToNextDateInstance(TimeBreakdownT* ptBreakdown, int32 lDesiredDay);
