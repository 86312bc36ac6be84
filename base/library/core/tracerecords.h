// Copies of the records of a trace buffer that may be written meanwhile.
#pragma once

#include <string>
#include <vector>

#include "core/trace.h"

struct TraceRecordsT {
    int32 lPosition = -1;                // offset of the newest record
    std::vector<std::string> atRecords;  // newest first, each whole with its head
};

// The records from the one numbered by ptStart (null: the oldest) to the newest, each the
// predecessor of the one in front of it. What another process overwrites meanwhile is left out, and
// what is older with it. No records when the buffer is not valid.
TraceRecordsT TraceCopyRecords(const TraceBufHeaderT* ptHeader, const TracePositionT* ptStart);
