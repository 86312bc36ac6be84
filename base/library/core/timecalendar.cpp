// The calendar: lengths, validity, days of the week, and moves of a broken-down time.
//
// A move works on a copy that replaces the caller's record when all of it has succeeded. Moves by
// days and weeks go step by step, because each step asks for the length of the month it stands in;
// a month has one only in the years 1000 to 10000, which bounds every move to some 500,000 steps
// whatever the count.
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

// --- steps ---

// Up to a week on, into the next month when past the end of this one. The day of the week stays.
bool AddDays(TimeDateT* ptDate, int32 lDays) {
    int32 lLength = 0;
    if (!MonthLength(&lLength, *ptDate)) return false;
    ptDate->lDay += lDays;
    if (ptDate->lDay <= lLength) return true;
    ptDate->lDay -= lLength;
    return AddMonths(ptDate, 1);
}

// Up to a week back, into the previous month when before the start of this one.
bool SubtractDays(TimeDateT* ptDate, int32 lDays) {
    ptDate->lDay -= lDays;
    if (ptDate->lDay >= 1) return true;
    int32 lLength = 0;
    if (!AddMonths(ptDate, -1) || !MonthLength(&lLength, *ptDate)) return false;
    ptDate->lDay += lLength;
    return true;
}

bool NextDay(TimeDateT* ptDate) {
    int32 lLength = 0;
    if (!MonthLength(&lLength, *ptDate)) return false;
    ptDate->lDayOfWeek = DayOfWeek(int64{ptDate->lDayOfWeek} + 1);
    if (++ptDate->lDay <= lLength) return true;
    ptDate->lDay = 1;
    return AddMonths(ptDate, 1);
}

bool PreviousDay(TimeDateT* ptDate) {
    ptDate->lDayOfWeek = DayOfWeek(int64{ptDate->lDayOfWeek} - 1);
    return SubtractDays(ptDate, 1);
}

using StepFnT = bool (*)(TimeDateT* ptDate, int32 lDays);

// Whole weeks, then the rest as one step.
bool StepDays(TimeDateT* ptDate, int32 lDays, StepFnT fnStep) {
    for (int32 lWeek = lDays / DaysPerWeek; lWeek > 0; --lWeek) {
        if (!fnStep(ptDate, DaysPerWeek)) return false;
    }
    return lDays % DaysPerWeek == 0 || fnStep(ptDate, lDays % DaysPerWeek);
}

bool StepWeeks(TimeDateT* ptDate, int32 lWeeks, StepFnT fnStep) {
    for (; lWeeks > 0; --lWeeks) {
        if (!fnStep(ptDate, DaysPerWeek)) return false;
    }
    return true;
}

bool ForwardHours(TimeBreakdownT* ptBreakdown, int32 lHours) {
    if (!StepDays(&ptBreakdown->tDate, lHours / 24, AddDays)) return false;
    ptBreakdown->tTime.lHour += lHours % 24;
    if (ptBreakdown->tTime.lHour < 24) return true;
    ptBreakdown->tTime.lHour -= 24;
    return NextDay(&ptBreakdown->tDate);
}

bool BackHours(TimeBreakdownT* ptBreakdown, int32 lHours) {
    if (!StepDays(&ptBreakdown->tDate, lHours / 24, SubtractDays)) return false;
    ptBreakdown->tTime.lHour -= lHours % 24;
    if (ptBreakdown->tTime.lHour >= 0) return true;
    ptBreakdown->tTime.lHour += 24;
    return PreviousDay(&ptBreakdown->tDate);
}

using UnitFnT = bool (*)(TimeBreakdownT* ptBreakdown, int32 lCount);

// A count of one unit of 60: whole ones of the next unit up, then the remainder and its carry.
bool ForwardUnit(TimeBreakdownT* ptBreakdown, int32 TimeOfDayT::*plUnit, int32 lCount,
                 UnitFnT fnNextUnit) {
    if (!fnNextUnit(ptBreakdown, lCount / 60)) return false;
    int32& lUnit = ptBreakdown->tTime.*plUnit;
    lUnit += lCount % 60;
    if (lUnit < 60) return true;
    lUnit -= 60;
    return fnNextUnit(ptBreakdown, 1);
}

