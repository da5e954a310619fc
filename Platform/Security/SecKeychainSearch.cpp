#include "Security/SecKeychainSearch.h"

#include "Security/Keychain/Attributes.h"
#include "Security/Keychain/KeychainWalk.h"
#include "Security/Keychain/Store.h"
#include "Security/Keychain/Targets.h"
#include "Security/SecIdentity.h"

using namespace kf;
using namespace kf::keychain;

class SecKeychainSearch::State : public KeychainWalk<SecKeychainItem> {
    using KeychainWalk::KeychainWalk;
};

SecKeychainSearch::SecKeychainSearch(std::unique_ptr<State> state) noexcept : state_(std::move(state)) { }
SecKeychainSearch::~SecKeychainSearch() = default;

namespace {

using Items = std::vector<SecKeychainItemRef>;

Result<Items> findCertificates(const SecKeychainRef& keychain, const std::vector<AttributeValue>& attributes)
{
    const auto index = certificateIndex(keychain->path());
    if (!index)
        return index.failure();
    Items items;
    for (const auto position : matching(**index, attributes))
        items.push_back(makeRef<SecCertificate>((*index)->entries()[position].certificate, keychain));
    return items;
}

Result<Items> findKeys(const SecKeychainRef& keychain, const std::vector<AttributeValue>& attributes)
{
    const auto index = keyIndex(keychain->path());
    if (!index)
        return index.failure();
    Items items;
    for (const auto position : matching(**index, attributes))
        items.push_back(makeRef<SecKey>((*index)->entries()[position].id, keychain));
    return items;
}

Result<std::vector<AttributeValue>> searchedAttributes(
    SecItemClass itemClass, const SecKeychainAttributeList* attributes)
{
    std::vector<AttributeValue> values;
    if (!attributes || attributes->count == 0)
        return values;
    if (!attributes->attr)
        return Failure{errSecParam};
    for (const auto& attribute : std::span(attributes->attr, attributes->count)) {
        if (!classHasAttribute(itemClass, attribute.tag))
            return Failure{errSecNoSuchAttr};
        if (!attribute.data && attribute.length > 0)
            return Failure{errSecParam};
        const auto* bytes = static_cast<const std::uint8_t*>(attribute.data);
        values.push_back({attribute.tag, Bytes(bytes, bytes + attribute.length)});
    }
    return values;
}

} // namespace

OSStatus SecKeychainSearchCreateFromAttributes(const Ref<NSObject>& keychainOrArray, SecItemClass itemClass,
    const SecKeychainAttributeList* attributes, SecKeychainSearchRef* search)
{
    if (!search)
        return errSecParam;
    search->reset();
    if (!isItemClass(itemClass))
        return errSecNoSuchClass;
    auto values = searchedAttributes(itemClass, attributes);
    if (!values)
        return values.status();
    auto keychains = targetKeychains(keychainOrArray);
    if (!keychains)
        return keychains.status();
    const auto find = itemClass == kSecCertificateItemClass ? findCertificates : findKeys;
    *search = makeRef<SecKeychainSearch>(std::make_unique<SecKeychainSearch::State>(std::move(*keychains),
        [find, values = std::move(*values)](const SecKeychainRef& keychain) { return find(keychain, values); }));
    return errSecSuccess;
}

OSStatus SecKeychainSearchCopyNext(const SecKeychainSearchRef& search, SecKeychainItemRef* item)
{
    if (item)
        item->reset();
    if (!search)
        return errSecInvalidSearchRef;
    if (!item)
        return errSecParam;
    auto next = search->state().next();
    if (!next)
        return next.status();
    *item = std::move(*next);
    return errSecSuccess;
}
