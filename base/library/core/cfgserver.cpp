// The client's side: every operation fills one request object, sends it and takes its result from
// the reply. CfgSvrCall owns both.
#include "core/cfgserver.h"

#include "cfgserverinternal.h"
#include "cfgvalue.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("SERVERCONF")
MEM_DEFAULT_POOL_CACHE

namespace {

// Traces an operation that failed.
BooleanT CfgSvrReport(BooleanT bResult, const char* pstrOperation) {
    if (bResult != TRUE) TraceMessageInline(50, 0, -1, "%s returned FALSE", pstrOperation);
    return bResult;
}

// One request and its reply. The fields of the request are the caller's to fill before Send, those
// of the reply to look at after it.
class CfgSvrCall {
 public:
    CfgSvrCall(const char* pstrClient, const char* pstrStanzaFile, const char* pstrAltPath,
               const char* pstrStanzaTitle = nullptr, const char* pstrKeyword = nullptr)
        : m_oRequest(ObjNew<CfgSvrConfigRequestS>(CfgSvrConfigRequestMagic,
                                                  CfgSvrConfigRequestDescriptor)) {
        CfgSvrConfigRequestO oRequest = m_oRequest.Get();
        if (oRequest == nullptr) return;
        oRequest->pstrClientName = StrDuplicateIntoPool(pstrClient, MemPool());
        oRequest->pstrStanzaFile = StrDuplicateIntoPool(pstrStanzaFile, MemPool());
        oRequest->pstrAltPath = StrDuplicateIntoPool(pstrAltPath, MemPool());
        oRequest->pstrStanzaTitle = StrDuplicateIntoPool(pstrStanzaTitle, MemPool());
        oRequest->pstrStanzaKeyword = StrDuplicateIntoPool(pstrKeyword, MemPool());
    }

    CfgSvrConfigReplyO Reply() const { return m_oReply.Get(); }

    // What a request carries besides; objects are held.
    void SetValue(void* oValue) {
        if (m_oRequest.Get() != nullptr && ObjIncRefCount(oValue) == TRUE)
            m_oRequest.Get()->oValue = oValue;
    }
    void SetEntry(const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase) {
        const ObjHolder<ObjStringS> oEntry(ObjStringNew(pstrEntry));
        if (m_oRequest.Get() == nullptr) return;
        SetValue(oEntry.Get());
        m_oRequest.Get()->bUnique = bUnique;
        m_oRequest.Get()->bNoCase = bNoCase;
    }
    void SetStanzaList(ListO oList) {
        if (m_oRequest.Get() != nullptr && ObjIncRefCount(oList) == TRUE)
            m_oRequest.Get()->oStanzaList = oList;
    }
    BooleanT SetStanza(StnzT* pStanza) {
        if (m_oRequest.Get() == nullptr) return FALSE;
        return CfgSvrStanzaObjectFromStanzaType(&m_oRequest.Get()->oStanza, pStanza);
    }
    void SetCatagory(const char* pstrCatagory) {
        if (m_oRequest.Get() != nullptr)
            m_oRequest.Get()->pstrStanzaCatagory = StrDuplicateIntoPool(pstrCatagory, MemPool());
    }

    BooleanT Send(const char* pstrServer, int32 lReqType) {
        return CfgSvrSendConfigRequest(m_oReply.Address(), m_oRequest.Get(), pstrServer, lReqType);
    }
    // The reply's value list, when the caller wants it.
    BooleanT GetValueList(ListO* poValueList) const {
        if (poValueList == nullptr) return TRUE;
        if (!CfgSvrIsListOf(Reply()->oValueList, ObjStringMagic)) return FALSE;
        *poValueList = Reply()->oValueList;
        return ObjIncRefCount(*poValueList);
    }

 private:
    ObjHolder<CfgSvrConfigRequestS> m_oRequest;
    ObjHolder<CfgSvrConfigReplyS> m_oReply;
};

// Where an item is kept.
struct CfgSvrItemT {
    const char* pstrClient;
    const char* pstrServer;
    const char* pstrStanzaFile;
    const char* pstrStanzaTitle;
    const char* pstrKeyword;
    const char* pstrAltPath;
};

// The item's value, as fnConvert makes it of its key, which is null when there is none.
template <class Fn>
BooleanT CfgSvrGetItem(int32 lMessage, const char* pstrOperation, const CfgSvrItemT& tItem,
                       Fn fnConvert) {
    TraceMessageInline(lMessage, 0, 4, "%s", pstrOperation);
    CfgKeyHolder tKey;
    CfgSvrGetKey(tKey.Address(), tItem.pstrClient, tItem.pstrServer, tItem.pstrStanzaFile,
                 tItem.pstrStanzaTitle, tItem.pstrKeyword, tItem.pstrAltPath);
    return CfgSvrReport(fnConvert(tKey.Get()), pstrOperation);
}

BooleanT CfgSvrSetText(const CfgSvrItemT& tItem, const char* pstrValue) {
    const ObjHolder<ObjStringS> oValue(ObjStringNew(pstrValue));
    return CfgSvrSetKey(tItem.pstrClient, tItem.pstrServer, tItem.pstrStanzaFile,
                        tItem.pstrStanzaTitle, tItem.pstrKeyword, tItem.pstrAltPath, oValue.Get());
}

}  // namespace

