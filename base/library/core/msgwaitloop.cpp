// Waits for messages and conditions, and the poll.
//
// A wait works on packets with their messages beside them: what nobody handles goes back as the
// packet that came, also when it names a machine that has no name here.
#include <cstdio>
#include <cstring>

#include "core/list.h"
#include "core/trace.h"
#include "msgwaitinternal.h"

TRACE_MODULE("MSGWAIT")

int32 MsgWaitNesting::lUnderWay = 0;

namespace {

enum class PassE { Message, Nothing, Failed };

// A wait under way, with the message that it looks at.
class WaitT {
 public:
    // One pass of receiving, as MsgReceive makes it.
    PassE Receive(TimeTimeoutO oTimeout);
    // Gives the message to handlers and default handlers, and keeps what they leave.
    MsgWaitResultE Handle();
    MsgMessageO Message() const { return m_oMessage.Get(); }

 private:
    static bool MayKeep() {
        return MsgWaitState().lDepth > 0 || MsgWaitState().bKeepUnhandledMessages == TRUE ||
               MsgWaitNesting::IsInner();
    }
    const MsgWaitNesting m_tNesting;
    MsgWaitKept m_tKept;
    ObjHolder<MsgPacketS> m_oPacket;
    ObjHolder<MsgMessageS> m_oMessage;
};

PassE WaitT::Receive(TimeTimeoutO oTimeout) {
    ObjRelease(m_oMessage.Address());
    ObjRelease(m_oPacket.Address());
    if (!m_tKept.MakeRoom()) return PassE::Failed;
    BooleanT bThere = MsgReceivePacket(m_oPacket.Address(), oTimeout);
    while (bThere == TRUE) {
        if (MsgMessageFromPacket(m_oMessage.Address(), m_oPacket.Get()) == TRUE)
            return PassE::Message;
        ObjRelease(m_oPacket.Address());
        bThere = MsgReceivePopPacket(m_oPacket.Address());
    }
    return PassE::Nothing;
}

MsgWaitResultE WaitT::Handle() {
    MsgWaitResultE eResult = MsgWaitCallHandlers(Message());
    MsgWaitDropDiscarded();
    if (eResult == eMsgWaitResultNotHandled) eResult = MsgWaitDefaultHandlers(Message());
    TraceMessageInline(40, 0, 4, "%s %s", MsgWaitResultString(eResult),
                       MsgName(Message()->tMsgType));
    if (eResult != eMsgWaitResultNotHandled) return eResult;
    TraceMessageInline(41, 0, 4, "Message was not handled");
    if (MayKeep()) m_tKept.Keep(m_oPacket.Get());
    return eResult;
}

bool EndsWait(MsgWaitResultE eResult) {
    return eResult != eMsgWaitResultHandled && eResult != eMsgWaitResultNotHandled;
}

// --- the messages that a wait is for ---

constexpr MsgTypeT NoMoreTypes = -1;

bool IsDesired(MsgTypeT tMsgType, const MsgTypeT* ptTypes) {
    while (*ptTypes != NoMoreTypes && *ptTypes != tMsgType) ptTypes++;
    return *ptTypes != NoMoreTypes;
}

// The names of the types as one text, each with a comma behind it; of very many the first.
struct TypeNamesT {
    char acText[512] = "";

    explicit TypeNamesT(const MsgTypeT* ptTypes) {
        for (; *ptTypes != NoMoreTypes; ptTypes++) {
            const std::size_t uiUsed = std::strlen(acText);
            if (uiUsed + 1 == sizeof(acText)) return;
            std::snprintf(acText + uiUsed, sizeof(acText) - uiUsed, "%s,", MsgName(*ptTypes));
        }
    }
};

// TRUE when a desired message has come; FALSE when the wait is over without one.
BooleanT WaitForMessage(MsgMessageO* poMessage, MsgAddressO oDesiredSource, const MsgTypeT* ptTypes,
                        TimeTimeoutO oTimeout) {
    const MsgWaitSource tSource(oDesiredSource);
    WaitT tWait;
    do {
        const PassE ePass = tWait.Receive(oTimeout);
        if (ePass == PassE::Failed) return FALSE;
        if (ePass == PassE::Nothing) continue;
        const MsgMessageO oMessage = tWait.Message();
        if (IsDesired(oMessage->tMsgType, ptTypes) && tSource.Sent(oMessage->oSource)) {
            if (poMessage != nullptr) MsgHandOut(poMessage, oMessage);
            return TRUE;
        }
        // Looked at first: a handler may close the channel that a notice comes from.
        const MsgWaitEndE eEnd =
            tSource.EndedBy(oMessage->tMsgType, oMessage->oSource, oMessage->oObject);
        if (EndsWait(tWait.Handle()) || eEnd != MsgWaitEndE::None) return FALSE;
    } while (!MsgHasExpired(oTimeout));
    return FALSE;
}

MsgWaitResultE WaitForCallback(MsgWaitOnCallbackFnT fnCallback, void* oCookie,
                               TimeTimeoutO oTimeout) {
    if (fnCallback == nullptr) return eMsgWaitResultInvalidArgument;
    WaitT tWait;
    for (;;) {
        MsgWaitResultE eResult = eMsgWaitResultSuccess;
        if (fnCallback(&eResult, oCookie) == TRUE) return eResult;
        if (MsgHasExpired(oTimeout)) return eMsgWaitResultTimeout;
        const PassE ePass = tWait.Receive(oTimeout);
        if (ePass == PassE::Failed) return eMsgWaitResultError;
        if (ePass == PassE::Nothing) continue;
        const ListO oHandlers = MsgWaitState().oHandlers;
        TraceMessageInline(42, 0, 4, "Check %d handlers",
                           oHandlers == nullptr ? 0 : oHandlers->lItemCount);
        eResult = tWait.Handle();
        if (EndsWait(eResult)) return eResult;
    }
}

}  // namespace

