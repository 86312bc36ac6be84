// Two machines with all their managers, each with a network of its own: services of the other
// machine, its processes, and configuration that it keeps. Where such networks cannot be made the
// tests are skipped.
#include <iostream>

#include "core/context.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/procapi.h"
#include "core/procinit.h"
#include "core/security.h"
#include "core/task.h"
#include "core/unique.h"
#include "support/clientconfig.h"
#include "support/messages.h"
#include "support/shown.h"
#include "support/world.h"

namespace {

using Text = std::string;
using Arguments = std::vector<Text>;
using std::to_string;

constexpr MsgTypeT DoneType = 5000;
constexpr int32 OutCookie = 77, ProxyCookie = -78;
constexpr int32 Interface = 4;

// --- the service ---

// Tells the asker what the task is, on whose behalf it is done, and what the process knows.
void DoTask(PmgrTaskO task) {
    ObjHolder<void> travels, known;
    auto* context = static_cast<TaskContextO>(gtTlContext.sProcess.oTaskContext);
    if (context != nullptr) TaskGetContextObject(travels.Address(), context, ObjStringMagic);
    ContextGetContextObject(known.Address(), ObjIntegerMagic);
    const Text done = to_string(task->lCookie) + " " + ObjectText(task->oUserArguments) + " for " +
                      NameText(TaskGetServerName()) + " " + to_string(TaskGetServerVersion()) +
                      " with " + ObjectText(travels.Get()) + " and " + ObjectText(known.Get());
    const ObjHolder<ObjStringS> answer(ObjStringNew(done.c_str()));
    TaskSetTaskContext(nullptr);
    ProcSendStatus(eProcStatusTaskRequired);
    MsgSendObject(task->oSource, DoneType, answer.Get());
}

// A program that the process manager starts for a task: name, id.
const Role programRole("program", [](const Arguments& arguments) {
    if (ProcInitialize(arguments.at(1).c_str(), TRUE) != TRUE) return 9;
    for (;;) {
        Message message;
        if (MsgReceive(message.Address(), nullptr) != TRUE) continue;
        const MsgTypeT type = MsgType(message.Get());
        if (type == PMGR_TASK_MSG) DoTask(static_cast<PmgrTaskO>(message.Get()->oObject));
        if (type == PMGR_KILL_YOURSELF_MSG || type == MSG_LOST_RECEIVE_QUEUE_MSG) ProcCleanup(0);
    }
});

// --- who asks for it ---

// The body of the next message of a type, from whomever; null, which is said, when none comes.
template <class T>
T* Await(MsgTypeT type, int32 magic) {
    Message message;
    T* body = nullptr;
    const TimeoutIn limit(30000);
    if (MsgReceiveMsgTypeFromAddress(message.Address(), type, nullptr, limit.Get()) != TRUE ||
        MsgGetObject(&body, message.Get(), magic) != TRUE)
        Say("no " + Text(MsgName(type)));
    return body;
}

int32 glCookie = 0;  // of the last task

void Give(const char* machine, const char* service) {
    const ObjHolder<ObjIntegerS> data(ObjIntegerNew(5));
    const ObjHolder<ObjStringS> travels(ObjStringNew("bag"));
    ObjHolder<ProcAddressS> address;
    ProcCreateAddress(address.Address(), machine, service, Interface);
    ProcGiveServiceATaskExt(address.Get(), nullptr, nullptr, FALSE, data.Get(), ++glCookie,
                            travels.Get());
}

// The process that has the task, 0 for none, and what it says of it, or the code of the error.
std::pair<ProcIdT, Text> Done() {
    const ObjHolder<PmgrGiveServiceATaskReturnS> answer(Await<PmgrGiveServiceATaskReturnS>(
        PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, PmgrGiveServiceATaskReturnMagic));
    if (answer.Get() == nullptr || answer.Get()->lCookie != glCookie) return {0, "no answer"};
    if (answer.Get()->bSuccess != TRUE) return {0, "error " + to_string(answer.Get()->lErrorCode)};
    const ObjHolder<ObjStringS> done(Await<ObjStringS>(DoneType, ObjStringMagic));
    return {MsgGetProcessId(answer.Get()->oAddress), ObjGetString(done.Get())};
}

std::pair<ProcIdT, Text> Work(const Text& machine) {
    Give(machine.c_str(), "Worker");
    return Done();
}

// Whether the next death that is told of is that of the process.
const char* Death(const Text& machine, ProcIdT id) {
    const ObjHolder<PmgrProcessDiedS> died(
        Await<PmgrProcessDiedS>(PMGR_PROCESS_DIED_MSG, PmgrProcessDiedMagic));
    const Text expected = "PmgrProcessDied(" + machine + ":" + to_string(id) + ")";
    return ObjectText(died.Get()) == expected ? "died" : "another died";
}

// What each task brings that is asked with a cookie. Gives the last process that has done one.
ProcIdT AskForServices(Text machine) {
    ProcIdT last = 0;
    const std::tuple<const char*, Text, int32> tasks[] = {
        {machine.c_str(), "Worker", OutCookie},
        {machine.c_str(), "Worker", OutCookie + 1},
        {machine.c_str(), "Worker", 0},
        {machine.c_str(), "Nobody", OutCookie},
        {machine.c_str(), "GUI Proxy", ProxyCookie},
        {machine.c_str(), "GUI Proxy", OutCookie},
        {nullptr, "Worker", OutCookie},
        {"unknown", "Worker", OutCookie},
        {"lost", "Worker", OutCookie},
    };
    for (auto [to, service, cookie] : tasks) {
        SecurityStoreCookie(machine.data(), service.data(), cookie, TRUE);
        Give(to, service.c_str());
        const auto [id, text] = Done();
        if (id > 0) last = id;
        Say(text);
    }
    SecurityRemoveClient(machine.data());  // no cookie at all
    Say(Work(machine).second);
    SecurityStoreCookie(machine.data(), nullptr, OutCookie, TRUE);
    return last;
}

void DealWithProcesses(const Text& machine) {
    const auto runs = [&machine](ProcIdT id) {
        return Text(BooleanText(ProcIsProcessRunning(id, machine.c_str())));
    };
    for (const int32 kill : {0, 1, 2}) {  // ask, terminate, at once
        const ProcIdT id = Work(machine).first;
        const Address worker(AddressOf(machine, id));
        const ObjHolder<ObjIntegerS> known(ObjIntegerNew(kill));
        ProcSetProcessContextObject(worker.Get(), known.Get());
        const auto [again, text] = Work(machine);
        const Text said = (again == id ? "same, " : "another, ") + runs(id) + ", " +
                          text.substr(std::min(text.find(' '), text.size()));
        ProcInformOnDeath(worker.Get());
        ProcKillProcess(worker.Get(), kill);
        const Text death = Death(machine, id);
        Say(said + ", " + death + ", " + runs(id));
    }
    Say(runs(9999));
}

// The machine goes down while a second task has been asked: with it go all processes that have done
// tasks for this one.
void LoseMachine(const Text& machine, ProcIdT other) {
    Text line;
    const ProcIdT id = Work(machine).first;
    Say("asking");
    std::getline(std::cin, line);
    Give(machine.c_str(), "Worker");
    Say("asked");
    for (const ProcIdT lost : {other, id}) Say(Death(machine, lost));
    Say(Done().second);
}

const Role askRole("ask", [](const Arguments& arguments) {
    if (ProcInitialize(nullptr, FALSE) != TRUE) return 9;
    const ProcIdT proxy = AskForServices(arguments.at(0));
    DealWithProcesses(arguments.at(0));
    LoseMachine(arguments.at(0), proxy);
    Say(to_string(MsgReceiveCount()) + " left");
    ProcCleanup(0);
    return 9;
});

// Reads an item once for every line that it gets.
const Role readRole("read", [](const Arguments& arguments) {
    if (!Connect(103)) return 10;
    clientconfig::WorkForClient(arguments.at(0));
    for (Text line; std::getline(std::cin, line) && line != "end";) {
        const auto start = Clock::now();
        Say(clientconfig::String("text"));
        Say(to_string(SecondsSince(start)));
    }
    ContextReleaseThread();
    return 0;
});

// Says the word of an identifier that is the machine's.
const Role identifyRole("identify", [](const Arguments& /*arguments*/) {
    const ObjHolder<ObjUniqueS> made(ObjUniqueNew());
    Say(Text(UniqueToString(ObjGetUnique(made.Get()))).substr(0, 8));
    return 0;
});

// --- the machines ---

class System : public testing::Test {
 protected:
    void SetUp() override {
        NEED_NETWORKS(m_world);
        m_world.Introduce(false, "TLVersion=7002\n");
        A().KnowMachines(ReadFile(A().Home() + "/etc/machines.dat") +
                         "[lost]\nId=90\nManager Port=" + to_string(ManagerPort) +
                         "\nContact Address=203.0.113.9\n");
        A().Configure("configure.cfg", "[Details]\nServer=TRUE\n");
        A().Configure("version.cfg", "[Details]\nTLVersion=7001\n");
        B().Configure("security.cfg", "[Client In Cookies]\n" + A().Name() + "=" +
                                          to_string(OutCookie) + "\n[Proxy In Cookies]\n" +
                                          A().Name() + "=" + to_string(ProxyCookie) + "\n");
        B().AddProgram("worker");
        B().Configure("programs.cfg", "[worker]\nunix=bin/worker\n");
        B().Configure("services.cfg", "[Worker]\nProgram=worker\n[GUI Proxy]\nProgram=worker\n");
        for (const int n : {0, 1})
            m_world.At(n).KnowHosts("127.0.0.1 localhost\n" + m_world.Lines().Inet(n, 1 - n) + " " +
                                    m_world.At(n).Name() + "\n");
        clientconfig::MakeMapFiles(A().Home());
        clientconfig::MakeClientDirectory(B().Home());
        ASSERT_TRUE(m_world.Start());
        for (Machine* machine : {&A(), &B()}) ASSERT_TRUE(machine->Start("procmanager"));
        ASSERT_TRUE(B().Start("configserver"));
    }
    // Both machines end as they should.
    void TearDown() override {
        if (IsSkipped()) return;
        for (Machine* machine : {&A(), &B()}) {
            machine->Manager("procmanager").Signal(SIGTERM);
            for (const char* manager : {"procmanager", "netmanager", "commsmanager"}) {
                EXPECT_EQ(machine->Manager(manager).Wait(30), 0) << manager;
                EXPECT_EQ(machine->Manager(manager).Rest(), "");
            }
        }
    }
    Machine& A() { return m_world.At(0); }
    Machine& B() { return m_world.At(1); }
    Process OnA(const Text& role, Arguments arguments = {}) {
        arguments.insert(arguments.begin(), B().Name());
        return A().InRole(role, arguments);
    }

