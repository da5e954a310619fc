// One NSS database, spoken to in raw PKCS#11. For source files only.
#pragma once

#include "Security/Keychain/DatabaseFiles.h"
#include "Security/Keychain/ScopedNSS.h"

namespace kf::keychain {

/// An open slot with what was known of its files when it was opened.
struct NSSSlot {
    std::string path;
    ScopedUserSlot slot;
    CK_FUNCTION_LIST* functions = nullptr;
    CK_SLOT_ID id = 0;
    FileIdentity files;
    OSStatus writing = errSecSuccess;
};

class NSSDatabase final : public Database {
public:
    NSSDatabase(std::shared_ptr<NSSSlot> slot, Access access) noexcept : slot_(std::move(slot)), access_(access) { }

    Result<Generation> generation() override;
    bool isLocked() override;
    Status unlock(std::span<const std::uint8_t> passphrase) override;
    Result<std::vector<CertificateRecord>> certificates() override;
    Result<std::vector<KeyRecord>> privateKeys() override;
    Result<bool> containsCertificate(std::span<const std::uint8_t> der) override;
    Result<bool> containsPrivateKey(std::span<const std::uint8_t> id) override;
    Result<SecretBytes> privateKeyInfo(std::span<const std::uint8_t> id) override; // KeyExport.cpp
    Result<std::unique_ptr<WriteTurn>> beginWriting() override;
    Status addCertificate(std::span<const std::uint8_t> der, const std::string& label) override;
    Status addPrivateKey(const PrivateKey& key) override;
    Status removeCertificate(std::span<const std::uint8_t> der) override;
    Status removePrivateKey(std::span<const std::uint8_t> id) override;
    Status setCertificateLabel(std::span<const std::uint8_t> der, const std::string& label) override;
    Status setPrivateKeyLabel(std::span<const std::uint8_t> id, const std::string& label) override;
    Result<Trust> trust(std::span<const std::uint8_t> certificate) override;
    Status setTrust(std::span<const std::uint8_t> certificate, const Trust& trust) override;
    Status removeTrust(std::span<const std::uint8_t> certificate) override;

private:
    enum class Need : std::uint8_t { reading, unlocked, writing };
    template <class Use>
    auto withSession(Need need, Use use) -> decltype(use(std::declval<const ScopedSession&>()));

    std::shared_ptr<NSSSlot> slot_;
    Access access_;
};

/// The status that tells what a PKCS#11 return value means to our callers.
OSStatus statusOfPKCS11(CK_RV value) noexcept;

} // namespace kf::keychain
