// The writing half of object streams: element by element over the field table. Memory sinks, which
// carry most of the traffic, are served without a call. The recursion follows links and list items,
// counted in the stream and bounded; trees are followed node by node.
#include <cstring>
#include <limits>

#include "core/list.h"
#include "core/map.h"
#include "core/process.h"
#include "core/stnzbase.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "core/tree.h"
#include "objfields.h"
#include "objtransfer.h"

TRACE_MODULE("OBJECT")

BooleanT ObjWriteToMemory(void* pCookie, void* pBuffer, int32 lSize) {
    auto* ppPosition = static_cast<ByteT**>(pCookie);
    std::memcpy(*ppPosition, pBuffer, static_cast<std::size_t>(lSize));
    *ppPosition += lSize;
    return TRUE;
}

BooleanT ObjWriteToCounter(void* pCookie, void* /*pBuffer*/, int32 lSize) {
    *static_cast<int64*>(pCookie) += lSize;
    return TRUE;
}

namespace {

// --- writing elements ---

BooleanT ObjPut(ObjSerialStreamT tStream, const void* pBytes, int32 lSize) {
    if (lSize == 0) return TRUE;
    void* pBuffer = const_cast<void*>(pBytes);
    if (tStream->pfnCallback == ObjWriteToMemory) {
        return ObjWriteToMemory(tStream->pCookie, pBuffer, lSize);
    }
    if (tStream->pfnCallback == ObjWriteToCounter) {
        return ObjWriteToCounter(tStream->pCookie, pBuffer, lSize);
    }
    return tStream->pfnCallback(tStream->pCookie, pBuffer, lSize);
}

BooleanT ObjPutByte(ObjSerialStreamT tStream, ByteT bValue) { return ObjPut(tStream, &bValue, 1); }

BooleanT ObjPutBoolean(ObjSerialStreamT tStream, BooleanT bValue) {
    return ObjPutByte(tStream, bValue != FALSE ? 1 : 0);
}

BooleanT ObjPutLong(ObjSerialStreamT tStream, int32 lValue) {
    ByteT aBytes[4];
    ObjStoreLong(aBytes, lValue);
    return ObjPut(tStream, aBytes, 4);
}

BooleanT ObjPutString(ObjSerialStreamT tStream, const char* pstrText) {
    if (pstrText == nullptr) return ObjPutLong(tStream, 0);
    const std::size_t iSize = std::strlen(pstrText) + 1;
    if (iSize > static_cast<std::size_t>(std::numeric_limits<int32>::max())) return FALSE;
    const auto lSize = static_cast<int32>(iSize);
    return BooleanFrom(ObjPutLong(tStream, lSize) == TRUE &&
                       ObjPut(tStream, pstrText, lSize) == TRUE);
}

BooleanT ObjPutBlock(ObjSerialStreamT tStream, const void* pBytes, int32 lSize) {
    if (pBytes == nullptr || lSize < 0) lSize = 0;
    return BooleanFrom(ObjPutLong(tStream, lSize) == TRUE &&
                       ObjPut(tStream, pBytes, lSize) == TRUE);
}

BooleanT ObjPutInt64(ObjSerialStreamT tStream, int64 tValue) {
    const auto tBits = static_cast<uint64>(tValue);
    return BooleanFrom(ObjPutLong(tStream, static_cast<int32>(static_cast<uint32>(tBits))) ==
                           TRUE &&
                       ObjPutLong(tStream, static_cast<int32>(tBits >> 32)) == TRUE);
}

// A pointer means something only to the process that wrote it: a local stream carries it whole,
// every other one its low 32 bits.
BooleanT ObjPutPointer(ObjSerialStreamT tStream, std::uintptr_t iPointer) {
    if (tStream->bIsLocal == TRUE) return ObjPut(tStream, &iPointer, sizeof(iPointer));
    return ObjPutLong(tStream, static_cast<int32>(static_cast<uint32>(iPointer)));
}

BooleanT ObjPutKey(ObjSerialStreamT tStream, const StnzKeyT* ptKey) {
    BooleanT bResult = BooleanFrom(ObjPutString(tStream, ptKey->pstrKeyword) == TRUE &&
                                   ObjPutLong(tStream, ptKey->lValueCount) == TRUE &&
                                   ObjPutLong(tStream, ptKey->lMaxValueCount) == TRUE);
    for (int32 l = 0; l < ptKey->lValueCount && bResult == TRUE; l++) {
        bResult = ObjPutString(tStream, ptKey->apstrValues[l]);
    }
    return bResult;
}

BooleanT ObjPutStanza(ObjSerialStreamT tStream, const StnzT* ptStanza) {
    if (ptStanza == nullptr) return ObjPutBoolean(tStream, FALSE);
    char acFullTitle[StnzTitleSize];
    const char* pstrFullTitle = ptStanza->pstrTitle;
    if (ptStanza->pstrCatagory != nullptr) {
        if (StrFormat(acFullTitle, StnzTitleSize, "%s:%s", ptStanza->pstrCatagory,
                      ptStanza->pstrTitle == nullptr ? "" : ptStanza->pstrTitle) != TRUE) {
            return FALSE;
        }
        pstrFullTitle = acFullTitle;
    } else if (pstrFullTitle != nullptr && StrSize(pstrFullTitle) > StnzTitleSize) {
        TraceMessageInline(181, 1, -1, "Stanza title is longer than %d bytes", StnzTitleSize);
        return FALSE;
    }
    BooleanT bResult = BooleanFrom(ObjPutBoolean(tStream, TRUE) == TRUE &&
                                   ObjPutString(tStream, pstrFullTitle) == TRUE &&
                                   ObjPutLong(tStream, ptStanza->lKeyCount) == TRUE &&
                                   ObjPutLong(tStream, ptStanza->lMaxKeyCount) == TRUE);
    for (int32 l = 0; l < ptStanza->lKeyCount && bResult == TRUE; l++) {
        bResult = ObjPutKey(tStream, ptStanza->apKeys[l]);
    }
    return bResult;
}

// --- writing objects ---

BooleanT ObjPutField(ObjSerialStreamT tStream, void* oSource, const ObjDbFieldT& tField) {
    const void* pField = ObjFieldAt(oSource, tField);
    switch (tField.eType) {
        case eObjComponentBoolean:
            return ObjPutBoolean(tStream, ObjLoad<BooleanT>(pField));
        case eObjComponentInteger:
            return ObjPutLong(tStream, ObjLoad<int32>(pField));
        case eObjComponentPointer:
            return ObjPutPointer(tStream, ObjLoad<std::uintptr_t>(pField));
        case eObjComponentString:
            return ObjPutString(tStream, ObjLoad<char*>(pField));
        case eObjComponentForwardLink:
            if (tField.bPrivate == TRUE && tStream->bIsLocal != TRUE) {
                return ObjPutByte(tStream, eObjLocationNull);
            }
            return ObjSerialize(ObjLoad<void*>(pField), tStream);
        case eObjComponentStanza:
            return ObjPutStanza(tStream, ObjLoad<StnzT*>(pField));
        case eObjComponentBinaryData: {
            const auto tData = ObjLoad<ObjDataFieldT>(pField);
            return ObjPutBlock(tStream, tData.pData, tData.lSize);
        }
        case eObjComponentInlineData:
            return ObjPutBlock(tStream, pField, tField.lSize);
        case eObjComponentViewInfo: {
            const auto tView = ObjLoad<ObjViewInfoT>(pField);
            return BooleanFrom(ObjPutLong(tStream, tView.lType) == TRUE &&
                               ObjPutString(tStream, tView.pstrName) == TRUE &&
                               ObjPutStanza(tStream, tView.pStanza) == TRUE);
        }
        case eObjComponentInt64:
            return ObjPutInt64(tStream, ObjLoad<int64>(pField));
        case eObjComponentUnique:
            return ObjPut(tStream, pField, sizeof(UniqueT));
        case eObjComponentBackwardLink:
            TraceMessageInline(36, 1, -1, "Invalid component: BackwardLink");
            break;
        case eObjComponentInvalid:
            TraceMessageInline(37, 1, -1, "Invalid component");
            break;
    }
    ProcCrash(FALSE);
    return FALSE;
}

BooleanT ObjSerializeSimple(ObjSerialStreamT tStream, void* oSource) {
    const ObjDbDataT& tData = ObjHeaderOf(oSource)->tTemplate->tDbData;
    if (ObjPutString(tStream, tData.pstrDescriptor) != TRUE) return FALSE;
    for (int32 lField = 0; lField < tData.lFieldCount; lField++) {
        if (ObjPutField(tStream, oSource, tData.atFields[lField]) != TRUE) return FALSE;
    }
    return TRUE;
}

BooleanT ObjSerializeListBody(ObjSerialStreamT tStream, ListO oList) {
    if (ObjPutLong(tStream, oList->lItemMagic) != TRUE ||
        ObjPutLong(tStream, oList->lItemCount) != TRUE ||
        ObjSerialize(oList->oCookie, tStream) != TRUE) {
        return FALSE;
    }
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (ObjSerialize(oNode->oData, tStream) != TRUE) return FALSE;
    }
    return ObjPutLong(tStream, ListMagic);
}

