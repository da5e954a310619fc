#include "KFWizard/WizardWindow.h"

#include "AppKit/Looks.h"
#include "AppKit/Text.h"
#include "KFWizard/KFWizardPane.h"
#include "KFWizard/PageArea.h"

#include <QCloseEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QStackedWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace kf {

namespace {

constexpr int margin = 24;
constexpr QSize smallestSize(640, 520);
constexpr int widthInLetters = 84;
constexpr int heightInLines = 30;

QLabel* textLabel(const char* name)
{
    auto* label = new QLabel;
    label->setObjectName(QLatin1String(name));
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    return label;
}

QFrame* rule()
{
    auto* line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    line->setForegroundRole(QPalette::Midlight);
    return line;
}

} // namespace

WizardWindow::WizardWindow(QWidget* parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("wizard"));
    setWindowTitle(QStringLiteral("Keyfold"));
    setWindowFlag(Qt::WindowMinimizeButtonHint);
    setWindowFlag(Qt::WindowContextHelpButtonHint, false);
    fitToFont();

    stack_ = new QStackedWidget;
    auto* body = new QVBoxLayout;
    body->setContentsMargins(0, margin, 0, margin);
    body->addWidget(stack_);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(makeHeader());
    layout->addWidget(rule());
    layout->addLayout(body, 1);
    layout->addWidget(rule());
    layout->addLayout(makeFooter());
    shapeTexts(*this);
}

// Room for the same text whatever the font, as far as the screen has it.
void WizardWindow::fitToFont()
{
    const QSize wanted(fontMetrics().averageCharWidth() * widthInLetters, fontMetrics().lineSpacing() * heightInLines);
    resize(wanted.expandedTo(smallestSize).boundedTo(screen()->availableSize()));
}

void WizardWindow::growForPage()
{
    const auto* area = qobject_cast<PageArea*>(stack_->currentWidget());
    if (!area || isMaximized() || isFullScreen())
        return;
    const int most = std::max(height(), screen()->availableSize().height());
    resize(width(), std::min(height() + area->missingHeight(), most));
}

WizardWindow::~WizardWindow()
{
    // A page takes its view with it, out of a stack that still stands.
    sections_.clear();
}

QLayout* WizardWindow::makeHeader()
{
    titleLabel_ = textLabel("titleLabel");
    QFont font = titleLabel_->font();
    font.setPointSizeF(font.pointSizeF() * 1.6);
    font.setBold(true);
    titleLabel_->setFont(font);
    auto* header = new QVBoxLayout;
    header->setContentsMargins(margin, 20, margin, 16);
    header->addWidget(titleLabel_);
    return header;
}

QLayout* WizardWindow::makeFooter()
{
    messageField_ = textLabel("messageField");
    QFont font = messageField_->font();
    font.setBold(true);
    messageField_->setFont(font);
    messageField_->setAccessibleDescription(tr("Summary"));

    activityLabel_ = textLabel("activityLabel");
    activityLabel_->setVisible(false);
    progressIndicator_ = new QProgressBar;
    progressIndicator_->setObjectName(QStringLiteral("progressIndicator"));
    progressIndicator_->setAccessibleName(tr("Progress"));
    progressIndicator_->setTextVisible(false);
    progressIndicator_->setMaximumHeight(10);
    // The line above the buttons stays where it is, from page to page.
    QSizePolicy policy = progressIndicator_->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    progressIndicator_->setSizePolicy(policy);
    progressIndicator_->setVisible(false);

    helpButton_ = new QPushButton(tr("Help"));
    helpButton_->setObjectName(QStringLiteral("helpButton"));
    helpButton_->setAutoDefault(false);
    previousButton_ = new QPushButton(tr("Previous"));
    previousButton_->setObjectName(QStringLiteral("previousButton"));
    previousButton_->setAutoDefault(false);
    nextButton_ = new QPushButton(tr("Next"));
    nextButton_->setObjectName(QStringLiteral("nextButton"));
    nextButton_->setDefault(true);
    connect(helpButton_, &QPushButton::clicked, this, [this] {
        if (current_)
            current_->showHelp(helpButton_);
    });
    connect(previousButton_, &QPushButton::clicked, this, &WizardWindow::goPrevious);
    connect(nextButton_, &QPushButton::clicked, this, &WizardWindow::goNext);

    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    buttons->addWidget(helpButton_);
    buttons->addStretch(1);
    buttons->addWidget(previousButton_);
    buttons->addWidget(nextButton_);

    auto* footer = new QVBoxLayout;
    footer->setContentsMargins(margin, 16, margin, 16);
    footer->setSpacing(12);
    footer->addWidget(messageField_);
    footer->addWidget(activityLabel_);
    footer->addWidget(progressIndicator_);
    footer->addLayout(buttons);
    return footer;
}

