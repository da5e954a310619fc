// What the browsers' policy files have in common as places of trust.
#pragma once

#include "security/PolicyFile.h"
#include "security/TrustPlace.h"

#include <chrono>

namespace kf::security {

/// Entries in one policy file: some for each certificate, some shared by all
/// of ours while there is one.
class PolicyPlace : public PublishedPlace {
public:
    /// Where it keeps its things.
    struct Files {
        std::string policies;
        std::string record;
        std::string lock;
        std::chrono::seconds patience{60}; ///< with another program that holds the lock
    };

    bool decides() const noexcept override { return false; }
    Outcome add(const Bytes& certificate) override;
    Outcome remove(const Bytes& certificate) override;
    Outcome removeAll() override;

protected:
    explicit PolicyPlace(Files files) : files_(std::move(files)) { }

    /// Whether the browser is on this machine.
    virtual bool isPresent() const = 0;
    /// What adding puts in, shared entries too; looks at what is there.
    virtual std::vector<PolicyEntry> entriesFor(const Bytes& certificate, const PolicyFile& file) const = 0;
    /// What an addition may have put in for this certificate alone, and for all of ours.
    virtual std::vector<PolicyEntry> everyEntryFor(const Bytes& certificate) const = 0;
    virtual std::vector<PolicyEntry> everySharedEntry() const = 0;
    /// What additions may have put in for one certificate alone, whichever it was.
    virtual std::vector<PolicyEntry> entriesOfAll(const PolicyFile& file) const = 0;
    /// Files that the entries need; gives what went wrong.
    virtual std::string prepare(const Bytes& certificate, Record& record) const;
    virtual std::string cleanUp(const PolicyEntry& entry) const;
    /// What else is to be told after an addition; a failure where it has no effect.
    virtual Outcome afterAdding(Outcome outcome) const;
    /// `hadEntries`: some were for this certificate alone.
    virtual Outcome afterRemoving(Outcome outcome, bool hadEntries) const;

    const Files& files() const noexcept { return files_; }

private:
    Outcome takeOut(const std::vector<PolicyEntry>& entries, PolicyFile& file, Record& record);

    Files files_;
};

} // namespace kf::security
