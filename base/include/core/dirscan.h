// Directory scans: a callback for every entry except "." and "..". Failures leave errno as the
// failing call set it.
#pragma once

#include "core/types.h"

enum DirScanReturnE : int32 {
    eDSRFailed = 0,
    eDSROK = 1,
    eDSRCallbackHalt = 2,
};

// Anything but TRUE stops the scan.
using DirScanFnT = BooleanT (*)(const char* pstrDirectory, const char* pstrName, void* pCookie);
using DirScanRecursiveFnT = BooleanT (*)(const char* pstrDirectory, const char* pstrName,
                                         void* pCookie);

// Longest path, with its terminator, of a directory that a recursive scan visits.
constexpr int32 DirScanMaximumPath = 20000;

// Calls back while the directory is being read: whether entries made or deleted meanwhile are met
// is open. FALSE when the directory cannot be read and when the callback stopped the scan.
BooleanT DirScanDirect(const char* pstrRootDir, DirScanFnT pfnCallback, void* pCookie);

// Reads the names first, then calls back for each: the callback may make and delete entries.
BooleanT DirScan(const char* pstrRootDir, DirScanFnT pfnCallback, void* pCookie);

// Walks the whole tree, a directory's entries before those of its subdirectories. The callback gets
// the path of the directory that holds the entry, ending in "/"; with bRelativePath TRUE the part
// of it behind the root, which is empty for the root's own entries.
//
// Links to directories are followed, except a link that leads back to a directory that it lies in:
// it is called back like any entry and not entered. A directory that cannot be read, or whose path
// is longer than the system or DirScanMaximumPath allows, ends the walk with eDSRFailed.
DirScanReturnE DirScanDirectRecursive(const char* pstrRootDir, DirScanRecursiveFnT pfnCallback,
                                      void* pvCookie, BooleanT bRelativePath);

// Adds the sizes of the files directly in the directory (links followed; subdirectories and files
// without a readable status count nothing) to *pllTotalSize, which the caller has set.
BooleanT DirGetContentsSize(int64* pllTotalSize, const char* pstrRoot);
