#include "Security/Certificate/CertificateFields.h"

#include "Security/Certificate/DERReader.h"
#include "Security/Certificate/LibraryContext.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <openssl/asn1.h>
#include <stdexcept>
#include <string_view>

namespace kf {

namespace {

using Span = std::span<const std::uint8_t>;

constexpr std::array<std::uint8_t, 3> oidCommonName = {0x55, 0x04, 0x03};
constexpr std::array<std::uint8_t, 3> oidOrganization = {0x55, 0x04, 0x0A};
constexpr std::array<std::uint8_t, 3> oidOrganizationalUnit = {0x55, 0x04, 0x0B};
constexpr std::array<std::uint8_t, 9> oidEmailAddress = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01};
constexpr std::array<std::uint8_t, 9> oidRSA = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
constexpr std::array<std::uint8_t, 9> oidRSAPSS = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0A};
constexpr std::array<std::uint8_t, 3> oidSubjectKeyIdentifier = {0x55, 0x1D, 0x0E};
constexpr std::array<std::uint8_t, 3> oidSubjectAlternativeName = {0x55, 0x1D, 0x11};
constexpr std::array<std::uint8_t, 3> oidBasicConstraints = {0x55, 0x1D, 0x13};

bool same(Span a, Span b) { return std::ranges::equal(a, b); }

template <std::size_t size>
std::array<std::uint8_t, size> digest(Span bytes, const EVP_MD* algorithm)
{
    std::array<std::uint8_t, size> result{};
    unsigned int length = 0;
    if (!algorithm || EVP_Digest(bytes.data(), bytes.size(), result.data(), &length, algorithm, nullptr) != 1
        || length != size)
        throw std::runtime_error("libcrypto lacks a digest algorithm");
    return result;
}

/// Text of any of ASN.1's string types as UTF-8; empty where it cannot be read as such.
std::string textOf(int type, Span content)
{
    if (content.size() > std::numeric_limits<int>::max())
        return {};
    const OpenSSLErrorMark mark;
    const ScopedASN1_STRING string(ASN1_STRING_type_new(type));
    if (!string || ASN1_STRING_set(string.get(), content.data(), static_cast<int>(content.size())) != 1)
        throw std::bad_alloc();
    unsigned char* text = nullptr;
    const int length = ASN1_STRING_to_UTF8(&text, string.get());
    const ScopedOpenSSLBytes owner(text);
    if (length <= 0)
        return {};
    return std::string(text, text + length);
}

struct NameTexts {
    std::string commonName;
    std::string organizationalUnit;
    std::string organization;
    std::vector<std::string> emailAddresses;
};

/// Takes one attribute of a name into `texts`, where not null. Of several with one type the last, most specific one
/// counts.
bool readAttribute(Span attribute, NameTexts* texts)
{
    DERReader reader(attribute);
    const auto type = reader.next(der::objectIdentifier);
    const auto value = reader.next();
    if (!type || !value || !reader.atEnd())
        return false;
    if (!texts)
        return true;
    const auto text = [&] {
        return value->tagClass == DERClass::universal && !value->constructed ? textOf(value->tag, value->content)
                                                                             : std::string();
    };
    const auto put = [&](std::string& place) {
        if (std::string read = text(); !read.empty())
            place = std::move(read);
    };
    if (same(type->content, oidCommonName))
        put(texts->commonName);
    else if (same(type->content, oidOrganizationalUnit))
        put(texts->organizationalUnit);
    else if (same(type->content, oidOrganization))
        put(texts->organization);
    else if (same(type->content, oidEmailAddress)) {
        if (std::string address = text(); !address.empty())
            texts->emailAddresses.push_back(std::move(address));
    }
    return true;
}

bool readName(Span name, NameTexts* texts)
{
    DERReader relativeNames(name);
    while (!relativeNames.atEnd()) {
        const auto relativeName = relativeNames.next(der::set);
        if (!relativeName)
            return false;
        DERReader attributes(relativeName->content);
        if (attributes.atEnd())
            return false;
        while (!attributes.atEnd()) {
            const auto attribute = attributes.next(der::sequence);
            if (!attribute || !readAttribute(attribute->content, texts))
                return false;
        }
    }
    return true;
}

