#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "core/context.h"
#include "core/procinternal.h"
#include "support/objects.h"
#include "support/support.h"

// The subsystems in their process-wide order, each with the lengths of its three entry points'
// names: the linker sends the calls of all of them here (test_context.options).
// clang-format off
#define SUBSYSTEMS(X)                                                                             \
    X(Trace, 15, 21, 18) X(Memory, 16, 22, 19) X(Sys, 13, 19, 16) X(Path, 14, 20, 17)             \
    X(Sig, 13, 19, 16) X(Map, 13, 19, 16) X(Obj, 13, 19, 16) X(List, 14, 20, 17)                  \
    X(Tree, 14, 20, 17) X(ObjMap, 16, 22, 19) X(ObjWrappers, 21, 27, 24) X(ProcApi, 17, 23, 20)   \
    X(StrBase, 17, 23, 20) X(StnzFile, 18, 24, 21) X(Net, 13, 19, 16) X(Unique, 16, 22, 19)       \
    X(TimeConv, 18, 24, 21) X(Time, 14, 20, 17) X(Locale, 16, 22, 19) X(Shm, 13, 19, 16)          \
    X(Security, 18, 24, 21) X(Process, 17, 23, 20) X(Msg, 13, 19, 16) X(MsgWait, 17, 23, 20)      \
    X(Timer, 15, 21, 18) X(Log, 13, 19, 16)
// clang-format on

using Text = std::string;

// What was called, in words such as "+Trace " (process-wide), "Trace " and "-Trace " (released).
Text g_calls;

// Notes a call. A process may be asked to show its calls and to let one of them fail.
BooleanT Called(const Text& word) {
    g_calls += word;
    const char* failing = std::getenv("TEST_FAILING");
    if (failing == nullptr) return TRUE;
    std::printf("%s", word.c_str());
    return BooleanFrom(word != failing);
}

#define WRAPPED(result, name, symbol, parameters)         \
    result Real##name parameters asm("__real__Z" symbol); \
    result Wrap##name parameters asm("__wrap__Z" symbol)
#define CONTEXT "P14TesselContextT"
#define WRAP(name, i, t, r)                                                                  \
    WRAPPED(BooleanT, name, #i #name "Initializev", ());                                     \
    WRAPPED(BooleanT, Thread##name, #t #name "InitializeThread" CONTEXT, (TesselContextT*)); \
    WRAPPED(void, Release##name, #r #name "ReleaseThread" CONTEXT, (TesselContextT*));       \
    BooleanT Wrap##name() { return Called("+" #name " ") == TRUE ? Real##name() : FALSE; }   \
    BooleanT WrapThread##name(TesselContextT* context) {                                     \
        return Called(#name " ") == TRUE ? RealThread##name(context) : FALSE;                \
    }                                                                                        \
    void WrapRelease##name(TesselContextT* context) {                                        \
        Called("-" #name " ");                                                               \
        RealRelease##name(context);                                                          \
    }
SUBSYSTEMS(WRAP)

namespace {

#define NAME(name, i, t, r) Text(#name) + " ",
const std::vector<Text> Names = {SUBSYSTEMS(NAME)};
const std::vector<Text> ThreadNames = [] {
    std::vector<Text> names = Names;
    std::swap(names[3], names[4]);  // signals come before paths
    return names;
}();

// What is asked before anything is initialised.
int g_kept;
const std::vector<bool> BeforeStart = {
    ContextIsInitialized() == TRUE, ContextThreadIsInitialized() == TRUE,
    ContextSetThreadData(&g_kept) == TRUE, ContextGetThreadData() != nullptr};

Text Calls(const char* prefix, std::vector<Text> names, std::size_t count = 26) {
    Text text;
    for (std::size_t i = 0; i < count; i++) text += prefix + names[i];
    return text;
}

Text Released() { return Calls("-", {ThreadNames.rbegin(), ThreadNames.rend()}); }

TEST(Context, FailuresAtStart) {
    // What this program prints when it starts with an entry point that fails.
    const auto failing = [self = Text(std::filesystem::read_symlink("/proc/self/exe"))](auto call) {
        const RunResult result = ::Run({self}, {"TEST_FAILING=" + call});
        return result.output + std::to_string(result.exitCode);
    };
    const Text end = "the library did not start\n1";
    for (std::size_t i = 0; i < 26; i++) {
        // The code is printed and the rest not called.
        EXPECT_EQ(failing("+" + Names[i]),
                  Calls("+", Names, i + 1) + std::to_string(397 + 5 * i) + "\n" + end);
        // All are released, also those not yet filled.
        EXPECT_EQ(failing(ThreadNames[i]),
                  Calls("+", Names) + Calls("", ThreadNames, i + 1) + Released() + end);
    }
}

TEST(Context, StartsOnceAndAgainAfterRelease) {
    EXPECT_EQ(g_calls, Calls("+", Names) + Calls("", ThreadNames));
    EXPECT_EQ(umask(0), 0U);
    g_calls.clear();
    EXPECT_EQ(ContextInitialize(), TRUE);
    ProcDetailsT details = {};
    gtTlContext.sProcess.ptDetails = &details;
    ContextReleaseThread();
    EXPECT_EQ(gtTlContext.sProcess.ptDetails, nullptr);
    EXPECT_EQ(TraceGetBuffer(), nullptr);
    EXPECT_EQ(ContextInitializeThread(), TRUE);
    EXPECT_NE(TraceGetBuffer(), nullptr);
    EXPECT_EQ(g_calls, Released() + Calls("", ThreadNames));
}

TEST(Context, IsOneAndUnthreaded) {
    EXPECT_EQ(BeforeStart, std::vector<bool>(4, false));
    EXPECT_EQ(ContextAllowThreading() + ContextIsThreaded() + ContextIsMultiThreaded(), FALSE);
    EXPECT_EQ(ContextIsInitialized() + ContextThreadIsInitialized(), 2 * TRUE);
    static TesselContextT other = {};
    ContextSet(&other);
    EXPECT_EQ(ContextGet(), &gtTlContext);
    EXPECT_EQ(ContextGetThreadData(), nullptr);
    for (int* kept : {&g_kept, static_cast<int*>(nullptr)}) {
        EXPECT_EQ(ContextSetThreadData(kept), TRUE);
        EXPECT_EQ(ContextGetThreadData(), kept);
        EXPECT_EQ(gtTlContext.pThreadData, kept);
    }
}

TEST(Context, ObjectsOneOfEachClass) {
    const ObjHolder<void> first(ObjIntegerNew(1)), second(ObjIntegerNew(2));
    ObjHolder<void> found;
    EXPECT_EQ(ContextGetContextObject(found.Address(), ObjIntegerMagic), FALSE);
    for (const auto* object : {&first, &second})
        EXPECT_EQ(ContextSetContextObject(object->Get()), TRUE);
    EXPECT_EQ(ContextGetContextObject(found.Address(), ObjStringMagic), FALSE);
    EXPECT_EQ(ContextGetContextObject(found.Address(), ObjIntegerMagic), TRUE);
    EXPECT_EQ(found.Get(), second.Get());
    EXPECT_EQ(Holders(first.Get()) * 10 + Holders(second.Get()), 13);
    ObjRelease(&gtTlContext.sProcess.oExtendibleContext);
}

}  // namespace
