// Identities on their way out of a keychain.

#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/SecKeychainItemExport.h"
#include "Tests/SecurityKeychain/KeychainFixture.h"

namespace {

using namespace kf::test;
using kf::keychain::FaultBackend;
using kf::keychain::MemoryBackend;
using kf::keychain::Operation;
using kf::keychain::ScopedBackend;

class ExportTest : public ::testing::Test {
protected:
    ~ExportTest() override { kf::keychain::closeAll(); }

    static SecKeyImportExportParameters withPassphrase(const std::string& text)
    {
        SecKeyImportExportParameters parameters;
        parameters.passphrase = NSString::sensitiveStringWithUTF8String(text);
        return parameters;
    }
    OSStatus exportIt(const Ref<NSObject>& items, const std::string& passphrase = "s\xC3\xA9same")
    {
        const auto parameters = withPassphrase(passphrase);
        return SecKeychainItemExport(items, kSecFormatPKCS12, 0, &parameters, &exported_);
    }

    ScratchHome home_;
    Ref<NSData> exported_;
};

TEST_F(ExportTest, WhatGoesOutCanComeInAgain)
{
    Ref<NSArray> items;
    ASSERT_EQ(import(defaultKeychain(), ada(), &items), errSecSuccess);
    ASSERT_EQ(exportIt(items), errSecSuccess);
    const auto bundle = kf::keychain::readBundle(exported_->span(), secret("s\xC3\xA9same"));
    ASSERT_TRUE(bundle);
    const auto original = parsed(ada());
    EXPECT_EQ(bundle->key.privateValue, original.key.privateValue);
    EXPECT_EQ(bundle->leaf.der, original.leaf.der);
    ASSERT_EQ(bundle->chain.size(), original.chain.size());
    for (std::size_t index = 0; index < original.chain.size(); ++index)
        EXPECT_EQ(bundle->chain[index].der, original.chain[index].der);
    EXPECT_EQ(kf::keychain::readBundle(exported_->span(), secret("sesame")).status(), errSecPkcs12VerifyFailure);
}

TEST_F(ExportTest, AnIdentityAloneGoesWithoutChain)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    ASSERT_EQ(exportIt(identities().at(0)), errSecSuccess);
    const auto bundle = kf::keychain::readBundle(exported_->span(), secret("s\xC3\xA9same"));
    ASSERT_TRUE(bundle);
    EXPECT_TRUE(bundle->chain.empty());
}

TEST_F(ExportTest, RefusesWhatItCannotExport)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    const auto identity = identities().at(0);
    const auto parameters = withPassphrase("secret");
    EXPECT_EQ(SecKeychainItemExport(identity, kSecFormatPKCS12, 0, &parameters, nullptr), errSecParam);
    EXPECT_EQ(SecKeychainItemExport(identity, kSecFormatPKCS12, 0, nullptr, &exported_), errSecParam);
    EXPECT_EQ(SecKeychainItemExport(identity, kSecFormatUnknown, 0, &parameters, &exported_), errSecUnknownFormat);
    EXPECT_EQ(exportIt(nullptr), errSecParam);
    EXPECT_EQ(exportIt(NSArray::array()), errSecParam);
    EXPECT_EQ(exportIt(identity->certificate()), errSecParam);
    EXPECT_EQ(exportIt(NSArray::arrayWithObjects({identity->certificate()})), errSecParam);
    EXPECT_EQ(exportIt(NSArray::arrayWithObjects({identity, identity})), errSecParam);
    EXPECT_EQ(exportIt(identity, ""), errSecPassphraseRequired);
    EXPECT_EQ(exportIt(identity, std::string("a\0b", 3)), errSecParam);
    SecKeyImportExportParameters none;
    EXPECT_EQ(SecKeychainItemExport(identity, kSecFormatPKCS12, 0, &none, &exported_), errSecPassphraseRequired);
    none.version = 1;
    EXPECT_EQ(SecKeychainItemExport(identity, kSecFormatPKCS12, 0, &none, &exported_), errSecParam);
    EXPECT_FALSE(exported_);
}

TEST_F(ExportTest, AKeyThatIsGoneIsTold)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    const auto identity = identities().at(0);
    ASSERT_EQ(SecKeychainItemDelete(identity->privateKey()), errSecSuccess);
    EXPECT_EQ(exportIt(identity), errSecInvalidItemRef);
}

TEST_F(ExportTest, AKeychainThatCannotBeOpenedIsTold)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    const auto identity = identities().at(0);
    const auto faults = std::make_shared<FaultBackend>(kf::keychain::backend());
    const ScopedBackend scoped(faults);
    faults->arm(Operation::open, 1, errSecIO);
    EXPECT_EQ(exportIt(identity), errSecIO);
    EXPECT_TRUE(faults->fired());
    EXPECT_FALSE(exported_);
    faults->disarm();
    EXPECT_EQ(exportIt(identity), errSecSuccess);
}

TEST_F(ExportTest, AKeyThatCannotBeReadIsTold)
{
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    const auto identity = identities().at(0);
    const auto faults = std::make_shared<FaultBackend>(kf::keychain::backend());
    const ScopedBackend scoped(faults);
    faults->arm(Operation::privateKeyInfo, 1, errSecIO);
    EXPECT_EQ(exportIt(identity), errSecIO);
    EXPECT_TRUE(faults->fired());
    EXPECT_FALSE(exported_);
    faults->disarm();
    EXPECT_EQ(exportIt(identity), errSecSuccess);
}

TEST_F(ExportTest, MemoryGivesNoKeyAway)
{
    const ScopedBackend scoped(std::make_shared<MemoryBackend>());
    ASSERT_EQ(import(defaultKeychain(), ada()), errSecSuccess);
    EXPECT_EQ(exportIt(identities().at(0)), errSecUnimplemented);
}

} // namespace
