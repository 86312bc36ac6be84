// Configuration as the rest of the system sees it: each operation asks first whose configuration is
// meant, then works on this machine's files. The typed operations are conversions around one key,
// wherever that comes from.
#include "core/cfg.h"

#include "cfgvalue.h"
#include "core/cfglocal.h"
#include "core/cfgutil.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "core/stnzfile.h"
#include "core/stnzlist.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("CONFIG")
MEM_DEFAULT_POOL_CACHE

namespace {

// Keyword under which the displayable layout keeps an item's value.
constexpr char acValueKeyword[] = "value";

// TRUE when the request is another machine's configuration server's to answer. This library cannot
// reach one yet, so such a request fails.
bool CfgIsRemote(const char* pstrStanzaFile) {
    PoolPtr<char> pstrClient;
    PoolPtr<char> pstrServer;
    if (CfgUtilDoRemote(pstrClient.Address(), pstrServer.Address(), pstrStanzaFile, nullptr) !=
        TRUE) {
        return false;
    }
    TraceMessageInline(1, 0, -1, "No connection to configuration server '%s' for '%s'",
                       pstrServer.Get(), TraceText(pstrStanzaFile));
    return true;
}

// Traces an operation that failed.
BooleanT CfgReport(int32 lNumber, BooleanT bResult, const char* pstrOperation) {
    if (bResult != TRUE) TraceMessageInline(lNumber, 0, -1, "%s returned FALSE", pstrOperation);
    return bResult;
}

}  // namespace

// --- stanzas and files ---

BooleanT CfgGetStanza(StnzT** ppStanza, const char* pstrStanzaFile, const char* pstrStanzaTitle) {
    TraceMessageInline(2, 0, 4, "CfgGetStanza");
    return CfgReport(
        3,
        BooleanFrom(!CfgIsRemote(pstrStanzaFile) &&
                    CfgLocalGetStanza(ppStanza, pstrStanzaFile, pstrStanzaTitle, nullptr) == TRUE),
        "CfgGetStanza");
}

BooleanT CfgGetStanzaList(ListO* poList, const char* pstrStanzaFile) {
    TraceMessageInline(4, 0, 4, "CfgGetStanzaList");
    return CfgReport(5,
                     BooleanFrom(!CfgIsRemote(pstrStanzaFile) &&
                                 CfgLocalGetStanzaList(poList, pstrStanzaFile, nullptr) == TRUE),
                     "CfgGetStanzaList");
}

BooleanT CfgReplaceStanzaList(const char* pstrStanzaFile, ListO oList) {
    TraceMessageInline(6, 0, 4, "CfgReplaceStanzaList");
    return CfgReport(7,
                     BooleanFrom(!CfgIsRemote(pstrStanzaFile) &&
                                 CfgLocalReplaceStanzaList(pstrStanzaFile, oList, nullptr) == TRUE),
                     "CfgReplaceStanzaList");
}

BooleanT CfgAddStanza(StnzT* pStanza, const char* pstrStanzaFile) {
    TraceMessageInline(8, 0, 4, "CfgAddStanza");
    return CfgReport(9,
                     BooleanFrom(!CfgIsRemote(pstrStanzaFile) &&
                                 CfgLocalAddStanza(pStanza, pstrStanzaFile, nullptr) == TRUE),
                     "CfgAddStanza");
}

BooleanT CfgReplaceStanza(StnzT* pStanza, const char* pstrStanzaFile) {
    TraceMessageInline(10, 0, 4, "CfgReplaceStanza");
    return CfgReport(11,
                     BooleanFrom(!CfgIsRemote(pstrStanzaFile) &&
                                 CfgLocalReplaceStanza(pStanza, pstrStanzaFile, nullptr) == TRUE),
                     "CfgReplaceStanza");
}

