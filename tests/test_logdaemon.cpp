// Processes of a server that log, the daemon that keeps what they log, and readers that ask it.
#include <gtest/gtest.h>

#include <csignal>
#include <functional>

#include "core/context.h"
#include "core/list.h"
#include "core/log.h"
#include "core/objwrappers.h"
#include "core/unique.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/machine.h"
#include "support/peer.h"

namespace {

constexpr ProcIdT ReaderId = 99;
constexpr int Loggers = 3, MessagesEach = 200;
constexpr int32 Number = LogNumber(1000, 5);

UniqueT Session(int32 job) {
    UniqueT session;
    UniqueCreateSessionId(&session, job, 1, 1);
    return session;
}

// Logs as a program of a server does: levels in turn, every tenth for the operator and of a job.
const Role logger("logger", [](const std::vector<std::string>& arguments) {
    const ProcIdT id = std::stoi(arguments.at(0));
    if (!Connect(id)) return 10;
    const Leftovers before;
    const UniqueT session = Session(id);
    LogLocally();
    LogSetClass(arguments.at(0).c_str());
    for (int n = 0; n < MessagesEach; n++) {
        const int32 level = 16 * (1 + n % 7) | (n % 10 == 0 ? LogOperatorBit : 0);
        LogMessage(Number, level, n % 10 == 0 ? &session : nullptr, "Message %d of %s", n,
                   arguments.at(0).c_str());
    }
    LogUnsetAddress();
    const bool clean = before.Text().empty();
    MsgQuickExit(FALSE);
    ContextReleaseThread();
    return clean ? 0 : 11;
});

struct Query {
    const char* name;
    BooleanT newFirst;
    int32 most;
    std::function<void(logdCriteriaO)> narrow;
};
const Query queries[] = {
    {"all", FALSE, 0, nullptr},
    {"newest", TRUE, 2, nullptr},
    {"class and level", FALSE, 0,
     [](logdCriteriaO criteria) {
         criteria->oClasses = ListNew(ObjStringMagic);
         for (const char* name : {"61", "62"}) {
             ObjStringO item = ObjStringNew(name);
             ListPushLastItem(criteria->oClasses, &item);
         }
         criteria->lWarningLevels = 1 << 6 | 1 << 0;  // severe errors and background
     }},
    {"operator, in a job", FALSE, 0,
     [](logdCriteriaO criteria) {
         criteria->bOperatorOnly = TRUE;
         criteria->lJobId = 62;
     }},
    {"session", FALSE, 0,
     [](logdCriteriaO criteria) {
         criteria->bSession = TRUE;
         criteria->tSessionId = Session(1);  // nobody's
     }},
    {"text of the catalogue", FALSE, 0,
     [](logdCriteriaO criteria) { criteria->pstrText = StrDuplicate("Nummer 7 von"); }},
    {"too early", FALSE, 0, [](logdCriteriaO criteria) { criteria->tStop = 1000; }},
};

// Asks one query and says what comes, "class/text" of each.
const Role reader("reader", [](const std::vector<std::string>& arguments) {
    if (!Connect(ReaderId)) return 10;
    for (const Query& query : queries) {
        if (arguments.at(0) != query.name) continue;
        const ObjHolder<logdCriteriaS> criteria(LogNewCriteria());
        if (query.narrow != nullptr) query.narrow(criteria.Get());
        const ObjHolder<logdRequestEntriesS> request(
            LogBuildRequest(query.newFirst, query.most, criteria.Get(), nullptr));
        MsgSendObject(MsgLogDaemonAddress(), LOGD_REQUEST_ENTRIES_MSG, request.Get());
    }
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
    std::vector<std::string> Ask(const std::string& query) {
        std::vector<std::string> lines;
        Process process = m_machine.InRole("reader", {query});
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
        const auto all = Ask("all");
        ASSERT_EQ(all.size(), std::size_t(Loggers * MessagesEach));
        for (const std::string& line : all) {
            const int from = std::stoi(line.substr(0, 2));
            EXPECT_EQ(line, std::to_string(from) + "/Message " + std::to_string(next[from - 60]++) +
                                " of " + std::to_string(from));
        }
        EXPECT_EQ(Ask("newest"), (std::vector{all.back(), all[all.size() - 2]}));
        for (const std::string& line : Ask("class and level")) {
            const int number = std::stoi(line.substr(line.find(' ')));
            EXPECT_TRUE(line[1] != '0' && (number % 7 == 0 || number % 7 == 6)) << line;
        }
        EXPECT_EQ(Ask("class and level").size(), 2U * (29 + 28));
        EXPECT_EQ(Ask("operator, in a job").size(), MessagesEach / 10U);
        EXPECT_EQ(Ask("text of the catalogue").size(), std::size_t(Loggers));
        EXPECT_EQ(Ask("session").size() + Ask("too early").size(), 0U);
        // Killed, with a record cut in its middle, it goes on with the whole ones.
        m_daemon.Signal(SIGKILL);
        m_daemon.Wait();
        const std::string path = m_machine.Home() + "/logs/log";
        const std::string records = ReadFile(path);
        WriteFile(path, records + records.substr(0, 20));
        StartDaemon();
    }
}
