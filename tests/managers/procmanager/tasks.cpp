#include "core/security.h"
#include "core/strbase.h"
#include "parts.h"

namespace {

// The two forms of a request begin alike.
static_assert(offsetof(PmgrGiveServiceATaskS, lCookie) ==
              offsetof(PmgrGiveServiceATaskExtS, lCookie));

struct Request {
    PmgrGiveServiceATaskO oTask = nullptr;         // null: what came is no task
    PmgrGiveServiceATaskExtO oExtended = nullptr;  // null in the old form
    ProcAddressO oService = nullptr;               // null: it names no service

    explicit Request(MsgMessageO oMessage) {
        void* oBody = oMessage->oObject;
        if (ObjCheckTypeInternal(oBody, PmgrGiveServiceATaskExtMagic) == TRUE)
            oExtended = static_cast<PmgrGiveServiceATaskExtO>(oBody);
        if (oExtended != nullptr || ObjCheckTypeInternal(oBody, PmgrGiveServiceATaskMagic) == TRUE)
            oTask = static_cast<PmgrGiveServiceATaskO>(oBody);
        if (oTask != nullptr && ObjCheckTypeInternal(oTask->oProcAddress, ProcAddressMagic) == TRUE)
            oService = static_cast<ProcAddressO>(oTask->oProcAddress);
        if (oService != nullptr && oService->pstrProcessName == nullptr) oService = nullptr;
    }
};

template <class T>
T* Held(T* oObject) {
    if (oObject != nullptr) ObjIncRefCount(oObject);
    return oObject;
}

void Answer(MsgMessageO oMessage, ProcErrorE eError, const Managed* ptProcess) {
    const Request tRequest(oMessage);
    const ObjHolder<PmgrGiveServiceATaskReturnS> oAnswer(
        ObjNew<PmgrGiveServiceATaskReturnS>(PmgrGiveServiceATaskReturnMagic, "b;i;o;i;b;i;o;"));
    oAnswer.Get()->bSuccess = BooleanFrom(eError == eProcErrorNone);
    oAnswer.Get()->lErrorCode = eError;
    if (ptProcess != nullptr) oAnswer.Get()->oAddress = AddressTo(ptProcess->tId).Take();
    if (tRequest.oTask != nullptr) {
        oAnswer.Get()->lCookie = tRequest.oTask->lCookie;
        oAnswer.Get()->bSavePassword = tRequest.oTask->bSavePassword;
        oAnswer.Get()->oProcAddress = Held(tRequest.oTask->oProcAddress);
    }
    MsgSendObject(oMessage->oSource, PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, oAnswer.Get());
}

// --- what the service asks of a request ---

bool CookieIsRight(MsgMessageO oMessage, const Request& tRequest) {
    ObjHolder<MsgAddressS> oSender;
    int32 lExpected = SecurityNoCookie;
    if (MsgGetSender(oSender.Address(), oMessage) != TRUE) return false;
    return SecurityGetCookie(&lExpected, oSender.Get()->pstrMachineName,
                             tRequest.oService->pstrProcessName, FALSE) == TRUE &&
           (SecurityIsOff() == TRUE || tRequest.oTask->lSecurityCookie == lExpected);
}

ProcErrorE Check(MsgMessageO oMessage, const Request& tRequest, bool bEnding) {
    if (bEnding) return eProcErrorShutdown;
    if (tRequest.oService == nullptr) return eProcErrorInvalidArguments;
    const char* pstrService = tRequest.oService->pstrProcessName;
    if (!CookieIsRight(oMessage, tRequest)) return eProcErrorSecurity;
    if (Setting("services.cfg", pstrService, "Program").empty()) return eProcErrorUnresolvedName;
    int32 lInterface = tRequest.oService->lInterfaceType;
    CfgGetInteger(&lInterface, "services.cfg", pstrService, "Interface", lInterface);
    if (lInterface != tRequest.oService->lInterfaceType) return eProcErrorUnsupportedInterface;
    const std::string password = Setting("services.cfg", pstrService, "Password");
    const char* pstrGiven = tRequest.oTask->pstrPassword;
    if (!password.empty() && (pstrGiven == nullptr || password != pstrGiven))
        return eProcErrorPassword;
    return eProcErrorNone;
}

// --- the process that gets it ---

// A process of the service, in that state or in any.
Managed* FindService(const char* pstrService, bool bReady) {
    for (auto& [tId, tProcess] : Table()) {
        if (tProcess.bService && StrCompareNoCase(tProcess.title.c_str(), pstrService) == 0 &&
            (!bReady || (TableState(tProcess) == eProcStateReady && tProcess.tTask == nullptr)))
            return &tProcess;
    }
    return nullptr;
}

// A new process of the service; null on failure, with the code of the error.
Managed* StartService(const std::string& service, ProcErrorE* peError) {
    Managed* ptProcess =
        ProgramStart(Setting("services.cfg", service, "Program"), service, peError);
    if (ptProcess != nullptr) ptProcess->bService = true;
    return ptProcess;
}

ProcErrorE StartForTask(Managed** pptProcess, const Request& tRequest) {
    const char* pstrService = tRequest.oService->pstrProcessName;
    ProcErrorE eError = eProcErrorNone;
    BooleanT bOnce = FALSE;
    CfgGetBoolean(&bOnce, "services.cfg", pstrService, "Once", FALSE);
    if (bOnce == TRUE && FindService(pstrService, false) != nullptr)
        return eProcErrorAlreadyRunning;
    *pptProcess = StartService(pstrService, &eError);
    if (*pptProcess != nullptr && tRequest.oTask->pstrLocale != nullptr)
        (*pptProcess)->locale = tRequest.oTask->pstrLocale;
    return eError;
}

}  // namespace

