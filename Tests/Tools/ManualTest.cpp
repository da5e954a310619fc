// The manual page, as groff shows it.

#include "Tests/Support/Fixtures.h"
#include "security/Commands.h"

#include <gtest/gtest.h>

namespace {

/// One line of text, each run of white space a space.
std::string rendered(const std::vector<std::string>& options)
{
    std::vector<std::string> command = {"groff", "-Tascii", "-P-c", "-P-b", "-P-u", "-man", "-ww", "-rLL=4000n"};
    command.insert(command.end(), options.begin(), options.end());
    command.emplace_back(SECURITY_MANUAL);
    std::string text;
    for (const char character : kf::test::mustRun(command)) {
        const bool isSpace = character == ' ' || character == '\n';
        if (!isSpace || (!text.empty() && text.back() != ' '))
            text += isSpace ? ' ' : character;
    }
    return text;
}

class Manual : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (kf::test::run({"groff", "--version"}).status != 0)
            GTEST_SKIP() << "groff is not installed";
    }
};

TEST_F(Manual, NamesEveryCommandWithItsSynopsis)
{
    const std::string text = rendered({});
    for (const auto& command : kf::security::commands()) {
        const std::string synopsis = " " + std::string(command.name) + " " + std::string(command.synopsis) + " ";
        EXPECT_NE(text.find(synopsis), std::string::npos) << "the page lacks:" << synopsis;
    }
}

TEST_F(Manual, IsCleanToGroff)
{
    // Warnings come with the text, for run() reads both: without the text nothing may be left.
    EXPECT_EQ(kf::test::mustRun({"groff", "-z", "-Tutf8", "-man", "-ww", SECURITY_MANUAL}), "");
}

} // namespace
