// Network links from outside: frames, as any peer of a data channel may send them.
//
//   byte 0      bit 0: the rest is the link's bytes; otherwise records, of which frames with
//               lengths that agree are made. Bits 1, 2: the id of the process. Bit 3: it is a
//               proxy. Bit 4: it traces everything. Bit 5: the channel awaits its peer's word,
//               with packets queued. Bits 6, 7: the process at the other end
//   byte 1      length of the pieces in which the bytes arrive; 0: all at once
//   a record    message type (a byte, out of a table), length of the body (two bytes), body
#include "core/objwrappers.h"
#include "fuzzchannel.h"

namespace {

constexpr ProcIdT atIds[] = {100, 0, MsgCommunicationsManagerId, MsgAuditorId};

constexpr MsgTypeT atTypes[] = {
    MSG_DISCONNECT_MSG,
    MSG_FLUSH_CHANNEL_MSG,
    MSG_CHANNEL_AUTH_MSG,
    MSG_PROXY_SOURCE_MSG,
    MSG_SET_PROCESS_CONTEXT_REQUEST_MSG,
    MSG_CONNECTED_OK_MSG,
    MSG_TUNNEL_CONNECT_MSG,
    MSG_IPC_CONNECT_MSG,
    PMGR_TASK_MSG,
    PMGR_PROCESS_DIED_MSG,
    CMGR_MACHINE_DOWN_MSG,
    MSG_SET_TRACE_FILE_MSG,
    MSG_PING_MSG,
    MSG_PONG_MSG,
    MSG_CONNECT_MSG,
    MSG_CONNECTED_MSG,
    MSG_CHANNEL_DOWN_MSG,
    TIMER_CALLBACK_MSG,
    MSG_LOST_SEND_QUEUE_MSG,
    MSG_UNKNOWN_MSG,
    6000,
};

std::string FrameOf(FuzzInput& input) {
    const MsgTypeT tMsgType = atTypes[input.Byte() % std::size(atTypes)];
    const unsigned length = input.Word();
    return FuzzFrame(tMsgType, input.Bytes(length));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    FuzzInitializeMessages();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const unsigned flags = input.Byte();
    const unsigned piece = input.Byte();
    ProcSetId(atIds[flags >> 1 & 3]);
    gtTlContext.sProcess.bIAmAProxy = BooleanFrom((flags & 8) != 0);
    TraceSetLevel((flags & 16) != 0 ? eTraceLevelLibVerbose : eTraceLevelAlways);
    const int32 lObjects = ObjCount();
    {
        const ObjHolder<MsgAddressS> oLocal(FuzzAddress(MsgGetMachineName(MsgLocalAddress()), 50));
        const ObjHolder<MsgAddressS> oBeta(FuzzAddress("beta", 50));
        MsgAddressO aoRemotes[] = {oLocal.Get(), oBeta.Get(), nullptr, MsgChannelDummyAddress()};
        const bool waits = (flags & 32) != 0;
        FuzzLink link(aoRemotes[flags >> 6], eMsgChannelNotIpcChannel,
                      waits ? eMsgChannelWaitForOk : eMsgChannelDoNotWaitForOk);
        MsgAddressO oAddress = MsgChannelAddress(link.Channel());
        if (waits) {
            link.Channel()->oCookie = ObjIntegerNew(7);
            Expect(MsgSendObject(oAddress, 6000, oLocal.Get()) == TRUE);
            Expect(MsgChannelOutputCount(link.Channel()) == 1);
        }
        std::string bytes;
        if ((flags & 1) != 0) bytes = input.Rest();
        while (!input.IsEmpty()) bytes += FrameOf(input);
        link.Send(bytes, piece);
        FuzzTakeAll(oAddress);
        link.Close();
        FuzzTakeAll(nullptr);
    }
    FuzzForget();
    Expect(ObjCount() == lObjects);
    return 0;
}
