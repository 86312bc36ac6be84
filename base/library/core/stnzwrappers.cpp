// Typed values in stanzas. Each type has one reader, of a key, and one maker of a key; what works
// on a stanza finds the key and reads it, or makes the key and adds it.
//
// The directory scan is a callback over the snapshot of a directory: loading leaves lock files
// beside the files, and a snapshot does not meet them.
#include "core/stnzwrappers.h"

#include <sys/stat.h>

#include "core/dirscan.h"
#include "core/filebase.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stnzbase.h"
#include "core/stnzfile.h"
#include "core/strbase.h"
#include "core/trace.h"

TRACE_MODULE("STANZA")
MEM_DEFAULT_POOL_CACHE

namespace {

// The first key of the keyword; null when there is none.
StnzKeyT* FindKey(StnzT* ptStanza, const char* pstrKeyword) {
    StnzKeyT* ptKey = nullptr;
    StnzGetKey(&ptKey, ptStanza, pstrKeyword);
    return ptKey;
}

// Value 1 as a number, the default when it is none.
template <class T>
BooleanT GetNumber(StnzKeyT* ptKey, T tDefault, T* ptValue,
                   BooleanT (*fnConvert)(const char*, T*)) {
    if (ptValue == nullptr) return FALSE;
    const char* pstrValue = StnzKeyValue(ptKey, 1);
    if (pstrValue == nullptr || fnConvert(pstrValue, ptValue) != TRUE) *ptValue = tDefault;
    return TRUE;
}

BooleanT NewKey(StnzKeyT** ppKey, const char* pstrKeyword, int32 lValues) {
    if (pstrKeyword == nullptr || *pstrKeyword == 0) return FALSE;
    return StnzCreateKey(ppKey, pstrKeyword, lValues);
}

// Adds the key that fnCreate makes, or puts it in the place of those of its keyword.
template <class CreateT>
BooleanT SetKeyword(StnzT** pptStanza, const char* pstrKeyword, BooleanT bReplace,
                    CreateT fnCreate) {
    if (pptStanza == nullptr || *pptStanza == nullptr || pstrKeyword == nullptr) return FALSE;
    StnzKeyT* ptKey = nullptr;
    if (fnCreate(&ptKey) != TRUE) return FALSE;
    const BooleanT bResult = bReplace == TRUE ? StnzReplaceKeyInStanza(pptStanza, &ptKey)
                                              : StnzAddKeyToStanza(pptStanza, &ptKey);
    StnzReleaseKey(&ptKey);
    return bResult;
}

// --- directory scan ---

bool IsLockFile(const char* pstrName) {
    const char* pstrDot = StrLastCharMatch(pstrName, '.');
    return pstrDot != nullptr && StrCompare(pstrDot, ".lck") == 0;
}

bool HasExtension(const char* pstrName, const char* pstrExtension) {
    if (pstrExtension == nullptr || *pstrExtension == 0) return true;
    const char* pstrLast = nullptr;
    while ((pstrName = StrFindSubString(pstrName, pstrExtension)) != nullptr) {
        pstrLast = pstrName;
        StrGetChar(&pstrName);
    }
    return pstrLast != nullptr && pstrLast[StrSizeNoTerm(pstrExtension)] == 0;
}

enum EntryE { eEntryFile, eEntryDirectory, eEntryOther };

EntryE KindOf(const char* pstrPath) {
    FileStatT tStat;
    if (FileStat(&tStat, pstrPath, FALSE) != TRUE) return eEntryFile;  // loading will tell
    if (S_ISDIR(tStat.lMode)) return eEntryDirectory;
    if (S_ISLNK(tStat.lMode) && FileStat(&tStat, pstrPath, TRUE) != TRUE) return eEntryFile;
    return S_ISREG(tStat.lMode) ? eEntryFile : eEntryOther;
}

BooleanT ScanFile(const char* pstrPath, StnzScanForStnzListsContextO oContext) {
    ObjHolder<ListS> oList;
    if (StnzLoadStanzaListFromFile(oList.Address(), pstrPath) == TRUE) {
        TraceMessageInline(6, 0, 3, "Loaded stanz list file '%s'", pstrPath);
        return ListPushLastItem(oContext->oAddToList, oList.Address());
    }
    if (oContext->bContinueOnBadFile == TRUE) {
        TraceMessageInline(
            7, 0, 3, "Could not interpret file as stanza list. Continuing scan. ('%s')", pstrPath);
        return TRUE;
    }
    TraceMessageInline(8, 0, -1, "Could not interpret file as stanza list. Failing. ('%s')",
                       pstrPath);
    return FALSE;
}

BooleanT ScanEntry(const char* pstrDirectory, const char* pstrName, void* pCookie) {
    auto* oContext = static_cast<StnzScanForStnzListsContextO>(pCookie);
    PoolPtr<char> pstrPath(PathBuild(pstrDirectory, pstrName, nullptr));
    const EntryE eKind = KindOf(pstrPath.Get());
    if (eKind == eEntryDirectory) return DirScan(pstrPath.Get(), ScanEntry, pCookie);
    if (eKind == eEntryOther) return TRUE;
    if (IsLockFile(pstrName)) {
        TraceMessageInline(4, 0, 4, "StnzScanForStnzListsCB() - Ignore .lck file '%s'", pstrName);
        return TRUE;
    }
    if (!HasExtension(pstrName, oContext->pstrFileExtension)) {
        TraceMessageInline(5, 0, 4, "StnzScanForStnzListsCB() - Ignore file '%s'", pstrName);
        return TRUE;
    }
    return ScanFile(pstrPath.Get(), oContext);
}

}  // namespace

