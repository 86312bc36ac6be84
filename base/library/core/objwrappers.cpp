// Wrapper objects: records of one field. The field types do the work: what a wrapper owns is
// copied, released, compared and serialised by its template. The wrappers trace under the object
// module.
#include "core/objwrappers.h"

#include <cstring>

#include "core/process.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "core/unique.h"

TRACE_MODULE("OBJECT")
MEM_DEFAULT_POOL_CACHE

namespace {

// Size of the value that ObjGetValue copies; 0 for a wrapper whose value is not handed out like
// that.
struct WrapperClassT {
    int32 lMagic;
    const char* pstrDescriptor;
    int32 lTypeSize;
    int32 lValueSize;
};
enum WrapperE { eBoolean, eInteger, eInt64, eString, eDataField, eStanza, eUnique, eViewable };
constexpr WrapperClassT gatWrappers[] = {
    {ObjBooleanMagic, "b;", sizeof(ObjBooleanS), sizeof(BooleanT)},
    {ObjIntegerMagic, "i;", sizeof(ObjIntegerS), sizeof(int32)},
    {ObjInt64Magic, "I;", sizeof(ObjInt64S), sizeof(int64)},
    {ObjStringMagic, "s;", sizeof(ObjStringS), sizeof(char*)},
    {ObjDataFieldMagic, "d;", sizeof(ObjDataFieldS), 0},
    {ObjStanzaMagic, "z;", sizeof(ObjStanzaS), sizeof(StnzT*)},
    {ObjUniqueMagic, "u;", sizeof(ObjUniqueS), sizeof(UniqueT)},
    {ObjViewableMagic, "v;", sizeof(ObjViewableS), 0},
};

template <class T>
T* New(WrapperE eWrapper) {
    return ObjNew<T>(gatWrappers[eWrapper].lMagic, gatWrappers[eWrapper].pstrDescriptor);
}

bool Is(void* oObject, int32 lMagic) { return ObjCheckTypeInternal(oObject, lMagic) == TRUE; }

// A Create form: nothing is made, or taken over, without a place for the result.
template <class T, class MakeT>
BooleanT Create(T** poResult, int32 lMessage, const char* pstrText, MakeT fnMake) {
    if (poResult == nullptr) {
        TraceMessageInline(lMessage, 0, -1, "%s", pstrText);
        ProcCrash(FALSE);
        return FALSE;
    }
    *poResult = fnMake();
    return BooleanFrom(*poResult != nullptr);
}

}  // namespace

BooleanT ObjWrappersInitialize() {
    for (const WrapperClassT& tClass : gatWrappers) {
        ObjTemplateT tTemplate = nullptr;
        if (ObjTemplateCreateInternal(&tTemplate, tClass.lTypeSize, tClass.lMagic,
                                      tClass.pstrDescriptor, nullptr) != TRUE) {
            return FALSE;
        }
    }
    return TRUE;
}

BooleanT ObjWrappersInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ObjWrappersReleaseThread(TesselContextT* /*ptTlContext*/) {}

ObjBooleanO ObjBooleanNew(BooleanT bInitialValue) {
    auto* oNew = New<ObjBooleanS>(eBoolean);
    if (oNew != nullptr) oNew->bValue = bInitialValue;
    return oNew;
}

BooleanT ObjBooleanCreate(ObjBooleanO* poResult, BooleanT bInitialValue) {
    return Create(poResult, 1, "Invalid Argument", [&] { return ObjBooleanNew(bInitialValue); });
}

BooleanT ObjGetBoolean(ObjBooleanO oBoolean) {
    return Is(oBoolean, ObjBooleanMagic) ? oBoolean->bValue : FALSE;
}

BooleanT ObjSetBoolean(ObjBooleanO oBoolean, BooleanT bNewValue) {
    if (!Is(oBoolean, ObjBooleanMagic)) return FALSE;
    oBoolean->bValue = bNewValue;
    return TRUE;
}

ObjIntegerO ObjIntegerNew(int32 lInitialValue) {
    auto* oNew = New<ObjIntegerS>(eInteger);
    if (oNew != nullptr) oNew->lValue = lInitialValue;
    return oNew;
}

BooleanT ObjIntegerCreate(ObjIntegerO* poResult, int32 lInitialValue) {
    return Create(poResult, 2, "Invalid Argument", [&] { return ObjIntegerNew(lInitialValue); });
}

int32 ObjGetInteger(ObjIntegerO oInteger) {
    return Is(oInteger, ObjIntegerMagic) ? oInteger->lValue : 0;
}

