// Records of the shared memory that a process manager makes and the managed processes share. The
// layout is fixed: processes of both word sizes attach the same segment.
#pragma once

#include "core/trace.h"
#include "core/types.h"

// One per process. The trace buffer's record area follows the record directly.
struct ProcDetailsT {
    char strTitle[80];
    int32 lMemCount;
    int32 lMemMax;
    int32 lMemAllocations;
    int32 lObjCount;
    int32 lObjMax;
    int32 lObjAllocations;
    TraceBufHeaderT tTraceBuffer;
};
static_assert(offsetof(ProcDetailsT, lMemCount) == 80 &&
              offsetof(ProcDetailsT, tTraceBuffer) == 104 && sizeof(ProcDetailsT) == 120);

// Precedes the text by which a process shows its progress.
struct ProgressBufHeaderT {
    int32 lBufferSize;          // bytes
    int32 lCurrentBufPosition;  // in them
};
static_assert(sizeof(ProgressBufHeaderT) == 8);

// One managed process, in the table that viewers read.
struct ProcHandleT {
    ProcIdT tProcessId;
    int32 eState;          // a ProcStateE
    int32 lDetailsOffset;  // of its record in the shared memory
};
static_assert(sizeof(ProcHandleT) == 12);

// Followed by the slots.
struct ProcProcessTableT {
    int32 lSlotCount;
};
static_assert(sizeof(ProcProcessTableT) == 4);

inline const ProcHandleT* ProcTableSlots(const ProcProcessTableT* ptTable) {
    return reinterpret_cast<const ProcHandleT*>(ptTable + 1);
}
