#include <algorithm>
#include <optional>
#include <vector>

#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stnzwrappers.h"
#include "core/strbase.h"
#include "parts.h"

namespace {

struct DayProgram {
    std::string name;
    int32 lOrder = 0;
    BooleanT bWaitForReady = FALSE;
    BooleanT bOptional = FALSE;
    int32 lWait = 0;  // seconds that it has to end
};

struct Day {
    std::vector<DayProgram> tPrograms;
    std::size_t uNext = 0;
    ProcIdT tWaitedFor = 0;
    Clock::time_point tUntil;
    bool bFailed = false;
    const DayProgram& Last() const { return tPrograms[uNext - 1]; }
};
std::optional<Day> gtStart, gtEnd;

std::string PathOf(const std::string& name) {
    const std::string unix = Setting("programs.cfg", name, "unix");
    const std::string& path = unix.empty() ? name : unix;
    if (path.starts_with('/')) return path;
    return PoolPtr<char>(PathHomeBuild(path.c_str(), nullptr)).Get();
}

bool RunsHere(StnzT* pStanza) {
    BooleanT bServer = FALSE, bRuns = FALSE;
    CfgGetBoolean(&bServer, "configure.cfg", "Details", "Server", FALSE);
    StnzGetBoolean(pStanza, bServer == TRUE ? "Run on Server" : "Run on Client", FALSE, &bRuns);
    return bRuns == TRUE;
}

Day ReadDay(const char* pstrCategory) {
    Day tDay;
    ObjHolder<ListS> oStanzas;
    if (CfgGetStanzaList(oStanzas.Address(), "procmgr.cfg") != TRUE) return tDay;
    for (ListNodeO oNode = oStanzas.Get()->oFirst; oNode != nullptr; oNode = oNode->oNext) {
        StnzT* pStanza = ObjGetStanza(static_cast<ObjStanzaO>(oNode->oData));
        if (pStanza->pstrCatagory == nullptr ||
            StrCompareNoCase(pStanza->pstrCatagory, pstrCategory) != 0 || !RunsHere(pStanza))
            continue;
        DayProgram& tProgram = tDay.tPrograms.emplace_back();
        tProgram.name = pStanza->pstrTitle;
        StnzGetInteger(pStanza, "Run order", 0, &tProgram.lOrder);
        StnzGetBoolean(pStanza, "Wait for Ready", FALSE, &tProgram.bWaitForReady);
        StnzGetBoolean(pStanza, "Optional", FALSE, &tProgram.bOptional);
        StnzGetInteger(pStanza, "Wait", 0, &tProgram.lWait);
    }
    std::ranges::stable_sort(tDay.tPrograms, {}, &DayProgram::lOrder);
    return tDay;
}

// Starts the next program; its id, or 0 when it cannot be started.
ProcIdT StartNext(Day* ptDay) {
    ProcErrorE eError = eProcErrorNone;
    const std::string& name = ptDay->tPrograms[ptDay->uNext++].name;
    const Managed* ptStarted = ProgramStart(name, name, &eError);
    return ptStarted == nullptr ? 0 : ptStarted->tId;
}

}  // namespace

Managed* ProgramStart(const std::string& name, const std::string& title, ProcErrorE* peError) {
    int32 lId = 0;
    ProcProcessInfoT tStarted = {};
    CfgGetInteger(&lId, "programs.cfg", name.c_str(), "Id", 0);
    *peError = eProcErrorAlreadyRunning;
    if (lId != 0 && TableFind(lId) != nullptr) return nullptr;
    Managed* ptProcess = TableAdd(lId, title);
    *peError = eProcErrorTooManyProcesses;
    if (ptProcess == nullptr) return nullptr;
    *peError = eProcErrorSpawnFailed;
    if (ProcStartProcess(&tStarted, PathOf(name).c_str(), ptProcess->tId) != TRUE) {
        TableRemove(ptProcess->tId);
        return nullptr;
    }
    *peError = eProcErrorNone;
    ptProcess->tRealId = tStarted.tRealProcessId;
    ptProcess->bChild = true;
    return ptProcess;
}

DayE StartOfDayStep() {
    if (!gtStart) gtStart = ReadDay("Start of Day");
    while (!gtStart->bFailed && gtStart->tWaitedFor == 0 &&
           gtStart->uNext < gtStart->tPrograms.size()) {
        const ProcIdT tStarted = StartNext(&*gtStart);
        if (tStarted == 0)
            gtStart->bFailed = gtStart->Last().bOptional != TRUE;
        else if (gtStart->Last().bWaitForReady == TRUE)
            gtStart->tWaitedFor = tStarted;
    }
    if (gtStart->bFailed) return DayE::Failed;
    return gtStart->tWaitedFor == 0 ? DayE::Done : DayE::GoesOn;
}

void StartOfDayReady(ProcIdT tId, PmgrStartOfDayReadyE eStatus) {
    if (!gtStart || tId == 0 || tId != gtStart->tWaitedFor) return;
    gtStart->tWaitedFor = 0;
    if (eStatus == ePSODRError) gtStart->bFailed = gtStart->Last().bOptional != TRUE;
}

DayE EndOfDayStep() {
    if (!gtEnd) gtEnd = ReadDay("End of Day");
    for (;;) {
        if (TableFind(gtEnd->tWaitedFor) != nullptr && Clock::now() < gtEnd->tUntil)
            return DayE::GoesOn;
        if (gtEnd->uNext == gtEnd->tPrograms.size()) return DayE::Done;
        gtEnd->tWaitedFor = StartNext(&*gtEnd);
        gtEnd->tUntil = Clock::now() + std::chrono::seconds(gtEnd->Last().lWait);
    }
}
