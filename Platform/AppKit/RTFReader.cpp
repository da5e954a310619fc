#include "AppKit/RTFReader.h"

#include "Foundation/NSData.h"

#include <QGuiApplication>
#include <QPalette>
#include <QStringDecoder>
#include <QTextBlock>
#include <QTextBlockFormat>
#include <QTextBrowser>
#include <QTextCharFormat>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextList>
#include <QUrl>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kf {

namespace {

constexpr std::size_t maximumSize = std::size_t{8} << 20;
constexpr std::size_t maximumDepth = 200;
constexpr std::size_t maximumTableEntries = 4096;
constexpr int maximumParameter = 1'000'000;
constexpr double twipsInPoint = 20.0;

/// Where the text of a group goes.
enum class Destination { document, nothing, fontTable, colourTable, fieldInstruction, listText };

struct Font {
    QString family;
    QByteArray encoding;
};

/// What a group inherits and gives back at its end.
struct State {
    Destination destination = Destination::document;
    QTextCharFormat character;
    QByteArray encoding;
    int unicodeSkip = 1; ///< characters after \u that repeat it for older readers
};

QByteArray encodingOfCodePage(int page)
{
    switch (page) {
    case 10000:
        return "macintosh";
    case 65001:
        return "UTF-8";
    case 437:
    case 850:
    case 852:
    case 866:
        return "IBM" + QByteArray::number(page);
    default:
        return "windows-" + QByteArray::number(page);
    }
}

/// The code page that goes with a font's \fcharset.
int codePageOfCharset(int charset)
{
    static const std::map<int, int> pages = {{0, 1252}, {77, 10000}, {128, 932}, {129, 949}, {134, 936}, {136, 950},
        {161, 1253}, {162, 1254}, {163, 1258}, {177, 1255}, {178, 1256}, {186, 1257}, {204, 1251}, {222, 874},
        {238, 1250}, {255, 437}};
    const auto found = pages.find(charset);
    return found == pages.end() ? 0 : found->second;
}

int hexDigit(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}

class Reader {
public:
    Reader(std::string_view text, QTextDocument& document) : text_(text), cursor_(&document)
    {
        state_.encoding = encodingOfCodePage(1252);
    }

    void read();

private:
    void openGroup();
    void closeGroup();
    void control();
    void controlWord(std::string_view word, std::optional<int> parameter);
    void hexadecimal();
    void unicode(int value);
    void byte(char value);
    void plain(QStringView text);
    void flushBytes();
    void flushText();
    void endParagraph();
    void applyParagraph();
    void resetParagraph();
    void endColour();
    bool symbol(std::string_view word);
    bool destinationWord(std::string_view word);
    bool characterWord(std::string_view word, std::optional<int> parameter);
    bool paragraphWord(std::string_view word, std::optional<int> parameter);
    bool tableWord(std::string_view word, std::optional<int> parameter);
    void readInstruction();

    std::string_view text_;
    std::size_t at_ = 0;
    QTextCursor cursor_;
    State state_;
    std::vector<State> groups_;
    std::size_t tooDeep_ = 0;
    bool ignorable_ = false; ///< after \*
    int skip_ = 0;           ///< characters still to be left out after \u

    QByteArray bytes_;
    QString pending_;
    std::map<int, Font> fonts_;
    int font_ = 0;
    std::vector<QColor> colours_;
    QColor colour_;
    bool colourGiven_ = false;
    QString instruction_;
    QString link_;
    std::size_t linkDepth_ = 0;

