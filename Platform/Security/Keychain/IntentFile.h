// The record of a writer's intent, beside its database.
//
// The file is the writers' lock too: it is held under a lock that the system
// takes away with its process, and removed when the turn ends. A file that
// nobody holds and that lists objects is the trace of a writer that died. It
// names classes and digests only, no secrets.
#pragma once

#include "Security/Keychain/Backend.h"

#include <chrono>
#include <string>

namespace kf::keychain {

class IntentFile final : public WriteTurn {
public:
    static constexpr const char* fileName = "keyfold-intent";

    /// Waits for another process's turn, `patience` at most: errSecKeychainBusy then.
    static Result<std::unique_ptr<WriteTurn>> acquire(
        const std::string& directory, std::chrono::milliseconds patience = std::chrono::seconds(30));
    ~IntentFile() override;

    const std::vector<ObjectName>& abandoned() const noexcept override { return abandoned_; }
    Status declare(const std::vector<ObjectName>& objects) override;
    Status finish() override;

private:
    IntentFile(std::string directory, int descriptor);
    Status writeText(const std::string& text);

    std::string directory_;
    int descriptor_;
    std::vector<ObjectName> abandoned_;
    bool isDurable_ = false; ///< the directory's entry has reached the disk
    bool isEmpty_ = true;
};

} // namespace kf::keychain
