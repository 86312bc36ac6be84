// Messages: the types that every part of messaging shares. A message is a typed object sent from
// one address to another; a packet is its bytes. docs/formats.md lays the bytes down.
#pragma once

#include "core/msgtypes.h"
#include "core/object.h"
#include "core/time.h"
#include "core/types.h"

using MsgTypeT = int32;       // kind of a message, msgtypes.h
using MsgMachineIdT = int32;  // stands for a machine's name inside packets

constexpr MsgMachineIdT MsgMachineIdNone = -1;  // the address is that of a channel
constexpr MsgMachineIdT MsgMachineIdLocal = 1;

// Processes that have the same id on every machine.
constexpr ProcIdT MsgProcessManagerId = 1;
constexpr ProcIdT MsgCommunicationsManagerId = 2;
constexpr ProcIdT MsgNetworkManagerId = 3;
constexpr ProcIdT MsgLogDaemonId = 7;
constexpr ProcIdT MsgAuditorId = 8;
constexpr ProcIdT MsgTunnelId = 11;
constexpr ProcIdT MsgConfigurationServerId = 13;

// --- the bytes of a packet ---

struct MsgPacketAddressT {
    MsgMachineIdT tMachineId;
    ProcIdT tProcessId;  // a channel id where there is no machine
};

// In front of every packet, in the order of bytes of the host.
struct MsgHeaderT {
    int32 tMsgId;   // next hop: a process of this machine, or minus a channel's id
    int32 lLength;  // bytes of the whole packet
    MsgPacketAddressT tSource;
    MsgPacketAddressT tDestination;
    MsgTypeT tMsgType;
    int32 bMore;  // 0; MsgPacketWithin in a packet that never leaves the process
};
static_assert(sizeof(MsgHeaderT) == 32 && offsetof(MsgHeaderT, tMsgType) == 24);

// The body is a local object stream: pointers travel in it. No packet that came from outside bears
// this mark, and none that does is sent.
constexpr int32 MsgPacketWithin = 1;

constexpr int32 MsgHeaderAreaSize = 192;  // header and zeros; a network link does not carry it
constexpr int32 MsgBodyHeadSize = 8;      // length word and type word, little-endian
constexpr int32 MsgPacketPrefixSize = MsgHeaderAreaSize + MsgBodyHeadSize;  // the object follows

// --- addresses, messages, packets ---

constexpr int32 MsgAddressMagic = ObjMagic(0xc8cd2676);
struct MsgAddressS {        // descriptor "s;i;"
    char* pstrMachineName;  // null in the address of a channel
    ProcIdT tProcessId;     // there the channel's id
};
using MsgAddressO = MsgAddressS*;

constexpr int32 MsgMessageMagic = ObjMagic(0xc8c71546);
struct MsgMessageS {  // descriptor "o;o;i;i;o;"
    MsgAddressO oDestination;
    MsgAddressO oSource;
    int32 lFlags;
    MsgTypeT tMsgType;
    void* oObject;  // the body, may be null
};

constexpr int32 MsgPacketMagic = ObjMagic(0xc9736716);
struct MsgPacketS {  // descriptor "d;"
    ObjDataFieldT tMessage;
};
using MsgPacketO = MsgPacketS*;

// --- bodies of the messaging layer's own messages ---

constexpr int32 MsgErrorMagic = ObjMagic(0xca10b0b8);
struct MsgErrorS {  // MSG_ERROR_MSG, descriptor "i;s;o;"
    int32 lErrorCode;
    char* pstrMessage;
    void* oCookie;
};
using MsgErrorO = MsgErrorS*;

constexpr int32 MsgUnknownMagic = ObjMagic(0xc9b0fa00);
struct MsgUnknownS {  // MSG_UNKNOWN_MSG, descriptor "s;i;o;"
    char* pstrMessage;
    MsgTypeT tUnexpectedType;
    void* oReturnedObject;  // body of the message that nobody handled
};
using MsgUnknownO = MsgUnknownS*;

constexpr int32 MsgPingMagic = ObjMagic(0xc9fed45e);
struct MsgPingS {  // MSG_PING_MSG and MSG_PONG_MSG, descriptor "i;i;"
    TimeT tSendTime;
    TimeT tReturnTime;
};
using MsgPingO = MsgPingS*;

constexpr int32 PmgrProcessDiedMagic = ObjMagic(0xc9c6bd5d);
struct PmgrProcessDiedS {  // PMGR_PROCESS_DIED_MSG, descriptor "o;"
    MsgAddressO oAddress;
};
using PmgrProcessDiedO = PmgrProcessDiedS*;

