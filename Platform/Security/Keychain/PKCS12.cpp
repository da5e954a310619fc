#include "Security/Keychain/PKCS12.h"

#include "Security/Keychain/Labels.h"
#include "Security/ScopedOpenSSL.h"

#include <algorithm>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/objects.h>

namespace kf::keychain {

namespace {

using Span = std::span<const std::uint8_t>;

constexpr std::size_t largestBundle = 16U << 20U;
/// Of all key derivations of a bundle together: some seconds. Bundles in use have some thousand to some hundred
/// thousand.
constexpr std::int64_t mostIterations = 10'000'000;
constexpr int deepestNesting = 4;
constexpr int largestRSAKey = 16384;

/// OpenSSL for old and new algorithms, apart from what the rest of the process uses.
class LibraryContext {
public:
    static OSSL_LIB_CTX* get()
    {
        static const LibraryContext instance;
        return instance.context_.get();
    }

private:
    LibraryContext()
        : context_(OSSL_LIB_CTX_new()), current_(OSSL_PROVIDER_load(context_.get(), "default")),
          // Without it RC2, as old programs use it, is reported as unsupported.
          legacy_(OSSL_PROVIDER_load(context_.get(), "legacy"))
    {
    }

    ScopedOSSL_LIB_CTX context_;
    ScopedOSSL_PROVIDER current_;
    ScopedOSSL_PROVIDER legacy_;
};

/// What a bundle's safes hold, taken out.
struct Contents {
    struct Key {
        ScopedEVP_PKEY key;
        Bytes localId;
        std::string friendlyName;
    };
    struct Certificate {
        Bytes der;
        ScopedX509 x509;
        Bytes localId;
        std::string friendlyName;
    };
    std::vector<Key> keys;
    std::vector<Certificate> certificates;
};

// --- What the algorithms cost, and whether they are there ---

std::int64_t numberOf(const ASN1_INTEGER* integer)
{
    std::int64_t number = 0;
    if (!integer || ASN1_INTEGER_get_int64(&number, integer) != 1 || number < 0)
        return mostIterations + 1;
    return number;
}

template <class T>
T* unpackParameter(const X509_ALGOR* algorithm, const ASN1_ITEM* item)
{
    const void* parameter = nullptr;
    int type = 0;
    X509_ALGOR_get0(nullptr, &type, &parameter, algorithm);
    if (type != V_ASN1_SEQUENCE || !parameter)
        return nullptr;
    return static_cast<T*>(ASN1_item_unpack(static_cast<const ASN1_STRING*>(parameter), item));
}

int algorithmId(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* object = nullptr;
    X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
    return OBJ_obj2nid(object);
}

bool hasCipher(int id)
{
    const OpenSSLErrorMark mark;
    const ScopedEVP_CIPHER cipher(EVP_CIPHER_fetch(LibraryContext::get(), OBJ_nid2sn(id), nullptr));
    return cipher != nullptr;
}

/// How a safe or a key is encrypted (PKCS#5, or RFC 7292 appendix C).
struct Encryption {
    bool supported = false;
    std::int64_t iterations = 0;
};

std::int64_t scryptCost(const SCRYPT_PARAMS* parameters)
{
    const std::int64_t factors[] = {numberOf(parameters->costParameter), numberOf(parameters->blockSize),
        numberOf(parameters->parallelizationParameter)};
    std::int64_t cost = 1;
    for (const auto factor : factors)
        cost = factor > mostIterations / cost ? mostIterations : cost * std::max<std::int64_t>(factor, 1);
    return cost;
}

Encryption encryptionPBES2(const X509_ALGOR* algorithm)
{
    const ScopedPBE2PARAM scheme(unpackParameter<PBE2PARAM>(algorithm, ASN1_ITEM_rptr(PBE2PARAM)));
    if (!scheme || !hasCipher(algorithmId(scheme->encryption)))
        return {};
    if (algorithmId(scheme->keyfunc) == NID_id_pbkdf2) {
        const ScopedPBKDF2PARAM function(unpackParameter<PBKDF2PARAM>(scheme->keyfunc, ASN1_ITEM_rptr(PBKDF2PARAM)));
        if (!function)
            return {};
        const int prf = function->prf ? algorithmId(function->prf) : NID_hmacWithSHA1;
        return {EVP_PBE_find(EVP_PBE_TYPE_PRF, prf, nullptr, nullptr, nullptr) == 1, numberOf(function->iter)};
    }
    if (algorithmId(scheme->keyfunc) == NID_id_scrypt) {
        const ScopedSCRYPT_PARAMS function(
            unpackParameter<SCRYPT_PARAMS>(scheme->keyfunc, ASN1_ITEM_rptr(SCRYPT_PARAMS)));
        return function ? Encryption{true, scryptCost(function.get())} : Encryption{};
    }
    return {};
}

Encryption encryptionOf(const X509_ALGOR* algorithm)
{
    const int id = algorithmId(algorithm);
    if (id == NID_pbes2)
        return encryptionPBES2(algorithm);
    int cipher = NID_undef;
    if (EVP_PBE_find(EVP_PBE_TYPE_OUTER, id, &cipher, nullptr, nullptr) != 1 || !hasCipher(cipher))
        return {};
    const ScopedPBEPARAM parameters(unpackParameter<PBEPARAM>(algorithm, ASN1_ITEM_rptr(PBEPARAM)));
    return {parameters != nullptr, parameters ? numberOf(parameters->iter) : 0};
}

// --- Opening the safes ---

Bytes localIdOf(const PKCS12_SAFEBAG* bag)
{
    const ASN1_TYPE* attribute = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
    if (!attribute || attribute->type != V_ASN1_OCTET_STRING)
        return {};
    const ASN1_OCTET_STRING* octets = attribute->value.octet_string;
    const auto* bytes = ASN1_STRING_get0_data(octets);
    return {bytes, bytes + ASN1_STRING_length(octets)};
}

std::string friendlyNameOf(PKCS12_SAFEBAG* bag)
{
    const ScopedOpenSSLText name(PKCS12_get_friendlyname(bag));
    return name ? std::string(name.get()) : std::string();
}

Bytes derOf(const X509* certificate)
{
    const int length = i2d_X509(certificate, nullptr);
    Bytes der(length > 0 ? static_cast<std::size_t>(length) : 0);
    unsigned char* place = der.data();
    if (length > 0)
        i2d_X509(certificate, &place);
    return der;
}

/// Takes everything out of a bundle that one pass phrase opens. Where `isTrial`
/// is set, what cannot be opened is passed over, to see whether anything can.
class SafeReader {
public:
    SafeReader(const char* passphrase, int length, bool isTrial) noexcept
        : passphrase_(passphrase), length_(length), isTrial_(isTrial)
    {
    }