// --- reading items ---

BooleanT CfgSvrGetKey(StnzKeyT** ppKey, const char* pstrClient, const char* pstrServer,
                      const char* pstrStanzaFile, const char* pstrStanzaTitle,
                      const char* pstrStanzaKeyword, const char* pstrAltPath) {
    TraceMessageInline(70, 0, 4,
                       "CfgSvrGetKey, Client : %s, Server : %s, config file : %s, "
                       "stanza title : %s, keyword : %s, alt path : %s",
                       TraceText(pstrClient), TraceText(pstrServer), TraceText(pstrStanzaFile),
                       TraceText(pstrStanzaTitle), TraceText(pstrStanzaKeyword),
                       TraceText(pstrAltPath));
    if (pstrClient == nullptr || pstrServer == nullptr || pstrStanzaFile == nullptr ||
        pstrStanzaTitle == nullptr || pstrStanzaKeyword == nullptr) {
        TraceMessageInline(71, 0, -1,
                           "Invalid arguments to CfgSvrGetKey. Client : %s, Server : %s, "
                           "File : %s, Title : %s, Key : %s",
                           TraceText(pstrClient), TraceText(pstrServer), TraceText(pstrStanzaFile),
                           TraceText(pstrStanzaTitle), TraceText(pstrStanzaKeyword));
        return FALSE;
    }
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle, pstrStanzaKeyword);
    return CfgSvrReport(
        BooleanFrom(tCall.Send(pstrServer, eCfgSvrReqGetKey) == TRUE &&
                    CfgSvrStnzKeyTypeFromStnzKeyObject(ppKey, tCall.Reply()->oStnzKey) == TRUE),
        "CfgSvrGetKey");
}

BooleanT CfgSvrGetString(char** ppstrValue, const char* pstrClient, const char* pstrServer,
                         const char* pstrStanzaFile, const char* pstrStanzaTitle,
                         const char* pstrKeyword, const char* pstrAltPath,
                         const char* pstrDefault) {
    return CfgSvrGetItem(
        72, "CfgSvrGetString",
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        [&](StnzKeyT* pKey) { return CfgKeyToString(ppstrValue, pKey, pstrDefault); });
}

BooleanT CfgSvrGetInteger(int32* plValue, const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, int32 lDefault) {
    return CfgSvrGetItem(
        73, "CfgSvrGetInteger",
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        [&](StnzKeyT* pKey) { return CfgKeyToInteger(plValue, pKey, lDefault); });
}

BooleanT CfgSvrGetInt64(int64* pllValue, const char* pstrClient, const char* pstrServer,
                        const char* pstrStanzaFile, const char* pstrStanzaTitle,
                        const char* pstrKeyword, const char* pstrAltPath, int64 llDefault) {
    return CfgSvrGetItem(
        74, "CfgSvrGetInt64",
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        [&](StnzKeyT* pKey) { return CfgKeyToInt64(pllValue, pKey, llDefault); });
}

BooleanT CfgSvrGetBoolean(BooleanT* pbValue, const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, BooleanT bDefault) {
    return CfgSvrGetItem(
        75, "CfgSvrGetBoolean",
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        [&](StnzKeyT* pKey) { return CfgKeyToBoolean(pbValue, pKey, bDefault); });
}

BooleanT CfgSvrGetValueList(ListO* poValueList, const char* pstrClient, const char* pstrServer,
                            const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, const char* pstrAltPath) {
    return CfgSvrGetItem(
        76, "CfgSvrGetValueList",
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        [&](StnzKeyT* pKey) { return CfgKeyToValueList(poValueList, pKey); });
}

// --- writing items ---

BooleanT CfgSvrSetKey(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                      const char* pstrStanzaTitle, const char* pstrKeyword, const char* pstrAltPath,
                      void* oValue) {
    TraceMessageInline(77, 0, 4, "CfgSvrSetKey");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle, pstrKeyword);
    tCall.SetValue(oValue);
    return tCall.Send(pstrServer, eCfgSvrReqAddKey);
}

