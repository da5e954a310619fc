// The lock and the growing memory that the regular expressions stand on.

#include "Foundation/OSSpinLock.h"
#include "Foundation/reallocf.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <ctime>

// The sanitizers end the program where memory is exhausted, unless told to let it go on.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

TEST(SpinLock, IsTakenOnceAtATime)
{
    OSSpinLock lock = OS_SPINLOCK_INIT;
    EXPECT_TRUE(OSSpinLockTry(&lock));
    EXPECT_NE(lock, OS_SPINLOCK_INIT);
    EXPECT_FALSE(OSSpinLockTry(&lock));
    OSSpinLockUnlock(&lock);
    EXPECT_EQ(lock, OS_SPINLOCK_INIT);
    OSSpinLockLock(&lock);
    EXPECT_FALSE(OSSpinLockTry(&lock));
    OSSpinLockUnlock(&lock);
}

TEST(SpinLock, KeepsThreadsApart)
{
    OSSpinLock lock = OS_SPINLOCK_INIT;
    long counter = 0;
    constexpr int threads = 8;
    constexpr int rounds = 20000;
    std::vector<std::thread> running;
    for (int thread = 0; thread < threads; ++thread)
        running.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                OSSpinLockLock(&lock);
                counter = counter + 1;
                OSSpinLockUnlock(&lock);
            }
        });
    for (std::thread& thread : running)
        thread.join();
    EXPECT_EQ(counter, long{threads} * rounds);
    EXPECT_EQ(lock, OS_SPINLOCK_INIT);
}

TEST(SpinLock, SleepsWhileItWaitsLong)
{
    OSSpinLock lock = OS_SPINLOCK_INIT;
    OSSpinLockLock(&lock);
    double busy = 0;
    std::thread waiting([&] {
        OSSpinLockLock(&lock);
        OSSpinLockUnlock(&lock);
        timespec used{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        busy = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    OSSpinLockUnlock(&lock);
    waiting.join();
    EXPECT_LT(busy, 0.1);
    EXPECT_EQ(lock, OS_SPINLOCK_INIT);
}

TEST(Reallocf, GrowsAndKeepsWhatIsThere)
{
    auto* memory = static_cast<char*>(reallocf(nullptr, 4));
    ASSERT_TRUE(memory);
    std::memcpy(memory, "abc", 4);
    memory = static_cast<char*>(reallocf(memory, 100000));
    ASSERT_TRUE(memory);
    EXPECT_STREQ(memory, "abc");
    std::free(memory);
}

TEST(Reallocf, FreesWhatCannotGrow)
{
    // The leak checker tells where the old block stays.
    void* memory = std::malloc(100);
    volatile std::size_t tooMuch = SIZE_MAX / 4;
    EXPECT_FALSE(reallocf(memory, tooMuch));
}

TEST(Reallocf, ToNothingFrees) { EXPECT_FALSE(reallocf(std::malloc(100), 0)); }

} // namespace
