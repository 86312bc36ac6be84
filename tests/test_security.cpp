// Cookies, scrambled passwords, patterns, and the administrator's password against a shadow file of
// the test's own (test_security.options).
#include <gtest/gtest.h>
#include <shadow.h>
#include <sys/stat.h>

#include <cstdio>
#include <random>
#include <string>

#include "core/cfg.h"
#include "core/security.h"
#include "core/sys.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/support.h"

namespace {

std::string gShadowFile;

std::string Encrypt(const std::string& password, const char* key) {
    char* result = nullptr;
    EXPECT_EQ(SecurityEncryptPassword(&result, password.c_str(), key), TRUE);
    return Owned(result);
}
std::string Decrypt(const std::string& text, const char* key) {
    char* result = nullptr;
    return SecurityDecryptPassword(&result, text.c_str(), key) == TRUE ? Owned(result) : "<none>";
}

}  // namespace

spwd* WrapGetspnam(const char* name) __asm__("__wrap_getspnam");
spwd* WrapGetspnam(const char* name) {
    FILE* file = std::fopen(gShadowFile.c_str(), "r");
    if (file == nullptr) return nullptr;
    spwd* entry = nullptr;
    while ((entry = fgetspent(file)) != nullptr && std::string(entry->sp_namp) != name) {
    }
    std::fclose(file);
    return entry;
}

// --- scrambled passwords ---

