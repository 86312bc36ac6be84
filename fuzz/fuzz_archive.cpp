// Whole archives from outside, restored into a directory. Nothing may appear beside the target, and
// nothing may be left over in memory or open.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "fuzzsupport.h"
#include "pakzlib.h"

namespace fs = std::filesystem;

namespace {

std::string g_root;

int OpenDescriptors() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd"); dir != nullptr) {
        while (readdir(dir) != nullptr) count++;
        closedir(dir);
    }
    return count;
}

int Entries(const std::string& path) {
    int count = 0;
    std::error_code error;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(path, error)) count++;
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    std::string pattern = fs::exists("/dev/shm") ? "/dev/shm/fuzzXXXXXX" : "/tmp/fuzzXXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    g_root = pattern;
    std::atexit([] { fs::remove_all(g_root); });
    FuzzInitialize(g_root.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string archive = g_root + "/archive";
    const std::string target = g_root + "/target";
    if (FILE* file = std::fopen(archive.c_str(), "wb"); file != nullptr) {
        std::fwrite(data, 1, size, file);
        std::fclose(file);
    }
    const int descriptors = OpenDescriptors();
    const BooleanT bResult = PakZlibUncompress(archive.c_str(), target.c_str());
    if (OpenDescriptors() != descriptors || Entries(g_root) != 2) std::abort();
    if (bResult == TRUE && Entries(target) < 1) std::abort();
    fs::remove_all(target);
    return 0;
}
