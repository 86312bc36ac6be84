// A load process. It sends numbered data to random others, through the managers and over channels
// that it opens and closes, and expects the acknowledgement of each, in order, within the time;
// what it receives must be whole and in order. Between that it logs, reads and writes configuration
// here and at the configuration server, traces, and has workers do tasks. Whatever is not as it
// should be between it and a process that lives is a fault, which the controller is told.
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "core/log.h"
#include "core/memory.h"
#include "core/procapi.h"
#include "core/procinit.h"
#include "soak.h"
#include "support/clientconfig.h"

TRACE_MODULE("SOAK")

namespace {

using Text = std::string;
using std::to_string;

constexpr std::size_t Window = 16;  // data under way in one stream
constexpr std::size_t MostChannels = 4;
constexpr int DataPerChannel = 150;

// Data to one process, through the managers or over a channel that this process has opened.
struct Stream {
    ProcIdT peer = 0;
    int32 cookie = 0;  // of the channel; 0: through the managers
    ::Address to;      // null while the channel is being opened
    int32 next = 1;
    std::deque<std::pair<int32, Time>> waiting;
    Time since = Clock::now();
};

struct Doubt {
    ProcIdT peer;
    Time until;
    Text what;
};

int g_place = 0;
ProcIdT g_controller = 0;
Status g_status;
std::mt19937 g_random;
std::vector<ProcIdT> g_peers;  // that live
std::set<ProcIdT> g_watched;   // and will be told of
std::bitset<1 << 16> g_dead;   // ids are not given twice
std::list<Stream> g_streams;
std::list<Doubt> g_doubts;                           // faults, unless the peer turns out to be dead
std::map<std::pair<bool, int32>, int32> g_received;  // last number by channel, or by peer
struct Task {
    int32 number = 0;
    bool taken = false, done = false;
    Time since;
} g_task;

bool IsDead(ProcIdT id) { return g_dead[static_cast<std::size_t>(id)]; }

std::size_t Random(std::size_t below) { return g_random() % below; }

void Fault(const Text& what) {
    SendText(g_controller, FaultType,
             "place " + to_string(g_place) + ", process " + to_string(ProcGetId()) + ": " + what);
}

void DoubtAbout(ProcIdT peer, const Text& what) {
    if (peer > 0 && !IsDead(peer))
        g_doubts.push_back({peer, Clock::now() + Due, what + " process " + to_string(peer)});
}

// --- peers come and go ---

void Watch(ProcIdT peer) {
    if (peer < 100 || IsDead(peer) || !g_watched.insert(peer).second) return;
    const ::Address address(AddressOf(peer));
    ProcInformOnDeath(address.Get());
}

void Roster(MsgMessageO /*message*/, ObjStringS* text) {
    std::istringstream ids(text->pstrValue);
    g_peers.clear();
    for (ProcIdT id = 0; ids >> id;) {
        if (id == ProcGetId() || IsDead(id)) continue;
        g_peers.push_back(id);
        Watch(id);
    }
}

void Died(MsgMessageO /*message*/, PmgrProcessDiedS* body) {
    if (body == nullptr) return;
    const ProcIdT dead = MsgGetProcessId(body->oAddress);
    const auto ofDead = [dead](const auto& item) { return item.peer == dead; };
    if (dead == g_controller) ProcCleanup(0);
    g_dead[static_cast<std::size_t>(dead)] = true;
    g_watched.erase(dead);
    std::erase(g_peers, dead);
    g_received.erase({false, dead});
    g_doubts.remove_if(ofDead);
    g_streams.remove_if(ofDead);
}

void Unreachable(MsgMessageO /*message*/, CmgrProcessUnreachableS* body) {
    if (body != nullptr) DoubtAbout(MsgGetProcessId(body->oAddress), "unreachable is");
}

// --- data ---

bool IsRight(const DataS& data) {
    const auto* bytes = static_cast<const ByteT*>(data.tFill.pData);
    return data.tTo == ProcGetId() &&
           std::all_of(bytes, bytes + data.tFill.lSize,
                       [&data](ByteT byte) { return byte == static_cast<ByteT>(data.lNumber); });
}

void Data(MsgMessageO message, DataS* data) {
    ::Address sender;
    if (MsgGetSender(sender.Address(), message) != TRUE) return;
    const ProcIdT from = MsgGetProcessId(sender.Get());
    Watch(from);
    if (IsDead(from)) return;
    if (data == nullptr || !IsRight(*data))
        return Fault("wrong data from process " + to_string(from));
    const bool channel = MsgIsFromAChannel(message) == TRUE;
    int32& last = g_received[{channel, MsgGetProcessId(message->oSource)}];
    if (data->lNumber != last + 1)
        Fault("data " + to_string(data->lNumber) + " after " + to_string(last) + " from " +
              (channel ? "channel of process " : "process ") + to_string(from));
    last = data->lNumber;
    const ObjHolder<ObjIntegerS> number(ObjIntegerNew(last));
    MsgSendReply(message, AckType, number.Get());
}

std::list<Stream>::iterator StreamAt(MsgAddressO address) {
    return std::ranges::find_if(g_streams, [address](const Stream& stream) {
        return MsgAddressEqual(stream.to.Get(), address) == TRUE;
    });
}

void Ack(MsgMessageO message, ObjIntegerS* number) {
    const auto stream = StreamAt(message->oSource);
    if (stream == g_streams.end()) return;  // of one that has died
    auto& waiting = stream->waiting;
    const int32 acked = number == nullptr ? -1 : number->lValue;
    const int32 expected = waiting.empty() ? 0 : waiting.front().first;
    if (acked != expected)
        Fault("acknowledgement " + to_string(acked) + " of process " + to_string(stream->peer) +
              " in the place of " + to_string(expected));
    while (!waiting.empty() && waiting.front().first < acked) waiting.pop_front();
    if (waiting.empty() || waiting.front().first != acked) return;
    waiting.pop_front();
    g_status[Acked]++;
}

void Send(Stream& stream) {
    if (stream.to.Get() == nullptr || stream.waiting.size() >= Window) return;
    const bool big = Random(300) == 0;
    const auto size = static_cast<int32>(big ? 100000 + Random(200000) : Random(2000));
    const New<DataS> data(
        DataMagic, DataDescriptor,
        {stream.peer, stream.next, {size, MemAllocateFromPool(size, MemGetDefaultPoolId())}});
    std::memset(data->tFill.pData, stream.next & 0xff, static_cast<std::size_t>(size));
    stream.waiting.emplace_back(stream.next++, Clock::now());
    const ProcIdT peer = stream.peer;
    g_status[Sent]++;
    g_status[Big] += big ? 1 : 0;
    if (MsgSendObject(stream.to.Get(), DataType, data.Get()) != TRUE)
        DoubtAbout(peer, "data cannot be sent to");
}

Stream& NewStream(ProcIdT peer, int32 cookie) {
    Stream& stream = g_streams.emplace_back();
    stream.peer = peer;
    stream.cookie = cookie;
    return stream;
}

void UseManagers() {
    if (g_peers.empty()) return;
    const ProcIdT peer = g_peers[Random(g_peers.size())];
    const auto found = std::ranges::find_if(
        g_streams, [peer](const Stream& s) { return s.peer == peer && s.cookie == 0; });
    if (found != g_streams.end()) return Send(*found);
    Stream& stream = NewStream(peer, 0);
    *stream.to.Address() = AddressOf(peer);
    Send(stream);
}

// --- channels ---

void Forget(std::list<Stream>::iterator channel, const Text& what) {
    DoubtAbout(channel->peer, what + " " + to_string(channel->waiting.size()) +
                                  " acknowledgements outstanding, channel to");
    g_streams.erase(channel);
}

void ChannelDown(MsgMessageO message, void* /*body*/) {
    MsgAddressO address = message->oSource;
    g_received.erase({true, MsgGetChannelId(address)});
    const auto channel = StreamAt(address);
    if (channel != g_streams.end()) Forget(channel, "down with");
    ObjIncRefCount(address);
    MsgChannelClose(&address);
}

// Without a cookie another process has opened it.
void Connected(MsgMessageO /*message*/, MsgConnectedS* body) {
    if (body == nullptr || ObjCheckTypeInternal(body->oCookie, ObjIntegerMagic) != TRUE) return;
    const int32 cookie = ObjGetInteger(static_cast<ObjIntegerO>(body->oCookie));
    const auto channel = std::ranges::find_if(g_streams, [cookie](const Stream& s) {
        return s.cookie == cookie && s.to.Get() == nullptr;
    });
    MsgAddressO address = std::exchange(body->oAddress, nullptr);
    if (channel == g_streams.end()) {  // its process has died
        if (address != nullptr) MsgChannelClose(&address);
    } else if (body->bSuccess == TRUE) {
        *channel->to.Address() = address;
        channel->since = Clock::now();
        g_status[Channels]++;
    } else {
        Forget(channel, "error " + to_string(body->lErrorCode) + " with");
    }
}

// Who waits for another process does so for one with a higher id only: never in a ring.
void OpenChannel(ProcIdT peer) {
    static int32 lastCookie = 0;
    const ::Address target(AddressOf(peer));
    const ObjHolder<ObjIntegerS> cookie(ObjIntegerNew(++lastCookie));
    const auto blocking = Random(2) == 0 ? eMsgChannelBlocking : eMsgChannelNonBlocking;
    const bool waits = peer > ProcGetId() && Random(2) == 0;
    Stream& stream = NewStream(peer, lastCookie);
    if (MsgChannelOpenInternal(waits ? stream.to.Address() : nullptr, target.Get(), nullptr,
                               cookie.Get(), blocking,
                               waits ? eMsgChannelWaitForAccept : eMsgChannelDoNotWaitForAccept,
                               eMsgChannelWaitForOk) != TRUE)
        Forget(std::prev(g_streams.end()), "not opened,");
    else if (waits)
        g_status[Channels]++;
}

void UseChannel() {
    std::vector<std::list<Stream>::iterator> channels;
    for (auto stream = g_streams.begin(); stream != g_streams.end(); ++stream)
        if (stream->cookie != 0) channels.push_back(stream);
    if (channels.size() < MostChannels && !g_peers.empty() && Random(5) == 0)
        return OpenChannel(g_peers[Random(g_peers.size())]);
    if (channels.empty()) return;
    const auto channel = channels[Random(channels.size())];
    if (channel->to.Get() == nullptr) return;
    if (channel->next <= DataPerChannel) return Send(*channel);
    if (!channel->waiting.empty()) return;
    MsgAddressO address = channel->to.Take();
    g_streams.erase(channel);
    if (MsgChannelClose(&address) != TRUE) Fault("a channel cannot be closed");
}

// --- the rest of the load ---

void Log() {
    const UniqueT* none = nullptr;
    LogMessage(SoakLog, eLogLevelInformation, none, LogFormat, ProcGetId(), ++g_status[Logged]);
}

int32 Configured(const char* file) {
    int32 value = -1;
    CfgGetInteger(&value, file, "Soak", ("Place " + to_string(g_place)).c_str(), -1);
    return value;
}

void Configure(const char* file, int& value) {
    const Text key = "Place " + to_string(g_place);
    if (CfgSetInteger(file, "Soak", key.c_str(), value + 1) != TRUE)
        Fault(Text("cannot write ") + file);
    else
        ++value;
    if (const int32 read = Configured(file); read != value)
        Fault(Text(file) + " has " + to_string(read) + " in the place of " + to_string(value));
}

bool Busy() { return g_task.number != 0 && !(g_task.taken && g_task.done); }

void AskForTask() {
    if (Busy()) return;
    g_task = {g_task.number + 1, false, false, Clock::now()};
    ObjHolder<ProcAddressS> worker;
    ProcCreateAddress(worker.Address(), SysLocalMachineName(), "Worker", 4);
    const ObjHolder<ObjIntegerS> number(ObjIntegerNew(g_task.number));
    if (ProcGiveServiceATask(worker.Get(), nullptr, nullptr, FALSE, number.Get(), g_task.number) !=
        TRUE)
        Fault("no task can be given");
}

void TaskTaken(MsgMessageO /*message*/, PmgrGiveServiceATaskReturnS* body) {
    if (body == nullptr || body->bSuccess != TRUE || body->lCookie != g_task.number || g_task.taken)
        Fault("task " + to_string(g_task.number) + " is refused with error " +
              to_string(body == nullptr ? -1 : body->lErrorCode));
    g_task.taken = true;
}

void TaskDone(MsgMessageO /*message*/, ObjIntegerS* number) {
    if (number == nullptr || number->lValue != g_task.number || g_task.done)
        Fault("task " + to_string(g_task.number) + " is done wrongly");
    g_task.done = true;
    g_status[Tasks]++;
}

void Work() {
    for (int n = 0; n < 2; n++) Random(10) < 6 ? UseManagers() : UseChannel();
    if (Random(8) == 0) Log();
    if (Random(20) == 0) Configure(LocalFile, g_status[Local]);
    if (Random(20) == 0) Configure(ServedFile, g_status[Served]);
    if (Random(20) == 0) AskForTask();
    for (std::size_t n = Random(6); n > 0; n--)
        TraceMessageInline(1, 0, -1, "place %d line %d", g_place, ++g_status[Traced]);
}

// What must come in time.
void Check() {
    const Time now = Clock::now();
    std::size_t open = Busy() ? 1 : 0;
    for (Stream& stream : g_streams) {
        const Text peer = " process " + to_string(stream.peer);
        if (!stream.waiting.empty() && now >= stream.waiting.front().second + Due) {
            Fault("no acknowledgement of data " + to_string(stream.waiting.front().first) +
                  (stream.cookie == 0 ? " through the managers to" : " over a channel to") + peer);
            stream.waiting.clear();
        }
        if (stream.to.Get() == nullptr && now >= stream.since + Due) {
            Fault("no channel to" + peer);
            stream.since = now;
        }
        open += stream.waiting.size() + (stream.to.Get() == nullptr ? 1 : 0);
    }
    for (const Doubt& doubt : g_doubts)
        if (now >= doubt.until) Fault(doubt.what + " although it lives");
    g_doubts.remove_if([now](const Doubt& doubt) { return now >= doubt.until; });
    if (Busy() && now >= g_task.since + 2 * Due) {
        Fault("task " + to_string(g_task.number) + (g_task.taken ? "" : " not") + " taken, but" +
              (g_task.done ? "" : " not") + " done");
        g_task.taken = g_task.done = true;
    }
    g_status[Open] = static_cast<int>(open + g_doubts.size());
    Text text;
    for (const int count : g_status) text += to_string(count) + " ";
    SendText(g_controller, StatusType, text);
}

// --- life ---

// Place, controller and the configuration values that are known: from the command line or a task.
Text AwaitTask() {
    Message message;
    if (MsgWaitMessageWithTimeout(message.Address(), nullptr, PMGR_TASK_MSG, nullptr) != TRUE)
        return "";
    const auto* task = static_cast<PmgrTaskO>(message.Get()->oObject);  // both forms begin so
    return ObjGetString(static_cast<ObjStringO>(task->oUserArguments));
}

void CheckKnown(const char* file, int known, int& value) {
    value = std::max(Configured(file), 0);
    if (value < known) Fault(Text(file) + " has " + to_string(value) + ", not " + to_string(known));
}

constexpr Handler Handlers[] = {
    {RosterType, OnText<Roster>},
    {PMGR_PROCESS_DIED_MSG, On<PmgrProcessDiedS, PmgrProcessDiedMagic, Died>},
    {CMGR_PROCESS_UNREACHABLE_MSG,
     On<CmgrProcessUnreachableS, CmgrProcessUnreachableMagic, Unreachable>},
    {DataType, On<DataS, DataMagic, Data>},
    {AckType, OnNumber<Ack>},
    {MSG_CHANNEL_DOWN_MSG, On<void, 0, ChannelDown>},
    {MSG_CONNECTED_MSG, On<MsgConnectedS, MsgConnectedMagic, Connected>},
    {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG,
     On<PmgrGiveServiceATaskReturnS, PmgrGiveServiceATaskReturnMagic, TaskTaken>},
    {DoneType, OnNumber<TaskDone>},
    {QuietType, On<void, 0, [](MsgMessageO, void*) { g_status[Quiet] = 1; }>},
};

// Id given by the process manager, or none and the words that a task would bring.
const Role load("load", [](const std::vector<Text>& arguments) {
    const bool adopted = arguments.at(0).empty();
    if (ProcInitializeTags(OBJ_TAG_BEGIN, 7, adopted ? nullptr : arguments[0].c_str(), 3,
                           BooleanFrom(!adopted), 9, "load", OBJ_TAG_END) != TRUE)
        return 9;
    for (const auto& [type, handle] : Handlers) MsgWaitAddHandler(type, handle, nullptr);
    std::istringstream words(adopted ? arguments.at(1) : AwaitTask());
    int local = 0, served = 0;
    if (!(words >> g_place >> g_controller >> local >> served)) return 8;
    TraceToFile(("place" + to_string(g_place) + ".log").c_str());
    g_random.seed(static_cast<unsigned>(ProcGetId()));
    clientconfig::WorkForClient(SysLocalMachineName());
    LogLocally();
    LogSetClass("SOAK");
    CheckKnown(LocalFile, local, g_status[Local]);
    CheckKnown(ServedFile, served, g_status[Served]);
    Watch(g_controller);
    SendText(g_controller, HelloType, to_string(g_place) + " " + to_string(getpid()));
    Time check = Clock::now(), work = check;
    for (;;) {
        const TimeoutIn turn(20);
        MsgWaitPollWithTimeout(turn.Get());
        const Time now = Clock::now();
        if (g_status[Quiet] == 0 && now >= work) {
            Work();
            work = now + std::chrono::milliseconds(20);
        }
        if (now >= check + std::chrono::seconds(1)) {
            Check();
            check = now;
        }
    }
});

void DoTask(MsgMessageO message, void* /*body*/) {
    const auto* task = static_cast<PmgrTaskO>(message->oObject);
    MsgSendObject(task->oSource, DoneType, task->oUserArguments);
    ProcSendStatus(eProcStatusTaskRequired);
}

// A worker does a task and waits for the next one.
const Role worker("worker", [](const std::vector<Text>& arguments) {
    if (ProcInitializeTags(OBJ_TAG_BEGIN, 7, arguments.at(0).c_str(), 3, TRUE, 9, "worker",
                           OBJ_TAG_END) != TRUE)
        return 9;
    MsgWaitAddHandler(PMGR_TASK_MSG, On<void, 0, DoTask>, nullptr);
    while (MsgWaitPollWithTimeout(nullptr) == TRUE) {
    }
    return 0;
});

}  // namespace
