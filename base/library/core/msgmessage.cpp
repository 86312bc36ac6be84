// Messages: what one says about itself, answers to it, and messages to oneself. An answer goes to
// the message's source, which is a channel for what came over a network link; a sender is always a
// process.
#include "core/context.h"
#include "core/list.h"
#include "core/msg.h"
#include "core/msgchannel.h"
#include "core/strbase.h"
#include "core/timeconv.h"
#include "core/trace.h"
#include "msginternal.h"

TRACE_MODULE("MESSAGE")

namespace {

BooleanT MsgPushToSelf(MsgAddressO oSource, MsgTypeT tMsgType, void* oObject) {
    ObjHolder<MsgPacketS> oPacket;
    return BooleanFrom(MsgCreateSelfPacket(oPacket.Address(), MsgLocalAddress(), oSource, tMsgType,
                                           oObject) == TRUE &&
                       MsgReceivePushPacket(oPacket.Get()) == TRUE);
}

}  // namespace

BooleanT MsgCreateMessage(MsgMessageO* poMessage, MsgAddressO oMsgAddress, MsgTypeT tMsgType,
                          void* oObject) {
    const MsgAddressO oSource = MsgLocalAddress();
    if (poMessage == nullptr || !MsgIsAddress(oMsgAddress) || !MsgIsAddress(oSource) ||
        !MsgIsBody(oObject)) {
        return FALSE;
    }
    ObjHolder<MsgMessageS> oMessage(ObjNew<MsgMessageS>(MsgMessageMagic, MsgMessageDescriptor));
    if (oMessage.Get() == nullptr) return FALSE;
    *oMessage.Get() = {MsgHold(oMsgAddress), MsgHold(oSource), 0, tMsgType, MsgHold(oObject)};
    *poMessage = oMessage.Take();
    return TRUE;
}

MsgTypeT MsgType(MsgMessageO oMessage) { return MsgIsMessage(oMessage) ? oMessage->tMsgType : 0; }

BooleanT MsgGetSource(MsgAddressO* poAddress, MsgMessageO oMessage) {
    if (poAddress == nullptr) {
        TraceMessageInline(1, 1, -1, "NULL pointer for returned address");
        return FALSE;
    }
    if (!MsgIsMessage(oMessage)) {
        TraceMessageInline(2, 1, -1, "'%s' not a message object", ObjNameFromObject(oMessage));
        return FALSE;
    }
    if (!MsgIsAddress(oMessage->oSource)) {
        TraceMessageInline(3, 1, -1, "'%s' not a source message address",
                           ObjNameFromObject(oMessage->oSource));
        return FALSE;
    }
    *poAddress = MsgHold(oMessage->oSource);
    return TRUE;
}

BooleanT MsgGetDestination(MsgAddressO* poAddress, MsgMessageO oMessage) {
    if (poAddress == nullptr || !MsgIsMessage(oMessage) || !MsgIsAddress(oMessage->oDestination)) {
        return FALSE;
    }
    *poAddress = MsgHold(oMessage->oDestination);
    return TRUE;
}

BooleanT MsgGetSender(MsgAddressO* poAddress, MsgMessageO oMessage) {
    ObjHolder<MsgAddressS> oSender;
    if (poAddress == nullptr || !MsgIsMessage(oMessage) ||
        MsgRemoteEnd(oSender.Address(), oMessage->oSource) != TRUE || oSender.Get() == nullptr) {
        return FALSE;
    }
    *poAddress = oSender.Take();
    return TRUE;
}

BooleanT MsgGetObjectInternal(void** poObject, MsgMessageO oMessage, int32 lMagic) {
    if (poObject == nullptr || !MsgIsMessage(oMessage) || oMessage->oObject == nullptr)
        return FALSE;
    if (lMagic != 0 && ObjCheckTypeInternal(oMessage->oObject, lMagic) != TRUE) return FALSE;
    *poObject = MsgHold(oMessage->oObject);
    return TRUE;
}

// --- where a message came from ---

BooleanT MsgAddressIsFrom(MsgAddressO oAddress, MsgAddressO oSource) {
    ObjHolder<MsgAddressS> oSender;
    if (MsgRemoteEnd(oSender.Address(), oSource) != TRUE) return FALSE;
    return MsgAddressEqual(oAddress, oSender.Get());
}

