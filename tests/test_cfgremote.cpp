// Configuration through a configuration server, all of them processes of their own: every operation
// gives what it gives on a file of this machine, writers do not lose each other's changes, and
// servers that answer late, wrongly or not at all are told apart. Also what the network manager is
// asked about machines.
#include "core/context.h"
#include "core/machineinfo.h"
#include "core/msgchannel.h"
#include "core/process.h"
#include "core/sys.h"
#include "support/clientconfig.h"
#include "support/machine.h"

namespace {

using namespace clientconfig;

Text g_inner;  // what the handler has got

// Asks for one item and then, inside the wait when the server wants it so, for another.
const Role asker("asker", [](const Arguments& arguments) {
    if (!Connect(100)) return 10;
    WorkForClient(SysLocalMachineName());
    const auto ask = [](MsgMessageO, void*) {
        g_inner = String("inner");
        return eMsgWaitResultHandled;
    };
    if (arguments.at(0) == "inside") MsgWaitAddHandler(AskAgainType, ask, nullptr);
    const auto start = Clock::now();
    Say(String("outer"));
    Say(std::to_string(SecondsSince(start)));
    if (arguments.at(0) == "again") g_inner = String("inner");
    Say(g_inner);
    ContextReleaseThread();
    return 0;
});

// A server that answers with everything but what it was asked for.
const Role liar("liar", [](const Arguments&) {
    if (!Connect(MsgConfigurationServerId)) return 10;
    Say("ready");
    for (int n = 0;; n++) {
        ObjHolder<MsgMessageS> message;
        if (MsgReceive(message.Address(), nullptr) != TRUE) continue;
        if (MsgType(message.Get()) != CFG_SVR_CONFIG_REQUEST_MSG) return 0;
        const ObjHolder<CfgSvrConfigReplyS> reply(
            ObjNew<CfgSvrConfigReplyS>(CfgSvrConfigReplyMagic, CfgSvrConfigReplyDescriptor));
        ObjHolder<void> number(ObjIntegerNew(7));
        reply.Get()->bSuccess = TRUE;
        if (n == 3) reply.Get()->oStnzKey = static_cast<CfgStnzKeyO>(number.Take());
        if (n == 4) reply.Get()->oStanza = static_cast<CfgStnzO>(number.Take());
        if (n >= 5) ListPushLastItem(reply.Get()->oValueList = ListNew(), number.Address());
        void* const bodies[] = {nullptr, number.Get()};
        MsgSendReply(message.Get(), CFG_SVR_CONFIG_REPLY_MSG, n < 2 ? bodies[n] : reply.Get());
    }
});

const Role deceived("deceived", [](const Arguments&) {
    if (!Connect(100)) return 10;
    WorkForClient(SysLocalMachineName());
    for (int n = 0; n < 4; n++) Say(String("k"));
    StnzT* pStanza = nullptr;
    ListO oList = nullptr;
    Say(BooleanText(CfgGetStanza(&pStanza, File, "S")));
    Say(BooleanText(CfgGetStanzaList(&oList, File)));
    Say(BooleanText(CfgAddEntryToValueList(&oList, File, "L", "l", "e", FALSE, FALSE)));
    ContextReleaseThread();
    return 0;
});

const Role finder("finder", [](const Arguments&) {
    if (!Connect(100)) return 10;
    for (const char* machine : {SysLocalMachineName(), "other", "unknown"})
        Say(BooleanText(MachInfoFind(machine)));
    ContextReleaseThread();
    return 0;
});

// A machine that keeps the configuration of a client, which is also the machine's own.
struct Keeper : Machine {
    Keeper() {
        MakeClientDirectory(Home());
        MakeMapFiles(Home());
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

// Also while others write another file, none of whose changes is lost.
TEST(CfgRemote, GivesWhatFilesOfThisMachineGive) {
    Keeper keeper;
    const Process& served = keeper.Serve();
    const Text server = SysLocalMachineName();
    Process one = keeper.InRole("writer", {server, "101"});
    Process other = keeper.InRole("writer", {server, "102"});
    const Text local = OutputOf(keeper.InRole("operate", {""}));
    const Text played = keeper.Home() + "/config/" + PlayFile, file = ReadFile(played);
    std::filesystem::remove(played);
    EXPECT_EQ(OutputOf(keeper.InRole("operate", {server})), local);
    EXPECT_TRUE(local.ends_with("left: \n")) << local;
    EXPECT_FALSE(Exists(played));
    // A boolean travels as the text of another case.
    EXPECT_EQ(ReadFile(ClientDirectory(keeper.Home()) + PlayFile),
              Text(file).replace(file.find("true"), 4, "TRUE"));
    EXPECT_EQ(one.Wait() + other.Wait(), 0);
    ExpectEntries(keeper.Home(), {"101", "102"});
    served.Signal(SIGTERM);
}

// A call inside the wait of another has its own reply, though that of the other comes first.
TEST(CfgRemote, EachCallHasItsReply) {
    Keeper keeper;
    WriteFile(ClientDirectory(keeper.Home()) + File, "[S]\nouter=1\ninner=2\n");
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
    WriteFile(ClientDirectory(silent.Home()) + File, "[S]\nouter=1\ninner=2\n");
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