bool BackUnit(TimeBreakdownT* ptBreakdown, int32 TimeOfDayT::*plUnit, int32 lCount,
              UnitFnT fnNextUnit) {
    if (!fnNextUnit(ptBreakdown, lCount / 60)) return false;
    int32& lUnit = ptBreakdown->tTime.*plUnit;
    lUnit -= lCount % 60;
    if (lUnit >= 0) return true;
    lUnit += 60;
    return fnNextUnit(ptBreakdown, 1);
}

bool ForwardMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes) {
    return ForwardUnit(ptBreakdown, &TimeOfDayT::lMinute, lMinutes, ForwardHours);
}

bool BackMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes) {
    return BackUnit(ptBreakdown, &TimeOfDayT::lMinute, lMinutes, BackHours);
}

bool ForwardSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds) {
    return ForwardUnit(ptBreakdown, &TimeOfDayT::lSecond, lSeconds, ForwardMinutes);
}

bool BackSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds) {
    return BackUnit(ptBreakdown, &TimeOfDayT::lSecond, lSeconds, BackMinutes);
}

// Every month on the way that is shorter than the day held at the start sets the day to its last.
bool BackMonths(TimeDateT* ptDate, int32 lMonths) {
    const int32 lFirstDay = ptDate->lDay;
    for (; lMonths > 0; --lMonths) {
        const int32 lDayBefore = ptDate->lDay;
        int32 lLength = 0;
        if (!AddMonths(ptDate, -1) || !MonthLength(&lLength, *ptDate)) return false;
        if (lFirstDay > lLength) ptDate->lDay = lLength;
        ptDate->lDayOfWeek =
            DayOfWeek(int64{ptDate->lDayOfWeek} - (lLength - ptDate->lDay + lDayBefore));
    }
    return true;
}

bool ForwardYears(TimeDateT* ptDate, int32 lYears) {
    if (!SetYear(ptDate, int64{ptDate->lYear} + lYears)) return false;
    if (ptDate->lMonth == 2 && ptDate->lDay == 29 && TimeLeapYear(ptDate->lYear) != TRUE)
        ptDate->lDay = 28;
    RecomputeDayOfWeek(ptDate);
    return true;
}

bool BackYears(TimeDateT* ptDate, int32 lYears) {
    if (!SetYear(ptDate, int64{ptDate->lYear} - lYears)) return false;
    const bool bGone =
        ptDate->lMonth == 2 && ptDate->lDay == 29 && TimeLeapYear(ptDate->lYear) != TRUE;
    return !bGone || PreviousDay(ptDate);
}

bool NextDateInstance(TimeDateT* ptDate, int32 lDesiredDay) {
    int32 lLength = 0;
    if (lDesiredDay < 1 || !MonthLength(&lLength, *ptDate)) return false;
    int64 llDays = 0;  // that the date moves by
    if (ptDate->lDay >= lDesiredDay) {
        int32 lNewLength = 0;
        if (!AddMonths(ptDate, 1) || !MonthLength(&lNewLength, *ptDate)) return false;
        llDays = lLength - ptDate->lDay;
        ptDate->lDay = lDesiredDay < lNewLength ? lDesiredDay : lNewLength;
        llDays += ptDate->lDay;
    } else {
        const int32 lNewDay = lDesiredDay > lLength ? lLength : lDesiredDay;
        llDays = lNewDay - ptDate->lDay;
        ptDate->lDay = lNewDay;
    }
    ptDate->lDayOfWeek = DayOfWeek(ptDate->lDayOfWeek + llDays);
    return true;
}

// --- what every move shares ---

// Runs a move of the date on a copy, which replaces the record when the move succeeds.
template <class MoveT>
BooleanT MoveDate(TimeBreakdownT* ptBreakdown, int32 lCount, MoveT fnMove) {
    if (ptBreakdown == nullptr || lCount < 0 || !IsDate(ptBreakdown->tDate)) return FALSE;
    TimeDateT tDate = ptBreakdown->tDate;
    if (!fnMove(&tDate, lCount)) return FALSE;
    ptBreakdown->tDate = tDate;
    return TRUE;
}

