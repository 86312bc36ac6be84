// Giving services tasks. Whatever goes wrong becomes the answer that the asker waits for, sent by
// this process to itself; until something goes wrong there is no error code.
#include "core/context.h"
#include "core/list.h"
#include "core/machineinfo.h"
#include "core/memory.h"
#include "core/procapi.h"
#include "core/security.h"
#include "core/strbase.h"
#include "core/task.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("PROCAPI")
MEM_DEFAULT_POOL_CACHE

namespace {

// Machines of this version and later take a task with its context.
constexpr int32 ProcTaskContextVersion = 7;

int32 glNextTaskId = 0;

// What is asked, whichever of the two bodies it travels in.
struct ProcTaskT {
    ProcAddressO oProcAddress;
    const char* pstrLocale;
    const char* pstrPassword;
    BooleanT bSavePassword;
    void* oUserData;
    int32 lCookie;
    void* oContextObject;
};

bool ProcIsObjectOrNull(void* oObject) {
    return oObject == nullptr || ObjHasValidGlobalMagic(oObject) == TRUE;
}

bool ProcIsSoundTask(const ProcTaskT& tTask) {
    const char* pstrProcess = ProcGetProcessNameFromAddress(tTask.oProcAddress);
    return pstrProcess != nullptr && *pstrProcess != '\0' && ProcIsObjectOrNull(tTask.oUserData) &&
           ProcIsObjectOrNull(tTask.oContextObject);
}

// The context that the task travels with, a new holder. The current task's is shared, unless it
// gets an object that is this request's alone.
BooleanT ProcTaskContextFor(TaskContextO* poContext, void* oContextObject) {
    void* oCurrent = gtTlContext.sProcess.oTaskContext;
    if (oCurrent == nullptr) {
        if (TaskCreateContext(poContext) != TRUE) return FALSE;
    } else if (oContextObject == nullptr) {
        *poContext = static_cast<TaskContextO>(MsgHold(oCurrent));
    } else {
        void* oCopy = nullptr;
        if (ObjDuplicate(&oCopy, oCurrent) != TRUE) {
            TraceMessageInline(24, 1, -1, "Error, Object duplication failed");
            return FALSE;
        }
        *poContext = static_cast<TaskContextO>(oCopy);
    }
    if (oContextObject != nullptr && TaskSetContextObject(*poContext, oContextObject) != TRUE) {
        TraceMessageInline(25, 1, -1, "Failed to set task context object");
        return FALSE;
    }
    return TRUE;
}

// Fills what both bodies have.
template <class T>
void ProcFillRequest(T* oBody, const ProcTaskT& tTask) {
    ProcAddressO oService = tTask.oProcAddress;
    SecurityGetCookie(&oBody->lSecurityCookie, oService->pstrMachineName, oService->pstrProcessName,
                      TRUE);
    MsgReplaceHeld(&oBody->oProcAddress, static_cast<void*>(oService));
    oBody->pstrLocale = StrDuplicateIntoPool(tTask.pstrLocale, MemPool());
    oBody->pstrPassword = StrDuplicateIntoPool(tTask.pstrPassword, MemPool());
    oBody->bSavePassword = tTask.bSavePassword;
    MsgReplaceHeld(&oBody->oUserArguments, tTask.oUserData);
    oBody->lCookie = tTask.lCookie;
}

// The body as the target machine understands it, a new holder.
BooleanT ProcMakeRequest(void** poRequest, const ProcTaskT& tTask) {
    int32 lMajor = 0;
    if (MachInfoTLVersionMajor(&lMajor, tTask.oProcAddress->pstrMachineName) != TRUE ||
        lMajor < ProcTaskContextVersion) {
        TraceMessageInline(22, 0, 4, "Send old task out");
        auto* oOld = ObjNew<PmgrGiveServiceATaskS>(PmgrGiveServiceATaskMagic,
                                                   PmgrGiveServiceATaskDescriptor);
        if (oOld == nullptr) return FALSE;
        ProcFillRequest(oOld, tTask);
        *poRequest = oOld;
        return TRUE;
    }
    TraceMessageInline(23, 0, 4, "Send new task out");
    ObjHolder<TaskContextS> oContext;
    if (ProcTaskContextFor(oContext.Address(), tTask.oContextObject) != TRUE) return FALSE;
    TraceMessageInline(26, 0, 4, "Task context is %p", static_cast<void*>(oContext.Get()));
    auto* oNew = ObjNew<PmgrGiveServiceATaskExtS>(PmgrGiveServiceATaskExtMagic,
                                                  PmgrGiveServiceATaskExtDescriptor);
    if (oNew == nullptr) return FALSE;
    ProcFillRequest(oNew, tTask);
    oNew->oTaskContext = oContext.Take();
    *poRequest = oNew;
    return TRUE;
}

ProcErrorE ProcSendTask(const ProcTaskT& tTask) {
    if (!ProcIsSoundTask(tTask)) return eProcErrorInvalidArguments;
    ObjHolder<MsgAddressS> oManager;
    if (MsgCreateAddress(oManager.Address(), tTask.oProcAddress->pstrMachineName,
                         MsgProcessManagerId) != TRUE)
        return eProcErrorMachineUnknown;
    ObjHolder<void> oRequest;
    if (ProcMakeRequest(oRequest.Address(), tTask) != TRUE) return eProcErrorUnknown;
    if (MsgSendObject(oManager.Get(), PMGR_GIVE_SERVICE_A_TASK_MSG, oRequest.Get()) != TRUE)
        return eProcErrorTransmission;
    return eProcErrorNone;
}

void ProcReplyToSelf(const ProcTaskT& tTask, ProcErrorE eError) {
    const ObjHolder<PmgrGiveServiceATaskReturnS> oReply(ObjNew<PmgrGiveServiceATaskReturnS>(
        PmgrGiveServiceATaskReturnMagic, PmgrGiveServiceATaskReturnDescriptor));
    if (oReply.Get() == nullptr) return;
    oReply.Get()->bSuccess = FALSE;
    oReply.Get()->lErrorCode = eError;
    oReply.Get()->lCookie = tTask.lCookie;
    if (ObjHasValidGlobalMagic(tTask.oProcAddress) == TRUE)
        MsgReplaceHeld(&oReply.Get()->oProcAddress, static_cast<void*>(tTask.oProcAddress));
    MsgSendObjectToSelf(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, oReply.Get());
}

BooleanT ProcGiveTask(const ProcTaskT& tTask) {
    TraceMessageInline(20, 0, 4, "ProcGiveServiceATask");
    const ProcErrorE eError = ProcSendTask(tTask);
    if (eError == eProcErrorNone) return TRUE;
    ProcReplyToSelf(tTask, eError);
    return FALSE;
}

}  // namespace

