// Cookies, scrambled passwords, patterns, and the administrator's password against a shadow file of
// the test's own (test_security.options).
#include <shadow.h>

#include "core/cfg.h"
#include "core/security.h"
#include "core/sys.h"
#include "support/files.h"

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
    spwd* entry = fgetspent(file);
    while (entry != nullptr && std::string(entry->sp_namp) != name) entry = fgetspent(file);
    std::fclose(file);
    return entry;
}

// Texts computed apart from the library; the last password is longer than the table of values.
TEST(Security, ScrambledForms) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"secret", "key", "&17>p1"},
        {"secret", nullptr, "tfdsfu"},
        {"\"}\"}\"}\"}", "Tessel", "3./4P6'Q"},
        {"with blank", "key", "!784144402b7b63515541"},
        {"!excl", "k", "!1b78635144"},
        {"caf\303\251~", "\351\200z", "!697770d3af55"},
        {"secret", "\377\376\375", "@'0C}4"},
        {"\")07>ELSZahov}(/6=DKRY`gnu|'.5<CJQX_fmt{&-4;BIPW^elsz%,3:AHOV]dkry$+29@GNU\\cjqx#*18?"
         "FMT[bipw\")07>ELSZahov}(/6=DKRY`gnu|'.5<CJQX_fmt{&-4;BIPW^elsz%,3:A",
         "long key of some words",
         "5OI>IZz'<o}:H5fCdcSNS^87;&}*9\\YQOo:8%LF0'VbOo`#j<pm3A^<gDHLY`7i@)C=2=Nnw0cq.<)Z7XWGBGR,"
         "+/vqz-PMECc.,u@:$wJVCcTs^0da'5R0[8<@MT+]4y71&1Bbk$We~0yN+LK;6;F"}};
    for (const auto& [password, key, scrambled] : cases) {
        EXPECT_EQ(Encrypt(password, key), scrambled);
        EXPECT_EQ(Decrypt(scrambled, key), password);
        // Into a buffer that is no longer than it has to be.
        std::vector<char> buffer(2 * std::strlen(password) + 2, '#');
        EXPECT_EQ(SecurityEncryptPasswordToString(buffer.data(), const_cast<char*>(password),
                                                  const_cast<char*>(key)),
                  TRUE);
        EXPECT_STREQ(buffer.data(), scrambled);
    }
    EXPECT_EQ(Encrypt("", "key"), "");
    EXPECT_EQ(Decrypt("!", "key"), "");
    for (const char* broken : {"", "!1", "!0e5g", "! 1"})
        EXPECT_EQ(Decrypt(broken, "key"), "<none>");
}

// Pattern and property with a "|" between them.
TEST(Security, Patterns) {
    const auto fits = [](const std::string& pair) {
        const std::size_t bar = pair.find('|');
        return SecurityCheckClearance(pair.substr(0, bar).c_str(), pair.substr(bar + 1).c_str());
    };
    for (const char* pair : {"|", "*|", "ab|ab", "a*|a", "***a|a", "*ab|aab", "*aab*|aaab",
                             "a**b*c|axbybc", "*abc|ababc", "*\x83\x41|\x83\x83\x83\x41"})
        EXPECT_EQ(fits(pair), TRUE) << pair;
    // In the last two a byte of a two-byte character looks like a character of the pattern.
    for (const char* pair : {"|a", "a|", "ab|ac", "ab|abc", "abc|ab", "a*b|a", "a*b*c|acb",
                             "*a*a*a*|aa", "a*|ba", "*\\|\x83\\", "\x83*|\x83xy"})
        EXPECT_EQ(fits(pair), FALSE) << pair;
    EXPECT_EQ(fits("*a*a*a*a*a*a*a*a*b|" + std::string(20000, 'a')), FALSE);
    // Every request is granted.
    for (const BooleanT before : {FALSE, TRUE}) {
        BooleanT cleared = before;
        EXPECT_EQ(SecurityTest() + SecurityCheckAccess(&cleared, "host", "privilege") +
                      SecurityCheckAccessFromMessage(&cleared, nullptr, nullptr),
                  3 * TRUE);
        EXPECT_EQ(cleared, before);
    }
}

