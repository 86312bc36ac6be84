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
#include <algorithm>
#include <map>

#include "core/trace.h"
#include "manager.h"

namespace {

struct Link {
    int32 lChannel;
    ProcRealIdT tRealId;
};
std::map<ProcIdT, Link> gtProcesses;
std::map<ProcRealIdT, int32> gtNameless;  // their channels
std::map<ProcIdT, WatchersT> gtWatchers;  // of each process here

// Gives the packet to the process that is its next hop.
BooleanT Deliver(ProcIdT tId, MsgPacketO* poPacket) {
    const auto tFound = gtProcesses.find(tId);
    if (tFound == gtProcesses.end()) return FALSE;
    const AddressTo oAddress(nullptr, tFound->second.lChannel);
    ObjHolder<MsgChannelS> oChannel;
    if (MsgGetChannel(oChannel.Address(), oAddress.Get()) != TRUE) return FALSE;
    return MsgChannelDispatch(oChannel.Get(), poPacket);
}

// From this manager; what is for another machine leaves through the network manager.
void Send(MsgAddressO oDestination, MsgTypeT tMsgType, void* oBody) {
    ObjHolder<MsgPacketS> oPacket;
    if (MsgCreatePacket(oPacket.Address(), oDestination, MsgLocalAddress(), tMsgType, oBody) ==
        TRUE)
        Deliver(MsgPacketHeader(oPacket.Get())->tMsgId, oPacket.Address());
}

// --- processes come and go ---

void Connected(MsgMessageO oMessage, MsgIpcConnectO oBody) {
    const int32 lChannel = MsgGetChannelId(oMessage->oDestination);
    if (oBody->tProcessId == 0)
        gtNameless[oBody->tRealProcessId] = lChannel;
    else
        gtProcesses[oBody->tProcessId] = {lChannel, oBody->tRealProcessId};
}

void TellDropped(ProcIdT tId, ProcRealIdT tRealId) {
    const New<MsgIpcConnectS> oBody(MsgIpcConnectMagic, "i;i;i;",
                                    {eMsgProcTypeProcess, tId, tRealId});
    Send(AddressTo(MsgProcessManagerId).Get(), CMGR_DROPPED_CHANNEL_MSG, oBody.Get());
}

void Registered(MsgMessageO oMessage, MsgIpcConnectO oBody) {
    if (MsgIsFrom(oMessage, MsgProcMgrAddress()) != TRUE) return;
    const auto tNameless = gtNameless.find(oBody->tRealProcessId);
    if (tNameless == gtNameless.end())  // it has gone meanwhile
        return TellDropped(oBody->tProcessId, oBody->tRealProcessId);
    gtProcesses[oBody->tProcessId] = {tNameless->second, tNameless->first};
    gtNameless.erase(tNameless);
}

void TellWatchers(ProcIdT tDead) {
    const New<PmgrProcessDiedS> oDied(PmgrProcessDiedMagic, "o;", {AddressTo(tDead).Take()});
    for (const auto& [machine, tWatcher] : gtWatchers[tDead])
        Send(AddressTo(machine.c_str(), tWatcher).Get(), PMGR_PROCESS_DIED_MSG, oDied.Get());
    gtWatchers.erase(tDead);
}

void Disconnected(MsgMessageO oMessage, void* /*oBody*/) {
    const int32 lChannel = MsgGetChannelId(oMessage->oSource);
    AddressTo oAddress(nullptr, lChannel);
    MsgChannelClose(oAddress.Address());
    std::erase_if(gtNameless, [lChannel](const auto& t) { return t.second == lChannel; });
    const auto tFound = std::ranges::find_if(
        gtProcesses, [lChannel](const auto& t) { return t.second.lChannel == lChannel; });
    if (tFound == gtProcesses.end()) return;
    const auto [tDead, tLink] = *tFound;
    gtProcesses.erase(tFound);
    TellWatchers(tDead);
    TellDropped(tDead, tLink.tRealId);
}

// --- packets ---

void TellUnreachable(const MsgHeaderT& tHeader) {
    ObjHolder<MsgAddressS> oSender;
    const New<CmgrProcessUnreachableS> oBody(CmgrProcessUnreachableMagic, "o;i;",
                                             {nullptr, tHeader.tMsgType});
    if (tHeader.tMsgType != CMGR_PROCESS_UNREACHABLE_MSG &&
        MsgAddressFromPacketAddress(oSender.Address(), &tHeader.tSource) == TRUE &&
        MsgAddressFromPacketAddress(&oBody.Get()->oAddress, &tHeader.tDestination) == TRUE)
        Send(oSender.Get(), CMGR_PROCESS_UNREACHABLE_MSG, oBody.Get());
}

void Watch(MsgMessageO oMessage, PmgrNotifyOnDeathO oBody) {
    const ProcIdT tWatched = MsgGetProcessId(oBody->oAddress);
    gtWatchers[tWatched].insert(WatcherOf(oMessage->oSource));
    if (!gtProcesses.contains(tWatched)) TellWatchers(tWatched);
}

// A notice for everybody on the machine but who brings it.
void Broadcast(MsgMessageO oMessage, void* oBody) {
    const std::map<ProcIdT, Link> tProcesses = gtProcesses;
    for (const auto& [tId, tLink] : tProcesses)
        if (tId != MsgGetProcessId(oMessage->oSource))
            Send(AddressTo(tId).Get(), CMGR_MACHINE_DOWN_MSG, oBody);
}

void Ping(MsgMessageO oMessage, void* oBody) { Send(oMessage->oSource, MSG_PONG_MSG, oBody); }

bool gbServe = true;
void End(MsgMessageO /*oMessage*/, void* /*oBody*/) { gbServe = false; }

constexpr ManagerHandlerT OfLinks[] = {
    {MSG_IPC_CONNECT_MSG, MsgIpcConnectMagic, With<MsgIpcConnectS, Connected>},
    {MSG_CHANNEL_DOWN_MSG, 0, Disconnected},
    {MSG_FATAL_SELECT_ERROR_MSG, 0, End},
};
constexpr ManagerHandlerT ForThisManager[] = {
    {PMGR_KILL_YOURSELF_MSG, 0, End},
    {CMGR_MACHINE_DOWN_MSG, CmgrMachineDownMagic, Broadcast},
    {PMGR_REGISTER_PROCESS_MSG, MsgIpcConnectMagic, With<MsgIpcConnectS, Registered>},
    {MSG_PING_MSG, 0, Ping},
    {PMGR_NOTIFY_ON_DEATH_MSG, PmgrNotifyOnDeathMagic, With<PmgrNotifyOnDeathS, Watch>},
};

void Handle(MsgPacketO* poPacket) {
    const MsgHeaderT tHeader = *MsgPacketHeader(*poPacket);
    const bool bOfLink = std::ranges::count(OfLinks, tHeader.tMsgType, &ManagerHandlerT::tMsgType);
    const bool bWatch = tHeader.tMsgId == MsgProcessManagerId &&
                        tHeader.tMsgType == PMGR_NOTIFY_ON_DEATH_MSG &&
                        !gtProcesses.contains(MsgProcessManagerId);
    if (bOfLink || bWatch || tHeader.tMsgId == MsgCommunicationsManagerId) {
        ObjHolder<MsgMessageS> oMessage;
        if (MsgMessageFromPacket(oMessage.Address(), *poPacket) != TRUE ||
            oMessage.Get()->oSource == nullptr)
            return;
        if (bOfLink)
            ManagerHandle(OfLinks, oMessage.Get());
        else
            ManagerHandle(ForThisManager, oMessage.Get());
    } else if (tHeader.tMsgId > 0 && Deliver(tHeader.tMsgId, poPacket) != TRUE) {
        TellUnreachable(tHeader);
    }
}

constexpr ManagerPlaceT Place = {{"127.0.0.1", "::1"}, "configure.cfg", "Machine", "Comms TcpPort"};

}  // namespace

int main() {
    if (ManagerStart("commsmanager", MsgCommunicationsManagerId) != TRUE ||
        ManagerTakeCalls<MsgChannelCreateIpc>(Place, MsgGetCommsPort()) != TRUE)
        return 1;
    while (gbServe) {
        ObjHolder<MsgPacketS> oPacket;
        if (MsgReceivePacket(oPacket.Address(), nullptr) == TRUE) Handle(oPacket.Address());
    }
    ManagerEnd();
    return 0;
}
