// What the keychain's tests share.
#pragma once

#include "Security/Keychain/Index.h"
#include "Security/Keychain/PKCS12.h"
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"
#include "Security/SecKeychainSearch.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"

#include <gtest/gtest.h>

namespace kf::test {

/// One authority for all tests of a program: making it costs more than most tests.
inline Authority& authority()
{
    static Authority instance;
    return instance;
}

/// A member of the default kind.
inline const Bundle& ada()
{
    static const Bundle instance = [] {
        BundleOptions options;
        options.withChain = true;
        return authority().issue(options);
    }();
    return instance;
}

inline const Bundle& grace()
{
    static const Bundle instance = [] {
        BundleOptions options;
        options.commonName = "Grace Example";
        options.email = "grace@orvane.example";
        return authority().issue(options);
    }();
    return instance;
}

/// Two authorities' certificates of the same issuer and serial number, as one that was reissued carelessly.
inline const std::pair<Bytes, Bytes>& twins()
{
    static const std::pair<Bytes, Bytes> instance = [] {
        const auto issue = [](const std::string& name) {
            const auto pem = authority().directory() / (name + ".pem");
            const auto der = authority().directory() / (name + ".der");
            mustRun({"openssl", "req", "-x509", "-new", "-config", authority().directory() / "openssl.cnf", "-key",
                ada().keyFile, "-CA", authority().issuerFile(), "-CAkey", authority().issuerKeyFile(), "-set_serial",
                "4711", "-subj", "/CN=Reissued Authority", "-addext", "nsComment=" + name, "-out", pem});
            mustRun({"openssl", "x509", "-in", pem, "-outform", "DER", "-out", der});
            return readFile(der);
        };
        return std::pair(issue("first"), issue("second"));
    }();
    return instance;
}

inline std::span<const std::uint8_t> secret(const std::string& text) { return keychain::asBytes(text); }

inline keychain::Bundle parsed(const Bundle& bundle)
{
    auto read = keychain::readBundle(bundle.pkcs12, secret(bundle.passphrase));
    if (!read)
        throw std::runtime_error("a fixture cannot be read: " + std::to_string(read.status()));
    return std::move(*read);
}

inline SecKeychainRef keychainAt(const std::string& path)
{
    SecKeychainRef keychain;
    EXPECT_EQ(SecKeychainOpen(path.c_str(), &keychain), errSecSuccess);
    return keychain;
}

inline SecKeychainRef defaultKeychain()
{
    SecKeychainRef keychain;
    EXPECT_EQ(SecKeychainCopyDefault(&keychain), errSecSuccess);
    return keychain;
}

/// Imports as the wizard's page does.
inline OSStatus import(const SecKeychainRef& keychain, std::span<const std::uint8_t> bytes,
    const Ref<NSString>& passphrase, Ref<NSArray>* items = nullptr)
{
    SecKeyImportExportParameters parameters;
    parameters.passphrase = passphrase;
    parameters.keyUsage = CSSM_KEYUSE_ANY;
    parameters.keyAttributes = CSSM_KEYATTR_SENSITIVE | CSSM_KEYATTR_EXTRACTABLE;
    SecExternalFormat format = kSecFormatPKCS12;
    SecExternalItemType type = kSecItemTypeAggregate;
    return SecKeychainItemImport(
        NSData::dataWithBytes(bytes), "p12"_ns, &format, &type, 0, &parameters, keychain, items);
}

inline OSStatus import(const SecKeychainRef& keychain, const Bundle& bundle, Ref<NSArray>* items = nullptr)
{
    return import(keychain, bundle.pkcs12, NSString::sensitiveStringWithUTF8String(bundle.passphrase), items);
}

inline SecCertificateRef looseCertificate(Bytes der)
{
    CSSM_DATA data{der.size(), der.data()};
    SecCertificateRef certificate;
    EXPECT_EQ(
        SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate), errSecSuccess);
    return certificate;
}

/// Every item of a class, and the status that ended the search.
struct Found {
    std::vector<SecKeychainItemRef> items;
    OSStatus end = errSecSuccess;
};

inline Found find(const Ref<NSObject>& keychainOrArray, SecItemClass itemClass, SecKeychainAttrType tag = 0,
    const std::string& value = {})
{
    std::string bytes = value;
    SecKeychainAttribute attribute{tag, static_cast<std::uint32_t>(bytes.size()), bytes.data()};
    SecKeychainAttributeList list{tag ? 1U : 0U, &attribute};
    SecKeychainSearchRef search;
    Found found;
    found.end = SecKeychainSearchCreateFromAttributes(keychainOrArray, itemClass, &list, &search);
    SecKeychainItemRef item;
    while (found.end == errSecSuccess)
        if ((found.end = SecKeychainSearchCopyNext(search, &item)) == errSecSuccess)
            found.items.push_back(item);
    return found;
}

inline std::vector<SecIdentityRef> identities(const Ref<NSObject>& keychainOrArray = nullptr)
{
    SecIdentitySearchRef search;
    EXPECT_EQ(SecIdentitySearchCreate(keychainOrArray, CSSM_KEYUSE_ANY, &search), errSecSuccess);
    std::vector<SecIdentityRef> found;
    SecIdentityRef identity;
    while (SecIdentitySearchCopyNext(search, &identity) == errSecSuccess)
        found.push_back(identity);
    return found;
}

} // namespace kf::test
