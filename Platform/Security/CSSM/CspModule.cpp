// The platform's cryptographic service provider, on OpenSSL's EVP.
#include "Security/CSSM/CssmModule.h"
#include "Security/ScopedOpenSSL.h"

#include <algorithm>
#include <array>
#include <vector>

namespace kf {

namespace {

/// The digest of an algorithm; null for any other algorithm. Fetched once for
/// the process: a fetch at each use costs a third of a small digest.
const EVP_MD* digestOf(CSSM_ALGORITHMS algorithm)
{
    struct Digest {
        CSSM_ALGORITHMS algorithm;
        const char* name;
        ScopedEVP_MD fetched;
    };
    static const auto& digests = *new std::array<Digest, 6>([] {
        std::array<Digest, 6> table{{{CSSM_ALGID_SHA1, "SHA1", nullptr}, {CSSM_ALGID_MD5, "MD5", nullptr},
            {CSSM_ALGID_SHA256, "SHA256", nullptr}, {CSSM_ALGID_SHA384, "SHA384", nullptr},
            {CSSM_ALGID_SHA512, "SHA512", nullptr}, {CSSM_ALGID_SHA224, "SHA224", nullptr}}};
        for (Digest& digest : table)
            digest.fetched.reset(EVP_MD_fetch(nullptr, digest.name, nullptr));
        return table;
    }());
    const auto found = std::find_if(
        digests.begin(), digests.end(), [&](const Digest& digest) { return digest.algorithm == algorithm; });
    return found == digests.end() ? nullptr : found->fetched.get();
}

/// How a signature algorithm is put together.
struct SignatureAlgorithm {
    CSSM_ALGORITHMS algorithm;
    CSSM_ALGORITHMS key;
    CSSM_ALGORITHMS digest;
};

constexpr SignatureAlgorithm signatureAlgorithms[] = {
    {CSSM_ALGID_RSA, CSSM_ALGID_RSA, CSSM_ALGID_NONE},
    {CSSM_ALGID_MD5WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_MD5},
    {CSSM_ALGID_SHA1WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA1},
    {CSSM_ALGID_SHA224WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA224},
    {CSSM_ALGID_SHA256WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA256},
    {CSSM_ALGID_SHA384WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA384},
    {CSSM_ALGID_SHA512WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA512},
    {CSSM_ALGID_ECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_NONE},
    {CSSM_ALGID_SHA1WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA1},
    {CSSM_ALGID_SHA224WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA224},
    {CSSM_ALGID_SHA256WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA256},
    {CSSM_ALGID_SHA384WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA384},
    {CSSM_ALGID_SHA512WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA512},
};

/// Puts bytes into an output: a buffer of the caller's where there is one, else
/// a new one from the application's memory.
Status deliver(std::span<const std::uint8_t> bytes, CSSM_DATA& output, const CssmMemory& memory)
{
    if (!output.Data) {
        auto* const buffer = static_cast<std::uint8_t*>(memory.allocate(bytes.size()));
        if (!buffer)
            return cssmFailure(CSSMERR_CSP_MEMORY_ERROR);
        output.Data = buffer;
    } else if (output.Length < bytes.size()) {
        return cssmFailure(CSSMERR_CSP_OUTPUT_LENGTH_ERROR);
    }
    std::copy(bytes.begin(), bytes.end(), output.Data);
    output.Length = bytes.size();
    return {};
}

bool digestAll(std::span<const CSSM_DATA> buffers, const EVP_MD* md, std::uint8_t* out, unsigned* length)
{
    if (buffers.size() == 1)
        return EVP_Digest(buffers[0].Data, buffers[0].Length, out, length, md, nullptr) == 1;
    const ScopedEVP_MD_CTX context(EVP_MD_CTX_new());
    return context && EVP_DigestInit_ex2(context.get(), md, nullptr) == 1
        && std::all_of(buffers.begin(), buffers.end(),
            [&](const CSSM_DATA& buffer) { return EVP_DigestUpdate(context.get(), buffer.Data, buffer.Length) == 1; })
        && EVP_DigestFinal_ex(context.get(), out, length) == 1;
}

class DigestContext final : public CssmContext {
public:
    DigestContext(const EVP_MD* md, const CssmMemory& memory) noexcept : md_(md), memory_(memory) { }

