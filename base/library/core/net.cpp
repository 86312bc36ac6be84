// Network: names and addresses of hosts through the system's name services, and waiting on select
// masks.
#include "core/net.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "core/errnokeeper.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/trace.h"

TRACE_MODULE("NET")

namespace {

constexpr int32 NetSmallestHostName = 257;  // bytes of a host name's buffer

// --- addresses ---

// The host of an address as an IPv6 address, in which every IPv4 address has a form of its own.
struct NetHostT {
    bool bKnown = false;
    ByteT aAddress[16] = {};
    bool operator==(const NetHostT&) const = default;
};

NetHostT NetHostOf(const NetAddressT& tAddress) {
    constexpr ByteT aMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    NetHostT tHost;
    if (tAddress.sFamily == AF_INET) {
        sockaddr_in tSystem;
        std::memcpy(&tSystem, &tAddress, sizeof(tSystem));
        std::memcpy(tHost.aAddress, aMapped, sizeof(aMapped));
        std::memcpy(tHost.aAddress + sizeof(aMapped), &tSystem.sin_addr, 4);
    } else if (tAddress.sFamily == AF_INET6) {
        sockaddr_in6 tSystem;
        std::memcpy(&tSystem, &tAddress, sizeof(tSystem));
        std::memcpy(tHost.aAddress, &tSystem.sin6_addr, sizeof(tHost.aAddress));
    }
    tHost.bKnown = tAddress.sFamily == AF_INET || tAddress.sFamily == AF_INET6;
    return tHost;
}

BooleanT NetIsSameHost(void* oItemA, void* oItemB) {
    const NetHostT tHostA = NetHostOf(static_cast<NetAddressO>(oItemA)->tAddress);
    const NetHostT tHostB = NetHostOf(static_cast<NetAddressO>(oItemB)->tAddress);
    return BooleanFrom(tHostA.bKnown && tHostA == tHostB);
}

// Each address once; FALSE when the name has none.
BooleanT NetAddAddresses(ListO oAddresses, const char* pstrHostName) {
    const addrinfo tHints = {};
    addrinfo* ptResult = nullptr;
    if (getaddrinfo(pstrHostName, nullptr, &tHints, &ptResult) != 0) return FALSE;
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> tOwner(ptResult, freeaddrinfo);
    for (const addrinfo* ptInfo = ptResult; ptInfo != nullptr; ptInfo = ptInfo->ai_next) {
        const ObjHolder<NetAddressS> oAddress(ObjNew<NetAddressS>(NetAddressMagic, "n32;"));
        if (oAddress.Get() == nullptr) return FALSE;
        std::memcpy(&oAddress.Get()->tAddress, ptInfo->ai_addr,
                    std::min<std::size_t>(ptInfo->ai_addrlen, sizeof(NetAddressT)));
        ListAddUniqueItem(oAddresses, NetIsSameHost, oAddress.Get());
    }
    return BooleanFrom(oAddresses->lItemCount > 0);
}

void NetAddName(ListO oNames, const char* pstrName) {
    const ObjHolder<ObjStringS> oName(ObjStringNew(pstrName));
    ListAddLastItem(oNames, oName.Get());
}

// The official name, then the others.
void NetAddNames(ListO oNames, const char* pstrHostName) {
    const hostent* ptHost = gethostbyname(pstrHostName);
    if (ptHost == nullptr) return;
    NetAddName(oNames, ptHost->h_name);
    for (char** ppstrAlias = ptHost->h_aliases; *ppstrAlias != nullptr; ppstrAlias++) {
        TraceMessageInline(2, 0, 3, "Found alias for host: '%s'", *ppstrAlias);
        NetAddName(oNames, *ppstrAlias);
    }
}

// --- select ---

// Waits as long as ptTime says, without limit for null.
NetErrorE NetSelectMask(int32* plSelected, NetSelectMaskT tMask, timeval* ptTime) {
    const int iReady =
        select(tMask->tSelectBits, &tMask->tRecvFds, &tMask->tSendFds, &tMask->tExcpFds, ptTime);
    if (plSelected != nullptr) *plSelected = std::max(iReady, 0);
    if (iReady > 0) return NET_ERROR_NONE;
    if (iReady == 0) return NET_ERROR_TIMEOUT;
    if (errno == EINTR) return NET_ERROR_INTERRUPTED;
    const ErrnoKeeper tErrno;
    TraceMessageInline(7, tErrno.Code(), -1, "Fatal network select error: %s", tErrno.Text());
    return NET_ERROR_FATAL;
}

}  // namespace

BooleanT NetInitialize() { return TRUE; }

BooleanT NetInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void NetReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT NetGetLocalHostName(char* acBuffer, int32 lBufSize) {
    if (lBufSize < NetSmallestHostName) {
        TraceMessageInline(1, 0, -1, "Buffer too small for hostname");
        return FALSE;
    }
    utsname tSystem;
    if (acBuffer == nullptr || uname(&tSystem) == -1) return FALSE;
    static_assert(sizeof(tSystem.nodename) <= NetSmallestHostName);
    std::memcpy(acBuffer, tSystem.nodename, sizeof(tSystem.nodename));
    return TRUE;
}

BooleanT NetGetHostDetails(const char* pstrHostname, ListO* poAliases, ListO* poIpAddress) {
    if (pstrHostname == nullptr || *pstrHostname == '\0' || poAliases == nullptr ||
        poIpAddress == nullptr) {
        return FALSE;
    }
    *poAliases = ListNew(ObjStringMagic);
    *poIpAddress = ListNew(NetAddressMagic);
    const BooleanT bResult = NetAddAddresses(*poIpAddress, pstrHostname);
    NetAddNames(*poAliases, pstrHostname);
    TraceMessageInline(3, 0, 3, "%s = NetGetHostDetails(%s, %p, %p)", BooleanText(bResult),
                       pstrHostname, static_cast<void*>(poAliases),
                       static_cast<void*>(poIpAddress));
    return bResult;
}

BooleanT NetInitializeSelectMask(NetSelectMaskT* ptMask) {
    if (ptMask == nullptr) return FALSE;
    *ptMask = MemNew<NetSelectMaskS>();
    return BooleanFrom(*ptMask != nullptr);
}

BooleanT NetReleaseSelectMask(NetSelectMaskT* ptMask) { return MemFree(ptMask); }

NetErrorE NetSelectRelative(int32* plSelected, NetSelectMaskT tMask, int32 lTimeout) {
    if (tMask == nullptr) return NET_ERROR_FATAL;
    if (lTimeout < 0)
        TraceMessageInline(4, 0, 4, "Wait for data (no timeout)");
    else if (lTimeout == 0)
        TraceMessageInline(5, 0, 4, "poll for data");
    else
        TraceMessageInline(6, 0, 4, "Wait %d milliseconds for data", lTimeout);
    timeval tTime = {.tv_sec = lTimeout / 1000, .tv_usec = lTimeout % 1000 * 1000};
    const NetErrorE eResult = NetSelectMask(plSelected, tMask, lTimeout < 0 ? nullptr : &tTime);
    TraceMessageInline(8, 0, 4, "%d = NetSelectRelative(%p, %p, %d)", eResult,
                       static_cast<void*>(plSelected), static_cast<void*>(tMask), lTimeout);
    return eResult;
}
