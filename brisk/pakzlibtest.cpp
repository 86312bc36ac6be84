// zlibcompress: packs a file into an archive, unpacks an archive. Prints one line of outcome; the
// exit status is 0 whatever the outcome.
#include <malloc.h>

#include <cstdio>

#include "core/context.h"
#include "core/filebase.h"
#include "core/strbase.h"
#include "pakzlib.h"

namespace {

// All of these belong to the argument vector.
const char* pstrOption = nullptr;
const char* pstrSource = nullptr;
const char* pstrDest = nullptr;
const char* pstrAltName = nullptr;
const char* pstrCompressedFile = nullptr;
const char* pstrTargetDir = nullptr;

PakZlibContextO oContext = nullptr;

// A chunk's blocks come and go by the thousand. The system's allocator keeps their memory, where it
// would hand it back and fetch it again, page by page, for every chunk.
void KeepFreedMemory() {
#if defined(M_TRIM_THRESHOLD) && defined(M_MMAP_THRESHOLD)
    constexpr int iKeep = 4 * 1024 * 1024;
    mallopt(M_TRIM_THRESHOLD, iKeep);
    mallopt(M_MMAP_THRESHOLD, iKeep);
#endif
}

void PrintUsage() {
    std::puts(
        "Usage: Compress   - zlibcompress -c <source> <dest> <altname>\n"
        "     : Decompress - zlibcompress -d <source> <dest>");
}

bool IsOption(const char* pstrArgument, const char* pstrName) {
    return StrCompareNoCase(pstrArgument, pstrName) == 0;
}

void Compress(int argc, char** argv) {
    pstrSource = argv[2];
    pstrDest = argv[3];
    pstrAltName = argv[4];
    const bool bDeleteSource = argc == 6;
    if (bDeleteSource && !IsOption(argv[5], "-d")) {
        PrintUsage();
        return;
    }
    if (pstrSource == nullptr || pstrDest == nullptr) return;
    if (PakZlibInitialize(&oContext, pstrDest) != TRUE) {
        std::puts("failed to initialize compression context");
        return;
    }
    // What was packed so far stays as it is, temporary file included.
    if (PakZlibCompressFile(oContext, pstrSource, pstrAltName) != TRUE) {
        std::printf("failed to compress %s\n", pstrSource);
        return;
    }
    if (PakZlibFinalize(&oContext) != TRUE) {
        std::printf("compress finalization failed");
        return;
    }
    if (bDeleteSource) FileDelete(pstrSource);
    std::puts("Compress complete");
}

void Decompress(char** argv) {
    pstrCompressedFile = argv[2];
    pstrTargetDir = argv[3];
    std::puts(PakZlibUncompress(pstrCompressedFile, pstrTargetDir) == TRUE
                  ? "Decompression succeeded"
                  : "Decompression failed");
}

}  // namespace

int main(int argc, char** argv) {
    KeepFreedMemory();
    if (ContextInitialize() != TRUE) {
        std::puts("Failed to initialize context");
        return 0;
    }
    if (argc > 1) pstrOption = argv[1];
    if (argc > 1 && IsOption(pstrOption, "-c") && (argc == 5 || argc == 6)) {
        Compress(argc, argv);
    } else if (argc == 4 && IsOption(pstrOption, "-d")) {
        Decompress(argv);
    } else {
        PrintUsage();
    }
    return 0;
}
