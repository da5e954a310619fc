#include "Security/Keychain/PKCS12.h"

#include "Security/Certificate/DERReader.h"
#include "Security/Certificate/LibraryContext.h"
#include "Security/Keychain/Labels.h"

#include <algorithm>
#include <limits>
#include <list>
#include <map>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/objects.h>
#include <set>

namespace kf::keychain {

namespace {

using Span = std::span<const std::uint8_t>;

constexpr std::size_t largestBundle = 16U << 20U;
/// Of all key derivations of a bundle together: ten seconds at worst. Bundles in use have some thousand to some
/// million.
constexpr std::int64_t mostIterations = 10'000'000;
/// What one scrypt derivation may fill: as much as OpenSSL grants.
constexpr std::int64_t largestScryptMemory = std::int64_t{32} << 20U;
constexpr int deepestNesting = 4;
constexpr int largestRSAKey = 16384;

/// What a bundle's safes hold, taken out.
struct Contents {
    struct Key {
        ScopedEVP_PKEY key;
        Bytes localId;
        std::string friendlyName;
    };
    struct Certificate {
        Bytes der;
        CertificateFields fields; ///< points into the bytes, which stay where they are when this is moved
        ScopedX509_NAME subject;
        ScopedX509_NAME issuer;
        Bytes localId;
        std::string friendlyName;
    };
    std::vector<Key> keys;
    std::vector<Certificate> certificates;
};

// --- What the algorithms cost, and whether they are there ---

/// A count of at least 1, the largest there is where it would not fit; nothing where it is none.
std::optional<std::int64_t> countOf(const ASN1_INTEGER* integer)
{
    if (!integer || ASN1_STRING_type(integer) != V_ASN1_INTEGER)
        return std::nullopt;
    std::int64_t count = 0;
    if (ASN1_INTEGER_get_int64(&count, integer) != 1)
        return std::numeric_limits<std::int64_t>::max();
    return count > 0 ? std::optional(count) : std::nullopt;
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

/// Whether OpenSSL has an algorithm, an old one too. `Owner` frees what `fetch` gives.
template <class Owner, class Fetch>
bool hasAlgorithm(Fetch fetch, int id)
{
    const OpenSSLErrorMark mark;
    const auto isThere = [&] { return Owner(fetch(libraryContext(), OBJ_nid2sn(id), nullptr)) != nullptr; };
    if (isThere())
        return true;
    addOldAlgorithms();
    return isThere();
}

bool hasCipher(int id) { return hasAlgorithm<ScopedEVP_CIPHER>(EVP_CIPHER_fetch, id); }

bool hasDigest(int id) { return hasAlgorithm<ScopedEVP_MD>(EVP_MD_fetch, id); }

/// What a key derivation costs, in iterations.
using Cost = Result<std::int64_t>;

Cost iterationCost(const ASN1_INTEGER* iterations)
{
    const auto count = countOf(iterations);
    return count ? Cost(*count) : Cost(Failure{errSecDecode});
}

/// RFC 7914. One pass over a block is taken for one iteration.
Cost scryptCost(const SCRYPT_PARAMS* parameters)
{
    const auto rounds = countOf(parameters->costParameter);
    const auto blockSize = countOf(parameters->blockSize);
    const auto lanes = countOf(parameters->parallelizationParameter);
    if (!rounds || !blockSize || !lanes)
        return Failure{errSecDecode};
    // None of them can be larger; kept small, their products fit.
    if (std::max({*rounds, *blockSize, *lanes}) > largestScryptMemory / 128
        || 128 * *blockSize * (*rounds + *lanes + 2) > largestScryptMemory)
        return Failure{errSecDataTooLarge};
    // Without a pass phrase it only looks at the numbers.
    if (EVP_PBE_scrypt(nullptr, 0, nullptr, 0, static_cast<std::uint64_t>(*rounds),
            static_cast<std::uint64_t>(*blockSize), static_cast<std::uint64_t>(*lanes), 0, nullptr, 0)
        != 1)
        return Failure{errSecDecode};
    return *rounds * *blockSize * *lanes;
}

/// PKCS#5 (RFC 8018, 6.2).
Cost schemeCost(const X509_ALGOR* algorithm)
{
    const ScopedPBE2PARAM scheme(unpackParameter<PBE2PARAM>(algorithm, ASN1_ITEM_rptr(PBE2PARAM)));
    if (!scheme)
        return Failure{errSecDecode};
    if (!hasCipher(algorithmId(scheme->encryption)))
        return Failure{errSecUnsupportedKeyFormat};
    switch (algorithmId(scheme->keyfunc)) {
    case NID_id_pbkdf2: {
        const ScopedPBKDF2PARAM function(unpackParameter<PBKDF2PARAM>(scheme->keyfunc, ASN1_ITEM_rptr(PBKDF2PARAM)));
        if (!function)
            return Failure{errSecDecode};
        const int prf = function->prf ? algorithmId(function->prf) : NID_hmacWithSHA1;
        if (EVP_PBE_find(EVP_PBE_TYPE_PRF, prf, nullptr, nullptr, nullptr) != 1)
            return Failure{errSecUnsupportedKeyFormat};
        return iterationCost(function->iter);
    }
    case NID_id_scrypt: {
        const ScopedSCRYPT_PARAMS function(
            unpackParameter<SCRYPT_PARAMS>(scheme->keyfunc, ASN1_ITEM_rptr(SCRYPT_PARAMS)));
        return function ? scryptCost(function.get()) : Cost(Failure{errSecDecode});
    }
    default:
        return Failure{errSecUnsupportedKeyFormat};
    }
}

/// What opening a safe or a key costs; errSecUnsupportedKeyFormat where this system cannot.
Cost decryptionCost(const X509_ALGOR* algorithm)
{
    const int id = algorithmId(algorithm);
    if (id == NID_pbes2)
        return schemeCost(algorithm);
    // RFC 7292, appendix C.
    int cipher = NID_undef;
    if (EVP_PBE_find(EVP_PBE_TYPE_OUTER, id, &cipher, nullptr, nullptr) != 1 || !hasCipher(cipher))
        return Failure{errSecUnsupportedKeyFormat};
    const ScopedPBEPARAM parameters(unpackParameter<PBEPARAM>(algorithm, ASN1_ITEM_rptr(PBEPARAM)));
    return parameters ? iterationCost(parameters->iter) : Cost(Failure{errSecDecode});
}

/// What may still be spent on one bundle.
class Budget {
public:
    Status pay(const Cost& cost)
    {
        if (!cost)
            return cost.failure();
        if (*cost > left_)
            return Failure{errSecDataTooLarge};
        left_ -= *cost;
        return {};
    }

private:
    std::int64_t left_ = mostIterations;
};

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

/// UTF-8; empty where there is none. OpenSSL's own call for this loses names that end in a character of three bytes: it
/// takes what is left of the name for the room that is left, so there has to be a terminator.
std::string friendlyNameOf(const PKCS12_SAFEBAG* bag)
{
    const ASN1_TYPE* attribute = PKCS12_SAFEBAG_get0_attr(bag, NID_friendlyName);
    if (!attribute || attribute->type != V_ASN1_BMPSTRING)
        return {};
    const auto* characters = ASN1_STRING_get0_data(attribute->value.bmpstring);
    Bytes terminated(characters, characters + ASN1_STRING_length(attribute->value.bmpstring));
    terminated.insert(terminated.end(), 2, 0);
    const ScopedOpenSSLText text(OPENSSL_uni2utf8(terminated.data(), static_cast<int>(terminated.size())));
    // What is no UTF-16 comes back as bytes of any kind.
    return text && NSString::stringWithUTF8String(text.get()) ? std::string(text.get()) : std::string();
}

/// The bytes of the certificate in a bag; empty where there are none. OpenSSL's own call for this decodes the public
/// key too, in the context of the rest of the process: for each certificate of a chain more work than all else with it.
Bytes certificateIn(const PKCS12_SAFEBAG* bag)
{
    unsigned char* encoded = nullptr;
    const int length = i2d_PKCS12_SAFEBAG(bag, &encoded);
    const ScopedOpenSSLBytes owner(encoded);
    if (length <= 0)
        return {};
    // SafeBag and CertBag (RFC 7292, 4.2): an identifier each, then what it stands for.
    std::optional<DERElement> value = DERReader({encoded, static_cast<std::size_t>(length)}).next(der::sequence);
    for (const int inside : {der::sequence, der::octetString}) {
        if (!value)
            return {};
        DERReader reader(value->content);
        if (!reader.next(der::objectIdentifier))
            return {};
        value = reader.nextContext(0);
        if (value)
            value = DERReader(value->content).next(inside);
    }
    // What may stand behind the certificate is not its own.
    const auto certificate = value ? DERReader(value->content).next(der::sequence) : std::nullopt;
    return certificate ? Bytes(certificate->whole.begin(), certificate->whole.end()) : Bytes();
}

bool isReadable(const std::optional<DERElement>& element, const ASN1_ITEM* item)
{
    if (!element)
        return false;
    const unsigned char* place = element->whole.data();
    ASN1_VALUE* const value = ASN1_item_d2i(nullptr, &place, static_cast<long>(element->whole.size()), item);
    const bool isRead = value && place == element->whole.data() + element->whole.size();
    ASN1_item_free(value, item);
    return isRead;
}

bool isReadableIfThere(const std::optional<DERElement>& wrapped, const ASN1_ITEM* item)
{
    return !wrapped || (wrapped->constructed && isReadable(DERReader(wrapped->content).next(), item));
}

/// Takes a BIT STRING that bears another tag; false where it is none.
bool skipsIdentifier(DERReader& reader, int tag)
{
    const auto identifier = reader.nextContext(tag);
    return !identifier || !identifier->constructed;
}

/// Whether OpenSSL can read what readCertificateFields() passes over, but for the key inside the public key.
bool isWhole(Span der)
{
    DERReader parts(DERReader(der).next()->content);
    DERReader fields(parts.next()->content);
    const auto version = fields.nextContext(0);
    const auto serial = fields.next();
    const auto signedWith = fields.next();
    fields.next(); // the issuer
    const auto validity = fields.next();
    fields.next(); // the subject
    DERReader publicKey(fields.next()->content);
    if (!skipsIdentifier(fields, 1) || !skipsIdentifier(fields, 2))
        return false;
    const auto extensions = fields.nextContext(3);
    return isReadableIfThere(version, ASN1_ITEM_rptr(ASN1_INTEGER)) && isReadable(serial, ASN1_ITEM_rptr(ASN1_INTEGER))
        && isReadable(signedWith, ASN1_ITEM_rptr(X509_ALGOR)) && isReadable(validity, ASN1_ITEM_rptr(X509_VAL))
        && isReadable(publicKey.next(), ASN1_ITEM_rptr(X509_ALGOR))
        && isReadable(publicKey.next(), ASN1_ITEM_rptr(ASN1_BIT_STRING))
        && isReadableIfThere(extensions, ASN1_ITEM_rptr(X509_EXTENSIONS))
        && isReadable(parts.next(), ASN1_ITEM_rptr(X509_ALGOR))
        && isReadable(parts.next(), ASN1_ITEM_rptr(ASN1_BIT_STRING));
}

ScopedX509_NAME decodeName(Span der)
{
    const unsigned char* place = der.data();
    return ScopedX509_NAME(d2i_X509_NAME(nullptr, &place, static_cast<long>(der.size())));
}

bool isKnownCurve(int curve)
{
    return curve == NID_X9_62_prime256v1 || curve == NID_secp384r1 || curve == NID_secp521r1;
}

/// Whether the database takes keys of this kind, whatever their numbers.
bool isKnownKind(const PKCS8_PRIV_KEY_INFO* info)
{
    const X509_ALGOR* algorithm = nullptr;
    if (PKCS8_pkey_get0(nullptr, nullptr, nullptr, &algorithm, info) != 1)
        return false;
    const void* parameter = nullptr;
    int type = 0;
    X509_ALGOR_get0(nullptr, &type, &parameter, algorithm);
    switch (algorithmId(algorithm)) {
    case NID_rsaEncryption:
        return true;
    case NID_X9_62_id_ecPublicKey:
        return type == V_ASN1_OBJECT && isKnownCurve(OBJ_obj2nid(static_cast<const ASN1_OBJECT*>(parameter)));
    default:
        return false;
    }
}

/// Takes everything out of a bundle that one pass phrase opens. Where `isTrial`
/// is set, what cannot be opened is passed over, to see whether anything can.
class SafeReader {
public:
    SafeReader(const char* passphrase, int length, Budget& budget, bool isTrial) noexcept
        : passphrase_(passphrase), length_(length), budget_(budget), isTrial_(isTrial)
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
    /// Whether the pass phrase failed to open something, and opened nothing.
    bool failedToOpen() const noexcept { return refused_ > 0 && opened_ == 0; }
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
                content->enc_data, 1, libraryContext(), nullptr)));
        ++(bags ? opened_ : refused_);
        return bags ? readBags(bags.get(), 0) : Status(Failure{errSecDecode});
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
            PKCS8_decrypt_ex(shrouded, passphrase_, length_, libraryContext(), nullptr));
        ++(info ? opened_ : refused_);
        return info ? readKey(bag, info.get()) : Status(Failure{errSecDecode});
    }

    Status readKey(PKCS12_SAFEBAG* bag, const PKCS8_PRIV_KEY_INFO* info)
    {
        if (contents_.keys.size() == mostBundleKeys)
            return Failure{errSecDataTooLarge};
        ScopedEVP_PKEY key(EVP_PKCS82PKEY_ex(info, libraryContext(), nullptr));
        if (!key)
            return Failure{isKnownKind(info) ? errSecDecode : errSecUnsupportedKeyFormat};
        contents_.keys.push_back({std::move(key), localIdOf(bag), friendlyNameOf(bag)});
        return {};
    }

    Status readCertificate(PKCS12_SAFEBAG* bag)
    {
        if (PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate)
            return {};
        if (contents_.certificates.size() == mostBundleCertificates)
            return Failure{errSecDataTooLarge};
        Bytes der = certificateIn(bag);
        auto fields = readCertificateFields(der);
        if (!fields || !isWhole(der))
            return Failure{errSecDecode};
        auto subject = decodeName(fields->subject);
        auto issuer = decodeName(fields->issuer);
        if (!subject || !issuer)
            return Failure{errSecDecode};
        contents_.certificates.push_back({std::move(der), std::move(*fields), std::move(subject), std::move(issuer),
            localIdOf(bag), friendlyNameOf(bag)});
        return {};
    }

    /// Refuses what this system lacks, and what would keep it busy for minutes.
    Status pay(const X509_ALGOR* algorithm)
    {
        const auto paid = budget_.pay(decryptionCost(algorithm));
        metUnsupported_ |= paid.status() == errSecUnsupportedKeyFormat;
        return paid;
    }

    const char* passphrase_;
    int length_;
    Budget& budget_;
    bool isTrial_;
    bool metUnsupported_ = false;
    int opened_ = 0;
    int refused_ = 0;
    Contents contents_;
};

