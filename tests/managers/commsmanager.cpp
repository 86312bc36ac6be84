// A small communications manager. It accepts interprocess channels, learns from the first message
// of each whose it is, and delivers packets by their next hop. It tells a sender when there is no
// such process, watchers when a process has died, and everybody when a machine is down. Without a
// process manager on the machine it takes the requests to watch that are addressed to one; a
// process manager learns of each channel that goes down (CMGR_DROPPED_CHANNEL_MSG), and gives the
// processes that have connected without an id theirs (PMGR_REGISTER_PROCESS_MSG). The bodies of
// both are those by which processes connect.
//
//   commsmanager      KRHOME names the home directory; port 0 in its configuration asks for a free
//                     port, which is written there
#include <map>
#include <set>
#include <string>

#include "core/trace.h"
#include "manager.h"

namespace {

struct Link {
    int32 lChannel;
    ProcRealIdT tRealId;
};
std::map<ProcIdT, Link> gtProcesses;
std::map<ProcRealIdT, int32> gtNameless;                                  // their channels
std::map<ProcIdT, std::set<std::pair<std::string, ProcIdT>>> gtWatchers;  // of each process here

const char* ThisMachine() { return MsgGetMachineName(MsgLocalAddress()); }

// Gives the packet to the process that is its next hop.
BooleanT Deliver(ProcIdT tId, MsgPacketO* poPacket) {
    const auto tFound = gtProcesses.find(tId);
    if (tFound == gtProcesses.end()) return FALSE;
    const ObjHolder<MsgAddressS> oAddress(AddressOf(nullptr, tFound->second.lChannel));
    ObjHolder<MsgChannelS> oChannel;
    if (MsgGetChannel(oChannel.Address(), oAddress.Get()) != TRUE) return FALSE;
    return MsgChannelDispatch(oChannel.Get(), poPacket);
}

// From this manager; what is for another machine leaves through the network manager.
void Send(MsgAddressO oDestination, MsgTypeT tMsgType, void* oBody) {
    MsgPacketO oPacket = nullptr;
    if (MsgCreatePacket(&oPacket, oDestination, MsgLocalAddress(), tMsgType, oBody) != TRUE) return;
    Deliver(MsgPacketHeader(oPacket)->tMsgId, &oPacket);
    if (oPacket != nullptr) ObjRelease(&oPacket);
}

// --- processes come and go ---

void Connected(MsgPacketO oPacket) {
    ObjHolder<MsgIpcConnectS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, MsgIpcConnectMagic) != TRUE) return;
    const int32 lChannel = MsgPacketHeader(oPacket)->tDestination.tProcessId;
    const ProcRealIdT tRealId = oBody.Get()->tRealProcessId;
    if (oBody.Get()->tProcessId == 0)
        gtNameless[tRealId] = lChannel;
    else
        gtProcesses[oBody.Get()->tProcessId] = {lChannel, tRealId};
}

void TellDropped(ProcIdT tId, ProcRealIdT tRealId) {
    const ObjHolder<MsgIpcConnectS> oBody(ObjNew<MsgIpcConnectS>(MsgIpcConnectMagic, "i;i;i;"));
    const ObjHolder<MsgAddressS> oManager(AddressOf(ThisMachine(), MsgProcessManagerId));
    *oBody.Get() = {eMsgProcTypeProcess, tId, tRealId};
    Send(oManager.Get(), CMGR_DROPPED_CHANNEL_MSG, oBody.Get());
}

void Registered(MsgPacketO oPacket) {
    ObjHolder<MsgIpcConnectS> oBody;
    if (MsgPacketHeader(oPacket)->tSource.tProcessId != MsgProcessManagerId ||
        MsgObjectFromPacket(oBody.Address(), oPacket, MsgIpcConnectMagic) != TRUE)
        return;
    const auto tNameless = gtNameless.find(oBody.Get()->tRealProcessId);
    if (tNameless == gtNameless.end()) {  // it has gone meanwhile
        TellDropped(oBody.Get()->tProcessId, oBody.Get()->tRealProcessId);
        return;
    }
    gtProcesses[oBody.Get()->tProcessId] = {tNameless->second, tNameless->first};
    gtNameless.erase(tNameless);
}

void TellWatchers(ProcIdT tDead) {
    const auto tWatchers = gtWatchers.find(tDead);
    if (tWatchers == gtWatchers.end()) return;
    const ObjHolder<PmgrProcessDiedS> oDied(ObjNew<PmgrProcessDiedS>(PmgrProcessDiedMagic, "o;"));
    oDied.Get()->oAddress = AddressOf(ThisMachine(), tDead);
    for (const auto& [machine, tWatcher] : tWatchers->second) {
        const ObjHolder<MsgAddressS> oWatcher(AddressOf(machine.c_str(), tWatcher));
        Send(oWatcher.Get(), PMGR_PROCESS_DIED_MSG, oDied.Get());
    }
    gtWatchers.erase(tWatchers);
}

