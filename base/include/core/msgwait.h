// Waiting for chosen messages while handlers receive the rest.
#pragma once

#include "core/types.h"

struct TesselContextMsgWaitS {
    ListO oHandlers;      // newest first
    BooleanT bDoDiscard;  // some handler is marked for removal
    int32 lDepth;         // handler walks under way, one inside the other
    BooleanT bDisableDefaultHandlers;
    BooleanT bKeepUnhandledMessages;
};

BooleanT MsgWaitInitialize();
BooleanT MsgWaitInitializeThread(TesselContextT* ptTlContext);
void MsgWaitReleaseThread(TesselContextT* ptTlContext);
