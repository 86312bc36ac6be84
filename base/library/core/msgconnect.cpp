// Answering the opener of a data channel: connecting to the port that it listens on, at the
// addresses of its machine in turn.
#include <sys/socket.h>

#include "core/list.h"
#include "core/log.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

constexpr int32 MsgLogNoPorts = LogNumber(1011, 96);
constexpr char MsgNoPorts[] = "No available ports to connect to message channel";

const char* MsgLoopback(std::int16_t sFamily) { return sFamily == AF_INET6 ? "::1" : "127.0.0.1"; }

MsgConnectInetO MsgInetOf(MsgConnectO oConnect) {
    return ObjCheckTypeInternal(oConnect->oQualifier, MsgConnectInetMagic) == TRUE
               ? static_cast<MsgConnectInetO>(oConnect->oQualifier)
               : nullptr;
}

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
    NetErrorE eReady = NET_ERROR_INTERRUPTED;
    while (eReady == NET_ERROR_INTERRUPTED) eReady = MsgTurnBeside(tSocket, false, oTimeout);
    return eReady == NET_ERROR_NONE && NetIsConnected(tSocket) == TRUE;
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
        LogMessage(MsgLogNoPorts, eLogLevelError, nullptr, MsgNoPorts);
        TraceMessageInline(199, 0, -1, MsgNoPorts);
        return FALSE;
    }
    return tWish.eConnect == eMsgChannelWaitForConnect
               ? MsgConnectWaiting(poChannel, tSocket, &tAddress, tWish, bIsLast)
               : MsgConnectPending(tSocket, &tAddress, tWish);
}

}  // namespace

const char* MsgAnyAddress(std::int16_t sFamily) {
    return sFamily == AF_INET6 ? "0:0:0:0:0:0:0:0" : "0.0.0.0";
}

BooleanT MsgBindLoopback(NetSocketT tSocket, std::int16_t sFamily) {
    NetAddressT tAddress;
    return BooleanFrom(NetInitializeIpAddress(&tAddress, MsgLoopback(sFamily), 0, sFamily) ==
                           TRUE &&
                       NetBind(tSocket, &tAddress) == TRUE);
}

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
