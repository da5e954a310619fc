// A tool run through pkexec and the launcher: what is started, and how each failure is told from it.

#include "Security/Authorization/OpenRequest.h"
#include "Tests/Authorization/LauncherFixture.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <thread>

namespace {

using kf::authorization::cancelOpenRequests;
using kf::authorization::PolkitBackend;
using testing::ElementsAre;
using testing::HasSubstr;

class LaunchTest : public kf::test::LauncherTest {
protected:
    OSStatus execute(const kf::authorization::ToolCommand& command, std::FILE** pipe = nullptr)
    {
        return PolkitBackend({path("pkexec"), path("launcher")}).execute(command, pipe).status();
    }
    std::string launcherWords(const std::string& way) const
    {
        return "--disable-internal-agent " + path("launcher") + " " + way;
    }
};

TEST_F(LaunchTest, TheAuthorityGoesInOnTheKeptRightAndReachesTheTool)
{
    script("tool", "echo \"$@\" > " + path("words") + "; cat /dev/fd/3 > " + path("got"));
    ASSERT_EQ(execute(add(path("authority.der"))), errAuthorizationSuccess);
    EXPECT_EQ(waitForTheOnlyChild(), 0);
    EXPECT_EQ(content("words"), "add-trusted-cert -k /Library/Keychains/System.keychain -d -r trustRoot /dev/fd/3\n");
    EXPECT_EQ(content("got"), "the authority's bytes");
    EXPECT_THAT(lines("ways"),
        ElementsAre(launcherWords("authority null /usr/bin/security add-trusted-cert -k "
                                  "/Library/Keychains/System.keychain -d -r trustRoot ")
            + path("authority.der")));
}

TEST_F(LaunchTest, AnyOtherCertificateTakesTheOtherWay)
{
    script("tool", "echo \"$@\" > " + path("words") + "; cat /dev/fd/3 > " + path("got"));
    ASSERT_EQ(execute(remove(path("other.der"))), errAuthorizationSuccess);
    EXPECT_EQ(waitForTheOnlyChild(), 0);
    EXPECT_EQ(content("words"), "remove-trusted-cert -d /dev/fd/3\n");
    EXPECT_EQ(content("got"), "other bytes");
    const std::string words = " null /usr/bin/security remove-trusted-cert -d " + path("other.der");
    EXPECT_THAT(lines("ways"), ElementsAre(launcherWords("authority") + words, launcherWords("certificate") + words));
}

TEST_F(LaunchTest, ExitStatusIsTheToolsWhateverItIs)
{
    for (const int expected : {0, 1, 126, 127, 255}) {
        script("tool", "exit " + std::to_string(expected));
        ASSERT_EQ(execute(add(path("authority.der"))), errAuthorizationSuccess);
        const int status = waitForTheOnlyChild();
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), expected);
    }
    script("tool", "kill -9 $$");
    ASSERT_EQ(execute(add(path("authority.der"))), errAuthorizationSuccess);
    EXPECT_TRUE(WIFSIGNALED(waitForTheOnlyChild()));
}

TEST_F(LaunchTest, AToolThatCannotBeStartedIsToldAndLeavesNoChild)
{
    std::filesystem::remove(path("tool"));
    EXPECT_EQ(execute(add(path("authority.der"))), errAuthorizationToolExecuteFailure);
    kf::test::writeFile(path("tool"), std::string_view("#!/bin/sh\nexit 0\n"));
    ::chmod(path("tool").c_str(), 0644);
    EXPECT_EQ(execute(add(path("authority.der"))), errAuthorizationToolExecuteFailure) << "not executable";
    script("pkexec", "exit 0");
    std::filesystem::remove(path("pkexec"));
    EXPECT_EQ(execute(add(path("authority.der"))), errAuthorizationToolExecuteFailure) << "no pkexec";
}

TEST_F(LaunchTest, ALauncherThatWasNotReachedIsToldByTheStatusOfTheWay)
{
    script("tool", ": > " + path("ran"));
    for (const auto& [exitStatus, expected] : {std::pair(126, errAuthorizationCanceled),
             std::pair(127, errAuthorizationDenied), std::pair(0, errAuthorizationDenied)}) {
        script("pkexec", "exit " + std::to_string(exitStatus));
        std::FILE* pipe = nullptr;
        EXPECT_EQ(execute(add(path("authority.der")), &pipe), expected) << exitStatus;
        EXPECT_EQ(pipe, nullptr);
    }
    EXPECT_FALSE(exists("ran"));
}

