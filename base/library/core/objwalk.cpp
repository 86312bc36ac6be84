// The object walker. Visit handles one reference: the callback decides, and unless it says
// otherwise the walk descends into what the object holds. Objects with several holders are noted in
// a map by address, so that each is visited through the first reference only. Lists and trees are
// walked by their own walks; only simple objects, and items within items, cost stack, and their
// depth is bounded.
#include "core/objwalk.h"

#include <algorithm>

#include "core/list.h"
#include "core/process.h"
#include "core/trace.h"
#include "core/tree.h"
#include "objfields.h"

TRACE_MODULE("OBJWALK")

namespace {

struct ObjWalkDataT {
    ObjWalkFnT fnCallback;
    void* pCookie;
    ObjWalkMapT oMap;  // shared objects already visited
    int32 lDepth;      // objects between the start of the walk and the one being visited
};

constexpr int32 WalkMapGrowSize = 16;

int32 CompareAddresses(void* pEntry1, void* pEntry2) {
    const auto lAddress1 = reinterpret_cast<std::uintptr_t>(*static_cast<void**>(pEntry1));
    const auto lAddress2 = reinterpret_cast<std::uintptr_t>(*static_cast<void**>(pEntry2));
    if (lAddress1 == lAddress2) return 0;
    return lAddress1 < lAddress2 ? -1 : 1;
}

bool IsInMap(ObjWalkMapT tMap, void* oObject) {
    return MapFindEntry(nullptr, tMap, &oObject) == TRUE;
}

bool IsShared(void* oObject) { return ObjHeaderOf(oObject)->lRefCount >= 2; }

// This and what returns bool below: false aborts the walk.
bool Visit(ObjWalkDataT* ptWalk, void** poObject);

// Visits a node of a list or tree and then its item; the result says what becomes of the node.
ObjWalkResultE VisitNode(ObjWalkDataT* ptWalk, void* oNode, void** poItem, int32 lMessage,
                         const char* pstrType) {
    void* oReference = oNode;
    const ObjWalkResultE eResult = ptWalk->fnCallback(ptWalk->pCookie, &oReference);
    if (eResult != eObjWalkResultContinue) return eResult;
    if (oReference != oNode) {
        TraceMessageInline(lMessage, 0, -1, "Not allowed to modify %s objects", pstrType);
        ProcCrash(TRUE);
        return eObjWalkResultAbort;
    }
    const bool bHadItem = *poItem != nullptr;
    if (!Visit(ptWalk, poItem)) return eObjWalkResultAbort;
    return bHadItem && *poItem == nullptr ? eObjWalkResultPrune : eObjWalkResultContinue;
}

BooleanT VisitListNode(void* pCookie, ListNodeO oNode) {
    auto* ptWalk = static_cast<ObjWalkDataT*>(pCookie);
    switch (VisitNode(ptWalk, oNode, &oNode->oData, 124, "ListNodeO")) {
        case eObjWalkResultContinue:
        case eObjWalkResultSkip:
            return TRUE;
        case eObjWalkResultPrune:
            return ListRemoveItem(oNode);
        default:
            return FALSE;
    }
}

TreeCallbackResultE VisitTreeNode(void* pCookie, TreeNodeO oNode) {
    auto* ptWalk = static_cast<ObjWalkDataT*>(pCookie);
    switch (VisitNode(ptWalk, oNode, &oNode->oData, 123, "TreeNodeO")) {
        case eObjWalkResultContinue:
            return TreeWalkContinue;
        case eObjWalkResultSkip:
            return TreeWalkPrune;
        case eObjWalkResultPrune:
            return TreeWalkPruneBranch;
        default:
            return TreeWalkAbort;
    }
}

bool VisitFields(ObjWalkDataT* ptWalk, void* oObject) {
    const ObjDbDataT* ptDbData = ObjGetDbData(oObject);
    for (int32 lField = 0; lField < ptDbData->lFieldCount; ++lField) {
        const ObjDbFieldT& tField = ptDbData->atFields[lField];
        void* pField = static_cast<ByteT*>(oObject) + tField.lObjOffset;
        switch (tField.eType) {
            case eObjComponentInvalid:
                TraceMessageInline(121, 1, -1, "ObjWalker - Invalid component");
                ProcCrash(FALSE);
                return false;
            case eObjComponentBackwardLink:
                TraceMessageInline(120, 1, -1, "ObjWalker - Invalid component: BackwardLink");
                ProcCrash(FALSE);
                return false;
            case eObjComponentForwardLink:
                if (!Visit(ptWalk, static_cast<void**>(pField))) return false;
                break;
            default:
                break;
        }
    }
    return true;
}

// Visits everything that an object holds.
bool Descend(ObjWalkDataT* ptWalk, void* oObject) {
    int32 lMagic = 0;
    if (ObjGetMagic(oObject, &lMagic) != TRUE) {
        TraceMessageInline(127, 1, 0, "Failed to read magic from object at %p", oObject);
        return false;
    }
    if (lMagic == TreeMagic) {
        auto* oTree = static_cast<TreeO>(oObject);
        return Visit(ptWalk, &oTree->oCookie) &&
               TreeWalkFromNode(oTree->oFirstNode, VisitTreeNode, ptWalk, FALSE) == TRUE;
    }
    if (lMagic == ListMagic) {
        auto* oList = static_cast<ListO>(oObject);
        return Visit(ptWalk, &oList->oCookie) && ListWalk(oList, VisitListNode, ptWalk) == TRUE;
    }
    return VisitFields(ptWalk, oObject);
}

bool Visit(ObjWalkDataT* ptWalk, void** poObject) {
    void* oObject = *poObject;
    if (oObject == nullptr || IsInMap(ptWalk->oMap, oObject)) return true;
    if (ptWalk->lDepth >= ObjMaximumDepth) {
        TraceMessageInline(1, 1, -1, "Objects are nested too deeply, limit is %d", ObjMaximumDepth);
        return false;
    }
    const bool bInMap = IsShared(oObject);
    if (bInMap) ObjWalkMapAddObject(ptWalk->oMap, oObject);

    const ObjWalkResultE eResult = ptWalk->fnCallback(ptWalk->pCookie, poObject);
    const bool bReplaced = *poObject != oObject;
    // The entry of an object that left its place must not stand for a later one at its address.
    if (bInMap && (bReplaced || eResult == eObjWalkResultPrune)) {
        ObjWalkMapRemoveObject(ptWalk->oMap, oObject);
    }
    switch (eResult) {
        case eObjWalkResultContinue:
            break;
        case eObjWalkResultSkip:
            return true;
        case eObjWalkResultPrune:
            ObjReleaseInternal(poObject);
            return true;
        default:
            return false;
    }
    if (bReplaced && *poObject != nullptr && (bInMap || IsShared(*poObject)) &&
        ObjWalkMapAddObject(ptWalk->oMap, *poObject) != TRUE) {
        return true;  // the replacement was visited before
    }
    ++ptWalk->lDepth;
    const bool bGoOn = Descend(ptWalk, *poObject);
    --ptWalk->lDepth;
    return bGoOn;
}

ObjWalkResultE CountObject(void* pCookie, void** poObject) {
    auto* ptUsage = static_cast<ObjCountEntryT*>(pCookie);
    const ObjTemplateS* tTemplate = ObjGetTemplateFromObject(*poObject);
    if (tTemplate == nullptr) return eObjWalkResultContinue;  // the walk reports what is no object
    ObjCountEntryT* ptEnd = ptUsage + 1 + ptUsage->lCount;
    const auto fnBefore = [](const ObjCountEntryT& tEntry, int32 lMagic) {
        return tEntry.tTemplate->lMagic < lMagic;
    };
    auto* ptEntry = std::lower_bound(ptUsage + 1, ptEnd, tTemplate->lMagic, fnBefore);
    if (ptEntry != ptEnd && ptEntry->tTemplate == tTemplate) ++ptEntry->lCount;
    return eObjWalkResultContinue;
}

}  // namespace

