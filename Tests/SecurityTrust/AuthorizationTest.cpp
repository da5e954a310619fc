// Administrator rights, and tools run with them.

#include "Security/Authorization/Backend.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingAuthorization.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using kf::authorization::currentBackend;
using kf::authorization::DirectBackend;
using kf::authorization::NoRightsBackend;
using kf::authorization::setBackend;
using kf::test::RecordingAuthorization;
using ::testing::ElementsAre;

constexpr AuthorizationFlags everyFlag =
    kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;

/// Makes a back end the process's own while it lives.
class BackendScope {
public:
    explicit BackendScope(std::shared_ptr<kf::authorization::Backend> backend) : before_(setBackend(std::move(backend)))
    {
    }
    BackendScope(const BackendScope&) = delete;
    BackendScope& operator=(const BackendScope&) = delete;
    ~BackendScope() { setBackend(before_); }

private:
    std::shared_ptr<kf::authorization::Backend> before_;
};

/// A variable of the environment, put back at the end.
class EnvironmentScope {
public:
    EnvironmentScope(const char* name, const char* value) : name_(name)
    {
        if (const char* before = std::getenv(name))
            before_ = before;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    EnvironmentScope(const EnvironmentScope&) = delete;
    EnvironmentScope& operator=(const EnvironmentScope&) = delete;
    ~EnvironmentScope() { before_ ? ::setenv(name_, before_->c_str(), 1) : ::unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> before_;
};

/// The exit status of the one child that there must be, as the callers of the platform collect it.
int waitForTheOnlyChild()
{
    int status = -1;
    EXPECT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    return status;
}

void expectNoChild()
{
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

std::string readAll(std::FILE* stream)
{
    std::string text;
    for (int character; (character = std::fgetc(stream)) != EOF;)
        text += static_cast<char>(character);
    return text;
}

Ref<SFAuthorization> authorized()
{
    auto authorization = SFAuthorization::authorization();
    EXPECT_TRUE(authorization->obtainWithRight("system.privilege.admin"_ns, everyFlag, nullptr));
    return authorization;
}

OSStatus execute(const Ref<SFAuthorization>& authorization, const char* path, std::vector<std::string> words,
    std::FILE** pipe = nullptr)
{
    std::vector<char*> arguments;
    for (auto& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    return AuthorizationExecuteWithPrivileges(
        authorization->authorizationRef(), path, kAuthorizationFlagDefaults, arguments.data(), pipe);
}

class AuthorizationTest : public ::testing::Test {
protected:
    void SetUp() override { expectNoChild(); }
    void TearDown() override { expectNoChild(); }
};

TEST_F(AuthorizationTest, ObtainingTheAdministratorsRightAsksTheBackEnd)
{
    RecordingAuthorization recording;
    auto authorization = SFAuthorization::authorization();
    EXPECT_FALSE(authorization->authorizationRef()->holds("system.privilege.admin")) << "a fresh one holds no rights";
    Ref<NSError> error;

    EXPECT_TRUE(authorization->obtainWithRight("system.privilege.admin"_ns, everyFlag, &error));

    EXPECT_FALSE(error);
    ASSERT_EQ(recording.asked().size(), 1U);
    EXPECT_EQ(recording.asked()[0].right, "system.privilege.admin");
    EXPECT_EQ(recording.asked()[0].flags, 19U);
}

TEST_F(AuthorizationTest, RefusalBecomesAnErrorWithTextAndCode)
{
    RecordingAuthorization recording;
    recording.refuse(errAuthorizationCanceled);
    Ref<NSError> error;

    EXPECT_FALSE(SFAuthorization::authorization()->obtainWithRight("system.privilege.admin"_ns, everyFlag, &error));

    ASSERT_TRUE(error);
    EXPECT_EQ(toUTF8(error->domain()), "NSOSStatusErrorDomain");
    EXPECT_EQ(error->code(), -60006);
    EXPECT_EQ(error->userInfo()->count(), 1U);
    EXPECT_EQ(toUTF8(error->localizedDescription()), "The user canceled the operation (-60006)");
    EXPECT_FALSE(SFAuthorization::authorization()->obtainWithRight("system.privilege.admin"_ns, everyFlag, nullptr))
        << "without an error slot";
}

TEST_F(AuthorizationTest, BadRightsAndFlagsAreRefusedWithoutAsking)
{
    RecordingAuthorization recording;
    const auto code = [](const Ref<NSString>& right, AuthorizationFlags flags) {
        Ref<NSError> error;
        EXPECT_FALSE(SFAuthorization::authorization()->obtainWithRight(right, flags, &error));
        return error ? error->code() : 0;
    };
    EXPECT_EQ(code(nullptr, everyFlag), errAuthorizationInvalidSet);
    EXPECT_EQ(code(""_ns, everyFlag), errAuthorizationInvalidSet);
    EXPECT_EQ(code("system.privilege.admin"_ns, 1U << 20), errAuthorizationInvalidFlags);
    EXPECT_EQ(code("system.privilege.admin"_ns, kAuthorizationFlagInteractionAllowed), errAuthorizationDenied)
        << "not held, and not to be extended";
    EXPECT_TRUE(recording.asked().empty());
}

TEST_F(AuthorizationTest, RootGrantsOnlyTheAdministratorsRight)
{
    const BackendScope scope(std::make_shared<DirectBackend>());
    Ref<NSError> error;
    EXPECT_FALSE(SFAuthorization::authorization()->obtainWithRight("system.reboot"_ns, everyFlag, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), errAuthorizationDenied);
    EXPECT_TRUE(SFAuthorization::authorization()->obtainWithRight("system.privilege.admin"_ns, everyFlag, &error));
}

TEST_F(AuthorizationTest, BackEndFitsTheProcess)
{
    {
        const EnvironmentScope environment("KEYFOLD_AUTHORIZATION", nullptr);
        const EnvironmentScope noBus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent");
        const EnvironmentScope noAskpass("SUDO_ASKPASS", nullptr);
        EXPECT_EQ(currentBackend()->isAdministrator(), ::geteuid() == 0);
        EXPECT_EQ(currentBackend()->obtainRight("system.privilege.admin", everyFlag).status(),
            ::geteuid() == 0 ? errAuthorizationSuccess : errAuthorizationInternal)
            << "a machine with nothing to ask with says so at once";
    }
    const EnvironmentScope environment("KEYFOLD_AUTHORIZATION", "none");
    EXPECT_FALSE(currentBackend()->isAdministrator()) << "root's rights are given up too";
    Ref<NSError> error;
    EXPECT_FALSE(SFAuthorization::authorization()->obtainWithRight("system.privilege.admin"_ns, everyFlag, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), errAuthorizationDenied);
}

TEST_F(AuthorizationTest, NoOtherValueOfTheVariableChangesAnything)
{
    for (const char* value : {"", "direct", "None", "root"}) {
        const EnvironmentScope environment("KEYFOLD_AUTHORIZATION", value);
        EXPECT_EQ(currentBackend()->isAdministrator(), ::geteuid() == 0) << value;
    }
}

TEST_F(AuthorizationTest, WithoutTheRightNoToolRuns)
{
    RecordingAuthorization recording;
    EXPECT_EQ(execute(SFAuthorization::authorization(), "/bin/true", {}), errAuthorizationDenied);
    EXPECT_TRUE(recording.executed().empty());
}

TEST_F(AuthorizationTest, ExecuteChecksItsParameters)
{
    RecordingAuthorization recording;
    const auto authorization = authorized();
    const auto& reference = authorization->authorizationRef();
    EXPECT_EQ(
        AuthorizationExecuteWithPrivileges(nullptr, "/bin/true", 0, nullptr, nullptr), errAuthorizationInvalidRef);
    EXPECT_EQ(
        AuthorizationExecuteWithPrivileges(reference, nullptr, 0, nullptr, nullptr), errAuthorizationInvalidPointer);
    EXPECT_EQ(
        AuthorizationExecuteWithPrivileges(reference, "/bin/true", 1, nullptr, nullptr), errAuthorizationInvalidFlags);
    EXPECT_TRUE(recording.executed().empty());
    EXPECT_EQ(AuthorizationExecuteWithPrivileges(reference, "/bin/true", 0, nullptr, nullptr), errAuthorizationSuccess);
    ASSERT_EQ(recording.executed().size(), 1U);
    EXPECT_TRUE(recording.executed()[0].arguments.empty()) << "a null vector is no arguments";
    waitForTheOnlyChild();
}

TEST_F(AuthorizationTest, ArgumentsReachTheBackEndInOrder)
{
    RecordingAuthorization recording;
    recording.setTool([](const auto&) { return 3; });
    EXPECT_EQ(execute(authorized(), "/usr/bin/security", {"add-trusted-cert", "-d", ""}), errAuthorizationSuccess);
    ASSERT_EQ(recording.executed().size(), 1U);
    EXPECT_EQ(recording.executed()[0].path, "/usr/bin/security");
    EXPECT_THAT(recording.executed()[0].arguments, ElementsAre("add-trusted-cert", "-d", ""));
    const int status = waitForTheOnlyChild();
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST_F(AuthorizationTest, AFailedLaunchIsToldAndLeavesNoChild)
{
    RecordingAuthorization recording;
    recording.failToLaunch(errAuthorizationToolExecuteFailure);
    EXPECT_EQ(execute(authorized(), "/usr/bin/security", {}), errAuthorizationToolExecuteFailure);
    EXPECT_EQ(recording.executed().size(), 1U);
}

/// The direct back end, which needs no root itself: it starts children of this process.
class DirectToolTest : public AuthorizationTest {
protected:
    DirectToolTest() : scope_(std::make_shared<DirectBackend>())
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-tool-XXXXXX").string();
        directory_ = ::mkdtemp(pattern.data());
    }
    ~DirectToolTest() override { std::filesystem::remove_all(directory_); }

    OSStatus shell(const std::string& script, std::FILE** pipe = nullptr)
    {
        return execute(authorized(), "/bin/sh", {"-c", script}, pipe);
    }
    std::string path(const std::string& name) const { return directory_ / name; }
    std::string content(const std::string& name) const
    {
        const auto bytes = kf::test::readFile(directory_ / name);
        return std::string(bytes.begin(), bytes.end());
    }

private:
    BackendScope scope_;
    std::filesystem::path directory_;
};

TEST_F(DirectToolTest, ExitStatusIsTheTools)
{
    for (const int expected : {0, 1, 126, 127, 255}) {
        ASSERT_EQ(shell("exit " + std::to_string(expected)), errAuthorizationSuccess);
        const int status = waitForTheOnlyChild();
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), expected);
    }
}

TEST_F(DirectToolTest, SignalThatEndsTheToolIsSeen)
{
    ASSERT_EQ(shell("kill -9 $$"), errAuthorizationSuccess);
    const int status = waitForTheOnlyChild();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(DirectToolTest, WhatCannotBeStartedIsToldAndLeavesNoChild)
{
    kf::test::writeFile(path("plain"), std::string_view("#!/bin/sh\nexit 0\n"));
    kf::test::writeFile(path("orphan"), std::string_view("#!/nonexistent/interpreter\n"));
    ::chmod(path("orphan").c_str(), 0755);
    for (const std::string& tool :
        {path("missing"), path("plain"), path("orphan"), path(""), std::string("true"), std::string()}) {
        EXPECT_EQ(execute(authorized(), tool.c_str(), {}), errAuthorizationToolExecuteFailure) << tool;
        expectNoChild();
    }
    std::FILE* pipe = stderr;
    EXPECT_EQ(execute(authorized(), path("missing").c_str(), {}, &pipe), errAuthorizationToolExecuteFailure);
    EXPECT_EQ(pipe, nullptr);
}

TEST_F(DirectToolTest, APathIsNotTakenFromTheWorkingDirectory)
{
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path("/");
    EXPECT_EQ(execute(authorized(), "bin/true", {}), errAuthorizationToolExecuteFailure);
    std::filesystem::current_path(before);
}

TEST_F(DirectToolTest, WithoutAPipeTheInputIsEmpty)
{
    ASSERT_EQ(
        shell("cat > " + path("input") + "; readlink /proc/self/fd/0 > " + path("null")), errAuthorizationSuccess);
    waitForTheOnlyChild();
    EXPECT_EQ(content("input"), "");
    EXPECT_EQ(content("null"), "/dev/null\n");
}

TEST_F(DirectToolTest, PipeIsTheToolsInputAndOutput)
{
    std::FILE* pipe = nullptr;
    ASSERT_EQ(shell("read line; echo \"heard $line\"", &pipe), errAuthorizationSuccess);
    ASSERT_TRUE(pipe);
    std::fputs("something\n", pipe);
    std::fflush(pipe);
    EXPECT_EQ(readAll(pipe), "heard something\n");
    std::fclose(pipe);
    const int status = waitForTheOnlyChild();
    EXPECT_EQ(status, 0);
}

TEST_F(DirectToolTest, ToolGetsOnlyTheStandardDescriptors)
{
    const int leaked = ::fcntl(1, F_DUPFD, 20); // on purpose not close-on-exec
    ASSERT_GE(leaked, 20);
    for (const bool withPipe : {false, true}) {
        std::FILE* pipe = nullptr;
        // The listing itself holds the directory open as one more.
        ASSERT_EQ(shell("exec ls /proc/self/fd > " + path("descriptors"), withPipe ? &pipe : nullptr),
            errAuthorizationSuccess);
        waitForTheOnlyChild();
        EXPECT_EQ(content("descriptors"), "0\n1\n2\n3\n");
        if (pipe)
            std::fclose(pipe);
    }
    ::close(leaked);
}

TEST_F(DirectToolTest, ClosedStandardDescriptorsDoNotConfuseIt)
{
    const pid_t process = ::fork();
    if (process == 0) {
        for (const int standard : {0, 1, 2})
            ::close(standard);
        std::FILE* pipe = nullptr;
        const bool started = shell("read line; echo \"heard $line\"; echo lost >&2", &pipe) == errAuthorizationSuccess;
        if (!started || !pipe)
            ::_exit(10);
        std::fputs("all\n", pipe);
        std::fflush(pipe);
        const bool heard = readAll(pipe) == "heard all\n";
        int status = -1;
        ::waitpid(-1, &status, 0);
        ::_exit(heard && status == 0 ? 0 : 11);
    }
    const int status = waitForTheOnlyChild();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(DirectToolTest, SignalsAreInTheirDefaultState)
{
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto handler = std::signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(shell("exec grep -E '^Sig(Blk|Ign)' /proc/self/status > " + path("signals")), errAuthorizationSuccess);
    waitForTheOnlyChild();
    std::signal(SIGPIPE, handler);
    sigset_t now;
    ::pthread_sigmask(SIG_SETMASK, &before, &now);
    EXPECT_EQ(content("signals"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_EQ(sigismember(&now, SIGTERM), 1) << "the caller's own mask stays";
    EXPECT_EQ(sigismember(&now, SIGINT), 0);
}

TEST_F(DirectToolTest, NoRightsStartNothing)
{
    NoRightsBackend backend(errAuthorizationDenied);
    std::FILE* pipe = nullptr;
    EXPECT_EQ(backend.execute({"/bin/true", {}}, &pipe).status(), errAuthorizationToolExecuteFailure);
    EXPECT_EQ(backend.obtainRight("system.privilege.admin", everyFlag).status(), errAuthorizationDenied);
}

} // namespace
