#include "Security/Keychain/FaultBackend.h"

#include <mutex>

namespace kf::keychain {

class FaultPlan {
public:
    void arm(Operation operation, int nth, OSStatus status, bool repeat)
    {
        const std::lock_guard lock(mutex_);
        armed_ = Armed{operation, nth, status, repeat};
        fired_ = false;
        calls_ = {};
    }
    void disarm()
    {
        const std::lock_guard lock(mutex_);
        armed_.reset();
        calls_ = {};
    }
    bool fired() const
    {
        const std::lock_guard lock(mutex_);
        return fired_;
    }
    int calls(Operation operation) const
    {
        const std::lock_guard lock(mutex_);
        return calls_[static_cast<std::size_t>(operation)];
    }

    void watch(FaultBackend::Watcher watcher)
    {
        const std::lock_guard lock(mutex_);
        watcher_ = watcher ? std::make_shared<FaultBackend::Watcher>(std::move(watcher)) : nullptr;
    }
    void tell(Operation operation, bool done) const
    {
        std::shared_ptr<FaultBackend::Watcher> watcher;
        {
            const std::lock_guard lock(mutex_);
            watcher = watcher_;
        }
        // Without the lock: it may arm the next fault.
        if (watcher)
            (*watcher)(operation, done);
    }

    /// The failure of this very call, if it is to fail.
    std::optional<Failure> failureOf(Operation operation)
    {
        const std::lock_guard lock(mutex_);
        const int call = ++calls_[static_cast<std::size_t>(operation)];
        if (!armed_ || armed_->operation != operation || call < armed_->nth || (call > armed_->nth && !armed_->repeat))
            return std::nullopt;
        fired_ = true;
        return Failure{armed_->status};
    }

private:
    struct Armed {
        Operation operation;
        int nth;
        OSStatus status;
        bool repeat;
    };
    mutable std::mutex mutex_;
    std::optional<Armed> armed_;
    bool fired_ = false;
    std::shared_ptr<FaultBackend::Watcher> watcher_;
    std::array<int, static_cast<std::size_t>(Operation::removeTrust) + 1> calls_{};
};

namespace {

using Plan = std::shared_ptr<FaultPlan>;

template <class Call>
auto guarded(FaultPlan& plan, Operation operation, Call call) -> decltype(call())
{
    if (const auto failure = plan.failureOf(operation))
        return *failure;
    plan.tell(operation, false);
    auto result = call();
    plan.tell(operation, true);
    return result;
}

class FaultTurn final : public WriteTurn {
public:
    FaultTurn(std::unique_ptr<WriteTurn> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) { }

    const Intent& abandoned() const noexcept override { return inner_->abandoned(); }
    Status declare(Intent::Purpose purpose, const std::vector<ObjectName>& objects) override
    {
        return guarded(*plan_, Operation::declare, [&] { return inner_->declare(purpose, objects); });
    }
    Status note(const ObjectName& object, Intent::Progress progress) override
    {
        return guarded(*plan_, Operation::note, [&] { return inner_->note(object, progress); });
    }
    Status withdraw() override
    {
        return guarded(*plan_, Operation::withdraw, [&] { return inner_->withdraw(); });
    }
    Status finish() override
    {
        return guarded(*plan_, Operation::finish, [&] { return inner_->finish(); });
    }

private:
    std::unique_ptr<WriteTurn> inner_;
    Plan plan_;
};

class FaultDatabase final : public Database {
public:
    FaultDatabase(std::shared_ptr<Database> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) { }

