// Bytes between channels and sockets.
//
// Output sends the queued packets as they lie, from an offset: nothing is copied. On a channel that
// blocks, a socket that takes no more is waited for, and meanwhile everything that arrives on any
// channel is read into the receive list. So processes that send to each other in a ring, each
// waiting for the next one to read, go on.
//
// Input reads up to 512 bytes first, so that a small packet comes with one call and several small
// ones may come together; what belongs to the next packet stays in front of the channel's buffer.
// As soon as a packet's length is known it gets a block of its final size, into which the rest is
// read, and with it up to 512 bytes of the next one. Sockets are always read without waiting, also
// those of channels that block: a peer that stops in the middle of a packet must not stop this
// process.
//
// A complete packet is looked at here first: some messages are for the channel itself. Messages
// that only this process may give itself are dropped when they come from outside: notices that end
// waits or the process, and timer callbacks, whose bodies are pointers. So is, on a data channel,
// the wish that the process should write its trace into a file of the peer's choice.
#include <algorithm>
#include <cstring>

#include "core/list.h"
#include "core/net.h"
#include "core/objserial.h"
#include "core/process.h"
#include "core/task.h"
#include "core/trace.h"
#include "memoryraw.h"
#include "msgchannelinternal.h"
#include "netinternal.h"

TRACE_MODULE("MESSAGE")
MEM_DEFAULT_POOL_CACHE

