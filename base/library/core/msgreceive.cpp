// The select loop and the receive list.
//
// MsgSelect is one turn of the loop: it waits for anything, serves the channels that are ready, the
// handlers that the application has added, the pending connections and the timers. All that comes
// of it lies in the receive list afterwards. Every way of receiving makes at most one turn when the
// list is empty and none when it is not.
#include "core/list.h"
#include "core/timer.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

// A turn of the loop that ends in time for pending connections and timers.
void MsgTurn(TimeTimeoutO oTimeout) {
    TimeTimeoutS tLowered;  // a bare record: nobody holds it longer than the turn
    if (TimeTimeoutCopy(&tLowered, oTimeout) != TRUE) TimeSetTimeoutNever(&tLowered);
    MsgLowerToPending(&tLowered);
    TimeSetTimeoutIfLower(&tLowered, TimrNextEvent());
    MsgSelect(&tLowered);
}

void MsgUpdateReceiveList(TimeTimeoutO oTimeout) {
    if (MsgReceiveCount() == 0) {
        TimrClearTimers();
        if (MsgReceiveCount() == 0) MsgTurn(oTimeout);
    }
    TraceMessageInline(160, 0, 4, "Updated receive list");
}

// --- looking through the receive list ---

// What a wait looks for, and where: addresses are compared as they stand in packets.
struct MsgWantedT {
    MsgTypeT tMsgType;
    MsgAddressO oAddress;       // null: from anywhere
    MsgPacketAddressT tSource;  // the same
};

bool MsgIsWanted(const MsgHeaderT& tHeader, const MsgWantedT& tWanted) {
    TraceMessageInline(161, 0, 4, "got %d %d:%d", tHeader.tMsgType, tHeader.tSource.tMachineId,
                       tHeader.tSource.tProcessId);
    if (tWanted.tMsgType != 0 && tHeader.tMsgType != tWanted.tMsgType) return false;
    return tWanted.oAddress == nullptr ||
           (tHeader.tSource.tMachineId == tWanted.tSource.tMachineId &&
            tHeader.tSource.tProcessId == tWanted.tSource.tProcessId);
}

ListNodeO MsgFindWanted(const MsgWantedT& tWanted) {
    TraceMessageInline(162, 0, 4, "look for %d %d:%d", tWanted.tMsgType, tWanted.tSource.tMachineId,
                       tWanted.tSource.tProcessId);
    for (ListNodeO oNode = MsgState().oReceiveList->oFirst; oNode != nullptr;
         oNode = oNode->oNext) {
        const MsgHeaderT* ptHeader = MsgPacketHeader(static_cast<MsgPacketO>(oNode->oData));
        if (ptHeader != nullptr && MsgIsWanted(*ptHeader, tWanted)) return oNode;
    }
    return nullptr;
}

// --- notices that end a wait ---

// Whose death ends a wait for a process: its own, or that of any process of its machine.
enum class MsgDeathE { OfPeer, OnMachine };

bool MsgProcessDied(MsgPacketO oPacket, const MsgPeerT& tPeer, MsgDeathE eDeath) {
    ObjHolder<PmgrProcessDiedS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, PmgrProcessDiedMagic) != TRUE) return false;
    return eDeath == MsgDeathE::OnMachine
               ? tPeer.IsOn(MsgGetMachineName(oBody.Get()->oAddress))
               : MsgAddressEqual(oBody.Get()->oAddress, tPeer.oProcess.Get()) == TRUE;
}

bool MsgProcessUnreachable(MsgPacketO oPacket, const MsgPeerT& tPeer) {
    ObjHolder<CmgrProcessUnreachableS> oBody;
    return MsgObjectFromPacket(oBody.Address(), oPacket, CmgrProcessUnreachableMagic) == TRUE &&
           MsgAddressEqual(oBody.Get()->oAddress, tPeer.oProcess.Get()) == TRUE;
}