    Status digest(std::span<const CSSM_DATA> buffers, CSSM_DATA& digest) const override
    {
        std::array<std::uint8_t, EVP_MAX_MD_SIZE> value;
        unsigned length = 0;
        if (!digestAll(buffers, md_, value.data(), &length))
            return cssmFailure(CSSMERR_CSP_FUNCTION_FAILED);
        return deliver({value.data(), length}, digest, memory_);
    }

private:
    const EVP_MD* md_;
    CssmMemory memory_;
};

class SignatureContext final : public CssmContext {
public:
    SignatureContext(
        const EVP_MD* md, ScopedEVP_PKEY key, const CSSM_KEYHEADER& header, const CssmMemory& memory) noexcept
        : md_(md), key_(std::move(key)), keyClass_(header.KeyClass), keyUsage_(header.KeyUsage), memory_(memory)
    {
    }

    Status sign(
        std::span<const CSSM_DATA> buffers, CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA& signature) const override
    {
        const OpenSSLErrorMark errors;
        if (const Status allowed = checkKey(CSSM_KEYCLASS_PRIVATE_KEY, CSSM_KEYUSE_SIGN); !allowed)
            return allowed;
        const auto md = digestFor(buffers, digestAlgorithm);
        if (!md)
            return md.failure();
        auto value = md_ ? signMessage(buffers) : signDigest(buffers[0], *md);
        if (!value)
            return value.failure();
        return deliver(*value, signature, memory_);
    }

    Status verify(
        std::span<const CSSM_DATA> buffers, CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA& signature) const override
    {
        const OpenSSLErrorMark errors;
        if (const Status allowed = checkKey(CSSM_KEYCLASS_PUBLIC_KEY, CSSM_KEYUSE_VERIFY); !allowed)
            return allowed;
        const auto md = digestFor(buffers, digestAlgorithm);
        if (!md)
            return md.failure();
        return md_ ? verifyMessage(buffers, signature) : verifyDigest(buffers[0], *md, signature);
    }

private:
    using Signature = Result<std::vector<std::uint8_t>>;

    Status checkKey(CSSM_KEYCLASS keyClass, CSSM_KEYUSE use) const
    {
        if (keyClass_ != keyClass)
            return cssmFailure(CSSMERR_CSP_INVALID_KEY_CLASS);
        if ((keyUsage_ & (use | CSSM_KEYUSE_ANY)) == 0)
            return cssmFailure(CSSMERR_CSP_KEY_USAGE_INCORRECT);
        return {};
    }

    /// The digest that the context names, or, where it names a key alone, the one
    /// that the caller says the one buffer holds.
    Result<const EVP_MD*> digestFor(std::span<const CSSM_DATA> buffers, CSSM_ALGORITHMS digestAlgorithm) const
    {
        if (md_) {
            if (digestAlgorithm != CSSM_ALGID_NONE)
                return cssmFailure(CSSMERR_CSP_INVALID_DIGEST_ALGORITHM);
            return md_;
        }
        const EVP_MD* const md = digestOf(digestAlgorithm);
        if (!md)
            return cssmFailure(CSSMERR_CSP_INVALID_DIGEST_ALGORITHM);
        if (buffers.size() != 1)
            return cssmFailure(CSSMERR_CSP_INVALID_DATA_COUNT);
        if (buffers[0].Length != static_cast<std::size_t>(EVP_MD_get_size(md)))
            return cssmFailure(CSSMERR_CSP_INPUT_LENGTH_ERROR);
        return md;
    }

    Signature signMessage(std::span<const CSSM_DATA> buffers) const
    {
        const ScopedEVP_MD_CTX context(EVP_MD_CTX_new());
        std::size_t length = 0;
        const bool ready = context && EVP_DigestSignInit(context.get(), nullptr, md_, nullptr, key_.get()) == 1
            && std::all_of(buffers.begin(), buffers.end(),
                [&](const CSSM_DATA& buffer) {
                    return EVP_DigestSignUpdate(context.get(), buffer.Data, buffer.Length) == 1;
                })
            && EVP_DigestSignFinal(context.get(), nullptr, &length) == 1;
        if (!ready)
            return cssmFailure(CSSMERR_CSP_FUNCTION_FAILED);
        std::vector<std::uint8_t> value(length);
        if (EVP_DigestSignFinal(context.get(), value.data(), &length) != 1)
            return cssmFailure(CSSMERR_CSP_FUNCTION_FAILED);
        value.resize(length);
        return value;
    }