    Status read(const PKCS12* pkcs12)
    {
        const ScopedPKCS7Stack safes(PKCS12_unpack_authsafes(pkcs12));
        if (!safes)
            return Failure{errSecDecode};
        for (int index = 0; index < sk_PKCS7_num(safes.get()); ++index)
            if (const auto read = readSafe(sk_PKCS7_value(safes.get(), index)); !read && !passOver(read))
                return read;
        return {};
    }

    /// Whether anything encrypted was opened.
    bool openedAny() const noexcept { return opened_ > 0; }
    /// Whether a safe or a key is encrypted in a way that this system lacks.
    bool metUnsupported() const noexcept { return metUnsupported_; }
    Contents takeContents() noexcept { return std::move(contents_); }

private:
    bool passOver(const Status& failure) const { return isTrial_ && failure.status() != errSecDataTooLarge; }

    Status readSafe(PKCS7* safe)
    {
        if (PKCS7_type_is_data(safe)) {
            const ScopedSafeBagStack bags(PKCS12_unpack_p7data(safe));
            return bags ? readBags(bags.get(), 0) : Status(Failure{errSecDecode});
        }
        if (!PKCS7_type_is_encrypted(safe) || !safe->d.encrypted) {
            metUnsupported_ = true;
            return Failure{errSecUnsupportedKeyFormat};
        }
        const PKCS7_ENC_CONTENT* content = safe->d.encrypted->enc_data;
        if (!content || !content->algorithm || !content->enc_data)
            return Failure{errSecDecode};
        if (const auto affordable = pay(content->algorithm); !affordable)
            return affordable;
        const ScopedSafeBagStack bags(static_cast<STACK_OF(PKCS12_SAFEBAG)*>(
            PKCS12_item_decrypt_d2i_ex(content->algorithm, ASN1_ITEM_rptr(PKCS12_SAFEBAGS), passphrase_, length_,
                content->enc_data, 1, LibraryContext::get(), nullptr)));
        if (!bags)
            return Failure{errSecDecode};
        ++opened_;
        return readBags(bags.get(), 0);
    }

