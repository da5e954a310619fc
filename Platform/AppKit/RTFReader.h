// Rich Text Format into a text document.
#pragma once

#include "Foundation/NSString.h"

#include <cstdint>
#include <span>

class QTextBrowser;
class QTextDocument;

namespace kf {

/// Replaces the content of `document` with the text of an RTF file (Rich Text
/// Format Specification 1.9.1): paragraphs and their alignment and indents,
/// bold, italic, underline, strike-out, sizes, colours, fonts, list bullets,
/// code pages, Unicode characters and hyperlinks. What it does not know it
/// leaves out. Only web and mail addresses become links. Any input is safe:
/// false, with the document unchanged, where the bytes do not begin as RTF or
/// are longer than 8 MiB; a text that is cut off or badly nested is shown as
/// far as it can be read.
bool readRTF(std::span<const std::uint8_t> rtf, QTextDocument& document);

/// Shows the RTF file at `path` in a text view; false, with the view unchanged,
/// where it cannot be read. Main thread.
bool readRTFDFromFile(QTextBrowser* view, const Ref<NSString>& path);

} // namespace kf
