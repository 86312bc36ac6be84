// What a process asks of process managers, and how it shows itself. What is sent is caught in the
// place of the function that sends it and compared as text (support/shown.h).
#include "core/context.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/procapi.h"
#include "core/procinternal.h"
#include "core/task.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/messages.h"
#include "support/shown.h"

using Text = std::string;
using std::to_string;

namespace {

bool g_refuse = false;  // sending fails
int32 g_state = -2;     // what managers answer; -2: something else
Text g_sent;
int g_signalled = 0;  // calls of the system

struct Service : ObjHolder<ProcAddressS> {
    Service(const char* machine, const char* process, int32 type = 4) {
        EXPECT_EQ(ProcCreateAddress(Address(), machine, process, type), TRUE);
    }
};

// What was sent since the last call.
Text Sent() { return std::exchange(g_sent, ""); }

// What this process has sent itself.
Text Received() {
    Message message;
    if (MsgReceiveCount() == 0 || MsgReceive(message.Address(), nullptr) != TRUE) return "";
    return to_string(MsgType(message.Get())) + " " + ObjectText(message.Get()->oObject);
}

// Machines of three kinds, and a task of none.
class Requests : public testing::Test {
 protected:
    void SetUp() override {
        WriteInHome("etc/machines.dat",
                    "[old]\nId=5\nTLVersion=6999\n[new]\nId=6\nTLVersion=7000\n");
        WriteInHome("config/version.cfg", "[Details]\nTLVersion=7002\n");
        WriteInHome("config/configure.cfg", "[Details]\nServer=TRUE\nTLBuildLevel=8\n");
        WriteInHome("config/security.cfg", "[Client Out Cookies]\nnew=77\n");
    }
    void TearDown() override {
        TaskSetTaskContext(nullptr);
        g_refuse = false;
        EXPECT_EQ(Sent() + Received(), "");
        EXPECT_EQ(m_leftovers.Text(), "");
    }

 private:
    Leftovers m_leftovers;
};

}  // namespace

BooleanT CatchObject(MsgAddressO oAddress, MsgTypeT tMsgType,
                     void* oObject) asm("__wrap__Z13MsgSendObjectP11MsgAddressSiPv");
BooleanT CatchObject(MsgAddressO oAddress, MsgTypeT tMsgType, void* oObject) {
    if (g_refuse) return FALSE;
    g_sent += ObjectText(oAddress) + " " + to_string(tMsgType) + " " + ObjectText(oObject) + "; ";
    if (tMsgType == PMGR_GET_PROCESS_STATE_MSG) {
        const New<PmgrGetProcessStateReturnS> reply(PmgrGetProcessStateReturnMagic, "o;i;",
                                                    {nullptr, g_state});
        Packet packet;
        MsgCreatePacket(packet.Address(), MsgLocalAddress(), oAddress,
                        PMGR_GET_PROCESS_STATE_RETURN_MSG, g_state == -2 ? oObject : reply.Get());
        MsgRequeuePacket(packet.Get());
    }
    return TRUE;
}

// A fault must not reach every process there is.
int RealKill(pid_t tId, int iSignal) asm("__real_kill");
int SafeKill(pid_t tId, int iSignal) asm("__wrap_kill");
int SafeKill(pid_t tId, int iSignal) {
    g_signalled++;
    return tId < 2 ? 0 : RealKill(tId, iSignal);
}