bool startsWith(Span data, Span head)
{
    return data.size() >= head.size() && std::ranges::equal(data.first(head.size()), head);
}

/// What follows the head of a SEQUENCE, of indefinite length too; empty where there is none.
Span insideSequence(Span data)
{
    if (data.size() < 2 || data[0] != 0x30)
        return {};
    const std::size_t head = data[1] <= 0x80 ? 2 : 2 + (data[1] & 0x7fU);
    return data.subspan(std::min(head, data.size()));
}

/// The INTEGER 3, which every bundle starts with. Tells a damaged bundle from something else.
constexpr std::array<std::uint8_t, 3> version = {0x02, 0x01, 0x03};

bool looksLikeBundle(Span data) { return startsWith(insideSequence(data), version); }

/// Whether a signature takes the place of the seal (RFC 7292, 3.1); OpenSSL does not tell.
bool isSigned(Span bundle)
{
    constexpr std::array<std::uint8_t, 11> signedData = {
        0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x02};
    return startsWith(insideSequence(insideSequence(bundle).subspan(version.size())), signedData);
}

Result<ScopedPKCS12> decodeBundle(Span data)
{
    if (data.empty())
        return Failure{errSecDataNotAvailable};
    if (data.size() > largestBundle)
        return Failure{errSecDataTooLarge};
    if (!looksLikeBundle(data))
        return Failure{errSecUnknownFormat};
    PKCS12* decoded = PKCS12_init_ex(NID_pkcs7_data, libraryContext(), nullptr);
    if (!decoded)
        return Failure{errSecAllocate};
    const unsigned char* place = data.data();
    // On failure it frees what it was given.
    if (!d2i_PKCS12(&decoded, &place, static_cast<long>(data.size())))
        return Failure{errSecDecode};
    ScopedPKCS12 bundle(decoded);
    if (place != data.data() + data.size())
        return Failure{errSecDecode};
    if (isSigned(data))
        return Failure{errSecUnsupportedKeyFormat};
    return bundle;
}

