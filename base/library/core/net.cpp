// Sockets: opening, closing and options. Each operation is one system call between a check of its
// arguments and a traced result; what differs between the options are the numbers and texts that
// they hand to two helpers. The rest of the network is in nettransfer.cpp (moving data),
// netaddress.cpp, nethost.cpp (names), netconnect.cpp, netselect.cpp and netinherit.cpp.
#include "core/net.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "core/cfg.h"
#include "core/errnokeeper.h"
#include "core/list.h"
#include "core/trace.h"
#include "netinternal.h"

TRACE_MODULE("NET")

namespace {

constexpr int NetPeerSeconds = 300;  // until a silent machine counts as gone
constexpr int32 NetPeerSecondsMax = 1000000;
constexpr int NetKeepAliveProbes = 5;

ListO goNotResolved = nullptr;  // NetAddressO

void NetTraceResult(int32 lTraceId, const char* pstrResult, const char* pstrFormat,
                    std::va_list tArgs) {
    const ErrnoKeeper tErrno;
    char acCall[512];
    std::vsnprintf(acCall, sizeof(acCall), pstrFormat, tArgs);
    TraceMessageInline(lTraceId, 0, 4, "%s = %s", pstrResult, acCall);
}

// Traces the failure of a system call: the text, ": " and the reason.
BooleanT NetFailed(int32 lTraceId, const char* pstrText) {
    const ErrnoKeeper tErrno;
    TraceMessageInline(lTraceId, tErrno.Code(), -1, "%s: %s", pstrText, tErrno.Text());
    return FALSE;
}

// --- opening ---

// An interrupted call is repeated.
NetSocketT NetNewSocket(int iType, int iFamily) {
    return SysRepeat([&] { return socket(iFamily, iType | SOCK_CLOEXEC, 0); });
}

BooleanT NetSetBroadcast(NetSocketT tSocket) {
    const int iOn = 1;
    if (setsockopt(tSocket, SOL_SOCKET, SO_BROADCAST, &iOn, sizeof(iOn)) == 0) return TRUE;
    return NetFailed(9, "Failed to set BROADCAST value");
}

// The configured hop limit; 0 keeps the system's.
BooleanT NetSetHopLimit(NetSocketT tSocket, int iFamily) {
    int32 lHops = 0;
    CfgGetInteger(&lHops, "tlnmgr.cfg", "Network", "TTL", 0);
    if (lHops <= 0) return TRUE;
    const bool bInet6 = iFamily == AF_INET6;
    if (setsockopt(tSocket, bInet6 ? IPPROTO_IPV6 : IPPROTO_IP, bInet6 ? IPV6_UNICAST_HOPS : IP_TTL,
                   &lHops, sizeof(lHops)) == 0) {
        return TRUE;
    }
    return NetFailed(10, "Failed to set TTL value");
}

BooleanT NetOpenUdp(NetSocketT* ptSocket, int iFamily) {
    NetSocketT tSocket = NetNewSocket(SOCK_DGRAM, iFamily);
    if (tSocket == NetNoSocket) return NetFailed(11, "Failed to create UDP socket");
    if (NetSetBroadcast(tSocket) != TRUE || NetSetHopLimit(tSocket, iFamily) != TRUE) {
        const ErrnoKeeper tErrno;
        NetCloseDescriptor(tSocket);
        return FALSE;
    }
    *ptSocket = tSocket;
    return TRUE;
}

BooleanT NetOpenTcp(NetSocketT* ptSocket, int iFamily) {
    const NetSocketT tSocket = NetNewSocket(SOCK_STREAM, iFamily);
    if (tSocket == NetNoSocket) return NetFailed(12, "Failed to create TCP socket");
    *ptSocket = tSocket;
    return TRUE;
}

BooleanT NetOpenType(NetSocketT* ptSocket, NetOpenTypeE tType, int iFamily) {
    if (ptSocket != nullptr && tType == NET_TYPE_UDP) return NetOpenUdp(ptSocket, iFamily);
    if (ptSocket != nullptr && tType == NET_TYPE_TCP) return NetOpenTcp(ptSocket, iFamily);
    TraceMessageInline(13, 0, -1, "NetOpen: invalid arguments %p %d", static_cast<void*>(ptSocket),
                       tType);
    return FALSE;
}

// --- options ---

// Those that report trace the result under lTraceId and a failure under the number behind it.

template <class T>
BooleanT NetSetOption(const char* pstrOperation, NetSocketT tSocket, int iOption, const T& tValue,
                      int32 lFailureId, const char* pstrFailure) {
    if (NetRefuses(pstrOperation, tSocket)) return FALSE;
    if (setsockopt(tSocket, SOL_SOCKET, iOption, &tValue, sizeof(tValue)) == 0) return TRUE;
    return NetFailed(lFailureId, pstrFailure);
}

template <class T>
BooleanT NetSwitchOn(const char* pstrOperation, NetSocketT tSocket, int iOption, const T& tValue,
                     int32 lTraceId, const char* pstrFailure) {
    return NetResult(
        lTraceId, NetSetOption(pstrOperation, tSocket, iOption, tValue, lTraceId + 1, pstrFailure),
        "%s(%d)", pstrOperation, tSocket);
}

BooleanT NetSetBufferSize(const char* pstrOperation, NetSocketT tSocket, int iOption, int32 lSize,
                          int32 lTraceId, const char* pstrFailure) {
    return NetResult(
        lTraceId, NetSetOption(pstrOperation, tSocket, iOption, lSize, lTraceId + 1, pstrFailure),
        "%s(%d, %d)", pstrOperation, tSocket, lSize);
}

bool NetSetTcpOption(NetSocketT tSocket, int iOption, int iValue) {
    if (setsockopt(tSocket, IPPROTO_TCP, iOption, &iValue, sizeof(iValue)) == 0) return true;
    NetFailed(138, "Failed to prepare stream");
    return false;
}

BooleanT NetGetOption(const char* pstrOperation, int32* plValue, NetSocketT tSocket, int iOption,
                      int32 lFailureId, const char* pstrFailure) {
    if (NetRefuses(pstrOperation, tSocket, plValue != nullptr)) return FALSE;
    int iValue = 0;
    socklen_t iLength = sizeof(iValue);
    if (getsockopt(tSocket, SOL_SOCKET, iOption, &iValue, &iLength) != 0)
        return NetFailed(lFailureId, pstrFailure);
    *plValue = iValue;
    return TRUE;
}

BooleanT NetReadOption(const char* pstrOperation, int32* plValue, NetSocketT tSocket, int iOption,
                       int32 lTraceId, const char* pstrFailure) {
    return NetResult(
        lTraceId, NetGetOption(pstrOperation, plValue, tSocket, iOption, lTraceId + 1, pstrFailure),
        "%s(%p, %d)", pstrOperation, static_cast<void*>(plValue), tSocket);
}

BooleanT NetChangeBlocking(const char* pstrOperation, NetSocketT tSocket, bool bBlocking) {
    if (NetRefuses(pstrOperation, tSocket)) return FALSE;
    const int iFlags = SysRepeat([&] { return fcntl(tSocket, F_GETFL); });
    if (iFlags == -1) return NetFailed(14, "Failed to get socket flags");
    const int iNew = bBlocking ? iFlags & ~O_NONBLOCK : iFlags | O_NONBLOCK;
    if (SysRepeat([&] { return fcntl(tSocket, F_SETFL, iNew); }) != -1) return TRUE;
    return NetFailed(15, "Failed to set socket flags");
}

using NetNameFnT = int (*)(int iSocket, sockaddr* ptAddress, socklen_t* piLength);

// One of the two addresses of a socket.
BooleanT NetGetEnd(NetAddressT* ptAddress, NetSocketT tSocket, NetNameFnT fnName) {
    NetAddressT tAddress = {};
    socklen_t iLength = sizeof(tAddress);
    if (fnName(tSocket, NetSystemAddress(&tAddress), &iLength) != 0) return FALSE;
    *ptAddress = tAddress;
    return TRUE;
}

BooleanT NetReadEnd(const char* pstrOperation, NetAddressT* ptAddress, NetSocketT tSocket,
                    NetNameFnT fnName, int32 lTraceId, const char* pstrFailure) {
    BooleanT bResult = BooleanFrom(!NetRefuses(pstrOperation, tSocket, ptAddress != nullptr));
    if (bResult == TRUE && NetGetEnd(ptAddress, tSocket, fnName) != TRUE)
        bResult = NetFailed(lTraceId + 1, pstrFailure);
    return NetResult(lTraceId, bResult, "%s(%p, %d)", pstrOperation, static_cast<void*>(ptAddress),
                     tSocket);
}

BooleanT NetHoldsError(NetSocketT tSocket) {
    int32 lError = 0;
    if (NetGetOption("NetSocketError", &lError, tSocket, SO_ERROR, 16,
                     "Failed to get error of socket") != TRUE ||
        lError == 0) {
        return FALSE;
    }
    TraceMessageInline(17, lError, -1, "SO_ERROR: %s", std::strerror(lError));
    return TRUE;
}

BooleanT NetCanSend(NetSocketT tSocket) {
    if (NetRefuses("NetIsConnected", tSocket) || NetHoldsError(tSocket) == TRUE) return FALSE;
    return BooleanFrom(SysRepeat([&] { return send(tSocket, "", 0, MSG_NOSIGNAL); }) == 0);
}

}  // namespace

