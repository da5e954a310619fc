#include "Security/Keychain/Store.h"

#include "Security/Keychain/Locations.h"
#include "Security/Keychain/NSSBackend.h"
#include "Security/Keychain/Recovery.h"
#include "Security/Presenter.h"

#include <algorithm>
#include <map>

namespace kf::keychain {

namespace {

constexpr int unlockAttempts = 3;

template <class T>
struct Cached {
    Generation generation{};
    std::shared_ptr<const T> index;
};

struct Caches {
    std::mutex mutex;
    std::shared_ptr<Backend> backend;
    std::map<std::string, Cached<CertificateIndex>> certificates;
    std::map<std::string, Cached<KeyIndex>> keys;

    void clear()
    {
        certificates.clear();
        keys.clear();
    }
};

/// Never destroyed: threads that outlive main() may still read a keychain.
Caches& caches()
{
    static Caches* const instance = new Caches;
    return *instance;
}

Status unlock(Database& database, const std::string& path)
{
    if (!database.isLocked())
        return {};
    Presenter* const presenter = Presenter::current();
    if (!presenter)
        return Failure{errSecInteractionNotAllowed};
    for (int attempt = 1; attempt <= unlockAttempts; ++attempt) {
        const auto passphrase = presenter->keychainPassphrase({NSString::stringWithUTF8String(path), attempt});
        if (!passphrase)
            return Failure{errSecUserCanceled};
        const auto unlocked = database.unlock(*passphrase);
        if (unlocked || unlocked.status() != errSecAuthFailed)
            return unlocked;
    }
    return Failure{errSecAuthFailed};
}

/// An index that fits the database's present generation, from the cache where it can be.
template <class T, class Build>
Result<std::shared_ptr<const T>> freshIndex(
    std::map<std::string, Cached<T>> Caches::*cache, const std::string& path, Database& database, Build build)
{
    // Taken before the listing: a change in between makes the next call list again.
    const auto generation = database.generation();
    if (!generation)
        return generation.failure();
    std::shared_ptr<const T> previous;
    {
        const std::lock_guard lock(caches().mutex);
        const auto& cached = (caches().*cache)[path];
        if (cached.index && cached.generation == *generation)
            return cached.index;
        previous = cached.index;
    }
    Result<std::shared_ptr<const T>> built = build(previous.get());
    // After a writer's death the listing itself rolls back what was half written: the database is then at an earlier
    // generation than the one read, which the next writer will reach with other content.
    const auto afterwards = database.generation();
    if (built && afterwards && *afterwards == *generation) {
        const std::lock_guard lock(caches().mutex);
        (caches().*cache)[path] = {*generation, *built};
    }
    return built;
}

bool isMissing(OSStatus status, const std::string& path)
{
    return status == errSecNoSuchKeychain && mayBeMissing(path);
}

bool isUnwritable(OSStatus status) { return status == errSecReadOnly || status == errSecWrPerm; }

/// The turn of a writer in a keychain that cannot be written.
class RefusedTurn final : public WriteTurn {
public:
    explicit RefusedTurn(Failure reason) : reason_(reason) { }
    const Intent& abandoned() const noexcept override { return none_; }
    Status declare(Intent::Purpose, const std::vector<ObjectName>&) override { return reason_; }
    Status note(const ObjectName&, Intent::Progress) override { return reason_; }
    Status withdraw() override { return reason_; }
    Status finish() override { return {}; }

private:
    Failure reason_;
    Intent none_;
};

/// Opened for reading where it is there and cannot be written.
Result<std::shared_ptr<Database>> openForWriting(const std::string& path, Access access)
{
    auto database = backend()->open(path, access);
    if (isUnwritable(database.status()))
        if (auto readable = backend()->open(path, Access::read))
            return readable;
    return database;
}

/// The database at a path for reading, unlocked. Whoever is asked for the pass phrase may take long: what stands there
/// afterwards is opened anew.
Result<std::shared_ptr<Database>> openUnlocked(const std::string& path)
{
    for (;;) {
        auto database = backend()->open(path, Access::read);
        if (!database || !(*database)->isLocked())
            return database;
        if (const auto unlocked = unlock(**database, path); !unlocked)
            return unlocked.failure();
    }
}

/// What createAll() has to make, private keys last.
Result<std::vector<const Creation*>> missingOf(const std::vector<Creation>& creations)
{
    std::vector<const Creation*> missing;
    for (const auto& creation : creations) {
        const auto there = creation.isThere();
        if (!there)
            return there.failure();
        const auto isSame = [&](const Creation* other) { return other->name == creation.name; };
        if (!*there && std::ranges::none_of(missing, isSame))
            missing.push_back(&creation);
    }
    std::stable_partition(missing.begin(), missing.end(),
        [](const Creation* creation) { return creation->name.objectClass != ObjectClass::privateKey; });
    return missing;
}

/// As the turn's, leaving no record where it fails.
Status declare(WriteTurn& turn, Intent::Purpose purpose, const std::vector<ObjectName>& objects)
{
    const auto declared = turn.declare(purpose, objects);
    if (!declared)
        static_cast<void>(turn.finish());
    return declared;
}

/// Makes the objects of `intent` and keeps it and the turn's record true. What became of the last one needs no note:
/// with it all is there, and finishing says so.
Status makeAll(WriteTurn& turn, const std::vector<const Creation*>& missing, Intent& intent)
{
    for (std::size_t position = 0; position < missing.size(); ++position) {
        const auto made = missing[position]->make();
        if (!made && made.status() != errSecDuplicateItem)
            return made;
        auto& object = intent.objects[position];
        object.progress = made ? Intent::Progress::made : Intent::Progress::found;
        if (position + 1 == missing.size())
            break;
        if (const auto noted = turn.note(object.name, object.progress); !noted)
            return noted;
    }
    return {};
}

} // namespace

std::shared_ptr<Backend> backend()
{
    const std::lock_guard lock(caches().mutex);
    if (!caches().backend)
        caches().backend = std::make_shared<NSSBackend>();
    return caches().backend;
}

std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> replacement)
{
    const std::lock_guard lock(caches().mutex);
    caches().clear();
    std::swap(caches().backend, replacement);
    return replacement;
}

