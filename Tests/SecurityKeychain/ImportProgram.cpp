// Imports bundles into the default keychain, for tests that need another process or kill one.
//
//     import_program PASSPHRASE-FILE BUNDLE...          once each
//     import_program --loop PASSPHRASE-FILE BUNDLE...   imports and deletes for ever, until it is killed
//
// Prints a line when the first import begins. Exit status: 0, or 1 with the status on standard error.
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"
#include "Tests/Support/Fixtures.h"

#include <cstdio>

namespace {

OSStatus importOnce(const kf::test::Bytes& bytes, const Ref<NSString>& passphrase, Ref<NSArray>& items)
{
    SecKeychainRef keychain;
    if (const OSStatus status = SecKeychainCopyDefault(&keychain); status != errSecSuccess)
        return status;
    SecKeyImportExportParameters parameters;
    parameters.passphrase = passphrase;
    return SecKeychainItemImport(
        NSData::dataWithBytes(bytes), nullptr, nullptr, nullptr, 0, &parameters, keychain, &items);
}

OSStatus deleteIdentity(const Ref<NSArray>& items)
{
    const auto identity = items->objectAs<SecIdentity>(0);
    if (const OSStatus status = SecKeychainItemDelete(identity->privateKey()); status != errSecSuccess)
        return status;
    return SecKeychainItemDelete(identity->certificate());
}

int failed(const char* step, OSStatus status)
{
    std::fprintf(stderr, "%s: %d\n", step, status);
    return 1;
}

} // namespace

int main(int count, char** arguments)
{
    std::vector<std::string> words(arguments + 1, arguments + count);
    const bool isLoop = !words.empty() && words.front() == "--loop";
    if (isLoop)
        words.erase(words.begin());
    if (words.size() < 2)
        return failed("usage: import_program [--loop] PASSPHRASE-FILE BUNDLE...", errSecParam);
    const auto secret = kf::test::readFile(words[0]);
    const std::string text(secret.begin(), secret.end());
    const auto passphrase = NSString::sensitiveStringWithUTF8String(text.substr(0, text.find('\n')));
    std::vector<kf::test::Bytes> bundles;
    for (std::size_t index = 1; index < words.size(); ++index)
        bundles.push_back(kf::test::readFile(words[index]));
    std::puts("importing");
    std::fflush(stdout);
    do {
        for (const auto& bundle : bundles) {
            Ref<NSArray> items;
            if (const OSStatus status = importOnce(bundle, passphrase, items); status != errSecSuccess)
                return failed("import", status);
            if (isLoop)
                if (const OSStatus status = deleteIdentity(items); status != errSecSuccess)
                    return failed("delete", status);
        }
    } while (isLoop);
    kf::keychain::closeAll();
    return 0;
}
