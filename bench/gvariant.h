// The GVariant side of bench_stream, in a unit of its own: glib defines TRUE and FALSE as macros.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// An array of variants; even items are numbers, odd ones texts.
void* GVariantListNew(const std::vector<std::string>& texts);
void GVariantListFree(void* list);

// Writes the array into the buffer, which grows as needed; the result is the size written. The list
// is made anew from its items for each call: GVariant keeps the bytes of a list once written.
std::size_t GVariantListWrite(void* list, std::vector<char>& buffer);

// Reads an array and copies every item out of it; the result is the number of items.
std::size_t GVariantListRead(const char* bytes, std::size_t size);
