// Affinity comes from one call. A control group's limit stands in files of the group and of every
// group above it, below the mount point of the hierarchy: /proc/self/mountinfo says where that is,
// /proc/self/cgroup which group the process is in. Both generations may be mounted at once.
#include "processors.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::vector<std::string> Lines(const char* pstrPath) {
    std::vector<std::string> tLines;
    FILE* pFile = fopen(pstrPath, "re");
    if (pFile == nullptr) return tLines;
    char* pstrLine = nullptr;
    std::size_t lRoom = 0;
    for (ssize_t lLength; (lLength = getline(&pstrLine, &lRoom, pFile)) > 0;) {
        if (pstrLine[lLength - 1] == '\n') lLength--;
        tLines.emplace_back(pstrLine, static_cast<std::size_t>(lLength));
    }
    free(pstrLine);
    fclose(pFile);
    return tLines;
}

std::vector<std::string> Fields(std::string_view tText, char cSeparator) {
    std::vector<std::string> tFields;
    while (true) {
        const std::size_t lEnd = tText.find(cSeparator);
        tFields.emplace_back(tText.substr(0, lEnd));
        if (lEnd == std::string_view::npos) return tFields;
        tText.remove_prefix(lEnd + 1);
    }
}

bool Contains(const std::vector<std::string>& tList, const char* pstrItem) {
    return std::find(tList.begin(), tList.end(), pstrItem) != tList.end();
}

// Number of processors that a quota amounts to; 0 for no limit.
int32 Processors(const std::string& strQuota, const std::string& strPeriod) {
    const int64 llQuota = std::atoll(strQuota.c_str());  // "max" and -1 are no limit
    const int64 llPeriod = std::atoll(strPeriod.c_str());
    if (llQuota < 1 || llPeriod < 1) return 0;
    return static_cast<int32>(std::min<int64>((llQuota - 1) / llPeriod + 1, INT32_MAX));
}

std::string FirstLine(const std::string& strPath) {
    const std::vector<std::string> tLines = Lines(strPath.c_str());
    return tLines.empty() ? std::string() : tLines[0];
}

int32 QuotaOfGroup(const std::string& strDirectory, bool bUnified) {
    if (!bUnified) {
        return Processors(FirstLine(strDirectory + "/cpu.cfs_quota_us"),
                          FirstLine(strDirectory + "/cpu.cfs_period_us"));
    }
    const std::vector<std::string> tFields = Fields(FirstLine(strDirectory + "/cpu.max"), ' ');
    return tFields.size() == 2 ? Processors(tFields[0], tFields[1]) : 0;
}

int32 Smaller(int32 lLimit, int32 lOther) {
    if (lLimit == 0 || lOther == 0) return lLimit + lOther;
    return std::min(lLimit, lOther);
}

// The least quota from a group up to the mount point.
int32 QuotaOfPath(const std::string& strMountPoint, std::string strGroup, bool bUnified) {
    int32 lLimit = QuotaOfGroup(strMountPoint, bUnified);
    while (strGroup.size() > 1) {
        lLimit = Smaller(lLimit, QuotaOfGroup(strMountPoint + strGroup, bUnified));
        strGroup.resize(strGroup.rfind('/'));
    }
    return lLimit;
}

// The path of the process's group in the unified hierarchy or in the one with the controller "cpu".
std::string GroupOf(const std::vector<std::string>& tGroups, bool bUnified) {
    for (const std::string& strGroup : tGroups) {
        const std::vector<std::string> tFields = Fields(strGroup, ':');
        if (tFields.size() < 3 || tFields[2].empty() || tFields[2][0] != '/') continue;
        const bool bFound = bUnified ? tFields[0] == "0" : Contains(Fields(tFields[1], ','), "cpu");
        // A path may hold colons itself.
        if (bFound) return strGroup.substr(strGroup.find(":/") + 1);
    }
    return {};
}

// A mount may show a part of the hierarchy only: that below its root.
int32 QuotaOfMount(const std::vector<std::string>& tFields, std::string strGroup, bool bUnified) {
    const std::string& strRoot = tFields[3];
    if (strRoot.size() > 1) {
        if (strGroup.compare(0, strRoot.size(), strRoot) != 0) strGroup = strRoot;
        strGroup.erase(0, strRoot.size());
    }
    return QuotaOfPath(tFields[4], strGroup, bUnified);
}

}  // namespace

int32 ProcessorQuota(const char* pstrGroups, const char* pstrMounts) {
    const std::vector<std::string> tGroups = Lines(pstrGroups);
    int32 lLimit = 0;
    for (const std::string& strMount : Lines(pstrMounts)) {
        if (strMount.find("cgroup") == std::string::npos) continue;
        // ID, parent, device, root, mount point, options..., "-", type, source, options
        const std::vector<std::string> tFields = Fields(strMount, ' ');
        const auto tDash = std::find(tFields.begin(), tFields.end(), "-");
        if (tFields.size() < 6 || tFields.end() - tDash < 4) continue;
        const bool bUnified = tDash[1] == "cgroup2";
        if (!bUnified && (tDash[1] != "cgroup" || !Contains(Fields(tDash[3], ','), "cpu"))) {
            continue;
        }
        const std::string strGroup = GroupOf(tGroups, bUnified);
        if (!strGroup.empty()) lLimit = Smaller(lLimit, QuotaOfMount(tFields, strGroup, bUnified));
    }
    return lLimit;
}

int32 ProcessorCount() {
    cpu_set_t tSet;
    // With more processors than the set has room for the call fails; there are plenty then.
    const int32 lProcessors =
        sched_getaffinity(0, sizeof tSet, &tSet) == 0 ? CPU_COUNT(&tSet) : CPU_SETSIZE;
    if (lProcessors < 2) return 1;
    const int32 lQuota = ProcessorQuota("/proc/self/cgroup", "/proc/self/mountinfo");
    return lQuota == 0 ? lProcessors : std::min(lProcessors, lQuota);
}
