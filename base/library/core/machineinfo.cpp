// Facts about machines. MachInfoFacts knows the two places of a fact, a configuration file for the
// local machine and the machine's stanza in "machines.dat" for any other; a missing or unreadable
// value is the fact's default in either.
#include "core/machineinfo.h"

#include <cstdio>

#include "core/cfg.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/msgchannel.h"
#include "core/msgwait.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stnzbase.h"
#include "core/stnzfile.h"
#include "core/stnzwrappers.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/trace.h"

TRACE_MODULE("MACHINFO")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr char MachInfoConfigure[] = "configure.cfg";
constexpr char MachInfoVersion[] = "version.cfg";
constexpr char MachInfoSection[] = "Details";
constexpr int32 MachInfoMinorRange = 1000;

char acMachInfoVersion[32];

class MachInfoFacts {
 public:
    explicit MachInfoFacts(const char* pstrMachine) {
        if (pstrMachine == nullptr) return;
        m_bLocal = StrCompareNoCase(pstrMachine, SysLocalMachineName()) == 0;
        if (m_bLocal) return;
        const PoolPtr<char> pstrPath(PathHomeBuild("etc", "machines.dat", nullptr));
        if (StnzLoadStanzaFromFile(&m_pStanza, pstrPath.Get(), nullptr, pstrMachine) == TRUE)
            TraceMessageInline(1, 0, 0, "Loaded details for machine '%s'", pstrMachine);
        else
            TraceMessageInline(2, 0, -1, "Have no info for machine '%s'", pstrMachine);
    }
    ~MachInfoFacts() {
        if (m_pStanza != nullptr) StnzRelease(&m_pStanza);
    }
    MachInfoFacts(const MachInfoFacts&) = delete;
    MachInfoFacts& operator=(const MachInfoFacts&) = delete;

    bool AreLocal() const { return m_bLocal; }
    bool AreKnown() const { return m_bLocal || m_pStanza != nullptr; }

    // Null when there is none; the caller's.
    char* String(const char* pstrKeyword) const {
        PoolPtr<char> pstrValue;
        if (m_bLocal)
            CfgGetString(pstrValue.Address(), MachInfoConfigure, MachInfoSection, pstrKeyword,
                         nullptr);
        else
            StnzGetString(m_pStanza, pstrKeyword, nullptr, pstrValue.Address());
        if (!m_bLocal && pstrValue.Get() != nullptr)
            TraceMessageInline(3, 0, 0, "%s = '%s'", pstrKeyword, pstrValue.Get());
        return pstrValue.Take();
    }
    BooleanT Boolean(const char* pstrKeyword) const {
        BooleanT bValue = FALSE;
        if (m_bLocal)
            CfgGetBoolean(&bValue, MachInfoConfigure, MachInfoSection, pstrKeyword, FALSE);
        else
            StnzGetBoolean(m_pStanza, pstrKeyword, FALSE, &bValue);
        return bValue;
    }
    int32 Integer(const char* pstrFile, const char* pstrKeyword, int32 lDefault) const {
        int32 lValue = lDefault;
        if (m_bLocal)
            CfgGetInteger(&lValue, pstrFile, MachInfoSection, pstrKeyword, lDefault);
        else
            StnzGetInteger(m_pStanza, pstrKeyword, lDefault, &lValue);
        return lValue;
    }
    int32 Version() const {
        const int32 lVersion = Integer(MachInfoVersion, "TLVersion", MachInfoDefaultVersion);
        if (!m_bLocal) TraceMessageInline(4, 0, 0, "TLVersion = '%d'", lVersion);
        return lVersion;
    }

 private:
    bool m_bLocal = false;
    StnzT* m_pStanza = nullptr;  // of another machine
};

BooleanT MachInfoGetAddress(char** ppstrResult, const char* pstrMachine, const char* pstrKeyword) {
    const MachInfoFacts tFacts(pstrMachine);
    if (ppstrResult == nullptr || !tFacts.AreKnown()) return FALSE;
    char* pstrAddress = tFacts.String(pstrKeyword);
    *ppstrResult = pstrAddress != nullptr ? pstrAddress : StrDuplicate(pstrMachine);
    return TRUE;
}

