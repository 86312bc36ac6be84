// The interprocess link: a connection over the loopback interface to the communications manager of
// the machine, which learns from the first message whose it is.
#include <cerrno>

#include "core/cfg.h"
#include "core/list.h"
#include "core/process.h"
#include "core/sys.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

constexpr int32 MsgCommsSeconds = 60;
constexpr int32 MsgAdoptedSeconds = 6;
constexpr int32 MsgCommsPause = 1;  // second between two tries

int32 MsgCommsTimeout() {
    int32 lSeconds = MsgCommsSeconds;
    if (ProcGetId() == 0)
        CfgGetInteger(&lSeconds, "configure.cfg", "Timeouts", "Adopted Processes Connection",
                      MsgAdoptedSeconds);
    return lSeconds;
}

enum class MsgAttemptE {
    Connected,
    Again,    // the address may answer later
    Hopeless  // no socket can be made for the address
};

BooleanT MsgSendIpcConnect(MsgProcTypeE eType) {
    ObjHolder<MsgIpcConnectS> oBody(
        ObjNew<MsgIpcConnectS>(MsgIpcConnectMagic, MsgIpcConnectDescriptor));
    if (oBody.Get() == nullptr) return FALSE;
    oBody.Get()->lType = eType;
    oBody.Get()->tProcessId = ProcGetId();
    oBody.Get()->tRealProcessId = eType == eMsgProcTypeThread ? ProcGetThreadId() : ProcGetRealId();
    MsgPacketO oPacket = nullptr;
    return BooleanFrom(MsgCreatePacket(&oPacket, MsgCommMgrAddress(), MsgLocalAddress(),
                                       MSG_IPC_CONNECT_MSG, oBody.Get()) == TRUE &&
                       MsgChannelDispatch(MsgState().oIpcChannel, &oPacket) == TRUE);
}

// Makes the channel, which owns the socket then, and introduces the process.
BooleanT MsgIntroduce(MsgSocketHolder& tSocket, MsgProcTypeE eType) {
    TesselContextMsgS& tMsg = MsgState();
    // The network manager must not wait for one process while others wait for it.
    const auto eBlocking =
        ProcGetId() == MsgNetworkManagerId ? eMsgChannelNonBlocking : eMsgChannelBlocking;
    if (MsgChannelCreateInternal(&tMsg.oIpcChannel, tSocket.Get(), MsgCommMgrAddress(), eBlocking,
                                 eMsgChannelNotifyDown, eMsgChannelIpcChannel,
                                 eMsgChannelDoNotWaitForOk, eMsgChannelNotGuiChannel) != TRUE)
        return FALSE;
    tSocket.Take();
    if (MsgSendIpcConnect(eType) == TRUE) return TRUE;
    if (tMsg.oIpcChannel != nullptr) MsgDiscardChannel(tMsg.oIpcChannel);
    return FALSE;
}

// Waits until the connection that is being made is there or has failed.
bool MsgAwaitConnection(NetSocketT tSocket, TimeTimeoutO oTimeout) {
    NetSelectMaskT tMask = nullptr;
    if (NetInitializeSelectMask(&tMask) != TRUE) return false;
    int32 lReady = 0;
    NetErrorE eError = NET_ERROR_INTERRUPTED;
    while (eError == NET_ERROR_INTERRUPTED) {
        NetAddWriteSelect(tMask, tSocket);
        NetAddExceptionSelect(tMask, tSocket);
        eError = NetSelect(&lReady, tMask, oTimeout);
    }
    TraceMessageInline(170, 0, 4, "Exception set = %s",
                       BooleanText(NetIsExceptionSelectSet(tMask, tSocket)));
    TraceMessageInline(171, 0, 4, "Write set = %s",
                       BooleanText(NetIsWriteSelectSet(tMask, tSocket)));
    NetReleaseSelectMask(&tMask);
    if (eError != NET_ERROR_NONE && eError != NET_ERROR_TIMEOUT)
        TraceMessageInline(172, 0, -1, "Unexpected network error");
    return eError == NET_ERROR_NONE && NetIsConnected(tSocket) == TRUE;
}

