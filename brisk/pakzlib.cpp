// The writer collects each file in chunks of 65,536 bytes, compresses each chunk on its own into
// the temporary file and notes its length in the file's header; finalisation writes the header list
// and copies the temporary file behind it.
//
// Bytes come in two ways. What a program feeds is collected in the pending file's buffer and
// compressed at once. The chunks of a file are read into a line that compresses them with workers;
// a chunk is taken from it, written and recorded where the other way would compress it: when its
// successor is fed, the last one when the file is complete. So both give the same archive, and the
// same messages when something fails.
#include "pakzlib.h"

#include <zlib.h>

#include "chunkline.h"
#include "chunksteps.h"
#include "core/filebase.h"
#include "core/filesys.h"
#include "core/filetmp.h"
#include "core/memory.h"
#include "core/objserial.h"
#include "core/path.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("PAKZLIB")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr int32 PakZlibCopySize = 131072;

constexpr int32 CompressedRoom(int32 lLength) { return 2 * lLength + 12; }

// The archive's length fields hold 32 bits; sums of larger files wrap.
void AddWrapping(int32& lSum, int32 lMore) {
    lSum = static_cast<int32>(static_cast<uint32>(lSum) + static_cast<uint32>(lMore));
}

bool IsContext(PakZlibContextO oContext) {
    return ObjCheckTypeInternal(oContext, PakZlibContextMagic) == TRUE;
}

PakZlibFileHeaderO NewFileHeader(const char* pstrLeaf) {
    ObjHolder<PakZlibFileHeaderS> oHeader(
        ObjNew<PakZlibFileHeaderS>(PakZlibFileHeaderMagic, "s;s;i;i;i;o;o;o;"));
    if (oHeader.Get() == nullptr) return nullptr;
    oHeader.Get()->pstrFileName = StrDuplicateIntoPool(pstrLeaf, MemPool());
    oHeader.Get()->oChunkLengths = ListNew();
    const bool bWhole =
        oHeader.Get()->pstrFileName != nullptr && oHeader.Get()->oChunkLengths != nullptr;
    return bWhole ? oHeader.Take() : nullptr;
}

PakZlibPendingFileHeaderO NewPendingFile(const char* pstrLeaf) {
    ObjHolder<PakZlibPendingFileHeaderS> oPending(
        ObjNew<PakZlibPendingFileHeaderS>(PakZlibPendingFileHeaderMagic, "o;i;n65536;o;"));
    if (oPending.Get() == nullptr) return nullptr;
    oPending.Get()->oHeader = NewFileHeader(pstrLeaf);
    return oPending.Get()->oHeader == nullptr ? nullptr : oPending.Take();
}

PakZlibPendingFileHeaderO Pending(PakZlibContextO oContext) {
    return static_cast<PakZlibPendingFileHeaderO>(oContext->oPendingChunkHeader);
}

// Removes the last bytes written to a file.
void TakeBack(FileHandleT tHandle, int64 llBytes) {
    if (llBytes > 0 && FileSysSeekRelative(tHandle, -llBytes) == TRUE) FileSysTruncate(tHandle);
}

// Gives up the file being fed. Its chunks leave the temporary file, where those of the next file
// must follow the last complete one.
void DropPending(PakZlibContextO oContext) {
    int64 llWritten = 0;
    ListO oChunkLengths = Pending(oContext)->oHeader->oChunkLengths;
    for (ListNodeO oNode = oChunkLengths->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        llWritten += ObjGetInteger(static_cast<ObjIntegerO>(oNode->oData));
    }
    TakeBack(oContext->tTempFileHandle, llWritten);
    ObjRelease(&oContext->oPendingChunkHeader);
}

BooleanT PakZlibAddFileHeader(PakZlibContextO oContext, PakZlibFileHeaderO oHeader) {
    if (oContext == nullptr || oHeader == nullptr) {
        TraceMessageInline(19, 0, -1, "PakZlibAddFileHeader, invalid args");
        return FALSE;
    }
    return ListAddLastItem(oContext->oHeaders, oHeader);
}

