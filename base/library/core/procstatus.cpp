// What a process tells the process manager of its machine about itself.
#include "core/process.h"
#include "core/trace.h"
#include "msginternal.h"

TRACE_MODULE("PROCESS")

BooleanT ProcSendStatus(ProcStatusE eStatus) {
    TraceMessageInline(216, 0, 4, "ProcSendStatus(%d)", eStatus);
    ObjHolder<PmgrProcessStatusS> oStatus(
        ObjNew<PmgrProcessStatusS>(PmgrProcessStatusMagic, PmgrProcessStatusDescriptor));
    BooleanT bResult = FALSE;
    if (oStatus.Get() != nullptr) {
        oStatus.Get()->eStatus = eStatus;
        bResult = MsgSendObject(MsgProcMgrAddress(), PMGR_PROCESS_STATUS_MSG, oStatus.Get());
    }
    TraceMessageInline(217, 0, 4, "%s = ProcSendStatus(%d)", BooleanText(bResult), eStatus);
    return bResult;
}

BooleanT ProcSendSODReady(PmgrStartOfDayReadyE eStatus) {
    const ObjHolder<PmgrStartOfDayReadyS> oReady(
        ObjNew<PmgrStartOfDayReadyS>(PmgrStartOfDayReadyMagic, PmgrStartOfDayReadyDescriptor));
    if (oReady.Get() != nullptr) oReady.Get()->lStatus = eStatus;
    if (oReady.Get() == nullptr ||
        MsgSendObject(MsgProcMgrAddress(), PMGR_START_OF_DAY_READY_MSG, oReady.Get()) != TRUE) {
        TraceMessageInline(223, 0, -1, "Failed to send start of day ready msg");
        return FALSE;
    }
    TraceMessageInline(222, 0, 4, "Sent start of day ready message with status %d", eStatus);
    return TRUE;
}

BooleanT ProcChangeFromReady() {
    return MsgSendObject(MsgProcMgrAddress(), PMGR_CHANGE_FROM_READY_MSG, nullptr);
}
