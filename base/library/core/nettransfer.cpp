// Moving data. A single transfer is one system call whose outcome a table turns into a result: the
// common rows stand in NetOutcomeOf, each direction adds its own. A blocking transfer repeats the
// call without blocking in it and waits in poll, which takes any descriptor and keeps the deadline
// also for a socket that would block. No call here raises SIGPIPE.
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <span>

#include "core/errnokeeper.h"
#include "core/timeconv.h"
#include "core/trace.h"
#include "netinternal.h"

TRACE_MODULE("NET")

namespace {

// How an errno value ends a transfer.
struct NetOutcomeT {
    int iErrno;
    NetErrorE eResult;
};

constexpr NetOutcomeT atUdpSendOutcomes[] = {{EINTR, NET_ERROR_INTERRUPTED},
                                             {EAGAIN, NET_ERROR_WOULD_BLOCK}};
constexpr NetOutcomeT atUdpReceiveOutcomes[] = {{EINTR, NET_ERROR_INTERRUPTED},
                                                {EAGAIN, NET_ERROR_WOULD_BLOCK},
                                                {EPIPE, NET_ERROR_CONNECTION_DOWN}};
constexpr NetOutcomeT atTcpSendOutcomes[] = {{EINTR, NET_ERROR_INTERRUPTED},
                                             {EAGAIN, NET_ERROR_WOULD_BLOCK},
                                             {ENOMEM, NET_ERROR_WOULD_BLOCK},
                                             {EPIPE, NET_ERROR_CONNECTION_DOWN},
                                             {ENOTCONN, NET_ERROR_NOT_CONNECTED}};
constexpr NetOutcomeT atTcpReceiveOutcomes[] = {{EINTR, NET_ERROR_INTERRUPTED},
                                                {EAGAIN, NET_ERROR_WOULD_BLOCK},
                                                {EPIPE, NET_ERROR_CONNECTION_DOWN},
                                                {ECONNREFUSED, NET_ERROR_CONNECT_REFUSED}};

NetErrorE NetOutcomeOf(std::span<const NetOutcomeT> atOutcomes, int iErrno) {
    for (const NetOutcomeT& tOutcome : atOutcomes)
        if (tOutcome.iErrno == iErrno) return tOutcome.eResult;
    return NET_ERROR_FATAL;
}

NetErrorE NetCheckTransfer(NetSocketT tSocket, int32 lLength) {
    if (tSocket == NetNoSocket) {
        TraceMessageInline(52, 0, -1, "Invalid socket handle");
        return NET_ERROR_INVALID_SOCKET;
    }
    if (lLength < 1) {
        TraceMessageInline(53, 0, -1, "Invalid buffer length");
        return NET_ERROR_INVALID_LENGTH;
    }
    return NET_ERROR_NONE;
}

// --- the two directions of a stream ---

struct NetDirectionT {
    const char* pstrName;
    const char* pstrOperation;
    ssize_t (*fnMove)(NetSocketT tSocket, ByteT* pBuffer, int32 lLength, int iFlags);
    std::span<const NetOutcomeT> atOutcomes;
    short sReady;  // what to wait for
    void (*fnTraceFatal)();
};

void NetTraceFatalSend() {
    const ErrnoKeeper tErrno;
    TraceMessageInline(54, tErrno.Code(), -1, "Fatal error during TCP send: %s (%d)", tErrno.Text(),
                       tErrno.Code());
}

void NetTraceFatalReceive() {
    const ErrnoKeeper tErrno;
    TraceMessageInline(55, tErrno.Code(), -1, "Fatal error during TCP receive: %s", tErrno.Text());
}

const NetDirectionT tNetSending = {
    "send",
    "NetTcpSend",
    [](NetSocketT tSocket, ByteT* pBuffer, int32 lLength, int iFlags) {
        return send(tSocket, pBuffer, static_cast<std::size_t>(lLength), iFlags | MSG_NOSIGNAL);
    },
    atTcpSendOutcomes,
    POLLOUT,
    NetTraceFatalSend};

const NetDirectionT tNetReceiving = {
    "receive",
    "NetTcpReceive",
    [](NetSocketT tSocket, ByteT* pBuffer, int32 lLength, int iFlags) {
        return recv(tSocket, pBuffer, static_cast<std::size_t>(lLength), iFlags);
    },
    atTcpReceiveOutcomes,
    POLLIN,
    NetTraceFatalReceive};

// What a system call's return means. *plMoved is the number of bytes, 0 on failure.
NetErrorE NetMoved(int32* plMoved, const NetDirectionT& tDirection, ssize_t iMoved) {
    *plMoved = static_cast<int32>(std::max<ssize_t>(iMoved, 0));
    if (iMoved > 0) return NET_ERROR_NONE;
    if (iMoved == 0) return NET_ERROR_CLOSED;
    const NetErrorE eResult = NetOutcomeOf(tDirection.atOutcomes, errno);
    const ErrnoKeeper tErrno;
    if (eResult == NET_ERROR_FATAL) tDirection.fnTraceFatal();
    if (eResult == NET_ERROR_CONNECTION_DOWN)
        TraceMessageInline(57, tErrno.Code(), -1, "Connection down");
    return eResult;
}

// One transfer.
NetErrorE NetMove(int32* plMoved, const NetDirectionT& tDirection, NetSocketT tSocket,
                  ByteT* pBuffer, int32 lLength, int iFlags) {
    return NetMoved(plMoved, tDirection, tDirection.fnMove(tSocket, pBuffer, lLength, iFlags));
}

// The same as an operation of its own. *plMoved (may be null) stays as it is on failure.
NetErrorE NetMoveOnce(int32* plMoved, const NetDirectionT& tDirection, NetSocketT tSocket,
                      void* pBuffer, int32 lLength) {
    int32 lMoved = 0;
    NetErrorE eResult = NetCheckTransfer(tSocket, lLength);
    if (eResult == NET_ERROR_NONE)
        eResult = NetMove(&lMoved, tDirection, tSocket, static_cast<ByteT*>(pBuffer), lLength, 0);
    if (eResult == NET_ERROR_NONE && plMoved != nullptr) *plMoved = lMoved;
    return NetResult(65, eResult, "%s(%p, %d, %p, %d)", tDirection.pstrOperation,
                     static_cast<void*>(plMoved), tSocket, pBuffer, lLength);
}

// --- blocking transfers ---

// Waits until the socket can move data. The time waited is added to *plElapse (may be null).
NetErrorE NetAwait(const NetDirectionT& tDirection, NetSocketT tSocket, TimeTimeoutO oTimeout,
                   int32* plElapse) {
    const bool bNever = TimeTimeoutIsNever(oTimeout) == TRUE;
    // -1 is also the answer for a deadline that is weeks away: as long as the answer can be.
    int iWait = bNever ? -1 : TimeTimeoutLeft(oTimeout);
    if (!bNever && iWait < 0) iWait = std::numeric_limits<int>::max();
    const int64 llStart = TimeNowAsInt64();
    pollfd tPoll = {.fd = tSocket, .events = tDirection.sReady, .revents = 0};
    const int iReady = poll(&tPoll, 1, iWait);
    const ErrnoKeeper tErrno;
    if (plElapse != nullptr) {
        *plElapse = static_cast<int32>(
            std::min<int64>(*plElapse + std::max<int64>(TimeNowAsInt64() - llStart, 0),
                            std::numeric_limits<int32>::max()));
    }
    if (iReady > 0) return NET_ERROR_NONE;
    if (iReady == 0) return NET_ERROR_TIMEOUT;
    if (tErrno.Code() == EINTR) return NET_ERROR_INTERRUPTED;
    TraceMessageInline(143, tErrno.Code(), -1, "Fatal error during TCP %s: %s", tDirection.pstrName,
                       tErrno.Text());
    return NET_ERROR_FATAL;
}

// For one who wanted the whole buffer the end of the stream is a failure as well.
void NetTraceBroken(NetErrorE eResult) {
    const ErrnoKeeper tErrno;
    if (eResult == NET_ERROR_CLOSED)
        TraceMessageInline(56, 0, -1, "Socket closed unexpectedly");
    else if (eResult == NET_ERROR_NOT_CONNECTED || eResult == NET_ERROR_CONNECT_REFUSED)
        TraceMessageInline(58, tErrno.Code(), -1, "Connection refused");
}

struct NetTransferT {
    int32 lMoved = 0;
    bool bBlocked = false;
};

// Moves the whole buffer. NET_ERROR_NONE when all of it has gone.
NetErrorE NetMoveAll(NetTransferT* ptTransfer, const NetDirectionT& tDirection, NetSocketT tSocket,
                     ByteT* pBuffer, int32 lLength, TimeTimeoutO oTimeout, int32* plElapse) {
    while (ptTransfer->lMoved < lLength) {
        int32 lMoved = 0;
        NetErrorE eResult = NetMove(&lMoved, tDirection, tSocket, pBuffer + ptTransfer->lMoved,
                                    lLength - ptTransfer->lMoved, MSG_DONTWAIT);
        ptTransfer->lMoved += lMoved;
        if (eResult == NET_ERROR_WOULD_BLOCK) {
            ptTransfer->bBlocked = true;
            eResult = NetAwait(tDirection, tSocket, oTimeout, plElapse);
        }
        if (eResult == NET_ERROR_NONE || eResult == NET_ERROR_INTERRUPTED) continue;
        NetTraceBroken(eResult);
        return eResult;
    }
    return NET_ERROR_NONE;
}

NetErrorE NetMoveBlocking(int32* plMoved, const NetDirectionT& tDirection, NetSocketT tSocket,
                          void* pBuffer, int32 lLength, TimeTimeoutO oTimeout, int32* plElapse,
                          BooleanT* pbBlocked) {
    NetErrorE eResult = NetCheckTransfer(tSocket, lLength);
    if (eResult == NET_ERROR_NONE) {
        NetTransferT tTransfer;
        eResult = NetMoveAll(&tTransfer, tDirection, tSocket, static_cast<ByteT*>(pBuffer), lLength,
                             oTimeout, plElapse);
        if (plMoved != nullptr) *plMoved = tTransfer.lMoved;
        if (pbBlocked != nullptr && tTransfer.bBlocked) *pbBlocked = TRUE;
    }
    return NetResult(67, eResult, "%sBlocking(%p, %d, %p, %d, %p, %p, %p)",
                     tDirection.pstrOperation, static_cast<void*>(plMoved), tSocket, pBuffer,
                     lLength, static_cast<void*>(oTimeout), static_cast<void*>(plElapse),
                     static_cast<void*>(pbBlocked));
}

// --- datagrams ---

NetErrorE NetSendDatagram(NetSocketT tSocket, void* pBuffer, int32 lLength,
                          NetAddressT* ptDestination) {
    const ssize_t iSent = sendto(tSocket, pBuffer, static_cast<std::size_t>(lLength), MSG_NOSIGNAL,
                                 NetSystemAddress(ptDestination), NetAddressLength(*ptDestination));
    if (iSent == lLength) return NET_ERROR_NONE;
    if (iSent == 0) return NET_ERROR_CLOSED;
    if (iSent > 0) return NET_ERROR_FATAL;
    const NetErrorE eResult = NetOutcomeOf(atUdpSendOutcomes, errno);
    const ErrnoKeeper tErrno;
    if (eResult == NET_ERROR_FATAL)
        TraceMessageInline(59, tErrno.Code(), -1, "Fatal error during UDP send: %s", tErrno.Text());
    return eResult;
}

NetErrorE NetReceiveDatagram(int32* plLength, NetSocketT tSocket, void* pBuffer, int32 lLength,
                             NetAddressT* ptSource) {
    NetAddressT tSource = {};
    socklen_t iSourceLength = sizeof(tSource);
    const ssize_t iReceived = recvfrom(tSocket, pBuffer, static_cast<std::size_t>(lLength), 0,
                                       ptSource == nullptr ? nullptr : NetSystemAddress(&tSource),
                                       ptSource == nullptr ? nullptr : &iSourceLength);
    if (iReceived >= 0 && ptSource != nullptr) *ptSource = tSource;
    if (iReceived > 0) {
        if (plLength != nullptr) *plLength = static_cast<int32>(iReceived);
        return NET_ERROR_NONE;
    }
    if (iReceived == 0) return NET_ERROR_CLOSED;
    const NetErrorE eResult = NetOutcomeOf(atUdpReceiveOutcomes, errno);
    const ErrnoKeeper tErrno;
    if (eResult == NET_ERROR_CONNECTION_DOWN)
        TraceMessageInline(60, tErrno.Code(), -1, "Connection down");
    else if (eResult == NET_ERROR_FATAL)
        TraceMessageInline(61, tErrno.Code(), -1, "Fatal error during UDP receive: %s",
                           tErrno.Text());
    return eResult;
}

}  // namespace

