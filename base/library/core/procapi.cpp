// Requests to process managers. An address that goes into a body is read on another process, so it
// always names a machine: the address of a channel is replaced by that of its remote end.
#include "core/procapi.h"

#include <algorithm>
#include <cstdio>

#include "core/locale.h"
#include "core/machineinfo.h"
#include "core/memory.h"
#include "core/msgwait.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("PROCAPI")
MEM_DEFAULT_POOL_CACHE

namespace {

// Older machines do not know the message.
constexpr int32 ProcContextVersion = 7;

// Texts of the error codes from -1 on, with catalogue numbers from 568 on.
constexpr int32 ProcErrorFirstCode = eProcErrorUnknown;
constexpr int32 ProcErrorFirstText = 568;
constexpr int32 ProcErrorUnknownText = 591;
constexpr const char* apstrErrors[] = {
    "Unknown Error",
    "No Error",
    "Error Starting Process",
    "Error Shutting down process",
    "Security Access Failed",
    "Password Error",
    "Progress Unavailable",
    "Cancelled",
    "Invalid Arguments",
    "GUI Proxy Died",
    "The remote machine is unavailable",
    "No GUI Connection",
    "Unsupported interface",
    "No more processes permitted",
    "Service already running",
    "Failed to spawn new process",
    "Failed to resolve name of process",
    "Failed to adopt process",
    "The remote machine is unreachable",
    "The remote machine is unknown",
    "Transmission failure",
    "The remote machine cannot be remotely controlled",
    "A plugin died unexpectedly",
};

constexpr const char* apstrStates[] = {
    // from -1 on
    "Unknown", "Creating", "Initializing", "Waiting for task",
    "Busy",    "Exiting",  "Zombie",       "Restart Service",
};

char acUnknownError[128];

// The text of a table that begins at lFirst; null for a value without one.
template <std::size_t N>
const char* ProcTextOf(const char* const (&apstrTexts)[N], int32 lFirst, int32 lValue) {
    const int64 llIndex = static_cast<int64>(lValue) - lFirst;
    return llIndex < 0 || llIndex >= static_cast<int64>(N) ? nullptr : apstrTexts[llIndex];
}

bool ProcIsAddress(ProcAddressO oAddress) {
    return ObjCheckTypeInternal(oAddress, ProcAddressMagic) == TRUE;
}

// The process that the address leads to, a new holder.
BooleanT ProcProcessAt(MsgAddressO* poProcess, MsgAddressO oAddress) {
    return BooleanFrom(MsgRemoteEnd(poProcess, oAddress) == TRUE &&
                       MsgGetMachineName(*poProcess) != nullptr);
}

// Sends a body whose first field is the address of a process.
template <class T>
BooleanT ProcSendAddress(MsgAddressO oManager, MsgTypeT tMsgType, T* oBody, MsgAddressO oProcess) {
    if (oBody == nullptr) return FALSE;
    MsgReplaceHeld(&oBody->oAddress, oProcess);
    return MsgSendObject(oManager, tMsgType, oBody);
}

template <class T>
BooleanT ProcAskAboutDeath(MsgAddressO oAddress, MsgTypeT tMsgType, int32 lMagic,
                           const char* pstrDescriptor) {
    ObjHolder<MsgAddressS> oProcess;
    if (ProcProcessAt(oProcess.Address(), oAddress) != TRUE) return FALSE;
    const ObjHolder<T> oBody(ObjNew<T>(lMagic, pstrDescriptor));
    return ProcSendAddress(MsgProcMgrAddress(), tMsgType, oBody.Get(), oProcess.Get());
}

}  // namespace

BooleanT ProcApiInitialize() { return TRUE; }

BooleanT ProcApiInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ProcApiReleaseThread(TesselContextT* /*ptTlContext*/) {}

// --- addresses of services ---

BooleanT ProcCreateAddress(ProcAddressO* poAddress, const char* pstrMachineName,
                           const char* pstrProcessName, int32 lInterfaceType) {
    if (ObjCreate(poAddress, ProcAddressMagic, ProcAddressDescriptor) != TRUE) return FALSE;
    (*poAddress)->pstrMachineName = StrDuplicateIntoPool(pstrMachineName, MemPool());
    (*poAddress)->pstrProcessName = StrDuplicateIntoPool(pstrProcessName, MemPool());
    (*poAddress)->lInterfaceType = lInterfaceType;
    return TRUE;
}

const char* ProcGetProcessNameFromAddress(ProcAddressO oAddress) {
    return ProcIsAddress(oAddress) ? oAddress->pstrProcessName : nullptr;
}

int32 ProcGetInterfaceTypeFromAddress(ProcAddressO oAddress) {
    return ProcIsAddress(oAddress) ? oAddress->lInterfaceType : 0;
}

BooleanT ProcAddressEqual(ProcAddressO oAddressA, ProcAddressO oAddressB) {
    return BooleanFrom(ProcIsAddress(oAddressA) && ProcIsAddress(oAddressB) &&
                       MsgTextsEqual(oAddressA->pstrMachineName, oAddressB->pstrMachineName) &&
                       MsgTextsEqual(oAddressA->pstrProcessName, oAddressB->pstrProcessName) &&
                       oAddressA->lInterfaceType == oAddressB->lInterfaceType);
}

// --- errors and states ---

