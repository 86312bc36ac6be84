#include "gvariant.h"

#include <glib.h>

namespace {

struct Items {
    std::vector<GVariant*> variants;
};

}  // namespace

void* GVariantListNew(const std::vector<std::string>& texts) {
    auto* items = new Items;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        GVariant* value = i % 2 == 0 ? g_variant_new_int32(static_cast<gint32>(i))
                                     : g_variant_new_string(texts[i].c_str());
        items->variants.push_back(g_variant_ref_sink(g_variant_new_variant(value)));
    }
    return items;
}

void GVariantListFree(void* list) {
    auto* items = static_cast<Items*>(list);
    for (GVariant* variant : items->variants) g_variant_unref(variant);
    delete items;
}

std::size_t GVariantListWrite(void* list, std::vector<char>& buffer) {
    auto* items = static_cast<Items*>(list);
    GVariant* array = g_variant_ref_sink(g_variant_new_array(
        G_VARIANT_TYPE_VARIANT, items->variants.data(), items->variants.size()));
    const std::size_t size = g_variant_get_size(array);
    if (buffer.size() < size) buffer.resize(size);
    g_variant_store(array, buffer.data());
    g_variant_unref(array);
    return size;
}

std::size_t GVariantListRead(const char* bytes, std::size_t size) {
    const auto* type = G_VARIANT_TYPE("av");
    // Bytes from outside are checked first. The checked value itself would check all offsets before
    // an item at every access, a million times; so a trusted one over the same bytes is read.
    GVariant* checked =
        g_variant_ref_sink(g_variant_new_from_data(type, bytes, size, 0, nullptr, nullptr));
    const bool normal = g_variant_is_normal_form(checked) != 0;
    g_variant_unref(checked);
    if (!normal) return 0;
    GVariant* array =
        g_variant_ref_sink(g_variant_new_from_data(type, bytes, size, 1, nullptr, nullptr));
    std::size_t count = 0;
    gint64 sum = 0;
    GVariantIter iterator;
    g_variant_iter_init(&iterator, array);
    for (GVariant* item = nullptr; (item = g_variant_iter_next_value(&iterator)) != nullptr;) {
        GVariant* value = g_variant_get_variant(item);
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32) != 0) {
            sum += g_variant_get_int32(value);
        } else {
            gchar* text = g_variant_dup_string(value, nullptr);
            sum += text[0];
            g_free(text);
        }
        g_variant_unref(value);
        g_variant_unref(item);
        ++count;
    }
    g_variant_unref(array);
    return sum == 0 ? 0 : count;
}
