#include "Security/Keychain/MemoryBackend.h"

#include "Security/Keychain/Labels.h"

#include <algorithm>
#include <condition_variable>

namespace kf::keychain {

namespace {

struct StoredCertificate {
    Bytes der;
    Bytes subject;
    Bytes issuerAndSerial;
    std::string label;
};

struct StoredTrust {
    Bytes certificate;
    Trust trust;
};

bool sameBytes(const Bytes& stored, std::span<const std::uint8_t> wanted) { return std::ranges::equal(stored, wanted); }

} // namespace

/// One keychain's content, shared by all that have it open.
struct MemoryObjects {
    std::mutex mutex;
    std::condition_variable turnEnded;
    std::uint64_t identity = 0;
    std::uint64_t changes = 0;
    std::string passphrase;
    bool locked = false;
    bool readOnly = false;
    bool turnTaken = false;
    Intent intent;
    std::vector<StoredCertificate> certificates;
    std::vector<KeyRecord> keys;
    std::vector<StoredTrust> trusts;
};

namespace {

using Objects = std::shared_ptr<MemoryObjects>;

class MemoryTurn final : public WriteTurn {
public:
    explicit MemoryTurn(Objects objects) : objects_(std::move(objects)), abandoned_(objects_->intent) { }
    ~MemoryTurn() override
    {
        const std::lock_guard lock(objects_->mutex);
        objects_->turnTaken = false;
        objects_->turnEnded.notify_one();
    }

    const Intent& abandoned() const noexcept override { return abandoned_; }
    Status declare(Intent::Purpose purpose, const std::vector<ObjectName>& objects) override
    {
        if (objects.size() > mostIntendedObjects)
            return Failure{errSecDataTooLarge};
        Intent intent{purpose, {}, false};
        for (const auto& object : objects)
            intent.objects.push_back({object});
        return set(std::move(intent));
    }
    Status note(const ObjectName& object, Intent::Progress progress) override
    {
        const std::lock_guard lock(objects_->mutex);
        for (auto& declared : objects_->intent.objects)
            if (declared.name == object)
                declared.progress = progress;
        return {};
    }
    Status withdraw() override
    {
        const std::lock_guard lock(objects_->mutex);
        objects_->intent.isWithdrawn = true;
        return {};
    }
    Status finish() override { return set({}); }

private:
    Status set(Intent intent)
    {
        const std::lock_guard lock(objects_->mutex);
        objects_->intent = std::move(intent);
        return {};
    }

    Objects objects_;
    Intent abandoned_;
};

class MemoryDatabase final : public Database {
public:
    MemoryDatabase(Objects objects, Access access) : objects_(std::move(objects)), access_(access) { }

    Result<Generation> generation() override
    {
        const std::lock_guard lock(objects_->mutex);
        return Generation{objects_->identity, objects_->changes};
    }

    bool isLocked() override
    {
        const std::lock_guard lock(objects_->mutex);
        return objects_->locked;
    }

    Status unlock(std::span<const std::uint8_t> passphrase) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (!std::ranges::equal(passphrase, objects_->passphrase,
                [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); }))
            return Failure{errSecAuthFailed};
        objects_->locked = false;
        return {};
    }

    Result<std::vector<CertificateRecord>> certificates() override
    {
        const std::lock_guard lock(objects_->mutex);
        std::vector<CertificateRecord> records;
        for (const auto& stored : objects_->certificates)
            records.push_back({stored.der, stored.label});
        return records;
    }

    Result<std::vector<KeyRecord>> privateKeys() override
    {
        const std::lock_guard lock(objects_->mutex);
        if (objects_->locked)
            return Failure{errSecInteractionNotAllowed};
        return objects_->keys;
    }

    Result<bool> containsCertificate(std::span<const std::uint8_t> der) override
    {
        const std::lock_guard lock(objects_->mutex);
        return findCertificate(der) != objects_->certificates.end();
    }

