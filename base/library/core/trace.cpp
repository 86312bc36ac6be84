// The trace ring: records of varying size laid one behind the other in a fixed area, each naming
// the one written before it. A record never wraps around the end: one that does not fit behind the
// newest goes to offset 0, over the oldest. Nothing marks what was overwritten. Whoever walks the
// history goes back from the newest record and stops at the first whose place, size or sequence
// number does not follow from its successor; so the walk is safe also while another process writes
// the buffer.
#include "core/trace.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/context.h"
#include "core/kilntime.h"

TesselContextTraceS* const gptTraceState = &gtTlContext.sTrace;

const char* const gapstrSubSystems[10] = {
    "        ",
    "INODE        ",
    "CHANGLOG        ",
    "APPFRM        ",
    "VMPLGIN        ",
    "KROPTIONS        ",
    "MULTIFOLDER        ",
    "SQLPLGIN        ",
    "SQLPLGIN        ",
    nullptr,
};

namespace {

constexpr int32 TraceInternalBufferSize = 32768;
constexpr int32 TraceScratchSize = 8192;
constexpr int32 TraceHeaderSize = sizeof(TraceMessageHeaderT);
constexpr int32 TraceLineText = 400;  // characters of text in a sink's line

TraceMessageHeaderT* TraceRecordAt(TraceBufHeaderT* ptHeader, int32 lOffset) {
    return reinterpret_cast<TraceMessageHeaderT*>(reinterpret_cast<ByteT*>(ptHeader + 1) + lOffset);
}

const TraceMessageHeaderT* TraceRecordAt(const TraceBufHeaderT* ptHeader, int32 lOffset) {
    return reinterpret_cast<const TraceMessageHeaderT*>(
        reinterpret_cast<const ByteT*>(ptHeader + 1) + lOffset);
}

// A record head may stand at llOffset: aligned and wholly inside the area.
bool TraceOffsetValid(const TraceBufHeaderT* ptHeader, int64 llOffset) {
    return llOffset >= 0 && llOffset % static_cast<int64>(alignof(TraceMessageHeaderT)) == 0 &&
           llOffset + TraceHeaderSize <= ptHeader->bufferSize;
}

// A history of well-formed records is no longer than this. In a buffer that is damaged, or changes
// under the walk, predecessors may lead round in a circle.
int32 TraceRecordLimit(const TraceBufHeaderT* ptHeader) {
    return ptHeader->bufferSize / TraceHeaderSize + 1;
}

bool TraceSequenceValid(int32 lSequence) {
    return static_cast<uint32>(lSequence) <= TraceSequenceMax;
}

// End of the record at lOffset, in 64 bits: its size may be anything in a damaged buffer.
int64 TraceRecordEnd(const TraceBufHeaderT* ptHeader, int32 lOffset) {
    return static_cast<int64>(lOffset) + TraceRecordAt(ptHeader, lOffset)->lSize;
}

// Most bytes of text with terminator that a record of this buffer takes.
int32 TraceTextCapacity(int32 lBufferSize) {
    constexpr int32 lStandard = TraceScratchSize - TraceHeaderSize - 1;
    if (lBufferSize > TraceScratchSize) return lStandard;
    // The record with its filler must lie inside the area also when that is no multiple of 8.
    return std::min(lBufferSize - TraceHeaderSize - 1, (lBufferSize & ~7) - TraceHeaderSize);
}

// Seconds for a record's stamp: the reference time where that is asked for and known.
int32 TraceClock() {
    TimeT tReference = 0;
    if (gtTlContext.sTrace.bUseKilnTime == TRUE && KilnTime(&tReference) == TRUE) return tReference;
    return static_cast<int32>(std::time(nullptr));
}

// Records and their texts begin at multiples of a word and fill whole words, in a damaged buffer
// too.
using TraceWordT = uint32;
constexpr int32 TraceRecordUnit = 8;  // records fill multiples of it

// Copies a text word by word from its beginning. So the head of an older record that lies below
// goes before the text behind it does, and whoever reads the buffer from another process can tell
// from a head that is still there that its text is, too.
void TraceCopyText(char* pstrTarget, const char* pstrSource, int32 lSize) {
    volatile auto* ptTarget = reinterpret_cast<volatile TraceWordT*>(pstrTarget);
    const auto* ptSource = reinterpret_cast<const TraceWordT*>(pstrSource);
    const int32 lWords = lSize / static_cast<int32>(sizeof(TraceWordT));
    for (int32 lWord = 0; lWord < lWords; lWord++) ptTarget[lWord] = ptSource[lWord];
}

// Builds a record's line in pBuffer; the result is its length, cut to what the buffer takes.
int32 TraceLine(char* pBuffer, std::size_t iSize, const char* pRecord, int32 lSize) {
    TraceMessageHeaderT tHead;
    std::memcpy(&tHead, pRecord, sizeof(tHead));
    pBuffer[0] = static_cast<char>('1' + tHead.lLevel);
    pBuffer[1] = ' ';
    const int iWritten = std::snprintf(
        pBuffer + 2, iSize - 2, "%-8.8s:%04d %4d %3d %06d %.*s\n", tHead.strModuleId,
        static_cast<int>(getpid()), tHead.lTraceId, tHead.lStatusCode, TraceTime(tHead.lTime),
        std::clamp(lSize - TraceHeaderSize, 0, TraceLineText), pRecord + TraceHeaderSize);
    if (iWritten < 0) return 0;
    return static_cast<int32>(std::min(static_cast<std::size_t>(iWritten) + 2, iSize - 1));
}

}  // namespace

