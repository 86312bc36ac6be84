// Opening a data channel: this process listens on a socket and sends the target its port in
// MSG_CONNECT_MSG; the target connects back. The opener waits for that, or leaves it to the select
// loop as a pending connection.
#include <sys/socket.h>

#include "core/list.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

enum MsgConnectErrorE : int32 { eMsgCannotListen = 1, eMsgCannotBind = 2, eMsgNoSocket = 3 };

// --- listening ---

struct MsgListenerT {
    MsgSocketHolder tSocket;
    BooleanT bTunnelled = FALSE;
};

BooleanT MsgAskTunnel(MsgAddressO oTarget, int32 lPort) {
    ObjHolder<MsgTunnelListenRequestS> oRequest(ObjNew<MsgTunnelListenRequestS>(
        MsgTunnelListenRequestMagic, MsgTunnelListenRequestDescriptor));
    if (oRequest.Get() == nullptr) return FALSE;
    oRequest.Get()->lPort = lPort;
    MsgReplaceHeld(&oRequest.Get()->oTarget, oTarget);
    return MsgSendObject(MsgTunnelAddress(), MSG_TUNNEL_LISTEN_REQUEST_MSG, oRequest.Get());
}

int32 MsgBoundPort(NetSocketT tSocket) {
    NetAddressT tAddress;
    return NetGetLocalAddress(&tAddress, tSocket) == TRUE ? NetGetIpPort(&tAddress) : 0;
}

// 0, or why the family did not serve.
int32 MsgListenInFamily(MsgListenerT* ptListener, MsgAddressO oTarget, std::int16_t sFamily) {
    MsgSocketHolder& tSocket = ptListener->tSocket;
    if (NetOpen(tSocket.Address(), NET_TYPE_TCP, sFamily) != TRUE) {
        TraceMessageInline(180, 0, -1, "Failed to create socket '%d'", sFamily);
        return eMsgNoSocket;
    }
    const bool bLocal = MsgIsLocalMachine(oTarget) == TRUE;
    ptListener->bTunnelled =
        BooleanFrom(!bLocal && gtMsgSettings.lTunnelPort != 0 && MsgCanTunnel(oTarget) == TRUE);
    const BooleanT bBound = bLocal || ptListener->bTunnelled == TRUE
                                ? MsgBindLoopback(tSocket.Get(), sFamily)
                                : NetBindThroughFirewallTyped(tSocket.Get(), MsgAnyAddress(sFamily),
                                                              MsgFirewallSection, TRUE, sFamily);
    if (bBound != TRUE) {
        NetClose(tSocket.Address());
        return eMsgCannotBind;
    }
    if (NetListen(tSocket.Get(), 1) != TRUE) return eMsgCannotListen;
    if (ptListener->bTunnelled == TRUE &&
        MsgAskTunnel(oTarget, MsgBoundPort(tSocket.Get())) != TRUE)
        return eMsgCannotListen;
    return 0;
}

// Prepares the socket to which the target connects back, and describes it.
BooleanT MsgGetTcpListenSocket(MsgListenerT* ptListener, MsgConnectO oConnect,
                               MsgAddressO oTarget) {
    for (const std::int16_t sFamily : MsgFamilies().asFamilies) {
        oConnect->lErrorCode = MsgListenInFamily(ptListener, oTarget, sFamily);
        oConnect->lFamily = sFamily;
        if (oConnect->lErrorCode != eMsgCannotBind && oConnect->lErrorCode != eMsgNoSocket) break;
    }
    oConnect->bSuccess = FALSE;
    if (oConnect->lErrorCode != 0) return FALSE;
    ObjHolder<MsgConnectInetS> oInet(
        ObjNew<MsgConnectInetS>(MsgConnectInetMagic, MsgConnectInetDescriptor));
    if (oInet.Get() == nullptr) return FALSE;
    oInet.Get()->lPort = MsgBoundPort(ptListener->tSocket.Get());
    oInet.Get()->lAddress = ptListener->bTunnelled == TRUE ? 1 : 0;
    TraceMessageInline(181, 0, 4, "Using port %d", oInet.Get()->lPort);
    MsgReplaceHeld<void>(&oConnect->oQualifier, oInet.Get());
    oConnect->bSuccess = TRUE;
    return TRUE;
}

// --- waiting for the target ---

// The target's connection, as long as nothing tells that it will not come. Meanwhile everything
// else that arrives goes into the receive list.
BooleanT MsgAwaitAccept(MsgSocketHolder& tAccepted, const MsgListenerT& tListener,
                        MsgAddressO oTarget, TimeTimeoutO oTimeout, int32 lKnown) {
    TraceMessageInline(187, 0, 4, "Listening for a socket connection");
    NetErrorE eError = NET_ERROR_WOULD_BLOCK;
    NetSetNonBlocking(tListener.tSocket.Get());
    while ((eError == NET_ERROR_WOULD_BLOCK || eError == NET_ERROR_INTERRUPTED) &&
           MsgPeerIsGone(oTarget, lKnown) != TRUE) {
        NetAddressT tPeer;
        eError = MsgTurnBeside(tListener.tSocket.Get(), true, oTimeout);
        if (eError != NET_ERROR_NONE) continue;
        eError = NetAccept(tAccepted.Address(), tListener.tSocket.Get(), &tPeer);
        if (eError != NET_ERROR_NONE)
            TraceMessageInline(188, 0, -1, "Error accepting a connection");
    }
    if (eError == NET_ERROR_FATAL)
        TraceMessageInline(189, 0, -1, "Select error listening for connection");
    return BooleanFrom(tAccepted.Get() != -1);
}

