// What the sources of channels and dispatch share. Packets move through them like this:
//
//   msgdispatch.cpp  chooses the channel for a packet that is sent
//   msgchannel.cpp   makes channels, keeps them by id, closes them, takes them down
//   msgio.cpp        moves bytes between channels and sockets, looks at what has arrived
//   msgnotice.cpp    follows what the managers tell about processes and machines
//   msgreceive.cpp   the select loop, the receive list, the waits for a type of message
//   msgopen.cpp      data channels: listening for the target
//   msgconnect.cpp   data channels: connecting to the opener
//   msgpending.cpp   data channels: what is left to the select loop
//   msgnets.cpp      addresses and ports at which machines are reached
//   msgipc.cpp       the link to the communications manager
#pragma once

#include "core/context.h"
#include "core/memory.h"
#include "core/msgchannel.h"
#include "core/objmap.h"
#include "core/strbase.h"
#include "core/time.h"
#include "msginternal.h"

// Pending connections, connect-back and lingering take at most this long.
constexpr int32 MsgConnectionSeconds = 300;

inline TesselContextMsgS& MsgState() { return gtTlContext.sMsg; }

inline const char* MsgText(const char* pstrText) { return pstrText == nullptr ? "" : pstrText; }

// Names of machines and services, without regard to case.
inline bool MsgTextsEqual(const char* pstrA, const char* pstrB) {
    return StrCompareNoCase(pstrA, pstrB) == 0;
}

// Whose end ends a wait for an address: behind a channel, the remote end. It is looked up once: the
// channel may be closed when a notice comes.
struct MsgPeerT {
    ObjHolder<MsgAddressS> oProcess;  // null when there is no address or nobody is known behind it
    int32 lChannelId;                 // -1 when the address is not that of a channel

    explicit MsgPeerT(MsgAddressO oAddress)
        : lChannelId(MsgIsAChannel(oAddress) == TRUE ? MsgGetChannelId(oAddress) : -1) {
        MsgRemoteEnd(oProcess.Address(), oAddress);
    }
    const char* Machine() const { return MsgGetMachineName(oProcess.Get()); }
    bool IsOn(const char* pstrMachine) const {
        return Machine() != nullptr && MsgTextsEqual(Machine(), pstrMachine);
    }
};

template <class T>
void MsgHandOut(T** poResult, T* oObject) {
    *poResult = MsgHold(oObject);
}

// Holds an object, or null, in place of another.
template <class T>
void MsgReplaceHeld(T** poPlace, T* oNew) {
    ObjHolder<T> oOld(*poPlace);
    *poPlace = MsgHold(oNew);
}

struct MsgSettingsT {
    int32 lTunnelPort;      // of this machine; 0 without a tunnel
    int32 lMaximumMessage;  // bytes of the largest packet that is sent or taken
    int32 lPeerSeconds;     // how long a peer may leave sent data unacknowledged; 0: the system's
    int32 lConnectSeconds;  // that an address of several has to answer
};
extern MsgSettingsT gtMsgSettings;

void MsgReadSettings();

// Closes the socket on every path unless it is taken.
class MsgSocketHolder {
 public:
    MsgSocketHolder() = default;
    ~MsgSocketHolder() {
        if (m_tSocket != -1) NetClose(&m_tSocket);
    }
    MsgSocketHolder(const MsgSocketHolder&) = delete;
    MsgSocketHolder& operator=(const MsgSocketHolder&) = delete;
    NetSocketT Get() const { return m_tSocket; }
    NetSocketT* Address() { return &m_tSocket; }
    void Take() { m_tSocket = -1; }

 private:
    NetSocketT m_tSocket = -1;
};

TimeTimeoutO MsgImmediate();  // shared: an expired timeout

// A null timeout never does.
inline bool MsgHasExpired(TimeTimeoutO oTimeout) {
    return oTimeout != nullptr && TimeTimeoutHasExpired(oTimeout) == TRUE;
}

// --- channels (msgchannel.cpp) ---

inline bool MsgIsChannelObject(MsgChannelO oChannel) {
    return ObjCheckTypeInternal(oChannel, MsgChannelMagic) == TRUE;
}

BooleanT MsgCreateChannelState();  // the empty lists, masks and map of the thread
BooleanT MsgChannelById(MsgChannelO* poChannel, int32 lId);  // a new holder

inline NetSocketT MsgSocketOf(MsgChannelO oChannel) {
    return static_cast<NetSocketT>(oChannel->tSocket);
}

// Where a packet begins on the channel's link.
inline int32 MsgLinkStart(MsgChannelO oChannel) {
    return oChannel->bIsIpcChannel == TRUE ? 0 : MsgHeaderAreaSize;
}

