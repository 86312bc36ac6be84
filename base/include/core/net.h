// Network sockets.
#pragma once

#include "core/types.h"

struct TesselContextNetS {
    int32 InheritSocket;  // counter of sockets handed to child processes
};

BooleanT NetInitialize();
BooleanT NetInitializeThread(TesselContextT* ptTlContext);
void NetReleaseThread(TesselContextT* ptTlContext);