enum class Seal : std::uint8_t { intact, broken, absent };

Result<Seal> checkSeal(PKCS12* bundle, const char* passphrase, int length, Budget& budget)
{
    if (PKCS12_mac_present(bundle) != 1)
        return Seal::absent;
    const X509_ALGOR* algorithm = nullptr;
    const ASN1_INTEGER* iterations = nullptr;
    PKCS12_get0_mac(nullptr, &algorithm, nullptr, &iterations, bundle);
    if (const auto paid = budget.pay(iterations ? iterationCost(iterations) : Cost(1)); !paid)
        return paid.failure();
    if (!hasDigest(algorithmId(algorithm)))
        return Failure{errSecUnsupportedKeyFormat};
    return PKCS12_verify_mac(bundle, passphrase, length) == 1 ? Seal::intact : Seal::broken;
}

/// Everything in the bundle. A broken seal comes from the wrong pass phrase or from damage: where anything opens, the
/// pass phrase was right. A bundle may lack the seal: then the pass phrase is proven by what it opens.
Result<Contents> openBundle(PKCS12* bundle, const char* passphrase, int length, Budget& budget)
{
    const auto seal = checkSeal(bundle, passphrase, length, budget);
    if (!seal)
        return seal.failure();
    SafeReader reader(passphrase, length, budget, *seal == Seal::broken);
    const auto read = reader.read(bundle);
    if (*seal == Seal::broken) {
        if (!read)
            return read.failure();
        if (reader.openedAny())
            return Failure{errSecDecode};
        return Failure{reader.metUnsupported() ? errSecUnsupportedKeyFormat : errSecPkcs12VerifyFailure};
    }
    if (!read)
        return Failure{*seal == Seal::absent && reader.failedToOpen() ? errSecPkcs12VerifyFailure : read.status()};
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
    if (!isKnownCurve(curve))
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

/// Whether the numbers of an RSA key belong together (RFC 8017, 3.2). Signing would not tell: OpenSSL makes good with
/// some of them what is wrong with others. Its own check proves the primes too, a minute's work for the largest keys.
bool fitTogether(const PrivateKey& key)
{
    const auto number = [&key](Span bytes) {
        // Longer ones would only take time.
        const bool isShort = bytes.size() <= key.publicValue.size();
        return ScopedSecretBIGNUM(isShort ? BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr) : nullptr);
    };
    const auto n = number(key.publicValue);
    const auto e = number(key.publicExponent);
    const auto d = number(key.privateValue);
    const auto p = number(key.prime1);
    const auto q = number(key.prime2);
    const auto dp = number(key.exponent1);
    const auto dq = number(key.exponent2);
    const auto inverse = number(key.coefficient);
    const ScopedSecretBIGNUM result(BN_new());
    const ScopedBN_CTX scratch(BN_CTX_new());
    if (!n || !e || !d || !p || !q || !dp || !dq || !inverse || !result || !scratch)
        return false;
    const auto areInverse = [&](const BIGNUM* a, const BIGNUM* b, const BIGNUM* modulus) {
        return BN_mod_mul(result.get(), a, b, modulus, scratch.get()) == 1 && BN_is_one(result.get());
    };
    const auto fits = [&](const BIGNUM* prime, const BIGNUM* exponent) {
        const ScopedSecretBIGNUM order(BN_dup(prime));
        return order && BN_sub_word(order.get(), 1) == 1 && areInverse(d.get(), e.get(), order.get())
            && BN_nnmod(result.get(), d.get(), order.get(), scratch.get()) == 1 && BN_cmp(result.get(), exponent) == 0;
    };
    return BN_mul(result.get(), p.get(), q.get(), scratch.get()) == 1 && BN_cmp(result.get(), n.get()) == 0
        && fits(p.get(), dp.get()) && fits(q.get(), dq.get()) && areInverse(q.get(), inverse.get(), p.get());
}

