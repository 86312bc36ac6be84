// What the tests of the object model share: holders of an object, a record of every kind, a check
// for objects and blocks left behind, and a memory pool that counts.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "core/memory.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "support/leftovers.h"

inline int32 Holders(void* oObject) { return (static_cast<ObjHeaderT*>(oObject) - 1)->lRefCount; }

// Of integer objects.
inline int32 Value(void* oInteger) { return ObjGetInteger(static_cast<ObjIntegerO>(oInteger)); }
inline int32 CompareValues(void* oA, void* oB) {
    return Value(oA) < Value(oB) ? -1 : static_cast<int32>(Value(oA) > Value(oB));
}

// A stanza with a key of a value and a null.
inline StnzT* NewStanza(const char* category, const char* title) {
    StnzT* stanza = nullptr;
    StnzCreate(&stanza, category, title, 3);
    StnzKeyT* key = nullptr;
    StnzCreateKey(&key, "k", 2);
    StnzAddValueToKey(&key, "v");
    StnzAddValueToKey(&key, nullptr);
    StnzAddKeyToStanza(&stanza, &key);
    return stanza;
}

// A record with every kind of component.
struct AllS {
    BooleanT bValue;
    int32 lValue;
    char* pstrValue;
    void* oLink;
    void* oPrivate;
    StnzT* ptStanza;
    ObjDataFieldT tData;
    char acInline[8];  // declared as 5
    ObjViewInfoT tView;
    int64 llValue;
    UniqueT tUnique;
    void* pPointer;
    char acChars[4];  // declared as 3
};
constexpr int32 AllMagic = ObjMagic(0xc9a00001);
constexpr char AllDescriptor[] = "b;i;s;o;ol;z;d;n5;v;I;u;p;c3;";

inline AllS* NewAll() {
    auto* o = ObjNew<AllS>(AllMagic, AllDescriptor);
    *o = {.bValue = TRUE,
          .lValue = -7,
          .pstrValue = StrDuplicate("text"),
          .oLink = ObjIntegerNew(1),
          .oPrivate = ObjIntegerNew(2),
          .ptStanza = NewStanza("cat", "title"),
          .tData = {3, StrDuplicate("xyz")},
          .acInline = "inlin",
          .tView = {4, StrDuplicate("view"), NewStanza(nullptr, "cat:title")},
          .llValue = 0x0102030405060708,
          .tUnique = {},
          .pPointer = o,
          .acChars = "abc"};
    std::memset(o->tUnique.tUnique, 0xab, sizeof(UniqueT));
    return o;
}

// Every object, block and descriptor that a test makes must be gone at its end.
class ObjectTest : public testing::Test {
 protected:
    void TearDown() override { EXPECT_EQ(m_left.Text(), ""); }

 private:
    Leftovers m_left;
};

// A pool over malloc that counts its live blocks.
class CountingPool : public MemPoolS {
 public:
    CountingPool() : MemPoolS() {
        lMagic = MemPoolMagic;
        psInterface = &Interface();
    }
    int live = 0;

 private:
    static MemPoolInterfaceT& Interface() {
        static MemPoolInterfaceT tInterface = {nullptr, Allocate, Free, nullptr};
        return tInterface;
    }
    static void* Allocate(MemPoolIdT tPool, int32 lSize) {
        ++static_cast<CountingPool*>(tPool)->live;
        return std::malloc(static_cast<std::size_t>(lSize));
    }
    static BooleanT Free(MemAllocHeader* ptBlock) {
        --static_cast<CountingPool*>(ptBlock->tPoolId)->live;
        std::free(ptBlock);
        return TRUE;
    }
};
