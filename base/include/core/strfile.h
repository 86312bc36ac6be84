// Characters and lines on file streams. A lead byte and the byte behind it are one character;
// carriage returns are passed over wherever they stand.
#pragma once

#include "core/filestream.h"
#include "core/types.h"

// A lead byte takes the byte behind it whatever that is, also a line feed or a zero. FALSE at the
// end of the stream, also between the two bytes of a character.
BooleanT StrFileReadChar(FileStreamO FD, int* piChar);

// A line without its line feed: the whole characters that fit into lLength - 1 bytes and a
// terminator; the rest is read and dropped. Zero bytes are stored like any other. Returns the bytes
// stored, -1 at the end of the file when nothing was stored.
int32 StrFileReadLine(FileStreamO FD, char* pstrBuffer, int32 lLength);
// The same; adds the bytes that the line takes in the file to *pllTaken.
int32 StrFileReadLineCounted(FileStreamO FD, char* pstrBuffer, int32 lLength, int64* pllTaken);

BooleanT StrFileWriteChar(FileStreamO FD, int iChar);  // codes above 0xFF as two bytes
BooleanT StrFileWriteString(FileStreamO FD, const char* pstrBuffer);
