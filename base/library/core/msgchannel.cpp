// Channels: making them, keeping them by id, closing them and taking them down.
//
// A registered channel is held by the map of channels and its socket stands in the master select
// mask. What select finds ready is looked up by socket. Closing takes it out of the map into the
// list of lingering channels, where it stays until what is queued has been sent and the peer has
// closed. Going down happens once, for whatever reason; the record lives on, refusing packets,
// until its last holder lets go.
#include "core/msgchannel.h"

#include <algorithm>
#include <limits>
#include <span>

#include "core/list.h"
#include "core/process.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

constexpr int32 MsgNoSocket = -1;

// The channels that the select loop serves, by their sockets. None of them is held here: a channel
// leaves when it goes down, and each goes down before its last holder lets go.
MsgChannelO gaoMsgBySocket[FD_SETSIZE];

int32 MsgCompareIds(int32 lIdA, int32 lIdB) {
    if (lIdA == lIdB) return 0;
    return lIdA < lIdB ? -1 : 1;
}

int32 MsgLocateChannel(void* oObject, void* oEntry) {
    return MsgCompareIds(static_cast<MsgChannelO>(oObject)->lChannelId,
                         static_cast<MsgChannelO>(oEntry)->lChannelId);
}

int32 MsgFindChannel(void* pKey, void* oEntry) {
    return MsgCompareIds(*static_cast<const int32*>(pKey),
                         static_cast<MsgChannelO>(oEntry)->lChannelId);
}

// The counter goes round from the largest number to 1 and passes over ids in use.
int32 MsgDrawChannelId() {
    int32& lCounter = MsgState().lChannelId;
    do {
        lCounter = lCounter < 1 || lCounter == std::numeric_limits<int32>::max() ? 1 : lCounter + 1;
    } while (ObjMapFind(nullptr, MsgState().oChannels, &lCounter) == TRUE);
    return lCounter;
}

// Gives the channel its id and address and puts it into the map.
BooleanT MsgRegisterChannel(MsgChannelO oChannel) {
    oChannel->lChannelId = MsgDrawChannelId();
    return BooleanFrom(MsgChannelCreateAddress(&oChannel->oChannelAddress, oChannel) == TRUE &&
                       ObjMapInsert(MsgState().oChannels, oChannel) == TRUE);
}

BooleanT MsgNewChannel(MsgChannelO* poChannel, NetSocketT tSocket) {
    if (ObjCreate(poChannel, MsgChannelMagic, MsgChannelDescriptor) != TRUE) return FALSE;
    (*poChannel)->tSocket = tSocket;
    (*poChannel)->lSendOffset = MsgHeaderAreaSize;
    (*poChannel)->oOutputList = ListNew(MsgPacketMagic);
    if ((*poChannel)->oOutputList != nullptr) return TRUE;
    ObjRelease(poChannel);
    return FALSE;
}

// A registered channel for which a select mask has no room would never be served.
bool MsgSocketIsUsable(NetSocketT tSocket) {
    if (tSocket >= 0 && tSocket < static_cast<NetSocketT>(FD_SETSIZE)) return true;
    TraceMessageInline(100, 0, -1, "Socket %d cannot be a channel: masks hold 0 to %d", tSocket,
                       static_cast<int32>(FD_SETSIZE) - 1);
    return false;
}

void MsgLeaveLingerList(MsgChannelO oChannel) {
    ListNodeO oNode = nullptr;
    if (ListFindNode(&oNode, MsgState().oLingerList, oChannel) == TRUE) ListRemoveItem(oNode);
}

BooleanT MsgCollect(void* oEntry, void* pArgument) {
    ListAddLastItem(static_cast<ListO>(pArgument), oEntry);
    return TRUE;
}

// All channels, registered and lingering: going through them may change the map and the list.
class MsgChannelSnapshot {
 public:
    MsgChannelSnapshot() {
        ObjMapWalk(MsgState().oChannels, MsgCollect, m_oList.Get());
        for (ListNodeO oNode = First(MsgState().oLingerList); oNode != nullptr;
             oNode = oNode->oNext)
            MsgCollect(oNode->oData, m_oList.Get());
        m_oNode = First(m_oList.Get());
    }
    MsgChannelO Next() {
        if (m_oNode == nullptr) return nullptr;
        auto* oChannel = static_cast<MsgChannelO>(m_oNode->oData);
        m_oNode = m_oNode->oNext;
        return oChannel;
    }

