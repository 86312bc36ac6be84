// Packets that a wait keeps, the end of a source, and the exclusive wait, which looks at packets
// only and leaves all others as they are.
#include "core/list.h"
#include "core/trace.h"
#include "msgwaitinternal.h"

TRACE_MODULE("MSGWAIT")

// --- kept packets ---

// Room is a node with something else in it. The list takes anything for that reason.
bool MsgWaitKept::MakeRoom() {
    if (m_oRoom != nullptr) return true;
    if (m_oList.Get() == nullptr) *m_oList.Address() = ListNew();
    if (m_oList.Get() == nullptr || ListAddLastItem(m_oList.Get(), MsgImmediate()) != TRUE) {
        TraceMessageInline(20, 1, -1, "No memory to keep messages, the wait ends");
        return false;
    }
    m_oRoom = m_oList.Get()->oLast;
    return true;
}

void MsgWaitKept::Keep(MsgPacketO oPacket) {
    ListNodeReplaceObject(m_oRoom, oPacket);
    m_oRoom = nullptr;
}

MsgWaitKept::~MsgWaitKept() {
    ListO& oReceiveList = MsgState().oReceiveList;
    if (m_oRoom != nullptr) ListRemoveItem(m_oRoom);
    if (m_oList.Get() == nullptr || m_oList.Get()->oFirst == nullptr || oReceiveList == nullptr)
        return;
    ListJoin(m_oList.Get(), oReceiveList);
    ListJoin(oReceiveList, m_oList.Get());
}

// --- the source of a wait ---

MsgWaitSource::MsgWaitSource(MsgAddressO oSource) : m_oSource(MsgHold(oSource)), m_tPeer(oSource) {}

bool MsgWaitSource::Sent(MsgAddressO oFrom) const {
    MsgAddressO oSource = m_oSource.Get();
    if (oSource == nullptr) return true;
    if (MsgIsAChannel(oSource) == TRUE) return MsgAddressEqual(oFrom, oSource) == TRUE;
    return MsgAddressIsFrom(oSource, oFrom) == TRUE;
}

MsgWaitEndE MsgWaitSource::EndedBy(MsgTypeT tMsgType, MsgAddressO oFrom, void* oBody) const {
    if (m_oSource.Get() == nullptr) return MsgWaitEndE::None;
    if (tMsgType == MSG_CHANNEL_DOWN_MSG && Sent(oFrom)) {
        TraceMessageInline(21, 0, 0, "Desired source has gone down");
        return MsgWaitEndE::ChannelDown;
    }
    if (tMsgType == PMGR_PROCESS_DIED_MSG &&
        ObjCheckTypeInternal(oBody, PmgrProcessDiedMagic) == TRUE &&
        MsgAddressEqual(static_cast<PmgrProcessDiedO>(oBody)->oAddress, m_tPeer.oProcess.Get()) ==
            TRUE) {
        TraceMessageInline(22, 0, 0, "Desired source has died");
        return MsgWaitEndE::ProcessDied;
    }
    if (tMsgType == CMGR_MACHINE_DOWN_MSG &&
        ObjCheckTypeInternal(oBody, CmgrMachineDownMagic) == TRUE &&
        m_tPeer.IsOn(static_cast<CmgrMachineDownO>(oBody)->pstrMachineName)) {
        TraceMessageInline(23, 0, 0, "Machine running desired source has gone down");
        return MsgWaitEndE::MachineDown;
    }
    return MsgWaitEndE::None;
}

// --- the exclusive wait ---

