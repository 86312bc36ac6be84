// Clients whose configuration a server keeps: what they do with it, and what servers the tests have
// besides the real one.
#pragma once

#include "core/cfg.h"
#include "core/cfgserver.h"
#include "core/cfgutil.h"
#include "core/context.h"
#include "core/stnzlist.h"
#include "core/strbase.h"
#include "core/task.h"
#include "support/leftovers.h"
#include "support/peer.h"
#include "support/roles.h"
#include "support/stanzas.h"

namespace clientconfig {

using Text = std::string;
using Arguments = std::vector<Text>;

// Of items, and of the operations that need a file of their own.
constexpr char File[] = "test.cfg", PlayFile[] = "play.cfg";
constexpr MsgTypeT AskAgainType = 5000;
constexpr int Entries = 20;  // that each writer adds

// Where a server keeps the client's files.
inline Text ClientDirectory(const Text& home) { return home + "/gui/CachedPits/client/config/"; }

inline void MakeClientDirectory(const Text& home) {
    std::filesystem::create_directories(ClientDirectory(home));
}

// A server may keep the files of the machine with this home directory.
inline void MakeMapFiles(const Text& home) {
    std::filesystem::create_directories(home + "/config/map");
    for (const Text file : {File, PlayFile}) WriteFile(home + "/config/map/" + file + ".map", "");
}

// From now on the process works for the client, whose configuration the server keeps.
inline void WorkForClient(const Text& server, const char* client = "client") {
    const ObjHolder<CfgUtilRemoteConfigDetailsS> details(
        ObjNew<CfgUtilRemoteConfigDetailsS>(CfgUtilRemoteConfigDetailsMagic, "s;s;o;"));
    details.Get()->pstrServer = StrDuplicate(server.c_str());
    details.Get()->pstrClient = StrDuplicate(client);
    ObjHolder<TaskContextS> task;
    TaskCreateContext(task.Address());
    TaskSetContextObject(task.Get(), details.Get());
    TaskSetTaskContext(task.Get());
}

// The strings of a list that the caller holds, each followed by "|".
inline Text Taken(ListO oList) {
    Text all;
    for (const Text& text : TextsOf(oList)) all += text + "|";
    if (oList != nullptr) ObjRelease(&oList);
    return all;
}

inline Text String(const char* keyword) {
    char* value = nullptr;
    const BooleanT bResult = CfgGetString(&value, File, "S", keyword, "default");
    return Text(BooleanText(bResult)) + " " + Owned(value);
}

// What an operation gave and should give, and what the file should hold then: "" as before.
using Told = std::function<void(const Text& result, const Text& expected, const Text& file)>;

// Every operation on a configuration file, on this machine's or, where a server is named, on that
// of the client that the process works for.
inline void Operations(const Text& server, const Told& told) {
    const auto gives = [&](BooleanT bResult, const Text& expected, const Text& file = "") {
        told(BooleanText(bResult), expected, file);
    };
    const auto sets = [&](BooleanT bResult, const Text& file) { gives(bResult, "TRUE", file); };
    const auto load = [&](const Text& content) {
        const ObjHolder<ListS> oStanzas(LoadStanzas(content));
        sets(CfgReplaceStanzaList(PlayFile, oStanzas.Get()), content);
    };
    const auto removeKey = [&](const char* title, const char* key) {
        return server.empty()
                   ? CfgRemoveKey(PlayFile, title, key)
                   : CfgSvrRemoveKey("client", server.c_str(), PlayFile, title, key, nullptr);
    };
    ListO oList = nullptr;
    const auto list = [&](BooleanT bResult, const Text& expected, const Text& file = "") {
        told(BooleanText(bResult) + Taken(std::exchange(oList, nullptr)), expected, file);
    };
    // Both layouts are kept; a stanza takes the spelling of its name from who writes it.
    const Text shown = "[A:Shown]\nlabel=L\nvalue=", layout = "[A]\ny=2\nX=-5\n\n";
    const Text written = layout + "[a:SHOWN]\nlabel=L\nvalue=! !!!,!n\n\n";
    load("[A]\nx=1\ny=2\n\n" + shown + "old\n\n");
    sets(CfgSetInteger(PlayFile, "A", "X", -5), layout + shown + "old\n");
    sets(CfgSetString(PlayFile, "a", "SHOWN", " !,\n"), written);
    sets(CfgSetInt64(PlayFile, "New", "n", 1LL << 40), written + "[New]\nn=1099511627776\n\n");
    char* value = nullptr;
    int64 llWide = 0;
    int32 lValue = 5;
    BooleanT bValue = 6;
    gives(CfgGetString(&value, PlayFile, "A", "Shown", nullptr), "TRUE");
    gives(CfgGetInt64(&llWide, PlayFile, "New", "n", 1), "TRUE");
    gives(CfgGetInteger(&lValue, PlayFile, "A", "none", 7), "FALSE");
    gives(CfgGetBoolean(&bValue, PlayFile, "A", "y", TRUE), "FALSE");
    told(Owned(value) + std::to_string(llWide + lValue * 10 + bValue), " !,\n1099511627852", "");
    // Keys with several values.
    load("[S]\nk=a,A,a\nl=1\nk=second\n\n");
    sets(CfgAddValueToKey(PlayFile, "S", "K", "new"), "[S]\nl=1\nk=second\nk=a,A,a,new\n\n");
    gives(CfgAddValueToKey(PlayFile, "other", "k", "v"), "FALSE");
    sets(removeKey("S", "k"), "[S]\nl=1\nk=a,A,a,new\n\n");
    gives(removeKey("S", "missing"), "FALSE");
    gives(removeKey("other", "k"), "FALSE");
    sets(CfgRemoveValueFromKey(PlayFile, "S", "k", "a"), "[S]\nl=1\nk=A,new\n\n");
    gives(CfgRemoveValueFromKey(PlayFile, "S", "k", "a"), "FALSE");
    sets(CfgAddValueToKey(PlayFile, "S", "fresh", "v"), "[S]\nl=1\nk=A,new\nfresh=v\n\n");
    // Lists of the displayable layout.
    const Text head = "[L:list]\nlabel=x\nvalue=";
    const auto add = [&](const char* text, BooleanT bNoCase, BooleanT bUnique) {
        return CfgAddEntryToValueList(&oList, PlayFile, "L", "list", text, bUnique, bNoCase);
    };
    const auto remove = [&](const char* text, BooleanT bNoCase) {
        return CfgRemoveEntryFromValueList(&oList, PlayFile, "L", "list", text, bNoCase);
    };
    load(head + "One,two\n\n");
    list(add("one", FALSE, TRUE), "TRUEOne|two|one|", head + "One,two,one\n\n");
    list(add("TWO", TRUE, TRUE), "FALSE");
    sets(CfgAddEntryToValueList(nullptr, PlayFile, "L", "list", "one", FALSE, FALSE),
         head + "One,two,one,one\n\n");
    list(remove("ONE", FALSE), "FALSE");
    list(remove("ONE", TRUE), "TRUEtwo|one|one|", head + "two,one,one\n\n");
    list(remove("one", FALSE), "TRUEtwo|one|", head + "two,one\n\n");
    list(CfgGetValueList(&oList, PlayFile, "L", "list"), "TRUEtwo|one|");
    sets(CfgAddEntryToValueList(nullptr, PlayFile, "M", "m", "1st", TRUE, FALSE),
         head + "two,one\n\n[M:m]\nvalue=1st\n\n");
    sets(CfgRemoveStanza("L", "list", PlayFile), "[M:m]\nvalue=1st\n");
    const ObjHolder<ListS> oTexts(ListOf({"a,b", "", "c"}));
    sets(CfgSetValueList(PlayFile, "T", "k", oTexts.Get()),
         "[M:m]\nvalue=1st\n\n[T]\nk=a!,b,,c\n\n");
    // Whole stanzas; of several with one name the first is read, and all are replaced.
    const Text both = "[A]\na=1\n\n[C:B]\nb=2\n\n";
    StnzT* pStanza = nullptr;
    StnzKeyT* pKey = nullptr;
    ObjHolder<ListS> oStanzas;
    load(both + "[A]\na=3\n\n");
    gives(CfgGetStanza(&pStanza, PlayFile, "A"), "TRUE");
    sets(CfgReplaceStanza(pStanza, PlayFile), both);
    sets(CfgAddStanza(pStanza, PlayFile), both + "[A]\na=1\n\n");
    gives(CfgGetStanzaList(oStanzas.Address(), PlayFile), "TRUE");
    told(StanzasText(oStanzas.Get()), "A{a=1}C:B{b=2}A{a=1}", "");
    gives(CfgGetKey(PlayFile, "A", "A", &pKey), "TRUE");
    told(KeyText(pKey), "A=1", "");  // as the caller spells it
    sets(CfgSetBoolean(PlayFile, "A", "yes", TRUE), "[A]\na=1\nyes=true\n\n[C:B]\nb=2\n\n");
    StnzReleaseKey(&pKey);
    StnzRelease(&pStanza);
}

// --- roles ---

// The server: what every operation gives, and what is left over. Sets an item of the file that
// others write, too.
inline int Operate(const Arguments& arguments) {
    const Text& server = arguments.at(0);
    if (!Connect(100)) return 10;
    const Leftovers before;
    if (!server.empty()) WorkForClient(server);
    Operations(server, [](const Text& result, const Text&, const Text&) { Say(result); });
    Say(BooleanText(CfgSetString(File, "S", "text", "more")));
    TaskSetTaskContext(nullptr);
    Say("left: " + before.Text());
    ContextReleaseThread();
    return 0;
}
const Role operateRole("operate", Operate);

// The server and this writer's number: adds to what other writers write, too.
inline int WriteEntries(const Arguments& arguments) {
    const Text& id = arguments.at(1);
    if (!Connect(std::stoi(id))) return 10;
    WorkForClient(arguments.at(0));
    for (int n = 1; n <= Entries; n++) {
        const Text entry = id + "-" + std::to_string(n);
        if (CfgAddEntryToValueList(nullptr, File, "L", "all", entry.c_str(), TRUE, FALSE) != TRUE ||
            CfgSetInteger(File, "Counters", id.c_str(), n) != TRUE)
            return 11;
    }
    ContextReleaseThread();
    return 0;
}
const Role writerRole("writer", WriteEntries);

// A server that answers a request only when it has the next one, and asks its sender to make that.
inline int AnswerLate(const Arguments&) {
    ObjHolder<MsgMessageS> first;
    if (!Connect(MsgConfigurationServerId)) return 10;
    const auto answer = [](MsgMessageO oMessage) {
        ObjHolder<CfgSvrConfigReplyS> oReply;
        CfgSvrProcessConfigRequest(oReply.Address(),
                                   static_cast<CfgSvrConfigRequestO>(oMessage->oObject));
        MsgSendReply(oMessage, CFG_SVR_CONFIG_REPLY_MSG, oReply.Get());
    };
    for (Say("ready");;) {
        ObjHolder<MsgMessageS> message;
        if (MsgReceive(message.Address(), nullptr) != TRUE) continue;
        if (MsgType(message.Get()) != CFG_SVR_CONFIG_REQUEST_MSG) return 0;
        if (first.Get() == nullptr) {
            *first.Address() = message.Take();
            MsgSendReply(first.Get(), AskAgainType, nullptr);
            Say("asked");
        } else {
            answer(first.Get());
            answer(message.Get());
            ObjRelease(first.Address());
        }
    }
}
const Role lateRole("late", AnswerLate);

// No writer's entries are lost.
inline void ExpectEntries(const Text& home, const std::vector<Text>& writers) {
    const ObjHolder<ListS> oStanzas(LoadStanzas(ReadFile(ClientDirectory(home) + File)));
    StnzKeyT* pKey = nullptr;
    EXPECT_EQ(StnzListGetKey(&pKey, oStanzas.Get(), "L", "all", "value"), TRUE);
    EXPECT_EQ(StnzKeyValueCount(pKey), static_cast<int32>(writers.size()) * Entries);
    for (const Text& id : writers) {
        int32 lCount = 0;
        CfgGetIntegerFromList(oStanzas.Get(), "Counters", id.c_str(), &lCount, 0);
        EXPECT_EQ(lCount, Entries);
    }
}

}  // namespace clientconfig
