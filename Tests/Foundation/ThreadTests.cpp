#include "Foundation/NSArray.h"
#include "Foundation/NSString.h"

#include <atomic>
#include <gtest/gtest.h>
#include <malloc.h>
#include <thread>

namespace {

template <class Function>
void inThreads(int count, Function function)
{
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index)
        threads.emplace_back([&, index] { function(index); });
    for (auto& thread : threads)
        thread.join();
}

TEST(Threads, MayRetainAndReleaseOneObject)
{
    const auto string = NSString::stringWithCharacters(u"shared");
    inThreads(4, [&](int) {
        for (int turn = 0; turn < 10000; ++turn) {
            const Ref<NSString> mine = string;
            ASSERT_EQ(mine->length(), 6);
        }
    });
    EXPECT_EQ(string->retainCount(), 1U);
}

TEST(Threads, SeeOneHash)
{
    for (int turn = 0; turn < 200; ++turn) {
        const auto string = NSString::stringWithCharacters(u"a text that is hashed by several threads at once");
        const auto expected = CFHash(NSMutableString::stringWithString(string));
        std::atomic<int> wrong{0};
        inThreads(3, [&](int) { wrong += CFHash(string) != expected; });
        EXPECT_EQ(wrong, 0);
    }
}

TEST(Threads, MayFreeStringsThatOthersMade)
{
    constexpr std::size_t count = 20000;
    std::vector<Ref<NSString>> strings(count);
    for (int turn = 0; turn < 3; ++turn) {
        std::thread([&] {
            for (std::size_t index = 0; index < count; ++index)
                strings[index] =
                    CFStringCreateWithSubstring("0123456789abcdef"_ns.get(), {static_cast<CFIndex>(index % 8), 8});
        }).join();
        for (std::size_t index = 0; index < count; ++index)
            ASSERT_EQ(strings[index]->characterAtIndex(0), "0123456789"[index % 8]);
        std::thread([&] {
            for (auto& string : strings)
                string.reset();
        }).join();
    }
}

TEST(Threads, LeaveNoMemoryBehindAtTheirEnd)
{
    const auto endThread = [] {
        std::thread([] {
            // Made before the thread's lists are first used, so destroyed after them.
            thread_local Ref<NSString> late;
            late = NSString::stringWithCharacters(std::u16string(80, u'x'));
            std::vector<Ref<NSString>> strings;
            for (int count = 0; count < 50; ++count)
                strings.push_back(NSString::stringWithCharacters(std::u16string(60, u'x')));
        }).join();
    };
    endThread();
    const std::size_t before = mallinfo2().uordblks;
    for (int count = 0; count < 500; ++count)
        endThread();
    // The late strings alone would be 100 KB.
    EXPECT_LT(mallinfo2().uordblks, before + 20000);
}

TEST(StringMemory, KeepsTwoMegabytesAtMost)
{
    std::thread([] {
        const std::size_t before = mallinfo2().uordblks;
        {
            std::vector<Ref<NSString>> strings;
            for (int count = 0; count < 50000; ++count)
                strings.push_back(NSString::stringWithCharacters(std::u16string(90, u'x')));
        }
        EXPECT_LT(mallinfo2().uordblks, before + 3000000);
    }).join();
}

TEST(StringMemory, BlocksDoNotOverlapWhileInUse)
{
    for (int turn = 0; turn < 3; ++turn) {
        std::vector<Ref<NSString>> strings;
        for (std::size_t length = 0; length < 400; ++length)
            strings.push_back(
                NSString::stringWithCharacters(std::u16string(length, static_cast<char16_t>(length + 32))));
        for (std::size_t length = 0; length < 400; ++length)
            ASSERT_EQ(strings[length]->characters(), std::u16string(length, static_cast<char16_t>(length + 32)));
    }
}

} // namespace
