// What the sources of the network share.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <span>

#include "core/net.h"

constexpr char NetInheritDescriptor[] = "i;b;p;i;i;d;";

// Trace the result of an operation, "TRUE = NetClose(...)" or "3 = NetSelect(...)", and return it;
// the text is that of the call. errno stays as it is.
BooleanT NetResult(int32 lTraceId, BooleanT bResult, const char* pstrFormat, ...)
    __attribute__((format(printf, 3, 4)));
NetErrorE NetResult(int32 lTraceId, NetErrorE eResult, const char* pstrFormat, ...)
    __attribute__((format(printf, 3, 4)));

// True, and traced, when an operation on a socket lacks the socket or another argument.
bool NetRefuses(const char* pstrOperation, NetSocketT tSocket, bool bArguments = true);

// Closes the descriptor. -1, with errno, when it stays open.
int NetCloseDescriptor(NetSocketT tSocket);

// The flag FD_CLOEXEC. FALSE, with errno, when it cannot be changed.
BooleanT NetSetCloseOnExec(NetSocketT tSocket, bool bOn);

constexpr socklen_t NetAddressLength(const NetAddressT& tAddress) {
    return tAddress.sFamily == AF_INET6 ? 32 : 16;
}

inline sockaddr* NetSystemAddress(NetAddressT* ptAddress) {
    return reinterpret_cast<sockaddr*>(ptAddress);
}

// The numeric text without brackets; "(null)" when there is none.
const char* NetNumericText(NetAddressT* ptAddress, char (&acText)[NetIpAddressSize]);

// The child's side of a hand-over without the answer to the parent: moves the socket out of the
// context into *ptSocket.
BooleanT NetInheritTake(NetSocketT* ptSocket, NetInheritContextO oContext);

// One receive into several buffers in turn, which never waits.
NetErrorE NetTcpReceiveParts(int32* plReceived, NetSocketT tSocket, std::span<iovec> atParts);
