// OpenSSL, apart from what the rest of the process does with it.
#pragma once

#include "Security/ScopedOpenSSL.h"

#include <cstdint>
#include <span>

namespace kf {

/// A library context of its own, never freed: programs differ in the providers that they load, and in the settings that
/// they read. One for bundles, digests and chains, for setting up a second one takes longer than most work with it.
/// Any thread.
OSSL_LIB_CTX* libraryContext();

/// Has the context know the algorithms of old bundles too (RC2, RC4, single DES, MD4 and the like). They come from a
/// module of their own, which most bundles do without. Any thread.
void addOldAlgorithms();

/// A certificate decoded in that context, whatever its extensions say; null where the bytes begin with none. Any
/// thread.
ScopedX509 decodeCertificate(std::span<const std::uint8_t> der);

} // namespace kf
