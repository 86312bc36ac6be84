// Waiting for sockets. A mask is three of the system's descriptor sets, which have a fixed size: a
// bit outside them is never touched, so a socket with too high a number can be neither added nor
// found.
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "core/errnokeeper.h"
#include "core/memory.h"
#include "core/time.h"
#include "core/trace.h"
#include "netinternal.h"

TRACE_MODULE("NET")

namespace {

constexpr int32 NetLongestSelect = 86400;  // seconds

using NetSetT = fd_set NetSelectMaskS::*;

// --- bits ---

bool NetFits(NetSelectMaskT tMask, NetSocketT tSocket) {
    return tMask != nullptr && tSocket >= 0 && tSocket < FD_SETSIZE;
}

BooleanT NetAddSelect(const char* pstrOperation, NetSelectMaskT tMask, NetSetT tSet,
                      NetSocketT tSocket) {
    const bool bFits = NetFits(tMask, tSocket);
    if (bFits) {
        FD_SET(tSocket, &(tMask->*tSet));
        tMask->tSelectBits = std::max(tMask->tSelectBits, tSocket + 1);
    } else if (tMask != nullptr && tSocket != NetNoSocket) {
        TraceMessageInline(109, 0, -1, "%s: socket %d does not fit into a mask of %d",
                           pstrOperation, tSocket, FD_SETSIZE);
    }
    return NetResult(127, BooleanFrom(bFits), "%s(%p, %d)", pstrOperation,
                     static_cast<void*>(tMask), tSocket);
}

BooleanT NetRemoveSelect(const char* pstrOperation, NetSelectMaskT tMask, NetSetT tSet,
                         NetSocketT tSocket) {
    const bool bFits = NetFits(tMask, tSocket);
    if (bFits) FD_CLR(tSocket, &(tMask->*tSet));
    return NetResult(128, BooleanFrom(bFits), "%s(%p, %d)", pstrOperation,
                     static_cast<void*>(tMask), tSocket);
}

BooleanT NetIsSelectSet(const char* pstrOperation, NetSelectMaskT tMask, NetSetT tSet,
                        NetSocketT tSocket) {
    const bool bSet = NetFits(tMask, tSocket) && FD_ISSET(tSocket, &(tMask->*tSet));
    return NetResult(129, BooleanFrom(bSet), "%s(%p, %d)", pstrOperation, static_cast<void*>(tMask),
                     tSocket);
}

// --- waiting ---

// Waits as long as ptTime says, without limit for null.
NetErrorE NetSelectMask(int32* plSelected, NetSelectMaskT tMask, timeval* ptTime) {
    const int iReady = select(std::clamp(tMask->tSelectBits, 0, FD_SETSIZE), &tMask->tRecvFds,
                              &tMask->tSendFds, &tMask->tExcpFds, ptTime);
    if (plSelected != nullptr) *plSelected = std::max(iReady, 0);
    if (iReady > 0) return NET_ERROR_NONE;
    if (iReady == 0) return NET_ERROR_TIMEOUT;
    if (errno == EINTR) return NET_ERROR_INTERRUPTED;
    const ErrnoKeeper tErrno;
    TraceMessageInline(7, tErrno.Code(), -1, "Fatal network select error: %s", tErrno.Text());
    return NET_ERROR_FATAL;
}

NetErrorE NetSelectUntil(int32* plSelected, NetSelectMaskT tMask, TimeTimeoutO oTimeout) {
    if (TimeTimeoutIsNever(oTimeout) == TRUE) {
        TraceMessageInline(110, 0, 4, "Wait for data (no timeout)");
        return NetSelectMask(plSelected, tMask, nullptr);
    }
    timeval tTime = {};
    TimeSetTimeval(&tTime, oTimeout);
    const int64 llLeft = static_cast<int64>(tTime.tv_sec) * 1000 + tTime.tv_usec / 1000;
    TraceMessageInline(
        111, 0, 4, "Wait %d milliseconds for data",
        static_cast<int32>(std::min<int64>(llLeft, std::numeric_limits<int32>::max())));
    if (tTime.tv_sec >= NetLongestSelect) tTime = {.tv_sec = NetLongestSelect, .tv_usec = 0};
    return NetSelectMask(plSelected, tMask, &tTime);
}

bool NetRefusesMask(const char* pstrOperation, NetSelectMaskT tMask) {
    if (tMask != nullptr) return false;
    TraceMessageInline(112, 0, -1, "%s: no select mask", pstrOperation);
    return true;
}

// --- diagnosis ---

struct NetCheckT {
    const char* pstrName;
    NetSetT tSet;
};

constexpr NetCheckT atNetChecks[] = {{"read", &NetSelectMaskS::tRecvFds},
                                     {"write", &NetSelectMaskS::tSendFds},
                                     {"exception", &NetSelectMaskS::tExcpFds}};

// One socket in one set, without waiting.
void NetCheckSocket(NetSocketT tSocket, const NetCheckT& tCheck) {
    NetSelectMaskS tOne = {};
    FD_SET(tSocket, &(tOne.*tCheck.tSet));
    timeval tTime = {};
    if (select(tSocket + 1, &tOne.tRecvFds, &tOne.tSendFds, &tOne.tExcpFds, &tTime) == -1) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(113, tErrno.Code(), -1, "Fatal %s select error on %d: %s",
                           tCheck.pstrName, tSocket, tErrno.Text());
        return;
    }
    TraceMessageInline(114, 0, 3, "Socket %d has %s select %s", tSocket, tCheck.pstrName,
                       FD_ISSET(tSocket, &(tOne.*tCheck.tSet)) ? "set" : "not set");
}

}  // namespace