// Texts computed apart from the library.
TEST(Security, ScrambledForms) {
    const struct {
        const char* password;
        const char* key;
        const char* scrambled;
    } cases[] = {
        {"secret", "key", "&17>p1"},
        {"secret", "", "tfdsfu"},
        {"secret", nullptr, "tfdsfu"},
        {"\"}\"}\"}\"}", "Tessel", "3./4P6'Q"},
        {"with blank", "key", "!784144402b7b63515541"},
        {"!excl", "k", "!1b78635144"},
        {"caf\303\251~", "\351\200z", "!697770d3af55"},
        {"secret", "\377\376\375", "@'0C}4"},
        {"\001\177\377", "key", "!0e57cf"},
        {"", "key", ""},
        // Longer than the 64 values.
        {"\")07>ELSZahov}(/6=DKRY`gnu|'.5<CJQX_fmt{&-4;BIPW^elsz%,3:AHOV]dkry$+29@GNU\\cjqx#*18?"
         "FMT[bipw\")07>ELSZahov}(/6=DKRY`gnu|'.5<CJQX_fmt{&-4;BIPW^elsz%,3:A",
         "long key of some words",
         "5OI>IZz'<o}:H5fCdcSNS^87;&}*9\\YQOo:8%LF0'VbOo`#j<pm3A^<gDHLY`7i@)C=2=Nnw0cq.<)Z7XWGBGR,"
         "+/vqz-PMECc.,u@:$wJVCcTs^0da'5R0[8<@MT+]4y71&1Bbk$We~0yN+LK;6;F"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(Encrypt(test.password, test.key), test.scrambled);
        EXPECT_EQ(Decrypt(test.scrambled, test.key), *test.password ? test.password : "<none>");
        std::string buffer(2 * std::string(test.password).size() + 2, '#');
        EXPECT_EQ(SecurityEncryptPasswordToString(buffer.data(), const_cast<char*>(test.password),
                                                  const_cast<char*>(test.key)),
                  TRUE);
        EXPECT_STREQ(buffer.c_str(), test.scrambled);
    }
    char* result = nullptr;
    EXPECT_EQ(SecurityEncryptPassword(&result, nullptr, "key"), TRUE);
    EXPECT_EQ(Owned(result), "");
    EXPECT_EQ(SecurityEncryptPassword(nullptr, "a", "key"), FALSE);
    EXPECT_EQ(SecurityDecryptPassword(nullptr, "a", "key"), FALSE);
}

TEST(Security, AnyPasswordComesBack) {
    std::mt19937 engine(5);
    const Leftovers before;
    for (int i = 0; i < 3000; i++) {
        std::string password(1 + engine() % 200, ' '), key(engine() % 20, ' ');
        const unsigned lowest = i % 2 == 0 ? 34 : 1, count = i % 2 == 0 ? 92 : 255;
        for (char& c : password) c = static_cast<char>(lowest + engine() % count);
        if (i % 2 != 0) password[engine() % password.size()] = '\x7e';  // never printable
        for (char& c : key) c = static_cast<char>(1 + engine() % 255);
        const std::string scrambled = Encrypt(password, key.c_str());
        ASSERT_EQ(scrambled.size(), i % 2 == 0 ? password.size() : 2 * password.size() + 1);
        for (const char c : scrambled.substr(1)) ASSERT_TRUE(c >= 35 && c <= 126);
        ASSERT_EQ(Decrypt(scrambled, key.c_str()), password);
    }
    const std::pair<const char*, const char*> broken[] = {{"!", ""},
                                                          {"!1", "<none>"},
                                                          {"!0e5g", "<none>"},
                                                          {"! 1", "<none>"},
                                                          {"!0E57CF", "\1\x7f\xff"}};
    for (const auto& [text, result] : broken) EXPECT_EQ(Decrypt(text, "key"), result) << text;
    EXPECT_EQ(before.Text(), "");
}

// --- patterns ---

TEST(Security, Patterns) {
    const struct {
        const char* pattern;
        const char* property;
        BooleanT fits;
    } cases[] = {
        {"", "", TRUE},
        {"", "a", FALSE},
        {"*", "", TRUE},
        {"a", "", FALSE},
        {"ab", "ac", FALSE},
        {"ab", "ab", TRUE},
        {"ab", "abc", FALSE},
        {"abc", "ab", FALSE},
        {"a*", "a", TRUE},
        {"a*b", "a", FALSE},
        {"***a", "a", TRUE},
        {"*ab", "aab", TRUE},
        {"*aab*", "aaab", TRUE},
        {"a**b*c", "axbybc", TRUE},
        {"a*b*c", "acb", FALSE},
        {"*a*a*a*", "aa", FALSE},
        {"*abc", "ababc", TRUE},
        {"a*", "ba", FALSE},
        // Whole characters: the second byte of 0x835c is no "\\" and of 0x832a no "*".
        {"*\\", "\x83\\", FALSE},
        {"\x83*", "\x83xy", FALSE},
        {"*\x83\x41", "\x83\x83\x83\x41", TRUE},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(SecurityCheckClearance(test.pattern, test.property), test.fits)
            << test.pattern << " " << test.property;
    }
    EXPECT_EQ(SecurityCheckClearance(nullptr, "a"), FALSE);
    EXPECT_EQ(SecurityCheckClearance("*", nullptr), FALSE);
    const std::string text(20000, 'a');
    EXPECT_EQ(SecurityCheckClearance("*a*a*a*a*a*a*a*a*b", text.c_str()), FALSE);
    TraceCapture trace;
    EXPECT_EQ(SecurityTest(), TRUE);
    EXPECT_EQ(trace.CountText("All security library tests passed okay"), 1);
    BooleanT bCleared = 7;
    EXPECT_EQ(SecurityCheckAccess(&bCleared, "host", "privilege"), TRUE);
    EXPECT_EQ(SecurityCheckAccessFromMessage(&bCleared, nullptr, "privilege"), TRUE);
    EXPECT_EQ(bCleared, 7);
}

// --- cookies ---

TEST(Security, Cookies) {
    mkdir((TestHome() + "/config").c_str(), 0700);
    const std::string file = TestHome() + "/config/security.cfg";
    Name machine("north"), proxy("GUI Proxy"), other("gui proxy"), local(SysLocalMachineName());
    const auto cookie = [&](Name& machineName, Name& process, BooleanT outward) {
        int32 result = 99;
        const BooleanT found =
            SecurityGetCookie(&result, machineName.data(), process.data(), outward);
        EXPECT_EQ(found, BooleanFrom(result != -1));
        return result;
    };
    WriteFile(file, "[Client Out Cookies]\nnorth=11\n" + local +
                        "=5\n[Client In Cookies]\nnorth=-12\nsouth=many\n"
                        "[Proxy Out Cookies]\nnorth=13\n[Proxy In Cookies]\nnorth=14\n");
    EXPECT_EQ(cookie(machine, other, TRUE), 11);
    EXPECT_EQ(cookie(machine, other, FALSE), -12);
    EXPECT_EQ(cookie(machine, proxy, TRUE), 13);
    EXPECT_EQ(cookie(machine, proxy, FALSE), 14);
    EXPECT_EQ(cookie(local, other, TRUE), 0);
    Name unknown("east"), bad("south");
    EXPECT_EQ(cookie(unknown, other, TRUE), -1);
    EXPECT_EQ(cookie(bad, other, FALSE), -1);
    EXPECT_EQ(SecurityGetCookie(nullptr, machine.data(), other.data(), TRUE), FALSE);

    EXPECT_EQ(SecurityStoreCookie(nullptr, other.data(), 1, TRUE), FALSE);
    EXPECT_EQ(SecurityStoreCookie(unknown.data(), nullptr, 21, TRUE), TRUE);
    EXPECT_EQ(SecurityStoreCookie(unknown.data(), proxy.data(), 22, TRUE), TRUE);
    EXPECT_EQ(SecurityStoreCookie(unknown.data(), other.data(), 23, FALSE), TRUE);
    EXPECT_EQ(cookie(unknown, other, TRUE), 21);
    EXPECT_EQ(SecurityRemoveClient(unknown.data()), TRUE);
    EXPECT_EQ(cookie(unknown, other, TRUE), -1);
    EXPECT_EQ(cookie(unknown, proxy, TRUE), 22);
    EXPECT_EQ(SecurityRemoveServer(unknown.data()), TRUE);
    EXPECT_EQ(cookie(unknown, proxy, TRUE), -1);
    EXPECT_EQ(cookie(unknown, other, FALSE), 23);
    EXPECT_EQ(SecurityRemoveClientInCookie(unknown.data()), TRUE);
    EXPECT_EQ(cookie(unknown, other, FALSE), -1);

    EXPECT_EQ(SecurityIsOff(), FALSE);
    CfgSetBoolean("security.cfg", "Security", "Disabled", TRUE);
    EXPECT_EQ(SecurityIsOff(), TRUE);
    EXPECT_EQ(cookie(machine, other, FALSE), 0);
    EXPECT_EQ(cookie(machine, proxy, FALSE), 0);
    EXPECT_EQ(cookie(machine, other, TRUE), 11);
    unlink(file.c_str());
}

// --- the administrator's password ---

// Hashes of "correct horse", made by other programs.
TEST(Security, RootPassword) {
    const char right[] = "correct horse";
    const struct {
        const char* hash;
        bool accepts;  // the right password
        bool acceptsEmpty;
    } cases[] = {
        {"$y$j9T$F5Jx5fExrKuPp53xLKQ..1$zwtVrjrUCmXcyLTs6oxLTQlzifSUkF8RHJ./tK5KU79", true, false},
        {"$6$saltstring$.r0X7ub5wGR2v4Xz7svCIozfnlorFh19V89t8KC9Umd81uGhFgsyTRNyzQDXDIm17fFcR9z3z7"
         "oBNdsyYBbtm/",
         true, false},
        {"$5$saltstring$vc6YOOogU4kWVvwga8e9zTFgKcy4tb5LaPxIiPJzqEC", true, false},
        {"$1$saltsalt$NuzA7WTAelpl95xgBGWN60", true, false},
        {"abhfCpXqd4GrI", true, false},  // looks at eight characters
        {"!$1$saltsalt$NuzA7WTAelpl95xgBGWN60", false, false},
        {"", false, true},
        {"!", false, false},
        {"*", false, false},
        {"!!", false, false},
        {"*0", false, false},  // what a failing crypt gives
        {"*1", false, false},
        {"ab", false, false},
        {"$9$unknown$NuzA7WTAelpl95xgBGWN60", false, false},
    };
    TempDir directory;
    gShadowFile = directory / "shadow";
    for (const auto& test : cases) {
        WriteFile(gShadowFile, "daemon:abhfCpXqd4GrI:1::::::\nroot:" + std::string(test.hash) +
                                   ":19000:0:99999:7:::\n");
#ifdef TESSEL_HAVE_CRYPT
        const BooleanT bAccepts = BooleanFrom(test.accepts);
#else
        const BooleanT bAccepts = FALSE;
#endif
        Name password(right), wrong("wrong horse"), hash(test.hash), empty("");
        EXPECT_EQ(SecurityCheckRootPassword(password.data()), bAccepts) << test.hash;
        EXPECT_EQ(SecurityCheckRootPassword(wrong.data()), FALSE) << test.hash;
        EXPECT_EQ(SecurityCheckRootPassword(empty.data()), BooleanFrom(test.acceptsEmpty));
        EXPECT_EQ(SecurityCheckRootPassword(nullptr), BooleanFrom(test.acceptsEmpty));
        if (hash.empty()) continue;
        EXPECT_EQ(SecurityCheckRootPassword(hash.data()), FALSE) << test.hash;
    }
    WriteFile(gShadowFile, "toor::1::::::\n");
    TraceCapture trace;
    EXPECT_EQ(SecurityCheckRootPassword(nullptr), FALSE);
    EXPECT_EQ(trace.Text("SECURITY", 11), "getspnam failed!");
}
