// What the sources of waiting share.
//
//   msgwait.cpp         handlers, and how one message passes them
//   msgwaitloop.cpp     waits for messages and conditions, the poll
//   msgwaitpackets.cpp  packets that a wait keeps, the end of a source, the exclusive wait
//   msgdefault.cpp      what is done with a message that no handler takes
//   msginterchange.cpp  request and reply
#pragma once

#include "core/msgwait.h"
#include "msgchannelinternal.h"

inline TesselContextMsgWaitS& MsgWaitState() { return gtTlContext.sMsgWait; }

// Calls the handlers of the message's type until one does not leave it unhandled.
MsgWaitResultE MsgWaitCallHandlers(MsgMessageO oMessage);
// Drops the handlers that were removed while handlers ran; nothing while any still runs.
void MsgWaitDropDiscarded();

// Counts the waits and polls under way, one inside the other. Those inside may be called by a
// handler, but also by a timer, a callback or whoever else is called in between.
class MsgWaitNesting {
 public:
    MsgWaitNesting() { lUnderWay++; }
    ~MsgWaitNesting() { lUnderWay--; }
    MsgWaitNesting(const MsgWaitNesting&) = delete;
    MsgWaitNesting& operator=(const MsgWaitNesting&) = delete;
    static bool IsInner() { return lUnderWay > 1; }

 private:
    static int32 lUnderWay;
};

// Packets that a wait holds back: at its end they return to the head of the receive list, in their
// order and as they came. There is room for a packet before it is taken off the receive list, and
// the way back only joins lists, so that no packet is lost when memory is.
class MsgWaitKept {
 public:
    MsgWaitKept() = default;
    ~MsgWaitKept();
    MsgWaitKept(const MsgWaitKept&) = delete;
    MsgWaitKept& operator=(const MsgWaitKept&) = delete;
    bool MakeRoom();                // for one more
    void Keep(MsgPacketO oPacket);  // once for each successful MakeRoom; holds the packet

 private:
    ObjHolder<ListS> m_oList;
    ListNodeO m_oRoom = nullptr;  // its last node, while it holds no packet
};

enum class MsgWaitEndE { None, ChannelDown, ProcessDied, MachineDown };

// From whom a wait wants its message.
class MsgWaitSource {
 public:
    explicit MsgWaitSource(MsgAddressO oSource);  // null: from anyone
    bool Sent(MsgAddressO oFrom) const;
    // Whether a message says that the source is gone.
    MsgWaitEndE EndedBy(MsgTypeT tMsgType, MsgAddressO oFrom, void* oBody) const;

 private:
    const ObjHolder<MsgAddressS> m_oSource;
    const MsgPeerT m_tPeer;
};
