// Addresses, messages, packets and names of types. Packets are compared with bytes written by hand;
// what is sent is caught in the place of the function that sends it.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <random>

#include "core/context.h"
#include "core/list.h"
#include "core/map.h"
#include "core/msg.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/sys.h"
#include "core/timeconv.h"
#include "support/archivebytes.h"
#include "support/files.h"
#include "support/leftovers.h"

using Text = std::string;
using bytes::Long;

namespace {

struct Sent {
    Text to;
    MsgTypeT tMsgType;
    void* oObject;
};
std::vector<Sent> g_sent;

// "name:id", with "-" for no name; empty for no address.
Text Shown(MsgAddressO oAddress) {
    if (oAddress == nullptr) return {};
    const char* pstrName = MsgGetMachineName(oAddress);
    return Text(pstrName == nullptr ? "-" : pstrName) + ":" +
           std::to_string(MsgGetProcessId(oAddress));
}

using Address = ObjHolder<MsgAddressS>;
using Message = ObjHolder<MsgMessageS>;
using Packet = ObjHolder<MsgPacketS>;
using Integer = ObjHolder<ObjIntegerS>;

MsgAddressO At(const char* pstrName, ProcIdT tProcessId) {
    MsgAddressO oAddress = nullptr;
    EXPECT_EQ(MsgMakeAddress(&oAddress, pstrName, tProcessId), TRUE);
    return oAddress;
}

ObjIntegerO Number(int32 lValue) {
    ObjIntegerO oNumber = nullptr;
    EXPECT_EQ(ObjIntegerCreate(&oNumber, lValue), TRUE);
    return oNumber;
}

// A message to this process; source and object are taken over.
MsgMessageO From(MsgAddressO oSource, MsgTypeT tMsgType, void* oObject = nullptr) {
    MsgMessageO oMessage = nullptr;
    EXPECT_EQ(MsgCreateMessage(&oMessage, MsgLocalAddress(), tMsgType, oObject), TRUE);
    ObjRelease(&oMessage->oSource);
    oMessage->oSource = oSource;
    ObjRelease(&oObject);
    return oMessage;
}

struct Ends {
    int32 hop, sourceMachine, sourceProcess, machine, process;
};

// Every word stands least significant byte first here: the host's order is that of this machine.
Text PacketBytes(const Ends& e, MsgTypeT tMsgType, const Text& body) {
    const auto size = static_cast<int64>(body.size());
    return Long(e.hop) + Long(200 + size) + Long(e.sourceMachine) + Long(e.sourceProcess) +
           Long(e.machine) + Long(e.process) + Long(tMsgType) + Long(0) + Text(160, '\0') +
           Long(8 + size) + Long(tMsgType) + body;
}

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

// What a packet says, or "refused".
Text Told(const Text& text) {
    const Packet packet(PacketOf(text));
    Message message;
    if (MsgMessageFromPacket(message.Address(), packet.Get()) != TRUE) return "refused";
    void* oBody = message.Get()->oObject;
    return std::to_string(MsgType(message.Get())) + " " + Shown(message.Get()->oSource) + ">" +
           Shown(message.Get()->oDestination) + " " +
           (oBody == nullptr ? "none"
            : ObjCheckTypeInternal(oBody, ObjIntegerMagic) == TRUE
                ? std::to_string(ObjGetInteger(static_cast<ObjIntegerO>(oBody)))
                : "other");
}

const Text& MachineFile() {
    static const Text file = TestHome() + "/etc/machines.dat";
    std::filesystem::create_directories(TestHome() + "/etc");
    return file;
}

// Takes the types of all packets that wait.
Text Waiting() {
    Text types;
    MsgPacketO oPacket = nullptr;
    while (ListPopFirstItem(gtTlContext.sMsg.oReceiveList, &oPacket) == TRUE) {
        types += std::to_string(MsgPacketMsgType(oPacket)) + " ";
        ObjRelease(&oPacket);
    }
    return types;
}

}  // namespace

BooleanT CatchObject(MsgAddressO oAddress, MsgTypeT tMsgType,
                     void* oObject) asm("__wrap__Z13MsgSendObjectP11MsgAddressSiPv");
