// Packets: a message as bytes. A packet is one block from its header to the end of its body; the
// body is measured first, so that it is written once, into the block that the packet keeps.
//
// Most packets are read in another process than they were made in, and what arrives from there may
// say anything. The sizes that a packet states are compared with the block that it is in, and the
// reader of the body knows where the block ends.
#include <cstring>
#include <limits>
#include <utility>

#include "core/memory.h"
#include "core/msg.h"
#include "core/objserial.h"
#include "core/trace.h"
#include "memoryraw.h"
#include "msginternal.h"
#include "objtransfer.h"

TRACE_MODULE("MESSAGE")
MEM_DEFAULT_POOL_CACHE

namespace {

// The process that takes the packet on a local link. What goes to another machine goes through the
// network manager.
int32 MsgNextHop(const MsgPacketAddressT& tDestination) {
    switch (tDestination.tMachineId) {
        case MsgMachineIdNone:
            return static_cast<int32>(0U - static_cast<uint32>(tDestination.tProcessId));
        case MsgMachineIdLocal:
            return tDestination.tProcessId;
        default:
            return MsgNetworkManagerId;
    }
}

ByteT* MsgPacketBytes(MsgPacketO oPacket) { return static_cast<ByteT*>(oPacket->tMessage.pData); }

// A block with the object behind an empty prefix, and its size; null when it cannot be written.
PoolPtr<ByteT> MsgWriteBody(int32* plSize, void* oObject, bool bWithin) {
    constexpr int32 lLargest =
        std::numeric_limits<int32>::max() - MemBlockOverhead - 4 - MsgPacketPrefixSize;
    const int32 lBody = bWithin ? ObjSerializedSizeLocal(oObject) : ObjSerializedSize(oObject);
    if (lBody < 0 || lBody > lLargest) return PoolPtr<ByteT>();
    *plSize = MsgPacketPrefixSize + lBody;
    PoolPtr<ByteT> pBytes(static_cast<ByteT*>(MemAllocateRaw(*plSize, MemPool())));
    if (pBytes.Get() == nullptr) return PoolPtr<ByteT>();
    MemZero(pBytes.Get(), MsgPacketPrefixSize);
    ByteT* pBody = pBytes.Get() + MsgPacketPrefixSize;
    int32 lWritten = 0;
    const BooleanT bResult = bWithin ? ObjSerializeLocal(oObject, pBody, &lWritten)
                                     : ObjSerializeToMemory(oObject, pBody, &lWritten);
    return bResult == TRUE && lWritten == lBody ? std::move(pBytes) : PoolPtr<ByteT>();
}

BooleanT MsgBuildPacket(MsgPacketO* poPacket, const MsgPacketAddressT& tDestination,
                        const MsgPacketAddressT& tSource, MsgTypeT tMsgType, void* oObject,
                        bool bWithin) {
    ObjHolder<MsgPacketS> oPacket(ObjNew<MsgPacketS>(MsgPacketMagic, MsgPacketDescriptor));
    if (oPacket.Get() == nullptr) return FALSE;
    int32 lSize = 0;
    PoolPtr<ByteT> pBytes = MsgWriteBody(&lSize, oObject, bWithin);
    if (pBytes.Get() == nullptr) {
        TraceMessageInline(40, 1, -1, "Unable to serialize Message object to buffer");
        return FALSE;
    }
    const MsgHeaderT tHeader = {
        MsgNextHop(tDestination),     lSize, tSource, tDestination, tMsgType,
        bWithin ? MsgPacketWithin : 0};
    std::memcpy(pBytes.Get(), &tHeader, sizeof(tHeader));
    ObjStoreLong(pBytes.Get() + MsgHeaderAreaSize, lSize - MsgHeaderAreaSize);
    ObjStoreLong(pBytes.Get() + MsgHeaderAreaSize + 4, tMsgType);
    oPacket.Get()->tMessage = {lSize, pBytes.Take()};
    *poPacket = oPacket.Take();
    return TRUE;
}

BooleanT MsgAddressPacket(MsgPacketO* poPacket, MsgAddressO oDestination, MsgAddressO oSource,
                          MsgTypeT tMsgType, void* oObject, bool bWithin) {
    MsgPacketAddressT tDestination = {};
    MsgPacketAddressT tSource = {};
    if (poPacket == nullptr || MsgAddressToPacketAddress(&tDestination, oDestination) != TRUE ||
        MsgAddressToPacketAddress(&tSource, oSource) != TRUE || !MsgIsBody(oObject)) {
        return FALSE;
    }
    return MsgBuildPacket(poPacket, tDestination, tSource, tMsgType, oObject, bWithin);
}

// The header of a packet whose statements about itself hold; null, traced, for any other.
const MsgHeaderT* MsgSoundHeader(MsgPacketO oPacket) {
    const MsgHeaderT* ptHeader = MsgPacketHeader(oPacket);
    if (ptHeader == nullptr) {
        TraceMessageInline(41, 1, -1, "'%s' is no packet or too short for one",
                           ObjNameFromObject(oPacket));
        return nullptr;
    }
    const ByteT* pWords = MsgPacketBytes(oPacket) + MsgHeaderAreaSize;
    const int32 lSize = oPacket->tMessage.lSize;
    if (ptHeader->lLength != lSize || ObjLoadLong(pWords) != lSize - MsgHeaderAreaSize) {
        TraceMessageInline(42, 1, -1, "Packet of %d bytes states %d bytes and a body of %u", lSize,
                           ptHeader->lLength, static_cast<uint32>(ObjLoadLong(pWords)));
        return nullptr;
    }
    if (ObjLoadLong(pWords + 4) != ptHeader->tMsgType) {
        TraceMessageInline(43, 1, -1, "Packet of message type %d has a body of type %d",
                           ptHeader->tMsgType, ObjLoadLong(pWords + 4));
        return nullptr;
    }
    return ptHeader;
}

// The body of a sound packet, a new holder; null where there is none.
BooleanT MsgReadBody(void** poObject, MsgPacketO oPacket) {
    const bool bWithin = MsgPacketHeader(oPacket)->bMore == MsgPacketWithin;
    const ByteT* pBody = MsgPacketBytes(oPacket) + MsgPacketPrefixSize;
    const int32 lSize = oPacket->tMessage.lSize - MsgPacketPrefixSize;
    // Nobody breaks up circles in what others have sent.
    const BooleanT bResult = bWithin ? ObjReconstructLocal(poObject, pBody, lSize)
                                     : ObjReconstructWithoutCircles(poObject, pBody, lSize);
    if (bResult != TRUE) TraceMessageInline(44, 1, -1, "Body of a packet cannot be rebuilt");
    return bResult;
}

// Makes a packet that was to stay within the process one that may leave it: other processes read
// bodies of the ordinary kind.
BooleanT MsgMakePortable(MsgPacketO oPacket) {
    const MsgHeaderT* ptHeader = MsgSoundHeader(oPacket);
    ObjHolder<void> oObject;
    ObjHolder<MsgPacketS> oPortable;
    if (ptHeader == nullptr || MsgReadBody(oObject.Address(), oPacket) != TRUE ||
        MsgBuildPacket(oPortable.Address(), ptHeader->tDestination, ptHeader->tSource,
                       ptHeader->tMsgType, oObject.Get(), false) != TRUE) {
        return FALSE;
    }
    std::swap(oPacket->tMessage, oPortable.Get()->tMessage);
    return TRUE;
}

}  // namespace

