// Binding, accepting and connecting. The ports of a firewall are a list of configured texts, which
// are walked until a port is free.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "core/cfg.h"
#include "core/errnokeeper.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "core/strwrappers.h"
#include "core/trace.h"
#include "netinternal.h"

TRACE_MODULE("NET")

namespace {

constexpr int NetConnectTries = 11;  // while the protocol fails

BooleanT NetBindTo(NetSocketT tSocket, NetAddressT* ptAddress) {
    if (NetRefuses("NetBind", tSocket, ptAddress != nullptr)) return FALSE;
    char acText[NetIpAddressSize];
    const socklen_t iLength = NetAddressLength(*ptAddress);
    TraceMessageInline(89, 0, 4, "bind(%d, %p, %d) [%s]:%d", tSocket, static_cast<void*>(ptAddress),
                       static_cast<int32>(iLength), NetNumericText(ptAddress, acText),
                       NetGetIpPort(ptAddress));
    if (bind(tSocket, NetSystemAddress(ptAddress), iLength) == 0) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(90, tErrno.Code(), -1, "Fatal error during address bind: %s", tErrno.Text());
    return FALSE;
}

// --- the ports of a firewall ---

struct NetPortRangeT {
    int32 lLow;
    int32 lHigh;
};

// A number, or two joined by "-" in any order. False for other texts and for what is no port.
bool NetReadPorts(NetPortRangeT* ptRange, const char* pstrText) {
    long long llFirst = 0;
    long long llSecond = 0;
    char cRest = 0;
    if (pstrText == nullptr) return false;
    if (std::sscanf(pstrText, "%lld%c", &llFirst, &cRest) == 1)
        llSecond = llFirst;
    else if (std::sscanf(pstrText, "%lld - %lld%c", &llFirst, &llSecond, &cRest) != 2)
        return false;
    const auto [llLow, llHigh] = std::minmax(llFirst, llSecond);
    if (llLow < 0 || llHigh > 65535) return false;
    *ptRange = {static_cast<int32>(llLow), static_cast<int32>(llHigh)};
    return true;
}

// The configured texts; a single value may be a list itself. Null when there are none.
ListO NetGetPorts(const char* pstrType, BooleanT bIn) {
    ObjHolder<ListS> oPorts;
    if (CfgGetValueList(oPorts.Address(), "firewall.cfg", pstrType,
                        bIn == TRUE ? "Ports" : "Out Ports") != TRUE) {
        return nullptr;
    }
    TraceMessageInline(91, 0, 4, "Got list of '%d' ports", oPorts.Get()->lItemCount);
    ListO oValues = nullptr;
    if (oPorts.Get()->lItemCount == 1 &&
        StrValueListFromString(
            &oValues, ObjGetString(static_cast<ObjStringO>(oPorts.Get()->oFirst->oData))) == TRUE)
        return oValues;
    return oPorts.Take();
}

// Binds to the first free port of the range.
BooleanT NetBindToRange(NetSocketT tSocket, NetAddressT* ptAddress, const NetPortRangeT& tRange) {
    for (int32 lPort = tRange.lLow; lPort <= tRange.lHigh; lPort++) {
        NetSetIpPort(ptAddress, lPort);
        if (NetBind(tSocket, ptAddress) == TRUE) return TRUE;
    }
    return FALSE;
}

BooleanT NetBindToPorts(NetSocketT tSocket, const char* pstrIpAddress, const char* pstrType,
                        BooleanT bIn, std::int16_t sFamily) {
    NetAddressT tAddress;
    if (NetInitializeIpAddress(&tAddress, pstrIpAddress, 0, sFamily) != TRUE) return FALSE;
    const ObjHolder<ListS> oPorts(NetGetPorts(pstrType, bIn));
    bool bAnyPort = true;
    ListNodeO oNode = oPorts.Get() == nullptr ? nullptr : oPorts.Get()->oFirst;
    for (; oNode != nullptr; oNode = oNode->oNext) {
        const char* pstrItem = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        NetPortRangeT tRange;
        if (!NetReadPorts(&tRange, pstrItem)) {
            TraceMessageInline(92, 0, -1, "No port or range of ports in \"firewall.cfg\": '%s'",
                               pstrItem == nullptr ? "" : pstrItem);
            continue;
        }
        bAnyPort = false;
        if (NetBindToRange(tSocket, &tAddress, tRange) == TRUE) return TRUE;
    }
    return bAnyPort ? NetBindToRange(tSocket, &tAddress, {0, 0}) : FALSE;
}

BooleanT NetBindThroughFirewall(NetSocketT tSocket, const char* pstrIpAddress, const char* pstrType,
                                BooleanT bIn, std::int16_t sFamily) {
    if (tSocket == NetNoSocket) {
        TraceMessageInline(93, 0, -1, "NULL socket passed to NetBindThroughFirewallTyped");
        return FALSE;
    }
    if (NetRefuses("NetBindThroughFirewallTyped", tSocket, pstrType != nullptr)) return FALSE;
    return NetBindToPorts(tSocket, pstrIpAddress, pstrType, bIn, sFamily);
}

// --- accepting and connecting ---

NetErrorE NetAcceptOne(NetSocketT* ptAcceptSocket, NetSocketT tSocket, NetAddressT* ptAddress) {
    if (tSocket == NetNoSocket || ptAcceptSocket == nullptr) {
        TraceMessageInline(94, 0, -1, "NetAccept called with invalid socket");
        return NET_ERROR_INVALID_SOCKET;
    }
    NetAddressT tPeer = {};
    const NetSocketT tAccepted = SysRepeat([&] {
        socklen_t iLength = sizeof(tPeer);
        return accept4(tSocket, NetSystemAddress(&tPeer), &iLength, SOCK_CLOEXEC);
    });
    if (tAccepted != -1) {
        if (ptAddress != nullptr) *ptAddress = tPeer;
        *ptAcceptSocket = tAccepted;
        return NET_ERROR_NONE;
    }
    const ErrnoKeeper tErrno;
    if (tErrno.Code() == EAGAIN) return NET_ERROR_WOULD_BLOCK;
    TraceMessageInline(95, tErrno.Code(), -1, "Fatal accept error: %s", tErrno.Text());
    switch (tErrno.Code()) {
        case ENOMEM:
        case ENOSR:
        case ECONNABORTED:
        case ENOBUFS:
            return NET_ERROR_ACCEPT;
        default:
            return NET_ERROR_FATAL;
    }
}

NetErrorE NetConnectOutcome() {
    const ErrnoKeeper tErrno;
    switch (tErrno.Code()) {
        case 0:
        case EAGAIN:
        case EINPROGRESS:
            return NET_ERROR_WOULD_BLOCK;
        case EINTR:
            return NET_ERROR_INTERRUPTED;
        case ENETUNREACH:
            return NET_ERROR_NET_UNREACHABLE;
        case ETIMEDOUT:
            return NET_ERROR_TIMEOUT;
        case ECONNREFUSED:
            return NET_ERROR_CONNECT_REFUSED;
        case EPROTO:
            return NET_ERROR_PROTOCOL;
        default:
            TraceMessageInline(96, tErrno.Code(), -1, "Fatal connect error: %s", tErrno.Text());
            return NET_ERROR_FATAL;
    }
}

NetErrorE NetConnectOnce(NetSocketT tSocket, NetAddressT tAddress) {
    const socklen_t iLength = NetAddressLength(tAddress);
    TraceMessageInline(97, 0, 4, "connect(%d, %p, %d)", tSocket, static_cast<void*>(&tAddress),
                       static_cast<int32>(iLength));
    const int iResult = connect(tSocket, NetSystemAddress(&tAddress), iLength);
    const NetErrorE eResult = iResult == 0 ? NET_ERROR_NONE : NetConnectOutcome();
    const ErrnoKeeper tErrno;
    TraceMessageInline(98, 0, 4, "%d = connect()", iResult);
    return eResult;
}

void NetTraceConnect(NetAddressT* ptAddress) {
    char acText[NetIpAddressSize];
    const bool bInet6 = ptAddress->sFamily == AF_INET6;
    TraceMessageInline(99, 0, 4, "Connect to [%s]:%d", NetNumericText(ptAddress, acText),
                       NetGetIpPort(ptAddress));
    TraceMessageInline(100, 0, 4, "%s is %d bytes",
                       bInet6 ? "struct sockaddr_in6" : "struct sockaddr_in",
                       static_cast<int32>(NetAddressLength(*ptAddress)));
    TraceMessageInline(101, 0, 4, "NetAddressT is %d bytes",
                       static_cast<int32>(sizeof(NetAddressT)));
}

NetErrorE NetConnectTo(NetSocketT tSocket, NetAddressT* ptAddress) {
    if (tSocket == NetNoSocket) {
        TraceMessageInline(102, 0, -1, "NetConnect called with invalid socket");
        return NET_ERROR_INVALID_SOCKET;
    }
    if (ptAddress == nullptr) {
        TraceMessageInline(103, 0, -1, "NULL address passed to NetConnect");
        return NET_ERROR_FATAL;
    }
    NetTraceConnect(ptAddress);
    NetErrorE eResult = NET_ERROR_PROTOCOL;
    for (int iTry = 0; iTry < NetConnectTries && eResult == NET_ERROR_PROTOCOL; iTry++)
        eResult = NetConnectOnce(tSocket, *ptAddress);
    return eResult;
}

}  // namespace

