#include "keyfold/Report.h"

#include "AppKit/Text.h"

#include <QCoreApplication>

#include <algorithm>

namespace kf {

namespace {

QString translate(const char* text) { return QCoreApplication::translate("Report", text); }

QString textOf(OSStatus status) { return toQString(SecCopyErrorMessageString(status, nullptr)); }

QStringList personalLines(const Findings& findings)
{
    const KeychainHolding& held = findings.state.personal;
    const QString name = QString::fromStdString(findings.personalName);
    const QString keychain = QString::fromStdString(findings.state.defaultKeychain);
    if (held.status != errSecSuccess)
        return {translate("Your keychain could not be read: %1\n%2").arg(textOf(held.status), keychain)};
    if (!held.certificate)
        return {
            translate("Your certificate “%1” is not in your keychain:\n%2\nAsk the help desk.").arg(name, keychain)};
    if (!held.privateKey)
        return {translate("Your certificate “%1” is in your keychain, but its private key is not:\n%2\n"
                          "Ask the help desk.")
                    .arg(name, keychain)};
    return {translate("Your certificate “%1” and its private key are in your keychain:\n%2").arg(name, keychain)};
}

QStringList authorityLines(const Findings& findings)
{
    const InstalledState& state = findings.state;
    const QString name = QString::fromStdString(findings.authorityName);
    QStringList lines;
    if (state.authorityForAll.trusted)
        lines += translate("“%1” is trusted for everybody on this computer: it is in the System keychain.").arg(name);
    else if (state.authorityForUser.trusted)
        lines += translate("“%1” is trusted for you alone: it is in your keychain. For everybody else, an "
                           "administrator can run this program.")
                     .arg(name);
    else if (state.authorityForAll.certificate || state.authorityForUser.certificate)
        lines += translate("“%1” is in a keychain, but nothing says that it is trusted. Ask the help desk.").arg(name);
    else
        lines += translate("“%1” is in no keychain. Ask the help desk.").arg(name);
    for (const KeychainHolding* held : {&state.authorityForAll, &state.authorityForUser}) {
        if (held->status != errSecSuccess)
            lines += translate("The %1 could not be read: %2")
                         .arg(held == &state.authorityForAll ? translate("System keychain") : translate("keychain"),
                             textOf(held->status));
    }
    return lines;
}

bool isChromium(const QString& browser) { return browser.startsWith(u"Firefox") == false; }

void tellChromium(const Findings& findings, Report& report)
{
    const bool hasPersonal = findings.state.personal.certificate && findings.state.personal.privateKey;
    const bool byPolicy = std::ranges::any_of(findings.policies,
        [](const BrowserPolicy& policy) { return isChromium(policy.browser) && policy.trustsAuthority; });
    if (hasPersonal)
        report.usedBy += translate("Chromium and the browsers made from it sign you in with your certificate, from "
                                   "their next start.");
    if (findings.state.authorityForUser.trusted || byPolicy)
        report.usedBy += translate("Chromium and the browsers made from it trust the authority’s servers.");
    else
        report.notUsedBy += translate("Chromium does not know the authority: import it in its settings, under "
                                      "Privacy and security, Security, Manage certificates.");
}

void tellSystemStore(const Findings& findings, Report& report)
{
    if (findings.state.authorityInDistributionStore)
        report.usedBy += translate("curl, wget and other programs that follow the system’s trust store trust the "
                                   "authority’s servers.");
    else
        report.notUsedBy += translate("curl, wget and other programs that follow the system’s trust store do not trust "
                                      "the authority’s servers: an administrator has to run this program.");
}

void tellOwnStores(const Findings& findings, Report& report)
{
    const QString import = translate("%1 does not have your certificate: import the same file there, in the settings "
                                     "under Certificates, Your Certificates.");
    for (const ProgramHolding& holding : findings.programs) {
        if (holding.personal.status != errSecSuccess)
            report.notUsedBy +=
                translate("What %1 has could not be read: %2").arg(holding.program, textOf(holding.personal.status));
        else if (holding.personal.certificate)
            report.usedBy += translate("%1 has your certificate.").arg(holding.program);
        else
            report.notUsedBy += import.arg(holding.program);
    }
    for (const BrowserPolicy& policy : findings.policies) {
        if (isChromium(policy.browser))
            continue;
        if (policy.trustsAuthority)
            report.usedBy += translate("%1 trusts the authority’s servers, from its next start.").arg(policy.browser);
        else
            report.notUsedBy += translate("%1 does not trust the authority’s servers: import the authority there, in "
                                          "the settings under Certificates, Authorities.")
                                    .arg(policy.browser);
    }
    if (findings.programs.empty())
        report.notUsedBy += translate("Firefox and Thunderbird keep certificates of their own: where you use them, "
                                      "import the same file there, in the settings under Certificates.");
    report.usedBy.removeDuplicates();
    report.notUsedBy.removeDuplicates();
}

std::string nameOf(std::span<const std::uint8_t> certificate)
{
    const auto fields = readCertificateFields(certificate);
    return fields ? fields->label : std::string();
}

} // namespace

Findings readStores(std::span<const std::uint8_t> personalCertificate, std::span<const std::uint8_t> authority,
    const std::string& authorityFile, const QString& tool)
{
    Findings findings;
    findings.personalName = nameOf(personalCertificate);
    findings.authorityName = nameOf(authority);
    findings.state = readInstalledState(personalCertificate, authority);
    findings.policies = browserPolicies(tool, authorityFile);
    for (const ProgramStore& store : programStores())
        findings.programs.push_back({store.program, readForeignDatabase(store.directory, personalCertificate)});
    return findings;
}

Report makeReport(const Findings& findings)
{
    Report report;
    report.personal = personalLines(findings);
    report.authority = authorityLines(findings);
    tellChromium(findings, report);
    tellSystemStore(findings, report);
    tellOwnStores(findings, report);
    return report;
}

} // namespace kf
