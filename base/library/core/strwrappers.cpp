// Strings from lists and lists from strings: one loop joins the texts that a per-class function
// gives for the items, one cuts a string at its commas.
#include "core/strwrappers.h"

#include <limits>

#include "core/list.h"
#include "core/memory.h"
#include "core/net.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "core/strdynam.h"
#include "core/trace.h"

TRACE_MODULE("STRWRAP")
MEM_DEFAULT_POOL_CACHE

namespace {

// The text of an item, null for one to skip. An owner in which a text may be made is passed along.
using ItemTextFnT = const char* (*)(void* oItem, PoolPtr<char>& pstrMade);

const char* StringText(void* oItem, PoolPtr<char>& /*pstrMade*/) {
    if (ObjCheckTypeInternal(oItem, ObjStringMagic) != TRUE) return nullptr;
    return ObjGetString(static_cast<ObjStringO>(oItem));
}

const char* IntegerText(void* oItem, PoolPtr<char>& pstrMade) {
    if (ObjCheckTypeInternal(oItem, ObjIntegerMagic) != TRUE) return nullptr;
    StrFromInteger(pstrMade.Address(), ObjGetInteger(static_cast<ObjIntegerO>(oItem)));
    return pstrMade.Get();
}

const char* IpAddrText(void* oItem, PoolPtr<char>& pstrMade) {
    if (ObjCheckTypeInternal(oItem, ObjIntegerMagic) != TRUE) return nullptr;
    const int32 lAddress = ObjGetInteger(static_cast<ObjIntegerO>(oItem));
    StrFromIpAddr(pstrMade.Address(), static_cast<uint32>(lAddress));
    return pstrMade.Get();
}

const char* AddressText(void* oItem, PoolPtr<char>& pstrMade) {
    if (ObjCheckTypeInternal(oItem, NetAddressMagic) != TRUE) return nullptr;
    *pstrMade.Address() = static_cast<char*>(MemAllocateFromPool(NetIpAddressSize, MemPool()));
    return NetGetIpAddress(&static_cast<NetAddressO>(oItem)->tAddress, pstrMade.Get(),
                           NetIpAddressSize);
}

// A new string, null when no item has a text.
char* JoinItems(ListO oList, const char* pstrDelim, ItemTextFnT fnText) {
    ObjHolder<ObjDStringS> oJoined;
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        PoolPtr<char> pstrMade;
        const char* pstrText = fnText(oNode->oData, pstrMade);
        if (pstrText == nullptr) continue;
        if (oJoined.Get() == nullptr)
            *oJoined.Address() = ObjDStringNewSized(nullptr, 64);
        else
            DStringAppend(oJoined.Get(), pstrDelim);
        if (DStringAppend(oJoined.Get(), pstrText) == nullptr) return nullptr;
    }
    if (oJoined.Get() == nullptr) return nullptr;
    return StrDuplicateIntoPool(static_cast<char*>(oJoined.Get()->tBuffer.pData), MemPool());
}

template <class T>
BooleanT StoreJoined(T** ppstrResult, ListO oList, const char* pstrDelim, ItemTextFnT fnText) {
    char* pstrJoined = JoinItems(oList, pstrDelim, fnText);
    if (pstrJoined == nullptr) return FALSE;
    *ppstrResult = pstrJoined;
    return TRUE;
}

// Appends the first lChars characters of a string as a string object.
BooleanT AppendString(ListO oList, const char* pstrString, int32 lChars) {
    PoolPtr<char> pstrValue(StrDuplicateRangeIntoPool(pstrString, MemPool(), lChars));
    ObjHolder<ObjStringS> oString(ObjStringNew(pstrValue.Get()));
    if (oString.Get() == nullptr) return FALSE;
    return ListPushLastItem(oList, oString.Address());
}

bool IsBlank(int iChar) { return iChar == ' ' || iChar == '\t'; }

// One value of a comma-separated string.
struct ValueT {
    const char* pstrStart;
    int32 lChars;  // without the blanks behind it
    bool bLast;    // no comma follows
};

// Cuts off the next value and moves the cursor behind its comma.
ValueT NextValue(const char** ppstrCursor) {
    while (IsBlank(**ppstrCursor)) ++*ppstrCursor;
    ValueT tValue = {*ppstrCursor, 0, false};
    for (int32 lChars = 1;; ++lChars) {
        const int iChar = StrGetChar(ppstrCursor);
        tValue.bLast = iChar == 0;
        if (tValue.bLast || iChar == ',') return tValue;
        if (!IsBlank(iChar)) tValue.lChars = lChars;
    }
}

}  // namespace

