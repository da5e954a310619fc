#include "security/TrustStore.h"

#include "security/DebianTrustStore.h"

namespace kf::security {

TrustStore::~TrustStore() = default;

std::unique_ptr<TrustStore> distributionTrustStore()
{
    if (DebianTrustStore::isHere())
        return std::make_unique<DebianTrustStore>(DebianTrustStore::Places());
    return nullptr;
}

} // namespace kf::security
