// A whole machine for a short day: sets up a home directory, starts the managers and, through them,
// services, gives these work, looks at them, and ends the day. Each line that it prints with "ok"
// has been checked.
//
//   system HOME MANAGERS      HOME: an empty directory, with the archive tool in its "bin"
//                             MANAGERS: the directory with the programs of the managers
//
// The exit status is 0 when all went as it should and every manager has ended in order.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/cfg.h"
#include "core/cfgserver.h"
#include "core/cfgutil.h"
#include "core/list.h"
#include "core/procsod.h"
#include "core/sys.h"
#include "machine.h"

namespace {

int giFailures = 0;

__attribute__((format(printf, 2, 3))) void Check(bool bGood, const char* pstrFormat, ...) {
    std::va_list tArgs;
    va_start(tArgs, pstrFormat);
    std::printf(bGood ? "  ok      " : "  FAILED  ");
    std::vprintf(pstrFormat, tArgs);
    std::printf("\n");
    std::fflush(stdout);
    va_end(tArgs);
    giFailures += bGood ? 0 : 1;
}

// --- the home directory ---

void WriteFile(const std::string& path, const std::string& text) {
    FILE* ptFile = std::fopen(path.c_str(), "w");
    Check(ptFile != nullptr && std::fwrite(text.data(), 1, text.size(), ptFile) == text.size() &&
              std::fclose(ptFile) == 0,
          "%s", path.c_str());
}

void MakeHome(const std::string& home, const std::string& managers, const std::string& programs) {
    for (const char* pstrDirectory :
         {"bin", "config", "config/map", "dump", "etc", "gui", "gui/CachedPits",
          "gui/CachedPits/branch", "gui/CachedPits/branch/config", "tmp", "trace"})
        mkdir((home + "/" + pstrDirectory).c_str(), 0755);
    const std::string config = home + "/config/";
    WriteFile(config + "configure.cfg",
              "[Machine]\nName=shop\nComms TcpPort=0\n[Details]\nServer=TRUE\n"
              "[Trace]\nTrace To File=TRUE\nLines per File=1000\n");
    // Contexts travel with tasks from version 7 on.
    WriteFile(config + "version.cfg", "[Details]\nTLVersion=7000\n");
    WriteFile(config + "tlnmgr.cfg", "[Network]\nManager Port=0\n");
    WriteFile(config + "programs.cfg",
              "[Process Manager]\nunix=etc/keys\n"
              "[Log Daemon]\nId=7\nunix=" +
                  managers +
                  "/logdaemon\n"
                  "[Configuration Server]\nId=13\nunix=" +
                  managers +
                  "/configserver\n"
                  "[Opening]\nunix=" +
                  programs +
                  "/service\n"
                  "[Closing]\nunix=" +
                  programs +
                  "/service\n"
                  "[Service]\nunix=" +
                  programs +
                  "/service\n"
                  "[Mill]\nTrace to File=mill\nTrace Level=NORMAL\nRest=100\n"
                  "[Oven]\nTrace to File=oven\nRest=300\n");
    WriteFile(config + "services.cfg",
              "[Mill]\nProgram=Service\nOnce=TRUE\n[Oven]\nProgram=Service\nPassword=hot\n");
    // Tasks of this machine show the cookie 0, those of the branch would show this one.
    WriteFile(config + "security.cfg",
              "[Security]\nDisabled=FALSE\n[Client In Cookies]\nbranch=4711\n");
    WriteFile(config + "map/" + CountsFile + ".map", "");
    WriteFile(home + "/etc/keys", "");
}

// In the order in which they run; each must be there before the next.
void PlanTheDay() {
    bool bPlanned = true;
    for (const char* pstrProgram : {"Log Daemon", "Configuration Server", "Opening"})
        bPlanned &= ProcAddSODProcessToEnd(pstrProgram, TRUE, FALSE, TRUE, FALSE) == TRUE;
    bPlanned &= ProcAddEODProcessToEnd("Closing", TRUE, FALSE, 10) == TRUE;
    Check(bPlanned, "the programs of the day are listed in procmgr.cfg");
}

// --- programs that this one starts itself ---

struct Program {
    pid_t tId = -1;
    FILE* ptOutput = nullptr;