BooleanT CatchObject(MsgAddressO oAddress, MsgTypeT tMsgType, void* oObject) {
    if (oObject != nullptr) ObjIncRefCount(oObject);
    g_sent.push_back({Shown(oAddress), tMsgType, oObject});
    return TRUE;
}

TEST(MsgNames, TableAndBuffers) {
    Text text;
    for (const auto& [first, last] : {std::pair(-10, 150000), std::pair(1020000, 1100000)}) {
        for (MsgTypeT tType = first; tType < last; tType++) {
            const Text name = MsgName(tType);
            if (name != "Unknown message type " + std::to_string(tType))
                text += std::to_string(tType) + " " + name + "\n";
        }
    }
    EXPECT_EQ(MapSize(gtTlContext.sMsg.oTypeMap), 487);
    EXPECT_EQ(text.size(), 17616U);
    EXPECT_EQ(crc32(0, reinterpret_cast<const Bytef*>(text.data()), 17616), 0x80b5d11bU);

    const Leftovers before;
    EXPECT_EQ(MsgSetMsgName(4242, "AB\x81\x40") + MsgSetMsgName(4243, "Later"), 2);
    EXPECT_EQ(MsgSetMsgName(4242, "again") + MsgSetMsgName(2705, "again") +
                  MsgSetMsgName(4244, "") + MsgSetMsgName(4244, nullptr),
              0);
    const struct {
        MsgTypeT tType;
        int32 lSize;
        Text name;
    } cases[] = {{2705, 32, "MSG_CHANNEL_DOWN_MSG"},
                 {2705, 21, "MSG_CHANNEL_DOWN_MSG"},
                 {2705, 20, "MSG_CHANNEL_DOWN_MS"},
                 {2705, 1, ""},
                 {99, 32, "Unknown message type 99"},
                 {99, 9, "Unknown "},
                 {4242, 4, "AB"},
                 {4242, 5, "AB\x81\x40"}};
    for (const auto& c : cases) {
        Text buffer(40, '#');
        EXPECT_EQ(MsgNameWithBuffer(c.tType, buffer.data(), c.lSize), buffer.data());
        const auto room = static_cast<std::size_t>(c.lSize);
        EXPECT_EQ(buffer, c.name + Text(room - c.name.size(), '\0') + Text(40 - room, '#'));
    }
    for (const int32 lSize : {0, -1, INT32_MIN}) {
        char cUntouched = '#';
        EXPECT_STREQ(MsgNameWithBuffer(2705, &cUntouched, lSize), "MSG_CHANNEL_DOWN_MSG");
        EXPECT_EQ(cUntouched, '#');
    }
    MsgTypeT tType = 7;
    for (const char* unknown : {"", "MSG_PING", "Unknown message type 99", (const char*)nullptr})
        EXPECT_EQ(MsgTypeFromName(&tType, unknown) + tType, 7);
    EXPECT_EQ(MsgTypeFromName(nullptr, "MSG_PING_MSG"), FALSE);
    EXPECT_EQ(MsgTypeFromName(&tType, "msg_ping_msg") + tType, 2702);
    EXPECT_EQ(MsgTypeFromName(&tType, "LATER") + tType, 4244);
    // The copies go with the table, the texts of the program stay.
    ObjRelease(&gtTlContext.sMsg.oTypeMap);
    EXPECT_STREQ(MsgName(2701), "Unknown message type 2701");
    EXPECT_EQ(MsgInitializeNames() + MsgInitializeNames(), 2);
    EXPECT_EQ(before.Text(), "");
}

