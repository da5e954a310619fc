// import_once BUNDLE PASSPHRASE-FILE: imports a PKCS#12 bundle into the default keychain of $HOME, and nothing else.
// The counterpart of `pk12util -i` in the benchmark.

#include "Foundation/NSData.h"
#include "Security/SecKeychainItem.h"

#include <cstdio>
#include <fstream>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: import_once BUNDLE PASSPHRASE-FILE\n");
        return 2;
    }
    std::string passphrase;
    std::ifstream stream(argv[2]);
    std::getline(stream, passphrase);

    SecKeyImportExportParameters parameters;
    parameters.passphrase = NSString::sensitiveStringWithUTF8String(passphrase);
    parameters.keyUsage = CSSM_KEYUSE_ANY;
    parameters.keyAttributes = CSSM_KEYATTR_SENSITIVE | CSSM_KEYATTR_EXTRACTABLE;
    SecExternalFormat format = kSecFormatPKCS12;
    SecExternalItemType type = kSecItemTypeAggregate;

    SecKeychainRef keychain;
    Ref<NSArray> items;
    OSStatus status = SecKeychainCopyDefault(&keychain);
    if (status == errSecSuccess) {
        status = SecKeychainItemImport(NSData::dataWithContentsOfFile(NSString::stringWithUTF8String(argv[1])),
            "p12"_ns, &format, &type, 0, &parameters, keychain, &items);
    }
    if (status != errSecSuccess) {
        std::fprintf(
            stderr, "import_once: %s (%d)\n", toUTF8(SecCopyErrorMessageString(status, nullptr)).c_str(), status);
        return 1;
    }
    std::printf("Imported %llu items\n", static_cast<unsigned long long>(countOf(items)));
    return 0;
}
