// Identity preferences: what is recorded, found again, and never lost.

#include "Security/Identity/PreferenceFile.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/LibraryFunction.h"
#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace kf::test;
using kf::Digest;
using kf::readIdentityPreference;
using kf::writeIdentityPreference;
using kf::keychain::Operation;
using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

/// The calls that bring a record to the disk, in order, and the one that is to fail.
struct DiskCalls {
    std::vector<std::string> seen;
    std::string failing;
};
DiskCalls* diskCalls = nullptr;
/// How many of the next writes a signal interrupts.
int interruptions = 0;

bool fails(const std::string& call)
{
    if (!diskCalls)
        return false;
    diskCalls->seen.push_back(call);
    if (diskCalls->failing != call)
        return false;
    errno = ENOSPC;
    return true;
}

class WatchedDisk {
public:
    explicit WatchedDisk(std::string failing = {}) : calls_{{}, std::move(failing)} { diskCalls = &calls_; }
    WatchedDisk(const WatchedDisk&) = delete;
    WatchedDisk& operator=(const WatchedDisk&) = delete;
    ~WatchedDisk() { diskCalls = nullptr; }
    const std::vector<std::string>& calls() const { return calls_.seen; }

private:
    DiskCalls calls_;
};

Authority& authority()
{
    static Authority instance;
    return instance;
}

const Bundle& ada()
{
    static const Bundle bundle = authority().issue();
    return bundle;
}

const Bundle& grace()
{
    static const Bundle bundle = authority().issue({.commonName = "Grace Example", .email = "grace@orvane.example"});
    return bundle;
}

Digest digestOf(std::uint8_t byte)
{
    Digest digest;
    digest.fill(byte);
    return digest;
}

class PreferenceFiles : public testing::Test {
protected:
    fs::path folder() const { return home_.path() / ".local/share/keyfold/identity-preferences"; }
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(folder(), ignored))
            names.push_back(entry.path().filename().string());
        std::ranges::sort(names);
        return names;
    }
    fs::path onlyFile() const
    {
        const auto names = files();
        EXPECT_EQ(names.size(), 1U);
        return names.empty() ? fs::path() : folder() / names.front();
    }
    static std::string contentOf(const fs::path& file)
    {
        const Bytes bytes = readFile(file);
        return std::string(bytes.begin(), bytes.end());
    }
    static unsigned modeOf(const fs::path& path)
    {
        return static_cast<unsigned>(fs::status(path).permissions() & fs::perms::mask);
    }

    const ScratchHome home_;
};

TEST_F(PreferenceFiles, HoldNothingAtFirst)
{
    EXPECT_EQ(readIdentityPreference("mail.orvane.example").status(), errSecItemNotFound);
    EXPECT_FALSE(fs::exists(home_.path() / ".local")) << "reading makes nothing";
}

TEST_F(PreferenceFiles, TellWhatWasWritten)
{
    ASSERT_TRUE(writeIdentityPreference("mail.orvane.example", digestOf(1)));
    ASSERT_TRUE(writeIdentityPreference("other.orvane.example", digestOf(0xAB)));
    EXPECT_EQ(*readIdentityPreference("mail.orvane.example"), digestOf(1));
    EXPECT_EQ(*readIdentityPreference("other.orvane.example"), digestOf(0xAB));
    EXPECT_EQ(readIdentityPreference("mail.orvane.exampl").status(), errSecItemNotFound);
    EXPECT_EQ(readIdentityPreference("Mail.orvane.example").status(), errSecItemNotFound);
    ASSERT_TRUE(writeIdentityPreference("mail.orvane.example", digestOf(2)));
    EXPECT_EQ(*readIdentityPreference("mail.orvane.example"), digestOf(2));
    EXPECT_EQ(files().size(), 2U);
}

TEST_F(PreferenceFiles, AreReadableText)
{
    ASSERT_TRUE(writeIdentityPreference("mail.orvane.example", digestOf(0x0F)));
    EXPECT_EQ(contentOf(onlyFile()),
        "keyfold-identity-preference 1\n"
        "certificate 0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f\n"
        "name mail.orvane.example\n"
        "end\n");
}

