// Wrapper objects: one-field objects that let plain values be held in lists and trees, stored and
// sent like any other object. All come from the default pool; New forms return the object (the
// caller is the holder), Create forms store it through poResult.
//
// Getters return 0, FALSE or null for a null object or one of another class; what they return stays
// the object's. Setters return FALSE for such an object and TRUE after storing.
#pragma once

#include "core/object.h"
#include "core/stnzbase.h"
#include "core/types.h"

constexpr int32 ObjBooleanMagic = ObjMagic(0xc96cec79);    // "b;"
constexpr int32 ObjIntegerMagic = ObjMagic(0xc96cf22a);    // "i;"
constexpr int32 ObjInt64Magic = ObjMagic(0xc998c2b6);      // "I;"
constexpr int32 ObjStringMagic = ObjMagic(0xc96cec6f);     // "s;"
constexpr int32 ObjDataFieldMagic = ObjMagic(0xc999120d);  // "d;"
constexpr int32 ObjStanzaMagic = ObjMagic(0xc96ceed4);     // "z;"
constexpr int32 ObjUniqueMagic = ObjMagic(0xca84a8d9);     // "u;"
constexpr int32 ObjViewableMagic = ObjMagic(0xca24b82b);   // "v;"

struct ObjBooleanS {
    BooleanT bValue;
};
struct ObjIntegerS {
    int32 lValue;
};
struct ObjInt64S {
    int64 tValue;
};
struct ObjStringS {
    char* pstrValue;  // owned
};
struct ObjDataFieldS {
    ObjDataFieldT tValue;  // block owned
};
struct ObjStanzaS {
    StnzT* pValue;  // owned
};
struct ObjUniqueS {
    UniqueT tValue;
};
struct ObjViewableS {
    ObjViewInfoT tValue;  // name and stanza owned
};

BooleanT ObjWrappersInitialize();
BooleanT ObjWrappersInitializeThread(TesselContextT* ptTlContext);
void ObjWrappersReleaseThread(TesselContextT* ptTlContext);

ObjBooleanO ObjBooleanNew(BooleanT bInitialValue);
BooleanT ObjBooleanCreate(ObjBooleanO* poResult, BooleanT bInitialValue);
BooleanT ObjGetBoolean(ObjBooleanO oBoolean);
BooleanT ObjSetBoolean(ObjBooleanO oBoolean, BooleanT bNewValue);

ObjIntegerO ObjIntegerNew(int32 lInitialValue);
BooleanT ObjIntegerCreate(ObjIntegerO* poResult, int32 lInitialValue);
int32 ObjGetInteger(ObjIntegerO oInteger);
BooleanT ObjSetInteger(ObjIntegerO oInteger, int32 lNewValue);

ObjInt64O ObjInt64New(int64 tInitialValue);
BooleanT ObjInt64Create(ObjInt64O* poResult, int64 tInitialValue);
int64 ObjGetInt64(ObjInt64O oInt64);
BooleanT ObjSetInt64(ObjInt64O oInt64, int64 tNewValue);

ObjStringO ObjStringNew(const char* pstrInitialValue);  // copies; null stays null
// Copies at most lCharsToCopy characters.
ObjStringO ObjStringNewRanged(const char* pstrText, int32 lCharsToCopy);
BooleanT ObjStringCreate(ObjStringO* poResult, const char* pstrInitialValue);
char* ObjGetString(ObjStringO oString);
BooleanT ObjSetString(ObjStringO oString, const char* pstrNewValue);  // stores a copy
BooleanT ObjSetStringNoCopy(ObjStringO oString, char* pstrText);      // takes the text

ObjDataFieldO ObjDataFieldNew(void* pData, int32 lSize);         // copies into a new block
ObjDataFieldO ObjDataFieldNewNoCopy(void* pvData, int32 lSize);  // takes the block
BooleanT ObjDataFieldCreate(ObjDataFieldO* poResult, void* pData, int32 lSize);
BooleanT ObjDataFieldCreateNoCopy(ObjDataFieldO* poResult, void* pvData, int32 lSize);
ObjDataFieldT* ObjGetDataField(ObjDataFieldO oDataField);
int32 ObjGetDataFieldSize(ObjDataFieldO oDataField);
void* ObjGetDataFieldData(ObjDataFieldO oDataField);

ObjStanzaO ObjStanzaNew(StnzT* ptInitialValue);  // takes the stanza
BooleanT ObjStanzaCreate(ObjStanzaO* poResult, StnzT* ptInitialValue);
StnzT* ObjGetStanza(ObjStanzaO oStanza);
StnzT** ObjGetStanzaPointer(ObjStanzaO oStanza);  // the field itself, for operations that grow
// Stores the stanza without releasing the previous one, which is the caller's; refuses null.
BooleanT ObjSetStanza(ObjStanzaO oStanza, StnzT* ptStanza);

ObjViewableO ObjViewableNew(int32 lNodeType, const char* pstrNodeName, StnzT* ptInitialValue);
BooleanT ObjViewableCreate(ObjViewableO* poResult, int32 lNodeType, const char* pstrNodeName,
                           StnzT* ptInitialValue);

// A copy of the value, a new unique identifier for null.
ObjUniqueO ObjUniqueNewInternal(const UniqueT* ptValue);
BooleanT ObjUniqueCreateInternal(ObjUniqueO* poResult, const UniqueT* ptValue);
ObjUniqueO ObjUniqueNewSessionId(int32 lJobId, int32 lInstance, int32 lPhase);
BooleanT ObjUniqueCreateSessionId(ObjUniqueO* poResult, int32 lJobId, int32 lInstance,
                                  int32 lPhase);
// FALSE unless both are unique-identifier wrappers.
BooleanT ObjUniqueSameSessionId(ObjUniqueO oUnique1, ObjUniqueO oUnique2);  // all but the phases
BooleanT ObjUniqueEqual(ObjUniqueO oUnique1, ObjUniqueO oUnique2);
UniqueT* ObjGetUnique(ObjUniqueO oUnique);

inline ObjUniqueO ObjUniqueNew(const UniqueT* ptValue = nullptr) {
    return ObjUniqueNewInternal(ptValue);
}
inline BooleanT ObjUniqueCreate(ObjUniqueO* poResult, const UniqueT* ptValue = nullptr) {
    return ObjUniqueCreateInternal(poResult, ptValue);
}

// Copies a wrapper's value into the caller's buffer: a 32-bit value, a 64-bit one, a UniqueT, or
// the pointer of a string or stanza wrapper. FALSE for any other class.
BooleanT ObjGetValue(void* pResult, void* oSource);
