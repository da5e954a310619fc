#include "Security/Keychain/KeptBundle.h"

#include <algorithm>
#include <mutex>

namespace kf::keychain {

namespace {

struct Kept {
    Digest data{};
    SecretBytes passphrase;
    Result<Bundle> bundle;
};

struct Place {
    std::mutex mutex;
    std::optional<Kept> kept;

    /// Whatever was there is wiped by whoever lets go of it, outside the lock.
    std::optional<Kept> exchange(std::optional<Kept> other)
    {
        const std::lock_guard lock(mutex);
        std::swap(kept, other);
        return other;
    }
};

/// Never destroyed: an import may still run when main() ends.
Place& place()
{
    static auto* const instance = new Place;
    return *instance;
}

} // namespace

void keepBundle(std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase, Result<Bundle> bundle)
{
    place().exchange(Kept{sha256(data), {passphrase.begin(), passphrase.end()}, std::move(bundle)});
}

std::optional<Result<Bundle>> takeKeptBundle(
    std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase)
{
    auto kept = place().exchange(std::nullopt);
    if (!kept || kept->data != sha256(data) || !std::ranges::equal(kept->passphrase, passphrase))
        return std::nullopt;
    return std::move(kept->bundle);
}

Result<Bundle> readBundleOnce(std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase)
{
    if (auto kept = takeKeptBundle(data, passphrase))
        return std::move(*kept);
    return readBundle(data, passphrase);
}

void forgetKeptBundle() { place().exchange(std::nullopt); }

} // namespace kf::keychain
