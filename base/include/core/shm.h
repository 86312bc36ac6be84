// Shared memory segments.
#pragma once

#include "core/types.h"

struct TesselContextShmS {
    ListO oShmList;  // segments that this process created
};

BooleanT ShmInitialize();
BooleanT ShmInitializeThread(TesselContextT* ptTlContext);
void ShmReleaseThread(TesselContextT* ptTlContext);
