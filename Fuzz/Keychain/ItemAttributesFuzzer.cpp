// The bytes are a list of attributes. Writing them changes the label to the last one given, or nothing at all; reading
// them gives each of them, or nothing.

#include "Security/Keychain/Attributes.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"
#include "Security/SecKeychainSearch.h"
#include "Tests/Certificates/AnyCertificate.h"

#include <algorithm>
#include <cstdlib>

using namespace kf::keychain;

namespace {

using Tags = std::vector<std::uint32_t>;

void require(bool condition)
{
    if (!condition)
        std::abort();
}

constexpr const char* path = "/keychain";
const Tags keyTags = {kSecLabelItemAttr, kSecPublicKeyHashItemAttr};
const Tags certificateTags = {kSecLabelItemAttr, kSecPublicKeyHashItemAttr, kSecAliasItemAttr, kSecCertificateType,
    kSecCertificateEncoding, kSecSubjectItemAttr, kSecIssuerItemAttr, kSecSerialNumberItemAttr,
    kSecSubjectKeyIdentifierItemAttr};

/// A keychain with one certificate and its key.
void fill(MemoryBackend& memory)
{
    static const kf::Bytes der = kf::test::anyCertificate()->parsed().der;
    const auto database = *memory.open(path, Access::create);
    require(bool(database->addCertificate(der, "certificate")));
    PrivateKey key;
    const auto id = kf::readCertificateFields(der)->keyId;
    key.id.assign(id.begin(), id.end());
    key.label = "key";
    require(bool(database->addPrivateKey(key)));
}

SecKeychainItemRef onlyItem(SecItemClass itemClass)
{
    SecKeychainRef keychain;
    SecKeychainSearchRef search;
    SecKeychainItemRef item;
    require(SecKeychainOpen(path, &keychain) == errSecSuccess);
    require(SecKeychainSearchCreateFromAttributes(keychain, itemClass, nullptr, &search) == errSecSuccess);
    require(SecKeychainSearchCopyNext(search, &item) == errSecSuccess);
    return item;
}

/// The values of these attributes; nothing where they cannot be read.
std::vector<kf::Bytes> valuesOf(const SecKeychainItemRef& item, Tags tags)
{
    SecKeychainAttributeInfo info{static_cast<std::uint32_t>(tags.size()), tags.data(), nullptr};
    SecKeychainAttributeList* list = nullptr;
    std::vector<kf::Bytes> values;
    if (SecKeychainItemCopyAttributesAndData(item, &info, nullptr, &list, nullptr, nullptr) != errSecSuccess) {
        require(!list);
        return values;
    }
    require(list->count == tags.size());
    for (const auto& attribute : std::span(list->attr, list->count)) {
        require(attribute.tag == tags[values.size()]);
        const auto* bytes = static_cast<const std::uint8_t*>(attribute.data);
        values.emplace_back(bytes, bytes + attribute.length);
    }
    SecKeychainItemFreeAttributesAndData(list, nullptr);
    return values;
}

/// Takes bytes from the front of the input.
class Input {
public:
    explicit Input(std::span<std::uint8_t> bytes) noexcept : rest_(bytes) { }
    bool atEnd() const noexcept { return rest_.empty(); }
    std::span<std::uint8_t> take(std::size_t length) noexcept
    {
        const auto taken = rest_.first(std::min(length, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    std::uint8_t number() noexcept
    {
        const auto byte = take(1);
        return byte.empty() ? std::uint8_t{0} : byte[0];
    }

private:
    std::span<std::uint8_t> rest_;
};

/// A number chooses a tag that there is, or one of four bytes follows; then come length and value.
SecKeychainAttribute nextAttribute(Input& input)
{
    SecKeychainAttribute attribute;
    const std::size_t choice = input.number();
    if (choice < certificateTags.size())
        attribute.tag = certificateTags[choice];
    else
        for (const auto byte : input.take(4))
            attribute.tag = attribute.tag << 8U | byte;
    const auto value = input.take(input.number());
    attribute.length = static_cast<std::uint32_t>(value.size());
    attribute.data = value.data();
    return attribute;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length)
{
    const auto memory = std::make_shared<MemoryBackend>();
    const ScopedBackend scoped(memory);
    fill(*memory);
    std::vector<std::uint8_t> copy(bytes, bytes + length);
    Input input(copy);
    const bool isKey = input.number() % 2 == 1;
    const Tags& itsTags = isKey ? keyTags : certificateTags;
    const auto item = onlyItem(isKey ? kSecPrivateKeyItemClass : kSecCertificateItemClass);
    const auto before = valuesOf(item, itsTags);
    require(before.size() == itsTags.size());

    std::vector<SecKeychainAttribute> attributes;
    while (!input.atEnd())
        attributes.push_back(nextAttribute(input));
    Tags tags;
    for (const auto& attribute : attributes)
        tags.push_back(attribute.tag);
    const auto isKnown = [&](std::uint32_t tag) { return std::ranges::find(itsTags, tag) != itsTags.end(); };
    require(valuesOf(item, tags).size() == (std::ranges::all_of(tags, isKnown) ? tags.size() : 0));

    const SecKeychainAttributeList list{static_cast<std::uint32_t>(attributes.size()), attributes.data()};
    const bool isWritten = SecKeychainItemModifyAttributesAndData(item, &list, 0, nullptr) == errSecSuccess;
    require(isWritten
        == std::ranges::all_of(tags, [](std::uint32_t tag) { return tag == std::uint32_t{kSecLabelItemAttr}; }));
    auto expected = before;
    if (isWritten && !attributes.empty()) {
        const auto* label = static_cast<const std::uint8_t*>(attributes.back().data);
        expected[0].assign(label, label + attributes.back().length);
        // Without a label a certificate is called what its own names, and this one's serial number, say.
        if (expected[0].empty() && !isKey)
            expected[0] = {'0', '1'};
    }
    require(valuesOf(item, itsTags) == expected);
    return 0;
}
