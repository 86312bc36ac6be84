// Starting programs. Everything that allocates happens before the fork, and no signal reaches the
// child before its handlers are the default ones, so that nothing of this process's own code runs
// in it. Children that nobody waits for are remembered and collected, one by one, when the next
// program is started: a wait for any child would take those that the program itself waits for.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "core/errnokeeper.h"
#include "core/filebase.h"
#include "core/process.h"
#include "core/syssignal.h"
#include "core/trace.h"

TRACE_MODULE("PROCESS")

namespace {

constexpr int32 ProcMaximumArguments = 18;
constexpr int ProcExecFailed = 127;  // exit status

std::vector<pid_t> gatUnawaited;

void ProcCollectUnawaited() {
    // Also forgets those that another wait has taken.
    std::erase_if(gatUnawaited,
                  [](pid_t tChild) { return waitpid(tChild, nullptr, WNOHANG) != 0; });
}

// --- in the child: async-signal-safe calls only ---

// Standard output and error go nowhere; they are closed where even that cannot be had.
void ProcSilenceOutput() {
    const int iNull = open("/dev/null", O_WRONLY | O_APPEND);
    for (const int iStandard : {STDOUT_FILENO, STDERR_FILENO}) {
        if (iNull == -1)
            close(iStandard);
        else
            dup2(iNull, iStandard);
    }
    if (iNull != STDOUT_FILENO && iNull != STDERR_FILENO) close(iNull);
}

// Handlers go first: what was sent meanwhile must not run them when the mask is put back. Of that
// mask a program does not inherit what is held only while library code runs.
void ProcResetSignals(const sigset_t& tMask) {
    for (int iSignal = 1; iSignal < NSIG; iSignal++) {
        struct sigaction tAction;
        if (sigaction(iSignal, nullptr, &tAction) != 0 || tAction.sa_handler == SIG_IGN) continue;
        tAction = {};
        tAction.sa_handler = SIG_DFL;
        sigaction(iSignal, &tAction, nullptr);
    }
    sigprocmask(SIG_SETMASK, &tMask, nullptr);
    sigprocmask(SIG_UNBLOCK, &gtBlockSet, nullptr);
}

[[noreturn]] void ProcRunProgram(const char* pstrPath, const char* const* apstrArguments,
                                 bool bSilent, const sigset_t& tMask) {
    if (bSilent) ProcSilenceOutput();
    ProcResetSignals(tMask);
    execvp(pstrPath, const_cast<char* const*>(apstrArguments));
    _exit(ProcExecFailed);
}

// --- in this process ---

const char* ProcBaseName(const char* pstrPath) {
    const char* pstrSlash = std::strrchr(pstrPath, '/');
    return pstrSlash == nullptr ? pstrPath : pstrSlash + 1;
}

// Without a directory the program is looked up by the child.
BooleanT ProcMayStart(const char* pstrPath) {
    if (std::strchr(pstrPath, '/') == nullptr ||
        FileHaveAccess(pstrPath, eFileAccessExecute) == TRUE)
        return TRUE;
    TraceMessageInline(211, errno, -1, "No execute access to '%s'", pstrPath);
    return FALSE;
}

// The arguments end with nullptr. A null ptChild: nobody waits.
BooleanT ProcSpawn(ProcRealIdT* ptChild, const char* pstrPath, const char* const* apstrArguments,
                   bool bSilent) {
    ProcCollectUnawaited();
    if (ptChild == nullptr) gatUnawaited.reserve(gatUnawaited.size() + 1);
    sigset_t tAll;
    sigset_t tMask;
    sigfillset(&tAll);
    sigprocmask(SIG_SETMASK, &tAll, &tMask);
    const pid_t tChild = fork();
    if (tChild == 0) ProcRunProgram(pstrPath, apstrArguments, bSilent, tMask);
    const ErrnoKeeper tErrno;
    sigprocmask(SIG_SETMASK, &tMask, nullptr);
    if (tChild == -1) {
        TraceMessageInline(212, tErrno.Code(), -1, "Failed to fork child process: %s",
                           tErrno.Text());
        return FALSE;
    }
    if (ptChild != nullptr)
        *ptChild = tChild;
    else
        gatUnawaited.push_back(tChild);
    return TRUE;
}

}  // namespace

BooleanT ProcStartProcess(ProcProcessInfoT* ptProcInfo, const char* pstrProgramPath,
                          ProcIdT tProcessId) {
    if (pstrProgramPath == nullptr || *pstrProgramPath == '\0') return FALSE;
    TraceMessageInline(229, 0, 3, "ProcStartProcess(%p, %s, %d)", static_cast<void*>(ptProcInfo),
                       pstrProgramPath, tProcessId);
    if (ProcMayStart(pstrProgramPath) != TRUE) return FALSE;
    char acId[16];
    std::snprintf(acId, sizeof(acId), "%d", tProcessId);
    const char* const apstrArguments[] = {ProcBaseName(pstrProgramPath), acId, nullptr};
    return ProcSpawn(ptProcInfo == nullptr ? nullptr : &ptProcInfo->tRealProcessId, pstrProgramPath,
                     apstrArguments, false);
}

BooleanT ProcStartProcessWithArgs(ProcActualHandleT* ptProcessId, const char* pstrProgramPath,
                                  ...) {
    if (pstrProgramPath == nullptr || *pstrProgramPath == '\0') return FALSE;
    TraceMessageInline(210, 0, 3, "ProcStartProcessWithArgs(%p, %s)",
                       static_cast<void*>(ptProcessId), pstrProgramPath);
    if (ProcMayStart(pstrProgramPath) != TRUE) return FALSE;
    const char* apstrArguments[1 + ProcMaximumArguments + 1] = {ProcBaseName(pstrProgramPath)};
    std::va_list tTexts;
    va_start(tTexts, pstrProgramPath);
    for (int32 lText = 1; lText <= ProcMaximumArguments; lText++) {
        apstrArguments[lText] = va_arg(tTexts, const char*);
        if (apstrArguments[lText] == nullptr) break;
    }
    va_end(tTexts);
    return ProcSpawn(ptProcessId, pstrProgramPath, apstrArguments, true);
}