// Writes what compressing a chunk gave to the temporary file.
BooleanT WriteCompressed(int32* plCompressedLength, PakZlibContextO oContext,
                         const ChunkJobT& tJob) {
    if (tJob.iResult != Z_OK) {
        TraceMessageInline(20, 0, -1, "Failed to compress buffer");
        return FALSE;
    }
    int32 lWritten = 0;
    if (FileSysWrite(&lWritten, oContext->tTempFileHandle, tJob.pOutput, tJob.lOutputLength) !=
            TRUE ||
        lWritten != tJob.lOutputLength) {
        TakeBack(oContext->tTempFileHandle, lWritten);
        return FALSE;
    }
    *plCompressedLength = lWritten;
    return TRUE;
}

BooleanT PakZlibCompressBuffer(int32* plCompressedLength, PakZlibContextO oContext,
                               const ByteT* pBuffer, int32 lBufLen) {
    const PakZlibBlock tOutput = PakZlibNewBlock(CompressedRoom(lBufLen));
    if (tOutput.Get() == nullptr) return FALSE;
    ChunkJobT tJob = {.pInput = pBuffer,
                      .lInputLength = lBufLen,
                      .pOutput = tOutput.Get(),
                      .lOutputRoom = CompressedRoom(lBufLen)};
    ChunkCompress(tJob);
    return WriteCompressed(plCompressedLength, oContext, tJob);
}

// Notes a chunk in the header of the file being fed; bWritten tells whether it was written.
BooleanT RecordChunk(PakZlibContextO oContext, BooleanT bWritten, int32 lCompressed, int32 lPlain) {
    PakZlibFileHeaderO oHeader = Pending(oContext)->oHeader;
    ObjIntegerO oLength = bWritten == TRUE ? ObjIntegerNew(lCompressed) : nullptr;
    if (oLength == nullptr || ListPushLastItem(oHeader->oChunkLengths, &oLength) != TRUE) {
        ObjRelease(&oLength);
        TraceMessageInline(26, 0, -1, "Compression failed");
        return FALSE;
    }
    AddWrapping(oHeader->lChunkCount, 1);
    AddWrapping(oHeader->lCompressedLength, lCompressed);
    AddWrapping(oHeader->lUncompressedLength, lPlain);
    return TRUE;
}

BooleanT PakZlibCompressBufferedChunk(PakZlibContextO oContext) {
    PakZlibPendingFileHeaderO oPending = Pending(oContext);
    int32 lCompressed = 0;
    const BooleanT bWritten =
        PakZlibCompressBuffer(&lCompressed, oContext, oPending->acBuffer, oPending->lBufLen);
    if (RecordChunk(oContext, bWritten, lCompressed, oPending->lBufLen) != TRUE) return FALSE;
    MemZero(oPending->acBuffer, PakZlibChunkSize);
    oPending->lBufLen = 0;
    return TRUE;
}

// The same with the oldest chunk of a line.
BooleanT TakeCompressedChunk(PakZlibContextO oContext, ChunkLine& tLine) {
    const ChunkJobT& tJob = tLine.Finish();
    int32 lCompressed = 0;
    const BooleanT bWritten = WriteCompressed(&lCompressed, oContext, tJob);
    const BooleanT bResult = RecordChunk(oContext, bWritten, lCompressed, tJob.lInputLength);
    tLine.Release();
    return bResult;
}

// What a chunk that had to make way for the next one came to.
BooleanT MadeWay(BooleanT bCompressed) {
    if (bCompressed != TRUE)
        TraceMessageInline(29, 0, -1, "Failed to compress buffered data chunk");
    return bCompressed;
}

// Appends data to the chunk being collected; a chunk that it would overfill is compressed first.
BooleanT CollectChunk(PakZlibContextO oContext, const void* pBuffer, int32 lBufLen) {
    PakZlibPendingFileHeaderO oPending = Pending(oContext);
    if (oPending->lBufLen + lBufLen > PakZlibChunkSize &&
        MadeWay(PakZlibCompressBufferedChunk(oContext)) != TRUE) {
        return FALSE;
    }
    MemCopy(oPending->acBuffer + oPending->lBufLen, pBuffer, lBufLen);
    oPending->lBufLen += lBufLen;
    return TRUE;
}

