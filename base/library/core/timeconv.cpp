// The clock, conversion between clock values, calendar fields and text.
//
// Local fields come from the system's own conversion and lie in the context's one record; UTC
// fields and the way back are plain arithmetic with the four-yearly leap day, which is right for
// every clock value (1970 to 2038). Texts of a fixed form are written digit by digit. Texts for
// people take day names, month names and formats from the catalogue of the language in use; those
// may have any length, so they are cut to the buffer behind a whole character.
#include "core/timeconv.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <span>
#include <string_view>

#include "core/cfg.h"
#include "core/context.h"
#include "core/filebase.h"
#include "core/locale.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("TIMECONV")
MEM_DEFAULT_POOL_CACHE

BooleanT gbReverseDateDisplayOrder = FALSE;
BooleanT gbDoneDateDisplayOrderCheck = FALSE;

namespace {

constexpr int64 SecondsPerMinute = 60;
constexpr int64 SecondsPerHour = 3600;
constexpr int64 SecondsPerDay = 86400;
constexpr int32 FirstYear = 1970;
constexpr int32 LongDateSize = 24;  // smallest buffer for a date in words
constexpr int32 DatePartSize = 15;  // longest part in the reversed order, bytes
constexpr int32 DateTextSize = 25;  // a date in words while it is reversed
constexpr int32 ShortTimeSize = 6;  // "hh:mm" and the blank behind it
constexpr int32 ClockTextSize = 9;  // "hh:mm:ss"

constexpr int32 FirstDayText = 538;
constexpr int32 FirstMonthText = 545;
constexpr const char* gapstrDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* gapstrMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct timespec Clock() {
    struct timespec tNow = {};
    clock_gettime(CLOCK_REALTIME, &tNow);
    return tNow;
}

// The fields of any instant, in the context's record; null when the system has none.
struct tm* LocalFields(std::time_t tInstant) {
    tzset();
    return localtime_r(&tInstant, &gtTlContext.sTimeConv.tm);
}

int64 SecondsOf(const TimeOfDayT& tTime) {
    return tTime.lHour * SecondsPerHour + tTime.lMinute * SecondsPerMinute + tTime.lSecond;
}

// Seconds from 1970 to a date and time, in whatever zone they are meant. False for a month or year
// that is none.
bool SecondsSinceFirstYear(int64* pllResult, const TimeDateT& tDate, const TimeOfDayT& tTime) {
    if (TimeDaysInMonth(tDate.lMonth, tDate.lYear) < 0) return false;
    const int32 lLeapDays = (tDate.lYear - 1) / 4 - (FirstYear - 1) / 4;
    int64 llDays = int64{365} * (tDate.lYear - FirstYear) + lLeapDays + int64{tDate.lDay} - 1;
    for (int32 lMonth = 1; lMonth < tDate.lMonth; ++lMonth)
        llDays += TimeDaysInMonth(lMonth, tDate.lYear);
    *pllResult = llDays * SecondsPerDay + SecondsOf(tTime);
    return true;
}

// --- text ---

// Writes the last iCount decimal digits of a number and returns the position behind them.
char* PutDigits(char* pstrTarget, int32 lNumber, int iCount) {
    for (int i = iCount - 1; i >= 0; --i, lNumber /= 10) pstrTarget[i] = "0123456789"[lNumber % 10];
    return pstrTarget + iCount;
}

// The numbers as two digits each, with a separator between them unless it is 0; terminated.
void PutPairs(char* pstrTarget, std::initializer_list<int32> tNumbers, char cSeparator = '\0') {
    bool bFirst = true;
    for (const int32 lNumber : tNumbers) {
        if (!bFirst && cSeparator != '\0') *pstrTarget++ = cSeparator;
        bFirst = false;
        pstrTarget = PutDigits(pstrTarget, lNumber, 2);
    }
    *pstrTarget = '\0';
}

// Bytes of the whole characters in the first lLimit bytes of a string.
int32 WholeCharacters(const char* pstrText, int32 lLimit) {
    const char* pstrEnd = pstrText;
    for (const char* pstrNext = pstrText; StrGetChar(&pstrNext) != 0;) {
        if (pstrNext - pstrText > lLimit) break;
        pstrEnd = pstrNext;
    }
    return static_cast<int32>(pstrEnd - pstrText);
}

// What snprintf gave for a buffer, as a result: a text that was cut may end in half a character,
// which goes too.
BooleanT Formatted(char* pstrBuffer, int32 lBufferSize, int iLength) {
    if (iLength < 0) {
        pstrBuffer[0] = '\0';
        return FALSE;
    }
    if (iLength < lBufferSize) return TRUE;
    const int32 lWhole = WholeCharacters(pstrBuffer, lBufferSize - 2);
    if (lWhole == lBufferSize - 2 && StrIsDBCSLeadByte(pstrBuffer[lWhole]) == TRUE)
        pstrBuffer[lWhole] = '\0';
    return TRUE;
}

const char* NameText(std::span<const char* const> apstrNames, int64 llIndex, int32 lFirstId) {
    if (llIndex < 0 || llIndex >= static_cast<int64>(apstrNames.size())) return "???";
    return LocaleGetStaticString(apstrNames[static_cast<std::size_t>(llIndex)],
                                 lFirstId + static_cast<int32>(llIndex));
}

// The localised form of the format, looked up at the first call and kept.
__attribute__((format_arg(1))) const char* KeptBreakdownFormat(const char* pstrBuiltIn) {
    static const char* pstrKept = nullptr;
    if (pstrKept == nullptr) pstrKept = StrDuplicate(LocaleGetFormat(pstrBuiltIn, 561));
    return pstrKept == nullptr ? pstrBuiltIn : pstrKept;
}

// Whether dates in words are to be reversed: looked up once. The check counts as done before the
// configuration is read, so that a trace sink which prints dates does not start it again.
bool IsDateOrderReversed() {
    if (gbDoneDateDisplayOrderCheck != TRUE) {
        gbDoneDateDisplayOrderCheck = TRUE;
        const PoolPtr<char> pstrPath(PathHomeBuild("config", "language.cfg", nullptr));
        if (FileExists(pstrPath.Get()) == TRUE)
            CfgGetBoolean(&gbReverseDateDisplayOrder, "language.cfg", "Display",
                          "Reverse Date Display Order", FALSE);
    }
    return gbReverseDateDisplayOrder == TRUE;
}

// Writes the parts of a text, which blanks separate, in reverse order with single blanks. The
// target has the text's size at least.
void ReverseParts(char* pstrTarget, const char* pstrText) {
    std::string_view atParts[DateTextSize / 2 + 1];
    std::size_t uParts = 0;
    const char* pstrNext = pstrText;
    for (;;) {
        while (*pstrNext == ' ') ++pstrNext;
        if (*pstrNext == '\0') break;
        const char* pstrPart = pstrNext;
        const char* pstrEnd = StrNextCharMatch(pstrPart, ' ');
        if (pstrEnd == nullptr) pstrEnd = StrTerminatorPosition(pstrPart);
        const int32 lLimit = std::min(static_cast<int32>(pstrEnd - pstrPart), DatePartSize);
        atParts[uParts++] = {pstrPart, static_cast<std::size_t>(WholeCharacters(pstrPart, lLimit))};
        pstrNext = pstrEnd;
    }
    while (uParts > 0) {
        pstrTarget = std::copy(atParts[uParts - 1].begin(), atParts[uParts - 1].end(), pstrTarget);
        if (--uParts > 0) *pstrTarget++ = ' ';
    }
    *pstrTarget = '\0';
}

// --- parsing ---

// lCount characters of a string of at most eight as a number.
bool PartToInteger(int32* plResult, const char* pstrPart, int32 lCount, int32 lMessage,
                   const char* pstrWhat) {
    char acPart[2 * 8 + 1];
    StrCopyRange(acPart, pstrPart, lCount);
    if (StrToInteger(acPart, plResult) == TRUE) return true;
    TraceMessageInline(lMessage, 0, -1, "Bad %s: '%s'", pstrWhat, acPart);
    return false;
}

// Two decimal digits at the cursor, which moves behind them.
bool TakeTwoDigits(int32* plResult, const char** ppstrCursor) {
    const char* pstrDigits = *ppstrCursor;
    const auto IsDigit = [](char cByte) { return cByte >= '0' && cByte <= '9'; };
    if (!IsDigit(pstrDigits[0]) || !IsDigit(pstrDigits[1])) return false;
    *plResult = (pstrDigits[0] - '0') * 10 + (pstrDigits[1] - '0');
    *ppstrCursor += 2;
    return true;
}

void SkipColon(const char** ppstrCursor) {
    if (**ppstrCursor == ':') ++*ppstrCursor;
}

const char* TextOrNull(const char* pstrText) { return pstrText == nullptr ? "(null)" : pstrText; }

}  // namespace

