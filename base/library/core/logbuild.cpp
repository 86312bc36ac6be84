// Making log images. The arguments are turned into text in one walk over the format, which leaves
// them in a block as the image wants them; then the image's size is known and it is filled in
// order.
//
// The walk looks at bytes, as the compiler does when it checks the arguments of a call: a "%" that
// is the second half of a character in some encoding still takes an argument here.
#include <algorithm>
#include <cstring>

#include "core/memory.h"
#include "core/objserial.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/timeconv.h"
#include "core/trace.h"
#include "loginternal.h"

TRACE_MODULE("LOGGING")
MEM_DEFAULT_POOL_CACHE

ObjTemplateT gtObjTemplateLogdMessage = nullptr;

namespace {

constexpr char LogUnsupported[] = "??????";
constexpr char LogDoubles[] = "aAeEfFgG";  // conversions of floating numbers

// The first bytes of a text that fit into a field, no character cut in two.
std::string_view LogFit(const char* pstrText) {
    const char* pstrEnd = pstrText;
    const char* pstrNext = pstrText;
    while (*pstrNext != '\0') {
        StrGetChar(&pstrNext);
        if (pstrNext - pstrText > LogFieldMaximum) break;
        pstrEnd = pstrNext;
    }
    return {pstrText, static_cast<std::size_t>(pstrEnd - pstrText)};
}

// The caller's arguments, taken one after another.
class LogArguments {
 public:
    explicit LogArguments(std::va_list tArgs) { va_copy(m_tArgs, tArgs); }
    ~LogArguments() { va_end(m_tArgs); }
    LogArguments(const LogArguments&) = delete;
    LogArguments& operator=(const LogArguments&) = delete;

    // What a place holder stands for; holds until the next call.
    std::string_view Take(std::string_view tPlace) {
        const char cLetter = tPlace.back();
        if (cLetter == '%') return "%";
        const bool bLong = tPlace.size() == 3;
        const bool bInteger = bLong ? !IsOneOf(cLetter, LogDoubles) : cLetter == 'd';
        if (!bInteger && (bLong || cLetter != 's')) return Skip(cLetter);
        if (m_bLost) return LogUnsupported;
        if (!bInteger) return Text();
        TraceMessageInline(10, 0, 3, "Processing integer argument");
        StrFormat(m_acNumber, sizeof(m_acNumber), "%lld", Integer(bLong, cLetter));
        return m_acNumber;
    }

 private:
    static bool IsOneOf(char cLetter, const char* pstrLetters) {
        return std::strchr(pstrLetters, cLetter) != nullptr;
    }

    // "%ll" is the place holder of a "%lld", too, and must not leave half of its argument.
    long long Integer(bool bLong, char cLetter) {
        if (!bLong) return va_arg(m_tArgs, int);
        return cLetter == 'l' ? va_arg(m_tArgs, long long) : va_arg(m_tArgs, long);
    }

    std::string_view Text() {
        TraceMessageInline(11, 0, 3, "Processing string argument");
        const char* pstrText = va_arg(m_tArgs, const char*);
        return pstrText == nullptr ? "(null)" : LogFit(pstrText);
    }

    // Passes over the argument of a conversion that is not supported, so that the next one finds
    // its own. Where its width is not known the place of all later ones is lost: none is touched.
    std::string_view Skip(char cLetter) {
        TraceMessageInline(12, 0, 3, "Whoops. Found unsupported formatter (%c)!", cLetter);
        m_bLost = m_bLost || !Pass(cLetter);
        return LogUnsupported;
    }

    // False for a conversion whose argument is of no known width.
    bool Pass(char cLetter) {
        const auto fnPassed = [](auto) { return true; };
        if (IsOneOf(cLetter, "iouxXc")) return fnPassed(va_arg(m_tArgs, int));
        if (IsOneOf(cLetter, LogDoubles)) return fnPassed(va_arg(m_tArgs, double));
        return cLetter == 'p' && fnPassed(va_arg(m_tArgs, void*));
    }

