// Catalogues from outside: the lines of one file, its texts in the place of built-in formats, and
// the same bytes as a tagged string.
#include <cstdio>
#include <cstring>

#include "core/locale.h"
#include "core/map.h"
#include "core/strbase.h"
#include "fuzzsupport.h"

namespace {

std::string g_home;

// A text of which the built-in format lets four bytes be read.
constexpr char Longer[] = "full\x01\x02\x03";

BooleanT CheckEntry(void* pEntry, void* /*pArgument*/) {
    const LocaleEntryT& tEntry = *static_cast<LocaleEntryT*>(pEntry);
    Expect(tEntry.lId >= 1 && StrSizeNoTerm(tEntry.pstrText) <= 255);
    Expect(LocaleGetStaticString("", tEntry.lId) == tEntry.pstrText);
    char acText[16384];
    const int length = std::snprintf(
        acText, sizeof(acText), LocaleGetFormat("%s has %d of %.4s", tEntry.lId), "a", 7, Longer);
    Expect(length >= 0 && length < static_cast<int>(sizeof(acText)));
    Expect(std::strchr(tEntry.pstrText, 1) != nullptr || std::strchr(acText, 1) == nullptr);
    return TRUE;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_home = FuzzMakeHome("locale/fuzz");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    WriteFile(g_home + "/locale/fuzz/locale.ctl", data, size);
    const NothingLeft nothingLeft;
    Expect(LocaleSetLocale("fuzz") == TRUE);
    MapWalk(gtTlContext.sLocale.oCatalog, CheckEntry, nullptr);
    char* pstrResolved = LocaleResolveStringWithId(input.c_str());
    Expect(pstrResolved != nullptr);
    MemFree(&pstrResolved);
    LocaleReleaseThread(&gtTlContext);
    return 0;
}
