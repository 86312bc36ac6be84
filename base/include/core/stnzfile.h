// Stanza files: the text form of stanzas.
#pragma once

#include "core/types.h"

BooleanT StnzFileInitialize();
BooleanT StnzFileInitializeThread(TesselContextT* ptTlContext);
void StnzFileReleaseThread(TesselContextT* ptTlContext);
