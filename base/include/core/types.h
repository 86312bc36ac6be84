// Plain types shared by every module: numbers of fixed width, the boolean result, object references
// and the identifiers that one module hands to another.
//
// The library's numbers are 32 bits wide on every host; the compiler's `long` is never used.
#pragma once

#include <cstddef>
#include <cstdint>

using int32 = std::int32_t;
using uint32 = std::uint32_t;
using int64 = std::int64_t;
using uint64 = std::uint64_t;
using ByteT = std::uint8_t;

// Result of nearly every operation. Callers compare with TRUE: any other value is no success.
using BooleanT = int32;
constexpr BooleanT FALSE = 0;
constexpr BooleanT TRUE = 1;

constexpr BooleanT BooleanFrom(bool bValue) { return bValue ? TRUE : FALSE; }

// "TRUE" or "FALSE", for trace lines.
constexpr const char* BooleanText(BooleanT bValue) { return bValue == TRUE ? "TRUE" : "FALSE"; }

using TimeT = int32;    // seconds since 1970-01-01 00:00:00 UTC
using ProcIdT = int32;  // identifier of a managed process; 0 for a process that has none

// Descriptor of an open file, -1 when closed. As wide as a pointer, so that a "p" field of an
// object can hold one.
using FileHandleT = std::intptr_t;
constexpr FileHandleT FileHandleClosed = -1;

struct TesselContextT;  // context.h

// A sized block of bytes, the "d" field of an object. The object owns the block.
struct ObjDataFieldT {
    int32 lSize;  // bytes
    void* pData;
};

// Identifier of a job, an instance of it and a phase; all zero when invalid (unique.h).
struct UniqueT {
    ByteT tUnique[32];
};

// Object references point at the first field of an object (object.h).
using ListO = struct ListS*;
using ListNodeO = struct ListNodeS*;
using TreeO = struct TreeS*;
using TreeNodeO = struct TreeNodeS*;
using MapO = struct MapS*;
using ObjBooleanO = struct ObjBooleanS*;
using ObjIntegerO = struct ObjIntegerS*;
using ObjInt64O = struct ObjInt64S*;
using ObjStringO = struct ObjStringS*;
using ObjDataFieldO = struct ObjDataFieldS*;
using ObjStanzaO = struct ObjStanzaS*;
using ObjUniqueO = struct ObjUniqueS*;
using ObjViewableO = struct ObjViewableS*;
using ObjDStringO = struct ObjDStringS*;
using ObjMapO = struct ObjMapS*;
using MsgMessageO = struct MsgMessageS*;

struct StnzT;     // stnzbase.h
struct StnzKeyT;  // stnzbase.h