    Status readBags(const STACK_OF(PKCS12_SAFEBAG) * bags, int depth)
    {
        for (int index = 0; index < sk_PKCS12_SAFEBAG_num(bags); ++index)
            if (const auto read = readBag(sk_PKCS12_SAFEBAG_value(bags, index), depth); !read && !passOver(read))
                return read;
        return {};
    }

    Status readBag(PKCS12_SAFEBAG* bag, int depth)
    {
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
        case NID_keyBag:
            return readKey(bag, PKCS12_SAFEBAG_get0_p8inf(bag));
        case NID_pkcs8ShroudedKeyBag:
            return readShroudedKey(bag);
        case NID_certBag:
            return readCertificate(bag);
        case NID_safeContentsBag:
            if (depth >= deepestNesting)
                return Failure{errSecDecode};
            return readBags(PKCS12_SAFEBAG_get0_safes(bag), depth + 1);
        default:
            return {}; // revocation lists and secrets of other programs
        }
    }

    Status readShroudedKey(PKCS12_SAFEBAG* bag)
    {
        const X509_SIG* shrouded = PKCS12_SAFEBAG_get0_pkcs8(bag);
        const X509_ALGOR* algorithm = nullptr;
        X509_SIG_get0(shrouded, &algorithm, nullptr);
        if (const auto affordable = pay(algorithm); !affordable)
            return affordable;
        const ScopedPKCS8_PRIV_KEY_INFO info(
            PKCS8_decrypt_ex(shrouded, passphrase_, length_, LibraryContext::get(), nullptr));
        if (!info)
            return Failure{errSecDecode};
        ++opened_;
        return readKey(bag, info.get());
    }

    Status readKey(PKCS12_SAFEBAG* bag, const PKCS8_PRIV_KEY_INFO* info)
    {
        ScopedEVP_PKEY key(EVP_PKCS82PKEY_ex(info, LibraryContext::get(), nullptr));
        if (!key)
            return Failure{errSecUnsupportedKeyFormat};
        contents_.keys.push_back({std::move(key), localIdOf(bag), friendlyNameOf(bag)});
        return {};
    }

    Status readCertificate(PKCS12_SAFEBAG* bag)
    {
        if (PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate)
            return {};
        ScopedX509 certificate(PKCS12_SAFEBAG_get1_cert(bag));
        if (!certificate)
            return Failure{errSecDecode};
        Bytes der = derOf(certificate.get());
        if (!readCertificateFields(der))
            return Failure{errSecDecode};
        contents_.certificates.push_back({std::move(der), std::move(certificate), localIdOf(bag), friendlyNameOf(bag)});
        return {};
    }

    /// Refuses what this system lacks, and what would keep it busy for minutes.
    Status pay(const X509_ALGOR* algorithm)
    {
        const Encryption encryption = encryptionOf(algorithm);
        if (!encryption.supported) {
            metUnsupported_ = true;
            return Failure{errSecUnsupportedKeyFormat};
        }
        if (encryption.iterations > mostIterations - iterations_)
            return Failure{errSecDataTooLarge};
        iterations_ += encryption.iterations;
        return {};
    }

