#include "Security/Keychain/NSSDatabase.h"

#include "Security/Keychain/Index.h"
#include "Security/Keychain/IntentFile.h"
#include "Security/Keychain/Labels.h"
#include "Security/Keychain/PKCS11Objects.h"

#include <openssl/evp.h>

namespace kf::keychain {

namespace {

constexpr int labelAttempts = 8;

using Handles = std::vector<CK_OBJECT_HANDLE>;

Status outcomeOf(CK_RV value)
{
    if (value != CKR_OK)
        return Failure{statusOfPKCS11(value)};
    return {};
}

std::array<std::uint8_t, 16> md5(std::span<const std::uint8_t> bytes)
{
    std::array<std::uint8_t, 16> digest{};
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_md5(), nullptr);
    return digest;
}

Template objectsOf(CK_OBJECT_CLASS objectClass)
{
    Template wanted;
    wanted.addWord(CKA_CLASS, objectClass).addBool(CKA_TOKEN, true);
    return wanted;
}

/// The handle of an object as it is now. The subject is there because NSS has an index of it.
Result<Handles> findCertificate(const ScopedSession& session, std::span<const std::uint8_t> der)
{
    Template wanted = objectsOf(CKO_CERTIFICATE);
    const auto fields = readCertificateFields(der);
    if (fields)
        wanted.add(CKA_SUBJECT, fields->subject);
    wanted.add(CKA_VALUE, der);
    return findObjects(session, wanted);
}

Result<Handles> findKey(const ScopedSession& session, std::span<const std::uint8_t> id)
{
    Template wanted = objectsOf(CKO_PRIVATE_KEY);
    wanted.add(CKA_ID, id);
    return findObjects(session, wanted);
}

Result<Handles> findTrust(const ScopedSession& session, std::span<const std::uint8_t> der)
{
    const auto fields = readCertificateFields(der);
    if (!fields)
        return fields.failure();
    const auto hash = sha1(der);
    Template wanted = objectsOf(CKO_NSS_TRUST);
    wanted.add(CKA_ISSUER, fields->issuer).add(CKA_SERIAL_NUMBER, fields->serial).add(CKA_CERT_SHA1_HASH, hash);
    return findObjects(session, wanted);
}

Result<bool> anyOf(const Result<Handles>& objects)
{
    if (!objects)
        return objects.failure();
    return !objects->empty();
}

/// What `change` gives for the first object.
template <class Change>
Status changeFirst(const Result<Handles>& objects, OSStatus whenMissing, Change change)
{
    if (!objects)
        return objects.failure();
    if (objects->empty())
        return Failure{whenMissing};
    return outcomeOf(change(objects->front()));
}

Status destroyFirst(const ScopedSession& session, const Result<Handles>& objects, OSStatus whenMissing)
{
    return changeFirst(objects, whenMissing,
        [&](CK_OBJECT_HANDLE object) { return session.functions().C_DestroyObject(session.handle(), object); });
}

CK_RV setAttributes(const ScopedSession& session, CK_OBJECT_HANDLE object, Template& change)
{
    return session.functions().C_SetAttributeValue(session.handle(), object, change.data(), change.size());
}

CK_RV setLabel(const ScopedSession& session, CK_OBJECT_HANDLE object, const std::string& label)
{
    Template change;
    change.add(CKA_LABEL, label);
    return setAttributes(session, object, change);
}

/// The plain return value: a refused label must be told from other failures.
CK_RV createObject(const ScopedSession& session, Template& object)
{
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    return session.functions().C_CreateObject(session.handle(), object.data(), object.size(), &handle);
}

/// Every object of a class, as what its `value` and its label say.
template <class Record>
Result<std::vector<Record>> recordsOf(
    const ScopedSession& session, CK_OBJECT_CLASS objectClass, CK_ATTRIBUTE_TYPE value)
{
    Template wanted = objectsOf(objectClass);
    const auto objects = findObjects(session, wanted);
    if (!objects)
        return objects.failure();
    std::vector<Record> records;
    records.reserve(objects->size());
    for (const auto object : *objects) {
        auto values = readAttributes(session, object, {value, CKA_LABEL});
        if (values.status() == errSecInvalidItemRef)
            continue; // deleted by somebody since it was listed
        if (!values)
            return values.failure();
        records.push_back({std::move((*values)[0]), std::string(asText((*values)[1]))});
    }
    return records;
}

/// NSS refuses a label that another subject's certificate bears.
bool isTaken(const ScopedSession& session, const std::string& label, std::span<const std::uint8_t> subject)
{
    Template bearers = objectsOf(CKO_CERTIFICATE);
    bearers.add(CKA_LABEL, label);
    const auto all = findObjects(session, bearers);
    bearers.add(CKA_SUBJECT, subject);
    const auto own = findObjects(session, bearers);
    return all && own && all->size() > own->size();
}

CK_ULONG wordOf(TrustLevel level)
{
    switch (level) {
    case TrustLevel::trusted:
        return CKT_NSS_TRUSTED_DELEGATOR;
    case TrustLevel::trustedPeer:
        return CKT_NSS_TRUSTED;
    case TrustLevel::denied:
        return CKT_NSS_NOT_TRUSTED;
    case TrustLevel::unspecified:
        break;
    }
    return CKT_NSS_MUST_VERIFY_TRUST;
}

TrustLevel levelOf(CK_ULONG word)
{
    switch (word) {
    case CKT_NSS_TRUSTED_DELEGATOR:
        return TrustLevel::trusted;
    case CKT_NSS_TRUSTED:
        return TrustLevel::trustedPeer;
    case CKT_NSS_NOT_TRUSTED:
        return TrustLevel::denied;
    default:
        return TrustLevel::unspecified;
    }
}

void addTrustWords(Template& object, const Trust& trust)
{
    object.addWord(CKA_TRUST_SERVER_AUTH, wordOf(trust.server))
        .addWord(CKA_TRUST_CLIENT_AUTH, wordOf(trust.client))
        .addWord(CKA_TRUST_EMAIL_PROTECTION, wordOf(trust.email))
        .addWord(CKA_TRUST_CODE_SIGNING, wordOf(trust.codeSigning));
}

void addRSA(Template& object, const PrivateKey& key)
{
    object.addWord(CKA_KEY_TYPE, CKK_RSA)
        .addBool(CKA_DECRYPT, true)
        .addBool(CKA_SIGN_RECOVER, true)
        .addBool(CKA_UNWRAP, true)
        .add(CKA_MODULUS, key.publicValue)
        .add(CKA_PUBLIC_EXPONENT, key.publicExponent)
        .add(CKA_PRIVATE_EXPONENT, key.privateValue)
        .add(CKA_PRIME_1, key.prime1)
        .add(CKA_PRIME_2, key.prime2)
        .add(CKA_EXPONENT_1, key.exponent1)
        .add(CKA_EXPONENT_2, key.exponent2)
        .add(CKA_COEFFICIENT, key.coefficient);
}

void addEC(Template& object, const PrivateKey& key)
{
    object.addWord(CKA_KEY_TYPE, CKK_EC)
        .addBool(CKA_DERIVE, true)
        .add(CKA_EC_PARAMS, key.parameters)
        .add(CKA_VALUE, key.privateValue);
}

} // namespace

