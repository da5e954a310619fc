#include "keyfold/EndPane.h"

#include "AppKit/Looks.h"
#include "Foundation/NSData.h"
#include "Security/SecIdentity.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

namespace kf {

namespace {

/// The dot before a line of a list, as high as the line; a picture, so that nobody has it read out.
class Bullet final : public QWidget {
public:
    explicit Bullet(QWidget* parent) : QWidget(parent)
    {
        setFixedSize(fontMetrics().height() / 2, fontMetrics().height());
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(palette().windowText());
        painter.drawEllipse(QRectF(rect()).center(), height() / 7.0, height() / 7.0);
    }
};

QLabel* textLabel(const QString& text, const QString& heading)
{
    auto* label = new QLabel(text);
    label->setAccessibleDescription(heading);
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

} // namespace

EndPane::EndPane(std::string authorityFile, QString tool)
    : authorityFile_(std::move(authorityFile)), tool_(std::move(tool))
{
    auto* view = new QWidget;
    view->setObjectName(QStringLiteral("endView"));
    auto* layout = new QVBoxLayout(view);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(16);
    personal_ = addPart(layout, tr("Your personal certificate"), "personalReport");
    authority_ = addPart(layout, tr("The certificate authority"), "authorityReport");
    usedBy_ = addPart(layout, tr("Programs that use them"), "usedByReport");
    notUsedBy_ = addPart(layout, tr("What is left to do"), "notUsedByReport");
    layout->addStretch(1);
    setContentView(view);
}

QWidget* EndPane::addPart(QLayout* layout, const QString& heading, const char* name)
{
    auto* part = new QWidget;
    part->setObjectName(QLatin1String(name));
    part->setAccessibleName(heading);
    auto* lines = new QVBoxLayout(part);
    lines->setContentsMargins(0, 0, 0, 0);
    lines->setSpacing(4);
    auto* title = new QLabel(heading);
    title->setObjectName(QStringLiteral("heading"));
    QFont font = title->font();
    font.setBold(true);
    title->setFont(font);
    lines->addWidget(title);
    part->setVisible(false);
    layout->addWidget(part);
    return part;
}

void EndPane::fill(QWidget* part, const QStringList& texts, bool isList)
{
    const auto former = part->findChildren<QWidget*>(QStringLiteral("line"), Qt::FindDirectChildrenOnly);
    qDeleteAll(former);
    for (const QString& text : texts) {
        auto* line = new QWidget;
        line->setObjectName(QStringLiteral("line"));
        auto* layout = new QHBoxLayout(line);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->setSpacing(8);
        if (isList)
            layout->addWidget(new Bullet(line), 0, Qt::AlignTop);
        layout->addWidget(textLabel(text, part->accessibleName()), 1);
        part->layout()->addWidget(line);
    }
    part->setVisible(!texts.isEmpty());
}

Ref<NSString> EndPane::title() const { return "What Was Installed"_ns; }

Bytes EndPane::personalCertificate() const
{
    SecCertificateRef certificate;
    CSSM_DATA data{};
    if (SecIdentityCopyCertificate(refCast<SecIdentity>(valueForField("UserSecIdentityRef"_ns)), &certificate)
            != errSecSuccess
        || SecCertificateGetData(certificate, &data) != errSecSuccess)
        return {};
    return {data.Data, data.Data + data.Length};
}

void EndPane::didEnterPane(NSInteger)
{
    setNextEnabled(false);
    Findings findings;
    const auto read = [&](const Ref<NSObject>&) {
        const Ref<NSData> authority = NSData::dataWithContentsOfFile(NSString::stringWithUTF8String(authorityFile_));
        findings = readStores(personalCertificate(), authority ? authority->span() : std::span<const std::uint8_t>(),
            authorityFile_, tool_);
    };
    performBackgroundSelector(
        {"readStores", read}, nullptr, "Looking at what was installed"_ns, progressIndicator(), -1.0);
    const Report report = makeReport(findings);
    fill(personal_, report.personal, false);
    fill(authority_, report.authority, false);
    fill(usedBy_, report.usedBy, true);
    fill(notUsedBy_, report.notUsedBy, true);
    shapeTexts(*contentView());
    setNextEnabled(true);
}

} // namespace kf
