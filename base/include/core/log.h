// The binary log.
#pragma once

#include "core/types.h"

struct TesselContextLogS {
    const char* pstrLogClass;  // module name stamped into each record
    const char* pstrCatalog;   // directory of the message catalogue, null for the built-in texts
    void* oLogAddress;         // address of the log daemon
    BooleanT bLogDirect;       // write to the direct-log file
    BooleanT bLogToSelf;       // send to the own process
    MapO oLocale;              // cache of catalogue entries
};

BooleanT LogInitialize();
BooleanT LogInitializeThread(TesselContextT* ptTlContext);
void LogReleaseThread(TesselContextT* ptTlContext);