    World m_world{2};
};

}  // namespace

TEST_F(System, ServicesAndProcessesOfAnotherMachine) {
    EXPECT_NE(A().InRole("identify", {}).Line(), B().InRole("identify", {}).Line());
    Process asker = OnA("ask");
    const Text done = " OBJ_INTEGER(5) for " + A().Name() + " 7001 with OBJ_STRING(bag) and ";
    for (const Text& line :
         {"1" + done + "-", Text("error 3"), Text("error 3"), Text("error 15"), "5" + done + "-",
          Text("error 3"), Text("error 18"), Text("error 19"), Text("error 17"), Text("error 3")})
        EXPECT_EQ(asker.Line(), line);
    for (const Text kill : {"0", "1", "2"})
        EXPECT_EQ(asker.Line(), "same, TRUE, " + done + "OBJ_INTEGER(" + kill + "), died, FALSE");
    EXPECT_EQ(asker.Line(), "FALSE");

    ASSERT_EQ(asker.Line(), "asking");
    B().Manager("procmanager").Signal(SIGSTOP);
    asker.Write("go\n");
    ASSERT_EQ(asker.Line(), "asked");
    ASSERT_TRUE(m_world.Lines().Cut(1, 0));
    for (const char* line : {"died", "died", "error 9", "1 left"})  // that the machine is down
        EXPECT_EQ(asker.Line(20), line);
    EXPECT_EQ(asker.Wait(), 0);
    B().Manager("procmanager").Signal(SIGCONT);
}

