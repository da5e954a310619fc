// Keychains as the browsers see them: real databases, checked with NSS's own programs.
#include "KeychainFixture.h"
#include "Security/Keychain/IntentFile.h"
#include "Security/Keychain/Locations.h"
#include "Security/Keychain/NSSBackend.h"
#include "Security/Presenter.h"
#include "Security/ScopedOpenSSL.h"

#include <atomic>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace kf::keychain;
namespace fs = std::filesystem;
using kf::test::ada;
using kf::test::authority;
using kf::test::BundleOptions;
using kf::test::Bytes;
using kf::test::defaultKeychain;
using kf::test::find;
using kf::test::grace;
using kf::test::identities;
using kf::test::import;
using kf::test::keychainAt;
using kf::test::KeyKind;
using kf::test::looseCertificate;
using kf::test::mustRun;
using kf::test::readFile;
using kf::test::run;
using kf::test::writeFile;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class NSSKeychain : public testing::Test {
protected:
    ~NSSKeychain() override { closeAll(); }

    fs::path database() const { return home_.defaultKeychain(); }
    std::string sql() const { return "sql:" + database().string(); }
    std::string certutil(std::vector<std::string> words) const
    {
        words.insert(words.begin(), {"timeout", "20", "certutil"});
        words.insert(words.end(), {"-d", sql()});
        return mustRun(words);
    }
    fs::path passwordFile(const std::string& text) const
    {
        auto file = home_.path() / "password";
        writeFile(file, text + "\n");
        return file;
    }
    /// Every file below the home directory with its content and mode.
    std::map<std::string, Bytes> snapshot() const
    {
        std::map<std::string, Bytes> files;
        for (const auto& entry : fs::recursive_directory_iterator(home_.path())) {
            Bytes content;
            if (entry.is_regular_file())
                content = readFile(entry.path());
            content.push_back(static_cast<std::uint8_t>(entry.status().permissions()));
            files[entry.path()] = std::move(content);
        }
        return files;
    }
    std::size_t count(SecItemClass itemClass) const { return find(defaultKeychain(), itemClass).items.size(); }

    kf::test::ScratchHome home_;
};

mode_t modeOf(const fs::path& path)
{
    struct stat status { };
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

// --- What other programs see ---

TEST_F(NSSKeychain, TheFirstItemMakesThePrivateDatabase)
{
    EXPECT_FALSE(fs::exists(database()));
    EXPECT_THAT(identities(), IsEmpty());
    EXPECT_FALSE(fs::exists(home_.path() / ".local"));
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(modeOf(database()), 0700U);
    EXPECT_EQ(modeOf(database() / "cert9.db"), 0600U);
    EXPECT_EQ(modeOf(database() / "key4.db"), 0600U);
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(home_.path()))
        if (entry.is_regular_file())
            names.push_back(entry.path().filename());
    EXPECT_THAT(names, testing::UnorderedElementsAre("cert9.db", "key4.db"));
}

TEST_F(NSSKeychain, AFolderThatSomebodyKeepsLockedIsNotWaitedForForEver)
{
    fs::create_directories(database().parent_path());
    const int folder = ::open(database().parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(folder, LOCK_EX), 0);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecKeychainBusy);
    EXPECT_FALSE(fs::exists(database()));
    ::close(folder);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
}

TEST_F(NSSKeychain, ADirectoryThatHoldsOtherThingsKeepsThem)
{
    fs::create_directories(home_.olderKeychain());
    writeFile(home_.olderKeychain() / "note.txt", "mine");
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(defaultKeychain()->path(), home_.olderKeychain().string());
    EXPECT_TRUE(fs::exists(home_.olderKeychain() / "note.txt"));
    EXPECT_TRUE(fs::exists(home_.olderKeychain() / "key4.db"));
    EXPECT_THAT(identities(), SizeIs(1));
}

struct Shape {
    const char* name;
    KeyKind key;
    bool legacy;
    bool withChain;
    const char* passphrase;
    const char* keyType; ///< as certutil prints it
};

