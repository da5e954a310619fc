// The lock, with a kernel that can be told to refuse barriers.
//
// How locks are given back is settled once in a process, so this program takes
// the lock's source unit in, to begin again for each test.

#include "Foundation/OSSpinLock.cpp" // NOLINT(bugprone-suspicious-include): as said above

#include <gtest/gtest.h>

#include <chrono>
#include <cstdarg>
#include <functional>
#include <thread>
#include <vector>

#include <ctime>

#include <dlfcn.h>
#include <sys/wait.h>

using namespace kf::spinlock;

namespace {

/// What the lock asks of the kernel, and what the kernel refuses.
struct Kernel {
    std::atomic<bool> refusesToRegister{false};
    std::atomic<bool> refusesBarriers{false};
    std::atomic<bool> isRegistered{true};
    std::atomic<int> registrations{0};
    std::atomic<int> barriers{0};
    std::atomic<int> barriersBeforeTheFirstSleep{-1};
    std::atomic<int> sleepsWithoutEnd{0};
    std::atomic<int> sleepsOfAMillisecond{0};
};
constinit Kernel kernel;

/// Whether the lock's call is refused.
bool refuses(long number, long command)
{
    if (number != SYS_membarrier)
        return false;
    if (command == MEMBARRIER_CMD_PRIVATE_EXPEDITED) {
        ++kernel.barriers;
        return kernel.refusesBarriers || !kernel.isRegistered;
    }
    ++kernel.registrations;
    if (!kernel.refusesToRegister)
        kernel.isRegistered = true;
    return kernel.refusesToRegister;
}

void noteSleep(const timespec* longest)
{
    int none = -1;
    kernel.barriersBeforeTheFirstSleep.compare_exchange_strong(none, kernel.barriers);
    ++(longest ? kernel.sleepsOfAMillisecond : kernel.sleepsWithoutEnd);
}

} // namespace

extern "C" long syscall(long number, ...) noexcept
{
    static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    long argument[6];
    va_list list;
    va_start(list, number);
    for (long& each : argument)
        each = va_arg(list, long);
    va_end(list);
    if (refuses(number, argument[0])) {
        errno = EPERM;
        return -1;
    }
    if (number == SYS_futex && argument[1] == FUTEX_WAIT_PRIVATE && argument[2] == contended)
        noteSleep(reinterpret_cast<const timespec*>(argument[3]));
    const long result = real(number, argument[0], argument[1], argument[2], argument[3], argument[4], argument[5]);
    if (number == SYS_futex && argument[1] == FUTEX_WAKE_PRIVATE)
        errno = EFAULT; // as where the lock's memory is gone by then
    return result;
}

namespace {

using namespace std::chrono_literals;

/// Each test begins as a process does.
class SpinLock : public testing::Test {
protected:
    void SetUp() override
    {
        static const Unlocking first = unlocking;
        atStart = first;
        unlocking = unsettled;
        kernel.refusesToRegister = kernel.refusesBarriers = false;
        kernel.isRegistered = true;
        kernel.registrations = kernel.barriers = kernel.sleepsWithoutEnd = kernel.sleepsOfAMillisecond = 0;
        kernel.barriersBeforeTheFirstSleep = -1;
    }
    void TearDown() override { EXPECT_EQ(lock, OS_SPINLOCK_INIT); }

    void useOnce()
    {
        OSSpinLockLock(&lock);
        OSSpinLockUnlock(&lock);
    }
    static void waitFor(const std::function<bool()>& condition)
    {
        for (int i = 0; i < 10000 && !condition(); ++i)
            std::this_thread::sleep_for(1ms);
        ASSERT_TRUE(condition());
    }
    static bool somebodySleeps() { return kernel.sleepsWithoutEnd + kernel.sleepsOfAMillisecond > 0; }

    /// Has a second thread sleep at the lock while `give` gives it back, and sees it wake.
    void haveSomebodySleep(const std::function<void()>& give)
    {
        OSSpinLockLock(&lock);
        std::atomic<bool> served = false;
        std::thread waiting([&] {
            useOnce();
            served = true;
        });
        waitFor([] { return somebodySleeps(); });
        std::this_thread::sleep_for(20ms);
        EXPECT_FALSE(served);
        give();
        for (int i = 0; i < 5000 && !served; ++i)
            std::this_thread::sleep_for(1ms);
        EXPECT_TRUE(served) << "the wake was missed";
        while (!served) // or the test would never end
            wakeOne(&lock);
        waiting.join();
    }
    void haveSomebodySleep()
    {
        haveSomebodySleep([this] { OSSpinLockUnlock(&lock); });
    }

