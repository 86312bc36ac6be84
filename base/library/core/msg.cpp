// Messages between processes: packets, channels and their select loop.
#include "core/msg.h"

BooleanT MsgInitialize() { return TRUE; }

BooleanT MsgInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void MsgReleaseThread(TesselContextT* /*ptTlContext*/) {}