    Signature signDigest(const CSSM_DATA& digest, const EVP_MD* md) const
    {
        const ScopedEVP_PKEY_CTX context(EVP_PKEY_CTX_new(key_.get(), nullptr));
        std::size_t length = 0;
        const bool ready = context && EVP_PKEY_sign_init(context.get()) == 1
            && EVP_PKEY_CTX_set_signature_md(context.get(), md) == 1
            && EVP_PKEY_sign(context.get(), nullptr, &length, digest.Data, digest.Length) == 1;
        if (!ready)
            return cssmFailure(CSSMERR_CSP_FUNCTION_FAILED);
        std::vector<std::uint8_t> value(length);
        if (EVP_PKEY_sign(context.get(), value.data(), &length, digest.Data, digest.Length) != 1)
            return cssmFailure(CSSMERR_CSP_FUNCTION_FAILED);
        value.resize(length);
        return value;
    }

    Status verifyMessage(std::span<const CSSM_DATA> buffers, const CSSM_DATA& signature) const
    {
        const ScopedEVP_MD_CTX context(EVP_MD_CTX_new());
        const bool ready = context && EVP_DigestVerifyInit(context.get(), nullptr, md_, nullptr, key_.get()) == 1
            && std::all_of(buffers.begin(), buffers.end(), [&](const CSSM_DATA& buffer) {
                   return EVP_DigestVerifyUpdate(context.get(), buffer.Data, buffer.Length) == 1;
               });
        if (!ready)
            return cssmFailure(CSSMERR_CSP_FUNCTION_FAILED);
        return verdict(EVP_DigestVerifyFinal(context.get(), signature.Data, signature.Length));
    }

    Status verifyDigest(const CSSM_DATA& digest, const EVP_MD* md, const CSSM_DATA& signature) const
    {
        const ScopedEVP_PKEY_CTX context(EVP_PKEY_CTX_new(key_.get(), nullptr));
        const bool ready = context && EVP_PKEY_verify_init(context.get()) == 1
            && EVP_PKEY_CTX_set_signature_md(context.get(), md) == 1;
        if (!ready)
            return cssmFailure(CSSMERR_CSP_FUNCTION_FAILED);
        return verdict(EVP_PKEY_verify(context.get(), signature.Data, signature.Length, digest.Data, digest.Length));
    }

    /// OpenSSL tells a wrong signature from one that has not even the form of a
    /// signature; for the caller neither is the data's.
    static Status verdict(int verified)
    {
        if (verified == 1)
            return {};
        return cssmFailure(CSSMERR_CSP_VERIFY_FAILED);
    }

    const EVP_MD* md_;
    ScopedEVP_PKEY key_;
    CSSM_KEYCLASS keyClass_;
    CSSM_KEYUSE keyUsage_;
    CssmMemory memory_;
};

ScopedEVP_PKEY decodePrivateKey(CSSM_KEYBLOB_FORMAT format, const std::uint8_t** cursor, long length)
{
    if (format == CSSM_KEYBLOB_RAW_FORMAT_PKCS1)
        return ScopedEVP_PKEY(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, cursor, length));
    const ScopedPKCS8_PRIV_KEY_INFO info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, cursor, length));
    return ScopedEVP_PKEY(info ? EVP_PKCS82PKEY(info.get()) : nullptr);
}

ScopedEVP_PKEY decodePublicKey(CSSM_KEYBLOB_FORMAT format, const std::uint8_t** cursor, long length)
{
    if (format == CSSM_KEYBLOB_RAW_FORMAT_PKCS1)
        return ScopedEVP_PKEY(d2i_PublicKey(EVP_PKEY_RSA, nullptr, cursor, length));
    return ScopedEVP_PKEY(d2i_PUBKEY(nullptr, cursor, length));
}

