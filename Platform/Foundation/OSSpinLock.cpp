#include "Foundation/OSSpinLock.h"

#include <cerrno>

#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace kf::spinlock {
// Locked instructions are nearly all that an uncontended lock costs. While no
// thread of this process has ever had to sleep at a lock, unlocking does
// without: it stores the word and then looks whether that is still so. Nothing
// but a barrier keeps a processor from looking first; the thread that is going
// to sleep has one made on every core that runs this process.

// Settled at first use where that comes first: threads may be here before an initialiser has run.
constinit std::atomic<Unlocking> unlocking{unsettled};

namespace {

// Somebody may sleep: whoever unlocks has to wake one.
constexpr OSSpinLock contended = 2;

constexpr int spins = 100;

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

// Once there are several threads, the kernel makes whoever asks for barriers wait for some milliseconds.
[[gnu::constructor]] void settleEarly() noexcept
{
    if (__libc_single_threaded)
        settle();
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

void pauseCore() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

} // namespace

[[gnu::cold]] void lockContended(volatile OSSpinLock* lock) noexcept
{
    for (int i = 0; i < spins; ++i) {
        if (word(lock).load(std::memory_order_relaxed) == unlocked && OSSpinLockTry(lock))
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

[[gnu::cold]] void wakeOne(volatile OSSpinLock* lock) noexcept
{
    const KeptErrno keptErrno;
    syscall(SYS_futex, lock, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void unlockByExchange(volatile OSSpinLock* lock) noexcept
{
    if (word(lock).exchange(unlocked, std::memory_order_release) == contended) [[unlikely]]
        wakeOne(lock);
    if (unlocking.load(std::memory_order_relaxed) == unsettled) [[unlikely]]
        settle();
}

} // namespace kf::spinlock
