// Stanza lists: lists of stanza objects, in order, as a configuration file holds them. A stanza is
// found by category and title without regard to case; a null category matches an empty one; the
// first match counts. FALSE for what is no list and for a null or empty title or keyword, except
// where a getter gives its default.
#pragma once

#include "core/object.h"
#include "core/types.h"

// FALSE stops the walk and fails it.
using StnzListCallbackFnT = BooleanT (*)(void* pvContext, StnzT* pStanza);

// Whether two stanzas of these names are the same for every look-up.
BooleanT StnzSameTitle(const char* pstrCatagoryA, const char* pstrTitleA, const char* pstrCatagoryB,
                       const char* pstrTitleB);

BooleanT StnzListFindStanzaObject(ObjStanzaO* poStanza, ListO oStanzaList, const char* pstrCatagory,
                                  const char* pstrTitle);  // a new holder, the caller's
BooleanT StnzListFindStanza(StnzT** pptStanza, ListO oStanzaList, const char* pstrCatagory,
                            const char* pstrTitle);  // stays the list's
BooleanT StnzListRemoveStanza(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle);
// Removes the first stanza of the same name and appends ptStanza, which becomes the list's; it may
// be that stanza itself.
BooleanT StnzListReplaceStanza(ListO oStanzaList, const StnzT* ptStanza);

BooleanT StnzListGetKey(StnzKeyT** ppKey, ListO oStanzaList, const char* pstrCatagory,
                        const char* pstrTitle, const char* pstrKeyword);  // stays the list's

// As the getters of one stanza (stnzwrappers.h): a missing list or stanza counts as a missing key.
BooleanT StnzListGetString(char** ppstrValue, ListO oStanzaList, const char* pstrCatagory,
                           const char* pstrTitle, const char* pstrKeyword, const char* pstrDefault);
BooleanT StnzListGetInteger(int32* plValue, ListO oStanzaList, const char* pstrCatagory,
                            const char* pstrTitle, const char* pstrKeyword, int32 lDefault);
BooleanT StnzListGetInt64(int64* ptValue, ListO oStanzaList, const char* pstrCatagory,
                          const char* pstrTitle, const char* pstrKeyword, int64 tDefault);
BooleanT StnzListGetBoolean(BooleanT* pValue, ListO oStanzaList, const char* pstrCatagory,
                            const char* pstrTitle, const char* pstrKeyword, BooleanT bDefault);
BooleanT StnzListGetValueList(ListO* poValueList, ListO oStanzaList, const char* pstrCatagory,
                              const char* pstrTitle, const char* pstrKeyword);

// Take the key over, on success only. A missing stanza is made at the end of the list.
BooleanT StnzListAddKey(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle,
                        StnzKeyT** pptKey);
BooleanT StnzListReplaceKey(ListO oStanzaList, const char* pstrCatagory, const char* pstrTitle,
                            StnzKeyT** pptKey);
BooleanT StnzListDeleteKeywordFromStanza(ListO oStanzaList, const char* pstrCatagory,
                                         const char* pstrTitle, const char* pstrKeyword);

BooleanT StnzListSetKeywordFromString(ListO oStanzaList, const char* pstrCatagory,
                                      const char* pstrTitle, const char* pstrKeyword,
                                      const char* pstrValue, BooleanT bReplace);
BooleanT StnzListSetKeywordFromInteger(ListO oStanzaList, const char* pstrCatagory,
                                       const char* pstrTitle, const char* pstrKeyword, int32 lValue,
                                       BooleanT bReplace);
BooleanT StnzListSetKeywordFromBoolean(ListO oStanzaList, const char* pstrCatagory,
                                       const char* pstrTitle, const char* pstrKeyword,
                                       BooleanT bValue, BooleanT bReplace);
BooleanT StnzListSetKeywordFromValueList(ListO oStanzaList, const char* pstrCatagory,
                                         const char* pstrTitle, const char* pstrKeyword,
                                         ListO oValueList, BooleanT bReplace);

// New lists, the caller's, that share the stanza objects which have the keyword, or whose boolean
// of that keyword is bValue. FALSE, without a list, when an item is no stanza object.
BooleanT StnzListFilterByKeyword(ListO* poFilteredList, ListO oStanzaList, const char* pstrKeyword);
BooleanT StnzListFilterByBooleanKeyword(ListO* poFilteredList, ListO oStanzaList,
                                        const char* pstrKeyword, BooleanT bValue,
                                        BooleanT bDefault);

BooleanT StnzListWalk(ListO oStnzList, StnzListCallbackFnT pfnCallback, void* pvContext);
