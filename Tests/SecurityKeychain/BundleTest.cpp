// Reading PKCS#12 bundles that openssl made, and telling apart what is wrong with others.
#include "HandmadeBundle.h"
#include "KeychainFixture.h"

#include <gmock/gmock.h>

namespace {

using kf::keychain::readBundle;
using kf::test::ada;
using kf::test::authority;
using kf::test::BundleOptions;
using kf::test::Bytes;
using kf::test::grace;
using kf::test::Handmade;
using kf::test::KeyKind;
using kf::test::secret;
using kf::test::statusOf;
using testing::SizeIs;

struct Variant {
    const char* name;
    KeyKind key;
    bool legacy;
    bool withChain;
    const char* passphrase;
};

class EveryBundle : public testing::TestWithParam<Variant> {
protected:
    static const kf::test::Bundle& fixture()
    {
        static std::map<std::string, kf::test::Bundle> made;
        const Variant& variant = GetParam();
        auto [place, isNew] = made.try_emplace(variant.name);
        if (isNew) {
            BundleOptions options;
            options.key = variant.key;
            options.legacy = variant.legacy;
            options.withChain = variant.withChain;
            options.passphrase = variant.passphrase;
            place->second = authority().issue(options);
        }
        return place->second;
    }
};

TEST_P(EveryBundle, IsReadWhole)
{
    const auto& bundle = fixture();
    const auto read = readBundle(bundle.pkcs12, secret(bundle.passphrase));
    ASSERT_TRUE(read) << read.status();
    EXPECT_EQ(read->leaf.der, bundle.leaf);
    EXPECT_EQ(read->leaf.label, "Ada Example");
    const auto fields = kf::readCertificateFields(bundle.leaf);
    EXPECT_TRUE(std::ranges::equal(read->key.id, fields->keyId));
    EXPECT_TRUE(std::ranges::equal(read->key.id, kf::sha1(read->key.publicValue)));
    EXPECT_TRUE(std::ranges::equal(read->key.subject, fields->subject));
    if (GetParam().withChain) {
        ASSERT_THAT(read->chain, SizeIs(2));
        EXPECT_EQ(read->chain[0].der, authority().issuer());
        EXPECT_EQ(read->chain[1].der, authority().root());
    } else {
        EXPECT_THAT(read->chain, SizeIs(0));
    }
}

TEST_P(EveryBundle, RefusesAnotherPassphrase)
{
    const auto& bundle = fixture();
    EXPECT_EQ(readBundle(bundle.pkcs12, secret("wrong")).status(), errSecPkcs12VerifyFailure);
}

TEST_P(EveryBundle, TruncatedAnywhereIsDamaged)
{
    const auto& bundle = fixture();
    for (std::size_t size = 8; size < bundle.pkcs12.size(); size += 61)
        EXPECT_EQ(readBundle(std::span(bundle.pkcs12).first(size), secret(bundle.passphrase)).status(), errSecDecode)
            << size;
}

INSTANTIATE_TEST_SUITE_P(Of, EveryBundle,
    testing::Values(Variant{"RSA2048", KeyKind::rsa2048, false, true, "correct horse"},
        Variant{"RSA2048Legacy", KeyKind::rsa2048, true, true, "correct horse"},
        Variant{"RSA4096", KeyKind::rsa4096, false, false, "correct horse"},
        Variant{"P256", KeyKind::p256, false, true, "correct horse"},
        Variant{"P256Legacy", KeyKind::p256, true, false, "correct horse"},
        Variant{"P384", KeyKind::p384, false, false, "correct horse"},
        Variant{"P521", KeyKind::p521, false, false, "correct horse"},
        Variant{"NonASCII", KeyKind::p256, false, false, "pässwörd € 🔑"},
        Variant{"NonASCIILegacy", KeyKind::p256, true, false, "pässwörd € 🔑"},
        Variant{"EmptyPassphrase", KeyKind::p256, false, false, ""}),
    [](const testing::TestParamInfo<Variant>& parameter) { return std::string(parameter.param.name); });

kf::test::Bundle issue(void (*change)(BundleOptions&))
{
    BundleOptions options;
    change(options);
    return authority().issue(options);
}

TEST(BundleReading, TellsWhatIsNoBundleFromADamagedOne)
{
    EXPECT_EQ(readBundle({}, secret("x")).status(), errSecDataNotAvailable);
    EXPECT_EQ(readBundle(secret("this is no bundle at all"), secret("x")).status(), errSecUnknownFormat);
    EXPECT_EQ(readBundle(ada().leaf, secret("x")).status(), errSecUnknownFormat);
    Bytes trailing = ada().pkcs12;
    trailing.push_back(0);
    EXPECT_EQ(readBundle(trailing, secret("correct horse")).status(), errSecDecode);
}

TEST(BundleReading, AFlippedByteIsNeverImportedAndMostlyCalledDamage)
{
    const auto& bundle = grace();
    std::map<OSStatus, int> statuses;
    for (std::size_t place = 0; place < bundle.pkcs12.size(); place += 7) {
        Bytes flipped = bundle.pkcs12;
        flipped[place] ^= 0x55U;
        const auto read = readBundle(flipped, secret(bundle.passphrase));
        ++statuses[read.status()];
    }
    EXPECT_EQ(statuses[errSecSuccess], 0);
    EXPECT_EQ(statuses.count(errSecPkcs12VerifyFailure), 0U);
    EXPECT_GT(statuses[errSecDecode], static_cast<int>(bundle.pkcs12.size() / 7 * 8 / 10));
}

TEST(BundleReading, KeysThatTheDatabaseLacksAreRefused)
{
    EXPECT_EQ(statusOf(issue([](auto& options) { options.key = KeyKind::ed25519; })), errSecUnsupportedKeyFormat);
    EXPECT_EQ(statusOf(issue([](auto& options) { options.key = KeyKind::rsaPSS; })), errSecUnsupportedKeyFormat);
}

TEST(BundleReading, ABundleWithoutKeyOrCertificateHoldsNothing)
{
    EXPECT_EQ(statusOf(issue([](auto& options) { options.withoutKey = true; })), errSecDataNotAvailable);
    EXPECT_EQ(statusOf(issue([](auto& options) { options.withoutCertificate = true; })), errSecDataNotAvailable);
}

TEST(BundleReading, AKeyWithoutItsCertificateIsRefused)
{
    EXPECT_EQ(statusOf(Handmade().key(ada().keyFile).certificate(ada().leaf).seal()), errSecSuccess);
    EXPECT_EQ(statusOf(Handmade().key(ada().keyFile).certificate(grace().leaf).seal()), errSecNoCertificate);
}

TEST(BundleReading, SeveralKeysAreRefusedAndARepeatedOneIsNot)
{
    EXPECT_EQ(statusOf(Handmade().key(ada().keyFile).key(grace().keyFile).certificate(ada().leaf).seal()),
        errSecMultiplePrivKeys);
    EXPECT_EQ(statusOf(Handmade().key(ada().keyFile).key(ada().keyFile).certificate(ada().leaf).seal()), errSecSuccess);
}

TEST(BundleReading, ARepeatedCertificateCountsOnce)
{
    const auto read = readBundle(Handmade()
                                     .key(ada().keyFile)
                                     .certificate(ada().leaf)
                                     .certificate(authority().root())
                                     .certificate(ada().leaf)
                                     .certificate(authority().root())
                                     .seal(),
        secret(Handmade::passphrase));
    ASSERT_TRUE(read) << read.status();
    EXPECT_THAT(read->chain, SizeIs(1));
}

TEST(BundleReading, TheFriendlyNameBecomesTheLabelWithoutColons)
{
    const auto bundle = issue([](auto& options) { options.friendlyName = " Ada: mail "; });
    EXPECT_EQ(readBundle(bundle.pkcs12, secret(bundle.passphrase))->leaf.label, "Ada mail");
}

TEST(BundleReading, AFriendlyNameInAnyScriptBecomesTheLabelAndOneThatIsNoTextDoesNot)
{
    const auto labelOf = [](const Bytes& utf16) {
        const Bytes bundle = Handmade().key(ada().keyFile).certificate(ada().leaf).named(utf16).seal();
        const auto read = readBundle(bundle, secret(Handmade::passphrase));
        return read ? read->leaf.label : std::to_string(read.status());
    };
    EXPECT_EQ(labelOf({0x00, 0xc5, 0x5b, 0x66}), "Å学");
    EXPECT_EQ(labelOf({0x5b, 0x66, 0x00, 0x00}), "学");
    EXPECT_EQ(labelOf({0xd8, 0x3d, 0xdd, 0x11}), "🔑");
    EXPECT_EQ(labelOf({0xd8, 0x3d, 0x00, 0xc5}), "Ada Example");
}

} // namespace
