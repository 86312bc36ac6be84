// The calendar: lengths, validity, days of the week, and moves of a broken-down time.
//
// A move works on a copy that replaces the caller's record when all of it has succeeded. Moves by
// days and weeks go step by step, because each step asks for the length of the month it stands in;
// a month has one only in the years 1000 to 10000, which bounds every move to some 500,000 steps
// whatever the count.
#include <algorithm>
#include <limits>

#include "core/timeconv.h"
#include "core/trace.h"

TRACE_MODULE("TIMECONV")

namespace {

constexpr int32 DaysPerWeek = 7;
constexpr int32 MonthsPerYear = 12;

// The remainder from 0 to 6, also for what is negative.
int32 DayOfWeek(int64 llDay) {
    return static_cast<int32>((llDay % DaysPerWeek + DaysPerWeek) % DaysPerWeek);
}

bool IsDate(const TimeDateT& tDate) {
    return tDate.lMonth >= 1 && tDate.lMonth <= MonthsPerYear && tDate.lDay >= 1 &&
           tDate.lDay <= 31;
}

// Moves to another year; false when there is no such number.
bool SetYear(TimeDateT* ptDate, int64 llYear) {
    if (llYear < std::numeric_limits<int32>::min() || llYear > std::numeric_limits<int32>::max())
        return false;
    ptDate->lYear = static_cast<int32>(llYear);
    return true;
}

// Moves to another month and leaves the day.
bool AddMonths(TimeDateT* ptDate, int64 llMonths) {
    const int64 llMonth = int64{ptDate->lYear} * MonthsPerYear + ptDate->lMonth - 1 + llMonths;
    const int64 llInYear = (llMonth % MonthsPerYear + MonthsPerYear) % MonthsPerYear;
    ptDate->lMonth = static_cast<int32>(llInYear) + 1;
    return SetYear(ptDate, (llMonth - llInYear) / MonthsPerYear);
}

// The length of the date's month; false when it has none.
bool MonthLength(int32* plLength, const TimeDateT& tDate) {
    *plLength = TimeDaysInMonth(tDate.lMonth, tDate.lYear);
    return *plLength > 0;
}

// Days of the week are recomputed for a whole date; what has none keeps the -1 of the computation,
// brought into range.
void RecomputeDayOfWeek(TimeDateT* ptDate) {
    const int32 lDay = TimeCalculateDayOfWeek(ptDate->lYear, ptDate->lMonth, ptDate->lDay);
    ptDate->lDayOfWeek = lDay < 0 ? lDay + DaysPerWeek : lDay;
}

// --- moves of a date; a count below 0 moves back ---

// Up to a week, into the next month when past the end of this one and into the previous one when
// before its start. The day of the week stays.
bool AddDays(TimeDateT* ptDate, int32 lDays) {
    int32 lLength = 0;
    if (lDays > 0 && !MonthLength(&lLength, *ptDate)) return false;
    ptDate->lDay += lDays;
    if (lDays > 0) {
        if (ptDate->lDay <= lLength) return true;
        ptDate->lDay -= lLength;
        return AddMonths(ptDate, 1);
    }
    if (ptDate->lDay >= 1) return true;
    if (!AddMonths(ptDate, -1) || !MonthLength(&lLength, *ptDate)) return false;
    ptDate->lDay += lLength;
    return true;
}

// One day, and the day of the week with it. From behind the end of a month, where moves by months
// may have led, the next day is the first.
bool StepDay(TimeDateT* ptDate, int64 llStep) {
    int32 lLength = 0;
    if (llStep > 0 && !MonthLength(&lLength, *ptDate)) return false;
    if (llStep > 0) ptDate->lDay = std::min(ptDate->lDay, lLength);
    ptDate->lDayOfWeek = DayOfWeek(ptDate->lDayOfWeek + llStep);
    return AddDays(ptDate, static_cast<int32>(llStep));
}

// Whole weeks, then the rest as one step. The day of the week stays.
bool MoveDays(TimeDateT* ptDate, int64 llDays) {
    const int32 lWeek = llDays < 0 ? -DaysPerWeek : DaysPerWeek;
    for (; llDays / DaysPerWeek != 0; llDays -= lWeek) {
        if (!AddDays(ptDate, lWeek)) return false;
    }
    return llDays == 0 || AddDays(ptDate, static_cast<int32>(llDays));
}

bool ForwardMonths(TimeDateT* ptDate, int64 llMonths) {
    if (!AddMonths(ptDate, llMonths)) return false;
    RecomputeDayOfWeek(ptDate);
    return true;
}

// Every month on the way that is shorter than the day held at the start sets the day to its last.
bool BackMonths(TimeDateT* ptDate, int64 llMonths) {
    const int32 lFirstDay = ptDate->lDay;
    for (; llMonths > 0; --llMonths) {
        const int32 lDayBefore = ptDate->lDay;
        int32 lLength = 0;
        if (!AddMonths(ptDate, -1) || !MonthLength(&lLength, *ptDate)) return false;
        if (lFirstDay > lLength) ptDate->lDay = lLength;
        ptDate->lDayOfWeek =
            DayOfWeek(int64{ptDate->lDayOfWeek} - (lLength - ptDate->lDay + lDayBefore));
    }
    return true;
}

bool IsMissingLeapDay(const TimeDateT& tDate) {
    return tDate.lMonth == 2 && tDate.lDay == 29 && TimeLeapYear(tDate.lYear) != TRUE;
}

bool ForwardYears(TimeDateT* ptDate, int64 llYears) {
    if (!SetYear(ptDate, ptDate->lYear + llYears)) return false;
    if (IsMissingLeapDay(*ptDate)) ptDate->lDay = 28;
    RecomputeDayOfWeek(ptDate);
    return true;
}

bool BackYears(TimeDateT* ptDate, int64 llYears) {
    return SetYear(ptDate, ptDate->lYear - llYears) &&
           (!IsMissingLeapDay(*ptDate) || StepDay(ptDate, -1));
}

bool NextDateInstance(TimeDateT* ptDate, int64 llDesiredDay) {
    int32 lLength = 0;
    if (llDesiredDay < 1 || !MonthLength(&lLength, *ptDate)) return false;
    int64 llDays = -ptDate->lDay;  // that the date moves by
    if (ptDate->lDay >= llDesiredDay) {
        llDays += lLength;
        if (!AddMonths(ptDate, 1) || !MonthLength(&lLength, *ptDate)) return false;
    }
    ptDate->lDay = static_cast<int32>(std::min<int64>(llDesiredDay, lLength));
    ptDate->lDayOfWeek = DayOfWeek(ptDate->lDayOfWeek + llDays + ptDate->lDay);
    return true;
}

// --- moves of date and time; a count below 0 moves back ---

// Adds to a unit of the time of day less than a whole one of the next unit; the carry is -1, 0
// or 1.
int32 AddAndCarry(int32* plUnit, int32 lCount, int32 lWhole) {
    *plUnit += lCount;
    const int32 lCarry = *plUnit < 0 ? -1 : BooleanFrom(*plUnit >= lWhole);
    *plUnit -= lCarry * lWhole;
    return lCarry;
}

bool MoveHours(TimeBreakdownT* ptBreakdown, int32 lHours) {
    if (!MoveDays(&ptBreakdown->tDate, lHours / 24)) return false;
    const int32 lCarry = AddAndCarry(&ptBreakdown->tTime.lHour, lHours % 24, 24);
    return lCarry == 0 || StepDay(&ptBreakdown->tDate, lCarry);
}

bool MoveMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes) {
    return MoveHours(ptBreakdown, lMinutes / 60) &&
           MoveHours(ptBreakdown, AddAndCarry(&ptBreakdown->tTime.lMinute, lMinutes % 60, 60));
}

