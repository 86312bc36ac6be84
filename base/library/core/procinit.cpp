// Joining the managed processes. What the arguments say is put into the context first, so that the
// interprocess link introduces the process under its id; then comes the handshake: packets are
// taken until the shared memory is there or nothing more can come. Those of other types are kept,
// the newest first, which is the order in which they are put back in front of the receive list.
#include "core/procinit.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <string>

#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/procapi.h"
#include "core/strbase.h"
#include "core/syssignal.h"
#include "core/trace.h"
#include "msginternal.h"

TRACE_MODULE("PROCESS")
MEM_DEFAULT_POOL_CACHE

namespace {

// Tags of the arguments.
enum ProcTagE : int32 {
    ProcTagTraceLevel = 0,
    ProcTagWaitForTask = 3,
    ProcTagWithProgress = 4,
    ProcTagViewer = 5,
    ProcTagTraceFile = 6,
    ProcTagProcId = 7,
};

constexpr ProcIdT ProcNoParent = -1;

bool ProcHasText(const char* pstrText) { return pstrText != nullptr && *pstrText != '\0'; }

const char* ProcShown(const char* pstrText) { return pstrText == nullptr ? "" : pstrText; }

// --- the arguments ---

// A text that is one integer and nothing behind it.
bool ProcReadId(ProcIdT* ptId, const char* pstrId) {
    char* pstrEnd = nullptr;
    errno = 0;
    const long long llId = std::strtoll(pstrId, &pstrEnd, 10);
    if (pstrEnd == pstrId || *pstrEnd != '\0' || errno != 0 || llId > INT_MAX || llId < -INT_MAX)
        return false;
    *ptId = static_cast<ProcIdT>(llId);
    return true;
}

// A negative id is that of the parent, which waits for a word of this process.
bool ProcTakeId(ProcInitializeArgsO oArguments, ProcIdT* ptParent) {
    if (oArguments->pstrProcId == nullptr) {
        oArguments->pstrProcId = StrDuplicateIntoPool("0", MemPool());
        oArguments->bIsAdopted = TRUE;
    }
    if (oArguments->pstrProcId == nullptr ||
        !ProcReadId(&oArguments->lProcId, oArguments->pstrProcId))
        return false;
    if (oArguments->lProcId < 0) {
        *ptParent = -oArguments->lProcId;
        oArguments->lProcId = 0;
        oArguments->bIsAdopted = TRUE;
    }
    TesselContextProcessS& tProcess = gtTlContext.sProcess;
    tProcess.bIsAdopted = oArguments->bIsAdopted;
    tProcess.bNewStyleTasks = oArguments->bNewStyleTasks;
    tProcess.bIAmAProxy = oArguments->bIAmAProxy;
    tProcess.tId = oArguments->lProcId;
    return true;
}

void ProcStartTrace(const ProcInitializeArgsS& tArguments) {
    if (ProcHasText(tArguments.pstrTraceFile)) {
        std::string tFile = tArguments.pstrTraceFile;
        if (tArguments.bUseTraceName == TRUE) {
            PoolPtr<char> pstrOld(gtTlContext.sProcess.pstrTraceName);
            gtTlContext.sProcess.pstrTraceName = StrDuplicateIntoPool(tFile.c_str(), MemPool());
            tFile += ".log";
        }
        TraceToFile(tFile.c_str());
    }
    TraceSetLevel(static_cast<TraceLevelE>(tArguments.lTraceLevel));
    TraceMessageInline(230, 0, -1, "ProcInitializeTags(%d, %s, %s, %s, %s, %s, %s, %d)",
                       tArguments.lProcId, BooleanText(tArguments.bWaitForTask),
                       BooleanText(tArguments.bWithProgress), BooleanText(tArguments.bViewer),
                       BooleanText(tArguments.bIsAdopted), BooleanText(tArguments.bIAmAProxy),
                       ProcShown(tArguments.pstrTraceFile), tArguments.lTraceLevel);
}

// --- the first word to the process manager ---

void ProcFillStatus(PmgrProcessStatusO oStatus, const ProcInitializeArgsS& tArguments) {
    oStatus->eStatus = eProcStatusAlive;
    if (tArguments.bIsAdopted == TRUE) {
        const bool bThread = ContextIsThreaded() == TRUE;
        oStatus->eStatus = bThread ? eProcStatusAdoptThread : eProcStatusAdoptMe;
        oStatus->tRealProcessId = ProcGetRealId();
        if (bThread) oStatus->tThreadId = ProcGetThreadId();
    }
    oStatus->bProgress = tArguments.bWithProgress;
    oStatus->bViewer = tArguments.bViewer;
}

bool ProcSendInitialStatus(const ProcInitializeArgsS& tArguments) {
    const ObjHolder<PmgrProcessInitialStatusS> oInitial(ObjNew<PmgrProcessInitialStatusS>(
        PmgrProcessInitialStatusMagic, PmgrProcessInitialStatusDescriptor));
    auto* oStatus = ObjNew<PmgrProcessStatusS>(PmgrProcessStatusMagic, PmgrProcessStatusDescriptor);
    ObjHolder<PmgrProcessStatusS> oHolder(oStatus);
    if (oInitial.Get() == nullptr || oStatus == nullptr) {
        TraceMessageInline(231, 1, -1, "failed to create status object");
        return false;
    }
    ProcFillStatus(oStatus, tArguments);
    oInitial.Get()->oLegacyStatus = oHolder.Take();
    if (tArguments.bNewStyleTasks == TRUE) {
        TraceMessageInline(232, 0, 4, "This process will expect new style tasks");
        oInitial.Get()->lStatusFlags |= PmgrStatusNewStyleTasks;
    }
    TraceMessageInline(233, 0, 4, "Send initial status obj");
    if (MsgSendObject(MsgProcMgrAddress(), PMGR_PROCESS_INITIAL_STATUS_MSG, oInitial.Get()) == TRUE)
        return true;
    TraceMessageInline(234, 1, -1, "Failed to send initial status");
    return false;
}

// --- the handshake ---

enum class ProcHandshakeE { GoesOn, Attached, Failed };

void ProcTakeLocale(MsgPacketO oPacket) {
    ObjHolder<PmgrSetLocaleS> oBody;
    if (MsgObjectFromPacket(oBody.Address(), oPacket, PmgrSetLocaleMagic) != TRUE) {
        TraceMessageInline(235, 1, -1, "Bad/No object in PMGR_SET_LOCALE_MSG");
    } else if (oBody.Get()->pstrLocale == nullptr) {
        TraceMessageInline(236, 1, -1, "No locale in PMGR_SET_LOCALE_MSG");
    } else if (LocaleSetLocale(oBody.Get()->pstrLocale) != TRUE) {
        TraceMessageInline(237, 1, -1, "Failed to set '%s' from PMGR_SET_LOCALE_MSG",
                           oBody.Get()->pstrLocale);
    }
}

ProcHandshakeE ProcTakeAttach(MsgPacketO oPacket, const ProcInitializeArgsS& tArguments) {
    if (ProcAttachSharedMemory(oPacket, tArguments.bViewer) != TRUE) {
        TraceMessageInline(238, 1, -1, "Failed to attach shared memory");
        return ProcHandshakeE::Failed;
    }
    ProcSendStatus(tArguments.bWaitForTask == TRUE ? eProcStatusTaskRequired : eProcStatusActive);
    return ProcHandshakeE::Attached;
}

ProcHandshakeE ProcTakePacket(MsgPacketO* poPacket, ListO oDeferred,
                              const ProcInitializeArgsS& tArguments) {
    const MsgTypeT tMsgType = MsgPacketMsgType(*poPacket);
    switch (tMsgType) {
        case PMGR_ATTACH_TO_SHM_MSG:
            return ProcTakeAttach(*poPacket, tArguments);
        case PMGR_SET_LOCALE_MSG:
            ProcTakeLocale(*poPacket);
            return ProcHandshakeE::GoesOn;
        case MSG_LOST_RECEIVE_QUEUE_MSG:
        case MSG_LOST_SEND_QUEUE_MSG:
        case MSG_UNEXPECTED_RECEIVE_ERROR_MSG:
        case MSG_UNEXPECTED_SEND_ERROR_MSG:
        case MSG_FATAL_SELECT_ERROR_MSG:  // it would come again with every turn of the loop
            TraceMessageInline(239, 1, -1, "Message subsystem has failed (%d)", tMsgType);
            return ProcHandshakeE::Failed;
        default:
            TraceMessageInline(244, 0, 4, "Defer message type %d for later processing", tMsgType);
            return ListPushFirstItem(oDeferred, poPacket) == TRUE ? ProcHandshakeE::GoesOn
                                                                  : ProcHandshakeE::Failed;
    }
}

bool ProcHandshake(const ProcInitializeArgsS& tArguments) {
    const ObjHolder<ListS> oDeferred(ListNew(MsgPacketMagic));
    ProcHandshakeE eHandshake =
        oDeferred.Get() == nullptr ? ProcHandshakeE::Failed : ProcHandshakeE::GoesOn;
    while (eHandshake == ProcHandshakeE::GoesOn) {
        ObjHolder<MsgPacketS> oPacket;
        if (MsgReceivePacket(oPacket.Address(), nullptr) == TRUE)
            eHandshake = ProcTakePacket(oPacket.Address(), oDeferred.Get(), tArguments);
    }
    MsgPushPackets(oDeferred.Get());
    return eHandshake == ProcHandshakeE::Attached;
}

bool ProcJoin(const ProcInitializeArgsS& tArguments) {
    if (ProcGetId() != MsgCommunicationsManagerId)
        return ProcSendInitialStatus(tArguments) && ProcHandshake(tArguments);
    ProcSetName("Communication Manager");
    return true;
}

// --- all of it ---

void ProcTellParent(ProcIdT tParent) {
    ObjHolder<MsgAddressS> oParent;
    const ObjHolder<MsgChildInitializedS> oBody(
        ObjNew<MsgChildInitializedS>(MsgChildInitializedMagic, MsgChildInitializedDescriptor));
    if (oBody.Get() == nullptr ||
        MsgCreateAddress(oParent.Address(), MsgGetMachineName(MsgLocalAddress()), tParent) != TRUE)
        return;
    oBody.Get()->tId = ProcGetId();
    oBody.Get()->tRealId = ProcGetRealId();
    MsgSendObject(oParent.Get(), MSG_CHILD_INITIALIZED_MSG, oBody.Get());
    ProcInformOnDeath(oParent.Get());
}

bool ProcBecomeManaged(ProcInitializeArgsO oArguments) {
    ProcIdT tParent = ProcNoParent;
    if (!ProcTakeId(oArguments, &tParent)) return false;
    ProcStartTrace(*oArguments);
    ProcSetCrash();
    const bool bThreaded = ContextIsThreaded() == TRUE;
    if (MsgMakeLocalAddress() != TRUE) return false;
    if (oArguments->bIsAdopted != TRUE && !bThreaded) SigSet(SIGTERM, ProcCleanup);
    if (MsgIpcConnect(bThreaded ? eMsgProcTypeThread : eMsgProcTypeProcess) != TRUE) return false;
    const bool bJoined = ProcJoin(*oArguments);
    if (ProcHasText(oArguments->pstrTitle)) ProcSetTitle(oArguments->pstrTitle);
    if (ProcHasText(oArguments->pstrName)) ProcSetName(oArguments->pstrName);
    ProcSetDefaultTraceLevel();
    if (bJoined && tParent != ProcNoParent) ProcTellParent(tParent);
    return bJoined;
}

}  // namespace

