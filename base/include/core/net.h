// Network: names and addresses of hosts, waiting for sockets.
#pragma once

#include <sys/select.h>

#include "core/object.h"
#include "core/time.h"
#include "core/types.h"

struct TesselContextNetS {
    int32 InheritSocket;  // counter of sockets handed to child processes
};

constexpr int32 NetAddressMagic = ObjMagic(0xcaf097a5);

// An address and port, laid out the same on every host; port and address are in network order.
struct NetAddressT {
    std::int16_t sFamily;  // AF_INET or AF_INET6, in host order
    ByteT aAddress[30];    // the rest of the platform's sockaddr_in or sockaddr_in6
};
static_assert(sizeof(NetAddressT) == 32);

struct NetAddressS {  // descriptor "n32;"
    NetAddressT tAddress;
};
using NetAddressO = NetAddressS*;

// Results of the operations that move data or wait.
enum NetErrorE : int32 {
    NET_ERROR_FATAL = -1,
    NET_ERROR_NONE = 0,
    NET_ERROR_WOULD_BLOCK = 1,
    NET_ERROR_INTERRUPTED = 2,
    NET_ERROR_TIMEOUT = 3,
    NET_ERROR_CLOSED = 4,
    NET_ERROR_CONNECT_REFUSED = 5,
    NET_ERROR_NET_UNREACHABLE = 6,
    NET_ERROR_INVALID_LENGTH = 7,
    NET_ERROR_NOT_CONNECTED = 8,
    NET_ERROR_INVALID_SOCKET = 9,
    NET_ERROR_PROTOCOL = 10,
    NET_ERROR_DID_BLOCK = 11,
    NET_ERROR_CONNECTION_DOWN = 12,
    NET_ERROR_ACCEPT = 13,
};

BooleanT NetInitialize();
BooleanT NetInitializeThread(TesselContextT* ptTlContext);
void NetReleaseThread(TesselContextT* ptTlContext);

// The node name, cut to the buffer. FALSE, traced, for a buffer of 256 bytes or less.
BooleanT NetGetLocalHostName(char* acBuffer, int32 lBufSize);

// The names of a host (string objects, the official one first) and its addresses (NetAddressO, each
// once), as two new lists, the caller's, also on failure. TRUE when an address was found.
BooleanT NetGetHostDetails(const char* pstrHostname, ListO* poAliases, ListO* poIpAddress);

// --- select masks: sets of sockets to wait for ---

struct NetSelectMaskS {
    fd_set tRecvFds;
    fd_set tSendFds;
    fd_set tExcpFds;
    int32 tSelectBits;  // one more than the highest socket ever added
};
using NetSelectMaskT = NetSelectMaskS*;

BooleanT NetInitializeSelectMask(NetSelectMaskT* ptMask);  // new and empty; the caller's
BooleanT NetReleaseSelectMask(NetSelectMaskT* ptMask);

// Waits lTimeout milliseconds for a socket of the mask, which then holds only the ready ones; a
// negative time waits without limit, 0 does not wait.
NetErrorE NetSelectRelative(int32* plSelected, NetSelectMaskT tMask, int32 lTimeout);
