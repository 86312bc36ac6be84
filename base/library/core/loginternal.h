// What the sources of the log share. Private to the library.
#pragma once

#include <span>
#include <string_view>

#include "core/context.h"
#include "core/log.h"
#include "longbytes.h"

constexpr int32 LogImageMaximum = 65535;  // bytes of an image
constexpr int32 LogFieldMaximum = 254;  // content of a counted field: the length byte counts itself
constexpr int32 LogImageHeadSize = 11;  // size, time, number and level
constexpr ByteT LogFieldEmpty = 1;
constexpr ByteT LogSessionPresent = 1 + sizeof(UniqueT);
constexpr ByteT LogObjectNone = 1;
constexpr ByteT LogObjectFollows = 2;
constexpr int32 LogTimeOffset = 2;
constexpr int32 LogNumberOffset = 6;
constexpr int32 LogLevelOffset = 10;

// Descriptors of the classes that messages bring.
constexpr char LogMessageDescriptor[] = "d;";
constexpr char LogCriteriaDescriptor[] = "b;u;i;i;o;o;i;i;b;s;b;";
constexpr char LogRequestDescriptor[] = "b;i;o;s;";

inline TesselContextLogS& LogState() { return gtTlContext.sLog; }

// An image taken apart; everything points into it.
struct LogImageT {
    const ByteT* ptSession;  // null without a session
    std::string_view tClient;
    std::string_view tClass;
    std::string_view tFormat;
    std::span<const ByteT> tArguments;  // counted fields
    std::span<const ByteT> tObject;     // empty without an object
};

// False when the bytes do not begin with a whole image.
bool LogParseImage(LogImageT* ptImage, std::span<const ByteT> tBytes);
bool LogParseOwn(LogImageT* ptImage, const ByteT* ptLogImage);  // by the image's own size
// The next counted field; false, with tBytes as it was, when there is no whole one.
bool LogTakeField(std::string_view* ptField, std::span<const ByteT>& tBytes);

// Bytes of the place holder at the "%" that the text begins with: 3 for "%l" and a letter, else 2,
// or 1 at the end of the text. Writing and showing a message must agree on it.
inline int32 LogPlaceHolderSize(std::string_view tText) {
    if (tText.size() < 2) return 1;
    const int iAfter = tText[1] == 'l' && tText.size() > 2 ? tText[2] | 0x20 : 0;
    return iAfter >= 'a' && iAfter <= 'z' ? 3 : 2;
}

// Appends the image to the direct-log file. FALSE, traced, when the file does not hold it then.
BooleanT LogDirect(const ByteT* ptLog, int32 lSize);
