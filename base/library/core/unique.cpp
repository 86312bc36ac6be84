// Unique identifiers of jobs, their instances and phases. What makes the base unique is spread over
// its words: the machine's address, the second, a random number, the process and a counter of the
// process; the random number tells apart what the others cannot, such as a machine whose clock was
// put back.
#include "core/unique.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/context.h"
#include "core/list.h"
#include "core/net.h"
#include "core/process.h"
#include "core/trace.h"
#include "longbytes.h"

TRACE_MODULE("UNIQUE")

char gstrIpAddress[64];

namespace {

constexpr int32 UniqueSize = sizeof(UniqueT);
constexpr int32 UniqueBaseSize = 20;  // bytes; the offsets of the numbers follow
constexpr int32 UniqueBaseWords = UniqueBaseSize / 4;
constexpr int32 UniqueJobId = 20;
constexpr int32 UniqueInstance = 24;
constexpr int32 UniquePhase = 28;
constexpr int32 UniqueSubPhase = 30;

constexpr int32 UniqueShortText = 2 * UniqueBaseSize;
constexpr int32 UniqueLongText = 68;
constexpr int32 alUniqueBlanks[] = {40, 49, 58, 63};  // between the numbers of the long text

constexpr UniqueT gtInvalid = {};

uint32 glSequence = 0;

// The words of the base, in the host's order.
struct UniqueBaseT {
    uint32 aWords[UniqueBaseWords];
};
static_assert(sizeof(UniqueBaseT) == UniqueBaseSize);

UniqueBaseT UniqueBaseOf(const UniqueT* ptValue) {
    UniqueBaseT tBase;
    std::memcpy(&tBase, ptValue->tUnique, sizeof(tBase));
    return tBase;
}

void UniqueStoreShort(UniqueT* ptValue, int32 lOffset, int32 lNumber) {
    ptValue->tUnique[lOffset] = static_cast<ByteT>(lNumber);
    ptValue->tUnique[lOffset + 1] = static_cast<ByteT>(lNumber >> 8);
}

void UniqueStoreLong(UniqueT* ptValue, int32 lOffset, int32 lNumber) {
    ObjStoreLong(ptValue->tUnique + lOffset, lNumber);
}

int32 UniqueLoadLong(const UniqueT* ptValue, int32 lOffset) {
    return ObjLoadLong(ptValue->tUnique + lOffset);
}

int32 UniqueLoadShort(const UniqueT* ptValue, int32 lOffset) {
    return static_cast<std::int16_t>(ptValue->tUnique[lOffset] | ptValue->tUnique[lOffset + 1]
                                                                     << 8);
}

uint32 UniqueAddressWord() {
    uint32 aWords[4];
    std::memcpy(aWords, gstrIpAddress, sizeof(aWords));
    return aWords[0] ^ aWords[1] ^ aWords[2] ^ aWords[3];
}

// --- comparing ---

int32 UniqueSign(int64 llDifference) { return llDifference < 0 ? -1 : llDifference > 0 ? 1 : 0; }

// Null sorts first.
int32 UniqueCompareBytes(const UniqueT* ptUnique1, const UniqueT* ptUnique2, int32 lBytes) {
    if (ptUnique1 == nullptr || ptUnique2 == nullptr) {
        return static_cast<int32>(ptUnique1 != nullptr) - static_cast<int32>(ptUnique2 != nullptr);
    }
    return UniqueSign(
        std::memcmp(ptUnique1->tUnique, ptUnique2->tUnique, static_cast<std::size_t>(lBytes)));
}

int32 UniqueCompareNumber(const UniqueT* ptUnique1, const UniqueT* ptUnique2, int32 lOffset) {
    if (ptUnique1 == nullptr || ptUnique2 == nullptr) return 0;
    return UniqueSign(int64{UniqueLoadLong(ptUnique1, lOffset)} -
                      UniqueLoadLong(ptUnique2, lOffset));
}

BooleanT UniqueIsEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2, int32 lBytes) {
    return BooleanFrom(ptUnique1 != nullptr && ptUnique2 != nullptr &&
                       UniqueCompareBytes(ptUnique1, ptUnique2, lBytes) == 0);
}

// --- text ---

bool UniqueIsText(const char* pstrString) {
    const std::size_t iLength = strnlen(pstrString, UniqueLongText + 1);
    if (iLength != UniqueShortText && iLength != UniqueLongText) return false;
    for (int32 l = 0; l < static_cast<int32>(iLength); l++) {
        const bool bBlank = std::find(std::begin(alUniqueBlanks), std::end(alUniqueBlanks), l) !=
                            std::end(alUniqueBlanks);
        const auto tChar = static_cast<ByteT>(pstrString[l]);
        if (bBlank ? tChar != ' ' : std::isxdigit(tChar) == 0) return false;
    }
    return true;
}

// The number written in lDigits hexadecimal digits.
int32 UniqueNumber(const char* pstrDigits, int32 lDigits) {
    uint32 lNumber = 0;
    std::from_chars(pstrDigits, pstrDigits + lDigits, lNumber, 16);
    return static_cast<int32>(lNumber);
}

}  // namespace

