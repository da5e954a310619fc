#include "AppKit/RTFReader.h"
#include "Tests/Wizard/Support.h"

#include <QFontMetrics>
#include <QPainter>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextDocument>
#include <QTextFragment>
#include <QTextList>

#include <random>

namespace {

bool read(std::string_view rtf, QTextDocument& document)
{
    return kf::readRTF({reinterpret_cast<const std::uint8_t*>(rtf.data()), rtf.size()}, document);
}

QString text(std::string_view rtf)
{
    QTextDocument document;
    EXPECT_TRUE(read(rtf, document));
    return document.toRawText().replace(QChar::ParagraphSeparator, u'\n').replace(QChar::LineSeparator, u'\n');
}

/// The format of the first fragment with that text.
QTextCharFormat formatOf(const QTextDocument& document, const char* wanted)
{
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        for (auto at = block.begin(); !at.atEnd(); ++at) {
            if (at.fragment().text() == QLatin1String(wanted))
                return at.fragment().charFormat();
        }
    }
    ADD_FAILURE() << "there is no fragment \"" << wanted << "\" in " << document.toPlainText().toStdString();
    return {};
}

struct Row {
    const char* rtf;
    const char* text;
};

class RTFText : public testing::TestWithParam<Row> { };

TEST_P(RTFText, ReadsAs) { EXPECT_EQ(text(GetParam().rtf).toStdString(), GetParam().text); }

INSTANTIATE_TEST_SUITE_P(Rows, RTFText,
    testing::Values(Row{"{\\rtf1 plain}", "plain"}, Row{"{\\rtf1 one\\par two}", "one\ntwo"},
        Row{"{\\rtf1 one\\\ntwo}", "one\ntwo"}, Row{"{\\rtf1 a\nb\r\nc}", "abc"}, Row{"{\\rtf1 \\{\\}\\\\}", "{}\\"},
        Row{"{\\rtf1 a\\tab b}", "a\tb"}, Row{"{\\rtf1 a\\line b}", "a\nb"},
        Row{"{\\rtf1\\ansicpg1252 \\'80\\'e9}", "€é"}, Row{"{\\rtf1\\ansicpg1251 \\'cf\\'f0}", "Пр"},
        Row{"{\\rtf1\\mac \\'8e}", "é"}, Row{"{\\rtf1\\ansicpg932 \\'8e\\'e9}", "朱"}, Row{"{\\rtf1\\pc \\'84}", "ä"},
        Row{"{\\rtf1\\pca \\'9b}", "ø"}, Row{"{\\rtf1\\ansicpg1250 \\'f8}", "ř"},
        Row{"{\\rtf1\\ansicpg65001 \\'c3\\'a9}", "é"},
        Row{"{\\rtf1{\\fonttbl{\\f0\\fcharset161 A;}{\\f1\\fcharset177 B;}}\\f0\\'e1\\f1\\'e0}", "αא"},
        Row{"{\\rtf1 \\u8364?}", "€"}, Row{"{\\rtf1\\uc0\\u8364 x}", "€x"}, Row{"{\\rtf1\\uc2\\u8364 ab!}", "€!"},
        Row{"{\\rtf1 \\u-10179?\\u-8704?}", "😀"}, Row{"{\\rtf1 \\u8364\\'80!}", "€!"},
        Row{"{\\rtf1 {\\uc0\\u8364}\\u8364?}", "€€"},
        Row{"{\\rtf1 \\ldblquote a\\rdblquote\\emdash\\~}", "“a”—\xc2\xa0"},
        Row{"{\\rtf1{\\fonttbl{\\f0 Times;}}{\\colortbl;\\red1;}{\\stylesheet{\\s0 Normal;}}{\\info{\\title T}}x}",
            "x"},
        Row{"{\\rtf1{\\*\\unknown hidden {also}}shown}", "shown"}, Row{"{\\rtf1{\\unknown shown}}", "shown"},
        Row{"{\\rtf1{\\pict 0123}x}", "x"}, Row{"{\\rtf1\\bin3 {{}x}", "x"},
        Row{"{\\rtf1{\\fonttbl{\\f0\\fcharset204 A;}{\\f1\\fcharset0 B;}}\\f0\\'cf\\f1\\'e9}", "Пé"},
        Row{"{\\rtf1 cut \\'e", "cut e"}, Row{"{\\rtf1 cut {deep", "cut deep"}, Row{"{\\rtf1 x}}}} y", "x y"}));

