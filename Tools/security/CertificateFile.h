// Reading the one certificate that a command is about.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <optional>
#include <string>

namespace kf::security {

/// A certificate from a file, or why there is none.
struct CertificateFile {
    std::optional<Bytes> der;
    std::string error;
};

/// Reads exactly one certificate, DER or PEM, from a regular file of at most
/// 64 KiB. The file is opened once, so that what was checked is what is used;
/// as root without following a link at the end of the path, but for a
/// descriptor that this process was started with (/dev/fd/N).
CertificateFile readCertificateFile(const std::string& path);

/// Why a certificate must not become a trusted authority; empty where it may:
/// it signed itself, is an authority, is valid now and has a key of at least
/// 112 bits of strength (RSA 2048).
std::string whyNotAdmissible(const Bytes& der);

/// Why a certificate must not be trusted by itself, for nothing that it issued;
/// empty where it may: another one signed it, it is valid now and its key has
/// that strength.
std::string whyNotAdmissibleItself(const Bytes& der);

/// The certificate in PEM (RFC 7468).
std::string pemText(std::span<const std::uint8_t> der);

/// SHA-256 in hexadecimal.
std::string digestText(const Bytes& der);

} // namespace kf::security
