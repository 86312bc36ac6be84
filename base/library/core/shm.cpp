// Shared memory segments.
#include "core/shm.h"

BooleanT ShmInitialize() { return TRUE; }

BooleanT ShmInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ShmReleaseThread(TesselContextT* /*ptTlContext*/) {}
