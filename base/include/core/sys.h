// System services: the machine's name, environment, limits, disk space, sizes as text, sleeping.
// Texts that come back through a char** are the caller's.
#pragma once

#include "core/filebase.h"
#include "core/object.h"
#include "core/types.h"

struct TesselContextTimeSysS {
    void* pReserved;
};

struct SysDiskSpace {
    int64 llTotalSpace;      // bytes
    int64 llFreeSpace;       // bytes
    int64 llAvailableSpace;  // bytes free for ordinary users
    int32 lPercent;          // of the blocks that are free
    int32 lFsId;             // identifier of the file system
};
using SysDiskSpaceT = SysDiskSpace;

constexpr int32 SysStatMagic = ObjMagic(0xC8550014);

// A file's status as an object, descriptor "I;I;i;i;i;i;i;i;i;i;i;i;i;i;".
struct SysStatS {
    FileStatS tStat;
};
using SysStatO = SysStatS*;

BooleanT SysInitialize();
BooleanT SysInitializeThread(TesselContextT* ptTlContext);
void SysReleaseThread(TesselContextT* ptTlContext);

// "Name" of "Machine" in "configure.cfg", else the node name cut to 63 characters. Asked for once
// per process; not to be freed.
const char* SysLocalMachineName();
BooleanT SysSetLocalMachineName(const char* pstrMachineName);

void SysSleep(int32 lSeconds);  // a signal ends it early

// FALSE when the variable is not set.
BooleanT SysGetEnvString(char** ppstrResult, const char* pstrVariable);
BooleanT SysGetEnvInteger(int32* plResult, const char* pstrVariable);  // 0 for what is no number
BooleanT SysSetEnvString(const char* pstrVariable, const char* pstrValue);
BooleanT SysSetEnvInteger(const char* pstrVariable, int32 lValue);

// Below 10240 in bytes, below 10485760 in Kbytes, else in Mbytes, rounded up; localised.
BooleanT SysInt64ToUnitString(char** ppstrString, int64 tValue);
BooleanT SysIntegerToUnitString(char** ppstrString, int32 lValue);
int32 SysConvertToMegs(int64 tValue);       // whole units of 1048576
int64 SysUnpackInt64(const void* pBuffer);  // 8 bytes in native order; 0 for null

BooleanT SysMaxFileLimit();  // no limit on file sizes; also sets the file-creation mask to 0
void SysSetLimits();

// poStat may be null to test only; the object is the caller's.
BooleanT SysStat(const char* pstrName, SysStatO* poStat, BooleanT bThruLinks);
BooleanT SysStatHandle(SysStatO* poStat, FileHandleT tHandle);
BooleanT SysGetDiskSpace(SysDiskSpaceT* ptDiskSpace, const char* pstrPath);

BooleanT SysSetLocale(const char* pstrLocale);  // not provided: always FALSE
BooleanT SysIsDefaultLocale();
