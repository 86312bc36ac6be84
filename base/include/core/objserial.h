// Object streams: any object graph as self-describing little-endian bytes, and back. The stream
// carries each object's magic and descriptor, so a reader rebuilds classes that it never declared
// and notices a changed shape. The format is laid down in docs/formats.md.
//
// Readers trust nothing: a length or count is checked against what the source still holds before
// anything is allocated for it, and nesting is bounded (ObjMaximumDepth). A class of this program
// in another shape, without a translator, is refused. Classes that this program does not know are
// kept for good, so that no more than 4096 of them are taken; one of them gives way when the
// program declares its own shape, unless objects of the stream's shape are still there, which is
// the forced stop. A stream may describe objects that hold each other, which releasing them does
// not free (ObjReleaseContents breaks the circle); ObjReconstructWithoutCircles refuses those. A
// failed read leaves nothing behind.
#pragma once

#include <cstdio>

#include "core/object.h"
#include "core/types.h"

// Moves lSize bytes to or from the cookie's sink or source; FALSE ends the transfer.
using ObjTransferFnT = BooleanT (*)(void* pCookie, void* pBuffer, int32 lSize);

constexpr int64 ObjRemainingUnknown = -1;

struct ObjSerialStreamS {
    ObjTransferFnT pfnCallback;
    void* pCookie;
    MapO oMap;          // shared objects met so far; made and released by the ...WithCallback forms
    int32 lLastId;      // last map id handed out while writing
    BooleanT bIsLocal;  // stays within the process: private links and whole pointers travel too
    int64 llRemaining;  // reading: bytes left in the source, or ObjRemainingUnknown
    int32 lDepth;       // objects being transferred, one inside the other
    BooleanT bNoCircles;  // reading: objects that hold each other are a failure
};
using ObjSerialStreamT = ObjSerialStreamS*;

struct ObjMapEntryT {
    int32 lMapId;
    void* oObject;
    BooleanT bClosed;  // reading: the whole object has been read
};

// A growing buffer over memory of the caller's, which is replaced by a block of the library's once
// it is too small. lReserved bytes at the front are the caller's.
struct ObjBufferDescriptorT {
    void* pBuffer;
    int32 lSize;  // capacity
    int32 lUsed;  // bytes written, the reserved ones included
    int32 lReserved;
    BooleanT bReallocated;  // the buffer is the library's to free
};

// --- with a stream of the caller's making ---

// One object reference, without setting the stream up or closing it.
BooleanT ObjSerialize(void* oSource, ObjSerialStreamT tStream);
BooleanT ObjReconstruct(void** poResult, ObjSerialStreamT tStream);
// One whole stream, from an empty map to its release.
BooleanT ObjSerializeWithCallback(void* oSource, ObjSerialStreamT tStream);
BooleanT ObjReconstructWithCallback(void** poResult, ObjSerialStreamT tStream);

// --- memory ---

int32 ObjSerializedSize(void* oSource);  // bytes, -1 on failure
int32 ObjSerializedSizeLocal(void* oSourceObject);
// The block must hold ObjSerializedSize (ObjSerializedSizeLocal) bytes; plSize may be null.
BooleanT ObjSerializeToMemory(void* oSource, void* pBuffer, int32* plSize);
BooleanT ObjSerializeLocal(void* oSource, void* pBuffer, int32* plSize);
// The bytes must be a whole stream of this library's writing: their number is not known here.
BooleanT ObjReconstructFromMemory(void** poResult, const void* pBuffer);
// For bytes from outside: never reads past the lSize bytes; running out of them is a failure.
BooleanT ObjReconstructFromMemorySized(void** poResult, const void* pBuffer, int32 lSize);
// The same where objects that hold each other are a failure, so that releasing what was read frees
// all of it.
BooleanT ObjReconstructWithoutCircles(void** poResult, const void* pBuffer, int32 lSize);
// Like ObjReconstructFromMemorySized, for a stream written by ObjSerializeLocal.
BooleanT ObjReconstructLocal(void** poResult, const void* pBuffer, int32 lSize);
// Only a stream that begins with an object of that class held once; lSize is not consulted.
BooleanT ObjReconstructObjectFromMemory(void** poResult, const void* pBuffer, int32 lSize,
                                        int32 lMagic);

// --- growing buffers ---

// Appends a frame: its whole length, the type word, the object.
BooleanT ObjSerializeToBuffer(void* oSource, int32 lType, ObjBufferDescriptorT* pBufferDescriptor);
// Appends a length word (when asked), the caller's header and the object.
BooleanT ObjSerializeToBufferCustomHead(void* oSource, ObjBufferDescriptorT* ptBufferDescriptor,
                                        int32 lHeaderSize, void* pvHeader, BooleanT bWriteSize);
BooleanT ObjSerializeToBufferNoHead(int32* plSerializedSize, void* oSource,
                                    ObjBufferDescriptorT* pBufferDescriptor);
BooleanT ObjBufferInsertBytes(int32 lBytes, void* pvBytes,
                              ObjBufferDescriptorT* ptBufferDescriptor);
// A new descriptor, freed with ObjBufferDescriptorFree; pBuffer may be null with size 0.
BooleanT ObjBufferDescriptorCreate(ObjBufferDescriptorT** ppBufferDescriptor, void* pBuffer,
                                   int32 lSize, int32 lInitialUsage);
// The buffer stays the descriptor's and may move with the next append.
BooleanT ObjBufferDescriptorGetBuffer(void** ppvBuffer, int32* plBytesUsed,
                                      ObjBufferDescriptorT* ptDescriptor);
BooleanT ObjBufferDescriptorFree(ObjBufferDescriptorT** ppDescriptor);
void ObjBufferDescriptorReset(ObjBufferDescriptorT* ptDescriptor);
// Of a frame: bytes of its object stream (whole length less 8) and its type word.
void ObjBufferAnalyze(void* pBuffer, int32* plSize, int32* plType);
int32 ObjBufferSerializedObjectSize(void* pBuffer);
int32 ObjBufferMsgType(void* pBuffer);

// --- files ---

BooleanT ObjSerializeToFile(void* oSource, const char* pstrFileName);  // created or truncated
BooleanT ObjSerializeToFP(void* oSource, FILE* pFile);
// A new file in the temporary directory; the caller frees the path.
BooleanT ObjSerializeToTempFile(char** ppstrFileName, ProcIdT tOwner, void* oObject);
BooleanT ObjReconstructFromFile(void** poResult, const char* pstrFileName);
BooleanT ObjReconstructFromFP(void** poResult, FILE* pFile);
// Deletes the file whether or not the read succeeded.
BooleanT ObjReconstructFromTempFile(void** poResult, const char* pstrPathName);
