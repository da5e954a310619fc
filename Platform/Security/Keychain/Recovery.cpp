#include "Security/Keychain/Recovery.h"

#include <algorithm>
#include <map>

namespace kf::keychain {

namespace {

using Progress = Intent::Progress;

/// What a keychain holds now, by digest.
struct Contents {
    std::map<Digest, Bytes> certificates; ///< DER
    std::map<Digest, Bytes> keys;         ///< identifiers
};

Result<Contents> contentsOf(Database& database)
{
    auto certificates = database.certificates();
    if (!certificates)
        return certificates.failure();
    auto keys = database.privateKeys();
    if (!keys)
        return keys.failure();
    Contents contents;
    for (auto& record : *certificates)
        contents.certificates.emplace(sha256(record.der), std::move(record.der));
    for (auto& record : *keys)
        contents.keys.emplace(sha256(record.id), std::move(record.id));
    return contents;
}

Result<bool> hasTrust(Database& database, const Bytes& certificate)
{
    const auto trust = database.trust(certificate);
    if (!trust && trust.status() != errSecItemNotFound)
        return trust.failure();
    return static_cast<bool>(trust);
}

Result<bool> isThere(Database& database, const Contents& contents, const ObjectName& object)
{
    if (object.objectClass == ObjectClass::privateKey)
        return contents.keys.contains(object.digest);
    const auto certificate = contents.certificates.find(object.digest);
    if (certificate == contents.certificates.end() || object.objectClass == ObjectClass::certificate)
        return certificate != contents.certificates.end();
    return hasTrust(database, certificate->second);
}

/// Whether the writer had made all that it meant to, or all of it is there: it only failed to say so.
Result<bool> isComplete(Database& database, const Contents& contents, const Intent& intent)
{
    if (intent.isWithdrawn)
        return false;
    for (const auto& object : intent.objects) {
        if (object.progress != Progress::intended)
            continue;
        const auto there = isThere(database, contents, object.name);
        if (!there || !*there)
            return there;
    }
    return true;
}

bool hasMade(const Intent& intent, const ObjectName& object)
{
    return std::ranges::find(intent.objects, Intent::Object{object, Progress::made}) != intent.objects.end();
}

/// The digest of the identifier that a certificate's private key bears; nothing where the bytes are no certificate.
std::optional<Digest> keyDigestOf(const Bytes& certificate)
{
    const auto fields = readCertificateFields(certificate);
    if (!fields)
        return std::nullopt;
    return sha256(fields->keyId);
}

/// Whether somebody else has come to need a certificate that we made.
Result<bool> isNeeded(
    Database& database, const Contents& contents, const Intent& intent, const Digest& digest, const Bytes& certificate)
{
    if (!hasMade(intent, {ObjectClass::trust, digest})) {
        const auto trusted = hasTrust(database, certificate);
        if (!trusted || *trusted)
            return trusted;
    }
    const auto keyDigest = keyDigestOf(certificate);
    return std::ranges::any_of(intent.objects, [&](const Intent::Object& object) {
        return object.name.objectClass == ObjectClass::privateKey && object.name.digest == keyDigest
            && object.progress != Progress::made && contents.keys.contains(object.name.digest);
    });
}

/// The certificates of ours that go; they are taken out of `contents`.
Result<std::vector<Bytes>> takeUnneeded(Database& database, Contents& contents, const Intent& intent)
{
    std::vector<Bytes> unneeded;
    for (const auto& object : intent.objects) {
        const auto certificate = contents.certificates.find(object.name.digest);
        if (object.name.objectClass != ObjectClass::certificate || object.progress != Progress::made
            || certificate == contents.certificates.end())
            continue;
        const auto needed = isNeeded(database, contents, intent, object.name.digest, certificate->second);
        if (!needed)
            return needed.failure();
        if (!*needed)
            unneeded.push_back(std::move(contents.certificates.extract(certificate).mapped()));
    }
    return unneeded;
}

/// The identifiers of private keys that were made, or may have been when the writer died, and that no certificate
/// belongs to.
std::vector<Bytes> loneKeys(const Contents& contents, const Intent& intent)
{
    std::vector<Bytes> lone;
    for (const auto& object : intent.objects) {
        const auto key = contents.keys.find(object.name.digest);
        if (object.name.objectClass == ObjectClass::privateKey && object.progress != Progress::found
            && key != contents.keys.end() && std::ranges::none_of(contents.certificates, [&](const auto& certificate) {
                   return keyDigestOf(certificate.second) == object.name.digest;
               }))
            lone.push_back(key->second);
        if (object.progress == Progress::intended)
            break; // what follows had not been begun
    }
    return lone;
}

/// An object that another program was faster to remove is no failure.
Status unlessGone(const Status& removed, OSStatus gone) { return removed.status() == gone ? Status() : removed; }

/// A deletion takes the trust first. Where it is gone, the certificate is what is left to remove; where there is trust,
/// nothing had been removed yet, or somebody wants the certificate again. One that a private key belongs to stays: it
/// may have been removed and be another program's now, and its identity would go with it.
Status finishRemoval(Database& database, const Contents& contents, const Intent& intent)
{
    for (const auto& object : intent.objects) {
        const auto certificate = contents.certificates.find(object.name.digest);
        if (object.name.objectClass != ObjectClass::certificate || certificate == contents.certificates.end())
            continue;
        const auto trusted = hasTrust(database, certificate->second);
        if (!trusted)
            return trusted.failure();
        const auto keyDigest = keyDigestOf(certificate->second);
        if (*trusted || (keyDigest && contents.keys.contains(*keyDigest)))
            continue;
        if (const auto removed = unlessGone(database.removeCertificate(certificate->second), errSecInvalidItemRef);
            !removed)
            return removed;
    }
    return {};
}

} // namespace

Status undoMaking(Database& database, const Intent& intent)
{
    auto contents = contentsOf(database);
    if (!contents)
        return contents.failure();
    const auto certificates = contents->certificates;
    const auto unneeded = takeUnneeded(database, *contents, intent);
    if (!unneeded)
        return unneeded.failure();
    // Keys before their certificates, so that none is ever without one; trust before the certificate that tells what it
    // is about.
    for (const auto& id : loneKeys(*contents, intent))
        if (const auto removed = unlessGone(database.removePrivateKey(id), errSecInvalidItemRef); !removed)
            return removed;
    for (const auto& object : intent.objects) {
        const auto certificate = certificates.find(object.name.digest);
        if (object.name.objectClass == ObjectClass::trust && object.progress == Progress::made
            && certificate != certificates.end())
            if (const auto removed = unlessGone(database.removeTrust(certificate->second), errSecItemNotFound);
                !removed)
                return removed;
    }
    for (const auto& certificate : *unneeded)
        if (const auto removed = unlessGone(database.removeCertificate(certificate), errSecInvalidItemRef); !removed)
            return removed;
    return {};
}

Status settleAbandoned(Database& database, WriteTurn& turn)
{
    const Intent& intent = turn.abandoned();
    if (intent.empty())
        return {};
    const auto contents = contentsOf(database);
    if (!contents)
        return contents.failure();
    if (intent.purpose == Intent::Purpose::remove) {
        if (const auto finished = finishRemoval(database, *contents, intent); !finished)
            return finished;
        return turn.finish();
    }
    const auto complete = isComplete(database, *contents, intent);
    if (!complete)
        return complete.failure();
    if (!*complete)
        if (const auto undone = undoMaking(database, intent); !undone)
            return undone;
    return turn.finish();
}

} // namespace kf::keychain
