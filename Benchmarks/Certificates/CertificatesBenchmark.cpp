// Digests, certificate dictionaries and encodings, each beside the yardstick
// that run.sh holds it against. The first argument is a certificate (DER).

#include "Certificates/CDSACsp.h"
#include "Certificates/NSData+KeyfoldAdditions.h"
#include "Certificates/X509Certificate.h"
#include "Security/ScopedOpenSSL.h"
#include "Shared/KFRegex/KFRegex.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>

namespace {

std::vector<std::uint8_t> certificate;

void require(bool condition)
{
    if (!condition)
        std::abort();
}

CSSM_DATA certificateData() { return {certificate.size(), certificate.data()}; }

void digestByOpenSSL(benchmark::State& state)
{
    const kf::ScopedEVP_MD sha1(EVP_MD_fetch(nullptr, "SHA1", nullptr));
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest;
    for (auto _ : state) {
        require(EVP_Digest(certificate.data(), certificate.size(), digest.data(), nullptr, sha1.get(), nullptr) == 1);
        benchmark::DoNotOptimize(digest);
    }
}
BENCHMARK(digestByOpenSSL);

void digestOnly(CSSM_CSP_HANDLE handle)
{
    const CSSM_DATA input = certificateData();
    CSSM_DATA digest;
    require(cdsaDigest(handle, CSSM_ALGID_SHA1, &input, &digest) == CSSM_OK);
    benchmark::DoNotOptimize(digest.Data);
    appFree(digest.Data, nullptr);
}

void digest(benchmark::State& state)
{
    CSSM_CSP_HANDLE handle = 0;
    require(cdsaCspAttach(&handle) == CSSM_OK);
    for (auto _ : state)
        digestOnly(handle);
    require(cdsaCspDetach(handle) == CSSM_OK);
}
BENCHMARK(digest);

void attachAndDetach(benchmark::State& state)
{
    for (auto _ : state) {
        CSSM_CSP_HANDLE handle = 0;
        require(cdsaCspAttach(&handle) == CSSM_OK);
        require(cdsaCspDetach(handle) == CSSM_OK);
    }
}
BENCHMARK(attachAndDetach);

void attachDigestAndDetach(benchmark::State& state)
{
    for (auto _ : state) {
        CSSM_CSP_HANDLE handle = 0;
        require(cdsaCspAttach(&handle) == CSSM_OK);
        digestOnly(handle);
        require(cdsaCspDetach(handle) == CSSM_OK);
    }
}
BENCHMARK(attachDigestAndDetach);

void certificateByOpenSSL(benchmark::State& state)
{
    for (auto _ : state) {
        const std::uint8_t* cursor = certificate.data();
        const kf::ScopedX509 decoded(d2i_X509(nullptr, &cursor, static_cast<long>(certificate.size())));
        require(decoded != nullptr);
    }
}
BENCHMARK(certificateByOpenSSL);

void certificateDictionary(benchmark::State& state)
{
    const CSSM_DATA data = certificateData();
    SecCertificateRef item;
    require(SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &item) == errSecSuccess);
    for (auto _ : state)
        require(X509Certificate::extractCertDictFromCert(item)->count() == 6);
}
BENCHMARK(certificateDictionary);

std::vector<std::uint8_t> randomBytes(std::size_t length)
{
    std::mt19937 engine(1);
    std::vector<std::uint8_t> bytes(length);
    for (auto& byte : bytes)
        byte = static_cast<std::uint8_t>(engine());
    return bytes;
}

constexpr std::size_t megabyte = std::size_t{1} << 20;

void copyOfHexText(benchmark::State& state)
{
    const auto from = randomBytes(2 * megabyte);
    std::vector<std::uint8_t> to(from.size());
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(copyOfHexText);

void hexText(benchmark::State& state)
{
    const auto data = NSData::dataWithVector(randomBytes(megabyte));
    for (auto _ : state)
        benchmark::DoNotOptimize(KeyfoldAdditions::hexString(data));
}
BENCHMARK(hexText);

/// Two texts of 8 KB in lines, in turn: the same text twice would be known to the regular expressions.
struct Base64Texts {
    Base64Texts()
    {
        for (std::size_t i = 0; i < texts.size(); ++i) {
            auto bytes = randomBytes(6144);
            bytes[0] = static_cast<std::uint8_t>(i);
            texts[i] = KeyfoldAdditions::base64Encoding(NSData::dataWithVector(std::move(bytes)));
            stripped[i] = *strip(i)->UTF8String();
        }
    }
    Ref<NSString> strip(std::size_t i) const
    {
        return KFRegexAdditions::stringByReplacingOccurrencesOfRegex(texts[i], "\\s+"_ns, ""_ns);
    }
    std::array<Ref<NSString>, 2> texts;
    std::array<std::string, 2> stripped;
};

void stripBase64(benchmark::State& state)
{
    const Base64Texts base64;
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(base64.strip(++i & 1));
}
BENCHMARK(stripBase64);

void filterBase64(benchmark::State& state)
{
    const Base64Texts base64;
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string& text = base64.stripped[++i & 1];
        kf::ScopedBIOChain filter(BIO_new(BIO_f_base64()));
        BIO_set_flags(filter.get(), BIO_FLAGS_BASE64_NO_NL);
        BIO_push(filter.get(), BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        std::vector<std::uint8_t> bytes(text.size());
        std::size_t length = 0;
        for (int count; (count = BIO_read(filter.get(), bytes.data() + length, 512)) > 0;)
            length += static_cast<std::size_t>(count);
        require(length == 6144);
    }
}
BENCHMARK(filterBase64);

void decodeBase64(benchmark::State& state)
{
    const Base64Texts base64;
    std::size_t i = 0;
    for (auto _ : state)
        require(KeyfoldAdditions::dataWithBase64EncodedString(base64.texts[++i & 1])->length() == 6144);
}
BENCHMARK(decodeBase64);

} // namespace

int main(int count, char** arguments)
{
    benchmark::Initialize(&count, arguments);
    if (count != 2)
        return 2;
    std::ifstream file(arguments[1], std::ios::binary);
    certificate.assign(std::istreambuf_iterator<char>(file), {});
    require(!certificate.empty());
    benchmark::RunSpecifiedBenchmarks();
}
