// Processes of the operating system: signals to them, and the lock by which one process manager of
// an installation runs. Ids below 2 never reach the system, for which 0 and less stand for groups
// of processes.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "core/filebase.h"
#include "core/filelock.h"
#include "core/filesys.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/process.h"
#include "core/trace.h"

TRACE_MODULE("PROCESS")

namespace {

constexpr ProcRealIdT ProcFirstRealId = 2;

// The process that has locked the file for good: a forked child inherits this, but no lock.
ProcRealIdT gtLockHolder = 0;

BooleanT ProcSignal(ProcRealIdT tRealId, int iSignal) {
    return BooleanFrom(tRealId >= ProcFirstRealId && kill(tRealId, iSignal) == 0);
}

// Puts the id in the place of what an earlier holder may have left.
void ProcWriteId(FileHandleT tFile) {
    char acId[32];
    const int32 lLength = std::snprintf(acId, sizeof(acId), "%12d\n", ProcGetRealId());
    int32 lWritten = 0;
    TraceMessageInline(227, 0, 4, "Write out Pid");
    if (FileSysWrite(&lWritten, tFile, acId, lLength) != TRUE || lWritten != lLength ||
        FileSysTruncate(tFile) != TRUE)
        TraceMessageInline(228, errno, -1, "Failed to write process id: %s", std::strerror(errno));
}

}  // namespace

BooleanT ProcKill(ProcRealIdT tRealId) { return ProcSignal(tRealId, SIGKILL); }

BooleanT ProcTerminate(ProcRealIdT tRealId) { return ProcSignal(tRealId, SIGTERM); }

BooleanT ProcAlive(ProcRealIdT* ptRealId, void** /*ptHandle*/) {
    if (ptRealId == nullptr || *ptRealId < ProcFirstRealId) return FALSE;
    if (kill(*ptRealId, 0) == 0 || errno != ESRCH) return TRUE;
    *ptRealId = -1;
    return FALSE;
}

BooleanT ProcPmgrIsRunning(BooleanT bLock) {
    // Closing another descriptor of the file would end this process's own lock.
    if (gtLockHolder == ProcGetRealId()) return FALSE;
    const PoolPtr<char> pstrPath(PathHomeBuild("etc", "krpmgr.pid", nullptr));
    TraceMessageInline(224, 0, 4, "Try to open '%s'", pstrPath.Get());
    FileCloser tFile;
    if (bLock != TRUE && FileExists(pstrPath.Get()) != TRUE) return FALSE;  // asking makes no file
    if (FileSysOpen(tFile.Address(), pstrPath.Get(), FileModeReadWrite) != TRUE) return FALSE;
    TraceMessageInline(225, 0, 4, "Try to lock it");
    if (FileLockSetNoWait(tFile.Get(), FileLockExclusive) != TRUE) return TRUE;
    TraceMessageInline(226, 0, 4, "Locked it");
    if (bLock != TRUE) return FALSE;
    ProcWriteId(tFile.Get());
    gtLockHolder = ProcGetRealId();
    tFile.Take();  // the lock goes with the process
    return FALSE;
}
