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

#include <iostream>
#include <map>
#include <sstream>

#include "core/cfg.h"
#include "core/log.h"
#include "core/procapi.h"
#include "core/procinit.h"
#include "support/clientconfig.h"
#include "support/roles.h"

namespace {

using Text = std::string;
using std::to_string;
using std::chrono::seconds;

constexpr int Services = 8;                            // the other places are adopted
constexpr int LastingService = 0, LastingAdopted = 8;  // never killed

enum class State { Starting, Live, Killed };

struct Place {
    int number = 0;
    State state = State::Killed;
    ProcIdT id = 0;
    pid_t pid = 0;
    Process process;  // of an adopted one
    Time since, pong;
    Status status = {}, before = {};  // before: of all earlier processes together
    int kills = 0, young = 0;
    bool Adopted() const { return number >= Services; }
    bool Lasts() const { return number == LastingService || number == LastingAdopted; }
    Text Name() const { return "place " + to_string(number); }
};

struct Manager {
    const char* name;
    ProcIdT id;
    Process process;
    Time pong;
};

Text g_home;
std::mt19937 g_random;
std::array<Place, 12> g_places;
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

void SendTo(ProcIdT id, MsgTypeT type, void* body = nullptr) {
    const ::Address to(AddressOf(id));
    MsgSendObject(to.Get(), type, body);
}

Place* PlaceOf(ProcIdT id) {
    const auto found = std::ranges::find(g_places, id, &Place::id);
    return id == 0 || found == g_places.end() ? nullptr : &*found;
}

std::vector<Place*> Living() {
    std::vector<Place*> living;
    for (Place& place : g_places)
        if (place.state == State::Live) living.push_back(&place);
    return living;
}

// --- starting and killing ---

void Start(Place& place) {
    const Status last = std::exchange(place.status, {});
    for (std::size_t n = 0; n < last.size(); n++) place.before[n] += last[n];
    place.status[Local] = last[Local];
    place.status[Served] = last[Served];
    place.state = State::Starting;
    place.since = Clock::now();
    place.id = 0;
    place.pid = 0;
    const Text words = to_string(place.number) + " " + to_string(ProcGetId()) + " " +
                       to_string(last[Local]) + " " + to_string(last[Served]);
    if (place.Adopted()) {
        place.process = Process::InRole("load", {"", words}, g_home);
        place.pid = place.process.Id();
        return;
    }
    ObjHolder<ProcAddressS> service;
    ProcCreateAddress(service.Address(), SysLocalMachineName(), "Load", 4);
    const ObjHolder<ObjStringS> text(ObjStringNew(words.c_str()));
    ProcGiveServiceATask(service.Get(), nullptr, nullptr, FALSE, text.Get(), place.number);
}

// One that may be; only what has been started here and still runs this program.
void KillOne() {
    std::vector<Place*> living = Living();
    std::erase_if(living, [](const Place* place) { return place->Lasts(); });
    if (living.empty()) return;
    Place& place = *living[g_random() % living.size()];
    std::error_code error;
    const auto program =
        std::filesystem::read_symlink("/proc/" + to_string(place.pid) + "/exe", error);
    if (place.pid <= 1 || program != std::filesystem::read_symlink("/proc/self/exe"))
        return Fault(place.Name() + " is no process of the soak");
    kill(place.pid, SIGKILL);
    if (place.Adopted()) place.process = Process();
    place.state = State::Killed;
    place.since = Clock::now();
    place.kills++;
}

// --- messages ---

void Hello(MsgMessageO message, ObjStringS* text) {
    const ProcIdT from = MsgGetProcessId(message->oSource);
    std::istringstream words(text->pstrValue);
    std::size_t number = g_places.size();
    pid_t pid = 0;
    words >> number >> pid;
    if (number >= g_places.size() || g_places[number].state != State::Starting)
        return Fault("process " + to_string(from) + " came unexpectedly");
    Place& place = g_places[number];
    place.id = from;
    place.pid = pid;
    place.state = State::Live;
    place.pong = Clock::now();
    const ::Address address(AddressOf(from));
    ProcInformOnDeath(address.Get());
    Text ids;
    for (const Place* living : Living()) ids += to_string(living->id) + " ";
    for (const Place* living : Living()) SendText(living->id, RosterType, ids);
}

void TakeStatus(MsgMessageO message, ObjStringS* text) {
    Place* place = PlaceOf(MsgGetProcessId(message->oSource));
    std::istringstream counts(text->pstrValue);
    if (place == nullptr) return;
    for (int& count : place->status) counts >> count;
    g_logged[place->id] = place->status[Logged];
}

// Some adopted processes are killed on their way into the machine.
void Died(MsgMessageO /*message*/, PmgrProcessDiedS* body) {
    Place* place = body == nullptr ? nullptr : PlaceOf(MsgGetProcessId(body->oAddress));
    if (place == nullptr) return;
    if (place->state != State::Killed) Fault(place->Name() + " ended by itself");
    for (; place->Adopted() && !place->Lasts() && g_random() % 3 == 0; place->young++) {
        const Process young = Process::InRole("load", {"", "-"}, g_home);
        usleep(static_cast<useconds_t>(g_random() % 30000));
    }
    Start(*place);
}

void Pong(MsgMessageO message, void* /*body*/) {
    const ProcIdT from = MsgGetProcessId(message->oSource);
    if (Place* place = PlaceOf(from); place != nullptr) place->pong = Clock::now();
    for (Manager& manager : g_managers)
        if (manager.id == from) manager.pong = Clock::now();
}

void TaskAnswer(MsgMessageO /*message*/, PmgrGiveServiceATaskReturnS* body) {
    if (body != nullptr && body->bSuccess != TRUE)
        Fault("no process for place " + to_string(body->lCookie) + ", error " +
              to_string(body->lErrorCode));
}

constexpr Handler Handlers[] = {
    {HelloType, OnText<Hello>},
    {StatusType, OnText<TakeStatus>},
    {FaultType, OnText<[](MsgMessageO, ObjStringS* text) { Fault(text->pstrValue); }>},
    {PMGR_PROCESS_DIED_MSG, On<PmgrProcessDiedS, PmgrProcessDiedMagic, Died>},
    {MSG_PONG_MSG, On<void, 0, Pong>},
    {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG,
     On<PmgrGiveServiceATaskReturnS, PmgrGiveServiceATaskReturnMagic, TaskAnswer>},
    {MSG_LOST_RECEIVE_QUEUE_MSG,
     On<void, 0, [](MsgMessageO, void*) { Fault("the communications manager is gone"); }>},
};

// --- the watchdog ---

void Ping() {
    const New<MsgPingS> ping(MsgPingMagic, "i;i;");
    for (const Manager& manager : g_managers) SendTo(manager.id, MSG_PING_MSG, ping.Get());
    for (const Place* place : Living()) SendTo(place->id, MSG_PING_MSG, ping.Get());
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
        waiting += place.Name() + ", process " + to_string(place.id) +
                   (place.state == State::Live       ? " does not answer\n"
                    : place.state == State::Starting ? " does not come\n"
                                                     : " is dead, and nobody tells\n") +
                   WhatItDoes(place.id, place.pid);
    }
    if (!waiting.empty()) Fault("deadlock:\n" + waiting);
    return waiting.empty();
}

