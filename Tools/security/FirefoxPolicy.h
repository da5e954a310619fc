// The policies of Firefox.
#pragma once

#include "security/PolicyPlace.h"

namespace kf::security {

/// Firefox reads one file, which others may have written. Where the trust module
/// of p11-kit is there, Firefox is told to consult it: it follows the
/// distribution's trust store then, removals included. Elsewhere it is told to
/// install our certificates, which a profile keeps once it has started with them.
class FirefoxPolicy final : public PolicyPlace {
public:
    struct Places {
        Places();
        Files files;
        std::string certificates;          ///< directory of the files that Firefox is to install
        std::string module;                ///< p11-kit's trust module; empty where there is none
        std::vector<std::string> programs; ///< one of them is there where Firefox is
    };
    explicit FirefoxPolicy(Places places) : PolicyPlace(places.files), places_(std::move(places)) { }

    std::string name() const override { return "Firefox"; }
    PlaceStatus status() const override;

    static constexpr const char* deviceName = "Keyfold system trust";

protected:
    bool isPresent() const override;
    std::vector<PolicyEntry> entriesFor(const Bytes& certificate, const PolicyFile& file) const override;
    std::vector<PolicyEntry> everyEntryFor(const Bytes& certificate) const override;
    std::vector<PolicyEntry> everySharedEntry() const override;
    std::vector<PolicyEntry> entriesOfAll(const PolicyFile& file) const override;
    std::string prepare(const Bytes& certificate, Record& record) const override;
    std::string cleanUp(const PolicyEntry& entry) const override;
    Outcome afterAdding(Outcome outcome) const override;
    Outcome afterRemoving(Outcome outcome, bool hadEntries) const override;

private:
    bool isOurs(const std::string& path) const;
    std::string certificatePath(const Bytes& certificate) const;
    bool usesModule() const { return !places_.module.empty(); }

    Places places_;
};

} // namespace kf::security
