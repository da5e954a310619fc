// The window in which a person chooses an identity.
#pragma once

#include "Security/Presenter.h"

#include <QDialog>

class QPushButton;

namespace kf {

class IdentityList;

/// Its list has the object name "identityList", its buttons "chooseButton" and
/// "alternateButton". Where there is nothing to choose from, "emptyLabel" says
/// so in the list's place. Confirming needs a selection.
class IdentityBox final : public QDialog {
    Q_OBJECT
public:
    IdentityBox(const IdentityQuestion& question, QWidget* parent);

    /// The place of the selected identity among the choices; nothing for none.
    std::optional<std::size_t> selectedChoice() const;

private:
    IdentityList* makeList(const IdentityQuestion& question);

    IdentityList* list_ = nullptr;
    QPushButton* choose_;
};

} // namespace kf
