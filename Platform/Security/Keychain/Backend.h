// Where keychains lie: one interface, with NSS, memory and injected faults behind it.
//
// A database holds certificates, private keys and, for some certificates, one
// trust object. It knows nothing of items, attributes or searches: those are
// worked out above it, from what it lists, the same way for every back end.
#pragma once

#include "Foundation/SecretBytes.h"
#include "Security/Keychain/KeychainAccess.h"

#include <memory>

namespace kf::keychain {

enum class ObjectClass : std::uint8_t { certificate, privateKey, trust };

/// An object's name for good. The digest is SHA-256 of a certificate's DER, of a
/// key's identifier, and, for trust, of the DER of the certificate it is about.
struct ObjectName {
    ObjectClass objectClass;
    Digest digest;
    friend bool operator==(const ObjectName&, const ObjectName&) = default;
};

struct CertificateRecord {
    Bytes der; ///< as stored: it may be no certificate at all
    std::string label;
};

struct KeyRecord {
    Bytes id; ///< CKA_ID
    std::string label;
};

/// Everything of a private key, on its way into a database. Secret.
struct PrivateKey {
    enum class Kind : std::uint8_t { rsa, ec };
    Kind kind = Kind::rsa;
    Bytes id;      ///< SHA-1 of publicValue
    Bytes subject; ///< the Name of its certificate, DER
    std::string label;
    bool extractable = true; ///< whether it may leave the keychain again, wrapped
    Bytes publicValue;       ///< RSA modulus, unsigned without leading zero, or EC point, uncompressed
    Bytes parameters;        ///< EC: the named curve, DER
    Bytes publicExponent;
    SecretBytes privateValue; ///< RSA private exponent, or EC scalar
    SecretBytes prime1, prime2, exponent1, exponent2, coefficient;
};

/// Tells two states of a database apart; nothing else can be read from it.
using Generation = std::array<std::uint64_t, 8>;

/// What a writer of several objects sets down, before and while it writes: enough for the next writer to settle what
/// one that died left behind, and no secrets.
struct Intent {
    enum class Purpose : std::uint8_t { make, remove };
    enum class Progress : std::uint8_t {
        intended,
        made,
        found, ///< another program made it first: it is not ours to undo
    };
    struct Object {
        ObjectName name;
        Progress progress = Progress::intended;
        friend bool operator==(const Object&, const Object&) = default;
    };

    Purpose purpose = Purpose::make;
    std::vector<Object> objects;
    bool isWithdrawn = false; ///< what was made is to go again

    bool empty() const noexcept { return objects.empty(); }
    friend bool operator==(const Intent&, const Intent&) = default;
};

/// The turn of one writer, among all threads and processes. It ends with the
/// object or, at the latest, with the process. What it sets down is safe from a
/// crash when the call returns. A turn that ends without finish() leaves its
/// record behind, for the next turn to find it as abandoned().
class WriteTurn {
public:
    virtual ~WriteTurn() = default;
    /// The record of a writer that never finished; empty for none.
    virtual const Intent& abandoned() const noexcept = 0;
    /// The objects about to be made, none of which exists now, in the order in which they will be, or about to be
    /// removed. Once in a turn until finish(). errSecDataTooLarge above mostIntendedObjects.
    virtual Status declare(Intent::Purpose purpose, const std::vector<ObjectName>& objects) = 0;
    /// What became of an object that was declared: made or found. After a power cut the note may be there and the
    /// object gone, where that was the last thing to be made.
    virtual Status note(const ObjectName& object, Intent::Progress progress) = 0;
    /// That all that was made is about to go again.
    virtual Status withdraw() = 0;
    /// Takes the record away: there is nothing to settle any more.
    virtual Status finish() = 0;
};

inline constexpr std::size_t mostIntendedObjects = 4096;

/// One open database. Any thread may read; writers hold the process's writer
/// lock (Store.h) and a turn of the database. Listing gives each object once,
/// in an order that stays while nothing is written.
class Database {
public:
    virtual ~Database() = default;