OSStatus statusOfPKCS11(CK_RV value) noexcept
{
    switch (value) {
    case CKR_OK:
        return errSecSuccess;
    case CKR_HOST_MEMORY:
        return errSecAllocate;
    case CKR_USER_NOT_LOGGED_IN:
        return errSecInteractionNotAllowed;
    case CKR_TOKEN_WRITE_PROTECTED:
    case CKR_SESSION_READ_ONLY:
        return errSecReadOnly;
    case CKR_OBJECT_HANDLE_INVALID:
        return errSecInvalidItemRef;
    case CKR_DEVICE_ERROR:
    case CKR_DEVICE_MEMORY:
    case CKR_GENERAL_ERROR:
        return errSecIO;
    default:
        return errSecInternalComponent;
    }
}

/// Calls `use` with a session of its own; gives the reason where there can be none.
template <class Use>
auto NSSDatabase::withSession(Need need, Use use) -> decltype(use(std::declval<const ScopedSession&>()))
{
    const bool writing = need == Need::writing;
    if (writing && slot_->writing != errSecSuccess)
        return Failure{slot_->writing};
    if (writing && access_ == Access::read)
        return Failure{errSecReadOnly};
    if (need != Need::reading && isLocked())
        return Failure{errSecInteractionNotAllowed};
    CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (writing ? CKF_RW_SESSION : CK_FLAGS{0});
    const CK_RV opened = slot_->functions->C_OpenSession(slot_->id, flags, nullptr, nullptr, &handle);
    if (opened != CKR_OK)
        return Failure{statusOfPKCS11(opened)};
    return use(ScopedSession(*slot_->functions, handle));
}

