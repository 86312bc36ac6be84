// What the machine and its configuration files say about themselves.
#include "core/cfgtools.h"

#include <sys/utsname.h>

#include <array>
#include <string_view>

#include "cfgvalue.h"
#include "core/cfg.h"
#include "core/dirscan.h"
#include "core/list.h"
#include "core/locale.h"
#include "core/net.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/strfile.h"
#include "core/sys.h"
#include "core/trace.h"

TRACE_MODULE("CONFIG")
MEM_DEFAULT_POOL_CACHE

namespace {

// The files that may define pages of the configuration editor.
constexpr std::array<std::string_view, 7> atPageFiles = {
    "configure.cfg", "estimator.cfg",  "procmgr.cfg", "programs.cfg",
    "brisk.cfg",     "timeserver.cfg", "version.cfg",
};

constexpr char acPageStanza[] = "Configurator";

void CfgStoreCopy(char** ppstrResult, const char* pstrText) {
    if (ppstrResult != nullptr) *ppstrResult = StrDuplicate(pstrText);
}

BooleanT CfgAddString(ListO oList, const char* pstrText) {
    ObjHolder<ObjStringS> oText(ObjStringNew(pstrText));
    return ListPushLastItem(oList, oText.Address());
}

}  // namespace

BooleanT CfgGetTesselName(const char** ppstrName) {
    if (ppstrName == nullptr) return FALSE;
    *ppstrName = SysLocalMachineName();
    return BooleanFrom(*ppstrName != nullptr);
}

BooleanT CfgGetHostDetails(HostDetailsO* poDetails) {
    if (poDetails == nullptr) return FALSE;
    char acHost[4096];
    ObjHolder<HostDetailsS> oDetails(ObjNew<HostDetailsS>(HostDetailsMagic, "o;o;"));
    if (oDetails.Get() == nullptr || NetGetLocalHostName(acHost, sizeof(acHost)) != TRUE ||
        NetGetHostDetails(acHost, &oDetails.Get()->oHostNames, &oDetails.Get()->oIpAddrs) != TRUE) {
        return FALSE;
    }
    *poDetails = oDetails.Take();
    return TRUE;
}

BooleanT CfgGetTesselVersion(char** ppstrVersion) {
    const PoolPtr<char> pstrPath(PathHomeBuild("RELEASEDEF", nullptr));
    FileStreamO oFile = nullptr;
    if (ppstrVersion == nullptr || pstrPath.Get() == nullptr ||
        FileStreamOpen(&oFile, pstrPath.Get(), FileModeReadBinary) != TRUE) {
        TraceMessageInline(14, 0, -1, "Failed to open release definition file");
        return FALSE;
    }
    char acLine[1024];
    const int32 lLength = StrFileReadLine(oFile, acLine, sizeof(acLine));
    FileStreamClose(&oFile);
    if (lLength < 0) {
        TraceMessageInline(15, 0, -1, "Failed to read release name");
        return FALSE;
    }
    *ppstrVersion = StrDuplicate(acLine);
    return TRUE;
}

BooleanT CfgGetSystemVersion(char** ppstrSystem) {
    struct utsname tSystem {};
    if (uname(&tSystem) != 0) {
        CfgStoreCopy(ppstrSystem, LocaleGetStaticString("System Info Unavailable", 446));
        return TRUE;
    }
    const PoolPtr<char> pstrText(
        StrCat(tSystem.sysname, " ", LocaleGetStaticString("Release", 443), " ", tSystem.release,
               " ", LocaleGetStaticString("Version", 444), " ", tSystem.version, " ",
               LocaleGetStaticString("on a", 445), " ", tSystem.machine, nullptr));
    CfgStoreCopy(ppstrSystem, pstrText.Get());
    return TRUE;
}

BooleanT CfgGetSystemVersionInfo(char** ppstrSystem, char** ppstrVersion, char** ppstrHardware) {
    struct utsname tSystem {};
    if (uname(&tSystem) != 0) return FALSE;
    CfgStoreCopy(ppstrSystem, tSystem.sysname);
    CfgStoreCopy(ppstrVersion, tSystem.release);
    CfgStoreCopy(ppstrHardware, tSystem.machine);
    return TRUE;
}