    const char* passphrase_;
    int length_;
    bool isTrial_;
    bool metUnsupported_ = false;
    int opened_ = 0;
    std::int64_t iterations_ = 0;
    Contents contents_;
};

/// The bundle's outermost structure: SEQUENCE { version 3, ... }. Tells a damaged bundle from something else.
bool looksLikeBundle(Span data)
{
    if (data.size() < 2 || data[0] != 0x30)
        return false;
    const std::size_t head = data[1] <= 0x80 ? 2 : 2 + (data[1] & 0x7fU);
    constexpr std::array<std::uint8_t, 3> version = {0x02, 0x01, 0x03};
    return data.size() >= head + version.size() && std::ranges::equal(data.subspan(head, version.size()), version);
}

Result<ScopedPKCS12> decodeBundle(Span data)
{
    if (data.empty())
        return Failure{errSecDataNotAvailable};
    if (data.size() > largestBundle)
        return Failure{errSecDataTooLarge};
    if (!looksLikeBundle(data))
        return Failure{errSecUnknownFormat};
    PKCS12* decoded = PKCS12_init_ex(NID_pkcs7_data, LibraryContext::get(), nullptr);
    if (!decoded)
        return Failure{errSecAllocate};
    const unsigned char* place = data.data();
    // On failure it frees what it was given.
    if (!d2i_PKCS12(&decoded, &place, static_cast<long>(data.size())))
        return Failure{errSecDecode};
    ScopedPKCS12 bundle(decoded);
    if (place != data.data() + data.size())
        return Failure{errSecDecode};
    return bundle;
}

enum class Seal : std::uint8_t { intact, broken, absent };

Result<Seal> checkSeal(PKCS12* bundle, const char* passphrase, int length)
{
    if (PKCS12_mac_present(bundle) != 1)
        return Seal::absent;
    const X509_ALGOR* algorithm = nullptr;
    const ASN1_INTEGER* iterations = nullptr;
    PKCS12_get0_mac(nullptr, &algorithm, nullptr, &iterations, bundle);
    if (iterations && numberOf(iterations) > mostIterations)
        return Failure{errSecDataTooLarge};
    const ScopedEVP_MD digest(EVP_MD_fetch(LibraryContext::get(), OBJ_nid2sn(algorithmId(algorithm)), nullptr));
    if (!digest)
        return Failure{errSecUnsupportedKeyFormat};
    return PKCS12_verify_mac(bundle, passphrase, length) == 1 ? Seal::intact : Seal::broken;
}

/// Everything in the bundle, its integrity proven. A broken seal comes from the wrong pass phrase or from damage:
/// where anything opens, the pass phrase was right.
Result<Contents> openBundle(PKCS12* bundle, const char* passphrase, int length)
{
    const auto seal = checkSeal(bundle, passphrase, length);
    if (!seal)
        return seal.failure();
    SafeReader reader(passphrase, length, *seal == Seal::broken);
    const auto read = reader.read(bundle);
    if (*seal == Seal::broken) {
        if (!read)
            return read.failure();
        if (reader.openedAny())
            return Failure{errSecDecode};
        return Failure{reader.metUnsupported() ? errSecUnsupportedKeyFormat : errSecPkcs12VerifyFailure};
    }
    if (!read)
        return Failure{*seal == Seal::absent && read.status() == errSecDecode && !reader.openedAny()
                ? errSecPkcs12VerifyFailure
                : read.status()};
    return reader.takeContents();
}

// --- Taking the key apart ---

template <class Vector>
bool appendNumber(const EVP_PKEY* key, const char* name, Vector& bytes, int width = 0)
{
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &number) != 1)
        return false;
    const ScopedSecretBIGNUM owner(number);
    const int length = std::max(width, BN_num_bytes(number));
    bytes.resize(static_cast<std::size_t>(length));
    return BN_bn2binpad(number, bytes.data(), length) == length;
}

