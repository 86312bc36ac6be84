// Configuration in this machine's files. Every operation opens its file, works under the file's
// lock and closes it again; nothing is remembered between two calls, so a change by another process
// is seen by the next one.
#include "core/cfglocal.h"

#include "cfgvalue.h"
#include "core/cfgutil.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stnzfile.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("CFGLOCAL")
MEM_DEFAULT_POOL_CACHE

namespace {

// Keyword under which the displayable layout keeps an item's value.
constexpr char acValueKeyword[] = "value";

// An open stanza file inside a function.
class StnzFileCloser {
 public:
    StnzFileCloser() = default;
    ~StnzFileCloser() { Close(); }
    StnzFileCloser(const StnzFileCloser&) = delete;
    StnzFileCloser& operator=(const StnzFileCloser&) = delete;
    StnzFileO Get() const { return m_oFile; }
    StnzFileO* Address() { return &m_oFile; }
    BooleanT Close() { return m_oFile == nullptr ? FALSE : StnzCloseFile(&m_oFile); }

 private:
    StnzFileO m_oFile = nullptr;
};

// The first key of that keyword in the stanza of that name, named as the caller spells it.
BooleanT CfgFindKey(StnzKeyT** ppKey, StnzFileO oFile, const char* pstrCatagory,
                    const char* pstrTitle, const char* pstrKeyword) {
    PoolPtr<char> pstrArgument;
    return BooleanFrom(StnzFindStanza(oFile, pstrCatagory, pstrTitle) == TRUE &&
                       StnzFindKeywordInStanza(oFile, pstrKeyword) == TRUE &&
                       StnzCurrentArgument(pstrArgument.Address(), oFile) == TRUE &&
                       StnzAddValues(ppKey, pstrKeyword, pstrArgument.Get()) == TRUE);
}

// Reads an item from a file. Both layouts are looked for under one lock.
BooleanT CfgReadKey(StnzKeyT** ppKey, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                    const char* pstrKeyword, const char* pstrAltPath) {
    if (ppKey == nullptr || pstrStanzaTitle == nullptr || pstrKeyword == nullptr) return FALSE;
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    StnzFileCloser tFile;
    if (StnzOpenFile(tFile.Address(), pstrPath.Get(), StnzFileModeRead) != TRUE) return FALSE;
    if (CfgFindKey(ppKey, tFile.Get(), pstrStanzaTitle, pstrKeyword, acValueKeyword) == TRUE)
        return TRUE;
    TraceMessageInline(1, 0, 3, "Trying to load key '%s' from stanza '%s'", pstrKeyword,
                       pstrStanzaTitle);
    return CfgFindKey(ppKey, tFile.Get(), nullptr, pstrStanzaTitle, pstrKeyword);
}

// Writes an item in the layout that it has. fnMakeKey makes the key of the keyword that it is
// given.
template <class MakeKey>
BooleanT CfgWriteKey(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                     const char* pstrKeyword, const char* pstrAltPath, MakeKey fnMakeKey) {
    if (pstrStanzaFile == nullptr || pstrStanzaTitle == nullptr || pstrKeyword == nullptr)
        return FALSE;
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    CfgKeyHolder tKey;
    if (CfgLocalGotCategory(pstrPath.Get(), pstrStanzaTitle, pstrKeyword) == TRUE) {
        TraceMessageInline(2, 0, 0, "Replacing displayable stanza");
        if (fnMakeKey(tKey.Address(), acValueKeyword) != TRUE) return FALSE;
        return CfgLocalAddKey(pstrPath.Get(), pstrStanzaTitle, pstrKeyword, tKey.Address(), TRUE);
    }
    TraceMessageInline(3, 0, 0, "Replacing non-displayable stanza");
    if (fnMakeKey(tKey.Address(), pstrKeyword) != TRUE) return FALSE;
    return CfgLocalAddKey(pstrPath.Get(), nullptr, pstrStanzaTitle, tKey.Address(), TRUE);
}

BooleanT CfgRewriteStanza(const char* pstrPath, StnzT* pStanza) {
    StnzFileCloser tFile;
    if (StnzOpenFile(tFile.Address(), pstrPath, StnzFileModeUpdate) != TRUE) return FALSE;
    TraceMessageInline(4, 0, 4, "Opened stanza file %s", pstrPath);
    const BooleanT bReplaced = StnzFileReplaceStanza(tFile.Get(), pStanza);
    return BooleanFrom(tFile.Close() == TRUE && bReplaced == TRUE);
}

// The first string of the list that is equal to pstrText; null when there is none.
ListNodeO CfgFindEntry(ListO oList, const char* pstrText, BooleanT bNoCase) {
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        const char* pstrItem = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        const int32 lOrder =
            bNoCase == TRUE ? StrCompareNoCase(pstrItem, pstrText) : StrCompare(pstrItem, pstrText);
        if (lOrder == 0) return oNode;
    }
    return nullptr;
}

