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

#include <chrono>
#include <csignal>
#include <vector>

#include "core/cfg.h"
#include "core/syssignal.h"
#include "manager.h"
#include "procmanager/programs.h"
#include "procmanager/table.h"
#include "procmanager/tasks.h"

namespace {

using Clock = std::chrono::steady_clock;

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

// The process that a body's address names, when it is one of this machine; else 0.
ProcIdT LocalIdOf(MsgAddressO oAddress) {
    return MsgAddressMachinesEqual(oAddress, MsgLocalAddress()) == TRUE ? MsgGetProcessId(oAddress)
                                                                        : 0;
}

// --- processes come ---

void Register(const Managed& tProcess) {
    const ObjHolder<MsgIpcConnectS> oBody(ObjNew<MsgIpcConnectS>(MsgIpcConnectMagic, "i;i;i;"));
    *oBody.Get() = {eMsgProcTypeProcess, tProcess.tId, tProcess.tRealId};
    SendTo(MsgCommunicationsManagerId, PMGR_REGISTER_PROCESS_MSG, oBody.Get());
}

void SendLocale(const Managed& tProcess) {
    if (tProcess.locale.empty()) return;
    const ObjHolder<PmgrSetLocaleS> oBody(ObjNew<PmgrSetLocaleS>(PmgrSetLocaleMagic, "s;o;"));
    oBody.Get()->pstrLocale = StrDuplicate(tProcess.locale.c_str());
    SendTo(tProcess.tId, PMGR_SET_LOCALE_MSG, oBody.Get());
}

void InitialStatus(MsgMessageO oMessage) {
    ObjHolder<PmgrProcessInitialStatusS> oBody;
    if (MsgIsFromLocalMachine(oMessage) != TRUE ||
        MsgGetObject(oBody.Address(), oMessage, PmgrProcessInitialStatusMagic) != TRUE ||
        ObjCheckTypeInternal(oBody.Get()->oLegacyStatus, PmgrProcessStatusMagic) != TRUE)
        return;
    const auto* oStatus = static_cast<PmgrProcessStatusO>(oBody.Get()->oLegacyStatus);
    const bool bAdopt = oStatus->eStatus == eProcStatusAdoptMe;
    const ProcIdT tId = bAdopt ? 0 : MsgGetProcessId(oMessage->oSource);
    Managed* ptProcess = TableFind(tId);
    if (ptProcess == nullptr && !Ends() && (bAdopt || tId > 0)) ptProcess = TableAdd(tId, "");
    if (ptProcess == nullptr) {
        if (bAdopt) ProcTerminate(oStatus->tRealProcessId);
        return;
    }
    if (bAdopt) {
        ptProcess->tRealId = oStatus->tRealProcessId;
        Register(*ptProcess);
    }
    ptProcess->bLinked = true;
    TableSetState(*ptProcess, eProcStateInitializing);
    SendLocale(*ptProcess);
    TableSendPlace(*ptProcess, oStatus->bProgress == TRUE);
}

void Status(MsgMessageO oMessage) {
    ObjHolder<PmgrProcessStatusS> oBody;
    Managed* ptProcess = SenderOf(oMessage);
    if (ptProcess == nullptr ||
        MsgGetObject(oBody.Address(), oMessage, PmgrProcessStatusMagic) != TRUE)
        return;
    switch (oBody.Get()->eStatus) {
        case eProcStatusTaskRequired:
            TableSetState(*ptProcess, eProcStateReady);
            TaskDeliver(ptProcess);
            break;
        case eProcStatusActive:
            TableSetState(*ptProcess, eProcStateBusy);
            TaskDeliver(ptProcess);
            break;
        case eProcStatusAboutToDie:
            TableSetState(*ptProcess, eProcStateDying);
            break;
        case eProcStatusRestartService:
            TableSetState(*ptProcess, eProcStateRestartService);
            break;
        default:
            break;
    }
}

// --- and go ---

void TellDied(MsgAddressO oWatcher, MsgAddressO oDead) {
    const ObjHolder<PmgrProcessDiedS> oDied(ObjNew<PmgrProcessDiedS>(PmgrProcessDiedMagic, "o;"));
    ObjIncRefCount(oDead);
    oDied.Get()->oAddress = oDead;
    MsgSendObject(oWatcher, PMGR_PROCESS_DIED_MSG, oDied.Get());
}

void Died(ProcIdT tId) {
    Managed* ptFound = TableFind(tId);
    if (ptFound == nullptr) return;
    const bool bRestart = TableState(*ptFound) == eProcStateRestartService && !Ends();
    Managed tDead = std::move(*ptFound);
    TableRemove(tId);
    const ObjHolder<MsgAddressS> oDead(LocalAddressOf(tId));
    for (const auto& [machine, tWatcher] : tDead.tWatchers) {
        const ObjHolder<MsgAddressS> oWatcher(AddressOf(machine.c_str(), tWatcher));
        TellDied(oWatcher.Get(), oDead.Get());
    }
    for (auto& [tOther, tProcess] : Table())
        tProcess.tWatchers.erase({MsgGetMachineName(MsgLocalAddress()), tId});
    TaskFailed(&tDead);
    StartOfDayDied(tId);
    if (bRestart) ServiceRestart(tDead);
}

// A child has died when both its end and that of its link have been seen.
void Dropped(MsgMessageO oMessage) {
    ObjHolder<MsgIpcConnectS> oBody;
    if (MsgIsFrom(oMessage, MsgCommMgrAddress()) != TRUE ||
        MsgGetObject(oBody.Address(), oMessage, MsgIpcConnectMagic) != TRUE)
        return;
    Managed* ptProcess = TableFind(oBody.Get()->tProcessId);
    if (ptProcess == nullptr) return;
    ptProcess->bLinked = false;
    if (!ptProcess->bChild || ptProcess->bEnded)
        Died(ptProcess->tId);
    else if (TableState(*ptProcess) != eProcStateRestartService)
        TableSetState(*ptProcess, eProcStateZombie);
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
    ObjHolder<MsgAddressS> oManager;
    ObjHolder<MsgPacketS> oPacket;
    if (MsgAddressMachinesEqual(oProcess, MsgLocalAddress()) == TRUE) return false;
    if (MsgGetMachineName(oProcess) != nullptr &&
        MsgMakeAddress(oManager.Address(), MsgGetMachineName(oProcess), MsgProcessManagerId) ==
            TRUE &&
        MsgCreatePacket(oPacket.Address(), oManager.Get(), oMessage->oSource, oMessage->tMsgType,
                        oMessage->oObject) == TRUE)
        MsgDispatch(oPacket.Address());
    return true;
}

void Watch(MsgMessageO oMessage) {
    ObjHolder<PmgrNotifyOnDeathS> oBody;
    ObjHolder<MsgAddressS> oWatcher;
    if (MsgGetObject(oBody.Address(), oMessage, PmgrNotifyOnDeathMagic) != TRUE ||
        MsgGetSender(oWatcher.Address(), oMessage) != TRUE ||
        PassOn(oMessage, oBody.Get()->oAddress))
        return;
    const ProcIdT tId = MsgGetProcessId(oBody.Get()->oAddress);
    if (Managed* ptProcess = TableFind(tId); ptProcess != nullptr)
        ptProcess->tWatchers.emplace(MsgGetMachineName(oWatcher.Get()),
                                     MsgGetProcessId(oWatcher.Get()));
    else if (tId > MsgNetworkManagerId)
        TellDied(oWatcher.Get(), oBody.Get()->oAddress);
}

void CancelWatch(MsgMessageO oMessage) {
    ObjHolder<PmgrCancelNotifyOnDeathS> oBody;
    ObjHolder<MsgAddressS> oWatcher;
    if (MsgGetObject(oBody.Address(), oMessage, PmgrCancelNotifyOnDeathMagic) != TRUE ||
        MsgGetSender(oWatcher.Address(), oMessage) != TRUE ||
        PassOn(oMessage, oBody.Get()->oAddress))
        return;
    Managed* ptProcess = TableFind(MsgGetProcessId(oBody.Get()->oAddress));
    if (ptProcess != nullptr)
        ptProcess->tWatchers.erase(
            {MsgGetMachineName(oWatcher.Get()), MsgGetProcessId(oWatcher.Get())});
}

void Kill(MsgMessageO oMessage) {
    ObjHolder<PmgrKillProcessS> oBody;
    if (MsgGetObject(oBody.Address(), oMessage, PmgrKillProcessMagic) != TRUE) return;
    const Managed* ptProcess = TableFind(LocalIdOf(oBody.Get()->oAddress));
    if (ptProcess == nullptr) return;
    if (oBody.Get()->lKillType == KillTypeAsk)
        SendTo(ptProcess->tId, PMGR_KILL_YOURSELF_MSG, nullptr);
    else if (oBody.Get()->lKillType == KillTypeTerminate)
        ProcTerminate(ptProcess->tRealId);
    else
        ProcKill(ptProcess->tRealId);
}

void SendState(MsgMessageO oMessage) {
    ObjHolder<PmgrGetProcessStateS> oBody;
    if (MsgGetObject(oBody.Address(), oMessage, PmgrGetProcessStateMagic) != TRUE) return;
    const ObjHolder<PmgrGetProcessStateReturnS> oReply(
        ObjNew<PmgrGetProcessStateReturnS>(PmgrGetProcessStateReturnMagic, "o;i;"));
    const ProcIdT tId = LocalIdOf(oBody.Get()->oAddress);
    const Managed* ptProcess = TableFind(tId);
    oReply.Get()->eState = ptProcess == nullptr ? eProcStateUnknown : TableState(*ptProcess);
    if (tId == MsgProcessManagerId) oReply.Get()->eState = eProcStateBusy;
    std::swap(oReply.Get()->oAddress, oBody.Get()->oAddress);
    MsgSendObject(oMessage->oSource, PMGR_GET_PROCESS_STATE_RETURN_MSG, oReply.Get());
}

void StartOfDayAnswer(MsgMessageO oMessage) {
    ObjHolder<PmgrStartOfDayReadyS> oBody;
    const Managed* ptProcess = SenderOf(oMessage);
    if (ptProcess != nullptr &&
        MsgGetObject(oBody.Address(), oMessage, PmgrStartOfDayReadyMagic) == TRUE)
        StartOfDayReady(ptProcess->tId, static_cast<PmgrStartOfDayReadyE>(oBody.Get()->lStatus));
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
    if (gtEnding != 0) {
        gtEnding = 0;
        return AskAll();
    }
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
    } else if ((gePhase == PhaseE::Asked && bAllGone) ||
               (gePhase == PhaseE::Killed && (bAllGone || bLate))) {
        EndTheRest();
    }
}