NetErrorE NetUdpSend(NetSocketT tSocket, void* pBuffer, int32 lPacketLength,
                     NetAddressT* ptDestination) {
    NetErrorE eResult = NetCheckTransfer(tSocket, lPacketLength);
    if (eResult == NET_ERROR_NONE && ptDestination == nullptr) {
        TraceMessageInline(62, 0, -1, "NULL address passed to NetUdpSend");
        eResult = NET_ERROR_FATAL;
    }
    if (eResult == NET_ERROR_NONE)
        eResult = NetSendDatagram(tSocket, pBuffer, lPacketLength, ptDestination);
    return NetResult(63, eResult, "NetUdpSend(%d, %p, %d, %p)", tSocket, pBuffer, lPacketLength,
                     static_cast<void*>(ptDestination));
}

NetErrorE NetUdpReceive(int32* plPacketLength, NetSocketT tSocket, void* pBuffer,
                        int32 lBufferLength, NetAddressT* ptSource) {
    NetErrorE eResult = NetCheckTransfer(tSocket, lBufferLength);
    if (eResult == NET_ERROR_NONE)
        eResult = NetReceiveDatagram(plPacketLength, tSocket, pBuffer, lBufferLength, ptSource);
    return NetResult(64, eResult, "NetUdpReceive(%p, %d, %p, %d, %p)",
                     static_cast<void*>(plPacketLength), tSocket, pBuffer, lBufferLength,
                     static_cast<void*>(ptSource));
}