    Result<bool> containsPrivateKey(std::span<const std::uint8_t> id) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (objects_->locked)
            return Failure{errSecInteractionNotAllowed};
        return findKey(id) != objects_->keys.end();
    }

    Result<SecretBytes> privateKeyInfo(std::span<const std::uint8_t>) override { return Failure{errSecUnimplemented}; }

    Result<std::unique_ptr<WriteTurn>> beginWriting() override
    {
        std::unique_lock lock(objects_->mutex);
        if (access_ == Access::read || objects_->readOnly)
            return Failure{errSecReadOnly};
        objects_->turnEnded.wait(lock, [this] { return !objects_->turnTaken; });
        objects_->turnTaken = true;
        return std::unique_ptr<WriteTurn>(std::make_unique<MemoryTurn>(objects_));
    }

    Status addCertificate(std::span<const std::uint8_t> der, const std::string& label) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (const auto writable = checkWritable(); !writable)
            return writable;
        if (findCertificate(der) != objects_->certificates.end())
            return Failure{errSecDuplicateItem};
        const auto fields = readCertificateFields(der);
        if (!fields)
            return fields.failure();
        Bytes issuerAndSerial(fields->issuer.begin(), fields->issuer.end());
        issuerAndSerial.insert(issuerAndSerial.end(), fields->serial.begin(), fields->serial.end());
        if (std::ranges::find(objects_->certificates, issuerAndSerial, &StoredCertificate::issuerAndSerial)
            != objects_->certificates.end())
            return Failure{errSecIssuerAndSerialTaken};
        Bytes subject(fields->subject.begin(), fields->subject.end());
        std::string chosen = freeLabel(label, [&](const std::string& text) { return isTaken(text, subject); });
        objects_->certificates.push_back(
            {Bytes(der.begin(), der.end()), std::move(subject), std::move(issuerAndSerial), std::move(chosen)});
        return changed();
    }

    Status addPrivateKey(const PrivateKey& key) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (const auto writable = checkWritable(); !writable)
            return writable;
        if (findKey(key.id) != objects_->keys.end())
            return Failure{errSecDuplicateItem};
        objects_->keys.push_back({key.id, key.label});
        return changed();
    }

    Status removeCertificate(std::span<const std::uint8_t> der) override
    {
        const std::lock_guard lock(objects_->mutex);
        return removeFrom(objects_->certificates, findCertificate(der), errSecInvalidItemRef);
    }

    Status removePrivateKey(std::span<const std::uint8_t> id) override
    {
        const std::lock_guard lock(objects_->mutex);
        return removeFrom(objects_->keys, findKey(id), errSecInvalidItemRef);
    }

    Status setCertificateLabel(std::span<const std::uint8_t> der, const std::string& label) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (const auto writable = checkWritable(); !writable)
            return writable;
        const auto found = findCertificate(der);
        if (found == objects_->certificates.end())
            return Failure{errSecInvalidItemRef};
        if (isTaken(label, found->subject))
            return Failure{errSecDuplicateItem};
        found->label = label;
        return changed();
    }

    Status setPrivateKeyLabel(std::span<const std::uint8_t> id, const std::string& label) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (const auto writable = checkWritable(); !writable)
            return writable;
        const auto found = findKey(id);
        if (found == objects_->keys.end())
            return Failure{errSecInvalidItemRef};
        found->label = label;
        return changed();
    }

    Result<Trust> trust(std::span<const std::uint8_t> certificate) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (objects_->locked)
            return Failure{errSecInteractionNotAllowed};
        if (const auto fields = readCertificateFields(certificate); !fields)
            return fields.failure();
        const auto found = findTrust(certificate);
        if (found == objects_->trusts.end())
            return Failure{errSecItemNotFound};
        return found->trust;
    }

    Status setTrust(std::span<const std::uint8_t> certificate, const Trust& trust) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (const auto writable = checkWritable(); !writable)
            return writable;
        if (const auto fields = readCertificateFields(certificate); !fields)
            return fields.failure();
        const auto found = findTrust(certificate);
        if (found != objects_->trusts.end())
            found->trust = trust;
        else
            objects_->trusts.push_back({Bytes(certificate.begin(), certificate.end()), trust});
        return changed();
    }

    Status removeTrust(std::span<const std::uint8_t> certificate) override
    {
        const std::lock_guard lock(objects_->mutex);
        if (const auto writable = checkWritable(); !writable)
            return writable;
        if (const auto fields = readCertificateFields(certificate); !fields)
            return fields.failure();
        return removeFrom(objects_->trusts, findTrust(certificate), errSecItemNotFound);
    }

