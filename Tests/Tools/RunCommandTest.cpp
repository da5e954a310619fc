// Commands that behave, and those that do not.

#include "security/RunCommand.h"

#include <gtest/gtest.h>

namespace {

using kf::security::runCommand;
using namespace std::chrono_literals;

TEST(RunCommand, GivesStatusAndWords)
{
    const auto result = runCommand({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.output, "out\nerr\n");
    EXPECT_EQ(runCommand({"/bin/sh", "-c", "kill -9 $$"}).exitStatus, 128 + 9);
    EXPECT_EQ(runCommand({"/nonexistent"}).exitStatus, 127);
}

TEST(RunCommand, HasAnEnvironmentOfItsOwn)
{
    ::setenv("RUN_COMMAND_TEST", "astray", 1);
    const auto result = runCommand({"/usr/bin/env"});
    ::unsetenv("RUN_COMMAND_TEST");
    EXPECT_EQ(result.output, "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C.UTF-8\nHOME=/\n");
    EXPECT_EQ(runCommand({"/bin/sh", "-c", "pwd; read line || echo no input"}).output, "/\nno input\n");
}

TEST(RunCommand, EndsOneThatDoesNotEnd)
{
    const auto start = std::chrono::steady_clock::now();
    const auto result = runCommand({"/bin/sh", "-c", "echo begun; sleep 60; echo never"}, 200ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
    EXPECT_EQ(result.exitStatus, 128 + 9);
    EXPECT_EQ(result.output, "begun\nit did not come to an end");
}

TEST(RunCommand, DoesNotWaitForWhatACommandLeavesBehind)
{
    const auto start = std::chrono::steady_clock::now();
    const auto result = runCommand({"/bin/sh", "-c", "sleep 30 & echo done"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "done\n");
}

TEST(RunCommand, ReadsOnWhereACommandTalksForEver)
{
    const auto result = runCommand({"/bin/sh", "-c", "head -c 1000000 /dev/zero; exec >&- 2>&-; sleep 0.2; exit 5"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.output.size(), 16U * 1024);
}

} // namespace
