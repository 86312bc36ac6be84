// Stanza lists. Everything finds its stanza by one walk over the list; the getters then read the
// key and the setters make one, through the operations of single stanzas.
#include "core/stnzlist.h"

#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/stnzbase.h"
#include "core/stnzwrappers.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("STANZA")

namespace {

bool IsEmpty(const char* pstrText) { return pstrText == nullptr || *pstrText == 0; }

const char* Shown(const char* pstrText) { return pstrText == nullptr ? "" : pstrText; }

// The item as a stanza object that holds a stanza, else null.
ObjStanzaO StanzaObject(ListNodeO oNode) {
    if (ObjCheckTypeInternal(oNode->oData, ObjStanzaMagic) != TRUE) return nullptr;
    auto* oStanza = static_cast<ObjStanzaO>(oNode->oData);
    return oStanza->pValue == nullptr ? nullptr : oStanza;
}

// The node of the first stanza of that name; null when there is none.
ListNodeO FindNode(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle) {
    if (ListIsList(oStanzaList) != TRUE || IsEmpty(pstrTitle)) return nullptr;
    for (ListNodeO oNode = oStanzaList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        ObjStanzaO oStanza = StanzaObject(oNode);
        if (oStanza != nullptr &&
            StnzSameTitle(oStanza->pValue->pstrCatagory, oStanza->pValue->pstrTitle, pstrCatagory,
                          pstrTitle) == TRUE) {
            return oNode;
        }
    }
    return nullptr;
}

ObjStanzaO FindObject(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle) {
    ListNodeO oNode = FindNode(oStanzaList, pstrCatagory, pstrTitle);
    return oNode == nullptr ? nullptr : static_cast<ObjStanzaO>(oNode->oData);
}

// Appends the stanza in a new object, which takes it over on success only.
BooleanT AppendStanza(ListO oStanzaList, StnzT* ptStanza) {
    ObjHolder<ObjStanzaS> oStanza(ObjStanzaNew(ptStanza));
    if (oStanza.Get() == nullptr) return FALSE;
    if (ListPushLastItem(oStanzaList, oStanza.Address()) == TRUE) return TRUE;
    oStanza.Get()->pValue = nullptr;
    return FALSE;
}

// The key of a getter; null when there is none.
StnzKeyT* FindKey(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle,
                  const char* pstrKeyword) {
    StnzKeyT* ptKey = nullptr;
    StnzListGetKey(&ptKey, oStanzaList, pstrCatagory, pstrTitle, pstrKeyword);
    return ptKey;
}

using StanzaAddT = BooleanT (*)(StnzT** ppStanza, StnzKeyT** ppKey);

BooleanT PutKey(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle,
                StnzKeyT** pptKey, StanzaAddT fnAdd) {
    if (ListIsList(oStanzaList) != TRUE || IsEmpty(pstrTitle) || pptKey == nullptr ||
        *pptKey == nullptr) {
        return FALSE;
    }
    ObjStanzaO oFound = FindObject(oStanzaList, pstrCatagory, pstrTitle);
    if (oFound != nullptr) return fnAdd(&oFound->pValue, pptKey);
    StnzT* ptStanza = nullptr;
    if (StnzCreate(&ptStanza, pstrCatagory, pstrTitle, 1) != TRUE) return FALSE;
    if (AppendStanza(oStanzaList, ptStanza) != TRUE) {
        StnzRelease(&ptStanza);
        return FALSE;
    }
    return StnzAddKeyToStanza(&static_cast<ObjStanzaO>(oStanzaList->oLast->oData)->pValue, pptKey);
}

template <class CreateT>
BooleanT SetKeyword(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle,
                    BooleanT bReplace, CreateT fnCreate) {
    StnzKeyT* ptKey = nullptr;
    if (fnCreate(&ptKey) != TRUE) return FALSE;
    const BooleanT bResult = bReplace == TRUE
                                 ? StnzListReplaceKey(oStanzaList, pstrCatagory, pstrTitle, &ptKey)
                                 : StnzListAddKey(oStanzaList, pstrCatagory, pstrTitle, &ptKey);
    StnzReleaseKey(&ptKey);
    return bResult;
}

// The stanza objects that fnTake takes, shared.
template <class TakeT>
BooleanT Filter(ListO* poFilteredList, ListO oStanzaList, const char* pstrKeyword, TakeT fnTake) {
    if (poFilteredList == nullptr || ListIsList(oStanzaList) != TRUE || IsEmpty(pstrKeyword)) {
        return FALSE;
    }
    ObjHolder<ListS> oFiltered(ListNew());
    for (ListNodeO oNode = oStanzaList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        ObjStanzaO oStanza = StanzaObject(oNode);
        if (oStanza == nullptr) return FALSE;
        if (fnTake(oStanza->pValue) && ListAddLastItem(oFiltered.Get(), oStanza) != TRUE) {
            return FALSE;
        }
    }
    *poFilteredList = oFiltered.Take();
    return TRUE;
}

}  // namespace

