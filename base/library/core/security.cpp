// Security cookies and passwords.
#include "core/security.h"

BooleanT SecurityInitialize() { return TRUE; }

BooleanT SecurityInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void SecurityReleaseThread(TesselContextT* /*ptTlContext*/) {}
