// A small network manager. What processes of this machine send to other machines comes to it
// through the communications manager; it carries that over one link per machine, which it makes
// when there is something to carry, and gives what comes over links to the communications manager.
//
// A packet travels as a message, which names machines, because their numbers differ from machine to
// machine; the first message on a link names the one that has called. Two managers that call each
// other at the same moment have two links then: each sends on the one that it had first and reads
// both. When the link that it sends on goes down, the other machine counts as down.
//
//   netmanager      KRHOME names the home directory; "Manager Port" of "Network" in "tlnmgr.cfg" is
//                   the port to listen on (0: a free one, which is written there), "Manager Port"
//                   of a stanza in "etc/machines.dat" that of the machine

#include <cstdint>
#include <map>

#include "core/machineinfo.h"
#include "core/memory.h"
#include "core/msgwait.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stnzfile.h"
#include "core/stnzwrappers.h"
#include "core/timer.h"
#include "manager.h"

namespace {

constexpr MsgTypeT LinkNameType = 7101, LinkMessageType = 7102;
constexpr int32 AddressSeconds = 2;  // that an address has to answer

struct OtherMachine {
    ObjHolder<ListS> oWaiting{ListNew(MsgMessageMagic)};  // for a link, in order
    int32 lLink = 0;              // the channel that is sent on; 0 without one
    intptr_t lAttempt = 0;        // the call that is being made; 0: none
    ObjHolder<ListS> oAddresses;  // that have not been called yet
};

std::map<std::string, OtherMachine> gtMachines;  // by name, as the machine file writes it
std::map<int32, std::string> gtLinks;            // machine of each link; "" before it is known
std::map<intptr_t, std::string> gtAttempts;      // machine that is called, by number of the call

// --- notices ---

// To the sender of a message that cannot be carried, with what was in it.
void TellUnreachable(const std::string& machine, MsgMessageO oMessage) {
    const New<NmgrMachineUnreachableS> oBody(
        NmgrMachineUnreachableMagic, "s;i;o;",
        {StrDuplicate(machine.c_str()), oMessage->tMsgType, nullptr});
    const AddressTo oManager(machine.c_str(), MsgNetworkManagerId);
    ObjHolder<MsgPacketS> oPacket;
    MsgGetObject(&oBody.Get()->oUndelivered, oMessage, 0);
    if (MsgCreatePacket(oPacket.Address(), oMessage->oSource, oManager.Get(),
                        NMGR_MACHINE_UNREACHABLE_MSG, oBody.Get()) == TRUE)
        MsgDispatch(oPacket.Address());
}

void TellMachineDown(const std::string& machine) {
    const New<CmgrMachineDownS> oBody(CmgrMachineDownMagic, "s;", {StrDuplicate(machine.c_str())});
    MsgSendObject(MsgCommMgrAddress(), CMGR_MACHINE_DOWN_MSG, oBody.Get());
}

// --- calling another machine ---

int32 PortOf(const std::string& machine) {
    const PoolPtr<char> pstrPath(PathHomeBuild("etc", "machines.dat", nullptr));
    StnzT* pStanza = nullptr;
    int32 lPort = 0;
    if (StnzLoadStanzaFromFile(&pStanza, pstrPath.Get(), nullptr, machine.c_str()) == TRUE)
        StnzGetInteger(pStanza, "Manager Port", 0, &lPort);
    StnzRelease(&pStanza);
    return lPort;
}

// Gives everything that waits to a function, in order.
template <class GiveT>
void EmptyWaiting(OtherMachine* ptMachine, GiveT fnGive) {
    ObjHolder<MsgMessageS> oMessage;
    while (ListPopFirstItem(ptMachine->oWaiting.Get(), oMessage.Address()) == TRUE) {
        fnGive(oMessage.Get());
        ObjRelease(oMessage.Address());
    }
}

void TooLate(void* pAttempt);

// Calls the next address that can be called; when there is none, nothing that waits will leave.
void CallNext(const std::string& machine, OtherMachine* ptMachine) {
    static intptr_t lAttempts = 0;
    const AddressTo oManager(machine.c_str(), MsgNetworkManagerId);
    const int32 lPort = PortOf(machine);
    ObjHolder<NetAddressS> oAddress;
    ptMachine->lAttempt = 0;
    while (lPort > 0 && ptMachine->oAddresses.Get() != nullptr &&
           ListPopFirstItem(ptMachine->oAddresses.Get(), oAddress.Address()) == TRUE) {
        const ObjHolder<ListS> oOne(ListNew(NetAddressMagic));
        ListPushLastItem(oOne.Get(), oAddress.Address());
        const ObjHolder<ObjIntegerS> oCookie(ObjIntegerNew(static_cast<int32>(++lAttempts)));
        if (MsgCompleteTcpConnectionTyped(nullptr, oManager.Get(), oCookie.Get(), oOne.Get(), lPort,
                                          eMsgChannelNonBlocking, eMsgChannelDoNotWaitForConnect,
                                          eMsgChannelNotifyDown, eMsgChannelDoNotSendOk,
                                          eMsgChannelConnectTypeNormal) != TRUE)
            continue;
        gtAttempts[lAttempts] = machine;
        ptMachine->lAttempt = lAttempts;
        ObjHolder<TimeTimeoutS> oUntil;
        TimeCreateAndSetTimeout(oUntil.Address(), AddressSeconds, 0);
        TimrSetAlarm(TooLate, reinterpret_cast<void*>(lAttempts), oUntil.Get());
        return;
    }
    EmptyWaiting(ptMachine, [&](MsgMessageO oMessage) { TellUnreachable(machine, oMessage); });
}

// An address is silent: the next one is called.
void TooLate(void* pAttempt) {
    const auto lAttempt = reinterpret_cast<intptr_t>(pAttempt);
    const auto tCall = gtAttempts.find(lAttempt);
    if (tCall == gtAttempts.end()) return;
    const std::string machine = tCall->second;
    if (gtMachines[machine].lAttempt == lAttempt) CallNext(machine, &gtMachines[machine]);
}

void Call(const std::string& machine, OtherMachine* ptMachine) {
    const AddressTo oManager(machine.c_str(), MsgNetworkManagerId);
    if (ptMachine->lAttempt != 0) return;
    if (ptMachine->oAddresses.Get() != nullptr) ObjRelease(ptMachine->oAddresses.Address());
    MsgNets(ptMachine->oAddresses.Address(), oManager.Get());
    CallNext(machine, ptMachine);
}

// --- links ---

// What cannot be sent goes back to its sender; that the link is down is told later.
void SendOver(const std::string& machine, int32 lLink, MsgMessageO oMessage) {
    if (MsgSendObject(AddressTo(nullptr, lLink).Get(), LinkMessageType, oMessage) != TRUE)
        TellUnreachable(machine, oMessage);
}

void TakeLink(const std::string& machine, int32 lChannel) {
    OtherMachine& tMachine = gtMachines[machine];
    gtLinks[lChannel] = machine;
    if (tMachine.lLink != 0) return;
    tMachine.lLink = lChannel;
    EmptyWaiting(&tMachine, [&](MsgMessageO oMessage) { SendOver(machine, lChannel, oMessage); });
}

// A call has ended. One that took too long may still succeed after others have been made.
void Called(MsgMessageO /*oMessage*/, MsgConnectedO oBody) {
    const int32 lAttempt = ObjGetInteger(static_cast<ObjIntegerO>(oBody->oCookie));
    const std::string machine = gtAttempts[lAttempt];
    OtherMachine& tMachine = gtMachines[machine];
    gtAttempts.erase(lAttempt);
    if (oBody->bSuccess == TRUE) {
        const ObjHolder<ObjStringS> oName(ObjStringNew(ThisMachine()));
        if (tMachine.lAttempt == lAttempt) tMachine.lAttempt = 0;
        if (MsgSendObject(oBody->oAddress, LinkNameType, oName.Get()) == TRUE)
            TakeLink(machine, MsgGetChannelId(oBody->oAddress));
    } else if (tMachine.lAttempt == lAttempt) {
        CallNext(machine, &tMachine);
    }
}

void CloseLink(int32 lChannel) {
    AddressTo oAddress(nullptr, lChannel);
    gtLinks.erase(lChannel);
    MsgChannelClose(oAddress.Address());
}

void LinkDown(MsgMessageO oMessage, void* /*oBody*/) {
    const int32 lChannel = MsgGetChannelId(oMessage->oSource);
    const std::string machine = gtLinks[lChannel];
    CloseLink(lChannel);
    const auto tMachine = gtMachines.find(machine);
    if (tMachine == gtMachines.end() || tMachine->second.lLink != lChannel) return;
    tMachine->second.lLink = 0;
    const std::map<int32, std::string> tLinks = gtLinks;
    for (const auto& [lOther, of] : tLinks)
        if (of == machine) CloseLink(lOther);
    TellMachineDown(machine);
}

// The caller says who it is: a machine that this one knows.
void Named(MsgMessageO oMessage, void* /*oBody*/) {
    ObjHolder<ObjStringS> oName;
    PoolPtr<char> pstrName;
    MsgMachineIdT tId = MsgMachineIdNone;
    const int32 lChannel = MsgGetChannelId(oMessage->oSource);
    if (MsgGetObject(oName.Address(), oMessage, ObjStringMagic) == TRUE &&
        MsgMachineNameToId(&tId, oName.Get()->pstrValue) == TRUE && tId > MsgMachineIdLocal &&
        MsgMachineIdToName(pstrName.Address(), tId) == TRUE)
        TakeLink(pstrName.Get(), lChannel);
    else
        CloseLink(lChannel);
}

// A message for a process of this machine, when it says of itself what it may.
void Arrived(MsgMessageO oMessage, MsgMessageO oArrived) {
    const std::string& machine = gtLinks[MsgGetChannelId(oMessage->oSource)];
    ObjHolder<MsgPacketS> oPacket;
    if (!machine.empty() &&
        MsgAddressMachinesEqual(oArrived->oSource, AddressTo(machine.c_str(), 0).Get()) == TRUE &&
        MsgAddressMachinesEqual(oArrived->oDestination, MsgLocalAddress()) == TRUE &&
        MsgGetProcessId(oArrived->oDestination) > 0 &&
        MsgMessageToPacket(oPacket.Address(), oArrived) == TRUE)
        MsgDispatch(oPacket.Address());
}

void Leave(MsgMessageO oMessage) {
    const char* pstrMachine = MsgGetMachineName(oMessage->oDestination);
    if (pstrMachine == nullptr) return;
    const std::string machine = pstrMachine;
    OtherMachine& tMachine = gtMachines[machine];
    if (tMachine.lLink != 0) return SendOver(machine, tMachine.lLink, oMessage);
    ListAddLastItem(tMachine.oWaiting.Get(), oMessage);
    Call(machine, &tMachine);
}

// Says whether this machine knows another.
void TellDetails(MsgMessageO oMessage, NmgrGetCurrentMachineDetailsRequestO oRequest) {
    const ObjHolder<NmgrGetCurrentMachineDetailsResponseS> oReply(
        ObjNew<NmgrGetCurrentMachineDetailsResponseS>(
            NmgrGetCurrentMachineDetailsResponseMagic,
            NmgrGetCurrentMachineDetailsResponseDescriptor));
    MsgMachineIdT tId = MsgMachineIdNone;
    oReply.Get()->bSuccess = MsgMachineNameToId(&tId, oRequest->pstrMachine);
    oReply.Get()->pstrMachine = StrDuplicate(oRequest->pstrMachine);
    MsgSendReply(oMessage, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG, oReply.Get());
}

// --- the loop ---

constexpr ManagerHandlerT FromLinks[] = {
    {LinkNameType, 0, Named},
    {LinkMessageType, MsgMessageMagic, With<MsgMessageS, Arrived>},
    {MSG_CHANNEL_DOWN_MSG, 0, LinkDown},
};
constexpr ManagerHandlerT FromThisMachine[] = {
    {MSG_CONNECTED_MSG, MsgConnectedMagic, With<MsgConnectedS, Called>},
    {NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG, NmgrGetCurrentMachineDetailsRequestMagic,
     With<NmgrGetCurrentMachineDetailsRequestS, TellDetails>},
};

// False when this manager is to end.
bool Handle(MsgMessageO oMessage) {
    if (MsgIsFromAChannel(oMessage) == TRUE)
        ManagerHandle(FromLinks, oMessage);
    else if (MsgAddressMachinesEqual(oMessage->oDestination, MsgLocalAddress()) != TRUE)
        Leave(oMessage);
    else if (!ManagerHandle(FromThisMachine, oMessage))
        return MsgWaitDefaultHandlers(oMessage) < eMsgWaitResultExit;
    return true;
}

// A call is a link whose machine is not known yet.
BooleanT TakeCall(NetSocketT tSocket) {
    ObjHolder<MsgChannelS> oChannel;
    if (MsgChannelCreate(oChannel.Address(), tSocket) != TRUE) return FALSE;
    gtLinks[MsgChannelId(oChannel.Get())] = "";
    return TRUE;
}

// The second address where the first does not take such calls as well.
constexpr ManagerPlaceT Place = {{"::", "0.0.0.0"}, "tlnmgr.cfg", "Network", "Manager Port"};

}  // namespace

int main() {
    int32 lPort = 0;
    if (ManagerStart("netmanager", MsgNetworkManagerId) != TRUE) return 1;
    CfgGetInteger(&lPort, Place.pstrFile, Place.pstrSection, Place.pstrKey, 0);
    if (ManagerTakeCalls<TakeCall>(Place, lPort) != TRUE) return 1;
    for (bool bServe = true; bServe;) {
        ObjHolder<MsgMessageS> oMessage;
        if (MsgReceive(oMessage.Address(), nullptr) == TRUE) bServe = Handle(oMessage.Get());
    }
    gtMachines.clear();
    ManagerEnd();
    return 0;
}
