// Tools that describe the machine and its configuration files. Texts, lists and objects that come
// back through an out-parameter are the caller's unless it is said otherwise.
#pragma once

#include "core/object.h"
#include "core/types.h"

constexpr int32 CfgPageMagic = ObjMagic(0xc9210640);
constexpr int32 HostDetailsMagic = ObjMagic(0xc920964a);

// A page of the configuration editor, descriptor "s;i;o;b;".
struct CfgPageS {
    char* pstrPageName;
    int32 lPageNameId;  // number of the page's localised name
    ListO oFileNames;   // string objects: the files that the page shows
    BooleanT bScrollbars;
};
using CfgPageO = CfgPageS*;

// Descriptor "o;o;".
struct HostDetailsS {
    ListO oHostNames;  // string objects
    ListO oIpAddrs;    // NetAddressO
};
using HostDetailsO = HostDetailsS*;

BooleanT CfgGetTesselName(const char** ppstrName);  // the local machine's name; not to be freed
BooleanT CfgGetHostDetails(HostDetailsO* poDetails);

// The first line of the file "RELEASEDEF" in the home directory.
BooleanT CfgGetTesselVersion(char** ppstrVersion);
BooleanT CfgGetSystemVersion(char** ppstrSystem);  // a sentence, always TRUE
// Name, release and machine type of the operating system; each result may be null.
BooleanT CfgGetSystemVersionInfo(char** ppstrSystem, char** ppstrVersion, char** ppstrHardware);

// The pages that the configuration files define, in order of first appearance.
BooleanT CfgGetPages(ListO* poPageList);
BooleanT CfgGetSafeRemotePages(ListO* poPageList);  // without "encryption"

// --- steps of CfgGetPages: callbacks of a directory scan, a list walk and a list search ---

BooleanT CfgIsConfigFile(const char* pstrDirectory, const char* pstrName, void* pvFileNames);
BooleanT CfgHasPageDef(void* pvPageList, ListNodeO oFileName);
BooleanT CfgFindPageName(void* pvPageName, void* oPage);
