#include "Foundation/NSNumber.h"
#include "Keychain/SFAuthorization+Execute.h"
#include "Security/Authorization/Backend.h"
#include "Tests/Keychain/KeychainTest.h"

#include <csignal>
#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>

namespace {

using namespace kf::test;
using namespace kf::authorization;
using testing::ElementsAre;

/// The arguments of a shell that runs `script`.
Ref<NSArray> shell(const std::string& script)
{
    return NSArray::arrayWithObjects({"-c"_ns, NSString::stringWithUTF8String(script)});
}

/// Tools run as this process's own children, with the right granted.
class PrivilegedTool : public testing::Test {
protected:
    PrivilegedTool()
    {
        EXPECT_TRUE(authorization_->obtainWithRight("system.privilege.admin"_ns,
            kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights, nullptr));
    }
    ~PrivilegedTool() override
    {
        platformCalls() = {};
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
        setBackend(before_);
    }

    std::int32_t execute(const Ref<NSArray>& arguments, bool wait = true, std::FILE** pipe = nullptr)
    {
        return Execute::executePrivilegedTool(authorization_, "/bin/sh"_ns, arguments, wait, pipe, &error_);
    }

    std::shared_ptr<Backend> before_ = setBackend(std::make_shared<DirectBackend>());
    Ref<SFAuthorization> authorization_ = SFAuthorization::authorization();
    Ref<NSError> error_;
};

TEST_F(PrivilegedTool, GivesItsExitStatus)
{
    for (const int status : {0, 1, 126, 127, 255})
        EXPECT_EQ(execute(shell("exit " + std::to_string(status))), status);
    EXPECT_FALSE(error_);
}

TEST_F(PrivilegedTool, GivesMinusOneWhereItIsKilled)
{
    EXPECT_EQ(execute(shell("kill -KILL $$")), -1);
    EXPECT_EQ(execute(shell("kill -TERM $$")), -1);
    EXPECT_FALSE(error_);
}

TEST_F(PrivilegedTool, GivesMinusOneWhereItStops)
{
    const ScratchHome home;
    const auto file = home.path() / "pid";
    EXPECT_EQ(execute(shell("echo $$ > " + file.string() + "; kill -STOP $$")), -1);
    const Bytes text = readFile(file);
    const pid_t child = std::stoi(std::string(text.begin(), text.end()));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
}

TEST_F(PrivilegedTool, GetsEachArgumentAsItIs)
{
    const ScratchHome home;
    const auto file = home.path() / "arguments";
    const std::vector<std::string> words = {"two words", "", "it's", "\"quoted\"", "$HOME `id` \\ *", "-d", " "};
    auto arguments = NSMutableArray::array();
    for (const auto& word :
        {std::string("-c"), "for word; do printf '[%s]' \"$word\"; done > " + file.string(), {"sh"}})
        arguments->addObject(NSString::stringWithUTF8String(word));
    std::string expected;
    for (const std::string& word : words) {
        arguments->addObject(NSString::stringWithUTF8String(word));
        expected += "[" + word + "]";
    }
    EXPECT_EQ(execute(arguments), 0);
    const Bytes text = readFile(file);
    EXPECT_EQ(std::string(text.begin(), text.end()), expected);
}

TEST_F(PrivilegedTool, GetsTenThousandArguments)
{
    constexpr int count = 10'000;
    auto arguments = NSMutableArray::array();
    for (const auto& word : {"-c"_ns, "[ $# = 10000 ] && [ \"$1\" = a0 ] && [ \"${10000}\" = a9999 ]"_ns, "sh"_ns})
        arguments->addObject(word);
    for (int index = 0; index < count; ++index)
        arguments->addObject(NSString::stringWithUTF8String("a" + std::to_string(index)));
    EXPECT_EQ(execute(arguments), 0);
    EXPECT_FALSE(error_);
}

TEST_F(PrivilegedTool, IsNotWaitedForUnlessAsked)
{
    EXPECT_EQ(execute(shell("exit 7"), false), 0);
    EXPECT_FALSE(error_);
    int status = 0;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(PrivilegedTool, IsWaitedForThroughSignals)
{
    struct sigaction interrupting { };
    interrupting.sa_handler = [](int) {};
    struct sigaction before { };
    sigaction(SIGALRM, &interrupting, &before);
    const itimerval often{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::int32_t status = execute(shell("sleep 0.2; exit 4"));
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(status, 4);
}

TEST_F(PrivilegedTool, IsConnectedToThePipe)
{
    std::FILE* pipe = nullptr;
    EXPECT_EQ(execute(shell("read line; echo \"got $line\""), false, &pipe), 0);
    ASSERT_NE(pipe, nullptr);
    std::fputs("a line\n", pipe);
    std::fflush(pipe);
    char answer[32] = {};
    EXPECT_NE(std::fgets(answer, sizeof answer, pipe), nullptr);
    EXPECT_STREQ(answer, "got a line\n");
    std::fclose(pipe);
    int status = -1;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
}

TEST_F(PrivilegedTool, ThatCannotBeStartedIsAnError)
{
    const auto status = Execute::executePrivilegedTool(
        authorization_, "/nowhere/tool"_ns, NSArray::arrayWithObjects({"x"_ns}), true, nullptr, &error_);
    EXPECT_EQ(status, -60031);
    ASSERT_TRUE(error_);
    EXPECT_EQ(error_->code(), -60031);
    EXPECT_EQ(toUTF8(error_->domain()), "NSOSStatusErrorDomain");
    EXPECT_EQ(toUTF8(error_->localizedDescription()), "The tool failed to execute (-60031)");
    EXPECT_EQ(error_->userInfo()->count(), 1U);
}

TEST_F(PrivilegedTool, NeedsNoErrorSlot)
{
    EXPECT_EQ(
        Execute::executePrivilegedTool(authorization_, "/nowhere/tool"_ns, nullptr, true, nullptr, nullptr), -60031);
}

TEST_F(PrivilegedTool, LeavesTheErrorSlotAloneWhereItStarts)
{
    const auto earlier = NSError::errorWithDomain("earlier"_ns, 1, nullptr);
    error_ = earlier;
    EXPECT_EQ(execute(shell("exit 1")), 1);
    EXPECT_EQ(error_, earlier);
}

TEST_F(PrivilegedTool, NeedsTheRight)
{
    const auto without = SFAuthorization::authorization();
    EXPECT_EQ(Execute::executePrivilegedTool(without, "/bin/sh"_ns, shell("exit 0"), true, nullptr, &error_), -60005);
    ASSERT_TRUE(error_);
    EXPECT_EQ(toUTF8(error_->localizedDescription()),
        "The Security Server denied authorization for one or more requested rights (-60005)");
}

TEST_F(PrivilegedTool, WithoutAuthorizationIsNotStarted)
{
    platformCalls().executeWithPrivileges = [](const auto&, auto*, auto, auto*, auto*) -> OSStatus {
        ADD_FAILURE() << "started";
        return errAuthorizationSuccess;
    };
    EXPECT_EQ(Execute::executePrivilegedTool(nullptr, "/bin/sh"_ns, shell("exit 3"), true, nullptr, &error_), 0);
    EXPECT_FALSE(error_);
}

/// What the platform is called with; nothing is started.
class ToolLaunch : public PrivilegedTool {
protected:
    ToolLaunch()
    {
        platformCalls().executeWithPrivileges = [this](const AuthorizationRef& authorization, const char* path,
                                                    AuthorizationFlags flags, char* const* arguments,
                                                    std::FILE** pipe) -> OSStatus {
            ++calls_;
            EXPECT_EQ(authorization, authorization_->authorizationRef());
            EXPECT_EQ(flags, 0U);
            path_ = path ? path : "(null)";
            pipe_ = pipe;
            hasVector_ = arguments != nullptr;
            arguments_.clear();
            for (; arguments && *arguments; ++arguments)
                arguments_.emplace_back(*arguments);
            return status_;
        };
    }

    OSStatus status_ = errAuthorizationCanceled;
    int calls_ = 0;
    std::string path_;
    bool hasVector_ = false;
    std::vector<std::string> arguments_;
    std::FILE** pipe_ = nullptr;
};

TEST_F(ToolLaunch, PassesArgumentsEndedByANullSlot)
{
    std::FILE* pipe = nullptr;
    EXPECT_EQ(execute(NSArray::arrayWithObjects({"add-trusted-cert"_ns, ""_ns, "-d"_ns}), true, &pipe), -60006);
    EXPECT_EQ(path_, "/bin/sh");
    EXPECT_TRUE(hasVector_);
    EXPECT_THAT(arguments_, ElementsAre("add-trusted-cert", "", "-d"));
    EXPECT_EQ(pipe_, &pipe);
    EXPECT_EQ(toUTF8(error_->localizedDescription()), "The user canceled the operation (-60006)");
}

TEST_F(ToolLaunch, PassesNoVectorWithoutArguments)
{
    for (const auto& arguments : {Ref<NSArray>(), NSArray::array()}) {
        hasVector_ = true;
        execute(arguments);
        EXPECT_FALSE(hasVector_);
        EXPECT_EQ(pipe_, nullptr);
    }
    EXPECT_EQ(calls_, 2);
}

TEST_F(ToolLaunch, CutsArgumentsToAsManyBytesAsTheyHaveCharacters)
{
    execute(NSArray::arrayWithObjects({"/tmp/Z\u00FCrich.der"_ns, "\u2603"_ns, "\U0001F511"_ns,
        NSString::stringWithCharacters(u"wide ascii"), NSString::stringWithCharacters(std::u16string(u"a\0b", 3))}));
    EXPECT_THAT(arguments_, ElementsAre("/tmp/Z\u00FCrich.de", "\xE2", "\xF0\x9F", "wide ascii", "a"));
}

TEST_F(ToolLaunch, DoesNotTakePlaceForArgumentsWithoutText)
{
    for (const Ref<NSObject>& argument :
        {Ref<NSObject>(NSNumber::numberWithInt(1)), Ref<NSObject>(NSString::stringWithCharacters(u"\xD800"))}) {
        error_.reset();
        EXPECT_EQ(execute(NSArray::arrayWithObjects({"-k"_ns, argument})), -60031);
        ASSERT_TRUE(error_);
        EXPECT_EQ(error_->code(), -60031);
    }
    EXPECT_EQ(calls_, 0);
}

TEST_F(ToolLaunch, PassesNoPathAsNull)
{
    Execute::executePrivilegedTool(authorization_, nullptr, nullptr, true, nullptr, nullptr);
    EXPECT_EQ(path_, "(null)");
    Execute::executePrivilegedTool(
        authorization_, NSString::stringWithCharacters(u"/\xD800"), nullptr, true, nullptr, nullptr);
    EXPECT_EQ(path_, "(null)");
}

TEST_F(ToolLaunch, ThatFailsIsNotWaitedFor)
{
    platformCalls().waitForAnyChild = [](int*, int) {
        ADD_FAILURE() << "waited";
        return -1;
    };
    EXPECT_EQ(execute(nullptr), -60006);
}

TEST_F(ToolLaunch, IsWaitedForAgainAfterEachInterruption)
{
    status_ = errAuthorizationSuccess;
    int waits = 0;
    platformCalls().waitForAnyChild = [&](int* status, int options) {
        EXPECT_EQ(options, WUNTRACED);
        if (++waits < 4) {
            errno = EINTR;
            return -1;
        }
        *status = 0x1200;
        return 1;
    };
    EXPECT_EQ(execute(nullptr), 0x12);
    EXPECT_EQ(waits, 4);
}

TEST_F(ToolLaunch, ThatCannotBeWaitedForGivesMinusOne)
{
    status_ = errAuthorizationSuccess;
    platformCalls().waitForAnyChild = [](int*, int) {
        errno = ECHILD;
        return -1;
    };
    EXPECT_EQ(execute(nullptr), -1);
    EXPECT_FALSE(error_);
}

TEST(AuthorizationErrorText, NamesEachCode)
{
    const std::pair<std::int32_t, const char*> rows[] = {
        {0, "The operation completed successfully"},
        {-60001, "The set parameter is invalid"},
        {-60002, "The authorization parameter is invalid"},
        {-60003, "The tag parameter is invalid"},
        {-60004, "The authorizedRights parameter is invalid"},
        {-60005, "The Security Server denied authorization for one or more requested rights"},
        {-60006, "The user canceled the operation"},
        {-60007, "The Security Server denied authorization because no user interaction is allowed"},
        {-60008, "An unrecognized internal error occurred"},
        {-60009, "The Security Server denied externalization of the authorization reference"},
        {-60010, "The Security Server denied internalization of the authorization reference"},
        {-60011, "The flags parameter is invalid"},
        {-60031, "The tool failed to execute"},
        {-60032, "The attempt to execute the tool failed to return a success or an error code"},
    };
    for (const auto& [code, text] : rows)
        EXPECT_EQ(toUTF8(Execute::stringForAuthorizationError(code)), text);
    for (const std::int32_t code : {1, -1, -60000, -60012, -60020, -60030, -60033, INT32_MIN, INT32_MAX})
        EXPECT_EQ(
            toUTF8(Execute::stringForAuthorizationError(code)), "The Security Server encountered an unknown error");
}

} // namespace