    bool isLocked() override { return inner_->isLocked(); }
    Result<Generation> generation() override
    {
        return guarded(*plan_, Operation::generation, [&] { return inner_->generation(); });
    }
    Status unlock(std::span<const std::uint8_t> passphrase) override
    {
        return guarded(*plan_, Operation::unlock, [&] { return inner_->unlock(passphrase); });
    }
    Result<std::vector<CertificateRecord>> certificates() override
    {
        return guarded(*plan_, Operation::certificates, [&] { return inner_->certificates(); });
    }
    Result<std::vector<KeyRecord>> privateKeys() override
    {
        return guarded(*plan_, Operation::privateKeys, [&] { return inner_->privateKeys(); });
    }
    Result<bool> containsCertificate(std::span<const std::uint8_t> der) override
    {
        return guarded(*plan_, Operation::containsCertificate, [&] { return inner_->containsCertificate(der); });
    }
    Result<bool> containsPrivateKey(std::span<const std::uint8_t> id) override
    {
        return guarded(*plan_, Operation::containsPrivateKey, [&] { return inner_->containsPrivateKey(id); });
    }
    Result<SecretBytes> privateKeyInfo(std::span<const std::uint8_t> id) override
    {
        return guarded(*plan_, Operation::privateKeyInfo, [&] { return inner_->privateKeyInfo(id); });
    }
    Result<std::unique_ptr<WriteTurn>> beginWriting() override
    {
        return guarded(*plan_, Operation::beginWriting, [&]() -> Result<std::unique_ptr<WriteTurn>> {
            auto turn = inner_->beginWriting();
            if (!turn)
                return turn.failure();
            return std::unique_ptr<WriteTurn>(std::make_unique<FaultTurn>(std::move(*turn), plan_));
        });
    }
    Status addCertificate(std::span<const std::uint8_t> der, const std::string& label) override
    {
        return guarded(*plan_, Operation::addCertificate, [&] { return inner_->addCertificate(der, label); });
    }
    Status addPrivateKey(const PrivateKey& key) override
    {
        return guarded(*plan_, Operation::addPrivateKey, [&] { return inner_->addPrivateKey(key); });
    }
    Status removeCertificate(std::span<const std::uint8_t> der) override
    {
        return guarded(*plan_, Operation::removeCertificate, [&] { return inner_->removeCertificate(der); });
    }
    Status removePrivateKey(std::span<const std::uint8_t> id) override
    {
        return guarded(*plan_, Operation::removePrivateKey, [&] { return inner_->removePrivateKey(id); });
    }
    Status setCertificateLabel(std::span<const std::uint8_t> der, const std::string& label) override
    {
        return guarded(*plan_, Operation::setLabel, [&] { return inner_->setCertificateLabel(der, label); });
    }
    Status setPrivateKeyLabel(std::span<const std::uint8_t> id, const std::string& label) override
    {
        return guarded(*plan_, Operation::setLabel, [&] { return inner_->setPrivateKeyLabel(id, label); });
    }
    Result<Trust> trust(std::span<const std::uint8_t> certificate) override
    {
        return guarded(*plan_, Operation::readTrust, [&] { return inner_->trust(certificate); });
    }
    Status setTrust(std::span<const std::uint8_t> certificate, const Trust& trust) override
    {
        return guarded(*plan_, Operation::setTrust, [&] { return inner_->setTrust(certificate, trust); });
    }
    Status removeTrust(std::span<const std::uint8_t> certificate) override
    {
        return guarded(*plan_, Operation::removeTrust, [&] { return inner_->removeTrust(certificate); });
    }

private:
    std::shared_ptr<Database> inner_;
    Plan plan_;
};

} // namespace

FaultBackend::FaultBackend(std::shared_ptr<Backend> inner)
    : inner_(std::move(inner)), plan_(std::make_shared<FaultPlan>())
{
}

FaultBackend::~FaultBackend() = default;

void FaultBackend::arm(Operation operation, int nth, OSStatus status, bool repeat)
{
    plan_->arm(operation, nth, status, repeat);
}

bool FaultBackend::fired() const { return plan_->fired(); }

void FaultBackend::disarm() { plan_->disarm(); }

int FaultBackend::calls(Operation operation) const { return plan_->calls(operation); }

void FaultBackend::watch(Watcher watcher) { plan_->watch(std::move(watcher)); }

bool FaultBackend::exists(const std::string& path) { return inner_->exists(path); }

Result<std::shared_ptr<Database>> FaultBackend::open(const std::string& path, Access access)
{
    auto database = guarded(*plan_, Operation::open, [&] { return inner_->open(path, access); });
    if (!database)
        return database.failure();
    return std::shared_ptr<Database>(std::make_shared<FaultDatabase>(std::move(*database), plan_));
}

void FaultBackend::closeAll() { inner_->closeAll(); }

} // namespace kf::keychain