// --- shared by the sources of the network ---

BooleanT NetResult(int32 lTraceId, BooleanT bResult, const char* pstrFormat, ...) {
    if (TraceWouldTrace(eTraceLevelLibVerbose) != TRUE) return bResult;
    std::va_list tArgs;
    va_start(tArgs, pstrFormat);
    NetTraceResult(lTraceId, BooleanText(bResult), pstrFormat, tArgs);
    va_end(tArgs);
    return bResult;
}

NetErrorE NetResult(int32 lTraceId, NetErrorE eResult, const char* pstrFormat, ...) {
    if (TraceWouldTrace(eTraceLevelLibVerbose) != TRUE) return eResult;
    char acResult[16];
    std::snprintf(acResult, sizeof(acResult), "%d", eResult);
    std::va_list tArgs;
    va_start(tArgs, pstrFormat);
    NetTraceResult(lTraceId, acResult, pstrFormat, tArgs);
    va_end(tArgs);
    return eResult;
}

bool NetRefuses(const char* pstrOperation, NetSocketT tSocket, bool bArguments) {
    if (tSocket != NetNoSocket && bArguments) return false;
    TraceMessageInline(18, 0, -1, "%s: invalid arguments, socket %d", pstrOperation, tSocket);
    return true;
}

int NetCloseDescriptor(NetSocketT tSocket) {
    bool bInterrupted = false;
    while (close(tSocket) == -1) {
        // Some systems have closed the descriptor when they report the interruption.
        if (bInterrupted && errno == EBADF) return 0;
        if (errno != EINTR) return -1;
        bInterrupted = true;
    }
    return 0;
}

