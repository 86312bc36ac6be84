#include "core/stnzbase.h"
#include "support/leftovers.h"
#include "support/support.h"

namespace {

using Text = std::string;
using Key = std::pair<Text, std::vector<Text>>;  // keyword and values; "-" stands for a missing one

std::vector<Key> Contents(const StnzT* stanza) {
    std::vector<Key> keys;
    for (int32 i = 0; i < stanza->lKeyCount; i++) {
        keys.push_back({stanza->apKeys[i]->pstrKeyword, {}});
        for (int32 v = 1; v <= StnzKeyValueCount(stanza->apKeys[i]); v++) {
            const char* value = StnzKeyValue(stanza->apKeys[i], v);
            keys.back().second.emplace_back(value == nullptr ? "-" : value);
        }
    }
    return keys;
}

StnzKeyT* NewKey(const Key& key) {
    StnzKeyT* made = nullptr;
    EXPECT_EQ(StnzCreateKey(&made, key.first.c_str(), 0), TRUE);
    for (const Text& value : key.second)
        EXPECT_EQ(StnzAddValueToKey(&made, value == "-" ? nullptr : value.c_str()), TRUE);
    return made;
}

template <class List, class Matches>
BooleanT Erase(List& list, bool all, Matches matches) {
    const std::size_t before = list.size();
    const auto first = std::find_if(list.begin(), list.end(), matches);
    const auto end = all ? list.end() : first + (first == list.end() ? 0 : 1);
    list.erase(std::remove_if(first, end, matches), end);
    return BooleanFrom(list.size() < before);
}

TEST(Stanza, AgainstModel) {
    // The second byte of a character may look like a letter; it has no other case.
    const Text words[] = {"port", "Port", "PORT", "host", "\x83\x41", "\x83\x61", "", "-"};
    const int alike[] = {0, 0, 0, 1, 2, 3, 4, 5};
    std::mt19937 random(23);
    const NothingLeft nothing;
    StnzT* stanza = nullptr;
    ASSERT_EQ(StnzCreate(&stanza, nullptr, "Title", 0), TRUE);
    std::vector<Key> model;
    int32 room = 1;  // grows by one
    for (int step = 0; step < 5000; step++) {
        const auto word = random() % std::size(words);
        const char* keyword = words[word].c_str();
        const auto same = [&](const Key& key) {
            return alike[std::find(words, std::end(words), key.first) - words] == alike[word];
        };
        const bool all = random() % 2 == 0;
        const auto found = std::find_if(model.begin(), model.end(), same);
        StnzKeyT* key = nullptr;
        ASSERT_EQ(StnzGetKey(&key, stanza, keyword), BooleanFrom(found != model.end()));
        if (random() % 2 == 0) {
            Key made = {words[word], {}};
            for (auto count = random() % 12; count > 0; count--)
                made.second.push_back(words[random() % std::size(words)]);
            key = NewKey(made);
            if (all) Erase(model, true, same);
            ASSERT_EQ((all ? StnzReplaceKeyInStanza : StnzAddKeyToStanza)(&stanza, &key), TRUE);
            ASSERT_EQ(key, nullptr);
            model.push_back(made);
        } else if (random() % 2 == 0 || key == nullptr) {
            ASSERT_EQ(StnzDeleteKeywordFromStanza(stanza, keyword, BooleanFrom(all)),
                      Erase(model, all, same));
        } else {
            ASSERT_EQ(key, stanza->apKeys[found - model.begin()]);
            ASSERT_EQ(StnzDeleteValueFromKey(key, "Port", BooleanFrom(all)),
                      Erase(found->second, all, [](const Text& value) { return value == "Port"; }));
        }
        room = std::max(room, stanza->lKeyCount);
        ASSERT_EQ(stanza->lMaxKeyCount, room);
        ASSERT_EQ(Contents(stanza), model);
    }
    EXPECT_EQ(StnzRelease(&stanza), TRUE);
}

TEST(Stanza, RoomRemovalCopiesAndWalks) {
    const NothingLeft nothing;
    StnzKeyT* key = NewKey({"k", {"0", "1"}});
    StnzT *stanza = nullptr, *copy = nullptr, *none = nullptr;
    ASSERT_EQ(StnzCreate(&stanza, "cat", "title", 7), TRUE);
    EXPECT_EQ(StnzAddKeyToStanza(&stanza, &key), TRUE);
    key = stanza->apKeys[0];
    EXPECT_EQ(StnzRemoveKeyFromStanza(stanza, key), TRUE);
    EXPECT_EQ(StnzRemoveKeyFromStanza(stanza, key), FALSE);
    for (const int32 room : {5, 5, 5, 9}) {  // grows by four
        EXPECT_EQ(StnzAddValueToKey(&key, nullptr), TRUE);
        EXPECT_EQ(key->lMaxValueCount, room);
        EXPECT_EQ(StnzKeyValue(key, key->lValueCount + 1), nullptr);
    }
    for (const int32 number : {-1, 0, 7}) {
        EXPECT_EQ(StnzKeyValue(key, number), nullptr);
        EXPECT_EQ(StnzRemoveValueFromKey(key, number), FALSE);
    }
    char* first = StnzKeyValue(key, 1);
    EXPECT_EQ(StnzRemoveValueFromKey(key, 1), TRUE);
    EXPECT_STREQ(first, "0");  // not freed
    MemFree(&first);
    EXPECT_EQ(StnzAddKeyToStanza(&stanza, &key), TRUE);
    ASSERT_EQ(StnzCopy(&copy, stanza), TRUE);
    stanza->lKeyCount = 2;  // the second key is missing: nothing comes of a copy
    EXPECT_EQ(StnzCopy(&none, stanza), FALSE);
    StnzRelease(&stanza);
    EXPECT_EQ(copy->lMaxKeyCount * 10 + copy->apKeys[0]->lMaxValueCount, 79);
    EXPECT_EQ(Text(copy->pstrCatagory) + copy->pstrTitle, "cattitle");
    EXPECT_EQ(Contents(copy), (std::vector<Key>{{"k", {"1", "-", "-", "-", "-"}}}));

    const StnzCallbackFnT replace = [](void* cookie, StnzKeyT** slot) {
        StnzReleaseKey(slot);
        *slot = NewKey({"new", {"1"}});
        return BooleanFrom(--*static_cast<int*>(cookie) > 0);
    };
    key = NewKey({"last", {}});
    StnzAddKeyToStanza(&copy, &key);
    int left = 1;
    EXPECT_EQ(StnzWalk(copy, replace, &left), FALSE);
    EXPECT_EQ(Contents(copy), (std::vector<Key>{{"new", {"1"}}, {"last", {}}}));
    left = 9;
    EXPECT_EQ(StnzWalk(copy, replace, &left), TRUE);
    EXPECT_EQ(left, 7);
    StnzRelease(&copy);
}

TEST(Stanza, WhatIsMissingOrImpossible) {
    StnzT* stanza = nullptr;
    StnzKeyT* key = nullptr;
    for (const int32 count : {-1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(StnzCreate(&stanza, "c", "t", count), FALSE);
        EXPECT_EQ(StnzCreateKey(&key, "k", count), FALSE);
    }
    key = NewKey({"k", {}});
    EXPECT_EQ(StnzAddKeyToStanza(&stanza, &key), FALSE);
    EXPECT_EQ(StnzReplaceKeyInStanza(&stanza, &key), FALSE);
    StnzReleaseKey(&key);  // still the caller's
}

}  // namespace
