// The administrator's right from polkit: each answer becomes a code of its own.

#include "Foundation/NSError.h"
#include "Security/Authorization/InteractiveBackend.h"
#include "Security/Authorization/OpenRequest.h"
#include "Security/Authorization/PolkitBackend.h"
#include "Tests/Authorization/FakePolkit.h"

#include <chrono>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using kf::authorization::cancelOpenRequests;
using kf::authorization::PolkitBackend;
using kf::test::FakePolkit;
using kf::test::PrivateBus;
using testing::ElementsAre;

constexpr const char* right = "system.privilege.admin";
constexpr AuthorizationFlags everyFlag = 19;

/// Asks on a bus of its own. What would run a tool is there, and is never run.
class PolkitTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!PrivateBus::isPossible())
            GTEST_SKIP() << "no dbus-daemon here";
        bus_.emplace();
    }
    void TearDown() override { EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind"; }

    OSStatus obtain(const FakePolkit::Answer& answer, AuthorizationFlags flags = everyFlag)
    {
        const FakePolkit polkit(answer);
        const OSStatus status = backend_.obtainRight(right, flags).status();
        checks_ = polkit.checks();
        cancellations_ = polkit.cancellations();
        return status;
    }

    std::optional<PrivateBus> bus_;
    PolkitBackend backend_{{"/bin/true", "/bin/true"}};
    std::vector<kf::test::Check> checks_;
    std::vector<std::string> cancellations_;
};