BooleanT MsgIsFrom(MsgMessageO oMessage, MsgAddressO oAddress) {
    if (!MsgIsMessage(oMessage) || !MsgIsAddress(oAddress)) return FALSE;
    const MsgAddressO oSource = oMessage->oSource;
    if (MsgIsAChannel(oAddress) == TRUE) return MsgAddressEqual(oSource, oAddress);
    ObjHolder<MsgAddressS> oSender;
    if (MsgRemoteEnd(oSender.Address(), oSource) == TRUE)
        return MsgAddressEqual(oAddress, oSender.Get());
    if (MsgIsAChannel(oSource) == TRUE) {
        TraceMessageInline(4, 1, -1, "Could not find channel %d", MsgGetChannelId(oSource));
    }
    return FALSE;
}

BooleanT MsgIsFromAChannel(MsgMessageO oMessage) {
    return MsgIsMessage(oMessage) ? MsgIsAChannel(oMessage->oSource) : FALSE;
}

BooleanT MsgIsFromLocalMachine(MsgMessageO oMessage) {
    return MsgIsMessage(oMessage) ? MsgIsLocalMachine(oMessage->oSource) : FALSE;
}

// --- answers ---

BooleanT MsgSendReply(MsgMessageO oMessage, MsgTypeT tMsgType, void* oObject) {
    if (!MsgIsMessage(oMessage) || !MsgIsAddress(oMessage->oSource)) return FALSE;
    return MsgSendObject(oMessage->oSource, tMsgType, oObject);
}

BooleanT MsgError(MsgAddressO oTo, int32 lErrorCode, const char* pstrMessage, void* oCookie) {
    if (!MsgIsAddress(oTo) || !MsgIsBody(oCookie)) return FALSE;
    const ObjHolder<MsgErrorS> oError(ObjNew<MsgErrorS>(MsgErrorMagic, MsgErrorDescriptor));
    if (oError.Get() == nullptr) return FALSE;
    *oError.Get() = {lErrorCode, StrDuplicate(pstrMessage), MsgHold(oCookie)};
    return MsgSendObject(oTo, MSG_ERROR_MSG, oError.Get());
}

BooleanT MsgReturnUnknown(MsgMessageO oMessage, const char* pstrMessage) {
    // Two processes that know nothing of each other's messages must not go on for ever.
    if (!MsgIsMessage(oMessage) || oMessage->tMsgType == MSG_UNKNOWN_MSG ||
        MsgAddressEqual(oMessage->oSource, MsgLocalAddress()) == TRUE) {
        return FALSE;
    }
    const ObjHolder<MsgUnknownS> oUnknown(
        ObjNew<MsgUnknownS>(MsgUnknownMagic, MsgUnknownDescriptor));
    if (oUnknown.Get() == nullptr) return FALSE;
    *oUnknown.Get() = {StrDuplicate(pstrMessage), oMessage->tMsgType, MsgHold(oMessage->oObject)};
    return MsgSendReply(oMessage, MSG_UNKNOWN_MSG, oUnknown.Get());
}

BooleanT MsgPong(MsgMessageO oMessage) {
    if (MsgType(oMessage) != MSG_PING_MSG ||
        ObjCheckTypeInternal(oMessage->oObject, MsgPingMagic) != TRUE) {
        return FALSE;
    }
    static_cast<MsgPingO>(oMessage->oObject)->tReturnTime = TimeNow();
    return MsgSendReply(oMessage, MSG_PONG_MSG, oMessage->oObject);
}

// --- messages to oneself ---

BooleanT MsgSendToSelf(MsgMessageO oMessage) {
    if (!MsgIsMessage(oMessage)) return FALSE;
    return MsgPushToSelf(oMessage->oSource, oMessage->tMsgType, oMessage->oObject);
}

BooleanT MsgSendObjectToSelf(MsgTypeT tMsgType, void* oObject) {
    return MsgPushToSelf(MsgLocalAddress(), tMsgType, oObject);
}

BooleanT MsgRequeue(MsgMessageO oMessage) {
    if (!MsgIsMessage(oMessage)) return FALSE;
    ObjHolder<MsgPacketS> oPacket;
    return BooleanFrom(MsgCreateSelfPacket(oPacket.Address(), oMessage->oDestination,
                                           oMessage->oSource, oMessage->tMsgType,
                                           oMessage->oObject) == TRUE &&
                       MsgRequeuePacket(oPacket.Get()) == TRUE);
}

BooleanT MsgRequeuePacket(MsgPacketO oPacket) {
    if (ObjCheckTypeInternal(oPacket, MsgPacketMagic) != TRUE) return FALSE;
    return ListAddFirstItem(gtTlContext.sMsg.oReceiveList, oPacket);
}