TEST(MsgAddresses, ComparedAndKnown) {
    const Text local = SysLocalMachineName();
    const std::pair<MsgAddressO, Text> known[] = {
        {MsgProcMgrAddress(), local + ":1"}, {MsgCommMgrAddress(), local + ":2"},
        {MsgNetMgrAddress(), local + ":3"},  {MsgLogDaemonAddress(), local + ":7"},
        {MsgAuditorAddress(), local + ":8"}, {MsgLocalAddress(), local + ":0"},
        {MsgChannelDummyAddress(), "-:0"}};
    for (const auto& [oAddress, shown] : known) EXPECT_EQ(Shown(oAddress), shown);

    const Address beta(At("beta", 9)), loud(At("BETA", 9)), other(At("beta", 8)),
        channel(At(nullptr, 9)), same(At(nullptr, 9));
    const Integer number(Number(9));
    auto* oWrong = reinterpret_cast<MsgAddressO>(number.Get());
    const struct {
        MsgAddressO oA, oB;
        BooleanT bEqual, bMachines;
    } pairs[] = {{beta.Get(), loud.Get(), TRUE, TRUE},      {beta.Get(), other.Get(), FALSE, TRUE},
                 {beta.Get(), channel.Get(), FALSE, FALSE}, {channel.Get(), same.Get(), TRUE, TRUE},
                 {beta.Get(), nullptr, FALSE, FALSE},       {oWrong, oWrong, FALSE, FALSE}};
    for (const auto& p : pairs) {
        EXPECT_EQ(MsgAddressEqual(p.oA, p.oB), p.bEqual);
        EXPECT_EQ(MsgAddressEqual(p.oB, p.oA), p.bEqual);
        EXPECT_EQ(MsgAddressMachinesEqual(p.oA, p.oB), p.bMachines);
    }
    EXPECT_EQ(MsgIsAChannel(channel.Get()) + MsgIsAChannel(beta.Get()) + MsgIsAChannel(oWrong), 1);
    EXPECT_EQ(MsgIsLocalMachine(MsgNetMgrAddress()), TRUE);
    for (MsgAddressO oFar : {beta.Get(), channel.Get(), oWrong, MsgAddressO{}})
        EXPECT_EQ(MsgIsLocalMachine(oFar), FALSE);
    MsgAddressO oNone = nullptr;
    EXPECT_EQ(MsgCreateAddress(&oNone, nullptr, 1) + MsgMakeAddress(nullptr, "beta", 1), FALSE);
}

TEST(MsgMachines, NumbersAndNames) {
    const Text local = SysLocalMachineName();
    Text loud = local;
    for (char& c : loud) c = static_cast<char>(std::toupper(c));
    WriteFile(MachineFile(),
              "Id=5\n[beta]\nId=7\nServer=TRUE\n[huge]\nId=99999999999\n[minus]\nId=-5\n"
              "[zero]\nId=0\n[one]\nId=1\nServer=yes\n[text]\nId=x\n[empty]\nId=\n[bare]\n"
              "[other:hidden]\nId=8\n[list]\nServer=true\nId=8,7\n[again]\nId=7\n[" +
                  local + "]\nId=12\nServer=TRUE\n");
    const struct {
        const char* name;
        int32 id;  // 0: none
        BooleanT bServer;
    } names[] = {{nullptr, -1, FALSE}, {local.c_str(), 1, FALSE}, {loud.c_str(), 1, FALSE},
                 {"beta", 7, TRUE},    {"again", 7, FALSE},       {"list", 8, TRUE},
                 {"huge", 0, FALSE},   {"minus", 0, FALSE},       {"zero", 0, FALSE},
                 {"one", 0, FALSE},    {"text", 0, FALSE},        {"empty", 0, FALSE},
                 {"bare", 0, FALSE},   {"hidden", 0, FALSE},      {"none", 0, FALSE},
                 {"", 0, FALSE}};
    const std::pair<int32, Text> ids[] = {{-1, "<null>"}, {1, local},  {7, "beta"},
                                          {8, "list"},    {12, local}, {0, "none"},
                                          {-5, "none"},   {5, "none"}, {99, "none"}};
    const auto nameOf = [](int32 id) {
        char* pstrName = nullptr;
        return MsgMachineIdToName(&pstrName, id) == TRUE ? Owned(pstrName) : Text("none");
    };
    const Leftovers before;
    for (const auto& n : names) {
        for (const bool swapped : {false, true}) {
            MsgMachineIdT tId = 77;
            const BooleanT bFound =
                swapped ? MsgMachineNameToId(&tId, n.name) : MsgMachineId(n.name, &tId);
            EXPECT_EQ(std::pair(bFound, tId),
                      n.id == 0 ? std::pair(FALSE, 77) : std::pair(TRUE, n.id))
                << (n.name == nullptr ? "null" : n.name);
        }
        EXPECT_EQ(MsgMachineIsServer(n.name), n.bServer);
    }
    for (const auto& [id, name] : ids) EXPECT_EQ(nameOf(id), name) << id;

    // No file, a directory in its place, and bytes that are no text: only what needs no file.
    for (const int kind : {0, 1, 2}) {
        std::filesystem::remove(MachineFile());
        if (kind == 1) std::filesystem::create_directories(MachineFile());
        if (kind == 2) WriteFile(MachineFile(), bytes::RandomBytes(20000, 1));
        MsgMachineIdT tId = 77;
        EXPECT_EQ(MsgMachineId("beta", &tId) + MsgMachineIsServer("beta") + tId, 77);
        EXPECT_EQ(nameOf(7) + nameOf(1), "none" + local);
        EXPECT_EQ(MsgMachineId(loud.c_str(), &tId) + tId, 2);
    }
    EXPECT_EQ(before.Text(), "");
    std::filesystem::create_directories(TestHome() + "/config");
    WriteFile(TestHome() + "/config/configure.cfg", "[details]\nserver=true\n");
    EXPECT_EQ(MsgMachineIsServer(nullptr) + MsgMachineIsServer(local.c_str()), 2);
    std::filesystem::remove(TestHome() + "/config/configure.cfg");
}