constexpr int32 PmgrGiveServiceATaskReturnMagic = ObjMagic(0xcc0b0916);
struct PmgrGiveServiceATaskReturnS {  // descriptor "b;i;o;i;b;i;o;"
    BooleanT bSuccess;
    int32 lErrorCode;
    MsgAddressO oAddress;  // the process that has the task
    int32 lSecurityCookie;
    BooleanT bSavePassword;
    int32 lCookie;       // the asker's
    void* oProcAddress;  // the service that was asked for, a ProcAddressO
};
using PmgrGiveServiceATaskReturnO = PmgrGiveServiceATaskReturnS*;

constexpr int32 PmgrTaskMagic = ObjMagic(0xc9c6be8d);
struct PmgrTaskS {  // PMGR_TASK_MSG, descriptor "o;i;o;i;"
    MsgAddressO oSource;
    int32 lInterfaceType;
    void* oUserArguments;
    int32 lCookie;
};
using PmgrTaskO = PmgrTaskS*;

constexpr int32 MsgConnectInetMagic = ObjMagic(0xc91693b5);
struct MsgConnectInetS {  // where the opener of a data channel listens, descriptor "i;i;"
    int32 lPort;
    int32 lAddress;  // 1 through the tunnel, else 0
};
using MsgConnectInetO = MsgConnectInetS*;

constexpr int32 MsgConnectMagic = ObjMagic(0xc90cf834);
struct MsgConnectS {  // MSG_CONNECT_MSG, descriptor "b;i;o;i;o;"
    BooleanT bSuccess;
    int32 lErrorCode;  // 1 cannot listen, 2 cannot bind, 3 no socket
    void* oCookie;     // for the answering side
    int32 lFamily;
    void* oQualifier;  // a MsgConnectInetO
};
using MsgConnectO = MsgConnectS*;

constexpr int32 MsgConnectedMagic = ObjMagic(0xca0b44ea);
struct MsgConnectedS {  // MSG_CONNECTED_MSG, descriptor "b;i;o;o;"
    BooleanT bSuccess;
    int32 lErrorCode;      // a MsgChannelErrorE
    MsgAddressO oAddress;  // of the new channel
    void* oCookie;
};
using MsgConnectedO = MsgConnectedS*;

constexpr int32 MsgConnectingMagic = ObjMagic(0xca08f0ab);
struct MsgConnectingS {  // a pending connection, descriptor "o;p;o;i;i;i;i;i;o;i;"
    MsgAddressO oRemoteAddress;
    std::intptr_t tSocket;  // as wide as the "p" field; a NetSocketT
    TimeTimeoutO oTimeout;
    int32 eIpcChannel;
    int32 eBlocking;
    int32 eNotifyDown;
    int32 eWaitForOk;
    int32 eSendOk;
    void* oCookie;
    int32 lType;  // a MsgChannelConnectTypeE
};
using MsgConnectingO = MsgConnectingS*;

constexpr int32 MsgTunnelListenRequestMagic = ObjMagic(0xc923000c);
struct MsgTunnelListenRequestS {  // MSG_TUNNEL_LISTEN_REQUEST_MSG, descriptor "i;o;o;"
    int32 lPort;
    MsgAddressO oTarget;
    void* oExtension;
};
using MsgTunnelListenRequestO = MsgTunnelListenRequestS*;

constexpr int32 MsgIpcConnectMagic = ObjMagic(0xc998b959);
struct MsgIpcConnectS {  // MSG_IPC_CONNECT_MSG, descriptor "i;i;i;"
    int32 lType;         // a MsgProcTypeE
    ProcIdT tProcessId;
    int32 tRealProcessId;
};
using MsgIpcConnectO = MsgIpcConnectS*;

constexpr int32 MsgHandlerEntryMagic = ObjMagic(0xc9babccd);
struct MsgHandlerEntryS {  // a select handler, descriptor "p;o;"
    void* fnCallback;
    void* oCookie;
};
using MsgHandlerEntryO = MsgHandlerEntryS*;

constexpr int32 MsgProxySourceMagic = ObjMagic(0xc8b8b32f);
struct MsgProxySourceS {  // MSG_PROXY_SOURCE_MSG, descriptor "o;o;"
    MsgAddressO oPeerAddress;
    void* oExtension;
};
using MsgProxySourceO = MsgProxySourceS*;

