// Processes of a server that log, the daemon that keeps what they log, and readers that ask it.
#include "core/context.h"
#include "core/log.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/machine.h"
#include "support/peer.h"

namespace {

constexpr ProcIdT ReaderId = 99;
constexpr int Loggers = 3, MessagesEach = 200;
constexpr int32 Number = LogNumber(1000, 5);

// Logs as a program of a server does.
const Role logger("logger", [](const std::vector<std::string>& arguments) {
    if (!Connect(std::stoi(arguments.at(0)))) return 10;
    const Leftovers before;
    LogLocally();
    LogSetClass(arguments.at(0).c_str());
    for (int n = 0; n < MessagesEach; n++)
        LogMessage(Number, eLogLevelWarning, nullptr, "Message %d of %s", n,
                   arguments.at(0).c_str());
    LogUnsetAddress();
    const bool clean = before.Text().empty();
    MsgQuickExit(FALSE);
    ContextReleaseThread();
    return clean ? 0 : 11;
});

// Asks for entries in the order, and as many, and with the text that the arguments tell, and says
// what comes: "class/text" of each.
const Role reader("reader", [](const std::vector<std::string>& arguments) {
    if (!Connect(ReaderId)) return 10;
    const ObjHolder<logdCriteriaS> criteria(LogNewCriteria());
    criteria.Get()->pstrText = StrDuplicate(arguments.at(2).c_str());
    const ObjHolder<logdRequestEntriesS> request(LogBuildRequest(
        BooleanFrom(arguments.at(0) == "newest"), std::stoi(arguments.at(1)), criteria.Get(), ""));
    MsgSendObject(MsgLogDaemonAddress(), LOGD_REQUEST_ENTRIES_MSG, request.Get());
    for (;;) {
        ObjHolder<MsgMessageS> message;
        ObjHolder<logdMessageS> entry;
        if (MsgReceive(message.Address(), nullptr) != TRUE) continue;
        if (MsgType(message.Get()) != LOGD_LOG_MSG) break;
        MsgGetObject(entry.Address(), message.Get(), logdMessageMagic);
        const ByteT* image = LogGetRawImage(entry.Get());
        if (image == nullptr) return 12;
        Say(Owned(LogGetClassString(image)) + "/" + Owned(LogGetStringFromImage(image)));
    }
    ContextReleaseThread();
    return 0;
});

class LogDaemon : public testing::Test {
 protected:
    void SetUp() override {
        m_machine.Configure("configure.cfg", "[Details]\nServer=TRUE\n");
        std::filesystem::create_directories(m_machine.Home() + "/locale/Deutsch/logs");
        for (const char* catalogue : {"logs.ctl", "logs1000.ctl"})
            WriteFile(m_machine.Home() + "/locale/Deutsch/logs/" + catalogue,
                      std::to_string(Number) + " \"Nummer %d von %s\"\n");
        ASSERT_TRUE(m_machine.Start());
        StartDaemon();
    }
    void StartDaemon() {
        m_daemon = Process({TEST_MANAGERS "/logdaemon", "Deutsch"}, m_machine.Home());
        ASSERT_EQ(m_daemon.Line(), "ready 0");
    }
    std::vector<std::string> Ask(const std::vector<std::string>& query) {
        std::vector<std::string> lines;
        Process process = m_machine.InRole("reader", query);
        for (std::string line; !(line = process.Line(20)).empty();) lines.push_back(line);
        EXPECT_EQ(process.Wait(), 0);
        return lines;
    }

    Machine m_machine;
    Process m_daemon;
};

}  // namespace

TEST_F(LogDaemon, KeepsEveryMessageAndFindsWhatIsAskedFor) {
    std::vector<Process> loggers;
    for (int n = 0; n < Loggers; n++)
        loggers.push_back(m_machine.InRole("logger", {std::to_string(60 + n)}));
    for (Process& process : loggers) EXPECT_EQ(process.Wait(), 0);
    for (int run = 0; run < 2; run++) {
        // Each process's messages are all there, in their order.
        int next[Loggers] = {};
        const auto all = Ask({"oldest", "0", ""});
        ASSERT_EQ(all.size(), std::size_t(Loggers * MessagesEach));
        for (const std::string& line : all) {
            const int from = std::stoi(line.substr(0, 2));
            EXPECT_EQ(line, std::to_string(from) + "/Message " + std::to_string(next[from - 60]++) +
                                " of " + std::to_string(from));
        }
        EXPECT_EQ(Ask({"newest", "2", ""}), (std::vector{all.back(), all[all.size() - 2]}));
        // As the catalogue has it.
        EXPECT_EQ(Ask({"oldest", "0", "Nummer 7 von"}).size(), std::size_t(Loggers));
        // Killed, with a record cut in its middle, it goes on with the whole ones.
        m_daemon.Signal(SIGKILL);
        m_daemon.Wait();
        const std::string path = m_machine.Home() + "/logs/log";
        const std::string records = ReadFile(path);
        WriteFile(path, records + records.substr(0, 20));
        StartDaemon();
    }
}
