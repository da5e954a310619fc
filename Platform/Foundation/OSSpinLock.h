// A lock for short sections.
#pragma once

#include <cstdint>

/// 0 is unlocked; any other value is locked.
using OSSpinLock = std::int32_t;
inline constexpr OSSpinLock OS_SPINLOCK_INIT = 0;

/// Takes the lock. Uncontended, taking and giving back cost one locked
/// instruction; contended it spins about a hundred times and then sleeps in the
/// kernel, so that threads which outnumber the cores do not starve the holder.
/// Not recursive. May be used before static initialisers have run, and leaves errno alone.
void OSSpinLockLock(volatile OSSpinLock* lock);
/// Takes the lock where it is free; false where it is held.
bool OSSpinLockTry(volatile OSSpinLock* lock);
void OSSpinLockUnlock(volatile OSSpinLock* lock);
