// Stanza files: the text form of stanzas.
#include "core/stnzfile.h"

BooleanT StnzFileInitialize() { return TRUE; }

BooleanT StnzFileInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void StnzFileReleaseThread(TesselContextT* /*ptTlContext*/) {}
