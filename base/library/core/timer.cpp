// Timers. The events of a thread are a list ordered from the latest to the earliest due: the next
// one is the last, where it is looked at before every wait and taken off in constant time. The
// select loop lowers its time to TimrNextEvent and calls TimrClearTimers after every wait.
#include "core/timer.h"

#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/trace.h"

TRACE_MODULE("TIMER")
MEM_DEFAULT_POOL_CACHE

namespace {

ObjTemplateT gtTemplateEvent = nullptr;
ObjTemplateT gtTemplateCallback = nullptr;

TesselContextTimerS& TimrState() { return gtTlContext.sTimer; }

TimrEventO TimrEventOf(ListNodeO oNode) { return static_cast<TimrEventO>(oNode->oData); }

// The node of the next event due, null when none is pending.
ListNodeO TimrLastNode() {
    return TimrState().oEventList == nullptr ? nullptr : TimrState().oEventList->oLast;
}

// Due no later than the other; never is later than everything else.
bool TimrIsDueBy(TimeTimeoutO oTimeout, TimeTimeoutO oOther) {
    if (TimeTimeoutIsNever(oOther) == TRUE) return true;
    return TimeTimeoutHasExpiredRelative(oTimeout, oOther) == TRUE;
}

BooleanT TimrAddEvent(TimrEventO oEvent) {
    ListO oList = TimrState().oEventList;
    const ListNodeO oNext = TimrLastNode();
    if (oNext == nullptr || TimrIsDueBy(oEvent->oTimeout, TimrEventOf(oNext)->oTimeout)) {
        return ListAddLastItem(oList, oEvent);
    }
    ListNodeO oNode = oList->oFirst;
    while (oNode != oNext && !TimrIsDueBy(TimrEventOf(oNode)->oTimeout, oEvent->oTimeout))
        oNode = oNode->oNext;
    return ListInsertBefore(oNode, oEvent);
}

// Sends the message of the event at the end of the list and takes the event off.
BooleanT TimrFireNext() {
    TimrEventO oEvent = TimrEventOf(TimrLastNode());
    TraceMessageInline(5, 0, 4, "Next Event (%p, %p) at %d.%03d",
                       reinterpret_cast<void*>(oEvent->oCallback->pfnCallback),
                       oEvent->oCallback->pCookie, oEvent->oTimeout->lSeconds,
                       oEvent->oTimeout->lMilliSeconds);
    if (MsgSendObjectToSelf(TIMER_CALLBACK_MSG, oEvent->oCallback) != TRUE) return FALSE;
    return ListRemoveLastItem(TimrState().oEventList);
}

struct TimrKeyT {
    TimerCallbackFnT pfnCallback;
    void* pCookie;
};

BooleanT TimrHasKey(void* pKey, void* oItem) {
    const auto* ptKey = static_cast<const TimrKeyT*>(pKey);
    const TimerCallbackS* oCallback = static_cast<TimrEventO>(oItem)->oCallback;
    return BooleanFrom(oCallback->pfnCallback == ptKey->pfnCallback &&
                       oCallback->pCookie == ptKey->pCookie);
}

BooleanT TimrSetRelative(TimerCallbackFnT pfnCallback, void* pCookie, TimeOffsetO oOffset) {
    if (ObjCheckTypeInternal(oOffset, TimeOffsetMagic) != TRUE) return FALSE;
    ObjHolder<TimeTimeoutS> oTimeout;
    if (TimeCreateTimeout(oTimeout.Address()) != TRUE ||
        TimeSetTimeoutFromOffset(oTimeout.Get(), oOffset) != TRUE) {
        return FALSE;
    }
    return TimrSetAlarm(pfnCallback, pCookie, oTimeout.Get());
}

}  // namespace

BooleanT TimerInitialize() {
    return BooleanFrom(ObjTemplateCreateInternal(&gtTemplateEvent, sizeof(TimrEventS),
                                                 TimrEventMagic, "o;o;", nullptr) == TRUE &&
                       ObjTemplateCreateInternal(&gtTemplateCallback, sizeof(TimerCallbackS),
                                                 TimerCallbackMagic, "p;p;", nullptr) == TRUE);
}

