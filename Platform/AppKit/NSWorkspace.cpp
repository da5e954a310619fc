#include "AppKit/NSWorkspace.h"

#include "AppKit/Text.h"

#include <QDesktopServices>
#include <QUrl>

NSWorkspace& NSWorkspace::sharedWorkspace()
{
    static NSWorkspace workspace;
    return workspace;
}

bool NSWorkspace::openURL(const Ref<NSString>& url)
{
    const QUrl address(kf::toQString(url), QUrl::StrictMode);
    // A link in a document must not start whatever a file or another scheme stands for.
    static const QStringList schemes = {QStringLiteral("https"), QStringLiteral("http"), QStringLiteral("mailto")};
    if (!address.isValid() || !schemes.contains(address.scheme()))
        return false;
    return QDesktopServices::openUrl(address);
}
