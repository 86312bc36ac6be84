// What the programs of this machine agree on: their messages, and how they speak of themselves.
#pragma once

#include <cstdarg>
#include <cstdio>

#include "core/context.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/msgchannel.h"
#include "core/msgwait.h"
#include "core/objwrappers.h"
#include "core/procapi.h"
#include "core/procinit.h"

// A task's argument is the number of lines (ObjIntegerS) that the service is to trace. WorkDoneType
// goes to the asker of the task, with the lines traced so far (ObjIntegerS); HowManyType asks any
// service for that number, without a body, and is answered with ThatManyType.
constexpr MsgTypeT WorkDoneType = 20000, HowManyType = 20001, ThatManyType = 20002;

// The argument of a task that asks for nothing: the service still reports back.
constexpr int32 InterfaceNone = 0;

constexpr int32 LogStarted = LogNumber(1000, 1), LogWorked = LogNumber(1000, 2),
                LogEnded = LogNumber(1000, 3), LogDayIsOver = LogNumber(1000, 4);

// "running.cfg" [Service] Id: of this machine.
constexpr char RunningFile[] = "running.cfg", RunningKey[] = "Id";
// "counts.cfg" [Service] Lines: kept by the configuration server for the machine of this name.
constexpr char CountsFile[] = "counts.cfg", CountsClient[] = "branch", CountsKey[] = "Lines";
