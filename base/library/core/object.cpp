// Templates and instances. A template is built once from a descriptor and the component table and
// kept in a registry sorted by magic; everything that handles objects without knowing their class
// goes over its field table.
//
// Releasing works off a stack of dying objects that is threaded through their own headers: an
// object whose last holder goes is put on top of the object that held it and finished first, so a
// graph of any shape and depth is released in the order of plain recursion without recursing.
#include "core/object.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "core/context.h"
#include "core/list.h"
#include "core/map.h"
#include "core/process.h"
#include "core/procinternal.h"
#include "core/stnzbase.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "core/tree.h"
#include "objfields.h"

TRACE_MODULE("OBJECT")
MEM_DEFAULT_POOL_CACHE

namespace {

// Alignment of a type inside a record, which on some hosts is less than alignof.
template <class T>
struct ObjAlignmentProbe {
    char cFirst;
    T tSecond;
};
template <class T>
constexpr int32 ObjAlignmentOf = offsetof(ObjAlignmentProbe<T>, tSecond);

template <class T>
constexpr ObjComponentInfoT ObjComponent(char cLetter, int32 lDbSize, bool bOwned,
                                         int32 lMinimumStream, char cAlternative = '\0') {
    return {cLetter, cAlternative, sizeof(T), ObjAlignmentOf<T>, lDbSize, bOwned, lMinimumStream};
}

}  // namespace

const ObjComponentInfoT gatObjComponents[ObjComponentCount] = {
    {'\0', '\0', 0, 1, 0, false, 0},
    ObjComponent<BooleanT>('b', 4, false, 1),
    ObjComponent<int32>('i', 4, false, 4),
    ObjComponent<char*>('s', 8, true, 4),
    ObjComponent<void*>('o', 8, true, 1, 'L'),
    ObjComponent<void*>('l', 0, false, 0),
    ObjComponent<StnzT*>('z', 8, true, 1),
    ObjComponent<ObjDataFieldT>('d', 8, true, 4),
    {'n', 'c', 0, 1, 8, false, 4},
    ObjComponent<ObjViewInfoT>('v', 0, true, 9),
    ObjComponent<int64>('I', 8, false, 8),
    ObjComponent<UniqueT>('u', 32, false, 32),
    ObjComponent<void*>('p', 0, false, 4),
};

const ClassEntryT gtClasses[] = {
    {ListMagic, "LIST"},
    {ListNodeMagic, "LISTNODE"},
    {ObjMagic(0xc8a2f9a1), "TREE"},
    {ObjMagic(0xc8a2f9b6), "TREENODE"},
    {MapMagic, "MAP"},
    {ObjMagic(0xc96cec79), "OBJ_BOOLEAN"},
    {ObjMagic(0xc96cf22a), "OBJ_INTEGER"},
    {ObjMagic(0xc96cec6f), "OBJ_STRING"},
    {ObjMagic(0xc898f3ce), "OBJ_DSTRING"},
    {ObjMagic(0xc998c2b6), "OBJ_INT64"},
    {ObjMagic(0xca84a8d9), "OBJ_UNIQUE"},
    {ObjMagic(0xc96ceed4), "OBJ_STANZA"},
    {ObjMagic(0xc999120d), "OBJ_DATA_FIELD"},
    {ObjMagic(0xca24b82b), "OBJ_VIEWABLE"},
    {ObjMagic(0xcad3102f), "OBJ_MAP"},
    {0, nullptr},
};

ObjTemplateRegistryT gsObjTemplateMap;

