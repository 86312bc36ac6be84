// Copies, comparison and order of objects, and fields set from tag lists. A deep copy goes over the
// field table; it recurses through links only (to ObjMaximumDepth) and follows lists and trees
// without recursion. Objects with several holders are entered in a map from source to copy, so that
// what is shared stays shared.
#include <algorithm>
#include <cstdarg>
#include <utility>

#include "core/context.h"
#include "core/list.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objserial.h"
#include "core/process.h"
#include "core/stnzbase.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "core/tree.h"
#include "objfields.h"

TRACE_MODULE("OBJECT")
MEM_DEFAULT_POOL_CACHE

namespace {

struct ObjCopyEntryT {
    void* oSource;
    void* oCopy;
};

struct ObjCopyContextT {
    MapO oMap;  // of ObjCopyEntryT, made when the first shared object is met
    BooleanT bKeepLocalData;
    int32 lDepth;
};

int32 ObjCompareSources(void* pKey, void* pEntry) {
    const auto iKey = reinterpret_cast<std::uintptr_t>(static_cast<ObjCopyEntryT*>(pKey)->oSource);
    const auto iEntry =
        reinterpret_cast<std::uintptr_t>(static_cast<ObjCopyEntryT*>(pEntry)->oSource);
    return iKey < iEntry ? -1 : static_cast<int32>(iKey > iEntry);
}

BooleanT ObjCopy(void** poCopy, void* oSource, ObjCopyContextT& tContext);

BooleanT ObjCopyList(ListO oCopy, ListO oSource, ObjCopyContextT& tContext) {
    oCopy->lItemMagic = oSource->lItemMagic;
    if (ObjCopy(&oCopy->oCookie, oSource->oCookie, tContext) != TRUE) return FALSE;
    for (ListNodeO oNode = oSource->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        ObjHolder<void> oItem;
        if (ObjCopy(oItem.Address(), oNode->oData, tContext) != TRUE) return FALSE;
        if (ListPushLastItemInternal(oCopy, oItem.Address()) != TRUE) return FALSE;
    }
    return TRUE;
}

// The copy follows the source in step: down to a first child, on to the next sibling, up by
// parents.
BooleanT ObjCopyTree(TreeO oCopy, TreeO oSource, ObjCopyContextT& tContext) {
    if (ObjCopy(&oCopy->oCookie, oSource->oCookie, tContext) != TRUE) return FALSE;
    TreeNodeO oFrom = oSource->oFirstNode;
    TreeNodeO oAnchor = nullptr;
    TreePositionE tPosition = TREE_FIRST_CHILD;
    while (oFrom != nullptr) {
        ObjHolder<void> oItem;
        if (ObjCopy(oItem.Address(), oFrom->oData, tContext) != TRUE) return FALSE;
        TreeNodeO oNew = oAnchor == nullptr ? TreePushRootItem(oItem.Address(), oCopy)
                                            : TreePushItem(oItem.Address(), oAnchor, tPosition);
        if (oNew == nullptr) return FALSE;
        oNew->bOpen = oFrom->bOpen;
        oAnchor = oNew;
        if (oFrom->oChild != nullptr) {
            oFrom = oFrom->oChild;
            tPosition = TREE_FIRST_CHILD;
            continue;
        }
        while (oFrom != nullptr && oFrom->oNext == nullptr) {
            oFrom = oFrom->oParent;
            if (oFrom != nullptr) oAnchor = oAnchor->oParent;
        }
        if (oFrom != nullptr) oFrom = oFrom->oNext;
        tPosition = TREE_SIBLING_AFTER;
    }
    return TRUE;
}

BooleanT ObjCopyField(void* oCopy, void* oSource, const ObjDbFieldT& tField,
                      ObjCopyContextT& tContext) {
    void* pTo = ObjFieldAt(oCopy, tField);
    const void* pFrom = ObjFieldAt(oSource, tField);
    switch (tField.eType) {
        case eObjComponentBoolean:
        case eObjComponentInteger:
        case eObjComponentPointer:
        case eObjComponentInt64:
        case eObjComponentUnique:
            std::memcpy(pTo, pFrom, static_cast<std::size_t>(gatObjComponents[tField.eType].lSize));
            return TRUE;
        case eObjComponentInlineData:
            std::memcpy(pTo, pFrom, static_cast<std::size_t>(tField.lSize));
            return TRUE;
        case eObjComponentString:
            ObjStore(pTo, StrDuplicateIntoPool(ObjLoad<char*>(pFrom), MemPool()));
            return TRUE;
        case eObjComponentForwardLink: {
            if (tField.bPrivate == TRUE && tContext.bKeepLocalData != TRUE) return TRUE;
            void* oLinked = nullptr;
            const BooleanT bResult = ObjCopy(&oLinked, ObjLoad<void*>(pFrom), tContext);
            ObjStore(pTo, oLinked);
            return bResult;
        }
        case eObjComponentStanza: {
            StnzT* ptCopy = nullptr;
            if (auto ptStanza = ObjLoad<StnzT*>(pFrom); ptStanza != nullptr) {
                if (StnzCopy(&ptCopy, ptStanza) != TRUE) return FALSE;
            }
            ObjStore(pTo, ptCopy);
            return TRUE;
        }
        case eObjComponentBinaryData: {
            const auto tData = ObjLoad<ObjDataFieldT>(pFrom);
            if (tData.pData == nullptr) return TRUE;
            ObjDataFieldT tCopy = {tData.lSize, MemAllocateFromPool(tData.lSize, MemPool())};
            if (tCopy.pData == nullptr) return FALSE;
            MemCopy(tCopy.pData, tData.pData, tData.lSize);
            ObjStore(pTo, tCopy);
            return TRUE;
        }
        case eObjComponentViewInfo: {
            const auto tView = ObjLoad<ObjViewInfoT>(pFrom);
            ObjViewInfoT tCopy = {tView.lType, StrDuplicateIntoPool(tView.pstrName, MemPool()),
                                  nullptr};
            const BooleanT bResult =
                tView.pStanza == nullptr ? TRUE : StnzCopy(&tCopy.pStanza, tView.pStanza);
            ObjStore(pTo, tCopy);
            return bResult;
        }
        default:
            TraceMessageInline(90, 1, 3, "ERROR: Unknown type to reconstruct %d", tField.eType);
            ProcCrash(FALSE);
            return TRUE;
    }
}

BooleanT ObjCopyContents(void* oCopy, void* oSource, ObjCopyContextT& tContext) {
    const ObjTemplateS* ptTemplate = ObjHeaderOf(oSource)->tTemplate;
    if (ptTemplate->lMagic == TreeMagic) {
        return ObjCopyTree(static_cast<TreeO>(oCopy), static_cast<TreeO>(oSource), tContext);
    }
    if (ptTemplate->lMagic == ListMagic) {
        return ObjCopyList(static_cast<ListO>(oCopy), static_cast<ListO>(oSource), tContext);
    }
    for (int32 lField = 0; lField < ptTemplate->tDbData.lFieldCount; lField++) {
        if (ObjCopyField(oCopy, oSource, ptTemplate->tDbData.atFields[lField], tContext) != TRUE) {
            return FALSE;
        }
    }
    return TRUE;
}

// Copies one reference. What was built before a failure hangs from *poCopy and goes with it.
BooleanT ObjCopy(void** poCopy, void* oSource, ObjCopyContextT& tContext) {
    TraceMessageInline(89, 0, 4, "ObjCopy(%p, %p, %p)", static_cast<void*>(poCopy), oSource,
                       static_cast<void*>(&tContext));
    *poCopy = nullptr;
    if (oSource == nullptr) return TRUE;
    if (ObjHasValidGlobalMagic(oSource) != TRUE || tContext.lDepth >= ObjMaximumDepth) return FALSE;
    const bool bShared = ObjHeaderOf(oSource)->lRefCount > 1;
    ObjCopyEntryT tEntry = {oSource, nullptr};
    if (bShared) {
        void* pFound = nullptr;
        if (MapFindEntry(&pFound, tContext.oMap, &tEntry) == TRUE) {
            *poCopy = static_cast<ObjCopyEntryT*>(pFound)->oCopy;
            return ObjIncRefCount(*poCopy);
        }
    }
    ObjTemplateT tTemplate = ObjHeaderOf(oSource)->tTemplate;
    if (ObjOwnsByPointer(tTemplate)) {
        TraceMessageInline(185, 1, -1, "Objects of class %x own what they point at",
                           static_cast<uint32>(tTemplate->lMagic));
        return FALSE;
    }
    void* oCopy = ObjTemplateNewInstanceFromPool(tTemplate, MemPool());
    *poCopy = oCopy;
    if (oCopy == nullptr) return FALSE;
    if (bShared) {
        if (tContext.oMap == nullptr && MapCreate(&tContext.oMap, sizeof(ObjCopyEntryT), 16,
                                                  ObjCompareSources, nullptr, nullptr) != TRUE) {
            return FALSE;
        }
        tEntry.oCopy = oCopy;
        if (MapInsertEntry(tContext.oMap, &tEntry) != TRUE) return FALSE;
    }
    tContext.lDepth++;
    const BooleanT bResult = ObjCopyContents(oCopy, oSource, tContext);
    tContext.lDepth--;
    return bResult;
}

// --- order ---

template <class Compare>
class ObjSorter {
 public:
    explicit ObjSorter(Compare fnCompare) : m_fnCompare(fnCompare) {}

