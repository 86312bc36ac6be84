// The shared memory of a managed process. Another process has made it and writes it: each number
// that leads to a place in it is read once and checked against the size that the system gives for
// the segment. All places are found before any is used, so that a message that is wrong somewhere
// changes nothing.
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/context.h"
#include "core/kilntime.h"
#include "core/memory.h"
#include "core/procinit.h"
#include "core/shm.h"
#include "core/trace.h"
#include "msginternal.h"

TRACE_MODULE("PROCESS")

namespace {

// A segment and its size. Nothing detaches it at the exit of the process: what else runs then may
// still count in it.
class ProcSegment {
 public:
    // While it is attached its id stands for no other segment, so the size is its own.
    bool Attach(ShmIdT tId, bool bReadOnly) {
        const BooleanT bAttached =
            bReadOnly ? ShmAttachReadOnly(&m_pBase, tId) : ShmAttach(&m_pBase, tId);
        return bAttached == TRUE && ShmSize(&m_llSize, tId) == TRUE;
    }
    void Detach() {
        if (m_pBase != nullptr) ShmDetach(&m_pBase);
        m_pBase = nullptr;
        m_llSize = 0;
    }
    void* Base() const { return m_pBase; }

    // The bytes from an offset on, aligned for T; null unless all of them are inside.
    template <class T>
    T* At(int64 llOffset, int64 llBytes = sizeof(T)) const {
        if (m_pBase == nullptr || llOffset < 0 || llBytes < 0 || llOffset > m_llSize ||
            llBytes > m_llSize - llOffset || llOffset % static_cast<int64>(alignof(T)) != 0)
            return nullptr;
        return reinterpret_cast<T*>(static_cast<ByteT*>(m_pBase) + llOffset);
    }

 private:
    void* m_pBase = nullptr;
    int64 m_llSize = 0;
};

ProcSegment gtDetailsSegment;
ProcSegment gtTableSegment;

// A field that another process may be writing: it is read here, once.
int32 ProcReadShared(const volatile int32* plField) { return *plField; }

// The record at an offset with a buffer of as many bytes as its field says behind it.
template <class T>
T* ProcRecordWithBuffer(const ProcSegment& tSegment, int32 lOffset, std::size_t iSizeField) {
    auto* pRecord = tSegment.At<ByteT>(lOffset, sizeof(T));
    if (pRecord == nullptr || lOffset % static_cast<int32>(alignof(T)) != 0) return nullptr;
    const int32 lSize = ProcReadShared(reinterpret_cast<int32*>(pRecord + iSizeField));
    if (lSize < 0) return nullptr;
    return tSegment.At<T>(lOffset, int64{sizeof(T)} + lSize);
}

ProcDetailsT* ProcFindDetails(const ProcSegment& tSegment, int32 lOffset) {
    constexpr std::size_t iSizeField =
        offsetof(ProcDetailsT, tTraceBuffer) + offsetof(TraceBufHeaderT, bufferSize);
    auto* ptDetails = ProcRecordWithBuffer<ProcDetailsT>(tSegment, lOffset, iSizeField);
    if (ptDetails == nullptr) return nullptr;
    const bool bTitleEnds =
        std::memchr(ptDetails->strTitle, '\0', sizeof(ptDetails->strTitle)) != nullptr;
    return bTitleEnds ? ptDetails : nullptr;
}

// Without its last field, which only fills it up.
KilnTimeOffsetT* ProcFindKilnTime(const ProcSegment& tSegment, int32 lOffset) {
    return tSegment.At<KilnTimeOffsetT>(lOffset, offsetof(KilnTimeOffsetT, lReserved));
}

ProgressBufHeaderT* ProcFindProgress(const ProcSegment& tSegment, int32 lOffset) {
    auto* ptProgress = ProcRecordWithBuffer<ProgressBufHeaderT>(
        tSegment, lOffset, offsetof(ProgressBufHeaderT, lBufferSize));
    if (ptProgress == nullptr) return nullptr;
    const int32 lPosition = ProcReadShared(&ptProgress->lCurrentBufPosition);
    return lPosition >= 0 && lPosition <= ProcReadShared(&ptProgress->lBufferSize) ? ptProgress
                                                                                   : nullptr;
}

ProcProcessTableT* ProcFindTable(const ProcSegment& tSegment) {
    auto* ptTable = tSegment.At<ProcProcessTableT>(0);
    if (ptTable == nullptr) return nullptr;
    const int64 llSlots = ProcReadShared(&ptTable->lSlotCount);
    if (llSlots < 0) return nullptr;
    return tSegment.At<ProcProcessTableT>(
        0, int64{sizeof(ProcProcessTableT)} + llSlots * int64{sizeof(ProcHandleT)});
}

// What the message leads to. Segments that nobody has taken go with it.
struct ProcPlacesT {
    ProcPlacesT() = default;
    ~ProcPlacesT() {
        tDetailsSegment.Detach();
        tTableSegment.Detach();
    }
    ProcPlacesT(const ProcPlacesT&) = delete;
    ProcPlacesT& operator=(const ProcPlacesT&) = delete;

