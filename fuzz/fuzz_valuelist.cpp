// Value lists from outside, by both rules: values between commas without the blanks around them,
// and a configuration value in which "!" escapes. Each is compared with a reading of its own.
#include <algorithm>

#include "core/cfg.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "core/strwrappers.h"
#include "fuzzsupport.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    FuzzInitialize("/nonexistent");
    return 0;
}

namespace {

using Texts = std::vector<std::string>;

Texts TakeTexts(ListO oList) {
    Texts texts;
    for (ListNodeO oNode = oList->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        const char* pstrText = ObjGetString(static_cast<ObjStringO>(oNode->oData));
        texts.emplace_back(pstrText == nullptr ? "" : pstrText);
    }
    Expect(static_cast<std::size_t>(oList->lItemCount) == texts.size());
    ObjRelease(&oList);
    return texts;
}

// A character, and whether it stands for itself only.
struct Token {
    std::string bytes;
    bool literal;
    bool Is(const char* text) const { return !literal && bytes == text; }
    bool IsBlank() const { return Is(" ") || Is("\t"); }
};

std::vector<Token> TokensOf(const std::string& text, bool escapes) {
    std::vector<Token> tokens;
    bool literal = false;
    for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
        const auto lead = static_cast<unsigned char>(text[at]);
        const bool two = (lead >= 0x80 && lead < 0xa0) || lead >= 0xe0;
        length = two && at + 1 < text.size() ? 2 : 1;
        Token token = {text.substr(at, length), literal};
        if (literal) {
            if (token.bytes == "n") token.bytes = "\n";
            tokens.back() = token;
        } else {
            tokens.push_back(token);
        }
        literal = escapes && token.Is("!");
    }
    // A last "!" has nothing to stand for.
    if (literal) tokens.back() = {"", true};
    return tokens;
}

Texts Split(const std::string& text, bool escapes) {
    const std::vector<Token> tokens = TokensOf(text, escapes);
    Texts values(1);
    std::string blanks;
    bool any = false;  // in the value under way
    for (const Token& token : tokens) {
        if (token.Is(",")) {
            values.emplace_back();
            blanks.clear();
            any = false;
        } else if (token.IsBlank()) {
            if (any) blanks += token.bytes;
        } else {
            values.back() += blanks + token.bytes;
            blanks.clear();
            any = true;
        }
    }
    const bool none = std::all_of(tokens.begin(), tokens.end(),
                                  [](const Token& token) { return token.IsBlank(); });
    return none ? Texts() : values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input = std::string(reinterpret_cast<const char*>(data), size).c_str();
    const NothingLeft nothingLeft;
    ListO oValues = nullptr;
    Expect(StrValueListFromString(&oValues, input.c_str()) == TRUE);
    Expect(TakeTexts(oValues) == Split(input, false));

    ListO oText = ListNew(ObjStringMagic);
    ObjStringO oString = ObjStringNew(input.c_str());
    ListPushLastItem(oText, &oString);
    ListO oParsed = nullptr;
    Expect(CfgParseValueList(&oParsed, oText) == TRUE);
    Expect(TakeTexts(oParsed) == Split(input, true));
    ObjRelease(&oText);
    return 0;
}
