// Clients whose configuration a server keeps: what they do with it, and what servers the tests have
// besides the real one.
#pragma once

#include "core/cfg.h"
#include "core/cfgserver.h"
#include "core/cfgutil.h"
#include "core/context.h"
#include "core/list.h"
#include "core/objwrappers.h"
#include "core/stnzfile.h"
#include "core/stnzlist.h"
#include "core/strbase.h"
#include "core/task.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/peer.h"
#include "support/roles.h"

namespace clientconfig {

using Text = std::string;
using Arguments = std::vector<Text>;

constexpr char File[] = "test.cfg", ListFile[] = "list.cfg";
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
    for (const Text file : {File, ListFile}) WriteFile(home + "/config/map/" + file + ".map", "");
}

// From now on the process works for the client, whose configuration the server keeps.
inline void WorkForClient(const Text& server) {
    const ObjHolder<CfgUtilRemoteConfigDetailsS> details(
        ObjNew<CfgUtilRemoteConfigDetailsS>(CfgUtilRemoteConfigDetailsMagic, "s;s;o;"));
    details.Get()->pstrServer = StrDuplicate(server.c_str());
    details.Get()->pstrClient = StrDuplicate("client");
    ObjHolder<TaskContextS> task;
    TaskCreateContext(task.Address());
    TaskSetContextObject(task.Get(), details.Get());
    TaskSetTaskContext(task.Get());
}

inline Text Strings(ListO oList) {
    Text all;
    for (auto* oNode = oList == nullptr ? nullptr : oList->oFirst; oNode; oNode = oNode->oNext)
        all += Text(ObjGetString(static_cast<ObjStringO>(oNode->oData))) + ";";
    if (oList != nullptr) ObjRelease(&oList);
    return all;
}

inline Text String(const char* keyword) {
    char* value = nullptr;
    const BooleanT bResult = CfgGetString(&value, File, "S", keyword, "default");
    return Text(BooleanText(bResult)) + " " + Owned(value);
}

// Every operation, on files of this machine or, where a server is named, on the client's: what each
// gives.
inline Text Operations(const Text& server) {
    Text all;
    const auto tell = [&](BooleanT bResult, const auto&... values) {
        all += Text(BooleanText(bResult)) + ((" " + std::to_string(values)) + ... + "") + "\n";
    };
    int32 lValue = 0;
    int64 llValue = 0;
    BooleanT bValue = 9;
    ListO oList = nullptr;
    StnzKeyT* pKey = nullptr;
    StnzT* pStanza = nullptr;
    ObjHolder<ListS> oStanzas;
    tell(CfgSetString(File, "S", "text", " a,b!"));
    tell(CfgSetInteger(File, "S", "number", -42));
    tell(CfgSetInt64(File, "S", "big", 1LL << 40));
    tell(CfgSetBoolean(File, "S", "yes", TRUE));
    all += String("text") + "\n" + String("none") + "\n";
    tell(CfgGetInteger(&lValue, File, "S", "number", 7), lValue);
    tell(CfgGetInteger(&lValue, File, "S", "none", 7), lValue);
    tell(CfgGetInt64(&llValue, File, "S", "big", 7), llValue);
    tell(CfgGetBoolean(&bValue, File, "S", "yes", 5), bValue);
    tell(CfgGetBoolean(&bValue, File, "S", "none", 5), bValue);
    tell(CfgGetBoolean(&bValue, File, "S", "text", 6), bValue);
    tell(CfgAddEntryToValueList(&oList, File, "L", "list", "One", TRUE, FALSE));
    all += Strings(std::exchange(oList, nullptr));
    tell(CfgAddEntryToValueList(&oList, File, "L", "list", "one", TRUE, FALSE));
    all += Strings(oList);
    tell(CfgAddEntryToValueList(&oList, File, "L", "list", "ONE", TRUE, TRUE));
    tell(CfgRemoveEntryFromValueList(&oList, File, "L", "list", "one", FALSE));
    tell(CfgSetValueList(File, "L", "copy", oList));
    all += Strings(oList);
    tell(CfgGetValueList(&oList, File, "L", "list"));
    all += Strings(oList);
    tell(CfgAddValueToKey(File, "S", "text", "more"));
    tell(CfgRemoveValueFromKey(File, "S", "text", "none"));
    tell(CfgRemoveValueFromKey(File, "S", "text", " a,b!"));
    tell(CfgGetKey(File, "S", "text", &pKey), StnzKeyValueCount(pKey));
    tell(CfgGetStanza(&pStanza, File, "S"), pStanza == nullptr ? 0 : pStanza->lKeyCount);
    tell(CfgAddStanza(pStanza, File));
    tell(CfgReplaceStanza(pStanza, File));
    tell(CfgGetStanzaList(oStanzas.Address(), File));
    tell(CfgRemoveStanza("L", "list", File));
    tell(CfgRemoveStanza("L", "list", File));
    tell(CfgReplaceStanzaList(ListFile, oStanzas.Get()));
    tell(server.empty() ? CfgRemoveKey(File, "S", "big")
                        : CfgSvrRemoveKey("client", server.c_str(), File, "S", "big", nullptr));
    StnzReleaseKey(&pKey);
    StnzRelease(&pStanza);
    return all;
}

// --- roles ---

// The server: what every operation gives, and what is left over.
inline int Operate(const Arguments& arguments) {
    const Text& server = arguments.at(0);
    if (!Connect(100)) return 10;
    const Leftovers before;
    if (!server.empty()) WorkForClient(server);
    std::fputs(Operations(server).c_str(), stdout);
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
    ObjHolder<ListS> oStanzas;
    ASSERT_EQ(
        StnzLoadStanzaListFromFile(oStanzas.Address(), (ClientDirectory(home) + File).c_str()),
        TRUE);
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