bool MoveSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds) {
    return MoveMinutes(ptBreakdown, lSeconds / 60) &&
           MoveMinutes(ptBreakdown, AddAndCarry(&ptBreakdown->tTime.lSecond, lSeconds % 60, 60));
}

// --- what every move shares ---

// Moves the date by lCount units on a copy, which replaces the record when all went well.
BooleanT MoveDate(TimeBreakdownT* ptBreakdown, int32 lCount,
                  bool (*fnMove)(TimeDateT* ptDate, int64 llCount), int64 llUnit = 1) {
    if (ptBreakdown == nullptr || lCount < 0 || !IsDate(ptBreakdown->tDate)) return FALSE;
    TimeDateT tDate = ptBreakdown->tDate;
    if (!fnMove(&tDate, lCount * llUnit)) return FALSE;
    ptBreakdown->tDate = tDate;
    return TRUE;
}

// The same with date and time.
BooleanT MoveTime(TimeBreakdownT* ptBreakdown, int32 lCount,
                  bool (*fnMove)(TimeBreakdownT* ptBreakdown, int32 lCount), int32 lSign = 1) {
    if (ptBreakdown == nullptr || lCount < 0 || !IsDate(ptBreakdown->tDate) ||
        TimeValidTimeOfDay(&ptBreakdown->tTime) != TRUE) {
        return FALSE;
    }
    TimeBreakdownT tMoved = *ptBreakdown;
    if (!fnMove(&tMoved, lCount * lSign)) return FALSE;
    *ptBreakdown = tMoved;
    return TRUE;
}

}  // namespace

// --- the calendar ---

BooleanT TimeLeapYear(int32 lYear) {
    return BooleanFrom(lYear % 4 == 0 && (lYear % 100 != 0 || lYear % 400 == 0));
}

int32 TimeDaysInMonth(int32 lMonth, int32 lYear) {
    constexpr int32 alLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (lMonth < 1 || lMonth > MonthsPerYear || lYear < 1000 || lYear > 10000) {
        TraceMessageInline(9, 0, 4, "Invalid arguments");
        return -1;
    }
    return lMonth == 2 && TimeLeapYear(lYear) == TRUE ? 29 : alLengths[lMonth - 1];
}

