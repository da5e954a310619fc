// What strings do where memory runs out.
#include "Foundation/NSFormat.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {

/// How many allocations are still given memory, this one included; 0: all.
int failingAllocation = 0;

} // namespace

// Not inlined: g++ would see malloc behind one operator and not free behind the other.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (failingAllocation > 0 && --failingAllocation == 0)
        throw std::bad_alloc();
    if (void* const memory = std::malloc(size > 0 ? size : 1))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

/// Whether the `nth` allocation came, and failed, during `act`.
template <class Act>
bool failedAt(int nth, Act act)
{
    failingAllocation = nth;
    try {
        act();
    } catch (const std::bad_alloc&) {
        return true;
    }
    failingAllocation = 0;
    return false;
}

TEST(ExhaustedMemory, LeavesAMutableStringAsItWas)
{
    const auto secret = NSString::sensitiveStringWithUTF8String("0123456789 open sesame");
    for (const Ref<NSString>& before : {"abcde"_ns, NSString::stringWithCharacters(u"ab\u2603de")}) {
        for (const auto& replacement : {secret, NSString::stringWithCharacters(u"0123456789 \u2604 open")}) {
            for (int nth = 1;; ++nth) {
                const auto string = NSMutableString::stringWithString(before);
                if (!failedAt(nth, [&] { string->replaceCharactersInRange({1, 3}, replacement); })) {
                    EXPECT_GT(nth, 1) << "memory was needed";
                    EXPECT_EQ(string->length(), 2 + replacement->length());
                    break;
                }
                EXPECT_EQ(string->characters(), before->characters()) << nth;
                EXPECT_EQ(toUTF8(NSStringWithFormat("%@", string)), toUTF8(before)) << "it has become no secret";
                string->replaceCharactersInRange({1, 3}, "x"_ns);
                EXPECT_EQ(string->length(), 3);
            }
        }
    }
}

} // namespace
