// The remote decision: a request leaves this machine only when the current task says for whom it
// runs and the file is marked as remote by a map file.
#include "core/cfgutil.h"

#include "core/cfglocal.h"
#include "core/context.h"
#include "core/filebase.h"
#include "core/path.h"
#include "core/strbase.h"
#include "core/task.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("CFGUTIL")
MEM_DEFAULT_POOL_CACHE

BooleanT CfgUtilDoRemote(char** ppstrClientName, char** ppstrServerName, const char* pstrConfigFile,
                         const char* pstrAltMapFilePath) {
    TraceMessageInline(1, 0, 4, "CfgUtilDoRemote, configfile: %s, alt path : %s.",
                       TraceText(pstrConfigFile), TraceText(pstrAltMapFilePath));
    PoolPtr<char> pstrClient;
    PoolPtr<char> pstrServer;
    const BooleanT bRemote = BooleanFrom(
        ppstrClientName != nullptr && ppstrServerName != nullptr &&
        CfgUtilDoRemoteFromProcContext(pstrClient.Address(), pstrServer.Address()) == TRUE &&
        CfgUtilDoRemoteFromMapFile(pstrConfigFile, pstrAltMapFilePath) == TRUE);
    TraceMessageInline(2, 0, 4, "CfgUtilDoRemote returns %s, with client %s and server %s",
                       BooleanText(bRemote), TraceText(pstrClient.Get()),
                       TraceText(pstrServer.Get()));
    if (bRemote == TRUE) {
        *ppstrClientName = pstrClient.Take();
        *ppstrServerName = pstrServer.Take();
    }
    return bRemote;
}

BooleanT CfgUtilDoRemoteFromProcContext(char** ppstrClientName, char** ppstrServerName) {
    auto* oTask = static_cast<TaskContextO>(gtTlContext.sProcess.oTaskContext);
    if (oTask == nullptr || ppstrClientName == nullptr || ppstrServerName == nullptr) return FALSE;
    void* oFound = nullptr;
    if (TaskGetContextObject(&oFound, oTask, CfgUtilRemoteConfigDetailsMagic) != TRUE) return FALSE;
    const ObjHolder<CfgUtilRemoteConfigDetailsS> oDetails(
        static_cast<CfgUtilRemoteConfigDetailsO>(oFound));
    PoolPtr<char> pstrClient(StrDuplicateNullIfEmpty(oDetails.Get()->pstrClient));
    PoolPtr<char> pstrServer(StrDuplicateNullIfEmpty(oDetails.Get()->pstrServer));
    if (pstrClient.Get() == nullptr || pstrServer.Get() == nullptr) return FALSE;
    TraceMessageInline(3, 0, 4, "CfgUtilDoRemoteFromProcContext returned server %s, client %s",
                       pstrServer.Get(), pstrClient.Get());
    *ppstrClientName = pstrClient.Take();
    *ppstrServerName = pstrServer.Take();
    return TRUE;
}

BooleanT CfgUtilDoRemoteFromMapFile(const char* pstrConfigFileName,
                                    const char* pstrAlternativeMapFilePath) {
    return CfgUtilMapFileExists(pstrConfigFileName, pstrAlternativeMapFilePath);
}

BooleanT CfgUtilMapFileExists(const char* pstrCfgFileName, const char* pstrAltPath) {
    if (pstrCfgFileName == nullptr) return FALSE;
    const PoolPtr<char> pstrName(StrCat(pstrCfgFileName, ".map", nullptr));
    const PoolPtr<char> pstrPath(pstrAltPath == nullptr
                                     ? PathHomeBuild("config", "map", pstrName.Get(), nullptr)
                                     : PathBuild(pstrAltPath, pstrName.Get(), nullptr));
    TraceMessageInline(4, 0, 4, "Map file path is %s", TraceText(pstrPath.Get()));
    return FileExists(pstrPath.Get());
}

char* CfgUtilBuildPath(const char* pstrStanzaFile, const char* pstrAltPath) {
    if (pstrStanzaFile == nullptr) {
        TraceMessageInline(5, 0, -1, "CfgUtilBuildPath passed null stanza file");
        return nullptr;
    }
    return pstrAltPath == nullptr ? CfgLocalBuildPath(pstrStanzaFile)
                                  : PathHomeBuild(pstrAltPath, pstrStanzaFile, nullptr);
}
