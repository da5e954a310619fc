// Bundles that no sensible program makes, put together by hand.
#pragma once

#include "KeychainFixture.h"
#include "Security/ScopedOpenSSL.h"

#include <openssl/pem.h>

namespace kf::test {

inline ScopedEVP_PKEY readKey(const std::filesystem::path& file)
{
    const ScopedBIOChain pem(BIO_new_file(file.c_str(), "r"));
    return ScopedEVP_PKEY(PEM_read_bio_PrivateKey(pem.get(), nullptr, nullptr, nullptr));
}

inline ScopedX509 decoded(const Bytes& der)
{
    const unsigned char* place = der.data();
    return ScopedX509(d2i_X509(nullptr, &place, static_cast<long>(der.size())));
}

/// DER of an object of OpenSSL's.
template <class T>
Bytes encoded(const T* object, int (*encode)(const T*, unsigned char**))
{
    Bytes der(static_cast<std::size_t>(encode(object, nullptr)));
    unsigned char* place = der.data();
    encode(object, &place);
    return der;
}

/// A certificate for `key`, which signs it too, whatever its issuer is said to be.
inline Bytes certify(
    const std::string& subject, const std::string& issuer, EVP_PKEY* key,
    const std::function<void(X509*)>& change = [](X509*) {})
{
    const ScopedX509 certificate(X509_new());
    const auto name = [](X509_NAME* place, const std::string& commonName) {
        const auto* text = reinterpret_cast<const unsigned char*>(commonName.c_str());
        X509_NAME_add_entry_by_txt(place, "CN", MBSTRING_UTF8, text, -1, -1, 0);
    };
    name(X509_get_subject_name(certificate.get()), subject);
    name(X509_get_issuer_name(certificate.get()), issuer);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    ASN1_TIME_set(X509_getm_notBefore(certificate.get()), 0);
    ASN1_TIME_set(X509_getm_notAfter(certificate.get()), 2'000'000'000);
    X509_set_pubkey(certificate.get(), key);
    change(certificate.get());
    EXPECT_GT(X509_sign(certificate.get(), key, EVP_sha256()), 0);
    return encoded(certificate.get(), i2d_X509);
}

class Handmade {
public:
    Handmade() = default;
    Handmade(const Handmade&) = delete;
    Handmade& operator=(const Handmade&) = delete;
    ~Handmade() { ScopedSafeBagStack owner(bags_); }

    /// Encrypted as old programs do.
    Handmade& key(EVP_PKEY* key)
    {
        EXPECT_NE(PKCS12_add_key(&bags_, key, 0, 2048, NID_pbe_WithSHA1And3_Key_TripleDES_CBC, passphrase), nullptr);
        return *this;
    }
    Handmade& key(const std::filesystem::path& file) { return key(readKey(file).get()); }

    /// In the clear, from PKCS#8.
    Handmade& plainKey(const Bytes& pkcs8)
    {
        const unsigned char* place = pkcs8.data();
        PKCS8_PRIV_KEY_INFO* info = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &place, static_cast<long>(pkcs8.size()));
        EXPECT_NE(info, nullptr);
        return bag(PKCS12_SAFEBAG_create0_p8inf(info));
    }

    /// Encrypted with an algorithm; afterwards it claims to have been another one, where one is given.
    Handmade& key(const std::filesystem::path& file, X509_ALGOR* algorithm, X509_ALGOR* claimed = nullptr)
    {
        const auto key = readKey(file);
        const ScopedPKCS8_PRIV_KEY_INFO info(EVP_PKEY2PKCS8(key.get()));
        X509_SIG* shrouded = PKCS8_set0_pbe(passphrase, -1, info.get(), algorithm);
        EXPECT_NE(shrouded, nullptr);
        if (claimed) {
            X509_ALGOR* place = nullptr;
            X509_SIG_getm(shrouded, &place, nullptr);
            EXPECT_EQ(X509_ALGOR_copy(place, claimed), 1);
            X509_ALGOR_free(claimed);
        }
        return bag(PKCS12_SAFEBAG_create0_pkcs8(shrouded));
    }

    Handmade& certificate(const Bytes& der)
    {
        EXPECT_NE(PKCS12_add_cert(&bags_, decoded(der).get()), nullptr);
        return *this;
    }

    /// What stands where a certificate should, as it is.
    Handmade& certificateOctets(const Bytes& octets)
    {
        ASN1_STRING* const string = ASN1_STRING_type_new(V_ASN1_OTHER);
        ASN1_STRING_set(string, octets.data(), static_cast<int>(octets.size()));
        ASN1_TYPE* const raw = ASN1_TYPE_new();
        ASN1_TYPE_set(raw, V_ASN1_OTHER, string);
        bag(PKCS12_item_pack_safebag(raw, ASN1_ITEM_rptr(ASN1_ANY), NID_x509Certificate, NID_certBag));
        ASN1_TYPE_free(raw);
        return *this;
    }

    /// Gives the bag added last a name, in UTF-16 with the higher byte first.
    Handmade& named(const Bytes& utf16)
    {
        PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags_, sk_PKCS12_SAFEBAG_num(bags_) - 1);
        EXPECT_EQ(PKCS12_add_friendlyname_uni(bag, utf16.data(), static_cast<int>(utf16.size())), 1);
        return *this;
    }

    /// Ties the bag added last to others of this identifier.
    Handmade& tied(const Bytes& localId)
    {
        PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags_, sk_PKCS12_SAFEBAG_num(bags_) - 1);
        PKCS12_add_localkeyid(bag, const_cast<unsigned char*>(localId.data()), static_cast<int>(localId.size()));
        return *this;
    }

    /// Without seal.
    Bytes open() const { return encoded(pack().get(), i2d_PKCS12); }

    /// Sealed; the seal then claims to have taken `iterations` rounds, where that is not 0.
    Bytes seal(long iterations = 0) const
    {
        const auto bundle = pack();
        EXPECT_EQ(PKCS12_set_mac(bundle.get(), passphrase, -1, nullptr, 0, 2048, nullptr), 1);
        if (iterations != 0) {
            const ASN1_INTEGER* count = nullptr;
            PKCS12_get0_mac(nullptr, nullptr, nullptr, &count, bundle.get());
            ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(count), iterations);
        }
        return encoded(bundle.get(), i2d_PKCS12);
    }

    static constexpr const char* passphrase = "correct horse";

private:
    Handmade& bag(PKCS12_SAFEBAG* bag)
    {
        EXPECT_NE(bag, nullptr);
        if (!bags_)
            bags_ = sk_PKCS12_SAFEBAG_new_null();
        sk_PKCS12_SAFEBAG_push(bags_, bag);
        return *this;
    }

    ScopedPKCS12 pack() const
    {
        STACK_OF(PKCS7)* safes = nullptr;
        EXPECT_EQ(PKCS12_add_safe(&safes, bags_, -1, 0, nullptr), 1);
        const ScopedPKCS7Stack owner(safes);
        return ScopedPKCS12(PKCS12_add_safes(safes, 0));
    }

    STACK_OF(PKCS12_SAFEBAG) * bags_ = nullptr;
};

inline OSStatus statusOf(const Bytes& handmade)
{
    return keychain::readBundle(handmade, secret(Handmade::passphrase)).status();
}

inline OSStatus statusOf(const Bundle& bundle)
{
    return keychain::readBundle(bundle.pkcs12, secret(bundle.passphrase)).status();
}

} // namespace kf::test
