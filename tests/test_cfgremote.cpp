// Configuration through a configuration server, all of them processes of their own: every operation
// gives what it gives on a file of this machine, writers do not lose each other's changes, and
// servers that answer late, wrongly or not at all are told apart. Also what the network manager is
// asked about machines.
#include <gtest/gtest.h>

#include <csignal>

#include "core/cfg.h"
#include "core/cfgserver.h"
#include "core/cfgutil.h"
#include "core/context.h"
#include "core/machineinfo.h"
#include "core/msgwait.h"
#include "core/stnzfile.h"
#include "core/stnzlist.h"
#include "core/task.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/lists.h"
#include "support/machine.h"
#include "support/messages.h"
#include "support/peer.h"

namespace {

using Text = std::string;
using Arguments = std::vector<Text>;

constexpr char File[] = "test.cfg";
constexpr char ClientFile[] = "/gui/CachedPits/client/config/test.cfg";
constexpr MsgTypeT AskAgainType = 5000;
constexpr int Entries = 20;  // that each writer adds

// From now on the process works for the client, whose configuration this machine keeps.
void WorkFor(const char* client) {
    const New<CfgUtilRemoteConfigDetailsS> details(
        CfgUtilRemoteConfigDetailsMagic, "s;s;o;",
        {StrDuplicate(SysLocalMachineName()), StrDuplicate(client), nullptr});
    ObjHolder<TaskContextS> task;
    TaskCreateContext(task.Address());
    TaskSetContextObject(task.Get(), details.Get());
    TaskSetTaskContext(task.Get());
}

Text String(const char* keyword) {
    char* value = nullptr;
    const BooleanT bResult = CfgGetString(&value, File, "S", keyword, "default");
    return Text(BooleanText(bResult)) + " " + Owned(value);
}

// --- roles ---

// Every operation on one file: what each gives.
Text Operations(bool remote) {
    Text all;
    ListO oList = nullptr;
    const auto tell = [&](BooleanT bResult, int64 llValue = 0) {
        all += Text(BooleanText(bResult)) + " " + std::to_string(llValue) + "\n";
        for (const Text& text : TextsOf(oList)) all += text + "\n";
        if (oList != nullptr) ObjRelease(&oList);
    };
    int32 lValue = 0;
    int64 llValue = 0;
    BooleanT bValue = 9;
    StnzKeyT* pKey = nullptr;
    StnzT* pStanza = nullptr;
    const ObjHolder<ListS> oValues(ListOf({"x", "y,z"}));
    ObjHolder<ListS> oStanzas;
    tell(CfgSetString(File, "S", "text", " a,b!"));
    tell(CfgSetInteger(File, "S", "number", -42));
    tell(CfgSetInt64(File, "S", "big", 1LL << 40));
    tell(CfgSetBoolean(File, "S", "yes", TRUE));
    tell(CfgSetValueList(File, "S", "values", oValues.Get()));
    all += String("text") + String("none");
    tell(CfgGetInteger(&lValue, File, "S", "number", 7), lValue);
    tell(CfgGetInt64(&llValue, File, "S", "big", 7), llValue);
    tell(CfgGetBoolean(&bValue, File, "S", "yes", 5), bValue);
    tell(CfgGetBoolean(&bValue, File, "S", "none", 5), bValue);
    tell(CfgGetBoolean(&bValue, File, "S", "text", 6), bValue);
    tell(CfgGetValueList(&oList, File, "S", "values"));
    tell(CfgAddEntryToValueList(&oList, File, "L", "list", "One", TRUE, FALSE));
    tell(CfgAddEntryToValueList(&oList, File, "L", "list", "one", TRUE, FALSE));
    tell(CfgAddEntryToValueList(&oList, File, "L", "list", "ONE", TRUE, TRUE));
    tell(CfgRemoveEntryFromValueList(&oList, File, "L", "list", "one", FALSE));
    tell(CfgAddValueToKey(File, "S", "text", "more"));
    tell(CfgRemoveValueFromKey(File, "S", "text", " a,b!"));
    tell(CfgGetKey(File, "S", "text", &pKey), StnzKeyValueCount(pKey));
    tell(CfgGetStanza(&pStanza, File, "S"), pStanza == nullptr ? 0 : pStanza->lKeyCount);
    tell(CfgAddStanza(pStanza, File));
    tell(CfgReplaceStanza(pStanza, File));
    tell(CfgGetStanzaList(oStanzas.Address(), File));
    tell(CfgRemoveStanza("L", "list", File));
    tell(CfgRemoveStanza("L", "list", File));
    tell(CfgReplaceStanzaList(File, oStanzas.Get()));
    tell(remote ? CfgSvrRemoveKey("client", SysLocalMachineName(), File, "S", "big", nullptr)
                : CfgRemoveKey(File, "S", "big"));
    StnzReleaseKey(&pKey);
    StnzRelease(&pStanza);
    return all;
}

// A process that works for the client, if it is to.
template <class Function>
int AsClient(ProcIdT id, Function function, bool remote = true) {
    if (!Connect(id)) return 10;
    if (remote) WorkFor("client");
    function();
    ContextReleaseThread();
    return 0;
}

// A configuration server that gives every request to the function.
template <class Function>
int AsServer(Function function) {
    if (!Connect(MsgConfigurationServerId)) return 10;
    for (Say("ready");;) {
        Message message;
        if (MsgReceive(message.Address(), nullptr) != TRUE) continue;
        if (MsgType(message.Get()) != CFG_SVR_CONFIG_REQUEST_MSG) return 0;
        function(&message);
    }
}

const Role operations("operations", [](const Arguments& arguments) {
    const bool remote = arguments.at(0) == "remote";
    const auto tell = [remote] {
        const Leftovers before;
        std::fputs(Operations(remote).c_str(), stdout);
        Say("left: " + before.Text());
    };
    return AsClient(100, tell, remote);
});

const Role writer("writer", [](const Arguments& arguments) {
    const Text& id = arguments.at(0);
    return AsClient(std::stoi(id), [&id] {
        for (int n = 1; n <= Entries; n++) {
            const Text entry = id + "-" + std::to_string(n);
            CfgAddEntryToValueList(nullptr, File, "L", "all", entry.c_str(), TRUE, FALSE);
            CfgSetInteger(File, "Counters", id.c_str(), n);
        }
    });
});

// Answers a request only when it has the next one, and asks its sender to make that.
const Role late("late", [](const Arguments&) {
    Message first;
    const auto answer = [](MsgMessageO oMessage) {
        ObjHolder<CfgSvrConfigReplyS> oReply;
        CfgSvrProcessConfigRequest(oReply.Address(),
                                   static_cast<CfgSvrConfigRequestO>(oMessage->oObject));
        MsgSendReply(oMessage, CFG_SVR_CONFIG_REPLY_MSG, oReply.Get());
    };
    return AsServer([&](Message* ptMessage) {
        if (first.Get() == nullptr) {
            *first.Address() = ptMessage->Take();
            MsgSendReply(first.Get(), AskAgainType, nullptr);
            Say("asked");
            return;
        }
        answer(first.Get());
        answer(ptMessage->Get());
        ObjRelease(first.Address());
    });
});

// Answers with everything but what it was asked for.
const Role liar("liar", [](const Arguments&) {
    return AsServer([n = 0](Message* ptMessage) mutable {
        ObjHolder<ObjIntegerS> number(ObjIntegerNew(7));
        const New<CfgSvrConfigReplyS> reply(CfgSvrConfigReplyMagic, CfgSvrConfigReplyDescriptor,
                                            {0, TRUE, nullptr, nullptr, nullptr, nullptr});
        void* body = n == 1 ? static_cast<void*>(number.Get()) : n == 0 ? nullptr : reply.Get();
        MsgMessageO oRequest = ptMessage->Get();
        if (n >= 5) ListPushLastItem(reply->oValueList = ListNew(), number.Address());
        if (n == 3) reply->oStnzKey = reinterpret_cast<CfgStnzKeyO>(number.Take());
        if (n == 4) reply->oStanza = reinterpret_cast<CfgStnzO>(number.Take());
        MsgSendReply(oRequest, CFG_SVR_CONFIG_REPLY_MSG, body);
        n++;
    });
});

const Role deceived("deceived", [](const Arguments&) {
    return AsClient(100, [] {
        StnzT* pStanza = nullptr;
        ListO oList = nullptr;
        for (int n = 0; n < 4; n++) Say(String("k"));
        Say(BooleanText(CfgGetStanza(&pStanza, File, "S")));
        Say(BooleanText(CfgGetStanzaList(&oList, File)));
        Say(BooleanText(CfgAddEntryToValueList(&oList, File, "L", "l", "e", FALSE, FALSE)));
    });
});

Text g_inner;  // the item asked for second

MsgWaitResultE AskAgain(MsgMessageO, void*) {
    g_inner = String("inner");
    return eMsgWaitResultHandled;
}

// Asks for one item and for another, inside the first wait or after it: the first, the seconds that
// it took, the second.
const Role asker("asker", [](const Arguments& arguments) {
    return AsClient(100, [&arguments] {
        if (arguments.at(0) == "inside") MsgWaitAddHandler(AskAgainType, AskAgain, nullptr);
        const auto start = Clock::now();
        Say(String("outer"));
        Say(std::to_string(SecondsSince(start)));
        if (arguments.at(0) == "again") AskAgain(nullptr, nullptr);
        Say(g_inner);
    });
});

const Role finder("finder", [](const Arguments&) {
    return AsClient(100, [] {
        for (const char* machine : {SysLocalMachineName(), "other", "unknown"})
            Say(BooleanText(MachInfoFind(machine)));
    });
});

// A machine that keeps the configuration of a client, which is also the machine's own.
struct Keeper : Machine {
    Keeper() {
        std::filesystem::create_directories(Home() + "/gui/CachedPits/client/config");
        std::filesystem::create_directories(Home() + "/config/map");
        WriteFile(Home() + "/config/map/test.cfg.map", "");
        EXPECT_TRUE(Start());
    }
    // A server, this program in a role or the real one.
    Process& Serve(const Text& role = "") {
        m_server =
            role.empty() ? Process({TEST_MANAGERS "/configserver"}, Home()) : InRole(role, {});
        EXPECT_TRUE(m_server.Line().starts_with("ready"));
        return m_server;
    }

