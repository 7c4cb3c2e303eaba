#include "yx/memory.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Memory, CopiesBytes) {
    unsigned char const source[] = {1, 2, 3, 4};
    unsigned char target[] = {9, 9, 9, 9, 9};
    yx::copyMemory(target + 1, source, 3);
    EXPECT_EQ((std::vector<int>{9, 1, 2, 3, 9}), std::vector<int>(target, target + 5));
}

TEST(Memory, FillsBytes) {
    unsigned char target[] = {9, 9, 9, 9, 9};
    yx::initMemory(target + 1, 0x1A5, 3);
    EXPECT_EQ((std::vector<int>{9, 0xA5, 0xA5, 0xA5, 9}), std::vector<int>(target, target + 5));
    yx::initMemory(target, 0, 5);
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0, 0}), std::vector<int>(target, target + 5));
}

TEST(Memory, SizeZeroTouchesNothing) {
    unsigned char byte = 9;
    yx::copyMemory(&byte, nullptr, 0);
    yx::copyMemory(nullptr, nullptr, 0);
    yx::initMemory(&byte, 1, 0);
    yx::initMemory(nullptr, 1, 0);
    EXPECT_EQ(9, byte);
    EXPECT_TRUE(yx::isAllZero(nullptr, 0));
    EXPECT_TRUE(yx::isAllZero(&byte, 0));
}

TEST(Memory, FindsASingleByteAtEveryPlaceOfEverySizeAndOffset) {
    constexpr std::size_t kMaxSizeBytes = 70;
    constexpr std::size_t kMaxOffset = 17;
    // Bytes around the range are never zero, so a look beyond it shows.
    for (std::size_t offset = 0; offset <= kMaxOffset; ++offset) {
        for (std::size_t size = 0; size <= kMaxSizeBytes; ++size) {
            std::vector<unsigned char> memory(offset + size + 32, 0xFF);
            unsigned char* const data = memory.data() + offset;
            std::fill(data, data + size, static_cast<unsigned char>(0));
            ASSERT_TRUE(yx::isAllZero(data, size)) << "size " << size << " offset " << offset;
            for (std::size_t i = 0; i < size; ++i) {
                data[i] = i % 2 == 0 ? 0x01 : 0x80;
                ASSERT_FALSE(yx::isAllZero(data, size))
                    << "size " << size << " offset " << offset << " place " << i;
                data[i] = 0;
            }
        }
    }
}

TEST(Memory, LooksAtAWholeGrain) {
    std::vector<unsigned char> grain(65536, 0);
    EXPECT_TRUE(yx::isAllZero(grain.data(), grain.size()));
    for (std::size_t const place :
         {0u, 15u, 16u, 17u, 4095u, 4096u, 32768u, 65519u, 65520u, 65535u}) {
        grain[place] = 1;
        EXPECT_FALSE(yx::isAllZero(grain.data(), grain.size())) << place;
        grain[place] = 0;
    }
    std::fill(grain.begin(), grain.end(), static_cast<unsigned char>(0x55));
    EXPECT_FALSE(yx::isAllZero(grain.data(), grain.size()));
}

} // namespace
