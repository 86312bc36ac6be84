// Names of hosts and services. The name service is asked first. What it does not know is looked for
// in the network directory of the platform, whose answers are universal addresses: the numeric text
// of the address with the two bytes of the port behind it, all joined by dots.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "core/errnokeeper.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/trace.h"
#include "machines/solaris.h"
#include "netinternal.h"

TRACE_MODULE("NET")

namespace {

constexpr int32 NetSmallestHostName = 257;  // bytes of a host name's buffer

NetAddressO NetNewAddress() { return ObjNew<NetAddressS>(NetAddressMagic, "n32;"); }

// --- the name service ---

using NetAddFnT = BooleanT (*)(ListO oAddresses, void* oAddress);

BooleanT NetAddUnique(ListO oAddresses, void* oAddress) {
    return ListAddUniqueItem(oAddresses, NetAddressIsEqual, oAddress);
}

// Appends what the name service answers. False when it has no answer.
bool NetAskNameService(ListO oAddresses, const char* pstrHostName, int iFamily, NetAddFnT fnAdd) {
    addrinfo tHints = {};
    tHints.ai_family = iFamily;
    addrinfo* ptResult = nullptr;
    const int iError = getaddrinfo(pstrHostName, nullptr, &tHints, &ptResult);
    if (iError != 0) {
        TraceMessageInline(76, 0, 3, "No answer for host '%s': %s", pstrHostName,
                           gai_strerror(iError));
        return false;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> tOwner(ptResult, freeaddrinfo);
    for (const addrinfo* ptInfo = ptResult; ptInfo != nullptr; ptInfo = ptInfo->ai_next) {
        const ObjHolder<NetAddressS> oAddress(NetNewAddress());
        if (oAddress.Get() == nullptr) break;
        std::memcpy(&oAddress.Get()->tAddress, ptInfo->ai_addr,
                    std::min<std::size_t>(ptInfo->ai_addrlen, sizeof(NetAddressT)));
        fnAdd(oAddresses, oAddress.Get());
    }
    return true;
}

// --- the network directory ---

// Six numbers, the last two of which, the port, are 0.
bool NetReadUniversalInet(NetAddressT* ptAddress, const char* pstrText) {
    unsigned int aiParts[6];
    char cRest = 0;
    if (std::sscanf(pstrText, "%u.%u.%u.%u.%u.%u%c", &aiParts[0], &aiParts[1], &aiParts[2],
                    &aiParts[3], &aiParts[4], &aiParts[5], &cRest) != 6 ||
        aiParts[4] != 0 || aiParts[5] != 0) {
        return false;
    }
    ByteT aHost[4];
    for (int iPart = 0; iPart < 4; iPart++) {
        if (aiParts[iPart] > 255) return false;
        aHost[iPart] = static_cast<ByteT>(aiParts[iPart]);
    }
    ptAddress->sFamily = AF_INET;
    std::memcpy(ptAddress->aAddress + 2, aHost, sizeof(aHost));
    return true;
}

// An IPv6 text, cut at the dot that begins the port.
bool NetReadUniversalInet6(NetAddressT* ptAddress, char* pstrText) {
    if (NetAddressIsInet6(pstrText) != TRUE) return false;
    pstrText[std::strcspn(pstrText, ".")] = '\0';
    return NetInitializeIpAddress(ptAddress, pstrText, 0, AF_INET6) == TRUE;
}

BooleanT NetAddUniversal(ListO oAddresses, char* pstrText, int iFamily) {
    const ObjHolder<NetAddressS> oAddress(NetNewAddress());
    if (oAddress.Get() == nullptr) return FALSE;
    NetAddressT* ptAddress = &oAddress.Get()->tAddress;
    if ((iFamily != AF_INET6 && NetReadUniversalInet(ptAddress, pstrText)) ||
        (iFamily != AF_INET && NetReadUniversalInet6(ptAddress, pstrText))) {
        return ListAddLastItem(oAddresses, oAddress.Get());
    }
    return FALSE;
}

// TRUE when something was appended.
BooleanT NetAskDirectory(ListO oAddresses, const char* pstrHostName, int iFamily) {
    MachineNetConfigT* const ptConfig = MachineNetConfigGet("tcp");
    if (ptConfig == nullptr) {
        TraceMessageInline(77, 0, -1, "No transport to look up host '%s'", pstrHostName);
        return FALSE;
    }
    BooleanT bFound = FALSE;
    MachineNetAddrListT* ptList = MachineNetDirGetByName(ptConfig, pstrHostName);
    for (int32 lAddress = 0; ptList != nullptr && lAddress < ptList->lCount; lAddress++) {
        PoolPtr<char> pstrText(MachineNetAddrToText(ptConfig, &ptList->atAddresses[lAddress]));
        if (pstrText.Get() != nullptr &&
            NetAddUniversal(oAddresses, pstrText.Get(), iFamily) == TRUE)
            bFound = TRUE;
    }
    MachineNetDirFree(ptList);
    MachineNetConfigFree(ptConfig);
    if (bFound != TRUE) TraceMessageInline(78, 0, -1, "Host '%s' not found", pstrHostName);
    return bFound;
}

BooleanT NetFindHost(ListO oAddresses, const char* pstrHostName, int iFamily) {
    if (oAddresses == nullptr || pstrHostName == nullptr || *pstrHostName == '\0') {
        TraceMessageInline(79, 0, -1, "NetGetHostAddress: invalid arguments");
        return FALSE;
    }
    const bool bAccepted = iFamily == AF_INET6  ? NetAddressIsInet(pstrHostName) != TRUE
                           : iFamily == AF_INET ? NetAddressIsInet6(pstrHostName) != TRUE
                                                : iFamily == AF_UNSPEC;
    if (!bAccepted) {
        TraceMessageInline(80, 0, -1, "Host '%s' has no address of family %d", pstrHostName,
                           iFamily);
        return FALSE;
    }
    const int32 lBefore = oAddresses->lItemCount;
    if (NetAskNameService(oAddresses, pstrHostName, iFamily, ListAddLastItem))
        return BooleanFrom(oAddresses->lItemCount > lBefore);
    return NetAskDirectory(oAddresses, pstrHostName, iFamily);
}

// --- names ---

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

BooleanT NetFindLocalHost(ListO oAddresses, std::int16_t sFamily) {
    char acHost[2048];
    if (NetGetLocalHostName(acHost, sizeof(acHost)) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(81, tErrno.Code(), -1, "Failed to get host name; %s", tErrno.Text());
        return FALSE;
    }
    if (NetGetHostAddress(oAddresses, acHost, sFamily) == TRUE) return TRUE;
    const ErrnoKeeper tErrno;
    TraceMessageInline(82, tErrno.Code(), -1, "Failed to get local host address : %s",
                       tErrno.Text());
    return FALSE;
}

}  // namespace

BooleanT NetGetHostAddress(ListO oAddressList, const char* pstrHostName, std::int16_t sFamily) {
    const char* pstrShown = pstrHostName == nullptr ? "(null)" : pstrHostName;
    TraceMessageInline(83, 0, 4, "NetGetHostAddress(%p, %s, %d)", static_cast<void*>(oAddressList),
                       pstrShown, sFamily);
    return NetResult(84, NetFindHost(oAddressList, pstrHostName, sFamily),
                     "NetGetHostAddress(%p, %s, %d)", static_cast<void*>(oAddressList), pstrShown,
                     sFamily);
}

BooleanT NetGetLocalHostName(char* acBuffer, int32 lBufSize) {
    utsname tSystem;
    static_assert(sizeof(tSystem.nodename) <= NetSmallestHostName);
    BooleanT bResult = FALSE;
    if (acBuffer == nullptr || lBufSize < NetSmallestHostName) {
        TraceMessageInline(1, 0, -1, "Buffer too small for hostname");
    } else if (uname(&tSystem) == -1) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(139, tErrno.Code(), -1, "Failed to get node name: %s", tErrno.Text());
    } else {
        std::memcpy(acBuffer, tSystem.nodename, sizeof(tSystem.nodename));
        bResult = TRUE;
    }
    return NetResult(140, bResult, "NetGetLocalHostName(%p, %d)", static_cast<void*>(acBuffer),
                     lBufSize);
}

