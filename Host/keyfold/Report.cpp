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

bool isFirefox(const QString& browser) { return browser.startsWith(u"Firefox"); }

/// What the default keychain holds for them. It is not spoken of where none is there; unknown, one may be.
void tellChromium(const Findings& findings, Report& report)
{
    const bool isThere = !findings.policies || std::ranges::any_of(*findings.policies, [](const BrowserPolicy& policy) {
        return !isFirefox(policy.browser);
    });
    if (!isThere)
        return;
    if (findings.state.personal.certificate && findings.state.personal.privateKey)
        report.usedBy += translate("Chromium and the browsers made from it sign you in with your certificate, from "
                                   "their next start.");
    if (findings.state.authorityForUser.trusted)
        report.usedBy += translate("Chromium and the browsers made from it trust the authority’s servers.");
}

/// Whether a program trusts the authority, and how the member makes it do so.
void tellTrust(const QString& program, std::optional<bool> trusts, Report& report)
{
    const bool isChromium = !isFirefox(program) && !program.startsWith(u"Thunderbird");
    const QString where = isChromium
        ? translate("in the settings under Privacy and security, Security, Manage certificates")
        : translate("in the settings under Certificates, Authorities");
    if (!trusts)
        report.notUsedBy += translate("It could not be found out whether %1 trusts the authority’s servers. If it "
                                      "warns you of them, import the authority there, %2.")
                                .arg(program, where);
    else if (*trusts)
        report.usedBy += translate("%1 trusts the authority’s servers, from its next start.").arg(program);
    else
        report.notUsedBy +=
            translate("%1 does not trust the authority’s servers: import the authority there, %2.").arg(program, where);
}

/// The browsers by their policies, and the programs without one by their own stores. What a browser's own store trusts
/// needs no policy.
void tellAuthority(const Findings& findings, Report& report)
{
    const std::vector<BrowserPolicy> unknown = {
        {QStringLiteral("Chromium"), std::nullopt}, {QStringLiteral("Firefox"), std::nullopt}};
    const qsizetype before = report.notUsedBy.size();
    for (const BrowserPolicy& policy : findings.policies.value_or(unknown)) {
        const bool trustsByItself = isFirefox(policy.browser)
            ? std::ranges::any_of(findings.programs,
                [&](const ProgramHolding& holding) {
                    return holding.program == policy.browser && holding.trustsAuthority.value_or(false);
                })
            : findings.state.authorityForUser.trusted;
        if (isFirefox(policy.browser) || !trustsByItself)
            tellTrust(policy.browser, trustsByItself ? true : policy.trustsAuthority, report);
    }
    for (const ProgramHolding& holding : findings.programs) {
        if (holding.program.startsWith(u"Thunderbird"))
            tellTrust(holding.program, holding.trustsAuthority, report);
    }
    if (report.notUsedBy.size() > before)
        report.notUsedBy += translate("The authority is imported from this file:\n%1")
                                .arg(QString::fromStdString(findings.authorityFile));
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
    if (findings.programs.empty())
        report.notUsedBy += translate("Firefox and Thunderbird keep certificates of their own: where you use them, "
                                      "import the same file there, in the settings under Certificates.");
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
    findings.authorityFile = authorityFile;
    findings.state = readInstalledState(personalCertificate, authority);
    findings.policies = browserPolicies(tool, authorityFile);
    for (const ProgramStore& store : programStores()) {
        const Result<bool> trusts = foreignDatabaseTrusts(store.directory, authority);
        findings.programs.push_back({store.program, readForeignDatabase(store.directory, personalCertificate),
            trusts ? std::optional(*trusts) : std::nullopt});
    }
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
    tellAuthority(findings, report);
    report.usedBy.removeDuplicates(); // a program may have several profiles
    report.notUsedBy.removeDuplicates();
    return report;
}

} // namespace kf
