// Waiting for chosen messages while handlers receive the rest.
#include "core/msgwait.h"

BooleanT MsgWaitInitialize() { return TRUE; }

BooleanT MsgWaitInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void MsgWaitReleaseThread(TesselContextT* /*ptTlContext*/) {}