std::optional<std::int64_t> readTime(DERReader& reader)
{
    const auto element = reader.next();
    if (!element)
        return std::nullopt;
    const OpenSSLErrorMark mark;
    const unsigned char* position = element->whole.data();
    const ScopedASN1_TIME time(d2i_ASN1_TIME(nullptr, &position, static_cast<long>(element->whole.size())));
    std::tm parts{};
    if (!time || ASN1_TIME_to_tm(time.get(), &parts) != 1)
        return std::nullopt;
    return static_cast<std::int64_t>(::timegm(&parts));
}

bool readValidity(Span validity, CertificateFields& fields)
{
    DERReader reader(validity);
    const auto notBefore = readTime(reader);
    const auto notAfter = readTime(reader);
    if (!notBefore || !notAfter || !reader.atEnd())
        return false;
    fields.notBefore = *notBefore;
    fields.notAfter = *notAfter;
    return true;
}

/// The modulus of an RSAPublicKey (RFC 8017), without leading zeros.
std::optional<Span> modulusOf(Span publicKey)
{
    DERReader outer(publicKey);
    const auto key = outer.next(der::sequence);
    if (!key || !outer.atEnd())
        return std::nullopt;
    DERReader reader(key->content);
    const auto modulus = reader.next(der::integer);
    const auto exponent = reader.next(der::integer);
    if (!modulus || !exponent || !reader.atEnd())
        return std::nullopt;
    const Span content = modulus->content;
    const auto start = std::ranges::find_if(content, [](std::uint8_t byte) { return byte != 0; });
    return content.subspan(static_cast<std::size_t>(start - content.begin()));
}

bool readPublicKey(Span subjectPublicKeyInfo, CertificateFields& fields)
{
    DERReader reader(subjectPublicKeyInfo);
    const auto algorithm = reader.next(der::sequence);
    const auto bits = reader.next(der::bitString);
    if (!algorithm || !bits || !reader.atEnd() || bits->constructed || bits->content.empty() || bits->content[0] != 0)
        return false;
    DERReader algorithmReader(algorithm->content);
    const auto identifier = algorithmReader.next(der::objectIdentifier);
    if (!identifier)
        return false;
    Span key = bits->content.subspan(1);
    if (same(identifier->content, oidRSA) || same(identifier->content, oidRSAPSS)) {
        const auto modulus = modulusOf(key);
        if (!modulus)
            return false;
        key = *modulus;
    }
    fields.keyId = sha1(key);
    return true;
}

// A broken value makes the certificate none the less a certificate: the
// extension then says nothing. Who evaluates trust reads extensions anew.

void readSubjectKeyIdentifier(Span value, CertificateFields& fields)
{
    DERReader reader(value);
    if (const auto identifier = reader.next(der::octetString); identifier && reader.atEnd())
        fields.subjectKeyIdentifier.assign(identifier->content.begin(), identifier->content.end());
}

void readAlternativeNames(Span value, CertificateFields& fields)
{
    constexpr int rfc822Name = 1;
    DERReader outer(value);
    const auto names = outer.next(der::sequence);
    if (!names)
        return;
    DERReader reader(names->content);
    while (const auto name = reader.next()) {
        if (!name->isContext(rfc822Name) || name->constructed)
            continue;
        if (std::string address = textOf(V_ASN1_IA5STRING, name->content); !address.empty())
            fields.emailAddresses.push_back(std::move(address));
    }
}

void readBasicConstraints(Span value, CertificateFields& fields)
{
    DERReader outer(value);
    const auto constraints = outer.next(der::sequence);
    if (!constraints)
        return;
    DERReader reader(constraints->content);
    const auto isCA = reader.next(der::boolean);
    fields.isCA = isCA && isCA->content.size() == 1 && isCA->content[0] != 0;
}

bool readExtension(Span extension, CertificateFields& fields)
{
    DERReader reader(extension);
    const auto identifier = reader.next(der::objectIdentifier);
    static_cast<void>(reader.next(der::boolean));
    const auto value = reader.next(der::octetString);
    if (!identifier || !value || !reader.atEnd())
        return false;
    if (same(identifier->content, oidSubjectKeyIdentifier))
        readSubjectKeyIdentifier(value->content, fields);
    else if (same(identifier->content, oidSubjectAlternativeName))
        readAlternativeNames(value->content, fields);
    else if (same(identifier->content, oidBasicConstraints))
        readBasicConstraints(value->content, fields);
    return true;
}

