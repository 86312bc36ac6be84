// Configuration as the rest of the system sees it: each operation asks first whose configuration is
// meant, then calls the operation of the same name: on this machine's files (cfglocal.h) or through
// the configuration server of another (cfgserver.h).
#include "core/cfg.h"

#include "cfgvalue.h"
#include "core/cfglocal.h"
#include "core/cfgserver.h"
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

// Whose configuration a file is: this machine's, or a client's that a server keeps.
class CfgOwner {
 public:
    explicit CfgOwner(const char* pstrStanzaFile)
        : m_bRemote(CfgUtilDoRemote(m_pstrClient.Address(), m_pstrServer.Address(), pstrStanzaFile,
                                    nullptr) == TRUE) {}
    bool IsRemote() const { return m_bRemote; }
    const char* Client() const { return m_pstrClient.Get(); }
    const char* Server() const { return m_pstrServer.Get(); }

 private:
    PoolPtr<char> m_pstrClient;
    PoolPtr<char> m_pstrServer;
    bool m_bRemote;
};

// Traces an operation that failed.
BooleanT CfgReport(int32 lNumber, BooleanT bResult, const char* pstrOperation) {
    if (bResult != TRUE) TraceMessageInline(lNumber, 0, -1, "%s returned FALSE", pstrOperation);
    return bResult;
}

}  // namespace

// --- stanzas and files ---

BooleanT CfgGetStanza(StnzT** ppStanza, const char* pstrStanzaFile, const char* pstrStanzaTitle) {
    TraceMessageInline(2, 0, 4, "CfgGetStanza");
    const CfgOwner tOwner(pstrStanzaFile);
    return CfgReport(3,
                     tOwner.IsRemote()
                         ? CfgSvrGetStanza(ppStanza, tOwner.Client(), tOwner.Server(),
                                           pstrStanzaFile, pstrStanzaTitle, nullptr)
                         : CfgLocalGetStanza(ppStanza, pstrStanzaFile, pstrStanzaTitle, nullptr),
                     "CfgGetStanza");
}

BooleanT CfgGetStanzaList(ListO* poList, const char* pstrStanzaFile) {
    TraceMessageInline(4, 0, 4, "CfgGetStanzaList");
    const CfgOwner tOwner(pstrStanzaFile);
    return CfgReport(
        5,
        tOwner.IsRemote()
            ? CfgSvrGetStanzaList(poList, tOwner.Client(), tOwner.Server(), pstrStanzaFile, nullptr)
            : CfgLocalGetStanzaList(poList, pstrStanzaFile, nullptr),
        "CfgGetStanzaList");
}

BooleanT CfgReplaceStanzaList(const char* pstrStanzaFile, ListO oList) {
    TraceMessageInline(6, 0, 4, "CfgReplaceStanzaList");
    const CfgOwner tOwner(pstrStanzaFile);
    return CfgReport(7,
                     tOwner.IsRemote() ? CfgSvrReplaceStanzaList(tOwner.Client(), tOwner.Server(),
                                                                 pstrStanzaFile, nullptr, oList)
                                       : CfgLocalReplaceStanzaList(pstrStanzaFile, oList, nullptr),
                     "CfgReplaceStanzaList");
}

BooleanT CfgAddStanza(StnzT* pStanza, const char* pstrStanzaFile) {
    TraceMessageInline(8, 0, 4, "CfgAddStanza");
    const CfgOwner tOwner(pstrStanzaFile);
    return CfgReport(9,
                     tOwner.IsRemote() ? CfgSvrAddStanza(tOwner.Client(), tOwner.Server(),
                                                         pstrStanzaFile, nullptr, pStanza)
                                       : CfgLocalAddStanza(pStanza, pstrStanzaFile, nullptr),
                     "CfgAddStanza");
}

BooleanT CfgReplaceStanza(StnzT* pStanza, const char* pstrStanzaFile) {
    TraceMessageInline(10, 0, 4, "CfgReplaceStanza");
    const CfgOwner tOwner(pstrStanzaFile);
    return CfgReport(11,
                     tOwner.IsRemote() ? CfgSvrReplaceStanza(tOwner.Client(), tOwner.Server(),
                                                             pstrStanzaFile, nullptr, pStanza)
                                       : CfgLocalReplaceStanza(pStanza, pstrStanzaFile, nullptr),
                     "CfgReplaceStanza");
}

BooleanT CfgRemoveStanza(const char* pstrCatagory, const char* pstrTitle,
                         const char* pstrStanzaFile) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrRemoveStanza(tOwner.Client(), tOwner.Server(), pstrCatagory, pstrTitle,
                                    pstrStanzaFile, nullptr)
               : CfgLocalRemoveStanza(pstrCatagory, pstrStanzaFile, pstrTitle, nullptr);
}

// --- reading items ---

BooleanT CfgGetKey(const char* pstrStanzaFile, const char* pstrStanzaTitle, const char* pstrKeyword,
                   StnzKeyT** ppKey) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrGetKey(ppKey, tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                              pstrStanzaTitle, pstrKeyword, nullptr)
               : CfgLocalGetKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, ppKey, nullptr);
}

BooleanT CfgGetString(char** ppstrValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrKeyword, const char* pstrDefault) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrGetString(ppstrValue, tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                                 pstrStanzaTitle, pstrKeyword, nullptr, pstrDefault)
               : CfgLocalGetString(ppstrValue, pstrStanzaFile, pstrStanzaTitle, pstrKeyword,
                                   nullptr, pstrDefault);
}

BooleanT CfgGetInteger(int32* plValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, int32 lDefault) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrGetInteger(plValue, tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                                  pstrStanzaTitle, pstrKeyword, nullptr, lDefault)
               : CfgLocalGetInteger(plValue, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, nullptr,
                                    lDefault);
}