TEST_F(Requests, Tasks) {
    const char* const local = SysLocalMachineName();
    const Text self = "TaskContext(.,7002,8,-,-)";
    const Text mine = "TaskContext(giver,7001,3,[OBJ_BOOLEAN(1) OBJ_INTEGER(2)],-)";
    const auto asked = [](const Text& machine, const Text& cookie, const Text& more) {
        return machine + ":1 1002 PmgrGiveServiceATask" + (more.empty() ? "" : "Ext") +
               "(ProcAddress(" + machine + ",srv,4),French," + cookie +
               ",secret,1,OBJ_INTEGER(5),9" + (more.empty() ? "" : "," + more + ",-") + "); ";
    };
    const auto failed = [](int error, const Text& service) {
        return "1003 PmgrGiveServiceATaskReturn(0," + to_string(error) + ",-,0,0,9," + service +
               ")";
    };
    const struct {
        const char* machine;
        const char* process;
        int task;     // 1: there is a current one
        int context;  // 1: an integer that replaces the task's, 2: what is no object
        Text sent;
        Text received;
    } cases[] = {
        {"old", "srv", 1, 1, asked("old", "-1", ""), ""},
        {"new", "srv", 0, 0, asked("new", "77", self), ""},
        {"new", "srv", 1, 0, asked("new", "77", mine), ""},
        {"new", "srv", 0, 1, asked("new", "77", "TaskContext(.,7002,8,[OBJ_INTEGER(6)],-)"), ""},
        {"new", "srv", 1, 1,
         asked("new", "77", "TaskContext(giver,7001,3,[OBJ_BOOLEAN(1) OBJ_INTEGER(6)],-)"), ""},
        {local, "srv", 0, 0, asked(".", "0", self), ""},
        {"unknown", "srv", 0, 0, asked("unknown", "-1", ""), ""},
        {"new", nullptr, 0, 0, "", failed(7, "ProcAddress(new,-,4)")},
        {nullptr, "srv", 0, 0, "", failed(18, "ProcAddress(-,srv,4)")},
        {"new", "srv", 0, 2, "", failed(7, "ProcAddress(new,srv,4)")},
    };
    const ObjHolder<ObjIntegerS> data(ObjIntegerNew(5));
    const ObjHolder<ObjIntegerS> extra(ObjIntegerNew(6));
    int32 noObject[32] = {};
    const New<TaskContextS> task(TaskContextMagic, "s;i;i;o;o;",
                                 {StrDuplicate("giver"), 7001, 3, nullptr, nullptr});
    const ObjHolder<ObjIntegerS> old(ObjIntegerNew(2));
    const ObjHolder<ObjBooleanS> other(ObjBooleanNew(TRUE));
    TaskSetContextObject(task.Get(), other.Get());
    TaskSetContextObject(task.Get(), old.Get());
    for (const auto& c : cases) {
        SCOPED_TRACE(Text(c.machine ? c.machine : "-") + to_string(c.task) + to_string(c.context));
        TaskSetTaskContext(c.task == 1 ? task.Get() : nullptr);
        EXPECT_EQ(TaskGetServerName(), c.task == 1 ? task.Get()->pstrServerName : nullptr);
        EXPECT_EQ(TaskGetServerVersion(), c.task * 7001);
        EXPECT_EQ(TaskGetServerPatchLevel(), c.task * 3);
        const Service service(c.machine, c.process);
        void* context = c.context == 2 ? static_cast<void*>(noObject + 8) : extra.Get();
        EXPECT_EQ(ProcGiveServiceATaskExt(service.Get(), "French", "secret", TRUE, data.Get(), 9,
                                          c.context == 0 ? nullptr : context),
                  BooleanFrom(!c.sent.empty()));
        EXPECT_EQ(Sent(), c.sent);
        EXPECT_EQ(Received(), c.received);
    }
    EXPECT_EQ(ObjectText(task.Get()), mine);  // the request's own object is not in it
    // No address at all; a send that fails.
    auto* notAnAddress = static_cast<ProcAddressO>(static_cast<void*>(data.Get()));
    EXPECT_EQ(ProcGiveServiceATask(notAnAddress, nullptr, nullptr, FALSE, nullptr, 9), FALSE);
    EXPECT_EQ(Received(), failed(7, "OBJ_INTEGER(5)"));
    g_refuse = true;
    const Service service("new", "srv");
    EXPECT_EQ(ProcGiveServiceATask(service.Get(), nullptr, nullptr, FALSE, nullptr, 9), FALSE);
    EXPECT_EQ(Received(), failed(19, "ProcAddress(new,srv,4)"));
}

TEST_F(Requests, TasksByIdAndByTags) {
    const Service service("old", "srv", 0);
    const Text head = "old:1 1002 PmgrGiveServiceATask(ProcAddress(old,srv,0),";
    for (int32 expected = 0; expected < 2; expected++) {
        int32 lId = -1;
        EXPECT_EQ(ProcGiveServiceATaskWithID(&lId, service.Get(), nullptr, "p", FALSE, nullptr),
                  TRUE);
        EXPECT_EQ(lId, expected);
        EXPECT_EQ(Sent(), head + "-,-1,p,0,-," + to_string(expected) + "); ");
    }
    EXPECT_EQ(ProcGiveServiceATaskTags(service.Get(), OBJ_TAG_BEGIN, 0, "Welsh", 2, TRUE, 4, 11,
                                       OBJ_TAG_END),
              TRUE);
    EXPECT_EQ(Sent(), head + "Welsh,-1,-,1,-,11); ");
}