BooleanT NetGetLocalHostAddress(ListO oAddressList, std::int16_t sFamily) {
    return NetResult(85, NetFindLocalHost(oAddressList, sFamily), "NetGetLocalHostAddress(%p, %d)",
                     static_cast<void*>(oAddressList), sFamily);
}

BooleanT NetGetHostDetails(const char* pstrHostname, ListO* poAliases, ListO* poIpAddress) {
    if (pstrHostname == nullptr || *pstrHostname == '\0' || poAliases == nullptr ||
        poIpAddress == nullptr) {
        TraceMessageInline(86, 0, -1, "NetGetHostDetails: invalid arguments");
        return FALSE;
    }
    *poAliases = ListNew(ObjStringMagic);
    *poIpAddress = ListNew(NetAddressMagic);
    if (*poAliases == nullptr || *poIpAddress == nullptr) return FALSE;
    if (!NetAskNameService(*poIpAddress, pstrHostname, AF_UNSPEC, NetAddUnique))
        NetAskDirectory(*poIpAddress, pstrHostname, AF_UNSPEC);
    NetAddNames(*poAliases, pstrHostname);
    const BooleanT bResult = BooleanFrom((*poIpAddress)->lItemCount > 0);
    TraceMessageInline(3, 0, 3, "%s = NetGetHostDetails(%s, %p, %p)", BooleanText(bResult),
                       pstrHostname, static_cast<void*>(poAliases),
                       static_cast<void*>(poIpAddress));
    return bResult;
}

BooleanT NetGetServicePort(int32* plPort, char* pstrServiceName, char* pstrServiceType) {
    const servent* ptService = nullptr;
    if (plPort != nullptr && pstrServiceName != nullptr && pstrServiceType != nullptr)
        ptService = getservbyname(pstrServiceName, pstrServiceType);
    if (ptService != nullptr)
        *plPort = ntohs(static_cast<in_port_t>(ptService->s_port));
    else
        TraceMessageInline(87, 0, -1, "Service not found: %s",
                           pstrServiceName == nullptr ? "(null)" : pstrServiceName);
    return NetResult(88, BooleanFrom(ptService != nullptr), "NetGetServicePort(%p, %s, %s)",
                     static_cast<void*>(plPort),
                     pstrServiceName == nullptr ? "(null)" : pstrServiceName,
                     pstrServiceType == nullptr ? "(null)" : pstrServiceType);
}
