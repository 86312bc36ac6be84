// Pending connections: a listening socket watched for reading, to which the target of this process
// is to connect back, or a connecting one watched for writing and exceptions. The select loop turns
// each into a channel, or into a notice that it has failed.
#include "core/list.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

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

}  // namespace

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
