// The log from outside: the input as an image, whatever text it has for its number, and as a
// direct-log file, which the next message must leave as a header and whole records.
#include <memory>

#include "core/log.h"
#include "fuzzsupport.h"

namespace {

std::string g_file;

void ShowImage(const ByteT* ptBytes, int32 lSize) {
    if (LogIsImage(ptBytes, lSize) != TRUE) return;
    Expect(LogGetRecordSize(ptBytes) <= lSize);
    for (char* pstrText : {LogGetLogString(ptBytes, nullptr), LogGetClientString(ptBytes),
                           LogGetClassString(ptBytes)}) {
        Expect(pstrText != nullptr);
        MemFree(&pstrText);
    }
    LogGetWarningLevelString(LogGetWarnLevel(ptBytes));
    UniqueT tSession;
    Expect(LogGetSessionId(&tSession, ptBytes) == LogHasSessionId(ptBytes));
    void* oObject = nullptr;
    if (LogGetObject(&oObject, ptBytes) == TRUE) ObjRelease(&oObject);
}

void CheckFile() {
    const std::string bytes = ReadFile(g_file);
    const auto* ptBytes = reinterpret_cast<const ByteT*>(bytes.data());
    const auto lSize = static_cast<int32>(bytes.size());
    Expect(lSize > 20 && bytes.compare(0, 4, "R5GT") == 0);
    Expect((ptBytes[4] | ptBytes[5] << 8 | ptBytes[6] << 16 | ptBytes[7] << 24) == lSize);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_file = FuzzMakeHome("logs") + "/logs/direct-log";
    LogUnsetAddress();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 200000) return 0;
    const NothingLeft nothingLeft(false);
    {
        const std::unique_ptr<ByteT[]> atExact(new ByteT[size]);
        std::copy(data, data + size, atExact.get());
        ShowImage(atExact.get(), static_cast<int32>(size));
    }
    WriteFile(g_file, data, size);
    LogMessage(1, 1, nullptr, "%d", 5);
    CheckFile();
    return 0;
}
