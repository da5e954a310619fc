// The record of a writer's intent, beside its database.
//
// The file is the writers' lock too: it is held under a lock that the system
// takes away with its process, and removed when the turn ends. A file that
// nobody holds and that lists objects is the trace of a writer that died. It
// names classes and digests only, no secrets:
//
//     keyfold-intent 2
//     make                          or "remove"
//     certificate DIGEST            and "privateKey", "trust": SHA-256, hexadecimal
//     end                           until here it is written at once, before anything else is
//     made certificate DIGEST       one line after each object but the last, or "found"
//     withdrawn                     what was made is about to go again
//
// The list is cut where its writer died writing it: nothing had been made then.
// A cut last line after the list is as if it had not been begun. Any other
// text, and more than a megabyte, is no record: it is logged and dropped, and
// nothing is touched for it.
#pragma once

#include "Security/Keychain/Backend.h"
#include "Security/ScopedDescriptor.h"

#include <chrono>
#include <string>

namespace kf::keychain {

class IntentFile final : public WriteTurn {
public:
    static constexpr const char* fileName = "keyfold-intent";

    /// In the directory at a path. Waits for another process's turn, `patience` at most: errSecKeychainBusy then.
    static Result<std::unique_ptr<WriteTurn>> acquire(
        const std::string& path, std::chrono::milliseconds patience = std::chrono::seconds(30));
    ~IntentFile() override;

    const Intent& abandoned() const noexcept override { return abandoned_; }
    Status declare(Intent::Purpose purpose, const std::vector<ObjectName>& objects) override;
    Status note(const ObjectName& object, Intent::Progress progress) override;
    Status withdraw() override;
    Status finish() override;

private:
    static Result<std::unique_ptr<WriteTurn>> begin(
        const std::string& path, ScopedDescriptor directory, ScopedDescriptor descriptor);
    IntentFile(ScopedDescriptor directory, ScopedDescriptor descriptor) noexcept;
    Status append(const std::string& text);
    Status syncDirectory();

    ScopedDescriptor directory_; ///< that very one, though another may stand at its path by now
    ScopedDescriptor descriptor_;
    Intent abandoned_;
    std::size_t size_ = 0; ///< of the record; 0: there is none
};

} // namespace kf::keychain