// Adds the file being fed to the archive; bCompressed tells whether its last chunk is in.
BooleanT CompleteFile(PakZlibContextO oContext, BooleanT bCompressed) {
    if (bCompressed != TRUE) {
        TraceMessageInline(30, 0, -1, "Failed to compress buffered data chunk");
        return FALSE;
    }
    PakZlibFileHeaderO oHeader = Pending(oContext)->oHeader;
    if (PakZlibAddFileHeader(oContext, oHeader) != TRUE) {
        TraceMessageInline(31, 0, -1, "Failed to add file header for file %s",
                           oHeader->pstrFileName);
        return FALSE;
    }
    return TRUE;
}

// Ends the feeding of a file.
void LeaveFile(PakZlibContextO oContext, BooleanT bComplete) {
    if (bComplete == TRUE) {
        ObjRelease(&oContext->oPendingChunkHeader);
    } else {
        DropPending(oContext);
    }
}

// The file being fed is now pstrFileName; FALSE when it is another or cannot be.
BooleanT EnterFile(PakZlibContextO oContext, const char* pstrFileName, bool bGoodData) {
    TraceMessageInline(27, 0, 1, "PakZlibCompressInChunks (START)");
    PoolPtr<char> tLeaf;
    if (!bGoodData || !IsContext(oContext) || pstrFileName == nullptr ||
        PathLeaf(tLeaf.Address(), pstrFileName) != TRUE) {
        TraceMessageInline(32, 0, -1, "Invalid args to PakZlibCompressInChunks");
        return FALSE;
    }
    if (Pending(oContext) == nullptr) {
        oContext->oPendingChunkHeader = NewPendingFile(tLeaf.Get());
        return BooleanFrom(Pending(oContext) != nullptr);
    }
    if (StrCompare(Pending(oContext)->oHeader->pstrFileName, tLeaf.Get()) != 0) {
        TraceMessageInline(28, 0, -1, "Current and pending headers differ");
        return FALSE;
    }
    return TRUE;
}

// Feeds the chunk that was read last: the chunk before it, if there is one, is taken from the line,
// and the last one itself too.
BooleanT FeedFromLine(PakZlibContextO oContext, const char* pstrName, ChunkLine& tLine, bool bFirst,
                      bool bLast) {
    if (EnterFile(oContext, pstrName, true) != TRUE) return FALSE;
    BooleanT bResult = bFirst ? TRUE : MadeWay(TakeCompressedChunk(oContext, tLine));
    if (!bLast) return bResult;
    if (bResult == TRUE) bResult = CompleteFile(oContext, TakeCompressedChunk(oContext, tLine));
    LeaveFile(oContext, bResult);
    return bResult;
}

// Reads on until the line is full, the last chunk of llLeft bytes is read, or one is not whole.
void ReadAhead(ChunkLine& tLine, FileHandleT tHandle, int64& llLeft) {
    while (llLeft >= 0 && tLine.HasRoom()) {
        const FileReadT tRead = tLine.Read(tHandle, PakZlibChunkSize);
        const bool bGoesOn = tRead.lBytes == PakZlibChunkSize && llLeft > PakZlibChunkSize;
        llLeft = bGoesOn ? llLeft - tRead.lBytes : -1;
    }
}

// Feeds llSize bytes chunk by chunk. TRUE when exactly that many were there.
template <class R, class F>
BooleanT FeedChunks(int64 llSize, R fnRead, F fnFeed) {
    int64 llLeft = llSize;
    for (bool bLast = false; !bLast;) {
        bLast = llLeft <= PakZlibChunkSize;
        int32 lRead = 0;
        if (fnRead(&lRead) != TRUE || fnFeed(lRead, bLast) != TRUE) return FALSE;
        llLeft -= lRead;
        if (lRead < PakZlibChunkSize) break;
    }
    return BooleanFrom(llLeft == 0);
}

// Feeds an open file to an archive in which no file is being fed.
BooleanT CompressOpenFile(PakZlibContextO oContext, FileHandleT tHandle, int64 llSize,
                          const char* pstrName) {
    const int64 llChunks = llSize / PakZlibChunkSize + (llSize % PakZlibChunkSize != 0 ? 1 : 0);
    ChunkLine tLine({.fnStep = ChunkCompress,
                     .lInputRoom = PakZlibChunkSize,
                     .lOutputRoom = CompressedRoom(PakZlibChunkSize),
                     .lLeast = 2,
                     .lWorthWorker = 1},
                    llChunks, true);
    if (!tLine.IsWhole()) return FALSE;
    int64 llToRead = llSize;
    bool bFirst = true;
    return FeedChunks(
        llSize,
        [&](int32* plRead) {
            ReadAhead(tLine, tHandle, llToRead);
            return FileSysReadOutcome(plRead, tLine.Outcome(bFirst ? 0 : 1));
        },
        [&](int32, bool bLast) {
            const BooleanT bResult = FeedFromLine(oContext, pstrName, tLine, bFirst, bLast);
            bFirst = false;
            return bResult;
        });
}

