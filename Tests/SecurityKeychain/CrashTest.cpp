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
using kf::test::defaultKeychain;
using kf::test::find;
using kf::test::grace;
using kf::test::identities;
using kf::test::import;
using kf::test::looseCertificate;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;

/// The import program, running.
class Importer {
public:
    Importer(const fs::path& passphraseFile, const fs::path& bundle, std::vector<std::string> options = {})
    {
        options.insert(options.begin(), IMPORT_PROGRAM);
        options.insert(options.end(), {passphraseFile, bundle});
        std::vector<char*> arguments;
        arguments.reserve(options.size() + 1);
        for (auto& option : options)
            arguments.push_back(option.data());
        arguments.push_back(nullptr);
        int ends[2];
        if (::pipe(ends) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        child_ = ::fork();
        if (child_ == 0) {
            ::dup2(ends[1], 1);
            ::close(ends[0]);
            ::close(ends[1]);
            ::execv(IMPORT_PROGRAM, arguments.data());
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
        // One certificate may stay of an import that was killed while it made that very one.
        const int certificates = holds(ada().leaf) + holds(authority().issuer());
        ASSERT_TRUE(keys == 2 ? certificates == 2 : certificates <= 1) << certificates;
        ASSERT_TRUE(holds(authority().root()));
        ASSERT_TRUE(holds(grace().leaf));
        ASSERT_THAT(identities(), SizeIs(keys));
        reset();
    }
    EXPECT_GT(interrupted, 0) << "no import was killed halfway: this run has shown nothing";
    RecordProperty("interrupted", interrupted);
}

/// Ends the program at one moment after the other, until it comes to its own end, and calls `examine` each time.
class EveryMoment : public Crash {
protected:
    template <class Prepare, class Examine>
    void endAtEachMoment(const std::vector<std::string>& options, Prepare prepare, Examine examine)
    {
        int ended = 0;
        for (int moment = 1;; ++moment) {
            SCOPED_TRACE(moment);
            prepare();
            closeAll();
            std::vector<std::string> words = {"--end-at", std::to_string(moment)};
            words.insert(words.end(), options.begin(), options.end());
            Importer importer(passphraseFile_, ada().file, words);
            importer.awaitBeginning();
            const int status = importer.finish();
            if (WIFEXITED(status)) {
                ASSERT_EQ(WEXITSTATUS(status), 0);
                break;
            }
            ASSERT_EQ(WTERMSIG(status), SIGKILL);
            ++ended;
            ASSERT_NO_FATAL_FAILURE(examine(intentIsLeft()));
            ASSERT_FALSE(intentIsLeft());
            fs::remove_all(home_.path() / ".local");
        }
        // A turn, a declaration, each object with its note, the end: each before and after.
        EXPECT_GE(ended, 2 * (1 + 1 + 2 + 1));
        RecordProperty("ended", ended);
    }

    void startWithGrace()
    {
        ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
        ASSERT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecSuccess);
    }
    /// What settles: a write that has nothing to do with the rest.
    void writeSomething()
    {
        ASSERT_EQ(
            writeTrust(defaultKeychain(), grace().leaf, {.client = TrustLevel::trustedPeer}).status(), errSecSuccess);
    }
    static std::size_t keys() { return find(defaultKeychain(), kSecPrivateKeyItemClass).items.size(); }
    void certutil(std::vector<std::string> words) const
    {
        closeAll();
        words.insert(words.begin(), {"timeout", "20", "certutil"});
        words.insert(words.end(), {"-d", "sql:" + home_.defaultKeychain().string()});
        kf::test::mustRun(words);
    }
};

TEST_F(EveryMoment, OfAnImportLeavesTheIdentityWholeOrGoneAndAtMostOneCertificate)
{
    endAtEachMoment(
        {}, [this] { startWithGrace(); },
        [this](bool) {
            writeSomething();
            ASSERT_TRUE(holds(grace().leaf));
            ASSERT_TRUE(holds(authority().root()));
            const int certificates = holds(ada().leaf) + holds(authority().issuer());
            ASSERT_TRUE(keys() == 2 ? certificates == 2 : keys() == 1 && certificates <= 1) << certificates;
            ASSERT_THAT(identities(), SizeIs(keys()));
        });
}

TEST_F(EveryMoment, OfAnImportLeavesWhatAnotherProgramAddedAfterIt)
{
    for (const bool isTrusted : {false, true}) {
        const char* const trust = isTrusted ? "C,C," : ",,";
        endAtEachMoment(
            {}, [this] { startWithGrace(); },
            [&](bool) {
                // Without trust, NSS leaves no trace of adding what is there: then it goes with the rest that was ours.
                const bool mayGo = holds(authority().issuer()) && !isTrusted;
                certutil({"-A", "-n", "theirs", "-t", trust, "-i", authority().issuerFile()});
                writeSomething();
                ASSERT_TRUE(holds(authority().issuer()) || mayGo);
                ASSERT_TRUE(holds(ada().leaf) || keys() == 1);
                ASSERT_THAT(identities(), SizeIs(keys()));
                if (isTrusted) {
                    ASSERT_EQ(readTrust(defaultKeychain(), authority().issuer())->server, TrustLevel::trusted);
                }
            });
        fs::remove_all(home_.path() / ".local");
    }
}

TEST_F(EveryMoment, OfTheFirstImportLeavesNothingThatHindersTheNext)
{
    endAtEachMoment(
        {}, [] {},
        [](bool) {
            ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
            ASSERT_THAT(identities(), SizeIs(1));
            ASSERT_EQ(find(defaultKeychain(), kSecCertificateItemClass).items.size(), 3U);
        });
}

TEST_F(EveryMoment, OfADeletionLeavesTheCertificateWithItsTrustOrNeither)
{
    const Trust trust{.server = TrustLevel::denied};
    int begun = 0;
    endAtEachMoment(
        {"--delete"},
        [&] { ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), trust).status(), errSecSuccess); },
        [&](bool isLeft) {
            begun += isLeft;
            ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
            const auto found = readTrust(defaultKeychain(), authority().root());
            ASSERT_EQ(holds(authority().root()), static_cast<bool>(found));
            if (found) {
                ASSERT_EQ(*found, trust);
            }
        });
    EXPECT_GE(begun, 4);
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

} // namespace
