// What processes of the tests that send messages share.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "core/msgchannel.h"
#include "core/process.h"
#include "core/sys.h"

using Clock = std::chrono::steady_clock;

inline int SecondsSince(Clock::time_point start) {
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count());
}

// A process of another machine, or of this one; the caller's.
inline MsgAddressO AddressOf(const std::string& machine, ProcIdT id) {
    MsgAddressO address = nullptr;
    MsgCreateAddress(&address, machine.c_str(), id);
    return address;
}
inline MsgAddressO AddressOf(ProcIdT id) { return AddressOf(SysLocalMachineName(), id); }

// A time from now; the caller's.
inline TimeTimeoutO In(int32 seconds, int32 milliseconds = 0) {
    TimeTimeoutO timeout = nullptr;
    TimeCreateAndSetTimeout(&timeout, seconds, milliseconds);
    return timeout;
}

// Joins the processes of the machine that its communications manager serves. Its answer means that
// others can reach this one from now on.
inline bool Connect(ProcIdT id) {
    ObjHolder<MsgMessageS> pong;
    return ProcSetId(id) == TRUE && MsgIpcConnect(eMsgProcTypeProcess) == TRUE &&
           MsgSendObject(MsgCommMgrAddress(), MSG_PING_MSG, nullptr) == TRUE &&
           MsgReceiveMsgTypeFromAddress(pong.Address(), MSG_PONG_MSG, MsgCommMgrAddress(),
                                        nullptr) == TRUE;
}

// Listens on a port of the loopback interface that the system gives; *at says where.
inline NetSocketT ListenOnLoopback(NetAddressT* at) {
    NetSocketT listening = -1;
    NetOpen(&listening, NET_TYPE_TCP, AF_INET);
    NetInitializeIpAddress(at, "127.0.0.1", 0, AF_INET);
    NetBind(listening, at);
    NetListen(listening, 5);
    NetGetLocalAddress(at, listening);
    return listening;
}

// A line for the test that has started this process.
inline void Say(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}
