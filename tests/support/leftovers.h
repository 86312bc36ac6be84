// What an operation must not leave behind: objects, memory blocks and open descriptors.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "core/memory.h"
#include "core/object.h"

class Leftovers {
 public:
    Leftovers()
        : m_objects(ObjCount()), m_blocks(MemUsedCount()), m_descriptors(OpenDescriptors()) {}
    // Empty when all counts are what they were; else the differences.
    std::string Text() const {
        const Leftovers now;
        if (now.m_objects == m_objects && now.m_blocks == m_blocks &&
            now.m_descriptors == m_descriptors)
            return {};
        return std::to_string(now.m_objects - m_objects) + " objects, " +
               std::to_string(now.m_blocks - m_blocks) + " blocks, " +
               std::to_string(now.m_descriptors - m_descriptors) + " descriptors left";
    }

 private:
    static int OpenDescriptors() {
        const std::filesystem::directory_iterator open("/proc/self/fd");
        return static_cast<int>(std::distance(begin(open), end(open)));
    }
    int32 m_objects;
    int32 m_blocks;
    int m_descriptors;
};

// Expects at the end of its life that nothing was left since its beginning.
class NothingLeft {
 public:
    NothingLeft() = default;
    ~NothingLeft() { EXPECT_EQ(m_before.Text(), ""); }
    NothingLeft(const NothingLeft&) = delete;
    NothingLeft& operator=(const NothingLeft&) = delete;

 private:
    const Leftovers m_before;
};