BooleanT TimeValidDate(const TimeDateT* pSource) {
    return BooleanFrom(pSource != nullptr && pSource->lYear >= 1971 && pSource->lMonth >= 1 &&
                       pSource->lMonth <= MonthsPerYear && pSource->lDay >= 1 &&
                       pSource->lDay <= TimeDaysInMonth(pSource->lMonth, pSource->lYear));
}

BooleanT TimeValidTimeOfDay(const TimeOfDayT* pSource) {
    return BooleanFrom(pSource != nullptr && pSource->lHour >= 0 && pSource->lHour <= 23 &&
                       pSource->lMinute >= 0 && pSource->lMinute <= 59 && pSource->lSecond >= 0 &&
                       pSource->lSecond <= 59);
}

BooleanT TimeValidBreakdown(const TimeBreakdownT* pSource) {
    return BooleanFrom(pSource != nullptr && TimeValidDate(&pSource->tDate) == TRUE &&
                       TimeValidTimeOfDay(&pSource->tTime) == TRUE);
}

int32 TimeCalculateDayOfWeek(int32 lYear, int32 lMonth, int32 lDay) {
    if (lYear < 2 || !IsDate({lYear, lMonth, lDay, 0})) return -1;
    const int32 lLate = (14 - lMonth) / 12;  // January and February count to the year before
    const int64 llYear = lYear - lLate;
    const int32 lFromMarch = lMonth + 12 * lLate - 2;
    return static_cast<int32>(
        (lDay + llYear + llYear / 4 - llYear / 100 + llYear / 400 + 31 * lFromMarch / 12) %
        DaysPerWeek);
}

// --- moves ---

BooleanT TimeBreakdownToNextHour(TimeBreakdownT* ptBreakdown) {
    return MoveTime(ptBreakdown, 1, MoveHours);
}

BooleanT TimeBreakdownToNextDay(TimeBreakdownT* ptBreakdown) {
    return MoveDate(ptBreakdown, 1, StepDay);
}

BooleanT TimeBreakdownToPrevDay(TimeBreakdownT* ptBreakdown) {
    return MoveDate(ptBreakdown, 1, StepDay, -1);
}

BooleanT TimeBreakdownToNextWeek(TimeBreakdownT* ptBreakdown) {
    return MoveDate(ptBreakdown, 1, MoveDays, DaysPerWeek);
}

BooleanT TimeBreakdownMoveForwardSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds) {
    return MoveTime(ptBreakdown, lSeconds, MoveSeconds);
}

BooleanT TimeBreakdownMoveForwardMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes) {
    return MoveTime(ptBreakdown, lMinutes, MoveMinutes);
}

BooleanT TimeBreakdownMoveForwardHours(TimeBreakdownT* ptBreakdown, int32 lHours) {
    return MoveTime(ptBreakdown, lHours, MoveHours);
}

BooleanT TimeBreakdownMoveForwardDays(TimeBreakdownT* ptBreakdown, int32 lDays) {
    return MoveDate(ptBreakdown, lDays, MoveDays);
}

BooleanT TimeBreakdownMoveForwardWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks) {
    return MoveDate(ptBreakdown, lWeeks, MoveDays, DaysPerWeek);
}

BooleanT TimeBreakdownMoveForwardMonths(TimeBreakdownT* ptBreakdown, int32 lMonths) {
    return MoveDate(ptBreakdown, lMonths, ForwardMonths);
}

BooleanT TimeBreakdownMoveForwardYears(TimeBreakdownT* ptBreakdown, int32 lYears) {
    return MoveDate(ptBreakdown, lYears, ForwardYears);
}

BooleanT TimeBreakdownMoveBackSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds) {
    return MoveTime(ptBreakdown, lSeconds, MoveSeconds, -1);
}

BooleanT TimeBreakdownMoveBackMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes) {
    return MoveTime(ptBreakdown, lMinutes, MoveMinutes, -1);
}

BooleanT TimeBreakdownMoveBackHours(TimeBreakdownT* ptBreakdown, int32 lHours) {
    return MoveTime(ptBreakdown, lHours, MoveHours, -1);
}

BooleanT TimeBreakdownMoveBackDays(TimeBreakdownT* ptBreakdown, int32 lDays) {
    return MoveDate(ptBreakdown, lDays, MoveDays, -1);
}

BooleanT TimeBreakdownMoveBackWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks) {
    return MoveDate(ptBreakdown, lWeeks, MoveDays, -DaysPerWeek);
}

BooleanT TimeBreakdownMoveBackMonths(TimeBreakdownT* ptBreakdown, int32 lMonths) {
    return MoveDate(ptBreakdown, lMonths, BackMonths);
}

BooleanT TimeBreakdownMoveBackYears(TimeBreakdownT* ptBreakdown, int32 lYears) {
    return MoveDate(ptBreakdown, lYears, BackYears);
}

BooleanT TimeBreakdownToNextDateInstance(TimeBreakdownT* ptBreakdown, int32 lDesiredDay) {
    return MoveDate(ptBreakdown, lDesiredDay, NextDateInstance);
}