TEST(MsgPackets, BytesOfEveryRoute) {
    WriteFile(MachineFile(), "[beta]\nId=7\n");
    const Text local = SysLocalMachineName(), none(1, '\0'), five = bytes::Integer(5);
    const Leftovers before;
    {
        const Address own(At(local.c_str(), 57)), channel(At(nullptr, 12)), beta(At("BETA", 9)),
            lost(At("lost", 1)), lowest(At(nullptr, INT32_MIN)), beta2(At("beta", 9));
        const struct {
            MsgAddressO oTo, oFrom;
            Ends ends;
            Text route;
        } routes[] = {
            {own.Get(), channel.Get(), {57, -1, 12, 1, 57}, "-:12>" + local + ":57"},
            {channel.Get(), own.Get(), {-12, 1, 57, -1, 12}, local + ":57>-:12"},
            {beta2.Get(), own.Get(), {3, 1, 57, 7, 9}, local + ":57>beta:9"},
            {lowest.Get(), beta2.Get(), {INT32_MIN, 7, 9, -1, INT32_MIN}, "beta:9>-:-2147483648"},
        };
        for (const auto& r : routes) {
            for (const bool hasBody : {false, true}) {
                const Integer number(Number(5));
                const Text expected = PacketBytes(r.ends, 2701, hasBody ? five : none);
                Packet packet, moved;
                ASSERT_EQ(MsgCreatePacket(packet.Address(), r.oTo, r.oFrom, 2701,
                                          hasBody ? number.Get() : nullptr),
                          TRUE);
                EXPECT_EQ(BytesOf(packet.Get()), expected);
                EXPECT_EQ(Told(expected), "2701 " + r.route + (hasBody ? " 5" : " none"));
                // The same packet, made for somebody else and redirected.
                ASSERT_EQ(MsgCreatePacket(moved.Address(), channel.Get(), r.oFrom, 2701,
                                          hasBody ? number.Get() : nullptr),
                          TRUE);
                EXPECT_EQ(MsgRedirectPacket(r.oTo, moved.Get()), TRUE);
                EXPECT_EQ(BytesOf(moved.Get()), expected);
                EXPECT_EQ(MsgRedirectPacket(lost.Get(), moved.Get()), FALSE);
                EXPECT_EQ(BytesOf(moved.Get()), expected);
            }
        }
        MsgPacketO oNone = nullptr;
        EXPECT_EQ(MsgCreatePacket(&oNone, lost.Get(), own.Get(), 1, nullptr), FALSE);
        EXPECT_EQ(MsgCreatePacket(&oNone, own.Get(), nullptr, 1, nullptr), FALSE);
        // Machine 99 has no name: no address, but the message arrives.
        const TraceCapture trace(-1);
        EXPECT_EQ(Told(PacketBytes({57, 99, 4, 1, 57}, 3, none)), "3 >" + local + ":57 none");
        EXPECT_EQ(trace.CountText("Failed to map machine id 99 to name"), 1);
    }
    EXPECT_EQ(before.Text(), "");
}

