// Strings in a double-byte character set: zero-terminated byte strings in which a character is one
// or two bytes.
//
// A byte in 0x80-0x9F or 0xE0-0xFF is a lead byte, whatever the locale. A lead byte and the
// non-zero byte behind it form one character, its code lead x 256 + trail; a lead byte in front of
// the terminator, and every other byte, is a character of its own. Code 0 is the terminator and no
// character: it is never found by a search. A trail byte may look like any ASCII character, so what
// looks for a character steps through the string with the operations here. Only ASCII letters have
// a case; folded codes compare as lower-case letters.
//
// Strings that are returned are blocks of the default pool (where no pool is given), owned by the
// caller. Positions that are returned lie in the argument. A null string that is only read counts
// as empty unless a function says otherwise. Counts are of characters where they are called so,
// else of bytes; a count below 0 counts as 0. Only formatting checks the room in the caller's
// buffer.
#pragma once

#include <array>
#include <cstdarg>

#include "core/memory.h"
#include "core/types.h"

// String state of the runtime context.
struct TesselContextTimeStringS {
    char* pstrToken;  // where the next token search starts, null when the string is used up
    int iTokenChar;   // character that the last token's delimiter overwrote
};

// TRUE for the bytes that may begin a two-byte character.
inline constexpr std::array<BooleanT, 256> aBOOLIsLeadByte = [] {
    std::array<BooleanT, 256> abLead{};
    for (int iByte = 0x80; iByte <= 0xff; ++iByte)
        abLead[static_cast<std::size_t>(iByte)] = BooleanFrom(iByte < 0xa0 || iByte >= 0xe0);
    return abLead;
}();

BooleanT StrBaseInitialize();
BooleanT StrBaseInitializeThread(TesselContextT* ptTlContext);
void StrBaseReleaseThread(TesselContextT* ptTlContext);

// --- characters ---

// Looks at the low byte only.
inline BooleanT StrIsDBCSLeadByte(const int iChar) {
    return aBOOLIsLeadByte[static_cast<ByteT>(iChar)];
}
inline BooleanT StrCharIsAscii(const int iChar) { return BooleanFrom(iChar < 0x80); }

// 0 at the terminator and for null.
inline int StrGetCharAtPointer(const char* pstrString) {
    if (pstrString == nullptr) return 0;
    const int iFirst = static_cast<ByteT>(pstrString[0]);
    if (StrIsDBCSLeadByte(iFirst) == FALSE || pstrString[1] == '\0') return iFirst;
    return iFirst << 8 | static_cast<ByteT>(pstrString[1]);
}
// The character at the cursor, which moves behind it, but not past the terminator. 0 at the
// terminator and for a null cursor.
inline int StrGetChar(const char** ppstrString) {
    if (ppstrString == nullptr || *ppstrString == nullptr) return 0;
    const int iChar = StrGetCharAtPointer(*ppstrString);
    if (iChar != 0) *ppstrString += iChar > 0xff ? 2 : 1;
    return iChar;
}
// The character iCharsAfter characters on; 0 when the string ends before.
int StrGetCharAfterPointer(const char* pstrString, int iCharsAfter);
// Steps the cursor back by one character and returns it: two bytes when the byte two before the
// cursor is a lead byte, else one. That byte must be readable, so a cursor one byte behind the
// start of its buffer is not for this function. 0 for a null cursor.
int StrPrevChar(const char** ppstrString);
// Writes a character (codes above 0xFF as two bytes, high byte first), moves the cursor behind it
// and returns the bytes written. Code 0 writes the terminator, leaves the cursor there and returns
// 0. -1 for a null cursor.
int StrPutChar(char** ppstrString, int iChar);
// The position lCharCount characters on, at most the terminator's.
char* StrForwardNChars(const char* pstrString, int32 lCharCount);

// --- searching: null when there is none ---

char* StrNextCharMatch(const char* pstrString, int iMatch);
char* StrNextCharMatchNoCase(const char* pstrString, int iMatch);
// Only characters that end within the first lRange bytes.
char* StrNextCharMatchRange(const char* pstrString, int iMatch, int32 lRange);
char* StrLastCharMatch(const char* pstrString, int iMatch);
// The empty substring is found at the start.
char* StrFindSubString(const char* pstrSource, const char* pstrSubString);
char* StrFindSubStringNoCase(const char* pstrSource, const char* pstrSubString);
// The first character that is one of lNumDelimiters codes.
char* StrFindVariableDelimiter(const char* pstrString, int* aiDelimiters, int32 lNumDelimiters);

