// Localised texts. The catalogue of the language in use is a map from message numbers to texts;
// plug-in catalogues are merged into the same map when one of their numbers is asked for. Texts lie
// in blocks of their own, so what was handed out stays where it is while the map grows.
#include "core/locale.h"

#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "core/cfg.h"
#include "core/context.h"
#include "core/filebase.h"
#include "core/filestream.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/strbase.h"
#include "core/strfile.h"
#include "core/trace.h"

TRACE_MODULE("LOCALE")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr char LocaleBuiltIn[] = "English";
constexpr char LocaleWithoutPlugins[] = "UK English";
constexpr int32 LocaleLineSize = 256;        // longest line with its terminator
constexpr int32 LocalePluginRange = 100000;  // message numbers of one plug-in
constexpr int32 LocaleLastOwnRange = 1000;   // above this the numbers belong to plug-ins
constexpr int32 LocaleGrowSize = 256;
constexpr char LocaleTag = 0x7f;  // between a text and its message number

TesselContextLocaleS& Locale() { return gtTlContext.sLocale; }

// --- the map ---

int32 LocaleCompareIds(int32 lId1, int32 lId2) { return (lId1 > lId2 ? 1 : 0) - (lId1 < lId2); }

void LocaleDropCatalog(TesselContextLocaleS& tLocale) {
    if (tLocale.oCatalog != nullptr) ObjRelease(&tLocale.oCatalog);
}

const char* LocaleFindText(int32 lId) {
    void* pEntry = nullptr;
    if (MapFindEntry(&pEntry, Locale().oCatalog, &lId) != TRUE) return nullptr;
    return static_cast<LocaleEntryT*>(pEntry)->pstrText;
}

// --- catalogue files ---

// Owner of a stream that is only read.
class LocaleFile {
 public:
    LocaleFile() = default;
    ~LocaleFile() {
        if (m_oStream != nullptr) FileStreamClose(&m_oStream);
    }
    LocaleFile(const LocaleFile&) = delete;
    LocaleFile& operator=(const LocaleFile&) = delete;
    FileStreamO Get() const { return m_oStream; }
    FileStreamO* Address() { return &m_oStream; }

 private:
    FileStreamO m_oStream = nullptr;
};

// Numbers of the messages about one kind of catalogue.
struct LocaleMessagesT {
    int32 lChecking;
    int32 lEnd;
    int32 lCached;
    int32 lMissing;
};
constexpr LocaleMessagesT tLanguageMessages = {1, 2, 3, 4};
constexpr LocaleMessagesT tPluginMessages = {9, 10, 11, 12};

// Opens a file of the language's directory; FALSE when there is no such file.
BooleanT LocaleOpenCatalog(LocaleFile& tFile, const char* pstrName,
                           const LocaleMessagesT& tMessages) {
    const char* pstrLocale = Locale().pstrLocale;
    const PoolPtr<char> pstrPath(PathHomeBuild("locale", pstrLocale, pstrName, nullptr));
    TraceMessageInline(tMessages.lChecking, 0, 3, "LocaleSetLocale: Checking for existence of '%s'",
                       pstrPath.Get());
    if (LocaleIsDirectoryName(pstrLocale) && FileExists(pstrPath.Get()) == TRUE &&
        FileStreamOpen(tFile.Address(), pstrPath.Get(), FileModeRead | FileModeText) == TRUE) {
        return TRUE;
    }
    TraceMessageInline(tMessages.lMissing, 0, 3, "Failed to find catalog '%s'", pstrPath.Get());
    return FALSE;
}

// Adds the entries of a file to the map; of two with the same number the first stays.
void LocaleReadEntries(const LocaleFile& tFile, const LocaleMessagesT& tMessages) {
    char acLine[LocaleLineSize];
    int32 lEntries = 0;
    while (StrFileReadLine(tFile.Get(), acLine, LocaleLineSize) >= 0) {
        LocaleEntryT tEntry;
        if (LocaleLineIsEntry(&tEntry, acLine) != TRUE) continue;
        if (MapInsertEntry(Locale().oCatalog, &tEntry) == TRUE)
            lEntries++;
        else
            MemFree(&tEntry.pstrText);
    }
    TraceMessageInline(tMessages.lEnd, 0, 3, "Hit EOF during read");
    TraceMessageInline(tMessages.lCached, 0, 3, "Cached '%d' entries from catalog.", lEntries);
}

// --- texts that are used as formats ---

// One conversion of a format, as far as it decides about the argument.
struct LocaleConversionT {
    char acLength[3];  // "", "h", "hh", "l", ...
    char cLetter;      // 0 at the end of the format
    int32 lPrecision;  // -1 for none
};

// Skips a number of at most two digits; -1 for a longer one.
int32 LocaleFormatNumber(const char** ppstrFormat) {
    const std::size_t lDigits = std::strspn(*ppstrFormat, "0123456789");
    if (lDigits > 2) return -1;
    int32 lNumber = 0;
    for (std::size_t lDigit = 0; lDigit < lDigits; lDigit++)
        lNumber = lNumber * 10 + (*(*ppstrFormat)++ - '0');
    return lNumber;
}

