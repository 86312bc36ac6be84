// The platform: what the library asks of the operating system beyond POSIX and other hosts lack.
// The library is written against the calls below; a port supplies them in one source
// (library/machines/), by whatever its host has.
#pragma once

#include <cstdio>

#include "core/types.h"

// --- the mount table: a text file read entry by entry ---

// The path under which the table is opened for reading: /etc/mnttab where there is such a file,
// else the host's own table. The text is static.
const char* MachineMountTablePath();

// Longest line of the table that is read whole.
constexpr int32 MachineMountLineMax = 16384;

// One mounted file system. The texts lie in acLine: they hold until the entry is read into again,
// and the record is not to be copied.
struct MachineMountEntryT {
    const char* pstrSpecial;     // mounted device or resource
    const char* pstrMountPoint;  // directory
    const char* pstrFsType;      // name of the file-system type
    const char* pstrOptions;     // mount options, joined by ","
    const char* pstrTime;  // seconds since 1970 of the mount; "0" where the host does not tell
    char acLine[MachineMountLineMax];
};

// Reads the next entry from the open table, in the table's order. Comments and lines without a
// mount point and a type are passed over, an overlong line is cut. FALSE at the end of the table
// and on a read error.
BooleanT MachineMountTableNext(FILE* pfileTable, MachineMountEntryT* ptEntry);

// --- statistics of a file system ---

struct MachineStatVfsT {
    uint64 ullFragmentSize;  // bytes, the unit of the block counts; may be 0
    uint64 ullBlocks;
    uint64 ullBlocksFree;
    uint64 ullBlocksAvail;  // free for ordinary users
    uint64 ullFiles;        // file nodes
    uint64 ullFilesFree;
    char acBaseType[64];  // name of the file-system type, "" where the host does not tell
};

// The statistics of the file system that holds pstrPath, an absolute path without links. Repeated
// while a signal interrupts it. FALSE, with errno set, when there are none.
BooleanT MachineStatVfs(MachineStatVfsT* ptStatistics, const char* pstrPath);

// --- the network directory: what is known of hosts beside the name service ---
//
// A transport has a configuration entry, which every other call takes. The directory's addresses
// are in the transport's own form; only MachineNetAddrToText reads them.

struct MachineNetConfigT;

struct MachineNetAddrT {
    int32 lLength;  // bytes
    void* pAddress;
};

struct MachineNetAddrListT {
    int32 lCount;
    MachineNetAddrT* atAddresses;
};

// The entry of a transport, such as "tcp"; null when the host has no such transport.
MachineNetConfigT* MachineNetConfigGet(const char* pstrNetId);
void MachineNetConfigFree(MachineNetConfigT* ptConfig);

// The addresses of a host, freed with MachineNetDirFree; null when the directory knows none. The
// machine's own node name always has some.
MachineNetAddrListT* MachineNetDirGetByName(MachineNetConfigT* ptConfig, const char* pstrHost);
void MachineNetDirFree(MachineNetAddrListT* ptList);

// The universal text of an address, a block that the caller frees (MemFree): "a.b.c.d.p.q", for
// IPv6 hexadecimal groups joined by ":" and ".p.q", where p and q are the bytes of the port, 0 for
// the address of a host. Null for what is no address of the transport.
char* MachineNetAddrToText(MachineNetConfigT* ptConfig, const MachineNetAddrT* ptAddress);
