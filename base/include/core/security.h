// Security cookies and passwords.
#pragma once

#include "core/types.h"

BooleanT SecurityInitialize();
BooleanT SecurityInitializeThread(TesselContextT* ptTlContext);
void SecurityReleaseThread(TesselContextT* ptTlContext);
