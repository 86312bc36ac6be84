// Start-of-day and end-of-day programs. The file keeps its stanzas of every category in one list.
// Those of one category are taken out into a second list, sorted by their run order; both share the
// stanza objects, so that numbering the second writes into the first.
#include "core/procsod.h"

#include "cfgvalue.h"
#include "core/cfg.h"
#include "core/cfgutil.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "core/stnzfile.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("PROCAPI")

namespace {

constexpr char acManagerFile[] = "procmgr.cfg";
constexpr char acStartOfDay[] = "Start of Day";
constexpr char acEndOfDay[] = "End of Day";
constexpr char acRunOrder[] = "Run order";

// Where a stanza goes.
struct ProcPlaceT {
    BooleanT bBefore;
    const char* pstrPoint;  // title, or null
};

StnzT* ProcStanzaAt(ListNodeO oNode) { return ObjGetStanza(static_cast<ObjStanzaO>(oNode->oData)); }

int32 ProcCompareRunOrder(void* oObjectA, void* oObjectB) {
    int32 lOrderA = 0;
    int32 lOrderB = 0;
    StnzGetInteger(ObjGetStanza(static_cast<ObjStanzaO>(oObjectA)), acRunOrder, 0, &lOrderA);
    StnzGetInteger(ObjGetStanza(static_cast<ObjStanzaO>(oObjectB)), acRunOrder, 0, &lOrderB);
    return lOrderA < lOrderB ? -1 : static_cast<int32>(lOrderA > lOrderB);
}

BooleanT ProcSetRunOrder(ObjStanzaO oStanza, int32 lOrder) {
    return StnzSetKeywordFromInteger(ObjGetStanzaPointer(oStanza), acRunOrder, lOrder, TRUE);
}

BooleanT ProcInsertBeside(ListNodeO oNode, void* oStanza, BooleanT bBefore) {
    return bBefore == TRUE ? ListInsertBefore(oNode, oStanza) : ListInsertAfter(oNode, oStanza);
}

// The stanzas of the new one's category by run order, a new list; those of its title leave the
// file's list.
BooleanT ProcTakeCategory(ListO* poCategory, ListO oFileList, const StnzT* pNew) {
    ObjHolder<ListS> oCategory(ListNew(ObjStanzaMagic));
    if (oCategory.Get() == nullptr) return FALSE;
    for (ListNodeO oNode = oFileList->oFirst; oNode != nullptr;) {
        ListNodeO oNext = oNode->oNext;
        const StnzT* pStanza = ProcStanzaAt(oNode);
        if (StrCompareNoCase(pStanza->pstrCatagory == nullptr ? "" : pStanza->pstrCatagory,
                             pNew->pstrCatagory) == 0) {
            const BooleanT bDone = StrCompareNoCase(pStanza->pstrTitle, pNew->pstrTitle) == 0
                                       ? ListRemoveItem(oNode)
                                       : ListAddLastItem(oCategory.Get(), oNode->oData);
            if (bDone != TRUE) return FALSE;
        }
        oNode = oNext;
    }
    if (ListSort(oCategory.Get(), ProcCompareRunOrder) != TRUE) return FALSE;
    *poCategory = oCategory.Take();
    return TRUE;
}

// The insertion point in the list of one category, which is not empty; null when it is not there.
ListNodeO ProcFindPoint(ListO oCategory, const ProcPlaceT& tPlace) {
    if (tPlace.pstrPoint == nullptr)
        return tPlace.bBefore == TRUE ? oCategory->oFirst : oCategory->oLast;
    ListNodeO oNode = oCategory->oFirst;
    while (oNode != nullptr &&
           StrCompareNoCase(ProcStanzaAt(oNode)->pstrTitle, tPlace.pstrPoint) != 0)
        oNode = oNode->oNext;
    return oNode;
}

BooleanT ProcInsertIntoList(ListO oFileList, ObjStanzaO oNew, const ProcPlaceT& tPlace) {
    ObjHolder<ListS> oCategory;
    if (ProcTakeCategory(oCategory.Address(), oFileList, ObjGetStanza(oNew)) != TRUE) return FALSE;
    if (oCategory.Get()->lItemCount == 0)
        return BooleanFrom(tPlace.pstrPoint == nullptr && ProcSetRunOrder(oNew, 0) == TRUE &&
                           ListAddLastItem(oFileList, oNew) == TRUE);
    ListNodeO oPoint = ProcFindPoint(oCategory.Get(), tPlace);
    ListNodeO oFilePoint = nullptr;
    if (oPoint == nullptr || ListFindNode(&oFilePoint, oFileList, oPoint->oData) != TRUE ||
        ProcInsertBeside(oFilePoint, oNew, tPlace.bBefore) != TRUE ||
        ProcInsertBeside(oPoint, oNew, tPlace.bBefore) != TRUE)
        return FALSE;
    int32 lOrder = 0;
    for (ListNodeO oNode = oCategory.Get()->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (ProcSetRunOrder(static_cast<ObjStanzaO>(oNode->oData), ++lOrder) != TRUE) return FALSE;
    }
    return TRUE;
}

BooleanT ProcIsConfiguredHere() {
    PoolPtr<char> pstrClient;
    PoolPtr<char> pstrServer;
    return BooleanFrom(CfgUtilDoRemote(pstrClient.Address(), pstrServer.Address(), acManagerFile,
                                       nullptr) != TRUE);
}

BooleanT ProcInsertIntoFile(ObjStanzaO oNew, const ProcPlaceT& tPlace) {
    const PoolPtr<char> pstrPath(CfgBuildPath(acManagerFile));
    StnzFileO oFile = nullptr;
    if (ProcIsConfiguredHere() != TRUE ||
        StnzOpenFile(&oFile, pstrPath.Get(), StnzFileModeUpdate) != TRUE)
        return FALSE;
    ObjHolder<ListS> oList;
    const bool bSaved = StnzFileLoadStanzaList(oList.Address(), oFile) == TRUE &&
                        ProcInsertIntoList(oList.Get(), oNew, tPlace) == TRUE &&
                        StnzFileSaveStanzaList(oList.Get(), oFile) == TRUE;
    return BooleanFrom(StnzCloseFile(&oFile) == TRUE && bSaved);
}

// Takes the stanza.
BooleanT ProcInsertStanza(CfgStanzaHolder& tStanza, const ProcPlaceT& tPlace) {
    ObjHolder<ObjStanzaS> oStanza(ObjStanzaNew(*tStanza.Address()));
    if (oStanza.Get() == nullptr) return FALSE;
    *tStanza.Address() = nullptr;
    const StnzT* pStanza = ObjGetStanza(oStanza.Get());
    const BooleanT bResult = ProcInsertIntoFile(oStanza.Get(), tPlace);
    if (bResult != TRUE)
        TraceMessageInline(40, 0, -1, "Failed to insert '%s' into list '%s'", pStanza->pstrTitle,
                           pStanza->pstrCatagory);
    return bResult;
}

BooleanT ProcNewStanza(StnzT** ppStanza, const char* pstrCatagory, const char* pstrProgram,
                       BooleanT bRunOnServer, BooleanT bRunOnClient) {
    return BooleanFrom(
        pstrProgram != nullptr && *pstrProgram != '\0' &&
        StnzCreate(ppStanza, pstrCatagory, pstrProgram, 0) == TRUE &&
        StnzSetKeywordFromBoolean(ppStanza, "Run on Server", bRunOnServer, TRUE) == TRUE &&
        StnzSetKeywordFromBoolean(ppStanza, "Run on Client", bRunOnClient, TRUE) == TRUE);
}

}  // namespace