// --- pages ---

BooleanT CfgGetPages(ListO* poPageList) {
    if (poPageList == nullptr) return FALSE;
    const PoolPtr<char> pstrDirectory(PathHomeBuild("config", nullptr));
    TraceMessageInline(16, 0, 4, "Configuration directory '%s'", pstrDirectory.Get());
    ObjHolder<ListS> oFileNames(ListNew(ObjStringMagic));
    ObjHolder<ListS> oPages(ListNew(CfgPageMagic));
    if (DirScan(pstrDirectory.Get(), CfgIsConfigFile, oFileNames.Get()) != TRUE) return FALSE;
    if (oFileNames.Get()->oFirst != nullptr &&
        ListWalk(oFileNames.Get(), CfgHasPageDef, oPages.Get()) != TRUE) {
        return FALSE;
    }
    *poPageList = oPages.Take();
    return TRUE;
}

BooleanT CfgGetSafeRemotePages(ListO* poPageList) {
    if (CfgGetPages(poPageList) != TRUE) return FALSE;
    ListNodeO oNext = nullptr;
    for (ListNodeO oNode = (*poPageList)->oFirst; oNode != nullptr; oNode = oNext) {
        oNext = oNode->oNext;
        const auto* oPage = static_cast<CfgPageO>(oNode->oData);
        if (StrCompareNoCase(oPage->pstrPageName, "encryption") == 0) ListRemoveItem(oNode);
    }
    return TRUE;
}

BooleanT CfgIsConfigFile(const char* /*pstrDirectory*/, const char* pstrName, void* pvFileNames) {
    for (const std::string_view tPageFile : atPageFiles) {
        if (tPageFile != pstrName) continue;
        TraceMessageInline(17, 0, 4, "Adding '%s' as config file", pstrName);
        return CfgAddString(static_cast<ListO>(pvFileNames), pstrName);
    }
    return TRUE;
}

BooleanT CfgHasPageDef(void* pvPageList, ListNodeO oFileName) {
    auto* oPages = static_cast<ListO>(pvPageList);
    const char* pstrFileName = ObjGetString(static_cast<ObjStringO>(oFileName->oData));
    CfgStanzaHolder tStanza;
    if (CfgGetStanza(tStanza.Address(), pstrFileName, acPageStanza) != TRUE) return TRUE;
    TraceMessageInline(18, 0, 4, "Found page definition!");
    PoolPtr<char> pstrPageName;
    StnzGetString(tStanza.Get(), "Page Name", nullptr, pstrPageName.Address());
    if (pstrPageName.Get() == nullptr) return TRUE;
    TraceMessageInline(19, 0, 4, "Page name = '%s'", pstrPageName.Get());
    ListNodeO oNode = nullptr;
    if (ListSearch(oPages, CfgFindPageName, pstrPageName.Get(), &oNode) == TRUE) {
        TraceMessageInline(20, 0, 4, "Adding to existing page: '%s'", pstrPageName.Get());
        return CfgAddString(static_cast<CfgPageO>(oNode->oData)->oFileNames, pstrFileName);
    }
    TraceMessageInline(21, 0, 4, "Creating new page: '%s'", pstrPageName.Get());
    ObjHolder<CfgPageS> oPage(ObjNew<CfgPageS>(CfgPageMagic, "s;i;o;b;"));
    if (oPage.Get() == nullptr) return FALSE;
    oPage.Get()->pstrPageName = pstrPageName.Take();
    StnzGetInteger(tStanza.Get(), "Page Name Id", 0, &oPage.Get()->lPageNameId);
    StnzGetBoolean(tStanza.Get(), "Add Scrollbars", FALSE, &oPage.Get()->bScrollbars);
    oPage.Get()->oFileNames = ListNew(ObjStringMagic);
    return BooleanFrom(CfgAddString(oPage.Get()->oFileNames, pstrFileName) == TRUE &&
                       ListPushLastItem(oPages, oPage.Address()) == TRUE);
}

BooleanT CfgFindPageName(void* pvPageName, void* oPage) {
    return BooleanFrom(StrCompare(static_cast<CfgPageO>(oPage)->pstrPageName,
                                  static_cast<const char*>(pvPageName)) == 0);
}
