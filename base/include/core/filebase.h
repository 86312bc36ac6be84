// Whole files: status, copying, renaming, deleting. Failures give FALSE and leave errno as the
// failing call set it; a null path gives FALSE.
#pragma once

#include "core/types.h"

enum FileAccessE : int32 {
    eFileAccessRead = 1,
    eFileAccessWrite = 2,
    eFileAccessExecute = 3,
};

// Status of a file. Numbers that are wider on this host are cut to their low 32 bits.
struct FileStatS {
    int64 llFileSize;      // bytes
    int64 llBlockCount;    // blocks allocated
    int32 lMode;           // type and permission bits
    int32 lINode;          // file node number
    int32 lDeviceId;       // device of the file system
    int32 lRDev;           // device number of a device file
    int32 lLinkCount;      // hard links
    int32 lUID;            // owner
    int32 lGID;            // group
    int32 lBlockSize;      // always 512, the unit of llBlockCount
    TimeT tAccessed;       // last access
    TimeT tModified;       // last change of the contents
    TimeT tChangedStatus;  // last change of the status
    int32 lAttributes;     // always 0
};
using FileStatT = FileStatS;
static_assert(sizeof(FileStatS) == 64);

// --- status ---

// Through links when bThruLinks is TRUE, else of the link itself. ptStat may be null to test only.
// A null path is a programming error: ProcCrash(FALSE) is called.
BooleanT FileStat(FileStatT* ptStat, const char* pstrPath, BooleanT bThruLinks);
BooleanT FileStatHandle(FileStatT* ptStat, FileHandleT tHandle);

BooleanT FileExists(const char* pstrPath);  // anything but a directory, through links
BooleanT FileIsDir(const char* pstrPath);   // a directory, through links
// TRUE when the owner-write permission is missing, whoever asks.
BooleanT FileIsReadOnly(const char* pstrPath);
BooleanT FileHandleIsReadOnly(FileHandleT tHandle);

// The low 32 bits of the size: of a file of 2 GiB or more this is not the size (see FileSysSize).
BooleanT FileSize(int32* plResult, const char* pstrPath);

// Whether this process may read, write or execute the file; any other value tests existence.
BooleanT FileHaveAccess(const char* pstrPath, FileAccessE eAccess);

BooleanT FileChangeMode(const char* pstrPath, int32 lMode);
BooleanT FileChangeOwner(const char* pstrPath, int32 lOwner,
                         int32 lGroup);  // -1 leaves one as it is
BooleanT FileChangeTimes(const char* pstrPath, TimeT tAccessed, TimeT tModified);

// --- deleting ---

BooleanT FileDelete(const char* pstrPath);
BooleanT FileDestroy(const char* pstrPath);     // the same, a failure not reported
BooleanT FileDirDelete(const char* pstrPath);   // an empty directory
BooleanT FileDirDestroy(const char* pstrPath);  // the same, a failure not reported

// --- copying ---

// Replaces the contents of pstrNewPath (created when missing) by those of pstrOldPath. Permissions
// and times are not copied. A failure leaves what was written so far.
BooleanT FileCopy(const char* pstrOldPath, const char* pstrNewPath);

// Replaces the destination or, with bAppend TRUE, adds to it; with bDeleteSource TRUE deletes the
// source after success. FALSE, with nothing changed, when the source cannot be opened or is a
// directory, and when both are the same file.
BooleanT FileCopyMoveAppendInternal(const char* pstrDest, const char* pstrSource, BooleanT bAppend,
                                    BooleanT bDeleteSource);

// Renames; across file systems copies and deletes. When the old file cannot be deleted the copy is
// deleted again and the result is FALSE.
BooleanT FileRenameAndMove(const char* pstrOldPath, const char* pstrNewPath);
