#include "Security/Presenter.h"

#include <atomic>

namespace kf {

namespace {
std::atomic<Presenter*> currentPresenter{nullptr};
}

Presenter::~Presenter() = default;

Presenter* Presenter::current() noexcept { return currentPresenter.load(); }

Presenter* Presenter::setCurrent(Presenter* presenter) noexcept { return currentPresenter.exchange(presenter); }

} // namespace kf
