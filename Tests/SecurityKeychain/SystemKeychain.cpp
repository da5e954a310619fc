// The machine-wide keychain at its real path. Runs in the sandbox only (Tests/Support/sandbox).
#include "KeychainFixture.h"
#include "Security/Keychain/Locations.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace kf::keychain;
namespace fs = std::filesystem;
using kf::test::authority;
using kf::test::find;
using testing::SizeIs;

class SystemKeychain : public testing::Test {
protected:
    SystemKeychain()
    {
        if (!fs::exists("/run/keyfold-sandbox"))
            throw std::runtime_error("not in the sandbox");
    }
    ~SystemKeychain() override
    {
        closeAll();
        fs::remove_all("/Library");
    }

    kf::test::ScratchHome home_;
};

mode_t modeOf(const fs::path& path)
{
    struct stat status { };
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

TEST_F(SystemKeychain, IsMadeReadableForAllWithItsKeysForRootAlone)
{
    const Trust trust{.server = TrustLevel::trusted, .email = TrustLevel::trusted};
    ASSERT_EQ(writeTrust(systemKeychain(), authority().root(), trust).status(), errSecSuccess);
    const fs::path path = systemKeychainPath;
    EXPECT_EQ(modeOf(path), 0755U);
    EXPECT_EQ(modeOf(path.parent_path()), 0755U);
    EXPECT_EQ(modeOf(path.parent_path().parent_path()), 0755U);
    EXPECT_EQ(modeOf(path / "cert9.db"), 0644U);
    EXPECT_EQ(modeOf(path / "key4.db"), 0600U);
    closeAll();

    // An ordinary user, in a process that has not started NSS yet.
    const auto root = authority().root();
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0 || ::unsetenv("HOME") != 0)
            ::_exit(99);
        if (find(nullptr, kSecCertificateItemClass, kSecAliasItemAttr, "Orvane Certification Authority").items.size()
            != 1)
            ::_exit(1);
        const auto read = readTrust(systemKeychain(), root);
        if (!read || *read != trust)
            ::_exit(2);
        if (writeTrust(systemKeychain(), root, {}).status() != errSecWrPerm)
            ::_exit(3);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SystemKeychain, StandsLastInTheSearchList)
{
    Ref<NSArray> list;
    ASSERT_EQ(SecKeychainCopySearchList(&list), errSecSuccess);
    EXPECT_EQ(list->count(), 0U);
    ASSERT_EQ(
        SecCertificateAddToKeychain(kf::test::looseCertificate(authority().root()), systemKeychain()), errSecSuccess);
    ASSERT_EQ(SecCertificateAddToKeychain(kf::test::looseCertificate(authority().root()), nullptr), errSecSuccess);
    ASSERT_EQ(SecKeychainCopySearchList(&list), errSecSuccess);
    ASSERT_EQ(list->count(), 2U);
    EXPECT_EQ(list->objectAs<SecKeychain>(1)->path(), systemKeychainPath);
    EXPECT_THAT(find(nullptr, kSecCertificateItemClass).items, SizeIs(2));
}

} // namespace
