// Waiting for chosen messages while handlers receive the rest.
//
// A wait takes every message that arrives until the one comes that it waits for. Each other message
// goes to the handlers that were added for its type, the newest first, until one has handled it,
// and then to the default handlers, so that a process answers pings, accepts data channels, runs
// its timers and ends when it is told to, whatever it waits for.
//
// Handlers run inside the wait and may do anything: add and remove handlers, end their process,
// wait themselves. What nobody handles in a wait inside another is kept and lies at the head of the
// receive list when the inner wait is over, in its order, for the outer one to see; in the
// outermost wait it is dropped, unless MsgWaitKeepUnhandledMessages was called. Everything belongs
// to the process's one thread.
#pragma once

#include "core/msgbase.h"
#include "core/types.h"

// What became of a message, or of a wait.
enum MsgWaitResultE : int32 {
    eMsgWaitResultError = -1,
    eMsgWaitResultHandled = 0,
    eMsgWaitResultNotHandled = 1,
    eMsgWaitResultExit = 2,  // from here on: ends every wait
    eMsgWaitResultTimeout = 3,
    eMsgWaitResultKillRequest = 4,
    eMsgWaitResultPeerDied = 5,
    eMsgWaitResultIpcError = 6,
    eMsgWaitResultChannelError = 7,
    eMsgWaitResultInvalidArgument = 8,
    eMsgWaitResultDecodeError = 9,
    eMsgWaitResultSuccess = 10,
};

// The name of the value, "UNKNOWN" for any other.
const char* MsgWaitResultString(MsgWaitResultE eResult);

// The message stays the caller's. Handled ends the handling of the message; error, and everything
// from exit on, also the wait. Exit ends the process (ProcCleanup).
using MsgWaitHandlerT = MsgWaitResultE (*)(MsgMessageO oMessage, void* oCookie);
// Asked first by a poll. Its exit only ends the poll.
using MsgWaitFilterFnT = MsgWaitResultE (*)(MsgMessageO oMessage, void* oCookie);
// TRUE, with the result set, when the wait is over.
using MsgWaitOnCallbackFnT = BooleanT (*)(MsgWaitResultE* peResult, void* oCookie);

constexpr int32 MsgWaitHandlerMagic = ObjMagic(0xcb18ee18);
struct MsgWaitHandlerS {  // descriptor "i;o;p;b;"
    MsgTypeT lMsgType;
    void* oCookie;      // held, may be null
    void* pfnHandler;   // a MsgWaitHandlerT; without one nothing is called
    BooleanT bDiscard;  // removed while handlers were running; dropped later
};
using MsgWaitHandlerO = MsgWaitHandlerS*;

// A message on its way past the handlers.
struct MsgWaitInfoT {
    MsgTypeT tType;
    MsgMessageO oMsg;
    MsgWaitResultE eResult;
};

struct TesselContextMsgWaitS {
    ListO oHandlers;      // newest first
    BooleanT bDoDiscard;  // some handler is marked for removal
    int32 lDepth;         // handler walks under way, one inside the other
    BooleanT bDisableDefaultHandlers;
    BooleanT bKeepUnhandledMessages;
};

BooleanT MsgWaitInitialize();
BooleanT MsgWaitInitializeThread(TesselContextT* ptTlContext);
void MsgWaitReleaseThread(TesselContextT* ptTlContext);

// --- handlers ---

// Holds the cookie, an object or null; FALSE for what is neither. A handler that is added while
// handlers are running is not called for the message they are called for.
BooleanT MsgWaitAddHandler(MsgTypeT tMsgType, MsgWaitHandlerT pfnHandler, void* oCookie);
// The newest with all three equal; FALSE when there is none. It is not called again from now on,
// but while handlers are running it keeps its cookie.
BooleanT MsgWaitRemoveHandler(MsgTypeT tMsgType, MsgWaitHandlerT pfnHandler, void* oCookie);
// All of that cookie; FALSE, with nothing done, for what is no object.
BooleanT MsgWaitRemoveHandlerByCookie(void* oCookie);
// Both for good.
void MsgWaitDisableDefaultHandlers();
void MsgWaitKeepUnhandledMessages();
int32 MsgWaitDepth();

