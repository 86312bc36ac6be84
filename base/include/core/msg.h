// Addresses, messages and packets: what a process sends, how it becomes bytes, how it is answered.
//
// An address names a machine and a process on it, or, without a machine, a channel of this process
// (msgchannel.h). Inside packets a machine is a number: 1 is the machine of the sender, any other
// stands in the file "machines.dat" of the directory "etc". Packets that come over a network link
// bear the address of their channel as source, so that an answer goes back the same way.
//
// Operations check the class of every object they are given; FALSE, 0 or null for any other. What
// comes back through an out-parameter is a new holder, the caller's.
#pragma once

#include "core/msgbase.h"
#include "core/net.h"
#include "core/object.h"
#include "core/types.h"

using MsgChannelO = struct MsgChannelS*;  // msgchannel.h

struct TesselContextDataChannelS {
    BooleanT bHeartBeat;
    ListO oConnectionList;
};

struct TesselContextMsgS {
    BooleanT bInitialized;     // the interprocess link is up; packets are dropped before
    ListO oReceiveList;        // packets that wait for the application
    ListO oNotifyOnDeathList;  // processes of other machines whose death this process watches
    int32 lErrorCode;
    MsgAddressO oLocalAddress;       // this process
    int32 lChannelId;                // counter of channel ids
    ObjMapO oChannels;               // by id
    NetSelectMaskT tSelectMask;      // what the select loop waits for
    NetSelectMaskT tSelectMaskCopy;  // what the last select found ready
    ListO oConnectingList;           // pending connections (MsgConnectingO)
    ListO oLingerList;               // channels that are closing
    char strUnknown[80];             // text for a type without a name
    MsgChannelO oIpcChannel;
    MapO oTypeMap;            // names by type
    ObjMapO oMachineNameMap;  // nothing fills these two: the machine file is read each time
    ObjMapO oMachineIdMap;
    ListO oTaskList;  // failure replies prepared for tasks asked of other machines
    BooleanT bQuickExit;
    ListO oHandlers;  // select handlers (MsgHandlerEntryO)
    BooleanT bMultipleNdmpChannels;
};

// Creates the classes and the well-known addresses and reads the configuration.
BooleanT MsgInitialize();
// Masks, lists, channel map, names, and the local address with process id 0.
BooleanT MsgInitializeThread(TesselContextT* ptTlContext);
// Closes every channel in order: pending connections at once, the others when all is sent and the
// peer has closed too, which takes at most 300 seconds (MsgQuickExit: not at all).
void MsgReleaseThread(TesselContextT* ptTlContext);

// --- addresses ---

// FALSE for a null name; MsgMakeAddress makes the address of a channel from one.
BooleanT MsgCreateAddress(MsgAddressO* poAddress, const char* pstrMachineName, ProcIdT tProcessId);
BooleanT MsgMakeAddress(MsgAddressO* poAddress, const char* pstrMachineName, ProcIdT tProcessId);
BooleanT MsgChannelCreateAddress(MsgAddressO* poAddress, MsgChannelO oChannel);

// Shared addresses: they stay the library's. Null before the library is initialised.
MsgAddressO MsgProcMgrAddress();
MsgAddressO MsgCommMgrAddress();
MsgAddressO MsgNetMgrAddress();
MsgAddressO MsgLogDaemonAddress();
MsgAddressO MsgAuditorAddress();
MsgAddressO MsgLocalAddress();
MsgAddressO MsgChannelDummyAddress();  // a channel with id 0

// Makes the local address anew with the present process id.
BooleanT MsgMakeLocalAddress();

BooleanT MsgIsAChannel(MsgAddressO oAddress);
// Same process id and same machine, names compared without regard to case.
BooleanT MsgAddressEqual(MsgAddressO oAddressA, MsgAddressO oAddressB);
BooleanT MsgAddressMachinesEqual(MsgAddressO oAddressA, MsgAddressO oAddressB);
ProcIdT MsgGetProcessId(MsgAddressO oAddress);
const char* MsgGetMachineName(MsgAddressO oAddress);  // the address's own text
int32 MsgGetChannelId(MsgAddressO oAddress);
// A channel is local when it has no proxy peer and its remote end is on this machine.
BooleanT MsgIsLocalMachine(MsgAddressO oAddress);
BooleanT MsgIsFromLocalMachine(MsgMessageO oMessage);

// --- machine ids ---

// -1 for a null name, 1 for this machine, else the "Id" of the machine's stanza; FALSE without one.
BooleanT MsgMachineNameToId(MsgMachineIdT* ptId, const char* pstrName);
BooleanT MsgMachineId(const char* pstrName, MsgMachineIdT* ptId);
// A new text, the caller's; null, with TRUE, for -1.
BooleanT MsgMachineIdToName(char** ppstrName, MsgMachineIdT tId);
BooleanT MsgMachineIsServer(const char* pstrName);
BooleanT MsgAddressToPacketAddress(MsgPacketAddressT* ptPacketAddress, MsgAddressO oAddress);
BooleanT MsgAddressFromPacketAddress(MsgAddressO* poAddress,
                                     const MsgPacketAddressT* ptPacketAddress);