namespace {

// Packets that one channel may take from its socket while others are ready too.
constexpr int32 MsgInputTurn = 32;

// Outputs that wait for their socket, one inside the other.
int32 glOutputsWaiting = 0;

// --- output ---

// Waits until the socket takes more, the channel is down, or a signal came.
void MsgWaitForOutput(MsgChannelO oChannel) {
    NetSelectMaskT tMask = nullptr;
    if (NetInitializeSelectMask(&tMask) != TRUE) {
        MsgChannelDown(oChannel);
        return;
    }
    MsgAddChannelSockets(tMask);
    NetAddReadSelect(tMask, MsgSocketOf(oChannel));  // also of a channel that is not registered
    NetAddWriteSelect(tMask, MsgSocketOf(oChannel));
    int32 lReady = 0;
    glOutputsWaiting++;
    const NetErrorE eError = NetSelectRelative(&lReady, tMask, -1);
    if (eError == NET_ERROR_NONE) {
        NetRemoveWriteSelect(tMask, MsgSocketOf(oChannel));
        if (oChannel->lChannelId == 0 && NetIsReadSelectSet(tMask, MsgSocketOf(oChannel)) == TRUE)
            MsgChannelInputData(oChannel);
        MsgServeChannels(tMask);
    } else if (eError != NET_ERROR_INTERRUPTED) {
        MsgChannelDown(oChannel);
    }
    glOutputsWaiting--;
    NetReleaseSelectMask(&tMask);
}

// Counts bytes that have left; a packet that is complete leaves the queue.
void MsgAdvanceOutput(MsgChannelO oChannel, int32 lSent) {
    oChannel->lSendOffset += lSent;
    if (oChannel->lSendOffset < MsgFirstOutput(oChannel)->tMessage.lSize) return;
    ListRemoveFirstItem(oChannel->oOutputList);
    oChannel->lSendOffset = MsgLinkStart(oChannel);
}

// --- input ---

enum class MsgInputE {
    Begun,    // the length was sound; the rest is read into the packet's own block
    Partial,  // the beginning is not there yet
    Broken,   // lengths that no packet has
};

// What the beginning of a packet says of its lengths.
struct MsgLengthsT {
    int32 lWhole = 0;   // of the packet in memory
    int32 lOffset = 0;  // where the bytes of the link begin in it
};

bool MsgLengthIsSound(int64 llWhole, MsgChannelO oChannel) {
    if (llWhole >= MsgPacketPrefixSize && llWhole <= gtMsgSettings.lMaximumMessage) return true;
    TraceMessageInline(110, 0, -1, "Packet of %lld bytes on channel %d is refused (200 to %d)",
                       static_cast<long long>(llWhole), oChannel->lChannelId,
                       gtMsgSettings.lMaximumMessage);
    return false;
}

// The lengths from the bytes in atBufferHeader, of which there are enough.
bool MsgReadLengths(MsgLengthsT* ptLengths, MsgChannelO oChannel) {
    int64 llWhole = 0;
    if (oChannel->bIsIpcChannel == TRUE) {
        MsgHeaderT tHeader;
        std::memcpy(&tHeader, oChannel->atBufferHeader, sizeof(tHeader));
        llWhole = tHeader.lLength;
        TraceMessageInline(111, 0, 4, "Got a message %s for %d:%d with a %d bytes of data",
                           MsgName(tHeader.tMsgType), tHeader.tDestination.tMachineId,
                           tHeader.tDestination.tProcessId, tHeader.lLength);
    } else {
        int32 lObject = 0;
        MsgTypeT tMsgType = 0;
        ObjBufferAnalyze(oChannel->atBufferHeader, &lObject, &tMsgType);
        llWhole = static_cast<int64>(MsgPacketPrefixSize) + lObject;
        TraceMessageInline(112, 0, 4, "Got a message %d with a %d byte serialized object", tMsgType,
                           lObject);
    }
    if (!MsgLengthIsSound(llWhole, oChannel)) return false;
    ptLengths->lWhole = static_cast<int32>(llWhole);
    ptLengths->lOffset = MsgLinkStart(oChannel);
    return true;
}

// The header area that a network link does not carry.
void MsgRebuildHeader(ByteT* pPacket, MsgChannelO oChannel, int32 lWhole) {
    MemZero(pPacket, MsgHeaderAreaSize);
    MsgHeaderT tHeader = {};
    tHeader.lLength = lWhole;
    tHeader.tSource = {MsgMachineIdNone, oChannel->lChannelId};
    tHeader.tDestination = tHeader.tSource;
    tHeader.tMsgType = ObjBufferMsgType(oChannel->atBufferHeader);
    std::memcpy(pPacket, &tHeader, sizeof(tHeader));
}

// Makes the block for the packet whose beginning is in atBufferHeader and moves there what is its.
MsgInputE MsgBeginPacket(MsgChannelO oChannel) {
    const bool bIpc = oChannel->bIsIpcChannel == TRUE;
    const int32 lThere = oChannel->lRecvOffset;
    if (lThere < (bIpc ? MsgHeaderAreaSize : MsgBodyHeadSize)) return MsgInputE::Partial;
    MsgLengthsT tLengths;
    if (!MsgReadLengths(&tLengths, oChannel)) return MsgInputE::Broken;
    auto* pPacket = static_cast<ByteT*>(MemAllocateRaw(tLengths.lWhole, MemPool()));
    if (pPacket == nullptr) return MsgInputE::Broken;
    if (!bIpc) MsgRebuildHeader(pPacket, oChannel, tLengths.lWhole);
    const int32 lOwn = std::min(lThere, tLengths.lWhole - tLengths.lOffset);
    std::memcpy(pPacket + tLengths.lOffset, oChannel->atBufferHeader, static_cast<size_t>(lOwn));
    std::memmove(oChannel->atBufferHeader, oChannel->atBufferHeader + lOwn,
                 static_cast<size_t>(lThere - lOwn));
    oChannel->tInputBuffer = {tLengths.lWhole, pPacket};
    // Bytes of the next packet are there only when this one is complete: then both numbers agree.
    oChannel->lRecvOffset = tLengths.lOffset + lOwn;
    return MsgInputE::Begun;
}

// Hands over the complete packet; lNext bytes of the next one are in atBufferHeader.
BooleanT MsgEndPacket(MsgPacketO* poPacket, MsgChannelO oChannel, int32 lNext) {
    const BooleanT bResult = ObjCreate(poPacket, MsgPacketMagic, MsgPacketDescriptor);
    if (bResult == TRUE) {
        (*poPacket)->tMessage = oChannel->tInputBuffer;
        oChannel->tInputBuffer = {0, nullptr};
        MsgPacketHeader(*poPacket)->bMore = 0;  // only this process's own packets bear the mark
    } else {
        MemFree(&oChannel->tInputBuffer.pData);
        oChannel->tInputBuffer.lSize = 0;
    }
    oChannel->lRecvOffset = lNext;
    return bResult;
}

enum class MsgReadE { More, Drained, Down };

// One read from the socket, to where the next bytes belong. Behind the rest of a packet there is
// room for the beginning of the next one, of which *plNext bytes came: so a packet that is the last
// one for now is seen to be, without another read that finds nothing.
MsgReadE MsgReadSome(MsgChannelO oChannel, int32* plNext) {
    ObjDataFieldT& tInput = oChannel->tInputBuffer;
    const bool bBegun = tInput.pData != nullptr;
    ByteT* pBuffer = bBegun ? static_cast<ByteT*>(tInput.pData) : oChannel->atBufferHeader;
    const int32 lOwn = (bBegun ? tInput.lSize : MsgChannelStartSize) - oChannel->lRecvOffset;
    const int64 llRoom = int64{lOwn} + (bBegun ? MsgChannelStartSize : 0);
    iovec atParts[] = {{pBuffer + oChannel->lRecvOffset, static_cast<std::size_t>(lOwn)},
                       {oChannel->atBufferHeader, MsgChannelStartSize}};
    int32 lReceived = 0;
    switch (NetTcpReceiveParts(&lReceived, MsgSocketOf(oChannel),
                               std::span(atParts).first(bBegun ? 2 : 1))) {
        case NET_ERROR_NONE:
            oChannel->lRecvOffset += std::min(lReceived, lOwn);
            *plNext = std::max(lReceived - lOwn, 0);
            return lReceived < llRoom ? MsgReadE::Drained : MsgReadE::More;
        case NET_ERROR_INTERRUPTED:
            TraceMessageInline(113, 0, 4, "NetTcpReceive returned NET_ERROR_INTERRUPTED");
            return MsgReadE::More;
        case NET_ERROR_WOULD_BLOCK:
            TraceMessageInline(114, 0, 4, "NetTcpReceive returned NET_ERROR_WOULD_BLOCK");
            return MsgReadE::Drained;
        case NET_ERROR_CLOSED:
            TraceMessageInline(115, 0, 4, "NetTcpReceive returned NET_ERROR_CLOSED");
            break;
        default:
            TraceMessageInline(116, 0, -1, "NetTcpReceive returned unknown error");
            break;
    }
    MsgChannelDown(oChannel);
    return MsgReadE::Down;
}

// The next packet out of what is there and, while bMayRead, out of the socket, which is left alone
// once it has given less than it was asked for.
BooleanT MsgTakePacket(MsgPacketO* poPacket, MsgChannelO oChannel, bool* pbMayRead) {
    int32 lNext = 0;
    while (oChannel->bDown != TRUE) {
        ObjDataFieldT& tInput = oChannel->tInputBuffer;
        if (tInput.pData == nullptr) {
            const int32 lThere = oChannel->lRecvOffset;
            const MsgInputE eInput = MsgBeginPacket(oChannel);
            if (eInput == MsgInputE::Broken) {
                MsgChannelDown(oChannel);
                return FALSE;
            }
            if (eInput == MsgInputE::Begun && oChannel->lRecvOffset == tInput.lSize) {
                const int32 lUsed = tInput.lSize - MsgLinkStart(oChannel);
                return MsgEndPacket(poPacket, oChannel, lThere - lUsed);
            }
        } else if (oChannel->lRecvOffset == tInput.lSize) {
            return MsgEndPacket(poPacket, oChannel, lNext);
        }
        if (!*pbMayRead) return FALSE;
        const MsgReadE eRead = MsgReadSome(oChannel, &lNext);
        if (eRead == MsgReadE::Drained) *pbMayRead = false;
    }
    return FALSE;
}

// --- messages for the channel itself: FALSE drops the packet ---

BooleanT MsgTakeDisconnect(MsgChannelO oChannel) {
    if (oChannel->oProxyPeer != nullptr && gtTlContext.sProcess.bIAmAProxy == TRUE) return TRUE;
    TraceMessageInline(117, 0, 4, "Received Disconnect request on channel %d socket %d",
                       oChannel->lChannelId, MsgSocketOf(oChannel));
    MsgChannelDown(oChannel);
    return FALSE;
}

// From now on what is queued may leave.
void MsgStartOutput(MsgChannelO oChannel) {
    oChannel->bWaitingForOk = FALSE;
    if (MsgFirstOutput(oChannel) == nullptr) return;
    MsgWatchOutput(oChannel, true);
    if (glOutputsWaiting == 0) MsgChannelOutputData(oChannel);
}

void MsgTakeFlush(MsgChannelO oChannel) {
    TraceMessageInline(118, 0, 4, "Received FLUSH request on channel %d socket %d",
                       oChannel->lChannelId, MsgSocketOf(oChannel));
    oChannel->bWaitingForOk = FALSE;
    MsgQueueNote(oChannel, oChannel->oChannelAddress, MSG_CHANNEL_FLUSHED_MSG);
}

void MsgTakeAuth(MsgChannelO oChannel, MsgPacketO oPacket) {
    ObjHolder<void> oBody;
    MsgObjectFromPacket(oBody.Address(), oPacket, 0);
    MsgReplaceHeld(&oChannel->oAuthCookie, oBody.Get());
}

void MsgTakeProxySource(MsgChannelO oChannel, MsgPacketO oPacket) {
    ObjHolder<MsgProxySourceS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, MsgProxySourceMagic) != TRUE ||
        (oBody.Get()->oPeerAddress != nullptr && !MsgIsAddress(oBody.Get()->oPeerAddress)))
        return;
    MsgReplaceHeld(&oChannel->oProxyPeer, oBody.Get()->oPeerAddress);
}

