// What wrappers of system calls share: errno kept for the caller across messages and clean-up, and
// the repetition of calls that a signal interrupts.
#pragma once

#include <cerrno>
#include <cstring>

// Holds errno as it was when the call had failed and restores it at the end of the scope.
class ErrnoKeeper {
 public:
    ErrnoKeeper() : m_iErrno(errno) {}
    ~ErrnoKeeper() { errno = m_iErrno; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    int Code() const { return m_iErrno; }
    const char* Text() const { return std::strerror(m_iErrno); }

 private:
    int m_iErrno;
};

// The result of a call that reports failure by -1.
template <class F>
auto SysRepeat(F fnCall) {
    while (true) {
        const auto tResult = fnCall();
        if (tResult != -1 || errno != EINTR) return tResult;
    }
}
