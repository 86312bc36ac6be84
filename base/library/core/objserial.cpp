// Whole object streams over memory, growing buffers and files. Each function sets up a stream with
// a sink or source of its kind and hands it to the writer or reader.
#include "core/objserial.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "core/filebase.h"
#include "core/filesys.h"
#include "core/filetmp.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/process.h"
#include "core/trace.h"
#include "objtransfer.h"

TRACE_MODULE("OBJECT")
MEM_DEFAULT_POOL_CACHE

BooleanT ObjEnterInMap(ObjSerialStreamT tStream, int32 lMapId, void* oObject, MapLocateFnT fnLocate,
                       MapReleaseFnT fnRelease) {
    if (tStream->oMap == nullptr && MapCreate(&tStream->oMap, sizeof(ObjMapEntryT), ObjMapGrowth,
                                              fnLocate, nullptr, fnRelease) != TRUE) {
        return FALSE;
    }
    // Room grows with the map, so that entering n objects does not copy n * n entries.
    tStream->oMap->lGrowSize = std::max(ObjMapGrowth, tStream->oMap->lMaximumEntries / 2);
    ObjMapEntryT tEntry = {lMapId, oObject, FALSE};
    return MapInsertEntry(tStream->oMap, &tEntry);
}

BooleanT ObjSerializeWithCallback(void* oSource, ObjSerialStreamT tStream) {
    if (tStream == nullptr) return FALSE;
    tStream->oMap = nullptr;
    tStream->lLastId = 0;
    tStream->lDepth = 0;
    const BooleanT bResult = ObjSerialize(oSource, tStream);
    if (tStream->oMap != nullptr) ObjRelease(&tStream->oMap);
    return bResult;
}

namespace {

ObjSerialStreamS ObjNewStream(ObjTransferFnT pfnCallback, void* pCookie, BooleanT bIsLocal,
                              int64 llRemaining = ObjRemainingUnknown) {
    return {pfnCallback, pCookie, nullptr, 0, bIsLocal, llRemaining, 0, FALSE};
}

// --- memory ---

int32 ObjMeasure(void* oSource, BooleanT bIsLocal) {
    int64 llSize = 0;
    ObjSerialStreamS tStream = ObjNewStream(ObjWriteToCounter, &llSize, bIsLocal);
    if (ObjSerializeWithCallback(oSource, &tStream) != TRUE ||
        llSize > std::numeric_limits<int32>::max()) {
        TraceMessageInline(55, 0, -1, "Failed to get serialized size of object at %p", oSource);
        return -1;
    }
    return static_cast<int32>(llSize);
}

BooleanT ObjWriteWhole(void* oSource, void* pBuffer, int32* plSize, BooleanT bIsLocal) {
    if (pBuffer == nullptr) return FALSE;
    auto* pPosition = static_cast<ByteT*>(pBuffer);
    ObjSerialStreamS tStream = ObjNewStream(ObjWriteToMemory, &pPosition, bIsLocal);
    const BooleanT bResult = ObjSerializeWithCallback(oSource, &tStream);
    if (plSize != nullptr) *plSize = static_cast<int32>(pPosition - static_cast<ByteT*>(pBuffer));
    return bResult;
}

BooleanT ObjReadWhole(void** poResult, const void* pBuffer, int64 llSize, BooleanT bIsLocal,
                      BooleanT bNoCircles = FALSE) {
    if (poResult == nullptr || pBuffer == nullptr) return FALSE;
    const auto* pPosition = static_cast<const ByteT*>(pBuffer);
    ObjSerialStreamS tStream = ObjNewStream(ObjReadFromMemory, &pPosition, bIsLocal, llSize);
    tStream.bNoCircles = bNoCircles;
    return ObjReconstructWithCallback(poResult, &tStream);
}

// --- growing buffers ---

BooleanT ObjBufferAppend(void* pCookie, void* pBytes, int32 lSize) {
    auto* ptBuffer = static_cast<ObjBufferDescriptorT*>(pCookie);
    if (ptBuffer->lSize - ptBuffer->lUsed < lSize) {
        const int64 llRoom = static_cast<int64>(ptBuffer->lReserved) +
                             2 * static_cast<int64>(ptBuffer->lSize) + lSize + 1024;
        if (llRoom > std::numeric_limits<int32>::max() - MemBlockOverhead - 4) return FALSE;
        void* pLarger = MemAllocateFromPool(static_cast<int32>(llRoom), MemPool());
        if (pLarger == nullptr) return FALSE;
        MemCopy(pLarger, ptBuffer->pBuffer, ptBuffer->lUsed);
        if (ptBuffer->bReallocated == TRUE) MemFree(&ptBuffer->pBuffer);
        ptBuffer->pBuffer = pLarger;
        ptBuffer->lSize = static_cast<int32>(llRoom);
        ptBuffer->bReallocated = TRUE;
    }
    MemCopy(static_cast<ByteT*>(ptBuffer->pBuffer) + ptBuffer->lUsed, pBytes, lSize);
    ptBuffer->lUsed += lSize;
    return TRUE;
}

BooleanT ObjBufferAppendLong(ObjBufferDescriptorT* ptBuffer, int32 lValue) {
    ByteT aBytes[4];
    ObjStoreLong(aBytes, lValue);
    return ObjBufferAppend(ptBuffer, aBytes, 4);
}

BooleanT ObjBufferAppendObject(ObjBufferDescriptorT* ptBuffer, void* oSource) {
    ObjSerialStreamS tStream = ObjNewStream(ObjBufferAppend, ptBuffer, FALSE);
    return ObjSerializeWithCallback(oSource, &tStream);
}

// Stores the length of what was appended since lStart in the Long that stands there.
void ObjBufferCloseFrame(ObjBufferDescriptorT* ptBuffer, int32 lStart) {
    ObjStoreLong(static_cast<ByteT*>(ptBuffer->pBuffer) + lStart, ptBuffer->lUsed - lStart);
}

// --- files ---

BooleanT ObjWriteToFile(void* pCookie, void* pBuffer, int32 lSize) {
    const auto iSize = static_cast<std::size_t>(lSize);
    return BooleanFrom(std::fwrite(pBuffer, 1, iSize, static_cast<FILE*>(pCookie)) == iSize);
}

BooleanT ObjReadFromFile(void* pCookie, void* pBuffer, int32 lSize) {
    const auto iSize = static_cast<std::size_t>(lSize);
    return BooleanFrom(std::fread(pBuffer, 1, iSize, static_cast<FILE*>(pCookie)) == iSize);
}

// Bytes that a stream still holds, where it is one over a regular file.
int64 ObjFileRemaining(FILE* pFile) {
    struct stat tStat = {};
    const int64 llPosition = ftello(pFile);
    if (llPosition < 0 || fstat(fileno(pFile), &tStat) != 0 || !S_ISREG(tStat.st_mode)) {
        return ObjRemainingUnknown;
    }
    return tStat.st_size > llPosition ? tStat.st_size - llPosition : 0;
}

}  // namespace