BooleanT MsgWaitMessageWithTimeout(MsgMessageO* poMessage, MsgAddressO oDesiredSource,
                                   MsgTypeT tDesiredMsgType, TimeTimeoutO oTimeout) {
    const MsgTypeT atTypes[] = {tDesiredMsgType, NoMoreTypes};
    return MsgWaitMultipleMessagesWithTimeout(poMessage, oDesiredSource, atTypes, oTimeout);
}

BooleanT MsgWaitMultipleMessagesWithTimeout(MsgMessageO* poMessage, MsgAddressO oDesiredSource,
                                            const MsgTypeT* ptDesiredMsgTypes,
                                            TimeTimeoutO oTimeout) {
    if (ptDesiredMsgTypes == nullptr ||
        (oDesiredSource != nullptr && !MsgIsAddress(oDesiredSource)))
        return FALSE;
    TraceMessageInline(43, 0, 4, "MsgWaitMultipleMessagesWithTimeout(%p, %p, %s %p) level %d",
                       static_cast<void*>(poMessage), static_cast<void*>(oDesiredSource),
                       TypeNamesT(ptDesiredMsgTypes).acText, static_cast<void*>(oTimeout),
                       MsgWaitDepth());
    const BooleanT bResult = WaitForMessage(poMessage, oDesiredSource, ptDesiredMsgTypes, oTimeout);
    TraceMessageInline(44, 0, 4, "%s = MsgWaitMessageWithTimeout(%p, %p, %s %p) level %d",
                       BooleanText(bResult), static_cast<void*>(poMessage),
                       static_cast<void*>(oDesiredSource), TypeNamesT(ptDesiredMsgTypes).acText,
                       static_cast<void*>(oTimeout), MsgWaitDepth());
    return bResult;
}

MsgWaitResultE MsgWaitOnCallbackWithTimeout(MsgWaitOnCallbackFnT fnCallback, void* oCookie,
                                            TimeTimeoutO oTimeout) {
    void* pCallback = reinterpret_cast<void*>(fnCallback);
    TraceMessageInline(45, 0, 4, "MsgWaitMessageOnCallbackWithTimeout(%p, %p, %p) level %d",
                       pCallback, oCookie, static_cast<void*>(oTimeout), MsgWaitDepth());
    const MsgWaitResultE eResult = WaitForCallback(fnCallback, oCookie, oTimeout);
    TraceMessageInline(46, 0, 4, "%s = MsgWaitOnCallbackWithTimeout(%p, %p, %p) level %d",
                       MsgWaitResultString(eResult), pCallback, oCookie,
                       static_cast<void*>(oTimeout), MsgWaitDepth());
    return eResult;
}

// --- polling ---

BooleanT MsgWaitPollWithTimeoutAndFilter(TimeTimeoutO oTimeout, MsgWaitFilterFnT fnFilter,
                                         void* oCookie) {
    const MsgWaitNesting tNesting;
    for (TimeTimeoutO oNext = oTimeout;; oNext = MsgImmediate()) {
        ObjHolder<MsgMessageS> oMessage;
        if (MsgReceive(oMessage.Address(), oNext) != TRUE) return TRUE;
        TraceMessageInline(47, 0, 4, "MsgWaitPoll: got message %s",
                           MsgName(oMessage.Get()->tMsgType));
        MsgWaitResultE eResult = eMsgWaitResultNotHandled;
        if (fnFilter != nullptr) eResult = fnFilter(oMessage.Get(), oCookie);
        if (eResult == eMsgWaitResultNotHandled) eResult = MsgWaitCallHandlers(oMessage.Get());
        if (eResult == eMsgWaitResultNotHandled) eResult = MsgWaitDefaultHandlers(oMessage.Get());
        if (eResult >= eMsgWaitResultExit) return FALSE;
    }
}

BooleanT MsgWaitPollWithTimeout(TimeTimeoutO oTimeout) {
    return MsgWaitPollWithTimeoutAndFilter(oTimeout, nullptr, nullptr);
}

BooleanT MsgWaitPoll() { return MsgWaitPollWithTimeout(MsgImmediate()); }
