// Signals held while library code runs.
#pragma once

#include "core/types.h"

BooleanT SigInitialize();
BooleanT SigInitializeThread(TesselContextT* ptTlContext);
void SigReleaseThread(TesselContextT* ptTlContext);
