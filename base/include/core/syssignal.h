// Signals. The alarm signal is held while library code runs, so that timer handlers do not run in
// the middle of it.
#pragma once

#include <csignal>

#include "core/types.h"

using SigHandlerT = void (*)(int iSignal);
using SigSetT = sigset_t;

extern SigSetT gtBlockSet;  // signals held in library sections: SIGALRM
extern BooleanT gbSigInitialized;
extern int32 glCallDepth;  // nesting of library sections and handlers
extern int32 glSigErrorCode;

BooleanT SigInitialize();
BooleanT SigInitializeThread(TesselContextT* ptTlContext);
void SigReleaseThread(TesselContextT* ptTlContext);

// Enter and leave a library section: the first entry holds the signals of gtBlockSet, the last exit
// releases them. Nothing happens before SigInitialize.
void SigNotifyStop();
void SigNotifyStart();
void SigEnteringHandler();
void SigLeavingHandler();

// Installs a handler, during which gtBlockSet is held; interrupted calls are not restarted. Returns
// the previous handler, SIG_ERR for a signal that cannot be handled.
SigHandlerT SigSet(int iSignal, SigHandlerT fnHandler);
SigHandlerT SigGet(int iSignal);
void SigIgnore(int iSignal);
void SigIgnoreAll();  // signals 1 to 32, as far as they can be ignored

void SigHold(int iSignal);
void SigRelease(int iSignal);
void SigHoldAll();
void SigHoldSet(SigSetT* ptSet);
void SigReleaseSet(SigSetT* ptSet);
// Waits for any signal but iSignal, then releases iSignal.
int SigPause(int iSignal);
int32 SigErrorCode();
void SigCleanup();
