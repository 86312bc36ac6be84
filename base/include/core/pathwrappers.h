// Paths on top of the object containers: lists of components, applications, mounted file systems.
// Texts, lists and objects that are returned are the caller's.
#pragma once

#include "core/object.h"
#include "core/types.h"

// --- lists of components ---

// The components as string objects. A path that begins with "/" has "/" as its first component; a
// "/" at the end adds none. FALSE, with *poList null, for a path with an empty component. A null
// argument is a programming error: ProcCrash(FALSE) is called.
BooleanT PathToComponentList(ListO* poList, const char* pstrPath);

// The strings of the list with a "/" between every two, so a first component "/" gives a text that
// begins with "//". What is no list is a programming error: ProcCrash(FALSE) is called.
BooleanT PathFromComponentList(char** ppstrPath, ListO oPath);

// --- applications ---

// Takes an application path apart: "App:<name>[:<instance>[:<restore path>]]", the word in any
// case. For a backup all behind the name is the instance. For a restore the last field is the
// restore path when it begins with "/". What the path does not give is null; on failure all three
// are null. ppstrRestorePath may be null for a backup.
BooleanT PathGetAppParams(const char* pstrInput, BooleanT bIsBackup, char** ppstrApplicationName,
                          char** ppstrApplicationInstance, char** ppstrRestorePath);

// apps/<name>/libhalo_<name>.so and apps/<name>/halo_<name>.cfg below the home directory; FALSE for
// an empty name.
BooleanT PathGetAppLibrary(const char* pstrApplicationName, char** ppstrApplicationLibraryFullPath);
BooleanT PathGetAppConfig(const char* pstrApplicationName, char** ppstrApplicationConfigFullPath);

// --- mounted file systems ---

constexpr int32 PathKrMountPointMagic = ObjMagic(0xCA4972C4);

enum PathMountTypeE : int32 {
    ePathMountLocal = 1,     // an ordinary local file system, or the root
    ePathMountNetwork = 2,   // type "nfs"
    ePathMountSpecial = 3,   // a pseudo or special file system
    ePathMountExcluded = 4,  // of a type that the caller excludes
    ePathMountBelow = 5,     // ordinary, but mounted below a mount point of another class
};

// Descriptor "I;I;I;I;I;s;s;s;i;". Sizes are read only of ordinary file systems other than the
// root; they are 0 elsewhere and where they cannot be read.
struct PathKrMountPointS {
    int64 llTotalSize;    // bytes
    int64 llUsedSize;     // bytes
    int64 llAvailSize;    // bytes available to ordinary users
    int64 llTotalInodes;  // file nodes
    int64 llUsedInodes;
    char* pstrName;     // mount point
    char* pstrSpecial;  // mounted device or resource
    char* pstrFsType;   // null unless the sizes were read
    int32 lType;        // PathMountTypeE
};
using PathKrMountPointO = PathKrMountPointS*;

// The mounted file systems in the order of the system's mount table. poExcludeFS: string objects
// with the names of types to exclude; may be null. The list is made also on failure, then empty.
BooleanT PathUnixMountPoints(ListO* poMountList, ListO poExcludeFS);

// Reads sizes and type of the file system mounted at oMount's mount point.
BooleanT PathUnixMountVfsInfo(PathKrMountPointO oMount);