BooleanT TraceInitialize() {
    gtTlContext.sTrace.tFd = -1;
    return TRUE;
}

BooleanT TraceInitializeThread(TesselContextT* ptTlContext) {
    // From the system allocator: the pools trace through this buffer.
    auto* ptBuffer = static_cast<TraceBufHeaderT*>(std::calloc(1, TraceInternalBufferSize));
    if (ptBuffer == nullptr) return FALSE;
    ptBuffer->bufferSize = TraceInternalBufferSize - static_cast<int32>(sizeof(TraceBufHeaderT));
    TraceSetBufferInternal(ptBuffer);
    ptTlContext->sTrace.ptInternalTraceBuffer = ptBuffer;
    ptTlContext->sTrace.tFd = -1;
    return TRUE;
}

void TraceReleaseThread(TesselContextT* ptTlContext) {
    TesselContextTraceS& tTrace = ptTlContext->sTrace;
    // A record that was never filled has descriptor 0, which is not the trace's to close.
    if (tTrace.ptInternalTraceBuffer != nullptr) TraceFileRelease();
    tTrace.ptBufHeader = nullptr;
    tTrace.ptBuffer = nullptr;
    tTrace.pfnTraceCallback = nullptr;
    std::free(tTrace.ptInternalTraceBuffer);
    tTrace.ptInternalTraceBuffer = nullptr;
}

TracePositionT TraceMessageVa(const char* pstrModuleId, int32 lId, int32 lStatusCode,
                              TraceLevelE eLevel, const char* pstrFormat, std::va_list tArgs) {
    TesselContextTraceS& tTrace = gtTlContext.sTrace;
    if (ContextValid() != TRUE || pstrFormat == nullptr || TraceWouldTrace(eLevel) != TRUE) {
        return TraceNoPosition;
    }
    TraceBufHeaderT* ptHeader = tTrace.ptBufHeader;
    const int32 lBufferSize = ptHeader->bufferSize;
    const int32 lCapacity = TraceTextCapacity(lBufferSize);
    if (lCapacity < 1) return TraceNoPosition;

    // The call must not disturb the error number that its caller is about to look at.
    const int iError = errno;
    alignas(TraceWordT) char acText[TraceScratchSize];
    const int iFormatted =
        std::vsnprintf(acText, static_cast<std::size_t>(lCapacity), pstrFormat, tArgs);
    if (iFormatted < 0) acText[0] = '\0';
    const int32 lLength = std::clamp(static_cast<int32>(iFormatted), 0, lCapacity - 1);
    const int32 lSize = (TraceHeaderSize + lLength + 1 + 7) & ~7;

    const int32 lPrevious = ptHeader->currentBufPosition;
    int32 lOffset = 0;
    if (TraceOffsetValid(ptHeader, lPrevious)) {
        const int64 llBehind = TraceRecordEnd(ptHeader, lPrevious);
        if (TraceOffsetValid(ptHeader, llBehind) && llBehind + lSize <= lBufferSize)
            lOffset = static_cast<int32>(llBehind);
    }

    // The sub-system is the identifier's high half, read as a signed number.
    const int32 lSubSystem = lId >> 16;
    const char* pstrModule =
        lSubSystem >= 1 && lSubSystem <= 8 ? gapstrSubSystems[lSubSystem] : pstrModuleId;
    TraceMessageHeaderT tHead;
    tHead.lSequenceNumber = tTrace.lSequenceNumber;
    tHead.lOffsetPrevious = lPrevious;
    tHead.lSize = lSize;
    std::memcpy(tHead.strModuleId, pstrModule, sizeof(tHead.strModuleId));
    tHead.lTraceId = lId & 0xFFFF;
    tHead.lStatusCode = lStatusCode;
    tHead.lTime = TraceClock();
    tHead.lLevel = eLevel;
    tHead.lUnused = 0;
    char* pRecord = reinterpret_cast<char*>(TraceRecordAt(ptHeader, lOffset));
    std::memcpy(pRecord, &tHead, offsetof(TraceMessageHeaderT, lUnused));
    std::memset(acText + lLength + 1, 0, TraceRecordUnit);
    TraceCopyText(pRecord + TraceHeaderSize, acText, lSize - TraceHeaderSize);
    // Who reads the buffer from another process finds a whole record at the position.
    std::atomic_thread_fence(std::memory_order_release);
    ptHeader->currentBufPosition = lOffset;
    tTrace.lSequenceNumber = TraceSequenceAfter(tTrace.lSequenceNumber);

    if (tTrace.pfnTraceCallback != nullptr) tTrace.pfnTraceCallback(pRecord, lSize, nullptr);
    errno = iError;
    return {lOffset, tHead.lSequenceNumber, ptHeader};
}

