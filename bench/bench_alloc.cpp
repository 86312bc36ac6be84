// Blocks from the default pool beside calloc and free: one block at a time, and a thousand blocks
// that live together and go in another order than they came.
#include <malloc.h>

#include <cstdlib>
#include <string>

#include "core/context.h"
#include "core/memory.h"
#include "report.h"

namespace {

constexpr int BatchCount = 1000;

struct Pool {
    static void* Allocate(int32 size) { return MemAllocateFromPool(size, MemGetDefaultPoolId()); }
    static void Free(void* block) { MemFreeInternal(&block); }
};

struct System {
    static void* Allocate(int32 size) { return std::calloc(1, static_cast<std::size_t>(size)); }
    static void Free(void* block) { std::free(block); }
};

template <class Side>
void One(benchmark::State& state, int32 size) {
    for (auto _ : state) {
        void* block = Side::Allocate(size);
        benchmark::DoNotOptimize(block);
        Side::Free(block);
    }
}

template <class Side>
void Batch(benchmark::State& state, int32 size) {
    void* blocks[BatchCount];
    const auto round = [&] {
        for (void*& block : blocks) block = Side::Allocate(size);
        // 7 and 1000 have no common divisor, so that every block is met once.
        for (int i = 0; i < BatchCount; ++i) Side::Free(blocks[i * 7 % BatchCount]);
    };
    // A heap that other sizes have not cut up, and whose pages are there.
    malloc_trim(0);
    round();
    for (auto _ : state) round();
    state.SetItemsProcessed(state.iterations() * BatchCount);
}

template <class Side>
void RegisterSide(const std::string& side) {
    for (const int32 size : {16, 64, 256, 4096, 65536}) {
        const std::string bytes = std::to_string(size) + " bytes";
        Register(bytes + ", one", side, [size](auto& state) { One<Side>(state, size); });
        Register(bytes + ", of 1000", side, [size](auto& state) { Batch<Side>(state, size); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (ContextInitialize() != TRUE) return 1;
    RegisterSide<Pool>("tessel");
    RegisterSide<System>("calloc, free");
    return RunPairs(argc, argv, "Allocate and free", 1.5);
}
