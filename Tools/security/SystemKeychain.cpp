#include "security/SystemKeychain.h"

#include "Security/Keychain/Store.h"
#include "security/CertificateFile.h"
#include "security/TrustedCertificate.h"

#include <algorithm>

namespace kf::security {

namespace {

constexpr const char* recordName = "/system-keychain";

std::string lineFor(const Bytes& certificate) { return "certificate " + digestText(certificate); }
Record openRecord() { return Record(std::string(Record::folder) + recordName); }

/// The certificate as an item of the System keychain; nil where it is not there.
Result<SecCertificateRef> findItem(const Bytes& certificate)
{
    const auto fields = readCertificateFields(certificate);
    if (!fields)
        return fields.failure();
    const auto found = keychain::certificatesWithSubject(keychain::systemKeychain(), fields->subject);
    if (!found)
        return found.failure();
    const auto match = std::ranges::find(*found, sha256(certificate), &SecCertificate::digest);
    return match == found->end() ? SecCertificateRef() : *match;
}

/// After an addition that failed: what is not there is not ours.
void forgetAddition(const Bytes& certificate)
{
    const auto item = findItem(certificate);
    if (!item || *item)
        return;
    Record record = openRecord();
    record.erase(lineFor(certificate));
    static_cast<void>(record.save()); // what stays is a line too many
}

Outcome removeOurs(const SecCertificateRef& item, Record& record, const std::string& line)
{
    const OSStatus status = SecKeychainItemDelete(item);
    // One that goes meanwhile is as good: the keychain takes back by itself what a killed run began.
    if (status != errSecSuccess && status != errSecInvalidItemRef)
        return failed(statusText(status));
    record.erase(line);
    const std::string error = record.save();
    return error.empty() ? done("removed") : failed("removed, but " + error);
}

Outcome removeTrustAlone(const SecCertificateRef& item, const Record& record)
{
    const std::string reason = "; the certificate stays: "
        + (record.error().empty() ? std::string("it was not added by this tool") : record.error());
    const OSStatus status = SecTrustSettingsRemoveTrustSettings(item, kSecTrustSettingsDomainAdmin);
    if (status == errSecItemNotFound)
        return unchanged("was not trusted" + reason);
    return status == errSecSuccess ? done("no longer trusted" + reason) : failed(statusText(status));
}

} // namespace

std::string SystemKeychain::noteAddition(const Bytes& certificate)
{
    const auto item = findItem(certificate);
    if (!item)
        return statusText(item.status());
    if (*item)
        return {};
    Record record = openRecord();
    record.add(lineFor(certificate));
    return record.save();
}

Outcome SystemKeychain::add(const Bytes& certificate)
{
    const Outcome outcome = set(certificate, kSecTrustSettingsResultTrustRoot);
    switch (outcome.kind) {
    case Outcome::Kind::unchanged:
        return unchanged("was trusted already");
    case Outcome::Kind::done:
        return done("trusted");
    default:
        return outcome;
    }
}

Outcome SystemKeychain::set(const Bytes& certificate, SecTrustSettingsResult result)
{
    const SecCertificateRef item = certificateFrom(certificate);
    if (hasSetting(item, kSecTrustSettingsDomainAdmin, result))
        return unchanged("the setting was there already");
    if (const std::string error = noteAddition(certificate); !error.empty())
        return failed(error);
    const OSStatus status = SecTrustSettingsSetTrustSettings(item, kSecTrustSettingsDomainAdmin, settingFor(result));
    if (status == errSecSuccess)
        return done("setting written");
    forgetAddition(certificate);
    return failed(statusText(status));
}

Outcome SystemKeychain::remove(const Bytes& certificate)
{
    const auto item = findItem(certificate);
    if (!item)
        return failed(statusText(item.status()));
    Record record = openRecord();
    const std::string line = lineFor(certificate);
    if (*item)
        return record.has(line) ? removeOurs(*item, record, line) : removeTrustAlone(*item, record);
    record.erase(line); // somebody else took it out
    const std::string error = record.save();
    return error.empty() ? unchanged("was not there") : failed(error);
}

PlaceStatus SystemKeychain::status() const
{
    const auto index = keychain::certificateIndex(keychain::systemKeychain()->path());
    if (!index)
        return {.kind = PlaceStatus::Kind::failed, .text = statusText(index.status())};
    PlaceStatus status;
    for (const auto& entry : (*index)->entries()) {
        const SecCertificateRef item = certificateFrom(entry.certificate->der);
        if (item && isTrustedAsRoot(item, kSecTrustSettingsDomainAdmin))
            status.certificates.push_back({digestText(entry.certificate->der), entry.certificate->fields->label});
    }
    std::ranges::sort(status.certificates, {}, &HeldCertificate::digest);
    return status;
}

} // namespace kf::security