TEST(MsgPackets, BytesFromOutside) {
    const Ends ends = {57, -1, 4, 1, 57};
    const Text number = bytes::Integer(5), packet = PacketBytes(ends, 2701, number);
    ASSERT_EQ(Told(packet).substr(0, 7), "2701 -:");
    const Leftovers before;
    for (std::size_t cut = 0; cut < packet.size(); cut++) {
        EXPECT_EQ(Told(packet.substr(0, cut)), "refused") << cut;
        if (cut < 200) continue;  // behind that also with all sizes right, and the object cut
        EXPECT_EQ(Told(PacketBytes(ends, 2701, packet.substr(200, cut - 200))), "refused");
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
        EXPECT_EQ(Told(PacketBytes(ends, 2701, body)), "refused") << descriptor;
    }
    EXPECT_EQ(before.Text(), "");
    const Text bodies[] = {
        Text(1, '\0'), number,
        bytes::List({number, bytes::SharedFirst(1, number), bytes::SharedAgain(1)})};
    int32 lRead = 0;
    const auto flip = [&](unsigned round) {
        std::mt19937 random(round);
        const Text& body = bodies[round % 3];
        Text bad = PacketBytes(ends, 2701, body);
        for (unsigned flips = 1 + random() % 3; flips > 0; flips--)
            bad[random() % 4 == 0 ? random() % bad.size() : 200 + random() % body.size()] ^=
                static_cast<char>(1U << random() % 8);
        lRead += static_cast<int32>(Told(bad) != "refused");
        const Packet hostile(PacketOf(bad));
        ObjHolder<void> object;
        if (MsgObjectFromPacketInternal(object.Address(), hostile.Get(), 0) == TRUE)
            ObjReleaseContents(object.Get());
        MsgRedirectPacket(MsgNetMgrAddress(), hostile.Get());
    };
    const IgnoreCrash ignore;  // a list in the shape of something else
    // A class met for the first time stays known, so that only a second look leaves nothing.
    for (unsigned round = 0; round < 5000; round++) flip(round);
    const Leftovers second;
    for (unsigned round = 0; round < 5000; round++) flip(round);
    EXPECT_EQ(second.Text(), "");
    EXPECT_GT(lRead, 500);
}

TEST(MsgPackets, BodyOfTheClassAskedFor) {
    const Ends ends = {57, -1, 4, 1, 57};
    const Packet with(PacketOf(PacketBytes(ends, 1, bytes::Integer(5)))),
        without(PacketOf(PacketBytes(ends, 1, Text(1, '\0'))));
    const struct {
        int32 lMagic;
        BooleanT bWith, bWithout, bMessage;
    } cases[] = {{0, TRUE, TRUE, TRUE},
                 {-1, TRUE, TRUE, FALSE},
                 {ObjIntegerMagic, TRUE, FALSE, TRUE},
                 {ListMagic, FALSE, FALSE, FALSE}};
    for (const auto& c : cases) {
        ObjHolder<void> a, b, d;
        EXPECT_EQ(MsgObjectFromPacketInternal(a.Address(), with.Get(), c.lMagic), c.bWith);
        EXPECT_EQ(a.Get() != nullptr, c.bWith == TRUE);
        EXPECT_EQ(MsgObjectFromPacketInternal(b.Address(), without.Get(), c.lMagic), c.bWithout);
        const Message message(From(At("beta", 9), 1, Number(5))), empty(From(At("beta", 9), 1));
        EXPECT_EQ(MsgGetObjectInternal(d.Address(), message.Get(), c.lMagic), c.bMessage);
        EXPECT_EQ(MsgGetObjectInternal(b.Address(), empty.Get(), c.lMagic), FALSE);
    }
}