BooleanT ObjWalk(void** poSource, ObjWalkFnT fnCallback, void* pCookie, ObjWalkMapT tUsageMap) {
    if (poSource == nullptr || fnCallback == nullptr || tUsageMap != nullptr) return FALSE;
    ObjWalkDataT tWalk = {
        .fnCallback = fnCallback, .pCookie = pCookie, .oMap = ObjWalkMapNew(), .lDepth = 0};
    if (tWalk.oMap == nullptr) return FALSE;
    const bool bDone = Visit(&tWalk, poSource);
    ObjWalkMapRelease(&tWalk.oMap);
    return BooleanFrom(bDone);
}

ObjWalkMapT ObjWalkMapNew() {
    ObjWalkMapT tMap = nullptr;
    MapCreate(&tMap, sizeof(void*), WalkMapGrowSize, CompareAddresses, nullptr, nullptr);
    return tMap;
}

void ObjWalkMapRelease(ObjWalkMapT* ptMap) { ObjRelease(ptMap); }

BooleanT ObjWalkMapAddObject(ObjWalkMapT tMap, void* oObject) {
    return MapInsertEntry(tMap, &oObject);
}

BooleanT ObjWalkMapRemoveObject(ObjWalkMapT tMap, void* oObject) {
    return MapRemoveEntry(tMap, &oObject);
}

BooleanT ObjMonitorObject(void* oSource, ObjCountEntryT* ptUsage, ObjWalkMapT tObjRefMap) {
    TraceMessageInline(2, 0, 4, "ObjMonitorObject(%p)", oSource);
    if (ptUsage == nullptr) return FALSE;
    return ObjWalk(&oSource, CountObject, ptUsage, tObjRefMap);
}