void closeAll()
{
    std::shared_ptr<Backend> current;
    {
        const std::lock_guard lock(caches().mutex);
        caches().clear();
        current = caches().backend;
    }
    if (current)
        current->closeAll();
}

std::mutex& writerLock()
{
    static auto* const lock = new std::mutex;
    return *lock;
}

Result<std::shared_ptr<const CertificateIndex>> certificateIndex(const std::string& path)
{
    using Index = std::shared_ptr<const CertificateIndex>;
    const auto database = backend()->open(path, Access::read);
    if (!database) {
        if (isMissing(database.status(), path))
            return Index(std::make_shared<const CertificateIndex>(std::vector<CertificateRecord>(), nullptr));
        return database.failure();
    }
    Database& open = **database;
    return freshIndex(&Caches::certificates, path, open, [&](const CertificateIndex* previous) -> Result<Index> {
        auto records = open.certificates();
        if (!records)
            return records.failure();
        return Index(std::make_shared<const CertificateIndex>(std::move(*records), previous));
    });
}

Result<std::shared_ptr<const KeyIndex>> keyIndex(const std::string& path)
{
    using Index = std::shared_ptr<const KeyIndex>;
    const auto database = openUnlocked(path);
    if (!database) {
        if (isMissing(database.status(), path))
            return Index(std::make_shared<const KeyIndex>(std::vector<KeyRecord>()));
        return database.failure();
    }
    Database& open = **database;
    return freshIndex(&Caches::keys, path, open, [&](const KeyIndex*) -> Result<Index> {
        auto records = open.privateKeys();
        if (!records)
            return records.failure();
        return Index(std::make_shared<const KeyIndex>(std::move(*records)));
    });
}

Status withDatabase(const std::string& path, bool unlocked, const std::function<Status(Database&)>& reader)
{
    const auto database = unlocked ? openUnlocked(path) : backend()->open(path, Access::read);
    if (!database)
        return database.failure();
    return reader(**database);
}

Status writeDatabase(const std::string& path, Access access, const std::function<Status(Database&, WriteTurn&)>& writer)
{
    for (;;) {
        std::unique_lock lock(writerLock());
        auto database = openForWriting(path, access);
        if (!database)
            return database.failure();
        if ((*database)->isLocked()) {
            // Whoever is asked must not be waited for with the writer lock held, and may take long: what stands there
            // afterwards is opened anew.
            lock.unlock();
            if (const auto unlocked = unlock(**database, path); !unlocked)
                return unlocked;
            continue;
        }
        const auto turn = (*database)->beginWriting();
        if (turn) {
            const auto settled = settleAbandoned(**database, **turn);
            return settled ? writer(**database, **turn) : settled;
        }
        if (!isUnwritable(turn.status()))
            return turn.failure();
        RefusedTurn refused(turn.failure());
        database = backend()->open(path, Access::read);
        return database ? writer(**database, refused) : database.failure();
    }
}

Status createAll(Database& database, WriteTurn& turn, const std::vector<Creation>& creations)
{
    const auto missing = missingOf(creations);
    if (!missing || missing->empty())
        return missing ? Status() : missing.failure();
    Intent intent;
    std::vector<ObjectName> names;
    for (const auto* creation : *missing) {
        intent.objects.push_back({creation->name});
        names.push_back(creation->name);
    }
    Status status = declare(turn, Intent::Purpose::make, names);
    if (!status)
        return status;
    status = makeAll(turn, *missing, intent);
    if (status)
        status = turn.finish();
    if (status)
        return status;
    // Where undoing fails too, the record stays and the next writer undoes it.
    if (const auto& last = intent.objects.back(); last.progress != Intent::Progress::intended)
        static_cast<void>(turn.note(last.name, last.progress));
    static_cast<void>(turn.withdraw());
    if (undoMaking(database, intent))
        static_cast<void>(turn.finish());
    return status;
}

Status removeWithTrust(Database& database, WriteTurn& turn, std::span<const std::uint8_t> certificate)
{
    const auto there = database.containsCertificate(certificate);
    if (!there)
        return there.failure();
    if (!*there)
        return Failure{errSecInvalidItemRef};
    const auto trust = database.trust(certificate);
    // Nothing is said of it, or nothing can be: another program wrote bytes that are no certificate.
    if (trust.status() == errSecItemNotFound || trust.status() == errSecUnknownFormat)
        return database.removeCertificate(certificate);
    if (!trust)
        return trust.failure();
    // The trust goes first: without its certificate nobody would find it again.
    Status removed = declare(turn, Intent::Purpose::remove, {{ObjectClass::certificate, sha256(certificate)}});
    if (!removed)
        return removed;
    removed = database.removeTrust(certificate);
    bool isSettled = true;
    if (removed) {
        removed = database.removeCertificate(certificate);
        isSettled = removed || database.setTrust(certificate, *trust);
    }
    // Where neither could be had, the record stays and the next writer finishes the deletion.
    if (isSettled)
        static_cast<void>(turn.finish());
    return removed;
}

} // namespace kf::keychain
