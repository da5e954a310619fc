// The process's keychains: the back end in use, the indexes and the writer lock.
#pragma once

#include "Security/Keychain/Index.h"

#include <functional>
#include <mutex>

namespace kf::keychain {

/// The process's back end: NSS unless another one was set.
std::shared_ptr<Backend> backend();
/// Replaces it, for tests, and gives back the one before; null stands for NSS.
/// Not while other threads use keychains.
std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> replacement);

/// A back end for the length of a scope, in tests.
class ScopedBackend {
public:
    explicit ScopedBackend(std::shared_ptr<Backend> replacement) : before_(setBackend(std::move(replacement))) { }
    ScopedBackend(const ScopedBackend&) = delete;
    ScopedBackend& operator=(const ScopedBackend&) = delete;
    ~ScopedBackend() { setBackend(std::move(before_)); }

private:
    std::shared_ptr<Backend> before_;
};

/// Closes every keychain and ends NSS. What is used afterwards is opened again.
/// Not while other threads use keychains.
void closeAll();

/// Held by whoever writes: two threads that write to one NSS slot hang.
std::mutex& writerLock();

/// The certificates of a keychain as they are now. A keychain that mayBeMissing() reads as empty while it is not there.
Result<std::shared_ptr<const CertificateIndex>> certificateIndex(const std::string& path);
/// Its private keys; asks for the pass phrase where one is needed.
Result<std::shared_ptr<const KeyIndex>> keyIndex(const std::string& path);

/// Calls `reader` with the open database; unlocks it first where `unlocked` is set.
Status withDatabase(const std::string& path, bool unlocked, const std::function<Status(Database&)>& reader);

/// Calls `writer` with an unlocked database and its turn, under the writer
/// lock, after settling what an earlier writer left unfinished. Where `writer`
/// fails, it has changed nothing. Where the keychain is there and cannot be
/// written, every write of `writer` gives the reason: one that finds all as it
/// is to be succeeds.
Status writeDatabase(
    const std::string& path, Access access, const std::function<Status(Database&, WriteTurn&)>& writer);

/// An object to be made, and how.
struct Creation {
    ObjectName name;
    std::function<Result<bool>()> isThere;
    std::function<Status()> make;
};

/// Makes every object that is not there, or none of them: after a failure, and
/// after a crash by the next writer, those made are gone again. In the order
/// given, but for private keys, which come last: none is ever without its
/// certificate.
Status createAll(Database& database, WriteTurn& turn, const std::vector<Creation>& creations);

/// Removes a certificate with what the keychain says of its trust; both or
/// neither. errSecInvalidItemRef where it is not there.
Status removeWithTrust(Database& database, WriteTurn& turn, std::span<const std::uint8_t> certificate);

} // namespace kf::keychain