    // FALSE once a comparison gave anything but -1, 0 or 1.
    BooleanT Sort(void** aoTarget, int32 lFirst, int32 lLast) {
        // Depth that partitions of halves would need, twice over: beyond it the pivots are bad (the
        // array is nearly in order, say) and a merge takes over, which is never quadratic.
        int32 lDepth = 2;
        for (int32 lCount = lLast - lFirst + 1; lCount > 1; lCount /= 2) lDepth += 2;
        return SortPart(aoTarget, lFirst, lLast, lDepth);
    }

 private:
    BooleanT SortPart(void** aoTarget, int32 lFirst, int32 lLast, int32 lDepth) {
        while (lFirst < lLast) {
            if (lDepth-- == 0) return MergePart(aoTarget, lFirst, lLast);
            int32 lPivot = 0;
            if (Partition(aoTarget, lFirst, lLast, lPivot) != TRUE) return FALSE;
            if (lPivot - 1 > lFirst && SortPart(aoTarget, lFirst, lPivot - 1, lDepth) != TRUE) {
                return FALSE;
            }
            lFirst = lPivot + 1;
        }
        return TRUE;
    }

    // The first element is the pivot. What is not above it moves down into the slot before the scan
    // position; what is above is swapped with the end, which moves down.
    BooleanT Partition(void** aoTarget, int32 lFirst, int32 lLast, int32& lPivot) {
        void* oPivot = aoTarget[lFirst];
        int32 lScan = lFirst + 1;
        int32 lEnd = lLast;
        while (lScan <= lEnd) {
            const int32 lResult = m_fnCompare(aoTarget[lScan], oPivot);
            if (lResult == 1) {
                std::swap(aoTarget[lScan], aoTarget[lEnd]);
                lEnd--;
            } else if (lResult == 0 || lResult == -1) {
                aoTarget[lScan - 1] = aoTarget[lScan];
                lScan++;
            } else {
                aoTarget[lScan - 1] = oPivot;
                return FALSE;
            }
        }
        lPivot = lScan - 1;
        aoTarget[lPivot] = oPivot;
        return TRUE;
    }