int32 ObjSerializedSize(void* oSource) { return ObjMeasure(oSource, FALSE); }

int32 ObjSerializedSizeLocal(void* oSourceObject) { return ObjMeasure(oSourceObject, TRUE); }

BooleanT ObjSerializeToMemory(void* oSource, void* pBuffer, int32* plSize) {
    TraceMessageInline(136, 0, 4, "ObjSerializeToMemory(%p, %p, %p)", oSource, pBuffer,
                       static_cast<void*>(plSize));
    return ObjWriteWhole(oSource, pBuffer, plSize, FALSE);
}

BooleanT ObjSerializeLocal(void* oSource, void* pBuffer, int32* plSize) {
    TraceMessageInline(137, 0, 4, "ObjSerializeLocal(%p, %p, %p)", oSource, pBuffer,
                       static_cast<void*>(plSize));
    return ObjWriteWhole(oSource, pBuffer, plSize, TRUE);
}

BooleanT ObjReconstructFromMemory(void** poResult, const void* pBuffer) {
    return ObjReadWhole(poResult, pBuffer, ObjRemainingUnknown, FALSE);
}

BooleanT ObjReconstructFromMemorySized(void** poResult, const void* pBuffer, int32 lSize) {
    if (lSize < 0) return FALSE;
    return ObjReadWhole(poResult, pBuffer, lSize, FALSE);
}

BooleanT ObjReconstructWithoutCircles(void** poResult, const void* pBuffer, int32 lSize) {
    if (lSize < 0) return FALSE;
    return ObjReadWhole(poResult, pBuffer, lSize, FALSE, TRUE);
}

BooleanT ObjReconstructLocal(void** poResult, const void* pBuffer, int32 lSize) {
    if (lSize < 0) return FALSE;
    return ObjReadWhole(poResult, pBuffer, lSize, TRUE);
}

BooleanT ObjReconstructObjectFromMemory(void** poResult, const void* pBuffer, int32 /*lSize*/,
                                        int32 lMagic) {
    const auto* pBytes = static_cast<const ByteT*>(pBuffer);
    if (pBytes == nullptr || pBytes[0] != eObjLocationSingle || ObjLoadLong(pBytes + 1) != lMagic) {
        return FALSE;
    }
    return ObjReconstructFromMemory(poResult, pBuffer);
}

