// Tasks for services, which "services.cfg" names:
//
//   [Backup]
//   Program=backup      as in ProgramStart
//   Interface=4         only tasks of this type; without it of any
//   Password=secret     only tasks that bring it
//   Once=TRUE           no second process while the first one is busy
#pragma once

#include "table.h"

// PMGR_GIVE_SERVICE_A_TASK_MSG: a process of the service that waits gets the task, or a new one as
// soon as it is there. The asker gets an answer in any case.
void TaskRequested(MsgMessageO oRequest, bool bEnding);
// The process is there and may be given the task that it has been started for.
void TaskDeliver(Managed* ptProcess);
// The process has gone before.
void TaskFailed(Managed* ptProcess);
// A service that has asked for it, before its end, gets a new process.
void ServiceRestart(const Managed& tProcess);
