// Longs as bytes: least significant byte first, whatever the host. Private to the library.
#pragma once

#include "core/types.h"

inline void ObjStoreLong(ByteT* pBytes, int32 lValue) {
    const auto tBits = static_cast<uint32>(lValue);
    for (int iByte = 0; iByte < 4; iByte++)
        pBytes[iByte] = static_cast<ByteT>(tBits >> (8 * iByte));
}

inline int32 ObjLoadLong(const ByteT* pBytes) {
    return static_cast<int32>(static_cast<uint32>(pBytes[0]) | static_cast<uint32>(pBytes[1]) << 8 |
                              static_cast<uint32>(pBytes[2]) << 16 |
                              static_cast<uint32>(pBytes[3]) << 24);
}
