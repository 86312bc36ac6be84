// What the parts of the process manager offer each other.
#pragma once

#include <chrono>
#include <map>
#include <memory>

#include "../manager.h"
#include "core/memory.h"
#include "core/procapi.h"

using Clock = std::chrono::steady_clock;

inline void SendTo(ProcIdT tId, MsgTypeT tMsgType, void* oBody) {
    MsgSendObject(AddressTo(tId).Get(), tMsgType, oBody);
}

// A text of the configuration; "" when there is none.
inline std::string Setting(const char* pstrFile, const std::string& section, const char* pstrKey) {
    PoolPtr<char> pstrValue;
    CfgGetString(pstrValue.Address(), pstrFile, section.c_str(), pstrKey, "");
    return pstrValue.Get() == nullptr ? "" : pstrValue.Get();
}

// --- table.cpp: the managed processes, and the shared memory in which they show themselves ---

struct MessageReleaser {
    void operator()(MsgMessageO oMessage) const { ObjRelease(&oMessage); }
};
using HeldMessage = std::unique_ptr<MsgMessageS, MessageReleaser>;

constexpr ProcIdT TableFirstFreeId = 100;  // those below are given to programs by name

struct Managed {
    ProcIdT tId = 0;
    ProcRealIdT tRealId = -1;  // -1 while it is not known
    bool bChild = false;       // this process waits for its end, ...
    bool bEnded = false;       // which has come, ...
    bool bLinked = false;      // but words of it may be under way: they come before its link goes
    int32 lSlot = 0;
    std::string title;  // the program, or empty
    bool bService = false;
    HeldMessage tTask;   // the request that it has been started for
    std::string locale;  // that it is to begin with
    WatchersT tWatchers;
};

std::map<ProcIdT, Managed>& Table();

// The segments; FALSE when they cannot be made. They go with the process.
BooleanT TableCreate();
// A new process with the next free id (0) or a given one; null when there is no place.
Managed* TableAdd(ProcIdT tId, const std::string& title);
Managed* TableFind(ProcIdT tId);  // null when there is none
void TableRemove(ProcIdT tId);
int32& TableState(const Managed& tProcess);
// Leads the process to its place.
void TableSendPlace(const Managed& tProcess, bool bProgress);

// --- programs.cpp: what is started by name, at the start of the day and at its end ---

// Starts a program, with a title. Its section in "programs.cfg" may say "unix", its path, which is
// its name otherwise and lies below the home directory unless it is absolute, and "Id", the id
// under which it alone runs; others get a new one. Null on failure, with the code of the error.
Managed* ProgramStart(const std::string& name, const std::string& title, ProcErrorE* peError);

// The programs of "procmgr.cfg" are started in their order. A step starts what can be started and
// says whether all is done; one that is waited for holds it up.
enum class DayE { GoesOn, Done, Failed };
DayE StartOfDayStep();
// Also of one that has died.
void StartOfDayReady(ProcIdT tId, PmgrStartOfDayReadyE eStatus);
DayE EndOfDayStep();

// --- tasks.cpp: tasks for services, which "services.cfg" names ---
//
//   [Backup]
//   Program=backup      as in ProgramStart
//   Interface=4         only tasks of this type; without it of any
//   Password=secret     only tasks that bring it
//   Once=TRUE           no second process while the first one is busy

// PMGR_GIVE_SERVICE_A_TASK_MSG: a process of the service that waits gets the task, or a new one as
// soon as it is there. The asker gets an answer in any case.
void TaskRequested(MsgMessageO oRequest, bool bEnding);
// The process is there and may be given the task that it has been started for.
void TaskDeliver(Managed* ptProcess);
// The process has gone before.
void TaskFailed(Managed* ptProcess);
// A service that has asked for it, before its end, gets a new process.
void ServiceRestart(const Managed& tProcess);