    BooleanT MergePart(void** aoTarget, int32 lFirst, int32 lLast) {
        bool bSound = true;
        std::stable_sort(aoTarget + lFirst, aoTarget + lLast + 1, [&](void* oA, void* oB) {
            if (!bSound) return false;
            const int32 lResult = m_fnCompare(oA, oB);
            bSound = lResult >= -1 && lResult <= 1;
            return bSound && lResult == -1;
        });
        return BooleanFrom(bSound);
    }

    Compare m_fnCompare;
};

// --- tag lists ---

void ObjApplyTags(void* oObj, OBJ_TAG tFirstTag, std::va_list& tArgs, int32 lBadListMessage) {
    if (tFirstTag == OBJ_TAG_NONE) return;
    ObjTemplateT tTemplate = ObjGetTemplateFromObject(oObj);
    if (tFirstTag != OBJ_TAG_BEGIN || tTemplate == nullptr) {
        TraceMessageInline(lBadListMessage, 0, -1,
                           "Bad tags list for object type '%s', starting with tag value %d",
                           ObjNameFromObject(oObj), tFirstTag);
        ProcCrash(FALSE);
        return;
    }
    for (OBJ_TAG tTag = va_arg(tArgs, OBJ_TAG); tTag != OBJ_TAG_END;
         tTag = va_arg(tArgs, OBJ_TAG)) {
        const ObjDbDataT& tData = tTemplate->tDbData;
        const ObjComponentE eType = tTag >= 0 && tTag < tData.lFieldCount
                                        ? tData.atFields[tTag].eType
                                        : eObjComponentInvalid;
        if (eType == eObjComponentBoolean || eType == eObjComponentInteger) {
            ObjStore<int32>(ObjFieldAt(oObj, tData.atFields[tTag]), va_arg(tArgs, int32));
        } else if (eType == eObjComponentString) {
            void* pField = ObjFieldAt(oObj, tData.atFields[tTag]);
            char* pstrNew = StrDuplicateIntoPool(va_arg(tArgs, const char*), MemPool());
            auto pstrOld = ObjLoad<char*>(pField);
            MemFree(&pstrOld);
            ObjStore(pField, pstrNew);
        } else {
            // The value's type is not known, so nothing behind it can be read.
            TraceMessageInline(
                160, 0, -1,
                "Unsupported field type for tag. Tag value %d, field type %d, obj type '%s'", tTag,
                eType, ObjNameFromObject(oObj));
            ProcCrash(FALSE);
            return;
        }
    }
}

}  // namespace

