// A whole machine under load, with processes that are killed at random: the controller.
//
//   soak HOME SECONDS SEED
//
// The home directory is prepared by scripts/soak.sh, which also tells what is checked. The
// controller starts the managers, becomes a viewer, has a load process started in every place (by
// task or, where they are adopted, by itself), kills one of them each second and has it started
// anew, pings everybody, takes samples, and checks at the end what is left against what was said.
// The report goes to standard output; exit code 1 when there is a fault.
#include "soak.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

#include "core/cfg.h"
#include "core/context.h"
#include "core/log.h"
#include "core/msg.h"
#include "core/objwrappers.h"
#include "core/procapi.h"
#include "core/procinit.h"
#include "report.h"
#include "support/files.h"
#include "support/messages.h"
#include "support/roles.h"

namespace {

using Text = std::string;
using std::to_string;
using Time = Clock::time_point;
using std::chrono::seconds;

constexpr int Places = 12, Services = 8;               // the others are adopted
constexpr int LastingService = 0, LastingAdopted = 8;  // never killed

enum class State { Starting, Live, Killed };

struct Place {
    int number = 0;
    State state = State::Killed;
    ProcIdT id = 0;
    pid_t pid = 0;
    Process process;  // of an adopted one
    Time since, pong;
    Status status, before;  // before: of all earlier processes together
    int kills = 0, young = 0;
    bool Adopted() const { return number >= Services; }
    bool Lasts() const { return number == LastingService || number == LastingAdopted; }
};

struct Manager {
    const char* name;
    ProcIdT id;
    Process process;
    Time pong;
};

Text g_home;
std::mt19937 g_random;
Place g_places[Places];
Manager g_managers[] = {{"commsmanager", MsgCommunicationsManagerId, {}, {}},
                        {"procmanager", MsgProcessManagerId, {}, {}},
                        {"logdaemon", MsgLogDaemonId, {}, {}},
                        {"configserver", MsgConfigurationServerId, {}, {}}};
std::vector<Text> g_faults;
std::map<ProcIdT, int> g_logged;  // what each process said it has logged
std::vector<Subject> g_subjects;

void Fault(const Text& what) {
    std::cerr << "FAULT: " << what << std::endl;
    g_faults.push_back(what);
}

void SendTo(ProcIdT id, MsgTypeT type, void* body) {
    const ::Address to(AddressOf(id));
    MsgSendObject(to.Get(), type, body);
}

Place* PlaceOf(ProcIdT id) {
    auto* found = std::find_if(std::begin(g_places), std::end(g_places),
                               [id](const Place& p) { return p.id == id; });
    return id == 0 || found == std::end(g_places) ? nullptr : found;
}

bool AllAre(State state) {
    return std::all_of(std::begin(g_places), std::end(g_places),
                       [state](const Place& p) { return p.state == state; });
}

// --- starting and killing ---

void Start(Place& place) {
    place.state = State::Starting;
    place.since = Clock::now();
    const Text words = to_string(place.number) + " " + to_string(ProcGetId()) + " " +
                       to_string(place.status.local) + " " + to_string(place.status.served);
    const int local = place.status.local, served = place.status.served;
    auto sums = [](Status& sum, Status& last) {
        std::vector<int> counts;
        ForEachCount(last, [&counts](int count) { counts.push_back(count); });
        std::size_t n = 0;
        ForEachCount(sum, [&](int& count) { count += counts[n++]; });
    };
    sums(place.before, place.status);
    place.status = {};
    place.status.local = local;
    place.status.served = served;
    place.id = 0;
    if (place.Adopted()) {
        place.process = Process::InRole("load", {"", words}, g_home);
        place.pid = place.process.Id();
        return;
    }
    place.pid = 0;
    ObjHolder<ProcAddressS> service;
    ProcCreateAddress(service.Address(), SysLocalMachineName(), "Load", 4);
    const ObjHolder<ObjStringS> text(ObjStringNew(words.c_str()));
    ProcGiveServiceATask(service.Get(), nullptr, nullptr, FALSE, text.Get(), place.number);
}

// Only what has been started here and still runs this program.
void Kill(Place& place) {
    std::error_code error;
    const auto program =
        std::filesystem::read_symlink("/proc/" + to_string(place.pid) + "/exe", error);
    if (place.pid <= 1 || program != std::filesystem::read_symlink("/proc/self/exe")) {
        Fault("place " + to_string(place.number) + " is no process of the soak");
        return;
    }
    kill(place.pid, SIGKILL);
    if (place.Adopted()) place.process = Process();
    place.state = State::Killed;
    place.since = Clock::now();
    place.kills++;
}

void KillOne() {
    std::vector<Place*> living;
    for (Place& place : g_places)
        if (place.state == State::Live && !place.Lasts()) living.push_back(&place);
    if (!living.empty()) Kill(*living[g_random() % living.size()]);
}

// Some adopted processes are killed on their way into the machine.
void StartAnew(Place& place) {
    while (place.Adopted() && !place.Lasts() && g_random() % 3 == 0) {
        Process young = Process::InRole("load", {"", "-"}, g_home);
        usleep(static_cast<useconds_t>(g_random() % 30000));
        place.young++;
    }
    Start(place);
}

// --- messages ---

void SendRoster() {
    Text ids;
    for (const Place& place : g_places)
        if (place.state == State::Live) ids += to_string(place.id) + " ";
    for (const Place& place : g_places) {
        if (place.state != State::Live) continue;
        const ::Address to(AddressOf(place.id));
        SendText(to.Get(), RosterType, ids);
    }
}

void Hello(ProcIdT from, const Text& words) {
    std::istringstream text(words);
    int number = -1;
    pid_t pid = 0;
    text >> number >> pid;
    if (number < 0 || number >= Places || g_places[number].state != State::Starting) {
        Fault("process " + to_string(from) + " came unexpectedly");
        return;
    }
    Place& place = g_places[number];
    place.id = from;
    place.pid = pid;
    place.state = State::Live;
    place.pong = Clock::now();
    const ::Address address(AddressOf(from));
    ProcInformOnDeath(address.Get());
    SendRoster();
}

void TakeStatus(ProcIdT from, const Text& words) {
    Place* place = PlaceOf(from);
    std::istringstream counts(words);
    if (place == nullptr) return;
    ForEachCount(place->status, [&counts](int& count) { counts >> count; });
    g_logged[from] = place->status.logged;
}

void Died(MsgMessageO message) {
    ObjHolder<PmgrProcessDiedS> body;
    if (MsgGetObject(body.Address(), message, PmgrProcessDiedMagic) != TRUE) return;
    Place* place = PlaceOf(MsgGetProcessId(body.Get()->oAddress));
    if (place == nullptr) return;
    if (place->state != State::Killed)
        Fault("place " + to_string(place->number) + " ended by itself");
    StartAnew(*place);
}

void Pong(ProcIdT from) {
    if (Place* place = PlaceOf(from); place != nullptr) place->pong = Clock::now();
    for (Manager& manager : g_managers)
        if (manager.id == from) manager.pong = Clock::now();
}

void TaskAnswer(MsgMessageO message) {
    ObjHolder<PmgrGiveServiceATaskReturnS> body;
    if (MsgGetObject(body.Address(), message, PmgrGiveServiceATaskReturnMagic) == TRUE &&
        body.Get()->bSuccess != TRUE)
        Fault("no process for place " + to_string(body.Get()->lCookie) + ", error " +
              to_string(body.Get()->lErrorCode));
}

void Handle(MsgMessageO message) {
    const ProcIdT from = MsgGetProcessId(message->oSource);
    switch (MsgType(message)) {
        case HelloType:
            return Hello(from, BodyText(message));
        case StatusType:
            return TakeStatus(from, BodyText(message));
        case FaultType:
            return Fault(BodyText(message));
        case PMGR_PROCESS_DIED_MSG:
            return Died(message);
        case MSG_PONG_MSG:
            return Pong(from);
        case PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG:
            return TaskAnswer(message);
        case MSG_LOST_RECEIVE_QUEUE_MSG:
            return Fault("the communications manager is gone");
        default:
            return;
    }
}

// --- the watchdog ---

void Ping() {
    const New<MsgPingS> ping(MsgPingMagic, "i;i;");
    for (const Manager& manager : g_managers) SendTo(manager.id, MSG_PING_MSG, ping.Get());
    for (const Place& place : g_places)
        if (place.state == State::Live) SendTo(place.id, MSG_PING_MSG, ping.Get());
}

// True while everybody makes progress; else tells who waits.
bool Progress() {
    const Time late = Clock::now() - Due;
    Text waiting;
    for (const Manager& manager : g_managers)
        if (manager.pong < late)
            waiting += Text(manager.name) + " does not answer\n" +
                       WhatItDoes(manager.id, manager.process.Id());
    for (const Place& place : g_places) {
        if ((place.state == State::Live ? place.pong : place.since) >= late) continue;
        const char* how = place.state == State::Live       ? " does not answer\n"
                          : place.state == State::Starting ? " does not come\n"
                                                           : " is dead, and nobody tells\n";
        waiting += "place " + to_string(place.number) + ", process " + to_string(place.id) + how +
                   WhatItDoes(place.id, place.pid);
    }
    if (waiting.empty()) return true;
    Fault("deadlock:\n" + waiting);
    return false;
}

// --- the run ---

struct Every {
    explicit Every(int interval) : m_interval(interval), m_next(Clock::now() + m_interval) {}
    bool Now() {
        if (Clock::now() < m_next) return false;
        m_next += m_interval;
        return true;
    }

