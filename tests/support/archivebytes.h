// Object streams and archives written byte by byte from their format: the library takes no part, so
// that its writer and its reader each have a second side to be compared with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bytes {

// --- elements: everything is little-endian ---

std::string Byte(int value);
std::string Long(std::int64_t value);         // its low 32 bits
std::string String(const std::string& text);  // with the terminator behind it

// --- objects, each with the lead byte of an object that has one holder ---

std::string Object(std::uint32_t magic, const std::string& descriptor, const std::string& fields);
std::string List(const std::vector<std::string>& items, std::uint32_t itemMagic = 0,
                 const std::string& cookie = Byte(0));
std::string Integer(std::int32_t value);

// The same object as one that has several holders, and a further reference to it.
std::string SharedFirst(std::int32_t id, const std::string& object);
std::string SharedAgain(std::int32_t id);

// --- archives ---

constexpr std::uint32_t FileHeaderMagic = 0xca06d747;
constexpr char FileHeaderDescriptor[] = "s;s;i;i;i;o;o;o;";

// What a file header holds; fields that are not set are as the writer leaves them.
struct FileHeader {
    std::string name;  // as an encoded String
    std::int64_t compressed = 0;
    std::int64_t uncompressed = 0;
    std::string chunkLengths;  // encoded list
    std::int32_t chunkCount = 0;
    std::string fileInfo = Byte(0);
    std::string ext = Byte(0);
    std::string Encode() const;
};

// One file of an archive, cut into pieces that are compressed one by one.
struct File {
    std::string name;
    std::vector<std::string> pieces;
};
// Pieces of 65,536 bytes, the last one shorter; one empty piece for an empty file.
File Chunked(const std::string& name, const std::string& content);

std::string Compress(const std::string& piece);
FileHeader HeaderOf(const File& file);
std::string Archive(const std::string& headerList, const std::string& data);
std::string Archive(const std::vector<File>& files);

// --- contents ---

std::string RandomBytes(std::size_t size, unsigned seed);
std::string RandomText(std::size_t size, unsigned seed);

}  // namespace bytes