BooleanT CfgRemoveStanza(const char* pstrCatagory, const char* pstrTitle,
                         const char* pstrStanzaFile) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalRemoveStanza(pstrCatagory, pstrStanzaFile, pstrTitle, nullptr);
}

// --- reading items ---

BooleanT CfgGetKey(const char* pstrStanzaFile, const char* pstrStanzaTitle, const char* pstrKeyword,
                   StnzKeyT** ppKey) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalGetKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, ppKey, nullptr);
}

BooleanT CfgGetString(char** ppstrValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrKeyword, const char* pstrDefault) {
    CfgKeyHolder tKey;
    CfgGetKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, tKey.Address());
    return CfgKeyToString(ppstrValue, tKey.Get(), pstrDefault);
}

BooleanT CfgGetInteger(int32* plValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, int32 lDefault) {
    CfgKeyHolder tKey;
    CfgGetKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, tKey.Address());
    return CfgKeyToInteger(plValue, tKey.Get(), lDefault);
}

BooleanT CfgGetInt64(int64* pllValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                     const char* pstrKeyword, int64 llDefault) {
    CfgKeyHolder tKey;
    CfgGetKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, tKey.Address());
    return CfgKeyToInt64(pllValue, tKey.Get(), llDefault);
}

BooleanT CfgGetBoolean(BooleanT* pbValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, BooleanT bDefault) {
    CfgKeyHolder tKey;
    CfgGetKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, tKey.Address());
    return CfgKeyToBoolean(pbValue, tKey.Get(), bDefault);
}

BooleanT CfgGetValueList(ListO* poValueList, const char* pstrStanzaFile,
                         const char* pstrStanzaTitle, const char* pstrKeyword) {
    CfgKeyHolder tKey;
    CfgGetKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, tKey.Address());
    return CfgKeyToValueList(poValueList, tKey.Get());
}

// --- writing items ---

BooleanT CfgSetString(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrKeyword, const char* pstrValue) {
    TraceMessageInline(12, 0, 4, "CfgSetString");
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalSetString(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrValue, nullptr);
}

BooleanT CfgSetInteger(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, int32 lValue) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalSetInteger(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, lValue, nullptr);
}

BooleanT CfgSetInt64(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                     const char* pstrKeyword, int64 llValue) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalSetInt64(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, llValue, nullptr);
}

BooleanT CfgSetBoolean(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, BooleanT bValue) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalSetBoolean(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, bValue, nullptr);
}

BooleanT CfgSetValueList(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                         const char* pstrKeyword, ListO oValueList) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalSetValueList(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, oValueList, nullptr);
}

BooleanT CfgAddValueToKey(const char* pstrFileName, const char* pstrStanzaName,
                          const char* pstrKeyName, const char* pstrNewValue) {
    if (CfgIsRemote(pstrFileName)) return FALSE;
    return CfgLocalAddValueToKey(pstrFileName, pstrStanzaName, pstrKeyName, pstrNewValue, nullptr);
}

BooleanT CfgRemoveValueFromKey(const char* pstrFileName, const char* pstrStanzaName,
                               const char* pstrKeyName, const char* pstrValueToRemove) {
    if (CfgIsRemote(pstrFileName)) return FALSE;
    return CfgLocalRemoveValueFromKey(pstrFileName, pstrStanzaName, pstrKeyName, pstrValueToRemove,
                                      nullptr);
}

BooleanT CfgRemoveKey(const char* pstrFileName, const char* pstrStanzaName,
                      const char* pstrKeyName) {
    return CfgLocalRemoveKey(pstrFileName, pstrStanzaName, pstrKeyName, nullptr);
}

BooleanT CfgAddEntryToValueList(ListO* poValueList, const char* pstrStanzaFile,
                                const char* pstrStanzaTitle, const char* pstrKeyword,
                                const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalAddEntryToValueList(poValueList, pstrStanzaFile, pstrStanzaTitle, pstrKeyword,
                                       pstrEntry, bUnique, bNoCase, nullptr);
}

