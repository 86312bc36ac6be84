// Stands between the program and the C library by the linker's --wrap.
#include "support/faults.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#ifdef TESSEL_HAVE_LIBDEFLATE
#include <libdeflate.h>
#endif

namespace {

Fault g_fault;
bool g_armed = false;
// Compressions and expansions are called by workers too.
std::atomic<int> g_calls = 0;  // of the armed kind
std::atomic<int> g_hits = 0;
bool g_diskFull = false;
bool g_copyRefused = false;
std::size_t g_room = 0;

bool Hit(Call call) {
    if (!g_armed || g_fault.call != call) return false;
    const int calls = ++g_calls;
    if (calls < g_fault.nth || calls - g_fault.nth >= g_fault.times) return false;
    g_hits++;
    return true;
}

// TRUE when this call fails, with errno set.
bool Fails(Call call) {
    if (!Hit(call)) return false;
    errno = g_fault.error;
    return true;
}

// Length of this transfer; FALSE when it fails.
bool Transfer(Call call, std::size_t& size) {
    if (!Hit(call)) return true;
    errno = g_fault.error;
    size = std::min(size, g_fault.atMost);
    return g_fault.error == 0;
}

// Length of this write; FALSE when the disk has no room for any.
bool FindRoom(std::size_t& size) {
    if (!g_diskFull) return true;
    if (size > g_room) {
        g_hits++;
        size = g_room;
        if (g_room == 0) {
            errno = ENOSPC;
            return false;
        }
    }
    g_room -= size;
    return true;
}

std::atomic<bool> g_nextBegun = false, g_markedFailed = false;

void Await(const std::atomic<bool>& event) {
    while (g_fault.together && !event) sched_yield();
}

// Whether compressing or expanding the chunk with this first byte, -1 for an empty one, fails.
bool ChunkFails(Call call, int first) {
    if (!g_armed || g_fault.call != call || g_fault.marked < 0) return Hit(call);
    if (first == g_fault.marked + 1) {
        g_nextBegun = true;
        Await(g_markedFailed);
    }
    if (first != g_fault.marked) return false;
    Await(g_nextBegun);
    g_hits++;
    g_markedFailed = true;
    return true;
}

}  // namespace

void FaultArm(const Fault& fault) {
    g_fault = fault;
    g_armed = true;
    g_copyRefused = fault.copyRefused;
    g_calls = 0;
    g_hits = 0;
    g_nextBegun = false;
    g_markedFailed = false;
}

void FaultArmFullDisk(std::size_t room, bool copyRefused) {
    g_diskFull = true;
    g_copyRefused = copyRefused;
    g_room = room;
    g_hits = 0;
}

int FaultDisarm() {
    g_armed = false;
    g_diskFull = false;
    g_copyRefused = false;
    return g_hits;
}

// The symbols that --wrap puts in the place of a function: of the stand-in and of the function.
// Names are those that a program built for large files calls.
#define WRAPPED(result, name, symbol, parameters)           \
    result Real##name parameters __asm__("__real_" symbol); \
    result Wrap##name parameters __asm__("__wrap_" symbol);

// A stand-in for a call of that kind which either fails or is made.
#define FAILING(call, symbol, parameters, arguments) \
    WRAPPED(int, call, symbol, parameters)           \
    int Wrap##call parameters { return Fails(Call::call) ? -1 : Real##call arguments; }

FAILING(Rename, "rename", (const char* from, const char* to), (from, to))
FAILING(Unlink, "unlink", (const char* path), (path))
FAILING(Mkdir, "mkdir", (const char* path, mode_t mode), (path, mode))
FAILING(Fsync, "fsync", (int fd), (fd))
FAILING(Stat, "stat64", (const char* path, void* status), (path, status))
FAILING(Fstat, "fstat64", (int fd, void* status), (fd, status))
FAILING(Allocate, "fallocate64", (int fd, int mode, off_t offset, off_t size),
        (fd, mode, offset, size))

