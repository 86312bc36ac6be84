// Shared memory. Segments are made under the keys of the installation, in the order of their ids,
// so that the process manager finds at its start what an earlier one left behind. Each thread lists
// what it made; whether a segment is its own process's work the system knows (shm_cpid).
//
// The guarded copy installs a handler that jumps back to where the copy began. The bytes are moved
// by a loop of its own: a library function may be replaced by a checking one, and must not be
// jumped out of.
#include "core/shm.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>

#include "core/context.h"
#include "core/errnokeeper.h"
#include "core/ipc.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/process.h"
#include "core/sys.h"
#include "core/trace.h"

TRACE_MODULE("SHM")

namespace {

constexpr ProcIdT ShmCleaner = 1;  // the process manager
constexpr int32 ShmRemoveRetries = 10;
constexpr int ShmAccess = 0666;  // for everyone

IpcIdT gtNextIpcId = 0;

// --- removing ---

BooleanT ShmRemove(ShmIdT tShmId) {
    for (int32 lRetry = 0; shmctl(tShmId, IPC_RMID, nullptr) != 0; lRetry++) {
        if (errno != EPERM) return FALSE;
        if (lRetry == ShmRemoveRetries) {
            const ErrnoKeeper tErrno;
            TraceMessageInline(11, tErrno.Code(), -1,
                               "No permission to remove shared memory block 0x%x, given up",
                               static_cast<uint32>(tShmId));
            return FALSE;
        }
        SysSleep(1);
    }
    return TRUE;
}

// FALSE for a segment of another process and for one that is gone.
bool ShmIsOwn(ShmIdT tShmId) {
    shmid_ds tStatus = {};
    return shmctl(tShmId, IPC_STAT, &tStatus) == 0 && tStatus.shm_cpid == ProcGetRealId();
}

// What has the key of an id from an earlier process manager.
BooleanT ShmCleanUp(IpcKeyT tKey) {
    const ShmIdT tShmId = shmget(tKey, 0, 0);
    if (tShmId == -1) return TRUE;
    const auto lKey = static_cast<uint32>(tKey);
    shmid_ds tStatus = {};
    if (shmctl(tShmId, IPC_STAT, &tStatus) != 0) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(1, tErrno.Code(), -1,
                           "ShmInitialize: failed to get status of shared memory block 0x%x, (%d) "
                           "%s",
                           static_cast<uint32>(tShmId), tErrno.Code(), tErrno.Text());
        return FALSE;
    }
    if (tStatus.shm_nattch > 0) {
        TraceMessageInline(2, 1, -1, "ShmInitialize: Tessel shared memory key 0x%x is in use",
                           lKey);
        return FALSE;
    }
    TraceMessageInline(3, 0, 0, "ShmInitialize: Removing unused shared memory with key 0x%x", lKey);
    return ShmRemove(tShmId);
}

BooleanT ShmIsItem(void* pCookie, void* oItem) {
    return BooleanFrom(static_cast<ShmMemO>(oItem)->tId == *static_cast<ShmIdT*>(pCookie));
}

BooleanT ShmAttachWith(void** ppShmAddress, ShmIdT tShmId, int iFlags) {
    if (ppShmAddress == nullptr || tShmId == ShmIdNone) return FALSE;
    void* pAddress = shmat(tShmId, nullptr, iFlags);
    if (pAddress == ShmDetached()) return FALSE;
    *ppShmAddress = pAddress;
    return TRUE;
}

// --- the guarded copy ---

// Leads bad addresses back to tReturn while it lives. Guards nest: a handler of another signal may
// copy as well.
class ShmGuard {
 public:
    ShmGuard() : m_ptOuter(gptInnermost) {
        gptInnermost = this;
        struct sigaction tAction = {};
        tAction.sa_sigaction = OnFault;
        tAction.sa_flags = SA_SIGINFO;
        sigset_t tFaults;
        sigemptyset(&tFaults);
        for (int i = 0; i < SignalCount; i++) {
            sigaddset(&tFaults, Signals[i]);
            sigaction(Signals[i], &tAction, &m_atPrevious[i]);
        }
        // A fault under a blocked signal would end the process, whatever its handler.
        sigprocmask(SIG_UNBLOCK, &tFaults, &m_tMask);
    }
    ~ShmGuard() {
        sigprocmask(SIG_SETMASK, &m_tMask, nullptr);
        for (int i = 0; i < SignalCount; i++) sigaction(Signals[i], &m_atPrevious[i], nullptr);
        gptInnermost = m_ptOuter;
    }
    ShmGuard(const ShmGuard&) = delete;
    ShmGuard& operator=(const ShmGuard&) = delete;

    sigjmp_buf tReturn;

 private:
    static constexpr int SignalCount = 2;
    static constexpr int Signals[SignalCount] = {SIGSEGV, SIGBUS};

    static void OnFault(int iSignal, siginfo_t* ptInfo, void* /*pContext*/) {
        if (ptInfo->si_code > 0) siglongjmp(gptInnermost->tReturn, 1);
        // Sent by a process: comes again, to the previous handler, when this one returns.
        for (int i = 0; i < SignalCount; i++) {
            if (Signals[i] == iSignal) sigaction(iSignal, &gptInnermost->m_atPrevious[i], nullptr);
        }
        raise(iSignal);
    }

    static ShmGuard* gptInnermost;
    ShmGuard* m_ptOuter;
    struct sigaction m_atPrevious[SignalCount];
    sigset_t m_tMask;
};
ShmGuard* ShmGuard::gptInnermost = nullptr;

