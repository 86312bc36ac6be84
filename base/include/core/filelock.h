// Locks of whole files, which coordinate processes. A lock ends when the process that holds it
// closes any descriptor of the file. Locks of one process do not exclude each other: setting
// another lock replaces the first.
#pragma once

#include "core/types.h"

using FileLockT = int32;
constexpr FileLockT FileLockShared = 123;     // needs a descriptor open for reading
constexpr FileLockT FileLockExclusive = 666;  // needs a descriptor open for writing

// Waits until the lock is granted. FALSE for another lock type, and when the system refuses.
BooleanT FileLockSet(FileHandleT tHandle, FileLockT tLockType);

// FALSE at once when another process holds a lock that excludes this one.
BooleanT FileLockSetNoWait(FileHandleT tHandle, FileLockT tLockType);
