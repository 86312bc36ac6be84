// Configuration items in both layouts, byte-exact files after each change, the remote decision, and
// many processes at one file.
#include <sys/utsname.h>

#include <chrono>
#include <set>

#include "core/cfg.h"
#include "core/cfglocal.h"
#include "core/cfgtools.h"
#include "core/cfgutil.h"
#include "core/context.h"
#include "core/stnzlist.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/task.h"
#include "support/clientconfig.h"
#include "support/objects.h"

namespace {

using Text = std::string;

const Text ConfigDir = TestHome() + "/config";
constexpr auto& File = clientconfig::PlayFile;
using clientconfig::Taken;

class Cfg : public ObjectTest {
 protected:
    // What the library keeps of a class from its first object on.
    static void SetUpTestSuite() {
        const ObjHolder<TaskContextS> task(ObjNew<TaskContextS>(TaskContextMagic, "s;i;i;o;o;"));
        const ObjHolder<CfgPageS> page(ObjNew<CfgPageS>(CfgPageMagic, "s;i;o;b;"));
        const ObjHolder<CfgUtilRemoteConfigDetailsS> details(
            ObjNew<CfgUtilRemoteConfigDetailsS>(CfgUtilRemoteConfigDetailsMagic, "s;s;o;"));
    }
    static void Write(const Text& content) { WriteInHome(Text("config/") + File, content); }
    static Text Read() { return ReadFile(ConfigDir + "/" + File); }
};

// What each getter gives of an item of the file or, where there is one, the list: integer, boolean,
// 64-bit integer and values. The defaults are -7, 6 and 1; before the calls stood -8, 5 and 0.
Text Values(ListO oList, const char* item, const char* keyword) {
    int32 lValue = -8;
    BooleanT bValue = 5;
    int64 llValue = 0;
    ListO oValues = nullptr;
    const bool file = oList == nullptr;
    const BooleanT results[] = {file ? CfgGetInteger(&lValue, File, item, keyword, -7)
                                     : CfgGetIntegerFromList(oList, item, keyword, &lValue, -7),
                                file ? CfgGetBoolean(&bValue, File, item, keyword, 6)
                                     : CfgGetBooleanFromList(oList, item, keyword, &bValue, 6),
                                file ? CfgGetInt64(&llValue, File, item, keyword, 1)
                                     : CfgGetInt64FromList(oList, item, keyword, &llValue, 1),
                                file ? CfgGetValueList(&oValues, File, item, keyword)
                                     : CfgGetValueListFromList(oList, item, keyword, &oValues)};
    Text text;
    for (const BooleanT bResult : results) text += std::to_string(bResult);
    for (const int64 number : {int64{lValue}, int64{bValue}, llValue})
        text += " " + std::to_string(number);
    return text + " " + Taken(oValues);
}

TEST_F(Cfg, TypedValues) {
    Write(
        "[Item]\nnumber=42\nbig=-9000000000\nyes=TrUe\nno=false\ntext=a!,b\nempty=\n"
        "list=a, b ,,c\ntwice=1\ntwice=2\n[Item:number]\nshown=true\nvalue=43\n");
    // Keyword, value 1, and all getters: which results were TRUE, and what they stored.
    const Text cases[][3] = {{"NUMBER", "43", "1011 43 5 43 43|"},
                             {"twice", "1", "1011 1 5 1 1|"},
                             {"big", "-9000000000", "0011 -8 5 -9000000000 -9000000000|"},
                             {"yes", "TrUe", "0101 -8 1 0 TrUe|"},
                             {"no", "false", "0101 -8 0 0 false|"},
                             {"text", "a,b", "0001 -8 5 0 a,b|"},
                             {"empty", "<null>", "1011 0 5 0 "},
                             {"list", "a", "0001 -8 5 0 a|b|<null>|c|"},
                             {"missing", "dflt", "0000 -7 6 1 "}};
    ObjHolder<ListS> oAll;
    ASSERT_EQ(CfgGetStanzaList(oAll.Address(), File), TRUE);
    for (const auto& [keyword, value, values] : cases) {
        char* string = nullptr;
        EXPECT_EQ(CfgGetString(&string, File, "item", keyword.c_str(), "dflt"),
                  BooleanFrom(keyword != "missing"));
        EXPECT_EQ(Owned(string), value) << keyword;
        EXPECT_EQ(Values(nullptr, "item", keyword.c_str()), values) << keyword;
        EXPECT_EQ(Values(oAll.Get(), "ITEM", keyword.c_str()), values) << keyword << " in the list";
    }
    // Null arguments are no items.
    int64 wide = 0;
    EXPECT_EQ(CfgGetInteger(nullptr, File, "item", "number", 1), FALSE);
    EXPECT_EQ(CfgGetInt64(&wide, nullptr, "item", "number", 2), FALSE);
    EXPECT_EQ(CfgGetInt64(&wide, File, nullptr, nullptr, 3), FALSE);
    EXPECT_EQ(wide, 3);
}

// Every operation, with the bytes of the file after it.
TEST_F(Cfg, Operations) {
    Write("");
    Text content;
    int number = 0;
    clientconfig::Operations("", [&](const Text& result, const Text& expected, const Text& file) {
        EXPECT_EQ(result, expected) << number;
        if (!file.empty()) content = file;
        EXPECT_EQ(Read(), content) << number;
        number++;
    });
    // What would not be read back, or has no name, is refused, and the file stays.
    const Text tooLong(5000, 'x');
    const char* const refused[][4] = {
        {nullptr, "T", "k", "v"},       {File, nullptr, "k", "v"},
        {File, "T", nullptr, "v"},      {"nodir/x.cfg", "T", "k", "v"},
        {File, "T]\n[Other", "k", "v"}, {File, "T", "k", tooLong.c_str()}};
    for (const auto& [file, title, keyword, value] : refused)
        EXPECT_EQ(CfgSetString(file, title, keyword, value), FALSE);
    ListO oList = nullptr;
    EXPECT_EQ(CfgGetStanzaList(&oList, ""), FALSE);
    EXPECT_EQ(Read(), content);
    // A file that is made.
    unlink((ConfigDir + "/" + File).c_str());
    EXPECT_EQ(CfgSetString(File, "T", "k", ""), TRUE);
    EXPECT_EQ(Read(), "[T]\nk=\n\n");
    EXPECT_EQ(ModeOf(ConfigDir + "/" + File) & 0777, 0644U);
    // A text with several values in the first string of a list.
    const ObjHolder<ListS> oTexts(ListOf({"a, b!,c ,,d"}));
    EXPECT_EQ(CfgParseValueList(&oList, oTexts.Get()), TRUE);
    EXPECT_EQ(Taken(oList), "a|b,c|<null>|d|");
}

// A request is another machine's only when the task says so and the file has a map file.
TEST_F(Cfg, RemoteDecision) {
    Write("[S]\nk=local\n");
    const Text map = ConfigDir + "/map/" + File + ".map";
    // Whether there is a task, its server and client, whether there is a map file, the decision.
    const std::tuple<bool, const char*, const char*, bool, bool> cases[] = {
        {true, "server", "client", true, true},
        {true, "server", "client", false, false},
        {false, "server", "client", true, false},
        {true, "", "client", true, false},
        {true, "server", nullptr, true, false}};
    for (const auto& [task, ofServer, ofClient, mapFile, remote] : cases) {
        if (task) clientconfig::WorkForClient(ofServer, ofClient);
        WriteInHome(Text("config/map/") + File + ".map", "");
        if (!mapFile) unlink(map.c_str());
        char *client = nullptr, *server = nullptr, *value = nullptr;
        EXPECT_EQ(CfgUtilDoRemote(&client, &server, File, nullptr), BooleanFrom(remote));
        EXPECT_EQ(Owned(client) + Owned(server), remote ? "clientserver" : "<null><null>");
        // Nothing of this machine's is given out for another's.
        EXPECT_EQ(CfgGetString(&value, File, "S", "k", "default"), BooleanFrom(!remote));
        EXPECT_EQ(Owned(value), remote ? "default" : "local");
        TaskSetTaskContext(nullptr);
    }
    unlink(map.c_str());
}

TEST_F(Cfg, Tools) {
    char* text = nullptr;
    EXPECT_EQ(CfgGetTesselVersion(&text), FALSE);
    const std::pair<Text, Text> releases[] = {{"release 6.3\nnext", "release 6.3"},
                                              {"no line end", "no line end"},
                                              {Text(2000, 'x'), Text(1023, 'x')}};
    for (const auto& [content, version] : releases) {
        WriteFile(TestHome() + "/RELEASEDEF", content);
        EXPECT_EQ(CfgGetTesselVersion(&text), TRUE);
        EXPECT_EQ(Owned(text), version);
    }
    unlink((TestHome() + "/RELEASEDEF").c_str());
    utsname system = {};
    ASSERT_EQ(uname(&system), 0);
    EXPECT_EQ(CfgGetSystemVersion(&text), TRUE);
    EXPECT_EQ(Owned(text), Text(system.sysname) + " Release " + system.release + " Version " +
                               system.version + " on a " + system.machine);
    const char* machine = nullptr;
    EXPECT_EQ(CfgGetTesselName(&machine), TRUE);
    EXPECT_EQ(machine, SysLocalMachineName());  // the very text
    EXPECT_EQ(CfgGetTesselName(nullptr), FALSE);

    const Text page = "[Configurator]\nPage Name=";
    const std::pair<Text, Text> files[] = {
        {"configure.cfg", page + "General\nPage Name Id=7\n"},
        {"brisk.cfg", page + "General\nAdd Scrollbars=true\n"},
        {"version.cfg", page + "Encryption\nAdd Scrollbars=true\n"},
        {"programs.cfg", "[Configurator]\n"},
        {"unknown.cfg", page + "Unknown\n"}};
    for (const auto& [name, content] : files) WriteInHome("config/" + name, content);
    for (const bool safe : {false, true}) {
        ObjHolder<ListS> oPages;
        ASSERT_EQ((safe ? CfgGetSafeRemotePages : CfgGetPages)(oPages.Address()), TRUE);
        std::multiset<Text> pages;
        for (const auto* oPage : ItemsOf<CfgPageO>(oPages.Get()))
            pages.insert(oPage->pstrPageName + std::to_string(oPage->oFileNames->lItemCount));
        EXPECT_EQ(pages, safe ? std::multiset<Text>({"General2"})
                              : std::multiset<Text>({"Encryption1", "General2"}));
    }
    for (const auto& file : files) unlink((ConfigDir + "/" + file.first).c_str());
}

// --- many processes ---

constexpr int Processes = 8;
constexpr char Shared[] = "shared.cfg";
const Text Filler(600, 'f');

Text TitleOf(int process) { return "P" + std::to_string(process); }

int32 Number(const Text& title, const char* keyword) {
    int32 number = -1;
    CfgGetInteger(&number, Shared, title.c_str(), keyword, -1);
    return number;
}

// TRUE when the file is whole: every process's stanza is there with its filler.
bool FileIsWhole() {
    ObjHolder<ListS> oList;
    bool whole = CfgGetStanzaList(oList.Address(), Shared) == TRUE;
    for (int process = 0; process < Processes; process++) {
        char* filler = nullptr;
        StnzListGetString(&filler, oList.Get(), nullptr, TitleOf(process).c_str(), "filler", "");
        whole = Owned(filler) == Filler && whole;
    }
    return whole;
}

// Changes what is this process's own and an entry of the list of all, of which three stay. Its last
// step says how far the counter came, so that the loss of any step shows. FALSE when a call fails
// or the file is not as this process left it.
bool Work(const Text& title, std::chrono::steady_clock::time_point end) {
    const Text temporary = "T" + title;
    const auto entry = [&](int round) { return title + "-" + std::to_string(round); };
    int round = 0;
    bool good = true;
    while (good && std::chrono::steady_clock::now() < end) {
        const Text added = entry(round + 1), old = entry(round - 2);
        good = Number(title, "counter") == round &&
               CfgSetInteger(Shared, title.c_str(), "counter", ++round) == TRUE &&
               CfgAddEntryToValueList(nullptr, Shared, "Lists", "all", added.c_str(), TRUE,
                                      FALSE) == TRUE &&
               (round <= 3 || CfgRemoveEntryFromValueList(nullptr, Shared, "Lists", "all",
                                                          old.c_str(), FALSE) == TRUE) &&
               CfgSetString(Shared, temporary.c_str(), "k", added.c_str()) == TRUE &&
               CfgRemoveStanza(nullptr, temporary.c_str(), Shared) == TRUE && FileIsWhole();
    }
    return good && round > 3 && CfgSetInteger(Shared, title.c_str(), "rounds", round) == TRUE;
}

TEST_F(Cfg, NoUpdateOfManyProcessesIsLost) {
    Text content;
    for (int process = 0; process < Processes; process++)
        content += "[" + TitleOf(process) + "]\nfiller=" + Filler + "\ncounter=0\n\n";
    WriteInHome("config/shared.cfg", content);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    EXPECT_TRUE(InChildren(Processes, [&](int process) { return !Work(TitleOf(process), end); }));
    std::multiset<Text> expected, found;
    for (int process = 0; process < Processes; process++) {
        const Text title = TitleOf(process);
        const int32 rounds = Number(title, "rounds");
        EXPECT_GT(rounds, 3);
        EXPECT_EQ(Number(title, "counter"), rounds);
        for (const int back : {2, 1, 0})
            expected.insert(title + "-" + std::to_string(rounds - back));
    }
    ObjHolder<ListS> oEntries;
    EXPECT_EQ(CfgGetValueList(oEntries.Address(), Shared, "Lists", "all"), TRUE);
    for (const Text& entry : TextsOf(oEntries.Get())) found.insert(entry);
    EXPECT_EQ(found, expected);
    EXPECT_TRUE(FileIsWhole());
}

}  // namespace
