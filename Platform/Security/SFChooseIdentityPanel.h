// The panel in which a person chooses one of several identities.
#pragma once

#include "Security/SecIdentity.h"

/// Asks through the process's presenter (Security/Presenter.h). One panel for
/// the process; one thread at a time, and the main thread where it may be shown.
class SFChooseIdentityPanel final : public NSObject {
public:
    static Ref<SFChooseIdentityPanel> sharedChooseIdentityPanel();

    /// Of the button that chooses nothing; nil: "Cancel".
    void setAlternateButtonTitle(const Ref<NSString>& title);

    /// Shows the identities and waits for the answer: 1 where one is confirmed,
    /// 0 for the alternate button, and at once where there is no presenter.
    /// What is in the array and no identity is left out.
    NSInteger runModalForIdentities(const Ref<NSArray>& identities, const Ref<NSString>& message);

    /// The identity that the last run confirmed; nil for none.
    const SecIdentityRef& identity() const noexcept { return identity_; }

    const char* className() const noexcept override { return "SFChooseIdentityPanel"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    SFChooseIdentityPanel() = default;
    ~SFChooseIdentityPanel() override;

    Ref<NSString> alternateButtonTitle_;
    SecIdentityRef identity_;
};
