// Locks of whole files: POSIX record locks from offset 0 to any later end. Waiting and not waiting
// differ in the command alone.
#include "core/filelock.h"

#include <fcntl.h>

#include <cstdio>

#include "core/errnokeeper.h"
#include "core/trace.h"

TRACE_MODULE("FILE")

namespace {

// -1 for an unknown lock type.
int FileLockSystemType(FileLockT tLockType) {
    if (tLockType == FileLockShared) return F_RDLCK;
    if (tLockType == FileLockExclusive) return F_WRLCK;
    return -1;
}

BooleanT FileLockApply(FileHandleT tHandle, int iSystemType, int iCommand) {
    struct flock tLock = {};
    tLock.l_type = static_cast<short>(iSystemType);
    tLock.l_whence = SEEK_SET;
    return BooleanFrom(
        SysRepeat([&] { return fcntl(static_cast<int>(tHandle), iCommand, &tLock); }) != -1);
}

}  // namespace

BooleanT FileLockSet(FileHandleT tHandle, FileLockT tLockType) {
    const int iSystemType = FileLockSystemType(tLockType);
    if (iSystemType == -1) return FALSE;
    const BooleanT bResult = FileLockApply(tHandle, iSystemType, F_SETLKW);
    const ErrnoKeeper tErrno;
    if (bResult != TRUE) TraceMessageInline(6, 1, 3, "fcntl failed to set lock");
    TraceMessageInline(9, 0, 4, "%s = FileLockSet(%p, 0x%x)", BooleanText(bResult),
                       reinterpret_cast<void*>(tHandle), tLockType);
    return bResult;
}

BooleanT FileLockSetNoWait(FileHandleT tHandle, FileLockT tLockType) {
    const int iSystemType = FileLockSystemType(tLockType);
    if (iSystemType == -1) return FALSE;
    const BooleanT bResult = FileLockApply(tHandle, iSystemType, F_SETLK);
    const ErrnoKeeper tErrno;
    if (bResult != TRUE) TraceMessageInline(10, 1, 3, "fcntl failed to set lock");
    TraceMessageInline(13, 0, 4, "%s = FileLockSetNoWait(%p, 0x%x)", BooleanText(bResult),
                       reinterpret_cast<void*>(tHandle), tLockType);
    return bResult;
}
