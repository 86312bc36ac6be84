// Keys and stanzas as objects that can travel, and back. What comes back was made elsewhere, so its
// counts only say how much of what is there counts; room is made in proportion to that.
#include "cfgserverinternal.h"
#include "cfgvalue.h"
#include "core/cfgserver.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("SERVERCONF")
MEM_DEFAULT_POOL_CACHE

namespace {

// Slots that an object may announce beyond those in use; no such room is made for more.
constexpr int32 CfgSvrSpareSlots = 1024;

int32 CfgSvrRoom(int32 lCount, int32 lMaximum) {
    if (lMaximum < lCount) return lCount;
    return lMaximum - lCount <= CfgSvrSpareSlots ? lMaximum : lCount;
}

int32 CfgSvrItemCount(ListO oList) { return oList == nullptr ? 0 : oList->lItemCount; }

BooleanT CfgSvrTakeKey(StnzKeyT** pptKey, CfgStnzKeyO oKey, int64* pllLeft) {
    if (pptKey == nullptr || ObjCheckTypeInternal(oKey, CfgStnzKeyMagic) != TRUE) return FALSE;
    return CfgSvrKeyFromValues(pptKey, oKey->pstrKeyword, oKey->oValueList, oKey->lValueCount,
                               oKey->lMaxValueCount, pllLeft);
}

}  // namespace

BooleanT CfgSvrStnzKeyObjectFromStnzKeyType(CfgStnzKeyO* poStnzKey, const StnzKeyT* ptKey) {
    if (poStnzKey == nullptr || ptKey == nullptr) return FALSE;
    ObjHolder<CfgStnzKeyS> oKey(ObjNew<CfgStnzKeyS>(CfgStnzKeyMagic, CfgStnzKeyDescriptor));
    if (oKey.Get() == nullptr) return FALSE;
    oKey.Get()->pstrKeyword = StrDuplicateIntoPool(ptKey->pstrKeyword, MemPool());
    oKey.Get()->lValueCount = ptKey->lValueCount;
    oKey.Get()->lMaxValueCount = ptKey->lMaxValueCount;
    oKey.Get()->oValueList = ListNew(ObjStringMagic);
    for (int32 l = 0; l < ptKey->lValueCount; l++) {
        ObjHolder<ObjStringS> oValue(ObjStringNew(ptKey->apstrValues[l]));
        if (ListPushLastItem(oKey.Get()->oValueList, oValue.Address()) != TRUE) return FALSE;
    }
    *poStnzKey = oKey.Take();
    return TRUE;
}

BooleanT CfgSvrKeyFromValues(StnzKeyT** pptKey, const char* pstrKeyword, void* oValues,
                             int32 lCount, int32 lRoom, int64* pllLeft) {
    if (lCount < 0 || lRoom < 0 ||
        (oValues != nullptr && !CfgSvrIsListOf(oValues, ObjStringMagic)) ||
        lCount > CfgSvrItemCount(static_cast<ListO>(oValues))) {
        TraceMessageInline(1, 0, -1, "Stnz Key '%s' does not have its values",
                           TraceText(pstrKeyword));
        return FALSE;
    }
    CfgKeyHolder tKey;
    if (StnzCreateKey(tKey.Address(), pstrKeyword, CfgSvrRoom(lCount, lRoom)) != TRUE) return FALSE;
    ListNodeO oNode = lCount == 0 ? nullptr : static_cast<ListO>(oValues)->oFirst;
    for (int32 l = 0; l < lCount; l++, oNode = oNode->oNext) {
        const char* pstrValue = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        *pllLeft -=
            static_cast<int64>(sizeof(pstrValue)) + (pstrValue == nullptr ? 0 : StrSize(pstrValue));
        if (*pllLeft < 0) {
            TraceMessageInline(4, 0, -1, "Stnz Key '%s' is too large", pstrKeyword);
            return FALSE;
        }
        if (StnzAddValueToKey(tKey.Address(), pstrValue) != TRUE) return FALSE;
    }
    *pptKey = tKey.Take();
    return TRUE;
}

BooleanT CfgSvrStnzKeyTypeFromStnzKeyObject(StnzKeyT** pptKey, CfgStnzKeyO oKey) {
    int64 llLeft = CfgSvrLargest;
    return CfgSvrTakeKey(pptKey, oKey, &llLeft);
}

BooleanT CfgSvrStanzaObjectFromStanzaType(CfgStnzO* poStanza, StnzT* ptStanza) {
    if (poStanza == nullptr || ptStanza == nullptr) return FALSE;
    ObjHolder<CfgStnzS> oStanza(ObjNew<CfgStnzS>(CfgStnzMagic, CfgStnzDescriptor));
    if (oStanza.Get() == nullptr) return FALSE;
    oStanza.Get()->pstrCatagory = StrDuplicateIntoPool(ptStanza->pstrCatagory, MemPool());
    oStanza.Get()->pstrTitle = StrDuplicateIntoPool(ptStanza->pstrTitle, MemPool());
    oStanza.Get()->lKeyCount = ptStanza->lKeyCount;
    oStanza.Get()->lMaxKeyCount = ptStanza->lMaxKeyCount;
    oStanza.Get()->oKeys = ListNew(CfgStnzKeyMagic);
    for (int32 l = 0; l < ptStanza->lKeyCount; l++) {
        ObjHolder<CfgStnzKeyS> oKey;
        if (CfgSvrStnzKeyObjectFromStnzKeyType(oKey.Address(), ptStanza->apKeys[l]) != TRUE ||
            ListPushLastItem(oStanza.Get()->oKeys, oKey.Address()) != TRUE) {
            TraceMessageInline(2, 0, -1,
                               "Stnz Key creation failed, cancelling Stnz object creation");
            return FALSE;
        }
    }
    *poStanza = oStanza.Take();
    return TRUE;
}

BooleanT CfgSvrStanzaTypeFromStanzaObject(StnzT** pptStanza, CfgStnzO oStanza) {
    if (pptStanza == nullptr || ObjCheckTypeInternal(oStanza, CfgStnzMagic) != TRUE) return FALSE;
    ListO oKeys = oStanza->oKeys;
    if ((oKeys != nullptr && !CfgSvrIsListOf(oKeys, CfgStnzKeyMagic)) ||
        oStanza->lKeyCount != CfgSvrItemCount(oKeys)) {
        TraceMessageInline(3, 0, -1, "Stnz object '%s' does not have its keys",
                           TraceText(oStanza->pstrTitle));
        return FALSE;
    }
    CfgStanzaHolder tStanza;
    if (StnzCreate(tStanza.Address(), oStanza->pstrCatagory, oStanza->pstrTitle,
                   oStanza->lKeyCount) != TRUE) {
        return FALSE;
    }
    int64 llLeft = CfgSvrLargest;
    for (ListNodeO oNode = oKeys == nullptr ? nullptr : oKeys->oFirst; oNode != nullptr;
         oNode = oNode->oNext) {
        CfgKeyHolder tKey;
        if (CfgSvrTakeKey(tKey.Address(), static_cast<CfgStnzKeyO>(oNode->oData), &llLeft) !=
                TRUE ||
            StnzAddKeyToStanza(tStanza.Address(), tKey.Address()) != TRUE) {
            return FALSE;
        }
    }
    *pptStanza = tStanza.Take();
    return TRUE;
}
