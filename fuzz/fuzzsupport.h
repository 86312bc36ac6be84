// What the fuzzers share.
#pragma once

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objwalk.h"
#include "core/tree.h"

inline void Expect(bool good) {
    if (!good) std::abort();
}

// That after the input there are as many objects, and blocks of memory, as before.
class NothingLeft {
 public:
    explicit NothingLeft(bool blocks = true) : m_blocks(blocks ? MemUsedCount() : -1) {}
    ~NothingLeft() {
        Expect(ObjCount() == m_objects && (m_blocks == -1 || MemUsedCount() == m_blocks));
    }
    NothingLeft(const NothingLeft&) = delete;
    NothingLeft& operator=(const NothingLeft&) = delete;

 private:
    const int32 m_objects = ObjCount();
    const int32 m_blocks;
};

inline void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

inline std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline struct sigaction g_previousHandler;

// The forced stop sends SIGSEGV to the own process: an answer, not a finding. Real faults go on to
// the handler that reports them.
inline void PassForcedStop(int signal, siginfo_t* info, void* context) {
    if (info->si_code <= 0 && info->si_pid == getpid()) return;
    if ((g_previousHandler.sa_flags & SA_SIGINFO) != 0) {
        g_previousHandler.sa_sigaction(signal, info, context);
    }
    std::abort();
}

inline void FuzzInitialize(const char* home, bool trace = false) {
    setenv("KRHOME", home, 1);
    Expect(ContextInitialize() == TRUE);
    if (!trace) TraceSetBuffer(nullptr);  // what is traced is not looked at
    struct sigaction pass = {};
    pass.sa_flags = SA_SIGINFO;
    pass.sa_sigaction = PassForcedStop;
    sigaction(SIGSEGV, &pass, &g_previousHandler);
}

// A home directory of the fuzzer's own, in memory where the host has a place for that, with one
// directory in it; removed at the end.
inline std::string FuzzMakeHome(const char* directory, bool trace = false) {
    namespace fs = std::filesystem;
    static std::string home = fs::exists("/dev/shm") ? "/dev/shm/fuzzXXXXXX" : "/tmp/fuzzXXXXXX";
    Expect(mkdtemp(home.data()) != nullptr);
    std::atexit([] { fs::remove_all(home); });
    fs::create_directories(home + "/" + directory);
    FuzzInitialize(home.c_str(), trace);
    return home;
}

inline ObjWalkResultE CollectObject(void* pCookie, void** poVisited) {
    int32 lMagic = 0;
    if (ObjGetMagic(*poVisited, &lMagic) != TRUE) return eObjWalkResultAbort;
    if (lMagic != ListNodeMagic && lMagic != TreeNodeMagic) {
        ObjIncRefCount(*poVisited);
        static_cast<std::vector<void*>*>(pCookie)->push_back(*poVisited);
    }
    return eObjWalkResultContinue;
}

// Releases a graph also where its objects hold each other.
inline void ReleaseGraph(void* oRoot) {
    std::vector<void*> objects;
    ObjWalk(&oRoot, CollectObject, &objects, nullptr);
    for (void* o : objects) ObjReleaseContents(o);
    for (void* o : objects) ObjReleaseInternal(&o);
    ObjReleaseInternal(&oRoot);
}