    Program(const std::string& path, const char* pstrFirst, const char* pstrSecond) {
        int aiPipe[2];
        posix_spawn_file_actions_t tActions;
        char* const apstrArguments[] = {const_cast<char*>(path.c_str()),
                                        const_cast<char*>(pstrFirst), const_cast<char*>(pstrSecond),
                                        nullptr};
        if (pipe2(aiPipe, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_init(&tActions);
        posix_spawn_file_actions_adddup2(&tActions, aiPipe[1], STDOUT_FILENO);
        if (posix_spawn(&tId, path.c_str(), &tActions, nullptr, apstrArguments, environ) != 0)
            tId = -1;
        posix_spawn_file_actions_destroy(&tActions);
        close(aiPipe[1]);
        ptOutput = fdopen(aiPipe[0], "r");
    }
    // The rest of what it prints, up to its end, which must be in order.
    bool Ended() const {
        char acLine[200];
        int iStatus = -1;
        while (ptOutput != nullptr && std::fgets(acLine, sizeof(acLine), ptOutput) != nullptr)
            std::fputs(acLine, stdout);
        return tId != -1 && waitpid(tId, &iStatus, 0) == tId && iStatus == 0;
    }
};

// A manager that serves.
Program StartManager(const std::string& directory, const char* pstrName) {
    const Program tProgram(directory + "/" + pstrName, nullptr, nullptr);
    char acLine[100] = "";
    const bool bReady = tProgram.ptOutput != nullptr &&
                        std::fgets(acLine, sizeof(acLine), tProgram.ptOutput) != nullptr &&
                        std::strncmp(acLine, "ready", 5) == 0;
    Check(bReady, "%s serves as process %d", pstrName, tProgram.tId);
    if (!bReady) std::exit(1);
    return tProgram;
}

// --- messages ---

MsgMessageO Await(MsgTypeT tMsgType) {
    MsgMessageO oMessage = nullptr;
    ObjHolder<TimeTimeoutS> oTimeout;
    TimeCreateAndSetTimeout(oTimeout.Address(), 10, 0);
    MsgWaitMessageWithTimeout(&oMessage, nullptr, tMsgType, oTimeout.Get());
    return oMessage;
}

// The number that a message of that type brings; -1 when none comes.
int32 AwaitNumber(MsgTypeT tMsgType) {
    const ObjHolder<MsgMessageS> oMessage(Await(tMsgType));
    ObjHolder<ObjIntegerS> oNumber;
    const bool bCame = oMessage.Get() != nullptr &&
                       MsgGetObject(oNumber.Address(), oMessage.Get(), ObjIntegerMagic) == TRUE;
    return bCame ? ObjGetInteger(oNumber.Get()) : -1;
}

// The task is done for the branch, whose configuration is kept here. The id of the process that has
// it; minus the code of the error when none has.
ProcIdT GiveTask(const char* pstrService, int32 lLines, const char* pstrPassword) {
    ObjHolder<ProcAddressS> oService;
    ObjHolder<PmgrGiveServiceATaskReturnS> oAnswer;
    const ObjHolder<ObjIntegerS> oLines(ObjIntegerNew(lLines));
    const ObjHolder<CfgUtilRemoteConfigDetailsS> oFor(
        ObjNew<CfgUtilRemoteConfigDetailsS>(CfgUtilRemoteConfigDetailsMagic, "s;s;o;"));
    oFor.Get()->pstrServer = StrDuplicate(SysLocalMachineName());
    oFor.Get()->pstrClient = StrDuplicate(CountsClient);
    ProcCreateAddress(oService.Address(), SysLocalMachineName(), pstrService, InterfaceNone);
    ProcGiveServiceATaskExt(oService.Get(), nullptr, pstrPassword, FALSE, oLines.Get(), 0,
                            oFor.Get());
    const ObjHolder<MsgMessageS> oMessage(Await(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG));
    if (oMessage.Get() == nullptr ||
        MsgGetObject(oAnswer.Address(), oMessage.Get(), PmgrGiveServiceATaskReturnMagic) != TRUE)
        return eProcErrorUnknown;
    return oAnswer.Get()->bSuccess == TRUE ? MsgGetProcessId(oAnswer.Get()->oAddress)
                                           : -oAnswer.Get()->lErrorCode;
}

ProcIdT CheckTask(const char* pstrService, int32 lLines, const char* pstrPassword, int32 lTotal) {
    const ProcIdT tId = GiveTask(pstrService, lLines, pstrPassword);
    const int32 lDone = tId > 0 ? AwaitNumber(WorkDoneType) : -1;
    int32 lKept = -1;
    CfgSvrGetInteger(&lKept, CountsClient, SysLocalMachineName(), CountsFile, pstrService,
                     CountsKey, nullptr, -1);
    Check(lDone == lTotal && lKept == lTotal,
          "%s, process %d, has traced %d lines and the configuration server knows %d", pstrService,
          tId, lDone, lKept);
    return tId;
}

void CheckRefusal(const char* pstrService, const char* pstrPassword, ProcErrorE eError) {
    const ProcIdT tAnswer = GiveTask(pstrService, 1, pstrPassword);
    Check(tAnswer == -eError, "a task for %s is refused: %s", pstrService,
          ProcErrorString(-tAnswer));
}

// --- the day ---

// The id that a service has told of itself.
ProcIdT AwaitRunning(const char* pstrService) {
    int32 lId = 0;
    for (int n = 0; n < 500 && lId == 0; n++) {
        ObjHolder<TimeTimeoutS> oTimeout;
        TimeCreateAndSetTimeout(oTimeout.Address(), 0, 20);
        MsgWaitPollWithTimeout(oTimeout.Get());
        CfgGetInteger(&lId, RunningFile, pstrService, RunningKey, 0);
    }
    return lId;
}

void CheckOwnService(ProcIdT tId) {
    ObjHolder<MsgAddressS> oService;
    ObjHolder<ObjIntegerS> oLines;
    MsgCreateAddress(oService.Address(), SysLocalMachineName(), tId);
    const BooleanT bAnswered = MsgWaitInterchangeTimeout(
        oLines.Address(), oService.Get(), HowManyType, nullptr, ThatManyType, ObjIntegerMagic, 10);
    Check(bAnswered == TRUE && ObjGetInteger(oLines.Get()) == 100,
          "Shop, which was started by hand, is process %d and answers", tId);
}

// SIGTERM, as anybody may send it.
void CheckDeath(ProcIdT tId) {
    ObjHolder<MsgAddressS> oProcess;
    ObjHolder<PmgrProcessDiedS> oDied;
    MsgCreateAddress(oProcess.Address(), SysLocalMachineName(), tId);
    ProcInformOnDeath(oProcess.Get());
    ProcKillProcess(oProcess.Get(), 1);
    const ObjHolder<MsgMessageS> oMessage(Await(PMGR_PROCESS_DIED_MSG));
    Check(oMessage.Get() != nullptr &&
              MsgGetObject(oDied.Address(), oMessage.Get(), PmgrProcessDiedMagic) == TRUE &&
              MsgAddressEqual(oDied.Get()->oAddress, oProcess.Get()) == TRUE,
          "process %d has died of SIGTERM", tId);
}

// Prints what the log daemon has of the class.
void CheckLog(const char* pstrClass, int32 lExpected) {
    const ObjHolder<logdCriteriaS> oCriteria(LogNewCriteria());
    ObjStringO oClass = ObjStringNew(pstrClass);
    oCriteria.Get()->oClasses = ListNew(ObjStringMagic);
    ListPushLastItem(oCriteria.Get()->oClasses, &oClass);
    const ObjHolder<logdRequestEntriesS> oRequest(
        LogBuildRequest(FALSE, 0, oCriteria.Get(), nullptr));
    MsgSendObject(MsgLogDaemonAddress(), LOGD_REQUEST_ENTRIES_MSG, oRequest.Get());
    int32 lEntries = 0;
    for (;;) {
        const MsgTypeT atTypes[] = {LOGD_LOG_MSG, LOGD_END_OF_REQUEST_MSG, -1};
        ObjHolder<MsgMessageS> oMessage;
        ObjHolder<logdMessageS> oEntry;
        ObjHolder<TimeTimeoutS> oTimeout;
        TimeCreateAndSetTimeout(oTimeout.Address(), 10, 0);
        if (MsgWaitMultipleMessagesWithTimeout(oMessage.Address(), nullptr, atTypes,
                                               oTimeout.Get()) != TRUE ||
            MsgGetObject(oEntry.Address(), oMessage.Get(), logdMessageMagic) != TRUE ||
            LogGetRawImage(oEntry.Get()) == nullptr)
            break;
        const PoolPtr<char> pstrText(LogGetStringFromImage(LogGetRawImage(oEntry.Get())));
        std::printf("  log     %s\n", pstrText.Get());
        lEntries++;
    }
    Check(lEntries == lExpected, "the log daemon has %d entries of %s", lEntries, pstrClass);
}

void View(const std::string& programs, const std::string& home, ProcIdT tId) {
    const Program tViewer(programs + "/viewer", std::to_string(tId).c_str(),
                          (home + "/dump/ring").c_str());
    Check(tViewer.Ended(), "the viewer has dumped the ring of process %d", tId);
}

// Segments of shared memory that the process has made, as the system lists them.
int CountSegments(pid_t tMaker) {
    int iCount = 0;
    int iMaker = 0;
    char acLine[300];
    FILE* ptFile = std::fopen("/proc/sysvipc/shm", "r");
    while (ptFile != nullptr && std::fgets(acLine, sizeof(acLine), ptFile) != nullptr)
        if (std::sscanf(acLine, "%*d %*d %*o %*u %d", &iMaker) == 1 && iMaker == tMaker) iCount++;
    if (ptFile != nullptr) std::fclose(ptFile);
    return iCount;
}

void Work(const std::string& programs, const std::string& home) {
    CheckRefusal("Nobody", nullptr, eProcErrorUnresolvedName);
    CheckRefusal("Oven", "cold", eProcErrorPassword);
    const ProcIdT tMill = CheckTask("Mill", 2500, nullptr, 2500);
    Check(CheckTask("Mill", 1500, nullptr, 4000) == tMill, "the same process has done both");
    CheckTask("Oven", 300, "hot", 300);
    const Program tShop(programs + "/service", "own", "Shop");
    CheckOwnService(AwaitRunning("Shop"));
    View(programs, home, tMill);
    CheckDeath(tMill);
    CheckLog("Opening", 1);
    CheckLog("Mill", 3);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const std::string home = argv[1];
    const std::string self = argv[0];
    const std::string programs = self.substr(0, self.rfind('/'));
    setenv("KRHOME", argv[1], 1);
    std::puts("The machine is set up");
    MakeHome(home, argv[2], programs);
    if (ContextInitialize() != TRUE) return 1;
    PlanTheDay();

    std::puts("The day begins");
    const Program tComms = StartManager(argv[2], "commsmanager");
    const Program tNetwork = StartManager(argv[2], "netmanager");
    const Program tProcesses = StartManager(argv[2], "procmanager");
    Check(CountSegments(tProcesses.tId) == 2, "the shared memory is there");
    if (ProcInitialize(nullptr, FALSE) == TRUE) {
        ProcSetTitle("system");
        Work(programs, home);
        ProcRelease(0);
    } else {
        Check(false, "this program is a process of the machine");
    }

    std::puts("The day ends");
    kill(tProcesses.tId, SIGTERM);
    Check(tProcesses.Ended(), "the process manager has ended");
    Check(tNetwork.Ended(), "the network manager has ended");
    Check(tComms.Ended(), "the communications manager has ended");
    Check(CountSegments(tProcesses.tId) == 0, "the shared memory is gone");
    return giFailures == 0 ? 0 : 1;
}