BooleanT TimeConvInitialize() { return TRUE; }

BooleanT TimeConvInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void TimeConvReleaseThread(TesselContextT* /*ptTlContext*/) {}

// --- clock ---

TimeT TimeNow() { return static_cast<TimeT>(Clock().tv_sec); }

int64 TimeNowAsInt64() {
    const struct timespec tNow = Clock();
    return int64{tNow.tv_sec} * 1000 + tNow.tv_nsec / 1000000;
}

// --- clock values and calendar fields ---

struct tm* TimeLocalTime(TimeT tClock) {
    return LocalFields(tClock < 0 ? TimeNow() : tClock);
}

struct tm* TimeTToUTCtmTime(TimeT tClock) {
    const std::time_t tInstant = tClock;
    return gmtime_r(&tInstant, &gtTlContext.sTimeConv.tm);
}

TimeT TimeLocaltmTimeToTimeT(struct tm* ptTime) {
    if (ptTime == nullptr) return -1;
    const std::time_t tInstant = std::mktime(ptTime);
    const auto tResult = static_cast<TimeT>(tInstant);
    return tResult == tInstant ? tResult : -1;
}

TimeT TimeMakeTime(struct tm* ptTime) { return TimeLocaltmTimeToTimeT(ptTime); }

BooleanT TimeToTimeOfDayStruct(TimeOfDayT* ptTimeOfDay, TimeT tSource) {
    TimeBreakdownT tLocal = {};
    if (ptTimeOfDay == nullptr || TimeToBreakdownStruct(&tLocal, tSource) != TRUE) return FALSE;
    *ptTimeOfDay = tLocal.tTime;
    return TRUE;
}

