#include "Security/SecCertificate.h"

#include "Security/Keychain/Labels.h"
#include "Security/Keychain/Store.h"

using namespace kf;
using namespace kf::keychain;

SecCertificate::SecCertificate(SharedCertificate parsed, SecKeychainRef keychain) noexcept
    : SecKeychainItem(kSecCertificateItemClass, parsed->digest, std::move(keychain)), parsed_(std::move(parsed))
{
}

SecCertificate::~SecCertificate() = default;

OSStatus SecCertificateCreateFromData(
    const CSSM_DATA* data, CSSM_CERT_TYPE type, CSSM_CERT_ENCODING encoding, SecCertificateRef* certificate)
{
    if (!certificate)
        return errSecParam;
    certificate->reset();
    if (!data || (!data->Data && data->Length > 0) || type != CSSM_CERT_X_509v3 || encoding != CSSM_CERT_ENCODING_DER)
        return errSecParam;
    auto parsed = std::make_shared<const ParsedCertificate>(Bytes(data->Data, data->Data + data->Length));
    if (!parsed->fields)
        return errSecUnknownFormat;
    *certificate = makeRef<SecCertificate>(std::move(parsed), SecKeychainRef());
    return errSecSuccess;
}

OSStatus SecCertificateAddToKeychain(const SecCertificateRef& certificate, const SecKeychainRef& keychain)
{
    if (!certificate)
        return errSecParam;
    SecKeychainRef target = keychain;
    if (!target)
        if (const OSStatus status = SecKeychainCopyDefault(&target); status != errSecSuccess)
            return status;
    const ParsedCertificate& parsed = certificate->parsed();
    return writeDatabase(target->path(), Access::create, [&](Database& database, WriteTurn& turn) -> Status {
        const auto added = database.addCertificate(parsed.der, defaultLabel(parsed));
        return added ? turn.finish() : added;
    }).status();
}

OSStatus SecCertificateGetData(const SecCertificateRef& certificate, CSSM_DATA* data)
{
    if (!certificate || !data)
        return errSecParam;
    const Bytes& der = certificate->parsed().der;
    // CSSM's record of bytes knows no const; nobody may write through it.
    *data = {der.size(), const_cast<std::uint8_t*>(der.data())};
    return errSecSuccess;
}

OSStatus SecCertificateCopyEmailAddresses(const SecCertificateRef& certificate, Ref<NSArray>* emailAddresses)
{
    if (!emailAddresses)
        return errSecParam;
    emailAddresses->reset();
    if (!certificate)
        return errSecParam;
    if (!certificate->parsed().fields)
        return errSecUnknownFormat;
    const auto addresses = NSMutableArray::array();
    for (const auto& address : certificate->parsed().fields->emailAddresses)
        if (const auto text = NSString::stringWithUTF8String(address))
            addresses->addObject(text);
    *emailAddresses = NSArray::arrayWithArray(addresses);
    return errSecSuccess;
}
