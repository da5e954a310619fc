#include "Foundation/NSNumber.h"
#include "Security/SecTrust.h"
#include "security/Commands.h"
#include "security/Search.h"
#include "security/Text.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace kf::security {

namespace {

struct Domain {
    SecTrustSettingsDomain domain;
    const char* name;
};

std::string resultText(const Ref<NSDictionary>& setting)
{
    const auto result = setting->objectAs<NSNumber>(kSecTrustSettingsResult);
    switch (result ? result->unsignedIntValue() : kSecTrustSettingsResultTrustRoot) {
    case kSecTrustSettingsResultTrustRoot:
        return "trustRoot";
    case kSecTrustSettingsResultTrustAsRoot:
        return "trustAsRoot";
    case kSecTrustSettingsResultDeny:
        return "deny";
    default:
        return "unspecified";
    }
}

JSON describe(const SecCertificateRef& certificate, const NSArray& settings)
{
    JSON list = JSON::array();
    for (NSUInteger index = 0; index < settings.count(); ++index) {
        const auto setting = settings.objectAs<NSDictionary>(index);
        const bool isBasic = static_cast<bool>(setting->objectForKey(kSecTrustSettingsPolicy));
        list.push_back({{"policy", isBasic ? JSON("basic") : JSON()}, {"result", resultText(setting)}});
    }
    const auto fields = readCertificateFields(derOf(certificate));
    return {{"name", fields ? fields->label : ""}, {"sha256", sha256Of(certificate)}, {"settings", list}};
}

void print(const JSON& list)
{
    std::cout << "Number of certificates with trust settings: " << list.size() << '\n';
    for (const JSON& object : list) {
        std::cout << '"' << printable(object["name"].get<std::string>())
                  << "\"\n    SHA-256: " << object["sha256"].get<std::string>() << '\n';
        for (const JSON& setting : object["settings"])
            std::cout << "    " << setting["result"].get<std::string>() << ", "
                      << (setting["policy"].is_null() ? "for every use" : "for servers and e-mail") << '\n';
    }
}

} // namespace

int dumpTrustSettings(const Arguments& arguments)
{
    if (!arguments.operands.empty() || (arguments.has('d') && arguments.has('s')))
        return wrongUse("dump-trust-settings", "takes one domain and no operand");
    const Domain domain = arguments.has('d') ? Domain{kSecTrustSettingsDomainAdmin, "administrator's trust settings"}
        : arguments.has('s')                 ? Domain{kSecTrustSettingsDomainSystem, "distribution's trust settings"}
                                             : Domain{kSecTrustSettingsDomainUser, "user's trust settings"};
    Ref<NSArray> certificates;
    const OSStatus status = SecTrustSettingsCopyCertificates(domain.domain, &certificates);
    JSON list = JSON::array();
    for (NSUInteger index = 0; certificates && index < certificates->count(); ++index) {
        const auto certificate = certificates->objectAs<SecCertificate>(index);
        Ref<NSArray> settings;
        if (SecTrustSettingsCopyTrustSettings(certificate, domain.domain, &settings) == errSecSuccess)
            list.push_back(describe(certificate, *settings));
    }
    if (arguments.has("json"))
        printJSON(list);
    else if (status == errSecSuccess)
        print(list);
    if (status == errSecNoTrustSettings)
        complain(domain.name, "there are none");
    else if (status != errSecSuccess)
        complain(domain.name, status);
    return status == errSecSuccess ? exitSuccess : exitFailure;
}

} // namespace kf::security
