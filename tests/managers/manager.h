// What the small managers of the tests share: starting under a fixed process id, sending what has
// been made by hand, and the loop.
#pragma once

#include <cstdio>

#include "core/context.h"
#include "core/list.h"
#include "core/msgchannel.h"
#include "core/process.h"

// Brings the library up in the home directory that KRHOME names. FALSE, told on standard error.
inline BooleanT ManagerStart(const char* pstrName, ProcIdT tId) {
    if (ContextInitialize() == TRUE && ProcSetId(tId) == TRUE &&
        MsgIpcConnect(eMsgProcTypeProcess) == TRUE)
        return TRUE;
    std::fprintf(stderr, "%s: cannot start\n", pstrName);
    return FALSE;
}

// Tells whoever has started the manager that it serves.
inline void ManagerReady(int32 lPort) {
    std::printf("ready %d\n", lPort);
    std::fflush(stdout);
}

// A listening socket of one family on a port, which is the system's choice for 0; -1 without one.
inline NetSocketT ManagerListen(const char* pstrAddress, int32 lPort, std::int16_t sFamily) {
    NetSocketT tSocket = -1;
    NetAddressT tAddress;
    if (NetOpen(&tSocket, NET_TYPE_TCP, sFamily) != TRUE) return -1;
    NetSetReuseAddress(tSocket);
    if (NetInitializeIpAddress(&tAddress, pstrAddress, lPort, sFamily) == TRUE &&
        NetBind(tSocket, &tAddress) == TRUE && NetListen(tSocket, 128) == TRUE &&
        NetSetNonBlocking(tSocket) == TRUE)
        return tSocket;
    NetClose(&tSocket);
    return -1;
}

inline int32 ManagerPort(NetSocketT tSocket) {
    NetAddressT tAddress;
    return NetGetLocalAddress(&tAddress, tSocket) == TRUE ? NetGetIpPort(&tAddress) : -1;
}