TEST(MsgMessages, WhereTheyCameFrom) {
    const Leftovers before;
    {
        const Message process(From(At("beta", 9), 3)), channel(From(At(nullptr, 4711), 3)),
            own(From(At(SysLocalMachineName(), 4), 3)), lost(From(nullptr, 3));
        const Address beta(At("BETA", 9)), other(At("beta", 8)), same(At(nullptr, 4711)),
            second(At(nullptr, 4712));
        const struct {
            MsgMessageO oMessage;
            MsgAddressO oAddress;
            BooleanT bFrom;
        } cases[] = {{process.Get(), beta.Get(), TRUE},    {process.Get(), other.Get(), FALSE},
                     {process.Get(), same.Get(), FALSE},   {channel.Get(), same.Get(), TRUE},
                     {channel.Get(), second.Get(), FALSE}, {channel.Get(), beta.Get(), FALSE},
                     {lost.Get(), beta.Get(), FALSE},      {nullptr, beta.Get(), FALSE}};
        const TraceCapture trace;
        for (const auto& c : cases) EXPECT_EQ(MsgIsFrom(c.oMessage, c.oAddress), c.bFrom);
        EXPECT_EQ(trace.CountText("Could not find channel 4711"), 1);
        Address source, sender, none;
        EXPECT_EQ(MsgGetSource(source.Address(), channel.Get()), TRUE);
        EXPECT_EQ(MsgGetSender(sender.Address(), process.Get()), TRUE);
        EXPECT_EQ(Shown(source.Get()) + Shown(sender.Get()), "-:4711beta:9");
        EXPECT_EQ(MsgGetSender(none.Address(), channel.Get()), FALSE);
        EXPECT_EQ(MsgGetSource(nullptr, process.Get()) + MsgGetSource(none.Address(), lost.Get()) +
                      MsgGetSource(none.Address(), reinterpret_cast<MsgMessageO>(beta.Get())),
                  FALSE);
        EXPECT_EQ(trace.CountText("NULL pointer for returned address"), 1);
        EXPECT_EQ(trace.CountText("'NULL Object' not a source message address"), 1);
        EXPECT_EQ(trace.CountText("'MsgAddress' not a message object"), 1);
        EXPECT_EQ(MsgType(reinterpret_cast<MsgMessageO>(beta.Get())), 0);
        EXPECT_EQ(MsgIsFromLocalMachine(own.Get()) + MsgIsFromLocalMachine(process.Get()) +
                      MsgIsFromLocalMachine(channel.Get()),
                  TRUE);
        EXPECT_EQ(MsgAddressIsFrom(beta.Get(), process.Get()->oSource), TRUE);
        EXPECT_EQ(MsgAddressIsFrom(beta.Get(), other.Get()), FALSE);
    }
    EXPECT_EQ(before.Text(), "");
}

