// The server's side: a request becomes the operation of cfglocal.h on the client's file. What each
// type needs of a request stands in one table, which is checked before the operation is called, so
// that the operations find the fields they use in order.
#include <cstring>
#include <iterator>

#include "cfgserverinternal.h"
#include "cfgvalue.h"
#include "core/cfglocal.h"
#include "core/cfgserver.h"
#include "core/cfgutil.h"
#include "core/path.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("SERVERCONF")
MEM_DEFAULT_POOL_CACHE

namespace {

// A request that is being carried out.
struct CfgSvrCallT {
    CfgSvrConfigRequestO oRequest;
    CfgSvrConfigReplyO oReply;
    const char* pstrPath;  // directory of the file, relative to the home directory

    const char* File() const { return oRequest->pstrStanzaFile; }
    const char* Title() const { return oRequest->pstrStanzaTitle; }
    const char* Keyword() const { return oRequest->pstrStanzaKeyword; }
    const char* Text() const { return ObjGetString(static_cast<ObjStringO>(oRequest->oValue)); }
};

using CfgSvrHandlerFnT = BooleanT (*)(const CfgSvrCallT& tCall);

// --- the thirteen operations ---

BooleanT CfgSvrHandleCfgGetKey(const CfgSvrCallT& tCall) {
    CfgKeyHolder tKey;
    if (CfgLocalGetKey(tCall.File(), tCall.Title(), tCall.Keyword(), tKey.Address(),
                       tCall.pstrPath) != TRUE) {
        return FALSE;
    }
    return CfgSvrStnzKeyObjectFromStnzKeyType(&tCall.oReply->oStnzKey, tKey.Get());
}

BooleanT CfgSvrMakeKey(StnzKeyT** ppKey, const char* pstrKeyword, const CfgSvrCallT& tCall) {
    if (ListIsList(tCall.oRequest->oValue) != TRUE)
        return StnzCreateKeyFromString(ppKey, pstrKeyword, tCall.Text());
    const auto* oValues = static_cast<ListO>(tCall.oRequest->oValue);
    int64 llLeft = CfgSvrLargest;
    return CfgSvrKeyFromValues(ppKey, pstrKeyword, tCall.oRequest->oValue, oValues->lItemCount, 0,
                               &llLeft);
}

// Sets an item in the layout that it has.
BooleanT CfgSvrHandleCfgAddKey(const CfgSvrCallT& tCall) {
    const PoolPtr<char> pstrFile(CfgUtilBuildPath(tCall.File(), tCall.pstrPath));
    CfgKeyHolder tKey;
    if (CfgLocalGotCategory(pstrFile.Get(), tCall.Title(), tCall.Keyword()) == TRUE) {
        TraceMessageInline(30, 0, 0, "Replacing displayable stanza");
        if (CfgSvrMakeKey(tKey.Address(), "value", tCall) != TRUE) return FALSE;
        return CfgLocalAddKey(pstrFile.Get(), tCall.Title(), tCall.Keyword(), tKey.Address(), TRUE);
    }
    TraceMessageInline(31, 0, 0, "Replacing non-displayable stanza");
    if (CfgSvrMakeKey(tKey.Address(), tCall.Keyword(), tCall) != TRUE) return FALSE;
    return CfgLocalAddKey(pstrFile.Get(), nullptr, tCall.Title(), tKey.Address(), TRUE);
}

BooleanT CfgSvrHandleCfgRemoveKey(const CfgSvrCallT& tCall) {
    return CfgLocalRemoveKey(tCall.File(), tCall.Title(), tCall.Keyword(), tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgGetStanza(const CfgSvrCallT& tCall) {
    CfgStanzaHolder tStanza;
    if (CfgLocalGetStanza(tStanza.Address(), tCall.File(), tCall.Title(), tCall.pstrPath) != TRUE)
        return FALSE;
    return CfgSvrStanzaObjectFromStanzaType(&tCall.oReply->oStanza, tStanza.Get());
}

BooleanT CfgSvrHandleCfgGetStanzaList(const CfgSvrCallT& tCall) {
    return CfgLocalGetStanzaList(&tCall.oReply->oValueList, tCall.File(), tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgReplaceStanzaList(const CfgSvrCallT& tCall) {
    return CfgLocalReplaceStanzaList(tCall.File(), tCall.oRequest->oStanzaList, tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgAddStanza(const CfgSvrCallT& tCall) {
    CfgStanzaHolder tStanza;
    if (CfgSvrStanzaTypeFromStanzaObject(tStanza.Address(), tCall.oRequest->oStanza) != TRUE)
        return FALSE;
    return CfgLocalAddStanza(tStanza.Get(), tCall.File(), tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgReplaceStanza(const CfgSvrCallT& tCall) {
    CfgStanzaHolder tStanza;
    if (CfgSvrStanzaTypeFromStanzaObject(tStanza.Address(), tCall.oRequest->oStanza) != TRUE)
        return FALSE;
    return CfgLocalReplaceStanza(tStanza.Get(), tCall.File(), tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgRemoveStanza(const CfgSvrCallT& tCall) {
    return CfgLocalRemoveStanza(tCall.oRequest->pstrStanzaCatagory, tCall.File(), tCall.Title(),
                                tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgAddEntryToValueList(const CfgSvrCallT& tCall) {
    return CfgLocalAddEntryToValueList(&tCall.oReply->oValueList, tCall.File(), tCall.Title(),
                                       tCall.Keyword(), tCall.Text(), tCall.oRequest->bUnique,
                                       tCall.oRequest->bNoCase, tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgRemoveEntryFromValueList(const CfgSvrCallT& tCall) {
    return CfgLocalRemoveEntryFromValueList(&tCall.oReply->oValueList, tCall.File(), tCall.Title(),
                                            tCall.Keyword(), tCall.Text(), tCall.oRequest->bNoCase,
                                            tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgAddValueToKey(const CfgSvrCallT& tCall) {
    return CfgLocalAddValueToKey(tCall.File(), tCall.Title(), tCall.Keyword(), tCall.Text(),
                                 tCall.pstrPath);
}

BooleanT CfgSvrHandleCfgRemoveValueFromKey(const CfgSvrCallT& tCall) {
    return CfgLocalRemoveValueFromKey(tCall.File(), tCall.Title(), tCall.Keyword(), tCall.Text(),
                                      tCall.pstrPath);
}

// --- what they need ---

constexpr uint32 NeedsTitle = 1;
constexpr uint32 NeedsKeyword = 2;
constexpr uint32 NeedsText = 4;   // oValue is a string object
constexpr uint32 NeedsValue = 8;  // or a list of them
constexpr uint32 NeedsStanza = 16;
constexpr uint32 NeedsStanzaList = 32;
constexpr uint32 NeedsItem = NeedsTitle | NeedsKeyword;

struct CfgSvrHandlerT {
    CfgSvrHandlerFnT fnHandler;
    const char* pstrName;
    uint32 lNeeds;
    bool bReports;  // traces that it has failed
};

// By type, from 1.
constexpr CfgSvrHandlerT atCfgSvrHandlers[] = {
    {CfgSvrHandleCfgGetKey, "CfgSvrHandleCfgGetKey", NeedsItem, true},
    {CfgSvrHandleCfgAddKey, "CfgSvrHandleCfgAddKey", NeedsItem | NeedsValue, true},
    {CfgSvrHandleCfgRemoveKey, "CfgSvrHandleCfgRemoveKey", NeedsItem, false},
    {CfgSvrHandleCfgGetStanza, "CfgSvrHandleCfgGetStanza", NeedsTitle, true},
    {CfgSvrHandleCfgGetStanzaList, "CfgSvrHandleCfgGetStanzaList", 0, true},
    {CfgSvrHandleCfgReplaceStanzaList, "CfgSvrHandleReplaceStanzaList", NeedsStanzaList, true},
    {CfgSvrHandleCfgAddStanza, "CfgSvrHandleCfgAddStanza", NeedsStanza, true},
    {CfgSvrHandleCfgReplaceStanza, "CfgSvrHandleCfgReplaceStanza", NeedsStanza, true},
    {CfgSvrHandleCfgRemoveStanza, "CfgSvrHandleCfgRemoveStanza", NeedsTitle, true},
    {CfgSvrHandleCfgAddEntryToValueList, "CfgSvrHandleCfgAddEntryToValueList",
     NeedsItem | NeedsText, true},
    {CfgSvrHandleCfgRemoveEntryFromValueList, "CfgSvrHandleCfgRemoveEntryFromValueList",
     NeedsItem | NeedsText, false},
    {CfgSvrHandleCfgAddValueToKey, "CfgSvrHandleCfgAddValueToKey", NeedsItem | NeedsText, true},
    {CfgSvrHandleCfgRemoveValueFromKey, "CfgSvrHandleCfgRemoveValueFromKey", NeedsItem | NeedsText,
     true},
};
static_assert(std::size(atCfgSvrHandlers) == eCfgSvrReqRemoveValueFromKey);

// TRUE when the request carries it all. A stanza is looked at when it is converted.
bool CfgSvrHas(CfgSvrConfigRequestO oRequest, uint32 lNeeds) {
    const auto fnNeeds = [lNeeds](uint32 lNeed) { return (lNeeds & lNeed) != 0; };
    const bool bText = ObjCheckTypeInternal(oRequest->oValue, ObjStringMagic) == TRUE;
    if ((fnNeeds(NeedsTitle) && oRequest->pstrStanzaTitle == nullptr) ||
        (fnNeeds(NeedsKeyword) && oRequest->pstrStanzaKeyword == nullptr) ||
        (fnNeeds(NeedsText) && !bText) ||
        (fnNeeds(NeedsValue) && !bText && !CfgSvrIsListOf(oRequest->oValue, ObjStringMagic)) ||
        (fnNeeds(NeedsStanzaList) && !CfgSvrIsStanzaList(oRequest->oStanzaList))) {
        TraceMessageInline(32, 0, -1, "The request lacks what its type needs");
        return false;
    }
    return true;
}

// --- where the files lie ---

bool CfgSvrIsComponent(const char* pstrName) {
    return pstrName != nullptr && *pstrName != '\0' && StrCompare(pstrName, ".") != 0 &&
           PathIsDescending(pstrName) == TRUE && std::strchr(pstrName, '/') == nullptr;
}

// The directory of the request's file, relative to the home directory; null when the request may
// not have it.
char* CfgSvrBuildPathOnly(CfgSvrConfigRequestO oRequest) {
    const char* pstrFile = oRequest->pstrStanzaFile;
    const char* pstrAltPath = oRequest->pstrAltPath;
    const char* pstrClient = oRequest->pstrClientName;
    const bool bOwn = pstrAltPath == nullptr;
    if (pstrFile != nullptr && *pstrFile != '\0' && PathIsDescending(pstrFile) == TRUE &&
        (bOwn || PathIsDescending(pstrAltPath) == TRUE) &&
        ((!bOwn && pstrClient == nullptr) || CfgSvrIsComponent(pstrClient))) {
        return bOwn ? PathBuild("gui/CachedPits", pstrClient, "config", nullptr)
                    : StrDuplicateIntoPool(pstrAltPath, MemPool());
    }
    TraceMessageInline(33, 0, -1, "Refused client '%s', file '%s', alt path '%s'",
                       TraceText(pstrClient), TraceText(pstrFile), TraceText(pstrAltPath));
    return nullptr;
}

BooleanT CfgSvrCarryOut(CfgSvrConfigReplyO oReply, CfgSvrConfigRequestO oRequest,
                        const CfgSvrHandlerT& tHandler) {
    TraceMessageInline(34, 0, 4, "%s", tHandler.pstrName);
    const PoolPtr<char> pstrPath(CfgSvrBuildPathOnly(oRequest));
    if (pstrPath.Get() == nullptr)
        TraceMessageInline(35, 0, -1, "CfgSvrBuildPathOnly failed");
    else if (CfgSvrHas(oRequest, tHandler.lNeeds))
        oReply->bSuccess = tHandler.fnHandler({oRequest, oReply, pstrPath.Get()});
    if (oReply->bSuccess != TRUE && tHandler.bReports)
        TraceMessageInline(36, 0, -1, "%s returned FALSE", tHandler.pstrName);
    return oReply->bSuccess;
}

// Gives the reply the identifier that the request bears.
void CfgSvrMarkReply(CfgSvrConfigReplyO oReply, CfgSvrConfigRequestO oRequest) {
    ObjHolder<void> oMark;
    if (ListGetExtensionItem(oMark.Address(), oRequest->oExt, ObjUniqueMagic) != TRUE) return;
    void* oExt = nullptr;
    ListSetExtensionItem(&oExt, oMark.Get());
    oReply->oExt = static_cast<ListO>(oExt);
}

}  // namespace

BooleanT CfgSvrProcessConfigRequest(CfgSvrConfigReplyO* poReply, CfgSvrConfigRequestO oConfigReq) {
    if (poReply == nullptr) return FALSE;
    *poReply = nullptr;
    ObjHolder<CfgSvrConfigReplyS> oReply(
        ObjNew<CfgSvrConfigReplyS>(CfgSvrConfigReplyMagic, CfgSvrConfigReplyDescriptor));
    if (oReply.Get() == nullptr) return FALSE;
    if (ObjCheckTypeInternal(oConfigReq, CfgSvrConfigRequestMagic) != TRUE) {
        TraceMessageInline(37, 0, -1, "Got invalid server config request object");
    } else {
        const int32 lType = oConfigReq->lReqType;
        TraceMessageInline(
            38, 0, 4,
            "CfgSvrProcessConfigRequest processing server config request for clientname: %s, "
            "stanzafile: %s, stanzatitle: %s, keyword: %s, alt path: %s, request type: %d",
            TraceText(oConfigReq->pstrClientName), TraceText(oConfigReq->pstrStanzaFile),
            TraceText(oConfigReq->pstrStanzaTitle), TraceText(oConfigReq->pstrStanzaKeyword),
            TraceText(oConfigReq->pstrAltPath), lType);
        oReply.Get()->lReqType = lType;
        CfgSvrMarkReply(oReply.Get(), oConfigReq);
        if (lType < eCfgSvrReqGetKey || lType > eCfgSvrReqRemoveValueFromKey)
            TraceMessageInline(39, 0, -1, "Got unexpected server config request");
        else
            CfgSvrCarryOut(oReply.Get(), oConfigReq, atCfgSvrHandlers[lType - 1]);
    }
    const BooleanT bSuccess = oReply.Get()->bSuccess;
    if (bSuccess != TRUE)
        TraceMessageInline(40, 0, 4, "config request reply returning %s", BooleanText(bSuccess));
    *poReply = oReply.Take();
    return bSuccess;
}
