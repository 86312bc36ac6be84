// Addresses, messages, packets and names of types. Packets are compared with bytes written by hand;
// what is sent is caught in the place of the function that sends it.
#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <filesystem>

#include "core/context.h"
#include "core/list.h"
#include "core/map.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/strwrappers.h"
#include "core/timeconv.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/messages.h"

using Text = std::string;
using bytes::Long;
using std::to_string;

namespace {

Text Local() { return SysLocalMachineName(); }
const Text empty(1, '\0');  // the stream of no object

// What a body says.
Text Shown(void* oObject) {
    const auto is = [&](int32 lMagic) { return ObjCheckTypeInternal(oObject, lMagic) == TRUE; };
    const auto text = [](const char* pstrText) { return Text(pstrText ? pstrText : "null"); };
    if (is(ObjIntegerMagic)) return to_string(ObjGetInteger(static_cast<ObjIntegerO>(oObject)));
    if (is(MsgPingMagic)) return "ping";
    if (is(MsgErrorMagic)) {
        const auto* oError = static_cast<MsgErrorO>(oObject);
        return text(oError->pstrMessage) + to_string(oError->lErrorCode) + Shown(oError->oCookie);
    }
    if (is(MsgUnknownMagic)) {
        const auto* oUnknown = static_cast<MsgUnknownO>(oObject);
        return text(oUnknown->pstrMessage) + to_string(oUnknown->tUnexpectedType) +
               Shown(oUnknown->oReturnedObject);
    }
    return oObject == nullptr ? "none" : "other";
}

// A message to this process; the object is taken over.
MsgMessageO From(const Text& source, MsgTypeT tMsgType, void* oObject = nullptr) {
    MsgMessageO oMessage = nullptr;
    EXPECT_EQ(MsgCreateMessage(&oMessage, MsgLocalAddress(), tMsgType, oObject), TRUE);
    ObjRelease(&oMessage->oSource);
    oMessage->oSource = At(source);
    ObjRelease(&oObject);
    return oMessage;
}

constexpr Ends ChannelToOwn = {57, -1, 4, 1, 57};

Text BytesOf(MsgPacketO oPacket) {
    return {static_cast<char*>(oPacket->tMessage.pData),
            static_cast<std::size_t>(oPacket->tMessage.lSize)};
}

MsgPacketO PacketOf(const Text& text) {
    auto* oPacket = ObjNew<MsgPacketS>(MsgPacketMagic, "d;");
    const auto lSize = static_cast<int32>(text.size());
    oPacket->tMessage = {lSize, MemAllocateFromPool(lSize, MemGetDefaultPoolId())};
    MemCopy(oPacket->tMessage.pData, text.data(), lSize);
    return oPacket;
}

// What a packet says.
Text Told(const Text& text) {
    const Packet packet(PacketOf(text));
    Message message;
    if (MsgMessageFromPacket(message.Address(), packet.Get()) != TRUE) {
        ObjHolder<void> body;
        EXPECT_EQ(MsgObjectFromPacketInternal(body.Address(), packet.Get(), 0), FALSE);
        // Nor is it sent on when it says that it has never left this process.
        const Packet within(PacketOf(text.size() < 32 ? text : Text(text).replace(28, 4, Long(1))));
        EXPECT_EQ(MsgRedirectPacket(MsgNetMgrAddress(), within.Get()), FALSE);
        return "refused";
    }
    return to_string(MsgType(message.Get())) + " " + Shown(message.Get()->oSource) + ">" +
           Shown(message.Get()->oDestination) + " " + Shown(message.Get()->oObject);
}

Text MachineFile() {
    std::filesystem::create_directories(TestHome() + "/etc");
    return TestHome() + "/etc/machines.dat";
}

std::vector<Text> g_sent;

}  // namespace

BooleanT CatchObject(MsgAddressO oAddress, MsgTypeT tMsgType,
                     void* oObject) asm("__wrap__Z13MsgSendObjectP11MsgAddressSiPv");
BooleanT CatchObject(MsgAddressO oAddress, MsgTypeT tMsgType, void* oObject) {
    g_sent.push_back(Shown(oAddress) + " " + to_string(tMsgType) + " " + Shown(oObject));
    return TRUE;
}

