// A small network manager. What processes of this machine send to other machines comes to it
// through the communications manager; it carries that over one link per machine, which it makes
// when there is something to carry, and gives what comes over links to the communications manager.
//
// A packet travels as one object that names machines, because their numbers differ from machine to
// machine; the first message on a link names the one that has called. Two managers that call each
// other at the same moment have two links then: each sends on the one that it had first and reads
// both. When the link that it sends on goes down, the other machine counts as down.
//
//   netmanager      KRHOME names the home directory; "Manager Port" of "Network" in "tlnmgr.cfg" is
//                   the port to listen on (0: a free one, which is written there), "Manager Port"
//                   of a stanza in "etc/machines.dat" that of the machine
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "core/cfg.h"
#include "core/memory.h"
#include "core/objserial.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stnzfile.h"
#include "core/stnzwrappers.h"
#include "manager.h"

MEM_DEFAULT_POOL_CACHE

namespace {

using Clock = std::chrono::steady_clock;

constexpr MsgTypeT LinkNameType = 7101, LinkPacketType = 7102;
constexpr auto AddressTime = std::chrono::seconds(2);  // that an address has to answer

constexpr int32 LinkPacketMagic = ObjMagic(0xc9a000f1);
constexpr char LinkPacketDescriptor[] = "s;i;i;i;d;";
struct LinkPacketS {
    char* pstrSourceMachine;
    ProcIdT tSource;
    ProcIdT tDestination;
    MsgTypeT tMsgType;
    ObjDataFieldT tBody;  // the packet's bytes behind its prefix
};

struct Release {
    void operator()(LinkPacketS* oPacket) const { ObjRelease(&oPacket); }
};
using LinkPacket = std::unique_ptr<LinkPacketS, Release>;

struct OtherMachine {
    std::deque<LinkPacket> tWaiting;  // for a link, in order
    int32 lLink = 0;                  // the channel that is sent on; 0 without one
    int32 lAttempt = 0;               // the call that is being made; 0: none
    Clock::time_point tUntil;         // then the next address is called
    ObjHolder<ListS> oAddresses;      // that have not been called yet
};

std::map<std::string, OtherMachine> gtMachines;  // by name, as the machine file writes it
std::map<int32, std::string> gtLinks;            // machine of each link; "" before it is known
std::map<int32, std::string> gtAttempts;         // machine that is called, by number of the call
int32 glAttempts = 0;

MsgAddressO AddressOf(const char* pstrMachine, ProcIdT tId) {
    MsgAddressO oAddress = nullptr;
    MsgMakeAddress(&oAddress, pstrMachine, tId);
    return oAddress;
}

std::string NameOf(MsgMachineIdT tId) {
    PoolPtr<char> pstrName;
    return MsgMachineIdToName(pstrName.Address(), tId) == TRUE && pstrName.Get() != nullptr
               ? pstrName.Get()
               : "";
}

// --- packets and what they are on a link ---

LinkPacket ToLink(MsgPacketO oPacket) {
    const MsgHeaderT tHeader = *MsgPacketHeader(oPacket);
    const std::string source = NameOf(tHeader.tSource.tMachineId);
    LinkPacket ptLink(ObjNew<LinkPacketS>(LinkPacketMagic, LinkPacketDescriptor));
    const int32 lBody = oPacket->tMessage.lSize - MsgPacketPrefixSize;
    ptLink->pstrSourceMachine = StrDuplicate(source.c_str());
    ptLink->tSource = tHeader.tSource.tProcessId;
    ptLink->tDestination = tHeader.tDestination.tProcessId;
    ptLink->tMsgType = tHeader.tMsgType;
    ptLink->tBody = {lBody, MemAllocateFromPool(lBody, MemPool())};
    std::memcpy(ptLink->tBody.pData,
                static_cast<const ByteT*>(oPacket->tMessage.pData) + MsgPacketPrefixSize,
                static_cast<std::size_t>(lBody));
    return ptLink;
}

void StoreWord(ByteT* pTo, int32 lValue) {
    for (int n = 0; n < 4; n++) pTo[n] = static_cast<ByteT>(static_cast<uint32>(lValue) >> (8 * n));
}

// A packet for a process of this machine; null for one that says what it may not.
MsgPacketO FromLink(const LinkPacketS& tLink, const std::string& machine) {
    MsgMachineIdT tSource = MsgMachineIdNone;
    const std::string source = tLink.pstrSourceMachine == nullptr ? "" : tLink.pstrSourceMachine;
    if (MsgMachineNameToId(&tSource, source.c_str()) != TRUE || NameOf(tSource) != machine ||
        tLink.tDestination < 1 || tLink.tBody.lSize < 1)
        return nullptr;
    const int32 lSize = MsgPacketPrefixSize + tLink.tBody.lSize;
    auto* pBytes = static_cast<ByteT*>(MemAllocateFromPool(lSize, MemPool()));
    MsgPacketO oPacket = ObjNew<MsgPacketS>(MsgPacketMagic, "d;");
    const MsgHeaderT tHeader = {tLink.tDestination,       lSize,
                                {tSource, tLink.tSource}, {MsgMachineIdLocal, tLink.tDestination},
                                tLink.tMsgType,           0};
    std::memset(pBytes, 0, MsgHeaderAreaSize);
    std::memcpy(pBytes, &tHeader, sizeof(tHeader));
    StoreWord(pBytes + MsgHeaderAreaSize, lSize - MsgHeaderAreaSize);
    StoreWord(pBytes + MsgHeaderAreaSize + 4, tLink.tMsgType);
    std::memcpy(pBytes + MsgPacketPrefixSize, tLink.tBody.pData,
                static_cast<std::size_t>(tLink.tBody.lSize));
    oPacket->tMessage = {lSize, pBytes};
    return oPacket;
}

// --- notices ---

// To the sender of a packet that cannot be carried, with what was in it.
void TellUnreachable(const std::string& machine, const LinkPacketS& tLink) {
    const ObjHolder<NmgrMachineUnreachableS> oBody(
        ObjNew<NmgrMachineUnreachableS>(NmgrMachineUnreachableMagic, "s;i;o;"));
    const ObjHolder<MsgAddressS> oSender(AddressOf(tLink.pstrSourceMachine, tLink.tSource));
    const ObjHolder<MsgAddressS> oManager(AddressOf(machine.c_str(), MsgNetworkManagerId));
    MsgPacketO oPacket = nullptr;
    oBody.Get()->pstrMachineName = StrDuplicate(machine.c_str());
    oBody.Get()->tMsgType = tLink.tMsgType;
    ObjReconstructFromMemorySized(&oBody.Get()->oUndelivered,
                                  static_cast<ByteT*>(tLink.tBody.pData), tLink.tBody.lSize);
    if (MsgCreatePacket(&oPacket, oSender.Get(), oManager.Get(), NMGR_MACHINE_UNREACHABLE_MSG,
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
    for (; !ptMachine->tWaiting.empty(); ptMachine->tWaiting.pop_front())
        TellUnreachable(machine, *ptMachine->tWaiting.front());
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
void SendOver(const std::string& machine, OtherMachine* ptMachine, const LinkPacket& oLink) {
    const ObjHolder<MsgAddressS> oChannel(AddressOf(nullptr, ptMachine->lLink));
    if (MsgSendObject(oChannel.Get(), LinkPacketType, oLink.get()) != TRUE)
        TellUnreachable(machine, *oLink);
}

void TakeLink(const std::string& machine, int32 lChannel) {
    OtherMachine& tMachine = gtMachines[machine];
    gtLinks[lChannel] = machine;
    if (tMachine.lLink != 0) return;
    tMachine.lLink = lChannel;
    for (; !tMachine.tWaiting.empty(); tMachine.tWaiting.pop_front())
        SendOver(machine, &tMachine, tMachine.tWaiting.front());
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
    ObjHolder<LinkPacketS> oLink;
    if (gtLinks[lChannel].empty() ||
        MsgObjectFromPacket(oLink.Address(), oPacket, LinkPacketMagic) != TRUE)
        return;
    MsgPacketO oArrived = FromLink(*oLink.Get(), gtLinks[lChannel]);
    if (oArrived != nullptr) MsgDispatch(&oArrived);
}

void Leave(MsgPacketO oPacket) {
    const std::string machine = NameOf(MsgPacketHeader(oPacket)->tDestination.tMachineId);
    if (machine.empty()) return;
    OtherMachine& tMachine = gtMachines[machine];
    LinkPacket oLink = ToLink(oPacket);
    if (tMachine.lLink != 0) return SendOver(machine, &tMachine, oLink);
    tMachine.tWaiting.push_back(std::move(oLink));
    Call(machine, &tMachine);
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
        default:
            break;
    }
    if (bFromLink && tHeader.tMsgType == LinkNameType)
        Named(oPacket, tHeader.tSource.tProcessId);
    else if (bFromLink && tHeader.tMsgType == LinkPacketType)
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

NetSocketT gatListening[2] = {-1, -1};

void AcceptCalls(NetSelectMaskT tMask, void* /*oCookie*/) {
    for (const NetSocketT tListening : gatListening) {
        NetSocketT tSocket = -1;
        MsgChannelO oChannel = nullptr;
        if (tMask == nullptr || tListening == -1 || NetIsReadSelectSet(tMask, tListening) != TRUE ||
            NetAccept(&tSocket, tListening, nullptr) != NET_ERROR_NONE)
            continue;
        if (MsgChannelCreate(&oChannel, tSocket) != TRUE) {
            NetClose(&tSocket);
            continue;
        }
        gtLinks[MsgChannelId(oChannel)] = "";
        ObjRelease(&oChannel);
    }
}

BooleanT Listen() {
    int32 lPort = 0;
    CfgGetInteger(&lPort, "tlnmgr.cfg", "Network", "Manager Port", 0);
    gatListening[0] = ManagerListen("::", lPort, AF_INET6);
    const int32 lBound = gatListening[0] == -1 ? lPort : ManagerPort(gatListening[0]);
    // Where the socket above does not take such calls as well.
    gatListening[1] = ManagerListen("0.0.0.0", lBound, AF_INET);
    int32 lReady = -1;
    for (const NetSocketT tListening : gatListening) {
        if (tListening == -1) continue;
        MsgAddReadSelect(tListening);
        lReady = ManagerPort(tListening);
    }
    if (lReady == -1 ||
        (lPort == 0 && CfgSetInteger("tlnmgr.cfg", "Network", "Manager Port", lReady) != TRUE))
        return FALSE;
    ManagerReady(lReady);
    return MsgHandlerAdd(AcceptCalls, nullptr);
}

}  // namespace

int main() {
    if (ManagerStart("netmanager", MsgNetworkManagerId) != TRUE || Listen() != TRUE) return 1;
    for (bool bServe = true; bServe;) {
        MsgPacketO oPacket = nullptr;
        const ObjHolder<TimeTimeoutS> oTimeout(CheckCalls());
        if (MsgReceivePacket(&oPacket, oTimeout.Get()) != TRUE) continue;
        bServe = Handle(oPacket);
        ObjRelease(&oPacket);
    }
    gtMachines.clear();
    MsgQuickExit(TRUE);
    ContextReleaseThread();
    return 0;
}