// Puts the list into the stanza as its value and rewrites the stanza. Closing the file completes
// the change.
BooleanT CfgSaveEntries(StnzFileCloser* ptFile, StnzT** ppStanza, ListO oList) {
    TraceMessageInline(5, 0, 4, "Create new key");
    if (StnzSetKeywordFromValueList(ppStanza, acValueKeyword, oList, TRUE) != TRUE) return FALSE;
    const BooleanT bReplaced = StnzFileReplaceStanza(ptFile->Get(), *ppStanza);
    return BooleanFrom(ptFile->Close() == TRUE && bReplaced == TRUE);
}

// Traces an operation that failed.
BooleanT CfgReport(int32 lNumber, BooleanT bResult, const char* pstrOperation) {
    if (bResult != TRUE) TraceMessageInline(lNumber, 0, -1, "%s returned FALSE", pstrOperation);
    return bResult;
}

}  // namespace

char* CfgLocalBuildPath(const char* pstrFileName) {
    return pstrFileName == nullptr ? nullptr : PathHomeBuild("config", pstrFileName, nullptr);
}

BooleanT CfgLocalGetStanza(StnzT** ppStanza, const char* pstrStanzaFile,
                           const char* pstrStanzaTitle, const char* pstrAltPath) {
    TraceMessageInline(6, 0, 4, "CfgLocalGetStanza");
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    return CfgReport(7, StnzLoadStanzaFromFile(ppStanza, pstrPath.Get(), nullptr, pstrStanzaTitle),
                     "CfgLocalGetStanza");
}

BooleanT CfgLocalGetStanzaList(ListO* poList, const char* pstrStanzaFile, const char* pstrAltPath) {
    TraceMessageInline(8, 0, 4, "CfgLocalGetStanzaList");
    BooleanT bResult = FALSE;
    if (pstrStanzaFile != nullptr && *pstrStanzaFile != '\0') {
        const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
        bResult = StnzLoadStanzaListFromFile(poList, pstrPath.Get());
    }
    return CfgReport(9, bResult, "CfgLocalGetStanzaList");
}

BooleanT CfgLocalReplaceStanzaList(const char* pstrStanzaFile, ListO oList,
                                   const char* pstrAltPath) {
    TraceMessageInline(10, 0, 1, "CfgLocalReplaceStanzaList");
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    return CfgReport(11, StnzSaveStanzaListToFile(oList, pstrPath.Get()),
                     "CfgLocalReplaceStanzaList");
}

BooleanT CfgLocalAddStanza(StnzT* pStanza, const char* pstrStanzaFile, const char* pstrAltPath) {
    TraceMessageInline(12, 0, 4, "CfgLocalAddStanza");
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    return CfgReport(13, StnzAddStanzaToFile(pStanza, pstrPath.Get()), "CfgLocalAddStanza");
}

BooleanT CfgLocalReplaceStanza(StnzT* pStanza, const char* pstrStanzaFile,
                               const char* pstrAltPath) {
    TraceMessageInline(14, 0, 4, "CfgLocalReplaceStanza");
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    return CfgReport(15, StnzReplaceStanzaInFile(pStanza, pstrPath.Get()), "CfgLocalReplaceStanza");
}

