// Prints the log images that a file holds one behind the other, as the log daemon keeps them.
//
//   records FILE      the exit status is 1 when there is no such file, or it ends within an image
#include <cstdio>
#include <vector>

#include "machine.h"

int main(int argc, char** argv) {
    FILE* ptFile = argc == 2 ? std::fopen(argv[1], "rb") : nullptr;
    if (ptFile == nullptr || ContextInitialize() != TRUE) return 1;
    std::vector<ByteT> tBytes(1 << 20);
    tBytes.resize(std::fread(tBytes.data(), 1, tBytes.size(), ptFile));
    std::fclose(ptFile);
    std::size_t at = 0;
    while (LogIsImage(tBytes.data() + at, static_cast<int32>(tBytes.size() - at)) == TRUE) {
        const ByteT* ptImage = tBytes.data() + at;
        const PoolPtr<char> pstrText(LogGetStringFromImage(ptImage));
        std::printf("%s: %s\n", LogGetWarningLevelString(LogGetWarnLevel(ptImage)), pstrText.Get());
        at += static_cast<std::size_t>(LogGetRecordSize(ptImage));
    }
    ContextReleaseThread();
    return at == tBytes.size() ? 0 : 1;
}
