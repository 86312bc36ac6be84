// Dumps of a trace buffer into a file or a string. The buffer may be another process's in shared
// memory and change while it is walked, so the records are copied first: each copy is whole, and
// each is the predecessor of the one before it.
#include <algorithm>
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

// Copies so far, and what the next older record must be numbered.
struct TraceCopiesT {
    std::vector<std::string> atRecords;
    int32 lSuccessor = -1;
};

BooleanT TraceCopyRecord(const char* pBuffer, int32 lSize, void* pvCopies) {
    auto* ptCopies = static_cast<TraceCopiesT*>(pvCopies);
    TraceMessageHeaderT tHead;
    std::memcpy(&tHead, pBuffer, sizeof(tHead));
    const bool bFollows = ptCopies->atRecords.empty() ||
                          TraceSequenceAfter(tHead.lSequenceNumber) == ptCopies->lSuccessor;
    if (tHead.lSize < TraceHeaderSize || tHead.lSize != lSize || !bFollows) return FALSE;
    std::string tCopy(pBuffer, static_cast<std::size_t>(lSize));
    // A head that is still the same says that the text behind it is that record's, too.
    if (std::memcmp(pBuffer, tCopy.data(), sizeof(tHead)) != 0) return FALSE;
    ptCopies->atRecords.push_back(std::move(tCopy));
    ptCopies->lSuccessor = tHead.lSequenceNumber;
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

char* TraceDumpRange(TraceBufHeaderT* pBuffer, const TracePositionT* ptStart,
                     const char* pstrOutputPath, const char* pstrFirstLine, ProcIdT tOwner) {
    // Opening the file may trace: the range ends with what was there before.
    const int32 lNewest = pBuffer->currentBufPosition;
    PoolPtr<char> pstrPath(pstrOutputPath == nullptr ? TraceDumpPath(tOwner)
                                                     : StrDuplicate(pstrOutputPath));
    FILE*& pfileOutput = gtTlContext.sTrace.pfileOutput;
    if (FileSysFOpen(&pfileOutput, pstrPath.Get(), FileModeWriteBinary) == TRUE) {
        std::fprintf(pfileOutput, "-*- Tessel Trace Dump -*-\nTitle: %s\n",
                     TraceText(pstrFirstLine));
        std::fprintf(pfileOutput, "Using buffer at 0x%" PRIxPTR "\n",
                     reinterpret_cast<std::uintptr_t>(pBuffer));
        std::fprintf(pfileOutput, "(size %d, position %d)\n", pBuffer->bufferSize, lNewest);
        for (const std::string& tRecord : TraceCopyRecords(pBuffer, ptStart, lNewest))
            std::fwrite(tRecord.data(), 1, tRecord.size(), pfileOutput);
        FileSysFClose(&pfileOutput);
    }
    return pstrPath.Take();
}

// The buffer in use, when it is valid and the one that ptStart (which may be null) lies in.
TraceBufHeaderT* TraceBufferOf(const TracePositionT* ptStart) {
    TraceBufHeaderT* ptHeader = gtTlContext.sTrace.ptBufHeader;
    if (TraceCurrentValid(ptHeader) != TRUE) return nullptr;
    return ptStart == nullptr || ptStart->pTraceBuffer == ptHeader ? ptHeader : nullptr;
}

}  // namespace

std::vector<std::string> TraceCopyRecords(TraceBufHeaderT* ptHeader, const TracePositionT* ptStart,
                                          int32 lNewest) {
    TraceCopiesT tCopies;
    const int32 lOldest = ptStart == nullptr
                              ? TraceOldestMessage(ptHeader)
                              : TraceFindSequence(ptHeader, ptStart->lSequenceNumber);
    TraceWalkSection(ptHeader, lOldest, lNewest, TraceCopyRecord, &tCopies);
    return std::move(tCopies.atRecords);
}

char* TraceDump(const TracePositionT* pStart, const char* pOutputPath, const char* pFirstLine) {
    TraceBufHeaderT* ptHeader = TraceBufferOf(pStart);
    if (ptHeader == nullptr) return nullptr;
    return TraceDumpRange(ptHeader, pStart, pOutputPath, pFirstLine, ProcGetId());
}

char* TraceDumpBuffer(TraceBufHeaderT* pHeader, const char* pstrOutputPath,
                      const char* pstrFirstLine, ProcIdT tOwner) {
    if (TraceCurrentValid(pHeader) != TRUE) return nullptr;
    return TraceDumpRange(pHeader, nullptr, pstrOutputPath, pstrFirstLine, tOwner);
}

BooleanT TraceDumpToString(ObjStringO* poString, const TracePositionT* ptStart) {
    if (poString == nullptr) return FALSE;
    gtTlContext.sTrace.bDisabled = TRUE;
    TraceBufHeaderT* ptHeader = TraceBufferOf(ptStart);
    std::vector<std::string> atRecords;  // newest first
    if (ptHeader != nullptr)
        atRecords = TraceCopyRecords(ptHeader, ptStart, ptHeader->currentBufPosition);
    BooleanT bResult = FALSE;
    if (!atRecords.empty()) {
        std::string tDump("Module     Id    Code Time Message\n");
        for (auto tRecord = atRecords.rbegin(); tRecord != atRecords.rend(); ++tRecord)
            tDump += TraceDumpLine(*tRecord);
        bResult = ObjStringCreate(poString, tDump.c_str());
    }
    gtTlContext.sTrace.bDisabled = FALSE;
    return bResult;
}
