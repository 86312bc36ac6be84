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
          StrValueListFromString(nullptr, nullptr)})
        EXPECT_EQ(result, FALSE);
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
    for (const auto& [text, size, room] :
         {std::tuple{"abc", 3, 8}, {"abc", 7, 8}, {static_cast<const char*>(nullptr), 100, 100}}) {
        ObjHolder<ObjDStringS> sized(ObjDStringNewSized(text, size));
        EXPECT_EQ(sized.Get()->tBuffer.lSize, room);
    }
    ObjHolder<ObjDStringS> string(ObjDStringNew("abc"));
    ObjDStringO s = string.Get();
    const auto expect = [&](const char* result, const std::string& text, int32 capacity) {
        EXPECT_EQ(result, text);
        EXPECT_EQ(s->tBuffer.lSize, capacity);
        EXPECT_EQ(DStringBytesUsed(s), static_cast<int32>(text.size()) + 1);
    };
    const auto data = [&] { return static_cast<char*>(s->tBuffer.pData); };
    expect(data(), "abc", 8);
    expect(DStringAppendSized(s, "defgXX", 4), "abcdefg", 8);  // fills the buffer
    expect(DStringAppend(s, "h"), "abcdefgh", 18);
    expect(DStringAppendSized(s, "x", 0), "abcdefgh", 18);
    expect(DStringAppend(s, data()), "abcdefghabcdefgh", 18);
    // From the old buffer into the new one.
    expect(DStringAppend(s, data() + 8), "abcdefghabcdefghabcdefgh", 50);
    const std::string fits(49, 'q'), longer(50, 'r'), dashes(100, '-');
    expect(DStringSetSized(s, fits.c_str(), 49), fits, 50);
    expect(DStringSet(s, longer.c_str()), longer, 102);
    expect(DStringSetSized(s, "abc", 2), "ab", 102);
    expect(DStringSetSized(s, nullptr, 5), "", 102);
    expect(DStringAppendCharNTimes(s, 0x82a0, 2), "\202\240\202\240", 102);
    expect(DStringAppendCharNTimes(s, '-', 100), "\202\240\202\240" + dashes, 210);
    expect(DStringSet(s, "n="), "n=", 210);
    DStringAppendInteger(s, INT_MIN);
    expect(DStringAppendInt64(s, std::numeric_limits<int64>::max()),
           "n=-21474836489223372036854775807", 210);
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
