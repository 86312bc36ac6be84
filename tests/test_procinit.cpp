// Becoming a managed process: a child process has its interprocess link on one end of a pair of
// sockets, and what its managers say lies in the other before it begins; segments are made by hand.
#include <sys/shm.h>
#include <sys/socket.h>

#include <map>

#include "core/context.h"
#include "core/kilntime.h"
#include "core/list.h"
#include "core/msgchannel.h"
#include "core/objwrappers.h"
#include "core/procapi.h"
#include "core/procinit.h"
#include "support/files.h"
#include "support/leftovers.h"
#include "support/messages.h"
#include "support/roles.h"
#include "support/shown.h"

using Text = std::string;
using std::to_string;

namespace {

// A segment of this test, as another process manager would make it.
class Segment {
 public:
    explicit Segment(std::size_t size)
        : id(shmget(IPC_PRIVATE, size, 0600)), m_base(static_cast<char*>(shmat(id, nullptr, 0))) {}
    ~Segment() {
        shmdt(m_base);
        Remove();
    }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;
    void Remove() const { shmctl(id, IPC_RMID, nullptr); }
    template <class T>
    T* At(int32 offset) const {
        return reinterpret_cast<T*>(m_base + offset);
    }
    int32& Word(int32 offset) const { return *At<int32>(offset); }
    int Attached() const {
        shmid_ds status = {};
        shmctl(id, IPC_STAT, &status);
        return static_cast<int>(status.shm_nattch);
    }
    int id;

 private:
    char* m_base;
};

// Record, progress buffer and reference time, each up to the next or the end of the segment.
constexpr int32 DetailsAt = 8, TraceAt = DetailsAt + 104, TraceBytes = 3000;
constexpr int32 ProgressAt = TraceAt + 16 + TraceBytes, ProgressBytes = 40;
constexpr int32 KilnAt = ProgressAt + 8 + ProgressBytes, Whole = KilnAt + 44;
constexpr int32 Slots = 3, TableBytes = 4 + Slots * 12;
static_assert(KilnAt % 8 == 0);

struct Memory {
    Segment details{Whole};
    Segment table{TableBytes};
    Memory() {
        std::strcpy(details.At<char>(DetailsAt), "titled");
        details.Word(TraceAt) = TraceBytes;
        details.Word(ProgressAt) = ProgressBytes;
        details.At<KilnTimeOffsetT>(KilnAt)->llUTCOffset = 5000;
        details.At<KilnTimeOffsetT>(KilnAt)->bHaveOffset = 1;
        table.Word(0) = Slots;
        table.Word(4) = 77;
    }
    void Remove() const {
        details.Remove();
        table.Remove();
    }
};

struct Place : New<PmgrAttachToUnixShmS> {
    explicit Place(const Memory& memory)
        : New(PmgrAttachToUnixShmMagic, "i;i;i;i;i;",
              {memory.details.id, memory.table.id, DetailsAt, ProgressAt, KilnAt}) {}
};

// From the process manager.
struct Said : Packet {
    explicit Said(MsgTypeT type, void* body = nullptr) {
        const ::Address from(At(".:1")), to(At(".:107"));
        EXPECT_EQ(MsgCreatePacket(Address(), to.Get(), from.Get(), type, body), TRUE);
    }
};

// --- a process alone ---

// What the managers say to the process, and what it has said; spoken on the link's other end.
class Managers {
 public:
    Managers() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
        m_end = ends[1];
        MsgChannelCreateInternal(&gtTlContext.sMsg.oIpcChannel, ends[0], MsgCommMgrAddress(),
                                 eMsgChannelBlocking, eMsgChannelNotifyDown, eMsgChannelIpcChannel,
                                 eMsgChannelDoNotWaitForOk, eMsgChannelNotGuiChannel);
    }
    // "L=name" sets a locale ("L=" none, "L" without a body), "A" gives the place, "T" a task in
    // the old form, "E" hangs up, any other word is the number of a type.
    void Say(const Text& word, const Memory& memory) const {
        if (word == "E") return static_cast<void>(shutdown(m_end, SHUT_WR));
        const Place place(memory);
        const New<PmgrSetLocaleS> locale(PmgrSetLocaleMagic, "s;o;");
        const New<PmgrTaskS> task(PmgrTaskMagic, "o;i;o;i;");
        if (word.size() > 2) locale->pstrLocale = StrDuplicate(word.c_str() + 2);
        const std::map<char, std::pair<MsgTypeT, void*>> messages = {
            {'L', {PMGR_SET_LOCALE_MSG, word == "L" ? nullptr : locale.Get()}},
            {'A', {PMGR_ATTACH_TO_SHM_MSG, place.Get()}},
            {'T', {PMGR_TASK_MSG, task.Get()}}};
        const auto found = messages.find(word[0]);
        const auto [type, body] = found == messages.end()
                                      ? std::pair<MsgTypeT, void*>(std::stoi(word), place.Get())
                                      : found->second;
        const Said said(type, body);
        const auto& bytes = said.Get()->tMessage;
        if (send(m_end, bytes.pData, static_cast<size_t>(bytes.lSize), 0) != bytes.lSize) abort();
    }
    // Types, receivers and bodies of what has been said to them; after the library's end only
    // types. "PID" stands for the number that the system has given.
    Text Heard(bool bodies) const {
        Text all;
        Text bytes(65536, '\0');
        bytes.resize(static_cast<size_t>(
            std::max<ssize_t>(recv(m_end, bytes.data(), bytes.size(), MSG_DONTWAIT), 0)));
        while (!bytes.empty()) {
            MsgHeaderT header;
            std::memcpy(&header, bytes.data(), sizeof(header));
            all += " " + to_string(header.tMsgType);
            if (bodies) {
                void* const copy = MemAllocateFromPool(header.lLength, MemGetDefaultPoolId());
                const New<MsgPacketS> packet(MsgPacketMagic, "d;", {{header.lLength, copy}});
                bytes.copy(static_cast<char*>(copy), static_cast<size_t>(header.lLength));
                ObjHolder<void> body;
                MsgObjectFromPacketInternal(body.Address(), packet.Get(), 0);
                all +=
                    ">" + to_string(header.tDestination.tProcessId) + " " + ObjectText(body.Get());
            }
            bytes.erase(0, static_cast<size_t>(header.lLength));
        }
        for (const char* end : {",", ")"}) {
            const Text real = "," + to_string(getpid()) + end;
            for (size_t at; (at = all.find(real)) != Text::npos;)
                all.replace(at, real.size(), Text(",PID") + end);
        }
        return all;
    }

