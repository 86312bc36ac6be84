// Stanza files: what is read from hand-written lines, what is written byte for byte, cursors, and
// changes for which there is no room or that fail on the way.
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <random>

#include "core/cfg.h"
#include "core/stnzlist.h"
#include "support/faults.h"
#include "support/leftovers.h"
#include "support/stanzas.h"

namespace {

using Text = std::string;
using Lines = std::vector<Text>;

// Changes of a file.
using Change = BooleanT (*)(const char* category, const char* title, const Lines&,
                            const char* path);
template <BooleanT (*Write)(StnzT*, const char*)>
BooleanT WithStanza(const char* category, const char* title, const Lines& lines, const char* path) {
    StnzT* stanza = StanzaOf(category, title, lines);
    const BooleanT result = Write(stanza, path);
    StnzRelease(&stanza);
    return result;
}
constexpr Change Replace = WithStanza<StnzReplaceStanzaInFile>;
constexpr Change Append = WithStanza<StnzAddStanzaToFile>;
template <BooleanT Replaces>
BooleanT WithKey(const char* category, const char* title, const Lines& lines, const char* path) {
    StnzKeyT* key = nullptr;
    StnzLineToKey(&key, lines[0].c_str());
    const BooleanT result = StnzAddKeyToFile(path, category, title, &key, Replaces);
    EXPECT_TRUE(result == FALSE || key == nullptr);
    StnzReleaseKey(&key);
    return result;
}
BooleanT Remove(const char* category, const char* title, const Lines&, const char* path) {
    return StnzRemoveStanzaFromFile(category, title, path);
}
// All stanzas are read and written, with an integer of the first one set.
BooleanT Save(const char* category, const char* title, const Lines& lines, const char* path) {
    ObjHolder<ListS> list;
    const auto value = static_cast<int32>(lines.size());
    return BooleanFrom(
        StnzLoadStanzaListFromFile(list.Address(), path) == TRUE &&
        StnzListSetKeywordFromInteger(list.Get(), category, title, "k", value, TRUE) == TRUE &&
        StnzSaveStanzaListToFile(list.Get(), path) == TRUE);
}

TEST(StnzFile, Reading) {
    const Text full(4093, 'x');
    const std::pair<Text, Text> table[] = {
        {"", ""},
        {"a=1\n[Network]\nport = 1\n", "Network{port=1}"},
        {" [ Machine \t: host a ] rest = 1\nk=v", "Machine:host a{k=v}"},
        {"[a:b:c]\n[A:B:C]x\n[ d : e : f ]", "a:b:c{}A:B:C{}d:e : f{}"},
        {"[:t]\n[ :t]\n[ \t]\n[]\n[t\n[c:]\n[c: ]\n[t]]", "t{}"},
        {"[t]\n#a=1\n \tb c =1\n=x\n[=x\nno key\n  =x\nd==", "t{#a=1;b c=1;d==}"},
        {"[t]\r\na\r=1\r\n\rb=2\r\n", "t{a=1;b=2}"},
        {"[t]\na=\nb= \t\nc=,\nd= x , y ,,z\ne=x=y\n", "t{a=;b=;c=-,-;d=x,y,-,z;e=x=y}"},
        {"[t]\na=!n!!!,!x! ! \nb= !  x !\t\nc=x!\nd=\"a,b\"\n",
         "t{a=\n!,x  ;b=  x \t;c=x;d=\"a,b\"}"},
        {"[t]\na=x !,b=!\nb=!  ,!", "t{a=x ,b=;b= ,}"},
        // Delimiters that are second bytes.
        {"[\x82]\x82:\x82[ : \xe0 ]\n\x82=\x9f\x20 = \x82,\xff!,\x82n!\x82n,\xe0\n\n",
         "\x82]\x82:\x82[:\xe0 {\x82=\x9f\x20=\x82,\xff!,\x82n\x82n,\xe0\n}"},
        {"[t]\n\x82= =\x82!,\x82, \x82 \nz=\xa0,\xdf!,\n",
         "t{\x82==\x82!,\x82, \x82 ;z=\xa0,\xdf,}"},
        {"[t]\na=\x82\nb=1\nc=\xe9\r\n[\x82\n]\n", "t{a=\x82\nb=1;c=\xe9\r}\x82\n{}"},
        // Long lines end at 4095 bytes, and not within a character.
        {"[t]\na=" + full + "y\nb=" + full + "\n", "t{a=" + full + ";b=" + full + "}"},
        {"[t]\na=" + full.substr(1) + "\x82\xa0y\nb=1", "t{a=" + full.substr(1) + ";b=1}"},
        {"[" + Text(5000, 't') + "]\n[u]", "u{}"},
        // A zero byte ends its line for the parser.
        {Text("[t]\nab\0=1\nc=1\0=2\n[u\0]\nd=1\n", 26), "t{c=1;d=1}"},
        {Text("[t]\nc=1\x82\0\nd=\x82\x82\0", 15), "t{c=1;d=\x82\x82}"},
        {"[t]\na=1\n[T]\na=2\n[u]", "t{a=1}T{a=2}u{}"},
    };
    const Dir dir;
    const NothingLeft nothing;
    for (const auto& [content, expected] : table) {
        WriteFile(dir("f"), content);
        EXPECT_EQ(StanzasOfFile(dir("f")), expected) << content;
        EXPECT_EQ(ReadFile(dir("f")), content);
    }
}

TEST(StnzFile, Lines) {
    // Whether the line looks like a title or a key, and its category and title.
    const std::tuple<const char*, char, Text> table[] = {
        {" \t[ c : t a ] x=y", 'T', "c t a"}, {"[t=]", 'T', "<null> t="},
        {"[:t]", 'T', "<null> <null>"},       {"[t=v", '-', "<null> <null>"},
        {"k[t]=", 'K', "<null> <null>"},      {"=v", '-', "<null> <null>"}};
    for (const auto& [line, kind, names] : table) {
        char *category = nullptr, *title = nullptr;
        EXPECT_EQ(StnzLineIsTitle(line), BooleanFrom(kind == 'T')) << line;
        EXPECT_EQ(StnzLineIsKey(line), BooleanFrom(kind == 'K')) << line;
        EXPECT_EQ(StnzLineToTitle(&category, &title, line),
                  BooleanFrom(!names.ends_with("<null>")));
        const Text found = Owned(category) + " ";
        EXPECT_EQ(found + Owned(title), names) << line;
    }
}

// Files after a change, to the byte.
TEST(StnzFile, Rewriting) {
    const Change AddKey = WithKey<FALSE>, ReplaceKey = WithKey<TRUE>;
    const Text mixed =
        "# c\n\n[ a ]\n\n x = 1 , 2 \nno\n[t]\nold=1\n[c : t]\n z=\n[T]\nold=2\n[b]\n";
    const Text cleaned = "[a]\nx= 1 , 2 \n\n[T]\nnew=\n\n[c:t]\nz=\n\n\n[b]\n";
    const Text escapes = "[a!b: c,d ]\nk,l! = x!q\n", plain = "[a!b:c,d]\nk,l!= x!q\n";
    const struct {
        Change change;
        Text content;
        const char *category, *title;
        Lines lines;
        Text expected;
    } table[] = {
        {Replace, "", nullptr, "t", {"a= 1 ,2,x!!"}, "[t]\na=1,2,x!!\n\n"},
        {Replace, "", "", "t", {}, "[t]\n\n"},
        {Replace, "x=1\n[a]\ny=1", nullptr, "t", {"k=!,"}, "x=1\n[a]\ny=1\n\n[t]\nk=!,\n\n"},
        {Replace, mixed, nullptr, "T", {"new="}, cleaned},
        {Replace, "[c:t]\na=1\n[b]\n", "C", "T", {"e= "}, "[C:T]\ne=\n\n[b]\n"},
        // Names have no escapes.
        {Replace, "[t]\na=1\n", nullptr, "t!,", {"b!=! x! !n"}, "[t]\na=1\n\n[t!,]\nb!=! x !n\n\n"},
        {Remove, escapes + "[t]\n[e]\n\n[T]\na=1\n", nullptr, "t", {}, plain + "[e]\n"},
        {Remove, "#=1\n[a]\n\nx\n\n[c:t]\nb=1\n", "c", "u", {}, "#=1\n[a]\n[c:t]\nb=1\n"},
        {Remove, "[\x82!]\n\x82,!=\x82!\n", nullptr, "u", {}, "[\x82!]\n\x82,!=\x82!\n"},
        {Append, "[t]\n a=1", nullptr, "t", {"b=1"}, "[t]\n a=1[t]\nb=1\n\n"},
        {AddKey, "[t]\na=1\nA=2\n[u]", nullptr, "T", {"a=3"}, "[T]\na=1\nA=2\na=3\n\n[u]\n"},
        {ReplaceKey, "[c:t]\na=1\nb=!x\nA=2\n", "c", "t", {"a=3"}, "[c:t]\nb=x\na=3\n\n"},
        {ReplaceKey, "[u]\n", "", "t", {"a=3"}, "[u]\n\n[t]\na=3\n\n"},
    };
    const Dir dir;
    const NothingLeft nothing;
    for (const auto& row : table) {
        WriteFile(dir("f"), row.content);
        EXPECT_EQ(row.change(row.category, row.title, row.lines, dir("f")), TRUE);
        EXPECT_EQ(ReadFile(dir("f")), row.expected) << row.content;
        EXPECT_EQ(ListDir(dir.Path()), (Lines{"f", "f.lck"}));
    }
}

// Where the handle stands: current title, keyword and argument, and the key that comes next.
TEST(StnzFile, CursorKeepsItsPlaceWhenAFindFails) {
    const Dir dir;
    WriteFile(dir("f"), "k=0\n[a]\nk=1\nl=2\nK=3\n[c:b]\nm=4\nk=5\n[d]\nn=6");
    const NothingLeft nothing;
    StnzFileO file = nullptr;
    ASSERT_EQ(StnzOpenFile(&file, dir("f"), 257), TRUE);
    const auto where = [&] {
        char *category = nullptr, *title = nullptr, *keyword = nullptr, *argument = nullptr;
        StnzCurrentTitle(&category, &title, file);
        StnzCurrentKeyword(&keyword, file);
        StnzCurrentArgument(&argument, file);
        return Owned(category) + ":" + Owned(title) + " " + Owned(keyword) + "=" + Owned(argument);
    };
    const std::tuple<std::function<BooleanT()>, BooleanT, Text> steps[] = {
        {[&] { return StnzFindNextKeyword(file); }, FALSE, "<null>:<null> <null>=<null>"},
        {[&] { return StnzFindKeyword(file, "M"); }, TRUE, "c:b m=4"},
        {[&] { return StnzFindKeyword(file, "l"); }, FALSE, "c:b m=4"},
        {[&] { return StnzFindStanza(file, nullptr, "b"); }, FALSE, "c:b m=4"},
        {[&] { return StnzFindKeywordInStanza(file, "n"); }, FALSE, "c:b m=4"},
        {[&] { return StnzFindNextKeyword(file); }, TRUE, "c:b k=5"},
        {[&] { return StnzFindNextKeyword(file); }, FALSE, "c:b k=5"},
        {[&] { return StnzFindNextStanza(file); }, TRUE, "<null>:d <null>=<null>"},
        {[&] { return StnzFindNextStanza(file); }, FALSE, "<null>:d <null>=<null>"},
        {[&] { return StnzFindNextKeyword(file); }, TRUE, "<null>:d n=6"},
        {[&] { return StnzFindStanza(file, "", "A"); }, TRUE, "<null>:A <null>=<null>"},
        {[&] { return StnzFindKeywordInStanza(file, "k"); }, TRUE, "<null>:A k=1"},
        {[&] { return StnzFindNextKeyword(file); }, TRUE, "<null>:A l=2"},
        {[&] {
             StnzT* stanza = nullptr;
             EXPECT_EQ(StnzLoadCurrentStanza(&stanza, file), TRUE);
             EXPECT_EQ(StanzaText(stanza), "A{k=1;l=2;K=3}");
             return StnzRelease(&stanza);
         },
         TRUE, "<null>:A l=2"},
        {[&] { return StnzFindNextKeyword(file); }, TRUE, "<null>:A K=3"},
        // The stanza that is current is not looked for again.
        {[&] { return StnzFindStanza(file, nullptr, "a"); }, TRUE, "<null>:A <null>=<null>"},
        {[&] { return StnzFindNextKeyword(file); }, TRUE, "<null>:A k=1"},
        {[&] { return StnzRewindFile(file); }, TRUE, "<null>:<null> <null>=<null>"},
        {[&] { return StnzFindKeyword(file, "k"); }, TRUE, "<null>:<null> k=0"},
        {[&] {
             // A stanza beyond the reach of 32 bits.
             EXPECT_EQ(truncate(dir("f"), off_t{1} << 31), 0);
             FILE* out = std::fopen(dir("f"), "a");
             std::fputs("\n[far]\nk=1\n", out);
             std::fclose(out);
             fseeko(file->FD->pfInput, off_t{1} << 31, SEEK_SET);
             const BooleanT result = StnzFindNextStanza(file);
             EXPECT_EQ(ftello(file->FD->pfInput), off_t{1} << 31);
             return result;
         },
         FALSE, "<null>:<null> k=0"},
    };
    int number = 0;
    for (const auto& [find, found, place] : steps) {
        EXPECT_EQ(find(), found) << number;
        EXPECT_EQ(where(), place) << number++;
    }
    EXPECT_EQ(StnzCloseFile(&file), TRUE);
    EXPECT_EQ(StnzFileOpenMode(file), -1);
}

TEST(StnzFile, Modes) {
    const Dir dir;
    // With which the class is made known.
    const ObjHolder<StnzDynamicListS> known(ObjNew<StnzDynamicListS>(StnzDynamicListMagic, "o;s;"));
    const NothingLeft nothing;
    const Text once = "[c:t]\nk=v\n\n";
    StnzT* stanza = StanzaOf("c", "t", {"k=v"});
    StnzFileO file = nullptr;
    EXPECT_EQ(StnzAddStanzaToFile(stanza, dir("f")), TRUE);
    ASSERT_EQ(StnzOpenFile(&file, dir("f"), 515), TRUE);
    EXPECT_EQ(StnzFindStanza(file, "c", "t"), FALSE);  // nothing is read in this mode
    EXPECT_EQ(StnzFileReplaceStanza(file, stanza), FALSE);
    EXPECT_EQ(StnzFileRemoveStanza(file, "c", "t"), FALSE);
    EXPECT_EQ(StnzFileAppendStanza(file, stanza), TRUE);
    EXPECT_EQ(StnzCloseFile(&file), TRUE);
    EXPECT_EQ(ReadFile(dir("f")), once + once);
    for (const int32 mode : {257, 516}) {
        ASSERT_EQ(StnzOpenFile(&file, dir("f"), mode), TRUE);
        EXPECT_EQ(StnzFileAppendStanza(file, stanza), FALSE);
        EXPECT_EQ(StnzFileWriteStanza(file, stanza), FALSE);  // there is no output
        EXPECT_EQ(StnzFileRemoveStanza(file, "c", nullptr), FALSE);
        if (mode == 257) StnzCloseFile(&file);
    }
    // A rewrite that is open is completed by closing.
    EXPECT_EQ(FileStreamStartRewrite(file->FD), TRUE);
    EXPECT_EQ(StnzFileWriteStanza(file, stanza), TRUE);
    EXPECT_EQ(StnzCloseFile(&file), TRUE);
    EXPECT_EQ(ReadFile(dir("f")), once);

    ObjHolder<StnzDynamicListS> dynamic;
    ASSERT_EQ(StnzLoadDynamicStanzaListFromFile(dynamic.Address(), dir("f")), TRUE);
    WriteFile(dir("f"), "lost");
    EXPECT_EQ(StnzSaveDynamicStanzaListToFile(dynamic.Get()), TRUE);
    EXPECT_EQ(ReadFile(dir("f")), once);

    StnzKeyT* key = nullptr;
    EXPECT_EQ(StnzLoadKeyFromFile(&key, dir("f"), "C", "T", "K"), TRUE);
    EXPECT_EQ(KeyText(key), "K=v");
    StnzReleaseKey(&key);
    EXPECT_EQ(StnzLineToKey(&key, "x") + StnzFindNextStanza(nullptr), FALSE);
    EXPECT_EQ(StnzAddStanzaToFile(nullptr, "f") + StnzAddStanzaToFile(stanza, nullptr), FALSE);
    EXPECT_EQ(StnzReplaceStanzaInFile(nullptr, "f") + StnzReplaceStanzaInFile(stanza, nullptr),
              FALSE);
    const TraceCapture trace;
    MemFree(&stanza->pstrTitle);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, dir("f")), FALSE);
    EXPECT_EQ(trace.Text("STANZA", 74), "Failed to replace stanza in file");
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, "/none/f"), FALSE);
    EXPECT_EQ(trace.Text("STANZA", 75), "Failed to open '/none/f' for update");
    StnzRelease(&stanza);
    // A file that cannot be read is no empty file, and nothing is written in its place.
    ASSERT_EQ(symlink("/proc/self/mem", dir("link")), 0);
    for (const Text& path : {dir.Path(), Text(dir("none")), Text(dir("link"))})
        EXPECT_EQ(StanzasOfFile(path), "failed");
    EXPECT_EQ(StnzRemoveStanzaFromFile(nullptr, "t", dir("link")), FALSE);
    EXPECT_EQ(ListDir(dir.Path()), (Lines{"f", "f.lck", "link", "link.lck", "none.lck"}));
    remove((dir.Path() + ".lck").c_str());
}

