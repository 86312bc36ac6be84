// Names of message types: a map in order of type, filled from the list of msgtypes.h. Its entries
// refer to the texts of the program; those of names added later are copies, which go with the map.
#include <algorithm>
#include <array>
#include <cstdio>

#include "core/context.h"
#include "core/map.h"
#include "core/msg.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "msginternal.h"

TRACE_MODULE("MESSAGE")

namespace {

constexpr int32 MsgNameGrowth = 505;

struct MsgNameT {
    const char* pstrMsgName;
    MsgTypeT tMsgType;
};

#define MSG_NAME_ROW(name, number) MsgNameT{#name, name},
constexpr auto atMsgNames = std::to_array<MsgNameT>({MSG_TYPES(MSG_NAME_ROW)});
#undef MSG_NAME_ROW
static_assert(std::ranges::is_sorted(atMsgNames, {}, &MsgNameT::tMsgType));

int32 MsgCompareNames(void* pKey, void* pEntry) {
    const MsgTypeT tKey = static_cast<const MsgNameT*>(pKey)->tMsgType;
    const MsgTypeT tEntry = static_cast<const MsgNameT*>(pEntry)->tMsgType;
    return tKey < tEntry ? -1 : static_cast<int32>(tKey > tEntry);
}

void MsgReleaseName(void* pEntry) {
    auto* ptName = static_cast<MsgNameT*>(pEntry);
    if (std::ranges::binary_search(atMsgNames, ptName->tMsgType, {}, &MsgNameT::tMsgType)) return;
    MemFree(&ptName->pstrMsgName);
}

BooleanT MsgHasName(void* pEntry, void* pName) {
    return BooleanFrom(StrCompareNoCase(static_cast<const MsgNameT*>(pEntry)->pstrMsgName,
                                        static_cast<const char*>(pName)) == 0);
}

// The table's text; null for an unknown type.
const char* MsgFindName(MsgTypeT tMsgType) {
    MsgNameT tKey = {nullptr, tMsgType};
    void* pFound = nullptr;
    if (MapFindEntry(&pFound, gtTlContext.sMsg.oTypeMap, &tKey) != TRUE) return nullptr;
    return static_cast<const MsgNameT*>(pFound)->pstrMsgName;
}

// As many whole characters as fit in front of a terminator.
void MsgCopyCut(char* pstrBuffer, int32 lSize, const char* pstrText) {
    MemZero(pstrBuffer, lSize);
    const char* pstrEnd = pstrText;
    for (const char* pstrNext = pstrText; StrGetChar(&pstrNext) != 0;) {
        if (pstrNext - pstrText >= lSize) break;
        pstrEnd = pstrNext;
    }
    MemCopy(pstrBuffer, pstrText, static_cast<int32>(pstrEnd - pstrText));
}

}  // namespace

BooleanT MsgInitializeNames() {
    MapO& oTypeMap = gtTlContext.sMsg.oTypeMap;
    if (oTypeMap != nullptr) return TRUE;
    TraceMessageInline(60, 0, 4, "Initialize %d message names",
                       static_cast<int32>(atMsgNames.size()));
    ObjHolder<MapS> oNames;
    if (MapCreate(oNames.Address(), sizeof(MsgNameT), MsgNameGrowth, MsgCompareNames,
                  MsgCompareNames, MsgReleaseName) != TRUE) {
        return FALSE;
    }
    for (MsgNameT tName : atMsgNames) {
        if (MapInsertEntry(oNames.Get(), &tName) != TRUE) return FALSE;
    }
    oTypeMap = oNames.Take();
    return TRUE;
}

void MsgReleaseNames() { ObjRelease(&gtTlContext.sMsg.oTypeMap); }

const char* MsgNameWithBuffer(MsgTypeT tMsgType, char* pstrBuffer, int32 lSize) {
    const bool bHasBuffer = pstrBuffer != nullptr && lSize > 0;
    const char* pstrName = MsgFindName(tMsgType);
    if (pstrName != nullptr && !bHasBuffer) return pstrName;
    auto& strUnknown = gtTlContext.sMsg.strUnknown;
    char acUnknown[sizeof(strUnknown)];
    if (pstrName == nullptr) {
        std::snprintf(acUnknown, sizeof(acUnknown), "Unknown message type %d", tMsgType);
        pstrName = acUnknown;
    }
    if (!bHasBuffer) {
        pstrBuffer = strUnknown;
        lSize = sizeof(strUnknown);
    }
    MsgCopyCut(pstrBuffer, lSize, pstrName);
    return pstrBuffer;
}

BooleanT MsgSetMsgName(MsgTypeT tMsgType, const char* pstrName) {
    if (pstrName == nullptr || *pstrName == '\0') return FALSE;
    PoolPtr<char> pstrCopy(StrDuplicate(pstrName));
    MsgNameT tName = {pstrCopy.Get(), tMsgType};
    if (tName.pstrMsgName == nullptr || MapInsertEntry(gtTlContext.sMsg.oTypeMap, &tName) != TRUE) {
        return FALSE;
    }
    pstrCopy.Take();
    return TRUE;
}

BooleanT MsgTypeFromName(MsgTypeT* ptMsgType, const char* pstrName) {
    void* pFound = nullptr;
    BooleanT bResult = FALSE;
    if (ptMsgType != nullptr && pstrName != nullptr) {
        bResult =
            MapSearch(&pFound, gtTlContext.sMsg.oTypeMap, MsgHasName, const_cast<char*>(pstrName));
    }
    if (bResult == TRUE) *ptMsgType = static_cast<const MsgNameT*>(pFound)->tMsgType;
    TraceMessageInline(61, 0, 4, "%s = MsgTypeFromName(%p, %s) %x", BooleanText(bResult),
                       static_cast<void*>(ptMsgType), pstrName == nullptr ? "" : pstrName,
                       bResult == TRUE ? static_cast<uint32>(*ptMsgType) : 0U);
    return bResult;
}