BooleanT TimerInitializeThread(TesselContextT* ptTlContext) {
    TesselContextTimerS& tState = ptTlContext->sTimer;
    return BooleanFrom(ListCreate(&tState.oEventList, TimrEventMagic) == TRUE &&
                       TimeCreateTimeout(&tState.oNow) == TRUE);
}

void TimerReleaseThread(TesselContextT* ptTlContext) {
    TesselContextTimerS& tState = ptTlContext->sTimer;
    if (tState.oEventList != nullptr) ObjRelease(&tState.oEventList);
    if (tState.oNow != nullptr) ObjRelease(&tState.oNow);
}

BooleanT TimrSetAlarm(TimerCallbackFnT pfnCallback, void* pCookie, TimeTimeoutO oTimeout) {
    if (ObjCheckTypeInternal(oTimeout, TimeTimeoutMagic) != TRUE) return FALSE;
    const ObjHolder<TimrEventS> oEvent(
        static_cast<TimrEventO>(ObjTemplateNewInstanceFromPool(gtTemplateEvent, MemPool())));
    if (oEvent.Get() == nullptr) return FALSE;
    oEvent.Get()->oCallback =
        static_cast<TimerCallbackO>(ObjTemplateNewInstanceFromPool(gtTemplateCallback, MemPool()));
    if (oEvent.Get()->oCallback == nullptr) return FALSE;
    oEvent.Get()->oCallback->pfnCallback = pfnCallback;
    oEvent.Get()->oCallback->pCookie = pCookie;
    ObjIncRefCount(oTimeout);
    oEvent.Get()->oTimeout = oTimeout;
    return TimrAddEvent(oEvent.Get());
}

BooleanT TimrSetAlarmRelative(TimerCallbackFnT pfnCallback, void* pCookie, TimeOffsetO oOffset) {
    const BooleanT bResult = TimrSetRelative(pfnCallback, pCookie, oOffset);
    TraceMessageInline(1, 0, 4, "%s = TimrSetAlarmRelative(%p, %p, %p)", BooleanText(bResult),
                       reinterpret_cast<void*>(pfnCallback), pCookie, static_cast<void*>(oOffset));
    return bResult;
}

BooleanT TimrResetAlarm(TimerCallbackFnT pfnCallback, void* pCookie) {
    TimrKeyT tKey = {pfnCallback, pCookie};
    ListNodeO oNode = nullptr;
    BooleanT bResult = FALSE;
    if (TimrLastNode() != nullptr &&
        ListSearch(TimrState().oEventList, TimrHasKey, &tKey, &oNode) == TRUE) {
        bResult = ListRemoveItem(oNode);
    }
    TraceMessageInline(2, 0, 4, "%s = TimrResetAlarm(%p, %p)", BooleanText(bResult),
                       reinterpret_cast<void*>(pfnCallback), pCookie);
    return bResult;
}

TimeTimeoutO TimrNextEvent() {
    TimeTimeoutO oNow = TimrState().oNow;
    const ListNodeO oNext = TimrLastNode();
    if (oNext == nullptr)
        TimeSetTimeoutNever(oNow);
    else
        TimeTimeoutCopy(oNow, TimrEventOf(oNext)->oTimeout);
    return oNow;
}

BooleanT TimrClearTimers() {
    if (TimrLastNode() == nullptr) return TRUE;
    TimeTimeoutO oNow = TimrState().oNow;
    TimeSetTimeoutNow(oNow);
    TraceMessageInline(4, 0, 4, "Timer at %d.%03d", oNow->lSeconds, oNow->lMilliSeconds);
    while (TimrLastNode() != nullptr &&
           TimeTimeoutHasExpiredRelative(TimrEventOf(TimrLastNode())->oTimeout, oNow) == TRUE) {
        if (TimrFireNext() != TRUE) return FALSE;
    }
    return TRUE;
}
