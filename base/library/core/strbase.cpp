// Strings: characters, searching, comparing, copying and tokens.
//
// A byte that is no lead byte always ends a character, as a character of its own or as a trail
// byte. Whether a byte is a trail byte can therefore be told from the lead bytes right in front of
// it, back to the next other byte or to any known start of a character: an odd number means that
// the last of them leads this byte. So the plain byte operations of the C library do the long
// stretches here, and only the places that they find are looked at by characters.
#include "core/strbase.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "core/context.h"
#include "core/memory.h"
#include "core/process.h"
#include "core/trace.h"

TRACE_MODULE("STRING")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr int32 SplitEntries = 24;  // with the closing null

// Whether the byte at pstrPlace is a trail byte. pstrStart: where some character at or before it
// begins.
bool IsTrailByte(const char* pstrStart, const char* pstrPlace) {
    const char* pstrLead = pstrPlace;
    while (pstrLead > pstrStart && StrIsDBCSLeadByte(pstrLead[-1]) == TRUE) --pstrLead;
    return (pstrPlace - pstrLead) % 2 != 0;
}

// Whether a string ends in a lead byte without trail byte: a character of its own, which as the end
// of a substring matches only the same at the end of the source.
bool EndsInLoneLead(const char* pstrString, std::size_t uLength) {
    if (uLength == 0) return false;
    const char* pstrLast = pstrString + uLength - 1;
    return StrIsDBCSLeadByte(*pstrLast) == TRUE && !IsTrailByte(pstrString, pstrLast);
}

int FoldLower(int iChar) { return iChar >= 'A' && iChar <= 'Z' ? iChar - 'A' + 'a' : iChar; }
int FoldUpper(int iChar) { return iChar >= 'a' && iChar <= 'z' ? iChar - 'a' + 'A' : iChar; }
int KeepCase(int iChar) { return iChar; }

int32 Order(int iChar1, int iChar2) { return iChar1 < iChar2 ? -1 : BooleanFrom(iChar1 > iChar2); }

// The order of two strings of which at least one is null.
int32 NullOrder(const char* pstrString1, const char* pstrString2) {
    return Order(pstrString1 != nullptr, pstrString2 != nullptr);
}

char* Writable(const char* pstrString) { return const_cast<char*>(pstrString); }

// A zeroed block for a string of uBytes bytes and its terminator. What is too long to be counted is
// refused by the pool.
char* NewString(std::size_t uBytes, MemPoolIdT tPool) {
    constexpr std::size_t uMost = std::numeric_limits<int32>::max();
    const int32 lSize = uBytes < uMost ? static_cast<int32>(uBytes + 1) : -1;
    return static_cast<char*>(MemAllocateFromPool(lSize, tPool));
}

char* StringFromBytes(const char* pstrBytes, std::size_t uBytes, MemPoolIdT tPool) {
    char* pstrNew = NewString(uBytes, tPool);
    if (pstrNew != nullptr) std::memcpy(pstrNew, pstrBytes, uBytes);
    return pstrNew;
}

// A copy up to pstrEnd (null: the whole string), with or without the character there.
char* DuplicateUpTo(const char* pstrString, const char* pstrEnd, bool bWithTerm) {
    if (pstrString == nullptr) return nullptr;
    if (pstrEnd == nullptr)
        pstrEnd = StrTerminatorPosition(pstrString);
    else if (bWithTerm)
        StrGetChar(&pstrEnd);
    return StringFromBytes(pstrString, static_cast<std::size_t>(pstrEnd - pstrString), MemPool());
}

// Folding leaves the first byte of a two-byte character as it is; the second is stepped over.
char* ConvertCase(char** ppstrNewString, const char* pstrOldString, int (*fnFold)(int)) {
    char* pstrNew = StrDuplicateIntoPool(pstrOldString, MemPool());
    const char* pstrNext = pstrNew;
    for (char* pstrChar = pstrNew; StrGetChar(&pstrNext) != 0; pstrChar = Writable(pstrNext))
        *pstrChar = static_cast<char>(fnFold(static_cast<ByteT>(*pstrChar)));
    if (ppstrNewString != nullptr) *ppstrNewString = pstrNew;
    return pstrNew;
}

