// Stands between the program and the C library by the linker's --wrap.
#include "support/faults.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

Fault g_fault;
bool g_armed = false;
int g_calls = 0;  // of the armed kind
int g_hits = 0;
bool g_diskFull = false;
std::size_t g_room = 0;

bool Hit(Call call) {
    if (!g_armed || g_fault.call != call) return false;
    g_calls++;
    if (g_calls < g_fault.nth || g_calls - g_fault.nth >= g_fault.times) return false;
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

}  // namespace

void FaultArm(const Fault& fault) {
    g_fault = fault;
    g_armed = true;
    g_calls = 0;
    g_hits = 0;
}

void FaultArmFullDisk(std::size_t room) {
    g_diskFull = true;
    g_room = room;
    g_hits = 0;
}

int FaultDisarm() {
    g_armed = false;
    g_diskFull = false;
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
    if (g_diskFull && size > g_room) {
        g_hits++;
        size = g_room;
        if (g_room == 0) {
            errno = ENOSPC;
            return -1;
        }
    }
    g_room -= g_diskFull ? size : 0;
    return Transfer(Call::Write, size) ? RealWrite(fd, buffer, size) : -1;
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
    if (Hit(Call::Compress)) return g_fault.error;
    return RealCompress(dest, destLen, source, sourceLen);
}

int WrapUncompress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
    if (Hit(Call::Uncompress)) return g_fault.error;
    return RealUncompress(dest, destLen, source, sourceLen);
}
