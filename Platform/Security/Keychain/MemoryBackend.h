// Keychains in memory, for tests that need no files.
//
//     auto memory = std::make_shared<kf::keychain::MemoryBackend>();
//     kf::keychain::ScopedBackend scoped(memory); // Store.h: the process uses it until the end of the scope
//     SecKeychainCopyDefault(&keychain);          // works as ever; no file is touched
//     SecKeychainItemImport(..., keychain, &items);
#pragma once

#include "Security/Keychain/Backend.h"

#include <map>
#include <mutex>

namespace kf::keychain {

struct MemoryObjects;

/// Behaves as the NSS one, pass phrases and label rules included.
class MemoryBackend final : public Backend {
public:
    MemoryBackend();
    ~MemoryBackend() override;

    bool exists(const std::string& path) override;
    Result<std::shared_ptr<Database>> open(const std::string& path, Access access) override;
    /// Locks again what has a pass phrase.
    void closeAll() override;

    /// Makes an empty keychain; a pass phrase other than "" leaves it locked.
    void create(const std::string& path, const std::string& passphrase = {});
    /// Gives a keychain another pass phrase; one other than "" locks it.
    void setPassphrase(const std::string& path, const std::string& passphrase);
    /// Takes a keychain away, as if its directory had been deleted.
    void erase(const std::string& path);
    /// Writing gives errSecReadOnly from now on, or no longer.
    void setReadOnly(const std::string& path, bool readOnly);

private:
    std::shared_ptr<MemoryObjects> find(const std::string& path);

    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<MemoryObjects>> databases_;
    std::uint64_t made_ = 0;
};

} // namespace kf::keychain