namespace {

constexpr int32 ObjRegistryGrowth = 531;
// Classes that streams may name and the program does not know: each is kept for good.
constexpr int32 ObjForeignClassesMax = 4096;
int32 glForeignClasses = 0;
constexpr int32 ObjFixedRecordStart = 16;
constexpr int32 ObjOverhead = sizeof(ObjHeaderT) + sizeof(ObjFooterT);
// The largest data that a block from a pool can hold with header and footer.
constexpr int64 ObjMaximumData =
    std::numeric_limits<int32>::max() - ObjOverhead - MemBlockOverhead - 16;

MapO goMagicMap = nullptr;  // names added at run time

// Order of two magics or of two class entries. All magics share their top bits, so the difference
// does not overflow.
int32 ObjCompareMagics(void* pKey, void* pEntry) {
    return static_cast<const ClassEntryT*>(pKey)->lMagic -
           static_cast<const ClassEntryT*>(pEntry)->lMagic;
}

BooleanT ObjEnsureMagicMap() {
    if (goMagicMap != nullptr) return TRUE;
    return MapCreate(&goMagicMap, sizeof(ClassEntryT), 64, ObjCompareMagics, nullptr, nullptr);
}

// The name of a class that the table or the run-time map knows, null otherwise.
const char* ObjKnownName(int32 lMagic) {
    for (const ClassEntryT* ptEntry = gtClasses; ptEntry->lMagic != 0; ptEntry++) {
        if (ptEntry->lMagic == lMagic) return ptEntry->pstrClassName;
    }
    ClassEntryT tKey = {lMagic, nullptr};
    void* pFound = nullptr;
    if (MapFindEntry(&pFound, goMagicMap, &tKey) != TRUE) return nullptr;
    return static_cast<const ClassEntryT*>(pFound)->pstrClassName;
}

ObjComponentE ObjTypeOfLetter(char cLetter) {
    if (cLetter == '\0') return eObjComponentInvalid;
    for (int32 lType = 1; lType < ObjComponentCount; lType++) {
        if (gatObjComponents[lType].cLetter == cLetter ||
            gatObjComponents[lType].cAlternative == cLetter) {
            return static_cast<ObjComponentE>(lType);
        }
    }
    return eObjComponentInvalid;
}

constexpr int64 ObjAlignUp(int64 llOffset, int32 lAlignment) {
    return (llOffset + lAlignment - 1) / lAlignment * lAlignment;
}

// Lays the components out and fills atFields, when given. The result is the data size, or -1 when
// no block could hold the data.
int64 ObjLayOut(const char* pstrDescriptor, ObjDbDataT& tData, bool& bSimple) {
    int64 llOffset = 0;
    int64 llDbOffset = ObjFixedRecordStart;
    int32 lLargestAlignment = 1;
    bSimple = true;
    tData.bInvalidDbObject = FALSE;
    tData.lFieldCount = 0;
    const char* pstrComponent = ObjFirstComponent(pstrDescriptor);
    for (;; pstrComponent = ObjNextComponent(pstrComponent)) {
        const ObjComponentE eType = ObjTypeOfLetter(*pstrComponent);
        if (eType == eObjComponentInvalid) break;
        const ObjComponentInfoT& tInfo = gatObjComponents[eType];
        if (eType == eObjComponentBackwardLink || eType == eObjComponentPointer) {
            tData.bInvalidDbObject = TRUE;
        }
        if (tInfo.bOwned) bSimple = false;
        llOffset = ObjAlignUp(llOffset, tInfo.lAlignment);
        lLargestAlignment = std::max(lLargestAlignment, tInfo.lAlignment);
        if (tData.atFields != nullptr) {
            ObjDbFieldT& tField = tData.atFields[tData.lFieldCount];
            tField.eType = eType;
            tField.lObjOffset = static_cast<int32>(llOffset);
            tField.lDbOffset = static_cast<int32>(llDbOffset);
            tField.bPrivate = ObjComponentModifiers(pstrComponent);
            if (eType == eObjComponentInlineData) tField.lSize = ObjInlineSize(pstrComponent);
        }
        llOffset +=
            eType == eObjComponentInlineData ? ObjInlineSizeUsed(pstrComponent) : tInfo.lSize;
        llDbOffset += tInfo.lDbSize;
        if (llOffset > ObjMaximumData || llDbOffset > ObjMaximumData) return -1;
        tData.lFieldCount++;
    }
    tData.lDbFixedSize = static_cast<int32>(llDbOffset);
    return ObjAlignUp(llOffset, lLargestAlignment);
}

// A new template, not registered; null when the descriptor does not fit the record size.
ObjTemplateT ObjTemplateBuild(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                              ObjDestructorFnT fnDestructor) {
    // Once more for its trace line: the layout takes an unknown letter for the end of the text.
    const char* pstrComponent = ObjFirstComponent(pstrDescriptor);
    while (ObjComponentDatatype(pstrComponent) != eObjComponentInvalid) {
        pstrComponent = ObjNextComponent(pstrComponent);
    }
    ObjDbDataT tMeasured = {};
    bool bSimple = true;
    const int64 llDataSize = ObjLayOut(pstrDescriptor, tMeasured, bSimple);
    const int64 llBlock =
        static_cast<int64>(sizeof(ObjTemplateS)) +
        static_cast<int64>(tMeasured.lFieldCount) * static_cast<int64>(sizeof(ObjDbFieldT));
    if (llDataSize < 0 || llBlock > ObjMaximumData ||
        (lTypeSize != ObjSizeUnknown && llDataSize != lTypeSize)) {
        TraceMessageInline(3, 1, 3, "Object Template Error, computed size %d given %d for \"%s\"",
                           static_cast<int32>(llDataSize), lTypeSize, pstrDescriptor);
        return nullptr;
    }
    auto tTemplate = static_cast<ObjTemplateT>(
        MemAllocateFromPoolNotLogged(static_cast<int32>(llBlock), MemPool()));
    if (tTemplate == nullptr) return nullptr;
    tTemplate->tDbData.atFields = reinterpret_cast<ObjDbFieldT*>(tTemplate + 1);
    ObjLayOut(pstrDescriptor, tTemplate->tDbData, bSimple);

    char acUnknown[64];
    const char* pstrName = ObjKnownName(lMagic);
    if (pstrName == nullptr) {
        std::snprintf(acUnknown, sizeof(acUnknown), "Unknown object magic 0x%08x",
                      static_cast<uint32>(lMagic));
        pstrName = acUnknown;
    }
    TraceMessageInline(66, 0, 4, "Add a new template %s magic 0x%x '%s'", pstrName,
                       static_cast<uint32>(lMagic), pstrDescriptor);
    tTemplate->lMagic = lMagic;
    tTemplate->pstrName = StrDuplicateIntoPool(pstrName, MemPool());
    tTemplate->bSimpleFormat = BooleanFrom(bSimple);
    tTemplate->fnDestructor = fnDestructor;
    tTemplate->bReconstructed = BooleanFrom(lTypeSize == ObjSizeUnknown);
    ObjDbDataT& tData = tTemplate->tDbData;
    tData.pstrDescriptor = StrDuplicateIntoPool(pstrDescriptor, MemPool());
    tData.lObjSize = static_cast<int32>(llDataSize) + ObjOverhead;
    TraceMessageInline(79, 0, 4, "FieldCount %d ObjSize %d DbSize %d InvalidDb %s",
                       tData.lFieldCount, tData.lObjSize, tData.lDbFixedSize,
                       BooleanText(tData.bInvalidDbObject));
    MemRemoveFromLog(tTemplate->pstrName);
    MemRemoveFromLog(tData.pstrDescriptor);
    return tTemplate;
}

void ObjTemplateFree(ObjTemplateT tTemplate) {
    MemFree(&tTemplate->pstrName);
    MemFree(&tTemplate->tDbData.pstrDescriptor);
    MemFree(&tTemplate);
}

// Place of a magic in the registry: of its head template, or where that belongs.
bool ObjRegistryFind(int32 lMagic, int32& lIndex) {
    ObjTemplateT* ptBegin = gsObjTemplateMap.ptEntries;
    ObjTemplateT* ptEnd = ptBegin + gsObjTemplateMap.lEntryCount;
    ObjTemplateT* ptPlace =
        std::lower_bound(ptBegin, ptEnd, lMagic,
                         [](ObjTemplateT tEntry, int32 lKey) { return tEntry->lMagic < lKey; });
    lIndex = static_cast<int32>(ptPlace - ptBegin);
    return ptPlace != ptEnd && (*ptPlace)->lMagic == lMagic;
}

ObjTemplateT ObjRegistered(int32 lMagic) {
    int32 lIndex = 0;
    return ObjRegistryFind(lMagic, lIndex) ? gsObjTemplateMap.ptEntries[lIndex] : nullptr;
}

BooleanT ObjTemplateAdd(int32 lIndex, ObjTemplateT tTemplate) {
    ObjTemplateRegistryT& tMap = gsObjTemplateMap;
    TraceMessageInline(63, 0, 3, "ObjTemplateAdd(%d, %p)", lIndex, static_cast<void*>(tTemplate));
    if (tMap.lEntryCount == tMap.lMaximumEntries) {
        const int32 lRoom = tMap.lMaximumEntries + ObjRegistryGrowth;
        auto* ptEntries = static_cast<ObjTemplateT*>(MemAllocateFromPoolNotLogged(
            lRoom * static_cast<int32>(sizeof(ObjTemplateT)), MemPool()));
        if (ptEntries == nullptr) return FALSE;
        std::copy_n(tMap.ptEntries, tMap.lEntryCount, ptEntries);
        MemFree(&tMap.ptEntries);
        tMap.ptEntries = ptEntries;
        tMap.lMaximumEntries = lRoom;
    }
    ObjTemplateT* ptPlace = tMap.ptEntries + lIndex;
    ObjTemplateT* ptEnd = tMap.ptEntries + tMap.lEntryCount;
    std::move_backward(ptPlace, ptEnd, ptEnd + 1);
    *ptPlace = tTemplate;
    tMap.lEntryCount++;
    return TRUE;
}

bool ObjHasShape(ObjTemplateT tTemplate, const char* pstrDescriptor) {
    return std::strcmp(tTemplate->tDbData.pstrDescriptor, pstrDescriptor) == 0;
}

// A shape that only streams have named gives way to the program's own as long as no object has it.
ObjTemplateT ObjTemplateTakePlace(int32 lIndex, int32 lTypeSize, int32 lMagic,
                                  const char* pstrDescriptor, ObjDestructorFnT fnDestructor) {
    ObjTemplateT tHead = gsObjTemplateMap.ptEntries[lIndex];
    if (tHead->bReconstructed != TRUE || tHead->lCount != 0 || lTypeSize == ObjSizeUnknown)
        return nullptr;
    ObjTemplateT tNew = ObjTemplateBuild(lTypeSize, lMagic, pstrDescriptor, fnDestructor);
    if (tNew == nullptr) return nullptr;
    gsObjTemplateMap.ptEntries[lIndex] = tNew;
    ObjTemplateFree(tHead);
    glForeignClasses--;
    return tNew;
}

// The template for another shape of a class whose head template translates; null when there is
// none.
ObjTemplateT ObjTemplateForShape(int32 lIndex, int32 lTypeSize, int32 lMagic,
                                 const char* pstrDescriptor, ObjDestructorFnT fnDestructor) {
    ObjTemplateT tHead = gsObjTemplateMap.ptEntries[lIndex];
    if (tHead->fnTranslator == nullptr) {
        if (ObjTemplateT tOwn =
                ObjTemplateTakePlace(lIndex, lTypeSize, lMagic, pstrDescriptor, fnDestructor))
            return tOwn;
        TraceMessageInline(155, 0, -1, "Object '%s' %x has changed shape from '%s' to '%s'",
                           tHead->pstrName, static_cast<uint32>(lMagic), pstrDescriptor,
                           tHead->tDbData.pstrDescriptor);
        return nullptr;
    }
    for (ObjTemplateT tOther = tHead->tNextTemplate; tOther != nullptr;
         tOther = tOther->tNextTemplate) {
        if (ObjHasShape(tOther, pstrDescriptor)) return tOther;
    }
    ObjTemplateT tNew = ObjTemplateBuild(lTypeSize, lMagic, pstrDescriptor, fnDestructor);
    if (tNew == nullptr) return nullptr;
    tNew->fnTranslator = tHead->fnTranslator;
    if (tNew->bReconstructed == TRUE) {
        tNew->bUnlinked = TRUE;
        return tNew;
    }
    if (tHead->bReconstructed == TRUE) {
        gsObjTemplateMap.ptEntries[lIndex] = tNew;
        tNew->tNextTemplate = tHead;
        return tNew;
    }
    TraceMessageInline(156, 0, -1, "Conflicting object formats");
    ObjTemplateFree(tNew);
    return nullptr;
}

// Null when there is none and none can be made.
ObjTemplateT ObjFindTemplate(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                             ObjDestructorFnT fnDestructor) {
    int32 lIndex = 0;
    if (ObjRegistryFind(lMagic, lIndex)) {
        ObjTemplateT tHead = gsObjTemplateMap.ptEntries[lIndex];
        return ObjHasShape(tHead, pstrDescriptor)
                   ? tHead
                   : ObjTemplateForShape(lIndex, lTypeSize, lMagic, pstrDescriptor, fnDestructor);
    }
    if (lTypeSize == ObjSizeUnknown && ++glForeignClasses > ObjForeignClassesMax) {
        glForeignClasses = ObjForeignClassesMax;
        TraceMessageInline(188, 1, -1, "Class %x is not taken: streams have named %d unknown ones",
                           static_cast<uint32>(lMagic), glForeignClasses);
        return nullptr;
    }
    ObjTemplateT tNew = ObjTemplateBuild(lTypeSize, lMagic, pstrDescriptor, fnDestructor);
    if (tNew == nullptr || ObjTemplateAdd(lIndex, tNew) == TRUE) return tNew;
    ObjTemplateFree(tNew);
    return nullptr;
}

// What a program asks for has to be there.
BooleanT ObjGetTemplate(ObjTemplateT* ptResult, int32 lTypeSize, int32 lMagic,
                        const char* pstrDescriptor, ObjDestructorFnT fnDestructor) {
    if (!ObjIsMagic(lMagic) || pstrDescriptor == nullptr) return FALSE;
    ObjTemplateT tTemplate = ObjFindTemplate(lTypeSize, lMagic, pstrDescriptor, fnDestructor);
    if (tTemplate == nullptr) {
        TraceMessageInline(67, 0, -1, "Failed to get a template, die horribly");
        ProcCrash(TRUE);
        return FALSE;
    }
    *ptResult = tTemplate;
    return TRUE;
}

void ObjMirrorCounts() {
    ProcDetailsT* ptDetails = gtTlContext.sProcess.ptDetails;
    if (ptDetails == nullptr) return;
    ptDetails->lObjCount = gtTlContext.sObject.lObjectCount;
    ptDetails->lObjMax = gtTlContext.sObject.lObjectMax;
    ptDetails->lObjAllocations = gtTlContext.sObject.lObjectAllocations;
}

void ObjCountNew(ObjTemplateT tTemplate) {
    TesselContextTimeObjectS& tCounts = gtTlContext.sObject;
    const auto fnIncrease = [](int32& lCount) {
        lCount = static_cast<int32>(static_cast<uint32>(lCount) + 1U);
    };
    tTemplate->lCount++;
    fnIncrease(tTemplate->lTotalCount);
    // A count that wrapped to 0 would look like a class never instantiated.
    if (tTemplate->lTotalCount == 0) tTemplate->lTotalCount = 1;
    tCounts.lObjectCount++;
    fnIncrease(tCounts.lObjectAllocations);
    tCounts.lObjectMax = std::max(tCounts.lObjectMax, tCounts.lObjectCount);
    ObjMirrorCounts();
}

}  // namespace

