// Localised texts from catalogues written by hand.
#include "core/context.h"
#include "core/locale.h"
#include "core/sys.h"
#include "support/files.h"
#include "support/leftovers.h"

using Text = std::string;

static void WriteCatalog(const Text& language, const Text& file, const Text& lines) {
    WriteInHome("locale/" + language + "/" + file, lines);
}

static Text StringOf(const char* text, int32 lId) { return Owned(LocaleGetString(text, lId)); }

struct LocaleTest : testing::Test {
    void TearDown() override { LocaleSetLocale(nullptr); }
};

TEST(LocaleLine, Grammar) {
    // Lines and their texts; second halves of characters are neither quotes nor backslashes.
    // clang-format off
    const Text entries[][2] = {
        {"12 \"twelve\"", "twelve"},    {"2147483647 a \"b\" and \"c\"", "b"},
        {"7 \"\"", ""},                 {"8 \"a \\\"b\\\" \\n\" c", "a \\\"b\\\" \\n"},
        {"9 \"\\\\\" a\"", "\\\\\" a"}, {"10 \x81\"\"\x95\\\"", "\x95\\"},
        {"13 \"\xa1\"", "\xa1"},        {"11 \"\x81\"\xe0\"x\"", "\x81\"\xe0\"x"}};
    const char* const others[] = {
        "0 \"x\"", "012 \"x\"", "12\"x\"", "12\t\"x\"", " 12 \"x\"", "-12 \"x\"", "+12 \"x\"",
        "text \"x\"", "", "12", "12 x", "12 \"x", "12 \"x\\\"", "12 \"x\x81\"",
        "2147483648 \"x\"", "99999999999999999999 \"x\""};
    // clang-format on
    const NothingLeft nothing;
    for (const auto& [line, text] : entries) {
        LocaleEntryT tEntry;
        ASSERT_EQ(LocaleLineIsEntry(&tEntry, line.c_str()), TRUE) << line;
        EXPECT_EQ(tEntry.lId, std::stoi(line));
        EXPECT_EQ(Owned(tEntry.pstrText), text);
    }
    LocaleEntryT tNone;
    for (const char* line : others) EXPECT_EQ(LocaleLineIsEntry(&tNone, line), FALSE) << line;
}

TEST_F(LocaleTest, LanguagesAreSetAndDropped) {
    WriteCatalog("Deutsch", "locale.ctl",
                 "; texts\n300 \"drei\"\n5 \"f\xfcnf\"\r\n300 \"zwei\"\n6 \"" + Text(251, 'l') +
                     "\"\n7 \"" + Text(252, 'l') + "\"\n");  // the longest line, and a longer one
    WriteFile(TestHome() + "/locale/locale.ctl", "5 \"outside\"\n");
    const NothingLeft nothing;
    // Languages, the result, and whether the texts are German from then on.
    // clang-format off
    const char* const steps[][2] = {
        {"french", "00"}, {"Deutsch", "11"}, {"klingon", "01"}, {"..", "01"}, {".", "01"},
        {"", "01"}, {"../locale/Deutsch", "01"}, {"English", "10"}, {"english", "00"},
        {"Deutsch", "11"}, {nullptr, "10"}};
    // clang-format on
    for (const auto& [language, expected] : steps) {
        EXPECT_EQ(LocaleSetLocale(language), expected[0] - '0') << expected;
        EXPECT_EQ(StringOf("five", 5), expected[1] == '1' ? "f\xfcnf" : "five");
        char* pstrInUse = nullptr;
        EXPECT_EQ(LocaleGetLocale(&pstrInUse), BooleanFrom(language != nullptr));
        EXPECT_EQ(Owned(pstrInUse), language == nullptr ? "<null>" : language);
    }
    TraceCapture trace;
    EXPECT_EQ(LocaleSetLocale("Deutsch"), TRUE);
    EXPECT_EQ(LocaleSetLocale(gtTlContext.sLocale.pstrLocale), TRUE);  // which it replaces
    EXPECT_EQ(trace.Text("LOCALE", 3), "Cached '3' entries from catalog.");
    EXPECT_EQ(StringOf("", 300) + StringOf("", 6) + StringOf(nullptr, 7), "drei" + Text(251, 'l'));
    LocaleReleaseThread(&gtTlContext);
}

TEST_F(LocaleTest, ConfigurationNamesTheLanguage) {
    WriteCatalog("Dansk", "locale.ctl", "5 \"fem\"\n");
    for (const Text line : {"Catalog=Dansk\n", "Catalog=none\n", "Catalog=\n", ""}) {
        WriteInHome("config/configure.cfg", "[Locale]\n" + line);
        LocaleReleaseThread(&gtTlContext);
        EXPECT_EQ(LocaleInitializeThread(&gtTlContext), TRUE);
        EXPECT_EQ(StringOf("five", 5), line == "Catalog=Dansk\n" ? "fem" : "five");
    }
    std::filesystem::remove(TestHome() + "/config/configure.cfg");
}

