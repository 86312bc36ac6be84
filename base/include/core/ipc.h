// System V IPC keys: every process of an installation derives the same key from the same number.
#pragma once

#include "core/types.h"

using IpcIdT = int32;   // 0 to 255
using IpcKeyT = int32;  // as wide as the system's key_t
constexpr IpcIdT IpcIdCount = 256;

// The key of an id: made of the id, and of the device and file node numbers of the file that "unix"
// of "Process Manager" in "programs.cfg" names below the home directory. The name is asked for once
// per process. FALSE, with *pIpcKey as it is, for any other id and when the file cannot be found.
BooleanT IpcGetKey(IpcKeyT* pIpcKey, IpcIdT tIpcId);