BooleanT ObjInitialize() { return ObjEnsureMagicMap(); }

BooleanT ObjInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void ObjReleaseThread(TesselContextT* ptTlContext) {
    TraceMessageInline(142, 0, 4, "ObjReleaseThread %d object left",
                       ptTlContext->sObject.lObjectCount);
}

// --- descriptors ---

ObjComponentE ObjComponentDatatype(const char* pstrComponentDescriptor) {
    if (pstrComponentDescriptor == nullptr) return eObjComponentInvalid;
    const ObjComponentE eType = ObjTypeOfLetter(*pstrComponentDescriptor);
    if (eType == eObjComponentInvalid && *pstrComponentDescriptor != '\0') {
        TraceMessageInline(30, 1, 3, "Invalid component %c", *pstrComponentDescriptor);
    }
    return eType;
}

BooleanT ObjComponentModifiers(const char* pstrComponentDescriptor) {
    if (pstrComponentDescriptor == nullptr || *pstrComponentDescriptor == '\0') return FALSE;
    BooleanT bPrivate = FALSE;
    for (const char* p = pstrComponentDescriptor + 1; *p != '\0' && *p != ';'; p++) {
        if (*p == 'l') {
            bPrivate = TRUE;
        } else if (*p < '0' || *p > '9') {
            TraceMessageInline(29, 1, 3, "Unknown component modifier '%c'", *p);
        }
    }
    return bPrivate;
}

