// Sending: which channel a packet leaves by.
//
// A destination without a machine is a channel of this process. Everything else goes to the
// communications manager, which knows the processes of this machine and hands what is for other
// machines to the network manager.
#include "core/list.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

// What is too long for the receiver, or meant for this process alone, is not sent.
bool MsgMayLeave(MsgPacketO oPacket) {
    const MsgHeaderT* ptHeader = MsgPacketHeader(oPacket);
    if (ptHeader == nullptr) return false;
    if (ptHeader->bMore != 0) {
        TraceMessageInline(150, 0, -1, "%s holds pointers of this process and is not sent",
                           MsgName(ptHeader->tMsgType));
        return false;
    }
    if (oPacket->tMessage.lSize <= gtMsgSettings.lMaximumMessage) return true;
    TraceMessageInline(151, 0, -1, "%s of %d bytes is not sent: %d are allowed",
                       MsgName(ptHeader->tMsgType), oPacket->tMessage.lSize,
                       gtMsgSettings.lMaximumMessage);
    return false;
}

bool MsgMayQueue(MsgChannelO oChannel, MsgPacketO oPacket) {
    return MsgIsChannelObject(oChannel) && oChannel->bDown != TRUE &&
           oChannel->bNdmpChannel != TRUE && MsgMayLeave(oPacket);
}

BooleanT MsgDispatchIpc(MsgPacketO* poPacket) {
    const ObjHolder<MsgChannelS> oIpc(MsgHold(MsgState().oIpcChannel));
    if (oIpc.Get() != nullptr && MsgChannelDispatch(oIpc.Get(), poPacket) == TRUE) return TRUE;
    MsgNotify(MSG_LOST_SEND_QUEUE_MSG, nullptr);
    if (oIpc.Get() != nullptr) MsgChannelDown(oIpc.Get());
    return FALSE;
}

// What this layer remembers of messages that have been sent.
void MsgNoteSent(MsgAddressO oMsgAddress, MsgTypeT tMsgType, void* oObject) {
    if (tMsgType == PMGR_NOTIFY_ON_DEATH_MSG &&
        ObjCheckTypeInternal(oObject, PmgrNotifyOnDeathMagic) == TRUE) {
        MsgWatchProcess(static_cast<PmgrNotifyOnDeathO>(oObject)->oAddress);
    }
    if (tMsgType == PMGR_CANCEL_NOTIFY_ON_DEATH_MSG &&
        ObjCheckTypeInternal(oObject, PmgrCancelNotifyOnDeathMagic) == TRUE) {
        MsgForgetProcess(static_cast<PmgrCancelNotifyOnDeathO>(oObject)->oAddress);
    }
    ObjHolder<MsgChannelS> oChannel;
    if (tMsgType == MSG_PROXY_SOURCE_MSG && MsgIsAChannel(oMsgAddress) == TRUE &&
        ObjCheckTypeInternal(oObject, MsgProxySourceMagic) == TRUE &&
        MsgGetChannel(oChannel.Address(), oMsgAddress) == TRUE) {
        TraceMessageInline(152, 0, 4, "Setting proxy peer on local channel end point");
        MsgReplaceHeld(&oChannel.Get()->oProxyPeer,
                       static_cast<MsgProxySourceO>(oObject)->oPeerAddress);
    }
}

}  // namespace

BooleanT MsgSendObject(MsgAddressO oMsgAddress, MsgTypeT tMsgType, void* oObject) {
    MsgPacketO oPacket = nullptr;
    if (MsgCreatePacket(&oPacket, oMsgAddress, MsgLocalAddress(), tMsgType, oObject) != TRUE ||
        MsgDispatch(&oPacket) != TRUE)
        return FALSE;
    MsgNoteSent(oMsgAddress, tMsgType, oObject);
    return TRUE;
}

BooleanT MsgDispatch(MsgPacketO* poPacket) {
    if (poPacket == nullptr) return FALSE;
    ObjHolder<MsgPacketS> oPacket(*poPacket);
    *poPacket = nullptr;
    if (!MsgMayLeave(oPacket.Get())) return FALSE;
    const MsgHeaderT tHeader = *MsgPacketHeader(oPacket.Get());
    TraceMessageInline(153, 0, 4, "Send message %s from %d:%d to %d:%d", MsgName(tHeader.tMsgType),
                       tHeader.tSource.tMachineId, tHeader.tSource.tProcessId,
                       tHeader.tDestination.tMachineId, tHeader.tDestination.tProcessId);
    if (tHeader.tDestination.tMachineId == MsgMachineIdNone) {
        ObjHolder<MsgChannelS> oChannel;
        if (MsgChannelById(oChannel.Address(), tHeader.tDestination.tProcessId) != TRUE)
            return FALSE;
        return MsgChannelDispatch(oChannel.Get(), oPacket.Address());
    }
    if (tHeader.tDestination.tMachineId != MsgMachineIdLocal &&
        tHeader.tMsgType == PMGR_GIVE_SERVICE_A_TASK_MSG)
        MsgPrepareTaskFailure(oPacket.Get());
    return MsgDispatchIpc(oPacket.Address());
}

BooleanT MsgChannelDispatch(MsgChannelO oChannel, MsgPacketO* poPacket) {
    if (poPacket == nullptr) return FALSE;
    ObjHolder<MsgPacketS> oPacket(*poPacket);
    *poPacket = nullptr;
    if (!MsgMayQueue(oChannel, oPacket.Get())) return FALSE;
    const bool bWasEmpty = MsgFirstOutput(oChannel) == nullptr;
    if (MsgQueueOutput(oChannel, oPacket.Address()) != TRUE) return FALSE;
    if (oChannel->bWaitingForOk == TRUE) return TRUE;
    // Behind packets that the socket did not take, another try would fail as well.
    if (!bWasEmpty && oChannel->bBlocking != TRUE) return TRUE;
    return MsgChannelOutputData(oChannel);
}

BooleanT MsgChannelAddPacket(MsgChannelO oChannel, MsgPacketO oPacket) {
    if (!MsgMayQueue(oChannel, oPacket)) return FALSE;
    ObjIncRefCount(oPacket);
    return MsgQueueOutput(oChannel, &oPacket);
}
