// What a process asks of process managers: tasks for services, the end of processes, notice of
// their death, their state; and the context that it gives other processes.
//
// Requests check what they are given; FALSE, with nothing sent, for what is no address. Where an
// address is that of a channel, the process at its remote end is meant.
#pragma once

#include "core/msgbase.h"
#include "core/object.h"
#include "core/types.h"

BooleanT ProcApiInitialize();
BooleanT ProcApiInitializeThread(TesselContextT* ptTlContext);
void ProcApiReleaseThread(TesselContextT* ptTlContext);

// --- addresses of services (ProcAddressS in msgbase.h) ---

// A new object, the caller's, with copies of the names, which may be null.
BooleanT ProcCreateAddress(ProcAddressO* poAddress, const char* pstrMachineName,
                           const char* pstrProcessName, int32 lInterfaceType);
// The address's own text; null and 0 for what is no address.
const char* ProcGetProcessNameFromAddress(ProcAddressO oAddress);
int32 ProcGetInterfaceTypeFromAddress(ProcAddressO oAddress);
// Same interface type and same names, compared without regard to case; null equals null only.
BooleanT ProcAddressEqual(ProcAddressO oAddressA, ProcAddressO oAddressB);

// --- errors and states ---

// What an lErrorCode of PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG says.
enum ProcErrorE : int32 {
    eProcErrorUnknown = -1,
    eProcErrorNone = 0,
    eProcErrorStartingProcess = 1,
    eProcErrorShutdown = 2,
    eProcErrorSecurity = 3,
    eProcErrorPassword = 4,
    eProcErrorNoProgress = 5,
    eProcErrorCancelled = 6,
    eProcErrorInvalidArguments = 7,
    eProcErrorGuiProxyDied = 8,
    eProcErrorMachineUnavailable = 9,
    eProcErrorNoGuiConnection = 10,
    eProcErrorUnsupportedInterface = 11,
    eProcErrorTooManyProcesses = 12,
    eProcErrorAlreadyRunning = 13,
    eProcErrorSpawnFailed = 14,
    eProcErrorUnresolvedName = 15,
    eProcErrorAdoptFailed = 16,
    eProcErrorMachineUnreachable = 17,
    eProcErrorMachineUnknown = 18,
    eProcErrorTransmission = 19,
    eProcErrorNoRemoteControl = 20,
    eProcErrorPluginDied = 21,
};

// Localised; not to be freed. The text for any other code holds until the next such call.
const char* ProcErrorString(int32 lErrorCode);

// The state of a process as its manager keeps it.
enum ProcStateE : int32 {
    eProcStateUnknown = -1,
    eProcStateCreating = 0,
    eProcStateInitializing = 1,
    eProcStateReady = 2,  // waits for a task
    eProcStateBusy = 3,
    eProcStateDying = 4,
    eProcStateZombie = 5,
    eProcStateRestartService = 6,
};

const char* ProcProcessStateDescription(ProcStateE eState);  // "Invalid" for any other value

// --- tasks ---

constexpr int32 ProcGiveTaskArgsMagic = ObjMagic(0xca97214c);
struct ProcGiveTaskArgsS {  // descriptor "s;s;b;o;i;"; a field's number is its tag
    char* pstrLocale;
    char* pstrPassword;
    BooleanT bSavePassword;
    void* oUserData;  // no tag sets an object
    int32 lCookie;
};
using ProcGiveTaskArgsO = ProcGiveTaskArgsS*;

// Asks the process manager of the address's machine to have the service do a task. The answer comes
// as PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG (PmgrGiveServiceATaskReturnS) with the cookie, also when
// the request could not be sent: then the result is FALSE and the answer comes from this process.
// Locale, password and user data may be null. A context object travels in the task's context, in
// addition to what the current task's context holds.
BooleanT ProcGiveServiceATaskExt(ProcAddressO oProcAddress, const char* pstrLocale,
                                 const char* pstrPassword, BooleanT bSavePassword, void* oUserData,
                                 int32 lCookie, void* oContextObject);
BooleanT ProcGiveServiceATask(ProcAddressO oProcAddress, const char* pstrLocale,
                              const char* pstrPassword, BooleanT bSavePassword, void* oUserData,
                              int32 lCookie);
// The cookie is a number of its own for every such call of the process: 0, 1, ... It is set also
// when the request fails; plUniqueID may be null.
BooleanT ProcGiveServiceATaskWithID(int32* plUniqueID, ProcAddressO oProcAddress,
                                    const char* pstrLocale, const char* pstrPassword,
                                    BooleanT bSavePassword, void* oUserArguments);
BooleanT ProcGiveServiceATaskArgs(ProcAddressO oProcAddress, ProcGiveTaskArgsO oArguments);
ProcGiveTaskArgsO ProcNewGiveTaskArgs();  // all empty; null on failure

// ProcGiveServiceATaskTags(o, OBJ_TAG_BEGIN, 0, "French", 4, lCookie, OBJ_TAG_END)
template <class... A>
BooleanT ProcGiveServiceATaskTags(ProcAddressO oProcAddress, OBJ_TAG tFirstTag, A... tTags) {
    const ObjHolder<ProcGiveTaskArgsS> oArguments(ProcNewGiveTaskArgs());
    if (oArguments.Get() == nullptr) return FALSE;
    ObjSetFromTagsVA(oArguments.Get(), tFirstTag, tTags...);
    return ProcGiveServiceATaskArgs(oProcAddress, oArguments.Get());
}

// --- processes ---

constexpr int32 PmgrKillProcessMagic = ObjMagic(0xc9c6bd79);
struct PmgrKillProcessS {  // PMGR_KILL_PROCESS_MSG, descriptor "o;i;"
    MsgAddressO oAddress;
    int32 lKillType;  // the process manager's
};
using PmgrKillProcessO = PmgrKillProcessS*;

constexpr int32 PmgrGetProcessStateMagic = ObjMagic(0xc9c6bddf);
struct PmgrGetProcessStateS {  // PMGR_GET_PROCESS_STATE_MSG, descriptor "o;"
    MsgAddressO oAddress;
};
using PmgrGetProcessStateO = PmgrGetProcessStateS*;

constexpr int32 PmgrGetProcessStateReturnMagic = ObjMagic(0xc9c6be03);
struct PmgrGetProcessStateReturnS {  // PMGR_GET_PROCESS_STATE_RETURN_MSG, descriptor "o;i;"
    MsgAddressO oAddress;
    int32 eState;  // a ProcStateE
};
using PmgrGetProcessStateReturnO = PmgrGetProcessStateReturnS*;

// Asks the process manager of the address's machine to end the process.
BooleanT ProcKillProcess(MsgAddressO oAddress, int32 lKillType);
// Asks this machine's process manager for PMGR_PROCESS_DIED_MSG when the process ends, and not to
// send it after all.
BooleanT ProcInformOnDeath(MsgAddressO oAddress);
BooleanT ProcCancelInformOnDeath(MsgAddressO oAddress);
// Asks the process manager of that machine, and waits for its answer as long as that takes. FALSE
// for a null machine and when there is no answer.
BooleanT ProcIsProcessRunning(int32 lProcId, const char* pstrMachine);
// Gives the process an object for its context, in the place of one of the same class. FALSE, with
// nothing sent, to a machine that is not known to be of version 7 or later.
BooleanT ProcSetProcessContextObject(MsgAddressO oAddress, void* oObject);