// --- messages ---

// From this process; holds address and body.
BooleanT MsgCreateMessage(MsgMessageO* poMessage, MsgAddressO oMsgAddress, MsgTypeT tMsgType,
                          void* oObject);
MsgTypeT MsgType(MsgMessageO oMessage);
BooleanT MsgGetSource(MsgAddressO* poAddress, MsgMessageO oMessage);
BooleanT MsgGetDestination(MsgAddressO* poAddress, MsgMessageO oMessage);
// The process that sent it: behind a channel, the remote end.
BooleanT MsgGetSender(MsgAddressO* poAddress, MsgMessageO oMessage);
BooleanT MsgIsFrom(MsgMessageO oMessage, MsgAddressO oAddress);
BooleanT MsgIsFromAChannel(MsgMessageO oMessage);
BooleanT MsgAddressIsFrom(MsgAddressO oAddress, MsgAddressO oSource);
// The body when it is of class lMagic (0: of any); FALSE when there is none.
BooleanT MsgGetObjectInternal(void** poObject, MsgMessageO oMessage, int32 lMagic);

template <class T>
BooleanT MsgGetObject(T** poObject, MsgMessageO oMessage, int32 lMagic) {
    void* oObject = nullptr;
    const BooleanT bResult =
        MsgGetObjectInternal(poObject == nullptr ? nullptr : &oObject, oMessage, lMagic);
    if (bResult == TRUE) *poObject = static_cast<T*>(oObject);
    return bResult;
}

// --- packets ---

BooleanT MsgCreatePacket(MsgPacketO* poPacket, MsgAddressO oDestination, MsgAddressO oSource,
                         MsgTypeT tMsgType, void* oObject);
BooleanT MsgMessageToPacket(MsgPacketO* poPacket, MsgMessageO oMessage);
// The packet's bytes may come from outside: nothing in them is believed. An address whose machine
// has no name here is null in the message.
BooleanT MsgMessageFromPacket(MsgMessageO* poMessage, MsgPacketO oPacket);
BooleanT MsgFromPacket(MsgMessageO* poMessage, MsgPacketO oPacket);
// A new holder of the body. lMagic 0 and -1 take any object and, as null, none at all.
BooleanT MsgObjectFromPacketInternal(void** poObject, MsgPacketO oPacket, int32 lMagic);
MsgTypeT MsgPacketMsgType(MsgPacketO oPacket);
// The packet itself changes; its body too when it was to stay within the process.
BooleanT MsgRedirectPacket(MsgAddressO oNewDestination, MsgPacketO oPacket);

// The packet's header; null when the packet is too short to have one and the prefix behind it.
MsgHeaderT* MsgPacketHeader(MsgPacketO oPacket);

template <class T>
BooleanT MsgObjectFromPacket(T** poObject, MsgPacketO oPacket, int32 lMagic) {
    void* oObject = nullptr;
    const BooleanT bResult =
        MsgObjectFromPacketInternal(poObject == nullptr ? nullptr : &oObject, oPacket, lMagic);
    if (bResult == TRUE) *poObject = static_cast<T*>(oObject);
    return bResult;
}

// --- names of types ---

BooleanT MsgInitializeNames();
// With a buffer: the name, cut to it. Without: the table's text, or for an unknown type a text that
// holds until the next such call. A buffer without room counts as none.
const char* MsgNameWithBuffer(MsgTypeT tMsgType, char* pstrBuffer, int32 lSize);
inline const char* MsgName(MsgTypeT tMsgType) { return MsgNameWithBuffer(tMsgType, nullptr, 0); }
// Names a type that has no name yet; the text is copied.
BooleanT MsgSetMsgName(MsgTypeT tMsgType, const char* pstrName);
BooleanT MsgTypeFromName(MsgTypeT* ptMsgType, const char* pstrName);  // without regard to case

// --- answers, and messages to oneself ---

BooleanT MsgSendReply(MsgMessageO oMessage, MsgTypeT tMsgType, void* oObject);
BooleanT MsgError(MsgAddressO oTo, int32 lErrorCode, const char* pstrMessage, void* oCookie);
// Answers a message that nobody handles. FALSE, with nothing sent, for MSG_UNKNOWN_MSG and to
// oneself.
BooleanT MsgReturnUnknown(MsgMessageO oMessage, const char* pstrMessage);
BooleanT MsgPong(MsgMessageO oMessage);
// At the end of the own receive list. The packet never leaves the process (MsgPacketWithin), so its
// body may hold pointers.
BooleanT MsgSendToSelf(MsgMessageO oMessage);
BooleanT MsgSendObjectToSelf(MsgTypeT tMsgType, void* oObject);
// At its head, to be read next.
BooleanT MsgRequeue(MsgMessageO oMessage);
BooleanT MsgRequeuePacket(MsgPacketO oPacket);
