#include "Security/Keychain/Targets.h"

namespace kf::keychain {

Result<std::vector<SecKeychainRef>> targetKeychains(const Ref<NSObject>& keychainOrArray)
{
    if (auto keychain = refCast<SecKeychain>(keychainOrArray))
        return std::vector<SecKeychainRef>{std::move(keychain)};
    Ref<NSArray> list = refCast<NSArray>(keychainOrArray);
    if (keychainOrArray && !list)
        return Failure{errSecParam};
    if (!list)
        if (const OSStatus status = SecKeychainCopySearchList(&list); status != errSecSuccess)
            return Failure{status};
    std::vector<SecKeychainRef> keychains;
    for (const Ref<NSObject>& object : *list) {
        auto keychain = refCast<SecKeychain>(object);
        if (!keychain)
            return Failure{errSecParam};
        keychains.push_back(std::move(keychain));
    }
    return keychains;
}

} // namespace kf::keychain