bool MsgMachineDown(MsgPacketO oPacket, const MsgPeerT& tPeer) {
    ObjHolder<CmgrMachineDownS> oBody;
    return MsgObjectFromPacket(oBody.Address(), oPacket, CmgrMachineDownMagic) == TRUE &&
           tPeer.IsOn(oBody.Get()->pstrMachineName);
}

bool MsgMachineUnreachable(const MsgHeaderT& tHeader, const MsgPeerT& tPeer) {
    MsgMachineIdT tId = MsgMachineIdNone;
    return tPeer.Machine() != nullptr && MsgMachineId(tPeer.Machine(), &tId) == TRUE &&
           tHeader.tSource.tMachineId == tId;
}

bool MsgEndsWait(MsgPacketO oPacket, const MsgPeerT& tPeer, MsgDeathE eDeath) {
    const MsgHeaderT* ptHeader = MsgPacketHeader(oPacket);
    if (ptHeader == nullptr) return false;
    switch (ptHeader->tMsgType) {
        case MSG_LOST_RECEIVE_QUEUE_MSG:
        case MSG_LOST_SEND_QUEUE_MSG:
            return true;
        case PMGR_PROCESS_DIED_MSG:
            return MsgProcessDied(oPacket, tPeer, eDeath);
        case CMGR_PROCESS_UNREACHABLE_MSG:
            return MsgProcessUnreachable(oPacket, tPeer);
        case CMGR_MACHINE_DOWN_MSG:
            return MsgMachineDown(oPacket, tPeer);
        case NMGR_MACHINE_UNREACHABLE_MSG:
            return MsgMachineUnreachable(*ptHeader, tPeer);
        case MSG_CHANNEL_DOWN_MSG:
            return tPeer.lChannelId == ptHeader->tSource.tProcessId;
        default:
            return false;
    }
}

bool MsgWaitIsOver(const MsgPeerT& tPeer, MsgDeathE eDeath, int32 lKnown) {
    ListNodeO oNode = MsgState().oReceiveList->oFirst;
    for (; oNode != nullptr; oNode = oNode->oNext) {
        if (lKnown-- <= 0 && MsgEndsWait(static_cast<MsgPacketO>(oNode->oData), tPeer, eDeath))
            return true;
    }
    return false;
}

// Takes a packet off the list and makes a message of it.
BooleanT MsgTakeNode(MsgMessageO* poMessage, ListNodeO oNode) {
    const ObjHolder<MsgPacketS> oPacket(MsgHold(static_cast<MsgPacketO>(oNode->oData)));
    ListRemoveItem(oNode);
    return MsgMessageFromPacket(poMessage, oPacket.Get());
}

// --- select handlers ---

ListNodeO MsgFindHandler(MsgHandlerCallbackFnT fnCallback, void* oCookie) {
    if (MsgState().oHandlers == nullptr) return nullptr;
    for (ListNodeO oNode = MsgState().oHandlers->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        auto* oEntry = static_cast<MsgHandlerEntryO>(oNode->oData);
        if (oEntry->fnCallback == reinterpret_cast<void*>(fnCallback) && oEntry->oCookie == oCookie)
            return oNode;
    }
    return nullptr;
}

}  // namespace

// --- the loop ---

// Handlers may add and remove handlers: a copy is walked, and who has been removed is not called.
void MsgServeHandlers(NetSelectMaskT tMask) {
    ObjHolder<ListS> oHandlers;
    if (MsgState().oHandlers == nullptr || MsgState().oHandlers->oFirst == nullptr ||
        ListDuplicate(oHandlers.Address(), MsgState().oHandlers) != TRUE)
        return;
    for (ListNodeO oNode = oHandlers.Get()->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        auto* oEntry = static_cast<MsgHandlerEntryO>(oNode->oData);
        const auto fnCallback = reinterpret_cast<MsgHandlerCallbackFnT>(oEntry->fnCallback);
        if (MsgFindHandler(fnCallback, oEntry->oCookie) != nullptr)
            fnCallback(tMask, oEntry->oCookie);
    }
}