 private:
    static ListNodeO First(ListO oList) { return oList == nullptr ? nullptr : oList->oFirst; }

    ObjHolder<ListS> m_oList{ListNew(MsgChannelMagic)};
    ListNodeO m_oNode = nullptr;
};

// The channels whose sockets a mask holds, without a look at the others. They are held, as serving
// one may take others down; those have no socket any more then.
class MsgReadyChannels {
 public:
    explicit MsgReadyChannels(NetSelectMaskT tMask) {
        const NetSocketT tEnd = std::min<NetSocketT>(tMask->tSelectBits, FD_SETSIZE);
        for (NetSocketT tSocket = 0; tSocket < tEnd; tSocket++) {
            const bool bReady =
                FD_ISSET(tSocket, &tMask->tRecvFds) || FD_ISSET(tSocket, &tMask->tSendFds);
            if (bReady && gaoMsgBySocket[tSocket] != nullptr)
                m_aoChannels[m_lCount++] = MsgHold(gaoMsgBySocket[tSocket]);
        }
    }
    ~MsgReadyChannels() {
        for (MsgChannelO& oChannel : All()) ObjRelease(&oChannel);
    }
    MsgReadyChannels(const MsgReadyChannels&) = delete;
    MsgReadyChannels& operator=(const MsgReadyChannels&) = delete;
    std::span<MsgChannelO> All() { return {m_aoChannels, static_cast<std::size_t>(m_lCount)}; }

 private:
    int32 m_lCount = 0;
    MsgChannelO m_aoChannels[FD_SETSIZE];
};

void MsgServe(NetSelectMaskT tMask, bool bRegistered) {
    MsgReadyChannels tReady(tMask);
    for (MsgChannelO oChannel : tReady.All()) {
        const NetSocketT tSocket = MsgSocketOf(oChannel);
        if (!bRegistered && oChannel->bClosing != TRUE) continue;
        if (oChannel->bDown != TRUE && NetIsWriteSelectSet(tMask, tSocket) == TRUE)
            MsgChannelOutputData(oChannel);
        if (oChannel->bDown != TRUE && NetIsReadSelectSet(tMask, tSocket) == TRUE)
            MsgChannelInputData(oChannel);
    }
}

}  // namespace

BooleanT MsgChannelById(MsgChannelO* poChannel, int32 lId) {
    void* oFound = nullptr;
    if (ObjMapFind(&oFound, MsgState().oChannels, &lId) != TRUE) return FALSE;
    *poChannel = static_cast<MsgChannelO>(oFound);
    return TRUE;
}

BooleanT MsgCreateChannelState() {
    TesselContextMsgS& tMsg = MsgState();
    tMsg.bInitialized = FALSE;
    tMsg.bQuickExit = FALSE;
    tMsg.bMultipleNdmpChannels = FALSE;
    tMsg.oReceiveList = ListNew(MsgPacketMagic);
    tMsg.oNotifyOnDeathList = ListNew(MsgAddressMagic);
    tMsg.oConnectingList = ListNew(MsgConnectingMagic);
    tMsg.oLingerList = ListNew(MsgChannelMagic);
    tMsg.oTaskList = ListNew(PmgrGiveServiceATaskReturnMagic);
    tMsg.oHandlers = ListNew(MsgHandlerEntryMagic);
    return BooleanFrom(tMsg.oReceiveList != nullptr && tMsg.oNotifyOnDeathList != nullptr &&
                       tMsg.oConnectingList != nullptr && tMsg.oLingerList != nullptr &&
                       tMsg.oTaskList != nullptr && tMsg.oHandlers != nullptr &&
                       NetInitializeSelectMask(&tMsg.tSelectMask) == TRUE &&
                       NetInitializeSelectMask(&tMsg.tSelectMaskCopy) == TRUE &&
                       ObjMapCreateInternal(&tMsg.oChannels, MsgChannelMagic, 64, MsgLocateChannel,
                                            MsgFindChannel, nullptr) == TRUE);
}

