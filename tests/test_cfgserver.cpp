// The configuration server's side: every type of request on a client's file, requests that are not
// to be carried out, and keys and stanzas as objects and back.
#include <gtest/gtest.h>

#include <limits>
#include <set>

#include "core/cfgserver.h"
#include "support/files.h"
#include "support/lists.h"
#include "support/messages.h"
#include "support/objects.h"

namespace {

using Text = std::string;

constexpr char ClientFile[] = "gui/CachedPits/client/config/test.cfg";
const Text Plain = "[S]\nk=a,b,a\nl=1\n\n";
const Text Displayed = "[L:list]\nlabel=x\nvalue=One,two\n\n";
constexpr int32 Huge = std::numeric_limits<int32>::max();

void* Word(const char* text) { return ObjStringNew(text); }
void* Number() { return ObjIntegerNew(7); }
// Takes the items over.
void* Items(std::initializer_list<void*> items) {
    ListO oList = ListNew();
    for (void* oItem : items) ListPushLastItem(oList, &oItem);
    return oList;
}
void* Key(const char* keyword, int32 lCount, void* oValues, int32 lMaximum = 0) {
    const CfgStnzKeyS fields = {StrDuplicate(keyword), lCount, lMaximum,
                                static_cast<ListO>(oValues), nullptr};
    return New<CfgStnzKeyS>(CfgStnzKeyMagic, CfgStnzKeyDescriptor, fields).Take();
}
void* Stanza(const char* title, int32 lCount, void* oKeys) {
    const CfgStnzS fields = {nullptr, StrDuplicate(title),       lCount,
                             lCount,  static_cast<ListO>(oKeys), nullptr};
    return New<CfgStnzS>(CfgStnzMagic, CfgStnzDescriptor, fields).Take();
}
void* Keyed(const char* title) {
    return Stanza(title, 1, Items({Key("n", 2, Items({Word("1"), Word(nullptr)}))}));
}

Text KeyText(StnzKeyT* pKey) {
    Text text = Text(pKey->pstrKeyword) + "=";
    for (int32 l = 1; l <= pKey->lValueCount; l++) {
        const char* value = StnzKeyValue(pKey, l);
        text += (l > 1 ? "," : "") + Text(value == nullptr ? "-" : value);
    }
    return text;
}
Text StanzaText(StnzT* pStanza) {
    const Text category = pStanza->pstrCatagory == nullptr ? "" : pStanza->pstrCatagory;
    Text text = "[" + category + ":" + pStanza->pstrTitle + "]";
    for (int32 l = 0; l < pStanza->lKeyCount; l++) text += " " + KeyText(pStanza->apKeys[l]);
    return text;
}

// What a reply brings.
Text ReplyText(CfgSvrConfigReplyO oReply) {
    Text text = BooleanText(oReply->bSuccess);
    StnzKeyT* pKey = nullptr;
    StnzT* pStanza = nullptr;
    if (CfgSvrStnzKeyTypeFromStnzKeyObject(&pKey, oReply->oStnzKey) == TRUE)
        text += " " + KeyText(pKey);
    if (CfgSvrStanzaTypeFromStanzaObject(&pStanza, oReply->oStanza) == TRUE)
        text += " " + StanzaText(pStanza);
    StnzReleaseKey(&pKey);
    StnzRelease(&pStanza);
    for (void* oItem : ItemsOf<void*>(oReply->oValueList)) {
        StnzT* pItem = ObjGetStanza(static_cast<ObjStanzaO>(oItem));
        const auto* oString = static_cast<ObjStringO>(oItem);
        text += " " + (pItem == nullptr ? Text(oString->pstrValue) : StanzaText(pItem));
    }
    return text;
}

struct Ask {
    int32 lType = 2;
    const char* title = "S";
    const char* keyword = "k";
    void* oObject = nullptr;  // value, stanza and stanza list in one; the request's
    BooleanT bUnique = FALSE;
    BooleanT bNoCase = FALSE;
    const char* category = nullptr;
    const char* client = "client";
    const char* file = "test.cfg";
    const char* path = nullptr;
};

// Sends the server what is asked.
Text ReplyTo(const Ask& ask) {
    const New<CfgSvrConfigRequestS> request(
        CfgSvrConfigRequestMagic, CfgSvrConfigRequestDescriptor,
        {ask.lType, StrDuplicate(ask.client), StrDuplicate(ask.category), StrDuplicate(ask.file),
         StrDuplicate(ask.title), StrDuplicate(ask.keyword), StrDuplicate(ask.path), ask.oObject,
         nullptr, static_cast<CfgStnzO>(ask.oObject), static_cast<ListO>(ask.oObject), FALSE,
         ask.bUnique, ask.bNoCase, nullptr});
    for (int holder = 2; holder <= 3 && ask.oObject != nullptr; holder++)
        ObjIncRefCount(ask.oObject);
    ObjHolder<CfgSvrConfigReplyS> reply;
    const BooleanT bResult = CfgSvrProcessConfigRequest(reply.Address(), request.Get());
    EXPECT_EQ(reply.Get()->bSuccess, bResult);
    EXPECT_EQ(reply.Get()->lReqType, ask.lType);
    return ReplyText(reply.Get());
}

// Every file of the home directory but locks, with its content.
std::set<Text> AllFiles() {
    std::set<Text> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(TestHome())) {
        if (entry.is_regular_file() && entry.path().extension() != ".lck")
            files.insert(entry.path().string() + "\n" + ReadFile(entry.path()));
    }
    return files;
}