BooleanT CfgLocalRemoveStanza(const char* pstrCatagory, const char* pstrStanzaFile,
                              const char* pstrTitle, const char* pstrAltPath) {
    TraceMessageInline(16, 0, -1, "CfgLocalRemoveStanza");
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    return CfgReport(17, StnzRemoveStanzaFromFile(pstrCatagory, pstrTitle, pstrPath.Get()),
                     "CfgLocalRemoveStanza");
}

// --- reading items ---

BooleanT CfgLocalGetKey(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                        const char* pstrKeyword, StnzKeyT** ppKey, const char* pstrAltPath) {
    TraceMessageInline(18, 0, 4, "CfgLocalGetKey");
    return CfgReadKey(ppKey, pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath);
}

BooleanT CfgLocalGetString(char** ppstrValue, const char* pstrStanzaFile,
                           const char* pstrStanzaTitle, const char* pstrKeyword,
                           const char* pstrAltPath, const char* pstrDefault) {
    CfgKeyHolder tKey;
    CfgReadKey(tKey.Address(), pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath);
    return CfgKeyToString(ppstrValue, tKey.Get(), pstrDefault);
}

BooleanT CfgLocalGetInteger(int32* plValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, const char* pstrAltPath, int32 lDefault) {
    CfgKeyHolder tKey;
    CfgReadKey(tKey.Address(), pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath);
    return CfgKeyToInteger(plValue, tKey.Get(), lDefault);
}

BooleanT CfgLocalGetInt64(int64* pllValue, const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, const char* pstrAltPath, int64 llDefault) {
    CfgKeyHolder tKey;
    CfgReadKey(tKey.Address(), pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath);
    return CfgKeyToInt64(pllValue, tKey.Get(), llDefault);
}

BooleanT CfgLocalGetBoolean(BooleanT* pbValue, const char* pstrStanzaFile,
                            const char* pstrStanzaTitle, const char* pstrKeyword,
                            const char* pstrAltPath, BooleanT bDefault) {
    CfgKeyHolder tKey;
    CfgReadKey(tKey.Address(), pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath);
    return CfgKeyToBoolean(pbValue, tKey.Get(), bDefault);
}

BooleanT CfgLocalGetValueList(ListO* poValueList, const char* pstrStanzaFile,
                              const char* pstrStanzaTitle, const char* pstrKeyword,
                              const char* pstrAltPath) {
    CfgKeyHolder tKey;
    CfgReadKey(tKey.Address(), pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath);
    return CfgKeyToValueList(poValueList, tKey.Get());
}

// --- writing items ---

BooleanT CfgLocalSetString(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                           const char* pstrKeyword, const char* pstrValue,
                           const char* pstrAltPath) {
    TraceMessageInline(19, 0, 4, "CfgLocalSetString");
    return CfgWriteKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath,
                       [&](StnzKeyT** ppKey, const char* pstrName) {
                           return StnzCreateKeyFromString(ppKey, pstrName, pstrValue);
                       });
}

BooleanT CfgLocalSetInteger(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, int32 lValue, const char* pstrAltPath) {
    return CfgWriteKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath,
                       [&](StnzKeyT** ppKey, const char* pstrName) {
                           return StnzCreateKeyFromInteger(ppKey, pstrName, lValue);
                       });
}

BooleanT CfgLocalSetInt64(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                          const char* pstrKeyword, int64 llValue, const char* pstrAltPath) {
    return CfgWriteKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath,
                       [&](StnzKeyT** ppKey, const char* pstrName) {
                           return StnzCreateKeyFromInt64(ppKey, pstrName, llValue);
                       });
}

BooleanT CfgLocalSetBoolean(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                            const char* pstrKeyword, BooleanT bValue, const char* pstrAltPath) {
    return CfgWriteKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath,
                       [&](StnzKeyT** ppKey, const char* pstrName) {
                           return StnzCreateKeyFromBoolean(ppKey, pstrName, bValue);
                       });
}

