// Stanzas as texts and from texts. A stanza's text is "category:title{keyword=value,value;...}",
// with "-" for a null value.
#pragma once

#include "core/stnzbase.h"
#include "core/stnzfile.h"
#include "core/stnzwrappers.h"
#include "support/files.h"
#include "support/lists.h"

inline std::string KeyText(StnzKeyT* key) {
    std::string text = key->pstrKeyword + std::string("=");
    for (int32 v = 1; v <= StnzKeyValueCount(key); v++) {
        const char* value = StnzKeyValue(key, v);
        text += (v == 1 ? "" : ",") + std::string(value == nullptr ? "-" : value);
    }
    return text;
}

inline std::string StanzaText(const StnzT* stanza) {
    std::string text = stanza->pstrCatagory == nullptr ? "" : stanza->pstrCatagory;
    text += (text.empty() ? "" : ":") + std::string(stanza->pstrTitle) + "{";
    for (int32 i = 0; i < stanza->lKeyCount; i++)
        text += (i == 0 ? "" : ";") + KeyText(stanza->apKeys[i]);
    return text + "}";
}

inline std::string StanzasText(ListO list) {
    std::string text;
    for (const auto* stanza : ItemsOf<ObjStanzaO>(list)) text += StanzaText(stanza->pValue);
    return text;
}

// What is read from a file; "failed" when it cannot be.
inline std::string StanzasOfFile(const std::string& path) {
    ObjHolder<ListS> list;
    if (StnzLoadStanzaListFromFile(list.Address(), path.c_str()) != TRUE) return "failed";
    return StanzasText(list.Get());
}

// The stanzas of a file with this content; the caller's.
inline ListO LoadStanzas(const std::string& content) {
    const Dir dir;
    WriteFile(dir("f"), content);
    ListO list = nullptr;
    EXPECT_EQ(StnzLoadStanzaListFromFile(&list, dir("f")), TRUE);
    return list;
}

// A stanza of keys that are given as lines; the caller's.
inline StnzT* StanzaOf(const char* category, const char* title,
                       const std::vector<std::string>& lines) {
    StnzT* stanza = nullptr;
    EXPECT_EQ(StnzCreate(&stanza, category, title, 0), TRUE);
    for (const std::string& line : lines) {
        StnzKeyT* key = nullptr;
        EXPECT_EQ(StnzLineToKey(&key, line.c_str()), TRUE);
        EXPECT_EQ(StnzAddKeyToStanza(&stanza, &key), TRUE);
    }
    return stanza;
}