class CfgServer : public ObjectTest {};

TEST_F(CfgServer, EveryTypeOfRequest) {
    StnzT* pStanza = nullptr;
    StnzCreate(&pStanza, "C", "T", 0);
    const struct {
        Ask ask;
        Text reply;
        Text file;  // "" when it stays as it was
    } requests[] = {
        {{1, "S", "K"}, "TRUE K=a,b,a", ""},
        {{1, "L", "list"}, "TRUE value=One,two", ""},
        {{1, "S", "missing"}, "FALSE", ""},
        {{2, "S", "k", Word("new")}, "TRUE", "[S]\nl=1\nk=new\n\n" + Displayed},
        {{2, "L", "list", Word("new")}, "TRUE", Plain + "[L:list]\nlabel=x\nvalue=new\n\n"},
        {{2, "N", "k", Items({Word("x,y"), Word(""), Word("z")})},
         "TRUE",
         Plain + Displayed + "[N]\nk=x!,y,,z\n\n"},
        {{2, "N", "k", Word(nullptr)}, "TRUE", Plain + Displayed + "[N]\nk=\n\n"},
        {{3, "S", "k"}, "TRUE", "[S]\nl=1\n\n" + Displayed},
        {{3, "S", "missing"}, "FALSE", ""},
        {{4, "S", nullptr}, "TRUE [:S] k=a,b,a l=1", ""},
        {{4, "L", nullptr}, "FALSE", ""},
        {{5, nullptr, nullptr}, "TRUE [:S] k=a,b,a l=1 [L:list] label=x value=One,two", ""},
        {{6, nullptr, nullptr, Items({ObjStanzaNew(pStanza)})}, "TRUE", "[C:T]\n\n"},
        {{7, nullptr, nullptr, Keyed("S")}, "TRUE", Plain + Displayed + "[S]\nn=1,\n\n"},
        {{8, nullptr, nullptr, Keyed("S")}, "TRUE", "[S]\nn=1,\n\n" + Displayed},
        {{9, "list", nullptr, nullptr, FALSE, FALSE, "L"}, "TRUE", Plain},
        {{9, "S", nullptr}, "TRUE", Displayed},
        {{10, "L", "list", Word("one"), TRUE, FALSE},
         "TRUE One two one",
         Plain + "[L:list]\nlabel=x\nvalue=One,two,one\n\n"},
        {{10, "L", "list", Word("one"), TRUE, TRUE}, "FALSE", ""},
        {{11, "L", "list", Word("one"), FALSE, TRUE},
         "TRUE two",
         Plain + "[L:list]\nlabel=x\nvalue=two\n\n"},
        {{11, "L", "list", Word("one"), FALSE, FALSE}, "FALSE", ""},
        {{12, "S", "k", Word("c")}, "TRUE", "[S]\nl=1\nk=a,b,a,c\n\n" + Displayed},
        {{13, "S", "k", Word("a")}, "TRUE", "[S]\nk=b\nl=1\n\n" + Displayed},
        {{13, "S", "k", Word("c")}, "FALSE", ""},
    };
    for (const auto& r : requests) {
        SCOPED_TRACE(std::to_string(r.ask.lType) + " " + r.reply);
        WriteInHome(ClientFile, Plain + Displayed);
        EXPECT_EQ(ReplyTo(r.ask), r.reply);
        // A rewritten file may end in one empty line less.
        const Text file = ReadFile(TestHome() + "/" + ClientFile);
        EXPECT_EQ(file + (file.ends_with("\n\n") ? "" : "\n"),
                  r.file.empty() ? Plain + Displayed : r.file);
    }
    // A directory that the request names takes the place of the client's.
    for (const char* client : {"client", static_cast<const char*>(nullptr)}) {
        WriteInHome("config/own/test.cfg", "");
        EXPECT_EQ(ReplyTo({.oObject = Word("own"), .client = client, .path = "config/own"}),
                  "TRUE");
        EXPECT_EQ(ReadFile(TestHome() + "/config/own/test.cfg"), "[S]\nk=own\n\n");
    }
}