void MsgTakeProcessContext(MsgChannelO oChannel, MsgPacketO oPacket) {
    ObjHolder<SetProcessContextRequestS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, SetProcessContextRequestMagic) != TRUE) {
        TraceMessageInline(119, 0, -1, "Bad SET_PROCESS_CONTEXT_REQUEST object");
    } else if (oBody.Get()->oObject == nullptr) {
        TraceMessageInline(120, 0, -1, "NULL object in SET_PROCESS_CONTEXT_REQUEST message");
    } else {
        TraceMessageInline(121, 0, 4, "Setting new process context extension item of type '%s'",
                           ObjNameFromObject(oBody.Get()->oObject));
        ContextSetContextObject(oBody.Get()->oObject);
    }
    ObjHolder<MsgAddressS> oSource;
    const MsgPacketAddressT tSource = MsgPacketHeader(oPacket)->tSource;
    if (MsgAddressFromPacketAddress(oSource.Address(), &tSource) == TRUE)
        MsgQueueNote(oChannel, oSource.Get(), MSG_SET_PROCESS_CONTEXT_REPLY_MSG);
}

void MsgTakeConnectedOk(MsgChannelO oChannel) {
    TraceMessageInline(122, 0, 4, "Received CONNECTED_OK on channel %d socket %d Cookie %p",
                       oChannel->lChannelId, MsgSocketOf(oChannel), oChannel->oCookie);
    const ObjHolder<void> oCookie(oChannel->oCookie);
    oChannel->oCookie = nullptr;
    MsgNotifyConnected(oChannel->oRemoteAddress, oChannel, MSG_CHANNEL_ERROR_NONE, oCookie.Get());
    MsgStartOutput(oChannel);
}