const char* ProcErrorString(int32 lErrorCode) {
    const char* pstrText = ProcTextOf(apstrErrors, ProcErrorFirstCode, lErrorCode);
    if (pstrText != nullptr)
        return LocaleGetStaticString(pstrText,
                                     lErrorCode - ProcErrorFirstCode + ProcErrorFirstText);
    std::snprintf(acUnknownError, sizeof(acUnknownError), "%s - %d",
                  LocaleGetStaticString("Unknown Error", ProcErrorUnknownText), lErrorCode);
    return acUnknownError;
}

const char* ProcProcessStateDescription(ProcStateE eState) {
    const char* pstrText = ProcTextOf(apstrStates, eProcStateUnknown, eState);
    return pstrText == nullptr ? "Invalid" : pstrText;
}

// --- processes ---

BooleanT ProcKillProcess(MsgAddressO oAddress, int32 lKillType) {
    ObjHolder<MsgAddressS> oProcess;
    ObjHolder<MsgAddressS> oManager;
    if (ProcProcessAt(oProcess.Address(), oAddress) != TRUE ||
        MsgCreateAddress(oManager.Address(), MsgGetMachineName(oProcess.Get()),
                         MsgProcessManagerId) != TRUE)
        return FALSE;
    const ObjHolder<PmgrKillProcessS> oBody(
        ObjNew<PmgrKillProcessS>(PmgrKillProcessMagic, PmgrKillProcessDescriptor));
    if (oBody.Get() != nullptr) oBody.Get()->lKillType = lKillType;
    return ProcSendAddress(oManager.Get(), PMGR_KILL_PROCESS_MSG, oBody.Get(), oProcess.Get());
}

BooleanT ProcInformOnDeath(MsgAddressO oAddress) {
    return ProcAskAboutDeath<PmgrNotifyOnDeathS>(
        oAddress, PMGR_NOTIFY_ON_DEATH_MSG, PmgrNotifyOnDeathMagic, PmgrNotifyOnDeathDescriptor);
}

BooleanT ProcCancelInformOnDeath(MsgAddressO oAddress) {
    return ProcAskAboutDeath<PmgrCancelNotifyOnDeathS>(oAddress, PMGR_CANCEL_NOTIFY_ON_DEATH_MSG,
                                                       PmgrCancelNotifyOnDeathMagic,
                                                       PmgrCancelNotifyOnDeathDescriptor);
}

BooleanT ProcIsProcessRunning(int32 lProcId, const char* pstrMachine) {
    const ObjHolder<PmgrGetProcessStateS> oBody(
        ObjNew<PmgrGetProcessStateS>(PmgrGetProcessStateMagic, PmgrGetProcessStateDescriptor));
    ObjHolder<MsgAddressS> oManager;
    ObjHolder<PmgrGetProcessStateReturnS> oReply;
    if (oBody.Get() == nullptr ||
        MsgCreateAddress(&oBody.Get()->oAddress, pstrMachine, lProcId) != TRUE ||
        MsgCreateAddress(oManager.Address(), pstrMachine, MsgProcessManagerId) != TRUE ||
        MsgWaitInterchange(oReply.Address(), oManager.Get(), PMGR_GET_PROCESS_STATE_MSG,
                           oBody.Get(), PMGR_GET_PROCESS_STATE_RETURN_MSG,
                           PmgrGetProcessStateReturnMagic) != TRUE)
        return FALSE;
    const bool bRunning = oReply.Get()->eState != eProcStateUnknown;
    if (bRunning)
        TraceMessageInline(1, 0, 4, "Process %d is running on %s.", lProcId, pstrMachine);
    else
        TraceMessageInline(2, 0, 4, "Process %d is not running on %s.", lProcId, pstrMachine);
    return BooleanFrom(bRunning);
}

BooleanT ProcSetProcessContextObject(MsgAddressO oAddress, void* oObject) {
    ObjHolder<MsgAddressS> oProcess;
    if (ObjHasValidGlobalMagic(oObject) != TRUE ||
        ProcProcessAt(oProcess.Address(), oAddress) != TRUE)
        return FALSE;
    const char* pstrMachine = MsgGetMachineName(oProcess.Get());
    int32 lMajor = 0;
    if (MachInfoTLVersionMajor(&lMajor, pstrMachine) != TRUE || lMajor < ProcContextVersion) {
        TraceMessageInline(3, 0, 4, "Wont send set-process-context to old machine '%s'",
                           pstrMachine);
        return FALSE;
    }
    const ObjHolder<SetProcessContextRequestS> oBody(ObjNew<SetProcessContextRequestS>(
        SetProcessContextRequestMagic, SetProcessContextRequestDescriptor));
    if (oBody.Get() == nullptr) return FALSE;
    MsgReplaceHeld(&oBody.Get()->oObject, oObject);
    // To the address itself: what came over a channel is answered over it.
    if (MsgSendObject(oAddress, MSG_SET_PROCESS_CONTEXT_REQUEST_MSG, oBody.Get()) != TRUE) {
        TraceMessageInline(5, 0, -1, "Failed to send set-process-context msg to machine '%s'",
                           pstrMachine);
        return FALSE;
    }
    TraceMessageInline(4, 0, 4, "Sent set-process-context msg to machine '%s'", pstrMachine);
    return TRUE;
}
