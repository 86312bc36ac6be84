// Request and reply: what most parts of a process need of messaging when they ask a manager.
#include "msgwaitinternal.h"

BooleanT MsgWaitInterchangeInternal(void** poObject, MsgAddressO oAddress, MsgTypeT tSendMsgType,
                                    void* oSendObject, MsgTypeT tReplyMsgType, int32 lReplyMagic) {
    return MsgWaitInterchangeTimeoutInternal(poObject, oAddress, tSendMsgType, oSendObject,
                                             tReplyMsgType, lReplyMagic, 0);
}

BooleanT MsgWaitInterchangeTimeoutInternal(void** poObject, MsgAddressO oAddress,
                                           MsgTypeT tSendMsgType, void* oSendObject,
                                           MsgTypeT tReplyMsgType, int32 lReplyMagic,
                                           int32 lTimeoutSecs) {
    ObjHolder<TimeTimeoutS> oTimeout;
    if (lTimeoutSecs != 0 && TimeCreateAndSetTimeout(oTimeout.Address(), lTimeoutSecs, 0) != TRUE)
        return FALSE;
    // Held: what runs during the wait may release the caller's address.
    const ObjHolder<MsgAddressS> oPeer(MsgIsAddress(oAddress) ? MsgHold(oAddress) : nullptr);
    ObjHolder<MsgMessageS> oReply;
    if (MsgSendObject(oPeer.Get(), tSendMsgType, oSendObject) != TRUE ||
        MsgWaitMessageWithTimeout(oReply.Address(), oPeer.Get(), tReplyMsgType, oTimeout.Get()) !=
            TRUE)
        return FALSE;
    void* oBody = oReply.Get()->oObject;
    if (lReplyMagic != 0 && ObjCheckTypeInternal(oBody, lReplyMagic) != TRUE) return FALSE;
    if (poObject != nullptr) MsgHandOut(poObject, oBody);
    return TRUE;
}
