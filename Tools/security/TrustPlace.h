// The places of this machine that say which authorities are trusted.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kf::security {

/// What came of a change to a place.
struct Outcome {
    enum class Kind {
        done,
        unchanged,  ///< nothing to do: it was so already
        notPresent, ///< this machine has no such place
        failed,
    };
    Kind kind = Kind::failed;
    std::string text; ///< what was done, or why it was not

    bool succeeded() const noexcept { return kind != Kind::failed; }
};

Outcome done(std::string text);
Outcome unchanged(std::string text);
Outcome notPresent();
Outcome failed(std::string text);

/// A certificate that a place holds.
struct HeldCertificate {
    std::string digest; ///< SHA-256 in hexadecimal
    std::string label;
};

/// What a place holds now.
struct PlaceStatus {
    enum class Kind {
        readable,
        notPresent, ///< this machine has no such place
        failed,     ///< it cannot be read
    };
    Kind kind = Kind::readable;
    std::string text{};    ///< what else is to be said; why it cannot be read
    std::string follows{}; ///< the place that this one consults, where it holds nothing itself
    /// The authorities trusted there: of the keychain all, of the others those that we published.
    std::vector<HeldCertificate> certificates{};
    std::set<std::string> others{}; ///< the digests of those trusted there on somebody else's account
};

/// One place that programs of the machine consult. What programs are run to
/// change it take no turns and their exit status proves little: implementations
/// take turns among themselves and look at the result. Changing needs root.
class TrustPlace {
public:
    virtual ~TrustPlace();
    /// What people call it.
    virtual std::string name() const = 0;
    /// Whether a failure here is one of the whole command; else the place is one of best effort.
    virtual bool decides() const noexcept = 0;
    /// Makes an authority trusted; what is there already is left as it is.
    virtual Outcome add(const Bytes& certificate) = 0;
    /// Takes out exactly what add() put in. Success where nothing was there.
    virtual Outcome remove(const Bytes& certificate) = 0;
    /// What is there now. Changes nothing and needs no rights.
    virtual PlaceStatus status() const = 0;
};

/// A place that the System keychain's trust is published to.
class PublishedPlace : public TrustPlace {
public:
    /// Takes out what add() put in for any certificate, without knowing which
    /// they were. Success where nothing was there.
    virtual Outcome removeAll() = 0;
};

/// Every place, in the order in which they are changed: the System keychain,
/// whose trust the others publish, comes first.
std::vector<std::unique_ptr<TrustPlace>> trustPlaces();
/// All but the System keychain. Here no keychain is needed.
std::vector<std::unique_ptr<PublishedPlace>> publishedPlaces();

/// Held by whoever changes more than one place: an addition and a removal that
/// overlap would leave some places with the one and some with the other.
inline constexpr const char* turnLock = "/run/keyfold-trust.lock";

/// Calls `change`; what it throws becomes a failure of that one place.
Outcome attempt(const std::function<Outcome()>& change);

/// A name for a certificate's file: "keyfold-NAME-DIGEST" of [a-z0-9-].
std::string publishedName(const Bytes& certificate);
/// What all of them begin with.
inline constexpr const char* publishedPrefix = "keyfold-";

} // namespace kf::security
