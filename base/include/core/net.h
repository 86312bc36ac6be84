// Network: UDP and TCP sockets for IPv4 and IPv6, their addresses, the names of hosts, waiting for
// sockets, and the hand-over of an open socket to a child process.
//
// A socket is a descriptor, -1 when there is none; it belongs to its caller, is closed when another
// program is executed, and never raises SIGPIPE. Nothing here locks, and nothing stops the process:
// an operation that fails traces a line at the error level and gives FALSE or a NetErrorE. Its
// out-parameters are then as they were, except where it is said otherwise. Ports are in host order,
// 0 to 65535, addresses in network order.
#pragma once

#include <sys/select.h>

#include "core/object.h"
#include "core/time.h"
#include "core/types.h"

struct TesselContextNetS {
    int32 InheritSocket;  // counter of sockets handed to child processes
};

using NetSocketT = int32;
constexpr NetSocketT NetNoSocket = -1;

constexpr int32 NetAddressMagic = ObjMagic(0xcaf097a5);
constexpr int32 NetInheritContextMagic = ObjMagic(0xca0f3196);

// An address and port; all 32 bytes may be handed to the system as a socket address.
struct NetAddressT {
    std::int16_t sFamily;  // AF_INET or AF_INET6, in host order
    ByteT aAddress[30];    // the rest of the platform's sockaddr_in or sockaddr_in6
};
static_assert(sizeof(NetAddressT) == 32);

struct NetAddressS {  // descriptor "n32;"
    NetAddressT tAddress;
};
using NetAddressO = NetAddressS*;

enum NetOpenTypeE : int32 { NET_TYPE_UDP = 1, NET_TYPE_TCP = 2 };

enum NetAddressCompareTypeE : int32 {
    NetAddressCompareTypeAll = 0,     // address and port
    NetAddressCompareTypeNoPort = 1,  // address alone
};

// Results of the operations that move data, connect or wait.
enum NetErrorE : int32 {
    NET_ERROR_FATAL = -1,
    NET_ERROR_NONE = 0,
    NET_ERROR_WOULD_BLOCK = 1,
    NET_ERROR_INTERRUPTED = 2,  // by a signal: the caller may try again
    NET_ERROR_TIMEOUT = 3,
    NET_ERROR_CLOSED = 4,
    NET_ERROR_CONNECT_REFUSED = 5,
    NET_ERROR_NET_UNREACHABLE = 6,
    NET_ERROR_INVALID_LENGTH = 7,  // below 1
    NET_ERROR_NOT_CONNECTED = 8,
    NET_ERROR_INVALID_SOCKET = 9,  // -1
    NET_ERROR_PROTOCOL = 10,
    NET_ERROR_DID_BLOCK = 11,
    NET_ERROR_CONNECTION_DOWN = 12,
    NET_ERROR_ACCEPT = 13,  // this connection was lost; the next may be accepted
};

BooleanT NetInitialize();
BooleanT NetInitializeThread(TesselContextT* ptTlContext);
void NetReleaseThread(TesselContextT* ptTlContext);
BooleanT NetClearCaches();  // forgets the hosts noted as not to be found

// --- opening and closing ---

// UDP sockets may broadcast and get the hop limit "TTL" of "Network" in "tlnmgr.cfg", when that is
// above 0.
BooleanT NetOpen(NetSocketT* ptSocket, NetOpenTypeE tType, std::int16_t sFamily);
// Sets *ptSocket to -1. FALSE, silently, when there is no socket; a socket that cannot be closed
// stays in *ptSocket.
BooleanT NetClose(NetSocketT* ptSocket);

// --- options and state ---

BooleanT NetSetNonBlocking(NetSocketT tSocket);
BooleanT NetSetBlocking(NetSocketT tSocket);
BooleanT NetListen(NetSocketT tSocket, int32 lQueueLength);
BooleanT NetSetReuseAddress(NetSocketT tSocket);
BooleanT NetGetReuseAddress(BooleanT* pbOn, NetSocketT tSocket);
BooleanT NetSetKeepAlive(NetSocketT tSocket);
BooleanT NetSetNoLinger(NetSocketT tSocket);  // closing discards unsent data and resets
BooleanT NetSetSendBufferSize(NetSocketT tSocket, int32 lBufferSize);  // bytes
BooleanT NetGetSendBufferSize(int32* plBufferSize, NetSocketT tSocket);
BooleanT NetSetReceiveBufferSize(NetSocketT tSocket, int32 lBufferSize);
BooleanT NetGetReceiveBufferSize(int32* plBufferSize, NetSocketT tSocket);
BooleanT NetGetLocalAddress(NetAddressT* ptAddress, NetSocketT tSocket);
BooleanT NetGetRemoteAddress(NetAddressT* ptAddress, NetSocketT tSocket);