TEST_F(LocaleTest, PluginCatalogsComeOnDemand) {
    WriteCatalog("Suomi", "locale.ctl",
                 "532 \"tavua\"\n533 \"kt\"\n537 \"Mt\"\n250000007 \"own\"\n");
    WriteCatalog("Suomi", "locale2500.ctl", "250000123 \"pii\"\n250000007 \"late\"\n7 \"seven\"\n");
    WriteCatalog("Suomi", "locale1000.ctl", "100000001 \"never\"\n");
    WriteCatalog("UK English", "locale.ctl", "1 \"one\"\n");
    WriteCatalog("UK English", "locale2500.ctl", "250000123 \"colour\"\n");
    EXPECT_EQ(LocaleReadPluginLocale(2500), TRUE);  // nothing to do
    EXPECT_EQ(StringOf("pie", 250000123), "pie");
    EXPECT_EQ(LocaleSetLocale("Suomi"), TRUE);
    const char* pstrOwn = LocaleGetStaticString("", 250000007);
    EXPECT_EQ(StringOf("pie", 250000123), "pii");
    EXPECT_EQ(StringOf("", 7), "seven");
    EXPECT_STREQ(pstrOwn, "own");  // stays where it is
    EXPECT_EQ(LocaleGetStaticString("", 250000007), pstrOwn);
    EXPECT_EQ(StringOf("none", 100000001) + StringOf("none", -250000123), "nonenone");
    EXPECT_EQ(LocaleReadPluginLocale(2501), FALSE);
    // Units: one set of words for each width.
    for (const auto& [lValue, wide, narrow] : {std::tuple{1, "1 tavua", "1 bytes"},
                                               {20480, "20 kt", "20 Kbytes"},
                                               {10485760, "10 Mbytes", "10 Mt"}}) {
        char* pstrUnit = nullptr;
        SysInt64ToUnitString(&pstrUnit, lValue);
        EXPECT_EQ(Owned(pstrUnit), wide);
        SysIntegerToUnitString(&pstrUnit, lValue);
        EXPECT_EQ(Owned(pstrUnit), narrow);
    }
    EXPECT_EQ(LocaleSetLocale("UK English"), TRUE);
    EXPECT_EQ(LocaleReadPluginLocale(2500), TRUE);
    EXPECT_EQ(StringOf("color", 250000123), "color");
}

TEST_F(LocaleTest, TaggedStrings) {
    WriteCatalog("Norsk", "locale.ctl", "77 \"opptatt\"\n");
    // Request, built-in and localised text.
    // clang-format off
    const Text cases[][3] = {
        {"Busy\17777", "Busy", "opptatt"},            {"\17777", "", "opptatt"},
        {"Busy\1774294967373", "Busy", "Busy"},       {"Busy\177", "Busy", "Busy"},
        {"Busy\17777\1775", "Busy", "opptatt"},       {"Busy\177x77", "Busy", "Busy"},
        {"\x95\17777", "\x95\17777", "\x95\17777"},   {"Busy77", "Busy77", "Busy77"},
        {"\x95\177\17777", "\x95\177", "opptatt"},    {"", "", ""}};
    // clang-format on
    for (const bool localised : {false, true}) {
        EXPECT_EQ(LocaleSetLocale(localised ? "Norsk" : nullptr), TRUE);
        for (const auto& texts : cases)
            EXPECT_EQ(Owned(LocaleResolveStringWithId(texts[0].c_str())), texts[localised ? 2 : 1]);
    }
    EXPECT_EQ(Owned(LocaleCreateStringWithId("Busy", -77)), "Busy\x7f-77");
    EXPECT_EQ(Owned(LocaleCreateStringWithId("", 77)), "");
}

TEST_F(LocaleTest, FormatsConvertTheSameArguments) {
    // Built-in text; texts that serve in its place; texts that do not.
    const std::vector<const char*> cases[][3] = {
        {{"%s has %d"},
         {"%s: %d", "%-20s 100%% %+05d", "%s %99.99d"},
         {"%d: %s", "%s", "%s %d %d", "%s %u", "%s %ld", "%2$s %1$d", "%s %n", "%s %% %hhd",
          "%s %*d", "%s %.*d", "%s %100d", "%s %.100d", "%s %d%", "%s %", "%s %5%d", "%s \x95%d %d",
          "%s %I5d"}},
        {{"none"}, {"keine", "100%%"}, {"100% sure", "%s"}},
        {{"%lld %hhu"}, {"%08lld %.3hhu"}, {"%ld %hu", "%d %u", "%lld %lllu"}},
        {{"%.8s"}, {"%.8s!", "%.4s!"}, {"%s!", "%.9s!"}},
        {{"%n"}, {}, {"%n!"}},
        {{"%*d"}, {}, {"%*d!"}}};
    for (const auto& [builtIn, served, refused] : cases) {
        for (const bool serves : {true, false}) {
            for (const char* text : serves ? served : refused) {
                WriteCatalog("Hostile", "locale.ctl", Text("1 \"") + text + "\"\n");
                EXPECT_EQ(LocaleSetLocale("Hostile"), TRUE);
                EXPECT_STREQ(LocaleGetFormat(builtIn[0], 1), serves ? text : builtIn[0]);
            }
        }
    }
    EXPECT_STREQ(LocaleGetFormat("%s", 9999), "%s");
}
