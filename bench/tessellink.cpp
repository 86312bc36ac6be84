#include <unistd.h>

#include "core/context.h"
#include "core/msgchannel.h"
#include "core/objserial.h"
#include "core/objwrappers.h"
#include "core/process.h"
#include "core/sys.h"
#include "link.h"

namespace {

constexpr MsgTypeT DataType = 6000;
constexpr int32 MostQueued = 8;  // of one way: what is sent faster than it leaves waits here

ObjDataFieldO BodyOf(const std::string& bytes) {
    return ObjDataFieldNew(const_cast<char*>(bytes.data()), static_cast<int32>(bytes.size()));
}

class TesselEnd : public Link {
 public:
    TesselEnd(Route route, const std::string& address) : m_route(route) {
        if (address.empty()) return;
        if (MsgCreateAddress(m_to.Address(), SysLocalMachineName(), std::stoi(address)) != TRUE)
            Fail("no address");
        if (route == Route::Manager) {
            m_channel = gtTlContext.sMsg.oIpcChannel;
            ObjIncRefCount(m_channel);
            return;
        }
        MsgAddressO opened = nullptr;
        if (MsgChannelOpenInternal(&opened, m_to.Get(), nullptr, nullptr, Blocking(),
                                   eMsgChannelWaitForAccept, eMsgChannelDoNotWaitForOk) != TRUE ||
            MsgGetChannel(&m_channel, opened) != TRUE)
            Fail("no data channel");
        ObjRelease(m_to.Address());
        *m_to.Address() = opened;
    }
    ~TesselEnd() override {
        if (m_channel != nullptr) ObjRelease(&m_channel);
        if (m_route != Route::Manager && m_to.Get() != nullptr) MsgChannelClose(m_to.Address());
    }
    std::string Address() const override { return std::to_string(ProcGetId()); }

    void Send(const std::string& body) override {
        if (m_body.Get() == nullptr) *m_body.Address() = BodyOf(body);
        if (MsgSendObject(m_to.Get(), DataType, m_body.Get()) != TRUE) Fail("cannot send");
        Drain(MostQueued);
    }
    void Flush() override { Drain(0); }

    std::size_t Receive() override {
        for (;;) {
            ObjRelease(m_message.Address());
            if (MsgReceive(m_message.Address(), nullptr) != TRUE) continue;
            if (MsgType(m_message.Get()) == MSG_CONNECT_MSG) Answer();
            if (MsgType(m_message.Get()) != DataType) continue;
            ObjHolder<ObjDataFieldS> body;
            if (MsgGetObject(body.Address(), m_message.Get(), ObjDataFieldMagic) != TRUE)
                Fail("no body");
            return static_cast<std::size_t>(ObjGetDataFieldSize(body.Get()));
        }
    }
    void SendBack() override {
        if (MsgSendReply(m_message.Get(), DataType, m_message.Get()->oObject) != TRUE)
            Fail("cannot answer");
    }

 private:
    MsgChannelBlockingE Blocking() const {
        return m_route == Route::BlockingChannel ? eMsgChannelBlocking : eMsgChannelNonBlocking;
    }
    void Answer() {
        MsgAddressO channel = nullptr;
        if (MsgChannelCompleteInternal(&channel, m_message.Get(), Blocking(),
                                       eMsgChannelWaitForConnect, eMsgChannelDoNotSendOk) != TRUE)
            Fail("cannot answer the call");
        ObjRelease(&channel);
    }
    // Nothing that matters arrives meanwhile.
    void Drain(int32 most) {
        while (MsgChannelOutputCount(m_channel) > most) {
            ObjHolder<MsgMessageS> notice;
            MsgReceive(notice.Address(), nullptr);
        }
    }

    Route m_route;
    MsgChannelO m_channel = nullptr;
    ObjHolder<MsgAddressS> m_to;
    ObjHolder<MsgMessageS> m_message;
    ObjHolder<ObjDataFieldS> m_body;
};

}  // namespace

std::unique_ptr<Link> TesselLink(Route route, const std::string& address) {
    return std::make_unique<TesselEnd>(route, address);
}

bool TesselStart(int id) {
    // The manager knows of the process once it has answered it.
    ObjHolder<MsgMessageS> answer;
    return ProcSetId(id) == TRUE && MsgIpcConnect(eMsgProcTypeProcess) == TRUE &&
           MsgSendObject(MsgCommMgrAddress(), MSG_PING_MSG, nullptr) == TRUE &&
           MsgReceiveMsgTypeFromAddress(answer.Address(), MSG_PONG_MSG, MsgCommMgrAddress(),
                                        nullptr) == TRUE;
}

std::size_t TesselOverhead() {
    const std::string body(64, 'x');
    const ObjHolder<ObjDataFieldS> field(BodyOf(body));
    return static_cast<std::size_t>(ObjSerializedSize(field.Get()) + MsgBodyHeadSize) - body.size();
}
