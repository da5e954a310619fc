// Imports that are killed, and imports by several processes at once, on real databases.
#include "KeychainFixture.h"
#include "Security/Keychain/IntentFile.h"
#include "Security/Keychain/Locations.h"

#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <random>
#include <thread>
#include <unistd.h>

namespace {

using namespace kf::keychain;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using kf::test::ada;
using kf::test::authority;
using kf::test::BundleOptions;
using kf::test::defaultKeychain;
using kf::test::find;
using kf::test::grace;
using kf::test::identities;
using kf::test::import;
using kf::test::looseCertificate;
using testing::IsEmpty;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;

/// The import program, running.
class Importer {
public:
    Importer(const fs::path& passphraseFile, const fs::path& bundle)
    {
        int ends[2];
        if (::pipe(ends) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        child_ = ::fork();
        if (child_ == 0) {
            ::dup2(ends[1], 1);
            ::close(ends[0]);
            ::close(ends[1]);
            ::execl(IMPORT_PROGRAM, IMPORT_PROGRAM, passphraseFile.c_str(), bundle.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(ends[1]);
        output_ = ends[0];
    }
    Importer(const Importer&) = delete;
    Importer& operator=(const Importer&) = delete;
    ~Importer()
    {
        if (child_ > 0)
            finish(SIGKILL);
        ::close(output_);
    }

    /// Waits for the line that it prints when it begins.
    void awaitBeginning() const
    {
        char byte = 0;
        while (::read(output_, &byte, 1) == 1 && byte != '\n') { }
    }
    /// The wait status, after a signal where one is given.
    int finish(int signal = 0)
    {
        if (signal != 0)
            ::kill(child_, signal);
        int status = 0;
        ::waitpid(child_, &status, 0);
        child_ = -1;
        return status;
    }

private:
    pid_t child_ = -1;
    int output_ = -1;
};

class Crash : public testing::Test {
protected:
    Crash() { kf::test::writeFile(passphraseFile_, ada().passphrase + "\n"); }
    ~Crash() override { closeAll(); }

    Clock::duration durationOfWholeImport() const
    {
        Importer importer(passphraseFile_, ada().file);
        importer.awaitBeginning();
        const auto start = Clock::now();
        EXPECT_EQ(importer.finish(), 0);
        return Clock::now() - start;
    }

    /// Kills an import at a random moment between its beginning and somewhat after its end.
    void killAnImport(Clock::duration whole)
    {
        Importer importer(passphraseFile_, ada().file);
        importer.awaitBeginning();
        std::uniform_int_distribution<Clock::rep> moment(0, whole.count() * 5 / 4);
        std::this_thread::sleep_for(Clock::duration(moment(random_)));
        importer.finish(SIGKILL);
    }

    bool intentIsLeft() const
    {
        std::error_code ignored;
        const auto size = fs::file_size(fs::path(defaultKeychain()->path()) / IntentFile::fileName, ignored);
        return !ignored && size > 0;
    }

    static bool holds(const kf::test::Bytes& certificate)
    {
        const auto digest = kf::sha256(certificate);
        for (const auto& item : find(defaultKeychain(), kSecCertificateItemClass).items)
            if (item->digest() == digest)
                return true;
        return false;
    }

    static void remove(const kf::test::Bytes& certificate)
    {
        const auto digest = kf::sha256(certificate);
        for (const auto& item : find(defaultKeychain(), kSecCertificateItemClass).items)
            if (item->digest() == digest) {
                EXPECT_EQ(SecKeychainItemDelete(item), errSecSuccess);
            }
    }

    kf::test::ScratchHome home_;
    fs::path passphraseFile_ = home_.path() / "passphrase";
    std::mt19937_64 random_{std::random_device()()};
};

TEST_F(Crash, AKilledImportLeavesAllOrNothingAndWhatStoodBefore)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecSuccess);
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    const auto keyOfAda = kf::sha256(kf::test::parsed(ada()).key.id);
    const auto reset = [&] {
        for (const auto& key : find(defaultKeychain(), kSecPrivateKeyItemClass).items)
            if (key->digest() == keyOfAda) {
                EXPECT_EQ(SecKeychainItemDelete(key), errSecSuccess);
            }
        remove(ada().leaf);
        remove(authority().issuer());
    };
    reset();
    const auto whole = durationOfWholeImport();
    reset();
    int interrupted = 0;
    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE(round);
        killAnImport(whole);
        ASSERT_EQ(find(defaultKeychain(), kSecCertificateItemClass).end, errSecItemNotFound);
        ASSERT_EQ(find(defaultKeychain(), kSecPrivateKeyItemClass).end, errSecItemNotFound);
        interrupted += intentIsLeft();
        // The next opening for writing, of something that has nothing to do with it.
        ASSERT_EQ(
            writeTrust(defaultKeychain(), grace().leaf, {.client = TrustLevel::trustedPeer}).status(), errSecSuccess);
        ASSERT_FALSE(intentIsLeft());
        const std::size_t keys = find(defaultKeychain(), kSecPrivateKeyItemClass).items.size();
        ASSERT_TRUE(keys == 1 || keys == 2);
        ASSERT_EQ(holds(ada().leaf), keys == 2);
        ASSERT_EQ(holds(authority().issuer()), keys == 2);
        ASSERT_TRUE(holds(authority().root()));
        ASSERT_TRUE(holds(grace().leaf));
        ASSERT_THAT(identities(), SizeIs(keys));
        reset();
    }
    EXPECT_GT(interrupted, 0) << "no import was killed halfway: this run has shown nothing";
    RecordProperty("interrupted", interrupted);
}

TEST_F(Crash, AKilledFirstImportLeavesNoHalfMadeDatabase)
{
    const auto whole = durationOfWholeImport();
    for (int round = 0; round < 25; ++round) {
        SCOPED_TRACE(round);
        fs::remove_all(home_.path() / ".local");
        killAnImport(whole);
        ASSERT_EQ(find(defaultKeychain(), kSecCertificateItemClass).end, errSecItemNotFound);
        ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
        ASSERT_THAT(identities(), SizeIs(1));
        std::vector<std::string> beside;
        for (const auto& entry : fs::directory_iterator(home_.defaultKeychain().parent_path()))
            beside.push_back(entry.path().filename());
        ASSERT_THAT(beside, testing::ElementsAre("nssdb"));
    }
}

TEST_F(Crash, ProcessesImportAndReadAtOnce)
{
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        fs::remove_all(home_.path() / ".local");
        Importer first(passphraseFile_, ada().file);
        Importer second(passphraseFile_, grace().file);
        Importer third(passphraseFile_, ada().file);
        first.awaitBeginning();
        const auto end = Clock::now() + 100ms;
        while (Clock::now() < end)
            ASSERT_EQ(find(defaultKeychain(), kSecCertificateItemClass).end, errSecItemNotFound);
        EXPECT_EQ(first.finish(), 0);
        EXPECT_EQ(second.finish(), 0);
        EXPECT_EQ(third.finish(), 0);
        EXPECT_THAT(identities(), SizeIs(2));
        EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass).items.size(), 4U);
        EXPECT_EQ(find(defaultKeychain(), kSecPrivateKeyItemClass).items.size(), 2U);
    }
}

