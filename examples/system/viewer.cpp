// Looks at the other processes of the machine: prints the table that the process manager keeps and
// dumps the ring into which another process traces.
//
//   viewer ID FILE        the exit status is 1 when there is no such process, or no dump
#include <cstdlib>

#include "core/sys.h"
#include "machine.h"

namespace {

BooleanT PrintText(const char* pBuffer, int32 /*lSize*/, void* pLeft) {
    auto* plLeft = static_cast<int32*>(pLeft);
    const auto* ptRecord = reinterpret_cast<const TraceMessageHeaderT*>(pBuffer);
    std::printf("    %.8s %3d  %s\n", ptRecord->strModuleId, ptRecord->lTraceId,
                pBuffer + sizeof(*ptRecord));
    return BooleanFrom(--*plLeft > 0);
}

// The newest lines of the ring, and all of it into the file.
bool Dump(ProcIdT tId, ProcDetailsT* ptDetails, const char* pstrFile) {
    int32 lLeft = 3;
    std::printf("  newest lines of process %d\n", tId);
    TraceWalkBuffer(&ptDetails->tTraceBuffer, PrintText, &lLeft);
    const PoolPtr<char> pstrPath(
        TraceDumpBuffer(&ptDetails->tTraceBuffer, pstrFile, "ring of another process", tId));
    return pstrPath.Get() != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    ProcProcessTableT* ptTable = nullptr;
    if (argc != 3 || ProcInitializeViewer(&ptTable, nullptr, nullptr, eTraceLevelNormal) != TRUE)
        return 1;
    ProcSetTitle("viewer");
    // When it answers, the process manager has heard that this process is there.
    ProcIsProcessRunning(ProcGetId(), SysLocalMachineName());
    const ProcIdT tWanted = std::atoi(argv[1]);
    ProcDetailsT* ptWanted = nullptr;
    std::printf("  %4s  %-17s %-22s %16s %16s\n", "id", "state", "title", "blocks (most)",
                "objects (most)");
    for (int32 lSlot = 0; lSlot < ptTable->lSlotCount; lSlot++) {
        // The process may go at any time; its record, in the memory that stays, only changes.
        const ProcHandleT tSlot = ProcTableSlots(ptTable)[lSlot];
        ProcDetailsT* ptDetails =
            tSlot.tProcessId == -1 ? nullptr : ProcDetailsAt(tSlot.lDetailsOffset);
        if (ptDetails == nullptr) continue;
        if (tSlot.tProcessId == tWanted) ptWanted = ptDetails;
        std::printf("  %4d  %-17s %-22s %8d (%5d) %8d (%5d)\n", tSlot.tProcessId,
                    ProcProcessStateDescription(static_cast<ProcStateE>(tSlot.eState)),
                    ptDetails->strTitle, ptDetails->lMemCount, ptDetails->lMemMax,
                    ptDetails->lObjCount, ptDetails->lObjMax);
    }
    const bool bDumped = ptWanted != nullptr && Dump(tWanted, ptWanted, argv[2]);
    std::fflush(stdout);
    ProcCleanup(bDumped ? 0 : 1);
}
