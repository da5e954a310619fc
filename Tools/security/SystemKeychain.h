// The System keychain as the first of the places: what it trusts the others publish.
#pragma once

#include "Security/SecTrust.h"
#include "security/Record.h"
#include "security/TrustPlace.h"

namespace kf::security {

class SystemKeychain final : public TrustPlace {
public:
    std::string name() const override { return "System keychain"; }
    bool decides() const noexcept override { return true; }
    Outcome add(const Bytes& certificate) override;
    /// Writes another setting than that of a trusted root, in place of what was there.
    static Outcome set(const Bytes& certificate, SecTrustSettingsResult result);
    /// Takes the trust, and the certificate with it where we added it: one that
    /// stood there before us stays, without trust.
    Outcome remove(const Bytes& certificate) override;
    PlaceStatus status() const override;

    /// Remembers, before it is added, that a certificate comes from us; not one
    /// that is there already. Gives what went wrong.
    static std::string noteAddition(const Bytes& certificate);
};

} // namespace kf::security
