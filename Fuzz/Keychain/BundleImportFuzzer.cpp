// What can be read of a bundle is imported whole, identity first, and what cannot leaves no keychain behind. Every way
// to fail has a text.

#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/PKCS12.h"
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"

#include <cstdlib>

using namespace kf::keychain;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length)
{
    constexpr const char* path = "/keychain";
    constexpr std::string_view passphrase = "correct horse";
    const auto memory = std::make_shared<MemoryBackend>();
    const ScopedBackend scoped(memory);
    SecKeychainRef keychain;
    require(SecKeychainOpen(path, &keychain) == errSecSuccess);
    SecKeyImportExportParameters parameters;
    parameters.passphrase = NSString::sensitiveStringWithUTF8String(passphrase);
    Ref<NSArray> items;
    const OSStatus status = SecKeychainItemImport(
        NSData::dataWithBytes(bytes, length), nullptr, nullptr, nullptr, 0, &parameters, keychain, &items);
    require(status == readBundle({bytes, length}, asBytes(passphrase)).status());
    require(SecCopyErrorMessageString(status, nullptr) != nullptr);
    require(memory->exists(path) == (status == errSecSuccess));
    if (status != errSecSuccess)
        return 0;
    require(certificateIndex(path)->get()->entries().size() == items->count());
    require(keyIndex(path)->get()->entries().size() == 1);
    SecIdentityRef identity;
    require(SecIdentityCreateWithCertificate(
                keychain, refCast<SecIdentity>(items->objectAtIndex(0))->certificate(), &identity)
        == errSecSuccess);
    return 0;
}
