// The administrator's right from sudo with an askpass program. sudo is a script; polkit.sh has the real one.

#include "Security/Authorization/OpenRequest.h"
#include "Security/Authorization/SudoBackend.h"
#include "Tests/Authorization/LauncherFixture.h"

#include <chrono>
#include <csignal>
#include <thread>

namespace {

using kf::authorization::cancelOpenRequests;
using kf::authorization::SudoBackend;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* right = "system.privilege.admin";
constexpr AuthorizationFlags everyFlag = 19;

class SudoTest : public kf::test::LauncherTest {
protected:
    SudoTest() { ::setenv("SUDO_ASKPASS", "/bin/true", 1); }
    ~SudoTest() override { ::unsetenv("SUDO_ASKPASS"); }

    SudoBackend backend() const { return SudoBackend({path("sudo"), path("launcher")}); }
    /// sudo that grants what `answers` (shell lines; $words are its words) does not end, and leads to the launcher.
    void sudoThatRuns(const std::string& answers = {}) const
    {
        script("sudo",
            "words=\"$1 $2\"\necho \"$1 $2 $3 $4\" | sed 's/ *$//' >> " + path("ways") + "\n" + answers
                + "\ncase $words in '-A -v' | '-n -v' | '-k ') exit 0 ;; esac\nshift 2\nexec \"$@\"");
    }
    OSStatus obtain(AuthorizationFlags flags = everyFlag) { return backend().obtainRight(right, flags).status(); }
};

TEST_F(SudoTest, ValidatesAndRunsNothing)
{
    script("sudo", "echo \"$@\" >> " + path("ways"));
    EXPECT_EQ(obtain(), errAuthorizationSuccess);
    EXPECT_THAT(lines("ways"), ElementsAre("-A -v"));
}

TEST_F(SudoTest, EachOutcomeBecomesACodeOfItsOwn)
{
    script("sudo", "echo 'Sorry, try again.' >&2; echo 'sudo: 3 incorrect password attempts' >&2; exit 1");
    EXPECT_EQ(obtain(), errAuthorizationDenied) << "wrong password";
    script("sudo", "echo 'sudo: no password was provided' >&2; echo 'sudo: a password is required' >&2; exit 1");
    EXPECT_EQ(obtain(), errAuthorizationCanceled);
    script("sudo",
        "echo 'sudo: unable to run /x: No such file or directory' >&2; echo 'sudo: no password was provided' >&2; exit "
        "1");
    EXPECT_EQ(obtain(), errAuthorizationInteractionNotAllowed) << "no askpass program";
    script("sudo", "echo 'Sorry, user bob may not run sudo on vm.' >&2; exit 1");
    EXPECT_EQ(obtain(), errAuthorizationDenied);
    script("sudo", "kill -9 $$");
    EXPECT_EQ(obtain(), errAuthorizationDenied);
}

TEST_F(SudoTest, AsksNobodyWithoutSomebodyToAsk)
{
    script("sudo", ": > " + path("ran"));
    ::setenv("SUDO_ASKPASS", "", 1);
    EXPECT_EQ(obtain(kAuthorizationFlagExtendRights), errAuthorizationInteractionNotAllowed);
    EXPECT_EQ(obtain(), errAuthorizationInteractionNotAllowed);
    ::unsetenv("SUDO_ASKPASS");
    EXPECT_EQ(obtain(), errAuthorizationInteractionNotAllowed);
    ::setenv("SUDO_ASKPASS", "/bin/true", 1);
    EXPECT_EQ(SudoBackend({"/nonexistent", path("launcher")}).obtainRight(right, everyFlag).status(),
        errAuthorizationInteractionNotAllowed);
    EXPECT_EQ(SudoBackend({path("sudo"), "/nonexistent"}).obtainRight(right, everyFlag).status(),
        errAuthorizationInteractionNotAllowed);
    EXPECT_EQ(backend().obtainRight("system.reboot", everyFlag).status(), errAuthorizationDenied);
    EXPECT_FALSE(exists("ran"));
}

TEST_F(SudoTest, SpeaksEnglishToUsAndKeepsTheAskpassProgramsVariables)
{
    script("sudo", "env > " + path("variables"));
    ::setenv("LC_ALL", "de_DE.UTF-8", 1);
    ::setenv("DISPLAY", ":7", 1);
    EXPECT_EQ(obtain(), errAuthorizationSuccess);
    ::unsetenv("LC_ALL");
    ::unsetenv("DISPLAY");
    EXPECT_THAT(content("variables"), HasSubstr("LC_MESSAGES=C\n"));
    EXPECT_THAT(content("variables"), testing::Not(HasSubstr("LC_ALL")));
    EXPECT_THAT(content("variables"), HasSubstr("DISPLAY=:7\n"));
    EXPECT_THAT(content("variables"), HasSubstr("SUDO_ASKPASS=/bin/true\n"));
}

TEST_F(SudoTest, AnAskpassProgramThatHangsIsGivenUp)
{
    // As the real one: sudo cannot be ended by the user, the program that it asks with can.
    script("sudo", "trap '' TERM\n: > " + path("asks") + "\n(trap - TERM; exec sleep 1000)\nexit 1");
    OSStatus status = 1;
    std::thread asking([&] { status = obtain(); });
    while (!exists("asks"))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    cancelOpenRequests();
    asking.join();
    EXPECT_EQ(status, errAuthorizationCanceled);
}

/// An askpass program may start what stays, a wallet's service say, and that holds what sudo was given.
TEST_F(SudoTest, WhatTheAskpassProgramLeavesRunningIsNotWaitedFor)
{
    script("sudo", "sleep 30 & echo $! >> " + path("left") + "; echo 'sudo: no password was provided' >&2; exit 1");
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(obtain(), errAuthorizationCanceled);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
    sudoThatRuns("[ \"$words\" = '-A -v' ] || { sleep 30 <&0 & echo $! >> " + path("left") + "; exit 1; }");
    EXPECT_EQ(backend().execute(add(path("authority.der")), nullptr).status(), errAuthorizationDenied);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
    for (const std::string& process : lines("left"))
        ::kill(std::stoi(process), SIGTERM);
}

TEST_F(SudoTest, WithoutAQuestionTheRightIsWhatSudoRemembers)
{
    script("sudo", "echo \"$*\" >> " + path("ways"));
    EXPECT_EQ(obtain(kAuthorizationFlagExtendRights), errAuthorizationSuccess);
    EXPECT_THAT(lines("ways"), ElementsAre("-n -v"));
    script("sudo", "echo 'sudo: a password is required' >&2; exit 1");
    testing::internal::CaptureStderr();
    EXPECT_EQ(obtain(kAuthorizationFlagExtendRights), errAuthorizationInteractionNotAllowed);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(SudoTest, RunsTheToolAndAsksAgainForAnyOtherCertificate)
{
    sudoThatRuns();
    script("tool", "cat /dev/fd/3 >> " + path("got") + "; exit 3");
    auto sudo = backend();
    ASSERT_TRUE(sudo.execute(add(path("authority.der")), nullptr));
    EXPECT_EQ(WEXITSTATUS(waitForTheOnlyChild()), 3);
    ASSERT_TRUE(sudo.execute(add(path("other.der")), nullptr));
    EXPECT_EQ(WEXITSTATUS(waitForTheOnlyChild()), 3);
    EXPECT_EQ(content("got"), "the authority's bytesother bytes");
    const std::string launching = "-A -- " + path("launcher");
    EXPECT_THAT(lines("ways"),
        ElementsAre("-A -v", launching + " authority", "-A -v", launching + " authority", "-k", "-A -v",
            launching + " certificate"))
        << "-k forgets what was answered before";
    EXPECT_EQ(sudo.execute({"/bin/sh", {"-c", "id"}}, nullptr).status(), errAuthorizationDenied);
}

TEST_F(SudoTest, EachOutcomeOfTheFurtherQuestionHasItsCode)
{
    script("tool", ": > " + path("ran"));
    const auto answered = [&](const std::string& lines) {
        sudoThatRuns("[ \"$words\" != '-k ' ] || : > " + path("forgotten") + "\n[ ! -e " + path("forgotten")
            + " ] || [ \"$words\" != '-A -v' ] || { rm " + path("forgotten") + "; " + lines + "; exit 1; }");
        const OSStatus status = backend().execute(add(path("other.der")), nullptr).status();
        EXPECT_FALSE(exists("forgotten")) << "it was asked";
        return status;
    };
    EXPECT_EQ(answered("echo 'sudo: no password was provided' >&2"), errAuthorizationCanceled);
    EXPECT_EQ(answered("echo 'sudo: 3 incorrect password attempts' >&2"), errAuthorizationDenied);
    EXPECT_EQ(answered("echo 'sudo: unable to run /x: No such file' >&2"), errAuthorizationInteractionNotAllowed);
    EXPECT_FALSE(exists("ran"));
}

TEST_F(SudoTest, ALauncherThatWasNotReachedIsADenial)
{
    sudoThatRuns("[ \"$words\" = '-A -v' ] || exit 1");
    EXPECT_EQ(backend().execute(add(path("authority.der")), nullptr).status(), errAuthorizationDenied);
}

/// sudo stays beside the tool and holds its descriptors: the launch is told all the same.
TEST_F(SudoTest, AWayThatStaysDoesNotHoldUpTheLaunch)
{
    sudoThatRuns("[ \"$words\" = '-A -v' ] || { shift 2; \"$@\"; exit $?; }");
    script("tool", "while [ ! -e " + path("go") + " ]; do sleep 0.05; done; exit 9");
    ASSERT_TRUE(backend().execute(add(path("authority.der")), nullptr));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), 0) << "the tool still runs";
    kf::test::writeFile(path("go"), std::string_view());
    EXPECT_EQ(WEXITSTATUS(waitForTheOnlyChild()), 9);
}

} // namespace