int32 CompareRange(const char* pstrString1, const char* pstrString2, int32 lLength,
                   int (*fnFold)(int)) {
    if (lLength <= 0) return 0;
    if (pstrString1 == nullptr || pstrString2 == nullptr)
        return NullOrder(pstrString1, pstrString2);
    const char* pstrNext1 = pstrString1;
    while (pstrNext1 - pstrString1 < lLength) {
        const int iChar1 = StrGetChar(&pstrNext1);
        if (pstrNext1 - pstrString1 > lLength) break;
        const int iChar2 = StrGetChar(&pstrString2);
        const int32 lOrder = Order(fnFold(iChar1), fnFold(iChar2));
        if (lOrder != 0 || iChar1 == 0) return lOrder;
    }
    return 0;
}

int32 CompareRangeExact(const char* pstrStringA, const char* pstrStringB, int32 lLength,
                        int (*fnFold)(int)) {
    if (pstrStringA == nullptr || pstrStringB == nullptr)
        return NullOrder(pstrStringA, pstrStringB);
    for (int32 lChar = 0; lChar < lLength; ++lChar) {
        const int iCharA = StrGetChar(&pstrStringA);
        const int iCharB = StrGetChar(&pstrStringB);
        if (fnFold(iCharA) != fnFold(iCharB)) return fnFold(iCharA) - fnFold(iCharB);
        if (iCharA == 0) return 0;
    }
    return BooleanFrom(*pstrStringA != '\0');
}

// StrToken on a state of the caller's.
char* NextToken(TesselContextTimeStringS* ptState, char* pstrSource, const char* pstrDelimiters) {
    if (pstrSource != nullptr)
        ptState->pstrToken = pstrSource;
    else if (ptState->pstrToken == nullptr)
        return nullptr;
    else
        StrPutChar(&ptState->pstrToken, ptState->iTokenChar);

    char* pstrToken = ptState->pstrToken;
    const char* pstrNext = pstrToken;
    while ((ptState->iTokenChar = StrGetChar(&pstrNext)) != 0) {
        if (StrNextCharMatch(pstrDelimiters, ptState->iTokenChar) != nullptr) {
            *ptState->pstrToken = '\0';
            return pstrToken;
        }
        ptState->pstrToken = Writable(pstrNext);
    }
    ptState->pstrToken = nullptr;
    return pstrToken;
}

}  // namespace

BooleanT StrBaseInitialize() {
    TraceMessageInline(7, 0, 4, "TRUE == StrBaseInitialize()");
    return TRUE;
}

BooleanT StrBaseInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void StrBaseReleaseThread(TesselContextT* /*ptTlContext*/) {}

// --- characters ---

int StrGetCharAfterPointer(const char* pstrString, int iCharsAfter) {
    return StrGetCharAtPointer(StrForwardNChars(pstrString, iCharsAfter));
}

int StrPrevChar(const char** ppstrString) {
    if (ppstrString == nullptr || *ppstrString == nullptr) return 0;
    const char* pstrCursor = *ppstrString;
    *ppstrString -= StrIsDBCSLeadByte(pstrCursor[-2]) == TRUE ? 2 : 1;
    return StrGetCharAtPointer(*ppstrString);
}

int StrPutChar(char** ppstrString, int iChar) {
    if (ppstrString == nullptr || *ppstrString == nullptr) return -1;
    char* pstrStart = *ppstrString;
    if (iChar == 0) {
        *pstrStart = '\0';
        return 0;
    }
    if (iChar > 0xff) *(*ppstrString)++ = static_cast<char>(iChar >> 8);
    *(*ppstrString)++ = static_cast<char>(iChar);
    return static_cast<int>(*ppstrString - pstrStart);
}

char* StrForwardNChars(const char* pstrString, int32 lCharCount) {
    for (int32 lChar = 0; lChar < lCharCount && StrGetChar(&pstrString) != 0; ++lChar) {
    }
    return Writable(pstrString);
}

// --- searching ---

