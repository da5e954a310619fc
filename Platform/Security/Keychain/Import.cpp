#include "Security/Keychain/KeptBundle.h"
#include "Security/Keychain/Labels.h"
#include "Security/Keychain/SecretText.h"
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"

using namespace kf;
using namespace kf::keychain;

namespace {

Creation certificateCreation(Database& database, const BundleCertificate& certificate)
{
    return {{ObjectClass::certificate, sha256(certificate.der)},
        [&] { return database.containsCertificate(certificate.der); },
        [&] { return database.addCertificate(certificate.der, certificate.label); }};
}

Status writeBundle(const std::string& path, const Bundle& bundle)
{
    return writeDatabase(path, Access::create, [&](Database& database, WriteTurn& turn) -> Status {
        std::vector<Creation> creations;
        creations.push_back({{ObjectClass::privateKey, sha256(bundle.key.id)},
            [&] { return database.containsPrivateKey(bundle.key.id); },
            [&] { return database.addPrivateKey(bundle.key); }});
        creations.push_back(certificateCreation(database, bundle.leaf));
        for (const auto& certificate : bundle.chain)
            creations.push_back(certificateCreation(database, certificate));
        return createAll(database, turn, creations);
    });
}

SecCertificateRef itemOf(const BundleCertificate& certificate, const SecKeychainRef& keychain)
{
    return makeRef<SecCertificate>(std::make_shared<const ParsedCertificate>(certificate.der), keychain);
}

Ref<NSArray> itemsOf(const Bundle& bundle, const SecKeychainRef& keychain)
{
    const auto items = NSMutableArray::array();
    items->addObject(makeRef<SecIdentity>(itemOf(bundle.leaf, keychain), makeRef<SecKey>(bundle.key.id, keychain)));
    for (const auto& certificate : bundle.chain)
        items->addObject(itemOf(certificate, keychain));
    return NSArray::arrayWithArray(items);
}

Result<Bundle> readImportedData(const Ref<NSData>& data, const SecKeyImportExportParameters& parameters)
{
    if (!data || data->length() == 0)
        return Failure{errSecDataNotAvailable};
    if (!parameters.passphrase)
        return Failure{errSecPassphraseRequired};
    const auto passphrase = secretUTF8(*parameters.passphrase);
    if (!passphrase)
        return Failure{errSecParam};
    return readBundleOnce(data->span(), *passphrase);
}

} // namespace

OSStatus SecKeychainItemImport(const Ref<NSData>& importedData, const Ref<NSString>&, SecExternalFormat* inputFormat,
    SecExternalItemType* itemType, SecItemImportExportFlags, const SecKeyImportExportParameters* keyParameters,
    const SecKeychainRef& importKeychain, Ref<NSArray>* items)
{
    if (items)
        items->reset();
    if (!keyParameters || keyParameters->version != SEC_KEY_IMPORT_EXPORT_PARAMS_VERSION)
        return errSecParam;
    if (!importKeychain)
        return errSecNoDefaultKeychain;
    if (inputFormat && *inputFormat != kSecFormatUnknown && *inputFormat != kSecFormatPKCS12)
        return errSecUnknownFormat;
    auto bundle = readImportedData(importedData, *keyParameters);
    if (!bundle)
        return bundle.status();
    bundle->key.extractable =
        keyParameters->keyAttributes == 0 || (keyParameters->keyAttributes & CSSM_KEYATTR_EXTRACTABLE) != 0;
    if (const auto written = writeBundle(importKeychain->path(), *bundle); !written)
        return written.status();
    if (inputFormat)
        *inputFormat = kSecFormatPKCS12;
    if (itemType)
        *itemType = kSecItemTypeAggregate;
    if (items)
        *items = itemsOf(*bundle, importKeychain);
    return errSecSuccess;
}