TEST_F(PreferenceFiles, AreTheUsersAlone)
{
    const mode_t mask = ::umask(0);
    const auto written = writeIdentityPreference("a", digestOf(1));
    ::umask(mask);
    ASSERT_TRUE(written);
    EXPECT_EQ(modeOf(folder()), 0700U);
    EXPECT_EQ(modeOf(folder().parent_path()), 0700U);
    EXPECT_EQ(modeOf(onlyFile()), 0600U);
}

TEST_F(PreferenceFiles, TakeAnyBytesAsAName)
{
    std::vector<std::string> names = {"/", "..", ".", "a/b", std::string("a\0b", 3), "a", "a\nend\n", "\xFF\xFE",
        "name a", "Zo\u00EB@orvane.example", std::string(100000, 'x'), " ", "\n"};
    for (std::size_t index = 0; index < names.size(); ++index)
        ASSERT_TRUE(writeIdentityPreference(names[index], digestOf(static_cast<std::uint8_t>(index))));
    for (std::size_t index = 0; index < names.size(); ++index)
        EXPECT_EQ(*readIdentityPreference(names[index]), digestOf(static_cast<std::uint8_t>(index))) << names[index];
    EXPECT_EQ(files().size(), names.size());
}

TEST_F(PreferenceFiles, LieInTheDataDirectoryThatIsSetWhereItIsAbsolute)
{
    const auto elsewhere = home_.path() / "data";
    ::setenv("XDG_DATA_HOME", elsewhere.c_str(), 1);
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    EXPECT_TRUE(fs::exists(elsewhere / "keyfold/identity-preferences"));
    EXPECT_FALSE(fs::exists(folder()));
    for (const char* other : {"", "relative/path"}) {
        ::setenv("XDG_DATA_HOME", other, 1);
        fs::remove_all(folder());
        ASSERT_TRUE(writeIdentityPreference("a", digestOf(2)));
        EXPECT_TRUE(fs::exists(folder()));
    }
}

TEST_F(PreferenceFiles, NeedAHome)
{
    ::unsetenv("XDG_DATA_HOME");
    ::unsetenv("HOME");
    EXPECT_EQ(readIdentityPreference("a").status(), errSecNoDefaultKeychain);
    EXPECT_EQ(writeIdentityPreference("a", digestOf(1)).status(), errSecNoDefaultKeychain);
    ::setenv("HOME", "relative", 1);
    EXPECT_EQ(writeIdentityPreference("a", digestOf(1)).status(), errSecNoDefaultKeychain);
}

TEST_F(PreferenceFiles, ReachTheDiskBeforeTheyTakeTheirPlace)
{
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    const WatchedDisk disk;
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(2)));
    EXPECT_THAT(disk.calls(), ElementsAre("fsync file", "renameat", "fsync folder"));
}

TEST_F(PreferenceFiles, KeepTheOldRecordWhereWritingFails)
{
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    for (const char* call : {"fsync file", "renameat"}) {
        const WatchedDisk disk(call);
        EXPECT_EQ(writeIdentityPreference("a", digestOf(2)).status(), errSecIO) << call;
        EXPECT_EQ(disk.calls().back(), call);
        EXPECT_EQ(*readIdentityPreference("a"), digestOf(1));
        EXPECT_EQ(files().size(), 1U) << "nothing is left beside it";
    }
    const WatchedDisk disk("fsync folder");
    EXPECT_EQ(writeIdentityPreference("a", digestOf(2)).status(), errSecIO);
    EXPECT_EQ(files().size(), 1U);
}

TEST_F(PreferenceFiles, AreWrittenWholeAcrossInterruptions)
{
    interruptions = 2;
    EXPECT_TRUE(writeIdentityPreference("a", digestOf(1)));
    EXPECT_EQ(interruptions, 0);
    EXPECT_EQ(*readIdentityPreference("a"), digestOf(1));
}

TEST_F(PreferenceFiles, KeepTheOldRecordOnAFullDisk)
{
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit before { };
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const struct rlimit full {
        20, before.rlim_max
    };
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
    const OSStatus status = writeIdentityPreference("a", digestOf(2)).status();
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(status, errSecIO);
    EXPECT_EQ(*readIdentityPreference("a"), digestOf(1));
    EXPECT_EQ(files().size(), 1U);
    EXPECT_TRUE(writeIdentityPreference("a", digestOf(2)));
}

