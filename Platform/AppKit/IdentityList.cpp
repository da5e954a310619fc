#include "AppKit/IdentityList.h"

#include "AppKit/Text.h"

#include <QApplication>
#include <QDateTime>
#include <QLocale>
#include <QPainter>
#include <QScreen>
#include <QStyledItemDelegate>
#include <QTextLayout>

#include <algorithm>

namespace kf {

namespace {

constexpr int detailsRole = Qt::UserRole;
/// Whether the last of the details is a warning.
constexpr int warningRole = Qt::UserRole + 1;

/// Longer than any honest text; a hostile one must not fill the screen.
constexpr int longestText = 200;

/// Whoever made the certificate chose its texts: no line breaks, no controls, none that would turn the order of
/// characters around. The joiners stay, for scripts that cannot be written without them.
QString harmless(const Ref<NSString>& string)
{
    QString text = toQString(string).simplified();
    text.removeIf([](QChar character) {
        const bool isJoiner = character == QChar(0x200C) || character == QChar(0x200D);
        return !isJoiner
            && (character.category() == QChar::Other_Format || character.category() == QChar::Other_Control);
    });
    if (text.size() <= longestText)
        return text;
    return text.left(text.at(longestText - 1).isHighSurrogate() ? longestText - 1 : longestText) + QChar(0x2026);
}

/// A text inside a sentence, whatever way it is written (Unicode TR 9, isolates).
QString isolated(const QString& text) { return QChar(0x2068) + text + QChar(0x2069); }

QString dateText(std::int64_t secondsSinceEpoch)
{
    return QLocale().toString(QDateTime::fromSecsSinceEpoch(secondsSinceEpoch).date(), QStringLiteral("d MMMM yyyy"));
}

QString translated(const char* text) { return QCoreApplication::translate("IdentityList", text); }

QString validityText(const IdentityChoice& choice)
{
    const std::int64_t now = QDateTime::currentSecsSinceEpoch();
    if (choice.notAfter < now)
        return translated("Expired on %1").arg(dateText(choice.notAfter));
    if (choice.notBefore > now)
        return translated("Not valid before %1").arg(dateText(choice.notBefore));
    return translated("Expires on %1").arg(dateText(choice.notAfter));
}

QStringList detailsOf(const IdentityChoice& choice)
{
    QStringList details;
    if (const QString addresses = harmless(choice.emailAddresses); !addresses.isEmpty())
        details << addresses;
    if (const QString issuer = harmless(choice.issuer); !issuer.isEmpty())
        details << translated("Issued by %1").arg(isolated(issuer));
    details << validityText(choice);
    return details;
}

/// Where things stand in a row, in units of the font's height.
struct Measures {
    explicit Measures(const QFontMetrics& metrics)
        : padding(metrics.height() / 2), icon(2 * metrics.height()), gap(metrics.height() / 8)
    {
    }
    int textWidth(int rowWidth) const { return std::max(rowWidth - icon - 3 * padding, icon); }