// --- making packets ---

BooleanT MsgCreatePacket(MsgPacketO* poPacket, MsgAddressO oDestination, MsgAddressO oSource,
                         MsgTypeT tMsgType, void* oObject) {
    const BooleanT bResult =
        MsgAddressPacket(poPacket, oDestination, oSource, tMsgType, oObject, false);
    TraceMessageInline(45, 0, 4, "%s = MsgCreatePacket(%p, %p, %p, %d, %p)", BooleanText(bResult),
                       static_cast<void*>(poPacket), static_cast<void*>(oDestination),
                       static_cast<void*>(oSource), tMsgType, oObject);
    return bResult;
}

BooleanT MsgCreateSelfPacket(MsgPacketO* poPacket, MsgAddressO oDestination, MsgAddressO oSource,
                             MsgTypeT tMsgType, void* oObject) {
    return MsgAddressPacket(poPacket, oDestination, oSource, tMsgType, oObject, true);
}

BooleanT MsgMessageToPacket(MsgPacketO* poPacket, MsgMessageO oMessage) {
    if (!MsgIsMessage(oMessage)) return FALSE;
    return MsgCreatePacket(poPacket, oMessage->oDestination, oMessage->oSource, oMessage->tMsgType,
                           oMessage->oObject);
}

// --- reading packets ---

