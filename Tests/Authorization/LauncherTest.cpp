// The privileged side by itself: what it takes, and that nothing of the caller's process reaches the tool.

#include "Security/Authorization/ChildProcess.h"
#include "Security/Authorization/LaunchReply.h"
#include "Tests/Authorization/LauncherFixture.h"
#include "launcher/Certificate.h"
#include "launcher/Request.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

using kf::authorization::ChildProgram;
using kf::authorization::DescriptorPair;
using kf::authorization::makeConnection;
using kf::authorization::startChild;
using kf::launcher::matchesDigest;
using kf::launcher::parseRequest;
using kf::launcher::readAs;
using testing::ElementsAre;
using testing::HasSubstr;
using Words = std::vector<std::string>;

const Words addWords = {"authority", "null", "/usr/bin/security", "add-trusted-cert", "-k",
    "/Library/Keychains/System.keychain", "-d", "-r", "trustRoot", "/a/certificate.der"};
const Words removeWords = {"certificate", "pipe", "/usr/bin/security", "remove-trusted-cert", "-d", "/a/b c.der"};

TEST(LauncherRequest, TakesTheTwoCommands)
{
    const auto add = parseRequest(addWords);
    ASSERT_TRUE(add);
    EXPECT_TRUE(add->isForTheAuthority);
    EXPECT_FALSE(add->hasPipe);
    EXPECT_THAT(add->toolWords,
        ElementsAre("add-trusted-cert", "-k", "/Library/Keychains/System.keychain", "-d", "-r", "trustRoot"));
    EXPECT_EQ(add->certificate, "/a/certificate.der");
    const auto remove = parseRequest(removeWords);
    ASSERT_TRUE(remove);
    EXPECT_FALSE(remove->isForTheAuthority);
    EXPECT_TRUE(remove->hasPipe);
    EXPECT_THAT(remove->toolWords, ElementsAre("remove-trusted-cert", "-d"));
    EXPECT_EQ(remove->certificate, "/a/b c.der");
}

TEST(LauncherRequest, RefusesEveryWordThatIsMissingTwiceOrAnother)
{
    for (const Words& words : {addWords, removeWords}) {
        for (std::size_t index = 0; index < words.size(); ++index) {
            Words missing = words;
            missing.erase(missing.begin() + static_cast<std::ptrdiff_t>(index));
            EXPECT_FALSE(parseRequest(missing)) << "without " << words[index];
            Words twice = words;
            twice.insert(twice.begin() + static_cast<std::ptrdiff_t>(index), words[index]);
            EXPECT_FALSE(parseRequest(twice)) << "twice " << words[index];
            for (const char* other : {"", "-", "--", "-h", "x", "certificate.der", "../x", "-rdeny", "/bin/sh;"}) {
                Words changed = words;
                changed[index] = other;
                if (index + 1 == words.size() && other[0] == '/')
                    continue; // a certificate's path
                EXPECT_FALSE(parseRequest(changed)) << other << " for " << words[index];
            }
        }
    }
}

TEST(LauncherRequest, RefusesWhatTheToolMightTake)
{
    const auto with = [](std::size_t index, const char* word) {
        Words words = addWords;
        words[index] = word;
        return words;
    };
    EXPECT_FALSE(parseRequest({}));
    EXPECT_FALSE(parseRequest(with(2, "/usr/bin/../bin/security")));
    EXPECT_FALSE(parseRequest(with(2, "security")));
    EXPECT_FALSE(parseRequest(with(3, "import")));
    EXPECT_FALSE(parseRequest(with(5, "/home/member/.pki/nssdb")));
    EXPECT_FALSE(parseRequest(with(5, "/Library/Keychains/System.keychain/")));
    EXPECT_FALSE(parseRequest(with(8, "trustAsRoot")));
    EXPECT_FALSE(parseRequest(with(9, "-k/tmp/other.keychain")));
    EXPECT_FALSE(parseRequest({"authority", "null", "/usr/bin/security", "add-trusted-cert", "-d", "-k",
        "/Library/Keychains/System.keychain", "-r", "trustRoot", "/a/certificate.der"}))
        << "another order";
    EXPECT_FALSE(parseRequest({"certificate", "null", "/usr/bin/security", "remove-trusted-cert", "/a.der"}))
        << "the caller's own trust needs no rights";
}

/// The launcher as pkexec would start it, from a process that means ill.
class LauncherProcess : public kf::test::LauncherTest {
protected:
    /// Starts it, and gives its first byte; 0 where none came.
    char start(ChildProgram program = {}, const std::string& way = "authority")
    {
        DescriptorPair channel = makeConnection();
        program.path = path("launcher");
        program.arguments = {way, "null", "/usr/bin/security", "remove-trusted-cert", "-d", path("authority.der")};
        program.input = channel.theirs.get();
        const auto child = startChild(program);
        channel.theirs.reset();
        EXPECT_TRUE(child);
        char reply = 0;
        EXPECT_GE(::read(channel.ours.get(), &reply, 1), 0);
        status_ = kf::authorization::waitForChild(*child);
        return reply;
    }
    int status_ = -1;
};