// --- what fails on the way ---

BooleanT SetItem(const char*, const char* title, const Lines&, const char*) {
    return CfgSetInteger("f.cfg", title, "k", 2);
}

const Text ConfigDir = TestHome() + "/config";
const Name File = ConfigDir + "/f.cfg";
const Text Old = "[t]\nk=old\n\n[u]\nk=1\n\n";

// The changes that a failing disk is tried on; the content after success.
const struct {
    const char* name;
    Change change;
    const char* title;
    Lines lines;
    Text after;
} Changes[] = {
    {"replace", Replace, "t", {"k=new value", "l=b"}, "[t]\nk=new value\nl=b\n\n[u]\nk=1\n"},
    {"remove", Remove, "t", {}, "[u]\nk=1\n"},
    {"add key", WithKey<FALSE>, "u", {"n=1"}, "[t]\nk=old\n\n[u]\nk=1\nn=1\n\n"},
    {"append", Append, "t", {"k=new value"}, Old + "[t]\nk=new value\n\n"},
    {"save", Save, "t", {"", ""}, "[t]\nk=2\n\n[u]\nk=1\n\n"},
    {"item", SetItem, "u", {}, "[t]\nk=old\n\n[u]\nk=2\n\n"},
};

TEST(StnzFile, AFullOrFailingDiskLeavesTheOldFile) {
    mkdir(ConfigDir.c_str(), 0700);
    for (const auto& change : Changes) {
        SCOPED_TRACE(change.name);
        const auto attempt = [&] {
            return change.change(nullptr, change.title, change.lines, File);
        };
        const auto expectNewOrOld = [&](BooleanT done) {
            EXPECT_EQ(ReadFile(File), done == TRUE ? change.after : Old);
            EXPECT_FALSE(Exists(File + ".new"));
        };
        const RunResult full = InChild([&] {
            signal(SIGXFSZ, SIG_IGN);  // writing past the limit fails
            const NothingLeft nothing;
            for (rlim_t room = 0; room <= change.after.size(); room++) {
                WriteFile(File, Old);
                struct rlimit limit = {room, RLIM_INFINITY};
                setrlimit(RLIMIT_FSIZE, &limit);
                const BooleanT done = attempt();
                limit.rlim_cur = RLIM_INFINITY;
                setrlimit(RLIMIT_FSIZE, &limit);
                EXPECT_EQ(done, BooleanFrom(room == change.after.size())) << room;
                expectNewOrOld(done);
            }
            return testing::Test::HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(full.exitCode, 0) << full.output;
        for (const Call call : FileCalls) {
            // A new file is made safe and then put in the place of the old one.
            const bool needed =
                (call == Call::Rename || call == Call::Fsync) && change.change != Append;
            int hits = 0;
            FaultSweep(call, [&](const Fault& fault) {
                WriteFile(File, Old);
                const NothingLeft nothing;
                FaultArm(fault);
                const BooleanT done = attempt();
                const bool hit = FaultDisarm() > 0;
                hits += hit ? 1 : 0;
                EXPECT_FALSE(needed && hit && done == TRUE);
                expectNewOrOld(done);
                EXPECT_EQ(attempt(), TRUE);  // the next one goes on
                return hit;
            });
            EXPECT_TRUE(!needed || hits > 0);
        }
    }
}

// A rewriting process that is killed leaves the old or the new file; the next one goes on.
TEST(StnzFile, KilledWhileRewriting) {
    const Dir dir;
    const auto replace = [&](int version) {
        Lines lines(300, "filler=text");
        lines.push_back("version=" + std::to_string(version));
        return Replace(nullptr, "t", lines, dir("f"));
    };
    const auto fileNumber = [&] {
        struct stat status = {};
        stat(dir("f"), &status);
        return status.st_ino;
    };
    EXPECT_EQ(replace(0), TRUE);
    const Text whole = StanzasOfFile(dir("f"));
    const Text expected = whole.substr(0, whole.size() - 2);  // without "0}"
    std::mt19937 random(7);
    for (int round = 0; round < 60; round++) {
        const auto first = fileNumber();
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int version = 1; replace(version) == TRUE;) version++;
            _exit(1);
        }
        int status = 0;
        // From the first file that it has put in place on.
        while (fileNumber() == first && waitpid(child, &status, WNOHANG) == 0) usleep(50);
        usleep(random() % 3000);
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << status;
        const Text text = StanzasOfFile(dir("f"));
        ASSERT_TRUE(text.starts_with(expected)) << text;
        ASSERT_EQ(text.find_first_not_of("0123456789", expected.size()), text.size() - 1) << text;
    }
    EXPECT_EQ(replace(0), TRUE);
    EXPECT_EQ(StanzasOfFile(dir("f")), whole);
    EXPECT_EQ(ListDir(dir.Path()), (Lines{"f", "f.lck"}));
}

TEST(StnzFile, LoadingTakesTimeInProportion) {
    const Dir dir;
    const auto seconds = [&](int stanzas, int keys) {
        Text content;
        for (int s = 0; s < stanzas; s++) {
            content += "[category:title " + std::to_string(s) + "]\n";
            for (int k = 0; k < keys; k++)
                content += "keyword" + std::to_string(k) + " = first value, second value\n";
        }
        WriteFile(dir("f"), content);
        // The best of three, so that memory which the system hands out first is not measured.
        double best = 1e9;
        for (int round = 0; round < 3; round++) {
            ObjHolder<ListS> list;
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(StnzLoadStanzaListFromFile(list.Address(), dir("f")), TRUE);
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
            best = std::min(best, taken.count());
            EXPECT_EQ(list.Get()->lItemCount, stanzas);
            const auto* last = static_cast<ObjStanzaO>(list.Get()->oLast->oData)->pValue;
            EXPECT_EQ(last->lKeyCount, keys);
        }
        return best;
    };
    EXPECT_LT(seconds(1, 200000), 12 * seconds(1, 50000));
    EXPECT_LT(seconds(100000, 2), 12 * seconds(25000, 2));
}

}  // namespace
