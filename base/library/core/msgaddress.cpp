// Addresses, and the numbers that stand for machines inside packets. The machine file is opened for
// each question about another machine: it may change at any time. What stands in it is not
// believed: numbers that have a meaning of their own are nobody's there.
#include <iterator>

#include "cfgvalue.h"
#include "core/cfg.h"
#include "core/context.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/msgchannel.h"
#include "core/path.h"
#include "core/process.h"
#include "core/stnzfile.h"
#include "core/stnzwrappers.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/trace.h"
#include "msginternal.h"

TRACE_MODULE("MESSAGE")

namespace {

// --- well-known addresses ---

enum MsgKnownE {
    eMsgKnownProcessManager,
    eMsgKnownCommunicationsManager,
    eMsgKnownNetworkManager,
    eMsgKnownLogDaemon,
    eMsgKnownAuditor,
    eMsgKnownTunnel,
    eMsgKnownDummyChannel,
};

struct MsgKnownT {
    bool bChannel;
    int32 lId;
};

constexpr MsgKnownT atMsgKnown[] = {
    {false, MsgProcessManagerId},
    {false, MsgCommunicationsManagerId},
    {false, MsgNetworkManagerId},
    {false, MsgLogDaemonId},
    {false, MsgAuditorId},
    {false, MsgTunnelId},
    {true, 0},
};

MsgAddressO aoMsgKnown[std::size(atMsgKnown)];

void MsgAddressRelease() {
    for (MsgAddressO& oAddress : aoMsgKnown) ObjRelease(&oAddress);
}

// --- names of machines ---

bool MsgIsLocalName(const char* pstrName) {
    return StrCompareNoCase(pstrName, SysLocalMachineName()) == 0;
}

char* MsgMachineFilePath() { return PathHomeBuild("etc", "machines.dat", nullptr); }

BooleanT MsgLoadMachine(StnzT** ppStanza, const char* pstrName) {
    const PoolPtr<char> pstrPath(MsgMachineFilePath());
    return StnzLoadStanzaFromFile(ppStanza, pstrPath.Get(), nullptr, pstrName);
}

// 0 for a machine without one.
MsgMachineIdT MsgMachineIdFromFile(const char* pstrName) {
    CfgStanzaHolder tStanza;
    if (MsgLoadMachine(tStanza.Address(), pstrName) != TRUE) return 0;
    MsgMachineIdT tId = 0;
    StnzGetInteger(tStanza.Get(), "Id", 0, &tId);
    return tId > MsgMachineIdLocal ? tId : 0;
}

// Whether the current key and stanza of the file are those of the machine.
BooleanT MsgIsMachineHere(char** ppstrName, StnzFileO oFile, MsgMachineIdT tId) {
    CfgKeyHolder tKey;
    MsgMachineIdT tFound = 0;
    PoolPtr<char> pstrCatagory;
    PoolPtr<char> pstrTitle;
    if (StnzLoadCurrentKey(tKey.Address(), oFile) != TRUE ||
        StrToInteger(StnzKeyValue(tKey.Get(), 1), &tFound) != TRUE || tFound != tId ||
        StnzCurrentTitle(pstrCatagory.Address(), pstrTitle.Address(), oFile) != TRUE ||
        pstrCatagory.Get() != nullptr) {
        return FALSE;
    }
    *ppstrName = pstrTitle.Take();
    return TRUE;
}

BooleanT MsgMachineNameFromFile(char** ppstrName, MsgMachineIdT tId) {
    if (tId <= MsgMachineIdLocal) return FALSE;
    const PoolPtr<char> pstrPath(MsgMachineFilePath());
    StnzFileO oFile = nullptr;
    if (StnzOpenFile(&oFile, pstrPath.Get(), StnzFileModeRead) != TRUE) return FALSE;
    BooleanT bFound = FALSE;
    while (bFound != TRUE && StnzFindKeyword(oFile, "Id") == TRUE)
        bFound = MsgIsMachineHere(ppstrName, oFile, tId);
    StnzCloseFile(&oFile);
    return bFound;
}

BooleanT MsgSetLocalAddress(ProcIdT tProcessId) {
    MsgAddressO oAddress = nullptr;
    if (MsgCreateAddress(&oAddress, SysLocalMachineName(), tProcessId) != TRUE) return FALSE;
    MsgLocalAddressRelease();
    gtTlContext.sMsg.oLocalAddress = oAddress;
    return TRUE;
}

}  // namespace

// --- making addresses ---

