// System services: the environment.
#include "core/sys.h"

#include <cstdlib>

#include "core/memory.h"
#include "core/strbase.h"

MEM_DEFAULT_POOL_CACHE

BooleanT SysInitialize() { return TRUE; }

BooleanT SysInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void SysReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT SysGetEnvString(char** ppstrResult, const char* pstrVariable) {
    if (ppstrResult == nullptr || pstrVariable == nullptr) return FALSE;
    const char* pstrValue = std::getenv(pstrVariable);
    if (pstrValue == nullptr) return FALSE;
    *ppstrResult = StrDuplicateIntoPool(pstrValue, MemPool());
    return TRUE;
}
