// A page that only says something.
#pragma once

#include "KFWizard/KFWizardPane.h"

namespace kf {

/// Object name of the text: "pageText".
class TextPane final : public KFWizardPane {
    Q_OBJECT
public:
    TextPane(Ref<NSString> title, const QString& text);

    Ref<NSString> title() const override { return title_; }

private:
    Ref<NSString> title_;
};

} // namespace kf
