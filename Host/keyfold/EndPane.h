// The last page: what was installed, as the stores themselves tell it.
#pragma once

#include "KFWizard/KFWizardPane.h"
#include "keyfold/Report.h"

namespace kf {

/// Reads every store anew when it is entered. Object names of its parts, each a heading and a label for each line:
/// "personalReport", "authorityReport", "usedByReport", "notUsedByReport".
class EndPane final : public KFWizardPane {
    Q_OBJECT
public:
    /// `authorityFile`: the institution's authority, DER. `tool` tells the browsers' policies.
    EndPane(std::string authorityFile, QString tool);

    Ref<NSString> title() const override;
    void didEnterPane(NSInteger direction) override;

private:
    static QWidget* addPart(QLayout* layout, const QString& heading, const char* name);
    static void fill(QWidget* part, const QStringList& texts, bool isList);
    Bytes personalCertificate() const;

    std::string authorityFile_;
    QString tool_;
    QWidget* personal_ = nullptr;
    QWidget* authority_ = nullptr;
    QWidget* usedBy_ = nullptr;
    QWidget* notUsedBy_ = nullptr;
};

} // namespace kf