BooleanT StnzKeyGetString(StnzKeyT* ptKey, const char* pstrDefault, char** ppstrValue) {
    if (ppstrValue == nullptr) return FALSE;
    *ppstrValue =
        StrDuplicateIntoPool(ptKey == nullptr ? pstrDefault : StnzKeyValue(ptKey, 1), MemPool());
    return TRUE;
}

BooleanT StnzKeyGetInteger(StnzKeyT* ptKey, int32 lDefault, int32* plValue) {
    return GetNumber(ptKey, lDefault, plValue, StrToInteger);
}

BooleanT StnzKeyGetInt64(StnzKeyT* ptKey, int64 tDefault, int64* ptValue) {
    return GetNumber(ptKey, tDefault, ptValue, StrToInt64);
}

BooleanT StnzKeyGetBoolean(StnzKeyT* ptKey, BooleanT bDefault, BooleanT* pValue) {
    if (pValue == nullptr) return FALSE;
    *pValue = ptKey == nullptr ? bDefault
                               : BooleanFrom(StrCompareNoCase(StnzKeyValue(ptKey, 1), "true") == 0);
    return TRUE;
}

BooleanT StnzKeyGetValueList(StnzKeyT* ptKey, ListO* poValueList) {
    if (ptKey == nullptr || poValueList == nullptr) return FALSE;
    ObjHolder<ListS> oList(ListNew(ObjStringMagic));
    for (int32 l = 0; l < ptKey->lValueCount; ++l) {
        ObjHolder<ObjStringS> oValue(ObjStringNew(ptKey->apstrValues[l]));
        if (ListPushLastItem(oList.Get(), oValue.Address()) != TRUE) return FALSE;
    }
    *poValueList = oList.Take();
    return TRUE;
}

BooleanT StnzGetString(StnzT* pStanza, const char* pstrKeyword, const char* pstrDefault,
                       char** ppstrValue) {
    return StnzKeyGetString(FindKey(pStanza, pstrKeyword), pstrDefault, ppstrValue);
}

BooleanT StnzGetInteger(StnzT* pStanza, const char* pstrKeyword, int32 lDefault, int32* plValue) {
    return StnzKeyGetInteger(FindKey(pStanza, pstrKeyword), lDefault, plValue);
}

BooleanT StnzGetInt64(StnzT* pStanza, const char* pstrKeyword, int64 tDefault, int64* ptValue) {
    return StnzKeyGetInt64(FindKey(pStanza, pstrKeyword), tDefault, ptValue);
}

BooleanT StnzGetBoolean(StnzT* pStanza, const char* pstrKeyword, BooleanT bDefault,
                        BooleanT* pValue) {
    return StnzKeyGetBoolean(FindKey(pStanza, pstrKeyword), bDefault, pValue);
}

BooleanT StnzGetValueList(StnzT* pStanza, const char* pstrKeyword, ListO* poValueList) {
    return StnzKeyGetValueList(FindKey(pStanza, pstrKeyword), poValueList);
}

BooleanT StnzCreateKeyFromString(StnzKeyT** ppKey, const char* pstrKeyword, const char* pstrValue) {
    if (NewKey(ppKey, pstrKeyword, 1) != TRUE) return FALSE;
    return StnzAddValueToKey(ppKey, pstrValue);
}

