// What the fuzzers of channels share: a real channel whose peer is the fuzzer, and a process around
// it that looks at everything that arrives, like an application would.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>

#include "core/msgchannel.h"
#include "core/msgwait.h"
#include "core/process.h"
#include "fuzzsupport.h"

inline MsgAddressO FuzzAddress(const char* machine, ProcIdT id) {
    MsgAddressO oAddress = nullptr;
    Expect(MsgMakeAddress(&oAddress, machine, id) == TRUE);
    return oAddress;
}

constexpr MsgTypeT FuzzHandledType = 6000;   // a handler of waits takes it
constexpr MsgTypeT FuzzSentinelType = 7777;  // behind everything that has arrived

// A home that knows two other machines, and a process in it that takes messages and traces.
inline void FuzzInitializeMessages() {
    const std::string home = FuzzMakeHome("etc", true);
    std::filesystem::create_directories(home + "/config");
    std::ofstream(home + "/etc/machines.dat") << "[beta]\nId=5\n\n[gamma]\nId=6\nServer=TRUE\n";
    gtTlContext.sMsg.bInitialized = TRUE;
    MsgWaitKeepUnhandledMessages();
    MsgWaitDisableDefaultHandlers();
    MsgWaitAddHandler(
        FuzzHandledType, [](MsgMessageO, void*) { return eMsgWaitResultHandled; }, nullptr);
}

// Hands out the bytes of the input one value after the other.
class FuzzInput {
 public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_left(size) {}
    unsigned Byte() {
        if (m_left == 0) return 0;
        m_left--;
        return *m_data++;
    }
    unsigned Word() {
        const unsigned low = Byte();
        return low | Byte() << 8;
    }
    std::string Bytes(size_t count) {
        count = std::min(count, m_left);
        std::string bytes(reinterpret_cast<const char*>(m_data), count);
        m_data += count;
        m_left -= count;
        return bytes;
    }
    std::string Rest() { return Bytes(m_left); }
    bool IsEmpty() const { return m_left == 0; }

 private:
    const uint8_t* m_data;
    size_t m_left;
};

// What travels on a network link, with lengths that agree.
inline std::string FuzzFrame(MsgTypeT tMsgType, const std::string& body) {
    std::string frame;
    for (const size_t word : {body.size() + MsgBodyHeadSize, static_cast<size_t>(tMsgType)})
        for (int shift = 0; shift < 32; shift += 8) frame += static_cast<char>(word >> shift);
    return frame + body;
}

// Two connected sockets: one is the channel's, the other the fuzzer's.
class FuzzLink {
 public:
    FuzzLink(MsgAddressO oRemote, MsgChannelIpcChannelE eIpc, MsgChannelOkE eWaitForOk) {
        int sockets[2];
        Expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) == 0);
        m_peer = sockets[1];
        fcntl(m_peer, F_SETFL, O_NONBLOCK);
        Expect(MsgChannelCreateInternal(&m_oChannel, sockets[0], oRemote, eMsgChannelNonBlocking,
                                        eMsgChannelNotifyDown, eIpc, eWaitForOk,
                                        eMsgChannelNotGuiChannel) == TRUE);
    }
    ~FuzzLink() {
        Close();
        ObjRelease(&m_oChannel);
    }
    FuzzLink(const FuzzLink&) = delete;
    FuzzLink& operator=(const FuzzLink&) = delete;
    MsgChannelO Channel() const { return m_oChannel; }
    bool IsUp() const { return MsgChannelIsDown(m_oChannel) != TRUE; }

    // Sends the bytes in pieces of that length (0: in one), each read before the next one leaves.
    void Send(const std::string& bytes, size_t piece) {
        piece = std::max({piece == 0 ? bytes.size() : piece, bytes.size() / PiecesAtMost, 1UL});
        for (size_t at = 0; at < bytes.size() && IsUp(); at += piece) {
            const size_t length = std::min(piece, bytes.size() - at);
            Expect(write(m_peer, bytes.data() + at, length) == static_cast<ssize_t>(length));
            ReadAll();
        }
    }
    // The fuzzer's end goes first, then what the application holds.
    void Close() {
        if (m_peer == -1) return;
        Drain();
        close(m_peer);
        m_peer = -1;
        while (IsUp()) MsgChannelInputData(m_oChannel);
        ObjHolder<MsgAddressS> oAddress(MsgChannelAddress(m_oChannel));
        ObjIncRefCount(oAddress.Get());
        MsgChannelClose(oAddress.Address());
    }

 private:
    static constexpr size_t PiecesAtMost = 64;

    // A pass that leaves bytes in the socket must have taken some.
    void ReadAll() {
        int before = 0;
        for (ioctl(Socket(), FIONREAD, &before); IsUp() && before > 0;) {
            MsgChannelInputData(m_oChannel);
            int left = 0;
            if (IsUp()) ioctl(Socket(), FIONREAD, &left);
            Expect(left < before);
            before = left;
        }
    }
    int Socket() const { return MsgChannelSocket(m_oChannel); }
    void Drain() const {  // what the channel has answered
        char bytes[4096];
        while (read(m_peer, bytes, sizeof(bytes)) > 0) {
        }
    }

    int m_peer;
    MsgChannelO m_oChannel = nullptr;
};