TEST(RTFReader, RefusesWhatIsNoRTFAndLeavesTheDocument)
{
    QTextDocument document;
    document.setPlainText(QStringLiteral("before"));
    for (const char* other : {"", "plain", "{\\html1 x}", "\\rtf1", "{"})
        EXPECT_FALSE(read(other, document)) << other;
    EXPECT_EQ(document.toPlainText(), QStringLiteral("before"));
}

TEST(RTFReader, RefusesWhatIsTooLong)
{
    QTextDocument document;
    EXPECT_FALSE(read("{\\rtf1 " + std::string(std::size_t{9} << 20, 'x') + "}", document));
}

TEST(RTFReader, KeepsBoldItalicUnderlineSizeColourAndFont)
{
    QTextDocument document;
    ASSERT_TRUE(read("{\\rtf1{\\fonttbl{\\f0 Arial;}{\\f1 Courier New;}}{\\colortbl;\\red200\\green10\\blue20;}"
                     "{\\b bold}{\\i italic}{\\ul under}{\\fs40 large}{\\cf1 red}{\\f1 typed}{\\b x\\b0 plain}"
                     "{\\b\\i both}{\\strike gone}{\\super up}}",
        document));
    EXPECT_EQ(formatOf(document, "bold").fontWeight(), QFont::Bold);
    EXPECT_TRUE(formatOf(document, "italic").fontItalic());
    EXPECT_TRUE(formatOf(document, "under").fontUnderline());
    EXPECT_EQ(formatOf(document, "large").fontPointSize(), 20.0);
    EXPECT_EQ(formatOf(document, "red").foreground().color(), QColor(200, 10, 20));
    EXPECT_EQ(formatOf(document, "typed").fontFamilies().toStringList(), QStringList{QStringLiteral("Courier New")});
    EXPECT_NE(formatOf(document, "plain").fontWeight(), QFont::Bold);
    EXPECT_TRUE(formatOf(document, "both").fontItalic());
    EXPECT_TRUE(formatOf(document, "gone").fontStrikeOut());
    EXPECT_EQ(formatOf(document, "up").verticalAlignment(), QTextCharFormat::AlignSuperScript);
}

TEST(RTFReader, EndsEachFormatWhereItsWordSaysSo)
{
    QTextDocument document;
    ASSERT_TRUE(read(
        "{\\rtf1{\\colortbl;\\red200\\green10\\blue20;}\\i a\\i0 b\\ul c\\ulnone d\\ul e\\ul0 f\\strike g\\strike0 "
        "h\\cf1 i\\cf0 j\\sub k\\nosupersub l\\b\\i\\ul\\fs80 m\\plain n}",
        document));
    EXPECT_TRUE(formatOf(document, "a").fontItalic());
    EXPECT_TRUE(formatOf(document, "c").fontUnderline());
    EXPECT_TRUE(formatOf(document, "e").fontUnderline());
    EXPECT_TRUE(formatOf(document, "g").fontStrikeOut());
    EXPECT_TRUE(formatOf(document, "i").hasProperty(QTextFormat::ForegroundBrush));
    EXPECT_EQ(formatOf(document, "k").verticalAlignment(), QTextCharFormat::AlignSubScript);
    EXPECT_EQ(formatOf(document, "m").fontPointSize(), 40.0);
    for (const char* plain : {"b", "d", "f", "h", "j", "l", "n"}) {
        const QTextCharFormat format = formatOf(document, plain);
        EXPECT_FALSE(format.fontItalic()) << plain;
        EXPECT_FALSE(format.fontUnderline()) << plain;
        EXPECT_FALSE(format.fontStrikeOut()) << plain;
        EXPECT_NE(format.fontWeight(), QFont::Bold) << plain;
        EXPECT_FALSE(format.hasProperty(QTextFormat::ForegroundBrush)) << plain;
        EXPECT_EQ(format.verticalAlignment(), QTextCharFormat::AlignNormal) << plain;
        EXPECT_FALSE(format.hasProperty(QTextFormat::FontPointSize)) << plain;
    }
}

