// What the small managers of the tests share: starting under a fixed process id, bodies, addresses
// and handlers of messages, and the sockets on which they are called.
#pragma once

#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "core/cfg.h"
#include "core/context.h"
#include "core/list.h"
#include "core/msgchannel.h"
#include "core/procinit.h"

// Brings the library up in the home directory that KRHOME names, until other processes can reach
// this one: connecting alone does not wait for the communications manager, an answer of it does.
// FALSE, told on standard error.
inline BooleanT ManagerStart(const char* pstrName, ProcIdT tId) {
    ObjHolder<MsgMessageS> oPong;
    if (ContextInitialize() == TRUE && ProcSetId(tId) == TRUE &&
        MsgIpcConnect(eMsgProcTypeProcess) == TRUE &&
        (tId == MsgCommunicationsManagerId ||
         (MsgSendObject(MsgCommMgrAddress(), MSG_PING_MSG, nullptr) == TRUE &&
          MsgReceiveMsgTypeFromAddress(oPong.Address(), MSG_PONG_MSG, MsgCommMgrAddress(),
                                       nullptr) == TRUE)))
        return TRUE;
    std::fprintf(stderr, "%s: cannot start\n", pstrName);
    return FALSE;
}

inline bool gbOfTheDay = false;  // the process manager has started this one

// The same, as one of the managed processes where a process manager runs. One that it has started
// itself has its id as the first argument, and its title from there.
inline BooleanT ManagerJoin(const char* pstrName, ProcIdT tId, const char* pstrArgument) {
    const std::string id = std::to_string(tId);
    gbOfTheDay = pstrArgument != nullptr && id == pstrArgument;
    if (ContextInitialize() != TRUE || ProcPmgrIsRunning(FALSE) != TRUE)
        return ManagerStart(pstrName, tId);
    return ProcInitializeTags(OBJ_TAG_BEGIN, 7, id.c_str(), 9, gbOfTheDay ? nullptr : pstrName,
                              OBJ_TAG_END);
}

inline bool ManagerIsManaged() { return gtTlContext.sProcess.ptDetails != nullptr; }

// Tells whoever has started the manager that it serves, on a port where it has one.
inline void ManagerReady(int32 lPort) {
    if (ManagerIsManaged()) ProcSendSODReady(ePSODROK);
    if (gbOfTheDay) return;
    std::printf("ready %d\n", lPort);
    std::fflush(stdout);
}

inline void ManagerEnd() {
    MsgQuickExit(TRUE);
    if (ManagerIsManaged())
        ProcRelease(0);
    else
        ContextReleaseThread();
}

// --- messages ---

// A body to send, with these fields; what they own becomes the object's.
template <class T>
struct New : ObjHolder<T> {
    New(int32 lMagic, const char* pstrDescriptor, T tFields)
        : ObjHolder<T>(ObjNew<T>(lMagic, pstrDescriptor)) {
        *this->Get() = tFields;
    }
};

inline const char* ThisMachine() { return MsgGetMachineName(MsgLocalAddress()); }

// A process of a machine; without one the channel of that number.
struct AddressTo : ObjHolder<MsgAddressS> {
    AddressTo(const char* pstrMachine, ProcIdT tId) { MsgMakeAddress(Address(), pstrMachine, tId); }
    explicit AddressTo(ProcIdT tId) : AddressTo(ThisMachine(), tId) {}
};

// Who wants to know of the death of a process.
using WatchersT = std::set<std::pair<std::string, ProcIdT>>;
inline WatchersT::value_type WatcherOf(MsgAddressO oAddress) {
    return {MsgGetMachineName(oAddress), MsgGetProcessId(oAddress)};
}

// What a manager does with the messages of a type whose body is of that class; 0: of any, or none.
struct ManagerHandlerT {
    MsgTypeT tMsgType;
    int32 lMagic;
    void (*fnHandle)(MsgMessageO oMessage, void* oBody);
};

template <class BodyT, void (*fnHandle)(MsgMessageO oMessage, BodyT* oBody)>
void With(MsgMessageO oMessage, void* oBody) {
    fnHandle(oMessage, static_cast<BodyT*>(oBody));
}

// False when the table has not the type of the message.
template <std::size_t uCount>
bool ManagerHandle(const ManagerHandlerT (&atHandlers)[uCount], MsgMessageO oMessage) {
    for (const auto& [tMsgType, lMagic, fnHandle] : atHandlers) {
        if (tMsgType != oMessage->tMsgType) continue;
        if (lMagic == 0 || ObjCheckTypeInternal(oMessage->oObject, lMagic) == TRUE)
            fnHandle(oMessage, oMessage->oObject);
        return true;
    }
    return false;
}

// --- calls to the manager ---

inline NetSocketT gatListening[2] = {-1, -1};

// A listening socket on a port, which is the system's choice for 0; -1 without one.
inline NetSocketT ManagerListen(const char* pstrAddress, int32 lPort) {
    const std::int16_t sFamily = std::strchr(pstrAddress, ':') == nullptr ? AF_INET : AF_INET6;
    NetSocketT tSocket = -1;
    NetAddressT tAddress;
    if (NetOpen(&tSocket, NET_TYPE_TCP, sFamily) != TRUE) return -1;
    NetSetReuseAddress(tSocket);
    if (NetInitializeIpAddress(&tAddress, pstrAddress, lPort, sFamily) == TRUE &&
        NetBind(tSocket, &tAddress) == TRUE && NetListen(tSocket, 128) == TRUE &&
        NetSetNonBlocking(tSocket) == TRUE)
        return tSocket;
    NetClose(&tSocket);
    return -1;
}

// Gives the socket of every call to fnTake, which takes it over unless it says FALSE.
template <BooleanT (*fnTake)(NetSocketT tSocket)>
void ManagerAccept(NetSelectMaskT tMask, void* /*oCookie*/) {
    for (const NetSocketT tListening : gatListening) {
        NetSocketT tSocket = -1;
        if (tMask != nullptr && tListening != -1 && NetIsReadSelectSet(tMask, tListening) == TRUE &&
            NetAccept(&tSocket, tListening, nullptr) == NET_ERROR_NONE && fnTake(tSocket) != TRUE)
            NetClose(&tSocket);
    }
}

// Where a manager is called: at one of the addresses at least.
struct ManagerPlaceT {
    const char* apstrAddresses[2];
    const char* pstrFile;  // of the configuration, where a port is written that the system gave
    const char* pstrSection;
    const char* pstrKey;
};

// Takes calls from now on, on a port of the system's choice for 0, and tells so.
template <BooleanT (*fnTake)(NetSocketT tSocket)>
BooleanT ManagerTakeCalls(const ManagerPlaceT& tPlace, int32 lPort) {
    int32 lBound = -1;
    for (std::size_t n = 0; n < std::size(gatListening); n++) {
        NetAddressT tAddress;
        gatListening[n] = ManagerListen(tPlace.apstrAddresses[n], lBound == -1 ? lPort : lBound);
        if (gatListening[n] == -1) continue;
        MsgAddReadSelect(gatListening[n]);
        if (NetGetLocalAddress(&tAddress, gatListening[n]) == TRUE)
            lBound = NetGetIpPort(&tAddress);
    }
    if (lBound == -1 || (lPort == 0 && CfgSetInteger(tPlace.pstrFile, tPlace.pstrSection,
                                                     tPlace.pstrKey, lBound) != TRUE))
        return FALSE;
    ManagerReady(lBound);
    return MsgHandlerAdd(ManagerAccept<fnTake>, nullptr);
}
