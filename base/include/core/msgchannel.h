// Channels: how packets move between processes. A process has one interprocess channel, to the
// communications manager of its machine, through which everything goes that has no channel of its
// own, and any number of data channels, each a TCP connection to one other process. One select loop
// serves them all, and with them pending connections, timers, and sockets that the application has
// added; it fills the receive list, from which the application takes messages. docs/messaging.md
// tells the whole story.
//
// Everything belongs to the process's one thread. Failures are results; where a peer is concerned,
// they come as notices through the receive list: MSG_CHANNEL_DOWN_MSG from the channel's address,
// MSG_CONNECTED_MSG with an error, MSG_LOST_RECEIVE_QUEUE_MSG and MSG_LOST_SEND_QUEUE_MSG when the
// interprocess channel is gone, MSG_FATAL_SELECT_ERROR_MSG.
#pragma once

#include "core/msg.h"
#include "core/msgbase.h"
#include "core/net.h"
#include "core/time.h"
#include "core/types.h"

constexpr int32 MsgChannelMagic = ObjMagic(0xc912bd30);
constexpr int32 MsgChannelStartSize = 512;

struct MsgChannelS {              // descriptor "i;p;o;o;o;o;b;b;b;b;b;b;o;o;i;d;i;b;n512;"
    int32 lChannelId;             // unique among the channels of the process
    std::intptr_t tSocket;        // a NetSocketT
    MsgAddressO oRemoteAddress;   // the process at the other end, may be null
    MsgAddressO oChannelAddress;  // (no machine, lChannelId)
    MsgAddressO oProxyPeer;       // for whom the peer acts, null when for itself
    ListO oOutputList;            // packets to be sent
    BooleanT bDown;
    BooleanT bBlocking;  // a send returns when the packet is handed over to the system
    BooleanT bNotifyDown;
    BooleanT bClosing;
    BooleanT bIsIpcChannel;  // carries whole packets; others only their bodies
    BooleanT bWaitingForOk;  // packets are queued until the peer says that it is ready
    void* oAuthCookie;
    void* oCookie;               // the opener's, until MSG_CONNECTED_OK_MSG arrives
    int32 lSendOffset;           // into the first packet to be sent
    ObjDataFieldT tInputBuffer;  // the packet under reassembly, once its length is known
    int32 lRecvOffset;  // bytes of it that are there; without a buffer, bytes in atBufferHeader
    BooleanT bNdmpChannel;
    ByteT atBufferHeader[MsgChannelStartSize];  // what was read before the length was known
};

enum MsgChannelBlockingE : int32 { eMsgChannelNonBlocking = 0, eMsgChannelBlocking = 1 };
enum MsgChannelAcceptE : int32 { eMsgChannelDoNotWaitForAccept = 0, eMsgChannelWaitForAccept = 1 };
enum MsgChannelOkE : int32 { eMsgChannelDoNotWaitForOk = 0, eMsgChannelWaitForOk = 1 };
enum MsgChannelSendOkE : int32 { eMsgChannelDoNotSendOk = 0, eMsgChannelSendOk = 1 };
enum MsgChannelConnectE : int32 {
    eMsgChannelDoNotWaitForConnect = 0,
    eMsgChannelWaitForConnect = 1
};
enum MsgChannelNotifyDownE : int32 { eMsgChannelDoNotNotifyDown = 0, eMsgChannelNotifyDown = 1 };
enum MsgChannelIpcChannelE : int32 { eMsgChannelNotIpcChannel = 0, eMsgChannelIpcChannel = 1 };
enum MsgChannelGuiChannelE : int32 { eMsgChannelNotGuiChannel = 0, eMsgChannelGuiChannel = 1 };
enum MsgChannelConnectTypeE : int32 {
    eMsgChannelConnectTypeNormal = 0,
    eMsgChannelConnectTypeTunnel = 1
};
enum MsgProcTypeE : int32 { eMsgProcTypeProcess = 0, eMsgProcTypeThread = 1 };

// Outcome of a connection attempt, in MsgConnectedS.
enum MsgChannelErrorE : int32 {
    MSG_CHANNEL_ERROR_NONE = 0,
    MSG_CHANNEL_ERROR_ACCEPT_FAILED = 1,
    MSG_CHANNEL_ERROR_TIMEOUT = 2,
    MSG_CHANNEL_ERROR_EXCEPTION = 3,
};