BooleanT ObjDuplicateInternal(void** poCopy, void* oObject, BooleanT bKeepLocalData) {
    if (poCopy == nullptr || ObjHasValidGlobalMagic(oObject) != TRUE) return FALSE;
    ObjCopyContextT tContext = {nullptr, bKeepLocalData, 0};
    const BooleanT bResult = ObjCopy(poCopy, oObject, tContext);
    if (bResult != TRUE) ObjReleaseInternal(poCopy);
    if (tContext.oMap != nullptr) ObjRelease(&tContext.oMap);
    return bResult;
}

BooleanT ObjDuplicate(void** poNewObject, void* oExistingObject) {
    if (poNewObject == nullptr || oExistingObject == nullptr) return FALSE;
    const int32 lSize = ObjSerializedSizeLocal(oExistingObject);
    if (lSize < 0) return FALSE;
    PoolPtr<ByteT> pStream(static_cast<ByteT*>(MemAllocateFromPool(lSize, MemPool())));
    if (pStream.Get() == nullptr ||
        ObjSerializeLocal(oExistingObject, pStream.Get(), nullptr) != TRUE) {
        return FALSE;
    }
    return ObjReconstructLocal(poNewObject, pStream.Get(), lSize);
}

BooleanT ObjCompare(void* oObjectA, void* oObjectB) {
    // Held for the duration: the holders count in how an object is written, on both sides alike.
    if (ObjIncRefCount(oObjectA) != TRUE) return FALSE;
    ObjHolder<void> oHeldA(oObjectA);
    if (ObjIncRefCount(oObjectB) != TRUE) return FALSE;
    ObjHolder<void> oHeldB(oObjectB);
    const int32 lSizeA = ObjSerializedSizeLocal(oObjectA);
    if (lSizeA < 0 || lSizeA != ObjSerializedSizeLocal(oObjectB)) return FALSE;
    PoolPtr<ByteT> pStreamA(static_cast<ByteT*>(MemAllocateFromPool(lSizeA, MemPool())));
    PoolPtr<ByteT> pStreamB(static_cast<ByteT*>(MemAllocateFromPool(lSizeA, MemPool())));
    if (pStreamA.Get() == nullptr || pStreamB.Get() == nullptr ||
        ObjSerializeLocal(oObjectA, pStreamA.Get(), nullptr) != TRUE ||
        ObjSerializeLocal(oObjectB, pStreamB.Get(), nullptr) != TRUE) {
        return FALSE;
    }
    return BooleanFrom(
        std::memcmp(pStreamA.Get(), pStreamB.Get(), static_cast<std::size_t>(lSizeA)) == 0);
}

BooleanT ObjQuickSort(void** aoTarget, int32 lLastIndex, ObjCompareFunctionT pfnCallback) {
    if (aoTarget == nullptr || pfnCallback == nullptr) return FALSE;
    return ObjSorter(pfnCallback).Sort(aoTarget, 0, lLastIndex);
}

BooleanT ObjQuickSortWithCookie(void** aoTarget, int32 lLastIndex,
                                ObjCompareFunctionWithCookieT pfnCallback, void* pvCookie) {
    if (aoTarget == nullptr || pfnCallback == nullptr) return FALSE;
    const auto fnCompare = [&](void* oA, void* oB) { return pfnCallback(oA, oB, pvCookie); };
    return ObjSorter(fnCompare).Sort(aoTarget, 0, lLastIndex);
}

void ObjSetFromTagsVA(void* oObj, OBJ_TAG tFirstTag, ...) {
    std::va_list tArgs;
    va_start(tArgs, tFirstTag);
    ObjApplyTags(oObj, tFirstTag, tArgs, 161);
    va_end(tArgs);
}

void ObjSetFromTagsVAListInternal(void* oObj, std::va_list tVAList) {
    std::va_list tArgs;
    va_copy(tArgs, tVAList);
    const OBJ_TAG tFirstTag = va_arg(tArgs, OBJ_TAG);
    ObjApplyTags(oObj, tFirstTag, tArgs, 161);
    va_end(tArgs);
}

void ObjSetFromTagsStepperInternal(OBJ_TAG tStartTag, ...) {
    std::va_list tArgs;
    va_start(tArgs, tStartTag);
    ObjApplyTags(gtTlContext.sObject.oTagObjCreating, tStartTag, tArgs, 159);
    va_end(tArgs);
}

void ObjSetTagObject(void* oObj) {
    TesselContextTimeObjectS& tState = gtTlContext.sObject;
    tState.oTagObjCreating = oObj;
    tState.lTagObjCreatingMagic = 0;
    if (oObj != nullptr) ObjGetMagic(oObj, &tState.lTagObjCreatingMagic);
}
