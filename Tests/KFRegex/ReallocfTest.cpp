// The growing memory that the regular expressions stand on.

#include "Foundation/reallocf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

// The sanitizers end the program where memory is exhausted, unless told to let it go on.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

TEST(Reallocf, GrowsAndKeepsWhatIsThere)
{
    auto* memory = static_cast<char*>(reallocf(nullptr, 4));
    ASSERT_TRUE(memory);
    std::memcpy(memory, "abc", 4);
    memory = static_cast<char*>(reallocf(memory, 100000));
    ASSERT_TRUE(memory);
    EXPECT_STREQ(memory, "abc");
    std::free(memory);
}

TEST(Reallocf, FreesWhatCannotGrow)
{
    // The leak checker tells where the old block stays.
    void* memory = std::malloc(100);
    volatile std::size_t tooMuch = SIZE_MAX / 4;
    EXPECT_FALSE(reallocf(memory, tooMuch));
}

TEST(Reallocf, ToNothingFrees) { EXPECT_FALSE(reallocf(std::malloc(100), 0)); }

} // namespace