// Feeds an open file behind what was fed of it before.
BooleanT ContinueWithOpenFile(PakZlibContextO oContext, FileHandleT tHandle, int64 llSize,
                              const char* pstrName) {
    const PakZlibBlock tChunk = PakZlibNewBlock(PakZlibChunkSize);
    if (tChunk.Get() == nullptr) return FALSE;
    return FeedChunks(
        llSize,
        [&](int32* plRead) { return FileSysRead(plRead, tHandle, tChunk.Get(), PakZlibChunkSize); },
        [&](int32 lRead, bool bLast) {
            return PakZlibCompressInChunks(oContext, pstrName, tChunk.Get(), lRead,
                                           BooleanFrom(bLast));
        });
}

BooleanT PakZlibCopyTempToOutput(PakZlibContextO oContext) {
    FileSysCopyInside(oContext->tTempFileHandle, oContext->tOutputFileHandle);
    const PakZlibBlock tCopy = PakZlibNewBlock(PakZlibCopySize);
    if (tCopy.Get() == nullptr) return FALSE;
    // To the end of the file: a read that is merely short must not cut the archive.
    while (true) {
        int32 lRead = 0;
        if (FileSysRead(&lRead, oContext->tTempFileHandle, tCopy.Get(), PakZlibCopySize) != TRUE) {
            return FALSE;
        }
        if (lRead == 0) return TRUE;
        if (PakZlibWriteAll(oContext->tOutputFileHandle, tCopy.Get(), lRead) != TRUE) return FALSE;
    }
}

BooleanT WriteHeaderBlock(PakZlibContextO oContext, ByteT* pBlock, int32 lSize) {
    int32 lWritten = 0;
    if (ObjSerializeToMemory(oContext->oHeaders, pBlock + PakZlibSizeField, &lWritten) != TRUE) {
        TraceMessageInline(10, 0, -1, "Failed to serialise compressed file headers");
        return FALSE;
    }
    for (int32 lByte = 0; lByte < PakZlibSizeField; lByte++) {
        pBlock[lByte] = static_cast<ByteT>(static_cast<uint32>(lWritten) >> (8 * lByte));
    }
    if (PakZlibWriteAll(oContext->tOutputFileHandle, pBlock, lSize) != TRUE) {
        TraceMessageInline(11, 0, -1, "Failed to write compressed file headers");
        return FALSE;
    }
    return TRUE;
}

BooleanT WriteHeaders(PakZlibContextO oContext) {
    int32 lItems = 0;
    if (ListIsList(oContext->oHeaders) == TRUE) lItems = oContext->oHeaders->lItemCount;
    if (lItems < 1) {
        TraceMessageInline(8, 0, -1, "No compressed file headers");
        return FALSE;
    }
    const int32 lSize = ObjSerializedSize(oContext->oHeaders);
    if (lSize <= 0) {
        TraceMessageInline(9, 0, -1, "Error getting headers serial size");
        return FALSE;
    }
    // One below the largest number is memory that no block can have; the pool says so.
    const PakZlibBlock tBlock = PakZlibNewBlock(
        lSize > INT32_MAX - PakZlibSizeField ? INT32_MAX : lSize + PakZlibSizeField);
    if (tBlock.Get() == nullptr) return FALSE;
    return WriteHeaderBlock(oContext, tBlock.Get(), lSize + PakZlibSizeField);
}

// Blocks for all of the archive, whose header list is written. One that is copied in one go gets
// its blocks in one go anyway.
void ReserveArchive(PakZlibContextO oContext) {
    int64 llTemp = 0;
    int64 llHeaders = 0;
    if (FileSysSize(&llTemp, oContext->tTempFileHandle) == TRUE && llTemp > PakZlibCopySize &&
        FileSysGetOffset(&llHeaders, oContext->tOutputFileHandle) == TRUE) {
        FileSysReserve(oContext->tOutputFileHandle, llHeaders + llTemp);
    }
}

