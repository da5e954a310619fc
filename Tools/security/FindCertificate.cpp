#include "security/CertificateFile.h"
#include "security/Commands.h"
#include "security/Search.h"
#include "security/Text.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace kf::security {

namespace {

JSON describe(const SecCertificateRef& certificate, bool withPEM)
{
    JSON object = {{"keychain", certificate->keychain()->path()}, {"label", labelOf(certificate)}};
    if (const auto fields = readCertificateFields(derOf(certificate))) {
        object["commonName"] = fields->commonName;
        object["emailAddresses"] = fields->emailAddresses;
        object["subject"] = nameText(fields->subject);
        object["issuer"] = nameText(fields->issuer);
        object["serialNumber"] = serialText(*fields);
        object["notBefore"] = dateText(fields->notBefore);
        object["notAfter"] = dateText(fields->notAfter);
        object["isAuthority"] = fields->isCA;
    }
    object["sha256"] = sha256Of(certificate);
    object["sha1"] = sha1Of(certificate);
    if (withPEM)
        object["pem"] = pemText(derOf(certificate));
    return object;
}

void printDigests(const SecCertificateRef& certificate)
{
    std::cout << "SHA-256 hash: " << sha256Of(certificate) << "\nSHA-1 hash: " << sha1Of(certificate) << '\n';
}

void print(const SecCertificateRef& certificate)
{
    const auto line = [](const char* name, const std::string& value) {
        std::cout << "    " << name << ": " << printable(value) << '\n';
    };
    std::cout << "keychain: \"" << printable(certificate->keychain()->path()) << "\"\n";
    line("label", labelOf(certificate));
    const auto fields = readCertificateFields(derOf(certificate));
    if (!fields) {
        std::cout << "    (not a certificate that can be read)\n";
        return;
    }
    line("subject", nameText(fields->subject));
    for (const std::string& address : fields->emailAddresses)
        line("e-mail", address);
    line("issuer", nameText(fields->issuer));
    line("serial number", serialText(*fields));
    line("valid", dateText(fields->notBefore) + " to " + dateText(fields->notAfter));
}

} // namespace

int findCertificate(const Arguments& arguments)
{
    const auto selection = selectionOf(arguments);
    if (!selection)
        return wrongUse("find-certificate", "-c and -e need a name");
    const auto keychains = keychainsOf(arguments.operands);
    if (!keychains)
        return exitFailure;
    const auto found = findCertificates(*keychains, *selection, !arguments.has('a'));
    JSON list = JSON::array();
    for (const SecCertificateRef& certificate : found.items) {
        if (arguments.has("json")) {
            list.push_back(describe(certificate, arguments.has('p')));
            continue;
        }
        if (arguments.has('Z'))
            printDigests(certificate);
        if (arguments.has('p'))
            std::cout << pemText(derOf(certificate));
        else
            print(certificate);
    }
    if (arguments.has("json"))
        printJSON(list);
    if (found.items.empty() && found.isComplete)
        complain("find-certificate", errSecItemNotFound);
    return found.items.empty() || !found.isComplete ? exitFailure : exitSuccess;
}

} // namespace kf::security
