// Configuration items in both layouts, byte-exact files after each change, the remote decision, and
// many processes at one file.
#include <sys/mman.h>
#include <sys/utsname.h>

#include <chrono>

#include "core/cfg.h"
#include "core/cfglocal.h"
#include "core/cfgtools.h"
#include "core/cfgutil.h"
#include "core/context.h"
#include "core/stnzlist.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/task.h"
#include "support/files.h"
#include "support/lists.h"
#include "support/objects.h"

namespace {

using Text = std::string;

const Text ConfigDir = TestHome() + "/config";
constexpr char File[] = "test.cfg";

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

// The strings of a list that the caller holds, each followed by "|".
Text Taken(ListO oList) {
    Text all;
    for (const Text& text : TextsOf(oList)) all += text + "|";
    if (oList != nullptr) ObjRelease(&oList);
    return all;
}

TEST_F(Cfg, TypedValues) {
    Write(
        "[Item]\nnumber=42\nbig=-9000000000\nyes=TrUe\nno=false\ntext=a!,b\nempty=\n"
        "list=a, b ,,c\ntwice=1\ntwice=2\n[Item:number]\nshown=true\nvalue=43\n");
    // Keyword and value 1; the integer (-7 is the default, -8 stands before the call) and whether
    // it was read; the boolean (6 and 5) and whether it was.
    const std::tuple<const char*, const char*, int32, BooleanT, BooleanT, BooleanT> cases[] = {
        {"NUMBER", "43", 43, TRUE, 5, FALSE},        {"twice", "1", 1, TRUE, 5, FALSE},
        {"big", "-9000000000", -8, FALSE, 5, FALSE}, {"yes", "TrUe", -8, FALSE, TRUE, TRUE},
        {"no", "false", -8, FALSE, FALSE, TRUE},     {"text", "a,b", -8, FALSE, 5, FALSE},
        {"empty", "<null>", 0, TRUE, 5, FALSE},      {"missing", "dflt", -7, FALSE, 6, FALSE}};
    for (const auto& [keyword, value, number, isNumber, truth, isTruth] : cases) {
        char* string = nullptr;
        EXPECT_EQ(CfgGetString(&string, File, "item", keyword, "dflt"),
                  BooleanFrom(keyword != Text("missing")));
        EXPECT_EQ(Owned(string), value) << keyword;
        ObjHolder<ListS> oList;
        ASSERT_EQ(CfgGetStanzaList(oList.Address(), File), TRUE);
        for (const bool inMemory : {false, true}) {
            SCOPED_TRACE(Text(keyword) + (inMemory ? " in the list" : " in the file"));
            int32 integer = -8;
            EXPECT_EQ(inMemory ? CfgGetIntegerFromList(oList.Get(), "ITEM", keyword, &integer, -7)
                               : CfgGetInteger(&integer, File, "item", keyword, -7),
                      isNumber);
            EXPECT_EQ(integer, number);
            BooleanT boolean = 5;
            EXPECT_EQ(inMemory ? CfgGetBooleanFromList(oList.Get(), "ITEM", keyword, &boolean, 6)
                               : CfgGetBoolean(&boolean, File, "item", keyword, 6),
                      isTruth);
            EXPECT_EQ(boolean, truth);
        }
    }
    int64 wide = 0;
    ObjHolder<ListS> oAll;
    ASSERT_EQ(CfgGetStanzaList(oAll.Address(), File), TRUE);
    for (ListO oList : {static_cast<ListO>(nullptr), oAll.Get()}) {  // the file, the list
        SCOPED_TRACE(oList == nullptr ? "in the file" : "in the list");
        EXPECT_EQ(oList == nullptr ? CfgGetInt64(&wide, File, "item", "big", 1)
                                   : CfgGetInt64FromList(oList, "ITEM", "BIG", &wide, 1),
                  TRUE);
        EXPECT_EQ(wide, -9000000000);
        EXPECT_EQ(oList == nullptr ? CfgGetInt64(&wide, "nofile.cfg", "item", "big", 1)
                                   : CfgGetInt64FromList(oList, "item", "missing", &wide, 1),
                  FALSE);
        EXPECT_EQ(wide, 1);
        const auto values = [&](const char* keyword) {
            ListO oValues = nullptr;
            const BooleanT found = oList == nullptr
                                       ? CfgGetValueList(&oValues, File, "item", keyword)
                                       : CfgGetValueListFromList(oList, "item", keyword, &oValues);
            return std::to_string(found) + " " + Taken(oValues);
        };
        EXPECT_EQ(values("list"), "1 a|b|<null>|c|");
        EXPECT_EQ(values("number"), "1 43|");
        EXPECT_EQ(values("missing"), "0 ");
    }
    StnzKeyT* key = nullptr;
    EXPECT_EQ(CfgGetKey(File, "Item", "TWICE", &key), TRUE);
    EXPECT_STREQ(key->pstrKeyword, "TWICE");  // as the caller spells it
    StnzReleaseKey(&key);
    // Null arguments are no items.
    EXPECT_EQ(CfgGetInteger(nullptr, File, "item", "number", 1), FALSE);
    EXPECT_EQ(CfgGetInt64(&wide, nullptr, "item", "number", 2), FALSE);
    EXPECT_EQ(CfgGetInt64(&wide, File, nullptr, nullptr, 3), FALSE);
    EXPECT_EQ(wide, 3);
}

TEST_F(Cfg, WritingKeepsTheLayout) {
    Write("[A]\nx=1\ny=2\n# comment\n[A:Shown]\nlabel=L\nvalue=old\n");
    const Text shown = "[A:Shown]\nlabel=L\nvalue=";
    EXPECT_EQ(CfgSetInteger(File, "A", "X", -5), TRUE);
    EXPECT_EQ(Read(), "[A]\ny=2\nX=-5\n\n" + shown + "old\n");
    // A stanza that is written takes the spelling of its name from the caller.
    const Text written = "[a:SHOWN]\nlabel=L\nvalue=! !!!,!n\n\n";
    EXPECT_EQ(CfgSetString(File, "a", "SHOWN", " !,\n"), TRUE);
    EXPECT_EQ(Read(), "[A]\ny=2\nX=-5\n\n" + written);
    char* value = nullptr;
    EXPECT_EQ(CfgGetString(&value, File, "A", "Shown", nullptr), TRUE);
    EXPECT_EQ(Owned(value), " !,\n");
    EXPECT_EQ(CfgSetBoolean(File, "A", "y", TRUE), TRUE);
    EXPECT_EQ(CfgSetInt64(File, "New", "n", 1LL << 40), TRUE);
    EXPECT_EQ(Read(), "[A]\nX=-5\ny=true\n\n" + written + "[New]\nn=1099511627776\n\n");
    // Value lists; and a file that is made.
    ObjHolder<ListS> oList(ListOf({"a,b", "", "c"}));
    unlink((ConfigDir + "/" + File).c_str());
    EXPECT_EQ(CfgSetValueList(File, "T", "k", oList.Get()), TRUE);
    EXPECT_EQ(Read(), "[T]\nk=a!,b,,c\n\n");
    EXPECT_EQ(ModeOf(ConfigDir + "/" + File) & 0777, 0644U);
    EXPECT_EQ(CfgSetString(nullptr, "T", "k", "v"), FALSE);
    EXPECT_EQ(CfgSetString(File, nullptr, "k", "v"), FALSE);
    EXPECT_EQ(CfgSetString(File, "T", nullptr, "v"), FALSE);
    EXPECT_EQ(CfgSetString("nodir/x.cfg", "T", "k", "v"), FALSE);
    // What would not be read back is refused, and the file stays.
    EXPECT_EQ(CfgSetString(File, "T", "long", Text(5000, 'x').c_str()), FALSE);
    EXPECT_EQ(CfgSetString(File, "T]\n[Other", "k", "v"), FALSE);
    EXPECT_EQ(Read(), "[T]\nk=a!,b,,c\n\n");
}

TEST_F(Cfg, KeysAndValuesOfPlainStanzas) {
    Write("[S]\nk=a,A,a\nl=1\nk=second\n");
    EXPECT_EQ(CfgAddValueToKey(File, "S", "K", "new"), TRUE);
    EXPECT_EQ(Read(), "[S]\nl=1\nk=second\nk=a,A,a,new\n\n");
    EXPECT_EQ(CfgAddValueToKey(File, "S", "fresh", "v"), TRUE);
    EXPECT_EQ(CfgAddValueToKey(File, "other", "k", "v"), FALSE);
    EXPECT_EQ(CfgRemoveKey(File, "S", "k"), TRUE);
    EXPECT_EQ(Read(), "[S]\nl=1\nk=a,A,a,new\nfresh=v\n\n");
    EXPECT_EQ(CfgRemoveValueFromKey(File, "S", "k", "a"), TRUE);
    EXPECT_EQ(Read(), "[S]\nl=1\nk=A,new\nfresh=v\n\n");
    EXPECT_EQ(CfgRemoveValueFromKey(File, "S", "k", "a"), FALSE);
    EXPECT_EQ(CfgRemoveKey(File, "S", "missing"), FALSE);
    EXPECT_EQ(CfgRemoveKey(File, "other", "k"), FALSE);
}

TEST_F(Cfg, EntriesOfDisplayableLists) {
    Write("[L:list]\nlabel=x\nvalue=One,two\n");
    ListO oList = nullptr;
    EXPECT_EQ(CfgAddEntryToValueList(&oList, File, "L", "list", "one", TRUE, FALSE), TRUE);
    EXPECT_EQ(Taken(oList), "One|two|one|");
    EXPECT_EQ(CfgAddEntryToValueList(&oList, File, "L", "list", "TWO", TRUE, TRUE), FALSE);
    EXPECT_EQ(CfgAddEntryToValueList(nullptr, File, "L", "list", "one", FALSE, FALSE), TRUE);
    EXPECT_EQ(Read(), "[L:list]\nlabel=x\nvalue=One,two,one,one\n\n");
    EXPECT_EQ(CfgRemoveEntryFromValueList(&oList, File, "L", "list", "ONE", FALSE), FALSE);
    EXPECT_EQ(CfgRemoveEntryFromValueList(&oList, File, "L", "list", "ONE", TRUE), TRUE);
    EXPECT_EQ(Taken(oList), "two|one|one|");
    EXPECT_EQ(CfgRemoveEntryFromValueList(nullptr, File, "L", "list", "one", FALSE), TRUE);
    EXPECT_EQ(Read(), "[L:list]\nlabel=x\nvalue=two,one\n\n");
    EXPECT_EQ(CfgAddEntryToValueList(nullptr, File, "M", "m", "first", TRUE, FALSE), TRUE);
    EXPECT_EQ(Read(), "[L:list]\nlabel=x\nvalue=two,one\n\n[M:m]\nvalue=first\n\n");

    // A text with several values in the first string of a list.
    ObjHolder<ListS> oTexts(ListOf({"a, b!,c ,,d"}));
    EXPECT_EQ(CfgParseValueList(&oList, oTexts.Get()), TRUE);
    EXPECT_EQ(Taken(oList), "a|b,c|<null>|d|");
}

TEST_F(Cfg, WholeStanzas) {
    Write("[A]\na=1\n[C:B]\nb=2\n[A]\na=3\n");
    StnzT* stanza = nullptr;
    ASSERT_EQ(CfgGetStanza(&stanza, File, "A"), TRUE);
    EXPECT_STREQ(StnzKeyValue(stanza->apKeys[0], 1), "1");
    EXPECT_EQ(CfgReplaceStanza(stanza, File), TRUE);
    EXPECT_EQ(Read(), "[A]\na=1\n\n[C:B]\nb=2\n\n");
    EXPECT_EQ(CfgAddStanza(stanza, File), TRUE);
    EXPECT_EQ(Read(), "[A]\na=1\n\n[C:B]\nb=2\n\n[A]\na=1\n\n");
    StnzRelease(&stanza);
    ObjHolder<ListS> oList;
    ASSERT_EQ(CfgGetStanzaList(oList.Address(), File), TRUE);
    EXPECT_EQ(CfgRemoveStanza(nullptr, "A", File), TRUE);
    EXPECT_EQ(Read(), "[C:B]\nb=2\n");
    EXPECT_EQ(CfgGetStanza(&stanza, File, "A"), FALSE);
    EXPECT_EQ(CfgReplaceStanzaList(File, oList.Get()), TRUE);
    EXPECT_EQ(Read(), "[A]\na=1\n\n[C:B]\nb=2\n\n[A]\na=1\n\n");
    EXPECT_EQ(CfgGetStanzaList(oList.Address(), ""), FALSE);
}

// A request is another machine's only when the task says so and the file has a map file.
TEST_F(Cfg, RemoteDecision) {
    Write("[S]\nk=local\n");
    const Text map = ConfigDir + "/map/" + File + ".map";
    auto* oDetails = ObjNew<CfgUtilRemoteConfigDetailsS>(CfgUtilRemoteConfigDetailsMagic, "s;s;o;");
    auto* oTask = ObjNew<TaskContextS>(TaskContextMagic, "s;i;i;o;o;");
    void* oExtra = nullptr;
    ASSERT_EQ(ListSetExtensionItem(&oExtra, oDetails), TRUE);
    oTask->oExtraObjects = static_cast<ListO>(oExtra);
    // Whether there is a task, its server and client, whether there is a map file, the decision.
    const std::tuple<bool, const char*, const char*, bool, bool> cases[] = {
        {true, "server", "client", true, true},
        {true, "server", "client", false, false},
        {false, "server", "client", true, false},
        {true, "", "client", true, false},
        {true, "server", nullptr, true, false}};
    for (const auto& [task, ofServer, ofClient, mapFile, remote] : cases) {
        gtTlContext.sProcess.oTaskContext = task ? oTask : nullptr;
        MemFree(&oDetails->pstrServer);
        MemFree(&oDetails->pstrClient);
        oDetails->pstrServer = StrDuplicate(ofServer);
        oDetails->pstrClient = StrDuplicate(ofClient);
        WriteInHome(Text("config/map/") + File + ".map", "");
        if (!mapFile) unlink(map.c_str());
        char *client = nullptr, *server = nullptr, *value = nullptr;
        EXPECT_EQ(CfgUtilDoRemote(&client, &server, File, nullptr), BooleanFrom(remote));
        EXPECT_EQ(Owned(client), remote ? "client" : "<null>");
        EXPECT_EQ(Owned(server), remote ? "server" : "<null>");
        // Nothing of this machine's is given out for another's.
        EXPECT_EQ(CfgGetString(&value, File, "S", "k", "default"), BooleanFrom(!remote));
        EXPECT_EQ(Owned(value), remote ? "default" : "local");
    }
    gtTlContext.sProcess.oTaskContext = nullptr;
    unlink(map.c_str());
    ObjRelease(&oDetails);
    ObjRelease(&oTask);
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
        ListO oPages = nullptr;
        ASSERT_EQ(safe ? CfgGetSafeRemotePages(&oPages) : CfgGetPages(&oPages), TRUE);
        EXPECT_EQ(oPages->lItemCount, safe ? 1 : 2);
        int found = 0;
        for (const auto* oPage : ItemsOf<CfgPageO>(oPages)) {
            if (Text(oPage->pstrPageName) != "General") continue;
            found++;
            EXPECT_EQ(oPage->oFileNames->lItemCount, 2);
        }
        EXPECT_EQ(found, 1);
        ObjRelease(&oPages);
    }
    for (const auto& file : files) unlink((ConfigDir + "/" + file.first).c_str());
}

