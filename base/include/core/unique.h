// Unique identifiers of jobs, their instances and phases.
#pragma once

#include "core/types.h"

struct TesselContextUniqueS {
    char strString[256];  // text form of the identifier converted last
};

BooleanT UniqueInitialize();
BooleanT UniqueInitializeThread(TesselContextT* ptTlContext);
void UniqueReleaseThread(TesselContextT* ptTlContext);