TEST(RTFReader, KeepsEveryAlignmentIndentAndDirection)
{
    QTextDocument document;
    ASSERT_TRUE(
        read("{\\rtf1\\qj\\ri300\\sb100 a\\par\\pard\\qr b\\par\\ql\\fi-200\\li400 c\\par\\pard\\rtlpar d}", document));
    QTextBlockFormat format = document.findBlockByNumber(0).blockFormat();
    EXPECT_EQ(format.alignment(), Qt::AlignJustify);
    EXPECT_EQ(format.rightMargin(), 15.0);
    EXPECT_EQ(format.topMargin(), 5.0);
    EXPECT_EQ(document.findBlockByNumber(1).blockFormat().alignment(), Qt::AlignRight);
    format = document.findBlockByNumber(2).blockFormat();
    EXPECT_EQ(format.alignment(), Qt::AlignLeft);
    EXPECT_EQ(format.textIndent(), -10.0);
    EXPECT_EQ(format.leftMargin(), 20.0);
    format = document.findBlockByNumber(3).blockFormat();
    EXPECT_EQ(format.layoutDirection(), Qt::RightToLeft);
    EXPECT_EQ(format.leftMargin(), 0.0);
}

TEST(RTFReader, KeepsAlignmentAndMargins)
{
    QTextDocument document;
    ASSERT_TRUE(read("{\\rtf1\\qc\\sa200 middle\\par\\pard\\qr\\li400 right\\par\\pard left}", document));
    QTextBlock block = document.begin();
    EXPECT_EQ(block.blockFormat().alignment(), Qt::AlignHCenter);
    EXPECT_EQ(block.blockFormat().bottomMargin(), 10.0);
    block = block.next();
    EXPECT_EQ(block.blockFormat().alignment(), Qt::AlignRight);
    EXPECT_EQ(block.blockFormat().leftMargin(), 20.0);
    block = block.next();
    EXPECT_EQ(block.blockFormat().leftMargin(), 0.0);
}

TEST(RTFReader, MakesListsOfBulletsAndNumbers)
{
    QTextDocument document;
    ASSERT_TRUE(read("{\\rtf1{\\pntext\\bullet\\tab}one\\par{\\listtext\\uc0\\u8226 \\tab}two\\par{\\pntext "
                     "1.\\tab}first\\par none}",
        document));
    EXPECT_EQ(document.toPlainText().toStdString(), "one\ntwo\nfirst\nnone");
    QTextBlock block = document.begin();
    ASSERT_NE(block.textList(), nullptr);
    EXPECT_EQ(block.textList()->format().style(), QTextListFormat::ListDisc);
    EXPECT_EQ(block.next().textList(), block.textList());
    ASSERT_NE(block.next().next().textList(), nullptr);
    EXPECT_EQ(block.next().next().textList()->format().style(), QTextListFormat::ListDecimal);
    EXPECT_EQ(document.lastBlock().textList(), nullptr);
}

TEST(RTFReader, ABulletIsAsLargeAsItsText)
{
    QTextDocument document;
    ASSERT_TRUE(read(
        "{\\rtf1\\fs50\\b heading\\b0\\par\\fs20 {\\pntext\\bullet}\\b item\\par{\\pntext\\bullet}next}", document));
    for (QTextBlock block = document.begin().next(); block.isValid(); block = block.next()) {
        EXPECT_NE(block.textList(), nullptr);
        EXPECT_EQ(block.charFormat().fontPointSize(), 10.0);
        EXPECT_NE(block.charFormat().fontWeight(), QFont::Bold);
    }
}