char* StrNextCharMatch(const char* pstrString, int iMatch) {
    if (pstrString == nullptr || iMatch == 0) return nullptr;
    // What begins no two-byte character is one byte, which only a trail byte can be mistaken for.
    if (iMatch > 0 && iMatch <= 0xff && StrIsDBCSLeadByte(iMatch) == FALSE) {
        const char* pstrFound = std::strchr(pstrString, iMatch);
        while (pstrFound != nullptr && IsTrailByte(pstrString, pstrFound)) {
            pstrString = pstrFound + 1;
            pstrFound = std::strchr(pstrString, iMatch);
        }
        return Writable(pstrFound);
    }
    const char* pstrPlace = pstrString;
    for (int iChar; (iChar = StrGetChar(&pstrString)) != 0; pstrPlace = pstrString)
        if (iChar == iMatch) return Writable(pstrPlace);
    return nullptr;
}

char* StrNextCharMatchNoCase(const char* pstrString, int iMatch) {
    const int iFolded = FoldLower(iMatch);
    const char* pstrPlace = pstrString;
    for (int iChar; (iChar = StrGetChar(&pstrString)) != 0; pstrPlace = pstrString)
        if (FoldLower(iChar) == iFolded) return Writable(pstrPlace);
    return nullptr;
}

char* StrNextCharMatchRange(const char* pstrString, int iMatch, int32 lRange) {
    const char* pstrNext = pstrString;
    const char* pstrPlace = pstrString;
    while (pstrNext - pstrString < lRange) {
        const int iChar = StrGetChar(&pstrNext);
        if (iChar == 0 || pstrNext - pstrString > lRange) break;
        if (iChar == iMatch) return Writable(pstrPlace);
        pstrPlace = pstrNext;
    }
    return nullptr;
}

char* StrLastCharMatch(const char* pstrString, int iMatch) {
    const char* pstrFound = nullptr;
    const char* pstrPlace = pstrString;
    for (int iChar; (iChar = StrGetChar(&pstrString)) != 0; pstrPlace = pstrString)
        if (iChar == iMatch) pstrFound = pstrPlace;
    return Writable(pstrFound);
}

char* StrFindSubString(const char* pstrSource, const char* pstrSubString) {
    if (pstrSource == nullptr) return nullptr;
    if (pstrSubString == nullptr) pstrSubString = "";
    const std::size_t uLength = std::strlen(pstrSubString);
    const bool bLoneLead = EndsInLoneLead(pstrSubString, uLength);
    while (const char* pstrFound = std::strstr(pstrSource, pstrSubString)) {
        const bool bTrail = IsTrailByte(pstrSource, pstrFound);
        if (!bTrail && (!bLoneLead || pstrFound[uLength] == '\0')) return Writable(pstrFound);
        pstrSource = bTrail ? pstrFound + 1 : StrForwardNChars(pstrFound, 1);
    }
    return nullptr;
}

char* StrFindSubStringNoCase(const char* pstrSource, const char* pstrSubString) {
    if (pstrSource == nullptr) return nullptr;
    const int32 lChars = StrCharCount(pstrSubString);
    if (lChars == 0) return Writable(pstrSource);
    for (; *pstrSource != '\0'; StrGetChar(&pstrSource))
        if (CompareRangeExact(pstrSubString, pstrSource, lChars, FoldLower) == 0)
            return Writable(pstrSource);
    return nullptr;
}

char* StrFindVariableDelimiter(const char* pstrString, int* aiDelimiters, int32 lNumDelimiters) {
    if (aiDelimiters == nullptr || lNumDelimiters <= 0) return nullptr;
    int* piEnd = aiDelimiters + lNumDelimiters;
    const char* pstrPlace = pstrString;
    for (int iChar; (iChar = StrGetChar(&pstrString)) != 0; pstrPlace = pstrString)
        if (std::find(aiDelimiters, piEnd, iChar) != piEnd) return Writable(pstrPlace);
    return nullptr;
}

// --- comparing ---

