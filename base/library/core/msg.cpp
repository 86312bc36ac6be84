// Start and end of messaging. The classes of the layer are declared from the table of
// msginternal.h, all of them, before any packet can bring an object of one.
#include "core/msg.h"

#include "core/context.h"
#include "core/list.h"
#include "msginternal.h"

namespace {

struct MsgClassT {
    int32 lMagic;
    int32 lSize;  // bytes of the record
    const char* pstrDescriptor;
    const char* pstrName;
};

#define MSG_CLASS_ROW(name, descriptor) \
    {name##Magic, static_cast<int32>(sizeof(name##S)), name##Descriptor, #name},
constexpr MsgClassT atMsgClasses[] = {MSG_CLASSES(MSG_CLASS_ROW)};
#undef MSG_CLASS_ROW

// There is one shape of each class; a peer's stream that says otherwise is not taken.
BooleanT MsgRefuseOtherShape(void** poObject) {
    return ObjGetTemplateFromObject(*poObject)->bUnlinked == TRUE ? eObjTranslateResultError
                                                                  : eObjTranslateResultUnchanged;
}

}  // namespace

BooleanT MsgCreateTemplates() {
    for (const MsgClassT& tClass : atMsgClasses) {
        if (ObjSetTranslatorInternal(tClass.lSize, tClass.lMagic, tClass.pstrDescriptor, nullptr,
                                     MsgRefuseOtherShape, MemGetDefaultPoolId()) != TRUE) {
            return FALSE;
        }
        ObjSetObjName(tClass.lMagic, tClass.pstrName);
    }
    return TRUE;
}

BooleanT MsgInitialize() {
    return BooleanFrom(MsgCreateTemplates() == TRUE && MsgAddressInitialize() == TRUE);
}

BooleanT MsgInitializeThread(TesselContextT* ptTlContext) {
    return BooleanFrom(ListCreate(&ptTlContext->sMsg.oReceiveList, MsgPacketMagic) == TRUE &&
                       MsgLocalAddressInitialize() == TRUE && MsgInitializeNames() == TRUE);
}

void MsgReleaseThread(TesselContextT* ptTlContext) {
    MsgReleaseNames();
    MsgLocalAddressRelease();
    ObjRelease(&ptTlContext->sMsg.oReceiveList);
}
