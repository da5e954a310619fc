#include "security/CertificateFile.h"

#include "Security/ScopedDescriptor.h"
#include "Security/ScopedOpenSSL.h"
#include "security/FileTools.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace kf::security {

namespace {

constexpr std::size_t sizeLimit = 64 * 1024;

CertificateFile failed(std::string error) { return {std::nullopt, std::move(error)}; }

/// The file's bytes, in `der` for now.
CertificateFile readBytes(const std::string& path)
{
    const int linkFlag = ::geteuid() == 0 ? O_NOFOLLOW : 0;
    // Without O_NONBLOCK a named pipe would keep us waiting before we see what it is.
    const ScopedDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | linkFlag));
    if (file.get() < 0)
        return failed(errno == ELOOP ? std::string("is a symbolic link") : errorText(errno));
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0)
        return failed(errorText(errno));
    if (!S_ISREG(status.st_mode))
        return failed("is not a regular file");
    Bytes bytes(sizeLimit + 1);
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count = ::read(file.get(), bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed(errorText(errno));
        if (count == 0)
            break;
        length += static_cast<std::size_t>(count);
    }
    if (length > sizeLimit)
        return failed("is larger than 64 KiB");
    bytes.resize(length);
    return {std::move(bytes), {}};
}

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

} // namespace

CertificateFile readCertificateFile(const std::string& path)
{
    CertificateFile file = readBytes(path);
    if (!file.der)
        return file;
    if (readCertificateFields(*file.der))
        return file;
    const std::string_view text(reinterpret_cast<const char*>(file.der->data()), file.der->size());
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
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    if (fields->notAfter < now)
        return "expired on " + dateText(fields->notAfter);
    if (fields->notBefore > now)
        return "is not valid before " + dateText(fields->notBefore);
    if (std::string weakness = whyKeyIsWeak(certificate.get()); !weakness.empty())
        return weakness;
    if (X509_self_signed(certificate.get(), 1) != 1)
        return "is not a root certificate: it did not sign itself";
    return {};
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