// --- The intent file itself ---

class Intents : public testing::Test {
protected:
    std::string directory() const { return home_.path(); }
    fs::path file() const { return home_.path() / IntentFile::fileName; }
    std::vector<ObjectName> abandonedAfter(const std::string& content)
    {
        kf::test::writeFile(file(), content);
        const auto turn = IntentFile::acquire(directory());
        EXPECT_TRUE(turn) << turn.status();
        return (*turn)->abandoned();
    }

    kf::test::ScratchHome home_;
};

TEST_F(Intents, OneTurnAtATime)
{
    auto first = IntentFile::acquire(directory());
    ASSERT_TRUE(first) << first.status();
    EXPECT_EQ(IntentFile::acquire(directory(), 20ms).status(), errSecKeychainBusy);
    first->reset();
    EXPECT_TRUE(IntentFile::acquire(directory(), 20ms));
    EXPECT_FALSE(fs::exists(file()));
}

TEST_F(Intents, AWaitingTurnFollowsWhenTheFirstEnds)
{
    auto first = IntentFile::acquire(directory());
    std::thread waiting([this] { EXPECT_TRUE(IntentFile::acquire(directory(), 10s)); });
    std::this_thread::sleep_for(20ms);
    first->reset();
    waiting.join();
}

TEST_F(Intents, OnlyAWholeRecordCounts)
{
    const std::string digest(64, 'a');
    const std::string head = "keyfold-intent 1\n";
    EXPECT_THAT(abandonedAfter(head + "certificate " + digest + "\ntrust " + digest + "\nend\n"), SizeIs(2));
    EXPECT_THAT(abandonedAfter(""), IsEmpty());
    EXPECT_THAT(abandonedAfter(head + "certificate " + digest + "\n"), IsEmpty());
    EXPECT_THAT(abandonedAfter(head + "certificate " + digest + "end\n"), IsEmpty());
    EXPECT_THAT(abandonedAfter(head + "certificate abc\nend\n"), IsEmpty());
    EXPECT_THAT(abandonedAfter(head + "password " + digest + "\nend\n"), IsEmpty());
    EXPECT_THAT(abandonedAfter("keyfold-intent 2\ncertificate " + digest + "\nend\n"), IsEmpty());
    EXPECT_THAT(abandonedAfter(std::string(100000, 'x')), IsEmpty());
}

TEST_F(Intents, TheRecordNamesNothingButClassesAndDigests)
{
    auto turn = IntentFile::acquire(directory());
    ASSERT_EQ((*turn)->declare({{ObjectClass::privateKey, kf::sha256(kf::test::secret("x"))}}).status(), errSecSuccess);
    const auto content = kf::test::readFile(file());
    EXPECT_EQ(std::string(content.begin(), content.end()),
        "keyfold-intent 1\n"
        "privateKey 2d711642b726b04401627ca9fbac32f5c8530fb1903cc4db02258717921a4881\n"
        "end\n");
    EXPECT_EQ(fs::status(file()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ((*turn)->finish().status(), errSecSuccess);
    turn->reset();
    EXPECT_FALSE(fs::exists(file()));
}

TEST_F(Intents, ALinkIsNotFollowed)
{
    fs::create_symlink(home_.path() / "elsewhere", file());
    EXPECT_FALSE(IntentFile::acquire(directory(), 20ms));
    EXPECT_FALSE(fs::exists(home_.path() / "elsewhere"));
}

} // namespace