// --- many processes ---

constexpr int Processes = 8;

struct Ledger {  // what each process knows that it has done, shared with the test
    int counter[Processes], entries[Processes], wrong[Processes], reads[Processes];
};

const Text Filler(600, 'f');

// TRUE when the file is whole: every process's stanza is there with its filler.
bool FileIsWhole() {
    ObjHolder<ListS> oList;
    if (CfgGetStanzaList(oList.Address(), "shared.cfg") != TRUE) return false;
    for (int process = 0; process < Processes; process++) {
        char* filler = nullptr;
        StnzListGetString(&filler, oList.Get(), nullptr, ("P" + std::to_string(process)).c_str(),
                          "filler", nullptr);
        if (Owned(filler) != Filler) return false;
    }
    return true;
}

void Work(Ledger* ledger, int process, std::chrono::steady_clock::time_point end) {
    const Text title = "P" + std::to_string(process);
    for (int round = 1; std::chrono::steady_clock::now() < end; round++) {
        const Text entry = title + "-" + std::to_string(round);
        int32 counter = -1;
        bool good = CfgGetInteger(&counter, "shared.cfg", title.c_str(), "counter", -1) == TRUE &&
                    counter == ledger->counter[process];
        const bool set = CfgSetInteger("shared.cfg", title.c_str(), "counter", round) == TRUE;
        if (set) ledger->counter[process] = round;
        good = good && set &&
               CfgAddEntryToValueList(nullptr, "shared.cfg", "Lists", "all", entry.c_str(), TRUE,
                                      FALSE) == TRUE;
        // Three entries of each process stay.
        const Text old = title + "-" + std::to_string(round - 3);
        if (round > 3)
            good = good && CfgRemoveEntryFromValueList(nullptr, "shared.cfg", "Lists", "all",
                                                       old.c_str(), FALSE) == TRUE;
        else
            ledger->entries[process]++;
        const Text temporary = "T" + title;
        good = good && CfgSetString("shared.cfg", temporary.c_str(), "k", entry.c_str()) == TRUE &&
               CfgRemoveStanza(nullptr, temporary.c_str(), "shared.cfg") == TRUE && FileIsWhole();
        ledger->reads[process]++;
        if (!good) ledger->wrong[process]++;
    }
}