const char* ObjFirstComponent(const char* pstrDescriptor) { return pstrDescriptor; }

const char* ObjNextComponent(const char* pstrComponentDescriptor) {
    if (pstrComponentDescriptor == nullptr) return nullptr;
    const char* pstrEnd = pstrComponentDescriptor + std::strcspn(pstrComponentDescriptor, ";");
    return *pstrEnd == ';' ? pstrEnd + 1 : pstrEnd;
}

int32 ObjInlineSize(const char* pstrComponentDescriptor) {
    if (pstrComponentDescriptor == nullptr || *pstrComponentDescriptor == '\0') return 0;
    int64 llSize = 0;
    for (const char* p = pstrComponentDescriptor + 1; *p >= '0' && *p <= '9'; p++) {
        llSize = llSize * 10 + (*p - '0');
        if (llSize > std::numeric_limits<int32>::max()) return std::numeric_limits<int32>::max();
    }
    return static_cast<int32>(llSize);
}

int32 ObjInlineSizeUsed(const char* pstrComponentDescriptor) {
    const int64 llUsed = ObjAlignUp(ObjInlineSize(pstrComponentDescriptor), 4);
    return static_cast<int32>(std::min<int64>(llUsed, std::numeric_limits<int32>::max() & ~3));
}

// --- creation ---

