// Data channels. The opener listens on a socket and sends the target its port in MSG_CONNECT_MSG;
// the target connects back. Either side may wait for that or leave it to the select loop, as a
// pending connection: a listening socket watched for reading, or a connecting one watched for
// writing and exceptions. The loop turns it into a channel, or into a notice that it failed.
#include <sys/socket.h>

#include <algorithm>

#include "core/list.h"
#include "core/process.h"
#include "core/sys.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

constexpr char MsgFirewallSection[] = "MsgChannel";

enum MsgConnectErrorE : int32 { eMsgCannotListen = 1, eMsgCannotBind = 2, eMsgNoSocket = 3 };

const char* MsgAnyAddress(std::int16_t sFamily) {
    return sFamily == AF_INET6 ? "0:0:0:0:0:0:0:0" : "0.0.0.0";
}

const char* MsgLoopback(std::int16_t sFamily) { return sFamily == AF_INET6 ? "::1" : "127.0.0.1"; }

BooleanT MsgBindLoopback(NetSocketT tSocket, std::int16_t sFamily) {
    NetAddressT tAddress;
    return BooleanFrom(NetInitializeIpAddress(&tAddress, MsgLoopback(sFamily), 0, sFamily) ==
                           TRUE &&
                       NetBind(tSocket, &tAddress) == TRUE);
}

MsgConnectInetO MsgInetOf(MsgConnectO oConnect) {
    return ObjCheckTypeInternal(oConnect->oQualifier, MsgConnectInetMagic) == TRUE
               ? static_cast<MsgConnectInetO>(oConnect->oQualifier)
               : nullptr;
}

// Waits for one socket: readable, or writable or failed. Signals do not end it.
NetErrorE MsgAwaitSocket(NetSocketT tSocket, bool bRead, TimeTimeoutO oTimeout) {
    NetSelectMaskT tMask = nullptr;
    if (NetInitializeSelectMask(&tMask) != TRUE) return NET_ERROR_FATAL;
    int32 lReady = 0;
    NetErrorE eError = NET_ERROR_INTERRUPTED;
    while (eError == NET_ERROR_INTERRUPTED) {
        if (bRead) NetAddReadSelect(tMask, tSocket);
        if (!bRead) NetAddWriteSelect(tMask, tSocket);
        if (!bRead) NetAddExceptionSelect(tMask, tSocket);
        eError = NetSelect(&lReady, tMask, oTimeout);
    }
    NetReleaseSelectMask(&tMask);
    return eError;
}

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

// --- pending connections ---

struct MsgPendingT {
    MsgAddressO oRemote;
    MsgChannelBlockingE eBlocking;
    MsgChannelNotifyDownE eNotifyDown;
    MsgChannelOkE eWaitForOk;
    MsgChannelSendOkE eSendOk;
    void* oCookie;
    MsgChannelConnectTypeE eType;
};

// On success the entry owns the socket, which the caller puts into the select mask.
BooleanT MsgAddPending(MsgSocketHolder& tSocket, const MsgPendingT& tPending) {
    if (tSocket.Get() >= static_cast<NetSocketT>(FD_SETSIZE)) {
        TraceMessageInline(182, 0, -1, "Socket %d cannot be waited for", tSocket.Get());
        return FALSE;
    }
    ObjHolder<MsgConnectingS> oEntry(
        ObjNew<MsgConnectingS>(MsgConnectingMagic, MsgConnectingDescriptor));
    if (oEntry.Get() == nullptr ||
        TimeCreateAndSetTimeout(&oEntry.Get()->oTimeout, MsgConnectionSeconds, 0) != TRUE)
        return FALSE;
    MsgReplaceHeld(&oEntry.Get()->oRemoteAddress, tPending.oRemote);
    MsgReplaceHeld(&oEntry.Get()->oCookie, tPending.oCookie);
    oEntry.Get()->tSocket = tSocket.Get();
    oEntry.Get()->eIpcChannel = eMsgChannelNotIpcChannel;
    oEntry.Get()->eBlocking = tPending.eBlocking;
    oEntry.Get()->eNotifyDown = tPending.eNotifyDown;
    oEntry.Get()->eWaitForOk = tPending.eWaitForOk;
    oEntry.Get()->eSendOk = tPending.eSendOk;
    oEntry.Get()->lType = tPending.eType;
    if (ListPushLastItem(MsgState().oConnectingList, oEntry.Address()) != TRUE) return FALSE;
    tSocket.Take();
    return TRUE;
}

