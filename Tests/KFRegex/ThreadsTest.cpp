// Many threads on shared patterns and subjects. The thread sanitizer's preset
// makes it a test of the lock, too.

#include "Texts.h"

#include "Foundation/NSException.h"
#include "KFRegex/KFRegex.h"

#include <gmock/gmock.h>

#include <barrier>
#include <thread>

using namespace KFRegexAdditions;

namespace {

constexpr int threadCount = 8;
constexpr int rounds = 300;

template <class Run>
void inThreads(Run run)
{
    std::barrier start(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread)
        threads.emplace_back([&, thread] {
            start.arrive_and_wait();
            run(thread);
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Threads, SharingPatternsAndSubjectsGetTheirOwnAnswers)
{
    // More patterns than slots, so that threads take them from each other.
    std::vector<Ref<NSString>> patterns;
    for (int i = 0; i < 40; ++i)
        patterns.push_back(text("(k" + std::to_string(i) + ")=(\\w+)"));
    // In place, in the fixed and in the dynamic buffer.
    std::string assignments;
    for (int i = 0; i < 40; ++i)
        assignments += "k" + std::to_string(i) + "=v" + std::to_string(i) + ";";
    const Ref<NSString> subjects[] = {
        widened(text(assignments)), text(assignments), text(assignments + std::string(3000, ' '))};

    inThreads([&](int thread) {
        for (int round = 0; round < rounds; ++round) {
            const int number = (round * 7 + thread * 3) % 40;
            const Ref<NSString>& pattern = patterns[static_cast<std::size_t>(number)];
            const Ref<NSString>& subject = subjects[(round + thread) % 3];
            const std::string value = "v" + std::to_string(number);
            ASSERT_EQ(toUTF8(stringByMatching(subject, pattern, 2)), value);
            ASSERT_THAT(list(captureComponentsMatchedByRegex(subject, pattern)),
                testing::ElementsAre("k" + std::to_string(number) + "=" + value, "k" + std::to_string(number), value));
            ASSERT_EQ(componentsSeparatedByRegex(subject, ";"_ns)->objectAs<NSString>(0)->length(), 5);
            const Ref<NSMutableString> own = NSMutableString::stringWithString(subject);
            ASSERT_EQ(replaceOccurrencesOfRegex(own, pattern, "$2"_ns), 1U);
            ASSERT_EQ(own->length(), subject->length() - static_cast<CFIndex>(std::to_string(number).size()) - 2);
        }
    });
}

TEST(Threads, MayFlushAndClearWhileOthersSearch)
{
    const Ref<NSString> subject = text("aGVs bG8=\n");
    inThreads([&](int thread) {
        for (int round = 0; round < rounds; ++round) {
            if (thread == 0)
                clearStringCache();
            else if (thread == 1)
                flushCachedRegexData(subject);
            else
                ASSERT_EQ(toUTF8(stringByReplacingOccurrencesOfRegex(subject, "\\s+"_ns, ""_ns)), "aGVsbG8=");
        }
    });
    clearStringCache();
}

TEST(Threads, MayFailWhileOthersSucceed)
{
    inThreads([&](int thread) {
        for (int round = 0; round < rounds; ++round) {
            if (thread % 2) {
                ASSERT_TRUE(isMatchedByRegex(text("abc"), "b"_ns));
                continue;
            }
            Ref<NSError> error;
            ASSERT_FALSE(isMatchedByRegex(text("abc"), "(b"_ns, 0, kfr::wholeString, &error));
            ASSERT_TRUE(error);
            ASSERT_THROW(isMatchedByRegex(text("abc"), "b"_ns, {2, 2}), NSRaisedException);
        }
    });
    EXPECT_EQ(kfr_debugCacheSpinLockCount, 0U);
}

} // namespace
