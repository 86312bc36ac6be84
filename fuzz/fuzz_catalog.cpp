// Catalogues from outside: the lines of one file, its texts in the place of built-in formats, and
// the same bytes as a tagged string.
#include <cstdio>
#include <cstring>
#include <string>

#include "core/locale.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/strbase.h"
#include "fuzzsupport.h"

namespace {

std::string g_home;

// A text of which the built-in format lets four bytes be read.
constexpr char Longer[] = "full\x01\x02\x03";

BooleanT CheckEntry(void* pEntry, void* /*pArgument*/) {
    const LocaleEntryT& tEntry = *static_cast<LocaleEntryT*>(pEntry);
    if (tEntry.lId < 1 || StrSizeNoTerm(tEntry.pstrText) > 255) std::abort();
    if (LocaleGetStaticString("", tEntry.lId) != tEntry.pstrText) std::abort();
    char acText[16384];
    const int length = std::snprintf(
        acText, sizeof(acText), LocaleGetFormat("%s has %d of %.4s", tEntry.lId), "a", 7, Longer);
    if (length < 0 || length >= static_cast<int>(sizeof(acText))) std::abort();
    if (std::strchr(tEntry.pstrText, 1) == nullptr && std::strchr(acText, 1) != nullptr)
        std::abort();
    return TRUE;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_home = FuzzMakeHome("locale/fuzz");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    if (FILE* file = std::fopen((g_home + "/locale/fuzz/locale.ctl").c_str(), "wb"); file) {
        std::fwrite(data, 1, size, file);
        std::fclose(file);
    }
    const int32 lBlocks = MemUsedCount();
    const int32 lObjects = ObjCount();
    if (LocaleSetLocale("fuzz") != TRUE) std::abort();
    MapWalk(gtTlContext.sLocale.oCatalog, CheckEntry, nullptr);
    char* pstrResolved = LocaleResolveStringWithId(input.c_str());
    if (pstrResolved == nullptr) std::abort();
    MemFree(&pstrResolved);
    LocaleReleaseThread(&gtTlContext);
    if (MemUsedCount() != lBlocks || ObjCount() != lObjects) std::abort();
    return 0;
}
