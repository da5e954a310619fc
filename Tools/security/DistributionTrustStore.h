// The distribution's own trust store, which curl, wget, git, Python and their like consult.
#pragma once

#include "security/TrustPlace.h"

#include <chrono>
#include <optional>
#include <set>
#include <string_view>

namespace kf::security {

/// One PEM file in the local administrator's directory becomes a part of the
/// bundle when the distribution's command runs.
class DistributionTrustStore final : public PublishedPlace {
public:
    /// How one family of distributions does it.
    struct Layout {
        std::string anchors;              ///< the administrator's directory
        std::string suffix;               ///< of the files there
        std::string bundle;               ///< what the command makes of them, PEM
        std::vector<std::string> command; ///< its words, the program by its absolute path
        /// Where the command leaves links behind after a removal; empty where it does not.
        std::string hashedDirectory;
        std::string lock = "/run/keyfold-trust-store.lock";
        std::chrono::seconds patience{60}; ///< with another program that holds the lock
    };
    /// Without a layout this distribution's store is not known.
    explicit DistributionTrustStore(std::optional<Layout> layout);

    std::string name() const override { return "distribution's trust store"; }
    bool decides() const noexcept override { return true; }
    Outcome add(const Bytes& certificate) override;
    Outcome remove(const Bytes& certificate) override;
    /// Needs no command where that was taken from the machine before.
    Outcome removeAll() override;
    PlaceStatus status() const override;

    /// The anchor's file.
    std::string anchorPath(const Bytes& certificate) const;

private:
    bool bundleHolds(const Bytes& certificate) const;
    std::string update() const;
    std::set<std::string> ourAnchors() const;
    std::string eraseFromBundle(const std::vector<Bytes>& certificates) const;
    void removeLinks(const std::string& anchor) const;

    std::optional<Layout> layout_;
};

/// The layout for what os-release(5) says in ID and ID_LIKE; nothing for a distribution that is not known.
std::optional<DistributionTrustStore::Layout> layoutFor(std::string_view osRelease);
/// That of the distribution that runs here.
std::optional<DistributionTrustStore::Layout> distributionLayout();

} // namespace kf::security