Status takeRSA(const EVP_PKEY* source, PrivateKey& key)
{
    if (EVP_PKEY_get_bits(source) > largestRSAKey)
        return Failure{errSecUnsupportedKeySize};
    SecretBytes thirdPrime;
    if (appendNumber(source, OSSL_PKEY_PARAM_RSA_FACTOR3, thirdPrime))
        return Failure{errSecUnsupportedKeyFormat};
    key.kind = PrivateKey::Kind::rsa;
    if (!appendNumber(source, OSSL_PKEY_PARAM_RSA_N, key.publicValue)
        || !appendNumber(source, OSSL_PKEY_PARAM_RSA_E, key.publicExponent)
        || !appendNumber(source, OSSL_PKEY_PARAM_RSA_D, key.privateValue)
        || !appendNumber(source, OSSL_PKEY_PARAM_RSA_FACTOR1, key.prime1)
        || !appendNumber(source, OSSL_PKEY_PARAM_RSA_FACTOR2, key.prime2)
        || !appendNumber(source, OSSL_PKEY_PARAM_RSA_EXPONENT1, key.exponent1)
        || !appendNumber(source, OSSL_PKEY_PARAM_RSA_EXPONENT2, key.exponent2)
        || !appendNumber(source, OSSL_PKEY_PARAM_RSA_COEFFICIENT1, key.coefficient))
        return Failure{errSecUnsupportedKeyFormat};
    return {};
}

Bytes curveParameters(int curve)
{
    const ASN1_OBJECT* object = OBJ_nid2obj(curve);
    const int length = i2d_ASN1_OBJECT(object, nullptr);
    Bytes der(length > 0 ? static_cast<std::size_t>(length) : 0);
    unsigned char* place = der.data();
    if (length > 0)
        i2d_ASN1_OBJECT(object, &place);
    return der;
}

Status takeEC(EVP_PKEY* source, PrivateKey& key)
{
    char group[80] = {};
    if (EVP_PKEY_get_utf8_string_param(source, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group, nullptr) != 1)
        return Failure{errSecUnsupportedKeyFormat};
    const int curve = OBJ_txt2nid(group);
    if (curve != NID_X9_62_prime256v1 && curve != NID_secp384r1 && curve != NID_secp521r1)
        return Failure{errSecUnsupportedKeyFormat};
    EVP_PKEY_set_utf8_string_param(source, OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, "uncompressed");
    std::size_t length = 0;
    key.publicValue.resize(256);
    if (EVP_PKEY_get_octet_string_param(
            source, OSSL_PKEY_PARAM_PUB_KEY, key.publicValue.data(), key.publicValue.size(), &length)
        != 1)
        return Failure{errSecDecode};
    key.publicValue.resize(length);
    key.kind = PrivateKey::Kind::ec;
    key.parameters = curveParameters(curve);
    if (!appendNumber(source, OSSL_PKEY_PARAM_PRIV_KEY, key.privateValue, (EVP_PKEY_get_bits(source) + 7) / 8))
        return Failure{errSecDecode};
    return {};
}

Status takeKey(EVP_PKEY* source, PrivateKey& key)
{
    switch (EVP_PKEY_get_base_id(source)) {
    case EVP_PKEY_RSA:
        return takeRSA(source, key);
    case EVP_PKEY_EC:
        return takeEC(source, key);
    default:
        return Failure{errSecUnsupportedKeyFormat};
    }
}