// --- masks ---

BooleanT NetInitializeSelectMask(NetSelectMaskT* ptMask) {
    if (ptMask != nullptr) *ptMask = MemNew<NetSelectMaskS>();
    return NetResult(130, BooleanFrom(ptMask != nullptr && *ptMask != nullptr),
                     "NetInitializeSelectMask(%p)", static_cast<void*>(ptMask));
}

BooleanT NetDuplicateSelectMask(NetSelectMaskT* ptNewMask, NetSelectMaskT tMask) {
    if (NetRefusesMask("NetDuplicateSelectMask", tMask) ||
        NetInitializeSelectMask(ptNewMask) != TRUE) {
        return FALSE;
    }
    return NetCopySelectMask(*ptNewMask, tMask);
}

BooleanT NetCopySelectMask(NetSelectMaskT tNewMask, NetSelectMaskT tMask) {
    if (NetRefusesMask("NetCopySelectMask", tNewMask) || NetRefusesMask("NetCopySelectMask", tMask))
        return FALSE;
    if (tNewMask != tMask) *tNewMask = *tMask;
    return NetResult(131, TRUE, "NetCopySelectMask(%p, %p)", static_cast<void*>(tNewMask),
                     static_cast<void*>(tMask));
}

BooleanT NetReleaseSelectMask(NetSelectMaskT* ptMask) {
    return NetResult(132, MemFree(ptMask), "NetReleaseSelectMask(%p)", static_cast<void*>(ptMask));
}

// --- bits ---

// The three operations of each set.
#define NET_SELECT_SET(Name, tSet)                                                                 \
    BooleanT NetAdd##Name##Select(NetSelectMaskT tMask, NetSocketT tSocket) {                      \
        return NetAddSelect("NetAdd" #Name "Select", tMask, &NetSelectMaskS::tSet, tSocket);       \
    }                                                                                              \
    BooleanT NetRemove##Name##Select(NetSelectMaskT tMask, NetSocketT tSocket) {                   \
        return NetRemoveSelect("NetRemove" #Name "Select", tMask, &NetSelectMaskS::tSet, tSocket); \
    }                                                                                              \
    BooleanT NetIs##Name##SelectSet(NetSelectMaskT tMask, NetSocketT tSocket) {                    \
        return NetIsSelectSet("NetIs" #Name "SelectSet", tMask, &NetSelectMaskS::tSet, tSocket);   \
    }
NET_SELECT_SET(Read, tRecvFds)
NET_SELECT_SET(Write, tSendFds)
NET_SELECT_SET(Exception, tExcpFds)

// --- waiting ---

NetErrorE NetSelect(int32* plSelected, NetSelectMaskT tMask, TimeTimeoutO oTimeout) {
    if (NetRefusesMask("NetSelect", tMask)) return NET_ERROR_FATAL;
    int32 lSelected = 0;
    const NetErrorE eResult = NetSelectUntil(&lSelected, tMask, oTimeout);
    if (plSelected != nullptr) *plSelected = lSelected;
    return NetResult(115, eResult, "NetSelect(%p, %p, %p) %d", static_cast<void*>(plSelected),
                     static_cast<void*>(tMask), static_cast<void*>(oTimeout), lSelected);
}

NetErrorE NetSelectRelative(int32* plSelected, NetSelectMaskT tMask, int32 lTimeout) {
    if (NetRefusesMask("NetSelectRelative", tMask)) return NET_ERROR_FATAL;
    if (lTimeout < 0)
        TraceMessageInline(4, 0, 4, "Wait for data (no timeout)");
    else if (lTimeout == 0)
        TraceMessageInline(5, 0, 4, "poll for data");
    else
        TraceMessageInline(6, 0, 4, "Wait %d milliseconds for data", lTimeout);
    timeval tTime = {.tv_sec = lTimeout / 1000, .tv_usec = lTimeout % 1000 * 1000};
    const NetErrorE eResult = NetSelectMask(plSelected, tMask, lTimeout < 0 ? nullptr : &tTime);
    return NetResult(8, eResult, "NetSelectRelative(%p, %p, %d)", static_cast<void*>(plSelected),
                     static_cast<void*>(tMask), lTimeout);
}

BooleanT NetCheckSelect(NetSelectMaskT tMask) {
    TraceMessageInline(116, 0, 4, "NetCheckSelect(%p)", static_cast<void*>(tMask));
    if (NetRefusesMask("NetCheckSelect", tMask)) return FALSE;
    const int32 lBits = std::clamp(tMask->tSelectBits, 0, FD_SETSIZE);
    for (NetSocketT tSocket = 0; tSocket < lBits; tSocket++)
        for (const NetCheckT& tCheck : atNetChecks)
            if (FD_ISSET(tSocket, &(tMask->*tCheck.tSet))) NetCheckSocket(tSocket, tCheck);
    return NetResult(141, TRUE, "NetCheckSelect(%p)", static_cast<void*>(tMask));
}