ProcInitializeArgsO ProcNewInitializeArgs() {
    if (ContextInitialize() != TRUE) return nullptr;
    return ObjNew<ProcInitializeArgsS>(ProcInitializeArgsMagic, ProcInitializeArgsDescriptor);
}

BooleanT ProcInitializeArgs(ProcInitializeArgsO* poArguments) {
    if (poArguments == nullptr ||
        ObjCheckTypeInternal(*poArguments, ProcInitializeArgsMagic) != TRUE)
        return FALSE;
    const SigHandlerT fnPrevious = SigGet(SIGTERM);
    const ProcInitializeArgsS& tArguments = **poArguments;
    const BooleanT bResult = BooleanFrom(ProcBecomeManaged(*poArguments));
    TraceMessageInline(245, 0, bResult == TRUE ? 4 : -1,
                       "%s = ProcInitializeTags(%d, %s, %s, %s, %s, %s, %d)", BooleanText(bResult),
                       tArguments.lProcId, BooleanText(tArguments.bWaitForTask),
                       BooleanText(tArguments.bWithProgress), BooleanText(tArguments.bViewer),
                       BooleanText(tArguments.bIsAdopted), ProcShown(tArguments.pstrTraceFile),
                       tArguments.lTraceLevel);
    ObjRelease(poArguments);
    ProcSetTraceFile();
    if (bResult == TRUE) {
        MemFree(&gtTlContext.sProcess.ptObjCountBase);
        ObjGetObjectCounts(&gtTlContext.sProcess.ptObjCountBase);
        return TRUE;
    }
    // From here on a clean-up would find the library half released.
    SigSet(SIGTERM, fnPrevious);
    ProcRelease(EXIT_FAILURE);
    return FALSE;
}