 private:
    Process m_server;
};

Text OutputOf(Process process) {
    EXPECT_EQ(process.Wait(), 0);
    return process.Rest();
}

// --- tests ---

TEST(CfgRemote, GivesWhatFilesOfThisMachineGive) {
    Keeper keeper;
    keeper.Serve();
    const Text local = OutputOf(keeper.InRole("operations", {"local"}));
    const Text file = ReadFile(keeper.Home() + "/config/test.cfg");
    EXPECT_EQ(file, "[S]\nnumber=-42\nyes=true\nvalues=x,y!,z\ntext=more\n\n[L:list]\nvalue=One\n");
    std::filesystem::remove(keeper.Home() + "/config/test.cfg");
    const Text remote = OutputOf(keeper.InRole("operations", {"remote"}));
    EXPECT_EQ(remote, local);
    EXPECT_TRUE(remote.ends_with("TRUE 0\nleft: \n")) << remote;
    // A boolean travels as the text of another case.
    EXPECT_EQ(ReadFile(keeper.Home() + ClientFile),
              Text(file).replace(file.find("true"), 4, "TRUE"));
    EXPECT_FALSE(Exists(keeper.Home() + "/config/test.cfg"));
}

TEST(CfgRemote, NoChangeOfTwoClientsIsLost) {
    Keeper keeper;
    keeper.Serve();
    Process one = keeper.InRole("writer", {"101"}), other = keeper.InRole("writer", {"102"});
    EXPECT_EQ(one.Wait(), 0);
    EXPECT_EQ(other.Wait(), 0);
    ObjHolder<ListS> oStanzas;
    ASSERT_EQ(StnzLoadStanzaListFromFile(oStanzas.Address(), (keeper.Home() + ClientFile).c_str()),
              TRUE);
    StnzKeyT* pKey = nullptr;
    EXPECT_EQ(StnzListGetKey(&pKey, oStanzas.Get(), "L", "all", "value"), TRUE);
    EXPECT_EQ(StnzKeyValueCount(pKey), 2 * Entries);
    for (const char* id : {"101", "102"}) {
        int32 lCount = 0;
        CfgGetIntegerFromList(oStanzas.Get(), "Counters", id, &lCount, 0);
        EXPECT_EQ(lCount, Entries);
    }
}

// A call inside the wait of another has its own reply, though that of the other comes first.
TEST(CfgRemote, EachCallHasItsReply) {
    Keeper keeper;
    WriteFile(keeper.Home() + ClientFile, "[S]\nouter=1\ninner=2\n");
    keeper.Serve("late");
    EXPECT_EQ(OutputOf(keeper.InRole("asker", {"inside"})), "TRUE 1\n0\nTRUE 2\n");
}

TEST(CfgRemote, WrongReplies) {
    Keeper keeper;
    keeper.Serve("liar");
    Text refused;
    for (int n = 0; n < 4; n++) refused += "FALSE default\n";
    EXPECT_EQ(OutputOf(keeper.InRole("deceived", {})), refused + "FALSE\nFALSE\nFALSE\n");
}

// Nobody serves; the server is killed with the request; it answers only the next call, which must
// not take the reply to the first. All at the same time, as each takes the full time.
TEST(CfgRemote, NoReplyInTime) {
    Keeper nobody, killed, silent;
    WriteFile(silent.Home() + ClientFile, "[S]\nouter=1\ninner=2\n");
    Process& victim = killed.Serve("late");
    silent.Serve("late");
    Process askers[] = {nobody.InRole("asker", {"once"}), killed.InRole("asker", {"once"}),
                        silent.InRole("asker", {"again"})};
    EXPECT_EQ(victim.Line(), "asked");
    victim.Signal(SIGKILL);
    for (Process& process : askers) {
        EXPECT_EQ(process.Line(), "FALSE default");
        const int seconds = std::stoi("0" + process.Line());
        EXPECT_TRUE(seconds >= 29 && seconds <= 35) << seconds;
        EXPECT_EQ(process.Line(), &process == &askers[2] ? "TRUE 2" : "");
        EXPECT_EQ(process.Wait(), 0);
    }
}

TEST(MachineInfo, NetworkManagerIsAsked) {
    Machine machine;
    machine.KnowMachines("[other]\nId=5\n");
    machine.Configure("tlnmgr.cfg", "[Network]\nManager Port=0\n");
    ASSERT_TRUE(machine.Start());
    EXPECT_EQ(OutputOf(machine.InRole("finder", {})), "TRUE\nFALSE\nFALSE\n");
    ASSERT_TRUE(machine.StartNetwork());
    EXPECT_EQ(OutputOf(machine.InRole("finder", {})), "TRUE\nTRUE\nTRUE\n");
}

}  // namespace