 private:
    seconds m_interval;
    Time m_next;
};

void Turn() {
    Message message;
    const TimeoutIn turn(50);
    if (MsgReceive(message.Address(), turn.Get()) == TRUE && message.Get()->oSource != nullptr)
        Handle(message.Get());
}

bool StartMachine() {
    for (Manager& manager : g_managers) {
        manager.process = Process({Text(TEST_MANAGERS "/") + manager.name}, g_home);
        if (!manager.process.Line().starts_with("ready")) return false;
        manager.pong = Clock::now() + seconds(60);
    }
    return ProcInitializeViewer(nullptr, nullptr, nullptr, TraceLevelE(0)) == TRUE;
}

// Turns until all load processes are there, or the time of one is over.
bool StartLoad() {
    for (Place& place : g_places) Start(place);
    while (!AllAre(State::Live) && Progress()) Turn();
    for (const Manager& manager : g_managers)
        g_subjects.push_back({manager.name, manager.id, manager.process.Id(), {}});
    for (const int number : {LastingService, LastingAdopted})
        g_subjects.push_back(
            {"place " + to_string(number), g_places[number].id, g_places[number].pid, {}});
    g_subjects.push_back({"controller", ProcGetId(), getpid(), {}});
    return g_faults.empty();
}

bool Run(int length, int interval) {
    const Time end = Clock::now() + seconds(length);
    Every second(1), sample(interval);
    while (Clock::now() < end) {
        Turn();
        if (second.Now()) {
            KillOne();
            Ping();
            if (!Progress()) return false;
        }
        if (sample.Now())
            for (Subject& subject : g_subjects) TakeSample(subject);
    }
    return true;
}

// Nothing is begun any more; what is under way comes to its end.
bool Drain() {
    const Time begin = Clock::now();
    Every second(1);
    const auto drained = [begin] {
        return std::all_of(std::begin(g_places), std::end(g_places),
                           [](const Place& p) {
                               return p.state == State::Live && p.status.quiet == 1 &&
                                      p.status.open == 0;
                           }) &&
               std::all_of(std::begin(g_managers), std::end(g_managers),
                           [begin](const Manager& m) { return m.pong > begin + seconds(3); });
    };
    while (!drained()) {
        Turn();
        if (second.Now()) {
            for (const Place& place : g_places)
                if (place.state == State::Live) SendTo(place.id, QuietType, nullptr);
            Ping();
            if (!Progress()) return false;
        }
        if (Clock::now() > begin + 4 * Due) {
            for (const Place& place : g_places)
                if (place.status.open != 0)
                    Fault("place " + to_string(place.number) + " still waits for " +
                          to_string(place.status.open) + " answers");
            return false;
        }
    }
    return true;
}

// --- what is left ---

// Each process's records are numbered from 1, without a gap and none twice, up to what it has said
// at least, and for those that still live exactly.
Text CheckLog() {
    std::map<ProcIdT, int> found;
    const Text all = ReadFile(g_home + "/logs/log");
    int records = 0;
    for (std::size_t at = 0; at < all.size();) {
        const auto* image = reinterpret_cast<const ByteT*>(all.data() + at);
        if (LogIsImage(image, static_cast<int32>(
                                  std::min<std::size_t>(all.size() - at, INT_MAX))) != TRUE) {
            Fault("the log is damaged at " + to_string(at));
            break;
        }
        at += static_cast<std::size_t>(LogGetRecordSize(image));
        int id = 0, number = 0;
        if (std::sscanf(Owned(LogGetStringFromImage(image)).c_str(), LogFormat, &id, &number) != 2)
            continue;
        records++;
        if (number != ++found[id])
            Fault("log record " + to_string(number) + " of process " + to_string(id) +
                  " in the place of " + to_string(std::exchange(found[id], number)));
    }
    for (const auto& [id, logged] : g_logged)
        if (found[id] < logged || (PlaceOf(id) != nullptr && found[id] != logged))
            Fault("process " + to_string(id) + " has logged " + to_string(logged) + ", kept are " +
                  to_string(found[id]));
    return to_string(records) + " log records of " + to_string(found.size()) + " processes";
}

void CheckConfiguration() {
    WorkForClient();
    for (const Place& place : g_places) {
        const Text key = "Place " + to_string(place.number);
        const std::pair<const char*, int> items[] = {{LocalFile, place.status.local},
                                                     {ServedFile, place.status.served}};
        for (const auto& [file, value] : items) {
            int32 lRead = -1;
            CfgGetInteger(&lRead, file, "Soak", key.c_str(), -1);
            if (lRead != value)
                Fault(key + " of " + file + " is " + to_string(lRead) + ", written was " +
                      to_string(value));
        }
    }
}

// The lines of a process that was never killed, from all archives of its trace.
Text CheckTrace(const Place& place) {
    const Text name = "place" + to_string(place.number), unpacked = g_home + "/tmp";
    const auto left = [&name](const Text& suffix) {
        std::vector<Text> files;
        for (const Text& file : ListDir(g_home + "/trace"))
            if (file.starts_with(name + "-") && file.ends_with(suffix)) files.push_back(file);
        return files;
    };
    const Time until = Clock::now() + 3 * Due;
    while (!left(".log").empty() && Clock::now() < until) usleep(100000);
    if (!left(".log").empty()) Fault(left(".log").front() + " is not packed");
    int last = 0;
    auto archives = left(".bin");
    std::ranges::sort(archives, {},
                      [&name](const Text& a) { return std::stoi(a.substr(name.size() + 1)); });
    for (const Text& archive : archives) {
        ::Run({TEST_TOOL, "-d", g_home + "/trace/" + archive, unpacked});
        const Text log = unpacked + "/" + archive.substr(0, archive.size() - 4) + ".log";
        for (const Text& line : Split(ReadFile(log))) {
            const Text mark = " place " + to_string(place.number) + " line ";
            const auto at = line.find(mark);
            if (at == Text::npos) continue;
            if (const int number = std::stoi(line.substr(at + mark.size())); number != ++last)
                Fault(archive + " has line " + to_string(number) + " in the place of " +
                      to_string(std::exchange(last, number)));
        }
        unlink(log.c_str());
    }
    if (last != place.status.traced)
        Fault(name + " has traced " + to_string(place.status.traced) + " lines, kept are " +
              to_string(last));
    return to_string(last) + " lines in " + to_string(archives.size()) + " trace files of " + name;
}

// The process manager ends the machine, in order and altogether.
void EndMachine() {
    ProcRelease(0);
    g_managers[1].process.Signal(SIGTERM);
    for (Manager& manager : g_managers)
        if (const int code = manager.process.Wait(30); code != 0)
            Fault(Text(manager.name) + " ended with " + to_string(code));
    for (Place& place : g_places) {
        if (place.process.Id() > 0) place.process.Wait(10);
        if (place.pid > 1 && kill(place.pid, 0) == 0)
            Fault("place " + to_string(place.number) + " outlives the machine");
    }
}

// --- the report ---

Text PlacesText() {
    Text text =
        "| Place | Started | Killed | Killed while joining | Sent | Acknowledged | Above 100 kB "
        "| Channels | Tasks | Logged | Configuration "
        "|\n|---|---|---|---|---|---|---|---|---|---|---|\n";
    Status all;
    int kills = 0, young = 0;
    const auto row = [&text](const Text& name, const Text& how, int killed, int joining, Status s) {
        text += "| " + name + " | " + how + " |";
        for (const int n : {killed, joining, s.sent, s.acked, s.big, s.channels, s.tasks, s.logged,
                            s.local + s.served})
            text += " " + to_string(n) + " |";
        text += "\n";
    };
    for (const Place& place : g_places) {
        Status s = place.before, last = place.status;
        for (const auto count : {&Status::sent, &Status::acked, &Status::big, &Status::channels,
                                 &Status::tasks, &Status::logged}) {
            s.*count += last.*count;
            all.*count += s.*count;
        }
        s.local = last.local;
        s.served = last.served;
        all.local += s.local;
        all.served += s.served;
        kills += place.kills;
        young += place.young;
        row(to_string(place.number), place.Adopted() ? "adopted" : "by task", place.kills,
            place.young, s);
    }
    row("all", "", kills, young, all);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    RunRole(argc, argv);
    if (argc != 4) return std::cerr << "soak HOME SECONDS SEED\n", 2;
    g_home = argv[1];
    const int length = std::stoi(argv[2]), interval = std::clamp(length / 60, 1, 15);
    g_random.seed(static_cast<unsigned>(std::stoul(argv[3])));
    for (int n = 0; n < Places; n++) g_places[n].number = n;
    setenv("KRHOME", argv[1], 1);
    if (!StartMachine()) return std::cerr << "the machine does not start\n", 1;
    Text kept;
    const bool whole = StartLoad() && Run(length, interval) && Drain();
    if (whole) {
        kept = CheckLog();
        CheckConfiguration();
    }
    EndMachine();
    for (const int number : {LastingService, LastingAdopted})
        if (whole) kept += "; " + CheckTrace(g_places[number]);
    std::cout << "Seed " << argv[3] << ", " << length << " seconds.\n\n"
              << PlacesText() << "\nKept: " << kept
              << ".\n\nRSS in kB / descriptors / blocks / objects:\n\n";
    if (!g_subjects.empty() && !g_subjects.front().samples.empty())
        std::cout << SamplesText(g_subjects, interval, g_faults);
    std::cout << "\nVerdict: " << (g_faults.empty() ? "no fault." : "**FAULTS**") << "\n";
    for (const Text& fault : g_faults) std::cout << "- " << fault << "\n";
    std::cout.flush();
    return g_faults.empty() ? 0 : 1;
}