 private:
    int m_end;
};

struct Start {
    const char* id;
    Text script;  // what the managers say
    Text seen;    // what comes of it
    std::function<void(ProcInitializeArgsO)> set = nullptr;
    std::function<bool()> join = nullptr;  // in its own way
};

bool Join(const Start& start, const Managers& managers, const Memory& memory) {
    for (const Text& word : Split(start.script, ' ')) managers.Say(word, memory);
    if (start.join != nullptr) return start.join();
    ProcInitializeArgsO args = ProcNewInitializeArgs();
    if (start.id != nullptr) args->pstrProcId = StrDuplicate(start.id);
    if (start.set != nullptr) start.set(args);
    return ProcInitializeArgs(&args) == TRUE;
}

// Result, id, name, locale | what is received afterwards | what the managers have heard | errors.
Text Started(const Start& start) {
    const Memory memory;
    const RunResult result = InChild([&] {
        const TraceCapture trace;
        const Managers managers;
        MsgQuickExit(TRUE);  // nobody hangs up
        const bool joined = Join(start, managers, memory);
        Text text = "failed |";
        if (joined) {
            char* locale = nullptr;
            LocaleGetLocale(&locale);
            text = to_string(ProcGetId()) + " " + NameText(ProcName()) + " " + Owned(locale) + " |";
            while (MsgReceiveCount() > 0) {
                Packet packet;
                MsgReceivePacket(packet.Address(), nullptr);
                text += " " + to_string(MsgPacketMsgType(packet.Get()));
            }
        }
        text += " |" + managers.Heard(joined) + " |";
        for (const auto& record : trace.Records()) {
            const bool error = record.module == "PROCESS" && record.level == -1;
            if (error && record.text.find("ProcInitializeTags") == Text::npos)
                text += " " + record.text + ";";
        }
        std::printf("%s", text.c_str());
        return std::fflush(stdout);
    });
    return result.signal == 0 ? result.output : "signal " + to_string(result.signal);
}

Text Initial(const Text& legacy, int flags = 0) {
    return " 1040>1 PmgrProcessInitialStatus(PmgrProcessStatus(" + legacy + ")," +
           to_string(flags) + ",-)";
}
Text Status(int status) { return " 1004>1 PmgrProcessStatus(" + to_string(status) + ",0,0,0,0,0)"; }