    std::va_list m_tArgs;
    bool m_bLost = false;
    char m_acNumber[24] = {};
};

// Writes the parts of an image one behind the other.
class LogWriter {
 public:
    explicit LogWriter(void* pBytes) : m_ptAt(static_cast<ByteT*>(pBytes)) {}
    ByteT* At() const { return m_ptAt; }
    void Byte(int32 lByte) { *m_ptAt++ = static_cast<ByteT>(lByte); }
    void Number(int32 lNumber) {
        ObjStoreLong(m_ptAt, lNumber);
        m_ptAt += sizeof(uint32);
    }
    void Bytes(const void* pBytes, std::size_t lSize) {
        if (lSize > 0) std::memcpy(m_ptAt, pBytes, lSize);
        m_ptAt += lSize;
    }
    void Field(std::string_view tText) {
        Byte(static_cast<int32>(tText.size()) + 1);
        Bytes(tText.data(), tText.size());
    }

 private:
    ByteT* m_ptAt;
};

// What an image is made of.
struct LogPartsT {
    int32 lLogId;
    int32 lWarningLevel;
    const UniqueT* ptSessionId;
    std::string_view tClient;
    std::string_view tClass;
    std::string_view tFormat;
    int32 lArguments;
    std::span<const ByteT> tArguments;
    void* oContext;
    int64 llObjectSize;  // with the marker
};

std::string_view LogTextOf(const char* pstrText) { return pstrText == nullptr ? "" : pstrText; }

int32 LogFieldSize(std::string_view tText) { return static_cast<int32>(tText.size()) + 1; }

int32 LogSessionSize(const UniqueT* ptSessionId) {
    return ptSessionId == nullptr ? LogFieldEmpty : LogSessionPresent;
}

bool LogFieldsFit(const LogPartsT& tParts) {
    return tParts.tClient.size() <= LogFieldMaximum && tParts.tClass.size() <= LogFieldMaximum &&
           !tParts.tFormat.empty() && tParts.tFormat.size() <= LogFieldMaximum;
}

// The arguments as counted fields in a new block; null when there is no memory for it. The format
// is too short for more place holders than an image can count.
ByteT* LogConvertArguments(LogPartsT* ptParts, std::va_list tArgs) {
    const auto lMost =
        static_cast<int32>(std::count(ptParts->tFormat.begin(), ptParts->tFormat.end(), '%'));
    PoolPtr<ByteT> ptBlock(
        static_cast<ByteT*>(MemAllocateFromPool(lMost * (LogFieldMaximum + 1) + 1, MemPool())));
    if (ptBlock.Get() == nullptr) return nullptr;
    LogWriter tWriter(ptBlock.Get());
    LogArguments tArguments(tArgs);
    std::string_view tRest = ptParts->tFormat;
    for (std::size_t lAt = tRest.find('%'); lAt != std::string_view::npos; lAt = tRest.find('%')) {
        tRest.remove_prefix(lAt);
        const auto lSize = static_cast<std::size_t>(LogPlaceHolderSize(tRest));
        tWriter.Field(tArguments.Take(tRest.substr(0, lSize)));
        tRest.remove_prefix(lSize);
        ptParts->lArguments++;
    }
    ptParts->tArguments = {ptBlock.Get(), tWriter.At()};
    TraceMessageInline(13, 0, 3, "Processed %d args, size of %d bytes.", ptParts->lArguments,
                       static_cast<int32>(ptParts->tArguments.size()));
    return ptBlock.Take();
}

void LogMeasureObject(LogPartsT* ptParts) {
    ptParts->llObjectSize = 1;
    if (ptParts->oContext == nullptr) return;
    TraceMessageInline(9, 0, 3, "Found context object!");
    const int32 lSize = ObjSerializedSize(ptParts->oContext);
    if (lSize > 0) {
        ptParts->llObjectSize += lSize;
        return;
    }
    TraceMessageInline(125, 0, -1, "Context object %p cannot be written", ptParts->oContext);
    ptParts->oContext = nullptr;
}

// Bytes of the whole image; lets go of an object for which there is no room.
int32 LogMeasure(LogPartsT* ptParts) {
    LogMeasureObject(ptParts);
    int64 llSize = LogImageHeadSize + 1 + LogSessionSize(ptParts->ptSessionId) +
                   LogFieldSize(ptParts->tClient) + LogFieldSize(ptParts->tClass) +
                   LogFieldSize(ptParts->tFormat) + static_cast<int64>(ptParts->tArguments.size()) +
                   ptParts->llObjectSize;
    if (llSize > LogImageMaximum) {
        TraceMessageInline(124, 0, -1, "Message too large (%u), removing %u byte Context Object",
                           static_cast<uint32>(llSize),
                           static_cast<uint32>(ptParts->llObjectSize - 1));
        llSize -= ptParts->llObjectSize - 1;
        ptParts->llObjectSize = 1;
        ptParts->oContext = nullptr;
    }
    TraceMessageInline(14, 0, 3, "'%.*s'", LogFieldSize(ptParts->tFormat) - 1,
                       ptParts->tFormat.data());
    TraceMessageInline(15, 0, 3, "MsgSize = %d. SID=%d, CLN=%d, CLS= %d, FRM=%d, ARG=%d, OBJ=%d",
                       static_cast<int32>(llSize), LogSessionSize(ptParts->ptSessionId),
                       LogFieldSize(ptParts->tClient), LogFieldSize(ptParts->tClass),
                       LogFieldSize(ptParts->tFormat),
                       static_cast<int32>(ptParts->tArguments.size()),
                       static_cast<int32>(ptParts->llObjectSize));
    return static_cast<int32>(llSize);
}

// FALSE when the object does not write what it was measured to be.
BooleanT LogFill(void* pImage, int32 lSize, const LogPartsT& tParts) {
    LogWriter tWriter(pImage);
    tWriter.Byte(lSize & 0xff);
    tWriter.Byte(lSize >> 8);
    tWriter.Number(TimeNow());
    tWriter.Number(tParts.lLogId);
    const bool bKnown = tParts.lWarningLevel >= 0 && tParts.lWarningLevel <= 0xff;
    tWriter.Byte(bKnown ? tParts.lWarningLevel : eLogLevelUnknown);
    tWriter.Byte(LogSessionSize(tParts.ptSessionId));
    if (tParts.ptSessionId != nullptr) tWriter.Bytes(tParts.ptSessionId, sizeof(UniqueT));
    tWriter.Field(tParts.tClient);
    tWriter.Field(tParts.tClass);
    tWriter.Field(tParts.tFormat);
    tWriter.Byte(tParts.lArguments);
    tWriter.Bytes(tParts.tArguments.data(), tParts.tArguments.size());
    tWriter.Byte(tParts.oContext == nullptr ? LogObjectNone : LogObjectFollows);
    if (tParts.oContext == nullptr) return TRUE;
    int32 lWritten = 0;
    return BooleanFrom(ObjSerializeToMemory(tParts.oContext, tWriter.At(), &lWritten) == TRUE &&
                       lWritten == tParts.llObjectSize - 1);
}

}  // namespace

