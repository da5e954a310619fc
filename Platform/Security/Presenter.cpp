#include "Security/Presenter.h"

#include <atomic>

namespace kf {

namespace {
std::atomic<Presenter*> currentPresenter{nullptr};
}

Presenter::~Presenter() = default;

std::optional<std::size_t> Presenter::chooseIdentity(const IdentityQuestion&) { return std::nullopt; }

void Presenter::giveUp() { }

Presenter* Presenter::current() noexcept { return currentPresenter.load(); }

Presenter* Presenter::setCurrent(Presenter* presenter) noexcept { return currentPresenter.exchange(presenter); }

} // namespace kf