void TraceSetBufferInternal(TraceBufHeaderT* pHeader) {
    TesselContextTraceS& tTrace = gtTlContext.sTrace;
    if (pHeader == TraceInternalBuffer()) pHeader = tTrace.ptInternalTraceBuffer;
    if (pHeader == nullptr) {
        tTrace.ptBufHeader = nullptr;
        tTrace.ptBuffer = nullptr;
        tTrace.lSequenceNumber = -1;
        return;
    }
    if (tTrace.ptBufHeader != nullptr) pHeader->eTraceLevel = tTrace.ptBufHeader->eTraceLevel;
    pHeader->currentBufPosition = -1;
    tTrace.ptBufHeader = pHeader;
    tTrace.ptBuffer = reinterpret_cast<ByteT*>(pHeader + 1);
    tTrace.lSequenceNumber = 1;
}

void TraceSetBuffer(TraceBufHeaderT* pHeader) {
    ContextInitialize();
    TraceSetBufferInternal(pHeader);
}

TraceBufHeaderT* TraceGetBuffer() { return gtTlContext.sTrace.ptBufHeader; }

TraceLevelE TraceSetLevel(TraceLevelE eNewLevel) {
    TraceBufHeaderT* ptHeader = gtTlContext.sTrace.ptBufHeader;
    if (ptHeader == nullptr) return eTraceLevelNormal;
    const auto ePrevious = static_cast<TraceLevelE>(ptHeader->eTraceLevel);
    if (eNewLevel != eTraceLevelUnchanged) ptHeader->eTraceLevel = eNewLevel;
    return ePrevious;
}

void TraceSetCallback(TraceCallbackFnT pfnCallback) {
    TraceCloseFile();
    gtTlContext.sTrace.pfnTraceCallback = pfnCallback;
}

BooleanT TraceTracingToFile() {
    return BooleanFrom(gtTlContext.sTrace.pfnTraceCallback != nullptr);
}

int32 TraceTime(int32 lTime) {
    return lTime % 60 + lTime / 60 % 60 * 100 + lTime / 3600 % 24 * 10000;
}

BooleanT TraceToFD(const char* pBuffer, int32 lSize, int iFD) {
    char acLine[514];
    const int32 lLength = TraceLine(acLine, sizeof(acLine), pBuffer, lSize);
    ssize_t iWritten = 0;
    do {
        iWritten = write(iFD, acLine, static_cast<std::size_t>(lLength));
    } while (iWritten < 0 && errno == EINTR);
    return BooleanFrom(iWritten == lLength);
}

BooleanT TraceToFP(const char* pBuffer, int32 lSize, FILE* ptFILE) {
    char acLine[512];
    const auto iLength =
        static_cast<std::size_t>(TraceLine(acLine, sizeof(acLine), pBuffer, lSize));
    return BooleanFrom(std::fwrite(acLine, 1, iLength, ptFILE) == iLength);
}

BooleanT TraceToStdOut(const char* pBuffer, int32 lSize, void* /*pDummy*/) {
    return TraceToFP(pBuffer, lSize, stdout);
}

BooleanT TraceToStdErr(const char* pBuffer, int32 lSize, void* /*pDummy*/) {
    return TraceToFP(pBuffer, lSize, stderr);
}

BooleanT TraceCurrentValid(const TraceBufHeaderT* ptHeader) {
    if (ptHeader == nullptr) return FALSE;
    const int32 lCurrent = ptHeader->currentBufPosition;
    return BooleanFrom(TraceOffsetValid(ptHeader, lCurrent) &&
                       TraceSequenceValid(TraceRecordAt(ptHeader, lCurrent)->lSequenceNumber) &&
                       TraceRecordEnd(ptHeader, lCurrent) <= ptHeader->bufferSize);
}

