// Where log messages go, and the small things around them: levels, queries, start and end. A
// program that says nothing has no daemon and no file: its messages go nowhere but into the trace.
#include "core/log.h"

#include <iterator>
#include <utility>

#include "core/cfg.h"
#include "core/errnokeeper.h"
#include "core/list.h"
#include "core/locale.h"
#include "core/map.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/trace.h"
#include "loginternal.h"

TRACE_MODULE("LOGGING")

namespace {

constexpr int32 LogCacheGrowSize = 256;

struct LogLevelT {
    int32 lUpTo;
    const char* pstrName;
};
constexpr LogLevelT atLogLevels[] = {
    {eLogLevelBackground, "Background"},    {eLogLevelInformation, "Information"},
    {eLogLevelJobMessage, "Job Message"},   {eLogLevelStartup, "Startup"},
    {eLogLevelWarning, "Warning"},          {eLogLevelError, "Error"},
    {eLogLevelSevereError, "Severe Error"}, {eLogLevelUnknown, "Unknown"},
};
constexpr int32 LogLevelFirstText = 3201;  // number of the first name among the localised texts

void LogReleaseAddress() {
    if (LogState().oLogAddress != nullptr) ObjRelease(&LogState().oLogAddress);
}

BooleanT LogDeliver(logdMessageO oMessage) {
    const TesselContextLogS& tLog = LogState();
    if (tLog.bLogDirect == TRUE) {
        return LogDirect(static_cast<const ByteT*>(oMessage->tLogEntry.pData),
                         oMessage->tLogEntry.lSize);
    }
    if (tLog.bLogToSelf == TRUE) {
        TraceMessageInline(31, 0, 3, "logging to self");
        return MsgSendObjectToSelf(LOGD_LOG_MSG, oMessage);
    }
    if (tLog.fnSendCallback != nullptr) {
        TraceMessageInline(123, 0, 3, "logging to address %p using supplied callback",
                           static_cast<void*>(tLog.oLogAddress));
        return tLog.fnSendCallback(tLog.oLogAddress, LOGD_LOG_MSG, oMessage);
    }
    TraceMessageInline(32, 0, 3, "logging to address %p", static_cast<void*>(tLog.oLogAddress));
    return MsgSendObject(tLog.oLogAddress, LOGD_LOG_MSG, oMessage);
}

}  // namespace

BooleanT LogInitialize() {
    return ObjTemplateCreateInternal(&gtObjTemplateLogdMessage, sizeof(logdMessageS),
                                     logdMessageMagic, LogMessageDescriptor, nullptr);
}

BooleanT LogInitializeThread(TesselContextT* ptTlContext) {
    MapO& oLocale = ptTlContext->sLog.oLocale;
    if (oLocale != nullptr) return TRUE;
    return MapCreate(&oLocale, sizeof(LocaleEntryT), LogCacheGrowSize, LocaleLocateCachedEntry,
                     LocaleFindCachedEntry, LocaleReleaseCachedEntry);
}

void LogReleaseThread(TesselContextT* ptTlContext) {
    TesselContextLogS& tLog = ptTlContext->sLog;
    if (tLog.oLogAddress != nullptr) ObjRelease(&tLog.oLogAddress);
    if (tLog.oLocale != nullptr) ObjRelease(&tLog.oLocale);
    if (tLog.pstrCatalog != nullptr) MemFree(&tLog.pstrCatalog);
    tLog = {};
}

// --- levels ---

const char* LogGetWarningLevelString(int32 lWarnLevel) {
    constexpr int32 lLast = std::size(atLogLevels) - 1;
    int32 lLevel = 0;
    while (lLevel < lLast && lWarnLevel > atLogLevels[lLevel].lUpTo) lLevel++;
    return LocaleGetStaticString(atLogLevels[lLevel].pstrName, LogLevelFirstText + lLevel);
}

void LogListWarningLevels(ListO* poList) {
    if (poList == nullptr) return;
    *poList = nullptr;
    ObjHolder<ListS> oList(ListNew(ObjIntegerMagic));
    if (oList.Get() == nullptr) return;
    for (const LogLevelT& tLevel : atLogLevels) {
        ObjHolder<ObjIntegerS> oLevel(ObjIntegerNew(tLevel.lUpTo));
        if (ListPushLastItem(oList.Get(), oLevel.Address()) != TRUE) return;
    }
    *poList = oList.Take();
}

// --- logging ---