TEST_F(System, ConfigurationThatAnotherMachineKeeps) {
    Process local = A().InRole("operate", {""});
    ASSERT_EQ(local.Wait(), 0);
    // What is there under the same names here is not touched.
    const Text own = ReadFile(A().Home() + "/config/test.cfg");
    Process one = OnA("writer", {"101"}), other = OnA("writer", {"102"}), client = OnA("operate");
    for (Process* process : {&one, &other, &client}) EXPECT_EQ(process->Wait(), 0);
    EXPECT_EQ(client.Rest(), local.Rest());
    EXPECT_TRUE(client.Rest().ends_with("left: \n")) << client.Rest();
    clientconfig::ExpectEntries(B().Home(), {"101", "102"});
    EXPECT_EQ(ReadFile(A().Home() + "/config/test.cfg"), own);

    // The server is killed with the request.
    B().Manager("configserver").Signal(SIGKILL);
    EXPECT_EQ(B().Manager("configserver").Wait(), -1);
    Process late = B().InRole("late", {});
    ASSERT_EQ(late.Line(), "ready");
    Process reader = OnA("read");
    reader.Write("1\n");
    EXPECT_EQ(late.Line(), "asked");
    late.Signal(SIGKILL);
    EXPECT_EQ(late.Wait(), -1);
    EXPECT_EQ(reader.Line(), "FALSE default");
    EXPECT_LE(std::stoi("0" + reader.Line()), CfgSvrReplySeconds + 5);
    ASSERT_TRUE(B().Start("configserver"));
    reader.Write("2\nend\n");
    EXPECT_EQ(reader.Line(), "TRUE more");
    EXPECT_EQ(reader.Wait(), 0);
}
