// NSS gives a private key away only encrypted under another key: one of ours, used once.
#include "Security/Keychain/NSSDatabase.h"
#include "Security/Keychain/PKCS11Objects.h"
#include "Security/ScopedOpenSSL.h"

#include <openssl/rand.h>

namespace kf::keychain {

namespace {

constexpr std::size_t wrappingKeySize = 32;
constexpr std::size_t blockSize = 16;

using ScopedCipherContext = std::unique_ptr<EVP_CIPHER_CTX, OpenSSLDeleter<EVP_CIPHER_CTX_free>>;

Result<CK_OBJECT_HANDLE> findKey(const ScopedSession& session, std::span<const std::uint8_t> id)
{
    Template wanted;
    wanted.addWord(CKA_CLASS, CKO_PRIVATE_KEY).addBool(CKA_TOKEN, true).add(CKA_ID, id);
    const auto found = findObjects(session, wanted);
    if (!found)
        return found.failure();
    if (found->empty())
        return Failure{errSecInvalidItemRef};
    const auto extractable = readAttributes(session, found->front(), {CKA_EXTRACTABLE});
    if (!extractable)
        return extractable.failure();
    if (extractable->front() != Bytes{CK_TRUE})
        return Failure{errSecKeyIsSensitive};
    return found->front();
}

/// The wrapping key as an object that goes with the session.
Result<CK_OBJECT_HANDLE> createWrappingKey(const ScopedSession& session, const SecretBytes& key)
{
    Template object;
    object.addWord(CKA_CLASS, CKO_SECRET_KEY)
        .addWord(CKA_KEY_TYPE, CKK_AES)
        .addBool(CKA_TOKEN, false)
        .addBool(CKA_WRAP, true)
        .add(CKA_VALUE, key);
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    const CK_RV created = session.functions().C_CreateObject(session.handle(), object.data(), object.size(), &handle);
    if (created != CKR_OK)
        return Failure{statusOfPKCS11(created)};
    return handle;
}

Result<Bytes> wrap(const ScopedSession& session, CK_OBJECT_HANDLE wrappingKey, CK_OBJECT_HANDLE key, Bytes& start)
{
    CK_MECHANISM mechanism = {CKM_AES_CBC_PAD, start.data(), start.size()};
    const auto call = [&](CK_BYTE* bytes, CK_ULONG* length) {
        return session.functions().C_WrapKey(session.handle(), &mechanism, wrappingKey, key, bytes, length);
    };
    CK_ULONG length = 0;
    CK_RV wrapped = call(nullptr, &length);
    Bytes bytes(length);
    if (wrapped == CKR_OK)
        wrapped = call(bytes.data(), &length);
    if (wrapped == CKR_KEY_UNEXTRACTABLE || wrapped == CKR_KEY_NOT_WRAPPABLE)
        return Failure{errSecKeyIsSensitive};
    if (wrapped != CKR_OK)
        return Failure{statusOfPKCS11(wrapped)};
    bytes.resize(length);
    return bytes;
}

Result<SecretBytes> decrypt(const Bytes& wrapped, const SecretBytes& key, const Bytes& start)
{
    const OpenSSLErrorMark mark;
    const ScopedCipherContext context(EVP_CIPHER_CTX_new());
    SecretBytes plain(wrapped.size() + blockSize);
    int length = 0;
    int last = 0;
    if (!context || EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), start.data()) != 1
        || EVP_DecryptUpdate(context.get(), plain.data(), &length, wrapped.data(), static_cast<int>(wrapped.size()))
            != 1
        || EVP_DecryptFinal_ex(context.get(), plain.data() + length, &last) != 1)
        return Failure{errSecInternalComponent};
    plain.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(last));
    return plain;
}

} // namespace

Result<SecretBytes> NSSDatabase::privateKeyInfo(std::span<const std::uint8_t> id)
{
    if (isLocked())
        return Failure{errSecInteractionNotAllowed};
    CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
    const CK_RV opened = slot_->functions->C_OpenSession(slot_->id, CKF_SERIAL_SESSION, nullptr, nullptr, &handle);
    if (opened != CKR_OK)
        return Failure{statusOfPKCS11(opened)};
    const ScopedSession session(*slot_->functions, handle);
    const auto key = findKey(session, id);
    if (!key)
        return key.failure();
    SecretBytes wrappingKey(wrappingKeySize);
    Bytes start(blockSize);
    if (RAND_priv_bytes(wrappingKey.data(), wrappingKeySize) != 1 || RAND_bytes(start.data(), blockSize) != 1)
        return Failure{errSecInternalComponent};
    const auto wrappingObject = createWrappingKey(session, wrappingKey);
    if (!wrappingObject)
        return wrappingObject.failure();
    const auto wrapped = wrap(session, *wrappingObject, *key, start);
    return wrapped ? decrypt(*wrapped, wrappingKey, start) : wrapped.failure();
}

} // namespace kf::keychain