    ProcSegment tDetailsSegment;
    ProcSegment tTableSegment;
    ProcDetailsT* ptDetails = nullptr;
    ProgressBufHeaderT* ptProgress = nullptr;
    KilnTimeOffsetT* ptKilnTime = nullptr;
    ProcProcessTableT* ptTable = nullptr;
};

bool ProcFindPlaces(ProcPlacesT* ptPlaces, const PmgrAttachToUnixShmS& tMessage, bool bViewer) {
    const ProcSegment& tSegment = ptPlaces->tDetailsSegment;
    if (!ptPlaces->tDetailsSegment.Attach(tMessage.tDetailsId, false)) {
        TraceMessageInline(240, errno, -1, "Failed to attach to shared memory");
        return false;
    }
    ptPlaces->ptDetails = ProcFindDetails(tSegment, tMessage.lDetailsOffset);
    ptPlaces->ptKilnTime = ProcFindKilnTime(tSegment, tMessage.lKilnTimeOffset);
    if (tMessage.lProgressOffset != 0) {
        TraceMessageInline(241, 0, 4, "Progress buffer is at offset %d", tMessage.lProgressOffset);
        ptPlaces->ptProgress = ProcFindProgress(tSegment, tMessage.lProgressOffset);
    }
    if (ptPlaces->ptDetails == nullptr || ptPlaces->ptKilnTime == nullptr ||
        (tMessage.lProgressOffset != 0 && ptPlaces->ptProgress == nullptr)) {
        TraceMessageInline(242, 1, -1, "Bad offsets into the shared memory (%d,%d,%d)",
                           tMessage.lDetailsOffset, tMessage.lProgressOffset,
                           tMessage.lKilnTimeOffset);
        return false;
    }
    if (!bViewer) return true;
    if (ptPlaces->tTableSegment.Attach(tMessage.tTableId, true))
        ptPlaces->ptTable = ProcFindTable(ptPlaces->tTableSegment);
    if (ptPlaces->ptTable == nullptr)
        TraceMessageInline(243, 1, -1, "Failed to attach to process table");
    return ptPlaces->ptTable != nullptr;
}

}  // namespace

BooleanT ProcAttachSharedMemory(MsgPacketO oPacket, BooleanT bViewer) {
    ObjHolder<PmgrAttachToUnixShmS> oBody;
    ProcPlacesT tPlaces;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, PmgrAttachToUnixShmMagic) != TRUE ||
        !ProcFindPlaces(&tPlaces, *oBody.Get(), bViewer == TRUE))
        return FALSE;
    ProcDetachSharedMemory();
    std::swap(gtDetailsSegment, tPlaces.tDetailsSegment);
    std::swap(gtTableSegment, tPlaces.tTableSegment);
    TesselContextProcessS& tProcess = gtTlContext.sProcess;
    tProcess.ptSharedMemoryBase = gtDetailsSegment.Base();
    tProcess.ptProgressBuffer = tPlaces.ptProgress;
    tProcess.ptKilnTime = tPlaces.ptKilnTime;
    tProcess.ptProcessTable = tPlaces.ptTable;
    ProcSetDetails(tPlaces.ptDetails);
    TraceSetBuffer(&tPlaces.ptDetails->tTraceBuffer);
    if (*ProcTitle() != '\0') ProcSetName(ProcTitle());
    return TRUE;
}

void ProcDetachSharedMemory() {
    TesselContextProcessS& tProcess = gtTlContext.sProcess;
    if (tProcess.ptDetails != nullptr && TraceGetBuffer() == &tProcess.ptDetails->tTraceBuffer)
        TraceSetBuffer(TraceInternalBuffer());
    ProcSetDetails(nullptr);
    tProcess.ptProgressBuffer = nullptr;
    tProcess.ptKilnTime = nullptr;
    tProcess.ptProcessTable = nullptr;
    tProcess.ptSharedMemoryBase = nullptr;
    gtDetailsSegment.Detach();
    gtTableSegment.Detach();
}

ProcDetailsT* ProcDetailsAt(int32 lOffset) { return ProcFindDetails(gtDetailsSegment, lOffset); }

void* ProcShmAddress(int32 lOffset) { return gtDetailsSegment.At<ByteT>(lOffset, 1); }
