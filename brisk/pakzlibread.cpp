// The reader: driven by the chunk lengths of the header list alone, strictly in sequence.
#include <zlib.h>

#include <string_view>

#include "chunkline.h"
#include "chunksteps.h"
#include "core/filebase.h"
#include "core/filesys.h"
#include "core/memory.h"
#include "core/objserial.h"
#include "core/objwalk.h"
#include "core/path.h"
#include "core/trace.h"
#include "pakzlib.h"

TRACE_MODULE("PAKZLIB")
MEM_DEFAULT_POOL_CACHE

namespace {

// Expanding a chunk takes some 50 microseconds, waking a sleeping processor for a thread often
// more.
constexpr int32 ChunksWorthWorker = 32;

BooleanT ReadExactly(FileHandleT tHandle, void* pBytes, int32 lSize) {
    int32 lRead = 0;
    return BooleanFrom(FileSysRead(&lRead, tHandle, pBytes, lSize) == TRUE && lRead == lSize);
}

// A stored name is one component; anything else could lead out of the target directory.
bool IsPlainName(const char* pstrName) {
    if (pstrName == nullptr) return false;
    const std::string_view tName(pstrName);
    return !tName.empty() && tName != "." && tName != ".." &&
           tName.find('/') == std::string_view::npos;
}

bool IsChunkLength(int32 lLength) { return lLength >= 0 && lLength <= PakZlibLargestCompressed; }

int32 LengthOf(ListNodeO oNode) { return ObjGetInteger(static_cast<ObjIntegerO>(oNode->oData)); }

BooleanT ReadOutcome(const FileReadT& tRead, int32 lLength) {
    int32 lRead = 0;
    if (IsChunkLength(lLength) && FileSysReadOutcome(&lRead, tRead) == TRUE && lRead == lLength)
        return TRUE;
    TraceMessageInline(39, 0, -1, "Failed to read uncompressed data");
    return FALSE;
}

BooleanT WriteExpanded(const ChunkJobT& tJob, FileHandleT tDestHandle) {
    if (tJob.iResult != Z_OK) {
        // The text takes no argument; the result travels as the status code.
        TraceMessageInline(37, tJob.iResult, -1, "Uncompress error &d");
        return FALSE;
    }
    if (PakZlibWriteAll(tDestHandle, tJob.pOutput, tJob.lOutputLength) == TRUE) return TRUE;
    TraceMessageInline(38, 0, -1, "Failed to write uncompressed data");
    return FALSE;
}

// Reads on until the line is full. Nothing behind a chunk that is not whole is read.
void ReadAhead(ChunkLine& tLine, FileHandleT tHandle, ListNodeO& oNext) {
    while (oNext != nullptr && tLine.HasRoom()) {
        const int32 lLength = LengthOf(oNext);
        const bool bReadable = IsChunkLength(lLength);
        const FileReadT tRead = bReadable ? tLine.Read(tHandle, lLength) : tLine.ReadNothing();
        oNext = bReadable && tRead.lBytes == lLength ? oNext->oNext : nullptr;
    }
}

BooleanT UncompressChunks(FileHandleT tCompressedHandle, ListO oChunkLengths,
                          FileHandleT tDestHandle) {
    // What was read too far is given back on failure, so a pipe is not read ahead.
    int64 llOffset = 0;
    const bool bAhead = FileSysGetOffset(&llOffset, tCompressedHandle) == TRUE;
    ChunkLine tLine({.fnStep = ChunkExpand,
                     .lInputRoom = PakZlibLargestCompressed,
                     .lOutputRoom = PakZlibChunkSize,
                     .lLeast = 1,
                     .lWorthWorker = ChunksWorthWorker},
                    oChunkLengths->lItemCount, bAhead);
    if (!tLine.IsWhole()) return FALSE;
    ListNodeO oToRead = oChunkLengths->oFirst;
    for (ListNodeO oNode = oToRead; oNode != nullptr; oNode = oNode->oNext) {
        ReadAhead(tLine, tCompressedHandle, oToRead);
        if (ReadOutcome(tLine.Outcome(0), LengthOf(oNode)) != TRUE ||
            WriteExpanded(tLine.Finish(), tDestHandle) != TRUE) {
            tLine.GiveBack(tCompressedHandle);
            TraceMessageInline(40, 0, -1, "Decompression failed");
            return FALSE;
        }
        tLine.Release();
    }
    return TRUE;
}

// The size that a file will have, when its header agrees with what the archive holds behind the
// current offset; else 0, so that nothing is set aside for a lie.
int64 ExpectedSize(FileHandleT tArchive, PakZlibFileHeaderO oHeader) {
    constexpr int64 MostExpansion = 1032;  // of deflate: 258 bytes for two bits
    const ListO oLengths = oHeader->oChunkLengths;
    const int64 llWhole = int64{oLengths->lItemCount - 1} * PakZlibChunkSize;
    // The header holds the lowest 32 bits of the size.
    const uint32 lLast =
        static_cast<uint32>(oHeader->lUncompressedLength) - static_cast<uint32>(llWhole);
    int64 llOffset = 0;
    int64 llArchive = 0;
    if (llWhole == 0 || lLast > PakZlibChunkSize || FileSysGetOffset(&llOffset, tArchive) != TRUE ||
        FileSysSize(&llArchive, tArchive) != TRUE) {
        return 0;
    }
    int64 llCompressed = 0;
    for (ListNodeO oNode = oLengths->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (!IsChunkLength(LengthOf(oNode))) return 0;
        llCompressed += LengthOf(oNode);
    }
    const int64 llSize = llWhole + lLast;
    const bool bHeld = llCompressed <= llArchive - llOffset;
    return bHeld && llSize / MostExpansion <= llCompressed ? llSize : 0;
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
    const PakZlibBlock tBlock = PakZlibNewBlock(bHeld ? lSize : 0);
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
    const int64 llSize = ExpectedSize(tCompressedHandle, oHeader);
    if (llSize > 0) FileSysReserve(tDest.Get(), llSize);
    const BooleanT bWhole =
        UncompressChunks(tCompressedHandle, oHeader->oChunkLengths, tDest.Get());
    int64 llWritten = 0;
    if (llSize > 0 && (FileSysGetOffset(&llWritten, tDest.Get()) != TRUE || llWritten < llSize)) {
        FileSysUnreserve(tDest.Get());
    }
    if (bWhole != TRUE) return FALSE;
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
    const FileReadT tRead = IsChunkLength(lReadLen)
                                ? FileSysReadQuietly(tCompressedHandle, pCompressedBuffer, lReadLen)
                                : FileReadT{};
    if (ReadOutcome(tRead, lReadLen) != TRUE) return FALSE;
    ChunkJobT tJob = {.pInput = pCompressedBuffer,
                      .lInputLength = lReadLen,
                      .pOutput = pDestBuffer,
                      .lOutputRoom = lDestBufSize};
    ChunkExpand(tJob);
    if (WriteExpanded(tJob, tDestHandle) != TRUE) return FALSE;
    if (plWritten != nullptr) *plWritten = tJob.lOutputLength;
    return TRUE;
}
