// Handlers of messages, and how one message passes them.
//
// Handlers are a list, the newest at its head. While it is walked nothing leaves it: a handler that
// is removed then is marked, is called no more, and goes when no walk is under way; one that is
// added stands in front of those being walked. So handlers may add and remove any of them, also
// themselves, and wait, which walks the list again inside.
#include "core/msgwait.h"

#include <iterator>

#include "core/list.h"
#include "core/process.h"
#include "core/trace.h"
#include "msgwaitinternal.h"

TRACE_MODULE("MSGWAIT")

namespace {

constexpr const char* apstrResults[] = {
    "eMsgWaitResultError",        "eMsgWaitResultHandled",
    "eMsgWaitResultNotHandled",   "eMsgWaitResultExit",
    "eMsgWaitResultTimeout",      "eMsgWaitResultKillRequest",
    "eMsgWaitResultPeerDied",     "eMsgWaitResultIpcError",
    "eMsgWaitResultChannelError", "eMsgWaitResultInvalidArgument",
    "eMsgWaitResultDecodeError",  "eMsgWaitResultSuccess",
};
static_assert(std::size(apstrResults) == eMsgWaitResultSuccess - eMsgWaitResultError + 1);

MsgWaitHandlerO HandlerOf(ListNodeO oNode) { return static_cast<MsgWaitHandlerO>(oNode->oData); }

// One step of a walk: TRUE goes on to the next handler.
BooleanT CallHandler(void* pInfo, ListNodeO oNode) {
    auto* ptInfo = static_cast<MsgWaitInfoT*>(pInfo);
    MsgWaitHandlerO oHandler = HandlerOf(oNode);
    if (oHandler->bDiscard == TRUE || oHandler->pfnHandler == nullptr ||
        oHandler->lMsgType != ptInfo->tType)
        return TRUE;
    const auto fnHandler = reinterpret_cast<MsgWaitHandlerT>(oHandler->pfnHandler);
    ptInfo->eResult = fnHandler(ptInfo->oMsg, oHandler->oCookie);
    if (ptInfo->eResult == eMsgWaitResultExit) ProcCleanup(0);
    return BooleanFrom(ptInfo->eResult == eMsgWaitResultNotHandled);
}

// Marks the handlers that the test accepts, all of them or the first.
template <class TestT>
BooleanT Discard(bool bAll, TestT fnTest) {
    TesselContextMsgWaitS& tState = MsgWaitState();
    BooleanT bFound = FALSE;
    ListNodeO oNode = tState.oHandlers == nullptr ? nullptr : tState.oHandlers->oFirst;
    for (; oNode != nullptr && (bAll || bFound != TRUE); oNode = oNode->oNext) {
        if (HandlerOf(oNode)->bDiscard == TRUE || !fnTest(HandlerOf(oNode))) continue;
        HandlerOf(oNode)->bDiscard = TRUE;
        tState.bDoDiscard = TRUE;
        bFound = TRUE;
    }
    MsgWaitDropDiscarded();
    return bFound;
}

}  // namespace

const char* MsgWaitResultString(MsgWaitResultE eResult) {
    if (eResult < eMsgWaitResultError || eResult > eMsgWaitResultSuccess) return "UNKNOWN";
    return apstrResults[eResult - eMsgWaitResultError];
}

// The class and the immediate timeout are those of the messages' own initialisation.
BooleanT MsgWaitInitialize() { return BooleanFrom(MsgImmediate() != nullptr); }

BooleanT MsgWaitInitializeThread(TesselContextT* ptTlContext) {
    return ListCreate(&ptTlContext->sMsgWait.oHandlers, MsgWaitHandlerMagic);
}

void MsgWaitReleaseThread(TesselContextT* ptTlContext) {
    TesselContextMsgWaitS& tState = ptTlContext->sMsgWait;
    ObjRelease(&tState.oHandlers);
    tState.bDoDiscard = FALSE;
    tState.bDisableDefaultHandlers = FALSE;
    tState.bKeepUnhandledMessages = FALSE;
}

BooleanT MsgWaitAddHandler(MsgTypeT tMsgType, MsgWaitHandlerT pfnHandler, void* oCookie) {
    TraceMessageInline(1, 0, 4, "MsgWaitAddHandler(%s, %p, %p)", MsgName(tMsgType),
                       reinterpret_cast<void*>(pfnHandler), oCookie);
    if (!MsgIsBody(oCookie)) return FALSE;
    ObjHolder<MsgWaitHandlerS> oHandler(
        ObjNew<MsgWaitHandlerS>(MsgWaitHandlerMagic, MsgWaitHandlerDescriptor));
    if (oHandler.Get() == nullptr) return FALSE;
    *oHandler.Get() = {tMsgType, MsgHold(oCookie), reinterpret_cast<void*>(pfnHandler), FALSE};
    return ListPushFirstItem(MsgWaitState().oHandlers, oHandler.Address());
}

BooleanT MsgWaitRemoveHandler(MsgTypeT tMsgType, MsgWaitHandlerT pfnHandler, void* oCookie) {
    return Discard(false, [=](MsgWaitHandlerO oHandler) {
        return oHandler->lMsgType == tMsgType && oHandler->oCookie == oCookie &&
               oHandler->pfnHandler == reinterpret_cast<void*>(pfnHandler);
    });
}

BooleanT MsgWaitRemoveHandlerByCookie(void* oCookie) {
    if (ObjHasValidGlobalMagic(oCookie) != TRUE) return FALSE;
    return Discard(true,
                   [oCookie](MsgWaitHandlerO oHandler) { return oHandler->oCookie == oCookie; });
}

void MsgWaitDisableDefaultHandlers() { MsgWaitState().bDisableDefaultHandlers = TRUE; }
void MsgWaitKeepUnhandledMessages() { MsgWaitState().bKeepUnhandledMessages = TRUE; }
int32 MsgWaitDepth() { return MsgWaitState().lDepth; }

// With a cookie its destructor may run, which may remove other handlers: they are marked, and taken
// off in another round.
void MsgWaitDropDiscarded() {
    TesselContextMsgWaitS& tState = MsgWaitState();
    while (tState.bDoDiscard == TRUE && tState.lDepth == 0) {
        const ObjHolder<ListS> oHandlers(MsgHold(tState.oHandlers));
        tState.bDoDiscard = FALSE;
        tState.lDepth++;
        ListNodeO oNode = oHandlers.Get() == nullptr ? nullptr : oHandlers.Get()->oFirst;
        while (oNode != nullptr) {
            ListNodeO oNext = oNode->oNext;
            if (HandlerOf(oNode)->bDiscard == TRUE) ListRemoveItem(oNode);
            oNode = oNext;
        }
        tState.lDepth--;
    }
}

MsgWaitResultE MsgWaitCallHandlers(MsgMessageO oMessage) {
    TesselContextMsgWaitS& tState = MsgWaitState();
    // Held: a handler that ends the thread releases the list.
    const ObjHolder<ListS> oHandlers(MsgHold(tState.oHandlers));
    MsgWaitInfoT tInfo = {oMessage->tMsgType, oMessage, eMsgWaitResultNotHandled};
    if (oHandlers.Get() == nullptr) return tInfo.eResult;
    tState.lDepth++;
    ListWalk(oHandlers.Get(), CallHandler, &tInfo);
    tState.lDepth--;
    return tInfo.eResult;
}
