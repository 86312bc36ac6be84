// The reading half of object streams. Nothing in the stream is trusted: lengths and counts are
// checked against what the source still holds before anything is allocated for them, and from a
// source of unknown size blocks grow with what arrives. The recursion follows links and list items,
// counted in the stream and bounded; trees are built node by node.
//
// The map holds each shared object until the end of the stream, so that what a failed read leaves
// behind - objects that hold each other - is still known and can be emptied.
#include <algorithm>
#include <cstring>
#include <utility>

#include "core/list.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/objwalk.h"
#include "core/process.h"
#include "core/stnzbase.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "core/tree.h"
#include "memoryraw.h"
#include "objfields.h"
#include "objtransfer.h"

TRACE_MODULE("OBJECT")
MEM_DEFAULT_POOL_CACHE

BooleanT ObjReadFromMemory(void* pCookie, void* pBuffer, int32 lSize) {
    auto* ppPosition = static_cast<const ByteT**>(pCookie);
    std::memcpy(pBuffer, *ppPosition, static_cast<std::size_t>(lSize));
    *ppPosition += lSize;
    return TRUE;
}

namespace {

constexpr int32 StnzSpareSlots = 64;   // empty slots that a stream from outside may ask for
constexpr int32 ObjPieceSize = 65536;  // first step of reading from a source of unknown size
// Largest object that a source of unknown size may announce by its descriptor alone.
constexpr int64 ObjUnknownSourceLimit = 64 * 1024 * 1024;

int32 ObjCompareMapIds(void* pKey, void* pEntry) {
    const int32 lKey = static_cast<ObjMapEntryT*>(pKey)->lMapId;
    const int32 lEntry = static_cast<ObjMapEntryT*>(pEntry)->lMapId;
    return lKey < lEntry ? -1 : static_cast<int32>(lKey > lEntry);
}

void ObjReleaseMapEntry(void* pEntry) {
    ObjReleaseInternal(&static_cast<ObjMapEntryT*>(pEntry)->oObject);
}

// --- reading elements ---

BooleanT ObjTake(ObjSerialStreamT tStream, void* pBytes, int32 lSize) {
    if (lSize == 0) return TRUE;
    if (tStream->llRemaining >= 0) {
        if (lSize > tStream->llRemaining) return FALSE;
        tStream->llRemaining -= lSize;
    }
    if (tStream->pfnCallback == ObjReadFromMemory) {
        return ObjReadFromMemory(tStream->pCookie, pBytes, lSize);
    }
    return tStream->pfnCallback(tStream->pCookie, pBytes, lSize);
}

BooleanT ObjTakeBoolean(ObjSerialStreamT tStream, BooleanT* pbValue) {
    ByteT bByte = 0;
    const BooleanT bResult = ObjTake(tStream, &bByte, 1);
    *pbValue = BooleanFrom(bByte != 0);
    return bResult;
}

BooleanT ObjTakeLong(ObjSerialStreamT tStream, int32* plValue) {
    ByteT aBytes[4] = {};
    const BooleanT bResult = ObjTake(tStream, aBytes, 4);
    *plValue = ObjLoadLong(aBytes);
    return bResult;
}

// A count of things of which each takes at least lEach bytes of the stream.
BooleanT ObjTakeCount(ObjSerialStreamT tStream, int32* plCount, int32 lEach) {
    if (ObjTakeLong(tStream, plCount) != TRUE || *plCount < 0) return FALSE;
    return BooleanFrom(tStream->llRemaining < 0 ||
                       static_cast<int64>(*plCount) * lEach <= tStream->llRemaining);
}

// lSize bytes in a new block. From a source of unknown size the block grows with what arrives.
BooleanT ObjTakeBytes(ObjSerialStreamT tStream, int32 lSize, PoolPtr<ByteT>& pBlock) {
    if (lSize < 0) return FALSE;
    const bool bKnown = tStream->llRemaining >= 0;
    if (bKnown && lSize > tStream->llRemaining) return FALSE;
    int32 lRoom = bKnown ? lSize : std::min(lSize, ObjPieceSize);
    pBlock = PoolPtr<ByteT>(static_cast<ByteT*>(MemAllocateRaw(lRoom, MemPool())));
    if (pBlock.Get() == nullptr) return FALSE;
    int32 lTaken = 0;
    while (true) {
        if (ObjTake(tStream, pBlock.Get() + lTaken, lRoom - lTaken) != TRUE) return FALSE;
        lTaken = lRoom;
        if (lTaken == lSize) return TRUE;
        lRoom = lSize - lTaken < lTaken ? lSize : 2 * lTaken;
        PoolPtr<ByteT> pLarger(static_cast<ByteT*>(MemAllocateRaw(lRoom, MemPool())));
        if (pLarger.Get() == nullptr) return FALSE;
        MemCopy(pLarger.Get(), pBlock.Get(), lTaken);
        pBlock = std::move(pLarger);
    }
}

// A text in a new block of the caller's, null for length 0.
BooleanT ObjTakeString(ObjSerialStreamT tStream, char** ppstrText) {
    *ppstrText = nullptr;
    int32 lSize = 0;
    if (ObjTakeLong(tStream, &lSize) != TRUE) return FALSE;
    if (lSize == 0) return TRUE;
    PoolPtr<ByteT> pText;
    if (ObjTakeBytes(tStream, lSize, pText) != TRUE) return FALSE;
    if (pText.Get()[lSize - 1] != 0) return FALSE;
    *ppstrText = reinterpret_cast<char*>(pText.Take());
    return TRUE;
}

BooleanT ObjTakePointer(ObjSerialStreamT tStream, std::uintptr_t* piPointer) {
    if (tStream->bIsLocal == TRUE) return ObjTake(tStream, piPointer, sizeof(*piPointer));
    int32 lValue = 0;
    const BooleanT bResult = ObjTakeLong(tStream, &lValue);
    *piPointer = static_cast<uint32>(lValue);
    return bResult;
}

// Room for lCount slots in use, of lMaximum announced.
int32 ObjStanzaRoom(ObjSerialStreamT tStream, int32 lCount, int32 lMaximum) {
    if (tStream->bIsLocal == TRUE || lMaximum - lCount <= StnzSpareSlots) return lMaximum;
    return lCount + StnzSpareSlots;
}

BooleanT ObjTakeKey(ObjSerialStreamT tStream, StnzKeyT** pptKey) {
    PoolPtr<char> pstrKeyword;
    int32 lCount = 0;
    int32 lMaximum = 0;
    if (ObjTakeString(tStream, pstrKeyword.Address()) != TRUE ||
        ObjTakeCount(tStream, &lCount, 4) != TRUE || ObjTakeLong(tStream, &lMaximum) != TRUE ||
        lMaximum < lCount ||
        StnzCreateKey(pptKey, pstrKeyword.Get(),
                      tStream->llRemaining < 0 ? 0 : ObjStanzaRoom(tStream, lCount, lMaximum)) !=
            TRUE) {
        return FALSE;
    }
    for (int32 l = 0; l < lCount; l++) {
        PoolPtr<char> pstrValue;
        if (ObjTakeString(tStream, pstrValue.Address()) != TRUE ||
            StnzAddValueToKey(pptKey, pstrValue.Get()) != TRUE) {
            StnzReleaseKey(pptKey);
            return FALSE;
        }
    }
    return TRUE;
}

BooleanT ObjTakeStanzaHead(ObjSerialStreamT tStream, StnzT** pptStanza, int32* plCount) {
    constexpr int32 lSmallestKey = 12;
    PoolPtr<char> pstrFullTitle;
    int32 lMaximum = 0;
    if (ObjTakeString(tStream, pstrFullTitle.Address()) != TRUE ||
        ObjTakeCount(tStream, plCount, lSmallestKey) != TRUE ||
        ObjTakeLong(tStream, &lMaximum) != TRUE || lMaximum < *plCount) {
        return FALSE;
    }
    char* pstrTitle = pstrFullTitle.Get();
    const char* pstrCatagory = nullptr;
    if (pstrTitle != nullptr) {
        if (StrSize(pstrTitle) > StnzTitleSize) return FALSE;
        if (char* pstrColon = StrNextCharMatch(pstrTitle, ':'); pstrColon != nullptr) {
            *pstrColon = '\0';
            pstrCatagory = pstrTitle;
            pstrTitle = pstrColon + 1;
        }
    }
    return StnzCreate(pptStanza, pstrCatagory, pstrTitle,
                      ObjStanzaRoom(tStream, *plCount, lMaximum));
}

// A stanza of the caller's, null where the stream has none.
BooleanT ObjTakeStanza(ObjSerialStreamT tStream, StnzT** pptStanza) {
    *pptStanza = nullptr;
    BooleanT bPresent = FALSE;
    if (ObjTakeBoolean(tStream, &bPresent) != TRUE) return FALSE;
    if (bPresent != TRUE) return TRUE;
    int32 lCount = 0;
    if (ObjTakeStanzaHead(tStream, pptStanza, &lCount) != TRUE) return FALSE;
    for (int32 l = 0; l < lCount; l++) {
        StnzKeyT* ptKey = nullptr;
        if (ObjTakeKey(tStream, &ptKey) != TRUE || StnzAddKeyToStanza(pptStanza, &ptKey) != TRUE) {
            StnzReleaseKey(&ptKey);
            StnzRelease(pptStanza);
            return FALSE;
        }
    }
    return TRUE;
}

BooleanT ObjTakeData(ObjSerialStreamT tStream, ObjDataFieldT* ptData) {
    int32 lSize = 0;
    if (ObjTakeLong(tStream, &lSize) != TRUE) return FALSE;
    if (lSize == 0) return TRUE;
    PoolPtr<ByteT> pData;
    if (ObjTakeBytes(tStream, lSize, pData) != TRUE) return FALSE;
    *ptData = {lSize, pData.Take()};
    return TRUE;
}

BooleanT ObjTakeInline(ObjSerialStreamT tStream, void* pField, int32 lDeclared) {
    int32 lSize = 0;
    if (ObjTakeLong(tStream, &lSize) != TRUE || lSize != lDeclared) return FALSE;
    return ObjTake(tStream, pField, lSize);
}

BooleanT ObjTakeViewInfo(ObjSerialStreamT tStream, ObjViewInfoT* ptView) {
    return BooleanFrom(ObjTakeLong(tStream, &ptView->lType) == TRUE &&
                       ObjTakeString(tStream, &ptView->pstrName) == TRUE &&
                       ObjTakeStanza(tStream, &ptView->pStanza) == TRUE);
}

BooleanT ObjTakeInt64(ObjSerialStreamT tStream, int64* ptValue) {
    int32 lLow = 0;
    int32 lHigh = 0;
    if (ObjTakeLong(tStream, &lLow) != TRUE || ObjTakeLong(tStream, &lHigh) != TRUE) return FALSE;
    *ptValue = static_cast<int64>(static_cast<uint64>(static_cast<uint32>(lHigh)) << 32 |
                                  static_cast<uint32>(lLow));
    return TRUE;
}

// --- reading objects ---

// Takes one element into a field, whatever of it arrived: the object owns that and releases it.
template <class T, class F>
BooleanT ObjTakeInto(ObjSerialStreamT tStream, void* pField, F fnTake) {
    T tValue = {};
    const BooleanT bResult = fnTake(tStream, &tValue);
    ObjStore(pField, tValue);
    return bResult;
}

BooleanT ObjTakeField(ObjSerialStreamT tStream, void* oTarget, const ObjDbFieldT& tField) {
    void* pField = ObjFieldAt(oTarget, tField);
    switch (tField.eType) {
        case eObjComponentBoolean:
            return ObjTakeInto<BooleanT>(tStream, pField, ObjTakeBoolean);
        case eObjComponentInteger:
            return ObjTakeInto<int32>(tStream, pField, ObjTakeLong);
        case eObjComponentPointer:
            return ObjTakeInto<std::uintptr_t>(tStream, pField, ObjTakePointer);
        case eObjComponentString:
            return ObjTakeInto<char*>(tStream, pField, ObjTakeString);
        case eObjComponentForwardLink:
            return ObjTakeInto<void*>(tStream, pField, [](ObjSerialStreamT tFrom, void** poLinked) {
                return ObjReconstruct(poLinked, tFrom);
            });
        case eObjComponentStanza:
            return ObjTakeInto<StnzT*>(tStream, pField, ObjTakeStanza);
        case eObjComponentBinaryData:
            return ObjTakeInto<ObjDataFieldT>(tStream, pField, ObjTakeData);
        case eObjComponentInlineData:
            return ObjTakeInline(tStream, pField, tField.lSize);
        case eObjComponentViewInfo:
            return ObjTakeInto<ObjViewInfoT>(tStream, pField, ObjTakeViewInfo);
        case eObjComponentInt64:
            return ObjTakeInto<int64>(tStream, pField, ObjTakeInt64);
        case eObjComponentUnique:
            return ObjTake(tStream, pField, sizeof(UniqueT));
        case eObjComponentBackwardLink:
        case eObjComponentInvalid:
            break;
    }
    TraceMessageInline(44, 1, -1, "ERROR: Unknown type to reconstruct");
    return FALSE;
}

// Fewest bytes that the fields of a descriptor take in the stream.
int64 ObjMinimumStream(const char* pstrDescriptor) {
    int64 llSize = 0;
    const char* pstrComponent = ObjFirstComponent(pstrDescriptor);
    for (;; pstrComponent = ObjNextComponent(pstrComponent)) {
        const ObjComponentE eType = ObjComponentDatatype(pstrComponent);
        if (eType == eObjComponentInvalid) return llSize;
        llSize += gatObjComponents[eType].lMinimumStream;
        if (eType == eObjComponentInlineData) llSize += ObjInlineSize(pstrComponent);
    }
}

// A new object by the descriptor in the stream, its fields still empty; null on failure.
void* ObjTakeNewObject(ObjSerialStreamT tStream, int32 lMagic) {
    PoolPtr<char> pstrDescriptor;
    if (ObjTakeString(tStream, pstrDescriptor.Address()) != TRUE ||
        pstrDescriptor.Get() == nullptr) {
        TraceMessageInline(121, 0, -1, "Failed to get format string");
        return nullptr;
    }
    // Before anything is made for it: the fields must still be able to follow.
    const int64 llMinimum = ObjMinimumStream(pstrDescriptor.Get());
    const int64 llLimit = tStream->llRemaining >= 0 ? tStream->llRemaining : ObjUnknownSourceLimit;
    ObjTemplateT tTemplate = nullptr;
    if (llMinimum > llLimit ||
        ObjTemplateFromStream(&tTemplate, lMagic, pstrDescriptor.Get()) != TRUE) {
        TraceMessageInline(122, 0, -1, "Failed to create new object");
        return nullptr;
    }
    // Not even an empty one is made: its destructor would run on it.
    if (ObjOwnsByPointer(tTemplate)) {
        TraceMessageInline(184, 1, -1, "Objects of class %x hold pointers of their process",
                           static_cast<uint32>(lMagic));
        return nullptr;
    }
    return ObjTemplateNewInstanceFromPool(tTemplate, MemPool());
}

BooleanT ObjEnterRead(ObjSerialStreamT tStream, int32 lMapId, void* oNew) {
    if (lMapId == 0) return TRUE;
    TraceMessageInline(120, 0, 4, "Reconstruct a %s at %p", ObjNameFromObject(oNew), oNew);
    if (ObjEnterInMap(tStream, lMapId, oNew, ObjCompareMapIds, ObjReleaseMapEntry) != TRUE) {
        TraceMessageInline(182, 1, -1, "Object number %d cannot be entered", lMapId);
        return FALSE;
    }
    return ObjIncRefCount(oNew);
}

struct ObjReplacementT {
    void* oOld;
    void* oNew;
};

ObjWalkResultE ObjReplaceReference(void* pCookie, void** poVisited) {
    const auto* ptReplacement = static_cast<const ObjReplacementT*>(pCookie);
    if (*poVisited != ptReplacement->oOld) return eObjWalkResultContinue;
    ObjReleaseInternal(poVisited);
    *poVisited = ptReplacement->oNew;
    ObjIncRefCount(ptReplacement->oNew);
    return eObjWalkResultSkip;
}

// The translator put another object in the place of one that the map knows.
void ObjReplaceTranslated(ObjSerialStreamT tStream, int32 lMapId, void** poNew) {
    ObjMapEntryT tKey = {lMapId, nullptr, FALSE};
    void* pFound = nullptr;
    if (MapFindEntry(&pFound, tStream->oMap, &tKey) != TRUE) return;
    auto* ptEntry = static_cast<ObjMapEntryT*>(pFound);
    void* oOld = ptEntry->oObject;
    if (oOld == *poNew) return;
    ptEntry->oObject = *poNew;
    ObjIncRefCount(*poNew);
    // One holder is the map's; any other is a reference from inside.
    if (ObjHeaderOf(oOld)->lRefCount > 1) {
        ObjReplacementT tReplacement = {oOld, *poNew};
        ObjWalk(poNew, ObjReplaceReference, &tReplacement, nullptr);
        // Out of the graph now; what still holds it is what it holds itself.
        ObjReleaseContents(oOld);
    }
    ObjReleaseInternal(&oOld);
}

BooleanT ObjTranslate(void** poResult, ObjSerialStreamT tStream, int32 lMapId) {
    const ObjTranslatorFnT fnTranslator = ObjGetTranslator(*poResult);
    if (fnTranslator == nullptr) return TRUE;
    switch (fnTranslator(poResult)) {
        case eObjTranslateResultUnchanged:
            return TRUE;
        case eObjTranslateResultModified:
            if (lMapId != 0) ObjReplaceTranslated(tStream, lMapId, poResult);
            return TRUE;
        case eObjTranslateResultInvalid:
            TraceMessageInline(168, 0, -1, "Failed to translate simple object");
            break;
        default:
            TraceMessageInline(169, 0, -1, "Error translating simple object");
            break;
    }
    ObjReleaseInternal(poResult);
    return FALSE;
}

// The first field that could not be read, or -1.
int32 ObjTakeFields(ObjSerialStreamT tStream, void* oTarget) {
    const ObjDbDataT* ptData = ObjGetDbData(oTarget);
    for (int32 lField = 0; lField < ptData->lFieldCount; lField++) {
        if (ObjTakeField(tStream, oTarget, ptData->atFields[lField]) != TRUE) return lField;
    }
    return -1;
}

BooleanT ObjReconstructSimple(void** poResult, ObjSerialStreamT tStream, int32 lMagic,
                              int32 lMapId) {
    ObjHolder<void> oNew(ObjTakeNewObject(tStream, lMagic));
    if (oNew.Get() == nullptr || ObjEnterRead(tStream, lMapId, oNew.Get()) != TRUE) return FALSE;
    const int32 lBad = ObjTakeFields(tStream, oNew.Get());
    if (lBad >= 0) {
        TraceMessageInline(123, 0, -1, "Failed to reconstruct simple object %x %d field %d type %d",
                           static_cast<uint32>(lMagic), lMagic, lBad,
                           ObjGetDbData(oNew.Get())->atFields[lBad].eType);
        return FALSE;
    }
    void* oTranslated = oNew.Take();
    if (ObjTranslate(&oTranslated, tStream, lMapId) != TRUE) return FALSE;
    *poResult = oTranslated;
    return TRUE;
}

BooleanT ObjReconstructItem(ListO oList, ObjSerialStreamT tStream) {
    ObjHolder<void> oItem;
    if (ObjReconstruct(oItem.Address(), tStream) != TRUE) {
        TraceMessageInline(128, 0, -1, "Failed to reconstruct list item");
        return FALSE;
    }
    if (ListPushLastItemInternal(oList, oItem.Address()) != TRUE) {
        TraceMessageInline(127, 0, -1, "Failed to push list item");
        return FALSE;
    }
    return TRUE;
}

BooleanT ObjReconstructList(void** poResult, ObjSerialStreamT tStream, int32 lMapId) {
    int32 lItemMagic = 0;
    int32 lItemCount = 0;
    if (ObjTakeLong(tStream, &lItemMagic) != TRUE) {
        TraceMessageInline(125, 0, -1, "Failed to reconstruct item magic");
        return FALSE;
    }
    if (ObjTakeCount(tStream, &lItemCount, 1) != TRUE) {
        TraceMessageInline(139, 0, -1, "Failed to reconstruct item count");
        return FALSE;
    }
    ObjHolder<void> oCookie;
    if (ObjReconstruct(oCookie.Address(), tStream) != TRUE) {
        TraceMessageInline(126, 0, -1, "Failed to reconstruct list cookie");
        return FALSE;
    }
    ObjHolder<ListS> oList(ListNew(lItemMagic));
    if (oList.Get() == nullptr) return FALSE;
    oList.Get()->oCookie = oCookie.Take();
    if (ObjEnterRead(tStream, lMapId, oList.Get()) != TRUE) return FALSE;
    int32 lEnd = 0;
    BooleanT bResult = TRUE;
    for (int32 l = 0; l < lItemCount && bResult == TRUE; l++) {
        bResult = ObjReconstructItem(oList.Get(), tStream);
    }
    if (bResult == TRUE) bResult = ObjTakeLong(tStream, &lEnd);
    if (bResult != TRUE || lEnd != ListMagic) {
        TraceMessageInline(129, 0, -1, "Failed to validate end of list (%d, %d)", lEnd, ListMagic);
        return FALSE;
    }
    *poResult = oList.Take();
    return TRUE;
}

// Adds the node that follows in the stream: as the root, or at a position next to oAnchor.
TreeNodeO ObjReconstructNode(TreeO oTree, TreeNodeO oAnchor, TreePositionE tPosition,
                             ObjSerialStreamT tStream) {
    BooleanT bOpen = FALSE;
    ObjHolder<void> oData;
    if (ObjTakeBoolean(tStream, &bOpen) != TRUE ||
        ObjReconstruct(oData.Address(), tStream) != TRUE) {
        return nullptr;
    }
    TreeNodeO oNode = oAnchor == nullptr ? TreePushRootItem(oData.Address(), oTree)
                                         : TreePushItem(oData.Address(), oAnchor, tPosition);
    if (oNode != nullptr) oNode->bOpen = bOpen;
    return oNode;
}

BooleanT ObjReconstructNodes(TreeO oTree, ObjSerialStreamT tStream) {
    // oParent is the node whose row of children is being read, oLast the newest node of that row.
    TreeNodeO oParent = nullptr;
    TreeNodeO oLast = nullptr;
    while (true) {
        BooleanT bNode = FALSE;
        if (ObjTakeBoolean(tStream, &bNode) != TRUE) return FALSE;
        if (bNode == TRUE) {
            TreeNodeO oAnchor = oLast != nullptr ? oLast : oParent;
            const TreePositionE tPosition =
                oLast != nullptr ? TREE_SIBLING_AFTER : TREE_FIRST_CHILD;
            oParent = ObjReconstructNode(oTree, oAnchor, tPosition, tStream);
            if (oParent == nullptr) return FALSE;
            oLast = nullptr;
        } else {
            // The row of oParent's children is complete; oParent's own row goes on.
            if (oParent == nullptr) return TRUE;
            oLast = oParent;
            oParent = oParent->oParent;
        }
    }
}

BooleanT ObjReconstructTree(void** poResult, ObjSerialStreamT tStream, int32 lMapId) {
    ObjHolder<TreeS> oTree(TreeNewFromPool(MemPool()));
    if (oTree.Get() == nullptr || ObjEnterRead(tStream, lMapId, oTree.Get()) != TRUE ||
        ObjReconstruct(&oTree.Get()->oCookie, tStream) != TRUE ||
        ObjReconstructNodes(oTree.Get(), tStream) != TRUE) {
        return FALSE;
    }
    int32 lEnd = 0;
    if (ObjTakeLong(tStream, &lEnd) != TRUE || lEnd != TreeMagic) {
        TraceMessageInline(45, 1, -1, "Synchronisation failure");
        return FALSE;
    }
    *poResult = oTree.Take();
    return TRUE;
}

BooleanT ObjReconstructAgain(void** poResult, ObjSerialStreamT tStream) {
    ObjMapEntryT tKey = {};
    if (ObjTakeLong(tStream, &tKey.lMapId) != TRUE) return FALSE;
    void* pFound = nullptr;
    if (MapFindEntry(&pFound, tStream->oMap, &tKey) != TRUE) {
        TraceMessageInline(49, 1, -1, "Fatal error - entry not in map");
        return FALSE;
    }
    const auto* ptEntry = static_cast<ObjMapEntryT*>(pFound);
    if (tStream->bNoCircles == TRUE && ptEntry->bClosed != TRUE) {
        TraceMessageInline(189, 1, -1, "Object number %d is held by what it holds", tKey.lMapId);
        return FALSE;
    }
    *poResult = ptEntry->oObject;
    return ObjIncRefCount(*poResult);
}

// From now on references to the object cannot come from inside it.
void ObjCloseEntry(ObjSerialStreamT tStream, int32 lMapId) {
    ObjMapEntryT tKey = {lMapId, nullptr, FALSE};
    void* pFound = nullptr;
    if (MapFindEntry(&pFound, tStream->oMap, &tKey) == TRUE)
        static_cast<ObjMapEntryT*>(pFound)->bClosed = TRUE;
}

BooleanT ObjReconstructBody(void** poResult, ObjSerialStreamT tStream, int32 lMapId) {
    int32 lMagic = 0;
    if (ObjTakeLong(tStream, &lMagic) != TRUE) return FALSE;
    if (lMagic == TreeMagic) return ObjReconstructTree(poResult, tStream, lMapId);
    if (lMagic == ListMagic) return ObjReconstructList(poResult, tStream, lMapId);
    return ObjReconstructSimple(poResult, tStream, lMagic, lMapId);
}

}  // namespace

