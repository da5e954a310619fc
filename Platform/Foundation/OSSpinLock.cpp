#include "Foundation/OSSpinLock.h"

#include <atomic>
#include <cerrno>

#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sys/single_threaded.h>
#include <sys/syscall.h>
#include <time.h>
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

// Locked instructions are nearly all that an uncontended lock costs. While no
// thread of this process has ever had to sleep at a lock, unlocking does
// without: it stores the word and then looks whether that is still so. Nothing
// but a barrier keeps a processor from looking first; the thread that is going
// to sleep has one made on every core that runs this process.

/// How the locks of this process are given back. It only ever moves down.
enum Unlocking : int {
    unsettled,  // by exchange, until somebody has found out about barriers
    byStore,    // nobody has had to sleep yet
    beingTold,  // by exchange, but a thread may not have seen that yet
    byExchange, // and every thread knows
};
// Settled at first use, not by an initialiser: threads may be here before it would run.
constinit std::atomic<Unlocking> unlocking{unsettled};

/// Callers of a lock do not expect it to touch errno.
class KeptErrno {
public:
    KeptErrno() noexcept : kept_(errno) { }
    ~KeptErrno() { errno = kept_; }
    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

private:
    int kept_;
};

bool membarrier(int command) noexcept { return syscall(SYS_membarrier, command, 0, 0) == 0; }

bool registerBarriers() noexcept { return membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED); }

[[gnu::cold, gnu::noinline]] void settle() noexcept
{
    const KeptErrno keptErrno;
    Unlocking expected = unsettled;
    unlocking.compare_exchange_strong(expected, registerBarriers() ? byStore : byExchange);
}

/// Ends unlocking by store. False where the kernel does not make barriers after all.
bool tellEverybody() noexcept
{
    Unlocking before = unsettled;
    if (unlocking.compare_exchange_strong(before, byExchange) || before == byExchange)
        return true;
    before = byStore;
    unlocking.compare_exchange_strong(before, beingTold);
    // A child of fork may have to register anew.
    if (!membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED)
        && !(registerBarriers() && membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED)))
        return false;
    unlocking.store(byExchange);
    return true;
}

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

/// Takes the lock where it is free. While a process has one thread, nobody else
/// can be at it and an ordinary store does: making a second thread orders it.
bool take(volatile OSSpinLock* lock) noexcept
{
    OSSpinLock expected = unlocked;
    if (!__libc_single_threaded)
        return word(lock).compare_exchange_strong(
            expected, locked, std::memory_order_acquire, std::memory_order_relaxed);
    if (word(lock).load(std::memory_order_relaxed) != unlocked)
        return false;
    word(lock).store(locked, std::memory_order_relaxed);
    return true;
}

[[gnu::cold, gnu::noinline]] void lockContended(volatile OSSpinLock* lock) noexcept
{
    for (int i = 0; i < spins; ++i) {
        if (word(lock).load(std::memory_order_relaxed) == unlocked && take(lock))
            return;
        pauseCore();
    }
    const KeptErrno keptErrno;
    // Where a wake may be missed, look again after a millisecond.
    constexpr timespec millisecond{0, 1000000};
    const timespec* const longest = tellEverybody() ? nullptr : &millisecond;
    // From here on the word says "contended" even if this thread turns out to
    // be the last one waiting; that costs at most one needless wake.
    while (word(lock).exchange(contended) != unlocked)
        syscall(SYS_futex, lock, FUTEX_WAIT_PRIVATE, contended, longest, nullptr, 0);
}

[[gnu::cold, gnu::noinline]] void wakeOne(volatile OSSpinLock* lock) noexcept
{
    const KeptErrno keptErrno;
    syscall(SYS_futex, lock, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

/// Unlocks for a thread that has read byStore, however long ago.
void unlockByStore(volatile OSSpinLock* lock) noexcept
{
    word(lock).store(unlocked, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst); // the compiler, too, must not look first
    if (unlocking.load(std::memory_order_relaxed) != byStore) [[unlikely]]
        wakeOne(lock); // the word may have said "contended"
}

} // namespace

void OSSpinLockLock(volatile OSSpinLock* lock)
{
    if (!take(lock)) [[unlikely]]
        lockContended(lock);
}

bool OSSpinLockTry(volatile OSSpinLock* lock) { return take(lock); }

void OSSpinLockUnlock(volatile OSSpinLock* lock)
{
    const Unlocking way = unlocking.load(std::memory_order_relaxed);
    if (way != byStore) {
        if (word(lock).exchange(unlocked, std::memory_order_release) == contended) [[unlikely]]
            wakeOne(lock);
        if (way == unsettled) [[unlikely]]
            settle();
        return;
    }
    unlockByStore(lock);
}
