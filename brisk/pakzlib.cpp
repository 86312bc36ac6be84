// The writer collects each file in chunks of 65,536 bytes, compresses each chunk on its own into
// the temporary file and notes its length in the file's header; finalisation writes the header list
// and copies the temporary file behind it. The reader goes the other way, driven by the chunk
// lengths alone, strictly in sequence.
#include "pakzlib.h"

#include <zlib.h>

#include <cstring>
#include <string_view>

#include "core/filebase.h"
#include "core/filesys.h"
#include "core/filetmp.h"
#include "core/memory.h"
#include "core/objserial.h"
#include "core/objwalk.h"
#include "core/path.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("PAKZLIB")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr int32 PakZlibCopySize = 131072;
constexpr int32 PakZlibSizeField = 4;  // the header list's length in front of it

using Block = PoolPtr<ByteT>;

Block NewBlock(int32 lSize) {
    return Block(static_cast<ByteT*>(MemAllocateFromPool(lSize, MemPool())));
}

BooleanT WriteAll(FileHandleT tHandle, void* pBytes, int32 lSize) {
    int32 lWritten = 0;
    return BooleanFrom(FileSysWrite(&lWritten, tHandle, pBytes, lSize) == TRUE &&
                       lWritten == lSize);
}

BooleanT ReadExactly(FileHandleT tHandle, void* pBytes, int32 lSize) {
    int32 lRead = 0;
    return BooleanFrom(FileSysRead(&lRead, tHandle, pBytes, lSize) == TRUE && lRead == lSize);
}

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

BooleanT PakZlibCompressBuffer(int32* plCompressedLength, PakZlibContextO oContext,
                               const void* pBuffer, int32 lBufLen) {
    const int32 lRoom = 2 * lBufLen + 12;
    const Block tOutput = NewBlock(lRoom);
    if (tOutput.Get() == nullptr) return FALSE;
    auto iCompressed = static_cast<uLongf>(lRoom);
    if (compress(tOutput.Get(), &iCompressed, static_cast<const Bytef*>(pBuffer),
                 static_cast<uLong>(lBufLen)) != Z_OK) {
        TraceMessageInline(20, 0, -1, "Failed to compress buffer");
        return FALSE;
    }
    const auto lCompressed = static_cast<int32>(iCompressed);
    int32 lWritten = 0;
    if (FileSysWrite(&lWritten, oContext->tTempFileHandle, tOutput.Get(), lCompressed) != TRUE ||
        lWritten != lCompressed) {
        TakeBack(oContext->tTempFileHandle, lWritten);
        return FALSE;
    }
    *plCompressedLength = lCompressed;
    return TRUE;
}

BooleanT PakZlibCompressBufferedChunk(PakZlibContextO oContext) {
    PakZlibPendingFileHeaderO oPending = Pending(oContext);
    PakZlibFileHeaderO oHeader = oPending->oHeader;
    int32 lCompressed = 0;
    ObjIntegerO oLength = nullptr;
    if (PakZlibCompressBuffer(&lCompressed, oContext, oPending->acBuffer, oPending->lBufLen) ==
        TRUE) {
        oLength = ObjIntegerNew(lCompressed);
    }
    if (oLength == nullptr || ListPushLastItem(oHeader->oChunkLengths, &oLength) != TRUE) {
        ObjRelease(&oLength);
        TraceMessageInline(26, 0, -1, "Compression failed");
        return FALSE;
    }
    AddWrapping(oHeader->lChunkCount, 1);
    AddWrapping(oHeader->lCompressedLength, lCompressed);
    AddWrapping(oHeader->lUncompressedLength, oPending->lBufLen);
    MemZero(oPending->acBuffer, PakZlibChunkSize);
    oPending->lBufLen = 0;
    return TRUE;
}

// Appends data to the chunk being collected; a chunk that it would overfill is compressed first.
BooleanT CollectChunk(PakZlibContextO oContext, const void* pBuffer, int32 lBufLen) {
    PakZlibPendingFileHeaderO oPending = Pending(oContext);
    if (oPending->lBufLen + lBufLen > PakZlibChunkSize &&
        PakZlibCompressBufferedChunk(oContext) != TRUE) {
        TraceMessageInline(29, 0, -1, "Failed to compress buffered data chunk");
        return FALSE;
    }
    MemCopy(oPending->acBuffer + oPending->lBufLen, pBuffer, lBufLen);
    oPending->lBufLen += lBufLen;
    return TRUE;
}