NetSocketT MsgSocketOfPending(MsgConnectingO oEntry) {
    return static_cast<NetSocketT>(oEntry->tSocket);
}

void MsgUnwatch(NetSocketT tSocket) {
    MsgRemoveReadSelect(tSocket);
    MsgRemoveWriteSelect(tSocket);
    MsgRemoveExceptionSelect(tSocket);
}

BooleanT MsgChannelFromPending(MsgChannelO* poChannel, NetSocketT tSocket, MsgConnectingO oEntry,
                               MsgChannelOkE eWaitForOk) {
    return MsgChannelCreateInternal(poChannel, tSocket, oEntry->oRemoteAddress,
                                    static_cast<MsgChannelBlockingE>(oEntry->eBlocking),
                                    static_cast<MsgChannelNotifyDownE>(oEntry->eNotifyDown),
                                    eMsgChannelNotIpcChannel, eWaitForOk, eMsgChannelNotGuiChannel);
}

// What the connecting side says first on a new channel. One on which it cannot be said goes without
// a notice: nobody has seen it.
BooleanT MsgSendGreetings(MsgChannelO oChannel, int32 lType, int32 eSendOk, MsgAddressO oTunnelBody,
                          MsgAddressO oOkBody) {
    const BooleanT bNotifyDown = oChannel->bNotifyDown;
    BooleanT bResult = TRUE;
    oChannel->bNotifyDown = FALSE;
    if (lType == eMsgChannelConnectTypeTunnel)
        bResult = MsgSendObject(oChannel->oChannelAddress, MSG_TUNNEL_CONNECT_MSG, oTunnelBody);
    if (bResult == TRUE && eSendOk == eMsgChannelSendOk)
        bResult = MsgSendObject(oChannel->oChannelAddress, MSG_CONNECTED_OK_MSG, oOkBody);
    if (bResult == TRUE)
        oChannel->bNotifyDown = bNotifyDown;
    else
        MsgDiscardChannel(oChannel);
    return bResult;
}

enum class MsgPendingE { Waiting, Done };

// A peer that resets before it is accepted is no failure: the next one may come.
MsgPendingE MsgAcceptPending(MsgConnectingO oEntry) {
    MsgSocketHolder tAccepted;
    NetAddressT tPeer;
    TraceMessageInline(183, 0, 4, "Returned from select()");
    const NetErrorE eError = NetAccept(tAccepted.Address(), MsgSocketOfPending(oEntry), &tPeer);
    if (eError == NET_ERROR_WOULD_BLOCK) return MsgPendingE::Waiting;
    ObjHolder<MsgChannelS> oChannel;
    const auto eWaitForOk = static_cast<MsgChannelOkE>(oEntry->eWaitForOk);
    if (eError != NET_ERROR_NONE ||
        MsgChannelFromPending(oChannel.Address(), tAccepted.Get(), oEntry, eWaitForOk) != TRUE) {
        MsgNotifyConnected(oEntry->oRemoteAddress, nullptr, MSG_CHANNEL_ERROR_ACCEPT_FAILED,
                           oEntry->oCookie);
        return MsgPendingE::Done;
    }
    tAccepted.Take();
    if (eWaitForOk == eMsgChannelWaitForOk) {
        TraceMessageInline(184, 0, 4, "Save cookie %p", oEntry->oCookie);
        MsgReplaceHeld(&oChannel.Get()->oCookie, oEntry->oCookie);
    } else {
        MsgNotifyConnected(oEntry->oRemoteAddress, oChannel.Get(), MSG_CHANNEL_ERROR_NONE,
                           oEntry->oCookie);
    }
    return MsgPendingE::Done;
}

