// What the sources of the object model share: from a reference to its header, to its fields by
// their table, and the registry of templates. Private to the library.
#pragma once

#include <cstring>

#include "core/object.h"

// Sorted by magic; holds the head template of each class. Entries are never removed.
struct ObjTemplateRegistryT {
    int32 lMaximumEntries;
    int32 lEntryCount;
    ObjTemplateT* ptEntries;
};
extern ObjTemplateRegistryT gsObjTemplateMap;

// The template of a class as a stream describes it. FALSE, traced, when the program has the class
// in another shape that it does not translate, and when streams have named too many unknown ones.
BooleanT ObjTemplateFromStream(ObjTemplateT* ptTemplate, int32 lMagic, const char* pstrDescriptor);

inline ObjHeaderT* ObjHeaderOf(void* oObject) { return static_cast<ObjHeaderT*>(oObject) - 1; }

inline void* ObjFieldAt(void* oObject, const ObjDbFieldT& tField) {
    return static_cast<ByteT*>(oObject) + tField.lObjOffset;
}

// A destructor trusts its object's pointers. In another process they are no pointers, and a second
// object with the same pointers would release what they lead to a second time: objects of such a
// class are neither copied nor read.
inline bool ObjOwnsByPointer(const ObjTemplateS* tTemplate) {
    return tTemplate->fnDestructor != nullptr && tTemplate->tDbData.bInvalidDbObject == TRUE;
}

// Holds a new object, which may be null or the very one already held, in place of another.
inline void ObjReplaceHeld(void** poPlace, void* oNew) {
    if (oNew != nullptr) ObjIncRefCount(oNew);
    void* oOld = *poPlace;
    *poPlace = oNew;
    if (oOld != nullptr) ObjReleaseInternal(&oOld);
}

// Fields are read and written by their declared type through memory copies, whatever record type
// the class's own code sees there.
template <class T>
T ObjLoad(const void* pField) {
    T tValue;
    std::memcpy(&tValue, pField, sizeof(T));
    return tValue;
}

template <class T>
void ObjStore(void* pField, T tValue) {
    std::memcpy(pField, &tValue, sizeof(T));
}
