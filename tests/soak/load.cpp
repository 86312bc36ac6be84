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
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "core/cfg.h"
#include "core/cfgutil.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/msgwait.h"
#include "core/objwrappers.h"
#include "core/procapi.h"
#include "core/procinit.h"
#include "core/strbase.h"
#include "core/task.h"
#include "soak.h"
#include "support/messages.h"
#include "support/roles.h"

TRACE_MODULE("SOAK")

namespace {

using Text = std::string;
using std::to_string;
using Time = Clock::time_point;

constexpr std::size_t Window = 16;  // data under way to one process on one way
constexpr std::size_t MostChannels = 4;
constexpr int DataPerChannel = 150;

// Data to one process on one way, through the managers or over a channel.
struct Stream {
    ProcIdT peer = 0;
    ::Address to;  // null while a channel is being opened
    int32 cookie = 0;
    int32 next = 1;
    std::deque<std::pair<int32, Time>> waiting;
    Time since = Clock::now();
};

int g_place = 0;
ProcIdT g_controller = 0;
Status g_status;
std::mt19937 g_random;
std::vector<ProcIdT> g_peers;          // that live
std::set<ProcIdT> g_watched;           // and will be told of
std::bitset<1 << 16> g_dead;           // ids are not given twice
std::map<ProcIdT, Stream> g_direct;    // by peer
std::list<Stream> g_channels;          // opened by this process
std::map<int32, int32> g_fromChannel;  // last number received, by channel
std::map<ProcIdT, int32> g_fromPeer;   // and through the managers
struct Doubt {
    ProcIdT peer;
    Time until;
    Text what;
};
std::list<Doubt> g_doubts;  // faults, unless the peer turns out to be dead
struct Task {
    int32 number = 0;
    bool taken = false, done = false;
    Time since;
} g_task;

int Random(int below) { return static_cast<int>(g_random() % static_cast<unsigned>(below)); }

void Tell(MsgTypeT type, const Text& text) {
    const ::Address to(AddressOf(g_controller));
    SendText(to.Get(), type, text);
}

void Fault(const Text& what) {
    Tell(FaultType,
         "place " + to_string(g_place) + ", process " + to_string(ProcGetId()) + ": " + what);
}

void DoubtAbout(ProcIdT peer, const Text& what) {
    if (peer > 0 && !g_dead[static_cast<std::size_t>(peer)])
        g_doubts.push_back({peer, Clock::now() + Due, what + " process " + to_string(peer)});
}

// --- peers come and go ---

void Watch(ProcIdT peer) {
    if (peer < 100 || g_dead[static_cast<std::size_t>(peer)] || !g_watched.insert(peer).second)
        return;
    const ::Address address(AddressOf(peer));
    ProcInformOnDeath(address.Get());
}

MsgWaitResultE Roster(MsgMessageO message, void* /*cookie*/) {
    std::istringstream ids(BodyText(message));
    g_peers.clear();
    for (ProcIdT id = 0; ids >> id;) {
        if (id == ProcGetId() || g_dead[static_cast<std::size_t>(id)]) continue;
        g_peers.push_back(id);
        Watch(id);
    }
    return eMsgWaitResultHandled;
}

MsgWaitResultE Died(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<PmgrProcessDiedS> body;
    if (MsgGetObject(body.Address(), message, PmgrProcessDiedMagic) != TRUE)
        return eMsgWaitResultHandled;
    const ProcIdT dead = MsgGetProcessId(body.Get()->oAddress);
    if (dead == g_controller) ProcCleanup(0);
    g_dead[static_cast<std::size_t>(dead)] = true;
    g_watched.erase(dead);
    std::erase(g_peers, dead);
    g_direct.erase(dead);
    g_fromPeer.erase(dead);
    g_doubts.remove_if([dead](const Doubt& doubt) { return doubt.peer == dead; });
    g_channels.remove_if([dead](const Stream& stream) { return stream.peer == dead; });
    return eMsgWaitResultHandled;
}

MsgWaitResultE Unreachable(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<CmgrProcessUnreachableS> body;
    if (MsgGetObject(body.Address(), message, CmgrProcessUnreachableMagic) == TRUE)
        DoubtAbout(MsgGetProcessId(body.Get()->oAddress), "unreachable is");
    return eMsgWaitResultHandled;
}

// --- data ---

bool FillIsRight(const DataS& data) {
    const auto* bytes = static_cast<const ByteT*>(data.tFill.pData);
    return std::all_of(bytes, bytes + data.tFill.lSize,
                       [&data](ByteT byte) { return byte == static_cast<ByteT>(data.lNumber); });
}

MsgWaitResultE Data(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<DataS> data;
    ::Address sender;
    if (MsgGetSender(sender.Address(), message) != TRUE) return eMsgWaitResultHandled;
    const ProcIdT from = MsgGetProcessId(sender.Get());
    Watch(from);
    if (g_dead[static_cast<std::size_t>(from)]) return eMsgWaitResultHandled;
    if (MsgGetObject(data.Address(), message, DataMagic) != TRUE || !FillIsRight(*data.Get()) ||
        data.Get()->tTo != ProcGetId()) {
        Fault("wrong data from process " + to_string(from));
        return eMsgWaitResultHandled;
    }
    const bool channel = MsgIsFromAChannel(message) == TRUE;
    int32& last = channel ? g_fromChannel[MsgGetChannelId(message->oSource)] : g_fromPeer[from];
    if (data.Get()->lNumber != last + 1)
        Fault("data " + to_string(data.Get()->lNumber) + " after " + to_string(last) + " from " +
              (channel ? "channel of process " : "process ") + to_string(from));
    last = data.Get()->lNumber;
    const ObjHolder<ObjIntegerS> number(ObjIntegerNew(last));
    MsgSendReply(message, AckType, number.Get());
    return eMsgWaitResultHandled;
}

std::list<Stream>::iterator ChannelAt(MsgAddressO address) {
    return std::find_if(g_channels.begin(), g_channels.end(), [address](const Stream& stream) {
        return stream.to.Get() != nullptr && MsgAddressEqual(stream.to.Get(), address) == TRUE;
    });
}

Stream* StreamTo(MsgMessageO message) {
    if (MsgIsFromAChannel(message) == TRUE) {
        const auto channel = ChannelAt(message->oSource);
        return channel == g_channels.end() ? nullptr : &*channel;
    }
    const auto direct = g_direct.find(MsgGetProcessId(message->oSource));
    return direct == g_direct.end() ? nullptr : &direct->second;
}

MsgWaitResultE Ack(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<ObjIntegerS> number;
    Stream* stream = StreamTo(message);
    if (stream == nullptr) return eMsgWaitResultHandled;  // of one that has died
    const int32 acked = MsgGetObject(number.Address(), message, ObjIntegerMagic) == TRUE
                            ? ObjGetInteger(number.Get())
                            : -1;
    const int32 expected = stream->waiting.empty() ? 0 : stream->waiting.front().first;
    if (acked != expected)
        Fault("acknowledgement " + to_string(acked) + " of process " + to_string(stream->peer) +
              " in the place of " + to_string(expected));
    while (!stream->waiting.empty() && stream->waiting.front().first < acked)
        stream->waiting.pop_front();
    if (stream->waiting.empty() || stream->waiting.front().first != acked)
        return eMsgWaitResultHandled;
    stream->waiting.pop_front();
    g_status.acked++;
    return eMsgWaitResultHandled;
}

void Send(Stream& stream) {
    if (stream.to.Get() == nullptr || stream.waiting.size() >= Window) return;
    const bool big = Random(300) == 0;
    const int32 size = big ? 100000 + Random(200000) : Random(2000);
    const ObjHolder<DataS> data(ObjNew<DataS>(DataMagic, DataDescriptor));
    *data.Get() = {
        stream.peer, stream.next, {size, MemAllocateFromPool(size, MemGetDefaultPoolId())}};
    std::memset(data.Get()->tFill.pData, stream.next & 0xff, static_cast<std::size_t>(size));
    stream.waiting.emplace_back(stream.next++, Clock::now());
    const ProcIdT peer = stream.peer;
    g_status.sent++;
    g_status.big += big ? 1 : 0;
    if (MsgSendObject(stream.to.Get(), DataType, data.Get()) != TRUE)
        DoubtAbout(peer, "data cannot be sent to");
}

// --- channels ---

void Forget(std::list<Stream>::iterator channel, const Text& what) {
    DoubtAbout(channel->peer, what + " " + to_string(channel->waiting.size()) +
                                  " acknowledgements outstanding, channel to");
    g_channels.erase(channel);
}

MsgWaitResultE ChannelDown(MsgMessageO message, void* /*cookie*/) {
    MsgAddressO address = message->oSource;
    g_fromChannel.erase(MsgGetChannelId(address));
    const auto channel = ChannelAt(address);
    if (channel != g_channels.end()) Forget(channel, "down with");
    ObjIncRefCount(address);
    MsgChannelClose(&address);
    return eMsgWaitResultHandled;
}

// Without a cookie another process has opened it.
MsgWaitResultE Connected(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<MsgConnectedS> body;
    if (MsgGetObject(body.Address(), message, MsgConnectedMagic) != TRUE ||
        ObjCheckTypeInternal(body.Get()->oCookie, ObjIntegerMagic) != TRUE)
        return eMsgWaitResultHandled;
    const int32 cookie = ObjGetInteger(static_cast<ObjIntegerO>(body.Get()->oCookie));
    const auto channel = std::find_if(
        g_channels.begin(), g_channels.end(),
        [cookie](const Stream& s) { return s.cookie == cookie && s.to.Get() == nullptr; });
    MsgAddressO address = std::exchange(body.Get()->oAddress, nullptr);
    if (channel == g_channels.end()) {  // its process has died
        if (address != nullptr) MsgChannelClose(&address);
    } else if (body.Get()->bSuccess == TRUE) {
        *channel->to.Address() = address;
        channel->since = Clock::now();
        g_status.channels++;
    } else {
        Forget(channel, "error " + to_string(body.Get()->lErrorCode) + " with");
    }
    return eMsgWaitResultHandled;
}

// Who waits for another process does so for one with a higher id only: never in a ring.
void OpenChannel(ProcIdT peer) {
    static int32 lLastCookie = 0;
    const ::Address target(AddressOf(peer));
    const ObjHolder<ObjIntegerS> cookie(ObjIntegerNew(++lLastCookie));
    const auto blocking = Random(2) == 0 ? eMsgChannelBlocking : eMsgChannelNonBlocking;
    const bool waits = peer > ProcGetId() && Random(2) == 0;
    g_channels.emplace_back();
    Stream& stream = g_channels.back();
    stream.peer = peer;
    stream.cookie = lLastCookie;
    const bool opened =
        MsgChannelOpenInternal(waits ? stream.to.Address() : nullptr, target.Get(), nullptr,
                               cookie.Get(), blocking,
                               waits ? eMsgChannelWaitForAccept : eMsgChannelDoNotWaitForAccept,
                               eMsgChannelWaitForOk) == TRUE;
    if (!opened)
        Forget(std::prev(g_channels.end()), "not opened,");
    else if (waits)
        g_status.channels++;
}

void UseChannel() {
    if (g_channels.size() < MostChannels && !g_peers.empty() && Random(5) == 0) {
        OpenChannel(g_peers[static_cast<std::size_t>(Random(static_cast<int>(g_peers.size())))]);
        return;
    }
    if (g_channels.empty()) return;
    const auto channel = std::next(g_channels.begin(), Random(static_cast<int>(g_channels.size())));
    if (channel->to.Get() == nullptr) return;
    if (channel->next <= DataPerChannel) return Send(*channel);
    if (!channel->waiting.empty()) return;
    MsgAddressO address = channel->to.Take();
    g_channels.erase(channel);
    if (MsgChannelClose(&address) != TRUE) Fault("a channel cannot be closed");
}

void UseManagers() {
    if (g_peers.empty()) return;
    const ProcIdT peer =
        g_peers[static_cast<std::size_t>(Random(static_cast<int>(g_peers.size())))];
    Stream& stream = g_direct[peer];
    if (stream.peer == 0) *stream.to.Address() = AddressOf(peer);
    stream.peer = peer;
    Send(stream);
}

// --- the rest of the load ---

void Log() {
    const UniqueT* none = nullptr;
    LogMessage(SoakLog, eLogLevelInformation, none, LogFormat, ProcGetId(), ++g_status.logged);
}

void Configure(const char* file, int* value) {
    const Text key = "Place " + to_string(g_place);
    int32 lRead = -1;
    if (CfgSetInteger(file, "Soak", key.c_str(), *value + 1) != TRUE)
        Fault(Text("cannot write ") + file);
    else
        ++*value;
    if (CfgGetInteger(&lRead, file, "Soak", key.c_str(), -1) != TRUE || lRead != *value)
        Fault(Text(file) + " has " + to_string(lRead) + " in the place of " + to_string(*value));
}

void AskForTask() {
    if (g_task.number != 0 && !(g_task.taken && g_task.done)) return;
    g_task = {g_task.number + 1, false, false, Clock::now()};
    ObjHolder<ProcAddressS> worker;
    ProcCreateAddress(worker.Address(), SysLocalMachineName(), "Worker", 4);
    const ObjHolder<ObjIntegerS> number(ObjIntegerNew(g_task.number));
    if (ProcGiveServiceATask(worker.Get(), nullptr, nullptr, FALSE, number.Get(), g_task.number) !=
        TRUE)
        Fault("no task can be given");
}

MsgWaitResultE TaskTaken(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<PmgrGiveServiceATaskReturnS> body;
    if (MsgGetObject(body.Address(), message, PmgrGiveServiceATaskReturnMagic) != TRUE ||
        body.Get()->bSuccess != TRUE || body.Get()->lCookie != g_task.number || g_task.taken)
        Fault("task " + to_string(g_task.number) + " is refused with error " +
              to_string(body.Get() == nullptr ? -1 : body.Get()->lErrorCode));
    g_task.taken = true;
    return eMsgWaitResultHandled;
}

MsgWaitResultE TaskDone(MsgMessageO message, void* /*cookie*/) {
    ObjHolder<ObjIntegerS> number;
    if (MsgGetObject(number.Address(), message, ObjIntegerMagic) != TRUE ||
        ObjGetInteger(number.Get()) != g_task.number || g_task.done)
        Fault("task " + to_string(g_task.number) + " is done wrongly");
    g_task.done = true;
    g_status.tasks++;
    return eMsgWaitResultHandled;
}

void Work() {
    for (int n = 0; n < 2; n++) Random(10) < 6 ? UseManagers() : UseChannel();
    if (Random(8) == 0) Log();
    if (Random(20) == 0) Configure(LocalFile, &g_status.local);
    if (Random(20) == 0) Configure(ServedFile, &g_status.served);
    if (Random(20) == 0) AskForTask();
    for (int n = Random(6); n > 0; n--)
        TraceMessageInline(1, 0, -1, "place %d line %d", g_place, ++g_status.traced);
}

// --- what must come in time ---

void CheckStream(Stream& stream, const char* way) {
    const Time late = Clock::now() - Due;
    if (stream.waiting.empty() || stream.waiting.front().second > late) return;
    Fault("no acknowledgement of data " + to_string(stream.waiting.front().first) + " " + way +
          " process " + to_string(stream.peer));
    stream.waiting.clear();
}

void Check() {
    const Time now = Clock::now();
    for (auto& [peer, stream] : g_direct) CheckStream(stream, "through the managers to");
    for (Stream& stream : g_channels) {
        CheckStream(stream, "over a channel to");
        if (stream.to.Get() != nullptr || now < stream.since + Due) continue;
        Fault("no channel to process " + to_string(stream.peer));
        stream.since = now;
    }
    for (const Doubt& doubt : g_doubts)
        if (now >= doubt.until) Fault(doubt.what + " although it lives");
    g_doubts.remove_if([now](const Doubt& doubt) { return now >= doubt.until; });
    const bool busy = g_task.number != 0 && !(g_task.taken && g_task.done);
    if (busy && now >= g_task.since + 2 * Due) {
        Fault("task " + to_string(g_task.number) + (g_task.taken ? "" : " not") + " taken, but" +
              (g_task.done ? "" : " not") + " done");
        g_task.taken = g_task.done = true;
    }
    std::size_t open = g_doubts.size() + (busy ? 1 : 0);
    for (const auto& [peer, stream] : g_direct) open += stream.waiting.size();
    for (const Stream& stream : g_channels)
        open += stream.waiting.size() + (stream.to.Get() == nullptr ? 1 : 0);
    g_status.open = static_cast<int>(open);
    Text text;
    ForEachCount(g_status, [&text](int count) { text += to_string(count) + " "; });
    Tell(StatusType, text);
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

void CheckKnown(const char* file, int known, int* value) {
    int32 lRead = 0;
    CfgGetInteger(&lRead, file, "Soak", ("Place " + to_string(g_place)).c_str(), 0);
    if (lRead < known) Fault(Text(file) + " has " + to_string(lRead) + ", not " + to_string(known));
    *value = lRead;
}

void AddHandlers() {
    const std::pair<MsgTypeT, MsgWaitHandlerT> handlers[] = {
        {RosterType, Roster},
        {PMGR_PROCESS_DIED_MSG, Died},
        {CMGR_PROCESS_UNREACHABLE_MSG, Unreachable},
        {DataType, Data},
        {AckType, Ack},
        {MSG_CHANNEL_DOWN_MSG, ChannelDown},
        {MSG_CONNECTED_MSG, Connected},
        {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, TaskTaken},
        {DoneType, TaskDone},
        {QuietType,
         [](MsgMessageO, void*) {
             g_status.quiet = 1;
             return eMsgWaitResultHandled;
         }},
    };
    for (const auto& [type, handler] : handlers) MsgWaitAddHandler(type, handler, nullptr);
}

// Id given by the process manager, or none and the words that a task would bring.
const Role load("load", [](const std::vector<Text>& arguments) {
    const bool adopted = arguments.at(0).empty();
    if (ProcInitializeTags(OBJ_TAG_BEGIN, 7, adopted ? nullptr : arguments[0].c_str(), 3,
                           BooleanFrom(!adopted), 9, "load", OBJ_TAG_END) != TRUE)
        return 9;
    AddHandlers();
    std::istringstream words(adopted ? arguments.at(1) : AwaitTask());
    int local = 0, served = 0;
    if (!(words >> g_place >> g_controller >> local >> served)) return 8;
    TraceToFile(("place" + to_string(g_place) + ".log").c_str());
    g_random.seed(static_cast<unsigned>(ProcGetId()));
    WorkForClient();
    LogLocally();
    LogSetClass("SOAK");
    CheckKnown(LocalFile, local, &g_status.local);
    CheckKnown(ServedFile, served, &g_status.served);
    Watch(g_controller);
    Tell(HelloType, to_string(g_place) + " " + to_string(getpid()));
    Time check = Clock::now(), work = check;
    for (;;) {
        const TimeoutIn turn(20);
        MsgWaitPollWithTimeout(turn.Get());
        const Time now = Clock::now();
        if (g_status.quiet == 0 && now >= work) {
            Work();
            work = now + std::chrono::milliseconds(20);
        }
        if (now >= check + std::chrono::seconds(1)) {
            Check();
            check = now;
        }
    }
});

// A worker does a task and waits for the next one.
const Role worker("worker", [](const std::vector<Text>& arguments) {
    if (ProcInitializeTags(OBJ_TAG_BEGIN, 7, arguments.at(0).c_str(), 3, TRUE, 9, "worker",
                           OBJ_TAG_END) != TRUE)
        return 9;
    MsgWaitAddHandler(
        PMGR_TASK_MSG,
        [](MsgMessageO message, void*) {
            const auto* task = static_cast<PmgrTaskO>(message->oObject);
            MsgSendObject(task->oSource, DoneType, task->oUserArguments);
            ProcSendStatus(eProcStatusTaskRequired);
            return eMsgWaitResultHandled;
        },
        nullptr);
    while (MsgWaitPollWithTimeout(nullptr) == TRUE) {
    }
    return 0;
});

}  // namespace

void WorkForClient() {
    const New<CfgUtilRemoteConfigDetailsS> details(CfgUtilRemoteConfigDetailsMagic, "s;s;o;");
    details->pstrServer = StrDuplicate(SysLocalMachineName());
    details->pstrClient = StrDuplicate("client");
    ObjHolder<TaskContextS> task;
    TaskCreateContext(task.Address());
    TaskSetContextObject(task.Get(), details.Get());
    TaskSetTaskContext(task.Get());
}

void SendText(MsgAddressO to, MsgTypeT type, const Text& text) {
    const ObjHolder<ObjStringS> body(ObjStringNew(text.c_str()));
    MsgSendObject(to, type, body.Get());
}

Text BodyText(MsgMessageO message) {
    ObjHolder<ObjStringS> body;
    return MsgGetObject(body.Address(), message, ObjStringMagic) == TRUE ? ObjGetString(body.Get())
                                                                         : "";
}