// --- making channels ---

BooleanT MsgChannelCreateInternal(MsgChannelO* poChannel, NetSocketT tSocket,
                                  MsgAddressO oRemoteAddress, MsgChannelBlockingE eBlocking,
                                  MsgChannelNotifyDownE eNotifyDown,
                                  MsgChannelIpcChannelE eIpcChannel, MsgChannelOkE eWaitForOk,
                                  MsgChannelGuiChannelE eGuiChannel) {
    const BooleanT bIpc = BooleanFrom(eIpcChannel == eMsgChannelIpcChannel);
    TraceMessageInline(101, 0, 4, "MsgChannelCreateInternal(%p, %d, %p, %s, %s, %s, %s, %s)",
                       static_cast<void*>(poChannel), tSocket, static_cast<void*>(oRemoteAddress),
                       BooleanText(eBlocking), BooleanText(eNotifyDown), BooleanText(bIpc),
                       BooleanText(eWaitForOk), BooleanText(eGuiChannel));
    const bool bRegistered = eGuiChannel != eMsgChannelGuiChannel;
    if (tSocket == MsgNoSocket || (bRegistered && !MsgSocketIsUsable(tSocket))) return FALSE;
    ObjHolder<MsgChannelS> oHolder;
    if (MsgNewChannel(oHolder.Address(), tSocket) != TRUE) return FALSE;
    MsgChannelO oChannel = oHolder.Get();
    NetSetNoLinger(tSocket);
    NetPrepareStream(tSocket, bIpc == TRUE ? 0 : gtMsgSettings.lPeerSeconds);
    oChannel->bIsIpcChannel = bIpc;
    oChannel->lSendOffset = MsgLinkStart(oChannel);
    oChannel->bBlocking = BooleanFrom(eBlocking == eMsgChannelBlocking);
    if (oChannel->bBlocking == TRUE)
        NetSetBlocking(tSocket);
    else
        NetSetNonBlocking(tSocket);
    oChannel->bNotifyDown = BooleanFrom(eNotifyDown == eMsgChannelNotifyDown);
    oChannel->bWaitingForOk = BooleanFrom(eWaitForOk == eMsgChannelWaitForOk);
    if (bRegistered) {
        MsgReplaceHeld(&oChannel->oRemoteAddress, oRemoteAddress);
        if (MsgRegisterChannel(oChannel) != TRUE) return FALSE;
        TraceMessageInline(102, 0, 4, "Insert channel %p Socket %d Id %d (Ipc = %s) into map",
                           static_cast<void*>(oChannel), tSocket, oChannel->lChannelId,
                           BooleanText(bIpc));
        MsgAddReadSelect(tSocket);
        gaoMsgBySocket[tSocket] = oChannel;
    }
    if (poChannel != nullptr) *poChannel = oHolder.Take();
    return TRUE;
}

BooleanT MsgChannelCreate(MsgChannelO* poChannel, NetSocketT tSocket) {
    return MsgChannelCreateInternal(poChannel, tSocket, nullptr, eMsgChannelNonBlocking,
                                    eMsgChannelNotifyDown, eMsgChannelNotIpcChannel,
                                    eMsgChannelDoNotWaitForOk, eMsgChannelNotGuiChannel);
}

BooleanT MsgChannelCreateIpc(NetSocketT tSocket) {
    return MsgChannelCreateInternal(nullptr, tSocket, nullptr, eMsgChannelNonBlocking,
                                    eMsgChannelNotifyDown, eMsgChannelIpcChannel,
                                    eMsgChannelDoNotWaitForOk, eMsgChannelNotGuiChannel);
}

BooleanT MsgChannelCreateGui(MsgChannelO* poChannel, NetSocketT tSocket, BooleanT bForeman) {
    if (bForeman == TRUE) return MsgChannelCreate(poChannel, tSocket);
    if (poChannel == nullptr) return FALSE;
    return MsgChannelCreateInternal(poChannel, tSocket, nullptr, eMsgChannelNonBlocking,
                                    eMsgChannelDoNotNotifyDown, eMsgChannelNotIpcChannel,
                                    eMsgChannelDoNotWaitForOk, eMsgChannelGuiChannel);
}

