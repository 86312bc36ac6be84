// Stanzas and keys: a titled section holding an ordered set of keys, each a keyword with an ordered
// list of string values. Categories, titles and keywords compare without regard to case, values
// with regard to case.
//
// Stanzas and keys are single blocks that move when they grow, so whatever can grow one takes the
// address of the caller's pointer. A stanza owns its keys, a key its values. Add and Replace take
// over the key they are given, Remove detaches without freeing, Delete frees.
#pragma once

#include "core/types.h"

struct StnzKeyT {
    char* pstrKeyword;
    int32 lValueCount;
    int32 lMaxValueCount;
    char* apstrValues[1];  // lMaxValueCount slots; value number 1 is in slot 0; a value may be null
};

struct StnzT {
    char* pstrCatagory;  // may be null
    char* pstrTitle;
    int32 lKeyCount;
    int32 lMaxKeyCount;
    StnzKeyT* apKeys[1];  // lMaxKeyCount slots, in order of insertion
};

// ppKey is the key's slot: the callback may replace or grow the key in place. FALSE stops the walk.
using StnzCallbackFnT = BooleanT (*)(void* pCookie, StnzKeyT** ppKey);

// lKeyCount and lValueCount: room made in advance, 0 means 1. FALSE for a missing out-parameter or
// keyword, or a negative count.
BooleanT StnzCreate(StnzT** ppStanza, const char* pstrCatagory, const char* pstrTitle,
                    int32 lKeyCount);
BooleanT StnzCreateKey(StnzKeyT** ppKey, const char* pstrKeyword, int32 lValueCount);

// Free everything and clear the caller's pointer; null is accepted.
BooleanT StnzRelease(StnzT** ppStanza);
BooleanT StnzReleaseKey(StnzKeyT** ppKey);

// Deep copies with the source's room.
BooleanT StnzCopy(StnzT** ppNewStanza, StnzT* pStanza);
BooleanT StnzKeyCopy(StnzKeyT** pptNewKey, StnzKeyT* ptKey);

char* StnzKeyValue(StnzKeyT* pKey, int32 lIndex);  // counts from 1; stays the key's; null if none
int32 StnzKeyValueCount(StnzKeyT* pKey);           // -1 for a null key

// The first key of that keyword, which stays the stanza's; ppKey may be null.
BooleanT StnzGetKey(StnzKeyT** ppKey, StnzT* pStanza, const char* pstrKeyword);
// The last callback's result; TRUE for a stanza without keys.
BooleanT StnzWalk(StnzT* pStanza, StnzCallbackFnT pfnCallback, void* pCookie);

BooleanT StnzAddKeyToStanza(StnzT** ppStanza, StnzKeyT** ppKey);
// Deletes every key of the same keyword and appends the new one.
BooleanT StnzReplaceKeyInStanza(StnzT** ppStanza, StnzKeyT** ppKey);
BooleanT StnzDeleteKeywordFromStanza(StnzT* pStanza, const char* pstrKeyword, BooleanT bAll);
BooleanT StnzRemoveKeyFromStanza(StnzT* pStanza, StnzKeyT* pKey);

BooleanT StnzAddValueToKey(StnzKeyT** ppKey, const char* pstrValue);
BooleanT StnzDeleteValueFromKey(StnzKeyT* pKey, const char* pstrValue, BooleanT bAll);
BooleanT StnzRemoveValueFromKey(StnzKeyT* pKey, int32 lIndex);