MsgPendingE MsgFailPending(MsgConnectingO oEntry, MsgChannelErrorE eError) {
    MsgNotifyConnected(oEntry->oRemoteAddress, nullptr, eError, oEntry->oCookie);
    return MsgPendingE::Done;
}

// The socket has connected: it goes over to a channel.
MsgPendingE MsgFinishPending(MsgConnectingO oEntry) {
    ObjHolder<MsgChannelS> oChannel;
    const NetSocketT tSocket = MsgSocketOfPending(oEntry);
    MsgUnwatch(tSocket);
    if (MsgChannelFromPending(oChannel.Address(), tSocket, oEntry, eMsgChannelDoNotWaitForOk) !=
        TRUE)
        return MsgFailPending(oEntry, MSG_CHANNEL_ERROR_EXCEPTION);
    oEntry->tSocket = -1;
    if (MsgSendGreetings(oChannel.Get(), oEntry->lType, oEntry->eSendOk, nullptr,
                         MsgLocalAddress()) != TRUE)
        return MsgFailPending(oEntry, MSG_CHANNEL_ERROR_EXCEPTION);
    MsgNotifyConnected(oEntry->oRemoteAddress, oChannel.Get(), MSG_CHANNEL_ERROR_NONE,
                       oEntry->oCookie);
    return MsgPendingE::Done;
}

MsgPendingE MsgCheckPending(MsgConnectingO oEntry, NetSelectMaskT tReady) {
    const NetSocketT tSocket = MsgSocketOfPending(oEntry);
    const bool bListens = MsgIsReadSelectSet(tSocket) == TRUE;
    if (bListens && NetIsReadSelectSet(tReady, tSocket) == TRUE) {
        const MsgPendingE ePending = MsgAcceptPending(oEntry);
        if (ePending == MsgPendingE::Done) return ePending;
    }
    if (!bListens && NetIsExceptionSelectSet(tReady, tSocket) == TRUE) {
        TraceMessageInline(185, 0, -1, "connection had exception");
        return MsgFailPending(oEntry, MSG_CHANNEL_ERROR_EXCEPTION);
    }
    if (!bListens && NetIsWriteSelectSet(tReady, tSocket) == TRUE) {
        return NetIsConnected(tSocket) == TRUE
                   ? MsgFinishPending(oEntry)
                   : MsgFailPending(oEntry, MSG_CHANNEL_ERROR_EXCEPTION);
    }
    if (TimeTimeoutHasExpired(oEntry->oTimeout) != TRUE) return MsgPendingE::Waiting;
    TraceMessageInline(186, 0, -1, "Timeout connection");
    return MsgFailPending(oEntry, MSG_CHANNEL_ERROR_TIMEOUT);
}

void MsgClosePending(MsgConnectingO oEntry) {
    NetSocketT tSocket = MsgSocketOfPending(oEntry);
    if (tSocket == -1) return;
    MsgUnwatch(tSocket);
    NetClose(&tSocket);
    oEntry->tSocket = -1;
}

// --- waiting for the target ---

// The target's connection, as long as nothing tells that it will not come. Meanwhile everything
// else that arrives goes into the receive list.
BooleanT MsgAwaitAccept(MsgSocketHolder& tAccepted, const MsgListenerT& tListener,
                        MsgAddressO oTarget, TimeTimeoutO oTimeout, int32 lKnown) {
    TraceMessageInline(187, 0, 4, "Listening for a socket connection");
    NetSelectMaskT tMask = nullptr;
    if (NetInitializeSelectMask(&tMask) != TRUE) return FALSE;
    NetErrorE eError = NET_ERROR_WOULD_BLOCK;
    NetSetNonBlocking(tListener.tSocket.Get());
    while (eError == NET_ERROR_WOULD_BLOCK || eError == NET_ERROR_INTERRUPTED) {
        int32 lReady = 0;
        NetAddressT tPeer;
        if (MsgPeerIsGone(oTarget, lKnown) == TRUE) break;
        *tMask = {};
        MsgAddChannelSockets(tMask);
        NetAddReadSelect(tMask, tListener.tSocket.Get());
        eError = NetSelect(&lReady, tMask, oTimeout);
        if (eError != NET_ERROR_NONE) continue;
        MsgServeChannels(tMask);
        eError = NET_ERROR_WOULD_BLOCK;
        if (NetIsReadSelectSet(tMask, tListener.tSocket.Get()) != TRUE) continue;
        eError = NetAccept(tAccepted.Address(), tListener.tSocket.Get(), &tPeer);
        if (eError != NET_ERROR_NONE)
            TraceMessageInline(188, 0, -1, "Error accepting a connection");
    }
    NetReleaseSelectMask(&tMask);
    if (eError == NET_ERROR_FATAL)
        TraceMessageInline(189, 0, -1, "Select error listening for connection");
    return BooleanFrom(tAccepted.Get() != -1);
}

