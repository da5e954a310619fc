// The last page: what was installed, as the stores themselves tell it.
#pragma once

#include "KFWizard/KFWizardPane.h"
#include "keyfold/Report.h"

namespace kf {

/// Reads every store anew when it is entered. Object names of its texts: "personalReport", "authorityReport",
/// "usedByReport", "notUsedByReport".
class EndPane final : public KFWizardPane {
    Q_OBJECT
public:
    /// `authorityFile`: the institution's authority, DER. `tool` tells the browsers' policies.
    EndPane(std::string authorityFile, QString tool);

    Ref<NSString> title() const override;
    void didEnterPane(NSInteger direction) override;

private:
    QLabel* addPart(QLayout* layout, const QString& heading, const char* name);
    Bytes personalCertificate() const;

    std::string authorityFile_;
    QString tool_;
    QLabel* personal_ = nullptr;
    QLabel* authority_ = nullptr;
    QLabel* usedBy_ = nullptr;
    QLabel* notUsedBy_ = nullptr;
};

} // namespace kf