// Word by word where both sides are aligned, so that no word lies across two pages.
__attribute__((noinline, no_sanitize("address", "undefined"))) void ShmMove(void* pTo,
                                                                            const void* pFrom,
                                                                            std::size_t iCount) {
    using WordT = std::uintptr_t;
    std::size_t iDone = 0;
    if ((reinterpret_cast<WordT>(pTo) | reinterpret_cast<WordT>(pFrom)) % sizeof(WordT) == 0) {
        auto* pWordsTo = static_cast<volatile WordT*>(pTo);
        const auto* pWordsFrom = static_cast<const volatile WordT*>(pFrom);
        for (; iCount - iDone >= sizeof(WordT); iDone += sizeof(WordT))
            pWordsTo[iDone / sizeof(WordT)] = pWordsFrom[iDone / sizeof(WordT)];
    }
    auto* pBytesTo = static_cast<volatile ByteT*>(pTo);
    const auto* pBytesFrom = static_cast<const volatile ByteT*>(pFrom);
    for (; iDone < iCount; iDone++) pBytesTo[iDone] = pBytesFrom[iDone];
}

}  // namespace

BooleanT ShmInitialize() {
    if (ProcGetId() != ShmCleaner) return TRUE;
    for (IpcIdT tIpcId = 0; tIpcId < IpcIdCount; tIpcId++) {
        IpcKeyT tKey = 0;
        if (IpcGetKey(&tKey, tIpcId) == TRUE && ShmCleanUp(tKey) != TRUE) return FALSE;
    }
    return TRUE;
}

BooleanT ShmInitializeThread(TesselContextT* ptTlContext) {
    return ListCreate(&ptTlContext->sShm.oShmList, ShmMemMagic);
}

void ShmReleaseThread(TesselContextT* ptTlContext) {
    TraceMessageInline(4, 0, 4, "ShmReleaseThread(%p)", static_cast<void*>(ptTlContext));
    ListO& oList = ptTlContext->sShm.oShmList;
    if (oList != nullptr) {
        for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
            const ShmIdT tShmId = static_cast<ShmMemO>(oNode->oData)->tId;
            if (ShmIsOwn(tShmId)) ShmRemove(tShmId);
        }
        ObjRelease(&oList);
    }
    TraceMessageInline(5, 0, 4, "exiting ShmReleaseThread(%p)", static_cast<void*>(ptTlContext));
}

BooleanT ShmAllocate(ShmIdT* pShmId, int32 lSize) {
    TraceMessageInline(6, 0, 4, "ShmAllocate(%p, %d)", static_cast<void*>(pShmId), lSize);
    if (pShmId == nullptr || lSize < 1) return FALSE;
    IpcKeyT tKey = 0;
    if (IpcGetKey(&tKey, gtNextIpcId) != TRUE) return FALSE;
    gtNextIpcId++;
    ObjHolder<ShmMemS> oMemory(ObjNew<ShmMemS>(ShmMemMagic, "i;"));
    if (oMemory.Get() == nullptr) return FALSE;
    const ShmIdT tShmId =
        shmget(tKey, static_cast<std::size_t>(lSize), IPC_CREAT | IPC_EXCL | ShmAccess);
    if (tShmId == -1) {
        const ErrnoKeeper tErrno;
        TraceMessageInline(7, tErrno.Code(), -1, "failed to get %d byes of shared memory: (%d) %s",
                           lSize, tErrno.Code(), tErrno.Text());
        return FALSE;
    }
    oMemory.Get()->tId = tShmId;
    if (ListPushLastItem(gtTlContext.sShm.oShmList, oMemory.Address()) != TRUE) {
        ShmRemove(tShmId);
        return FALSE;
    }
    *pShmId = tShmId;
    return TRUE;
}

BooleanT ShmFree(ShmIdT* pShmId) {
    if (pShmId == nullptr || *pShmId == ShmIdNone) return FALSE;
    ShmRemove(*pShmId);
    ListNodeO oNode = nullptr;
    if (ListSearch(gtTlContext.sShm.oShmList, ShmIsItem, pShmId, &oNode) == TRUE) {
        ListRemoveItem(oNode);
    }
    *pShmId = ShmIdNone;
    return FALSE;
}

BooleanT ShmAttach(void** ppShmAddress, ShmIdT tShmId) {
    return ShmAttachWith(ppShmAddress, tShmId, 0);
}

BooleanT ShmAttachReadOnly(void** ppShmAddress, ShmIdT tShmId) {
    return ShmAttachWith(ppShmAddress, tShmId, SHM_RDONLY);
}

BooleanT ShmDetach(void** ppShmAddress) {
    if (ppShmAddress == nullptr || shmdt(*ppShmAddress) != 0) return FALSE;
    *ppShmAddress = ShmDetached();
    return TRUE;
}

BooleanT ShmSize(int64* pllSize, ShmIdT tShmId) {
    shmid_ds tStatus = {};
    if (pllSize == nullptr || shmctl(tShmId, IPC_STAT, &tStatus) != 0) return FALSE;
    *pllSize = static_cast<int64>(tStatus.shm_segsz);
    return TRUE;
}

BooleanT ShmSetId(ShmIdT* ptShmId, ShmIdT tShmId) {
    if (ptShmId == nullptr) return FALSE;
    *ptShmId = tShmId;
    return TRUE;
}

BooleanT ShmCopy(void* pTo, void* pFrom, int32 lCount) {
    TraceMessageInline(8, 0, 4, "ShmCopy(%p, %p, %d)", pTo, pFrom, lCount);
    if (lCount < 0) return FALSE;
    ShmGuard tGuard;
    // The mask is the guard's business; the jump restores it as it was inside.
    if (sigsetjmp(tGuard.tReturn, 1) != 0) return FALSE;
    ShmMove(pTo, pFrom, static_cast<std::size_t>(lCount));
    return TRUE;
}