BooleanT TimeToDateStruct(TimeDateT* ptDate, TimeT tSource) {
    TimeBreakdownT tLocal = {};
    if (ptDate == nullptr || TimeToBreakdownStruct(&tLocal, tSource) != TRUE) return FALSE;
    *ptDate = tLocal.tDate;
    return TRUE;
}

BooleanT TimeToBreakdownStruct(TimeBreakdownT* ptBreakdown, TimeT tSource) {
    const struct tm* ptLocal = ptBreakdown == nullptr ? nullptr : TimeLocalTime(tSource);
    if (ptLocal == nullptr) return FALSE;
    ptBreakdown->tTime = {ptLocal->tm_hour, ptLocal->tm_min, ptLocal->tm_sec};
    ptBreakdown->tDate = {ptLocal->tm_year + 1900, ptLocal->tm_mon + 1, ptLocal->tm_mday,
                          ptLocal->tm_wday};
    return TRUE;
}

BooleanT TimeToUTCBreakdownStruct(TimeUTCBreakdownT* ptBreakdown, TimeT tClock) {
    if (ptBreakdown == nullptr || tClock < 0) return FALSE;
    int32 lDays = tClock / static_cast<int32>(SecondsPerDay);
    int32 lYear = FirstYear;
    for (;; ++lYear) {
        const int32 lLength = lYear % 4 == 0 ? 366 : 365;
        if (lDays < lLength) break;
        lDays -= lLength;
    }
    int32 lMonth = 1;
    for (;; ++lMonth) {
        const int32 lLength = TimeDaysInMonth(lMonth, lYear);
        if (lDays < lLength) break;
        lDays -= lLength;
    }
    const int32 lMinutes = tClock % static_cast<int32>(SecondsPerDay) / 60;
    ptBreakdown->tTime = {lMinutes / 60, lMinutes % 60, tClock % 60};
    ptBreakdown->tDate.lYear = lYear;
    ptBreakdown->tDate.lMonth = lMonth;
    ptBreakdown->tDate.lDay = lDays + 1;
    return TRUE;
}

