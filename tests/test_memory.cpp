#include "core/context.h"
#include "core/memory.h"
#include "core/procinternal.h"
#include "support/files.h"

// The linker sends every malloc of this program to the second of these.
void* RealMalloc(std::size_t size) asm("__real_malloc");
void* WrapMalloc(std::size_t size) asm("__wrap_malloc");

namespace {

using Text = std::string;
bool g_noMemory = false;
constexpr int Pointer = sizeof(void*);
constexpr int Overhead = Pointer == 4 ? 12 : 20;

// A pool whose record is longer than the head. Its blocks are dirty, with a red zone behind them,
// and stay readable after they were freed.
struct TestPool {
    MemPoolS head = {MemPoolMagic, &Functions};
    bool fails = false;
    int asked = 0;  // size of the last request
    int freed = 0;
    std::vector<Text> blocks;

    MemPoolIdT Id() { return &head; }
    static MemPoolInterfaceT Functions;
};

TestPool* g_create = nullptr;  // what pfnCreate makes
TestPool* PoolOf(MemPoolIdT id) { return reinterpret_cast<TestPool*>(id); }

MemPoolInterfaceT TestPool::Functions = {
    [](int32 size, int32 second) {
        if (g_create != nullptr) g_create->asked = size * 100 + second;
        return reinterpret_cast<MemPoolIdT>(g_create);
    },
    [](MemPoolIdT id, int32 size) -> void* {
        PoolOf(id)->asked = size;
        if (PoolOf(id)->fails) return nullptr;
        return PoolOf(id)->blocks.emplace_back(static_cast<std::size_t>(size) + 32, '\xEE').data();
    },
    [](MemAllocHeader* block) { return BooleanFrom(++PoolOf(block->tPoolId)->freed > 0); },
    [](MemPoolIdT id) { return BooleanFrom(id->lMagic == 0x5AA80C31); },
};

// What a function traces in a child, a line "MODULE number status level text" for each message, and
// the signal that ends the child.
Text TracedInChild(const std::function<void()>& function) {
    const RunResult result = InChild([&] {
        std::signal(SIGSEGV, SIG_DFL);
        setvbuf(stdout, nullptr, _IONBF, 0);
        TraceSetCallback([](const char* p, int32, void*) {
            const auto* head = reinterpret_cast<const TraceMessageHeaderT*>(p);
            std::printf("%.3s %d %d %d %s\n", head->strModuleId, head->lTraceId, head->lStatusCode,
                        head->lLevel, p + 40);
            return TRUE;
        });
        function();
        return 0;
    });
    return result.output + (result.signal == SIGSEGV ? "SIGSEGV" : "");
}
const char* const Stop = "PRO 209 0 -1 Crash program\nSIGSEGV";

Text Address(const void* address) {
    char text[40];
    return {text, static_cast<std::size_t>(std::snprintf(text, sizeof(text), "'%p'", address))};
}

TEST(Memory, BlockLayout) {
    TestPool pool;
    for (const int size : {0, 1, 3, 4, 5, 8, 1001}) {
        SCOPED_TRACE(size);
        const int n = size % 4 == 0 ? size : size + 4 - size % 4;
        auto* data = static_cast<char*>(MemAllocateFromPool(size, pool.Id()));
        char* raw = pool.blocks.back().data();
        ASSERT_EQ(data, raw + 2 * Pointer);
        EXPECT_EQ(pool.asked, n + Overhead);
        void* head[2];
        std::memcpy(head, raw, sizeof(head));
        EXPECT_EQ(head[0], data + n);
        EXPECT_EQ(head[1], pool.Id());
        EXPECT_EQ(Text(data, n + 8), Text(n, '\0') + "\x04\x03\x02\x01\xEE\xEE\xEE\xEE");
        std::memset(data, 0x55, static_cast<std::size_t>(n));  // the filler may be written
        void* variable = data;
        EXPECT_EQ(MemFreeInternal(&variable), TRUE);
        EXPECT_EQ(variable, nullptr);
        EXPECT_EQ(Text(data, n + 4), Text(n, '\x55') + Text(4, '\0'));
        EXPECT_EQ(MemFreeInternal(&variable), FALSE);
    }
    EXPECT_EQ(pool.freed, 7);
    EXPECT_EQ(MemFreeInternal(nullptr), FALSE);
}

TEST(Memory, CountersAndTheirMirror) {
    std::mt19937 random(7);
    ProcDetailsT details = {};
    gtTlContext.sProcess.ptDetails = &details;
    int count = MemUsedCount();
    int highest = gtTlContext.sMemory.lMemMax = count;
    int made = gtTlContext.sMemory.lMemAllocations = INT_MAX - 300;  // to wrap
    std::vector<void*> live;
    for (int step = 0; step < 2000 || !live.empty(); step++) {
        const bool allocate = step < 2000 && random() % 100 < (step < 1000 ? 60 : 40);
        if (!allocate && live.empty()) continue;
        details.lMemMax = details.lMemAllocations = -7;  // not written by a free
        if (allocate) {
            live.push_back(MemAllocateFromPool(static_cast<int32>(random() % 99), nullptr));
            highest = std::max(highest, ++count);
            made = made == INT_MAX ? INT_MIN : made + 1;
        } else {
            MemFree(&live.back());
            live.pop_back();
            count--;
        }
        ASSERT_EQ(std::tuple(MemUsedCount(), MemMax(), MemAllocations()),
                  std::tuple(count, highest, made));
        ASSERT_EQ(std::tuple(details.lMemCount, details.lMemMax, details.lMemAllocations),
                  allocate ? std::tuple(count, highest, made) : std::tuple(count, -7, -7));
    }
    gtTlContext.sProcess.ptDetails = nullptr;
}

TEST(Memory, DamagedBlockIsReportedAndStopsTheProcess) {
    const std::pair<const char*, std::function<void(char*)>> damages[] = {
        {"MEM 16 1 -1 Guard band", [](char* data) { data[8] = 0; }},  // the ninth byte of five
        {"MEM 16 1 -1 Guard band", [](void* data) { MemFreeInternal(&data); }},
        {"MEM 16 1 -1 Guard band", [](char* data) { std::memset(data - 2 * Pointer, 4, Pointer); }},
        {"MEM 15 1 -1 Header", [](char* data) { std::memset(data - 2 * Pointer, 0, Pointer); }},
    };
    for (const auto& [report, damage] : damages) {
        TestPool pool;
        void* data = MemAllocateFromPool(5, pool.Id());
        MemCheck(data);
        damage(static_cast<char*>(data));
        void* guard = nullptr;
        std::memcpy(&guard, pool.blocks[0].data(), sizeof(guard));
        const Text checked = report + (" corrupted at " + Address(data)) + "\n";
        const auto check = [&] { MemCheck(data); };
        EXPECT_EQ(TracedInChild(check), checked);
        gbDoCrash = TRUE;
        EXPECT_EQ(TracedInChild(check), checked + Stop);
        gbDoCrash = FALSE;
        EXPECT_EQ(TracedInChild([&] { MemFreeInternal(&data); }),
                  "MEM 6 1 -1 Guard band corrupted at " + Address(data) + " " + Address(guard) +
                      " (" + std::to_string(MemUsedCount()) + ")\n" + Stop);
        const IgnoreCrash ignore;  // then nothing is released
        const std::tuple before(data, pool.freed);
        EXPECT_EQ(MemFreeInternal(&data), FALSE);
        EXPECT_EQ(std::tuple(data, pool.freed), before);
    }
    void* behindNull = reinterpret_cast<void*>(std::uintptr_t{2 * Pointer});
    EXPECT_EQ(TracedInChild([&] { MemCheck(behindNull); }),
              "MEM 14 1 -1 Invalid Header pointer " + Address(behindNull) + "\n");
    EXPECT_EQ(TracedInChild([] { MemCheck(nullptr); }), "");
}

TEST(Memory, ExhaustionStopsTheProcess) {
    TestPool failing;
    failing.fails = true;
    const Text refused = "MEM 17 12 -1 Failed to allocate " + std::to_string(12 + Overhead) +
                         " byte: " + std::strerror(ENOMEM) + "\n";
    const std::tuple<int32, MemPoolIdT, Text, int32> requests[] = {
        {9, nullptr, refused, 12},
        {9, MemGetDefaultPoolId(), refused + refused, 12},  // asked twice, as any pool is
        {9, failing.Id(), refused, 12},
        {INT_MAX, nullptr, "", INT_MIN},
        {INT_MAX - Overhead, failing.Id(), "", (INT_MAX - Overhead + 3) & ~3},
        {-1, failing.Id(), "", 0},
        {INT_MIN, MemGetDefaultPoolId(), "", INT_MIN},
    };
    for (const auto& request : requests) {
        const auto ask = [&] {
            g_noMemory = true;
            void* block = MemAllocateFromPool(std::get<0>(request), std::get<1>(request));
            g_noMemory = false;
            return block;
        };
        EXPECT_EQ(TracedInChild(ask), std::get<2>(request) + "MEM 4 1 -1 Unable to allocate " +
                                          std::to_string(std::get<3>(request)) +
                                          " bytes of memory\n" + Stop);
        const IgnoreCrash ignore;
        EXPECT_EQ(ask(), nullptr);
    }
    void* data = MemAllocateFromPool(6, failing.Id());  // served by the system
    EXPECT_EQ((static_cast<MemAllocHeader*>(data) - 1)->tPoolId, MemGetDefaultPoolId());
    EXPECT_EQ(MemFree(&data), TRUE);
    EXPECT_EQ(failing.freed, 0);
}

TEST(Memory, PoolFunctions) {
    TestPool pool;
    pool.head = {0, nullptr};
    MemPoolInterfaceT noCreate = {nullptr, nullptr, nullptr, nullptr};
    MemPoolS other = {MemPoolMagic + 1, &TestPool::Functions};
    MemPoolS bare = {MemPoolMagic, nullptr};
    const std::tuple<MemPoolInterfaceT*, int32, TestPool*, BooleanT, MemPoolIdT> creations[] = {
        {&TestPool::Functions, 1, nullptr, FALSE, &other},
        {&TestPool::Functions, 0, &pool, FALSE, &other},
        {nullptr, -5, &pool, FALSE, &other},
        {nullptr, 1, &pool, TRUE, nullptr},
        {&noCreate, 1, &pool, TRUE, nullptr},
        {&TestPool::Functions, 4096, &pool, TRUE, pool.Id()},
    };
    for (const auto& [functions, size, made, result, expected] : creations) {
        g_create = made;
        MemPoolIdT id = &other;
        EXPECT_EQ(MemCreatePool(&id, functions, size), result);
        EXPECT_EQ(id, expected);
    }
    EXPECT_EQ(pool.asked, 409664);
    auto* allOnes = reinterpret_cast<MemPoolIdT>(~std::uintptr_t{0});
    for (MemPoolIdT id : {pool.Id(), MemPoolIdT{}, allOnes, MemGetDefaultPoolId(), &other, &bare})
        EXPECT_EQ(MemReleasePool(&id), BooleanFrom(id == pool.Id()));
    EXPECT_EQ(MemReleasePool(nullptr), FALSE);
}

TEST(Memory, CopyZeroCat) {
    char text[] = "0123456789";
    MemCopy(text + 2, text, 6);
    EXPECT_STREQ(text, "0101234589");
    MemCopy(text, text + 3, 7);
    for (const int length : {0, -1, INT_MIN}) MemZero(text, length);
    EXPECT_STREQ(text, "1234589589");
    MemZero(text + 1, 8);
    MemZero(nullptr, 4);
    EXPECT_EQ(Text(text, 10), "1" + Text(8, '\0') + "9");
    const int before = MemUsedCount();
    ByteT tail[] = {'c', 0, 'd'};
    ByteT* joined = MemCat(nullptr, 2, tail, 3);  // a missing buffer leaves its room zero
    joined = MemCat(joined, 5, nullptr, 1);
    EXPECT_EQ(Text(joined, joined + 6), Text("\0\0c\0d\0", 6));
    EXPECT_EQ(MemUsedCount(), before + 1);
    MemFree(&joined);
    const IgnoreCrash ignore;
    for (const int size : {INT_MAX, -4}) EXPECT_EQ(MemCat(nullptr, size, tail, 3), nullptr);
}

}  // namespace

void* WrapMalloc(std::size_t size) {
    if (!g_noMemory) return RealMalloc(size);
    errno = ENOMEM;
    return nullptr;
}
