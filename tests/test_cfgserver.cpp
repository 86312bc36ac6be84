// The configuration server's side: every type of request on a client's file, requests that are not
// to be carried out, and keys and stanzas as objects and back.
#include <gtest/gtest.h>

#include <limits>
#include <set>

#include "core/cfgserver.h"
#include "support/messages.h"
#include "support/objects.h"
#include "support/stanzas.h"

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

Text KeyObjectText(CfgStnzKeyO oKey) {
    StnzKeyT* pKey = nullptr;
    if (CfgSvrStnzKeyTypeFromStnzKeyObject(&pKey, oKey) != TRUE) return "";
    const Text text = " " + KeyText(pKey) + " of " + std::to_string(pKey->lMaxValueCount);
    StnzReleaseKey(&pKey);
    return text;
}
Text StanzaObjectText(CfgStnzO oStanza) {
    StnzT* pStanza = nullptr;
    if (CfgSvrStanzaTypeFromStanzaObject(&pStanza, oStanza) != TRUE) return "";
    const Text text = " " + StanzaText(pStanza);
    StnzRelease(&pStanza);
    return text;
}

// What a reply brings.
Text ReplyText(CfgSvrConfigReplyO oReply) {
    Text text = BooleanText(oReply->bSuccess);
    text += KeyObjectText(oReply->oStnzKey) + StanzaObjectText(oReply->oStanza);
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
    StnzT* pStanza = StanzaOf("C", "T", {});
    const struct {
        Ask ask;
        Text reply;
        Text file;  // "" when it stays as it was
    } requests[] = {
        {{1, "S", "K"}, "TRUE K=a,b,a of 3", ""},
        {{1, "S", "missing"}, "FALSE", ""},
        {{2, "L", "list", Word("new")}, "TRUE", Plain + "[L:list]\nlabel=x\nvalue=new\n\n"},
        {{2, "N", "k", Items({Word("x,y"), Word("")})},
         "TRUE",
         Plain + Displayed + "[N]\nk=x!,y,\n\n"},
        {{2, "N", "k", Word(nullptr)}, "TRUE", Plain + Displayed + "[N]\nk=\n\n"},
        {{3, "S", "k"}, "TRUE", "[S]\nl=1\n\n" + Displayed},
        {{4, "S", nullptr}, "TRUE S{k=a,b,a;l=1}", ""},
        {{4, "L", nullptr}, "FALSE", ""},
        {{5, nullptr, nullptr}, "TRUE S{k=a,b,a;l=1} L:list{label=x;value=One,two}", ""},
        {{6, nullptr, nullptr, Items({ObjStanzaNew(pStanza)})}, "TRUE", "[C:T]\n\n"},
        {{7, nullptr, nullptr, Keyed("S")}, "TRUE", Plain + Displayed + "[S]\nn=1,\n\n"},
        {{8, nullptr, nullptr, Keyed("S")}, "TRUE", "[S]\nn=1,\n\n" + Displayed},
        {{9, "list", nullptr, nullptr, FALSE, FALSE, "L"}, "TRUE", Plain},
        {{10, "L", "list", Word("one"), TRUE, TRUE}, "FALSE", ""},
        {{11, "L", "list", Word("x"), FALSE, TRUE}, "FALSE", ""},
        {{12, "S", "k", Word("c")}, "TRUE", "[S]\nl=1\nk=a,b,a,c\n\n" + Displayed},
        {{13, "S", "k", Word("a")}, "TRUE", "[S]\nk=b\nl=1\n\n" + Displayed},
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
    std::vector<Ask> asks = {{10, nullptr, "k"}, {.client = "..", .path = "config"}};
    for (const int32 lType : {0, 14, -1, Huge}) asks.push_back({.lType = lType});
    for (const char* client :
         {static_cast<const char*>(nullptr), "", ".", "..", "../../out", "client/../../../out"})
        asks.push_back({.client = client});
    for (const char* file : {static_cast<const char*>(nullptr), "", "../../../../out/config/x.cfg",
                             "./../config/x.cfg"})
        asks.push_back({.file = file});
    for (const char* path : {"config/../out/config", "out/config/.."})
        asks.push_back({.path = path});
    asks.push_back({.title = nullptr});
    asks.push_back({.keyword = nullptr});
    for (Ask& ask : asks) ask.oObject = Word("bad");
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
        asks.push_back({.lType = lType, .oObject = oObject});
    for (std::size_t n = 0; n < asks.size(); n++) {
        EXPECT_EQ(ReplyTo(asks[n]), "FALSE") << n;
        EXPECT_TRUE(AllFiles() == files) << n;
    }
    const ObjHolder<void> number(Number());
    for (void* oRequest : {static_cast<void*>(nullptr), number.Get()}) {
        ObjHolder<CfgSvrConfigReplyS> reply;
        CfgSvrProcessConfigRequest(reply.Address(), static_cast<CfgSvrConfigRequestO>(oRequest));
        EXPECT_EQ(ReplyText(reply.Get()), "FALSE");
    }
}

TEST_F(CfgServer, StanzasAsObjectsAndBack) {
    for (const Text& expected : {Text(" C:t{k=v,-}"), Text(" empty{}")}) {
        StnzT* pStanza =
            expected == " empty{}" ? StanzaOf(nullptr, "empty", {}) : NewStanza("C", "t");
        ObjHolder<CfgStnzS> oStanza;
        EXPECT_EQ(CfgSvrStanzaObjectFromStanzaType(oStanza.Address(), pStanza), TRUE);
        EXPECT_EQ(StanzaObjectText(oStanza.Get()), expected);
        StnzRelease(&pStanza);
    }
    // Counts: values, maximum; the values that the key has and its room. A text may stand in a list
    // many times, but takes no more room than a message could.
    const ObjHolder<void> oLong(Word(Text(1 << 20, 'x').c_str()));
    ListO oMany = ListNew();
    for (int n = 0; n < 100; n++) ListAddLastItem(oMany, oLong.Get());
    const auto pair = [] { return Items({Word("a"), Word("b")}); };
    const std::pair<void*, Text> keys[] = {
        {Key("k", 2, pair(), 10), " k=a,b of 10"},
        {Key("k", 2, pair(), 1), " k=a,b of 2"},
        {Key("k", 1, pair()), " k=a of 1"},
        {Key("k", 0, pair()), " k= of 1"},
        {Key("k", 2, pair(), Huge), " k=a,b of 2"},
        {Key("k", 3, pair(), 3), ""},
        {Key("k", -1, pair(), 5), ""},
        {Key("k", 2, pair(), -1), ""},
        {Key("k", 100, oMany), ""},
    };
    for (const auto& [key, text] : keys) {
        const ObjHolder<void> oKey(key);
        EXPECT_EQ(KeyObjectText(static_cast<CfgStnzKeyO>(key)), text);
    }
}

}  // namespace
