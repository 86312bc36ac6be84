// Unique identifiers of jobs, their instances and phases.
#include "core/unique.h"

BooleanT UniqueInitialize() { return TRUE; }

BooleanT UniqueInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void UniqueReleaseThread(TesselContextT* /*ptTlContext*/) {}