void TaskRequested(MsgMessageO oRequest, bool bEnding) {
    const Request tRequest(oRequest);
    Managed* ptProcess = nullptr;
    ProcErrorE eError = Check(oRequest, tRequest, bEnding);
    if (eError == eProcErrorNone) ptProcess = FindService(tRequest.oService->pstrProcessName, true);
    const bool bWaits = ptProcess != nullptr;
    if (eError == eProcErrorNone && !bWaits) eError = StartForTask(&ptProcess, tRequest);
    if (eError != eProcErrorNone) return Answer(oRequest, eError, nullptr);
    ptProcess->tTask = HeldMessage(Held(oRequest));
    if (bWaits) TaskDeliver(ptProcess);
}

void TaskDeliver(Managed* ptProcess) {
    const HeldMessage tMessage = std::move(ptProcess->tTask);
    if (tMessage == nullptr) return;
    const Request tRequest(tMessage.get());
    PmgrTaskS tTask = {Held(tMessage->oSource), tRequest.oService->lInterfaceType,
                       Held(tRequest.oTask->oUserArguments), tRequest.oTask->lCookie};
    if (tRequest.oExtended == nullptr) {
        const New<PmgrTaskS> oTask(PmgrTaskMagic, "o;i;o;i;", tTask);
        SendTo(ptProcess->tId, PMGR_TASK_MSG, oTask.Get());
    } else {
        const New<PmgrTaskExtS> oTask(
            PmgrTaskExtMagic, "o;i;o;i;o;o;",
            {tTask.oSource, tTask.lInterfaceType, tTask.oUserArguments, tTask.lCookie,
             Held(tRequest.oExtended->oTaskContext), nullptr});
        SendTo(ptProcess->tId, PMGR_TASK_MSG, oTask.Get());
    }
    TableState(*ptProcess) = eProcStateBusy;
    Answer(tMessage.get(), eProcErrorNone, ptProcess);
}

void TaskFailed(Managed* ptProcess) {
    if (const HeldMessage tMessage = std::move(ptProcess->tTask); tMessage != nullptr)
        Answer(tMessage.get(), eProcErrorStartingProcess, nullptr);
}

void ServiceRestart(const Managed& tProcess) {
    ProcErrorE eError = eProcErrorNone;
    if (tProcess.bService) StartService(tProcess.title, &eError);
}