// Called after every select: with what is ready, or with null when a signal interrupted it.
using MsgHandlerCallbackFnT = void (*)(NetSelectMaskT tMask, void* oCookie);
using MsgPacketCallbackFnT = BooleanT (*)(MsgPacketO oPacket, void* pArgument);  // TRUE goes on

// --- the interprocess channel ---

BooleanT MsgChannelInitialize();  // as MsgInitializeThread, for the calling thread
// Connects this process, under its id, to the communications manager of the machine, which may take
// 60 seconds (6 for a process without an id). From then on received packets are kept. TRUE, with
// nothing done, while there is a link.
BooleanT MsgIpcConnect(MsgProcTypeE eType);
int32 MsgGetCommsPort();
void MsgQuickExit(BooleanT bBeQuick);  // do not wait for channels when the thread is released

// --- channels on sockets that are there ---

// On success the channel owns the socket; on failure it stays the caller's. A socket whose number a
// select mask cannot hold is refused.
BooleanT MsgChannelCreate(MsgChannelO* poChannel, NetSocketT tSocket);
BooleanT MsgChannelCreateIpc(NetSocketT tSocket);
// Not for the foreman: a channel without an id that no select loop serves.
BooleanT MsgChannelCreateGui(MsgChannelO* poChannel, NetSocketT tSocket, BooleanT bForeman);
BooleanT MsgChannelCreateInternal(MsgChannelO* poChannel, NetSocketT tSocket,
                                  MsgAddressO oRemoteAddress, MsgChannelBlockingE eBlocking,
                                  MsgChannelNotifyDownE eNotifyDown,
                                  MsgChannelIpcChannelE eIpcChannel, MsgChannelOkE eWaitForOk,
                                  MsgChannelGuiChannelE eGuiChannel);
// A channel that only names a conversation: nothing is sent on it. Unless several were allowed,
// this process's own address.
BooleanT MsgChannelCreateNdmp(MsgAddressO* poChannelAddress);
void MsgAllowMultipleNdmpChannels();

// --- data channels between two processes ---

// Asks oTarget to connect back. Waiting for the accept gives the channel's address, the caller's;
// otherwise MSG_CONNECTED_MSG with oLocalCookie brings it. oTargetCookie travels to the target.
BooleanT MsgChannelOpenInternal(MsgAddressO* poChannelAddress, MsgAddressO oTarget,
                                void* oTargetCookie, void* oLocalCookie,
                                MsgChannelBlockingE eBlocking, MsgChannelAcceptE eAccept,
                                MsgChannelOkE eWaitForOk);
// Answers a received MSG_CONNECT_MSG; the address comes at once when waiting for the connect, else
// with MSG_CONNECTED_MSG and the opener's cookie.
BooleanT MsgChannelCompleteInternal(MsgAddressO* poAddress, MsgMessageO oMessage,
                                    MsgChannelBlockingE eBlocking, MsgChannelConnectE eConnect,
                                    MsgChannelSendOkE eSendOk);
// The same with everything given: addresses (NetAddressO) to be tried in turn, and the port.
BooleanT MsgCompleteTcpConnectionTyped(MsgChannelO* poChannel, MsgAddressO oSource, void* oCookie,
                                       ListO oAddressList, int32 lPort,
                                       MsgChannelBlockingE eBlocking, MsgChannelConnectE eConnect,
                                       MsgChannelNotifyDownE eNotifyDown, MsgChannelSendOkE eSendOk,
                                       MsgChannelConnectTypeE eType);
// Sends what is queued, tells the peer, and closes when the peer has closed. Releases the address.
BooleanT MsgChannelClose(MsgAddressO* poAddress);
BooleanT MsgChannelFlush(MsgAddressO oAddress);  // the peer answers MSG_CHANNEL_FLUSHED_MSG

// Addresses (NetAddressO) at which a machine is reached, appended to or made as a list.
BooleanT MsgPreferredNet(MsgAddressO oAddress, ListO oAddressList);
BooleanT MsgNets(ListO* poAddressList, MsgAddressO oAddress);
BooleanT MsgCanTunnel(MsgAddressO oAddress);
int32 MsgTunnelPort(MsgAddressO oAddress);

// --- asking a channel ---