class ImportedBundle : public NSSKeychain, public testing::WithParamInterface<Shape> { };

Bytes unencryptedKey(const fs::path& bundle, const fs::path& passwordFile)
{
    const auto pem = mustRun({"openssl", "pkcs12", "-legacy", "-in", bundle, "-nocerts", "-noenc", "-passin",
        "file:" + passwordFile.string()});
    const auto file = bundle.string() + ".pem";
    writeFile(file, pem);
    mustRun({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", file, "-outform", "DER", "-out", file + ".p8"});
    return readFile(file + ".p8");
}

TEST_P(ImportedBundle, IsSeenAndGivenBackByNSSPrograms)
{
    BundleOptions options;
    options.key = GetParam().key;
    options.legacy = GetParam().legacy;
    options.withChain = GetParam().withChain;
    options.passphrase = GetParam().passphrase;
    const auto bundle = authority().issue(options);
    ASSERT_EQ(import(defaultKeychain(), bundle), errSecSuccess);
    closeAll();

    const auto listing = certutil({"-L"});
    EXPECT_THAT(listing, HasSubstr("Ada Example"));
    EXPECT_THAT(listing, HasSubstr("u,u,u"));
    if (GetParam().withChain)
        EXPECT_THAT(listing, HasSubstr("Orvane Certification Authority 2"));
    else
        EXPECT_THAT(listing, Not(HasSubstr("Orvane Certification Authority 2")));
    const auto keys = certutil({"-K"});
    EXPECT_THAT(keys, HasSubstr(std::string("< 0> ") + GetParam().keyType));
    EXPECT_THAT(keys, HasSubstr("Ada Example"));
    EXPECT_THAT(keys, Not(HasSubstr("< 1>")));

    const auto out = home_.path() / "out.p12";
    const auto password = passwordFile("export");
    mustRun({"timeout", "20", "pk12util", "-o", out, "-n", "Ada Example", "-d", sql(), "-w", password, "-K", ""});
    EXPECT_EQ(unencryptedKey(out, password), bundle.privateKey);
    if (!GetParam().withChain)
        return;
    // Every signature from the leaf to the root is right, and the leaf is fit for what it is for.
    ASSERT_EQ(
        writeTrust(defaultKeychain(), authority().root(), {.client = TrustLevel::trusted}).status(), errSecSuccess);
    closeAll();
    EXPECT_THAT(certutil({"-V", "-e", "-u", "C", "-n", "Ada Example"}), HasSubstr("certificate is valid"));
}

INSTANTIATE_TEST_SUITE_P(Of, ImportedBundle,
    testing::Values(Shape{"RSA2048WithChain", KeyKind::rsa2048, false, true, "correct horse", "rsa"},
        Shape{"RSA2048Legacy", KeyKind::rsa2048, true, true, "correct horse", "rsa"},
        Shape{"RSA4096", KeyKind::rsa4096, false, false, "correct horse", "rsa"},
        Shape{"P256", KeyKind::p256, false, false, "correct horse", "ec"},
        Shape{"P256WithChain", KeyKind::p256, false, true, "correct horse", "ec"},
        Shape{"P384", KeyKind::p384, false, true, "correct horse", "ec"},
        Shape{"P521", KeyKind::p521, false, true, "correct horse", "ec"},
        Shape{"NonASCIIPassphrase", KeyKind::p256, false, true, "pässwörd €", "ec"},
        Shape{"NonASCIIPassphraseLegacy", KeyKind::p256, true, true, "pässwörd €", "ec"}),
    [](const testing::TestParamInfo<Shape>& parameter) { return std::string(parameter.param.name); });

TEST_F(NSSKeychain, TheSameBundleAgainChangesNothing)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    closeAll();
    const auto before = snapshot();
    Ref<NSArray> items;
    EXPECT_EQ(import(defaultKeychain(), ada(), &items), errSecSuccess);
    EXPECT_EQ(items->count(), 3U);
    closeAll();
    EXPECT_EQ(snapshot(), before);
}

TEST_F(NSSKeychain, WhatOtherProgramsImportedIsFound)
{
    fs::create_directories(database());
    certutil({"-N", "--empty-password"});
    mustRun(
        {"timeout", "20", "pk12util", "-i", ada().file, "-d", sql(), "-w", passwordFile(ada().passphrase), "-K", ""});
    ASSERT_THAT(identities(), SizeIs(1));
    EXPECT_EQ(identities()[0]->certificate()->parsed().der, ada().leaf);
    Ref<NSArray> items;
    ASSERT_EQ(import(defaultKeychain(), ada(), &items), errSecSuccess);
    EXPECT_EQ(count(kSecCertificateItemClass), 3U);
    EXPECT_EQ(count(kSecPrivateKeyItemClass), 1U);
    EXPECT_EQ(SecKeychainItemDelete(identities()[0]->privateKey()), errSecSuccess);
    EXPECT_THAT(run({"certutil", "-K", "-d", sql()}).output, HasSubstr("no keys found"));
}

TEST_F(NSSKeychain, BytesThatAreNoCertificateAreListedAndHarmNoOther)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    const auto all = count(kSecCertificateItemClass);
    closeAll();
    // CKA_VALUE (0x11) of Grace's certificate, as a program that checks nothing could write it.
    const auto der = home_.path() / "grace.der";
    writeFile(der, grace().leaf);
    mustRun({"python3", "-c",
        "import sqlite3, sys\n"
        "with sqlite3.connect(sys.argv[1]) as database:\n"
        "    changed = database.execute('update nssPublic set a11 = ? where a11 = ?', (b'none', "
        "open(sys.argv[2], 'rb').read()))\n"
        "    assert changed.rowcount == 1\n",
        database() / "cert9.db", der});
    EXPECT_EQ(count(kSecCertificateItemClass), all);
    const auto odd = find(nullptr, kSecCertificateItemClass, kSecLabelItemAttr, "Grace Example").items;
    ASSERT_THAT(odd, SizeIs(1));
    std::uint32_t tags[] = {kSecLabelItemAttr, kSecCertificateType, kSecAliasItemAttr, kSecSubjectItemAttr,
        kSecIssuerItemAttr, kSecSerialNumberItemAttr, kSecSubjectKeyIdentifierItemAttr, kSecPublicKeyHashItemAttr};
    const SecKeychainAttributeInfo info{std::size(tags), tags, nullptr};
    SecKeychainAttributeList* list = nullptr;
    ASSERT_EQ(SecKeychainItemCopyAttributesAndData(odd[0], &info, nullptr, &list, nullptr, nullptr), errSecSuccess);
    ASSERT_EQ(list->count, std::size(tags));
    EXPECT_EQ(std::string(static_cast<char*>(list->attr[0].data), list->attr[0].length), "Grace Example");
    EXPECT_EQ(list->attr[1].length, 4U);
    for (std::size_t index = 2; index < std::size(tags); ++index)
        EXPECT_EQ(list->attr[index].length, 0U) << index;
    SecKeychainItemFreeAttributesAndData(list, nullptr);
    const auto certificate = refCast<SecCertificate>(odd[0]);
    Ref<NSArray> addresses;
    EXPECT_EQ(SecCertificateCopyEmailAddresses(certificate, &addresses), errSecUnknownFormat);
    EXPECT_FALSE(addresses);
    SecIdentityRef identity;
    EXPECT_EQ(SecIdentityCreateWithCertificate(nullptr, certificate, &identity), errSecUnknownFormat);
    EXPECT_FALSE(identity);
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_THAT(find(nullptr, kSecCertificateItemClass, kSecAliasItemAttr, "ada@orvane.example").items, SizeIs(1));
    EXPECT_EQ(SecKeychainItemDelete(odd[0]), errSecSuccess);
    EXPECT_EQ(count(kSecCertificateItemClass), all - 1);
}

