// Reading PKCS#12 bundles that openssl made, and telling apart what is wrong with others.
#include "KeychainFixture.h"
#include "Security/ScopedOpenSSL.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <openssl/pem.h>

namespace {

using kf::keychain::PrivateKey;
using kf::keychain::readBundle;
using kf::test::ada;
using kf::test::authority;
using kf::test::BundleOptions;
using kf::test::Bytes;
using kf::test::grace;
using kf::test::KeyKind;
using kf::test::secret;
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

OSStatus statusOf(const kf::test::Bundle& bundle)
{
    return readBundle(bundle.pkcs12, secret(bundle.passphrase)).status();
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

/// A bundle that no sensible program makes, put together by hand.
class Handmade {
public:
    Handmade& key(const std::filesystem::path& file)
    {
        const ScopedFile pem(std::fopen(file.c_str(), "r"));
        const kf::ScopedEVP_PKEY key(PEM_read_PrivateKey(pem.get(), nullptr, nullptr, nullptr));
        EXPECT_NE(
            PKCS12_add_key(&bags_, key.get(), 0, 2048, NID_pbe_WithSHA1And3_Key_TripleDES_CBC, passphrase), nullptr);
        return *this;
    }
    Handmade& certificate(const Bytes& der)
    {
        const unsigned char* place = der.data();
        const kf::ScopedX509 certificate(d2i_X509(nullptr, &place, static_cast<long>(der.size())));
        EXPECT_NE(PKCS12_add_cert(&bags_, certificate.get()), nullptr);
        return *this;
    }
    /// Seals it; the seal then claims to have taken `iterations` rounds, where that is not 0.
    Bytes seal(long iterations = 0)
    {
        const kf::ScopedSafeBagStack bags(bags_);
        STACK_OF(PKCS7)* safes = nullptr;
        EXPECT_EQ(PKCS12_add_safe(&safes, bags.get(), -1, 0, nullptr), 1);
        const kf::ScopedPKCS7Stack owner(safes);
        const kf::ScopedPKCS12 bundle(PKCS12_add_safes(safes, 0));
        EXPECT_EQ(PKCS12_set_mac(bundle.get(), passphrase, -1, nullptr, 0, 2048, nullptr), 1);
        if (iterations != 0) {
            const ASN1_INTEGER* count = nullptr;
            PKCS12_get0_mac(nullptr, nullptr, nullptr, &count, bundle.get());
            ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(count), iterations);
        }
        Bytes der(static_cast<std::size_t>(i2d_PKCS12(bundle.get(), nullptr)));
        unsigned char* place = der.data();
        i2d_PKCS12(bundle.get(), &place);
        return der;
    }

    static constexpr const char* passphrase = "correct horse";

private:
    struct Closer {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    using ScopedFile = std::unique_ptr<std::FILE, Closer>;

    STACK_OF(PKCS12_SAFEBAG) * bags_ = nullptr;
};

OSStatus statusOf(const Bytes& handmade) { return readBundle(handmade, secret(Handmade::passphrase)).status(); }

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

TEST(BundleReading, TooManyIterationsAreRefusedAtOnce)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(statusOf(Handmade().key(ada().keyFile).certificate(ada().leaf).seal(2'000'000'000)), errSecDataTooLarge);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(BundleReading, TheFriendlyNameBecomesTheLabelWithoutColons)
{
    const auto bundle = issue([](auto& options) { options.friendlyName = " Ada: mail "; });
    EXPECT_EQ(readBundle(bundle.pkcs12, secret(bundle.passphrase))->leaf.label, "Ada mail");
}

} // namespace
