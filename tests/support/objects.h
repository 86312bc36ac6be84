// What the tests of the object model share: holders of an object, a check for objects and blocks
// left behind, and a memory pool that counts.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

#include "core/memory.h"
#include "core/object.h"

inline int32 Holders(void* oObject) { return (static_cast<ObjHeaderT*>(oObject) - 1)->lRefCount; }

// Every object and block that a test makes must be gone at its end.
class ObjectTest : public testing::Test {
 protected:
    void TearDown() override {
        EXPECT_EQ(ObjCount(), m_objects);
        EXPECT_EQ(MemUsedCount(), m_blocks);
    }

 private:
    int32 m_objects = ObjCount();
    int32 m_blocks = MemUsedCount();
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
