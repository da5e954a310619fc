#include "Security/InstalledState.h"

#include "Security/Keychain/Locations.h"
#include "Security/Keychain/Store.h"
#include "Security/Trust/DistributionStore.h"
#include "Security/Trust/Evaluation.h"

#include <algorithm>

namespace kf {

namespace {

using Span = std::span<const std::uint8_t>;

void readTrustInto(KeychainHolding& holding, const std::string& path, Span certificate)
{
    SecKeychainRef keychain;
    holding.status = SecKeychainOpen(path.c_str(), &keychain);
    const auto trust = keychain::readTrust(keychain, certificate);
    if (trust)
        holding.trusted = trust::basicLevel(*trust) == keychain::TrustLevel::trusted;
    else if (trust.status() != errSecItemNotFound)
        holding.status = trust.status();
}

KeychainHolding readAuthority(const std::string& path, Span certificate)
{
    KeychainHolding holding = readForeignDatabase(path, certificate);
    if (holding.certificate)
        readTrustInto(holding, path, certificate);
    return holding;
}

KeychainHolding readPersonal(const std::string& path, Span certificate)
{
    KeychainHolding holding = readForeignDatabase(path, certificate);
    const auto fields = readCertificateFields(certificate);
    if (!holding.certificate || !fields)
        return holding;
    const auto keys = keychain::keyIndex(path);
    holding.status = keys.status();
    holding.privateKey = keys && (*keys)->find(fields->keyId);
    return holding;
}

bool distributionStoreHolds(Span certificate)
{
    const auto fields = readCertificateFields(certificate);
    return fields
        && std::ranges::any_of(trust::distributionStore()->certificatesWithSubject(fields->subject),
            [&](const Bytes& held) { return std::ranges::equal(held, certificate); });
}

} // namespace

KeychainHolding readForeignDatabase(const std::string& path, Span certificate)
{
    KeychainHolding holding;
    const auto index = keychain::certificateIndex(path);
    holding.status = index.status();
    holding.certificate = index && (*index)->find(sha256(certificate));
    return holding;
}

Result<bool> foreignDatabaseTrusts(const std::string& path, Span authority)
{
    Result<keychain::Trust> trust = Failure{errSecItemNotFound};
    const Status read = keychain::withDatabase(path, false, [&](keychain::Database& database) -> Status {
        trust = database.trust(authority);
        return {};
    });
    if (!read)
        return read.failure();
    if (!trust && trust.status() != errSecItemNotFound)
        return trust.failure();
    return trust && trust->server == keychain::TrustLevel::trusted;
}

Result<std::size_t> countIdentities(const std::string& emailAddress)
{
    std::size_t count = 0;
    for (const std::string& path : keychain::searchListPaths(*keychain::backend())) {
        const auto index = keychain::certificateIndex(path);
        if (!index)
            return index.failure();
        for (const std::size_t at : (*index)->withAlias(emailAddress)) {
            const auto& fields = (*index)->entries()[at].certificate->fields;
            if (!fields || std::ranges::count(fields->emailAddresses, emailAddress) == 0)
                continue;
            const auto keys = keychain::keyIndex(path);
            if (!keys)
                return keys.failure();
            count += (*keys)->find(fields->keyId) != nullptr;
        }
    }
    return count;
}

InstalledState readInstalledState(Span personalCertificate, Span authority)
{
    InstalledState state;
    state.defaultKeychain = keychain::defaultKeychainPath(*keychain::backend()).value_or(std::string());
    if (!state.defaultKeychain.empty()) {
        state.personal = readPersonal(state.defaultKeychain, personalCertificate);
        state.authorityForUser = readAuthority(state.defaultKeychain, authority);
    }
    state.authorityForAll = readAuthority(keychain::systemKeychainPath, authority);
    state.authorityInDistributionStore = distributionStoreHolds(authority);
    return state;
}

} // namespace kf
