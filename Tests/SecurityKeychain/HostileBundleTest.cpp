// Bundles that are damaged inside, ask for too much, or come without the usual seal.
#include "HandmadeBundle.h"

#include <ctime>
#include <gmock/gmock.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/pkcs7.h>

namespace {

namespace fs = std::filesystem;
using kf::keychain::mostBundleCertificates;
using kf::keychain::mostBundleKeys;
using kf::keychain::readBundle;
using kf::test::ada;
using kf::test::authority;
using kf::test::BundleOptions;
using kf::test::Bytes;
using kf::test::certify;
using kf::test::defaultKeychain;
using kf::test::grace;
using kf::test::Handmade;
using kf::test::import;
using kf::test::KeyKind;
using kf::test::mustRun;
using kf::test::readFile;
using kf::test::readKey;
using kf::test::secret;
using kf::test::statusOf;
using testing::SizeIs;

/// How long something keeps the processor busy, in seconds.
template <class Work>
double secondsOf(Work work)
{
    const std::clock_t start = std::clock();
    work();
    return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

/// Where `part` stands last in `bytes`.
Bytes::iterator lastPlace(Bytes& bytes, std::span<const std::uint8_t> part)
{
    const auto place = std::find_end(bytes.begin(), bytes.end(), part.begin(), part.end());
    if (place == bytes.end())
        throw std::runtime_error("a fixture lacks what is to be changed in it");
    return place;
}

// --- Too many certificates and keys ---

TEST(BundleLimits, AsManyCertificatesAsAreAllowedAreReadAndOneMoreIsTooLarge)
{
    const auto key = readKey(ada().keyFile);
    Handmade bundle;
    bundle.key(key.get()).certificate(ada().leaf);
    for (std::size_t number = 1; number < mostBundleCertificates; ++number)
        bundle.certificate(certify("link " + std::to_string(number), "nobody", key.get()));
    const auto read = readBundle(bundle.seal(), secret(Handmade::passphrase));
    ASSERT_TRUE(read) << read.status();
    EXPECT_THAT(read->chain, SizeIs(mostBundleCertificates - 1));
    EXPECT_EQ(statusOf(bundle.certificate(ada().leaf).seal()), errSecDataTooLarge);
}

TEST(BundleLimits, MoreKeysThanAreAllowedAreTooLargeThoughAllAreTheSame)
{
    Handmade bundle;
    bundle.certificate(ada().leaf);
    for (std::size_t number = 0; number < mostBundleKeys; ++number)
        bundle.key(ada().keyFile);
    EXPECT_EQ(statusOf(bundle.seal()), errSecSuccess);
    EXPECT_EQ(statusOf(bundle.key(ada().keyFile).seal()), errSecDataTooLarge);
}

TEST(BundleLimits, ThousandsOfCertificatesAreRefusedBeforeTheyAreRead)
{
    Handmade bundle;
    bundle.key(ada().keyFile);
    for (int number = 0; number < 5000; ++number)
        bundle.certificate(ada().leaf);
    const Bytes sealed = bundle.seal();
    EXPECT_LT(secondsOf([&] { EXPECT_EQ(statusOf(sealed), errSecDataTooLarge); }), 1.0);
}

TEST(BundleLimits, TheTextSaysWhatIsTooLarge)
{
    const auto text = toUTF8(SecCopyErrorMessageString(errSecDataTooLarge, nullptr));
    EXPECT_THAT(text, testing::HasSubstr("too many certificates"));
    EXPECT_THAT(text, testing::HasSubstr("too much time or memory"));
}

// --- Leaf and chain ---

TEST(BundleChain, RunsUpFromTheLeafHoweverTheBundleIsOrdered)
{
    const auto key = readKey(ada().keyFile);
    const auto name = [](int number) { return "link " + std::to_string(number); };
    constexpr int links = 40;
    std::vector<Bytes> expected;
    for (int number = 1; number <= links; ++number)
        expected.push_back(certify(name(number), name(number + 1), key.get()));
    Handmade bundle;
    bundle.key(key.get()).tied({1});
    for (int step = 0; step < links; ++step)
        bundle.certificate(expected[static_cast<std::size_t>(step * 7 % links)]);
    const Bytes stray = certify("stray", "nobody", key.get());
    bundle.certificate(stray).certificate(certify("leaf", name(1), key.get())).tied({1});
    expected.push_back(stray);
    const auto read = readBundle(bundle.seal(), secret(Handmade::passphrase));
    ASSERT_TRUE(read) << read.status();
    EXPECT_EQ(read->leaf.label, "leaf");
    ASSERT_THAT(read->chain, SizeIs(expected.size()));
    for (std::size_t place = 0; place < expected.size(); ++place)
        EXPECT_EQ(read->chain[place].der, expected[place]) << place;
}

TEST(BundleChain, OfSeveralAuthoritiesWithOneNameTheFirstInTheBundleComesFirst)
{
    const auto key = readKey(ada().keyFile);
    const Bytes first = certify("authority", "nobody", key.get());
    const Bytes second = certify("authority", "nobody", key.get());
    ASSERT_NE(first, second);
    const auto read = readBundle(Handmade()
                                     .key(key.get())
                                     .certificate(certify("leaf", "authority", key.get()))
                                     .certificate(first)
                                     .certificate(second)
                                     .seal(),
        secret(Handmade::passphrase));
    ASSERT_TRUE(read) << read.status();
    ASSERT_THAT(read->chain, SizeIs(2));
    EXPECT_EQ(read->chain[0].der, first);
    EXPECT_EQ(read->chain[1].der, second);
}

// --- Damaged keys ---

class DamagedKey : public testing::Test {
protected:
    /// What the import says; it must not have made a keychain.
    OSStatus imported(const Bytes& bundle)
    {
        const OSStatus status = import(defaultKeychain(), bundle, "correct horse"_ns);
        EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
        return status;
    }
    OSStatus imported(const Handmade& bundle) { return imported(bundle.seal()); }

    kf::test::ScratchHome home_;
};

const kf::test::Bundle& rsa()
{
    static const kf::test::Bundle bundle = [] {
        BundleOptions options;
        options.key = KeyKind::rsa2048;
        return authority().issue(options);
    }();
    return bundle;
}

struct ParamsDeleter {
    void operator()(OSSL_PARAM* params) const noexcept { OSSL_PARAM_free(params); }
};

/// An RSA key with one bit of one of its numbers turned.
kf::ScopedEVP_PKEY bentRSA(const std::string& number)
{
    const auto whole = readKey(rsa().keyFile);
    OSSL_PARAM* params = nullptr;
    EXPECT_EQ(EVP_PKEY_todata(whole.get(), EVP_PKEY_KEYPAIR, &params), 1);
    const std::unique_ptr<OSSL_PARAM, ParamsDeleter> owner(params);
    OSSL_PARAM* const bent = OSSL_PARAM_locate(params, number.c_str());
    EXPECT_NE(bent, nullptr) << number;
    static_cast<std::uint8_t*>(bent->data)[1] ^= 0x04U;
    const kf::ScopedEVP_PKEY_CTX context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    EXPECT_EQ(EVP_PKEY_fromdata_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, params), 1);
    return kf::ScopedEVP_PKEY(key);
}

TEST_F(DamagedKey, AnRSAKeyIsDamagedWhicheverOfItsNumbersIs)
{
    for (const char* number : {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_D,
             OSSL_PKEY_PARAM_RSA_FACTOR1, OSSL_PKEY_PARAM_RSA_FACTOR2, OSSL_PKEY_PARAM_RSA_EXPONENT1,
             OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1})
        EXPECT_EQ(imported(Handmade().key(bentRSA(number).get()).certificate(rsa().leaf)), errSecDecode) << number;
}

TEST_F(DamagedKey, AnECKeyWhosePointIsOffTheCurveIsDamaged)
{
    Bytes pkcs8 = ada().privateKey;
    pkcs8.back() ^= 1U;
    EXPECT_EQ(imported(Handmade().plainKey(pkcs8).certificate(ada().leaf)), errSecDecode);
}

TEST_F(DamagedKey, AnECKeyWithAnothersPointIsDamaged)
{
    constexpr std::size_t coordinates = 64;
    Bytes pkcs8 = grace().privateKey;
    std::copy(ada().privateKey.end() - coordinates, ada().privateKey.end(), pkcs8.end() - coordinates);
    EXPECT_EQ(imported(Handmade().plainKey(pkcs8).certificate(ada().leaf)), errSecDecode);
}

TEST_F(DamagedKey, AnECKeyWithoutASecretNumberIsDamaged)
{
    // version 1, then the scalar's octets
    constexpr std::array<std::uint8_t, 5> head = {0x02, 0x01, 0x01, 0x04, 0x20};
    Bytes pkcs8 = ada().privateKey;
    std::fill_n(lastPlace(pkcs8, head) + head.size(), 32, std::uint8_t{0});
    EXPECT_EQ(imported(Handmade().plainKey(pkcs8).certificate(ada().leaf)), errSecDecode);
}

TEST_F(DamagedKey, AKeyOfAKindThatTheDatabaseLacksMakesNoKeychain)
{
    BundleOptions options;
    options.key = KeyKind::ed25519;
    const auto bundle = authority().issue(options);
    EXPECT_EQ(imported(bundle.pkcs12), errSecUnsupportedKeyFormat);
}

TEST_F(DamagedKey, AKeyOnACurveThatTheDatabaseLacksIsNotCalledDamaged)
{
    const kf::ScopedEVP_PKEY key(EVP_EC_gen("secp256k1"));
    EXPECT_EQ(imported(Handmade().key(key.get()).certificate(certify("Ada", "nobody", key.get()))),
        errSecUnsupportedKeyFormat);
}

// --- Certificates ---

Bytes chainOf(const Bytes& octets)
{
    return Handmade().plainKey(rsa().privateKey).certificate(rsa().leaf).certificateOctets(octets).open();
}

TEST(BundleCertificate, OfTheChainIsReadWhereOpenSSLReadsItAndElseDamaged)
{
    const Bytes issuer = authority().issuer();
    std::map<OSStatus, int> counts;
    for (std::size_t place = 0; place < issuer.size(); ++place)
        for (const std::uint8_t mask : {std::uint8_t{0x01}, std::uint8_t{0x20}, std::uint8_t{0x80}}) {
            Bytes bent = issuer;
            bent[place] ^= mask;
            const unsigned char* next = bent.data();
            const kf::ScopedX509 decoded(d2i_X509(nullptr, &next, static_cast<long>(bent.size())));
            const bool isWhole =
                decoded && static_cast<bool>(kf::readCertificateFields(kf::test::encoded(decoded.get(), i2d_X509)));
            const OSStatus status = readBundle(chainOf(bent), secret(Handmade::passphrase)).status();
            EXPECT_EQ(status, isWhole ? errSecSuccess : errSecDecode) << place << " ^ " << int{mask};
            ++counts[status];
        }
    EXPECT_GT(counts[errSecSuccess], 100) << "in texts and numbers";
    EXPECT_GT(counts[errSecDecode], 100);
}

TEST(BundleCertificate, WhatStandsBehindItIsNotImported)
{
    Bytes octets = authority().issuer();
    octets.push_back(0);
    const auto bundle = readBundle(chainOf(octets), secret(Handmade::passphrase));
    ASSERT_TRUE(bundle) << bundle.status();
    ASSERT_THAT(bundle->chain, SizeIs(1));
    EXPECT_EQ(bundle->chain[0].der, authority().issuer());
}

TEST(BundleCertificate, OfTheKeyMayHaveExtensionsThatNobodyCanRead)
{
    const auto key = readKey(rsa().keyFile);
    const kf::ScopedASN1_STRING garbage(ASN1_STRING_type_new(V_ASN1_OCTET_STRING));
    ASN1_STRING_set(garbage.get(), "garbage", -1);
    const Bytes certificate = certify("Ada", "nobody", key.get(), [&](X509* made) {
        X509_EXTENSION* const usage = X509_EXTENSION_create_by_NID(nullptr, NID_key_usage, 1, garbage.get());
        EXPECT_EQ(X509_set_version(made, X509_VERSION_3), 1);
        EXPECT_EQ(X509_add_ext(made, usage, -1), 1);
        X509_EXTENSION_free(usage);
    });
    EXPECT_EQ(statusOf(Handmade().plainKey(rsa().privateKey).certificate(certificate).open()), errSecSuccess);
}

TEST(BundleCertificate, OfTheKeysModulusAndAnotherExponentIsNotTheKeys)
{
    const Bytes certificate = certify("Ada", "nobody", bentRSA(OSSL_PKEY_PARAM_RSA_E).get());
    EXPECT_EQ(statusOf(Handmade().plainKey(rsa().privateKey).certificate(certificate).open()), errSecNoCertificate);
}

TEST(BundleKey, BelongsToTheCertificateOfItsPointInTheShortFormToo)
{
    const auto key = readKey(ada().keyFile);
    ASSERT_EQ(EVP_PKEY_set_utf8_string_param(key.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, "compressed"), 1);
    const Bytes certificate = certify("Ada", "nobody", key.get());
    const auto bundle =
        readBundle(Handmade().key(ada().keyFile).certificate(grace().leaf).certificate(certificate).seal(),
            secret(Handmade::passphrase));
    ASSERT_TRUE(bundle) << bundle.status();
    EXPECT_EQ(bundle->leaf.der, certificate);
    EXPECT_NE(kf::readCertificateFields(certificate)->keyId, kf::readCertificateFields(ada().leaf)->keyId);
}

// --- Costly key derivations ---

X509_ALGOR* pbkdf2(int iterations)
{
    return PKCS5_pbe2_set_iv(EVP_aes_256_cbc(), iterations, nullptr, 0, nullptr, NID_hmacWithSHA256);
}

X509_ALGOR* scrypt() { return PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), nullptr, 0, nullptr, 16384, 8, 1); }