TEST(MsgMessages, Answers) {
    const Leftovers before;
    {
        auto* oPing = ObjNew<MsgPingS>(MsgPingMagic, "i;i;");
        oPing->tSendTime = 5;
        const Message asked(From(At("beta", 9), 1010, Number(6))),
            empty(From(At(nullptr, 3), 1010)), unknown(From(At("beta", 9), MSG_UNKNOWN_MSG)),
            pinged(From(At("beta", 9), 2701, oPing)), own(From(At(SysLocalMachineName(), 0), 1010)),
            odd(From(At("beta", 9), 2701, Number(1)));
        const TimeT tBefore = TimeNow();
        EXPECT_EQ(MsgSendReply(asked.Get(), 7, asked.Get()->oObject), TRUE);
        EXPECT_EQ(MsgError(asked.Get()->oSource, -8, "broken", asked.Get()->oObject), TRUE);
        EXPECT_EQ(MsgReturnUnknown(asked.Get(), "what?") + MsgReturnUnknown(empty.Get(), nullptr),
                  2);
        EXPECT_EQ(MsgPong(pinged.Get()), TRUE);
        EXPECT_EQ(MsgReturnUnknown(unknown.Get(), "") + MsgReturnUnknown(own.Get(), "") +
                      MsgReturnUnknown(nullptr, "") + MsgPong(asked.Get()) + MsgPong(odd.Get()) +
                      MsgError(nullptr, 1, "", nullptr) + MsgSendReply(nullptr, 1, nullptr),
                  FALSE);
        const Text route[] = {"beta:9 7", "beta:9 11", "beta:9 10", "-:3 10", "beta:9 2702"};
        ASSERT_EQ(g_sent.size(), std::size(route));
        for (std::size_t i = 0; i < g_sent.size(); i++)
            EXPECT_EQ(g_sent[i].to + " " + std::to_string(g_sent[i].tMsgType), route[i]);
        const auto* oError = static_cast<MsgErrorO>(g_sent[1].oObject);
        EXPECT_EQ(oError->pstrMessage + std::to_string(oError->lErrorCode), "broken-8");
        const auto* oWhat = static_cast<MsgUnknownO>(g_sent[2].oObject);
        EXPECT_EQ(oWhat->pstrMessage + std::to_string(oWhat->tUnexpectedType), "what?1010");
        for (void* oBody : {g_sent[0].oObject, oError->oCookie, oWhat->oReturnedObject})
            EXPECT_EQ(oBody, asked.Get()->oObject);
        EXPECT_EQ(static_cast<MsgUnknownO>(g_sent[3].oObject)->oReturnedObject, nullptr);
        EXPECT_EQ(g_sent[4].oObject, oPing);
        EXPECT_TRUE(oPing->tSendTime == 5 && oPing->tReturnTime >= tBefore &&
                    oPing->tReturnTime <= TimeNow());
        for (Sent& sent : g_sent) {
            if (sent.oObject != nullptr) ObjRelease(&sent.oObject);
        }
        g_sent.clear();
        g_sent.shrink_to_fit();
    }
    EXPECT_EQ(before.Text(), "");
}

TEST(MsgMessages, ToOneself) {
    WriteFile(MachineFile(), "[beta]\nId=7\n");
    const Leftovers before;
    {
        int iTarget = 0;
        const ObjHolder<MsgHandlerEntryS> entry(
            ObjNew<MsgHandlerEntryS>(MsgHandlerEntryMagic, "p;o;"));
        entry.Get()->fnCallback = &iTarget;
        const Message message(From(At("beta", 9), 22)), requeued(From(At(nullptr, 4), 33));
        EXPECT_EQ(MsgSendObjectToSelf(11, entry.Get()) + MsgSendToSelf(message.Get()), 2);
        Packet packet, outside;
        ASSERT_EQ(ListPopFirstItem(gtTlContext.sMsg.oReceiveList, packet.Address()), TRUE);
        EXPECT_EQ(MsgRequeue(requeued.Get()) + MsgRequeuePacket(packet.Get()), 2);
        EXPECT_EQ(Waiting(), "11 33 22 ");

        const Text local = SysLocalMachineName();
        const auto read = [&] {
            Message got;
            if (MsgMessageFromPacket(got.Address(), packet.Get()) != TRUE) return Text("refused");
            const auto* oEntry = static_cast<MsgHandlerEntryO>(got.Get()->oObject);
            return Shown(got.Get()->oSource) + ">" + Shown(got.Get()->oDestination) +
                   (oEntry->fnCallback == &iTarget ? " whole" : " cut");
        };
        EXPECT_EQ(read(), local + ":0>" + local + ":0 whole");
        EXPECT_EQ(MsgRedirectPacket(MsgLocalAddress(), packet.Get()), TRUE);
        EXPECT_EQ(read(), local + ":0>" + local + ":0 whole");
        // Sent on to another process it is a packet like any other, without pointers.
        const Address beta(At("beta", 9));
        EXPECT_EQ(MsgRedirectPacket(beta.Get(), packet.Get()), TRUE);
        ASSERT_EQ(
            MsgCreatePacket(outside.Address(), beta.Get(), MsgLocalAddress(), 11, entry.Get()),
            TRUE);
        EXPECT_EQ(BytesOf(packet.Get()), BytesOf(outside.Get()));
        EXPECT_EQ(MsgRequeuePacket(reinterpret_cast<MsgPacketO>(beta.Get())) + MsgRequeue(nullptr) +
                      MsgSendToSelf(nullptr),
                  FALSE);
    }
    EXPECT_EQ(before.Text(), "");
}
