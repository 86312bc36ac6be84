// The managed processes of a machine, and the shared memory in which they show themselves.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "../manager.h"
#include "core/procapi.h"
#include "core/procinit.h"

struct MessageReleaser {
    void operator()(MsgMessageO oMessage) const { ObjRelease(&oMessage); }
};
using HeldMessage = std::unique_ptr<MsgMessageS, MessageReleaser>;

constexpr ProcIdT TableFirstFreeId = 100;  // those below are given to programs by name

struct Managed {
    ProcIdT tId = 0;
    ProcRealIdT tRealId = -1;  // -1 while it is not known
    bool bChild = false;       // this process waits for its end, ...
    bool bEnded = false;       // which has come,
    bool bLinked =
        false;  // but there may be words of it on the way: those come before its link goes
    int32 lSlot = 0;
    std::string title;  // the program, or empty
    bool bService = false;
    HeldMessage tTask;   // the request that it has been started for
    std::string locale;  // that it is to begin with
    std::set<std::pair<std::string, ProcIdT>> tWatchers;
};

std::map<ProcIdT, Managed>& Table();

// The segments; FALSE when they cannot be made. They go with the process.
BooleanT TableCreate();
// A new process with the next free id (0) or a given one; null when there is no place.
Managed* TableAdd(ProcIdT tId, const std::string& title);
Managed* TableFind(ProcIdT tId);  // null when there is none
void TableRemove(ProcIdT tId);

ProcStateE TableState(const Managed& tProcess);
void TableSetState(const Managed& tProcess, ProcStateE eState);
// Leads the process to its place.
void TableSendPlace(const Managed& tProcess, bool bProgress);

MsgAddressO LocalAddressOf(ProcIdT tId);  // a new holder
void SendTo(ProcIdT tId, MsgTypeT tMsgType, void* oBody);