// Reads from the new channel until the other end says that it is ready; everything else goes on.
BooleanT MsgAwaitOk(MsgChannelO oChannel, TimeTimeoutO oTimeout) {
    TraceMessageInline(190, 0, 4, "Wait for other end to complete connection");
    while (oChannel->bDown != TRUE) {
        ObjHolder<MsgPacketS> oPacket;
        if (MsgChannelReceiveData(oPacket.Address(), oChannel) == TRUE) {
            if (MsgPacketMsgType(oPacket.Get()) != MSG_CONNECTED_OK_MSG) return FALSE;
            // What came together with it is not announced by the socket any more.
            return MsgChannelInputData(oChannel);
        }
        if (oChannel->bDown == TRUE) break;
        const NetErrorE eError = MsgTurnBeside(MsgSocketOf(oChannel), true, oTimeout);
        if (eError == NET_ERROR_FATAL) {
            TraceMessageInline(191, 0, -1, "Unexpected select error");
            MsgCheckSelect();
        }
        if (eError != NET_ERROR_NONE && eError != NET_ERROR_INTERRUPTED) return FALSE;
    }
    return FALSE;
}

BooleanT MsgOpenWaiting(MsgAddressO* poChannelAddress, const MsgListenerT& tListener,
                        MsgAddressO oTarget, MsgChannelBlockingE eBlocking,
                        MsgChannelOkE eWaitForOk, int32 lKnown) {
    TraceMessageInline(192, 0, 4, "Wait for connect back");
    ObjHolder<TimeTimeoutS> oTimeout;
    MsgSocketHolder tAccepted;
    ObjHolder<MsgChannelS> oChannel;
    if (TimeCreateAndSetTimeout(oTimeout.Address(), MsgConnectionSeconds, 0) != TRUE ||
        MsgAwaitAccept(tAccepted, tListener, oTarget, oTimeout.Get(), lKnown) != TRUE ||
        MsgChannelCreateInternal(oChannel.Address(), tAccepted.Get(), oTarget, eBlocking,
                                 eMsgChannelNotifyDown, eMsgChannelNotIpcChannel,
                                 eMsgChannelDoNotWaitForOk, eMsgChannelNotGuiChannel) != TRUE)
        return FALSE;
    tAccepted.Take();
    if (eWaitForOk == eMsgChannelWaitForOk && MsgAwaitOk(oChannel.Get(), oTimeout.Get()) != TRUE) {
        TraceMessageInline(193, 0, -1, "Failed to open data channel");
        MsgDiscardChannel(oChannel.Get());
        return FALSE;
    }
    MsgHandOut(poChannelAddress, oChannel.Get()->oChannelAddress);
    return TRUE;
}

}  // namespace

BooleanT MsgChannelOpenInternal(MsgAddressO* poChannelAddress, MsgAddressO oTarget,
                                void* oTargetCookie, void* oLocalCookie,
                                MsgChannelBlockingE eBlocking, MsgChannelAcceptE eAccept,
                                MsgChannelOkE eWaitForOk) {
    TraceMessageInline(202, 0, 4, "MsgChannelOpenInternal(%p, %p, %p, %p %d, %d, %d)",
                       static_cast<void*>(poChannelAddress), static_cast<void*>(oTarget),
                       oTargetCookie, oLocalCookie, eBlocking, eAccept, eWaitForOk);
    const bool bWaits = eAccept == eMsgChannelWaitForAccept;
    if (!MsgIsAddress(oTarget) || (bWaits && poChannelAddress == nullptr)) return FALSE;
    ObjHolder<MsgConnectS> oConnect(ObjNew<MsgConnectS>(MsgConnectMagic, MsgConnectDescriptor));
    if (oConnect.Get() == nullptr) return FALSE;
    MsgReplaceHeld(&oConnect.Get()->oCookie, oTargetCookie);
    MsgListenerT tListener;
    const BooleanT bListens = MsgGetTcpListenSocket(&tListener, oConnect.Get(), oTarget);
    const int32 lKnown = MsgReceiveCount();
    if (MsgSendObject(oTarget, MSG_CONNECT_MSG, oConnect.Get()) != TRUE || bListens != TRUE)
        return FALSE;
    if (bWaits)
        return MsgOpenWaiting(poChannelAddress, tListener, oTarget, eBlocking, eWaitForOk, lKnown);
    const NetSocketT tListening = tListener.tSocket.Get();
    NetSetNonBlocking(tListening);
    if (MsgAddPending(tListener.tSocket,
                      {oTarget, eBlocking, eMsgChannelNotifyDown, eWaitForOk,
                       eMsgChannelDoNotSendOk, oLocalCookie, eMsgChannelConnectTypeNormal}) != TRUE)
        return FALSE;
    MsgAddReadSelect(tListening);
    return TRUE;
}
