// Reference time: the system clock less the offset in a record that another process writes at any
// moment. Each field is read once, through a volatile view.
#include "core/kilntime.h"

#include <algorithm>
#include <iterator>

#include "core/process.h"
#include "core/strbase.h"
#include "core/timeconv.h"

namespace {

// The record, or null when it is not there or not valid.
const volatile KilnTimeOffsetT* PublishedRecord() {
    const auto* ptRecord = static_cast<const volatile KilnTimeOffsetT*>(ProcGetKilnTimeArea());
    return ptRecord != nullptr && ptRecord->bHaveOffset == 1 ? ptRecord : nullptr;
}

}  // namespace

BooleanT KilnTimeAsInt64(int64* pllResult) {
    const volatile KilnTimeOffsetT* ptRecord = PublishedRecord();
    if (ptRecord == nullptr) return FALSE;
    // The offset may be any number: what passes the end of the range wraps.
    const auto ullOffset = static_cast<uint64>(ptRecord->llUTCOffset);
    if (pllResult != nullptr)
        *pllResult = static_cast<int64>(static_cast<uint64>(TimeNowAsInt64()) - ullOffset);
    return TRUE;
}

BooleanT KilnTime(TimeT* ptResult) {
    int64 llNow = 0;
    if (KilnTimeAsInt64(&llNow) != TRUE) return FALSE;
    if (ptResult != nullptr) *ptResult = static_cast<TimeT>(llNow / 1000);
    return TRUE;
}

BooleanT KilnTimeGetSource(char** ppstrResult) {
    const volatile KilnTimeOffsetT* ptRecord = PublishedRecord();
    if (ptRecord == nullptr) return FALSE;
    if (ppstrResult == nullptr) return TRUE;
    char acSource[sizeof(KilnTimeOffsetT::acSourceSystem) + 1] = {};  // the name may fill its field
    std::copy(std::begin(ptRecord->acSourceSystem), std::end(ptRecord->acSourceSystem), acSource);
    *ppstrResult = StrDuplicate(acSource);
    return BooleanFrom(*ppstrResult != nullptr);
}