namespace {

struct ExclusiveT {
    MsgMessageO* poMessage;
    MsgTypeT tDesiredMsgType;
    const MsgWaitSource& tSource;
};

MsgWaitResultE TakeDesired(const ExclusiveT& tWanted, MsgPacketO oPacket) {
    if (tWanted.poMessage == nullptr) return eMsgWaitResultSuccess;
    return MsgMessageFromPacket(tWanted.poMessage, oPacket) == TRUE ? eMsgWaitResultSuccess
                                                                    : eMsgWaitResultDecodeError;
}

// What a packet means for the wait; not handled when it means nothing.
MsgWaitResultE Judge(const ExclusiveT& tWanted, MsgPacketO oPacket) {
    const MsgHeaderT* ptHeader = MsgPacketHeader(oPacket);
    if (ptHeader == nullptr) return eMsgWaitResultNotHandled;
    const MsgTypeT tMsgType = ptHeader->tMsgType;
    ObjHolder<MsgAddressS> oFrom;
    const BooleanT bKnown = MsgAddressFromPacketAddress(oFrom.Address(), &ptHeader->tSource);
    if (tMsgType == tWanted.tDesiredMsgType && bKnown == TRUE && tWanted.tSource.Sent(oFrom.Get()))
        return TakeDesired(tWanted, oPacket);
    if (tMsgType == PMGR_KILL_YOURSELF_MSG) {
        TraceMessageInline(24, 0, 0, "Been asked to die");
        return eMsgWaitResultKillRequest;
    }
    if ((tMsgType >= 0 && tMsgType <= MSG_LOST_RECEIVE_QUEUE_MSG) ||
        tMsgType == MSG_FATAL_SELECT_ERROR_MSG) {
        TraceMessageInline(25, 0, -1, "Fatal error on IPC connection");
        return eMsgWaitResultIpcError;
    }
    ObjHolder<void> oBody;
    if (tMsgType == PMGR_PROCESS_DIED_MSG) MsgObjectFromPacket(oBody.Address(), oPacket, 0);
    switch (tWanted.tSource.EndedBy(tMsgType, oFrom.Get(), oBody.Get())) {
        case MsgWaitEndE::ChannelDown:
            return eMsgWaitResultChannelError;
        case MsgWaitEndE::ProcessDied:
            return eMsgWaitResultPeerDied;
        default:
            return eMsgWaitResultNotHandled;
    }
}

MsgWaitResultE WaitExclusive(const ExclusiveT& tWanted, TimeTimeoutO oTimeout) {
    const MsgWaitNesting tNesting;
    MsgWaitKept tKept;
    do {
        ObjHolder<MsgPacketS> oPacket;
        if (!tKept.MakeRoom()) return eMsgWaitResultError;
        if (MsgReceivePacket(oPacket.Address(), oTimeout) != TRUE) continue;
        const MsgWaitResultE eResult = Judge(tWanted, oPacket.Get());
        if (eResult != eMsgWaitResultNotHandled) return eResult;
        tKept.Keep(oPacket.Get());
    } while (!MsgHasExpired(oTimeout));
    return eMsgWaitResultTimeout;
}

}  // namespace

MsgWaitResultE MsgWaitExclusiveWithTimeout(MsgMessageO* poMessage, MsgAddressO oDesiredSource,
                                           MsgTypeT tDesiredMsgType, TimeTimeoutO oTimeout) {
    TraceMessageInline(26, 0, 4, "MsgWaitExclusiveWithTimeout(%p, %p, %s, %p)",
                       static_cast<void*>(poMessage), static_cast<void*>(oDesiredSource),
                       MsgName(tDesiredMsgType), static_cast<void*>(oTimeout));
    MsgWaitResultE eResult = eMsgWaitResultInvalidArgument;
    if (MsgIsLocalMachine(oDesiredSource) == TRUE) {
        const MsgWaitSource tSource(oDesiredSource);
        eResult = WaitExclusive({poMessage, tDesiredMsgType, tSource}, oTimeout);
    } else {
        TraceMessageInline(27, 0, -1, "MsgWaitExclusiveWithTimeout is only valid on local machine");
    }
    TraceMessageInline(28, 0, 4, "%d = MsgWaitExclusiveWithTimeout(%p, %p, %s, %p)", eResult,
                       static_cast<void*>(poMessage), static_cast<void*>(oDesiredSource),
                       MsgName(tDesiredMsgType), static_cast<void*>(oTimeout));
    return eResult;
}