BooleanT ObjReconstruct(void** poResult, ObjSerialStreamT tStream) {
    if (poResult == nullptr || tStream == nullptr) return FALSE;
    *poResult = nullptr;
    const ObjDepthGuard tDepth(tStream);
    if (tDepth.TooDeep()) {
        TraceMessageInline(180, 1, -1, "Objects are nested deeper than %d", ObjMaximumDepth);
        return FALSE;
    }
    ByteT bLocation = 0;
    if (ObjTake(tStream, &bLocation, 1) != TRUE) {
        TraceMessageInline(53, 1, -1, "Failed to read lead byte?");
        return FALSE;
    }
    int32 lMapId = 0;
    switch (bLocation) {
        case eObjLocationNull:
            return TRUE;
        case eObjLocationSingle:
            break;
        case eObjLocationSharedFirst:
            if (ObjTakeLong(tStream, &lMapId) != TRUE) return FALSE;
            break;
        case eObjLocationSharedAgain:
            return ObjReconstructAgain(poResult, tStream);
        default:
            TraceMessageInline(51, 1, -1, "Impossible scenario, location type %d", bLocation);
            return FALSE;
    }
    const BooleanT bResult = ObjReconstructBody(poResult, tStream, lMapId);
    if (lMapId != 0) ObjCloseEntry(tStream, lMapId);
    return bResult;
}

BooleanT ObjReconstructWithCallback(void** poResult, ObjSerialStreamT tStream) {
    if (poResult == nullptr || tStream == nullptr) return FALSE;
    tStream->oMap = nullptr;
    tStream->lLastId = 0;
    tStream->lDepth = 0;
    const BooleanT bResult = ObjReconstruct(poResult, tStream);
    if (bResult != TRUE) {
        TraceMessageInline(54, 4, -1, "ObjReconstruct failed");
        // Objects that hold each other would outlive the map otherwise.
        MapWalk(
            tStream->oMap,
            [](void* pEntry, void* /*pArgument*/) {
                ObjReleaseContents(static_cast<ObjMapEntryT*>(pEntry)->oObject);
                return TRUE;
            },
            nullptr);
    }
    if (tStream->oMap != nullptr) ObjRelease(&tStream->oMap);
    return bResult;
}