BooleanT WriteArchive(PakZlibContextO oContext) {
    if (WriteHeaders(oContext) != TRUE) return FALSE;
    if (FileSysClose(&oContext->tTempFileHandle) != TRUE) {
        TraceMessageInline(12, 0, -1, "Failed to close temp compress file");
        return FALSE;
    }
    if (FileSysOpen(&oContext->tTempFileHandle, oContext->pstrTempCompressFile,
                    FileModeReadBinary) != TRUE) {
        TraceMessageInline(13, 0, -1, "Failed to re-open temp compress file");
        return FALSE;
    }
    ReserveArchive(oContext);
    if (PakZlibCopyTempToOutput(oContext) != TRUE) {
        FileSysUnreserve(oContext->tOutputFileHandle);
        TraceMessageInline(14, 0, -1, "Failed to copy compressed files");
        return FALSE;
    }
    return TRUE;
}

}  // namespace

BooleanT PakZlibInitialize(PakZlibContextO* poContext, const char* pstrOutputFile) {
    if (poContext == nullptr || pstrOutputFile == nullptr || FileExists(pstrOutputFile) == TRUE) {
        TraceMessageInline(6, 0, -1, "Invalid output file for PakZlibInitialize");
        return FALSE;
    }
    ObjHolder<PakZlibContextS> oContext(
        ObjNew<PakZlibContextS>(PakZlibContextMagic, "o;s;p;s;p;o;o;"));
    if (oContext.Get() == nullptr) return FALSE;
    oContext.Get()->tTempFileHandle = FileHandleClosed;
    oContext.Get()->tOutputFileHandle = FileHandleClosed;
    FileCloser tOutput;
    if (FileSysOpen(tOutput.Address(), pstrOutputFile, FileModeWriteBinary) != TRUE) {
        TraceMessageInline(3, 0, -1, "Failed to open output file for PakZlib (%s)", pstrOutputFile);
        return FALSE;
    }
    FileCloser tTemp;
    if (FileTmpCreateUniqueFile(tTemp.Address(), &oContext.Get()->pstrTempCompressFile,
                                ProcGetId()) != TRUE) {
        if (oContext.Get()->pstrTempCompressFile == nullptr) {
            TraceMessageInline(4, 0, -1, "Failed to create temporary path for PakZlib");
        } else {
            TraceMessageInline(5, 0, -1, "Failed to open temporary file for PakZlib (%s)",
                               oContext.Get()->pstrTempCompressFile);
        }
        return FALSE;
    }
    oContext.Get()->oHeaders = ListNew();
    oContext.Get()->oInputFiles = ListNew();
    oContext.Get()->tOutputFileHandle = tOutput.Take();
    oContext.Get()->tTempFileHandle = tTemp.Take();
    *poContext = oContext.Take();
    return TRUE;
}

BooleanT PakZlibCompressFile(PakZlibContextO oContext, const char* pstrPath,
                             const char* pstrFileName) {
    if (pstrPath == nullptr) {
        TraceMessageInline(25, 0, -1, "Cannot compress file with invalid path");
        return FALSE;
    }
    if (FileIsDir(pstrPath) == TRUE) {
        TraceMessageInline(21, 0, -1, "PakZlib does not support directories");
        return FALSE;
    }
    if (FileExists(pstrPath) != TRUE) {
        TraceMessageInline(22, 0, -1, "File %s does not exist", pstrPath);
        return FALSE;
    }
    FileCloser tFile;
    if (FileSysOpen(tFile.Address(), pstrPath, FileModeReadBinary) != TRUE) {
        TraceMessageInline(23, 0, -1, "Failed to open file %s for compressing", pstrPath);
        return FALSE;
    }
    FileStatT tStat = {};
    if (FileStat(&tStat, pstrPath, TRUE) != TRUE) {
        TraceMessageInline(24, 0, -1, "Failed to stat file %s", pstrPath);
        return FALSE;
    }
    const char* pstrName = pstrFileName != nullptr ? pstrFileName : pstrPath;
    if (!IsContext(oContext) || Pending(oContext) != nullptr)
        return ContinueWithOpenFile(oContext, tFile.Get(), tStat.llFileSize, pstrName);
    const BooleanT bResult = CompressOpenFile(oContext, tFile.Get(), tStat.llFileSize, pstrName);
    // Half a file must not be continued by the next attempt.
    if (bResult != TRUE && Pending(oContext) != nullptr) DropPending(oContext);
    return bResult;
}