// A task in the new form becomes one in the old form, for a program that knows only that.
void MsgConvertTask(MsgPacketO* poPacket) {
    ObjHolder<PmgrTaskExtS> oTask;
    if (MsgObjectFromPacket(oTask.Address(), *poPacket, PmgrTaskExtMagic) != TRUE) {
        ObjHolder<PmgrTaskS> oOld;
        if (MsgObjectFromPacket(oOld.Address(), *poPacket, PmgrTaskMagic) != TRUE)
            TraceMessageInline(123, 0, -1,
                               "Munged object encountered converting new task to old style");
        return;
    }
    ObjHolder<PmgrTaskS> oOld(ObjNew<PmgrTaskS>(PmgrTaskMagic, PmgrTaskDescriptor));
    ObjHolder<MsgPacketS> oPacket;
    ObjHolder<MsgAddressS> oSource;
    ObjHolder<MsgAddressS> oDestination;
    const MsgHeaderT tHeader = *MsgPacketHeader(*poPacket);
    if (oOld.Get() == nullptr ||
        MsgAddressFromPacketAddress(oSource.Address(), &tHeader.tSource) != TRUE ||
        MsgAddressFromPacketAddress(oDestination.Address(), &tHeader.tDestination) != TRUE)
        return;
    MsgReplaceHeld(&oOld.Get()->oSource, oTask.Get()->oSource);
    MsgReplaceHeld(&oOld.Get()->oUserArguments, oTask.Get()->oUserArguments);
    oOld.Get()->lInterfaceType = oTask.Get()->lInterfaceType;
    oOld.Get()->lCookie = oTask.Get()->lCookie;
    if (MsgCreatePacket(oPacket.Address(), oDestination.Get(), oSource.Get(), PMGR_TASK_MSG,
                        oOld.Get()) != TRUE)
        return;
    TaskSetTaskContext(static_cast<TaskContextO>(oTask.Get()->oTaskContext));
    ObjRelease(poPacket);
    *poPacket = oPacket.Take();
    TraceMessageInline(124, 0, 4,
                       "Converted new style task to old style for legacy app. Have also set task "
                       "context object");
}