BooleanT MsgChannelCreateNdmp(MsgAddressO* poChannelAddress) {
    if (poChannelAddress == nullptr) return FALSE;
    if (MsgState().bMultipleNdmpChannels != TRUE) {
        if (MsgLocalAddress() == nullptr) return FALSE;
        MsgHandOut(poChannelAddress, MsgLocalAddress());
        return TRUE;
    }
    ObjHolder<MsgChannelS> oChannel;
    if (MsgNewChannel(oChannel.Address(), MsgNoSocket) != TRUE) return FALSE;
    oChannel.Get()->bNdmpChannel = TRUE;
    if (MsgRegisterChannel(oChannel.Get()) != TRUE) return FALSE;
    TraceMessageInline(103, 0, 4, "Insert NDMP channel %p Socket %d Id %d into map",
                       static_cast<void*>(oChannel.Get()), MsgNoSocket, oChannel.Get()->lChannelId);
    MsgHandOut(poChannelAddress, oChannel.Get()->oChannelAddress);
    return TRUE;
}

void MsgAllowMultipleNdmpChannels() { MsgState().bMultipleNdmpChannels = TRUE; }

// --- closing and going down ---

void MsgChannelDown(MsgChannelO oChannel) {
    if (oChannel->bDown == TRUE) return;
    TraceMessageInline(104, 0, 4, "MsgChannelDown(%p) %d", static_cast<void*>(oChannel),
                       oChannel->lChannelId);
    const ObjHolder<MsgChannelS> oHolder(MsgHold(oChannel));
    oChannel->bDown = TRUE;
    ObjRelease(&oChannel->oOutputList);
    MemFree(&oChannel->tInputBuffer.pData);
    oChannel->tInputBuffer.lSize = 0;
    oChannel->lRecvOffset = 0;
    NetSocketT tSocket = MsgSocketOf(oChannel);
    if (tSocket >= 0 && tSocket < FD_SETSIZE && gaoMsgBySocket[tSocket] == oChannel)
        gaoMsgBySocket[tSocket] = nullptr;
    MsgRemoveReadSelect(tSocket);
    MsgRemoveWriteSelect(tSocket);
    MsgRemoveExceptionSelect(tSocket);
    NetClose(&tSocket);
    oChannel->tSocket = MsgNoSocket;
    MsgLeaveLingerList(oChannel);
    if (oChannel == MsgState().oIpcChannel) {
        ObjMapRemove(MsgState().oChannels, oChannel);
        ObjRelease(&MsgState().oIpcChannel);
        MsgNotify(MSG_LOST_RECEIVE_QUEUE_MSG, nullptr);
    } else if (oChannel->bNotifyDown == TRUE && oChannel->bClosing != TRUE) {
        MsgNotifyBetween(oChannel->oChannelAddress, oChannel->oChannelAddress, MSG_CHANNEL_DOWN_MSG,
                         nullptr);
    }
}

void MsgDiscardChannel(MsgChannelO oChannel) {
    const ObjHolder<MsgChannelS> oHolder(MsgHold(oChannel));
    oChannel->bNotifyDown = FALSE;
    if (oChannel == MsgState().oIpcChannel) ObjRelease(&MsgState().oIpcChannel);
    MsgChannelDown(oChannel);
    ObjMapRemove(MsgState().oChannels, oChannel);
}

void MsgChannelsDownWhere(MsgChannelTestFnT fnTest, const void* pArgument) {
    MsgChannelSnapshot tSnapshot;
    while (MsgChannelO oChannel = tSnapshot.Next()) {
        if (oChannel->bNdmpChannel != TRUE && oChannel->bDown != TRUE &&
            fnTest(oChannel, pArgument))
            MsgChannelDown(oChannel);
    }
}