int32 StrCompare(const char* pstrString1, const char* pstrString2) {
    if (pstrString1 == nullptr || pstrString2 == nullptr)
        return NullOrder(pstrString1, pstrString2);
    const char* pstrNext1 = pstrString1;
    for (; *pstrNext1 == *pstrString2; ++pstrNext1, ++pstrString2)
        if (*pstrNext1 == '\0') return 0;
    // Characters with the same lead byte are ordered by what is behind it, be it the terminator.
    if (IsTrailByte(pstrString1, pstrNext1))
        return Order(static_cast<ByteT>(*pstrNext1), static_cast<ByteT>(*pstrString2));
    return Order(StrGetCharAtPointer(pstrNext1), StrGetCharAtPointer(pstrString2));
}

int32 StrCompareNoCase(const char* pstrString1, const char* pstrString2) {
    if (pstrString1 == nullptr || pstrString2 == nullptr)
        return NullOrder(pstrString1, pstrString2);
    for (;;) {
        int iChar1 = static_cast<ByteT>(*pstrString1);
        int iChar2 = static_cast<ByteT>(*pstrString2);
        if (StrCharIsAscii(iChar1 | iChar2) == TRUE) {
            ++pstrString1;
            ++pstrString2;
        } else {
            iChar1 = StrGetChar(&pstrString1);
            iChar2 = StrGetChar(&pstrString2);
        }
        const int32 lOrder = iChar1 == iChar2 ? 0 : Order(FoldLower(iChar1), FoldLower(iChar2));
        if (lOrder != 0 || iChar1 == 0) return lOrder;
    }
}

int32 StrCompareRange(const char* pstrString1, const char* pstrString2, int32 lLength) {
    return CompareRange(pstrString1, pstrString2, lLength, KeepCase);
}

int32 StrCompareRangeNoCase(const char* pstrString1, const char* pstrString2, int32 lLength) {
    return CompareRange(pstrString1, pstrString2, lLength, FoldLower);
}

int32 StrCompareRangeExact(const char* pstrStringA, const char* pstrStringB, int32 lLength) {
    return CompareRangeExact(pstrStringA, pstrStringB, lLength, KeepCase);
}

int32 StrCompareRangeExactNoCase(const char* pstrStringA, const char* pstrStringB, int32 lLength) {
    return CompareRangeExact(pstrStringA, pstrStringB, lLength, FoldLower);
}

BooleanT StrIsAscii(const char* pstrString) {
    const char* pstrEnd = StrTerminatorPosition(pstrString);
    return BooleanFrom(std::none_of(pstrString, static_cast<const char*>(pstrEnd),
                                    [](char cByte) { return static_cast<ByteT>(cByte) >= 0x80; }));
}

// --- sizes ---

int32 StrSize(const char* pstrString) {
    return pstrString == nullptr ? 0 : static_cast<int32>(std::strlen(pstrString) + 1);
}

int32 StrSizeNoTerm(const char* pstrString) {
    return pstrString == nullptr ? 0 : static_cast<int32>(std::strlen(pstrString));
}

int32 StrSizeRange(const char* pstrString, int32 lNumChars) {
    return pstrString == nullptr ? 0 : StrSizeRangeNoTerm(pstrString, lNumChars) + 1;
}

int32 StrSizeRangeNoTerm(const char* pstrString, int32 lNumChars) {
    return static_cast<int32>(StrForwardNChars(pstrString, lNumChars) - pstrString);
}

int32 StrCharCount(const char* pstrString) {
    int32 lCount = 0;
    while (StrGetChar(&pstrString) != 0) ++lCount;
    return lCount;
}

char* StrTerminatorPosition(const char* pstrSource) {
    return pstrSource == nullptr ? nullptr : Writable(pstrSource) + std::strlen(pstrSource);
}

// --- copying into the caller's buffer ---

char* StrCopy(char* pstrDestination, const char* pstrSource) {
    if (pstrDestination == nullptr) return nullptr;
    if (pstrSource == nullptr) pstrSource = "";
    const std::size_t uLength = std::strlen(pstrSource);
    std::memmove(pstrDestination, pstrSource, uLength + 1);
    return pstrDestination + uLength;
}

char* StrCopyRange(char* pstrDestination, const char* pstrSource, int32 lCount) {
    if (pstrDestination == nullptr) return nullptr;
    if (pstrSource == nullptr) pstrSource = "";
    const auto uLength = static_cast<std::size_t>(StrSizeRangeNoTerm(pstrSource, lCount));
    std::memmove(pstrDestination, pstrSource, uLength);
    pstrDestination[uLength] = '\0';
    return pstrDestination + uLength;
}

