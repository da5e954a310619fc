#include "Security/Keychain/PKCS11Objects.h"

#include "Security/Keychain/NSSDatabase.h"

namespace kf::keychain {

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

Result<Bytes> readAttribute(const ScopedSession& session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    CK_FUNCTION_LIST& pkcs11 = session.functions();
    Bytes value(4096); // most certificates fit, and each reading is a query
    CK_ATTRIBUTE attribute{type, value.data(), value.size()};
    CK_RV read = pkcs11.C_GetAttributeValue(session.handle(), object, &attribute, 1);
    if (read == CKR_BUFFER_TOO_SMALL) {
        attribute = {type, nullptr, 0};
        read = pkcs11.C_GetAttributeValue(session.handle(), object, &attribute, 1);
        if (read == CKR_OK) {
            value.resize(attribute.ulValueLen);
            attribute = {type, value.data(), value.size()};
            read = pkcs11.C_GetAttributeValue(session.handle(), object, &attribute, 1);
        }
    }
    if (read == CKR_ATTRIBUTE_TYPE_INVALID)
        return Bytes();
    if (read != CKR_OK)
        return Failure{statusOfPKCS11(read)};
    value.resize(attribute.ulValueLen);
    return value;
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