TEST(MsgNames, TableAndBuffers) {
    Text all;
    for (const MsgTypeT tFirst : {-10, 2000, 4000, 41000, 141000, 1026000, 1035000, 1080000}) {
        for (MsgTypeT tType = tFirst; tType < tFirst + 2000; tType++) {
            const Text name = MsgName(tType);
            if (name != "Unknown message type " + to_string(tType))
                all += to_string(tType) + " " + name + "\n";
        }
    }
    EXPECT_EQ(MapSize(gtTlContext.sMsg.oTypeMap), 487);
    EXPECT_EQ(all.size(), 17616U);
    EXPECT_EQ(crc32(0, reinterpret_cast<const Bytef*>(all.data()), 17616), 0x80b5d11bU);

    const Leftovers before;
    EXPECT_EQ(MsgSetMsgName(4242, "AB\x81\x40") + MsgSetMsgName(4243, "Later"), 2);
    EXPECT_EQ(MsgSetMsgName(4242, "x") + MsgSetMsgName(2705, "x") + MsgSetMsgName(4244, ""), 0);
    const Text down = "MSG_CHANNEL_DOWN_MSG", wide = "AB\x81\x40";
    const std::tuple<MsgTypeT, int32, Text> cases[] = {
        {2705, 32, down}, {2705, 21, down},    {2705, 20, "MSG_CHANNEL_DOWN_MS"},
        {2705, 1, ""},    {99, 9, "Unknown "}, {99, 32, "Unknown message type 99"},
        {4242, 4, "AB"},  {4242, 5, wide}};
    for (const auto& [tType, lSize, name] : cases) {
        Text buffer(40, '#');
        EXPECT_EQ(MsgNameWithBuffer(tType, buffer.data(), lSize), buffer.data());
        const auto room = static_cast<std::size_t>(lSize);
        EXPECT_EQ(buffer, name + Text(room - name.size(), '\0') + Text(40 - room, '#'));
    }
    for (const int32 lSize : {0, -1, INT32_MIN}) {
        char cUntouched = '#';
        EXPECT_STREQ(MsgNameWithBuffer(2705, &cUntouched, lSize), "MSG_CHANNEL_DOWN_MSG");
        EXPECT_EQ(cUntouched, '#');
    }
    MsgTypeT tType = 7;
    for (const char* unknown : {"", "MSG_PING", "Unknown message type 99", (const char*)nullptr})
        EXPECT_EQ(MsgTypeFromName(&tType, unknown) + tType, 7);
    EXPECT_EQ(MsgTypeFromName(&tType, "msg_ping_msg") + tType, 2702);
    EXPECT_EQ(MsgTypeFromName(&tType, "LATER") + tType, 4244);
    // The copies go with the table, the texts of the program stay.
    ObjRelease(&gtTlContext.sMsg.oTypeMap);
    EXPECT_STREQ(MsgName(2701), "Unknown message type 2701");
    EXPECT_EQ(MsgInitializeNames() + MsgInitializeNames(), 2);
    EXPECT_EQ(before.Text(), "");
}

TEST(MsgAddresses, ComparedAndKnown) {
    Text known;
    for (MsgAddressO oAddress :
         {MsgProcMgrAddress(), MsgCommMgrAddress(), MsgNetMgrAddress(), MsgLogDaemonAddress(),
          MsgAuditorAddress(), MsgLocalAddress(), MsgChannelDummyAddress()})
        known += Shown(oAddress) + " ";
    EXPECT_EQ(known, ".:1 .:2 .:3 .:7 .:8 .:0 -:0 ");
    const std::tuple<Text, Text, BooleanT, BooleanT> pairs[] = {
        {"beta:9", "BETA:9", TRUE, TRUE}, {"beta:9", "beta:8", FALSE, TRUE},
        {"beta:9", "-:9", FALSE, FALSE},  {"-:9", "-:9", TRUE, TRUE},
        {"beta:9", "", FALSE, FALSE},     {"", "", FALSE, FALSE}};
    for (const auto& [textA, textB, bEqual, bMachines] : pairs) {
        const Address a(At(textA)), b(At(textB));
        EXPECT_EQ(MsgAddressEqual(a.Get(), b.Get()), bEqual);
        EXPECT_EQ(MsgAddressEqual(b.Get(), a.Get()), bEqual);
        EXPECT_EQ(MsgAddressMachinesEqual(a.Get(), b.Get()), bMachines);
    }
    EXPECT_EQ(MsgIsAChannel(MsgChannelDummyAddress()) + MsgIsAChannel(MsgNetMgrAddress()), TRUE);
    EXPECT_EQ(MsgIsLocalMachine(MsgNetMgrAddress()), TRUE);
    for (const char* far : {"beta:9", "-:9", ""})
        EXPECT_EQ(MsgIsLocalMachine(Address(At(far)).Get()), FALSE);
    MsgAddressO oNone = nullptr;
    EXPECT_EQ(MsgCreateAddress(&oNone, nullptr, 1) + MsgMakeAddress(nullptr, "beta", 1), FALSE);
}