BooleanT ObjSerializeToBuffer(void* oSource, int32 lType, ObjBufferDescriptorT* pBufferDescriptor) {
    if (pBufferDescriptor == nullptr) return FALSE;
    const int32 lStart = pBufferDescriptor->lUsed;
    if (ObjBufferAppendLong(pBufferDescriptor, 0) != TRUE ||
        ObjBufferAppendLong(pBufferDescriptor, lType) != TRUE ||
        ObjBufferAppendObject(pBufferDescriptor, oSource) != TRUE) {
        return FALSE;
    }
    ObjBufferCloseFrame(pBufferDescriptor, lStart);
    return TRUE;
}

BooleanT ObjSerializeToBufferCustomHead(void* oSource, ObjBufferDescriptorT* ptBufferDescriptor,
                                        int32 lHeaderSize, void* pvHeader, BooleanT bWriteSize) {
    const bool bHeaderSound = pvHeader == nullptr ? lHeaderSize == 0 : lHeaderSize >= 1;
    if (ptBufferDescriptor == nullptr || oSource == nullptr || !bHeaderSound) {
        TraceMessageInline(172, 0, -1,
                           "ObjSerializeToBufferCustomHead() - bad params (%p, %p, %d, %p) ",
                           oSource, static_cast<void*>(ptBufferDescriptor), lHeaderSize, pvHeader);
        ProcCrash(FALSE);
        return FALSE;
    }
    const int32 lStart = ptBufferDescriptor->lUsed;
    if ((bWriteSize == TRUE && ObjBufferAppendLong(ptBufferDescriptor, 0) != TRUE) ||
        ObjBufferAppend(ptBufferDescriptor, pvHeader, lHeaderSize) != TRUE) {
        TraceMessageInline(171, 0, -1, "Failed to write custom header of %d bytes to buffer",
                           lHeaderSize);
        ProcCrash(FALSE);
        return FALSE;
    }
    if (ObjBufferAppendObject(ptBufferDescriptor, oSource) != TRUE) {
        TraceMessageInline(170, 0, -1, "Failed to serialize object after custom header");
        ProcCrash(FALSE);
        return FALSE;
    }
    if (bWriteSize == TRUE) ObjBufferCloseFrame(ptBufferDescriptor, lStart);
    return TRUE;
}

BooleanT ObjSerializeToBufferNoHead(int32* plSerializedSize, void* oSource,
                                    ObjBufferDescriptorT* pBufferDescriptor) {
    if (pBufferDescriptor == nullptr) return FALSE;
    const int32 lStart = pBufferDescriptor->lUsed;
    const BooleanT bResult = ObjBufferAppendObject(pBufferDescriptor, oSource);
    if (plSerializedSize != nullptr) *plSerializedSize = pBufferDescriptor->lUsed - lStart;
    return bResult;
}

BooleanT ObjBufferInsertBytes(int32 lBytes, void* pvBytes,
                              ObjBufferDescriptorT* ptBufferDescriptor) {
    if (ptBufferDescriptor == nullptr || pvBytes == nullptr || lBytes < 1) {
        TraceMessageInline(174, 0, -1, "ObjBufferInsertBytes() - bad params (%d, %p, %p)", lBytes,
                           pvBytes, static_cast<void*>(ptBufferDescriptor));
        ProcCrash(FALSE);
        return FALSE;
    }
    if (ObjBufferAppend(ptBufferDescriptor, pvBytes, lBytes) != TRUE) {
        TraceMessageInline(173, 0, -1, "ObjBufferInsertBytes() - failed to write to buffer");
        return FALSE;
    }
    return TRUE;
}

BooleanT ObjBufferDescriptorCreate(ObjBufferDescriptorT** ppBufferDescriptor, void* pBuffer,
                                   int32 lSize, int32 lInitialUsage) {
    if (ppBufferDescriptor == nullptr || lSize < 0 || lInitialUsage < 0 || lInitialUsage > lSize ||
        (pBuffer == nullptr && lSize != 0)) {
        return FALSE;
    }
    auto* ptDescriptor = MemNew<ObjBufferDescriptorT>();
    if (ptDescriptor == nullptr) return FALSE;
    *ptDescriptor = {pBuffer, lSize, lInitialUsage, lInitialUsage, FALSE};
    *ppBufferDescriptor = ptDescriptor;
    return TRUE;
}

BooleanT ObjBufferDescriptorGetBuffer(void** ppvBuffer, int32* plBytesUsed,
                                      ObjBufferDescriptorT* ptDescriptor) {
    if (ppvBuffer == nullptr || plBytesUsed == nullptr || ptDescriptor == nullptr) return FALSE;
    *ppvBuffer = ptDescriptor->pBuffer;
    *plBytesUsed = ptDescriptor->lUsed;
    return TRUE;
}