    OSSpinLock lock = OS_SPINLOCK_INIT;
    Unlocking atStart = unsettled; ///< of the process
};

TEST_F(SpinLock, IsSettledWhenTheProcessBegins) { EXPECT_EQ(atStart, byStore); }

TEST_F(SpinLock, IsSettledAtItsUseWhereThreadsWereThereFirst)
{
    __libc_single_threaded = false;
    settleEarly();
    EXPECT_EQ(unlocking, unsettled) << "registering would take milliseconds, for a lock that nobody may use";
    EXPECT_EQ(kernel.registrations, 0);
    useOnce();
    EXPECT_EQ(unlocking, byStore);
}

TEST_F(SpinLock, IsTakenOnceAtATime)
{
    EXPECT_TRUE(OSSpinLockTry(&lock));
    EXPECT_NE(lock, OS_SPINLOCK_INIT);
    EXPECT_FALSE(OSSpinLockTry(&lock));
    OSSpinLockUnlock(&lock);
    EXPECT_EQ(lock, OS_SPINLOCK_INIT);
    OSSpinLockLock(&lock);
    EXPECT_FALSE(OSSpinLockTry(&lock));
    OSSpinLockUnlock(&lock);
}

TEST_F(SpinLock, KeepsThreadsApart)
{
    // From the start, while unlocking by store ends, and after; with barriers and without.
    for (const bool refused : {false, true}) {
        for (const Unlocking start : {unsettled, byStore, beingTold, byExchange}) {
            unlocking = start;
            kernel.refusesBarriers = refused;
            long counter = 0;
            constexpr int threads = 8;
            constexpr int rounds = 5000;
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
        }
    }
}

TEST_F(SpinLock, SleepsWhileItWaitsLong)
{
    OSSpinLockLock(&lock);
    double busy = 0;
    std::thread waiting([&] {
        useOnce();
        timespec used{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        busy = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    });
    std::this_thread::sleep_for(300ms);
    OSSpinLockUnlock(&lock);
    waiting.join();
    EXPECT_LT(busy, 0.1);
}

TEST_F(SpinLock, IsGivenBackByStoreUntilSomebodySleeps)
{
    useOnce();
    EXPECT_EQ(unlocking, byStore);
    EXPECT_EQ(kernel.registrations, 1);
    useOnce();
    EXPECT_EQ(kernel.registrations, 1);
    haveSomebodySleep();
    EXPECT_EQ(unlocking, byExchange);
    EXPECT_EQ(kernel.barriersBeforeTheFirstSleep, 1) << "every thread is told first";
    EXPECT_EQ(kernel.sleepsOfAMillisecond, 0);
    settle();
    useOnce();
    EXPECT_EQ(unlocking, byExchange) << "never by store again";
    EXPECT_EQ(kernel.barriers, 1);
}

TEST_F(SpinLock, GivenBackByStoreTooLateWakesTheSleeper)
{
    useOnce();
    ASSERT_EQ(unlocking, byStore);
    haveSomebodySleep([this] { unlockByStore(&lock); });
    EXPECT_EQ(kernel.sleepsOfAMillisecond, 0);
}

TEST_F(SpinLock, AtWhichAThreadSleepsBeforeItIsSettledNeedsNoBarrier)
{
    haveSomebodySleep();
    EXPECT_EQ(unlocking, byExchange);
    EXPECT_EQ(kernel.barriers, 0);
    EXPECT_EQ(kernel.sleepsOfAMillisecond, 0);
}

TEST_F(SpinLock, IsGivenBackByExchangeWhereBarriersCannotBeHad)
{
    kernel.refusesToRegister = kernel.refusesBarriers = true;
    useOnce();
    EXPECT_EQ(unlocking, byExchange);
    haveSomebodySleep();
    EXPECT_EQ(kernel.sleepsOfAMillisecond, 0) << "no wake can be missed";
}

TEST_F(SpinLock, IsLookedAtAgainWhereBarriersFailAfterAll)
{
    useOnce();
    ASSERT_EQ(unlocking, byStore);
    kernel.refusesBarriers = true;
    // As a thread gives it back that has not seen the other go to sleep.
    haveSomebodySleep([this] { word(&lock).store(unlocked); });
    EXPECT_EQ(unlocking, beingTold);
    EXPECT_EQ(kernel.sleepsWithoutEnd, 0);
    kernel.refusesBarriers = false;
    haveSomebodySleep();
    EXPECT_EQ(unlocking, byExchange);
}

TEST_F(SpinLock, RegistersAnewWhereItHasTo)
{
    useOnce();
    ASSERT_EQ(unlocking, byStore);
    kernel.isRegistered = false;
    haveSomebodySleep();
    EXPECT_EQ(unlocking, byExchange);
    EXPECT_EQ(kernel.registrations, 2);
    EXPECT_EQ(kernel.sleepsOfAMillisecond, 0);
}

TEST_F(SpinLock, WorksInAChildOfFork)
{
    useOnce();
    ASSERT_EQ(unlocking, byStore);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(30);
        haveSomebodySleep();
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(unlocking, byStore) << "the parent's own threads have not slept";
    haveSomebodySleep();
}

TEST_F(SpinLock, HoldsWhenTheFirstThreadStartsMeanwhile)
{
    __libc_single_threaded = true; // as it was before the other tests
    OSSpinLockLock(&lock);
    std::thread second([&] { EXPECT_FALSE(OSSpinLockTry(&lock)); });
    second.join();
    OSSpinLockUnlock(&lock);
    haveSomebodySleep();
}

TEST_F(SpinLock, LeavesErrnoAlone)
{
    kernel.isRegistered = false;
    errno = 77;
    useOnce(); // settles
    EXPECT_EQ(errno, 77);
    kernel.refusesToRegister = kernel.refusesBarriers = true;
    errno = 77;
    settle();
    EXPECT_EQ(errno, 77);
    OSSpinLockLock(&lock);
    int seen = 0;
    std::thread waiting([&] {
        errno = 77;
        useOnce();
        seen = errno;
    });
    waitFor([] { return kernel.sleepsOfAMillisecond > 3; });
    errno = 77;
    OSSpinLockUnlock(&lock);
    EXPECT_EQ(errno, 77);
    waiting.join();
    EXPECT_EQ(seen, 77);
}

} // namespace
