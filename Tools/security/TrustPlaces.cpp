#include "security/SystemKeychain.h"

namespace kf::security {

std::vector<std::unique_ptr<TrustPlace>> trustPlaces()
{
    std::vector<std::unique_ptr<TrustPlace>> places;
    places.push_back(std::make_unique<SystemKeychain>());
    for (auto& place : publishedPlaces())
        places.push_back(std::move(place));
    return places;
}

} // namespace kf::security
