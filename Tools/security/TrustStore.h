// The machine's own stores of trusted authorities.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <memory>
#include <string>

namespace kf::security {

/// What came of a change to a store.
struct Outcome {
    bool succeeded = false;
    std::string text; ///< what was done, or why it was not
};

/// A store that programs of the machine consult. Its tool has no lock and its
/// exit status proves little: implementations take turns among themselves and
/// look at the result. Needs root.
class TrustStore {
public:
    virtual ~TrustStore();
    /// What people call it.
    virtual std::string name() const = 0;
    /// Makes an authority trusted; what is there already is left as it is.
    virtual Outcome add(const Bytes& certificate) = 0;
    /// Takes out exactly what add() put in. Success where nothing was there.
    virtual Outcome remove(const Bytes& certificate) = 0;
};

/// The store of the distribution that runs here; null for one that is not known.
std::unique_ptr<TrustStore> distributionTrustStore();

} // namespace kf::security