// --- the run ---

// True once in every interval.
bool IsTime(Time& next, int interval) {
    if (Clock::now() < next) return false;
    next += seconds(interval);
    return true;
}

void Turn() {
    const TimeoutIn turn(50);
    MsgWaitPollWithTimeout(turn.Get());
}

bool StartMachine() {
    for (Manager& manager : g_managers) {
        manager.process = Process({Text(TEST_MANAGERS "/") + manager.name}, g_home);
        if (!manager.process.Line().starts_with("ready")) return false;
        manager.pong = Clock::now() + seconds(60);
    }
    if (ProcInitializeViewer(nullptr, nullptr, nullptr, TraceLevelE(0)) != TRUE) return false;
    for (const auto& [type, handle] : Handlers) MsgWaitAddHandler(type, handle, nullptr);
    return true;
}

// Turns until all load processes are there, or the time of one is over.
bool StartLoad() {
    for (Place& place : g_places) Start(place);
    while (Living().size() < g_places.size() && Progress()) Turn();
    for (const Manager& manager : g_managers)
        g_subjects.push_back({manager.name, manager.id, manager.process.Id(), {}});
    for (const Place& place : g_places)
        if (place.Lasts()) g_subjects.push_back({place.Name(), place.id, place.pid, {}});
    g_subjects.push_back({"controller", ProcGetId(), getpid(), {}});
    return g_faults.empty();
}

bool Run(int length, int interval) {
    const Time end = Clock::now() + seconds(length);
    Time second = Clock::now() + seconds(1), sample = Clock::now() + seconds(interval);
    while (Clock::now() < end) {
        Turn();
        if (IsTime(second, 1)) {
            KillOne();
            Ping();
            if (!Progress()) return false;
        }
        if (IsTime(sample, interval)) std::ranges::for_each(g_subjects, TakeSample);
    }
    return true;
}

