// The machine file from outside: what is asked about machines when packets and data channels find
// their way. Hosts are looked up among numbers only, so that no name leaves the process.
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>

#include "core/list.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/stnzfile.h"
#include "fuzzsupport.h"

// The linker puts these in place of the name service (fuzz_machinefile.options); its own names for
// them are no program's.
extern "C" int RealGetaddrinfo(const char*, const char*, const addrinfo*,
                               addrinfo**) asm("__real_getaddrinfo");
extern "C" int NumericGetaddrinfo(const char*, const char*, const addrinfo*,
                                  addrinfo**) asm("__wrap_getaddrinfo");
extern "C" hostent* NoHostByName(const char*) asm("__wrap_gethostbyname");

int NumericGetaddrinfo(const char* host, const char* service, const addrinfo* hints,
                       addrinfo** result) {
    addrinfo numeric = hints == nullptr ? addrinfo() : *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    return RealGetaddrinfo(host, service, &numeric, result);
}

hostent* NoHostByName(const char* /*host*/) { return nullptr; }

namespace {

std::string g_path;
constexpr int Titles = 8;  // of a file with many

BooleanT CheckAddresses(ListO oAddresses) {
    for (ListNodeO oNode = oAddresses->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        const int32 lFamily = NetGetFamily(&static_cast<NetAddressO>(oNode->oData)->tAddress);
        Expect(lFamily == AF_INET || lFamily == AF_INET6);
    }
    return BooleanFrom(oAddresses->lItemCount > 0);
}

// Everything that the library asks about one machine.
void AskAbout(const char* pstrName) {
    ObjHolder<MsgAddressS> oAddress;
    ObjHolder<ListS> oNets;
    const ObjHolder<ListS> oPreferred(ListNew(NetAddressMagic));
    MsgMachineIdT tId = 0;
    MsgMachineIsServer(pstrName);
    if (MsgMachineId(pstrName, &tId) == TRUE) {
        char* pstrFound = nullptr;
        Expect(tId >= MsgMachineIdLocal);
        // Some machine has that id: this one, or another one in front of it.
        Expect(MsgMachineIdToName(&pstrFound, tId) == TRUE && pstrFound != nullptr);
        MemFree(&pstrFound);
    }
    Expect(MsgCreateAddress(oAddress.Address(), pstrName, 50) == TRUE);
    MsgCanTunnel(oAddress.Get());
    MsgTunnelPort(oAddress.Get());
    if (MsgPreferredNet(oAddress.Get(), oPreferred.Get()) == TRUE)
        Expect(CheckAddresses(oPreferred.Get()) == TRUE);
    if (MsgNets(oNets.Address(), oAddress.Get()) == TRUE)
        Expect(CheckAddresses(oNets.Get()) == TRUE);
}

// Only the id of no machine gives the address of a channel.
void AskForName(MsgMachineIdT tId) {
    ObjHolder<MsgAddressS> oAddress;
    const MsgPacketAddressT tAddress = {tId, 50};
    if (MsgAddressFromPacketAddress(oAddress.Address(), &tAddress) != TRUE) return;
    Expect((MsgIsAChannel(oAddress.Get()) == TRUE) == (tId == MsgMachineIdNone));
    Expect(MsgGetProcessId(oAddress.Get()) == 50);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_path = FuzzMakeHome("etc") + "/etc/machines.dat";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    WriteFile(g_path, data, size);
    const NothingLeft nothingLeft;
    for (const MsgMachineIdT tId : {-2, -1, 0, 1, 2, 5, 2147483647}) AskForName(tId);
    for (const char* name : {"beta", "", ":"}) AskAbout(name);
    ListO oStanzas = nullptr;
    Expect(StnzLoadStanzaListFromFile(&oStanzas, g_path.c_str()) == TRUE);
    int left = Titles;
    for (ListNodeO oNode = oStanzas->oFirst; oNode != nullptr && left-- > 0; oNode = oNode->oNext) {
        const StnzT* ptStanza = static_cast<ObjStanzaO>(oNode->oData)->pValue;
        if (ptStanza->pstrTitle != nullptr) AskAbout(ptStanza->pstrTitle);
    }
    ObjRelease(&oStanzas);
    return 0;
}