// --- comparing: by the codes of the first characters that differ; null sorts before every string
// ---

// -1, 0 or 1.
int32 StrCompare(const char* pstrString1, const char* pstrString2);
int32 StrCompareNoCase(const char* pstrString1, const char* pstrString2);
// The same over the characters that lie wholly in the first lLength bytes of string 1.
int32 StrCompareRange(const char* pstrString1, const char* pstrString2, int32 lLength);
int32 StrCompareRangeNoCase(const char* pstrString1, const char* pstrString2, int32 lLength);
// Over lLength characters: the difference of the codes; when all match, 1 if string A goes on after
// them, else 0.
int32 StrCompareRangeExact(const char* pstrStringA, const char* pstrStringB, int32 lLength);
int32 StrCompareRangeExactNoCase(const char* pstrStringA, const char* pstrStringB, int32 lLength);
BooleanT StrIsAscii(const char* pstrString);  // no byte of 0x80 or above

// --- sizes in bytes; 0 for null ---

int32 StrSize(const char* pstrString);  // with the terminator
int32 StrSizeNoTerm(const char* pstrString);
// Of the first lNumChars characters, with and without a terminator behind them.
int32 StrSizeRange(const char* pstrString, int32 lNumChars);
int32 StrSizeRangeNoTerm(const char* pstrString, int32 lNumChars);
int32 StrCharCount(const char* pstrString);  // characters
char* StrTerminatorPosition(const char* pstrSource);

// --- copying into the caller's buffer ---

// All four return the position of the terminator written; null for a null destination. The buffers
// may overlap in StrCopy and StrCopyRange. lCount counts characters.
char* StrCopy(char* pstrDestination, const char* pstrSource);
char* StrCopyRange(char* pstrDestination, const char* pstrSource, int32 lCount);
char* StrAppend(char* pstrDestination, const char* pstrSource);
char* StrAppendRange(char* pstrDestination, const char* pstrSource, int32 lCount);
// Copies with every iOldChar replaced by iNewChar (0 drops it) and returns pstrNewString, which may
// be pstrOldString when iNewChar is no wider than iOldChar.
char* StrConvertChar(char* pstrNewString, const char* pstrOldString, int iNewChar, int iOldChar);
// Cuts off the trailing characters that occur in pstrStripList; returns pstrString.
char* StrTerminate(char* pstrString, char* pstrStripList);
// Fills lLength bytes with iPadChar, without a terminator, and returns the position behind the last
// byte written. Of a two-byte character only whole ones are written: an odd last byte stays.
char* StrPad(char* pstrBase, int32 lLength, int iPadChar);

// --- new strings ---

// All components one behind the other; the list ends with nullptr.
char* StrCat(const char* pstrFirstComponent, ...) __attribute__((sentinel));
// Replaces *ppstrString (a pool block or null, which is freed) by itself with pstrAppend behind it,
// and returns it. Null for a null ppstrString.
char* StrJoin(char** ppstrString, char* pstrAppend);

// Null for null.
char* StrDuplicateIntoPool(const char* pstrSource, MemPoolIdT Pool);
char* StrDuplicateIntoPoolNullIfEmpty(const char* pstrSource, MemPoolIdT Pool);  // or for empty
char* StrDuplicateRangeIntoPool(const char* pstrSource, MemPoolIdT tPool, int32 lCount);
inline char* StrDuplicate(const char* pstrSource) {
    return StrDuplicateIntoPool(pstrSource, MemGetDefaultPoolId());
}
inline char* StrDuplicateNullIfEmpty(const char* pstrSource) {
    return StrDuplicateIntoPoolNullIfEmpty(pstrSource, MemGetDefaultPoolId());
}
inline char* StrDuplicateRange(const char* pstrSource, int32 lCount) {
    return StrDuplicateRangeIntoPool(pstrSource, MemGetDefaultPoolId(), lCount);
}

// A copy up to the first or last iTermChar, without it or (WithTerm) with it; the whole string when
// it does not occur. Null for null.
char* StrDuplicateToChar(const char* pstrString, int iTermChar);
char* StrDuplicateToCharWithTerm(const char* pstrString, int iTermChar);
char* StrDuplicateToLastChar(const char* pstrString, int iTermChar);
char* StrDuplicateToLastCharWithTerm(const char* pstrString, int iTermChar);
char* StrDuplicateToVariableDelimChar(const char* pstrString, int* aiDelimiters,
                                      int32 lNumDelimChars);
