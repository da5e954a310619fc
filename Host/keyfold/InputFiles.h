// The files that a person hands over.
#pragma once

#include "Foundation/NSString.h"

#include <string>
#include <variant>

namespace kf {

/// Why a file could not be taken, in words for the person.
struct InputError {
    std::string message;
};

/// A PKCS#12 bundle as base64 text: a binary file is encoded; of a file of base64
/// text the text is taken as it is, and only what is between the lines BEGIN PKCS12
/// and END PKCS12 (RFC 7468) where it has such. At most 8 MiB.
std::variant<Ref<NSString>, InputError> readPKCS12AsBase64(const std::string& path);

/// The first line of a file of UTF-8 text, without its end; "-" reads standard
/// input. At most 4096 bytes. Every copy made on the way is wiped; the result
/// wipes itself.
std::variant<Ref<NSString>, InputError> readPassphrase(const std::string& path);

} // namespace kf