TEST_F(Cfg, NoUpdateOfManyProcessesIsLost) {
    Text content;
    for (int process = 0; process < Processes; process++)
        content += "[P" + std::to_string(process) + "]\nfiller=" + Filler + "\ncounter=0\n\n";
    WriteInHome("config/shared.cfg", content);
    auto* ledger = static_cast<Ledger*>(
        mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(ledger, MAP_FAILED);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    EXPECT_TRUE(InChildren(Processes, [&](int process) {
        Work(ledger, process, end);
        return 0;
    }));
    int expectedEntries = 0;
    for (int process = 0; process < Processes; process++) {
        int32 counter = -1;
        const Text title = "P" + std::to_string(process);
        EXPECT_EQ(CfgGetInteger(&counter, "shared.cfg", title.c_str(), "counter", -1), TRUE);
        EXPECT_EQ(counter, ledger->counter[process]);
        EXPECT_EQ(ledger->wrong[process], 0);
        EXPECT_GT(ledger->reads[process], 0);
        expectedEntries += ledger->entries[process];
    }
    ListO oEntries = nullptr;
    const BooleanT found = CfgGetValueList(&oEntries, "shared.cfg", "Lists", "all");
    EXPECT_EQ(found == TRUE ? oEntries->lItemCount : 0, expectedEntries);
    if (oEntries != nullptr) ObjRelease(&oEntries);
    EXPECT_TRUE(FileIsWhole());
    munmap(ledger, sizeof(Ledger));
}

}  // namespace