// The next conversion, or the end. False for what has no place in a catalogue: arguments chosen by
// position, widths that are arguments or very large, conversions that store. Formatting looks at
// bytes, so this does too: a "%" may be the second half of a character.
bool LocaleNextConversion(LocaleConversionT* ptConversion, const char** ppstrFormat) {
    const char*& pstrAt = *ppstrFormat;
    *ptConversion = {"", 0, -1};
    while (*pstrAt != '\0' && (pstrAt[0] != '%' || pstrAt[1] == '%'))
        pstrAt += *pstrAt == '%' ? 2 : 1;
    if (*pstrAt == '\0') return true;
    pstrAt++;
    pstrAt += std::strspn(pstrAt, "-+ #0");
    if (LocaleFormatNumber(&pstrAt) < 0) return false;
    if (*pstrAt == '.') {
        pstrAt++;
        ptConversion->lPrecision = LocaleFormatNumber(&pstrAt);
        if (ptConversion->lPrecision < 0) return false;
    }
    const std::size_t lLength = std::strspn(pstrAt, "hlLqjzt");
    if (lLength >= sizeof(ptConversion->acLength)) return false;
    std::memcpy(ptConversion->acLength, pstrAt, lLength);
    pstrAt += lLength;
    ptConversion->cLetter = *pstrAt;
    if (*pstrAt == '\0' || std::strchr("diouxXeEfFgGaAcsp", *pstrAt) == nullptr) return false;
    pstrAt++;
    return true;
}

// A text's precision may be what keeps formatting within it, so it may only shrink.
bool LocaleConvertsAlike(const LocaleConversionT& tText, const LocaleConversionT& tBuiltIn) {
    if (tText.cLetter != tBuiltIn.cLetter || std::strcmp(tText.acLength, tBuiltIn.acLength) != 0)
        return false;
    return tBuiltIn.cLetter != 's' || tBuiltIn.lPrecision < 0 ||
           (tText.lPrecision >= 0 && tText.lPrecision <= tBuiltIn.lPrecision);
}

bool LocaleIsSafeFormat(const char* pstrText, const char* pstrBuiltIn) {
    LocaleConversionT tText;
    LocaleConversionT tBuiltIn;
    do {
        if (!LocaleNextConversion(&tText, &pstrText) ||
            !LocaleNextConversion(&tBuiltIn, &pstrBuiltIn) ||
            !LocaleConvertsAlike(tText, tBuiltIn)) {
            return false;
        }
    } while (tBuiltIn.cLetter != 0);
    return true;
}

}  // namespace

BooleanT LocaleInitialize() { return TRUE; }

int32 LocaleLocateCachedEntry(void* pEntry1, void* pEntry2) {
    return LocaleCompareIds(static_cast<LocaleEntryT*>(pEntry1)->lId,
                            static_cast<LocaleEntryT*>(pEntry2)->lId);
}

int32 LocaleFindCachedEntry(void* plId, void* pEntry) {
    return LocaleCompareIds(*static_cast<int32*>(plId), static_cast<LocaleEntryT*>(pEntry)->lId);
}

void LocaleReleaseCachedEntry(void* pEntry) {
    MemFree(&static_cast<LocaleEntryT*>(pEntry)->pstrText);
}

// A language is one component of a path: any other name would leave the directory of languages.
bool LocaleIsDirectoryName(const char* pstrLocale) {
    return *pstrLocale != '\0' && std::strcmp(pstrLocale, ".") != 0 &&
           std::strcmp(pstrLocale, "..") != 0 && std::strchr(pstrLocale, '/') == nullptr;
}

BooleanT LocaleInitializeThread(TesselContextT* /*ptTlContext*/) {
    const PoolPtr<char> pstrLocale(LocaleGetConfiguration());
    LocaleSetLocale(pstrLocale.Get());
    return TRUE;
}

void LocaleReleaseThread(TesselContextT* ptTlContext) {
    TesselContextLocaleS& tLocale = ptTlContext->sLocale;
    LocaleDropCatalog(tLocale);
    if (tLocale.pstrLocale != nullptr) MemFree(&tLocale.pstrLocale);
}

char* LocaleGetConfiguration() {
    PoolPtr<char> pstrLocale;
    CfgGetString(pstrLocale.Address(), "configure.cfg", "Locale", "Catalog", nullptr);
    return pstrLocale.Take();
}

BooleanT LocaleSetLocale(const char* pstrLocale) {
    TraceMessageInline(7, 0, -1, "LocaleSetLocale(%s)",
                       pstrLocale == nullptr ? "(null)" : pstrLocale);
    TesselContextLocaleS& tLocale = Locale();
    // Freed last: the argument may be the language in use itself.
    const PoolPtr<char> pstrPrevious(tLocale.pstrLocale);
    tLocale.pstrLocale = StrDuplicate(pstrLocale);
    if (pstrLocale == nullptr || StrCompare(pstrLocale, LocaleBuiltIn) == 0) {
        LocaleDropCatalog(tLocale);
        return TRUE;
    }
    LocaleFile tFile;
    if (LocaleOpenCatalog(tFile, "locale.ctl", tLanguageMessages) != TRUE) return FALSE;
    LocaleDropCatalog(tLocale);
    if (MapCreate(&tLocale.oCatalog, sizeof(LocaleEntryT), LocaleGrowSize, LocaleLocateCachedEntry,
                  LocaleFindCachedEntry, LocaleReleaseCachedEntry) != TRUE) {
        return FALSE;
    }
    LocaleReadEntries(tFile, tLanguageMessages);
    return TRUE;
}

