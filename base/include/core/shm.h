// Shared memory: System V segments of an installation, and copying from memory that may not be
// there. Failures leave errno as the failing call set it.
#pragma once

#include "core/object.h"
#include "core/types.h"

using ShmIdT = int32;  // the system's id of a segment
constexpr ShmIdT ShmIdNone = -1;

constexpr int32 ShmMemMagic = ObjMagic(0xc8e71c5a);

// A segment that this thread created, descriptor "i;".
struct ShmMemS {
    ShmIdT tId;
};
using ShmMemO = ShmMemS*;

struct TesselContextShmS {
    ListO oShmList;  // of ShmMemO
};

// What ShmDetach leaves in the pointer.
inline void* ShmDetached() { return reinterpret_cast<void*>(~std::uintptr_t{0}); }

// In the process manager (process id 1) removes the segments that an earlier one left behind. FALSE
// when one of them is still attached to a process, or cannot be examined or removed.
BooleanT ShmInitialize();
BooleanT ShmInitializeThread(TesselContextT* ptTlContext);
// Removes the segments of the list, but not those that another process made: a forked child has the
// list, too.
void ShmReleaseThread(TesselContextT* ptTlContext);

// A new segment of at least one byte, zero-filled, which every user may read and write; ids and
// keys are used up in order, 256 in a process. FALSE, with *pShmId as it is, also when a segment
// with the key is there already.
BooleanT ShmAllocate(ShmIdT* pShmId, int32 lSize);

// Removes a segment; those that are attached to it keep it until they detach. While the system
// refuses for lack of permission it is asked again, ten times, once a second. Always FALSE, with
// *pShmId -1.
BooleanT ShmFree(ShmIdT* pShmId);

// Map a segment at an address of the system's choice. FALSE with *ppShmAddress as it is.
BooleanT ShmAttach(void** ppShmAddress, ShmIdT tShmId);
BooleanT ShmAttachReadOnly(void** ppShmAddress, ShmIdT tShmId);
BooleanT ShmDetach(void** ppShmAddress);  // the pointer becomes ShmDetached()

// The size in bytes of a segment that is there, also of one that goes with its last attachment.
BooleanT ShmSize(int64* pllSize, ShmIdT tShmId);

BooleanT ShmSetId(ShmIdT* ptShmId, ShmIdT tShmId);

// Copies between areas that do not overlap, either of which may not be there: FALSE, with part of
// the bytes copied, when a bad address is met. For the time of the copy SIGSEGV and SIGBUS of the
// whole process lead back into it; then the handlers are as before. A signal that another process
// sent is passed on to the previous handler.
BooleanT ShmCopy(void* pTo, void* pFrom, int32 lCount);
