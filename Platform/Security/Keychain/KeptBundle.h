// A bundle that was looked at, kept for its import.
#pragma once

#include "Security/Keychain/PKCS12.h"

namespace kf::keychain {

/// Keeps what readBundle() made of these bytes and this pass phrase, a failure too, in place of what was kept before:
/// reading them again would take as long as the first time, seconds where the iteration counts are high. Any thread.
void keepBundle(std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase, Result<Bundle> bundle);

/// What is kept of these bytes and this pass phrase; nothing where it is another bundle's. Nothing is kept afterwards.
/// Any thread.
std::optional<Result<Bundle>> takeKeptBundle(
    std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase);

/// As readBundle(), from what is kept where that is it. Nothing is kept afterwards. Any thread.
Result<Bundle> readBundleOnce(std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase);

/// Wipes what is kept. Any thread.
void forgetKeptBundle();

} // namespace kf::keychain
