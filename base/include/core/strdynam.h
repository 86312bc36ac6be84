// Growing strings: objects that hold a string in a buffer with room to spare, so that appending
// costs constant time on average.
//
// What the functions return is the string's buffer, which stays the object's and is valid until the
// next change; null for what is no growing string and when memory ran out (the string is then as it
// was). Byte counts are without terminator; the bytes may lie in the string itself.
#pragma once

#include "core/object.h"
#include "core/strbase.h"
#include "core/types.h"

constexpr int32 ObjDStringMagic = ObjMagic(0xc898f3ce);

// Descriptor "d;i;o;".
struct ObjDStringS {
    ObjDataFieldT tBuffer;  // lSize: the buffer's capacity in bytes
    int32 lStrSize;         // bytes in use, with the terminator
    void* oExtension;       // any object, held
};

// A new growing string, held by the caller. Its buffer is twice the size of pstrString (null counts
// as empty), or lMinBytes when that is more.
ObjDStringO ObjDStringNew(const char* pstrString);
ObjDStringO ObjDStringNewSized(const char* pstrString, int32 lMinBytes);

char* DStringAppendSized(ObjDStringO oDString, const char* pstrToAppend, int32 lAppendStrBytes);
char* DStringSetSized(ObjDStringO oDString, const char* pstrString, int32 lSetStrBytes);
// Code 0 and counts below 1 append nothing.
char* DStringAppendCharNTimes(ObjDStringO oDString, int iChar, int32 lNumTimes);
char* DStringAppendInteger(ObjDStringO oDString, int32 lValue);
char* DStringAppendInt64(ObjDStringO oDString, int64 tValue);

int32 DStringBytesUsed(ObjDStringO oDString);          // with the terminator; 0 for what is none
int DStringLastChar(ObjDStringO oDString);             // 0 for an empty string
BooleanT DStringDeleteLastChar(ObjDStringO oDString);  // FALSE for an empty string

// --- public forms ---

inline char* DStringAppend(ObjDStringO oDString, const char* pstrToAppend) {
    return DStringAppendSized(oDString, pstrToAppend, StrSizeNoTerm(pstrToAppend));
}
inline char* DStringSet(ObjDStringO oDString, const char* pstrString) {
    return DStringSetSized(oDString, pstrString, StrSizeNoTerm(pstrString));
}
inline char* DStringAppendChar(ObjDStringO oDString, int iChar) {
    return DStringAppendCharNTimes(oDString, iChar, 1);
}
