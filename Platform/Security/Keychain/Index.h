// What a keychain holds, arranged for lookups that stay fast as it grows.
#pragma once

#include "Security/Keychain/Backend.h"

#include <string_view>
#include <unordered_map>

namespace kf::keychain {

struct DigestHash {
    std::size_t operator()(const Digest& digest) const noexcept;
};

inline std::string_view asText(std::span<const std::uint8_t> bytes) noexcept
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
inline std::span<const std::uint8_t> asBytes(std::string_view text) noexcept
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// A certificate's bytes with what was read from them. Never moved: the fields point into the bytes.
struct ParsedCertificate {
    explicit ParsedCertificate(Bytes bytes);
    ParsedCertificate(const ParsedCertificate&) = delete;
    ParsedCertificate& operator=(const ParsedCertificate&) = delete;

    const Bytes der;
    const Digest digest;
    /// Nothing where the bytes are no certificate; other programs may store such.
    const std::optional<CertificateFields> fields;
};
using SharedCertificate = std::shared_ptr<const ParsedCertificate>;

/// The certificates of a keychain at one moment. Immutable.
class CertificateIndex {
public:
    struct Entry {
        SharedCertificate certificate;
        std::string label; ///< as stored; empty for none
    };

    /// Takes over from `previous` what was read already; `previous` may be null.
    CertificateIndex(std::vector<CertificateRecord> records, const CertificateIndex* previous);
    CertificateIndex(const CertificateIndex&) = delete;
    CertificateIndex& operator=(const CertificateIndex&) = delete;

    const std::vector<Entry>& entries() const noexcept { return entries_; }
    /// Null where it is not there.
    const Entry* find(const Digest& digest) const;
    // Positions in entries(), ascending.
    std::vector<std::size_t> withSubject(std::span<const std::uint8_t> subject) const;
    std::vector<std::size_t> withIssuer(std::span<const std::uint8_t> issuer) const;
    std::vector<std::size_t> withSerial(std::span<const std::uint8_t> serial) const;
    /// Any e-mail address, or the common name, byte for byte. An empty alias matches nothing.
    std::vector<std::size_t> withAlias(std::string_view alias) const;
    /// The label as it reads: the stored one, else the certificate's own.
    std::vector<std::size_t> withLabel(std::string_view label) const;
    std::vector<std::size_t> withKeyId(std::span<const std::uint8_t> keyId) const;
    std::vector<std::size_t> withSubjectKeyIdentifier(std::span<const std::uint8_t> identifier) const;

private:
    using Table = std::unordered_multimap<std::string_view, std::size_t>;
    static std::vector<std::size_t> lookUp(const Table& table, std::string_view value);
    void enter(std::size_t position);

    std::vector<Entry> entries_;
    std::unordered_map<Digest, std::size_t, DigestHash> byDigest_;
    Table bySubject_, byIssuer_, bySerial_, byAlias_, byLabel_, byKeyId_, bySubjectKeyIdentifier_;
};

/// The private keys of a keychain at one moment. Immutable.
class KeyIndex {
public:
    explicit KeyIndex(std::vector<KeyRecord> records);
    KeyIndex(const KeyIndex&) = delete;
    KeyIndex& operator=(const KeyIndex&) = delete;

    const std::vector<KeyRecord>& entries() const noexcept { return entries_; }
    /// Null where it is not there.
    const KeyRecord* find(std::span<const std::uint8_t> id) const;

private:
    std::vector<KeyRecord> entries_;
    std::unordered_map<std::string_view, std::size_t> byId_;
};

/// The stored label, else the one that the certificate's own names give.
const std::string& shownLabel(const CertificateIndex::Entry& entry);

/// The contents of the INTEGER, without tag and length.
std::span<const std::uint8_t> serialNumber(const CertificateFields& fields);

} // namespace kf::keychain
