// What the managers tell over the interprocess channel.
//
// Two lists are kept for the day on which another machine is lost: the processes there whose death
// this process has asked to be told of, and, for every task that it has asked of a service there,
// the reply that says so. The manager of a machine that is down tells nobody, so the notices are
// made here. The real answers take the entries off the lists.
#include "core/list.h"
#include "core/objwrappers.h"
#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

constexpr int32 MsgTaskMachineDown = 9;          // "The remote machine is unavailable"
constexpr int32 MsgTaskMachineUnreachable = 17;  // "The remote machine is unreachable"

ProcAddressO MsgServiceOf(void* oProcAddress) {
    return ObjCheckTypeInternal(oProcAddress, ProcAddressMagic) == TRUE
               ? static_cast<ProcAddressO>(oProcAddress)
               : nullptr;
}

bool MsgServicesEqual(ProcAddressO oA, ProcAddressO oB) {
    return oA != nullptr && oB != nullptr &&
           MsgTextsEqual(oA->pstrMachineName, oB->pstrMachineName) &&
           MsgTextsEqual(oA->pstrProcessName, oB->pstrProcessName) &&
           oA->lInterfaceType == oB->lInterfaceType;
}

// --- walks over the two lists; each may take the entry off ---

template <class T, class Fn>
void MsgEachItem(ListO oList, Fn fnEach) {
    if (oList == nullptr) return;
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr;) {
        ListNodeO oNext = oNode->oNext;
        if (fnEach(static_cast<T*>(oNode->oData))) ListRemoveItem(oNode);
        oNode = oNext;
    }
}

void MsgForgetTask(ProcAddressO oService, int32 lCookie) {
    bool bDone = false;
    MsgEachItem<PmgrGiveServiceATaskReturnS>(
        MsgState().oTaskList, [&](PmgrGiveServiceATaskReturnO oPrepared) {
            if (bDone || oPrepared->lCookie != lCookie ||
                !MsgServicesEqual(MsgServiceOf(oPrepared->oProcAddress), oService))
                return false;
            bDone = true;
            return true;
        });
}

// --- which channels a notice concerns ---

bool MsgRemoteIs(MsgChannelO oChannel, const void* pArgument) {
    return MsgAddressEqual(oChannel->oRemoteAddress,
                           static_cast<MsgAddressO>(const_cast<void*>(pArgument))) == TRUE;
}

bool MsgRemoteMachineIs(MsgChannelO oChannel, const void* pArgument) {
    return MsgIsAddress(oChannel->oRemoteAddress) &&
           MsgTextsEqual(oChannel->oRemoteAddress->pstrMachineName,
                         static_cast<const char*>(pArgument));
}

BooleanT MsgNewTaskReply(PmgrGiveServiceATaskReturnO* poReply, int32 lErrorCode, int32 lCookie,
                         void* oProcAddress) {
    if (ObjCreate(poReply, PmgrGiveServiceATaskReturnMagic, PmgrGiveServiceATaskReturnDescriptor) !=
        TRUE)
        return FALSE;
    (*poReply)->bSuccess = FALSE;
    (*poReply)->lErrorCode = lErrorCode;
    (*poReply)->lCookie = lCookie;
    MsgReplaceHeld(&(*poReply)->oProcAddress, oProcAddress);
    return TRUE;
}

// The two forms of a task request begin alike.
static_assert(offsetof(PmgrGiveServiceATaskS, lCookie) ==
              offsetof(PmgrGiveServiceATaskExtS, lCookie));
PmgrGiveServiceATaskO MsgTaskRequestOf(void* oBody) {
    const bool bIsTask = ObjCheckTypeInternal(oBody, PmgrGiveServiceATaskMagic) == TRUE ||
                         ObjCheckTypeInternal(oBody, PmgrGiveServiceATaskExtMagic) == TRUE;
    return bIsTask ? static_cast<PmgrGiveServiceATaskO>(oBody) : nullptr;
}

// --- the notices ---

void MsgTakeTaskReturn(MsgPacketO oPacket) {
    ObjHolder<PmgrGiveServiceATaskReturnS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, PmgrGiveServiceATaskReturnMagic) != TRUE)
        return;
    if (oBody.Get()->bSuccess == TRUE) MsgWatchProcess(oBody.Get()->oAddress);
    MsgForgetTask(MsgServiceOf(oBody.Get()->oProcAddress), oBody.Get()->lCookie);
}

