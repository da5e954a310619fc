// A lock for short sections.
#pragma once

#include <atomic>
#include <cstdint>

#include <sys/single_threaded.h>

/// 0 is unlocked; any other value is locked.
using OSSpinLock = std::int32_t;
inline constexpr OSSpinLock OS_SPINLOCK_INIT = 0;

/// What the lock's inline parts need; OSSpinLock.cpp tells how it works.
namespace kf::spinlock {

inline constexpr OSSpinLock unlocked = OS_SPINLOCK_INIT;
inline constexpr OSSpinLock locked = 1;

/// How the locks of this process are given back. It only ever moves down.
enum Unlocking : int {
    unsettled,  // by exchange, until somebody has found out about barriers
    byStore,    // nobody has had to sleep yet
    beingTold,  // by exchange, but a thread may not have seen that yet
    byExchange, // and every thread knows
};
extern std::atomic<Unlocking> unlocking;

void lockContended(volatile OSSpinLock* lock) noexcept;
void unlockByExchange(volatile OSSpinLock* lock) noexcept;
void wakeOne(volatile OSSpinLock* lock) noexcept;

inline std::atomic_ref<OSSpinLock> word(volatile OSSpinLock* lock) noexcept
{
    return std::atomic_ref<OSSpinLock>(const_cast<OSSpinLock&>(*lock));
}

/// Unlocks for a thread that has read byStore, however long ago.
inline void unlockByStore(volatile OSSpinLock* lock) noexcept
{
    word(lock).store(unlocked, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst); // the compiler, too, must not look first
    if (unlocking.load(std::memory_order_relaxed) != byStore) [[unlikely]]
        wakeOne(lock); // the word may have said that somebody waits
}

} // namespace kf::spinlock

/// Takes the lock where it is free; false where it is held. While a process has
/// one thread, nobody else can be at it and an ordinary store does: making a
/// second thread orders it.
inline bool OSSpinLockTry(volatile OSSpinLock* lock) noexcept
{
    using namespace kf::spinlock;
    OSSpinLock expected = unlocked;
    if (!__libc_single_threaded)
        return word(lock).compare_exchange_strong(
            expected, locked, std::memory_order_acquire, std::memory_order_relaxed);
    if (word(lock).load(std::memory_order_relaxed) != unlocked)
        return false;
    word(lock).store(locked, std::memory_order_relaxed);
    return true;
}

/// Takes the lock. Uncontended, taking and giving back cost one locked
/// instruction; contended it spins about a hundred times and then sleeps in the
/// kernel, so that threads which outnumber the cores do not starve the holder.
/// Not recursive. May be used before static initialisers have run, and leaves errno alone.
inline void OSSpinLockLock(volatile OSSpinLock* lock) noexcept
{
    if (!OSSpinLockTry(lock)) [[unlikely]]
        kf::spinlock::lockContended(lock);
}

inline void OSSpinLockUnlock(volatile OSSpinLock* lock) noexcept
{
    using namespace kf::spinlock;
    if (unlocking.load(std::memory_order_relaxed) == byStore)
        unlockByStore(lock);
    else
        unlockByExchange(lock);
}
