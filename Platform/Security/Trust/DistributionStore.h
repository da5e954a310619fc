// The authorities that the distribution trusts.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <memory>
#include <string>
#include <vector>

namespace kf::trust {

/// A read-only set of trusted authorities, looked up one name at a time, so
/// that nobody pays for reading the hundred and more that never come up. Any thread.
class DistributionStore {
public:
    virtual ~DistributionStore();
    /// The DER of each authority whose subject is `subject` (DER of the Name);
    /// what cannot be read is left out.
    virtual std::vector<Bytes> certificatesWithSubject(std::span<const std::uint8_t> subject) const = 0;
    /// The DER of all of them, each once, in an order that stays; what cannot be read is left out.
    virtual std::vector<Bytes> certificates() const = 0;
};

/// A directory of PEM files named by the hash of their subject, as c_rehash and
/// update-ca-certificates make it.
class HashedDirectoryStore final : public DistributionStore {
public:
    explicit HashedDirectoryStore(std::string directory);
    std::vector<Bytes> certificatesWithSubject(std::span<const std::uint8_t> subject) const override;
    std::vector<Bytes> certificates() const override;

private:
    std::string directory_;
};

/// The process's store: /etc/ssl/certs unless another one was set. Any thread.
std::shared_ptr<const DistributionStore> distributionStore();
/// Replaces it (null: back to the machine's) and gives back the one before.
std::shared_ptr<const DistributionStore> setDistributionStore(std::shared_ptr<const DistributionStore> store);

} // namespace kf::trust