TEST(MsgMachines, NumbersAndNames) {
    const Text local = Local();
    Text loud = local;
    for (char& c : loud) c = static_cast<char>(std::toupper(c));
    WriteFile(MachineFile(),
              "Id=5\n[beta]\nId=7\nServer=TRUE\n[huge]\nId=99999999999\n[minus]\nId=-5\n"
              "[zero]\nId=0\n[one]\nId=1\nServer=yes\n[text]\nId=x\n[empty]\nId=\n[bare]\n"
              "[other:hidden]\nId=8\n[list]\nServer=true\nId=8,7\n[again]\nId=7\n[" +
                  Local() + "]\nId=12\nServer=TRUE\n");
    std::vector<std::tuple<const char*, int32, BooleanT>> names = {
        {nullptr, -1, FALSE}, {local.c_str(), 1, FALSE}, {loud.c_str(), 1, FALSE},
        {"beta", 7, TRUE},    {"again", 7, FALSE},       {"list", 8, TRUE}};
    for (const char* none :
         {"huge", "minus", "zero", "one", "text", "empty", "bare", "hidden", "none", ""})
        names.emplace_back(none, 77, FALSE);  // what was there before
    const std::pair<int32, Text> ids[] = {{-1, "<null>"}, {1, local},  {7, "beta"},
                                          {8, "list"},    {12, local}, {0, "none"},
                                          {-5, "none"},   {5, "none"}, {99, "none"}};
    const auto nameOf = [](int32 id) {
        char* pstrName = nullptr;
        return MsgMachineIdToName(&pstrName, id) == TRUE ? Owned(pstrName) : Text("none");
    };
    const Leftovers before;
    for (const auto& [name, id, bServer] : names) {
        MsgMachineIdT tId = 77, tSame = 77;
        EXPECT_EQ(MsgMachineId(name, &tId) + MsgMachineNameToId(&tSame, name), id == 77 ? 0 : 2);
        EXPECT_TRUE(tId == id && tSame == id) << (name == nullptr ? "null" : name) << tId;
        EXPECT_EQ(MsgMachineIsServer(name), bServer);
    }
    for (const auto& [id, name] : ids) EXPECT_EQ(nameOf(id), name) << id;

    // No file, a directory in its place, and bytes that are no text: only what needs no file.
    for (const int kind : {0, 1, 2}) {
        std::filesystem::remove(MachineFile());
        if (kind == 1) std::filesystem::create_directories(MachineFile());
        if (kind == 2) WriteFile(MachineFile(), bytes::RandomBytes(20000, 1));
        MsgMachineIdT tId = 77;
        EXPECT_EQ(MsgMachineId("beta", &tId) + MsgMachineIsServer("beta") + tId, 77);
        EXPECT_EQ(nameOf(7) + nameOf(1), "none" + Local());
        EXPECT_EQ(MsgMachineId(loud.c_str(), &tId) + tId, 2);
    }
    EXPECT_EQ(before.Text(), "");
    std::filesystem::create_directories(TestHome() + "/config");
    WriteFile(TestHome() + "/config/configure.cfg", "[details]\nserver=true\n");
    EXPECT_EQ(MsgMachineIsServer(nullptr) + MsgMachineIsServer(local.c_str()), 2);
    std::filesystem::remove(TestHome() + "/config/configure.cfg");
}

