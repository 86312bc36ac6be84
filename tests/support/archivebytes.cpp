#include "support/archivebytes.h"

#include <zlib.h>

#include <cstdlib>
#include <random>

namespace bytes {

namespace {

constexpr std::uint32_t ListMagicBytes = 0xc8a2f9b9;
constexpr std::uint32_t IntegerMagicBytes = 0xc96cf22a;
constexpr std::size_t ChunkBytes = 65536;

}  // namespace

std::string Byte(int value) { return {static_cast<char>(value)}; }

std::string Long(std::int64_t value) {
    std::string out;
    for (int shift = 0; shift < 32; shift += 8) out += static_cast<char>(value >> shift & 0xff);
    return out;
}

std::string String(const std::string& text) {
    return Long(static_cast<std::int64_t>(text.size()) + 1) + text + '\0';
}

std::string Object(std::uint32_t magic, const std::string& descriptor, const std::string& fields) {
    return Byte(1) + Long(magic) + String(descriptor) + fields;
}

std::string List(const std::vector<std::string>& items, std::uint32_t itemMagic,
                 const std::string& cookie) {
    std::string out = Byte(1) + Long(ListMagicBytes) + Long(itemMagic) +
                      Long(static_cast<std::int64_t>(items.size())) + cookie;
    for (const std::string& item : items) out += item;
    return out + Long(ListMagicBytes);
}

std::string Integer(std::int32_t value) { return Object(IntegerMagicBytes, "i;", Long(value)); }

std::string SharedFirst(std::int32_t id, const std::string& object) {
    return Byte(2) + Long(id) + object.substr(1);
}

std::string SharedAgain(std::int32_t id) { return Byte(3) + Long(id); }

std::string FileHeader::Encode() const {
    return Object(FileHeaderMagic, FileHeaderDescriptor,
                  name + Long(0) + Long(compressed) + Long(uncompressed) + Long(chunkCount) +
                      chunkLengths + fileInfo + ext);
}

File Chunked(const std::string& name, const std::string& content) {
    File file = {name, {content.substr(0, ChunkBytes)}};
    for (std::size_t at = ChunkBytes; at < content.size(); at += ChunkBytes)
        file.pieces.push_back(content.substr(at, ChunkBytes));
    return file;
}

std::string Compress(const std::string& piece) {
    uLongf size = compressBound(piece.size());
    std::string out(size, '\0');
    if (compress(reinterpret_cast<Bytef*>(out.data()), &size,
                 reinterpret_cast<const Bytef*>(piece.data()), piece.size()) != Z_OK) {
        std::abort();
    }
    out.resize(size);
    return out;
}

FileHeader HeaderOf(const File& file) {
    FileHeader header;
    std::vector<std::string> lengths;
    for (const std::string& piece : file.pieces) {
        const std::string compressed = Compress(piece);
        lengths.push_back(Integer(static_cast<std::int32_t>(compressed.size())));
        header.compressed += static_cast<std::int64_t>(compressed.size());
        header.uncompressed += static_cast<std::int64_t>(piece.size());
    }
    header.name = String(file.name);
    header.chunkCount = static_cast<std::int32_t>(lengths.size());
    header.chunkLengths = List(lengths);
    return header;
}

std::string Archive(const std::string& headerList, const std::string& data) {
    return Long(static_cast<std::int64_t>(headerList.size())) + headerList + data;
}

std::string Archive(const std::vector<File>& files) {
    std::vector<std::string> headers;
    std::string data;
    for (const File& file : files) {
        headers.push_back(HeaderOf(file).Encode());
        for (const std::string& piece : file.pieces) data += Compress(piece);
    }
    return Archive(List(headers), data);
}

std::string RandomBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string out(size, '\0');
    for (char& byte : out) byte = static_cast<char>(random());
    return out;
}

std::string RandomText(std::size_t size, unsigned seed) {
    static const char* const words[] = {"archive ", "chunk ",  "header ", "list\n",
                                        "object ",  "stream ", "of ",     "length "};
    std::mt19937 random(seed);
    std::string out;
    while (out.size() < size) out += words[random() % std::size(words)];
    out.resize(size);
    return out;
}

}  // namespace bytes