TimeT TimeFromUTCBreakdown(const TimeUTCBreakdownT* ptBreakdown) {
    int64 llSeconds = 0;
    if (ptBreakdown == nullptr ||
        !SecondsSinceFirstYear(&llSeconds, ptBreakdown->tDate, ptBreakdown->tTime)) {
        return -1;
    }
    return static_cast<TimeT>(llSeconds);
}

BooleanT TimeFromBreakdown(TimeT* ptResult, const TimeBreakdownT* ptSource) {
    int64 llSeconds = 0;
    if (ptResult == nullptr || ptSource == nullptr ||
        !SecondsSinceFirstYear(&llSeconds, ptSource->tDate, ptSource->tTime)) {
        return FALSE;
    }
    tzset();
    const auto tStandard = static_cast<TimeT>(llSeconds + timezone);
    const struct tm* ptFields = LocalFields(tStandard);
    if (ptFields == nullptr) return FALSE;
    *ptResult = static_cast<TimeT>(tStandard - (ptFields->tm_isdst > 0 ? SecondsPerHour : 0));
    return TRUE;
}

BooleanT TimeFromDate(TimeT* ptResult, const TimeDateT* ptSource) {
    if (ptSource == nullptr) return FALSE;
    const TimeBreakdownT tMidnight = {{0, 0, 0}, *ptSource};
    return TimeFromBreakdown(ptResult, &tMidnight);
}

BooleanT TimeFromTimeOfDay(TimeT* pResult, const TimeOfDayT* pSource) {
    if (pResult == nullptr || TimeValidTimeOfDay(pSource) != TRUE) return FALSE;
    *pResult = static_cast<TimeT>(SecondsOf(*pSource));
    return TRUE;
}

int32 TimeOfDayCompare(const TimeOfDayT* ptTimeOfDayA, const TimeOfDayT* ptTimeOfDayB) {
    if (ptTimeOfDayA == nullptr || ptTimeOfDayB == nullptr) {
        TraceMessageInline(1, 0, -1, "TimeOfDayCompare - bad params (%p, %p)",
                           static_cast<const void*>(ptTimeOfDayA),
                           static_cast<const void*>(ptTimeOfDayB));
        ProcCrash(FALSE);
        return 0;
    }
    const int64 llDifference = SecondsOf(*ptTimeOfDayA) - SecondsOf(*ptTimeOfDayB);
    return static_cast<int32>(std::clamp<int64>(llDifference, std::numeric_limits<int32>::min(),
                                                std::numeric_limits<int32>::max()));
}

// --- text ---

BooleanT TimeToNumericDateString(char* pstrBuffer, int32 lBufferSize, TimeT tSource) {
    TimeDateT tDate = {};
    if (pstrBuffer == nullptr || lBufferSize < 9 || TimeToDateStruct(&tDate, tSource) != TRUE)
        return FALSE;
    PutPairs(PutDigits(pstrBuffer, tDate.lYear, 4), {tDate.lMonth, tDate.lDay});
    return TRUE;
}

BooleanT TimeToDateAndTimeNumericString(char* pstrBuffer, int32 lBufferSize, TimeT tSource) {
    TimeBreakdownT tLocal = {};
    if (pstrBuffer == nullptr || lBufferSize < 11 ||
        TimeToBreakdownStruct(&tLocal, tSource) != TRUE) {
        return FALSE;
    }
    PutPairs(pstrBuffer, {tLocal.tDate.lYear, tLocal.tDate.lMonth, tLocal.tDate.lDay,
                          tLocal.tTime.lHour, tLocal.tTime.lMinute});
    return TRUE;
}

