// Addresses: texts, ports and comparison. A NetAddressT is the platform's socket address, so its
// parts are reached by copying it into a sockaddr_in or sockaddr_in6 and back.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/errnokeeper.h"
#include "core/trace.h"
#include "netinternal.h"

TRACE_MODULE("NET")

namespace {

constexpr int32 NetPortMax = 65535;

// Both families have the port first behind the family.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) <= sizeof(NetAddressT));

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

bool NetIsSame(const NetAddressT& tAddress1, const NetAddressT& tAddress2, bool bPort) {
    const NetHostT tHost1 = NetHostOf(tAddress1);
    const NetHostT tHost2 = NetHostOf(tAddress2);
    if (!tHost1.bKnown || tHost1 != tHost2) return false;
    return !bPort || std::memcmp(tAddress1.aAddress, tAddress2.aAddress, 2) == 0;
}

// The address inside the record, for the system's conversions; null for another family.
void* NetHostBytes(NetAddressT* ptAddress) {
    auto* const pBytes = reinterpret_cast<ByteT*>(ptAddress);
    if (ptAddress->sFamily == AF_INET) return pBytes + offsetof(sockaddr_in, sin_addr);
    if (ptAddress->sFamily == AF_INET6) return pBytes + offsetof(sockaddr_in6, sin6_addr);
    return nullptr;
}

BooleanT NetReadIpAddress(NetAddressT* ptAddress, const char* pstrIpAddress, int iFamily) {
    NetAddressT tAddress = {};
    tAddress.sFamily = static_cast<std::int16_t>(iFamily);
    if (inet_pton(iFamily, pstrIpAddress, NetHostBytes(&tAddress)) == 1) {
        *ptAddress = tAddress;
        return TRUE;
    }
    if (iFamily == AF_INET)
        TraceMessageInline(69, 0, -1, "Error in inet_pton(AF_INET, %s, %p)", pstrIpAddress,
                           static_cast<void*>(ptAddress));
    else
        TraceMessageInline(70, 0, -1, "Error in inet_pton(AF_INET6, %s, %p)", pstrIpAddress,
                           static_cast<void*>(ptAddress));
    return FALSE;
}

BooleanT NetMakeIpAddress(NetAddressT* ptAddress, const char* pstrIpAddress, int32 lPort,
                          int iFamily) {
    if (ptAddress != nullptr) *ptAddress = {};
    if (ptAddress == nullptr || pstrIpAddress == nullptr || *pstrIpAddress == '\0' ||
        (iFamily != AF_INET && iFamily != AF_INET6)) {
        TraceMessageInline(71, 0, -1, "NetInitializeIpAddress: invalid arguments %p %s %d",
                           static_cast<void*>(ptAddress),
                           pstrIpAddress == nullptr ? "(null)" : pstrIpAddress, iFamily);
        return FALSE;
    }
    NetAddressT tAddress = {};
    if (NetReadIpAddress(&tAddress, pstrIpAddress, iFamily) != TRUE ||
        NetSetIpPort(&tAddress, lPort) != TRUE) {
        return FALSE;
    }
    *ptAddress = tAddress;
    return TRUE;
}

}  // namespace

const char* NetNumericText(NetAddressT* ptAddress, char (&acText)[NetIpAddressSize]) {
    const void* pHost = NetHostBytes(ptAddress);
    if (pHost != nullptr && inet_ntop(ptAddress->sFamily, pHost, acText, sizeof(acText)) != nullptr)
        return acText;
    return "(null)";
}

BooleanT NetInitializeIpAddress(NetAddressT* ptAddress, const char* pstrIpAddress, int32 lPort,
                                std::int16_t sFamily) {
    return NetResult(72, NetMakeIpAddress(ptAddress, pstrIpAddress, lPort, sFamily),
                     "NetInitializeIpAddress(%p, %s, %d, %d)", static_cast<void*>(ptAddress),
                     pstrIpAddress == nullptr ? "(null)" : pstrIpAddress, lPort, sFamily);
}

BooleanT NetSetIpPort(NetAddressT* ptAddress, int32 lPort) {
    if (ptAddress == nullptr || lPort < 0 || lPort > NetPortMax) {
        TraceMessageInline(73, 0, -1, "NetSetIpPort: invalid arguments %p %d",
                           static_cast<void*>(ptAddress), lPort);
        return FALSE;
    }
    const in_port_t tPort = htons(static_cast<in_port_t>(lPort));
    std::memcpy(ptAddress->aAddress, &tPort, sizeof(tPort));
    return NetResult(142, TRUE, "NetSetIpPort(%p, %d)", static_cast<void*>(ptAddress), lPort);
}

int32 NetGetIpPort(NetAddressT* ptAddress) {
    if (ptAddress == nullptr) return -1;
    in_port_t tPort = 0;
    std::memcpy(&tPort, ptAddress->aAddress, sizeof(tPort));
    return ntohs(tPort);
}

int32 NetGetFamily(NetAddressT* ptAddress) {
    return ptAddress == nullptr ? -1 : ptAddress->sFamily;
}

char* NetGetIpAddress(NetAddressT* ptAddress, char* pstrIpAddress, int32 lLength) {
    if (ptAddress == nullptr || pstrIpAddress == nullptr || lLength < 1) {
        TraceMessageInline(74, 0, -1, "NetGetIpAddress: invalid arguments %p %p %d",
                           static_cast<void*>(ptAddress), static_cast<void*>(pstrIpAddress),
                           lLength);
        return nullptr;
    }
    char acText[NetIpAddressSize];
    const char* pstrNumeric = NetNumericText(ptAddress, acText);
    const bool bBrackets = ptAddress->sFamily == AF_INET6;
    const std::size_t iBytes = std::strlen(pstrNumeric) + (bBrackets ? 3 : 1);
    if (pstrNumeric != acText || iBytes > static_cast<std::size_t>(lLength)) {
        TraceMessageInline(75, 0, -1, "NetGetIpAddress: no text of family %d in %d bytes",
                           ptAddress->sFamily, lLength);
        return nullptr;
    }
    std::snprintf(pstrIpAddress, iBytes, bBrackets ? "[%s]" : "%s", acText);
    return pstrIpAddress;
}

BooleanT NetAddressEqual(NetAddressT* ptAddress1, NetAddressT* ptAddress2,
                         NetAddressCompareTypeE eType) {
    if (ptAddress1 == nullptr || ptAddress2 == nullptr)
        return BooleanFrom(ptAddress1 == ptAddress2);
    return BooleanFrom(NetIsSame(*ptAddress1, *ptAddress2, eType == NetAddressCompareTypeAll));
}

BooleanT NetAddressIsEqual(void* oAddress1, void* oAddress2) {
    if (oAddress1 == nullptr || oAddress2 == nullptr) return FALSE;
    return NetAddressEqual(&static_cast<NetAddressO>(oAddress1)->tAddress,
                           &static_cast<NetAddressO>(oAddress2)->tAddress,
                           NetAddressCompareTypeNoPort);
}

BooleanT NetAddressIsInet6(const char* pstrText) {
    return BooleanFrom(pstrText != nullptr && std::strchr(pstrText, ':') != nullptr);
}

BooleanT NetAddressIsInet(const char* pstrText) {
    unsigned int aiParts[4];
    char cRest = 0;
    return BooleanFrom(pstrText != nullptr &&
                       std::sscanf(pstrText, "%u.%u.%u.%u%c", &aiParts[0], &aiParts[1], &aiParts[2],
                                   &aiParts[3], &cRest) == 4);
}
