// What the tests of the keychain tools share.
#pragma once

#include "Foundation/NSLog.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Tests/Keychain/PlatformCalls.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>

namespace kf::test {

/// One authority for the whole program: making one takes a while.
inline Authority& authority()
{
    static Authority authority;
    return authority;
}

inline Ref<NSData> dataOf(const Bytes& bytes) { return NSData::dataWithBytes(bytes); }

inline Ref<NSString> platformText(OSStatus status) { return SecCopyErrorMessageString(status, nullptr); }

/// A line that ends in a status's text.
inline std::string lineOf(const std::string& beginning, OSStatus status)
{
    return beginning + toUTF8(platformText(status));
}

inline SecCertificateRef certificateOf(const Bytes& der)
{
    const CSSM_DATA data{der.size(), const_cast<std::uint8_t*>(der.data())};
    SecCertificateRef certificate;
    if (SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate) != errSecSuccess)
        throw std::runtime_error("a fixture is no certificate");
    return certificate;
}

/// Keychains in memory: the default one and the System keychain, both empty.
/// The log is captured; platform calls that were replaced are put back.
class KeychainTest : public testing::Test {
protected:
    KeychainTest()
    {
        memory_->create(defaultPath());
        memory_->create(systemPath());
    }
    ~KeychainTest() override { platformCalls() = {}; }

    std::string defaultPath() const { return home_.defaultKeychain().string(); }
    static std::string systemPath() { return "/Library/Keychains/System.keychain"; }

    static SecKeychainRef keychain(const std::string& path)
    {
        SecKeychainRef keychain;
        EXPECT_EQ(SecKeychainOpen(path.c_str(), &keychain), errSecSuccess);
        return keychain;
    }
    static void addCertificate(const Bytes& der, const std::string& path)
    {
        ASSERT_EQ(SecCertificateAddToKeychain(certificateOf(der), keychain(path)), errSecSuccess);
    }
    void importBundle(const Bundle& bundle)
    {
        SecExternalFormat format = kSecFormatPKCS12;
        SecExternalItemType type = kSecItemTypeAggregate;
        SecKeyImportExportParameters parameters;
        parameters.passphrase = NSString::sensitiveStringWithUTF8String(bundle.passphrase);
        Ref<NSArray> items;
        ASSERT_EQ(SecKeychainItemImport(
                      dataOf(bundle.pkcs12), nullptr, &format, &type, 0, &parameters, keychain(defaultPath()), &items),
            errSecSuccess);
    }
    static std::vector<Bytes> certificatesIn(const Ref<NSArray>& items)
    {
        std::vector<Bytes> found;
        for (const auto& object : *items) {
            CSSM_DATA data;
            const auto certificate = refCast<SecCertificate>(object);
            EXPECT_TRUE(certificate);
            EXPECT_EQ(SecCertificateGetData(certificate, &data), errSecSuccess);
            found.emplace_back(data.Data, data.Data + data.Length);
        }
        return found;
    }

    ScratchHome home_;
    std::shared_ptr<keychain::MemoryBackend> memory_ = std::make_shared<keychain::MemoryBackend>();
    std::shared_ptr<keychain::FaultBackend> faults_ = std::make_shared<keychain::FaultBackend>(memory_);
    keychain::ScopedBackend scoped_{faults_};
    std::vector<std::string> lines_;
    NSLogObserver observer_{[this](const std::string& line) { lines_.push_back(line); }};
};

} // namespace kf::test
