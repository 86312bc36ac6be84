// Paths: the application home directory, putting paths together and taking them apart, directories.
//
// "/" is the only separator, and it is a byte: file systems know no two-byte characters, so a "/"
// is a separator whatever byte stands in front of it. Texts that are returned are blocks of the
// default pool, owned by the caller. A null argument gives FALSE or null unless it is said
// otherwise.
#pragma once

#include <cstdarg>

#include "core/filelock.h"
#include "core/object.h"
#include "core/types.h"

constexpr int32 PathLockMagic = ObjMagic(0xCAECB3D3);

// A locked directory, descriptor "p;s;". Its last release unlocks the directory as well.
struct PathLockS {
    FileHandleT tLockFileHandle;  // the open lock file, -1 when none
    char* pstrLockFile;           // path of the lock file, owned
};
using PathLockO = PathLockS*;

enum PathReturnE : int32 {
    ePRFailed = 0,
    ePROK = 1,
    ePRNoSuchDirectory = 2,
};

// --- home directory ---

// The home directory; set at start-up and never changed afterwards. Not checked for existence.
extern char* gpstrHome;

BooleanT PathInitialize();
BooleanT PathInitializeThread(TesselContextT* ptTlContext);
void PathReleaseThread(TesselContextT* ptTlContext);

// Where the application is registered to live: the environment variable KRHOME (not looked at when
// the file /etc/.nokrhome exists), else the first line of /etc/.brisk, else /usr/brisk.
BooleanT PathGetRegisteredHomeDir(char** ppstrHome);

BooleanT PathGetHomeDir(char** ppstrPath);  // a copy of gpstrHome

// The home directory with the components behind it, each after a "/" unless it begins with one. The
// list ends with nullptr.
char* PathHomeBuild(const char* pstrFirstComponent, ...) __attribute__((sentinel));
// The same with the strings of a list, each after a "/" in every case.
char* PathHomeBuildFromValueList(ListO oValueList);

// --- building. Of lists, items that are no string objects or hold no string are passed over ---

// The components with a "/" between two of them, unless the text so far ends with one: "a/" and "b"
// give "a/b", but "a" and "/b" give "a//b". The list ends with nullptr; an empty one gives "".
char* PathBuild(const char* pstrFirstComponent, ...) __attribute__((sentinel));
char* PathBuildVAList(const char* pstrFirstComponent, std::va_list tVAList);

// The strings with a "/" between every two.
char* PathRelativeFromKey(StnzKeyT* ptKey);
char* PathRelativeFromValueList(ListO oValueList);
BooleanT PathAddDir(char** ppstrResult, const char* pstrBase, const char* pstrDir);
BooleanT PathAddFilename(char** ppstrResult, const char* pstrBase, const char* pstrFilename);

// --- splitting ---

// What stands before the last "/"; "" when there is none or it is the first character.
char* PathSplit(const char* pstrPath);
// What stands after the last "/"; FALSE when there is none.
BooleanT PathLastComponent(char** ppstrLastComponent, const char* pstrPath);
// The same, but the whole path when there is none.
BooleanT PathLeaf(char** ppstrLastComponent, const char* pstrPath);
// FALSE when a component is "..", so that the path may lead out of where it starts.
BooleanT PathIsDescending(const char* pstrPath);

// --- directories ---

// Only the last component is made, with permissions 0700.
BooleanT PathCreateDirectory(const char* pstrPath);
BooleanT PathIsADirectory(const char* pstrPath);
BooleanT PathSetDirectory(const char* pstrPath);
BooleanT PathGetCurrentDirectory(char** ppstrCurrentDir);  // FALSE when longer than 2047 bytes

// Delete a directory with all it holds. Links are deleted, never followed; a path that is a link is
// refused. At the first entry that cannot be deleted (also one whose path is too long for the
// system) they stop with FALSE and leave the rest. Destroy does not report which entry that was.
BooleanT PathRemoveDirectory(const char* pstrPath);
BooleanT PathDestroyDirectory(const char* pstrPath);

// Waits for a lock (FileLockShared or FileLockExclusive) of the file named like the directory with
// ".lck" behind it, which is made when missing and stays. *poLock is the caller's until PathUnLock,
// which clears it. Locks of one process do not exclude each other, and the first to be released
// ends them all.
PathReturnE PathLock(PathLockO* poLock, const char* pstrDirectory, FileLockT lLockMode);
PathReturnE PathUnLock(PathLockO* poLock);
