#include "Foundation/OSSpinLock.h"

#include <atomic>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace {

constexpr OSSpinLock unlocked = OS_SPINLOCK_INIT;
constexpr OSSpinLock locked = 1;
// Somebody may sleep: whoever unlocks has to wake one.
constexpr OSSpinLock contended = 2;

constexpr int spins = 100;

std::atomic_ref<OSSpinLock> word(volatile OSSpinLock* lock) noexcept
{
    return std::atomic_ref<OSSpinLock>(const_cast<OSSpinLock&>(*lock));
}

void pauseCore() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

void futex(volatile OSSpinLock* lock, int operation, OSSpinLock value) noexcept
{
    syscall(SYS_futex, lock, operation | FUTEX_PRIVATE_FLAG, value, nullptr, nullptr, 0);
}

[[gnu::noinline]] void lockContended(volatile OSSpinLock* lock) noexcept
{
    for (int i = 0; i < spins; ++i) {
        if (word(lock).load(std::memory_order_relaxed) == unlocked && OSSpinLockTry(lock))
            return;
        pauseCore();
    }
    // From here on the word says "contended" even if this thread turns out to
    // be the last one waiting; that costs at most one needless wake.
    while (word(lock).exchange(contended, std::memory_order_acquire) != unlocked)
        futex(lock, FUTEX_WAIT, contended);
}

} // namespace

void OSSpinLockLock(volatile OSSpinLock* lock)
{
    if (!OSSpinLockTry(lock)) [[unlikely]]
        lockContended(lock);
}

bool OSSpinLockTry(volatile OSSpinLock* lock)
{
    OSSpinLock expected = unlocked;
    return word(lock).compare_exchange_strong(expected, locked, std::memory_order_acquire, std::memory_order_relaxed);
}

void OSSpinLockUnlock(volatile OSSpinLock* lock)
{
    if (word(lock).exchange(unlocked, std::memory_order_release) == contended) [[unlikely]]
        futex(lock, FUTEX_WAKE, 1);
}
