// What processes of the tests ask process managers for, and what they are told.
#pragma once

#include <string>

#include "core/procapi.h"
#include "support/messages.h"
#include "support/peer.h"
#include "support/shown.h"

// The body of the next message of a type, from whomever; null, which is said, when none comes.
template <class T>
T* AwaitBody(MsgTypeT type, int32 magic) {
    Message message;
    T* body = nullptr;
    const TimeoutIn limit(30000);
    if (MsgReceiveMsgTypeFromAddress(message.Address(), type, nullptr, limit.Get()) != TRUE ||
        MsgGetObject(&body, message.Get(), magic) != TRUE)
        Say("no " + std::string(MsgName(type)));
    return body;
}

// The id of the process that has the task of the cookie, or the code of the error as a negative
// number.
inline int32 TaskTaken(int32 cookie) {
    const ObjHolder<PmgrGiveServiceATaskReturnS> answer(AwaitBody<PmgrGiveServiceATaskReturnS>(
        PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, PmgrGiveServiceATaskReturnMagic));
    if (answer.Get() == nullptr || answer.Get()->lCookie != cookie) return -100;
    return answer.Get()->bSuccess == TRUE ? MsgGetProcessId(answer.Get()->oAddress)
                                          : -answer.Get()->lErrorCode;
}

// Whether the next death that is told of is that of the process.
inline bool ToldOfDeath(const std::string& machine, ProcIdT id) {
    const ObjHolder<PmgrProcessDiedS> died(
        AwaitBody<PmgrProcessDiedS>(PMGR_PROCESS_DIED_MSG, PmgrProcessDiedMagic));
    return ObjectText(died.Get()) == "PmgrProcessDied(" + machine + ":" + std::to_string(id) + ")";
}
