// One segment has the reference time, then a record with its trace buffer for every slot, then a
// progress buffer for every slot; the other has the table of processes.
#include <algorithm>

#include "core/kilntime.h"
#include "core/shm.h"
#include "parts.h"

namespace {

constexpr int32 Slots = 48;
constexpr int32 TraceBytes = 16384, ProgressBytes = 1024;
constexpr int32 DetailsSize = sizeof(ProcDetailsT) + TraceBytes;
constexpr int32 ProgressSize = sizeof(ProgressBufHeaderT) + ProgressBytes;
constexpr int32 KilnTimeAt = 0, DetailsAt = 64;
constexpr int32 ProgressAt = DetailsAt + Slots * DetailsSize;
constexpr int32 SegmentSize = ProgressAt + Slots * ProgressSize;
constexpr int32 TableSize = sizeof(ProcProcessTableT) + Slots * sizeof(ProcHandleT);
static_assert(DetailsAt >= sizeof(KilnTimeOffsetT) && DetailsSize % 8 == 0);

std::map<ProcIdT, Managed> gtProcesses;
ProcIdT gtNextId = TableFirstFreeId;
ShmIdT gtDetailsId = ShmIdNone, gtTableId = ShmIdNone;
ByteT* gpDetails = nullptr;
ProcHandleT* gptSlots = nullptr;

template <class T>
T* At(int32 lOffset) {
    return reinterpret_cast<T*>(gpDetails + lOffset);
}

int32 DetailsOf(int32 lSlot) { return DetailsAt + lSlot * DetailsSize; }
int32 ProgressOf(int32 lSlot) { return ProgressAt + lSlot * ProgressSize; }

bool MakeSegment(ShmIdT* ptId, void** ppBase, int32 lSize) {
    return ShmAllocate(ptId, lSize) == TRUE && ShmAttach(ppBase, *ptId) == TRUE;
}

void FillSlot(int32 lSlot, ProcIdT tId, const std::string& title) {
    auto* ptDetails = At<ProcDetailsT>(DetailsOf(lSlot));
    std::memset(ptDetails, 0, DetailsSize);
    title.copy(ptDetails->strTitle, sizeof(ptDetails->strTitle) - 1);
    ptDetails->tTraceBuffer.bufferSize = TraceBytes;
    ptDetails->tTraceBuffer.currentBufPosition = -1;
    auto* ptProgress = At<ProgressBufHeaderT>(ProgressOf(lSlot));
    std::memset(ptProgress, 0, ProgressSize);
    ptProgress->lBufferSize = ProgressBytes;
    gptSlots[lSlot] = {tId, eProcStateCreating, DetailsOf(lSlot)};
}

}  // namespace

std::map<ProcIdT, Managed>& Table() { return gtProcesses; }

BooleanT TableCreate() {
    void* pTable = nullptr;
    void* pDetails = nullptr;
    if (!MakeSegment(&gtDetailsId, &pDetails, SegmentSize) ||
        !MakeSegment(&gtTableId, &pTable, TableSize))
        return FALSE;
    gpDetails = static_cast<ByteT*>(pDetails);
    auto* ptKilnTime = At<KilnTimeOffsetT>(KilnTimeAt);
    CfgGetInt64(&ptKilnTime->llUTCOffset, "procmgr.cfg", "Reference Time", "Offset", 0);
    const std::string source = ThisMachine();
    source.copy(ptKilnTime->acSourceSystem, sizeof(ptKilnTime->acSourceSystem));
    ptKilnTime->bHaveOffset = 1;
    gptSlots = reinterpret_cast<ProcHandleT*>(static_cast<ProcProcessTableT*>(pTable) + 1);
    std::fill(gptSlots, gptSlots + Slots, ProcHandleT{-1, eProcStateUnknown, 0});
    static_cast<ProcProcessTableT*>(pTable)->lSlotCount = Slots;
    return TRUE;
}

Managed* TableAdd(ProcIdT tId, const std::string& title) {
    const ProcHandleT* ptFree = std::find_if(
        gptSlots, gptSlots + Slots, [](const ProcHandleT& t) { return t.tProcessId == -1; });
    if (ptFree == gptSlots + Slots) return nullptr;
    while (tId == 0 && gtProcesses.contains(gtNextId)) gtNextId++;
    if (tId == 0) tId = gtNextId++;
    Managed& tProcess = gtProcesses[tId];
    tProcess.tId = tId;
    tProcess.lSlot = static_cast<int32>(ptFree - gptSlots);
    tProcess.title = title;
    FillSlot(tProcess.lSlot, tId, title);
    return &tProcess;
}

Managed* TableFind(ProcIdT tId) {
    const auto tFound = gtProcesses.find(tId);
    return tFound == gtProcesses.end() ? nullptr : &tFound->second;
}

void TableRemove(ProcIdT tId) {
    if (const Managed* ptProcess = TableFind(tId); ptProcess != nullptr)
        gptSlots[ptProcess->lSlot] = {-1, eProcStateUnknown, 0};
    gtProcesses.erase(tId);
}

int32& TableState(const Managed& tProcess) { return gptSlots[tProcess.lSlot].eState; }

void TableSendPlace(const Managed& tProcess, bool bProgress) {
    const New<PmgrAttachToUnixShmS> oPlace(
        PmgrAttachToUnixShmMagic, "i;i;i;i;i;",
        {gtDetailsId, gtTableId, DetailsOf(tProcess.lSlot),
         bProgress ? ProgressOf(tProcess.lSlot) : 0, KilnTimeAt});
    SendTo(tProcess.tId, PMGR_ATTACH_TO_SHM_MSG, oPlace.Get());
}