KFWizardSection* WizardWindow::addSection()
{
    sections_.push_back(std::make_unique<KFWizardSection>());
    KFWizardSection* section = sections_.back().get();
    connect(section, &KFWizardSection::changed, this, &WizardWindow::updateButtons);
    return section;
}

std::vector<KFWizardPane*> WizardWindow::panes() const
{
    std::vector<KFWizardPane*> all;
    for (const auto& section : sections_) {
        for (const auto& pane : section->panes())
            all.push_back(pane.get());
    }
    return all;
}

KFWizardPane* WizardWindow::firstPane() const
{
    const std::vector<KFWizardPane*> all = panes();
    return all.empty() ? nullptr : all.front();
}

KFWizardPane* WizardWindow::nextPane() const
{
    const std::vector<KFWizardPane*> all = panes();
    const auto here = std::find(all.begin(), all.end(), current_);
    if (here == all.end() || here + 1 == all.end())
        return nullptr;
    KFWizardPane* next = *(here + 1);
    const bool ends = current_->section()->isFinalSection() && next->section() != current_->section();
    return ends ? nullptr : next;
}

KFWizardPane* WizardWindow::previousPane() const
{
    const std::vector<KFWizardPane*> all = panes();
    const auto here = std::find(all.begin(), all.end(), current_);
    if (here == all.end() || here == all.begin())
        return nullptr;
    KFWizardPane* previous = *(here - 1);
    const bool leavesSection = previous->section() != current_->section();
    const bool committed = current_->section()->isCommitSection() || previous->section()->isCommitSection();
    return leavesSection && committed ? nullptr : previous;
}

void WizardWindow::goNext()
{
    if (!current_ || entering_ || !current_->shouldExitPane(KFWizardForward))
        return;
    if (KFWizardPane* next = nextPane()) {
        enter(next, KFWizardForward);
        return;
    }
    current_->didExitPane(KFWizardForward);
    close();
}

void WizardWindow::goPrevious()
{
    if (!current_ || entering_ || !current_->shouldExitPane(KFWizardBackward))
        return;
    if (KFWizardPane* previous = previousPane())
        enter(previous, KFWizardBackward);
}

void WizardWindow::goToPane(KFWizardPane* pane)
{
    if (!entering_)
        enter(pane, KFWizardForward);
}

void WizardWindow::enter(KFWizardPane* pane, NSInteger direction)
{
    entering_ = true;
    if (current_)
        current_->didExitPane(direction);
    current_ = pane;
    pane->setHost(this);
    showPage(pane->contentView(), toQString(pane->title()));
    messageField_->clear();
    helpButton_->setVisible(pane->showsHelp());
    nextEnabled_ = previousEnabled_ = true;
    updateButtons();
    pane->didEnterPane(direction);
    entering_ = false;
    updateButtons();
    if (std::exchange(closeRequested_, false))
        close();
}

void WizardWindow::showPage(QWidget* page, const QString& title)
{
    titleLabel_->setText(title);
    for (int index = 0; index < stack_->count(); ++index) {
        if (qobject_cast<PageArea*>(stack_->widget(index))->widget() == page) {
            stack_->setCurrentIndex(index);
            return;
        }
    }
    shapeTexts(*page);
    auto* area = new PageArea(page, margin);
    area->setAccessibleName(title);
    // Queued: a page that is being laid out is not the moment to resize the window around it.
    connect(area, &PageArea::needsHeight, this, &WizardWindow::growForPage, Qt::QueuedConnection);
    stack_->addWidget(area);
    stack_->setCurrentWidget(area);
}

void WizardWindow::updateButtons()
{
    if (!current_)
        return;
    nextButton_->setEnabled(nextEnabled_);
    nextButton_->setText(nextPane() ? tr("Next") : tr("Close"));
    previousButton_->setEnabled(previousEnabled_ && previousPane());
}

void WizardWindow::setNextEnabled(bool enabled)
{
    nextEnabled_ = enabled;
    updateButtons();
}

void WizardWindow::setPreviousEnabled(bool enabled)
{
    previousEnabled_ = enabled;
    updateButtons();
}

void WizardWindow::runJob(const BackgroundJob& job, const Ref<NSString>& displayMessage)
{
    if (runner_.isBusy()) {
        runner_.run(job); // refuses, and says so
        return;
    }
    activityLabel_->setText(toQString(displayMessage));
    activityLabel_->setVisible(displayMessage && displayMessage->length() > 0);
    runner_.run(job);
    activityLabel_->clear();
    activityLabel_->setVisible(false);
}

void WizardWindow::reject()
{
    // Escape closes dialogs; a wizard half-way is no place to drop out of by a slip.
}

void WizardWindow::closeEvent(QCloseEvent* event)
{
    // Both jobs of a page belong together: the window waits for the page, not for the job.
    if (entering_ || runner_.isBusy()) {
        closeRequested_ = true;
        giveUpQuestions();
        event->ignore();
        return;
    }
    event->accept();
}

} // namespace kf
