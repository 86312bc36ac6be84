// Trace: numbered, levelled diagnostic lines, kept as binary records in a ring buffer and handed to
// a sink (a descriptor, a stream, any callback) as one text line each.
//
// Every source unit says TRACE_MODULE("NAME") once and then calls TraceMessageInline(number,
// status, level, format, ...). The number is the call site's, the status code often an errno value
// (0 for none, 1 for an internal error). A message above the threshold costs a compare: its
// arguments are not even evaluated, so they must have no effects.
//
// Ring records and buffer headers are read by other processes (shared memory) and written to dump
// files: their layout is fixed. See docs/formats.md.
#pragma once

#include <cstdarg>
#include <cstdio>

#include "core/types.h"

// A message is recorded when its level is at or below the threshold: lower numbers matter more.
enum TraceLevelE : int32 {
    eTraceLevelUnchanged = -2,  // for TraceSetLevel: only read the threshold
    eTraceLevelAlways = -1,     // errors
    eTraceLevelNormal = 0,      // application progress; threshold of a new buffer
    eTraceLevelVerbose = 1,
    eTraceLevelHiVerbose = 2,
    eTraceLevelLibNormal = 3,   // calls and results of library functions
    eTraceLevelLibVerbose = 4,  // library detail
};

// Head of a trace buffer, followed directly by bufferSize bytes of records.
struct TraceBufHeaderT {
    int32 bufferSize;          // bytes of the record area
    int32 currentBufPosition;  // offset of the newest record in the record area, -1 when empty
    int32 traceMask;           // reserved
    int32 eTraceLevel;         // threshold
};
static_assert(sizeof(TraceBufHeaderT) == 16);

// Head of a record, followed by the zero-terminated text and filler up to lSize.
struct TraceMessageHeaderT {
    int32 lSequenceNumber;  // 1, 2, ... 0x40000000, 0, 1, ...
    int32 lOffsetPrevious;  // offset of the record written before, -1 for the first
    int32 lSize;            // whole record, a multiple of 8
    char strModuleId[8];    // blank-padded, no terminator
    int32 lTraceId;         // message number, 0 to 65535
    int32 lStatusCode;
    int32 lTime;  // seconds since 1970 UTC
    int32 lLevel;
    int32 lUnused;
};
static_assert(sizeof(TraceMessageHeaderT) == 40 && offsetof(TraceMessageHeaderT, lTraceId) == 20);

struct TracePositionT {
    int32 lPosition;  // offset of a record
    int32 lSequenceNumber;
    TraceBufHeaderT* pTraceBuffer;
};
constexpr TracePositionT TraceNoPosition = {-1, -1, nullptr};

constexpr uint32 TraceSequenceMax = 0x40000000;

// The all-ones buffer address, which stands for the process's own buffer.
inline TraceBufHeaderT* TraceInternalBuffer() {
    return reinterpret_cast<TraceBufHeaderT*>(~std::uintptr_t{0});
}

// Sink: pBuffer is the start of a record, lSize its lSize. Also the callback of a walk, which FALSE
// ends.
using TraceCallbackFnT = BooleanT (*)(const char* pBuffer, int32 lSize, void* pArgument);

// Trace state of the runtime context.
struct TesselContextTraceS {
    TraceCallbackFnT pfnTraceCallback;       // sink, null for none
    BooleanT bDisabled;                      // TRUE while trace itself writes a file or a dump
    TraceBufHeaderT* ptBufHeader;            // buffer in use, null for none
    ByteT* ptBuffer;                         // its record area
    int32 lSequenceNumber;                   // of the next record, -1 without a buffer
    FILE* pfileOutput;                       // dump being written
    TraceBufHeaderT* ptInternalTraceBuffer;  // the process's own buffer
    int32 lCount;                            // trace-file state from here on
    int32 lLines;
    int32 lKeep;
    int32 lIndex;
    char* pstrFormat;
    char* pstrPath;
    BooleanT bUseKilnTime;
    BooleanT bAddLevel;  // reserved
    int tFd;             // open trace file, -1 for none
};

