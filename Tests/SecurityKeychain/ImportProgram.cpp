// Imports bundles into the default keychain, for tests that need another process or kill one.
//
//     import_program PASSPHRASE-FILE BUNDLE...          once each
//     import_program --loop PASSPHRASE-FILE BUNDLE...   imports and deletes for ever, until it is killed
//     import_program --delete PASSPHRASE-FILE BUNDLE... deletes every certificate instead
//     import_program --end-at N ...                     kills itself at the Nth moment: just before and just after each
//                                                       step that writes is one
//
// Prints a line when the first import begins. Exit status: 0, or 1 with the status on standard error.
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/NSSBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"
#include "Security/SecKeychainSearch.h"
#include "Tests/Support/Fixtures.h"

#include <csignal>
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

OSStatus deleteCertificates()
{
    SecKeychainRef keychain;
    SecKeychainSearchRef search;
    OSStatus status = SecKeychainCopyDefault(&keychain);
    if (status == errSecSuccess)
        status = SecKeychainSearchCreateFromAttributes(keychain, kSecCertificateItemClass, nullptr, &search);
    SecKeychainItemRef item;
    while (status == errSecSuccess) {
        status = SecKeychainSearchCopyNext(search, &item);
        if (status == errSecSuccess)
            status = SecKeychainItemDelete(item);
    }
    return status == errSecItemNotFound ? OSStatus{errSecSuccess} : status;
}

bool writes(kf::keychain::Operation operation)
{
    using kf::keychain::Operation;
    return operation >= Operation::beginWriting && operation != Operation::readTrust;
}

/// Dies as by a power cut to the process: no destructor runs, nothing is finished.
void endAt(int moment)
{
    const auto backend = std::make_shared<kf::keychain::FaultBackend>(std::make_shared<kf::keychain::NSSBackend>());
    backend->watch([moments = 0, moment](kf::keychain::Operation operation, bool) mutable {
        if (writes(operation) && ++moments == moment)
            std::raise(SIGKILL);
    });
    kf::keychain::setBackend(backend);
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
    const auto take = [&words](const char* word) {
        const bool isThere = !words.empty() && words.front() == word;
        if (isThere)
            words.erase(words.begin());
        return isThere;
    };
    if (take("--end-at") && !words.empty()) {
        endAt(std::stoi(words.front()));
        words.erase(words.begin());
    }
    const bool isLoop = take("--loop");
    const bool isDeletion = take("--delete");
    if (words.size() < 2)
        return failed("usage: import_program [--end-at N] [--loop | --delete] PASSPHRASE-FILE BUNDLE...", errSecParam);
    const auto secret = kf::test::readFile(words[0]);
    const std::string text(secret.begin(), secret.end());
    const auto passphrase = NSString::sensitiveStringWithUTF8String(text.substr(0, text.find('\n')));
    std::vector<kf::test::Bytes> bundles;
    for (std::size_t index = 1; index < words.size(); ++index)
        bundles.push_back(kf::test::readFile(words[index]));
    std::puts("importing");
    std::fflush(stdout);
    if (isDeletion) {
        const OSStatus status = deleteCertificates();
        return status == errSecSuccess ? 0 : failed("delete", status);
    }
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