BooleanT StnzSameTitle(const char* pstrCatagoryA, const char* pstrTitleA, const char* pstrCatagoryB,
                       const char* pstrTitleB) {
    return BooleanFrom(StrCompareNoCase(pstrTitleA, pstrTitleB) == 0 &&
                       StrCompareNoCase(Shown(pstrCatagoryA), Shown(pstrCatagoryB)) == 0);
}

BooleanT StnzListFindStanzaObject(ObjStanzaO* poStanza, ListO oStanzaList, const char* pstrCatagory,
                                  const char* pstrTitle) {
    ObjStanzaO oFound =
        poStanza == nullptr ? nullptr : FindObject(oStanzaList, pstrCatagory, pstrTitle);
    const BooleanT bResult = oFound == nullptr ? FALSE : ObjIncRefCount(oFound);
    if (bResult == TRUE) *poStanza = oFound;
    TraceMessageInline(11, 0, 4, "%s = StnzListFindStanzaObject(%p, %p, '%s', '%s')",
                       BooleanText(bResult), static_cast<void*>(poStanza),
                       static_cast<void*>(oStanzaList), Shown(pstrCatagory), Shown(pstrTitle));
    return bResult;
}

BooleanT StnzListFindStanza(StnzT** pptStanza, ListO oStanzaList, const char* pstrCatagory,
                            const char* pstrTitle) {
    ObjStanzaO oFound =
        pptStanza == nullptr ? nullptr : FindObject(oStanzaList, pstrCatagory, pstrTitle);
    if (oFound != nullptr) *pptStanza = oFound->pValue;
    const BooleanT bResult = BooleanFrom(oFound != nullptr);
    TraceMessageInline(12, 0, 4, "%s = StnzListFindStanza(%p, %p, '%s', '%s')",
                       BooleanText(bResult), static_cast<void*>(pptStanza),
                       static_cast<void*>(oStanzaList), Shown(pstrCatagory), Shown(pstrTitle));
    return bResult;
}

BooleanT StnzListRemoveStanza(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle) {
    ListNodeO oNode = FindNode(oStanzaList, pstrCatagory, pstrTitle);
    return oNode == nullptr ? FALSE : ListRemoveItem(oNode);
}

BooleanT StnzListReplaceStanza(ListO oStanzaList, const StnzT* ptStanza) {
    if (ListIsList(oStanzaList) != TRUE || ptStanza == nullptr || IsEmpty(ptStanza->pstrTitle)) {
        return FALSE;
    }
    ListNodeO oOld = FindNode(oStanzaList, ptStanza->pstrCatagory, ptStanza->pstrTitle);
    // The stanza may be the list's already; then its object moves.
    const bool bMoves = oOld != nullptr && static_cast<ObjStanzaO>(oOld->oData)->pValue == ptStanza;
    const BooleanT bAppended = bMoves ? ListAddLastItem(oStanzaList, oOld->oData)
                                      : AppendStanza(oStanzaList, const_cast<StnzT*>(ptStanza));
    if (bAppended != TRUE) return FALSE;
    return oOld == nullptr ? TRUE : ListRemoveItem(oOld);
}

BooleanT StnzListGetKey(StnzKeyT** ppKey, ListO oStanzaList, const char* pstrCatagory,
                        const char* pstrTitle, const char* pstrKeyword) {
    BooleanT bResult = FALSE;
    if (ppKey != nullptr && !IsEmpty(pstrKeyword)) {
        ObjStanzaO oFound = FindObject(oStanzaList, pstrCatagory, pstrTitle);
        if (oFound != nullptr) bResult = StnzGetKey(ppKey, oFound->pValue, pstrKeyword);
    }
    TraceMessageInline(13, 0, 4, "%s = StnzListGetKey(%p, %p, %s, %s, %s)", BooleanText(bResult),
                       static_cast<void*>(ppKey), static_cast<void*>(oStanzaList),
                       Shown(pstrCatagory), Shown(pstrTitle), Shown(pstrKeyword));
    return bResult;
}

BooleanT StnzListGetString(char** ppstrValue, ListO oStanzaList, const char* pstrCatagory,
                           const char* pstrTitle, const char* pstrKeyword,
                           const char* pstrDefault) {
    return StnzKeyGetString(FindKey(oStanzaList, pstrCatagory, pstrTitle, pstrKeyword), pstrDefault,
                            ppstrValue);
}

BooleanT StnzListGetInteger(int32* plValue, ListO oStanzaList, const char* pstrCatagory,
                            const char* pstrTitle, const char* pstrKeyword, int32 lDefault) {
    return StnzKeyGetInteger(FindKey(oStanzaList, pstrCatagory, pstrTitle, pstrKeyword), lDefault,
                             plValue);
}

BooleanT StnzListGetInt64(int64* ptValue, ListO oStanzaList, const char* pstrCatagory,
                          const char* pstrTitle, const char* pstrKeyword, int64 tDefault) {
    return StnzKeyGetInt64(FindKey(oStanzaList, pstrCatagory, pstrTitle, pstrKeyword), tDefault,
                           ptValue);
}

