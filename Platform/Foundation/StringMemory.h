// Memory of immutable strings.
#pragma once

#include <cstddef>

namespace kf {

/// Memory for a string object and the text behind it. Throws std::bad_alloc.
///
/// Splitting and searching make short strings by the ten thousand and drop them
/// together. malloc and free then took about 500 instructions for each, four
/// times all the rest, so small blocks are kept in lists of their thread, up to
/// 2 MB, and cost about 40 that way. A thread gives its lists back when it ends.
/// Any thread may free what another allocated.
void* allocateString(std::size_t size);
void freeString(void* memory) noexcept;

} // namespace kf
