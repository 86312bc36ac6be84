// Copies of the records of a trace buffer that may be written meanwhile.
#pragma once

#include <string>
#include <vector>

#include "core/trace.h"

// The records from the one numbered by ptStart (null: the oldest) to the one at lNewest, newest
// first, each whole with its head. What another process overwrites during the walk is left out, and
// what is older with it.
std::vector<std::string> TraceCopyRecords(TraceBufHeaderT* ptHeader, const TracePositionT* ptStart,
                                          int32 lNewest);
