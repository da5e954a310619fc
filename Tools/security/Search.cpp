#include "security/Search.h"

#include "Security/SecKeychainSearch.h"
#include "security/Text.h"

#include <algorithm>
#include <strings.h>

namespace kf::security {

namespace {

/// "ab:cd ef" as "ABCDEF"; nothing where it is no digest of ours.
std::optional<std::string> normalizedDigest(const std::string& text)
{
    std::string digits;
    for (const char character : text) {
        if (character == ':' || character == ' ')
            continue;
        const char capital =
            character >= 'a' && character <= 'f' ? static_cast<char>(character - 'a' + 'A') : character;
        if (std::string_view("0123456789ABCDEF").find(capital) == std::string_view::npos)
            return std::nullopt;
        digits += capital;
    }
    constexpr std::size_t sha256Digits = 64;
    constexpr std::size_t sha1Digits = 40;
    return digits.size() == sha256Digits || digits.size() == sha1Digits ? std::optional(digits) : std::nullopt;
}

bool isSameAddress(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/// Hands each item that a search gives to `take`, until that wants no more.
template <class Item, class Next, class Take>
bool walk(const SecKeychainRef& keychain, OSStatus begun, Next next, Take take)
{
    OSStatus status = begun;
    Item item;
    while (status == errSecSuccess && (status = next(&item)) == errSecSuccess)
        if (!take(item))
            return true;
    if (status == errSecItemNotFound)
        return true;
    complain(keychain->path(), status);
    return false;
}

const SecCertificateRef& certificateOf(const SecCertificateRef& certificate) { return certificate; }
const SecCertificateRef& certificateOf(const SecIdentityRef& identity) { return identity->certificate(); }

template <class T>
Ref<T> chooseOnlyOne(const std::string& command, const Found<T>& found)
{
    if (!found.isComplete)
        return nullptr;
    if (found.items.size() == 1)
        return found.items.front();
    if (found.items.empty()) {
        complain(command, errSecItemNotFound);
        return nullptr;
    }
    complain(command,
        std::to_string(found.items.size())
            + " items match, and nothing was done. Name one by its digest and keychain:");
    for (const auto& item : found.items) {
        const SecCertificateRef& certificate = certificateOf(item);
        complain(certificate->keychain()->path(), describe(certificate));
    }
    return nullptr;
}

} // namespace

bool Selection::matches(const SecCertificateRef& certificate) const
{
    if (digest && *digest != sha256Of(certificate) && *digest != sha1Of(certificate))
        return false;
    if (!commonName && !emailAddress)
        return true;
    const auto fields = readCertificateFields(derOf(certificate));
    if (!fields || (commonName && fields->commonName != *commonName))
        return false;
    return !emailAddress || std::ranges::any_of(fields->emailAddresses, [&](const std::string& address) {
        return isSameAddress(address, *emailAddress);
    });
}

std::optional<Selection> selectionOf(const Arguments& arguments)
{
    Selection selection{arguments.value('c'), arguments.value('e'), std::nullopt};
    if (selection.commonName == "" || selection.emailAddress == "")
        return std::nullopt;
    if (const auto digest = arguments.value('Z'); digest && !digest->empty()) {
        selection.digest = normalizedDigest(*digest);
        if (!selection.digest)
            return std::nullopt;
    }
    return selection;
}

std::optional<std::vector<SecKeychainRef>> keychainsOf(const std::vector<std::string>& paths)
{
    std::vector<SecKeychainRef> keychains;
    for (const std::string& path : paths) {
        SecKeychainRef keychain;
        if (const OSStatus status = SecKeychainOpen(path.c_str(), &keychain); status != errSecSuccess) {
            complain("\"" + path + "\"", status);
            return std::nullopt;
        }
        keychains.push_back(keychain);
    }
    if (!paths.empty())
        return keychains;
    Ref<NSArray> searchList;
    if (const OSStatus status = SecKeychainCopySearchList(&searchList); status != errSecSuccess) {
        complain("search list", status);
        return std::nullopt;
    }
    for (const auto& keychain : *searchList)
        keychains.push_back(refCast<SecKeychain>(keychain));
    return keychains;
}

Found<SecCertificate> findCertificates(
    const std::vector<SecKeychainRef>& keychains, const Selection& selection, bool firstOnly)
{
    Found<SecCertificate> found;
    for (const auto& keychain : keychains) {
        SecKeychainSearchRef search;
        const OSStatus begun =
            SecKeychainSearchCreateFromAttributes(keychain, kSecCertificateItemClass, nullptr, &search);
        found.isComplete &= walk<SecKeychainItemRef>(
            keychain, begun, [&](SecKeychainItemRef* item) { return SecKeychainSearchCopyNext(search, item); },
            [&](const SecKeychainItemRef& item) {
                const auto certificate = refCast<SecCertificate>(item);
                if (selection.matches(certificate))
                    found.items.push_back(certificate);
                return !firstOnly || found.items.empty();
            });
        if (firstOnly && !found.items.empty())
            break;
    }
    return found;
}

Found<SecIdentity> findIdentities(const std::vector<SecKeychainRef>& keychains, const Selection& selection)
{
    Found<SecIdentity> found;
    for (const auto& keychain : keychains) {
        SecIdentitySearchRef search;
        const OSStatus begun = SecIdentitySearchCreate(keychain, CSSM_KEYUSE_ANY, &search);
        found.isComplete &= walk<SecIdentityRef>(
            keychain, begun, [&](SecIdentityRef* identity) { return SecIdentitySearchCopyNext(search, identity); },
            [&](const SecIdentityRef& identity) {
                if (selection.matches(identity->certificate()))
                    found.items.push_back(identity);
                return true;
            });
    }
    return found;
}

SecCertificateRef onlyOne(const std::string& command, const Found<SecCertificate>& found)
{
    return chooseOnlyOne(command, found);
}

SecIdentityRef onlyOne(const std::string& command, const Found<SecIdentity>& found)
{
    return chooseOnlyOne(command, found);
}

std::string describe(const SecCertificateRef& certificate)
{
    return "\"" + printable(labelOf(certificate)) + "\", SHA-256 " + sha256Of(certificate);
}

std::span<const std::uint8_t> derOf(const SecCertificateRef& certificate)
{
    CSSM_DATA data;
    static_cast<void>(SecCertificateGetData(certificate, &data));
    return {data.Data, data.Length};
}

std::string labelOf(const SecCertificateRef& certificate)
{
    SecKeychainAttrType tag = kSecLabelItemAttr;
    const SecKeychainAttributeInfo info{1, &tag, nullptr};
    SecKeychainAttributeList* list = nullptr;
    if (SecKeychainItemCopyAttributesAndData(certificate, &info, nullptr, &list, nullptr, nullptr) != errSecSuccess)
        return {};
    std::string label(static_cast<const char*>(list->attr[0].data), list->attr[0].length);
    SecKeychainItemFreeAttributesAndData(list, nullptr);
    return label;
}

std::string sha256Of(const SecCertificateRef& certificate) { return hexText(certificate->digest()); }

std::string sha1Of(const SecCertificateRef& certificate) { return hexText(sha1(derOf(certificate))); }

} // namespace kf::security
