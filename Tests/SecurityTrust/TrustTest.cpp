// Evaluating trust and writing what decides it, on keychains in memory and on real ones.

#include "Foundation/NSNumber.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/KeychainAccess.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/SecTrust.h"
#include "Security/Trust/DistributionStore.h"
#include "Security/Trust/Evaluation.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingAuthorization.h"
#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using kf::keychain::readTrust;
using kf::keychain::systemKeychain;
using kf::keychain::Trust;
using kf::keychain::TrustLevel;
using kf::keychain::writeTrust;
using kf::test::Authority;
using kf::test::BundleOptions;
using kf::test::Bytes;
using kf::test::mustRun;

constexpr TrustLevel no = TrustLevel::unspecified;
constexpr TrustLevel yes = TrustLevel::trusted;
constexpr TrustLevel peer = TrustLevel::trustedPeer;
constexpr TrustLevel denied = TrustLevel::denied;

SecCertificateRef certificateOf(Bytes der)
{
    const CSSM_DATA data{der.size(), der.data()};
    SecCertificateRef certificate;
    EXPECT_EQ(
        SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate), errSecSuccess);
    return certificate;
}

SecPolicyRef basicPolicy()
{
    SecPolicySearchRef search;
    SecPolicyRef policy;
    SecPolicySearchCreate(CSSM_CERT_X_509v3, &CSSMOID_APPLE_X509_BASIC, nullptr, &search);
    SecPolicySearchCopyNext(search, &policy);
    return policy;
}

Ref<NSDictionary> basicSetting()
{
    return NSDictionary::dictionaryWithObjectsAndKeys({{basicPolicy(), kSecTrustSettingsPolicy}});
}

Ref<NSDictionary> basicSetting(std::uint32_t result)
{
    return NSDictionary::dictionaryWithObjectsAndKeys(
        {{basicPolicy(), kSecTrustSettingsPolicy}, {NSNumber::numberWithUnsignedInt(result), kSecTrustSettingsResult}});
}

SecTrustRef trustOf(const std::vector<Bytes>& certificates)
{
    const auto array = NSMutableArray::array();
    for (const auto& der : certificates)
        array->addObject(certificateOf(der));
    SecTrustRef trust;
    EXPECT_EQ(SecTrustCreateWithCertificates(array, basicPolicy(), &trust), errSecSuccess);
    return trust;
}

SecTrustResultType evaluate(const std::vector<Bytes>& certificates)
{
    SecTrustResultType result = 99;
    EXPECT_EQ(SecTrustEvaluate(trustOf(certificates), &result), errSecSuccess);
    return result;
}

SecKeychainRef defaultKeychain()
{
    SecKeychainRef keychain;
    EXPECT_EQ(SecKeychainCopyDefault(&keychain), errSecSuccess);
    return keychain;
}

void add(const SecKeychainRef& keychain, const Bytes& der)
{
    ASSERT_EQ(SecCertificateAddToKeychain(certificateOf(der), keychain), errSecSuccess);
}

void set(const SecKeychainRef& keychain, const Bytes& der, TrustLevel server, TrustLevel email)
{
    Trust trust;
    trust.server = server;
    trust.email = email;
    ASSERT_TRUE(writeTrust(keychain, der, trust));
}

/// A distribution's store of the test's own.
class ScratchStore {
public:
    ScratchStore()
    {
        std::string pattern = (fs::temp_directory_path() / "keyfold-store-XXXXXX").string();
        directory_ = ::mkdtemp(pattern.data());
        before_ = kf::trust::setDistributionStore(std::make_shared<kf::trust::HashedDirectoryStore>(directory_));
    }
    ScratchStore(const ScratchStore&) = delete;
    ScratchStore& operator=(const ScratchStore&) = delete;
    ~ScratchStore()
    {
        kf::trust::setDistributionStore(before_);
        fs::remove_all(directory_);
    }

    void add(const fs::path& pem, const std::string& name)
    {
        fs::copy_file(pem, directory_ / name);
        mustRun({"openssl", "rehash", directory_});
    }
    const fs::path& directory() const { return directory_; }

private:
    fs::path directory_;
    std::shared_ptr<const kf::trust::DistributionStore> before_;
};

class TrustTest : public ::testing::Test {
protected:
    TrustTest() : scoped_(std::make_shared<kf::keychain::MemoryBackend>()) { }

    static Authority& authority()
    {
        static Authority authority;
        return authority;
    }
    static const Bytes& root()
    {
        static const Bytes der = authority().root();
        return der;
    }
    static const Bytes& issuer()
    {
        static const Bytes der = authority().issuer();
        return der;
    }
    static const Bytes& leaf()
    {
        static const Bytes der = authority().issue().leaf;
        return der;
    }

    /// A self-signed certificate with the authority's key.
    Bytes selfSigned(const std::string& subject, const std::vector<std::string>& options)
    {
        const auto directory = authority().directory();
        std::vector<std::string> command = {
            "openssl", "req", "-x509", "-new", "-subj", subject, "-outform", "DER", "-out", directory / "self.der"};
        command.insert(command.end(), options.begin(), options.end());
        mustRun(command);
        return kf::test::readFile(directory / "self.der");
    }

