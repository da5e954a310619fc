#include "Security/Keychain/Store.h"

#include "Security/Keychain/Locations.h"
#include "Security/Keychain/NSSBackend.h"
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
    if (built) {
        const std::lock_guard lock(caches().mutex);
        (caches().*cache)[path] = {*generation, *built};
    }
    return built;
}

bool isMissing(OSStatus status, const std::string& path)
{
    return status == errSecNoSuchKeychain && mayBeMissing(path);
}

/// Removes the objects that are there. Trust goes before the certificate that tells what it is about.
Status removeObjects(Database& database, const std::vector<ObjectName>& objects)
{
    const auto certificates = database.certificates();
    if (!certificates)
        return certificates.failure();
    const auto keys = database.privateKeys();
    if (!keys)
        return keys.failure();
    const auto isListed = [&](ObjectClass objectClass, const Digest& digest) {
        return std::ranges::find(objects, ObjectName{objectClass, digest}) != objects.end();
    };
    for (const auto& record : *certificates) {
        const Digest digest = sha256(record.der);
        if (isListed(ObjectClass::trust, digest))
            if (const auto removed = database.removeTrust(record.der);
                !removed && removed.status() != errSecItemNotFound)
                return removed;
        if (isListed(ObjectClass::certificate, digest))
            if (const auto removed = database.removeCertificate(record.der); !removed)
                return removed;
    }
    for (const auto& record : *keys)
        if (isListed(ObjectClass::privateKey, sha256(record.id)))
            if (const auto removed = database.removePrivateKey(record.id); !removed)
                return removed;
    return {};
}

Result<bool> allThere(Database& database, const std::vector<ObjectName>& objects)
{
    const auto certificates = database.certificates();
    if (!certificates)
        return certificates.failure();
    const auto keys = database.privateKeys();
    if (!keys)
        return keys.failure();
    std::vector<ObjectName> present;
    for (const auto& record : *certificates) {
        const Digest digest = sha256(record.der);
        present.push_back({ObjectClass::certificate, digest});
        if (database.trust(record.der))
            present.push_back({ObjectClass::trust, digest});
    }
    for (const auto& record : *keys)
        present.push_back({ObjectClass::privateKey, sha256(record.id)});
    return std::ranges::all_of(
        objects, [&](const auto& object) { return std::ranges::find(present, object) != present.end(); });
}

/// A writer that made all its objects only failed to say so; of any other, those made go.
Status settleAbandoned(Database& database, WriteTurn& turn)
{
    if (turn.abandoned().empty())
        return {};
    const auto complete = allThere(database, turn.abandoned());
    if (!complete)
        return complete.failure();
    if (!*complete)
        if (const auto removed = removeObjects(database, turn.abandoned()); !removed)
            return removed;
    return turn.finish();
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
    const auto database = backend()->open(path, Access::read);
    if (!database) {
        if (isMissing(database.status(), path))
            return Index(std::make_shared<const KeyIndex>(std::vector<KeyRecord>()));
        return database.failure();
    }
    Database& open = **database;
    if (const auto unlocked = unlock(open, path); !unlocked)
        return unlocked.failure();
    return freshIndex(&Caches::keys, path, open, [&](const KeyIndex*) -> Result<Index> {
        auto records = open.privateKeys();
        if (!records)
            return records.failure();
        return Index(std::make_shared<const KeyIndex>(std::move(*records)));
    });
}

Status withDatabase(const std::string& path, bool unlocked, const std::function<Status(Database&)>& reader)
{
    const auto database = backend()->open(path, Access::read);
    if (!database)
        return database.failure();
    if (unlocked)
        if (const auto opened = unlock(**database, path); !opened)
            return opened;
    return reader(**database);
}

Status writeDatabase(const std::string& path, Access access, const std::function<Status(Database&, WriteTurn&)>& writer)
{
    // Opened and unlocked in two steps: whoever is asked for the pass phrase
    // must not be waited for with the writer lock held.
    std::shared_ptr<Database> database;
    {
        const std::lock_guard lock(writerLock());
        auto opened = backend()->open(path, access);
        if (!opened)
            return opened.failure();
        database = std::move(*opened);
    }
    if (const auto unlocked = unlock(*database, path); !unlocked)
        return unlocked;
    const std::lock_guard lock(writerLock());
    const auto turn = database->beginWriting();
    if (!turn)
        return turn.failure();
    if (const auto settled = settleAbandoned(*database, **turn); !settled)
        return settled;
    return writer(*database, **turn);
}

Status createAll(Database& database, WriteTurn& turn, const std::vector<Creation>& creations)
{
    std::vector<ObjectName> missing;
    std::vector<const Creation*> toMake;
    for (const auto& creation : creations) {
        const auto there = creation.isThere();
        if (!there)
            return there.failure();
        if (*there || std::ranges::find(missing, creation.name) != missing.end())
            continue;
        missing.push_back(creation.name);
        toMake.push_back(&creation);
    }
    if (missing.empty())
        return {};
    Status status = turn.declare(missing);
    for (auto creation = toMake.begin(); status && creation != toMake.end(); ++creation) {
        status = (*creation)->make();
        if (status.status() == errSecDuplicateItem) {
            // Another program was faster: it is not ours to undo.
            std::erase(missing, (*creation)->name);
            status = turn.declare(missing);
        }
    }
    if (status)
        status = turn.finish();
    if (status)
        return status;
    // Where undoing fails too, the declaration stays and the next writer undoes it.
    if (const auto removed = removeObjects(database, missing); removed)
        static_cast<void>(turn.finish());
    return status;
}

} // namespace kf::keychain