// The channel stops blocking: closing it must not wait for a peer that has stopped reading.
BooleanT MsgChannelLinger(MsgChannelO oChannel) {
    if (oChannel->bDown == TRUE || oChannel->bClosing == TRUE || oChannel->bNdmpChannel == TRUE)
        return FALSE;
    TraceMessageInline(105, 0, 4, "Linger channel %d", oChannel->lChannelId);
    oChannel->bClosing = TRUE;
    oChannel->bBlocking = FALSE;
    if (MsgQueueNote(oChannel, oChannel->oChannelAddress, MSG_DISCONNECT_MSG) != TRUE ||
        MsgChannelOutputData(oChannel) != TRUE) {
        TraceMessageInline(106, 0, -1, "Failed write on channel, will not linger this one");
        if (oChannel->bDown != TRUE) MsgChannelDown(oChannel);
        return FALSE;
    }
    if (ListAddLastItem(MsgState().oLingerList, oChannel) == TRUE) return TRUE;
    MsgChannelDown(oChannel);
    return FALSE;
}

BooleanT MsgChannelClose(MsgAddressO* poAddress) {
    if (poAddress == nullptr || ObjCheckTypeInternal(*poAddress, MsgAddressMagic) != TRUE)
        return FALSE;
    if (MsgIsAChannel(*poAddress) != TRUE && ProcGetId() != MsgCommunicationsManagerId)
        return FALSE;
    ObjHolder<MsgChannelS> oChannel;
    const BooleanT bFound = MsgChannelById(oChannel.Address(), (*poAddress)->tProcessId);
    if (bFound == TRUE) {
        ObjMapRemove(MsgState().oChannels, oChannel.Get());
        MsgChannelLinger(oChannel.Get());
    }
    ObjRelease(poAddress);
    return bFound;
}

BooleanT MsgChannelFlush(MsgAddressO oAddress) {
    return MsgSendObject(oAddress, MSG_FLUSH_CHANNEL_MSG, nullptr);
}

void MsgLingerChannels() {
    MsgChannelSnapshot tSnapshot;
    while (MsgChannelO oChannel = tSnapshot.Next()) MsgChannelLinger(oChannel);
}

// --- serving them ---

void MsgAddChannelSockets(NetSelectMaskT tMask) {
    MsgChannelSnapshot tSnapshot;
    while (MsgChannelO oChannel = tSnapshot.Next()) {
        if (oChannel->bDown != TRUE) NetAddReadSelect(tMask, MsgSocketOf(oChannel));
    }
}

void MsgServeChannels(NetSelectMaskT tMask) { MsgServe(tMask, true); }

void MsgServeLingering(NetSelectMaskT tMask) { MsgServe(tMask, false); }

void MsgReleaseChannels() {
    TesselContextMsgS& tMsg = MsgState();
    MsgChannelSnapshot tSnapshot;
    while (MsgChannelO oChannel = tSnapshot.Next()) {
        oChannel->bNotifyDown = FALSE;
        if (oChannel->bNdmpChannel != TRUE) MsgChannelDown(oChannel);
    }
    TraceMessageInline(107, 0, 4, "Release oChannels");
    ObjRelease(&tMsg.oIpcChannel);
    ObjRelease(&tMsg.oChannels);
    TraceMessageInline(108, 0, 4, "Release oLingerList");
    ObjRelease(&tMsg.oLingerList);
}

// --- their queues ---

MsgPacketO MsgFirstOutput(MsgChannelO oChannel) {
    if (oChannel->oOutputList == nullptr || oChannel->oOutputList->oFirst == nullptr)
        return nullptr;
    return static_cast<MsgPacketO>(oChannel->oOutputList->oFirst->oData);
}

void MsgWatchOutput(MsgChannelO oChannel, bool bWatch) {
    if (oChannel->lChannelId == 0) return;  // its owner serves it
    if (bWatch)
        MsgAddWriteSelect(MsgSocketOf(oChannel));
    else
        MsgRemoveWriteSelect(MsgSocketOf(oChannel));
}

BooleanT MsgQueueOutput(MsgChannelO oChannel, MsgPacketO* poPacket) {
    ObjHolder<MsgPacketS> oPacket(*poPacket);
    *poPacket = nullptr;
    if (oChannel->bDown == TRUE) return FALSE;
    const BooleanT bQueued = ListPushLastItem(oChannel->oOutputList, oPacket.Address());
    // A channel that awaits its peer's word does not send: its socket, always writable, would keep
    // the select loop turning.
    if (bQueued == TRUE && oChannel->bWaitingForOk != TRUE) MsgWatchOutput(oChannel, true);
    return bQueued;
}