BooleanT ProcInsertSODProcess(const char* pstrNewEntry, BooleanT bRunOnServer,
                              BooleanT bRunOnClient, BooleanT bWaitForReady, BooleanT bOptional,
                              BooleanT bInsertBefore, const char* pstrInsertPoint) {
    CfgStanzaHolder tStanza;
    StnzT** ppStanza = tStanza.Address();
    if (ProcNewStanza(ppStanza, acStartOfDay, pstrNewEntry, bRunOnServer, bRunOnClient) != TRUE ||
        StnzSetKeywordFromBoolean(ppStanza, "Optional", bOptional, TRUE) != TRUE ||
        StnzSetKeywordFromBoolean(ppStanza, "Wait for Ready", bWaitForReady, TRUE) != TRUE)
        return FALSE;
    return ProcInsertStanza(tStanza, {bInsertBefore, pstrInsertPoint});
}

BooleanT ProcAddSODProcessToEnd(const char* pstrNewEntry, BooleanT bRunOnServer,
                                BooleanT bRunOnClient, BooleanT bWaitForReady, BooleanT bOptional) {
    return ProcInsertSODProcess(pstrNewEntry, bRunOnServer, bRunOnClient, bWaitForReady, bOptional,
                                FALSE, nullptr);
}

BooleanT ProcAddSODProcessToBegining(const char* pstrNewEntry, BooleanT bRunOnServer,
                                     BooleanT bRunOnClient, BooleanT bWaitForReady,
                                     BooleanT bOptional) {
    return ProcInsertSODProcess(pstrNewEntry, bRunOnServer, bRunOnClient, bWaitForReady, bOptional,
                                TRUE, nullptr);
}

BooleanT ProcInsertEODProcess(const char* pstrNewEntry, BooleanT bRunOnServer,
                              BooleanT bRunOnClient, int32 lExitDelay, BooleanT bInsertBefore,
                              const char* pstrInsertPoint) {
    CfgStanzaHolder tStanza;
    StnzT** ppStanza = tStanza.Address();
    if (ProcNewStanza(ppStanza, acEndOfDay, pstrNewEntry, bRunOnServer, bRunOnClient) != TRUE ||
        (lExitDelay != 0 && StnzSetKeywordFromInteger(ppStanza, "Wait", lExitDelay, TRUE) != TRUE))
        return FALSE;
    return ProcInsertStanza(tStanza, {bInsertBefore, pstrInsertPoint});
}

BooleanT ProcAddEODProcessToEnd(const char* pstrNewEntry, BooleanT bRunOnServer,
                                BooleanT bRunOnClient, int32 lExitDelay) {
    return ProcInsertEODProcess(pstrNewEntry, bRunOnServer, bRunOnClient, lExitDelay, FALSE,
                                nullptr);
}

BooleanT ProcAddEODProcessToBegining(const char* pstrNewEntry, BooleanT bRunOnServer,
                                     BooleanT bRunOnClient, int32 lExitDelay) {
    return ProcInsertEODProcess(pstrNewEntry, bRunOnServer, bRunOnClient, lExitDelay, TRUE,
                                nullptr);
}