BooleanT ObjSerializeList(ObjSerialStreamT tStream, ListO oList) {
    const BooleanT bResult = ObjSerializeListBody(tStream, oList);
    TraceMessageInline(118, 0, 4, "%s = ObjSerializeList(%p, %p) %d", BooleanText(bResult),
                       static_cast<void*>(oList), static_cast<void*>(tStream), oList->lItemCount);
    return bResult;
}

// Each node is written before its children; a FALSE ends each row of siblings.
BooleanT ObjSerializeTree(ObjSerialStreamT tStream, TreeO oTree) {
    if (ObjSerialize(oTree->oCookie, tStream) != TRUE) return FALSE;
    TreeNodeO oNode = oTree->oFirstNode;
    while (oNode != nullptr) {
        if (ObjPutBoolean(tStream, TRUE) != TRUE || ObjPutBoolean(tStream, oNode->bOpen) != TRUE ||
            ObjSerialize(oNode->oData, tStream) != TRUE) {
            return FALSE;
        }
        if (oNode->oChild != nullptr) {
            oNode = oNode->oChild;
            continue;
        }
        // No children: their row ends at once, and so does every row whose last node this is.
        if (ObjPutBoolean(tStream, FALSE) != TRUE) return FALSE;
        while (oNode->oNext == nullptr && oNode->oParent != nullptr) {
            oNode = oNode->oParent;
            if (ObjPutBoolean(tStream, FALSE) != TRUE) return FALSE;
        }
        oNode = oNode->oNext;
    }
    return BooleanFrom(ObjPutBoolean(tStream, FALSE) == TRUE &&
                       ObjPutLong(tStream, TreeMagic) == TRUE);
}