BooleanT CfgLocalSetValueList(const char* pstrStanzaFile, const char* pstrStanzaTitle,
                              const char* pstrKeyword, ListO oValueList, const char* pstrAltPath) {
    return CfgWriteKey(pstrStanzaFile, pstrStanzaTitle, pstrKeyword, pstrAltPath,
                       [&](StnzKeyT** ppKey, const char* pstrName) {
                           return StnzCreateKeyFromValueList(ppKey, pstrName, oValueList);
                       });
}

// --- values and entries ---

BooleanT CfgLocalAddValueToKey(const char* pstrFileName, const char* pstrStanzaName,
                               const char* pstrKeyName, const char* pstrNewValue,
                               const char* pstrAltPath) {
    if (pstrFileName == nullptr || pstrStanzaName == nullptr || pstrKeyName == nullptr ||
        pstrNewValue == nullptr) {
        return FALSE;
    }
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrFileName, pstrAltPath));
    CfgStanzaHolder tStanza;
    if (StnzLoadStanzaFromFile(tStanza.Address(), pstrPath.Get(), nullptr, pstrStanzaName) != TRUE)
        return FALSE;
    TraceMessageInline(20, 0, 4, "Loaded stanza %s", pstrStanzaName);
    CfgKeyHolder tKey;
    if (StnzGetKey(tKey.Address(), tStanza.Get(), pstrKeyName) == TRUE) {
        StnzRemoveKeyFromStanza(tStanza.Get(), tKey.Get());
    } else if (StnzCreateKey(tKey.Address(), pstrKeyName, 1) != TRUE) {
        return FALSE;
    }
    TraceMessageInline(21, 0, 4, "Loaded key %s", pstrKeyName);
    if (StnzAddValueToKey(tKey.Address(), pstrNewValue) != TRUE ||
        StnzAddKeyToStanza(tStanza.Address(), tKey.Address()) != TRUE) {
        return FALSE;
    }
    return CfgRewriteStanza(pstrPath.Get(), tStanza.Get());
}

BooleanT CfgLocalRemoveValueFromKey(const char* pstrFileName, const char* pstrStanzaName,
                                    const char* pstrKeyName, const char* pstrValueToRemove,
                                    const char* pstrAltPath) {
    if (pstrFileName == nullptr || pstrStanzaName == nullptr || pstrKeyName == nullptr ||
        pstrValueToRemove == nullptr) {
        return FALSE;
    }
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrFileName, pstrAltPath));
    CfgStanzaHolder tStanza;
    StnzKeyT* pKey = nullptr;
    if (StnzLoadStanzaFromFile(tStanza.Address(), pstrPath.Get(), nullptr, pstrStanzaName) !=
            TRUE ||
        StnzGetKey(&pKey, tStanza.Get(), pstrKeyName) != TRUE ||
        StnzDeleteValueFromKey(pKey, pstrValueToRemove, TRUE) != TRUE) {
        return FALSE;
    }
    return CfgRewriteStanza(pstrPath.Get(), tStanza.Get());
}

BooleanT CfgLocalRemoveKey(const char* pstrFileName, const char* pstrStanzaName,
                           const char* pstrKeyName, const char* pstrAltPath) {
    if (pstrFileName == nullptr || pstrStanzaName == nullptr || pstrKeyName == nullptr)
        return FALSE;
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrFileName, pstrAltPath));
    CfgStanzaHolder tStanza;
    if (StnzLoadStanzaFromFile(tStanza.Address(), pstrPath.Get(), nullptr, pstrStanzaName) !=
            TRUE ||
        StnzDeleteKeywordFromStanza(tStanza.Get(), pstrKeyName, FALSE) != TRUE) {
        return FALSE;
    }
    return CfgRewriteStanza(pstrPath.Get(), tStanza.Get());
}