// For a connection that carries messages: small ones leave at once, and a machine that has gone is
// found out within five minutes, or within lPeerSeconds when that is above 0. Then a peer that
// leaves what was sent unread for so long is given up as well.
BooleanT NetPrepareStream(NetSocketT tSocket, int32 lPeerSeconds);

// TRUE when the socket holds an error, which is traced and taken off it.
BooleanT NetSocketError(NetSocketT tSocket);
BooleanT NetIsConnected(NetSocketT tSocket);  // takes a pending error off the socket

BooleanT NetGetMaximumMessageSize(int32* plMaximumSize,
                                  NetSocketT tSocket);  // not provided: FALSE
BooleanT NetTcpSetNoDelay(NetSocketT tSocket);          // not provided: FALSE

// --- moving data; lengths in bytes ---

NetErrorE NetUdpSend(NetSocketT tSocket, void* pBuffer, int32 lPacketLength,
                     NetAddressT* ptDestination);
// What does not fit into the buffer is lost. ptSource may be null.
NetErrorE NetUdpReceive(int32* plPacketLength, NetSocketT tSocket, void* pBuffer,
                        int32 lBufferLength, NetAddressT* ptSource);

// One send, one receive: any number of bytes from 1 on. NET_ERROR_CLOSED when the peer has ended.
NetErrorE NetTcpSend(int32* plSent, NetSocketT tSocket, void* pBuffer, int32 lBufferLength);
NetErrorE NetTcpReceive(int32* plReceived, NetSocketT tSocket, void* pBuffer, int32 lBufferLength);

// A send that never waits, also when the socket blocks.
NetErrorE NetTcpSendNow(int32* plSent, NetSocketT tSocket, const void* pBuffer,
                        int32 lBufferLength);

// Move the whole buffer, whether the socket blocks or not, and wait until oTimeout (null or never:
// without limit) when the socket is not ready. The bytes moved are stored also on failure (by the
// receiving form only when socket and length were valid). plElapse (may be null): the milliseconds
// waited are added. pbBlocked (may be null): set to TRUE when there was a wait, never to FALSE.
NetErrorE NetTcpSendBlocking(int32* plBytesSent, NetSocketT tSocket, void* pBuffer,
                             int32 lBufferLength, TimeTimeoutO oTimeout, int32* plElapse,
                             BooleanT* pbBlocked);
NetErrorE NetTcpReceiveBlocking(int32* plBytesReceived, NetSocketT tSocket, void* pBuffer,
                                int32 lBufferLength, TimeTimeoutO oTimeout, int32* plElapse,
                                BooleanT* pbBlocked);

// --- addresses ---

// From a numeric text, IPv6 without brackets. On failure the address is left cleared.
BooleanT NetInitializeIpAddress(NetAddressT* ptAddress, const char* pstrIpAddress, int32 lPort,
                                std::int16_t sFamily);
BooleanT NetSetIpPort(NetAddressT* ptAddress, int32 lPort);
int32 NetGetIpPort(NetAddressT* ptAddress);  // -1 for null
int32 NetGetFamily(NetAddressT* ptAddress);  // -1 for null

constexpr int32 NetIpAddressSize = 64;  // bytes that hold the text of any address
// The numeric text, IPv6 in brackets, in the caller's buffer, which is returned; null when it does
// not fit and for a family that has no such text.
char* NetGetIpAddress(NetAddressT* ptAddress, char* pstrIpAddress, int32 lLength);

// An IPv4 address also equals the IPv6 address that it is mapped to (::ffff:a.b.c.d). Two null
// addresses are equal.
BooleanT NetAddressEqual(NetAddressT* ptAddress1, NetAddressT* ptAddress2,
                         NetAddressCompareTypeE eType);
// Two NetAddressO, without their ports; FALSE for null. A callback for searching lists.
BooleanT NetAddressIsEqual(void* oAddress1, void* oAddress2);

BooleanT NetAddressIsInet6(const char* pstrText);  // holds a ':'
BooleanT NetAddressIsInet(const char* pstrText);   // four numbers joined by dots

// --- hosts and services ---

// Appends the host's addresses (NetAddressO, port 0) to the list; sFamily 0 for both families. The
// network directory is asked when the name service knows no answer. TRUE when some were appended;
// FALSE at once for a numeric text of the other family.
BooleanT NetGetHostAddress(ListO oAddressList, const char* pstrHostName, std::int16_t sFamily);

// The node name, cut to the buffer. FALSE, traced, for a buffer of 256 bytes or less.
BooleanT NetGetLocalHostName(char* acBuffer, int32 lBufSize);
BooleanT NetGetLocalHostAddress(ListO oAddressList, std::int16_t sFamily);

// The names of a host (string objects, the official one first) and its addresses (NetAddressO, each
// once), as two new lists, the caller's, also on failure. TRUE when an address was found.
BooleanT NetGetHostDetails(const char* pstrHostname, ListO* poAliases, ListO* poIpAddress);