// What precedes the first pstrSub; null when it does not occur. A null argument is a programming
// error: it is traced, ProcCrash(FALSE) is called and the result is null.
char* StrDuplicateToSubString(const char* pstrSource, const char* pstrSub);
char* StrDuplicateToSubStringNoCase(const char* pstrSource, const char* pstrSub);

// A copy, in a block of twice the size, with one character replaced; null for null.
char* StrReplaceChar(const char* pstrOldString, int32 lOldChar, int32 lNewChar);
// An ASCII-folded copy, stored (unless ppstrNewString is null) and returned; what was stored there
// before is not freed. Null for null.
char* StrConvertToLower(char** ppstrNewString, const char* pstrOldString);
char* StrConvertToUpper(char** ppstrNewString, const char* pstrOldString);

// --- tokens ---

// The next token of the string given by the last call with a source: call with the source first,
// then with null until null comes back. The delimiter behind a token is overwritten by a terminator
// until the next call, which writes it back, so the string is whole again at the end. Delimiters
// are not joined: two in a row give an empty token, one at the end a last empty token. One
// tokenisation per context can be under way.
char* StrToken(char* pstrSource, const char* pstrDelimiters);

// The first 23 tokens as an array of 24 entries closed by null, which goes back through
// StrFreeTokens. Does not disturb a tokenisation under way. Null for a null string.
char** StrSplitString(const char* string, const char* delim);
void StrFreeTokens(char** tokens);

// --- formatting ---

// Formats into lSize bytes. FALSE, traced, for a null argument or lSize below 2. A text that does
// not fit and a formatting error are programming errors: they are traced, the buffer holds the
// (cut) text, ProcCrash(FALSE) is called and the result is FALSE.
BooleanT StrFormat(char* pstrBuffer, int32 lSize, const char* pstrFormat, ...)
    __attribute__((format(printf, 3, 4)));
BooleanT StrFormatVa(char* pstrBuffer, int32 lSize, const char* pstrFormat, std::va_list tArgs)
    __attribute__((format(printf, 3, 0)));

// --- values from strings: FALSE, with the value left as it is, for anything else and for null
// arguments ---

BooleanT StrToBoolean(const char* pstrSource, BooleanT* pbValue);  // "TRUE" or "FALSE" in any case
// White space, a sign and decimal digits to the end of the string, in the range of the result. A
// null source gives 0 and TRUE.
BooleanT StrToInteger(const char* pstrSource, int32* plValue);
BooleanT StrToInt64(const char* pstrSource, int64* ptValue);
// One hour, which sets both, or two joined by "-". Hours are 0 to 23, in C's notation (0x0A is 10,
// 010 is 8); what follows an hour's digits is not looked at.
BooleanT StrParseHourRange(char* szInput, int* phr1, int* phr2);
// One day, which sets both, or two joined by "-": "sun" to "sat" in any case give 0 to 6.
BooleanT StrParseDayRange(char* szInput, int* dow1, int* dow2);

// --- strings from values: FALSE for a null result ---

BooleanT StrFromBoolean(char** ppstrResult, BooleanT bValue);  // "TRUE" or "FALSE"
BooleanT StrFromInteger(char** pstrResult, int32 lValue);
BooleanT StrFromInt64(char** ppstrResult, int64 tValue);
BooleanT StrHexFromInteger(char** pstrResult, int32 lValue);  // with "0x"
BooleanT StrHexFromInt64(char** pstrResult, int64 tValue);    // without
// Dotted decimals, the most significant byte first.
BooleanT StrFromIpAddr(char** pstrResult, uint32 lValue);
// Milliseconds as hours:minutes:seconds of at least two digits each, hours not limited to 24. Each
// part of a negative time carries the sign.
char* StrFromInt64Time(int64 tTime);

// --- 16-bit units, low byte first ---

// Writes the codes of at most lConvertChars characters, without a terminator; returns the bytes
// written (2 per character).
int32 StrToUnicode(char* pstrDest, const char* pstrSrc, int32 lConvertChars);
// A new string in which each unit of lSrcLength bytes gives its high byte, when not 0, and its low
// byte; an odd last byte is ignored. Returns its bytes without the terminator; -1, with nothing
// stored, for a null argument or a negative length.
int32 StrFromUnicode(char** ppstrDest, char* pstrSrc, int32 lSrcLength);