// The default handlers, for messages that make them neither end the process nor connect nor write.
inline void FuzzHandleByDefault(MsgMessageO oMessage) {
    constexpr MsgTypeT atHarmless[] = {CMGR_MACHINE_DOWN_MSG, PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG,
                                       MSG_UNKNOWN_MSG, MSG_CONNECTED_MSG, TIMER_CALLBACK_MSG};
    if (std::find(std::begin(atHarmless), std::end(atHarmless), MsgType(oMessage)) ==
        std::end(atHarmless))
        return;
    gtTlContext.sMsgWait.bDisableDefaultHandlers = FALSE;
    MsgWaitDefaultHandlers(oMessage);
    gtTlContext.sMsgWait.bDisableDefaultHandlers = TRUE;
}

// What an application asks of a message, and the answers it gives.
inline void FuzzUseMessage(MsgMessageO oMessage, MsgAddressO oPeer) {
    ObjHolder<MsgAddressS> oSource;
    ObjHolder<MsgAddressS> oDestination;
    ObjHolder<MsgAddressS> oSender;
    ObjHolder<MsgAddressS> oProxyPeer;
    ObjHolder<void> oBody;
    MsgGetSource(oSource.Address(), oMessage);
    MsgGetDestination(oDestination.Address(), oMessage);
    MsgGetSender(oSender.Address(), oMessage);
    MsgGetProxyPeer(oProxyPeer.Address(), oMessage);
    MsgGetObject(oBody.Address(), oMessage, 0);
    MsgIsFrom(oMessage, oPeer);
    MsgIsFromLocalMachine(oMessage);
    MsgAddressIsFrom(oPeer, oSource.Get());
    MsgAddressEqual(oSender.Get(), oProxyPeer.Get());
    FuzzHandleByDefault(oMessage);
    if (MsgType(oMessage) == MSG_PING_MSG)
        MsgPong(oMessage);
    else
        MsgReturnUnknown(oMessage, "nobody handles this");
}

// Waits that look at everything and leave all that nobody handles.
inline void FuzzWait(MsgAddressO oPeer, TimeTimeoutO oAtOnce) {
    for (const bool bExclusive : {true, false}) {
        ObjHolder<MsgMessageS> oMessage;
        const int32 lBefore = MsgReceiveCount();
        if (MsgSendObjectToSelf(FuzzSentinelType, nullptr) != TRUE) return;
        if (bExclusive) {
            const MsgWaitResultE eResult = MsgWaitExclusiveWithTimeout(
                oMessage.Address(), MsgLocalAddress(), FuzzSentinelType, nullptr);
            // One has ended the wait, and one that cannot be read may have.
            Expect(MsgReceiveCount() == lBefore && eResult != eMsgWaitResultTimeout);
        } else {
            MsgWaitMessageWithTimeout(oMessage.Address(), nullptr, FuzzSentinelType, nullptr);
            Expect(MsgReceiveCount() <= lBefore);
        }
    }
    ObjHolder<MsgMessageS> oMessage;
    MsgWaitMessageWithTimeout(oMessage.Address(), oPeer, MSG_PONG_MSG, oAtOnce);
}

