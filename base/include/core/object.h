// Objects: plain records whose layout is declared at run time by a descriptor of component letters
// and identified by a magic number. An object is reference-counted, checked by magics in front of
// and behind its data, and can be copied, compared, walked and serialised without code of its own.
//
// In memory an object is one block: header (ObjHeaderT), data, footer (ObjFooterT). A reference
// points at the data. The record type of a class is a plain struct and lies as the compiler lays it
// out; a template computes the same offsets from size and alignment of the components. Inline data
// occupies a multiple of 4 bytes: a record with an inline field whose size is no such multiple pads
// it. A class's record, magic, descriptor and name stand in the header of the module that owns it.
//
// A new object has one holder. Whoever stores a reference takes a holder with ObjIncRefCount and
// gives it back with ObjRelease, which also clears the variable. The last release frees everything
// that the object owns, in constant stack whatever the shape of the graph.
#pragma once

#include <cstdarg>
#include <type_traits>

#include "core/memory.h"
#include "core/types.h"

// Every class magic lies in 0xc8000000 to 0xcfffffff; magic 0 stands for no object.
constexpr int32 ObjMagic(uint32 lValue) { return static_cast<int32>(lValue); }
constexpr bool ObjIsMagic(int32 lMagic) {
    return (static_cast<uint32>(lMagic) & 0xf8000000U) == 0xc8000000U;
}

struct ObjTemplateS;
using ObjTemplateT = ObjTemplateS*;

struct ObjFooterT {
    int32 lMagic;
};

struct ObjHeaderT {
    int32 lMagic;     // 0 once the object is destroyed
    int32 lRefCount;  // holders
    ObjTemplateT tTemplate;
    ObjFooterT* pFooter;
};

// Component types, by the value that stands for them.
enum ObjComponentE : int32 {
    eObjComponentInvalid = 0,
    eObjComponentBoolean = 1,
    eObjComponentInteger = 2,
    eObjComponentString = 3,
    eObjComponentForwardLink = 4,
    eObjComponentBackwardLink = 5,
    eObjComponentStanza = 6,
    eObjComponentBinaryData = 7,
    eObjComponentInlineData = 8,
    eObjComponentViewInfo = 9,
    eObjComponentInt64 = 10,
    eObjComponentUnique = 11,
    eObjComponentPointer = 12,
};
constexpr int32 ObjComponentCount = 13;

// The "v" field: name and stanza are owned by the object.
struct ObjViewInfoT {
    int32 lType;
    char* pstrName;
    StnzT* pStanza;
};

// What the library knows of one component type. One table drives building, copying, releasing,
// comparing, walking and serialising.
struct ObjComponentInfoT {
    char cLetter;          // in a descriptor; 0 for the invalid type
    char cAlternative;     // second letter of the same type, or 0
    int32 lSize;           // bytes in the object (inline data: 0, its size is declared)
    int32 lAlignment;      // in the object
    int32 lDbSize;         // bytes in the fixed record
    bool bOwned;           // the object owns what the field refers to
    int32 lMinimumStream;  // fewest bytes that the field takes in an object stream
};
extern const ObjComponentInfoT gatObjComponents[ObjComponentCount];

struct ObjDbFieldT {
    ObjComponentE eType;
    int32 lObjOffset;   // in the object data, the first at 0
    int32 lDbOffset;    // in the fixed record, the first at 16
    int32 lSize;        // declared bytes of inline data, else 0
    BooleanT bPrivate;  // modifier "l": only local streams carry it
};

struct ObjDbDataT {
    char* pstrDescriptor;
    int32 lFieldCount;
    int32 lObjSize;             // header + data + footer, bytes
    int32 lDbFixedSize;         // 16 + the components' widths in the fixed record
    BooleanT bInvalidDbObject;  // holds a backward link or a pointer
    ObjDbFieldT* atFields;      // lFieldCount entries
};

