// System services: the environment.
#pragma once

#include "core/types.h"

struct TesselContextTimeSysS {
    void* pReserved;
};

BooleanT SysInitialize();
BooleanT SysInitializeThread(TesselContextT* ptTlContext);
void SysReleaseThread(TesselContextT* ptTlContext);

// A copy of an environment variable's value, which the caller frees; FALSE when it is not set.
BooleanT SysGetEnvString(char** ppstrResult, const char* pstrVariable);