BooleanT CfgSvrSetString(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                         const char* pstrStanzaTitle, const char* pstrKeyword,
                         const char* pstrAltPath, const char* pstrValue) {
    TraceMessageInline(78, 0, 4, "CfgSvrSetString");
    return CfgSvrSetText(
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        pstrValue);
}

BooleanT CfgSvrSetInteger(const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, int32 lValue) {
    TraceMessageInline(79, 0, 4, "CfgSvrSetInteger");
    PoolPtr<char> pstrValue;
    StrFromInteger(pstrValue.Address(), lValue);
    return CfgSvrSetText(
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        pstrValue.Get());
}

BooleanT CfgSvrSetInt64(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                        const char* pstrStanzaTitle, const char* pstrKeyword,
                        const char* pstrAltPath, int64 llValue) {
    TraceMessageInline(80, 0, 4, "CfgSvrSetInt64");
    PoolPtr<char> pstrValue;
    StrFromInt64(pstrValue.Address(), llValue);
    return CfgSvrSetText(
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        pstrValue.Get());
}

BooleanT CfgSvrSetBoolean(const char* pstrClient, const char* pstrServer,
                          const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, BooleanT bValue) {
    TraceMessageInline(81, 0, 4, "CfgSvrSetBoolean");
    PoolPtr<char> pstrValue;
    StrFromBoolean(pstrValue.Address(), bValue);
    return CfgSvrSetText(
        {pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath},
        pstrValue.Get());
}

BooleanT CfgSvrSetValueList(const char* pstrClient, const char* pstrServer,
                            const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, const char* pstrAltPath, ListO oValueList) {
    TraceMessageInline(82, 0, 4, "CfgSvrSetValueList");
    return CfgSvrSetKey(pstrClient, pstrServer, pstrStanzaFile, pstrStanzaTitle, pstrKeyword,
                        pstrAltPath, oValueList);
}

BooleanT CfgSvrRemoveKey(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                         const char* pstrStanzaTitle, const char* pstrKeyName,
                         const char* pstrAltPath) {
    TraceMessageInline(83, 0, 4, "CfgSvrRemoveKey");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle, pstrKeyName);
    return CfgSvrReport(tCall.Send(pstrServer, eCfgSvrReqRemoveKey), "CfgSvrRemoveKey");
}

// --- stanzas and files ---

BooleanT CfgSvrGetStanza(StnzT** ppStanza, const char* pstrClient, const char* pstrServer,
                         const char* pstrStanzaFile, const char* pstrStanzaTitle,
                         const char* pstrAltPath) {
    TraceMessageInline(84, 0, 4, "CfgSvrGetStanza");
    if (pstrClient == nullptr || pstrServer == nullptr) {
        TraceMessageInline(85, 0, -1, "Remote config - invalid client : %s or server : %s",
                           TraceText(pstrClient), TraceText(pstrServer));
        return FALSE;
    }
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle);
    BooleanT bResult = tCall.Send(pstrServer, eCfgSvrReqGetStanza);
    if (bResult == TRUE &&
        CfgSvrStanzaTypeFromStanzaObject(ppStanza, tCall.Reply()->oStanza) != TRUE) {
        TraceMessageInline(86, 0, -1, "Got unexpected object from server stanza request");
        bResult = FALSE;
    }
    return CfgSvrReport(bResult, "CfgSvrGetStanza");
}

BooleanT CfgSvrGetStanzaList(ListO* poList, const char* pstrClient, const char* pstrServer,
                             const char* pstrStanzaFile, const char* pstrAltPath) {
    TraceMessageInline(87, 0, 4, "CfgSvrGetStanzaList");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath);
    if (poList != nullptr && tCall.Send(pstrServer, eCfgSvrReqGetStanzaList) == TRUE) {
        if (CfgSvrIsStanzaList(tCall.Reply()->oValueList)) {
            *poList = tCall.Reply()->oValueList;
            return ObjIncRefCount(*poList);
        }
        TraceMessageInline(88, 0, -1, "Got unexpected object from server stanza list request");
    }
    TraceMessageInline(89, 0, -1, "CfgSvrGetStanzaList failed");
    return FALSE;
}

BooleanT CfgSvrReplaceStanzaList(const char* pstrClient, const char* pstrServer,
                                 const char* pstrStanzaFile, const char* pstrAltPath, ListO oList) {
    TraceMessageInline(90, 0, 4, "CfgSvrReplaceStanzaList");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath);
    tCall.SetStanzaList(oList);
    if (tCall.Send(pstrServer, eCfgSvrReqReplaceStanzaList) == TRUE) return TRUE;
    TraceMessageInline(91, 0, -1, "CfgSvrReplaceStanzaList failed");
    return FALSE;
}

