// A channel of this process, whose other end the test speaks byte by byte.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "support/messages.h"
#include "support/peer.h"

struct Link {
    MsgAddressO address = nullptr;
    ObjHolder<MsgChannelS> channel;
    int raw = -1;

    explicit Link(MsgChannelBlockingE blocking = eMsgChannelNonBlocking,
                  MsgChannelOkE ok = eMsgChannelDoNotWaitForOk, bool ipc = false,
                  const char* process = ".:70") {
        const int sockets[2] = {Connected(&raw), raw};
        const Address remote(At(process));
        EXPECT_EQ(MsgChannelCreateInternal(channel.Address(), sockets[0], remote.Get(), blocking,
                                           eMsgChannelNotifyDown,
                                           ipc ? eMsgChannelIpcChannel : eMsgChannelNotIpcChannel,
                                           ok, eMsgChannelNotGuiChannel),
                  TRUE);
        address = MsgChannelAddress(channel.Get());
        ObjIncRefCount(address);
    }
    ~Link() {
        if (raw != -1) close(raw);
        if (address != nullptr) MsgChannelClose(&address);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // A connection over the loopback interface; the result is the other end of *other.
    static int Connected(int* other) {
        NetAddressT at;
        NetSocketT listening = ListenOnLoopback(&at), accepted = -1;
        const int on = 1;
        *other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setsockopt(*other, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));  // bytes leave at once
        EXPECT_EQ(connect(*other, reinterpret_cast<sockaddr*>(&at), 16), 0);
        EXPECT_EQ(NetAccept(&accepted, listening, nullptr), NET_ERROR_NONE);
        NetClose(&listening);
        return accepted;
    }
    void Say(const std::string& text) const {
        EXPECT_EQ(send(raw, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
    }
    void Reset() {
        const linger abort = {1, 0};
        setsockopt(raw, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
        close(raw);
        raw = -1;
    }
    // So many bytes, or what there is after half a second, and what else is there.
    std::string Hear(std::size_t count) const {
        std::string heard(count + 4096, '\0');
        std::size_t at = 0;
        for (pollfd p = {raw, POLLIN, 0}; poll(&p, 1, at < count ? 500 : 0) == 1;) {
            const ssize_t got = recv(raw, heard.data() + at, heard.size() - at, 0);
            if (got <= 0) break;
            at += static_cast<std::size_t>(got);
        }
        heard.resize(at);
        return heard;
    }
    bool Down() const { return MsgChannelIsDown(channel.Get()) == TRUE; }
};