BooleanT ObjSerializeBody(ObjSerialStreamT tStream, void* oSource) {
    int32 lMagic = 0;
    if (ObjGetMagic(oSource, &lMagic) != TRUE) {
        TraceMessageInline(43, 1, 0, "Failed to read magic from object at %p", oSource);
        return FALSE;
    }
    if (ObjPutLong(tStream, lMagic) != TRUE) return FALSE;
    if (lMagic == TreeMagic) return ObjSerializeTree(tStream, static_cast<TreeO>(oSource));
    if (lMagic == ListMagic) return ObjSerializeList(tStream, static_cast<ListO>(oSource));
    return ObjSerializeSimple(tStream, oSource);
}

int32 ObjCompareAddresses(void* pKey, void* pEntry) {
    const auto iKey = reinterpret_cast<std::uintptr_t>(static_cast<ObjMapEntryT*>(pKey)->oObject);
    const auto iEntry =
        reinterpret_cast<std::uintptr_t>(static_cast<ObjMapEntryT*>(pEntry)->oObject);
    return iKey < iEntry ? -1 : static_cast<int32>(iKey > iEntry);
}

}  // namespace

BooleanT ObjSerialize(void* oSource, ObjSerialStreamT tStream) {
    if (tStream == nullptr) return FALSE;
    if (oSource == nullptr) return ObjPutByte(tStream, eObjLocationNull);
    const ObjDepthGuard tDepth(tStream);
    if (tDepth.TooDeep()) {
        TraceMessageInline(183, 1, -1, "Objects are nested deeper than %d", ObjMaximumDepth);
        return FALSE;
    }
    if (ObjHeaderOf(oSource)->lRefCount == 1) {
        return BooleanFrom(ObjPutByte(tStream, eObjLocationSingle) == TRUE &&
                           ObjSerializeBody(tStream, oSource) == TRUE);
    }
    ObjMapEntryT tKey = {0, oSource, FALSE};
    void* pFound = nullptr;
    if (MapFindEntry(&pFound, tStream->oMap, &tKey) == TRUE) {
        const int32 lMapId = static_cast<ObjMapEntryT*>(pFound)->lMapId;
        return BooleanFrom(ObjPutByte(tStream, eObjLocationSharedAgain) == TRUE &&
                           ObjPutLong(tStream, lMapId) == TRUE);
    }
    const int32 lMapId = ++tStream->lLastId;
    return BooleanFrom(
        ObjEnterInMap(tStream, lMapId, oSource, ObjCompareAddresses, nullptr) == TRUE &&
        ObjPutByte(tStream, eObjLocationSharedFirst) == TRUE &&
        ObjPutLong(tStream, lMapId) == TRUE && ObjSerializeBody(tStream, oSource) == TRUE);
}
