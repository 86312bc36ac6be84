#include "nng.h"

#include <arpa/inet.h>
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

namespace {

void Check(int error) {
    if (error != 0) Fail(std::string("nng: ") + nng_strerror(error));
}

class NngEnd : public Link {
 public:
    NngEnd(Pattern pattern, const std::string& address) {
        const bool request = pattern == Pattern::Request;
        if (address.empty()) {
            Check(request ? nng_rep0_open(&m_socket) : nng_pull0_open(&m_socket));
            Check(nng_socket_set_size(m_socket, NNG_OPT_RECVMAXSZ, 0));
            Check(nng_listen(m_socket, "tcp://127.0.0.1:0", &m_listener, 0));
        } else {
            Check(request ? nng_req0_open(&m_socket) : nng_push0_open(&m_socket));
            Check(nng_socket_set_size(m_socket, NNG_OPT_RECVMAXSZ, 0));
            Check(nng_dial(m_socket, address.c_str(), nullptr, 0));
        }
    }
    ~NngEnd() override {
        if (m_message != nullptr) nng_msg_free(m_message);
        nng_close(m_socket);
    }
    std::string Address() const override {
        nng_sockaddr bound;
        Check(nng_listener_get_addr(m_listener, NNG_OPT_LOCADDR, &bound));
        return "tcp://127.0.0.1:" + std::to_string(ntohs(bound.s_in.sa_port));
    }
    void Send(const std::string& body) override {
        Check(nng_send(m_socket, const_cast<char*>(body.data()), body.size(), 0));
    }
    std::size_t Receive() override {
        if (m_message != nullptr) nng_msg_free(m_message);
        m_message = nullptr;
        Check(nng_recvmsg(m_socket, &m_message, 0));
        return nng_msg_len(m_message);
    }
    void SendBack() override {
        Check(nng_sendmsg(m_socket, m_message, 0));
        m_message = nullptr;
    }

 private:
    nng_socket m_socket = NNG_SOCKET_INITIALIZER;
    nng_listener m_listener = NNG_LISTENER_INITIALIZER;
    nng_msg* m_message = nullptr;
};

}  // namespace

std::unique_ptr<Link> NngLink(Pattern pattern, const std::string& address) {
    return std::make_unique<NngEnd>(pattern, address);
}
