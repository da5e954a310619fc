#include "Security/Trust/Evaluation.h"
#include "security/Commands.h"
#include "security/Search.h"
#include "security/Text.h"

#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>

namespace kf::security {

namespace {

bool isTrusted(const SecCertificateRef& certificate)
{
    const auto result = trust::evaluate({certificate});
    return result && (*result == kSecTrustResultProceed || *result == kSecTrustResultUnspecified);
}

JSON describe(const SecIdentityRef& identity)
{
    const SecCertificateRef& certificate = identity->certificate();
    const auto fields = readCertificateFields(derOf(certificate));
    return {{"keychain", certificate->keychain()->path()}, {"label", labelOf(certificate)},
        {"commonName", fields->commonName}, {"emailAddresses", fields->emailAddresses},
        {"notAfter", dateText(fields->notAfter)}, {"sha256", sha256Of(certificate)}, {"sha1", sha1Of(certificate)}};
}

void print(const std::vector<SecIdentityRef>& identities)
{
    int number = 0;
    for (const SecIdentityRef& identity : identities)
        std::cout << std::setw(3) << ++number << ") " << sha256Of(identity->certificate()) << " \""
                  << printable(labelOf(identity->certificate())) << "\"\n";
    std::cout << "     " << identities.size() << (identities.size() == 1 ? " identity found\n" : " identities found\n");
}

} // namespace

int findIdentity(const Arguments& arguments)
{
    const auto keychains = keychainsOf(arguments.operands);
    if (!keychains)
        return exitFailure;
    auto found = findIdentities(*keychains, {});
    if (arguments.has('v'))
        std::erase_if(found.items, [](const auto& identity) { return !isTrusted(identity->certificate()); });
    if (arguments.has("json")) {
        JSON list = JSON::array();
        for (const SecIdentityRef& identity : found.items)
            list.push_back(describe(identity));
        printJSON(list);
    } else {
        print(found.items);
    }
    return found.items.empty() || !found.isComplete ? exitFailure : exitSuccess;
}

} // namespace kf::security
