// Memory for long-lived objects.
#include <gtest/gtest.h>
#include <malloc.h>

#include <vector>

#include "service/blocks.h"

using namespace tav;

namespace {

// By the whole process. A sanitizer's allocator does not say it: always 0.
std::size_t bytes_in_use() {
    return ::mallinfo2().uordblks;
}

} // namespace

TEST(BlocksTest, SlabsAreGivenBackAndFreeBlocksUsedFirst) {
    constexpr std::size_t number = 10000;
    constexpr std::size_t size = 64;
    constexpr std::size_t slab = std::size_t{16} << 10;
    Blocks blocks(size);
    std::vector<void *> taken(number);
    const std::size_t before = bytes_in_use();
    for (void *&block : taken) {
        block = blocks.take();
    }
    const std::size_t full = bytes_in_use();
    EXPECT_LE(full, before + number * size + number * size / 50 + slab);
    for (std::size_t i = 0; i < number; i += 2) {
        blocks.give(taken[i]);
    }
    for (std::size_t i = 0; i < number; i += 2) {
        taken[i] = blocks.take();
    }
    EXPECT_EQ(bytes_in_use(), full);
    for (void *block : taken) {
        blocks.give(block);
    }
    // The C library may keep the small gaps beside the slabs, which are aligned.
    EXPECT_LT(bytes_in_use(), before + slab);
}
