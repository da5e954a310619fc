// Random histories of calls to the regular expressions, each held against ICU's
// own matcher.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>

namespace fuzz {

/// An answer that differs from ICU's; says which call and both answers.
class Mismatch : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads `choices` as patterns, subjects and calls and makes them one after the
/// other, so that the cache goes through many states. Throws Mismatch at the
/// first wrong answer; the number of calls made.
int runHistory(std::span<const std::uint8_t> choices);

} // namespace fuzz