// Joins as the process of an id, asks to be ended, and prints what comes of it: id, how, code.
int End(const std::vector<Text>& arguments) {
    static Memory* memory = new Memory;  // its segments outlive the process's use of them
    static Managers* managers = new Managers;
    const Text how = arguments[1];
    MsgQuickExit(TRUE);
    const char* id = arguments[0] == "-" ? nullptr : arguments[0].c_str();
    const bool joined = Join({id, how == "fails" ? "5" : "A", ""}, *managers, *memory);
    memory->Remove();
    MsgQuickExit(BooleanFrom(arguments[2] != "-2"));
    if (!joined) return raise(SIGTERM);
    managers->Heard(true);
    const auto tell = [](void* /*argument*/, int32 code) {
        std::printf("%d%s", code, managers->Heard(true).c_str());
        std::fflush(stdout);
    };
    std::atexit([] { std::printf("%s", memory->details.Attached() == 1 ? "" : "attached"); });
    ProcAddCleanupRoutine(tell, nullptr);
    if (how == "twice") ProcAddCleanupRoutine([](void*, int32) { raise(SIGTERM); }, nullptr);
    if (how == "signal") raise(SIGTERM);
    ProcCleanup(std::stoi(arguments[2]));
    return 99;
}
const Role endRole("end", End);

}  // namespace

TEST(ProcInit, WhatManagersSayInEveryOrder) {
    WriteInHome("locale/Welsh/locale.ctl", "1 \"un\"\n");
    const Text plain = Initial("0,0,0,0,0,0") + Status(3) + " |";
    const Start starts[] = {
        {"107", "A", "107 titled <null> | |" + plain},
        {"+107", "7001 L=Welsh 7002 1005 A T 7003",
         "107 titled Welsh | 7001 7002 1005 1010 7003 |" + plain},
        {"107", "L= L L=Dutch 7001 A",
         "107 titled Dutch | 7001 |" + plain +
             " No locale in PMGR_SET_LOCALE_MSG; Bad/No object in PMGR_SET_LOCALE_MSG;"
             " Failed to set 'Dutch' from PMGR_SET_LOCALE_MSG;"},
        {"2", "", "2 Communication Manager <null> | | |"},
        // Without an id, and a child of process 5: both learn theirs.
        {nullptr, "7001 A 7002",
         "107 titled <null> | 7001 7002 |" + Initial("1,PID,0,0,0,0") + Status(3) + " |"},
        {"-5", "A",
         "107 titled <null> | |" + Initial("1,PID,0,0,0,0") + Status(3) +
             " 2725>5 MsgChildInitialized(107,PID) 1005>1 PmgrNotifyOnDeath(.:5) |"},
        {" 107", "A", "107 child <null> | |" + Initial("0,0,0,1,1,0", 1) + Status(2) + " |",
         [](ProcInitializeArgsO args) {
             args->bWaitForTask = args->bWithProgress = args->bViewer = args->bNewStyleTasks = TRUE;
             args->pstrName = StrDuplicate("child");
         }},
        // The other ways in.
        {"107", "A", "107 titled <null> | |" + Initial("0,0,0,0,0,0") + Status(2) + " |", nullptr,
         [] {
             return ProcInitializeWithTrace("107", TRUE, "with.log", eTraceLevelLibNormal) ==
                        TRUE &&
                    TraceTracingToFile() == TRUE &&
                    TraceSetLevel(eTraceLevelUnchanged) == eTraceLevelLibNormal;
         }},
        {"107", "A", "107 titled <null> | |" + Initial("0,0,0,1,0,0") + Status(3) + " |", nullptr,
         [] {
             return ProcInitializeWithProgress("107", FALSE, nullptr, eTraceLevelLibNormal) ==
                        TRUE &&
                    ProcGetProgressBuffer()->lBufferSize == ProgressBytes;
         }},
        {nullptr, "A", "107 titled <null> | |" + Initial("1,PID,0,0,1,0") + Status(3) + " |",
         nullptr,
         [] {
             ProcProcessTableT* table = nullptr;
             ByteT* details = nullptr;
             return ProcInitializeViewer(&table, &details, nullptr, eTraceLevelLibNormal) == TRUE &&
                    ProcTableSlots(table)->tProcessId == 77 && details == ProcShmAddress(0);
         }},
        {nullptr, "A", "failed | | |", nullptr,
         [] {
             return ProcInitializeThread(nullptr, eTraceLevelLibNormal) == TRUE ||
                    ProcInitializeThreadWithProgress(nullptr, eTraceLevelLibNormal) == TRUE;
         }},
        // What are no ids.
        {"12x", "A", "failed | | 1004 |"},
        {"12 ", "A", "failed | | 1004 |"},
        {"", "A", "failed | | 1004 |"},
        {"4294967297", "A", "failed | | 1004 |"},
        {"-2147483648", "A", "failed | | 1004 |"},
        // The link fails, or its other end does, before and after the locale.
        {"107", "7001 5 A", "failed | | 1040 1004 | Message subsystem has failed (5);"},
        {"107", "L=Welsh 6 A", "failed | | 1040 1004 | Message subsystem has failed (6);"},
        {nullptr, "7001 E", "failed | | 1040 | Message subsystem has failed (3);"},
    };
    for (const Start& start : starts) {
        EXPECT_EQ(Started(start), start.seen)
            << (start.id == nullptr ? "-" : start.id) << ": " << start.script;
    }
}

