#include <ctime>

#include "core/objwrappers.h"
#include "core/unique.h"
#include "support/files.h"

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
    {kBase, kBase, {0x0200021f, 0x01020304, 0x05060708, -0x21524111, -1, 0, 0, 0, 0}},
    {kBase + "050000000200000001000000",
     kBase + " 00000005 00000002 0001 0000",
     {0x0200021f, 0x01020304, 0x05060708, -0x21524111, -1, 5, 2, 1, 0}},
    {"00000000000000000000000000000000000000000807060504030201fefff1ff",
     "0000000000000000000000000000000000000000 05060708 01020304 fffe fff1",
     {0, 0, 0, 0, 0, 0x05060708, 0x01020304, -2, -15}},
    {"", "(invalid)", {9, 9, 9, 9, 9, 9, 9, 9, 9}},
};

}  // namespace

TEST(Unique, FormsOfFixedIdentifiers) {
    for (const auto& form : kForms) {
        UniqueT tValue = FromHex(form.bytes);
        EXPECT_EQ(UniqueToString(&tValue), form.text);
        EXPECT_EQ(Fields(tValue), form.fields) << form.text;
        // One by one; those of an invalid one are 0, but there is no sub-phase.
        const bool valid = form.bytes != "";
        std::vector<int32> numbers(form.fields.begin() + 5, form.fields.end());
        if (!valid) numbers = {0, 0, 0, 9};
        int32 lJob = 9, lSubPhase = 9;
        EXPECT_EQ(UniqueGetJobId(&tValue, &lJob), BooleanFrom(numbers[0] != 0));
        EXPECT_EQ(UniqueGetSessionSubPhase(&lSubPhase, &tValue), BooleanFrom(valid));
        EXPECT_EQ(numbers, (std::vector<int32>{lJob, UniqueGetSessionInstance(&tValue),
                                               UniqueGetSessionPhase(&tValue), lSubPhase}));
        std::string upper = form.text;
        std::ranges::transform(upper, upper.begin(), toupper);
        tValue.tUnique[30] = tValue.tUnique[31] = 0;  // the sub-phase is not read
        for (const std::string& text : {form.text, upper}) {
            UniqueT tRead = FromHex("");
            EXPECT_EQ(UniqueFromString(&tRead, text.c_str()), BooleanFrom(valid));
            EXPECT_EQ(std::memcmp(&tRead, &tValue, 32), 0) << text;
        }
        UniqueInvalidate(&tValue);
        EXPECT_STREQ(UniqueToString(&tValue), "(invalid)");
    }
    EXPECT_STREQ(UniqueToString(nullptr), "(null)");
    UniqueInvalidate(nullptr);
    EXPECT_EQ(UniqueGetSessionInstance(nullptr) + UniqueGetSessionPhase(nullptr), 0);
}

TEST(Unique, RefusesOtherTexts) {
    const std::string good = kBase + " 00000005 00000002 0001 0000";
    std::vector<std::string> bad = {kBase + "0", good + "0", std::string(4096, '0')};
    // Any one character of another kind, blanks and digits in each other's place; cut anywhere.
    for (std::size_t i = 0; i < good.size(); i++) {
        for (const char c : {'g', 'G', '-', '/', ':', '@', '`', '\x80', good[i] == ' ' ? '0' : ' '})
            bad.push_back(good.substr(0, i) + c + good.substr(i + 1));
        if (i != kBase.size()) bad.push_back(good.substr(0, i));
    }
    for (const std::string& text : bad) {
        UniqueT tValue = FromHex(kBase);
        EXPECT_EQ(UniqueFromString(&tValue, text.c_str()), FALSE) << text;
        EXPECT_EQ(UniqueToString(&tValue), kBase);
    }
}