bool isFormatOfClass(const CSSM_KEYHEADER& header) noexcept
{
    if (header.Format == CSSM_KEYBLOB_RAW_FORMAT_PKCS1)
        return header.AlgorithmId == CSSM_ALGID_RSA;
    return header.Format
        == (header.KeyClass == CSSM_KEYCLASS_PRIVATE_KEY ? CSSM_KEYBLOB_RAW_FORMAT_PKCS8
                                                         : CSSM_KEYBLOB_RAW_FORMAT_SPKI);
}

Status checkHeader(const CSSM_KEYHEADER& header, CSSM_ALGORITHMS keyAlgorithm)
{
    if (header.BlobType != CSSM_KEYBLOB_RAW)
        return cssmFailure(CSSMERR_CSP_KEY_BLOB_TYPE_INCORRECT);
    if (header.KeyClass != CSSM_KEYCLASS_PUBLIC_KEY && header.KeyClass != CSSM_KEYCLASS_PRIVATE_KEY)
        return cssmFailure(CSSMERR_CSP_INVALID_KEY_CLASS);
    if (header.AlgorithmId != keyAlgorithm)
        return cssmFailure(CSSMERR_CSP_ALGID_MISMATCH);
    if (!isFormatOfClass(header))
        return cssmFailure(CSSMERR_CSP_UNSUPPORTED_KEY_FORMAT);
    return {};
}

Result<ScopedEVP_PKEY> decodeKey(const CSSM_KEY& key, CSSM_ALGORITHMS keyAlgorithm)
{
    const CSSM_KEYHEADER& header = key.KeyHeader;
    if (const Status checked = checkHeader(header, keyAlgorithm); !checked)
        return checked.failure();
    if (key.KeyData.Length > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        return cssmFailure(CSSMERR_CSP_INVALID_KEY);
    const std::uint8_t* cursor = key.KeyData.Data;
    const auto length = static_cast<long>(key.KeyData.Length);
    auto decoded = header.KeyClass == CSSM_KEYCLASS_PRIVATE_KEY ? decodePrivateKey(header.Format, &cursor, length)
                                                                : decodePublicKey(header.Format, &cursor, length);
    const int type = keyAlgorithm == CSSM_ALGID_RSA ? EVP_PKEY_RSA : EVP_PKEY_EC;
    if (!decoded || cursor != key.KeyData.Data + key.KeyData.Length || EVP_PKEY_get_base_id(decoded.get()) != type)
        return cssmFailure(CSSMERR_CSP_INVALID_KEY);
    return decoded;
}

class CspSession final : public CssmSession {
public:
    explicit CspSession(const CssmMemory& memory) noexcept : memory_(memory) { }

    Result<std::shared_ptr<const CssmContext>> createDigestContext(CSSM_ALGORITHMS algorithm) override
    {
        const EVP_MD* const md = digestOf(algorithm);
        if (!md)
            return cssmFailure(CSSMERR_CSP_INVALID_ALGORITHM);
        return std::shared_ptr<const CssmContext>(std::make_shared<DigestContext>(md, memory_));
    }

    Result<std::shared_ptr<const CssmContext>> createSignatureContext(
        CSSM_ALGORITHMS algorithm, const CSSM_KEY& key) override
    {
        const auto* const found = std::find_if(std::begin(signatureAlgorithms), std::end(signatureAlgorithms),
            [&](const SignatureAlgorithm& known) { return known.algorithm == algorithm; });
        if (found == std::end(signatureAlgorithms))
            return cssmFailure(CSSMERR_CSP_INVALID_ALGORITHM);
        const OpenSSLErrorMark errors;
        auto decoded = decodeKey(key, found->key);
        if (!decoded)
            return decoded.failure();
        return std::shared_ptr<const CssmContext>(std::make_shared<SignatureContext>(
            digestOf(found->digest), std::move(decoded).value(), key.KeyHeader, memory_));
    }

private:
    CssmMemory memory_;
};

class CspModule final : public CssmModule {
public:
    CSSM_SERVICE_MASK services() const noexcept override { return CSSM_SERVICE_CSP; }
    Result<std::unique_ptr<CssmSession>> attach(CSSM_SERVICE_TYPE, const CssmMemory& memory) override
    {
        return std::unique_ptr<CssmSession>(std::make_unique<CspSession>(memory));
    }
};

} // namespace

std::unique_ptr<CssmModule> makeCspModule() { return std::make_unique<CspModule>(); }

} // namespace kf
