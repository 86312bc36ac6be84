// Blocks for those inside the library who fill them at once.
#pragma once

#include "core/memory.h"

// As MemAllocateFromPool, but what the block holds is undefined: clearing a large one takes as long
// as filling it. For blocks of which every byte is written before any is read or handed on.
void* MemAllocateRaw(int32 lSize, MemPoolIdT tPool);