TEST_F(PreferenceFiles, HoldTheOldRecordOrTheNewOneWheneverTheirWriterDies)
{
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    for (int round = 0; round < 40; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (std::uint8_t byte = 1;; byte = byte == 1 ? 2 : 1)
                if (!writeIdentityPreference("a", digestOf(byte)))
                    ::_exit(1);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500 + 173 * round));
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "a write failed";
        const auto digest = readIdentityPreference("a");
        ASSERT_TRUE(digest) << digest.status();
        EXPECT_TRUE(*digest == digestOf(1) || *digest == digestOf(2));
    }
}

TEST_F(PreferenceFiles, AreWrittenByManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (std::uint8_t writer = 1; writer <= 4; ++writer)
        threads.emplace_back([writer] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_TRUE(writeIdentityPreference("a", digestOf(writer)));
                EXPECT_TRUE(readIdentityPreference("a"));
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(files().size(), 1U);
}

class DamagedPreferenceFiles : public PreferenceFiles {
protected:
    DamagedPreferenceFiles()
    {
        EXPECT_TRUE(writeIdentityPreference("a", digestOf(1)));
        file_ = onlyFile();
        record_ = contentOf(file_);
    }
    /// Reading tells the damage; writing keeps it beside the new record.
    void expectKept()
    {
        EXPECT_EQ(readIdentityPreference("a").status(), errSecPreferenceDamaged);
        EXPECT_EQ(files().size(), 1U) << "reading changes nothing";
        ASSERT_TRUE(writeIdentityPreference("a", digestOf(2)));
        EXPECT_EQ(*readIdentityPreference("a"), digestOf(2));
        EXPECT_THAT(files(), ElementsAre(file_.filename(), file_.filename().string() + ".damaged1"));
    }
    fs::path aside(int number) const { return file_.string() + ".damaged" + std::to_string(number); }

    fs::path file_;
    std::string record_;
};

TEST_F(DamagedPreferenceFiles, AreToldAndKept)
{
    std::string otherDigit = record_;
    otherDigit[50] = 'g';
    std::string capital = record_;
    capital[50] = 'A';
    std::string later = record_;
    later[28] = '2';
    std::string otherName = record_;
    otherName[record_.size() - 6] = 'b';
    for (const std::string& text : {std::string(), std::string("x"), record_.substr(0, record_.size() - 1),
             record_ + "\n", otherDigit, capital, later, otherName, std::string(record_.size(), '\0')}) {
        fs::remove(aside(1));
        writeFile(file_, text);
        expectKept();
        EXPECT_EQ(contentOf(aside(1)), text);
    }
}

TEST_F(DamagedPreferenceFiles, AreAllKept)
{
    for (int number = 1; number <= 3; ++number) {
        writeFile(file_, "damage " + std::to_string(number));
        ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    }
    for (int number = 1; number <= 3; ++number)
        EXPECT_EQ(contentOf(aside(number)), "damage " + std::to_string(number));
}

TEST_F(DamagedPreferenceFiles, MayBeLinksWhichAreNotFollowed)
{
    const auto target = home_.path() / "target";
    writeFile(target, record_);
    fs::remove(file_);
    fs::create_symlink(target, file_);
    expectKept();
    EXPECT_TRUE(fs::is_symlink(aside(1)));
    EXPECT_EQ(contentOf(target), record_);
}

TEST_F(DamagedPreferenceFiles, MayBeFoldersAndPipes)
{
    fs::remove(file_);
    fs::create_directory(file_);
    expectKept();
    fs::remove_all(aside(1));
    fs::remove(file_);
    ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
    expectKept();
}

TEST_F(DamagedPreferenceFiles, ThatCannotBeMovedStay)
{
    writeFile(file_, "damage");
    const WatchedDisk disk("renameat2");
    EXPECT_EQ(writeIdentityPreference("a", digestOf(2)).status(), errSecIO);
    EXPECT_EQ(contentOf(file_), "damage");
    EXPECT_EQ(files().size(), 1U);
}

TEST_F(PreferenceFiles, AreNotLookedForBehindALink)
{
    const auto elsewhere = home_.path() / "elsewhere";
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    fs::rename(folder(), elsewhere);
    fs::create_directory_symlink(elsewhere, folder());
    EXPECT_EQ(readIdentityPreference("a").status(), errSecPreferenceDamaged);
    EXPECT_EQ(writeIdentityPreference("a", digestOf(2)).status(), errSecPreferenceDamaged);
    fs::remove(folder());
    fs::rename(elsewhere, folder());
    EXPECT_EQ(*readIdentityPreference("a"), digestOf(1));
}

TEST_F(PreferenceFiles, MayLieInADataDirectoryThatIsALink)
{
    fs::create_directory(home_.path() / "disk");
    fs::create_directory(home_.path() / ".local");
    fs::create_directory_symlink(home_.path() / "disk", home_.path() / ".local/share");
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    EXPECT_EQ(*readIdentityPreference("a"), digestOf(1));
    EXPECT_TRUE(fs::exists(home_.path() / "disk/keyfold/identity-preferences"));
}

TEST_F(PreferenceFiles, TellWhereAFileStandsInTheirFoldersPlace)
{
    fs::create_directories(folder().parent_path());
    writeFile(folder(), "a file");
    EXPECT_EQ(readIdentityPreference("a").status(), errSecPreferenceDamaged);
    EXPECT_EQ(writeIdentityPreference("a", digestOf(1)).status(), errSecPreferenceDamaged);
    EXPECT_EQ(contentOf(folder()), "a file");
}

/// Runs `act` as an ordinary user where the test runs as root: no permission stops root.
template <class Act>
auto asOrdinaryUser(Act act)
{
    constexpr uid_t nobody = 65534;
    const bool isRoot = ::geteuid() == 0;
    if (isRoot && ::seteuid(nobody) != 0)
        throw std::system_error(errno, std::generic_category(), "seteuid");
    auto result = act();
    if (isRoot && ::seteuid(0) != 0)
        throw std::system_error(errno, std::generic_category(), "seteuid");
    return result;
}

TEST_F(PreferenceFiles, ThatMayNotBeReadOrWrittenAreToldSo)
{
    ASSERT_TRUE(writeIdentityPreference("a", digestOf(1)));
    fs::permissions(home_.path(), fs::perms::owner_all | fs::perms::others_exec);
    fs::permissions(folder(), fs::perms::none);
    EXPECT_EQ(asOrdinaryUser([] { return readIdentityPreference("a").status(); }), errSecIO);
    EXPECT_EQ(asOrdinaryUser([] { return writeIdentityPreference("a", digestOf(2)).status(); }), errSecWrPerm);
    fs::permissions(folder(), fs::perms::owner_all);
    EXPECT_EQ(*readIdentityPreference("a"), digestOf(1));
}

TEST_F(PreferenceFiles, AreNotWrittenByRootUnderSomebodysHome)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    constexpr uid_t ada = 4242;
    ASSERT_EQ(::chown(home_.path().c_str(), ada, ada), 0);
    EXPECT_EQ(writeIdentityPreference("a", digestOf(1)).status(), errSecWrPerm);
    EXPECT_FALSE(fs::exists(home_.path() / ".local"));

    fs::create_directories(folder());
    for (fs::path path = folder(); path != home_.path(); path = path.parent_path())
        ASSERT_EQ(::chown(path.c_str(), ada, ada), 0);
    EXPECT_EQ(writeIdentityPreference("a", digestOf(1)).status(), errSecWrPerm);
    EXPECT_THAT(files(), IsEmpty());
}

