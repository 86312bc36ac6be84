// Signals: thin wrappers over the system's calls, and the counter that lets library sections nest.
#include "core/syssignal.h"

#include <cerrno>

#include "core/trace.h"

TRACE_MODULE("SIGNAL")

SigSetT gtBlockSet;
BooleanT gbSigInitialized = FALSE;
int32 glCallDepth = 0;
int32 glSigErrorCode = 0;

namespace {

constexpr int SigHighestIgnored = 32;

sigset_t SigSetOf(int iSignal) {
    sigset_t tSet;
    sigemptyset(&tSet);
    sigaddset(&tSet, iSignal);
    return tSet;
}

void SigNote(int iResult) {
    if (iResult != 0) glSigErrorCode = errno;
}

}  // namespace

BooleanT SigInitialize() {
    gtBlockSet = SigSetOf(SIGALRM);
    gbSigInitialized = TRUE;
    return TRUE;
}

BooleanT SigInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void SigReleaseThread(TesselContextT* /*ptTlContext*/) {}

void SigNotifyStop() {
    if (gbSigInitialized != TRUE) return;
    // Counted first: a handler that interrupts here finds itself inside the section.
    if (glCallDepth++ == 0) SigHoldSet(&gtBlockSet);
}

void SigNotifyStart() {
    if (gbSigInitialized != TRUE || glCallDepth == 0) return;
    if (--glCallDepth == 0) SigReleaseSet(&gtBlockSet);
}

void SigEnteringHandler() { glCallDepth++; }

void SigLeavingHandler() { glCallDepth--; }

SigHandlerT SigSet(int iSignal, SigHandlerT fnHandler) {
    struct sigaction tNew = {};
    struct sigaction tOld = {};
    tNew.sa_handler = fnHandler;
    tNew.sa_mask = gtBlockSet;
    const int iResult = sigaction(iSignal, &tNew, &tOld);
    SigNote(iResult);
    return iResult == 0 ? tOld.sa_handler : SIG_ERR;
}

SigHandlerT SigGet(int iSignal) {
    struct sigaction tCurrent = {};
    const int iResult = sigaction(iSignal, nullptr, &tCurrent);
    SigNote(iResult);
    return iResult == 0 ? tCurrent.sa_handler : SIG_ERR;
}

void SigIgnore(int iSignal) { SigSet(iSignal, SIG_IGN); }

void SigIgnoreAll() {
    sigset_t tAll;
    sigset_t tPrevious;
    sigfillset(&tAll);
    SigNote(sigprocmask(SIG_SETMASK, &tAll, &tPrevious));
    struct sigaction tIgnore = {};
    tIgnore.sa_handler = SIG_IGN;
    // The few that the system does not let go are passed over.
    for (int iSignal = 1; iSignal <= SigHighestIgnored; iSignal++)
        sigaction(iSignal, &tIgnore, nullptr);
    SigNote(sigprocmask(SIG_SETMASK, &tPrevious, nullptr));
}

void SigHold(int iSignal) {
    SigSetT tSet = SigSetOf(iSignal);
    SigHoldSet(&tSet);
}

void SigRelease(int iSignal) {
    SigSetT tSet = SigSetOf(iSignal);
    SigReleaseSet(&tSet);
}

void SigHoldAll() {
    SigSetT tAll;
    sigfillset(&tAll);
    SigHoldSet(&tAll);
}

void SigHoldSet(SigSetT* ptSet) { SigNote(sigprocmask(SIG_BLOCK, ptSet, nullptr)); }

void SigReleaseSet(SigSetT* ptSet) { SigNote(sigprocmask(SIG_UNBLOCK, ptSet, nullptr)); }

int SigPause(int iSignal) {
    const sigset_t tOnly = SigSetOf(iSignal);
    const int iResult = sigsuspend(&tOnly);
    const int iErrno = errno;
    SigRelease(iSignal);
    errno = iErrno;
    return iResult;
}

int32 SigErrorCode() { return glSigErrorCode; }

void SigCleanup() { TraceMessageInline(1, 0, 4, "SigCleanup"); }
