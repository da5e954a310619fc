// Searching keychains for items by attributes.
#pragma once

#include "Security/SecKeychainItem.h"

#include <memory>

/// A search under way. One thread at a time.
class SecKeychainSearch final : public NSObject {
public:
    const char* className() const noexcept override { return "SecKeychainSearch"; }
    class State;
    State& state() const noexcept { return *state_; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit SecKeychainSearch(std::unique_ptr<State> state) noexcept;
    ~SecKeychainSearch() override;

    std::unique_ptr<State> state_;
};
using SecKeychainSearchRef = Ref<SecKeychainSearch>;

/// A search for items of a class whose attributes equal every one of
/// `attributes` (null or an empty list: all items). `keychainOrArray` is a
/// SecKeychain, an array of them, or nil for the search list as it is now. The
/// caller owns `*search`; nothing is read before the first CopyNext.
/// Errors: errSecNoSuchClass, errSecNoSuchAttr, errSecParam.
///
/// An alias matches, byte for byte, any e-mail address of a certificate or its
/// common name.
OSStatus SecKeychainSearchCreateFromAttributes(const Ref<NSObject>& keychainOrArray, SecItemClass itemClass,
    const SecKeychainAttributeList* attributes, SecKeychainSearchRef* search);

/// The next item, owned by the caller. errSecItemNotFound at the end, then for
/// ever; errSecInvalidSearchRef for a nil search. A keychain that cannot be
/// read gives its error once, and the call after it goes on with the next one.
OSStatus SecKeychainSearchCopyNext(const SecKeychainSearchRef& search, SecKeychainItemRef* item);