TEST_F(NSSKeychain, TrustIsReadByOtherProgramsAndTheirsIsRead)
{
    const Trust root{TrustLevel::trusted, TrustLevel::unspecified, TrustLevel::trusted, TrustLevel::unspecified};
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), root).status(), errSecSuccess);
    EXPECT_THAT(certutil({"-L"}), HasSubstr("C,C,"));
    certutil({"-M", "-n", "Orvane Certification Authority", "-t", "p,,"});
    EXPECT_EQ(readTrust(defaultKeychain(), authority().root())->server, TrustLevel::denied);
    ASSERT_EQ(writeTrust(defaultKeychain(), authority().root(), root).status(), errSecSuccess);
    EXPECT_EQ(*readTrust(defaultKeychain(), authority().root()), root);
    closeAll();
    EXPECT_THAT(certutil({"-L"}), HasSubstr("C,C,"));
    EXPECT_EQ(SecKeychainItemDelete(find(defaultKeychain(), kSecCertificateItemClass).items.at(0)), errSecSuccess);
    EXPECT_EQ(readTrust(defaultKeychain(), authority().root()).status(), errSecItemNotFound);
}

TEST_F(NSSKeychain, AnotherProgramsChangesAreSeenAtOnce)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(count(kSecCertificateItemClass), 3U);
    certutil({"-D", "-n", "Orvane Certification Authority"});
    EXPECT_EQ(count(kSecCertificateItemClass), 2U);
    certutil({"-A", "-n", "Root", "-t", ",,", "-i", authority().rootFile()});
    EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass, kSecLabelItemAttr, "Root").items.size(), 1U);
}