    /// Changes with every change of the objects, whoever made it.
    virtual Result<Generation> generation() = 0;

    /// True while a pass phrase is needed for keys, trust and writing.
    virtual bool isLocked() = 0;
    /// errSecAuthFailed for a wrong pass phrase.
    virtual Status unlock(std::span<const std::uint8_t> passphrase) = 0;

    virtual Result<std::vector<CertificateRecord>> certificates() = 0;
    /// errSecInteractionNotAllowed while locked.
    virtual Result<std::vector<KeyRecord>> privateKeys() = 0;
    virtual Result<bool> containsCertificate(std::span<const std::uint8_t> der) = 0;
    /// errSecInteractionNotAllowed while locked.
    virtual Result<bool> containsPrivateKey(std::span<const std::uint8_t> id) = 0;
    /// A key on its way out: its PrivateKeyInfo (RFC 5208). Besides the above, errSecInvalidItemRef where it is not
    /// there, errSecKeyIsSensitive where it may not leave, errSecUnimplemented where keys never do.
    virtual Result<SecretBytes> privateKeyInfo(std::span<const std::uint8_t> id) = 0;

    /// errSecReadOnly or errSecWrPerm where this database cannot be written; errSecKeychainBusy where another process's
    /// turn does not end.
    virtual Result<std::unique_ptr<WriteTurn>> beginWriting() = 0;

    // All that follows needs a turn and gives beginWriting()'s reason where this database cannot be written, else
    // errSecInteractionNotAllowed while locked, whatever else is wrong with the call; a failure changes nothing.

    /// errSecDuplicateItem where it is there, errSecIssuerAndSerialTaken where another certificate of its issuer and
    /// serial number is (a database holds one), errSecUnknownFormat where it is no certificate. Where another subject's
    /// certificate bears the label already, " #2" and so on is added; certificates of one subject may share a label.
    virtual Status addCertificate(std::span<const std::uint8_t> der, const std::string& label) = 0;
    /// errSecDuplicateItem where a key of that identifier is there.
    virtual Status addPrivateKey(const PrivateKey& key) = 0;
    /// Removes exactly this object; its trust stays. errSecInvalidItemRef where it is not there.
    virtual Status removeCertificate(std::span<const std::uint8_t> der) = 0;
    virtual Status removePrivateKey(std::span<const std::uint8_t> id) = 0;
    /// errSecInvalidItemRef where the object is not there, errSecDuplicateItem where another subject's certificate
    /// bears the label.
    virtual Status setCertificateLabel(std::span<const std::uint8_t> der, const std::string& label) = 0;
    virtual Status setPrivateKeyLabel(std::span<const std::uint8_t> id, const std::string& label) = 0;

    // Of trust, each gives errSecUnknownFormat where the bytes are no certificate.

    /// errSecItemNotFound where nothing is said of the certificate, errSecInteractionNotAllowed while locked. Needs no
    /// turn.
    virtual Result<Trust> trust(std::span<const std::uint8_t> certificate) = 0;
    /// Writes or replaces.
    virtual Status setTrust(std::span<const std::uint8_t> certificate, const Trust& trust) = 0;
    /// errSecItemNotFound where there is none.
    virtual Status removeTrust(std::span<const std::uint8_t> certificate) = 0;
};

enum class Access : std::uint8_t {
    read,   ///< nothing is ever written
    write,  ///< an existing database
    create, ///< as write; made where it is not there
};

/// A place of databases, found by their directories' paths. Any thread.
class Backend {
public:
    virtual ~Backend() = default;
    /// Whether something stands there that is or ought to be a database.
    virtual bool exists(const std::string& path) = 0;
    /// The database at a path; equal paths may give the same object. It stays
    /// usable while it is held, also after another one was made in its place.
    /// errSecNoSuchKeychain where there is none (and none is to be made).
    virtual Result<std::shared_ptr<Database>> open(const std::string& path, Access access) = 0;
    /// Closes what is kept open and not in use. Everything can be opened again.
    virtual void closeAll() = 0;
};

} // namespace kf::keychain