// The same for a move of date and time.
BooleanT MoveTime(TimeBreakdownT* ptBreakdown, int32 lCount, UnitFnT fnMove) {
    if (ptBreakdown == nullptr || lCount < 0 || !IsDate(ptBreakdown->tDate) ||
        TimeValidTimeOfDay(&ptBreakdown->tTime) != TRUE) {
        return FALSE;
    }
    TimeBreakdownT tMoved = *ptBreakdown;
    if (!fnMove(&tMoved, lCount)) return FALSE;
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
    return MoveTime(ptBreakdown, 1, ForwardHours);
}

BooleanT TimeBreakdownToNextDay(TimeBreakdownT* ptBreakdown) {
    return MoveDate(ptBreakdown, 1, [](TimeDateT* ptDate, int32) { return NextDay(ptDate); });
}

BooleanT TimeBreakdownToPrevDay(TimeBreakdownT* ptBreakdown) {
    return MoveDate(ptBreakdown, 1, [](TimeDateT* ptDate, int32) { return PreviousDay(ptDate); });
}

BooleanT TimeBreakdownToNextWeek(TimeBreakdownT* ptBreakdown) {
    return MoveDate(ptBreakdown, DaysPerWeek, AddDays);
}

BooleanT TimeBreakdownMoveForwardSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds) {
    return MoveTime(ptBreakdown, lSeconds, ForwardSeconds);
}

BooleanT TimeBreakdownMoveForwardMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes) {
    return MoveTime(ptBreakdown, lMinutes, ForwardMinutes);
}

BooleanT TimeBreakdownMoveForwardHours(TimeBreakdownT* ptBreakdown, int32 lHours) {
    return MoveTime(ptBreakdown, lHours, ForwardHours);
}

BooleanT TimeBreakdownMoveForwardDays(TimeBreakdownT* ptBreakdown, int32 lDays) {
    return MoveDate(ptBreakdown, lDays, [](TimeDateT* ptDate, int32 lCount) {
        return StepDays(ptDate, lCount, AddDays);
    });
}

BooleanT TimeBreakdownMoveForwardWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks) {
    return MoveDate(ptBreakdown, lWeeks, [](TimeDateT* ptDate, int32 lCount) {
        return StepWeeks(ptDate, lCount, AddDays);
    });
}

BooleanT TimeBreakdownMoveForwardMonths(TimeBreakdownT* ptBreakdown, int32 lMonths) {
    return MoveDate(ptBreakdown, lMonths, [](TimeDateT* ptDate, int32 lCount) {
        if (!AddMonths(ptDate, lCount)) return false;
        RecomputeDayOfWeek(ptDate);
        return true;
    });
}

BooleanT TimeBreakdownMoveForwardYears(TimeBreakdownT* ptBreakdown, int32 lYears) {
    return MoveDate(ptBreakdown, lYears, ForwardYears);
}

BooleanT TimeBreakdownMoveBackSeconds(TimeBreakdownT* ptBreakdown, int32 lSeconds) {
    return MoveTime(ptBreakdown, lSeconds, BackSeconds);
}

BooleanT TimeBreakdownMoveBackMinutes(TimeBreakdownT* ptBreakdown, int32 lMinutes) {
    return MoveTime(ptBreakdown, lMinutes, BackMinutes);
}

BooleanT TimeBreakdownMoveBackHours(TimeBreakdownT* ptBreakdown, int32 lHours) {
    return MoveTime(ptBreakdown, lHours, BackHours);
}

BooleanT TimeBreakdownMoveBackDays(TimeBreakdownT* ptBreakdown, int32 lDays) {
    return MoveDate(ptBreakdown, lDays, [](TimeDateT* ptDate, int32 lCount) {
        return StepDays(ptDate, lCount, SubtractDays);
    });
}

BooleanT TimeBreakdownMoveBackWeeks(TimeBreakdownT* ptBreakdown, int32 lWeeks) {
    return MoveDate(ptBreakdown, lWeeks, [](TimeDateT* ptDate, int32 lCount) {
        return StepWeeks(ptDate, lCount, SubtractDays);
    });
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
