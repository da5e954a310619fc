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
    EXPECT_EQ(parseArguments({"-:"}, "k:").error, "unknown option -:");
}

TEST(Arguments, WordsWithTwoDashesAreOptionsToo)
{
    const auto parsed =
        parseArguments({"--json", "a", "--file", "F", "--descriptor=", "-j"}, "j", "file: json descriptor:");
    EXPECT_EQ(parsed.error, "");
    EXPECT_TRUE(parsed.arguments.has("json"));
    EXPECT_TRUE(parsed.arguments.has('j'));
    EXPECT_EQ(parsed.arguments.value("file"), "F");
    EXPECT_EQ(parsed.arguments.value("descriptor"), "");
    EXPECT_THAT(parsed.arguments.operands, ElementsAre("a"));
    EXPECT_EQ(parseArguments({"--jso"}, "", "json").error, "unknown option --jso");
    EXPECT_EQ(parseArguments({"--json"}, "", "").error, "unknown option --json");
    EXPECT_EQ(parseArguments({"--json=x"}, "", "json").error, "option --json takes no value");
    EXPECT_EQ(parseArguments({"--file"}, "", "json file:").error, "option --file needs a value");
    EXPECT_EQ(parseArguments({"--file:"}, "", "file:").error, "unknown option --file:");
}

TEST(Arguments, OfARepeatedOptionTheLastCountsAndAllAreKept)
{
    const auto parsed = parseArguments({"-c", "1", "-c2"}, "c:");
    EXPECT_EQ(parsed.arguments.value('c'), "2");
    EXPECT_THAT(parsed.arguments.values("c"), ElementsAre("1", "2"));
}

TEST(Arguments, NegativeNumbersAndALoneDashAreOperands)
{
    const auto parsed = parseArguments({"-25300", "-", "-h"}, "h");
    EXPECT_EQ(parsed.error, "");
    EXPECT_THAT(parsed.arguments.operands, ElementsAre("-25300", "-"));
    EXPECT_TRUE(parsed.arguments.has('h'));
    EXPECT_EQ(parseArguments({"-2x"}, "h").error, "unknown option -2");
}

TEST(Arguments, NothingIsNothing)
{
    const auto parsed = parseArguments({}, "dhk:r:");
    EXPECT_EQ(parsed.error, "");
    EXPECT_THAT(parsed.arguments.operands, IsEmpty());
    EXPECT_EQ(parsed.arguments.value('k'), std::nullopt);
}

} // namespace