BooleanT NetBind(NetSocketT tSocket, NetAddressT* ptAddress) {
    return NetResult(104, NetBindTo(tSocket, ptAddress), "NetBind(%d, %p)", tSocket,
                     static_cast<void*>(ptAddress));
}

BooleanT NetBindThroughFirewallTyped(NetSocketT tSocket, const char* pstrIpAddress,
                                     const char* pstrType, BooleanT bIn, std::int16_t sFamily) {
    const char* pstrShown = pstrType == nullptr ? "(null)" : pstrType;
    TraceMessageInline(105, 0, 4, "NetBindThroughFirewallTyped(%s, %d)", pstrShown, bIn);
    return NetResult(106, NetBindThroughFirewall(tSocket, pstrIpAddress, pstrType, bIn, sFamily),
                     "NetBindThroughFirewallTyped(%d, %p, %s, %d, %d)", tSocket,
                     static_cast<const void*>(pstrIpAddress), pstrShown, bIn, sFamily);
}

NetErrorE NetAccept(NetSocketT* ptAcceptSocket, NetSocketT tSocket, NetAddressT* ptAddress) {
    return NetResult(107, NetAcceptOne(ptAcceptSocket, tSocket, ptAddress), "NetAccept(%p, %d, %p)",
                     static_cast<void*>(ptAcceptSocket), tSocket, static_cast<void*>(ptAddress));
}

NetErrorE NetConnect(NetSocketT tSocket, NetAddressT* ptAddress) {
    return NetResult(108, NetConnectTo(tSocket, ptAddress), "NetConnect(%d, %p)", tSocket,
                     static_cast<void*>(ptAddress));
}