MsgHeaderT* MsgPacketHeader(MsgPacketO oPacket) {
    if (ObjCheckTypeInternal(oPacket, MsgPacketMagic) != TRUE ||
        oPacket->tMessage.pData == nullptr || oPacket->tMessage.lSize < MsgPacketPrefixSize) {
        return nullptr;
    }
    return static_cast<MsgHeaderT*>(oPacket->tMessage.pData);
}

MsgTypeT MsgPacketMsgType(MsgPacketO oPacket) {
    const MsgHeaderT* ptHeader = MsgPacketHeader(oPacket);
    return ptHeader == nullptr ? 0 : ptHeader->tMsgType;
}

BooleanT MsgFromPacket(MsgMessageO* poMessage, MsgPacketO oPacket) {
    TraceMessageInline(46, 0, 4, "Reconstruct reply");
    const MsgHeaderT* ptHeader = MsgSoundHeader(oPacket);
    if (ptHeader == nullptr) return FALSE;
    ObjHolder<MsgMessageS> oMessage(ObjNew<MsgMessageS>(MsgMessageMagic, MsgMessageDescriptor));
    if (oMessage.Get() == nullptr || MsgReadBody(&oMessage.Get()->oObject, oPacket) != TRUE) {
        return FALSE;
    }
    // A machine without a name here leaves its address null.
    MsgAddressFromPacketAddress(&oMessage.Get()->oDestination, &ptHeader->tDestination);
    MsgAddressFromPacketAddress(&oMessage.Get()->oSource, &ptHeader->tSource);
    oMessage.Get()->tMsgType = ptHeader->tMsgType;
    TraceMessageInline(47, 0, 4, "Got message type %s from %d:%d", MsgName(ptHeader->tMsgType),
                       ptHeader->tSource.tMachineId, ptHeader->tSource.tProcessId);
    *poMessage = oMessage.Take();
    return TRUE;
}

BooleanT MsgMessageFromPacket(MsgMessageO* poMessage, MsgPacketO oPacket) {
    BooleanT bResult = FALSE;
    if (poMessage != nullptr && ObjCheckTypeInternal(oPacket, MsgPacketMagic) == TRUE)
        bResult = MsgFromPacket(poMessage, oPacket);
    TraceMessageInline(48, 0, 4, "%s = MsgMessageFromPacket(%p, %p)", BooleanText(bResult),
                       static_cast<void*>(poMessage), static_cast<void*>(oPacket));
    return bResult;
}

BooleanT MsgObjectFromPacketInternal(void** poObject, MsgPacketO oPacket, int32 lMagic) {
    constexpr int32 lMagicOrNone = -1;
    ObjHolder<void> oObject;
    if (poObject == nullptr || MsgSoundHeader(oPacket) == nullptr ||
        MsgReadBody(oObject.Address(), oPacket) != TRUE) {
        return FALSE;
    }
    if (lMagic != 0 && lMagic != lMagicOrNone &&
        ObjCheckTypeInternal(oObject.Get(), lMagic) != TRUE) {
        return FALSE;
    }
    *poObject = oObject.Take();
    return TRUE;
}

// --- sending a packet on ---

BooleanT MsgRedirectPacket(MsgAddressO oNewDestination, MsgPacketO oPacket) {
    MsgPacketAddressT tDestination = {};
    const MsgHeaderT* ptHeader = MsgPacketHeader(oPacket);
    if (ptHeader == nullptr || MsgAddressToPacketAddress(&tDestination, oNewDestination) != TRUE) {
        return FALSE;
    }
    if (ptHeader->bMore == MsgPacketWithin &&
        MsgAddressEqual(oNewDestination, MsgLocalAddress()) != TRUE &&
        MsgMakePortable(oPacket) != TRUE) {
        return FALSE;
    }
    MsgHeaderT* ptNew = MsgPacketHeader(oPacket);
    ptNew->tDestination = tDestination;
    ptNew->tMsgId = MsgNextHop(tDestination);
    return TRUE;
}