// In a process of its own, which has made none before.
TEST(Unique, NewOnesFollowEachOther) {
    const RunResult result = InChild([] {
        // The exclusive-or of the first 16 characters, in fours.
        const std::pair<const char*, int32> cases[] = {{"10.1.2.3", 0x0200021f},
                                                       {"[2001:db8::17%eth0]", 0x170b1765}};
        int32 lSequence = 0;
        for (const auto& [address, word] : cases) {
            std::memset(gstrIpAddress, 0, sizeof(gstrIpAddress));
            std::strcpy(gstrIpAddress, address);
            UniqueT tValue = FromHex("ff");
            const auto lBefore = static_cast<int32>(std::time(nullptr));
            EXPECT_EQ(UniqueCreateSessionId(&tValue, -7, 8, 0x12345), TRUE);
            const std::vector<int32> made = Fields(tValue);
            EXPECT_GE(made[1], lBefore);
            EXPECT_LE(made[1], std::time(nullptr));
            EXPECT_EQ(made, (std::vector<int32>{word, made[1], made[2], getpid(), lSequence++, -7,
                                                8, 0x2345, 0}));
        }
        const ObjHolder<ObjUniqueS> oNew(ObjUniqueNew());
        ObjHolder<ObjUniqueS> oSession;
        EXPECT_EQ(ObjUniqueCreateSessionId(oSession.Address(), 1, 2, 3), TRUE);
        EXPECT_EQ(Fields(*ObjGetUnique(oNew.Get()))[4], 2);
        EXPECT_EQ(UniqueGetSessionPhase(ObjGetUnique(oSession.Get())), 3);
        EXPECT_EQ(ObjUniqueEqual(oSession.Get(), nullptr), FALSE);
        return static_cast<int>(testing::Test::HasFailure());
    });
    EXPECT_EQ(result.exitCode, 0) << result.output;
}

TEST(Unique, NumbersAreSetOnlyInValidOnes) {
    UniqueT tInvalid = {}, tValue = FromHex(kBase);
    for (const auto fnSet : {UniqueSetJobId, UniqueSetSessionInstance, UniqueSetSessionPhase}) {
        EXPECT_EQ(fnSet(&tInvalid, 1), FALSE);
        EXPECT_EQ(fnSet(&tValue, -5), TRUE);
    }
    EXPECT_EQ(UniqueIncrementSessionSubPhase(&tInvalid), FALSE);
    for (int i = 0; i < 0x18000; i++) UniqueIncrementSessionSubPhase(&tValue);
    EXPECT_EQ(UniqueToString(&tValue), kBase + " fffffffb fffffffb fffb 8000");
    UniqueSetSessionPhase(&tValue, 4);
    EXPECT_EQ(UniqueToString(&tValue), kBase + " fffffffb fffffffb 0004 0000");
    ObjHolder<ObjUniqueS> oNew;
    EXPECT_EQ(ObjUniqueCreateSessionId(oNew.Address(), -1, 2, 0x10003), TRUE);
    EXPECT_STREQ(UniqueToString(ObjGetUnique(oNew.Get())) + 40, " ffffffff 00000002 0003 0000");
}

TEST(Unique, ComparisonsLookAtTheirPart) {
    const std::string first = kBase + "050000000200000001000000";
    const struct {
        std::string other;         // differs in one number only
        std::vector<int32> order;  // by base, job, instance, all bytes
        int equal;  // parts in front: 0 none, 1 base, 2 job, 3 instance, 4 phase, 5 all
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
        EXPECT_EQ((std::vector<int32>{UniqueBaseCompare(&a, &b), UniqueJobCompare(&a, &b),
                                      UniqueInstanceCompare(&a, &b), UniqueCompare(&a, &b)}),
                  test.order);
        EXPECT_EQ(UniqueInstanceCompare(&b, &a), -test.order[2]);
        const ObjHolder<ObjUniqueS> oA(ObjUniqueNew(&a));
        ObjHolder<ObjUniqueS> oB;
        EXPECT_EQ(ObjUniqueCreate(oB.Address(), &b), TRUE);
        // One more of these holds for each part that is equal.
        const BooleanT equal[] = {UniqueBaseEqual(&a, &b), UniqueJobEqual(&a, &b),
                                  UniqueInstanceEqual(&a, &b), UniqueSameSessionPhase(&a, &b),
                                  ObjUniqueEqual(oA.Get(), oB.Get())};
        for (int part = 0; part < 5; part++) EXPECT_EQ(equal[part], BooleanFrom(part < test.equal));
        EXPECT_EQ(ObjUniqueSameSessionId(oA.Get(), oB.Get()), BooleanFrom(test.equal >= 3));
    }
    UniqueT a = FromHex(first);
    EXPECT_EQ(UniqueInstanceCompare(nullptr, &a), -1);
    EXPECT_EQ(UniqueJobCompare(&a, nullptr), 1);
    EXPECT_EQ(UniqueEqual(nullptr, nullptr), FALSE);
}
