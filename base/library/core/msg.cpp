// Start and end of messaging. At the end every channel is closed in order, after which only what
// the peers do counts. The classes of the layer are declared from the table of msginternal.h, all
// of them, before any packet can bring an object of one.
#include "core/msg.h"

#include "core/cfgserver.h"
#include "core/cfgutil.h"
#include "core/list.h"
#include "core/log.h"
#include "core/machineinfo.h"
#include "core/net.h"
#include "core/procapi.h"
#include "core/process.h"
#include "core/procinit.h"
#include "core/strdynam.h"
#include "core/task.h"
#include "core/trace.h"
#include "loginternal.h"
#include "msgchannelinternal.h"
#include "netinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

struct MsgClassT {
    int32 lMagic;
    int32 lSize;  // bytes of the record
    const char* pstrDescriptor;
    const char* pstrName;
};

#define MSG_CLASS_ROW(name, descriptor) \
    {name##Magic, static_cast<int32>(sizeof(name##S)), name##Descriptor, #name},
constexpr MsgClassT atMsgClasses[] = {
    MSG_CLASSES(MSG_CLASS_ROW)
    // Of other modules, which look into them when a message has brought one.
    {NetInheritContextMagic, sizeof(NetInheritContextS), NetInheritDescriptor, "NetInheritContext"},
    {ObjDStringMagic, sizeof(ObjDStringS), "d;i;o;", "ObjDString"},
    {CfgUtilRemoteConfigDetailsMagic, sizeof(CfgUtilRemoteConfigDetailsS), "s;s;o;",
     "CfgUtilRemoteConfigDetails"},
    {CfgSvrConfigRequestMagic, sizeof(CfgSvrConfigRequestS), CfgSvrConfigRequestDescriptor,
     "CfgSvrConfigRequest"},
    {CfgSvrConfigReplyMagic, sizeof(CfgSvrConfigReplyS), CfgSvrConfigReplyDescriptor,
     "CfgSvrConfigReply"},
    {CfgStnzMagic, sizeof(CfgStnzS), CfgStnzDescriptor, "CfgStnz"},
    {CfgStnzKeyMagic, sizeof(CfgStnzKeyS), CfgStnzKeyDescriptor, "CfgStnzKey"},
    {NmgrGetCurrentMachineDetailsRequestMagic, sizeof(NmgrGetCurrentMachineDetailsRequestS),
     NmgrGetCurrentMachineDetailsRequestDescriptor, "NmgrGetCurrentMachineDetailsRequest"},
    {NmgrGetCurrentMachineDetailsResponseMagic, sizeof(NmgrGetCurrentMachineDetailsResponseS),
     NmgrGetCurrentMachineDetailsResponseDescriptor, "NmgrGetCurrentMachineDetailsResponse"},
    {logdMessageMagic, sizeof(logdMessageS), LogMessageDescriptor, "logdMessage"},
    {logdCriteriaMagic, sizeof(logdCriteriaS), LogCriteriaDescriptor, "logdCriteria"},
    {logdRequestEntriesMagic, sizeof(logdRequestEntriesS), LogRequestDescriptor,
     "logdRequestEntries"},
};
#undef MSG_CLASS_ROW

TimeTimeoutO goImmediate = nullptr;

// So that no stream can bring one in another shape.
BooleanT MsgCreateTemplates() {
    for (const MsgClassT& tClass : atMsgClasses) {
        ObjTemplateT tTemplate = nullptr;
        ObjSetObjName(tClass.lMagic, tClass.pstrName);
        if (ObjTemplateCreateInternal(&tTemplate, tClass.lSize, tClass.lMagic,
                                      tClass.pstrDescriptor, nullptr) != TRUE)
            return FALSE;
    }
    return TRUE;
}

// Waits until every channel has sent what it has and its peer has closed. Signals do not end it.
void MsgLingerAll() {
    ObjHolder<TimeTimeoutS> oTimeout;
    if (TimeCreateAndSetTimeout(oTimeout.Address(), MsgConnectionSeconds, 0) != TRUE) return;
    MsgLingerChannels();
    TesselContextMsgS& tMsg = MsgState();
    TraceMessageInline(14, 0, 4, "Lingering %d data channels", tMsg.oLingerList->lItemCount);
    NetErrorE eError = NET_ERROR_NONE;
    while (tMsg.oLingerList->lItemCount > 0 &&
           (eError == NET_ERROR_NONE || eError == NET_ERROR_INTERRUPTED)) {
        TraceMessageInline(15, 0, 4, "Still have '%d' channels lingered",
                           tMsg.oLingerList->lItemCount);
        int32 lReady = 0;
        NetCopySelectMask(tMsg.tSelectMaskCopy, tMsg.tSelectMask);
        eError = NetSelect(&lReady, tMsg.tSelectMaskCopy, oTimeout.Get());
        TraceMessageInline(16, 0, 4, "Linger select returned '%d'", eError);
        if (eError == NET_ERROR_NONE) MsgServeLingering(tMsg.tSelectMaskCopy);
    }
    TraceMessageInline(17, 0, 4, "Release oTimeout");
}

}  // namespace

TimeTimeoutO MsgImmediate() { return goImmediate; }

BooleanT MsgInitialize() {
    if (goImmediate == nullptr &&
        (TimeCreateTimeout(&goImmediate) != TRUE || TimeSetTimeoutImmediate(goImmediate) != TRUE))
        return FALSE;
    MsgReadSettings();
    return BooleanFrom(MsgCreateTemplates() == TRUE && MsgAddressInitialize() == TRUE);
}

BooleanT MsgInitializeThread(TesselContextT* ptTlContext) {
    if (ptTlContext->sMsg.oChannels != nullptr) return TRUE;
    return BooleanFrom(MsgCreateChannelState() == TRUE && MsgLocalAddressInitialize() == TRUE &&
                       MsgInitializeNames() == TRUE);
}

BooleanT MsgChannelInitialize() { return MsgInitializeThread(ContextGet()); }

void MsgReleaseThread(TesselContextT* ptTlContext) {
    TesselContextMsgS& tMsg = ptTlContext->sMsg;
    ObjRelease(&tMsg.oReceiveList);
    MsgReleaseConnecting();
    if (tMsg.oChannels != nullptr && tMsg.bQuickExit != TRUE) MsgLingerAll();
    MsgReleaseChannels();
    TraceMessageInline(11, 0, 4, "Release oLocalAddress");
    MsgLocalAddressRelease();
    TraceMessageInline(12, 0, 4, "Release oNotifyOnDeathList");
    ObjRelease(&tMsg.oNotifyOnDeathList);
    ObjRelease(&tMsg.oTaskList);
    ObjRelease(&tMsg.oHandlers);
    NetReleaseSelectMask(&tMsg.tSelectMask);
    NetReleaseSelectMask(&tMsg.tSelectMaskCopy);
    MsgReleaseNames();
    tMsg.bInitialized = FALSE;
    TraceMessageInline(13, 0, 4, "Finished MsgReleaseThread");
}

void MsgQuickExit(BooleanT bBeQuick) { MsgState().bQuickExit = bBeQuick; }
