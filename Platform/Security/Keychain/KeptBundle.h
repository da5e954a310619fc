// A bundle that was looked at, kept for its import.
#pragma once

#include "Security/Keychain/PKCS12.h"

namespace kf::keychain {

/// Keeps what readBundle() made of these bytes and this pass phrase, in place of what was kept before. Opening a bundle
/// again would take as long as the first time, seconds where its iteration counts are high. Any thread.
void keepBundle(std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase, Bundle bundle);

/// What is kept of these bytes and this pass phrase; nothing where it is another bundle's. Nothing is kept afterwards.
/// Any thread.
std::optional<Bundle> takeKeptBundle(std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase);

/// Wipes what is kept. Any thread.
void forgetKeptBundle();

} // namespace kf::keychain
