#include "Security/Keychain/KeychainAccess.h"

#include "Security/Keychain/Labels.h"
#include "Security/Keychain/Locations.h"
#include "Security/Keychain/Store.h"

namespace kf::keychain {

namespace {

/// A keychain that is not there yet says nothing of anything.
OSStatus trustStatus(const Status& status, const std::string& path)
{
    return status.status() == errSecNoSuchKeychain && mayBeMissing(path) ? errSecItemNotFound : status.status();
}

Status writeTrustIn(Database& database, WriteTurn& turn, const ParsedCertificate& certificate, const Trust& trust)
{
    const auto present = database.trust(certificate.der);
    if (!present && present.status() != errSecItemNotFound)
        return present.failure();
    const auto made = createAll(database, turn,
        {{{ObjectClass::certificate, certificate.digest}, [&] { return database.containsCertificate(certificate.der); },
             [&] { return database.addCertificate(certificate.der, defaultLabel(certificate)); }},
            {{ObjectClass::trust, certificate.digest}, [&]() -> Result<bool> { return static_cast<bool>(present); },
                [&] { return database.setTrust(certificate.der, trust); }}});
    if (!made || !present || *present == trust)
        return made;
    return database.setTrust(certificate.der, trust);
}

} // namespace

SecKeychainRef systemKeychain()
{
    SecKeychainRef keychain;
    static_cast<void>(SecKeychainOpen(systemKeychainPath, &keychain));
    return keychain;
}

Result<Trust> readTrust(const SecKeychainRef& keychain, std::span<const std::uint8_t> certificate)
{
    if (!keychain)
        return Failure{errSecParam};
    Result<Trust> trust = Failure{errSecItemNotFound};
    const auto read = withDatabase(keychain->path(), true, [&](Database& database) -> Status {
        trust = database.trust(certificate);
        return {};
    });
    if (!read)
        return Failure{trustStatus(read, keychain->path())};
    return trust;
}

Status writeTrust(const SecKeychainRef& keychain, std::span<const std::uint8_t> certificate, const Trust& trust)
{
    if (!keychain)
        return Failure{errSecParam};
    const ParsedCertificate parsed(Bytes(certificate.begin(), certificate.end()));
    if (!parsed.fields)
        return Failure{errSecUnknownFormat};
    return writeDatabase(keychain->path(), Access::create, [&](Database& database, WriteTurn& turn) -> Status {
        const auto written = writeTrustIn(database, turn, parsed, trust);
        return written ? turn.finish() : written;
    });
}

Status removeTrust(const SecKeychainRef& keychain, std::span<const std::uint8_t> certificate)
{
    if (!keychain)
        return Failure{errSecParam};
    const auto removed =
        writeDatabase(keychain->path(), Access::write, [&](Database& database, WriteTurn& turn) -> Status {
            const auto gone = database.removeTrust(certificate);
            return gone ? turn.finish() : gone;
        });
    if (!removed)
        return Failure{trustStatus(removed, keychain->path())};
    return {};
}

Result<std::vector<SecCertificateRef>> certificatesWithSubject(
    const SecKeychainRef& keychain, std::span<const std::uint8_t> subject)
{
    if (!keychain)
        return Failure{errSecParam};
    const auto index = certificateIndex(keychain->path());
    if (!index)
        return index.failure();
    std::vector<SecCertificateRef> certificates;
    for (const auto position : (*index)->withSubject(subject))
        certificates.push_back(makeRef<SecCertificate>((*index)->entries()[position].certificate, keychain));
    return certificates;
}

} // namespace kf::keychain