void MsgWatchOutput(MsgChannelO oChannel, bool bWatch);  // in the master select mask
MsgPacketO MsgFirstOutput(MsgChannelO oChannel);         // stays the queue's; null when it is empty
// Queues the packet and takes over the caller's holder, whatever becomes of it.
BooleanT MsgQueueOutput(MsgChannelO oChannel, MsgPacketO* poPacket);
// The same for a message from this process to the channel's address; sent when there is a chance.
BooleanT MsgQueueNote(MsgChannelO oChannel, MsgAddressO oDestination, MsgTypeT tMsgType);

void MsgChannelDown(MsgChannelO oChannel);
// The same for one that the application has never seen: no notice, and out of the map.
void MsgDiscardChannel(MsgChannelO oChannel);
BooleanT MsgChannelLinger(MsgChannelO oChannel);
void MsgLingerChannels();  // all of them
// Every channel that the test accepts goes down.
using MsgChannelTestFnT = bool (*)(MsgChannelO oChannel, const void* pArgument);
void MsgChannelsDownWhere(MsgChannelTestFnT fnTest, const void* pArgument);
// The sockets of all registered and lingering channels, for reading.
void MsgAddChannelSockets(NetSelectMaskT tMask);
// Serves every registered and lingering channel whose socket the mask holds.
void MsgServeChannels(NetSelectMaskT tMask);
void MsgServeLingering(NetSelectMaskT tMask);
void MsgReleaseChannels();

// --- input and output (msgio.cpp) ---

// The next whole packet, as it came; FALSE when there is none yet or the channel is down.
BooleanT MsgChannelReceiveData(MsgPacketO* poPacket, MsgChannelO oChannel);

// --- notices to this process (msgreceive.cpp) ---

// Appended to the receive list, from and to this process.
BooleanT MsgNotify(MsgTypeT tMsgType, void* oObject);
// The same between given addresses. Without an id for the source's machine, from this process.
BooleanT MsgNotifyBetween(MsgAddressO oDestination, MsgAddressO oSource, MsgTypeT tMsgType,
                          void* oObject);
// One pass: waits for anything at most until the timeout, then serves whatever is ready.
void MsgSelect(TimeTimeoutO oTimeout);
void MsgServeHandlers(NetSelectMaskT tMask);
// One pass for a wait of this library's own for a socket: until it is readable, or else writable or
// failed (NET_ERROR_NONE), or other channels or pending connections have been served, or a signal
// came (NET_ERROR_INTERRUPTED). Handlers and timers are not called.
NetErrorE MsgTurnBeside(NetSocketT tSocket, bool bRead, TimeTimeoutO oTimeout);
// Whether a notice among the packets behind the first lKnown says that the process, its machine or
// the link to it is gone.
BooleanT MsgPeerIsGone(MsgAddressO oAddress, int32 lKnown);

// --- what managers tell (msgnotice.cpp) ---

BooleanT MsgCheckIpcMessage(MsgPacketO oPacket);  // FALSE: the packet is not for the application
void MsgWatchProcess(MsgAddressO oAddress);       // when it is on another machine
void MsgForgetProcess(MsgAddressO oAddress);      // the opposite
void MsgPrepareTaskFailure(MsgPacketO oPacket);   // for a task asked of another machine

// --- data channels (msgconnect.cpp, msgopen.cpp, msgpending.cpp, msgnets.cpp) ---

// The section of the firewall file whose ports data channels between machines use.
constexpr char MsgFirewallSection[] = "MsgChannel";
const char* MsgAnyAddress(std::int16_t sFamily);
BooleanT MsgBindLoopback(NetSocketT tSocket, std::int16_t sFamily);  // to any port
// What the connecting side says first on a new channel. One on which it cannot be said goes without
// a notice: nobody has seen it.
BooleanT MsgSendGreetings(MsgChannelO oChannel, int32 lType, int32 eSendOk, MsgAddressO oTunnelBody,
                          MsgAddressO oOkBody);

struct MsgPendingT {
    MsgAddressO oRemote;
    MsgChannelBlockingE eBlocking;
    MsgChannelNotifyDownE eNotifyDown;
    MsgChannelOkE eWaitForOk;
    MsgChannelSendOkE eSendOk;
    void* oCookie;
    MsgChannelConnectTypeE eType;
};

// On success the entry owns the socket, which the caller puts into the select mask.
BooleanT MsgAddPending(MsgSocketHolder& tSocket, const MsgPendingT& tPending);
void MsgCheckConnectionTimeouts(NetSelectMaskT tReady);
void MsgLowerToPending(TimeTimeoutO oTimeout);
void MsgReleaseConnecting();
// A successful connection (error 0) or a failed one, as MSG_CONNECTED_MSG to this process.
BooleanT MsgNotifyConnected(MsgAddressO oRemoteAddress, MsgChannelO oChannel, int32 lErrorCode,
                            void* oCookie);
// The two families in the order in which they are tried.
struct MsgFamiliesT {
    std::int16_t asFamilies[2];
};
MsgFamiliesT MsgFamilies();
// Addresses of a host in both families, each once, appended; TRUE when there is any.
BooleanT MsgResolveHost(ListO oAddressList, const char* pstrHost);