TEST_F(NSSKeychain, ADirectoryMadeAnewIsOpenedAnew)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_THAT(identities(), SizeIs(1));
    fs::remove_all(database());
    EXPECT_THAT(identities(), IsEmpty());
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    ASSERT_THAT(identities(), SizeIs(1));
    EXPECT_EQ(identities()[0]->certificate()->parsed().der, grace().leaf);
}

TEST_F(NSSKeychain, EachKeychainLosesOnlyItsOwnItem)
{
    const auto other = keychainAt(home_.path() / "other");
    const auto root = looseCertificate(authority().root());
    ASSERT_EQ(SecCertificateAddToKeychain(root, nullptr), errSecSuccess);
    ASSERT_EQ(SecCertificateAddToKeychain(root, other), errSecSuccess);
    ASSERT_EQ(SecKeychainItemDelete(find(other, kSecCertificateItemClass).items.at(0)), errSecSuccess);
    EXPECT_EQ(find(other, kSecCertificateItemClass).items.size(), 0U);
    EXPECT_EQ(count(kSecCertificateItemClass), 1U);
}

TEST_F(NSSKeychain, APathWithSpecialCharactersWorks)
{
    const auto keychain = keychainAt(home_.path() / "it's a \"place\" = of (mine) \\ ü");
    EXPECT_EQ(import(keychain, ada()), errSecSuccess);
    EXPECT_THAT(identities(keychain), SizeIs(1));
}

TEST_F(NSSKeychain, ALargeCertificateIsReadWhole)
{
    BundleOptions options;
    options.email = std::string(9000, 'a') + "@orvane.example";
    const auto bundle = authority().issue(options);
    ASSERT_GT(bundle.leaf.size(), 9000U);
    ASSERT_EQ(import(defaultKeychain(), bundle), errSecSuccess);
    closeAll();
    ASSERT_THAT(identities(), SizeIs(1));
    EXPECT_EQ(identities()[0]->certificate()->parsed().der, bundle.leaf);
    EXPECT_EQ(find(nullptr, kSecCertificateItemClass, kSecAliasItemAttr, options.email).items.size(), 1U);
    EXPECT_EQ(find(nullptr, kSecCertificateItemClass, kSecLabelItemAttr, "Ada Example").items.size(), 1U);
}

TEST_F(NSSKeychain, ReadingWritesNothing)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    closeAll();
    writeFile(database() / IntentFile::fileName, "somebody's");
    const auto before = snapshot();
    EXPECT_THAT(identities(), SizeIs(1));
    EXPECT_EQ(readTrust(defaultKeychain(), authority().root()).status(), errSecItemNotFound);
    closeAll();
    EXPECT_EQ(snapshot(), before);
}

