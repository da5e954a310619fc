#include "Security/Keychain/Index.h"

#include <algorithm>
#include <cstring>

namespace kf::keychain {

namespace {

std::optional<CertificateFields> fieldsOf(const Bytes& der)
{
    auto fields = readCertificateFields(der);
    if (!fields)
        return std::nullopt;
    return std::move(*fields);
}

} // namespace

std::size_t DigestHash::operator()(const Digest& digest) const noexcept
{
    std::size_t hash = 0;
    std::memcpy(&hash, digest.data(), sizeof hash);
    return hash;
}

ParsedCertificate::ParsedCertificate(Bytes bytes)
    : der(std::move(bytes)), digest(sha256(der)), fields(fieldsOf(der)) { }

const std::string& shownLabel(const CertificateIndex::Entry& entry)
{
    if (!entry.label.empty() || !entry.certificate->fields)
        return entry.label;
    return entry.certificate->fields->label;
}

std::span<const std::uint8_t> serialNumber(const CertificateFields& fields)
{
    // A certificate's serial number has at most 20 octets; the long form of a
    // length is met in certificates that break that rule.
    const auto encoded = fields.serial;
    if (encoded.size() < 2)
        return {};
    const std::size_t lengthOctets = encoded[1] < 0x80 ? 0 : encoded[1] & 0x7fU;
    return encoded.subspan(std::min(encoded.size(), 2 + lengthOctets));
}

CertificateIndex::CertificateIndex(std::vector<CertificateRecord> records, const CertificateIndex* previous)
{
    entries_.reserve(records.size());
    for (auto& record : records) {
        const Entry* known = previous ? previous->find(sha256(record.der)) : nullptr;
        auto certificate =
            known ? known->certificate : std::make_shared<const ParsedCertificate>(std::move(record.der));
        if (byDigest_.emplace(certificate->digest, entries_.size()).second)
            entries_.push_back({std::move(certificate), std::move(record.label)});
    }
    for (std::size_t position = 0; position < entries_.size(); ++position)
        enter(position);
}

void CertificateIndex::enter(std::size_t position)
{
    const Entry& entry = entries_[position];
    byLabel_.emplace(shownLabel(entry), position);
    if (!entry.certificate->fields)
        return;
    const CertificateFields& fields = *entry.certificate->fields;
    bySubject_.emplace(asText(fields.subject), position);
    byIssuer_.emplace(asText(fields.issuer), position);
    bySerial_.emplace(asText(serialNumber(fields)), position);
    byKeyId_.emplace(asText(fields.keyId), position);
    if (!fields.subjectKeyIdentifier.empty())
        bySubjectKeyIdentifier_.emplace(asText(fields.subjectKeyIdentifier), position);
    byAlias_.emplace(fields.commonName, position);
    for (const auto& address : fields.emailAddresses)
        byAlias_.emplace(address, position);
}

const CertificateIndex::Entry* CertificateIndex::find(const Digest& digest) const
{
    const auto found = byDigest_.find(digest);
    return found == byDigest_.end() ? nullptr : &entries_[found->second];
}

std::vector<std::size_t> CertificateIndex::lookUp(const Table& table, std::string_view value)
{
    std::vector<std::size_t> positions;
    for (auto [first, last] = table.equal_range(value); first != last; ++first)
        positions.push_back(first->second);
    std::ranges::sort(positions);
    positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
    return positions;
}

std::vector<std::size_t> CertificateIndex::withSubject(std::span<const std::uint8_t> subject) const
{
    return lookUp(bySubject_, asText(subject));
}

std::vector<std::size_t> CertificateIndex::withIssuer(std::span<const std::uint8_t> issuer) const
{
    return lookUp(byIssuer_, asText(issuer));
}

std::vector<std::size_t> CertificateIndex::withSerial(std::span<const std::uint8_t> serial) const
{
    return lookUp(bySerial_, asText(serial));
}

std::vector<std::size_t> CertificateIndex::withAlias(std::string_view alias) const
{
    return alias.empty() ? std::vector<std::size_t>() : lookUp(byAlias_, alias);
}

std::vector<std::size_t> CertificateIndex::withLabel(std::string_view label) const { return lookUp(byLabel_, label); }

std::vector<std::size_t> CertificateIndex::withKeyId(std::span<const std::uint8_t> keyId) const
{
    return lookUp(byKeyId_, asText(keyId));
}

std::vector<std::size_t> CertificateIndex::withSubjectKeyIdentifier(std::span<const std::uint8_t> identifier) const
{
    return lookUp(bySubjectKeyIdentifier_, asText(identifier));
}

KeyIndex::KeyIndex(std::vector<KeyRecord> records) : entries_(std::move(records))
{
    for (std::size_t position = 0; position < entries_.size(); ++position)
        byId_.emplace(asText(entries_[position].id), position);
}

const KeyRecord* KeyIndex::find(std::span<const std::uint8_t> id) const
{
    const auto found = byId_.find(asText(id));
    return found == byId_.end() ? nullptr : &entries_[found->second];
}

} // namespace kf::keychain