/// Preferences of identities in the keychains of a scratch home.
class IdentityPreferences : public testing::Test {
protected:
    IdentityPreferences() { memory_->create(home_.defaultKeychain().string()); }

    static SecIdentityRef import(const Bundle& bundle)
    {
        SecKeychainRef keychain;
        EXPECT_EQ(SecKeychainCopyDefault(&keychain), errSecSuccess);
        SecKeyImportExportParameters parameters;
        parameters.passphrase = NSString::sensitiveStringWithUTF8String(bundle.passphrase);
        Ref<NSArray> items;
        EXPECT_EQ(SecKeychainItemImport(NSData::dataWithBytes(bundle.pkcs12), nullptr, nullptr, nullptr, 0, &parameters,
                      keychain, &items),
            errSecSuccess);
        return items->objectAs<SecIdentity>(0);
    }
    static OSStatus copy(const Ref<NSString>& name, SecIdentityRef* identity = nullptr)
    {
        SecIdentityRef found;
        return SecIdentityCopyPreference(name, 0, nullptr, identity ? identity : &found);
    }

    const ScratchHome home_;
    std::shared_ptr<kf::keychain::MemoryBackend> memory_ = std::make_shared<kf::keychain::MemoryBackend>();
    std::shared_ptr<kf::keychain::FaultBackend> faults_ = std::make_shared<kf::keychain::FaultBackend>(memory_);
    kf::keychain::ScopedBackend scoped_{faults_};
};

