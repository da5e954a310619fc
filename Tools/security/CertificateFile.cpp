#include "security/CertificateFile.h"

#include "Security/ScopedOpenSSL.h"
#include "security/FileTools.h"

#include <ctime>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <string_view>
#include <unistd.h>

namespace kf::security {

namespace {

constexpr std::size_t sizeLimit = 64UL * 1024;

CertificateFile failed(std::string error) { return {std::nullopt, std::move(error)}; }

std::size_t countOf(std::string_view text, std::string_view part)
{
    std::size_t count = 0;
    for (auto place = text.find(part); place != text.npos; place = text.find(part, place + part.size()))
        ++count;
    return count;
}

/// The DER inside the one block of a PEM text; empty where it cannot be read.
Bytes decodePEM(std::string_view text)
{
    const OpenSSLErrorMark mark;
    const ScopedBIOChain memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    if (!memory || PEM_read_bio(memory.get(), &name, &header, &data, &length) != 1)
        return {};
    const ScopedOpenSSLBytes nameOwner(reinterpret_cast<unsigned char*>(name));
    const ScopedOpenSSLBytes headerOwner(reinterpret_cast<unsigned char*>(header));
    const ScopedOpenSSLBytes dataOwner(data);
    return Bytes(data, data + length);
}

ScopedX509 parse(const Bytes& der)
{
    const unsigned char* position = der.data();
    return ScopedX509(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
}

std::string dateText(std::int64_t secondsSince1970)
{
    const std::time_t time = static_cast<std::time_t>(secondsSince1970);
    std::tm parts{};
    char text[32] = {};
    if (!::gmtime_r(&time, &parts) || std::strftime(text, sizeof text, "%Y-%m-%d", &parts) == 0)
        return "an unknown date";
    return text;
}

std::string whyKeyIsWeak(const X509* certificate)
{
    constexpr int smallestModulus = 2048;
    constexpr int smallestStrength = 112;
    const EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (!key)
        return "has a key of an unknown kind";
    const int bits = EVP_PKEY_get_bits(key);
    const int kind = EVP_PKEY_get_base_id(key);
    if ((kind == EVP_PKEY_RSA || kind == EVP_PKEY_RSA_PSS) && bits < smallestModulus)
        return "has an RSA key of " + std::to_string(bits) + " bits; at least 2048 are needed";
    if (EVP_PKEY_get_security_bits(key) < smallestStrength)
        return "has a key of " + std::to_string(bits) + " bits, which is too short for its kind";
    return {};
}

/// Whether a path names a descriptor that whoever started this process left
/// open for it. The system makes it a link, which nobody else can turn.
bool isInheritedDescriptor(std::string_view path)
{
    constexpr std::string_view directory = "/dev/fd/";
    return path.size() > directory.size() && path.starts_with(directory)
        && path.find_first_not_of("0123456789", directory.size()) == path.npos;
}

/// Its dates and its key.
std::string whyNotUsable(const CertificateFields& fields, const X509* certificate)
{
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    if (fields.notAfter < now)
        return "expired on " + dateText(fields.notAfter);
    if (fields.notBefore > now)
        return "is not valid before " + dateText(fields.notBefore);
    return whyKeyIsWeak(certificate);
}

} // namespace

CertificateFile readCertificateFile(const std::string& path)
{
    const bool followsLink = ::geteuid() != 0 || isInheritedDescriptor(path);
    const FileContent content = readFile(path, sizeLimit, followsLink);
    if (!content.text)
        return failed(content.error);
    const std::string& text = *content.text;
    if (Bytes bytes(text.begin(), text.end()); readCertificateFields(bytes))
        return {std::move(bytes), {}};
    const std::size_t certificates = countOf(text, "-----BEGIN CERTIFICATE-----");
    if (certificates == 0)
        return failed("holds no certificate (neither DER nor PEM)");
    if (certificates > 1)
        return failed("holds more than one certificate");
    if (countOf(text, "-----BEGIN ") > 1)
        return failed("holds more than a certificate");
    Bytes der = decodePEM(text);
    if (!readCertificateFields(der))
        return failed("holds a damaged certificate");
    return {std::move(der), {}};
}

std::string whyNotAdmissible(const Bytes& der)
{
    const OpenSSLErrorMark mark;
    const auto fields = readCertificateFields(der);
    const ScopedX509 certificate = parse(der);
    if (!fields || !certificate)
        return "holds a damaged certificate";
    constexpr int authorityByConstraints = 1;
    if (X509_check_ca(certificate.get()) != authorityByConstraints)
        return "is not the certificate of an authority";
    if (std::string reason = whyNotUsable(*fields, certificate.get()); !reason.empty())
        return reason;
    if (X509_self_signed(certificate.get(), 1) != 1)
        return "is not a root certificate: it did not sign itself";
    return {};
}

std::string whyNotAdmissibleItself(const Bytes& der)
{
    const OpenSSLErrorMark mark;
    const auto fields = readCertificateFields(der);
    const ScopedX509 certificate = parse(der);
    if (!fields || !certificate)
        return "holds a damaged certificate";
    if (X509_self_signed(certificate.get(), 1) == 1)
        return "signed itself: a root certificate is trusted with trustRoot";
    return whyNotUsable(*fields, certificate.get());
}

std::string pemText(std::span<const std::uint8_t> der)
{
    const ScopedBIOChain memory(BIO_new(BIO_s_mem()));
    if (!memory || PEM_write_bio(memory.get(), PEM_STRING_X509, "", der.data(), static_cast<long>(der.size())) <= 0)
        throw std::bad_alloc();
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
}

std::string digestText(const Bytes& der)
{
    std::string text;
    for (const std::uint8_t byte : sha256(der)) {
        constexpr std::string_view digits = "0123456789abcdef";
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

} // namespace kf::security