BooleanT StrFromValueList(const char** ppstrResult, ListO oValueList) {
    if (ppstrResult == nullptr || ListVerify(oValueList) != TRUE) {
        TraceMessageInline(3, 0, -1, "Invalid argument to StrFromValueList");
        return FALSE;
    }
    return StoreJoined(ppstrResult, oValueList, ", ", IntegerText);
}

BooleanT StrFromStrList(const char** ppstrResult, ListO oStrList) {
    if (ppstrResult == nullptr || ListVerify(oStrList) != TRUE) {
        TraceMessageInline(2, 0, -1, "Invalid argument to StrFromStrList");
        return FALSE;
    }
    return StoreJoined(ppstrResult, oStrList, ", ", StringText);
}

BooleanT StrFromStrListWithDelimiter(char** ppstrResult, ListO oStrList, const char* pstrDelim) {
    if (ppstrResult == nullptr || pstrDelim == nullptr || ListVerify(oStrList) != TRUE) {
        TraceMessageInline(1, 0, -1, "Invalid argument to StrFromStrListWithDelimiter");
        return FALSE;
    }
    return StoreJoined(ppstrResult, oStrList, pstrDelim, StringText);
}

BooleanT StrFromIpList(char** ppstrResult, ListO oIpList) {
    if (ppstrResult == nullptr || ListVerify(oIpList) != TRUE) {
        TraceMessageInline(5, 0, -1, "Invalid argument to StrFromIpList");
        return FALSE;
    }
    return StoreJoined(ppstrResult, oIpList, ", ", IpAddrText);
}

BooleanT StrFromAddressList(char** ppstrResult, ListO oAddressList) {
    if (ppstrResult == nullptr || ListVerify(oAddressList) != TRUE) {
        TraceMessageInline(6, 0, -1, "Invalid argument to StrFromAddressList");
        return FALSE;
    }
    return StoreJoined(ppstrResult, oAddressList, ",\n", AddressText);
}

BooleanT StrValueListFromString(ListO* poValueList, const char* pstrValues) {
    if (poValueList == nullptr || pstrValues == nullptr) return FALSE;
    ObjHolder<ListS> oList(ListNewFromPool(ObjStringMagic, MemPool()));
    if (oList.Get() == nullptr) return FALSE;
    for (bool bLast = false; !bLast;) {
        const ValueT tValue = NextValue(&pstrValues);
        bLast = tValue.bLast;
        // Only an empty string, or one of blanks, has no value at all.
        if (bLast && tValue.lChars == 0 && oList.Get()->lItemCount == 0) break;
        if (AppendString(oList.Get(), tValue.pstrStart, tValue.lChars) != TRUE) return FALSE;
    }
    *poValueList = oList.Take();
    return TRUE;
}

BooleanT StrValueListFromArray(ListO* poList, char** ppstrStrings) {
    if (poList == nullptr || ppstrStrings == nullptr) return FALSE;
    ObjHolder<ListS> oList(ListNewFromPool(ObjStringMagic, MemPool()));
    if (oList.Get() == nullptr) return FALSE;
    for (; *ppstrStrings != nullptr; ++ppstrStrings)
        if (AppendString(oList.Get(), *ppstrStrings, std::numeric_limits<int32>::max()) != TRUE)
            return FALSE;
    *poList = oList.Take();
    return TRUE;
}

BooleanT StrInsertInList(ListO oList, const char* pstrString) {
    if (pstrString == nullptr || ListIsList(oList) != TRUE) {
        TraceMessageInline(4, 0, -1, "StrInsertInList(%p,'%s') - bad params",
                           static_cast<void*>(oList), pstrString == nullptr ? "" : pstrString);
        return FALSE;
    }
    ObjHolder<ObjStringS> oString(ObjStringNew(pstrString));
    if (oString.Get() == nullptr) return FALSE;
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        PoolPtr<char> pstrMade;
        const char* pstrItem = StringText(oNode->oData, pstrMade);
        if (pstrItem != nullptr && StrCompareNoCase(pstrString, pstrItem) < 0)
            return ListInsertBefore(oNode, oString.Get());
    }
    return ListPushLastItem(oList, oString.Address());
}