BooleanT CfgSvrAddStanza(const char* pstrClient, const char* pstrServer, const char* pstrStanzaFile,
                         const char* pstrAltPath, StnzT* pStanza) {
    TraceMessageInline(92, 0, 4, "CfgSvrAddStanza");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath);
    return CfgSvrReport(BooleanFrom(tCall.SetStanza(pStanza) == TRUE &&
                                    tCall.Send(pstrServer, eCfgSvrReqAddStanza) == TRUE),
                        "CfgSvrAddStanza");
}

BooleanT CfgSvrReplaceStanza(const char* pstrClient, const char* pstrServer,
                             const char* pstrStanzaFile, const char* pstrAltPath, StnzT* pStanza) {
    TraceMessageInline(93, 0, 4, "CfgSvrReplaceStanza");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath);
    return CfgSvrReport(BooleanFrom(tCall.SetStanza(pStanza) == TRUE &&
                                    tCall.Send(pstrServer, eCfgSvrReqReplaceStanza) == TRUE),
                        "CfgSvrReplaceStanza");
}

BooleanT CfgSvrRemoveStanza(const char* pstrClient, const char* pstrServer,
                            const char* pstrCatagory, const char* pstrTitle,
                            const char* pstrStanzaFile, const char* pstrAltPath) {
    TraceMessageInline(94, 0, 4, "CfgSvrRemoveStanza");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrTitle);
    tCall.SetCatagory(pstrCatagory);
    return CfgSvrReport(tCall.Send(pstrServer, eCfgSvrReqRemoveStanza), "CfgSvrRemoveStanza");
}

// --- entries and values ---

BooleanT CfgSvrAddEntryToValueList(ListO* poValueList, const char* pstrClient,
                                   const char* pstrServer, const char* pstrStanzaFile,
                                   const char* pstrStanzaTitle, const char* pstrKeyword,
                                   const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase,
                                   const char* pstrAltPath) {
    TraceMessageInline(95, 0, 4, "CfgSvrAddEntryToValueList");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle, pstrKeyword);
    tCall.SetEntry(pstrEntry, bUnique, bNoCase);
    return CfgSvrReport(BooleanFrom(tCall.Send(pstrServer, eCfgSvrReqAddEntry) == TRUE &&
                                    tCall.GetValueList(poValueList) == TRUE),
                        "CfgSvrAddEntryToValueList");
}

BooleanT CfgSvrRemoveEntryFromValueList(ListO* poValueList, const char* pstrClient,
                                        const char* pstrServer, const char* pstrStanzaFile,
                                        const char* pstrStanzaTitle, const char* pstrKeyword,
                                        const char* pstrEntry, BooleanT bNoCase,
                                        const char* pstrAltPath) {
    TraceMessageInline(96, 0, 4, "CfgSvrRemoveEntryFromValueList");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle, pstrKeyword);
    tCall.SetEntry(pstrEntry, FALSE, bNoCase);
    return CfgSvrReport(BooleanFrom(tCall.Send(pstrServer, eCfgSvrReqRemoveEntry) == TRUE &&
                                    tCall.GetValueList(poValueList) == TRUE),
                        "CfgSvrRemoveEntryFromValueList");
}

BooleanT CfgSvrAddValueToKey(const char* pstrClient, const char* pstrServer,
                             const char* pstrStanzaFile, const char* pstrStanzaTitle,
                             const char* pstrKeyName, const char* pstrValue,
                             const char* pstrAltPath) {
    TraceMessageInline(97, 0, 4, "CfgSvrAddValueToKey");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle, pstrKeyName);
    tCall.SetEntry(pstrValue, FALSE, FALSE);
    return CfgSvrReport(tCall.Send(pstrServer, eCfgSvrReqAddValueToKey), "CfgSvrAddValueToKey");
}

BooleanT CfgSvrRemoveValueFromKey(const char* pstrClient, const char* pstrServer,
                                  const char* pstrStanzaFile, const char* pstrStanzaTitle,
                                  const char* pstrKeyName, const char* pstrValue,
                                  const char* pstrAltPath) {
    TraceMessageInline(98, 0, 4, "CfgSvrRemoveValueFromKey");
    CfgSvrCall tCall(pstrClient, pstrStanzaFile, pstrAltPath, pstrStanzaTitle, pstrKeyName);
    tCall.SetEntry(pstrValue, FALSE, FALSE);
    return CfgSvrReport(tCall.Send(pstrServer, eCfgSvrReqRemoveValueFromKey),
                        "CfgSvrRemoveValueFromKey");
}
