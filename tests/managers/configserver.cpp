// A small configuration server: answers requests until it is told to end.
//
//   configserver      KRHOME names the home directory, below which the clients' files lie
#include "core/cfgserver.h"
#include "core/msgwait.h"
#include "manager.h"

namespace {

MsgWaitResultE Answer(MsgMessageO oMessage, void* /*oCookie*/) {
    ObjHolder<CfgSvrConfigRequestS> oRequest;
    ObjHolder<CfgSvrConfigReplyS> oReply;
    MsgGetObject(oRequest.Address(), oMessage, CfgSvrConfigRequestMagic);
    CfgSvrProcessConfigRequest(oReply.Address(), oRequest.Get());
    MsgSendReply(oMessage, CFG_SVR_CONFIG_REPLY_MSG, oReply.Get());
    return eMsgWaitResultHandled;
}

}  // namespace

int main() {
    if (ManagerStart("configserver", MsgConfigurationServerId) != TRUE ||
        MsgWaitAddHandler(CFG_SVR_CONFIG_REQUEST_MSG, Answer, nullptr) != TRUE)
        return 1;
    ManagerReady(MsgConfigurationServerId);
    while (MsgWaitPollWithTimeout(nullptr) == TRUE) {
    }
    ContextReleaseThread();
    return 0;
}
