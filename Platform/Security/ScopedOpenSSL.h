// Owners of OpenSSL's objects, one named type for each. For source files only:
// public headers name no OpenSSL type.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

namespace kf {

/// Frees an object with the function that OpenSSL names for its type.
template <auto release>
struct OpenSSLDeleter {
    template <class T>
    void operator()(T* object) const noexcept
    {
        static_cast<void>(release(object));
    }
};

/// Frees a stack with everything on it.
template <class T, auto release>
struct OpenSSLStackDeleter {
    template <class Stack>
    void operator()(Stack* stack) const noexcept
    {
        OPENSSL_sk_pop_free(
            reinterpret_cast<OPENSSL_STACK*>(stack), [](void* item) { release(static_cast<T*>(item)); });
    }
};

struct OpenSSLBytesDeleter {
    void operator()(void* bytes) const noexcept { OPENSSL_free(bytes); }
};

/// Bytes that OpenSSL allocated for its caller.
using ScopedOpenSSLBytes = std::unique_ptr<unsigned char, OpenSSLBytesDeleter>;
using ScopedOpenSSLText = std::unique_ptr<char, OpenSSLBytesDeleter>;
using ScopedASN1_INTEGER = std::unique_ptr<ASN1_INTEGER, OpenSSLDeleter<ASN1_INTEGER_free>>;
using ScopedASN1_STRING = std::unique_ptr<ASN1_STRING, OpenSSLDeleter<ASN1_STRING_free>>;
using ScopedASN1_TIME = std::unique_ptr<ASN1_TIME, OpenSSLDeleter<ASN1_TIME_free>>;
/// A BIO and every BIO behind it.
using ScopedBIOChain = std::unique_ptr<BIO, OpenSSLDeleter<BIO_free_all>>;
using ScopedEVP_MD = std::unique_ptr<EVP_MD, OpenSSLDeleter<EVP_MD_free>>;
using ScopedEVP_MD_CTX = std::unique_ptr<EVP_MD_CTX, OpenSSLDeleter<EVP_MD_CTX_free>>;
using ScopedEVP_PKEY = std::unique_ptr<EVP_PKEY, OpenSSLDeleter<EVP_PKEY_free>>;
using ScopedEVP_PKEY_CTX = std::unique_ptr<EVP_PKEY_CTX, OpenSSLDeleter<EVP_PKEY_CTX_free>>;
using ScopedPKCS8_PRIV_KEY_INFO = std::unique_ptr<PKCS8_PRIV_KEY_INFO, OpenSSLDeleter<PKCS8_PRIV_KEY_INFO_free>>;
using ScopedPKCS12 = std::unique_ptr<PKCS12, OpenSSLDeleter<PKCS12_free>>;
using ScopedX509 = std::unique_ptr<X509, OpenSSLDeleter<X509_free>>;
using ScopedX509_NAME = std::unique_ptr<X509_NAME, OpenSSLDeleter<X509_NAME_free>>;
using ScopedX509Stack = std::unique_ptr<STACK_OF(X509), OpenSSLStackDeleter<X509, X509_free>>;
using ScopedX509_STORE = std::unique_ptr<X509_STORE, OpenSSLDeleter<X509_STORE_free>>;
using ScopedX509_STORE_CTX = std::unique_ptr<X509_STORE_CTX, OpenSSLDeleter<X509_STORE_CTX_free>>;
using ScopedOSSL_LIB_CTX = std::unique_ptr<OSSL_LIB_CTX, OpenSSLDeleter<OSSL_LIB_CTX_free>>;
/// A number that is wiped: part of a private key.
using ScopedSecretBIGNUM = std::unique_ptr<BIGNUM, OpenSSLDeleter<BN_clear_free>>;
using ScopedBN_CTX = std::unique_ptr<BN_CTX, OpenSSLDeleter<BN_CTX_free>>;
using ScopedEVP_CIPHER = std::unique_ptr<EVP_CIPHER, OpenSSLDeleter<EVP_CIPHER_free>>;
using ScopedPBEPARAM = std::unique_ptr<PBEPARAM, OpenSSLDeleter<PBEPARAM_free>>;
using ScopedPBE2PARAM = std::unique_ptr<PBE2PARAM, OpenSSLDeleter<PBE2PARAM_free>>;
using ScopedPBKDF2PARAM = std::unique_ptr<PBKDF2PARAM, OpenSSLDeleter<PBKDF2PARAM_free>>;
using ScopedSCRYPT_PARAMS = std::unique_ptr<SCRYPT_PARAMS, OpenSSLDeleter<SCRYPT_PARAMS_free>>;
using ScopedPKCS7Stack = std::unique_ptr<STACK_OF(PKCS7), OpenSSLStackDeleter<PKCS7, PKCS7_free>>;
using ScopedSafeBagStack =
    std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), OpenSSLStackDeleter<PKCS12_SAFEBAG, PKCS12_SAFEBAG_free>>;
using ScopedOSSL_PROVIDER = std::unique_ptr<OSSL_PROVIDER, OpenSSLDeleter<OSSL_PROVIDER_unload>>;

/// Takes out of the thread's error queue what was put there while it lives, so
/// that a failure which we report ourselves is not taken for a later one.
class OpenSSLErrorMark {
public:
    OpenSSLErrorMark() noexcept { ERR_set_mark(); }
    ~OpenSSLErrorMark() { ERR_pop_to_mark(); }
    OpenSSLErrorMark(const OpenSSLErrorMark&) = delete;
    OpenSSLErrorMark& operator=(const OpenSSLErrorMark&) = delete;
};

} // namespace kf
