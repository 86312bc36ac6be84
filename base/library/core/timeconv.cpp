// Conversion between clock values and calendar fields.
#include "core/timeconv.h"

BooleanT TimeConvInitialize() { return TRUE; }

BooleanT TimeConvInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void TimeConvReleaseThread(TesselContextT* /*ptTlContext*/) {}
