// A service of the machine, and what else belongs to its day: one program under several names.
//
//   service ID            started by the process manager: for a task, or as a program of the day
//   service own NAME      started by hand: the process manager adopts it
//
// A service traces as many lines as a task says, into its ring in the shared memory and into trace
// files; it logs, keeps its count in the configuration of the client that the task is done for, and
// says after a while ("Rest" of its section in "programs.cfg": milliseconds) that it has done the
// work and waits for more. It ends when it is told to, by message or by SIGTERM, and logs that.
#include <cstdlib>
#include <cstring>

#include "core/cfg.h"
#include "core/timer.h"
#include "machine.h"

TRACE_MODULE("SERVICE")

namespace {

int32 glLines = 0;              // traced so far
MsgAddressO goAsker = nullptr;  // of the task that is being done
bool gbOwn = false;             // nobody gives tasks to a service that was started by hand

void SetTitle(const char* pstrState) {
    char acTitle[80];
    std::snprintf(acTitle, sizeof(acTitle), "%s: %s", ProcName(), pstrState);
    ProcSetTitle(acTitle);
}

// --- the end, however it comes ---

void Ended(void* /*pArgument*/, int32 lExitCode) {
    TraceMessageInline(1, 0, 0, "ends with code %d", lExitCode);
    LogMessage(LogEnded, eLogLevelInformation, nullptr, "%s ends with code %d after %d lines",
               ProcName(), lExitCode, glLines);
    if (goAsker != nullptr) ObjRelease(&goAsker);
}

// --- work ---

void TraceLines(int32 lCount) {
    for (int32 lLine = 0; lLine < lCount; lLine++)
        TraceMessageInline(2, 0, 0, "%s traces line %06d", ProcName(), glLines++);
}

// FALSE when what has been written cannot be read again.
BooleanT KeepCount() {
    int32 lKept = -1;
    CfgSetInteger(CountsFile, ProcName(), CountsKey, glLines);
    CfgGetInteger(&lKept, CountsFile, ProcName(), CountsKey, -1);
    return BooleanFrom(lKept == glLines);
}

void Rested(void* /*pCookie*/) {
    SetTitle("waits");
    if (gbOwn) return;
    const ObjHolder<ObjIntegerS> oLines(ObjIntegerNew(glLines));
    ProcSendStatus(eProcStatusTaskRequired);
    MsgSendObject(goAsker, WorkDoneType, oLines.Get());
    ObjRelease(&goAsker);
}

BooleanT Work(int32 lCount) {
    int32 lRest = 0;
    ObjHolder<TimeOffsetS> oRest;
    SetTitle("traces");
    TraceLines(lCount);
    if (KeepCount() != TRUE) {
        TraceMessageInline(3, 1, -1, "The count has not been kept");
        return FALSE;
    }
    LogMessage(LogWorked, eLogLevelJobMessage, nullptr, "%s has traced %d lines", ProcName(),
               lCount);
    SetTitle("rests");
    CfgGetInteger(&lRest, "programs.cfg", ProcName(), "Rest", 100);
    return BooleanFrom(TimeCreateOffset(oRest.Address(), lRest / 1000, lRest % 1000) == TRUE &&
                       TimrSetAlarmRelative(Rested, nullptr, oRest.Get()) == TRUE);
}

MsgWaitResultE TakeTask(MsgMessageO oMessage, void* /*oCookie*/) {
    ObjHolder<PmgrTaskS> oTask;
    if (MsgGetObject(oTask.Address(), oMessage, PmgrTaskMagic) != TRUE || goAsker != nullptr ||
        ObjCheckTypeInternal(oTask.Get()->oUserArguments, ObjIntegerMagic) != TRUE)
        return eMsgWaitResultNotHandled;
    std::swap(goAsker, oTask.Get()->oSource);
    const int32 lCount = ObjGetInteger(static_cast<ObjIntegerO>(oTask.Get()->oUserArguments));
    if (Work(lCount) != TRUE) ProcCleanup(EXIT_FAILURE);
    return eMsgWaitResultHandled;
}

MsgWaitResultE TellHowMany(MsgMessageO oMessage, void* /*oCookie*/) {
    const ObjHolder<ObjIntegerS> oLines(ObjIntegerNew(glLines));
    MsgSendReply(oMessage, ThatManyType, oLines.Get());
    return eMsgWaitResultHandled;
}

// --- the start ---

// Others find a service by the id in "running.cfg".
void Introduce() {
    LogSetClass(ProcName());
    LogLocally();
    CfgSetInteger(RunningFile, ProcName(), RunningKey, ProcGetId());
}

// Its name is the title that the process manager has given it, unless it brings one. The section of
// that name in "programs.cfg" says into which file it traces, and how much.
BooleanT Join(const char* pstrId, const char* pstrName) {
    ProcInitializeArgsO oArguments = ProcNewInitializeArgs();
    if (oArguments == nullptr) return FALSE;
    oArguments->bWaitForTask = BooleanFrom(pstrId != nullptr);
    if (pstrId != nullptr) oArguments->pstrProcId = StrDuplicate(pstrId);
    if (pstrName != nullptr) oArguments->pstrName = StrDuplicate(pstrName);
    if (ProcInitializeArgs(&oArguments) != TRUE) return FALSE;
    Introduce();
    return TRUE;
}

void OpenTheDay() {
    LogMessage(LogStarted, eLogLevelStartup, nullptr, "The day begins");
    ProcSendSODReady(ePSODROKButWantToDie);
    ProcCleanup(0);
}

void CloseTheDay() {
    LogMessage(LogDayIsOver, eLogLevelInformation, nullptr, "The day is over");
    ProcCleanup(0);
}

}  // namespace

int main(int argc, char** argv) {
    gbOwn = argc > 2;
    if (argc < 2 || Join(gbOwn ? nullptr : argv[1], gbOwn ? argv[2] : nullptr) != TRUE) return 1;
    if (std::strcmp(ProcName(), "Opening") == 0) OpenTheDay();
    if (std::strcmp(ProcName(), "Closing") == 0) CloseTheDay();
    ProcAddCleanupRoutine(Ended, nullptr);
    MsgWaitAddHandler(PMGR_TASK_MSG, TakeTask, nullptr);
    MsgWaitAddHandler(HowManyType, TellHowMany, nullptr);
    SetTitle("waits");
    if (gbOwn && Work(100) != TRUE) ProcCleanup(EXIT_FAILURE);
    while (MsgWaitPollWithTimeout(nullptr) == TRUE) {
    }
    ProcCleanup(EXIT_FAILURE);
}
