// What must hold of a document that the RTF reader made of any bytes.
#pragma once

#include "AppKit/RTFReader.h"

#include <QTextDocument>
#include <QTextFormat>
#include <QUrl>

#include <string>
#include <string_view>

namespace kf::fuzz {

/// Reads `rtf`, and tells what is wrong with the result; empty where nothing is. Main thread, with an application.
inline std::string faultOfRTF(std::string_view rtf)
{
    QTextDocument document;
    const bool wasRead = readRTF({reinterpret_cast<const std::uint8_t*>(rtf.data()), rtf.size()}, document);
    if (wasRead != rtf.starts_with("{\\rtf"))
        return wasRead ? "what is no RTF was read" : "RTF was refused";
    // Nothing comes out of nothing: no text becomes much longer than its source.
    if (document.characterCount() > static_cast<int>(2 * rtf.size() + 2))
        return "the text is longer than its source";
    const QStringList schemes = {QStringLiteral("http"), QStringLiteral("https"), QStringLiteral("mailto")};
    for (const QTextFormat& format : document.allFormats()) {
        const QString address = format.isCharFormat() ? format.toCharFormat().anchorHref() : QString();
        if (!address.isEmpty() && !schemes.contains(QUrl(address).scheme()))
            return "a link to " + address.toStdString();
    }
    return {};
}

} // namespace kf::fuzz
