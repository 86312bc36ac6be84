// The binary log.
#include "core/log.h"

BooleanT LogInitialize() { return TRUE; }

BooleanT LogInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void LogReleaseThread(TesselContextT* /*ptTlContext*/) {}
