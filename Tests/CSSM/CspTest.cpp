#include "Security/CSSM/CssmManager.h"
#include "Tests/CSSM/CssmTestSupport.h"
#include "Tests/Support/Fixtures.h"

#include <gmock/gmock.h>
#include <openssl/err.h>

namespace kf::test {
namespace {

class CspTest : public testing::Test {
protected:
    CspTest()
    {
        manager.registerModule(gGuidAppleCSP, makeCspModule());
        EXPECT_EQ(initialize(), CSSM_OK);
        EXPECT_EQ(load(gGuidAppleCSP), CSSM_OK);
        EXPECT_EQ(attach(gGuidAppleCSP, CSSM_SERVICE_CSP, memory, &csp), CSSM_OK);
    }
    ~CspTest() override { EXPECT_EQ(CSSM_ModuleDetach(csp), CSSM_OK); }

    CSSM_CC_HANDLE digestContext(CSSM_ALGORITHMS algorithm)
    {
        CSSM_CC_HANDLE context = 0;
        EXPECT_EQ(CSSM_CSP_CreateDigestContext(csp, algorithm, &context), CSSM_OK);
        return context;
    }

    void release(CSSM_DATA& data)
    {
        if (data.Data)
            memory.functions().free_func(data.Data, &memory);
        data = {};
    }

