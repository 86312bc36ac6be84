// A small process manager: process 1 of a machine whose communications manager serves already. It
// gives processes their ids and their places in the shared memory, starts programs, at the start of
// the day and for tasks, keeps the state of every process, tells of deaths, and ends the machine:
// first the programs of the end of the day, then every process is asked to end, and what stays is
// killed: those whose ids are their own on every machine, such as the log daemon, after all others,
// which may need them until then. The managers of the network and of communications are the last.
//
//   procmanager      KRHOME names the home directory, "Process Manager" of its "programs.cfg" a
//                    file for the keys of the shared memory. SIGTERM and PMGR_KILL_YOURSELF_MSG of
//                    this machine end it. Exit code 0, or 1 when the day could not be started.
#include <sys/wait.h>

#include <csignal>
#include <vector>

#include "core/syssignal.h"
#include "procmanager/parts.h"

namespace {

constexpr int32 KillTypeAsk = 0, KillTypeTerminate = 1;  // any other: at once

enum class PhaseE { StartOfDay, Serving, EndOfDay, Asked, Killed, Over };
PhaseE gePhase = PhaseE::StartOfDay;
Clock::time_point gtPhaseEnd;
ProcIdT gtEnding = TableFirstFreeId;  // from this id on processes are ended
int giExitCode = 0;
volatile std::sig_atomic_t giTerminate = 0;

bool Ends() { return gePhase >= PhaseE::EndOfDay; }

// The process of this machine that a message comes from; null when it is none of the table.
Managed* SenderOf(MsgMessageO oMessage) {
    return MsgIsFromLocalMachine(oMessage) == TRUE ? TableFind(MsgGetProcessId(oMessage->oSource))
                                                   : nullptr;
}

bool IsLocal(MsgAddressO oAddress) {
    return MsgAddressMachinesEqual(oAddress, MsgLocalAddress()) == TRUE;
}

// --- processes come ---

void InitialStatus(MsgMessageO oMessage, PmgrProcessInitialStatusO oBody) {
    if (MsgIsFromLocalMachine(oMessage) != TRUE ||
        ObjCheckTypeInternal(oBody->oLegacyStatus, PmgrProcessStatusMagic) != TRUE)
        return;
    const auto* oStatus = static_cast<PmgrProcessStatusO>(oBody->oLegacyStatus);
    const bool bAdopt = oStatus->eStatus == eProcStatusAdoptMe;
    ProcIdT tId = bAdopt ? 0 : MsgGetProcessId(oMessage->oSource);
    Managed* ptProcess = TableFind(tId);
    if (ptProcess == nullptr && !Ends() && (bAdopt || tId > 0)) ptProcess = TableAdd(tId, "");
    if (ptProcess == nullptr) {
        if (bAdopt) ProcTerminate(oStatus->tRealProcessId);
        return;
    }
    tId = ptProcess->tId;
    if (bAdopt) {
        ptProcess->tRealId = oStatus->tRealProcessId;
        const New<MsgIpcConnectS> oConnect(MsgIpcConnectMagic, "i;i;i;",
                                           {eMsgProcTypeProcess, tId, ptProcess->tRealId});
        SendTo(MsgCommunicationsManagerId, PMGR_REGISTER_PROCESS_MSG, oConnect.Get());
    }
    ptProcess->bLinked = true;
    TableState(*ptProcess) = eProcStateInitializing;
    if (!ptProcess->locale.empty()) {
        const New<PmgrSetLocaleS> oLocale(PmgrSetLocaleMagic, "s;o;",
                                          {StrDuplicate(ptProcess->locale.c_str()), nullptr});
        SendTo(tId, PMGR_SET_LOCALE_MSG, oLocale.Get());
    }
    TableSendPlace(*ptProcess, oStatus->bProgress == TRUE);
}

void Status(MsgMessageO oMessage, PmgrProcessStatusO oBody) {
    Managed* ptProcess = SenderOf(oMessage);
    if (ptProcess == nullptr) return;
    int32& eState = TableState(*ptProcess);
    if (oBody->eStatus == eProcStatusTaskRequired) eState = eProcStateReady;
    if (oBody->eStatus == eProcStatusActive) eState = eProcStateBusy;
    if (oBody->eStatus == eProcStatusAboutToDie) eState = eProcStateDying;
    if (oBody->eStatus == eProcStatusRestartService) eState = eProcStateRestartService;
    if (eState == eProcStateReady || eState == eProcStateBusy) TaskDeliver(ptProcess);
}

void ChangeFromReady(MsgMessageO oMessage, void* /*oBody*/) {
    if (const Managed* ptProcess = SenderOf(oMessage); ptProcess != nullptr)
        TableState(*ptProcess) = eProcStateBusy;
}

// --- and go ---

void TellDied(MsgAddressO oWatcher, ProcIdT tDead) {
    const New<PmgrProcessDiedS> oDied(PmgrProcessDiedMagic, "o;", {AddressTo(tDead).Take()});
    MsgSendObject(oWatcher, PMGR_PROCESS_DIED_MSG, oDied.Get());
}

void Died(ProcIdT tId) {
    Managed* ptFound = TableFind(tId);
    if (ptFound == nullptr) return;
    const bool bRestart = TableState(*ptFound) == eProcStateRestartService && !Ends();
    Managed tDead = std::move(*ptFound);
    TableRemove(tId);
    for (const auto& [machine, tWatcher] : tDead.tWatchers)
        TellDied(AddressTo(machine.c_str(), tWatcher).Get(), tId);
    for (auto& [tOther, tProcess] : Table()) tProcess.tWatchers.erase({ThisMachine(), tId});
    TaskFailed(&tDead);
    StartOfDayReady(tId, ePSODRError);
    if (bRestart) ServiceRestart(tDead);
}

// A child has died when both its end and that of its link have been seen.
void Dropped(MsgMessageO oMessage, MsgIpcConnectO oBody) {
    Managed* ptProcess = TableFind(oBody->tProcessId);
    if (ptProcess == nullptr || MsgIsFrom(oMessage, MsgCommMgrAddress()) != TRUE) return;
    ptProcess->bLinked = false;
    if (!ptProcess->bChild || ptProcess->bEnded)
        Died(ptProcess->tId);
    else if (TableState(*ptProcess) != eProcStateRestartService)
        TableState(*ptProcess) = eProcStateZombie;
}

void CollectChildren() {
    const bool bNoLinks = gtTlContext.sMsg.oIpcChannel == nullptr;
    std::vector<ProcIdT> tDead;
    for (auto& [tId, tProcess] : Table()) {
        if (!tProcess.bChild) continue;
        if (!tProcess.bEnded && waitpid(tProcess.tRealId, nullptr, WNOHANG) == tProcess.tRealId) {
            tProcess.bEnded = true;
            tProcess.tRealId = -1;  // may be another process's from now on
        }
        if (tProcess.bEnded && (bNoLinks || !tProcess.bLinked)) tDead.push_back(tId);
    }
    for (const ProcIdT tId : tDead) Died(tId);
}

// --- requests ---

// A request about a process of another machine goes to the manager there; its answer comes from
// there.
bool PassOn(MsgMessageO oMessage, MsgAddressO oProcess) {
    const AddressTo oManager(MsgGetMachineName(oProcess), MsgProcessManagerId);
    ObjHolder<MsgPacketS> oPacket;
    if (IsLocal(oProcess)) return false;
    if (MsgGetMachineName(oProcess) != nullptr &&
        MsgCreatePacket(oPacket.Address(), oManager.Get(), oMessage->oSource, oMessage->tMsgType,
                        oMessage->oObject) == TRUE)
        MsgDispatch(oPacket.Address());
    return true;
}

// Both bodies begin with the address of the process.
void Watch(MsgMessageO oMessage, PmgrNotifyOnDeathO oBody) {
    ObjHolder<MsgAddressS> oWatcher;
    const ProcIdT tId = MsgGetProcessId(oBody->oAddress);
    Managed* ptProcess = TableFind(tId);
    if (MsgGetSender(oWatcher.Address(), oMessage) != TRUE || PassOn(oMessage, oBody->oAddress))
        return;
    if (oMessage->tMsgType == PMGR_NOTIFY_ON_DEATH_MSG && ptProcess != nullptr)
        ptProcess->tWatchers.insert(WatcherOf(oWatcher.Get()));
    else if (oMessage->tMsgType == PMGR_NOTIFY_ON_DEATH_MSG && tId > MsgNetworkManagerId)
        TellDied(oWatcher.Get(), tId);
    else if (ptProcess != nullptr)
        ptProcess->tWatchers.erase(WatcherOf(oWatcher.Get()));
}

void Kill(MsgMessageO /*oMessage*/, PmgrKillProcessO oBody) {
    const Managed* ptProcess = TableFind(MsgGetProcessId(oBody->oAddress));
    if (ptProcess == nullptr || !IsLocal(oBody->oAddress)) return;
    if (oBody->lKillType == KillTypeAsk)
        SendTo(ptProcess->tId, PMGR_KILL_YOURSELF_MSG, nullptr);
    else if (oBody->lKillType == KillTypeTerminate)
        ProcTerminate(ptProcess->tRealId);
    else
        ProcKill(ptProcess->tRealId);
}

void SendState(MsgMessageO oMessage, PmgrGetProcessStateO oBody) {
    const ProcIdT tId = IsLocal(oBody->oAddress) ? MsgGetProcessId(oBody->oAddress) : 0;
    const Managed* ptProcess = TableFind(tId);
    const New<PmgrGetProcessStateReturnS> oReply(
        PmgrGetProcessStateReturnMagic, "o;i;",
        {std::exchange(oBody->oAddress, nullptr),
         ptProcess == nullptr ? eProcStateUnknown : TableState(*ptProcess)});
    if (tId == MsgProcessManagerId) oReply.Get()->eState = eProcStateBusy;
    MsgSendObject(oMessage->oSource, PMGR_GET_PROCESS_STATE_RETURN_MSG, oReply.Get());
}

void StartOfDayAnswer(MsgMessageO oMessage, PmgrStartOfDayReadyO oBody) {
    if (const Managed* ptProcess = SenderOf(oMessage); ptProcess != nullptr)
        StartOfDayReady(ptProcess->tId, static_cast<PmgrStartOfDayReadyE>(oBody->lStatus));
}

// --- the end ---

void BeginEnd() {
    if (!Ends()) gePhase = PhaseE::EndOfDay;
}

void Enter(PhaseE ePhase, int32 lSeconds) {
    gePhase = ePhase;
    gtPhaseEnd = Clock::now() + std::chrono::seconds(lSeconds);
}

void AskAll() {
    int32 lSeconds = 10;
    CfgGetInteger(&lSeconds, "procmgr.cfg", "Shutdown", "Wait", lSeconds);
    for (const auto& [tId, tProcess] : Table())
        if (tId >= gtEnding) SendTo(tId, PMGR_KILL_YOURSELF_MSG, nullptr);
    Enter(PhaseE::Asked, lSeconds);
}

void KillAll() {
    for (const auto& [tId, tProcess] : Table())
        if (tId >= gtEnding) ProcKill(tProcess.tRealId);
    Enter(PhaseE::Killed, 10);
}

void EndTheRest() {
    if (std::exchange(gtEnding, 0) != 0) return AskAll();
    SendTo(MsgNetworkManagerId, PMGR_KILL_YOURSELF_MSG, nullptr);
    SendTo(MsgCommunicationsManagerId, PMGR_KILL_YOURSELF_MSG, nullptr);
    gePhase = PhaseE::Over;
}

void Step() {
    const bool bAllGone = Table().lower_bound(gtEnding) == Table().end();
    const bool bLate = Clock::now() >= gtPhaseEnd;
    if (gePhase == PhaseE::StartOfDay) {
        const DayE eDay = StartOfDayStep();
        if (eDay == DayE::GoesOn) return;
        gePhase = eDay == DayE::Done ? PhaseE::Serving : PhaseE::EndOfDay;
        giExitCode = eDay == DayE::Done ? 0 : 1;
        if (eDay == DayE::Done) ManagerReady(0);
    } else if (gePhase == PhaseE::EndOfDay) {
        if (EndOfDayStep() == DayE::Done) AskAll();
    } else if (gePhase == PhaseE::Asked && !bAllGone && bLate) {
        KillAll();
    } else if (gePhase >= PhaseE::Asked && (bAllGone || bLate)) {
        EndTheRest();
    }
}

// --- the loop ---

void Ping(MsgMessageO oMessage, void* /*oBody*/) { MsgPong(oMessage); }

void EndAsked(MsgMessageO oMessage, void* /*oBody*/) {
    if (MsgIsFromLocalMachine(oMessage) == TRUE) BeginEnd();
}

// No process can be reached any more.
void LinkLost(MsgMessageO /*oMessage*/, void* /*oBody*/) {
    gtEnding = 0;
    if (gePhase < PhaseE::Killed) KillAll();
}

void Task(MsgMessageO oMessage, void* /*oBody*/) { TaskRequested(oMessage, Ends()); }

constexpr ManagerHandlerT Handlers[] = {
    {PMGR_PROCESS_INITIAL_STATUS_MSG, PmgrProcessInitialStatusMagic,
     With<PmgrProcessInitialStatusS, InitialStatus>},
    {PMGR_PROCESS_STATUS_MSG, PmgrProcessStatusMagic, With<PmgrProcessStatusS, Status>},
    {PMGR_CHANGE_FROM_READY_MSG, 0, ChangeFromReady},
    {PMGR_START_OF_DAY_READY_MSG, PmgrStartOfDayReadyMagic,
     With<PmgrStartOfDayReadyS, StartOfDayAnswer>},
    {PMGR_GIVE_SERVICE_A_TASK_MSG, 0, Task},
    {PMGR_KILL_PROCESS_MSG, PmgrKillProcessMagic, With<PmgrKillProcessS, Kill>},
    {PMGR_NOTIFY_ON_DEATH_MSG, PmgrNotifyOnDeathMagic, With<PmgrNotifyOnDeathS, Watch>},
    {PMGR_CANCEL_NOTIFY_ON_DEATH_MSG, PmgrCancelNotifyOnDeathMagic,
     With<PmgrNotifyOnDeathS, Watch>},
    {PMGR_GET_PROCESS_STATE_MSG, PmgrGetProcessStateMagic, With<PmgrGetProcessStateS, SendState>},
    {CMGR_DROPPED_CHANNEL_MSG, MsgIpcConnectMagic, With<MsgIpcConnectS, Dropped>},
    {MSG_PING_MSG, 0, Ping},
    {PMGR_KILL_YOURSELF_MSG, 0, EndAsked},
    {MSG_LOST_RECEIVE_QUEUE_MSG, 0, LinkLost},
};

void Turn() {
    ObjHolder<TimeTimeoutS> oTimeout;
    ObjHolder<MsgMessageS> oMessage;
    // The signal that a child has ended may come just before the wait.
    TimeCreateAndSetTimeout(oTimeout.Address(), 0, 100);
    if (MsgReceive(oMessage.Address(), oTimeout.Get()) == TRUE &&
        oMessage.Get()->oSource != nullptr)
        ManagerHandle(Handlers, oMessage.Get());
    CollectChildren();
    if (giTerminate != 0) BeginEnd();
    Step();
}

}  // namespace

int main() {
    // So that segments of an earlier manager go before this one's are made.
    gtTlContext.sProcess.tId = MsgProcessManagerId;
    if (ManagerStart("procmanager", MsgProcessManagerId) != TRUE) return 1;
    if (ProcPmgrIsRunning(TRUE) == TRUE || TableCreate() != TRUE) {
        std::fprintf(stderr, "procmanager: another one runs, or there is no shared memory\n");
        return 1;
    }
    SigSet(SIGTERM, [](int) { giTerminate = 1; });
    SigSet(SIGCHLD, [](int) {});
    while (gePhase != PhaseE::Over) Turn();
    // The last words leave before the link does.
    for (int i = 0; i < 100 && gtTlContext.sMsg.oIpcChannel != nullptr; i++)
        MsgPendingWithTimeout(100);
    ManagerEnd();
    return giExitCode;
}
