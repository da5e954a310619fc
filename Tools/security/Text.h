// How the tool writes what certificates and keychains say.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

namespace kf::security {

using JSON = nlohmann::ordered_json;

/// Text of a stranger's making as it may be printed: on one line, without what
/// a terminal obeys and without what turns the direction of reading. U+FFFD
/// stands in the place of all that and of what is no UTF-8. Spaces at either end stay.
std::string printable(std::string_view text);

/// In capitals.
std::string hexText(std::span<const std::uint8_t> bytes);
/// A moment, in seconds since the Unix epoch, as RFC 3339 writes it in UTC.
std::string dateText(std::int64_t secondsSince1970);
/// A Name (DER) as RFC 4514 writes it, but for letters that are not ASCII, which stand as they are; "#" and its bytes
/// in hexadecimal where it cannot be read.
std::string nameText(std::span<const std::uint8_t> name);
/// The serial number in hexadecimal, whole octets, as OpenSSL prints it: a negative one with a minus sign. The
/// octets of the INTEGER where they are no valid number.
std::string serialText(const CertificateFields& fields);

/// Prints a document to standard output. It is ASCII, so valid UTF-8 whatever
/// the strings in it hold: what is no UTF-8 becomes U+FFFD, all else is kept, as escapes.
void printJSON(const JSON& document);

/// Tells on standard error, under the tool's name.
void complain(std::string_view place, std::string_view text);
/// The same with the platform's text for a status.
void complain(std::string_view place, OSStatus status);

} // namespace kf::security
