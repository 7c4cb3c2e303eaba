#include "yx/mt_rand.h"

#include <algorithm>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/child_process.h"

namespace {

using yx::CMTRand;
using yx::CMutexLock;

TEST(CMTRand, GlobalInstanceAndMutexAreAlwaysTheSame) {
    ASSERT_TRUE(CMTRand::getGlobal());
    ASSERT_TRUE(CMTRand::getGlobalInstanceMutex());
    EXPECT_EQ(CMTRand::getGlobal().get(), CMTRand::getGlobal().get());
    EXPECT_EQ(CMTRand::getGlobalInstanceMutex().get(), CMTRand::getGlobalInstanceMutex().get());
}

TEST(CMTRand, DrawsDifferentValues) {
    CMTRand random;
    std::set<unsigned int> values;
    for (int i = 0; i < 100; ++i)
        values.insert(random.rand32());
    // Two of 100 equal: 1 in 10^6. Ten equal: never.
    EXPECT_GT(values.size(), 90u);
}

TEST(CMTRand, InstancesAreSeededDifferently) {
    CMTRand first;
    CMTRand second;
    std::vector<unsigned int> firstValues;
    std::vector<unsigned int> secondValues;
    for (int i = 0; i < 4; ++i) {
        firstValues.push_back(first.rand32());
        secondValues.push_back(second.rand32());
    }
    EXPECT_NE(firstValues, secondValues);
}

TEST(CMTRand, FillsExactlyTheBytesAskedFor) {
    CMTRand random;
    for (int const size : {1, 16, 32, 255, 256, 257, 1000}) {
        // Each byte has to change in one of many draws, and the bytes around must not.
        std::vector<unsigned char> memory(static_cast<std::size_t>(size) + 2, 0);
        std::vector<bool> changed(memory.size(), false);
        for (int draw = 0; draw < 16; ++draw) {
            std::fill(memory.begin(), memory.end(), static_cast<unsigned char>(0));
            random.randData(memory.data() + 1, size);
            for (std::size_t i = 0; i < memory.size(); ++i)
                changed[i] = changed[i] || memory[i] != 0;
        }
        EXPECT_FALSE(changed.front());
        EXPECT_FALSE(changed.back());
        EXPECT_TRUE(std::all_of(changed.begin() + 1, changed.end() - 1, [](bool b) { return b; }));
    }
}

TEST(CMTRand, FillsNothingForSizeZero) {
    CMTRand random;
    unsigned char byte = 0x5A;
    random.randData(&byte, 0);
    random.randData(nullptr, 0);
    EXPECT_EQ(0x5A, byte);
}

TEST(CMTRand, TwoFillsDiffer) {
    CMTRand random;
    std::vector<unsigned char> first(32);
    std::vector<unsigned char> second(32);
    random.randData(first.data(), 32);
    random.randData(second.data(), 32);
    EXPECT_NE(first, second);
}

TEST(CMutexLock, KeepsOtherThreadsOutForAsLongAsItLives) {
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&counter] {
            for (int n = 0; n < 5000; ++n) {
                CMutexLock const lock(CMTRand::getGlobalInstanceMutex().get());
                ++counter;
                CMTRand::getGlobal()->rand32();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(20000, counter);
}

/// What a process forked from this one draws from `random`.
std::vector<unsigned int> drawInChild(CMTRand& random, std::size_t count) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    test_support::ChildProcess child([&](test_support::Line const&) {
        for (std::size_t i = 0; i < count; ++i) {
            unsigned int const value = random.rand32();
            if (::write(ends[1], &value, sizeof value) != sizeof value)
                return 1;
        }
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    std::vector<unsigned int> values(count);
    auto const sizeBytes = static_cast<ssize_t>(count * sizeof(unsigned int));
    EXPECT_EQ(::read(ends[0], values.data(), count * sizeof(unsigned int)), sizeBytes);
    ::close(ends[0]);
    ::close(ends[1]);
    return values;
}

TEST(CMTRand, AForkedProcessDrawsNumbersOfItsOwn) {
    CMTRand own;
    for (CMTRand* const random : {&own, CMTRand::getGlobal().get()}) {
        random->rand32();
        std::vector<unsigned int> const first = drawInChild(*random, 4);
        std::vector<unsigned int> const second = drawInChild(*random, 4);
        std::vector<unsigned int> here;
        for (int i = 0; i < 4; ++i)
            here.push_back(random->rand32());
        EXPECT_NE(first, second);
        EXPECT_NE(first, here);
        EXPECT_NE(second, here);
    }
}

TEST(CMutexLock, LocksInItsConstructorAndUnlocksInItsDestructor) {
    class Recorder : public yx::CBase, public virtual yx::IMutex {
    public:
        void lock() override { ++locks; }
        void unlock() override { ++unlocks; }
        int locks = 0;
        int unlocks = 0;
    };
    Recorder mutex;
    {
        CMutexLock const lock(&mutex);
        EXPECT_EQ(1, mutex.locks);
        EXPECT_EQ(0, mutex.unlocks);
    }
    EXPECT_EQ(1, mutex.locks);
    EXPECT_EQ(1, mutex.unlocks);
}

} // namespace