BooleanT ObjSetInteger(ObjIntegerO oInteger, int32 lNewValue) {
    if (!Is(oInteger, ObjIntegerMagic)) return FALSE;
    oInteger->lValue = lNewValue;
    return TRUE;
}

ObjInt64O ObjInt64New(int64 tInitialValue) {
    auto* oNew = New<ObjInt64S>(eInt64);
    if (oNew != nullptr) oNew->tValue = tInitialValue;
    return oNew;
}

BooleanT ObjInt64Create(ObjInt64O* poResult, int64 tInitialValue) {
    return Create(poResult, 4, "Invalid Argument", [&] { return ObjInt64New(tInitialValue); });
}

int64 ObjGetInt64(ObjInt64O oInt64) { return Is(oInt64, ObjInt64Magic) ? oInt64->tValue : 0; }

BooleanT ObjSetInt64(ObjInt64O oInt64, int64 tNewValue) {
    if (!Is(oInt64, ObjInt64Magic)) return FALSE;
    oInt64->tValue = tNewValue;
    return TRUE;
}

ObjStringO ObjStringNew(const char* pstrInitialValue) {
    auto* oNew = New<ObjStringS>(eString);
    if (oNew != nullptr) oNew->pstrValue = StrDuplicateIntoPool(pstrInitialValue, MemPool());
    return oNew;
}

ObjStringO ObjStringNewRanged(const char* pstrText, int32 lCharsToCopy) {
    auto* oNew = New<ObjStringS>(eString);
    if (oNew == nullptr || pstrText == nullptr) return oNew;
    oNew->pstrValue = StrDuplicateRangeIntoPool(pstrText, MemPool(), lCharsToCopy);
    return oNew;
}

BooleanT ObjStringCreate(ObjStringO* poResult, const char* pstrInitialValue) {
    return Create(poResult, 5, "Invalid Argument", [&] { return ObjStringNew(pstrInitialValue); });
}

char* ObjGetString(ObjStringO oString) {
    return Is(oString, ObjStringMagic) ? oString->pstrValue : nullptr;
}

BooleanT ObjSetString(ObjStringO oString, const char* pstrNewValue) {
    if (!Is(oString, ObjStringMagic)) return FALSE;
    // Copied before the old text goes: the new one may be part of it.
    return ObjSetStringNoCopy(oString, StrDuplicateIntoPool(pstrNewValue, MemPool()));
}

BooleanT ObjSetStringNoCopy(ObjStringO oString, char* pstrText) {
    if (!Is(oString, ObjStringMagic)) return FALSE;
    if (oString->pstrValue != pstrText) MemFree(&oString->pstrValue);
    oString->pstrValue = pstrText;
    return TRUE;
}

ObjDataFieldO ObjDataFieldNew(void* pData, int32 lSize) {
    if (pData == nullptr || lSize <= 0) return ObjDataFieldNewNoCopy(nullptr, 0);
    void* pCopy = MemAllocateFromPool(lSize, MemPool());
    if (pCopy == nullptr) return nullptr;
    MemCopy(pCopy, pData, lSize);
    ObjDataFieldO oNew = ObjDataFieldNewNoCopy(pCopy, lSize);
    if (oNew == nullptr) MemFree(&pCopy);
    return oNew;
}

ObjDataFieldO ObjDataFieldNewNoCopy(void* pvData, int32 lSize) {
    auto* oNew = New<ObjDataFieldS>(eDataField);
    if (oNew == nullptr) return nullptr;
    const bool bHasData = pvData != nullptr && lSize > 0;
    oNew->tValue = {.lSize = bHasData ? lSize : 0, .pData = pvData};
    return oNew;
}

BooleanT ObjDataFieldCreate(ObjDataFieldO* poResult, void* pData, int32 lSize) {
    return Create(poResult, 6, "Invalid Argument", [&] { return ObjDataFieldNew(pData, lSize); });
}

BooleanT ObjDataFieldCreateNoCopy(ObjDataFieldO* poResult, void* pvData, int32 lSize) {
    return Create(poResult, 7, "Invalid Argument",
                  [&] { return ObjDataFieldNewNoCopy(pvData, lSize); });
}

ObjDataFieldT* ObjGetDataField(ObjDataFieldO oDataField) {
    return Is(oDataField, ObjDataFieldMagic) ? &oDataField->tValue : nullptr;
}

int32 ObjGetDataFieldSize(ObjDataFieldO oDataField) {
    return Is(oDataField, ObjDataFieldMagic) ? oDataField->tValue.lSize : 0;
}