// The trace state of the one runtime context; what the level test at each call site reads.
extern TesselContextTraceS* const gptTraceState;

// Names that a message identifier's high half selects instead of the module name; entries 1 to 8
// are used, entry 9 is null. Each is padded with at least eight blanks.
extern const char* const gapstrSubSystems[10];

BooleanT TraceInitialize();
BooleanT TraceInitializeThread(TesselContextT* ptTlContext);
void TraceReleaseThread(TesselContextT* ptTlContext);

// Records one message under a module name of at least eight characters. lId: message number in the
// low 16 bits, sub-system number in the high half. Texts longer than the buffer takes (8150
// characters in a standard buffer) are cut. TraceNoPosition when nothing was recorded.
TracePositionT TraceMessageVa(const char* pstrModuleId, int32 lId, int32 lStatusCode,
                              TraceLevelE eLevel, const char* pstrFormat, std::va_list tArgs)
    __attribute__((format(printf, 5, 0)));

// Initialises the library if need be, then takes pHeader into use: its contents become unreachable,
// sequence numbers restart at 1 and the threshold in use is carried over. Null stops recording;
// TraceInternalBuffer() goes back to the process's own buffer. The caller keeps the buffer's
// memory.
void TraceSetBuffer(TraceBufHeaderT* pHeader);
TraceBufHeaderT* TraceGetBuffer();

// The previous threshold; 0 without a buffer.
TraceLevelE TraceSetLevel(TraceLevelE eNewLevel);

inline BooleanT TraceWouldTrace(TraceLevelE eLevel) {
    const TraceBufHeaderT* ptHeader = gptTraceState->ptBufHeader;
    return BooleanFrom(ptHeader != nullptr && eLevel <= ptHeader->eTraceLevel &&
                       gptTraceState->bDisabled == FALSE);
}

// Closes the trace file, then installs the sink (null for none).
void TraceSetCallback(TraceCallbackFnT pfnCallback);

// TRUE when any sink is installed.
BooleanT TraceTracingToFile();

// Sinks that write the record's text line; pDummy is not looked at.
BooleanT TraceToStdOut(const char* pBuffer, int32 lSize, void* pDummy);
BooleanT TraceToStdErr(const char* pBuffer, int32 lSize, void* pDummy);

// The position of the newest record. FALSE for a null argument or without a valid buffer.
BooleanT TraceGetPosition(TracePositionT* ptReturnValue);

// The newest record, owned by the buffer; null when the buffer is not valid.
TraceMessageHeaderT* TraceCurrentMessage(TraceBufHeaderT* ptHeader);

// -1, and a cry on standard error, when the buffer is not valid.
int32 TraceCurrentSequenceNumber(TraceBufHeaderT* ptHeader);

// Offset of the oldest record still intact.
int32 TraceOldestMessage(TraceBufHeaderT* pSourceBuffer);

// Calls pfnCallback for every intact record, newest first, until it returns FALSE (then FALSE).
// FALSE when the buffer is not valid.
BooleanT TraceWalkBuffer(TraceBufHeaderT* pSourceBuffer, TraceCallbackFnT pfnCallback,
                         void* pArgument);

// --- trace files (docs/tracing.md) ---

// "Trace To File" of "Trace" in "configure.cfg".
BooleanT TraceEnabled();

// Writes every recorded message as a line to a file of that name in the trace directory, beginning
// with what a shared buffer holds already. With "Lines per File" set there are numbered files, each
// begun by a block of lines about the machine; a file that is full is closed and packed in the
// background by the archive tool of the home directory; a file of the same name is opened when the
// tool has ended. An empty name or null ends the file and the sink. TRUE when a file was opened. A
// name with "%" in it is refused, with nothing changed.
BooleanT TraceToFileNoConfig(const char* pstrFile);
BooleanT TraceToFile(const char* pstrFile);  // TRUE, with nothing done, unless TraceEnabled

// "Trace" of "Directories" in "configure.cfg", else "trace" in the home directory; the caller's.
BooleanT TraceGetHomeDir(char** ppstrTraceDirectory);