Result<Generation> NSSDatabase::generation() { return databaseGeneration(slot_->path); }

bool NSSDatabase::isLocked()
{
    return PK11_NeedLogin(slot_->slot.get()) && !PK11_IsLoggedIn(slot_->slot.get(), nullptr);
}

Status NSSDatabase::unlock(std::span<const std::uint8_t> passphrase)
{
    SecretBytes terminated(passphrase.begin(), passphrase.end());
    terminated.push_back(0);
    switch (PK11_CheckUserPassword(slot_->slot.get(), reinterpret_cast<const char*>(terminated.data()))) {
    case SECSuccess:
        return {};
    case SECWouldBlock:
        return Failure{errSecAuthFailed};
    default:
        return Failure{errSecIO};
    }
}

Result<std::vector<CertificateRecord>> NSSDatabase::certificates()
{
    return withSession(Need::reading,
        [](const ScopedSession& session) { return recordsOf<CertificateRecord>(session, CKO_CERTIFICATE, CKA_VALUE); });
}

Result<std::vector<KeyRecord>> NSSDatabase::privateKeys()
{
    return withSession(Need::unlocked,
        [](const ScopedSession& session) { return recordsOf<KeyRecord>(session, CKO_PRIVATE_KEY, CKA_ID); });
}

Result<bool> NSSDatabase::containsCertificate(std::span<const std::uint8_t> der)
{
    return withSession(
        Need::reading, [&](const ScopedSession& session) { return anyOf(findCertificate(session, der)); });
}

Result<bool> NSSDatabase::containsPrivateKey(std::span<const std::uint8_t> id)
{
    return withSession(Need::unlocked, [&](const ScopedSession& session) { return anyOf(findKey(session, id)); });
}

Result<std::unique_ptr<WriteTurn>> NSSDatabase::beginWriting()
{
    if (slot_->writing != errSecSuccess)
        return Failure{slot_->writing};
    if (access_ == Access::read)
        return Failure{errSecReadOnly};
    return IntentFile::acquire(slot_->path);
}

Status NSSDatabase::addCertificate(std::span<const std::uint8_t> der, const std::string& label)
{
    return withSession(Need::writing, [&](const ScopedSession& session) -> Status {
        const auto fields = readCertificateFields(der);
        if (!fields)
            return fields.failure();
        const auto present = anyOf(findCertificate(session, der));
        if (!present || *present)
            return present ? Failure{errSecDuplicateItem} : present.failure();
        Template ofSameNumber = objectsOf(CKO_CERTIFICATE);
        ofSameNumber.add(CKA_ISSUER, fields->issuer).add(CKA_SERIAL_NUMBER, fields->serial);
        const auto taken = anyOf(findObjects(session, ofSameNumber));
        if (!taken || *taken)
            return taken ? Failure{errSecIssuerAndSerialTaken} : taken.failure();
        CK_RV created = CKR_ATTRIBUTE_VALUE_INVALID;
        // That value tells that the label is taken: the wished one, or by another program since it was looked for.
        for (int attempt = 0; created == CKR_ATTRIBUTE_VALUE_INVALID && attempt < labelAttempts; ++attempt) {
            const std::string chosen = freeLabel(
                label, [&](const std::string& text) { return attempt > 0 && isTaken(session, text, fields->subject); });
            Template object = objectsOf(CKO_CERTIFICATE);
            object.addWord(CKA_CERTIFICATE_TYPE, CKC_X_509)
                .add(CKA_ID, fields->keyId)
                .add(CKA_LABEL, chosen)
                .add(CKA_SUBJECT, fields->subject)
                .add(CKA_ISSUER, fields->issuer)
                .add(CKA_SERIAL_NUMBER, fields->serial)
                .add(CKA_VALUE, der);
            created = createObject(session, object);
        }
        return outcomeOf(created);
    });
}

