// One request on its way to a configuration server, and its reply. A reply may come after its call
// has given up, and a handler that runs during a wait may ask the server itself, so that two calls
// wait one inside the other. A request therefore bears a unique identifier, which our servers send
// back: a call takes the reply with its own and, as other servers know nothing of it, one without
// any. A reply with another's is dropped, or put back when an outer call waits for it.
#include "cfgserverinternal.h"
#include "core/cfgserver.h"
#include "core/msg.h"
#include "core/msgchannel.h"
#include "core/msgwait.h"
#include "core/time.h"
#include "core/trace.h"
#include "core/unique.h"
#include "tracetext.h"

TRACE_MODULE("SERVERCONF")

namespace {

int32 glCfgSvrWaits = 0;  // calls that wait for a reply, one inside the other

bool CfgSvrIsReplyTo(MsgMessageO oMessage, ObjUniqueO oMark) {
    auto* oReply = static_cast<CfgSvrConfigReplyO>(oMessage->oObject);
    ObjHolder<void> oTheirs;
    return ObjCheckTypeInternal(oReply, CfgSvrConfigReplyMagic) != TRUE ||
           ListGetExtensionItem(oTheirs.Address(), oReply->oExt, ObjUniqueMagic) != TRUE ||
           ObjUniqueEqual(static_cast<ObjUniqueO>(oTheirs.Get()), oMark) == TRUE;
}

// Waits for the message that replies to the request with that mark.
BooleanT CfgSvrWaitForReply(MsgMessageO* poMessage, ObjUniqueO oMark) {
    ObjHolder<TimeTimeoutS> oTimeout;
    ObjHolder<ListS> oOthers(ListNew(MsgMessageMagic));  // replies to calls outside, newest first
    if (TimeCreateAndSetTimeout(oTimeout.Address(), CfgSvrReplySeconds, 0) != TRUE) return FALSE;
    BooleanT bFound = FALSE;
    glCfgSvrWaits++;
    do {
        ObjHolder<MsgMessageS> oMessage;
        if (MsgWaitMessageWithTimeout(oMessage.Address(), nullptr, CFG_SVR_CONFIG_REPLY_MSG,
                                      oTimeout.Get()) != TRUE)
            break;
        if (CfgSvrIsReplyTo(oMessage.Get(), oMark)) {
            *poMessage = oMessage.Take();
            bFound = TRUE;
        } else {
            TraceMessageInline(51, 0, 4, "Got the reply to another config request");
            if (glCfgSvrWaits > 1) ListPushFirstItem(oOthers.Get(), oMessage.Address());
        }
    } while (bFound != TRUE && TimeTimeoutHasExpired(oTimeout.Get()) != TRUE);
    glCfgSvrWaits--;
    for (ListNodeO oNode = oOthers.Get()->oFirst; oNode != nullptr; oNode = oNode->oNext)
        MsgRequeue(static_cast<MsgMessageO>(oNode->oData));
    return bFound;
}

}  // namespace

BooleanT CfgSvrSendConfigRequest(CfgSvrConfigReplyO* poReply, CfgSvrConfigRequestO oRequest,
                                 const char* pstrServer, int32 lReqType) {
    TraceMessageInline(52, 0, 4, "CfgSvrSendConfigRequest");
    if (poReply == nullptr || ObjCheckTypeInternal(oRequest, CfgSvrConfigRequestMagic) != TRUE) {
        TraceMessageInline(53, 0, -1, "Invalid server config request");
        return FALSE;
    }
    TraceMessageInline(54, 0, 4,
                       "Client name: %s, Stanza Catagory : %s, Stanza file : %s, "
                       "Stanza Title : %s, Stanza Keyword : %s, Stanza Alt path : %s",
                       TraceText(oRequest->pstrClientName), TraceText(oRequest->pstrStanzaCatagory),
                       TraceText(oRequest->pstrStanzaFile), TraceText(oRequest->pstrStanzaTitle),
                       TraceText(oRequest->pstrStanzaKeyword), TraceText(oRequest->pstrAltPath));
    const ObjHolder<ObjUniqueS> oMark(ObjUniqueNew());
    oRequest->lReqType = lReqType;
    void* oExt = oRequest->oExt;
    if (ListSetExtensionItem(&oExt, oMark.Get()) == TRUE) oRequest->oExt = static_cast<ListO>(oExt);
    ObjHolder<MsgAddressS> oAddress;
    if (MsgCreateAddress(oAddress.Address(), pstrServer, MsgConfigurationServerId) != TRUE) {
        TraceMessageInline(55, 0, -1, "Failed to create address, server %s", TraceText(pstrServer));
        return FALSE;
    }
    if (MsgSendObject(oAddress.Get(), CFG_SVR_CONFIG_REQUEST_MSG, oRequest) != TRUE) {
        TraceMessageInline(56, 0, -1, "Failed to send config request");
        return FALSE;
    }
    ObjHolder<MsgMessageS> oMessage;
    if (CfgSvrWaitForReply(oMessage.Address(), oMark.Get()) != TRUE) {
        TraceMessageInline(57, 0, -1, "Remote config operation failed");
        return FALSE;
    }
    ObjHolder<CfgSvrConfigReplyS> oReply;
    if (MsgGetObject(oReply.Address(), oMessage.Get(), CfgSvrConfigReplyMagic) != TRUE) {
        TraceMessageInline(58, 0, -1, "Unexpected object in remote cfg reply");
        return FALSE;
    }
    if (oReply.Get()->bSuccess != TRUE) {
        TraceMessageInline(59, 0, -1, "Failed to get config reply object");
        return FALSE;
    }
    TraceMessageInline(60, 0, 4, "Remote config call succeeded");
    *poReply = oReply.Take();
    return TRUE;
}