// Nothing is begun any more; what is under way comes to its end.
bool Drain() {
    const Time begin = Clock::now();
    Time second = begin + seconds(1);
    const auto drained = [begin] {
        return std::ranges::all_of(g_places,
                                   [](const Place& p) {
                                       return p.state == State::Live && p.status[Quiet] == 1 &&
                                              p.status[Open] == 0;
                                   }) &&
               std::ranges::all_of(
                   g_managers, [begin](const Manager& m) { return m.pong > begin + seconds(3); });
    };
    while (!drained() && Clock::now() <= begin + 4 * Due) {
        Turn();
        if (!IsTime(second, 1)) continue;
        for (const Place* place : Living()) SendTo(place->id, QuietType);
        Ping();
        if (!Progress()) return false;
    }
    const bool done = drained();
    for (const Place& place : g_places)
        if (!done && place.status[Open] != 0)
            Fault(place.Name() + " still waits for " + to_string(place.status[Open]) + " answers");
    return done;
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
        const auto left = static_cast<int32>(std::min<std::size_t>(all.size() - at, INT_MAX));
        if (LogIsImage(image, left) != TRUE) {
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
    clientconfig::WorkForClient(SysLocalMachineName());
    for (const Place& place : g_places) {
        const Text key = "Place " + to_string(place.number);
        for (const auto& [file, count] : {std::pair{LocalFile, Local}, {ServedFile, Served}}) {
            int32 lRead = -1;
            CfgGetInteger(&lRead, file, "Soak", key.c_str(), -1);
            if (lRead != place.status[count])
                Fault(key + " of " + file + " is " + to_string(lRead) + ", written was " +
                      to_string(place.status[count]));
        }
    }
}

// The lines of a process that was never killed, from all archives of its trace.
Text CheckTrace(const Place& place) {
    const Text name = "place" + to_string(place.number), unpacked = g_home + "/tmp";
    const Text mark = " " + place.Name() + " line ";
    const auto left = [&name](const Text& suffix) {
        std::vector<Text> files = ListDir(g_home + "/trace");
        std::erase_if(files, [&](const Text& file) {
            return !file.starts_with(name + "-") || !file.ends_with(suffix);
        });
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
            const auto at = line.find(mark);
            if (at == Text::npos) continue;
            if (const int number = std::stoi(line.substr(at + mark.size())); number != ++last)
                Fault(archive + " has line " + to_string(number) + " in the place of " +
                      to_string(std::exchange(last, number)));
        }
        unlink(log.c_str());
    }
    if (last != place.status[Traced])
        Fault(name + " has traced " + to_string(place.status[Traced]) + " lines, kept are " +
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
        if (place.pid > 1 && kill(place.pid, 0) == 0) Fault(place.Name() + " outlives the machine");
    }
}

// --- the report ---

Text PlacesText() {
    Text text =
        "| Place | Started | Killed | Killed while joining | Sent | Acknowledged | Above 100 kB "
        "| Channels | Tasks | Logged | Configuration "
        "|\n|---|---|---|---|---|---|---|---|---|---|---|\n";
    std::array<int, 9> all = {};
    const auto row = [&text](const Text& name, const Text& how, const std::array<int, 9>& counts) {
        text += "| " + name + " | " + how + " |";
        for (const int count : counts) text += " " + to_string(count) + " |";
        text += "\n";
    };
    for (const Place& place : g_places) {
        const auto total = [&place](Count n) { return place.before[n] + place.status[n]; };
        const std::array<int, 9> counts = {
            place.kills,  place.young,   total(Sent),
            total(Acked), total(Big),    total(Channels),
            total(Tasks), total(Logged), place.status[Local] + place.status[Served]};
        for (std::size_t n = 0; n < all.size(); n++) all[n] += counts[n];
        row(to_string(place.number), place.Adopted() ? "adopted" : "by task", counts);
    }
    row("all", "", all);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    RunRole(argc, argv);
    if (argc != 4) return std::cerr << "soak HOME SECONDS SEED\n", 2;
    g_home = argv[1];
    const int length = std::stoi(argv[2]), interval = std::clamp(length / 60, 1, 15);
    g_random.seed(static_cast<unsigned>(std::stoul(argv[3])));
    for (int n = 0; Place & place : g_places) place.number = n++;
    setenv("KRHOME", argv[1], 1);
    if (!StartMachine()) return std::cerr << "the machine does not start\n", 1;
    Text kept;
    const bool whole = StartLoad() && Run(length, interval) && Drain();
    if (whole) {
        kept = CheckLog();
        CheckConfiguration();
    }
    EndMachine();
    for (const Place& place : g_places)
        if (whole && place.Lasts()) kept += "; " + CheckTrace(place);
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