BooleanT PakZlibCompressFileList(PakZlibContextO oContext, ListO oFilePaths) {
    TraceMessageInline(17, 0, 1, "PakZlibCompressFileList (START)");
    if (oContext == nullptr || oFilePaths == nullptr) return FALSE;
    if (ListIsList(oFilePaths) != TRUE || oFilePaths->lItemCount < 1) {
        TraceMessageInline(18, 0, -1, "No input files specified for PakZlib");
        return FALSE;
    }
    for (ListNodeO oNode = oFilePaths->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        const char* pstrPath = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        if (PakZlibCompressFile(oContext, pstrPath, nullptr) != TRUE) return FALSE;
    }
    return TRUE;
}

BooleanT PakZlibCompressObject(PakZlibContextO oContext, void* oObject, const char* pstrFileName) {
    if (oContext == nullptr || oObject == nullptr || pstrFileName == nullptr) {
        TraceMessageInline(36, 0, -1, "Invalid args to PakZlibCompressObject");
        return FALSE;
    }
    const int32 lSize = ObjSerializedSize(oObject);
    if (lSize > PakZlibChunkSize) {
        TraceMessageInline(56, 0, -1, "Serialised object of %d bytes does not fit one chunk",
                           lSize);
        return FALSE;
    }
    const PakZlibBlock tStream = PakZlibNewBlock(lSize < 0 ? 0 : lSize);
    int32 lWritten = 0;
    if (lSize < 0 || tStream.Get() == nullptr ||
        ObjSerializeToMemory(oObject, tStream.Get(), &lWritten) != TRUE) {
        TraceMessageInline(33, 0, -1, "Failed to serialise object to memory");
        return FALSE;
    }
    if (lWritten != lSize) {
        TraceMessageInline(34, 0, -1, "Serialization sizes differ");
        return FALSE;
    }
    if (PakZlibCompressInChunks(oContext, pstrFileName, tStream.Get(), lSize, TRUE) != TRUE) {
        TraceMessageInline(35, 0, -1, "Failed to compress object to output file");
        return FALSE;
    }
    return TRUE;
}

BooleanT PakZlibCompressInChunks(PakZlibContextO oContext, const char* pstrFileName, void* pBuffer,
                                 int32 lBufLen, BooleanT bLastChunk) {
    const bool bGoodData =
        lBufLen >= 0 && lBufLen <= PakZlibChunkSize && (pBuffer != nullptr || lBufLen == 0);
    if (EnterFile(oContext, pstrFileName, bGoodData) != TRUE) return FALSE;
    BooleanT bResult = CollectChunk(oContext, pBuffer, lBufLen);
    if (bLastChunk == TRUE) {
        if (bResult == TRUE)
            bResult = CompleteFile(oContext, PakZlibCompressBufferedChunk(oContext));
        LeaveFile(oContext, bResult);
    }
    return bResult;
}

BooleanT PakZlibFinalize(PakZlibContextO* poContext) {
    if (poContext == nullptr || !IsContext(*poContext)) {
        TraceMessageInline(16, 0, -1, "Unable to finalize invalid PakZlib context");
        return FALSE;
    }
    const BooleanT bComplete = WriteArchive(*poContext);
    if (PakZlibCleanupContext(poContext) != TRUE) {
        TraceMessageInline(15, 0, -1, "Failed to clean up PakZlib context");
        return FALSE;
    }
    return bComplete;
}

BooleanT PakZlibCleanupContext(PakZlibContextO* poContext) {
    if (poContext == nullptr || !IsContext(*poContext)) {
        TraceMessageInline(7, 0, -1, "Unable to cleanup invalid PakZlib context");
        return FALSE;
    }
    PakZlibContextO oContext = *poContext;
    FileSysClose(&oContext->tTempFileHandle);
    FileDelete(oContext->pstrTempCompressFile);
    // An archive that the system could not close may lack what was written last.
    const BooleanT bClosed = FileSysClose(&oContext->tOutputFileHandle);
    ObjRelease(poContext);
    return bClosed;
}
