#include "zeromq.h"

#include <zmq.h>

namespace {

void Check(bool good) {
    if (!good) Fail(std::string("ZeroMQ: ") + zmq_strerror(zmq_errno()));
}

class ZeromqEnd : public Link {
 public:
    ZeromqEnd(Pattern pattern, const std::string& address) {
        const bool serves = address.empty();
        const int server = pattern == Pattern::Request ? ZMQ_REP : ZMQ_PULL;
        const int caller = pattern == Pattern::Request ? ZMQ_REQ : ZMQ_PUSH;
        m_socket = zmq_socket(m_context, serves ? server : caller);
        Check(serves ? zmq_bind(m_socket, "tcp://127.0.0.1:*") == 0
                     : zmq_connect(m_socket, address.c_str()) == 0);
        zmq_msg_init(&m_message);
    }
    ~ZeromqEnd() override {
        const int none = 0;
        zmq_setsockopt(m_socket, ZMQ_LINGER, &none, sizeof(none));
        zmq_msg_close(&m_message);
        zmq_close(m_socket);
        zmq_ctx_term(m_context);
    }
    std::string Address() const override {
        char address[256];
        std::size_t size = sizeof(address);
        Check(zmq_getsockopt(m_socket, ZMQ_LAST_ENDPOINT, address, &size) == 0);
        return address;
    }
    void Send(const std::string& body) override {
        Check(zmq_send(m_socket, body.data(), body.size(), 0) >= 0);
    }
    std::size_t Receive() override {
        Check(zmq_msg_recv(&m_message, m_socket, 0) >= 0);
        return zmq_msg_size(&m_message);
    }
    void SendBack() override { Check(zmq_msg_send(&m_message, m_socket, 0) >= 0); }

 private:
    void* m_context = zmq_ctx_new();
    void* m_socket = nullptr;
    zmq_msg_t m_message;
};

}  // namespace

std::unique_ptr<Link> ZeromqLink(Pattern pattern, const std::string& address) {
    return std::make_unique<ZeromqEnd>(pattern, address);
}
