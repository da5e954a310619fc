// A list of identities to choose from.
#pragma once

#include "Security/Presenter.h"

#include <QListWidget>

namespace kf {

/// Shows of each identity a picture, its name, and e-mail addresses, issuer and
/// validity below it, each on as many lines as it needs. A screen reader hears
/// the name, and the rest as its description. Selected at first is the first
/// identity that is valid now, else the first one.
class IdentityList final : public QListWidget {
    Q_OBJECT
public:
    explicit IdentityList(const std::vector<IdentityChoice>& choices, QWidget* parent = nullptr);

    /// The place of the selected one; nothing for none.
    std::optional<std::size_t> selectedChoice() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;
};

} // namespace kf