WRAPPED(void*, Malloc, "malloc", (std::size_t size))
void* WrapMalloc(std::size_t size) { return Fails(Call::Malloc) ? nullptr : RealMalloc(size); }

// The library always passes the permissions.
WRAPPED(int, Open, "open64", (const char* path, int flags, mode_t mode))
int WrapOpen(const char* path, int flags, mode_t mode) {
    const bool fails = Fails(Call::Open);
    if (fails && g_fault.error != 0) return -1;
    if (FILE* file = fails ? std::fopen(path, "w") : nullptr; file != nullptr) {
        std::fputs("another's", file);
        std::fclose(file);
    }
    return RealOpen(path, flags, mode);
}

WRAPPED(ssize_t, Read, "read", (int fd, void* buffer, std::size_t size))
ssize_t WrapRead(int fd, void* buffer, std::size_t size) {
    return Transfer(Call::Read, size) ? RealRead(fd, buffer, size) : -1;
}

WRAPPED(ssize_t, Write, "write", (int fd, const void* buffer, std::size_t size))
ssize_t WrapWrite(int fd, const void* buffer, std::size_t size) {
    return FindRoom(size) && Transfer(Call::Write, size) ? RealWrite(fd, buffer, size) : -1;
}

WRAPPED(int, Close, "close", (int fd))
int WrapClose(int fd) {
    const int result = RealClose(fd);
    return Fails(Call::Close) ? -1 : result;
}

WRAPPED(int, Compress, "compress",
        (Bytef * dest, uLongf* destLen, const Bytef* source, uLong sourceLen))
int WrapCompress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
    if (ChunkFails(Call::Compress, sourceLen == 0 ? -1 : *source)) return g_fault.error;
    return RealCompress(dest, destLen, source, sourceLen);
}

WRAPPED(int, Uncompress, "uncompress",
        (Bytef * dest, uLongf* destLen, const Bytef* source, uLong sourceLen))
int WrapUncompress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
    const int result = RealUncompress(dest, destLen, source, sourceLen);
    return ChunkFails(Call::Uncompress, *destLen == 0 ? -1 : *dest) ? g_fault.error : result;
}

#ifdef TESSEL_HAVE_LIBDEFLATE
WRAPPED(libdeflate_result, Deflate, "libdeflate_zlib_decompress",
        (libdeflate_decompressor * state, const void* in, std::size_t inSize, void* out,
         std::size_t outSize, std::size_t* outLength))

// Faults of expanding are those of uncompress, which decides what is refused here.
libdeflate_result WrapDeflate(libdeflate_decompressor* state, const void* in, std::size_t inSize,
                              void* out, std::size_t outSize, std::size_t* outLength) {
    if (g_armed && g_fault.call == Call::Uncompress) return LIBDEFLATE_BAD_DATA;
    return RealDeflate(state, in, inSize, out, outSize, outLength);
}
#endif

// More is asked for than there is to copy.
WRAPPED(ssize_t, Copy, "copy_file_range",
        (int in, off_t* inOffset, int out, off_t* outOffset, std::size_t size, unsigned flags))
ssize_t WrapCopy(int in, off_t* inOffset, int out, off_t* outOffset, std::size_t size,
                 unsigned flags) {
    if (g_copyRefused) {
        errno = EXDEV;
        return -1;
    }
    struct stat status = {};
    const off_t at = lseek(in, 0, SEEK_CUR);
    if (g_diskFull && fstat(in, &status) == 0)
        size = std::min(size, static_cast<std::size_t>(status.st_size - at));
    if (size > 0 && !FindRoom(size)) return -1;
    return Transfer(Call::Copy, size) ? RealCopy(in, inOffset, out, outOffset, size, flags) : -1;
}

WRAPPED(int, Thread, "pthread_create",
        (pthread_t * thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument))
int WrapThread(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
               void* argument) {
    if (Fails(Call::Thread)) return g_fault.error;
    return RealThread(thread, attributes, run, argument);
}
