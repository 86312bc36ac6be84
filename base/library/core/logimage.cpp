// Reading log images. Images come from files and from other processes, so the whole image is
// checked against its size whenever a field behind the fixed head is asked for: an image is short,
// and nothing has to be kept beside it.
#include <algorithm>
#include <cstring>

#include "core/memory.h"
#include "core/objserial.h"
#include "core/unique.h"
#include "loginternal.h"

MEM_DEFAULT_POOL_CACHE

namespace {

bool LogTakeByte(ByteT* ptByte, std::span<const ByteT>& tBytes) {
    if (tBytes.empty()) return false;
    *ptByte = tBytes[0];
    tBytes = tBytes.subspan(1);
    return true;
}

bool LogTakeSession(const ByteT** pptSession, std::span<const ByteT>& tBytes) {
    std::string_view tSession;
    if (!LogTakeField(&tSession, tBytes)) return false;
    if (tSession.empty()) return true;
    *pptSession = reinterpret_cast<const ByteT*>(tSession.data());
    return tSession.size() == sizeof(UniqueT);
}

char* LogCopyText(std::string_view tText) {
    const auto lSize = static_cast<int32>(tText.size());
    auto* pstrText = static_cast<char*>(MemAllocateFromPool(lSize + 1, MemPool()));
    if (pstrText != nullptr) std::copy(tText.begin(), tText.end(), pstrText);
    return pstrText;
}

}  // namespace

bool LogTakeField(std::string_view* ptField, std::span<const ByteT>& tBytes) {
    if (tBytes.empty() || tBytes[0] < LogFieldEmpty || tBytes[0] > tBytes.size()) return false;
    *ptField = {reinterpret_cast<const char*>(tBytes.data()) + 1, tBytes[0] - std::size_t{1}};
    tBytes = tBytes.subspan(tBytes[0]);
    return true;
}

bool LogParseImage(LogImageT* ptImage, std::span<const ByteT> tBytes) {
    *ptImage = {};
    if (tBytes.size() < LogImageHeadSize) return false;
    const auto lSize = static_cast<std::size_t>(LogGetRecordSize(tBytes.data()));
    if (lSize < LogImageHeadSize || lSize > tBytes.size()) return false;
    std::span<const ByteT> tRest = tBytes.first(lSize).subspan(LogImageHeadSize);
    ByteT tCount = 0;
    if (!LogTakeSession(&ptImage->ptSession, tRest) || !LogTakeField(&ptImage->tClient, tRest) ||
        !LogTakeField(&ptImage->tClass, tRest) || !LogTakeField(&ptImage->tFormat, tRest) ||
        ptImage->tFormat.empty() || !LogTakeByte(&tCount, tRest))
        return false;
    ptImage->tArguments = tRest;
    std::string_view tArgument;
    for (int32 lArgument = 0; lArgument < tCount; lArgument++) {
        if (!LogTakeField(&tArgument, tRest)) return false;
    }
    ptImage->tArguments = ptImage->tArguments.first(ptImage->tArguments.size() - tRest.size());
    ByteT tMarker = 0;
    if (!LogTakeByte(&tMarker, tRest)) return false;
    ptImage->tObject = tRest;
    return tMarker == (tRest.empty() ? LogObjectNone : LogObjectFollows);
}

bool LogParseOwn(LogImageT* ptImage, const ByteT* ptLogImage) {
    if (ptLogImage == nullptr) return false;
    const auto lSize = static_cast<std::size_t>(LogGetRecordSize(ptLogImage));
    return LogParseImage(ptImage, {ptLogImage, lSize});
}

BooleanT LogIsImage(const ByteT* ptLogImage, int32 lSize) {
    LogImageT tImage;
    return BooleanFrom(ptLogImage != nullptr && lSize > 0 &&
                       LogParseImage(&tImage, {ptLogImage, static_cast<std::size_t>(lSize)}));
}

ByteT* LogGetRawImage(logdMessageO oMessage) {
    if (ObjCheckTypeInternal(oMessage, logdMessageMagic) != TRUE) return nullptr;
    auto* ptLogImage = static_cast<ByteT*>(oMessage->tLogEntry.pData);
    return LogIsImage(ptLogImage, oMessage->tLogEntry.lSize) == TRUE ? ptLogImage : nullptr;
}

int32 LogGetRecordSize(const ByteT* ptLogImage) {
    return ptLogImage == nullptr ? 0 : ptLogImage[0] | ptLogImage[1] << 8;
}

TimeT LogGetTimeStamp(const ByteT* ptLogImage) {
    return ptLogImage == nullptr ? 0 : ObjLoadLong(ptLogImage + LogTimeOffset);
}

void LogSetTimeStamp(ByteT* ptLogImage, TimeT tTime) {
    if (ptLogImage != nullptr) ObjStoreLong(ptLogImage + LogTimeOffset, tTime);
}

int32 LogGetLogId(const ByteT* ptLogImage) {
    return ptLogImage == nullptr ? 0 : ObjLoadLong(ptLogImage + LogNumberOffset);
}

int32 LogGetWarnLevel(const ByteT* ptLogImage) {
    return ptLogImage == nullptr ? 0 : ptLogImage[LogLevelOffset] & ~LogOperatorBit;
}

BooleanT LogIsOperatorMsg(const ByteT* ptLogImage) {
    return BooleanFrom(ptLogImage != nullptr && (ptLogImage[LogLevelOffset] & LogOperatorBit) != 0);
}

BooleanT LogHasSessionId(const ByteT* ptLogImage) {
    LogImageT tImage;
    return BooleanFrom(LogParseOwn(&tImage, ptLogImage) && tImage.ptSession != nullptr);
}

BooleanT LogGetSessionId(UniqueT* ptSessionId, const ByteT* ptLogImage) {
    LogImageT tImage;
    if (ptSessionId == nullptr || !LogParseOwn(&tImage, ptLogImage) || tImage.ptSession == nullptr)
        return FALSE;
    std::memcpy(ptSessionId, tImage.ptSession, sizeof(*ptSessionId));
    return TRUE;
}

int32 LogGetJobId(const ByteT* ptLogImage) {
    UniqueT tSessionId;
    return LogGetSessionId(&tSessionId, ptLogImage) == TRUE ? UniqueGetSessionJobId(&tSessionId)
                                                            : 0;
}

char* LogGetClientString(const ByteT* ptLogImage) {
    LogImageT tImage;
    return LogParseOwn(&tImage, ptLogImage) ? LogCopyText(tImage.tClient) : nullptr;
}

char* LogGetClassString(const ByteT* ptLogImage) {
    LogImageT tImage;
    return LogParseOwn(&tImage, ptLogImage) ? LogCopyText(tImage.tClass) : nullptr;
}

BooleanT LogHasObject(const ByteT* ptLogImage) {
    LogImageT tImage;
    return BooleanFrom(LogParseOwn(&tImage, ptLogImage) && !tImage.tObject.empty());
}

BooleanT LogGetObject(void** poObject, const ByteT* ptLogImage) {
    LogImageT tImage;
    if (poObject == nullptr || !LogParseOwn(&tImage, ptLogImage) || tImage.tObject.empty())
        return FALSE;
    return ObjReconstructWithoutCircles(poObject, tImage.tObject.data(),
                                        static_cast<int32>(tImage.tObject.size()));
}