BooleanT ProcGiveServiceATaskExt(ProcAddressO oProcAddress, const char* pstrLocale,
                                 const char* pstrPassword, BooleanT bSavePassword, void* oUserData,
                                 int32 lCookie, void* oContextObject) {
    return ProcGiveTask({oProcAddress, pstrLocale, pstrPassword, bSavePassword, oUserData, lCookie,
                         oContextObject});
}

BooleanT ProcGiveServiceATask(ProcAddressO oProcAddress, const char* pstrLocale,
                              const char* pstrPassword, BooleanT bSavePassword, void* oUserData,
                              int32 lCookie) {
    return ProcGiveTask(
        {oProcAddress, pstrLocale, pstrPassword, bSavePassword, oUserData, lCookie, nullptr});
}

BooleanT ProcGiveServiceATaskWithID(int32* plUniqueID, ProcAddressO oProcAddress,
                                    const char* pstrLocale, const char* pstrPassword,
                                    BooleanT bSavePassword, void* oUserArguments) {
    const int32 lId = glNextTaskId++;
    TraceMessageInline(21, 0, 4, "Giving task with unique id %d", lId);
    if (plUniqueID != nullptr) *plUniqueID = lId;
    return ProcGiveTask(
        {oProcAddress, pstrLocale, pstrPassword, bSavePassword, oUserArguments, lId, nullptr});
}

ProcGiveTaskArgsO ProcNewGiveTaskArgs() {
    return ObjNew<ProcGiveTaskArgsS>(ProcGiveTaskArgsMagic, ProcGiveTaskArgsDescriptor);
}

BooleanT ProcGiveServiceATaskArgs(ProcAddressO oProcAddress, ProcGiveTaskArgsO oArguments) {
    if (ObjCheckTypeInternal(oArguments, ProcGiveTaskArgsMagic) != TRUE) return FALSE;
    return ProcGiveTask({oProcAddress, oArguments->pstrLocale, oArguments->pstrPassword,
                         oArguments->bSavePassword, oArguments->oUserData, oArguments->lCookie,
                         nullptr});
}
