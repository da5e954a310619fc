// Growing memory that is not lost on failure.
#pragma once

#include <cstddef>

/// realloc that frees `memory` when it fails, so that no caller can leak it.
/// Null where the memory is exhausted. A program may define its own: tests do,
/// to make it fail.
extern "C" void* reallocf(void* memory, std::size_t size);