BooleanT StnzCreateKeyFromInteger(StnzKeyT** ppKey, const char* pstrKeyword, int32 lValue) {
    PoolPtr<char> pstrValue;
    StrFromInteger(pstrValue.Address(), lValue);
    return StnzCreateKeyFromString(ppKey, pstrKeyword, pstrValue.Get());
}

BooleanT StnzCreateKeyFromInt64(StnzKeyT** ppKey, const char* pstrKeyword, int64 llValue) {
    PoolPtr<char> pstrValue;
    StrFromInt64(pstrValue.Address(), llValue);
    return StnzCreateKeyFromString(ppKey, pstrKeyword, pstrValue.Get());
}

BooleanT StnzCreateKeyFromBoolean(StnzKeyT** ppKey, const char* pstrKeyword, BooleanT bValue) {
    return StnzCreateKeyFromString(ppKey, pstrKeyword, bValue == TRUE ? "true" : "false");
}

BooleanT StnzCreateKeyFromValueList(StnzKeyT** ppKey, const char* pstrKeyword, ListO oValueList) {
    if (ListIsList(oValueList) != TRUE ||
        NewKey(ppKey, pstrKeyword, oValueList->lItemCount) != TRUE) {
        return FALSE;
    }
    for (ListNodeO oNode = oValueList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        if (ObjCheckTypeInternal(oNode->oData, ObjStringMagic) != TRUE) {
            TraceMessageInline(2, 0, 3, "Not an ObjStringO");
            continue;
        }
        StnzAddValueToKey(ppKey, static_cast<ObjStringO>(oNode->oData)->pstrValue);
    }
    return TRUE;
}

BooleanT StnzSetKeywordFromString(StnzT** pptStanza, const char* pstrKeyword, const char* pstrValue,
                                  BooleanT bReplace) {
    return SetKeyword(pptStanza, pstrKeyword, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromString(ppKey, pstrKeyword, pstrValue);
    });
}

BooleanT StnzSetKeywordFromInteger(StnzT** pptStanza, const char* pstrKeyword, int32 lValue,
                                   BooleanT bReplace) {
    return SetKeyword(pptStanza, pstrKeyword, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromInteger(ppKey, pstrKeyword, lValue);
    });
}

BooleanT StnzSetKeywordFromBoolean(StnzT** pptStanza, const char* pstrKeyword, BooleanT bValue,
                                   BooleanT bReplace) {
    return SetKeyword(pptStanza, pstrKeyword, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromBoolean(ppKey, pstrKeyword, bValue);
    });
}

BooleanT StnzSetKeywordFromValueList(StnzT** pptStanza, const char* pstrKeyword, ListO oValueList,
                                     BooleanT bReplace) {
    return SetKeyword(pptStanza, pstrKeyword, bReplace, [&](StnzKeyT** ppKey) {
        return StnzCreateKeyFromValueList(ppKey, pstrKeyword, oValueList);
    });
}

BooleanT StnzScanDirForStnzLists(ListO* poStnzLists, const char* pstrDir,
                                 const char* pstrFileExtension, BooleanT bContinueOnBadFile) {
    if (poStnzLists == nullptr || pstrDir == nullptr || *pstrDir == 0) {
        TraceMessageInline(3, 0, -1, "StnzScanDirForStnzLists() - bad params %p %s %s",
                           static_cast<void*>(poStnzLists), pstrDir == nullptr ? "" : pstrDir,
                           pstrFileExtension == nullptr ? "" : pstrFileExtension);
        return FALSE;
    }
    ObjHolder<StnzScanForStnzListsContextS> oContext(
        ObjNew<StnzScanForStnzListsContextS>(StnzScanForStnzListsContextMagic, "o;s;b;"));
    ObjHolder<ListS> oLists(ListNew());
    if (oContext.Get() == nullptr || oLists.Get() == nullptr) return FALSE;
    ObjIncRefCount(oLists.Get());
    oContext.Get()->oAddToList = oLists.Get();
    oContext.Get()->pstrFileExtension = StrDuplicateIntoPool(pstrFileExtension, MemPool());
    oContext.Get()->bContinueOnBadFile = bContinueOnBadFile;
    if (DirScan(pstrDir, ScanEntry, oContext.Get()) != TRUE) {
        TraceMessageInline(10, 0, -1, "Failed to scan dir '%s' for stanza lists", pstrDir);
        return FALSE;
    }
    TraceMessageInline(9, 0, 4, "Found %d stanz list files in '%s'", oLists.Get()->lItemCount,
                       pstrDir);
    *poStnzLists = oLists.Take();
    return TRUE;
}
