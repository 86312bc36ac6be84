#include "chunksteps.h"

#include <zlib.h>

#ifdef TESSEL_HAVE_LIBDEFLATE
#include <libdeflate.h>
#endif

namespace {

#ifdef TESSEL_HAVE_LIBDEFLATE

// One for each thread that expands, made for its first chunk. There is none when memory is short.
struct Decompressor {
    libdeflate_decompressor* pState = libdeflate_alloc_decompressor();
    Decompressor() = default;
    ~Decompressor() { libdeflate_free_decompressor(pState); }
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;
};

bool ExpandFast(ChunkJobT& tJob) {
    thread_local const Decompressor tDecompressor;
    std::size_t iLength = 0;
    if (tDecompressor.pState == nullptr ||
        libdeflate_zlib_decompress(tDecompressor.pState, tJob.pInput,
                                   static_cast<std::size_t>(tJob.lInputLength), tJob.pOutput,
                                   static_cast<std::size_t>(tJob.lOutputRoom),
                                   &iLength) != LIBDEFLATE_SUCCESS) {
        return false;
    }
    tJob.lOutputLength = static_cast<int32>(iLength);
    tJob.iResult = Z_OK;
    return true;
}

#else

bool ExpandFast(ChunkJobT&) { return false; }

#endif

}  // namespace

void ChunkCompress(ChunkJobT& tJob) {
    auto iLength = static_cast<uLongf>(tJob.lOutputRoom);
    tJob.iResult =
        compress(tJob.pOutput, &iLength, tJob.pInput, static_cast<uLong>(tJob.lInputLength));
    tJob.lOutputLength = static_cast<int32>(iLength);
}

void ChunkExpand(ChunkJobT& tJob) {
    if (ExpandFast(tJob)) return;
    auto iLength = static_cast<uLongf>(tJob.lOutputRoom);
    tJob.iResult =
        uncompress(tJob.pOutput, &iLength, tJob.pInput, static_cast<uLong>(tJob.lInputLength));
    tJob.lOutputLength = static_cast<int32>(iLength);
}