private:
    std::vector<StoredCertificate>::iterator findCertificate(std::span<const std::uint8_t> der)
    {
        return std::ranges::find_if(
            objects_->certificates, [&](const auto& stored) { return sameBytes(stored.der, der); });
    }
    std::vector<KeyRecord>::iterator findKey(std::span<const std::uint8_t> id)
    {
        return std::ranges::find_if(objects_->keys, [&](const auto& stored) { return sameBytes(stored.id, id); });
    }
    std::vector<StoredTrust>::iterator findTrust(std::span<const std::uint8_t> certificate)
    {
        return std::ranges::find_if(
            objects_->trusts, [&](const auto& stored) { return sameBytes(stored.certificate, certificate); });
    }

    bool isTaken(const std::string& label, const Bytes& subject) const
    {
        return !label.empty() && std::ranges::any_of(objects_->certificates, [&](const auto& stored) {
            return stored.label == label && stored.subject != subject;
        });
    }

    Status checkWritable() const
    {
        if (objects_->readOnly || access_ == Access::read)
            return Failure{errSecReadOnly};
        if (objects_->locked)
            return Failure{errSecInteractionNotAllowed};
        return {};
    }

    template <class Objects, class Position>
    Status removeFrom(Objects& objects, Position position, OSStatus whenMissing)
    {
        if (const auto writable = checkWritable(); !writable)
            return writable;
        if (position == objects.end())
            return Failure{whenMissing};
        objects.erase(position);
        return changed();
    }

    Status changed()
    {
        ++objects_->changes;
        return {};
    }

    Objects objects_;
    Access access_;
};

} // namespace

MemoryBackend::MemoryBackend() = default;
MemoryBackend::~MemoryBackend() = default;

std::shared_ptr<MemoryObjects> MemoryBackend::find(const std::string& path)
{
    const std::lock_guard lock(mutex_);
    const auto found = databases_.find(path);
    return found == databases_.end() ? nullptr : found->second;
}

bool MemoryBackend::exists(const std::string& path) { return find(path) != nullptr; }

Result<std::shared_ptr<Database>> MemoryBackend::open(const std::string& path, Access access)
{
    auto objects = find(path);
    if (!objects && access == Access::create) {
        create(path);
        objects = find(path);
    }
    if (!objects)
        return Failure{errSecNoSuchKeychain};
    return std::shared_ptr<Database>(std::make_shared<MemoryDatabase>(std::move(objects), access));
}

void MemoryBackend::closeAll()
{
    const std::lock_guard lock(mutex_);
    for (const auto& [path, objects] : databases_) {
        const std::lock_guard objectsLock(objects->mutex);
        objects->locked = !objects->passphrase.empty();
    }
}

void MemoryBackend::create(const std::string& path, const std::string& passphrase)
{
    auto objects = std::make_shared<MemoryObjects>();
    objects->passphrase = passphrase;
    objects->locked = !passphrase.empty();
    const std::lock_guard lock(mutex_);
    objects->identity = ++made_;
    databases_[path] = std::move(objects);
}

void MemoryBackend::setPassphrase(const std::string& path, const std::string& passphrase)
{
    if (const auto objects = find(path)) {
        const std::lock_guard lock(objects->mutex);
        objects->passphrase = passphrase;
        objects->locked = !passphrase.empty();
    }
}

void MemoryBackend::erase(const std::string& path)
{
    const std::lock_guard lock(mutex_);
    databases_.erase(path);
}

void MemoryBackend::setReadOnly(const std::string& path, bool readOnly)
{
    if (const auto objects = find(path)) {
        const std::lock_guard lock(objects->mutex);
        objects->readOnly = readOnly;
    }
}

} // namespace kf::keychain