char* StrAppend(char* pstrDestination, const char* pstrSource) {
    return StrCopy(StrTerminatorPosition(pstrDestination), pstrSource);
}

char* StrAppendRange(char* pstrDestination, const char* pstrSource, int32 lCount) {
    return StrCopyRange(StrTerminatorPosition(pstrDestination), pstrSource, lCount);
}

char* StrConvertChar(char* pstrNewString, const char* pstrOldString, int iNewChar, int iOldChar) {
    char* pstrEnd = pstrNewString;
    while (const int iChar = StrGetChar(&pstrOldString))
        StrPutChar(&pstrEnd, iChar == iOldChar ? iNewChar : iChar);
    StrPutChar(&pstrEnd, 0);
    return pstrNewString;
}

char* StrTerminate(char* pstrString, char* pstrStripList) {
    if (pstrString == nullptr) return nullptr;
    char* pstrEnd = pstrString;
    const char* pstrNext = pstrString;
    while (const int iChar = StrGetChar(&pstrNext))
        if (StrNextCharMatch(pstrStripList, iChar) == nullptr) pstrEnd = Writable(pstrNext);
    *pstrEnd = '\0';
    return pstrString;
}

char* StrPad(char* pstrBase, int32 lLength, int iPadChar) {
    if (pstrBase == nullptr || lLength <= 0) return pstrBase;
    if (iPadChar <= 0xff) {
        std::memset(pstrBase, iPadChar, static_cast<std::size_t>(lLength));
        return pstrBase + lLength;
    }
    for (; lLength >= 2; lLength -= 2) StrPutChar(&pstrBase, iPadChar);
    return pstrBase;
}

// --- new strings ---

char* StrCat(const char* pstrFirstComponent, ...) {
    std::va_list tArgs;
    va_start(tArgs, pstrFirstComponent);
    std::va_list tMeasure;
    va_copy(tMeasure, tArgs);
    std::size_t uTotal = 0;
    for (const char* pstrPart = pstrFirstComponent; pstrPart != nullptr;
         pstrPart = va_arg(tMeasure, const char*))
        uTotal += std::strlen(pstrPart);
    va_end(tMeasure);

    char* pstrNew = NewString(uTotal, MemPool());
    char* pstrEnd = pstrNew;
    for (const char* pstrPart = pstrFirstComponent; pstrPart != nullptr && pstrEnd != nullptr;
         pstrPart = va_arg(tArgs, const char*))
        pstrEnd = StrCopy(pstrEnd, pstrPart);
    va_end(tArgs);
    return pstrNew;
}

char* StrJoin(char** ppstrString, char* pstrAppend) {
    if (ppstrString == nullptr) return nullptr;
    PoolPtr<char> pstrOld(*ppstrString);
    *ppstrString = StrCat(pstrOld.Get() == nullptr ? "" : pstrOld.Get(), pstrAppend, nullptr);
    return *ppstrString;
}

char* StrDuplicateIntoPool(const char* pstrSource, MemPoolIdT Pool) {
    if (pstrSource == nullptr) return nullptr;
    return StringFromBytes(pstrSource, std::strlen(pstrSource), Pool);
}

char* StrDuplicateIntoPoolNullIfEmpty(const char* pstrSource, MemPoolIdT Pool) {
    if (pstrSource == nullptr || *pstrSource == '\0') return nullptr;
    return StrDuplicateIntoPool(pstrSource, Pool);
}

char* StrDuplicateRangeIntoPool(const char* pstrSource, MemPoolIdT tPool, int32 lCount) {
    if (pstrSource == nullptr) return nullptr;
    return StringFromBytes(pstrSource,
                           static_cast<std::size_t>(StrSizeRangeNoTerm(pstrSource, lCount)), tPool);
}

char* StrDuplicateToChar(const char* pstrString, int iTermChar) {
    return DuplicateUpTo(pstrString, StrNextCharMatch(pstrString, iTermChar), false);
}

