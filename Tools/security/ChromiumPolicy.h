// The managed policies of Chromium and its kin.
#pragma once

#include "security/PolicyPlace.h"

namespace kf::security {

/// One file of ours among those of the browser's policy directory: the
/// certificates, and the word that lists of several files are to be merged, as
/// the last of them would count alone.
class ChromiumPolicy final : public PolicyPlace {
public:
    struct Browser {
        std::string name;
        std::string directory;             ///< of its managed policies
        std::vector<std::string> programs; ///< one of them is there where the browser is
    };
    static const std::vector<Browser>& browsers();

    /// `record` and `lock` are made of the browser's name.
    explicit ChromiumPolicy(const Browser& browser);
    ChromiumPolicy(Browser browser, Files files);

    std::string name() const override { return browser_.name; }
    PlaceStatus status() const override;

    static constexpr const char* fileName = "00-keyfold.json";

protected:
    bool isPresent() const override;
    std::vector<PolicyEntry> entriesFor(const Bytes& certificate, const PolicyFile& file) const override;
    std::vector<PolicyEntry> everyEntryFor(const Bytes& certificate) const override;
    std::vector<PolicyEntry> everySharedEntry() const override;
    std::vector<PolicyEntry> entriesOfAll(const PolicyFile& file) const override;
    Outcome afterAdding(Outcome outcome) const override;

private:
    Browser browser_;
};

} // namespace kf::security
