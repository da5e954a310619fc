#include "Security/SecKeychain.h"

#include "Security/Keychain/Locations.h"
#include "Security/Keychain/Store.h"

#include <cstring>

SecKeychain::~SecKeychain() = default;

bool SecKeychain::isEqual(const NSObject* other) const noexcept
{
    const auto* keychain = dynamic_cast<const SecKeychain*>(other);
    return keychain && keychain->path_ == path_;
}

CFHashCode SecKeychain::hash() const noexcept { return std::hash<std::string>()(path_); }

Ref<NSString> SecKeychain::description() const { return NSString::stringWithUTF8String(path_); }

OSStatus SecKeychainCopyDefault(SecKeychainRef* keychain)
{
    if (!keychain)
        return errSecParam;
    keychain->reset();
    const auto path = kf::keychain::defaultKeychainPath(*kf::keychain::backend());
    if (!path)
        return errSecNoDefaultKeychain;
    *keychain = makeRef<SecKeychain>(*path);
    return errSecSuccess;
}

OSStatus SecKeychainCopySearchList(Ref<NSArray>* searchList)
{
    if (!searchList)
        return errSecParam;
    const auto list = NSMutableArray::array();
    for (const auto& path : kf::keychain::searchListPaths(*kf::keychain::backend()))
        list->addObject(makeRef<SecKeychain>(path));
    *searchList = NSArray::arrayWithArray(list);
    return errSecSuccess;
}

OSStatus SecKeychainOpen(const char* path, SecKeychainRef* keychain)
{
    if (!keychain)
        return errSecParam;
    keychain->reset();
    if (!path || !*path || !NSString::stringWithUTF8String(path))
        return errSecParam;
    *keychain = makeRef<SecKeychain>(kf::keychain::normalizedPath(path));
    return errSecSuccess;
}

OSStatus SecKeychainGetPath(const SecKeychainRef& keychain, std::uint32_t* pathLength, char* pathName)
{
    if (!keychain || !pathLength || !pathName)
        return errSecParam;
    const std::string& path = keychain->path();
    const std::uint32_t room = *pathLength;
    *pathLength = static_cast<std::uint32_t>(path.size());
    if (room < path.size())
        return errSecBufferTooSmall;
    std::memcpy(pathName, path.data(), path.size());
    if (room > path.size())
        pathName[path.size()] = '\0';
    return errSecSuccess;
}