TEST_F(LaunchTest, AFurtherQuestionThatIsDismissedRunsNothing)
{
    script("tool", ": > " + path("ran"));
    script("pkexec", "shift\n[ \"$2\" = authority ] || exit 126\nexec \"$@\"");
    EXPECT_EQ(execute(add(path("other.der"))), errAuthorizationCanceled);
    EXPECT_FALSE(exists("ran"));
    EXPECT_EQ(execute(add(path("authority.der"))), errAuthorizationSuccess) << "needs no further question";
    waitForTheOnlyChild();
    EXPECT_TRUE(exists("ran"));
}

TEST_F(LaunchTest, OtherToolsAndWordsAreRefused)
{
    script("tool", ": > " + path("ran"));
    EXPECT_EQ(execute({"/bin/sh", {"-c", "id"}}), errAuthorizationDenied);
    EXPECT_EQ(execute({"/usr/bin/security", {}}), errAuthorizationDenied);
    EXPECT_EQ(execute({"/usr/bin/security", {"add-trusted-cert", path("authority.der")}}), errAuthorizationDenied);
    EXPECT_FALSE(exists("ran"));
}

TEST_F(LaunchTest, ACertificateThatCannotBeReadStartsNothing)
{
    script("tool", ": > " + path("ran"));
    std::filesystem::create_symlink(path("authority.der"), path("link.der"));
    kf::test::writeFile(path("large.der"), std::string(64 * 1024 + 1, 'x'));
    ::mkfifo(path("fifo").c_str(), 0600);
    for (const std::string& file : {path("missing.der"), path("link.der"), path("large.der"), path("fifo"), path("")})
        EXPECT_EQ(execute(add(file)), errAuthorizationToolExecuteFailure) << file;
    EXPECT_FALSE(exists("ran"));
}

TEST_F(LaunchTest, APathOfSeveralLinesIsToldOnOne)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(execute(add(path("missing\nSystem keychain: trusted"))), errAuthorizationToolExecuteFailure);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("missing?System keychain: trusted: No such file"));
}

TEST_F(LaunchTest, PipeIsTheToolsInputAndOutput)
{
    script("tool", "read line; echo \"heard $line\"; exit 5");
    std::FILE* pipe = nullptr;
    ASSERT_EQ(execute(add(path("authority.der")), &pipe), errAuthorizationSuccess);
    ASSERT_TRUE(pipe);
    std::fputs("something\n", pipe);
    std::fflush(pipe);
    char answer[32] = {};
    EXPECT_TRUE(std::fgets(answer, sizeof answer, pipe));
    EXPECT_STREQ(answer, "heard something\n");
    std::fclose(pipe);
    EXPECT_EQ(WEXITSTATUS(waitForTheOnlyChild()), 5);
}

TEST_F(LaunchTest, WithoutAPipeTheInputIsEmpty)
{
    script("tool", "readlink /proc/self/fd/0 > " + path("input"));
    ASSERT_EQ(execute(add(path("authority.der"))), errAuthorizationSuccess);
    waitForTheOnlyChild();
    EXPECT_EQ(content("input"), "/dev/null\n");
}

TEST_F(LaunchTest, AWayThatHangsIsGivenUp)
{
    script("pkexec", ": > " + path("asks") + "; exec sleep 1000");
    OSStatus status = 1;
    std::thread waiting([&] { status = execute(add(path("authority.der"))); });
    while (!exists("asks"))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    cancelOpenRequests();
    waiting.join();
    EXPECT_EQ(status, errAuthorizationCanceled);
}

TEST_F(LaunchTest, WhatIsGivenUpTooLateRunsAndIsToldSo)
{
    script("pkexec", "trap '' TERM\n: > " + path("asks") + "\nsleep 0.3\nshift\nexec \"$@\"");
    OSStatus status = 1;
    std::thread waiting([&] { status = execute(add(path("authority.der"))); });
    while (!exists("asks"))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    cancelOpenRequests();
    waiting.join();
    EXPECT_EQ(status, errAuthorizationSuccess);
    EXPECT_EQ(waitForTheOnlyChild(), 0);
}

TEST_F(LaunchTest, TheWayInGetsNoneOfTheCallersVariables)
{
    script("pkexec", "env > " + path("variables") + "; exit 127");
    ::setenv("SHELL", "/tmp/not a shell", 1);
    EXPECT_EQ(execute(add(path("authority.der"))), errAuthorizationDenied);
    EXPECT_THAT(content("variables"), testing::Not(HasSubstr("not a shell")));
    EXPECT_THAT(content("variables"), testing::Not(HasSubstr("KEYFOLD")));
    ::unsetenv("SHELL");
}

} // namespace