TEST_F(PolkitTest, AsksOnceForTheActionOfTheRightsNameAboutThisProcess)
{
    EXPECT_EQ(obtain({.isAuthorized = true}), errAuthorizationSuccess);
    ASSERT_EQ(checks_.size(), 1U);
    EXPECT_EQ(checks_[0].subject, "unix-process:pid,start-time,uid");
    EXPECT_EQ(checks_[0].process, static_cast<std::uint32_t>(::getpid()));
    EXPECT_EQ(checks_[0].user, static_cast<std::int32_t>(::getuid()));
    EXPECT_EQ(checks_[0].action, right);
    EXPECT_EQ(checks_[0].flags, 1U) << "a person may be asked";
    EXPECT_NE(checks_[0].cancellation, "") << "without one a stuck agent could not be given up";
    std::string line;
    std::getline(std::ifstream("/proc/self/stat"), line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::vector<std::string> words(std::istream_iterator<std::string>(fields), {});
    EXPECT_EQ(std::to_string(checks_[0].startTime), words.at(19));
}

TEST_F(PolkitTest, AsksNobodyWhereInteractionIsNotAllowed)
{
    EXPECT_EQ(obtain({.isChallenge = true}, kAuthorizationFlagExtendRights), errAuthorizationInteractionNotAllowed);
    ASSERT_EQ(checks_.size(), 1U);
    EXPECT_EQ(checks_[0].flags, 0U);
}

TEST_F(PolkitTest, EachAnswerBecomesACodeOfItsOwn)
{
    EXPECT_EQ(obtain({.isAuthorized = true}), errAuthorizationSuccess);
    EXPECT_EQ(obtain({.details = {"polkit.dismissed"}}), errAuthorizationCanceled);
    EXPECT_EQ(
        obtain({.isChallenge = true, .details = {"polkit.retains", "polkit.dismissed"}}), errAuthorizationCanceled);
    EXPECT_EQ(obtain({}), errAuthorizationDenied) << "refused";
    EXPECT_EQ(obtain({.details = {"polkit.retains_authorization_after_challenge"}}), errAuthorizationDenied);
    EXPECT_EQ(obtain({.isChallenge = true}), errAuthorizationInteractionNotAllowed) << "no agent";
    EXPECT_EQ(obtain({.errorName = "org.freedesktop.PolicyKit1.Error.Failed",
                  .errorText = "Action system.privilege.admin is not registered"}),
        errAuthorizationInvalidSet)
        << "action not installed";
    EXPECT_EQ(obtain({.errorName = "org.freedesktop.PolicyKit1.Error.Failed", .errorText = "something else"}),
        errAuthorizationInternal);
    EXPECT_EQ(obtain({.errorName = "org.freedesktop.PolicyKit1.Error.NotAuthorized"}), errAuthorizationDenied);
    EXPECT_EQ(obtain({.errorName = "org.freedesktop.PolicyKit1.Error.Cancelled"}), errAuthorizationCanceled);
    EXPECT_EQ(obtain({.errorName = "org.freedesktop.DBus.Error.NoReply"}), errAuthorizationInternal);
}

TEST_F(PolkitTest, ABusWithoutPolkitIsToldAtOnce)
{
    EXPECT_EQ(backend_.obtainRight(right, everyFlag).status(), errAuthorizationInternal);
}

TEST_F(PolkitTest, NoBusIsToldAtOnce)
{
    bus_->kill();
    EXPECT_EQ(backend_.obtainRight(right, everyFlag).status(), errAuthorizationInternal);
}

TEST_F(PolkitTest, OnlyTheAdministratorsRightIsKnown)
{
    const FakePolkit polkit({.isAuthorized = true});
    EXPECT_EQ(backend_.obtainRight("system.reboot", everyFlag).status(), errAuthorizationDenied);
    EXPECT_TRUE(polkit.checks().empty());
}

TEST_F(PolkitTest, NobodyIsAskedForWhatCouldNotBeUsed)
{
    const FakePolkit polkit({.isAuthorized = true});
    EXPECT_EQ(
        PolkitBackend({"/nonexistent", "/bin/true"}).obtainRight(right, everyFlag).status(), errAuthorizationInternal);
    EXPECT_EQ(
        PolkitBackend({"/bin/true", "/nonexistent"}).obtainRight(right, everyFlag).status(), errAuthorizationInternal);
    EXPECT_TRUE(polkit.checks().empty());
}

TEST_F(PolkitTest, AStuckAgentIsWaitedForUntilTheQuestionIsGivenUp)
{
    for (const bool heeds : {true, false}) {
        const FakePolkit polkit({.never = true, .heedsCancellation = heeds});
        std::atomic<bool> hasEnded = false;
        OSStatus status = 1;
        std::thread asking([&] {
            status = backend_.obtainRight(right, everyFlag).status();
            hasEnded = true;
        });
        polkit.waitForChecks(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_FALSE(hasEnded);
        cancelOpenRequests();
        asking.join();
        EXPECT_EQ(status, errAuthorizationCanceled);
        EXPECT_THAT(polkit.cancellations(), ElementsAre(polkit.checks()[0].cancellation))
            << "the agent's dialog goes away";
    }
}

TEST_F(PolkitTest, ABusThatGoesAwayEndsTheQuestion)
{
    const FakePolkit polkit({.never = true});
    OSStatus status = 1;
    std::thread asking([&] { status = backend_.obtainRight(right, everyFlag).status(); });
    polkit.waitForChecks(1);
    bus_->kill();
    asking.join();
    EXPECT_EQ(status, errAuthorizationInternal);
}

TEST_F(PolkitTest, GivingUpBeforehandChangesNothing)
{
    cancelOpenRequests();
    EXPECT_EQ(obtain({.isAuthorized = true}), errAuthorizationSuccess);
    EXPECT_TRUE(cancellations_.empty());
}

/// Answers every question with one code.
class OneAnswer final : public kf::authorization::Backend {
public:
    explicit OneAnswer(OSStatus status, int* asked, int* executed) : status_(status), asked_(asked), executed_(executed)
    {
    }
    kf::Status obtainRight(const std::string&, AuthorizationFlags) override
    {
        ++*asked_;
        return status_ == errAuthorizationSuccess ? kf::Status() : kf::Status(kf::Failure{status_});
    }
    kf::Result<pid_t> execute(const kf::authorization::ToolCommand&, std::FILE**) override
    {
        ++*executed_;
        return ::getpid();
    }
    bool isAdministrator() const noexcept override { return false; }

private:
    OSStatus status_;
    int* asked_;
    int* executed_;
};

struct TwoWays {
    OSStatus first;
    OSStatus second;
    OSStatus outcome;
    int secondAsked;
};

class InteractiveBackendTable : public testing::TestWithParam<TwoWays> { };

TEST_P(InteractiveBackendTable, AsksTheSecondWayOnlyWhereTheFirstAskedNobody)
{
    const TwoWays& row = GetParam();
    int firstAsked = 0;
    int firstExecuted = 0;
    int secondAsked = 0;
    int secondExecuted = 0;
    kf::authorization::InteractiveBackend backend(std::make_unique<OneAnswer>(row.first, &firstAsked, &firstExecuted),
        std::make_unique<OneAnswer>(row.second, &secondAsked, &secondExecuted));
    EXPECT_EQ(backend.obtainRight(right, everyFlag).status(), row.outcome);
    EXPECT_EQ(firstAsked, 1);
    EXPECT_EQ(secondAsked, row.secondAsked);
    EXPECT_TRUE(backend.execute({"/usr/bin/security", {}}, nullptr));
    const bool secondGranted = row.secondAsked == 1 && row.second == errAuthorizationSuccess;
    EXPECT_EQ(secondExecuted, secondGranted ? 1 : 0);
    EXPECT_EQ(firstExecuted, secondGranted ? 0 : 1);
    EXPECT_FALSE(backend.isAdministrator());
}

constexpr OSStatus nobody = errAuthorizationInteractionNotAllowed;

INSTANTIATE_TEST_SUITE_P(Rows, InteractiveBackendTable,
    testing::Values(TwoWays{errAuthorizationSuccess, errAuthorizationSuccess, errAuthorizationSuccess, 0},
        TwoWays{errAuthorizationCanceled, errAuthorizationSuccess, errAuthorizationCanceled, 0},
        TwoWays{errAuthorizationDenied, errAuthorizationSuccess, errAuthorizationDenied, 0},
        TwoWays{nobody, errAuthorizationSuccess, errAuthorizationSuccess, 1},
        TwoWays{errAuthorizationInvalidSet, errAuthorizationSuccess, errAuthorizationSuccess, 1},
        TwoWays{errAuthorizationInternal, errAuthorizationSuccess, errAuthorizationSuccess, 1},
        TwoWays{errAuthorizationInternal, errAuthorizationCanceled, errAuthorizationCanceled, 1},
        TwoWays{errAuthorizationInternal, errAuthorizationDenied, errAuthorizationDenied, 1},
        TwoWays{errAuthorizationInvalidSet, nobody, errAuthorizationInvalidSet, 1},
        TwoWays{errAuthorizationInternal, nobody, errAuthorizationInternal, 1}));

} // namespace