// Reads from the new channel until the other end says that it is ready.
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
        const NetErrorE eError = MsgAwaitSocket(MsgSocketOf(oChannel), true, oTimeout);
        if (eError == NET_ERROR_FATAL) {
            TraceMessageInline(191, 0, -1, "Unexpected select error");
            MsgCheckSelect();
        }
        if (eError != NET_ERROR_NONE) return FALSE;
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

// --- connecting ---

struct MsgConnectWishT {
    MsgAddressO oOpener;
    void* oCookie;
    int32 lPort;
    MsgChannelBlockingE eBlocking;
    MsgChannelConnectE eConnect;
    MsgChannelNotifyDownE eNotifyDown;
    MsgChannelSendOkE eSendOk;
    MsgChannelConnectTypeE eType;
};

// Sets the port to connect to and binds the socket to where the firewall lets it out.
BooleanT MsgBindToConnect(NetSocketT tSocket, NetAddressT* ptAddress,
                          const MsgConnectWishT& tWish) {
    const auto sFamily = static_cast<std::int16_t>(NetGetFamily(ptAddress));
    char acAddress[64];
    if (tWish.eType == eMsgChannelConnectTypeTunnel) {
        const int32 lPort = MsgTunnelPort(tWish.oOpener);
        if (lPort == 0) return FALSE;
        NetSetIpPort(ptAddress, lPort);
        return NetBind(tSocket, ptAddress);
    }
    NetSetIpPort(ptAddress, tWish.lPort);
    TraceMessageInline(194, 0, 4, "Using network address %s",
                       MsgText(NetGetIpAddress(ptAddress, acAddress, sizeof(acAddress))));
    if (MsgIsLocalMachine(tWish.oOpener) == TRUE) return MsgBindLoopback(tSocket, sFamily);
    return NetBindThroughFirewallTyped(tSocket, MsgAnyAddress(sFamily), MsgFirewallSection, FALSE,
                                       sFamily);
}

// Connects without waiting longer than the address is worth.
bool MsgConnectInTime(NetSocketT tSocket, NetAddressT* ptAddress, TimeTimeoutO oTimeout) {
    NetSetNonBlocking(tSocket);
    const NetErrorE eError = NetConnect(tSocket, ptAddress);
    if (eError != NET_ERROR_NONE && eError != NET_ERROR_WOULD_BLOCK &&
        eError != NET_ERROR_INTERRUPTED)
        return false;
    return MsgAwaitSocket(tSocket, false, oTimeout) == NET_ERROR_NONE &&
           NetIsConnected(tSocket) == TRUE;
}

BooleanT MsgConnectWaiting(MsgChannelO* poChannel, MsgSocketHolder& tSocket, NetAddressT* ptAddress,
                           const MsgConnectWishT& tWish, bool bIsLast) {
    char acAddress[64];
    ObjHolder<TimeTimeoutS> oTimeout;
    ObjHolder<MsgChannelS> oChannel;
    // An address that does not answer must not use up the time of those behind it.
    const int32 lSeconds = bIsLast ? MsgConnectionSeconds : gtMsgSettings.lConnectSeconds;
    if (TimeCreateAndSetTimeout(oTimeout.Address(), lSeconds, 0) != TRUE ||
        !MsgConnectInTime(tSocket.Get(), ptAddress, oTimeout.Get())) {
        TraceMessageInline(195, 0, -1, "Failed to connect to %s",
                           MsgText(NetGetIpAddress(ptAddress, acAddress, sizeof(acAddress))));
        return FALSE;
    }
    TraceMessageInline(196, 0, 4, "Connected okay!");
    if (MsgChannelCreateInternal(oChannel.Address(), tSocket.Get(), tWish.oOpener, tWish.eBlocking,
                                 tWish.eNotifyDown, eMsgChannelNotIpcChannel,
                                 eMsgChannelDoNotWaitForOk, eMsgChannelNotGuiChannel) != TRUE)
        return FALSE;
    tSocket.Take();
    if (MsgSendGreetings(oChannel.Get(), tWish.eType, tWish.eSendOk, MsgLocalAddress(), nullptr) !=
        TRUE)
        return FALSE;
    if (poChannel != nullptr) *poChannel = oChannel.Take();
    return TRUE;
}