TEST_F(IdentityPreferences, AreFoundAgain)
{
    const auto identity = import(ada());
    const auto other = import(grace());
    ASSERT_EQ(SecIdentitySetPreference(identity, "mail.orvane.example"_ns, 0), errSecSuccess);
    ASSERT_EQ(SecIdentitySetPreference(other, "web.orvane.example"_ns, CSSM_KEYUSE_ANY), errSecSuccess);
    SecIdentityRef found;
    ASSERT_EQ(copy("mail.orvane.example"_ns, &found), errSecSuccess);
    EXPECT_TRUE(CFEqual(found, identity));
    ASSERT_EQ(SecIdentityCopyPreference("web.orvane.example"_ns, CSSM_KEYUSE_ANY, nullptr, &found), errSecSuccess);
    EXPECT_TRUE(CFEqual(found, other));
    ASSERT_EQ(SecIdentitySetPreference(other, "mail.orvane.example"_ns, 0), errSecSuccess);
    ASSERT_EQ(copy("mail.orvane.example"_ns, &found), errSecSuccess);
    EXPECT_TRUE(CFEqual(found, other));
    EXPECT_EQ(copy("ftp.orvane.example"_ns, &found), errSecItemNotFound);
    EXPECT_FALSE(found);
}

TEST_F(IdentityPreferences, AreFoundInWhicheverKeychainHoldsTheIdentity)
{
    memory_->create(home_.olderKeychain().string());
    const auto identity = import(ada());
    EXPECT_EQ(identity->certificate()->keychain()->path(), home_.olderKeychain().string());
    ASSERT_EQ(SecIdentitySetPreference(identity, "a"_ns, 0), errSecSuccess);
    SecIdentityRef found;
    ASSERT_EQ(copy("a"_ns, &found), errSecSuccess);
    EXPECT_EQ(found->certificate()->keychain()->path(), home_.olderKeychain().string());
}

TEST_F(IdentityPreferences, OfIdentitiesThatAreGoneAreNotFound)
{
    const auto identity = import(ada());
    ASSERT_EQ(SecIdentitySetPreference(identity, "a"_ns, 0), errSecSuccess);
    ASSERT_EQ(SecKeychainItemDelete(identity->privateKey()), errSecSuccess);
    EXPECT_EQ(copy("a"_ns), errSecItemNotFound) << "without its key";
    ASSERT_EQ(SecKeychainItemDelete(identity->certificate()), errSecSuccess);
    EXPECT_EQ(copy("a"_ns), errSecItemNotFound);
    import(ada());
    EXPECT_EQ(copy("a"_ns), errSecSuccess) << "the record outlives them";
}

TEST_F(IdentityPreferences, OfIdentitiesThatCouldNotBeFoundAgainAreNotSet)
{
    const auto identity = import(ada());
    ASSERT_EQ(SecKeychainItemDelete(identity->certificate()), errSecSuccess);
    EXPECT_EQ(SecIdentitySetPreference(identity, "a"_ns, 0), errSecItemNotFound);
    EXPECT_FALSE(fs::exists(home_.path() / ".local/share/keyfold"));
}

TEST_F(IdentityPreferences, TellWhyTheyCannotBeFound)
{
    ASSERT_EQ(SecIdentitySetPreference(import(ada()), "a"_ns, 0), errSecSuccess);
    faults_->arm(Operation::open, 1, errSecInvalidKeychain, true);
    EXPECT_EQ(copy("a"_ns), errSecInvalidKeychain);
    EXPECT_TRUE(faults_->fired());
    faults_->disarm();
    EXPECT_EQ(copy("a"_ns), errSecSuccess);
    // The first of several reasons: here the key is locked in, too.
    memory_->setPassphrase(home_.defaultKeychain().string(), "open sesame");
    EXPECT_EQ(copy("a"_ns), errSecInteractionNotAllowed);
    memory_->create(home_.olderKeychain().string()); // comes first now
    faults_->arm(Operation::open, 1, errSecInvalidKeychain);
    EXPECT_EQ(copy("a"_ns), errSecInvalidKeychain);
}

