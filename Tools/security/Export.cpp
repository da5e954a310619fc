#include "Security/Keychain/KeychainAccess.h"
#include "Security/ScopedOpenSSL.h"
#include "Security/SecKeychainItemExport.h"
#include "security/CertificateFile.h"
#include "security/Commands.h"
#include "security/OutputFile.h"
#include "security/Passphrase.h"
#include "security/Search.h"
#include "security/Text.h"

#include <algorithm>
#include <iostream>

namespace kf::security {

namespace {

ScopedX509 parse(const SecCertificateRef& certificate)
{
    const auto der = derOf(certificate);
    const unsigned char* position = der.data();
    return ScopedX509(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
}

/// The certificate of the same keychain whose key signed this one; nil where there is none.
SecCertificateRef issuerOf(const SecCertificateRef& certificate)
{
    const OpenSSLErrorMark mark;
    const auto fields = readCertificateFields(derOf(certificate));
    const ScopedX509 signed_ = parse(certificate);
    if (!fields || !signed_)
        return nullptr;
    const auto named = keychain::certificatesWithSubject(certificate->keychain(), fields->issuer);
    if (!named)
        return nullptr;
    for (const SecCertificateRef& candidate : *named) {
        const ScopedX509 parsed = parse(candidate);
        EVP_PKEY* const key = parsed ? X509_get0_pubkey(parsed.get()) : nullptr;
        if (key && X509_verify(signed_.get(), key) == 1)
            return candidate;
    }
    return nullptr;
}

/// The identity, then what its keychain has of its chain, up to the root.
Ref<NSArray> withChain(const SecIdentityRef& identity)
{
    constexpr NSUInteger longest = 10;
    const auto items = NSMutableArray::array();
    items->addObject(identity);
    std::vector<SecCertificateRef> seen = {identity->certificate()};
    while (items->count() < longest) {
        const SecCertificateRef issuer = issuerOf(seen.back());
        if (!issuer || std::ranges::any_of(seen, [&](const auto& one) { return CFEqual(one, issuer); }))
            break;
        items->addObject(issuer);
        seen.push_back(issuer);
    }
    return NSArray::arrayWithArray(items);
}

int writeFile(const Arguments& arguments, std::span<const std::uint8_t> content)
{
    const std::string path = *arguments.value('o');
    const std::string error = writeOutputFile(path, content, arguments.has("force"));
    if (error.empty())
        return exitSuccess;
    complain(path, error);
    return exitFailure;
}

int exportCertificates(
    const Arguments& arguments, const std::vector<SecKeychainRef>& keychains, const Selection& selection)
{
    const auto found = findCertificates(keychains, selection);
    if (!found.isComplete)
        return exitFailure;
    if (found.items.empty()) {
        complain("export", errSecItemNotFound);
        return exitFailure;
    }
    std::string text;
    for (const SecCertificateRef& certificate : found.items)
        text += pemText(derOf(certificate));
    if (arguments.has('o'))
        return writeFile(arguments, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    std::cout << text << std::flush;
    return std::cout ? exitSuccess : exitFailure;
}

int exportIdentity(const Arguments& arguments, const std::vector<SecKeychainRef>& keychains, const Selection& selection)
{
    const SecIdentityRef identity = onlyOne("export", findIdentities(keychains, selection));
    if (!identity)
        return exitFailure;
    const Passphrase passphrase = readPassphrase(arguments, "New pass phrase for the bundle: ", true);
    if (!passphrase.text) {
        complain("export", passphrase.error);
        return exitFailure;
    }
    if (passphrase.text->length() == 0) {
        complain("export", "the pass phrase is empty");
        return exitFailure;
    }
    SecKeyImportExportParameters parameters;
    parameters.passphrase = passphrase.text;
    Ref<NSData> bundle;
    const OSStatus status = SecKeychainItemExport(withChain(identity), kSecFormatPKCS12, 0, &parameters, &bundle);
    if (status != errSecSuccess) {
        complain(identity->certificate()->keychain()->path(), status);
        return exitFailure;
    }
    return writeFile(arguments, bundle->span());
}

} // namespace

int exportItems(const Arguments& arguments)
{
    const std::string type = arguments.value('t').value_or("certs");
    const auto selection = selectionOf(arguments);
    if (!arguments.operands.empty())
        return wrongUse("export", "takes no operand");
    if (type != "certs" && type != "identities")
        return wrongUse("export", "-t is certs or identities");
    if (!selection)
        return wrongUse("export", "-c needs a name, -Z a SHA-256 or SHA-1 digest");
    if (const std::string error = whyNotPassphraseOptions(arguments); !error.empty())
        return wrongUse("export", error);
    if (type == "identities" && !arguments.has('o'))
        return wrongUse("export", "a bundle needs a file: -o");
    const auto keychains = keychainsOf(arguments.values("k"));
    if (!keychains)
        return exitFailure;
    return type == "certs" ? exportCertificates(arguments, *keychains, *selection)
                           : exportIdentity(arguments, *keychains, *selection);
}

} // namespace kf::security