BooleanT MsgMakeAddress(MsgAddressO* poAddress, const char* pstrMachineName, ProcIdT tProcessId) {
    if (poAddress == nullptr) return FALSE;
    ObjHolder<MsgAddressS> oAddress(ObjNew<MsgAddressS>(MsgAddressMagic, MsgAddressDescriptor));
    if (oAddress.Get() == nullptr) return FALSE;
    oAddress.Get()->pstrMachineName = StrDuplicate(pstrMachineName);
    oAddress.Get()->tProcessId = tProcessId;
    // A name that could not be copied must not make the address one of a channel.
    if (pstrMachineName != nullptr && oAddress.Get()->pstrMachineName == nullptr) return FALSE;
    *poAddress = oAddress.Take();
    return TRUE;
}

BooleanT MsgCreateAddress(MsgAddressO* poAddress, const char* pstrMachineName, ProcIdT tProcessId) {
    if (pstrMachineName == nullptr) return FALSE;
    return MsgMakeAddress(poAddress, pstrMachineName, tProcessId);
}

BooleanT MsgChannelCreateAddress(MsgAddressO* poAddress, MsgChannelO oChannel) {
    if (ObjCheckTypeInternal(oChannel, MsgChannelMagic) != TRUE) return FALSE;
    return MsgMakeAddress(poAddress, nullptr, MsgChannelId(oChannel));
}

BooleanT MsgAddressInitialize() {
    MsgAddressRelease();
    for (std::size_t iKnown = 0; iKnown < std::size(atMsgKnown); iKnown++) {
        const MsgKnownT& tKnown = atMsgKnown[iKnown];
        const char* pstrName = tKnown.bChannel ? nullptr : SysLocalMachineName();
        if (MsgMakeAddress(&aoMsgKnown[iKnown], pstrName, tKnown.lId) != TRUE) {
            MsgAddressRelease();
            return FALSE;
        }
    }
    return TRUE;
}

MsgAddressO MsgProcMgrAddress() { return aoMsgKnown[eMsgKnownProcessManager]; }
MsgAddressO MsgCommMgrAddress() { return aoMsgKnown[eMsgKnownCommunicationsManager]; }
MsgAddressO MsgNetMgrAddress() { return aoMsgKnown[eMsgKnownNetworkManager]; }
MsgAddressO MsgLogDaemonAddress() { return aoMsgKnown[eMsgKnownLogDaemon]; }
MsgAddressO MsgAuditorAddress() { return aoMsgKnown[eMsgKnownAuditor]; }
MsgAddressO MsgTunnelAddress() { return aoMsgKnown[eMsgKnownTunnel]; }
MsgAddressO MsgChannelDummyAddress() { return aoMsgKnown[eMsgKnownDummyChannel]; }

BooleanT MsgLocalAddressInitialize() { return MsgSetLocalAddress(0); }

void MsgLocalAddressRelease() { ObjRelease(&gtTlContext.sMsg.oLocalAddress); }

MsgAddressO MsgLocalAddress() { return gtTlContext.sMsg.oLocalAddress; }

BooleanT MsgMakeLocalAddress() { return MsgSetLocalAddress(ProcGetId()); }

// --- reading addresses ---

BooleanT MsgIsAChannel(MsgAddressO oAddress) {
    return BooleanFrom(MsgIsAddress(oAddress) && oAddress->pstrMachineName == nullptr);
}

BooleanT MsgAddressMachinesEqual(MsgAddressO oAddressA, MsgAddressO oAddressB) {
    return BooleanFrom(MsgIsAddress(oAddressA) && MsgIsAddress(oAddressB) &&
                       StrCompareNoCase(oAddressA->pstrMachineName, oAddressB->pstrMachineName) ==
                           0);
}

BooleanT MsgAddressEqual(MsgAddressO oAddressA, MsgAddressO oAddressB) {
    return BooleanFrom(MsgAddressMachinesEqual(oAddressA, oAddressB) == TRUE &&
                       oAddressA->tProcessId == oAddressB->tProcessId);
}

ProcIdT MsgGetProcessId(MsgAddressO oAddress) {
    return MsgIsAddress(oAddress) ? oAddress->tProcessId : 0;
}

const char* MsgGetMachineName(MsgAddressO oAddress) {
    return MsgIsAddress(oAddress) ? oAddress->pstrMachineName : nullptr;
}

int32 MsgGetChannelId(MsgAddressO oAddress) { return MsgGetProcessId(oAddress); }

