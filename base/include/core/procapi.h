// Calls upon the process manager.
#pragma once

#include "core/types.h"

BooleanT ProcApiInitialize();
BooleanT ProcApiInitializeThread(TesselContextT* ptTlContext);
void ProcApiReleaseThread(TesselContextT* ptTlContext);