/// Whether the key is whole, as far as numbers tell.
bool isSound(EVP_PKEY* source, const PrivateKey& key)
{
    if (key.kind == PrivateKey::Kind::rsa)
        return fitTogether(key);
    const ScopedEVP_PKEY_CTX context(EVP_PKEY_CTX_new_from_pkey(libraryContext(), source, nullptr));
    return context && EVP_PKEY_check(context.get()) == 1;
}

// --- Putting the bundle together ---

/// errSecDecode where the certificate is damaged.
Result<bool> isOfKey(const Contents::Certificate& certificate, const EVP_PKEY* key, const PrivateKey& taken)
{
    // A modulus has one encoding, a point of a curve has several. Decoding is what takes time.
    if (taken.kind == PrivateKey::Kind::rsa && certificate.fields.keyId != sha1(taken.publicValue))
        return false;
    const ScopedX509 decoded = decodeCertificate(certificate.der);
    if (!decoded)
        return Failure{errSecDecode};
    const EVP_PKEY* const publicKey = X509_get0_pubkey(decoded.get());
    return publicKey && EVP_PKEY_eq(publicKey, key) == 1;
}

/// The certificate of the key; the one that the bundle itself ties to it, where several fit.
Result<const Contents::Certificate*> findLeaf(const Contents& contents, const PrivateKey& taken)
{
    const Contents::Key& key = contents.keys.front();
    const Contents::Certificate* leaf = nullptr;
    for (const auto& certificate : contents.certificates) {
        const auto isOurs = isOfKey(certificate, key.key.get(), taken);
        if (!isOurs)
            return isOurs.failure();
        if (!*isOurs)
            continue;
        const bool isTied = !key.localId.empty() && certificate.localId == key.localId;
        if (isTied || !leaf)
            leaf = &certificate;
        if (isTied)
            break;
    }
    if (!leaf)
        return Failure{errSecNoCertificate};
    return leaf;
}

