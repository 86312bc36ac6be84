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

#include <algorithm>
#include <chrono>
#include <map>
#include <string>

#include "core/machineinfo.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stnzfile.h"
#include "core/stnzwrappers.h"
#include "manager.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr MsgTypeT LinkNameType = 7101, LinkMessageType = 7102;
constexpr auto AddressTime = std::chrono::seconds(2);  // that an address has to answer

struct OtherMachine {
    ObjHolder<ListS> oWaiting{ListNew(MsgMessageMagic)};  // for a link, in order
    int32 lLink = 0;              // the channel that is sent on; 0 without one
    int32 lAttempt = 0;           // the call that is being made; 0: none
    Clock::time_point tUntil;     // then the next address is called
    ObjHolder<ListS> oAddresses;  // that have not been called yet
};

std::map<std::string, OtherMachine> gtMachines;  // by name, as the machine file writes it
std::map<int32, std::string> gtLinks;            // machine of each link; "" before it is known
std::map<int32, std::string> gtAttempts;         // machine that is called, by number of the call
int32 glAttempts = 0;

std::string NameOf(MsgMachineIdT tId) {
    PoolPtr<char> pstrName;
    return MsgMachineIdToName(pstrName.Address(), tId) == TRUE && pstrName.Get() != nullptr
               ? pstrName.Get()
               : "";
}

// A packet for a process of this machine; null for a message that says what it may not.
MsgPacketO FromLink(MsgMessageO oMessage, const std::string& machine) {
    ObjHolder<MsgPacketS> oPacket;
    if (MsgMessageToPacket(oPacket.Address(), oMessage) != TRUE) return nullptr;
    const MsgHeaderT& tHeader = *MsgPacketHeader(oPacket.Get());
    const bool bMay = NameOf(tHeader.tSource.tMachineId) == machine &&
                      tHeader.tDestination.tMachineId == MsgMachineIdLocal &&
                      tHeader.tDestination.tProcessId > 0;
    return bMay ? oPacket.Take() : nullptr;
}

// --- notices ---

// To the sender of a message that cannot be carried, with what was in it.
void TellUnreachable(const std::string& machine, MsgMessageO oMessage) {
    const ObjHolder<NmgrMachineUnreachableS> oBody(
        ObjNew<NmgrMachineUnreachableS>(NmgrMachineUnreachableMagic, "s;i;o;"));
    const ObjHolder<MsgAddressS> oManager(AddressOf(machine.c_str(), MsgNetworkManagerId));
    MsgPacketO oPacket = nullptr;
    *oBody.Get() = {StrDuplicate(machine.c_str()), oMessage->tMsgType, nullptr};
    MsgGetObject(&oBody.Get()->oUndelivered, oMessage, 0);
    if (MsgCreatePacket(&oPacket, oMessage->oSource, oManager.Get(), NMGR_MACHINE_UNREACHABLE_MSG,
                        oBody.Get()) == TRUE)
        MsgDispatch(&oPacket);
}

