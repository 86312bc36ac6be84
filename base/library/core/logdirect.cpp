// The direct-log file: a header that says where the last record ends, and the records. A record is
// written first and the header after it, so that whoever reads up to the header's end finds whole
// records only, whenever a writer was killed.
//
// The next writer mends what a killed one left: it goes on from the header's end over the whole
// records behind it (of a writer that came no further, or is just about to write the header) and
// cuts off what is no whole record. Where the header itself is not to be believed it goes over all
// records. There is no lock: of two processes that write at the same moment one may lose a record.
#include <cstring>
#include <limits>

#include "core/filebase.h"
#include "core/filesys.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/trace.h"
#include "loginternal.h"

TRACE_MODULE("LOGGING")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr char LogHeaderMark[] = {'R', '5', 'G', 'T'};
constexpr int32 LogHeaderSize = 20;
constexpr int32 LogEndOffset = 4;
constexpr int32 LogFirstOffset = 8;
constexpr int64 LogFileMaximum = std::numeric_limits<int32>::max();

BooleanT LogReadAt(FileHandleT tFile, int64 llOffset, void* pBuffer, int32 lSize) {
    if (FileSysSeek(tFile, llOffset) != TRUE) return FALSE;
    auto* ptAt = static_cast<ByteT*>(pBuffer);
    int32 lRead = 0;
    for (; lSize > 0; lSize -= lRead, ptAt += lRead) {
        if (FileSysRead(&lRead, tFile, ptAt, lSize) != TRUE || lRead == 0) return FALSE;
    }
    return TRUE;
}

BooleanT LogWriteAt(FileHandleT tFile, int64 llOffset, const ByteT* ptBytes, int32 lSize) {
    if (FileSysSeek(tFile, llOffset) != TRUE) return FALSE;
    int32 lWritten = 0;
    for (; lSize > 0; lSize -= lWritten, ptBytes += lWritten) {
        if (FileSysWrite(&lWritten, tFile, ptBytes, lSize) != TRUE || lWritten == 0) return FALSE;
    }
    return TRUE;
}

BooleanT LogCutAt(FileHandleT tFile, int64 llOffset) {
    return BooleanFrom(FileSysSeek(tFile, llOffset) == TRUE && FileSysTruncate(tFile) == TRUE);
}

BooleanT LogWriteHeader(FileHandleT tFile, int64 llEnd) {
    ByteT acHeader[LogHeaderSize] = {};
    std::memcpy(acHeader, LogHeaderMark, sizeof(LogHeaderMark));
    ObjStoreLong(acHeader + LogEndOffset, static_cast<int32>(llEnd));
    ObjStoreLong(acHeader + LogFirstOffset, LogHeaderSize);
    return LogWriteAt(tFile, 0, acHeader, LogHeaderSize);
}

// Where the header says that the last record ends; the first record's place when it cannot be so.
int64 LogEndOfHeader(FileHandleT tFile, int64 llFileSize) {
    ByteT acHeader[LogHeaderSize];
    if (LogReadAt(tFile, 0, acHeader, LogHeaderSize) != TRUE ||
        std::memcmp(acHeader, LogHeaderMark, sizeof(LogHeaderMark)) != 0)
        return LogHeaderSize;
    const int64 llEnd = ObjLoadLong(acHeader + LogEndOffset);
    return llEnd < LogHeaderSize || llEnd > llFileSize ? LogHeaderSize : llEnd;
}

// The end of the whole records from an offset on.
int64 LogEndOfRecords(FileHandleT tFile, int64 llOffset, int64 llFileSize) {
    if (llOffset >= llFileSize) return llOffset;
    const PoolPtr<ByteT> ptBuffer(
        static_cast<ByteT*>(MemAllocateFromPool(LogImageMaximum, MemPool())));
    ByteT* ptRecord = ptBuffer.Get();
    while (ptRecord != nullptr && llFileSize - llOffset >= LogImageHeadSize &&
           LogReadAt(tFile, llOffset, ptRecord, LogImageHeadSize) == TRUE) {
        const int32 lSize = LogGetRecordSize(ptRecord);
        if (lSize < LogImageHeadSize || lSize > llFileSize - llOffset ||
            LogReadAt(tFile, llOffset, ptRecord, lSize) != TRUE ||
            LogIsImage(ptRecord, lSize) != TRUE)
            break;
        llOffset += lSize;
    }
    return llOffset;
}

// Leaves a file that is a header and whole records, and says where they end.
BooleanT LogPrepareFile(int64* pllEnd, FileHandleT tFile) {
    int64 llFileSize = 0;
    if (FileSysSize(&llFileSize, tFile) != TRUE) return FALSE;
    *pllEnd = LogHeaderSize;
    if (llFileSize < LogHeaderSize) return LogWriteHeader(tFile, LogHeaderSize);
    *pllEnd = LogEndOfRecords(tFile, LogEndOfHeader(tFile, llFileSize), llFileSize);
    if (*pllEnd == llFileSize) return TRUE;
    TraceMessageInline(127, 0, 0, "Direct log: %lld bytes behind the last record are cut off",
                       static_cast<long long>(llFileSize - *pllEnd));
    return LogCutAt(tFile, *pllEnd);
}

BooleanT LogMakeDirectory(const char* pstrDirectory) {
    if (FileExists(pstrDirectory) == TRUE) {
        TraceMessageInline(5, 0, 3, "File '%s' exists, don't do it again...", pstrDirectory);
        FileDelete(pstrDirectory);
    }
    return BooleanFrom(PathIsADirectory(pstrDirectory) == TRUE ||
                       PathCreateDirectory(pstrDirectory) == TRUE);
}

BooleanT LogAppend(FileHandleT tFile, const ByteT* ptLog, int32 lSize) {
    int64 llEnd = 0;
    if (LogPrepareFile(&llEnd, tFile) != TRUE || llEnd > LogFileMaximum - lSize) return FALSE;
    if (LogWriteAt(tFile, llEnd, ptLog, lSize) == TRUE) return LogWriteHeader(tFile, llEnd + lSize);
    LogCutAt(tFile, llEnd);
    return FALSE;
}

}  // namespace

BooleanT LogDirect(const ByteT* ptLog, int32 lSize) {
    const PoolPtr<char> pstrDirectory(PathHomeBuild("logs", nullptr));
    const PoolPtr<char> pstrPath(PathBuild(pstrDirectory.Get(), "direct-log", nullptr));
    FileCloser tFile;
    if (LogMakeDirectory(pstrDirectory.Get()) == TRUE &&
        FileSysOpen(tFile.Address(), pstrPath.Get(), FileModeReadWrite) == TRUE &&
        LogAppend(tFile.Get(), ptLog, lSize) == TRUE)
        return TRUE;
    TraceMessageInline(128, errno, -1, "Failed to write to the direct log '%s'", pstrPath.Get());
    return FALSE;
}