BooleanT NetSetCloseOnExec(NetSocketT tSocket, bool bOn) {
    const int iFlags = SysRepeat([&] { return fcntl(tSocket, F_GETFD); });
    if (iFlags == -1) return FALSE;
    const int iNew = bOn ? iFlags | FD_CLOEXEC : iFlags & ~FD_CLOEXEC;
    return BooleanFrom(SysRepeat([&] { return fcntl(tSocket, F_SETFD, iNew); }) != -1);
}

// --- life cycle ---

BooleanT NetInitialize() {
    if (goNotResolved == nullptr) goNotResolved = ListNew(NetAddressMagic);
    return NetResult(19, BooleanFrom(goNotResolved != nullptr), "NetInitialize()");
}

BooleanT NetInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void NetReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT NetClearCaches() {
    if (goNotResolved != nullptr) ListReleaseAll(goNotResolved);
    return NetResult(20, TRUE, "NetClearCaches()");
}

BooleanT NetOpen(NetSocketT* ptSocket, NetOpenTypeE tType, std::int16_t sFamily) {
    return NetResult(21, NetOpenType(ptSocket, tType, sFamily), "NetOpen(%p, %d, %d)",
                     static_cast<void*>(ptSocket), tType, sFamily);
}

BooleanT NetClose(NetSocketT* ptSocket) {
    if (ptSocket == nullptr || *ptSocket == NetNoSocket) return FALSE;
    BooleanT bResult = TRUE;
    if (NetCloseDescriptor(*ptSocket) == 0)
        *ptSocket = NetNoSocket;
    else
        bResult = NetFailed(22, "Failed to close socket");
    return NetResult(23, bResult, "NetClose(%p)", static_cast<void*>(ptSocket));
}

// --- options ---

BooleanT NetSetNonBlocking(NetSocketT tSocket) {
    return NetResult(24, NetChangeBlocking("NetSetNonBlocking", tSocket, false),
                     "NetSetNonBlocking(%d)", tSocket);
}

BooleanT NetSetBlocking(NetSocketT tSocket) {
    return NetResult(25, NetChangeBlocking("NetSetBlocking", tSocket, true), "NetSetBlocking(%d)",
                     tSocket);
}

BooleanT NetListen(NetSocketT tSocket, int32 lQueueLength) {
    BooleanT bResult = BooleanFrom(!NetRefuses("NetListen", tSocket));
    if (bResult == TRUE && listen(tSocket, lQueueLength) != 0)
        bResult = NetFailed(26, "Failed to listen on socket");
    return NetResult(27, bResult, "NetListen(%d, %d)", tSocket, lQueueLength);
}

BooleanT NetSetReuseAddress(NetSocketT tSocket) {
    return NetSwitchOn("NetSetReuseAddress", tSocket, SO_REUSEADDR, int{1}, 28,
                       "Failed to set reuse address on ");
}

