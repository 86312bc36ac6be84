// Unique identifiers of jobs, their instances and phases: 20 bytes that no other machine, process
// or call makes again (the base), then the numbers of the job, its instance, phase and sub-phase.
// 32 zero bytes are the invalid identifier.
//
//   0  exclusive-or of the first four words of the local host's address text   (host word order)
//   4  time of creation     8  random number     12  process id     16  sequence number: 0, 1, ...
//  20  job id     24  instance     28  phase, 16 bits     30  sub-phase, 16 bits   (little-endian)
//
// Phases and sub-phases are taken modulo 65536 and read with their sign.
#pragma once

#include "core/types.h"

struct TesselContextUniqueS {
    char strString[256];  // text form of the identifier converted last
};

struct UniqueDecodeT {
    int32 lIpAddress;
    int32 lTime;
    int32 lRandom;
    int32 lId;
    int32 lSequence;
    int32 lJobId;
    int32 lInstance;
    int32 lPhase;
    int32 lSubPhase;
};

// The local host's first address as text.
extern char gstrIpAddress[64];

// FALSE, with a line on standard error, when the local host has no address.
BooleanT UniqueInitialize();
BooleanT UniqueInitializeThread(TesselContextT* ptTlContext);
void UniqueReleaseThread(TesselContextT* ptTlContext);

// --- making: FALSE for null ---

BooleanT UniqueCreate(UniqueT* ptNew);  // all numbers 0
BooleanT UniqueCreateSessionId(UniqueT* ptNewUnique, int32 lJobId, int32 lInstance, int32 lPhase);
void UniqueInvalidate(UniqueT* ptValue);
BooleanT UniqueIsInvalid(const UniqueT* ptValue);  // TRUE for null

// --- numbers: setters give FALSE for a null or invalid identifier ---

BooleanT UniqueSetJobId(UniqueT* ptUnique, int32 lJobId);
BooleanT UniqueSetSessionInstance(UniqueT* ptUnique, int32 lInstance);
BooleanT UniqueSetSessionPhase(UniqueT* ptUnique, int32 lPhase);  // the sub-phase becomes 0
BooleanT UniqueIncrementSessionSubPhase(UniqueT* ptUnique);

// FALSE when the job id, which is stored all the same, is 0.
BooleanT UniqueGetJobId(const UniqueT* ptUnique, int32* plJobId);
int32 UniqueGetSessionJobId(UniqueT* ptUnique);  // these three give 0 for null
int32 UniqueGetSessionInstance(UniqueT* ptUnique);
int32 UniqueGetSessionPhase(UniqueT* ptUnique);
BooleanT UniqueGetSessionSubPhase(int32* plSubPhase, UniqueT* ptUnique);  // FALSE when invalid

// --- comparing: bytes as unsigned numbers, job ids and instances as signed ones. Compare gives -1,
// 0 or 1, null sorting first; the others give FALSE when an argument is null ---

BooleanT UniqueEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2);
int32 UniqueCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2);
BooleanT UniqueBaseEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2);
int32 UniqueBaseCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2);
BooleanT UniqueJobEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2);  // base, job id
int32 UniqueJobCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2);
BooleanT UniqueInstanceEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2);  // and instance
int32 UniqueInstanceCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2);
BooleanT UniqueSameSessionInstance(UniqueT* ptSession1, UniqueT* ptSession2);
BooleanT UniqueSameSessionPhase(UniqueT* ptSession1, UniqueT* ptSession2);  // all but the sub-phase

// --- other forms ---

// TRUE for an invalid identifier, too, which leaves *ptDecode as it is; FALSE for null.
BooleanT UniqueDecode(const UniqueT* ptValue, UniqueDecodeT* ptDecode);

// "(null)", "(invalid)", or the base as 40 hexadecimal digits, followed, unless the job id is 0, by
// job id, instance, phase and sub-phase as " %08x %08x %04x %04x". The text is the library's and
// holds until the next call.
const char* UniqueToString(const UniqueT* ptValue);

// Reads the text form of a valid identifier; the sub-phase becomes 0. FALSE, with *ptOut as it is,
// for any other text.
BooleanT UniqueFromString(UniqueT* ptOut, const char* pstrString);
