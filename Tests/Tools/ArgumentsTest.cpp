// Options and operands in any order.

#include "security/Arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using kf::security::parseArguments;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Arguments, OrderDoesNotMatter)
{
    const std::vector<std::vector<std::string>> orders = {
        {"-k", "K", "-d", "-r", "trustRoot", "file"},
        {"file", "-r", "trustRoot", "-k", "K", "-d"},
        {"-d", "file", "-kK", "-rtrustRoot"},
        {"-dr", "trustRoot", "-k", "K", "--", "file"},
    };
    for (const auto& words : orders) {
        const auto parsed = parseArguments(words, "dhk:r:");
        EXPECT_EQ(parsed.error, "");
        EXPECT_TRUE(parsed.arguments.has('d'));
        EXPECT_FALSE(parsed.arguments.has('h'));
        EXPECT_EQ(parsed.arguments.value('k'), "K");
        EXPECT_EQ(parsed.arguments.value('r'), "trustRoot");
        EXPECT_THAT(parsed.arguments.operands, ElementsAre("file"));
    }
}

TEST(Arguments, DashesEndTheOptions)
{
    const auto parsed = parseArguments({"--", "-d"}, "d");
    EXPECT_FALSE(parsed.arguments.has('d'));
    EXPECT_THAT(parsed.arguments.operands, ElementsAre("-d"));
}

TEST(Arguments, TellsWhatIsWrong)
{
    EXPECT_EQ(parseArguments({"-x"}, "d").error, "unknown option -x");
    EXPECT_EQ(parseArguments({"file", "-k"}, "k:").error, "option -k needs a value");
    EXPECT_EQ(parseArguments({"-dx"}, "d").error, "unknown option -x");
    EXPECT_EQ(parseArguments({"--json"}, "d").error, "unknown option --json");
    EXPECT_EQ(parseArguments({"file", "--nonsense", "-d"}, "dj").error, "unknown option --nonsense");
}

TEST(Arguments, AWordMayStandForALetter)
{
    for (const char* word : {"--json", "-j"}) {
        const auto parsed = parseArguments({"file", word}, "hj");
        EXPECT_EQ(parsed.error, "");
        EXPECT_TRUE(parsed.arguments.has(kf::security::jsonLetter));
    }
}

TEST(Arguments, NothingIsNothing)
{
    const auto parsed = parseArguments({}, "dhk:r:");
    EXPECT_EQ(parsed.error, "");
    EXPECT_THAT(parsed.arguments.operands, IsEmpty());
    EXPECT_EQ(parsed.arguments.value('k'), std::nullopt);
}

} // namespace