// Called when the last holder is gone, with the object still whole: what it owns is released after.
using ObjDestructorFnT = void (*)(void* oObject);
// Converts an object that was read in an older shape; the result is an ObjTranslateResultE.
using ObjTranslatorFnT = BooleanT (*)(void** poObject);
// -1, 0 or 1.
using ObjCompareFunctionT = int32 (*)(void* oObjectA, void* oObjectB);
using ObjCompareFunctionWithCookieT = int32 (*)(void* oObjectA, void* oObjectB, void* pvCookie);

enum ObjTranslateResultE : int32 {
    eObjTranslateResultError = 0,
    eObjTranslateResultUnchanged = 1,  // keep the object
    eObjTranslateResultModified = 2,   // the translator replaced the object
    eObjTranslateResultInvalid = 3,
};

// One per shape of a class; made on first use and kept for good.
struct ObjTemplateS {
    int32 lMagic;
    char* pstrName;
    int32 lCount;            // live instances
    BooleanT bSimpleFormat;  // owns nothing
    ObjDestructorFnT fnDestructor;
    ObjTranslatorFnT fnTranslator;
    ObjTemplateT tNextTemplate;  // other shape of the same magic
    int32 lTotalCount;           // instances ever created
    BooleanT bReconstructed;     // built from serialised data, without a known record size
    ObjDbDataT tDbData;
    BooleanT bUnlinked;  // serves one request for an older shape and goes with its last instance
};

// Type size that stands for "unknown": the template is built from the descriptor alone.
constexpr int32 ObjSizeUnknown = -1;

struct ClassEntryT {
    int32 lMagic;
    const char* pstrClassName;
};
extern const ClassEntryT gtClasses[];  // ends with magic 0

// Entry 0 of a count table is a header whose lCount is the number of entries that follow, one per
// registered class in ascending order of magic.
struct ObjCountEntryT {
    ObjTemplateT tTemplate;
    int32 lCount;
};

// Object counters and monitor of the runtime context.
struct TesselContextTimeObjectS {
    int32 lObjectCount;        // live objects
    int32 lObjectMax;          // highest lObjectCount
    int32 lObjectAllocations;  // objects ever created
    BooleanT bDoMonitor;
    TimeT tNextStats;
    TimeT tStatsInterval;    // seconds
    ObjCountEntryT* ptBase;  // counts when monitoring began
    int32 lMonitorLevel;
    int32 lEntryCount;
    void* ptEntries;
    void* oTagObjCreating;  // object whose tags are being applied
    int32 lTagObjCreatingMagic;
};

BooleanT ObjInitialize();
BooleanT ObjInitializeThread(TesselContextT* ptTlContext);
void ObjReleaseThread(TesselContextT* ptTlContext);

// --- creation: the caller is the holder of what comes back ---

// A record size that does not match the descriptor, or a class that already has another shape (and
// no translator), is a programming error: it is traced and the process is stopped
// (ProcCrash(TRUE)). Where the stop does not end the process the result is null or FALSE.
void* ObjNewInternal(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                     ObjDestructorFnT fnDestructor, MemPoolIdT tPool);
BooleanT ObjCreateInternal(void** poTarget, int32 lTypeSize, int32 lMagic,
                           const char* pstrDescriptor, ObjDestructorFnT fnDestructor,
                           MemPoolIdT tPool);
ObjTemplateT ObjTemplateNewInternal(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                                    ObjDestructorFnT fnDestructor);
BooleanT ObjTemplateCreateInternal(ObjTemplateT* ptNewTemplate, int32 lTypeSize, int32 lMagic,
                                   const char* pstrDescriptor, ObjDestructorFnT fnDestructor);
void* ObjTemplateNewInstanceFromPool(ObjTemplateT tTemplate, MemPoolIdT tPool);
BooleanT ObjTemplateCreateInstanceFromPool(void** poResult, ObjTemplateT tTemplate,
                                           MemPoolIdT tPool);

// --- holders ---

BooleanT ObjIncRefCount(void* oTarget);

// Drops the caller's holder and clears its variable; with the last holder the object goes. FALSE,
// with the variable left as it is, for null (silently), for what is no sound object and for an
// object with no holder left.
BooleanT ObjReleaseInternal(void** poTarget);

// Releases everything that an object owns and leaves its links empty; the object stays. Breaks
// cycles, which no release can.
void ObjReleaseContents(void* oTarget);