// A network manager that is not there never answers: the notice that says so ends the wait that
// MachInfoFind is in, but none that a handler makes inside it. The cookie is the depth outside.
MsgWaitResultE MachInfoUnreachable(MsgMessageO oMessage, void* oCookie) {
    ObjHolder<CmgrProcessUnreachableS> oBody;
    const bool bOurs =
        MsgWaitDepth() == ObjGetInteger(static_cast<ObjIntegerO>(oCookie)) + 1 &&
        MsgGetObject(oBody.Address(), oMessage, CmgrProcessUnreachableMagic) == TRUE &&
        MsgAddressEqual(oBody.Get()->oAddress, MsgNetMgrAddress()) == TRUE;
    return bOurs ? eMsgWaitResultPeerDied : eMsgWaitResultNotHandled;
}

// Waits for the network manager's answer, however long that takes.
BooleanT MachInfoWait(MsgMessageO* poReply, MsgAddressO oManager) {
    const ObjHolder<ObjIntegerS> oDepth(ObjIntegerNew(MsgWaitDepth()));
    MsgWaitAddHandler(CMGR_PROCESS_UNREACHABLE_MSG, MachInfoUnreachable, oDepth.Get());
    const BooleanT bResult = MsgWaitMessageWithTimeout(
        poReply, oManager, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG, nullptr);
    MsgWaitRemoveHandlerByCookie(oDepth.Get());
    return bResult;
}

}  // namespace

BooleanT MachInfoFind(const char* pstrMachine) {
    if (pstrMachine == nullptr) return FALSE;
    if (StrCompareNoCase(pstrMachine, SysLocalMachineName()) == 0) {
        TraceMessageInline(12, 0, 0, "Always have details for local machine");
        return TRUE;
    }
    const ObjHolder<NmgrGetCurrentMachineDetailsRequestS> oRequest(
        ObjNew<NmgrGetCurrentMachineDetailsRequestS>(
            NmgrGetCurrentMachineDetailsRequestMagic,
            NmgrGetCurrentMachineDetailsRequestDescriptor));
    if (oRequest.Get() == nullptr) return FALSE;
    oRequest.Get()->pstrMachine = StrDuplicateIntoPool(pstrMachine, MemPool());
    ObjHolder<MsgAddressS> oManager;
    if (MsgCreateAddress(oManager.Address(), SysLocalMachineName(), MsgNetworkManagerId) != TRUE ||
        MsgSendObject(oManager.Get(), NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG,
                      oRequest.Get()) != TRUE) {
        TraceMessageInline(13, 0, -1, "Failed to send request to network manager");
        return FALSE;
    }
    ObjHolder<MsgMessageS> oReply;
    if (MachInfoWait(oReply.Address(), oManager.Get()) != TRUE) {
        TraceMessageInline(14, 0, -1, "Failed to get response from network manager");
        return FALSE;
    }
    if (ObjCheckTypeInternal(oReply.Get()->oObject, NmgrGetCurrentMachineDetailsResponseMagic) !=
        TRUE) {
        TraceMessageInline(15, 0, -1, "Bad response object");
        return FALSE;
    }
    TraceMessageInline(16, 0, 0, "Have info on machine '%s'", pstrMachine);
    return TRUE;
}

BooleanT MachInfoGetSystemType(MachInfoSysTypeE* peResult, const char* pstrMachine) {
    const MachInfoFacts tFacts(pstrMachine);
    if (peResult == nullptr || !tFacts.AreKnown()) return FALSE;
    if (tFacts.AreLocal()) return TRUE;
    const PoolPtr<char> pstrType(tFacts.String("Type"));
    if (pstrType.Get() == nullptr || StrCompareNoCase(pstrType.Get(), "unix") == 0) {
        TraceMessageInline(6, 0, 0, "Machine is UNIX type");
        *peResult = eMachInfoSysTypeUnix;
        return TRUE;
    }
    if (StrCompareNoCase(pstrType.Get(), "winnt") == 0) {
        TraceMessageInline(5, 0, 0, "Machine is WINDOWS type");
        *peResult = eMachInfoSysTypeWindows;
        return TRUE;
    }
    TraceMessageInline(7, 0, -1, "Machine is of unknown type!");
    return FALSE;
}

BooleanT MachInfoIsTLServer(BooleanT* pbResult, const char* pstrMachine) {
    const MachInfoFacts tFacts(pstrMachine);
    if (pbResult == nullptr || !tFacts.AreKnown()) return FALSE;
    *pbResult = tFacts.Boolean("Server");
    if (!tFacts.AreLocal()) TraceMessageInline(8, 0, 0, "TL server = '%s'", BooleanText(*pbResult));
    return TRUE;
}

