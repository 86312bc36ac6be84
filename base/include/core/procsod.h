// The programs that the process manager runs at the start and at the end of the day: stanzas of
// "procmgr.cfg", "[Start of Day:PROGRAM]" and "[End of Day:PROGRAM]", whose integer "Run order"
// says in which order (docs/configuration.md). Each program is listed once in its list: what is
// inserted anew moves.
//
// Every operation numbers the list 1, 2, 3, ... in its order; a program that is alone gets 0. They
// read and rewrite the file, which is made when missing, under one lock. FALSE, with the file as it
// was, for an empty program, for an insertion point that is not in the list (nor can it be the
// program itself), and in a task whose configuration another machine keeps.
#pragma once

#include "core/types.h"

// Before or behind the program pstrInsertPoint; null stands for the first of the list when
// inserting before, for the last when inserting behind. bWaitForReady: the next one is started when
// the program has called ProcSendSODReady; bOptional: the day begins without it, too.
BooleanT ProcInsertSODProcess(const char* pstrNewEntry, BooleanT bRunOnServer,
                              BooleanT bRunOnClient, BooleanT bWaitForReady, BooleanT bOptional,
                              BooleanT bInsertBefore, const char* pstrInsertPoint);
BooleanT ProcAddSODProcessToEnd(const char* pstrNewEntry, BooleanT bRunOnServer,
                                BooleanT bRunOnClient, BooleanT bWaitForReady, BooleanT bOptional);
BooleanT ProcAddSODProcessToBegining(const char* pstrNewEntry, BooleanT bRunOnServer,
                                     BooleanT bRunOnClient, BooleanT bWaitForReady,
                                     BooleanT bOptional);

// lExitDelay: the key "Wait"; 0 for none.
BooleanT ProcInsertEODProcess(const char* pstrNewEntry, BooleanT bRunOnServer,
                              BooleanT bRunOnClient, int32 lExitDelay, BooleanT bInsertBefore,
                              const char* pstrInsertPoint);
BooleanT ProcAddEODProcessToEnd(const char* pstrNewEntry, BooleanT bRunOnServer,
                                BooleanT bRunOnClient, int32 lExitDelay);
BooleanT ProcAddEODProcessToBegining(const char* pstrNewEntry, BooleanT bRunOnServer,
                                     BooleanT bRunOnClient, int32 lExitDelay);
