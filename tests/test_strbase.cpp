#include <limits>

#include "core/strbase.h"
#include "support/files.h"
#include "support/leftovers.h"

namespace {

// The model: a string as the list of its character codes and where each begins.
struct Decoded {
    std::vector<int> codes, starts;
};

Decoded Decode(const std::string& text) {
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

int Offset(const char* found, const std::string& text) {
    return found == nullptr ? -1 : static_cast<int>(found - text.c_str());
}

TEST(StrBase, LeadBytes) {
    for (int byte = 0; byte < 256; ++byte) {
        const bool lead = (byte >= 0x80 && byte <= 0x9f) || byte >= 0xe0;
        EXPECT_EQ(StrIsDBCSLeadByte(byte), BooleanFrom(lead)) << byte;
        EXPECT_EQ(StrIsDBCSLeadByte(static_cast<char>(byte)), BooleanFrom(lead)) << byte;
    }
}

TEST(StrBase, GetPrevPut) {
    const char* text = "a\202\240\245\351A\202";
    const std::vector<int> codes = {'a', 0x82a0, 0xa5, 0xe941, 0x82, 0, 0};
    const char* cursor = text;
    for (int code : codes) EXPECT_EQ(StrGetChar(&cursor), code);
    EXPECT_EQ(cursor, text + 7);
    EXPECT_EQ(StrGetCharAfterPointer(text, 3), 0xe941);
    EXPECT_EQ(StrGetCharAfterPointer(text, 9), 0);
    EXPECT_EQ(StrForwardNChars(text, 2), text + 3);
    EXPECT_EQ(StrForwardNChars(text, 100), text + 7);
    EXPECT_EQ(StrForwardNChars(text, -1), text);

    cursor = text + 6;  // at the lone lead byte
    for (int code : {0xe941, 0xa5, 0x82a0}) EXPECT_EQ(StrPrevChar(&cursor), code);
    EXPECT_EQ(cursor, text + 1);

    char buffer[8] = "#######";
    char* end = buffer;
    EXPECT_EQ(StrPutChar(&end, 0x82a0), 2);
    EXPECT_EQ(StrPutChar(&end, 0xa5), 1);
    EXPECT_EQ(StrPutChar(&end, 0), 0);
    EXPECT_EQ(end, buffer + 3);
    EXPECT_STREQ(buffer, "\202\240\245");
    EXPECT_EQ(StrPutChar(nullptr, 'a'), -1);
    EXPECT_EQ(StrGetChar(nullptr), 0);
    EXPECT_EQ(StrPrevChar(nullptr), 0);
}

// Searching, comparing and measuring against a model that works on lists of codes.
TEST(StrBase, AgreesWithModel) {
    std::mt19937 random{20240607};
    const auto next = [&](unsigned longest) {
        static const std::string alphabet = "aAbZ,\\/\202\240\351\377\177";
        std::string text(random() % (longest + 1), ' ');
        for (char& c : text) c = alphabet[random() % alphabet.size()];
        return text;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::string a = next(9);
        const std::string b = random() % 3 == 0 ? a + next(2) : next(4);
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
    const struct {
        const char *a, *b;
        int exactCase, noCase;
    } cases[] = {{"abc", "ABD", 1, -1},      {"a", "", 1, 1},
                 {"\202A", "\202a", -1, -1},                     // no case in a trail byte
                 {"_", "a", -1, -1},         {"_", "A", 1, -1},  // as lower case
                 {nullptr, nullptr, 0, 0},   {nullptr, "", -1, -1},
                 {"", nullptr, 1, 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(StrCompare(c.a, c.b), c.exactCase);
        EXPECT_EQ(StrCompareNoCase(c.a, c.b), c.noCase);
    }
    EXPECT_EQ(StrCompareRange("a", "b", 0), 0);
    EXPECT_EQ(StrCompareRange("a", "b", -1), 0);
    const std::tuple<const char*, const char*, int, int> ranges[] = {
        {"axz", "abz", 3, 'x' - 'b'}, {"ab", "abc", 3, -'c'}, {"abc", "abd", 2, 1},  // a goes on
        {"ab", "abd", 2, 0},          {"ab", "ab", 9, 0},     {"\202\240b", "\202\240c", 1, 1}};
    for (const auto& [a, b, range, result] : ranges)
        EXPECT_EQ(StrCompareRangeExact(a, b, range), result) << a << " " << b;
    EXPECT_EQ(StrCompareRangeExact("AB", "ab", 2), 'A' - 'a');
    EXPECT_EQ(StrCompareRangeExactNoCase("AB", "ab", 2), 0);
    EXPECT_EQ(StrIsAscii("abc\177"), TRUE);
    EXPECT_EQ(StrIsAscii("abc\245"), FALSE);
}

TEST(StrBase, VariableDelimiters) {
    int delimiters[] = {',', 0x82a0, '/'};
    const std::string text = "a\351,b\202/\202\240,";
    for (const auto& [count, offset] : {std::pair{3, 6}, {1, 8}, {0, -1}})
        EXPECT_EQ(Offset(StrFindVariableDelimiter(text.c_str(), delimiters, count), text), offset);
    EXPECT_EQ(Owned(StrDuplicateToVariableDelimChar(text.c_str(), delimiters, 3)), "a\351,b\202/");
}

TEST(StrBase, CopiesStayInTheirRoom) {
    char buffer[16];
    const auto reset = [&] { std::fill(std::begin(buffer), std::end(buffer), '#'); };
    reset();
    EXPECT_EQ(StrCopy(buffer, "abc"), buffer + 3);
    EXPECT_EQ(std::string(buffer, 5), std::string("abc\0#", 5));
    EXPECT_EQ(StrAppendRange(buffer, "\202def", 2), buffer + 6);
    EXPECT_EQ(std::string(buffer, 8), std::string("abc\202de\0#", 8));
    EXPECT_EQ(StrAppend(buffer, "g"), buffer + 7);
    reset();
    EXPECT_EQ(StrCopyRange(buffer, "\202abc", 1), buffer + 2);
    EXPECT_EQ(std::string(buffer, 4), std::string("\202a\0#", 4));
    EXPECT_EQ(StrCopyRange(buffer, "abc", -5), buffer);
    EXPECT_STREQ(buffer, "");

    reset();
    EXPECT_EQ(StrPad(buffer, 3, '-'), buffer + 3);
    EXPECT_EQ(std::string(buffer, 4), "---#");
    EXPECT_EQ(StrPad(buffer, 5, 0x82a0), buffer + 4);
    EXPECT_EQ(std::string(buffer, 6), "\202\240\202\240##");
    StrPad(buffer, 2, 0);
    EXPECT_EQ(std::string(buffer, 3), std::string("\0\0\202", 3));

    char strip[] = " /";
    StrCopy(buffer, "a / \202/ /");
    EXPECT_STREQ(StrTerminate(buffer, strip), "a / \202/");
    StrCopy(buffer, " // ");
    EXPECT_STREQ(StrTerminate(buffer, strip), "");

    StrCopy(buffer, "\202/a/");
    EXPECT_STREQ(StrConvertChar(buffer, buffer, '\\', '/'), "\202/a\\");

    EXPECT_EQ(StrSize("\202\240b"), 4);
    EXPECT_EQ(StrSizeNoTerm("\202\240b"), 3);
    EXPECT_EQ(StrSizeRange("\202\240b", 1), 3);
    EXPECT_EQ(StrSizeRangeNoTerm("\202\240b", 9), 3);
}

TEST(StrBase, NewStrings) {
    const NothingLeft nothing;
    EXPECT_EQ(Owned(StrCat("ab", "", "\202\240", "c", nullptr)), "ab\202\240c");
    EXPECT_EQ(Owned(StrCat(nullptr, nullptr)), "");
    char* joined = nullptr;
    char part[] = "xy";
    EXPECT_STREQ(StrJoin(&joined, part), "xy");
    EXPECT_STREQ(StrJoin(&joined, joined), "xyxy");
    EXPECT_EQ(Owned(joined), "xyxy");

    EXPECT_EQ(Owned(StrDuplicate("")), "");
    EXPECT_EQ(StrDuplicate(nullptr), nullptr);
    EXPECT_EQ(StrDuplicateNullIfEmpty(""), nullptr);
    EXPECT_EQ(Owned(StrDuplicateNullIfEmpty("a")), "a");
    EXPECT_EQ(Owned(StrDuplicateRange("\202\240bc", 2)), "\202\240b");

    // "/" as a trail byte, as the first, the middle and the last delimiter
    const char* path = "\202/a/b/c";
    EXPECT_EQ(Owned(StrDuplicateToChar(path, '/')), "\202/a");
    EXPECT_EQ(Owned(StrDuplicateToCharWithTerm(path, '/')), "\202/a/");
    EXPECT_EQ(Owned(StrDuplicateToLastChar(path, '/')), "\202/a/b");
    EXPECT_EQ(Owned(StrDuplicateToLastCharWithTerm(path, '/')), "\202/a/b/");
    EXPECT_EQ(Owned(StrDuplicateToCharWithTerm("a\202\240b", 0x82a0)), "a\202\240");
    EXPECT_EQ(Owned(StrDuplicateToChar("abc", '/')), "abc");

    EXPECT_EQ(Owned(StrDuplicateToSubString("keyVAL=x", "VAL")), "key");
    EXPECT_EQ(StrDuplicateToSubString("keyVAL=x", "val"), nullptr);
    EXPECT_EQ(StrDuplicateToSubString("a", nullptr), nullptr);
    EXPECT_EQ(StrDuplicateToSubStringNoCase(nullptr, "a"), nullptr);
    EXPECT_EQ(Owned(StrDuplicateToSubStringNoCase("keyVAL=x", "val")), "key");
    EXPECT_EQ(Owned(StrReplaceChar("/\351//", '/', 0x82a0)), "\202\240\351/\202\240");
    EXPECT_EQ(Owned(StrReplaceChar("\202\240a", 0x82a0, 'b')), "ba");
    char* folded = nullptr;
    EXPECT_EQ(StrConvertToUpper(&folded, "az{\202a\245a"), folded);
    EXPECT_EQ(Owned(folded), "AZ{\202a\245A");
    EXPECT_EQ(Owned(StrConvertToLower(&folded, "AZ[\351A\351")), "az[\351A\351");
}

TEST(StrBase, TokensRestoreTheString) {
    using Texts = std::vector<std::string>;
    // Text, delimiters, tokens.
    const std::tuple<std::string, const char*, Texts> cases[] = {
        {"a,,b", ",", {"a", "", "b"}},
        {"", ",", {""}},
        {",", ",", {"", ""}},
        {"a b;", "; ", {"a", "b", ""}},
        {"a,\202", ",", {"a", "\202"}},
        {"a,b", "", {"a,b"}},
        {"\202,a,\202,", ",", {"\202,a", "\202,"}},       // "," as a trail byte
        {"a\202\240b\240", "\202\240", {"a", "b\240"}}};  // a two-byte delimiter
    for (const auto& [original, delimiters, tokens] : cases) {
        std::string text = original;
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
    std::string outer = "x y";
    EXPECT_STREQ(StrToken(outer.data(), " "), "x");
    std::string many = "0";
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
    EXPECT_EQ(std::string(buffer, 5), std::string("abc\0#", 5));
    TraceCapture trace(-1);
    EXPECT_EQ(StrFormat(buffer, 4, "%d", 12345), FALSE);
    EXPECT_EQ(std::string(buffer, 5), std::string("123\0#", 5));
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
    for (const auto& [text, value] : {std::pair{"+7", 7}, {" \t\n\v\f\r-007", -7}, {"-0", 0}})
        expect(text, value);
    for (const int64 value : {int64{12}, int64{INT_MAX}, int64{INT_MIN}, INT_MAX + int64{1},
                              INT_MIN - int64{1}, int64{4294967297}, most, -most - 1})
        expect(std::to_string(value).c_str(), value);
    expect(nullptr, 0);
    narrow = 77;
    wide = 77;
    for (const char* text :
         {"", " ", "12x", "x12", "12 ", "0x10", "1.5", "-", "+", "+-5", "--5", "- 5", "1\202",
          "9223372036854775808", "-9223372036854775809", "99999999999999999999999999"}) {
        EXPECT_EQ(StrToInteger(text, &narrow), FALSE) << text;
        EXPECT_EQ(StrToInt64(text, &wide), FALSE) << text;
    }
    EXPECT_EQ(narrow, 77);
    EXPECT_EQ(wide, 77);
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
        return Owned(text);
    };
    EXPECT_EQ(made(StrFromBoolean, TRUE), "TRUE");
    EXPECT_EQ(made(StrFromBoolean, FALSE), "FALSE");
    EXPECT_EQ(made(StrFromInteger, std::numeric_limits<int32>::min()), "-2147483648");
    EXPECT_EQ(made(StrFromInt64, std::numeric_limits<int64>::min()), "-9223372036854775808");
    EXPECT_EQ(made(StrHexFromInteger, 0x1aB), "0x1ab");
    EXPECT_EQ(made(StrHexFromInteger, -1), "0xffffffff");
    EXPECT_EQ(made(StrHexFromInt64, int64{-1}), "ffffffffffffffff");
    EXPECT_EQ(made(StrFromIpAddr, 0xc0a80001U), "192.168.0.1");
    EXPECT_EQ(made(StrFromIpAddr, 0xffffffffU), "255.255.255.255");

    const std::pair<int64, const char*> times[] = {
        {3723000, "01:02:03"},
        {999, "00:00:00"},
        {360059999, "100:00:59"},
        {-3723000, "-01:-02:-03"},
        {std::numeric_limits<int64>::max(), "2562047788015:12:55"}};
    for (const auto& [time, text] : times) EXPECT_EQ(Owned(StrFromInt64Time(time)), text);
}

TEST(StrConvert, SixteenBitUnits) {
    char units[8] = "#######";
    EXPECT_EQ(StrToUnicode(units, "a\202\240b", 2), 4);
    EXPECT_EQ(std::string(units, 5), std::string("a\0\240\202#", 5));
    EXPECT_EQ(StrToUnicode(units, "\245\202", 9), 4);
    EXPECT_EQ(std::string(units, 5), std::string("\245\0\202\0#", 5));
    EXPECT_EQ(StrToUnicode(units, "a", 0), 0);

    char source[] = {'a', 0, '\240', '\202', 'b', 0};
    char* text = nullptr;
    EXPECT_EQ(StrFromUnicode(&text, source, 6), 4);
    EXPECT_EQ(Owned(text), "a\202\240b");
    EXPECT_EQ(StrFromUnicode(&text, source, 3), 1);  // half a unit at the end
    EXPECT_EQ(Owned(text), "a");
    EXPECT_EQ(StrFromUnicode(&text, source, 0), 0);
    EXPECT_EQ(Owned(text), "");
    text = nullptr;
    EXPECT_EQ(StrFromUnicode(&text, source, -2), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(StrConvert, Ranges) {
    int first = 0;
    int last = 0;
    const auto parsed = [&](auto function, std::string text) {
        first = last = -1;
        const BooleanT result = function(text.data(), &first, &last);
        EXPECT_EQ(result, BooleanFrom(first != -1)) << text;
        return std::pair(first, last);
    };
    const std::tuple<const char*, int, int> hours[] = {{"8-17", 8, 17},     {"0", 0, 0},
                                                       {"23-0", 23, 0},     {"0x0A", 10, 10},
                                                       {"010-0x17", 8, 23}, {" 8 - 9", 8, 9}};
    for (const auto& [text, from, to] : hours)
        EXPECT_EQ(parsed(StrParseHourRange, text), std::pair(from, to)) << text;
    for (const char* text : {"24", "8-24", "-8", "8-", "1-2-3", "", "noon", "4294967304"})
        EXPECT_EQ(parsed(StrParseHourRange, text), std::pair(-1, -1)) << text;

    EXPECT_EQ(parsed(StrParseDayRange, "mon-FRI"), std::pair(1, 5));
    EXPECT_EQ(parsed(StrParseDayRange, "Sat"), std::pair(6, 6));
    EXPECT_EQ(parsed(StrParseDayRange, "sat-sun"), std::pair(6, 0));
    for (const char* text : {"sunday", "mon-", "mon-tue-wed", "", "-sun"})
        EXPECT_EQ(parsed(StrParseDayRange, text), std::pair(-1, -1)) << text;
}

}  // namespace