void* ObjTemplateNewInstanceFromPool(ObjTemplateT tTemplate, MemPoolIdT tPool) {
    if (tTemplate == nullptr) {
        TraceMessageInline(88, 1, -1, "Invalid arguments");
        ProcCrash(FALSE);
        return nullptr;
    }
    const int32 lSize = tTemplate->tDbData.lObjSize;
    auto* ptHeader = static_cast<ObjHeaderT*>(MemAllocateFromPoolNotLogged(lSize, tPool));
    if (ptHeader == nullptr) return nullptr;
    ptHeader->lMagic = tTemplate->lMagic;
    ptHeader->lRefCount = 1;
    ptHeader->tTemplate = tTemplate;
    ptHeader->pFooter = reinterpret_cast<ObjFooterT*>(reinterpret_cast<ByteT*>(ptHeader) + lSize -
                                                      sizeof(ObjFooterT));
    ptHeader->pFooter->lMagic = tTemplate->lMagic;
    ObjCountNew(tTemplate);
    return ptHeader + 1;
}

BooleanT ObjTemplateCreateInstanceFromPool(void** poResult, ObjTemplateT tTemplate,
                                           MemPoolIdT tPool) {
    if (poResult == nullptr) return FALSE;
    *poResult = ObjTemplateNewInstanceFromPool(tTemplate, tPool);
    return BooleanFrom(*poResult != nullptr);
}

void* ObjNewInternal(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                     ObjDestructorFnT fnDestructor, MemPoolIdT tPool) {
    ObjTemplateT tTemplate = nullptr;
    if (ObjGetTemplate(&tTemplate, lTypeSize, lMagic, pstrDescriptor, fnDestructor) != TRUE) {
        TraceMessageInline(81, 0, 3, "ObjNew() failed");
        ProcCrash(FALSE);
        return nullptr;
    }
    return ObjTemplateNewInstanceFromPool(tTemplate, tPool);
}

BooleanT ObjCreateInternal(void** poTarget, int32 lTypeSize, int32 lMagic,
                           const char* pstrDescriptor, ObjDestructorFnT fnDestructor,
                           MemPoolIdT tPool) {
    ObjTemplateT tTemplate = nullptr;
    if (poTarget == nullptr ||
        ObjGetTemplate(&tTemplate, lTypeSize, lMagic, pstrDescriptor, fnDestructor) != TRUE) {
        TraceMessageInline(10, 0, 3, "ObjCreate() failed");
        ProcCrash(FALSE);
        return FALSE;
    }
    return ObjTemplateCreateInstanceFromPool(poTarget, tTemplate, tPool);
}

ObjTemplateT ObjTemplateNewInternal(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                                    ObjDestructorFnT fnDestructor) {
    ObjTemplateT tTemplate = nullptr;
    if (ObjIsMagic(lMagic) && pstrDescriptor != nullptr) {
        TraceMessageInline(83, 0, 4, "Get template");
        ObjGetTemplate(&tTemplate, lTypeSize, lMagic, pstrDescriptor, fnDestructor);
    } else {
        TraceMessageInline(84, 0, 3, "Invalid parameters");
    }
    TraceMessageInline(85, 0, 3, "%p = ObjTemplateNewInternal(%d, %x, %s, %p)",
                       static_cast<void*>(tTemplate), lTypeSize, static_cast<uint32>(lMagic),
                       pstrDescriptor, reinterpret_cast<void*>(fnDestructor));
    return tTemplate;
}

BooleanT ObjTemplateFromStream(ObjTemplateT* ptTemplate, int32 lMagic, const char* pstrDescriptor) {
    if (!ObjIsMagic(lMagic)) return FALSE;
    *ptTemplate = ObjFindTemplate(ObjSizeUnknown, lMagic, pstrDescriptor, nullptr);
    return BooleanFrom(*ptTemplate != nullptr);
}

BooleanT ObjTemplateCreateInternal(ObjTemplateT* ptNewTemplate, int32 lTypeSize, int32 lMagic,
                                   const char* pstrDescriptor, ObjDestructorFnT fnDestructor) {
    BooleanT bResult = FALSE;
    if (ptNewTemplate != nullptr && ObjIsMagic(lMagic) && pstrDescriptor != nullptr) {
        TraceMessageInline(75, 0, 4, "Get template");
        bResult = ObjGetTemplate(ptNewTemplate, lTypeSize, lMagic, pstrDescriptor, fnDestructor);
    } else {
        TraceMessageInline(34, 0, 3, "Invalid parameters");
    }
    TraceMessageInline(76, 0, 3, "%s = ObjTemplateCreateInternal(%p, %d, %x, %s, %p) %p",
                       BooleanText(bResult), static_cast<void*>(ptNewTemplate), lTypeSize,
                       static_cast<uint32>(lMagic), pstrDescriptor,
                       reinterpret_cast<void*>(fnDestructor),
                       static_cast<void*>(bResult == TRUE ? *ptNewTemplate : nullptr));
    return bResult;
}

