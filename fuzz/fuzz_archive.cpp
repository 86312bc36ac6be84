// Whole archives from outside, restored into a directory. Nothing may appear beside the target, and
// nothing may be left over in memory or open.
#include "fuzzsupport.h"
#include "pakzlib.h"

namespace fs = std::filesystem;

namespace {

std::string g_root;

int Entries(const std::string& path) {
    std::error_code error;
    const auto entries = fs::directory_iterator(path, error);
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_root = FuzzMakeHome("empty");
    fs::remove(g_root + "/empty");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string archive = g_root + "/archive";
    const std::string target = g_root + "/target";
    WriteFile(archive, data, size);
    const int descriptors = Entries("/proc/self/fd");
    const BooleanT bResult = PakZlibUncompress(archive.c_str(), target.c_str());
    Expect(Entries("/proc/self/fd") == descriptors && Entries(g_root) == 2);
    Expect(bResult != TRUE || Entries(target) > 0);
    fs::remove_all(target);
    return 0;
}
