// System V IPC keys. A key has eight bits of the id, eight of the device and sixteen of the file
// node, so that installations on one machine keep apart as long as the files they name do.
#include "core/ipc.h"

#include <sys/types.h>

#include "core/cfg.h"
#include "core/filebase.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/trace.h"

TRACE_MODULE("IPC")

static_assert(sizeof(key_t) == sizeof(IpcKeyT));

namespace {

char* gpstrKeyPath = nullptr;  // found on first use and kept

BooleanT IpcLocatePath() {
    if (gpstrKeyPath != nullptr) return TRUE;
    TraceMessageInline(1, 0, 3, "Locating path for IPC key generation");
    PoolPtr<char> pstrName;
    CfgGetString(pstrName.Address(), "programs.cfg", "Process Manager", "unix", nullptr);
    if (pstrName.Get() == nullptr) {
        TraceMessageInline(2, 0, -1, "Invalid programs file?");
        return FALSE;
    }
    gpstrKeyPath = PathHomeBuild(pstrName.Get(), nullptr);
    return BooleanFrom(gpstrKeyPath != nullptr);
}

}  // namespace

BooleanT IpcGetKey(IpcKeyT* pIpcKey, IpcIdT tIpcId) {
    FileStatT tStat = {};
    if (pIpcKey == nullptr || tIpcId < 0 || tIpcId >= IpcIdCount || IpcLocatePath() != TRUE ||
        FileStat(&tStat, gpstrKeyPath, TRUE) != TRUE) {
        TraceMessageInline(3, 0, -1, "Failed to get IPC key (%x,%x)",
                           pIpcKey == nullptr ? 0U : static_cast<uint32>(*pIpcKey),
                           static_cast<uint32>(tIpcId));
        return FALSE;
    }
    *pIpcKey = static_cast<IpcKeyT>(static_cast<uint32>(tIpcId) << 24 |
                                    (static_cast<uint32>(tStat.lDeviceId) & 0xffU) << 16 |
                                    (static_cast<uint32>(tStat.lINode) & 0xffffU));
    return TRUE;
}