TEST_F(Requests, Processes) {
    const Address there(At("new:40")), old(At("old:42")), here(At(".:41")), channel(At("-:7"));
    EXPECT_EQ(ProcKillProcess(there.Get(), 3) + ProcInformOnDeath(there.Get()) +
                  ProcCancelInformOnDeath(here.Get()) + ProcSendSODReady(ePSODROKButWantToDie) +
                  ProcChangeFromReady(),
              5 * TRUE);
    EXPECT_EQ(Sent(),
              "new:1 1001 PmgrKillProcess(new:40,3); .:1 1005 PmgrNotifyOnDeath(new:40); "
              ".:1 1044 PmgrCancelNotifyOnDeath(.:41,-); .:1 1041 PmgrStartOfDayReady(2,-); "
              ".:1 1024 -; ");
    // A channel that is not there, and nothing at all, lead to no process.
    for (MsgAddressO oAddress : {channel.Get(), MsgAddressO(nullptr)}) {
        EXPECT_EQ(ProcKillProcess(oAddress, 0) + ProcInformOnDeath(oAddress) +
                      ProcCancelInformOnDeath(oAddress) +
                      ProcSetProcessContextObject(oAddress, there.Get()),
                  FALSE);
    }
    const ObjHolder<ObjIntegerS> object(ObjIntegerNew(5));
    EXPECT_EQ(ProcSetProcessContextObject(old.Get(), object.Get()), FALSE);
    EXPECT_EQ(ProcSetProcessContextObject(there.Get(), nullptr), FALSE);
    EXPECT_EQ(ProcSetProcessContextObject(there.Get(), object.Get()), TRUE);
    EXPECT_EQ(Sent(), "new:40 2720 SetProcessContextRequest(OBJ_INTEGER(5),-); ");
    for (const int32 state : {-2, -1, 0, 5, 9}) {
        g_state = state;
        EXPECT_EQ(ProcIsProcessRunning(40, "new"), BooleanFrom(state >= 0)) << state;
        EXPECT_EQ(Sent(), "new:1 1007 PmgrGetProcessState(new:40); ");
    }
    EXPECT_EQ(ProcIsProcessRunning(40, nullptr), FALSE);
    g_refuse = true;
    EXPECT_EQ(ProcSetProcessContextObject(there.Get(), object.Get()), FALSE);
    EXPECT_EQ(ProcSendSODReady(ePSODROK), FALSE);
}

TEST(ProcApi, ServicesErrorsStates) {
    const Service a("Mach", "Proc");
    const auto equal = [&a](const char* machine, const char* process, int32 type) {
        return ProcAddressEqual(a.Get(), Service(machine, process, type).Get());
    };
    EXPECT_EQ(ProcGetInterfaceTypeFromAddress(a.Get()), 4);
    EXPECT_EQ(ProcGetInterfaceTypeFromAddress(nullptr), 0);
    EXPECT_EQ(equal("mACH", "pROC", 4), TRUE);
    EXPECT_EQ(equal("mach", "proc", 5) + equal("mach", "pro", 4) + equal("mac", "proc", 4), FALSE);
    EXPECT_EQ(equal(nullptr, "proc", 4) + ProcAddressEqual(nullptr, nullptr), FALSE);
    // Ends of the tables, and what lies beyond; the catalogue's texts stand under their numbers.
    const auto texts = [](auto... codes) { return (... + (ProcErrorString(codes) + Text("|"))); };
    EXPECT_EQ(texts(-1, 0, 9, 21, 22, -2, INT32_MIN),
              "Unknown Error|No Error|The remote machine is unavailable|"
              "A plugin died unexpectedly|Unknown Error - 22|Unknown Error - -2|"
              "Unknown Error - -2147483648|");
    Text catalogue;
    for (int32 number = 568; number <= 591; number++)
        catalogue += to_string(number) + " \"T" + to_string(number) + "\"\n";
    WriteInHome("locale/Test/locale.ctl", catalogue);
    ASSERT_EQ(LocaleSetLocale("Test"), TRUE);
    EXPECT_EQ(texts(-1, 0, 21, 22), "T568|T569|T590|T591 - 22|");
    LocaleSetLocale(nullptr);
    EXPECT_STREQ(ProcProcessStateDescription(eProcStateRestartService), "Restart Service");
    EXPECT_STREQ(ProcProcessStateDescription(static_cast<ProcStateE>(7)), "Invalid");
}

