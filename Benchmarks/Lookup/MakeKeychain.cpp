// make_keychain DIRECTORY COUNT: an NSS database with that many members' certificates, each tenth with its key. The
// others' moduli are random numbers, which nobody can tell, as lookups decode no key. Member N's address is
// member-N@orvane.example.

#include "Security/Keychain/Store.h"
#include "Security/ScopedOpenSSL.h"

#include <cstdio>
#include <cstdlib>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

using namespace kf;
using namespace kf::keychain;

namespace {

void require(bool condition, const char* what)
{
    if (condition)
        return;
    std::fprintf(stderr, "make_keychain: %s failed\n", what);
    std::exit(1);
}

/// An RSA public key of 2,048 bits to which nobody has the private one.
ScopedEVP_PKEY randomRSA()
{
    const ScopedSecretBIGNUM modulus(BN_new());
    const ScopedSecretBIGNUM exponent(BN_new());
    require(BN_rand(modulus.get(), 2048, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD) == 1, "a random number");
    BN_set_word(exponent.get(), RSA_F4);
    OSSL_PARAM_BLD* const builder = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_N, modulus.get());
    OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_E, exponent.get());
    OSSL_PARAM* const params = OSSL_PARAM_BLD_to_param(builder);
    const ScopedEVP_PKEY_CTX context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context.get());
    require(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params) == 1, "an RSA key");
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(builder);
    return ScopedEVP_PKEY(key);
}

void setName(X509_NAME* name, const std::string& commonName)
{
    const auto add = [name](const char* field, const std::string& value) {
        X509_NAME_add_entry_by_txt(
            name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0);
    };
    add("C", "NO");
    add("O", "Orvane Collegium");
    add("CN", commonName);
}

Bytes certify(int number, EVP_PKEY* key, EVP_PKEY* authority)
{
    const ScopedX509 certificate(X509_new());
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), number + 1);
    setName(X509_get_issuer_name(certificate.get()), "Members");
    setName(X509_get_subject_name(certificate.get()), "Member " + std::to_string(number));
    ASN1_TIME_set(X509_getm_notBefore(certificate.get()), 1'600'000'000);
    ASN1_TIME_set(X509_getm_notAfter(certificate.get()), 2'000'000'000);
    X509_set_pubkey(certificate.get(), key);
    X509V3_CTX context;
    X509V3_set_ctx(&context, nullptr, certificate.get(), nullptr, nullptr, 0);
    const std::string address = "email:member-" + std::to_string(number) + "@orvane.example";
    for (const auto& [kind, value] : {std::pair(NID_basic_constraints, std::string("CA:FALSE")),
             std::pair(NID_key_usage, std::string("digitalSignature,keyEncipherment")),
             std::pair(NID_ext_key_usage, std::string("clientAuth,emailProtection")),
             std::pair(NID_subject_key_identifier, std::string("hash")), std::pair(NID_subject_alt_name, address)}) {
        X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
        require(extension != nullptr, "an extension");
        X509_add_ext(certificate.get(), extension, -1);
        X509_EXTENSION_free(extension);
    }
    require(X509_sign(certificate.get(), authority, EVP_sha256()) > 0, "signing");
    Bytes der(static_cast<std::size_t>(i2d_X509(certificate.get(), nullptr)));
    unsigned char* place = der.data();
    i2d_X509(certificate.get(), &place);
    return der;
}

PrivateKey privateKeyOf(EVP_PKEY* key, const CertificateFields& fields)
{
    PrivateKey result;
    result.kind = PrivateKey::Kind::ec;
    result.id.assign(fields.keyId.begin(), fields.keyId.end());
    result.subject.assign(fields.subject.begin(), fields.subject.end());
    result.label = fields.label;
    result.parameters = {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07}; // P-256
    result.publicValue.resize(65);
    std::size_t length = 0;
    EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, result.publicValue.data(), 65, &length);
    require(length == 65, "a point");
    BIGNUM* number = nullptr;
    require(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &number) == 1, "a scalar");
    const ScopedSecretBIGNUM owner(number);
    result.privateValue.resize(32);
    BN_bn2binpad(number, result.privateValue.data(), 32);
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: make_keychain DIRECTORY COUNT\n");
        return 2;
    }
    const int count = std::stoi(argv[2]);
    const ScopedEVP_PKEY authority(EVP_RSA_gen(2048));
    const auto made = writeDatabase(argv[1], Access::create, [&](Database& database, WriteTurn&) -> Status {
        for (int number = 0; number < count; ++number) {
            const bool hasKey = number % 10 == 0;
            const ScopedEVP_PKEY key = hasKey ? ScopedEVP_PKEY(EVP_EC_gen("P-256")) : randomRSA();
            const Bytes der = certify(number, key.get(), authority.get());
            const auto fields = readCertificateFields(der);
            if (const auto added = database.addCertificate(der, fields->label); !added)
                return added;
            if (!hasKey)
                continue;
            if (const auto added = database.addPrivateKey(privateKeyOf(key.get(), *fields)); !added)
                return added;
        }
        return {};
    });
    require(bool(made), "writing the keychain");
    closeAll();
    return 0;
}
