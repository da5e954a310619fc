#include "keyfold/DryRun.h"

#include "AppKit/Text.h"
#include "Security/InstalledState.h"

#include <algorithm>

namespace kf {

namespace {

QString textOf(OSStatus status) { return toQString(SecCopyErrorMessageString(status, nullptr)); }

const QString personal = QStringLiteral("Personal certificate");
const QString authority = QStringLiteral("Certificate authority");
const QString old = QStringLiteral("Old certificates");

/// `isOld`: it would be deleted among the old ones where it is there.
bool reportPersonal(const BundleCheck& check, const InstalledState& state, bool isOld, BatchReport& report)
{
    const QString keychain = QString::fromStdString(state.defaultKeychain);
    report.message(personal, QString::fromStdString(check.certificate.name));
    for (const QString& line : describeCertificate(check.certificate).split(u'\n'))
        report.message(personal, line);
    if (state.defaultKeychain.empty() || state.personal.status != errSecSuccess) {
        const OSStatus status = state.defaultKeychain.empty() ? errSecNoDefaultKeychain : state.personal.status;
        report.error(QStringLiteral("Would not be installed into %1: %2").arg(keychain, textOf(status)));
        return false;
    }
    if (state.personal.certificate && state.personal.privateKey)
        report.message(personal,
            (isOld ? QStringLiteral("Is in %1 already; would be deleted and installed again")
                   : QStringLiteral("Is in %1 already"))
                .arg(keychain));
    else
        report.message(personal, QStringLiteral("Would be installed into %1").arg(keychain));
    return true;
}

void reportOld(const std::string& address, bool deleteOld, BatchReport& report)
{
    const auto count = countIdentities(address);
    const QString about = QString::fromStdString(address);
    if (!count)
        report.message(old, QStringLiteral("Not known for %1: %2").arg(about, textOf(count.status())));
    else if (*count == 0)
        report.message(old, QStringLiteral("None for %1").arg(about));
    else if (deleteOld)
        report.message(old,
            QStringLiteral("%1 for %2; the institution’s would be deleted with their private keys, and every "
                           "certificate for the address")
                .arg(*count)
                .arg(about));
    else
        report.message(old, QStringLiteral("%1 for %2; would be kept").arg(*count).arg(about));
}

void reportAuthority(const InstalledState& state, BatchReport& report)
{
    if (state.authorityForAll.trusted)
        report.message(authority, QStringLiteral("Is trusted for everybody already"));
    else if (state.authorityForUser.trusted)
        report.message(authority, QStringLiteral("Is trusted for this user already"));
    else
        report.message(authority,
            QStringLiteral("Would be installed: for everybody with administrator rights, else for this user alone"));
}

} // namespace

bool reportDryRun(const BundleCheck& check, const BundleRequest& request, bool deleteOld, BatchReport& report)
{
    report.title(QStringLiteral("Dry run: nothing is changed"));
    if (!check.isGood()) {
        report.error(check.problem);
        return false;
    }
    for (const QString& warning : check.warnings)
        report.warning(warning);
    const InstalledState state = readInstalledState(check.certificate.der, request.authority);
    reportAuthority(state, report);
    const std::string address = emailAddressOf(request.login);
    reportOld(address, deleteOld, report);
    const bool isOld = deleteOld && std::ranges::count(check.certificate.emailAddresses, address) != 0;
    return reportPersonal(check, state, isOld, report);
}

} // namespace kf