TEST(Tasks, BadArgumentsAndNoServer) {
    WriteInHome("config/configure.cfg", "[Details]\nServer=FALSE\nTLBuildLevel=8\n");
    ObjHolder<TaskContextS> own;
    ASSERT_EQ(TaskCreateContext(own.Address()), TRUE);
    EXPECT_EQ(ObjectText(own.Get()), "TaskContext(-,0,0,-,-)");  // this is no server
    TraceCapture trace;
    EXPECT_EQ(TaskSetContextObject(own.Get(), nullptr) + TaskSetContextObject(nullptr, own.Get()),
              FALSE);
    EXPECT_EQ(trace.Count("TASK", 4), 2);
}

// Who is left is asked by taking off the newest.
TEST(Process, CleanupRoutinesAreTakenOff) {
    const ProcCleanupFnT first = [](void*, int32) {};
    const ProcCleanupFnT second = [](void*, int32 l) { g_signalled = l; };
    int a = 0, b = 0;
    for (int* argument : {&a, &b}) {
        ProcAddCleanupRoutine(first, argument);
        ProcAddCleanupRoutine(second, argument);
    }
    EXPECT_EQ(ProcRemoveCleanupRoutine(first, &b), TRUE);
    EXPECT_EQ(ProcRemoveCleanupRoutine(first, &b) + ProcRemoveCleanupRoutine(second, nullptr),
              FALSE);
    EXPECT_EQ(ProcRemoveCleanupRoutine(nullptr, nullptr), TRUE);
    EXPECT_EQ(ProcRemoveCleanupRoutine(second, &b), FALSE);
    EXPECT_EQ(ProcRemoveCleanupRoutine(first, &a) + ProcRemoveCleanupRoutine(second, &a), 2 * TRUE);
    EXPECT_EQ(ProcRemoveCleanupRoutine(nullptr, nullptr), FALSE);
}

TEST(Process, IdsAndMemory) {
    for (const auto& [id, name] : {std::pair{0x1a2b, "tlid00001a2b"}, {-2, "tlidfffffffe"}})
        EXPECT_EQ(Owned(ProcIdFileName(id)), name);
    EXPECT_EQ(ProcGetThreadId(), -1);
    ObjGetObjectCounts(&gtTlContext.sProcess.ptObjCountBase);
    const ObjHolder<ObjIntegerS> number(ObjIntegerNew(1));
    TraceCapture trace;
    ProcMemoryUsage();
    EXPECT_EQ(trace.CountText("     1 OBJ_INTEGER"), 1);
    MemFree(&gtTlContext.sProcess.ptObjCountBase);
}

TEST(Process, TraceLevelAndCrash) {
    const TraceLevelE previous = TraceSetLevel(eTraceLevelUnchanged);
    ProcSetName("prog");
    int32 level = -1;  // of the name; the last three are none
    for (const char* text : {"always", "NORMAL", "Verbose", "hiverbose", "LibNormal", "LIBVERBOSE",
                             "LIBVERBOSE1", "2", ""}) {
        WriteInHome("config/programs.cfg",
                    "[other]\nTrace Level=ALWAYS\n[Prog]\nTrace Level=" + Text(text) + "\n");
        for (const int32 before : {0, 3}) {
            TraceSetLevel(static_cast<TraceLevelE>(before));
            ProcSetDefaultTraceLevel();
            EXPECT_EQ(TraceSetLevel(previous), level > 4 ? before : level) << text;
        }
        level++;
    }
    ProcSetName(nullptr);
    for (const char* value : {"TRUE", "maybe", "false"}) {
        WriteInHome("config/configure.cfg", "[Trace]\nDo Crash=" + Text(value) + "\n");
        ProcSetCrash();
        EXPECT_EQ(gbDoCrash, BooleanFrom(Text(value) == "TRUE")) << value;
    }
}