BooleanT CfgRemoveEntryFromValueList(ListO* poValueList, const char* pstrStanzaFile,
                                     const char* pstrStanzaTitle, const char* pstrKeyword,
                                     const char* pstrEntry, BooleanT bNoCase) {
    if (CfgIsRemote(pstrStanzaFile)) return FALSE;
    return CfgLocalRemoveEntryFromValueList(poValueList, pstrStanzaFile, pstrStanzaTitle,
                                            pstrKeyword, pstrEntry, bNoCase, nullptr);
}

char* CfgBuildPath(const char* pstrFileName) { return CfgLocalBuildPath(pstrFileName); }

// --- items of a list in memory ---

BooleanT CfgGetKeyFromList(ListO oStanzaList, const char* pstrStanzaTitle, const char* pstrKeyword,
                           StnzKeyT** ppKey) {
    if (ppKey == nullptr) return FALSE;
    if (StnzListGetKey(ppKey, oStanzaList, pstrStanzaTitle, pstrKeyword, acValueKeyword) == TRUE)
        return TRUE;
    return StnzListGetKey(ppKey, oStanzaList, nullptr, pstrStanzaTitle, pstrKeyword);
}

BooleanT CfgGetBooleanFromList(ListO oStanzaList, const char* pstrStanzaTitle,
                               const char* pstrKeyword, BooleanT* pbValue, BooleanT bDefault) {
    StnzKeyT* pKey = nullptr;
    CfgGetKeyFromList(oStanzaList, pstrStanzaTitle, pstrKeyword, &pKey);
    return CfgKeyToBoolean(pbValue, pKey, bDefault);
}

BooleanT CfgGetIntegerFromList(ListO oStanzaList, const char* pstrStanzaTitle,
                               const char* pstrKeyword, int32* plValue, int32 lDefault) {
    StnzKeyT* pKey = nullptr;
    CfgGetKeyFromList(oStanzaList, pstrStanzaTitle, pstrKeyword, &pKey);
    return CfgKeyToInteger(plValue, pKey, lDefault);
}

BooleanT CfgGetInt64FromList(ListO oStanzaList, const char* pstrStanzaTitle,
                             const char* pstrKeyword, int64* pllValue, int64 llDefault) {
    StnzKeyT* pKey = nullptr;
    CfgGetKeyFromList(oStanzaList, pstrStanzaTitle, pstrKeyword, &pKey);
    return CfgKeyToInt64(pllValue, pKey, llDefault);
}

BooleanT CfgGetValueListFromList(ListO oStanzaList, const char* pstrStanzaTitle,
                                 const char* pstrKeyword, ListO* poValueList) {
    StnzKeyT* pKey = nullptr;
    CfgGetKeyFromList(oStanzaList, pstrStanzaTitle, pstrKeyword, &pKey);
    return CfgKeyToValueList(poValueList, pKey);
}

BooleanT CfgParseValueList(ListO* poReturnList, ListO oValueList) {
    if (poReturnList == nullptr || !ListIsList(oValueList) || oValueList->oFirst == nullptr ||
        ObjCheckTypeInternal(oValueList->oFirst->oData, ObjStringMagic) != TRUE) {
        return FALSE;
    }
    // The values of the text as a key line would have them.
    CfgKeyHolder tKey;
    const char* pstrText = ObjGetString(static_cast<ObjStringO>(oValueList->oFirst->oData));
    if (StnzAddValues(tKey.Address(), acValueKeyword, pstrText == nullptr ? "" : pstrText) != TRUE)
        return FALSE;
    for (int32 lValue = 1; lValue <= StnzKeyValueCount(tKey.Get()); lValue++) {
        TraceMessageInline(13, 0, 0, "Add item '%s' to exclude list",
                           TraceText(StnzKeyValue(tKey.Get(), lValue)));
    }
    return StnzKeyGetValueList(tKey.Get(), poReturnList);
}
