#include "keyfold/BundleCheck.h"

#include "AppKit/Text.h"
#include "keyfold/InputFiles.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLocale>

#include <algorithm>

namespace kf {

namespace {

QString translate(const char* text) { return QCoreApplication::translate("BundleCheck", text); }

BundleCheck problemAt(BundleCheck::Place place, const QString& problem, OSStatus status = errSecSuccess)
{
    BundleCheck check;
    check.place = place;
    check.problem = problem;
    check.status = status;
    return check;
}

/// The bundle's bytes; nothing where the text is no base64.
std::optional<QByteArray> decoded(const Ref<NSString>& base64)
{
    QByteArray text = QByteArray::fromStdString(toUTF8(base64));
    text.removeIf([](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
    const auto read = QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    return read ? std::optional(*read) : std::nullopt;
}

BundleCheck refusal(OSStatus status, bool hasPassphrase)
{
    using Place = BundleCheck::Place;
    switch (status) {
    case errSecPkcs12VerifyFailure:
        return problemAt(Place::passphrase,
            hasPassphrase
                ? translate("This pass phrase does not open the file. Mind capital letters and the keyboard’s layout.")
                : translate("The file is protected: enter its pass phrase."),
            status);
    case errSecDecode:
        return problemAt(Place::file, translate("The file is damaged. Download it again."), status);
    case errSecUnknownFormat:
        return problemAt(Place::file,
            translate("This is no certificate file. Choose the .p12 or .pfx file that you downloaded."), status);
    case errSecDataNotAvailable:
        return problemAt(Place::file,
            translate("The file holds no private key with a certificate, so there is nothing to install. Ask for it "
                      "again."),
            status);
    case errSecNoCertificate:
        return problemAt(Place::file,
            translate("The file holds a private key, but not the certificate that belongs to it. Ask for it again."),
            status);
    default:
        return problemAt(Place::file, toQString(SecCopyErrorMessageString(status, nullptr)), status);
    }
}

QString day(std::int64_t seconds)
{
    // In the language of the texts around it.
    return QLocale::c().toString(QDateTime::fromSecsSinceEpoch(seconds).date(), QStringLiteral("d MMMM yyyy"));
}

bool holdsAddress(const BundleInspection& certificate, const std::string& address)
{
    return std::ranges::any_of(certificate.emailAddresses, [&](const std::string& other) {
        return QString::compare(QString::fromStdString(other), QString::fromStdString(address), Qt::CaseInsensitive)
            == 0;
    });
}

QString nameOf(const Bytes& authority)
{
    const auto fields = readCertificateFields(authority);
    return fields ? QString::fromStdString(fields->commonName) : QString();
}

QStringList warningsAbout(const BundleInspection& certificate, const BundleRequest& request)
{
    QStringList warnings;
    const std::int64_t now = QDateTime::currentSecsSinceEpoch();
    if (certificate.notAfter < now)
        warnings += translate("The certificate expired on %1. Services will refuse it: ask for a new one.")
                        .arg(day(certificate.notAfter));
    if (certificate.notBefore > now)
        warnings += translate("The certificate is not valid before %1. Is this computer’s clock right?")
                        .arg(day(certificate.notBefore));
    const std::string address = emailAddressOf(request.login);
    if (!certificate.emailAddresses.empty() && !holdsAddress(certificate, address))
        warnings +=
            translate("The certificate is issued for %1, not for %2. Is it yours?")
                .arg(QString::fromStdString(certificate.emailAddresses.front()), QString::fromStdString(address));
    if (certificate.holdsImpostor)
        warnings += translate("The file also holds an authority that calls itself “%1” and is not the one that this "
                              "program brings along. Ask the help desk before you go on.")
                        .arg(nameOf(request.authority));
    return warnings;
}

/// One for each keychain.
QStringList impostorWarnings(const Bytes& authority)
{
    QStringList warnings;
    for (const std::string& path : keychainsWithImpostor(authority))
        warnings += translate("A keychain holds an authority that calls itself “%1” and is not the one that this "
                              "program brings along: %2. It would be trusted. Ask the help desk before you go on.")
                        .arg(nameOf(authority), QString::fromStdString(path));
    return warnings;
}

} // namespace

std::string emailAddressOf(const std::string& login) { return login + KEYFOLD_EMAIL_DOMAIN; }

BundleLook lookAtBundle(Ref<NSString> base64, const BundleRequest& request)
{
    BundleLook look{std::move(base64), Failure{errSecUnknownFormat}};
    if (const auto bytes = decoded(look.base64))
        look.certificate = inspectBundle(
            {reinterpret_cast<const std::uint8_t*>(bytes->constData()), static_cast<std::size_t>(bytes->size())},
            request.passphrase, request.authority);
    return look;
}

BundleCheck checkBundle(BundleLook look, const BundleRequest& request)
{
    BundleCheck check;
    if (look.certificate) {
        check.base64 = std::move(look.base64);
        check.certificate = std::move(*look.certificate);
        check.warnings = warningsAbout(check.certificate, request);
    } else {
        check = refusal(look.certificate.status(), !request.passphrase.empty());
    }
    check.warnings += impostorWarnings(request.authority);
    return check;
}

BundleCheck checkBundle(const BundleRequest& request)
{
    auto read = readPKCS12AsBase64(request.file);
    if (const auto* error = std::get_if<InputError>(&read))
        return problemAt(BundleCheck::Place::file, QString::fromStdString(error->message));
    return checkBundle(lookAtBundle(std::move(std::get<Ref<NSString>>(read)), request), request);
}

QString describeCertificate(const BundleInspection& certificate)
{
    QStringList lines;
    if (!certificate.emailAddresses.empty())
        lines += translate("For %1").arg(QString::fromStdString(certificate.emailAddresses.front()));
    if (!certificate.issuer.empty())
        lines += translate("Issued by %1").arg(QString::fromStdString(certificate.issuer));
    lines += translate("Valid from %1 until %2").arg(day(certificate.notBefore), day(certificate.notAfter));
    return lines.join(u'\n');
}

} // namespace kf
