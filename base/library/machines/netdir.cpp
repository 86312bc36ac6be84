// The network directory on Linux, which has none of its own: the table of hosts, and the addresses
// of the interfaces for the machine's own node name, so that a machine whose name no server knows
// still finds itself. There is one transport, "tcp"; its addresses are sockaddr_in and sockaddr_in6
// with port 0.
//
// The table is text: an address and names in each line, separated by blanks, with comments from "#"
// on. A file of any size and content is read in bounded memory: what lies behind the first
// MachineHostTableMax bytes and the first MachineHostAddressesMax addresses of a host is not looked
// at.
#include "netdir.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "core/errnokeeper.h"
#include "core/memory.h"
#include "machines/solaris.h"

struct MachineNetConfigT {
    int32 lReserved;
};

namespace {

constexpr int32 MachineHostTableMax = 1024 * 1024;  // bytes
constexpr int32 MachineHostAddressesMax = 64;
constexpr char MachineHostTable[] = "/etc/hosts";
constexpr std::string_view MachineBlanks = " \t\r\v\f";

const char* pstrMachineHostTable = MachineHostTable;

// The list as it is handed out, with the room for what it refers to behind it.
struct MachineHostT {
    MachineNetAddrListT tList;
    MachineNetAddrT atAddresses[MachineHostAddressesMax];
    sockaddr_in6 atSystem[MachineHostAddressesMax];
};

bool MachineHasName(std::string_view tText, const char* pstrHost) {
    return tText.size() == std::strlen(pstrHost) &&
           strncasecmp(tText.data(), pstrHost, tText.size()) == 0;
}

void MachineAddAddress(MachineHostT* ptHost, const void* pSystem, std::size_t iSize) {
    int32& lCount = ptHost->tList.lCount;
    if (lCount == MachineHostAddressesMax) return;
    std::memcpy(&ptHost->atSystem[lCount], pSystem, iSize);
    ptHost->atAddresses[lCount] = {static_cast<int32>(iSize), &ptHost->atSystem[lCount]};
    lCount++;
}

// --- the table of hosts ---

// The next piece up to one of the separators; the text begins behind it afterwards.
std::string_view MachineCut(std::string_view* ptText, std::string_view tSeparators) {
    const std::size_t iEnd = std::min(ptText->find_first_of(tSeparators), ptText->size());
    const std::string_view tPiece = ptText->substr(0, iEnd);
    ptText->remove_prefix(std::min(iEnd + 1, ptText->size()));
    return tPiece;
}

// Empty at the end of the line.
std::string_view MachineCutField(std::string_view* ptLine) {
    ptLine->remove_prefix(std::min(ptLine->find_first_not_of(MachineBlanks), ptLine->size()));
    return MachineCut(ptLine, MachineBlanks);
}

void MachineAddText(MachineHostT* ptHost, std::string_view tText) {
    char acText[INET6_ADDRSTRLEN];
    if (tText.size() >= sizeof(acText)) return;
    acText[tText.copy(acText, sizeof(acText) - 1)] = '\0';
    sockaddr_in tInet = {};
    tInet.sin_family = AF_INET;
    sockaddr_in6 tInet6 = {};
    tInet6.sin6_family = AF_INET6;
    if (inet_pton(AF_INET, acText, &tInet.sin_addr) == 1)
        MachineAddAddress(ptHost, &tInet, sizeof(tInet));
    else if (inet_pton(AF_INET6, acText, &tInet6.sin6_addr) == 1)
        MachineAddAddress(ptHost, &tInet6, sizeof(tInet6));
}

void MachineSearchTable(MachineHostT* ptHost, std::string_view tTable, const char* pstrHost) {
    while (!tTable.empty()) {
        std::string_view tLine = MachineCut(&tTable, "\n");
        tLine = MachineCut(&tLine, "#");
        const std::string_view tAddress = MachineCutField(&tLine);
        for (std::string_view tName = MachineCutField(&tLine); !tName.empty();
             tName = MachineCutField(&tLine)) {
            if (!MachineHasName(tName, pstrHost)) continue;
            MachineAddText(ptHost, tAddress);
            break;
        }
    }
}

// Whole lines only; the number of bytes read.
std::size_t MachineReadTable(char* pTable, std::size_t iSize) {
    const int iFile = open(pstrMachineHostTable, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (iFile == -1) return 0;
    std::size_t iRead = 0;
    while (iRead < iSize) {
        const ssize_t iBytes =
            SysRepeat([&] { return read(iFile, pTable + iRead, iSize - iRead); });
        if (iBytes <= 0) break;
        iRead += static_cast<std::size_t>(iBytes);
    }
    close(iFile);
    if (iRead < iSize) return iRead;
    while (iRead > 0 && pTable[iRead - 1] != '\n') iRead--;
    return iRead;
}

void MachineAskTable(MachineHostT* ptHost, const char* pstrHost) {
    struct stat tStat;
    if (stat(pstrMachineHostTable, &tStat) != 0 || !S_ISREG(tStat.st_mode)) return;
    const auto lSize = static_cast<int32>(
        std::min<int64>(static_cast<int64>(tStat.st_size) + 1, MachineHostTableMax));
    const PoolPtr<char> pTable(
        static_cast<char*>(MemAllocateFromPool(lSize, MemGetDefaultPoolId())));
    if (pTable.Get() == nullptr) return;
    const std::size_t iBytes = MachineReadTable(pTable.Get(), static_cast<std::size_t>(lSize));
    MachineSearchTable(ptHost, {pTable.Get(), iBytes}, pstrHost);
}

// --- the interfaces ---

// A link-local IPv6 address is of no use to who does not know the link.
void MachineAddInterface(MachineHostT* ptHost, const sockaddr* ptSystem) {
    if (ptSystem->sa_family == AF_INET) {
        sockaddr_in tInet = {};
        tInet.sin_family = AF_INET;
        tInet.sin_addr = reinterpret_cast<const sockaddr_in*>(ptSystem)->sin_addr;
        MachineAddAddress(ptHost, &tInet, sizeof(tInet));
    } else if (ptSystem->sa_family == AF_INET6) {
        sockaddr_in6 tInet6 = {};
        tInet6.sin6_family = AF_INET6;
        tInet6.sin6_addr = reinterpret_cast<const sockaddr_in6*>(ptSystem)->sin6_addr;
        if (!IN6_IS_ADDR_LINKLOCAL(&tInet6.sin6_addr))
            MachineAddAddress(ptHost, &tInet6, sizeof(tInet6));
    }
}

void MachineAddInterfaces(MachineHostT* ptHost, const ifaddrs* ptFirst, bool bLoopback) {
    for (const ifaddrs* ptInterface = ptFirst; ptInterface != nullptr;
         ptInterface = ptInterface->ifa_next) {
        const bool bIsLoopback = (ptInterface->ifa_flags & IFF_LOOPBACK) != 0;
        if (ptInterface->ifa_addr != nullptr && (ptInterface->ifa_flags & IFF_UP) != 0 &&
            bIsLoopback == bLoopback)
            MachineAddInterface(ptHost, ptInterface->ifa_addr);
    }
}

// The addresses that other machines may reach; the loopback ones when there are none.
void MachineAskInterfaces(MachineHostT* ptHost, const char* pstrHost) {
    utsname tSystem;
    ifaddrs* ptFirst = nullptr;
    if (uname(&tSystem) == -1 || !MachineHasName(tSystem.nodename, pstrHost)) return;
    if (getifaddrs(&ptFirst) != 0) ptFirst = nullptr;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> tOwner(ptFirst, freeifaddrs);
    MachineAddInterfaces(ptHost, ptFirst, false);
    if (ptHost->tList.lCount == 0) MachineAddInterfaces(ptHost, ptFirst, true);
    if (ptHost->tList.lCount == 0) MachineAddText(ptHost, "127.0.0.1");
}

}  // namespace

void MachineNetSetHostTable(const char* pstrPath) {
    pstrMachineHostTable = pstrPath == nullptr ? MachineHostTable : pstrPath;
}

MachineNetConfigT* MachineNetConfigGet(const char* pstrNetId) {
    return pstrNetId != nullptr && std::string_view(pstrNetId) == "tcp"
               ? MemNew<MachineNetConfigT>()
               : nullptr;
}

void MachineNetConfigFree(MachineNetConfigT* ptConfig) { MemFree(&ptConfig); }

MachineNetAddrListT* MachineNetDirGetByName(MachineNetConfigT* ptConfig, const char* pstrHost) {
    if (ptConfig == nullptr || pstrHost == nullptr || *pstrHost == '\0') return nullptr;
    PoolPtr<MachineHostT> ptHost(MemNew<MachineHostT>());
    if (ptHost.Get() == nullptr) return nullptr;
    ptHost.Get()->tList.atAddresses = ptHost.Get()->atAddresses;
    MachineAskTable(ptHost.Get(), pstrHost);
    if (ptHost.Get()->tList.lCount == 0) MachineAskInterfaces(ptHost.Get(), pstrHost);
    return ptHost.Get()->tList.lCount == 0 ? nullptr : &ptHost.Take()->tList;
}

void MachineNetDirFree(MachineNetAddrListT* ptList) {
    // The list stands first in its block.
    auto* ptHost = reinterpret_cast<MachineHostT*>(ptList);
    MemFree(&ptHost);
}

char* MachineNetAddrToText(MachineNetConfigT* ptConfig, const MachineNetAddrT* ptAddress) {
    if (ptConfig == nullptr || ptAddress == nullptr) return nullptr;
    constexpr int32 lSize = 64;
    PoolPtr<char> pstrText(static_cast<char*>(MemAllocateFromPool(lSize, MemGetDefaultPoolId())));
    if (pstrText.Get() == nullptr) return nullptr;
    // In both families the bytes of the port follow those of the family.
    const auto* pBytes = static_cast<const ByteT*>(ptAddress->pAddress);
    if (ptAddress->lLength == sizeof(sockaddr_in)) {
        const ByteT* pHost = pBytes + offsetof(sockaddr_in, sin_addr);
        std::snprintf(pstrText.Get(), lSize, "%d.%d.%d.%d.%d.%d", pHost[0], pHost[1], pHost[2],
                      pHost[3], pBytes[2], pBytes[3]);
    } else if (ptAddress->lLength == sizeof(sockaddr_in6)) {
        // In groups throughout: other texts of IPv6 addresses may hold dots.
        const ByteT* pHost = pBytes + offsetof(sockaddr_in6, sin6_addr);
        int iUsed = 0;
        for (int iGroup = 0; iGroup < 8; iGroup++)
            iUsed +=
                std::snprintf(pstrText.Get() + iUsed, lSize - iUsed, iGroup == 0 ? "%x" : ":%x",
                              pHost[2 * iGroup] * 256 + pHost[2 * iGroup + 1]);
        std::snprintf(pstrText.Get() + iUsed, lSize - iUsed, ".%d.%d", pBytes[2], pBytes[3]);
    } else {
        return nullptr;
    }
    return pstrText.Take();
}
