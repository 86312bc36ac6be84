// What the maps share: sorted entries in one block that grows by a fixed number of them. Private to
// the library.
#pragma once

#include <limits>

#include "core/types.h"

struct SortedPlaceT {
    bool bFound;
    int32 lIndex;  // of the match, else where the key belongs
};

// fnCompare(lIndex) is negative when the key sorts before the entry, 0 when they match.
template <class CompareFnT>
SortedPlaceT SortedFind(int32 lEntryCount, CompareFnT fnCompare) {
    int32 lLower = 0;
    int32 lUpper = lEntryCount - 1;
    while (lLower <= lUpper) {
        const int32 lIndex = lLower + (lUpper - lLower) / 2;
        const int32 lStatus = fnCompare(lIndex);
        if (lStatus == 0) return {true, lIndex};
        if (lStatus < 0)
            lUpper = lIndex - 1;
        else
            lLower = lIndex + 1;
    }
    return {false, lLower};
}

// -1, a size that no pool supplies, when the block would be too large to be counted.
inline int32 SortedBlockSize(int32 lEntrySize, int64 llEntries) {
    const int64 llSize = lEntrySize * llEntries;
    return llSize > std::numeric_limits<int32>::max() ? -1 : static_cast<int32>(llSize);
}
