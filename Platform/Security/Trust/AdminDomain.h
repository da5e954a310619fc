// The admin domain, for a process that is no administrator.
#pragma once

#include "Security/Keychain/KeychainAccess.h"

namespace kf::trust {

/// Has the privileged tool write a certificate's trust into the System keychain
/// and publish it; blocks until the tool has ended. It takes the right that this
/// process was granted and that is remembered, and asks nobody for it: without
/// it errAuthorizationDenied, at once. For a certificate that is not the
/// deployment's own authority a person is asked all the same. The tool writes
/// one kind of trust, for servers and e-mail as an anchor: errAuthorizationDenied
/// for any other. Further errors are those of the tool's launch, and
/// errAuthorizationToolEnvironmentError where it ran and the trust is not there.
Status writeAdminTrust(std::span<const std::uint8_t> certificate, const keychain::Trust& trust);

/// The same for taking the trust out, here and where it was published. A
/// certificate that the tool had put into the System keychain leaves it too.
/// errSecItemNotFound without trust.
Status removeAdminTrust(std::span<const std::uint8_t> certificate);

} // namespace kf::trust
