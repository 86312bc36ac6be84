// Localised texts.
#pragma once

#include "core/types.h"

struct TesselContextLocaleS {
    char* pstrLocale;  // language in use, owned
    MapO oCatalog;     // texts by message number
};

BooleanT LocaleInitialize();
BooleanT LocaleInitializeThread(TesselContextT* ptTlContext);
void LocaleReleaseThread(TesselContextT* ptTlContext);