void MsgSelect(TimeTimeoutO oTimeout) {
    TesselContextMsgS& tMsg = MsgState();
    int32 lReady = 0;
    if (NetCopySelectMask(tMsg.tSelectMaskCopy, tMsg.tSelectMask) != TRUE) return;
    switch (NetSelect(&lReady, tMsg.tSelectMaskCopy, oTimeout)) {
        case NET_ERROR_NONE:
            MsgServeChannels(tMsg.tSelectMaskCopy);
            MsgServeHandlers(tMsg.tSelectMaskCopy);
            break;
        case NET_ERROR_TIMEOUT:
            break;
        case NET_ERROR_INTERRUPTED:
            MsgServeHandlers(nullptr);
            return;
        default:
            TraceMessageInline(163, 0, -1, "Fatal error in select call");
            MsgNotify(MSG_FATAL_SELECT_ERROR_MSG, nullptr);
            return;
    }
    MsgCheckConnectionTimeouts(tMsg.tSelectMaskCopy);
    TimrClearTimers();
}

// What others need of this process goes on, so that two processes that wait for each other's
// channels do not wait for ever.
NetErrorE MsgTurnBeside(NetSocketT tSocket, bool bRead, TimeTimeoutO oTimeout) {
    NetSelectMaskT tMask = nullptr;
    int32 lReady = 0;
    if (NetDuplicateSelectMask(&tMask, MsgState().tSelectMask) != TRUE) return NET_ERROR_FATAL;
    if (bRead) NetAddReadSelect(tMask, tSocket);
    if (!bRead) NetAddWriteSelect(tMask, tSocket);
    if (!bRead) NetAddExceptionSelect(tMask, tSocket);
    NetErrorE eError = NetSelect(&lReady, tMask, oTimeout);
    if (eError == NET_ERROR_NONE) {
        const bool bIsReady = NetIsReadSelectSet(tMask, tSocket) == TRUE ||
                              NetIsWriteSelectSet(tMask, tSocket) == TRUE ||
                              NetIsExceptionSelectSet(tMask, tSocket) == TRUE;
        // The socket is the caller's, also where it belongs to a channel already.
        NetRemoveReadSelect(tMask, tSocket);
        NetRemoveWriteSelect(tMask, tSocket);
        NetRemoveExceptionSelect(tMask, tSocket);
        MsgServeChannels(tMask);
        MsgCheckConnectionTimeouts(tMask);
        if (!bIsReady) eError = NET_ERROR_INTERRUPTED;
    }
    NetReleaseSelectMask(&tMask);
    return eError;
}

BooleanT MsgHandlerAdd(MsgHandlerCallbackFnT fnCallback, void* oCookie) {
    ObjHolder<MsgHandlerEntryS> oEntry;
    if (fnCallback == nullptr ||
        ObjCreate(oEntry.Address(), MsgHandlerEntryMagic, MsgHandlerEntryDescriptor) != TRUE)
        return FALSE;
    oEntry.Get()->fnCallback = reinterpret_cast<void*>(fnCallback);
    MsgReplaceHeld(&oEntry.Get()->oCookie, oCookie);
    return ListPushLastItem(MsgState().oHandlers, oEntry.Address());
}

BooleanT MsgHandlerRemove(MsgHandlerCallbackFnT fnCallback, void* oCookie) {
    ListNodeO oNode = MsgFindHandler(fnCallback, oCookie);
    return oNode == nullptr ? FALSE : ListRemoveItem(oNode);
}

void MsgAddReadSelect(NetSocketT tSocket) { NetAddReadSelect(MsgState().tSelectMask, tSocket); }
void MsgAddWriteSelect(NetSocketT tSocket) { NetAddWriteSelect(MsgState().tSelectMask, tSocket); }
void MsgAddExceptionSelect(NetSocketT tSocket) {
    NetAddExceptionSelect(MsgState().tSelectMask, tSocket);
}
void MsgRemoveReadSelect(NetSocketT tSocket) {
    NetRemoveReadSelect(MsgState().tSelectMask, tSocket);
}
void MsgRemoveWriteSelect(NetSocketT tSocket) {
    NetRemoveWriteSelect(MsgState().tSelectMask, tSocket);
}
void MsgRemoveExceptionSelect(NetSocketT tSocket) {
    NetRemoveExceptionSelect(MsgState().tSelectMask, tSocket);
}
BooleanT MsgIsReadSelectSet(NetSocketT tSocket) {
    return NetIsReadSelectSet(MsgState().tSelectMask, tSocket);
}
BooleanT MsgIsWriteSelectSet(NetSocketT tSocket) {
    return NetIsWriteSelectSet(MsgState().tSelectMask, tSocket);
}
BooleanT MsgIsExceptionSelectSet(NetSocketT tSocket) {
    return NetIsExceptionSelectSet(MsgState().tSelectMask, tSocket);
}
void MsgCheckSelect() { NetCheckSelect(MsgState().tSelectMask); }