BooleanT ProcInitialize(const char* pstrMyId, BooleanT bWaitForTask) {
    return ProcInitializeTags(OBJ_TAG_BEGIN, ProcTagProcId, pstrMyId, ProcTagWaitForTask,
                              bWaitForTask, OBJ_TAG_END);
}

BooleanT ProcInitializeWithTrace(const char* pstrMyId, BooleanT bWaitForTask,
                                 const char* pstrTraceFile, TraceLevelE eLevel) {
    return ProcInitializeTags(OBJ_TAG_BEGIN, ProcTagProcId, pstrMyId, ProcTagWaitForTask,
                              bWaitForTask, ProcTagTraceFile, pstrTraceFile, ProcTagTraceLevel,
                              eLevel, OBJ_TAG_END);
}

BooleanT ProcInitializeWithProgress(const char* pstrMyId, BooleanT bWaitForTask,
                                    const char* pstrTraceFile, TraceLevelE eLevel) {
    return ProcInitializeTags(OBJ_TAG_BEGIN, ProcTagProcId, pstrMyId, ProcTagWaitForTask,
                              bWaitForTask, ProcTagTraceFile, pstrTraceFile, ProcTagTraceLevel,
                              eLevel, ProcTagWithProgress, TRUE, OBJ_TAG_END);
}