bool readExtensions(Span explicitExtensions, CertificateFields& fields)
{
    DERReader outer(explicitExtensions);
    const auto extensions = outer.next(der::sequence);
    if (!extensions || !outer.atEnd())
        return false;
    DERReader reader(extensions->content);
    while (!reader.atEnd()) {
        const auto extension = reader.next(der::sequence);
        if (!extension || !readExtension(extension->content, fields))
            return false;
    }
    return true;
}

/// A non-negative INTEGER's digits, without the zero byte that marks its sign.
std::string hexadecimal(Span bytes)
{
    if (bytes.size() > 1 && bytes[0] == 0)
        bytes = bytes.subspan(1);
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string shortNameOf(const NameTexts& texts)
{
    for (const std::string* text : {&texts.commonName, &texts.organizationalUnit, &texts.organization}) {
        if (!text->empty())
            return *text;
    }
    return {};
}

std::string labelOf(const NameTexts& texts, Span serial)
{
    std::string label = shortNameOf(texts);
    return label.empty() ? hexadecimal(serial) : label;
}

bool readTBSCertificate(Span certificate, CertificateFields& fields)
{
    DERReader reader(certificate);
    static_cast<void>(reader.nextContext(0)); // version
    const auto serial = reader.next(der::integer);
    const auto signature = reader.next(der::sequence);
    const auto issuer = reader.next(der::sequence);
    const auto validity = reader.next(der::sequence);
    const auto subject = reader.next(der::sequence);
    const auto publicKey = reader.next(der::sequence);
    if (!serial || serial->content.empty() || !signature || !issuer || !validity || !subject || !publicKey)
        return false;
    static_cast<void>(reader.nextContext(1)); // issuerUniqueID
    static_cast<void>(reader.nextContext(2)); // subjectUniqueID
    const auto extensions = reader.nextContext(3);
    if (!reader.atEnd())
        return false;

    fields.serial = serial->whole;
    fields.issuer = issuer->whole;
    fields.subject = subject->whole;
    NameTexts texts;
    if (!readName(issuer->content, nullptr) || !readName(subject->content, &texts)
        || !readValidity(validity->content, fields) || !readPublicKey(publicKey->content, fields))
        return false;
    fields.label = labelOf(texts, serial->content);
    fields.commonName = std::move(texts.commonName);
    fields.emailAddresses = std::move(texts.emailAddresses);
    return !extensions || readExtensions(extensions->content, fields);
}

} // namespace

Digest sha256(std::span<const std::uint8_t> bytes)
{
    // Fetched once: a fetch costs more than the digest of a certificate.
    static const ScopedEVP_MD algorithm(EVP_MD_fetch(libraryContext(), "SHA256", nullptr));
    return digest<32>(bytes, algorithm.get());
}

std::array<std::uint8_t, 20> sha1(std::span<const std::uint8_t> bytes)
{
    static const ScopedEVP_MD algorithm(EVP_MD_fetch(libraryContext(), "SHA1", nullptr));
    return digest<20>(bytes, algorithm.get());
}

Result<CertificateFields> readCertificateFields(std::span<const std::uint8_t> der)
{
    DERReader outer(der);
    const auto certificate = outer.next(der::sequence);
    if (!certificate || !outer.atEnd())
        return Failure{errSecUnknownFormat};
    DERReader reader(certificate->content);
    const auto toBeSigned = reader.next(der::sequence);
    const auto algorithm = reader.next(der::sequence);
    const auto signature = reader.next(der::bitString);
    CertificateFields fields;
    if (!toBeSigned || !algorithm || !signature || !reader.atEnd() || !readTBSCertificate(toBeSigned->content, fields))
        return Failure{errSecUnknownFormat};
    return fields;
}

std::string shortName(std::span<const std::uint8_t> name)
{
    NameTexts texts;
    const auto sequence = DERReader(name).next(der::sequence);
    return sequence && readName(sequence->content, &texts) ? shortNameOf(texts) : std::string();
}

} // namespace kf