BooleanT ObjSetTranslatorInternal(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                                  ObjDestructorFnT fnDestructor, ObjTranslatorFnT fnTranslator,
                                  MemPoolIdT /*tPool*/) {
    ObjTemplateT tTemplate = nullptr;
    if (ObjGetTemplate(&tTemplate, lTypeSize, lMagic, pstrDescriptor, fnDestructor) != TRUE) {
        TraceMessageInline(164, 0, -1, "ObjSetTranslator() failed");
        ProcCrash(TRUE);
        return FALSE;
    }
    if (tTemplate->fnTranslator == fnTranslator) return TRUE;
    if (tTemplate->lTotalCount != 0) {
        TraceMessageInline(163, 0, -1, "Cannot set translator after objects have been created");
        ProcCrash(TRUE);
        return FALSE;
    }
    tTemplate->fnTranslator = fnTranslator;
    return TRUE;
}

// --- holders ---

BooleanT ObjIncRefCount(void* oTarget) {
    if (oTarget == nullptr) return FALSE;
    ObjHeaderT* ptHeader = ObjHeaderOf(oTarget);
    if (!ObjIsMagic(ptHeader->lMagic) || ptHeader->lRefCount == std::numeric_limits<int32>::max()) {
        ProcCrash(FALSE);
        return FALSE;
    }
    ptHeader->lRefCount++;
    return TRUE;
}

namespace {

// The header of a dying object, in other terms: lRefCount counts the owned fields released so far,
// pFooter leads to the object that waits below it.
void* ObjBelow(const ObjHeaderT* ptHeader) { return ptHeader->pFooter; }

void ObjPutOnTopOf(void* oDying, void* oBelow) {
    ObjHeaderOf(oDying)->pFooter = static_cast<ObjFooterT*>(oBelow);
}

// Checks a reference and drops one holder. Sets bLast when it was the last, after which the caller
// must destroy the object. The result is that of a release.
BooleanT ObjDropHolder(void* oTarget, bool& bLast) {
    bLast = false;
    ObjHeaderT* ptHeader = ObjHeaderOf(oTarget);
    if (!ObjIsMagic(ptHeader->lMagic)) {
        TraceMessageInline(72, 0, 3, "ObjRelease - Invalid Magic for object at %p", oTarget);
        ProcCrash(FALSE);
        return FALSE;
    }
    if (ptHeader->lMagic != ptHeader->pFooter->lMagic) {
        TraceMessageInline(71, 0, 3, "ObjRelease - Corrupt object at %p", oTarget);
        ProcCrash(FALSE);
        return FALSE;
    }
    ptHeader->lRefCount--;
    if (ptHeader->lRefCount < 0) {
        ptHeader->lRefCount = 0;
        TraceMessageInline(70, 0, 3, "ObjRelease - opject at %p with negative reference count",
                           oTarget);
        return FALSE;
    }
    bLast = ptHeader->lRefCount == 0;
    return TRUE;
}

// Runs the destructor on the whole object and takes it out of the world; what it owns follows.
void ObjBeginDestroy(void* oDying) {
    ObjHeaderT* ptHeader = ObjHeaderOf(oDying);
    ObjTemplateT tTemplate = ptHeader->tTemplate;
    if (tTemplate->fnDestructor != nullptr) {
        // Holders that the destructor takes and gives back must not come down to the last one
        // again.
        ptHeader->lRefCount = std::numeric_limits<int32>::max() / 2;
        tTemplate->fnDestructor(oDying);
    }
    ptHeader->lMagic = 0;
    ptHeader->lRefCount = 0;
    gtTlContext.sObject.lObjectCount--;
    ObjMirrorCounts();
    tTemplate->lCount--;
}

void ObjEndDestroy(void* oDying) {
    ObjHeaderT* ptHeader = ObjHeaderOf(oDying);
    ObjTemplateT tTemplate = ptHeader->tTemplate;
    void* pBlock = ptHeader;
    MemFreeInternal(&pBlock);
    if (tTemplate->bUnlinked == TRUE && tTemplate->lCount == 0) ObjTemplateFree(tTemplate);
}

// Nodes are released from the item outwards, so that a chain goes in its own order.
constexpr int32 alListNodeOrder[] = {2, 0};     // oData, oNext
constexpr int32 alTreeNodeOrder[] = {0, 5, 3};  // oData, oChild, oNext

// The field that is released as the lStep-th, null after the last.
const ObjDbFieldT* ObjReleaseStep(ObjTemplateT tTemplate, int32 lStep) {
    const ObjDbDataT& tData = tTemplate->tDbData;
    if (tTemplate->bSimpleFormat == TRUE) return nullptr;
    if (tTemplate->lMagic == ListNodeMagic) {
        return lStep < 2 ? &tData.atFields[alListNodeOrder[lStep]] : nullptr;
    }
    if (tTemplate->lMagic == TreeNodeMagic) {
        return lStep < 3 ? &tData.atFields[alTreeNodeOrder[lStep]] : nullptr;
    }
    return lStep < tData.lFieldCount ? &tData.atFields[lStep] : nullptr;
}

// Releases what one field owns and empties the field. Returns the object whose last holder this
// was, for the caller to destroy, or null.
void* ObjReleaseField(void* oTarget, const ObjDbFieldT& tField, BooleanT& bResult) {
    void* pField = ObjFieldAt(oTarget, tField);
    switch (tField.eType) {
        case eObjComponentString: {
            auto pstrText = ObjLoad<char*>(pField);
            MemFree(&pstrText);
            ObjStore<char*>(pField, nullptr);
            break;
        }
        case eObjComponentForwardLink: {
            void* oLinked = ObjLoad<void*>(pField);
            ObjStore<void*>(pField, nullptr);
            bool bLast = false;
            if (oLinked != nullptr) ObjDropHolder(oLinked, bLast);
            return bLast ? oLinked : nullptr;
        }
        case eObjComponentStanza: {
            auto ptStanza = ObjLoad<StnzT*>(pField);
            StnzRelease(&ptStanza);
            ObjStore<StnzT*>(pField, nullptr);
            break;
        }
        case eObjComponentBinaryData: {
            auto tData = ObjLoad<ObjDataFieldT>(pField);
            MemFree(&tData.pData);
            ObjStore<ObjDataFieldT>(pField, {});
            break;
        }
        case eObjComponentViewInfo: {
            auto tView = ObjLoad<ObjViewInfoT>(pField);
            MemFree(&tView.pstrName);
            StnzRelease(&tView.pStanza);
            ObjStore<ObjViewInfoT>(pField, {tView.lType, nullptr, nullptr});
            break;
        }
        case eObjComponentInvalid:
            TraceMessageInline(22, 1, 3, "ObjRelease - unrecognised component");
            bResult = FALSE;
            break;
        default:
            break;
    }
    return nullptr;
}

// Destroys an object without holders and everything that goes with it.
BooleanT ObjDestroy(void* oFirst) {
    BooleanT bResult = TRUE;
    ObjBeginDestroy(oFirst);
    ObjPutOnTopOf(oFirst, nullptr);
    void* oTop = oFirst;
    while (oTop != nullptr) {
        ObjHeaderT* ptHeader = ObjHeaderOf(oTop);
        void* oNewlyDying = nullptr;
        while (oNewlyDying == nullptr) {
            const ObjDbFieldT* ptField = ObjReleaseStep(ptHeader->tTemplate, ptHeader->lRefCount);
            if (ptField == nullptr) break;
            ptHeader->lRefCount++;
            oNewlyDying = ObjReleaseField(oTop, *ptField, bResult);
        }
        if (oNewlyDying != nullptr) {
            void* oWaiting = oTop;
            if (ObjReleaseStep(ptHeader->tTemplate, ptHeader->lRefCount) == nullptr) {
                // Nothing more to release: a chain is freed as it is walked, not on the way back.
                oWaiting = ObjBelow(ptHeader);
                ObjEndDestroy(oTop);
            }
            ObjBeginDestroy(oNewlyDying);
            ObjPutOnTopOf(oNewlyDying, oWaiting);
            oTop = oNewlyDying;
        } else {
            void* oBelow = ObjBelow(ptHeader);
            ObjEndDestroy(oTop);
            oTop = oBelow;
        }
    }
    return bResult;
}

}  // namespace

