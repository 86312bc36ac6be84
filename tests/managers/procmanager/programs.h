// The programs that the process manager starts: by name, at the start of the day and at its end.
#pragma once

#include "table.h"

// Starts a program, with a title. Its section in "programs.cfg" may say "unix", its path, which is
// its name otherwise and lies below the home directory unless it is absolute, and "Id", the id
// under which it alone runs; others get a new one. Null on failure, with the code of the error.
Managed* ProgramStart(const std::string& name, const std::string& title, ProcErrorE* peError);

// The programs of "procmgr.cfg" are started in their order. A step starts what can be started and
// says whether all is done; one that is waited for holds it up.
enum class DayE { GoesOn, Done, Failed };
DayE StartOfDayStep();
void StartOfDayReady(ProcIdT tId, PmgrStartOfDayReadyE eStatus);
void StartOfDayDied(ProcIdT tId);
DayE EndOfDayStep();