bool MsgIsOwnNotice(MsgTypeT tMsgType) {
    switch (tMsgType) {
        case MSG_LOST_SEND_QUEUE_MSG:
        case MSG_FATAL_SELECT_ERROR_MSG:
        case MSG_CHANNEL_DOWN_MSG:
        case MSG_CONNECTED_MSG:
        case TIMER_CALLBACK_MSG:
            return true;
        default:
            return tMsgType >= 0 && tMsgType <= MSG_LOST_RECEIVE_QUEUE_MSG;
    }
}

// FALSE: the packet is dealt with. It may be replaced by another.
BooleanT MsgExaminePacket(MsgChannelO oChannel, MsgPacketO* poPacket) {
    const bool bIsCommsManager = ProcGetId() == MsgCommunicationsManagerId;
    // In the network manager: what is for a process of another machine is that process's.
    const bool bPassesThrough =
        oChannel->bIsIpcChannel == TRUE &&
        MsgPacketHeader(*poPacket)->tDestination.tMachineId > MsgMachineIdLocal;
    const MsgTypeT tMsgType = MsgPacketMsgType(*poPacket);
    TraceMessageInline(125, 0, 4, "Got a %s", MsgName(tMsgType));
    switch (tMsgType) {
        case MSG_DISCONNECT_MSG:
            if (MsgTakeDisconnect(oChannel) != TRUE) return FALSE;
            break;
        case MSG_FLUSH_CHANNEL_MSG:
            MsgTakeFlush(oChannel);
            return FALSE;
        case MSG_CHANNEL_AUTH_MSG:
            MsgTakeAuth(oChannel, *poPacket);
            return FALSE;
        case MSG_PROXY_SOURCE_MSG:
            MsgTakeProxySource(oChannel, *poPacket);
            return FALSE;
        case MSG_SET_PROCESS_CONTEXT_REQUEST_MSG:
            if (bIsCommsManager || bPassesThrough) break;
            MsgTakeProcessContext(oChannel, *poPacket);
            return FALSE;
        case MSG_CONNECTED_OK_MSG:
            if (oChannel->bWaitingForOk != TRUE) break;
            MsgTakeConnectedOk(oChannel);
            return FALSE;
        default:
            break;
    }
    if (oChannel->bClosing == TRUE) {
        TraceMessageInline(126, 0, 4, "Closing, discard message");
        return FALSE;
    }
    if (MsgIsOwnNotice(tMsgType) ||
        (tMsgType == TRACE_TO_FILE_MSG && oChannel->bIsIpcChannel != TRUE)) {
        TraceMessageInline(127, 0, -1, "%s from outside is dropped", MsgName(tMsgType));
        return FALSE;
    }
    if (tMsgType == MSG_IPC_CONNECT_MSG)
        MsgPacketHeader(*poPacket)->tDestination = {MsgMachineIdNone, oChannel->lChannelId};
    if (bIsCommsManager || bPassesThrough) return TRUE;
    if (tMsgType == PMGR_TASK_MSG && gtTlContext.sProcess.bNewStyleTasks != TRUE)
        MsgConvertTask(poPacket);
    return oChannel->bIsIpcChannel == TRUE ? MsgCheckIpcMessage(*poPacket) : TRUE;
}

}  // namespace