BooleanT ObjReleaseInternal(void** poTarget) {
    if (poTarget == nullptr) {
        TraceMessageInline(74, 0, 4, "ObjRelease - Invalid pointer to Object");
        ProcCrash(FALSE);
        return FALSE;
    }
    if (*poTarget == nullptr) return FALSE;
    void* oTarget = *poTarget;
    bool bLast = false;
    if (ObjDropHolder(oTarget, bLast) != TRUE) return FALSE;
    *poTarget = nullptr;
    return bLast ? ObjDestroy(oTarget) : TRUE;
}

void ObjReleaseContents(void* oTarget) {
    if (ObjHasValidGlobalMagic(oTarget) != TRUE) return;
    ObjTemplateT tTemplate = ObjHeaderOf(oTarget)->tTemplate;
    // What is released may hold the target: it must outlive its contents.
    ObjIncRefCount(oTarget);
    if (tTemplate->lMagic == ListMagic) ListReleaseAll(static_cast<ListO>(oTarget));
    if (tTemplate->lMagic == TreeMagic) TreeDeleteContents(static_cast<TreeO>(oTarget));
    BooleanT bResult = TRUE;
    for (int32 lField = 0; lField < tTemplate->tDbData.lFieldCount; lField++) {
        const ObjDbFieldT& tField = tTemplate->tDbData.atFields[lField];
        if (void* oDying = ObjReleaseField(oTarget, tField, bResult); oDying != nullptr) {
            ObjDestroy(oDying);
        }
    }
    ObjReleaseInternal(&oTarget);
}

// --- checks ---

void ObjCheck(void* oTarget) {
    if (oTarget == nullptr) return;
    ObjHeaderT* ptHeader = ObjHeaderOf(oTarget);
    if (!ObjIsMagic(ptHeader->lMagic)) {
        TraceMessageInline(147, 0, -1, "ObjCheck - Invalid Magic for object at %p", oTarget);
        ProcCrash(FALSE);
        return;
    }
    if (ptHeader->lMagic != ptHeader->pFooter->lMagic) {
        TraceMessageInline(146, 0, -1, "ObjCheck - Corrupt object at %p", oTarget);
        ProcCrash(FALSE);
        return;
    }
    MemCheck(ptHeader);
}