/// scrypt's three numbers, as scrypt() encodes them, replaced by others of the same length.
X509_ALGOR* scryptWith(const std::array<std::uint8_t, 4>& numbers)
{
    constexpr std::array<std::uint8_t, 10> usual = {2, 2, 0x40, 0, 2, 1, 8, 2, 1, 1};
    X509_ALGOR* const algorithm = scrypt();
    Bytes der = kf::test::encoded(algorithm, i2d_X509_ALGOR);
    X509_ALGOR_free(algorithm);
    std::ranges::copy(std::array<std::uint8_t, 10>{2, 2, numbers[0], numbers[1], 2, 1, numbers[2], 2, 1, numbers[3]},
        lastPlace(der, usual));
    const unsigned char* place = der.data();
    return d2i_X509_ALGOR(nullptr, &place, static_cast<long>(der.size()));
}

Bytes bundleClaiming(X509_ALGOR* claimed)
{
    return Handmade().key(ada().keyFile, pbkdf2(1), claimed).certificate(ada().leaf).seal();
}

TEST(BundleCost, AScryptKeyOfTheUsualSizeIsRead)
{
    EXPECT_EQ(statusOf(Handmade().key(ada().keyFile, scrypt()).certificate(ada().leaf).seal()), errSecSuccess);
}

