// Where machines are reached: addresses out of the machine file, ports out of the configuration and
// the services database, and the order of the two address families.
#include <sys/socket.h>

#include "cfgvalue.h"
#include "core/cfg.h"
#include "core/list.h"
#include "core/path.h"
#include "core/stnzfile.h"
#include "core/trace.h"
#include "msgchannelinternal.h"

TRACE_MODULE("MESSAGE")

namespace {

constexpr char MsgConfigure[] = "configure.cfg";
constexpr char MsgNetworkFile[] = "tlnmgr.cfg";
constexpr char MsgNetworkSection[] = "Network";
constexpr char MsgMachineSection[] = "Machine";
constexpr int32 MsgDefaultTcpPort = 20032;
constexpr int32 MsgDefaultMaximum = 64 * 1024 * 1024;
constexpr int32 MsgSmallestMaximum = 64 * 1024;
constexpr int32 MsgDefaultConnectSeconds = 10;

// In the order in which they are looked at.
constexpr const char* apstrMsgAddressKeys[] = {"Contact Address", "Preferred Address", "Networks"};

// The stanza of the machine that an address leads to; null when there is none.
StnzT* MsgMachineStanza(MsgAddressO oAddress) {
    ObjHolder<MsgAddressS> oRemote;
    StnzT* pStanza = nullptr;
    if (MsgRemoteEnd(oRemote.Address(), oAddress) != TRUE) return nullptr;
    const PoolPtr<char> pstrPath(PathHomeBuild("etc", "machines.dat", nullptr));
    StnzLoadStanzaFromFile(&pStanza, pstrPath.Get(), nullptr, oRemote.Get()->pstrMachineName);
    return pStanza;
}

// The key when it has a value; it stays the stanza's.
StnzKeyT* MsgKeyWithValues(StnzT* pStanza, const char* pstrKeyword) {
    StnzKeyT* pKey = nullptr;
    if (pStanza == nullptr || StnzGetKey(&pKey, pStanza, pstrKeyword) != TRUE) return nullptr;
    return StnzKeyValueCount(pKey) > 0 ? pKey : nullptr;
}

// The addresses of the first value of the key that has any.
BooleanT MsgResolveFirst(ListO oAddressList, StnzKeyT* pKey) {
    for (int32 l = 1; l <= StnzKeyValueCount(pKey); l++) {
        ListReleaseAll(oAddressList);
        if (MsgResolveHost(oAddressList, StnzKeyValue(pKey, l)) == TRUE) return TRUE;
    }
    return FALSE;
}

bool MsgIsThisMachine(MsgAddressO oAddress) { return MsgIsLocalMachine(oAddress) == TRUE; }

}  // namespace

MsgSettingsT gtMsgSettings = {0, MsgDefaultMaximum, 0, MsgDefaultConnectSeconds};

void MsgReadSettings() {
    gtMsgSettings = {0, MsgDefaultMaximum, 0, MsgDefaultConnectSeconds};
    CfgGetInteger(&gtMsgSettings.lTunnelPort, MsgNetworkFile, MsgNetworkSection, "Tunnel Port", 0);
    CfgGetInteger(&gtMsgSettings.lMaximumMessage, MsgNetworkFile, MsgNetworkSection,
                  "Maximum Message", MsgDefaultMaximum);
    CfgGetInteger(&gtMsgSettings.lPeerSeconds, MsgNetworkFile, MsgNetworkSection, "Peer Timeout",
                  0);
    CfgGetInteger(&gtMsgSettings.lConnectSeconds, MsgNetworkFile, MsgNetworkSection,
                  "Connect Timeout", MsgDefaultConnectSeconds);
    if (gtMsgSettings.lConnectSeconds < 1 || gtMsgSettings.lConnectSeconds > MsgConnectionSeconds)
        gtMsgSettings.lConnectSeconds = MsgDefaultConnectSeconds;
    if (gtMsgSettings.lMaximumMessage < MsgSmallestMaximum)
        gtMsgSettings.lMaximumMessage = MsgSmallestMaximum;
}