char* StrDuplicateToCharWithTerm(const char* pstrString, int iTermChar) {
    return DuplicateUpTo(pstrString, StrNextCharMatch(pstrString, iTermChar), true);
}

char* StrDuplicateToLastChar(const char* pstrString, int iTermChar) {
    return DuplicateUpTo(pstrString, StrLastCharMatch(pstrString, iTermChar), false);
}

char* StrDuplicateToLastCharWithTerm(const char* pstrString, int iTermChar) {
    return DuplicateUpTo(pstrString, StrLastCharMatch(pstrString, iTermChar), true);
}

char* StrDuplicateToVariableDelimChar(const char* pstrString, int* aiDelimiters,
                                      int32 lNumDelimChars) {
    return DuplicateUpTo(pstrString,
                         StrFindVariableDelimiter(pstrString, aiDelimiters, lNumDelimChars), false);
}

char* StrDuplicateToSubString(const char* pstrSource, const char* pstrSub) {
    if (pstrSource == nullptr || pstrSub == nullptr) {
        TraceMessageInline(9, 0, -1, "StrDuplicateToSubString(%p, %p) - bad args",
                           static_cast<const void*>(pstrSource), static_cast<const void*>(pstrSub));
        ProcCrash(FALSE);
        return nullptr;
    }
    const char* pstrFound = StrFindSubString(pstrSource, pstrSub);
    return pstrFound == nullptr ? nullptr : DuplicateUpTo(pstrSource, pstrFound, false);
}

char* StrDuplicateToSubStringNoCase(const char* pstrSource, const char* pstrSub) {
    if (pstrSource == nullptr || pstrSub == nullptr) {
        TraceMessageInline(10, 0, -1, "StrDuplicateToSubStringNoCase(%p, %p) - bad args",
                           static_cast<const void*>(pstrSource), static_cast<const void*>(pstrSub));
        ProcCrash(FALSE);
        return nullptr;
    }
    const char* pstrFound = StrFindSubStringNoCase(pstrSource, pstrSub);
    return pstrFound == nullptr ? nullptr : DuplicateUpTo(pstrSource, pstrFound, false);
}

char* StrReplaceChar(const char* pstrOldString, int32 lOldChar, int32 lNewChar) {
    if (pstrOldString == nullptr) return nullptr;
    char* pstrNew = NewString(2 * std::strlen(pstrOldString) + 1, MemPool());
    return pstrNew == nullptr ? nullptr
                              : StrConvertChar(pstrNew, pstrOldString, lNewChar, lOldChar);
}

char* StrConvertToLower(char** ppstrNewString, const char* pstrOldString) {
    return ConvertCase(ppstrNewString, pstrOldString, FoldLower);
}

char* StrConvertToUpper(char** ppstrNewString, const char* pstrOldString) {
    return ConvertCase(ppstrNewString, pstrOldString, FoldUpper);
}

// --- tokens ---

char* StrToken(char* pstrSource, const char* pstrDelimiters) {
    return NextToken(&gtTlContext.sString, pstrSource, pstrDelimiters);
}

char** StrSplitString(const char* string, const char* delim) {
    PoolPtr<char> pstrCopy(StrDuplicateIntoPool(string, MemPool()));
    if (pstrCopy.Get() == nullptr) return nullptr;
    auto** apstrTokens = static_cast<char**>(
        MemAllocateFromPool(SplitEntries * static_cast<int32>(sizeof(char*)), MemPool()));
    if (apstrTokens == nullptr) return nullptr;
    TesselContextTimeStringS tState = {};
    char* pstrToken = NextToken(&tState, pstrCopy.Get(), delim);
    for (int32 lToken = 0; lToken < SplitEntries - 1 && pstrToken != nullptr; ++lToken) {
        apstrTokens[lToken] = StrDuplicateIntoPool(pstrToken, MemPool());
        pstrToken = NextToken(&tState, nullptr, delim);
    }
    return apstrTokens;
}

void StrFreeTokens(char** tokens) {
    if (tokens == nullptr) return;
    for (char** ppstrToken = tokens; *ppstrToken != nullptr; ++ppstrToken) MemFree(ppstrToken);
    MemFree(&tokens);
}
