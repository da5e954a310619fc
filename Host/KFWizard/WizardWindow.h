// The wizard's window.
#pragma once

#include "KFWizard/KFWizardSection.h"
#include "KFWizard/PaneHost.h"

#include <QDialog>

class QLabel;
class QPushButton;
class QStackedWidget;

namespace kf {

/// Shows one page at a time and leads through the sections in their order.
/// Object names: "titleLabel", "messageField", "activityLabel",
/// "progressIndicator", "helpButton", "previousButton", "nextButton".
///
/// Closing while a job runs waits until the page is done.
class WizardWindow final : public QDialog, public PaneHost {
    Q_OBJECT
public:
    explicit WizardWindow(QWidget* parent = nullptr);
    ~WizardWindow() override;

    /// Adds a section at the end; the window owns it. Pages are added to it
    /// before they are shown.
    KFWizardSection* addSection();

    /// Null while there is no page.
    KFWizardPane* firstPane() const;
    KFWizardPane* currentPane() const noexcept { return current_; }
    /// Leaves the current page and enters another one, whatever stands between
    /// them: for the program. What a person may do, goNext and goPrevious decide.
    void goToPane(KFWizardPane* pane);
    void goNext();
    void goPrevious();

    void setNextEnabled(bool enabled) override;
    void setPreviousEnabled(bool enabled) override;
    QLabel* messageField() override { return messageField_; }
    QProgressBar* progressIndicator() override { return progressIndicator_; }
    FieldStore& fields() override { return fields_; }
    void runJob(const BackgroundJob& job, const Ref<NSString>& displayMessage) override;

    void reject() override;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void fitToFont();
    void growForPage();
    QLayout* makeHeader();
    QLayout* makeFooter();
    std::vector<KFWizardPane*> panes() const;
    KFWizardPane* nextPane() const;
    KFWizardPane* previousPane() const;
    void enter(KFWizardPane* pane, NSInteger direction);
    void showPage(QWidget* page, const QString& title);
    void updateButtons();

    FieldStore fields_;
    BackgroundRunner runner_;
    std::vector<std::unique_ptr<KFWizardSection>> sections_;
    KFWizardPane* current_ = nullptr;
    bool nextEnabled_ = true;
    bool previousEnabled_ = true;
    bool entering_ = false;
    bool closeRequested_ = false;

    QLabel* titleLabel_ = nullptr;
    QStackedWidget* stack_ = nullptr;
    QLabel* messageField_ = nullptr;
    QLabel* activityLabel_ = nullptr;
    QProgressBar* progressIndicator_ = nullptr;
    QPushButton* helpButton_ = nullptr;
    QPushButton* previousButton_ = nullptr;
    QPushButton* nextButton_ = nullptr;
};

} // namespace kf
