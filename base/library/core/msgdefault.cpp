// What a process does with a message that none of its handlers takes: one table, by type.
#include <cstddef>

#include "core/objwrappers.h"
#include "core/process.h"
#include "core/timer.h"
#include "core/trace.h"
#include "msgwaitinternal.h"

TRACE_MODULE("MSGWAIT")

namespace {

constexpr int32 InterfaceGui = 1;

// The body when it is of that class, else null. It stays the message's.
template <class T>
T* BodyOf(MsgMessageO oMessage, int32 lMagic) {
    void* oBody = oMessage->oObject;
    return ObjCheckTypeInternal(oBody, lMagic) == TRUE ? static_cast<T*>(oBody) : nullptr;
}

MsgWaitResultE MachineDown(MsgMessageO oMessage) {
    const auto* oBody = BodyOf<CmgrMachineDownS>(oMessage, CmgrMachineDownMagic);
    TraceMessageInline(60, 0, 0, "Machine down: %s",
                       oBody == nullptr ? "" : MsgText(oBody->pstrMachineName));
    return eMsgWaitResultHandled;
}

MsgWaitResultE Unknown(MsgMessageO oMessage) {
    const auto* oBody = BodyOf<MsgUnknownS>(oMessage, MsgUnknownMagic);
    if (oBody == nullptr) return eMsgWaitResultHandled;
    TraceMessageInline(61, 0, -1, "Message of type %d was unexpected by client",
                       oBody->tUnexpectedType);
    TraceMessageInline(62, 0, -1, "Reason given: %s", MsgText(oBody->pstrMessage));
    return eMsgWaitResultHandled;
}

MsgWaitResultE LostIpc(MsgMessageO /*oMessage*/) {
    TraceMessageInline(63, 0, -1, "Fatal error on IPC connection, die");
    ProcCleanup(0);
    return eMsgWaitResultExit;
}

MsgWaitResultE KillYourself(MsgMessageO /*oMessage*/) {
    TraceMessageInline(64, 0, 0, "Been asked to die");
    ProcCleanup(0);
    return eMsgWaitResultExit;
}

MsgWaitResultE TaskReturn(MsgMessageO oMessage) {
    const auto* oBody =
        BodyOf<PmgrGiveServiceATaskReturnS>(oMessage, PmgrGiveServiceATaskReturnMagic);
    if (oBody == nullptr) {
        TraceMessageInline(65, 1, -1, "Invalid task reply message");
        return eMsgWaitResultNotHandled;
    }
    if (oBody->bSuccess != TRUE) {
        TraceMessageInline(66, 0, -1, "Process failed to start (error %d)", oBody->lErrorCode);
        return eMsgWaitResultNotHandled;
    }
    TraceMessageInline(67, 0, 4, "Started process OK");
    return eMsgWaitResultHandled;
}

// The two forms of a task begin alike.
static_assert(offsetof(PmgrTaskS, oUserArguments) == offsetof(PmgrTaskExtS, oUserArguments));
static_assert(offsetof(PmgrTaskS, lInterfaceType) == offsetof(PmgrTaskExtS, lInterfaceType));

MsgWaitResultE Task(MsgMessageO oMessage) {
    const auto* oTask = BodyOf<PmgrTaskS>(oMessage, PmgrTaskMagic);
    if (oTask == nullptr) oTask = BodyOf<PmgrTaskS>(oMessage, PmgrTaskExtMagic);
    if (oTask == nullptr) {
        TraceMessageInline(68, 1, -1, "No valid task object");
        return eMsgWaitResultNotHandled;
    }
    if (oTask->lInterfaceType != InterfaceGui) return eMsgWaitResultNotHandled;
    TraceMessageInline(69, 0, 4, "Connecting to GUI");
    if (MsgChannelOpenInternal(nullptr, oTask->oSource, oTask->oUserArguments, nullptr,
                               eMsgChannelBlocking, eMsgChannelDoNotWaitForAccept,
                               eMsgChannelWaitForOk) != TRUE)
        TraceMessageInline(70, 0, -1, "Cannot open a data channel to the source of the task");
    return eMsgWaitResultHandled;
}

MsgWaitResultE Connected(MsgMessageO /*oMessage*/) {
    TraceMessageInline(71, 0, 4, "Point-to-point connection was completed");
    return eMsgWaitResultHandled;
}

MsgWaitResultE Ping(MsgMessageO oMessage) {
    MsgPong(oMessage);
    return eMsgWaitResultHandled;
}

MsgWaitResultE Connect(MsgMessageO oMessage) {
    if (MsgChannelCompleteInternal(nullptr, oMessage, eMsgChannelBlocking,
                                   eMsgChannelDoNotWaitForConnect, eMsgChannelSendOk) != TRUE)
        TraceMessageInline(72, 0, -1, "Cannot complete a data channel");
    return eMsgWaitResultHandled;
}

// The message is always this process's own (msgio.cpp), so that the routine is one of its own too.
MsgWaitResultE TimerCallback(MsgMessageO oMessage) {
    const auto* oBody = BodyOf<TimerCallbackS>(oMessage, TimerCallbackMagic);
    if (oBody == nullptr) {
        TraceMessageInline(73, 1, -1, "Invalid timer message!");
        return eMsgWaitResultHandled;
    }
    TraceMessageInline(74, 0, 4, "Timer callback: routine at %p, cookie is %p",
                       reinterpret_cast<void*>(oBody->pfnCallback), oBody->pCookie);
    if (oBody->pfnCallback != nullptr) oBody->pfnCallback(oBody->pCookie);
    return eMsgWaitResultHandled;
}

MsgWaitResultE TraceTo(MsgMessageO oMessage) {
    const auto* oBody = BodyOf<ObjStringS>(oMessage, ObjStringMagic);
    if (oBody != nullptr) TraceToFileNoConfig(oBody->pstrValue);
    if (oMessage->oObject == nullptr) TraceSetCallback(nullptr);
    return eMsgWaitResultHandled;
}

struct DefaultT {
    MsgTypeT tFirst;
    MsgTypeT tLast;
    MsgWaitResultE (*fnHandle)(MsgMessageO oMessage);
};

constexpr DefaultT atDefaults[] = {
    {0, MSG_LOST_RECEIVE_QUEUE_MSG, LostIpc},
    {MSG_FATAL_SELECT_ERROR_MSG, MSG_FATAL_SELECT_ERROR_MSG, LostIpc},
    {CMGR_MACHINE_DOWN_MSG, CMGR_MACHINE_DOWN_MSG, MachineDown},
    {MSG_UNKNOWN_MSG, MSG_UNKNOWN_MSG, Unknown},
    {PMGR_KILL_YOURSELF_MSG, PMGR_KILL_YOURSELF_MSG, KillYourself},
    {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, TaskReturn},
    {PMGR_TASK_MSG, PMGR_TASK_MSG, Task},
    {MSG_CONNECTED_MSG, MSG_CONNECTED_MSG, Connected},
    {MSG_PING_MSG, MSG_PING_MSG, Ping},
    {MSG_CONNECT_MSG, MSG_CONNECT_MSG, Connect},
    {TIMER_CALLBACK_MSG, TIMER_CALLBACK_MSG, TimerCallback},
    {TRACE_TO_FILE_MSG, TRACE_TO_FILE_MSG, TraceTo},
};

MsgWaitResultE HandleByType(MsgMessageO oMessage) {
    for (const DefaultT& tDefault : atDefaults) {
        if (oMessage->tMsgType >= tDefault.tFirst && oMessage->tMsgType <= tDefault.tLast)
            return tDefault.fnHandle(oMessage);
    }
    return eMsgWaitResultNotHandled;
}

}  // namespace

MsgWaitResultE MsgWaitDefaultHandlers(MsgMessageO oMessage) {
    if (!MsgIsMessage(oMessage)) return eMsgWaitResultInvalidArgument;
    MsgWaitResultE eResult = eMsgWaitResultNotHandled;
    if (MsgWaitState().bDisableDefaultHandlers != TRUE) eResult = HandleByType(oMessage);
    if (eResult == eMsgWaitResultNotHandled)
        TraceMessageInline(75, 0, 4, "Message '%s' not handled a depth %d",
                           MsgName(oMessage->tMsgType), MsgWaitDepth());
    return eResult;
}