Status NSSDatabase::addPrivateKey(const PrivateKey& key)
{
    return withSession(Need::writing, [&](const ScopedSession& session) -> Status {
        const auto present = anyOf(findKey(session, key.id));
        if (!present || *present)
            return present ? Failure{errSecDuplicateItem} : present.failure();
        Template object = objectsOf(CKO_PRIVATE_KEY);
        object.addBool(CKA_PRIVATE, true)
            .addBool(CKA_SENSITIVE, true)
            .addBool(CKA_EXTRACTABLE, key.extractable)
            .addBool(CKA_SIGN, true)
            .add(CKA_ID, key.id)
            .add(CKA_LABEL, key.label)
            .add(CKA_SUBJECT, key.subject)
            .add(CKA_NSS_DB, key.publicValue);
        if (key.kind == PrivateKey::Kind::rsa)
            addRSA(object, key);
        else
            addEC(object, key);
        return outcomeOf(createObject(session, object));
    });
}

Status NSSDatabase::removeCertificate(std::span<const std::uint8_t> der)
{
    return withSession(Need::writing, [&](const ScopedSession& session) {
        return destroyFirst(session, findCertificate(session, der), errSecInvalidItemRef);
    });
}

Status NSSDatabase::removePrivateKey(std::span<const std::uint8_t> id)
{
    return withSession(Need::writing, [&](const ScopedSession& session) {
        return destroyFirst(session, findKey(session, id), errSecInvalidItemRef);
    });
}

Status NSSDatabase::setCertificateLabel(std::span<const std::uint8_t> der, const std::string& label)
{
    return withSession(Need::writing, [&](const ScopedSession& session) -> Status {
        CK_RV set = CKR_OK;
        const auto changed = changeFirst(findCertificate(session, der), errSecInvalidItemRef,
            [&](CK_OBJECT_HANDLE object) { return set = setLabel(session, object, label); });
        if (set == CKR_ATTRIBUTE_VALUE_INVALID)
            return Failure{errSecDuplicateItem};
        return changed;
    });
}

Status NSSDatabase::setPrivateKeyLabel(std::span<const std::uint8_t> id, const std::string& label)
{
    return withSession(Need::writing, [&](const ScopedSession& session) {
        return changeFirst(findKey(session, id), errSecInvalidItemRef,
            [&](CK_OBJECT_HANDLE object) { return setLabel(session, object, label); });
    });
}

Result<Trust> NSSDatabase::trust(std::span<const std::uint8_t> certificate)
{
    // While locked, NSS cannot check the trust's integrity and hides it.
    return withSession(Need::unlocked, [&](const ScopedSession& session) -> Result<Trust> {
        const auto objects = findTrust(session, certificate);
        if (!objects)
            return objects.failure();
        if (objects->empty())
            return Failure{errSecItemNotFound};
        const auto level = [&](CK_ATTRIBUTE_TYPE type) {
            return levelOf(readWord(session, objects->front(), type, CKT_NSS_TRUST_UNKNOWN));
        };
        return Trust{level(CKA_TRUST_SERVER_AUTH), level(CKA_TRUST_CLIENT_AUTH), level(CKA_TRUST_EMAIL_PROTECTION),
            level(CKA_TRUST_CODE_SIGNING)};
    });
}

Status NSSDatabase::setTrust(std::span<const std::uint8_t> certificate, const Trust& trust)
{
    return withSession(Need::writing, [&](const ScopedSession& session) -> Status {
        const auto fields = readCertificateFields(certificate);
        if (!fields)
            return fields.failure();
        Template words;
        addTrustWords(words, trust);
        const auto replaced = changeFirst(findTrust(session, certificate), errSecItemNotFound,
            [&](CK_OBJECT_HANDLE object) { return setAttributes(session, object, words); });
        if (replaced.status() != errSecItemNotFound)
            return replaced;
        const auto sha1Hash = sha1(certificate);
        const auto md5Hash = md5(certificate);
        Template object = objectsOf(CKO_NSS_TRUST);
        object.add(CKA_ISSUER, fields->issuer)
            .add(CKA_SERIAL_NUMBER, fields->serial)
            .add(CKA_CERT_SHA1_HASH, sha1Hash)
            .add(CKA_CERT_MD5_HASH, md5Hash)
            .addBool(CKA_TRUST_STEP_UP_APPROVED, false);
        addTrustWords(object, trust);
        return outcomeOf(createObject(session, object));
    });
}

Status NSSDatabase::removeTrust(std::span<const std::uint8_t> certificate)
{
    return withSession(Need::writing, [&](const ScopedSession& session) {
        return destroyFirst(session, findTrust(session, certificate), errSecItemNotFound);
    });
}

} // namespace kf::keychain
