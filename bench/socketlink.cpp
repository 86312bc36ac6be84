// The least that a message can cost: length-prefixed frames through send and recv.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "link.h"

namespace {

constexpr std::size_t ReadAhead = 1 << 16;

class SocketEnd : public Link {
 public:
    SocketEnd(bool select, const std::string& address)
        : m_select(select), m_overhead(TesselOverhead()) {
        (address.empty() ? m_listening : m_socket) =
            address.empty() ? SocketListen(1) : SocketConnect(std::stoi(address));
    }
    ~SocketEnd() override {
        if (m_listening != -1) close(m_listening);
        if (m_socket != -1) close(m_socket);
    }
    std::string Address() const override { return std::to_string(SocketPort(m_listening)); }

    void Send(const std::string& body) override {
        const auto size = static_cast<std::uint32_t>(body.size() + m_overhead);
        if (m_out.size() != size) {
            m_out.assign(size, 0);
            std::memcpy(m_out.data(), &size, sizeof(size));
            std::copy(body.begin(), body.end(), m_out.end() - static_cast<long>(body.size()));
        }
        SocketSend(m_socket, m_out.data(), size);
    }
    std::size_t Receive() override {
        if (m_socket == -1) Accept();
        m_start += m_frame;
        m_frame = 0;
        for (;;) {
            const std::size_t there = m_end - m_start;
            std::uint32_t size = sizeof(size);
            if (there >= sizeof(size)) std::memcpy(&size, m_in.data() + m_start, sizeof(size));
            if (there >= sizeof(size) && there >= size) {
                m_frame = size;
                return size - m_overhead;
            }
            Read(size - there);
        }
    }
    void SendBack() override { SocketSend(m_socket, m_in.data() + m_start, m_frame); }

 private:
    void Accept() {
        m_socket = accept(m_listening, nullptr, nullptr);
        const int on = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    void Read(std::size_t wanted) {
        std::copy(m_in.begin() + static_cast<long>(m_start),
                  m_in.begin() + static_cast<long>(m_end), m_in.begin());
        m_end -= m_start;
        m_start = 0;
        m_in.resize(std::max(m_in.size(), m_end + std::max(wanted, ReadAhead)));
        if (m_select) {
            fd_set sets[3] = {};
            FD_SET(m_socket, &sets[0]);
            select(m_socket + 1, &sets[0], &sets[1], &sets[2], nullptr);
        }
        const ssize_t got = recv(m_socket, m_in.data() + m_end, std::max(wanted, ReadAhead), 0);
        if (got <= 0) Fail("the other end is gone");
        m_end += static_cast<std::size_t>(got);
    }

    bool m_select;
    std::size_t m_overhead;
    int m_listening = -1;
    int m_socket = -1;
    std::vector<char> m_out;
    std::vector<char> m_in;  // read and not yet given away: from m_start to m_end
    std::size_t m_start = 0, m_end = 0, m_frame = 0;
};

sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

std::unique_ptr<Link> SocketLink(bool select, const std::string& address) {
    return std::make_unique<SocketEnd>(select, address);
}

int SocketListen(int backlog) {
    sockaddr_in address = Loopback(0);
    const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listening, backlog) != 0)
        Fail("cannot listen");
    return listening;
}

int SocketPort(int socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

int SocketConnect(int port) {
    sockaddr_in address = Loopback(port);
    const int on = 1;
    const int connected = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(connected, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        Fail("cannot connect");
    setsockopt(connected, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return connected;
}

void SocketSend(int socket, const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = send(socket, bytes, size, MSG_NOSIGNAL);
        if (sent <= 0) Fail("cannot send");
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
}