BooleanT ProcInitializeThread(const char* pstrTraceFile, TraceLevelE eLevel) {
    if (ContextIsThreaded() != TRUE) return FALSE;
    return ProcInitializeTags(OBJ_TAG_BEGIN, ProcTagTraceFile, pstrTraceFile, ProcTagTraceLevel,
                              eLevel, OBJ_TAG_END);
}

BooleanT ProcInitializeThreadWithProgress(const char* pstrTraceFile, TraceLevelE eLevel) {
    if (ContextIsThreaded() != TRUE) return FALSE;
    return ProcInitializeTags(OBJ_TAG_BEGIN, ProcTagTraceFile, pstrTraceFile, ProcTagTraceLevel,
                              eLevel, ProcTagWithProgress, TRUE, OBJ_TAG_END);
}

BooleanT ProcInitializeViewer(ProcProcessTableT** pptTable, ByteT** pptDetails,
                              const char* pstrTraceFile, TraceLevelE eLevel) {
    if (ProcInitializeTags(OBJ_TAG_BEGIN, ProcTagTraceFile, pstrTraceFile, ProcTagTraceLevel,
                           eLevel, ProcTagViewer, TRUE, OBJ_TAG_END) != TRUE)
        return FALSE;
    if (pptTable != nullptr) *pptTable = gtTlContext.sProcess.ptProcessTable;
    if (pptDetails != nullptr)
        *pptDetails = static_cast<ByteT*>(gtTlContext.sProcess.ptSharedMemoryBase);
    return TRUE;
}
