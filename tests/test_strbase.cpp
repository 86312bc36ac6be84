#include <limits>

#include "core/strbase.h"
#include "support/files.h"
#include "support/leftovers.h"

namespace {

using Text = std::string;
using Made = std::pair<char*, Text>;  // a new string and what it must be

// The model: a string as the list of its character codes and where each begins.
struct Decoded {
    std::vector<int> codes, starts;
};

Decoded Decode(const Text& text) {
    Decoded result;
    for (std::size_t i = 0; i < text.size(); i++) {
        int code = static_cast<unsigned char>(text[i]);
        const bool lead = (code >= 0x80 && code <= 0x9f) || code >= 0xe0;
        result.starts.push_back(static_cast<int>(i));
        if (lead && i + 1 < text.size()) code = code * 256 + static_cast<unsigned char>(text[++i]);
        result.codes.push_back(code);
    }
    return result;
}

std::vector<int> Folded(std::vector<int> codes) {
    for (int& code : codes)
        if (code >= 'A' && code <= 'Z') code += 'a' - 'A';
    return codes;
}

int Sign(const std::vector<int>& a, const std::vector<int>& b) {
    return a < b ? -1 : (a > b ? 1 : 0);
}

// Position in the text of the first occurrence of the codes; -1 for none.
int FindCodes(const Decoded& text, const std::vector<int>& codes, const std::vector<int>& what) {
    const auto found = std::search(codes.begin(), codes.end(), what.begin(), what.end());
    if (what.empty()) return 0;
    return found == codes.end() ? -1 : text.starts[static_cast<std::size_t>(found - codes.begin())];
}

int Offset(const char* found, const Text& text) {
    return found == nullptr ? -1 : static_cast<int>(found - text.c_str());
}

TEST(StrBase, GetPrevPut) {
    const char* text = "a\202\240\245\351A\202";
    const char* cursor = text;
    for (int code : {int{'a'}, 0x82a0, 0xa5, 0xe941, 0x82, 0, 0})
        EXPECT_EQ(StrGetChar(&cursor), code);
    EXPECT_EQ(cursor, text + 7);
    EXPECT_EQ(StrGetCharAfterPointer(text, 3) + StrGetCharAfterPointer(text, 9), 0xe941);
    for (const auto& [count, bytes] : {std::pair{2, 3}, {100, 7}, {-1, 0}})
        EXPECT_EQ(StrForwardNChars(text, count), text + bytes);
    cursor = text + 6;  // at the lone lead byte
    for (int code : {0xe941, 0xa5, 0x82a0}) EXPECT_EQ(StrPrevChar(&cursor), code);
    EXPECT_EQ(cursor, text + 1);

    char buffer[8] = "#######";
    char* end = buffer;
    for (const auto& [code, bytes] : {std::pair{0x82a0, 2}, {0xa5, 1}, {0, 0}})
        EXPECT_EQ(StrPutChar(&end, code), bytes);
    EXPECT_EQ(end, buffer + 3);
    EXPECT_STREQ(buffer, "\202\240\245");
    EXPECT_EQ(StrPutChar(nullptr, 'a'), -1);
    EXPECT_EQ(StrGetChar(nullptr) + StrPrevChar(nullptr), 0);
}

// Searching, comparing and measuring against a model that works on lists of codes.
TEST(StrBase, AgreesWithModel) {
    std::mt19937 random{20240607};
    const auto next = [&](unsigned longest) {
        // With the first and the last of the lead bytes, and what is next to them.
        static const Text alphabet = "aAbZ_,\\/\202\351\177\200\237\240\337\340\377";
        Text text(random() % (longest + 1), ' ');
        for (char& c : text) c = alphabet[random() % alphabet.size()];
        return text;
    };
    for (int round = 0; round < 20000; ++round) {
        const Text a = next(9);
        const Text b = random() % 3 == 0 ? a + next(2) : next(4);
        const Decoded ma = Decode(a);
        const Decoded mb = Decode(b);
        SCOPED_TRACE(testing::PrintToString(a) + " " + testing::PrintToString(b));

        const char *s = a.c_str(), *t = b.c_str();
        ASSERT_EQ(StrCharCount(s), static_cast<int>(ma.codes.size()));
        ASSERT_EQ(StrCompare(s, t), Sign(ma.codes, mb.codes));
        ASSERT_EQ(StrCompareNoCase(s, t), Sign(Folded(ma.codes), Folded(mb.codes)));
        ASSERT_EQ(Offset(StrFindSubString(s, t), a), FindCodes(ma, ma.codes, mb.codes));
        ASSERT_EQ(Offset(StrFindSubStringNoCase(s, t), a),
                  FindCodes(ma, Folded(ma.codes), Folded(mb.codes)));

        const int code = mb.codes.empty() ? 'a' : mb.codes.front();
        ASSERT_EQ(Offset(StrNextCharMatch(s, code), a), FindCodes(ma, ma.codes, {code}));
        ASSERT_EQ(Offset(StrNextCharMatchNoCase(s, code), a),
                  FindCodes(ma, Folded(ma.codes), Folded({code})));
        const auto last = std::find(ma.codes.rbegin(), ma.codes.rend(), code);
        const auto place = static_cast<std::size_t>(ma.codes.rend() - last);  // 0: none
        ASSERT_EQ(Offset(StrLastCharMatch(s, code), a), place == 0 ? -1 : ma.starts[place - 1]);

        // The characters of a that lie in its first few bytes, and as many of b.
        const int range = static_cast<int>(random() % 10);
        const auto inside = static_cast<std::size_t>(
            std::count_if(ma.starts.begin(), ma.starts.end(),
                          [&](int start) { return StrForwardNChars(s + start, 1) - s <= range; }));
        const bool endTakesPart = inside == ma.codes.size() && range > static_cast<int>(a.size());
        std::vector<int> cutA = ma.codes, cutB = mb.codes;
        cutA.resize(inside);
        if (!endTakesPart) cutB.resize(std::min(inside, cutB.size()));
        ASSERT_EQ(StrCompareRange(s, t, range), Sign(cutA, cutB)) << range;
        ASSERT_EQ(StrCompareRangeNoCase(s, t, range), Sign(Folded(cutA), Folded(cutB)));
        ASSERT_EQ(Offset(StrNextCharMatchRange(s, code, range), a), FindCodes(ma, cutA, {code}));
    }
}

TEST(StrBase, CompareResults) {
    for (const auto fnCompare : {StrCompare, StrCompareNoCase}) {
        EXPECT_EQ(fnCompare(nullptr, nullptr), 0);
        EXPECT_EQ(fnCompare(nullptr, ""), -1);
        EXPECT_EQ(fnCompare("", nullptr), 1);
    }
    EXPECT_EQ(StrCompareRange("a", "b", -1), 0);
    const std::tuple<const char*, const char*, int, int> ranges[] = {
        {"axz", "abz", 3, 'x' - 'b'}, {"ab", "abc", 3, -'c'}, {"abc", "abd", 2, 1},  // a goes on
        {"ab", "abd", 2, 0},          {"ab", "ab", 9, 0},     {"\202\240b", "\202\240c", 1, 1},
        {"AB", "ab", 2, 'A' - 'a'}};
    for (const auto& [a, b, range, result] : ranges)
        EXPECT_EQ(StrCompareRangeExact(a, b, range), result) << a << " " << b;
    EXPECT_EQ(StrCompareRangeExactNoCase("AB", "ab", 2), 0);
    EXPECT_EQ(std::pair(StrIsAscii("abc\177"), StrIsAscii("abc\245")), std::pair(TRUE, FALSE));
}

TEST(StrBase, VariableDelimiters) {
    int delimiters[] = {',', 0x82a0, '/'};
    const Text text = "a\351,b\202/\202\240,";
    for (const auto& [count, offset] : {std::pair{3, 6}, {1, 8}, {0, -1}})
        EXPECT_EQ(Offset(StrFindVariableDelimiter(text.c_str(), delimiters, count), text), offset);
    EXPECT_EQ(Owned(StrDuplicateToVariableDelimChar(text.c_str(), delimiters, 3)), "a\351,b\202/");
}

TEST(StrBase, CopiesStayInTheirRoom) {
    char buffer[16];
    // What is in the buffer's front; where the writer stopped.
    const auto expect = [&](const char* end, const Text& bytes) {
        EXPECT_EQ(Text(buffer, bytes.size()), bytes);
        return end - buffer;
    };
    const auto reset = [&] { std::ranges::fill(buffer, '#'); };
    reset();
    EXPECT_EQ(expect(StrCopy(buffer, "abc"), Text("abc\0#", 5)), 3);
    EXPECT_EQ(expect(StrAppendRange(buffer, "\202def", 2), Text("abc\202de\0#", 8)), 6);
    EXPECT_EQ(expect(StrAppend(buffer, "g"), Text("abc\202deg\0#", 9)), 7);
    reset();
    EXPECT_EQ(expect(StrCopyRange(buffer, "\202abc", 1), Text("\202a\0#", 4)), 2);
    EXPECT_EQ(expect(StrCopyRange(buffer, "abc", -5), Text("\0a\0#", 4)), 0);
    reset();
    EXPECT_EQ(expect(StrPad(buffer, 3, '-'), "---#"), 3);
    EXPECT_EQ(expect(StrPad(buffer, 5, 0x82a0), "\202\240\202\240##"), 4);
    StrPad(buffer, 2, 0);
    EXPECT_EQ(Text(buffer, 3), Text("\0\0\202", 3));

    char strip[] = " /";
    for (const auto& [text, kept] : {std::pair{"a / \202/ /", "a / \202/"}, {" // ", ""}}) {
        StrCopy(buffer, text);
        EXPECT_STREQ(StrTerminate(buffer, strip), kept);
    }
    StrCopy(buffer, "\202/a/");
    EXPECT_STREQ(StrConvertChar(buffer, buffer, '\\', '/'), "\202/a\\");
    const char* text = "\202\240b";
    EXPECT_EQ(std::tuple(StrSize(text), StrSizeNoTerm(text), StrSizeRange(text, 1),
                         StrSizeRangeNoTerm(text, 9)),
              std::tuple(4, 3, 3, 3));
}

TEST(StrBase, NewStrings) {
    const NothingLeft nothing;
    char* joined = nullptr;
    char part[] = "xy";
    EXPECT_STREQ(StrJoin(&joined, part), "xy");
    EXPECT_STREQ(StrJoin(&joined, joined), "xyxy");
    const char* path = "\202/a/b/c";  // "/" as a trail byte, as the first and the last delimiter
    char *upper = nullptr, *lower = nullptr;
    EXPECT_EQ(StrConvertToUpper(&upper, "az{\202a\245a"), upper);
    const Made cases[] = {
        {joined, "xyxy"},
        {upper, "AZ{\202a\245A"},
        {StrConvertToLower(&lower, "AZ[\351A\351"), "az[\351A\351"},
        {StrCat("ab", "", "\202\240", "c", nullptr), "ab\202\240c"},
        {StrCat(nullptr, nullptr), ""},
        {StrDuplicate(""), ""},
        {StrDuplicate(nullptr), "<null>"},
        {StrDuplicateNullIfEmpty(""), "<null>"},
        {StrDuplicateNullIfEmpty("a"), "a"},
        {StrDuplicateRange("\202\240bc", 2), "\202\240b"},
        {StrDuplicateToChar(path, '/'), "\202/a"},
        {StrDuplicateToCharWithTerm(path, '/'), "\202/a/"},
        {StrDuplicateToLastChar(path, '/'), "\202/a/b"},
        {StrDuplicateToLastCharWithTerm(path, '/'), "\202/a/b/"},
        {StrDuplicateToCharWithTerm("a\202\240b", 0x82a0), "a\202\240"},
        {StrDuplicateToChar("abc", '/'), "abc"},
        {StrDuplicateToSubString("keyVAL=x", "VAL"), "key"},
        {StrDuplicateToSubString("keyVAL=x", "val"), "<null>"},
        {StrDuplicateToSubString("a", nullptr), "<null>"},
        {StrDuplicateToSubStringNoCase(nullptr, "a"), "<null>"},
        {StrDuplicateToSubStringNoCase("keyVAL=x", "val"), "key"},
        {StrReplaceChar("/\351//", '/', 0x82a0), "\202\240\351/\202\240"},
        {StrReplaceChar("\202\240a", 0x82a0, 'b'), "ba"},
    };
    for (const auto& [made, text] : cases) EXPECT_EQ(Owned(made), text);
}

TEST(StrBase, TokensRestoreTheString) {
    using Texts = std::vector<Text>;
    // Text, delimiters, tokens.
    const std::tuple<Text, const char*, Texts> cases[] = {
        {"a,,b", ",", {"a", "", "b"}},
        {"", ",", {""}},
        {",", ",", {"", ""}},
        {"a b;", "; ", {"a", "b", ""}},
        {"a,\202", ",", {"a", "\202"}},
        {"a,b", "", {"a,b"}},
        {"\202,a,\202,", ",", {"\202,a", "\202,"}},       // "," as a trail byte
        {"a\202\240b\240", "\202\240", {"a", "b\240"}}};  // a two-byte delimiter
    for (const auto& [original, delimiters, tokens] : cases) {
        Text text = original;
        Texts found;
        for (char* token = StrToken(text.data(), delimiters); token != nullptr;
             token = StrToken(nullptr, delimiters))
            found.emplace_back(token);
        EXPECT_EQ(found, tokens);
        EXPECT_EQ(text, original);
        EXPECT_EQ(StrToken(nullptr, delimiters), nullptr);
    }
}

TEST(StrBase, SplitKeepsAnOuterTokenisation) {
    const NothingLeft nothing;
    Text outer = "x y", many = "0";
    EXPECT_STREQ(StrToken(outer.data(), " "), "x");
    for (int i = 1; i < 30; ++i) many += "," + std::to_string(i);
    char** tokens = StrSplitString(many.c_str(), ",");
    for (int i = 0; i < 23; ++i) EXPECT_EQ(std::to_string(i), tokens[i]);
    EXPECT_EQ(tokens[23], nullptr);
    StrFreeTokens(tokens);
    EXPECT_STREQ(StrToken(nullptr, " "), "y");
    EXPECT_EQ(outer, "x y");
}

TEST(StrConvert, FormatCutsWhatDoesNotFit) {
    char buffer[8] = "#######";
    EXPECT_EQ(StrFormat(buffer, 4, "%s", "abc"), TRUE);
    EXPECT_EQ(Text(buffer, 5), Text("abc\0#", 5));
    TraceCapture trace(-1);
    EXPECT_EQ(StrFormat(buffer, 4, "%d", 12345), FALSE);
    EXPECT_EQ(Text(buffer, 5), Text("123\0#", 5));
    EXPECT_EQ(trace.Text("STRING", 12), "Buffer overrun formatting string into memory buffer");
    for (const auto& [room, size] : {std::pair{buffer, 1}, {static_cast<char*>(nullptr), 9}})
        EXPECT_EQ(StrFormat(room, size, "%s", "a"), FALSE);
    EXPECT_EQ(trace.Count("STRING", 13), 2);
    EXPECT_STREQ(buffer, "123");
    const auto format = [&](int32 size, const char* pattern, ...) {
        std::va_list args;
        va_start(args, pattern);
        const BooleanT result = StrFormatVa(buffer, size, pattern, args);
        va_end(args);
        return result;
    };
    EXPECT_EQ(format(3, "%d", 45), TRUE);
    EXPECT_STREQ(buffer, "45");
    EXPECT_EQ(format(3, "%d", 678), FALSE);
    EXPECT_STREQ(buffer, "67");
    EXPECT_EQ(format(3, nullptr), FALSE);
    EXPECT_EQ(trace.Count("STRING", 16), 1);
    // A wide character that no encoding has makes the formatting itself fail.
    EXPECT_EQ(format(8, "%lc", std::numeric_limits<unsigned>::max() / 2), FALSE);
    EXPECT_EQ(trace.Text("STRING", 14), "Failed to format string into memory buffer");
    EXPECT_EQ(buffer[7], '\0');
}

TEST(StrConvert, ToNumbers) {
    constexpr int64 most = std::numeric_limits<int64>::max();
    int32 narrow = 77;
    int64 wide = 77;
    const auto expect = [&](const char* text, int64 value) {
        narrow = 77;
        const bool fits = value == static_cast<int32>(value);
        EXPECT_EQ(StrToInteger(text, &narrow), BooleanFrom(fits)) << value;
        EXPECT_EQ(narrow, fits ? value : 77);
        EXPECT_EQ(StrToInt64(text, &wide), TRUE) << value;
        EXPECT_EQ(wide, value);
    };
    for (const auto& [text, value] :
         {std::pair{"+7", 7}, {" \t\n\v\f\r-007", -7}, {"-0", 0}, {nullptr, 0}})
        expect(text, value);
    for (const int64 value : {int64{12}, int64{INT_MAX}, int64{INT_MIN}, INT_MAX + int64{1},
                              INT_MIN - int64{1}, int64{4294967297}, most, -most - 1})
        expect(std::to_string(value).c_str(), value);
    narrow = 77;
    wide = 78;
    for (const char* text :
         {"", " ", "12x", "x12", "12 ", "0x10", "1.5", "-", "+", "+-5", "--5", "- 5", "1\202",
          "9223372036854775808", "-9223372036854775809", "99999999999999999999999999"})
        EXPECT_EQ(StrToInteger(text, &narrow) + StrToInt64(text, &wide), FALSE) << text;
    EXPECT_EQ(std::pair(narrow, wide), std::pair(77, int64{78}));
}

TEST(StrConvert, ToBoolean) {
    const std::tuple<const char*, BooleanT, BooleanT> cases[] = {
        {"true", TRUE, 1}, {"TRUE", TRUE, 1},    {"False", TRUE, 0}, {"yes", FALSE, 99},
        {"", FALSE, 99},   {"true ", FALSE, 99}, {"1", FALSE, 99},   {nullptr, FALSE, 99}};
    for (const auto& [text, parsed, value] : cases) {
        BooleanT result = 99;
        EXPECT_EQ(StrToBoolean(text, &result), parsed);
        EXPECT_EQ(result, value);
    }
}

TEST(StrConvert, FromValues) {
    const NothingLeft nothing;
    const auto made = [](auto function, auto value) {
        char* text = nullptr;
        EXPECT_EQ(function(&text, value), TRUE);
        return text;
    };
    constexpr int64 most = std::numeric_limits<int64>::max();
    const Made cases[] = {{made(StrFromBoolean, TRUE), "TRUE"},
                          {made(StrFromBoolean, FALSE), "FALSE"},
                          {made(StrFromInteger, INT_MIN), "-2147483648"},
                          {made(StrFromInt64, -most - 1), "-9223372036854775808"},
                          {made(StrHexFromInteger, 0x1aB), "0x1ab"},
                          {made(StrHexFromInteger, -1), "0xffffffff"},
                          {made(StrHexFromInt64, int64{-1}), "ffffffffffffffff"},
                          {made(StrFromIpAddr, 0xc0a80001U), "192.168.0.1"},
                          {made(StrFromIpAddr, 0xffffffffU), "255.255.255.255"},
                          {StrFromInt64Time(3723000), "01:02:03"},
                          {StrFromInt64Time(999), "00:00:00"},
                          {StrFromInt64Time(360059999), "100:00:59"},
                          {StrFromInt64Time(-3723000), "-01:-02:-03"},
                          {StrFromInt64Time(most), "2562047788015:12:55"}};
    for (const auto& [value, text] : cases) EXPECT_EQ(Owned(value), text);
}

TEST(StrConvert, SixteenBitUnits) {
    char units[8] = "#######";
    EXPECT_EQ(StrToUnicode(units, "a\202\240b", 2), 4);
    EXPECT_EQ(Text(units, 5), Text("a\0\240\202#", 5));
    EXPECT_EQ(StrToUnicode(units, "\245\202", 9), 4);
    EXPECT_EQ(Text(units, 5), Text("\245\0\202\0#", 5));
    EXPECT_EQ(StrToUnicode(units, "a", 0), 0);
    char source[] = {'a', 0, '\240', '\202', 'b', 0};
    // With half a unit at the end.
    for (const auto& [size, length, expected] :
         {std::tuple{6, 4, "a\202\240b"}, {3, 1, "a"}, {0, 0, ""}, {-2, -1, "<null>"}}) {
        char* text = nullptr;
        EXPECT_EQ(StrFromUnicode(&text, source, size), length);
        EXPECT_EQ(Owned(text), expected);
    }
}

TEST(StrConvert, Ranges) {
    const auto expect = [](auto function, Text text, int from, int to) {
        int first = -1, last = -1;
        EXPECT_EQ(function(text.data(), &first, &last), BooleanFrom(from != -1)) << text;
        EXPECT_EQ(std::pair(first, last), std::pair(from, to)) << text;
    };
    const std::tuple<const char*, int, int> hours[] = {{"8-17", 8, 17},     {"0", 0, 0},
                                                       {"23-0", 23, 0},     {"0x0A", 10, 10},
                                                       {"010-0x17", 8, 23}, {" 8 - 9", 8, 9}};
    for (const auto& [text, from, to] : hours) expect(StrParseHourRange, text, from, to);
    for (const char* text : {"24", "8-24", "-8", "8-", "1-2-3", "", "noon", "4294967304"})
        expect(StrParseHourRange, text, -1, -1);
    expect(StrParseDayRange, "mon-FRI", 1, 5);
    expect(StrParseDayRange, "Sat", 6, 6);
    expect(StrParseDayRange, "sat-sun", 6, 0);
    for (const char* text : {"sunday", "mon-", "mon-tue-wed", "", "-sun"})
        expect(StrParseDayRange, text, -1, -1);
}

}  // namespace
