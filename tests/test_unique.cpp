#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "core/objwrappers.h"
#include "core/unique.h"
#include "support/files.h"
#include "support/support.h"

namespace {

UniqueT FromHex(const std::string& hex) {
    UniqueT tValue = {};
    for (std::size_t i = 0; i < hex.size() / 2; i++)
        tValue.tUnique[i] = static_cast<ByteT>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
    return tValue;
}

auto Fields(const UniqueT& tValue) {
    UniqueDecodeT t = {9, 9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(UniqueDecode(&tValue, &t), TRUE);
    return std::vector<int32>{t.lIpAddress, t.lTime,     t.lRandom, t.lId,      t.lSequence,
                              t.lJobId,     t.lInstance, t.lPhase,  t.lSubPhase};
}

const std::string kBase = "1f0200020403020108070605efbeaddeffffffff";

// Bytes as they lie in the identifier, the text and the numbers of a little-endian host.
const struct {
    std::string bytes;
    std::string text;
    std::vector<int32> fields;
} kForms[] = {
    {kBase + "000000000000000000000000",
     kBase,
     {0x0200021f, 0x01020304, 0x05060708, static_cast<int32>(0xdeadbeefU), -1, 0, 0, 0, 0}},
    {kBase + "050000000200000001000000",
     kBase + " 00000005 00000002 0001 0000",
     {0x0200021f, 0x01020304, 0x05060708, static_cast<int32>(0xdeadbeefU), -1, 5, 2, 1, 0}},
    {"00000000000000000000000000000000000000000807060504030201fefff1ff",
     "0000000000000000000000000000000000000000 05060708 01020304 fffe fff1",
     {0, 0, 0, 0, 0, 0x05060708, 0x01020304, -2, -15}},
    {std::string(64, '0'), "(invalid)", {9, 9, 9, 9, 9, 9, 9, 9, 9}},
};

}  // namespace

TEST(Unique, FormsOfFixedIdentifiers) {
    for (const auto& form : kForms) {
        UniqueT tValue = FromHex(form.bytes);
        EXPECT_EQ(UniqueToString(&tValue), form.text);
        EXPECT_EQ(Fields(tValue), form.fields) << form.text;
        UniqueT tRead = FromHex("ff");
        const bool bValid = form.text != "(invalid)";
        EXPECT_EQ(UniqueFromString(&tRead, form.text.c_str()), BooleanFrom(bValid));
        if (!bValid) continue;
        tValue.tUnique[30] = tValue.tUnique[31] = 0;  // the sub-phase is not read
        EXPECT_EQ(std::memcmp(&tRead, &tValue, 32), 0) << form.text;
    }
    EXPECT_STREQ(UniqueToString(nullptr), "(null)");
    UniqueT tUpper = {};
    EXPECT_EQ(UniqueFromString(&tUpper, "1F0200020403020108070605EFBEADDEFFFFFFFF"), TRUE);
    EXPECT_EQ(UniqueToString(&tUpper), kBase);
}

TEST(Unique, RefusesOtherTexts) {
    const std::string good = kBase + " 00000005 00000002 0001 0000";
    std::vector<std::string> bad = {
        "", "(null)", kBase + "0", good + "0", kBase + " 00000005", std::string(4096, '0')};
    // Any one character of another kind, blanks and digits in each other's place.
    for (std::size_t i = 0; i < good.size(); i++) {
        for (const char c : {'g', '-', '/', ':', '@', '`', '\t', '\x80', i % 2 ? 'x' : 'G',
                             good[i] == ' ' ? '0' : ' '}) {
            bad.push_back(good);
            bad.back()[i] = c;
        }
        bad.push_back(good.substr(0, i));
        if (i == kBase.size()) bad.pop_back();
    }
    for (const std::string& text : bad) {
        UniqueT tValue = FromHex(kBase);
        EXPECT_EQ(UniqueFromString(&tValue, text.c_str()), FALSE) << text;
        EXPECT_EQ(UniqueToString(&tValue), kBase);
    }
}

TEST(Unique, NewOnesFollowEachOther) {
    const RunResult result = InChild([] {
        // The exclusive-or of the first 16 characters, in fours.
        const struct {
            const char* address;
            int32 word;
        } cases[] = {{"10.1.2.3", 0x0200021f},
                     {"[2001:db8::17%eth0]", 0x170b1765},
                     {"aaaabbbbccccdddd-and-more", 0x04040404}};
        int32 lSequence = 0;
        for (const auto& test : cases) {
            std::memset(gstrIpAddress, 0, sizeof(gstrIpAddress));
            std::strcpy(gstrIpAddress, test.address);
            UniqueT tValue = FromHex("ff");
            const auto tBefore = static_cast<int32>(std::time(nullptr));
            EXPECT_EQ(UniqueCreateSessionId(&tValue, -7, 8, 0x12345), TRUE);
            UniqueDecodeT t = {};
            UniqueDecode(&tValue, &t);
            EXPECT_EQ(t.lIpAddress, test.word) << test.address;
            EXPECT_GE(t.lTime, tBefore);
            EXPECT_LE(t.lTime, std::time(nullptr));
            EXPECT_EQ(t.lId, getpid());
            EXPECT_EQ(t.lSequence, lSequence++);
            EXPECT_EQ(std::tie(t.lJobId, t.lInstance, t.lPhase, t.lSubPhase),
                      std::make_tuple(-7, 8, 0x2345, 0));
        }
        return static_cast<int>(testing::Test::HasFailure());
    });
    EXPECT_EQ(result.exitCode, 0) << result.output;
}

TEST(Unique, NumbersAreSetOnlyInValidOnes) {
    UniqueT tInvalid = {};
    UniqueT tValue = FromHex(kBase);
    int32 l = 9;
    for (UniqueT* ptBad : {&tInvalid, static_cast<UniqueT*>(nullptr)}) {
        EXPECT_EQ(UniqueSetJobId(ptBad, 1), FALSE);
        EXPECT_EQ(UniqueSetSessionInstance(ptBad, 1), FALSE);
        EXPECT_EQ(UniqueSetSessionPhase(ptBad, 1), FALSE);
        EXPECT_EQ(UniqueIncrementSessionSubPhase(ptBad), FALSE);
        EXPECT_EQ(UniqueGetSessionSubPhase(&l, ptBad), FALSE);
        EXPECT_EQ(UniqueGetJobId(ptBad, &l), FALSE);
        EXPECT_EQ(UniqueIsInvalid(ptBad), TRUE);
    }
    EXPECT_EQ(UniqueGetJobId(&tValue, &l), FALSE);
    UniqueSetJobId(&tValue, -5);
    UniqueSetSessionInstance(&tValue, 0x7fffffff);
    UniqueSetSessionPhase(&tValue, 3);
    for (int i = 0; i < 0x18000; i++) UniqueIncrementSessionSubPhase(&tValue);
    EXPECT_EQ(UniqueToString(&tValue), kBase + " fffffffb 7fffffff 0003 8000");
    EXPECT_EQ(UniqueGetJobId(&tValue, &l), TRUE);
    EXPECT_EQ(l, -5);
    EXPECT_EQ(UniqueGetSessionSubPhase(&l, &tValue), TRUE);
    EXPECT_EQ(l, -0x8000);
    UniqueSetSessionPhase(&tValue, 4);
    EXPECT_EQ(UniqueToString(&tValue), kBase + " fffffffb 7fffffff 0004 0000");
    UniqueInvalidate(&tValue);
    EXPECT_EQ(UniqueIsInvalid(&tValue), TRUE);
}

// Each identifier differs from the first in one number only.
TEST(Unique, ComparisonsLookAtTheirPart) {
    const std::string first = kBase + "050000000200000001000000";
    const struct {
        std::string other;
        // Order of first and other: by base, by job, by instance, by all bytes.
        std::vector<int32> order;
        int equalTo;  // parts equal in front: 0 none, 1 base, 2 job, 3 instance, 4 phase, 5 all
    } cases[] = {
        {first, {0, 0, 0, 0}, 5},
        {kBase + "050000000200000001000100", {0, 0, 0, -1}, 4},
        {kBase + "050000000200000000000000", {0, 0, 0, 1}, 3},
        {kBase + "050000000001000001000000", {0, 0, -1, 1}, 2},  // 256: more, but a lower byte
        {kBase + "05000000ffffffff01000000", {0, 0, 1, -1}, 2},  // -1: less
        {kBase + "ffffffff0200000001000000", {0, 1, 1, -1}, 1},
        {"9f" + first.substr(2), {-1, -1, -1, -1}, 0},
    };
    for (const auto& test : cases) {
        UniqueT a = FromHex(first), b = FromHex(test.other);
        for (const int32 sign : {1, -1}) {
            const UniqueT &x = sign > 0 ? a : b, &y = sign > 0 ? b : a;
            const std::vector<int32> order = {UniqueBaseCompare(&x, &y), UniqueJobCompare(&x, &y),
                                              UniqueInstanceCompare(&x, &y), UniqueCompare(&x, &y)};
            for (std::size_t i = 0; i < 4; i++)
                EXPECT_EQ(order[i], sign * test.order[i]) << test.other << " " << i;
        }
        const ObjHolder<ObjUniqueS> oA(ObjUniqueNew(&a)), oB(ObjUniqueNew(&b));
        const std::vector<BooleanT> equal = {UniqueBaseEqual(&a, &b),
                                             UniqueJobEqual(&a, &b),
                                             UniqueInstanceEqual(&a, &b),
                                             UniqueSameSessionInstance(&a, &b),
                                             UniqueSameSessionPhase(&a, &b),
                                             UniqueEqual(&a, &b),
                                             ObjUniqueEqual(oA.Get(), oB.Get()),
                                             ObjUniqueSameSessionId(oA.Get(), oB.Get())};
        const std::vector<int> needed = {1, 2, 3, 3, 4, 5, 5, 3};
        for (std::size_t i = 0; i < needed.size(); i++)
            EXPECT_EQ(equal[i], BooleanFrom(test.equalTo >= needed[i])) << test.other << " " << i;
    }
    UniqueT a = FromHex(first);
    EXPECT_EQ(UniqueInstanceCompare(nullptr, &a), -1);
    EXPECT_EQ(UniqueJobCompare(&a, nullptr), 1);
    EXPECT_EQ(UniqueCompare(nullptr, nullptr), 0);
    EXPECT_EQ(UniqueEqual(nullptr, nullptr), FALSE);
}

TEST(Unique, Wrappers) {
    const RunResult result = InChild([] {
        ObjHolder<ObjUniqueS> oNew(ObjUniqueNew()), oSession, oOther;
        EXPECT_EQ(UniqueIsInvalid(ObjGetUnique(oNew.Get())), FALSE);
        EXPECT_EQ(ObjUniqueCreateSessionId(oSession.Address(), 1, 2, 3), TRUE);
        EXPECT_EQ(UniqueGetSessionPhase(ObjGetUnique(oSession.Get())), 3);
        EXPECT_EQ(UniqueBaseEqual(ObjGetUnique(oNew.Get()), ObjGetUnique(oSession.Get())), FALSE);
        EXPECT_EQ(ObjUniqueCreate(oOther.Address(), ObjGetUnique(oSession.Get())), TRUE);
        EXPECT_EQ(ObjUniqueEqual(oSession.Get(), oOther.Get()), TRUE);
        const ObjHolder<ObjIntegerS> oInteger(ObjIntegerNew(1));
        auto* oWrong = reinterpret_cast<ObjUniqueO>(oInteger.Get());
        EXPECT_EQ(ObjUniqueEqual(oWrong, oWrong), FALSE);
        EXPECT_EQ(ObjUniqueSameSessionId(oNew.Get(), nullptr), FALSE);
        EXPECT_EQ(ObjUniqueCreate(nullptr), FALSE);
        return static_cast<int>(testing::Test::HasFailure());
    });
    EXPECT_EQ(result.exitCode, 0) << result.output;
}
