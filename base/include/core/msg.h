// Messages between processes: packets, channels and their select loop.
#pragma once

#include "core/types.h"

struct TesselContextDataChannelS {
    BooleanT bHeartBeat;
    ListO oConnectionList;
};

struct TesselContextMsgS {
    BooleanT bInitialized;  // the interprocess link is up
};

BooleanT MsgInitialize();
BooleanT MsgInitializeThread(TesselContextT* ptTlContext);
void MsgReleaseThread(TesselContextT* ptTlContext);
