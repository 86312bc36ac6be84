// Lists of the library as vectors.
#pragma once

#include "core/list.h"
#include "core/objwrappers.h"
#include "support/support.h"

template <class T>
std::vector<T> ItemsOf(ListO list) {
    std::vector<T> items;
    for (ListNodeO node = list == nullptr ? nullptr : list->oFirst; node != nullptr;
         node = node->oNext)
        items.push_back(static_cast<T>(node->oData));
    return items;
}

inline ListO ListOf(const std::vector<const char*>& texts) {
    ListO list = ListNew(ObjStringMagic);
    for (const char* text : texts) {
        ObjStringO item = ObjStringNew(text);
        ListPushLastItem(list, &item);
    }
    return list;
}

// The strings of a list; "<null>" for an item without a value, "<other>" for one of another class.
inline std::vector<std::string> TextsOf(ListO list) {
    std::vector<std::string> texts;
    for (void* item : ItemsOf<void*>(list)) {
        const bool string = ObjCheckTypeInternal(item, ObjStringMagic) == TRUE;
        const char* text = ObjGetString(static_cast<ObjStringO>(item));
        texts.emplace_back(!string ? "<other>" : text == nullptr ? "<null>" : text);
    }
    return texts;
}