/// The columns that are empty between the first ink and the next.
int firstGap(QTextDocument& document)
{
    QImage image(200, 40, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    document.drawContents(&painter);
    painter.end();
    const auto isEmpty = [&](int x) {
        for (int y = 0; y < image.height(); ++y) {
            if (image.pixel(x, y) != qRgb(255, 255, 255))
                return false;
        }
        return true;
    };
    int x = 0;
    const auto pass = [&](bool empty) {
        const int from = x;
        while (x < image.width() && isEmpty(x) == empty)
            ++x;
        return x - from;
    };
    pass(true);
    pass(false);
    return pass(true);
}

TEST(RTFReader, ABulletStandsApartFromItsText)
{
    QTextDocument document;
    ASSERT_TRUE(read("{\\rtf1{\\fonttbl{\\f0\\fswiss Helvetica;}}\\f0\\fs40 {\\pntext\\bullet\\tab}H}", document));
    const QFontMetrics metrics(document.begin().begin().fragment().charFormat().font());
    EXPECT_GE(firstGap(document), 3 * metrics.horizontalAdvance(u' ') / 2);
}

TEST(RTFReader, MakesLinksOfWebAndMailAddressesOnly)
{
    QTextDocument document;
    ASSERT_TRUE(read("{\\rtf1{\\field{\\*\\fldinst{HYPERLINK \"https://orvane.example/a\"}}{\\fldrslt web}}"
                     "{\\field{\\*\\fldinst HYPERLINK mailto:a@b.example }{\\fldrslt{\\b mail}}}"
                     "{\\field{\\*\\fldinst{HYPERLINK \"file:///etc/passwd\"}}{\\fldrslt file}}"
                     "{\\field{\\*\\fldinst{PAGE}}{\\fldrslt number}} after}",
        document));
    EXPECT_EQ(document.toPlainText().toStdString(), "webmailfilenumber after");
    EXPECT_EQ(formatOf(document, "web").anchorHref(), QStringLiteral("https://orvane.example/a"));
    EXPECT_EQ(formatOf(document, "mail").anchorHref(), QStringLiteral("mailto:a@b.example"));
    EXPECT_FALSE(formatOf(document, "filenumber after").isAnchor());
}

TEST(RTFReader, SurvivesDeepNestingAndHugeNumbers)
{
    std::string deep = "{\\rtf1 ";
    for (int i = 0; i < 100'000; ++i)
        deep += "{\\b ";
    deep += "bottom";
    QTextDocument document;
    EXPECT_TRUE(read(deep, document));
    EXPECT_EQ(document.toPlainText(), QStringLiteral("bottom"));
    EXPECT_EQ(text("{\\rtf1\\fs99999999999999999999\\li-99999999999 x\\bin99999999999 y}").toStdString(), "x");
}

TEST(RTFReader, SurvivesEveryCutAndRandomBytes)
{
    const std::string whole =
        "{\\rtf1\\ansicpg1252{\\fonttbl{\\f0 A;}}{\\colortbl;\\red1;}\\b x\\u8364?\\'e9\\par"
        "{\\field{\\*\\fldinst{HYPERLINK \"https://a.example\"}}{\\fldrslt l}}{\\pntext\\bullet}y}";
    std::mt19937 random(7);
    for (std::size_t length = 6; length <= whole.size(); ++length) {
        QTextDocument document;
        EXPECT_TRUE(read(whole.substr(0, length), document));
        std::string changed = whole;
        for (int i = 0; i < 8; ++i)
            changed[5 + random() % (changed.size() - 5)] = static_cast<char>(random());
        EXPECT_TRUE(read(changed, document));
    }
}

TEST(RTFReader, TellsAFileThatCannotBeRead)
{
    QTextBrowser view;
    view.setPlainText(QStringLiteral("before"));
    EXPECT_FALSE(kf::readRTFDFromFile(&view, "/nonexistent/Help.rtf"_ns));
    EXPECT_FALSE(kf::readRTFDFromFile(&view, nullptr));
    EXPECT_EQ(view.toPlainText(), QStringLiteral("before"));
}

} // namespace