BooleanT LocaleGetLocale(char** ppstrLocale) {
    if (ppstrLocale == nullptr || Locale().pstrLocale == nullptr) return FALSE;
    *ppstrLocale = StrDuplicateIntoPool(Locale().pstrLocale, MemPool());
    return TRUE;
}

char* LocaleGetString(const char* pstrString, int32 lId) {
    return StrDuplicateIntoPool(LocaleGetStaticString(pstrString, lId), MemPool());
}

const char* LocaleGetStaticString(const char* pstrString, int32 lId) {
    const char* pstrText = LocaleFindText(lId);
    const int32 lPlgId = lId / LocalePluginRange;
    if (pstrText == nullptr && lPlgId > LocaleLastOwnRange) {
        LocaleReadPluginLocale(lPlgId);
        pstrText = LocaleFindText(lId);
    }
    if (pstrText != nullptr) return pstrText;
    return pstrString == nullptr ? "" : pstrString;
}

const char* LocaleGetFormat(const char* pstrFormat, int32 lId) {
    if (pstrFormat == nullptr) return "";
    const char* pstrText = LocaleGetStaticString(pstrFormat, lId);
    return LocaleIsSafeFormat(pstrText, pstrFormat) ? pstrText : pstrFormat;
}

BooleanT LocaleReadPluginLocale(int32 lPlgId) {
    const TesselContextLocaleS& tLocale = Locale();
    if (tLocale.oCatalog == nullptr || tLocale.pstrLocale == nullptr ||
        StrCompare(tLocale.pstrLocale, LocaleWithoutPlugins) == 0) {
        return TRUE;
    }
    char acName[32];
    StrFormat(acName, sizeof(acName), "locale%d.ctl", lPlgId);
    LocaleFile tFile;
    if (LocaleOpenCatalog(tFile, acName, tPluginMessages) != TRUE) return FALSE;
    LocaleReadEntries(tFile, tPluginMessages);
    return TRUE;
}

BooleanT LocaleLineIsEntry(LocaleEntryT* ptEntry, const char* pstrLine) {
    if (ptEntry == nullptr || pstrLine == nullptr) return FALSE;
    if (*pstrLine < '1' || *pstrLine > '9') return FALSE;
    int32 lId = 0;
    const auto [pstrBehind, eError] =
        std::from_chars(pstrLine, pstrLine + std::strlen(pstrLine), lId);
    if (eError != std::errc() || *pstrBehind != ' ') return FALSE;
    const char* pstrText = StrNextCharMatch(pstrBehind, '"');
    if (pstrText == nullptr) return FALSE;
    const char* pstrAt = ++pstrText;
    const char* pstrEnd = pstrText;
    int iPrevious = '"';
    int iChar = StrGetChar(&pstrAt);
    while (iChar != '"' || iPrevious == '\\') {
        if (iChar == 0) return FALSE;
        pstrEnd = pstrAt;
        iPrevious = iChar;
        iChar = StrGetChar(&pstrAt);
    }
    const int32 lLength = static_cast<int32>(pstrEnd - pstrText);
    char* pstrCopy = static_cast<char*>(MemAllocateFromPool(lLength + 1, MemPool()));
    if (pstrCopy == nullptr) return FALSE;
    std::memcpy(pstrCopy, pstrText, static_cast<std::size_t>(lLength));
    *ptEntry = {lId, pstrCopy};
    return TRUE;
}

char* LocaleCreateStringWithId(const char* pstrString, int32 lId) {
    if (pstrString == nullptr || *pstrString == '\0') return StrDuplicate("");
    constexpr char acTag[] = {LocaleTag, '\0'};
    PoolPtr<char> pstrNumber;
    StrFromInteger(pstrNumber.Address(), lId);
    return StrCat(pstrString, acTag, pstrNumber.Get(), nullptr);
}

char* LocaleResolveStringWithId(const char* pstrRequest) {
    const char* pstrTag = StrNextCharMatch(pstrRequest, LocaleTag);
    if (pstrTag == nullptr) return StrDuplicate(pstrRequest);
    const PoolPtr<char> pstrDefault(StrDuplicateToChar(pstrRequest, LocaleTag));
    // Message 0, which no catalogue has, where there is no number or none of a message.
    const long long llId = std::strtoll(pstrTag + 1, nullptr, 10);
    const bool bInRange =
        llId >= std::numeric_limits<int32>::min() && llId <= std::numeric_limits<int32>::max();
    return LocaleGetString(pstrDefault.Get(), bInRange ? static_cast<int32>(llId) : 0);
}