TEST(Process, TraceFile) {
    const auto made = [](ProcIdT id, const Text& configured, const Text& enabled, Text traceName) {
        const TempDir directory;
        WriteInHome("config/programs.cfg", "[prog]\nTrace to File=" + configured);
        WriteInHome("config/configure.cfg", "[Trace]\nTrace To File=" + enabled +
                                                "\n[Directories]\nTrace=" + directory.Path());
        TesselContextProcessS& process = gtTlContext.sProcess;
        process.tId = id;
        process.pstrTraceName = traceName.data();
        ProcSetName("prog");
        ProcSetTraceFile();
        TraceToFileNoConfig(nullptr);
        process.pstrTraceName = nullptr;
        ProcSetName(nullptr);
        process.tId = 0;
        Text all;
        for (const Text& name : ListDir(directory.Path())) all += name;
        return all;
    };
    EXPECT_EQ(made(100, "conf", "FALSE", "name") + made(100, "", "TRUE", "name") +
                  made(100, "", "FALSE", "name") + made(-1, "conf", "TRUE", "name"),
              "conf100.logname100.log");
    const Text timed = made(99, "conf", "TRUE", "");
    EXPECT_LE(std::abs(std::atoll(timed.substr(4).c_str()) - TimeNow()), 60) << timed;
}

TEST(Process, StartsAndSignals) {
    const Dir dir;
    WriteFile(dir("program"), "#!/bin/sh\necho \"$0 $# $1\" >" + dir("out") + "\nexec sleep 60\n");
    ProcProcessInfoT started = {};
    EXPECT_EQ(ProcStartProcess(&started, dir("program"), 1234), FALSE);  // not executable
    chmod(dir("program"), 0700);
    for (const bool kills : {false, true}) {
        unlink(dir("out"));
        ASSERT_EQ(ProcStartProcess(&started, dir("program"), 1234), TRUE);
        ProcRealIdT id = started.tRealProcessId;
        EXPECT_EQ(ProcAlive(&id, nullptr), TRUE);
        for (int n = 0; ReadFile(dir("out")).empty() && n < 30000; n++) usleep(1000);
        EXPECT_EQ(ReadFile(dir("out")), dir("program") + " 1 1234\n");
        EXPECT_EQ(kills ? ProcKill(id) : ProcTerminate(id), TRUE);
        int32 status = 0;
        ASSERT_EQ(waitpid(id, &status, 0), id);
        EXPECT_EQ(WTERMSIG(status), kills ? SIGKILL : SIGTERM);
        EXPECT_EQ(ProcAlive(&id, nullptr), FALSE);
        EXPECT_EQ(id, -1);
    }
    const int signalled = g_signalled;
    for (const ProcRealIdT below : {1, 0, -1, -1000}) {
        ProcRealIdT id = below;
        EXPECT_EQ(ProcKill(below) + ProcTerminate(below) + ProcAlive(&id, nullptr), FALSE);
        EXPECT_EQ(id, below);
    }
    EXPECT_EQ(ProcAlive(nullptr, nullptr), FALSE);
    EXPECT_EQ(g_signalled, signalled);
}

TEST(Process, OneProcessManager) {
    const Text file = TestHome() + "/etc/krpmgr.pid", old = "what an earlier manager has left";
    EXPECT_EQ(ProcPmgrIsRunning(FALSE), FALSE);
    EXPECT_FALSE(Exists(file));
    WriteInHome("etc/krpmgr.pid", old);
    // Another process reads the file: closing it here would end the lock.
    const auto asked = [&file](BooleanT bLock) {
        const RunResult result = InChild([&file, bLock] {
            const bool running = ProcPmgrIsRunning(bLock) == TRUE;
            std::printf("%s %s", running ? "yes" : "no", ReadFile(file).c_str());
            return std::fflush(stdout);
        });
        return result.output;
    };
    EXPECT_EQ(asked(FALSE), "no " + old);
    EXPECT_TRUE(asked(TRUE).starts_with("no  "));  // and its lock is gone with it
    EXPECT_EQ(ProcPmgrIsRunning(TRUE), FALSE);
    char acId[32];
    std::snprintf(acId, sizeof(acId), "yes %12d\n", getpid());
    for (const BooleanT bLock : {FALSE, TRUE, FALSE}) {
        EXPECT_EQ(asked(bLock), acId);
        EXPECT_EQ(ProcPmgrIsRunning(bLock), FALSE);  // this is not another one, and keeps the lock
    }
}