// --- notices to this process ---

BooleanT MsgNotify(MsgTypeT tMsgType, void* oObject) {
    return MsgNotifyBetween(MsgLocalAddress(), MsgLocalAddress(), tMsgType, oObject);
}

BooleanT MsgNotifyBetween(MsgAddressO oDestination, MsgAddressO oSource, MsgTypeT tMsgType,
                          void* oObject) {
    if (MsgState().oReceiveList == nullptr) return FALSE;  // the thread is being released
    ObjHolder<MsgPacketS> oPacket;
    if (MsgCreateSelfPacket(oPacket.Address(), oDestination, oSource, tMsgType, oObject) != TRUE &&
        MsgCreateSelfPacket(oPacket.Address(), oDestination, MsgLocalAddress(), tMsgType,
                            oObject) != TRUE)
        return FALSE;
    return MsgReceivePushPacket(oPacket.Get());
}

BooleanT MsgPeerIsGone(MsgAddressO oAddress, int32 lKnown) {
    return BooleanFrom(MsgWaitIsOver(MsgPeerT(oAddress), MsgDeathE::OfPeer, lKnown));
}

// --- the receive list ---

BooleanT MsgReceivePushPacket(MsgPacketO oPacket) {
    if (MsgPacketHeader(oPacket) == nullptr) return FALSE;
    return ListAddLastItem(MsgState().oReceiveList, oPacket);
}

BooleanT MsgReceivePopPacket(MsgPacketO* poPacket) {
    if (poPacket == nullptr || MsgReceiveCount() == 0) return FALSE;
    return ListPopFirstItem(MsgState().oReceiveList, poPacket);
}

int32 MsgReceiveCount() {
    return MsgState().oReceiveList == nullptr ? 0 : MsgState().oReceiveList->lItemCount;
}

BooleanT MsgWalkReceiveList(MsgPacketCallbackFnT fnCallback, void* pArgument) {
    if (fnCallback == nullptr || MsgState().oReceiveList == nullptr) return FALSE;
    BooleanT bResult = TRUE;
    for (ListNodeO oNode = MsgState().oReceiveList->oFirst; oNode != nullptr && bResult == TRUE;) {
        ListNodeO oNext = oNode->oNext;
        bResult = fnCallback(static_cast<MsgPacketO>(oNode->oData), pArgument);
        oNode = oNext;
    }
    return bResult;
}

BooleanT MsgPushPackets(ListO oPackets) {
    if (ListIsList(oPackets) != TRUE) return FALSE;
    BooleanT bResult = TRUE;
    while (oPackets->oFirst != nullptr && bResult == TRUE) {
        ObjHolder<MsgPacketS> oPacket;
        bResult = BooleanFrom(ListPopFirstItem(oPackets, oPacket.Address()) == TRUE &&
                              MsgRequeuePacket(oPacket.Get()) == TRUE);
    }
    return bResult;
}

BooleanT MsgPushMessages(ListO oMessages) {
    if (ListIsList(oMessages) != TRUE) return FALSE;
    BooleanT bResult = TRUE;
    while (oMessages->oFirst != nullptr && bResult == TRUE) {
        ObjHolder<MsgMessageS> oMessage;
        bResult = BooleanFrom(ListPopFirstItem(oMessages, oMessage.Address()) == TRUE &&
                              MsgRequeue(oMessage.Get()) == TRUE);
    }
    return bResult;
}

