// Interprocess links from outside: whole packets, as the communications manager of a process may
// send them, and as processes may send them to it.
//
// An input is that of fuzzchannel.h. Bit 3 of its first byte: the process knows tasks of the new
// form. A record has a source, a byte out of a table, behind its type.
#include <cstring>

#include "fuzzchannel.h"

namespace {

constexpr ProcIdT atIds[] = {100, 0, MsgCommunicationsManagerId, MsgNetworkManagerId};

constexpr MsgTypeT atTypes[] = {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG,
                                PMGR_PROCESS_DIED_MSG,
                                CMGR_PROCESS_UNREACHABLE_MSG,
                                CMGR_MACHINE_DOWN_MSG,
                                NMGR_MACHINE_UNREACHABLE_MSG,
                                PMGR_TASK_MSG,
                                PMGR_ATTACH_TO_SHM_MSG,
                                MSG_SET_PROCESS_CONTEXT_REQUEST_MSG,
                                MSG_IPC_CONNECT_MSG,
                                MSG_SET_TRACE_LEVEL_MSG,
                                MSG_SET_TRACE_FILE_MSG,
                                MSG_LOG_MEMORY_USAGE_MSG,
                                MSG_KEEP_ALIVE_MSG,
                                MSG_PING_MSG,
                                MSG_PONG_MSG,
                                MSG_CONNECT_MSG,
                                MSG_CONNECTED_MSG,
                                TIMER_CALLBACK_MSG,
                                MSG_DISCONNECT_MSG,
                                MSG_FLUSH_CHANNEL_MSG,
                                MSG_CHANNEL_AUTH_MSG,
                                MSG_PROXY_SOURCE_MSG,
                                MSG_CONNECTED_OK_MSG,
                                MSG_LOST_RECEIVE_QUEUE_MSG,
                                MSG_UNKNOWN_MSG,
                                6000};

constexpr MsgPacketAddressT atSources[] = {{MsgMachineIdLocal, MsgCommunicationsManagerId},
                                           {MsgMachineIdLocal, 50},
                                           {5, 50},
                                           {77, 50},
                                           {MsgMachineIdNone, 1}};

std::string PacketOf(FuzzInput& input) {
    MsgHeaderT tHeader = {};
    tHeader.tMsgType = atTypes[input.Byte() % std::size(atTypes)];
    tHeader.tSource = atSources[input.Byte() % std::size(atSources)];
    tHeader.tDestination = {MsgMachineIdLocal, 100};
    tHeader.tMsgId = 100;
    const unsigned length = input.Word();
    const std::string body = input.Bytes(length);
    tHeader.lLength = MsgPacketPrefixSize + static_cast<int32>(body.size());
    std::string packet(MsgHeaderAreaSize, '\0');
    std::memcpy(packet.data(), &tHeader, sizeof(tHeader));
    return packet + FuzzFrame(tHeader.tMsgType, body);
}

// Something for the notices to find: a process that is watched, a task that is asked for, and a
// channel, all of the machine beta.
void Prepare(MsgAddressO oBeta) {
    const ObjHolder<PmgrNotifyOnDeathS> oWatch(
        ObjNew<PmgrNotifyOnDeathS>(PmgrNotifyOnDeathMagic, "o;"));
    ObjIncRefCount(oBeta);
    oWatch.Get()->oAddress = oBeta;
    Expect(MsgSendObject(MsgProcMgrAddress(), PMGR_NOTIFY_ON_DEATH_MSG, oWatch.Get()) == TRUE);
    const ObjHolder<PmgrGiveServiceATaskS> oTask(
        ObjNew<PmgrGiveServiceATaskS>(PmgrGiveServiceATaskMagic, "o;s;i;s;b;o;i;"));
    oTask.Get()->oProcAddress = ObjNew<ProcAddressS>(ProcAddressMagic, "s;s;i;");
    oTask.Get()->lCookie = 7;
    Expect(MsgSendObject(oBeta, PMGR_GIVE_SERVICE_A_TASK_MSG, oTask.Get()) == TRUE);
}

// A communications manager sends every packet on, here back to where it came from.
void ForwardAll(MsgChannelO oChannel) {
    MsgPacketO oPacket = nullptr;
    while (MsgReceivePopPacket(&oPacket) == TRUE) {
        MsgRedirectPacket(MsgProcMgrAddress(), oPacket);
        MsgChannelDispatch(oChannel, &oPacket);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    FuzzInitializeMessages();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzRun run(data, size, atIds);
    gtTlContext.sProcess.bNewStyleTasks = BooleanFrom(run.Flag(8));
    const ObjHolder<MsgAddressS> oBeta(FuzzAddress("beta", 50));
    FuzzLink link(MsgCommMgrAddress(), eMsgChannelIpcChannel, eMsgChannelDoNotWaitForOk);
    FuzzLink other(oBeta.Get(), eMsgChannelNotIpcChannel, eMsgChannelDoNotWaitForOk);
    const bool isManager = run.Id() == MsgCommunicationsManagerId;
    if (!isManager) {
        ObjIncRefCount(link.Channel());
        gtTlContext.sMsg.oIpcChannel = link.Channel();
        Prepare(oBeta.Get());
    }
    run.SendOver(&link, PacketOf);
    if (isManager) ForwardAll(link.Channel());
    FuzzTakeAll(oBeta.Get());
    link.Close();
    other.Close();
    FuzzTakeAll(nullptr);
    return 0;
}
