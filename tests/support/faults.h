// Faults at system calls: the n-th call of a kind fails, moves fewer bytes than asked for, or finds
// the disk full. Only calls made by the library and the program itself are reached, and only in
// programs that are linked with the options of faults.options, which every test that includes this
// header is.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <string>

enum class Call {
    Malloc,
    Open,  // without an error: another process makes the file at the last moment
    Read,
    Write,
    Close,  // the descriptor is gone all the same
    Rename,
    Unlink,
    Mkdir,
    Fsync,
    Stat,   // by path
    Fstat,  // by descriptor
    Compress,
    Uncompress,
    Copy,      // inside the system
    Allocate,  // blocks of a file
    Thread,
};

struct Fault {
    Call call;
    int nth = 1;    // the first call hit, counted from 1 since FaultArm
    int error = 0;  // errno of the call, or result of a compression; 0: no failure
    int times = 1;  // calls hit in a row
    // Compressions and expansions: instead, that of the chunk whose first byte this is.
    int marked = -1;
    // It fails while that of the chunk whose first byte is the next number is being done.
    bool together = false;
    // Read, write and copy without an error: bytes that the call moves at the most.
    std::size_t atMost = 0;
    bool copyRefused = false;  // copies inside the system besides
};

constexpr int FaultForEver = 1 << 30;

void FaultArm(const Fault& fault);
// From now on writes find room for this many bytes, all files taken together.
void FaultArmFullDisk(std::size_t room, bool copyRefused = false);
// Ends the faults; the number of calls that were hit.
int FaultDisarm();

// Calls attempt(fault) with the first call of a kind failing, the second, or another stride on, and
// so forth, until it says that no call was hit.
template <class F>
void FaultSweep(Call call, F attempt, int stride = 1) {
    for (int nth = 1;; nth += stride) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(call)) + ", call " +
                     std::to_string(nth));
        ASSERT_LT(nth, 200 * stride);
        if (!attempt(Fault{.call = call, .nth = nth, .error = EIO})) break;
    }
}
constexpr Call FileCalls[] = {Call::Open,   Call::Read,  Call::Write, Call::Close, Call::Rename,
                              Call::Unlink, Call::Mkdir, Call::Fsync, Call::Stat,  Call::Fstat};