// --- What is wrong with the files ---

class BadFiles : public NSSKeychain {
protected:
    BadFiles()
    {
        EXPECT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
        closeAll();
    }

    /// Reading and writing give the status, and every file stays as it is.
    void expectRefused(OSStatus status) { expectRefused(status, status); }
    void expectRefused(OSStatus reading, OSStatus writing)
    {
        const auto before = snapshot();
        EXPECT_EQ(find(defaultKeychain(), kSecCertificateItemClass).end, reading);
        EXPECT_EQ(import(defaultKeychain(), ada()), writing);
        EXPECT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), writing);
        EXPECT_EQ(writeTrust(defaultKeychain(), authority().root(), {}).status(), writing);
        closeAll();
        EXPECT_EQ(snapshot(), before);
    }
};

TEST_F(BadFiles, AMissingKeyFileIsNotTakenForANewDatabase)
{
    fs::remove(database() / "key4.db");
    expectRefused(errSecKeychainIncomplete);
    Ref<NSArray> list;
    ASSERT_EQ(SecKeychainCopySearchList(&list), errSecSuccess);
    EXPECT_EQ(list->count(), 1U) << "it is there, with an error of its own";
}

TEST_F(BadFiles, AMissingCertificateFileIsNotTakenForANewDatabase)
{
    fs::remove(database() / "cert9.db");
    expectRefused(errSecKeychainIncomplete);
}

TEST_F(BadFiles, AZeroLengthFileIsNotTakenForANewDatabase)
{
    const Bytes keys = readFile(database() / "key4.db");
    fs::resize_file(database() / "cert9.db", 0);
    expectRefused(errSecKeychainEmpty);
    fs::remove(database() / "cert9.db");
    fs::copy_file(database() / "key4.db", database() / "cert9.db");
    fs::resize_file(database() / "key4.db", 0);
    expectRefused(errSecKeychainEmpty);
}

TEST_F(BadFiles, GarbageIsDamage)
{
    writeFile(database() / "cert9.db", std::string(8192, 'x'));
    expectRefused(errSecInvalidKeychain);
}

TEST_F(BadFiles, AShortFileIsDamage)
{
    fs::resize_file(database() / "cert9.db", 10);
    expectRefused(errSecInvalidKeychain);
}

TEST_F(BadFiles, ATruncatedDatabaseIsDamage)
{
    fs::resize_file(database() / "cert9.db", 5000);
    expectRefused(errSecInvalidKeychain);
}

TEST_F(BadFiles, AFileInPlaceOfTheDirectoryIsTold)
{
    fs::remove_all(database());
    writeFile(database(), "no directory");
    expectRefused(errSecKeychainWrongType);
}

TEST_F(BadFiles, ADirectoryInPlaceOfAFileIsTold)
{
    fs::remove(database() / "cert9.db");
    fs::create_directory(database() / "cert9.db");
    expectRefused(errSecKeychainWrongType);
}

class OtherUser : public BadFiles {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root, to make files that belong to somebody else";
    }
};

TEST_F(OtherUser, AnotherOwnersKeychainIsReadAndNeverWritten)
{
    for (const auto& path : {database(), database() / "cert9.db", database() / "key4.db"}) {
        ASSERT_EQ(::chown(path.c_str(), 1234, 1234), 0);
        expectRefused(errSecItemNotFound, errSecWrPerm);
        const auto before = snapshot();
        EXPECT_EQ(import(defaultKeychain(), grace()), errSecSuccess) << "all of it is there";
        closeAll();
        EXPECT_EQ(snapshot(), before);
        const auto item = find(defaultKeychain(), kSecCertificateItemClass).items.at(0);
        EXPECT_EQ(SecKeychainItemDelete(item), errSecWrPerm);
        ASSERT_EQ(::chown(path.c_str(), 0, 0), 0);
        closeAll();
    }
    EXPECT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecSuccess);
}

