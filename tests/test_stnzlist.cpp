// Typed values, stanza lists and the scan of a directory tree.
#include "core/stnzlist.h"
#include "support/leftovers.h"
#include "support/stanzas.h"

namespace {

using Text = std::string;

Text Saved(ListO list) {
    const Dir dir;
    EXPECT_EQ(StnzSaveStanzaListToFile(list, dir("f")), TRUE);
    return ReadFile(dir("f"));
}

Text Titles(ListO list) {
    Text text;
    for (const auto* item : ItemsOf<ObjStanzaO>(list)) text += item->pValue->pstrTitle + Text(" ");
    return text;
}

TEST(StanzaValues, Getters) {
    const NothingLeft nothing;
    ListO list = LoadStanzas(
        "[other]\nmissing=1\n[C:t]\nnumber=12,x\nlong=5000000000\ntext=abc\nyes=True\nno=yes\n"
        "none=\nnull=,1\nNUMBER=13\n");
    // Keyword; string and integer out of the list; of the list and the stanza the 64-bit integer,
    // the boolean and the values. The defaults are "d", 7, 8 and TRUE.
    const Text table[][3] = {
        {"Number", "12 12", "12 0 12|x|"},     {"long", "5000000000 7", "5000000000 0 5000000000|"},
        {"text", "abc 7", "8 0 abc|"},         {"yes", "True 7", "8 1 True|"},
        {"no", "yes 7", "8 0 yes|"},           {"none", "<null> 7", "8 0 "},
        {"null", "<null> 7", "8 0 <null>|1|"}, {"missing", "d 7", "8 1 "}};
    StnzT* stanza = nullptr;
    char* text = nullptr;
    int32 number = 0;
    ASSERT_EQ(StnzListFindStanza(&stanza, list, "c", "T"), TRUE);
    for (const auto& [name, inList, inBoth] : table) {
        const char* keyword = name.c_str();
        EXPECT_EQ(StnzListGetString(&text, list, "c", "t", keyword, "d"), TRUE);
        EXPECT_EQ(StnzListGetInteger(&number, list, "c", "t", keyword, 7), TRUE);
        EXPECT_EQ(Owned(text) + " " + std::to_string(number), inList);
        for (const bool ofList : {true, false}) {
            int64 large = 0;
            BooleanT boolean = 9;
            ObjHolder<ListS> values;
            const BooleanT results[] = {
                ofList ? StnzListGetInt64(&large, list, "c", "t", keyword, 8)
                       : StnzGetInt64(stanza, keyword, 8, &large),
                ofList ? StnzListGetBoolean(&boolean, list, "c", "t", keyword, TRUE)
                       : StnzGetBoolean(stanza, keyword, TRUE, &boolean),
                ofList ? StnzListGetValueList(values.Address(), list, "c", "t", keyword)
                       : StnzGetValueList(stanza, keyword, values.Address())};
            EXPECT_EQ(results[0] + results[1] + results[2], name == "missing" ? 2 : 3) << name;
            Text found = std::to_string(large) + " " + std::to_string(boolean) + " ";
            for (const Text& value : TextsOf(values.Get())) found += value + "|";
            EXPECT_EQ(found, inBoth) << name << ofList;
        }
    }
    EXPECT_EQ(StnzListGetInteger(&number, nullptr, nullptr, "t", "number", 7), TRUE);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(StnzListGetInteger(nullptr, list, "c", "t", "number", 7), FALSE);
    ObjRelease(&list);
}

TEST(StanzaList, Setters) {
    const NothingLeft nothing;
    ListO list = LoadStanzas("[a]\nk=1\nK=2\nl=3\n[B:b]\n[x:a]\nk=4\n");
    ListO values = ListOf({"1", nullptr, "x,y"});
    values->lItemMagic = 0;
    ObjIntegerO stranger = ObjIntegerNew(1);
    ListAddFirstItem(values, stranger);
    const TraceCapture trace;
    EXPECT_EQ(StnzListSetKeywordFromInteger(list, "", "A", "k", INT32_MIN, TRUE), TRUE);
    EXPECT_EQ(StnzListSetKeywordFromBoolean(list, "b", "b", "yes", TRUE, FALSE), TRUE);
    EXPECT_EQ(StnzListSetKeywordFromBoolean(list, "b", "b", "yes", FALSE, FALSE), TRUE);
    EXPECT_EQ(StnzListSetKeywordFromValueList(list, "n", "new", "v", values, TRUE), TRUE);
    EXPECT_EQ(trace.CountText("Not an ObjStringO"), 1);
    EXPECT_EQ(trace.Level("STANZA", 2), 3);
    EXPECT_EQ(StnzListSetKeywordFromString(list, "N", "NEW", "s", " ", FALSE), TRUE);
    EXPECT_EQ(StnzListDeleteKeywordFromStanza(list, "x", "a", "K"), TRUE);
    EXPECT_EQ(StnzListDeleteKeywordFromStanza(list, "x", "a", "K"), FALSE);
    // Refused, with nothing changed and nothing kept.
    EXPECT_EQ(StnzListSetKeywordFromString(list, nullptr, "", "s", "x", FALSE), FALSE);
    EXPECT_EQ(StnzListSetKeywordFromString(list, nullptr, "a", "", "x", FALSE), FALSE);
    EXPECT_EQ(StnzListSetKeywordFromValueList(list, nullptr, "a", "s", nullptr, FALSE), FALSE);
    EXPECT_EQ(StnzListSetKeywordFromString(nullptr, nullptr, "a", "s", "x", FALSE), FALSE);
    const Text expected =
        "[a]\nl=3\nk=-2147483648\n\n[B:b]\nyes=true\nyes=false\n\n[x:a]\n\n"
        "[n:new]\nv=1,,x!,y\ns=! \n\n";
    EXPECT_EQ(Saved(list), expected);
    StnzKeyT* key = nullptr;
    EXPECT_EQ(StnzListGetKey(&key, list, "N", "new", "V"), TRUE);
    EXPECT_EQ(key->lMaxValueCount, 4);  // as many as the list had items
    EXPECT_EQ(StnzCreateKeyFromInt64(&key, "k", INT64_MIN), TRUE);
    EXPECT_EQ(StnzKeyValue(key, 1), Text("-9223372036854775808"));
    StnzReleaseKey(&key);

    // A replaced stanza moves to the end, also when it is the very one of the list.
    StnzT* stanza = nullptr;
    EXPECT_EQ(StnzListFindStanza(&stanza, list, nullptr, "a"), TRUE);
    EXPECT_EQ(StnzListReplaceStanza(list, stanza), TRUE);
    EXPECT_EQ(Titles(list), "b a new a ");
    EXPECT_EQ(StnzCreate(&stanza, "b", "B", 0), TRUE);
    EXPECT_EQ(StnzSetKeywordFromString(&stanza, "k", "x", FALSE), TRUE);
    EXPECT_EQ(StnzSetKeywordFromInteger(&stanza, "k", -5, TRUE), TRUE);
    EXPECT_EQ(StanzaText(stanza), "b:B{k=-5}");
    EXPECT_EQ(StnzListReplaceStanza(list, stanza), TRUE);
    EXPECT_EQ(Titles(list), "a new a B ");
    EXPECT_EQ(StnzListRemoveStanza(list, nullptr, "new"), FALSE);
    EXPECT_EQ(StnzListRemoveStanza(list, "X", "A"), TRUE);
    EXPECT_EQ(Titles(list), "new a B ");
    ObjRelease(&stranger);
    ObjRelease(&values);
    ObjRelease(&list);
}

TEST(StanzaList, FiltersAndWalks) {
    const NothingLeft nothing;
    ListO list = LoadStanzas("[a]\non=true\n[b]\n[c]\nON=no\n[d]\non=\n");
    const auto filtered = [&](BooleanT value, BooleanT standard) {
        ListO result = nullptr;
        if (StnzListFilterByBooleanKeyword(&result, list, "on", value, standard) != TRUE)
            return Text("failed");
        Text titles = Titles(result);
        ObjRelease(&result);
        return titles;
    };
    EXPECT_EQ(filtered(TRUE, FALSE), "a ");
    EXPECT_EQ(filtered(TRUE, TRUE), "a b ");
    EXPECT_EQ(filtered(FALSE, TRUE), "c d ");
    ListO with = nullptr;
    ASSERT_EQ(StnzListFilterByKeyword(&with, list, "On"), TRUE);
    EXPECT_EQ(Titles(with), "a c d ");
    // The objects are shared, and found ones are held.
    ObjStanzaO found = nullptr;
    EXPECT_EQ(StnzListFindStanzaObject(&found, with, nullptr, "C"), TRUE);
    EXPECT_EQ(StnzListSetKeywordFromBoolean(list, nullptr, "c", "on", TRUE, TRUE), TRUE);
    ObjRelease(&with);
    EXPECT_EQ(filtered(TRUE, FALSE), "a c ");

    const TraceCapture trace;
    const auto walk = [&](ListO oList, Text stop) {
        std::pair<Text, Text> context = {"", stop};
        const StnzListCallbackFnT visit = [](void* cookie, StnzT* visited) {
            auto& [seen, last] = *static_cast<std::pair<Text, Text>*>(cookie);
            seen += visited->pstrTitle;
            return BooleanFrom(visited->pstrTitle != last);
        };
        const BooleanT result = StnzListWalk(oList, visit, &context);
        return context.first + (result == TRUE ? "+" : "-") + trace.Records().back().text;
    };
    EXPECT_EQ(walk(list, ""), "abcd+StnzListWalk suceeded");
    EXPECT_TRUE(walk(list, "b").starts_with("ab-"));
    ListO untyped = ListOf({"no stanza"});
    untyped->lItemMagic = 0;
    EXPECT_EQ(walk(untyped, ""), "-StnzListWalk failing as bad object type in stanza list");
    EXPECT_EQ(StnzListFilterByKeyword(&with, untyped, "on"), FALSE);
    ListReleaseAll(untyped);
    EXPECT_EQ(walk(untyped, ""), "+Stnz list suceeding, but with empty list");
    EXPECT_EQ(walk(nullptr, ""), "-StnzListWalk not given valid list");
    ObjRelease(&untyped);
    ObjRelease(&found);
    ObjRelease(&list);
}

TEST(StanzaScan, TakesTheFilesOfATree) {
    const Dir dir;
    const Dir outside;
    std::filesystem::create_directories((dir / "sub/x.cfg").c_str());
    for (const char* name :
         {"a.cfg", "b.cfg.cfg", "c.cfg.old", "d.cfg.lck", "e", "sub/x.cfg/f.cfg", "\x82.cfg"})
        WriteFile(dir(name), "[" + Text(name).substr(0, 3) + "]\n");
    WriteFile(outside("g.cfg"), "[g]\n");
    ASSERT_EQ(symlink(outside.Path().c_str(), dir("link.cfg")), 0);
    ASSERT_EQ(mkfifo(dir("pipe.cfg"), 0600), 0);
    const auto scan = [&](const char* extension, BooleanT goOn) -> int {
        ListO lists = nullptr;
        if (StnzScanDirForStnzLists(&lists, dir.Path().c_str(), extension, goOn) != TRUE) return -1;
        const int32 count = lists->lItemCount;
        for (const auto* list : ItemsOf<ListO>(lists)) EXPECT_EQ(list->lItemCount, 1);
        ObjRelease(&lists);
        return count;
    };
    // How many of the texts were traced once.
    const auto count = [](const TraceCapture& trace, const std::vector<Text>& texts) {
        int all = 0;
        for (const Text& text : texts) all += trace.CountText(text) == 1 ? 1 : 0;
        return all;
    };
    scan("none", FALSE);  // makes the class known
    const NothingLeft nothing;
    const Text loaded = "Loaded stanz list file '", ignored = "StnzScanForStnzListsCB() - Ignore ";
    {
        const TraceCapture trace;
        EXPECT_EQ(scan(".cfg", FALSE), 3);
        EXPECT_EQ(
            count(trace, {loaded + dir("b.cfg.cfg") + "'", loaded + dir("sub/x.cfg/f.cfg") + "'",
                          ignored + ".lck file 'd.cfg.lck'", ignored + "file 'c.cfg.old'",
                          "Found 3 stanz list files in '" + dir.Path() + "'"}),
            5);
    }
    for (const char* every : {"", static_cast<const char*>(nullptr)})
        EXPECT_EQ(scan(every, FALSE), 6);
    ASSERT_EQ(symlink("/none/x", dir("bad.cfg")), 0);
    const TraceCapture trace;
    EXPECT_EQ(scan(".cfg", TRUE), 3);
    EXPECT_EQ(scan(".cfg", FALSE), -1);
    const Text bad = "Could not interpret file as stanza list. ", file = " ('" + dir("bad.cfg");
    EXPECT_EQ(count(trace, {bad + "Continuing scan." + file + "')", bad + "Failing." + file + "')",
                            "Failed to scan dir '" + dir.Path() + "' for stanza lists"}),
              3);
    EXPECT_EQ(StnzScanDirForStnzLists(nullptr, "d", "e", TRUE), FALSE);
    EXPECT_EQ(trace.Level("STANZA", 3), -1);
}

}  // namespace