// From now on lines reach the device before a message returns, until the file is closed. FALSE when
// no file is open.
BooleanT TraceSynchronous();

// --- dumps: the records of a buffer as they lie there, newest first, behind four lines of text ---

// Dumps the buffer in use from the record at pStart (null: the oldest) to the newest. Without a
// path the file gets the next free name in the home directory's "dump". Returns the path, the
// caller's, also when the file could not be written; null for a buffer that is not valid or not
// pStart's.
char* TraceDump(const TracePositionT* pStart, const char* pOutputPath, const char* pFirstLine);
// The same with the whole of any buffer, such as that of another process.
char* TraceDumpBuffer(const TraceBufHeaderT* pHeader, const char* pstrOutputPath,
                      const char* pstrFirstLine, ProcIdT tOwner);

// A new string object, the caller's, with a header line and one line per record, oldest first.
// FALSE, without an object, when there is none to write.
BooleanT TraceDumpToString(ObjStringO* poString, const TracePositionT* ptStart);

// --- shared by the sources of the trace ---

BooleanT TraceCurrentValid(const TraceBufHeaderT* ptHeader);
void TraceSetBufferInternal(TraceBufHeaderT* pHeader);

// Offset of the oldest intact record, or of the one numbered lSequence if that is met first.
int32 TraceFindSequence(TraceBufHeaderT* pSourceBuffer, int32 lSequence);
BooleanT TraceWalkSection(TraceBufHeaderT* pSourceBuffer, int32 lOldestMessage,
                          int32 lNewestMessage, TraceCallbackFnT pfnCallback, void* pArgument);

// The UTC time of day as the decimal number HHMMSS.
int32 TraceTime(int32 lTime);

// Write a record's text line with one write (repeated when interrupted) or one fwrite; TRUE when
// all of it went out.
BooleanT TraceToFD(const char* pBuffer, int32 lSize, int iFD);
BooleanT TraceToFP(const char* pBuffer, int32 lSize, FILE* ptFILE);

constexpr int32 TraceSequenceAfter(int32 lSequence) {
    return static_cast<uint32>(lSequence) >= TraceSequenceMax ? 0 : lSequence + 1;
}

void TraceCloseFile();    // closes the trace file, if one is open, and has it packed
void TraceFileRelease();  // the same at the end of the process

// Record nothing while it lives.
class TraceDisabler {
 public:
    TraceDisabler() : m_bPrevious(gptTraceState->bDisabled) { gptTraceState->bDisabled = TRUE; }
    ~TraceDisabler() { gptTraceState->bDisabled = m_bPrevious; }
    TraceDisabler(const TraceDisabler&) = delete;
    TraceDisabler& operator=(const TraceDisabler&) = delete;

 private:
    BooleanT m_bPrevious;
};

// --- the entry of each source unit ---

// Defines the unit's module name and its own TraceMessageInline.
#define TRACE_MODULE(name)                                                                    \
    namespace {                                                                               \
    const char pstrModuleId[] = name "        ";                                              \
    [[maybe_unused]] __attribute__((format(printf, 4, 5))) TracePositionT TraceMessageUnit(   \
        int32 lTraceId, int32 lStatusCode, TraceLevelE eLevel, const char* pstrFormat, ...) { \
        std::va_list tArgs;                                                                   \
        va_start(tArgs, pstrFormat);                                                          \
        const TracePositionT tPosition =                                                      \
            TraceMessageVa(pstrModuleId, lTraceId, lStatusCode, eLevel, pstrFormat, tArgs);   \
        va_end(tArgs);                                                                        \
        return tPosition;                                                                     \
    }                                                                                         \
    }

// Levels are given as numbers (-1 to 4), as the messages are listed.
#define TraceMessageInline(lTraceId, lStatusCode, iLevel, ...)                                    \
    (TraceWouldTrace(static_cast<TraceLevelE>(iLevel)) == TRUE                                    \
         ? TraceMessageUnit(lTraceId, lStatusCode, static_cast<TraceLevelE>(iLevel), __VA_ARGS__) \
         : TraceNoPosition)
