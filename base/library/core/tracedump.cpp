// Dumps of a trace buffer into a file or a string. The buffer may be another process's in shared
// memory and be written meanwhile, so the walk goes over a snapshot: its newest part may be torn
// where the writer was at work, which shows in the heads that have changed since.
#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "core/context.h"
#include "core/filebase.h"
#include "core/filesys.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "tracerecords.h"
#include "tracetext.h"

MEM_DEFAULT_POOL_CACHE

namespace {

constexpr int32 TraceHeaderSize = sizeof(TraceMessageHeaderT);
constexpr int32 TraceDumpText = 400;  // characters of a record's text in a string dump

uint32 gulDumpInstance = 0;  // of the dump file named last

// What a walk over a snapshot has found, and the buffer that the snapshot is of.
struct TraceWalkT {
    const TraceBufHeaderT* ptSnapshot;
    const TraceBufHeaderT* ptHeader;
    std::vector<std::string> atRecords;
};

BooleanT TraceCopyRecord(const char* pBuffer, int32 lSize, void* pvWalk) {
    auto* ptWalk = static_cast<TraceWalkT*>(pvWalk);
    // A head that still lies in the buffer says that the text behind it is that record's, too.
    const std::ptrdiff_t iOffset = pBuffer - reinterpret_cast<const char*>(ptWalk->ptSnapshot);
    const char* pOriginal = reinterpret_cast<const char*>(ptWalk->ptHeader) + iOffset;
    if (std::memcmp(pOriginal, pBuffer, TraceHeaderSize) != 0) return FALSE;
    ptWalk->atRecords.emplace_back(pBuffer, static_cast<std::size_t>(lSize));
    return TRUE;
}

std::string TraceDumpLine(const std::string& tRecord) {
    TraceMessageHeaderT tHead;
    std::memcpy(&tHead, tRecord.data(), sizeof(tHead));
    char acLine[TraceDumpText + 64];
    std::snprintf(acLine, sizeof(acLine), "%-8.8s %4d %7d %6d %.*s\n", tHead.strModuleId,
                  tHead.lTraceId, tHead.lStatusCode, TraceTime(tHead.lTime),
                  std::min(tHead.lSize - TraceHeaderSize, TraceDumpText),
                  tRecord.data() + TraceHeaderSize);
    return acLine;
}

// The path of the next free name in the dump directory; null without a home directory.
char* TraceDumpPath(ProcIdT tOwner) {
    const PoolPtr<char> pstrDirectory(PathHomeBuild("dump", nullptr));
    if (pstrDirectory.Get() == nullptr) return nullptr;
    if (PathIsADirectory(pstrDirectory.Get()) != TRUE) PathCreateDirectory(pstrDirectory.Get());
    while (true) {
        char acName[40];
        std::snprintf(acName, sizeof(acName), "%05d%010u.dmp", tOwner, ++gulDumpInstance);
        PoolPtr<char> pstrPath(PathBuild(pstrDirectory.Get(), acName, nullptr));
        if (FileStat(nullptr, pstrPath.Get(), FALSE) != TRUE) return pstrPath.Take();
    }
}

char* TraceDumpRecords(const TraceRecordsT& tRecords, const TraceBufHeaderT* pBuffer,
                       const char* pstrOutputPath, const char* pstrFirstLine, ProcIdT tOwner) {
    PoolPtr<char> pstrPath(pstrOutputPath == nullptr ? TraceDumpPath(tOwner)
                                                     : StrDuplicate(pstrOutputPath));
    FILE*& pfileOutput = gtTlContext.sTrace.pfileOutput;
    if (FileSysFOpen(&pfileOutput, pstrPath.Get(), FileModeWriteBinary) == TRUE) {
        std::fprintf(pfileOutput, "-*- Tessel Trace Dump -*-\nTitle: %s\n",
                     TraceText(pstrFirstLine));
        std::fprintf(pfileOutput, "Using buffer at 0x%" PRIxPTR "\n",
                     reinterpret_cast<std::uintptr_t>(pBuffer));
        std::fprintf(pfileOutput, "(size %d, position %d)\n", pBuffer->bufferSize,
                     tRecords.lPosition);
        for (const std::string& tRecord : tRecords.atRecords)
            std::fwrite(tRecord.data(), 1, tRecord.size(), pfileOutput);
        FileSysFClose(&pfileOutput);
    }
    return pstrPath.Take();
}

// Offset and number of the newest record. It is complete: it was the newest after its number had
// been read.
bool TraceFindNewest(const TraceBufHeaderT* ptHeader, int32* plPosition, int32* plSequence) {
    if (TraceCurrentValid(ptHeader) != TRUE) return false;
    *plPosition = ptHeader->currentBufPosition;
    std::atomic_thread_fence(std::memory_order_acquire);
    TraceMessageHeaderT tHead;
    std::memcpy(&tHead, reinterpret_cast<const ByteT*>(ptHeader + 1) + *plPosition, sizeof(tHead));
    std::atomic_thread_fence(std::memory_order_acquire);
    *plSequence = tHead.lSequenceNumber;
    return ptHeader->currentBufPosition == *plPosition;
}

// The records of the buffer in use, when that is the one that ptStart (which may be null) lies in.
TraceRecordsT TraceOwnRecords(const TracePositionT* ptStart) {
    const TraceBufHeaderT* ptHeader = gtTlContext.sTrace.ptBufHeader;
    if (ptStart != nullptr && ptStart->pTraceBuffer != ptHeader) return {};
    return TraceCopyRecords(ptHeader, ptStart);
}

}  // namespace

