// What is done to one chunk: plain memory in, plain memory out, from any thread.
#pragma once

#include "chunkpool.h"

// zlib's compress, at the default level. iResult is Z_OK, or Z_MEM_ERROR, or Z_BUF_ERROR when the
// room is too small; twice the input and twelve bytes always suffice.
void ChunkCompress(ChunkJobT& tJob);

// Expands one zlib stream (RFC 1950); bytes behind its end are ignored. Where the build has
// libdeflate, it goes first, as it is several times as fast; what it refuses zlib's uncompress
// decides, so that output and iResult are zlib's.
void ChunkExpand(ChunkJobT& tJob);
