#include "security/Text.h"

#include "Foundation/NSString.h"
#include "Security/Keychain/Index.h"
#include "Security/ScopedOpenSSL.h"
#include "security/TrustedCertificate.h"

#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>

namespace kf::security {

namespace {

constexpr bool isBetween(char32_t character, char32_t first, char32_t last)
{
    return character >= first && character <= last;
}

/// Controls, line and paragraph separators, marks of direction, and characters that nobody sees.
constexpr bool isTreacherous(char32_t character)
{
    return character < 0x20 || isBetween(character, 0x7F, 0x9F) || character == 0xAD || character == 0x61C
        || character == 0x180E || character == 0x200B || isBetween(character, 0x200E, 0x200F)
        || isBetween(character, 0x2028, 0x202E) || isBetween(character, 0x2060, 0x206F) || character == 0xFEFF
        || isBetween(character, 0xFFF9, 0xFFFB) || isBetween(character, 0xE0000, 0xE0FFF) || character > 0x10FFFF;
}

std::string textOf(BIO* memory)
{
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory, &text);
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

} // namespace

std::string printable(std::string_view text)
{
    std::string cleaned;
    for (std::size_t index = 0; index < text.size();) {
        const char32_t character = nextCodePointOfUTF8(text, index);
        appendUTF8(cleaned, isTreacherous(character) ? replacementCharacter : character);
    }
    return cleaned;
}

std::string hexText(std::span<const std::uint8_t> bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        constexpr std::string_view digits = "0123456789ABCDEF";
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}

std::string dateText(std::int64_t secondsSince1970)
{
    const std::time_t time = static_cast<std::time_t>(secondsSince1970);
    std::tm parts{};
    char text[40] = {};
    if (!::gmtime_r(&time, &parts) || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
        return "unknown";
    return text;
}

std::string nameText(std::span<const std::uint8_t> name)
{
    const OpenSSLErrorMark mark;
    const unsigned char* position = name.data();
    const ScopedX509_NAME parsed(d2i_X509_NAME(nullptr, &position, static_cast<long>(name.size())));
    const ScopedBIOChain memory(BIO_new(BIO_s_mem()));
    constexpr unsigned long style = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    if (!parsed || !memory || X509_NAME_print_ex(memory.get(), parsed.get(), 0, style) < 0)
        return "#" + hexText(name);
    return textOf(memory.get());
}

std::string serialText(const CertificateFields& fields)
{
    const OpenSSLErrorMark mark;
    const unsigned char* position = fields.serial.data();
    const ScopedASN1_INTEGER number(d2i_ASN1_INTEGER(nullptr, &position, static_cast<long>(fields.serial.size())));
    if (!number)
        return hexText(keychain::serialNumber(fields));
    // The magnitude, without the octet that DER spends on the sign.
    const bool isNegative = ASN1_STRING_type(number.get()) == V_ASN1_NEG_INTEGER;
    const std::span magnitude(
        ASN1_STRING_get0_data(number.get()), static_cast<std::size_t>(ASN1_STRING_length(number.get())));
    return (isNegative ? "-" : "") + hexText(magnitude);
}

void printJSON(const JSON& document)
{
    std::cout << document.dump(2, ' ', true, JSON::error_handler_t::replace) << std::endl;
}

void complain(std::string_view place, std::string_view text)
{
    std::cerr << "security: " << printable(place) << ": " << text << std::endl;
}

void complain(std::string_view place, OSStatus status) { complain(place, statusText(status)); }

} // namespace kf::security
