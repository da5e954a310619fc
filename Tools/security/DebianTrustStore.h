// The trust store of Debian and its kin: update-ca-certificates.
#pragma once

#include "security/TrustStore.h"

#include <chrono>

namespace kf::security {

/// One PEM file in the local administrator's directory becomes a part of the
/// bundle, and a pair of links in the hashed directory, when the distribution's
/// command runs.
class DebianTrustStore final : public TrustStore {
public:
    struct Places {
        std::string anchors = "/usr/local/share/ca-certificates";
        std::string hashedDirectory = "/etc/ssl/certs";
        std::string bundle = "/etc/ssl/certs/ca-certificates.crt";
        std::string command = "/usr/sbin/update-ca-certificates";
        std::string lock = "/run/keyfold-trust-store.lock";
        std::chrono::seconds patience{60}; ///< with another program that holds the lock
    };
    explicit DebianTrustStore(Places places);

    static bool isHere();

    std::string name() const override { return "distribution's trust store"; }
    Outcome add(const Bytes& certificate) override;
    Outcome remove(const Bytes& certificate) override;

    /// The anchor's file: "keyfold-NAME-DIGEST.crt" of [a-z0-9-].
    std::string anchorPath(const Bytes& certificate) const;

private:
    bool bundleHolds(const Bytes& certificate) const;
    Outcome update() const;
    void removeLinks(const std::string& anchor) const;

    Places places_;
};

} // namespace kf::security
