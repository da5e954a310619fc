// Takes web addresses in the browser's place.
#pragma once

#include <QDesktopServices>
#include <QObject>
#include <QUrl>

namespace kf::test {

/// Is given, until it goes, each web address that is to be opened. In the SOURCES of the test that uses it, for moc.
class URLReceiver final : public QObject {
    Q_OBJECT
public:
    URLReceiver()
    {
        for (const QString& scheme : schemes_)
            QDesktopServices::setUrlHandler(scheme, this, "open");
    }
    ~URLReceiver() override
    {
        for (const QString& scheme : schemes_)
            QDesktopServices::unsetUrlHandler(scheme);
    }
    Q_SLOT void open(const QUrl& url) { opened.append(url); }

    QList<QUrl> opened;

private:
    const QStringList schemes_{QStringLiteral("http"), QStringLiteral("https")};
};

} // namespace kf::test
