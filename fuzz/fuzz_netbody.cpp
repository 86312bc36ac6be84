// Network links from outside: frames, as any peer of a data channel may send them.
//
// An input is that of fuzzchannel.h. Bit 3 of its first byte: the process is a proxy. Bit 5: the
// channel awaits its peer's word, with packets queued. Bits 6, 7: the process at the other end.
#include "core/objwrappers.h"
#include "fuzzchannel.h"

namespace {

constexpr ProcIdT atIds[] = {100, 0, MsgCommunicationsManagerId, MsgAuditorId};

constexpr MsgTypeT atTypes[] = {MSG_DISCONNECT_MSG,
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
                                6000};

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
    FuzzRun run(data, size, atIds);
    gtTlContext.sProcess.bIAmAProxy = BooleanFrom(run.Flag(8));
    const ObjHolder<MsgAddressS> oLocal(FuzzAddress(MsgGetMachineName(MsgLocalAddress()), 50));
    const ObjHolder<MsgAddressS> oBeta(FuzzAddress("beta", 50));
    MsgAddressO aoRemotes[] = {oLocal.Get(), oBeta.Get(), nullptr, MsgChannelDummyAddress()};
    const bool waits = run.Flag(32);
    FuzzLink link(aoRemotes[run.Flags() >> 6], eMsgChannelNotIpcChannel,
                  waits ? eMsgChannelWaitForOk : eMsgChannelDoNotWaitForOk);
    MsgAddressO oAddress = MsgChannelAddress(link.Channel());
    if (waits) {
        link.Channel()->oCookie = ObjIntegerNew(7);
        Expect(MsgSendObject(oAddress, 6000, oLocal.Get()) == TRUE);
        Expect(MsgChannelOutputCount(link.Channel()) == 1);
    }
    run.SendOver(&link, FrameOf);
    FuzzTakeAll(oAddress);
    link.Close();
    FuzzTakeAll(nullptr);
    return 0;
}