TEST(BundleCost, WhatTakesTooMuchTimeOrMemoryIsRefusedAtOnce)
{
    const std::map<std::string, Bytes> bundles = {
        {"seal", Handmade().key(ada().keyFile).certificate(ada().leaf).seal(2'000'000'000)},
        {"PBKDF2", bundleClaiming(pbkdf2(2'000'000'000))},
        {"as old programs encrypt",
            bundleClaiming(PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, 2'000'000'000, nullptr, 0))},
        {"scrypt's memory by its block size", bundleClaiming(scryptWith({0x40, 0, 0x7f, 1}))},
        {"scrypt's time by its lanes", bundleClaiming(scryptWith({0x40, 0, 8, 0x7f}))},
    };
    for (const auto& bundle : bundles)
        for (const char* passphrase : {Handmade::passphrase, "wrong"}) {
            const auto read = [&] { return readBundle(bundle.second, secret(passphrase)).status(); };
            EXPECT_LT(secondsOf([&] { EXPECT_EQ(read(), errSecDataTooLarge); }), 1.0) << bundle.first << passphrase;
        }
}

TEST(BundleCost, ManyDerivationsThatAreEachAffordableAreTooMuchTogether)
{
    Handmade bundle;
    bundle.certificate(ada().leaf);
    for (int number = 0; number < 2; ++number)
        bundle.key(ada().keyFile, pbkdf2(1), pbkdf2(6'000'000));
    // The first of them fails to decrypt, and would end the reading, but for a broken seal.
    Bytes broken = bundle.seal();
    broken[broken.size() - 30] ^= 1U;
    EXPECT_EQ(statusOf(broken), errSecDataTooLarge);
}

TEST(BundleCost, NumbersThatMakeNoSenseAreDamage)
{
    EXPECT_EQ(statusOf(bundleClaiming(scryptWith({0x40, 1, 8, 1}))), errSecDecode);
    EXPECT_EQ(statusOf(bundleClaiming(scryptWith({0x40, 0, 0, 1}))), errSecDecode);
    EXPECT_EQ(statusOf(bundleClaiming(pbkdf2(1))), errSecDecode) << "another salt";
}

// --- Seals ---

Bytes der(std::uint8_t tag, const Bytes& content)
{
    const std::size_t size = content.size();
    const std::array<std::uint8_t, 5> head = {tag, 0x83, static_cast<std::uint8_t>(size >> 16U),
        static_cast<std::uint8_t>(size >> 8U), static_cast<std::uint8_t>(size)};
    Bytes whole(head.size() + size);
    std::ranges::copy(content, std::ranges::copy(head, whole.begin()).out);
    return whole;
}

TEST(BundleSeal, ASignatureInItsPlaceIsUnsupported)
{
    const auto key = readKey(ada().keyFile);
    const Bytes inner = Handmade().key(key.get()).certificate(ada().leaf).open();
    const kf::ScopedBIOChain content(BIO_new_mem_buf(inner.data(), static_cast<int>(inner.size())));
    PKCS7* const signedData =
        PKCS7_sign(kf::test::decoded(ada().leaf).get(), key.get(), nullptr, content.get(), PKCS7_BINARY);
    ASSERT_NE(signedData, nullptr);
    Bytes body = {0x02, 0x01, 0x03};
    const Bytes info = kf::test::encoded(signedData, i2d_PKCS7);
    PKCS7_free(signedData);
    body.insert(body.end(), info.begin(), info.end());
    EXPECT_EQ(statusOf(der(0x30, body)), errSecUnsupportedKeyFormat);
    EXPECT_EQ(statusOf(der(0x30, Bytes(body.begin(), body.end() - 10))), errSecDecode);
}

TEST(BundleSeal, OneOfAKindThatThisSystemLacksIsUnsupported)
{
    constexpr std::array<std::uint8_t, 9> sha256 = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01};
    constexpr std::array<std::uint8_t, 9> pbmac1 = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x05, 0x0e};
    Bytes bundle = ada().pkcs12;
    std::ranges::copy(pbmac1, lastPlace(bundle, sha256));
    EXPECT_EQ(readBundle(bundle, secret(ada().passphrase)).status(), errSecUnsupportedKeyFormat);
}

/// Made by openssl, with more options.
Bytes exported(const std::vector<std::string>& options)
{
    const auto file = authority().directory() / "exported.p12";
    std::vector<std::string> command = {"openssl", "pkcs12", "-export", "-in", ada().certFile, "-inkey", ada().keyFile,
        "-passout", "pass:correct horse", "-out", file};
    command.insert(command.end(), options.begin(), options.end());
    mustRun(command);
    return readFile(file);
}

Bytes unsealed(std::vector<std::string> options)
{
    options.push_back("-nomac");
    return exported(options);
}

TEST(BundleSeal, OfADigestThatOldProgramsUseIsRead)
{
    const Bytes bundle = exported({"-legacy", "-macalg", "md4", "-certpbe", "AES-256-CBC", "-keypbe", "AES-256-CBC"});
    const auto read = readBundle(bundle, secret("correct horse"));
    ASSERT_TRUE(read) << read.status();
    EXPECT_EQ(read->leaf.der, ada().leaf);
    EXPECT_EQ(readBundle(bundle, secret("wrong")).status(), errSecPkcs12VerifyFailure);
}

TEST(BundleSeal, ABundleWithoutOneIsReadAndItsPassphraseProvenByWhatItOpens)
{
    const Bytes bundle = unsealed({});
    const auto read = readBundle(bundle, secret("correct horse"));
    ASSERT_TRUE(read) << read.status();
    EXPECT_EQ(read->leaf.der, ada().leaf);
    EXPECT_EQ(readBundle(bundle, secret("wrong")).status(), errSecPkcs12VerifyFailure);
    EXPECT_EQ(readBundle(bundle, secret("")).status(), errSecPkcs12VerifyFailure);
    EXPECT_EQ(readBundle(std::span(bundle).first(bundle.size() - 9), secret("correct horse")).status(), errSecDecode);
}

TEST(BundleSeal, DamageInABundleWithoutOneIsNotTakenForTheWrongPassphrase)
{
    Bytes bundle = unsealed({"-certpbe", "NONE", "-keypbe", "NONE"});
    ASSERT_EQ(statusOf(bundle), errSecSuccess);
    *lastPlace(bundle, std::span(ada().leaf).subspan(8, 5)) ^= 0x20U; // the certificate's version
    EXPECT_EQ(statusOf(bundle), errSecDecode);
}

} // namespace