TEST_F(OtherUser, NothingIsMadeInAnotherOnesHome)
{
    fs::remove_all(home_.path() / ".local");
    ASSERT_EQ(::chown(home_.path().c_str(), 1234, 1234), 0);
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecWrPerm);
    EXPECT_TRUE(fs::is_empty(home_.path()));
    ASSERT_EQ(::chown(home_.path().c_str(), 0, 0), 0);
}

/// A part of a test as an ordinary user, whom permissions concern.
template <class Part>
int asNobody(Part part)
{
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(99);
        ::_exit(part());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(OtherUser, WithoutPermissionReadingAndWritingAreRefused)
{
    ASSERT_EQ(::chmod(home_.path().c_str(), 0755), 0);
    const auto keychain = keychainAt(database());
    // Warm fixtures and no NSS in the parent: the child starts its own.
    const auto certificate = looseCertificate(authority().root());
    const auto& bundle = ada();
    const auto open = [this](mode_t directory, mode_t certificates, mode_t keys) {
        for (const auto& path :
            {home_.path() / ".local", home_.path() / ".local/share", home_.path() / ".local/share/pki"})
            ::chmod(path.c_str(), 0755);
        ::chmod(database().c_str(), directory);
        ::chmod((database() / "cert9.db").c_str(), certificates);
        ::chmod((database() / "key4.db").c_str(), keys);
    };
    open(0700, 0600, 0600);
    EXPECT_EQ(asNobody([&] {
        return find(keychain, kSecCertificateItemClass).end == errSecKeychainUnreadable
                && import(keychain, bundle) == errSecKeychainUnreadable
            ? 0
            : 1;
    }),
        0);
    open(0755, 0600, 0600);
    EXPECT_EQ(
        asNobody([&] { return find(keychain, kSecCertificateItemClass).end == errSecKeychainUnreadable ? 0 : 1; }), 0);
    // As the machine-wide keychain: certificates and trust for everyone, keys for nobody else.
    open(0755, 0644, 0600);
    EXPECT_EQ(asNobody([&] {
        if (find(keychain, kSecCertificateItemClass).items.size() != 1)
            return 1;
        if (!identities(keychain).empty())
            return 2;
        if (readTrust(keychain, certificate->parsed().der).status() != errSecItemNotFound)
            return 3;
        return SecCertificateAddToKeychain(certificate, keychain) == errSecWrPerm ? 0 : 4;
    }),
        0);
}

TEST_F(OtherUser, OwnFilesWithoutWritePermissionAreReadOnly)
{
    ASSERT_EQ(::chmod(home_.path().c_str(), 0755), 0);
    for (const auto& path : {home_.path() / ".local", home_.path() / ".local/share", home_.path() / ".local/share/pki"})
        ::chmod(path.c_str(), 0755);
    for (const auto& path : {database(), database() / "cert9.db", database() / "key4.db"})
        ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
    ::chmod(database().c_str(), 0500);
    const auto keychain = keychainAt(database());
    const auto certificate = looseCertificate(authority().root());
    EXPECT_EQ(asNobody([&] {
        if (identities(keychain).size() != 1)
            return 1;
        return SecCertificateAddToKeychain(certificate, keychain) == errSecReadOnly ? 0 : 2;
    }),
        0);
}

// --- Pass phrases ---

class OnePassphrase final : public kf::Presenter {
public:
    explicit OnePassphrase(std::string answer) : answer_(std::move(answer)), before_(setCurrent(this)) { }
    ~OnePassphrase() override { setCurrent(before_); }
    NSInteger runAlert(const kf::AlertQuestion&) override { return kf::alertDefaultReturn; }
    std::optional<SecretBytes> keychainPassphrase(const kf::PassphraseQuestion&) override
    {
        ++asked;
        return SecretBytes(answer_.begin(), answer_.end());
    }
    int asked = 0;

private:
    std::string answer_;
    kf::Presenter* before_;
};

class LockedKeychain : public NSSKeychain {
protected:
    LockedKeychain()
    {
        EXPECT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
        EXPECT_EQ(
            writeTrust(defaultKeychain(), grace().leaf, {.server = TrustLevel::trustedPeer}).status(), errSecSuccess);
        closeAll();
        writeFile(home_.path() / "empty", "\n");
        certutil({"-W", "-f", home_.path() / "empty", "-@", passwordFile("open sesame")});
    }
};

TEST_F(LockedKeychain, WithoutAPresenterNothingIsWritten)
{
    const auto before = snapshot();
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecInteractionNotAllowed);
    EXPECT_EQ(SecCertificateAddToKeychain(looseCertificate(authority().root()), nullptr), errSecInteractionNotAllowed);
    EXPECT_EQ(find(defaultKeychain(), kSecPrivateKeyItemClass).end, errSecInteractionNotAllowed);
    EXPECT_EQ(readTrust(defaultKeychain(), grace().leaf).status(), errSecInteractionNotAllowed);
    EXPECT_EQ(count(kSecCertificateItemClass), 1U);
    closeAll();
    EXPECT_EQ(snapshot(), before);
}