TEST(MsgMachines, WhereTheyAreReached) {
    const struct {
        Text stanza, all, preferred;
        BooleanT tunnel;
        int32 port;
    } cases[] = {
        {"Networks=127.0.0.5,::1,127.0.0.6\nPreferred Address=127.0.0.4,127.0.0.9\n"
         "Contact Address=127.0.0.2,127.0.0.3\nCan Tunnel=TRUE\nTunnel Port=4711\n",
         "127.0.0.2,\n127.0.0.4,\n127.0.0.5,\n[::1],\n127.0.0.6", "127.0.0.2", TRUE, 4711},
        {"Networks=127.0.0.5\nPreferred Address=127.0.0.5\nTunnel Port=80\n", "127.0.0.5",
         "127.0.0.5", FALSE, 80},
        {"Tunnel Port=x\n", "", "", FALSE, 0},
    };
    const auto shown = [](ListO list) {
        char* text = nullptr;
        return StrFromAddressList(&text, list) == TRUE ? Owned(text) : "";
    };
    for (const auto& c : cases) {
        WriteFile(MachineFile(), "[other]\nCan Tunnel=TRUE\nTunnel Port=1\n[beta]\n" + c.stanza);
        const Address beta(At("beta:9"));
        ObjHolder<ListS> all, preferred(ListNew(NetAddressMagic));
        EXPECT_EQ(MsgNets(all.Address(), beta.Get()), BooleanFrom(c.all != ""));
        EXPECT_EQ(MsgPreferredNet(beta.Get(), preferred.Get()), BooleanFrom(c.all != ""));
        EXPECT_EQ(shown(all.Get()), c.all);
        EXPECT_EQ(shown(preferred.Get()), c.preferred);
        EXPECT_EQ(MsgCanTunnel(beta.Get()), c.tunnel);
        EXPECT_EQ(MsgTunnelPort(beta.Get()), c.port);
    }
}

TEST(MsgPackets, BytesOfEveryRoute) {
    WriteFile(MachineFile(), "[beta]\nId=7\n");
    const std::tuple<Text, Text, Ends> routes[] = {
        {"-:12", ".:57", {57, -1, 12, 1, 57}},
        {".:57", "-:12", {-12, 1, 57, -1, 12}},
        {".:57", "beta:9", {3, 1, 57, 7, 9}},
        {"beta:9", "-:-2147483648", {INT32_MIN, 7, 9, -1, INT32_MIN}}};
    for (const auto& [source, target, ends] : routes) {
        for (const bool hasBody : {false, true}) {
            const Address from(At(source)), to(At(target)), other(At("-:4")), lost(At("lost:1"));
            const ObjHolder<ObjIntegerS> number(hasBody ? ObjIntegerNew(5) : nullptr);
            const Text expected = PacketBytes(ends, 2701, hasBody ? bytes::Integer(5) : empty);
            EXPECT_EQ(Told(expected), "2701 " + source + ">" + target + (hasBody ? " 5" : " none"));
            for (MsgAddressO oFirst : {to.Get(), other.Get()}) {  // the other one is redirected
                Packet packet, none;
                MsgCreatePacket(packet.Address(), oFirst, from.Get(), 2701, number.Get());
                ASSERT_NE(packet.Get(), nullptr);
                EXPECT_EQ(MsgRedirectPacket(lost.Get(), packet.Get()) +
                              MsgCreatePacket(none.Address(), lost.Get(), oFirst, 1, nullptr) +
                              MsgCreatePacket(none.Address(), oFirst, nullptr, 1, nullptr),
                          FALSE);
                EXPECT_EQ(BytesOf(packet.Get()) == expected, oFirst == to.Get());
                EXPECT_EQ(MsgRedirectPacket(to.Get(), packet.Get()), TRUE);
                EXPECT_EQ(BytesOf(packet.Get()), expected);
                Message message;
                EXPECT_EQ(MsgMessageToPacket(none.Address(), message.Get()), FALSE);
                EXPECT_EQ(MsgMessageFromPacket(message.Address(), packet.Get()), TRUE);
                EXPECT_EQ(MsgMessageToPacket(none.Address(), message.Get()), TRUE);
                ASSERT_NE(none.Get(), nullptr);
                EXPECT_EQ(BytesOf(none.Get()), expected);
            }
        }
    }
    // Machine 99 has no name: no address, but the message arrives.
    const TraceCapture trace(-1);
    EXPECT_EQ(Told(PacketBytes({57, 99, 4, 1, 57}, 3, empty)), "3 nobody>.:57 none");
    EXPECT_EQ(trace.CountText("Failed to map machine id 99 to name"), 1);
}