    QTextBlockFormat paragraph_;
    QString listText_;
    bool listed_ = false;
    QTextList* list_ = nullptr;
};

void Reader::read()
{
    // The view lays the text out once, not at each piece.
    cursor_.beginEditBlock();
    while (at_ < text_.size()) {
        const char c = text_[at_++];
        switch (c) {
        case '{':
            openGroup();
            break;
        case '}':
            closeGroup();
            break;
        case '\\':
            control();
            break;
        case '\r':
        case '\n':
        case '\0':
            break;
        default:
            byte(c);
        }
    }
    flushText();
    applyParagraph();
    cursor_.endEditBlock();
}

void Reader::openGroup()
{
    flushText();
    skip_ = 0;
    if (groups_.size() >= maximumDepth) {
        ++tooDeep_;
        return;
    }
    groups_.push_back(state_);
}

void Reader::closeGroup()
{
    flushText();
    skip_ = 0;
    ignorable_ = false;
    if (tooDeep_ > 0) {
        --tooDeep_;
        return;
    }
    if (groups_.empty())
        return;
    const Destination ended = state_.destination;
    state_ = groups_.back();
    groups_.pop_back();
    if (ended == Destination::fieldInstruction && state_.destination != ended)
        readInstruction();
    if (!link_.isNull() && groups_.size() < linkDepth_)
        link_ = QString();
}

void Reader::control()
{
    if (at_ >= text_.size())
        return;
    const char first = text_[at_];
    if ((first < 'a' || first > 'z') && (first < 'A' || first > 'Z')) {
        ++at_;
        switch (first) {
        case '\'':
            hexadecimal();
            break;
        case '*':
            ignorable_ = true;
            break;
        case '~':
            plain(u"\u00a0");
            break;
        case '_':
            plain(u"\u2011");
            break;
        case '-':
            plain(u"\u00ad");
            break;
        case '\r':
        case '\n':
            endParagraph();
            break;
        case '\\':
        case '{':
        case '}':
            byte(first);
            break;
        default:
            break;
        }
        return;
    }
    const std::size_t start = at_;
    while (at_ < text_.size() && ((text_[at_] >= 'a' && text_[at_] <= 'z') || (text_[at_] >= 'A' && text_[at_] <= 'Z')))
        ++at_;
    const std::string_view word = text_.substr(start, at_ - start);
    std::optional<int> parameter;
    const bool negative = at_ + 1 < text_.size() && text_[at_] == '-' && text_[at_ + 1] >= '0' && text_[at_ + 1] <= '9';
    if (negative)
        ++at_;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9')
        parameter = std::min(maximumParameter, parameter.value_or(0) * 10 + (text_[at_++] - '0'));
    if (negative && parameter)
        parameter = -*parameter;
    if (at_ < text_.size() && text_[at_] == ' ')
        ++at_;
    controlWord(word, parameter);
}

void Reader::controlWord(std::string_view word, std::optional<int> parameter)
{
    const bool ignorable = std::exchange(ignorable_, false);
    if (word == "bin") { // raw bytes that are no text
        at_ = std::min(text_.size(), at_ + static_cast<std::size_t>(std::max(0, parameter.value_or(0))));
        return;
    }
    if (word == "u") {
        unicode(parameter.value_or(0));
        return;
    }
    if (skip_ > 0) {
        --skip_;
        return;
    }
    flushText();
    if (word == "uc")
        state_.unicodeSkip = std::clamp(parameter.value_or(1), 0, 16);
    else if (word == "ansicpg" && parameter)
        state_.encoding = encodingOfCodePage(*parameter);
    else if (word == "mac")
        state_.encoding = encodingOfCodePage(10000);
    else if (word == "pc")
        state_.encoding = encodingOfCodePage(437);
    else if (word == "pca")
        state_.encoding = encodingOfCodePage(850);
    else if (!destinationWord(word) && !tableWord(word, parameter) && !symbol(word) && !characterWord(word, parameter)
        && !paragraphWord(word, parameter) && ignorable)
        state_.destination = Destination::nothing;
}

bool Reader::destinationWord(std::string_view word)
{
    static const std::map<std::string_view, Destination> destinations = {
        {"fonttbl", Destination::fontTable},
        {"colortbl", Destination::colourTable},
        {"fldinst", Destination::fieldInstruction},
        {"listtext", Destination::listText},
        {"pntext", Destination::listText},
        {"stylesheet", Destination::nothing},
        {"info", Destination::nothing},
        {"pict", Destination::nothing},
        {"object", Destination::nothing},
        {"header", Destination::nothing},
        {"headerl", Destination::nothing},
        {"headerr", Destination::nothing},
        {"headerf", Destination::nothing},
        {"footer", Destination::nothing},
        {"footerl", Destination::nothing},
        {"footerr", Destination::nothing},
        {"footerf", Destination::nothing},
        {"footnote", Destination::nothing},
        {"listtable", Destination::nothing},
        {"listoverridetable", Destination::nothing},
        {"rsidtbl", Destination::nothing},
        {"generator", Destination::nothing},
        {"themedata", Destination::nothing},
        {"colorschememapping", Destination::nothing},
        {"datastore", Destination::nothing},
        {"xmlnstbl", Destination::nothing},
        {"bkmkstart", Destination::nothing},
        {"bkmkend", Destination::nothing},
        {"NeXTGraphic", Destination::nothing},
    };
    const auto found = destinations.find(word);
    if (found == destinations.end())
        return false;
    // Nothing below a group that is left out comes back into view.
    if (state_.destination == Destination::nothing)
        return true;
    state_.destination = found->second;
    if (found->second == Destination::listText) {
        listed_ = true;
        listText_.clear();
    } else if (found->second == Destination::fieldInstruction) {
        instruction_.clear();
    }
    return true;
}

bool Reader::tableWord(std::string_view word, std::optional<int> parameter)
{
    if (state_.destination == Destination::colourTable) {
        const int value = std::clamp(parameter.value_or(0), 0, 255);
        if (word == "red")
            colour_.setRed(value);
        else if (word == "green")
            colour_.setGreen(value);
        else if (word == "blue")
            colour_.setBlue(value);
        colourGiven_ = true;
        return true;
    }
    if (state_.destination == Destination::fontTable) {
        if (word == "f" && parameter)
            font_ = *parameter;
        else if (word == "fcharset" && parameter && fonts_.size() < maximumTableEntries) {
            if (const int page = codePageOfCharset(*parameter))
                fonts_[font_].encoding = encodingOfCodePage(page);
        }
        return true;
    }
    return false;
}

bool Reader::symbol(std::string_view word)
{
    static const std::map<std::string_view, QStringView> symbols = {
        {"tab", u"\t"},
        {"line", u"\u2028"},
        {"emdash", u"\u2014"},
        {"endash", u"\u2013"},
        {"lquote", u"\u2018"},
        {"rquote", u"\u2019"},
        {"ldblquote", u"\u201c"},
        {"rdblquote", u"\u201d"},
        {"bullet", u"\u2022"},
        {"emspace", u"\u2003"},
        {"enspace", u"\u2002"},
        {"qmspace", u"\u2005"},
        {"zwj", u"\u200d"},
        {"zwnj", u"\u200c"},
        {"ltrmark", u"\u200e"},
        {"rtlmark", u"\u200f"},
        {"cell", u"\t"},
    };
    if (word == "par" || word == "sect" || word == "page" || word == "row") {
        endParagraph();
        return true;
    }
    const auto found = symbols.find(word);
    if (found == symbols.end())
        return false;
    plain(found->second);
    return true;
}

bool Reader::characterWord(std::string_view word, std::optional<int> parameter)
{
    QTextCharFormat& format = state_.character;
    const bool on = parameter.value_or(1) != 0;
    if (word == "plain") {
        format = QTextCharFormat();
    } else if (word == "b") {
        format.setFontWeight(on ? QFont::Bold : QFont::Normal);
    } else if (word == "i") {
        format.setFontItalic(on);
    } else if (word == "ul") {
        format.setFontUnderline(on);
    } else if (word == "ulnone") {
        format.setFontUnderline(false);
    } else if (word == "strike") {
        format.setFontStrikeOut(on);
    } else if (word == "super") {
        format.setVerticalAlignment(QTextCharFormat::AlignSuperScript);
    } else if (word == "sub") {
        format.setVerticalAlignment(QTextCharFormat::AlignSubScript);
    } else if (word == "nosupersub") {
        format.setVerticalAlignment(QTextCharFormat::AlignNormal);
    } else if (word == "fs") {
        format.setFontPointSize(std::clamp(parameter.value_or(24), 4, 288) / 2.0);
    } else if (word == "cf") {
        const auto index = static_cast<std::size_t>(std::max(0, parameter.value_or(0)));
        // Entry 0 is "automatic": the view's own colour, readable on its own background.
        if (index < colours_.size() && colours_[index].isValid())
            format.setForeground(colours_[index]);
        else
            format.clearForeground();
    } else if (word == "f") {
        const auto found = fonts_.find(parameter.value_or(0));
        if (found != fonts_.end()) {
            if (!found->second.family.isEmpty())
                format.setFontFamilies({found->second.family});
            if (!found->second.encoding.isEmpty())
                state_.encoding = found->second.encoding;
        }
    } else {
        return false;
    }
    return true;
}

bool Reader::paragraphWord(std::string_view word, std::optional<int> parameter)
{
    const double points = std::clamp(parameter.value_or(0) / twipsInPoint, -500.0, 500.0);
    if (word == "pard")
        resetParagraph();
    else if (word == "ql")
        paragraph_.setAlignment(Qt::AlignLeft);
    else if (word == "qr")
        paragraph_.setAlignment(Qt::AlignRight);
    else if (word == "qc")
        paragraph_.setAlignment(Qt::AlignHCenter);
    else if (word == "qj")
        paragraph_.setAlignment(Qt::AlignJustify);
    else if (word == "rtlpar")
        paragraph_.setLayoutDirection(Qt::RightToLeft);
    else if (word == "li")
        paragraph_.setLeftMargin(std::max(0.0, points));
    else if (word == "ri")
        paragraph_.setRightMargin(std::max(0.0, points));
    else if (word == "fi")
        paragraph_.setTextIndent(points);
    else if (word == "sb")
        paragraph_.setTopMargin(std::max(0.0, points));
    else if (word == "sa")
        paragraph_.setBottomMargin(std::max(0.0, points));
    else
        return false;
    return true;
}

void Reader::hexadecimal()
{
    if (at_ + 2 > text_.size())
        return;
    const int high = hexDigit(text_[at_]);
    const int low = hexDigit(text_[at_ + 1]);
    if (high < 0 || low < 0)
        return;
    at_ += 2;
    byte(static_cast<char>(high * 16 + low));
}

void Reader::unicode(int value)
{
    flushBytes();
    skip_ = 0;
    const QChar unit(static_cast<char16_t>(value & 0xFFFF)); // negative values are units above 0x7FFF
    plain(QStringView(&unit, 1));
    skip_ = state_.unicodeSkip;
}

void Reader::byte(char value)
{
    if (skip_ > 0) {
        --skip_;
        return;
    }
    if (state_.destination == Destination::colourTable) {
        if (value == ';')
            endColour();
        return;
    }
    bytes_.append(value);
}

void Reader::plain(QStringView text)
{
    if (skip_ > 0) {
        --skip_;
        return;
    }
    flushBytes();
    pending_.append(text);
}

// Bytes are decoded together: a character may have more than one.
void Reader::flushBytes()
{
    if (bytes_.isEmpty())
        return;
    QStringDecoder decoder(state_.encoding.constData());
    if (decoder.isValid())
        pending_.append(QString(decoder.decode(bytes_)));
    else
        pending_.append(QString::fromLatin1(bytes_));
    bytes_.clear();
}

void Reader::flushText()
{
    flushBytes();
    if (pending_.isEmpty())
        return;
    const QString text = std::exchange(pending_, {});
    switch (state_.destination) {
    case Destination::document: {
        QTextCharFormat format = state_.character;
        if (!link_.isEmpty()) {
            format.setAnchor(true);
            format.setAnchorHref(link_);
            format.setFontUnderline(true);
            format.setForeground(QGuiApplication::palette().link());
        }
        cursor_.insertText(text, format);
        break;
    }
    case Destination::fontTable:
        if (fonts_.size() < maximumTableEntries)
            fonts_[font_].family = QString(text).remove(u';').trimmed().left(100);
        break;
    case Destination::fieldInstruction:
        instruction_.append(text);
        break;
    case Destination::listText:
        listText_.append(text);
        break;
    case Destination::colourTable:
    case Destination::nothing:
        break;
    }
}

void Reader::endColour()
{
    if (colours_.size() < maximumTableEntries)
        colours_.push_back(colourGiven_ ? colour_ : QColor());
    colour_ = QColor(0, 0, 0);
    colourGiven_ = false;
}

void Reader::readInstruction()
{
    const QString text = instruction_.trimmed();
    instruction_.clear();
    if (!text.startsWith(u"HYPERLINK", Qt::CaseInsensitive))
        return;
    QString address = text.mid(9).trimmed();
    if (address.startsWith(u'"')) {
        const qsizetype end = address.indexOf(u'"', 1);
        address = end < 0 ? address.mid(1) : address.mid(1, end - 1);
    } else {
        address = address.section(u' ', 0, 0);
    }
    const QUrl url(address, QUrl::StrictMode);
    if (!url.isValid() || (url.scheme() != u"https" && url.scheme() != u"http" && url.scheme() != u"mailto"))
        return;
    link_ = address;
    linkDepth_ = groups_.size();
}

void Reader::endParagraph()
{
    flushText();
    if (state_.destination != Destination::document)
        return;
    applyParagraph();
    cursor_.insertBlock(QTextBlockFormat(), state_.character);
}

void Reader::applyParagraph()
{
    cursor_.setBlockFormat(paragraph_);
    if (!listed_) {
        list_ = nullptr;
        return;
    }
    QTextListFormat format;
    const bool numbered = std::any_of(listText_.cbegin(), listText_.cend(), [](QChar c) { return c.isDigit(); });
    format.setStyle(numbered ? QTextListFormat::ListDecimal : QTextListFormat::ListDisc);
    if (list_ && list_->format().style() == format.style())
        list_->add(cursor_.block());
    else
        list_ = cursor_.createList(format);
    // A bullet is as large as the text beside it, whatever stood before.
    QTextCharFormat bullet;
    const auto first = cursor_.block().begin();
    if (const double size = first.atEnd() ? 0 : first.fragment().charFormat().fontPointSize(); size > 0)
        bullet.setFontPointSize(size);
    // The list puts a bullet one space before its text: a wide one, or they all but touch.
    if (!numbered)
        bullet.setFontStretch(2 * QFont::Unstretched);
    if (!bullet.isEmpty())
        cursor_.setBlockCharFormat(bullet);
    // The list draws bullet and indent itself; the file's own would double them.
    QTextBlockFormat block = cursor_.blockFormat();
    block.setLeftMargin(0);
    block.setTextIndent(0);
    cursor_.setBlockFormat(block);
    listed_ = false;
}

void Reader::resetParagraph() { paragraph_ = QTextBlockFormat(); }

} // namespace

bool readRTF(std::span<const std::uint8_t> rtf, QTextDocument& document)
{
    const std::string_view text(reinterpret_cast<const char*>(rtf.data()), rtf.size());
    if (text.size() > maximumSize || !text.starts_with("{\\rtf"))
        return false;
    document.clear();
    document.setUndoRedoEnabled(false);
    Reader(text, document).read();
    return true;
}

bool readRTFDFromFile(QTextBrowser* view, const Ref<NSString>& path)
{
    const Ref<NSData> data = path ? NSData::dataWithContentsOfFile(path) : nullptr;
    if (!view || !data || !readRTF(data->span(), *view->document()))
        return false;
    view->moveCursor(QTextCursor::Start);
    return true;
}

} // namespace kf