void MsgTakeProcessDied(MsgPacketO oPacket) {
    ObjHolder<PmgrProcessDiedS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, PmgrProcessDiedMagic) != TRUE ||
        !MsgIsAddress(oBody.Get()->oAddress))
        return;
    MsgForgetProcess(oBody.Get()->oAddress);
    MsgChannelsDownWhere(MsgRemoteIs, oBody.Get()->oAddress);
}

void MsgTakeProcessUnreachable(MsgPacketO oPacket) {
    ObjHolder<CmgrProcessUnreachableS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, CmgrProcessUnreachableMagic) != TRUE) return;
    MsgChannelsDownWhere(MsgRemoteIs, oBody.Get()->oAddress);
}

void MsgNotifyOfDeaths(const char* pstrMachine) {
    MsgEachItem<MsgAddressS>(MsgState().oNotifyOnDeathList, [pstrMachine](MsgAddressO oWatched) {
        TraceMessageInline(140, 0, 4, "Check against %s:%d", oWatched->pstrMachineName,
                           oWatched->tProcessId);
        if (!MsgTextsEqual(oWatched->pstrMachineName, pstrMachine)) return false;
        ObjHolder<PmgrProcessDiedS> oDied(
            ObjNew<PmgrProcessDiedS>(PmgrProcessDiedMagic, PmgrProcessDiedDescriptor));
        if (oDied.Get() == nullptr) return false;
        MsgReplaceHeld(&oDied.Get()->oAddress, oWatched);
        return MsgNotify(PMGR_PROCESS_DIED_MSG, oDied.Get()) == TRUE;
    });
}

void MsgNotifyOfTasks(const char* pstrMachine) {
    MsgEachItem<PmgrGiveServiceATaskReturnS>(
        MsgState().oTaskList, [pstrMachine](PmgrGiveServiceATaskReturnO oPrepared) {
            ProcAddressO oService = MsgServiceOf(oPrepared->oProcAddress);
            if (oService == nullptr) return false;
            TraceMessageInline(141, 0, 4, "Check against %s:%s:%d",
                               MsgText(oService->pstrMachineName),
                               MsgText(oService->pstrProcessName), oPrepared->lCookie);
            return MsgTextsEqual(oService->pstrMachineName, pstrMachine) &&
                   MsgNotify(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, oPrepared) == TRUE;
        });
}

void MsgTakeMachineDown(MsgPacketO oPacket) {
    ObjHolder<CmgrMachineDownS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, CmgrMachineDownMagic) != TRUE ||
        oBody.Get()->pstrMachineName == nullptr)
        return;
    const char* pstrMachine = oBody.Get()->pstrMachineName;
    TraceMessageInline(142, 0, 0, "Machine %s has gone down (%d,%d)", pstrMachine,
                       MsgState().oNotifyOnDeathList->lItemCount, MsgState().oTaskList->lItemCount);
    MsgNotifyOfDeaths(pstrMachine);
    MsgNotifyOfTasks(pstrMachine);
    MsgChannelsDownWhere(MsgRemoteMachineIs, pstrMachine);
}

// FALSE when the notice has become the reply to a task.
BooleanT MsgTakeMachineUnreachable(MsgPacketO oPacket) {
    ObjHolder<NmgrMachineUnreachableS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, NmgrMachineUnreachableMagic) != TRUE ||
        oBody.Get()->tMsgType != PMGR_GIVE_SERVICE_A_TASK_MSG)
        return TRUE;
    PmgrGiveServiceATaskO oTask = MsgTaskRequestOf(oBody.Get()->oUndelivered);
    if (oTask == nullptr) return TRUE;
    ObjHolder<PmgrGiveServiceATaskReturnS> oReply;
    if (MsgNewTaskReply(oReply.Address(), MsgTaskMachineUnreachable, oTask->lCookie,
                        oTask->oProcAddress) != TRUE)
        return TRUE;
    MsgForgetTask(MsgServiceOf(oTask->oProcAddress), oTask->lCookie);
    MsgNotify(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, oReply.Get());
    return FALSE;
}