MsgAttemptE MsgTryAddress(NetAddressO oAddress, int32 lPort, MsgProcTypeE eType,
                          TimeTimeoutO oTimeout) {
    MsgSocketHolder tSocket;
    const auto sFamily = static_cast<std::int16_t>(NetGetFamily(&oAddress->tAddress));
    if (NetOpen(tSocket.Address(), NET_TYPE_TCP, sFamily) != TRUE) {
        TraceMessageInline(173, 0, -1, "MsgConnectToCommsManager : Failed to create socket (%d)",
                           sFamily);
        return MsgAttemptE::Hopeless;
    }
    NetSetNoLinger(tSocket.Get());
    NetSetNonBlocking(tSocket.Get());
    NetSetIpPort(&oAddress->tAddress, lPort);
    switch (NetConnect(tSocket.Get(), &oAddress->tAddress)) {
        case NET_ERROR_NONE:
        case NET_ERROR_WOULD_BLOCK:
        case NET_ERROR_INTERRUPTED:  // the connection is made nevertheless
            if (MsgAwaitConnection(tSocket.Get(), oTimeout) && MsgIntroduce(tSocket, eType) == TRUE)
                return MsgAttemptE::Connected;
            break;
        case NET_ERROR_CONNECT_REFUSED:
            TraceMessageInline(174, 0, -1, "MsgConnectToCommsManager : Connection refused");
            break;
        default:
            TraceMessageInline(175, 0, -1, "Unexpected network error");
            break;
    }
    return MsgAttemptE::Again;
}

BooleanT MsgConnectToCommsManager(MsgProcTypeE eType) {
    const ObjHolder<ListS> oAddresses(ListNew(NetAddressMagic));
    ObjHolder<TimeTimeoutS> oTimeout;
    if (oAddresses.Get() == nullptr ||
        TimeCreateAndSetTimeout(oTimeout.Address(), MsgCommsTimeout(), 0) != TRUE)
        return FALSE;
    const int32 lPort = MsgGetCommsPort();
    if (MsgResolveHost(oAddresses.Get(), "localhost") != TRUE) {
        TraceMessageInline(176, 0, -1, "MsgConnectToCommsManager : Failed to get local address");
        return FALSE;
    }
    // Every address is tried once before the first pause.
    int32 lUntilPause = oAddresses.Get()->lItemCount;
    for (;;) {
        ObjHolder<NetAddressS> oAddress;
        if (ListPopFirstItem(oAddresses.Get(), oAddress.Address()) != TRUE) return FALSE;
        const MsgAttemptE eAttempt = MsgTryAddress(oAddress.Get(), lPort, eType, oTimeout.Get());
        if (eAttempt == MsgAttemptE::Connected) break;
        if (TimeTimeoutHasExpired(oTimeout.Get()) == TRUE) return FALSE;
        if (eAttempt == MsgAttemptE::Again) ListPushLastItem(oAddresses.Get(), oAddress.Address());
        if (--lUntilPause > 0) continue;
        SysSleep(MsgCommsPause);
        lUntilPause = oAddresses.Get()->lItemCount;
    }
    TraceMessageInline(177, 0, 4, "Created Ipc Channel");
    return TRUE;
}

}  // namespace

BooleanT MsgIpcConnect(MsgProcTypeE eType) {
    BooleanT bResult = MsgMakeLocalAddress();
    const bool bLinked = MsgState().oIpcChannel != nullptr;
    if (bResult == TRUE && !bLinked && ProcGetId() != MsgCommunicationsManagerId)
        bResult = MsgConnectToCommsManager(eType);
    if (bResult == TRUE) MsgState().bInitialized = TRUE;
    TraceMessageInline(178, 0, 4, "%s = MsgIpcConnect()", BooleanText(bResult));
    return bResult;
}
