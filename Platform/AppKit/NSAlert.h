// Alerts.
#pragma once

#include "Foundation/NSFormat.h"
#include "Security/Presenter.h"

#include "AppKit/Selector.h"

class NSAlert;
class QWidget;

inline constexpr NSInteger NSAlertDefaultReturn = kf::alertDefaultReturn;
inline constexpr NSInteger NSAlertAlternateReturn = kf::alertAlternateReturn;
inline constexpr NSInteger NSAlertOtherReturn = kf::alertOtherReturn;

enum NSAlertStyle : NSUInteger {
    NSWarningAlertStyle = 0,
    NSInformationalAlertStyle = 1,
    NSCriticalAlertStyle = 2,
};

/// Whom an alert asks about its help button.
class NSAlertDelegate {
public:
    virtual ~NSAlertDelegate();
    /// The help button was pressed; the alert stays open. True where help was shown.
    virtual bool alertShowHelp(NSAlert* alert) = 0;
};

/// A question with up to three buttons. Main thread.
class NSAlert final : public NSObject {
public:
    /// The first button is the default one, which Return presses. A nil default
    /// button reads "OK"; a nil alternate or other button is left out.
    template <class... Arguments>
    static Ref<NSAlert> alertWithMessageText(const Ref<NSString>& message, const Ref<NSString>& defaultButton,
        const Ref<NSString>& alternateButton, const Ref<NSString>& otherButton,
        std::string_view informativeTextWithFormat, const Arguments&... arguments)
    {
        return create(message, defaultButton, alternateButton, otherButton,
            NSStringWithFormat(informativeTextWithFormat, arguments...));
    }

    /// Borrowed; null for none.
    void setDelegate(NSAlertDelegate* delegate) noexcept { delegate_ = delegate; }
    void setShowsHelp(bool showsHelp) noexcept { showsHelp_ = showsHelp; }
    void setAlertStyle(NSAlertStyle style) noexcept { style_ = style; }

    /// Asks through the process's presenter and gives the button's code. Without
    /// a presenter: NSAlertDefaultReturn. Only a press of the alternate button
    /// itself gives NSAlertAlternateReturn.
    NSInteger runModal();
    /// Shows the alert on `window` and returns at once; the alert keeps itself
    /// until it is answered. `didEndSelector` may be empty; it gets the button's
    /// code as an NSNumber. Nothing happens where `window` is null.
    void beginSheetModalForWindow(QWidget* window, const kf::Selector& didEndSelector);

    /// What the presenter is asked.
    kf::AlertQuestion question();

    const char* className() const noexcept override { return "NSAlert"; }

private:
    static Ref<NSAlert> create(const Ref<NSString>& message, const Ref<NSString>& defaultButton,
        const Ref<NSString>& alternateButton, const Ref<NSString>& otherButton, const Ref<NSString>& informativeText);
    NSAlert() = default;

    Ref<NSString> messageText_;
    Ref<NSString> informativeText_;
    Ref<NSString> defaultButton_;
    Ref<NSString> alternateButton_;
    Ref<NSString> otherButton_;
    NSAlertDelegate* delegate_ = nullptr;
    NSAlertStyle style_ = NSWarningAlertStyle;
    bool showsHelp_ = false;
};