BooleanT MsgGetChannel(MsgChannelO* poChannel, MsgAddressO oAddress);  // a new holder
// What these give stays the channel's; null, -1 or FALSE for anything that is no channel.
MsgAddressO MsgChannelAddress(MsgChannelO oChannel);
MsgAddressO MsgChannelRemoteAddress(MsgChannelO oChannel);
MsgAddressO MsgChannelProxyPeer(MsgChannelO oChannel);
NetSocketT MsgChannelSocket(MsgChannelO oChannel);
int32 MsgChannelId(MsgChannelO oChannel);
BooleanT MsgChannelIsDown(MsgChannelO oChannel);
BooleanT MsgChannelIsNdmp(MsgChannelO oChannel);
int32 MsgChannelOutputCount(MsgChannelO oChannel);  // packets to be sent
// An object that the auditor (process 8 alone may set it) has attached to the channel.
BooleanT MsgChannelGetAuth(void** poAuth, MsgAddressO oAddress);
BooleanT MsgChannelSetAuth(MsgAddressO oAddress, void* oAuth);
// For whom the sender of a message acts; FALSE when for itself.
BooleanT MsgGetProxyPeer(MsgAddressO* poAddress, MsgMessageO oMessage);
BooleanT MsgIsFromAProxy(MsgMessageO oMessage);

// --- sending ---

// FALSE when the message cannot be sent: what was sent has been queued or handed over, which is no
// promise that it arrives. Messages above the configured size are refused.
BooleanT MsgSendObject(MsgAddressO oMsgAddress, MsgTypeT tMsgType, void* oObject);
// These take over the packet, also when they fail, and clear the variable.
BooleanT MsgDispatch(MsgPacketO* poPacket);
BooleanT MsgChannelDispatch(MsgChannelO oChannel, MsgPacketO* poPacket);
// Queued, not sent; the packet stays the caller's.
BooleanT MsgChannelAddPacket(MsgChannelO oChannel, MsgPacketO oPacket);
BooleanT MsgChannelOutputData(MsgChannelO oChannel);  // sends what it can; FALSE once it is down
BooleanT MsgChannelInputData(MsgChannelO oChannel);   // reads what is there; FALSE once it is down

// --- receiving ---

// One call waits at most once, so it may end before the timeout without a message. A null timeout
// never expires.
BooleanT MsgReceive(MsgMessageO* poMessage, TimeTimeoutO oTimeout);
BooleanT MsgReceivePacket(MsgPacketO* poPacket, TimeTimeoutO oTimeout);
BooleanT MsgPoll(MsgMessageO* poMessage);
BooleanT MsgReceiveObject(MsgTypeT* ptMsgType, void** poObject, TimeTimeoutO oTimeout);
BooleanT MsgWait(TimeTimeoutO oTimeout);  // TRUE when packets wait afterwards
BooleanT MsgPending();
BooleanT MsgPendingWithTimeout(int32 lTimeout);  // milliseconds
// The first message of that type (0: any) from that address (null: any), waiting as long as it
// takes. Ends at once when the address or the link to it is gone.
BooleanT MsgReceiveMsgTypeFromAddress(MsgMessageO* poMessage, MsgTypeT tMsgType,
                                      MsgAddressO oAddress, TimeTimeoutO oTimeout);

BooleanT MsgReceivePushPacket(MsgPacketO oPacket);  // appended; a new holder
BooleanT MsgReceivePopPacket(MsgPacketO* poPacket);
int32 MsgReceiveCount();
BooleanT MsgWalkReceiveList(MsgPacketCallbackFnT fnCallback, void* pArgument);
// Taken one by one from the front of the list and put at the head of the receive list, so that the
// given list's last one is received first.
BooleanT MsgPushPackets(ListO oPackets);
BooleanT MsgPushMessages(ListO oMessages);

// --- the select loop ---

void MsgAddReadSelect(NetSocketT tSocket);
void MsgAddWriteSelect(NetSocketT tSocket);
void MsgAddExceptionSelect(NetSocketT tSocket);
void MsgRemoveReadSelect(NetSocketT tSocket);
void MsgRemoveWriteSelect(NetSocketT tSocket);
void MsgRemoveExceptionSelect(NetSocketT tSocket);
// Whether the application or the layer waits for the socket.
BooleanT MsgIsReadSelectSet(NetSocketT tSocket);
BooleanT MsgIsWriteSelectSet(NetSocketT tSocket);
BooleanT MsgIsExceptionSelectSet(NetSocketT tSocket);
BooleanT MsgHandlerAdd(MsgHandlerCallbackFnT fnCallback, void* oCookie);  // holds the cookie
BooleanT MsgHandlerRemove(MsgHandlerCallbackFnT fnCallback, void* oCookie);
void MsgCheckSelect();  // traces which of the sockets waited for is ready
