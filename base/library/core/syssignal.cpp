// Signals held while library code runs.
#include "core/syssignal.h"

BooleanT SigInitialize() { return TRUE; }

BooleanT SigInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void SigReleaseThread(TesselContextT* /*ptTlContext*/) {}