BooleanT CompleteFile(PakZlibContextO oContext) {
    if (PakZlibCompressBufferedChunk(oContext) != TRUE) {
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

// Feeds an open file of llSize bytes to the archive. TRUE when exactly that many were there.
BooleanT CompressOpenFile(PakZlibContextO oContext, FileHandleT tHandle, int64 llSize,
                          const char* pstrName) {
    const Block tChunk = NewBlock(PakZlibChunkSize);
    if (tChunk.Get() == nullptr) return FALSE;
    int64 llLeft = llSize;
    bool bLast = false;
    while (!bLast) {
        bLast = llLeft <= PakZlibChunkSize;
        int32 lRead = 0;
        if (FileSysRead(&lRead, tHandle, tChunk.Get(), PakZlibChunkSize) != TRUE ||
            PakZlibCompressInChunks(oContext, pstrName, tChunk.Get(), lRead, BooleanFrom(bLast)) !=
                TRUE) {
            return FALSE;
        }
        llLeft -= lRead;
        if (lRead < PakZlibChunkSize) break;
    }
    return BooleanFrom(llLeft == 0);
}

BooleanT PakZlibCopyTempToOutput(PakZlibContextO oContext) {
    const Block tCopy = NewBlock(PakZlibCopySize);
    if (tCopy.Get() == nullptr) return FALSE;
    // To the end of the file: a read that is merely short must not cut the archive.
    while (true) {
        int32 lRead = 0;
        if (FileSysRead(&lRead, oContext->tTempFileHandle, tCopy.Get(), PakZlibCopySize) != TRUE) {
            return FALSE;
        }
        if (lRead == 0) return TRUE;
        if (WriteAll(oContext->tOutputFileHandle, tCopy.Get(), lRead) != TRUE) return FALSE;
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
    if (WriteAll(oContext->tOutputFileHandle, pBlock, lSize) != TRUE) {
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
    const Block tBlock =
        NewBlock(lSize > INT32_MAX - PakZlibSizeField ? INT32_MAX : lSize + PakZlibSizeField);
    if (tBlock.Get() == nullptr) return FALSE;
    return WriteHeaderBlock(oContext, tBlock.Get(), lSize + PakZlibSizeField);
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
    if (PakZlibCopyTempToOutput(oContext) != TRUE) {
        TraceMessageInline(14, 0, -1, "Failed to copy compressed files");
        return FALSE;
    }
    return TRUE;
}

// --- reading ---

// A stored name is one component; anything else could lead out of the target directory.
bool IsPlainName(const char* pstrName) {
    if (pstrName == nullptr) return false;
    const std::string_view tName(pstrName);
    return !tName.empty() && tName != "." && tName != ".." &&
           tName.find('/') == std::string_view::npos;
}

BooleanT UncompressChunks(FileHandleT tCompressedHandle, ListO oChunkLengths,
                          FileHandleT tDestHandle) {
    const Block tCompressed = NewBlock(PakZlibLargestCompressed);
    const Block tDest = NewBlock(PakZlibChunkSize);
    if (tCompressed.Get() == nullptr || tDest.Get() == nullptr) return FALSE;
    for (ListNodeO oNode = oChunkLengths->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        int32 lWritten = 0;
        const int32 lLength = ObjGetInteger(static_cast<ObjIntegerO>(oNode->oData));
        if (PakZlibReadUncompressWrite(&lWritten, lLength, tCompressedHandle, tDestHandle,
                                       tCompressed.Get(), tDest.Get(), PakZlibChunkSize) != TRUE) {
            TraceMessageInline(40, 0, -1, "Decompression failed");
            return FALSE;
        }
    }
    return TRUE;
}

// The length of the header list, or 0 when there is none.
int32 ReadHeaderSize(FileHandleT tHandle) {
    ByteT aBytes[PakZlibSizeField];
    if (ReadExactly(tHandle, aBytes, PakZlibSizeField) != TRUE) {
        TraceMessageInline(55, 0, -1, "Failed to read header size");
        return 0;
    }
    uint32 lBits = 0;
    for (int32 lByte = 0; lByte < PakZlibSizeField; lByte++) {
        lBits |= static_cast<uint32>(aBytes[lByte]) << (8 * lByte);
    }
    const auto lSize = static_cast<int32>(lBits);
    if (lSize >= 1) return lSize;
    TraceMessageInline(54, 0, -1, "Invalid header size");
    return 0;
}

// Hands over what the header block describes, which may be no list at all.
BooleanT ReadHeaderList(void** poList, FileHandleT tHandle, int32 lSize) {
    int64 llFileSize = 0;
    // Nothing is allocated for a length that the file does not hold.
    const bool bHeld =
        FileSysSize(&llFileSize, tHandle) == TRUE && llFileSize - PakZlibSizeField >= lSize;
    const Block tBlock = NewBlock(bHeld ? lSize : 0);
    if (!bHeld || tBlock.Get() == nullptr || ReadExactly(tHandle, tBlock.Get(), lSize) != TRUE) {
        TraceMessageInline(53, 0, -1, "Failed to read compress file headers");
        return FALSE;
    }
    // This program's own shape of a file header is known before the archive can give another.
    if (ObjTemplateNewInternal(sizeof(PakZlibFileHeaderS), PakZlibFileHeaderMagic,
                               "s;s;i;i;i;o;o;o;", nullptr) == nullptr ||
        ObjReconstructFromMemorySized(poList, tBlock.Get(), lSize) != TRUE) {
        TraceMessageInline(52, 0, -1, "Failed to reconstruct headers list");
        return FALSE;
    }
    return TRUE;
}

ObjWalkResultE CollectShared(void* pCookie, void** poObject) {
    const ObjHeaderT* ptHeader = static_cast<const ObjHeaderT*>(*poObject) - 1;
    if (ptHeader->lRefCount > 1) ListAddLastItem(static_cast<ListO>(pCookie), *poObject);
    return eObjWalkResultContinue;
}

// An archive can describe objects that hold each other, which no release frees. Each such circle
// has an object with more than one holder: that is emptied first.
void ReleaseHeaders(void** poHeaders) {
    const ObjHolder<ListS> oShared(ListNew());
    ObjWalk(poHeaders, CollectShared, oShared.Get(), nullptr);
    ObjReleaseInternal(poHeaders);
    if (oShared.Get() == nullptr) return;
    for (ListNodeO oNode = oShared.Get()->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        ObjReleaseContents(oNode->oData);
    }
}

BooleanT UncompressArchive(FileHandleT tHandle, const char* pstrTargetDir) {
    const int32 lSize = ReadHeaderSize(tHandle);
    void* oHeaders = nullptr;
    if (lSize < 1 || ReadHeaderList(&oHeaders, tHandle, lSize) != TRUE) return FALSE;
    const BooleanT bResult =
        PakZlibUncompressFromHeaderList(tHandle, static_cast<ListO>(oHeaders), pstrTargetDir);
    if (bResult == TRUE) {
        TraceMessageInline(50, 0, 0, "Decompression succeeded");
    } else {
        TraceMessageInline(51, 0, -1, "Failed to uncompress files");
    }
    ReleaseHeaders(&oHeaders);
    return bResult;
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
    const bool bStarts = IsContext(oContext) && Pending(oContext) == nullptr;
    const BooleanT bResult = CompressOpenFile(oContext, tFile.Get(), tStat.llFileSize,
                                              pstrFileName != nullptr ? pstrFileName : pstrPath);
    // Half a file must not be continued by the next attempt.
    if (bResult != TRUE && bStarts && Pending(oContext) != nullptr) DropPending(oContext);
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
    const Block tStream = NewBlock(lSize < 0 ? 0 : lSize);
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
    TraceMessageInline(27, 0, 1, "PakZlibCompressInChunks (START)");
    PoolPtr<char> tLeaf;
    if (!IsContext(oContext) || pstrFileName == nullptr || lBufLen < 0 ||
        lBufLen > PakZlibChunkSize || (pBuffer == nullptr && lBufLen > 0) ||
        PathLeaf(tLeaf.Address(), pstrFileName) != TRUE) {
        TraceMessageInline(32, 0, -1, "Invalid args to PakZlibCompressInChunks");
        return FALSE;
    }
    if (Pending(oContext) != nullptr &&
        StrCompare(Pending(oContext)->oHeader->pstrFileName, tLeaf.Get()) != 0) {
        TraceMessageInline(28, 0, -1, "Current and pending headers differ");
        return FALSE;
    }
    if (Pending(oContext) == nullptr) {
        oContext->oPendingChunkHeader = NewPendingFile(tLeaf.Get());
        if (Pending(oContext) == nullptr) return FALSE;
    }
    BooleanT bResult = CollectChunk(oContext, pBuffer, lBufLen);
    if (bLastChunk == TRUE) {
        if (bResult == TRUE) bResult = CompleteFile(oContext);
        if (bResult == TRUE) {
            ObjRelease(&oContext->oPendingChunkHeader);
        } else {
            DropPending(oContext);
        }
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

BooleanT PakZlibUncompress(const char* pstrCompressedFile, const char* pstrTargetDir) {
    if (pstrCompressedFile == nullptr || pstrTargetDir == nullptr) return FALSE;
    if (FileExists(pstrCompressedFile) != TRUE) {
        TraceMessageInline(46, 0, -1, "Supplied compressed file %s does not exist",
                           pstrCompressedFile);
        return FALSE;
    }
    if (PathIsADirectory(pstrTargetDir) != TRUE) {
        TraceMessageInline(47, 0, 0, "Target uncompress directory %s does not exist",
                           pstrTargetDir);
        if (PathCreateDirectory(pstrTargetDir) != TRUE) {
            TraceMessageInline(48, 0, -1, "Failed to create target uncompress directory %s",
                               pstrTargetDir);
            return FALSE;
        }
    }
    FileCloser tArchive;
    if (FileSysOpen(tArchive.Address(), pstrCompressedFile, FileModeReadBinary) != TRUE) {
        TraceMessageInline(49, 0, -1, "Failed to open compressed file %s for reading",
                           pstrCompressedFile);
        return FALSE;
    }
    return UncompressArchive(tArchive.Get(), pstrTargetDir);
}

BooleanT PakZlibUncompressFromHeaderList(FileHandleT tCompressedHandle, ListO oHeaderList,
                                         const char* pstrOutputDir) {
    if (ListIsList(oHeaderList) != TRUE || oHeaderList->lItemCount < 1 ||
        pstrOutputDir == nullptr) {
        TraceMessageInline(45, 0, -1, "Invalid args to PakZlibUncompressFromHeaderList");
        return FALSE;
    }
    for (ListNodeO oNode = oHeaderList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (PakZlibUncompressFile(tCompressedHandle, static_cast<PakZlibFileHeaderO>(oNode->oData),
                                  pstrOutputDir) != TRUE) {
            return FALSE;
        }
    }
    return TRUE;
}

BooleanT PakZlibUncompressFile(FileHandleT tCompressedHandle, PakZlibFileHeaderO oHeader,
                               const char* pstrOutputDir) {
    if (ObjCheckTypeInternal(oHeader, PakZlibFileHeaderMagic) != TRUE || pstrOutputDir == nullptr) {
        TraceMessageInline(44, 0, -1, "Invalid args to PakZlibUncompressFile");
        return FALSE;
    }
    if (!IsPlainName(oHeader->pstrFileName)) {
        TraceMessageInline(57, 0, -1, "Refused to restore a file under the name '%s'",
                           oHeader->pstrFileName == nullptr ? "" : oHeader->pstrFileName);
        return FALSE;
    }
    const PoolPtr<char> tPath(PathBuild(pstrOutputDir, oHeader->pstrFileName, nullptr));
    FileCloser tDest;
    if (tPath.Get() == nullptr ||
        FileSysOpen(tDest.Address(), tPath.Get(), FileModeWriteBinary) != TRUE) {
        TraceMessageInline(43, 0, -1, "Failed to open uncompress file %s for writing", tPath.Get());
        return FALSE;
    }
    if (ListIsList(oHeader->oChunkLengths) != TRUE || oHeader->oChunkLengths->lItemCount < 1) {
        TraceMessageInline(42, 0, -1, "Compression error, no chunks to uncompress");
        return FALSE;
    }
    if (UncompressChunks(tCompressedHandle, oHeader->oChunkLengths, tDest.Get()) != TRUE) {
        return FALSE;
    }
    // A file that the system could not close may lack what was written last.
    if (FileSysClose(tDest.Address()) != TRUE) {
        TraceMessageInline(38, 0, -1, "Failed to write uncompressed data");
        return FALSE;
    }
    return TRUE;
}

BooleanT PakZlibReadUncompressWrite(int32* plWritten, int32 lReadLen, FileHandleT tCompressedHandle,
                                    FileHandleT tDestHandle, ByteT* pCompressedBuffer,
                                    ByteT* pDestBuffer, int32 lDestBufSize) {
    if (lReadLen < 0 || lReadLen > PakZlibLargestCompressed ||
        ReadExactly(tCompressedHandle, pCompressedBuffer, lReadLen) != TRUE) {
        TraceMessageInline(39, 0, -1, "Failed to read uncompressed data");
        return FALSE;
    }
    auto iExpanded = static_cast<uLongf>(lDestBufSize);
    const int iResult =
        uncompress(pDestBuffer, &iExpanded, pCompressedBuffer, static_cast<uLong>(lReadLen));
    if (iResult != Z_OK) {
        // The text takes no argument; the result travels as the status code.
        TraceMessageInline(37, iResult, -1, "Uncompress error &d");
        return FALSE;
    }
    const auto lExpanded = static_cast<int32>(iExpanded);
    if (WriteAll(tDestHandle, pDestBuffer, lExpanded) != TRUE) {
        TraceMessageInline(38, 0, -1, "Failed to write uncompressed data");
        return FALSE;
    }
    if (plWritten != nullptr) *plWritten = lExpanded;
    return TRUE;
}