BooleanT TraceGetPosition(TracePositionT* ptReturnValue) {
    const TesselContextTraceS& tTrace = gtTlContext.sTrace;
    if (ptReturnValue == nullptr || TraceCurrentValid(tTrace.ptBufHeader) != TRUE) return FALSE;
    ptReturnValue->lPosition = tTrace.ptBufHeader->currentBufPosition;
    ptReturnValue->lSequenceNumber = tTrace.lSequenceNumber > 0
                                         ? tTrace.lSequenceNumber - 1
                                         : static_cast<int32>(TraceSequenceMax);
    ptReturnValue->pTraceBuffer = tTrace.ptBufHeader;
    return TRUE;
}

TraceMessageHeaderT* TraceCurrentMessage(TraceBufHeaderT* ptHeader) {
    if (TraceCurrentValid(ptHeader) != TRUE) return nullptr;
    return TraceRecordAt(ptHeader, ptHeader->currentBufPosition);
}

int32 TraceCurrentSequenceNumber(TraceBufHeaderT* ptHeader) {
    const TraceMessageHeaderT* ptMessage = TraceCurrentMessage(ptHeader);
    if (ptMessage != nullptr) return ptMessage->lSequenceNumber;
    constexpr char acCry[] = "Arrrggh!\n";
    if (write(STDERR_FILENO, acCry, sizeof(acCry) - 1) < 0) return -1;
    return -1;
}

int32 TraceFindSequence(TraceBufHeaderT* pSourceBuffer, int32 lSequence) {
    int32 lLast = pSourceBuffer->currentBufPosition;
    if (!TraceOffsetValid(pSourceBuffer, lLast)) return lLast;
    for (int32 lLeft = TraceRecordLimit(pSourceBuffer); lLeft > 0; lLeft--) {
        const TraceMessageHeaderT* ptLast = TraceRecordAt(pSourceBuffer, lLast);
        const int32 lNext = ptLast->lOffsetPrevious;
        if (!TraceOffsetValid(pSourceBuffer, lNext) || lNext == lLast) break;
        const TraceMessageHeaderT* ptNext = TraceRecordAt(pSourceBuffer, lNext);
        if (!TraceSequenceValid(ptNext->lSequenceNumber)) break;
        const int64 llNextEnd = TraceRecordEnd(pSourceBuffer, lNext);
        if (lNext < lLast ? llNextEnd != lLast : llNextEnd > pSourceBuffer->bufferSize) break;
        if (TraceSequenceAfter(ptNext->lSequenceNumber) != ptLast->lSequenceNumber) break;
        lLast = lNext;
        if (ptNext->lSequenceNumber == lSequence) break;
    }
    return lLast;
}

int32 TraceOldestMessage(TraceBufHeaderT* pSourceBuffer) {
    return TraceFindSequence(pSourceBuffer, -1);
}

BooleanT TraceWalkSection(TraceBufHeaderT* pSourceBuffer, int32 lOldestMessage,
                          int32 lNewestMessage, TraceCallbackFnT pfnCallback, void* pArgument) {
    int32 lCurrent = lNewestMessage;
    for (int32 lLeft = TraceRecordLimit(pSourceBuffer);
         lLeft > 0 && TraceOffsetValid(pSourceBuffer, lCurrent); lLeft--) {
        // What follows is read before the callback runs: the callback may trace.
        const TraceMessageHeaderT* ptRecord = TraceRecordAt(pSourceBuffer, lCurrent);
        const int32 lSize = ptRecord->lSize;
        const int32 lPrevious = ptRecord->lOffsetPrevious;
        if (lSize < TraceHeaderSize ||
            static_cast<int64>(lCurrent) + lSize > pSourceBuffer->bufferSize) {
            return FALSE;
        }
        if (pfnCallback(reinterpret_cast<const char*>(ptRecord), lSize, pArgument) != TRUE) {
            return FALSE;
        }
        if (lCurrent == lOldestMessage) return TRUE;
        lCurrent = lPrevious;
    }
    return FALSE;
}

BooleanT TraceWalkBuffer(TraceBufHeaderT* pSourceBuffer, TraceCallbackFnT pfnCallback,
                         void* pArgument) {
    if (TraceCurrentValid(pSourceBuffer) != TRUE || pfnCallback == nullptr) return FALSE;
    return TraceWalkSection(pSourceBuffer, TraceFindSequence(pSourceBuffer, -1),
                            pSourceBuffer->currentBufPosition, pfnCallback, pArgument);
}