void LogMessageVa(int32 lLogId, int32 lWarningLevel, const UniqueT* ptSessionId, void* oContext,
                  const char* pstrMessageFormat, std::va_list tArgs) {
    const ErrnoKeeper tErrno;
    ObjHolder<logdMessageS> oMessage;
    if (LogMessageVaBuildObject(oMessage.Address(), lLogId, lWarningLevel, ptSessionId, oContext,
                                pstrMessageFormat, tArgs) != TRUE) {
        TraceMessageInline(33, 0, -1, "Failed to create log message!");
        return;
    }
    if (LogDeliver(oMessage.Get()) != TRUE)
        TraceMessageInline(126, 0, 0, "Log message %d is lost", lLogId);
}

void LogMessageWithContext(int32 lLogId, int32 lWarningLevel, const UniqueT* ptSessionId,
                           void* oContext, const char* pstrMessageFormat, ...) {
    std::va_list tArgs;
    va_start(tArgs, pstrMessageFormat);
    LogMessageVa(lLogId, lWarningLevel, ptSessionId, oContext, pstrMessageFormat, tArgs);
    va_end(tArgs);
}

void LogMessage(int32 lLogId, int32 lWarningLevel, const UniqueT* ptSessionId,
                const char* pstrMessageFormat, ...) {
    std::va_list tArgs;
    va_start(tArgs, pstrMessageFormat);
    LogMessageVa(lLogId, lWarningLevel, ptSessionId, nullptr, pstrMessageFormat, tArgs);
    va_end(tArgs);
}

// --- where messages go ---

const char* LogSetClass(const char* pstrClass) {
    return std::exchange(LogState().pstrLogClass, pstrClass);
}

void LogSetToSelf(BooleanT bLocal) { LogState().bLogToSelf = bLocal; }

void LogSetSendCallback(LogSendCallbackFnT fnSendCallback) {
    LogState().fnSendCallback = fnSendCallback;
}

void LogLocally() {
    TraceMessageInline(28, 0, 3, "LogLocally: Entered");
    LogReleaseAddress();
    BooleanT bServer = FALSE;
    CfgGetBoolean(&bServer, "configure.cfg", "details", "server", FALSE);
    LogState().bLogDirect = BooleanFrom(bServer != TRUE);
    if (bServer != TRUE) return;
    TraceMessageInline(29, 0, 3, "Machine name: '%s'", SysLocalMachineName());
    MsgCreateAddress(&LogState().oLogAddress, SysLocalMachineName(), MsgLogDaemonId);
    TraceMessageInline(30, 0, 3, "Logging to server '%p'",
                       static_cast<void*>(LogState().oLogAddress));
}

BooleanT LogSetAddress(MsgAddressO oProcAddr) {
    MsgAddressO oNew = nullptr;  // made first: the argument may be the address in use
    const BooleanT bResult = MsgCreateAddress(&oNew, MsgGetMachineName(oProcAddr), MsgLogDaemonId);
    LogReleaseAddress();
    LogState().oLogAddress = oNew;
    if (bResult == TRUE) LogState().bLogDirect = FALSE;
    TraceMessageInline(1, 0, 3, "Changed current logdaemon address to : %p",
                       static_cast<void*>(oNew));
    TraceMessageInline(2, 0, 3, "Address change successful = '%s'", BooleanText(bResult));
    return bResult;
}

BooleanT LogGetAddress(MsgAddressO* poAddress) {
    if (poAddress == nullptr || LogState().oLogAddress == nullptr) return FALSE;
    ObjIncRefCount(LogState().oLogAddress);
    *poAddress = LogState().oLogAddress;
    return TRUE;
}

void LogUnsetAddress() {
    LogReleaseAddress();
    LogState().bLogDirect = TRUE;
}

// --- queries ---

logdCriteriaO LogNewCriteria() {
    return ObjNew<logdCriteriaS>(logdCriteriaMagic, LogCriteriaDescriptor);
}

logdRequestEntriesO LogBuildRequest(BooleanT bNewFirst, int32 lMaxEntries, logdCriteriaO oCriteria,
                                    const char* pstrSource) {
    if (oCriteria != nullptr && ObjCheckTypeInternal(oCriteria, logdCriteriaMagic) != TRUE)
        return nullptr;
    auto* oRequest = ObjNew<logdRequestEntriesS>(logdRequestEntriesMagic, LogRequestDescriptor);
    if (oRequest == nullptr) return nullptr;
    if (oCriteria != nullptr) ObjIncRefCount(oCriteria);
    oRequest->bNewFirst = bNewFirst;
    oRequest->lMaxEntries = lMaxEntries;
    oRequest->oCriteria = oCriteria;
    oRequest->pstrSource = StrDuplicate(pstrSource);
    return oRequest;
}