void TellMachineDown(const std::string& machine) {
    const ObjHolder<CmgrMachineDownS> oBody(ObjNew<CmgrMachineDownS>(CmgrMachineDownMagic, "s;"));
    oBody.Get()->pstrMachineName = StrDuplicate(machine.c_str());
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

// Calls the next address that can be called; when there is none, nothing that waits will leave.
void CallNext(const std::string& machine, OtherMachine* ptMachine) {
    const ObjHolder<MsgAddressS> oManager(AddressOf(machine.c_str(), MsgNetworkManagerId));
    const int32 lPort = PortOf(machine);
    ListO oAddresses = ptMachine->oAddresses.Get();
    ptMachine->lAttempt = 0;
    while (lPort > 0 && oAddresses != nullptr && oAddresses->oFirst != nullptr) {
        const ObjHolder<ListS> oOne(ListNew(NetAddressMagic));
        ObjHolder<NetAddressS> oAddress;
        ListPopFirstItem(oAddresses, oAddress.Address());
        ListPushLastItem(oOne.Get(), oAddress.Address());
        const int32 lAttempt = ++glAttempts;
        const ObjHolder<ObjIntegerS> oCookie(ObjIntegerNew(lAttempt));
        if (MsgCompleteTcpConnectionTyped(nullptr, oManager.Get(), oCookie.Get(), oOne.Get(), lPort,
                                          eMsgChannelNonBlocking, eMsgChannelDoNotWaitForConnect,
                                          eMsgChannelNotifyDown, eMsgChannelDoNotSendOk,
                                          eMsgChannelConnectTypeNormal) != TRUE)
            continue;
        gtAttempts[lAttempt] = machine;
        ptMachine->lAttempt = lAttempt;
        ptMachine->tUntil = Clock::now() + AddressTime;
        return;
    }
    EmptyWaiting(ptMachine, [&](MsgMessageO oMessage) { TellUnreachable(machine, oMessage); });
}

void Call(const std::string& machine, OtherMachine* ptMachine) {
    const ObjHolder<MsgAddressS> oManager(AddressOf(machine.c_str(), MsgNetworkManagerId));
    if (ptMachine->lAttempt != 0) return;
    if (ptMachine->oAddresses.Get() != nullptr) ObjRelease(ptMachine->oAddresses.Address());
    MsgNets(ptMachine->oAddresses.Address(), oManager.Get());
    CallNext(machine, ptMachine);
}

// --- links ---

// What cannot be sent goes back to its sender; that the link is down is told later.
void SendOver(const std::string& machine, int32 lLink, MsgMessageO oMessage) {
    const ObjHolder<MsgAddressS> oChannel(AddressOf(nullptr, lLink));
    if (MsgSendObject(oChannel.Get(), LinkMessageType, oMessage) != TRUE)
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
void Called(MsgPacketO oPacket) {
    ObjHolder<MsgConnectedS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, MsgConnectedMagic) != TRUE) return;
    const int32 lAttempt = ObjGetInteger(static_cast<ObjIntegerO>(oBody.Get()->oCookie));
    const std::string machine = gtAttempts[lAttempt];
    OtherMachine& tMachine = gtMachines[machine];
    gtAttempts.erase(lAttempt);
    if (oBody.Get()->bSuccess == TRUE) {
        const ObjHolder<ObjStringS> oName(ObjStringNew(MsgGetMachineName(MsgLocalAddress())));
        if (tMachine.lAttempt == lAttempt) tMachine.lAttempt = 0;
        if (MsgSendObject(oBody.Get()->oAddress, LinkNameType, oName.Get()) == TRUE)
            TakeLink(machine, MsgGetChannelId(oBody.Get()->oAddress));
    } else if (tMachine.lAttempt == lAttempt) {
        CallNext(machine, &tMachine);
    }
}

void CloseLink(int32 lChannel) {
    MsgAddressO oAddress = AddressOf(nullptr, lChannel);
    gtLinks.erase(lChannel);
    MsgChannelClose(&oAddress);
}

void LinkDown(int32 lChannel) {
    const std::string machine = gtLinks[lChannel];
    CloseLink(lChannel);
    const auto tMachine = gtMachines.find(machine);
    if (tMachine == gtMachines.end() || tMachine->second.lLink != lChannel) return;
    tMachine->second.lLink = 0;
    for (auto tLink = gtLinks.begin(); tLink != gtLinks.end();) {
        const auto [lOther, of] = *tLink++;
        if (of == machine) CloseLink(lOther);
    }
    TellMachineDown(machine);
}

// The caller says who it is: a machine that this one knows.
void Named(MsgPacketO oPacket, int32 lChannel) {
    ObjHolder<ObjStringS> oName;
    MsgMachineIdT tId = MsgMachineIdNone;
    if (MsgObjectFromPacket(oName.Address(), oPacket, ObjStringMagic) == TRUE &&
        MsgMachineNameToId(&tId, oName.Get()->pstrValue) == TRUE && tId > MsgMachineIdLocal)
        TakeLink(NameOf(tId), lChannel);
    else
        CloseLink(lChannel);
}

void Arrived(MsgPacketO oPacket, int32 lChannel) {
    ObjHolder<MsgMessageS> oMessage;
    if (gtLinks[lChannel].empty() ||
        MsgObjectFromPacket(oMessage.Address(), oPacket, MsgMessageMagic) != TRUE)
        return;
    MsgPacketO oArrived = FromLink(oMessage.Get(), gtLinks[lChannel]);
    if (oArrived != nullptr) MsgDispatch(&oArrived);
}

void Leave(MsgPacketO oPacket) {
    ObjHolder<MsgMessageS> oMessage;
    const std::string machine = NameOf(MsgPacketHeader(oPacket)->tDestination.tMachineId);
    if (machine.empty() || MsgMessageFromPacket(oMessage.Address(), oPacket) != TRUE) return;
    OtherMachine& tMachine = gtMachines[machine];
    if (tMachine.lLink != 0) return SendOver(machine, tMachine.lLink, oMessage.Get());
    ListPushLastItem(tMachine.oWaiting.Get(), oMessage.Address());
    Call(machine, &tMachine);
}

