// Faults on demand, for tests: every call goes to another back end, except the one that is to fail.
//
//     auto faults = std::make_shared<kf::keychain::FaultBackend>(std::make_shared<kf::keychain::MemoryBackend>());
//     kf::keychain::ScopedBackend scoped(faults);
//     faults->arm(kf::keychain::Operation::addCertificate, 2, errSecIO); // the second call from now on
//     ... import: it gives errSecIO ...
//     EXPECT_TRUE(faults->fired());
//     faults->disarm(); // and everything works again
//
// Lookups are answered from an index while a database has not changed: to make
// one fail for certain, arm Operation::open, which every public call begins with.
#pragma once

#include "Security/Keychain/Backend.h"

#include <functional>

namespace kf::keychain {

enum class Operation : std::uint8_t {
    open,
    generation,
    unlock,
    certificates,
    privateKeys,
    containsCertificate,
    containsPrivateKey,
    privateKeyInfo,
    beginWriting,
    declare,
    note,
    withdraw,
    finish,
    addCertificate,
    addPrivateKey,
    removeCertificate,
    removePrivateKey,
    setLabel,
    readTrust,
    setTrust,
    removeTrust,
};

class FaultPlan;

class FaultBackend final : public Backend {
public:
    explicit FaultBackend(std::shared_ptr<Backend> inner);
    ~FaultBackend() override;

    /// The `nth` call (1: the next one) of `operation` fails with `status`, before it has any effect; so does every
    /// later one where `repeat` is set. Replaces what was armed before.
    void arm(Operation operation, int nth, OSStatus status, bool repeat = false);
    /// Whether the armed call has come and failed.
    bool fired() const;
    void disarm();
    /// How often `operation` was called since arm() or disarm().
    int calls(Operation operation) const;

    /// Called with every operation that does not fail here, just before it (`done` false) and just after it.
    using Watcher = std::function<void(Operation operation, bool done)>;
    /// Lets a test act, or end the process, at one very moment. Replaces the one before; empty takes it away.
    void watch(Watcher watcher);

    bool exists(const std::string& path) override;
    Result<std::shared_ptr<Database>> open(const std::string& path, Access access) override;
    void closeAll() override;

private:
    std::shared_ptr<Backend> inner_;
    std::shared_ptr<FaultPlan> plan_;
};

} // namespace kf::keychain