TEST(Security, Cookies) {
    Name north("north"), east("east"), south("south"), local(SysLocalMachineName());
    Name proxy("GUI Proxy"), other("gui proxy");
    WriteInHome("config/security.cfg",
                "[Client Out Cookies]\nnorth=11\n" + local +
                    "=5\n[Client In Cookies]\nnorth=-12\nsouth=many\n"
                    "[Proxy Out Cookies]\nnorth=13\n[Proxy In Cookies]\nnorth=14\n");
    // Client out, client in, proxy out, proxy in.
    const auto cookies = [&](Name& machine) {
        std::string text;
        for (Name* process : {&other, &proxy}) {
            for (const BooleanT outward : {TRUE, FALSE}) {
                int32 cookie = 99;
                const BooleanT found =
                    SecurityGetCookie(&cookie, machine.data(), process->data(), outward);
                EXPECT_EQ(found, BooleanFrom(cookie != -1));
                text += std::to_string(cookie) + " ";
            }
        }
        return text;
    };
    EXPECT_EQ(cookies(north), "11 -12 13 14 ");
    EXPECT_EQ(cookies(local), "0 0 0 0 ");
    EXPECT_EQ(cookies(south), "-1 -1 -1 -1 ");
    SecurityStoreCookie(east.data(), nullptr, 21, TRUE);
    SecurityStoreCookie(east.data(), other.data(), 22, FALSE);
    SecurityStoreCookie(east.data(), proxy.data(), 23, TRUE);
    SecurityStoreCookie(east.data(), proxy.data(), 24, FALSE);
    EXPECT_EQ(cookies(east), "21 22 23 24 ");
    EXPECT_EQ(SecurityRemoveClient(east.data()), TRUE);
    EXPECT_EQ(cookies(east), "-1 22 23 24 ");
    EXPECT_EQ(SecurityRemoveServer(east.data()), TRUE);
    EXPECT_EQ(cookies(east), "-1 22 -1 24 ");
    EXPECT_EQ(SecurityRemoveClientInCookie(east.data()), TRUE);
    EXPECT_EQ(cookies(east), "-1 -1 -1 24 ");
    CfgSetBoolean("security.cfg", "Security", "Disabled", TRUE);
    EXPECT_EQ(cookies(north), "11 0 13 0 ");
}

// Hashes of "correct horse", made by other programs; then those that no password fits.
TEST(Security, RootPassword) {
    const std::pair<bool, std::string> cases[] = {
        {true, "$y$j9T$F5Jx5fExrKuPp53xLKQ..1$zwtVrjrUCmXcyLTs6oxLTQlzifSUkF8RHJ./tK5KU79"},
        {true,
         "$6$saltstring$.r0X7ub5wGR2v4Xz7svCIozfnlorFh19V89t8KC9Umd81uGhFgsyTRNyzQDXDIm17fFcR"
         "9z3z7oBNdsyYBbtm/"},
        {true, "$5$saltstring$vc6YOOogU4kWVvwga8e9zTFgKcy4tb5LaPxIiPJzqEC"},
        {true, "$1$saltsalt$NuzA7WTAelpl95xgBGWN60"},
        {true, "abhfCpXqd4GrI"},
        {false, "!$1$saltsalt$NuzA7WTAelpl95xgBGWN60"},
        {false, "$9$unknown$NuzA7WTAelpl95xgBGWN60"},
        {false, "*0"},  // what a failing crypt gives
        {false, "*1"},
        {false, "!!"},
        {false, "*"},
        {false, ""}};
#ifdef TESSEL_HAVE_CRYPT
    constexpr bool HaveCrypt = true;
#else
    constexpr bool HaveCrypt = false;
#endif
    Dir directory;
    gShadowFile = directory("shadow");
    for (const auto& [accepts, hash] : cases) {
        WriteFile(gShadowFile, "daemon:::\nroot:" + hash + ":19000:0:99999:7:::\n");
        Name right("correct horse"), wrong("wrong horse"), same(hash);
        EXPECT_EQ(SecurityCheckRootPassword(right.data()), BooleanFrom(accepts && HaveCrypt));
        EXPECT_EQ(SecurityCheckRootPassword(wrong.data()), FALSE) << hash;
        EXPECT_EQ(SecurityCheckRootPassword(same.data()), BooleanFrom(hash.empty())) << hash;
        EXPECT_EQ(SecurityCheckRootPassword(nullptr), BooleanFrom(hash.empty())) << hash;
    }
    WriteFile(gShadowFile, "toor::1::::::\n");
    EXPECT_EQ(SecurityCheckRootPassword(nullptr), FALSE);
}
