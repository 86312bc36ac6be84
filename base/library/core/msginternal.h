// What the sources of messaging share. Private to the library.
#pragma once

#include "core/msg.h"
#include "core/msgchannel.h"

// Every class of the layer and of what processes ask of their manager, X(name, descriptor): record
// nameS, magic nameMagic.
#define MSG_CLASSES(X)                                         \
    X(MsgAddress, "s;i;")                                      \
    X(MsgMessage, "o;o;i;i;o;")                                \
    X(MsgPacket, "d;")                                         \
    X(MsgError, "i;s;o;")                                      \
    X(MsgUnknown, "s;i;o;")                                    \
    X(MsgPing, "i;i;")                                         \
    X(PmgrProcessDied, "o;")                                   \
    X(PmgrGiveServiceATaskReturn, "b;i;o;i;b;i;o;")            \
    X(PmgrTask, "o;i;o;i;")                                    \
    X(MsgConnectInet, "i;i;")                                  \
    X(MsgConnect, "b;i;o;i;o;")                                \
    X(MsgConnected, "b;i;o;o;")                                \
    X(MsgConnecting, "o;p;o;i;i;i;i;i;o;i;")                   \
    X(MsgChannel, "i;p;o;o;o;o;b;b;b;b;b;b;o;o;i;d;i;b;n512;") \
    X(MsgTunnelListenRequest, "i;o;o;")                        \
    X(MsgIpcConnect, "i;i;i;")                                 \
    X(MsgHandlerEntry, "p;o;")                                 \
    X(MsgProxySource, "o;o;")                                  \
    X(PmgrGiveServiceATask, "o;s;i;s;b;o;i;")                  \
    X(PmgrGiveServiceATaskExt, "o;s;i;s;b;o;i;o;o;")           \
    X(PmgrTaskExt, "o;i;o;i;o;o;")                             \
    X(ProcAddress, "s;s;i;")                                   \
    X(SetProcessContextRequest, "o;o;")                        \
    X(PmgrNotifyOnDeath, "o;")                                 \
    X(PmgrCancelNotifyOnDeath, "o;o;")                         \
    X(PmgrProcessStatus, "i;i;i;b;b;i;")                       \
    X(PmgrStartOfDayReady, "i;o;")                             \
    X(ProcInitializeArgs, "i;b;b;b;b;b;s;s;i;s;s;b;b;")        \
    X(PmgrProcessInitialStatus, "o;i;o;")                      \
    X(PmgrAttachToUnixShm, "i;i;i;i;i;")                       \
    X(PmgrSetLocale, "s;o;")                                   \
    X(MsgChildInitialized, "i;i;")                             \
    X(PmgrKillProcess, "o;i;")                                 \
    X(PmgrGetProcessState, "o;")                               \
    X(PmgrGetProcessStateReturn, "o;i;")                       \
    X(ProcGiveTaskArgs, "s;s;b;o;i;")                          \
    X(ProcCleanup, "p;p;")                                     \
    X(TaskContext, "s;i;i;o;o;")                               \
    X(CmgrProcessUnreachable, "o;i;")                          \
    X(CmgrMachineDown, "s;")                                   \
    X(NmgrMachineUnreachable, "s;i;o;")                        \
    X(MsgWaitHandler, "i;o;p;b;")

// MsgAddressDescriptor and so on.
#define MSG_CLASS_DESCRIPTOR(name, descriptor) constexpr char name##Descriptor[] = descriptor;
MSG_CLASSES(MSG_CLASS_DESCRIPTOR)
#undef MSG_CLASS_DESCRIPTOR

// The well-known addresses, made once for the process.
BooleanT MsgAddressInitialize();
MsgAddressO MsgTunnelAddress();  // shared, like those of msg.h

// Of the calling thread: the local address with process id 0, and the table of names.
BooleanT MsgLocalAddressInitialize();
void MsgLocalAddressRelease();
void MsgReleaseNames();

inline bool MsgIsAddress(MsgAddressO oAddress) {
    return ObjCheckTypeInternal(oAddress, MsgAddressMagic) == TRUE;
}
inline bool MsgIsMessage(MsgMessageO oMessage) {
    return ObjCheckTypeInternal(oMessage, MsgMessageMagic) == TRUE;
}

// What may be a body: a sound object or none.
inline bool MsgIsBody(void* oObject) {
    return oObject == nullptr || ObjHasValidGlobalMagic(oObject) == TRUE;
}

// A new holder of the object, which may be null.
template <class T>
T* MsgHold(T* oObject) {
    if (oObject != nullptr) ObjIncRefCount(oObject);
    return oObject;
}

// The process that an address leads to, a new holder: behind a channel, the remote end, which may
// be null. FALSE for a channel that is gone.
BooleanT MsgRemoteEnd(MsgAddressO* poRemote, MsgAddressO oAddress);

// A packet that never leaves the process (MsgPacketWithin).
BooleanT MsgCreateSelfPacket(MsgPacketO* poPacket, MsgAddressO oDestination, MsgAddressO oSource,
                             MsgTypeT tMsgType, void* oObject);
