// How many processors this process may keep busy.
#pragma once

#include "core/types.h"

// At least 1: the processors of the calling thread's affinity, no more than the processor time that
// the control groups of the process grant (cpu.max, or cpu.cfs_quota_us by cpu.cfs_period_us; parts
// of a processor are rounded up). What cannot be read limits nothing.
int32 ProcessorCount();

// The limit of the control groups alone, 0 when there is none. The files name the process's groups
// and mounts, in the form of /proc/self/cgroup and /proc/self/mountinfo (cgroups(7), proc(5)).
int32 ProcessorQuota(const char* pstrGroups, const char* pstrMounts);