BooleanT MsgQueueNote(MsgChannelO oChannel, MsgAddressO oDestination, MsgTypeT tMsgType) {
    MsgPacketO oPacket = nullptr;
    return BooleanFrom(
        MsgCreatePacket(&oPacket, oDestination, MsgLocalAddress(), tMsgType, nullptr) == TRUE &&
        MsgQueueOutput(oChannel, &oPacket) == TRUE);
}

// --- asking them ---

BooleanT MsgGetChannel(MsgChannelO* poChannel, MsgAddressO oAddress) {
    if (poChannel != nullptr && MsgIsAChannel(oAddress) == TRUE &&
        MsgChannelById(poChannel, oAddress->tProcessId) == TRUE)
        return TRUE;
    TraceMessageInline(109, 0, -1, "Could not find channel");
    return FALSE;
}

MsgAddressO MsgChannelAddress(MsgChannelO oChannel) {
    return MsgIsChannelObject(oChannel) ? oChannel->oChannelAddress : nullptr;
}

MsgAddressO MsgChannelRemoteAddress(MsgChannelO oChannel) {
    return MsgIsChannelObject(oChannel) ? oChannel->oRemoteAddress : nullptr;
}

MsgAddressO MsgChannelProxyPeer(MsgChannelO oChannel) {
    return MsgIsChannelObject(oChannel) ? oChannel->oProxyPeer : nullptr;
}

NetSocketT MsgChannelSocket(MsgChannelO oChannel) {
    return MsgIsChannelObject(oChannel) ? MsgSocketOf(oChannel) : MsgNoSocket;
}

int32 MsgChannelId(MsgChannelO oChannel) {
    return MsgIsChannelObject(oChannel) ? oChannel->lChannelId : -1;
}

BooleanT MsgChannelIsDown(MsgChannelO oChannel) {
    return BooleanFrom(MsgIsChannelObject(oChannel) && oChannel->bDown == TRUE);
}

BooleanT MsgChannelIsNdmp(MsgChannelO oChannel) {
    return BooleanFrom(MsgIsChannelObject(oChannel) && oChannel->bNdmpChannel == TRUE);
}

int32 MsgChannelOutputCount(MsgChannelO oChannel) {
    if (!MsgIsChannelObject(oChannel)) return -1;
    return oChannel->oOutputList == nullptr ? 0 : oChannel->oOutputList->lItemCount;
}

BooleanT MsgChannelGetAuth(void** poAuth, MsgAddressO oAddress) {
    ObjHolder<MsgChannelS> oChannel;
    if (poAuth == nullptr || MsgGetChannel(oChannel.Address(), oAddress) != TRUE) return FALSE;
    *poAuth = oChannel.Get()->oAuthCookie;
    if (*poAuth == nullptr) return FALSE;
    ObjIncRefCount(*poAuth);
    return TRUE;
}

BooleanT MsgChannelSetAuth(MsgAddressO oAddress, void* oAuth) {
    ObjHolder<MsgChannelS> oChannel;
    if (ProcGetId() != MsgAuditorId || MsgGetChannel(oChannel.Address(), oAddress) != TRUE)
        return FALSE;
    MsgReplaceHeld(&oChannel.Get()->oAuthCookie, oAuth);
    return TRUE;
}

BooleanT MsgGetProxyPeer(MsgAddressO* poAddress, MsgMessageO oMessage) {
    ObjHolder<MsgAddressS> oSource;
    ObjHolder<MsgChannelS> oChannel;
    if (poAddress == nullptr || MsgGetSource(oSource.Address(), oMessage) != TRUE ||
        MsgIsAChannel(oSource.Get()) != TRUE ||
        MsgGetChannel(oChannel.Address(), oSource.Get()) != TRUE ||
        oChannel.Get()->oProxyPeer == nullptr)
        return FALSE;
    MsgHandOut(poAddress, oChannel.Get()->oProxyPeer);
    return TRUE;
}

BooleanT MsgIsFromAProxy(MsgMessageO oMessage) {
    ObjHolder<MsgAddressS> oPeer;
    return MsgGetProxyPeer(oPeer.Address(), oMessage);
}
