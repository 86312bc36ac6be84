// Growing strings: a buffer that is replaced by one of twice the needed size when it runs out.
// Bytes to add may lie in the buffer itself, so an old buffer is freed only after they are copied.
#include "core/strdynam.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "core/memory.h"
#include "core/trace.h"

TRACE_MODULE("STRDYNAM")
MEM_DEFAULT_POOL_CACHE

namespace {

bool IsDString(ObjDStringO oDString) {
    return ObjCheckTypeInternal(oDString, ObjDStringMagic) == TRUE;
}

char* Buffer(ObjDStringO oDString) { return static_cast<char*>(oDString->tBuffer.pData); }

// Makes room for llSize bytes; a new buffer gets llNewCapacity. The old buffer, when there is a new
// one, is handed over in pstrOld. FALSE when there is no memory.
BooleanT MakeRoom(ObjDStringO oDString, int64 llSize, int64 llNewCapacity, PoolPtr<char>& pstrOld) {
    if (llSize <= oDString->tBuffer.lSize) return TRUE;
    constexpr int64 llMost = std::numeric_limits<int32>::max();
    // More than can be counted is refused by the pool.
    const int32 lCapacity =
        llSize > llMost ? -1 : static_cast<int32>(std::min(llNewCapacity, llMost));
    void* pBuffer = MemAllocateFromPool(lCapacity, MemPool());
    if (pBuffer == nullptr) return FALSE;
    std::copy_n(Buffer(oDString), oDString->lStrSize, static_cast<char*>(pBuffer));
    *pstrOld.Address() = Buffer(oDString);
    oDString->tBuffer = {lCapacity, pBuffer};
    return TRUE;
}

// Where the last character of a string that is not empty begins. Characters end with every byte
// that is no lead byte, so the lead bytes in front of the last byte tell.
char* LastChar(ObjDStringO oDString) {
    char* pstrLast = Buffer(oDString) + oDString->lStrSize - 2;
    const char* pstrLead = pstrLast;
    while (pstrLead > Buffer(oDString) && StrIsDBCSLeadByte(pstrLead[-1]) == TRUE) --pstrLead;
    return (pstrLast - pstrLead) % 2 != 0 ? pstrLast - 1 : pstrLast;
}

}  // namespace

ObjDStringO ObjDStringNew(const char* pstrString) {
    TraceMessageInline(1, 0, 4, "Creating new dstring '%s'",
                       pstrString == nullptr ? "" : pstrString);
    return ObjDStringNewSized(pstrString, 0);
}

ObjDStringO ObjDStringNewSized(const char* pstrString, int32 lMinBytes) {
    if (pstrString == nullptr) pstrString = "";
    ObjHolder<ObjDStringS> oDString(ObjNew<ObjDStringS>(ObjDStringMagic, "d;i;o;"));
    if (oDString.Get() == nullptr) return nullptr;
    PoolPtr<char> pstrOld;
    const int32 lSize = StrSize(pstrString);
    const int64 llCapacity = std::max(int64{lMinBytes}, 2 * int64{lSize});
    if (MakeRoom(oDString.Get(), lSize, llCapacity, pstrOld) != TRUE) return nullptr;
    StrCopy(Buffer(oDString.Get()), pstrString);
    oDString.Get()->lStrSize = lSize;
    return oDString.Take();
}

char* DStringAppendSized(ObjDStringO oDString, const char* pstrToAppend, int32 lAppendStrBytes) {
    if (!IsDString(oDString)) return nullptr;
    if (pstrToAppend == nullptr || lAppendStrBytes < 1) return Buffer(oDString);
    const int64 llNewSize = int64{oDString->lStrSize} + lAppendStrBytes;
    PoolPtr<char> pstrOld;
    if (MakeRoom(oDString, llNewSize, 2 * llNewSize, pstrOld) != TRUE) return nullptr;
    char* pstrEnd = Buffer(oDString) + oDString->lStrSize - 1;
    std::memmove(pstrEnd, pstrToAppend, static_cast<std::size_t>(lAppendStrBytes));
    pstrEnd[lAppendStrBytes] = '\0';
    oDString->lStrSize = static_cast<int32>(llNewSize);
    return Buffer(oDString);
}

char* DStringSetSized(ObjDStringO oDString, const char* pstrString, int32 lSetStrBytes) {
    if (!IsDString(oDString)) return nullptr;
    if (pstrString == nullptr || lSetStrBytes < 0) lSetStrBytes = 0;
    const int64 llNewSize = int64{lSetStrBytes} + 1;
    PoolPtr<char> pstrOld;
    if (MakeRoom(oDString, llNewSize, 2 * llNewSize, pstrOld) != TRUE) return nullptr;
    if (lSetStrBytes != 0)
        std::memmove(Buffer(oDString), pstrString, static_cast<std::size_t>(lSetStrBytes));
    Buffer(oDString)[lSetStrBytes] = '\0';
    oDString->lStrSize = static_cast<int32>(llNewSize);
    return Buffer(oDString);
}

char* DStringAppendCharNTimes(ObjDStringO oDString, int iChar, int32 lNumTimes) {
    if (!IsDString(oDString)) return nullptr;
    if (iChar == 0 || lNumTimes < 1) return Buffer(oDString);
    const int64 llNewSize = oDString->lStrSize + int64{lNumTimes} * (iChar > 0xff ? 2 : 1);
    PoolPtr<char> pstrOld;
    if (MakeRoom(oDString, llNewSize, 2 * llNewSize, pstrOld) != TRUE) return nullptr;
    char* pstrEnd = Buffer(oDString) + oDString->lStrSize - 1;
    while (lNumTimes-- > 0) StrPutChar(&pstrEnd, iChar);
    StrPutChar(&pstrEnd, 0);
    oDString->lStrSize = static_cast<int32>(llNewSize);
    return Buffer(oDString);
}

char* DStringAppendInteger(ObjDStringO oDString, int32 lValue) {
    return DStringAppendInt64(oDString, lValue);
}

char* DStringAppendInt64(ObjDStringO oDString, int64 tValue) {
    char acText[24];
    const int iLength =
        std::snprintf(acText, sizeof(acText), "%lld", static_cast<long long>(tValue));
    return DStringAppendSized(oDString, acText, iLength);
}

int32 DStringBytesUsed(ObjDStringO oDString) {
    return IsDString(oDString) ? oDString->lStrSize : 0;
}

int DStringLastChar(ObjDStringO oDString) {
    if (!IsDString(oDString) || oDString->lStrSize < 2) return 0;
    return StrGetCharAtPointer(LastChar(oDString));
}

BooleanT DStringDeleteLastChar(ObjDStringO oDString) {
    if (!IsDString(oDString) || oDString->lStrSize < 2) return FALSE;
    char* pstrLast = LastChar(oDString);
    *pstrLast = '\0';
    oDString->lStrSize = static_cast<int32>(pstrLast - Buffer(oDString)) + 1;
    return TRUE;
}
