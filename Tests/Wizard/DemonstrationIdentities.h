// The identities that the demonstration of the chooser and its picture show.
#pragma once

#include "Security/SecIdentity.h"
#include "Tests/Support/Fixtures.h"

namespace kf::test {

/// One of each kind that a list must cope with.
inline std::vector<BundleOptions> demonstrationIdentities()
{
    return {
        {.commonName = "Mira Member",
            .email = "member@orvane.example",
            .notBefore = "20190101000000Z",
            .notAfter = "20210101000000Z"},
        {.key = KeyKind::rsa2048, .commonName = "Mira Member", .email = "member@orvane.example"},
        {.key = KeyKind::p384,
            .commonName = "Archibald Theophilus Montgomery-Featherstonehaugh of Orvane",
            .email = "archibald.theophilus.montgomery-featherstonehaugh.the.third@mail.department.orvane.example"},
        {.commonName = "Zo\u00EB \u00C5str\u00F6m (\u0417\u043E\u044F)",
            .email = "zoe@orvane.example",
            .emailPlace = EmailPlace::subject},
        {.commonName = "Build robot 7", .emailPlace = EmailPlace::none},
        {.commonName = "\u05DE\u05D9\u05E8\u05D4 \u05DB\u05D4\u05DF (\u05D0\u05D5\u05E8\u05D5\u05D5\u05DF)",
            .email = "mira.cohen@orvane.example"},
        {.commonName = "Mira Member, next year", .email = "member@orvane.example", .notBefore = "20480101000000Z"},
    };
}

/// Imports the bundle into the default keychain. Throws where that fails.
inline SecIdentityRef importIdentity(const Bundle& bundle)
{
    SecKeychainRef keychain;
    SecKeyImportExportParameters parameters;
    parameters.passphrase = NSString::sensitiveStringWithUTF8String(bundle.passphrase);
    Ref<NSArray> items;
    OSStatus status = SecKeychainCopyDefault(&keychain);
    if (status == errSecSuccess)
        status = SecKeychainItemImport(
            NSData::dataWithBytes(bundle.pkcs12), nullptr, nullptr, nullptr, 0, &parameters, keychain, &items);
    if (status != errSecSuccess)
        throw std::runtime_error(toUTF8(SecCopyErrorMessageString(status, nullptr)));
    return items->objectAs<SecIdentity>(0);
}

} // namespace kf::test