TraceRecordsT TraceCopyRecords(const TraceBufHeaderT* ptHeader, const TracePositionT* ptStart) {
    // A writer that is quick may get once around the buffer during a copy.
    constexpr int32 lMostAttempts = 10;
    TraceRecordsT tRecords;
    for (int32 lAttempt = 0; lAttempt < lMostAttempts && tRecords.atRecords.empty(); lAttempt++) {
        int32 lPosition = -1;
        int32 lSequence = -1;
        if (!TraceFindNewest(ptHeader, &lPosition, &lSequence)) continue;
        const std::size_t iSize =
            sizeof(TraceBufHeaderT) + static_cast<std::size_t>(ptHeader->bufferSize);
        std::vector<uint64> aSnapshot((iSize + sizeof(uint64) - 1) / sizeof(uint64));
        auto* ptSnapshot = reinterpret_cast<TraceBufHeaderT*>(aSnapshot.data());
        std::memcpy(aSnapshot.data(), ptHeader, iSize);
        std::atomic_thread_fence(std::memory_order_acquire);
        ptSnapshot->currentBufPosition = lPosition;
        if (TraceCurrentValid(ptSnapshot) != TRUE ||
            TraceCurrentMessage(ptSnapshot)->lSequenceNumber != lSequence) {
            continue;
        }
        TraceWalkT tWalk = {ptSnapshot, ptHeader, {}};
        const int32 lOldest =
            TraceFindSequence(ptSnapshot, ptStart == nullptr ? -1 : ptStart->lSequenceNumber);
        TraceWalkSection(ptSnapshot, lOldest, lPosition, TraceCopyRecord, &tWalk);
        tRecords = {lPosition, std::move(tWalk.atRecords)};
    }
    return tRecords;
}

char* TraceDump(const TracePositionT* pStart, const char* pOutputPath, const char* pFirstLine) {
    const TraceRecordsT tRecords = TraceOwnRecords(pStart);
    if (tRecords.atRecords.empty()) return nullptr;
    return TraceDumpRecords(tRecords, TraceGetBuffer(), pOutputPath, pFirstLine, ProcGetId());
}

char* TraceDumpBuffer(const TraceBufHeaderT* pHeader, const char* pstrOutputPath,
                      const char* pstrFirstLine, ProcIdT tOwner) {
    const TraceRecordsT tRecords = TraceCopyRecords(pHeader, nullptr);
    if (tRecords.atRecords.empty()) return nullptr;
    return TraceDumpRecords(tRecords, pHeader, pstrOutputPath, pstrFirstLine, tOwner);
}

BooleanT TraceDumpToString(ObjStringO* poString, const TracePositionT* ptStart) {
    if (poString == nullptr) return FALSE;
    gtTlContext.sTrace.bDisabled = TRUE;
    const TraceRecordsT tRecords = TraceOwnRecords(ptStart);
    BooleanT bResult = FALSE;
    if (!tRecords.atRecords.empty()) {
        std::string tDump("Module     Id    Code Time Message\n");
        for (auto tRecord = tRecords.atRecords.rbegin(); tRecord != tRecords.atRecords.rend();
             ++tRecord) {
            tDump += TraceDumpLine(*tRecord);
        }
        bResult = ObjStringCreate(poString, tDump.c_str());
    }
    gtTlContext.sTrace.bDisabled = FALSE;
    return bResult;
}