BooleanT ObjGetMagic(void* Target, int32* plMagic) {
    if (plMagic != nullptr) *plMagic = 0;
    if (Target == nullptr || plMagic == nullptr) return FALSE;
    const ObjHeaderT* ptHeader = ObjHeaderOf(Target);
    // A destroyed object's footer address is no longer one.
    if (ObjIsMagic(ptHeader->lMagic) && ptHeader->lMagic != ptHeader->pFooter->lMagic) {
        TraceMessageInline(28, 1, -1, "Start/end magic disagree - object is corrupt %x %x",
                           static_cast<uint32>(ptHeader->lMagic),
                           static_cast<uint32>(ptHeader->pFooter->lMagic));
        return FALSE;
    }
    if (!ObjIsMagic(ptHeader->lMagic)) {
        TraceMessageInline(27, 1, -1, "Magic number is present but invalid");
        return FALSE;
    }
    *plMagic = ptHeader->lMagic;
    return TRUE;
}

BooleanT ObjHasValidGlobalMagic(void* oTarget) {
    if (oTarget == nullptr) return FALSE;
    const ObjHeaderT* ptHeader = ObjHeaderOf(oTarget);
    return BooleanFrom(ObjIsMagic(ptHeader->lMagic) &&
                       ptHeader->lMagic == ptHeader->pFooter->lMagic);
}

BooleanT ObjCheckTypeInternal(void* oTarget, const int32 lMagic) {
    if (oTarget == nullptr) return FALSE;
    const ObjHeaderT* ptHeader = ObjHeaderOf(oTarget);
    return BooleanFrom(ptHeader->lMagic == lMagic && ObjIsMagic(lMagic) &&
                       ptHeader->pFooter->lMagic == lMagic);
}

// --- names and templates ---

BooleanT ObjSetObjName(int32 lMagic, const char* pstrName) {
    if (!ObjIsMagic(lMagic) || pstrName == nullptr || *pstrName == '\0' ||
        ObjKnownName(lMagic) != nullptr || ObjEnsureMagicMap() != TRUE) {
        return FALSE;
    }
    ClassEntryT tEntry = {lMagic, StrDuplicateIntoPool(pstrName, MemPool())};
    if (MapInsertEntry(goMagicMap, &tEntry) != TRUE) {
        MemFree(&tEntry.pstrClassName);
        return FALSE;
    }
    if (ObjTemplateT tTemplate = ObjRegistered(lMagic); tTemplate != nullptr) {
        MemFree(&tTemplate->pstrName);
        tTemplate->pstrName = StrDuplicateIntoPool(pstrName, MemPool());
    }
    return TRUE;
}

const char* ObjNameFromObject(void* oObject) {
    if (oObject == nullptr) return "NULL Object";
    const ObjHeaderT* ptHeader = ObjHeaderOf(oObject);
    return ObjIsMagic(ptHeader->lMagic) ? ptHeader->tTemplate->pstrName : "Invalid Object";
}

const char* ObjNameFromMagic(int32 lMagic) {
    if (lMagic == 0) return "No Magic";
    if (!ObjIsMagic(lMagic)) return "Invalid Magic";
    const ObjTemplateS* ptTemplate = ObjRegistered(lMagic);
    return ptTemplate != nullptr ? ptTemplate->pstrName : "Unknown Object";
}

ObjTemplateT ObjGetTemplateFromObject(void* oObject) {
    if (oObject == nullptr) return nullptr;
    const ObjHeaderT* ptHeader = ObjHeaderOf(oObject);
    return ObjIsMagic(ptHeader->lMagic) ? ptHeader->tTemplate : nullptr;
}

const char* ObjGetFormat(ObjTemplateT tTemplate) {
    return tTemplate == nullptr ? nullptr : tTemplate->tDbData.pstrDescriptor;
}

const char* ObjGetDescriptor(void* oObject) {
    return ObjGetFormat(ObjGetTemplateFromObject(oObject));
}

ObjTranslatorFnT ObjGetTranslator(void* oObject) {
    const ObjTemplateS* ptTemplate = ObjGetTemplateFromObject(oObject);
    return ptTemplate == nullptr ? nullptr : ptTemplate->fnTranslator;
}

ObjDbDataT* ObjGetDbDataFromTemplate(ObjTemplateT tTemplate) {
    return tTemplate == nullptr ? nullptr : &tTemplate->tDbData;
}

ObjDbDataT* ObjGetDbData(void* oObject) {
    return ObjGetDbDataFromTemplate(ObjGetTemplateFromObject(oObject));
}

MemPoolIdT ObjGetPool(void* oObject) {
    const auto* ptBlock = reinterpret_cast<const MemAllocHeader*>(ObjHeaderOf(oObject));
    return (ptBlock - 1)->tPoolId;
}

BooleanT ObjGetViewInfo(ObjViewInfoT* ptResult, void* oSource) {
    if (ptResult == nullptr) return FALSE;
    *ptResult = {-1, nullptr, nullptr};
    const ObjDbDataT* ptData = ObjGetDbData(oSource);
    if (ptData == nullptr || ptData->lFieldCount < 1 ||
        ptData->atFields[0].eType != eObjComponentViewInfo) {
        return FALSE;
    }
    *ptResult = ObjLoad<ObjViewInfoT>(oSource);
    return TRUE;
}

int32 ObjGetInstanceCount(int32 lMagic) {
    const ObjTemplateS* ptTemplate = ObjRegistered(lMagic);
    return ptTemplate == nullptr ? -1 : ptTemplate->lCount;
}

int32 ObjCount() { return gtTlContext.sObject.lObjectCount; }

int32 ObjMax() { return gtTlContext.sObject.lObjectMax; }

int32 ObjAllocations() { return gtTlContext.sObject.lObjectAllocations; }