BooleanT MachInfoGetDescription(char** ppstrResult, const char* pstrMachine) {
    const MachInfoFacts tFacts(pstrMachine);
    if (ppstrResult == nullptr || !tFacts.AreKnown()) return FALSE;
    char* pstrDescription = tFacts.String("Description");
    if (pstrDescription == nullptr && !tFacts.AreLocal())
        TraceMessageInline(9, 0, 0, "Machine info for %s has no description key", pstrMachine);
    *ppstrResult = pstrDescription != nullptr ? pstrDescription : StrDuplicate("");
    return TRUE;
}

BooleanT MachInfoGetTLVersion(int32* plResult, const char* pstrMachine) {
    const MachInfoFacts tFacts(pstrMachine);
    if (plResult == nullptr || !tFacts.AreKnown()) return FALSE;
    *plResult = tFacts.Version();
    return TRUE;
}

BooleanT MachInfoGetTLVersionAndBuild(int32* plResult, const char* pstrMachine) {
    const MachInfoFacts tFacts(pstrMachine);
    if (plResult == nullptr || !tFacts.AreKnown()) return FALSE;
    const int64 llVersion = tFacts.Version();
    const int32 lBuild = tFacts.Integer(MachInfoVersion, "TLBuildLevel", 0);
    if (!tFacts.AreLocal()) TraceMessageInline(10, 0, 0, "TLBuildLevel = '%d'", lBuild);
    // What the result cannot hold is no version; it is cut.
    *plResult = static_cast<int32>(llVersion * MachInfoMinorRange + lBuild);
    return TRUE;
}

BooleanT MachInfoGetTLPatchLevel(int32* plResult, const char* pstrMachine) {
    const MachInfoFacts tFacts(pstrMachine);
    if (plResult == nullptr || !tFacts.AreKnown()) return FALSE;
    *plResult = tFacts.Integer(MachInfoConfigure, "TLBuildLevel", 0);
    TraceMessageInline(11, 0, 0, "TLBuildlevel = '%d'", *plResult);
    return TRUE;
}

BooleanT MachInfoGetPreferredAddr(char** ppstrResult, const char* pstrMachine) {
    return MachInfoGetAddress(ppstrResult, pstrMachine, "Preferred Address");
}

BooleanT MachInfoGetContactAddr(char** ppstrResult, const char* pstrMachine) {
    return MachInfoGetAddress(ppstrResult, pstrMachine, "Contact Address");
}

int32 MachInfoTLVersionMajorFromTLVersion(int32 lTLVersion) {
    return lTLVersion / MachInfoMinorRange;
}

int32 MachInfoTLVersionMinorFromTLVersion(int32 lTLVersion) {
    return lTLVersion % MachInfoMinorRange;
}

BooleanT MachInfoTLVersionMajor(int32* plResult, const char* pstrMachine) {
    if (MachInfoGetTLVersion(plResult, pstrMachine) != TRUE) return FALSE;
    *plResult = MachInfoTLVersionMajorFromTLVersion(*plResult);
    return TRUE;
}

BooleanT MachInfoTLVersionMinor(int32* plResult, const char* pstrMachine) {
    if (MachInfoGetTLVersion(plResult, pstrMachine) != TRUE) return FALSE;
    *plResult = MachInfoTLVersionMinorFromTLVersion(*plResult);
    return TRUE;
}

const char* MachInfoTLVersionStringFromTLVersion(int32 lTLVersion) {
    const int32 lMinor = MachInfoTLVersionMinorFromTLVersion(lTLVersion);
    std::snprintf(acMachInfoVersion, sizeof(acMachInfoVersion), lMinor > 9 ? "%d.%d" : "%d.0%d",
                  MachInfoTLVersionMajorFromTLVersion(lTLVersion), lMinor);
    return acMachInfoVersion;
}

const char* MachInfoTLVersionString(const char* pstrMachine) {
    int32 lTLVersion = 0;
    if (MachInfoGetTLVersion(&lTLVersion, pstrMachine) != TRUE) return nullptr;
    return MachInfoTLVersionStringFromTLVersion(lTLVersion);
}