void Disconnected(MsgPacketO oPacket) {
    const int32 lChannel = MsgPacketHeader(oPacket)->tSource.tProcessId;
    MsgAddressO oAddress = AddressOf(nullptr, lChannel);
    MsgChannelClose(&oAddress);
    std::erase_if(gtNameless, [lChannel](const auto& t) { return t.second == lChannel; });
    for (const auto& [tId, tLink] : gtProcesses) {
        if (tLink.lChannel != lChannel) continue;
        const ProcIdT tDead = tId;
        const ProcRealIdT tRealId = tLink.tRealId;
        gtProcesses.erase(tDead);
        TellWatchers(tDead);
        TellDropped(tDead, tRealId);
        return;
    }
}

// --- packets ---

void TellUnreachable(const MsgHeaderT& tHeader) {
    ObjHolder<MsgAddressS> oSender;
    const ObjHolder<CmgrProcessUnreachableS> oBody(
        ObjNew<CmgrProcessUnreachableS>(CmgrProcessUnreachableMagic, "o;i;"));
    if (tHeader.tMsgType == CMGR_PROCESS_UNREACHABLE_MSG ||
        MsgAddressFromPacketAddress(oSender.Address(), &tHeader.tSource) != TRUE ||
        MsgAddressFromPacketAddress(&oBody.Get()->oAddress, &tHeader.tDestination) != TRUE)
        return;
    oBody.Get()->tMsgType = tHeader.tMsgType;
    Send(oSender.Get(), CMGR_PROCESS_UNREACHABLE_MSG, oBody.Get());
}

void Watch(MsgPacketO oPacket) {
    ObjHolder<PmgrNotifyOnDeathS> oBody;
    ObjHolder<MsgAddressS> oWatcher;
    const MsgPacketAddressT tSource = MsgPacketHeader(oPacket)->tSource;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, PmgrNotifyOnDeathMagic) != TRUE ||
        MsgAddressFromPacketAddress(oWatcher.Address(), &tSource) != TRUE)
        return;
    const ProcIdT tWatched = MsgGetProcessId(oBody.Get()->oAddress);
    gtWatchers[tWatched].emplace(MsgGetMachineName(oWatcher.Get()),
                                 MsgGetProcessId(oWatcher.Get()));
    if (!gtProcesses.contains(tWatched)) TellWatchers(tWatched);
}

// A notice for everybody on the machine but who brings it.
void Broadcast(MsgPacketO oPacket) {
    ObjHolder<CmgrMachineDownS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, CmgrMachineDownMagic) != TRUE) return;
    const std::map<ProcIdT, Link> tProcesses = gtProcesses;
    for (const auto& [tId, tLink] : tProcesses) {
        if (tId == MsgPacketHeader(oPacket)->tSource.tProcessId) continue;
        const ObjHolder<MsgAddressS> oProcess(AddressOf(ThisMachine(), tId));
        Send(oProcess.Get(), CMGR_MACHINE_DOWN_MSG, oBody.Get());
    }
}

void ForThisManager(MsgPacketO oPacket) {
    ObjHolder<MsgMessageS> oMessage;
    switch (MsgPacketMsgType(oPacket)) {
        case CMGR_MACHINE_DOWN_MSG:
            Broadcast(oPacket);
            break;
        case PMGR_REGISTER_PROCESS_MSG:
            Registered(oPacket);
            break;
        case MSG_PING_MSG:
            if (MsgMessageFromPacket(oMessage.Address(), oPacket) == TRUE)
                Send(oMessage.Get()->oSource, MSG_PONG_MSG, oMessage.Get()->oObject);
            break;
        default:
            break;
    }
}

// FALSE ends the manager.
bool Handle(MsgPacketO* poPacket) {
    const MsgHeaderT tHeader = *MsgPacketHeader(*poPacket);
    if (tHeader.tMsgType == MSG_IPC_CONNECT_MSG) {
        Connected(*poPacket);
    } else if (tHeader.tMsgType == MSG_CHANNEL_DOWN_MSG) {
        Disconnected(*poPacket);
    } else if (tHeader.tMsgType == MSG_FATAL_SELECT_ERROR_MSG) {
        return false;
    } else if (tHeader.tMsgId == MsgCommunicationsManagerId) {
        if (tHeader.tMsgType == PMGR_KILL_YOURSELF_MSG) return false;
        ForThisManager(*poPacket);
    } else if (tHeader.tMsgId == MsgProcessManagerId &&
               !gtProcesses.contains(MsgProcessManagerId) &&
               tHeader.tMsgType == PMGR_NOTIFY_ON_DEATH_MSG) {
        Watch(*poPacket);
    } else if (tHeader.tMsgId > 0 && Deliver(tHeader.tMsgId, poPacket) != TRUE) {
        TellUnreachable(tHeader);
    }
    return true;
}

constexpr ManagerPlaceT Place = {{"127.0.0.1", "::1"}, "configure.cfg", "Machine", "Comms TcpPort"};

}  // namespace

int main() {
    if (ManagerStart("commsmanager", MsgCommunicationsManagerId) != TRUE ||
        ManagerTakeCalls<MsgChannelCreateIpc>(Place, MsgGetCommsPort()) != TRUE)
        return 1;
    for (bool bServe = true; bServe;) {
        MsgPacketO oPacket = nullptr;
        if (MsgReceivePacket(&oPacket, nullptr) != TRUE) continue;
        bServe = Handle(&oPacket);
        if (oPacket != nullptr) ObjRelease(&oPacket);
    }
    ManagerEnd();
    return 0;
}
