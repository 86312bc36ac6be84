// The text of a log image in the language chosen. Catalogues are looked into only as far as is
// needed, and every entry read on the way is kept: the numbers of one program's messages tend to
// stand together. A text of a catalogue is no format: its place holders take texts that are in the
// image already, so whatever it says, nothing is read that is not there.
#include "core/filebase.h"
#include "core/filestream.h"
#include "core/locale.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/strbase.h"
#include "core/strfile.h"
#include "core/trace.h"
#include "loginternal.h"

TRACE_MODULE("LOGGING")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr char LogBuiltIn[] = "UK English";
constexpr char LogCatalogName[] = "logs.ctl";
constexpr int32 LogLineSize = 256;         // longest line with its terminator
constexpr int32 LogClassRange = 100000;    // message numbers of one class
constexpr int32 LogLastSharedClass = 999;  // classes above have a catalogue each

const char* LogCachedText(int32 lLogId) {
    void* pEntry = nullptr;
    if (MapFindEntry(&pEntry, LogState().oLocale, &lLogId) != TRUE) return nullptr;
    return static_cast<LocaleEntryT*>(pEntry)->pstrText;
}

// Reads a catalogue into the cache up to the entry of that number, if there is one.
void LogReadCatalog(FileStreamO oStream, int32 lLogId) {
    char acLine[LogLineSize];
    int32 lEntries = 0;
    bool bFound = false;
    while (!bFound && StrFileReadLine(oStream, acLine, LogLineSize) >= 0) {
        LocaleEntryT tEntry;
        if (LocaleLineIsEntry(&tEntry, acLine) != TRUE) continue;
        bFound = tEntry.lId == lLogId;
        if (MapInsertEntry(LogState().oLocale, &tEntry) == TRUE)
            lEntries++;
        else
            MemFree(&tEntry.pstrText);
    }
    if (!bFound) TraceMessageInline(21, 0, 3, "Hit EOF during read");
    TraceMessageInline(22, 0, 3, "Cached '%d' entries from catalog.", lEntries);
}

// The catalogue's text for a message; null when it has none.
const char* LogLookupFormat(int32 lLogId) {
    if (LogState().pstrCatalog == nullptr) return nullptr;
    TraceMessageInline(18, 0, 3, "Looking up the text of message %d", lLogId);
    if (const char* pstrText = LogCachedText(lLogId)) {
        TraceMessageInline(19, 0, 3, "Found it in the cache");
        return pstrText;
    }
    char acName[32];
    const int32 lClass = lLogId / LogClassRange;
    if (lClass > LogLastSharedClass)
        StrFormat(acName, sizeof(acName), "logs%d.ctl", lClass);
    else
        StrCopy(acName, LogCatalogName);
    const PoolPtr<char> pstrPath(PathBuild(LogState().pstrCatalog, acName, nullptr));
    TraceMessageInline(20, 0, 3, "Reading catalog '%s'", pstrPath.Get());
    FileStreamO oStream = nullptr;
    if (FileExists(pstrPath.Get()) != TRUE ||
        FileStreamOpen(&oStream, pstrPath.Get(), FileModeRead | FileModeText) != TRUE) {
        TraceMessageInline(23, 0, 3, "Failed to open catalog '%s'", pstrPath.Get());
        return nullptr;
    }
    LogReadCatalog(oStream, lLogId);
    FileStreamClose(&oStream);
    return LogCachedText(lLogId);
}

// Writes the text with its place holders replaced; the target has room for both texts.
void LogCompose(char* pstrTarget, std::string_view tText, std::span<const ByteT> tArguments) {
    while (!tText.empty()) {
        std::size_t lSize = 1;
        std::string_view tShown;
        if (tText[0] == '%') lSize = static_cast<std::size_t>(LogPlaceHolderSize(tText));
        if (tText[0] != '%' || !LogTakeField(&tShown, tArguments)) tShown = tText.substr(0, lSize);
        for (const char cShown : tShown) *pstrTarget++ = cShown;
        tText.remove_prefix(lSize);
    }
}

}  // namespace

BooleanT LogSetLocale(const char* pstrLocale) {
    TesselContextLogS& tLog = LogState();
    if (tLog.pstrCatalog != nullptr) MemFree(&tLog.pstrCatalog);
    MapReleaseEntries(tLog.oLocale);
    TraceMessageInline(7, 0, 3, "Setting log language to '%s'",
                       pstrLocale == nullptr ? "(null)" : pstrLocale);
    if (pstrLocale == nullptr || StrCompareNoCase(pstrLocale, LogBuiltIn) == 0) return TRUE;
    PoolPtr<char> pstrDirectory(PathHomeBuild("locale", pstrLocale, "logs", nullptr));
    const PoolPtr<char> pstrPath(PathBuild(pstrDirectory.Get(), LogCatalogName, nullptr));
    if (!LocaleIsDirectoryName(pstrLocale) || FileExists(pstrPath.Get()) != TRUE) {
        TraceMessageInline(122, 0, 3, "Failed to find catalog '%s'", pstrPath.Get());
        return FALSE;
    }
    tLog.pstrCatalog = pstrDirectory.Take();
    return TRUE;
}

char* LogGetStringFromImage(const ByteT* ptLogImage) {
    LogImageT tImage;
    if (!LogParseOwn(&tImage, ptLogImage)) return nullptr;
    const char* pstrCatalogText = LogLookupFormat(LogGetLogId(ptLogImage));
    const std::string_view tText = pstrCatalogText == nullptr ? tImage.tFormat : pstrCatalogText;
    const std::size_t lRoom = tText.size() + tImage.tArguments.size() + 1;
    auto* pstrResult =
        static_cast<char*>(MemAllocateFromPool(static_cast<int32>(lRoom), MemPool()));
    if (pstrResult != nullptr) LogCompose(pstrResult, tText, tImage.tArguments);
    return pstrResult;
}

char* LogGetLogString(const ByteT* ptLogImage, const char* pstrMatch) {
    PoolPtr<char> pstrText(LogGetStringFromImage(ptLogImage));
    if (pstrText.Get() == nullptr ||
        (pstrMatch != nullptr && StrFindSubString(pstrText.Get(), pstrMatch) == nullptr))
        return nullptr;
    return pstrText.Take();
}
