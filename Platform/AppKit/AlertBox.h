// The window of an alert.
#pragma once

#include "Security/Presenter.h"

#include <QMessageBox>

namespace kf {

/// A message box for one question. Its buttons have the object names
/// "defaultButton", "alternateButton", "otherButton" and "helpButton".
class AlertBox final : public QMessageBox {
    Q_OBJECT
public:
    AlertBox(const AlertQuestion& question, QWidget* parent);

    /// The code of the button that closed the box; alertDefaultReturn for
    /// everything but a press of another button itself.
    NSInteger buttonCode() const;

private:
    void shapeLabels();
    QPushButton* add(const Ref<NSString>& title, QMessageBox::ButtonRole role, const char* name);

    QAbstractButton* alternate_ = nullptr;
    QAbstractButton* other_ = nullptr;
};

} // namespace kf