BooleanT UniqueInitialize() {
    const ObjHolder<ListS> oAddresses(ListNew(NetAddressMagic));
    ObjHolder<NetAddressS> oFirst;
    if (NetGetLocalHostAddress(oAddresses.Get(), 0) != TRUE ||
        ListPopFirstItem(oAddresses.Get(), oFirst.Address()) != TRUE) {
        std::fputs("Unique seeding failed - can't get hostname\n", stderr);
        return FALSE;
    }
    char acAddress[sizeof(gstrIpAddress)] = {};
    if (NetGetIpAddress(&oFirst.Get()->tAddress, acAddress, sizeof(acAddress)) == nullptr) {
        std::fputs("Unique seeding failed, invalid IP address\n", stderr);
        return FALSE;
    }
    std::memcpy(gstrIpAddress, acAddress, sizeof(gstrIpAddress));
    return TRUE;
}

BooleanT UniqueInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void UniqueReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT UniqueCreate(UniqueT* ptNew) {
    if (ptNew == nullptr) return FALSE;
    const auto lTime = static_cast<uint32>(std::time(nullptr));
    if (glSequence == 0) std::srand(lTime);
    const UniqueBaseT tBase = {{UniqueAddressWord(), lTime, static_cast<uint32>(std::rand()),
                                static_cast<uint32>(ProcGetRealId()), glSequence++}};
    *ptNew = gtInvalid;
    std::memcpy(ptNew->tUnique, &tBase, sizeof(tBase));
    TraceMessageInline(1, 0, 4, "Created Unique %08x%08x%08x%08x%08x", tBase.aWords[0],
                       tBase.aWords[1], tBase.aWords[2], tBase.aWords[3], tBase.aWords[4]);
    return TRUE;
}

BooleanT UniqueCreateSessionId(UniqueT* ptNewUnique, int32 lJobId, int32 lInstance, int32 lPhase) {
    if (UniqueCreate(ptNewUnique) != TRUE) return FALSE;
    UniqueStoreLong(ptNewUnique, UniqueJobId, lJobId);
    UniqueStoreLong(ptNewUnique, UniqueInstance, lInstance);
    UniqueStoreShort(ptNewUnique, UniquePhase, lPhase);
    return TRUE;
}

void UniqueInvalidate(UniqueT* ptValue) {
    if (ptValue != nullptr) *ptValue = gtInvalid;
}

BooleanT UniqueIsInvalid(const UniqueT* ptValue) {
    return BooleanFrom(ptValue == nullptr || UniqueEqual(ptValue, &gtInvalid) == TRUE);
}

BooleanT UniqueSetJobId(UniqueT* ptUnique, int32 lJobId) {
    if (UniqueIsInvalid(ptUnique) == TRUE) return FALSE;
    UniqueStoreLong(ptUnique, UniqueJobId, lJobId);
    return TRUE;
}

BooleanT UniqueSetSessionInstance(UniqueT* ptUnique, int32 lInstance) {
    if (UniqueIsInvalid(ptUnique) == TRUE) return FALSE;
    UniqueStoreLong(ptUnique, UniqueInstance, lInstance);
    return TRUE;
}

BooleanT UniqueSetSessionPhase(UniqueT* ptUnique, int32 lPhase) {
    if (UniqueIsInvalid(ptUnique) == TRUE) return FALSE;
    UniqueStoreShort(ptUnique, UniquePhase, lPhase);
    UniqueStoreShort(ptUnique, UniqueSubPhase, 0);
    return TRUE;
}

BooleanT UniqueIncrementSessionSubPhase(UniqueT* ptUnique) {
    if (UniqueIsInvalid(ptUnique) == TRUE) return FALSE;
    UniqueStoreShort(ptUnique, UniqueSubPhase, UniqueLoadShort(ptUnique, UniqueSubPhase) + 1);
    return TRUE;
}

BooleanT UniqueGetJobId(const UniqueT* ptUnique, int32* plJobId) {
    if (ptUnique == nullptr || plJobId == nullptr) return FALSE;
    *plJobId = UniqueLoadLong(ptUnique, UniqueJobId);
    return BooleanFrom(*plJobId != 0);
}

int32 UniqueGetSessionJobId(UniqueT* ptUnique) {
    return ptUnique == nullptr ? 0 : UniqueLoadLong(ptUnique, UniqueJobId);
}

int32 UniqueGetSessionInstance(UniqueT* ptUnique) {
    return ptUnique == nullptr ? 0 : UniqueLoadLong(ptUnique, UniqueInstance);
}

int32 UniqueGetSessionPhase(UniqueT* ptUnique) {
    return ptUnique == nullptr ? 0 : UniqueLoadShort(ptUnique, UniquePhase);
}

BooleanT UniqueGetSessionSubPhase(int32* plSubPhase, UniqueT* ptUnique) {
    if (plSubPhase == nullptr || UniqueIsInvalid(ptUnique) == TRUE) return FALSE;
    *plSubPhase = UniqueLoadShort(ptUnique, UniqueSubPhase);
    return TRUE;
}