// --- receiving ---

BooleanT MsgReceive(MsgMessageO* poMessage, TimeTimeoutO oTimeout) {
    if (poMessage == nullptr) return FALSE;
    MsgUpdateReceiveList(oTimeout);
    for (;;) {
        ObjHolder<MsgPacketS> oPacket;
        if (MsgReceivePopPacket(oPacket.Address()) != TRUE) return FALSE;
        if (MsgMessageFromPacket(poMessage, oPacket.Get()) == TRUE) return TRUE;
    }
}

BooleanT MsgReceivePacket(MsgPacketO* poPacket, TimeTimeoutO oTimeout) {
    if (poPacket == nullptr) return FALSE;
    MsgUpdateReceiveList(oTimeout);
    return MsgReceivePopPacket(poPacket);
}

BooleanT MsgPoll(MsgMessageO* poMessage) { return MsgReceive(poMessage, MsgImmediate()); }

BooleanT MsgReceiveObject(MsgTypeT* ptMsgType, void** poObject, TimeTimeoutO oTimeout) {
    ObjHolder<MsgMessageS> oMessage;
    if (ptMsgType == nullptr || poObject == nullptr ||
        MsgReceive(oMessage.Address(), oTimeout) != TRUE)
        return FALSE;
    *ptMsgType = oMessage.Get()->tMsgType;
    MsgHandOut(poObject, oMessage.Get()->oObject);
    return TRUE;
}

BooleanT MsgWait(TimeTimeoutO oTimeout) {
    MsgUpdateReceiveList(oTimeout);
    return BooleanFrom(MsgReceiveCount() > 0);
}

BooleanT MsgPending() { return MsgPendingWithTimeout(0); }

BooleanT MsgPendingWithTimeout(int32 lTimeout) {
    TimrClearTimers();
    if (MsgReceiveCount() > 0) return TRUE;
    NetSelectMaskT tMask = nullptr;
    if (NetDuplicateSelectMask(&tMask, MsgState().tSelectMask) != TRUE) return FALSE;
    int32 lReady = 0;
    const NetErrorE eError = NetSelectRelative(&lReady, tMask, lTimeout);
    NetReleaseSelectMask(&tMask);
    return BooleanFrom(eError == NET_ERROR_NONE);
}

BooleanT MsgReceiveMsgTypeFromAddress(MsgMessageO* poMessage, MsgTypeT tMsgType,
                                      MsgAddressO oAddress, TimeTimeoutO oTimeout) {
    MsgWantedT tWanted = {tMsgType, oAddress, {MsgMachineIdNone, 0}};
    if (poMessage == nullptr || MsgState().oReceiveList == nullptr) return FALSE;
    if (oAddress != nullptr && MsgAddressToPacketAddress(&tWanted.tSource, oAddress) != TRUE)
        return FALSE;
    if (MsgIsAChannel(oAddress) == TRUE)
        TraceMessageInline(164, 0, 4, "Receive from channel (%d:%s)", oAddress->tProcessId,
                           MsgName(tMsgType));
    else
        TraceMessageInline(165, 0, 4, "Receive from non-channel (%d:%s)", MsgGetProcessId(oAddress),
                           MsgName(tMsgType));
    const MsgPeerT tPeer(oAddress);
    BooleanT bResult = FALSE;
    for (;;) {
        TimrClearTimers();
        if (ListNodeO oNode = MsgFindWanted(tWanted)) {
            bResult = MsgTakeNode(poMessage, oNode);
            break;
        }
        if (MsgWaitIsOver(tPeer, MsgDeathE::OnMachine, 0) || MsgHasExpired(oTimeout)) break;
        MsgTurn(oTimeout);
    }
    TraceMessageInline(166, 0, 4, "%s = MsgReceiveTypeFromAddress(%p, %d, %p, %p)",
                       BooleanText(bResult), static_cast<void*>(poMessage), tMsgType,
                       static_cast<void*>(oAddress), static_cast<void*>(oTimeout));
    return bResult;
}