BooleanT CfgGetInt64(int64* pllValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                     const char* pstrKeyword, int64 llDefault) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrGetInt64(pllValue, tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                                pstrStanzaTitle, pstrKeyword, nullptr, llDefault)
               : CfgLocalGetInt64(pllValue, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, nullptr,
                                  llDefault);
}

BooleanT CfgGetBoolean(BooleanT* pbValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, BooleanT bDefault) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrGetBoolean(pbValue, tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                                  pstrStanzaTitle, pstrKeyword, nullptr, bDefault)
               : CfgLocalGetBoolean(pbValue, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, nullptr,
                                    bDefault);
}

BooleanT CfgGetValueList(ListO* poValueList, const char* pstrStanzaFile,
                         const char* pstrStanzaTitle, const char* pstrKeyword) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrGetValueList(poValueList, tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                                    pstrStanzaTitle, pstrKeyword, nullptr)
               : CfgLocalGetValueList(poValueList, pstrStanzaFile, pstrStanzaTitle, pstrKeyword,
                                      nullptr);
}

// --- writing items ---

BooleanT CfgSetString(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrKeyword, const char* pstrValue) {
    TraceMessageInline(12, 0, 4, "CfgSetString");
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote() ? CfgSvrSetString(tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                                               pstrStanzaTitle, pstrKeyword, nullptr, pstrValue)
                             : CfgLocalSetString(pstrStanzaFile, pstrStanzaTitle, pstrKeyword,
                                                 pstrValue, nullptr);
}

BooleanT CfgSetInteger(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, int32 lValue) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrSetInteger(tOwner.Client(), tOwner.Server(), pstrStanzaFile, pstrStanzaTitle,
                                  pstrKeyword, nullptr, lValue)
               : CfgLocalSetInteger(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, lValue, nullptr);
}

BooleanT CfgSetInt64(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                     const char* pstrKeyword, int64 llValue) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrSetInt64(tOwner.Client(), tOwner.Server(), pstrStanzaFile, pstrStanzaTitle,
                                pstrKeyword, nullptr, llValue)
               : CfgLocalSetInt64(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, llValue, nullptr);
}

BooleanT CfgSetBoolean(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                       const char* pstrKeyword, BooleanT bValue) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrSetBoolean(tOwner.Client(), tOwner.Server(), pstrStanzaFile, pstrStanzaTitle,
                                  pstrKeyword, nullptr, bValue)
               : CfgLocalSetBoolean(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, bValue, nullptr);
}

BooleanT CfgSetValueList(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                         const char* pstrKeyword, ListO oValueList) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote() ? CfgSvrSetValueList(tOwner.Client(), tOwner.Server(), pstrStanzaFile,
                                                  pstrStanzaTitle, pstrKeyword, nullptr, oValueList)
                             : CfgLocalSetValueList(pstrStanzaFile, pstrStanzaTitle, pstrKeyword,
                                                    oValueList, nullptr);
}

BooleanT CfgAddValueToKey(const char* pstrFileName, const char* pstrStanzaName,
                          const char* pstrKeyName, const char* pstrNewValue) {
    const CfgOwner tOwner(pstrFileName);
    return tOwner.IsRemote()
               ? CfgSvrAddValueToKey(tOwner.Client(), tOwner.Server(), pstrFileName, pstrStanzaName,
                                     pstrKeyName, pstrNewValue, nullptr)
               : CfgLocalAddValueToKey(pstrFileName, pstrStanzaName, pstrKeyName, pstrNewValue,
                                       nullptr);
}

BooleanT CfgRemoveValueFromKey(const char* pstrFileName, const char* pstrStanzaName,
                               const char* pstrKeyName, const char* pstrValueToRemove) {
    const CfgOwner tOwner(pstrFileName);
    return tOwner.IsRemote()
               ? CfgSvrRemoveValueFromKey(tOwner.Client(), tOwner.Server(), pstrFileName,
                                          pstrStanzaName, pstrKeyName, pstrValueToRemove, nullptr)
               : CfgLocalRemoveValueFromKey(pstrFileName, pstrStanzaName, pstrKeyName,
                                            pstrValueToRemove, nullptr);
}

BooleanT CfgRemoveKey(const char* pstrFileName, const char* pstrStanzaName,
                      const char* pstrKeyName) {
    return CfgLocalRemoveKey(pstrFileName, pstrStanzaName, pstrKeyName, nullptr);
}

BooleanT CfgAddEntryToValueList(ListO* poValueList, const char* pstrStanzaFile,
                                const char* pstrStanzaTitle, const char* pstrKeyword,
                                const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrAddEntryToValueList(poValueList, tOwner.Client(), tOwner.Server(),
                                           pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrEntry,
                                           bUnique, bNoCase, nullptr)
               : CfgLocalAddEntryToValueList(poValueList, pstrStanzaFile, pstrStanzaTitle,
                                             pstrKeyword, pstrEntry, bUnique, bNoCase, nullptr);
}

BooleanT CfgRemoveEntryFromValueList(ListO* poValueList, const char* pstrStanzaFile,
                                     const char* pstrStanzaTitle, const char* pstrKeyword,
                                     const char* pstrEntry, BooleanT bNoCase) {
    const CfgOwner tOwner(pstrStanzaFile);
    return tOwner.IsRemote()
               ? CfgSvrRemoveEntryFromValueList(poValueList, tOwner.Client(), tOwner.Server(),
                                                pstrStanzaFile, pstrStanzaTitle, pstrKeyword,
                                                pstrEntry, bNoCase, nullptr)
               : CfgLocalRemoveEntryFromValueList(poValueList, pstrStanzaFile, pstrStanzaTitle,
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
