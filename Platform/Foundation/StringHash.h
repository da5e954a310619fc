// The hash of strings: the same for equal text in either width.
#pragma once

#include <bit>
#include <cstdint>

namespace kf {

/// Takes four UTF-16 units a step, packed with the first unit lowest, the last
/// word filled up with zeros. For a given state each word gives another state,
/// so texts that differ in one word alone never collide.
class StringHasher {
public:
    constexpr void add(std::uint64_t fourUnits) noexcept
    {
        state_ = (std::rotl(state_, 29) ^ fourUnits) * 0x9E3779B97F4A7C15U;
    }

    constexpr std::uint64_t state() const noexcept { return state_; }

    /// Never 0, which stands for "not computed" and for nil.
    constexpr std::uint64_t finish(std::uint64_t length) const noexcept
    {
        std::uint64_t hash = state_ ^ length;
        hash = (hash ^ hash >> 32) * 0xD6E8FEB86659FD93U;
        hash ^= hash >> 32;
        return hash ? hash : 1;
    }

private:
    std::uint64_t state_ = 0x243F6A8885A308D3U;
};

} // namespace kf
