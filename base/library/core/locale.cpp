// Localised texts.
#include "core/locale.h"

BooleanT LocaleInitialize() { return TRUE; }

BooleanT LocaleInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void LocaleReleaseThread(TesselContextT* /*ptTlContext*/) {}