// --- checks ---

void ObjCheck(void* oTarget);                        // traces damage and calls ProcCrash(FALSE)
BooleanT ObjGetMagic(void* Target, int32* plMagic);  // FALSE and magic 0 when damaged
BooleanT ObjHasValidGlobalMagic(void* oTarget);      // a sound object; silent
BooleanT ObjCheckTypeInternal(void* oTarget, int32 lMagic);  // a sound object of this class; silent

// --- descriptors ---

ObjComponentE ObjComponentDatatype(const char* pstrComponentDescriptor);
// TRUE when the component has the modifier "l" (private).
BooleanT ObjComponentModifiers(const char* pstrComponentDescriptor);
const char* ObjFirstComponent(const char* pstrDescriptor);
const char* ObjNextComponent(
    const char* pstrComponentDescriptor);  // the end of the text after the last
int32 ObjInlineSizeUsed(
    const char* pstrComponentDescriptor);                  // bytes in the object, a multiple of 4
int32 ObjInlineSize(const char* pstrComponentDescriptor);  // declared bytes, 0 when there are none

// --- names and templates: what is returned stays the library's ---

const char* ObjNameFromObject(void* oObject);
const char* ObjNameFromMagic(int32 lMagic);
// Names a class that has no name yet; the text is copied.
BooleanT ObjSetObjName(int32 lMagic, const char* pstrName);
const char* ObjGetFormat(ObjTemplateT tTemplate);
const char* ObjGetDescriptor(void* oObject);
ObjTranslatorFnT ObjGetTranslator(void* oObject);
ObjDbDataT* ObjGetDbData(void* oObject);
ObjDbDataT* ObjGetDbDataFromTemplate(ObjTemplateT tTemplate);
ObjTemplateT ObjGetTemplateFromObject(void* oObject);
// The memory pool that a sound object's block came from.
MemPoolIdT ObjGetPool(void* oObject);
// The view info, when that is the object's first field; name and stanza stay the object's.
BooleanT ObjGetViewInfo(ObjViewInfoT* ptResult, void* oSource);
// Before the first instance of the class only; too late is a forced stop.
BooleanT ObjSetTranslatorInternal(int32 lTypeSize, int32 lMagic, const char* pstrDescriptor,
                                  ObjDestructorFnT fnDestructor, ObjTranslatorFnT fnTranslator,
                                  MemPoolIdT tPool);

// --- copies, comparison, order ---

// Neither copies what holds an object of a class with a destructor and pointer fields, such as a
// map: its pointers have one owner.

// Deep copy; objects shared in the source are shared in the copy. Private links are copied only
// with bKeepLocalData. FALSE, with *poCopy null, for a graph nested deeper than ObjMaximumDepth.
BooleanT ObjDuplicateInternal(void** poCopy, void* oObject, BooleanT bKeepLocalData);
// Deep copy by way of a local object stream.
BooleanT ObjDuplicate(void** poNewObject, void* oExistingObject);
// TRUE when both local object streams are the same bytes.
BooleanT ObjCompare(void* oObjectA, void* oObjectB);
// Sorts elements 0 to lLastIndex in place. FALSE, in some order, when a comparison gives anything
// but -1, 0 or 1.
BooleanT ObjQuickSort(void** aoTarget, int32 lLastIndex, ObjCompareFunctionT pfnCallback);
BooleanT ObjQuickSortWithCookie(void** aoTarget, int32 lLastIndex,
                                ObjCompareFunctionWithCookieT pfnCallback, void* pvCookie);

// How deep objects may be nested through links for copying, walking and serialising. Lists and the
// levels of a tree do not count: they are followed without recursion.
constexpr int32 ObjMaximumDepth = 1000;

// --- tag lists: OBJ_TAG_BEGIN, pairs of field index (int) and value, OBJ_TAG_END ---

using OBJ_TAG = int32;
constexpr OBJ_TAG OBJ_TAG_NONE = 0;
constexpr OBJ_TAG OBJ_TAG_BEGIN = -2;
constexpr OBJ_TAG OBJ_TAG_END = -1;