BooleanT MsgConnectPending(MsgSocketHolder& tSocket, NetAddressT* ptAddress,
                           const MsgConnectWishT& tWish) {
    char acAddress[64];
    NetSetNoLinger(tSocket.Get());
    NetSetNonBlocking(tSocket.Get());
    const NetErrorE eError = NetConnect(tSocket.Get(), ptAddress);
    if (eError != NET_ERROR_NONE && eError != NET_ERROR_WOULD_BLOCK) {
        TraceMessageInline(197, 0, -1, "Failed to do non-blocking connect to %s",
                           MsgText(NetGetIpAddress(ptAddress, acAddress, sizeof(acAddress))));
        return FALSE;
    }
    const NetSocketT tConnecting = tSocket.Get();
    if (MsgAddPending(tSocket,
                      {tWish.oOpener, tWish.eBlocking, tWish.eNotifyDown, eMsgChannelDoNotWaitForOk,
                       tWish.eSendOk, tWish.oCookie, tWish.eType}) != TRUE)
        return FALSE;
    MsgAddWriteSelect(tConnecting);
    MsgAddExceptionSelect(tConnecting);
    return TRUE;
}

BooleanT MsgConnectTo(MsgChannelO* poChannel, NetAddressO oAddress, const MsgConnectWishT& tWish,
                      bool bIsLast) {
    MsgSocketHolder tSocket;
    NetAddressT tAddress = oAddress->tAddress;
    const auto sFamily = static_cast<std::int16_t>(NetGetFamily(&tAddress));
    if (NetOpen(tSocket.Address(), NET_TYPE_TCP, sFamily) != TRUE) {
        TraceMessageInline(198, 0, -1, "Failed to create socket (family : %d)", sFamily);
        return FALSE;
    }
    if (MsgBindToConnect(tSocket.Get(), &tAddress, tWish) != TRUE) {
        TraceMessageInline(199, 0, -1, "No available ports to connect to message channel");
        return FALSE;
    }
    return tWish.eConnect == eMsgChannelWaitForConnect
               ? MsgConnectWaiting(poChannel, tSocket, &tAddress, tWish, bIsLast)
               : MsgConnectPending(tSocket, &tAddress, tWish);
}

}  // namespace

// --- pending connections, as the select loop sees them ---

BooleanT MsgNotifyConnected(MsgAddressO oRemoteAddress, MsgChannelO oChannel, int32 lErrorCode,
                            void* oCookie) {
    ObjHolder<MsgConnectedS> oConnected(
        ObjNew<MsgConnectedS>(MsgConnectedMagic, MsgConnectedDescriptor));
    if (oConnected.Get() == nullptr) return FALSE;
    oConnected.Get()->bSuccess = BooleanFrom(lErrorCode == MSG_CHANNEL_ERROR_NONE);
    oConnected.Get()->lErrorCode = lErrorCode;
    MsgReplaceHeld(&oConnected.Get()->oAddress, MsgChannelAddress(oChannel));
    MsgReplaceHeld(&oConnected.Get()->oCookie, oCookie);
    return MsgNotifyBetween(MsgLocalAddress(), oRemoteAddress, MSG_CONNECTED_MSG, oConnected.Get());
}