BooleanT MsgChannelOutputData(MsgChannelO oChannel) {
    if (!MsgIsChannelObject(oChannel)) return FALSE;
    const ObjHolder<MsgChannelS> oHolder(MsgHold(oChannel));
    int32 lTotal = 0;
    bool bStopped = false;
    while (!bStopped && oChannel->bDown != TRUE && MsgFirstOutput(oChannel) != nullptr) {
        const ObjDataFieldT& tMessage = MsgFirstOutput(oChannel)->tMessage;
        int32 lSent = 0;
        const NetErrorE eError =
            NetTcpSendNow(&lSent, MsgSocketOf(oChannel),
                          static_cast<const ByteT*>(tMessage.pData) + oChannel->lSendOffset,
                          tMessage.lSize - oChannel->lSendOffset);
        const bool bBlocks = oChannel->bBlocking == TRUE && glOutputsWaiting == 0;
        if (eError == NET_ERROR_NONE) {
            lTotal += lSent;
            MsgAdvanceOutput(oChannel, lSent);
        } else if (eError == NET_ERROR_WOULD_BLOCK) {
            if (bBlocks)
                MsgWaitForOutput(oChannel);
            else
                bStopped = true;
        } else if (eError == NET_ERROR_INTERRUPTED) {
            bStopped = oChannel->bBlocking != TRUE;
        } else {
            TraceMessageInline(128, 0, -1, "Failed to send data");
            MsgChannelDown(oChannel);
        }
    }
    if (oChannel->bDown != TRUE) MsgWatchOutput(oChannel, MsgFirstOutput(oChannel) != nullptr);
    const BooleanT bResult = BooleanFrom(oChannel->bDown != TRUE);
    TraceMessageInline(129, 0, 4, "%s = MsgChannelOutputData(%p) output %d bytes",
                       BooleanText(bResult), static_cast<void*>(oChannel), lTotal);
    return bResult;
}

BooleanT MsgChannelReceiveData(MsgPacketO* poPacket, MsgChannelO oChannel) {
    bool bMayRead = true;
    return MsgTakePacket(poPacket, oChannel, &bMayRead);
}

BooleanT MsgChannelInputData(MsgChannelO oChannel) {
    if (!MsgIsChannelObject(oChannel)) return FALSE;
    const ObjHolder<MsgChannelS> oHolder(MsgHold(oChannel));
    bool bMayRead = true;
    int32 lTaken = 0;
    while (oChannel->bDown != TRUE) {
        ObjHolder<MsgPacketS> oPacket;
        if (MsgTakePacket(oPacket.Address(), oChannel, &bMayRead) != TRUE) break;
        if (MsgExaminePacket(oChannel, oPacket.Address()) == TRUE &&
            MsgState().bInitialized == TRUE)
            MsgReceivePushPacket(oPacket.Get());
        // What has been read already must not wait for the socket, which may stay silent.
        if (++lTaken >= MsgInputTurn) bMayRead = false;
    }
    return BooleanFrom(oChannel->bDown != TRUE);
}