// --- the loop ---

void Handle(MsgMessageO oMessage) {
    switch (oMessage->tMsgType) {
        case PMGR_PROCESS_INITIAL_STATUS_MSG:
            return InitialStatus(oMessage);
        case PMGR_PROCESS_STATUS_MSG:
            return Status(oMessage);
        case PMGR_CHANGE_FROM_READY_MSG:
            if (const Managed* ptProcess = SenderOf(oMessage); ptProcess != nullptr)
                TableSetState(*ptProcess, eProcStateBusy);
            return;
        case PMGR_START_OF_DAY_READY_MSG:
            return StartOfDayAnswer(oMessage);
        case PMGR_GIVE_SERVICE_A_TASK_MSG:
            return TaskRequested(oMessage, Ends());
        case PMGR_KILL_PROCESS_MSG:
            return Kill(oMessage);
        case PMGR_NOTIFY_ON_DEATH_MSG:
            return Watch(oMessage);
        case PMGR_CANCEL_NOTIFY_ON_DEATH_MSG:
            return CancelWatch(oMessage);
        case PMGR_GET_PROCESS_STATE_MSG:
            return SendState(oMessage);
        case CMGR_DROPPED_CHANNEL_MSG:
            return Dropped(oMessage);
        case MSG_PING_MSG:
            MsgPong(oMessage);
            return;
        case PMGR_KILL_YOURSELF_MSG:
            if (MsgIsFromLocalMachine(oMessage) == TRUE) BeginEnd();
            return;
        case MSG_LOST_RECEIVE_QUEUE_MSG:  // no process can be reached any more
            gtEnding = 0;
            if (gePhase < PhaseE::Killed) KillAll();
            return;
        default:
            return;
    }
}

void Turn() {
    ObjHolder<TimeTimeoutS> oTimeout;
    ObjHolder<MsgMessageS> oMessage;
    // The signal that a child has ended may come just before the wait.
    TimeCreateAndSetTimeout(oTimeout.Address(), 0, 100);
    if (MsgReceive(oMessage.Address(), oTimeout.Get()) == TRUE &&
        oMessage.Get()->oSource != nullptr)
        Handle(oMessage.Get());
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