BooleanT CfgLocalAddEntryToValueList(ListO* poValueList, const char* pstrStanzaFile,
                                     const char* pstrStanzaTitle, const char* pstrKeyword,
                                     const char* pstrEntry, BooleanT bUnique, BooleanT bNoCase,
                                     const char* pstrAltPath) {
    if (pstrStanzaFile == nullptr || pstrKeyword == nullptr) return FALSE;
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    StnzFileCloser tFile;
    if (StnzOpenFile(tFile.Address(), pstrPath.Get(), StnzFileModeUpdate) != TRUE) return FALSE;
    CfgStanzaHolder tStanza;
    const bool bFound = StnzFindStanza(tFile.Get(), pstrStanzaTitle, pstrKeyword) == TRUE;
    if ((bFound ? StnzLoadCurrentStanza(tStanza.Address(), tFile.Get())
                : StnzCreate(tStanza.Address(), pstrStanzaTitle, pstrKeyword, 1)) != TRUE) {
        return FALSE;
    }
    ObjHolder<ListS> oList;
    StnzGetValueList(tStanza.Get(), acValueKeyword, oList.Address());
    if (oList.Get() == nullptr) *oList.Address() = ListNew(ObjStringMagic);
    if (bUnique == TRUE) {
        TraceMessageInline(22, 0, 4, "Do not add duplicate entries");
        const ListNodeO oNode = CfgFindEntry(oList.Get(), pstrEntry, bNoCase);
        if (oNode != nullptr) {
            TraceMessageInline(23, 0, 4, "Matched '%s' and '%s'", TraceText(pstrEntry),
                               TraceText(ObjGetString(static_cast<ObjStringO>(oNode->oData))));
            return FALSE;
        }
    }
    ObjHolder<ObjStringS> oEntry(ObjStringNew(pstrEntry));
    if (ListPushLastItem(oList.Get(), oEntry.Address()) != TRUE ||
        CfgSaveEntries(&tFile, tStanza.Address(), oList.Get()) != TRUE) {
        return FALSE;
    }
    if (poValueList != nullptr) *poValueList = oList.Take();
    return TRUE;
}

BooleanT CfgLocalRemoveEntryFromValueList(ListO* poValueList, const char* pstrStanzaFile,
                                          const char* pstrStanzaTitle, const char* pstrKeyword,
                                          const char* pstrEntry, BooleanT bNoCase,
                                          const char* pstrAltPath) {
    if (pstrStanzaFile == nullptr || pstrKeyword == nullptr) return FALSE;
    const PoolPtr<char> pstrPath(CfgUtilBuildPath(pstrStanzaFile, pstrAltPath));
    StnzFileCloser tFile;
    CfgStanzaHolder tStanza;
    ObjHolder<ListS> oList;
    if (StnzOpenFile(tFile.Address(), pstrPath.Get(), StnzFileModeUpdate) != TRUE ||
        StnzFindStanza(tFile.Get(), pstrStanzaTitle, pstrKeyword) != TRUE ||
        StnzLoadCurrentStanza(tStanza.Address(), tFile.Get()) != TRUE ||
        StnzGetValueList(tStanza.Get(), acValueKeyword, oList.Address()) != TRUE) {
        return FALSE;
    }
    const ListNodeO oNode = CfgFindEntry(oList.Get(), pstrEntry, bNoCase);
    if (oNode == nullptr || ListRemoveItem(oNode) != TRUE ||
        CfgSaveEntries(&tFile, tStanza.Address(), oList.Get()) != TRUE) {
        return FALSE;
    }
    if (poValueList != nullptr) *poValueList = oList.Take();
    return TRUE;
}

// --- on a path already built ---

BooleanT CfgLocalAddKey(const char* pstrConfigFileName, const char* pstrStanzaTitle,
                        const char* pstrKeyword, StnzKeyT** pptKey, BooleanT bReplace) {
    return CfgReport(
        24, StnzAddKeyToFile(pstrConfigFileName, pstrStanzaTitle, pstrKeyword, pptKey, bReplace),
        "CfgLocalAddKey");
}

BooleanT CfgLocalGotCategory(const char* pstrFile, const char* pstrTitle, const char* pstrKeyword) {
    CfgStanzaHolder tStanza;
    const BooleanT bDisplayable =
        StnzLoadStanzaFromFile(tStanza.Address(), pstrFile, pstrTitle, pstrKeyword);
    TraceMessageInline(25, 0, 0, "CfgItem %s:%s displayable = '%s'", TraceText(pstrTitle),
                       TraceText(pstrKeyword), BooleanText(bDisplayable));
    return bDisplayable;
}
