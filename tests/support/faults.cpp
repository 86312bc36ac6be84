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
#define WRAPPED(result, name, symbol, parameters)           \
    result Real##name parameters __asm__("__real_" symbol); \
    result Wrap##name parameters __asm__("__wrap_" symbol)

WRAPPED(void*, Malloc, "malloc", (std::size_t size));
// The library always passes the permissions.
WRAPPED(int, Open, "open", (const char* path, int flags, mode_t mode));
WRAPPED(int, Open64, "open64", (const char* path, int flags, mode_t mode));
WRAPPED(ssize_t, Read, "read", (int fd, void* buffer, std::size_t size));
WRAPPED(ssize_t, Write, "write", (int fd, const void* buffer, std::size_t size));
WRAPPED(int, Close, "close", (int fd));
WRAPPED(int, Rename, "rename", (const char* from, const char* to));
WRAPPED(int, Unlink, "unlink", (const char* path));
WRAPPED(int, Mkdir, "mkdir", (const char* path, mode_t mode));
WRAPPED(int, Fsync, "fsync", (int fd));
WRAPPED(int, Stat, "stat", (const char* path, void* status));
WRAPPED(int, Stat64, "stat64", (const char* path, void* status));
WRAPPED(int, Fstat, "fstat", (int fd, void* status));
WRAPPED(int, Fstat64, "fstat64", (int fd, void* status));
WRAPPED(int, Compress, "compress",
        (Bytef * dest, uLongf* destLen, const Bytef* source, uLong sourceLen));
WRAPPED(int, Uncompress, "uncompress",
        (Bytef * dest, uLongf* destLen, const Bytef* source, uLong sourceLen));
WRAPPED(ssize_t, Copy, "copy_file_range",
        (int in, off_t* inOffset, int out, off_t* outOffset, std::size_t size, unsigned flags));
WRAPPED(int, Allocate, "fallocate", (int fd, int mode, off_t offset, off_t size));
WRAPPED(int, Allocate64, "fallocate64", (int fd, int mode, off_t offset, off_t size));
WRAPPED(int, Thread, "pthread_create",
        (pthread_t * thread, const pthread_attr_t* attributes, void* (*run)(void*),
         void* argument));

void* WrapMalloc(std::size_t size) { return Fails(Call::Malloc) ? nullptr : RealMalloc(size); }

// TRUE when opening fails.
static bool OpenFails(const char* path) {
    if (!Fails(Call::Open)) return false;
    if (g_fault.error != 0) return true;
    if (FILE* file = std::fopen(path, "w"); file != nullptr) {
        std::fputs("another's", file);
        std::fclose(file);
    }
    return false;
}

int WrapOpen(const char* path, int flags, mode_t mode) {
    return OpenFails(path) ? -1 : RealOpen(path, flags, mode);
}

int WrapOpen64(const char* path, int flags, mode_t mode) {
    return OpenFails(path) ? -1 : RealOpen64(path, flags, mode);
}

ssize_t WrapRead(int fd, void* buffer, std::size_t size) {
    return Transfer(Call::Read, size) ? RealRead(fd, buffer, size) : -1;
}

ssize_t WrapWrite(int fd, const void* buffer, std::size_t size) {
    return FindRoom(size) && Transfer(Call::Write, size) ? RealWrite(fd, buffer, size) : -1;
}

int WrapClose(int fd) {
    const int result = RealClose(fd);
    return Fails(Call::Close) ? -1 : result;
}

int WrapRename(const char* from, const char* to) {
    return Fails(Call::Rename) ? -1 : RealRename(from, to);
}

int WrapUnlink(const char* path) { return Fails(Call::Unlink) ? -1 : RealUnlink(path); }

int WrapMkdir(const char* path, mode_t mode) {
    return Fails(Call::Mkdir) ? -1 : RealMkdir(path, mode);
}

int WrapFsync(int fd) { return Fails(Call::Fsync) ? -1 : RealFsync(fd); }

int WrapStat(const char* path, void* status) {
    return Fails(Call::Stat) ? -1 : RealStat(path, status);
}

int WrapStat64(const char* path, void* status) {
    return Fails(Call::Stat) ? -1 : RealStat64(path, status);
}

int WrapFstat(int fd, void* status) { return Fails(Call::Fstat) ? -1 : RealFstat(fd, status); }

int WrapFstat64(int fd, void* status) { return Fails(Call::Fstat) ? -1 : RealFstat64(fd, status); }

int WrapCompress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
    if (ChunkFails(Call::Compress, sourceLen == 0 ? -1 : *source)) return g_fault.error;
    return RealCompress(dest, destLen, source, sourceLen);
}

int WrapUncompress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
    const int result = RealUncompress(dest, destLen, source, sourceLen);
    return ChunkFails(Call::Uncompress, *destLen == 0 ? -1 : *dest) ? g_fault.error : result;
}

#ifdef TESSEL_HAVE_LIBDEFLATE
WRAPPED(libdeflate_result, Deflate, "libdeflate_zlib_decompress",
        (libdeflate_decompressor * state, const void* in, std::size_t inSize, void* out,
         std::size_t outSize, std::size_t* outLength));

// Faults of expanding are those of uncompress, which decides what is refused here.
libdeflate_result WrapDeflate(libdeflate_decompressor* state, const void* in, std::size_t inSize,
                              void* out, std::size_t outSize, std::size_t* outLength) {
    if (g_armed && g_fault.call == Call::Uncompress) return LIBDEFLATE_BAD_DATA;
    return RealDeflate(state, in, inSize, out, outSize, outLength);
}
#endif

// More is asked for than there is to copy.
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

int WrapAllocate(int fd, int mode, off_t offset, off_t size) {
    return Fails(Call::Allocate) ? -1 : RealAllocate(fd, mode, offset, size);
}

int WrapAllocate64(int fd, int mode, off_t offset, off_t size) {
    return Fails(Call::Allocate) ? -1 : RealAllocate64(fd, mode, offset, size);
}

int WrapThread(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
               void* argument) {
    if (Fails(Call::Thread)) return g_fault.error;
    return RealThread(thread, attributes, run, argument);
}
