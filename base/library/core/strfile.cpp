// Characters on file streams. Lines are read straight from the C library's stream, one byte at a
// time without a lock per byte; a whole character is looked at before it is stored, so that a trail
// byte is never taken for a line feed or a carriage return and a long line is cut between
// characters.
#include "core/strfile.h"

#include <cstring>

#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("STRING")

namespace {

// The next character as it stands in the stream, carriage returns included, -1 at the end. Adds the
// bytes taken.
inline int ReadCharacter(FILE* pFile, int64& llTaken) {
    const int iLead = FileStreamGetByte(pFile);
    if (iLead == EOF) return -1;
    ++llTaken;
    if (StrIsDBCSLeadByte(iLead) == FALSE) return iLead;
    const int iTrail = FileStreamGetByte(pFile);
    if (iTrail == EOF) {
        TraceMessageInline(6, 0, 4, "Failed to read byte from stream");
        return -1;
    }
    ++llTaken;
    return iLead << 8 | iTrail;
}

}  // namespace

BooleanT StrFileReadChar(FileStreamO FD, int* piChar) {
    if (FD == nullptr || FD->pfInput == nullptr || piChar == nullptr) return FALSE;
    int64 llTaken = 0;
    int iChar = 0;
    do {
        iChar = ReadCharacter(FD->pfInput, llTaken);
    } while (iChar == '\r');
    if (iChar == -1) return FALSE;
    *piChar = iChar;
    return TRUE;
}

int32 StrFileReadLine(FileStreamO FD, char* pstrBuffer, int32 lLength) {
    int64 llTaken = 0;
    return StrFileReadLineCounted(FD, pstrBuffer, lLength, &llTaken);
}

int32 StrFileReadLineCounted(FileStreamO FD, char* pstrBuffer, int32 lLength, int64* pllTaken) {
    if (FD == nullptr || FD->pfInput == nullptr || pstrBuffer == nullptr || lLength < 1) return -1;
    FILE* pFile = FD->pfInput;
    int64 llTaken = 0;
    char* pstrEnd = pstrBuffer;
    const char* pstrLimit = pstrBuffer + lLength - 1;
    int iChar = 0;
    while ((iChar = ReadCharacter(pFile, llTaken)) != '\n' && iChar != -1) {
        if (iChar == '\r') continue;
        const int iBytes = iChar > 0xff ? 2 : 1;
        if (pstrLimit - pstrEnd < iBytes) {
            pstrLimit = pstrEnd;  // nothing behind the first character that does not fit
            continue;
        }
        if (iBytes == 2) *pstrEnd++ = static_cast<char>(iChar >> 8);
        *pstrEnd++ = static_cast<char>(iChar);
    }
    *pstrEnd = 0;
    *pllTaken += llTaken;
    return iChar == -1 && pstrEnd == pstrBuffer ? -1 : static_cast<int32>(pstrEnd - pstrBuffer);
}

BooleanT StrFileWriteChar(FileStreamO FD, int iChar) {
    if (iChar <= 0xff) return FileStreamWriteByte(FD, static_cast<ByteT>(iChar));
    const ByteT atBytes[] = {static_cast<ByteT>(iChar >> 8), static_cast<ByteT>(iChar)};
    return FileStreamWrite(FD, atBytes, sizeof(atBytes));
}

BooleanT StrFileWriteString(FileStreamO FD, const char* pstrBuffer) {
    if (pstrBuffer == nullptr) return FALSE;
    return FileStreamWrite(FD, reinterpret_cast<const ByteT*>(pstrBuffer),
                           StrSizeNoTerm(pstrBuffer));
}