/// Whether what the private key signs is what the certificate's public key verifies. Comparing the public halves is
/// not enough: a damaged private half would go unnoticed until it is used.
bool keysFit(EVP_PKEY* privateKey, const X509* certificate)
{
    EVP_PKEY* const publicKey = X509_get0_pubkey(certificate);
    if (!publicKey || EVP_PKEY_eq(publicKey, privateKey) != 1)
        return false;
    constexpr std::array<std::uint8_t, 16> message = {};
    const ScopedEVP_MD_CTX signing(EVP_MD_CTX_new());
    std::size_t length = 0;
    if (EVP_DigestSignInit_ex(signing.get(), nullptr, "SHA256", LibraryContext::get(), nullptr, privateKey, nullptr)
            != 1
        || EVP_DigestSign(signing.get(), nullptr, &length, message.data(), message.size()) != 1)
        return false;
    Bytes signature(length);
    if (EVP_DigestSign(signing.get(), signature.data(), &length, message.data(), message.size()) != 1)
        return false;
    const ScopedEVP_MD_CTX verifying(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit_ex(verifying.get(), nullptr, "SHA256", nullptr, nullptr, publicKey, nullptr) == 1
        && EVP_DigestVerify(verifying.get(), signature.data(), length, message.data(), message.size()) == 1;
}

// --- Putting the bundle together ---

/// The certificate of the key; the one that the bundle itself ties to it, where several fit.
Contents::Certificate* findLeaf(Contents& contents)
{
    const Contents::Key& key = contents.keys.front();
    Contents::Certificate* leaf = nullptr;
    for (auto& certificate : contents.certificates) {
        if (!keysFit(key.key.get(), certificate.x509.get()))
            continue;
        const bool isTied = !key.localId.empty() && certificate.localId == key.localId;
        if (isTied || !leaf)
            leaf = &certificate;
        if (isTied)
            break;
    }
    return leaf;
}

std::string labelOf(const std::string& friendlyName, const CertificateFields& fields)
{
    std::string label = cleanLabel(friendlyName);
    return label.empty() ? cleanLabel(fields.label) : label;
}

BundleCertificate bundleCertificate(const Contents::Certificate& certificate)
{
    const auto fields = readCertificateFields(certificate.der);
    return {certificate.der, fields ? labelOf(certificate.friendlyName, *fields) : std::string()};
}

std::vector<BundleCertificate> chainOf(const Contents& contents, const Contents::Certificate& leaf)
{
    std::vector<const Contents::Certificate*> rest;
    for (const auto& certificate : contents.certificates) {
        const bool isRepeated = certificate.der == leaf.der
            || std::ranges::any_of(rest, [&](const auto* other) { return other->der == certificate.der; });
        if (!isRepeated)
            rest.push_back(&certificate);
    }
    std::vector<BundleCertificate> chain;
    const Contents::Certificate* below = &leaf;
    while (!rest.empty()) {
        auto next = std::ranges::find_if(rest, [&](const auto* candidate) {
            return X509_NAME_cmp(X509_get_subject_name(candidate->x509.get()), X509_get_issuer_name(below->x509.get()))
                == 0;
        });
        if (next == rest.end())
            next = rest.begin();
        below = *next;
        chain.push_back(bundleCertificate(*below));
        rest.erase(next);
    }
    return chain;
}

Result<Bundle> assemble(Contents contents)
{
    if (contents.keys.empty() || contents.certificates.empty())
        return Failure{errSecDataNotAvailable};
    const auto& first = contents.keys.front();
    if (!std::ranges::all_of(
            contents.keys, [&](const auto& key) { return EVP_PKEY_eq(key.key.get(), first.key.get()) == 1; }))
        return Failure{errSecMultiplePrivKeys};
    Bundle bundle;
    if (const auto taken = takeKey(first.key.get(), bundle.key); !taken)
        return taken.failure();
    const auto* leaf = findLeaf(contents);
    if (!leaf)
        return Failure{errSecNoCertificate};
    const auto fields = readCertificateFields(leaf->der);
    if (!fields)
        return fields.failure();
    bundle.leaf = {leaf->der, labelOf(leaf->friendlyName.empty() ? first.friendlyName : leaf->friendlyName, *fields)};
    bundle.key.id.assign(fields->keyId.begin(), fields->keyId.end());
    bundle.key.subject.assign(fields->subject.begin(), fields->subject.end());
    bundle.key.label = bundle.leaf.label;
    bundle.chain = chainOf(contents, *leaf);
    return bundle;
}

} // namespace

Result<Bundle> readBundle(Span data, Span passphrase)
{
    const OpenSSLErrorMark mark;
    const auto bundle = decodeBundle(data);
    if (!bundle)
        return bundle.failure();
    // OpenSSL reads a pass phrase's bytes as UTF-8 where RFC 7292 wants a BMPString; some of its calls want a
    // terminator.
    SecretBytes terminated(passphrase.begin(), passphrase.end());
    terminated.push_back(0);
    const char* text = reinterpret_cast<const char*>(terminated.data());
    auto contents = openBundle(bundle->get(), text, static_cast<int>(passphrase.size()));
    // "No pass phrase" has two encodings: the empty text and nothing at all.
    if (passphrase.empty() && contents.status() == errSecPkcs12VerifyFailure)
        contents = openBundle(bundle->get(), nullptr, 0);
    if (!contents)
        return contents.failure();
    return assemble(std::move(*contents));
}

} // namespace kf::keychain
