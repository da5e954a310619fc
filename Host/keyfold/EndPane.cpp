#include "keyfold/EndPane.h"

#include "Foundation/NSData.h"
#include "Security/SecIdentity.h"

#include <QVBoxLayout>

namespace kf {

namespace {

void fill(QLabel* label, const QStringList& lines)
{
    label->setText(lines.join(u'\n'));
    label->parentWidget()->setVisible(!lines.isEmpty());
}

QStringList bulleted(QStringList lines)
{
    for (QString& line : lines)
        line.prepend(QStringLiteral("•\u00a0"));
    return lines;
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

QLabel* EndPane::addPart(QLayout* layout, const QString& heading, const char* name)
{
    auto* part = new QWidget;
    auto* lines = new QVBoxLayout(part);
    lines->setContentsMargins(0, 0, 0, 0);
    lines->setSpacing(4);
    auto* title = new QLabel(heading);
    QFont font = title->font();
    font.setBold(true);
    title->setFont(font);
    auto* text = new QLabel;
    text->setObjectName(QLatin1String(name));
    text->setAccessibleDescription(heading);
    text->setTextFormat(Qt::PlainText);
    text->setWordWrap(true);
    text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    lines->addWidget(title);
    lines->addWidget(text);
    part->setVisible(false);
    layout->addWidget(part);
    return text;
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
    fill(personal_, report.personal);
    fill(authority_, report.authority);
    fill(usedBy_, bulleted(report.usedBy));
    fill(notUsedBy_, bulleted(report.notUsedBy));
    setNextEnabled(true);
}

} // namespace kf
