// Keychains: databases of certificates, private keys and trust.
//
// A keychain is an NSS database directory. Where the user's stands, and which
// keychains are searched, is told in docs/architecture.md. All calls may be
// made from any thread.
#pragma once

#include "Foundation/NSArray.h"
#include "Security/SecBase.h"

/// A keychain's name: the absolute path of its directory. Immutable; equal where the paths are.
class SecKeychain final : public NSObject {
public:
    const std::string& path() const noexcept { return path_; }

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "SecKeychain"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit SecKeychain(std::string path) noexcept : path_(std::move(path)) { }
    ~SecKeychain() override;

    std::string path_;
};
using SecKeychainRef = Ref<SecKeychain>;

/// The user's default keychain. It need not exist yet: it is made when the
/// first item is written. The caller owns `*keychain`.
/// Errors: errSecNoDefaultKeychain where the user has no home directory.
OSStatus SecKeychainCopyDefault(SecKeychainRef* keychain);

/// The keychains that a search over "all" looks at, in order, worked out anew
/// at each call: the default keychain, the other one of the two user
/// directories, the System keychain; each where it exists. The caller owns
/// `*searchList`, an array of SecKeychain.
OSStatus SecKeychainCopySearchList(Ref<NSArray>* searchList);

/// A keychain by its directory's path (UTF-8). Does not touch the disk: a
/// keychain that cannot be read fails where it is used.
OSStatus SecKeychainOpen(const char* path, SecKeychainRef* keychain);

/// The path of the keychain's directory. `*pathLength` is the room in
/// `pathName` on entry and the path's length in bytes, without terminator, on
/// return, also when the room is too small (errSecBufferTooSmall, nothing
/// written). A terminator is written where there is room for one.
OSStatus SecKeychainGetPath(const SecKeychainRef& keychain, std::uint32_t* pathLength, char* pathName);