    kf::test::ScratchHome home_;
    ScratchStore store_;
    kf::keychain::ScopedBackend scoped_;
};

TEST_F(TrustTest, AnUnknownRootIsNotTrusted)
{
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure);
    add(defaultKeychain(), root());
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure) << "present, but without a setting";
}

TEST_F(TrustTest, ARootWithAUserSettingIsTrusted)
{
    set(defaultKeychain(), root(), yes, yes);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, ARootWithAnAdminSettingIsTrusted)
{
    set(systemKeychain(), root(), yes, yes);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, BasicPolicyNeedsTrustForServersAndEmail)
{
    set(defaultKeychain(), root(), yes, no);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure);
    set(systemKeychain(), root(), no, yes);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed) << "the keychains' words together";
}

TEST_F(TrustTest, ADenyingSettingWins)
{
    set(systemKeychain(), root(), yes, yes);
    set(defaultKeychain(), root(), denied, no);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultDeny);
}

TEST_F(TrustTest, ARootOfTheDistributionAloneIsUnspecified)
{
    store_.add(authority().rootFile(), "root.pem");
    EXPECT_EQ(evaluate({root()}), kSecTrustResultUnspecified);
    EXPECT_EQ(evaluate({leaf(), issuer()}), kSecTrustResultUnspecified);
    set(defaultKeychain(), root(), denied, denied);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultDeny);
    EXPECT_EQ(evaluate({leaf(), issuer()}), kSecTrustResultDeny) << "a denied certificate in the chain";
    set(defaultKeychain(), root(), yes, yes);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, StoreFindsTheRightOneOfSeveralWithOneName)
{
    const Authority namesake;
    store_.add(namesake.rootFile(), "a.pem");
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure) << "only its namesake is there";
    store_.add(authority().rootFile(), "b.pem");
    ASSERT_EQ(std::distance(fs::directory_iterator(store_.directory()), fs::directory_iterator()), 4)
        << "two links to one hash";
    EXPECT_EQ(evaluate({root()}), kSecTrustResultUnspecified);
    EXPECT_EQ(evaluate({leaf(), issuer()}), kSecTrustResultUnspecified);
    EXPECT_EQ(evaluate({namesake.root()}), kSecTrustResultUnspecified);
}

TEST_F(TrustTest, StoreReadsCertificatesAsOpenSSLWritesThem)
{
    const auto written = store_.directory() / "written.pem";
    for (const std::vector<std::string>& form :
        {std::vector<std::string>{"-text"}, {"-trustout", "-addtrust", "serverAuth", "-setalias", "an alias"}}) {
        std::vector<std::string> command = {"openssl", "x509", "-in", authority().rootFile(), "-out", written};
        command.insert(command.end(), form.begin(), form.end());
        mustRun(command);
        mustRun({"openssl", "rehash", store_.directory()});
        EXPECT_EQ(evaluate({root()}), kSecTrustResultUnspecified) << form.front();
        EXPECT_THAT(kf::trust::distributionStore()->certificates(), testing::ElementsAre(root())) << form.front();
    }
}

