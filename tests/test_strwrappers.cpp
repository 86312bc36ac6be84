#include <limits>

#include "core/strdynam.h"
#include "core/strwrappers.h"
#include "support/files.h"
#include "support/lists.h"
#include "support/objects.h"

namespace {

template <class T>
void Push(ListO list, T* object) {
    ASSERT_EQ(ListPushLastItem(list, &object), TRUE);
}

// The first growing string makes its class template, which stays.
struct StrWrappers : ObjectTest {
    static void SetUpTestSuite() { const ObjHolder<ObjDStringS> first(ObjDStringNew("")); }
};
using StrDynam = StrWrappers;

// Every joining function on one mixed list takes its own class and skips the rest.
TEST_F(StrWrappers, JoinTakesItsOwnClass) {
    ObjHolder<ListS> list(ListNew());
    const char* text = nullptr;
    char* joined = nullptr;
    EXPECT_EQ(StrFromValueList(&text, list.Get()), FALSE);
    Push(list.Get(), ObjStringNew(nullptr));
    EXPECT_EQ(StrFromStrList(&text, list.Get()), FALSE);
    EXPECT_EQ(text, nullptr);
    for (void* item : std::initializer_list<void*>{ObjIntegerNew(-1062731775), ObjStringNew(""),
                                                   ObjBooleanNew(TRUE), ObjIntegerNew(7),
                                                   ObjStringNew("\202,"), ObjStringNew("b")})
        Push(list.Get(), item);

    EXPECT_EQ(StrFromValueList(&text, list.Get()), TRUE);
    EXPECT_EQ(Owned(text), "-1062731775, 7");
    EXPECT_EQ(StrFromIpList(&joined, list.Get()), TRUE);
    EXPECT_EQ(Owned(joined), "192.168.0.1, 0.0.0.7");
    EXPECT_EQ(StrFromStrList(&text, list.Get()), TRUE);
    EXPECT_EQ(Owned(text), ", \202,, b");
    EXPECT_EQ(StrFromStrListWithDelimiter(&joined, list.Get(), "--"), TRUE);
    EXPECT_EQ(Owned(joined), "--\202,--b");
}

TEST_F(StrWrappers, JoinRefusesWhatIsNoList) {
    const char* text = nullptr;
    char* joined = nullptr;
    ObjHolder<ObjIntegerS> integer(ObjIntegerNew(1));
    auto* wrong = reinterpret_cast<ListO>(integer.Get());
    for (const BooleanT result :
         {StrFromValueList(&text, wrong), StrFromStrList(&text, nullptr),
          StrFromStrListWithDelimiter(&joined, wrong, ","), StrFromIpList(&joined, wrong),
          StrFromAddressList(&joined, wrong), StrInsertInList(wrong, "a"),
          StrValueListFromString(nullptr, nullptr)}) {
        EXPECT_EQ(result, FALSE);
    }
}

TEST_F(StrWrappers, ValueListFromString) {
    using Values = std::vector<std::string>;
    const std::pair<const char*, Values> cases[] = {
        {"", {}},
        {" \t ", {}},
        {" a , b ", {"a", "b"}},
        {"a,", {"a", ""}},
        {",", {"", ""}},
        {",,a", {"", "", "a"}},
        {" , ", {"", ""}},
        {"a b\t,\tc", {"a b", "c"}},
        {"a\202,b ,c", {"a\202,b", "c"}},            // "," as a trail byte
        {"a\202 , \202\tb", {"a\202 ", "\202\tb"}},  // blanks as trail bytes
        {"a,\202", {"a", "\202"}}};
    for (const auto& [text, values] : cases) {
        ObjHolder<ListS> list;
        EXPECT_EQ(StrValueListFromString(list.Address(), text), TRUE);
        EXPECT_EQ(TextsOf(list.Get()), values) << testing::PrintToString(text);
    }
    char* texts[] = {StrDuplicate("x,y"), StrDuplicate(""), nullptr, StrDuplicate("z")};
    ObjHolder<ListS> list;
    EXPECT_EQ(StrValueListFromArray(list.Address(), texts), TRUE);
    EXPECT_EQ(TextsOf(list.Get()), (Values{"x,y", ""}));
    for (char* text : texts) MemFree(&text);
}

TEST_F(StrWrappers, InsertKeepsOrder) {
    ObjHolder<ListS> list(ListNew());
    for (const char* text : {"m", "B", "a", "b", "z", "M", ""})
        EXPECT_EQ(StrInsertInList(list.Get(), text), TRUE);
    EXPECT_EQ(TextsOf(list.Get()), (std::vector<std::string>{"", "a", "B", "b", "m", "M", "z"}));
    Push(list.Get(), ObjIntegerNew(1));
    EXPECT_EQ(StrInsertInList(list.Get(), "zz"), TRUE);
    EXPECT_EQ(TextsOf(list.Get()).back(), "zz");
}

TEST_F(StrDynam, CapacityRules) {
    ObjHolder<ObjDStringS> string(ObjDStringNew("abc"));
    ObjDStringO s = string.Get();
    const auto capacity = [&] { return s->tBuffer.lSize; };
    EXPECT_EQ(capacity(), 8);
    EXPECT_EQ(DStringBytesUsed(s), 4);
    EXPECT_STREQ(DStringAppendSized(s, "defgXX", 4), "abcdefg");  // fills the buffer
    EXPECT_EQ(capacity(), 8);
    EXPECT_STREQ(DStringAppend(s, "h"), "abcdefgh");
    EXPECT_EQ(capacity(), 18);
    EXPECT_STREQ(DStringAppendSized(s, "x", 0), "abcdefgh");
    EXPECT_STREQ(DStringAppend(s, static_cast<char*>(s->tBuffer.pData)), "abcdefghabcdefgh");
    EXPECT_EQ(capacity(), 18);
    EXPECT_STREQ(DStringAppend(s, static_cast<char*>(s->tBuffer.pData) + 8),
                 "abcdefghabcdefghabcdefgh");  // from the old buffer into the new one
    EXPECT_EQ(capacity(), 50);

    EXPECT_STREQ(DStringSetSized(s, std::string(49, 'q').c_str(), 49),
                 std::string(49, 'q').c_str());
    EXPECT_EQ(capacity(), 50);
    EXPECT_STREQ(DStringSet(s, std::string(50, 'r').c_str()), std::string(50, 'r').c_str());
    EXPECT_EQ(capacity(), 102);
    EXPECT_STREQ(DStringSetSized(s, "abc", 2), "ab");
    EXPECT_EQ(DStringBytesUsed(s), 3);
    EXPECT_STREQ(DStringSetSized(s, nullptr, 5), "");
    EXPECT_EQ(DStringBytesUsed(s), 1);

    EXPECT_STREQ(DStringAppendCharNTimes(s, 0x82a0, 2), "\202\240\202\240");
    EXPECT_STREQ(DStringAppendCharNTimes(s, '-', 100),
                 ("\202\240\202\240" + std::string(100, '-')).c_str());
    EXPECT_EQ(capacity(), 210);
    EXPECT_STREQ(DStringSet(s, "n="), "n=");
    DStringAppendInteger(s, std::numeric_limits<int32>::min());
    EXPECT_STREQ(DStringAppendInt64(s, std::numeric_limits<int64>::max()),
                 "n=-21474836489223372036854775807");

    ObjHolder<ObjDStringS> sized(ObjDStringNewSized(nullptr, 100));
    EXPECT_EQ(sized.Get()->tBuffer.lSize, 100);
    ObjHolder<ObjDStringS> small(ObjDStringNewSized("abc", 7));
    EXPECT_EQ(small.Get()->tBuffer.lSize, 8);
}

// Taking characters off the end, beside a model that decodes from the front.
TEST_F(StrDynam, LastCharacter) {
    std::mt19937 engine(3);
    const std::string alphabet = "a,\202\351\240\377";
    for (int round = 0; round < 500; ++round) {
        std::string text(engine() % 8, ' ');
        for (char& c : text) c = alphabet[engine() % alphabet.size()];
        ObjHolder<ObjDStringS> string(ObjDStringNew(text.c_str()));
        for (;;) {
            int32 lastStart = 0;
            int last = 0;
            const char* cursor = text.c_str();
            for (const char* start = cursor; const int code = StrGetChar(&cursor); start = cursor) {
                last = code;
                lastStart = static_cast<int32>(start - text.c_str());
            }
            ASSERT_EQ(DStringLastChar(string.Get()), last);
            ASSERT_EQ(DStringDeleteLastChar(string.Get()), BooleanFrom(!text.empty()));
            if (text.empty()) break;
            text.resize(static_cast<std::size_t>(lastStart));
            ASSERT_STREQ(static_cast<char*>(string.Get()->tBuffer.pData), text.c_str());
            ASSERT_EQ(DStringBytesUsed(string.Get()), lastStart + 1);
        }
    }
}

}  // namespace
