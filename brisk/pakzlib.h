// Archives: files packed as zlib-compressed chunks behind a self-describing list of file headers.
//
// An archive is written in one go: PakZlibInitialize, any number of PakZlibCompress... calls,
// PakZlibFinalize. The compressed chunks go to a temporary file first, because the header list that
// precedes them is known only at the end. The format is laid down in docs/formats.md.
//
// Every operation reports failure by FALSE and a trace line of module "PAKZLIB".
//
// The chunks of a file are compressed and expanded by worker threads, as many as the process has
// processors. That is not to be seen but in the time it takes: all the rest happens in the calling
// thread and in the order of the chunks, and no thread outlives the call.
#pragma once

#include "core/list.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/types.h"

constexpr int32 PakZlibChunkSize = 65536;  // uncompressed bytes of every chunk but the last
constexpr int32 PakZlibSizeField = 4;      // bytes of the header list's length in front of it
constexpr int32 PakZlibLargestCompressed = 131072;  // compressed bytes of a chunk at the most

// Descriptor "o;s;p;s;p;o;o;".
struct PakZlibContextS {
    ListO oHeaders;              // of PakZlibFileHeaderO, one per completed file, in order
    char* pstrTempCompressFile;  // path of the temporary file
    FileHandleT tTempFileHandle;
    char* pstrOutputFile;  // reserved
    FileHandleT tOutputFileHandle;
    ListO oInputFiles;          // reserved: an empty list
    void* oPendingChunkHeader;  // the file being fed (PakZlibPendingFileHeaderO), or null
};
using PakZlibContextO = PakZlibContextS*;
constexpr int32 PakZlibContextMagic = ObjMagic(0xca06d793);

// Descriptor "s;s;i;i;i;o;o;o;". The lengths are sums that wrap at 32 bits; nothing reads them
// back.
struct PakZlibFileHeaderS {
    char* pstrFileName;  // leaf name under which the file is stored
    char* pstrRelativePath;
    int32 lCompressedLength;
    int32 lUncompressedLength;
    int32 lChunkCount;
    ListO oChunkLengths;  // of ObjIntegerO: compressed length of each chunk, in order
    void* oFileInfo;
    void* oExt;
};
using PakZlibFileHeaderO = PakZlibFileHeaderS*;
constexpr int32 PakZlibFileHeaderMagic = ObjMagic(0xca06d747);

// Descriptor "o;i;n65536;o;".
struct PakZlibPendingFileHeaderS {
    PakZlibFileHeaderO oHeader;
    int32 lBufLen;  // bytes held in acBuffer
    ByteT acBuffer[PakZlibChunkSize];
    void* oExt;
};
using PakZlibPendingFileHeaderO = PakZlibPendingFileHeaderS*;
constexpr int32 PakZlibPendingFileHeaderMagic = ObjMagic(0xca1113ce);

// The most workers from now on for a file, 0 for none. A file of one chunk never has any.
constexpr int32 PakZlibAllProcessors = -1;  // as many as ProcessorCount says, where they pay
void PakZlibUseWorkers(int32 lWorkers);

// --- writing ---

// Opens a new archive at a path that does not exist yet. On failure *poContext is untouched and
// what was created so far (archive file, temporary file) stays.
BooleanT PakZlibInitialize(PakZlibContextO* poContext, const char* pstrOutputFile);

// Adds the file at pstrPath under the leaf of pstrFileName (of pstrPath when that is null). Refuses
// directories and files that change size while they are read.
BooleanT PakZlibCompressFile(PakZlibContextO oContext, const char* pstrPath,
                             const char* pstrFileName);

// Adds every path of a list of string objects, each under its own leaf.
BooleanT PakZlibCompressFileList(PakZlibContextO oContext, ListO oFilePaths);

// Adds an object's stream as a file; FALSE when that is longer than one chunk.
BooleanT PakZlibCompressObject(PakZlibContextO oContext, void* oObject, const char* pstrFileName);

// Feeds at most one chunk of bytes to the file pstrFileName, which must be the one being fed; the
// last call of a file completes it, also when it fails.
BooleanT PakZlibCompressInChunks(PakZlibContextO oContext, const char* pstrFileName, void* pBuffer,
                                 int32 lBufLen, BooleanT bLastChunk);

// Writes the archive and releases the context in any case; FALSE when the archive is not complete.
BooleanT PakZlibFinalize(PakZlibContextO* poContext);

// Closes and deletes the temporary file, closes the archive, releases the context.
BooleanT PakZlibCleanupContext(PakZlibContextO* poContext);

// --- reading ---

// Restores every file of an archive into a directory, which is made when missing. Trusts nothing in
// the archive: names with a directory in them, "." and ".." are refused. What was restored before a
// failure stays. An archive whose objects have another shape than this program's stops the process.
BooleanT PakZlibUncompress(const char* pstrCompressedFile, const char* pstrTargetDir);

// The same from a header list, with the archive positioned at the first chunk.
BooleanT PakZlibUncompressFromHeaderList(FileHandleT tCompressedHandle, ListO oHeaderList,
                                         const char* pstrOutputDir);
BooleanT PakZlibUncompressFile(FileHandleT tCompressedHandle, PakZlibFileHeaderO oHeader,
                               const char* pstrOutputDir);
// One chunk of lReadLen compressed bytes; pCompressedBuffer holds PakZlibLargestCompressed bytes.
// plWritten receives the bytes written.
BooleanT PakZlibReadUncompressWrite(int32* plWritten, int32 lReadLen, FileHandleT tCompressedHandle,
                                    FileHandleT tDestHandle, ByteT* pCompressedBuffer,
                                    ByteT* pDestBuffer, int32 lDestBufSize);