TEST(MsgPackets, BytesFromOutside) {
    const Text number = bytes::Integer(5), packet = PacketBytes(ChannelToOwn, 2701, number);
    ASSERT_EQ(Told(packet), "2701 -:4>.:57 5");
    const Leftovers before;
    for (std::size_t cut = 0; cut < packet.size(); cut++) {
        EXPECT_EQ(Told(packet.substr(0, cut)), "refused") << cut;
        if (cut < 200) continue;  // behind that also with all sizes right, and the object cut
        EXPECT_EQ(Told(PacketBytes(ChannelToOwn, 2701, packet.substr(200, cut - 200))), "refused");
    }
    // Words that lie, and bodies of the layer's own classes in a shape that they do not have.
    const auto size = static_cast<int64>(packet.size());
    const std::pair<std::size_t, std::vector<int64>> words[] = {
        {4, {0, -1, 200, size - 1, size + 1, INT32_MAX, INT32_MIN}},
        {192, {0, -1, 8, size - 193, size - 191, size, INT32_MAX, INT32_MIN}},
        {24, {0, 2702}},
        {196, {0, 2702}}};
    for (const auto& [offset, values] : words) {
        for (const int64 value : values)
            EXPECT_EQ(Told(Text(packet).replace(offset, 4, Long(value))), "refused") << value;
    }
    for (const char* descriptor : {"i;", "s;o;", "i;s;", "n8;", "s;i;i;", "", "?"}) {
        const Text body = bytes::Object(0xc8cd2676, descriptor, Text(16, '\0'));
        EXPECT_EQ(Told(PacketBytes(ChannelToOwn, 2701, body)), "refused") << descriptor;
    }
    EXPECT_EQ(before.Text(), "");
}

TEST(MsgPackets, BodyOfTheClassAskedFor) {
    Text given;  // out of a packet, out of a message
    for (const Text& body : {bytes::Integer(5), empty}) {
        const Packet packet(PacketOf(PacketBytes(ChannelToOwn, 1, body)));
        const Message message(From("beta:9", 1, body == empty ? nullptr : ObjIntegerNew(5)));
        for (const int32 lMagic : {0, -1, ObjIntegerMagic, ListMagic}) {
            ObjHolder<void> a, b;
            given += to_string(MsgObjectFromPacketInternal(a.Address(), packet.Get(), lMagic)) +
                     to_string(MsgGetObjectInternal(b.Address(), message.Get(), lMagic)) + " ";
        }
    }
    EXPECT_EQ(given, "11 10 11 00 10 10 00 00 ");
}

TEST(MsgMessages, WhereTheyCameFrom) {
    const std::tuple<Text, Text, BooleanT, Text> cases[] = {
        {"beta:9", "BETA:9", TRUE, "beta:9"},  {"beta:9", "beta:8", FALSE, "beta:9"},
        {"beta:9", "-:4711", FALSE, "beta:9"}, {"-:4711", "-:4711", TRUE, "nobody"},
        {"-:4711", "-:4712", FALSE, "nobody"}, {"-:4711", "beta:9", FALSE, "nobody"},
        {".:0", ".:0", TRUE, ".:0"},           {"", "beta:9", FALSE, "nobody"}};
    const TraceCapture trace;
    for (const auto& [from, from2, bFrom, behind] : cases) {
        const Message message(From(from, 3));
        const Address address(At(from2));
        Address source, sender, target;
        EXPECT_EQ(MsgGetDestination(target.Address(), message.Get()), TRUE);
        EXPECT_EQ(Shown(target.Get()), ".:0");
        EXPECT_EQ(MsgIsFrom(message.Get(), address.Get()), bFrom);
        EXPECT_EQ(MsgGetSource(source.Address(), message.Get()), BooleanFrom(!from.empty()));
        EXPECT_EQ(MsgGetSender(sender.Address(), message.Get()), BooleanFrom(behind != "nobody"));
        EXPECT_EQ(Shown(sender.Get()), behind);
        EXPECT_EQ(MsgIsFromLocalMachine(message.Get()), BooleanFrom(from == ".:0"));
    }
    const Address wrong(At("beta:9"));
    auto* oWrong = reinterpret_cast<MsgMessageO>(wrong.Get());
    MsgAddressO oNone = nullptr;
    EXPECT_EQ(MsgGetSource(nullptr, oWrong) + MsgGetSource(&oNone, oWrong) + MsgType(oWrong), 0);
    EXPECT_EQ(MsgGetDestination(nullptr, oWrong) + MsgGetDestination(&oNone, oWrong), FALSE);
    for (const char* line :
         {"NULL pointer for returned address", "Could not find channel 4711",
          "'NULL Object' not a source message address", "'MsgAddress' not a message object"})
        EXPECT_EQ(trace.CountText(line), 1) << line;
}