void MsgTakeTraceLevel(MsgPacketO oPacket) {
    ObjHolder<ObjIntegerS> oLevel;
    if (MsgObjectFromPacket(oLevel.Address(), oPacket, ObjIntegerMagic) == TRUE)
        TraceSetLevel(static_cast<TraceLevelE>(oLevel.Get()->lValue));
}

void MsgTakeTraceFile(MsgPacketO oPacket) {
    ObjHolder<ObjStringS> oPath;
    if (MsgObjectFromPacket(oPath.Address(), oPacket, ObjStringMagic) == TRUE)
        TraceToFile(oPath.Get()->pstrValue);
}

void MsgTakeOther(const MsgHeaderT& tHeader) {
    TraceMessageInline(143, 0, 4, "Got %d from %d:%d for %d:%d, I am %d", tHeader.tMsgType,
                       tHeader.tSource.tMachineId, tHeader.tSource.tProcessId,
                       tHeader.tDestination.tMachineId, tHeader.tDestination.tProcessId,
                       ProcGetId());
    if (tHeader.tMsgType != PMGR_ATTACH_TO_SHM_MSG || ProcGetId() != 0) return;
    ProcSetId(tHeader.tDestination.tProcessId);
    TraceMessageInline(144, 0, 0, "Adopted process given PID %d", ProcGetId());
}

}  // namespace

void MsgWatchProcess(MsgAddressO oAddress) {
    if (!MsgIsAddress(oAddress) || MsgIsAChannel(oAddress) == TRUE ||
        MsgIsLocalMachine(oAddress) == TRUE)
        return;
    TraceMessageInline(145, 0, 4, "Notify process that %s:%d has died if its machine goes down",
                       oAddress->pstrMachineName, oAddress->tProcessId);
    ListAddUniqueItem(
        MsgState().oNotifyOnDeathList,
        [](void* oItemA, void* oItemB) {
            return MsgAddressEqual(static_cast<MsgAddressO>(oItemA),
                                   static_cast<MsgAddressO>(oItemB));
        },
        oAddress);
}

void MsgForgetProcess(MsgAddressO oAddress) {
    MsgEachItem<MsgAddressS>(MsgState().oNotifyOnDeathList, [oAddress](MsgAddressO oWatched) {
        return MsgAddressEqual(oWatched, oAddress) == TRUE;
    });
}

void MsgPrepareTaskFailure(MsgPacketO oPacket) {
    ObjHolder<void> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, 0) != TRUE) {
        TraceMessageInline(146, 0, -1, "Failed to decode message object");
        return;
    }
    PmgrGiveServiceATaskO oTask = MsgTaskRequestOf(oBody.Get());
    if (oTask == nullptr) {
        TraceMessageInline(147, 0, -1, "Unknown task object");
        return;
    }
    PmgrGiveServiceATaskReturnO oReply = nullptr;
    if (MsgNewTaskReply(&oReply, MsgTaskMachineDown, oTask->lCookie, oTask->oProcAddress) == TRUE)
        ListPushLastItem(MsgState().oTaskList, &oReply);
}

BooleanT MsgCheckIpcMessage(MsgPacketO oPacket) {
    const MsgHeaderT& tHeader = *MsgPacketHeader(oPacket);
    switch (tHeader.tMsgType) {
        case PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG:
            MsgTakeTaskReturn(oPacket);
            return TRUE;
        case PMGR_PROCESS_DIED_MSG:
            MsgTakeProcessDied(oPacket);
            return TRUE;
        case CMGR_PROCESS_UNREACHABLE_MSG:
            MsgTakeProcessUnreachable(oPacket);
            return TRUE;
        case CMGR_MACHINE_DOWN_MSG:
            MsgTakeMachineDown(oPacket);
            return TRUE;
        case NMGR_MACHINE_UNREACHABLE_MSG:
            return MsgTakeMachineUnreachable(oPacket);
        case MSG_KEEP_ALIVE_MSG:
            return FALSE;
        case MSG_SET_TRACE_LEVEL_MSG:
            MsgTakeTraceLevel(oPacket);
            return FALSE;
        case MSG_SET_TRACE_FILE_MSG:
            MsgTakeTraceFile(oPacket);
            return FALSE;
        case MSG_LOG_MEMORY_USAGE_MSG:
            ProcMemoryUsage();
            return FALSE;
        default:
            MsgTakeOther(tHeader);
            return TRUE;
    }
}
