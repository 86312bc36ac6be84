// The log from outside: the input as an image, whatever text it has for its number, and as a
// direct-log file, which the next message must leave as a header and whole records.
#include <cstdio>
#include <memory>
#include <string>

#include "core/log.h"
#include "fuzzsupport.h"

namespace {

std::string g_file;

void Require(bool fulfilled) {
    if (!fulfilled) std::abort();
}

void ShowImage(const ByteT* ptBytes, int32 lSize) {
    if (LogIsImage(ptBytes, lSize) != TRUE) return;
    Require(LogGetRecordSize(ptBytes) <= lSize);
    for (char* pstrText : {LogGetLogString(ptBytes, nullptr), LogGetClientString(ptBytes),
                           LogGetClassString(ptBytes)}) {
        Require(pstrText != nullptr);
        MemFree(&pstrText);
    }
    LogGetWarningLevelString(LogGetWarnLevel(ptBytes));
    UniqueT tSession;
    Require(LogGetSessionId(&tSession, ptBytes) == LogHasSessionId(ptBytes));
    void* oObject = nullptr;
    if (LogGetObject(&oObject, ptBytes) == TRUE) ObjRelease(&oObject);
}

void Write(const uint8_t* data, size_t size) {
    FILE* pFile = std::fopen(g_file.c_str(), "wb");
    Require(pFile != nullptr);
    std::fwrite(data, 1, size, pFile);
    std::fclose(pFile);
}

void CheckFile() {
    std::string bytes(1 << 20, '\0');
    FILE* pFile = std::fopen(g_file.c_str(), "rb");
    Require(pFile != nullptr);
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), pFile));
    std::fclose(pFile);
    const auto* ptBytes = reinterpret_cast<const ByteT*>(bytes.data());
    const auto lSize = static_cast<int32>(bytes.size());
    Require(lSize > 20 && bytes.compare(0, 4, "R5GT") == 0);
    Require((ptBytes[4] | ptBytes[5] << 8 | ptBytes[6] << 16 | ptBytes[7] << 24) == lSize);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_file = FuzzMakeHome("logs") + "/logs/direct-log";
    LogUnsetAddress();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 200000) return 0;
    const int32 lObjects = ObjCount();
    {
        const std::unique_ptr<ByteT[]> atExact(new ByteT[size]);
        std::copy(data, data + size, atExact.get());
        ShowImage(atExact.get(), static_cast<int32>(size));
    }
    Write(data, size);
    LogMessage(1, 1, nullptr, "%d", 5);
    CheckFile();
    Require(ObjCount() == lObjects);
    return 0;
}