    CssmManager manager;
    ScopedCssmService installed{manager};
    CountingMemory memory;
    CSSM_MODULE_HANDLE csp = 0;
};

struct DigestVector {
    CSSM_ALGORITHMS algorithm;
    const char* digestOfAbc;
};

// RFC 1321, FIPS 180-4.
constexpr DigestVector digestVectors[] = {
    {CSSM_ALGID_MD5, "900150983cd24fb0d6963f7d28e17f72"},
    {CSSM_ALGID_SHA1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {CSSM_ALGID_SHA224, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
    {CSSM_ALGID_SHA256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {CSSM_ALGID_SHA384,
        "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
        "8086072ba1e7cc2358baeca134c825a7"},
    {CSSM_ALGID_SHA512,
        "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
        "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
};

TEST_F(CspTest, DigestsAgreeWithTheirStandards)
{
    for (const auto& [algorithm, expected] : digestVectors) {
        const auto context = digestContext(algorithm);
        CSSM_DATA input = dataOf("abc");
        CSSM_DATA digest;
        ASSERT_EQ(CSSM_DigestData(context, &input, 1, &digest), CSSM_OK);
        EXPECT_EQ(hex(digest), expected);
        EXPECT_TRUE(memory.owns(digest.Data));
        release(digest);
        EXPECT_EQ(CSSM_DeleteContext(context), CSSM_OK);
    }
}

TEST_F(CspTest, DigestsSeveralBuffersAsOneText)
{
    for (const auto& [algorithm, expected] : digestVectors) {
        const auto context = digestContext(algorithm);
        const CSSM_DATA buffers[] = {dataOf("a"), {}, dataOf("bc")};
        CSSM_DATA digest;
        ASSERT_EQ(CSSM_DigestData(context, buffers, 3, &digest), CSSM_OK);
        EXPECT_EQ(hex(digest), expected);
        release(digest);
    }
}

TEST_F(CspTest, DigestsNothing)
{
    const auto context = digestContext(CSSM_ALGID_MD5);
    const CSSM_DATA empty;
    CSSM_DATA digest;
    ASSERT_EQ(CSSM_DigestData(context, &empty, 1, &digest), CSSM_OK);
    EXPECT_EQ(hex(digest), "d41d8cd98f00b204e9800998ecf8427e");
    release(digest);
}

TEST_F(CspTest, WritesIntoTheCallersBuffer)
{
    const auto context = digestContext(CSSM_ALGID_MD5);
    const CSSM_DATA input = dataOf("abc");
    std::uint8_t buffer[17] = {};
    CSSM_DATA digest{sizeof buffer, buffer};
    ASSERT_EQ(CSSM_DigestData(context, &input, 1, &digest), CSSM_OK);
    EXPECT_EQ(digest.Data, buffer);
    EXPECT_EQ(hex(digest), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(memory.given(), 0U);
}

TEST_F(CspTest, LeavesABufferThatIsTooSmall)
{
    const auto context = digestContext(CSSM_ALGID_MD5);
    const CSSM_DATA input = dataOf("abc");
    std::uint8_t buffer[15] = {};
    CSSM_DATA digest{sizeof buffer, buffer};
    EXPECT_EQ(CSSM_DigestData(context, &input, 1, &digest), CSSMERR_CSP_OUTPUT_LENGTH_ERROR);
    EXPECT_EQ(digest.Length, sizeof buffer);
    EXPECT_THAT(buffer, testing::Each(0));
}

TEST_F(CspTest, ReportsThatTheApplicationHasNoMemory)
{
    const auto context = digestContext(CSSM_ALGID_SHA1);
    const CSSM_DATA input = dataOf("abc");
    CSSM_DATA digest;
    memory.failAfter(0);
    EXPECT_EQ(CSSM_DigestData(context, &input, 1, &digest), CSSMERR_CSP_MEMORY_ERROR);
    EXPECT_EQ(digest.Data, nullptr);
    EXPECT_EQ(digest.Length, 0U);
    memory.neverFail();
    EXPECT_EQ(CSSM_DigestData(context, &input, 1, &digest), CSSM_OK);
    release(digest);
}

TEST_F(CspTest, RefusesUnknownAlgorithmsAndMissingPointers)
{
    CSSM_CC_HANDLE context = 42;
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(csp, 9, &context), CSSMERR_CSP_INVALID_ALGORITHM);
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(csp, CSSM_ALGID_NONE, &context), CSSMERR_CSP_INVALID_ALGORITHM);
    EXPECT_EQ(CSSM_CSP_CreateDigestContext(csp, CSSM_ALGID_SHA1, nullptr), CSSMERR_CSP_INVALID_OUTPUT_POINTER);
    EXPECT_EQ(context, 42U);
    context = digestContext(CSSM_ALGID_SHA1);
    const CSSM_DATA input = dataOf("abc");
    const CSSM_DATA unreadable{3, nullptr};
    CSSM_DATA digest;
    EXPECT_EQ(CSSM_DigestData(context, nullptr, 1, &digest), CSSMERR_CSP_INVALID_INPUT_POINTER);
    EXPECT_EQ(CSSM_DigestData(context, &unreadable, 1, &digest), CSSMERR_CSP_INVALID_INPUT_POINTER);
    EXPECT_EQ(CSSM_DigestData(context, &input, 1, nullptr), CSSMERR_CSP_INVALID_OUTPUT_POINTER);
}

TEST_F(CspTest, ADigestContextDoesNotSign)
{
    const auto context = digestContext(CSSM_ALGID_SHA1);
    const CSSM_DATA input = dataOf("abc");
    CSSM_DATA output;
    EXPECT_EQ(CSSM_SignData(context, &input, 1, CSSM_ALGID_NONE, &output), CSSMERR_CSP_INVALID_CONTEXT);
    EXPECT_EQ(CSSM_VerifyData(context, &input, 1, CSSM_ALGID_NONE, &input), CSSMERR_CSP_INVALID_CONTEXT);
}

/// A key pair that the openssl program made.
class KeyPair {
public:
    explicit KeyPair(CSSM_ALGORITHMS algorithm) : algorithm_(algorithm)
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-csp-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        directory_ = pattern;
        std::vector<std::string> command = {"openssl", "genpkey", "-out", path("pem"), "-algorithm"};
        if (algorithm == CSSM_ALGID_RSA)
            command.insert(command.end(), {"RSA", "-pkeyopt", "rsa_keygen_bits:2048"});
        else
            command.insert(command.end(), {"EC", "-pkeyopt", "ec_paramgen_curve:P-256"});
        mustRun(command);
        mustRun({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", path("pem"), "-outform", "DER", "-out", path("p8")});
        mustRun({"openssl", "pkey", "-in", path("p8"), "-inform", "DER", "-pubout", "-outform", "DER", "-out",
            path("spki")});
        privateBytes_ = readFile(path("p8"));
        publicBytes_ = readFile(path("spki"));
    }
    ~KeyPair()
    {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    KeyPair(const KeyPair&) = delete;
    KeyPair& operator=(const KeyPair&) = delete;

    std::string path(const std::string& name) const { return (directory_ / name).string(); }

    CSSM_KEY privateKey() const { return key(privateBytes_, CSSM_KEYCLASS_PRIVATE_KEY, CSSM_KEYBLOB_RAW_FORMAT_PKCS8); }
    CSSM_KEY publicKey() const { return key(publicBytes_, CSSM_KEYCLASS_PUBLIC_KEY, CSSM_KEYBLOB_RAW_FORMAT_SPKI); }

    CSSM_KEY key(const Bytes& bytes, CSSM_KEYCLASS keyClass, CSSM_KEYBLOB_FORMAT format) const
    {
        CSSM_KEY made;
        made.KeyHeader.AlgorithmId = algorithm_;
        made.KeyHeader.KeyClass = keyClass;
        made.KeyHeader.Format = format;
        made.KeyData = dataOf(bytes);
        return made;
    }

private:
    CSSM_ALGORITHMS algorithm_;
    std::filesystem::path directory_;
    Bytes privateBytes_;
    Bytes publicBytes_;
};

struct SignatureVector {
    CSSM_ALGORITHMS algorithm;
    CSSM_ALGORITHMS key;
    CSSM_ALGORITHMS digest;
    const char* digestOption;
};

constexpr SignatureVector signatureVectors[] = {
    {CSSM_ALGID_MD5WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_MD5, "-md5"},
    {CSSM_ALGID_SHA1WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA1, "-sha1"},
    {CSSM_ALGID_SHA224WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA224, "-sha224"},
    {CSSM_ALGID_SHA256WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA256, "-sha256"},
    {CSSM_ALGID_SHA384WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA384, "-sha384"},
    {CSSM_ALGID_SHA512WithRSA, CSSM_ALGID_RSA, CSSM_ALGID_SHA512, "-sha512"},
    {CSSM_ALGID_SHA1WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA1, "-sha1"},
    {CSSM_ALGID_SHA224WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA224, "-sha224"},
    {CSSM_ALGID_SHA256WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA256, "-sha256"},
    {CSSM_ALGID_SHA384WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA384, "-sha384"},
    {CSSM_ALGID_SHA512WithECDSA, CSSM_ALGID_ECDSA, CSSM_ALGID_SHA512, "-sha512"},
};

class CspSignatureTest : public CspTest {
protected:
    CspSignatureTest() { ERR_clear_error(); }
    ~CspSignatureTest() override { EXPECT_EQ(ERR_peek_error(), 0U) << "OpenSSL's queue is as it was"; }

    CSSM_CC_HANDLE signatureContext(CSSM_ALGORITHMS algorithm, const CSSM_KEY& key)
    {
        CSSM_CC_HANDLE context = 0;
        EXPECT_EQ(CSSM_CSP_CreateSignatureContext(csp, algorithm, nullptr, &key, &context), CSSM_OK);
        return context;
    }

    const KeyPair& pair(CSSM_ALGORITHMS key) const { return key == CSSM_ALGID_RSA ? rsa : ec; }

    KeyPair rsa{CSSM_ALGID_RSA};
    KeyPair ec{CSSM_ALGID_ECDSA};
    std::string text = "what is signed";
};

TEST_F(CspSignatureTest, TheOpensslProgramVerifiesWhatIsSignedHere)
{
    for (const auto& vector : signatureVectors) {
        const KeyPair& keys = pair(vector.key);
        const auto context = signatureContext(vector.algorithm, keys.privateKey());
        const CSSM_DATA buffers[] = {dataOf("what is "), dataOf("signed")};
        CSSM_DATA signature;
        ASSERT_EQ(CSSM_SignData(context, buffers, 2, CSSM_ALGID_NONE, &signature), CSSM_OK) << vector.digestOption;
        EXPECT_TRUE(memory.owns(signature.Data));
        writeFile(keys.path("text"), text);
        writeFile(keys.path("signature"), std::span<const std::uint8_t>(signature.Data, signature.Length));
        EXPECT_EQ(mustRun({"openssl", "dgst", vector.digestOption, "-keyform", "DER", "-verify", keys.path("spki"),
                      "-signature", keys.path("signature"), keys.path("text")}),
            "Verified OK\n");
        release(signature);
        EXPECT_EQ(CSSM_DeleteContext(context), CSSM_OK);
    }
}

TEST_F(CspSignatureTest, WhatTheOpensslProgramSignsIsVerifiedHereAndNothingElse)
{
    for (const auto& vector : signatureVectors) {
        const KeyPair& keys = pair(vector.key);
        writeFile(keys.path("text"), text);
        mustRun({"openssl", "dgst", vector.digestOption, "-keyform", "DER", "-sign", keys.path("p8"), "-out",
            keys.path("signature"), keys.path("text")});
        Bytes bytes = readFile(keys.path("signature"));
        const auto context = signatureContext(vector.algorithm, keys.publicKey());
        const CSSM_DATA input = dataOf(text);
        const CSSM_DATA other = dataOf("what is not");
        const CSSM_DATA empty;
        CSSM_DATA signature = dataOf(bytes);
        EXPECT_EQ(CSSM_VerifyData(context, &input, 1, CSSM_ALGID_NONE, &signature), CSSM_OK) << vector.digestOption;
        EXPECT_EQ(CSSM_VerifyData(context, &other, 1, CSSM_ALGID_NONE, &signature), CSSMERR_CSP_VERIFY_FAILED);
        EXPECT_EQ(CSSM_VerifyData(context, &input, 1, CSSM_ALGID_NONE, &empty), CSSMERR_CSP_VERIFY_FAILED);
        signature.Length -= 1;
        EXPECT_EQ(CSSM_VerifyData(context, &input, 1, CSSM_ALGID_NONE, &signature), CSSMERR_CSP_VERIFY_FAILED);
        signature.Length += 1;
        bytes[bytes.size() / 2] ^= 1;
        EXPECT_EQ(CSSM_VerifyData(context, &input, 1, CSSM_ALGID_NONE, &signature), CSSMERR_CSP_VERIFY_FAILED);
        EXPECT_EQ(CSSM_DeleteContext(context), CSSM_OK);
    }
}

TEST_F(CspSignatureTest, SignsAndVerifiesReadyDigests)
{
    for (const auto& vector : signatureVectors) {
        const KeyPair& keys = pair(vector.key);
        const CSSM_DATA input = dataOf(text);
        CSSM_DATA digest;
        ASSERT_EQ(CSSM_DigestData(digestContext(vector.digest), &input, 1, &digest), CSSM_OK);
        const auto signing = signatureContext(vector.key, keys.privateKey());
        CSSM_DATA signature;
        ASSERT_EQ(CSSM_SignData(signing, &digest, 1, vector.digest, &signature), CSSM_OK) << vector.digestOption;
        const auto whole = signatureContext(vector.algorithm, keys.publicKey());
        EXPECT_EQ(CSSM_VerifyData(whole, &input, 1, CSSM_ALGID_NONE, &signature), CSSM_OK);
        const auto ready = signatureContext(vector.key, keys.publicKey());
        EXPECT_EQ(CSSM_VerifyData(ready, &digest, 1, vector.digest, &signature), CSSM_OK);
        digest.Data[0] ^= 1;
        EXPECT_EQ(CSSM_VerifyData(ready, &digest, 1, vector.digest, &signature), CSSMERR_CSP_VERIFY_FAILED);
        release(digest);
        release(signature);
    }
}

TEST_F(CspSignatureTest, TheDigestIsNamedOnceAndInOnePlace)
{
    const CSSM_DATA input = dataOf(text);
    const CSSM_DATA twenty = dataOf("exactly twenty bytes");
    const CSSM_DATA two[] = {input, input};
    CSSM_DATA signature;
    const auto whole = signatureContext(CSSM_ALGID_SHA1WithRSA, rsa.privateKey());
    EXPECT_EQ(CSSM_SignData(whole, &input, 1, CSSM_ALGID_SHA1, &signature), CSSMERR_CSP_INVALID_DIGEST_ALGORITHM);
    const auto keyAlone = signatureContext(CSSM_ALGID_RSA, rsa.privateKey());
    EXPECT_EQ(CSSM_SignData(keyAlone, &twenty, 1, CSSM_ALGID_NONE, &signature), CSSMERR_CSP_INVALID_DIGEST_ALGORITHM);
    EXPECT_EQ(CSSM_SignData(keyAlone, two, 2, CSSM_ALGID_SHA1, &signature), CSSMERR_CSP_INVALID_DATA_COUNT);
    EXPECT_EQ(CSSM_SignData(keyAlone, &input, 1, CSSM_ALGID_SHA1, &signature), CSSMERR_CSP_INPUT_LENGTH_ERROR);
    EXPECT_EQ(CSSM_SignData(keyAlone, &twenty, 1, CSSM_ALGID_SHA1, &signature), CSSM_OK);
    release(signature);
}

TEST_F(CspSignatureTest, PrivateKeysSignAndPublicKeysVerify)
{
    const CSSM_DATA input = dataOf(text);
    CSSM_DATA signature;
    const auto withPublic = signatureContext(CSSM_ALGID_SHA256WithRSA, rsa.publicKey());
    EXPECT_EQ(CSSM_SignData(withPublic, &input, 1, CSSM_ALGID_NONE, &signature), CSSMERR_CSP_INVALID_KEY_CLASS);
    const auto withPrivate = signatureContext(CSSM_ALGID_SHA256WithRSA, rsa.privateKey());
    EXPECT_EQ(CSSM_VerifyData(withPrivate, &input, 1, CSSM_ALGID_NONE, &input), CSSMERR_CSP_INVALID_KEY_CLASS);
    EXPECT_EQ(CSSM_DigestData(withPrivate, &input, 1, &signature), CSSMERR_CSP_INVALID_CONTEXT);
    EXPECT_EQ(signature.Data, nullptr);
}

TEST_F(CspSignatureTest, RefusesMissingPointersAndSmallBuffers)
{
    const CSSM_DATA input = dataOf(text);
    const CSSM_DATA unreadable{3, nullptr};
    CSSM_DATA signature;
    const auto signing = signatureContext(CSSM_ALGID_SHA256WithECDSA, ec.privateKey());
    for (const CSSM_DATA* buffer : {static_cast<const CSSM_DATA*>(nullptr), &unreadable})
        EXPECT_EQ(CSSM_SignData(signing, buffer, 1, CSSM_ALGID_NONE, &signature), CSSMERR_CSP_INVALID_INPUT_POINTER);
    EXPECT_EQ(CSSM_SignData(signing, &input, 1, CSSM_ALGID_NONE, nullptr), CSSMERR_CSP_INVALID_OUTPUT_POINTER);
    std::uint8_t small[8] = {};
    CSSM_DATA tooSmall{sizeof small, small};
    EXPECT_EQ(CSSM_SignData(signing, &input, 1, CSSM_ALGID_NONE, &tooSmall), CSSMERR_CSP_OUTPUT_LENGTH_ERROR);
    EXPECT_THAT(small, testing::Each(0));
    memory.failAfter(0);
    EXPECT_EQ(CSSM_SignData(signing, &input, 1, CSSM_ALGID_NONE, &signature), CSSMERR_CSP_MEMORY_ERROR);
    EXPECT_EQ(signature.Data, nullptr);
    memory.neverFail();
    const auto verifying = signatureContext(CSSM_ALGID_SHA256WithECDSA, ec.publicKey());
    for (const CSSM_DATA* buffer : {static_cast<const CSSM_DATA*>(nullptr), &unreadable}) {
        EXPECT_EQ(CSSM_VerifyData(verifying, buffer, 1, CSSM_ALGID_NONE, &input), CSSMERR_CSP_INVALID_INPUT_POINTER);
        EXPECT_EQ(CSSM_VerifyData(verifying, &input, 1, CSSM_ALGID_NONE, buffer), CSSMERR_CSP_INVALID_INPUT_POINTER);
    }
}

TEST_F(CspSignatureTest, AKeyServesOnlyTheUseThatItNames)
{
    const CSSM_DATA input = dataOf(text);
    CSSM_DATA signature;
    auto key = rsa.privateKey();
    key.KeyHeader.KeyUsage = CSSM_KEYUSE_VERIFY;
    EXPECT_EQ(CSSM_SignData(signatureContext(CSSM_ALGID_SHA256WithRSA, key), &input, 1, CSSM_ALGID_NONE, &signature),
        CSSMERR_CSP_KEY_USAGE_INCORRECT);
    key.KeyHeader.KeyUsage = CSSM_KEYUSE_SIGN;
    EXPECT_EQ(CSSM_SignData(signatureContext(CSSM_ALGID_SHA256WithRSA, key), &input, 1, CSSM_ALGID_NONE, &signature),
        CSSM_OK);
    auto verifying = rsa.publicKey();
    verifying.KeyHeader.KeyUsage = CSSM_KEYUSE_SIGN;
    EXPECT_EQ(
        CSSM_VerifyData(signatureContext(CSSM_ALGID_SHA256WithRSA, verifying), &input, 1, CSSM_ALGID_NONE, &signature),
        CSSMERR_CSP_KEY_USAGE_INCORRECT);
    release(signature);
}

TEST_F(CspSignatureTest, ReadsPkcs1KeysOfRsa)
{
    mustRun({"openssl", "rsa", "-in", rsa.path("p8"), "-inform", "DER", "-traditional", "-outform", "DER", "-out",
        rsa.path("p1")});
    mustRun({"openssl", "rsa", "-in", rsa.path("p8"), "-inform", "DER", "-RSAPublicKey_out", "-outform", "DER", "-out",
        rsa.path("public.p1")});
    const Bytes privateBytes = readFile(rsa.path("p1"));
    const Bytes publicBytes = readFile(rsa.path("public.p1"));
    const auto privateKey = rsa.key(privateBytes, CSSM_KEYCLASS_PRIVATE_KEY, CSSM_KEYBLOB_RAW_FORMAT_PKCS1);
    const auto publicKey = rsa.key(publicBytes, CSSM_KEYCLASS_PUBLIC_KEY, CSSM_KEYBLOB_RAW_FORMAT_PKCS1);
    const CSSM_DATA input = dataOf(text);
    CSSM_DATA signature;
    ASSERT_EQ(
        CSSM_SignData(signatureContext(CSSM_ALGID_SHA256WithRSA, privateKey), &input, 1, CSSM_ALGID_NONE, &signature),
        CSSM_OK);
    EXPECT_EQ(
        CSSM_VerifyData(signatureContext(CSSM_ALGID_SHA256WithRSA, publicKey), &input, 1, CSSM_ALGID_NONE, &signature),
        CSSM_OK);
    release(signature);
}

TEST_F(CspSignatureTest, RefusesKeysThatDoNotFit)
{
    CSSM_CC_HANDLE context = 42;
    const auto attempt = [&](CSSM_ALGORITHMS algorithm, const CSSM_KEY& key) {
        return CSSM_CSP_CreateSignatureContext(csp, algorithm, nullptr, &key, &context);
    };
    const auto altered = [&](auto change) {
        CSSM_KEY key = rsa.privateKey();
        change(key);
        return attempt(CSSM_ALGID_SHA256WithRSA, key);
    };
    EXPECT_EQ(attempt(CSSM_ALGID_SHA1, rsa.privateKey()), CSSMERR_CSP_INVALID_ALGORITHM);
    EXPECT_EQ(attempt(CSSM_ALGID_SHA256WithECDSA, rsa.privateKey()), CSSMERR_CSP_ALGID_MISMATCH);
    CSSM_KEY ecKey = ec.privateKey();
    ecKey.KeyHeader.Format = CSSM_KEYBLOB_RAW_FORMAT_PKCS1;
    EXPECT_EQ(attempt(CSSM_ALGID_SHA256WithECDSA, ecKey), CSSMERR_CSP_UNSUPPORTED_KEY_FORMAT);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyHeader.BlobType = CSSM_KEYBLOB_REFERENCE; }),
        CSSMERR_CSP_KEY_BLOB_TYPE_INCORRECT);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyHeader.KeyClass = CSSM_KEYCLASS_SESSION_KEY; }),
        CSSMERR_CSP_INVALID_KEY_CLASS);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyHeader.Format = CSSM_KEYBLOB_RAW_FORMAT_SPKI; }),
        CSSMERR_CSP_UNSUPPORTED_KEY_FORMAT);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyHeader.KeyClass = CSSM_KEYCLASS_PUBLIC_KEY; }),
        CSSMERR_CSP_UNSUPPORTED_KEY_FORMAT);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyData.Length -= 1; }), CSSMERR_CSP_INVALID_KEY);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyData.Length = 0; }), CSSMERR_CSP_INVALID_KEY);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyData.Data = nullptr; }), CSSMERR_CSP_INVALID_KEY);
    EXPECT_EQ(altered([](CSSM_KEY& key) { key.KeyData.Length = std::size_t{1} << 32; }), CSSMERR_CSP_INVALID_KEY);
    EXPECT_EQ(altered([&](CSSM_KEY& key) { key.KeyData = ec.privateKey().KeyData; }), CSSMERR_CSP_INVALID_KEY);
    Bytes trailing(rsa.publicKey().KeyData.Data, rsa.publicKey().KeyData.Data + rsa.publicKey().KeyData.Length);
    trailing.push_back(0);
    EXPECT_EQ(attempt(CSSM_ALGID_RSA, rsa.key(trailing, CSSM_KEYCLASS_PUBLIC_KEY, CSSM_KEYBLOB_RAW_FORMAT_SPKI)),
        CSSMERR_CSP_INVALID_KEY);
    const auto* credentials = reinterpret_cast<const CSSM_ACCESS_CREDENTIALS*>(&context);
    const auto key = rsa.privateKey();
    EXPECT_EQ(CSSM_CSP_CreateSignatureContext(csp, CSSM_ALGID_RSA, credentials, &key, &context),
        CSSMERR_CSP_INVALID_INPUT_POINTER);
    EXPECT_EQ(
        CSSM_CSP_CreateSignatureContext(csp, CSSM_ALGID_RSA, nullptr, nullptr, &context), CSSMERR_CSP_MISSING_ATTR_KEY);
    EXPECT_EQ(CSSM_CSP_CreateSignatureContext(csp, CSSM_ALGID_RSA, nullptr, &key, nullptr),
        CSSMERR_CSP_INVALID_OUTPUT_POINTER);
    EXPECT_EQ(CSSM_CSP_CreateSignatureContext(csp + 1, CSSM_ALGID_RSA, nullptr, &key, &context),
        CSSMERR_CSP_INVALID_CSP_HANDLE);
    EXPECT_EQ(context, 42U);
}

} // namespace
} // namespace kf::test
