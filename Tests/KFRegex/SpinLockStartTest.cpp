// A thread that sleeps at a lock since before most static initialisers ran.

#include "Foundation/OSSpinLock.cpp"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace kf::spinlock;

namespace {

constinit OSSpinLock lock = OS_SPINLOCK_INIT;
constinit std::atomic<bool> served = false;

void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

/// Initialised before all that has no priority of its own, as the lock's unit may be.
struct EarlyThread {
    EarlyThread()
    {
        OSSpinLockLock(&lock);
        std::thread([] {
            OSSpinLockLock(&lock);
            OSSpinLockUnlock(&lock);
            served = true;
        }).detach(); // it ends with the process where the test does not run
        while (word(&lock).load() != contended)
            pause();
    }
};
[[gnu::init_priority(101)]] EarlyThread early;

TEST(SpinLockAtStart, WakesAThreadThatSleptBeforeTheInitialisersRan)
{
    for (int i = 0; i < 50; ++i)
        pause(); // asleep by now
    OSSpinLockUnlock(&lock);
    for (int i = 0; i < 5000 && !served; ++i)
        pause();
    EXPECT_TRUE(served);
    while (!served) // or the test would never end
        wakeOne(&lock);
}

} // namespace