BooleanT LogMessageVaBuildObject(logdMessageO* poLogMessage, int32 lLogId, int32 lWarningLevel,
                                 const UniqueT* ptSessionId, void* oContext,
                                 const char* pstrMessageFormat, std::va_list tArgs) {
    if (poLogMessage == nullptr) return FALSE;
    *poLogMessage = nullptr;
    LogPartsT tParts = {lLogId,
                        lWarningLevel,
                        ptSessionId,
                        LogTextOf(SysLocalMachineName()),
                        LogTextOf(LogState().pstrLogClass),
                        LogTextOf(pstrMessageFormat),
                        0,
                        {},
                        oContext,
                        0};
    if (!LogFieldsFit(tParts)) return FALSE;
    const PoolPtr<ByteT> ptArguments(LogConvertArguments(&tParts, tArgs));
    ObjHolder<logdMessageS> oMessage(ObjNew<logdMessageS>(logdMessageMagic, LogMessageDescriptor));
    if (ptArguments.Get() == nullptr || oMessage.Get() == nullptr) return FALSE;
    const int32 lSize = LogMeasure(&tParts);
    void* pImage = MemAllocateFromPool(lSize, MemPool());
    if (pImage == nullptr) {
        TraceMessageInline(17, 0, 3, "Failed to allocate memory for log entry!");
        return FALSE;
    }
    oMessage.Get()->tLogEntry = {lSize, pImage};
    if (LogFill(pImage, lSize, tParts) != TRUE) return FALSE;
    *poLogMessage = oMessage.Take();
    return TRUE;
}

BooleanT LogMessageWithContextObject(logdMessageO* poLogMessage, int32 lLogId, int32 lWarningLevel,
                                     const UniqueT* ptSessionId, void* oContext,
                                     const char* pstrMessageFormat, ...) {
    std::va_list tArgs;
    va_start(tArgs, pstrMessageFormat);
    const BooleanT bResult = LogMessageVaBuildObject(
        poLogMessage, lLogId, lWarningLevel, ptSessionId, oContext, pstrMessageFormat, tArgs);
    va_end(tArgs);
    return bResult;
}
