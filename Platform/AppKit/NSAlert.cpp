#include "AppKit/NSAlert.h"

#include "AppKit/AlertBox.h"
#include "Foundation/NSNumber.h"

NSAlertDelegate::~NSAlertDelegate() = default;

Ref<NSAlert> NSAlert::create(const Ref<NSString>& message, const Ref<NSString>& defaultButton,
    const Ref<NSString>& alternateButton, const Ref<NSString>& otherButton, const Ref<NSString>& informativeText)
{
    Ref<NSAlert> alert = Ref<NSAlert>::adopt(new NSAlert);
    alert->messageText_ = message;
    alert->informativeText_ = informativeText;
    alert->defaultButton_ = defaultButton ? defaultButton : "OK"_ns;
    alert->alternateButton_ = alternateButton;
    alert->otherButton_ = otherButton;
    return alert;
}

kf::AlertQuestion NSAlert::question()
{
    kf::AlertQuestion question;
    question.messageText = messageText_;
    question.informativeText = informativeText_;
    question.defaultButton = defaultButton_;
    question.alternateButton = alternateButton_;
    question.otherButton = otherButton_;
    question.critical = style_ == NSCriticalAlertStyle;
    if (showsHelp_ && delegate_)
        question.help = [self = Ref<NSAlert>::retain(this)] {
            if (self->delegate_)
                self->delegate_->alertShowHelp(self.get());
        };
    return question;
}

NSInteger NSAlert::runModal()
{
    kf::Presenter* presenter = kf::Presenter::current();
    return presenter ? presenter->runAlert(question()) : NSAlertDefaultReturn;
}

void NSAlert::beginSheetModalForWindow(QWidget* window, const kf::Selector& didEndSelector)
{
    if (!window)
        return;
    auto* box = new kf::AlertBox(question(), window);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    QObject::connect(box, &QDialog::finished, box, [box, didEndSelector] {
        if (didEndSelector)
            didEndSelector.call(NSNumber::numberWithLong(box->buttonCode()));
    });
    box->open();
}
