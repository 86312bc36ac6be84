// The platform on Linux. The mount table is /proc/self/mounts, whose lines look like those of
// /etc/mnttab (device, directory, type and options, separated by blanks), with blanks and
// backslashes in a field written as a backslash and three octal digits. Linux counts dump passes
// where the other table has the mount time, and both are "0" here. The statistics of a file system
// do not tell its type; the mount table does.
#include "machines/solaris.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr char MachineMnttab[] = "/etc/mnttab";
constexpr char MachineProcMounts[] = "/proc/self/mounts";

constexpr bool MachineIsOctal(char c) { return c >= '0' && c <= '7'; }

// Replaces, in place, every backslash with three octal digits by the byte that it stands for.
void MachineUnescape(char* pstrText) {
    char* pWrite = pstrText;
    for (const char* pRead = pstrText; *pRead != 0; ++pWrite) {
        if (pRead[0] == '\\' && MachineIsOctal(pRead[1]) && MachineIsOctal(pRead[2]) &&
            MachineIsOctal(pRead[3])) {
            *pWrite =
                static_cast<char>((pRead[1] - '0') * 64 + (pRead[2] - '0') * 8 + (pRead[3] - '0'));
            pRead += 4;
        } else {
            *pWrite = *pRead++;
        }
    }
    *pWrite = 0;
}

// Cuts the next field out of the line and moves the cursor behind it; "" at the end of the line.
const char* MachineNextField(char** ppCursor) {
    char* pstrField = *ppCursor + std::strspn(*ppCursor, " \t");
    char* pEnd = pstrField + std::strcspn(pstrField, " \t");
    *ppCursor = *pEnd == 0 ? pEnd : pEnd + 1;
    *pEnd = 0;
    MachineUnescape(pstrField);
    return pstrField;
}

// FALSE at the end. What does not fit is read and dropped.
BooleanT MachineReadLine(FILE* pFile, char* pstrLine, int32 lSize) {
    if (std::fgets(pstrLine, lSize, pFile) == nullptr) return FALSE;
    char* pEnd = pstrLine + std::strcspn(pstrLine, "\n");
    if (*pEnd == 0) {
        int iChar = 0;
        while ((iChar = std::getc(pFile)) != EOF && iChar != '\n') {
        }
    }
    *pEnd = 0;
    return TRUE;
}

bool MachineHolds(std::string_view tMountPoint, std::string_view tPath) {
    if (tMountPoint == "/") return true;
    if (!tPath.starts_with(tMountPoint)) return false;
    return tPath.size() == tMountPoint.size() || tPath[tMountPoint.size()] == '/';
}

// The type of the longest mount point that the path lies below; of several in the same place, the
// one mounted last.
void MachineFindBaseType(MachineStatVfsT* ptStatistics, const char* pstrPath) {
    FILE* pfileTable = std::fopen(MachineMountTablePath(), "re");
    if (pfileTable == nullptr) return;
    std::size_t lLongest = 0;
    MachineMountEntryT tEntry;
    while (MachineMountTableNext(pfileTable, &tEntry) == TRUE) {
        const std::string_view tMountPoint(tEntry.pstrMountPoint);
        if (tMountPoint.size() < lLongest || !MachineHolds(tMountPoint, pstrPath)) continue;
        lLongest = tMountPoint.size();
        const std::string_view tType(tEntry.pstrFsType);
        const std::size_t lCopied =
            tType.copy(ptStatistics->acBaseType, sizeof(ptStatistics->acBaseType) - 1);
        ptStatistics->acBaseType[lCopied] = 0;
    }
    std::fclose(pfileTable);
}

}  // namespace

const char* MachineMountTablePath() {
    struct stat tStat;
    return stat(MachineMnttab, &tStat) == 0 ? MachineMnttab : MachineProcMounts;
}

BooleanT MachineMountTableNext(FILE* pfileTable, MachineMountEntryT* ptEntry) {
    while (MachineReadLine(pfileTable, ptEntry->acLine, MachineMountLineMax) == TRUE) {
        if (ptEntry->acLine[0] == '#') continue;
        char* pCursor = ptEntry->acLine;
        ptEntry->pstrSpecial = MachineNextField(&pCursor);
        ptEntry->pstrMountPoint = MachineNextField(&pCursor);
        ptEntry->pstrFsType = MachineNextField(&pCursor);
        ptEntry->pstrOptions = MachineNextField(&pCursor);
        ptEntry->pstrTime = MachineNextField(&pCursor);
        if (*ptEntry->pstrFsType != 0) return TRUE;
    }
    return FALSE;
}

BooleanT MachineStatVfs(MachineStatVfsT* ptStatistics, const char* pstrPath) {
    struct statvfs tSystem;
    int iResult = 0;
    do {
        iResult = statvfs(pstrPath, &tSystem);
    } while (iResult != 0 && errno == EINTR);
    if (iResult != 0) return FALSE;
    *ptStatistics = {};
    ptStatistics->ullFragmentSize = tSystem.f_frsize;
    ptStatistics->ullBlocks = tSystem.f_blocks;
    ptStatistics->ullBlocksFree = tSystem.f_bfree;
    ptStatistics->ullBlocksAvail = tSystem.f_bavail;
    ptStatistics->ullFiles = tSystem.f_files;
    ptStatistics->ullFilesFree = tSystem.f_ffree;
    MachineFindBaseType(ptStatistics, pstrPath);
    return TRUE;
}