TEST_F(LockedKeychain, TheRightAnswerOpensItForTheProcess)
{
    OnePassphrase presenter("open sesame");
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_THAT(identities(), SizeIs(2));
    EXPECT_EQ(readTrust(defaultKeychain(), grace().leaf)->server, TrustLevel::trustedPeer);
    EXPECT_EQ(presenter.asked, 1);
    closeAll();
    EXPECT_THAT(certutil({"-K", "-f", passwordFile("open sesame")}), HasSubstr("< 1>"));
}

TEST_F(LockedKeychain, WrongAnswersChangeNothing)
{
    const auto before = snapshot();
    OnePassphrase presenter("wrong");
    EXPECT_EQ(import(defaultKeychain(), ada()), errSecAuthFailed);
    EXPECT_EQ(presenter.asked, 3);
    closeAll();
    EXPECT_EQ(snapshot(), before);
}

// --- At the same time ---

TEST_F(NSSKeychain, ThreadsReadWhileOthersWrite)
{
    ASSERT_EQ(import(defaultKeychain(), grace()), errSecSuccess);
    std::atomic<bool> done = false;
    std::atomic<int> failures = 0;
    constexpr int threads = 2;
    std::vector<std::thread> readers;
    readers.reserve(threads);
    for (int number = 0; number < threads; ++number)
        readers.emplace_back([&] {
            while (!done)
                failures += find(defaultKeychain(), kSecCertificateItemClass).end != errSecItemNotFound;
        });
    std::vector<std::thread> writers;
    writers.reserve(threads);
    for (int number = 0; number < threads; ++number)
        writers.emplace_back([&, number] {
            for (int round = 0; round < 10; ++round) {
                const auto& bundle = ada();
                failures += import(defaultKeychain(), bundle) != errSecSuccess;
                if (number == 0)
                    failures +=
                        writeTrust(defaultKeychain(), authority().root(), {.server = TrustLevel::trusted}).status()
                        != errSecSuccess;
            }
        });
    for (auto& writer : writers)
        writer.join();
    done = true;
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(failures, 0);
    EXPECT_THAT(identities(), SizeIs(2));
}

TEST_F(NSSKeychain, ManyCertificatesOfOneNameAreToldApart)
{
    for (int number = 0; number < 3; ++number) {
        BundleOptions options;
        options.email = "ada" + std::to_string(number) + "@orvane.example";
        options.emailPlace = kf::test::EmailPlace::subject;
        ASSERT_EQ(import(defaultKeychain(), authority().issue(options)), errSecSuccess);
    }
    EXPECT_THAT(identities(), SizeIs(3));
    EXPECT_THAT(certutil({"-L"}), HasSubstr("Ada Example #3"));
    EXPECT_EQ(find(nullptr, kSecCertificateItemClass, kSecAliasItemAttr, "Ada Example").items.size(), 3U);
}

} // namespace
