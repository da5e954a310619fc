// Random histories of calls against ICU's own matcher. KEYFOLD_FUZZ_SECONDS says
// for how long (3 without), KEYFOLD_FUZZ_SEED where to begin.

#include "Fuzz/KFRegex/Differential.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

unsigned long setting(const char* name, unsigned long otherwise)
{
    const char* text = std::getenv(name);
    return text ? std::strtoul(text, nullptr, 10) : otherwise;
}

std::vector<std::uint8_t> choicesFrom(unsigned long seed)
{
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    std::vector<std::uint8_t> choices(200 + random() % 3000);
    for (std::uint8_t& choice : choices)
        choice = static_cast<std::uint8_t>(random());
    return choices;
}

TEST(RandomHistories, GiveWhatICUGives)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(setting("KEYFOLD_FUZZ_SECONDS", 3));
    const unsigned long firstSeed = setting("KEYFOLD_FUZZ_SEED", 1);
    unsigned long seed = firstSeed;
    long calls = 0;
    do {
        try {
            calls += fuzz::runHistory(choicesFrom(seed));
        } catch (const fuzz::Mismatch& mismatch) {
            FAIL() << "seed " << seed << ": " << mismatch.what();
        }
        ++seed;
    } while (std::chrono::steady_clock::now() < end);
    EXPECT_GT(calls, 0);
    RecordProperty("histories", static_cast<int>(seed - firstSeed));
    RecordProperty("calls", std::to_string(calls));
    std::printf("%lu histories, %ld calls\n", seed - firstSeed, calls);
}

} // namespace
