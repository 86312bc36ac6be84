// Characters and lines on file streams. A lead byte and the byte behind it are one character;
// carriage returns are passed over wherever they stand.
#pragma once

#include "core/filestream.h"
#include "core/types.h"

// FALSE at the end of the stream, also between the two bytes of a character.
BooleanT StrFileReadChar(FileStreamO FD, int* piChar);

// A line without its line feed: at most lLength - 1 bytes and a terminator; what does not fit is
// read and dropped. Returns the bytes stored, -1 at the end of the file when nothing was stored.
int32 StrFileReadLine(FileStreamO FD, char* pstrBuffer, int32 lLength);

BooleanT StrFileWriteChar(FileStreamO FD, int iChar);  // codes above 0xFF as two bytes
BooleanT StrFileWriteString(FileStreamO FD, const char* pstrBuffer);
