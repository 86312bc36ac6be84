// The configuration server's side: every type of request on a client's file, requests that are not
// to be carried out, and keys and stanzas as objects and back.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <limits>
#include <set>

#include "core/cfgserver.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "support/files.h"
#include "support/messages.h"
#include "support/objects.h"

namespace {

using Text = std::string;
using Reply = ObjHolder<CfgSvrConfigReplyS>;
using Change = std::function<void(CfgSvrConfigRequestO)>;

const Text ClientDir = TestHome() + "/gui/CachedPits/client/config";
const Text Plain = "[S]\nk=a,b,a\nl=1\n\n";
const Text Shown = "[L:list]\nlabel=x\nvalue=One,two\n\n";
constexpr int32 Huge = std::numeric_limits<int32>::max();

// Takes the items over.
ListO ListOf(std::initializer_list<void*> items, int32 lMagic = 0) {
    ListO oList = ListNew(lMagic);
    for (void* oItem : items) ListPushLastItem(oList, &oItem);
    return oList;
}
void* Word(const char* text) { return ObjStringNew(text); }
void* Number() { return ObjIntegerNew(7); }

// A field meant for one class, with an object of another.
template <class T>
void Put(T** poField, void* oObject) {
    if (*poField != nullptr) ObjRelease(poField);
    *poField = static_cast<T*>(oObject);
}
void Put(char** ppstrField, const char* text) {
    MemFree(ppstrField);
    *ppstrField = StrDuplicate(text);
}

CfgStnzKeyO KeyObject(const char* keyword, int32 lCount, void* oValues, int32 lMaximum = 0) {
    return New<CfgStnzKeyS>(
               CfgStnzKeyMagic, CfgStnzKeyDescriptor,
               {StrDuplicate(keyword), lCount, lMaximum, static_cast<ListO>(oValues), nullptr})
        .Take();
}
CfgStnzO StanzaObject(const char* title, int32 lCount, void* oKeys) {
    return New<CfgStnzS>(
               CfgStnzMagic, CfgStnzDescriptor,
               {nullptr, StrDuplicate(title), lCount, lCount, static_cast<ListO>(oKeys), nullptr})
        .Take();
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
    ListNodeO oNode = oReply->oValueList == nullptr ? nullptr : oReply->oValueList->oFirst;
    for (; oNode != nullptr; oNode = oNode->oNext) {
        const bool stanza = ObjCheckTypeInternal(oNode->oData, ObjStanzaMagic) == TRUE;
        text += stanza ? " " + StanzaText(static_cast<ObjStanzaO>(oNode->oData)->pValue)
                       : " " + Text(static_cast<ObjStringO>(oNode->oData)->pstrValue);
    }
    return text;
}

// Every file of the home directory but locks, with its content.
Text AllFiles() {
    std::set<Text> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(TestHome())) {
        if (entry.is_regular_file() && entry.path().extension() != ".lck")
            files.insert(entry.path().string() + "\n" + ReadFile(entry.path()));
    }
    Text all;
    for (const Text& file : files) all += file;
    return all;
}

class CfgServer : public ObjectTest {
 protected:
    CfgServer() { WriteInHome("gui/CachedPits/client/config/test.cfg", Plain + Shown); }
    static Text Process(int32 lType, const char* title, const char* keyword, const Change& change) {
        const Request request(
            ObjNew<CfgSvrConfigRequestS>(CfgSvrConfigRequestMagic, CfgSvrConfigRequestDescriptor));
        request.Get()->lReqType = lType;
        request.Get()->pstrClientName = StrDuplicate("client");
        request.Get()->pstrStanzaFile = StrDuplicate("test.cfg");
        request.Get()->pstrStanzaTitle = StrDuplicate(title);
        request.Get()->pstrStanzaKeyword = StrDuplicate(keyword);
        if (change) change(request.Get());
        Reply reply;
        const BooleanT bResult = CfgSvrProcessConfigRequest(reply.Address(), request.Get());
        EXPECT_EQ(reply.Get()->bSuccess, bResult);
        EXPECT_EQ(reply.Get()->lReqType, request.Get()->lReqType);
        return ReplyText(reply.Get());
    }
};

