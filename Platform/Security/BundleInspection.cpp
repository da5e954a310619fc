#include "Security/BundleInspection.h"

#include "Security/Keychain/KeptBundle.h"
#include "Security/Keychain/Locations.h"
#include "Security/Keychain/Store.h"

#include <algorithm>

namespace kf {

namespace {

/// As searches by alias find it: by common name or by any e-mail address, byte for byte.
bool goesBy(const CertificateFields& fields, const std::string& alias)
{
    return !alias.empty() && (fields.commonName == alias || std::ranges::count(fields.emailAddresses, alias) > 0);
}

} // namespace

Result<BundleInspection> inspectBundle(std::span<const std::uint8_t> pkcs12, std::span<const std::uint8_t> passphrase,
    std::span<const std::uint8_t> authority)
{
    auto bundle = keychain::readBundleOnce(pkcs12, passphrase);
    if (!bundle) {
        // Others may be a moment's: no memory, say.
        if (bundle.status() == errSecPkcs12VerifyFailure)
            keychain::keepBundle(pkcs12, passphrase, bundle.failure());
        return bundle.failure();
    }
    auto leaf = readCertificateFields(bundle->leaf.der);
    if (!leaf)
        return leaf.failure();
    const auto own = readCertificateFields(authority);
    const auto isImpostor = [&](const keychain::BundleCertificate& certificate) {
        const auto fields = readCertificateFields(certificate.der);
        return own && fields && goesBy(*fields, own->commonName) && !std::ranges::equal(certificate.der, authority);
    };
    BundleInspection inspection;
    inspection.name = std::move(leaf->label);
    inspection.issuer = shortName(leaf->issuer);
    inspection.emailAddresses = std::move(leaf->emailAddresses);
    inspection.notBefore = leaf->notBefore;
    inspection.notAfter = leaf->notAfter;
    inspection.holdsImpostor = isImpostor(bundle->leaf) || std::ranges::any_of(bundle->chain, isImpostor);
    inspection.der = bundle->leaf.der;
    keychain::keepBundle(pkcs12, passphrase, std::move(*bundle));
    return inspection;
}

void forgetInspectedBundle() { keychain::forgetKeptBundle(); }

std::vector<std::string> keychainsWithImpostor(std::span<const std::uint8_t> authority)
{
    std::vector<std::string> paths;
    const auto own = readCertificateFields(authority);
    if (!own)
        return paths;
    const Digest digest = sha256(authority);
    for (const std::string& path : keychain::searchListPaths(*keychain::backend())) {
        const auto index = keychain::certificateIndex(path);
        if (!index)
            continue;
        const auto found = (*index)->withAlias(own->commonName);
        if (std::ranges::any_of(
                found, [&](std::size_t at) { return (*index)->entries()[at].certificate->digest != digest; }))
            paths.push_back(path);
    }
    return paths;
}

} // namespace kf