BooleanT NetGetReuseAddress(BooleanT* pbOn, NetSocketT tSocket) {
    const BooleanT bResult = NetReadOption("NetGetReuseAddress", pbOn, tSocket, SO_REUSEADDR, 30,
                                           "Failed to get reuse address on ");
    if (bResult == TRUE) *pbOn = BooleanFrom(*pbOn != 0);
    return bResult;
}

BooleanT NetSetKeepAlive(NetSocketT tSocket) {
    return NetSwitchOn("NetSetKeepAlive", tSocket, SO_KEEPALIVE, int{1}, 32,
                       "Failed to set keepalive on ");
}

BooleanT NetSetNoLinger(NetSocketT tSocket) {
    return NetSwitchOn("NetSetNoLinger", tSocket, SO_LINGER, linger{.l_onoff = 1, .l_linger = 0},
                       34, "Failed to set no linger ");
}

BooleanT NetPrepareStream(NetSocketT tSocket, int32 lPeerSeconds) {
    // A silent connection is asked NetKeepAliveProbes times whether it is alive, the last time
    // after all of the time; sent data has a limit of its own.
    const int iSeconds = lPeerSeconds > 0 ? lPeerSeconds : NetPeerSeconds;
    const int iInterval = std::max(1, iSeconds / (2 * NetKeepAliveProbes));
    bool bResult = NetSetKeepAlive(tSocket) == TRUE && NetSetTcpOption(tSocket, TCP_NODELAY, 1) &&
                   NetSetTcpOption(tSocket, TCP_KEEPIDLE, std::max(1, iSeconds / 2)) &&
                   NetSetTcpOption(tSocket, TCP_KEEPINTVL, iInterval) &&
                   NetSetTcpOption(tSocket, TCP_KEEPCNT, NetKeepAliveProbes);
    if (bResult && lPeerSeconds > 0) {
        const int iMilliseconds = std::min(lPeerSeconds, NetPeerSecondsMax) * 1000;
        bResult = NetSetTcpOption(tSocket, TCP_USER_TIMEOUT, iMilliseconds);
    }
    return NetResult(137, BooleanFrom(bResult), "NetPrepareStream(%d, %d)", tSocket, lPeerSeconds);
}

BooleanT NetSetSendBufferSize(NetSocketT tSocket, int32 lBufferSize) {
    return NetSetBufferSize("NetSetSendBufferSize", tSocket, SO_SNDBUF, lBufferSize, 36,
                            "Failed to set send buffer size");
}

BooleanT NetGetSendBufferSize(int32* plBufferSize, NetSocketT tSocket) {
    return NetReadOption("NetGetSendBufferSize", plBufferSize, tSocket, SO_SNDBUF, 38,
                         "Failed to get send buffer size");
}

BooleanT NetSetReceiveBufferSize(NetSocketT tSocket, int32 lBufferSize) {
    return NetSetBufferSize("NetSetReceiveBufferSize", tSocket, SO_RCVBUF, lBufferSize, 40,
                            "Failed to set receive buffer size");
}

BooleanT NetGetReceiveBufferSize(int32* plBufferSize, NetSocketT tSocket) {
    return NetReadOption("NetGetReceiveBufferSize", plBufferSize, tSocket, SO_RCVBUF, 42,
                         "Failed to get receive buffer size");
}

BooleanT NetGetLocalAddress(NetAddressT* ptAddress, NetSocketT tSocket) {
    return NetReadEnd("NetGetLocalAddress", ptAddress, tSocket, getsockname, 44,
                      "Failed to get local address of socket");
}

BooleanT NetGetRemoteAddress(NetAddressT* ptAddress, NetSocketT tSocket) {
    return NetReadEnd("NetGetRemoteAddress", ptAddress, tSocket, getpeername, 46,
                      "Failed to get remote address of socket");
}

BooleanT NetSocketError(NetSocketT tSocket) {
    return NetResult(48, NetHoldsError(tSocket), "NetSocketError(%d)", tSocket);
}

BooleanT NetIsConnected(NetSocketT tSocket) {
    return NetResult(49, NetCanSend(tSocket), "NetIsConnected(%d)", tSocket);
}

BooleanT NetGetMaximumMessageSize(int32* plMaximumSize, NetSocketT tSocket) {
    return NetResult(50, FALSE, "NetGetMaximumMessageSize(%p, %d)",
                     static_cast<void*>(plMaximumSize), tSocket);
}

BooleanT NetTcpSetNoDelay(NetSocketT tSocket) {
    return NetResult(51, FALSE, "NetTcpSetNoDelay(%d)", tSocket);
}
