// Value lists from outside, by both rules: values between commas without the blanks around them,
// and a configuration value in which "!" escapes. Each is compared with a reading of its own.
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

// A character of one or two bytes stands for itself behind a "!", where that escapes.
Texts Split(const std::string& text, bool escapes) {
    Texts values(1);
    std::string blanks;
    bool any = false;  // in the value under way
    bool none = true;  // nothing but blanks at all
    for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
        const bool literal = escapes && text[at] == '!';
        if (literal) at++;
        const unsigned lead = at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
        length = (lead >= 0x80 && lead < 0xa0) || lead >= 0xe0 ? 2 : 1;
        std::string character = text.substr(at, length);  // a last "!" stands for nothing
        if (literal && character == "n") character = "\n";
        const bool blank = !literal && (character == " " || character == "\t");
        none = none && blank;
        if (!literal && character == ",") {
            values.emplace_back();
            blanks.clear();
            any = false;
        } else if (blank) {
            if (any) blanks += character;
        } else {
            values.back() += blanks + character;
            blanks.clear();
            any = true;
        }
    }
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