// --- bodies that the layer looks into on their way ---

constexpr int32 PmgrGiveServiceATaskMagic = ObjMagic(0xc9c6bc30);
struct PmgrGiveServiceATaskS {  // PMGR_GIVE_SERVICE_A_TASK_MSG, descriptor "o;s;i;s;b;o;i;"
    void* oProcAddress;         // a ProcAddressO
    char* pstrLocale;
    int32 lSecurityCookie;
    char* pstrPassword;
    BooleanT bSavePassword;
    void* oUserArguments;
    int32 lCookie;
};
using PmgrGiveServiceATaskO = PmgrGiveServiceATaskS*;

constexpr int32 PmgrGiveServiceATaskExtMagic = ObjMagic(0xca64f35a);
struct PmgrGiveServiceATaskExtS {  // the same with a context, descriptor "o;s;i;s;b;o;i;o;o;"
    void* oProcAddress;
    char* pstrLocale;
    int32 lSecurityCookie;
    char* pstrPassword;
    BooleanT bSavePassword;
    void* oUserArguments;
    int32 lCookie;
    void* oTaskContext;
    void* oExtension;
};
using PmgrGiveServiceATaskExtO = PmgrGiveServiceATaskExtS*;

constexpr int32 PmgrTaskExtMagic = ObjMagic(0xca729367);
struct PmgrTaskExtS {  // PMGR_TASK_MSG with a context, descriptor "o;i;o;i;o;o;"
    MsgAddressO oSource;
    int32 lInterfaceType;
    void* oUserArguments;
    int32 lCookie;
    void* oTaskContext;
    void* oExtension;
};
using PmgrTaskExtO = PmgrTaskExtS*;

constexpr int32 ProcAddressMagic = ObjMagic(0xc9f2f99b);
struct ProcAddressS {  // a service of a machine, descriptor "s;s;i;"
    char* pstrMachineName;
    char* pstrProcessName;
    int32 lInterfaceType;
};
using ProcAddressO = ProcAddressS*;

constexpr int32 SetProcessContextRequestMagic = ObjMagic(0xcf52c585);
struct SetProcessContextRequestS {  // MSG_SET_PROCESS_CONTEXT_REQUEST_MSG, descriptor "o;o;"
    void* oObject;
    void* oExtension;
};
using SetProcessContextRequestO = SetProcessContextRequestS*;

constexpr int32 PmgrNotifyOnDeathMagic = ObjMagic(0xc9c6bd30);
struct PmgrNotifyOnDeathS {  // PMGR_NOTIFY_ON_DEATH_MSG, descriptor "o;"
    MsgAddressO oAddress;    // the process to be watched
};
using PmgrNotifyOnDeathO = PmgrNotifyOnDeathS*;

constexpr int32 PmgrCancelNotifyOnDeathMagic = ObjMagic(0xcb9d1c47);
struct PmgrCancelNotifyOnDeathS {  // PMGR_CANCEL_NOTIFY_ON_DEATH_MSG, descriptor "o;o;"
    MsgAddressO oAddress;          // the process that was watched
    void* oExtension;
};
using PmgrCancelNotifyOnDeathO = PmgrCancelNotifyOnDeathS*;

// --- notices of the managers ---

constexpr int32 CmgrProcessUnreachableMagic = ObjMagic(0xc9c7a3e1);
struct CmgrProcessUnreachableS {  // CMGR_PROCESS_UNREACHABLE_MSG, descriptor "o;i;"
    MsgAddressO oAddress;         // the process that a packet could not be given to
    MsgTypeT tMsgType;            // what the packet was
};
using CmgrProcessUnreachableO = CmgrProcessUnreachableS*;

constexpr int32 CmgrMachineDownMagic = ObjMagic(0xc9c7a40d);
struct CmgrMachineDownS {  // CMGR_MACHINE_DOWN_MSG, descriptor "s;"
    char* pstrMachineName;
};
using CmgrMachineDownO = CmgrMachineDownS*;

constexpr int32 NmgrMachineUnreachableMagic = ObjMagic(0xc9c7a44f);
struct NmgrMachineUnreachableS {  // NMGR_MACHINE_UNREACHABLE_MSG, descriptor "s;i;o;"
    char* pstrMachineName;
    MsgTypeT tMsgType;   // of the message that could not be delivered
    void* oUndelivered;  // its body
};
using NmgrMachineUnreachableO = NmgrMachineUnreachableS*;