TEST(ProcInit, EndsOnceInEveryWay) {
    const struct {
        const char* id;
        const char* how;
        const char* code;
        int exitCode;  // -1: of the signal
        Text told;     // the code, and what the process manager hears
    } cases[] = {
        {"107", "once", "0", 0, "0" + Status(4)},
        {"107", "once", "-1", 1, "-1" + Status(6)},
        {"107", "once", "-2", 0, "0" + Status(4)},
        {"107", "once", "7", 1, "7" + Status(4)},
        {"107", "twice", "0", 0, "0" + Status(4)},
        {"107", "signal", "0", 1, "15" + Status(4)},
        {"-", "signal", "0", -1, ""},  // an adopted process has its own ways
        {"107", "fails", "0", -1, ""},
    };
    for (const auto& c : cases) {
        Process process = Process::InRole("end", {c.id, c.how, c.code}, TestHome());
        EXPECT_EQ(process.Wait(), c.exitCode) << c.id << c.how << c.code;
        EXPECT_EQ(process.Rest(), c.told) << c.id << c.how << c.code;
    }
}

TEST(ProcInit, TraceFiles) {
    const struct {
        const char* file;
        BooleanT isName;
        std::vector<Text> made;
    } cases[] = {{"given.txt", FALSE, {"given.txt"}},
                 {"made", TRUE, {"made.log", "made107.log"}},
                 {"", TRUE, {}}};
    for (const auto& c : cases) {
        const TempDir directory;
        WriteInHome("config/configure.cfg",
                    "[Trace]\nTrace To File=TRUE\n[Directories]\nTrace=" + directory.Path() + "\n");
        Started({"107", "A", "", [&c](ProcInitializeArgsO args) {
                     args->pstrTraceFile = StrDuplicate(c.file);
                     args->bUseTraceName = c.isName;
                 }});
        EXPECT_EQ(ListDir(directory.Path()), c.made);
    }
    WriteInHome("config/configure.cfg", "");
}

// --- the shared memory ---

TEST(ProcAttach, EveryPlaceIsInsideItsSegment) {
    // A field by number, the same for a viewer, words by offset, the table's for one, a length.
    enum Where { Field, Viewed, Details, Table, Title };
    constexpr int32 segment = 0, table = 1, record = 2, progress = 3, kiln = 4;
    constexpr int32 traceRoom = Whole - TraceAt - 16, progressRoom = Whole - ProgressAt - 8;
    const struct {
        Where where;
        int32 at;
        std::vector<int32> good, bad;
    } cases[] = {
        {Field, segment, {}, {-1, INT_MAX}},
        {Field, table, {-1}, {}},
        {Viewed, table, {}, {-1}},
        {Viewed, record, {DetailsAt}, {}},
        {Field, record, {DetailsAt}, {-8, DetailsAt + 1, Whole - 116, INT_MAX & ~7}},
        {Field, progress, {0, ProgressAt}, {-4, Whole - 4, Whole}},
        {Field, kiln, {KilnAt}, {KilnAt + 1, KilnAt + 8, INT_MIN}},
        {Table, 0, {0, Slots}, {-1, Slots + 1, INT_MAX}},
        {Title, 0, {79}, {80}},
        {Details, TraceAt, {traceRoom}, {traceRoom + 1, INT_MAX, -1}},
        {Details, ProgressAt, {progressRoom}, {progressRoom + 1, INT_MIN}},
        {Details, ProgressAt + 4, {ProgressBytes}, {ProgressBytes + 1, -1}},
    };
    const NothingLeft nothing;
    const auto attach = [](Where where, int32 at, int32 value, BooleanT attached) {
        SCOPED_TRACE(to_string(where) + " " + to_string(at) + " " + to_string(value));
        const BooleanT viewer = BooleanFrom(where == Viewed || where == Table);
        const Memory memory;
        const Place place(memory);
        if (where <= Viewed) (&place->tDetailsId)[at] = value;
        if (where == Details) memory.details.Word(at) = value;
        if (where == Table) memory.table.Word(at) = value;
        if (where == Title)
            std::memset(memory.details.At<char>(DetailsAt), 'x', static_cast<size_t>(value));
        EXPECT_EQ(ProcAttachSharedMemory(Said(PMGR_ATTACH_TO_SHM_MSG, place.Get()).Get(), viewer),
                  attached);
        EXPECT_EQ(ProcTitle() != nullptr, attached == TRUE);
        EXPECT_EQ(memory.details.Attached(), 1 + attached);
        EXPECT_EQ(memory.table.Attached(), 1 + (attached & viewer));
        ProcDetachSharedMemory();
        EXPECT_EQ(memory.details.Attached() + memory.table.Attached(), 2);
        ProcSetName(nullptr);
    };
    for (const auto& c : cases) {
        for (const int32 value : c.good) attach(c.where, c.at, value, TRUE);
        for (const int32 value : c.bad) attach(c.where, c.at, value, FALSE);
    }
    EXPECT_EQ(ProcAttachSharedMemory(Said(PMGR_ATTACH_TO_SHM_MSG).Get(), FALSE), FALSE);
}