TEST_F(LauncherProcess, GivesTheToolAnEnvironmentOfItsOwn)
{
    script("tool", "env > " + path("variables"));
    EXPECT_EQ(start({.environment = {{"LD_PRELOAD_=x", "PATH=/tmp/evil", "IFS=/", "LC_ALL=xx", "HOME=/home/other",
                         "OPENSSL_CONF=/tmp/evil.cnf", "NSS_DEFAULT_DB_TYPE=dbm", "ENV=/tmp/evil.sh"}}}),
        's');
    auto variables = lines("variables");
    std::erase_if(variables, [](const auto& line) { return line.starts_with("PWD="); }); // the shell's own
    std::ranges::sort(variables);
    EXPECT_THAT(variables, ElementsAre("HOME=/root", "LC_ALL=C.UTF-8", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"));
}

TEST_F(LauncherProcess, LeavesTheCallersDirectoryMaskLimitsAndSignals)
{
    script(
        "tool", "{ pwd; umask; ulimit -f; ulimit -n; grep -E '^Sig(Blk|Ign)' /proc/self/status; } > " + path("state"));
    // In a process of its own: what it does to itself must not reach the other tests.
    const pid_t caller = ::fork();
    if (caller == 0) {
        ::umask(0777);
        const int directory = ::chdir(path("").c_str());
        rlimit small{1 << 20, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &small);
        rlimit few{};
        ::getrlimit(RLIMIT_NOFILE, &few);
        few.rlim_cur = 20;
        ::setrlimit(RLIMIT_NOFILE, &few);
        std::_Exit(directory == 0 && start() == 's' && status_ == 0 ? 0 : 1);
    }
    EXPECT_EQ(kf::authorization::waitForChild(caller), 0);
    EXPECT_THAT(lines("state"),
        ElementsAre("/", "0022", "unlimited", "4096", "SigBlk:\t0000000000000000", "SigIgn:\t0000000000000000"));
}

/// A timer outlives an exec, and its signal would end the tool halfway.
TEST_F(LauncherProcess, LeavesNoTimerOfTheCallers)
{
    script("tool", "sleep 0.3; i=0; while [ $i -lt 100000 ]; do i=$((i + 1)); done; : > " + path("done"));
    for (const auto timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
        const DescriptorPair channel = makeConnection();
        const std::string program = path("launcher");
        const std::string certificate = path("authority.der");
        const pid_t caller = ::fork();
        if (caller == 0) {
            constexpr itimerval soon{{}, {0, 50'000}};
            const bool isSet = ::setitimer(timer, &soon, nullptr) == 0 && ::dup2(channel.theirs.get(), 0) == 0;
            if (isSet)
                ::execl(program.c_str(), program.c_str(), "authority", "null", "/usr/bin/security",
                    "remove-trusted-cert", "-d", certificate.c_str(), nullptr);
            std::_Exit(1);
        }
        EXPECT_EQ(kf::authorization::waitForChild(caller), 0) << timer;
        EXPECT_TRUE(std::filesystem::remove(path("done"))) << timer;
    }
}

TEST_F(LauncherProcess, GivesTheToolTheStandardDescriptorsAndTheCertificate)
{
    script("tool", "exec ls -l /proc/self/fd > " + path("descriptors"));
    EXPECT_EQ(start(), 's');
    const auto all = lines("descriptors");
    ASSERT_EQ(all.size(), 6U) << content("descriptors"); // a sum, 0 to 3 and the listing itself
    EXPECT_THAT(all[1], HasSubstr("0 -> /dev/null"));
    EXPECT_THAT(all[4], HasSubstr("3 -> /memfd:certificate"));
}

TEST_F(LauncherProcess, ClosedStandardDescriptorsDoNotConfuseIt)
{
    script("tool", "echo lost; echo lost >&2; cat /dev/fd/3 > " + path("got"));
    const int error = ::dup(2);
    const int output = ::dup(1);
    ::close(1);
    ::close(2);
    const char reply = start();
    ::dup2(output, 1);
    ::dup2(error, 2);
    ::close(output);
    ::close(error);
    EXPECT_EQ(reply, 's');
    EXPECT_EQ(content("got"), "the authority's bytes");
}

TEST_F(LauncherProcess, TheBytesCannotBeChangedOnTheWay)
{
    script("tool",
        "for way in '1<>' '>>' '>'; do sh -c \"printf x $way /dev/fd/3\" 2> /dev/null || echo kept; done > "
            + path("result") + "; cat /dev/fd/3 >> " + path("result"));
    EXPECT_EQ(start(), 's');
    EXPECT_EQ(content("result"), "kept\nkept\nkept\nthe authority's bytes");
}

TEST_F(LauncherProcess, RunsNothingForACallerThatIsGone)
{
    script("tool", ": > " + path("ran"));
    DescriptorPair channel = makeConnection();
    channel.ours.reset();
    const auto child = startChild({.path = path("launcher"),
        .arguments = {"authority", "null", "/usr/bin/security", "remove-trusted-cert", "-d", path("authority.der")},
        .input = channel.theirs.get()});
    ASSERT_TRUE(child);
    EXPECT_EQ(kf::authorization::waitForChild(*child), EXIT_FAILURE);
    EXPECT_FALSE(exists("ran"));
}

TEST_F(LauncherProcess, StartedByHandItDoesNothing)
{
    script("tool", ": > " + path("ran"));
    const auto child = startChild({.path = path("launcher"),
        .arguments = {"authority", "null", "/usr/bin/security", "remove-trusted-cert", "-d", path("authority.der")}});
    ASSERT_TRUE(child);
    EXPECT_EQ(kf::authorization::waitForChild(*child), EXIT_FAILURE);
    EXPECT_FALSE(exists("ran"));
}

TEST_F(LauncherProcess, AnotherCertificateDoesNotPassForTheAuthority)
{
    script("tool", ": > " + path("ran"));
    kf::test::writeFile(path("authority.der"), std::string_view("an impostor's bytes"));
    EXPECT_EQ(start(), 'o');
    EXPECT_FALSE(exists("ran"));
    EXPECT_EQ(start({}, "certificate"), 's');
    EXPECT_TRUE(exists("ran"));
}

TEST_F(LauncherProcess, WithoutADigestNoCertificateIsTheAuthority)
{
    std::filesystem::remove(path("authority.sha256"));
    EXPECT_EQ(start(), 'o');
}

class DigestFile : public kf::test::LauncherTest {
protected:
    bool matches(uid_t owner = ::getuid()) const
    {
        return matchesDigest(kf::test::readFile(path("authority.der")), path("authority.sha256"), owner);
    }
};

TEST_F(DigestFile, CountsOnlyWhereNobodyElseCouldWriteIt)
{
    EXPECT_TRUE(matches());
    EXPECT_FALSE(matches(::getuid() + 1)) << "of another owner";
    for (const mode_t mode : {0664U, 0646U, 0666U}) {
        ::chmod(path("authority.sha256").c_str(), mode);
        EXPECT_FALSE(matches()) << mode;
    }
    ::chmod(path("authority.sha256").c_str(), 0644);
    EXPECT_TRUE(matches());
    std::filesystem::rename(path("authority.sha256"), path("elsewhere"));
    std::filesystem::create_symlink(path("elsewhere"), path("authority.sha256"));
    EXPECT_FALSE(matches()) << "a link";
}

TEST_F(DigestFile, MustHoldTheWholeDigest)
{
    const std::string digest = content("authority.sha256").substr(0, 64);
    const auto with = [&](const std::string& text) {
        kf::test::writeFile(path("authority.sha256"), text);
        return matches();
    };
    EXPECT_TRUE(with(digest));
    EXPECT_FALSE(with(""));
    EXPECT_FALSE(with(digest.substr(0, 63)));
    EXPECT_FALSE(with(" " + digest));
    EXPECT_FALSE(with(std::string(64, '0')));
}

class ReadAs : public kf::test::LauncherTest { };

TEST_F(ReadAs, TakesAFileOfTheLimitsSizeAndNoLarger)
{
    constexpr std::size_t limit = 64UL * 1024;
    kf::test::writeFile(path("file"), std::string(limit, 'x'));
    const auto whole = readAs(::geteuid(), path("file"));
    ASSERT_TRUE(whole.bytes);
    EXPECT_EQ(whole.bytes->size(), limit);
    kf::test::writeFile(path("file"), std::string(limit + 1, 'x'));
    EXPECT_EQ(readAs(::geteuid(), path("file")).error, "is larger than 64 KiB");
    EXPECT_EQ(readAs(::geteuid(), "/dev/zero").error, "is not a regular file");
}

TEST_F(ReadAs, HasTheCallersRightsAndNoMore)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can take another user's rights";
    constexpr uid_t nobodysNumber = 65534;
    ::chmod(directory_.c_str(), 0755);
    ::chmod(path("other.der").c_str(), 0600);
    EXPECT_EQ(readAs(nobodysNumber, path("other.der")).error, "Permission denied");
    EXPECT_EQ(::geteuid(), 0U) << "and gives them back";
    EXPECT_TRUE(readAs(0, path("other.der")).bytes);
    ::chmod(path("other.der").c_str(), 0644);
    EXPECT_TRUE(readAs(nobodysNumber, path("other.der")).bytes);
    constexpr uid_t stranger = 54321;
    EXPECT_EQ(readAs(stranger, path("other.der")).error, "cannot be read with the caller's rights")
        << "a user that the machine does not know";
    EXPECT_TRUE(readAs(0, path("other.der")).bytes);
}

} // namespace
