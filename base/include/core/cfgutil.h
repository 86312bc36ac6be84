// Whether a configuration request is answered here or by another machine's configuration server.
#pragma once

#include "core/object.h"
#include "core/types.h"

constexpr int32 CfgUtilRemoteConfigDetailsMagic = ObjMagic(0xca46d3ab);

// Travels in the context of a task that is done for another machine, descriptor "s;s;o;".
struct CfgUtilRemoteConfigDetailsS {
    char* pstrServer;  // machine that holds the configuration
    char* pstrClient;  // machine whose configuration is meant
    ListO oExtList;    // reserved
};
using CfgUtilRemoteConfigDetailsO = CfgUtilRemoteConfigDetailsS*;

// TRUE, with copies of both names, which are the caller's, when the current task names a client and
// a server and the file has a map file. pstrAltMapFilePath: directory of map files; null for
// "config/map" below the home directory.
BooleanT CfgUtilDoRemote(char** ppstrClientName, char** ppstrServerName, const char* pstrConfigFile,
                         const char* pstrAltMapFilePath);
BooleanT CfgUtilDoRemoteFromProcContext(char** ppstrClientName, char** ppstrServerName);
BooleanT CfgUtilDoRemoteFromMapFile(const char* pstrConfigFileName,
                                    const char* pstrAlternativeMapFilePath);
// The map file is named like the configuration file with ".map" behind it; only its existence
// counts.
BooleanT CfgUtilMapFileExists(const char* pstrCfgFileName, const char* pstrAltPath);

// The file in the directory pstrAltPath below the home directory, without one in "config"; the
// caller's.
char* CfgUtilBuildPath(const char* pstrStanzaFile, const char* pstrAltPath);