// Takes everything: first what a wait for one type looks for, then message by message. The first
// one goes back once and must be the next one again.
inline void FuzzTakeAll(MsgAddressO oPeer) {
    ObjHolder<TimeTimeoutS> oAtOnce;
    Expect(TimeCreateTimeout(oAtOnce.Address()) == TRUE);
    TimeSetTimeoutImmediate(oAtOnce.Get());
    FuzzWait(oPeer, oAtOnce.Get());
    ObjHolder<MsgMessageS> oFound;
    if (MsgReceiveMsgTypeFromAddress(oFound.Address(), MSG_PONG_MSG, oPeer, oAtOnce.Get()) == TRUE)
        Expect(MsgType(oFound.Get()) == MSG_PONG_MSG);
    bool bAgain = true;
    for (;;) {
        ObjHolder<MsgMessageS> oMessage;
        if (MsgPoll(oMessage.Address()) != TRUE) break;
        if (bAgain && MsgRequeue(oMessage.Get()) == TRUE) {
            ObjHolder<MsgPacketS> oPacket;
            Expect(MsgReceivePacket(oPacket.Address(), oAtOnce.Get()) == TRUE);
            Expect(MsgPacketMsgType(oPacket.Get()) == MsgType(oMessage.Get()));
        }
        bAgain = false;
        FuzzUseMessage(oMessage.Get(), oPeer);
    }
    Expect(MsgReceiveCount() == 0);
}

// One input, and the process in which its bytes arrive, which is afterwards as it was before.
//
//   byte 0      bit 0: the rest is the link's bytes; otherwise records, of which whole messages
//   with
//               lengths that agree are made. Bits 1, 2: the id of the process. Bit 4: it traces
//               everything. What the others say is the fuzzer's own
//   byte 1      length of the pieces in which the bytes arrive; 0: all at once
//   a record    message type (a byte, out of a table), what else the fuzzer wants, length of the
//               body (two bytes), body
class FuzzRun {
 public:
    FuzzRun(const uint8_t* data, size_t size, const ProcIdT (&atIds)[4])
        : m_input(data, size),
          m_flags(m_input.Byte()),
          m_piece(m_input.Byte()),
          m_id(atIds[m_flags >> 1 & 3]) {
        ProcSetId(m_id);
        TraceSetLevel(Flag(16) ? eTraceLevelLibVerbose : eTraceLevelAlways);
    }
    ~FuzzRun() {
        TesselContextProcessS& tProcess = gtTlContext.sProcess;
        ObjRelease(&tProcess.oExtendibleContext);
        if (tProcess.oTaskContext != nullptr) ObjReleaseInternal(&tProcess.oTaskContext);
        ListReleaseAll(gtTlContext.sMsg.oNotifyOnDeathList);
        ListReleaseAll(gtTlContext.sMsg.oTaskList);
        TraceSetLevel(eTraceLevelNormal);
    }
    FuzzRun(const FuzzRun&) = delete;
    FuzzRun& operator=(const FuzzRun&) = delete;
    bool Flag(unsigned bit) const { return (m_flags & bit) != 0; }
    unsigned Flags() const { return m_flags; }
    ProcIdT Id() const { return m_id; }
    void SendOver(FuzzLink* link, std::string (*fnRecord)(FuzzInput& input)) {
        std::string bytes;
        if (Flag(1)) bytes = m_input.Rest();
        while (!m_input.IsEmpty()) bytes += fnRecord(m_input);
        link->Send(bytes, m_piece);
    }

 private:
    const NothingLeft m_nothingLeft{false};
    FuzzInput m_input;
    const unsigned m_flags;
    const unsigned m_piece;
    const ProcIdT m_id;
};