// From the service database; the type is "tcp" or "udp".
BooleanT NetGetServicePort(int32* plPort, char* pstrServiceName, char* pstrServiceType);

// --- binding, accepting, connecting ---

BooleanT NetBind(NetSocketT tSocket, NetAddressT* ptAddress);
// Binds to the first port that is free among those that "Ports" (bIn) or "Out Ports" of the section
// pstrType in "firewall.cfg" list, each a number or a range "low - high"; to one that the system
// chooses when none is listed. Entries that are neither, or hold a number that is no port, are
// passed over.
BooleanT NetBindThroughFirewallTyped(NetSocketT tSocket, const char* pstrIpAddress,
                                     const char* pstrType, BooleanT bIn, std::int16_t sFamily);

// The peer's address goes to *ptAddress (may be null). NET_ERROR_WOULD_BLOCK when nobody calls.
NetErrorE NetAccept(NetSocketT* ptAcceptSocket, NetSocketT tSocket, NetAddressT* ptAddress);
// NET_ERROR_WOULD_BLOCK when the connection is still being made: the socket is writable when that
// has ended, and NetSocketError tells how.
NetErrorE NetConnect(NetSocketT tSocket, NetAddressT* ptAddress);

// --- select masks: sets of sockets to wait for ---

struct NetSelectMaskS {
    fd_set tRecvFds;
    fd_set tSendFds;
    fd_set tExcpFds;
    int32 tSelectBits;  // one more than the highest socket ever added
};
using NetSelectMaskT = NetSelectMaskS*;

BooleanT NetInitializeSelectMask(NetSelectMaskT* ptMask);  // new and empty; the caller's
BooleanT NetDuplicateSelectMask(NetSelectMaskT* ptNewMask, NetSelectMaskT tMask);  // the same
BooleanT NetCopySelectMask(NetSelectMaskT tNewMask, NetSelectMaskT tMask);
BooleanT NetReleaseSelectMask(NetSelectMaskT* ptMask);

// Only sockets below FD_SETSIZE fit into a mask: others are refused, with the mask unchanged, and
// never set. FALSE for a null mask and socket -1 as well.
BooleanT NetAddReadSelect(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetAddWriteSelect(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetAddExceptionSelect(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetRemoveReadSelect(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetRemoveWriteSelect(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetRemoveExceptionSelect(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetIsReadSelectSet(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetIsWriteSelectSet(NetSelectMaskT tMask, NetSocketT tSocket);
BooleanT NetIsExceptionSelectSet(NetSelectMaskT tMask, NetSocketT tSocket);

// Wait for a socket of the mask, which afterwards holds only the ready ones: pass a copy.
// plSelected (may be null) receives their number. NetSelect waits until oTimeout, a day at the
// most; for null and never without limit.
NetErrorE NetSelect(int32* plSelected, NetSelectMaskT tMask, TimeTimeoutO oTimeout);
// Waits lTimeout milliseconds; a negative time waits without limit, 0 does not wait.
NetErrorE NetSelectRelative(int32* plSelected, NetSelectMaskT tMask, int32 lTimeout);

// For diagnosis: traces for every socket of the mask whether it is ready. The mask is kept.
BooleanT NetCheckSelect(NetSelectMaskT tMask);

// --- handing an open socket over to a child process ---
//
// The parent makes the context (phase 1), starts the child, which inherits the descriptor, and
// gives its own up (phase 2). It sends the context to the child (phase 3), which takes the socket
// out and sends the context back (phase 4); the parent finds its own by NetInheritMatch and ends
// both with NetInheritDone.

// Descriptor "i;b;p;i;i;d;".
struct NetInheritContextS {
    int32 lInstance;  // numbers the hand-overs of this process
    BooleanT bSuccess;
    std::intptr_t tSocket;  // the low 32 bits count; -1 once the child has taken it
    ProcIdT lParentId;
    int32 lRealChildId;   // the system's process id; from then on the socket is the child's
    ObjDataFieldT tData;  // empty
};
using NetInheritContextO = NetInheritContextS*;

BooleanT NetInheritPhase1(NetInheritContextO* poContext, NetSocketT tSocket);  // the caller's
BooleanT NetInheritPhase2(NetInheritContextO oContext, int32 lRealId);
BooleanT NetInheritPhase3(NetInheritContextO oContext, int32 lChildProcessId);
BooleanT NetInheritPhase4(NetSocketT* ptSocket, NetInheritContextO oContext);
// Releases the context and closes its socket when that is still this process's: in the parent
// before phase 2, in the child before phase 4.
BooleanT NetInheritDone(NetInheritContextO* poContext);
BooleanT NetInheritMatch(NetInheritContextO oContext1, NetInheritContextO oContext2);