BooleanT StnzListGetBoolean(BooleanT* pValue, ListO oStanzaList, const char* pstrCatagory,
                            const char* pstrTitle, const char* pstrKeyword, BooleanT bDefault) {
    return StnzKeyGetBoolean(FindKey(oStanzaList, pstrCatagory, pstrTitle, pstrKeyword), bDefault,
                             pValue);
}

BooleanT StnzListGetValueList(ListO* poValueList, ListO oStanzaList, const char* pstrCatagory,
                              const char* pstrTitle, const char* pstrKeyword) {
    return StnzKeyGetValueList(FindKey(oStanzaList, pstrCatagory, pstrTitle, pstrKeyword),
                               poValueList);
}

BooleanT StnzListAddKey(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle,
                        StnzKeyT** pptKey) {
    return PutKey(oStanzaList, pstrCatagory, pstrTitle, pptKey, StnzAddKeyToStanza);
}

BooleanT StnzListReplaceKey(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle,
                            StnzKeyT** pptKey) {
    return PutKey(oStanzaList, pstrCatagory, pstrTitle, pptKey, StnzReplaceKeyInStanza);
}

BooleanT StnzListDeleteKeywordFromStanza(ListO oStanzaList, const char* pstrCatagory,
                                         const char* pstrTitle, const char* pstrKeyword) {
    ObjStanzaO oFound = FindObject(oStanzaList, pstrCatagory, pstrTitle);
    if (oFound == nullptr || IsEmpty(pstrKeyword)) return FALSE;
    return StnzDeleteKeywordFromStanza(oFound->pValue, pstrKeyword, TRUE);
}

BooleanT StnzListSetKeywordFromString(ListO oStanzaList, const char* pstrCatagory,
                                      const char* pstrTitle, const char* pstrKeyword,
                                      const char* pstrValue, BooleanT bReplace) {
    return SetKeyword(oStanzaList, pstrCatagory, pstrTitle, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromString(ppKey, pstrKeyword, pstrValue);
    });
}

BooleanT StnzListSetKeywordFromInteger(ListO oStanzaList, const char* pstrCatagory,
                                       const char* pstrTitle, const char* pstrKeyword, int32 lValue,
                                       BooleanT bReplace) {
    return SetKeyword(oStanzaList, pstrCatagory, pstrTitle, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromInteger(ppKey, pstrKeyword, lValue);
    });
}

BooleanT StnzListSetKeywordFromBoolean(ListO oStanzaList, const char* pstrCatagory,
                                       const char* pstrTitle, const char* pstrKeyword,
                                       BooleanT bValue, BooleanT bReplace) {
    return SetKeyword(oStanzaList, pstrCatagory, pstrTitle, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromBoolean(ppKey, pstrKeyword, bValue);
    });
}

BooleanT StnzListSetKeywordFromValueList(ListO oStanzaList, const char* pstrCatagory,
                                         const char* pstrTitle, const char* pstrKeyword,
                                         ListO oValueList, BooleanT bReplace) {
    return SetKeyword(oStanzaList, pstrCatagory, pstrTitle, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromValueList(ppKey, pstrKeyword, oValueList);
    });
}

BooleanT StnzListFilterByKeyword(ListO* poFilteredList, ListO oStanzaList,
                                 const char* pstrKeyword) {
    return Filter(poFilteredList, oStanzaList, pstrKeyword, [&](StnzT* ptStanza) {
        return StnzGetKey(nullptr, ptStanza, pstrKeyword) == TRUE;
    });
}

BooleanT StnzListFilterByBooleanKeyword(ListO* poFilteredList, ListO oStanzaList,
                                        const char* pstrKeyword, BooleanT bValue,
                                        BooleanT bDefault) {
    return Filter(poFilteredList, oStanzaList, pstrKeyword, [&](StnzT* ptStanza) {
        BooleanT bIs = FALSE;
        StnzGetBoolean(ptStanza, pstrKeyword, bDefault, &bIs);
        return (bIs == TRUE) == (bValue == TRUE);
    });
}

BooleanT StnzListWalk(ListO oStnzList, StnzListCallbackFnT pfnCallback, void* pvContext) {
    if (ListIsList(oStnzList) != TRUE || pfnCallback == nullptr) {
        TraceMessageInline(14, 0, -1, "StnzListWalk not given valid list");
        return FALSE;
    }
    if (oStnzList->oFirst == nullptr) {
        TraceMessageInline(15, 0, 4, "Stnz list suceeding, but with empty list");
        return TRUE;
    }
    for (ListNodeO oNode = oStnzList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        ObjStanzaO oStanza = StanzaObject(oNode);
        if (oStanza == nullptr) {
            TraceMessageInline(16, 0, -1, "StnzListWalk failing as bad object type in stanza list");
            return FALSE;
        }
        if (pfnCallback(pvContext, oStanza->pValue) != TRUE) return FALSE;
    }
    TraceMessageInline(18, 0, 4, "StnzListWalk suceeded");
    return TRUE;
}
