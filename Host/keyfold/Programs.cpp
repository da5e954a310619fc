#include "keyfold/Programs.h"

#include "Foundation/NSLog.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>

namespace kf {

namespace {

constexpr int toolTimeout = 20'000; // milliseconds

bool isDatabase(const QString& directory) { return QFile::exists(directory + QStringLiteral("/cert9.db")); }

/// The profiles that `root`/profiles.ini names; they may lie anywhere.
QStringList profilesOf(const QString& root)
{
    QStringList profiles;
    QSettings file(root + QStringLiteral("/profiles.ini"), QSettings::IniFormat);
    for (const QString& group : file.childGroups()) {
        if (!group.startsWith(u"Profile"))
            continue;
        file.beginGroup(group);
        const QString path = file.value(QStringLiteral("Path")).toString();
        if (!path.isEmpty())
            profiles += QDir(root).absoluteFilePath(path);
        file.endGroup();
    }
    return profiles;
}

QString configurationHome()
{
    const QString set = qEnvironmentVariable("XDG_CONFIG_HOME");
    return set.isEmpty() ? QDir::homePath() + QStringLiteral("/.config") : set;
}

} // namespace

std::vector<ProgramStore> programStores()
{
    const QString home = QDir::homePath();
    const std::vector<std::pair<QString, QString>> withProfiles = {
        {QStringLiteral("Firefox"), home + QStringLiteral("/.mozilla/firefox")},
        {QStringLiteral("Firefox"), configurationHome() + QStringLiteral("/mozilla/firefox")},
        {QStringLiteral("Firefox (snap)"), home + QStringLiteral("/snap/firefox/common/.mozilla/firefox")},
        {QStringLiteral("Firefox (flatpak)"), home + QStringLiteral("/.var/app/org.mozilla.firefox/.mozilla/firefox")},
        {QStringLiteral("Thunderbird"), home + QStringLiteral("/.thunderbird")},
        {QStringLiteral("Thunderbird (snap)"), home + QStringLiteral("/snap/thunderbird/common/.thunderbird")},
        {QStringLiteral("Thunderbird (flatpak)"),
            home + QStringLiteral("/.var/app/org.mozilla.Thunderbird/.thunderbird")},
    };
    std::vector<ProgramStore> stores;
    for (const auto& [program, root] : withProfiles) {
        for (const QString& profile : profilesOf(root)) {
            if (isDatabase(profile))
                stores.push_back({program, profile.toStdString()});
        }
    }
    const QString chromiumSnap = home + QStringLiteral("/snap/chromium/current/.pki/nssdb");
    if (isDatabase(chromiumSnap))
        stores.push_back({QStringLiteral("Chromium (snap)"), chromiumSnap.toStdString()});
    return stores;
}

std::optional<std::vector<BrowserPolicy>> browserPolicies(const QString& tool, const std::string& certificateFile)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(
        tool, {QStringLiteral("trust-status"), QStringLiteral("--json"), QString::fromStdString(certificateFile)});
    if (!process.waitForFinished(toolTimeout) || process.exitStatus() != QProcess::NormalExit) {
        NSLog("The browsers' policies are not known: %s: %s", tool.toStdString(), process.errorString().toStdString());
        process.kill();
        process.waitForFinished();
        return std::nullopt;
    }
    const QJsonValue places =
        QJsonDocument::fromJson(process.readAllStandardOutput()).object()[QStringLiteral("places")];
    if (!places.isArray()) {
        NSLog("The browsers' policies are not known: %s tells no places", tool.toStdString());
        return std::nullopt;
    }
    std::vector<BrowserPolicy> policies;
    bool distributionTrusts = false;
    for (const auto& value : places.toArray()) {
        const QJsonObject place = value.toObject();
        const QString name = place[QStringLiteral("place")].toString();
        const QString state = place[QStringLiteral("state")].toString();
        const bool isThere =
            place[QStringLiteral("published")].toBool() || place[QStringLiteral("fromAnotherSource")].toBool();
        const bool follows = !place[QStringLiteral("follows")].toString().isEmpty();
        if (name == u"distribution's trust store")
            distributionTrusts = isThere;
        else if (name == u"System keychain" || state == u"not present")
            continue;
        else if (state == u"readable")
            policies.push_back({name, isThere || (follows && distributionTrusts)});
        else
            policies.push_back({name, std::nullopt});
    }
    return policies;
}

} // namespace kf