TEST(ProcAttach, WhatLiesInIt) {
    const NothingLeft nothing;
    const Memory memory;
    const Place place(memory);
    const Said said(PMGR_ATTACH_TO_SHM_MSG, place.Get());
    auto* trace = memory.details.At<TraceBufHeaderT>(TraceAt);
    TraceBufHeaderT* const own = TraceGetBuffer();
    for (int again = 0; again < 2; again++)  // the second time in the place of the first
        ASSERT_EQ(ProcAttachSharedMemory(said.Get(), TRUE), TRUE);
    EXPECT_EQ(memory.details.Attached(), 2);
    EXPECT_STREQ(ProcName(), "titled");
    EXPECT_EQ(ProcSetTitle(Text(200, 'x').c_str()), TRUE);
    EXPECT_EQ(memory.details.At<char>(DetailsAt), Text(79, 'x'));
    EXPECT_EQ(memory.details.Word(DetailsAt + 80), MemUsedCount());  // the title ends before it
    const ObjHolder<ObjIntegerS> object(ObjIntegerNew(1));
    EXPECT_EQ(memory.details.Word(DetailsAt + 80), MemUsedCount());
    EXPECT_EQ(memory.details.Word(DetailsAt + 92), ObjCount());
    LocaleSetLocale(nullptr);
    const TraceMessageHeaderT* newest = TraceCurrentMessage(trace);  // as others see it
    ASSERT_NE(newest, nullptr);
    EXPECT_STREQ(reinterpret_cast<const char*>(newest + 1), "LocaleSetLocale((null))");
    EXPECT_EQ(ProcGetProgressBuffer()->lBufferSize, ProgressBytes);
    TimeT reference = 0;
    KilnTime(&reference);
    EXPECT_LE(std::abs(TimeNow() - 5 - reference), 2);
    EXPECT_EQ(ProcTableSlots(gtTlContext.sProcess.ptProcessTable)->tProcessId, 77);
    EXPECT_EQ(InChild([] { return gtTlContext.sProcess.ptProcessTable->lSlotCount = 0; }).signal,
              SIGSEGV);
    // Offsets that another process's slot may hold.
    EXPECT_EQ(ProcDetailsAt(DetailsAt)->strTitle, Text(79, 'x'));
    EXPECT_EQ(static_cast<char*>(ProcShmAddress(Whole - 1)) - static_cast<char*>(ProcShmAddress(0)),
              Whole - 1);
    for (const int32 outside : {-8, Whole, Whole - 64, INT_MIN, INT_MAX & ~7})
        EXPECT_EQ(ProcDetailsAt(outside), nullptr) << outside;
    EXPECT_EQ(ProcShmAddress(Whole), nullptr);
    ProcDetachSharedMemory();
    EXPECT_EQ(TraceGetBuffer(), own);
    EXPECT_EQ(ProcTitle(), nullptr);
    EXPECT_EQ(ProcSetTitle("no place") + KilnTime(nullptr), FALSE);
    EXPECT_EQ(ProcGetProgressBuffer(), nullptr);
    EXPECT_EQ(ProcShmAddress(0), nullptr);
    ProcSetName(nullptr);
}
