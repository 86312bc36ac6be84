// A small log daemon. It keeps the log images that come to it, one behind the other in a file and
// nowhere else, and answers queries: every entry that the criteria let through as a message like
// the one that brought it, then the end of the request.
//
//   logdaemon [7|LANGUAGE]    KRHOME names the home directory, whose "logs/log" holds the records.
//                             A text is searched for in what a reader of the language would see.
//                             7: started by the process manager
//
// Criteria: what is null, 0 or an empty list lets everything through. Of the warning levels bit n
// stands for the n-th one of LogListWarningLevels. A source, when there is one, is the client.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/memory.h"
#include "core/msgwait.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/strbase.h"
#include "manager.h"

MEM_DEFAULT_POOL_CACHE

namespace {

using Image = std::string;

std::string gPath;
std::ofstream gtFile;

std::string Taken(char* pstrText) {
    const PoolPtr<char> tText(pstrText);
    return pstrText == nullptr ? "" : pstrText;
}

// --- the file ---

// The records in order of arrival, up to one that was cut in the middle of its writing.
std::vector<Image> Entries() {
    std::vector<Image> entries;
    std::ifstream file(gPath, std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    for (std::size_t at = 0; at < all.size(); at += entries.back().size()) {
        const auto* ptImage = reinterpret_cast<const ByteT*>(all.data() + at);
        if (LogIsImage(ptImage, static_cast<int32>(all.size() - at)) != TRUE) break;
        entries.emplace_back(all, at, static_cast<std::size_t>(LogGetRecordSize(ptImage)));
    }
    return entries;
}

// What cannot be read goes, so that new records stand behind whole ones.
BooleanT Load() {
    const std::string directory = Taken(PathHomeBuild("logs", nullptr));
    gPath = directory + "/log";
    if (PathIsADirectory(directory.c_str()) != TRUE &&
        PathCreateDirectory(directory.c_str()) != TRUE)
        return FALSE;
    const std::vector<Image> entries = Entries();
    gtFile.open(gPath, std::ios::binary | std::ios::trunc);
    for (const Image& image : entries) gtFile << image;
    gtFile.flush();
    return BooleanFrom(gtFile.good());
}

MsgWaitResultE Keep(MsgMessageO oMessage, void* /*oCookie*/) {
    ObjHolder<logdMessageS> oLogged;
    MsgGetObject(oLogged.Address(), oMessage, logdMessageMagic);
    const ByteT* ptImage = LogGetRawImage(oLogged.Get());
    if (ptImage != nullptr)
        gtFile.write(reinterpret_cast<const char*>(ptImage), LogGetRecordSize(ptImage)).flush();
    return eMsgWaitResultHandled;
}

// --- queries ---

// Whether a list of texts, where there is one, holds the text.
bool Holds(ListO oTexts, const std::string& text) {
    if (oTexts == nullptr || oTexts->oFirst == nullptr) return true;
    for (ListNodeO oNode = oTexts->oFirst; oNode != nullptr; oNode = oNode->oNext)
        if (ObjCheckTypeInternal(oNode->oData, ObjStringMagic) == TRUE &&
            text == ObjGetString(static_cast<ObjStringO>(oNode->oData)))
            return true;
    return false;
}

bool IsOfSession(const UniqueT& tWanted, const ByteT* ptImage) {
    UniqueT tSession;
    return LogGetSessionId(&tSession, ptImage) == TRUE &&
           std::memcmp(&tSession, &tWanted, sizeof(tSession)) == 0;
}

bool Matches(const logdCriteriaS& tCriteria, const ByteT* ptImage) {
    const TimeT tTime = LogGetTimeStamp(ptImage);
    const int32 lLevel = std::max((LogGetWarnLevel(ptImage) - 1) / 16, 0);  // among the eight
    const bool bSession = tCriteria.bSession == TRUE || tCriteria.bThisSessionOnly == TRUE;
    return (!bSession || IsOfSession(tCriteria.tSessionId, ptImage)) &&
           (tCriteria.lJobId == 0 || tCriteria.lJobId == LogGetJobId(ptImage)) &&
           (tCriteria.lWarningLevels == 0 || (tCriteria.lWarningLevels >> lLevel & 1) == 1) &&
           (tCriteria.tStart == 0 || tTime >= tCriteria.tStart) &&
           (tCriteria.tStop == 0 || tTime <= tCriteria.tStop) &&
           (tCriteria.bOperatorOnly != TRUE || LogIsOperatorMsg(ptImage) == TRUE) &&
           Holds(tCriteria.oClasses, Taken(LogGetClassString(ptImage))) &&
           Holds(tCriteria.oClients, Taken(LogGetClientString(ptImage))) &&
           PoolPtr<char>(LogGetLogString(ptImage, tCriteria.pstrText)).Get() != nullptr;
}

bool Wanted(const logdRequestEntriesS& tRequest, const ByteT* ptImage) {
    const std::string source = tRequest.pstrSource == nullptr ? "" : tRequest.pstrSource;
    return (source.empty() || Taken(LogGetClientString(ptImage)) == source) &&
           (ObjCheckTypeInternal(tRequest.oCriteria, logdCriteriaMagic) != TRUE ||
            Matches(*tRequest.oCriteria, ptImage));
}

void SendEntry(MsgAddressO oTo, const Image& image) {
    const ObjHolder<logdMessageS> oEntry(ObjNew<logdMessageS>(logdMessageMagic, "d;"));
    const auto lSize = static_cast<int32>(image.size());
    oEntry.Get()->tLogEntry = {lSize, MemAllocateFromPool(lSize, MemPool())};
    std::memcpy(oEntry.Get()->tLogEntry.pData, image.data(), image.size());
    MsgSendObject(oTo, LOGD_LOG_MSG, oEntry.Get());
}

MsgWaitResultE Answer(MsgMessageO oMessage, void* /*oCookie*/) {
    ObjHolder<logdRequestEntriesS> oRequest;
    if (MsgGetObject(oRequest.Address(), oMessage, logdRequestEntriesMagic) == TRUE) {
        std::vector<Image> wanted = Entries();
        std::erase_if(wanted, [&](const Image& image) {
            return !Wanted(*oRequest.Get(), reinterpret_cast<const ByteT*>(image.data()));
        });
        if (oRequest.Get()->bNewFirst == TRUE) std::reverse(wanted.begin(), wanted.end());
        const auto most = static_cast<std::size_t>(std::max(oRequest.Get()->lMaxEntries, 0));
        if (most != 0 && wanted.size() > most) wanted.resize(most);
        for (const Image& image : wanted) SendEntry(oMessage->oSource, image);
    }
    MsgSendObject(oMessage->oSource, LOGD_END_OF_REQUEST_MSG, nullptr);
    return eMsgWaitResultHandled;
}

}  // namespace

int main(int argc, char** argv) {
    const char* pstrArgument = argc > 1 ? argv[1] : nullptr;
    if (ManagerJoin("logdaemon", MsgLogDaemonId, pstrArgument) != TRUE || Load() != TRUE ||
        MsgWaitAddHandler(LOGD_LOG_MSG, Keep, nullptr) != TRUE ||
        MsgWaitAddHandler(LOGD_REQUEST_ENTRIES_MSG, Answer, nullptr) != TRUE)
        return 1;
    LogSetLocale(gbOfTheDay ? nullptr : pstrArgument);
    ManagerReady(0);
    while (MsgWaitPollWithTimeout(nullptr) == TRUE) {
    }
    ManagerEnd();
    return 0;
}