void* ObjGetDataFieldData(ObjDataFieldO oDataField) {
    return Is(oDataField, ObjDataFieldMagic) ? oDataField->tValue.pData : nullptr;
}

ObjStanzaO ObjStanzaNew(StnzT* ptInitialValue) {
    auto* oNew = New<ObjStanzaS>(eStanza);
    if (oNew != nullptr) oNew->pValue = ptInitialValue;
    return oNew;
}

BooleanT ObjStanzaCreate(ObjStanzaO* poResult, StnzT* ptInitialValue) {
    return Create(poResult, 8, "Invalid Argument", [&] { return ObjStanzaNew(ptInitialValue); });
}

StnzT* ObjGetStanza(ObjStanzaO oStanza) {
    return Is(oStanza, ObjStanzaMagic) ? oStanza->pValue : nullptr;
}

StnzT** ObjGetStanzaPointer(ObjStanzaO oStanza) {
    return Is(oStanza, ObjStanzaMagic) ? &oStanza->pValue : nullptr;
}

BooleanT ObjSetStanza(ObjStanzaO oStanza, StnzT* ptStanza) {
    if (!Is(oStanza, ObjStanzaMagic) || ptStanza == nullptr) return FALSE;
    oStanza->pValue = ptStanza;
    return TRUE;
}

ObjViewableO ObjViewableNew(int32 lNodeType, const char* pstrNodeName, StnzT* ptInitialValue) {
    auto* oNew = New<ObjViewableS>(eViewable);
    if (oNew == nullptr) return nullptr;
    oNew->tValue.lType = lNodeType;
    oNew->tValue.pstrName = StrDuplicateIntoPool(pstrNodeName, MemPool());
    if (ptInitialValue != nullptr) StnzCopy(&oNew->tValue.pStanza, ptInitialValue);
    return oNew;
}

BooleanT ObjViewableCreate(ObjViewableO* poResult, int32 lNodeType, const char* pstrNodeName,
                           StnzT* ptInitialValue) {
    return Create(poResult, 9, "Invalid Arguments",
                  [&] { return ObjViewableNew(lNodeType, pstrNodeName, ptInitialValue); });
}

ObjUniqueO ObjUniqueNewInternal(const UniqueT* ptValue) {
    auto* oNew = New<ObjUniqueS>(eUnique);
    if (oNew == nullptr) return nullptr;
    if (ptValue != nullptr)
        oNew->tValue = *ptValue;
    else
        UniqueCreate(&oNew->tValue);
    return oNew;
}

BooleanT ObjUniqueCreateInternal(ObjUniqueO* poResult, const UniqueT* ptValue) {
    return Create(poResult, 186, "Invalid Argument", [&] { return ObjUniqueNewInternal(ptValue); });
}

ObjUniqueO ObjUniqueNewSessionId(int32 lJobId, int32 lInstance, int32 lPhase) {
    auto* oNew = New<ObjUniqueS>(eUnique);
    if (oNew != nullptr) UniqueCreateSessionId(&oNew->tValue, lJobId, lInstance, lPhase);
    return oNew;
}

BooleanT ObjUniqueCreateSessionId(ObjUniqueO* poResult, int32 lJobId, int32 lInstance,
                                  int32 lPhase) {
    return Create(poResult, 187, "Invalid Argument",
                  [&] { return ObjUniqueNewSessionId(lJobId, lInstance, lPhase); });
}

BooleanT ObjUniqueSameSessionId(ObjUniqueO oUnique1, ObjUniqueO oUnique2) {
    return UniqueSameSessionInstance(ObjGetUnique(oUnique1), ObjGetUnique(oUnique2));
}

BooleanT ObjUniqueEqual(ObjUniqueO oUnique1, ObjUniqueO oUnique2) {
    return UniqueEqual(ObjGetUnique(oUnique1), ObjGetUnique(oUnique2));
}

UniqueT* ObjGetUnique(ObjUniqueO oUnique) {
    return Is(oUnique, ObjUniqueMagic) ? &oUnique->tValue : nullptr;
}

BooleanT ObjGetValue(void* pResult, void* oSource) {
    if (pResult == nullptr) return FALSE;
    for (const WrapperClassT& tClass : gatWrappers) {
        if (tClass.lValueSize == 0 || !Is(oSource, tClass.lMagic)) continue;
        std::memcpy(pResult, oSource, static_cast<std::size_t>(tClass.lValueSize));
        return TRUE;
    }
    return FALSE;
}
