#include "Security/Keychain/PKCS11Objects.h"

#include "Security/Keychain/NSSDatabase.h"

#include <algorithm>

namespace kf::keychain {

namespace {
constexpr std::size_t usualSize = 4096;
}

Result<std::vector<CK_OBJECT_HANDLE>> findObjects(const ScopedSession& session, Template& wanted)
{
    CK_FUNCTION_LIST& pkcs11 = session.functions();
    if (const CK_RV begun = pkcs11.C_FindObjectsInit(session.handle(), wanted.data(), wanted.size()); begun != CKR_OK)
        return Failure{statusOfPKCS11(begun)};
    std::vector<CK_OBJECT_HANDLE> objects;
    CK_OBJECT_HANDLE batch[256];
    CK_ULONG count = 0;
    CK_RV found = CKR_OK;
    do {
        found = pkcs11.C_FindObjects(session.handle(), batch, std::size(batch), &count);
        if (found == CKR_OK)
            objects.insert(objects.end(), batch, batch + count);
    } while (found == CKR_OK && count == std::size(batch));
    pkcs11.C_FindObjectsFinal(session.handle());
    if (found != CKR_OK)
        return Failure{statusOfPKCS11(found)};
    return objects;
}

Result<std::vector<Bytes>> readAttributes(
    const ScopedSession& session, CK_OBJECT_HANDLE object, std::initializer_list<CK_ATTRIBUTE_TYPE> types)
{
    CK_FUNCTION_LIST& pkcs11 = session.functions();
    // Most values fit; each call is a query of the database.
    std::vector<Bytes> values(types.size(), Bytes(usualSize));
    std::vector<CK_ATTRIBUTE> attributes;
    const auto read = [&](bool sizesOnly) {
        attributes.clear();
        for (std::size_t index = 0; index < types.size(); ++index)
            attributes.push_back({types.begin()[index], sizesOnly ? nullptr : values[index].data(),
                sizesOnly ? 0 : values[index].size()});
        return pkcs11.C_GetAttributeValue(session.handle(), object, attributes.data(), attributes.size());
    };
    const auto lengthOf = [&](std::size_t index) {
        const CK_ULONG length = attributes[index].ulValueLen;
        return length == CK_UNAVAILABLE_INFORMATION ? 0 : length;
    };
    CK_RV result = read(false);
    if (result == CKR_BUFFER_TOO_SMALL) {
        result = read(true);
        for (std::size_t index = 0; index < values.size(); ++index)
            values[index].resize(std::max<std::size_t>(lengthOf(index), 1));
        if (result == CKR_OK || result == CKR_ATTRIBUTE_TYPE_INVALID)
            result = read(false);
    }
    if (result != CKR_OK && result != CKR_ATTRIBUTE_TYPE_INVALID)
        return Failure{statusOfPKCS11(result)};
    for (std::size_t index = 0; index < values.size(); ++index) {
        values[index].resize(lengthOf(index));
        values[index].shrink_to_fit(); // kept for every certificate of a keychain
    }
    return values;
}

CK_ULONG readWord(const ScopedSession& session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG fallback)
{
    CK_ULONG word = fallback;
    CK_ATTRIBUTE attribute{type, &word, sizeof word};
    if (session.functions().C_GetAttributeValue(session.handle(), object, &attribute, 1) != CKR_OK
        || attribute.ulValueLen != sizeof word)
        return fallback;
    return word;
}

} // namespace kf::keychain