BooleanT ObjBufferDescriptorFree(ObjBufferDescriptorT** ppDescriptor) {
    if (ppDescriptor == nullptr || *ppDescriptor == nullptr) return FALSE;
    if ((*ppDescriptor)->bReallocated == TRUE) MemFree(&(*ppDescriptor)->pBuffer);
    return MemFree(ppDescriptor);
}

void ObjBufferDescriptorReset(ObjBufferDescriptorT* ptDescriptor) {
    if (ptDescriptor != nullptr) ptDescriptor->lUsed = ptDescriptor->lReserved;
}

void ObjBufferAnalyze(void* pBuffer, int32* plSize, int32* plType) {
    constexpr int32 lFrameHead = 8;
    const auto* pBytes = static_cast<const ByteT*>(pBuffer);
    if (pBytes == nullptr) return;
    // Unsigned, so that a length that lies cannot overflow.
    if (plSize != nullptr) {
        *plSize = static_cast<int32>(static_cast<uint32>(ObjLoadLong(pBytes)) - lFrameHead);
    }
    if (plType != nullptr) *plType = ObjLoadLong(pBytes + 4);
}

int32 ObjBufferSerializedObjectSize(void* pBuffer) {
    int32 lSize = 0;
    ObjBufferAnalyze(pBuffer, &lSize, nullptr);
    return lSize;
}

int32 ObjBufferMsgType(void* pBuffer) {
    int32 lType = 0;
    ObjBufferAnalyze(pBuffer, nullptr, &lType);
    return lType;
}

BooleanT ObjSerializeToFile(void* oSource, const char* pstrFileName) {
    FILE* pFile = nullptr;
    if (FileSysFOpen(&pFile, pstrFileName, FileModeWriteBinary) != TRUE) {
        TraceMessageInline(56, 1, -1, "Failed to open %s", pstrFileName);
        return FALSE;
    }
    const BooleanT bWritten = ObjSerializeToFP(oSource, pFile);
    // What the stream buffered is written by the close.
    const BooleanT bClosed = FileSysFClose(&pFile);
    return BooleanFrom(bWritten == TRUE && bClosed == TRUE);
}

BooleanT ObjSerializeToFP(void* oSource, FILE* pFile) {
    if (pFile == nullptr) {
        TraceMessageInline(149, 0, -1, "Invalid argument");
        return FALSE;
    }
    ObjSerialStreamS tStream = ObjNewStream(ObjWriteToFile, pFile, FALSE);
    return ObjSerializeWithCallback(oSource, &tStream);
}

BooleanT ObjSerializeToTempFile(char** ppstrFileName, ProcIdT tOwner, void* oObject) {
    PoolPtr<char> pstrPath;
    FileCloser tFile;
    if (ppstrFileName == nullptr ||
        FileTmpCreateUniqueFile(tFile.Address(), pstrPath.Address(), tOwner) != TRUE) {
        TraceMessageInline(61, 1, -1, "Failed to create unique path");
        return FALSE;
    }
    if (ObjSerializeToFile(oObject, pstrPath.Get()) != TRUE) {
        TraceMessageInline(60, 1, -1, "Failed to serialize to file");
        return FALSE;
    }
    *ppstrFileName = pstrPath.Take();
    return TRUE;
}

BooleanT ObjReconstructFromFile(void** poResult, const char* pstrFileName) {
    if (poResult == nullptr || pstrFileName == nullptr) {
        TraceMessageInline(62, 1, 3, "NULL argument to ObjReconstructFromFile");
        return FALSE;
    }
    FILE* pFile = nullptr;
    if (FileSysFOpen(&pFile, pstrFileName, FileModeReadBinary) != TRUE) {
        TraceMessageInline(57, 1, -1, "Failed to open %s", pstrFileName);
        return FALSE;
    }
    const BooleanT bResult = ObjReconstructFromFP(poResult, pFile);
    FileSysFClose(&pFile);
    return bResult;
}

BooleanT ObjReconstructFromFP(void** poResult, FILE* pFile) {
    if (poResult == nullptr || pFile == nullptr) {
        TraceMessageInline(150, 0, -1, "NULL argument to ObjReconstructFromFP");
        return FALSE;
    }
    ObjSerialStreamS tStream = ObjNewStream(ObjReadFromFile, pFile, FALSE, ObjFileRemaining(pFile));
    return ObjReconstructWithCallback(poResult, &tStream);
}

BooleanT ObjReconstructFromTempFile(void** poResult, const char* pstrPathName) {
    if (pstrPathName == nullptr) return FALSE;
    const BooleanT bResult = ObjReconstructFromFile(poResult, pstrPathName);
    FileDelete(pstrPathName);
    return bResult;
}
