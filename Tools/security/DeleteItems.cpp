#include "security/Commands.h"
#include "security/Search.h"
#include "security/Text.h"
#include "security/TrustedCertificate.h"
#include "security/WritableKeychain.h"

#include <algorithm>
#include <iostream>

namespace kf::security {

namespace {

bool deleteItem(const SecKeychainItemRef& item, const std::string& what)
{
    const std::string& path = item->keychain()->path();
    if (const OSStatus status = SecKeychainItemDelete(item); status != errSecSuccess) {
        complain(path, "the " + what + " was not deleted: " + statusText(status));
        return false;
    }
    std::cout << printable(path) << ": deleted the " << what << std::endl;
    return true;
}

/// Whether another certificate of the keychain needs the identity's key.
bool isKeyShared(const SecIdentityRef& identity)
{
    const auto found = findIdentities({identity->privateKey()->keychain()}, {});
    return !found.isComplete || std::ranges::count_if(found.items, [&](const SecIdentityRef& other) {
        return CFEqual(other->privateKey(), identity->privateKey());
    }) > 1;
}

constexpr const char* needsSelection = "needs -c with a name or -Z with a SHA-256 or SHA-1 digest";

} // namespace

int deleteCertificate(const Arguments& arguments)
{
    const std::string command = "delete-certificate";
    const auto selection = selectionOf(arguments);
    if (!selection || selection->isEmpty())
        return wrongUse(command, needsSelection);
    const auto keychains = keychainsOf(arguments.operands);
    if (!keychains)
        return exitFailure;
    const SecCertificateRef certificate = onlyOne(command, findCertificates(*keychains, *selection));
    if (!certificate || !requireWritable(certificate->keychain()))
        return exitFailure;
    return deleteItem(certificate, "certificate " + describe(certificate)) ? exitSuccess : exitFailure;
}

int deleteIdentity(const Arguments& arguments)
{
    const std::string command = "delete-identity";
    const auto selection = selectionOf(arguments);
    if (!selection || selection->isEmpty())
        return wrongUse(command, needsSelection);
    const auto keychains = keychainsOf(arguments.operands);
    if (!keychains)
        return exitFailure;
    const SecIdentityRef identity = onlyOne(command, findIdentities(*keychains, *selection));
    if (!identity || !requireWritable(identity->certificate()->keychain()))
        return exitFailure;
    const std::string description = describe(identity->certificate());
    // The key first: what is left after a failure is a certificate, which delete-certificate finds.
    if (isKeyShared(identity))
        std::cout << printable(identity->privateKey()->keychain()->path())
                  << ": kept the private key, which another certificate needs" << std::endl;
    else if (!deleteItem(identity->privateKey(), "private key of " + description))
        return exitFailure;
    return deleteItem(identity->certificate(), "certificate " + description) ? exitSuccess : exitFailure;
}

} // namespace kf::security
