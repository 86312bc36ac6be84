// Object streams from outside. What can be read must survive writing, reading again, copying and
// walking, and nothing may be left over at the end.
#include "core/objserial.h"
#include "fuzzsupport.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    FuzzInitialize("/nonexistent");
    return 0;
}

namespace {

using Bytes = std::vector<ByteT>;

bool Write(void* o, Bytes& bytes) {
    const int32 lSize = ObjSerializedSize(o);
    if (lSize < 0) return false;
    bytes.resize(static_cast<std::size_t>(lSize));
    int32 lWritten = 0;
    if (ObjSerializeToMemory(o, bytes.data(), &lWritten) != TRUE || lWritten != lSize) std::abort();
    return true;
}

// A graph that was read is written to bytes that give themselves again.
void CheckRoundTrip(void* o) {
    Bytes first;
    if (!Write(o, first)) return;
    void* oAgain = nullptr;
    if (ObjReconstructFromMemorySized(&oAgain, first.data(), static_cast<int32>(first.size())) !=
        TRUE) {
        return;  // a class whose template is another one by now
    }
    Bytes second;
    if (!Write(oAgain, second) || second != first) std::abort();
    ReleaseGraph(oAgain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const NothingLeft nothingLeft(false);
    // In a block of exactly this size, so that a read past the end shows.
    const Bytes input(data, data + size);
    void* o = nullptr;
    if (ObjReconstructFromMemorySized(&o, input.data(), static_cast<int32>(size)) == TRUE) {
        CheckRoundTrip(o);
        void* oCopy = nullptr;
        if (o != nullptr && ObjDuplicateInternal(&oCopy, o, TRUE) == TRUE) ReleaseGraph(oCopy);
        if (o != nullptr) ReleaseGraph(o);
    }
    return 0;
}
