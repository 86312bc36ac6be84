// Log images against bytes written by hand, their texts in languages, the ways that a message can
// take, and the direct-log file after a killed writer.
#include <sys/socket.h>

#include "core/context.h"
#include "core/list.h"
#include "core/locale.h"
#include "core/msgchannel.h"
#include "core/net.h"
#include "core/objserial.h"
#include "core/objwrappers.h"
#include "core/sys.h"
#include "core/timeconv.h"
#include "support/archivebytes.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/leftovers.h"

using Text = std::string;
using bytes::Byte;
using bytes::Long;

// What was sent, and to which process of which machine.
static Text g_sent;
BooleanT WrapSendObject(MsgAddressO oAddress, MsgTypeT tMsgType,
                        void* oObject) asm("__wrap__Z13MsgSendObjectP11MsgAddressSiPv");
BooleanT WrapSendObject(MsgAddressO oAddress, MsgTypeT tMsgType, void* oObject) {
    if (tMsgType != LOGD_LOG_MSG) return FALSE;
    Text to = "nobody";
    if (oAddress != nullptr)
        to = Text(oAddress->pstrMachineName) + ":" + std::to_string(oAddress->tProcessId);
    const ByteT* image = LogGetRawImage(static_cast<logdMessageO>(oObject));
    g_sent += "sent " + Owned(LogGetLogString(image, nullptr)) + " to " + to + ". ";
    return BooleanFrom(oAddress != nullptr);
}