TEST_F(TrustTest, UnreadableFilesOfTheStoreAreLeftOut)
{
    store_.add(authority().rootFile(), "root.pem");
    for (const auto& entry : fs::directory_iterator(store_.directory())) {
        if (entry.is_symlink())
            kf::test::writeFile(fs::read_symlink(entry).is_absolute() ? fs::read_symlink(entry)
                                                                      : store_.directory() / fs::read_symlink(entry),
                std::string_view("no certificate"));
    }
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustTest, ChainIsBuiltFromTheOtherCertificates)
{
    set(defaultKeychain(), root(), yes, yes);
    EXPECT_EQ(evaluate({leaf()}), kSecTrustResultRecoverableTrustFailure) << "the issuer is missing";
    EXPECT_EQ(evaluate({leaf(), issuer()}), kSecTrustResultProceed);
    EXPECT_EQ(evaluate({leaf(), root(), issuer()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, ChainIsBuiltFromKeychains)
{
    set(systemKeychain(), root(), yes, yes);
    add(defaultKeychain(), issuer());
    EXPECT_EQ(evaluate({leaf()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, OnlyTheFirstCertificateIsEvaluated)
{
    const Authority stranger("Somebody Else", "Unknown Authority");
    set(defaultKeychain(), root(), yes, yes);
    EXPECT_EQ(evaluate({root(), stranger.root()}), kSecTrustResultProceed);
    EXPECT_EQ(evaluate({stranger.root(), root()}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustTest, AnIntermediateAnchorEndsTheChain)
{
    set(defaultKeychain(), issuer(), yes, yes);
    EXPECT_EQ(evaluate({leaf()}), kSecTrustResultProceed);
    EXPECT_EQ(evaluate({issuer()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, ADeniedIntermediateSpoilsTheChain)
{
    set(defaultKeychain(), root(), yes, yes);
    set(systemKeychain(), issuer(), denied, denied);
    EXPECT_EQ(evaluate({leaf(), issuer()}), kSecTrustResultDeny);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, ADeniedRootDeniesWhatItIssuedThoughNobodyTrustsIt)
{
    set(defaultKeychain(), root(), denied, denied);
    EXPECT_EQ(evaluate({leaf(), issuer()}), kSecTrustResultDeny);
}

TEST_F(TrustTest, ATrustedLeafIsTrustedItselfAndNoAnchor)
{
    set(defaultKeychain(), leaf(), peer, peer);
    EXPECT_EQ(evaluate({leaf()}), kSecTrustResultProceed);
    set(defaultKeychain(), issuer(), peer, peer);
    const Bytes another = authority().issue().leaf;
    EXPECT_EQ(evaluate({another, issuer()}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustTest, AnExpiredLeafIsNotTrusted)
{
    set(defaultKeychain(), root(), yes, yes);
    BundleOptions options;
    options.notAfter = "20210101000000Z";
    EXPECT_EQ(evaluate({authority().issue(options).leaf, issuer()}), kSecTrustResultRecoverableTrustFailure);
    options.notBefore = "20480101000000Z";
    options.notAfter = "20490101000000Z";
    EXPECT_EQ(evaluate({authority().issue(options).leaf, issuer()}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustTest, TellsWhyACertificateIsNotTrusted)
{
    const auto reasonsOf = [](const Bytes& der) {
        const auto evaluation = kf::trust::evaluateWithReasons({certificateOf(der), certificateOf(issuer())});
        return evaluation ? evaluation->reasons : std::vector<std::string>{"not evaluated"};
    };
    BundleOptions old;
    old.notAfter = "20210101000000Z";
    const Bytes expired = authority().issue(old).leaf;
    EXPECT_THAT(reasonsOf(expired),
        ::testing::UnorderedElementsAre("certificate has expired", "unable to get local issuer certificate"));
    set(defaultKeychain(), root(), yes, yes);
    EXPECT_THAT(reasonsOf(expired), ::testing::ElementsAre("certificate has expired"));
    EXPECT_THAT(reasonsOf(leaf()), ::testing::IsEmpty());
}

TEST_F(TrustTest, AnIssuerThatIsNoAuthorityIsRefused)
{
    set(defaultKeychain(), leaf(), yes, yes);
    EXPECT_EQ(evaluate({leaf()}), kSecTrustResultProceed);
    const auto directory = authority().directory();
    const auto owner = authority().issue();
    set(defaultKeychain(), owner.leaf, yes, yes);
    kf::test::writeFile(
        directory / "none.cnf", std::string_view("basicConstraints=CA:FALSE\nauthorityKeyIdentifier=none\n"));
    mustRun({"openssl", "req", "-new", "-subj", "/CN=Below", "-key", directory / "root.key", "-out",
        directory / "below.csr"});
    mustRun({"openssl", "x509", "-req", "-in", directory / "below.csr", "-CA", owner.certFile, "-CAkey", owner.keyFile,
        "-extfile", directory / "none.cnf", "-outform", "DER", "-out", directory / "below.der"});
    EXPECT_EQ(evaluate({kf::test::readFile(directory / "below.der")}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustTest, ShortKeysAreRefused)
{
    const Bytes weak = selfSigned("/CN=Weak", {"-newkey", "rsa:1024", "-nodes", "-keyout", "/dev/null"});
    set(defaultKeychain(), weak, yes, yes);
    EXPECT_EQ(evaluate({weak}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustTest, AWrongSignatureIsFatal)
{
    Bytes forged = leaf();
    forged.back() ^= 0x01;
    EXPECT_EQ(evaluate({forged, issuer(), root()}), kSecTrustResultFatalTrustFailure);
    set(defaultKeychain(), root(), yes, yes);
    EXPECT_EQ(evaluate({forged, issuer()}), kSecTrustResultFatalTrustFailure);
    Bytes forgedRoot = root();
    forgedRoot.back() ^= 0x01;
    EXPECT_EQ(evaluate({forgedRoot}), kSecTrustResultFatalTrustFailure);
}

TEST_F(TrustTest, WhereEvaluationFailsTheResultStays)
{
    SecTrustResultType result = kSecTrustResultDeny;
    EXPECT_EQ(SecTrustEvaluate(nullptr, &result), errSecParam);
    EXPECT_EQ(result, kSecTrustResultDeny);
    EXPECT_EQ(SecTrustEvaluate(trustOf({root()}), nullptr), errSecParam);
    // Readable to us, but not to OpenSSL: version 9.
    Bytes odd = root();
    const Bytes version3 = {0xA0, 0x03, 0x02, 0x01, 0x02};
    const auto place = std::search(odd.begin(), odd.end(), version3.begin(), version3.end());
    ASSERT_NE(place, odd.end());
    *(place + 2) = 0x04;
    EXPECT_EQ(SecTrustEvaluate(trustOf({odd}), &result), errSecUnknownFormat);
    EXPECT_EQ(result, kSecTrustResultDeny);
}

TEST_F(TrustTest, CreateRefusesWhatCannotBeEvaluated)
{
    SecTrustRef trust;
    const auto certificate = certificateOf(root());
    EXPECT_EQ(SecTrustCreateWithCertificates(nullptr, basicPolicy(), &trust), errSecParam);
    EXPECT_EQ(SecTrustCreateWithCertificates(NSArray::array(), basicPolicy(), &trust), errSecParam);
    EXPECT_EQ(SecTrustCreateWithCertificates("text"_ns, basicPolicy(), &trust), errSecParam);
    EXPECT_EQ(SecTrustCreateWithCertificates(certificate, nullptr, &trust), errSecParam);
    EXPECT_EQ(SecTrustCreateWithCertificates(certificate, NSArray::arrayWithObjects({"text"_ns}), &trust), errSecParam);
    EXPECT_EQ(SecTrustCreateWithCertificates(certificate, basicPolicy(), nullptr), errSecParam);
    EXPECT_FALSE(trust);
    EXPECT_EQ(
        SecTrustCreateWithCertificates(certificate, NSArray::arrayWithObjects({basicPolicy()}), &trust), errSecSuccess);
    EXPECT_TRUE(trust);
}

class TrustSettingsTest : public TrustTest {
protected:
    Trust stored(const SecKeychainRef& keychain, const Bytes& der)
    {
        const auto trust = readTrust(keychain, der);
        EXPECT_TRUE(trust);
        return trust ? *trust : Trust();
    }
    OSStatus setInUserDomain(const Bytes& der, const Ref<NSObject>& settings)
    {
        return SecTrustSettingsSetTrustSettings(certificateOf(der), kSecTrustSettingsDomainUser, settings);
    }
};

TEST_F(TrustSettingsTest, KeysAreTheirOwnNames)
{
    EXPECT_EQ(toUTF8(kSecTrustSettingsPolicy), "kSecTrustSettingsPolicy");
    EXPECT_EQ(toUTF8(kSecTrustSettingsResult), "kSecTrustSettingsResult");
}

TEST_F(TrustSettingsTest, ASettingWithoutAResultTrustsARootForServersAndEmail)
{
    ASSERT_EQ(setInUserDomain(root(), basicSetting()), errSecSuccess);
    EXPECT_EQ(stored(defaultKeychain(), root()), (Trust{yes, no, yes, no})) << "not for code";
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
    const auto held =
        kf::keychain::certificatesWithSubject(defaultKeychain(), kf::readCertificateFields(root())->subject);
    ASSERT_TRUE(held);
    EXPECT_EQ(held->size(), 1U) << "the certificate was added beside its setting";
}

TEST_F(TrustSettingsTest, ASettingOnAnotherCertificateTrustsItAlone)
{
    ASSERT_EQ(setInUserDomain(leaf(), basicSetting()), errSecSuccess);
    EXPECT_EQ(stored(defaultKeychain(), leaf()), (Trust{peer, no, peer, no}));
    ASSERT_EQ(setInUserDomain(issuer(), basicSetting(kSecTrustSettingsResultTrustAsRoot)), errSecSuccess);
    EXPECT_EQ(stored(defaultKeychain(), issuer()), (Trust{peer, no, peer, no}));
}

TEST_F(TrustSettingsTest, WithoutAPolicyEveryUseIsTrusted)
{
    for (const Ref<NSObject>& settings :
        {Ref<NSObject>(), Ref<NSObject>(NSArray::array()), Ref<NSObject>(NSDictionary::dictionary())}) {
        ASSERT_EQ(setInUserDomain(root(), settings), errSecSuccess);
        EXPECT_EQ(stored(defaultKeychain(), root()), (Trust{yes, yes, yes, yes}));
        ASSERT_EQ(
            SecTrustSettingsRemoveTrustSettings(certificateOf(root()), kSecTrustSettingsDomainUser), errSecSuccess);
    }
}

TEST_F(TrustSettingsTest, ANewSettingReplacesTheOldOne)
{
    ASSERT_EQ(setInUserDomain(root(), nullptr), errSecSuccess);
    ASSERT_EQ(setInUserDomain(root(), basicSetting(kSecTrustSettingsResultDeny)), errSecSuccess);
    EXPECT_EQ(stored(defaultKeychain(), root()), (Trust{denied, no, denied, no}));
    EXPECT_EQ(evaluate({root()}), kSecTrustResultDeny);
    ASSERT_EQ(setInUserDomain(root(), basicSetting(kSecTrustSettingsResultUnspecified)), errSecSuccess);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustSettingsTest, OfSeveralDictionariesTheDenyingOneWins)
{
    for (const auto& settings : {NSArray::arrayWithObjects({basicSetting(kSecTrustSettingsResultDeny), basicSetting()}),
             NSArray::arrayWithObjects({basicSetting(), basicSetting(kSecTrustSettingsResultDeny)})}) {
        ASSERT_EQ(setInUserDomain(root(), settings), errSecSuccess);
        EXPECT_EQ(evaluate({root()}), kSecTrustResultDeny);
    }
}

TEST_F(TrustSettingsTest, RefusesSettingsThatItDoesNotUnderstand)
{
    const auto setting = [](const Ref<NSObject>& object, const Ref<NSString>& key) {
        return NSDictionary::dictionaryWithObjectsAndKeys({{object, key}});
    };
    EXPECT_EQ(setInUserDomain(root(), setting("host.example"_ns, "kSecTrustSettingsPolicyString"_ns)),
        errSecInvalidTrustSettings);
    EXPECT_EQ(setInUserDomain(root(), setting("text"_ns, kSecTrustSettingsPolicy)), errSecInvalidTrustSettings);
    EXPECT_EQ(setInUserDomain(root(), setting("text"_ns, kSecTrustSettingsResult)), errSecInvalidTrustSettings);
    EXPECT_EQ(setInUserDomain(root(), basicSetting(0)), errSecInvalidTrustSettings);
    EXPECT_EQ(setInUserDomain(root(), basicSetting(17)), errSecInvalidTrustSettings);
    EXPECT_EQ(setInUserDomain(root(), "text"_ns), errSecParam);
    EXPECT_EQ(setInUserDomain(root(), NSArray::arrayWithObjects({"text"_ns})), errSecParam);
    EXPECT_EQ(SecTrustSettingsSetTrustSettings(nullptr, kSecTrustSettingsDomainUser, nullptr), errSecParam);
    EXPECT_EQ(SecTrustSettingsSetTrustSettings(certificateOf(root()), 7, nullptr), errSecParam);
    EXPECT_EQ(readTrust(defaultKeychain(), root()).status(), errSecItemNotFound) << "nothing was written";
}

TEST_F(TrustSettingsTest, AdminDomainIsRefusedAtOnceWithoutRights)
{
    kf::test::RecordingAuthorization authorization;
    authorization.refuse(errAuthorizationInteractionNotAllowed);
    const auto certificate = certificateOf(root());
    EXPECT_EQ(SecTrustSettingsSetTrustSettings(certificate, kSecTrustSettingsDomainAdmin, basicSetting()),
        errAuthorizationDenied);
    EXPECT_EQ(SecTrustSettingsRemoveTrustSettings(certificate, kSecTrustSettingsDomainAdmin), errAuthorizationDenied);
    ASSERT_EQ(authorization.asked().size(), 2U);
    for (const auto& asked : authorization.asked()) {
        EXPECT_EQ(asked.right, "system.privilege.admin");
        EXPECT_EQ(asked.flags & kAuthorizationFlagInteractionAllowed, 0U) << "nobody is asked";
    }
    EXPECT_TRUE(authorization.executed().empty());
    EXPECT_EQ(readTrust(systemKeychain(), root()).status(), errSecItemNotFound);
}

/// The tool of somebody who holds the right, which works on the system keychain of the test.
class AdminDomainTest : public TrustSettingsTest {
protected:
    AdminDomainTest()
    {
        authorization_.setTool([this](const kf::authorization::ToolCommand& command) {
            seen_ = kf::test::readFile(command.arguments.back());
            return tool_();
        });
    }

    OSStatus set(const Ref<NSObject>& settings = basicSetting(), Bytes der = root())
    {
        return SecTrustSettingsSetTrustSettings(certificateOf(std::move(der)), kSecTrustSettingsDomainAdmin, settings);
    }
    OSStatus remove()
    {
        return SecTrustSettingsRemoveTrustSettings(certificateOf(root()), kSecTrustSettingsDomainAdmin);
    }
    /// The words of the one execution, and that nothing of it is left.
    std::vector<std::string> onlyWords() const
    {
        EXPECT_EQ(authorization_.executed().size(), 1U);
        auto words = authorization_.executed().at(0).arguments;
        EXPECT_TRUE(fs::path(words.back()).is_absolute());
        EXPECT_FALSE(fs::exists(words.back())) << "the file that the tool read";
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
        words.pop_back();
        return words;
    }

    kf::test::RecordingAuthorization authorization_;
    std::function<int()> tool_ = [] { return 0; };
    Bytes seen_; ///< what the tool was given
};

TEST_F(AdminDomainTest, IsWrittenByTheToolForWhoHoldsTheRight)
{
    tool_ = [] {
        EXPECT_TRUE(writeTrust(systemKeychain(), root(), Trust{yes, no, yes, no}));
        return 0;
    };
    EXPECT_EQ(set(), errSecSuccess);
    EXPECT_THAT(onlyWords(),
        testing::ElementsAre("add-trusted-cert", "-k", "/Library/Keychains/System.keychain", "-d", "-r", "trustRoot"));
    EXPECT_EQ(authorization_.executed()[0].path, "/usr/bin/security");
    EXPECT_EQ(seen_, root());
    EXPECT_EQ(readTrust(defaultKeychain(), root()).status(), errSecItemNotFound);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
}

TEST_F(AdminDomainTest, WhatStandsThereAfterTheToolCountsAndNotItsExitStatus)
{
    EXPECT_EQ(set(), errAuthorizationToolEnvironmentError) << "it ran in vain";
    tool_ = [] {
        EXPECT_TRUE(writeTrust(systemKeychain(), root(), Trust{denied, no, denied, no}));
        return 0;
    };
    EXPECT_EQ(set(), errAuthorizationToolEnvironmentError) << "something else stands there";
    tool_ = [] {
        EXPECT_TRUE(writeTrust(systemKeychain(), root(), Trust{yes, no, yes, no}));
        return 1; // the distribution's store did not take it
    };
    EXPECT_EQ(set(), errSecSuccess);
}

TEST_F(AdminDomainTest, TellsWhyTheToolWasNotStarted)
{
    for (const OSStatus status : {errAuthorizationCanceled, errAuthorizationToolExecuteFailure}) {
        authorization_.failToLaunch(status);
        EXPECT_EQ(set(), status);
    }
    EXPECT_EQ(readTrust(systemKeychain(), root()).status(), errSecItemNotFound);
}

TEST_F(AdminDomainTest, OtherKindsOfTrustTakeAnAdministratorHimself)
{
    for (const Ref<NSObject>& settings : {Ref<NSObject>(), Ref<NSObject>(basicSetting(kSecTrustSettingsResultDeny)),
             Ref<NSObject>(basicSetting(kSecTrustSettingsResultUnspecified))})
        EXPECT_EQ(set(settings), errAuthorizationDenied);
    EXPECT_EQ(set(basicSetting(), leaf()), errAuthorizationDenied) << "it would be trusted by itself";
    EXPECT_TRUE(authorization_.executed().empty());
}

TEST_F(AdminDomainTest, IsTakenBackByTheTool)
{
    EXPECT_EQ(remove(), errSecItemNotFound);
    EXPECT_TRUE(authorization_.executed().empty());
    ASSERT_TRUE(writeTrust(systemKeychain(), root(), Trust{yes, no, yes, no}));
    tool_ = [] {
        EXPECT_TRUE(kf::keychain::removeTrust(systemKeychain(), root()));
        return 0;
    };
    EXPECT_EQ(remove(), errSecSuccess);
    EXPECT_THAT(onlyWords(), testing::ElementsAre("remove-trusted-cert", "-d"));
    EXPECT_EQ(seen_, root());
    ASSERT_TRUE(writeTrust(systemKeychain(), root(), Trust{yes, no, yes, no}));
    tool_ = [] { return 0; };
    EXPECT_EQ(remove(), errAuthorizationToolEnvironmentError) << "it ran in vain";
}

TEST_F(TrustSettingsTest, AdminDomainLiesInTheSystemKeychain)
{
    kf::test::RecordingAuthorization authorization;
    authorization.setAdministrator(true);
    const auto certificate = certificateOf(root());
    ASSERT_EQ(
        SecTrustSettingsSetTrustSettings(certificate, kSecTrustSettingsDomainAdmin, basicSetting()), errSecSuccess);
    EXPECT_EQ(stored(systemKeychain(), root()), (Trust{yes, no, yes, no}));
    EXPECT_EQ(readTrust(defaultKeychain(), root()).status(), errSecItemNotFound);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
    ASSERT_EQ(SecTrustSettingsRemoveTrustSettings(certificate, kSecTrustSettingsDomainAdmin), errSecSuccess);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure);
}

TEST_F(TrustSettingsTest, SystemDomainIsTheDistributionsAndReadOnly)
{
    const auto certificate = certificateOf(root());
    EXPECT_EQ(SecTrustSettingsSetTrustSettings(certificate, kSecTrustSettingsDomainSystem, nullptr), errSecReadOnly);
    EXPECT_EQ(SecTrustSettingsRemoveTrustSettings(certificate, kSecTrustSettingsDomainSystem), errSecReadOnly);
    Ref<NSArray> settings;
    EXPECT_EQ(
        SecTrustSettingsCopyTrustSettings(certificate, kSecTrustSettingsDomainSystem, &settings), errSecItemNotFound);
    store_.add(authority().rootFile(), "root.pem");
    EXPECT_EQ(SecTrustSettingsCopyTrustSettings(certificate, kSecTrustSettingsDomainSystem, &settings), errSecSuccess);
    EXPECT_EQ(countOf(settings), 1U);
}

TEST_F(TrustSettingsTest, ListsTheCertificatesWithSettings)
{
    Ref<NSArray> certificates;
    for (const auto domain : {kSecTrustSettingsDomainUser, kSecTrustSettingsDomainAdmin, kSecTrustSettingsDomainSystem})
        EXPECT_EQ(SecTrustSettingsCopyCertificates(domain, &certificates), errSecNoTrustSettings);
    add(defaultKeychain(), leaf());
    set(defaultKeychain(), root(), denied, denied);
    set(systemKeychain(), issuer(), yes, yes);
    ASSERT_EQ(SecTrustSettingsCopyCertificates(kSecTrustSettingsDomainUser, &certificates), errSecSuccess);
    ASSERT_EQ(certificates->count(), 1U);
    EXPECT_EQ(certificates->objectAs<SecCertificate>(0)->digest(), certificateOf(root())->digest());
    ASSERT_EQ(SecTrustSettingsCopyCertificates(kSecTrustSettingsDomainAdmin, &certificates), errSecSuccess);
    ASSERT_EQ(certificates->count(), 1U);
    EXPECT_EQ(certificates->objectAs<SecCertificate>(0)->digest(), certificateOf(issuer())->digest());

    store_.add(authority().rootFile(), "root.pem");
    kf::test::writeFile(store_.directory() / "0123abcd.0", std::string_view("no certificate\n"));
    fs::copy_file(authority().issuerFile(), store_.directory() / "issuer.pem"); // not hashed, so nobody finds it
    ASSERT_EQ(SecTrustSettingsCopyCertificates(kSecTrustSettingsDomainSystem, &certificates), errSecSuccess);
    ASSERT_EQ(certificates->count(), 1U);
    EXPECT_EQ(certificates->objectAs<SecCertificate>(0)->digest(), certificateOf(root())->digest());
    EXPECT_EQ(SecTrustSettingsCopyCertificates(7, &certificates), errSecParam);
    EXPECT_FALSE(certificates);
    EXPECT_EQ(SecTrustSettingsCopyCertificates(kSecTrustSettingsDomainUser, nullptr), errSecParam);
}

TEST_F(TrustSettingsTest, SettingsAreReadBackAsTheyWereWritten)
{
    const auto certificate = certificateOf(root());
    Ref<NSArray> settings;
    EXPECT_EQ(
        SecTrustSettingsCopyTrustSettings(certificate, kSecTrustSettingsDomainUser, &settings), errSecItemNotFound);
    EXPECT_FALSE(settings);
    for (const std::uint32_t result : {1U, 3U, 4U}) {
        ASSERT_EQ(setInUserDomain(root(), basicSetting(result)), errSecSuccess);
        ASSERT_EQ(
            SecTrustSettingsCopyTrustSettings(certificate, kSecTrustSettingsDomainUser, &settings), errSecSuccess);
        ASSERT_EQ(countOf(settings), 1U);
        const auto setting = settings->objectAs<NSDictionary>(0);
        EXPECT_EQ(setting->objectAs<NSNumber>(kSecTrustSettingsResult)->unsignedIntValue(), result);
        // Of one that says nothing there is no telling what it was about.
        EXPECT_EQ(CFEqual(setting, basicSetting(result)), result != kSecTrustSettingsResultUnspecified);
    }
    ASSERT_EQ(setInUserDomain(leaf(), nullptr), errSecSuccess);
    ASSERT_EQ(SecTrustSettingsCopyTrustSettings(certificateOf(leaf()), kSecTrustSettingsDomainUser, &settings),
        errSecSuccess);
    const auto setting = settings->objectAs<NSDictionary>(0);
    EXPECT_FALSE(setting->objectForKey(kSecTrustSettingsPolicy));
    EXPECT_EQ(setting->objectAs<NSNumber>(kSecTrustSettingsResult)->intValue(), 2);
}

TEST_F(TrustSettingsTest, RemovingLeavesTheCertificate)
{
    ASSERT_EQ(setInUserDomain(root(), basicSetting()), errSecSuccess);
    const auto certificate = certificateOf(root());
    EXPECT_EQ(SecTrustSettingsRemoveTrustSettings(certificate, kSecTrustSettingsDomainUser), errSecSuccess);
    EXPECT_EQ(SecTrustSettingsRemoveTrustSettings(certificate, kSecTrustSettingsDomainUser), errSecItemNotFound);
    EXPECT_EQ(SecCertificateAddToKeychain(certificate, defaultKeychain()), errSecDuplicateItem);
    EXPECT_EQ(SecTrustSettingsRemoveTrustSettings(nullptr, kSecTrustSettingsDomainUser), errSecParam);
}

TEST_F(TrustSettingsTest, WhereWritingFailsNothingIsChanged)
{
    using kf::keychain::Operation;
    const auto faults = std::make_shared<kf::keychain::FaultBackend>(std::make_shared<kf::keychain::MemoryBackend>());
    const kf::keychain::ScopedBackend scoped(faults);
    for (const Operation operation : {Operation::open, Operation::beginWriting, Operation::declare,
             Operation::addCertificate, Operation::setTrust}) {
        faults->arm(operation, 1, errSecIO);
        EXPECT_EQ(setInUserDomain(root(), basicSetting()), errSecIO);
        EXPECT_TRUE(faults->fired()) << static_cast<int>(operation);
        faults->disarm();
        EXPECT_EQ(readTrust(defaultKeychain(), root()).status(), errSecItemNotFound);
        const auto held =
            kf::keychain::certificatesWithSubject(defaultKeychain(), kf::readCertificateFields(root())->subject);
        ASSERT_TRUE(held);
        EXPECT_TRUE(held->empty()) << "no certificate without its setting";
    }
    EXPECT_EQ(setInUserDomain(root(), basicSetting()), errSecSuccess);
    faults->arm(Operation::removeTrust, 1, errSecReadOnly);
    EXPECT_EQ(SecTrustSettingsRemoveTrustSettings(certificateOf(root()), kSecTrustSettingsDomainUser), errSecReadOnly);
    EXPECT_TRUE(faults->fired());
    faults->disarm();
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
}

TEST_F(TrustTest, OfSeveralIssuersWithOneNameTheOneThatSignedCounts)
{
    const auto directory = authority().directory();
    const auto path = [&](const std::string& name) { return (directory / name).string(); };
    kf::test::writeFile(directory / "bare.cnf",
        std::string_view("[req]\ndistinguished_name=dn\nprompt=no\nx509_extensions=ext\n[dn]\nCN=Twin\n"
                         "[ext]\nbasicConstraints=critical,CA:TRUE\nsubjectKeyIdentifier=none\n"
                         "authorityKeyIdentifier=none\n"));
    std::vector<Bytes> twins;
    for (const std::string name : {"twin1", "twin2"}) {
        mustRun({"openssl", "req", "-x509", "-new", "-newkey", "rsa:2048", "-nodes", "-config", path("bare.cnf"),
            "-keyout", path(name + ".key"), "-out", path(name + ".pem")});
        mustRun({"openssl", "x509", "-in", path(name + ".pem"), "-outform", "DER", "-out", path(name + ".der")});
        twins.push_back(kf::test::readFile(path(name + ".der")));
        set(defaultKeychain(), twins.back(), yes, yes);
        kf::test::writeFile(
            directory / "below.cnf", std::string_view("basicConstraints=CA:FALSE\nauthorityKeyIdentifier=none\n"));
        mustRun({"openssl", "req", "-new", "-subj", "/CN=Below", "-key", path("root.key"), "-out", path("below.csr")});
        mustRun({"openssl", "x509", "-req", "-in", path("below.csr"), "-CA", path(name + ".pem"), "-CAkey",
            path(name + ".key"), "-extfile", path("below.cnf"), "-outform", "DER", "-out", path(name + "-below.der")});
    }
    EXPECT_EQ(evaluate({kf::test::readFile(path("twin1-below.der"))}), kSecTrustResultProceed);
    EXPECT_EQ(evaluate({kf::test::readFile(path("twin2-below.der"))}), kSecTrustResultProceed);
}

TEST_F(TrustTest, AKeychainThatCannotBeReadHasNoSay)
{
    const auto faults = std::make_shared<kf::keychain::FaultBackend>(std::make_shared<kf::keychain::MemoryBackend>());
    const kf::keychain::ScopedBackend scoped(faults);
    set(systemKeychain(), root(), yes, yes);
    set(defaultKeychain(), leaf(), no, no);
    faults->arm(kf::keychain::Operation::open, 1, errSecInvalidKeychain);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultProceed);
    EXPECT_TRUE(faults->fired());
    faults->arm(kf::keychain::Operation::open, 1, errSecInvalidKeychain, true);
    EXPECT_EQ(evaluate({root()}), kSecTrustResultRecoverableTrustFailure);
}

/// The same on an NSS database, read by NSS's own program.
class RealTrustTest : public ::testing::Test {
protected:
    ~RealTrustTest() override { kf::keychain::closeAll(); }

    kf::test::ScratchHome home_;
    ScratchStore store_;
};

TEST_F(RealTrustTest, NSSReadsTheUsersSetting)
{
    const Authority authority;
    ASSERT_EQ(
        SecTrustSettingsSetTrustSettings(certificateOf(authority.root()), kSecTrustSettingsDomainUser, basicSetting()),
        errSecSuccess);
    EXPECT_EQ(evaluate({authority.root()}), kSecTrustResultProceed);
    EXPECT_EQ(evaluate({authority.issuer()}), kSecTrustResultProceed);
    const std::string database = "sql:" + home_.defaultKeychain().string();
    EXPECT_THAT(mustRun({"timeout", "20", "certutil", "-L", "-d", database}),
        ::testing::ContainsRegex("Orvane Certification Authority +C,C,"));
    ASSERT_EQ(SecTrustSettingsSetTrustSettings(certificateOf(authority.root()), kSecTrustSettingsDomainUser,
                  basicSetting(kSecTrustSettingsResultDeny)),
        errSecSuccess);
    EXPECT_EQ(evaluate({authority.root()}), kSecTrustResultDeny);
    EXPECT_THAT(mustRun({"timeout", "20", "certutil", "-L", "-d", database}),
        ::testing::ContainsRegex("Orvane Certification Authority +p,p,"));
}

TEST_F(RealTrustTest, HeedsWhatNSSWrote)
{
    const Authority authority;
    fs::create_directories(home_.olderKeychain());
    fs::permissions(home_.olderKeychain(), fs::perms::owner_all);
    const std::string database = "sql:" + home_.olderKeychain().string();
    mustRun({"timeout", "20", "certutil", "-N", "-d", database, "--empty-password"});
    mustRun(
        {"timeout", "20", "certutil", "-A", "-d", database, "-n", "ours", "-t", "C,C,", "-i", authority.rootFile()});
    EXPECT_EQ(evaluate({authority.root()}), kSecTrustResultProceed);
    mustRun({"timeout", "20", "certutil", "-M", "-d", database, "-n", "ours", "-t", "p,p,"});
    EXPECT_EQ(evaluate({authority.root()}), kSecTrustResultDeny);
}

TEST_F(RealTrustTest, DistributionsStoreIsFoundOnThisMachine)
{
    kf::trust::setDistributionStore(nullptr);
    fs::path any;
    for (const auto& entry : fs::directory_iterator("/etc/ssl/certs")) {
        if (entry.path().extension() == ".pem")
            any = entry.path();
    }
    if (any.empty())
        GTEST_SKIP() << "this machine has no hashed store";
    mustRun({"openssl", "x509", "-in", any, "-outform", "DER", "-out", home_.path() / "any.der"});
    EXPECT_EQ(evaluate({kf::test::readFile(home_.path() / "any.der")}), kSecTrustResultUnspecified) << any;
}

} // namespace