void MsgCheckConnectionTimeouts(NetSelectMaskT tReady) {
    ListO oList = MsgState().oConnectingList;
    TraceMessageInline(200, 0, 4, "Check %d connecting channels", oList->lItemCount);
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr;) {
        ListNodeO oNext = oNode->oNext;
        auto* oEntry = static_cast<MsgConnectingO>(oNode->oData);
        if (MsgCheckPending(oEntry, tReady) == MsgPendingE::Done) {
            MsgClosePending(oEntry);
            ListRemoveItem(oNode);
        }
        oNode = oNext;
    }
}

void MsgLowerToPending(TimeTimeoutO oTimeout) {
    for (ListNodeO oNode = MsgState().oConnectingList->oFirst; oNode != nullptr;
         oNode = oNode->oNext)
        TimeSetTimeoutIfLower(oTimeout, static_cast<MsgConnectingO>(oNode->oData)->oTimeout);
}

void MsgReleaseConnecting() {
    ListO oList = MsgState().oConnectingList;
    if (oList == nullptr) return;
    TraceMessageInline(201, 0, 4, "Release oConnectingList");
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext)
        MsgClosePending(static_cast<MsgConnectingO>(oNode->oData));
    ObjRelease(&MsgState().oConnectingList);
}

// --- opening ---

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

// --- answering ---

BooleanT MsgCompleteTcpConnectionTyped(MsgChannelO* poChannel, MsgAddressO oSource, void* oCookie,
                                       ListO oAddressList, int32 lPort,
                                       MsgChannelBlockingE eBlocking, MsgChannelConnectE eConnect,
                                       MsgChannelNotifyDownE eNotifyDown, MsgChannelSendOkE eSendOk,
                                       MsgChannelConnectTypeE eType) {
    if (!MsgIsAddress(oSource) || ListIsList(oAddressList) != TRUE) return FALSE;
    const MsgConnectWishT tWish = {oSource,  oCookie,     lPort,   eBlocking,
                                   eConnect, eNotifyDown, eSendOk, eType};
    for (ListNodeO oNode = oAddressList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        auto* oAddress = static_cast<NetAddressO>(oNode->oData);
        if (MsgConnectTo(poChannel, oAddress, tWish, oNode->oNext == nullptr) == TRUE) return TRUE;
    }
    return FALSE;
}

BooleanT MsgChannelCompleteInternal(MsgAddressO* poAddress, MsgMessageO oMessage,
                                    MsgChannelBlockingE eBlocking, MsgChannelConnectE eConnect,
                                    MsgChannelSendOkE eSendOk) {
    ObjHolder<MsgConnectS> oConnect;
    ObjHolder<MsgAddressS> oSource;
    const ObjHolder<ListS> oAddresses(ListNew(NetAddressMagic));
    if (MsgType(oMessage) != MSG_CONNECT_MSG || oAddresses.Get() == nullptr ||
        MsgGetObject(oConnect.Address(), oMessage, MsgConnectMagic) != TRUE ||
        oConnect.Get()->bSuccess != TRUE || MsgInetOf(oConnect.Get()) == nullptr ||
        MsgGetSender(oSource.Address(), oMessage) != TRUE)
        return FALSE;
    TraceMessageInline(203, 0, 4, "Family is %d", oConnect.Get()->lFamily);
    if (MsgPreferredNet(oSource.Get(), oAddresses.Get()) != TRUE) return FALSE;
    const MsgConnectInetO oInet = MsgInetOf(oConnect.Get());
    const auto eType = oInet->lAddress == eMsgChannelConnectTypeTunnel
                           ? eMsgChannelConnectTypeTunnel
                           : eMsgChannelConnectTypeNormal;
    ObjHolder<MsgChannelS> oChannel;
    if (MsgCompleteTcpConnectionTyped(oChannel.Address(), oSource.Get(), oConnect.Get()->oCookie,
                                      oAddresses.Get(), oInet->lPort, eBlocking, eConnect,
                                      eMsgChannelNotifyDown, eSendOk, eType) != TRUE)
        return FALSE;
    if (poAddress != nullptr && eConnect == eMsgChannelWaitForConnect)
        MsgHandOut(poAddress, oChannel.Get()->oChannelAddress);
    return TRUE;
}
