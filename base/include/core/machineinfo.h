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

// Has the local machine's network manager look for the machine, so that its stanza is there
// afterwards where the manager can get it; nothing to do for the local one. TRUE when the manager
// has answered. That may take its time: the call waits until then, or until a notice says that
// there is no manager, while other messages are handled (msgwait.h).
BooleanT MachInfoFind(const char* pstrMachine);

// What travels then.
constexpr int32 NmgrGetCurrentMachineDetailsRequestMagic = ObjMagic(0xc93eaade);
constexpr char NmgrGetCurrentMachineDetailsRequestDescriptor[] = "s;o;";
struct NmgrGetCurrentMachineDetailsRequestS {
    char* pstrMachine;
    void* oExtension;
};
using NmgrGetCurrentMachineDetailsRequestO = NmgrGetCurrentMachineDetailsRequestS*;

constexpr int32 NmgrGetCurrentMachineDetailsResponseMagic = ObjMagic(0xc93eab54);
constexpr char NmgrGetCurrentMachineDetailsResponseDescriptor[] = "b;s;i;o;";
struct NmgrGetCurrentMachineDetailsResponseS {
    BooleanT bSuccess;  // the manager has the machine's details
    char* pstrMachine;
    int32 lStatus;
    void* oExtension;
};
using NmgrGetCurrentMachineDetailsResponseO = NmgrGetCurrentMachineDetailsResponseS*;

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