Change With(const char* text) {
    return [text](CfgSvrConfigRequestO o) { o->oValue = Word(text); };
}
Change Entry(const char* text, BooleanT bUnique, BooleanT bNoCase) {
    return [=](CfgSvrConfigRequestO o) {
        o->oValue = Word(text);
        o->bUnique = bUnique;
        o->bNoCase = bNoCase;
    };
}
Change Stanza(const char* title) {
    return [title](CfgSvrConfigRequestO o) {
        o->oStanza = StanzaObject(
            title, 1,
            ListOf({KeyObject("n", 2, ListOf({Word("1"), Word(nullptr)}))}, CfgStnzKeyMagic));
    };
}

TEST_F(CfgServer, EveryTypeOfRequest) {
    const Change none;
    const Change values = [](CfgSvrConfigRequestO o) {
        o->oValue = ListOf({Word("x,y"), Word(""), Word("z")});
    };
    const Change list = [](CfgSvrConfigRequestO o) {
        StnzT* pStanza = nullptr;
        StnzCreate(&pStanza, "C", "T", 0);
        o->oStanzaList = ListOf({ObjStanzaNew(pStanza)}, ObjStanzaMagic);
    };
    const Change category = [](CfgSvrConfigRequestO o) {
        o->pstrStanzaCatagory = StrDuplicate("L");
    };
    const struct {
        int32 lType;
        const char* title;
        const char* keyword;
        Change change;
        Text reply;
        Text file;
    } requests[] = {
        {1, "S", "K", none, "TRUE K=a,b,a", Plain + Shown},
        {1, "L", "list", none, "TRUE value=One,two", Plain + Shown},
        {1, "S", "missing", none, "FALSE", Plain + Shown},
        {2, "S", "k", With("new"), "TRUE", "[S]\nl=1\nk=new\n\n" + Shown},
        {2, "L", "list", With("new"), "TRUE", Plain + "[L:list]\nlabel=x\nvalue=new\n\n"},
        {2, "N", "k", values, "TRUE", Plain + Shown + "[N]\nk=x!,y,,z\n\n"},
        {2, "N", "k", With(nullptr), "TRUE", Plain + Shown + "[N]\nk=\n\n"},
        {3, "S", "k", none, "TRUE", "[S]\nl=1\n\n" + Shown},
        {3, "S", "missing", none, "FALSE", Plain + Shown},
        {4, "S", nullptr, none, "TRUE [:S] k=a,b,a l=1", Plain + Shown},
        {4, "L", nullptr, none, "FALSE", Plain + Shown},
        {5, nullptr, nullptr, none, "TRUE [:S] k=a,b,a l=1 [L:list] label=x value=One,two",
         Plain + Shown},
        {6, nullptr, nullptr, list, "TRUE", "[C:T]\n\n"},
        {7, nullptr, nullptr, Stanza("S"), "TRUE", Plain + Shown + "[S]\nn=1,\n\n"},
        {8, nullptr, nullptr, Stanza("S"), "TRUE", "[S]\nn=1,\n\n" + Shown},
        {9, "list", nullptr, category, "TRUE", Plain},
        {9, "S", nullptr, none, "TRUE", Shown},
        {10, "L", "list", Entry("one", TRUE, FALSE), "TRUE One two one",
         Plain + "[L:list]\nlabel=x\nvalue=One,two,one\n\n"},
        {10, "L", "list", Entry("one", TRUE, TRUE), "FALSE", Plain + Shown},
        {11, "L", "list", Entry("one", FALSE, TRUE), "TRUE two",
         Plain + "[L:list]\nlabel=x\nvalue=two\n\n"},
        {11, "L", "list", Entry("one", FALSE, FALSE), "FALSE", Plain + Shown},
        {12, "S", "k", With("c"), "TRUE", "[S]\nl=1\nk=a,b,a,c\n\n" + Shown},
        {13, "S", "k", With("a"), "TRUE", "[S]\nk=b\nl=1\n\n" + Shown},
        {13, "S", "k", With("c"), "FALSE", Plain + Shown},
    };
    for (const auto& r : requests) {
        SCOPED_TRACE(std::to_string(r.lType) + " " + r.reply);
        WriteFile(ClientDir + "/test.cfg", Plain + Shown);
        EXPECT_EQ(Process(r.lType, r.title, r.keyword, r.change), r.reply);
        // A rewritten file may end in one empty line less.
        const Text file = ReadFile(ClientDir + "/test.cfg");
        EXPECT_EQ(file + (file.ends_with("\n\n") ? "" : "\n"), r.file);
    }
    // A directory that the request names takes the place of the client's.
    std::filesystem::create_directories(TestHome() + "/config/own");
    for (const char* client : {"client", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(Process(2, "S", "k",
                          [client](CfgSvrConfigRequestO o) {
                              Put(&o->pstrClientName, client);
                              o->pstrAltPath = StrDuplicate("config/own");
                              o->oValue = Word("own");
                          }),
                  "TRUE");
        EXPECT_EQ(ReadFile(TestHome() + "/config/own/test.cfg"), "[S]\nk=own\n\n");
        std::filesystem::remove(TestHome() + "/config/own/test.cfg");
    }
}

TEST_F(CfgServer, RequestsThatAreNotCarriedOut) {
    using O = CfgSvrConfigRequestO;
    // Where each name would lead there is a directory, so that only the check keeps it away.
    for (const char* directory :
         {"/gui/config", "/gui/CachedPits/config", "/out/config", "/config"})
        std::filesystem::create_directories(TestHome() + directory);
    const struct {
        const char* what;
        int32 lType;
        Change change;
    } requests[] = {
        {"type 0", 0, nullptr},
        {"type 14", 14, nullptr},
        {"type -1", -1, nullptr},
        {"type huge", Huge, nullptr},
        {"no client", 2, [](O o) { Put(&o->pstrClientName, nullptr); }},
        {"empty client", 2, [](O o) { Put(&o->pstrClientName, ""); }},
        {"client .", 2, [](O o) { Put(&o->pstrClientName, "."); }},
        {"client ..", 2, [](O o) { Put(&o->pstrClientName, ".."); }},
        {"client path", 2, [](O o) { Put(&o->pstrClientName, "../../out"); }},
        {"client below", 2, [](O o) { Put(&o->pstrClientName, "client/../../../out"); }},
        {"no file", 2, [](O o) { Put(&o->pstrStanzaFile, nullptr); }},
        {"empty file", 2, [](O o) { Put(&o->pstrStanzaFile, ""); }},
        {"file ..", 2, [](O o) { Put(&o->pstrStanzaFile, "../../../../out/config/x.cfg"); }},
        {"file within", 2, [](O o) { Put(&o->pstrStanzaFile, "./../config/x.cfg"); }},
        {"path ..", 2, [](O o) { Put(&o->pstrAltPath, "config/../out/config"); }},
        {"path end", 2, [](O o) { Put(&o->pstrAltPath, "out/config/.."); }},
        {"path and client", 2,
         [](O o) {
             Put(&o->pstrAltPath, "config");
             Put(&o->pstrClientName, "..");
         }},
        {"no title", 2, [](O o) { Put(&o->pstrStanzaTitle, nullptr); }},
        {"no keyword", 2, [](O o) { Put(&o->pstrStanzaKeyword, nullptr); }},
        {"no value", 2, [](O o) { Put(&o->oValue, nullptr); }},
        {"number", 2, [](O o) { Put(&o->oValue, Number()); }},
        {"list of numbers", 2,
         [](O o) {
             Put(&o->oValue, ListOf({Word("x"), Number()}));
         }},
        {"entry list", 10, [](O o) { Put(&o->oValue, ListOf({Word("x")})); }},
        {"no stanza list", 6, nullptr},
        {"stanza list number", 6, [](O o) { Put(&o->oStanzaList, Number()); }},
        {"stanza list of numbers", 6, [](O o) { Put(&o->oStanzaList, ListOf({Number()})); }},
        {"stanza list of nothing", 6,
         [](O o) { Put(&o->oStanzaList, ListOf({ObjStanzaNew(nullptr)})); }},
        {"no stanza", 7, nullptr},
        {"stanza number", 8, [](O o) { Put(&o->oStanza, Number()); }},
        {"no title of stanza", 7, [](O o) { o->oStanza = StanzaObject(nullptr, 0, nullptr); }},
        {"too few keys", 7, [](O o) { o->oStanza = StanzaObject("T", 2, ListOf({})); }},
        {"keys without count", 7,
         [](O o) { o->oStanza = StanzaObject("T", 0, ListOf({KeyObject("k", 0, nullptr)})); }},
        {"negative keys", 8, [](O o) { o->oStanza = StanzaObject("T", -1, nullptr); }},
        {"keys number", 7, [](O o) { o->oStanza = StanzaObject("T", 0, Number()); }},
        {"key number", 8, [](O o) { o->oStanza = StanzaObject("T", 1, ListOf({Number()})); }},
        {"key without keyword", 8,
         [](O o) { o->oStanza = StanzaObject("T", 1, ListOf({KeyObject(nullptr, 0, nullptr)})); }},
        {"too few values", 7,
         [](O o) {
             o->oStanza = StanzaObject("T", 1, ListOf({KeyObject("k", Huge, ListOf({}))}));
         }},
    };
    const Text files = AllFiles();
    for (const auto& r : requests) {
        SCOPED_TRACE(r.what);
        const Change change = [&](O o) {
            o->oValue = Word("bad");
            if (r.change) r.change(o);
        };
        EXPECT_EQ(Process(r.lType, "S", "k", change), "FALSE");
        EXPECT_EQ(AllFiles(), files);
    }
    const ObjHolder<void> number(Number());
    for (void* oRequest : {static_cast<void*>(nullptr), number.Get()}) {
        Reply reply;
        EXPECT_EQ(CfgSvrProcessConfigRequest(reply.Address(), static_cast<O>(oRequest)), FALSE);
        EXPECT_EQ(ReplyText(reply.Get()), "FALSE");
    }
    EXPECT_EQ(CfgSvrProcessConfigRequest(nullptr, nullptr), FALSE);
}

TEST_F(CfgServer, StanzasAsObjectsAndBack) {
    for (const char* line : {"[:empty]", "[C:t] a=1,-,3 b= a=x"}) {
        StnzT* pStanza = nullptr;
        const bool empty = Text(line) == "[:empty]";
        StnzCreate(&pStanza, empty ? nullptr : "C", empty ? "empty" : "t", 5);
        for (const auto& [keyword, values] :
             std::initializer_list<std::pair<const char*, std::vector<const char*>>>{
                 {"a", {"1", nullptr, "3"}}, {"b", {}}, {"a", {"x"}}}) {
            StnzKeyT* pKey = nullptr;
            StnzCreateKey(&pKey, keyword, 4);
            for (const char* value : values) StnzAddValueToKey(&pKey, value);
            if (!empty) StnzAddKeyToStanza(&pStanza, &pKey);
            StnzReleaseKey(&pKey);
        }
        ObjHolder<CfgStnzS> oStanza;
        StnzT* pBack = nullptr;
        EXPECT_EQ(CfgSvrStanzaObjectFromStanzaType(oStanza.Address(), pStanza), TRUE);
        EXPECT_EQ(oStanza.Get()->lMaxKeyCount, 5);
        ASSERT_EQ(CfgSvrStanzaTypeFromStanzaObject(&pBack, oStanza.Get()), TRUE);
        EXPECT_EQ(StanzaText(pBack), line);
        EXPECT_EQ(StanzaText(pStanza), line);
        StnzRelease(&pBack);
        StnzRelease(&pStanza);
    }
    // Counts: values, maximum; the values that the key has, "" for no key, and its room.
    const struct {
        int32 lCount;
        int32 lMaximum;
        Text key;
        int32 lRoom;
    } counts[] = {
        {2, 10, "k=a,b", 10},  {2, 1, "k=a,b", 2}, {1, 0, "k=a", 1}, {0, 0, "k=", 1},
        {2, Huge, "k=a,b", 2}, {3, 3, "", 0},      {-1, 5, "", 0},   {2, -1, "", 0},
    };
    for (const auto& c : counts) {
        const ObjHolder<CfgStnzKeyS> oKey(
            KeyObject("k", c.lCount, ListOf({Word("a"), Word("b")}), c.lMaximum));
        StnzKeyT* pKey = nullptr;
        EXPECT_EQ(CfgSvrStnzKeyTypeFromStnzKeyObject(&pKey, oKey.Get()), BooleanFrom(c.lRoom > 0));
        EXPECT_EQ(pKey == nullptr ? "" : KeyText(pKey), c.key);
        EXPECT_EQ(pKey == nullptr ? 0 : pKey->lMaxValueCount, c.lRoom);
        StnzReleaseKey(&pKey);
    }
    // A text that stands in a list many times takes no more room than a message could.
    ListO oMany = ListNew();
    const ObjHolder<ObjStringS> oLong(ObjStringNew(Text(1 << 20, 'x').c_str()));
    for (int n = 0; n < 100; n++) ListAddLastItem(oMany, oLong.Get());
    const ObjHolder<CfgStnzKeyS> oKey(KeyObject("k", 100, oMany));
    StnzKeyT* pKey = nullptr;
    EXPECT_EQ(CfgSvrStnzKeyTypeFromStnzKeyObject(&pKey, oKey.Get()), FALSE);
}

}  // namespace
