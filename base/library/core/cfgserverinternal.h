// What both sides of the configuration server do with lists that messages have brought.
#pragma once

#include "core/list.h"
#include "core/objwrappers.h"
#include "core/stnzbase.h"

// A list with nothing in it but sound objects of one class.
inline bool CfgSvrIsListOf(void* oObject, int32 lItemMagic) {
    if (ListIsList(oObject) != TRUE) return false;
    for (ListNodeO oNode = static_cast<ListO>(oObject)->oFirst; oNode != nullptr;
         oNode = oNode->oNext) {
        if (ObjCheckTypeInternal(oNode->oData, lItemMagic) != TRUE) return false;
    }
    return true;
}

// The same of stanza objects, each with a stanza.
inline bool CfgSvrIsStanzaList(void* oObject) {
    if (!CfgSvrIsListOf(oObject, ObjStanzaMagic)) return false;
    for (ListNodeO oNode = static_cast<ListO>(oObject)->oFirst; oNode != nullptr;
         oNode = oNode->oNext) {
        if (ObjGetStanza(static_cast<ObjStanzaO>(oNode->oData)) == nullptr) return false;
    }
    return true;
}

// Bytes that one key or stanza may take here, whatever its size in the message: one text may stand
// in a list any number of times.
constexpr int64 CfgSvrLargest = 64 << 20;

// A key with the first lCount values of a list of string objects, null for none, and room for
// lRoom. FALSE when there are fewer, or when they take more than *pllLeft bytes, which becomes what
// is left.
BooleanT CfgSvrKeyFromValues(StnzKeyT** pptKey, const char* pstrKeyword, void* oValues,
                             int32 lCount, int32 lRoom, int64* pllLeft);
