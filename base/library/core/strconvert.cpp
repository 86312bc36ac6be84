// Strings: formatting into buffers, values to and from strings, 16-bit units.
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("STRING")
MEM_DEFAULT_POOL_CACHE

namespace {

// What tells the messages of the two formatting operations apart.
struct FormatOperationT {
    const char* pstrName;
    int32 lInvalid;
    int32 lFailed;
    int32 lOverrun;
};
constexpr FormatOperationT tFormat = {"StrFormat", 13, 11, 12};
constexpr FormatOperationT tFormatVa = {"StrFormatVa", 16, 14, 15};

__attribute__((format(printf, 4, 0))) BooleanT FormatInto(const FormatOperationT& tOperation,
                                                          char* pstrBuffer, int32 lSize,
                                                          const char* pstrFormat,
                                                          std::va_list tArgs) {
    if (pstrBuffer == nullptr || pstrFormat == nullptr || lSize < 2) {
        TraceMessageInline(tOperation.lInvalid, 0, -1, "Invalid arguments to %s",
                           tOperation.pstrName);
        return FALSE;
    }
    const int iLength =
        std::vsnprintf(pstrBuffer, static_cast<std::size_t>(lSize), pstrFormat, tArgs);
    if (iLength >= 0 && iLength < lSize) return TRUE;
    if (iLength < 0)
        TraceMessageInline(tOperation.lFailed, errno, -1,
                           "Failed to format string into memory buffer");
    else
        TraceMessageInline(tOperation.lOverrun, 0, -1,
                           "Buffer overrun formatting string into memory buffer");
    pstrBuffer[lSize - 1] = '\0';
    ProcCrash(FALSE);
    return FALSE;
}

// Stores a new block of lSize bytes with the text, which fits.
__attribute__((format(printf, 3, 4))) BooleanT StoreFormatted(char** ppstrResult, int32 lSize,
                                                              const char* pstrFormat, ...) {
    if (ppstrResult == nullptr) return FALSE;
    char* pstrNew = static_cast<char*>(MemAllocateFromPool(lSize, MemPool()));
    if (pstrNew == nullptr) return FALSE;
    std::va_list tArgs;
    va_start(tArgs, pstrFormat);
    std::vsnprintf(pstrNew, static_cast<std::size_t>(lSize), pstrFormat, tArgs);
    va_end(tArgs);
    *ppstrResult = pstrNew;
    return TRUE;
}

bool IsDigit(char cByte) { return cByte >= '0' && cByte <= '9'; }

template <class T>
BooleanT ToDecimal(const char* pstrSource, T* ptValue) {
    if (ptValue == nullptr) return FALSE;
    T tValue = 0;
    if (pstrSource != nullptr) {
        const char* pstrNumber = pstrSource + std::strspn(pstrSource, " \t\n\v\f\r");
        if (*pstrNumber == '+' && IsDigit(pstrNumber[1])) ++pstrNumber;
        const char* pstrEnd = StrTerminatorPosition(pstrNumber);
        const auto [pstrStop, tError] = std::from_chars(pstrNumber, pstrEnd, tValue);
        if (tError != std::errc{} || pstrStop != pstrEnd) return FALSE;
    }
    *ptValue = tValue;
    return TRUE;
}

bool ParseHour(const char* pstrHour, int* piHour) {
    char* pstrEnd = nullptr;
    const auto llHour = std::strtoll(pstrHour, &pstrEnd, 0);
    if (pstrEnd == pstrHour || llHour < 0 || llHour > 23) return false;
    *piHour = static_cast<int>(llHour);
    return true;
}

bool ParseDay(const char* pstrDay, int* piDay) {
    static constexpr const char* apstrDays[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
    for (int iDay = 0; iDay < static_cast<int>(std::size(apstrDays)); ++iDay) {
        if (StrCompareNoCase(pstrDay, apstrDays[iDay]) != 0) continue;
        *piDay = iDay;
        return true;
    }
    return false;
}

// One value, which sets both ends, or two joined by "-".
BooleanT ParseRange(const char* pstrInput, int* piFirst, int* piLast,
                    bool (*fnParse)(const char* pstrValue, int* piValue)) {
    if (pstrInput == nullptr || piFirst == nullptr || piLast == nullptr) return FALSE;
    char** apstrParts = StrSplitString(pstrInput, "-");
    if (apstrParts == nullptr) return FALSE;
    int iFirst = 0;
    int iLast = 0;
    bool bValid = fnParse(apstrParts[0], &iFirst);
    if (apstrParts[1] == nullptr)
        iLast = iFirst;
    else
        bValid = bValid && apstrParts[2] == nullptr && fnParse(apstrParts[1], &iLast);
    StrFreeTokens(apstrParts);
    if (!bValid) return FALSE;
    *piFirst = iFirst;
    *piLast = iLast;
    return TRUE;
}

}  // namespace

// --- formatting ---

BooleanT StrFormat(char* pstrBuffer, int32 lSize, const char* pstrFormat, ...) {
    std::va_list tArgs;
    va_start(tArgs, pstrFormat);
    const BooleanT bResult = FormatInto(tFormat, pstrBuffer, lSize, pstrFormat, tArgs);
    va_end(tArgs);
    return bResult;
}

BooleanT StrFormatVa(char* pstrBuffer, int32 lSize, const char* pstrFormat, std::va_list tArgs) {
    return FormatInto(tFormatVa, pstrBuffer, lSize, pstrFormat, tArgs);
}

// --- values from strings ---

BooleanT StrToBoolean(const char* pstrSource, BooleanT* pbValue) {
    if (pstrSource == nullptr || pbValue == nullptr) return FALSE;
    const bool bTrue = StrCompareNoCase(pstrSource, "TRUE") == 0;
    if (!bTrue && StrCompareNoCase(pstrSource, "FALSE") != 0) return FALSE;
    *pbValue = BooleanFrom(bTrue);
    return TRUE;
}

BooleanT StrToInteger(const char* pstrSource, int32* plValue) {
    return ToDecimal(pstrSource, plValue);
}

BooleanT StrToInt64(const char* pstrSource, int64* ptValue) {
    return ToDecimal(pstrSource, ptValue);
}

BooleanT StrParseHourRange(char* szInput, int* phr1, int* phr2) {
    return ParseRange(szInput, phr1, phr2, ParseHour);
}

BooleanT StrParseDayRange(char* szInput, int* dow1, int* dow2) {
    return ParseRange(szInput, dow1, dow2, ParseDay);
}

// --- strings from values ---

BooleanT StrFromBoolean(char** ppstrResult, BooleanT bValue) {
    if (ppstrResult == nullptr) return FALSE;
    *ppstrResult = StrDuplicateIntoPool(bValue != FALSE ? "TRUE" : "FALSE", MemPool());
    return BooleanFrom(*ppstrResult != nullptr);
}

BooleanT StrFromInteger(char** pstrResult, int32 lValue) {
    return StoreFormatted(pstrResult, 12, "%d", lValue);
}

BooleanT StrFromInt64(char** ppstrResult, int64 tValue) {
    return StoreFormatted(ppstrResult, 24, "%lld", static_cast<long long>(tValue));
}

BooleanT StrHexFromInteger(char** pstrResult, int32 lValue) {
    return StoreFormatted(pstrResult, 14, "0x%x", static_cast<uint32>(lValue));
}

BooleanT StrHexFromInt64(char** pstrResult, int64 tValue) {
    return StoreFormatted(pstrResult, 26, "%llx", static_cast<unsigned long long>(tValue));
}

BooleanT StrFromIpAddr(char** pstrResult, uint32 lValue) {
    return StoreFormatted(pstrResult, 32, "%u.%u.%u.%u", lValue >> 24, lValue >> 16 & 0xff,
                          lValue >> 8 & 0xff, lValue & 0xff);
}

char* StrFromInt64Time(int64 tTime) {
    const int64 llSeconds = tTime / 1000;
    char* pstrResult = nullptr;
    StoreFormatted(&pstrResult, 32, "%2.2lld:%2.2d:%2.2d", static_cast<long long>(llSeconds / 3600),
                   static_cast<int>(llSeconds / 60 % 60), static_cast<int>(llSeconds % 60));
    return pstrResult;
}

// --- 16-bit units ---

int32 StrToUnicode(char* pstrDest, const char* pstrSrc, int32 lConvertChars) {
    if (pstrDest == nullptr) return 0;
    const char* pstrStart = pstrDest;
    for (int32 lChar = 0; lChar < lConvertChars; ++lChar) {
        const int iChar = StrGetChar(&pstrSrc);
        if (iChar == 0) break;
        *pstrDest++ = static_cast<char>(iChar);
        *pstrDest++ = static_cast<char>(iChar >> 8);
    }
    return static_cast<int32>(pstrDest - pstrStart);
}

int32 StrFromUnicode(char** ppstrDest, char* pstrSrc, int32 lSrcLength) {
    if (ppstrDest == nullptr || pstrSrc == nullptr || lSrcLength < 0) return -1;
    const int32 lUnitBytes = lSrcLength - lSrcLength % 2;
    char* pstrNew = static_cast<char*>(MemAllocateFromPool(lUnitBytes + 1, MemPool()));
    if (pstrNew == nullptr) return -1;
    char* pstrEnd = pstrNew;
    for (int32 lByte = 0; lByte < lUnitBytes; lByte += 2) {
        if (pstrSrc[lByte + 1] != '\0') *pstrEnd++ = pstrSrc[lByte + 1];
        *pstrEnd++ = pstrSrc[lByte];
    }
    *ppstrDest = pstrNew;
    return static_cast<int32>(pstrEnd - pstrNew);
}