std::string labelOf(const std::string& friendlyName, const CertificateFields& fields)
{
    std::string label = cleanLabel(friendlyName);
    return label.empty() ? cleanLabel(fields.label) : label;
}

/// The other certificates, each once: up from the leaf's issuer, and where that ends, from the first that is left.
std::vector<BundleCertificate> chainOf(const Contents& contents, const Contents::Certificate& leaf)
{
    using Rest = std::list<const Contents::Certificate*>;
    const auto isBefore = [](const X509_NAME* a, const X509_NAME* b) { return X509_NAME_cmp(a, b) < 0; };
    Rest rest;
    std::multimap<const X509_NAME*, Rest::iterator, decltype(isBefore)> bySubject(isBefore);
    std::set<Digest> seen = {sha256(leaf.der)};
    for (const auto& certificate : contents.certificates)
        if (seen.insert(sha256(certificate.der)).second)
            bySubject.emplace(certificate.subject.get(), rest.insert(rest.end(), &certificate));
    std::vector<BundleCertificate> chain;
    const Contents::Certificate* below = &leaf;
    while (!rest.empty()) {
        // Of several with one name, the first in the bundle.
        auto [next, last] = bySubject.equal_range(below->issuer.get());
        if (next == last)
            next = bySubject.lower_bound(rest.front()->subject.get());
        below = *next->second;
        chain.push_back({below->der, labelOf(below->friendlyName, below->fields)});
        rest.erase(next->second);
        bySubject.erase(next);
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
    if (!isSound(first.key.get(), bundle.key))
        return Failure{errSecDecode};
    const auto found = findLeaf(contents, bundle.key);
    if (!found)
        return found.failure();
    const Contents::Certificate* const leaf = *found;
    const CertificateFields& fields = leaf->fields;
    bundle.leaf = {leaf->der, labelOf(leaf->friendlyName.empty() ? first.friendlyName : leaf->friendlyName, fields)};
    bundle.key.id.assign(fields.keyId.begin(), fields.keyId.end());
    bundle.key.subject.assign(fields.subject.begin(), fields.subject.end());
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
    Budget budget;
    auto contents = openBundle(bundle->get(), text, static_cast<int>(passphrase.size()), budget);
    // "No pass phrase" has two encodings: the empty text and nothing at all.
    if (passphrase.empty() && contents.status() == errSecPkcs12VerifyFailure)
        contents = openBundle(bundle->get(), nullptr, 0, budget);
    if (!contents)
        return contents.failure();
    return assemble(std::move(*contents));
}

} // namespace kf::keychain
