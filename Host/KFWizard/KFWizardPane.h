// The base class of a wizard's pages.
#pragma once

#include "AppKit/NSAlert.h"
#include "AppKit/Selector.h"
#include "Foundation/NSBundle.h"
#include "KFWizard/InterfaceFile.h"
#include "KFWizard/PaneHost.h"

#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QWidget>

#include <atomic>

class KFWizardSection;

/// The direction of travel that a page is told.
inline constexpr NSInteger KFWizardForward = 1;
inline constexpr NSInteger KFWizardBackward = -1;

/// One page. Main thread, but for showMessage, showError, valueForField and
/// setValue, which jobs may call from their thread. Before a page is in a
/// wizard, what it asks of the wizard does nothing or is nil.
class KFWizardPane : public QObject {
    Q_OBJECT
public:
    KFWizardPane();
    ~KFWizardPane() override;

    // What the wizard asks of a page.

    virtual Ref<NSString> title() const = 0;
    /// The interface file is loaded and its outlets are connected.
    virtual void awakeFromNib();
    virtual void didEnterPane(NSInteger direction);
    virtual void didExitPane(NSInteger direction);
    /// False keeps the person on the page, which then says why.
    virtual bool shouldExitPane(NSInteger direction);
    virtual bool showsHelp() const;
    virtual void showHelp(QObject* sender);
    /// Shows an alert on the page's window and returns at once.
    virtual void showAlertOnMainThread(const Ref<NSAlert>& alert);

    /// Loads the page's view from its interface file among the resources of
    /// `bundle`, connects the outlets and sends awakeFromNib.
    /// False, and `*problem` says why, where the file is missing or broken or
    /// lacks an outlet; the page is unusable then.
    bool loadInterface(const Ref<NSBundle>& bundle, QString* problem);

    /// Name of the interface file, without ".ui": that of the class.
    virtual QString interfaceName() const;

    // What a page asks of the wizard.

    void setNextEnabled(bool enabled);
    void setPreviousEnabled(bool enabled);
    KFWizardSection* section() const noexcept { return section_; }
    QWidget* contentView() const noexcept { return contentView_; }
    /// The field that later messages go to; the page's choice lasts until the next.
    void setActiveMessageField(QLabel* field) noexcept { activeMessageField_ = field; }
    /// Shows a text in the field that is active now; it is shown when the call
    /// returns. Any thread.
    void showMessage(const Ref<NSString>& message);
    /// The same for errors.
    void showError(const Ref<NSString>& message);
    QLabel* messageField() const;
    QProgressBar* progressIndicator() const;
    /// Runs a job on the job thread and returns when it has ended. The target
    /// is bound in the selector. A timeout below zero is no limit.
    void performBackgroundSelector(const kf::Selector& selector, const Ref<NSObject>& object,
        const Ref<NSString>& displayMessage, QProgressBar* progressIndicator, double timeout);
    /// A value of the wizard's field store, or nil. Any thread.
    Ref<NSObject> valueForField(const Ref<NSString>& key) const;
    /// Stores a value; nil clears. Any thread.
    void setValue(const Ref<NSObject>& value, const Ref<NSString>& forField);

    /// The wizard around the page (borrowed), or null.
    void setHost(kf::PaneHost* host) noexcept { host_ = host; }

Q_SIGNALS:
    /// A message was shown.
    void messageShown(QLabel* field, const QString& message, bool isError);

protected:
    /// Views of the page's own classes, which interface files name; null for
    /// a class that the page does not have.
    virtual QWidget* createView(const QString& className, QWidget* parent);
    /// Takes the views that the page works with out of the interface file.
    virtual void connectOutlets(kf::Outlets& outlets);
    /// For pages that make their view themselves. The page owns it until a wizard shows it.
    void setContentView(QWidget* view);

private:
    friend class KFWizardSection;
    void show(const Ref<NSString>& message, bool isError);

    std::unique_ptr<QWidget> interface_;
    QPointer<QWidget> contentView_;
    KFWizardSection* section_ = nullptr;
    std::atomic<kf::PaneHost*> host_ = nullptr;
    std::atomic<QLabel*> activeMessageField_ = nullptr;
};
