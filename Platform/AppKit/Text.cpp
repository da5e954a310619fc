#include "AppKit/Text.h"

namespace kf {

QString toQString(const Ref<NSString>& string)
{
    if (!string)
        return {};
    const std::u16string text = string->characters();
    // fromUtf16 would take a leading byte-order mark away.
    return text.empty() ? QStringLiteral("")
                        : QString(reinterpret_cast<const QChar*>(text.data()), static_cast<qsizetype>(text.size()));
}

Ref<NSString> toNSString(const QString& string)
{
    if (string.isNull())
        return nullptr;
    return NSString::stringWithCharacters(
        {reinterpret_cast<const char16_t*>(string.utf16()), static_cast<std::size_t>(string.size())});
}

} // namespace kf