TEST(MsgMessages, Answers) {
    const New<MsgPingS> ping(MsgPingMagic, "i;i;", {6, 0});
    ObjIncRefCount(ping.Get());  // From takes one
    const Message asked(From("beta:9", 1010, ObjIntegerNew(5))), bare(From("-:3", 1010)),
        unknown(From("beta:9", MSG_UNKNOWN_MSG)), own(From(".:0", 1010)),
        odd(From("beta:9", 2701, ObjIntegerNew(5))), pinged(From("beta:9", 2701, ping.Get()));
    const TimeT tBefore = TimeNow();
    EXPECT_EQ(MsgSendReply(asked.Get(), 7, asked.Get()->oObject), TRUE);
    EXPECT_EQ(MsgError(bare.Get()->oSource, -8, "broken", asked.Get()->oObject), TRUE);
    EXPECT_EQ(MsgReturnUnknown(asked.Get(), "what?") + MsgReturnUnknown(bare.Get(), nullptr), 2);
    EXPECT_EQ(MsgPong(pinged.Get()), TRUE);
    EXPECT_EQ(MsgReturnUnknown(unknown.Get(), "") + MsgReturnUnknown(own.Get(), "") +
                  MsgReturnUnknown(nullptr, "") + MsgPong(asked.Get()) + MsgPong(odd.Get()) +
                  MsgError(nullptr, 1, "", nullptr) + MsgSendReply(nullptr, 1, nullptr),
              FALSE);
    EXPECT_EQ(g_sent, (std::vector<Text>{"beta:9 7 5", "-:3 11 broken-85", "beta:9 10 what?10105",
                                         "-:3 10 null1010none", "beta:9 2702 ping"}));
    EXPECT_EQ(ping->tSendTime, 6);
    EXPECT_TRUE(ping->tReturnTime >= tBefore && ping->tReturnTime <= TimeNow());
}

TEST(MsgMessages, ToOneself) {
    WriteFile(MachineFile(), "[beta]\nId=7\n");
    const New<MsgHandlerEntryS> entry(MsgHandlerEntryMagic, "p;o;", {&g_sent, nullptr});
    const Message message(From("beta:9", 22)), requeued(From("-:4", 33));
    const Address beta(At("beta:9"));
    ListO oList = gtTlContext.sMsg.oReceiveList;
    Packet packet, outside;
    EXPECT_EQ(MsgSendObjectToSelf(11, entry.Get()) + MsgSendToSelf(message.Get()), 2);
    ASSERT_EQ(ListPopFirstItem(oList, packet.Address()), TRUE);
    EXPECT_EQ(MsgRequeue(requeued.Get()) + MsgRequeuePacket(packet.Get()), 2);
    Text order;
    for (Packet next; ListPopFirstItem(oList, next.Address()) == TRUE; ObjRelease(next.Address()))
        order += Told(BytesOf(next.Get())) + ", ";
    EXPECT_EQ(order, "11 .:0>.:0 other, 33 -:4>.:0 none, 22 beta:9>.:0 none, ");

    const auto target = [&]() -> void* {
        ObjHolder<MsgHandlerEntryS> found;
        MsgObjectFromPacket(found.Address(), packet.Get(), MsgHandlerEntryMagic);
        return found.Get() == nullptr ? nullptr : found.Get()->fnCallback;
    };
    EXPECT_EQ(target(), &g_sent);
    EXPECT_EQ(MsgRedirectPacket(MsgLocalAddress(), packet.Get()), TRUE);
    EXPECT_EQ(target(), &g_sent);
    // Sent on to another process it is a packet like any other, without pointers.
    EXPECT_EQ(MsgRedirectPacket(beta.Get(), packet.Get()), TRUE);
    MsgCreatePacket(outside.Address(), beta.Get(), MsgLocalAddress(), 11, entry.Get());
    ASSERT_NE(outside.Get(), nullptr);
    EXPECT_EQ(BytesOf(packet.Get()), BytesOf(outside.Get()));
    std::array<void*, 16> nothing = {};  // no object in the middle of it
    EXPECT_EQ(MsgRequeuePacket(reinterpret_cast<MsgPacketO>(beta.Get())) +
                  MsgSendObjectToSelf(11, &nothing[8]),
              FALSE);
}
