// Loading a page from a bundle.
#pragma once

#include "Foundation/NSBundle.h"

#include <QString>

#include <memory>

class KFWizardPane;

namespace kf {

/// A bundle on its way to a page. Main thread. Code that has been loaded stays
/// for the program's life: Qt keeps hold of its classes.
class PlugIn {
public:
    enum class State {
        notLoaded,             ///< nothing was tried yet
        missing,               ///< there is no such bundle
        noCode,                ///< the bundle has no code for this system
        cannotBeLoaded,        ///< the code cannot be loaded
        noFactory,             ///< the code offers no page
        wrongInterfaceVersion, ///< the page was built for another wizard
        loaded,                ///< pages can be made
        paneFailed,            ///< the page could not be made of its interface file
    };

    explicit PlugIn(const QString& bundlePath);

    /// Loads the code, once; later calls give the same state.
    State load();
    /// Makes a page, loading the code where that has not been done. Null where
    /// that failed; state and reason then say why.
    std::unique_ptr<KFWizardPane> createPane();

    State state() const noexcept { return state_; }
    /// What failed, in words for the person; empty where nothing did.
    const QString& reason() const noexcept { return reason_; }
    const QString& bundlePath() const noexcept { return path_; }

private:
    State fail(State state, const QString& reason);

    QString path_;
    State state_ = State::notLoaded;
    QString reason_;
    Ref<NSBundle> bundle_;
    KFWizardPane* (*create_)() = nullptr;
};

} // namespace kf
