// Facts about the machines of the installation by name: of the local machine from its
// configuration, of any other from its stanza in "etc/machines.dat" below the home directory.
// FALSE for a machine without a stanza. Texts that come back through a char** are the caller's.
#pragma once

#include "core/object.h"
#include "core/types.h"

enum MachInfoSysTypeE : int32 {
    eMachInfoSysTypeUnix = 0,
    eMachInfoSysTypeWindows = 1,
};

constexpr int32 MachInfoDefaultVersion = 6003;  // major * 1000 + minor

// Whether the local machine's network manager knows the machine; TRUE for the local one. There is
// no connection to network managers yet: FALSE, traced, for any other.
BooleanT MachInfoFind(const char* pstrMachine);

BooleanT MachInfoGetSystemType(MachInfoSysTypeE* peResult,
                               const char* pstrMachine);  // local: unset
BooleanT MachInfoIsTLServer(BooleanT* pbResult, const char* pstrMachine);
BooleanT MachInfoGetDescription(char** ppstrResult, const char* pstrMachine);
BooleanT MachInfoGetTLVersion(int32* plResult, const char* pstrMachine);
BooleanT MachInfoGetTLVersionAndBuild(int32* plResult, const char* pstrMachine);  // * 1000 + build
BooleanT MachInfoGetTLPatchLevel(int32* plResult, const char* pstrMachine);
BooleanT MachInfoGetPreferredAddr(char** ppstrResult, const char* pstrMachine);
BooleanT MachInfoGetContactAddr(char** ppstrResult, const char* pstrMachine);

int32 MachInfoTLVersionMajorFromTLVersion(int32 lTLVersion);
int32 MachInfoTLVersionMinorFromTLVersion(int32 lTLVersion);
BooleanT MachInfoTLVersionMajor(int32* plResult, const char* pstrMachine);
BooleanT MachInfoTLVersionMinor(int32* plResult, const char* pstrMachine);
// "6.03" for 6003. One buffer for all calls: valid until the next one. The second form gives null
// for a machine without a stanza.
const char* MachInfoTLVersionStringFromTLVersion(int32 lTLVersion);
const char* MachInfoTLVersionString(const char* pstrMachine);