BooleanT TimeToTimeOfDayStringInternal(char* pstrBuffer, int32 lBufferSize, TimeT tSource,
                                       BooleanT bExcludeSeconds) {
    TimeOfDayT tTime = {};
    if (pstrBuffer == nullptr || lBufferSize < ClockTextSize ||
        TimeToTimeOfDayStruct(&tTime, tSource) != TRUE) {
        return FALSE;
    }
    if (bExcludeSeconds == TRUE)
        PutPairs(pstrBuffer, {tTime.lHour, tTime.lMinute}, ':');
    else
        PutPairs(pstrBuffer, {tTime.lHour, tTime.lMinute, tTime.lSecond}, ':');
    return TRUE;
}

BooleanT TimeToShortTimeOfDayString(char* pstrBuffer, int32 lBufferSize, TimeT tSource) {
    TimeOfDayT tTime = {};
    if (pstrBuffer == nullptr || lBufferSize < 7 || TimeToTimeOfDayStruct(&tTime, tSource) != TRUE)
        return FALSE;
    PutPairs(pstrBuffer, {tTime.lHour, tTime.lMinute, tTime.lSecond});
    return TRUE;
}

// Catalogue formats name C's long, so the values are passed as that.
BooleanT TimeDateToDateString(char* pstrBuffer, int32 lBufferSize, const TimeDateT* ptSourceDate,
                              BooleanT bExcludeDayName, BooleanT bExcludeYear) {
    if (pstrBuffer == nullptr || lBufferSize < LongDateSize || ptSourceDate == nullptr)
        return FALSE;
    const auto uSize = static_cast<std::size_t>(lBufferSize);
    const auto lDay = static_cast<long>(ptSourceDate->lDay);
    const auto lYear = static_cast<long>(ptSourceDate->lYear);
    const char* pstrDay = NameText(gapstrDays, ptSourceDate->lDayOfWeek, FirstDayText);
    const char* pstrMonth = NameText(gapstrMonths, ptSourceDate->lMonth - int64{1}, FirstMonthText);
    int iLength = 0;
    if (bExcludeDayName == TRUE && bExcludeYear == TRUE)
        iLength =
            std::snprintf(pstrBuffer, uSize, LocaleGetFormat("%02ld %s", 557), lDay, pstrMonth);
    else if (bExcludeDayName == TRUE)
        iLength = std::snprintf(pstrBuffer, uSize, LocaleGetFormat("%02ld %s %4ld", 558), lDay,
                                pstrMonth, lYear);
    else if (bExcludeYear == TRUE)
        iLength = std::snprintf(pstrBuffer, uSize, LocaleGetFormat("%s %02ld %s", 559), pstrDay,
                                lDay, pstrMonth);
    else
        iLength = std::snprintf(pstrBuffer, uSize, LocaleGetFormat("%s %02ld %s %4ld", 560),
                                pstrDay, lDay, pstrMonth, lYear);
    return Formatted(pstrBuffer, lBufferSize, iLength);
}

BooleanT TimeToLongDateStringInternal(char* pBuffer, int32 lBufferSize, TimeT tSource,
                                      BooleanT bExcludeDayName, BooleanT bExcludeYear) {
    TimeDateT tDate = {};
    if (pBuffer == nullptr || lBufferSize < LongDateSize ||
        TimeToDateStruct(&tDate, tSource) != TRUE) {
        return FALSE;
    }
    if (!IsDateOrderReversed())
        return TimeDateToDateString(pBuffer, lBufferSize, &tDate, bExcludeDayName, bExcludeYear);
    char acNormal[DateTextSize];
    char acReversed[DateTextSize];
    if (TimeDateToDateString(acNormal, DateTextSize, &tDate, bExcludeDayName, bExcludeYear) != TRUE)
        return FALSE;
    ReverseParts(acReversed, acNormal);
    return Formatted(
        pBuffer, lBufferSize,
        std::snprintf(pBuffer, static_cast<std::size_t>(lBufferSize), "%s", acReversed));
}

BooleanT TimeToNiceDateString(char* pstrBuffer, int32 lBufferSize, TimeT tSource) {
    if (lBufferSize < ShortTimeSize + LongDateSize ||
        TimeToTimeOfDayStringInternal(pstrBuffer, lBufferSize, tSource, TRUE) != TRUE) {
        return FALSE;
    }
    pstrBuffer[ShortTimeSize - 1] = ' ';
    pstrBuffer[ShortTimeSize] = '\0';
    return TimeToLongDateStringInternal(pstrBuffer + ShortTimeSize, lBufferSize - ShortTimeSize,
                                        tSource, TRUE, FALSE);
}

