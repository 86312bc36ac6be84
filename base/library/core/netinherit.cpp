// Handing an open socket over to a child process. The descriptor itself is inherited; the context
// tells the child its number. Until the child exists the number names a descriptor of the parent,
// afterwards one of the child, and only the process that it belongs to may close it: in the other
// one the same number is some other descriptor.
#include <unistd.h>

#include <cerrno>

#include "core/context.h"
#include "core/errnokeeper.h"
#include "core/msgchannel.h"
#include "core/process.h"
#include "core/sys.h"
#include "core/trace.h"
#include "netinternal.h"

TRACE_MODULE("NET")

namespace {

// A stream carries 32 bits of the field, without their sign.
NetSocketT NetInheritSocket(NetInheritContextO oContext) {
    return static_cast<NetSocketT>(oContext->tSocket);
}

bool NetIsContext(NetInheritContextO oContext) {
    return ObjCheckTypeInternal(oContext, NetInheritContextMagic) == TRUE;
}

bool NetIsOwnSocket(NetInheritContextO oContext) {
    return NetInheritSocket(oContext) != NetNoSocket &&
           (oContext->lRealChildId == 0 || oContext->lRealChildId == getpid());
}

BooleanT NetInheritBegin(NetInheritContextO* poContext, NetSocketT tSocket) {
    if (poContext == nullptr || tSocket == NetNoSocket) {
        TraceMessageInline(117, 0, -1, "NetInheritPhase1: invalid arguments %p %d",
                           static_cast<void*>(poContext), tSocket);
        return FALSE;
    }
    ObjHolder<NetInheritContextS> oContext(
        ObjNew<NetInheritContextS>(NetInheritContextMagic, NetInheritDescriptor));
    if (oContext.Get() == nullptr) return FALSE;
    oContext.Get()->lParentId = ProcGetId();
    oContext.Get()->lInstance = ++gtTlContext.sNet.InheritSocket;
    if (NetSetCloseOnExec(tSocket, false) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(118, tErrno.Code(), -1,
                           "NetInheritPhase1: failed to clear close-on-exec flag: %s",
                           tErrno.Text());
        return FALSE;
    }
    oContext.Get()->tSocket = tSocket;
    *poContext = oContext.Take();
    return TRUE;
}

// Only once: afterwards the number is no descriptor of this process.
BooleanT NetInheritGiveUp(NetInheritContextO oContext, int32 lRealId) {
    if (!NetIsContext(oContext) || lRealId < 1 || oContext->lRealChildId != 0 ||
        NetInheritSocket(oContext) == NetNoSocket) {
        TraceMessageInline(119, 0, -1, "NetInheritPhase2: invalid arguments %p %d",
                           static_cast<void*>(oContext), lRealId);
        return FALSE;
    }
    oContext->lRealChildId = lRealId;
    NetSocketT tSocket = NetInheritSocket(oContext);
    return NetClose(&tSocket);
}

BooleanT NetInheritEnd(NetInheritContextO* poContext) {
    if (poContext == nullptr || !NetIsContext(*poContext)) {
        TraceMessageInline(120, 0, -1, "NetInheritDone: invalid arguments %p",
                           static_cast<void*>(poContext));
        return FALSE;
    }
    if (NetIsOwnSocket(*poContext)) {
        NetSocketT tSocket = NetInheritSocket(*poContext);
        NetClose(&tSocket);
        (*poContext)->tSocket = NetNoSocket;
    }
    return ObjRelease(poContext);
}

}  // namespace

BooleanT NetInheritTake(NetSocketT* ptSocket, NetInheritContextO oContext) {
    const NetSocketT tSocket = NetIsContext(oContext) ? NetInheritSocket(oContext) : NetNoSocket;
    if (ptSocket == nullptr || tSocket == NetNoSocket) {
        TraceMessageInline(121, 0, -1, "NetInheritPhase4: invalid arguments %p %p %d",
                           static_cast<void*>(ptSocket), static_cast<void*>(oContext), tSocket);
        return FALSE;
    }
    // This also tells whether there is such a descriptor.
    if (NetSetCloseOnExec(tSocket, true) != TRUE) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(122, tErrno.Code(), -1,
                           "NetInheritPhase4: failed to set close-on-exec flag: %s", tErrno.Text());
        return FALSE;
    }
    *ptSocket = tSocket;
    oContext->tSocket = NetNoSocket;
    oContext->bSuccess = TRUE;
    return TRUE;
}

BooleanT NetInheritPhase1(NetInheritContextO* poContext, NetSocketT tSocket) {
    return NetResult(123, NetInheritBegin(poContext, tSocket), "NetInheritPhase1(%p, %d)",
                     static_cast<void*>(poContext), tSocket);
}

BooleanT NetInheritPhase2(NetInheritContextO oContext, int32 lRealId) {
    return NetResult(124, NetInheritGiveUp(oContext, lRealId), "NetInheritPhase2(%p, %d)",
                     static_cast<void*>(oContext), lRealId);
}

BooleanT NetInheritPhase3(NetInheritContextO oContext, int32 lChildProcessId) {
    ObjHolder<MsgAddressS> oChild;
    const BooleanT bResult = BooleanFrom(
        NetIsContext(oContext) &&
        MsgCreateAddress(oChild.Address(), SysLocalMachineName(), lChildProcessId) == TRUE &&
        MsgSendObject(oChild.Get(), MSG_INHERIT_SOCKET_MSG, oContext) == TRUE);
    return NetResult(135, bResult, "NetInheritPhase3(%p, %d)", static_cast<void*>(oContext),
                     lChildProcessId);
}

BooleanT NetInheritPhase4(NetSocketT* ptSocket, NetInheritContextO oContext) {
    ObjHolder<MsgAddressS> oParent;
    const BooleanT bResult = BooleanFrom(
        NetInheritTake(ptSocket, oContext) == TRUE &&
        MsgCreateAddress(oParent.Address(), SysLocalMachineName(), oContext->lParentId) == TRUE &&
        MsgSendObject(oParent.Get(), MSG_INHERITED_SOCKET_MSG, oContext) == TRUE);
    return NetResult(136, bResult, "NetInheritPhase4(%p, %p)", static_cast<void*>(ptSocket),
                     static_cast<void*>(oContext));
}

BooleanT NetInheritDone(NetInheritContextO* poContext) {
    return NetResult(125, NetInheritEnd(poContext), "NetInheritDone(%p)",
                     static_cast<void*>(poContext));
}

BooleanT NetInheritMatch(NetInheritContextO oContext1, NetInheritContextO oContext2) {
    return NetResult(126,
                     BooleanFrom(NetIsContext(oContext1) && NetIsContext(oContext2) &&
                                 oContext1->lInstance == oContext2->lInstance),
                     "NetInheritMatch(%p, %p)", static_cast<void*>(oContext1),
                     static_cast<void*>(oContext2));
}