namespace {

Text Directory() { return TestHome() + "/logs"; }
Text File() { return Directory() + "/direct-log"; }
Text Counted(const Text& text) { return Byte(static_cast<int>(text.size()) + 1) + text; }
Text Sized(const Text& rest) {
    const int size = static_cast<int>(rest.size()) + 2;
    return Byte(size & 0xff) + Byte(size >> 8) + rest;
}
const Text NoObject = Byte(1);
constexpr char Stamp[] = "\x78\x56\x34\x12";

// An image of the machine "host" and no class, at the time 0x12345678.
Text Image(int32 id, int level, const Text& format, const std::vector<Text>& arguments,
           const Text& object = NoObject) {
    Text rest = Stamp + Long(id) + Byte(level) + Byte(1) + Counted("host") + Counted("") +
                Counted(format) + Byte(static_cast<int>(arguments.size()));
    for (const Text& argument : arguments) rest += Counted(argument);
    return Sized(rest + object);
}

const ByteT* At(const Text& image) { return reinterpret_cast<const ByteT*>(image.data()); }
Text Shown(const Text& image) { return Owned(LogGetStringFromImage(At(image))); }

// The image of a message with the time set; empty when there is none.
Text Built(logdMessageO oMessage) {
    ByteT* image = LogGetRawImage(oMessage);
    if (image == nullptr) return {};
    EXPECT_EQ(LogGetRecordSize(image), oMessage->tLogEntry.lSize);
    EXPECT_LE(TimeNow() - LogGetTimeStamp(image), 60);
    LogSetTimeStamp(image, 0x12345678);
    return {reinterpret_cast<char*>(image), static_cast<std::size_t>(LogGetRecordSize(image))};
}

// With formats that no compiler lets pass, too.
Text Build(int32 level, const UniqueT* session, void* object, const char* format, ...) {
    ObjHolder<logdMessageS> message;
    std::va_list arguments;
    va_start(arguments, format);
    const BooleanT built =
        LogMessageVaBuildObject(message.Address(), 7, level, session, object, format, arguments);
    va_end(arguments);
    return built == TRUE ? Built(message.Get()) : Text();
}

Text Plain(const char* format, auto... values) {
    return Build(1, nullptr, nullptr, format, values...);
}

Text g_called;
BooleanT Callback(MsgAddressO oAddress, MsgTypeT tMsgType, logdMessageO oMessage) {
    EXPECT_EQ(tMsgType, 2600);
    g_called += Built(oMessage);
    EXPECT_EQ(oAddress, gtTlContext.sLog.oLogAddress);
    return TRUE;
}

struct LogTest : testing::Test {
    static void SetUpTestSuite() {
        SysSetLocalMachineName("host");
        MsgMakeLocalAddress();
        std::filesystem::create_directories(TestHome() + "/config");
    }
    void SetUp() override {
        std::filesystem::remove_all(Directory());
        g_sent = g_called = "";
    }
    void TearDown() override {
        LogReleaseThread(&gtTlContext);
        EXPECT_EQ(LogInitializeThread(&gtTlContext), TRUE);
        EXPECT_EQ(left.Text(), "");
    }
    Leftovers left;
};

TEST_F(LogTest, BytesOfAnImage) {
    EXPECT_EQ(LogSetClass("JOBS"), nullptr);
    UniqueT session;
    for (int i = 0; i < 32; i++) session.tUnique[i] = static_cast<ByteT>(i);
    ObjHolder<ObjIntegerS> object(ObjIntegerNew(-2));
    const Text expected = "\x53" + Text(1, '\0') + "\x78\x56\x34\x12" + "\x07" + Text(3, '\0') +
                          "\xd0" + "\x21" + Text(reinterpret_cast<char*>(&session), 32) +
                          "\x05host" + "\x05JOBS" + "\x06%d %s" + "\x02" + "\x03-1" + "\x02x" +
                          "\x02" + "\x01" + "\x2a\xf2\x6c\xc9" + "\x03" + Text(3, '\0') + "i;" +
                          Text(1, '\0') + "\xfe\xff\xff\xff";
    const Text image =
        Build(eLogLevelWarning | LogOperatorBit, &session, object.Get(), "%d %s", -1, "x");
    EXPECT_EQ(testing::PrintToString(image), testing::PrintToString(expected));
    EXPECT_EQ(LogSetClass(nullptr), Text("JOBS"));
    UniqueT read;
    EXPECT_EQ(LogGetSessionId(&read, At(image)), TRUE);
    EXPECT_EQ(std::memcmp(&read, &session, sizeof(read)), 0);
    EXPECT_EQ(std::tuple(LogGetTimeStamp(At(image)), LogGetLogId(At(image)),
                         LogGetWarnLevel(At(image)), LogGetJobId(At(image))),
              std::tuple(0x12345678, 7, 80, 0x17161514));
    EXPECT_EQ(LogIsOperatorMsg(At(image)) + LogHasSessionId(At(image)) + LogHasObject(At(image)),
              3);
    EXPECT_EQ(Owned(LogGetClientString(At(image))) + Owned(LogGetClassString(At(image))),
              "hostJOBS");
    EXPECT_EQ(Owned(LogGetLogString(At(image), "1 x")), "-1 x");
    EXPECT_EQ(LogGetLogString(At(image), "1 X"), nullptr);
    ObjHolder<void> found, none;
    ASSERT_EQ(LogGetObject(found.Address(), At(image)), TRUE);
    EXPECT_EQ(ObjCompare(found.Get(), object.Get()), TRUE);

    EXPECT_EQ(Build(300, nullptr, nullptr, "plain"), Image(7, 127, "plain", {}));
    const Text plain = Image(7, 80, "plain", {});
    for (const auto fnHas : {LogHasSessionId, LogHasObject, LogIsOperatorMsg, LogGetJobId})
        EXPECT_EQ(fnHas(At(plain)), 0);
    EXPECT_EQ(LogGetObject(none.Address(), At(plain)), FALSE);
}

// What becomes of the values: the arguments of the image, and the text that is shown.
void Expect(const std::vector<Text>& arguments, const Text& shown, const char* format,
            auto... values) {
    const Text built = Plain(format, values...);
    EXPECT_EQ(built, Image(7, 1, format, arguments)) << format;
    EXPECT_EQ(Shown(built), shown);
}

TEST_F(LogTest, Arguments) {
    const Text no = "??????", all = Text(254, 'a');
    const Text half = Text(253, 'a') + "\201bc";  // half a character at the end of what fits
    const char* none = nullptr;
    Expect({"2147483647", "-2147483648"}, "2147483647|-2147483648", "%d|%d", 2147483647,
           -2147483647 - 1);
    Expect({"-5", "7", "255"}, "-57255", "%ld%lu%lx", -5L, 7L, 255L);
    Expect({no, "1099511627776", "k", no}, no + "1099511627776dk" + no, "%lf%lld%s%l", 1.5,
           1LL << 40, "k");
    Expect({"(null)", "", "%d"}, "(null),,%d", "%s,%s,%s", none, "", "%d");
    Expect({"%", "3"}, "100% 3", "100%% %d", 3);
    Expect({"%"}, "?? %", "?? %");
    Expect({no, "k"}, no + " k", "%x %s", 9, "k");
    Expect({no, no, no, "k"}, no + no + no + "k", "%f%p%c%s", 1.5, nullptr, 'c', "k");
    // No width is known: nothing behind it is believed to be where it seems.
    Expect({no, no, no, "%"}, no + "d " + no + no + "%", "%5d %s%ld%%", 9, "k", 3L);
    Expect({all}, all, "%s", (all + "bc").c_str());
    Expect({Text(253, 'a')}, Text(253, 'a'), "%s", half.c_str());
}

TEST_F(LogTest, Limits) {
    // Every place holder that a format has room for.
    const Text percent = Text(254, '%');
    EXPECT_EQ(Plain(percent.c_str()), Image(7, 1, percent, std::vector<Text>(127, "%")));
    EXPECT_EQ(Plain(Text(254, 'f').c_str()), Image(7, 1, Text(254, 'f'), {}));
    TraceCapture trace;
    LogSetSendCallback(Callback);
    const Text tooLong(255, 'f');
    for (const char* refused : {"", tooLong.c_str(), static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(Plain(refused), "");
        LogMessage(1, 1, nullptr, refused, 1);
        logdMessageO none = nullptr;
        EXPECT_EQ(LogMessageWithContextObject(&none, 1, 1, nullptr, nullptr, refused, 1), FALSE);
    }
    EXPECT_EQ(trace.CountText("Failed to create log message!"), 3);
    for (const std::size_t length : {254, 255}) {
        const Text name(length, 'n');
        LogSetClass(name.c_str());
        EXPECT_EQ(Plain("f").empty(), length == 255);
        LogSetClass(nullptr);
    }
    // An object that fills the image to its last byte, and one that is a byte longer.
    const Text head = Image(7, 1, "f", {}, "");
    for (const std::size_t total : {65535, 65536}) {
        const std::size_t length = total - head.size() - 18;
        ObjHolder<ObjStringS> object(ObjStringNew(Text(length, 'o').c_str()));
        trace.Clear();
        const Text built = Build(1, nullptr, object.Get(), "f");
        const Text stream = bytes::Object(0xc96cec6f, "s;", bytes::String(Text(length, 'o')));
        EXPECT_TRUE(built == Image(7, 1, "f", {}, total == 65535 ? Byte(2) + stream : NoObject));
        EXPECT_EQ(trace.Count("LOGGING", 124), total == 65536);
    }
    const ObjHolder<ObjIntegerS> five(ObjIntegerNew(5));
    ObjHolder<logdMessageS> alone;
    EXPECT_EQ(
        LogMessageWithContextObject(alone.Address(), 7, 1, nullptr, five.Get(), "%s%d", "k", 3),
        TRUE);
    EXPECT_EQ(Built(alone.Get()), Image(7, 1, "%s%d", {"k", "3"}, Byte(2) + bytes::Integer(5)));
    int64 nothing[8] = {};
    LogMessageWithContext(7, 1, nullptr, &nothing[4], "f");  // what is no object is left out
    EXPECT_EQ(g_called, Image(7, 1, "f", {}));
}

// Shorter, also when they say so. (What else images from outside may say is a matter of random
// bytes: fuzz/fuzz_log.cpp.)
TEST_F(LogTest, DamagedImages) {
    const Text good = Image(7, 1, "%s %d", {"ab", "1"}, Byte(2) + bytes::Integer(5));
    for (std::size_t at = 0; at < good.size(); at++) {
        EXPECT_EQ(LogIsImage(At(good), static_cast<int32>(at)), FALSE) << at;
        const Text cut = Sized(good.substr(2, at));
        // The object is the object module's business.
        EXPECT_EQ(LogIsImage(At(cut), static_cast<int32>(cut.size())),
                  BooleanFrom(cut.size() > 31));
    }
    // A message whose data are no image, and classes in another shape.
    ObjHolder<logdMessageS> empty(ObjNew<logdMessageS>(logdMessageMagic, "d;"));
    EXPECT_EQ(LogGetRawImage(empty.Get()), nullptr);
    for (const uint32 magic : {0xCAA8CD42U, 0xCA94B52DU, 0xCAB70538U}) {
        const Text stream = bytes::Object(magic, "i;", Long(5));
        void* object = nullptr;
        EXPECT_EQ(ObjReconstructFromMemorySized(&object, stream.data(),
                                                static_cast<int32>(stream.size())),
                  FALSE);
    }
}

TEST_F(LogTest, Languages) {
    const Text directory = TestHome() + "/locale/Deutsch/logs/";
    std::filesystem::create_directories(directory);
    WriteFile(directory + "logs.ctl",
              "; texts\n5 \"%d von %s\"\n6 \"nur %ld\"\n7 \"%s, %s und %d\"\n99900001 \"geteilt\"\n"
              "8 \"\"\n9 \"50 %\"\n5 \"spaet\"\n10 \"" +
                  Text(300, 'l') + "\"\n");
    WriteFile(directory + "logs1011.ctl", "101100096 \"kein Port\"\n");
    const TraceCapture trace(3);
    // clang-format off
    const std::pair<int32, const char*> german[] = {
        {7, "a, b und %d"}, {5, "a von b"}, {6, "nur a"}, {99900001, "geteilt"}, {8, ""},
        {9, "50 a"}, {10, "a-b"}, {101100096, "kein Port"}, {101200096, "a-b"}, {-5, "a-b"}};
    // clang-format on
    for (const Text language :
         {"", "Deutsch", "uk english", "Deutsch", "klingon", "..", "Deutsch", "UK English"}) {
        EXPECT_EQ(LogSetLocale(language.empty() ? nullptr : language.c_str()),
                  BooleanFrom(language != "klingon" && language != ".."));
        for (const auto& [id, text] : german)
            EXPECT_EQ(Shown(Image(id, 1, "%s-%s", {"a", "b"})),
                      language == "Deutsch" ? text : "a-b")
                << id;
    }
    LogSetLocale("Deutsch");
    Shown(Image(7, 1, "f", {}));  // reads the entries before it too
    WriteFile(directory + "logs.ctl", "");
    EXPECT_EQ(Shown(Image(5, 1, "f", {"1"})), "1 von %s");
    EXPECT_EQ(Shown(Image(8, 1, "f", {})), "f");
}

TEST_F(LogTest, WaysOfAMessage) {
    const auto log = [] { LogMessage(7, 1, nullptr, "n %d", 1); };
    const Text image = Image(7, 1, "n %d", {"1"});
    errno = 77;
    log();
    EXPECT_EQ(errno, 77);
    WriteFile(TestHome() + "/config/configure.cfg", "[Details]\nServer=TRUE\n");
    LogLocally();
    log();
    ObjHolder<MsgAddressS> other;
    MsgCreateAddress(other.Address(), "other", 12);
    EXPECT_EQ(LogSetAddress(other.Get()), TRUE);
    EXPECT_EQ(LogSetAddress(gtTlContext.sLog.oLogAddress), TRUE);
    log();
    EXPECT_EQ(g_sent, "sent n 1 to nobody. sent n 1 to host:7. sent n 1 to other:7. ");
    LogSetSendCallback(Callback);
    log();
    EXPECT_EQ(g_called, image);
    LogSetToSelf(TRUE);
    log();
    ObjHolder<MsgPacketS> packet;
    ObjHolder<logdMessageS> got;
    ASSERT_EQ(MsgReceivePopPacket(packet.Address()), TRUE);
    EXPECT_EQ(MsgPacketMsgType(packet.Get()), 2600);
    MsgObjectFromPacket(got.Address(), packet.Get(), logdMessageMagic);
    EXPECT_EQ(Built(got.Get()), image);
    EXPECT_FALSE(Exists(File()));
    LogUnsetAddress();
    log();
    std::filesystem::remove(TestHome() + "/config/configure.cfg");
    LogLocally();  // no server
    log();
    EXPECT_EQ(ReadFile(File()).size(), 20 + 2 * image.size());
    ObjHolder<MsgAddressS> address;
    EXPECT_EQ(LogGetAddress(address.Address()) + LogSetAddress(nullptr), 0);
    EXPECT_EQ(LogSetAddress(other.Get()) + LogGetAddress(address.Address()), 2);
    EXPECT_EQ(g_called + g_sent.substr(g_sent.size() - 9), image + "other:7. ");
}

// The records from the first to the header's end; "?" for what is none.
Text Readable() {
    const Text file = ReadFile(File());
    int32 end = 0;
    if (file.size() >= 20) std::memcpy(&end, file.data() + 4, sizeof(end));
    if (file.substr(0, 20) != "R5GT" + Long(end) + Long(20) + Text(8, '\0')) return "?";
    Text texts;
    int32 at = 20;
    while (at < end && end <= static_cast<int32>(file.size()) &&
           LogIsImage(At(file) + at, end - at) == TRUE) {
        texts += Shown(file.substr(static_cast<std::size_t>(at)));
        at += LogGetRecordSize(At(file) + at);
    }
    return at == end ? texts : texts + "?";
}

TEST_F(LogTest, DirectFileAfterAKill) {
    WriteFile(Directory(), "a file in the place of the directory");
    LogUnsetAddress();
    for (const char* text : {"1", "2", "3"}) LogMessage(7, 1, nullptr, "%s", text);
    const Text file = ReadFile(File());
    const std::size_t record = Image(7, 1, "%s", {"1"}).size();
    ASSERT_EQ(file.size(), 20 + 3 * record);
    EXPECT_EQ(file.substr(0, 20),
              "R5GT" + Long(20 + 3 * static_cast<int32>(record)) + Long(20) + Text(8, '\0'));
    const Text texts = "123";
    for (std::size_t cut = 0; cut <= file.size(); cut++) {
        const std::size_t whole = cut < 20 ? 0 : (cut - 20) / record;
        // The end was lost, and the writer came no further: each header that it may have written.
        for (std::size_t said = 0; said <= 3; said++) {
            const auto end = static_cast<int32>(20 + said * record);
            WriteFile(File(), ("R5GT" + Long(end) + file.substr(8)).substr(0, cut));
            if (said <= whole && cut >= 20) {
                EXPECT_EQ(Readable(), texts.substr(0, said)) << cut;
            }
            LogMessage(7, 1, nullptr, "%s", "4");
            EXPECT_EQ(Readable(), texts.substr(0, whole) + "4") << cut << " " << said;
            EXPECT_EQ(ReadFile(File()).size(), 20 + (whole + 1) * record);
        }
    }
    // A header that says what cannot be.
    for (const Text& header :
         {"R5GT" + Long(3), "R5GT" + Long(-1), "RXGT" + Long(20), Text(8, '\0')}) {
        WriteFile(File(), header + file.substr(8));
        LogMessage(7, 1, nullptr, "4");
        EXPECT_EQ(Readable(), "1234");
    }
}

TEST_F(LogTest, DirectFileOnAFullDisk) {
    LogUnsetAddress();
    const std::size_t record = Image(7, 1, "1", {}).size();
    for (std::size_t room = 0; room < 3 * record; room++) {
        std::filesystem::remove(File());
        LogMessage(7, 1, nullptr, "0");
        FaultArmFullDisk(room);
        LogMessage(7, 1, nullptr, "1");
        FaultDisarm();
        // The header's rewrite has come to the end's first byte, or further.
        EXPECT_EQ(Readable(), room < record + 5 ? "0" : "01") << room;
        LogMessage(7, 1, nullptr, "2");
        EXPECT_EQ(Readable(), (room >= record ? "012" : "02")) << room;
    }
}

TEST_F(LogTest, LevelsAndQueries) {
    const std::pair<int32, const char*> names[] = {
        {-1, "Background"}, {16, "Background"}, {17, "Information"}, {48, "Job Message"},
        {50, "Startup"},    {80, "Warning"},    {96, "Error"},       {97, "Severe Error"},
        {113, "Unknown"},   {130, "Unknown"}};
    for (const auto& [level, name] : names) EXPECT_STREQ(LogGetWarningLevelString(level), name);
    ObjHolder<ListS> levels;
    LogListWarningLevels(levels.Address());
    Text list;
    for (ListNodeO node = levels.Get()->oFirst; node != nullptr; node = node->oNext)
        list += std::to_string(ObjGetInteger(static_cast<ObjIntegerO>(node->oData))) + " ";
    EXPECT_EQ(list, "16 32 48 64 80 96 112 127 ");

    const ObjHolder<logdCriteriaS> criteria(LogNewCriteria());
    UniqueT session;
    std::memset(&session, 0x11, sizeof(session));
    ListO clients = ListNew();
    ObjIntegerO client = ObjIntegerNew(5);
    ListPushLastItem(clients, &client);
    *criteria.Get() = {TRUE, session, 3, 6, ListNew(), clients, 8, 9, FALSE, StrDuplicate("text"),
                       TRUE};
    const ObjHolder<logdRequestEntriesS> request(LogBuildRequest(TRUE, 50, criteria.Get(), "src"));
    const Text expected = bytes::Object(
        0xCAB70538, "b;i;o;s;",
        Byte(1) + Long(50) +
            bytes::SharedFirst(
                1, bytes::Object(0xCA94B52D, "b;u;i;i;o;o;i;i;b;s;b;",
                                 Byte(1) + Text(32, '\x11') + Long(3) + Long(6) + bytes::List({}) +
                                     bytes::List({bytes::Integer(5)}) + Long(8) + Long(9) +
                                     Byte(0) + bytes::String("text") + Byte(1))) +
            bytes::String("src"));
    Text stream(static_cast<std::size_t>(ObjSerializedSize(request.Get())), '\0');
    ObjSerializeToMemory(request.Get(), stream.data(), nullptr);
    EXPECT_EQ(testing::PrintToString(stream), testing::PrintToString(expected));
}

TEST_F(LogTest, MessagesOfTheLibrary) {
    LogSetSendCallback(Callback);
    ObjCountEntryT* base = nullptr;
    ObjGetZeroedObjectCounts(&base);
    {
        TraceCapture trace(4);
        ObjMonitorLog(3, base);
    }
    MemFree(&base);
    ObjHolder<void> object;
    ASSERT_EQ(LogGetObject(object.Address(), At(g_called)), TRUE);
    const Text lines = static_cast<ObjStringO>(object.Get())->pstrValue;
    for (const char* part : {"Objects: Count", "Total Objects listed", " blocks of memory"})
        EXPECT_NE((lines + Shown(g_called)).find(part), Text::npos) << part;

    // A firewall whose only port is taken.
    NetSocketT taken = -1;
    ObjHolder<ListS> addresses(ListNew(NetAddressMagic));
    auto* target = ObjNew<NetAddressS>(NetAddressMagic, "n32;");
    NetAddressT& at = target->tAddress;
    NetOpen(&taken, NET_TYPE_TCP, AF_INET);
    NetInitializeIpAddress(&at, "0.0.0.0", 0, AF_INET);
    NetBind(taken, &at);
    NetListen(taken, 1);
    NetGetLocalAddress(&at, taken);
    WriteFile(TestHome() + "/config/firewall.cfg",
              "[MsgChannel]\nOut Ports=" + std::to_string(NetGetIpPort(&at)) + "\n");
    NetInitializeIpAddress(&at, "127.0.0.1", 0, AF_INET);
    ListPushLastItem(addresses.Get(), &target);
    ObjHolder<MsgAddressS> opener;
    MsgCreateAddress(opener.Address(), "elsewhere", 12);
    g_called = "";
    EXPECT_EQ(MsgCompleteTcpConnectionTyped(nullptr, opener.Get(), nullptr, addresses.Get(), 9,
                                            eMsgChannelNonBlocking, eMsgChannelDoNotWaitForConnect,
                                            eMsgChannelNotifyDown, eMsgChannelDoNotSendOk,
                                            eMsgChannelConnectTypeNormal),
              FALSE);
    NetClose(&taken);
    std::filesystem::remove(TestHome() + "/config/firewall.cfg");
    EXPECT_EQ(g_called,
              Image(101100096, 96, "No available ports to connect to message channel", {}));
}

}  // namespace
