// Calls upon the process manager.
#include "core/procapi.h"

BooleanT ProcApiInitialize() { return TRUE; }

BooleanT ProcApiInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ProcApiReleaseThread(TesselContextT* /*ptTlContext*/) {}