// Says whether this machine knows another.
void TellDetails(MsgPacketO oPacket) {
    ObjHolder<MsgMessageS> oMessage;
    ObjHolder<NmgrGetCurrentMachineDetailsRequestS> oRequest;
    if (MsgMessageFromPacket(oMessage.Address(), oPacket) != TRUE ||
        MsgGetObject(oRequest.Address(), oMessage.Get(),
                     NmgrGetCurrentMachineDetailsRequestMagic) != TRUE)
        return;
    const ObjHolder<NmgrGetCurrentMachineDetailsResponseS> oReply(
        ObjNew<NmgrGetCurrentMachineDetailsResponseS>(
            NmgrGetCurrentMachineDetailsResponseMagic,
            NmgrGetCurrentMachineDetailsResponseDescriptor));
    MsgMachineIdT tId = MsgMachineIdNone;
    oReply.Get()->bSuccess = MsgMachineNameToId(&tId, oRequest.Get()->pstrMachine);
    oReply.Get()->pstrMachine = StrDuplicate(oRequest.Get()->pstrMachine);
    MsgSendReply(oMessage.Get(), NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG, oReply.Get());
}

// --- the loop ---

// FALSE ends the manager.
bool Handle(MsgPacketO oPacket) {
    const MsgHeaderT tHeader = *MsgPacketHeader(oPacket);
    const bool bFromLink = tHeader.tSource.tMachineId == MsgMachineIdNone;
    switch (tHeader.tMsgType) {
        case MSG_CONNECTED_MSG:
            Called(oPacket);
            return true;
        case MSG_CHANNEL_DOWN_MSG:
            LinkDown(tHeader.tSource.tProcessId);
            return true;
        case MSG_FATAL_SELECT_ERROR_MSG:
        case MSG_LOST_RECEIVE_QUEUE_MSG:
        case MSG_LOST_SEND_QUEUE_MSG:
            return false;
        case NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG:
            if (tHeader.tDestination.tMachineId == MsgMachineIdLocal) TellDetails(oPacket);
            break;
        default:
            break;
    }
    if (bFromLink && tHeader.tMsgType == LinkNameType)
        Named(oPacket, tHeader.tSource.tProcessId);
    else if (bFromLink && tHeader.tMsgType == LinkMessageType)
        Arrived(oPacket, tHeader.tSource.tProcessId);
    else if (!bFromLink && tHeader.tDestination.tMachineId > MsgMachineIdLocal)
        Leave(oPacket);
    return bFromLink || tHeader.tMsgType != PMGR_KILL_YOURSELF_MSG ||
           tHeader.tDestination.tMachineId != MsgMachineIdLocal;
}

// Goes on to the next address of every machine whose last one was silent for too long; gives the
// time of the next such check, null when there is none.
TimeTimeoutO CheckCalls() {
    auto tNext = Clock::time_point::max();
    for (auto& [machine, tMachine] : gtMachines) {
        if (tMachine.lAttempt != 0 && Clock::now() >= tMachine.tUntil) CallNext(machine, &tMachine);
        if (tMachine.lAttempt != 0) tNext = std::min(tNext, tMachine.tUntil);
    }
    if (tNext == Clock::time_point::max()) return nullptr;
    TimeTimeoutO oTimeout = nullptr;
    const auto tLeft = std::chrono::duration_cast<std::chrono::milliseconds>(tNext - Clock::now());
    TimeCreateAndSetTimeout(&oTimeout, 0,
                            static_cast<int32>(std::max<int64>(tLeft.count(), 0)) + 1);
    return oTimeout;
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

int32 OwnPort() {
    int32 lPort = 0;
    CfgGetInteger(&lPort, Place.pstrFile, Place.pstrSection, Place.pstrKey, 0);
    return lPort;
}

}  // namespace

int main() {
    if (ManagerStart("netmanager", MsgNetworkManagerId) != TRUE ||
        ManagerTakeCalls<TakeCall>(Place, OwnPort()) != TRUE)
        return 1;
    for (bool bServe = true; bServe;) {
        MsgPacketO oPacket = nullptr;
        const ObjHolder<TimeTimeoutS> oTimeout(CheckCalls());
        if (MsgReceivePacket(&oPacket, oTimeout.Get()) != TRUE) continue;
        bServe = Handle(oPacket);
        ObjRelease(&oPacket);
    }
    gtMachines.clear();
    ManagerEnd();
    return 0;
}