BooleanT UniqueEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    return UniqueIsEqual(ptUnique1, ptUnique2, UniqueSize);
}

int32 UniqueCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    return UniqueCompareBytes(ptUnique1, ptUnique2, UniqueSize);
}

BooleanT UniqueBaseEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    return UniqueIsEqual(ptUnique1, ptUnique2, UniqueBaseSize);
}

int32 UniqueBaseCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    return UniqueCompareBytes(ptUnique1, ptUnique2, UniqueBaseSize);
}

BooleanT UniqueJobEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    return UniqueIsEqual(ptUnique1, ptUnique2, UniqueInstance);
}

int32 UniqueJobCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    const int32 lBase = UniqueBaseCompare(ptUnique1, ptUnique2);
    return lBase != 0 ? lBase : UniqueCompareNumber(ptUnique1, ptUnique2, UniqueJobId);
}

BooleanT UniqueInstanceEqual(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    return UniqueIsEqual(ptUnique1, ptUnique2, UniquePhase);
}

int32 UniqueInstanceCompare(const UniqueT* ptUnique1, const UniqueT* ptUnique2) {
    const int32 lJob = UniqueJobCompare(ptUnique1, ptUnique2);
    return lJob != 0 ? lJob : UniqueCompareNumber(ptUnique1, ptUnique2, UniqueInstance);
}

BooleanT UniqueSameSessionInstance(UniqueT* ptSession1, UniqueT* ptSession2) {
    return UniqueIsEqual(ptSession1, ptSession2, UniquePhase);
}

BooleanT UniqueSameSessionPhase(UniqueT* ptSession1, UniqueT* ptSession2) {
    return UniqueIsEqual(ptSession1, ptSession2, UniqueSubPhase);
}

BooleanT UniqueDecode(const UniqueT* ptValue, UniqueDecodeT* ptDecode) {
    if (ptValue == nullptr || ptDecode == nullptr) return FALSE;
    if (UniqueIsInvalid(ptValue) == TRUE) return TRUE;
    const UniqueBaseT tBase = UniqueBaseOf(ptValue);
    *ptDecode = {.lIpAddress = static_cast<int32>(tBase.aWords[0]),
                 .lTime = static_cast<int32>(tBase.aWords[1]),
                 .lRandom = static_cast<int32>(tBase.aWords[2]),
                 .lId = static_cast<int32>(tBase.aWords[3]),
                 .lSequence = static_cast<int32>(tBase.aWords[4]),
                 .lJobId = UniqueLoadLong(ptValue, UniqueJobId),
                 .lInstance = UniqueLoadLong(ptValue, UniqueInstance),
                 .lPhase = UniqueLoadShort(ptValue, UniquePhase),
                 .lSubPhase = UniqueLoadShort(ptValue, UniqueSubPhase)};
    return TRUE;
}

const char* UniqueToString(const UniqueT* ptValue) {
    char* pstrText = gtTlContext.sUnique.strString;
    constexpr std::size_t iSize = sizeof(gtTlContext.sUnique.strString);
    if (UniqueIsInvalid(ptValue) == TRUE) {
        std::snprintf(pstrText, iSize, "%s", ptValue == nullptr ? "(null)" : "(invalid)");
        return pstrText;
    }
    for (std::size_t i = 0; i < UniqueBaseSize; i++)
        std::snprintf(pstrText + 2 * i, 3, "%02x", ptValue->tUnique[i]);
    if (const int32 lJobId = UniqueLoadLong(ptValue, UniqueJobId); lJobId != 0) {
        std::snprintf(pstrText + UniqueShortText, iSize - UniqueShortText, " %08x %08x %04hx %04hx",
                      static_cast<uint32>(lJobId),
                      static_cast<uint32>(UniqueLoadLong(ptValue, UniqueInstance)),
                      static_cast<std::uint16_t>(UniqueLoadShort(ptValue, UniquePhase)),
                      static_cast<std::uint16_t>(UniqueLoadShort(ptValue, UniqueSubPhase)));
    }
    return pstrText;
}

BooleanT UniqueFromString(UniqueT* ptOut, const char* pstrString) {
    if (ptOut == nullptr || pstrString == nullptr || !UniqueIsText(pstrString)) return FALSE;
    UniqueT tValue = gtInvalid;
    for (int32 l = 0; l < UniqueBaseSize; l++)
        tValue.tUnique[l] = static_cast<ByteT>(UniqueNumber(pstrString + 2 * l, 2));
    if (pstrString[UniqueShortText] != '\0') {
        UniqueStoreLong(&tValue, UniqueJobId, UniqueNumber(pstrString + 41, 8));
        UniqueStoreLong(&tValue, UniqueInstance, UniqueNumber(pstrString + 50, 8));
        UniqueStoreShort(&tValue, UniquePhase, UniqueNumber(pstrString + 59, 4));
    }
    *ptOut = tValue;
    return TRUE;
}