TEST_F(IdentityPreferences, AreFoundBesideAKeychainThatCannotBeRead)
{
    ASSERT_EQ(SecIdentitySetPreference(import(ada()), "a"_ns, 0), errSecSuccess);
    memory_->create(home_.olderKeychain().string()); // comes first now
    faults_->arm(Operation::open, 1, errSecInvalidKeychain);
    EXPECT_EQ(copy("a"_ns), errSecSuccess);
    EXPECT_TRUE(faults_->fired());
}

TEST_F(IdentityPreferences, RefuseWhatIsNoName)
{
    const auto identity = import(ada());
    const auto unpaired = NSString::stringWithCharacters(u"a\xD800");
    for (const Ref<NSString>& name : {Ref<NSString>(), ""_ns, unpaired}) {
        SecIdentityRef found = identity;
        EXPECT_EQ(SecIdentitySetPreference(identity, name, 0), errSecParam);
        EXPECT_EQ(SecIdentityCopyPreference(name, 0, nullptr, &found), errSecParam);
        EXPECT_FALSE(found);
    }
    EXPECT_FALSE(fs::exists(home_.path() / ".local/share/keyfold"));
}

TEST_F(IdentityPreferences, RefuseWhatTheyDoNotKnow)
{
    const auto identity = import(ada());
    ASSERT_EQ(SecIdentitySetPreference(identity, "a"_ns, 0), errSecSuccess);
    SecIdentityRef found;
    EXPECT_EQ(SecIdentitySetPreference(nullptr, "a"_ns, 0), errSecParam);
    EXPECT_EQ(SecIdentitySetPreference(identity, "a"_ns, 1), errSecParam);
    EXPECT_EQ(SecIdentityCopyPreference("a"_ns, 1, nullptr, &found), errSecParam);
    EXPECT_EQ(SecIdentityCopyPreference("a"_ns, 0, NSArray::array(), &found), errSecParam);
    EXPECT_EQ(SecIdentityCopyPreference("a"_ns, 0, nullptr, nullptr), errSecParam);
    EXPECT_EQ(copy("a"_ns), errSecSuccess);
}

TEST(IdentityPreferencesOfAUser, AreFoundByAnotherProcess)
{
    const ScratchHome home;
    const kf::keychain::ScopedBackend nss(nullptr);
    SecKeychainRef keychain;
    ASSERT_EQ(SecKeychainCopyDefault(&keychain), errSecSuccess);
    SecKeyImportExportParameters parameters;
    parameters.passphrase = NSString::sensitiveStringWithUTF8String(ada().passphrase);
    Ref<NSArray> items;
    ASSERT_EQ(SecKeychainItemImport(
                  NSData::dataWithBytes(ada().pkcs12), nullptr, nullptr, nullptr, 0, &parameters, keychain, &items),
        errSecSuccess);
    const auto identity = items->objectAs<SecIdentity>(0);
    ASSERT_EQ(SecIdentitySetPreference(identity, "ada@orvane.example"_ns, 0), errSecSuccess);
    const Ran ran = run({PREFERENCE_PROGRAM, "ada@orvane.example"});
    EXPECT_EQ(ran.output, toUTF8(identity->certificate()->description()) + "\n");
    EXPECT_EQ(run({PREFERENCE_PROGRAM, "grace@orvane.example"}).output, "-25300\n");
    kf::keychain::closeAll();
}

} // namespace

// Seen by the platform's library in place of the system's.

int fsync(int descriptor)
{
    static const auto real = libraryFunction(&fsync);
    struct stat status { };
    ::fstat(descriptor, &status);
    if (fails(S_ISDIR(status.st_mode) ? "fsync folder" : "fsync file"))
        return -1;
    return real(descriptor);
}

ssize_t write(int descriptor, const void* bytes, size_t count)
{
    static const auto real = libraryFunction(&write);
    if (interruptions == 0)
        return real(descriptor, bytes, count);
    --interruptions;
    errno = EINTR;
    return -1;
}

int renameat(int from, const char* name, int to, const char* newName) noexcept
{
    static const auto real = libraryFunction(&renameat);
    return fails("renameat") ? -1 : real(from, name, to, newName);
}

int renameat2(int from, const char* name, int to, const char* newName, unsigned int flags) noexcept
{
    static const auto real = libraryFunction(&renameat2);
    return fails("renameat2") ? -1 : real(from, name, to, newName, flags);
}
