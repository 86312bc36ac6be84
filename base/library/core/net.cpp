// Network sockets.
#include "core/net.h"

BooleanT NetInitialize() { return TRUE; }

BooleanT NetInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void NetReleaseThread(TesselContextT* /*ptTlContext*/) {}