BooleanT MsgRemoteEnd(MsgAddressO* poRemote, MsgAddressO oAddress) {
    if (!MsgIsAddress(oAddress)) return FALSE;
    ObjHolder<MsgChannelS> oChannel;
    MsgAddressO oRemote = oAddress;
    if (MsgIsAChannel(oAddress) == TRUE) {
        if (MsgGetChannel(oChannel.Address(), oAddress) != TRUE) return FALSE;
        oRemote = MsgChannelRemoteAddress(oChannel.Get());
    }
    *poRemote = MsgHold(oRemote);
    return TRUE;
}

BooleanT MsgIsLocalMachine(MsgAddressO oAddress) {
    if (MsgIsAChannel(oAddress) != TRUE)
        return BooleanFrom(MsgIsLocalName(MsgGetMachineName(oAddress)));
    ObjHolder<MsgChannelS> oChannel;
    if (MsgGetChannel(oChannel.Address(), oAddress) != TRUE) return FALSE;
    if (MsgChannelIsNdmp(oChannel.Get()) == TRUE) return TRUE;
    const char* pstrRemote = MsgGetMachineName(MsgChannelRemoteAddress(oChannel.Get()));
    return BooleanFrom(MsgChannelProxyPeer(oChannel.Get()) == nullptr &&
                       MsgIsLocalName(pstrRemote));
}

// --- machine ids ---

BooleanT MsgMachineId(const char* pstrName, MsgMachineIdT* ptId) {
    const char* pstrShown = pstrName == nullptr ? "" : pstrName;
    TraceMessageInline(20, 0, 4, "MsgMachineId(%s, %p)", pstrShown, static_cast<void*>(ptId));
    if (ptId == nullptr) return FALSE;
    MsgMachineIdT tId = MsgMachineIdNone;
    if (pstrName != nullptr)
        tId = MsgIsLocalName(pstrName) ? MsgMachineIdLocal : MsgMachineIdFromFile(pstrName);
    const BooleanT bResult = BooleanFrom(tId != 0);
    if (bResult == TRUE) *ptId = tId;
    TraceMessageInline(21, 0, 4, "%s = MsgMachineId(%s, %p) %d", BooleanText(bResult), pstrShown,
                       static_cast<void*>(ptId), tId);
    return bResult;
}

BooleanT MsgMachineNameToId(MsgMachineIdT* ptId, const char* pstrName) {
    return MsgMachineId(pstrName, ptId);
}

BooleanT MsgMachineIdToName(char** ppstrName, MsgMachineIdT tId) {
    if (ppstrName == nullptr) return FALSE;
    *ppstrName = nullptr;
    if (tId == MsgMachineIdNone) return TRUE;
    if (tId != MsgMachineIdLocal) return MsgMachineNameFromFile(ppstrName, tId);
    *ppstrName = StrDuplicate(SysLocalMachineName());
    return BooleanFrom(*ppstrName != nullptr);
}

BooleanT MsgMachineIsServer(const char* pstrName) {
    BooleanT bServer = FALSE;
    CfgStanzaHolder tStanza;
    if (pstrName == nullptr || MsgIsLocalName(pstrName))
        CfgGetBoolean(&bServer, "configure.cfg", "details", "server", FALSE);
    else if (MsgLoadMachine(tStanza.Address(), pstrName) == TRUE)
        StnzGetBoolean(tStanza.Get(), "Server", FALSE, &bServer);
    TraceMessageInline(22, 0, 4, "%s = MsgMachineId(%s)", BooleanText(bServer),
                       pstrName == nullptr ? "" : pstrName);
    return bServer;
}

BooleanT MsgAddressToPacketAddress(MsgPacketAddressT* ptPacketAddress, MsgAddressO oAddress) {
    MsgPacketAddressT tResult = {0, MsgGetProcessId(oAddress)};
    if (ptPacketAddress == nullptr || !MsgIsAddress(oAddress) ||
        MsgMachineId(oAddress->pstrMachineName, &tResult.tMachineId) != TRUE) {
        return FALSE;
    }
    *ptPacketAddress = tResult;
    return TRUE;
}

BooleanT MsgAddressFromPacketAddress(MsgAddressO* poAddress,
                                     const MsgPacketAddressT* ptPacketAddress) {
    if (poAddress == nullptr || ptPacketAddress == nullptr) return FALSE;
    PoolPtr<char> pstrName;
    if (MsgMachineIdToName(pstrName.Address(), ptPacketAddress->tMachineId) != TRUE) {
        TraceMessageInline(23, 0, -1, "Failed to map machine id %d to name",
                           ptPacketAddress->tMachineId);
        return FALSE;
    }
    return MsgMakeAddress(poAddress, pstrName.Get(), ptPacketAddress->tProcessId);
}