void ObjSetFromTagsVA(void* oObj, OBJ_TAG tFirstTag, ...);
// The list begins with its first tag.
void ObjSetFromTagsVAListInternal(void* oObj, std::va_list tVAList);
// Applies the list to the object whose tags are being applied (see ObjSetFromTags).
void ObjSetFromTagsStepperInternal(OBJ_TAG tStartTag, ...);
void ObjSetTagObject(void* oObj);

// --- counters and monitor ---

int32 ObjCount();
int32 ObjMax();
int32 ObjAllocations();
int32 ObjGetInstanceCount(int32 lMagic);  // -1 for an unknown class
// Count tables are blocks that the caller frees with MemFree.
void ObjGetObjectCounts(ObjCountEntryT** pptCounts);
BooleanT ObjGetZeroedObjectCounts(ObjCountEntryT** pptUsage);
void ObjCopyObjectCounts(ObjCountEntryT** pptNewCounts, ObjCountEntryT* ptOldCounts);
void ObjSubtractObjectCounts(ObjCountEntryT* ptNewCounts, ObjCountEntryT* ptOldCounts);
void ObjTraceCounts(int32 lLevel, ObjCountEntryT* ptNewCounts, ObjCountEntryT* ptOldCounts);
void ObjSetMonitor(int32 lLevel, int32 tInterval);  // interval in minutes, above 0
void ObjClearMonitor();
void ObjMonitor();
void ObjMonitorLog(int32 lLevel, ObjCountEntryT* ptBase);

// --- public forms: the record type gives the size, the default pool the memory ---

template <class T>
T* ObjNew(int32 lMagic, const char* pstrDescriptor, ObjDestructorFnT fnDestructor = nullptr) {
    return static_cast<T*>(
        ObjNewInternal(sizeof(T), lMagic, pstrDescriptor, fnDestructor, MemGetDefaultPoolId()));
}

template <class T>
BooleanT ObjCreate(T** poTarget, int32 lMagic, const char* pstrDescriptor,
                   ObjDestructorFnT fnDestructor = nullptr) {
    void* oNew = nullptr;
    const BooleanT bResult =
        ObjCreateInternal(poTarget == nullptr ? nullptr : &oNew, sizeof(T), lMagic, pstrDescriptor,
                          fnDestructor, MemGetDefaultPoolId());
    if (bResult == TRUE) *poTarget = static_cast<T*>(oNew);
    return bResult;
}

template <class T>
BooleanT ObjRelease(T** poTarget) {
    if (poTarget == nullptr) return ObjReleaseInternal(nullptr);
    void* oTarget = *poTarget;
    const BooleanT bResult = ObjReleaseInternal(&oTarget);
    *poTarget = static_cast<T*>(oTarget);
    return bResult;
}

template <class T>
BooleanT ObjSetTranslator(int32 lMagic, const char* pstrDescriptor, ObjDestructorFnT fnDestructor,
                          ObjTranslatorFnT fnTranslator) {
    return ObjSetTranslatorInternal(sizeof(T), lMagic, pstrDescriptor, fnDestructor, fnTranslator,
                                    MemGetDefaultPoolId());
}

// Applies a tag list to an object: ObjSetFromTags(o, OBJ_TAG_BEGIN, 0, TRUE, 1, 5, OBJ_TAG_END).
template <class... A>
void ObjSetFromTags(void* oObj, A... tTags) {
    ObjSetTagObject(oObj);
    ObjSetFromTagsStepperInternal(tTags...);
    ObjSetTagObject(nullptr);
}

// Owner of one holder inside a function: releases it on every path.
template <class T>
class ObjHolder {
 public:
    explicit ObjHolder(T* oObject = nullptr) : m_oObject(oObject) {}
    ~ObjHolder() {
        if (m_oObject != nullptr) ObjRelease(&m_oObject);
    }
    ObjHolder(const ObjHolder&) = delete;
    ObjHolder& operator=(const ObjHolder&) = delete;
    T* Get() const { return m_oObject; }
    T** Address() { return &m_oObject; }
    T* Take() {
        T* oObject = m_oObject;
        m_oObject = nullptr;
        return oObject;
    }

 private:
    T* m_oObject;
};