    int padding;
    int icon;
    int gap;
};

struct Line {
    QString text;
    bool isStrong;
    bool isName;
};

std::vector<Line> linesOf(const QModelIndex& index)
{
    const QStringList details = index.data(detailsRole).toStringList();
    std::vector<Line> lines = {{index.data(Qt::DisplayRole).toString(), true, true}};
    for (const QString& text : details)
        lines.push_back({text, false, false});
    lines.back().isStrong = index.data(warningRole).toBool();
    return lines;
}

/// Breaks a text into lines, between words where it can. Text of either direction begins where the list's does.
void layOut(QTextLayout& layout, const Line& line, QFont font, Qt::LayoutDirection direction, int width)
{
    font.setBold(line.isStrong);
    layout.setFont(font);
    layout.setText(line.text);
    QTextOption option(
        direction == Qt::RightToLeft ? Qt::AlignRight | Qt::AlignAbsolute : Qt::AlignLeft | Qt::AlignAbsolute);
    option.setTextDirection(line.text.isRightToLeft() ? Qt::RightToLeft : Qt::LeftToRight);
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.beginLayout();
    qreal height = 0;
    for (QTextLine part = layout.createLine(); part.isValid(); part = layout.createLine()) {
        part.setLineWidth(width);
        part.setPosition({0, height});
        height += part.height();
    }
    layout.endLayout();
}

int heightOf(const QTextLayout& layout) { return qCeil(layout.boundingRect().height()); }

int rowHeight(const QModelIndex& index, const QFont& font, int width)
{
    const Measures measures{QFontMetrics(font)};
    int height = 0;
    for (const Line& line : linesOf(index)) {
        QTextLayout layout;
        layOut(layout, line, font, Qt::LeftToRight, measures.textWidth(width));
        height += heightOf(layout) + (line.isName ? 0 : measures.gap);
    }
    return std::max(height, measures.icon) + 2 * measures.padding;
}

QColor blend(const QColor& a, const QColor& b, double share)
{
    return QColor::fromRgbF(static_cast<float>(a.redF() * share + b.redF() * (1 - share)),
        static_cast<float>(a.greenF() * share + b.greenF() * (1 - share)),
        static_cast<float>(a.blueF() * share + b.blueF() * (1 - share)));
}

/// A certificate: a sheet with lines of text and a seal.
void drawIcon(QPainter& painter, const QRectF& place, const QColor& ink, const QColor& paper)
{
    const qreal unit = place.height() / 16;
    const auto at = [&](qreal x, qreal y, qreal width, qreal height) {
        return QRectF(place.x() + x * unit, place.y() + y * unit, width * unit, height * unit);
    };
    painter.setPen(QPen(ink, unit));
    painter.setBrush(paper);
    painter.drawRoundedRect(at(1, 2, 14, 10.5), unit, unit);
    painter.drawLine(at(3.5, 5, 0, 0).topLeft(), at(12.5, 5, 0, 0).topLeft());
    painter.drawLine(at(3.5, 7.5, 0, 0).topLeft(), at(8, 7.5, 0, 0).topLeft());
    painter.setPen(Qt::NoPen);
    painter.setBrush(ink);
    painter.drawPolygon(QPolygonF({at(9.4, 10, 0, 0).topLeft(), at(9.4, 15.5, 0, 0).topLeft(),
        at(11, 14.2, 0, 0).topLeft(), at(12.6, 15.5, 0, 0).topLeft(), at(12.6, 10, 0, 0).topLeft()}));
    painter.setPen(QPen(paper, unit * 0.8));
    painter.drawEllipse(at(8.6, 7.1, 4.8, 4.8));
}

bool isValidNow(const IdentityChoice& choice)
{
    const std::int64_t now = QDateTime::currentSecsSinceEpoch();
    return choice.notBefore <= now && now <= choice.notAfter;
}

QListWidgetItem* makeItem(const IdentityChoice& choice)
{
    const QString name = harmless(choice.name);
    const QStringList details = detailsOf(choice);
    auto* item = new QListWidgetItem(name.isEmpty() ? translated("Certificate without a name") : name);
    item->setData(detailsRole, details);
    item->setData(warningRole, !isValidNow(choice));
    item->setData(Qt::AccessibleTextRole, item->text());
    item->setData(Qt::AccessibleDescriptionRole, details.join(QStringLiteral(", ")));
    return item;
}

class Delegate final : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        const auto* const view = qobject_cast<const QAbstractItemView*>(option.widget);
        const int width = view ? view->viewport()->width() : option.rect.width();
        return {width, rowHeight(index, option.font, width)};
    }

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        QStyleOptionViewItem row = option;
        initStyleOption(&row, index);
        row.text.clear();
        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        // The style draws background, selection and focus.
        const QStyle* const style = row.widget ? row.widget->style() : QApplication::style();
        style->drawControl(QStyle::CE_ItemViewItem, &row, painter, row.widget);
        drawContent(*painter, row, linesOf(index));
        painter->restore();
    }

private:
    static void drawContent(QPainter& painter, const QStyleOptionViewItem& row, const std::vector<Line>& lines)
    {
        const bool isSelected = row.state.testFlag(QStyle::State_Selected);
        const auto group = row.state.testFlag(QStyle::State_Active) ? QPalette::Active : QPalette::Inactive;
        const QColor ink = row.palette.color(group, isSelected ? QPalette::HighlightedText : QPalette::Text);
        const QColor paper = row.palette.color(group, isSelected ? QPalette::Highlight : QPalette::Base);
        const Measures measures(row.fontMetrics);

        const QRect inner = row.rect.adjusted(measures.padding, measures.padding, -measures.padding, -measures.padding);
        const QRect icon(inner.topLeft(), QSize(measures.icon, measures.icon));
        drawIcon(painter, QStyle::visualRect(row.direction, inner, icon), blend(ink, paper, 0.75), paper);

        const int width = measures.textWidth(row.rect.width());
        const QRect text = QStyle::visualRect(row.direction, inner,
            QRect(inner.x() + measures.icon + measures.padding, inner.y(), width, inner.height()));
        int y = text.y();
        for (const Line& line : lines) {
            QTextLayout layout;
            layOut(layout, line, row.font, row.direction, width);
            y += line.isName ? 0 : measures.gap;
            painter.setPen(line.isStrong || isSelected ? ink : blend(ink, paper, 0.8));
            layout.draw(&painter, QPointF(text.x(), y));
            y += heightOf(layout);
        }
    }
};

} // namespace

IdentityList::IdentityList(const std::vector<IdentityChoice>& choices, QWidget* parent) : QListWidget(parent)
{
    setItemDelegate(new Delegate(this));
    setWordWrap(true); // or a change of width would leave the rows as high as they were
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setAlternatingRowColors(true);
    for (const IdentityChoice& choice : choices)
        addItem(makeItem(choice));
    const auto valid = std::ranges::find_if(choices, isValidNow);
    setCurrentRow(valid == choices.end() ? 0 : static_cast<int>(valid - choices.begin()));
}

std::optional<std::size_t> IdentityList::selectedChoice() const
{
    const auto selected = selectedItems();
    if (selected.isEmpty())
        return std::nullopt;
    return static_cast<std::size_t>(row(selected.first()));
}

QSize IdentityList::sizeHint() const
{
    // As high as its rows, within reason; wide enough for an address.
    const int line = fontMetrics().height();
    const int width = 26 * line;
    int height = 0;
    for (int row = 0; row < count(); ++row)
        height += rowHeight(model()->index(row, 0), font(), width);
    return {width, std::min(height, 20 * line) + 2 * frameWidth()};
}

QSize IdentityList::minimumSizeHint() const
{
    return (QSize(12, 5) * fontMetrics().height()).boundedTo(screen()->availableSize() / 2);
}

} // namespace kf