MsgFamiliesT MsgFamilies() {
    BooleanT bPreferInet6 = FALSE;
    CfgGetBoolean(&bPreferInet6, MsgConfigure, MsgNetworkSection, "Prefer IPV6 for Messaging",
                  FALSE);
    if (bPreferInet6 == TRUE) return {{AF_INET6, AF_INET}};
    return {{AF_INET, AF_INET6}};
}

BooleanT MsgResolveHost(ListO oAddressList, const char* pstrHost) {
    if (pstrHost == nullptr || *pstrHost == '\0') return FALSE;
    // The name service gives each address once for every kind of socket.
    const ObjHolder<ListS> oFound(ListNew(NetAddressMagic));
    if (oFound.Get() == nullptr) return FALSE;
    for (const std::int16_t sFamily : MsgFamilies().asFamilies)
        NetGetHostAddress(oFound.Get(), pstrHost, sFamily);
    for (ListNodeO oNode = oFound.Get()->oFirst; oNode != nullptr; oNode = oNode->oNext)
        ListAddUniqueItem(oAddressList, NetAddressIsEqual, oNode->oData);
    return BooleanFrom(oFound.Get()->lItemCount > 0);
}

BooleanT MsgPreferredNet(MsgAddressO oAddress, ListO oAddressList) {
    if (ListIsList(oAddressList) != TRUE || !MsgIsAddress(oAddress)) return FALSE;
    if (MsgIsThisMachine(oAddress)) return MsgResolveHost(oAddressList, "localhost");
    const CfgStanzaHolder tStanza(MsgMachineStanza(oAddress));
    for (const char* pstrKeyword : apstrMsgAddressKeys) {
        if (StnzKeyT* pKey = MsgKeyWithValues(tStanza.Get(), pstrKeyword))
            return MsgResolveFirst(oAddressList, pKey);
    }
    return FALSE;
}

BooleanT MsgNets(ListO* poAddressList, MsgAddressO oAddress) {
    if (poAddressList == nullptr || !MsgIsAddress(oAddress)) return FALSE;
    ObjHolder<ListS> oList(ListNew(NetAddressMagic));
    if (oList.Get() == nullptr) return FALSE;
    if (MsgIsThisMachine(oAddress)) {
        MsgResolveHost(oList.Get(), "localhost");
    } else {
        const CfgStanzaHolder tStanza(MsgMachineStanza(oAddress));
        for (const char* pstrKeyword : apstrMsgAddressKeys) {
            StnzKeyT* pKey = MsgKeyWithValues(tStanza.Get(), pstrKeyword);
            const bool bAll = pstrKeyword == apstrMsgAddressKeys[2];
            for (int32 l = 1; l <= StnzKeyValueCount(pKey) && (bAll || l == 1); l++)
                MsgResolveHost(oList.Get(), StnzKeyValue(pKey, l));
        }
    }
    if (oList.Get()->lItemCount == 0) return FALSE;
    *poAddressList = oList.Take();
    return TRUE;
}

BooleanT MsgCanTunnel(MsgAddressO oAddress) {
    const CfgStanzaHolder tStanza(MsgMachineStanza(oAddress));
    BooleanT bCan = FALSE;
    if (tStanza.Get() != nullptr) StnzGetBoolean(tStanza.Get(), "Can Tunnel", FALSE, &bCan);
    return bCan;
}

int32 MsgTunnelPort(MsgAddressO oAddress) {
    const CfgStanzaHolder tStanza(MsgMachineStanza(oAddress));
    int32 lPort = 0;
    if (tStanza.Get() != nullptr) StnzGetInteger(tStanza.Get(), "Tunnel Port", 0, &lPort);
    return lPort;
}

int32 MsgGetCommsPort() {
    char acService[] = "tessel6";
    char acCommsService[] = "tessel6comms";
    char acTcp[] = "tcp";
    int32 lPort = MsgDefaultTcpPort;
    NetGetServicePort(&lPort, acService, acTcp);
    CfgGetInteger(&lPort, MsgConfigure, MsgMachineSection, "TcpPort", lPort);
    lPort++;
    NetGetServicePort(&lPort, acCommsService, acTcp);
    CfgGetInteger(&lPort, MsgConfigure, MsgMachineSection, "Comms TcpPort", lPort);
    return lPort;
}