NetErrorE NetTcpSend(int32* plSent, NetSocketT tSocket, void* pBuffer, int32 lBufferLength) {
    return NetMoveOnce(plSent, tNetSending, tSocket, pBuffer, lBufferLength);
}

NetErrorE NetTcpReceive(int32* plReceived, NetSocketT tSocket, void* pBuffer, int32 lBufferLength) {
    return NetMoveOnce(plReceived, tNetReceiving, tSocket, pBuffer, lBufferLength);
}

NetErrorE NetTcpSendNow(int32* plSent, NetSocketT tSocket, const void* pBuffer,
                        int32 lBufferLength) {
    NetErrorE eResult = NetCheckTransfer(tSocket, lBufferLength);
    if (eResult == NET_ERROR_NONE)
        eResult =
            NetMove(plSent, tNetSending, tSocket, static_cast<ByteT*>(const_cast<void*>(pBuffer)),
                    lBufferLength, MSG_DONTWAIT);
    return NetResult(134, eResult, "NetTcpSendNow(%p, %d, %p, %d)", static_cast<void*>(plSent),
                     tSocket, pBuffer, lBufferLength);
}

NetErrorE NetTcpReceiveParts(int32* plReceived, NetSocketT tSocket, std::span<iovec> atParts) {
    msghdr tMessage = {};
    tMessage.msg_iov = atParts.data();
    tMessage.msg_iovlen = static_cast<decltype(tMessage.msg_iovlen)>(atParts.size());
    NetErrorE eResult = NetCheckTransfer(tSocket, static_cast<int32>(atParts.size()));
    if (eResult == NET_ERROR_NONE)
        eResult = NetMoved(plReceived, tNetReceiving, recvmsg(tSocket, &tMessage, MSG_DONTWAIT));
    return NetResult(133, eResult, "NetTcpReceiveParts(%p, %d, %p)", static_cast<void*>(plReceived),
                     tSocket, static_cast<void*>(atParts.data()));
}

NetErrorE NetTcpSendBlocking(int32* plBytesSent, NetSocketT tSocket, void* pBuffer,
                             int32 lBufferLength, TimeTimeoutO oTimeout, int32* plElapse,
                             BooleanT* pbBlocked) {
    if (plBytesSent != nullptr) *plBytesSent = 0;
    return NetMoveBlocking(plBytesSent, tNetSending, tSocket, pBuffer, lBufferLength, oTimeout,
                           plElapse, pbBlocked);
}

NetErrorE NetTcpReceiveBlocking(int32* plBytesReceived, NetSocketT tSocket, void* pBuffer,
                                int32 lBufferLength, TimeTimeoutO oTimeout, int32* plElapse,
                                BooleanT* pbBlocked) {
    return NetMoveBlocking(plBytesReceived, tNetReceiving, tSocket, pBuffer, lBufferLength,
                           oTimeout, plElapse, pbBlocked);
}