BooleanT TimeToBreakdownString(char* pstrBuffer, int32 lBufferSize, TimeT tSource) {
    TimeBreakdownT tLocal = {};
    if (pstrBuffer == nullptr || lBufferSize < 1 || TimeToBreakdownStruct(&tLocal, tSource) != TRUE)
        return FALSE;
    const TimeDateT& tDate = tLocal.tDate;
    const TimeOfDayT& tTime = tLocal.tTime;
    const int iLength =
        std::snprintf(pstrBuffer, static_cast<std::size_t>(lBufferSize),
                      KeptBreakdownFormat("%d/%02d/%02d %02d:%02d:%02d"), tDate.lYear, tDate.lMonth,
                      tDate.lDay, tTime.lHour, tTime.lMinute, tTime.lSecond);
    return Formatted(pstrBuffer, lBufferSize, iLength);
}

void TimeElapsedSince(int64 tTime, char* pstrBuffer, int32 lSize) {
    if (pstrBuffer == nullptr || lSize < 1) return;
    const int64 llSeconds = tTime / 1000;
    const int64 llHours =
        std::clamp<int64>(llSeconds / SecondsPerHour, std::numeric_limits<int32>::min(),
                          std::numeric_limits<int32>::max());
    const int iLength = std::snprintf(
        pstrBuffer, static_cast<std::size_t>(lSize), LocaleGetFormat("%2.2ld:%2.2ld:%2.2ld", 562),
        static_cast<long>(llHours), static_cast<long>(llSeconds / SecondsPerMinute % 60),
        static_cast<long>(llSeconds % 60));
    Formatted(pstrBuffer, lSize, iLength);
}

// --- parsing ---

BooleanT TimeDateFromNumericDateString(TimeDateT* ptDate, const char* pstrString) {
    if (ptDate == nullptr || pstrString == nullptr) {
        TraceMessageInline(2, 0, -1, "TimeDateFromNumericDateStringp(%p, %s) - Bad arguments",
                           static_cast<const void*>(ptDate), TextOrNull(pstrString));
        return FALSE;
    }
    if (const int32 lCount = StrCharCount(pstrString); lCount != 8) {
        TraceMessageInline(3, 0, -1, "Wrong numeric date string size. Is %d, should be 8", lCount);
        return FALSE;
    }
    TimeDateT tDate = {};
    if (!PartToInteger(&tDate.lYear, pstrString, 4, 4, "year") ||
        !PartToInteger(&tDate.lMonth, StrForwardNChars(pstrString, 4), 2, 5, "month") ||
        !PartToInteger(&tDate.lDay, StrForwardNChars(pstrString, 6), 2, 6, "day")) {
        return FALSE;
    }
    if (TimeValidDate(&tDate) != TRUE) {
        TraceMessageInline(7, 0, -1, "Invalid date from date string%d.2/%d.2/%d.4", tDate.lDay,
                           tDate.lMonth, tDate.lYear);
        return FALSE;
    }
    ptDate->lYear = tDate.lYear;
    ptDate->lMonth = tDate.lMonth;
    ptDate->lDay = tDate.lDay;
    return TRUE;
}

BooleanT TimeOfDayFromString(TimeOfDayT* ptResult, const char* pstrSource) {
    TimeOfDayT tTime = {};
    const char* pstrCursor = pstrSource;
    bool bTaken =
        ptResult != nullptr && pstrSource != nullptr && TakeTwoDigits(&tTime.lHour, &pstrCursor);
    for (int32* plPart : {&tTime.lMinute, &tTime.lSecond}) {
        if (!bTaken) break;
        SkipColon(&pstrCursor);
        bTaken = TakeTwoDigits(plPart, &pstrCursor);
    }
    if (!bTaken) {
        TraceMessageInline(8, 0, -1, "TimeOfDayFromString() - cannot convert string '%s'",
                           TextOrNull(pstrSource));
        return FALSE;
    }
    *ptResult = tTime;
    return TRUE;
}
