// Objects as text: CLASS(FIELD,...), with "-" for nothing and [ITEM ...] for a list. Addresses are
// "machine:id", with "." for this machine, also where its name is a text.
#pragma once

#include <string>

#include "core/list.h"
#include "core/msg.h"
#include "core/object.h"
#include "core/sys.h"

inline std::string NameText(const char* pstrText) {
    if (pstrText == nullptr) return "-";
    return std::string(pstrText) == SysLocalMachineName() ? "." : pstrText;
}

inline std::string ObjectText(void* oObject) {
    if (oObject == nullptr) return "-";
    if (ObjCheckTypeInternal(oObject, MsgAddressMagic) == TRUE) {
        const auto* oAddress = static_cast<MsgAddressO>(oObject);
        return NameText(oAddress->pstrMachineName) + ":" + std::to_string(oAddress->tProcessId);
    }
    std::string all;
    if (ListIsList(oObject) == TRUE) {
        for (auto* oNode = static_cast<ListO>(oObject)->oFirst; oNode; oNode = oNode->oNext)
            all += (all.empty() ? "" : " ") + ObjectText(oNode->oData);
        return "[" + all + "]";
    }
    const ObjDbDataT* data = ObjGetDbData(oObject);
    for (int32 i = 0; i < data->lFieldCount; i++) {
        void* field = static_cast<char*>(oObject) + data->atFields[i].lObjOffset;
        const auto type = data->atFields[i].eType;
        if (type == eObjComponentString)
            all += "," + NameText(*static_cast<char**>(field));
        else if (type == eObjComponentForwardLink)
            all += "," + ObjectText(*static_cast<void**>(field));
        else
            all += "," + std::to_string(*static_cast<int32*>(field));
    }
    return std::string(ObjNameFromObject(oObject)) + "(" + all.substr(1) + ")";
}
