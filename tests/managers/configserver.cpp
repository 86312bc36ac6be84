// A small configuration server: answers requests until it is told to end.
//
//   configserver [13]      KRHOME names the home directory, below which the clients' files lie.
//                          13: started by the process manager
#include "core/cfgserver.h"
#include "core/msgwait.h"
#include "manager.h"

static MsgWaitResultE Answer(MsgMessageO oMessage, void* /*oCookie*/) {
    ObjHolder<CfgSvrConfigRequestS> oRequest;
    ObjHolder<CfgSvrConfigReplyS> oReply;
    MsgGetObject(oRequest.Address(), oMessage, CfgSvrConfigRequestMagic);
    CfgSvrProcessConfigRequest(oReply.Address(), oRequest.Get());
    MsgSendReply(oMessage, CFG_SVR_CONFIG_REPLY_MSG, oReply.Get());
    return eMsgWaitResultHandled;
}

int main(int argc, char** argv) {
    if (ManagerJoin("configserver", MsgConfigurationServerId, argc > 1 ? argv[1] : nullptr) !=
            TRUE ||
        MsgWaitAddHandler(CFG_SVR_CONFIG_REQUEST_MSG, Answer, nullptr) != TRUE)
        return 1;
    ManagerReady(MsgConfigurationServerId);
    while (MsgWaitPollWithTimeout(nullptr) == TRUE) {
    }
    ManagerEnd();
    return 0;
}