// What a process does with a message that none of its handlers takes. Types 0 to 3,
// MSG_FATAL_SELECT_ERROR_MSG and PMGR_KILL_YOURSELF_MSG end it.
MsgWaitResultE MsgWaitDefaultHandlers(MsgMessageO oMessage);

// --- waits ---

// A null timeout never expires; one that has expired already still lets one message be taken. A
// null source is any source. A wait ends without success as soon as its source is gone: its channel
// is down, its process has died or its machine is down. The message that comes back is a new
// holder, the caller's; without a place for it, it is consumed.

BooleanT MsgWaitMessageWithTimeout(MsgMessageO* poMessage, MsgAddressO oDesiredSource,
                                   MsgTypeT tDesiredMsgType, TimeTimeoutO oTimeout);
// Of the types, which end with -1, whichever comes first.
BooleanT MsgWaitMultipleMessagesWithTimeout(MsgMessageO* poMessage, MsgAddressO oDesiredSource,
                                            const MsgTypeT* ptDesiredMsgTypes,
                                            TimeTimeoutO oTimeout);
// Asks the callback before every message, then looks at the timeout. The result is the callback's,
// eMsgWaitResultTimeout, or that of the message that ended the wait.
MsgWaitResultE MsgWaitOnCallbackWithTimeout(MsgWaitOnCallbackFnT fnCallback, void* oCookie,
                                            TimeTimeoutO oTimeout);
// Calls no handler: every other message keeps its place in the receive list. Only for a source on
// this machine. The message that tells of a failure is consumed.
MsgWaitResultE MsgWaitExclusiveWithTimeout(MsgMessageO* poMessage, MsgAddressO oDesiredSource,
                                           MsgTypeT tDesiredMsgType, TimeTimeoutO oTimeout);

// Handles what is there, after waiting for the first message at most until the timeout; what nobody
// handles is dropped. FALSE when a message asked for the end.
BooleanT MsgWaitPollWithTimeoutAndFilter(TimeTimeoutO oTimeout, MsgWaitFilterFnT fnFilter,
                                         void* oCookie);
BooleanT MsgWaitPollWithTimeout(TimeTimeoutO oTimeout);
BooleanT MsgWaitPoll();

// --- request and reply ---

// Sends an object and waits for the reply of that type from the same address. The reply's body is a
// new holder: of class lReplyMagic, else FALSE; with magic 0 of any class, null when there is none.
BooleanT MsgWaitInterchangeInternal(void** poObject, MsgAddressO oAddress, MsgTypeT tSendMsgType,
                                    void* oSendObject, MsgTypeT tReplyMsgType, int32 lReplyMagic);
// For at most lTimeoutSecs seconds; 0 for any time.
BooleanT MsgWaitInterchangeTimeoutInternal(void** poObject, MsgAddressO oAddress,
                                           MsgTypeT tSendMsgType, void* oSendObject,
                                           MsgTypeT tReplyMsgType, int32 lReplyMagic,
                                           int32 lTimeoutSecs);

template <class T>
BooleanT MsgWaitInterchangeTimeout(T** poObject, MsgAddressO oAddress, MsgTypeT tSendMsgType,
                                   void* oSendObject, MsgTypeT tReplyMsgType, int32 lReplyMagic,
                                   int32 lTimeoutSecs) {
    void* oObject = nullptr;
    const BooleanT bResult = MsgWaitInterchangeTimeoutInternal(
        poObject == nullptr ? nullptr : &oObject, oAddress, tSendMsgType, oSendObject,
        tReplyMsgType, lReplyMagic, lTimeoutSecs);
    if (bResult == TRUE && poObject != nullptr) *poObject = static_cast<T*>(oObject);
    return bResult;
}

template <class T>
BooleanT MsgWaitInterchange(T** poObject, MsgAddressO oAddress, MsgTypeT tSendMsgType,
                            void* oSendObject, MsgTypeT tReplyMsgType, int32 lReplyMagic) {
    return MsgWaitInterchangeTimeout(poObject, oAddress, tSendMsgType, oSendObject, tReplyMsgType,
                                     lReplyMagic, 0);
}