TEST_F(CfgServer, RequestsThatAreNotCarriedOut) {
    // Where each name would lead there is a directory, so that only the check keeps it away.
    for (const char* home : {"gui/CachedPits/client", "gui", "gui/CachedPits", "out", "."})
        WriteInHome(Text(home) + "/config/test.cfg", Plain);
    const std::set<Text> files = AllFiles();
    const auto refused = [&files](const Ask& ask) {
        EXPECT_EQ(ReplyTo(ask), "FALSE");
        return AllFiles() == files;
    };
    for (const int32 lType : {0, 14, -1, Huge})
        EXPECT_TRUE(refused({.lType = lType, .oObject = Word("bad")})) << lType;
    const std::pair<const char * Ask::*, const char*> names[] = {
        {&Ask::client, nullptr},
        {&Ask::client, ""},
        {&Ask::client, "."},
        {&Ask::client, ".."},
        {&Ask::client, "../../out"},
        {&Ask::client, "client/../../../out"},
        {&Ask::file, nullptr},
        {&Ask::file, ""},
        {&Ask::file, "../../../../out/config/x.cfg"},
        {&Ask::file, "./../config/x.cfg"},
        {&Ask::path, "config/../out/config"},
        {&Ask::path, "out/config/.."},
        {&Ask::title, nullptr},
        {&Ask::keyword, nullptr},
    };
    for (const auto& [field, name] : names) {
        Ask ask = {.oObject = Word("bad")};
        ask.*field = name;
        EXPECT_TRUE(refused(ask)) << (name == nullptr ? "null" : name);
    }
    EXPECT_TRUE(refused({.oObject = Word("bad"), .client = "..", .path = "config"}));
    EXPECT_TRUE(refused({10, nullptr, "k", Word("bad")}));
    const std::pair<int32, void*> objects[] = {
        {2, nullptr},
        {2, Number()},
        {2, Items({Word("x"), Number()})},
        {10, Items({Word("x")})},
        {6, nullptr},
        {6, Number()},
        {6, Items({Number()})},
        {6, Items({ObjStanzaNew(nullptr)})},
        {7, nullptr},
        {8, Number()},
        {7, Stanza(nullptr, 0, nullptr)},
        {7, Stanza("T", 2, Items({}))},
        {8, Stanza("T", 0, Items({Key("k", 0, nullptr)}))},
        {7, Stanza("T", -1, nullptr)},
        {8, Stanza("T", 0, Number())},
        {7, Stanza("T", 1, Items({Number()}))},
        {8, Stanza("T", 1, Items({Key(nullptr, 0, nullptr)}))},
        {7, Stanza("T", 1, Items({Key("k", Huge, Items({}))}))},
    };
    for (const auto& [lType, oObject] : objects)
        EXPECT_TRUE(refused({.lType = lType, .oObject = oObject})) << lType;
    const ObjHolder<void> number(Number());
    for (void* oRequest : {static_cast<void*>(nullptr), number.Get()}) {
        ObjHolder<CfgSvrConfigReplyS> reply;
        CfgSvrProcessConfigRequest(reply.Address(), static_cast<CfgSvrConfigRequestO>(oRequest));
        EXPECT_EQ(ReplyText(reply.Get()), "FALSE");
    }
}

TEST_F(CfgServer, StanzasAsObjectsAndBack) {
    StnzT* stanzas[] = {NewStanza("C", "t"), nullptr};
    StnzCreate(&stanzas[1], nullptr, "empty", 5);
    for (StnzT* pStanza : stanzas) {
        ObjHolder<CfgStnzS> oStanza;
        StnzT* pBack = nullptr;
        EXPECT_EQ(CfgSvrStanzaObjectFromStanzaType(oStanza.Address(), pStanza), TRUE);
        ASSERT_EQ(CfgSvrStanzaTypeFromStanzaObject(&pBack, oStanza.Get()), TRUE);
        EXPECT_EQ(StanzaText(pBack), pStanza == stanzas[0] ? "[C:t] k=v,-" : "[:empty]");
        StnzRelease(&pBack);
        StnzRelease(&pStanza);
    }
    // Counts: values, maximum; the values that the key has and its room, 0 for no key. A text may
    // stand in a list many times, but takes no more room than a message could.
    const ObjHolder<void> oLong(Word(Text(1 << 20, 'x').c_str()));
    ListO oMany = ListNew();
    for (int n = 0; n < 100; n++) ListAddLastItem(oMany, oLong.Get());
    const auto pair = [] { return Items({Word("a"), Word("b")}); };
    const struct {
        void* oKey;
        Text key;
        int32 lRoom;
    } keys[] = {
        {Key("k", 2, pair(), 10), "k=a,b", 10},  {Key("k", 2, pair(), 1), "k=a,b", 2},
        {Key("k", 1, pair()), "k=a", 1},         {Key("k", 0, pair()), "k=", 1},
        {Key("k", 2, pair(), Huge), "k=a,b", 2}, {Key("k", 3, pair(), 3), "", 0},
        {Key("k", -1, pair(), 5), "", 0},        {Key("k", 2, pair(), -1), "", 0},
        {Key("k", 100, oMany), "", 0},
    };
    for (const auto& k : keys) {
        const ObjHolder<void> oKey(k.oKey);
        StnzKeyT* pKey = nullptr;
        CfgSvrStnzKeyTypeFromStnzKeyObject(&pKey, static_cast<CfgStnzKeyO>(k.oKey));
        EXPECT_EQ(pKey == nullptr ? "" : KeyText(pKey), k.key);
        EXPECT_EQ(pKey == nullptr ? 0 : pKey->lMaxValueCount, k.lRoom);
        StnzReleaseKey(&pKey);
    }
}

}  // namespace
